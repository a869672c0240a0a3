// Repeat impressions of a finger: every time a finger is put on the glass it
// lands a little differently. An impression moves and turns the finger
// within what a guided placement allows, drags the outer skin against the
// pad's centre (the centre sticks to the glass while the rest is pushed or
// twisted: elastic distortion that grows toward the rim), and changes the
// pressure and the moisture of the skin. Impression 0 is the finger as the
// genome lays it down; every other number is a new placement drawn from the
// seed and the number, the same on every run.
#ifndef TAVK05_FINGER_IMPRESSION_H
#define TAVK05_FINGER_IMPRESSION_H

#include <cstdint>

namespace tavk05virt {

struct Impression {
    bool bMoved = false;   // false: impression 0, the skin lies as grown
    double fShiftX = 0.0;  // the finger moved on the glass, pixels
    double fShiftY = 0.0;
    double fTwist = 0.0;  // turned about the contact centre, radians
    double fDragX = 0.0;  // outer skin dragged against the centre, pixels
    double fDragY = 0.0;
    double fDragTwist = 0.0;     // outer skin twisted against the centre, radians
    double fWobble = 0.0;        // amplitude of the skin's small uneven stretch, pixels
    double afWobble[2][3] = {};  // its two waves: kx, ky, phase
    double fPressure = 1.0;      // factor on the scene's pressure
    double fMoisture = 0.0;      // added to the scene's moisture
    double fDryness = 0.0;       // added to the scene's dryness
};

// Impression nNumber of the finger with this seed.
Impression MakeImpression(uint32_t nSeed, unsigned long nNumber);

// Skin point (*pfSx, *pfSy) of the pattern that an impression lays at glass
// point (x, y). (fCx, fCy) is the centre the finger turns about (the contact
// centre before the shift); fA, fB and fAngle the contact ellipse the drag
// grows over.
void SkinPoint(const Impression& imp, double fCx, double fCy, double fA, double fB, double fAngle, double x, double y,
               double* pfSx, double* pfSy);

}  // namespace tavk05virt

#endif
