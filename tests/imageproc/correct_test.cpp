// Geometry correction and the left-right mirror: refusal rules, table choice
// by device type, and bit-exact agreement of every path (usual output,
// other output sizes, overlapping buffers, short and narrow sources) with
// the plain reference that works on full scratch copies and a canvas.
#include "imageproc_reference.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
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
    if (a.size() != b.size())
        return "sizes differ";
    return testutil::FirstDifference(a.data(), b.data(), a.size(), 600);
}

// Compares with the reference where the reference writes a pixel (the same
// value whatever the canvas held before); elsewhere the destination must
// hold the given earlier content.
std::string DiffWritten(const ref::Bytes& fill0, const ref::Bytes& fill255, const ref::Bytes& before,
                        const ref::Bytes& actual)
{
    for (size_t i = 0; i < actual.size(); ++i) {
        const bool bWritten = fill0[i] == fill255[i];
        const unsigned char byWant = bWritten ? fill0[i] : before[i];
        if (actual[i] != byWant) {
            return "first difference at index " + std::to_string(i) + (bWritten ? " (computed): " : " (skipped): ") +
                   std::to_string(byWant) + " vs " + std::to_string(actual[i]);
        }
    }
    return std::string();
}

// Runs both interpolating variants of a processor and compares them with
// the reference on the same tables.
void ExpectBothVariantsMatch(CImageProc& proc, const ref::Bytes& src)
{
    const ref::Bytes before = testutil::RandomBytes(kOut, 80);
    struct Size {
        unsigned long w, h;
    };
    for (const Size& out : {Size{600, 600}, Size{500, 400}}) {
        // Pixels no entry computes keep their earlier content; with another
        // output size the final mirror moves them like every other pixel.
        ref::Bytes kept = before;
        if (out.w != 600 || out.h != 600)
            ref::Mirror(kept.data(), static_cast<int>(out.w), static_cast<int>(out.h));
        ref::Bytes fill0(kOut, 0), fill255(kOut, 255), actual = before;
        ref::CorrectImageCalc(proc, src.data(), fill0.data(), out.w, out.h, 0);
        ref::CorrectImageCalc(proc, src.data(), fill255.data(), out.w, out.h, 255);
        EXPECT_EQ(1, proc.CorrectImageCalc(const_cast<unsigned char*>(src.data()), 1288, 876, actual.data(), out.w,
                                           out.h, 0, 0));
        EXPECT_EQ("", DiffWritten(fill0, fill255, kept, actual)) << "standard table, " << out.w << " x " << out.h;
        fill0.assign(kOut, 0);
        fill255.assign(kOut, 255);
        actual = before;
        ref::CorrectImageCalcEx(proc, src.data(), 1800, 1280, fill0.data(), out.w, out.h, 0);
        ref::CorrectImageCalcEx(proc, src.data(), 1800, 1280, fill255.data(), out.w, out.h, 255);
        EXPECT_EQ(1, proc.CorrectImageCalcEx(const_cast<unsigned char*>(src.data()), 1800, 1280, actual.data(), out.w,
                                             out.h, 0, 0));
        EXPECT_EQ("", DiffWritten(fill0, fill255, kept, actual)) << "Ex table, " << out.w << " x " << out.h;
    }
}

// ---------------------------------------------------------------- mirror

TEST(Mirror, ThreeByOne)
{
    unsigned char ab[3] = {1, 2, 3};
    EXPECT_EQ(1, testutil::SharedProc().RotateRightImage(ab, 3, 1));
    EXPECT_EQ(3, ab[0]);
    EXPECT_EQ(2, ab[1]);
    EXPECT_EQ(1, ab[2]);
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
            // Mirroring twice restores the image.
            testutil::SharedProc().RotateRightImage(img.data(), w, h);
            ref::Mirror(expected.data(), w, h);
            EXPECT_EQ(expected, img) << w << " x " << h;
        }
    }
}

TEST(Mirror, NullImageIsRefused)
{
    EXPECT_EQ(0, testutil::SharedProc().RotateRightImage(nullptr, 600, 600));
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
    EXPECT_EQ(1, proc.CorrectImage(src.data(), 1280, 676, dst.data(), 600, 600, 0, 0));
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
}

