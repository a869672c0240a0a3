// COberin image filters and enhancement: the box mean and median filters,
// the background-subtracted contrast mapping shared with the live preview,
// the brightness correction by finger state, and the adaptive scan mode,
// which this driver does not provide (status 4).
#include "oberin_filter.h"
#include "oberin_firmware.h"
#include "live_jitter.h"
#include "profile/model_profile.h"
#include "imageproc/grey_level.h"
#include "imageproc/kernels.h"

#include <climits>
#include <stdlib.h>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

namespace {

const int kSide = IMG_WIDTH;  // finished images are 600 x 600
const int kPixels = IMG_PIXELS;

// Finger-state correction.
const int kStateCountLimit = 20;  // tries after which the state is no longer looked at
const int kStateDark = 1;
const int kStateNormal = 2;
const int kStatePale = 3;
const unsigned long kBrightnessForDark = 60;
const unsigned long kBrightnessForPale = 30;

// Adaptive scan mode.
const unsigned int kAdaptiveTries = 20;
const unsigned long kAdaptiveLevel = 20;

using greylevel::Darkening;
using greylevel::Lightness;

// Box mean of side 2r + 1 over the interior of a w x h image, from the copy
// pCopy into pImage, with running sums: pBox holds one box sum per output
// column. TSum must hold 255 x (2r + 1)^2.
template <typename TSum>
void BoxMean(const unsigned char* pCopy, unsigned char* pImage, int w, int h, int r, TSum* pBox)
{
    const int nSide = 2 * r + 1;
    const TSum nDivisor = static_cast<TSum>(nSide) * nSide;
    const int nCols = w - 2 * r;

    // First output row (y = r): column sums over rows 0..2r, slid across.
    TSum nColumn = 0;
    for (int x = 0; x < nSide; ++x) {
        for (int y = 0; y < nSide; ++y) nColumn += pCopy[static_cast<size_t>(y) * w + x];
    }
    pBox[0] = nColumn;
    for (int c = 1; c < nCols; ++c) {
        TSum nLeaving = 0;
        TSum nEntering = 0;
        for (int y = 0; y < nSide; ++y) {
            const unsigned char* pRow = pCopy + static_cast<size_t>(y) * w;
            nLeaving += pRow[c - 1];
            nEntering += pRow[c + 2 * r];
        }
        pBox[c] = pBox[c - 1] - nLeaving + nEntering;
    }
    unsigned char* pOut = pImage + static_cast<size_t>(r) * w + r;
    for (int c = 0; c < nCols; ++c) pOut[c] = static_cast<unsigned char>(pBox[c] / nDivisor);

    // Every further row: the entering row minus the leaving row over the
    // box's columns, itself slid across, is added to each column's sum.
    for (int y = r + 1; y <= h - r - 1; ++y) {
        const unsigned char* pEnter = pCopy + static_cast<size_t>(y + r) * w;
        const unsigned char* pLeave = pCopy + static_cast<size_t>(y - r - 1) * w;
        TSum nDiff = 0;
        for (int x = 0; x < nSide; ++x) nDiff += static_cast<TSum>(pEnter[x]) - pLeave[x];
        pBox[0] += nDiff;
        for (int c = 1; c < nCols; ++c) {
            nDiff += (static_cast<TSum>(pEnter[c + 2 * r]) - pLeave[c + 2 * r]) -
                     (static_cast<TSum>(pEnter[c - 1]) - pLeave[c - 1]);
            pBox[c] += nDiff;
        }
        pOut = pImage + static_cast<size_t>(y) * w + r;
        for (int c = 0; c < nCols; ++c) pOut[c] = static_cast<unsigned char>(pBox[c] / nDivisor);
    }
}

template <typename TSum>
void SmoothWith(unsigned char* pImage, int w, int h, int r)
{
    const size_t nPixels = static_cast<size_t>(w) * static_cast<size_t>(h);
    std::unique_ptr<unsigned char[]> pCopy(new (std::nothrow) unsigned char[nPixels]);
    std::unique_ptr<TSum[]> pBox(new (std::nothrow) TSum[static_cast<size_t>(w - 2 * r)]);
    if (!pCopy || !pBox) return;  // memory short: the image is left as it was
    std::memcpy(pCopy.get(), pImage, nPixels);
    BoxMean(pCopy.get(), pImage, w, h, r, pBox.get());
}

}  // namespace

