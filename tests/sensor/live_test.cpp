// Live and rolled capture on virtual units with scripted host callbacks: the
// states of the loop and the replies that move between them, the final check
// of a rolled image, every failure path with what reaches the unit, the
// record handed to the callback, and the fixed-argument forms.
#include <dlfcn.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>

#include "sensor_fixture.h"
#include "tavk05/mark.h"

namespace {

// Seconds added to the monotonic clock, so that a host callback can let
// minutes pass between two frames.
std::atomic<long> g_nClockSkewSeconds(0);

}  // namespace

// The program's clock_gettime: the C library's, with the skew added to the
// monotonic clock (which the live capture's time limit uses).
extern "C" int clock_gettime(clockid_t nClock, struct timespec* pTime) noexcept
{
    typedef int (*PfnClock)(clockid_t, struct timespec*);
    static const PfnClock pfnNext = reinterpret_cast<PfnClock>(dlsym(RTLD_NEXT, "clock_gettime"));
    const int nResult = pfnNext(nClock, pTime);
    if (nResult == 0 && nClock == CLOCK_MONOTONIC) pTime->tv_sec += g_nClockSkewSeconds.load();
    return nResult;
}

namespace {

using sensortest::RequestsOf;
using sensortest::SensorTest;

typedef std::vector<unsigned char> Image;

// A sensor that counts its resets (the live capture calls the virtual
// ResetDevice after a time-out or when the host gives up).
class LiveSensor : public COberin {
public:
    LiveSensor() : COberin(nullptr) {}
    unsigned long ResetDevice() override
    {
        ++m_nResets;
        return COberin::ResetDevice();
    }
    int m_nResets = 0;
};

// One call of the host callback as the host saw it.
struct Call {
    ISensor::tagCallbackInfo info;
    int nRollState;
    Image shown;  // the host's buffer during the call
};

// A scripted host: the reply to each call comes from fnReply (0 when unset);
// every call is recorded with a copy of the host's buffer.
struct Host {
    std::function<unsigned long(size_t nCall, const ISensor::tagCallbackInfo& info)> fnReply;
    std::function<void(size_t nCall)> fnDuring;
    std::vector<Call> vecCalls;
    const unsigned char* pImage = nullptr;
    LiveSensor* pSensor = nullptr;

    static unsigned long Callback(void* pContext, void* pInfo)
    {
        Host* pHost = static_cast<Host*>(pContext);
        const ISensor::tagCallbackInfo& info = *static_cast<const ISensor::tagCallbackInfo*>(pInfo);
        const size_t nCall = pHost->vecCalls.size();
        Call call = {info, pHost->pSensor->m_nRollState, Image()};
        if (pHost->pImage != nullptr) call.shown.assign(pHost->pImage, pHost->pImage + 360000);
        pHost->vecCalls.push_back(call);
        if (pHost->fnDuring) pHost->fnDuring(nCall);
        return pHost->fnReply ? pHost->fnReply(nCall, info) : 0;
    }
};

// Replies `nReply` at call `nAt` and 0 elsewhere.
std::function<unsigned long(size_t, const ISensor::tagCallbackInfo&)> ReplyAt(size_t nAt, unsigned long nReply)
{
    return [nAt, nReply](size_t nCall, const ISensor::tagCallbackInfo&) { return nCall == nAt ? nReply : 0ul; };
}

Image BoxMean3(const Image& src)
{
    Image dst = src;
    for (int y = 1; y < 599; ++y)
        for (int x = 1; x < 599; ++x) {
            int nSum = 0;
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) nSum += src[(y + dy) * 600 + x + dx];
            dst[y * 600 + x] = static_cast<unsigned char>(nSum / 9);
        }
    return dst;
}

Image Marked(Image img, int w, int h)
{
    SetLTWaterM(img.data(), w, h);
    SetRTWaterM(img.data(), w, h);
    SetLBWaterM(img.data(), w, h);
    SetRBWaterM(img.data(), w, h);
    return img;
}

bool AllMarked(Image img, int w, int h)
{
    return GetLTWaterM(img.data(), w, h) && GetRTWaterM(img.data(), w, h) && GetLBWaterM(img.data(), w, h) &&
           GetRBWaterM(img.data(), w, h);
}

bool AllocationFailuresAbort()
{
#if defined(__SANITIZE_ADDRESS__)
    return true;  // the sanitizer reports an impossible allocation instead of failing it
#else
    return false;
#endif
}

class LiveTest : public SensorTest {
protected:
    void TearDown() override
    {
        g_nClockSkewSeconds = 0;
        m_pSensor.reset();
        SensorTest::TearDown();
    }

