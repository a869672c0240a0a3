// Colour-filter mosaic to grey. Each grey pixel is the mean of the red, the
// blue and the averaged green sample of the 2 x 2 block whose top-left sample
// it is; the last column and the last row are copied from the mosaic.
//
// In the block of pixel (x, y), A = TL + BR and B = TR + BL. Where x + y is
// even, TL and BR are red and blue and TR, BL green: grey = (A + B / 2) / 3.
// Where x + y is odd the roles swap: grey = (B + A / 2) / 3. Both divisions
// truncate. Every pixel depends on the source alone, so rows and columns can
// be computed in any order; the two operations differ only in the order
// their callers know them by.
#include "tavk05/isproc.h"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

// (v * 21846) >> 16 equals v / 3 for every v from 0 to 765 (the error term
// v / 98304 stays below 1/3), which covers every sum formed here.
const unsigned kThirdMul = 21846;

inline unsigned char GreyOf(unsigned nMajor, unsigned nMinor)
{
    return static_cast<unsigned char>((nMajor + (nMinor >> 1)) / 3);
}

// Grey pixels 0 .. w-2 of row y from rows y and y+1 of the mosaic, and the
// copied last column. w >= 1.
void GreyRow(const unsigned char* pTop, const unsigned char* pBottom, unsigned char* pOut, int nWidth,
             int nRow)
{
    const int nCount = nWidth - 1;  // pixels with a full 2 x 2 block
    // Parity of x + y at x = 0: 0 means pixel 0 uses (A + B / 2) / 3.
    const int nRowParity = nRow & 1;
    int x = 0;
#if defined(__SSE2__)
    {
        // Eight pixel pairs (x even, x + 1) per 16-bit lane: the low byte
        // of a lane loaded at x is the even pixel's sample, the high byte
        // the odd pixel's. The even pixel's TR is the odd pixel's TL and
        // the even pixel's BR the odd pixel's BL, so four loads give all
        // samples: TL/TR(even) from top[x], TR(odd) from top[x + 1],
        // BL/BR(even) from bottom[x], BR(odd) from bottom[x + 1].
        const __m128i lowByte = _mm_set1_epi16(0x00FF);
        const __m128i third = _mm_set1_epi16(static_cast<short>(kThirdMul));
        // Reads reach x + 16, so a block needs x + 16 <= nCount.
        for (; x + 16 <= nCount; x += 16) {
            const __m128i t0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pTop + x));
            const __m128i t1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pTop + x + 1));
            const __m128i b0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pBottom + x));
            const __m128i b1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pBottom + x + 1));
            const __m128i topEven = _mm_and_si128(t0, lowByte);   // TL of the even pixel
            const __m128i topOdd = _mm_srli_epi16(t0, 8);         // TR even = TL odd
            const __m128i topNext = _mm_srli_epi16(t1, 8);        // TR of the odd pixel
            const __m128i botEven = _mm_and_si128(b0, lowByte);   // BL of the even pixel
            const __m128i botOdd = _mm_srli_epi16(b0, 8);         // BR even = BL odd
            const __m128i botNext = _mm_srli_epi16(b1, 8);        // BR of the odd pixel
            const __m128i aEven = _mm_add_epi16(topEven, botOdd);  // TL + BR
            const __m128i bEven = _mm_add_epi16(topOdd, botEven);  // TR + BL
            const __m128i aOdd = _mm_add_epi16(topOdd, botNext);
            const __m128i bOdd = _mm_add_epi16(topNext, botOdd);
            __m128i sumEven;
            __m128i sumOdd;
            if (nRowParity == 0) {  // even x: x + y even
                sumEven = _mm_add_epi16(aEven, _mm_srli_epi16(bEven, 1));
                sumOdd = _mm_add_epi16(bOdd, _mm_srli_epi16(aOdd, 1));
            } else {
                sumEven = _mm_add_epi16(bEven, _mm_srli_epi16(aEven, 1));
                sumOdd = _mm_add_epi16(aOdd, _mm_srli_epi16(bOdd, 1));
            }
            const __m128i greyEven = _mm_mulhi_epu16(sumEven, third);
            const __m128i greyOdd = _mm_mulhi_epu16(sumOdd, third);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(pOut + x), _mm_or_si128(greyEven, _mm_slli_epi16(greyOdd, 8)));
        }
    }
#endif
    for (; x < nCount; ++x) {
        const unsigned a = static_cast<unsigned>(pTop[x]) + pBottom[x + 1];
        const unsigned b = static_cast<unsigned>(pTop[x + 1]) + pBottom[x];
        pOut[x] = ((x + nRowParity) & 1) == 0 ? GreyOf(a, b) : GreyOf(b, a);
    }
    pOut[nCount] = pTop[nCount];
}

inline void CopyRow(const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nRow)
{
    const long nOffset = static_cast<long>(nRow) * nWidth;
    std::memcpy(pDst + nOffset, pSrc + nOffset, static_cast<size_t>(nWidth));
}

// Converts the rows first, first + 2, ... up to h - 2, then copies the row
// below the last of them. A pass without rows copies nothing.
void GreyPass(const unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight, int nFirst)
{
    int nLast = -1;
    for (int y = nFirst; y <= nHeight - 2; y += 2) {
        const long nOffset = static_cast<long>(y) * nWidth;
        GreyRow(pSrc + nOffset, pSrc + nOffset + nWidth, pDst + nOffset, nWidth, y);
        nLast = y;
    }
    if (nLast >= 0)
        CopyRow(pSrc, pDst, nWidth, nLast + 1);
}

} // namespace

// Every destination pixel is written (the converted rows, their last
// columns and the copied last row), so the fill with 255 that would precede
// the conversion is never visible and is not done.
void CImageProc::RGBtoGRAY(unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight)
{
    if (pSrc == nullptr || pDst == nullptr || nWidth <= 0 || nHeight <= 0)
        return;
    for (int y = 0; y <= nHeight - 2; ++y) {
        const long nOffset = static_cast<long>(y) * nWidth;
        GreyRow(pSrc + nOffset, pSrc + nOffset + nWidth, pDst + nOffset, nWidth, y);
    }
    CopyRow(pSrc, pDst, nWidth, nHeight - 1);
}

// Odd rows first, then even rows, each pass followed by the copy of the row
// below its last row. For even heights the second copy is the last row and
// the first one is overwritten by the second pass, so the result equals
// RGBtoGRAY; for odd heights row h - 2 ends as a copy of the mosaic.
void CImageProc::RGBtoGRAY2(unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight)
{
    if (pSrc == nullptr || pDst == nullptr || nWidth <= 0 || nHeight <= 0)
        return;
    if (nHeight == 1) {
        CopyRow(pSrc, pDst, nWidth, 0);
        return;
    }
    GreyPass(pSrc, pDst, nWidth, nHeight, 1);
    GreyPass(pSrc, pDst, nWidth, nHeight, 0);
}
