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
#include <memory>
#include <string>
#include <vector>

#include "finger_pattern.h"
#include "scene_compose.h"
#include "scene_model.h"
#include "scene_source.h"
#include "tavk05/isproc.h"
#include "vscanner_render.h"

namespace {

using namespace tavk05virt;

const int kSize = 600;
const unsigned long kLatentBytes = tavk05profile::kMidFrameBytes;  // a 1288 x 876 frame read as latent image

// One image processor for the whole program: it builds 48 MB of tables.
CImageProc& Processor()
{
    static CImageProc s_proc;
    return s_proc;
}

FingerPose Pose(SceneKind eKind, uint32_t nSeed, unsigned long nRead)
{
    SceneConfig config;
    config.eKind = eKind;
    config.nSeed = nSeed;
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

TEST(SceneNames, NamesKeysAndTheirRanges)
{
    for (const char* pszName :
         {"empty", "flat", "latent", "dark", "pale", "place", "roll", "roll-left", "roll-fast", "lift"}) {
        SceneKind eKind;
        ASSERT_TRUE(ParseSceneKind(pszName, &eKind)) << pszName;
        EXPECT_STREQ(pszName, SceneKindName(eKind));
    }
    FingerSceneSettings settings;
    std::string strError;
    ASSERT_TRUE(ParseFingerScene("roll-left",
                                 {{"seed", "9"},
                                  {"latent", "4"},
                                  {"wait", "2"},
                                  {"seed", "4294967295"},
                                  {"latentcheck", "1"},
                                  {"impression", "4294967295"}},
                                 &settings, &strError))
        << strError;
    const SceneConfig& c = settings.config;
    EXPECT_TRUE(c.eKind == kSceneRollLeft && c.nSeed == 4294967295u && c.nResidueReads == 4u && c.nWaitReads == 2u &&
                settings.nLatentCheck == 1u && c.nImpression == 4294967295u && c.bImpressionFixed);
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
}

TEST(SceneLatent, ShortBufferGetsZerosOnly)
{
    const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(6);
    std::vector<unsigned char> vecGlass(kSize * kSize);
    const FingerPose pose = Pose(kSceneFlat, 6, 0);
    ComposeGlass(p.get(), pose, vecGlass.data());
    std::vector<unsigned char> vecShort(1000, 0xAA);
    ComposeLatent(p.get(), pose, vecGlass.data(), 7, vecShort.data(), vecShort.size());
    EXPECT_EQ(std::vector<unsigned char>(1000, 0), vecShort);
}

// Rolled composition over the finished images of a scene.
struct RollOutcome {
    int nResult = -1;   // the composition's result that ended the roll
    int nEndedAt = -1;  // read at which it ended
    int nDirection = 0;
    std::vector<int> vecRight;  // right edge after each accepted frame
    std::vector<int> vecLeft;
    int nCompositeWidth = 0;  // columns of the composite with ridges
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
        // The leading edge moves steadily, a few columns a frame, until it
        // meets the far nail edge; the trailing edge follows and never turns back.
        const std::vector<int>& vecLead = bRight ? roll.vecRight : roll.vecLeft;
        const std::vector<int>& vecTrail = bRight ? roll.vecLeft : roll.vecRight;
        const int nSign = bRight ? 1 : -1;
        ASSERT_GT(vecLead.size(), 20u);
        for (size_t i = 1; i < vecLead.size(); ++i) {
            EXPECT_GE(nSign * (vecLead[i] - vecLead[i - 1]), i + 2 < vecLead.size() ? 1 : 0) << i;
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

// A fast roll trips the speed test; a lift ends the roll half way.
TEST(SceneRoll, FastRollAndLiftEndItEarly)
{
    for (uint32_t nSeed : {3u, 11u}) {
        const RollOutcome roll = RunRoll(kSceneRollFast, nSeed);
        EXPECT_EQ(2, roll.nResult) << "seed " << nSeed;
        EXPECT_EQ(SceneTiming::kRollHold, roll.nEndedAt) << "seed " << nSeed;
    }
    const RollOutcome lift = RunRoll(kSceneLift, 3);
    const RollOutcome roll = RunRoll(kSceneRoll, 3);
    EXPECT_EQ(1, lift.nResult);
    EXPECT_EQ(SceneTiming::kRollHold + SceneTiming::kLiftAfter, lift.nEndedAt);
    ASSERT_FALSE(lift.vecRight.empty() || roll.vecRight.empty());
    EXPECT_LT(lift.vecRight.back(), roll.vecRight.back() - 80);
    EXPECT_LT(lift.nCompositeWidth, roll.nCompositeWidth);
}

// Reads of a finger source as a 1288 x 876 unit makes them.
class ReadScript {
public:
    ReadScript(const std::string& strScene, const std::vector<std::pair<std::string, std::string>>& vecKeys)
    {
        FingerSceneSettings settings;
        std::string strError;
        EXPECT_TRUE(ParseFingerScene(strScene, vecKeys, &settings, &strError)) << strError;
        m_pSource = MakeFingerSource(settings, &strError);
        EXPECT_TRUE(m_pSource) << strError;
        m_in.nDevType = 6;
        m_in.wBcdDevice = 0x1103;
        m_in.geometry = {tavk05profile::kMidWidth, tavk05profile::kMidHeight, kLatentBytes};
        m_vecFrame.resize(kLatentBytes);
    }

    // Plays the steps: '[' starts an acquisition, ']' stops it, '.' reads;
    // each read gives 'L' when it delivered a latent image (zeros after the
    // latent window, which a mosaic frame fills), 'F' for a frame.
    std::string Play(const std::string& strSteps)
    {
        std::string strReads;
        for (const char c : strSteps) {
            if (c == '[') {
                ++m_in.nAcquisition;
                m_in.nReadInAcquisition = 0;
            }
            m_in.bAcquiring = c == '[' ? true : c == ']' ? false : m_in.bAcquiring;
            if (c != '.') continue;
            m_pSource->FrameKey(m_in);
            m_pSource->Render(m_in, m_vecFrame.data());
            ++m_in.nFrame;
            ++m_in.nReadInAcquisition;
            const bool bLatent = std::all_of(m_vecFrame.begin() + kLatentWidth * kLatentHeight, m_vecFrame.end(),
                                             [](unsigned char v) { return v == 0; });
            strReads += bLatent ? 'L' : 'F';
        }
        return strReads;
    }

private:
    std::unique_ptr<CFrameSource> m_pSource;
    RenderInput m_in = {};
    std::vector<unsigned char> m_vecFrame;
};

// Single reads bracketed by an acquisition are what ReadLatent and ReadData
// of models 5..8 make.
TEST(SceneSource, LatentReadsFollowTheDriversOrder)
{
    // Latent reads until one sees a live finger (the residue stays for 2
    // reads), then the capture, one long acquisition of frames, then again;
    // reads outside an acquisition are never latent reads.
    EXPECT_EQ("LLLFLFFFLF",
              ReadScript("flat", {{"latent", "2"}, {"latentcheck", "1"}}).Play("[.][.][.][.][.][...][.]."));
    // Empty glass never passes: only the later reads of an acquisition are frames.
    EXPECT_EQ("LLLLF", ReadScript("empty", {{"latentcheck", "1"}}).Play("[.][.][.][..]"));
    // Check only: every acquisition begins with a latent read; without the key none.
    EXPECT_EQ("LLL", ReadScript("flat", {{"latentcheck", "2"}}).Play("[.][.][.]"));
    EXPECT_EQ("FFF", ReadScript("flat", {}).Play("[.][.][.]"));
}

TEST(SceneImage, UnusablePrintsAreRefusedByName)
{
    const std::string strDir = ::testing::TempDir() + "scene_image_" + std::to_string(getpid());
    const std::string strText = strDir + "/print.png";
    const std::string strEmpty = strDir + "/empty";
    ASSERT_TRUE(mkdir(strDir.c_str(), 0700) == 0 && mkdir(strEmpty.c_str(), 0700) == 0);
    std::FILE* pFile = std::fopen(strText.c_str(), "w");
    ASSERT_TRUE(pFile && std::fputs("not a picture", pFile) >= 0 && std::fclose(pFile) == 0);
    const std::pair<std::string, std::string> aCases[] = {
        {"image", strDir + "/missing.png"}, {"image", strText}, {"images", strEmpty}, {"images", strDir}};
    FingerSceneSettings settings;
    std::string strError;
    for (const auto& c : aCases) {
        ASSERT_TRUE(ParseFingerScene("flat", {c}, &settings, &strError)) << strError;
        EXPECT_FALSE(MakeFingerSource(settings, &strError)) << c.second;
        EXPECT_NE(std::string::npos, strError.find(strDir)) << strError;
    }
    EXPECT_FALSE(ParseFingerScene("flat", {{"image", ""}}, &settings, &strError));
    unlink(strText.c_str());
    rmdir(strEmpty.c_str());
    rmdir(strDir.c_str());
}

}  // namespace
