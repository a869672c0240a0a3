// Measurements and whole-image operations -- quality, standard deviation,
// latent tests, local variance and finger state, histogram equalisation and
// background cleaning -- against plain models on random and structured
// images over a grid of sizes, and every entry point's refusal of missing
// buffers and sizes outside its range.
#include "imageproc_reference.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <numeric>
#include <set>

namespace {

using ref::Bytes;

struct Image {
    int w, h;
    Bytes px;
    Image(int nW, int nH, unsigned char v = 0) : w(nW), h(nH), px(static_cast<size_t>(nW) * nH, v) {}
    unsigned char& at(int y, int x) { return px[static_cast<size_t>(y) * w + x]; }
    int operator()(int y, int x) const { return px[static_cast<size_t>(y) * w + x]; }
    unsigned char* data() { return px.data(); }
};

CImageProc& Proc() { return testutil::SharedProc(); }

// Period-4 texture: every pixel differs by the amplitude from the pixels two
// columns and two rows away.
int Texture(int y, int x) { return (x / 2 + y / 2) % 2; }

// Textured patches of random place, size and amplitude on a random level.
Image Patchwork(int w, int h, std::mt19937& gen, int nMaxAmp)
{
    Image img(w, h, static_cast<unsigned char>(gen() % 256));
    for (int k = 1 + gen() % 4; k > 0; --k) {
        const int x0 = gen() % w, y0 = gen() % h, x1 = std::min<int>(w - 1, x0 + gen() % w),
                  y1 = std::min<int>(h - 1, y0 + gen() % h), nAmp = 1 + gen() % nMaxAmp;
        for (int y = y0; y <= y1; ++y)
            for (int x = x0; x <= x1; ++x)
                img.at(y, x) =
                    static_cast<unsigned char>(Texture(y, x) ? std::min<unsigned>(255, nAmp + gen() % 3) : gen() % 3);
    }
    return img;
}

// Quality, finger window column and row.
std::vector<int> ModelQuality2(const Image& img)
{
    std::vector<long long> prof[2] = {std::vector<long long>(img.h, 0), std::vector<long long>(img.w, 0)};
    for (int y = 1; y <= img.h - 2; ++y)
        for (int x = 1; x <= img.w - 2; ++x) {
            prof[0][y] += std::abs(img(y, x - 1) - img(y, x + 1));
            prof[1][x] += std::abs(img(y - 1, x) - img(y + 1, x));
        }
    int anSpan[2][2], anCentre[2];
    for (int k = 0; k < 2; ++k) {
        const int n = static_cast<int>(prof[k].size());
        std::vector<long long> s(n);
        for (int i = 0; i < n; ++i) {
            const int i0 = std::max(0, i - 5), i1 = std::min(n - 1, i + 5);
            s[i] = std::accumulate(&prof[k][i0], &prof[k][i1] + 1, 0LL) / (i1 - i0 + 1) / 600;
        }
        int nFrom = 0, nTo = n;
        for (int i = 1; i <= n - 2 && nFrom == 0; ++i) nFrom = s[i] > 8 ? i : 0;
        for (int i = nFrom + 1; i <= n - 1 && nTo == n; ++i) nTo = s[i] <= 7 ? i : n;
        const int nHalf = k == 0 ? 225 : 200, c = nFrom + (nTo - nFrom) / 2;
        anCentre[k] = (c == 0 ? 300 : (c < nHalf ? nHalf : (600 - c < nHalf ? 600 - nHalf : c))) - nHalf;
        anSpan[k][0] = nFrom;
        anSpan[k][1] = nTo;
    }
    return {std::min(100, (anSpan[1][1] - anSpan[1][0]) * (anSpan[0][1] - anSpan[0][0]) / 1500), anCentre[1],
            anCentre[0]};
}

int ModelQuality(const Image& img)
{
    long nCount = 0;
    for (int x = 0; x < img.w; x += std::max(1, img.w / 28))
        for (int y = 2; y < img.h; y += 2) nCount += std::abs(img(y, x) - img(y - 2, x)) > 7;
    for (int x = 2; x < img.w; x += 2)
        for (int y = 0; y < img.h; y += 8) nCount += std::abs(img(y, x) - img(y, x - 2)) > 7;
    return static_cast<int>(std::min(100L, nCount / 100));
}

// Standard deviation and mean.
std::vector<int> ModelStdDeviation(const Image& img)
{
    if (img.w < 5 || img.h < 5) return {0, 0};
    long long nSum = 0, nSquares = 0, nDiv = static_cast<long long>(img.w - 2) * (img.h - 2);
    for (int k = 0; k < 2; ++k)
        for (int y = 2; y <= img.h - 3; ++y)
            for (int x = 2; x <= img.w - 3; ++x)
                k == 0 ? nSum += img(y, x) : nSquares += (img(y, x) - nSum / nDiv) * (img(y, x) - nSum / nDiv);
    return {static_cast<int>(std::sqrt(static_cast<double>(nSquares) / nDiv)), static_cast<int>(nSum / nDiv)};
}

void ExpectQualityMatches(Image& img, const std::string& what)
{
    CImageProc& p = Proc();
    p.m_nFingerWinX = p.m_nFingerWinY = -1;
    const int nQuality2 = p.CheckImageQuality2(img.w, img.h, img.data());
    EXPECT_EQ(ModelQuality2(img), std::vector<int>({nQuality2, p.m_nFingerWinX, p.m_nFingerWinY})) << what;
    EXPECT_EQ(ModelQuality(img), p.CheckImageQuality(img.w, img.h, img.data())) << what;
    int nMean = -1, nDeviation = p.GetStdDeviation(img.w, img.h, img.data(), &nMean);
    EXPECT_EQ(ModelStdDeviation(img), std::vector<int>({nDeviation, nMean})) << what;
}

TEST(Quality, MatchesTheModelsOnAGridOfSizes)
{
    std::mt19937 gen(41);
    std::set<int> qualities;
    const int anSizes[][2] = {{1, 1},    {1, 600},   {2, 600},   {600, 2},   {3, 3},    {4, 5},
                              {5, 5},    {16, 9},    {20, 22},   {17, 40},   {33, 600}, {56, 40},
                              {120, 77}, {257, 300}, {599, 600}, {600, 431}, {600, 600}};
    for (const auto& s : anSizes) {
        for (int nTrial = 0; nTrial < 8; ++nTrial) {
            Image img = Patchwork(s[0], s[1], gen, nTrial < 6 ? 40 : 255);
            ExpectQualityMatches(img, std::to_string(s[0]) + " x " + std::to_string(s[1]));
            qualities.insert(Proc().CheckImageQuality(img.w, img.h, img.data()));
        }
    }
    EXPECT_GT(qualities.size(), 5u);
}

// Textured squares swept across the borders at which the finger window is
// pulled in (centres 199/200 and 400/401 across, 224/225 and 375/376 down),
// profiles of exactly 8 and 7 (amplitudes around 9), qualities around the
// limit of 100, column sums past 16 bits, and squares past 32 bits.
TEST(Quality, StructuredImagesAtTheThresholds)
{
    for (int nAt = -8; nAt <= 8; ++nAt) {
        for (int nCase = 0; nCase < 6; ++nCase) {
            Image img(600, 600);
            const int x0 = nCase == 0 ? 150 + nAt : (nCase == 1 ? 350 + nAt : (nCase == 5 ? 100 : 250));
            const int y0 = nCase == 2 ? 175 + nAt : (nCase == 3 ? 325 + nAt : (nCase == 5 ? 100 : 250));
            const int nW = nCase == 5 ? 383 + nAt : 100, nH = nCase == 5 ? 384 : 100;  // case 5: qualities 99..103
            for (int y = 0; y < 600; ++y)
                for (int x = 0; x < 600; ++x)
                    img.at(y, x) = nCase != 4 ? (x >= x0 && x < x0 + nW && y >= y0 && y < y0 + nH) * 255 * Texture(y, x)
                                              : (y / 2) % 2 * (x < 100 || x >= 500 ? 0 : (x < 200 ? 255 : 9 + nAt / 4));
            ExpectQualityMatches(img, "case " + std::to_string(nCase) + " at " + std::to_string(nAt));
        }
    }
    Image deep(600, 600);
    for (int y = 0; y <= 298; ++y)
        for (int x = 300; x < 500; ++x) deep.at(y, x) = static_cast<unsigned char>(220 * Texture(y, x));
    ExpectQualityMatches(deep, "column sums past 16 bits");
    Image thin(1, 600);
    for (int y = 0; y < 600; ++y) thin.at(y, 0) = static_cast<unsigned char>(255 * Texture(y, 0));
    ExpectQualityMatches(thin, "one column");
    Image wide(2000, 2000);
    for (size_t i = 1; i < wide.px.size(); i += 2) wide.px[i] = 255;
    int nMean = -1, nDeviation = Proc().GetStdDeviation(2000, 2000, wide.data(), &nMean);
    EXPECT_EQ(ModelStdDeviation(wide), std::vector<int>({nDeviation, nMean}));
}

const int kDriverPairs[3][2] = {{104, 127}, {154, 180}, {207, 232}};
const int kRvmPairs[3][2] = {{67, 110}, {153, 196}, {239, 282}};

unsigned char ModelSpreadTest(const Image& f, const int (*pairs)[2])
{
    for (int k = 0; k < 3; ++k) {
        int anSpread[2] = {0, 0};
        for (int n = 0; n < 2; ++n) {
            const unsigned char* pRow = &f.px[pairs[k][n] * 1214];
            const int nMean = std::accumulate(pRow + 80, pRow + 1134, 0) / 1054;
            for (int c = 80; c <= 1133; ++c) anSpread[n] += (pRow[c] - nMean) * (pRow[c] - nMean);
        }
        if (anSpread[0] * 100 / (anSpread[1] + 1) <= 150) return 1;
    }
    return 0;
}

unsigned char ModelEdgeTest(const Image& f)
{
    int anCount[4] = {0, 0, 0, 0};
    const int anBand[4] = {107, 208, 56, 157};
    for (int k = 0; k < 4; ++k)
        for (int r = anBand[k]; r < anBand[k] + 30; ++r)
            for (int c = 0; c <= 1208; c += 4)
                anCount[k] += std::abs(f(r, c + 2) - f(r, c)) > 20 || std::abs(f(r + 2, c) - f(r, c)) > 20;
    return anCount[0] <= 100 && anCount[1] <= 100 && anCount[2] > anCount[0] && anCount[3] >= 100 ? 0 : 1;
}

// Measured rows of every kind: a spread of exactly n (n pixels one level
// above the rest) with ratios around 150, halves of 0 and 1 (the mean
// truncates), full swings and noise. Columns outside 80..1133 stay noise.
TEST(Latent, SpreadTestsMatchTheModel)
{
    std::mt19937 gen(7);
    Image f(1214, 616);
    for (auto& v : f.px) v = static_cast<unsigned char>(gen());
    int anSeen[2] = {0, 0};
    for (int nTrial = 0; nTrial < 400; ++nTrial) {
        const int(*pairs)[2] = nTrial % 2 ? kRvmPairs : kDriverPairs;
        for (int k = 0; k < 3; ++k) {
            const int nSecond = gen() % 400, nFirst = 150 * (nSecond + 1) / 100 - 1 + gen() % 4;
            for (int n = 0; n < 2; ++n) {
                const int nKind = gen() % 10, nBase = 20 + gen() % 200, nRaised = n == 0 ? nFirst : nSecond;
                for (int c = 80; c <= 1133; ++c)
                    f.at(pairs[k][n], c) = static_cast<unsigned char>(
                        nKind < 7 ? nBase + (c - 80 < nRaised)
                                  : (nKind == 7 ? c % 2 : (nKind == 8 ? 255 * (c % 2) : gen())));
            }
        }
        unsigned char nWant = ModelSpreadTest(f, kDriverPairs);
        ASSERT_EQ(nWant, Proc().CheckLatent2(f.data())) << "trial " << nTrial;
        ++anSeen[nWant];
        nWant = ModelSpreadTest(f, kRvmPairs);
        ASSERT_EQ(nWant, Proc().CheckLatentForRVM71(f.data())) << "trial " << nTrial;
        ++anSeen[nWant];
    }
    EXPECT_GT(anSeen[0], 10);
    EXPECT_GT(anSeen[1], 10);
}

// Edge counts near their limits in every band, and steps of 20 or 21 right
// of or below a sample; the width argument plays no part.
TEST(Latent, EdgeTestMatchesTheModel)
{
    std::mt19937 gen(11);
    int anSeen[2] = {0, 0};
    for (int nTrial = 0; nTrial < 400; ++nTrial) {
        Image f(1214, 616, 100);
        for (int nBand : {56, 107, 157, 208}) {
            for (int n = (nBand == 56 ? 96 : 98) + gen() % 5; n > 0; --n)
                f.at(nBand, 4 * n + 2) = static_cast<unsigned char>(gen() % 2 ? 121 : 79);
            for (int n = gen() % 3; n > 0; --n) {
                const int c = 4 * (gen() % 300 + 1);
                f.at(gen() % 2 ? nBand + 9 : nBand + 31, gen() % 2 ? c + 2 : c) =
                    static_cast<unsigned char>(120 + gen() % 2);
            }
        }
        const unsigned char nWant = ModelEdgeTest(f);
        ASSERT_EQ(nWant, Proc().CheckLatent1(f.data(), static_cast<unsigned>(gen()))) << "trial " << nTrial;
        ++anSeen[nWant];
    }
    EXPECT_GT(anSeen[0], 10);
    EXPECT_GT(anSeen[1], 10);
}

// Mean block standard deviation and mean block mean.
std::vector<int> ModelLocalVariance(const Image& img)
{
    const int nBx0 = img.w / 8 / 3, nBy0 = img.h / 8 / 2, nBx1 = 2 * nBx0, nBy1 = nBy0 + 2 * nBy0 / 3;
    const int nBlocks = (nBx1 - nBx0) * (nBy1 - nBy0);
    long nMeans = 0, nDeviations = 0;
    for (int by = nBy0; by < nBy1; ++by)
        for (int bx = nBx0; bx < nBx1; ++bx) {
            int anPx[64], nSquares = 0;
            for (int k = 0; k < 64; ++k) anPx[k] = img(img.h % 8 / 2 + 8 * by + k / 8, img.w % 8 / 2 + 8 * bx + k % 8);
            const int nMean = std::accumulate(anPx, anPx + 64, 0) / 64;
            for (int v : anPx) nSquares += (v - nMean) * (v - nMean);
            nMeans += nMean;
            nDeviations += static_cast<int>(std::sqrt(nSquares / 64.0));
        }
    return nBlocks > 0 ? std::vector<int>({static_cast<int>(nDeviations / nBlocks), static_cast<int>(nMeans / nBlocks)})
                       : std::vector<int>({0, 0});
}

int ModelFingerState(const Image& img, int nWinX, int nWinY)
{
    if (nWinX < 0 || nWinX > 200 || nWinY < 0 || nWinY > 150) return 0;
    Image win(400, 450);
    for (int i = 0; i < 400 * 450; ++i) win.px[i] = img.px[(nWinY + i / 400) * 600 + nWinX + i % 400];
    const std::vector<int> m = ModelLocalVariance(win);
    const int anX[3] = {40, 60, 20}, anY[3] = {20, 74, 170};
    int d[3];
    for (int k = 0; k < 3; ++k)
        d[k] = static_cast<int>(
            std::sqrt(static_cast<double>((anX[k] - m[0]) * (anX[k] - m[0]) + (anY[k] - m[1]) * (anY[k] - m[1]))));
    return d[0] < d[1] && d[0] < d[2] ? 1 : (d[1] <= d[0] && d[1] <= d[2] ? 2 : (d[2] < d[0] && d[2] < d[1] ? 3 : 0));
}

TEST(FingerState, LocalVarianceMatchesTheModelOnAGridOfSizes)
{
    std::mt19937 gen(3);
    const int anSizes[][2] = {{23, 64}, {64, 31}, {24, 32}, {26, 32}, {24, 98}, {48, 64}, {97, 131}, {400, 450}};
    for (const auto& s : anSizes) {
        for (int nTrial = 0; nTrial < 6; ++nTrial) {
            Image img = Patchwork(s[0], s[1], gen, 255);
            for (int i = 0; nTrial >= 3 && i < img.w * img.h; ++i)  // flat blocks of other levels
                img.px[i] = static_cast<unsigned char>((i % img.w / 8 * 37 + i / img.w / 8 * 91 + nTrial * 50) % 256);
            int nMean = -1, nDeviation = Proc().GetLocalVariance(img.w, img.h, img.data(), &nMean);
            ASSERT_EQ(ModelLocalVariance(img), std::vector<int>({nDeviation, nMean})) << s[0] << " x " << s[1];
        }
    }
}

// Windows placed anywhere, also just outside the image, holding 8 x 8 blocks
// aligned to the measuring grid (window rows start one pixel into a block)
// of k pixels at level a and 64 - k at b: the reference points, a tie of
// states 1 and 2 (sd 50, mean 47), uniform windows and random statistics.
TEST(FingerState, MatchesTheModel)
{
    std::mt19937 gen(5);
    const int anBlocks[][3] = {{2, 243, 13}, {7, 246, 53}, {1, 4, 173}, {4, 242, 34}, {0, 0, 0}, {0, 0, 255}};
    int anSeen[4] = {0, 0, 0, 0};
    for (int nTrial = 0; nTrial < 60; ++nTrial) {
        const bool bFixed = nTrial < 12;
        const int anX[4] = {-1, 0, 200, 201}, anY[4] = {-1, 0, 150, 151}, *p = anBlocks[nTrial % 6];
        const int x = bFixed ? 100 : (nTrial < 28 ? anX[nTrial % 4] : gen() % 201);
        const int y = bFixed ? 75 : (nTrial < 28 ? anY[nTrial / 4 % 4] : gen() % 151);
        const int k = bFixed ? p[0] : gen() % 64, a = bFixed ? p[1] : gen() % 256, b = bFixed ? p[2] : gen() % 256;
        Image img(600, 600);
        for (int i = 0; i < 360000; ++i) {
            const int r = i / 600 - std::max(0, y), c = i % 600 - std::max(0, x);
            img.px[i] = static_cast<unsigned char>(r < 0 || c < 0 || r >= 450 || c >= 400 ? gen()
                                                   : (r + 7) % 8 * 8 + c % 8 < k          ? a
                                                                                          : b);
        }
        Proc().m_nFingerWinX = x;
        Proc().m_nFingerWinY = y;
        const int nWant = ModelFingerState(img, x, y);
        ASSERT_EQ(nWant, Proc().EstimateFingerState(600, 600, img.data())) << "trial " << nTrial;
        ++anSeen[nWant];
    }
    for (int n : anSeen) EXPECT_GT(n, 0);
    Proc().m_nFingerWinX = 100;
    Proc().m_nFingerWinY = 75;
    EXPECT_EQ(1, Proc().AutoSetPara(nullptr));
}

// Random images of every spread over a grid of sizes, black images, a fifth
// of the pixels on either side of one level, 49 x (1280.0 / 490) just below
// 128.
TEST(Histoequal, MatchesTheModel)
{
    std::mt19937 gen(11);
    std::vector<Image> images;
    for (int w : {1, 7, 37, 87, 600})
        for (int h : {1, 13, 54, 600})
            for (int nRange : {1, 60, 200, 256}) {
                images.emplace_back(w, h);
                for (auto& v : images.back().px)
                    v = static_cast<unsigned char>(gen() % nRange + (nRange == 60 ? 190 : 0));
            }
    for (int nCount : {71718, 71719}) {
        images.emplace_back(600, 600, 200);
        std::fill(images.back().px.begin(), images.back().px.begin() + nCount, 60);
    }
    images.emplace_back(5, 98, 100);
    for (int i = 0; i < 49; ++i) images.back().px[i * 10] = 0;
    for (Image& img : images) {
        long anCdf[256] = {0};
        for (unsigned char v : img.px) ++anCdf[v];
        std::partial_sum(anCdf, anCdf + 256, anCdf);
        Bytes want = img.px;
        for (auto& v : want)
            v = static_cast<unsigned char>(v >= 245 ? 255 : std::min(255L, long(anCdf[v] * (1280.0 / want.size()))));
        Proc().Histoequal(img.data(), img.w, img.h);
        ASSERT_EQ(want, img.px) << img.w << " x " << img.h;
    }
}

// Clipped 17 x 17 means.
std::vector<int> BoxMeans(const std::vector<int>& v)
{
    const std::vector<long long> sat = testutil::SummedArea(v);
    std::vector<int> out(360000);
    for (int i = 0; i < 360000; ++i) {
        const int r0 = std::max(0, i / 600 - 8), r1 = std::min(599, i / 600 + 8);
        const int c0 = std::max(0, i % 600 - 8), c1 = std::min(599, i % 600 + 8);
        out[i] = static_cast<int>(testutil::AreaSum(sat, r0, c0, r1, c1) / ((r1 - r0 + 1) * (c1 - c0 + 1)));
    }
    return out;
}

// The cleaned image; counts the pixels above the normalised mean whose
// local deviation is 19, 20, and those whose local mean equals it.
Bytes ModelFinal(const Bytes& in, int anBoundary[3])
{
    const int nMean = static_cast<int>(std::accumulate(in.begin(), in.end(), 0LL) / 360000);
    long long nDev = 0, nSumA = 0;
    for (unsigned char p : in) nDev += std::abs(p - nMean);
    const int nMad = static_cast<int>(nDev / 360000);
    if (nMad == 0) return in;
    std::vector<int> a(360000), diff(360000);
    for (int i = 0; i < 360000; ++i) {
        const int p = in[i], v = p > nMean ? 150 + 75 * (p - nMean) / nMad : 150 - 75 * (nMean - p) / nMad;
        nSumA += a[i] = std::max(0, std::min(255, v));
    }
    const int nMeanA = static_cast<int>(nSumA / 360000);
    const std::vector<int> m = BoxMeans(a);
    for (int i = 0; i < 360000; ++i) diff[i] = std::abs(a[i] - m[i]);
    const std::vector<int> d = BoxMeans(diff);
    Bytes out = in;
    for (int i = 0; i < 360000; ++i) {
        anBoundary[0] += m[i] > nMeanA && d[i] == 19;
        anBoundary[1] += m[i] > nMeanA && d[i] == 20;
        anBoundary[2] += m[i] == nMeanA && d[i] < 20;
        out[i] = m[i] > nMeanA && d[i] < 20 ? 255 : in[i];
    }
    return out;
}

// Finger-like images (ridges in an ellipse, background noise growing to the
// right), noise with a flat patch, a flat corner patch among ridges (the
// corner square holds 81 pixels), a flat area exactly at the normalised
// mean, dark flat areas, and images without contrast.
TEST(Final, MatchesTheModel)
{
    std::mt19937 gen(5);
    int anBoundary[3] = {0, 0, 0};
    for (int nKind = 0; nKind < 8; ++nKind) {
        Bytes img(360000, 180);
        for (int i = 0; i < 360000; ++i) {
            const int r = i / 600, c = i % 600;
            const double dx = (c - 300) / 180.0, dy = (r - 300) / 240.0;
            int v = 180;
            if (nKind < 3)
                v = dx * dx + dy * dy < 1.0 ? 110 + static_cast<int>(90 * std::sin((r + 0.3 * c) / 3.0)) + gen() % 9
                                            : 215 + ((r + c) % 2 ? 1 : -1) * (c / 25) + gen() % 3;
            else if (nKind == 3)
                v = r >= 100 && r < 200 && c >= 350 && c < 500 ? 230 : gen() % 256;
            else if (nKind == 4)
                v = r < 17 && c < 17 ? 180 : (c % 2 ? 200 : 0);
            else if (nKind == 5)
                v = c < 150 ? 100 : (c % 2 ? 140 : 60);
            else if (nKind == 6)
                v = c < 300 ? 40 : (c % 2 ? 250 : 60);
            img[i] = static_cast<unsigned char>(std::max(0, std::min(254, v)));
        }
        img[12345] = 255;  // for the last image: a mean absolute deviation below one level
        const Bytes want = ModelFinal(img, anBoundary);
        Proc().Final(img.data());
        ASSERT_EQ("", testutil::FirstDifference(want.data(), img.data(), 360000, 600)) << "image " << nKind;
    }
    for (int n : anBoundary) EXPECT_GT(n, 0);
}

// Missing buffers, missing modify tables and sizes outside the range of
// each entry point: the refusal value, no pixel written, the finger window
// and the roll state kept.
TEST(Refusals, LeaveEverythingAsItIs)
{
    CImageProc& p = Proc();
    Bytes img(2000 * 1300, 77);
    unsigned char* q = img.data();
    p.m_nFingerWinX = 13;
    p.m_nFingerWinY = 17;
    p.RGBtoGRAY(nullptr, q, 4, 4);
    p.RGBtoGRAY2(nullptr, q, 4, 4);
    p.Histoequal(nullptr, 600, 600);
    p.Histoequal(q, 0, 600);
    p.Final(nullptr);
    for (auto op : {&CImageProc::CorrectImage, &CImageProc::CorrectImageCalc, &CImageProc::CorrectImageCalcEx}) {
        EXPECT_EQ(0, (p.*op)(nullptr, 1800, 1280, q, 600, 600, 0, 0));
        EXPECT_EQ(0, (p.*op)(q, 1800, 1280, nullptr, 600, 600, 0, 0));
    }
    tagModifyEntry** apTables[2] = {nullptr, nullptr};
    std::swap(p.m_ppModifyTable, apTables[0]);
    std::swap(p.m_ppModifyTableEx, apTables[1]);
    EXPECT_EQ(0, p.CorrectImageCalc(q, 1288, 876, q + 1000000, 600, 600, 0, 0));
    EXPECT_EQ(0, p.CorrectImageCalcEx(q, 1800, 1280, q + 1000000, 600, 600, 0, 0));
    std::swap(p.m_ppModifyTable, apTables[0]);
    std::swap(p.m_ppModifyTableEx, apTables[1]);
    int anMean[2] = {-1, -1};  // the list evaluates left to right: each mean after its call
    EXPECT_EQ(std::vector<int>(4, 0), std::vector<int>({p.GetStdDeviation(5, 5, nullptr, &anMean[0]), anMean[0],
                                                        p.GetLocalVariance(24, 32, nullptr, &anMean[1]), anMean[1]}));
    EXPECT_EQ(std::vector<int>(8, 0),
              std::vector<int>({p.RotateRightImage(nullptr, 6, 6), p.CheckImageQuality(600, 600, nullptr),
                                p.CheckImageQuality(0, 600, q), p.CheckImageQuality2(600, 600, nullptr),
                                p.CheckImageQuality2(601, 600, q), p.CheckImageQuality2(600, 601, q),
                                p.CheckImageQuality2(-1, 600, q), p.EstimateFingerState(600, 600, nullptr)}));
    EXPECT_EQ(std::vector<int>(6, 1),
              std::vector<int>({p.CheckLatent1(nullptr, 1214), p.CheckLatent2(nullptr), p.CheckLatentForRVM71(nullptr),
                                p.ImageComposition(nullptr, q, 360000, 1, 1.0f),
                                p.ImageComposition(q, nullptr, 360000, 1, 1.0f),
                                p.ImageComposition(q, q + 400000, 359999, 1, 1.0f)}));
    EXPECT_EQ(Bytes(2000 * 1300, 77), img);
    EXPECT_EQ(std::vector<int>({13, 17, 0}), std::vector<int>({p.m_nFingerWinX, p.m_nFingerWinY, p.m_bRollStarted}));
    p.m_nFingerWinX = 100;
    p.m_nFingerWinY = 75;
}

}  // namespace
