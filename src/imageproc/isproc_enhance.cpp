// Whole-image grey-level operations a host can apply to a finished image:
// histogram stretching of the darkest fifth, and cleaning of bright flat
// background around the ridges. The plain loops are here, their vector
// kernels in enhance_sse2.cpp.
#include "imageproc/enhance.h"
#include "tavk05/isproc.h"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>

namespace imageproc {

void CountDarkLevels(const unsigned char* p, size_t nFrom, size_t n, uint32_t (&anHist)[256])
{
    for (size_t i = nFrom; i < n; ++i) anHist[p[i]] += p[i] < kHistoWhite ? 1 : 0;
}

void MapLevels(unsigned char* p, size_t nFrom, size_t n, const unsigned char (&ucMap)[256])
{
    for (size_t i = nFrom; i < n; ++i) p[i] = ucMap[p[i]];
}

void BuildPairMap(const unsigned char (&ucMap)[256], uint16_t* pPairs)
{
    for (unsigned b = 0; b < 256; ++b) {
        const uint16_t nHigh = static_cast<uint16_t>(ucMap[b] << 8);
        uint16_t* const pRow = pPairs + 256 * b;
        for (unsigned a = 0; a < 256; ++a) pRow[a] = static_cast<uint16_t>(nHigh | ucMap[a]);
    }
}

uint64_t SumAbsDiff(const unsigned char* p, size_t nFrom, size_t n, unsigned char byRef)
{
    uint64_t nSum = 0;
    for (size_t i = nFrom; i < n; ++i) nSum += static_cast<unsigned>(std::abs(p[i] - byRef));
    return nSum;
}

void AbsDiffBytes(const unsigned char* pA, const unsigned char* pB, unsigned char* pOut, size_t nFrom, size_t n)
{
    for (size_t i = nFrom; i < n; ++i) pOut[i] = static_cast<unsigned char>(std::abs(pA[i] - pB[i]));
}

void AddColumnRow(uint16_t* pSum, const unsigned char* pAdd, const unsigned char* pSub, size_t nFrom, size_t n)
{
    for (size_t c = nFrom; c < n; ++c) pSum[c] = static_cast<uint16_t>(pSum[c] + pAdd[c] - pSub[c]);
}

void BoxMeanRow(const BoxRow& row, size_t nFrom, size_t nTo)
{
    // The sum over the square of nFrom, then moved a column at a time.
    unsigned nSum = 0;
    size_t nFirst = nFrom >= row.nHalf ? nFrom - row.nHalf : 0;                   // first column inside
    size_t nEnd = nFrom + row.nHalf + 1 < row.n ? nFrom + row.nHalf + 1 : row.n;  // past the last
    for (size_t k = nFirst; k < nEnd; ++k) nSum += row.pColSum[k];
    for (size_t c = nFrom; c < nTo; ++c) {
        if (c > nFrom) {
            if (c + row.nHalf < row.n) nSum += row.pColSum[nEnd++];
            if (c > row.nHalf) nSum -= row.pColSum[nFirst++];
        }
        row.pOut[c] = static_cast<unsigned char>(nSum / (row.nRows * static_cast<unsigned>(nEnd - nFirst)));
    }
}

void WhitenFlat(unsigned char* pImage, const unsigned char* pMean, const unsigned char* pDev, int nMeanFloor,
                int nDevCeiling, size_t nFrom, size_t n)
{
    for (size_t i = nFrom; i < n; ++i) {
        if (pMean[i] > nMeanFloor && pDev[i] < nDevCeiling) pImage[i] = 255;
    }
}

}  // namespace imageproc

