// Synthetic fingers of the virtual scanner: determinism, pattern classes,
// ridge flow, ridge period, minutiae, and the optics of contact, pressure
// and residue.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <set>
#include <vector>

#include "finger_math.h"
#include "finger_pattern.h"
#include "scene_compose.h"
#include "scene_model.h"

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

double Bilinear(const unsigned char* p, double x, double y)
{
    const int ix = static_cast<int>(std::floor(x));
    const int iy = static_cast<int>(std::floor(y));
    const double fx = x - ix;
    const double fy = y - iy;
    auto at = [p](int xx, int yy) {
        xx = std::min(std::max(xx, 0), kSize - 1);
        yy = std::min(std::max(yy, 0), kSize - 1);
        return static_cast<double>(p[yy * kSize + xx]);
    };
    return (1 - fy) * ((1 - fx) * at(ix, iy) + fx * at(ix + 1, iy)) + fy * ((1 - fx) * at(ix, iy + 1) + fx * at(ix + 1, iy + 1));
}

// Zhang-Suen thinning of a binary image (1 = ridge), in place.
void Thin(std::vector<unsigned char>& vecImage, int w, int h)
{
    bool bChanged = true;
    std::vector<int> vecDelete;
    while (bChanged) {
        bChanged = false;
        for (int nPass = 0; nPass < 2; ++nPass) {
            vecDelete.clear();
            for (int y = 1; y < h - 1; ++y) {
                for (int x = 1; x < w - 1; ++x) {
                    if (!vecImage[y * w + x]) continue;
                    // Neighbours P2..P9 clockwise from north.
                    const int p[8] = {vecImage[(y - 1) * w + x],     vecImage[(y - 1) * w + x + 1],
                                      vecImage[y * w + x + 1],       vecImage[(y + 1) * w + x + 1],
                                      vecImage[(y + 1) * w + x],     vecImage[(y + 1) * w + x - 1],
                                      vecImage[y * w + x - 1],       vecImage[(y - 1) * w + x - 1]};
                    int nCount = 0;
                    int nTransitions = 0;
                    for (int k = 0; k < 8; ++k) {
                        nCount += p[k];
                        if (!p[k] && p[(k + 1) % 8]) ++nTransitions;
                    }
                    if (nCount < 2 || nCount > 6 || nTransitions != 1) continue;
                    if (nPass == 0 && ((p[0] && p[2] && p[4]) || (p[2] && p[4] && p[6]))) continue;
                    if (nPass == 1 && ((p[0] && p[2] && p[6]) || (p[0] && p[4] && p[6]))) continue;
                    vecDelete.push_back(y * w + x);
                }
            }
            for (int i : vecDelete) vecImage[i] = 0;
            if (!vecDelete.empty()) bChanged = true;
        }
    }
}

TEST(FingerMath, PortableFunctionsMatchTheLibrary)
{
    for (double x = -60.0; x <= 60.0; x += 0.37) {
        EXPECT_NEAR(fmath::Exp(x) / std::exp(x), 1.0, 1e-12) << x;
    }
    for (double x = -40.0; x <= 40.0; x += 0.031) {
        EXPECT_NEAR(fmath::Cos(x), std::cos(x), 1e-12) << x;
        EXPECT_NEAR(fmath::Sin(x), std::sin(x), 1e-12) << x;
    }
    for (double y = -3.0; y <= 3.0; y += 0.25) {
        for (double x = -3.0; x <= 3.0; x += 0.25) {
            if (x == 0.0 && y == 0.0) continue;
            EXPECT_NEAR(fmath::Atan2(y, x), std::atan2(y, x), 1e-9) << y << ", " << x;
        }
    }
    EXPECT_EQ(0.0, fmath::Exp(-800.0));
}