    // Opens unit 0 of the model on empty glass, takes the background there,
    // then switches the unit to the scene (its time starts at the next read).
    void Open(int nModel, const std::string& strScene, bool bRollMode = false)
    {
        AttachUnits("0:model=" + std::to_string(nModel) + ",scene=empty,fps=0");
        m_pSensor.reset(new LiveSensor());
        ASSERT_EQ(m_pSensor->OpenDevice(0, 0), 0ul);
        ASSERT_EQ(m_pSensor->DevIoControl(TAVK05_IOCTL_BACKGROUND, nullptr, 0, nullptr, 0, nullptr), 0ul);
        m_pSensor->WriteData(155, bRollMode ? 1 : 0);
        ASSERT_EQ(m_pSensor->m_nRollMode, bRollMode ? 1ul : 0ul);
        Scene(strScene);
        m_host.pSensor = m_pSensor.get();
        m_host.pImage = m_image.data();
    }

    void Scene(const std::string& strScene)
    {
        std::string strError;
        ASSERT_TRUE(tavk05virt::Inject(0, "scene=" + strScene, &strError)) << strError;
        tavk05virt::ClearLog(0);
        m_nReadsBefore = StateOf(0).nReads;
        m_host.vecCalls.clear();
    }

    void UseHost() { m_pSensor->SetCallBackFunction(1, Host::Callback, &m_host); }

    unsigned long Live(unsigned long nThreshold, unsigned long nTimeoutMs = 60000, unsigned int nMark = 0)
    {
        return m_pSensor->GetLiveImageEx2(m_image.data(), nTimeoutMs, nMark, nullptr, nThreshold);
    }

    unsigned long Reads() { return StateOf(0).nReads - m_nReadsBefore; }

    // Exactly one start and one stop of acquisition, in that order, around
    // every frame read.
    void ExpectOneAcquisition()
    {
        std::vector<unsigned long> vec;
        for (const tavk05virt::Request& req : tavk05virt::RequestLog(0)) {
            if (req.nRequest == VXD_REQ_START_ACQUISITION || req.nRequest == VXD_REQ_STOP_ACQUISITION)
                vec.push_back(req.nRequest);
        }
        EXPECT_EQ(vec, (std::vector<unsigned long>{VXD_REQ_START_ACQUISITION, VXD_REQ_STOP_ACQUISITION}));
        EXPECT_FALSE(StateOf(0).bAcquiring);
    }

    // The final check of a rolled image, worked out from the image the
    // host saw at the completing frame.
    int FinalQuality(const Image& rolled)
    {
        Image copy = rolled;
        long nSum = 0;
        for (int i = 200 * 600; i < 400 * 600; ++i) nSum += copy[i];
        const int nMean = static_cast<int>(nSum / 120000);
        if (nMean <= 244)
            for (unsigned char& by : copy)
                if (by + 5 < nMean) by = static_cast<unsigned char>(by / 2);
        return m_pSensor->m_ImageProc.CheckImageQuality2(600, 600, copy.data());
    }

    std::unique_ptr<LiveSensor> m_pSensor;
    Host m_host;
    Image m_image = Image(360000, 7);
    unsigned long m_nReadsBefore = 0;
};

TEST_F(LiveTest, LiveViewEndsAtTheFirstFrameReachingTheThreshold)
{
    Open(4, "place");
    UseHost();
    EXPECT_EQ(Live(25), 0ul);
    const std::vector<Call>& calls = m_host.vecCalls;
    ASSERT_GT(calls.size(), 3u);  // the glass is empty at first
    for (size_t i = 0; i + 1 < calls.size(); ++i) EXPECT_LT(calls[i].info.nQuality, 25u) << i;
    EXPECT_GE(calls.back().info.nQuality, 25u);
    EXPECT_EQ(Reads(), calls.size());
    EXPECT_EQ(m_pSensor->m_nRollState, -1);
    ExpectOneAcquisition();
    // Not in roll mode: the image is the last one shown, with its marks.
    EXPECT_EQ(m_image, Marked(calls.back().shown, 600, 600));

    // Without a callback the same scene ends at the same frame.
    const size_t nFrames = calls.size();
    m_pSensor->SetCallBackFunction(1, nullptr, nullptr);
    Scene("place");
    EXPECT_EQ(Live(25), 0ul);
    EXPECT_EQ(Reads(), nFrames);
}

TEST_F(LiveTest, CallbackRepliesInLiveView)
{
    Open(4, "flat");
    UseHost();
    const struct {
        unsigned long nReply, nThreshold;
        size_t nCalls;
        int nRollState;
    } aCases[] = {
        {7, 100, 3, -1},    // any other nonzero value accepts the image
        {101, 100, 3, 0},   // stop
        {7, 250, 3, -1},    // 250 is taken as 100, which an accepted image reaches
        {0, 0, 1, -1},      // threshold 0: the first good frame ends the capture
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(testing::Message() << "reply " << c.nReply << " threshold " << c.nThreshold);
        Scene("flat");
        m_host.fnReply = ReplyAt(2, c.nReply);
        EXPECT_EQ(Live(c.nThreshold), 0ul);
        EXPECT_EQ(m_host.vecCalls.size(), c.nCalls);
        EXPECT_EQ(m_pSensor->m_nRollState, c.nRollState);
        EXPECT_EQ(m_pSensor->m_nResets, 0);
        ExpectOneAcquisition();
    }
}

