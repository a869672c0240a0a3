// Geometry correction and the left-right mirror: refusal rules, table choice
// by device type, and bit-exact agreement of every path (usual and other
// output sizes, overlapping buffers, short and narrow sources, edited
// modify tables) with the plain reference that works on full scratch
// copies and a canvas.
#include "imageproc_reference.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

const size_t kOut = 360000;

typedef int (CImageProc::*CorrectOp)(unsigned char*, unsigned long, unsigned long, unsigned char*, unsigned long,
                                     unsigned long, unsigned long, unsigned long);

std::string Diff(const ref::Bytes& a, const ref::Bytes& b)
{
    return testutil::FirstDifference(a.data(), b.data(), std::min(a.size(), b.size()), 600);
}

// One interpolating variant against the reference on the processor's own
// tables. A pixel the reference computes has the same value whatever its
// canvas held before (runs with fills 0 and 255); such pixels must match.
// Any other pixel must keep the destination's earlier content -- moved by
// the final mirror when the output size is not the usual one. Returns the
// number of pixels no entry computes.
long ExpectMatch(CImageProc& proc, bool bEx, const ref::Bytes& src, unsigned long w, unsigned long h,
                 unsigned long nOutW, unsigned long nOutH)
{
    const ref::Bytes before = testutil::RandomBytes(kOut, 80);
    ref::Bytes kept = before;
    if (nOutW != 600 || nOutH != 600)
        ref::Mirror(kept.data(), static_cast<int>(nOutW), static_cast<int>(nOutH));
    ref::Bytes fill0(kOut, 0), fill255(kOut, 255), actual = before;
    unsigned char* pSrc = const_cast<unsigned char*>(src.data());
    if (bEx) {
        ref::CorrectImageCalcEx(proc, pSrc, w, h, fill0.data(), nOutW, nOutH, 0);
        ref::CorrectImageCalcEx(proc, pSrc, w, h, fill255.data(), nOutW, nOutH, 255);
        EXPECT_EQ(1, proc.CorrectImageCalcEx(pSrc, w, h, actual.data(), nOutW, nOutH, 0, 0));
    } else {
        ref::CorrectImageCalc(proc, pSrc, fill0.data(), nOutW, nOutH, 0);
        ref::CorrectImageCalc(proc, pSrc, fill255.data(), nOutW, nOutH, 255);
        EXPECT_EQ(1, proc.CorrectImageCalc(pSrc, w, h, actual.data(), nOutW, nOutH, 0, 0));
    }
    long nSkipped = 0;
    for (size_t i = 0; i < kOut; ++i) {
        const bool bComputed = fill0[i] == fill255[i];
        const unsigned char byWant = bComputed ? fill0[i] : kept[i];
        nSkipped += bComputed ? 0 : 1;
        if (actual[i] != byWant) {
            ADD_FAILURE() << (bEx ? "Ex" : "standard") << " table, source " << w << " x " << h << ", output " << nOutW
                          << " x " << nOutH << ": first difference at " << i << (bComputed ? " (computed) " : " (kept) ")
                          << int(byWant) << " vs " << int(actual[i]);
            break;
        }
    }
    return nSkipped;
}

// Both variants, the usual and another output size.
void ExpectBothVariantsMatch(CImageProc& proc, const ref::Bytes& src)
{
    for (bool bEx : {false, true}) {
        ExpectMatch(proc, bEx, src, bEx ? 1800 : 1288, bEx ? 1280 : 876, 600, 600);
        ExpectMatch(proc, bEx, src, bEx ? 1800 : 1288, bEx ? 1280 : 876, 500, 400);
    }
}

// ---------------------------------------------------------------- mirror

TEST(Mirror, ThreeByOneAndNull)
{
    unsigned char ab[3] = {1, 2, 3};
    EXPECT_EQ(1, testutil::SharedProc().RotateRightImage(ab, 3, 1));
    EXPECT_EQ(3, ab[0]);
    EXPECT_EQ(2, ab[1]);
    EXPECT_EQ(1, ab[2]);
    EXPECT_EQ(0, testutil::SharedProc().RotateRightImage(nullptr, 600, 600));
}

