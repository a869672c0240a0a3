// COberin control requests: the DevIoControl dispatcher, the wrappers that
// turn transport results into sensor status codes, and the background
// capture that gives the image processor its reference frame.
#include <cstring>

#include "tavk05/oberin.h"
#include "oberin_firmware.h"

namespace {

// Value and device-ID blocks of the kernel driver.
const unsigned long kBlockBytes = VXD_VALUE_BLOCK_BYTES;  // 64
const unsigned long kShortValueBytes = 60;                // what code 516 hands on

// LED block of code 257: on/off byte, then the selector.
const unsigned long kLedBlockBytes = 2;
const unsigned char kMaxLedSelector = 1;

// Settings of the background capture.
const unsigned long kBackgroundBrightnessNew = 35;
const unsigned long kBackgroundBrightnessOld = 37;
const unsigned long kBackgroundGain = 2;

const unsigned long kInvalid = TAVK05_E_INVALID;

unsigned long TransportResult(int nResult) { return nResult == VXD_OK ? TAVK05_OK : TAVK05_E_READ; }

// The argument checks of the codes that write a block to the caller: a
// block, a length word no larger than the capacity, and a capacity that holds
// the whole block (the block is always written in full).
bool OutputUsable(const void* pOut, unsigned long nOutCap, const unsigned long* pOutLen, unsigned long nBlock)
{
    return pOut != nullptr && nOutCap != 0 && pOutLen != nullptr && *pOutLen <= nOutCap && nOutCap >= nBlock;
}

}  // namespace

unsigned long COberin::DevIoControl(unsigned long nCode, void* pIn, unsigned long nInLen, void* pOut,
                                    unsigned long nOutCap, unsigned long* pOutLen)
{
    unsigned long nResult;
    switch (nCode) {
        case TAVK05_IOCTL_START_ACQUISITION:
        case TAVK05_IOCTL_STOP_ACQUISITION:
            nResult = (m_pVxd != nullptr && m_pVxd->RollDevIoControl(nCode) == VXD_OK) ? TAVK05_OK : TAVK05_E_FAILED;
            break;

        case TAVK05_IOCTL_LED:
            nResult = (pIn == nullptr || nInLen == 0) ? kInvalid : DevIoCtlSetSCLed(pIn, nInLen);
            break;

        case TAVK05_IOCTL_SET_VALUE:
            nResult = (pIn == nullptr || nInLen == 0) ? kInvalid : DevIoCtlSetValue(pIn, nInLen);
            break;

        case TAVK05_IOCTL_SET_VALUE64:
            if (pIn == nullptr || nInLen == 0) {
                nResult = TAVK05_E_INVALID;
            } else {
                // Only the first 64 bytes go out, zero-padded to a full block.
                unsigned char abyBlock[kBlockBytes] = {};
                const unsigned long nCopy = nInLen < kBlockBytes ? nInLen : kBlockBytes;
                std::memcpy(abyBlock, pIn, nCopy);
                nResult = DevIoCtlSetValue(abyBlock, nCopy);
            }
            break;

        case TAVK05_IOCTL_BACKGROUND: {
            const unsigned long nBrightness = m_nBrightness;
            const unsigned long nGain = m_nGain;
            const bool bNewFirmware = oberin::HasNewFirmware(m_pVxd);
            if (SetBrightness(bNewFirmware ? kBackgroundBrightnessNew : kBackgroundBrightnessOld) != TAVK05_OK) {
                nResult = TAVK05_E_FAILED;  // nothing was captured: settings not restored
                break;
            }
            if (SetGainValue(kBackgroundGain) != TAVK05_OK) {
                nResult = TAVK05_E_FAILED;
                break;
            }
            if (CaptureImage(m_ImageProc.m_pBackground, false)) {
                SetContrast(m_nContrast);  // result not reported
                nResult = TAVK05_OK;
            } else {
                nResult = TAVK05_E_FAILED;
            }
            // The capture settings were only for the background frame.
            SetBrightness(nBrightness);
            SetGainValue(nGain);
            break;
        }

        case TAVK05_IOCTL_GET_DEVICE_ID:
            nResult = OutputUsable(pOut, nOutCap, pOutLen, kBlockBytes) ? DevIoCtlGetDevID(pOut, pOutLen) : kInvalid;
            break;

        case TAVK05_IOCTL_GET_VALUE:
            nResult = OutputUsable(pOut, nOutCap, pOutLen, kBlockBytes) ? DevIoCtlGetValue(pOut, pOutLen) : kInvalid;
            break;

        case TAVK05_IOCTL_GET_VALUE60:
            if (!OutputUsable(pOut, nOutCap, pOutLen, kShortValueBytes)) {
                nResult = TAVK05_E_INVALID;
            } else {
                unsigned char abyBlock[kBlockBytes] = {};
                unsigned long nLen = 0;
                nResult = DevIoCtlGetValue(abyBlock, &nLen);
                if (nResult == TAVK05_OK) {
                    std::memcpy(pOut, abyBlock, kShortValueBytes);
                    *pOutLen = kShortValueBytes;
                } else {
                    *pOutLen = 0;
                }
            }
            break;

        case TAVK05_IOCTL_UNSUPPORTED:
            nResult = TAVK05_E_UNSUPPORTED;
            break;

        default:
            nResult = TAVK05_E_INVALID;
            break;
    }
    m_nError = nResult;
    return m_nError;
}

// The selector (0 or 1) is kept for every later LED request, those of
// OpenDevice and CloseDevice included.
unsigned long COberin::DevIoCtlSetSCLed(void* pIn, unsigned long nLen)
{
    if (pIn == nullptr || nLen < kLedBlockBytes) {
        return TAVK05_E_INVALID;
    }
    const unsigned char* pBlock = static_cast<const unsigned char*>(pIn);
    if (pBlock[1] > kMaxLedSelector) {
        return TAVK05_E_INVALID;
    }
    m_wLedMode = pBlock[1];
    return SetLedOnEx(pBlock[0] != 0);
}

unsigned long COberin::DevIoCtlGetDevID(void* pOut, unsigned long* pLen)
{
    if (m_pVxd == nullptr) return TAVK05_E_FAILED;
    if (pOut == nullptr || pLen == nullptr) return TAVK05_E_INVALID;
    return TransportResult(m_pVxd->DevIoCtlGetDevID(pOut, pLen));
}

unsigned long COberin::DevIoCtlGetValue(void* pOut, unsigned long* pLen)
{
    if (m_pVxd == nullptr) return TAVK05_E_FAILED;
    if (pOut == nullptr || pLen == nullptr) return TAVK05_E_INVALID;
    return TransportResult(m_pVxd->DevIoCtlGetValue(pOut, pLen));
}

unsigned long COberin::DevIoCtlSetValue(void* pIn, unsigned long nLen)
{
    if (m_pVxd == nullptr) return TAVK05_E_FAILED;
    if (pIn == nullptr) return TAVK05_E_INVALID;
    return TransportResult(m_pVxd->DevIoCtlSetValue(pIn, nLen));
}

unsigned long COberin::DevIoCtlCheckAutoOnStatus(void* pOut, unsigned long* pLen)
{
    if (m_pVxd == nullptr) return TAVK05_E_FAILED;
    if (pLen == nullptr) return TAVK05_E_INVALID;
    return TransportResult(m_pVxd->DevIoCtlCheckAutoOnStatus(pOut, pLen));
}
