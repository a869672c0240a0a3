// Support shared by the image-processing tests: seeded random bytes, a
// readable first difference of two images, summed-area tables, and the
// processor that tests leaving its tables alone share (it holds 48 MB).
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
}  // namespace ref

namespace testutil {

inline ref::Bytes RandomBytes(size_t n, unsigned nSeed)
{
    std::mt19937 gen(nSeed);
    ref::Bytes bytes(n);
    for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<unsigned char>(gen() >> 24);
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

// Summed-area table of a 600 x 600 image, and the sum over rows r0..r1 and
// columns c0..c1 from it.
template <typename T>
std::vector<long long> SummedArea(const T& img)
{
    std::vector<long long> sat(601 * 601, 0);
    for (int r = 0; r < 600; ++r)
        for (int c = 0; c < 600; ++c)
            sat[(r + 1) * 601 + c + 1] =
                img[r * 600 + c] + sat[r * 601 + c + 1] + sat[(r + 1) * 601 + c] - sat[r * 601 + c];
    return sat;
}

inline long long AreaSum(const std::vector<long long>& sat, int r0, int c0, int r1, int c1)
{
    return sat[(r1 + 1) * 601 + c1 + 1] - sat[r0 * 601 + c1 + 1] - sat[(r1 + 1) * 601 + c0] + sat[r0 * 601 + c0];
}

inline CImageProc& SharedProc()
{
    static CImageProc proc;
    return proc;
}

}  // namespace testutil

#endif
