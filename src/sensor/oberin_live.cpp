// COberin live and rolled capture: an optional wait until no latent print is
// left on the glass, then a stream of frames shown to the host through its
// callback, merged into a rolled print once the host asks for rolling (in
// roll mode), ended by the quality threshold, the host or the time limit.
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "oberin_filter.h"
#include "oberin_firmware.h"
#include "oberin_latent.h"
#include "tavk05/mark.h"

namespace {

const int kSide = IMG_WIDTH;
const long kFinishedBytes = IMG_PIXELS;

const unsigned long kQualityMax = 100;
// A time-out of 65535 ms with threshold 100 and a callback that goes on means
// no time limit at all.
const unsigned long kEndlessTimeout = 65535;
const unsigned int kReadFailedStatus = 53;

const unsigned long kAcquisitionStart = 0;
const unsigned long kAcquisitionStop = 1;

// Roll states.
const int kRollLiveView = -1;
const int kRollStopped = 0;
const int kRolling = 1;

// Final check of a rolled image: rows 200..399 give the mean level, and
// pixels darker than it by more than 5 are halved in the measured copy.
const int kMeanFirstRow = 200;
const int kMeanRows = 200;
const int kDarkMargin = 5;
const int kBrightestMean = 244;

// Microseconds on the monotonic clock: the time limit must not jump with
// the wall clock.
unsigned long long NowMicroseconds()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<unsigned long long>(ts.tv_sec) * 1000000ull +
           static_cast<unsigned long long>(ts.tv_nsec) / 1000ull;
}

// Whether the live capture may go on: the elapsed whole milliseconds since
// nStart are below the time-out, or the host has lifted the limit.
bool TimeRemains(unsigned long long nStart, unsigned long nTimeoutMs, bool bNoLimit)
{
    const unsigned long long nElapsedMs = (NowMicroseconds() - nStart) / 1000ull;
    return nElapsedMs < nTimeoutMs || bNoLimit;
}

std::unique_ptr<unsigned char[]> NewBuffer(size_t nBytes)
{
    return std::unique_ptr<unsigned char[]>(new (std::nothrow) unsigned char[nBytes]);
}

// Quality of a finished rolled image as the final check measures it: on a
// copy in which, unless the print is very pale, every pixel darker than the
// mean of the middle rows by more than the margin is halved. False when the
// copy cannot be had.
bool RolledQuality(CImageProc& proc, const unsigned char* pImage, int nWidth, int nHeight, int* pnQuality)
{
    std::unique_ptr<unsigned char[]> pCopy = NewBuffer(kFinishedBytes);
    if (!pCopy) return false;
    std::memcpy(pCopy.get(), pImage, kFinishedBytes);

    unsigned long nSum = 0;
    const unsigned char* pRows = pCopy.get() + kMeanFirstRow * kSide;
    for (int i = 0; i < kMeanRows * kSide; ++i) nSum += pRows[i];
    const int nMean = static_cast<int>(nSum / (kMeanRows * kSide));
    if (nMean <= kBrightestMean) {
        for (long i = 0; i < kFinishedBytes; ++i) {
            if (pCopy[i] + kDarkMargin < nMean) pCopy[i] = static_cast<unsigned char>(pCopy[i] >> 1);
        }
    }
    *pnQuality = proc.CheckImageQuality2(nWidth, nHeight, pCopy.get());
    return true;
}

}  // namespace

unsigned long COberin::GetLiveImage(unsigned char* pImage, unsigned long nTimeoutMs, unsigned int nReserved)
{
    const unsigned long kLiveThreshold = 20;
    return GetLiveImageEx(pImage, nTimeoutMs, nReserved, kLiveThreshold);
}

unsigned long COberin::GetLiveImageEx(unsigned char* pImage, unsigned long nTimeoutMs, unsigned int /*nReserved*/,
                                      unsigned long nQualityThreshold)
{
    unsigned long nUnused = 0;  // the reserved argument, never read
    return GetLiveImageEx2(pImage, nTimeoutMs, 0, &nUnused, nQualityThreshold);
}

