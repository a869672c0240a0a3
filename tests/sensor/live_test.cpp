// Live and rolled capture on virtual units with scripted host callbacks: the
// replies that move the loop between its states, the record handed to the
// callback, the time limit, the latent wait, the final check of a rolled
// image, the failure paths, and the finished images pinned by digest.
#include <dlfcn.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <functional>

#include "sensor_fixture.h"
#include "tavk05/mark.h"

namespace {

// Seconds added to the monotonic clock, so that a host callback can let
// minutes pass between two frames.
std::atomic<long> g_nClockSkewSeconds(0);

}  // namespace

// The program's clock_gettime: the C library's, with the skew added to the
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
using sensortest::Digest;
using sensortest::RequestsOf;
using sensortest::SensorTest;

// A sensor that counts its resets (after a time-out or when the host gives up).
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
    void Open(int nModel, const std::string& strScene, bool bRollMode = false, const std::string& strKeys = "")
    {
        AttachUnits("0:model=" + std::to_string(nModel) + ",scene=empty,fps=0" + strKeys);
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
        for (unsigned long n : sensortest::RequestNumbers(0))
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
};

// The live view ends at the first frame reaching the threshold, with or
// without a callback; the image is that frame with its marks. (Model 8: the
// mapping of models 3 and 4 adds a jitter seeded with the time.)
TEST_F(LiveTest, LiveViewEndsAtTheFirstFrameReachingTheThreshold)
{
    Open(8, "place");
    EXPECT_EQ(Live(25), 0ul);
    ASSERT_GT(m_vecCalls.size(), 3u);  // the glass is empty at first
    for (size_t i = 0; i < m_vecCalls.size(); ++i)
        EXPECT_EQ(m_vecCalls[i].info.nQuality >= 25, i + 1 == m_vecCalls.size()) << i;
    EXPECT_EQ(Reads(), m_vecCalls.size());
    EXPECT_EQ(m_pSensor->m_nRollState, -1);
    ExpectOneAcquisition();
    EXPECT_EQ(Digest(m_image), 0x9cb0827bf899474full);
    const size_t nFrames = m_vecCalls.size();
    UseHost(false);
    Scene("place");
    EXPECT_EQ(Live(25), 0ul);
    EXPECT_EQ(Reads(), nFrames);
    EXPECT_EQ(Digest(m_image), 0x9cb0827bf899474full);
}

TEST_F(LiveTest, CallbackRepliesInLiveView)
{
    Open(4, "flat");
    const struct {
        unsigned long nReply, nThreshold;
        size_t nCalls;
        int nRollState;
    } aCases[] = {
        {7, 100, 3, -1},   // any other nonzero value accepts the image
        {101, 100, 3, 0},  // stop
        {7, 250, 3, -1},   // 250 is taken as 100, which an accepted image reaches
        {100, 100, 300, 1},  // roll asked for outside roll mode: preview only, ended by time
        {0, 0, 1, -1},     // threshold 0: the first good frame ends the capture
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(testing::Message() << "reply " << c.nReply << " threshold " << c.nThreshold);
        Scene("flat");
        m_fnReply = c.nReply == 100 ? Reply([](size_t, const ISensor::tagCallbackInfo&) { return 100ul; })
                                    : ReplyAt(2, c.nReply);
        const int nResets = m_pSensor->m_nResets;
        EXPECT_EQ(Live(c.nThreshold, c.nReply == 100 ? 300 : 60000), c.nReply == 100 ? 54ul : 0ul);
        if (c.nReply != 100) { EXPECT_EQ(m_vecCalls.size(), c.nCalls); }
        EXPECT_EQ(m_pSensor->m_nRollState, c.nRollState);
        EXPECT_EQ(m_pSensor->m_nResets - nResets, c.nReply == 100 ? 1 : 0);
        ExpectOneAcquisition();
    }
}

