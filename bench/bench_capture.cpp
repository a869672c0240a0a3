// Single-capture benchmarks: the processing that GetImage applies to a frame
// once it has been read (mosaic copy, grey conversion, geometry correction,
// shading for models 5 and 6, corner marks), per model and firmware, on a
// frame a virtual unit served. The read itself is left out: it measures the
// device, not the driver.
//
// Targets on the 2-core reference machine (x86_64, RelWithDebInfo), median
// per frame:
//   BM_CaptureProcessing/0 (model 4, 1280 x 676, table lookup)            <= 3 ms
//   BM_CaptureProcessing/1 (model 5, 1288 x 876, table lookup, shading)   <= 4 ms
//   BM_CaptureProcessing/2 (model 7, 1288 x 876, bilinear)                <= 10 ms
//   BM_CaptureProcessing/3 (model 7 new firmware, 1800 x 1280, bilinear)  <= 12 ms
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include "sensor/oberin_capture.h"
#include "tavk05/virtual.h"

namespace {

struct ModelPath {
    const char* pszUnit;
    const char* pszLabel;
};

const ModelPath kPaths[] = {
    {"0:model=4,scene=pattern", "model 4: 1280x676, CorrectImage"},
    {"0:model=5,scene=pattern", "model 5: 1288x876, CorrectImage 1103, shading"},
    {"0:model=7,fw=0x2FFF,scene=pattern", "model 7 older firmware: 1288x876, CorrectImageCalc"},
    {"0:model=7,fw=0x3000,scene=pattern", "model 7 new firmware: 1800x1280, CorrectImageCalcEx"},
};

// The sensors write their settings file when destroyed; keep it out of /etc.
void KeepSettingsPrivate()
{
    const char* pszConf = std::getenv("TAVK05_CONF");
    if (pszConf == nullptr || *pszConf == '\0') {
        const std::string strPath = "/tmp/bench_capture-" + std::to_string(static_cast<long>(::getpid())) + ".conf";
        ::setenv("TAVK05_CONF", strPath.c_str(), 1);
    }
}

void BM_CaptureProcessing(benchmark::State& state)
{
    const ModelPath& path = kPaths[state.range(0)];
    KeepSettingsPrivate();
    tavk05virt::DetachAll();
    std::string strError;
    if (!tavk05virt::Attach(path.pszUnit, &strError)) {
        state.SkipWithError(strError.c_str());
        return;
    }
    std::unique_ptr<COberin> pSensor(new COberin(nullptr));
    std::vector<unsigned char> image(IMG_PIXELS, 0);
    // One real capture leaves a served frame in the raw buffer.
    if (pSensor->OpenDevice(0, 0) != TAVK05_OK || !pSensor->CaptureImage(image.data(), true)) {
        state.SkipWithError("the virtual unit did not deliver a frame");
        return;
    }
    for (auto _ : state) {
        oberin::FinishFrame(*pSensor, image.data(), true);
        benchmark::ClobberMemory();
    }
    state.SetLabel(path.pszLabel);
    pSensor.reset();
    tavk05virt::DetachAll();
}
BENCHMARK(BM_CaptureProcessing)
    ->DenseRange(0, 3)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

// A host's first call: CreateISensor alone (the sensor object with its image
// processor and both modify tables); the destruction is left out of the
// time. Target: at most 15 ms median.
void BM_CreateISensor(benchmark::State& state)
{
    KeepSettingsPrivate();
    for (auto _ : state) {
        ISensor* pSensor = nullptr;
        ISensor::tagCreateParam param = {};
        benchmark::DoNotOptimize(CreateISensor(&param, &pSensor));
        state.PauseTiming();
        DestroyISensor(pSensor);
        state.ResumeTiming();
    }
}
BENCHMARK(BM_CreateISensor)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace
