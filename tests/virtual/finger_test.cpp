// Synthetic fingers of the virtual scanner: determinism, pattern classes,
// ridge flow and period, repeat impressions, and the optics of contact,
// pressure and residue.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "finger_math.h"
#include "finger_pattern.h"
#include "scene_compose.h"
#include "scene_model.h"
#include "golden_image.h"

namespace {

using namespace tavk05virt;

const int kSize = CFingerPattern::kSize;
const double kPi = 3.14159265358979323846;

// First seed from 1 on whose finger has the class.
uint32_t SeedOfClass(FingerClass eClass)
{
    for (uint32_t n = 1; n < 1000; ++n) {
        if (MakeGenome(n).eClass == eClass) return n;
    }
    return 0;
}

// Orientation difference folded into (-pi/2, pi/2].
double FoldHalfTurn(double f)
{
    while (f > kPi / 2) f -= kPi;
    while (f <= -kPi / 2) f += kPi;
    return f;
}

// Poincare index of the orientation field around a circle.
double PoincareIndex(const CFingerPattern& pattern, double cx, double cy, double fRadius)
{
    const int kSteps = 96;
    double fSum = 0.0;
    double fPrev = pattern.Orientation(cx + fRadius, cy);
    for (int k = 1; k <= kSteps; ++k) {
        const double a = 2.0 * kPi * k / kSteps;
        const double f = pattern.Orientation(cx + fRadius * std::cos(a), cy + fRadius * std::sin(a));
        fSum += FoldHalfTurn(f - fPrev);
        fPrev = f;
    }
    return fSum / (2.0 * kPi);
}

double DistanceToSingularPoint(const FingerGenome& g, double x, double y)
{
    double fBest = 1e9;
    for (int i = 0; i < g.nCores; ++i) fBest = std::min(fBest, std::hypot(x - g.aptCore[i].x, y - g.aptCore[i].y));
    for (int i = 0; i < g.nDeltas; ++i) fBest = std::min(fBest, std::hypot(x - g.aptDelta[i].x, y - g.aptDelta[i].y));
    return fBest;
}

// Normalised radius of a point in the finger's flat contact ellipse.
double FlatRadius(const FingerGenome& g, double x, double y)
{
    const double dx = x - g.ptContact.x;
    const double dy = y - g.ptContact.y;
    const double c = std::cos(g.fContactAngle);
    const double s = std::sin(g.fContactAngle);
    const double u = (dx * c + dy * s) / g.fContactA;
    const double v = (-dx * s + dy * c) / g.fContactB;
    return std::sqrt(u * u + v * v);
}

// The pixel nearest to (x, y), clamped to the image.
double At(const unsigned char* p, double x, double y)
{
    const int ix = std::min(std::max(static_cast<int>(x + 0.5), 0), kSize - 1);
    const int iy = std::min(std::max(static_cast<int>(y + 0.5), 0), kSize - 1);
    return p[iy * kSize + ix];
}

TEST(FingerPattern, SeedDecidesTheFingerAndItsClass)
{
    const std::unique_ptr<CFingerPattern> pA = CFingerPattern::Create(77);
    const std::unique_ptr<CFingerPattern> pB = CFingerPattern::Create(77);
    ASSERT_TRUE(pA && pB);
    EXPECT_TRUE(std::memcmp(pA->Ridge(), pB->Ridge(), kSize * kSize) == 0 &&
                std::memcmp(pA->Skin(), pB->Skin(), kSize * kSize) == 0 &&
                std::memcmp(&pA->Genome(), &pB->Genome(), sizeof(FingerGenome)) == 0);
    // The shared cache hands out one copy per seed.
    EXPECT_EQ(GetFingerPattern(77).get(), GetFingerPattern(77).get());

    int anClass[4] = {};
    for (uint32_t n = 0; n < 400; ++n) ++anClass[MakeGenome(n).eClass];
    // As in a population: loops about 65 %, whorls 30 %, arches 5 %.
    EXPECT_NEAR(260, anClass[kClassLeftLoop] + anClass[kClassRightLoop], 25);
    EXPECT_NEAR(120, anClass[kClassWhorl], 20);
    EXPECT_NEAR(20, anClass[kClassArch], 10);
    EXPECT_GT(anClass[kClassRightLoop], 100);

    // Different seeds of the same class still differ in most pixels.
    uint32_t nOther = SeedOfClass(kClassLeftLoop) + 1;
    while (MakeGenome(nOther).eClass != kClassLeftLoop) ++nOther;
    const unsigned char* pFirst = GetFingerPattern(SeedOfClass(kClassLeftLoop))->Ridge();
    const unsigned char* pSecond = GetFingerPattern(nOther)->Ridge();
    int nDiffer = 0;
    for (int i = 0; i < kSize * kSize; ++i) nDiffer += (pFirst[i] > 128) != (pSecond[i] > 128);
    EXPECT_GT(nDiffer, kSize * kSize / 3);
}

TEST(FingerPattern, SingularPointsMatchTheClass)
{
    for (int c = 0; c < 4; ++c) {
        const FingerClass eClass = static_cast<FingerClass>(c);
        const uint32_t nSeed = SeedOfClass(eClass);
        ASSERT_NE(0u, nSeed) << FingerClassName(eClass);
        const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(nSeed);
        const FingerGenome& g = p->Genome();
        SCOPED_TRACE(FingerClassName(eClass));
        const int nExpectCores = eClass == kClassWhorl ? 2 : (eClass == kClassArch ? 0 : 1);
        EXPECT_EQ(nExpectCores, g.nCores);
        EXPECT_EQ(nExpectCores, g.nDeltas);
        for (int i = 0; i < g.nCores; ++i) {
            EXPECT_NEAR(0.5, PoincareIndex(*p, g.aptCore[i].x, g.aptCore[i].y, 6.0), 1e-6);
        }
        for (int i = 0; i < g.nDeltas; ++i) {
            EXPECT_NEAR(-0.5, PoincareIndex(*p, g.aptDelta[i].x, g.aptDelta[i].y, 6.0), 1e-6);
        }
        // A left loop has its delta right of the core, a right loop left of it.
        if (g.nCores == 1) {
            EXPECT_EQ(eClass == kClassLeftLoop, g.aptDelta[0].x > g.aptCore[0].x);
        }
        // Away from singular points the flow has none.
        for (double y = 60.0; y < 560.0; y += 50.0) {
            for (double x = 60.0; x < 560.0; x += 50.0) {
                if (DistanceToSingularPoint(g, x, y) < 30.0) continue;
                EXPECT_NEAR(0.0, PoincareIndex(*p, x, y, 12.0), 1e-6) << x << ", " << y;
            }
        }
    }
}

TEST(FingerPattern, RidgePeriodIsTheFingersOwn)
{
    for (uint32_t nSeed : {3u, 10u, 17u}) {
        const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(nSeed);
        const FingerGenome& g = p->Genome();
        fmath::CRandom rng(nSeed + 1000);
        std::vector<double> vecPeriod;
        while (vecPeriod.size() < 300) {
            const double x = rng.Range(60.0, 540.0);
            const double y = rng.Range(60.0, 540.0);
            if (FlatRadius(g, x, y) > 0.85 || DistanceToSingularPoint(g, x, y) < 40.0) continue;
            // Walk 60 pixels across the ridges and count crossings of mid grey.
            const double fTheta = p->Orientation(x, y);
            const double nx = -std::sin(fTheta);
            const double ny = std::cos(fTheta);
            int nCrossings = 0;
            bool bAbove = At(p->Ridge(), x - 30 * nx, y - 30 * ny) > 128.0;
            for (double t = -29.75; t <= 30.0; t += 0.25) {
                const bool b = At(p->Ridge(), x + t * nx, y + t * ny) > 128.0;
                if (b != bAbove) ++nCrossings;
                bAbove = b;
            }
            if (nCrossings > 0) vecPeriod.push_back(2.0 * 60.0 / nCrossings);
        }
        std::sort(vecPeriod.begin(), vecPeriod.end());
        const double fMedian = vecPeriod[vecPeriod.size() / 2];
        EXPECT_NEAR(g.fPeriod, fMedian, 0.1 * g.fPeriod) << "seed " << nSeed;
        // Pores and forks may add a crossing here and there, but most
        // walks see a steady rhythm.
        EXPECT_GT(vecPeriod[vecPeriod.size() / 10], 0.7 * g.fPeriod) << "seed " << nSeed;
        EXPECT_LT(vecPeriod[vecPeriod.size() * 9 / 10], 1.3 * g.fPeriod) << "seed " << nSeed;
    }
}

// Grey statistics of the pixels whose flat-contact radius lies in [r0, r1):
// mean, and the shares of dark (below 90) and light (above 180) pixels.
struct Region {
    double fMean = 0.0, fDarkShare = 0.0, fLightShare = 0.0;
};

Region Measure(const FingerGenome& g, const unsigned char* pGlass, double r0, double r1)
{
    Region region;
    int nPixels = 0;
    for (int i = 0; i < kSize * kSize; ++i) {
        const double r = FlatRadius(g, i % kSize, i / kSize);
        if (r < r0 || r >= r1) continue;
        region.fMean += pGlass[i];
        region.fDarkShare += pGlass[i] < 90;
        region.fLightShare += pGlass[i] > 180;
        ++nPixels;
    }
    for (double* pf : {&region.fMean, &region.fDarkShare, &region.fLightShare}) *pf /= nPixels ? nPixels : 1;
    return region;
}

FingerPose PoseOf(SceneKind eKind, const FingerGenome& g, unsigned long nRead = 0)
{
    SceneConfig config;
    config.eKind = eKind;
    config.nSeed = g.nSeed;
    return PoseAt(config, g, nRead);
}

// The finger synthesis pinned: a flat finger on the glass, as a golden image
// (the driver's tests use a committed print, which this cannot move).
TEST(FingerOptics, FlatFingerOfSeed3)
{
    const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(3);
    std::vector<unsigned char> vecGlass(kSize * kSize);
    ComposeGlass(p.get(), PoseOf(kSceneFlat, p->Genome()), vecGlass.data());
    EXPECT_TRUE(goldentest::MatchesGolden(vecGlass, "finger-flat-seed-3", kSize, kSize));
}

TEST(FingerOptics, PressureAndSkinShapeThePrint)
{
    const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(5);
    const FingerGenome& g = p->Genome();
    // Grey of the middle of the contact: mean, and the shares of dark
    // (ridge) and bright (valley) pixels. Flat: about half and half; hard and
    // moist: nearly all dark; light and dry: pale and broken; a residue: a
    // faint print only, never near a ridge's grey.
    const struct {
        SceneKind eKind;
        double fMeanLow, fMeanHigh, fDarkLow, fDarkHigh, fLightLow, fLightHigh;
    } aCases[] = {
        {kSceneFlat, 90.0, 160.0, 0.3, 1.0, 0.25, 1.0},
        {kSceneDark, 0.0, 60.0, 0.5, 1.0, 0.0, 0.05},
        {kScenePale, 165.0, 232.0, 0.0, 0.05, 0.5, 1.0},
        {kSceneLatent, 190.0, 232.0, 0.0, 0.0, 0.5, 1.0},
    };
    std::vector<unsigned char> vecGlass(kSize * kSize);
    for (const auto& c : aCases) {
        SCOPED_TRACE(SceneKindName(c.eKind));
        ComposeGlass(p.get(), PoseOf(c.eKind, g), vecGlass.data());
        const Region centre = Measure(g, vecGlass.data(), 0.0, 0.45);
        EXPECT_TRUE(centre.fMean >= c.fMeanLow && centre.fMean <= c.fMeanHigh) << centre.fMean;
        EXPECT_TRUE(centre.fDarkShare >= c.fDarkLow && centre.fDarkShare <= c.fDarkHigh) << centre.fDarkShare;
        EXPECT_TRUE(centre.fLightShare >= c.fLightLow && centre.fLightShare <= c.fLightHigh) << centre.fLightShare;
        if (c.eKind != kSceneFlat) continue;
        // Nothing outside the contact; the pressure falls off towards the
        // rim: fainter ridges there.
        EXPECT_EQ(GlassLevels::kGlass, Measure(g, vecGlass.data(), 1.0, 100.0).fMean);
        const Region rim = Measure(g, vecGlass.data(), 0.88, 1.0);
        EXPECT_LT(GlassLevels::kGlass - rim.fMean, 0.35 * (GlassLevels::kGlass - centre.fMean));
        EXPECT_LT(rim.fDarkShare, centre.fDarkShare / 3);
    }
}

TEST(FingerOptics, RolledContactStaysBetweenTheNailEdges)
{
    const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(8);
    const FingerGenome& g = p->Genome();
    // At the start of a roll the strip reaches the finger's left outline.
    const FingerPose pose = PoseOf(kSceneRoll, g);
    ASSERT_TRUE(pose.bRolled);
    std::vector<unsigned char> vecGlass(kSize * kSize);
    ComposeGlass(p.get(), pose, vecGlass.data());
    std::vector<int> vecDark(kSize);  // dark (ridge) pixels of each column
    for (int y = 0; y < kSize; ++y) {
        for (int x = 0; x < kSize; ++x) {
            const double dx = (x - g.ptOutline.x) / g.fOutlineA;
            const double dy = (y - g.ptOutline.y) / g.fOutlineB;
            const unsigned char v = vecGlass[y * kSize + x];
            if (dx * dx + dy * dy >= 1.0) {
                ASSERT_EQ(GlassLevels::kGlass, v) << x << ", " << y;
            }
            vecDark[x] += v < 90;
        }
    }
    // Held on its side for the roll, the finger is pressed firmly across
    // nearly all of its strip, not just in the middle.
    const long nFirm = std::count_if(vecDark.begin(), vecDark.end(), [](int n) { return n > 40; });
    EXPECT_GT(nFirm, 1.5 * pose.fA);  // of its 2 fA columns
}

TEST(FingerImpression, EachImpressionLaysTheSkinAnew)
{
    const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(8);
    const FingerGenome& g = p->Genome();
    const FingerPose flat = PoseOf(kSceneFlat, g);
    EXPECT_FALSE(PlaceImpression(flat, g, 0).impression.bMoved);
    std::vector<unsigned char> vecFirst(kSize * kSize);
    std::vector<unsigned char> vecOther(kSize * kSize);
    ComposeGlass(p.get(), flat, vecFirst.data());
    for (unsigned long nNumber : {1ul, 2ul, 7ul}) {
        const FingerPose pose = PlaceImpression(flat, g, nNumber);
        const Impression& imp = pose.impression;
        ASSERT_TRUE(imp.bMoved);
        const Impression again = MakeImpression(g.nSeed, nNumber);
        EXPECT_TRUE(imp.fShiftY == again.fShiftY && imp.fTwist == again.fTwist && imp.fDragX == again.fDragX &&
                    imp.afWobble[1][2] == again.afWobble[1][2]);
        EXPECT_TRUE(std::fabs(flat.fCx + imp.fShiftX - pose.fCx) < 1e-9 &&
                    pose.fPressure == flat.fPressure * imp.fPressure);
        // The centre of the contact sticks: there the skin has only moved
        // with the finger, by the shift.
        double sx = 0.0;
        double sy = 0.0;
        SkinPoint(imp, pose.fTurnCx, pose.fTurnCy, pose.fDragA, pose.fDragB, pose.fDragAngle, pose.fCx, pose.fCy, &sx,
                  &sy);
        EXPECT_NEAR(flat.fCx, sx, 2.0 * imp.fWobble + 1e-9);
        EXPECT_NEAR(flat.fCy, sy, 2.0 * imp.fWobble + 1e-9);
        // The glass shows the pattern where the impression lays it: ridge
        // and valley agree with impression 0 (skin = glass) at the skin point.
        ComposeGlass(p.get(), pose, vecOther.data());
        int nAgree = 0;
        int nCount = 0;
        for (int dy = -60; dy <= 60; dy += 3) {
            for (int dx = -60; dx <= 60; dx += 3) {
                SkinPoint(imp, pose.fTurnCx, pose.fTurnCy, pose.fDragA, pose.fDragB, pose.fDragAngle, pose.fCx + dx,
                          pose.fCy + dy, &sx, &sy);
                const bool bRidge = At(vecOther.data(), pose.fCx + dx, pose.fCy + dy) < 128.0;
                nAgree += bRidge == (At(vecFirst.data(), sx, sy) < 128.0);
                ++nCount;
            }
        }
        EXPECT_GT(nAgree, nCount * 85 / 100) << "impression " << nNumber;
        EXPECT_NE(vecFirst, vecOther);
    }
}

}  // namespace
