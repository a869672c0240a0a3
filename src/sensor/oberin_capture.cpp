// COberin single capture: GetImage with its scan-mode variants, the latent
// pre-check, the frame pipeline shared by CaptureImage and
// CaptureImageForRoll, and the DoModify resampling.
#include "oberin_capture.h"
#include "oberin_firmware.h"

#include <climits>
#include <cstring>
#include <memory>
#include <new>

#include "tavk05/mark.h"

namespace {

// The frame read's time-out argument (the transport does not use it).
const unsigned long kReadTimeout = 3000;

// Whatever the model, a latent frame is converted as a 1214 x 616 mosaic.
const int kLatentWidth = 1214;
const int kLatentHeight = 616;
const unsigned long kLatentPixels = static_cast<unsigned long>(kLatentWidth) * kLatentHeight;
// Room behind the frame in each latent buffer.
const unsigned long kLatentSlack = 200;
// The pre-check reads one latent frame per capture.
const int kLatentAttempts = 1;

// Models 5 and 6: level subtracted before the scale factor is applied.
const int kShadingFloor = 90;

// Ceiling of DoModify's output levels (254, not 255).
const int kModifyCeiling = 254;

// Nominal sizes by image-size code for the capture paths (index = code);
// zero marks the codes that take the output size instead.
const unsigned long kCaptureNominal[6][2] = {
    {0, 0}, {228, 292}, {0, 0}, {248, 292}, {260, 300}, {600, 600},
};

// A grey level scaled by the contrast factor: the exact product of the two,
// truncated toward zero and limited to 0..nCeiling (negative products and
// NaN give 0).
inline unsigned char ScaleLevel(int nLevel, float fFactor, int nCeiling)
{
    const double x = static_cast<double>(nLevel) * static_cast<double>(fFactor);
    if (!(x >= 1.0)) return 0;
    if (x >= static_cast<double>(nCeiling)) return static_cast<unsigned char>(nCeiling);
    return static_cast<unsigned char>(static_cast<int>(x));
}

bool IsModel5Or6(int nDeviceType)
{
    return nDeviceType == 5 || nDeviceType == 6;
}

bool IsModel7Or8(int nDeviceType)
{
    return nDeviceType == 7 || nDeviceType == 8;
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
    if (nCode < 6 && kCaptureNominal[nCode][0] != 0) {
        *pnWidth = kCaptureNominal[nCode][0];
        *pnHeight = kCaptureNominal[nCode][1];
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
    if (IsModel7Or8(sensor.m_nDeviceType)) {
        if (HasNewFirmware(sensor.m_pVxd)) {
            proc.CorrectImageCalcEx(sensor.m_pGreyBuf, w, h, pImage, IMG_WIDTH, IMG_HEIGHT, 0, 0);
        } else {
            proc.CorrectImageCalc(sensor.m_pGreyBuf, w, h, pImage, IMG_WIDTH, IMG_HEIGHT, 0, 0);
        }
    } else {
        // CorrectImage picks the coordinate tables by the processor's type.
        proc.CorrectImage(sensor.m_pGreyBuf, w, h, pImage, IMG_WIDTH, IMG_HEIGHT, 0, 0);
    }

    if (IsModel5Or6(sensor.m_nDeviceType)) {
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

    if (m_pVxd != nullptr && m_pVxd->m_bLatentCapable && m_bLatentCheck) {
        // The latent frame is converted as 1214 x 616 whatever the model, so
        // each buffer holds at least that much besides the frame.
        // A size that cannot even be expressed counts as memory short.
        const unsigned long nFrame = m_nFrameBytes > kLatentPixels ? m_nFrameBytes : kLatentPixels;
        const bool bSizeOk = nFrame <= ULONG_MAX - kLatentSlack;
        std::unique_ptr<unsigned char[]> pLatent(bSizeOk ? new (std::nothrow) unsigned char[nFrame + kLatentSlack]
                                                         : nullptr);
        std::unique_ptr<unsigned char[]> pLatentGrey(
            bSizeOk ? new (std::nothrow) unsigned char[nFrame + kLatentSlack] : nullptr);
        if (!pLatent || !pLatentGrey) {
            m_nError = TAVK05_E_FAILED;
            return m_nError;
        }

        bool bLatent = false;
        int nAttempts = kLatentAttempts;
        do {
            --nAttempts;
            if (m_pVxd->ReadLatent(pLatent.get(), m_nFrameBytes) != VXD_OK) {
                m_nError = TAVK05_E_READ;
                return m_nError;
            }
            m_ImageProc.RGBtoGRAY(pLatent.get(), pLatentGrey.get(), kLatentWidth, kLatentHeight);
            bLatent = CheckLatent(pLatentGrey.get()) != 0;
        } while (bLatent && nAttempts > 0);

        if (bLatent) {
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

int COberin::CheckLatent(unsigned char* pImage)
{
    return static_cast<int>(m_ImageProc.CheckLatent2(pImage));
}

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
    if (m_nImageSize == 1) {
        W = 228;
        H = 292;
    } else if (m_nImageSize == 3) {
        W = 248;
        H = 292;
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
