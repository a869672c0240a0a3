// Frame quality measures: the gradient-span quality that the live capture
// reports after every frame (and that places the finger window), a sparse
// gradient count, and the grey-level mean and standard deviation.
#include "tavk05/isproc.h"
#include "grey_level.h"

#include <cmath>
#include <cstdlib>

#include <emmintrin.h> // SSE2: part of both the x86_64 and the i386 (-msse2) ABI

namespace {

const int PROFILE_MAX = 600;        // the profile arrays hold one entry per row or column

// Centred moving average over 11 entries, clipped at both ends, then the
// scale step: every entry divided by 600 whatever the profile length.
void SmoothAndScaleProfile(int* pProfile, int nCount, int* pScratch)
{
    for (int k = 0; k < nCount; ++k) {
        const int nFrom = k - 5 < 0 ? 0 : k - 5;
        const int nTo = k + 5 > nCount - 1 ? nCount - 1 : k + 5;
        int nSum = 0;
        for (int i = nFrom; i <= nTo; ++i)
            nSum += pProfile[i];
        pScratch[k] = nSum / (nTo - nFrom + 1);
    }
    for (int k = 0; k < nCount; ++k)
        pProfile[k] = pScratch[k] / 600;
}

// Span of a scaled profile: it starts at the first inner entry above 8
// (0 when none does) and ends at the first later entry of 7 or less
// (nCount when none does).
void ProfileSpan(const int* pProfile, int nCount, int* pStart, int* pEnd)
{
    int nStart = 0;
    for (int i = 1; i <= nCount - 2; ++i) {
        if (pProfile[i] > 8) {
            nStart = i;
            break;
        }
    }
    int nEnd = nCount;
    for (int i = nStart + 1; i <= nCount - 1; ++i) {
        if (pProfile[i] <= 7) {
            nEnd = i;
            break;
        }
    }
    *pStart = nStart;
    *pEnd = nEnd;
}

using greylevel::AbsDiff;

// One pass over the image: for every pixel of rows and columns 1..size-2,
// the difference of its left and right neighbours is added to its row's
// entry and that of its upper and lower neighbours to its column's entry.
// Sixteen pixels at a time: row sums with SAD, column sums in 16-bit lanes
// that are moved to the int profile before they can overflow (257 rows of
// 255 at most fill 16 bits).
void GradientProfiles(const unsigned char* pImage, int nWidth, int nHeight, int* pRow, int* pCol)
{
    unsigned short nColPart[PROFILE_MAX] = {0};
    int nPartRows = 0;
    const __m128i vZero = _mm_setzero_si128();
    const int nLastVector = nWidth - 2 - 15; // last x whose 16 lanes end at column W - 2
    for (int y = 1; y <= nHeight - 2; ++y) {
        const unsigned char* pUp = pImage + (y - 1) * nWidth;
        const unsigned char* pMid = pUp + nWidth;
        const unsigned char* pDown = pMid + nWidth;
        __m128i vRowSum = vZero;
        int x = 1;
        for (; x <= nLastVector; x += 16) {
            const __m128i vLeft = _mm_loadu_si128((const __m128i*)(pMid + x - 1));
            const __m128i vRight = _mm_loadu_si128((const __m128i*)(pMid + x + 1));
            vRowSum = _mm_add_epi64(vRowSum, _mm_sad_epu8(vLeft, vRight));
            const __m128i vCol = AbsDiff(_mm_loadu_si128((const __m128i*)(pUp + x)),
                                         _mm_loadu_si128((const __m128i*)(pDown + x)));
            __m128i* pLo = (__m128i*)(nColPart + x);
            __m128i* pHi = (__m128i*)(nColPart + x + 8);
            _mm_storeu_si128(pLo, _mm_add_epi16(_mm_loadu_si128(pLo), _mm_unpacklo_epi8(vCol, vZero)));
            _mm_storeu_si128(pHi, _mm_add_epi16(_mm_loadu_si128(pHi), _mm_unpackhi_epi8(vCol, vZero)));
        }
        int nRowSum = _mm_cvtsi128_si32(vRowSum) + _mm_cvtsi128_si32(_mm_srli_si128(vRowSum, 8));
        for (; x <= nWidth - 2; ++x) {
            nRowSum += std::abs(pMid[x - 1] - pMid[x + 1]);
            nColPart[x] = (unsigned short)(nColPart[x] + std::abs(pUp[x] - pDown[x]));
        }
        pRow[y] = nRowSum;
        if (++nPartRows == 257 || y == nHeight - 2) {
            for (int c = 0; c < nWidth; ++c) {
                pCol[c] += nColPart[c];
                nColPart[c] = 0;
            }
            nPartRows = 0;
        }
    }
}

} // namespace

