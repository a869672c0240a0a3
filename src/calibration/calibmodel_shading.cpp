// Shading model: the grey level added to the final image of models 5 and 6
// to even out the illumination. It is zero over the well-lit upper part of
// the glass and grows towards the bottom rows and towards the left and right
// edges (most at the bottom left). With t = row / 599 and s = column / 599,
// the top and bottom rows follow
//
//   Q0(s) = -z + a0 (1 - s)^6 + b0 s^6 + c0 (s - 1/2)^2
//   Q1(s) = m + a1 (1 - s)^3 + b1 s^3
//
// and the rows between blend them with w t^2 + (1 - w) t^3, which rises from
// 0 at the top to 1 at the bottom; the stored value is the blend rounded and
// clamped to 0..255. The coefficients were fitted to the measured table's
// statistics (range 0..73, mean 11.2, 104,000 zeros, row means 1 to 34,
// column means 23, 7 and 15 at the left, middle and right).
#include "calibration/calibmodel.h"

#include <cmath>

namespace tavk05cal {

namespace {

struct ShadingCoeffs {
    double dTopBase;      // z
    double dTopLeft;      // a0
    double dTopRight;     // b0
    double dTopBow;       // c0
    double dBottomBase;   // m
    double dBottomLeft;   // a1
    double dBottomRight;  // b1
    double dBlend;        // w
};

const ShadingCoeffs g_Shading = {
    7.878439739, -30.64347381, -11.50301231, 118.4408183, 19.88592183, 53.1140875, 3.337650419, 1.422656905,
};

}  // namespace

unsigned char ShadingAt(int nX, int nY)
{
    const ShadingCoeffs& c = g_Shading;
    const double dT = nY / 599.0;
    const double dS = nX / 599.0;
    const double dU = 1.0 - dS;
    const double dU3 = dU * dU * dU, dS3 = dS * dS * dS;
    const double dMid = dS - 0.5;
    const double dTop = -c.dTopBase + c.dTopLeft * dU3 * dU3 + c.dTopRight * dS3 * dS3 + c.dTopBow * dMid * dMid;
    const double dBottom = c.dBottomBase + c.dBottomLeft * dU3 + c.dBottomRight * dS3;
    const double dBlend = c.dBlend * dT * dT + (1.0 - c.dBlend) * dT * dT * dT;
    const double dValue = std::floor(dTop + (dBottom - dTop) * dBlend + 0.5);
    if (dValue <= 0.0) {
        return 0;
    }
    return dValue >= 255.0 ? 255 : static_cast<unsigned char>(dValue);
}

void FillShading(unsigned char* pbyShading)
{
    for (int nY = 0; nY < kFinalSize; ++nY) {
        for (int nX = 0; nX < kFinalSize; ++nX) {
            pbyShading[nY * kFinalSize + nX] = ShadingAt(nX, nY);
        }
    }
}

}  // namespace tavk05cal
