// The firmware boundary that separates the large 1800 x 1280 sensor from the
// older ones, shared by the sensor's operations.
#ifndef TAVK05_OBERIN_FIRMWARE_H
#define TAVK05_OBERIN_FIRMWARE_H

#include "tavk05/vxdinter.h"

namespace oberin {

// Firmware versions above this one are "new firmware".
const int kLastOldFirmware = 0x2FFF;

// Without a transport (after CloseDevice) the firmware is unknown and taken
// as the older one.
inline bool HasNewFirmware(CVxdInterface* pVxd)
{
    return pVxd != nullptr && pVxd->GetFirmwareVersion() > kLastOldFirmware;
}

}  // namespace oberin

#endif