namespace {

using namespace imageproc;

const int BOX_HALF = 8;  // 17 x 17 neighbourhood

// Each loop whole: the vector kernel where there is one, the plain loop for
// the rest.
void AddRow(uint16_t* pSum, const unsigned char* pAdd, const unsigned char* pSub)
{
    size_t nDone = 0;
#if defined(__SSE2__)
    nDone = AddColumnRowSse2(pSum, pAdd, pSub, IMG_WIDTH);
#endif
    AddColumnRow(pSum, pAdd, pSub, nDone, IMG_WIDTH);
}

uint64_t SumAbsDiffAll(const unsigned char* p, size_t n, unsigned char byRef)
{
    uint64_t nSum = 0;
    size_t nDone = 0;
#if defined(__SSE2__)
    nDone = SumAbsDiffSse2(p, n, byRef, nSum);
#endif
    return nSum + SumAbsDiff(p, nDone, n, byRef);
}

// Mean of every clipped 17 x 17 square of a 600 x 600 image: column sums of
// the rows inside the square, kept running as rows enter and leave it (at
// most 17 x 255, so 16 bits hold them), and per output row the mean of
// those along the row. pColSum has room for 600 sums, pZero holds 600 zeros
// (the row that enters or leaves where none does).
void BoxMean17(const unsigned char* pSrc, unsigned char* pDst, uint16_t* pColSum, const unsigned char* pZero)
{
    for (int c = 0; c < IMG_WIDTH; ++c) pColSum[c] = 0;
    // Rows 0 to 7 enter before the first output row.
    unsigned nRows = 0;
    for (int nIn = 0; nIn < BOX_HALF; ++nIn, ++nRows) AddRow(pColSum, pSrc + nIn * IMG_WIDTH, pZero);
    for (int nOut = 0; nOut < IMG_HEIGHT; ++nOut) {
        const int nIn = nOut + BOX_HALF;
        const int nLeave = nOut - BOX_HALF - 1;
        const bool bIn = nIn < IMG_HEIGHT;
        const bool bLeave = nLeave >= 0;
        AddRow(pColSum, bIn ? pSrc + nIn * IMG_WIDTH : pZero, bLeave ? pSrc + nLeave * IMG_WIDTH : pZero);
        nRows = nRows + (bIn ? 1 : 0) - (bLeave ? 1 : 0);
        const BoxRow row = {pColSum, IMG_WIDTH, BOX_HALF, nRows, pDst + nOut * IMG_WIDTH};
        size_t nDone = 0;
#if defined(__SSE2__)
        nDone = BoxMeanRowSse2(row);
#endif
        BoxMeanRow(row, 0, BOX_HALF);
        BoxMeanRow(row, BOX_HALF + nDone, IMG_WIDTH);
    }
}

}  // namespace

// Spreads the darkest fifth of the grey levels over 0..254 and turns
// everything brighter, and every level of 245 or more, into 255. A null
// image or a non-positive size is left alone.
void CImageProc::Histoequal(unsigned char* pImage, int nWidth, int nHeight)
{
    if (pImage == nullptr || nWidth <= 0 || nHeight <= 0) return;
    const long long nPixels = (long long)nWidth * nHeight;

    // Counts of the levels below 245 only: nothing else reads the others.
    // Stretches short enough for 32-bit counts.
    long long nHist[256] = {0};
    const long long nStretch = 1LL << 30;
    for (long long nStart = 0; nStart < nPixels; nStart += nStretch) {
        const size_t n = static_cast<size_t>(nPixels - nStart < nStretch ? nPixels - nStart : nStretch);
        uint32_t anPart[256] = {0};
        size_t nDone = 0;
#if defined(__SSE2__)
        nDone = CountDarkLevelsSse2(pImage + nStart, n, anPart);
#endif
        CountDarkLevels(pImage + nStart, nDone, n, anPart);
        for (int g = 0; g < 256; ++g) nHist[g] += anPart[g];
    }

    const double dScale = 1280.0 / (double)nPixels;
    unsigned char ucMap[256];
    long long nCumulative = 0;
    for (int g = 0; g < 256; ++g) {
        nCumulative += nHist[g];
        if (g >= (int)kHistoWhite) {
            ucMap[g] = 255;
            continue;
        }
        const long long v = (long long)((double)nCumulative * dScale);
        ucMap[g] = (unsigned char)(v > 255 ? 255 : v);
    }
    // A large image is mapped two levels at a time; the 128 KB pair map
    // costs about what 16,000 pixels would.
    std::unique_ptr<uint16_t[]> pPairs;
    if (nPixels >= 65536) {
        pPairs.reset(new (std::nothrow) uint16_t[65536]);
        if (pPairs) BuildPairMap(ucMap, pPairs.get());
    }
    for (long long nStart = 0; nStart < nPixels; nStart += nStretch) {
        const size_t n = static_cast<size_t>(nPixels - nStart < nStretch ? nPixels - nStart : nStretch);
        size_t nDone = 0;
#if defined(__SSE2__)
        nDone = MapLevelsSse2(pImage + nStart, n, ucMap, pPairs.get());
#endif
        MapLevels(pImage + nStart, nDone, n, ucMap);
    }
}

