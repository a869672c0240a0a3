// Corner marks: every image the driver hands out carries a mark in each of
// its four corner pixels. The Set functions stamp one corner; the Get
// functions return 1 when the corner holds the mark the matching Set would
// write now, 0 otherwise. Width and height define the addressing.
#ifndef TAVK05_MARK_H
#define TAVK05_MARK_H

#include "status.h"

#ifdef __cplusplus
extern "C" {
#endif
TAVK05_API void SetLTWaterM(unsigned char* pImage, int nWidth, int nHeight);
TAVK05_API void SetRTWaterM(unsigned char* pImage, int nWidth, int nHeight);
TAVK05_API void SetLBWaterM(unsigned char* pImage, int nWidth, int nHeight);
TAVK05_API void SetRBWaterM(unsigned char* pImage, int nWidth, int nHeight);
TAVK05_API int GetLTWaterM(unsigned char* pImage, int nWidth, int nHeight);
TAVK05_API int GetRTWaterM(unsigned char* pImage, int nWidth, int nHeight);
TAVK05_API int GetLBWaterM(unsigned char* pImage, int nWidth, int nHeight);
TAVK05_API int GetRBWaterM(unsigned char* pImage, int nWidth, int nHeight);
#ifdef __cplusplus
}
#endif

#endif
