// Live and rolled capture on virtual units driven by a scripted host callback;
// the live view and rolled prints of the committed print are pinned by golden images.
#include <dlfcn.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <functional>

#include "golden_image.h"
#include "sensor_fixture.h"
#include "tavk05/mark.h"

namespace {

// Seconds added to the monotonic clock, so that a host callback can let
// minutes pass between two frames.
std::atomic<long> g_nClockSkewSeconds(0);

}  // namespace

// The program's clock_gettime: the C library's, the skew added to the
// monotonic clock (which the time limit uses).
extern "C" int clock_gettime(clockid_t nClock, struct timespec* pTime) noexcept
{
    typedef int (*PfnClock)(clockid_t, struct timespec*);
    static const PfnClock pfnNext = reinterpret_cast<PfnClock>(dlsym(RTLD_NEXT, "clock_gettime"));
    const int nResult = pfnNext(nClock, pTime);
    if (nResult == 0 && nClock == CLOCK_MONOTONIC) pTime->tv_sec += g_nClockSkewSeconds.load();
    return nResult;
}

namespace {

using sensortest::Bytes;
using sensortest::RequestsOf;
using sensortest::SensorTest;

// A sensor that counts its resets (after a time-out or when the host gives up).
struct LiveSensor : COberin {
    LiveSensor() : COberin(nullptr) {}
    unsigned long ResetDevice() override { return ++m_nResets, COberin::ResetDevice(); }
    int m_nResets = 0;
};

struct Call {
    ISensor::tagCallbackInfo info;
    Bytes shown;  // the host's buffer during the call
};

typedef std::function<unsigned long(size_t nCall, const ISensor::tagCallbackInfo& info)> Reply;

// Replies nReply at call nAt and 0 elsewhere.
Reply ReplyAt(size_t nAt, unsigned long nReply)
{
    return [nAt, nReply](size_t nCall, const ISensor::tagCallbackInfo&) { return nCall == nAt ? nReply : 0ul; };
}

class LiveTest : public SensorTest {
protected:
    void TearDown() override
    {
        g_nClockSkewSeconds = 0;
        m_pSensor.reset();
        SensorTest::TearDown();
    }

    // A scripted host: the reply to each call comes from m_fnReply (0 when
    // unset); every call is recorded with a copy of the host's buffer.
    static unsigned long Callback(void* pContext, void* pInfo)
    {
        LiveTest* pTest = static_cast<LiveTest*>(pContext);
        const ISensor::tagCallbackInfo& info = *static_cast<const ISensor::tagCallbackInfo*>(pInfo);
        const size_t nCall = pTest->m_vecCalls.size();
        pTest->m_vecCalls.push_back(Call{info, pTest->m_image});
        if (pTest->m_fnDuring) pTest->m_fnDuring(nCall);
        return pTest->m_fnReply ? pTest->m_fnReply(nCall, info) : 0;
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
        Scene(strScene);
        UseHost();
    }

    void Scene(const std::string& strScene)
    {
        Inject(0, "scene=" + strScene);
        tavk05virt::ClearLog(0);
        m_nReadsBefore = State(0).nReads;
        m_vecCalls.clear();
    }

    void UseHost(bool bOn = true) { m_pSensor->SetCallBackFunction(1, bOn ? Callback : nullptr, bOn ? this : nullptr); }

    unsigned long Live(unsigned long nThreshold, unsigned long nTimeoutMs = 60000, unsigned int nMark = 0)
    {
        return m_pSensor->GetLiveImageEx2(m_image.data(), nTimeoutMs, nMark, nullptr, nThreshold);
    }

    unsigned long Reads() { return State(0).nReads - m_nReadsBefore; }

