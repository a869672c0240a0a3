// Processor state after construction and the two modify tables: the counts
// and boundaries that follow from the exact single-precision arithmetic,
// the relations every entry must satisfy, and the rule that out-of-range
// entries keep their source indexes and weights untouched.
#include "imageproc_reference.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace {

struct TableShape {
    const char* pszName;
    int nSize;          // W
    unsigned nSrcWidth; // SW
    unsigned nCentre;   // SC
    int nMaxRow;
    int nMaxCol;
};

const TableShape kShape = {"m_ppModifyTable", 660, 1288, 644, 875, 643};
const TableShape kShapeEx = {"m_ppModifyTableEx", 650, 1700, 850, 1299, 849};

bool Valid(const tagModifyEntry& e, const TableShape& s)
{
    return e.nSrcRow >= 0 && e.nSrcRow <= s.nMaxRow && e.nSrcCol >= 0 && e.nSrcCol <= s.nMaxCol;
}

std::string At(const TableShape& s, int r, int c)
{
    return std::string(s.pszName) + " row " + std::to_string(r) + " entry " + std::to_string(c);
}

tagModifyEntry** TableOf(const CImageProc& proc, const TableShape& s)
{
    return s.nSize == 660 ? proc.m_ppModifyTable : proc.m_ppModifyTableEx;
}

TEST(ImageProcState, FreshObjectDefaults)
{
    const CImageProc& proc = testutil::SharedProc();
    EXPECT_EQ(0, proc.m_bContrastTable);
    EXPECT_EQ(0, proc.m_bRollStarted);
    EXPECT_EQ(0, proc.m_nDeviceType);
    EXPECT_EQ(100, proc.m_nFingerWinX);
    EXPECT_EQ(75, proc.m_nFingerWinY);
    ASSERT_NE(nullptr, proc.m_pBackground);
    EXPECT_EQ(IMG_PIXELS, std::count(proc.m_pBackground, proc.m_pBackground + IMG_PIXELS, 255));
    EXPECT_EQ(256, std::count(proc.m_ucContrastTable, proc.m_ucContrastTable + 256, 255));
    ASSERT_NE(nullptr, proc.m_ppModifyTable);
    ASSERT_NE(nullptr, proc.m_ppModifyTableEx);
    for (int r = 0; r < MODIFY_SIZE; ++r)
        ASSERT_NE(nullptr, proc.m_ppModifyTable[r]) << "row " << r;
    for (int r = 0; r < MODIFY_SIZE_EX; ++r)
        ASSERT_NE(nullptr, proc.m_ppModifyTableEx[r]) << "row " << r;
}

// Entries without source neighbours keep the zeros they started with, so
// that every field of the filled half of a row is defined.
TEST(ImageProcState, OutOfRangeEntriesHoldZeroIndexesAndWeights)
{
    const CImageProc& proc = testutil::SharedProc();
    for (const TableShape* s : {&kShape, &kShapeEx}) {
        tagModifyEntry** pp = TableOf(proc, *s);
        long nInvalid = 0;
        for (int r = 0; r < s->nSize; ++r) {
            for (int c = 0; c < s->nSize / 2; ++c) {
                const tagModifyEntry& e = pp[r][c];
                if (Valid(e, *s))
                    continue;
                ++nInvalid;
                for (int k = 0; k < 4; ++k) {
                    ASSERT_EQ(0u, e.nSrcIndex[k]) << At(*s, r, c);
                    ASSERT_EQ(0.0f, e.fWeight[k]) << At(*s, r, c);
                }
            }
        }
        EXPECT_GT(nInvalid, 0) << s->pszName;
    }
}

