// Enhancement tests: histogram stretching and the background cleaning of
// finished images, the latter against a summed-area-table reference.
#include "tavk05/isproc.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <vector>

namespace {

CImageProc& Proc()
{
    static CImageProc proc;
    return proc;
}

typedef std::vector<unsigned char> Image;

TEST(Histoequal, BlackImageBecomesWhite)
{
    for (int w : {1, 7, 600}) {
        Image img(w * 13, 0);
        Proc().Histoequal(img.data(), w, 13);
        for (unsigned char v : img)
            ASSERT_EQ(255, v) << w;
    }
}

TEST(Histoequal, BrightLevelsAlwaysWhiteDarkLevelsStretched)
{
    // 1000 pixels: 10 at 0, 10 at 244, 980 at 245..255.
    Image img(1000);
    for (int i = 0; i < 1000; ++i)
        img[i] = (unsigned char)(245 + i % 11);
    for (int i = 0; i < 10; ++i) {
        img[i * 7] = 0;
        img[i * 7 + 1] = 244;
    }
    Image before = img;
    Proc().Histoequal(img.data(), 40, 25);
    for (int i = 0; i < 1000; ++i) {
        if (before[i] == 0)
            EXPECT_EQ(12, img[i]); // 10 x 1.28
        else if (before[i] == 244)
            EXPECT_EQ(25, img[i]); // 20 x 1.28 = 25.6
        else
            EXPECT_EQ(255, img[i]);
    }
}

TEST(Histoequal, AFifthOfThePixelsReachesWhite)
{
    // 600 x 600: 36000 pixels at 30 and 36000 at 50 (a fifth), the rest at 200.
    Image img(360000, 200);
    for (int i = 0; i < 36000; ++i) {
        img[i * 5] = 30;
        img[i * 5 + 1] = 50;
    }
    Proc().Histoequal(img.data(), 600, 600);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(128, img[i * 5]);
        EXPECT_EQ(255, img[i * 5 + 1]);
        EXPECT_EQ(255, img[i * 5 + 2]);
    }
    // The exact boundary: 255 x 360000 / 1280 = 71718.75 pixels.
    for (int count : {71718, 71719}) {
        Image edge(360000, 200);
        for (int i = 0; i < count; ++i)
            edge[i] = 60;
        Proc().Histoequal(edge.data(), 600, 600);
        EXPECT_EQ(count == 71718 ? 254 : 255, edge[0]) << count;
    }
}

TEST(Histoequal, ScaleIsDividedBeforeTheProduct)
{
    // 5 x 98 = 490 pixels, 49 of them black: 49 x (1280.0 / 490) is just below 128 in
    // double precision and truncates to 127 (49 x 1280 / 490 would be exactly 128).
    Image img(490, 100);
    for (int i = 0; i < 49; ++i)
        img[i * 10] = 0;
    Proc().Histoequal(img.data(), 5, 98);
    EXPECT_EQ(127, img[0]);
    EXPECT_EQ(255, img[1]);
}

TEST(Histoequal, RandomImagesMatchPerPixelCumulativeCounts)
{
    std::srand(11);
    for (int trial = 0; trial < 4; ++trial) {
        const int w = 37 + trial * 50, h = 23 + trial * 31;
        Image img(w * h);
        for (auto& v : img)
            v = (unsigned char)(std::rand() % (trial == 0 ? 256 : 60 + trial * 40));
        Image before = img;
        Proc().Histoequal(img.data(), w, h);
        const int n = w * h;
        for (int i = 0; i < n; i += 7) {
            int cdf = 0;
            for (int j = 0; j < n; ++j)
                cdf += before[j] <= before[i];
            int expect = before[i] >= 245 ? 255 : (int)(cdf * (1280.0 / n));
            expect = expect > 255 ? 255 : expect;
            ASSERT_EQ(expect, img[i]) << trial << " " << i;
        }
    }
}

// Straightforward model of the background cleaning: clipped 17 x 17 means from summed-area
// tables.
struct CleanModel {
    std::vector<int> mean, dev;
    int meanA = 0;
    bool flat = false;
    Image out;
};

