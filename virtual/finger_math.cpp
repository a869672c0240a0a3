// Portable transcendental functions of the synthetic finger (see finger_math.h).
#include "finger_math.h"

#include <cmath>

namespace tavk05virt {
namespace fmath {

double Exp(double x)
{
    if (x < -700.0) return 0.0;
    if (x > 700.0) x = 700.0;
    // e^x = 2^k * e^r with |r| <= ln2 / 2; 2^k is built exactly by squaring.
    const double kLn2 = 0.69314718055994530942;
    const double fK = x / kLn2;
    int nK = static_cast<int>(fK < 0.0 ? fK - 0.5 : fK + 0.5);
    const double r = x - nK * kLn2;
    // Taylor series to r^13: the remainder is below 1e-16 for |r| <= 0.35.
    double fTerm = 1.0;
    double fSum = 1.0;
    for (int i = 1; i <= 13; ++i) {
        fTerm *= r / i;
        fSum += fTerm;
    }
    double fScale = 1.0;
    double fBase = nK < 0 ? 0.5 : 2.0;
    unsigned nExp = static_cast<unsigned>(nK < 0 ? -nK : nK);
    while (nExp) {
        if (nExp & 1u) fScale *= fBase;
        fBase *= fBase;
        nExp >>= 1;
    }
    return fSum * fScale;
}

namespace {

// Reduces x to [-pi, pi].
double ReduceAngle(double x)
{
    const double kTwoPi = 2.0 * kPi;
    const double fTurns = x / kTwoPi;
    const double fRound = static_cast<double>(static_cast<long long>(fTurns < 0.0 ? fTurns - 0.5 : fTurns + 0.5));
    return x - fRound * kTwoPi;
}

// cos x for |x| <= pi/4 (series to x^16).
double CosKernel(double x)
{
    const double x2 = x * x;
    double fTerm = 1.0;
    double fSum = 1.0;
    for (int i = 1; i <= 8; ++i) {
        fTerm *= -x2 / ((2 * i - 1) * (2 * i));
        fSum += fTerm;
    }
    return fSum;
}

// sin x for |x| <= pi/4 (series to x^17).
double SinKernel(double x)
{
    const double x2 = x * x;
    double fTerm = x;
    double fSum = x;
    for (int i = 1; i <= 8; ++i) {
        fTerm *= -x2 / ((2 * i) * (2 * i + 1));
        fSum += fTerm;
    }
    return fSum;
}

// atan x for 0 <= x <= 1: argument halving twice, then the series.
double AtanUnit(double x)
{
    // atan x = 2 atan(x / (1 + sqrt(1 + x^2))); twice brings x below 0.2.
    double fHalf = x;
    for (int i = 0; i < 2; ++i) {
        // The square root is correctly rounded on every IEEE platform.
        const double fRoot = std::sqrt(1.0 + fHalf * fHalf);
        fHalf = fHalf / (1.0 + fRoot);
    }
    const double x2 = fHalf * fHalf;
    double fPower = fHalf;
    double fSum = fHalf;
    for (int i = 1; i <= 12; ++i) {
        fPower *= -x2;
        fSum += fPower / (2 * i + 1);
    }
    return 4.0 * fSum;
}

}  // namespace

double Cos(double x)
{
    x = ReduceAngle(x);
    const double ax = x < 0.0 ? -x : x;
    if (ax <= kPi / 4.0) return CosKernel(ax);
    if (ax <= 3.0 * kPi / 4.0) return SinKernel(kPi / 2.0 - ax);
    return -CosKernel(kPi - ax);
}

double Sin(double x) { return Cos(x - kPi / 2.0); }

double Atan2(double y, double x)
{
    if (x == 0.0 && y == 0.0) return 0.0;
    const double ax = x < 0.0 ? -x : x;
    const double ay = y < 0.0 ? -y : y;
    double fAngle = ay <= ax ? AtanUnit(ay / ax) : kPi / 2.0 - AtanUnit(ax / ay);
    if (x < 0.0) fAngle = kPi - fAngle;
    return y < 0.0 ? -fAngle : fAngle;
}

}  // namespace fmath
}  // namespace tavk05virt