#if !defined(__SANITIZE_ADDRESS__)
// Runs one construction in a child process whose address space ends a given
// number of bytes above its current size, so that one of the constructor's
// allocations fails. Exit code 0: std::bad_alloc reached the caller and the
// heap holds no more than before; 1: memory was lost; 2: nothing failed.
void ConstructUnderLimit(long nHeadroom)
{
    std::FILE* pStat = std::fopen("/proc/self/statm", "r");
    long nPages = 0;
    if (pStat == nullptr || std::fscanf(pStat, "%ld", &nPages) != 1)
        std::_Exit(3);
    std::fclose(pStat);
    const rlim_t nLimit = static_cast<rlim_t>(nPages) * sysconf(_SC_PAGESIZE) + nHeadroom;
    struct rlimit lim = {nLimit, nLimit};
    if (setrlimit(RLIMIT_AS, &lim) != 0)
        std::_Exit(3);
    // A first failing attempt takes the run-time's one-time allocations
    // for throwing out of these frames; the second one is measured.
    try {
        CImageProc warmUp;
        std::_Exit(2);
    } catch (const std::bad_alloc&) {
    }
    struct mallinfo2 before = mallinfo2();
    try {
        CImageProc proc;
    } catch (const std::bad_alloc&) {
        struct mallinfo2 after = mallinfo2();
        const size_t nBefore = before.uordblks + before.hblkhd;
        const size_t nAfter = after.uordblks + after.hblkhd;
        std::_Exit(nAfter <= nBefore ? 0 : 1);
    }
    std::_Exit(2);
}
#endif

TEST(ImageProcState, FailedConstructionReleasesEverything)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "address-space limits do not mix with the sanitizer's shadow memory";
#else
    // Headrooms that stop construction at the background, inside the first
    // table and inside the second table.
    for (long nMiB : {0L, 12L, 36L}) {
        EXPECT_EXIT(ConstructUnderLimit(nMiB << 20), ::testing::ExitedWithCode(0), "")
            << "headroom " << nMiB << " MiB";
    }
#endif
}

TEST(ModifyTable, ValidEntryCounts)
{
    const CImageProc& proc = testutil::SharedProc();
    const long anExpected[2] = {216540, 202778};
    int k = 0;
    for (const TableShape* s : {&kShape, &kShapeEx}) {
        tagModifyEntry** pp = TableOf(proc, *s);
        long nValid = 0;
        for (int r = 0; r < s->nSize; ++r)
            for (int c = 0; c < s->nSize / 2; ++c)
                nValid += Valid(pp[r][c], *s) ? 1 : 0;
        EXPECT_EQ(anExpected[k++], nValid) << s->pszName;
    }
}

TEST(ModifyTable, RowRangeOfStandardTable)
{
    const CImageProc& proc = testutil::SharedProc();
    tagModifyEntry** pp = proc.m_ppModifyTable;
    int nMaxRow = -1;
    int nMaxRowAt = -1;
    for (int r = 0; r < 660; ++r) {
        if (pp[r][0].nSrcRow > nMaxRow) {
            nMaxRow = pp[r][0].nSrcRow;
            nMaxRowAt = r;
        }
        EXPECT_TRUE(Valid(pp[r][0], kShape)) << "row " << r << " has no valid entry";
    }
    EXPECT_EQ(846, nMaxRow);
    EXPECT_EQ(659, nMaxRowAt);
}

TEST(ModifyTable, RowRangeOfExTable)
{
    const CImageProc& proc = testutil::SharedProc();
    tagModifyEntry** pp = proc.m_ppModifyTableEx;
    for (int r = 636; r < 650; ++r) {
        for (int c = 0; c < 325; ++c) {
            EXPECT_GT(pp[r][c].nSrcRow, 1299) << "row " << r;
            EXPECT_FALSE(Valid(pp[r][c], kShapeEx));
        }
    }
    for (int r = 0; r < 650; ++r)
        EXPECT_EQ(r == 635, pp[r][0].nSrcRow == 1299) << "row " << r;

    // Row 635 reaches below the 1700 x 1300 image with its lower neighbours.
    unsigned nMaxThird = 0;
    int nBelow = 0;
    for (int c = 0; c < 325; ++c) {
        const tagModifyEntry& e = pp[635][c];
        if (!Valid(e, kShapeEx))
            continue;
        nMaxThird = std::max(nMaxThird, e.nSrcIndex[2]);
        nBelow += e.nSrcIndex[2] >= 2210000 ? 1 : 0;
    }
    EXPECT_EQ(2211675u, nMaxThird);
    EXPECT_GT(nBelow, 0);
}

