// Plain transcriptions of the image algorithms, written for clarity and not
// for speed: full-size scratch copies, a canvas and a separate crop, the
// visiting orders as described. The optimised library code must reproduce
// them bit for bit.
#ifndef TAVK05_TESTS_IMAGEPROC_REFERENCE_H
#define TAVK05_TESTS_IMAGEPROC_REFERENCE_H

#include "tavk05/isproc.h"

#include <cstddef>
#include <string>
#include <vector>

namespace ref {

typedef std::vector<unsigned char> Bytes;

// Mosaic to grey, rows top to bottom and columns left to right.
void RGBtoGRAY(const unsigned char* pSrc, unsigned char* pDst, int w, int h);
// Mosaic to grey, odd rows then even rows; in a row odd columns, the last
// column, then even columns; the row below each pass copied.
void RGBtoGRAY2(const unsigned char* pSrc, unsigned char* pDst, int w, int h);

// Left-right mirror through a scratch copy.
void Mirror(unsigned char* pImage, int w, int h);

// Table lookup correction for the given device type.
int CorrectImage(int nDeviceType, const unsigned char* pSrc, unsigned long nSrcWidth, unsigned long nSrcHeight,
                 unsigned char* pDst, unsigned long nDstWidth, unsigned long nDstHeight, unsigned long nOffsetX,
                 unsigned long nOffsetY);

// Interpolating corrections over the processor's modify tables. The canvas
// starts filled with byFill, so that two runs with different fills show
// whether every cropped pixel is computed.
int CorrectImageCalc(const CImageProc& proc, const unsigned char* pSrc, unsigned char* pDst,
                     unsigned long nDstWidth, unsigned long nDstHeight, unsigned char byFill = 0);
int CorrectImageCalcEx(const CImageProc& proc, const unsigned char* pSrc, unsigned long nSrcWidth,
                       unsigned long nSrcHeight, unsigned char* pDst, unsigned long nDstWidth,
                       unsigned long nDstHeight, unsigned char byFill = 0);

} // namespace ref

namespace testutil {

// Deterministic pseudo-random bytes.
ref::Bytes RandomBytes(size_t n, unsigned nSeed);

// Empty when equal, else a description of the first difference.
std::string FirstDifference(const unsigned char* pA, const unsigned char* pB, size_t n, int nWidth);

// The processor shared by the tests that only read it (construction builds
// about 48 MB of tables).
CImageProc& SharedProc();

} // namespace testutil

#endif
