// Reference for the capture tests: the raw frames the virtual scanner's
// pattern scene serves, and the finished image composed from the public
// image-processor steps and corner-mark functions, independent of the
// sensor's own pipeline.
#ifndef TAVK05_TESTS_SENSOR_CAPTURE_REFERENCE_H
#define TAVK05_TESTS_SENSOR_CAPTURE_REFERENCE_H

#include <cstring>
#include <vector>

#include "tavk05/isproc.h"
#include "tavk05/mark.h"

namespace capturetest {

typedef std::vector<unsigned char> Bytes;

// Raw frame layout by model and firmware.
struct Geometry {
    unsigned long nWidth;
    unsigned long nHeight;
    unsigned long nFrameBytes;
};

inline Geometry GeometryFor(int nDeviceType, int nFirmware)
{
    if (nDeviceType >= 5 && nDeviceType <= 8) {
        if (nFirmware >= 0x3000) return Geometry{1800, 1280, 2304000};
        return Geometry{1288, 876, 1128448};
    }
    return Geometry{1280, 676, 926720};
}

// Frame k of the pattern scene: byte (x, y) of the mosaic is (x + y + k)
// mod 256, the tail behind the mosaic zero.
inline Bytes PatternFrame(const Geometry& geo, unsigned long k)
{
    Bytes frame(geo.nFrameBytes, 0);
    for (unsigned long y = 0; y < geo.nHeight; ++y) {
        for (unsigned long x = 0; x < geo.nWidth; ++x) {
            frame[y * geo.nWidth + x] = static_cast<unsigned char>((x + y + k) & 0xFF);
        }
    }
    return frame;
}

// What a single capture reads from the pattern scene starting at frame k:
// models 5 to 8 one frame, the others the mean of four consecutive frames.
inline Bytes CapturedPattern(int nDeviceType, const Geometry& geo, unsigned long k)
{
    if (nDeviceType >= 5 && nDeviceType <= 8) return PatternFrame(geo, k);
    std::vector<unsigned> sum(geo.nFrameBytes, 0);
    for (unsigned long n = 0; n < 4; ++n) {
        const Bytes frame = PatternFrame(geo, k + n);
        for (size_t i = 0; i < frame.size(); ++i) sum[i] += frame[i];
    }
    Bytes mean(geo.nFrameBytes);
    for (size_t i = 0; i < mean.size(); ++i) mean[i] = static_cast<unsigned char>(sum[i] / 4);
    return mean;
}

// Nominal size of an image-size code as the capture marks use it.
inline void NominalSize(unsigned long nCode, int* pnWidth, int* pnHeight)
{
    switch (nCode) {
    case 1: *pnWidth = 228; *pnHeight = 292; break;
    case 3: *pnWidth = 248; *pnHeight = 292; break;
    case 4: *pnWidth = 260; *pnHeight = 300; break;
    default: *pnWidth = 600; *pnHeight = 600; break;
    }
}

// One image processor for all reference compositions of a test program
// (its modify tables are large); the device type is set for each use.
inline CImageProc& ReferenceProc()
{
    static CImageProc proc;
    return proc;
}

// Models 5 and 6: shading added and limited to 255, then the level above 90
// scaled by the factor, truncated and limited to 255.
inline void Shade(unsigned char* pImage, float fFactor)
{
    for (int i = 0; i < IMG_PIXELS; ++i) {
        const int s = pImage[i] + pModBuf[i];
        pImage[i] = static_cast<unsigned char>(s > 255 ? 255 : s);
    }
    for (int i = 0; i < IMG_PIXELS; ++i) {
        const int nAbove = pImage[i] > 90 ? pImage[i] - 90 : 0;
        const int v = static_cast<int>(nAbove * static_cast<double>(fFactor));
        pImage[i] = static_cast<unsigned char>(v > 255 ? 255 : v);
    }
}

// The finished image of raw frame pRaw: grey conversion of the mosaic,
// geometry correction by model and firmware, shading for models 5 and 6,
// then the corner marks of the image-size code (when bMark). pOut starts as
// given, so that a refused correction shows as in the capture.
inline void Compose(const Bytes& raw, const Geometry& geo, int nDeviceType, int nFirmware, float fFactor,
                    bool bMark, unsigned long nSizeCode, Bytes* pOut)
{
    CImageProc& proc = ReferenceProc();
    proc.m_nDeviceType = nDeviceType;
    Bytes mosaic(raw.begin(), raw.begin() + geo.nWidth * geo.nHeight);
    Bytes grey(mosaic.size());
    proc.RGBtoGRAY2(mosaic.data(), grey.data(), static_cast<int>(geo.nWidth), static_cast<int>(geo.nHeight));
    pOut->resize(IMG_PIXELS);
    unsigned char* pImage = pOut->data();
    if ((nDeviceType == 7 || nDeviceType == 8) && nFirmware >= 0x3000) {
        proc.CorrectImageCalcEx(grey.data(), geo.nWidth, geo.nHeight, pImage, 600, 600, 0, 0);
    } else if (nDeviceType == 7 || nDeviceType == 8) {
        proc.CorrectImageCalc(grey.data(), geo.nWidth, geo.nHeight, pImage, 600, 600, 0, 0);
    } else {
        proc.CorrectImage(grey.data(), geo.nWidth, geo.nHeight, pImage, 600, 600, 0, 0);
    }
    if (nDeviceType == 5 || nDeviceType == 6) Shade(pImage, fFactor);
    if (bMark) {
        int w = 0;
        int h = 0;
        NominalSize(nSizeCode, &w, &h);
        SetLTWaterM(pImage, w, h);
        SetRTWaterM(pImage, w, h);
        SetLBWaterM(pImage, w, h);
        SetRBWaterM(pImage, w, h);
    }
}

// Number of bytes in which two equally long images differ (a readable
// failure message instead of a dump of 360,000 bytes).
inline size_t CountDifferences(const Bytes& a, const Bytes& b)
{
    if (a.size() != b.size()) return a.size() > b.size() ? a.size() : b.size();
    size_t n = 0;
    for (size_t i = 0; i < a.size(); ++i) n += a[i] != b[i];
    return n;
}

}  // namespace capturetest

#endif
