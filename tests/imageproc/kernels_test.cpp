// Every vector kernel against its plain loop, bit for bit, on random rows
// over a grid of lengths and misalignments, and on the extreme levels where
// sums and orderings are tightest.
#include "imageproc/correct_geometry.h"
#include "imageproc/kernels.h"
#include "sensor/live_jitter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
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
                std::vector<unsigned char> plain(n + nAlign, 0x5A), vec(plain);
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

// The mirror's kernel swaps outer blocks; std::reverse of the middle it
// leaves must complete the reversal.
TEST(ReverseKernel, OuterBlocksAndPlainMiddleReverseTheRow)
{
    std::mt19937 gen(5);
    for (size_t n : {0u, 1u, 31u, 32u, 33u, 47u, 64u, 600u, 1801u}) {
        std::vector<unsigned char> row(n);
        for (unsigned char& by : row)
            by = static_cast<unsigned char>(gen());
        std::vector<unsigned char> expected(row.rbegin(), row.rend());
        const size_t nDone = imageproc::ReverseOuterSse2(row.data(), n);
        ASSERT_LE(2 * nDone, n);
        ASSERT_LT(n - 2 * nDone, 32u) << n;
        std::reverse(row.begin() + static_cast<long>(nDone), row.end() - static_cast<long>(nDone));
        ASSERT_EQ(row, expected) << n;
    }
}

// The compact correction kernel and the plain loop finishing after it give
// the plain loop's row, for either direction, counts of every remainder,
// any columns and fractions, and the extreme levels.
TEST(CompactKernel, VectorPartAndPlainRestEqualPlainLoop)
{
    std::mt19937 gen(13);
    const unsigned nWidth = 1700;
    for (int nFill = 0; nFill < 3; ++nFill) {
        std::vector<unsigned char> src(2 * nWidth);
        for (unsigned char& by : src)
            by = nFill == 0 ? static_cast<unsigned char>(gen()) : nFill == 1 ? 255 : (gen() & 1) * 255;
        for (unsigned nRight : {0u, 7u, 8u, 17u, 300u, 301u}) {
            for (unsigned nLeft : {nRight, nRight + 1, nRight > 0 ? nRight - 1 : 0u}) {
                std::vector<unsigned short> cols(nLeft + nRight + 1);
                std::vector<float> fracs(cols.size());
                for (size_t k = 0; k < cols.size(); ++k) {
                    cols[k] = static_cast<unsigned short>(gen() % (nWidth - 1));
                    fracs[k] = k % 5 == 0 ? 0.0f : static_cast<float>(gen() % 1000000) / 1e6f;
                }
                const float fRowFrac = static_cast<float>(gen() % 1000) / 1000.0f;
                for (int nStep : {-1, 1}) {
                    std::vector<unsigned char> plain(700, 0x5A), vec(plain);
                    imageproc::CompactJob job = {src.data(), src.data() + nWidth, nWidth, cols.data(), fracs.data(),
                                                 fRowFrac, nRight, nLeft, plain.data(), 350, nStep};
                    imageproc::ResampleCompact(job, 0);
                    job.pOut = vec.data();
                    const unsigned nDone = imageproc::ResampleCompactSse2(job);
                    ASSERT_EQ(nDone, std::min(nRight, nLeft) / 8 * 8);
                    imageproc::ResampleCompact(job, nDone);
                    ASSERT_EQ(plain, vec) << nRight << " " << nLeft << " " << nStep;
                }
            }
        }
    }
}

TEST(LiveJitterKernel, VectorPartEqualsPlainLoop)
{
    typedef oberin::CLiveJitter J;
    std::mt19937 gen(11);
    for (size_t n : {0u, 15u, 16u, 17u, 100u, 1024u}) {
        // A history that follows the generator's recurrence: random values
        // carried on by one block of the plain loop.
        std::vector<uint32_t> start(2 * J::kHistory);
        std::vector<unsigned char> unused(J::kHistory);
        for (size_t i = 0; i < J::kHistory; ++i)
            start[i] = static_cast<uint32_t>(gen());
        J::Extend(start.data(), unused.data(), 0, J::kHistory);
        std::vector<uint32_t> plain(start.begin() + J::kHistory, start.end());
        plain.resize(J::kHistory + n);
        std::vector<uint32_t> vec(plain);
        std::vector<unsigned char> plainOut(n + 1, 0x5A), vecOut(n + 1, 0x5A);
        J::Extend(plain.data(), plainOut.data(), 0, n);
        const size_t nDone = J::ExtendSse2(vec.data(), vecOut.data(), n);
        ASSERT_EQ(nDone, n - n % 16);
        for (size_t k = 0; k < nDone; ++k) {
            ASSERT_EQ(vec[J::kHistory + k], plain[J::kHistory + k]) << n << " " << k;
            ASSERT_EQ(vecOut[k], plainOut[k]) << n << " " << k;
        }
        ASSERT_EQ(vecOut[nDone], 0x5A);
    }
}
#endif

// The private generator gives what random() % 9 gives after srandom, for
// seeds at the edges of the signed and unsigned ranges and random ones, in
// blocks of every kind of length.
TEST(LiveJitter, EqualsRandomAfterSrandomOnManySeeds)
{
    std::vector<unsigned> seeds = {0u, 1u, 2u, 127773u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu, 1795000000u};
    std::mt19937 gen(3);
    for (int k = 0; k < 24; ++k)
        seeds.push_back(static_cast<unsigned>(gen()));
    for (unsigned nSeed : seeds) {
        oberin::CLiveJitter jitter(nSeed);
        ::srandom(nSeed);
        for (size_t n : {1u, 16u, 37u, 1024u, 5u, 1000u}) {
            unsigned char aby[oberin::CLiveJitter::kBlock];
            jitter.Next(aby, n);
            for (size_t i = 0; i < n; ++i)
                ASSERT_EQ(aby[i], ::random() % oberin::kJitterSpan) << "seed " << nSeed << " at " << i;
        }
    }
}

} // namespace
