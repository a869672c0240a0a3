// Internal to the sensor driver: the frame pipeline behind CaptureImage and
// CaptureImageForRoll. Both read one raw frame and turn it into the finished
// 600 x 600 image; they differ only in how the frame is read.
#ifndef TAVK05_SRC_SENSOR_OBERIN_CAPTURE_H
#define TAVK05_SRC_SENSOR_OBERIN_CAPTURE_H

#include "tavk05/oberin.h"

namespace oberin {

// How a capture reads its frame.
enum FrameRead {
    kReadAcquisition,  // ReadData: start acquisition, read (averaged on the older models), stop
    kReadInStream      // ReadDataEx: one bare read inside an acquisition the caller started
};

// Nominal width and height of the sensor's image-size code as the capture
// paths use them for the corner marks and the white fill of a rejected
// capture: codes 1, 3, 4 and 5 give 228 x 292, 248 x 292, 260 x 300 and
// 600 x 600; any other code the output size m_nWidth x m_nHeight.
void CaptureNominalSize(const COberin& sensor, unsigned long* pnWidth, unsigned long* pnHeight);

// Whether the sensor's frame geometry fits its work buffers: the buffers
// exist, the transfer of m_nFrameBytes fits one of them and the mosaic lies
// inside the frame.
bool FrameBuffersUsable(const COberin& sensor);

// Reads one frame into m_pRawBuf the chosen way and finishes it into pImage.
// False without a transport, without usable work buffers (before any
// request) or when the read fails (pImage untouched); true at once, without
// a read, when pImage is null.
bool CaptureFrame(COberin& sensor, unsigned char* pImage, bool bMark, FrameRead eRead);

// The processing of a frame already in m_pRawBuf: copy of the mosaic, grey
// conversion, geometry correction by model and firmware, shading and scaling
// for models 5 and 6, corner marks when bMark. Requires FrameBuffersUsable;
// the firmware version comes from the transport (older firmware without one).
void FinishFrame(COberin& sensor, unsigned char* pImage, bool bMark);

}  // namespace oberin

#endif
