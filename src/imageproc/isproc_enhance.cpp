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

void BuildNormTable(int nMean, int nMad, unsigned char (&ucNorm)[256])
{
    for (int p = 0; p < 256; ++p) {
        const int a = p > nMean ? 150 + (75 * (p - nMean)) / nMad : 150 - (75 * (nMean - p)) / nMad;
        ucNorm[p] = (unsigned char)(a < 0 ? 0 : (a > 255 ? 255 : a));
    }
}

void NormaliseLevels(const unsigned char* pIn, unsigned char* pOut, size_t nFrom, size_t n,
                     const unsigned char (&ucNorm)[256])
{
    for (size_t i = nFrom; i < n; ++i) pOut[i] = ucNorm[pIn[i]];
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

// One output row of the clipped 17 x 17 square mean over the column sums
// of the nRows rows inside the squares.
void BoxMeanRowAll(const uint16_t* pColSum, unsigned nRows, unsigned char* pOut)
{
    const BoxRow row = {pColSum, IMG_WIDTH, BOX_HALF, nRows, pOut};
    size_t nDone = 0;
#if defined(__SSE2__)
    nDone = BoxMeanRowSse2(row);
#endif
    BoxMeanRow(row, 0, BOX_HALF);
    BoxMeanRow(row, BOX_HALF + nDone, IMG_WIDTH);
}

// One row of levels through Final's normalisation.
void NormaliseRow(const unsigned char* pIn, unsigned char* pOut, int nMean, int nMad,
                  const unsigned char (&ucNorm)[256])
{
    size_t nDone = 0;
#if defined(__SSE2__)
    nDone = NormaliseLevelsSse2(pIn, pOut, IMG_WIDTH, nMean, nMad);
#else
    (void)nMean;
    (void)nMad;
#endif
    NormaliseLevels(pIn, pOut, nDone, IMG_WIDTH, ucNorm);
}

// Final's work rows: the window of normalised rows and of their distances
// from the local mean that the two square means cover (17 rows and the one
// leaving), the local means still to be compared, the local deviation of
// one row, a row of zeros (the row entering or leaving where none does) and
// the two sets of running column sums (at most 17 x 255: 16 bits hold them).
// About 30 KB, so the rows stay in the first-level cache as they pass
// through every step.
class FinalRows {
public:
    static const int kWindow = 2 * BOX_HALF + 2;  // rows t - 17 .. t
    static const int kMeans = BOX_HALF + 1;       // rows t - 8 .. t

    bool Allocate()
    {
        const size_t nBytes = static_cast<size_t>(2 * kWindow + kMeans + 2) * IMG_WIDTH;
        m_pBytes.reset(new (std::nothrow) unsigned char[nBytes]());
        m_pSums.reset(new (std::nothrow) uint16_t[2 * IMG_WIDTH]());
        return m_pBytes && m_pSums;
    }
    unsigned char* Norm(int nRow) { return m_pBytes.get() + (nRow % kWindow) * IMG_WIDTH; }
    unsigned char* Distance(int nRow) { return m_pBytes.get() + (kWindow + nRow % kWindow) * IMG_WIDTH; }
    unsigned char* Mean(int nRow) { return m_pBytes.get() + (2 * kWindow + nRow % kMeans) * IMG_WIDTH; }
    unsigned char* Deviation() { return m_pBytes.get() + (2 * kWindow + kMeans) * IMG_WIDTH; }
    const unsigned char* Zero() const { return m_pBytes.get() + (2 * kWindow + kMeans + 1) * IMG_WIDTH; }
    uint16_t* MeanSums() { return m_pSums.get(); }
    uint16_t* DeviationSums() { return m_pSums.get() + IMG_WIDTH; }

private:
    std::unique_ptr<unsigned char[]> m_pBytes;
    std::unique_ptr<uint16_t[]> m_pSums;
};

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

    FinalRows rows;
    if (!rows.Allocate()) return;
    unsigned char ucNorm[256];
    BuildNormTable(nMean, nMad, ucNorm);

    // The mean of the normalised image, a row at a time through one work row.
    uint64_t nNormSum = 0;
    for (int r = 0; r < IMG_HEIGHT; ++r) {
        NormaliseRow(pImage + r * IMG_WIDTH, rows.Deviation(), nMean, nMad, ucNorm);
        nNormSum += SumAbsDiffAll(rows.Deviation(), IMG_WIDTH, 0);
    }
    const int nNormMean = (int)(nNormSum / IMG_PIXELS);

    // Then one pass down the image: at step t the normalised row t + 8
    // enters the local mean's squares and row t - 9 leaves them, giving the
    // local mean of row t and the distance of row t from it; the distance
    // row t enters the deviation's squares and row t - 17 leaves them, giving
    // the deviation of row t - 8, which is then cleaned. A cleaned row is not
    // read again: the rows normalised after it lie below it.
    for (int r = 0; r < BOX_HALF; ++r) {
        NormaliseRow(pImage + r * IMG_WIDTH, rows.Norm(r), nMean, nMad, ucNorm);
        AddRow(rows.MeanSums(), rows.Norm(r), rows.Zero());
    }
    unsigned nMeanRows = BOX_HALF, nDevRows = 0;
    for (int t = 0; t < IMG_HEIGHT + BOX_HALF; ++t) {
        if (t < IMG_HEIGHT) {
            const int nIn = t + BOX_HALF, nLeave = t - BOX_HALF - 1;
            const unsigned char* pIn = rows.Zero();
            if (nIn < IMG_HEIGHT) {
                NormaliseRow(pImage + nIn * IMG_WIDTH, rows.Norm(nIn), nMean, nMad, ucNorm);
                pIn = rows.Norm(nIn);
                ++nMeanRows;
            }
            const unsigned char* pLeave = rows.Zero();
            if (nLeave >= 0) {
                pLeave = rows.Norm(nLeave);
                --nMeanRows;
            }
            AddRow(rows.MeanSums(), pIn, pLeave);
            BoxMeanRowAll(rows.MeanSums(), nMeanRows, rows.Mean(t));
            size_t nDone = 0;
#if defined(__SSE2__)
            nDone = AbsDiffBytesSse2(rows.Norm(t), rows.Mean(t), rows.Distance(t), IMG_WIDTH);
#endif
            AbsDiffBytes(rows.Norm(t), rows.Mean(t), rows.Distance(t), nDone, IMG_WIDTH);
            ++nDevRows;
        }
        const int nLeave = t - 2 * BOX_HALF - 1;
        if (nLeave >= 0) --nDevRows;
        AddRow(rows.DeviationSums(), t < IMG_HEIGHT ? rows.Distance(t) : rows.Zero(),
               nLeave >= 0 ? rows.Distance(nLeave) : rows.Zero());
        const int nOut = t - BOX_HALF;
        if (nOut < 0) continue;
        BoxMeanRowAll(rows.DeviationSums(), nDevRows, rows.Deviation());
        unsigned char* const pRow = pImage + nOut * IMG_WIDTH;
        size_t nDone = 0;
#if defined(__SSE2__)
        nDone = WhitenFlatSse2(pRow, rows.Mean(nOut), rows.Deviation(), nNormMean, 20, IMG_WIDTH);
#endif
        WhitenFlat(pRow, rows.Mean(nOut), rows.Deviation(), nNormMean, 20, nDone, IMG_WIDTH);
    }
}