TEST_F(LiveTest, CallbackRecordCarriesNominalSizeAndMeasuredQuality)
{
    Open(5, "place");
    const unsigned long aSizes[][2] = {{356, 456}, {600, 600}};
    for (const auto& size : aSizes) {
        SCOPED_TRACE(size[0]);
        ASSERT_EQ(m_pSensor->SetImageSize(size[0], size[1]), 0ul);
        Scene("place");
        UseHost();
        m_pSensor->m_CallbackInfo = {1, 2, 3, 4};
        m_host.fnReply = ReplyAt(11, 9);
        EXPECT_EQ(Live(100), 0ul);
        ASSERT_EQ(m_host.vecCalls.size(), 12u);
        bool bSomeQuality = false;
        for (const Call& call : m_host.vecCalls) {
            EXPECT_EQ(call.info.nWidth, size[0]);
            EXPECT_EQ(call.info.nHeight, size[1]);
            EXPECT_EQ(call.info.nStatus, 0u);
            Image shown = call.shown;
            EXPECT_EQ(call.info.nQuality, static_cast<unsigned>(m_pSensor->m_ImageProc.CheckImageQuality2(
                                              static_cast<int>(size[0]), static_cast<int>(size[1]), shown.data())));
            bSomeQuality = bSomeQuality || call.info.nQuality > 0;
        }
        EXPECT_TRUE(bSomeQuality);
        // The marks sit at the corners of the nominal size.
        EXPECT_TRUE(AllMarked(m_image, static_cast<int>(size[0]), static_cast<int>(size[1])));
    }
}

TEST_F(LiveTest, RolledImageEndsThroughTheFinalCheck)
{
    // Model 5 smooths the rolled image, model 7 does not.
    for (int nModel : {5, 7}) {
        SCOPED_TRACE(nModel);
        Open(nModel, "roll", true);
        UseHost();
        m_host.fnReply = ReplyAt(0, TAVK05_CB_START_ROLL);
        EXPECT_EQ(Live(1), 0ul);
        const std::vector<Call> calls = m_host.vecCalls;
        ASSERT_GT(calls.size(), 20u);
        EXPECT_EQ(m_pSensor->m_nRollState, 1);
        // The first rolling frame only resets the composition.
        EXPECT_EQ(calls[1].shown, calls[0].shown);
        EXPECT_NE(calls[5].shown, calls[0].shown);
        // In roll mode the measured quality does not end the capture.
        unsigned nBest = 0;
        for (const Call& call : calls) nBest = std::max(nBest, call.info.nQuality);
        EXPECT_GE(nBest, 50u);
        const Image& rolled = calls.back().shown;
        EXPECT_EQ(m_image, Marked(nModel == 7 ? rolled : BoxMean3(rolled), 600, 600));
        ExpectOneAcquisition();
        EXPECT_EQ(m_pSensor->m_nResets, 0);

        // The same roll against thresholds at and just above its final quality.
        // (Threshold 0 would end the capture at the first frame.)
        const int nFinal = FinalQuality(rolled);
        ASSERT_GE(nFinal, 1);
        for (int nThreshold : {nFinal, nFinal + 1}) {
            if (nThreshold > 100) continue;
            Scene("roll");
            EXPECT_EQ(Live(static_cast<unsigned long>(nThreshold)), nThreshold > nFinal ? 57ul : 0ul);
            EXPECT_EQ(m_host.vecCalls.size(), calls.size());
            EXPECT_EQ(m_host.vecCalls.back().shown, rolled);
        }
    }
}

TEST_F(LiveTest, RollsEitherWayEndWhenTheFingerLeaves)
{
    // Toward lower columns, and a finger lifted half way: both complete
    // when the finger has gone, through the final check.
    const struct {
        const char* pszScene;
        int nDirection;
    } aCases[] = {{"roll-left", 2}, {"lift", 1}, {"roll", 1}};
    Open(5, "roll", true);
    UseHost();
    m_host.fnReply = ReplyAt(0, TAVK05_CB_START_ROLL);
    size_t anCalls[3] = {0, 0, 0};
    for (size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(aCases[i].pszScene);
        Scene(aCases[i].pszScene);
        EXPECT_EQ(Live(1), 0ul);
        anCalls[i] = m_host.vecCalls.size();
        EXPECT_EQ(m_pSensor->m_ImageProc.m_nRollDirection, aCases[i].nDirection);
        EXPECT_EQ(m_pSensor->m_ImageProc.m_bRollStarted, 0);  // the finger has gone
        EXPECT_EQ(m_image, Marked(BoxMean3(m_host.vecCalls.back().shown), 600, 600));
        ExpectOneAcquisition();
    }
    EXPECT_LT(anCalls[1] + 10, anCalls[2]);  // lifted 20 frames early
}

