// Sensor noise of the virtual scanner: one shared table of approximately
// normal values, read from a different random offset in every row of every
// frame, so that a frame costs one table read per sample.
#ifndef TAVK05_FINGER_NOISE_H
#define TAVK05_FINGER_NOISE_H

#include <cstdint>

namespace tavk05virt {

enum { kNoiseBits = 16, kNoiseSize = 1 << kNoiseBits, kNoiseMask = kNoiseSize - 1 };

// kNoiseSize values with mean 0 and deviation 256, none beyond +-1024;
// built once, the same on every platform.
const int16_t* NoiseTable();

}  // namespace tavk05virt

#endif
