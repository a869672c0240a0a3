// The small grey-level helpers shared by the sensor's capture paths and the
// image processor: integer levels, products truncated toward zero, clamping
// to the byte range, and the lane-wise difference of the vector kernels.
#ifndef TAVK05_GREY_LEVEL_H
#define TAVK05_GREY_LEVEL_H

#include <emmintrin.h>  // SSE2: part of both the x86_64 and the i386 (-msse2) ABI

namespace greylevel {

// A product formed in double (exact for grey levels times a float factor),
// truncated toward zero and limited to 0..nCeiling. Anything below 1,
// negative values and NaN included, becomes 0.
inline unsigned char Truncate(double x, int nCeiling = 255)
{
    if (!(x >= 1.0)) return 0;
    if (x >= static_cast<double>(nCeiling)) return static_cast<unsigned char>(nCeiling);
    return static_cast<unsigned char>(static_cast<int>(x));
}

// d = background - frame, limited below by 0 (it cannot exceed 255).
inline int Darkening(unsigned char byBackground, unsigned char byFrame)
{
    const int d = static_cast<int>(byBackground) - static_cast<int>(byFrame);
    return d < 0 ? 0 : d;
}

// The live view's level of a darkening d: 255 - 3d, limited below by 0.
inline int Lightness(int d)
{
    const int v = 255 - 3 * d;
    return v < 0 ? 0 : v;
}

// |a - b| of unsigned bytes, lane by lane.
inline __m128i AbsDiff(__m128i a, __m128i b)
{
    return _mm_or_si128(_mm_subs_epu8(a, b), _mm_subs_epu8(b, a));
}

}  // namespace greylevel

#endif
