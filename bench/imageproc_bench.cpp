// Image processor benchmarks: each mosaic conversion and geometry correction
// at every raw size in use, the two modify-table builds, the processor's
// construction, and the whole processing of the largest frame (copy of the
// mosaic, conversion, interpolating correction with its mirror).
//
// Targets on the 2-core reference machine (x86_64, RelWithDebInfo):
//   BM_LargestFrame   <= 1.9 ms median
//   BM_Construct      <= 15 ms median
#include "tavk05/isproc.h"

#include <benchmark/benchmark.h>

#include "random_bytes.h"

#include <cstring>
#include <memory>
#include <random>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;

CImageProc& Proc()
{
    static CImageProc proc;
    return proc;
}

using benchinput::Random;

void SizeArgs(benchmark::internal::Benchmark* b)
{
    b->Args({1280, 676})->Args({1288, 876})->Args({1800, 1280})->Args({1214, 616});
}

void BM_RGBtoGRAY(benchmark::State& state)
{
    const int w = static_cast<int>(state.range(0));
    const int h = static_cast<int>(state.range(1));
    Bytes src = Random(static_cast<size_t>(w) * h, 1);
    Bytes dst(src.size());
    for (auto _ : state) {
        Proc().RGBtoGRAY(src.data(), dst.data(), w, h);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * w * h);
}
BENCHMARK(BM_RGBtoGRAY)->Apply(SizeArgs)->Unit(benchmark::kMicrosecond);

void BM_RGBtoGRAY2(benchmark::State& state)
{
    const int w = static_cast<int>(state.range(0));
    const int h = static_cast<int>(state.range(1));
    Bytes src = Random(static_cast<size_t>(w) * h, 2);
    Bytes dst(src.size());
    for (auto _ : state) {
        Proc().RGBtoGRAY2(src.data(), dst.data(), w, h);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * w * h);
}
BENCHMARK(BM_RGBtoGRAY2)->Apply(SizeArgs)->Unit(benchmark::kMicrosecond);

// Table lookup: device type 4 for the 1280 x 676 frame, 5 for 1288 x 876.
void BM_CorrectImage(benchmark::State& state)
{
    const unsigned long w = static_cast<unsigned long>(state.range(0));
    const unsigned long h = static_cast<unsigned long>(state.range(1));
    Bytes src = Random(w * h, 3);
    Bytes dst(IMG_PIXELS);
    CImageProc& proc = Proc();
    const int nSaved = proc.m_nDeviceType;
    proc.m_nDeviceType = w == 1280 ? 4 : 5;
    for (auto _ : state) {
        benchmark::DoNotOptimize(proc.CorrectImage(src.data(), w, h, dst.data(), 600, 600, 0, 0));
        benchmark::ClobberMemory();
    }
    proc.m_nDeviceType = nSaved;
}
BENCHMARK(BM_CorrectImage)->Args({1280, 676})->Args({1288, 876})->Unit(benchmark::kMicrosecond);

void BM_CorrectImageCalc(benchmark::State& state)
{
    Bytes src = Random(1288 * 876, 4);
    Bytes dst(IMG_PIXELS);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Proc().CorrectImageCalc(src.data(), 1288, 876, dst.data(), 600, 600, 0, 0));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_CorrectImageCalc)->Unit(benchmark::kMicrosecond);

void BM_CorrectImageCalcEx(benchmark::State& state)
{
    Bytes src = Random(1800 * 1280, 5);
    Bytes dst(IMG_PIXELS);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Proc().CorrectImageCalcEx(src.data(), 1800, 1280, dst.data(), 600, 600, 0, 0));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_CorrectImageCalcEx)->Unit(benchmark::kMicrosecond);

void BM_RotateRightImage(benchmark::State& state)
{
    Bytes img = Random(IMG_PIXELS, 6);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Proc().RotateRightImage(img.data(), 600, 600));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_RotateRightImage)->Unit(benchmark::kMicrosecond);

void BM_InitModifyTable(benchmark::State& state)
{
    for (auto _ : state) {
        Proc().InitModifyTable();
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_InitModifyTable)->Unit(benchmark::kMillisecond);

void BM_InitModifyTableEx(benchmark::State& state)
{
    for (auto _ : state) {
        Proc().InitModifyTableEx();
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_InitModifyTableEx)->Unit(benchmark::kMillisecond);

void BM_Construct(benchmark::State& state)
{
    for (auto _ : state) {
        std::unique_ptr<CImageProc> p(new CImageProc);
        benchmark::DoNotOptimize(p.get());
    }
}
BENCHMARK(BM_Construct)->Unit(benchmark::kMillisecond)->UseRealTime();

// Construction plus the first frame of a new processor: the entries of its
// freshly built table are read for the first time.
void BM_ConstructAndFirstCalcEx(benchmark::State& state)
{
    Bytes src = Random(1800 * 1280, 5);
    Bytes dst(IMG_PIXELS);
    for (auto _ : state) {
        std::unique_ptr<CImageProc> p(new CImageProc);
        benchmark::DoNotOptimize(p->CorrectImageCalcEx(src.data(), 1800, 1280, dst.data(), 600, 600, 0, 0));
    }
}
BENCHMARK(BM_ConstructAndFirstCalcEx)->Unit(benchmark::kMillisecond)->UseRealTime();

// What the capture path does with one 1800 x 1280 frame of a new-firmware
// model: copy the mosaic out of the read buffer, convert it, correct it.
void BM_LargestFrame(benchmark::State& state)
{
    const size_t nMosaic = 1800 * 1280;
    Bytes raw = Random(2340000, 7);
    Bytes copy(2340000), grey(2340000), image(IMG_PIXELS);
    CImageProc& proc = Proc();
    for (auto _ : state) {
        std::memcpy(copy.data(), raw.data(), nMosaic);
        proc.RGBtoGRAY2(copy.data(), grey.data(), 1800, 1280);
        benchmark::DoNotOptimize(proc.CorrectImageCalcEx(grey.data(), 1800, 1280, image.data(), 600, 600, 0, 0));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_LargestFrame)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
