// Internal to the library: the loops of the whole-image enhancements
// (Histoequal and Final), each as a plain loop (the reference) and, where the
// build has SSE2, as a vector kernel that does a leading part of the work
// and returns how much it did; the plain loop then finishes the rest. The
// vector kernels give the plain loops' results bit for bit.
#ifndef TAVK05_SRC_IMAGEPROC_ENHANCE_H
#define TAVK05_SRC_IMAGEPROC_ENHANCE_H

#include <cstddef>
#include <cstdint>

namespace imageproc {

// Levels from this one up become 255 in Histoequal whatever the histogram:
// their counts are not needed.
const unsigned kHistoWhite = 245;

// Adds to anHist[g] the number of pixels p[nFrom .. n - 1] of each level g
// below kHistoWhite; the counts of brighter levels are left as they are.
void CountDarkLevels(const unsigned char* p, size_t nFrom, size_t n, uint32_t (&anHist)[256]);

// Replaces p[i], for i from nFrom to n - 1, by ucMap[p[i]].
void MapLevels(unsigned char* p, size_t nFrom, size_t n, const unsigned char (&ucMap)[256]);

// The map of two levels at once: entry a + 256 b (the little-endian 16-bit
// word of the levels a, b) holds ucMap[a] + 256 ucMap[b]. pPairs has room
// for 65536 entries.
void BuildPairMap(const unsigned char (&ucMap)[256], uint16_t* pPairs);

// The sum of |p[i] - byRef| over i from nFrom to n - 1 (with byRef 0, the
// sum of the levels).
uint64_t SumAbsDiff(const unsigned char* p, size_t nFrom, size_t n, unsigned char byRef);

// pOut[i] = |pA[i] - pB[i]| for i from nFrom to n - 1.
void AbsDiffBytes(const unsigned char* pA, const unsigned char* pB, unsigned char* pOut, size_t nFrom, size_t n);

// pSum[c] += pAdd[c] - pSub[c] for c from nFrom to n - 1: the column sums of
// a square mean as a row enters it and another leaves.
void AddColumnRow(uint16_t* pSum, const unsigned char* pAdd, const unsigned char* pSub, size_t nFrom, size_t n);

// One output row of a square mean of side 2 nHalf + 1 over an image n
// columns wide: pOut[c] is the sum of pColSum over the columns c - nHalf
// to c + nHalf that lie in the image, divided by nRows times their number
// (integer division). The column sums hold nRows rows each.
struct BoxRow {
    const uint16_t* pColSum;
    size_t n;
    unsigned nHalf;
    unsigned nRows;
    unsigned char* pOut;
};

// Columns nFrom to nTo - 1 of the row.
void BoxMeanRow(const BoxRow& row, size_t nFrom, size_t nTo);

// Final's normalisation of the levels to a mean of 150 and a mean absolute
// deviation of 75: level g becomes 150 + 75 (g - nMean) / nMad, the
// quotient of the distance truncated, clamped to 0..255 (nMad at least 1).
void BuildNormTable(int nMean, int nMad, unsigned char (&ucNorm)[256]);

// pOut[i] = ucNorm[pIn[i]] for i from nFrom to n - 1.
void NormaliseLevels(const unsigned char* pIn, unsigned char* pOut, size_t nFrom, size_t n,
                     const unsigned char (&ucNorm)[256]);

// pImage[i] = 255 where pMean[i] > nMeanFloor and pDev[i] < nDevCeiling,
// for i from nFrom to n - 1 (Final's last step).
void WhitenFlat(unsigned char* pImage, const unsigned char* pMean, const unsigned char* pDev, int nMeanFloor,
                int nDevCeiling, size_t nFrom, size_t n);

#if defined(__SSE2__)
// Each does elements 0 to some count, a multiple of 16 (of 8 for the
// square mean: its columns run from nHalf on), and returns that count.
size_t CountDarkLevelsSse2(const unsigned char* p, size_t n, uint32_t (&anHist)[256]);
// pPairs, when not null, is the pair map of ucMap.
size_t MapLevelsSse2(unsigned char* p, size_t n, const unsigned char (&ucMap)[256], const uint16_t* pPairs);
// Computes the table of BuildNormTable(nMean, nMad) level by level rather
// than looking it up: nMean 0 to 255, nMad 1 to 255, else it does nothing.
size_t NormaliseLevelsSse2(const unsigned char* pIn, unsigned char* pOut, size_t n, int nMean, int nMad);
size_t SumAbsDiffSse2(const unsigned char* p, size_t n, unsigned char byRef, uint64_t& nSum);
size_t AbsDiffBytesSse2(const unsigned char* pA, const unsigned char* pB, unsigned char* pOut, size_t n);
size_t AddColumnRowSse2(uint16_t* pSum, const unsigned char* pAdd, const unsigned char* pSub, size_t n);
// Columns nHalf to nHalf + the returned count - 1: whole squares only.
size_t BoxMeanRowSse2(const BoxRow& row);
size_t WhitenFlatSse2(unsigned char* pImage, const unsigned char* pMean, const unsigned char* pDev, int nMeanFloor,
                      int nDevCeiling, size_t n);
#endif

}  // namespace imageproc

#endif
