// COberin: construction and destruction, opening and closing the device, the
// LED switch and the operations that only report state.
#include <new>

#include "tavk05/oberin.h"
#include "oberin_firmware.h"

namespace {

const unsigned long kDefaultFrameBytes = 926720;
const unsigned long kDefaultRawWidth = 1280;
const unsigned long kDefaultRawHeight = 676;
const float kDefaultContrastFactor = 1.3f;

// Nominal width and height of the image-size codes 0 to 5.
const unsigned int kImageSizes[6][2] = {
    {356, 292}, {228, 292}, {356, 456}, {248, 292}, {260, 300}, {600, 600},
};

}  // namespace

// The frame buffers are taken all or nothing: if any of the three cannot be
// had, none is kept and all three stay null. The object then still opens,
// closes, reports and saves its settings; capture paths must test m_pRawBuf
// (null means no buffers) and fail with status 2 (memory short) instead of
// reading a frame.
COberin::COberin(ISensor::tagCreateParam* /*pParam: not read*/)
    : m_nRollState(-1),
      m_pVxd(nullptr),
      m_nError(TAVK05_OK),
      m_nImageSize(5),
      m_pRawBuf(nullptr),
      m_pRawCopyBuf(nullptr),
      m_pGreyBuf(nullptr),
      m_nFrameBytes(kDefaultFrameBytes),
      m_nWidth(IMG_WIDTH),
      m_nHeight(IMG_HEIGHT),
      m_nGain(2),
      m_bPixelInvert(1),
      m_nContrast(20),
      m_fContrastFactor(kDefaultContrastFactor),
      m_nBrightness(40),
      m_pCallbackContext(nullptr),
      m_CallbackInfo(),  // filled by the capture loops before each call
      m_pfnCallback(nullptr),
      m_bLatentCheck(true),
      m_ImageProc(),
      m_bCaptureEnable(true),
      m_wLedMode(0),
      m_nRollMode(0),
      m_nDeviceType(4),
      m_nRawWidth(kDefaultRawWidth),
      m_nRawHeight(kDefaultRawHeight),
      m_nScanMode(0),
      m_wDeviceIndex(0),
      m_bDevInitialized(false)
{
    // A failed allocation of the transport propagates to CreateISensor,
    // which turns it into result 1; m_ImageProc is released on the way.
    m_pVxd = new CVxdInterface();

    m_pRawBuf = new (std::nothrow) unsigned char[OBERIN_FRAME_BUFFER_BYTES];
    m_pRawCopyBuf = new (std::nothrow) unsigned char[OBERIN_FRAME_BUFFER_BYTES];
    m_pGreyBuf = new (std::nothrow) unsigned char[OBERIN_FRAME_BUFFER_BYTES];
    if (m_pRawBuf == nullptr || m_pRawCopyBuf == nullptr || m_pGreyBuf == nullptr) {
        delete[] m_pRawBuf;
        delete[] m_pRawCopyBuf;
        delete[] m_pGreyBuf;
        m_pRawBuf = nullptr;
        m_pRawCopyBuf = nullptr;
        m_pGreyBuf = nullptr;
    }
}

COberin::~COberin()
{
    SaveConfig();
    CloseDevice();
    delete[] m_pRawBuf;
    delete[] m_pRawCopyBuf;
    delete[] m_pGreyBuf;
    m_pRawBuf = nullptr;
    m_pRawCopyBuf = nullptr;
    m_pGreyBuf = nullptr;
    // m_ImageProc is destroyed after this body, as a member.
}

