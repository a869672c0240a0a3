// Repeat impressions of a finger (see finger_impression.h).
#include "finger_impression.h"

#include <cmath>

#include "finger_math.h"

namespace tavk05virt {

Impression MakeImpression(uint32_t nSeed, unsigned long nNumber)
{
    Impression imp;
    if (nNumber == 0) return imp;
    fmath::CRandom rng(fmath::Hash(fmath::Hash(nSeed, 0x696D7072ULL), nNumber));
    imp.bMoved = true;
    // A guided placement: the finger centred within about 2 mm, upright
    // within 12 degrees.
    imp.fShiftX = 22.0 * fmath::Clamp(rng.Gauss() / 1.6, -1.0, 1.0);
    imp.fShiftY = 28.0 * fmath::Clamp(rng.Gauss() / 1.6, -1.0, 1.0);
    imp.fTwist = 0.21 * fmath::Clamp(rng.Gauss() / 1.6, -1.0, 1.0);
    // The skin outside the firm centre of the contact is pushed along by up
    // to about 0.4 mm and twisted by up to 3 degrees.
    const double fDragAngle = rng.Range(0.0, 2.0 * fmath::kPi);
    const double fDrag = rng.Range(0.0, 8.0);
    imp.fDragX = fDrag * fmath::Cos(fDragAngle);
    imp.fDragY = fDrag * fmath::Sin(fDragAngle);
    imp.fDragTwist = rng.Range(-0.05, 0.05);
    imp.fWobble = rng.Range(0.5, 2.0);
    for (int i = 0; i < 2; ++i) fmath::RandomWave(rng, 90.0, 200.0, imp.afWobble[i]);
    // Pressed a little lighter or firmer; the skin moister or drier.
    imp.fPressure = rng.Range(0.8, 1.2);
    imp.fMoisture = rng.Uniform() < 0.3 ? rng.Range(0.0, 0.2) : 0.0;
    imp.fDryness = rng.Uniform() < 0.3 ? rng.Range(0.0, 0.35) : 0.0;
    return imp;
}

void SkinPoint(const Impression& imp, double fCx, double fCy, double fA, double fB, double fAngle, double x, double y,
               double* pfSx, double* pfSy)
{
    // Undo the placement: shift, then turn about the centre.
    const double dx = x - fCx - imp.fShiftX;
    const double dy = y - fCy - imp.fShiftY;
    const double c = fmath::Cos(imp.fTwist);
    const double s = fmath::Sin(imp.fTwist);
    double sx = fCx + dx * c + dy * s;
    double sy = fCy - dx * s + dy * c;
    // The drag: nothing within the firm centre, all of it at the rim.
    const double ca = fmath::Cos(fAngle);
    const double sa = fmath::Sin(fAngle);
    const double u = (dx * ca + dy * sa) / fA;
    const double v = (-dx * sa + dy * ca) / fB;
    const double fWeight = fmath::SmoothStep(0.3, 1.05, std::sqrt(u * u + v * v));
    const double fTurnX = -dy * imp.fDragTwist;
    const double fTurnY = dx * imp.fDragTwist;
    double fWobbleX = 0.0;
    double fWobbleY = 0.0;
    for (int i = 0; i < 2; ++i) {
        const double fPhase = imp.afWobble[i][0] * x + imp.afWobble[i][1] * y + imp.afWobble[i][2];
        fWobbleX += imp.fWobble * fmath::Cos(fPhase);
        fWobbleY += imp.fWobble * fmath::Sin(fPhase);
    }
    sx -= fWeight * (imp.fDragX + fTurnX) + fWobbleX;
    sy -= fWeight * (imp.fDragY + fTurnY) + fWobbleY;
    *pfSx = sx;
    *pfSy = sy;
}

}  // namespace tavk05virt