std::vector<int> BoxMeans(const std::vector<int>& v)
{
    std::vector<long long> sat(601 * 601, 0);
    for (int r = 0; r < 600; ++r)
        for (int c = 0; c < 600; ++c)
            sat[(r + 1) * 601 + c + 1] = v[r * 600 + c] + sat[r * 601 + c + 1] + sat[(r + 1) * 601 + c] - sat[r * 601 + c];
    std::vector<int> out(360000);
    for (int r = 0; r < 600; ++r)
        for (int c = 0; c < 600; ++c) {
            const int r0 = std::max(0, r - 8), r1 = std::min(599, r + 8);
            const int c0 = std::max(0, c - 8), c1 = std::min(599, c + 8);
            const long long s = sat[(r1 + 1) * 601 + c1 + 1] - sat[r0 * 601 + c1 + 1] - sat[(r1 + 1) * 601 + c0] + sat[r0 * 601 + c0];
            out[r * 600 + c] = (int)(s / ((r1 - r0 + 1) * (c1 - c0 + 1)));
        }
    return out;
}

CleanModel Clean(const Image& in)
{
    CleanModel m;
    long long sum = 0;
    for (unsigned char p : in)
        sum += p;
    const int mean = (int)(sum / 360000);
    long long dev = 0;
    for (unsigned char p : in)
        dev += std::abs(p - mean);
    const int mad = (int)(dev / 360000);
    m.out = in;
    if (mad == 0) {
        m.flat = true;
        return m;
    }
    std::vector<int> a(360000);
    long long sumA = 0;
    for (int i = 0; i < 360000; ++i) {
        const int p = in[i];
        int v = p > mean ? 150 + (75 * (p - mean)) / mad : 150 - (75 * (mean - p)) / mad;
        v = std::max(0, std::min(255, v));
        a[i] = v;
        sumA += v;
    }
    m.meanA = (int)(sumA / 360000);
    m.mean = BoxMeans(a);
    std::vector<int> diff(360000);
    for (int i = 0; i < 360000; ++i)
        diff[i] = std::abs(a[i] - m.mean[i]);
    m.dev = BoxMeans(diff);
    for (int i = 0; i < 360000; ++i)
        if (m.mean[i] > m.meanA && m.dev[i] < 20)
            m.out[i] = 255;
    return m;
}

// Ridges over the middle, a bright background whose noise grows from left to right.
Image FingerLike(unsigned seed)
{
    std::srand(seed);
    Image img(360000);
    for (int r = 0; r < 600; ++r)
        for (int c = 0; c < 600; ++c) {
            const double dx = (c - 300) / 180.0, dy = (r - 300) / 240.0;
            int v;
            if (dx * dx + dy * dy < 1.0)
                v = 110 + (int)(90 * std::sin((r + 0.3 * c) / 3.0)) + std::rand() % 9;
            else
                v = 215 + ((r + c) % 2 ? 1 : -1) * (c / 25) + std::rand() % 3;
            img[r * 600 + c] = (unsigned char)std::max(0, std::min(254, v));
        }
    return img;
}

TEST(Final, FlatImagesAreLeftAlone)
{
    Image flat(360000, 180);
    Proc().Final(flat.data());
    for (unsigned char v : flat)
        ASSERT_EQ(180, v);
    // One outlier: mean 100, mean absolute deviation 155 / 360000 = 0.
    Image almost(360000, 100);
    almost[12345] = 255;
    Image before = almost;
    Proc().Final(almost.data());
    EXPECT_EQ(before, almost);
}