unsigned long COberin::OpenDevice(unsigned long nIndex, unsigned long /*nReserved*/)
{
    if (m_pVxd == nullptr) {
        m_pVxd = new (std::nothrow) CVxdInterface();
        if (m_pVxd == nullptr) {
            m_nError = TAVK05_E_FAILED;
            return m_nError;
        }
    }

    if (nIndex == OBERIN_DEVICE_ID || nIndex > 7) {
        nIndex = 0;
    }
    m_wDeviceIndex = static_cast<unsigned short>(nIndex);

    if (m_pVxd->OpenUSB(m_wDeviceIndex) != VXD_OK) {
        m_pVxd->CloseUSB();
        m_nError = TAVK05_E_NOT_OPEN;
        return m_nError;
    }

    m_bDevInitialized = false;
    m_nDeviceType = m_pVxd->GetDevType();
    m_ImageProc.m_nDeviceType = m_nDeviceType;

    const bool bNewFirmware = oberin::HasNewFirmware(m_pVxd);
    switch (m_nDeviceType) {
    case 5:
    case 6:
    case 7:
    case 8:
        if (bNewFirmware) {
            m_nFrameBytes = 2304000;
            m_nRawWidth = 1800;
            m_nRawHeight = 1280;
            m_fContrastFactor = 1.42f;
        } else {
            m_nFrameBytes = 1128448;
            m_nRawWidth = 1288;
            m_nRawHeight = 876;
            m_fContrastFactor = (m_nDeviceType <= 6) ? 1.55f : 2.0f;
        }
        break;
    default:
        // Types 3 and 4 and unrecognised products keep the geometry they had.
        break;
    }

    SetLedOnEx(true);  // result not reported
    m_nRollState = 0;
    m_nError = TAVK05_OK;
    RetrieveConfig();
    return TAVK05_OK;
}

unsigned long COberin::CloseDevice()
{
    if (m_pVxd == nullptr) {
        return TAVK05_OK;
    }
    SetLedOnEx(false);
    delete m_pVxd;  // closes the node
    m_pVxd = nullptr;
    return TAVK05_OK;
}

unsigned long COberin::GetError()
{
    return m_nError;
}

unsigned long COberin::GetDeviceType()
{
    return static_cast<unsigned long>(static_cast<long>(m_nDeviceType));
}

unsigned long COberin::GetDeviceInfo(tagDeviceInfoParam* pInfo)
{
    if (pInfo != nullptr) {
        pInfo->DeviceID = OBERIN_DEVICE_ID;
        pInfo->Reserved1 = 0;
        if (m_nImageSize < 6) {
            pInfo->ImageWidth = kImageSizes[m_nImageSize][0];
            pInfo->ImageHeight = kImageSizes[m_nImageSize][1];
        }
        pInfo->Contrast = static_cast<unsigned int>(m_nContrast);
        pInfo->Brightness = static_cast<unsigned int>(m_nBrightness);
        pInfo->Reserved2 = 0;
        pInfo->Reserved3 = 0;
        // Reserved4 stays as the caller set it.
        pInfo->Gain = static_cast<unsigned int>(m_nGain);
    }
    m_nError = TAVK05_OK;
    return TAVK05_OK;
}

unsigned long COberin::ResetDevice()
{
    return TAVK05_OK;
}

unsigned long COberin::Configure(unsigned int /*nValue*/)
{
    m_nError = TAVK05_E_UNSUPPORTED;
    return m_nError;
}

unsigned long COberin::SetLedOnEx(bool bOn)
{
    if (m_pVxd != nullptr && m_pVxd->SetLedOn(bOn, m_wLedMode) == VXD_OK) {
        m_nError = TAVK05_OK;
    } else {
        m_nError = TAVK05_E_FAILED;
    }
    return m_nError;
}

unsigned long COberin::SetLedOn(bool bOn)
{
    return SetLedOnEx(bOn);
}

unsigned long COberin::LockDevice()
{
    if (m_pVxd == nullptr) {
        return TAVK05_E_FAILED;
    }
    return m_pVxd->LockDevice() == VXD_OK ? TAVK05_OK : TAVK05_E_FAILED;
}

unsigned long COberin::UnlockDevice()
{
    if (m_pVxd == nullptr) {
        return TAVK05_E_FAILED;
    }
    return m_pVxd->UnlockDevice() == VXD_OK ? TAVK05_OK : TAVK05_E_FAILED;
}