TEST(Mirror, MatchesReferenceForEveryRowLength)
{
    unsigned nSeed = 7;
    std::vector<int> widths;
    for (int w = 1; w <= 70; ++w)
        widths.push_back(w);
    widths.push_back(600);
    widths.push_back(1288);
    for (int w : widths) {
        for (int h : {1, 3}) {
            ref::Bytes img = testutil::RandomBytes(static_cast<size_t>(w) * h, nSeed++);
            ref::Bytes expected = img;
            ref::Mirror(expected.data(), w, h);
            EXPECT_EQ(1, testutil::SharedProc().RotateRightImage(img.data(), w, h));
            EXPECT_EQ(expected, img) << w << " x " << h;
        }
    }
}

// ---------------------------------------------------------------- lookup

TEST(CorrectImage, RefusalRules)
{
    CImageProc& proc = testutil::SharedProc();
    ref::Bytes src(1280 * 676, 9);
    ref::Bytes dst(kOut, 77);
    const ref::Bytes untouched = dst;

    EXPECT_EQ(0, proc.CorrectImage(nullptr, 1280, 676, dst.data(), 600, 600, 0, 0));
    EXPECT_EQ(0, proc.CorrectImage(src.data(), 1280, 676, nullptr, 600, 600, 0, 0));
    // Output width 601 does not fit a source 600 wide; 600 does.
    EXPECT_EQ(0, proc.CorrectImage(src.data(), 600, 676, dst.data(), 601, 600, 0, 0));
    // The offsets count in the check: 600 + 680 - 1 < 1280, 600 + 681 - 1 is not.
    EXPECT_EQ(0, proc.CorrectImage(src.data(), 1280, 676, dst.data(), 600, 600, 681, 0));
    EXPECT_EQ(0, proc.CorrectImage(src.data(), 1280, 676, dst.data(), 600, 600, 0, 77));
    // A zero output size wraps around in the unsigned check.
    EXPECT_EQ(0, proc.CorrectImage(src.data(), 1280, 676, dst.data(), 0, 600, 0, 0));
    EXPECT_EQ(untouched, dst);

    EXPECT_EQ(1, proc.CorrectImage(src.data(), 1280, 676, dst.data(), 600, 600, 680, 76));
    EXPECT_EQ(1, proc.CorrectImage(src.data(), 600, 676, dst.data(), 600, 600, 0, 0));
}

// Every coordinate of the read regions addresses a pixel of the image size
// the table pair serves.
TEST(CorrectImage, TablesStayInsideTheirImages)
{
    struct Pair {
        const unsigned short* pX;
        const unsigned short* pY;
        int nTop, nLeft, nWidth, nHeight;
    };
    const Pair pairs[] = {{usXtable, usYtable, 21, 26, 1280, 676}, {usXtable1103, usYtable1103, 10, 25, 1288, 876}};
    for (const Pair& p : pairs) {
        int nOutside = 0;
        for (int y = 0; y < 600; ++y) {
            for (int x = 0; x < 600; ++x) {
                const int nPos = (p.nTop + y) * 660 + p.nLeft + x;
                nOutside += (p.pX[nPos] >= p.nWidth || p.pY[nPos] >= p.nHeight) ? 1 : 0;
            }
        }
        EXPECT_EQ(0, nOutside) << p.nWidth << " x " << p.nHeight;
    }
}

TEST(CorrectImage, MatchesReferenceForEveryDeviceType)
{
    CImageProc& proc = testutil::SharedProc();
    const int nSaved = proc.m_nDeviceType;
    unsigned nSeed = 30;
    for (int nType : {0, 3, 4, 5, 6, 7, 8, 9}) {
        const bool b1103 = nType >= 5 && nType <= 8;
        const unsigned long w = b1103 ? 1288 : 1280;
        const unsigned long h = b1103 ? 876 : 676;
        ref::Bytes src = testutil::RandomBytes(w * h, nSeed++);
        ref::Bytes expected(kOut, 1), actual(kOut, 2);
        ASSERT_EQ(1, ref::CorrectImage(nType, src.data(), w, h, expected.data(), 600, 600, 0, 0));
        proc.m_nDeviceType = nType;
        EXPECT_EQ(1, proc.CorrectImage(src.data(), w, h, actual.data(), 600, 600, 0, 0));
        EXPECT_EQ("", Diff(expected, actual)) << "device type " << nType;
    }
    proc.m_nDeviceType = nSaved;

    // One value everywhere stays that value.
    ref::Bytes src(1288 * 876, 173), dst(kOut, 0);
    EXPECT_EQ(1, proc.CorrectImage(src.data(), 1288, 876, dst.data(), 600, 600, 0, 0));
    EXPECT_EQ(ref::Bytes(kOut, 173), dst);
}