// Background cleaning of a 600 x 600 image: the image is normalised to a
// mean of 150 and a mean absolute deviation of 75; wherever its local
// 17 x 17 mean is above the normalised image's mean and its local mean
// deviation is below 20 (bright and flat), the pixel becomes 255. Ridges
// keep their values. An image whose mean absolute deviation is below one
// grey level has no contrast to normalise and is left unchanged, as is the
// image when the work buffers cannot be allocated.
void CImageProc::Final(unsigned char* pImage)
{
    if (pImage == nullptr) return;

    const int nMean = (int)(SumAbsDiffAll(pImage, IMG_PIXELS, 0) / IMG_PIXELS);
    const int nMad = (int)(SumAbsDiffAll(pImage, IMG_PIXELS, (unsigned char)nMean) / IMG_PIXELS);
    if (nMad == 0) return;

    std::unique_ptr<unsigned char[]> pNorm(new (std::nothrow) unsigned char[IMG_PIXELS]);
    std::unique_ptr<unsigned char[]> pLocalMean(new (std::nothrow) unsigned char[IMG_PIXELS]);
    std::unique_ptr<unsigned char[]> pLocalDev(new (std::nothrow) unsigned char[IMG_PIXELS]);
    std::unique_ptr<uint16_t[]> pColSum(new (std::nothrow) uint16_t[IMG_WIDTH]);
    std::unique_ptr<unsigned char[]> pZero(new (std::nothrow) unsigned char[IMG_WIDTH]());
    if (!pNorm || !pLocalMean || !pLocalDev || !pColSum || !pZero) return;

    // Normalisation table: the result depends only on the grey level.
    unsigned char ucNorm[256];
    for (int p = 0; p < 256; ++p) {
        int a = p > nMean ? 150 + (75 * (p - nMean)) / nMad : 150 - (75 * (nMean - p)) / nMad;
        ucNorm[p] = (unsigned char)(a < 0 ? 0 : (a > 255 ? 255 : a));
    }
    for (int i = 0; i < IMG_PIXELS; i += 8) {
        // Eight levels a step.
#pragma GCC unroll 8
        for (int k = 0; k < 8; ++k) pNorm[i + k] = ucNorm[pImage[i + k]];
    }
    const int nNormMean = (int)(SumAbsDiffAll(pNorm.get(), IMG_PIXELS, 0) / IMG_PIXELS);

    BoxMean17(pNorm.get(), pLocalMean.get(), pColSum.get(), pZero.get());
    // The normalised image is not needed any more: it becomes |A - M|.
    size_t nDone = 0;
#if defined(__SSE2__)
    nDone = AbsDiffBytesSse2(pNorm.get(), pLocalMean.get(), pNorm.get(), IMG_PIXELS);
#endif
    AbsDiffBytes(pNorm.get(), pLocalMean.get(), pNorm.get(), nDone, IMG_PIXELS);
    BoxMean17(pNorm.get(), pLocalDev.get(), pColSum.get(), pZero.get());

    nDone = 0;
#if defined(__SSE2__)
    nDone = WhitenFlatSse2(pImage, pLocalMean.get(), pLocalDev.get(), nNormMean, 20, IMG_PIXELS);
#endif
    WhitenFlat(pImage, pLocalMean.get(), pLocalDev.get(), nNormMean, 20, nDone, IMG_PIXELS);
}