TEST(CorrectImage, UniformSourceGivesUniformImage)
{
    CImageProc& proc = testutil::SharedProc();
    ref::Bytes src(1288 * 876, 173);
    ref::Bytes dst(kOut, 0);
    EXPECT_EQ(1, proc.CorrectImage(src.data(), 1288, 876, dst.data(), 600, 600, 0, 0));
    EXPECT_EQ(ref::Bytes(kOut, 173), dst);
}

// Smaller output sizes mirror only their own window after the full lookup.
TEST(CorrectImage, OtherOutputSizeMirrorsItsOwnWindow)
{
    CImageProc& proc = testutil::SharedProc();
    ref::Bytes src = testutil::RandomBytes(1280 * 676, 41);
    for (unsigned long n : {300ul, 599ul}) {
        ref::Bytes expected(kOut, 1), actual(kOut, 2);
        ref::CorrectImage(proc.m_nDeviceType, src.data(), 1280, 676, expected.data(), n, n - 10, 0, 0);
        EXPECT_EQ(1, proc.CorrectImage(src.data(), 1280, 676, actual.data(), n, n - 10, 0, 0));
        EXPECT_EQ("", Diff(expected, actual)) << "output " << n;
    }
}

TEST(CorrectImage, DestinationInsideTheSource)
{
    CImageProc& proc = testutil::SharedProc();
    ref::Bytes buf = testutil::RandomBytes(1280 * 676, 43);
    ref::Bytes expected = buf;
    const size_t nAt = 1280 * 100;
    ref::CorrectImage(proc.m_nDeviceType, expected.data(), 1280, 676, expected.data() + nAt, 600, 600, 0, 0);
    EXPECT_EQ(1, proc.CorrectImage(buf.data(), 1280, 676, buf.data() + nAt, 600, 600, 0, 0));
    EXPECT_EQ("", Diff(expected, buf));
}

// -------------------------------------------------------- interpolation

// Both interpolating variants: refusals leave the destination alone.
TEST(CorrectImageCalc, RefusalRules)
{
    CImageProc& proc = testutil::SharedProc();
    ref::Bytes src(1800 * 1280, 5);
    ref::Bytes dst(kOut, 77);
    for (CorrectOp op : {&CImageProc::CorrectImageCalc, &CImageProc::CorrectImageCalcEx}) {
        EXPECT_EQ(0, (proc.*op)(nullptr, 1800, 1280, dst.data(), 600, 600, 0, 0));
        EXPECT_EQ(0, (proc.*op)(src.data(), 1800, 1280, nullptr, 600, 600, 0, 0));
    }
    EXPECT_EQ(ref::Bytes(kOut, 77), dst);

    CImageProc bare;
    tagModifyEntry** pp = bare.m_ppModifyTable;
    bare.m_ppModifyTable = nullptr;
    EXPECT_EQ(0, bare.CorrectImageCalc(src.data(), 1288, 876, dst.data(), 600, 600, 0, 0));
    bare.m_ppModifyTable = pp;
    pp = bare.m_ppModifyTableEx;
    bare.m_ppModifyTableEx = nullptr;
    EXPECT_EQ(0, bare.CorrectImageCalcEx(src.data(), 1800, 1280, dst.data(), 600, 600, 0, 0));
    bare.m_ppModifyTableEx = pp;
    EXPECT_EQ(ref::Bytes(kOut, 77), dst);
}

TEST(CorrectImageCalc, MatchesReference)
{
    CImageProc& proc = testutil::SharedProc();
    for (unsigned nSeed : {51u, 52u}) {
        ref::Bytes src = testutil::RandomBytes(1288 * 876, nSeed);
        ref::Bytes expected(kOut, 1), actual(kOut, 2);
        ASSERT_EQ(1, ref::CorrectImageCalc(proc, src.data(), expected.data(), 600, 600));
        // The width and height arguments are not used.
        EXPECT_EQ(1, proc.CorrectImageCalc(src.data(), 0, 0, actual.data(), 600, 600, 0, 0));
        EXPECT_EQ("", Diff(expected, actual)) << "seed " << nSeed;
    }
}

TEST(CorrectImageCalc, EveryCroppedPixelIsComputed)
{
    CImageProc& proc = testutil::SharedProc();
    ref::Bytes src = testutil::RandomBytes(1288 * 876, 53);
    ref::Bytes a(kOut), b(kOut);
    ref::CorrectImageCalc(proc, src.data(), a.data(), 600, 600, 0);
    ref::CorrectImageCalc(proc, src.data(), b.data(), 600, 600, 255);
    EXPECT_EQ("", Diff(a, b));
}

