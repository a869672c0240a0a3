// Internal to the sensor driver: the latent probe shared by the single
// capture (a pre-check of one frame) and the live capture (a wait until the
// glass is clear). Each probe reads one latent frame, converts it as a
// 1214 x 616 mosaic and asks the image processor whether it shows a print.
#ifndef TAVK05_SRC_SENSOR_OBERIN_LATENT_H
#define TAVK05_SRC_SENSOR_OBERIN_LATENT_H

#include <memory>

#include "tavk05/oberin.h"

namespace oberin {

enum LatentResult {
    kLatentClear,      // no print left on the glass
    kLatentFound,      // a latent print is there
    kLatentReadFailed  // the transport refused the read
};

class CLatentProbe {
public:
    // Takes the two work buffers, each the sensor's frame size and at least a
    // whole latent frame; Usable() tells whether they could be had.
    explicit CLatentProbe(COberin& sensor);
    bool Usable() const { return m_pLatent && m_pGrey; }
    // One latent read and check. Requires Usable() and a transport.
    LatentResult Probe();

private:
    COberin& m_sensor;
    std::unique_ptr<unsigned char[]> m_pLatent;
    std::unique_ptr<unsigned char[]> m_pGrey;
};

// Whether the sensor's transport takes latent reads and the sensor checks.
bool LatentCheckActive(const COberin& sensor);

}  // namespace oberin

#endif
