// COberin settings: image size, brightness and gain, pixel inversion, the
// register interface and the settings the scanner does not support.
#include "oberin_firmware.h"

namespace {

// Register numbers of WriteData / ReadData.
const unsigned long kRegCaptureOptions = 0;
const unsigned long kRegScanMode = 1;
const unsigned long kRegRollMode = 155;

const unsigned long kUnknownRegister = 255;

}  // namespace

unsigned long COberin::SetImageSize(unsigned long nWidth, unsigned long nHeight)
{
    m_nError = TAVK05_OK;
    for (unsigned long nCode = 0; nCode < tavk05profile::kImageSizeCodes; ++nCode) {
        if (tavk05profile::kImageSizes[nCode].nWidth == nWidth &&
            tavk05profile::kImageSizes[nCode].nHeight == nHeight) {
            m_nImageSize = nCode;
            return m_nError;
        }
    }
    m_nError = TAVK05_E_FAILED;
    return m_nError;
}

unsigned long COberin::SetBrightnessEx(unsigned long nValue)
{
    if (nValue > 100) {
        m_nError = TAVK05_E_INVALID;
        return m_nError;
    }
    // Stored even when the device cannot take it, so that the next open
    // pushes it.
    m_nBrightness = nValue;
    const unsigned char byExposure = static_cast<unsigned char>(nValue & 0xFF);
    m_nError = (m_pVxd != nullptr && m_pVxd->SetExposure(byExposure) == VXD_OK) ? TAVK05_OK : TAVK05_E_FAILED;
    return m_nError;
}

unsigned long COberin::SetBrightness(unsigned long nBrightness)
{
    m_nError = LockDevice();
    if (m_nError == TAVK05_OK) {
        m_nError = SetBrightnessEx(nBrightness);
        UnlockDevice();
    }
    return m_nError;
}

unsigned long COberin::SetGainValueEx(unsigned long nValue)
{
    if (nValue != 1 && nValue != 2 && nValue != 4 && nValue != 8) {
        m_nError = TAVK05_E_INVALID;
        return m_nError;
    }
    m_nGain = nValue;
    const unsigned char byGain = static_cast<unsigned char>(nValue & 0xFF);
    m_nError = (m_pVxd != nullptr && m_pVxd->SetGain(byGain) == VXD_OK) ? TAVK05_OK : TAVK05_E_FAILED;
    return m_nError;
}

unsigned long COberin::SetGainValue(unsigned long nGain)
{
    m_nError = LockDevice();
    if (m_nError == TAVK05_OK) {
        m_nError = SetGainValueEx(nGain);
        UnlockDevice();
    }
    return m_nError;
}

unsigned long COberin::SetPixelInvert(bool bInvert)
{
    m_bPixelInvert = bInvert ? 1 : 0;
    m_nError = TAVK05_OK;
    return m_nError;
}

unsigned long COberin::SetBlackCalibration(unsigned long /*nValue*/)
{
    m_nError = TAVK05_E_UNSUPPORTED;
    return m_nError;
}

unsigned long COberin::SetExposure(unsigned long /*nValue1*/, unsigned long /*nValue2*/)
{
    m_nError = TAVK05_E_UNSUPPORTED;
    return m_nError;
}

unsigned long COberin::SetExposureEx(unsigned long /*nValue1*/, unsigned long /*nValue2*/)
{
    m_nError = TAVK05_E_UNSUPPORTED;
    return m_nError;
}

unsigned long COberin::SetAutoExposure(bool /*bOn*/)
{
    m_nError = TAVK05_E_UNSUPPORTED;
    return m_nError;
}

unsigned long COberin::SetAutoGain(bool /*bOn*/)
{
    m_nError = TAVK05_E_UNSUPPORTED;
    return m_nError;
}

unsigned long COberin::AutoTunning()
{
    return TAVK05_E_UNSUPPORTED;  // the last status is left as it was
}

unsigned long COberin::AutoTuning()
{
    return AutoTunning();  // virtual: a derived tuning takes over both names
}

// Register 0 holds the capture options, register 1 the scan mode and
// register 155 the roll mode. The result carries no status; m_nError is left
// as it was.
unsigned long COberin::WriteData(unsigned long nReg, unsigned long nValue)
{
    switch (nReg) {
        case kRegCaptureOptions:
            if (nValue == 0) {
                m_bLatentCheck = false;
                m_bCaptureEnable = true;
            } else if (nValue == 1) {
                m_bLatentCheck = true;
                m_bCaptureEnable = true;
            } else if (nValue == 2) {
                m_bLatentCheck = true;
                m_bCaptureEnable = false;
            }
            break;
        case kRegScanMode:
            m_nScanMode = (nValue == 0 || nValue == 1) ? nValue : 0;
            break;
        case kRegRollMode:
            if (nValue != 0 && nValue != 1) {
                m_nRollMode = 0;
            } else if (!oberin::ProfileOf(*this).bRolls) {
                m_nRollMode = 0;  // models 4, 6 and 8 cannot roll
            } else {
                m_nRollMode = nValue;
            }
            if (m_nRollMode == 0) {
                m_nRollState = 0;
            }
            break;
        default:
            break;
    }
    return TAVK05_OK;
}

unsigned long COberin::ReadData(unsigned long nReg)
{
    switch (nReg) {
        case kRegCaptureOptions:
            if (!m_bLatentCheck) return 0;
            return m_bCaptureEnable ? 1 : 2;
        case kRegScanMode:
            return m_nScanMode & 0xFF;
        case kRegRollMode:
            return m_nRollMode & 0xFF;
        default:
            return kUnknownRegister;
    }
}
