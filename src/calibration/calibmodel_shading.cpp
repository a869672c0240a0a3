// Shading model: the grey level added to the final image of models 5 and 6
// to even out the illumination. It is zero over the well-lit upper middle of
// the glass and grows towards the bottom rows and the left and right edges
// (more on the left):
//
//   f(t, s) = A(t) + eL (1 - s)^3 KL(t) + eR s^3 KR(t)
//
// with t = row / 599, s = column / 599, A a cubic, KL and KR quadratics
// that are 1 at the bottom row; the stored value is f rounded, clamped to
// 0..255.
#include "calibration/calibmodel.h"

#include <cmath>

namespace tavk05cal {

namespace {

struct ShadingCoeffs {
    double dBase[4];      // A(t) = sum dBase[k] t^k
    double dLeft;         // eL
    double dRight;        // eR
    double dLeftRow[2];   // KL(t) = k0 + k1 t + (1 - k0 - k1) t^2
    double dRightRow[2];  // KR(t), the same way
};

const ShadingCoeffs g_Shading = {
    {-11.49281445, 19.50396814, 8.264233008, -3.344552071},
    57.57685093,
    34.19661726,
    {0.3266041761, -0.7379132888},
    {0.3473889145, -0.7839615131},
};

}  // namespace

unsigned char ShadingAt(int nX, int nY)
{
    const ShadingCoeffs& c = g_Shading;
    const double dT = nY / 599.0;
    const double dS = nX / 599.0;
    const double dU = 1.0 - dS;
    const double dBase = c.dBase[0] + dT * (c.dBase[1] + dT * (c.dBase[2] + dT * c.dBase[3]));
    const double dKL = c.dLeftRow[0] + c.dLeftRow[1] * dT + (1.0 - c.dLeftRow[0] - c.dLeftRow[1]) * dT * dT;
    const double dKR = c.dRightRow[0] + c.dRightRow[1] * dT + (1.0 - c.dRightRow[0] - c.dRightRow[1]) * dT * dT;
    const double dValue = std::floor(dBase + c.dLeft * dU * dU * dU * dKL + c.dRight * dS * dS * dS * dKR + 0.5);
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
