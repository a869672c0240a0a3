// The sensor driver: the one implementation of ISensor.
#ifndef TAVK05_OBERIN_H
#define TAVK05_OBERIN_H

#include "isensor.h"
#include "isproc.h"
#include "vxdinter.h"

enum { OBERIN_FRAME_BUFFER_BYTES = 2340000, OBERIN_DEVICE_ID = 957 };

class TAVK05_API COberin : public ISensor {
public:
    int m_nRollState;                // -1 live view, 1 rolling, 0 stopped by the host
    CVxdInterface* m_pVxd;           // owned transport, null after CloseDevice
    unsigned long m_nError;          // status of the last operation
    unsigned long m_nImageSize;      // image-size code 0..5
    unsigned char* m_pRawBuf;        // raw frame as read
    unsigned char* m_pRawCopyBuf;    // mosaic copy handed to the grey conversion
    unsigned char* m_pGreyBuf;       // grey image at raw resolution
    unsigned long m_nFrameBytes;     // bytes asked of the device per frame
    unsigned long m_nWidth;          // output width (600)
    unsigned long m_nHeight;         // output height (600)
    unsigned long m_nGain;           // 1, 2, 4 or 8
    int m_bPixelInvert;              // inversion flag (DoModify only)
    unsigned long m_nContrast;       // 0..100
    float m_fContrastFactor;         // grey-level scale factor
    unsigned long m_nBrightness;     // 0..100
    void* m_pCallbackContext;        // first argument of the host callback
    tagCallbackInfo m_CallbackInfo;  // second argument of the host callback
    PFN_CALLBACK m_pfnCallback;      // host callback
    bool m_bLatentCheck;             // latent pre-check before a single capture
    CImageProc m_ImageProc;          // image processor
    bool m_bCaptureEnable;           // single capture reads a frame
    unsigned short m_wLedMode;       // LED selector sent with every LED request
    unsigned long m_nRollMode;       // register 155
    int m_nDeviceType;               // 3..8, 0 unrecognised, 4 before the first open
    unsigned long m_nRawWidth;       // raw mosaic width
    unsigned long m_nRawHeight;      // raw mosaic height
    unsigned long m_nScanMode;       // 1 adaptive, otherwise normal
    unsigned short m_wDeviceIndex;   // node index 0..7
    bool m_bDevInitialized;          // settings pushed since the last open

    explicit COberin(ISensor::tagCreateParam* pParam);
    virtual ~COberin();

    // ISensor
    virtual unsigned long OpenDevice(unsigned long nIndex, unsigned long nReserved);
    virtual unsigned long GetImage(unsigned char* pImage);
    virtual unsigned long GetError();
    virtual unsigned long GetDeviceInfo(tagDeviceInfoParam* pInfo);
    virtual unsigned long Configure(unsigned int nValue);
    virtual unsigned long ResetDevice();
    virtual unsigned long SetImageSize(unsigned long nWidth, unsigned long nHeight);
    virtual unsigned long SetBrightness(unsigned long nBrightness);
    virtual unsigned long SetContrast(unsigned long nContrast);
    virtual unsigned long SetBlackCalibration(unsigned long nValue);
    virtual unsigned long SetLedOn(bool bOn);
    virtual unsigned long SetExposure(unsigned long nValue1, unsigned long nValue2);
    virtual unsigned long SetGainValue(unsigned long nGain);
    virtual unsigned long SetAutoExposure(bool bOn);
    virtual unsigned long SetAutoGain(bool bOn);
    virtual unsigned long WriteData(unsigned long nReg, unsigned long nValue);
    virtual unsigned long ReadData(unsigned long nReg);
    virtual unsigned long SetPixelInvert(bool bInvert);
    virtual unsigned long GetLiveImage(unsigned char* pImage, unsigned long nTimeoutMs, unsigned int nReserved);
    virtual unsigned long AutoTunning();
    virtual unsigned long GetLiveImageEx(unsigned char* pImage, unsigned long nTimeoutMs, unsigned int nReserved,
                                         unsigned long nQualityThreshold);
    virtual unsigned long GetLiveImageEx2(unsigned char* pImage, unsigned long nTimeoutMs, unsigned int nMarkFrames,
                                          void* pReserved, unsigned long nQualityThreshold);
    virtual unsigned long SetCallBackFunction(unsigned long nType, PFN_CALLBACK pfnCallback, void* pContext);
    virtual unsigned long AutoTuning();
    virtual unsigned long CloseDevice();
    virtual unsigned long DevIoControl(unsigned long nCode, void* pIn, unsigned long nInLen, void* pOut,
                                       unsigned long nOutCap, unsigned long* pOutLen);
    virtual unsigned long GetDeviceType();

