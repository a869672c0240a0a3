// COberin single capture: GetImage with its scan-mode variants, the latent
// pre-check, the frame pipeline shared by CaptureImage and
// CaptureImageForRoll, and the DoModify resampling.
#include "oberin_capture.h"
#include "oberin_firmware.h"
#include "oberin_latent.h"
#include "imageproc/grey_level.h"

#include <cstring>

#include "tavk05/mark.h"

namespace {

// The frame read's time-out argument (the transport does not use it).
const unsigned long kReadTimeout = 3000;

// Models 5 and 6: level subtracted before the scale factor is applied.
const int kShadingFloor = 90;

// Ceiling of DoModify's output levels (254, not 255).
const int kModifyCeiling = 254;

// A grey level scaled by the contrast factor: the exact product of the two,
// truncated toward zero and limited to 0..nCeiling.
inline unsigned char ScaleLevel(int nLevel, float fFactor, int nCeiling)
{
    return greylevel::Truncate(static_cast<double>(nLevel) * static_cast<double>(fFactor), nCeiling);
}

// Models 5 and 6: the shading table is added (limited to 255), then the level
// above 90 is scaled by the contrast factor (limited to 255). The second step
// depends on the level alone, so it is tabulated once per frame and both
// steps run in one pass.
void ApplyShading(unsigned char* pImage, float fFactor)
{
    unsigned char abyScale[256];
    for (int v = 0; v < 256; ++v) {
        const int nAbove = v > kShadingFloor ? v - kShadingFloor : 0;
        abyScale[v] = ScaleLevel(nAbove, fFactor, 255);
    }
    for (int i = 0; i < IMG_PIXELS; ++i) {
        const int nSum = static_cast<int>(pImage[i]) + static_cast<int>(pModBuf[i]);
        pImage[i] = abyScale[nSum > 255 ? 255 : nSum];
    }
}

void StampMarks(unsigned char* pImage, unsigned long nWidth, unsigned long nHeight)
{
    const int w = static_cast<int>(nWidth);
    const int h = static_cast<int>(nHeight);
    SetLTWaterM(pImage, w, h);
    SetRTWaterM(pImage, w, h);
    SetLBWaterM(pImage, w, h);
    SetRBWaterM(pImage, w, h);
}

}  // namespace

namespace oberin {

void CaptureNominalSize(const COberin& sensor, unsigned long* pnWidth, unsigned long* pnHeight)
{
    const unsigned long nCode = sensor.m_nImageSize;
    if (nCode < tavk05profile::kImageSizeCodes && tavk05profile::kImageSizes[nCode].bCaptureNominal) {
        *pnWidth = tavk05profile::kImageSizes[nCode].nWidth;
        *pnHeight = tavk05profile::kImageSizes[nCode].nHeight;
    } else {
        *pnWidth = sensor.m_nWidth;
        *pnHeight = sensor.m_nHeight;
    }
}

bool FrameBuffersUsable(const COberin& sensor)
{
    if (sensor.m_pRawBuf == nullptr || sensor.m_pRawCopyBuf == nullptr || sensor.m_pGreyBuf == nullptr) {
        return false;
    }
    // The transport zeroes and fills the whole transfer, not only the frame.
    const unsigned long nTransfer = CVxdInterface::TransferLength(sensor.m_nFrameBytes);
    if (nTransfer == 0 || nTransfer > OBERIN_FRAME_BUFFER_BYTES) {
        return false;
    }
    const unsigned long w = sensor.m_nRawWidth;
    const unsigned long h = sensor.m_nRawHeight;
    return w >= 2 && h >= 2 && w <= sensor.m_nFrameBytes / h;
}

void FinishFrame(COberin& sensor, unsigned char* pImage, bool bMark)
{
    const unsigned long w = sensor.m_nRawWidth;
    const unsigned long h = sensor.m_nRawHeight;
    CImageProc& proc = sensor.m_ImageProc;

    // Only the mosaic enters the conversion; the tail of the frame is unused.
    std::memcpy(sensor.m_pRawCopyBuf, sensor.m_pRawBuf, w * h);
    proc.RGBtoGRAY2(sensor.m_pRawCopyBuf, sensor.m_pGreyBuf, static_cast<int>(w), static_cast<int>(h));

    // The correction's result is not looked at: a refused correction leaves
    // the caller's buffer as it was.
    const tavk05profile::ModelProfile& profile = ProfileOf(sensor);
    switch (profile.eCorrection) {
        case tavk05profile::kCorrectCalcEx:
            proc.CorrectImageCalcEx(sensor.m_pGreyBuf, w, h, pImage, IMG_WIDTH, IMG_HEIGHT, 0, 0);
            break;
        case tavk05profile::kCorrectCalc:
            proc.CorrectImageCalc(sensor.m_pGreyBuf, w, h, pImage, IMG_WIDTH, IMG_HEIGHT, 0, 0);
            break;
        case tavk05profile::kCorrectTables:
            // CorrectImage picks the coordinate tables by the processor's type.
            proc.CorrectImage(sensor.m_pGreyBuf, w, h, pImage, IMG_WIDTH, IMG_HEIGHT, 0, 0);
            break;
    }

    if (profile.bShading) {
        ApplyShading(pImage, sensor.m_fContrastFactor);
    }

    if (bMark) {
        unsigned long nWidth = 0;
        unsigned long nHeight = 0;
        CaptureNominalSize(sensor, &nWidth, &nHeight);
        StampMarks(pImage, nWidth, nHeight);
    }
}

bool CaptureFrame(COberin& sensor, unsigned char* pImage, bool bMark, FrameRead eRead)
{
    if (sensor.m_pVxd == nullptr) {
        return false;
    }
    if (pImage == nullptr) {
        return true;
    }
    // Without its work buffers (the constructor could not allocate them) the
    // sensor cannot capture; the device is not touched.
    if (!FrameBuffersUsable(sensor)) {
        return false;
    }
    const int nRead = eRead == kReadAcquisition
                          ? sensor.m_pVxd->ReadData(sensor.m_pRawBuf, sensor.m_nFrameBytes, kReadTimeout)
                          : sensor.m_pVxd->ReadDataEx(sensor.m_pRawBuf, sensor.m_nFrameBytes, kReadTimeout);
    if (nRead != VXD_OK) {
        return false;
    }
    FinishFrame(sensor, pImage, bMark);
    return true;
}

}  // namespace oberin

