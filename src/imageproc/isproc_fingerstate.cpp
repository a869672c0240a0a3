// Finger state estimation: local contrast and mean grey level of the
// central part of the finger window, classified by the nearest of three
// reference points (dark, normal, pale and flat).
#include "tavk05/isproc.h"

#include <cmath>
#include <cstring>
#include <memory>
#include <new>

namespace {

// Reference points indexed by state - 1: block standard deviation and mean grey.
const int center_x[3] = {40, 60, 20};
const int center_y[3] = {20, 74, 170};

const int WINDOW_WIDTH = 400;
const int WINDOW_HEIGHT = 450;

int ReferenceDistance(int nState, int nDeviation, int nMean)
{
    const int dx = center_x[nState - 1] - nDeviation;
    const int dy = center_y[nState - 1] - nMean;
    return (int)std::sqrt((double)(dx * dx + dy * dy));
}

}  // namespace

// Average standard deviation of the 8 x 8 blocks of a central region: the
// middle third across and, downwards, a third of the height starting at
// the middle. The mean grey of the same blocks goes to *pMean. An image
// too small to hold a block in that region (W < 24 or H < 32), or a null
// image, gives 0 with a mean of 0.
int CImageProc::GetLocalVariance(int nWidth, int nHeight, unsigned char* pImage, int* pMean)
{
    const int nBlocksX = nWidth / 8;
    const int nBlocksY = nHeight / 8;
    const int nOffsetX = (nWidth % 8) / 2;
    const int nOffsetY = (nHeight % 8) / 2;
    const int nBx0 = nBlocksX / 3;
    const int nBx1 = 2 * nBx0;
    const int nBy0 = nBlocksY / 2;
    const int nBy1 = nBy0 + (2 * nBy0) / 3;
    const int nBlocks = (nBy1 - nBy0) * (nBx1 - nBx0);

    if (pImage == nullptr || nWidth <= 0 || nHeight <= 0 || nBlocks <= 0) {
        if (pMean != nullptr) *pMean = 0;
        return 0;
    }

    long long nMeanSum = 0;
    long long nDeviationSum = 0;
    for (int by = nBy0; by < nBy1; ++by) {
        for (int bx = nBx0; bx < nBx1; ++bx) {
            const unsigned char* pBlock = pImage + (long long)(nOffsetY + 8 * by) * nWidth + nOffsetX + 8 * bx;
            int nSum = 0;
            for (int r = 0; r < 8; ++r)
                for (int c = 0; c < 8; ++c) nSum += pBlock[(long long)r * nWidth + c];
            const int nMean = nSum / 64;
            int nSquares = 0;
            for (int r = 0; r < 8; ++r) {
                for (int c = 0; c < 8; ++c) {
                    const int nDiff = pBlock[(long long)r * nWidth + c] - nMean;
                    nSquares += nDiff * nDiff;
                }
            }
            nMeanSum += nMean;
            nDeviationSum += (int)std::sqrt((double)nSquares / 64.0);
        }
    }
    if (pMean != nullptr) *pMean = (int)(nMeanSum / nBlocks);
    return (int)(nDeviationSum / nBlocks);
}

// State of the 600-wide finished image: 1 dark, 2 normal, 3 pale and flat,
// 0 when no estimate could be made (work image not allocated, null image,
// or a finger window that does not lie inside the 600 x 600 image). The
// width and height arguments are not used: the layout is fixed.
int CImageProc::EstimateFingerState(int nWidth, int nHeight, unsigned char* pImage)
{
    (void)nWidth;
    (void)nHeight;
    if (pImage == nullptr || m_nFingerWinX < 0 || m_nFingerWinX > IMG_WIDTH - WINDOW_WIDTH || m_nFingerWinY < 0 ||
        m_nFingerWinY > IMG_HEIGHT - WINDOW_HEIGHT)
        return 0;

    std::unique_ptr<unsigned char[]> pWindow(new (std::nothrow) unsigned char[WINDOW_WIDTH * WINDOW_HEIGHT]);
    if (!pWindow) return 0;
    for (int r = 0; r < WINDOW_HEIGHT; ++r)
        std::memcpy(pWindow.get() + r * WINDOW_WIDTH, pImage + (m_nFingerWinY + r) * IMG_WIDTH + m_nFingerWinX,
                    WINDOW_WIDTH);

    int nMean = 0;
    const int nDeviation = GetLocalVariance(WINDOW_WIDTH, WINDOW_HEIGHT, pWindow.get(), &nMean);
    pWindow.reset();

    const int d1 = ReferenceDistance(1, nDeviation, nMean);
    const int d2 = ReferenceDistance(2, nDeviation, nMean);
    const int d3 = ReferenceDistance(3, nDeviation, nMean);
    if (d1 < d2 && d1 < d3) return 1;
    if (d2 <= d1 && d2 <= d3) return 2;
    if (d3 < d1 && d3 < d2) return 3;
    return 0;
}

// Automatic parameter setting is not supported by this scanner family; the
// operation answers 1 and leaves everything as it is.
int CImageProc::AutoSetPara(unsigned char* pImage)
{
    (void)pImage;
    return 1;
}
