// From mosaic to corrected image: the grey conversion, the mirror, the
// table lookup and the interpolating corrections against plain models on
// random and structured inputs (the vector paths must match them bit for
// bit), and the modify tables against their defining arithmetic.
#include "imageproc_reference.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>

namespace {

using ref::Bytes;
const size_t kOut = 360000;

int Grey(const unsigned char* p, int w, int x, int y)
{
    const int tl = p[y * w + x], tr = p[y * w + x + 1], bl = p[(y + 1) * w + x], br = p[(y + 1) * w + x + 1];
    return (x + y) % 2 == 0 ? (tl + br + (tr + bl) / 2) / 3 : (tr + bl + (tl + br) / 2) / 3;
}

// Rows top to bottom; the last column and the last row copied.
Bytes ModelGrey(const Bytes& src, int w, int h)
{
    Bytes dst(src.size(), 255);
    for (int y = 0; y < h - 1; ++y) {
        for (int x = 0; x < w - 1; ++x) dst[y * w + x] = static_cast<unsigned char>(Grey(src.data(), w, x, y));
        dst[y * w + w - 1] = src[y * w + w - 1];
    }
    std::copy(src.end() - w, src.end(), dst.end() - w);
    return dst;
}

void ModelMirror(unsigned char* p, long w, long h)
{
    for (long y = 0; y < h; ++y) std::reverse(p + y * w, p + y * w + w);
}

void ModelLookup(int nType, const unsigned char* pSrc, unsigned long w, unsigned char* pDst, unsigned long nOutW,
                 unsigned long nOutH)
{
    const bool b1103 = nType >= 5 && nType <= 8;
    const unsigned short* pX = b1103 ? usXtable1103 : usXtable;
    const unsigned short* pY = b1103 ? usYtable1103 : usYtable;
    const int nPos0 = b1103 ? 10 * 660 + 25 : 21 * 660 + 26;
    for (int y = 0; y < 600; ++y)
        for (int x = 0; x < 600; ++x) pDst[y * 600 + x] = pSrc[pY[nPos0 + y * 660 + x] * w + pX[nPos0 + y * 660 + x]];
    ModelMirror(pDst, nOutW, nOutH);
}

// Interpolation on the processor's own tables: scratch copy (padded for Ex)
// and its mirror, the right pass, the left pass, the crop, the mirror. An
// entry is used when it passes the range test and all its neighbours lie in
// the copy. The canvas starts at byFill.
void ModelCalc(const CImageProc& proc, bool bEx, const unsigned char* pSrc, unsigned long w, unsigned long h,
               unsigned char* pDst, unsigned long nOutW, unsigned long nOutH, unsigned char byFill)
{
    const long W = bEx ? 1700 : 1288, H = bEx ? 1300 : 876, nSide = bEx ? 650 : 660;
    Bytes copy(W * H, 0), mirror(W * H), canvas(nSide * nSide, byFill);
    if (bEx) {
        for (unsigned long i = 0; i < h && i + 10 < 1300; ++i) std::memcpy(&copy[(i + 10) * W], pSrc + i * w + 50, W);
    } else {
        std::memcpy(copy.data(), pSrc, W * H);
    }
    for (long r = 0; r < H; ++r) std::reverse_copy(&copy[r * W], &copy[r * W] + W, &mirror[r * W]);
    tagModifyEntry* const* pp = bEx ? proc.m_ppModifyTableEx : proc.m_ppModifyTable;
    for (const Bytes* pImg : {&copy, &mirror}) {
        for (long r = 0; r < nSide; ++r) {
            for (long c = 0; c < nSide / 2; ++c) {
                const tagModifyEntry& e = pp[r][c];
                if (e.nSrcRow < 0 || e.nSrcRow > H - 1 || e.nSrcCol < 0 || e.nSrcCol > (W - 1) / 2) continue;
                if (*std::max_element(e.nSrcIndex, e.nSrcIndex + 4) >= static_cast<unsigned long>(W * H)) continue;
                float f = 0.0f;
                for (int k = 0; k < 4; ++k) f = f + static_cast<float>((*pImg)[e.nSrcIndex[k]]) * e.fWeight[k];
                canvas[pImg == &copy ? e.nDstRight : e.nDstLeft] = static_cast<unsigned char>(static_cast<int>(f));
            }
        }
    }
    const long nCrop = bEx ? 10 * 650 + 26 : 30 * 660 + 30;
    for (long y = 0; y < 600; ++y) std::memcpy(pDst + y * 600, &canvas[nCrop + y * nSide], 600);
    ModelMirror(pDst, nOutW, nOutH);
}

// Random, uniform and saturated mosaics: the frame sizes in use and small
// sizes of every remainder. The two orders of visit give the same image on
// even sizes, the only ones in use.
TEST(Grey, MatchesTheModelOnAGridOfSizes)
{
    ASSERT_EQ(Bytes({35, 45, 55, 40, 50, 60, 70, 80}), ModelGrey({10, 20, 30, 40, 50, 60, 70, 80}, 4, 2));
    std::vector<std::pair<int, int>> sizes = {{1280, 676}, {1288, 876}, {1800, 1280}, {1214, 616}};
    for (int w = 1; w <= 70; ++w)
        for (int h : {1, 2, 3, 4, 5, 8}) sizes.push_back({w, h});
    unsigned nSeed = 1;
    for (const auto& s : sizes) {
        const int w = s.first, h = s.second;
        for (int nKind = 0; nKind < 3; ++nKind) {
            Bytes src = testutil::RandomBytes(static_cast<size_t>(w) * h, nSeed++);
            if (nKind > 0) std::fill(src.begin(), src.end(), nKind == 1 ? src[0] : 255);
            Bytes dst(src.size(), 0x5A), dst2(src.size(), 0xA5);
            testutil::SharedProc().RGBtoGRAY(src.data(), dst.data(), w, h);
            const Bytes want = ModelGrey(src, w, h);
            ASSERT_EQ("", testutil::FirstDifference(want.data(), dst.data(), want.size(), w)) << w << " x " << h;
            if (w % 2 == 0 && h % 2 == 0) {
                testutil::SharedProc().RGBtoGRAY2(src.data(), dst2.data(), w, h);
                ASSERT_EQ("", testutil::FirstDifference(want.data(), dst2.data(), want.size(), w)) << w << " x " << h;
            }
        }
    }
}

// Outputs that do not fit the source (the offsets count, a zero size wraps
// around) are refused and leave the destination as it was.
TEST(CorrectImage, RefusesOutputsThatDoNotFitTheSource)
{
    const unsigned long anCases[][7] = {{600, 676, 601, 600, 0, 0, 0},    {600, 676, 600, 600, 0, 0, 1},
                                        {1280, 676, 600, 600, 681, 0, 0}, {1280, 676, 600, 600, 680, 76, 1},
                                        {1280, 676, 600, 600, 0, 77, 0},  {1280, 676, 0, 600, 0, 0, 0}};
    for (const auto& c : anCases) {
        Bytes src(1280 * 676, 9), dst(kOut, 77);
        EXPECT_EQ(static_cast<int>(c[6]),
                  testutil::SharedProc().CorrectImage(src.data(), c[0], c[1], dst.data(), c[2], c[3], c[4], c[5]));
        EXPECT_EQ(c[6] == 0, dst == Bytes(kOut, 77));
    }
}

// Every device type, another output size (only its own window is
// mirrored) and a destination inside the source (read as it was).
TEST(CorrectImage, MatchesTheModel)
{
    CImageProc& proc = testutil::SharedProc();
    unsigned nSeed = 30;
    for (int nType : {0, 3, 4, 5, 6, 7, 8, 9}) {
        for (unsigned long nOut : {600ul, 599ul, 300ul}) {
            const unsigned long w = nType >= 5 && nType <= 8 ? 1288 : 1280, h = w == 1288 ? 876 : 676;
            const unsigned long nOutH = nOut == 600 ? 600 : nOut - 10;
            Bytes src = testutil::RandomBytes(w * h, nSeed++), want(kOut, 1), got(kOut, 2);
            ModelLookup(nType, src.data(), w, want.data(), nOut, nOutH);
            proc.m_nDeviceType = nType;
            EXPECT_EQ(1, proc.CorrectImage(src.data(), w, h, got.data(), nOut, nOutH, 0, 0));
            EXPECT_EQ("", testutil::FirstDifference(want.data(), got.data(), kOut, 600)) << nType << " " << nOut;
            if (nOut == 600 && nType == 3) {
                want = src;
                ModelLookup(nType, want.data(), w, want.data() + w * 100, 600, 600);
                EXPECT_EQ(1, proc.CorrectImage(src.data(), w, h, src.data() + w * 100, 600, 600, 0, 0));
                EXPECT_EQ(want, src);
            }
        }
    }
    proc.m_nDeviceType = 0;
}

// One variant against the model. A pixel the model computes is the same
// whatever its canvas held (fills 0 and 255) and must match; any other
// pixel keeps the destination's earlier content, moved by the mirror.
// Returns the number of pixels no entry computes.
long ExpectCalcMatches(CImageProc& proc, bool bEx, const Bytes& src, unsigned long w, unsigned long h,
                       unsigned long nOutW = 600, unsigned long nOutH = 600, unsigned char* pDst = nullptr)
{
    const Bytes before = pDst ? Bytes(pDst, pDst + kOut) : testutil::RandomBytes(kOut, 80);
    Bytes kept = before, fill0(kOut), fill255(kOut), got = before;
    ModelMirror(kept.data(), nOutW, nOutH);
    ModelCalc(proc, bEx, src.data(), w, h, fill0.data(), nOutW, nOutH, 0);
    ModelCalc(proc, bEx, src.data(), w, h, fill255.data(), nOutW, nOutH, 255);
    unsigned char* pSrc = const_cast<unsigned char*>(src.data());
    unsigned char* pOut = pDst ? pDst : got.data();
    EXPECT_EQ(1, bEx ? proc.CorrectImageCalcEx(pSrc, w, h, pOut, nOutW, nOutH, 0, 0)
                     : proc.CorrectImageCalc(pSrc, w, h, pOut, nOutW, nOutH, 0, 0));
    long nSkipped = 0;
    for (size_t i = 0; i < kOut; ++i) {
        const bool bComputed = fill0[i] == fill255[i];
        nSkipped += bComputed ? 0 : 1;
        if (pOut[i] != (bComputed ? fill0[i] : kept[i])) {
            ADD_FAILURE() << (bEx ? "Ex" : "standard") << " source " << w << " x " << h << " output " << nOutW << " x "
                          << nOutH << ": first difference at " << i << (bComputed ? " (computed)" : " (kept)");
            break;
        }
    }
    return nSkipped;
}

TEST(CorrectImageCalc, MatchesTheModelAndComputesEveryPixel)
{
    CImageProc& proc = testutil::SharedProc();
    const Bytes src = testutil::RandomBytes(1800 * 1300, 51);
    for (bool bEx : {false, true}) {
        EXPECT_EQ(0, ExpectCalcMatches(proc, bEx, src, bEx ? 1800 : 1288, bEx ? 1280 : 876));
        ExpectCalcMatches(proc, bEx, src, bEx ? 1800 : 1288, bEx ? 1280 : 876, 320, 500);
        // The destination inside the source: every read sees the source as it was.
        Bytes buf = src;
        ExpectCalcMatches(proc, bEx, src, bEx ? 1800 : 1288, bEx ? 1280 : 876, 600, 600, buf.data() + 1800 * 20);
    }
    // Padded sources: short ones leave zero rows, a row 1290 and below falls outside the padded
    // image, and a source only 1700 wide is read as if it went on with zeros.
    for (unsigned long h : {1280ul, 1000ul, 700ul, 1290ul, 1300ul})
        ExpectCalcMatches(proc, true, src, h == 700 ? 1760 : 1800, h);
    Bytes narrow = testutil::RandomBytes(1700 * 1280 + 100, 66);
    std::fill(narrow.end() - 100, narrow.end(), 0);
    Bytes want(kOut), got(kOut);
    ModelCalc(proc, true, narrow.data(), 1700, 1280, want.data(), 600, 600, 0);
    std::unique_ptr<unsigned char[]> pExact(new unsigned char[1700 * 1280]);
    std::copy(narrow.begin(), narrow.end() - 100, pExact.get());
    EXPECT_EQ(1, proc.CorrectImageCalcEx(pExact.get(), 1700, 1280, got.data(), 600, 600, 0, 0));
    EXPECT_EQ(want, got);
}

// The tables are public and used as they stand at each call. A private
// processor's tables, edited after it has corrected a frame, in scattered
// entries and again in others, read by the model too: neighbours anywhere,
// weights summing beyond 1 (the low 8 bits count), a neighbour outside the
// source or a row out of range (skipped), the four terms in another order,
// and targets across the centre column (the whole left pass comes after
// the right pass).
void EditEntries(CImageProc& proc, unsigned nSeed, int nRowPhase)
{
    std::mt19937 gen(nSeed);
    for (bool bEx : {false, true}) {
        const int nSide = bEx ? 650 : 660;
        const unsigned nLimit = bEx ? 1700u * 1300u : 1288u * 876u;
        for (int r = 0; r < nSide; ++r) {
            for (int c = 0; c < nSide / 2; ++c) {
                tagModifyEntry& e = (bEx ? proc.m_ppModifyTableEx : proc.m_ppModifyTable)[r][c];
                const int k = (r * 7 + c + nRowPhase) % 17;
                for (int n = 0; n < 4 && k < 2; ++n) {
                    if (k == 0)
                        e.nSrcIndex[n] = gen() % nLimit;
                    else
                        e.fWeight[n] = static_cast<float>(gen() % 1000) / 700.0f;
                }
                if (k == 2) e.nSrcIndex[gen() % 4] = nLimit + gen() % 5000;
                if (k == 3) e.nSrcRow = -1 - static_cast<int>(gen() % 3);
                if (k == 4) {
                    std::swap(e.nSrcIndex[0], e.nSrcIndex[1]);
                    std::swap(e.fWeight[0], e.fWeight[1]);
                }
                if (k == 5 || k == 6) (k == 5 ? e.nDstLeft : e.nDstRight) = e.nDstRight - c + (k == 5 ? 45 : -20);
            }
        }
    }
}

TEST(CorrectImageCalc, FollowsTheTablesAsTheyStandAtEachCall)
{
    std::unique_ptr<CImageProc> pProc(new CImageProc);
    pProc->m_nDeviceType = 8;
    const Bytes src = testutil::RandomBytes(1800 * 1280, 78);
    unsigned char* pSrc = const_cast<unsigned char*>(src.data());
    Bytes first(kOut), second(kOut);
    ASSERT_EQ(1, pProc->CorrectImageCalcEx(pSrc, 1800, 1280, first.data(), 600, 600, 0, 0));
    // One entry of the window made to take its top-left neighbour alone:
    // its two pixels change.
    float* const pfWeight = pProc->m_ppModifyTableEx[300][100].fWeight;
    std::fill(pfWeight, pfWeight + 4, 0.0f);
    pfWeight[0] = 1.0f;
    ASSERT_EQ(1, pProc->CorrectImageCalcEx(pSrc, 1800, 1280, second.data(), 600, 600, 0, 0));
    long nChanged = 0;
    for (size_t i = 0; i < kOut; ++i) nChanged += first[i] != second[i] ? 1 : 0;
    EXPECT_EQ(2, nChanged);
    for (unsigned nRound = 0; nRound < 2; ++nRound) {
        EditEntries(*pProc, 77 + nRound, static_cast<int>(nRound) * 8);
        for (bool bEx : {false, true})
            for (unsigned long nOut : {600ul, 500ul})
                ExpectCalcMatches(*pProc, bEx, src, bEx ? 1800 : 1288, bEx ? 1280 : 876, nOut, nOut - 100);
    }
}

struct Shape {
    int nSide;
    float k1, k0, m1, m0;
    unsigned nSrcWidth, nCentre;
    int nMaxRow, nMaxCol;
    // Telling figures: valid entries, last row with invalid tail entries, valid entries of row 0.
    long nValid;
    int nLastTailRow, nRow0Valid;
};

const Shape kShapes[2] = {
    {660, -5.3583e-05f, 0.81343f, 7.4524e-05f, 0.4946f, 1288, 644, 875, 643, 216540, 218, 319},
    {650, -1.1357385e-05f, 0.4958448f, 5.20432e-05f, 0.3598727f, 1700, 850, 1299, 849, 202778, 409, 306}};

// The entry as defined: a, b, x and y in double rounded to float, floor in
// double, fractions and weights in float; invalid entries keep zeros. How a
// and b are evaluated in at least double precision may move the last bit of
// x or y: a stored coordinate within a few units of it is taken as it is,
// and everything else must follow from it exactly.
tagModifyEntry ModelEntry(const Shape& s, int i, int j, const tagModifyEntry& stored)
{
    const float a = static_cast<float>(static_cast<double>(s.k1) * i + s.k0);
    const float b = static_cast<float>(static_cast<double>(s.m1) * i + s.m0);
    float x = static_cast<float>(i / static_cast<double>(a)), y = static_cast<float>(j / static_cast<double>(b));
    x = std::fabs(stored.fSrcRow - x) <= 4e-7f * x ? stored.fSrcRow : x;
    y = std::fabs(stored.fSrcCol - y) <= 4e-7f * y ? stored.fSrcCol : y;
    tagModifyEntry e = {};
    e.fSrcRow = x;
    e.fSrcCol = y;
    e.nSrcRow = static_cast<int>(std::floor(static_cast<double>(x)));
    e.nSrcCol = static_cast<int>(std::floor(static_cast<double>(y)));
    e.nDstRight = i * s.nSide + j + s.nSide / 2;
    e.nDstLeft = i * s.nSide - j + s.nSide / 2;
    if (e.nSrcRow < 0 || e.nSrcRow > s.nMaxRow || e.nSrcCol < 0 || e.nSrcCol > s.nMaxCol) return e;
    const float fr = x - e.nSrcRow, fc = y - e.nSrcCol;
    const unsigned n = e.nSrcRow * s.nSrcWidth + e.nSrcCol + s.nCentre;
    const unsigned anIndex[4] = {n, n + 1, n + s.nSrcWidth + 1, n + s.nSrcWidth};
    const float afWeight[4] = {(1 - fc) * (1 - fr), fc * (1 - fr), fc * fr, (1 - fc) * fr};
    std::copy(anIndex, anIndex + 4, e.nSrcIndex);
    std::copy(afWeight, afWeight + 4, e.fWeight);
    return e;
}

bool Valid(const Shape& s, const tagModifyEntry& e)
{
    return e.nSrcRow >= 0 && e.nSrcRow <= s.nMaxRow && e.nSrcCol >= 0 && e.nSrcCol <= s.nMaxCol;
}

// A fresh processor: its defaults, and its tables entry by entry with their
// telling figures. Then a rebuild over scrambled tables writes every field
// of the valid entries again and leaves the indexes and weights of the
// others as they are.
TEST(ModifyTable, FreshAndRebuiltTablesFollowTheirArithmetic)
{
    std::unique_ptr<CImageProc> pProc(new CImageProc);
    const CImageProc& p = *pProc;
    EXPECT_EQ(
        std::vector<int>({0, 0, 0, 100, 75}),
        std::vector<int>({p.m_bContrastTable, p.m_bRollStarted, p.m_nDeviceType, p.m_nFingerWinX, p.m_nFingerWinY}));
    EXPECT_EQ(IMG_PIXELS, std::count(p.m_pBackground, p.m_pBackground + IMG_PIXELS, 255));
    EXPECT_EQ(256, std::count(p.m_ucContrastTable, p.m_ucContrastTable + 256, 255));
    for (int nPass : {0, 1}) {
        for (const Shape& s : kShapes) {
            tagModifyEntry** pp = s.nSide == 660 ? p.m_ppModifyTable : p.m_ppModifyTableEx;
            for (int r = 0; r < s.nSide && nPass == 1; ++r)
                std::memset(static_cast<void*>(pp[r]), 0xA5, sizeof(tagModifyEntry) * (s.nSide / 2));
            if (nPass == 1) (s.nSide == 660) ? pProc->InitModifyTable() : pProc->InitModifyTableEx();
            long nValid = 0;
            int nLastTailRow = -1, nRow0Valid = 0, nMaxRow = 0, nMaxRowAt = -1, nRowsAtLimit = 0;
            unsigned nMaxThird = 0;
            for (int r = 0; r < s.nSide; ++r) {
                for (int c = 0; c < s.nSide / 2; ++c) {
                    tagModifyEntry want = ModelEntry(s, r, c, pp[r][c]);
                    const bool bValid = Valid(s, want);
                    if (nPass == 1 && !bValid) {
                        std::memset(want.nSrcIndex, 0xA5, sizeof want.nSrcIndex);
                        std::memset(want.fWeight, 0xA5, sizeof want.fWeight);
                    }
                    ASSERT_EQ(0, std::memcmp(&want, &pp[r][c], sizeof want))
                        << s.nSide << " row " << r << " entry " << c;
                    ASSERT_FALSE(bValid && c > 0 && !Valid(s, pp[r][c - 1])) << "valid entries form a prefix of a row";
                    nValid += bValid;
                    nRow0Valid += r == 0 && bValid;
                    if (bValid && want.nSrcRow == s.nMaxRow) nMaxThird = std::max(nMaxThird, want.nSrcIndex[2]);
                }
                if (pp[r][0].nSrcRow <= s.nMaxRow && pp[r][s.nSide / 2 - 1].nSrcCol > s.nMaxCol) nLastTailRow = r;
                if (pp[r][0].nSrcRow > nMaxRow) nMaxRow = pp[r][0].nSrcRow, nMaxRowAt = r;
                nRowsAtLimit += pp[r][0].nSrcRow == s.nMaxRow;
            }
            EXPECT_EQ(s.nValid, nValid);
            EXPECT_EQ(s.nLastTailRow, nLastTailRow);
            EXPECT_EQ(s.nRow0Valid, nRow0Valid);
            if (s.nSide == 660) {
                EXPECT_EQ(846, nMaxRow);  // row 659: every row has valid entries
                EXPECT_EQ(659, nMaxRowAt);
            } else {
                EXPECT_EQ(1, nRowsAtLimit);      // row 635 only; rows 636..649 lie below the source
                EXPECT_EQ(2211675u, nMaxThird);  // its lower neighbours fall below 1700 x 1300
            }
        }
    }
}

}  // namespace
