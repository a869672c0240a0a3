// Support shared by the image-processing tests: seeded random bytes, a
// readable first difference of two images and the processor that the tests
// which leave its tables alone share (construction builds about 48 MB).
#ifndef TAVK05_TESTS_IMAGEPROC_REFERENCE_H
#define TAVK05_TESTS_IMAGEPROC_REFERENCE_H

#include "tavk05/isproc.h"

#include <cstddef>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace ref {
typedef std::vector<unsigned char> Bytes;
} // namespace ref

namespace testutil {

inline ref::Bytes RandomBytes(size_t n, unsigned nSeed)
{
    std::mt19937 gen(nSeed);
    ref::Bytes bytes(n);
    for (size_t i = 0; i < n; ++i)
        bytes[i] = static_cast<unsigned char>(gen() >> 24);
    return bytes;
}

// Empty when equal, else where and how the two first differ.
inline std::string FirstDifference(const unsigned char* pA, const unsigned char* pB, size_t n, int nWidth)
{
    for (size_t i = 0; i < n; ++i) {
        if (pA[i] != pB[i]) {
            std::ostringstream os;
            os << "first difference at row " << i / nWidth << ", column " << i % nWidth << ": "
               << static_cast<int>(pA[i]) << " vs " << static_cast<int>(pB[i]);
            return os.str();
        }
    }
    return std::string();
}

inline CImageProc& SharedProc()
{
    static CImageProc proc;
    return proc;
}

} // namespace testutil

#endif
