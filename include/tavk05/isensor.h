// Host interface of the TAVK05 fingerprint scanner driver.
//
// A host loads libtavk05.so, obtains an ISensor from CreateISensor and drives
// the scanner through its virtual operations. The order of the virtual
// operations, their argument types and the record layouts below are the
// binary contract with hosts: never reorder, insert or change them.
#ifndef TAVK05_ISENSOR_H
#define TAVK05_ISENSOR_H

#include "status.h"

// Control codes of ISensor::DevIoControl.
enum {
    TAVK05_IOCTL_START_ACQUISITION = 0x000,
    TAVK05_IOCTL_STOP_ACQUISITION = 0x001,
    TAVK05_IOCTL_LED = 0x101,
    TAVK05_IOCTL_SET_VALUE = 0x103,
    TAVK05_IOCTL_SET_VALUE64 = 0x104,
    TAVK05_IOCTL_BACKGROUND = 0x105,
    TAVK05_IOCTL_GET_DEVICE_ID = 0x202,
    TAVK05_IOCTL_GET_VALUE = 0x203,
    TAVK05_IOCTL_GET_VALUE60 = 0x204,
    TAVK05_IOCTL_UNSUPPORTED = 0x301
};

// Return values of the live-capture callback.
enum {
    TAVK05_CB_CONTINUE = 0,
    TAVK05_CB_START_ROLL = 100,
    TAVK05_CB_STOP = 101
    // any other value: accept the current image (or give up after a failure)
};

class TAVK05_API ISensor {
public:
    // Creation record handed to CreateISensor. The driver reads none of its
    // fields; a null pointer is accepted.
    struct tagCreateParam {
        unsigned int nReserved[4];
    };

    // Device information filled by GetDeviceInfo: ten 32-bit words.
    struct tagDeviceInfoParam {
        unsigned int DeviceID;     // always 957
        unsigned int Reserved1;    // 0
        unsigned int ImageWidth;   // nominal width of the image-size code
        unsigned int ImageHeight;  // nominal height of the image-size code
        unsigned int Contrast;     // 0..100
        unsigned int Brightness;   // 0..100
        unsigned int Reserved2;    // 0
        unsigned int Reserved3;    // 0
        unsigned int Reserved4;    // left as the caller set it
        unsigned int Gain;         // 1, 2, 4 or 8
    };

    // Record whose address is the second argument of the live-capture
    // callback: four 32-bit words, valid during the call only.
    struct tagCallbackInfo {
        unsigned int nWidth;    // nominal image width
        unsigned int nHeight;   // nominal image height
        unsigned int nQuality;  // quality 0..100 of the image in the host buffer
        unsigned int nStatus;   // 0 after a good frame, 53 after a failed read
    };

    typedef unsigned long (*PFN_CALLBACK)(void* pContext, void* pInfo);

    ISensor() {}
    virtual ~ISensor() {}

    virtual unsigned long OpenDevice(unsigned long nIndex, unsigned long nReserved) = 0;
    virtual unsigned long GetImage(unsigned char* pImage) = 0;
    virtual unsigned long GetError() = 0;
    virtual unsigned long GetDeviceInfo(tagDeviceInfoParam* pInfo) = 0;
    virtual unsigned long Configure(unsigned int nValue) = 0;
    virtual unsigned long ResetDevice() = 0;
    virtual unsigned long SetImageSize(unsigned long nWidth, unsigned long nHeight) = 0;
    virtual unsigned long SetBrightness(unsigned long nBrightness) = 0;
    virtual unsigned long SetContrast(unsigned long nContrast) = 0;
    virtual unsigned long SetBlackCalibration(unsigned long nValue) = 0;
    virtual unsigned long SetLedOn(bool bOn) = 0;
    virtual unsigned long SetExposure(unsigned long nValue1, unsigned long nValue2) = 0;
    virtual unsigned long SetGainValue(unsigned long nGain) = 0;
    virtual unsigned long SetAutoExposure(bool bOn) = 0;
    virtual unsigned long SetAutoGain(bool bOn) = 0;
    virtual unsigned long WriteData(unsigned long nReg, unsigned long nValue) = 0;
    virtual unsigned long ReadData(unsigned long nReg) = 0;
    virtual unsigned long SetPixelInvert(bool bInvert) = 0;
    virtual unsigned long GetLiveImage(unsigned char* pImage, unsigned long nTimeoutMs, unsigned int nReserved) = 0;
    virtual unsigned long AutoTunning() = 0;
    virtual unsigned long GetLiveImageEx(unsigned char* pImage, unsigned long nTimeoutMs, unsigned int nReserved,
                                         unsigned long nQualityThreshold) = 0;
    virtual unsigned long GetLiveImageEx2(unsigned char* pImage, unsigned long nTimeoutMs, unsigned int nMarkFrames,
                                          void* pReserved, unsigned long nQualityThreshold) = 0;
    virtual unsigned long SetCallBackFunction(unsigned long nType, PFN_CALLBACK pfnCallback, void* pContext) = 0;
    virtual unsigned long AutoTuning() = 0;
    virtual unsigned long CloseDevice() = 0;
    virtual unsigned long DevIoControl(unsigned long nCode, void* pIn, unsigned long nInLen, void* pOut,
                                       unsigned long nOutCap, unsigned long* pOutLen) = 0;
    virtual unsigned long GetDeviceType() = 0;

private:
    ISensor(const ISensor&);
    ISensor& operator=(const ISensor&);
};

extern "C" {
// Creates a sensor object; 0 on success (the object in *ppSensor), 1 when
// it could not be made (*ppSensor is then null).
TAVK05_API int CreateISensor(ISensor::tagCreateParam* pParam, ISensor** ppSensor);
// Destroys a sensor made by CreateISensor (saving its settings); always 0.
TAVK05_API int DestroyISensor(ISensor* pSensor);
}

#endif
