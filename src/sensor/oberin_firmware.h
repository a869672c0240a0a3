// The model profile of a sensor as its operations read it: the row of its
// device type and firmware class.
#ifndef TAVK05_OBERIN_FIRMWARE_H
#define TAVK05_OBERIN_FIRMWARE_H

#include "profile/model_profile.h"
#include "tavk05/oberin.h"

namespace oberin {

// Without a transport (after CloseDevice) the firmware is unknown and taken
// as the older one.
inline bool HasNewFirmware(CVxdInterface* pVxd)
{
    return pVxd != nullptr && tavk05profile::IsNewFirmware(pVxd->GetFirmwareVersion());
}

inline const tavk05profile::ModelProfile& ProfileOf(const COberin& sensor)
{
    return tavk05profile::ProfileOf(sensor.m_nDeviceType, HasNewFirmware(sensor.m_pVxd),
                                    tavk05profile::LibraryModels());
}

}  // namespace oberin

#endif
