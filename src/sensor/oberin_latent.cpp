// The latent probe shared by GetImage_Normal and the live capture.
#include "oberin_latent.h"

#include <climits>
#include <new>

#include "profile/model_profile.h"

namespace {

const unsigned long kLatentPixels =
    static_cast<unsigned long>(tavk05profile::kLatentWidth) * tavk05profile::kLatentHeight;
// Room behind the frame in each latent buffer.
const unsigned long kLatentSlack = 200;

// A buffer of nBytes plus the slack; null when the size cannot even be
// expressed or the memory cannot be had.
unsigned char* NewLatentBuffer(unsigned long nBytes)
{
    if (nBytes > ULONG_MAX - kLatentSlack) return nullptr;
    return new (std::nothrow) unsigned char[nBytes + kLatentSlack];
}

}  // namespace

namespace oberin {

CLatentProbe::CLatentProbe(COberin& sensor) : m_sensor(sensor)
{
    // The conversion reads and writes a whole latent frame whatever the
    // model; the read fills the sensor's frame size.
    const unsigned long nFrame = sensor.m_nFrameBytes > kLatentPixels ? sensor.m_nFrameBytes : kLatentPixels;
    m_pLatent.reset(NewLatentBuffer(nFrame));
    m_pGrey.reset(NewLatentBuffer(nFrame));
}

LatentResult CLatentProbe::Probe()
{
    if (m_sensor.m_pVxd->ReadLatent(m_pLatent.get(), m_sensor.m_nFrameBytes) != VXD_OK) {
        return kLatentReadFailed;
    }
    m_sensor.m_ImageProc.RGBtoGRAY(m_pLatent.get(), m_pGrey.get(), tavk05profile::kLatentWidth,
                                   tavk05profile::kLatentHeight);
    return m_sensor.CheckLatent(m_pGrey.get()) != 0 ? kLatentFound : kLatentClear;
}

bool LatentCheckActive(const COberin& sensor)
{
    return sensor.m_pVxd != nullptr && sensor.m_pVxd->m_bLatentCapable && sensor.m_bLatentCheck;
}

}  // namespace oberin