    // Exactly one start and one stop of acquisition around the frame loop.
    void ExpectOneAcquisition()
    {
        std::vector<unsigned long> vec;
        for (unsigned long n : sensortest::RequestNumbers())
            if (n == VXD_REQ_START_ACQUISITION || n == VXD_REQ_STOP_ACQUISITION) vec.push_back(n);
        EXPECT_EQ(vec, (std::vector<unsigned long>{VXD_REQ_START_ACQUISITION, VXD_REQ_STOP_ACQUISITION}));
        EXPECT_FALSE(State(0).bAcquiring);
    }

    std::unique_ptr<LiveSensor> m_pSensor;
    Bytes m_image = Bytes(IMG_PIXELS, 7);
    std::vector<Call> m_vecCalls;
    Reply m_fnReply;
    std::function<void(size_t)> m_fnDuring;
    unsigned long m_nReadsBefore = 0;
    long m_nSkew = 0;
};

// The live view ends at the first frame reaching the threshold, with or
// without a callback; the image is that frame, marked at the corners of the
// nominal size. The record carries the nominal size, status 0 and the
// quality of the image shown. (Model 8: the mapping of models 3 and 4 adds
// a jitter seeded with the time.)
TEST_F(LiveTest, LiveViewEndsAtTheFirstFrameReachingTheThreshold)
{
    Open(8, "place");
    size_t nFrames = 0;
    const struct {
        const char* pszName;
        unsigned long nWidth, nHeight;
        bool bCallback;
        unsigned long nThreshold, nReplyAtCall3;  // reply 0 goes on, another value accepts the image
    } aCases[] = {{"600 x 600", 600, 600, true, 25, 0},
                  {"600 x 600, no callback", 600, 600, false, 25, 0},
                  {"356 x 456, accepted by the host", 356, 456, true, 100, 9}};
    for (const auto& c : aCases) {
        SCOPED_TRACE(c.pszName);
        ASSERT_EQ(m_pSensor->SetImageSize(c.nWidth, c.nHeight), 0ul);
        Scene("place");
        UseHost(c.bCallback);
        m_fnReply = ReplyAt(3, c.nReplyAtCall3);
        m_pSensor->m_CallbackInfo = {1, 2, 3, 4};
        EXPECT_EQ(Live(c.nThreshold), 0ul);
        ExpectOneAcquisition();
        EXPECT_EQ(m_pSensor->m_nRollState, -1);
        EXPECT_EQ(GetRBWaterM(m_image.data(), static_cast<int>(c.nWidth), static_cast<int>(c.nHeight)), 1);
        if (m_vecCalls.size() > nFrames) nFrames = m_vecCalls.size();
        EXPECT_EQ(Reads(), c.nReplyAtCall3 == 0 ? nFrames : 4u);
        EXPECT_GT(nFrames, 3u);  // the glass is empty at first
        for (size_t i = 0; i < m_vecCalls.size(); ++i) {
            const ISensor::tagCallbackInfo& info = m_vecCalls[i].info;
            EXPECT_EQ(info.nQuality >= 25, c.nReplyAtCall3 == 0 && i + 1 == nFrames) << i;
            EXPECT_EQ(info.nWidth, c.nWidth) << i;
            EXPECT_EQ(info.nHeight, c.nHeight) << i;
            EXPECT_EQ(info.nStatus, 0u) << i;
            EXPECT_EQ(info.nQuality,
                      static_cast<unsigned>(m_pSensor->m_ImageProc.CheckImageQuality2(
                          static_cast<int>(c.nWidth), static_cast<int>(c.nHeight), m_vecCalls[i].shown.data())));
        }
    }
}

// The committed print through the live view (model 8: the table of the
// newer firmware's preview) and rolled into a print (model 5 merges its
// shaded frames and smooths the result; model 7 converts with its roll base).
TEST_F(LiveTest, ImagesOfThePrint)
{
    const struct {
        int nModel;
        const char* pszScene;
        bool bRoll;
        const char* pszGolden;
    } aCases[] = {
        {8, "place", false, "live-view"}, {5, "roll", true, "rolled-print"}, {7, "roll", true, "rolled-print-model-7"}};
    for (const auto& c : aCases) {
        SCOPED_TRACE(c.pszGolden);
        Open(c.nModel, std::string(c.pszScene) + "," + goldentest::PrintKey(), c.bRoll);
        m_fnReply = ReplyAt(0, c.bRoll ? TAVK05_CB_START_ROLL : 0);
        EXPECT_EQ(Live(c.bRoll ? 1 : 25), 0ul);
        EXPECT_TRUE(goldentest::MatchesGolden(m_image, c.pszGolden));
    }
}

TEST_F(LiveTest, CallbackRepliesInLiveView)
{
    Open(4, "flat");
    const struct {
        unsigned long nReply, nThreshold, nResult;
        size_t nCalls;
        int nRollState, nResets;
    } aCases[] = {
        {7, 100, 0, 3, -1, 0},    // any other nonzero value accepts the image
        {101, 100, 0, 3, 0, 0},   // stop
        {7, 250, 0, 3, -1, 0},    // 250 is taken as 100, which an accepted image reaches
        {0, 0, 0, 1, -1, 0},      // threshold 0: the first good frame ends the capture
        {100, 100, 54, 0, 1, 1},  // rolling out of roll mode: preview only, quality cleared, ended by time
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(testing::Message() << "reply " << c.nReply << " threshold " << c.nThreshold);
        Scene("flat");
        m_fnReply = [&c](size_t n, const ISensor::tagCallbackInfo&) {
            return n == 2 || c.nReply == 100 ? c.nReply : 0;
        };
        const int nResets = m_pSensor->m_nResets;
        EXPECT_EQ(Live(c.nThreshold, c.nReply == 100 ? 300 : 60000), c.nResult);
        if (c.nCalls != 0) {
            EXPECT_EQ(m_vecCalls.size(), c.nCalls);
        }
        EXPECT_EQ(m_pSensor->m_nRollState, c.nRollState);
        EXPECT_EQ(m_pSensor->m_nResets - nResets, c.nResets);
        ExpectOneAcquisition();
    }
}

// A roll (roll mode, the host replies 100) completes when the finger has
// gone and passes the final check at thresholds up to its final quality;
// model 5 smooths the rolled image, model 7 does not.
TEST_F(LiveTest, RolledImageEndsThroughTheFinalCheck)
{
    const struct {
        int nModel;
        const char* pszScene;
        int nDirection;
        int nFinal;  // quality of the final check
    } aCases[] = {{5, "roll", 1, 100}, {7, "roll", 1, 100}, {5, "roll-left", 2, 100}, {5, "lift", 1, 70}};
    for (const auto& c : aCases) {
        SCOPED_TRACE(testing::Message() << c.nModel << " " << c.pszScene);
        Open(c.nModel, c.pszScene, true);
        m_fnReply = ReplyAt(0, TAVK05_CB_START_ROLL);
        EXPECT_EQ(Live(1), 0ul);
        const std::vector<Call> vecCalls = m_vecCalls;
        ASSERT_GT(vecCalls.size(), 20u);
        EXPECT_EQ(m_pSensor->m_nRollState, 1);
        EXPECT_EQ(vecCalls[1].shown, vecCalls[0].shown);  // the first rolling frame only resets
        EXPECT_NE(vecCalls[5].shown, vecCalls[0].shown);
        EXPECT_EQ(m_pSensor->m_ImageProc.m_nRollDirection, c.nDirection);
        EXPECT_EQ(m_pSensor->m_ImageProc.m_bRollStarted, 0);  // the finger has gone
        EXPECT_EQ(GetRBWaterM(m_image.data(), 600, 600), 1);
        ExpectOneAcquisition();
        EXPECT_EQ(m_pSensor->m_nResets, 0);
        for (int nThreshold : {c.nFinal, c.nFinal + 1}) {
            if (nThreshold > 100) continue;
            Scene(c.pszScene);
            EXPECT_EQ(Live(static_cast<unsigned long>(nThreshold)), nThreshold > c.nFinal ? 57ul : 0ul) << nThreshold;
            EXPECT_EQ(m_vecCalls.size(), vecCalls.size());
        }
    }
}

// The final check measures the host's buffer after the completing frame:
// pixels darker than the mean of rows 200..399 by more than 5 are halved,
// unless that mean is above 244. A faint print (checks of lo and lo + 6, too
// weak to count) passes only when its lo checks are halved.
TEST_F(LiveTest, FinalCheckHalvesPixelsDarkerThanTheMiddleRowsUnlessPale)
{
    const struct {
        int nLow, nBackground;
        unsigned long nResult;
    } aCases[] = {{180, 200, 0}, {240, 255, 57}, {180, 188, 57}};  // means 188, 247, 184
    Open(5, "roll", true);
    for (const auto& c : aCases) {
        SCOPED_TRACE(c.nLow);
        Scene("roll");
        Bytes faint(IMG_PIXELS, static_cast<unsigned char>(c.nBackground));
        for (int y = 100; y < 500; ++y)
            for (int x = 100; x < 500; ++x)
                faint[y * 600 + x] = static_cast<unsigned char>((x / 2 + y / 2) % 2 ? c.nLow + 6 : c.nLow);
        m_fnDuring = [this, &faint](size_t nCall) {
            if (nCall > 0) m_image = faint;
        };
        m_fnReply = ReplyAt(0, TAVK05_CB_START_ROLL);
        EXPECT_EQ(Live(50), c.nResult);
        EXPECT_GT(m_vecCalls.size(), 20u);
        EXPECT_EQ(m_pSensor->m_ImageProc.CheckImageQuality2(600, 600, faint.data()), 0);
    }
}

// 101 while rolling keeps the rolled image as far as it got; no finger in the
// first composed frame completes at once (the last live image, too weak for
// 20); too fast a roll completes long before the finger leaves. Without a
// callback, or out of roll mode, nothing is composed.
TEST_F(LiveTest, RollingEndsEarly)
{
    Open(5, "roll", true);
    const struct {
        const char* pszScene;
        Reply fnReply;
        bool bCallback;
        unsigned long nThreshold, nResult;
        int nRollState, bRollStarted;
        size_t nMinCalls, nMaxCalls;
    } aCases[] = {
        {"roll", [](size_t n, const ISensor::tagCallbackInfo&) { return n == 0    ? 100ul
                                                                        : n == 12 ? 101ul
                                                                                  : 0ul; }, true,
         100, 0, 0, 1, 13, 13},
        {"empty", ReplyAt(0, TAVK05_CB_START_ROLL), true, 20, 57, 1, 0, 3, 3},
        {"roll-fast", ReplyAt(0, TAVK05_CB_START_ROLL), true, 1, 0, 1, 1, 2, 11},
        {"roll", nullptr, false, 20, 0, -1, 0, 0, 0},
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(c.pszScene);
        Scene(c.pszScene);
        UseHost(c.bCallback);
        m_fnReply = c.fnReply;
        m_pSensor->m_ImageProc.m_nRollLeft = 777;  // the composition's reset clears it
        m_pSensor->m_ImageProc.m_bRollStarted = 0;
        EXPECT_EQ(Live(c.nThreshold), c.nResult);
        EXPECT_EQ(m_pSensor->m_nRollState, c.nRollState);
        EXPECT_EQ(m_pSensor->m_ImageProc.m_bRollStarted, c.bRollStarted);
        EXPECT_EQ(m_pSensor->m_ImageProc.m_nRollLeft != 777, c.bCallback);
        EXPECT_GE(m_vecCalls.size(), c.nMinCalls);
        EXPECT_LE(m_vecCalls.size(), c.nMaxCalls);
        ExpectOneAcquisition();
    }
}

// The time limit ends with 54 and a reset. Every call then lets 70 s pass:
// only a time-out of 65535 with threshold 100 (or above) and a callback
// means no limit, in the frame loop as in the latent wait; the clock
// restarts for the frame loop after the latent wait.
TEST_F(LiveTest, TimeLimit)
{
    Open(4, "empty");
    UseHost(false);
    struct timespec tStart, tEnd;
    clock_gettime(CLOCK_MONOTONIC, &tStart);
    EXPECT_EQ(Live(50, 250), 54ul);
    clock_gettime(CLOCK_MONOTONIC, &tEnd);
    EXPECT_GE((tEnd.tv_sec - tStart.tv_sec) * 1000 + (tEnd.tv_nsec - tStart.tv_nsec) / 1000000, 250);
    EXPECT_GT(Reads(), 1u);
    EXPECT_EQ(m_pSensor->m_nResets, 1);
    ExpectOneAcquisition();

    UseHost();
    m_fnDuring = [this](size_t) {
        g_nClockSkewSeconds += m_nSkew != 0 && m_vecCalls.size() > 2 ? 1 : m_nSkew ? m_nSkew : 70;
    };
    const struct {
        unsigned long nTimeoutMs, nThreshold;
        const char* pszScene;
        long nSkew;  // seconds per call (29 for the latent calls, then 1), 0: 70 each
        bool bLatentCapable;
        size_t nReplyCall;
        unsigned long nReply, nResult;
        size_t nCalls;
    } aCases[] = {
        {65535, 100, "empty", 0, false, 5, 4, 0, 6},
        {65535, 250, "empty", 0, false, 5, 4, 0, 6},
        {65534, 100, "empty", 0, false, 5, 4, 54, 1},
        {65535, 99, "empty", 0, false, 5, 4, 54, 1},
        {65535, 100, "latent,latentcheck=1", 0, true, 4, 1, 54, 5},
        {65534, 100, "latent,latentcheck=1", 0, true, 4, 1, 54, 1},
        {60000, 100, "flat,latent=2,latentcheck=1", 29, true, 5, 4, 0, 6},
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(testing::Message() << c.nTimeoutMs << " ms, threshold " << c.nThreshold << ", " << c.pszScene);
        m_pSensor->m_pVxd->SetLatentCapable(c.bLatentCapable);
        Scene(c.pszScene);
        m_nSkew = c.nSkew;
        m_fnReply = ReplyAt(c.nReplyCall, c.nReply);
        EXPECT_EQ(Live(c.nThreshold, c.nTimeoutMs), c.nResult);
        EXPECT_EQ(m_vecCalls.size(), c.nCalls);
    }
}

// Failed frame reads (a frame size the buffers refuse) are told to the host
// with status 53 and quality 0: without a callback 53 at once; the host
// giving up is 54 with a reset; a host that goes on meets the time limit or
// accepts the next good frame (nothing new is shown after a failed one).
TEST_F(LiveTest, FailedFrameReadsAreToldToTheHost)
{
    Open(4, "flat");
    const unsigned long nGood = m_pSensor->m_nFrameBytes;
    const unsigned long nBad = OBERIN_FRAME_BUFFER_BYTES + 1;
    const struct {
        bool bCallback;
        Reply fnReply;
        bool bRepair;
        unsigned long nTimeoutMs, nResult;
        int nResets;
        std::vector<unsigned long> vecStatus;  // status of each call; empty: 53 at every call until the time limit
    } aCases[] = {
        {false, nullptr, false, 60000, 53, 0, {}},
        {true, ReplyAt(0, 1), false, 60000, 54, 1, {53}},
        {true, nullptr, false, 200, 54, 1, {}},
        {true, ReplyAt(3, 8), true, 60000, 0, 0, {0, 53, 53, 0}},
    };
    for (const auto& c : aCases) {
        Scene("flat");
        UseHost(c.bCallback);
        m_fnReply = c.fnReply;
        m_pSensor->m_nFrameBytes = c.bRepair ? nGood : nBad;
        m_fnDuring = [this, &c, nGood, nBad](size_t n) {
            if (c.bRepair && n < 3)
                m_pSensor->m_nFrameBytes = n == 0 ? nBad : n == 2 ? nGood : m_pSensor->m_nFrameBytes;
        };
        const int nResets = m_pSensor->m_nResets;
        EXPECT_EQ(Live(100, c.nTimeoutMs), c.nResult);
        EXPECT_EQ(m_pSensor->m_nResets - nResets, c.nResets);
        ExpectOneAcquisition();
        std::vector<unsigned long> vecStatus, vecQualityOf53;
        for (const Call& call : m_vecCalls) vecStatus.push_back(call.info.nStatus);
        for (const Call& call : m_vecCalls)
            if (call.info.nStatus == 53) vecQualityOf53.push_back(call.info.nQuality);
        EXPECT_EQ(vecQualityOf53, std::vector<unsigned long>(vecQualityOf53.size(), 0));
        if (c.bCallback) {
            EXPECT_EQ(vecStatus, c.vecStatus.empty() ? std::vector<unsigned long>(vecStatus.size(), 53) : c.vecStatus);
        }
        if (c.bCallback && c.vecStatus.empty()) {
            EXPECT_GT(vecStatus.size(), 1u);
        }
        if (c.bRepair) {
            EXPECT_EQ(m_vecCalls[1].shown, m_vecCalls[0].shown);
            EXPECT_EQ(Reads(), 2u);
        }
    }
}

// A failed stop is 2 with the last image shown left unsmoothed and unmarked. A null image is 3 after the record got
// the nominal size, an adaptive scan mode 4, both without acquisition.
TEST_F(LiveTest, RefusalsAndAcquisitionFailures)
{
    Open(5, "flat", true);
    Inject(0, "fail=22");
    Scene("flat");
    m_fnReply = ReplyAt(1, 5);
    EXPECT_EQ(Live(100), 2ul);
    ASSERT_EQ(m_vecCalls.size(), 2u);
    EXPECT_EQ(m_image, m_vecCalls[1].shown);
    EXPECT_EQ(m_pSensor->m_nResets, 0);

    Inject(0, "clearfaults");
    Scene("flat");
    ASSERT_EQ(m_pSensor->SetImageSize(228, 292), 0ul);
    m_pSensor->m_CallbackInfo = {1, 2, 3, 4};
    m_pSensor->m_nRollState = 5;
    EXPECT_EQ(m_pSensor->GetLiveImageEx2(nullptr, 1000, 0, nullptr, 20), 3ul);
    EXPECT_EQ(m_pSensor->m_CallbackInfo.nWidth, 228u);
    EXPECT_EQ(m_pSensor->m_CallbackInfo.nHeight, 292u);
    EXPECT_EQ(m_pSensor->m_nRollState, -1);
    m_pSensor->WriteData(1, 1);
    EXPECT_EQ(Live(0), 4ul);
    EXPECT_EQ(m_pSensor->GetError(), 4ul);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
}

// With a latent print on the glass the wait reads latent frames, each with its
// own acquisition and call (quality and status 0): the host giving up is 54,
// so is the time limit; the image is white over the nominal size; no reset.
// A failed latent read is 53. Residue that goes away ends the wait.
TEST_F(LiveTest, LatentWait)
{
    Open(4, "latent,latentcheck=1");
    m_pSensor->m_pVxd->SetLatentCapable(true);
    ASSERT_EQ(m_pSensor->SetImageSize(248, 292), 0ul);
    Bytes white(IMG_PIXELS, 7);
    std::fill(white.begin(), white.begin() + 248 * 292, 255);
    const int kSeveral = -1, kThenFrames = -2;
    const struct {
        const char* pszScene;
        const char* pszFault;
        bool bCallback;
        Reply fnReply;
        unsigned long nTimeoutMs, nResult;
        int nReads;  // kSeveral: more than one; kThenFrames: three latent, one clean, then frames
    } aCases[] = {
        {"latent", "", true, ReplyAt(0, 3), 60000, 54, 1},
        {"latent", "", true, nullptr, 1000, 54, kSeveral},
        {"latent", "", false, nullptr, 1000, 54, kSeveral},
        {"latent", "fail=21", true, nullptr, 60000, 53, 0},
        {"latent", "fail=22", true, nullptr, 60000, 53, 1},
        {"flat,latent=3", "", true, ReplyAt(4, 6), 60000, 0, kThenFrames},
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(testing::Message() << c.pszScene << " " << c.pszFault << " callback " << c.bCallback);
        Inject(0, *c.pszFault ? std::string("clearfaults,") + c.pszFault : "clearfaults");
        Scene(std::string(c.pszScene) + ",latentcheck=1");
        UseHost(c.bCallback);
        m_fnReply = c.fnReply;
        m_image.assign(IMG_PIXELS, 7);
        EXPECT_EQ(Live(20, c.nTimeoutMs), c.nResult);
        const unsigned long nReads = Reads();
        const size_t nStarts = RequestsOf(VXD_REQ_START_ACQUISITION).size();
        EXPECT_EQ(m_pSensor->m_nResets, 0);
        if (c.nReads == kThenFrames) {
            size_t nLatent = 0;
            while (nLatent < m_vecCalls.size() && m_vecCalls[nLatent].shown == Bytes(IMG_PIXELS, 7)) ++nLatent;
            EXPECT_EQ(nLatent, 3u);
            EXPECT_EQ(nStarts, 5u);
            EXPECT_EQ(RequestsOf(VXD_REQ_STOP_ACQUISITION).size(), 5u);
            EXPECT_EQ(nReads, 4 + (m_vecCalls.size() - 3));
            continue;
        }
        if (c.nReads == kSeveral) {
            EXPECT_GT(nReads, 1u);
        } else {
            EXPECT_EQ(nReads, static_cast<unsigned long>(c.nReads));
        }
        EXPECT_EQ(m_vecCalls.size(), c.bCallback && c.nResult != 53 ? nReads : 0u);
        for (const Call& call : m_vecCalls) {
            EXPECT_EQ(call.info.nQuality, 0u);
            EXPECT_EQ(call.info.nStatus, 0u);
        }
        EXPECT_EQ(nStarts, *c.pszFault ? 1u : nReads);
        EXPECT_EQ(m_image, c.nResult == 53 ? Bytes(IMG_PIXELS, 7) : white);
    }
    // The wait comes before the image check.
    Scene("latent,latentcheck=1");
    UseHost();
    m_fnReply = ReplyAt(0, 3);
    EXPECT_EQ(m_pSensor->GetLiveImageEx2(nullptr, 1000, 0, nullptr, 20), 54ul);
}

// GetLiveImage is GetLiveImageEx at threshold 20, and both are
// GetLiveImageEx2 without marking the frames: the same calls, the same image.
TEST_F(LiveTest, FixedArgumentForms)
{
    Open(5, "place");
    EXPECT_EQ(Live(20), 0ul);
    const std::vector<Call> vecPlain = m_vecCalls;
    const Bytes image = m_image;
    ASSERT_GT(vecPlain.size(), 1u);
    EXPECT_GE(vecPlain.back().info.nQuality, 20u);
    EXPECT_LT(vecPlain[vecPlain.size() - 2].info.nQuality, 20u);
    for (int nForm = 0; nForm < 2; ++nForm) {
        Scene("place");
        m_image.assign(IMG_PIXELS, 7);
        EXPECT_EQ(nForm == 0 ? m_pSensor->GetLiveImage(m_image.data(), 60000, 1)
                             : m_pSensor->GetLiveImageEx(m_image.data(), 60000, 1, 20),
                  0ul);
        ASSERT_EQ(m_vecCalls.size(), vecPlain.size());
        for (size_t i = 0; i < vecPlain.size(); ++i) {
            EXPECT_EQ(m_vecCalls[i].shown, vecPlain[i].shown) << i;
        }
        EXPECT_EQ(m_image, image);
    }
}

}  // namespace
