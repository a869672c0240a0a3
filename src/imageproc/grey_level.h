// The small grey-level helpers shared by the sensor's capture paths and the
// image processor: integer levels, products truncated toward zero, clamping
// to the byte range (the vector kernels' helpers are in grey_level_sse2.h).
#ifndef TAVK05_GREY_LEVEL_H
#define TAVK05_GREY_LEVEL_H

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

}  // namespace greylevel

#endif
