// COberin: construction and destruction, opening and closing the device, the
// LED switch and the operations that only report state.
#include <memory>
#include <new>

#include "tavk05/oberin.h"
#include "oberin_firmware.h"

namespace {

// What a new sensor assumes until it opens a device.
const tavk05profile::ModelProfile& DefaultProfile()
{
    return tavk05profile::ProfileOf(tavk05profile::kDefaultDeviceType, false, tavk05profile::LibraryModels());
}

// The three work buffers of a sensor, taken all or nothing: each is held here
// until all three are had, and handed to the sensor only then.
void TakeFrameBuffers(unsigned char** ppRaw, unsigned char** ppRawCopy, unsigned char** ppGrey)
{
    std::unique_ptr<unsigned char[]> pRaw(new (std::nothrow) unsigned char[OBERIN_FRAME_BUFFER_BYTES]);
    std::unique_ptr<unsigned char[]> pRawCopy(new (std::nothrow) unsigned char[OBERIN_FRAME_BUFFER_BYTES]);
    std::unique_ptr<unsigned char[]> pGrey(new (std::nothrow) unsigned char[OBERIN_FRAME_BUFFER_BYTES]);
    if (pRaw && pRawCopy && pGrey) {
        *ppRaw = pRaw.release();
        *ppRawCopy = pRawCopy.release();
        *ppGrey = pGrey.release();
    }
}

// Gives the three buffers back to holders that free them, and clears the
// sensor's pointers.
void ReleaseFrameBuffers(unsigned char** ppRaw, unsigned char** ppRawCopy, unsigned char** ppGrey)
{
    const std::unique_ptr<unsigned char[]> pRaw(*ppRaw);
    const std::unique_ptr<unsigned char[]> pRawCopy(*ppRawCopy);
    const std::unique_ptr<unsigned char[]> pGrey(*ppGrey);
    *ppRaw = nullptr;
    *ppRawCopy = nullptr;
    *ppGrey = nullptr;
}

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
      m_nFrameBytes(DefaultProfile().nFrameBytes),
      m_nWidth(IMG_WIDTH),
      m_nHeight(IMG_HEIGHT),
      m_nGain(2),
      m_bPixelInvert(1),
      m_nContrast(20),
      m_fContrastFactor(DefaultProfile().fContrastFactor),
      m_nBrightness(40),
      m_pCallbackContext(nullptr),
      m_CallbackInfo(),  // filled by the capture loops before each call
      m_pfnCallback(nullptr),
      m_bLatentCheck(true),
      m_ImageProc(),
      m_bCaptureEnable(true),
      m_wLedMode(0),
      m_nRollMode(0),
      m_nDeviceType(DefaultProfile().nDeviceType),
      m_nRawWidth(DefaultProfile().nRawWidth),
      m_nRawHeight(DefaultProfile().nRawHeight),
      m_nScanMode(0),
      m_wDeviceIndex(0),
      m_bDevInitialized(false)
{
    // A failed allocation of the transport propagates to CreateISensor,
    // which turns it into result 1; m_ImageProc is released on the way.
    m_pVxd = new CVxdInterface();

    TakeFrameBuffers(&m_pRawBuf, &m_pRawCopyBuf, &m_pGreyBuf);
}

COberin::~COberin()
{
    SaveConfig();
    CloseDevice();
    ReleaseFrameBuffers(&m_pRawBuf, &m_pRawCopyBuf, &m_pGreyBuf);
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

    // Types 3 and 4 and unrecognised products keep the geometry they had.
    const tavk05profile::ModelProfile& profile = oberin::ProfileOf(*this);
    if (profile.bOpenSetsGeometry) {
        m_nFrameBytes = profile.nFrameBytes;
        m_nRawWidth = profile.nRawWidth;
        m_nRawHeight = profile.nRawHeight;
        m_fContrastFactor = profile.fContrastFactor;
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

unsigned long COberin::GetError() { return m_nError; }

unsigned long COberin::GetDeviceType() { return static_cast<unsigned long>(static_cast<long>(m_nDeviceType)); }

unsigned long COberin::GetDeviceInfo(tagDeviceInfoParam* pInfo)
{
    if (pInfo != nullptr) {
        pInfo->DeviceID = OBERIN_DEVICE_ID;
        pInfo->Reserved1 = 0;
        if (m_nImageSize < tavk05profile::kImageSizeCodes) {
            pInfo->ImageWidth = tavk05profile::kImageSizes[m_nImageSize].nWidth;
            pInfo->ImageHeight = tavk05profile::kImageSizes[m_nImageSize].nHeight;
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

unsigned long COberin::ResetDevice() { return TAVK05_OK; }

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

unsigned long COberin::SetLedOn(bool bOn) { return SetLedOnEx(bOn); }

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
