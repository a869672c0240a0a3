// Raw frame rendering of the virtual scanner: from the finished-image grey
// of a scene (scene_compose.h) to the colour mosaic the sensor delivers.
//
// The driver makes a finished image from a frame by converting 2 x 2 mosaic
// blocks to grey, correcting the geometry (and mirroring), and for models 5
// and 6 adding a shading table and stretching (v - 90) by its contrast
// factor. The renderer runs this backwards:
//   1. Geometry: for every raw sample, the finished-image pixel it ends up
//      in, from the calibration model's inverse mapping of the unit's
//      correction path; cached per path, so a frame is one table walk.
//   2. Sensor response, in finished-image space (360,000 pixels a frame):
//      slight vignetting of the illumination, exposure (brightness byte of
//      the sensor-option block: more light with more exposure), gain (1, 2,
//      4, 8: contrast around mid grey), and for models 5 and 6 the inverse
//      of the driver's shading and scaling: those sensors sit on a black
//      level of 90, respond with 1 / 1.55 of the others' slope and lose the
//      shading table's amount of light towards the bottom and the sides.
//   3. Per raw sample: the response at its pixel, sensor noise (more with
//      more gain), and the colour filter: green where x + y is odd, red on
//      even rows and blue on odd rows otherwise, with a slight warm tint
//      that the driver's grey conversion averages out. The tail of the
//      frame behind the mosaic is zero.
#ifndef TAVK05_FINGER_RENDER_H
#define TAVK05_FINGER_RENDER_H

#include <cstdint>
#include <memory>

namespace tavk05virt {

// The driver's correction paths, by which raw samples reach the finished
// image.
enum RawPath {
    kPathTables676 = 1,   // CorrectImage, coordinate tables, 1280 x 676 (types 3, 4, unrecognised)
    kPathTables876 = 2,   // CorrectImage, 1103 tables, 1288 x 876 (types 5, 6, older firmware)
    kPathTables1280 = 3,  // CorrectImage, 1103 tables, 1800 x 1280 frame (types 5, 6, new firmware)
    kPathCalc876 = 4,     // CorrectImageCalc, 1288 x 876 (types 7, 8, older firmware)
    kPathCalcEx1280 = 5   // CorrectImageCalcEx, 1800 x 1280 (types 7, 8, new firmware)
};

// Path of a device type (0 for an unrecognised product) and firmware.
RawPath PathOf(int nDevType, unsigned short wFirmware);
// Mosaic size of a path.
void PathSize(RawPath ePath, unsigned* pnWidth, unsigned* pnHeight);

// Finished-image pixel of every raw sample of a path, row-major over the
// mosaic: y * 600 + x, or kOutsideImage for samples the correction never
// reads.
class CRawMap {
public:
    enum { kOutsideImage = 360000 };

    // The cached map of a path; null when memory is short.
    static std::shared_ptr<const CRawMap> Get(RawPath ePath);

    RawPath Path() const { return m_ePath; }
    unsigned Width() const { return m_nWidth; }
    unsigned Height() const { return m_nHeight; }
    const uint32_t* Index() const { return m_pIndex.get(); }

private:
    CRawMap(RawPath ePath, unsigned nWidth, unsigned nHeight);
    bool Build();

    RawPath m_ePath;
    unsigned m_nWidth;
    unsigned m_nHeight;
    std::unique_ptr<uint32_t[]> m_pIndex;
};

// Sensor settings as the unit last received them.
struct SensorSettings {
    unsigned char byExposure;  // brightness 0..100 (0 with gain 0: nothing sent yet)
    unsigned char byGain;      // 1, 2, 4, 8 (0: nothing sent yet)
};

// The settings in force: before the first sensor-option block the sensor
// runs at its power-on values, brightness 40 and gain 1.
SensorSettings EffectiveSettings(SensorSettings settings);

// Sensor response of one frame in finished-image space: pSignal receives
// 360,001 values, one per finished-image pixel and one (last) for samples
// outside the image: what a raw sample at that pixel reads before noise.
void SensorResponse(const unsigned char* pGlass, RawPath ePath, SensorSettings settings, unsigned char* pSignal);

// Noise deviation of a sample in 1/256 grey levels.
int NoiseDeviation(RawPath ePath, SensorSettings settings);

// Writes one raw frame: the mosaic of the map's size from pSignal (see
// SensorResponse) with noise of the given deviation (nNoiseSeed varies it
// from frame to frame), then zeros up to nFrameBytes. A frame shorter than
// the mosaic receives the rows that fit.
void RenderMosaic(const CRawMap& map, const unsigned char* pSignal, int nNoiseDeviation, uint64_t nNoiseSeed,
                  unsigned char* pFrame, unsigned long nFrameBytes);

}  // namespace tavk05virt

#endif