TEST(CorrectImageCalc, UniformSourceGivesValueOrOneLess)
{
    CImageProc& proc = testutil::SharedProc();
    for (int v : {1, 100, 255}) {
        ref::Bytes src(1288 * 876, static_cast<unsigned char>(v));
        ref::Bytes dst(kOut, 0);
        EXPECT_EQ(1, proc.CorrectImageCalc(src.data(), 1288, 876, dst.data(), 600, 600, 0, 0));
        const long nExact = std::count(dst.begin(), dst.end(), v);
        const long nLess = std::count(dst.begin(), dst.end(), v - 1);
        EXPECT_EQ(static_cast<long>(kOut), nExact + nLess) << "value " << v;
        EXPECT_GT(nExact, 0);
    }
}

TEST(CorrectImageCalc, OtherOutputSizeAndOverlap)
{
    CImageProc& proc = testutil::SharedProc();
    ref::Bytes src = testutil::RandomBytes(1288 * 876, 54);
    {
        ref::Bytes expected(kOut, 1), actual(kOut, 2);
        ref::CorrectImageCalc(proc, src.data(), expected.data(), 500, 400);
        EXPECT_EQ(1, proc.CorrectImageCalc(src.data(), 1288, 876, actual.data(), 500, 400, 0, 0));
        EXPECT_EQ("", Diff(expected, actual)) << "500 x 400";
    }
    {
        // The destination is the start of the source buffer.
        ref::Bytes expected(kOut);
        ref::CorrectImageCalc(proc, src.data(), expected.data(), 600, 600);
        ref::Bytes buf = src;
        EXPECT_EQ(1, proc.CorrectImageCalc(buf.data(), 1288, 876, buf.data() + 5000, 600, 600, 0, 0));
        const ref::Bytes actual(buf.begin() + 5000, buf.begin() + 5000 + kOut);
        EXPECT_EQ("", Diff(expected, actual)) << "overlapping";
    }
}

TEST(CorrectImageCalcEx, MatchesReference)
{
    CImageProc& proc = testutil::SharedProc();
    struct Case {
        unsigned long w, h;
    };
    // The frame in use, a source of the least width, and short sources
    // whose missing rows stay 0 in the padded image.
    const Case cases[] = {{1800, 1280}, {1750, 1280}, {1800, 1000}, {1760, 700}};
    unsigned nSeed = 60;
    for (const Case& c : cases) {
        ref::Bytes src = testutil::RandomBytes(c.w * c.h, nSeed++);
        ref::Bytes expected(kOut, 1), actual(kOut, 2);
        ASSERT_EQ(1, ref::CorrectImageCalcEx(proc, src.data(), c.w, c.h, expected.data(), 600, 600));
        EXPECT_EQ(1, proc.CorrectImageCalcEx(src.data(), c.w, c.h, actual.data(), 600, 600, 0, 0));
        EXPECT_EQ("", Diff(expected, actual)) << c.w << " x " << c.h;
    }
}

TEST(CorrectImageCalcEx, EveryCroppedPixelIsComputed)
{
    CImageProc& proc = testutil::SharedProc();
    ref::Bytes src = testutil::RandomBytes(1800 * 1280, 64);
    ref::Bytes a(kOut), b(kOut);
    ref::CorrectImageCalcEx(proc, src.data(), 1800, 1280, a.data(), 600, 600, 0);
    ref::CorrectImageCalcEx(proc, src.data(), 1800, 1280, b.data(), 600, 600, 255);
    EXPECT_EQ("", Diff(a, b));
}

TEST(CorrectImageCalcEx, UniformSourceGivesValueOrOneLess)
{
    CImageProc& proc = testutil::SharedProc();
    for (int v : {1, 100, 255}) {
        ref::Bytes src(1800 * 1280, static_cast<unsigned char>(v));
        ref::Bytes dst(kOut, 0);
        EXPECT_EQ(1, proc.CorrectImageCalcEx(src.data(), 1800, 1280, dst.data(), 600, 600, 0, 0));
        const long nExact = std::count(dst.begin(), dst.end(), v);
        const long nLess = std::count(dst.begin(), dst.end(), v - 1);
        EXPECT_EQ(static_cast<long>(kOut), nExact + nLess) << "value " << v;
        EXPECT_GT(nExact, 0);
    }
}