// The record carries the nominal size, status 0 and the quality of the image
// shown; the marks sit at the corners of the nominal size.
TEST_F(LiveTest, CallbackRecordCarriesNominalSizeAndMeasuredQuality)
{
    Open(5, "place");
    for (const unsigned long* pSize : {(const unsigned long[]){356, 456}, (const unsigned long[]){600, 600}}) {
        SCOPED_TRACE(pSize[0]);
        ASSERT_EQ(m_pSensor->SetImageSize(pSize[0], pSize[1]), 0ul);
        Scene("place");
        m_pSensor->m_CallbackInfo = {1, 2, 3, 4};
        m_fnReply = ReplyAt(11, 9);
        EXPECT_EQ(Live(100), 0ul);
        ASSERT_EQ(m_vecCalls.size(), 12u);
        unsigned nBest = 0;
        for (Call& call : m_vecCalls) {
            EXPECT_EQ(call.info.nWidth * 1000 + call.info.nHeight, pSize[0] * 1000 + pSize[1]);
            EXPECT_EQ(call.info.nStatus, 0u);
            EXPECT_EQ(call.info.nQuality, static_cast<unsigned>(m_pSensor->m_ImageProc.CheckImageQuality2(
                                              static_cast<int>(pSize[0]), static_cast<int>(pSize[1]), call.shown.data())));
            nBest = std::max(nBest, call.info.nQuality);
        }
        EXPECT_GT(nBest, 0u);
        EXPECT_EQ(GetLTWaterM(m_image.data(), static_cast<int>(pSize[0]), static_cast<int>(pSize[1])) +
                      GetRBWaterM(m_image.data(), static_cast<int>(pSize[0]), static_cast<int>(pSize[1])), 2);
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
        unsigned long long nDigest;
    } aCases[] = {
        {5, "roll", 1, 100, 0xa5d0d90472853194ull}, {7, "roll", 1, 100, 0x7198482824a0e9a4ull},
        {5, "roll-left", 2, 100, 0x249f33ab04b72ae3ull}, {5, "lift", 1, 70, 0x4263034c562bfbe3ull},
    };
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
        EXPECT_EQ(Digest(m_image), c.nDigest);
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
            for (int x = 100; x < 500; ++x) faint[y * 600 + x] = static_cast<unsigned char>((x / 2 + y / 2) % 2 ? c.nLow + 6 : c.nLow);
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
        {"roll", [](size_t n, const ISensor::tagCallbackInfo&) { return n == 0 ? 100ul : n == 12 ? 101ul : 0ul; },
         true, 100, 0, 0, 1, 13, 13},
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
        EXPECT_TRUE(m_vecCalls.size() >= c.nMinCalls && m_vecCalls.size() <= c.nMaxCalls) << m_vecCalls.size();
        ExpectOneAcquisition();
    }
}

// The time limit ends with 54 and a reset.
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

    // Every call lets 70 s pass: only a time-out of 65535 with threshold 100
    // (or above) and a callback means no limit, in the frame loop as in the
    // latent wait.
    UseHost();
    m_fnDuring = [](size_t) { g_nClockSkewSeconds += 70; };
    const struct {
        unsigned long nTimeoutMs, nThreshold;
        const char* pszScene;
        unsigned long nResult;
        size_t nCalls;
    } aCases[] = {
        {65535, 100, "empty", 0, 6}, {65535, 250, "empty", 0, 6}, {65534, 100, "empty", 54, 1},
        {65535, 99, "empty", 54, 1}, {65535, 100, "latent,latentcheck=1", 54, 5}, {65534, 100, "latent,latentcheck=1", 54, 1},
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(testing::Message() << c.nTimeoutMs << " ms, threshold " << c.nThreshold << ", " << c.pszScene);
        m_pSensor->m_pVxd->SetLatentCapable(c.pszScene[0] == 'l');
        Scene(c.pszScene);
        m_fnReply = ReplyAt(c.pszScene[0] == 'l' ? 4 : 5, c.pszScene[0] == 'l' ? 1 : 4);
        EXPECT_EQ(Live(c.nThreshold, c.nTimeoutMs), c.nResult);
        EXPECT_EQ(m_vecCalls.size(), c.nCalls);
    }
}

// The clock restarts for the frame loop after the latent wait: two latent
// calls of 29 s, then frames of 1 s.
TEST_F(LiveTest, ClockRestartsAfterTheLatentWait)
{
    Open(4, "flat,latent=2,latentcheck=1");
    m_pSensor->m_pVxd->SetLatentCapable(true);
    Scene("flat,latent=2,latentcheck=1");
    m_fnDuring = [this](size_t) { g_nClockSkewSeconds += m_vecCalls.size() <= 2 ? 29 : 1; };
    m_fnReply = ReplyAt(4, 3);
    EXPECT_EQ(Live(100, 60000), 0ul);
    EXPECT_EQ(m_vecCalls.size(), 5u);
}