unsigned long COberin::GetLiveImageEx2(unsigned char* pImage, unsigned long nTimeoutMs, unsigned int nMarkFrames,
                                       void* pReserved, unsigned long nQualityThreshold)
{
    m_nError = LockDevice();
    if (m_nError != TAVK05_OK) return m_nError;
    InitDev(false);  // once per open; a refused setting does not stop the capture
    const unsigned long nResult =
        m_nScanMode == 1 ? GetLiveImageEx2_Adaptive(pImage, nTimeoutMs, nMarkFrames, pReserved, nQualityThreshold)
                         : GetLiveImageEx2_Normal(pImage, nTimeoutMs, nMarkFrames, pReserved, nQualityThreshold);
    UnlockDevice();
    m_nError = nResult;
    return m_nError;
}

// The sensor's frame buffers are taken all or nothing at construction; a
// sensor without them cannot capture, and the live capture then fails with 2
// (memory short) before anything is sent to the device, as when its own
// frame buffer cannot be had.
unsigned long COberin::GetLiveImageEx2_Normal(unsigned char* pImage, unsigned long nTimeoutMs, unsigned int nMarkFrames,
                                              void* /*pReserved: not read*/, unsigned long nQualityThreshold)
{
    unsigned long long nStart = NowMicroseconds();
    unsigned long nResult = TAVK05_E_NO_IMAGE;

    // The frame is always read and composed as 600 x 600, whatever the size
    // fields say; a size that cannot be had counts as memory short.
    if (m_nHeight != 0 && m_nWidth > SIZE_MAX / m_nHeight) return TAVK05_E_FAILED;
    const size_t nFrameBytes =
        std::max<size_t>(static_cast<size_t>(m_nWidth) * static_cast<size_t>(m_nHeight), kFinishedBytes);
    std::unique_ptr<unsigned char[]> pFrame = NewBuffer(nFrameBytes);
    if (!pFrame || m_pRawBuf == nullptr) return TAVK05_E_FAILED;
    const unsigned long nThreshold = nQualityThreshold < kQualityMax ? nQualityThreshold : kQualityMax;
    const int nThresholdQ = static_cast<int>(nThreshold);
    const bool bMayLiftLimit = nTimeoutMs == kEndlessTimeout && nThreshold == kQualityMax;

    // The nominal size of the image-size code: reported to the callback, used
    // for the quality measure, the white fill and the corner marks.
    tagDeviceInfoParam info = {};
    info.ImageWidth = static_cast<unsigned int>(m_nWidth);
    info.ImageHeight = static_cast<unsigned int>(m_nHeight);
    GetDeviceInfo(&info);
    const int nW = static_cast<int>(info.ImageWidth);
    const int nH = static_cast<int>(info.ImageHeight);
    m_CallbackInfo.nWidth = info.ImageWidth;
    m_CallbackInfo.nHeight = info.ImageHeight;
    m_nRollState = kRollLiveView;
    bool bNoLimit = false;

    // Latent wait: read latent frames until the glass shows no residue, the
    // host gives up or time runs out. Each latent read starts and stops
    // acquisition by itself.
    if (oberin::LatentCheckActive(*this)) {
        oberin::CLatentProbe probe(*this);
        if (!probe.Usable()) return TAVK05_E_FAILED;
        bool bLatent = false;
        for (;;) {
            const oberin::LatentResult eLatent = probe.Probe();
            if (eLatent == oberin::kLatentReadFailed) return TAVK05_E_READ;
            bLatent = eLatent == oberin::kLatentFound;
            if (!bLatent) break;
            if (m_pfnCallback != nullptr) {
                m_CallbackInfo.nQuality = 0;
                m_CallbackInfo.nStatus = 0;
                if (m_pfnCallback(m_pCallbackContext, &m_CallbackInfo) != 0) break;  // the host gives up
                if (bMayLiftLimit) bNoLimit = true;
            }
            if (!TimeRemains(nStart, nTimeoutMs, bNoLimit)) break;
        }
        if (bLatent) {
            if (pImage != nullptr) std::memset(pImage, 255, static_cast<size_t>(nW) * nH);
            return TAVK05_E_NO_IMAGE;
        }
    }

    if (pImage == nullptr) return TAVK05_E_INVALID;

    nStart = NowMicroseconds();
    bNoLimit = false;
    int nFrame = 0;
    if (m_pVxd == nullptr || m_pVxd->RollDevIoControl(kAcquisitionStart) != VXD_OK) return TAVK05_E_FAILED;

    for (;;) {
        if (CaptureImageForRoll(pFrame.get(), nMarkFrames != 0)) {
            bool bComplete = false;
            if (m_nRollState == kRolling && m_nRollMode == 1) {
                bComplete =
                    m_ImageProc.ImageComposition(pFrame.get(), pImage, kFinishedBytes, nFrame, m_fContrastFactor) != 0;
                ++nFrame;
            } else {
                oberin::MapContrast(*this, pFrame.get(), pImage, oberin::kFrameReadOnly);
            }
            int nQuality = m_ImageProc.CheckImageQuality2(nW, nH, pImage);

            if (m_pfnCallback != nullptr) {
                m_CallbackInfo.nQuality = static_cast<unsigned int>(nQuality);
                m_CallbackInfo.nStatus = 0;
                const unsigned long nReply = m_pfnCallback(m_pCallbackContext, &m_CallbackInfo);
                // In roll mode only the host, the composition or the time
                // limit end the capture, never the measured quality.
                if (m_nRollMode != 0) nQuality = 0;
                if (nReply == TAVK05_CB_START_ROLL) {
                    m_nRollState = kRolling;
                    nQuality = 0;
                } else if (nReply == TAVK05_CB_STOP) {
                    m_nRollState = kRollStopped;
                } else if (nReply != TAVK05_CB_CONTINUE) {
                    nQuality = static_cast<int>(kQualityMax);  // accepted as it is
                } else if (bMayLiftLimit) {
                    bNoLimit = true;
                    nQuality = 0;
                }
            }

            if (m_nRollState != kRollStopped && nQuality < nThresholdQ && !bComplete) {
                // not yet: on to the time check
            } else if (!bComplete) {
                nResult = TAVK05_OK;
                break;
            } else {
                RolledQuality(m_ImageProc, pImage, nW, nH, &nQuality);  // on failure q stays
                nResult = nQuality < nThresholdQ ? TAVK05_E_LATENT : TAVK05_OK;
                break;
            }
        } else if (m_pfnCallback != nullptr) {
            m_CallbackInfo.nQuality = 0;
            m_CallbackInfo.nStatus = kReadFailedStatus;
            if (m_pfnCallback(m_pCallbackContext, &m_CallbackInfo) != 0) break;  // gives up: 54
        } else {
            nResult = TAVK05_E_READ;
            break;
        }
        if (!TimeRemains(nStart, nTimeoutMs, bNoLimit)) break;  // time-out: 54
    }

    // The callback may have closed the device; then the stop cannot be sent.
    if (m_pVxd == nullptr || m_pVxd->RollDevIoControl(kAcquisitionStop) != VXD_OK) return TAVK05_E_FAILED;
    if (m_nRollMode == 1 && oberin::ProfileOf(*this).bSmoothRoll) SmoothImage(kSide, kSide, pImage, 1);
    SetLTWaterM(pImage, nW, nH);
    SetRTWaterM(pImage, nW, nH);
    SetLBWaterM(pImage, nW, nH);
    SetRBWaterM(pImage, nW, nH);
    if (nResult == TAVK05_E_NO_IMAGE) ResetDevice();
    return nResult;
}

// A single rolled-path frame for a host that drives acquisition itself: no
// lock, no acquisition request, the last status left as it was.
unsigned long COberin::GetImageForRoll(unsigned char* pImage, unsigned long /*nReserved: not read*/)
{
    if (pImage == nullptr) return TAVK05_E_INVALID;
    return CaptureImageForRoll(pImage, true) ? TAVK05_OK : TAVK05_E_FAILED;
}