// A faint print: 2 x 2 checks of lo and lo + 6 over rows and columns
// 100..499 on a plain background. Its own gradients (6) are too weak to count;
// halved, the lo checks stand out.
Image FaintPrint(int nLow, int nBackground)
{
    Image img(360000, static_cast<unsigned char>(nBackground));
    for (int y = 100; y < 500; ++y)
        for (int x = 100; x < 500; ++x)
            img[y * 600 + x] = static_cast<unsigned char>(((x / 2 + y / 2) % 2) != 0 ? nLow + 6 : nLow);
    return img;
}

TEST_F(LiveTest, FinalCheckHalvesPixelsDarkerThanTheMiddleRowsUnlessPale)
{
    const struct {
        int nLow, nBackground;
        unsigned long nResult;
    } aCases[] = {
        {180, 200, 0},   // mean 188: the 180s are halved, the print counts
        {240, 255, 57},  // mean 247, above 244: nothing is halved
        {180, 188, 57},  // mean 184: the 180s are not darker by more than 5
    };
    Open(5, "roll", true);
    UseHost();
    for (const auto& c : aCases) {
        SCOPED_TRACE(c.nLow);
        Scene("roll");
        // The host draws into its buffer while rolling; the final check
        // measures what the buffer holds after the completing frame.
        const Image faint = FaintPrint(c.nLow, c.nBackground);
        m_host.fnDuring = [this, &faint](size_t nCall) {
            if (nCall > 0) std::copy(faint.begin(), faint.end(), m_image.begin());
        };
        m_host.fnReply = ReplyAt(0, TAVK05_CB_START_ROLL);
        EXPECT_EQ(Live(50), c.nResult);
        EXPECT_GT(m_host.vecCalls.size(), 20u);
        EXPECT_EQ(m_pSensor->m_ImageProc.CheckImageQuality2(600, 600, const_cast<unsigned char*>(faint.data())), 0);
    }
}

TEST_F(LiveTest, RollingEndsEarlyByHostOrWithoutFinger)
{
    Open(5, "roll", true);
    UseHost();
    // 101 while rolling: the rolled image as far as it got, smoothed, marked.
    m_host.fnReply = [](size_t nCall, const ISensor::tagCallbackInfo&) {
        return nCall == 0 ? 100ul : nCall == 12 ? 101ul : 0ul;  // start rolling, stop
    };
    EXPECT_EQ(Live(100), 0ul);
    ASSERT_EQ(m_host.vecCalls.size(), 13u);
    EXPECT_EQ(m_pSensor->m_nRollState, 0);
    EXPECT_EQ(m_image, Marked(BoxMean3(m_host.vecCalls.back().shown), 600, 600));

    // No finger in the first composed frame: complete at once, and the final
    // check measures the last live-view image, too weak for threshold 20.
    Scene("empty");
    m_host.fnReply = ReplyAt(0, TAVK05_CB_START_ROLL);
    EXPECT_EQ(Live(20), 57ul);
    ASSERT_EQ(m_host.vecCalls.size(), 3u);
    EXPECT_EQ(m_host.vecCalls[2].shown, m_host.vecCalls[0].shown);
    EXPECT_EQ(m_image, Marked(BoxMean3(m_host.vecCalls[0].shown), 600, 600));

    // Too fast a roll also completes the image, long before the finger leaves.
    Scene("roll-fast");
    m_host.fnReply = ReplyAt(0, TAVK05_CB_START_ROLL);
    EXPECT_EQ(Live(1), 0ul);
    EXPECT_LT(m_host.vecCalls.size(), 12u);
    EXPECT_EQ(m_pSensor->m_ImageProc.m_bRollStarted, 1);  // the finger was still there
    ExpectOneAcquisition();
}