unsigned long COberin::GetImage(unsigned char* pImage)
{
    m_nError = LockDevice();
    if (m_nError != TAVK05_OK) {
        return m_nError;
    }
    const unsigned long nResult = m_nScanMode == 1 ? GetImage_Adaptive(pImage) : GetImage_Normal(pImage);
    UnlockDevice();
    m_nError = nResult;
    return nResult;
}

unsigned long COberin::GetImage_Adaptive(unsigned char* /*pImage*/)
{
    return TAVK05_E_UNSUPPORTED;  // the adaptive scan mode is not provided
}

unsigned long COberin::GetImage_Normal(unsigned char* pImage)
{
    unsigned long nWidth = 0;
    unsigned long nHeight = 0;
    oberin::CaptureNominalSize(*this, &nWidth, &nHeight);

    // A capture that cannot happen for lack of work buffers is reported as
    // memory short before anything is asked of the device.
    if (m_bCaptureEnable && pImage != nullptr && m_pVxd != nullptr && !oberin::FrameBuffersUsable(*this)) {
        m_nError = TAVK05_E_FAILED;
        return m_nError;
    }

    if (oberin::LatentCheckActive(*this)) {
        // One latent frame per capture; a probe without its buffers counts
        // as memory short.
        oberin::CLatentProbe probe(*this);
        if (!probe.Usable()) {
            m_nError = TAVK05_E_FAILED;
            return m_nError;
        }
        const oberin::LatentResult eLatent = probe.Probe();
        if (eLatent == oberin::kLatentReadFailed) {
            m_nError = TAVK05_E_READ;
            return m_nError;
        }
        if (eLatent == oberin::kLatentFound) {
            // The rejected image reads white over its nominal size.
            if (pImage != nullptr) {
                std::memset(pImage, 255, nWidth * nHeight);
            }
            m_nError = TAVK05_E_LATENT;
            return m_nError;
        }
    }

    if (m_bCaptureEnable) {
        m_nError = CaptureImage(pImage, true) ? TAVK05_OK : TAVK05_E_READ;
    } else {
        m_nError = TAVK05_OK;  // check only: no frame is read
    }
    return m_nError;
}

int COberin::CheckLatent(unsigned char* pImage) { return static_cast<int>(m_ImageProc.CheckLatent2(pImage)); }

bool COberin::CaptureImage(unsigned char* pImage, bool bMark)
{
    return oberin::CaptureFrame(*this, pImage, bMark, oberin::kReadAcquisition);
}

bool COberin::CaptureImageForRoll(unsigned char* pImage, bool bMark)
{
    return oberin::CaptureFrame(*this, pImage, bMark, oberin::kReadInStream);
}

// Resamples a m_nWidth-wide image horizontally to the nominal width W of the
// image-size code (codes 1 and 3 only; the others keep m_nWidth x m_nHeight),
// mirrors it left to right, inverts it when pixel inversion is on, scales it
// by the contrast factor (ceiling 254) and marks it as a W x H image.
void COberin::DoModify(const unsigned char* pSrc, unsigned char* pDst)
{
    if (pSrc == nullptr || pDst == nullptr) {
        return;
    }
    unsigned long W = m_nWidth;
    unsigned long H = m_nHeight;
    if (m_nImageSize < tavk05profile::kImageSizeCodes && tavk05profile::kImageSizes[m_nImageSize].bResampled) {
        W = tavk05profile::kImageSizes[m_nImageSize].nWidth;
        H = tavk05profile::kImageSizes[m_nImageSize].nHeight;
    }
    if (W == 0 || H == 0) {
        return;
    }
    const unsigned long nScale = (100 * m_nWidth) / W;
    const unsigned char byMask = m_bPixelInvert != 0 ? 0xFF : 0x00;

    for (unsigned long y = 0; y < H; ++y) {
        const unsigned char* pRow = pSrc + y * m_nWidth;
        unsigned char* pOut = pDst + y * W;
        for (unsigned long x = 0; x < W; ++x) {
            const int s = pRow[(nScale * x) / 100] ^ byMask;
            pOut[W - 1 - x] = ScaleLevel(s, m_fContrastFactor, kModifyCeiling);
        }
    }
    StampMarks(pDst, W, H);
}