namespace oberin {

void MapContrast(const COberin& sensor, unsigned char* pFrame, unsigned char* pOutput, FrameUse eUse)
{
    // Reseeded for every frame, so that the jitter pattern changes once a
    // second and not with every frame of a still finger.
    // The jitter is drawn from a private copy of the generator seeded alike.
    const unsigned int nSeed = static_cast<unsigned int>(std::time(nullptr));
    ::srandom(nSeed);

    const CImageProc& proc = sensor.m_ImageProc;
    if (pFrame == nullptr || pOutput == nullptr || proc.m_pBackground == nullptr) return;

    const tavk05profile::ModelProfile& profile = ProfileOf(sensor);
    if (profile.bShading) {
        // Shaded models are shaded and scaled at capture; the frame is shown as it is.
        if (pOutput != pFrame) std::memcpy(pOutput, pFrame, kPixels);
        return;
    }

    const unsigned char* pBackground = proc.m_pBackground;
    const bool bKeepPrint = eUse == kFrameKeepsPrint;
    const double fFactor = sensor.m_fContrastFactor;

    if (proc.m_bContrastTable == 0) {
        for (int i = 0; i < kPixels; ++i) {
            const int d = Darkening(pBackground[i], pFrame[i]);
            if (bKeepPrint) pFrame[i] = static_cast<unsigned char>(d);
            pOutput[i] = static_cast<unsigned char>(Lightness(d));
        }
    } else if (proc.m_bContrastTable == 1 && profile.nPreviewBase != 0) {
        const int nBase = profile.nPreviewBase;
        unsigned char byMap[256];
        for (int d = 0; d < 256; ++d) byMap[d] = greylevel::Truncate(static_cast<double>(nBase - d) * fFactor);
        for (int i = 0; i < kPixels; ++i) {
            const int d = Darkening(pBackground[i], pFrame[i]);
            if (bKeepPrint) pFrame[i] = static_cast<unsigned char>(d);
            pOutput[i] = byMap[d];
        }
    } else if (proc.m_bContrastTable == 1) {
        // Jittered table levels run from -4 to 259; index = level + 4.
        unsigned char byScaled[256 + kJitterSpan - 1];
        for (int v = -kJitterOffset; v < 256 + kJitterOffset; ++v) {
            byScaled[v + kJitterOffset] = greylevel::Truncate(static_cast<double>(v) * fFactor);
        }
        const unsigned char* pTable = proc.m_ucContrastTable;
        // What is shown for each darkening d and jitter draw.
        unsigned char abyShown[256 * kJitterSpan];
        for (int d = 0; d < 256; ++d) {
            for (int j = 0; j < kJitterSpan; ++j) abyShown[d * kJitterSpan + j] = byScaled[pTable[Lightness(d)] + j];
        }
        MapJittered(nSeed, pBackground, pFrame, pOutput, static_cast<size_t>(kPixels), bKeepPrint, abyShown);
    } else if (bKeepPrint) {
        // No mapping in force: the output is not written, the frame still
        // receives the darkening.
        for (int i = 0; i < kPixels; ++i) pFrame[i] = static_cast<unsigned char>(Darkening(pBackground[i], pFrame[i]));
    }
}

}  // namespace oberin

