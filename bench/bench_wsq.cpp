// WSQ encoding and decoding of a 600 x 600 capture at 0.75 bit per pixel,
// in process (no file input or output).
//
// Target on the 2-core reference machine (RelWithDebInfo), both ABIs:
//   BM_WsqEncode <= 5 ms, BM_WsqDecode <= 5 ms with a kept codec (NIST's
//   encoder: about 20 ms); the one-off calls show what fresh memory adds.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "wsq.h"

namespace {

// A print filling most of the glass: curved ridges of 9 pixels period (500 ppi)
// inside an oval, pixel noise, bright empty glass around.
std::vector<unsigned char> Capture()
{
    std::vector<unsigned char> img(600 * 600, 235);
    unsigned nNoise = 12345;
    for (int y = 0; y < 600; ++y) {
        for (int x = 0; x < 600; ++x) {
            nNoise = nNoise * 1103515245u + 12345u;
            const double dx = (x - 300) / 230.0, dy = (y - 300) / 285.0;
            if (dx * dx + dy * dy >= 1.0) continue;
            const double dAngle = 0.5 * std::sin(x / 97.0) + 0.4 * std::cos(y / 131.0);
            const double dU = x * std::cos(dAngle) + y * std::sin(dAngle);
            const double dValue =
                130.0 + 90.0 * std::sin(2.0 * M_PI * dU / 9.0) + static_cast<int>((nNoise >> 16) % 13) - 6;
            img[static_cast<size_t>(y * 600 + x)] =
                static_cast<unsigned char>(dValue < 0 ? 0 : (dValue > 255 ? 255 : dValue));
        }
    }
    return img;
}

// A codec kept from one capture to the next, as a host that sends many
// prints (or the capture service) keeps one.
void BM_WsqEncode(benchmark::State& state)
{
    const std::vector<unsigned char> img = Capture();
    std::vector<unsigned char> out;
    tavk05rec::WsqCodec codec;
    for (auto _ : state) {
        codec.Encode(img.data(), 600, 600, 500, 0.75, {}, out);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["bytes"] = static_cast<double>(out.size());
}
BENCHMARK(BM_WsqEncode)->Unit(benchmark::kMillisecond);

void BM_WsqDecode(benchmark::State& state)
{
    const std::vector<unsigned char> img = Capture();
    std::vector<unsigned char> file, pixels;
    tavk05rec::WsqEncode(img.data(), 600, 600, 500, 0.75, {}, file);
    tavk05rec::WsqInfo info;
    tavk05rec::WsqCodec codec;
    for (auto _ : state) {
        codec.Decode(file.data(), file.size(), pixels, info);
        benchmark::DoNotOptimize(pixels.data());
    }
}
BENCHMARK(BM_WsqDecode)->Unit(benchmark::kMillisecond);

// One-off calls: each makes its working memory afresh. On x86_64 the C
// library keeps freed large blocks for the next call; on i386 it returns
// them to the kernel, and every page is faulted in again.
void BM_WsqEncodeOneOff(benchmark::State& state)
{
    const std::vector<unsigned char> img = Capture();
    std::vector<unsigned char> out;
    for (auto _ : state) {
        tavk05rec::WsqEncode(img.data(), 600, 600, 500, 0.75, {}, out);
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_WsqEncodeOneOff)->Unit(benchmark::kMillisecond);

void BM_WsqDecodeOneOff(benchmark::State& state)
{
    const std::vector<unsigned char> img = Capture();
    std::vector<unsigned char> file, pixels;
    tavk05rec::WsqEncode(img.data(), 600, 600, 500, 0.75, {}, file);
    tavk05rec::WsqInfo info;
    for (auto _ : state) {
        tavk05rec::WsqDecode(file.data(), file.size(), pixels, info);
        benchmark::DoNotOptimize(pixels.data());
    }
}
BENCHMARK(BM_WsqDecodeOneOff)->Unit(benchmark::kMillisecond);

}  // namespace
