// Whole-image grey-level operations a host can apply to a finished image:
// histogram stretching of the darkest fifth, and cleaning of bright flat
// background around the ridges.
#include "tavk05/isproc.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace {

const int BOX_HALF = 8;             // 17 x 17 neighbourhood
const int BOX_SIDE = 2 * BOX_HALF + 1;

// Mean of every clipped 17 x 17 square of a 600 x 600 image, with running
// column sums and a running row sum so that the cost per pixel does not
// depend on the square's size. pColSum has room for 600 ints.
void BoxMean17(const unsigned char* pSrc, unsigned char* pDst, int* pColSum)
{
    for (int c = 0; c < IMG_WIDTH; ++c)
        pColSum[c] = 0;
    int nRows = 0;
    for (int nIn = 0;; ++nIn) {
        if (nIn < IMG_HEIGHT) {
            const unsigned char* pRow = pSrc + nIn * IMG_WIDTH;
            for (int c = 0; c < IMG_WIDTH; ++c)
                pColSum[c] += pRow[c];
            ++nRows;
        }
        const int nLeave = nIn - BOX_SIDE;
        if (nLeave >= 0) {
            const unsigned char* pRow = pSrc + nLeave * IMG_WIDTH;
            for (int c = 0; c < IMG_WIDTH; ++c)
                pColSum[c] -= pRow[c];
            --nRows;
        }
        const int nOut = nIn - BOX_HALF;
        if (nOut >= IMG_HEIGHT)
            break;
        if (nOut < 0)
            continue;

        unsigned char* pOut = pDst + nOut * IMG_WIDTH;
        int nSum = 0;
        int nCols = 0;
        for (int cIn = 0;; ++cIn) {
            if (cIn < IMG_WIDTH) {
                nSum += pColSum[cIn];
                ++nCols;
            }
            const int cLeave = cIn - BOX_SIDE;
            if (cLeave >= 0) {
                nSum -= pColSum[cLeave];
                --nCols;
            }
            const int cOut = cIn - BOX_HALF;
            if (cOut >= IMG_WIDTH)
                break;
            if (cOut >= 0)
                pOut[cOut] = (unsigned char)(nSum / (nRows * nCols));
        }
    }
}

// Adds the grey-level counts of pImage[0 .. n - 1] to anHist. Four partial
// counts in turn let consecutive equal levels be counted without waiting on
// each other; each stretch is short enough for 32-bit counts.
void CountLevels(const unsigned char* pImage, long long n, long long (&anHist)[256])
{
    const long long nStretch = 1LL << 30;
    for (long long nDone = 0; nDone < n; nDone += nStretch) {
        const unsigned char* p = pImage + nDone;
        const size_t nCount = static_cast<size_t>(n - nDone < nStretch ? n - nDone : nStretch);
        unsigned anPart[4][256] = {{0}};
        size_t i = 0;
        for (; i + 8 <= nCount; i += 8) {
            uint32_t nLo, nHi;  // eight levels by two loads
            std::memcpy(&nLo, p + i, 4);
            std::memcpy(&nHi, p + i + 4, 4);
            ++anPart[0][nLo & 0xFF];
            ++anPart[1][(nLo >> 8) & 0xFF];
            ++anPart[2][(nLo >> 16) & 0xFF];
            ++anPart[3][nLo >> 24];
            ++anPart[0][nHi & 0xFF];
            ++anPart[1][(nHi >> 8) & 0xFF];
            ++anPart[2][(nHi >> 16) & 0xFF];
            ++anPart[3][nHi >> 24];
        }
        for (; i < nCount; ++i)
            ++anPart[0][p[i]];
        for (int g = 0; g < 256; ++g)
            anHist[g] += static_cast<long long>(anPart[0][g]) + anPart[1][g] + anPart[2][g] + anPart[3][g];
    }
}

// The four levels packed in a word, each replaced by its entry in ucMap.
inline uint32_t MapWord(uint32_t n, const unsigned char (&ucMap)[256])
{
    return ucMap[n & 0xFF] | static_cast<uint32_t>(ucMap[(n >> 8) & 0xFF]) << 8 |
           static_cast<uint32_t>(ucMap[(n >> 16) & 0xFF]) << 16 | static_cast<uint32_t>(ucMap[n >> 24]) << 24;
}

