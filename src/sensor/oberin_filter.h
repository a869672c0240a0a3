// Internal to the sensor driver: the background-subtracted contrast mapping
// that turns a corrected frame into a print image. The live loop shows every
// frame through it and DoModifyContrast offers it to holders of the class;
// both use this one implementation.
#ifndef TAVK05_SRC_SENSOR_OBERIN_FILTER_H
#define TAVK05_SRC_SENSOR_OBERIN_FILTER_H

#include "tavk05/oberin.h"

namespace oberin {

// What happens to the frame while it is mapped.
enum FrameUse {
    kFrameReadOnly,   // the frame is only read (live preview)
    kFrameKeepsPrint  // the frame receives the darkening d = background - frame
};

// Maps the 600 x 600 frame pFrame into pOutput by the sensor's current device
// type, contrast table, contrast factor and firmware, after reseeding the
// process-wide generator of random() with time(0). Device types 5 and 6 copy
// the frame unchanged.
void MapContrast(const COberin& sensor, unsigned char* pFrame, unsigned char* pOutput, FrameUse eUse);

}  // namespace oberin

#endif
