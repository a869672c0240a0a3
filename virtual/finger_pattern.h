// Synthetic fingerprints for the virtual scanner.
//
// A finger is decided entirely by a 32-bit seed: its pattern class (loop to
// the left or right, whorl or arch), the cores and deltas of its ridge flow
// and the slant of the pattern, how far the pattern reaches before the ridges
// follow the finger's outline, its ridge period and how that varies, the
// outline of the finger from nail edge to nail edge and the ellipse it
// touches when pressed flat. The ridge pattern is grown once
// per finger on a 600 x 600 canvas in finished-image coordinates (500 ppi,
// about 9 pixels from ridge to ridge): noise is filtered again and again
// with Gabor filters that follow the orientation field until ridges have
// formed everywhere; where the flow diverges or converges the growth has to
// start or end ridges, which gives ridge endings and bifurcations as in real
// skin. Pores and flexion creases are stamped on top.
//
// The canvas is wider than any flat contact: a rolled finger lays its skin
// on the glass without slipping, so the whole pattern from nail to nail is
// fixed in glass coordinates and a roll only moves the contact strip over it.
#ifndef TAVK05_FINGER_PATTERN_H
#define TAVK05_FINGER_PATTERN_H

#include <cstdint>
#include <memory>

namespace tavk05virt {

enum FingerClass {
    kClassLeftLoop = 0,   // ridges enter and leave on the left, delta on the right
    kClassRightLoop = 1,  // mirror image
    kClassWhorl = 2,      // two cores, two deltas
    kClassArch = 3        // no core and no delta
};

const char* FingerClassName(FingerClass eClass);

struct FingerPoint {
    double x;
    double y;
};

// Everything the seed decides. Coordinates are finished-image pixels
// (x to the right, y down).
struct FingerGenome {
    uint32_t nSeed;
    FingerClass eClass;
    int nCores;
    FingerPoint aptCore[2];
    int nDeltas;
    FingerPoint aptDelta[2];
    double fTheta0;      // base angle of the zero-pole orientation model
    double fTipCentreX;  // ridges above the core follow arcs around this point
    double fTipCentreY;
    double fTipBend;       // strength of that bending
    double fPatternInner;  // within this distance of a core-delta pair the flow is the pattern's own,
    double fPatternOuter;  // beyond this one it follows the finger's outline
    double fBaseSlope;     // slope of the ridges toward the first joint, radians
    double fArchHeight;    // arch only: rise of the central hump
    double fArchWidth;     // arch only: width of the hump
    FingerPoint ptArch;    // arch only: where the hump stands
    double fTilt;          // slant of the pattern against the finger's axis, radians
    double fPeriod;        // mean ridge period in pixels
    double fPeriodSwing;   // amplitude of each of the period's waves (relative)
    double fPeriodToTip;   // relative change of the period from the centre to the tip
    double fRidgeReach;    // Gabor length along the ridges, in periods: shorter grows more endings and forks
    // Contact of the finger pressed flat: a rotated ellipse.
    FingerPoint ptContact;
    double fContactA;      // horizontal semi-axis
    double fContactB;      // vertical semi-axis
    double fContactAngle;  // radians, clockwise on screen
    // Outline of the skin that can reach the glass in a roll, nail to nail.
    FingerPoint ptOutline;
    double fOutlineA;
    double fOutlineB;
    // Loops: how unevenly the flow turns around the core (see Shape in
    // finger_pattern.cpp), slowest along the axis on which the limbs run.
    double fCoreShape;
    double fLoopAxis;
};

FingerGenome MakeGenome(uint32_t nSeed);

class CFingerPattern {
public:
    enum { kSize = 600 };

    // Grows the pattern of the finger with this seed (a few tens of
    // milliseconds); null when memory is short.
    static std::unique_ptr<CFingerPattern> Create(uint32_t nSeed);

    const FingerGenome& Genome() const { return m_genome; }
    // Ridge height, kSize x kSize row-major: about 255 on a ridge crest and
    // 0 at the bottom of a valley; pores and creases are low.
    const unsigned char* Ridge() const { return m_pRidge.get(); }
    // Skin condition, kSize x kSize: smooth blotches; where it is low the skin
    // is dry and its ridges break first under light pressure.
    const unsigned char* Skin() const { return m_pSkin.get(); }

    // Ridge orientation in radians modulo pi (direction along the ridges) and
    // local ridge period at a point, as used for the growth.
    double Orientation(double x, double y) const;
    double Period(double x, double y) const;

private:
    explicit CFingerPattern(const FingerGenome& genome);
    bool Grow();
    void StampPoresAndCreases();
    void MakeSkin();

    FingerGenome m_genome;
    // Period variation: a few random plane waves.
    double m_afWave[4][3];
    // Flow variation: plane waves of the ridge direction (kx, ky, phase,
    // amplitude), three slow ones and three of a few ridges' length.
    double m_afFlow[6][4];
    std::unique_ptr<unsigned char[]> m_pRidge;
    std::unique_ptr<unsigned char[]> m_pSkin;
};

// Shared, immutable patterns: every unit with the same seed uses one copy.
// Null when memory is short.
std::shared_ptr<const CFingerPattern> GetFingerPattern(uint32_t nSeed);

}  // namespace tavk05virt

#endif
