// Shared noise table of the virtual scanner (see finger_noise.h).
#include "finger_noise.h"

#include "finger_math.h"

namespace tavk05virt {

namespace {

struct NoiseTableHolder {
    int16_t anValue[kNoiseSize];

    NoiseTableHolder()
    {
        fmath::CRandom rng(0x6E6F697365ULL);
        for (int i = 0; i < kNoiseSize; ++i) {
            const double f = fmath::Clamp(rng.Gauss(), -4.0, 4.0);
            anValue[i] = static_cast<int16_t>(f * 256.0 + (f < 0.0 ? -0.5 : 0.5));
        }
    }
};

}  // namespace

const int16_t* NoiseTable()
{
    // Built on first use; C++ makes the initialisation thread-safe.
    static const NoiseTableHolder s_table;
    return s_table.anValue;
}

}  // namespace tavk05virt