TEST(Final, MatchesTheModelOnFingerLikeAndRandomImages)
{
    for (unsigned seed : {1u, 2u}) {
        Image img = FingerLike(seed);
        const CleanModel m = Clean(img);
        ASSERT_FALSE(m.flat);
        Proc().Final(img.data());
        int whitened = 0, kept = 0;
        for (int i = 0; i < 360000; ++i) {
            ASSERT_EQ(m.out[i], img[i]) << "pixel " << i;
            whitened += m.out[i] == 255;
            kept += m.out[i] != 255;
        }
        EXPECT_GT(whitened, 50000);
        EXPECT_GT(kept, 50000);
    }
    std::srand(5);
    Image noise(360000);
    for (auto& v : noise)
        v = (unsigned char)(std::rand() % 256);
    // Smooth bright patches among the noise so that some pixels are whitened.
    for (int r = 100; r < 200; ++r)
        for (int c = 350; c < 500; ++c)
            noise[r * 600 + c] = 230;
    const CleanModel m = Clean(noise);
    Proc().Final(noise.data());
    EXPECT_EQ(m.out, noise);
}

TEST(Final, DeviationBoundaryIsStrictlyBelow20)
{
    Image img = FingerLike(3);
    const CleanModel m = Clean(img);
    Image out = img;
    Proc().Final(out.data());
    int at19 = 0, at20 = 0;
    for (int i = 0; i < 360000; ++i) {
        if (m.mean[i] <= m.meanA)
            continue;
        if (m.dev[i] == 19) {
            ++at19;
            EXPECT_EQ(255, out[i]) << i;
        } else if (m.dev[i] == 20) {
            ++at20;
            EXPECT_EQ(img[i], out[i]) << i;
            EXPECT_NE(255, out[i]) << i;
        }
    }
    EXPECT_GT(at19, 0);
    EXPECT_GT(at20, 0);
}

TEST(Final, CornerSquareHolds81Pixels)
{
    // Vertical ridges (0 / 200 by column) everywhere but a flat 17 x 17 patch of 180 in the
    // top-left corner. Pixel (0, 0) averages only the 9 x 9 pixels of the patch, so its local
    // mean is the patch's normalised level, far above the image mean, and its local deviation
    // is 0: it becomes white. Averaging over 289 would have left it dark.
    Image img(360000);
    for (int r = 0; r < 600; ++r)
        for (int c = 0; c < 600; ++c)
            img[r * 600 + c] = (r < 17 && c < 17) ? 180 : (c % 2 ? 200 : 0);
    const CleanModel m = Clean(img);
    Proc().Final(img.data());
    EXPECT_EQ(255, img[0]);
    EXPECT_EQ(m.out, img);
    EXPECT_EQ(0, img[300 * 600 + 300]); // ridges are kept
    EXPECT_EQ(200, img[300 * 600 + 301]);
}

TEST(Final, LocalMeanEqualToTheImageMeanIsKept)
{
    // Flat 100 over the left quarter, columns alternating 60 / 140 elsewhere: mean 100,
    // mean absolute deviation 30, normalised levels 150 (flat) and 250 / 50 (ridges), so
    // the normalised mean is exactly 150, equal to the flat area's local mean: kept.
    Image img(360000);
    for (int r = 0; r < 600; ++r)
        for (int c = 0; c < 600; ++c)
            img[r * 600 + c] = c < 150 ? 100 : (c % 2 ? 140 : 60);
    const CleanModel m = Clean(img);
    ASSERT_EQ(150, m.meanA);
    ASSERT_EQ(150, m.mean[300 * 600 + 50]);
    Proc().Final(img.data());
    EXPECT_EQ(m.out, img);
    EXPECT_EQ(100, img[300 * 600 + 50]);
}

TEST(Final, DarkFlatAreasAreKept)
{
    // Flat areas below the mean are left as they are however flat: left half 40, right half
    // ridges.
    Image img(360000);
    for (int r = 0; r < 600; ++r)
        for (int c = 0; c < 600; ++c)
            img[r * 600 + c] = c < 300 ? 40 : (c % 2 ? 250 : 60);
    const CleanModel m = Clean(img);
    Proc().Final(img.data());
    EXPECT_EQ(m.out, img);
    for (int r = 0; r < 600; r += 50)
        for (int c = 0; c < 280; c += 40)
            EXPECT_EQ(40, img[r * 600 + c]);
    EXPECT_NO_FATAL_FAILURE(Proc().Final(nullptr));
}

} // namespace