// Smaller output sizes mirror only their own window after the full lookup;
// a destination inside the source sees the lookup in its own order.
TEST(CorrectImage, OtherOutputSizeAndOverlap)
{
    CImageProc& proc = testutil::SharedProc();
    ref::Bytes src = testutil::RandomBytes(1280 * 676, 41);
    for (unsigned long n : {300ul, 599ul}) {
        ref::Bytes expected(kOut, 1), actual(kOut, 2);
        ref::CorrectImage(proc.m_nDeviceType, src.data(), 1280, 676, expected.data(), n, n - 10, 0, 0);
        EXPECT_EQ(1, proc.CorrectImage(src.data(), 1280, 676, actual.data(), n, n - 10, 0, 0));
        EXPECT_EQ("", Diff(expected, actual)) << "output " << n;
    }
    ref::Bytes expected = src;
    const size_t nAt = 1280 * 100;
    ref::CorrectImage(proc.m_nDeviceType, expected.data(), 1280, 676, expected.data() + nAt, 600, 600, 0, 0);
    EXPECT_EQ(1, proc.CorrectImage(src.data(), 1280, 676, src.data() + nAt, 600, 600, 0, 0));
    EXPECT_EQ("", Diff(expected, src));
}

// -------------------------------------------------------- interpolation

TEST(CorrectImageCalc, RefusalRules)
{
    CImageProc& proc = testutil::SharedProc();
    ref::Bytes src(1800 * 1280, 5);
    ref::Bytes dst(kOut, 77);
    for (CorrectOp op : {&CImageProc::CorrectImageCalc, &CImageProc::CorrectImageCalcEx}) {
        EXPECT_EQ(0, (proc.*op)(nullptr, 1800, 1280, dst.data(), 600, 600, 0, 0));
        EXPECT_EQ(0, (proc.*op)(src.data(), 1800, 1280, nullptr, 600, 600, 0, 0));
    }
    // Without its table (taken away for the call and put back).
    tagModifyEntry** pp = nullptr;
    std::swap(proc.m_ppModifyTable, pp);
    EXPECT_EQ(0, proc.CorrectImageCalc(src.data(), 1288, 876, dst.data(), 600, 600, 0, 0));
    std::swap(proc.m_ppModifyTable, pp);
    std::swap(proc.m_ppModifyTableEx, pp);
    EXPECT_EQ(0, proc.CorrectImageCalcEx(src.data(), 1800, 1280, dst.data(), 600, 600, 0, 0));
    std::swap(proc.m_ppModifyTableEx, pp);
    EXPECT_EQ(ref::Bytes(kOut, 77), dst);
}

// With the tables as built, every pixel of the crop is computed (the
// reference's canvas content never shows), for both variants and sizes.
TEST(CorrectImageCalc, MatchesReferenceAndComputesEveryPixel)
{
    CImageProc& proc = testutil::SharedProc();
    for (unsigned nSeed : {51u, 52u}) {
        const ref::Bytes src = testutil::RandomBytes(1800 * 1280, nSeed);
        for (bool bEx : {false, true}) {
            EXPECT_EQ(0, ExpectMatch(proc, bEx, src, bEx ? 1800 : 1288, bEx ? 1280 : 876, 600, 600));
            EXPECT_EQ(0, ExpectMatch(proc, bEx, src, bEx ? 1800 : 1288, bEx ? 1280 : 876, 320, 600));
        }
    }
}

// The frame in use, a source of the least width, and short sources whose
// missing rows stay 0 in the padded image; rows that would fall below the
// 1300 padded rows are not used.
TEST(CorrectImageCalcEx, SourceShapes)
{
    CImageProc& proc = testutil::SharedProc();
    const ref::Bytes src = testutil::RandomBytes(1800 * 1300, 60);
    struct Case {
        unsigned long w, h;
    };
    for (const Case& c : {Case{1750, 1280}, Case{1800, 1000}, Case{1760, 700}, Case{1800, 1290}})
        ExpectMatch(proc, true, src, c.w, c.h, 600, 600);
    ref::Bytes full(kOut, 1), cut(kOut, 2);
    proc.CorrectImageCalcEx(const_cast<unsigned char*>(src.data()), 1800, 1300, full.data(), 600, 600, 0, 0);
    proc.CorrectImageCalcEx(const_cast<unsigned char*>(src.data()), 1800, 1290, cut.data(), 600, 600, 0, 0);
    EXPECT_EQ("", Diff(cut, full));
}