void COberin::SmoothImage(int nWidth, int nHeight, unsigned char* pImage, int nRadius)
{
    if (pImage == nullptr || nRadius < 0 || nRadius > (INT_MAX - 1) / 2) return;
    const int nSide = 2 * nRadius + 1;
    if (nWidth < nSide || nHeight < nSide) return;  // no interior pixel
    if (nRadius == 1) {
        imageproc::Mean3x3(pImage, static_cast<size_t>(nWidth), static_cast<size_t>(nHeight));
        return;
    }
    // 32-bit sums while 255 x side^2 fits, else 64-bit.
    if (static_cast<long long>(nSide) * nSide * 255 <= INT_MAX) {
        SmoothWith<int>(pImage, nWidth, nHeight, nRadius);
    } else {
        SmoothWith<long long>(pImage, nWidth, nHeight, nRadius);
    }
}

void COberin::MedianFilter(unsigned char* pImage, unsigned long nWidth, unsigned long nHeight)
{
    if (pImage == nullptr) return;
    imageproc::Median3x3(pImage, nWidth, nHeight);
}

void COberin::DoModifyContrast(unsigned char* pFrame, unsigned char* pOutput)
{
    oberin::MapContrast(*this, pFrame, pOutput, oberin::kFrameKeepsPrint);
}

bool COberin::IsNormalFingerprint(unsigned long nWidth, unsigned long nHeight, unsigned char* pImage, int nCount,
                                  unsigned long /*nReserved: not read*/, bool* pChanged)
{
    bool bNormal = false;
    bool bChanged = false;
    if (nCount < kStateCountLimit) {
        switch (m_ImageProc.EstimateFingerState(static_cast<int>(nWidth), static_cast<int>(nHeight), pImage)) {
            case kStateNormal:
                bNormal = true;
                break;
            case kStatePale:
                SetBrightnessEx(kBrightnessForPale);
                bChanged = true;
                break;
            case kStateDark:
                SetBrightnessEx(kBrightnessForDark);
                bChanged = true;
                break;
            default:
                break;  // no estimate: not normal, nothing changed
        }
    }
    if (pChanged != nullptr) *pChanged = bChanged;
    return bNormal;
}

int COberin::GetImageEnhanced(unsigned char* pImage, unsigned int nFirst, unsigned int nSecond, bool bFlag1,
                              bool bFlag2)
{
    bool bMore = false;
    unsigned int nAttempt = 1;
    int nResult = TAVK05_E_FAILED;
    PrepareAdaptiveImage();
    do {
        if (m_pfnCallback != nullptr) {
            m_CallbackInfo.nQuality = 0;
            m_CallbackInfo.nStatus = 0;
            if (m_pfnCallback(m_pCallbackContext, &m_CallbackInfo) != 0) {
                UnprepareAdaptiveImage();
                return 1;  // the host asked to stop
            }
        }
        m_nError = GetAdaptiveImage(pImage, nFirst, nSecond, kAdaptiveLevel, &bMore, bFlag1, bFlag2, true);
    } while (m_nError == TAVK05_OK && bMore && nAttempt++ <= kAdaptiveTries);
    UnprepareAdaptiveImage();
    if (m_nError == TAVK05_OK && !bMore) nResult = TAVK05_OK;
    return nResult;
}

unsigned long COberin::GetAdaptiveImage(unsigned char* /*pImage*/, unsigned int /*nFirst*/, unsigned int /*nSecond*/,
                                        unsigned long /*nValue*/, bool* /*pMore: not written*/, bool /*bFlag1*/,
                                        bool /*bFlag2*/, bool /*bFlag3*/)
{
    return TAVK05_E_UNSUPPORTED;
}

void COberin::PrepareAdaptiveImage() {}

void COberin::UnprepareAdaptiveImage() {}

unsigned long COberin::GetLiveImageEx2_Adaptive(unsigned char* /*pImage*/, unsigned long /*nTimeoutMs*/,
                                                unsigned int /*nMarkFrames*/, void* /*pReserved*/,
                                                unsigned long /*nQualityThreshold*/)
{
    return TAVK05_E_UNSUPPORTED;
}