TEST(FingerMath, RandomSequenceDependsOnSeedOnly)
{
    fmath::CRandom a(42);
    fmath::CRandom b(42);
    fmath::CRandom c(43);
    int nDiffer = 0;
    for (int i = 0; i < 100; ++i) {
        const uint64_t n = a.Next();
        EXPECT_EQ(n, b.Next());
        if (n != c.Next()) ++nDiffer;
    }
    EXPECT_EQ(100, nDiffer);
    double fSum = 0.0;
    double fSquares = 0.0;
    for (int i = 0; i < 20000; ++i) {
        const double f = a.Gauss();
        fSum += f;
        fSquares += f * f;
    }
    EXPECT_NEAR(fSum / 20000, 0.0, 0.05);
    EXPECT_NEAR(fSquares / 20000, 1.0, 0.05);
}

TEST(FingerPattern, SameSeedGrowsTheSameFinger)
{
    const std::unique_ptr<CFingerPattern> pA = CFingerPattern::Create(77);
    const std::unique_ptr<CFingerPattern> pB = CFingerPattern::Create(77);
    ASSERT_TRUE(pA && pB);
    EXPECT_EQ(0, std::memcmp(pA->Ridge(), pB->Ridge(), kSize * kSize));
    EXPECT_EQ(0, std::memcmp(pA->Skin(), pB->Skin(), kSize * kSize));
    EXPECT_EQ(0, std::memcmp(&pA->Genome(), &pB->Genome(), sizeof(FingerGenome)));
    // The shared cache hands out one copy per seed.
    EXPECT_EQ(GetFingerPattern(77).get(), GetFingerPattern(77).get());
}

TEST(FingerPattern, SeedsChooseDifferentFingersAndClasses)
{
    int anClass[4] = {};
    for (uint32_t n = 0; n < 400; ++n) ++anClass[MakeGenome(n).eClass];
    // Every class occurs; loops and whorls are common, arches rare.
    EXPECT_GT(anClass[kClassLeftLoop], 80);
    EXPECT_GT(anClass[kClassRightLoop], 80);
    EXPECT_GT(anClass[kClassWhorl], 60);
    EXPECT_GT(anClass[kClassArch], 15);
    EXPECT_LT(anClass[kClassArch], anClass[kClassWhorl]);

    // Different seeds of the same class still differ in most pixels.
    std::vector<uint32_t> vecSeeds;
    for (uint32_t n = 1; vecSeeds.size() < 2; ++n) {
        if (MakeGenome(n).eClass == kClassLeftLoop) vecSeeds.push_back(n);
    }
    const std::shared_ptr<const CFingerPattern> pA = GetFingerPattern(vecSeeds[0]);
    const std::shared_ptr<const CFingerPattern> pB = GetFingerPattern(vecSeeds[1]);
    ASSERT_TRUE(pA && pB);
    int nDiffer = 0;
    for (int i = 0; i < kSize * kSize; ++i) {
        if ((pA->Ridge()[i] > 128) != (pB->Ridge()[i] > 128)) ++nDiffer;
    }
    EXPECT_GT(nDiffer, kSize * kSize / 3);
}