// Rows that would fall below the 1300-row padded image are not taken: a
// source of 1300 rows gives the image of its first 1290.
TEST(CorrectImageCalcEx, RowsBelowThePaddedImageAreIgnored)
{
    CImageProc& proc = testutil::SharedProc();
    ref::Bytes src = testutil::RandomBytes(1800 * 1300, 65);
    ref::Bytes full(kOut, 1), cut(kOut, 2), expected(kOut, 3);
    EXPECT_EQ(1, proc.CorrectImageCalcEx(src.data(), 1800, 1300, full.data(), 600, 600, 0, 0));
    EXPECT_EQ(1, proc.CorrectImageCalcEx(src.data(), 1800, 1290, cut.data(), 600, 600, 0, 0));
    ref::CorrectImageCalcEx(proc, src.data(), 1800, 1290, expected.data(), 600, 600);
    EXPECT_EQ("", Diff(full, cut));
    EXPECT_EQ("", Diff(expected, cut));
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

TEST(CorrectImageCalcEx, OtherOutputSizeAndOverlap)
{
    CImageProc& proc = testutil::SharedProc();
    ref::Bytes src = testutil::RandomBytes(1800 * 1280, 67);
    {
        ref::Bytes expected(kOut, 1), actual(kOut, 2);
        ref::CorrectImageCalcEx(proc, src.data(), 1800, 1280, expected.data(), 320, 600);
        EXPECT_EQ(1, proc.CorrectImageCalcEx(src.data(), 1800, 1280, actual.data(), 320, 600, 0, 0));
        EXPECT_EQ("", Diff(expected, actual)) << "320 x 600";
    }
    {
        ref::Bytes expected(kOut);
        ref::CorrectImageCalcEx(proc, src.data(), 1800, 1280, expected.data(), 600, 600);
        ref::Bytes buf = src;
        EXPECT_EQ(1, proc.CorrectImageCalcEx(buf.data(), 1800, 1280, buf.data() + 1800 * 20, 600, 600, 0, 0));
        const ref::Bytes actual(buf.begin() + 1800 * 20, buf.begin() + 1800 * 20 + kOut);
        EXPECT_EQ("", Diff(expected, actual)) << "overlapping";
    }
}

} // namespace

namespace {

// Entries are used as stored: indexes of any shape (not only the usual
// 2 x 2 block), any weights, and entries moved out of range are skipped.
// The processor's tables are edited in a private object and both variants
// must still match the reference reading the same tables.
TEST(CorrectImageCalc, FollowsEditedTableEntries)
{
    std::unique_ptr<CImageProc> pProc(new CImageProc);
    std::mt19937 gen(77);
    struct Table {
        tagModifyEntry** pp;
        int nRows, nEntries;
        unsigned nLimit;
    };
    const Table tables[] = {{pProc->m_ppModifyTable, 660, 330, 1288u * 876u},
                            {pProc->m_ppModifyTableEx, 650, 325, 1700u * 1300u}};
    for (const Table& t : tables) {
        for (int n = 0; n < 4000; ++n) {
            tagModifyEntry& e = t.pp[20 + gen() % (t.nRows - 60)][gen() % t.nEntries];
            switch (n % 4) {
            case 0:  // neighbours anywhere in the image
                for (unsigned& nIndex : e.nSrcIndex)
                    nIndex = gen() % t.nLimit;
                break;
            case 1:  // other weights, even beyond 1 in sum
                for (float& fWeight : e.fWeight)
                    fWeight = static_cast<float>(gen() % 1000) / 700.0f;
                break;
            case 2:  // bottom-right neighbour below the source: the entry is skipped
                e.nSrcIndex[2] = t.nLimit + static_cast<unsigned>(gen() % 5000);
                break;
            default:  // a row out of range: the entry is skipped
                e.nSrcRow = -1 - static_cast<int>(gen() % 3);
                break;
            }
        }
    }
    ExpectBothVariantsMatch(*pProc, testutil::RandomBytes(1800 * 1280, 78));
}

} // namespace