TEST_F(LiveTest, NoCompositionWithoutCallbackOrWithoutRollMode)
{
    // Roll mode without a callback: plain live view, ended by the threshold.
    Open(5, "roll", true);
    m_pSensor->m_ImageProc.m_nRollLeft = 777;  // the composition's reset would clear it
    EXPECT_EQ(Live(20), 0ul);
    EXPECT_EQ(m_pSensor->m_nRollState, -1);
    EXPECT_EQ(m_pSensor->m_ImageProc.m_nRollLeft, 777);
    ExpectOneAcquisition();

    // Roll mode off and the host asks to roll: rolling state, preview only,
    // ended by time (its quality is cleared by every 100).
    m_pSensor->WriteData(155, 0);
    Scene("roll");
    UseHost();
    m_host.fnReply = [](size_t, const ISensor::tagCallbackInfo&) { return TAVK05_CB_START_ROLL; };
    EXPECT_EQ(Live(20, 300), 54ul);
    EXPECT_EQ(m_pSensor->m_nRollState, 1);
    EXPECT_EQ(m_pSensor->m_ImageProc.m_nRollLeft, 777);
    EXPECT_EQ(m_pSensor->m_nResets, 1);
    // Model 5 shows the corrected frame itself; the image is not smoothed.
    EXPECT_EQ(m_image, Marked(m_host.vecCalls.back().shown, 600, 600));
    ExpectOneAcquisition();
}

TEST_F(LiveTest, TimeLimitEndsWith54AndAResetInRollModeSmoothed)
{
    Open(5, "empty", true);
    struct timespec tStart, tEnd;
    clock_gettime(CLOCK_MONOTONIC, &tStart);
    EXPECT_EQ(Live(50, 250), 54ul);
    clock_gettime(CLOCK_MONOTONIC, &tEnd);
    const long nElapsedMs = (tEnd.tv_sec - tStart.tv_sec) * 1000 + (tEnd.tv_nsec - tStart.tv_nsec) / 1000000;
    EXPECT_GE(nElapsedMs, 250);
    EXPECT_GT(Reads(), 1u);
    EXPECT_EQ(m_pSensor->m_nResets, 1);
    ExpectOneAcquisition();

    // The image is the last one shown, smoothed in roll mode, and marked.
    Scene("flat");
    UseHost();
    EXPECT_EQ(Live(50, 250), 54ul);
    EXPECT_EQ(m_pSensor->m_nResets, 2);
    EXPECT_EQ(m_image, Marked(BoxMean3(m_host.vecCalls.back().shown), 600, 600));
}

TEST_F(LiveTest, TimeoutOf65535WithThreshold100AndPatientHostHasNoLimit)
{
    Open(4, "empty");
    UseHost();
    // Every call lets 70 s pass; the host accepts at its sixth call.
    m_host.fnDuring = [](size_t) { g_nClockSkewSeconds += 70; };
    m_host.fnReply = ReplyAt(5, 4);
    const struct {
        unsigned long nTimeoutMs, nThreshold;
        unsigned long nResult;
        size_t nCalls;
    } aCases[] = {
        {65535, 100, 0, 6}, {65535, 250, 0, 6},  // no time limit
        {65534, 100, 54, 1}, {65535, 99, 54, 1},
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(testing::Message() << c.nTimeoutMs << " ms, threshold " << c.nThreshold);
        Scene("empty");
        EXPECT_EQ(Live(c.nThreshold, c.nTimeoutMs), c.nResult);
        EXPECT_EQ(m_host.vecCalls.size(), c.nCalls);
    }

    // The same in the latent wait: the host gives up at its fifth call.
    m_pSensor->m_pVxd->SetLatentCapable(true);
    m_host.fnReply = ReplyAt(4, 1);
    for (unsigned long nTimeoutMs : {65535ul, 65534ul}) {
        SCOPED_TRACE(nTimeoutMs);
        Scene("latent,latentcheck=1");
        EXPECT_EQ(Live(100, nTimeoutMs), 54ul);
        EXPECT_EQ(m_host.vecCalls.size(), nTimeoutMs == 65535 ? 5u : 1u);
        EXPECT_EQ(Reads(), m_host.vecCalls.size());
    }
}

TEST_F(LiveTest, ClockRestartsForTheFrameLoopAfterTheLatentWait)
{
    AttachUnits("0:model=4,scene=flat,latent=2,latentcheck=1,fps=0");
    m_pSensor.reset(new LiveSensor());
    ASSERT_EQ(m_pSensor->OpenDevice(0, 0), 0ul);
    m_pSensor->m_pVxd->SetLatentCapable(true);
    m_host.pSensor = m_pSensor.get();
    m_host.pImage = m_image.data();
    UseHost();
    // Two latent calls of 29 s each, then frames of 1 s each: 60 s in all by
    // the second frame, but only 2 s of frame loop.
    m_host.fnDuring = [this](size_t) { g_nClockSkewSeconds += m_host.vecCalls.size() <= 2 ? 29 : 1; };
    m_host.fnReply = ReplyAt(4, 3);
    EXPECT_EQ(Live(100, 60000), 0ul);
    EXPECT_EQ(m_host.vecCalls.size(), 5u);
}

