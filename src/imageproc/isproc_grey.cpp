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
#include "imageproc/kernels.h"
#include "tavk05/isproc.h"

#include <cstring>

namespace {

inline unsigned char GreyOf(unsigned nMajor, unsigned nMinor)
{
    return static_cast<unsigned char>((nMajor + (nMinor >> 1)) / 3);
}

// Grey pixels 0 .. w-2 of row y from rows y and y+1 of the mosaic, and the
// copied last column. w >= 1.
void GreyRowWhole(const unsigned char* pTop, const unsigned char* pBottom, unsigned char* pOut, int nWidth, int nRow)
{
    const size_t nCount = static_cast<size_t>(nWidth - 1);  // pixels with a full 2 x 2 block
    // Parity of x + y at x = 0: 0 means pixel 0 uses (A + B / 2) / 3.
    const int nRowParity = nRow & 1;
    size_t x = 0;
#if defined(__SSE2__)
    x = imageproc::GreyRowSse2(pTop, pBottom, pOut, nCount, nRowParity);
#endif
    imageproc::GreyRow(pTop, pBottom, pOut, x, nCount, nRowParity);
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
        GreyRowWhole(pSrc + nOffset, pSrc + nOffset + nWidth, pDst + nOffset, nWidth, y);
        nLast = y;
    }
    if (nLast >= 0) CopyRow(pSrc, pDst, nWidth, nLast + 1);
}

}  // namespace

void imageproc::GreyRow(const unsigned char* pTop, const unsigned char* pBottom, unsigned char* pOut, size_t nFrom,
                        size_t n, int nParity)
{
    for (size_t x = nFrom; x < n; ++x) {
        const unsigned a = static_cast<unsigned>(pTop[x]) + pBottom[x + 1];
        const unsigned b = static_cast<unsigned>(pTop[x + 1]) + pBottom[x];
        pOut[x] = ((x + static_cast<size_t>(nParity)) & 1) == 0 ? GreyOf(a, b) : GreyOf(b, a);
    }
}

// Every destination pixel is written (the converted rows, their last
// columns and the copied last row), so the fill with 255 that would precede
// the conversion is never visible and is not done.
void CImageProc::RGBtoGRAY(unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight)
{
    if (pSrc == nullptr || pDst == nullptr || nWidth <= 0 || nHeight <= 0) return;
    for (int y = 0; y <= nHeight - 2; ++y) {
        const long nOffset = static_cast<long>(y) * nWidth;
        GreyRowWhole(pSrc + nOffset, pSrc + nOffset + nWidth, pDst + nOffset, nWidth, y);
    }
    CopyRow(pSrc, pDst, nWidth, nHeight - 1);
}

// Odd rows first, then even rows, each pass followed by the copy of the row
// below its last row. For even heights the second copy is the last row and
// the first one is overwritten by the second pass, so the result equals
// RGBtoGRAY; for odd heights row h - 2 ends as a copy of the mosaic.
void CImageProc::RGBtoGRAY2(unsigned char* pSrc, unsigned char* pDst, int nWidth, int nHeight)
{
    if (pSrc == nullptr || pDst == nullptr || nWidth <= 0 || nHeight <= 0) return;
    if (nHeight == 1) {
        CopyRow(pSrc, pDst, nWidth, 0);
        return;
    }
    GreyPass(pSrc, pDst, nWidth, nHeight, 1);
    GreyPass(pSrc, pDst, nWidth, nHeight, 0);
}
