// Frame quality measures: the gradient-span quality that the live capture
// reports after every frame (and that places the finger window), a sparse
// gradient count, and the grey-level mean and standard deviation.
#include "imageproc/kernels.h"
#include "tavk05/isproc.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>

namespace {

const int PROFILE_MAX = 600;  // the profile arrays hold one entry per row or column

// Centred moving average over 11 entries, clipped at both ends, then the
// scale step: every entry divided by 600 whatever the profile length.
void SmoothAndScaleProfile(int* pProfile, int nCount, int* pScratch)
{
    for (int k = 0; k < nCount; ++k) {
        const int nFrom = k - 5 < 0 ? 0 : k - 5;
        const int nTo = k + 5 > nCount - 1 ? nCount - 1 : k + 5;
        int nSum = 0;
        for (int i = nFrom; i <= nTo; ++i) nSum += pProfile[i];
        pScratch[k] = nSum / (nTo - nFrom + 1);
    }
    for (int k = 0; k < nCount; ++k) pProfile[k] = pScratch[k] / 600;
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

// One pass over the image: for every pixel of rows and columns 1..size-2,
// the difference of its left and right neighbours is added to its row's
// entry and that of its upper and lower neighbours to its column's entry.
// Column sums are kept in 16 bits and moved to the int profile before they
// can overflow (257 rows of 255 at most fill 16 bits).
void GradientProfiles(const unsigned char* pImage, int nWidth, int nHeight, int* pRow, int* pCol)
{
    uint16_t nColPart[PROFILE_MAX] = {0};
    int nPartRows = 0;
    const size_t nInner = nWidth >= 2 ? static_cast<size_t>(nWidth - 2) : 0;  // columns 1 .. W - 2
    for (int y = 1; y <= nHeight - 2; ++y) {
        const unsigned char* pUp = pImage + (y - 1) * nWidth;
        const imageproc::Rows3 rows = {pUp + 1, pUp + nWidth + 1, pUp + 2 * nWidth + 1};
        unsigned nRowSum = 0;
        size_t nDone = 0;
#if defined(__SSE2__)
        nDone = imageproc::GradientRowSse2(rows, nColPart + 1, nInner, nRowSum);
#endif
        imageproc::GradientRow(rows, nColPart + 1, nDone, nInner, nRowSum);
        pRow[y] = static_cast<int>(nRowSum);
        if (++nPartRows == 257 || y == nHeight - 2) {
            for (int c = 0; c < nWidth; ++c) {
                pCol[c] += nColPart[c];
                nColPart[c] = 0;
            }
            nPartRows = 0;
        }
    }
}

}  // namespace

// Quality 0..100 from the extent of the ridge area; records the origin of
// the 400 x 450 finger window around its centre, kept inside a 600 x 600
// image. Images larger than 600 in either direction, smaller than 3, or a
// null image are refused: the result is 0 and the window is left as it was.
int CImageProc::CheckImageQuality2(int nWidth, int nHeight, unsigned char* pImage)
{
    if (pImage == nullptr || nWidth < 0 || nHeight < 0 || nWidth > PROFILE_MAX || nHeight > PROFILE_MAX) return 0;
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
    if (pImage == nullptr || nWidth <= 0 || nHeight <= 0) return 0;
    int nStep = nWidth / 28;
    if (nStep < 1) nStep = 1;

    long long nCount = 0;
    for (int x = 0; x < nWidth; x += nStep) {
        for (int y = 2; y < nHeight; y += 2) {
            const int nDiff = pImage[(long long)y * nWidth + x] - pImage[(long long)(y - 2) * nWidth + x];
            if (std::abs(nDiff) > 7) ++nCount;
        }
    }
    for (int x = 2; x < nWidth; x += 2) {
        for (int y = 0; y < nHeight; y += 8) {
            const unsigned char* pRow = pImage + (long long)y * nWidth;
            if (std::abs(pRow[x] - pRow[x - 2]) > 7) ++nCount;
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
        if (pMean != nullptr) *pMean = 0;
        return 0;
    }
    const long long nDivisor = (long long)(nWidth - 2) * (nHeight - 2);

    long long nSum = 0;
    for (int y = 2; y <= nHeight - 3; ++y) {
        const unsigned char* pRow = pImage + (long long)y * nWidth;
        for (int x = 2; x <= nWidth - 3; ++x) nSum += pRow[x];
    }
    const int nMean = (int)(nSum / nDivisor);
    if (pMean != nullptr) *pMean = nMean;

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

void imageproc::GradientRow(const Rows3& rows, uint16_t* pColSum, size_t nFrom, size_t n, unsigned& nRowSum)
{
    for (size_t x = nFrom; x < n; ++x) {
        nRowSum += static_cast<unsigned>(std::abs(rows.pCentre[x - 1] - rows.pCentre[x + 1]));
        pColSum[x] = static_cast<uint16_t>(pColSum[x] + std::abs(rows.pAbove[x] - rows.pBelow[x]));
    }
}
