// Scenes of the virtual scanner against the driver's own image algorithms:
// the latent images pass or fail CImageProc::CheckLatent2 as a live finger,
// a residue and empty glass should, and the roll scenes drive
// CImageProc::ImageComposition the way a rolled finger does.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "finger_pattern.h"
#include "scene_compose.h"
#include "scene_model.h"
#include "scene_source.h"
#include "tavk05/isensor.h"
#include "tavk05/isproc.h"
#include "tavk05/virtual.h"
#include "tavk05/vxdinter.h"
#include "vscanner_render.h"

namespace {

using namespace tavk05virt;

const int kSize = 600;
const unsigned long kLatentBytes = 1128448;  // a 1288 x 876 frame read as latent image

// One image processor for the whole program: it builds 48 MB of tables.
CImageProc& Processor()
{
    static CImageProc s_proc;
    return s_proc;
}

FingerPose Pose(SceneKind eKind, uint32_t nSeed, unsigned long nRead, unsigned long nResidue = 0)
{
    SceneConfig config;
    config.eKind = eKind;
    config.nSeed = nSeed;
    config.nResidueReads = nResidue;
    const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(nSeed);
    return PoseAt(config, p->Genome(), nRead);
}

// CheckLatent2 of the latent image of a pose: 1 latent, 0 live.
int LatentVerdict(const FingerPose& pose, uint32_t nSeed, uint64_t nNoise)
{
    const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(nSeed);
    std::vector<unsigned char> vecGlass(kSize * kSize);
    ComposeGlass(p.get(), pose, vecGlass.data());
    std::vector<unsigned char> vecFrame(kLatentBytes, 0xAA);
    ComposeLatent(p.get(), pose, vecGlass.data(), nNoise, vecFrame.data(), vecFrame.size());
    std::vector<unsigned char> vecGrey(kLatentWidth * kLatentHeight + 200);
    Processor().RGBtoGRAY(vecFrame.data(), vecGrey.data(), kLatentWidth, kLatentHeight);
    return Processor().CheckLatent2(vecGrey.data());
}

TEST(SceneNames, ParseAndReject)
{
    for (const char* pszName : {"empty", "flat", "latent", "dark", "pale", "place", "roll", "roll-left", "roll-fast",
                                "lift"}) {
        SceneKind eKind;
        ASSERT_TRUE(ParseSceneKind(pszName, &eKind)) << pszName;
        EXPECT_STREQ(pszName, SceneKindName(eKind));
    }
    SceneKind eKind;
    EXPECT_FALSE(ParseSceneKind("Flat", &eKind));
    EXPECT_FALSE(IsFingerScene("pattern"));
}

TEST(SceneNames, KeysAndTheirRanges)
{
    std::string strError;
    EXPECT_TRUE(CheckFingerSceneKey("seed", "4294967295", &strError));
    EXPECT_FALSE(CheckFingerSceneKey("seed", "4294967296", &strError));
    EXPECT_NE(std::string::npos, strError.find("seed"));
    EXPECT_FALSE(CheckFingerSceneKey("seed", "-1", &strError));
    EXPECT_FALSE(CheckFingerSceneKey("wait", "3x", &strError));
    EXPECT_FALSE(CheckFingerSceneKey("latent", "", &strError));
    EXPECT_TRUE(CheckFingerSceneKey("latentcheck", "2", &strError));
    EXPECT_TRUE(CheckFingerSceneKey("impression", "4294967295", &strError));
    EXPECT_FALSE(CheckFingerSceneKey("latentcheck", "3", &strError));
    EXPECT_FALSE(CheckFingerSceneKey("colour", "1", &strError));
    EXPECT_FALSE(IsFingerSceneKey("scene"));

    FingerSceneSettings settings;
    ASSERT_TRUE(ParseFingerScene("roll-left", {{"seed", "9"}, {"latent", "4"}, {"wait", "2"}, {"seed", "12"},
                                               {"latentcheck", "1"}, {"impression", "5"}},
                                 &settings, &strError))
        << strError;
    EXPECT_EQ(kSceneRollLeft, settings.config.eKind);
    EXPECT_EQ(12u, settings.config.nSeed);
    EXPECT_EQ(4u, settings.config.nResidueReads);
    EXPECT_EQ(2u, settings.config.nWaitReads);
    EXPECT_EQ(1u, settings.nLatentCheck);
    EXPECT_EQ(5u, settings.config.nImpression);
    EXPECT_TRUE(settings.config.bImpressionFixed);
    EXPECT_FALSE(ParseFingerScene("rolling", {}, &settings, &strError));
    EXPECT_FALSE(ParseFingerScene("flat", {{"wait", "many"}}, &settings, &strError));
}

TEST(SceneLatent, LiveFingersPassResidueAndEmptyGlassFail)
{
    for (uint32_t nSeed : {1u, 10u, 17u}) {
        SCOPED_TRACE("seed " + std::to_string(nSeed));
        for (uint64_t nNoise = 0; nNoise < 3; ++nNoise) {
            EXPECT_EQ(0, LatentVerdict(Pose(kSceneFlat, nSeed, 0), nSeed, nNoise));
            EXPECT_EQ(0, LatentVerdict(Pose(kSceneDark, nSeed, 0), nSeed, nNoise));
            EXPECT_EQ(0, LatentVerdict(Pose(kScenePale, nSeed, 0), nSeed, nNoise));
            EXPECT_EQ(1, LatentVerdict(Pose(kSceneLatent, nSeed, 0), nSeed, nNoise));
            EXPECT_EQ(1, LatentVerdict(Pose(kSceneEmpty, nSeed, 0), nSeed, nNoise));
        }
    }
}

TEST(SceneLatent, VerdictFollowsTheFingerThroughTheLiveScenes)
{
    const uint32_t nSeed = 4;
    const SceneKind aeKinds[] = {kScenePlace, kSceneRoll, kSceneRollLeft, kSceneRollFast, kSceneLift};
    for (SceneKind eKind : aeKinds) {
        SCOPED_TRACE(SceneKindName(eKind));
        int nLive = 0;
        for (unsigned long t = 0; t < 50; t += t < 14 ? 1 : 3) {
            const FingerPose pose = Pose(eKind, nSeed, t);
            const int nExpect = IsLiveFinger(pose) ? 0 : 1;
            ASSERT_EQ(nExpect, LatentVerdict(pose, nSeed, t)) << "read " << t;
            nLive += 1 - nExpect;
        }
        EXPECT_GT(nLive, 1);
    }
    // The residue of latent=N stays for N reads, then the scene's finger.
    for (unsigned long t = 0; t < 6; ++t) {
        EXPECT_EQ(t < 3 ? 1 : 0, LatentVerdict(Pose(kSceneFlat, nSeed, t, 3), nSeed, t)) << "read " << t;
    }
}

TEST(SceneLatent, WindowAndTailOfTheLatentImage)
{
    const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(6);
    std::vector<unsigned char> vecGlass(kSize * kSize);
    const FingerPose pose = Pose(kSceneFlat, 6, 0);
    ComposeGlass(p.get(), pose, vecGlass.data());
    std::vector<unsigned char> vecFrame(kLatentBytes, 0xAA);
    ComposeLatent(p.get(), pose, vecGlass.data(), 7, vecFrame.data(), vecFrame.size());
    const size_t nWindow = kLatentWidth * kLatentHeight;
    EXPECT_TRUE(std::all_of(vecFrame.begin() + nWindow, vecFrame.end(), [](unsigned char v) { return v == 0; }));
    // Unlit rows stay near the dark level; lit rows are bright on the finger.
    int nLitMax = 0;
    int nUnlitMax = 0;
    for (int c = 80; c < 1134; ++c) {
        nLitMax = std::max<int>(nLitMax, vecFrame[154 * kLatentWidth + c]);
        nUnlitMax = std::max<int>(nUnlitMax, vecFrame[180 * kLatentWidth + c]);
    }
    EXPECT_GT(nLitMax, 100);
    EXPECT_LT(nUnlitMax, 40);
    // A buffer too short for the window gets zeros only.
    std::vector<unsigned char> vecShort(1000, 0xAA);
    ComposeLatent(p.get(), pose, vecGlass.data(), 7, vecShort.data(), vecShort.size());
    EXPECT_TRUE(std::all_of(vecShort.begin(), vecShort.end(), [](unsigned char v) { return v == 0; }));
}

// Rolled composition over the finished images of a scene.
struct RollOutcome {
    int nResult = -1;          // the composition's result that ended the roll
    int nEndedAt = -1;         // read at which it ended
    int nDirection = 0;
    std::vector<int> vecRight;  // right edge after each accepted frame
    std::vector<int> vecLeft;
    int nCompositeWidth = 0;   // columns of the composite with ridges
};

RollOutcome RunRoll(SceneKind eKind, uint32_t nSeed)
{
    CImageProc& proc = Processor();
    const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(nSeed);
    std::vector<unsigned char> vecFrame(kSize * kSize);
    // The live path subtracts the background: empty glass.
    ComposeGlass(nullptr, FingerPose(), proc.m_pBackground);
    proc.m_bContrastTable = 0;
    proc.m_nDeviceType = 4;
    std::vector<unsigned char> vecComposite(kSize * kSize, 255);
    RollOutcome outcome;
    SceneConfig config;
    config.eKind = eKind;
    config.nSeed = nSeed;
    EXPECT_EQ(0, proc.ImageComposition(vecFrame.data(), vecComposite.data(), kSize * kSize, 0, 1.0f));
    for (int t = 0; t < 80; ++t) {
        ComposeGlass(p.get(), PoseAt(config, p->Genome(), t), vecFrame.data());
        const int nLeft = proc.m_nRollLeft;
        const int nRight = proc.m_nRollRight;
        const int nResult = proc.ImageComposition(vecFrame.data(), vecComposite.data(), kSize * kSize, t + 1, 1.0f);
        if (nResult != 0) {
            outcome.nResult = nResult;
            outcome.nEndedAt = t;
            break;
        }
        outcome.nDirection = proc.m_nRollDirection;
        if (t == 0 || proc.m_nRollLeft != nLeft || proc.m_nRollRight != nRight) {
            outcome.vecLeft.push_back(proc.m_nRollLeft);
            outcome.vecRight.push_back(proc.m_nRollRight);
        }
    }
    int nFirst = kSize;
    int nLast = -1;
    for (int x = 0; x < kSize; ++x) {
        int nDark = 0;
        for (int y = 100; y < 500; ++y) nDark += vecComposite[y * kSize + x] < 100 ? 1 : 0;
        if (nDark > 40) {
            nFirst = std::min(nFirst, x);
            nLast = x;
        }
    }
    outcome.nCompositeWidth = nLast >= nFirst ? nLast - nFirst + 1 : 0;
    return outcome;
}

TEST(SceneRoll, RollsEitherWayAcrossTheGlass)
{
    const FingerGenome g = MakeGenome(3);
    for (const SceneKind eKind : {kSceneRoll, kSceneRollLeft}) {
        SCOPED_TRACE(SceneKindName(eKind));
        const RollOutcome roll = RunRoll(eKind, 3);
        const bool bRight = eKind == kSceneRoll;
        EXPECT_EQ(bRight ? 1 : 2, roll.nDirection);
        // The leading edge moves steadily, a few columns a frame; the
        // trailing edge follows and never turns back.
        const std::vector<int>& vecLead = bRight ? roll.vecRight : roll.vecLeft;
        const std::vector<int>& vecTrail = bRight ? roll.vecLeft : roll.vecRight;
        const int nSign = bRight ? 1 : -1;
        ASSERT_GT(vecLead.size(), 20u);
        for (size_t i = 1; i < vecLead.size(); ++i) {
            EXPECT_GE(nSign * (vecLead[i] - vecLead[i - 1]), 1) << i;
            EXPECT_LE(nSign * (vecLead[i] - vecLead[i - 1]), 16) << i;
            EXPECT_GE(nSign * (vecTrail[i] - vecTrail[i - 1]), 0) << i;
        }
        // Lifting the finger completes the rolled image, nail to nail: far
        // wider than a flat contact.
        EXPECT_EQ(1, roll.nResult);
        EXPECT_GE(roll.nEndedAt, SceneTiming::kRollHold + SceneTiming::kRollReads);
        EXPECT_GT(roll.nCompositeWidth, 1.5 * 2.0 * g.fContactA);
    }
}

TEST(SceneRoll, FastRollTripsTheSpeedTest)
{
    for (uint32_t nSeed : {3u, 11u}) {
        const RollOutcome roll = RunRoll(kSceneRollFast, nSeed);
        EXPECT_EQ(2, roll.nResult) << "seed " << nSeed;
        EXPECT_EQ(SceneTiming::kRollHold, roll.nEndedAt) << "seed " << nSeed;
    }
}

TEST(SceneRoll, LiftEndsTheRollHalfWay)
{
    const RollOutcome lift = RunRoll(kSceneLift, 3);
    const RollOutcome roll = RunRoll(kSceneRoll, 3);
    EXPECT_EQ(1, lift.nResult);
    EXPECT_EQ(SceneTiming::kRollHold + SceneTiming::kLiftAfter, lift.nEndedAt);
    ASSERT_FALSE(lift.vecRight.empty());
    ASSERT_FALSE(roll.vecRight.empty());
    EXPECT_LT(lift.vecRight.back(), roll.vecRight.back() - 80);
    EXPECT_LT(lift.nCompositeWidth, roll.nCompositeWidth);
}

// Reads of a finger source as a unit makes them.
class ReadScript {
public:
    explicit ReadScript(const std::string& strScene, const std::vector<std::pair<std::string, std::string>>& vecKeys)
    {
        FingerSceneSettings settings;
        std::string strError;
        EXPECT_TRUE(ParseFingerScene(strScene, vecKeys, &settings, &strError)) << strError;
        m_pSource = MakeFingerSource(settings, &strError);
        EXPECT_TRUE(m_pSource) << strError;
        m_in.nDevType = 6;
        m_in.wBcdDevice = 0x1103;
        m_in.geometry.nWidth = 1288;
        m_in.geometry.nHeight = 876;
        m_in.geometry.nFrameBytes = 1128448;
        m_vecFrame.resize(m_in.geometry.nFrameBytes);
    }