    // Operations of the sensor class itself, after those of ISensor.
    virtual unsigned long GetLiveImageEx2_Adaptive(unsigned char* pImage, unsigned long nTimeoutMs,
                                                   unsigned int nMarkFrames, void* pReserved,
                                                   unsigned long nQualityThreshold);
    virtual unsigned long GetLiveImageEx2_Normal(unsigned char* pImage, unsigned long nTimeoutMs,
                                                 unsigned int nMarkFrames, void* pReserved,
                                                 unsigned long nQualityThreshold);
    virtual unsigned long GetImage_Normal(unsigned char* pImage);
    virtual unsigned long GetImage_Adaptive(unsigned char* pImage);
    virtual unsigned long GetImageForRoll(unsigned char* pImage, unsigned long nReserved);

    // Lifecycle, LED and settings file.
    unsigned long SetLedOnEx(bool bOn);
    void RetrieveConfig();
    void SaveConfig();
    unsigned long LockDevice();
    unsigned long UnlockDevice();

    // Settings workers and device initialisation.
    unsigned long SetBrightnessEx(unsigned long nValue);
    unsigned long SetGainValueEx(unsigned long nValue);
    unsigned long SetExposureEx(unsigned long nValue1, unsigned long nValue2);
    unsigned long InitDev(bool bForce);

    // Single capture.
    int CheckLatent(unsigned char* pImage);
    bool CaptureImage(unsigned char* pImage, bool bMark);
    bool CaptureImageForRoll(unsigned char* pImage, bool bMark);
    void DoModify(const unsigned char* pSrc, unsigned char* pDst);

    // Filters and enhancement.
    void SmoothImage(int nWidth, int nHeight, unsigned char* pImage, int nRadius);
    void MedianFilter(unsigned char* pImage, unsigned long nWidth, unsigned long nHeight);
    void DoModifyContrast(unsigned char* pFrame, unsigned char* pOutput);
    bool IsNormalFingerprint(unsigned long nWidth, unsigned long nHeight, unsigned char* pImage, int nCount,
                             unsigned long nReserved, bool* pChanged);
    int GetImageEnhanced(unsigned char* pImage, unsigned int nFirst, unsigned int nSecond, bool bFlag1, bool bFlag2);
    unsigned long GetAdaptiveImage(unsigned char* pImage, unsigned int nFirst, unsigned int nSecond,
                                   unsigned long nValue, bool* pMore, bool bFlag1, bool bFlag2, bool bFlag3);
    void PrepareAdaptiveImage();
    void UnprepareAdaptiveImage();

    // Control-request wrappers.
    unsigned long DevIoCtlSetSCLed(void* pIn, unsigned long nLen);
    unsigned long DevIoCtlGetDevID(void* pOut, unsigned long* pLen);
    unsigned long DevIoCtlGetValue(void* pOut, unsigned long* pLen);
    unsigned long DevIoCtlSetValue(void* pIn, unsigned long nLen);
    unsigned long DevIoCtlCheckAutoOnStatus(void* pOut, unsigned long* pLen);

    // Path of the settings file: $TAVK05_CONF when set, else /etc/tavk05rf.conf.
    static const char* ConfigPath();

private:
    COberin(const COberin&);
    COberin& operator=(const COberin&);
};

#endif
