// Reproducible benchmark inputs: random bytes, and a finished 600 x 600
// image of a finger.
#ifndef TAVK05_BENCH_RANDOM_BYTES_H
#define TAVK05_BENCH_RANDOM_BYTES_H

#include <cmath>
#include <cstddef>
#include <random>
#include <vector>

namespace benchinput {

inline std::vector<unsigned char> Random(size_t n, unsigned nSeed)
{
    std::mt19937 gen(nSeed);
    std::vector<unsigned char> bytes(n);
    for (unsigned char& by : bytes) by = static_cast<unsigned char>(gen() >> 24);
    return bytes;
}

// A finger as the live loop sees it: oval ridge area centred at column cx on
// a bright empty glass (255 everywhere else).
inline std::vector<unsigned char> FingerFrame(int cx)
{
    std::vector<unsigned char> f(360000, 255);
    for (int r = 0; r < 600; ++r)
        for (int c = 0; c < 600; ++c) {
            const double dx = (c - cx) / 110.0, dy = (r - 300) / 250.0;
            if (dx * dx + dy * dy < 1.0) {
                const double ridge = std::sin((r * 0.8 + c * 0.5) / 2.2);
                f[r * 600 + c] = (unsigned char)(200 + 40 * ridge + (r * 7 + c * 13) % 9);
            }
        }
    return f;
}

}  // namespace benchinput

#endif
