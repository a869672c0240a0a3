// Optics of the virtual scanner (see scene_compose.h).
#include "scene_compose.h"

#include <cmath>
#include <cstring>
#include <memory>
#include <new>

#include "finger_math.h"
#include "finger_noise.h"

namespace tavk05virt {

namespace {

const int kSize = CFingerPattern::kSize;
const int kPressureLevels = 64;
const double kMaxPressure = 1.6;

// Darkening (0 = glass, 1 = a ridge at full contact) of skin of ridge height
// h pressed with local pressure p.
double Darkening(double p, double h, double fMoisture)
{
    if (p <= 0.0) return 0.0;
    // Share of the ridge profile that reaches the glass, and how completely
    // it breaks the reflection there.
    const double fReach = fmath::Clamp(0.08 + 0.45 * p, 0.02, 0.97);
    const double fThreshold = 255.0 * (1.0 - fReach);
    const double fContact = fmath::SmoothStep(fThreshold - 28.0, fThreshold + 28.0, h);
    const double fDepth = fmath::Clamp(0.3 + 0.7 * p, 0.0, 1.0);
    const double fRidge = fContact * fDepth;
    // Valleys: a thin haze of sweat, or the moisture of a hard press.
    const double fValley = 0.045 * fmath::Clamp(p, 0.0, 1.0) + fMoisture * fmath::SmoothStep(0.3, 1.1, p);
    return fRidge + (1.0 - fRidge) * fmath::Clamp(fValley, 0.0, 1.0);
}

// Normalised elliptic radius of (x, y) for a rotated ellipse.
struct Ellipse {
    double cx, cy, c, s, a2, b2;