TEST_F(LiveTest, FailedFrameReadsAreToldToTheHost)
{
    Open(4, "flat");
    const unsigned long nGoodFrameBytes = m_pSensor->m_nFrameBytes;
    const unsigned long nBadFrameBytes = OBERIN_FRAME_BUFFER_BYTES + 1;  // refused before any read

    // Without a callback: 53 at once.
    m_pSensor->m_nFrameBytes = nBadFrameBytes;
    EXPECT_EQ(Live(100), 53ul);
    EXPECT_EQ(m_pSensor->m_nResets, 0);
    ExpectOneAcquisition();

    // The host gives up: 54 and a reset.
    Scene("flat");
    UseHost();
    m_host.fnReply = ReplyAt(0, 1);
    EXPECT_EQ(Live(100), 54ul);
    ASSERT_EQ(m_host.vecCalls.size(), 1u);
    EXPECT_EQ(m_host.vecCalls[0].info.nQuality, 0u);
    EXPECT_EQ(m_host.vecCalls[0].info.nStatus, 53u);
    EXPECT_EQ(m_pSensor->m_nResets, 1);
    ExpectOneAcquisition();

    // The host goes on: the time limit still applies.
    Scene("flat");
    m_host.fnReply = nullptr;
    EXPECT_EQ(Live(100, 200), 54ul);
    EXPECT_GT(m_host.vecCalls.size(), 1u);
    for (const Call& call : m_host.vecCalls) EXPECT_EQ(call.info.nStatus, 53u);
    EXPECT_EQ(m_pSensor->m_nResets, 2);
    ExpectOneAcquisition();

    // Reads fail from the second frame on; the host goes on through them,
    // repairs the sensor and accepts the next good frame.
    m_pSensor->m_nFrameBytes = nGoodFrameBytes;
    Scene("flat");
    m_host.fnDuring = [this, nGoodFrameBytes, nBadFrameBytes](size_t nCall) {
        m_pSensor->m_nFrameBytes = nCall == 0 ? nBadFrameBytes : nCall == 2 ? nGoodFrameBytes : m_pSensor->m_nFrameBytes;
    };
    m_host.fnReply = ReplyAt(3, 8);
    EXPECT_EQ(Live(100), 0ul);
    ASSERT_EQ(m_host.vecCalls.size(), 4u);
    const unsigned aStatus[4] = {0, 53, 53, 0};
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(m_host.vecCalls[i].info.nStatus, aStatus[i]) << i;
    EXPECT_EQ(m_host.vecCalls[1].shown, m_host.vecCalls[0].shown);  // nothing new to show
    EXPECT_EQ(Reads(), 2u);
    ExpectOneAcquisition();
}

TEST_F(LiveTest, AcquisitionFailures)
{
    Open(5, "flat", true);
    UseHost();
    // Start fails: 2, no frame read, no stop.
    std::string strError;
    ASSERT_TRUE(tavk05virt::Inject(0, "fail=21", &strError)) << strError;
    EXPECT_EQ(Live(100), 2ul);
    EXPECT_EQ(Reads(), 0u);
    EXPECT_TRUE(RequestsOf(0, VXD_REQ_STOP_ACQUISITION).empty());
    EXPECT_EQ(std::count(m_image.begin(), m_image.end(), 7), 360000);

    // Stop fails: 2, the last image shown left unsmoothed and unmarked.
    ASSERT_TRUE(tavk05virt::Inject(0, "clearfaults,fail=22", &strError)) << strError;
    Scene("flat");
    m_host.fnReply = ReplyAt(1, 5);
    EXPECT_EQ(Live(100), 2ul);
    ASSERT_EQ(m_host.vecCalls.size(), 2u);
    EXPECT_EQ(m_image, m_host.vecCalls[1].shown);
    EXPECT_EQ(m_pSensor->m_nResets, 0);
}

TEST_F(LiveTest, MissingBuffersFailBeforeTheDevice)
{
    Open(4, "flat");
    Image before = m_image;
    // A sensor without frame buffers.
    delete[] m_pSensor->m_pRawBuf;
    delete[] m_pSensor->m_pRawCopyBuf;
    delete[] m_pSensor->m_pGreyBuf;
    m_pSensor->m_pRawBuf = m_pSensor->m_pRawCopyBuf = m_pSensor->m_pGreyBuf = nullptr;
    EXPECT_EQ(Live(0), 2ul);
    EXPECT_TRUE(RequestsOf(0, VXD_REQ_START_ACQUISITION).empty());
    EXPECT_EQ(Reads(), 0u);
    EXPECT_EQ(m_image, before);

    if (AllocationFailuresAbort()) return;
    // A frame buffer that cannot be had.
    std::unique_ptr<LiveSensor> pOther(new LiveSensor());
    ASSERT_EQ(pOther->OpenDevice(0, 0), 0ul);
    tavk05virt::ClearLog(0);
    pOther->m_nWidth = sizeof(unsigned long) > 4 ? (1ul << 40) : 0xFFFFul;
    pOther->m_nHeight = sizeof(unsigned long) > 4 ? 2ul : 0xFFFFul;
    EXPECT_EQ(pOther->GetLiveImageEx2_Normal(m_image.data(), 1000, 0, nullptr, 0), 2ul);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    EXPECT_EQ(m_image, before);
}

