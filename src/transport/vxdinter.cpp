// CVxdInterface: opening the scanner's device node, the device type from the
// USB device descriptor, and the control requests of the kernel driver.
#include "tavk05/vxdinter.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "profile/model_profile.h"

static_assert(sizeof(_usb_device_descriptor) == 18, "the kernel driver fills 18 descriptor bytes");

namespace {

// Older firmware does not survive a close of its node by the kernel driver,
// so the descriptor is only given back from the next version on.
const int kFirmwareCloses = 0x7FF;

// Shared body of the two 64-byte "get" requests: the block goes out zeroed and
// reaches the caller only when the kernel driver accepted the request.
int GetBlock(int hDevice, unsigned long nRequest, void* pOut, unsigned long* pLen)
{
    if (pLen == nullptr) {
        return VXD_E_INVALID;
    }
    *pLen = 0;
    if (pOut == nullptr) {
        return VXD_E_INVALID;
    }
    if (hDevice < 0) {
        return VXD_E_NOT_OPEN;
    }
    unsigned char abyBlock[VXD_VALUE_BLOCK_BYTES] = {};
    if (ioctl(hDevice, nRequest, abyBlock) < 0) {
        return VXD_E_REQUEST;
    }
    std::memcpy(pOut, abyBlock, sizeof abyBlock);
    *pLen = VXD_VALUE_BLOCK_BYTES;
    return VXD_OK;
}

}  // namespace

CVxdInterface::CVxdInterface()
    : m_nFirmwareVersion(0), m_bLatentCapable(false), m_byGain(0), m_byExposure(0), m_hDevice(-1), m_nDevType(0)
{
}

CVxdInterface::~CVxdInterface()
{
    if (m_hDevice > 0) {
        CloseUSB();
    }
}

int CVxdInterface::OpenUSB(unsigned short nIndex)
{
    if (nIndex > 7) {
        return VXD_E_INVALID;
    }
    char szPath[32];
    std::snprintf(szPath, sizeof szPath, "/dev/tavk05%d", static_cast<int>(nIndex));
    m_hDevice = open(szPath, O_RDONLY);
    if (m_hDevice < 0) {
        return VXD_E_REQUEST;
    }
    m_bLatentCapable = false;
    GetDevInfo();
    return VXD_OK;
}

int CVxdInterface::GetDevDescriptor(_usb_device_descriptor* pDesc)
{
    return ioctl(m_hDevice, VXD_REQ_GET_DESCRIPTOR, pDesc);
}

int CVxdInterface::GetDevInfo()
{
    if (m_hDevice < 0) {
        return VXD_E_NOT_OPEN;
    }
    _usb_device_descriptor desc;
    std::memset(&desc, 0, sizeof desc);
    const int nResult = GetDevDescriptor(&desc);
    if (nResult != 0) {
        return nResult;
    }
    // The descriptor is little-endian on the wire; take the two fields byte
    // by byte so the host's byte order does not matter.
    unsigned char abyDesc[sizeof desc];
    std::memcpy(abyDesc, &desc, sizeof desc);
    const unsigned short wProduct = static_cast<unsigned short>(abyDesc[10] | (abyDesc[11] << 8));
    const unsigned short wBcdDevice = static_cast<unsigned short>(abyDesc[12] | (abyDesc[13] << 8));
    m_nFirmwareVersion = wBcdDevice;
    // An unknown product keeps the type the interface had.
    const int nType = tavk05profile::DeviceTypeOf(wProduct, wBcdDevice, tavk05profile::LibraryModels());
    if (nType > 0) {
        m_nDevType = nType;
    }
    return VXD_OK;
}

int CVxdInterface::CloseUSB()
{
    if (m_hDevice < 0) {
        return VXD_OK;
    }
    if (m_nFirmwareVersion > kFirmwareCloses) {
        close(m_hDevice);
    }
    m_hDevice = -1;
    return VXD_OK;
}

int CVxdInterface::SetExposure(unsigned char byValue)
{
    if (m_hDevice < 0) {
        return VXD_E_NOT_OPEN;
    }
    m_byExposure = byValue;
    return SetSensorOption();
}

int CVxdInterface::SetGain(unsigned char byValue)
{
    if (m_hDevice < 0) {
        return VXD_E_NOT_OPEN;
    }
    m_byGain = byValue;
    return SetSensorOption();
}