// A source narrower than 1750 columns would have its last row read past the
// end; those bytes count as 0, as if the buffer went on with zeros.
TEST(CorrectImageCalcEx, NarrowSourceReadsZerosPastItsEnd)
{
    CImageProc& proc = testutil::SharedProc();
    const unsigned long w = 1700;
    const unsigned long h = 1280;
    ref::Bytes src = testutil::RandomBytes(w * h, 66);
    ref::Bytes extended = src;
    extended.resize(w * h + 100, 0);
    ref::Bytes expected(kOut, 1), actual(kOut, 2);
    ref::CorrectImageCalcEx(proc, extended.data(), w, h, expected.data(), 600, 600);
    EXPECT_EQ(1, proc.CorrectImageCalcEx(src.data(), w, h, actual.data(), 600, 600, 0, 0));
    EXPECT_EQ("", Diff(expected, actual));
}

TEST(CorrectImageCalc, UniformSourceGivesValueOrOneLess)
{
    CImageProc& proc = testutil::SharedProc();
    for (CorrectOp op : {&CImageProc::CorrectImageCalc, &CImageProc::CorrectImageCalcEx}) {
        for (int v : {1, 100, 255}) {
            ref::Bytes src(1800 * 1280, static_cast<unsigned char>(v));
            ref::Bytes dst(kOut, 0);
            EXPECT_EQ(1, (proc.*op)(src.data(), 1800, 1280, dst.data(), 600, 600, 0, 0));
            const long nExact = std::count(dst.begin(), dst.end(), v);
            const long nLess = std::count(dst.begin(), dst.end(), v - 1);
            EXPECT_EQ(static_cast<long>(kOut), nExact + nLess) << "value " << v;
            EXPECT_GT(nExact, 0);
        }
    }
}

// A destination inside the source: every read must see the source as it
// was before the call.
TEST(CorrectImageCalc, DestinationInsideTheSource)
{
    CImageProc& proc = testutil::SharedProc();
    const ref::Bytes src = testutil::RandomBytes(1800 * 1280, 67);
    for (bool bEx : {false, true}) {
        ref::Bytes expected(kOut);
        if (bEx)
            ref::CorrectImageCalcEx(proc, src.data(), 1800, 1280, expected.data(), 600, 600);
        else
            ref::CorrectImageCalc(proc, src.data(), expected.data(), 600, 600);
        ref::Bytes buf = src;
        unsigned char* pDst = buf.data() + 1800 * 20;
        EXPECT_EQ(1, bEx ? proc.CorrectImageCalcEx(buf.data(), 1800, 1280, pDst, 600, 600, 0, 0)
                         : proc.CorrectImageCalc(buf.data(), 1288, 876, pDst, 600, 600, 0, 0));
        EXPECT_EQ("", testutil::FirstDifference(expected.data(), pDst, kOut, 600)) << (bEx ? "Ex" : "standard");
    }
}

// ------------------------------------------------ edited modify tables
//
// The tables are public and are used as stored. Each test edits the tables
// of a private processor; the reference reads the same tables.

typedef void (*EntryEdit)(tagModifyEntry& e, int r, int c, unsigned nLimit, std::mt19937& gen);

void EditTables(CImageProc& proc, EntryEdit edit)
{
    std::mt19937 gen(77);
    for (int t = 0; t < 2; ++t) {
        tagModifyEntry** pp = t == 0 ? proc.m_ppModifyTable : proc.m_ppModifyTableEx;
        const int nSize = t == 0 ? 660 : 650;
        const unsigned nLimit = t == 0 ? 1288u * 876u : 1700u * 1300u;
        for (int r = 0; r < nSize; ++r)
            for (int c = 0; c < nSize / 2; ++c)
                edit(pp[r][c], r, c, nLimit, gen);
    }
}

// Neighbours anywhere, other weights (even summing beyond 1: the low 8
// bits count), bottom-right neighbours below the source and rows out of
// range (such entries are skipped), scattered over the tables.
TEST(CorrectImageCalc, FollowsEditedTableEntries)
{
    std::unique_ptr<CImageProc> pProc(new CImageProc);
    EditTables(*pProc, [](tagModifyEntry& e, int r, int c, unsigned nLimit, std::mt19937& gen) {
        if ((r * 7 + c) % 13 != 0)
            return;
        switch ((r + c) % 4) {
        case 0:
            for (unsigned& nIndex : e.nSrcIndex)
                nIndex = gen() % nLimit;
            break;
        case 1:
            for (float& fWeight : e.fWeight)
                fWeight = static_cast<float>(gen() % 1000) / 700.0f;
            break;
        case 2:
            e.nSrcIndex[2] = nLimit + static_cast<unsigned>(gen() % 5000);
            break;
        default:
            e.nSrcRow = -1 - static_cast<int>(gen() % 3);
            break;
        }
    });
    ExpectBothVariantsMatch(*pProc, testutil::RandomBytes(1800 * 1280, 78));
}