    void Start()
    {
        ++m_in.nAcquisition;
        m_in.nReadInAcquisition = 0;
        m_in.bAcquiring = true;
    }
    void Stop() { m_in.bAcquiring = false; }

    // One read; true when it delivered a latent image (the mosaic of a
    // 1288 x 876 frame reaches far beyond the latent window, which is
    // followed by zeros).
    bool ReadIsLatent()
    {
        m_pSource->FrameKey(m_in);
        m_pSource->Render(m_in, m_vecFrame.data());
        ++m_in.nFrame;
        ++m_in.nReadInAcquisition;
        const size_t nWindow = kLatentWidth * kLatentHeight;
        return std::all_of(m_vecFrame.begin() + nWindow, m_vecFrame.end(), [](unsigned char v) { return v == 0; });
    }

    // A bracketed single read, as ReadLatent and ReadData of models 5..8 make.
    bool SingleRead()
    {
        Start();
        const bool b = ReadIsLatent();
        Stop();
        return b;
    }

private:
    std::unique_ptr<CFrameSource> m_pSource;
    RenderInput m_in = {};
    std::vector<unsigned char> m_vecFrame;
};

TEST(SceneSource, LatentReadsFollowTheDriversOrder)
{
    // Capture with latent check: latent reads until one sees a live finger
    // (the residue stays for 2 reads), then the capture, then again.
    ReadScript capture("flat", {{"latent", "2"}, {"latentcheck", "1"}});
    EXPECT_TRUE(capture.SingleRead());
    EXPECT_TRUE(capture.SingleRead());
    EXPECT_TRUE(capture.SingleRead());
    EXPECT_FALSE(capture.SingleRead());
    EXPECT_TRUE(capture.SingleRead());
    // A live capture: the latent read passes, then one long acquisition of frames.
    capture.Start();
    EXPECT_FALSE(capture.ReadIsLatent());
    EXPECT_FALSE(capture.ReadIsLatent());
    EXPECT_FALSE(capture.ReadIsLatent());
    capture.Stop();
    EXPECT_TRUE(capture.SingleRead());
    // Reads outside an acquisition are never latent reads.
    EXPECT_FALSE(capture.ReadIsLatent());

    // Empty glass never passes: every acquisition stays a latent read, and
    // only its later reads are frames.
    ReadScript empty("empty", {{"latentcheck", "1"}});
    for (int i = 0; i < 4; ++i) EXPECT_TRUE(empty.SingleRead());
    empty.Start();
    EXPECT_TRUE(empty.ReadIsLatent());
    EXPECT_FALSE(empty.ReadIsLatent());
    empty.Stop();

    // Check only: every acquisition begins with a latent read.
    ReadScript check("flat", {{"latentcheck", "2"}});
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(check.SingleRead());
    // Without the key no read is a latent read.
    ReadScript plain("flat", {});
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(plain.SingleRead());
}

TEST(SceneSource, LatentCheckThroughTheDevice)
{
    struct Case {
        const char* pszUnit;
        int nExpect;
    };
    const Case aCases[] = {
        {"0:model=6,scene=flat,seed=21,latentcheck=2", 0},
        {"0:model=4,scene=dark,seed=21,latentcheck=2", 0},
        {"0:model=8,scene=latent,seed=21,latentcheck=2", 1},
        {"0:model=5,fw=0x3000,scene=empty,latentcheck=2", 1},
        {"0:model=7,fw=0x1005,scene=roll,seed=21,latentcheck=2", 0},
    };
    for (const Case& c : aCases) {
        SCOPED_TRACE(c.pszUnit);
        tavk05virt::DetachAll();
        std::string strError;
        ASSERT_TRUE(tavk05virt::Attach(c.pszUnit, &strError)) << strError;
        CVxdInterface vxd;
        ASSERT_EQ(0, vxd.OpenUSB(0));
        unsigned long nBytes = 926720;
        if (vxd.GetDevType() >= 5) nBytes = vxd.GetFirmwareVersion() >= 0x3000 ? 2304000 : 1128448;
        std::vector<unsigned char> vecFrame(CVxdInterface::TransferLength(nBytes));
        ASSERT_EQ(0, vxd.ReadLatent(vecFrame.data(), nBytes));
        std::vector<unsigned char> vecGrey(nBytes + 200);
        Processor().RGBtoGRAY(vecFrame.data(), vecGrey.data(), kLatentWidth, kLatentHeight);
        EXPECT_EQ(c.nExpect, Processor().CheckLatent2(vecGrey.data()));
        vxd.CloseUSB();
    }
    tavk05virt::DetachAll();
}

TEST(SceneSource, SceneKeysThroughTheUnitSyntax)
{
    std::string strError;
    EXPECT_FALSE(tavk05virt::Attach("0:scene=flat,seed=x", &strError));
    EXPECT_NE(std::string::npos, strError.find("seed"));
    EXPECT_FALSE(tavk05virt::Attach("0:scene=rolls", &strError));
    EXPECT_NE(std::string::npos, strError.find("roll-left"));
    EXPECT_FALSE(tavk05virt::Attach("0:latentcheck", &strError));
    EXPECT_TRUE(tavk05virt::Attach("0:scene=flat,seed=3,wait=2", &strError)) << strError;
    // A key given later keeps the scene and changes its setting.
    EXPECT_TRUE(tavk05virt::Inject(0, "latentcheck=2", &strError)) << strError;
    EXPECT_NE(std::string::npos, std::string(tavk05virt::Syntax()).find("latentcheck=M"));
    tavk05virt::DetachAll();
}

// The finished image GetImage delivers from unit 0.
std::vector<unsigned char> DriverImage()
{
    std::vector<unsigned char> vecImage(kSize * kSize, 255);
    ISensor* pSensor = nullptr;
    EXPECT_EQ(0, CreateISensor(nullptr, &pSensor));
    if (!pSensor) return vecImage;
    EXPECT_EQ(static_cast<unsigned long>(TAVK05_OK), pSensor->OpenDevice(0, 0));
    EXPECT_EQ(static_cast<unsigned long>(TAVK05_OK), pSensor->GetImage(vecImage.data()));
    DestroyISensor(pSensor);
    return vecImage;
}

TEST(SceneRender, DriverGivesTheSceneBackOnEveryGeometry)
{
    const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(7);
    std::vector<unsigned char> vecGlass(kSize * kSize);
    ComposeGlass(p.get(), Pose(kSceneFlat, 7, 0), vecGlass.data());
    // Every raw geometry and correction path the driver can meet: coordinate
    // tables (1280 x 676; 1288 x 876 with shading and stretch), interpolation
    // (1288 x 876; the padded 1800 x 1280), an unrecognised product.
    for (const char* pszUnit : {"0:model=4,", "0:model=5,", "0:model=6,", "0:model=8,fw=0x1005,", "0:model=7,",
                                "0:product=0x0630,"}) {
        SCOPED_TRACE(pszUnit);
        std::string strError;
        ASSERT_TRUE(tavk05virt::Attach(std::string(pszUnit) + "scene=flat,seed=7,impression=0", &strError)) << strError;
        const std::vector<unsigned char> vecImage = DriverImage();
        // Where the finger is, and how it looks, within a few grey levels
        // (vignetting and noise aside); ridges stay where the scene put them.
        double fAbs = 0.0, fX = 0.0, fY = 0.0, fXY = 0.0, fXX = 0.0, fYY = 0.0;
        int n = 0;
        for (int y = 20; y < kSize - 20; ++y) {
            for (int x = 20; x < kSize - 20; ++x) {
                const double a = vecGlass[y * kSize + x];
                const double b = vecImage[y * kSize + x];
                fAbs += std::abs(a - b), fX += a, fY += b, fXY += a * b, fXX += a * a, fYY += b * b;
                ++n;
            }
        }
        fX /= n, fY /= n;
        EXPECT_LT(fAbs / n, 12.0);
        EXPECT_GT((fXY / n - fX * fY) / std::sqrt((fXX / n - fX * fX) * (fYY / n - fY * fY)), 0.9);
    }
    tavk05virt::DetachAll();
}

TEST(SceneImage, UnusablePrintsAreRefusedByName)
{
    const std::string strDir = ::testing::TempDir() + "scene_image_" + std::to_string(getpid());
    ASSERT_EQ(0, mkdir(strDir.c_str(), 0700));
    const std::string strText = strDir + "/print.png";
    std::FILE* pFile = std::fopen(strText.c_str(), "w");
    ASSERT_TRUE(pFile);
    std::fputs("not a picture", pFile);
    std::fclose(pFile);
    const std::string strEmpty = strDir + "/empty";
    ASSERT_EQ(0, mkdir(strEmpty.c_str(), 0700));
    const struct {
        const char* pszKey;
        std::string strValue;
    } aCases[] = {{"image", strDir + "/missing.png"}, {"image", strText}, {"images", strEmpty}, {"images", strDir}};
    for (const auto& c : aCases) {
        FingerSceneSettings settings;
        std::string strError;
        ASSERT_TRUE(ParseFingerScene("flat", {{c.pszKey, c.strValue}}, &settings, &strError)) << strError;
        EXPECT_FALSE(MakeFingerSource(settings, &strError)) << c.strValue;
        EXPECT_NE(std::string::npos, strError.find(strDir)) << strError;
    }
    FingerSceneSettings settings;
    std::string strError;
    EXPECT_FALSE(ParseFingerScene("flat", {{"image", ""}}, &settings, &strError));
    unlink(strText.c_str());
    rmdir(strEmpty.c_str());
    rmdir(strDir.c_str());
}

}  // namespace
