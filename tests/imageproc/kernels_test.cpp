// Every vector kernel against its plain loop, bit for bit, on random rows
// over a grid of lengths and misalignments, and on the extreme levels where
// sums and orderings are tightest.
#include "imageproc/correct_geometry.h"
#include "imageproc/enhance.h"
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
    for (size_t n : {1u, 15u, 16u, 17u, 31u, 48u, 63u, 520u, 598u}) {
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
        for (unsigned char& by : row) by = static_cast<unsigned char>(gen());
        std::vector<unsigned char> expected(row.rbegin(), row.rend());
        const size_t nDone = imageproc::ReverseOuterSse2(row.data(), n);
        ASSERT_LE(2 * nDone, n);
        ASSERT_LT(n - 2 * nDone, 32u) << n;
        std::reverse(row.begin() + static_cast<long>(nDone), row.end() - static_cast<long>(nDone));
        ASSERT_EQ(row, expected) << n;
    }
}

// The run kernel and the plain loop finishing after it give the plain
// loop's pixels and stop at the same entry, in either direction, on runs
// broken by an entry that fails each test of regularity in turn, at every
// position of a group of four, with any columns, weights and levels.
TEST(RunKernel, VectorPartAndPlainRestEqualPlainLoop)
{
    std::mt19937 gen(13);
    const unsigned nWidth = 1700;
    const unsigned nRowStart = 5 * nWidth;
    for (int nFill = 0; nFill < 3; ++nFill) {
        std::vector<unsigned char> src(2 * nWidth);
        for (unsigned char& by : src)
            by = nFill == 0 ? static_cast<unsigned char>(gen()) : nFill == 1 ? 255 : (gen() & 1) * 255;
        for (unsigned nEntries : {0u, 3u, 4u, 9u, 301u}) {
            for (int nBreak = -1; nBreak < 9; ++nBreak) {  // which test the breaking entry fails
                std::vector<tagModifyEntry> entries(nEntries);
                for (unsigned k = 0; k < nEntries; ++k) {
                    tagModifyEntry& e = entries[k];
                    const unsigned c = gen() % (nWidth - 1);
                    e.nSrcRow = 5;
                    e.nSrcCol = static_cast<int>(gen() % 850);
                    e.nDstRight = 1000 + k;
                    e.nDstLeft = 1000 - k;
                    const unsigned anIndex[4] = {nRowStart + c, nRowStart + c + 1, nRowStart + c + nWidth + 1,
                                                 nRowStart + c + nWidth};
                    std::copy(anIndex, anIndex + 4, e.nSrcIndex);
                    for (float& f : e.fWeight) f = k % 7 == 0 ? 1e10f : static_cast<float>(gen() % 1000000) / 7e5f;
                }
                const unsigned nAt = nEntries == 0 ? 0 : gen() % nEntries;
                if (nEntries > 0 && nBreak >= 0) {
                    tagModifyEntry& e = entries[nAt];
                    int* const apnField[9] = {&e.nSrcRow, &e.nSrcCol, nullptr, nullptr, nullptr,
                                              nullptr,    nullptr,    nullptr, nullptr};
                    unsigned* const apuField[9] = {nullptr,         nullptr,         &e.nDstRight,
                                                   &e.nDstLeft,     &e.nSrcIndex[0], &e.nSrcIndex[1],
                                                   &e.nSrcIndex[2], &e.nSrcIndex[3], &e.nSrcIndex[0]};
                    if (apnField[nBreak] != nullptr)
                        *apnField[nBreak] = nBreak == 0 ? 1300 : -1;
                    else if (nBreak == 8)  // last column of the row: the block would leave it
                        *apuField[nBreak] = nRowStart + nWidth - 1;
                    else
                        *apuField[nBreak] += 1;
                }
                for (int nStep : {-1, 1}) {
                    std::vector<unsigned char> plain(2400, 0x5A), vec(plain);
                    imageproc::EntryRun run = {
                        entries.data(), nEntries, 1000, 1000,         nRowStart,    src.data(), src.data() + nWidth,
                        nWidth,         1299,     849,  &plain[1200], &plain[1200], nStep};
                    const unsigned nPlain = imageproc::ResampleRun(run, 0);
                    run.pRight = run.pLeft = &vec[1200];
                    const unsigned nVector = imageproc::ResampleRunSse2(run);
                    ASSERT_EQ(nVector % 4, 0u);
                    ASSERT_EQ(nVector, nPlain / 4 * 4) << nEntries << " " << nBreak;
                    ASSERT_EQ(imageproc::ResampleRun(run, nVector), nPlain);
                    ASSERT_EQ(nPlain, nBreak >= 0 && nEntries > 0 ? nAt : nEntries) << nBreak;
                    ASSERT_EQ(plain, vec) << nEntries << " " << nBreak << " " << nStep;
                }
            }
        }
    }
}