// Failed frame reads (a frame size the buffers refuse) are told to the host
// with status 53 and quality 0: without a callback 53 at once; the host
// giving up is 54 with a reset; a host that goes on meets the time limit or
// accepts the next good frame.
TEST_F(LiveTest, FailedFrameReadsAreToldToTheHost)
{
    Open(4, "flat");
    const unsigned long nGood = m_pSensor->m_nFrameBytes;
    const unsigned long nBad = OBERIN_FRAME_BUFFER_BYTES + 1;
    m_pSensor->m_nFrameBytes = nBad;
    UseHost(false);
    EXPECT_EQ(Live(100), 53ul);
    EXPECT_EQ(m_pSensor->m_nResets, 0);
    ExpectOneAcquisition();

    UseHost();
    Scene("flat");
    m_fnReply = ReplyAt(0, 1);
    EXPECT_EQ(Live(100), 54ul);
    ASSERT_EQ(m_vecCalls.size(), 1u);
    EXPECT_EQ(m_vecCalls[0].info.nQuality * 100 + m_vecCalls[0].info.nStatus, 53u);
    EXPECT_EQ(m_pSensor->m_nResets, 1);

    Scene("flat");
    m_fnReply = nullptr;
    EXPECT_EQ(Live(100, 200), 54ul);
    EXPECT_GT(m_vecCalls.size(), 1u);
    for (const Call& call : m_vecCalls) { EXPECT_EQ(call.info.nStatus, 53u); }
    EXPECT_EQ(m_pSensor->m_nResets, 2);
    ExpectOneAcquisition();

    m_pSensor->m_nFrameBytes = nGood;
    Scene("flat");
    m_fnDuring = [this, nGood, nBad](size_t n) { m_pSensor->m_nFrameBytes = n == 0 ? nBad : n == 2 ? nGood : m_pSensor->m_nFrameBytes; };
    m_fnReply = ReplyAt(3, 8);
    EXPECT_EQ(Live(100), 0ul);
    ASSERT_EQ(m_vecCalls.size(), 4u);
    for (size_t i = 0; i < 4; ++i) { EXPECT_EQ(m_vecCalls[i].info.nStatus, i == 1 || i == 2 ? 53u : 0u) << i; }
    EXPECT_EQ(m_vecCalls[1].shown, m_vecCalls[0].shown);  // nothing new to show
    EXPECT_EQ(Reads(), 2u);
    ExpectOneAcquisition();
}

// A failed start is 2 before any read; a failed stop is 2 with the last image
// shown left unsmoothed and unmarked. A null image is 3 after the record got
// the nominal size, an adaptive scan mode 4, both without acquisition.
TEST_F(LiveTest, RefusalsAndAcquisitionFailures)
{
    Open(5, "flat", true);
    Inject(0, "fail=21");
    EXPECT_EQ(Live(100), 2ul);
    EXPECT_EQ(Reads(), 0u);
    EXPECT_EQ(m_image, Bytes(IMG_PIXELS, 7));

    Inject(0, "clearfaults,fail=22");
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
    EXPECT_EQ(m_pSensor->GetError(), 3ul);
    EXPECT_EQ(m_pSensor->m_CallbackInfo.nWidth * 1000 + m_pSensor->m_CallbackInfo.nHeight, 228292u);
    EXPECT_EQ(m_pSensor->m_nRollState, -1);
    m_pSensor->WriteData(1, 1);
    EXPECT_EQ(Live(0), 4ul);
    EXPECT_EQ(m_pSensor->GetError(), 4ul);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    EXPECT_EQ(Reads(), 0u);
}

// With a latent print on the glass the wait reads latent frames, each with its
// own acquisition: the host giving up is 54, so is the time limit; the image
// is white over the nominal size; no reset. A failed latent read is 53.
TEST_F(LiveTest, LatentWait)
{
    Open(4, "latent,latentcheck=1");
    m_pSensor->m_pVxd->SetLatentCapable(true);
    ASSERT_EQ(m_pSensor->SetImageSize(248, 292), 0ul);
    Bytes expected(IMG_PIXELS, 7);
    std::fill(expected.begin(), expected.begin() + 248 * 292, 255);
    const struct {
        const char* pszFault;
        bool bCallback;
        Reply fnReply;
        unsigned long nTimeoutMs, nResult;
        bool bOneRead;
    } aCases[] = {
        {"", true, ReplyAt(0, 3), 60000, 54, true}, {"", true, nullptr, 200, 54, false},
        {"", false, nullptr, 200, 54, false}, {"fail=21", true, nullptr, 60000, 53, false},
        {"fail=22", true, nullptr, 60000, 53, true},
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(testing::Message() << c.pszFault << " callback " << c.bCallback << " " << c.nTimeoutMs);
        Inject(0, *c.pszFault ? std::string("clearfaults,") + c.pszFault : "clearfaults");
        Scene("latent,latentcheck=1");
        UseHost(c.bCallback);
        m_fnReply = c.fnReply;
        m_image.assign(IMG_PIXELS, 7);
        EXPECT_EQ(Live(20, c.nTimeoutMs), c.nResult);
        const unsigned long nReads = Reads();
        EXPECT_TRUE(c.bOneRead ? nReads == 1 : c.nResult == 53 ? nReads == 0 : nReads > 1) << nReads;
        EXPECT_EQ(m_vecCalls.size(), c.bCallback && c.nResult != 53 ? nReads : 0u);
        for (const Call& call : m_vecCalls) { EXPECT_EQ(call.info.nQuality + call.info.nStatus, 0u); }
        EXPECT_EQ(RequestsOf(0, VXD_REQ_START_ACQUISITION).size(), c.pszFault[0] ? 1u : nReads);
        EXPECT_EQ(m_image, c.nResult == 53 ? Bytes(IMG_PIXELS, 7) : expected);
        EXPECT_EQ(m_pSensor->m_nResets, 0);
    }
    // The wait comes before the image check.
    Inject(0, "clearfaults");
    Scene("latent,latentcheck=1");
    UseHost();
    m_fnReply = ReplyAt(0, 3);
    EXPECT_EQ(m_pSensor->GetLiveImageEx2(nullptr, 1000, 0, nullptr, 20), 54ul);
}