namespace {

// An edited entry with any other neighbour outside the source is skipped as
// well, instead of being read from outside the image: the result is that of
// the same table with those entries out of range.
TEST(CorrectImageCalc, EntriesReachingOutsideAreSkipped)
{
    std::unique_ptr<CImageProc> pProc(new CImageProc);
    std::unique_ptr<CImageProc> pSkipped(new CImageProc);
    const unsigned anLimit[2] = {1288u * 876u, 1700u * 1300u};
    for (int t = 0; t < 2; ++t) {
        tagModifyEntry** pp = t == 0 ? pProc->m_ppModifyTable : pProc->m_ppModifyTableEx;
        tagModifyEntry** ppSkipped = t == 0 ? pSkipped->m_ppModifyTable : pSkipped->m_ppModifyTableEx;
        for (int r = 100; r < 500; r += 7) {
            for (int c = 0; c < 300; c += 5) {
                pp[r][c].nSrcIndex[(r + c) % 2 == 0 ? 0 : 3] = anLimit[t] + static_cast<unsigned>(r);
                ppSkipped[r][c].nSrcRow = -1;
            }
        }
    }
    const ref::Bytes src = testutil::RandomBytes(1800 * 1280, 79);
    ref::Bytes fromEdited(kOut, 1), fromSkipped(kOut, 1);
    pProc->CorrectImageCalc(const_cast<unsigned char*>(src.data()), 1288, 876, fromEdited.data(), 600, 600, 0, 0);
    pSkipped->CorrectImageCalc(const_cast<unsigned char*>(src.data()), 1288, 876, fromSkipped.data(), 600, 600, 0, 0);
    EXPECT_EQ("", Diff(fromSkipped, fromEdited)) << "standard table";
    // The edited entries lie inside the crop: thousands of pixels keep the 1.
    ref::Bytes plain(kOut, 1);
    testutil::SharedProc().CorrectImageCalc(const_cast<unsigned char*>(src.data()), 1288, 876, plain.data(), 600, 600,
                                            0, 0);
    long nChanged = 0;
    for (size_t i = 0; i < kOut; ++i)
        nChanged += plain[i] != fromSkipped[i] && fromSkipped[i] == 1 ? 1 : 0;
    EXPECT_GT(nChanged, 5000);
    pProc->CorrectImageCalcEx(const_cast<unsigned char*>(src.data()), 1800, 1280, fromEdited.data(), 600, 600, 0, 0);
    pSkipped->CorrectImageCalcEx(const_cast<unsigned char*>(src.data()), 1800, 1280, fromSkipped.data(), 600, 600, 0, 0);
    EXPECT_EQ("", Diff(fromSkipped, fromEdited)) << "Ex table";
    // The skipped-entry table itself follows the reference.
    ExpectBothVariantsMatch(*pSkipped, src);
}

} // namespace

namespace {

// Every entry with its first two neighbours (and their weights) swapped:
// the same terms, added in another order, in a shape that is not the usual
// block. Each pixel must still be the in-order sum of the stored entry.
TEST(CorrectImageCalc, SwappedNeighboursAreAddedInStoredOrder)
{
    std::unique_ptr<CImageProc> pProc(new CImageProc);
    for (int t = 0; t < 2; ++t) {
        tagModifyEntry** pp = t == 0 ? pProc->m_ppModifyTable : pProc->m_ppModifyTableEx;
        const int nSize = t == 0 ? 660 : 650;
        for (int r = 0; r < nSize; ++r) {
            for (int c = 0; c < nSize / 2; ++c) {
                tagModifyEntry& e = pp[r][c];
                std::swap(e.nSrcIndex[0], e.nSrcIndex[1]);
                std::swap(e.fWeight[0], e.fWeight[1]);
            }
        }
    }
    ExpectBothVariantsMatch(*pProc, testutil::RandomBytes(1800 * 1280, 81));
}

} // namespace

namespace {

// Targets moved across the centre column: a left pixel written where a
// later entry writes a right pixel, and the reverse. The left pass comes
// after the whole right pass, so the left value must win everywhere.
TEST(CorrectImageCalc, CrossingTargetsKeepThePassOrder)
{
    std::unique_ptr<CImageProc> pProc(new CImageProc);
    for (int t = 0; t < 2; ++t) {
        tagModifyEntry** pp = t == 0 ? pProc->m_ppModifyTable : pProc->m_ppModifyTableEx;
        for (int r = 200; r < 260; r += 3) {
            pp[r][40].nDstLeft = pp[r][45].nDstRight;   // later entry writes it as a right pixel
            pp[r][60].nDstRight = pp[r][20].nDstLeft;   // earlier entry wrote it as a left pixel
            pp[r + 1][0].nDstRight = pp[r + 1][7].nDstRight;  // centre entry's right moved away
        }
    }
    ExpectBothVariantsMatch(*pProc, testutil::RandomBytes(1800 * 1280, 82));
}

} // namespace
