// Image algorithm benchmarks on 600 x 600 frames: the per-frame work of a
// rolled live capture (composition with its background subtraction, then
// the quality check of the composite), each part alone, and the host-side
// enhancement and latent checks.
//
// Targets on the 2-core reference machine (x86_64, RelWithDebInfo):
//   BM_RollFrame/0 (composition + quality, no contrast table)   <= 4 ms median
//   BM_RollFrame/1 (the same with the contrast table and jitter) <= 4 ms median
//   BM_CheckImageQuality2                                        <= 1 ms median
#include "random_bytes.h"
#include "tavk05/isproc.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <vector>

namespace {

typedef std::vector<unsigned char> Image;

using benchinput::FingerFrame;

CImageProc& Proc()
{
    static CImageProc proc;
    return proc;
}

void UseContrastTable(bool bOn)
{
    CImageProc& p = Proc();
    p.m_bContrastTable = bOn ? 1 : 0;
    for (int g = 0; g < 256; ++g) p.m_ucContrastTable[g] = (unsigned char)(g * 3 / 4 + 40);
    p.m_nDeviceType = 3;
}

// Puts the processor mid-roll so that the frame at column 260 is merged
// against the previous edges of the frame at column 240.
struct Roll {
    Image first = FingerFrame(240);
    Image next = FingerFrame(260);
    Image composite = Image(360000, 0);
    int nLeft = 0, nRight = 0;

    Roll()
    {
        CImageProc& p = Proc();
        p.ImageComposition(first.data(), composite.data(), 360000, 0, 1.0f);
        p.ImageComposition(first.data(), composite.data(), 360000, 1, 1.0f);
        nLeft = p.m_nRollLeft;
        nRight = p.m_nRollRight;
    }
    int Merge()
    {
        CImageProc& p = Proc();
        p.m_bRollStarted = 1;
        p.m_nRollDirection = 1;
        p.m_nRollLeft = nLeft;
        p.m_nRollRight = nRight;
        return p.ImageComposition(next.data(), composite.data(), 360000, 2, 1.2f);
    }
};

void BM_RollFrame(benchmark::State& state)
{
    UseContrastTable(state.range(0) != 0);
    Roll roll;
    for (auto _ : state) {
        const int nResult = roll.Merge();
        const int nQuality = Proc().CheckImageQuality2(600, 600, roll.composite.data());
        benchmark::DoNotOptimize(nResult);
        benchmark::DoNotOptimize(nQuality);
    }
    UseContrastTable(false);
}
BENCHMARK(BM_RollFrame)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_ImageComposition(benchmark::State& state)
{
    UseContrastTable(state.range(0) != 0);
    Roll roll;
    for (auto _ : state) benchmark::DoNotOptimize(roll.Merge());
    UseContrastTable(false);
}
BENCHMARK(BM_ImageComposition)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_CheckImageQuality2(benchmark::State& state)
{
    Image frame = FingerFrame(300);
    for (auto _ : state) benchmark::DoNotOptimize(Proc().CheckImageQuality2(600, 600, frame.data()));
}
BENCHMARK(BM_CheckImageQuality2)->Unit(benchmark::kMicrosecond);

void BM_EstimateFingerState(benchmark::State& state)
{
    Image frame = FingerFrame(300);
    Proc().CheckImageQuality2(600, 600, frame.data());
    for (auto _ : state) benchmark::DoNotOptimize(Proc().EstimateFingerState(600, 600, frame.data()));
}
BENCHMARK(BM_EstimateFingerState)->Unit(benchmark::kMicrosecond);

void BM_Final(benchmark::State& state)
{
    const Image frame = FingerFrame(300);
    Image work;
    for (auto _ : state) {
        work = frame;
        Proc().Final(work.data());
        benchmark::DoNotOptimize(work.data());
    }
}
BENCHMARK(BM_Final)->Unit(benchmark::kMillisecond);

void BM_Histoequal(benchmark::State& state)
{
    const Image frame = FingerFrame(300);
    Image work;
    for (auto _ : state) {
        work = frame;
        Proc().Histoequal(work.data(), 600, 600);
        benchmark::DoNotOptimize(work.data());
    }
}
BENCHMARK(BM_Histoequal)->Unit(benchmark::kMicrosecond);

void BM_CheckLatent2(benchmark::State& state)
{
    Image latent(1214 * 616);
    for (size_t i = 0; i < latent.size(); ++i) latent[i] = (unsigned char)((i * 2654435761u) >> 24);
    for (auto _ : state) benchmark::DoNotOptimize(Proc().CheckLatent2(latent.data()));
}
BENCHMARK(BM_CheckLatent2)->Unit(benchmark::kMicrosecond);

}  // namespace