// The rows whose row ends in entries beyond the largest accepted column.
TEST(ModifyTable, InvalidTails)
{
    const CImageProc& proc = testutil::SharedProc();
    const int anLastTailRow[2] = {218, 409};
    const int anRow0FirstInvalid[2] = {319, 306};
    int k = 0;
    for (const TableShape* s : {&kShape, &kShapeEx}) {
        tagModifyEntry** pp = TableOf(proc, *s);
        const int nHalf = s->nSize / 2;
        for (int r = 0; r < s->nSize; ++r) {
            if (pp[r][0].nSrcRow > s->nMaxRow)
                continue;  // whole row outside (Ex rows 636..649)
            const bool bTail = pp[r][nHalf - 1].nSrcCol > s->nMaxCol;
            EXPECT_EQ(r <= anLastTailRow[k], bTail) << s->pszName << " row " << r;
            // Valid entries form a prefix of the row.
            bool bSeenInvalid = false;
            for (int c = 0; c < nHalf; ++c) {
                const bool bValid = Valid(pp[r][c], *s);
                EXPECT_FALSE(bValid && bSeenInvalid) << s->pszName << " row " << r << " entry " << c;
                bSeenInvalid = bSeenInvalid || !bValid;
            }
        }
        for (int c = 0; c < nHalf; ++c)
            EXPECT_EQ(c < anRow0FirstInvalid[k], Valid(pp[0][c], *s)) << s->pszName << " row 0 entry " << c;
        ++k;
    }
}

TEST(ModifyTable, EntryRelations)
{
    const CImageProc& proc = testutil::SharedProc();
    for (const TableShape* s : {&kShape, &kShapeEx}) {
        tagModifyEntry** pp = TableOf(proc, *s);
        const int W = s->nSize;
        unsigned nMinLeftCol = W;
        for (int r = 0; r < W; ++r) {
            for (int c = 0; c < W / 2; ++c) {
                const tagModifyEntry& e = pp[r][c];
                ASSERT_EQ(static_cast<unsigned>(r * W + c + W / 2), e.nDstRight) << At(*s, r, c);
                ASSERT_EQ(static_cast<unsigned>(r * W - c + W / 2), e.nDstLeft) << At(*s, r, c);
                ASSERT_EQ(static_cast<int>(std::floor(e.fSrcRow)), e.nSrcRow) << At(*s, r, c);
                ASSERT_EQ(static_cast<int>(std::floor(e.fSrcCol)), e.nSrcCol) << At(*s, r, c);
                ASSERT_EQ(pp[r][0].fSrcRow, e.fSrcRow) << At(*s, r, c);  // one source row per output row
                if (r == 0) {
                    ASSERT_EQ(0.0f, e.fSrcRow) << At(*s, r, c);
                    ASSERT_EQ(0, e.nSrcRow) << At(*s, r, c);
                }
                if (c > 0) {
                    ASSERT_GT(e.fSrcCol, pp[r][c - 1].fSrcCol) << At(*s, r, c);
                }
                if (r > 0) {
                    ASSERT_GT(e.fSrcRow, pp[r - 1][c].fSrcRow) << At(*s, r, c);
                    // The horizontal stretch eases down the image.
                    ASSERT_LE(e.fSrcCol, pp[r - 1][c].fSrcCol) << At(*s, r, c);
                }
                nMinLeftCol = std::min(nMinLeftCol, e.nDstLeft % W);
                if (!Valid(e, *s))
                    continue;
                const unsigned nTopLeft = e.nSrcRow * s->nSrcWidth + e.nSrcCol + s->nCentre;
                ASSERT_EQ(nTopLeft, e.nSrcIndex[0]) << At(*s, r, c);
                ASSERT_EQ(nTopLeft + 1, e.nSrcIndex[1]) << At(*s, r, c);
                ASSERT_EQ(nTopLeft + s->nSrcWidth + 1, e.nSrcIndex[2]) << At(*s, r, c);
                ASSERT_EQ(nTopLeft + s->nSrcWidth, e.nSrcIndex[3]) << At(*s, r, c);
                float fSum = 0.0f;
                for (int k = 0; k < 4; ++k) {
                    ASSERT_GE(e.fWeight[k], 0.0f) << At(*s, r, c);
                    ASSERT_LE(e.fWeight[k], 1.0f) << At(*s, r, c);
                    fSum += e.fWeight[k];
                }
                ASSERT_NEAR(1.0f, fSum, 1e-6f) << At(*s, r, c);
                // Weights fall with the distance to the neighbour.
                const float fr = e.fSrcRow - e.nSrcRow;
                const float fc = e.fSrcCol - e.nSrcCol;
                ASSERT_NEAR((1 - fc) * (1 - fr), e.fWeight[0], 1e-6f) << At(*s, r, c);
                ASSERT_NEAR(fc * fr, e.fWeight[2], 1e-6f) << At(*s, r, c);
                if (e.nSrcCol == s->nMaxCol) {
                    // One past the end of the row: the first pixel of the next row.
                    ASSERT_EQ(0u, e.nSrcIndex[1] % s->nSrcWidth) << At(*s, r, c);
                    ASSERT_EQ(static_cast<unsigned>(e.nSrcRow + 1), e.nSrcIndex[1] / s->nSrcWidth) << At(*s, r, c);
                }
            }
        }
        EXPECT_EQ(1u, nMinLeftCol) << s->pszName << ": column 0 is the target of no entry";
    }
}

