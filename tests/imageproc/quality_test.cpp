// Frame quality tests: gradient-span quality with its finger window, the
// sparse gradient count, and the grey-level standard deviation.
#include "tavk05/isproc.h"

#include <gtest/gtest.h>

#include <cmath>
#include <algorithm>
#include <cstdlib>
#include <vector>

namespace {

CImageProc& Proc()
{
    static CImageProc proc;
    return proc;
}

struct Image {
    int w, h;
    std::vector<unsigned char> px;
    Image(int width, int height, unsigned char value = 0) : w(width), h(height), px(width * height, value) {}
    unsigned char& at(int y, int x) { return px[y * w + x]; }
    unsigned char* data() { return px.data(); }
};

// Texture of period 4 in both directions: every pixel differs by 255 from the pixels two
// columns and two rows away, so each inner pixel adds 255 to both gradient profiles.
unsigned char Texture(int y, int x) { return ((x / 2 + y / 2) % 2) ? 255 : 0; }

void Texture(Image& img, int y0, int y1, int x0, int x1)
{
    for (int y = y0; y <= y1; ++y)
        for (int x = x0; x <= x1; ++x)
            img.at(y, x) = Texture(y, x);
}

int Quality2(Image& img) { return Proc().CheckImageQuality2(img.w, img.h, img.data()); }

void ExpectWindow(int x, int y)
{
    EXPECT_EQ(x, Proc().m_nFingerWinX);
    EXPECT_EQ(y, Proc().m_nFingerWinY);
}

TEST(Quality2, UniformImageScoresZeroAndCentresTheWindow)
{
    Proc().m_nFingerWinX = 7;
    Proc().m_nFingerWinY = 9;
    Image img(600, 600, 128);
    EXPECT_EQ(0, Quality2(img));
    ExpectWindow(100, 75);

    Image small(300, 200, 40);
    Proc().m_nFingerWinX = 7;
    EXPECT_EQ(0, Quality2(small));
    ExpectWindow(100, 75);
}

TEST(Quality2, TextureEverywhereScoresFull)
{
    Image img(600, 600);
    Texture(img, 0, 599, 0, 599);
    EXPECT_EQ(100, Quality2(img)); // spans 1..600 both ways: 599 x 599 / 1500 = 239, capped
    ExpectWindow(100, 75);         // centre 1 + 599 / 2 = 300 both ways
}

TEST(Quality2, SpanEndingAtTheRightBorderUsesTheWidth)
{
    // Texture from column 400 on: the smoothed column profile exceeds 8 from column 395
    // (one textured column in the 11-column window gives 152490 / 11 / 600 = 23) and never
    // falls back, so the span is 395..600 across and 1..600 down.
    Image img(600, 600);
    Texture(img, 0, 599, 400, 599);
    EXPECT_EQ(205 * 599 / 1500, Quality2(img));
    ExpectWindow(200, 75); // centre 395 + 102 = 497 is pulled in to 400
}

TEST(Quality2, SpanEndingInsideTheImage)
{
    // Texture over columns 0..99: the span starts at the first inner column and ends at
    // column 105, the first whose window holds no textured column.
    Image img(600, 600);
    Texture(img, 0, 599, 0, 99);
    EXPECT_EQ(104 * 599 / 1500, Quality2(img));
    ExpectWindow(0, 75); // centre 1 + 52 = 53 is pulled in to 200
}

TEST(Quality2, WindowIsKeptInsideVertically)
{
    Image top(600, 600);
    Texture(top, 0, 99, 0, 599); // rows 1..105
    EXPECT_EQ(599 * 104 / 1500, Quality2(top));
    ExpectWindow(100, 0);

    Image bottom(600, 600);
    Texture(bottom, 500, 599, 0, 599); // rows 495..600, centre 547 pulled in to 375
    EXPECT_EQ(599 * 105 / 1500, Quality2(bottom));
    ExpectWindow(100, 150);
}

TEST(Quality2, PatchSpansFollowTheSmoothedProfile)
{
    // A 100 x 100 patch: each textured row gathers 98 x 255 inside the patch plus 2 x 255 at
    // its sides, 25500, which scales to 11 when 3 or more of the 11 smoothed rows are
    // textured and to 7 when 2 are. Rows 247..353 and columns 247..353: 106 x 106 / 1500.
    Image middle(600, 600);
    Texture(middle, 250, 349, 250, 349);
    EXPECT_EQ(106 * 106 / 1500, Quality2(middle));
    ExpectWindow(100, 75);

    // Columns 147..253 (centre 200 stays), rows 347..453 (centre 400 is pulled in to 375).
    Image offset(600, 600);
    Texture(offset, 350, 449, 150, 249);
    EXPECT_EQ(106 * 106 / 1500, Quality2(offset));
    ExpectWindow(0, 150);

    // One column further left: centre 199 is pulled in to 200 as well.
    Image left(600, 600);
    Texture(left, 350, 449, 149, 248);
    Quality2(left);
    ExpectWindow(0, 150);
}

TEST(Quality2, CentreClampBoundaries)
{
    // Rows 157..599 textured: the span starts at 152 and ends at 600, centre 376, which is
    // 224 from the bottom: pulled in to 375.
    Image low(600, 600);
    Texture(low, 157, 599, 0, 599);
    Quality2(low);
    ExpectWindow(100, 150);
    // Rows 0..441: span 1..447, centre 224: pulled in to 225.
    Image high(600, 600);
    Texture(high, 0, 441, 0, 599);
    Quality2(high);
    ExpectWindow(100, 0);
    // Columns 207..599: span 202..600, centre 401, 199 from the right: pulled in to 400.
    Image right(600, 600);
    Texture(right, 0, 599, 207, 599);
    Quality2(right);
    ExpectWindow(200, 75);
}

TEST(Quality2, SpansStartAbove8AndEndAt7)
{
    // Texture of amplitude 9: every inner profile entry is 598 x 9 / 600 = 8, which neither
    // starts a span nor ends one.
    Image faint(600, 600);
    for (int y = 0; y < 600; ++y)
        for (int x = 0; x < 600; ++x)
            faint.at(y, x) = Texture(y, x) ? 9 : 0;
    EXPECT_EQ(0, Quality2(faint));
    ExpectWindow(100, 75);

    // Strong rows of texture in columns 100..199 start a column span at 95; the faint
    // columns 200..499 (entries of 8) carry it on until the smoothed entry drops to 7 at 496.
    Image mixed(600, 600);
    for (int y = 0; y < 600; ++y)
        for (int x = 100; x < 500; ++x)
            mixed.at(y, x) = ((y / 2) % 2) ? (x < 200 ? 255 : 9) : 0;
    Quality2(mixed);
    ExpectWindow(95 + 401 / 2 - 200, 75);
}

TEST(Quality2, ProfileNearTheSidesAveragesFewerEntries)
{
    // Only column 1 textured, amplitude 64: 598 x 64 = 38272. At column 1 the window holds
    // columns 0..6, 38272 / 7 / 600 = 9, which starts a span; column 2 averages 8 entries,
    // 7, which ends it. Centre 1 is pulled in to 200.
    Image img(600, 600);
    for (int y = 0; y < 600; ++y)
        img.at(y, 1) = ((y / 2) % 2) ? 64 : 0;
    EXPECT_EQ(0, Quality2(img));
    ExpectWindow(0, 75);
}

TEST(Quality2, ProfilesAreScaledBy600WhateverTheSize)
{
    // 100 x 20: each inner column gathers 18 x 255 = 4590, which scales to 7: no column span.
    Image narrow(100, 20);
    Texture(narrow, 0, 19, 0, 99);
    EXPECT_EQ(0, Quality2(narrow));
    ExpectWindow(100, 0); // column centre 0 + 1 / 2 = 0 -> 300; rows 1..20 -> 10 -> 225

    // 100 x 30: 28 x 255 / 600 = 11, so the columns span 1..100 and the rows 1..30.
    Image wider(100, 30);
    Texture(wider, 0, 29, 0, 99);
    EXPECT_EQ(99 * 29 / 1500, Quality2(wider));
}

TEST(Quality2, RefusesImagesOutsideItsRange)
{
    Proc().m_nFingerWinX = 13;
    Proc().m_nFingerWinY = 17;
    Image big(601, 600);
    Texture(big, 0, 599, 0, 600);
    EXPECT_EQ(0, Quality2(big));
    Image tall(600, 601);
    Texture(tall, 0, 600, 0, 599);
    EXPECT_EQ(0, Quality2(tall));
    EXPECT_EQ(0, Proc().CheckImageQuality2(600, 600, nullptr));
    EXPECT_EQ(0, Proc().CheckImageQuality2(-1, 600, big.data()));
    ExpectWindow(13, 17);

    // Below three pixels a side no pixel has both neighbours: the window is
    // that of a uniform image (the pixel model covers these sizes too).
    Image tiny(2, 600);
    Texture(tiny, 0, 599, 0, 1);
    EXPECT_EQ(0, Quality2(tiny));
    ExpectWindow(100, 75);
}

// Plain model of the gradient-span quality, pixel by pixel.
struct SpanModel {
    int quality, winX, winY;
};

SpanModel Spans(Image& img)
{
    const int w = img.w, h = img.h;
    std::vector<long long> rw(h, 0), cl(w, 0);
    for (int y = 1; y <= h - 2; ++y)
        for (int x = 1; x <= w - 2; ++x) {
            rw[y] += std::abs(img.at(y, x - 1) - img.at(y, x + 1));
            cl[x] += std::abs(img.at(y - 1, x) - img.at(y + 1, x));
        }
    auto smooth = [](std::vector<long long>& v) {
        const int n = (int)v.size();
        std::vector<long long> out(n);
        for (int k = 0; k < n; ++k) {
            long long sum = 0, count = 0;
            for (int i = k - 5; i <= k + 5; ++i)
                if (i >= 0 && i < n) {
                    sum += v[i];
                    ++count;
                }
            out[k] = sum / count / 600;
        }
        v = out;
    };
    smooth(rw);
    smooth(cl);
    auto span = [](const std::vector<long long>& v, int& from, int& to) {
        const int n = (int)v.size();
        from = 0;
        for (int i = 1; i <= n - 2 && !from; ++i)
            if (v[i] > 8)
                from = i;
        to = n;
        for (int i = from + 1; i <= n - 1; ++i)
            if (v[i] <= 7) {
                to = i;
                break;
            }
    };
    int t, b, l, r;
    span(rw, t, b);
    span(cl, l, r);
    int cx = l + (r - l) / 2, cy = t + (b - t) / 2;
    cx = cx == 0 ? 300 : (cx <= 199 ? 200 : (600 - cx <= 199 ? 400 : cx));
    cy = cy == 0 ? 300 : (cy <= 224 ? 225 : (600 - cy <= 224 ? 375 : cy));
    return {std::min(100, (r - l) * (b - t) / 1500), cx - 200, cy - 225};
}

TEST(Quality2, MatchesThePixelModelOnPatchworkImages)
{
    // Textured patches of random size, place and amplitude on a random flat level, so that
    // profile values fall on both sides of the span thresholds; every width class of the
    // sixteen-pixel loop and the longest columns.
    std::srand(41);
    int scored = 0;
    const int sizes[][2] = {{1, 1}, {2, 600}, {600, 2}, {3, 3}, {16, 9}, {17, 40}, {18, 18}, {33, 600}, {120, 77},
                            {599, 600}, {600, 600}, {600, 431}, {257, 300}};
    for (const auto& size : sizes) {
        for (int trial = 0; trial < 6; ++trial) {
            Image img(size[0], size[1], (unsigned char)(std::rand() % 256));
            const int patches = 1 + std::rand() % 4;
            for (int k = 0; k < patches; ++k) {
                const int x0 = std::rand() % img.w, y0 = std::rand() % img.h;
                const int x1 = std::min(img.w - 1, x0 + std::rand() % img.w);
                const int y1 = std::min(img.h - 1, y0 + std::rand() % img.h);
                const int amp = trial == 5 ? 255 : 1 + std::rand() % 40;
                for (int y = y0; y <= y1; ++y)
                    for (int x = x0; x <= x1; ++x)
                        img.at(y, x) = (unsigned char)(Texture(y, x) ? amp + std::rand() % 3 : std::rand() % 3);
            }
            const SpanModel m = Spans(img);
            Proc().m_nFingerWinX = Proc().m_nFingerWinY = -1;
            ASSERT_EQ(m.quality, Quality2(img)) << img.w << "x" << img.h << " " << trial;
            ASSERT_EQ(m.winX, Proc().m_nFingerWinX) << img.w << "x" << img.h << " " << trial;
            ASSERT_EQ(m.winY, Proc().m_nFingerWinY) << img.w << "x" << img.h << " " << trial;
            scored += m.quality > 0 && m.quality < 100;
        }
    }
    EXPECT_GT(scored, 5);
}

TEST(Quality2, ColumnSumsBeyond16Bits)
{
    // Texture of amplitude 220 over rows 0..298 of columns 300..499: each column gathers
    // about 298 x 220 = 65560, just past 16 bits (65560 mod 65536 would scale to 0, not 109,
    // and the column span with its centre near 400 would be lost).
    Image img(600, 600, 0);
    for (int y = 0; y <= 298; ++y)
        for (int x = 300; x < 500; ++x)
            img.at(y, x) = Texture(y, x) ? 220 : 0;
    const SpanModel m = Spans(img);
    EXPECT_EQ(m.quality, Quality2(img));
    EXPECT_EQ(m.winX, Proc().m_nFingerWinX);
    EXPECT_EQ(m.winY, Proc().m_nFingerWinY);
    EXPECT_EQ(200, m.winX);
    EXPECT_GT(m.quality, 0);
}

TEST(Quality, SparseGridCounts)
{
    // 56 x 40, step 2. Rows alternating in pairs: every vertical sample differs:
    // 28 columns x 19 rows = 532 -> 5. Horizontal samples see no change.
    Image rows(56, 40);
    for (int y = 0; y < 40; ++y)
        for (int x = 0; x < 56; ++x)
            rows.at(y, x) = ((y / 2) % 2) ? 200 : 100;
    EXPECT_EQ(5, Proc().CheckImageQuality(56, 40, rows.data()));

    // Columns alternating in pairs: 27 columns x 5 rows (0, 8, .., 32) = 135 -> 1.
    Image cols(56, 40);
    for (int y = 0; y < 40; ++y)
        for (int x = 0; x < 56; ++x)
            cols.at(y, x) = ((x / 2) % 2) ? 200 : 100;
    EXPECT_EQ(1, Proc().CheckImageQuality(56, 40, cols.data()));

    // Both: 532 + 135 = 667 -> 6.
    Image both(56, 40);
    Texture(both, 0, 39, 0, 55);
    EXPECT_EQ(6, Proc().CheckImageQuality(56, 40, both.data()));
}

TEST(Quality, ThresholdIsAStepAbove7)
{
    Image img(56, 40);
    for (int step : {7, 8}) {
        for (int y = 0; y < 40; ++y)
            for (int x = 0; x < 56; ++x)
                img.at(y, x) = (unsigned char)(100 + (((y / 2) % 2) ? step : 0));
        EXPECT_EQ(step == 7 ? 0 : 5, Proc().CheckImageQuality(56, 40, img.data())) << step;
    }
}

TEST(Quality, NarrowImagesUseEveryColumnAndLargeCountsAreCapped)
{
    // Width 20 would give a step of 0; every column is sampled: 20 x 10 rows = 200 -> 2.
    Image narrow(20, 22);
    for (int y = 0; y < 22; ++y)
        for (int x = 0; x < 20; ++x)
            narrow.at(y, x) = ((y / 2) % 2) ? 255 : 0;
    EXPECT_EQ(2, Proc().CheckImageQuality(20, 22, narrow.data()));

    Image full(600, 600);
    Texture(full, 0, 599, 0, 599); // 29 x 299 + 299 x 75 = 31096 -> 310, capped
    EXPECT_EQ(100, Proc().CheckImageQuality(600, 600, full.data()));

    Image few(600, 600, 9);
    few.at(300, 300) = 200; // a handful of strong pairs
    EXPECT_EQ(0, Proc().CheckImageQuality(600, 600, few.data()));
    EXPECT_EQ(0, Proc().CheckImageQuality(600, 600, nullptr));
    EXPECT_EQ(0, Proc().CheckImageQuality(0, 600, few.data()));
}

TEST(StdDeviation, DividesByTheSizeLessTwo)
{
    // 10 x 10 of 100: the 6 x 6 summed pixels give 3600 / 64 = 56; then
    // 36 x 44^2 / 64 = 1089, whose root is 33.
    Image img(10, 10, 100);
    int mean = -1;
    EXPECT_EQ(33, Proc().GetStdDeviation(10, 10, img.data(), &mean));
    EXPECT_EQ(56, mean);

    // The two outer rows and columns are not summed.
    for (int i = 0; i < 10; ++i) {
        img.at(0, i) = img.at(1, i) = img.at(8, i) = img.at(9, i) = (unsigned char)(i * 25);
        img.at(i, 0) = img.at(i, 1) = img.at(i, 8) = img.at(i, 9) = (unsigned char)(255 - i);
    }
    mean = -1;
    EXPECT_EQ(33, Proc().GetStdDeviation(10, 10, img.data(), &mean));
    EXPECT_EQ(56, mean);
}

TEST(StdDeviation, LargeHighContrastImageDoesNotOverflow)
{
    // Inner 1996 x 1996 pixels, half 0 and half 255 by columns; divisor 1998^2.
    const int n = 2000;
    Image img(n, n);
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x)
            img.at(y, x) = (x % 2) ? 255 : 0;
    const long long inner = 1996LL * 1996;
    const long long div = 1998LL * 1998;
    const long long m = (inner / 2) * 255 / div;
    const long long squares = (inner / 2) * m * m + (inner / 2) * (255 - m) * (255 - m);
    ASSERT_GT(squares, 2147483647LL);
    int mean = -1;
    EXPECT_EQ((int)std::sqrt((double)squares / (double)div), Proc().GetStdDeviation(n, n, img.data(), &mean));
    EXPECT_EQ(m, mean);
}

TEST(StdDeviation, SizesWithoutPixelsGiveZero)
{
    Image img(5, 5, 200);
    int mean = -1;
    // One summed pixel (2, 2), divisor 9: mean 22, squares 178^2 / 9 -> 59.
    EXPECT_EQ(59, Proc().GetStdDeviation(5, 5, img.data(), &mean));
    EXPECT_EQ(22, mean);
    mean = -1;
    EXPECT_EQ(0, Proc().GetStdDeviation(4, 5, img.data(), &mean));
    EXPECT_EQ(0, mean);
    mean = -1;
    EXPECT_EQ(0, Proc().GetStdDeviation(5, 4, img.data(), &mean));
    EXPECT_EQ(0, mean);
    mean = -1;
    EXPECT_EQ(0, Proc().GetStdDeviation(5, 5, nullptr, &mean));
    EXPECT_EQ(0, mean);
}

} // namespace
