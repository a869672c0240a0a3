// Ridge pattern synthesis of the virtual scanner's fingers (see finger_pattern.h).
#include "finger_pattern.h"

#include <cmath>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "finger_math.h"

namespace tavk05virt {

namespace {

using fmath::CRandom;
using fmath::kPi;

// Growth grid: half the finished-image resolution, so a ridge period is
// about 4.5 cells. The pattern is brought to full resolution by bicubic
// interpolation of the last, unclipped filter response, which is smooth.
const int kHalf = CFingerPattern::kSize / 2;
const int kRadius = 4;  // Gabor kernel radius in cells
const int kTaps = 2 * kRadius + 1;
const int kOrientations = 24;  // 7.5 degree steps
const int kPeriods = 5;        // 0.88 to 1.12 times the mean in steps of 0.06
const double kPeriodStep = 0.06;
const int kIterations = 18;
const float kGrowthGain = 2.2f;

// Catmull-Rom weights for a fraction t in [0, 1).
void CubicWeights(double t, double* pfW)
{
    const double t2 = t * t;
    const double t3 = t2 * t;
    pfW[0] = 0.5 * (-t3 + 2.0 * t2 - t);
    pfW[1] = 0.5 * (3.0 * t3 - 5.0 * t2 + 2.0);
    pfW[2] = 0.5 * (-3.0 * t3 + 4.0 * t2 + t);
    pfW[3] = 0.5 * (t3 - t2);
}

unsigned char ToByte(double f)
{
    if (f <= 0.0) return 0;
    if (f >= 255.0) return 255;
    return static_cast<unsigned char>(f + 0.5);
}

// pField (kHalf x kHalf) divided by the square root of its local mean
// square; pScratch holds at least 2 kHalf^2 floats.
void NormaliseAmplitude(float* pField, float* pScratch)
{
    const int kBox = 3;  // box radius in cells, applied twice
    float* pSquare = pScratch;
    float* pTemp = pScratch + kHalf * kHalf;
    for (int i = 0; i < kHalf * kHalf; ++i) pSquare[i] = pField[i] * pField[i];
    for (int nPass = 0; nPass < 2; ++nPass) {
        // Rows, then columns, each a running box mean with clamped borders.
        for (int j = 0; j < kHalf; ++j) {
            const float* pRow = pSquare + j * kHalf;
            for (int i = 0; i < kHalf; ++i) {
                float fSum = 0.0f;
                for (int d = -kBox; d <= kBox; ++d) fSum += pRow[fmath::Clamp(i + d, 0, kHalf - 1)];
                pTemp[j * kHalf + i] = fSum / (2 * kBox + 1);
            }
        }
        for (int j = 0; j < kHalf; ++j) {
            for (int i = 0; i < kHalf; ++i) {
                float fSum = 0.0f;
                for (int d = -kBox; d <= kBox; ++d) fSum += pTemp[fmath::Clamp(j + d, 0, kHalf - 1) * kHalf + i];
                pSquare[j * kHalf + i] = fSum / (2 * kBox + 1);
            }
        }
    }
    for (int i = 0; i < kHalf * kHalf; ++i) {
        // A full-contrast sine has mean square 1/2.
        pField[i] = static_cast<float>(pField[i] / std::sqrt(2.0 * pSquare[i] + 1e-4));
    }
}

// Half the angle at which pole p sees (x, y), continuous everywhere but on
// the ray from p in direction (fCutX, fCutY) (a unit vector), where it jumps
// by pi.
double HalfAngle(const FingerPoint& p, double fCutX, double fCutY, double x, double y)
{
    // The point turned so that the cut direction points along -x, where
    // atan2 has its own cut; then turned back.
    const double dx = x - p.x;
    const double dy = y - p.y;
    const double u = -(dx * fCutX + dy * fCutY);
    const double v = -(dy * fCutX - dx * fCutY);
    const double fCut = fmath::Atan2(fCutY, fCutX);
    return 0.5 * (fmath::Atan2(v, u) + fCut + (fCut > 0.0 ? -kPi : kPi));
}

// How unevenly a loop's core turns the flow around itself: the plain half
// angle spreads the turn evenly over every direction, while the ridges of a
// loop turn over its head and its limbs run side by side along its axis. The
// term is periodic in the direction (so the field stays continuous and the
// core keeps its index), makes the half angle grow at the rate
// 1/2 - fAmount * cos(phi - fAxis) around the point (slowest toward fAxis),
// and fades over a dozen ridges so that far away the flow is the plain
// model's.
double Shape(const FingerPoint& p, double fAmount, double fAxis, double x, double y)
{
    if (fAmount == 0.0) return 0.0;
    const double dx = x - p.x;
    const double dy = y - p.y;
    const double fRange = 120.0;
    const double fFade = 1.0 / (1.0 + (dx * dx + dy * dy) / (fRange * fRange));
    return -fAmount * fmath::Sin(fmath::Atan2(dy, dx) - fAxis) * fFade;
}

// Zero-pole model: each core turns the flow by half a turn around it, each
// delta by half a turn the other way. Core i and delta i are a pair whose
// cuts both run from the core through the delta and on: beyond the delta
// the two jumps cancel, so the sum is continuous except between the core and
// its delta, where it jumps by pi (the same orientation).
double PoleAngle(const FingerGenome& g, double x, double y)
{
    double fSum = 0.0;
    for (int i = 0; i < g.nCores; ++i) {
        const FingerPoint& c = g.aptCore[i];
        const FingerPoint& d = g.aptDelta[i < g.nDeltas ? i : 0];
        const double fLength = std::sqrt((d.x - c.x) * (d.x - c.x) + (d.y - c.y) * (d.y - c.y)) + 1e-9;
        const double ux = (d.x - c.x) / fLength;
        const double uy = (d.y - c.y) / fLength;
        fSum += HalfAngle(c, ux, uy, x, y) + Shape(c, g.fCoreShape, g.fLoopAxis, x, y);
        if (i < g.nDeltas) fSum -= HalfAngle(d, ux, uy, x, y);
    }
    return fSum;
}

// Distance of (x, y) from the pattern area: the segments from each core to
// its delta.
double PatternDistance(const FingerGenome& g, double x, double y)
{
    double fBest = 1e9;
    for (int i = 0; i < g.nCores && i < g.nDeltas; ++i) {
        const FingerPoint& c = g.aptCore[i];
        const FingerPoint& d = g.aptDelta[i];
        const double ex = d.x - c.x;
        const double ey = d.y - c.y;
        const double t = fmath::Clamp(((x - c.x) * ex + (y - c.y) * ey) / (ex * ex + ey * ey + 1e-9), 0.0, 1.0);
        const double dx = x - (c.x + t * ex);
        const double dy = y - (c.y + t * ey);
        const double f = std::sqrt(dx * dx + dy * dy);
        if (f < fBest) fBest = f;
    }
    return fBest;
}

}  // namespace

const char* FingerClassName(FingerClass eClass)
{
    switch (eClass) {
        case kClassLeftLoop:
            return "left loop";
        case kClassRightLoop:
            return "right loop";
        case kClassWhorl:
            return "whorl";
        case kClassArch:
            return "arch";
    }
    return "?";
}

FingerGenome MakeGenome(uint32_t nSeed)
{
    CRandom rng(fmath::Hash(nSeed, 0x66696E676572ULL));
    FingerGenome g;
    std::memset(&g, 0, sizeof g);
    g.nSeed = nSeed;
    // Frequencies as in a population: loops about 65 %, whorls 30 %, arches 5 %.
    const uint32_t nDraw = rng.Below(100);
    g.eClass = nDraw < 33 ? kClassLeftLoop : nDraw < 65 ? kClassRightLoop : nDraw < 95 ? kClassWhorl : kClassArch;

    // People differ in where the pattern sits on the pad and how it slants,
    // how fine the ridges are (0.40 to 0.53 mm) and how evenly, how the flow
    // bends toward the tip, and how often ridges end or fork.
    const FingerPoint ptCore = {300.0 + rng.Range(-55.0, 55.0), 265.0 + rng.Range(-50.0, 50.0)};
    g.fTilt = rng.Range(-0.3, 0.3);
    g.fPeriod = rng.Range(7.9, 10.5);
    g.fPeriodSwing = rng.Range(0.02, 0.045);
    g.fPeriodToTip = rng.Range(-0.06, 0.01);
    g.fRidgeReach = rng.Range(0.45, 0.7);
    g.fTipCentreY = rng.Range(380.0, 520.0);
    g.fTipBend = rng.Range(1.0, 1.6);
    g.fPatternInner = rng.Range(70.0, 120.0);
    g.fPatternOuter = g.fPatternInner + rng.Range(90.0, 170.0);
    g.fArchHeight = rng.Range(35.0, 95.0);
    g.fArchWidth = rng.Range(70.0, 130.0);

    switch (g.eClass) {
        case kClassLeftLoop:
        case kClassRightLoop: {
            // The delta lies 6 to 17 ridges from the core, below and to the side.
            const double fSide = g.eClass == kClassLeftLoop ? 1.0 : -1.0;
            g.nCores = 1;
            g.aptCore[0] = ptCore;
            g.nDeltas = 1;
            g.aptDelta[0].x = ptCore.x + fSide * rng.Range(55.0, 175.0);
            g.aptDelta[0].y = ptCore.y + rng.Range(70.0, 185.0);
            break;
        }
        case kClassWhorl: {
            // From a round whorl (cores close, one above the other) to a double
            // loop (cores apart and side by side).
            const double dx = rng.Range(-18.0, 18.0);
            const double dy = rng.Range(8.0, 26.0);
            g.nCores = 2;
            g.aptCore[0].x = ptCore.x - dx;
            g.aptCore[0].y = ptCore.y - dy;
            g.aptCore[1].x = ptCore.x + dx;
            g.aptCore[1].y = ptCore.y + dy;
            g.nDeltas = 2;
            g.aptDelta[0].x = ptCore.x - rng.Range(95.0, 165.0);
            g.aptDelta[0].y = ptCore.y + rng.Range(100.0, 175.0);
            g.aptDelta[1].x = ptCore.x + rng.Range(95.0, 165.0);
            g.aptDelta[1].y = ptCore.y + rng.Range(100.0, 175.0);
            break;
        }
        case kClassArch:
            g.nCores = 0;
            g.nDeltas = 0;
            g.ptArch = ptCore;
            break;
    }

    // The slant turns the deltas and the second core about the first core.
    if (g.nCores > 0) {
        const FingerPoint ptPivot = g.aptCore[0];
        const double c = fmath::Cos(g.fTilt);
        const double s = fmath::Sin(g.fTilt);
        const auto Turn = [&](FingerPoint* p) {
            const double dx = p->x - ptPivot.x;
            const double dy = p->y - ptPivot.y;
            p->x = ptPivot.x + c * dx - s * dy;
            p->y = ptPivot.y + s * dx + c * dy;
        };
        for (int i = 1; i < g.nCores; ++i) Turn(&g.aptCore[i]);
        for (int i = 0; i < g.nDeltas; ++i) Turn(&g.aptDelta[i]);
    }
    // Finger size and shape: narrow to broad pads, short to long.
    g.ptContact.x = 300.0 + rng.Range(-15.0, 15.0);
    g.ptContact.y = 305.0 + rng.Range(-15.0, 15.0);
    g.fContactA = rng.Range(124.0, 160.0);
    g.fContactB = rng.Range(170.0, 222.0);
    g.fContactAngle = rng.Range(-0.15, 0.15);
    g.ptOutline.x = 300.0;
    g.ptOutline.y = 330.0;
    // From nail edge to nail edge: a broader pad has more skin to roll over,
    // so a full roll (scene_model.h) ends on the ridges before the far nail.
    g.fOutlineA = 0.78 * g.fContactA + rng.Range(150.0, 160.0);
    g.fOutlineB = rng.Range(245.0, 265.0);
    // Pads are not symmetric: the arcs around the tip centre left or right
    // of the finger's axis, and the ridges toward the joint slope a little.
    g.fTipCentreX = 300.0 + rng.Range(-40.0, 40.0);
    g.fBaseSlope = rng.Range(-0.15, 0.15);
    // A loop's limbs run side by side toward its open side: with level
    // ridges far away, the zero-pole model opens a loop in the direction of
    // its delta mirrored about the vertical.
    if (g.eClass == kClassLeftLoop || g.eClass == kClassRightLoop) {
        g.fCoreShape = rng.Range(0.25, 0.4);
        g.fLoopAxis = kPi - fmath::Atan2(g.aptDelta[0].y - g.aptCore[0].y, g.aptDelta[0].x - g.aptCore[0].x);
    }
    // Base angle: far from the pattern area the flow of the cores and
    // deltas runs level, slanted with the pattern. The ridges below the
    // pattern then fan out from it into the basal ridges by themselves; a
    // base angle that levelled the ridges over the core instead would leave
    // them slanted far away, and turning them level there would squeeze them
    // across a band lined with ridge endings.
    g.fTheta0 = g.nCores > 0 ? g.fTilt - PoleAngle(g, ptCore.x, ptCore.y - 1e5) : 0.0;
    return g;
}

CFingerPattern::CFingerPattern(const FingerGenome& genome) : m_genome(genome)
{
    CRandom rng(fmath::Hash(genome.nSeed, 0x706572696F64ULL));
    for (int i = 0; i < 4; ++i) fmath::RandomWave(rng, 180.0, 420.0, m_afWave[i]);
    // The flow's own twists: a few slow waves of the ridge direction, up to
    // about 0.6 radians together, as no two fingers bend alike. Without
    // them fingers of one class share their flow so closely that a minutiae
    // matcher finds chance agreements between them; much stronger ones
    // bend the ridges so often that they end and fork more than real skin.
    CRandom flow(fmath::Hash(genome.nSeed, 0x666C6F77ULL));
    for (int i = 0; i < 3; ++i) {
        fmath::RandomWave(flow, 220.0, 520.0, m_afFlow[i]);
        m_afFlow[i][3] = flow.Range(0.1, 0.2);
    }
    // Local irregularity: ridges that wander a little over a few periods.
    for (int i = 3; i < 6; ++i) {
        fmath::RandomWave(flow, 70.0, 150.0, m_afFlow[i]);
        m_afFlow[i][3] = flow.Range(0.05, 0.12);
    }
}

double CFingerPattern::Orientation(double x, double y) const
{
    const FingerGenome& g = m_genome;
    double fTheta = g.fTheta0 + PoleAngle(g, x, y);

    // Towards the fingertip the ridges follow its rounded outline: arcs
    // around a point below the pad, fading out below the core.
    const double fCoreY = g.nCores > 0 ? g.aptCore[0].y : 300.0;
    const double fTipWeight = 1.0 - fmath::SmoothStep(fCoreY - 60.0, fCoreY + 230.0, y);
    // The depth below the point levels off smoothly at 60 pixels near and
    // below the centre: a hard floor would turn the ridges faster on one side
    // of a level line than on the other, and the growth lines that up with
    // ridge endings.
    const double fHeight = g.fTipCentreY - y - 60.0;
    const double fDepth = 60.0 + 0.5 * (fHeight + std::sqrt(fHeight * fHeight + 3600.0));
    const double fTip = fTipWeight * fmath::Atan(g.fTipBend * (x - g.fTipCentreX) / fDepth);
    fTheta += fTip;
    // Away from the pattern area, toward the tip, the ridges forget its
    // cores and deltas and follow the outline; below the pattern they keep
    // its own flow, which fans out into level ridges (see fTheta0). The
    // blend is zero on the cuts of the pole angles.
    if (g.nCores > 0 && g.nDeltas > 0) {
        const double fAway = fTipWeight * fmath::SmoothStep(g.fPatternInner, g.fPatternOuter, PatternDistance(g, x, y));
        fTheta += fAway * (fTip - fTheta);
    }
    // Towards the joint the ridges run across the finger at its own slope.
    fTheta += g.fBaseSlope * fmath::SmoothStep(fCoreY + 60.0, fCoreY + 300.0, y);

    for (int i = 0; i < 3; ++i) {
        fTheta += m_afFlow[i][3] * fmath::Cos(m_afFlow[i][0] * x + m_afFlow[i][1] * y + m_afFlow[i][2]);
    }
    // The short waves bend the ridges along their length more than they
    // squeeze them: a wave that runs across the ridges turns neighbouring
    // ridges against each other and forces endings in rows. Each counts
    // half where it runs across the ridges and one and a half times where
    // it runs along them.
    const double fAlongX = fmath::Cos(fTheta);
    const double fAlongY = fmath::Sin(fTheta);
    for (int i = 3; i < 6; ++i) {
        const double fAlong = (m_afFlow[i][0] * fAlongX + m_afFlow[i][1] * fAlongY) /
                              std::sqrt(m_afFlow[i][0] * m_afFlow[i][0] + m_afFlow[i][1] * m_afFlow[i][1]);
        fTheta += (0.5 + fAlong * fAlong) * m_afFlow[i][3] *
                  fmath::Cos(m_afFlow[i][0] * x + m_afFlow[i][1] * y + m_afFlow[i][2]);
    }

    if (g.eClass == kClassArch) {
        // A hump about where a loop's core would be, highest a little above it.
        const double dx = x - g.ptArch.x;
        const double dy = y - g.ptArch.y;
        const double w2 = g.fArchWidth * g.fArchWidth;
        const double fRise =
            g.fArchHeight * (1.0 - fmath::SmoothStep(-45.0, 295.0, dy)) * fmath::SmoothStep(-305.0, -85.0, dy);
        fTheta += fmath::Atan(fRise * dx / w2 * fmath::Exp(-dx * dx / (2.0 * w2)));
    }
    return fTheta;
}

double CFingerPattern::Period(double x, double y) const
{
    double fWave = 0.0;
    for (int i = 0; i < 4; ++i) fWave += fmath::Cos(m_afWave[i][0] * x + m_afWave[i][1] * y + m_afWave[i][2]);
    // Up to +-14 % around the mean, finer (or, on a few fingers, coarser)
    // towards the tip.
    return m_genome.fPeriod *
           (1.0 + m_genome.fPeriodSwing * fWave + m_genome.fPeriodToTip * fmath::Clamp((300.0 - y) / 300.0, -1.0, 1.0));
}

bool CFingerPattern::Grow()
{
    const int nPad = kHalf + 2 * kRadius;
    const size_t nPadCells = static_cast<size_t>(nPad) * nPad;
    std::unique_ptr<float[]> pA(new (std::nothrow) float[nPadCells]);
    std::unique_ptr<float[]> pB(new (std::nothrow) float[nPadCells]);
    std::unique_ptr<unsigned char[]> pBin(new (std::nothrow) unsigned char[kHalf * kHalf]);
    std::unique_ptr<float[]> pKernels(new (std::nothrow) float[kOrientations * kPeriods * kTaps * kTaps]);
    std::unique_ptr<float[]> pFine(new (std::nothrow) float[kHalf * kHalf]);
    std::unique_ptr<float[]> pScratch(new (std::nothrow) float[2 * kHalf * kHalf]);
    m_pRidge.reset(new (std::nothrow) unsigned char[kSize * kSize]);
    if (!pA || !pB || !pBin || !pKernels || !pFine || !pScratch || !m_pRidge) return false;

    // Kernels: even Gabor functions, zero mean, unit response to a ridge
    // wave of their own orientation and period.
    const double fMeanPeriod = m_genome.fPeriod / 2.0;
    for (int o = 0; o < kOrientations; ++o) {
        const double fTheta = kPi * o / kOrientations;
        const double fCos = fmath::Cos(fTheta);
        const double fSin = fmath::Sin(fTheta);
        for (int p = 0; p < kPeriods; ++p) {
            const double fPeriod = fMeanPeriod * (1.0 + kPeriodStep * (p - kPeriods / 2));
            const double fSigmaAcross = 0.42 * fPeriod;
            const double fSigmaAlong = m_genome.fRidgeReach * fPeriod;
            double afEnv[kTaps * kTaps];
            double afWave[kTaps * kTaps];
            double fEnvSum = 0.0;
            double fMix = 0.0;
            for (int dy = -kRadius; dy <= kRadius; ++dy) {
                for (int dx = -kRadius; dx <= kRadius; ++dx) {
                    const double u = -dx * fSin + dy * fCos;  // across the ridges
                    const double v = dx * fCos + dy * fSin;   // along them
                    const int k = (dy + kRadius) * kTaps + dx + kRadius;
                    afEnv[k] = fmath::Exp(
                        -0.5 * (u * u / (fSigmaAcross * fSigmaAcross) + v * v / (fSigmaAlong * fSigmaAlong)));
                    afWave[k] = fmath::Cos(2.0 * kPi * u / fPeriod);
                    fEnvSum += afEnv[k];
                    fMix += afEnv[k] * afWave[k];
                }
            }
            const double fDc = fMix / fEnvSum;
            double fResponse = 0.0;
            for (int k = 0; k < kTaps * kTaps; ++k) {
                afWave[k] = afEnv[k] * (afWave[k] - fDc);
                fResponse += afWave[k] * (afWave[k] / afEnv[k] + fDc);
            }
            float* pK = pKernels.get() + (o * kPeriods + p) * kTaps * kTaps;
            for (int k = 0; k < kTaps * kTaps; ++k) pK[k] = static_cast<float>(afWave[k] / fResponse);
        }
    }

    // Filter choice per cell from the orientation and period fields.
    for (int j = 0; j < kHalf; ++j) {
        for (int i = 0; i < kHalf; ++i) {
            const double x = 2.0 * i + 0.5;
            const double y = 2.0 * j + 0.5;
            double fTheta = Orientation(x, y) / kPi;
            fTheta -= std::floor(fTheta);
            const int o = static_cast<int>(fTheta * kOrientations + 0.5) % kOrientations;
            const double fRel = (Period(x, y) / m_genome.fPeriod - 1.0) / kPeriodStep;
            const int p = fmath::Clamp(static_cast<int>(std::floor(fRel + 0.5)) + kPeriods / 2, 0, kPeriods - 1);
            pBin[j * kHalf + i] = static_cast<unsigned char>(o * kPeriods + p);
        }
    }

    // Seed noise, zero border.
    std::memset(pA.get(), 0, nPadCells * sizeof(float));
    std::memset(pB.get(), 0, nPadCells * sizeof(float));
    CRandom rng(fmath::Hash(m_genome.nSeed, 0x67726F77ULL));
    for (int j = 0; j < kHalf; ++j) {
        for (int i = 0; i < kHalf; ++i) {
            pA[(j + kRadius) * nPad + i + kRadius] = static_cast<float>(rng.Range(-1.0, 1.0));
        }
    }

    for (int it = 0; it <= kIterations; ++it) {
        const bool bLast = it == kIterations;
        for (int j = 0; j < kHalf; ++j) {
            for (int i = 0; i < kHalf; ++i) {
                const float* pK = pKernels.get() + pBin[j * kHalf + i] * kTaps * kTaps;
                const float* pSrc = pA.get() + j * nPad + i;
                float fSum = 0.0f;
                for (int r = 0; r < kTaps; ++r) {
                    const float* pRow = pSrc + r * nPad;
                    const float* pKRow = pK + r * kTaps;
                    for (int c = 0; c < kTaps; ++c) fSum += pKRow[c] * pRow[c];
                }
                if (bLast) {
                    pFine[j * kHalf + i] = fSum;
                } else {
                    fSum *= kGrowthGain;
                    pB[(j + kRadius) * nPad + i + kRadius] = fSum > 1.0f ? 1.0f : (fSum < -1.0f ? -1.0f : fSum);
                }
            }
        }
        if (!bLast) std::swap(pA, pB);
    }

    // Even contrast: divide the response by its local amplitude (root mean
    // square over about one and a half periods), so that ridge endings and
    // forks, where the response is weak, come out as crisp as plain ridges.
    NormaliseAmplitude(pFine.get(), pScratch.get());

    // Full resolution: bicubic interpolation of the last response; cell i
    // covers finished-image pixels 2i and 2i + 1, centre 2i + 0.5.
    for (int y = 0; y < kSize; ++y) {
        const double fy = (y - 0.5) / 2.0;
        const int j0 = static_cast<int>(std::floor(fy));
        double afWy[4];
        CubicWeights(fy - j0, afWy);
        for (int x = 0; x < kSize; ++x) {
            const double fx = (x - 0.5) / 2.0;
            const int i0 = static_cast<int>(std::floor(fx));
            double afWx[4];
            CubicWeights(fx - i0, afWx);
            double fValue = 0.0;
            for (int a = 0; a < 4; ++a) {
                const int jj = fmath::Clamp(j0 - 1 + a, 0, kHalf - 1);
                double fRow = 0.0;
                for (int b = 0; b < 4; ++b) {
                    const int ii = fmath::Clamp(i0 - 1 + b, 0, kHalf - 1);
                    fRow += afWx[b] * pFine[jj * kHalf + ii];
                }
                fValue += afWy[a] * fRow;
            }
            m_pRidge[y * kSize + x] = ToByte(128.0 + 118.0 * fValue);
        }
    }
    return true;
}

void CFingerPattern::StampPoresAndCreases()
{
    unsigned char* pRidge = m_pRidge.get();
    CRandom rng(fmath::Hash(m_genome.nSeed, 0x706F7265ULL));
    // Sweat pores sit on the ridge crests, a few tenths of a millimetre apart;
    // the skin around a pore does not touch the glass.
    for (int n = 0; n < 5000; ++n) {
        const double cx = rng.Range(2.0, kSize - 3.0);
        const double cy = rng.Range(2.0, kSize - 3.0);
        const double fRadius = rng.Range(0.9, 1.5);
        const int ix = static_cast<int>(cx);
        const int iy = static_cast<int>(cy);
        if (pRidge[iy * kSize + ix] < 215) continue;
        for (int y = iy - 2; y <= iy + 2; ++y) {
            for (int x = ix - 2; x <= ix + 2; ++x) {
                const double d2 = (x - cx) * (x - cx) + (y - cy) * (y - cy);
                const double fDepth = 1.0 - d2 / (fRadius * fRadius);
                if (fDepth <= 0.0) continue;
                unsigned char& by = pRidge[y * kSize + x];
                by = ToByte(by - 120.0 * fDepth);
            }
        }
    }
    // Flexion creases: thin lines below the core where the skin folds.
    const int nCreases = static_cast<int>(rng.Below(3));
    for (int n = 0; n < nCreases; ++n) {
        const double cx = rng.Range(180.0, 420.0);
        const double cy = rng.Range(400.0, 560.0);
        const double fAngle = rng.Range(-0.35, 0.35);
        const double fHalfLength = rng.Range(40.0, 110.0);
        const double fWidth = rng.Range(1.0, 1.8);
        const double ux = fmath::Cos(fAngle);
        const double uy = fmath::Sin(fAngle);
        const int nReach = static_cast<int>(fHalfLength) + 4;
        for (int y = static_cast<int>(cy) - nReach; y <= static_cast<int>(cy) + nReach; ++y) {
            if (y < 0 || y >= kSize) continue;
            for (int x = static_cast<int>(cx) - nReach; x <= static_cast<int>(cx) + nReach; ++x) {
                if (x < 0 || x >= kSize) continue;
                const double dx = x - cx;
                const double dy = y - cy;
                const double fAlong = dx * ux + dy * uy;
                const double fAcross = -dx * uy + dy * ux;
                const double fEnd = fmath::SmoothStep(fHalfLength, fHalfLength * 0.7, fAlong < 0 ? -fAlong : fAlong);
                const double fLine = fEnd * fmath::Exp(-0.5 * fAcross * fAcross / (fWidth * fWidth));
                unsigned char& by = pRidge[y * kSize + x];
                by = ToByte(by * (1.0 - 0.9 * fLine));
            }
        }
    }
}

void CFingerPattern::MakeSkin()
{
    // Two octaves of value noise on 48 and 16 pixel lattices.
    CRandom rng(fmath::Hash(m_genome.nSeed, 0x736B696EULL));
    const int anStep[2] = {48, 16};
    const double afWeight[2] = {0.7, 0.3};
    std::vector<double> vecSum(static_cast<size_t>(kSize) * kSize, 0.0);
    for (int o = 0; o < 2; ++o) {
        const int nStep = anStep[o];
        const int nCells = kSize / nStep + 4;
        std::vector<double> vecLattice(static_cast<size_t>(nCells) * nCells);
        for (double& f : vecLattice) f = rng.Range(-1.0, 1.0);
        for (int y = 0; y < kSize; ++y) {
            const double fy = static_cast<double>(y) / nStep;
            const int j0 = static_cast<int>(fy);
            double afWy[4];
            CubicWeights(fy - j0, afWy);
            for (int x = 0; x < kSize; ++x) {
                const double fx = static_cast<double>(x) / nStep;
                const int i0 = static_cast<int>(fx);
                double afWx[4];
                CubicWeights(fx - i0, afWx);
                double fValue = 0.0;
                for (int a = 0; a < 4; ++a) {
                    const double* pRow = &vecLattice[static_cast<size_t>(j0 + a) * nCells + i0];
                    fValue += afWy[a] * (afWx[0] * pRow[0] + afWx[1] * pRow[1] + afWx[2] * pRow[2] + afWx[3] * pRow[3]);
                }
                vecSum[static_cast<size_t>(y) * kSize + x] += afWeight[o] * fValue;
            }
        }
    }
    for (size_t i = 0; i < vecSum.size(); ++i) m_pSkin[i] = ToByte(128.0 + 150.0 * vecSum[i]);
}

std::unique_ptr<CFingerPattern> CFingerPattern::Create(uint32_t nSeed)
{
    std::unique_ptr<CFingerPattern> pPattern(new (std::nothrow) CFingerPattern(MakeGenome(nSeed)));
    if (!pPattern) return pPattern;
    pPattern->m_pSkin.reset(new (std::nothrow) unsigned char[kSize * kSize]);
    if (!pPattern->m_pSkin) return nullptr;
    try {
        if (!pPattern->Grow()) return nullptr;
        pPattern->StampPoresAndCreases();
        pPattern->MakeSkin();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    return pPattern;
}

std::shared_ptr<const CFingerPattern> GetFingerPattern(uint32_t nSeed)
{
    // A few recent fingers stay in memory (720 KB each); units that share a
    // seed share the pattern.
    static std::mutex s_mutex;
    static std::vector<std::shared_ptr<const CFingerPattern>> s_vecCache;
    const size_t kKeep = 8;
    std::lock_guard<std::mutex> lock(s_mutex);
    for (size_t i = 0; i < s_vecCache.size(); ++i) {
        if (s_vecCache[i]->Genome().nSeed == nSeed) {
            std::shared_ptr<const CFingerPattern> pFound = s_vecCache[i];
            s_vecCache.erase(s_vecCache.begin() + static_cast<long>(i));
            s_vecCache.push_back(pFound);
            return pFound;
        }
    }
    std::shared_ptr<const CFingerPattern> pNew;
    try {
        pNew = std::shared_ptr<const CFingerPattern>(CFingerPattern::Create(nSeed));
        if (!pNew) return pNew;
        if (s_vecCache.size() >= kKeep) s_vecCache.erase(s_vecCache.begin());
        s_vecCache.push_back(pNew);
    } catch (const std::bad_alloc&) {
    }
    return pNew;
}

}  // namespace tavk05virt