int CVxdInterface::SetSensorOption()
{
    unsigned char abyBlock[VXD_OPTION_BLOCK_BYTES] = {};
    abyBlock[0] = 1;
    abyBlock[1] = 2;
    abyBlock[2] = m_byExposure;
    abyBlock[3] = m_byGain;
    if (ioctl(m_hDevice, VXD_REQ_SET_SENSOR_OPTION, abyBlock) < 0) {
        return VXD_E_REQUEST;
    }
    return VXD_OK;
}

int CVxdInterface::SetLedOn(bool bOn, unsigned short wSelector)
{
    if (m_hDevice < 0) {
        return VXD_E_NOT_OPEN;
    }
    unsigned char abyBlock[2];
    abyBlock[0] = bOn ? 1 : 0;
    abyBlock[1] = static_cast<unsigned char>(wSelector & 0xFF);
    if (ioctl(m_hDevice, VXD_REQ_LED, abyBlock) < 0) {
        return VXD_E_LED;
    }
    return VXD_OK;
}

int CVxdInterface::DevIoCtlGetDevID(void* pOut, unsigned long* pLen)
{
    return GetBlock(m_hDevice, VXD_REQ_GET_DEVICE_ID, pOut, pLen);
}

int CVxdInterface::DevIoCtlGetValue(void* pOut, unsigned long* pLen)
{
    return GetBlock(m_hDevice, VXD_REQ_GET_VALUE, pOut, pLen);
}

int CVxdInterface::DevIoCtlSetValue(void* pIn, unsigned long nLen)
{
    if (pIn == nullptr && nLen > 0) {
        return VXD_E_INVALID;
    }
    if (m_hDevice < 0) {
        return VXD_E_NOT_OPEN;
    }
    unsigned char abyBlock[VXD_VALUE_BLOCK_BYTES] = {};
    const unsigned long nCopy = nLen < sizeof abyBlock ? nLen : sizeof abyBlock;
    if (nCopy > 0) {
        std::memcpy(abyBlock, pIn, nCopy);
    }
    if (ioctl(m_hDevice, VXD_REQ_SET_VALUE, abyBlock) < 0) {
        return VXD_E_REQUEST;
    }
    return VXD_OK;
}

int CVxdInterface::DevIoCtlCheckAutoOnStatus(void* /*pOut*/, unsigned long* pLen)
{
    if (pLen != nullptr) {
        *pLen = 0;
    }
    return VXD_OK;
}

int CVxdInterface::RollDevIoControl(unsigned long nMode)
{
    if (m_hDevice < 0) {
        return VXD_E_NOT_OPEN;
    }
    unsigned long nRequest;
    if (nMode == 0) {
        nRequest = VXD_REQ_START_ACQUISITION;
    } else if (nMode == 1) {
        nRequest = VXD_REQ_STOP_ACQUISITION;
    } else {
        return VXD_OK;
    }
    if (ioctl(m_hDevice, nRequest, 0UL) < 0) {
        return VXD_E_REQUEST;
    }
    return VXD_OK;
}

int CVxdInterface::ResetPipe(unsigned long /*nPipe*/) { return m_hDevice < 0 ? VXD_E_LED : VXD_OK; }

int CVxdInterface::LockDevice() { return VXD_OK; }
int CVxdInterface::UnlockDevice() { return VXD_OK; }

int CVxdInterface::GetFirmwareVersion() { return m_nFirmwareVersion; }
int CVxdInterface::GetDevType() { return m_nDevType; }
int CVxdInterface::GetBandwidth() { return 0; }
int CVxdInterface::GetOpenHandleCount() { return 0; }

// The scanner has no automatic exposure or gain and no I2C path through this
// kernel driver; these accept their arguments and report success.
int CVxdInterface::SetAutoExposure(bool /*bOn*/) { return VXD_OK; }
int CVxdInterface::SetAutoGain(bool /*bOn*/) { return VXD_OK; }
int CVxdInterface::I2cReadData(unsigned char /*byReg*/) { return VXD_OK; }
int CVxdInterface::I2cWriteData(unsigned char /*byReg*/, unsigned char /*byValue*/) { return VXD_OK; }

void CVxdInterface::SetLatentCapable(bool bCapable) { m_bLatentCapable = bCapable; }
