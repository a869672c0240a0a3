// Arithmetic helpers of the synthetic finger: a seeded random generator and
// the few transcendental functions the synthesis needs, built from +, -, *, /
// and sqrt only. The C library's exp, cos and atan2 may differ in the last
// bit between the x86_64 and the i386 builds; a Gabor growth iterated a dozen
// times can turn such a bit into a different ridge ending, so the synthesis
// uses these instead and produces the same fingers on both ABIs.
#ifndef TAVK05_FINGER_MATH_H
#define TAVK05_FINGER_MATH_H

#include <cstdint>

namespace tavk05virt {
namespace fmath {

const double kPi = 3.14159265358979323846;

// 64-bit mix of two values (splitmix64 finaliser over their combination).
inline uint64_t Hash(uint64_t nA, uint64_t nB)
{
    uint64_t z = nA * 0x9E3779B97F4A7C15ULL + nB + 0x632BE59BD9B4E019ULL;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

// Seeded generator (splitmix64 sequence); identical on every platform.
class CRandom {
public:
    explicit CRandom(uint64_t nSeed) : m_nState(nSeed) {}

    uint64_t Next()
    {
        m_nState += 0x9E3779B97F4A7C15ULL;
        uint64_t z = m_nState;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    // Uniform in [0, 1) with 53 bits.
    double Uniform() { return static_cast<double>(Next() >> 11) * (1.0 / 9007199254740992.0); }
    double Range(double fLow, double fHigh) { return fLow + (fHigh - fLow) * Uniform(); }
    // Uniform integer in [0, n).
    uint32_t Below(uint32_t n) { return static_cast<uint32_t>((Next() >> 32) % n); }
    // Approximately normal (mean 0, deviation 1): sum of twelve uniforms.
    double Gauss()
    {
        double f = 0.0;
        for (int i = 0; i < 12; ++i) f += Uniform();
        return f - 6.0;
    }

private:
    uint64_t m_nState;
};

// e^x, relative error below 1e-12 for |x| < 700.
double Exp(double x);
// cos x and sin x, absolute error below 1e-12.
double Cos(double x);
double Sin(double x);
// atan2(y, x) in (-pi, pi], absolute error below 1e-9.
double Atan2(double y, double x);
inline double Atan(double x) { return Atan2(x, 1.0); }

inline double Clamp(double f, double fLow, double fHigh) { return f < fLow ? fLow : (f > fHigh ? fHigh : f); }
inline int Clamp(int n, int nLow, int nHigh) { return n < nLow ? nLow : (n > nHigh ? nHigh : n); }
// 0 below e0, 1 above e1, the cubic smooth step between.
inline double SmoothStep(double e0, double e1, double x)
{
    const double t = Clamp((x - e0) / (e1 - e0), 0.0, 1.0);
    return t * t * (3.0 - 2.0 * t);
}

// A plane wave of random direction, wavelength in [fMinLength, fMaxLength)
// and phase: pfWave receives kx, ky and the phase.
inline void RandomWave(CRandom& rng, double fMinLength, double fMaxLength, double* pfWave)
{
    const double fAngle = rng.Range(0.0, 2.0 * kPi);
    const double fWavelength = rng.Range(fMinLength, fMaxLength);
    pfWave[0] = 2.0 * kPi * Cos(fAngle) / fWavelength;
    pfWave[1] = 2.0 * kPi * Sin(fAngle) / fWavelength;
    pfWave[2] = rng.Range(0.0, 2.0 * kPi);
}

}  // namespace fmath
}  // namespace tavk05virt

#endif