// Every entry with its first two neighbours (and their weights) swapped:
// the same terms, added in another order, in a shape that is not the usual
// block. Each pixel must still be the in-order sum of the stored entry.
TEST(CorrectImageCalc, SwappedNeighboursAreAddedInStoredOrder)
{
    std::unique_ptr<CImageProc> pProc(new CImageProc);
    EditTables(*pProc, [](tagModifyEntry& e, int, int, unsigned, std::mt19937&) {
        std::swap(e.nSrcIndex[0], e.nSrcIndex[1]);
        std::swap(e.fWeight[0], e.fWeight[1]);
    });
    ExpectBothVariantsMatch(*pProc, testutil::RandomBytes(1800 * 1280, 81));
}

// An entry with any neighbour other than the bottom-right one outside the
// source is skipped as well, instead of being read from outside the image:
// the result is that of the same table with those entries out of range.
TEST(CorrectImageCalc, EntriesReachingOutsideAreSkipped)
{
    std::unique_ptr<CImageProc> pProc(new CImageProc);
    std::unique_ptr<CImageProc> pSkipped(new CImageProc);
    EditTables(*pProc, [](tagModifyEntry& e, int r, int c, unsigned nLimit, std::mt19937&) {
        if (r >= 100 && r < 500 && r % 7 == 2 && c < 300 && c % 5 == 0)
            e.nSrcIndex[(r + c) % 2 == 0 ? 0 : 3] = nLimit + static_cast<unsigned>(r);
    });
    EditTables(*pSkipped, [](tagModifyEntry& e, int r, int c, unsigned, std::mt19937&) {
        if (r >= 100 && r < 500 && r % 7 == 2 && c < 300 && c % 5 == 0)
            e.nSrcRow = -1;
    });
    const ref::Bytes src = testutil::RandomBytes(1800 * 1280, 79);
    unsigned char* pSrc = const_cast<unsigned char*>(src.data());
    for (CorrectOp op : {&CImageProc::CorrectImageCalc, &CImageProc::CorrectImageCalcEx}) {
        ref::Bytes fromEdited(kOut, 1), fromSkipped(kOut, 1), plain(kOut, 1);
        ((*pProc).*op)(pSrc, 1800, 1280, fromEdited.data(), 600, 600, 0, 0);
        ((*pSkipped).*op)(pSrc, 1800, 1280, fromSkipped.data(), 600, 600, 0, 0);
        EXPECT_EQ("", Diff(fromSkipped, fromEdited));
        // The chosen entries lie inside the crop: thousands of pixels keep the 1.
        (testutil::SharedProc().*op)(pSrc, 1800, 1280, plain.data(), 600, 600, 0, 0);
        long nKept = 0;
        for (size_t i = 0; i < kOut; ++i)
            nKept += plain[i] != fromSkipped[i] && fromSkipped[i] == 1 ? 1 : 0;
        EXPECT_GT(nKept, 5000);
    }
    ExpectBothVariantsMatch(*pSkipped, src);
}

// Targets moved across the centre column: a left pixel written where a
// later entry writes a right pixel, and the reverse. The left pass comes
// after the whole right pass, so the left value must win everywhere.
TEST(CorrectImageCalc, CrossingTargetsKeepThePassOrder)
{
    std::unique_ptr<CImageProc> pProc(new CImageProc);
    for (int t = 0; t < 2; ++t) {
        tagModifyEntry** pp = t == 0 ? pProc->m_ppModifyTable : pProc->m_ppModifyTableEx;
        for (int r = 200; r < 260; r += 3) {
            pp[r][40].nDstLeft = pp[r][45].nDstRight;         // a later entry writes it as a right pixel
            pp[r][60].nDstRight = pp[r][20].nDstLeft;         // an earlier entry wrote it as a left pixel
            pp[r + 1][0].nDstRight = pp[r + 1][7].nDstRight;  // the centre entry's right pixel moved away
        }
    }
    ExpectBothVariantsMatch(*pProc, testutil::RandomBytes(1800 * 1280, 82));
}

} // namespace
