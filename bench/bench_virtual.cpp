// Frame rendering of the virtual scanner's finger scenes, per raw geometry
// and correction path (models 5 and 6 always report firmware 0x1103, so the
// 1800 x 1280 frame comes with the interpolating path only):
// one bare frame read of a rolling finger (scene time advances every read,
// so every read renders a new frame: composition of the scene, sensor
// response, mosaic with fresh noise). The target is 30 frames a second or
// more for the largest geometry on one core.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "tavk05/virtual.h"
#include "tavk05/vxdinter.h"

namespace {

void RenderFrames(benchmark::State& state, const char* pszUnit)
{
    tavk05virt::DetachAll();
    std::string strError;
    if (!tavk05virt::Attach(pszUnit, &strError)) {
        state.SkipWithError(strError.c_str());
        return;
    }
    CVxdInterface vxd;
    if (vxd.OpenUSB(0) != 0) {
        state.SkipWithError("open failed");
        return;
    }
    unsigned long nBytes = 926720;
    if (vxd.GetDevType() >= 5) nBytes = vxd.GetFirmwareVersion() >= 0x3000 ? 2304000 : 1128448;
    std::vector<unsigned char> vec(nBytes);
    // The first read grows the finger's pattern and the geometry's sample
    // map; both are cached, so they stay out of the measurement.
    vxd.ReadDataEx(vec.data(), nBytes, 3000);
    for (auto _ : state) {
        const int nResult = vxd.ReadDataEx(vec.data(), nBytes, 3000);
        benchmark::DoNotOptimize(nResult);
        benchmark::DoNotOptimize(vec.data());
    }
    state.counters["fps"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    vxd.CloseUSB();
    tavk05virt::DetachAll();
}

void BM_RenderTables676(benchmark::State& state) { RenderFrames(state, "0:model=4,scene=roll,seed=3"); }
void BM_RenderTables876(benchmark::State& state) { RenderFrames(state, "0:model=6,scene=roll,seed=3"); }
void BM_RenderCalc876(benchmark::State& state) { RenderFrames(state, "0:model=8,fw=0x1005,scene=roll,seed=3"); }
void BM_RenderCalcEx1280(benchmark::State& state) { RenderFrames(state, "0:model=8,scene=roll,seed=3"); }

BENCHMARK(BM_RenderTables676)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RenderTables876)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RenderCalc876)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RenderCalcEx1280)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