// The kernel passing over entries with built targets stops in the group of
// four where the plain loop stops, at an edited target of either side.
TEST(OutsideKernel, StopsWhereThePlainLoopStops)
{
    std::mt19937 gen(17);
    for (unsigned nEntries : {0u, 3u, 4u, 9u, 325u}) {
        for (int nBreak = -1; nBreak < 2; ++nBreak) {
            std::vector<tagModifyEntry> entries(nEntries);
            for (unsigned k = 0; k < nEntries; ++k) {
                entries[k].nDstRight = 5000 + k;
                entries[k].nDstLeft = 5000 - k;
            }
            const unsigned nAt = nEntries == 0 ? 0 : gen() % nEntries;
            if (nEntries > 0 && nBreak >= 0) (nBreak == 0 ? entries[nAt].nDstRight : entries[nAt].nDstLeft) += 660;
            const imageproc::OutsideRun run = {entries.data(), nEntries, 5000, 5000};
            const unsigned nPlain = imageproc::PassOutside(run, 0);
            ASSERT_EQ(nPlain, nBreak >= 0 && nEntries > 0 ? nAt : nEntries);
            const unsigned nVector = imageproc::PassOutsideSse2(run);
            ASSERT_EQ(nVector, nPlain / 4 * 4) << nEntries << " " << nBreak;
            ASSERT_EQ(imageproc::PassOutside(run, nVector), nPlain);
        }
    }
}

// The row kernels of the grey conversion, the quality profiles, the rolled
// composition and the live preview, with the plain loops finishing after
// them, give the plain loops' results on random, saturated and two-level
// rows over lengths of every remainder.
TEST(RowKernels, VectorPartAndPlainRestEqualPlainLoop)
{
    using namespace imageproc;
    std::mt19937 gen(29);
    for (size_t n : {0u, 15u, 16u, 17u, 598u, 1799u}) {
        for (int nFill = 0; nFill < 3; ++nFill) {
            std::vector<unsigned char> b(6 * (n + 2));
            for (unsigned char& by : b)
                by = nFill == 0 ? static_cast<unsigned char>(gen()) : nFill == 1 ? 255 : (gen() & 1) * 255;
            const unsigned char* const p = b.data() + 1;
            const size_t w = n + 2;
            const Rows3 rows = {p, p + w, p + 2 * w};
            const unsigned char* const pTake = p + 3 * w;
            for (int nParity : {0, 1}) {
                std::vector<unsigned char> plain(n + 1, 0x5A), vec(plain);
                GreyRow(rows.pAbove, rows.pCentre, plain.data(), 0, n, nParity);
                GreyRow(rows.pAbove, rows.pCentre, vec.data(),
                        GreyRowSse2(rows.pAbove, rows.pCentre, vec.data(), n, nParity), n, nParity);
                ASSERT_EQ(plain, vec) << "grey " << n << " " << nParity;
            }
            std::vector<uint16_t> plain(n), vec(n);
            for (size_t i = 0; i < n; ++i) plain[i] = vec[i] = static_cast<uint16_t>(gen() % 60000);
            unsigned nPlainSum = 7, nVectorSum = 7;
            GradientRow(rows, plain.data(), 0, n, nPlainSum);
            GradientRow(rows, vec.data(), GradientRowSse2(rows, vec.data(), n, nVectorSum), n, nVectorSum);
            ASSERT_EQ(plain, vec) << "gradient columns " << n;
            ASSERT_EQ(nPlainSum, nVectorSum) << "gradient row " << n;
            for (unsigned char byStep : {0, 15, 254}) {
                ActivityRow(rows, plain.data(), byStep, 0, n);
                ActivityRow(rows, vec.data(), byStep, ActivityRowSse2(rows, vec.data(), byStep, n), n);
                ASSERT_EQ(plain, vec) << "activity " << n;
            }
            std::vector<int16_t> diffPlain(plain.begin(), plain.end()), diffVector(diffPlain);
            AddColumnDiff(diffPlain.data(), rows.pAbove, rows.pCentre, rows.pBelow, pTake, 0, n);
            AddColumnDiff(diffVector.data(), rows.pAbove, rows.pCentre, rows.pBelow, pTake,
                          AddColumnDiffSse2(diffVector.data(), rows.pAbove, rows.pCentre, rows.pBelow, pTake, n), n);
            ASSERT_EQ(diffPlain, diffVector) << "column differences " << n;
            std::vector<unsigned char> dstPlain(rows.pAbove, rows.pAbove + n), dstVector(dstPlain);
            TakeWhere(dstPlain.data(), rows.pCentre, pTake, 0, n);
            TakeWhere(dstVector.data(), rows.pCentre, pTake, TakeWhereSse2(dstVector.data(), rows.pCentre, pTake, n),
                      n);
            ASSERT_EQ(dstPlain, dstVector) << "take " << n;
            std::vector<unsigned char> jitter(n), darkPlain(n), darkVector(n);
            for (unsigned char& by : jitter) by = static_cast<unsigned char>(gen() % oberin::kJitterSpan);
            std::vector<unsigned char> shown(256 * oberin::kJitterSpan), outPlain(n), outVector(n);
            for (unsigned char& by : shown) by = static_cast<unsigned char>(gen());
            oberin::MapDarkened(rows.pAbove, rows.pCentre, jitter.data(), shown.data(), darkPlain.data(),
                                outPlain.data(), 0, n);
            oberin::MapDarkened(rows.pAbove, rows.pCentre, jitter.data(), shown.data(), darkVector.data(),
                                outVector.data(),
                                oberin::MapDarkenedSse2(rows.pAbove, rows.pCentre, jitter.data(), shown.data(),
                                                        darkVector.data(), outVector.data(), n),
                                n);
            ASSERT_EQ(darkPlain, darkVector) << "darkening " << n;
            ASSERT_EQ(outPlain, outVector) << "jittered mapping " << n;
            std::vector<unsigned char> outAlone(n);  // without the darkening kept
            oberin::MapDarkened(rows.pAbove, rows.pCentre, jitter.data(), shown.data(), nullptr, outAlone.data(),
                                oberin::MapDarkenedSse2(rows.pAbove, rows.pCentre, jitter.data(), shown.data(), nullptr,
                                                        outAlone.data(), n),
                                n);
            ASSERT_EQ(outPlain, outAlone) << "jittered mapping, darkening not kept " << n;
        }
    }
}