// Quality 0..100 from the extent of the ridge area; records the origin of
// the 400 x 450 finger window around its centre, kept inside a 600 x 600
// image. Images larger than 600 in either direction, smaller than 3, or a
// null image are refused: the result is 0 and the window is left as it was.
int CImageProc::CheckImageQuality2(int nWidth, int nHeight, unsigned char* pImage)
{
    if (pImage == nullptr || nWidth < 0 || nHeight < 0 || nWidth > PROFILE_MAX || nHeight > PROFILE_MAX)
        return 0;
    if (nWidth < 3 || nHeight < 3) {
        // No pixel has both neighbours, so both profiles stay empty: the
        // spans are those of a uniform image, the centres fall back to the
        // middle and the area is below one quality point.
        m_nFingerWinX = 300 - 200;
        m_nFingerWinY = 300 - 225;
        return 0;
    }

    int nRow[PROFILE_MAX] = {0};
    int nCol[PROFILE_MAX] = {0};
    int nScratch[PROFILE_MAX];
    GradientProfiles(pImage, nWidth, nHeight, nRow, nCol);

    SmoothAndScaleProfile(nRow, nHeight, nScratch);
    SmoothAndScaleProfile(nCol, nWidth, nScratch);

    int nTop, nBottom, nLeft, nRight;
    ProfileSpan(nRow, nHeight, &nTop, &nBottom);
    ProfileSpan(nCol, nWidth, &nLeft, &nRight);

    int nCx = nLeft + (nRight - nLeft) / 2;
    int nCy = nTop + (nBottom - nTop) / 2;
    if (nCx == 0)
        nCx = 300;
    else if (nCx <= 199)
        nCx = 200;
    else if (600 - nCx <= 199)
        nCx = 400;
    if (nCy == 0)
        nCy = 300;
    else if (nCy <= 224)
        nCy = 225;
    else if (600 - nCy <= 224)
        nCy = 375;
    m_nFingerWinX = nCx - 200;
    m_nFingerWinY = nCy - 225;

    const int nQuality = (nRight - nLeft) * (nBottom - nTop) / 1500;
    return nQuality > 100 ? 100 : nQuality;
}

// Count of strong gradients on a sparse grid, divided by 100. The column
// step is W / 28; narrower images would get a step of 0, so the step is
// at least 1 (every column is then sampled).
int CImageProc::CheckImageQuality(int nWidth, int nHeight, unsigned char* pImage)
{
    if (pImage == nullptr || nWidth <= 0 || nHeight <= 0)
        return 0;
    int nStep = nWidth / 28;
    if (nStep < 1)
        nStep = 1;

    long long nCount = 0;
    for (int x = 0; x < nWidth; x += nStep) {
        for (int y = 2; y < nHeight; y += 2) {
            const int nDiff = pImage[(long long)y * nWidth + x] - pImage[(long long)(y - 2) * nWidth + x];
            if (std::abs(nDiff) > 7)
                ++nCount;
        }
    }
    for (int x = 2; x < nWidth; x += 2) {
        for (int y = 0; y < nHeight; y += 8) {
            const unsigned char* pRow = pImage + (long long)y * nWidth;
            if (std::abs(pRow[x] - pRow[x - 2]) > 7)
                ++nCount;
        }
    }
    const long long nQuality = nCount / 100;
    return nQuality > 100 ? 100 : (int)nQuality;
}

// Mean and standard deviation of the grey levels of rows 2..H-3 and
// columns 2..W-3, both divided by (W - 2) x (H - 2). Sums are 64-bit so
// that large high-contrast images cannot overflow. Images that leave no
// pixel in that range (or a null image) give 0 with a mean of 0.
int CImageProc::GetStdDeviation(int nWidth, int nHeight, unsigned char* pImage, int* pMean)
{
    if (pImage == nullptr || nWidth < 5 || nHeight < 5) {
        if (pMean != nullptr)
            *pMean = 0;
        return 0;
    }
    const long long nDivisor = (long long)(nWidth - 2) * (nHeight - 2);

    long long nSum = 0;
    for (int y = 2; y <= nHeight - 3; ++y) {
        const unsigned char* pRow = pImage + (long long)y * nWidth;
        for (int x = 2; x <= nWidth - 3; ++x)
            nSum += pRow[x];
    }
    const int nMean = (int)(nSum / nDivisor);
    if (pMean != nullptr)
        *pMean = nMean;

    long long nSquares = 0;
    for (int y = 2; y <= nHeight - 3; ++y) {
        const unsigned char* pRow = pImage + (long long)y * nWidth;
        for (int x = 2; x <= nWidth - 3; ++x) {
            const long long nDiff = pRow[x] - nMean;
            nSquares += nDiff * nDiff;
        }
    }
    return (int)std::sqrt((double)nSquares / (double)nDivisor);
}
