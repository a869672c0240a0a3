// Operations of COberin that are not written yet: contrast and device
// initialisation, single, live and rolled capture, the filters and the
// control-request dispatch. Each body here only refuses: status operations
// return 4 (not supported) and change nothing, truth-valued ones report
// failure, and the image filters leave the image alone. Every one of them is
// replaced, and removed from this file, as its real implementation lands.
#include "tavk05/oberin.h"

unsigned long COberin::SetContrast(unsigned long /*nContrast*/)
{
    return TAVK05_E_UNSUPPORTED;
}

unsigned long COberin::InitDev(bool /*bForce*/)
{
    return TAVK05_E_UNSUPPORTED;
}

unsigned long COberin::GetImage(unsigned char* /*pImage*/)
{
    return TAVK05_E_UNSUPPORTED;
}

unsigned long COberin::GetImage_Normal(unsigned char* /*pImage*/)
{
    return TAVK05_E_UNSUPPORTED;
}

unsigned long COberin::GetImage_Adaptive(unsigned char* /*pImage*/)
{
    return TAVK05_E_UNSUPPORTED;
}

unsigned long COberin::DevIoControl(unsigned long /*nCode*/, void* /*pIn*/, unsigned long /*nInLen*/,
                                    void* /*pOut*/, unsigned long /*nOutCap*/, unsigned long* /*pOutLen*/)
{
    return TAVK05_E_UNSUPPORTED;
}

int COberin::CheckLatent(unsigned char* /*pImage*/)
{
    return 0;
}

bool COberin::CaptureImage(unsigned char* /*pImage*/, bool /*bMark*/)
{
    return false;
}

bool COberin::CaptureImageForRoll(unsigned char* /*pImage*/, bool /*bMark*/)
{
    return false;
}

void COberin::DoModify(const unsigned char* /*pSrc*/, unsigned char* /*pDst*/)
{
}

unsigned long COberin::DevIoCtlSetSCLed(void* /*pIn*/, unsigned long /*nLen*/)
{
    return TAVK05_E_UNSUPPORTED;
}

unsigned long COberin::DevIoCtlGetDevID(void* /*pOut*/, unsigned long* /*pLen*/)
{
    return TAVK05_E_UNSUPPORTED;
}

unsigned long COberin::DevIoCtlGetValue(void* /*pOut*/, unsigned long* /*pLen*/)
{
    return TAVK05_E_UNSUPPORTED;
}

unsigned long COberin::DevIoCtlSetValue(void* /*pIn*/, unsigned long /*nLen*/)
{
    return TAVK05_E_UNSUPPORTED;
}

unsigned long COberin::DevIoCtlCheckAutoOnStatus(void* /*pOut*/, unsigned long* /*pLen*/)
{
    return TAVK05_E_UNSUPPORTED;
}