TEST_F(LiveTest, NullImageIsRefusedAfterDeviceInfoWithoutAcquisition)
{
    Open(4, "flat");
    ASSERT_EQ(m_pSensor->SetImageSize(228, 292), 0ul);
    m_pSensor->m_CallbackInfo = {1, 2, 3, 4};
    m_pSensor->m_nRollState = 5;
    EXPECT_EQ(m_pSensor->GetLiveImageEx2(nullptr, 1000, 0, nullptr, 20), 3ul);
    EXPECT_EQ(m_pSensor->GetError(), 3ul);
    EXPECT_EQ(m_pSensor->m_CallbackInfo.nWidth, 228u);
    EXPECT_EQ(m_pSensor->m_CallbackInfo.nHeight, 292u);
    EXPECT_EQ(m_pSensor->m_nRollState, -1);
    EXPECT_TRUE(RequestsOf(0, VXD_REQ_START_ACQUISITION).empty());
    EXPECT_EQ(Reads(), 0u);

    // Adaptive scan mode: 4, the device untouched beyond initialisation.
    m_pSensor->WriteData(1, 1);
    EXPECT_EQ(Live(0), 4ul);
    EXPECT_EQ(m_pSensor->GetError(), 4ul);
    EXPECT_EQ(Reads(), 0u);
}

TEST_F(LiveTest, LatentWaitGivesUpOrTimesOutWithWhiteImage)
{
    Open(4, "latent,latentcheck=1");
    m_pSensor->m_pVxd->SetLatentCapable(true);
    ASSERT_EQ(m_pSensor->SetImageSize(248, 292), 0ul);
    UseHost();
    Image expected(360000, 7);
    std::fill(expected.begin(), expected.begin() + 248 * 292, 255);

    // The host gives up at the first latent frame.
    m_host.fnReply = ReplyAt(0, 3);
    EXPECT_EQ(Live(20), 54ul);
    ASSERT_EQ(m_host.vecCalls.size(), 1u);
    EXPECT_EQ(m_host.vecCalls[0].info.nQuality, 0u);
    EXPECT_EQ(m_host.vecCalls[0].info.nStatus, 0u);
    EXPECT_EQ(Reads(), 1u);
    EXPECT_EQ(m_image, expected);
    EXPECT_EQ(m_pSensor->m_nResets, 0);

    // The host waits: latent reads, each with its own start and stop, until
    // the time limit.
    for (bool bCallback : {true, false}) {
        SCOPED_TRACE(bCallback);
        Scene("latent,latentcheck=1");
        m_image.assign(360000, 7);
        m_host.fnReply = nullptr;
        m_pSensor->SetCallBackFunction(1, bCallback ? Host::Callback : nullptr, &m_host);
        EXPECT_EQ(Live(20, 200), 54ul);
        const unsigned long nReads = Reads();
        EXPECT_GT(nReads, 1u);
        EXPECT_EQ(m_host.vecCalls.size(), bCallback ? nReads : 0u);
        EXPECT_EQ(RequestsOf(0, VXD_REQ_START_ACQUISITION).size(), nReads);
        EXPECT_EQ(RequestsOf(0, VXD_REQ_STOP_ACQUISITION).size(), nReads);
        EXPECT_EQ(m_image, expected);
        EXPECT_EQ(m_pSensor->m_nResets, 0);
    }

    // The wait comes before the image check.
    Scene("latent,latentcheck=1");
    m_host.fnReply = ReplyAt(0, 3);
    UseHost();
    EXPECT_EQ(m_pSensor->GetLiveImageEx2(nullptr, 1000, 0, nullptr, 20), 54ul);
}

TEST_F(LiveTest, LatentWaitEndsWhenTheGlassIsClean)
{
    AttachUnits("0:model=4,scene=flat,latent=3,latentcheck=1,fps=0");
    m_pSensor.reset(new LiveSensor());
    ASSERT_EQ(m_pSensor->OpenDevice(0, 0), 0ul);
    m_pSensor->m_pVxd->SetLatentCapable(true);
    m_host.pSensor = m_pSensor.get();
    m_host.pImage = m_image.data();
    tavk05virt::ClearLog(0);
    UseHost();
    m_host.fnReply = [](size_t, const ISensor::tagCallbackInfo& info) { return info.nQuality >= 10 ? 6ul : 0ul; };
    EXPECT_EQ(Live(100), 0ul);
    // Three latent reads see residue (one call each), the fourth a finger;
    // then one acquisition for the frame loop.
    size_t nLatentCalls = 0;
    while (nLatentCalls < m_host.vecCalls.size() && m_host.vecCalls[nLatentCalls].shown == Image(360000, 7))
        ++nLatentCalls;
    EXPECT_EQ(nLatentCalls, 3u);
    EXPECT_EQ(RequestsOf(0, VXD_REQ_START_ACQUISITION).size(), 5u);
    EXPECT_EQ(RequestsOf(0, VXD_REQ_STOP_ACQUISITION).size(), 5u);
    EXPECT_EQ(StateOf(0).nReads, 4 + (m_host.vecCalls.size() - 3));
}