// A rebuild recomputes every field of the valid entries to the same bits
// and does not touch the indexes and weights of the others.
TEST(ModifyTable, RebuildKeepsInvalidEntriesUntouched)
{
    std::unique_ptr<CImageProc> pProc(new CImageProc);
    const unsigned nSentinel = 0xA5A5A5A5u;
    for (const TableShape* s : {&kShape, &kShapeEx}) {
        tagModifyEntry** pp = TableOf(*pProc, *s);
        const int nHalf = s->nSize / 2;
        std::vector<tagModifyEntry> saved;
        long nInvalid = 0;
        for (int r = 0; r < s->nSize; ++r) {
            for (int c = 0; c < nHalf; ++c) {
                tagModifyEntry& e = pp[r][c];
                if (!Valid(e, *s)) {
                    ++nInvalid;
                    std::memset(e.nSrcIndex, 0xA5, sizeof e.nSrcIndex);
                    std::memset(e.fWeight, 0xA5, sizeof e.fWeight);
                }
                saved.push_back(e);
                // Scramble the fields the rebuild always writes.
                e.fSrcRow = e.fSrcCol = -1.0f;
                e.nSrcRow = e.nSrcCol = -7;
                e.nDstRight = e.nDstLeft = 0;
                if (Valid(saved.back(), *s))
                    std::memset(e.nSrcIndex, 0, sizeof e.nSrcIndex);
            }
        }
        ASSERT_GT(nInvalid, 0);
        if (s->nSize == 660)
            pProc->InitModifyTable();
        else
            pProc->InitModifyTableEx();
        size_t k = 0;
        for (int r = 0; r < s->nSize; ++r) {
            for (int c = 0; c < nHalf; ++c, ++k) {
                ASSERT_EQ(0, std::memcmp(&saved[k], &pp[r][c], sizeof(tagModifyEntry)))
                    << s->pszName << " row " << r << " entry " << c;
                if (!Valid(pp[r][c], *s)) {
                    unsigned nWord;
                    std::memcpy(&nWord, &pp[r][c].fWeight[3], sizeof nWord);
                    ASSERT_EQ(nSentinel, nWord);
                }
            }
        }
    }
}

} // namespace
