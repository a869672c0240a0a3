// Device transport: the thin layer over the scanner's kernel driver node
// "/dev/tavk05N" (ioctl control requests and blocking frame reads).
#ifndef TAVK05_VXDINTER_H
#define TAVK05_VXDINTER_H

#include "isensor.h"

// Standard USB device descriptor as the kernel driver returns it (request 4),
// multi-byte fields little-endian.
struct _usb_device_descriptor {
    unsigned char bLength;
    unsigned char bDescriptorType;
    unsigned short bcdUSB;
    unsigned char bDeviceClass;
    unsigned char bDeviceSubClass;
    unsigned char bDeviceProtocol;
    unsigned char bMaxPacketSize0;
    unsigned short idVendor;
    unsigned short idProduct;
    unsigned short bcdDevice;
    unsigned char iManufacturer;
    unsigned char iProduct;
    unsigned char iSerialNumber;
    unsigned char bNumConfigurations;
};

// Kernel driver request numbers (plain numbers, no direction or size bits).
enum {
    VXD_REQ_GET_DESCRIPTOR = 4,
    VXD_REQ_SET_SENSOR_OPTION = 5,
    VXD_REQ_LED = 8,
    VXD_REQ_GET_DEVICE_ID = 9,
    VXD_REQ_GET_VALUE = 17,
    VXD_REQ_SET_VALUE = 18,
    VXD_REQ_START_ACQUISITION = 21,
    VXD_REQ_STOP_ACQUISITION = 22
};

// Transport result codes.
enum { VXD_OK = 0, VXD_E_INVALID = 3, VXD_E_LED = 51, VXD_E_NOT_OPEN = 55, VXD_E_ALLOC = 71, VXD_E_REQUEST = 72 };

enum { VXD_OPTION_BLOCK_BYTES = 128, VXD_VALUE_BLOCK_BYTES = 64, VXD_PRODUCT_0610 = 0x0610, VXD_PRODUCT_0620 = 0x0620 };

class TAVK05_API CVxdInterface {
public:
    int m_nFirmwareVersion;      // bcdDevice of the descriptor, read at open
    bool m_bLatentCapable;       // latent phases run only when set; cleared at open
    unsigned char m_byGain;      // gain byte of the sensor-option block
    unsigned char m_byExposure;  // exposure byte of the sensor-option block
    int m_hDevice;               // descriptor of the open node, negative when closed
    int m_nDevType;              // device type 3..8, 0 when unknown

    CVxdInterface();
    ~CVxdInterface();

    int OpenUSB(unsigned short nIndex);
    int GetDevDescriptor(_usb_device_descriptor* pDesc);
    int GetDevInfo();
    int CloseUSB();

    int SetExposure(unsigned char byValue);
    int SetGain(unsigned char byValue);
    int SetSensorOption();
    int SetLedOn(bool bOn, unsigned short wSelector);

    int DevIoCtlGetDevID(void* pOut, unsigned long* pLen);
    int DevIoCtlGetValue(void* pOut, unsigned long* pLen);
    int DevIoCtlSetValue(void* pIn, unsigned long nLen);
    int DevIoCtlCheckAutoOnStatus(void* pOut, unsigned long* pLen);
    int RollDevIoControl(unsigned long nMode);
    int ResetPipe(unsigned long nPipe);
    int LockDevice();
    int UnlockDevice();

    int GetFirmwareVersion();
    int GetDevType();
    int GetBandwidth();
    int GetOpenHandleCount();
    int SetAutoExposure(bool bOn);
    int SetAutoGain(bool bOn);
    int I2cReadData(unsigned char byReg);
    int I2cWriteData(unsigned char byReg, unsigned char byValue);

    // Frame and latent reads.
    int ReadData(unsigned char* pBuf, unsigned long nBytes, unsigned long nTimeout);
    int ReadDataEx(unsigned char* pBuf, unsigned long nBytes, unsigned long nTimeout);
    int ReadLatent(unsigned char* pBuf, unsigned long nBytes);

    // Declares whether the unit supports latent reads; the latent pre-check of
    // single capture and the latent wait of live capture run only when set.
    // Opening the node clears it again.
    void SetLatentCapable(bool bCapable);

    // Transfer length of a read: the requested length rounded up to 1024.
    static unsigned long TransferLength(unsigned long nBytes);

private:
    CVxdInterface(const CVxdInterface&);
    CVxdInterface& operator=(const CVxdInterface&);
};

#endif
