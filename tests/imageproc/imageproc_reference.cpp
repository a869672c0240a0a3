#include "imageproc_reference.h"

#include <cstring>
#include <random>
#include <sstream>

namespace ref {

namespace {

unsigned char GreyAt(const unsigned char* pSrc, int w, int x, int y)
{
    const int tl = pSrc[y * w + x];
    const int tr = pSrc[y * w + x + 1];
    const int bl = pSrc[(y + 1) * w + x];
    const int br = pSrc[(y + 1) * w + x + 1];
    if ((x + y) % 2 == 0)
        return static_cast<unsigned char>((tl + br + (tr + bl) / 2) / 3);
    return static_cast<unsigned char>((tr + bl + (tl + br) / 2) / 3);
}

} // namespace

void RGBtoGRAY(const unsigned char* pSrc, unsigned char* pDst, int w, int h)
{
    std::memset(pDst, 255, static_cast<size_t>(w) * h);
    for (int y = 0; y < h - 1; ++y) {
        for (int x = 0; x < w - 1; ++x)
            pDst[y * w + x] = GreyAt(pSrc, w, x, y);
        pDst[y * w + w - 1] = pSrc[y * w + w - 1];
    }
    for (int x = 0; x < w; ++x)
        pDst[(h - 1) * w + x] = pSrc[(h - 1) * w + x];
}

void RGBtoGRAY2(const unsigned char* pSrc, unsigned char* pDst, int w, int h)
{
    std::memset(pDst, 255, static_cast<size_t>(w) * h);
    const int anFirst[2] = {1, 0};
    for (int nPass = 0; nPass < 2; ++nPass) {
        int nLast = -1;
        for (int y = anFirst[nPass]; y <= h - 2; y += 2) {
            for (int x = 1; x <= w - 2; x += 2)
                pDst[y * w + x] = GreyAt(pSrc, w, x, y);
            pDst[y * w + w - 1] = pSrc[y * w + w - 1];
            for (int x = 0; x <= w - 2; x += 2)
                pDst[y * w + x] = GreyAt(pSrc, w, x, y);
            nLast = y;
        }
        if (nLast >= 0) {
            for (int x = 0; x < w; ++x)
                pDst[(nLast + 1) * w + x] = pSrc[(nLast + 1) * w + x];
        }
    }
}

void Mirror(unsigned char* pImage, int w, int h)
{
    const Bytes copy(pImage, pImage + static_cast<size_t>(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            pImage[y * w + x] = copy[y * w + (w - 1 - x)];
}

int CorrectImage(int nDeviceType, const unsigned char* pSrc, unsigned long nSrcWidth, unsigned long nSrcHeight,
                 unsigned char* pDst, unsigned long nDstWidth, unsigned long nDstHeight, unsigned long nOffsetX,
                 unsigned long nOffsetY)
{
    if (pSrc == nullptr || pDst == nullptr)
        return 0;
    if (!(nDstWidth + nOffsetX - 1 < nSrcWidth) || !(nDstHeight + nOffsetY - 1 < nSrcHeight))
        return 0;
    const bool b1103 = nDeviceType == 5 || nDeviceType == 6 || nDeviceType == 7 || nDeviceType == 8;
    const unsigned short* pX = b1103 ? usXtable1103 : usXtable;
    const unsigned short* pY = b1103 ? usYtable1103 : usYtable;
    const int nTop = b1103 ? 10 : 21;
    const int nLeft = b1103 ? 25 : 26;
    for (int y = 0; y < 600; ++y) {
        for (int x = 0; x < 600; ++x) {
            const int nPos = (nTop + y) * 660 + (nLeft + x);
            pDst[y * 600 + x] = pSrc[pY[nPos] * nSrcWidth + pX[nPos]];
        }
    }
    Mirror(pDst, static_cast<int>(nDstWidth), static_cast<int>(nDstHeight));
    return 1;
}

namespace {

// Right pass from the source, then left pass from its mirror, onto the
// canvas; then the crop and the final mirror.
void Interpolate(tagModifyEntry* const* ppTable, int nRows, int nEntries, int nMaxRow, int nMaxCol,
                 unsigned nLimit, const unsigned char* pCopy, const unsigned char* pMirror, unsigned char* pCanvas)
{
    for (int nHalf = 0; nHalf < 2; ++nHalf) {
        const unsigned char* p = nHalf == 0 ? pCopy : pMirror;
        for (int r = 0; r < nRows; ++r) {
            for (int c = 0; c < nEntries; ++c) {
                const tagModifyEntry& e = ppTable[r][c];
                if (e.nSrcRow < 0 || e.nSrcRow > nMaxRow || e.nSrcCol < 0 || e.nSrcCol > nMaxCol)
                    continue;
                if (e.nSrcIndex[2] >= nLimit)
                    continue;
                float fValue = 0.0f;
                for (int k = 0; k < 4; ++k)
                    fValue = fValue + static_cast<float>(p[e.nSrcIndex[k]]) * e.fWeight[k];
                const int nValue = static_cast<int>(fValue);
                pCanvas[nHalf == 0 ? e.nDstRight : e.nDstLeft] = static_cast<unsigned char>(nValue & 0xFF);
            }
        }
    }
}

} // namespace

int CorrectImageCalc(const CImageProc& proc, const unsigned char* pSrc, unsigned char* pDst,
                     unsigned long nDstWidth, unsigned long nDstHeight, unsigned char byFill)
{
    if (pSrc == nullptr || pDst == nullptr || proc.m_ppModifyTable == nullptr)
        return 0;
    const int W = 1288;
    const int H = 876;
    Bytes copy(1129164), mirror(1129164), canvas(1129164, byFill);
    std::memcpy(copy.data(), pSrc, static_cast<size_t>(W) * H);
    for (int r = 0; r < H; ++r)
        for (int c = 0; c < W; ++c)
            mirror[r * W + (W - 1 - c)] = copy[r * W + c];
    Interpolate(proc.m_ppModifyTable, 660, 330, 875, 643, 1128288, copy.data(), mirror.data(), canvas.data());
    for (int y = 0; y < 600; ++y)
        std::memcpy(pDst + y * 600, canvas.data() + (y + 30) * 660 + 30, 600);
    Mirror(pDst, static_cast<int>(nDstWidth), static_cast<int>(nDstHeight));
    return 1;
}

int CorrectImageCalcEx(const CImageProc& proc, const unsigned char* pSrc, unsigned long nSrcWidth,
                       unsigned long nSrcHeight, unsigned char* pDst, unsigned long nDstWidth,
                       unsigned long nDstHeight, unsigned char byFill)
{
    if (pSrc == nullptr || pDst == nullptr || proc.m_ppModifyTableEx == nullptr)
        return 0;
    const int W = 1700;
    const int H = 1300;
    Bytes padded(2211300), mirror(2211300), canvas(2211300, byFill);
    std::memset(padded.data(), 0, static_cast<size_t>(W) * H);
    for (unsigned long i = 0; i < nSrcHeight; ++i)
        std::memcpy(padded.data() + (i + 10) * W, pSrc + i * nSrcWidth + 50, W);
    for (int r = 0; r < H; ++r)
        for (int c = 0; c < W; ++c)
            mirror[r * W + (W - 1 - c)] = padded[r * W + c];
    Interpolate(proc.m_ppModifyTableEx, 650, 325, 1299, 849, 2210000, padded.data(), mirror.data(), canvas.data());
    for (int y = 0; y < 600; ++y)
        std::memcpy(pDst + y * 600, canvas.data() + (y + 10) * 650 + 26, 600);
    Mirror(pDst, static_cast<int>(nDstWidth), static_cast<int>(nDstHeight));
    return 1;
}

} // namespace ref

namespace testutil {

ref::Bytes RandomBytes(size_t n, unsigned nSeed)
{
    std::mt19937 gen(nSeed);
    ref::Bytes bytes(n);
    for (size_t i = 0; i < n; ++i)
        bytes[i] = static_cast<unsigned char>(gen() >> 24);
    return bytes;
}

std::string FirstDifference(const unsigned char* pA, const unsigned char* pB, size_t n, int nWidth)
{
    for (size_t i = 0; i < n; ++i) {
        if (pA[i] != pB[i]) {
            std::ostringstream os;
            os << "first difference at index " << i << " (row " << i / nWidth << ", column " << i % nWidth
               << "): " << static_cast<int>(pA[i]) << " vs " << static_cast<int>(pB[i]);
            return os.str();
        }
    }
    return std::string();
}

CImageProc& SharedProc()
{
    static CImageProc proc;
    return proc;
}

} // namespace testutil