// Three latent reads see residue (one call each), the fourth a finger; then
// one acquisition for the frame loop.
TEST_F(LiveTest, LatentWaitEndsWhenTheGlassIsClean)
{
    Open(4, "flat,latent=3,latentcheck=1");
    m_pSensor->m_pVxd->SetLatentCapable(true);
    Scene("flat,latent=3,latentcheck=1");
    m_fnReply = [](size_t, const ISensor::tagCallbackInfo& info) { return info.nQuality >= 10 ? 6ul : 0ul; };
    EXPECT_EQ(Live(100), 0ul);
    size_t nLatentCalls = 0;
    while (nLatentCalls < m_vecCalls.size() && m_vecCalls[nLatentCalls].shown == Bytes(IMG_PIXELS, 7)) ++nLatentCalls;
    EXPECT_EQ(nLatentCalls, 3u);
    EXPECT_EQ(RequestsOf(0, VXD_REQ_START_ACQUISITION).size(), 5u);
    EXPECT_EQ(RequestsOf(0, VXD_REQ_STOP_ACQUISITION).size(), 5u);
    EXPECT_EQ(Reads(), 4 + (m_vecCalls.size() - 3));
}

// GetLiveImage uses threshold 20; neither it nor GetLiveImageEx marks: the marks
// of the extended form differ from them only at the corners.
TEST_F(LiveTest, FixedArgumentForms)
{
    Open(5, "place");
    EXPECT_EQ(Live(20, 60000, 1), 0ul);
    const std::vector<Call> vecMarked = m_vecCalls;
    for (const std::function<unsigned long()>& fn : std::vector<std::function<unsigned long()>>{
             [this] { return m_pSensor->GetLiveImage(m_image.data(), 60000, 1); },
             [this] { return m_pSensor->GetLiveImageEx(m_image.data(), 60000, 1, 20); }}) {
        Scene("place");
        EXPECT_EQ(fn(), 0ul);
        ASSERT_EQ(m_vecCalls.size(), vecMarked.size());
        EXPECT_GE(m_vecCalls.back().info.nQuality, 20u);
        EXPECT_LT(m_vecCalls[m_vecCalls.size() - 2].info.nQuality, 20u);
        size_t nCornerDiffs = 0;
        for (size_t i = 0; i < m_vecCalls.size(); ++i) {
            Bytes a = m_vecCalls[i].shown, b = vecMarked[i].shown;
            for (size_t nCorner : {0, 599, 599 * 600, 599 * 600 + 599}) {
                nCornerDiffs += a[nCorner] != b[nCorner];
                a[nCorner] = b[nCorner] = 0;
            }
            EXPECT_EQ(a, b) << i;
        }
        EXPECT_GT(nCornerDiffs, 0u);
    }
}

// GetImageForRoll reads one marked frame without acquisition requests and
// leaves the last status; a null image is 3.
TEST_F(LiveTest, ImageForRoll)
{
    Open(4, "flat");
    m_pSensor->m_nError = 53;
    EXPECT_EQ(m_pSensor->GetImageForRoll(nullptr, 0), 3ul);
    EXPECT_EQ(Reads(), 0u);
    EXPECT_EQ(m_pSensor->GetImageForRoll(m_image.data(), 0), 0ul);
    EXPECT_EQ(Reads(), 1u);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    EXPECT_EQ(GetLTWaterM(m_image.data(), 600, 600) + GetRBWaterM(m_image.data(), 600, 600), 2);
    EXPECT_EQ(m_pSensor->GetError(), 53ul);
}

}  // namespace