TEST_F(LiveTest, LatentReadFailureAndLatentBuffers)
{
    Open(4, "latent,latentcheck=1");
    m_pSensor->m_pVxd->SetLatentCapable(true);
    UseHost();
    std::string strError;
    for (const char* pszFault : {"fail=21", "fail=22"}) {
        SCOPED_TRACE(pszFault);
        ASSERT_TRUE(tavk05virt::Inject(0, std::string("clearfaults,") + pszFault, &strError)) << strError;
        Scene("latent,latentcheck=1");
        EXPECT_EQ(Live(20), 53ul);
        EXPECT_TRUE(m_host.vecCalls.empty());
        EXPECT_EQ(std::count(m_image.begin(), m_image.end(), 7), 360000);
    }

    if (AllocationFailuresAbort()) return;
    ASSERT_TRUE(tavk05virt::Inject(0, "clearfaults", &strError)) << strError;
    Scene("latent,latentcheck=1");
    m_pSensor->m_nFrameBytes = sizeof(unsigned long) > 4 ? (1ul << 40) : 0xFFFFFF00ul;
    EXPECT_EQ(Live(20), 2ul);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    EXPECT_EQ(Reads(), 0u);
}

TEST_F(LiveTest, FixedArgumentFormsUseThresholdTwentyAndNeverMark)
{
    // Model 5 shows the corrected frame itself, marks included.
    Open(5, "place");
    UseHost();
    EXPECT_EQ(Live(20, 60000, 1), 0ul);
    const std::vector<Call> marked = m_host.vecCalls;
    for (const Call& call : marked) EXPECT_TRUE(AllMarked(call.shown, 600, 600));

    Scene("place");
    EXPECT_EQ(m_pSensor->GetLiveImage(m_image.data(), 60000, 1), 0ul);
    const std::vector<Call> plain = m_host.vecCalls;
    ASSERT_EQ(plain.size(), marked.size());  // the same threshold of 20
    EXPECT_GE(plain.back().info.nQuality, 20u);
    EXPECT_LT(plain[plain.size() - 2].info.nQuality, 20u);
    const size_t aCorners[4] = {0, 599, 599 * 600, 599 * 600 + 599};
    bool bSomeCornerDiffers = false;
    for (size_t i = 0; i < plain.size(); ++i) {
        Image a = plain[i].shown;
        Image b = marked[i].shown;
        for (size_t nCorner : aCorners) {
            bSomeCornerDiffers = bSomeCornerDiffers || a[nCorner] != b[nCorner];
            a[nCorner] = b[nCorner] = 0;
        }
        EXPECT_EQ(a, b) << i;
    }
    EXPECT_TRUE(bSomeCornerDiffers);

    Scene("place");
    EXPECT_EQ(m_pSensor->GetLiveImageEx(m_image.data(), 60000, 1, 20), 0ul);
    ASSERT_EQ(m_host.vecCalls.size(), plain.size());
    for (size_t i = 0; i < plain.size(); ++i) EXPECT_EQ(m_host.vecCalls[i].shown, plain[i].shown) << i;
}

TEST_F(LiveTest, ImageForRollReadsOneMarkedFrameWithoutAcquisition)
{
    Open(4, "flat");
    m_pSensor->m_nError = 53;
    EXPECT_EQ(m_pSensor->GetImageForRoll(nullptr, 0), 3ul);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    EXPECT_EQ(Reads(), 0u);

    EXPECT_EQ(m_pSensor->GetImageForRoll(m_image.data(), 0), 0ul);
    EXPECT_EQ(Reads(), 1u);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    EXPECT_TRUE(AllMarked(m_image, 600, 600));
    EXPECT_EQ(m_pSensor->GetError(), 53ul);

    m_pSensor->CloseDevice();
    m_pSensor->m_nError = 53;
    EXPECT_EQ(m_pSensor->GetImageForRoll(m_image.data(), 0), 2ul);
    EXPECT_EQ(m_pSensor->GetError(), 53ul);
    EXPECT_EQ(m_pSensor->GetLiveImageEx2(m_image.data(), 1000, 0, nullptr, 20), 2ul);  // no transport to lock
}

}  // namespace
