// Reproducible random bytes for benchmark inputs.
#ifndef TAVK05_BENCH_RANDOM_BYTES_H
#define TAVK05_BENCH_RANDOM_BYTES_H

#include <cstddef>
#include <random>
#include <vector>

namespace benchinput {

inline std::vector<unsigned char> Random(size_t n, unsigned nSeed)
{
    std::mt19937 gen(nSeed);
    std::vector<unsigned char> bytes(n);
    for (unsigned char& by : bytes)
        by = static_cast<unsigned char>(gen() >> 24);
    return bytes;
}

} // namespace benchinput

#endif