// The enhancement kernels and the plain loops finishing after them give
// the plain loops' results, on random levels, all white, black and white,
// levels around 245 and dark levels among white, over lengths of every
// remainder.
TEST(EnhanceKernels, VectorPartAndPlainRestEqualPlainLoop)
{
    using namespace imageproc;
    std::mt19937 gen(19);
    unsigned char ucMonotone[256], ucAny[256];
    for (int g = 0; g < 256; ++g) {
        ucMonotone[g] = static_cast<unsigned char>(g < 90 ? g * 2 : 255);
        ucAny[g] = static_cast<unsigned char>(gen());
    }
    std::vector<uint16_t> pairs(65536);
    for (size_t n : {0u, 15u, 16u, 17u, 600u, 1001u}) {
        for (int nFill = 0; nFill < 5; ++nFill) {
            std::vector<unsigned char> a(n), b(n);
            for (size_t i = 0; i < n; ++i) {
                const unsigned r = static_cast<unsigned>(gen());
                const unsigned char abyFill[5] = {
                    static_cast<unsigned char>(r), 255, static_cast<unsigned char>(r & 1 ? 255 : 0),
                    static_cast<unsigned char>(240 + r % 11), static_cast<unsigned char>(r % 9 == 0 ? r % 90 : 255)};
                a[i] = abyFill[nFill];
                b[i] = static_cast<unsigned char>(gen());
            }
            uint32_t anPlain[256] = {0}, anVector[256] = {0};
            CountDarkLevels(a.data(), 0, n, anPlain);
            CountDarkLevels(a.data(), CountDarkLevelsSse2(a.data(), n, anVector), n, anVector);
            ASSERT_EQ(std::vector<uint32_t>(anPlain, anPlain + 256), std::vector<uint32_t>(anVector, anVector + 256));
            for (const unsigned char* pMap : {ucMonotone, ucAny}) {
                const unsigned char(&ucMap)[256] = *reinterpret_cast<const unsigned char(*)[256]>(pMap);
                BuildPairMap(ucMap, pairs.data());
                for (const uint16_t* pPairs :
                     {static_cast<const uint16_t*>(nullptr), static_cast<const uint16_t*>(pairs.data())}) {
                    std::vector<unsigned char> plain(a), vec(a);
                    MapLevels(plain.data(), 0, n, ucMap);
                    MapLevels(vec.data(), MapLevelsSse2(vec.data(), n, ucMap, pPairs), n, ucMap);
                    ASSERT_EQ(plain, vec) << n << " " << nFill;
                }
            }
            for (unsigned char byRef : {0, 77, 255}) {
                uint64_t nSum = 0;
                const size_t nDone = SumAbsDiffSse2(a.data(), n, byRef, nSum);
                ASSERT_EQ(SumAbsDiff(a.data(), 0, n, byRef), nSum + SumAbsDiff(a.data(), nDone, n, byRef));
            }
            std::vector<unsigned char> plain(n), vec(n);
            AbsDiffBytes(a.data(), b.data(), plain.data(), 0, n);
            AbsDiffBytes(a.data(), b.data(), vec.data(), AbsDiffBytesSse2(a.data(), b.data(), vec.data(), n), n);
            ASSERT_EQ(plain, vec);
            std::vector<uint16_t> sumPlain(n), sumVector(n);
            for (size_t i = 0; i < n; ++i) sumPlain[i] = sumVector[i] = static_cast<uint16_t>(gen());
            AddColumnRow(sumPlain.data(), a.data(), b.data(), 0, n);
            AddColumnRow(sumVector.data(), a.data(), b.data(),
                         AddColumnRowSse2(sumVector.data(), a.data(), b.data(), n), n);
            ASSERT_EQ(sumPlain, sumVector);
            for (int nFloor : {-1, 0, 100, 255})
                for (int nCeiling : {0, 1, 20, 300}) {
                    std::vector<unsigned char> white(b), whiteVector(b);
                    WhitenFlat(white.data(), a.data(), b.data(), nFloor, nCeiling, 0, n);
                    WhitenFlat(whiteVector.data(), a.data(), b.data(), nFloor, nCeiling,
                               WhitenFlatSse2(whiteVector.data(), a.data(), b.data(), nFloor, nCeiling, n), n);
                    ASSERT_EQ(white, whiteVector) << nFloor << " " << nCeiling;
                }
        }
    }
}