// Replaces every level of pImage[0 .. n - 1] by its entry in ucMap. Levels
// are read and their entries written four to a word, two words a step: a
// store per pixel would cost more than the lookups.
void MapLevels(unsigned char* pImage, long long n, const unsigned char (&ucMap)[256])
{
    long long i = 0;
    for (; i + 8 <= n; i += 8) {
        uint32_t anWord[2];
        std::memcpy(anWord, pImage + i, 8);
        anWord[0] = MapWord(anWord[0], ucMap);
        anWord[1] = MapWord(anWord[1], ucMap);
        std::memcpy(pImage + i, anWord, 8);
    }
    for (; i < n; ++i)
        pImage[i] = ucMap[pImage[i]];
}

} // namespace

// Spreads the darkest fifth of the grey levels over 0..254 and turns
// everything brighter, and every level of 245 or more, into 255. A null
// image or a non-positive size is left alone.
void CImageProc::Histoequal(unsigned char* pImage, int nWidth, int nHeight)
{
    if (pImage == nullptr || nWidth <= 0 || nHeight <= 0)
        return;
    const long long nPixels = (long long)nWidth * nHeight;

    long long nHist[256] = {0};
    CountLevels(pImage, nPixels, nHist);

    const double dScale = 1280.0 / (double)nPixels;
    unsigned char ucMap[256];
    long long nCumulative = 0;
    for (int g = 0; g < 256; ++g) {
        nCumulative += nHist[g];
        if (g >= 245) {
            ucMap[g] = 255;
            continue;
        }
        const long long v = (long long)((double)nCumulative * dScale);
        ucMap[g] = (unsigned char)(v > 255 ? 255 : v);
    }
    MapLevels(pImage, nPixels, ucMap);
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
    if (pImage == nullptr)
        return;

    long long nSum = 0;
    for (int i = 0; i < IMG_PIXELS; ++i)
        nSum += pImage[i];
    const int nMean = (int)(nSum / IMG_PIXELS);

    long long nAbsSum = 0;
    for (int i = 0; i < IMG_PIXELS; ++i)
        nAbsSum += std::abs(pImage[i] - nMean);
    const int nMad = (int)(nAbsSum / IMG_PIXELS);
    if (nMad == 0)
        return;

    std::unique_ptr<unsigned char[]> pNorm(new (std::nothrow) unsigned char[IMG_PIXELS]);
    std::unique_ptr<unsigned char[]> pLocalMean(new (std::nothrow) unsigned char[IMG_PIXELS]);
    std::unique_ptr<unsigned char[]> pLocalDev(new (std::nothrow) unsigned char[IMG_PIXELS]);
    std::unique_ptr<int[]> pColSum(new (std::nothrow) int[IMG_WIDTH]);
    if (!pNorm || !pLocalMean || !pLocalDev || !pColSum)
        return;

    // Normalisation table: the result depends only on the grey level.
    unsigned char ucNorm[256];
    for (int p = 0; p < 256; ++p) {
        int a = p > nMean ? 150 + (75 * (p - nMean)) / nMad : 150 - (75 * (nMean - p)) / nMad;
        ucNorm[p] = (unsigned char)(a < 0 ? 0 : (a > 255 ? 255 : a));
    }
    long long nNormSum = 0;
    for (int i = 0; i < IMG_PIXELS; ++i) {
        pNorm[i] = ucNorm[pImage[i]];
        nNormSum += pNorm[i];
    }
    const int nNormMean = (int)(nNormSum / IMG_PIXELS);

    BoxMean17(pNorm.get(), pLocalMean.get(), pColSum.get());
    // The normalised image is not needed any more: it becomes |A - M|.
    for (int i = 0; i < IMG_PIXELS; ++i)
        pNorm[i] = (unsigned char)std::abs(pNorm[i] - pLocalMean[i]);
    BoxMean17(pNorm.get(), pLocalDev.get(), pColSum.get());

    for (int i = 0; i < IMG_PIXELS; ++i) {
        if (pLocalMean[i] > nNormMean && pLocalDev[i] < 20)
            pImage[i] = 255;
    }
}
