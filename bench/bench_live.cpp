// Live capture benchmarks on 600 x 600 frames: the per-frame work of the
// sensor's live loop after the frame has been read and corrected, that is
// the preview conversion (background subtraction, contrast table, jitter,
// scale) with the quality check, and the rolled-composition step with the
// quality check; then the whole loop per frame on a virtual unit, and the
// smoothing of a finished rolled image.
//
// Target on the 2-core reference machine (x86_64, RelWithDebInfo): every
// BM_LiveIteration variant at most 4 ms median per frame.
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "sensor/oberin_filter.h"
#include "tavk05/virtual.h"

namespace {

typedef std::vector<unsigned char> Image;

// A finger on bright glass: an oval ridge area centred at column cx.
Image FingerFrame(int cx)
{
    Image f(IMG_PIXELS, 250);
    for (int r = 0; r < IMG_HEIGHT; ++r) {
        for (int c = 0; c < IMG_WIDTH; ++c) {
            const double dx = (c - cx) / 110.0;
            const double dy = (r - 300) / 250.0;
            if (dx * dx + dy * dy < 1.0) {
                const double fRidge = std::sin((r * 0.8 + c * 0.5) / 2.2);
                f[r * IMG_WIDTH + c] = static_cast<unsigned char>(170 + 50 * fRidge + (r * 7 + c * 13) % 9);
            }
        }
    }
    return f;
}

// One sensor for all benchmarks (its image processor builds large tables).
COberin& Sensor()
{
    static COberin sensor(nullptr);
    return sensor;
}

// Preview modes: which mapping the sensor's state selects.
enum PreviewMode {
    kTableWithJitter = 0,  // contrast table in force, models 3 and 4: table, jitter, scale
    kNoTable = 1,          // no contrast table: 255 - 3d
    kModel8Table = 2       // models 7 and 8 with the table: (base - d) x factor
};

void SetUpPreview(PreviewMode eMode)
{
    COberin& s = Sensor();
    s.m_nDeviceType = eMode == kModel8Table ? 8 : 4;
    s.m_ImageProc.m_nDeviceType = s.m_nDeviceType;
    s.SetContrast(40);  // builds the table and the factor as on a device
    if (eMode == kNoTable) s.m_ImageProc.m_bContrastTable = 0;
}

void BM_LiveIterationPreview(benchmark::State& state)
{
    SetUpPreview(static_cast<PreviewMode>(state.range(0)));
    COberin& s = Sensor();
    Image frame = FingerFrame(300);
    Image shown(IMG_PIXELS, 0);
    for (auto _ : state) {
        oberin::MapContrast(s, frame.data(), shown.data(), oberin::kFrameReadOnly);
        benchmark::DoNotOptimize(s.m_ImageProc.CheckImageQuality2(IMG_WIDTH, IMG_HEIGHT, shown.data()));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_LiveIterationPreview)
    ->Arg(kTableWithJitter)
    ->Arg(kNoTable)
    ->Arg(kModel8Table)
    ->Unit(benchmark::kMillisecond);

// Composition of a frame that advances the roll by 20 columns, then the
// quality check of the composite, as in the rolling state of the loop. The
// roll edges are put back before every frame so that each one merges.
void BM_LiveIterationRoll(benchmark::State& state)
{
    SetUpPreview(state.range(0) != 0 ? kTableWithJitter : kNoTable);
    CImageProc& proc = Sensor().m_ImageProc;
    Image first = FingerFrame(240);
    Image next = FingerFrame(260);
    Image composite(IMG_PIXELS, 0);
    const float fFactor = Sensor().m_fContrastFactor;
    proc.ImageComposition(first.data(), composite.data(), IMG_PIXELS, 0, fFactor);
    proc.ImageComposition(first.data(), composite.data(), IMG_PIXELS, 1, fFactor);
    const int nLeft = proc.m_nRollLeft;
    const int nRight = proc.m_nRollRight;
    const int nDirection = proc.m_nRollDirection;
    int nMerged = 0;
    for (auto _ : state) {
        proc.m_bRollStarted = 1;
        proc.m_nRollLeft = nLeft;
        proc.m_nRollRight = nRight;
        proc.m_nRollDirection = nDirection;
        nMerged += proc.ImageComposition(next.data(), composite.data(), IMG_PIXELS, 2, fFactor) == 0;
        benchmark::DoNotOptimize(proc.CheckImageQuality2(IMG_WIDTH, IMG_HEIGHT, composite.data()));
    }
    state.counters["merged"] = static_cast<double>(nMerged) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_LiveIterationRoll)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// Stops the live capture after a given number of frames.
struct FrameBudget {
    int nLeft;
};

unsigned long StopAfterBudget(void* pContext, void* /*pInfo*/)
{
    FrameBudget* pBudget = static_cast<FrameBudget*>(pContext);
    return --pBudget->nLeft > 0 ? TAVK05_CB_CONTINUE : TAVK05_CB_STOP;
}

// The whole loop on a virtual unit without pacing: read, grey conversion,
// geometry correction, preview and quality, callback; per frame.
void BM_LiveLoopPerFrame(benchmark::State& state)
{
    const int nModel = static_cast<int>(state.range(0));
    std::string strError;
    tavk05virt::DetachAll();
    if (!tavk05virt::Attach("0:model=" + std::to_string(nModel) + ",fps=0,scene=pattern", &strError)) {
        state.SkipWithError(strError.c_str());
        return;
    }
    std::unique_ptr<COberin> pSensor(new COberin(nullptr));
    if (pSensor->OpenDevice(0, 0) != TAVK05_OK) {
        state.SkipWithError("open failed");
        return;
    }
    const int kFrames = 10;
    FrameBudget budget = {0};
    pSensor->SetCallBackFunction(1, StopAfterBudget, &budget);
    Image shown(IMG_PIXELS, 0);
    for (auto _ : state) {
        budget.nLeft = kFrames;
        if (pSensor->GetLiveImageEx2(shown.data(), 60000, 0, nullptr, 100) != TAVK05_OK) {
            state.SkipWithError("live capture failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kFrames);
    state.counters["s_per_frame"] = benchmark::Counter(static_cast<double>(state.iterations() * kFrames),
                                                       benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    pSensor.reset();
    tavk05virt::DetachAll();
}
BENCHMARK(BM_LiveLoopPerFrame)->Arg(4)->Arg(8)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_SmoothImageRolled(benchmark::State& state)
{
    const Image frame = FingerFrame(300);
    Image work;
    for (auto _ : state) {
        work = frame;
        Sensor().SmoothImage(IMG_WIDTH, IMG_HEIGHT, work.data(), 1);
        benchmark::DoNotOptimize(work.data());
    }
}
BENCHMARK(BM_SmoothImageRolled)->Unit(benchmark::kMicrosecond);

}  // namespace