    Ellipse(double fCx, double fCy, double fA, double fB, double fAngle)
        : cx(fCx), cy(fCy), c(fmath::Cos(fAngle)), s(fmath::Sin(fAngle)), a2(1.0 / (fA * fA)), b2(1.0 / (fB * fB))
    {
    }
    double Radius2(double x, double y) const
    {
        const double dx = x - cx;
        const double dy = y - cy;
        const double u = dx * c + dy * s;
        const double v = -dx * s + dy * c;
        return u * u * a2 + v * v * b2;
    }
};

// Skin coordinates (1/256 pixel) on a grid of kGridStep pixels over the
// contact's box: where an impression lays the pattern; pixels between the
// nodes interpolate them.
const int kGridStep = 8;
const int kGridShift = 3;
const int kGridNodes = CFingerPattern::kSize / kGridStep + 2;

struct SkinGrid {
    int32_t anX[kGridNodes * kGridNodes];
    int32_t anY[kGridNodes * kGridNodes];
};

void FillSkinGrid(const FingerPose& pose, int nLeft, int nTop, int nCols, int nRows, SkinGrid* pGrid)
{
    for (int r = 0; r < nRows; ++r) {
        for (int c = 0; c < nCols; ++c) {
            double sx = 0.0;
            double sy = 0.0;
            SkinPoint(pose.impression, pose.fTurnCx, pose.fTurnCy, pose.fDragA, pose.fDragB, pose.fDragAngle,
                      nLeft + c * kGridStep, nTop + r * kGridStep, &sx, &sy);
            const double fMax = (kSize - 1) * 256.0;
            pGrid->anX[r * kGridNodes + c] = static_cast<int32_t>(fmath::Clamp(sx * 256.0, 0.0, fMax));
            pGrid->anY[r * kGridNodes + c] = static_cast<int32_t>(fmath::Clamp(sy * 256.0, 0.0, fMax));
        }
    }
}

// Ridge height at a skin point in 1/256 pixel (within the canvas), bilinear.
int RidgeAt(const unsigned char* pRidge, int32_t nSx, int32_t nSy)
{
    const int ix = nSx >> 8;
    const int iy = nSy >> 8;
    const int ax = nSx & 255;
    const int ay = nSy & 255;
    const int ix1 = ix + 1 < kSize ? ix + 1 : ix;
    const int iy1 = iy + 1 < kSize ? iy + 1 : iy;
    const unsigned char* p0 = pRidge + iy * kSize;
    const unsigned char* p1 = pRidge + iy1 * kSize;
    const int nTop = p0[ix] * (256 - ax) + p0[ix1] * ax;
    const int nBottom = p1[ix] * (256 - ax) + p1[ix1] * ax;
    return (nTop * (256 - ay) + nBottom * ay) >> 16;
}

void ComposeResidue(const CFingerPattern& pattern, unsigned char* pGlass)
{
    // An earlier finger pressed flat a little beside where the next one will
    // go; its residue stuck to the ridges in patches.
    const FingerGenome& g = pattern.Genome();
    const Ellipse contact(g.ptContact.x + 7.0, g.ptContact.y - 5.0, g.fContactA, g.fContactB, g.fContactAngle);
    const unsigned char* pRidge = pattern.Ridge();
    const unsigned char* pSkin = pattern.Skin();
    const double fSpan = GlassLevels::kGlass - GlassLevels::kRidge;
    for (int y = 0; y < kSize; ++y) {
        for (int x = 0; x < kSize; ++x) {
            const int i = y * kSize + x;
            const double q2 = contact.Radius2(x, y);
            double fValue = GlassLevels::kGlass;
            if (q2 < 1.0) {
                // Shifted by 7 and 5 pixels: the pattern moves with the finger.
                const int sx = fmath::Clamp(x - 7, 0, kSize - 1);
                const int sy = fmath::Clamp(y + 5, 0, kSize - 1);
                const double h = pRidge[sy * kSize + sx];
                const double fPatch = fmath::SmoothStep(90.0, 150.0, pSkin[i]);
                const double fFade = fmath::SmoothStep(1.0, 0.6, std::sqrt(q2));
                fValue -= 0.16 * fSpan * fPatch * fFade * fmath::SmoothStep(110.0, 190.0, h);
            }
            pGlass[i] = static_cast<unsigned char>(fValue + 0.5);
        }
    }
}

}  // namespace

void ComposeGlass(const CFingerPattern* pPattern, const FingerPose& pose, unsigned char* pGlass)
{
    if (pose.bResidue && pPattern) {
        ComposeResidue(*pPattern, pGlass);
        return;
    }
    std::memset(pGlass, GlassLevels::kGlass, static_cast<size_t>(kSize) * kSize);
    if (!pPattern || !pose.bFinger || pose.fPressure <= 0.0 || pose.fA <= 0.0 || pose.fB <= 0.0) return;
    const CFingerPattern& pattern = *pPattern;

    // Grey by local pressure level and ridge height.
    const double fRidgeLevel = pose.fPressure > 1.2 ? GlassLevels::kHardRidge : GlassLevels::kRidge;
    const double fSpan = GlassLevels::kGlass - fRidgeLevel;
    unsigned char abyGrey[kPressureLevels][256];
    for (int l = 0; l < kPressureLevels; ++l) {
        const double p = kMaxPressure * l / (kPressureLevels - 1);
        for (int h = 0; h < 256; ++h) {
            const double fDark = Darkening(p, h, pose.fMoisture);
            abyGrey[l][h] = static_cast<unsigned char>(GlassLevels::kGlass - fSpan * fDark + 0.5);
        }
    }

    const FingerGenome& g = pattern.Genome();
    const Ellipse contact(pose.fCx, pose.fCy, pose.fA, pose.fB, pose.fAngle);
    const Ellipse outline(g.ptOutline.x, g.ptOutline.y, g.fOutlineA, g.fOutlineB, 0.0);
    const double fReach = pose.fA > pose.fB ? pose.fA : pose.fB;
    const int nTop = fmath::Clamp(static_cast<int>(pose.fCy - fReach) - 1, 0, kSize);
    const int nBottom = fmath::Clamp(static_cast<int>(pose.fCy + fReach) + 2, 0, kSize);
    const int nLeft = fmath::Clamp(static_cast<int>(pose.fCx - fReach) - 1, 0, kSize);
    const int nRight = fmath::Clamp(static_cast<int>(pose.fCx + fReach) + 2, 0, kSize);
    const unsigned char* pRidge = pattern.Ridge();
    const unsigned char* pSkin = pattern.Skin();
    const double fLevelScale = (kPressureLevels - 1) / kMaxPressure;
    // A moved impression samples the pattern where its skin lies; the grid
    // covers the box with one node beyond its right and bottom edges.
    std::unique_ptr<SkinGrid> pGrid;
    const int nCols = (nRight - nLeft + kGridStep - 1) / kGridStep + 1;
    const int nRows = (nBottom - nTop + kGridStep - 1) / kGridStep + 1;
    if (pose.impression.bMoved && nRight > nLeft && nBottom > nTop) {
        pGrid.reset(new (std::nothrow) SkinGrid);
        if (pGrid) FillSkinGrid(pose, nLeft, nTop, nCols, nRows, pGrid.get());
    }
    int32_t anRowX[kGridNodes];
    int32_t anRowY[kGridNodes];
    for (int y = nTop; y < nBottom; ++y) {
        if (pGrid) {
            // Skin coordinates of this row at the grid columns, in 1/2048 pixel.
            const int r = (y - nTop) >> kGridShift;
            const int fy = (y - nTop) & (kGridStep - 1);
            const int32_t* pX = pGrid->anX + r * kGridNodes;
            const int32_t* pY = pGrid->anY + r * kGridNodes;
            for (int c = 0; c < nCols; ++c) {
                anRowX[c] = pX[c] * (kGridStep - fy) + pX[c + kGridNodes] * fy;
                anRowY[c] = pY[c] * (kGridStep - fy) + pY[c + kGridNodes] * fy;
            }
        }
        for (int x = nLeft; x < nRight; ++x) {
            const double q2 = contact.Radius2(x, y);
            if (q2 >= 1.0) continue;
            // Full pressure over the middle of the pad, falling to nothing
            // at the rim. A finger held on its side for a roll is pressed
            // firmly over nearly all of its narrow strip: with the soft rim
            // of a flat fingertip, its pressed middle is too narrow for the
            // driver's placement quality (a ridge area of about 120 x 250
            // pixels), so a side whose ridges run level never reaches it.
            double fProfile = fmath::SmoothStep(1.0, pose.bRolled ? 0.8 : 0.45, std::sqrt(q2));
            if (pose.bRolled) {
                const double fOut2 = outline.Radius2(x, y);
                if (fOut2 >= 1.0) continue;
                fProfile *= fmath::SmoothStep(1.0, 0.9, std::sqrt(fOut2));
            }
            const int i = y * kSize + x;
            const int nLevel =
                fmath::Clamp(static_cast<int>(pose.fPressure * fProfile * fLevelScale + 0.5), 0, kPressureLevels - 1);
            int h = pRidge[i];
            int nSkin = pSkin[i];
            if (pGrid) {
                const int c = (x - nLeft) >> kGridShift;
                const int fx = (x - nLeft) & (kGridStep - 1);
                const int32_t nSx = (anRowX[c] * (kGridStep - fx) + anRowX[c + 1] * fx) >> (2 * kGridShift);
                const int32_t nSy = (anRowY[c] * (kGridStep - fx) + anRowY[c + 1] * fx) >> (2 * kGridShift);
                h = RidgeAt(pRidge, nSx, nSy);
                nSkin = pSkin[(nSy >> 8) * kSize + (nSx >> 8)];
            }
            if (pose.fDryness > 0.0) {
                // Dry skin: the crests must rise further to reach the glass.
                const int nDry = 150 - nSkin;
                if (nDry > 0) h = fmath::Clamp(h - static_cast<int>(pose.fDryness * 1.3 * nDry), 0, 255);
            }
            pGlass[i] = abyGrey[nLevel][h];
        }
    }
}

double LatentStripe(int nRow)
{
    // Stripe centres 104 + 51.5 k; Gaussian profile, deviation 6 rows.
    const double fPhase = (nRow - 104.0) / 51.5;
    const double fOffset = (fPhase - std::floor(fPhase + 0.5)) * 51.5;
    return fmath::Exp(-fOffset * fOffset / 72.0);
}

void ComposeLatent(const CFingerPattern* pPattern, const FingerPose& pose, const unsigned char* pGlass,
                   uint64_t nNoiseSeed, unsigned char* pFrame, unsigned long nFrameBytes)
{
    const unsigned long nWindow = static_cast<unsigned long>(kLatentWidth) * kLatentHeight;
    if (nFrameBytes < nWindow) {
        std::memset(pFrame, 0, nFrameBytes);
        return;
    }
    const bool bLive = pPattern && IsLiveFinger(pose);
    const Ellipse body(pose.fCx, pose.fCy, pose.fBodyA > 0.0 ? pose.fBodyA : 1.0, pose.fBodyB > 0.0 ? pose.fBodyB : 1.0,
                       pose.fAngle);
    const unsigned char* pRidge = pPattern ? pPattern->Ridge() : nullptr;
    const int16_t* pNoise = NoiseTable();
    const int kAmbient = 16;  // room light through the platen
    const int kNoise = 384;   // 1.5 grey levels, in 1/256
    const double kStripeGain = 150.0;
    const double kDiffuse = 7.0 / (GlassLevels::kGlass - GlassLevels::kRidge);

    int anColumn[kLatentWidth];
    for (int c = 0; c < kLatentWidth; ++c) {
        anColumn[c] = fmath::Clamp(static_cast<int>((c + 0.5) * kSize / kLatentWidth), 0, kSize - 1);
    }
    for (int r = 0; r < kLatentHeight; ++r) {
        const double fy = 60.0 + (r + 0.5) * 480.0 / kLatentHeight;
        const int nRow = fmath::Clamp(static_cast<int>(fy), 0, kSize - 1);
        const double fStripe = bLive ? LatentStripe(r) : 0.0;
        const unsigned nNoiseStart = static_cast<unsigned>(fmath::Hash(nNoiseSeed, static_cast<uint64_t>(r)));
        unsigned char* pOut = pFrame + static_cast<size_t>(r) * kLatentWidth;
        for (int c = 0; c < kLatentWidth; ++c) {
            const int i = nRow * kSize + anColumn[c];
            // Room light shows the contact (or a residue) faintly everywhere.
            double fValue = kAmbient + kDiffuse * (GlassLevels::kGlass - pGlass[i]);
            if (fStripe > 0.001) {
                const double q2 = body.Radius2((c + 0.5) * kSize / kLatentWidth, fy);
                if (q2 < 1.0) {
                    const double fBody = fmath::SmoothStep(1.0, 0.8, std::sqrt(q2));
                    fValue += kStripeGain * fStripe * fBody * (0.55 + 0.45 * pRidge[i] / 255.0);
                }
            }
            const int nValue = static_cast<int>(fValue * 256.0) + kNoise * pNoise[(nNoiseStart + c) & kNoiseMask] / 256;
            pOut[c] = static_cast<unsigned char>((fmath::Clamp(nValue, 0, 255 * 256) + 128) >> 8);
        }
    }
    std::memset(pFrame + nWindow, 0, nFrameBytes - nWindow);
}

}  // namespace tavk05virt