TEST(FingerPattern, SingularPointsMatchTheClass)
{
    for (int c = 0; c < 4; ++c) {
        const FingerClass eClass = static_cast<FingerClass>(c);
        const uint32_t nSeed = SeedOfClass(eClass);
        ASSERT_NE(0u, nSeed) << FingerClassName(eClass);
        const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(nSeed);
        ASSERT_TRUE(p);
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
        if (eClass == kClassLeftLoop) {
            EXPECT_GT(g.aptDelta[0].x, g.aptCore[0].x);
        }
        if (eClass == kClassRightLoop) {
            EXPECT_LT(g.aptDelta[0].x, g.aptCore[0].x);
        }
        if (eClass == kClassWhorl) {
            // Both cores together turn the flow by a full turn.
            const double cx = (g.aptCore[0].x + g.aptCore[1].x) / 2;
            const double cy = (g.aptCore[0].y + g.aptCore[1].y) / 2;
            EXPECT_NEAR(1.0, PoincareIndex(*p, cx, cy, 45.0), 1e-6);
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

TEST(FingerPattern, RidgesFollowTheOrientationField)
{
    for (uint32_t nSeed : {SeedOfClass(kClassLeftLoop), SeedOfClass(kClassWhorl), SeedOfClass(kClassArch)}) {
        const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(nSeed);
        ASSERT_TRUE(p);
        const FingerGenome& g = p->Genome();
        const unsigned char* pRidge = p->Ridge();
        fmath::CRandom rng(nSeed);
        int nTried = 0;
        int nAligned = 0;
        while (nTried < 200) {
            const int x = 20 + static_cast<int>(rng.Below(kSize - 40));
            const int y = 20 + static_cast<int>(rng.Below(kSize - 40));
            if (FlatRadius(g, x, y) > 0.9 || DistanceToSingularPoint(g, x, y) < 30.0) continue;
            ++nTried;
            // Structure tensor of the ridge image over a 17 x 17 window.
            double fXX = 0.0;
            double fYY = 0.0;
            double fXY = 0.0;
            for (int dy = -8; dy <= 8; ++dy) {
                for (int dx = -8; dx <= 8; ++dx) {
                    const int i = (y + dy) * kSize + x + dx;
                    const double gx = pRidge[i + 1] - pRidge[i - 1];
                    const double gy = pRidge[i + kSize] - pRidge[i - kSize];
                    fXX += gx * gx;
                    fYY += gy * gy;
                    fXY += gx * gy;
                }
            }
            // Ridges run across the dominant gradient.
            const double fRidge = 0.5 * std::atan2(2.0 * fXY, fXX - fYY) + kPi / 2;
            if (std::fabs(FoldHalfTurn(fRidge - p->Orientation(x, y))) < 12.0 * kPi / 180.0) ++nAligned;
        }
        EXPECT_GE(nAligned, 180) << "seed " << nSeed;
    }
}

TEST(FingerPattern, RidgePeriodIsAboutNinePixels)
{
    for (uint32_t nSeed : {3u, 10u, 17u}) {
        const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(nSeed);
        ASSERT_TRUE(p);
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
            bool bAbove = Bilinear(p->Ridge(), x - 30 * nx, y - 30 * ny) > 128.0;
            for (double t = -29.75; t <= 30.0; t += 0.25) {
                const bool b = Bilinear(p->Ridge(), x + t * nx, y + t * ny) > 128.0;
                if (b != bAbove) ++nCrossings;
                bAbove = b;
            }
            if (nCrossings > 0) vecPeriod.push_back(2.0 * 60.0 / nCrossings);
        }
        std::sort(vecPeriod.begin(), vecPeriod.end());
        const double fMedian = vecPeriod[vecPeriod.size() / 2];
        EXPECT_GT(fMedian, 8.2) << "seed " << nSeed;
        EXPECT_LT(fMedian, 9.8) << "seed " << nSeed;
        // Pores and forks may add a crossing here and there, but most
        // walks see a steady rhythm.
        EXPECT_GT(vecPeriod[vecPeriod.size() / 10], 6.5) << "seed " << nSeed;
        EXPECT_LT(vecPeriod[vecPeriod.size() * 9 / 10], 11.5) << "seed " << nSeed;
    }
}

TEST(FingerPattern, RidgesEndAndFork)
{
    for (uint32_t nSeed : {2u, 10u, 17u}) {
        const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(nSeed);
        ASSERT_TRUE(p);
        // Ridge skeleton of the middle 320 x 320 pixels.
        const int kWin = 320;
        const int kOrigin = (kSize - kWin) / 2;
        std::vector<unsigned char> vecBinary(kWin * kWin);
        for (int y = 0; y < kWin; ++y) {
            for (int x = 0; x < kWin; ++x) {
                vecBinary[y * kWin + x] = p->Ridge()[(y + kOrigin) * kSize + x + kOrigin] > 100 ? 1 : 0;
            }
        }
        Thin(vecBinary, kWin, kWin);
        int nEndings = 0;
        int nForks = 0;
        for (int y = 10; y < kWin - 10; ++y) {
            for (int x = 10; x < kWin - 10; ++x) {
                if (!vecBinary[y * kWin + x]) continue;
                const int aN[8] = {vecBinary[(y - 1) * kWin + x],     vecBinary[(y - 1) * kWin + x + 1],
                                   vecBinary[y * kWin + x + 1],       vecBinary[(y + 1) * kWin + x + 1],
                                   vecBinary[(y + 1) * kWin + x],     vecBinary[(y + 1) * kWin + x - 1],
                                   vecBinary[y * kWin + x - 1],       vecBinary[(y - 1) * kWin + x - 1]};
                int nCrossing = 0;
                for (int k = 0; k < 8; ++k) nCrossing += std::abs(aN[k] - aN[(k + 1) % 8]);
                nCrossing /= 2;
                if (nCrossing == 1) ++nEndings;
                if (nCrossing == 3) ++nForks;
            }
        }
        // A real finger shows a few dozen minutiae in such an area; a
        // pattern of unbroken parallel lines shows none, noise hundreds.
        EXPECT_GE(nEndings, 8) << "seed " << nSeed;
        EXPECT_GE(nForks, 4) << "seed " << nSeed;
        EXPECT_LE(nEndings + nForks, 400) << "seed " << nSeed;
    }
}

// Optics.

struct Region {
    double fMean = 0.0;
    double fDarkShare = 0.0;   // share of pixels below 90
    double fLightShare = 0.0;  // share of pixels above 180
    int nPixels = 0;
};

// Grey statistics of the pixels whose flat-contact radius lies in [r0, r1).
Region Measure(const FingerGenome& g, const unsigned char* pGlass, double r0, double r1)
{
    Region region;
    for (int y = 0; y < kSize; ++y) {
        for (int x = 0; x < kSize; ++x) {
            const double r = FlatRadius(g, x, y);
            if (r < r0 || r >= r1) continue;
            const int v = pGlass[y * kSize + x];
            region.fMean += v;
            if (v < 90) region.fDarkShare += 1;
            if (v > 180) region.fLightShare += 1;
            ++region.nPixels;
        }
    }
    if (region.nPixels) {
        region.fMean /= region.nPixels;
        region.fDarkShare /= region.nPixels;
        region.fLightShare /= region.nPixels;
    }
    return region;
}

FingerPose PoseOf(SceneKind eKind, const FingerGenome& g, unsigned long nRead = 0)
{
    SceneConfig config;
    config.eKind = eKind;
    config.nSeed = g.nSeed;
    return PoseAt(config, g, nRead);
}

TEST(FingerOptics, EmptyGlassIsBrightAndEven)
{
    std::vector<unsigned char> vecGlass(kSize * kSize, 0);
    ComposeGlass(nullptr, FingerPose(), vecGlass.data());
    for (unsigned char v : vecGlass) ASSERT_EQ(GlassLevels::kGlass, v);
    // A finger pose without a pattern to draw is empty glass as well.
    const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(5);
    ASSERT_TRUE(p);
    std::fill(vecGlass.begin(), vecGlass.end(), 0);
    ComposeGlass(p.get(), PoseOf(kSceneEmpty, p->Genome()), vecGlass.data());
    for (unsigned char v : vecGlass) ASSERT_EQ(GlassLevels::kGlass, v);
}

TEST(FingerOptics, FlatFingerTouchesInsideItsEllipse)
{
    const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(5);
    ASSERT_TRUE(p);
    const FingerGenome& g = p->Genome();
    std::vector<unsigned char> vecGlass(kSize * kSize);
    ComposeGlass(p.get(), PoseOf(kSceneFlat, g), vecGlass.data());
    // Nothing outside the contact.
    const Region outside = Measure(g, vecGlass.data(), 1.0, 100.0);
    EXPECT_GT(outside.nPixels, 100000);
    EXPECT_EQ(GlassLevels::kGlass, outside.fMean);
    // Inside: dark ridges and bright valleys, about half and half.
    const Region centre = Measure(g, vecGlass.data(), 0.0, 0.4);
    EXPECT_GT(centre.fDarkShare, 0.3);
    EXPECT_GT(centre.fLightShare, 0.25);
    EXPECT_GT(centre.fMean, 90.0);
    EXPECT_LT(centre.fMean, 160.0);
    // The pressure falls off towards the rim: fainter ridges there.
    const Region rim = Measure(g, vecGlass.data(), 0.88, 1.0);
    EXPECT_LT(GlassLevels::kGlass - rim.fMean, 0.35 * (GlassLevels::kGlass - centre.fMean));
    EXPECT_LT(rim.fDarkShare, centre.fDarkShare / 3);
}

TEST(FingerOptics, PressureAndSkinChangeThePrint)
{
    const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(5);
    ASSERT_TRUE(p);
    const FingerGenome& g = p->Genome();
    std::vector<unsigned char> vecFlat(kSize * kSize);
    std::vector<unsigned char> vecDark(kSize * kSize);
    std::vector<unsigned char> vecPale(kSize * kSize);
    ComposeGlass(p.get(), PoseOf(kSceneFlat, g), vecFlat.data());
    ComposeGlass(p.get(), PoseOf(kSceneDark, g), vecDark.data());
    ComposeGlass(p.get(), PoseOf(kScenePale, g), vecPale.data());
    const Region flat = Measure(g, vecFlat.data(), 0.0, 0.5);
    const Region dark = Measure(g, vecDark.data(), 0.0, 0.5);
    const Region pale = Measure(g, vecPale.data(), 0.0, 0.5);
    // Hard and moist: nearly all dark, hardly a bright valley left.
    EXPECT_LT(dark.fMean, 60.0);
    EXPECT_LT(dark.fLightShare, 0.05);
    // Light and dry: pale, few dark pixels, mostly bright.
    EXPECT_GT(pale.fMean, 165.0);
    EXPECT_LT(pale.fDarkShare, 0.05);
    EXPECT_GT(pale.fLightShare, 0.5);
    EXPECT_LT(dark.fMean, flat.fMean);
    EXPECT_LT(flat.fMean, pale.fMean);
}

TEST(FingerOptics, ResidueIsAFaintPrint)
{
    const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(5);
    ASSERT_TRUE(p);
    std::vector<unsigned char> vecGlass(kSize * kSize);
    ComposeGlass(p.get(), PoseOf(kSceneLatent, p->Genome()), vecGlass.data());
    const int nLowest = *std::min_element(vecGlass.begin(), vecGlass.end());
    EXPECT_GE(nLowest, GlassLevels::kGlass - 0.2 * (GlassLevels::kGlass - GlassLevels::kRidge));
    const long nMarked = std::count_if(vecGlass.begin(), vecGlass.end(),
                                       [](unsigned char v) { return v < GlassLevels::kGlass - 15; });
    EXPECT_GT(nMarked, 5000);
}

TEST(FingerOptics, RolledContactStaysBetweenTheNailEdges)
{
    const std::shared_ptr<const CFingerPattern> p = GetFingerPattern(8);
    ASSERT_TRUE(p);
    const FingerGenome& g = p->Genome();
    // At the start of a roll the strip reaches the finger's left outline.
    const FingerPose pose = PoseOf(kSceneRoll, g);
    ASSERT_TRUE(pose.bRolled);
    std::vector<unsigned char> vecGlass(kSize * kSize);
    ComposeGlass(p.get(), pose, vecGlass.data());
    long nInside = 0;
    for (int y = 0; y < kSize; ++y) {
        for (int x = 0; x < kSize; ++x) {
            const double dx = (x - g.ptOutline.x) / g.fOutlineA;
            const double dy = (y - g.ptOutline.y) / g.fOutlineB;
            const unsigned char v = vecGlass[y * kSize + x];
            if (dx * dx + dy * dy >= 1.0) {
                ASSERT_EQ(GlassLevels::kGlass, v) << x << ", " << y;
            } else if (v < 90) {
                ++nInside;
            }
        }
    }
    EXPECT_GT(nInside, 10000);
}

}  // namespace
