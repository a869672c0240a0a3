// Every vector kernel against its plain loop, bit for bit, on random rows
// over a grid of lengths and misalignments, and on the extreme levels where
// sums and orderings are tightest.
#include "imageproc/kernels.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

#if defined(__SSE2__)
typedef void (*PlainRow)(const imageproc::Rows3&, unsigned char*, size_t, size_t);
typedef size_t (*VectorRow)(const imageproc::Rows3&, unsigned char*, size_t);

struct RowKernel {
    const char* pszName;
    PlainRow pfnPlain;
    VectorRow pfnVector;
};

const RowKernel kRowKernels[] = {
    {"mean", imageproc::Mean3Row, imageproc::Mean3RowSse2},
    {"median", imageproc::Median3Row, imageproc::Median3RowSse2},
};

class RowKernelTest : public ::testing::TestWithParam<RowKernel> {};

TEST_P(RowKernelTest, VectorPartEqualsPlainLoopAndLeavesRestUntouched)
{
    const RowKernel& k = GetParam();
    std::mt19937 gen(7);
    for (size_t n : {1u, 15u, 16u, 17u, 31u, 48u, 63u, 598u}) {
        for (size_t nAlign = 0; nAlign < 4; ++nAlign) {
            for (int nFill = 0; nFill < 3; ++nFill) {  // random, all 255, random 0 / 255
                std::vector<unsigned char> src(3 * (n + 2 + nAlign));
                for (unsigned char& by : src)
                    by = nFill == 0 ? static_cast<unsigned char>(gen()) : nFill == 1 ? 255 : (gen() & 1) * 255;
                const size_t nStride = n + 2 + nAlign;
                const imageproc::Rows3 rows = {&src[nAlign], &src[nStride + nAlign], &src[2 * nStride + nAlign]};
                std::vector<unsigned char> plain(n + nAlign, 0x5A);
                std::vector<unsigned char> vec(plain);
                k.pfnPlain(rows, &plain[nAlign], 0, n);
                const size_t nDone = k.pfnVector(rows, &vec[nAlign], n);
                ASSERT_EQ(nDone, n < 16 ? 0 : n) << k.pszName << " n " << n;
                for (size_t c = 0; c < nDone; ++c)
                    ASSERT_EQ(vec[nAlign + c], plain[nAlign + c]) << k.pszName << " n " << n << " c " << c;
                for (size_t c = nDone; c < n; ++c)
                    ASSERT_EQ(vec[nAlign + c], 0x5A) << k.pszName << " wrote past its count";
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Sse2, RowKernelTest, ::testing::ValuesIn(kRowKernels),
                         [](const ::testing::TestParamInfo<RowKernel>& info) { return info.param.pszName; });
#endif

} // namespace
