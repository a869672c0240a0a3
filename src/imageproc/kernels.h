// Internal to the library: the row kernels of the 3 x 3 filters, the grey
// conversion, the quality profiles and the rolled composition, each as a
// plain loop (the reference) and, where the build has SSE2, as a vector
// kernel that does a leading part of the row and returns how many pixels it
// did; the plain loop then finishes the rest. The vector kernels give the
// plain loop's results bit for bit.
#ifndef TAVK05_SRC_IMAGEPROC_KERNELS_H
#define TAVK05_SRC_IMAGEPROC_KERNELS_H

#include <cstddef>
#include <cstdint>

namespace imageproc {

// Three source rows of a 3 x 3 neighbourhood: above, centre, below.
struct Rows3 {
    const unsigned char* pAbove;
    const unsigned char* pCentre;
    const unsigned char* pBelow;
};

// pOut[c], for c from nFrom to n - 1, from the 3 x 3 block whose top-left
// sample is column c of the three rows (which have n + 2 columns):
// Mean3Row the sum of the nine samples divided by 9, truncated;
// Median3Row the fifth of the nine in sorted order.
void Mean3Row(const Rows3& rows, unsigned char* pOut, size_t nFrom, size_t n);
void Median3Row(const Rows3& rows, unsigned char* pOut, size_t nFrom, size_t n);

#if defined(__SSE2__)
size_t Mean3RowSse2(const Rows3& rows, unsigned char* pOut, size_t n);
size_t Median3RowSse2(const Rows3& rows, unsigned char* pOut, size_t n);
#endif

// Grey pixels x from nFrom to n - 1 of a mosaic row pair: with A = top[x] +
// bottom[x + 1] and B = top[x + 1] + bottom[x], (A + B / 2) / 3 where x +
// nParity is even, else (B + A / 2) / 3 (isproc_grey.cpp).
void GreyRow(const unsigned char* pTop, const unsigned char* pBottom, unsigned char* pOut, size_t nFrom, size_t n,
             int nParity);

// For x from nFrom to n - 1 (the centre row readable at x - 1 and x + 1):
// GradientRow adds |centre[x - 1] - centre[x + 1]| to nRowSum and
// |above[x] - below[x]| to pColSum[x]; ActivityRow adds 1 to pCount[x]
// where either difference exceeds byStep.
void GradientRow(const Rows3& rows, uint16_t* pColSum, size_t nFrom, size_t n, unsigned& nRowSum);
void ActivityRow(const Rows3& rows, uint16_t* pCount, unsigned char byStep, size_t nFrom, size_t n);

// pDiff[k] += (pXIn[k] - pYIn[k]) - (pXOut[k] - pYOut[k]), in 16 bits, for k
// from nFrom to n - 1.
void AddColumnDiff(int16_t* pDiff, const unsigned char* pXIn, const unsigned char* pYIn, const unsigned char* pXOut,
                   const unsigned char* pYOut, size_t nFrom, size_t n);

// pDst[k] = pSrc[k] where pTake[k] is not 0, for k from nFrom to n - 1.
void TakeWhere(unsigned char* pDst, const unsigned char* pSrc, const unsigned char* pTake, size_t nFrom, size_t n);

#if defined(__SSE2__)
size_t GreyRowSse2(const unsigned char* pTop, const unsigned char* pBottom, unsigned char* pOut, size_t n, int nParity);
size_t GradientRowSse2(const Rows3& rows, uint16_t* pColSum, size_t n, unsigned& nRowSum);
size_t ActivityRowSse2(const Rows3& rows, uint16_t* pCount, unsigned char byStep, size_t n);
size_t AddColumnDiffSse2(int16_t* pDiff, const unsigned char* pXIn, const unsigned char* pYIn,
                         const unsigned char* pXOut, const unsigned char* pYOut, size_t n);
size_t TakeWhereSse2(unsigned char* pDst, const unsigned char* pSrc, const unsigned char* pTake, size_t n);
#endif

// Whole filters of the interior of a w x h image (rows and columns 1 to
// side - 2), in place; the border stays. They read only the unchanged image.
// False, with the image left as it was, when the row scratch cannot be had.
bool Mean3x3(unsigned char* pImage, size_t w, size_t h);
bool Median3x3(unsigned char* pImage, size_t w, size_t h);

}  // namespace imageproc

#endif