// The square mean's kernel divides in single precision: its rows must equal
// the integer division's for sums that divide exactly (every level of a
// flat row), random sums of every size a square can hold, and any 16-bit
// column sums, over the widths, half sides and row counts around its
// limits.
TEST(BoxMeanKernel, VectorPartAndPlainRestEqualPlainLoop)
{
    using namespace imageproc;
    std::mt19937 gen(23);
    for (size_t n : {17u, 18u, 40u, 600u}) {
        for (unsigned nHalf : {0u, 1u, 8u, 15u, 16u}) {
            for (unsigned nRows : {1u, 9u, 17u, 2000u}) {
                for (int nFill = 0; nFill < 258; ++nFill) {
                    std::vector<uint16_t> sums(n);
                    for (uint16_t& v : sums)
                        v = static_cast<uint16_t>(nFill < 256    ? nFill * nRows
                                                  : nFill == 256 ? gen() % (255 * nRows + 1)
                                                                 : gen());
                    std::vector<unsigned char> plain(n, 0x5A), vec(plain);
                    BoxRow row = {sums.data(), n, nHalf, nRows, plain.data()};
                    BoxMeanRow(row, 0, n);
                    row.pOut = vec.data();
                    const size_t nDone = BoxMeanRowSse2(row);
                    ASSERT_TRUE(nDone == 0 || nHalf + nDone + nHalf <= n) << nDone;
                    BoxMeanRow(row, 0, nHalf);
                    BoxMeanRow(row, nHalf + nDone, n);
                    ASSERT_EQ(plain, vec) << n << " " << nHalf << " " << nRows << " " << nFill;
                }
            }
        }
    }
}

// Final's normalisation computed level by level equals its table for every
// level under every mean and mean absolute deviation an image can have.
TEST(NormaliseKernel, VectorPartAndPlainRestEqualTheTable)
{
    using namespace imageproc;
    std::vector<unsigned char> levels(256 + 9);
    for (size_t i = 0; i < levels.size(); ++i) levels[i] = static_cast<unsigned char>(i);
    const size_t n = levels.size();
    for (int nMean = 0; nMean < 256; ++nMean) {
        for (int nMad = 1; nMad < 256; ++nMad) {
            unsigned char ucNorm[256];
            BuildNormTable(nMean, nMad, ucNorm);
            std::vector<unsigned char> plain(n), vec(n, 0x5A);
            NormaliseLevels(levels.data(), plain.data(), 0, n, ucNorm);
            const size_t nDone = NormaliseLevelsSse2(levels.data(), vec.data(), n, nMean, nMad);
            ASSERT_EQ(256u, nDone) << nMean << " " << nMad;
            NormaliseLevels(levels.data(), vec.data(), nDone, n, ucNorm);
            ASSERT_EQ(plain, vec) << nMean << " " << nMad;
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
        for (size_t i = 0; i < J::kHistory; ++i) start[i] = static_cast<uint32_t>(gen());
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
    for (int k = 0; k < 24; ++k) seeds.push_back(static_cast<unsigned>(gen()));
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

}  // namespace
