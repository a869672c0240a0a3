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
#include <functional>
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
                img.at(y, x) = static_cast<unsigned char>(Texture(y, x) ? std::min<unsigned>(255, nAmp + gen() % 3) : gen() % 3);
    }
    return img;
}

// -------------------------------------------------------------- quality

struct Quality2Result {
    int nQuality, nWinX, nWinY;
    bool operator==(const Quality2Result& o) const { return nQuality == o.nQuality && nWinX == o.nWinX && nWinY == o.nWinY; }
};

Quality2Result ModelQuality2(const Image& img)
{
    std::vector<long long> rw(img.h, 0), cl(img.w, 0);
    for (int y = 1; y <= img.h - 2; ++y)
        for (int x = 1; x <= img.w - 2; ++x) {
            rw[y] += std::abs(img(y, x - 1) - img(y, x + 1));
            cl[x] += std::abs(img(y - 1, x) - img(y + 1, x));
        }
    int anSpan[4];  // top, bottom, left, right
    for (int k = 0; k < 2; ++k) {
        const std::vector<long long> v = k == 0 ? rw : cl;
        const int n = static_cast<int>(v.size());
        std::vector<long long> s(n);
        for (int i = 0; i < n; ++i) {
            long long nSum = 0, nCount = 0;
            for (int j = std::max(0, i - 5); j <= std::min(n - 1, i + 5); ++j, ++nCount)
                nSum += v[j];
            s[i] = nSum / nCount / 600;
        }
        int nFrom = 0, nTo = n;
        for (int i = 1; i <= n - 2 && nFrom == 0; ++i)
            nFrom = s[i] > 8 ? i : 0;
        for (int i = nFrom + 1; i <= n - 1 && nTo == n; ++i)
            nTo = s[i] <= 7 ? i : n;
        anSpan[2 * k] = nFrom;
        anSpan[2 * k + 1] = nTo;
    }
    int cx = anSpan[2] + (anSpan[3] - anSpan[2]) / 2, cy = anSpan[0] + (anSpan[1] - anSpan[0]) / 2;
    cx = cx == 0 ? 300 : (cx <= 199 ? 200 : (600 - cx <= 199 ? 400 : cx));
    cy = cy == 0 ? 300 : (cy <= 224 ? 225 : (600 - cy <= 224 ? 375 : cy));
    return {std::min(100, (anSpan[3] - anSpan[2]) * (anSpan[1] - anSpan[0]) / 1500), cx - 200, cy - 225};
}

int ModelQuality(const Image& img)
{
    long nCount = 0;
    for (int x = 0; x < img.w; x += std::max(1, img.w / 28))
        for (int y = 2; y < img.h; y += 2)
            nCount += std::abs(img(y, x) - img(y - 2, x)) > 7;
    for (int x = 2; x < img.w; x += 2)
        for (int y = 0; y < img.h; y += 8)
            nCount += std::abs(img(y, x) - img(y, x - 2)) > 7;
    return static_cast<int>(std::min(100L, nCount / 100));
}

int ModelStdDeviation(const Image& img, int* pMean)
{
    long long nSum = 0, nSquares = 0, nDiv = static_cast<long long>(img.w - 2) * (img.h - 2);
    for (int y = 2; y <= img.h - 3; ++y)
        for (int x = 2; x <= img.w - 3; ++x)
            nSum += img(y, x);
    *pMean = img.w < 5 || img.h < 5 ? 0 : static_cast<int>(nSum / nDiv);
    for (int y = 2; y <= img.h - 3; ++y)
        for (int x = 2; x <= img.w - 3; ++x)
            nSquares += static_cast<long long>(img(y, x) - *pMean) * (img(y, x) - *pMean);
    return img.w < 5 || img.h < 5 ? 0 : static_cast<int>(std::sqrt(static_cast<double>(nSquares) / nDiv));
}

void ExpectQualityMatches(Image& img, const std::string& what)
{
    Proc().m_nFingerWinX = Proc().m_nFingerWinY = -1;
    const Quality2Result got = {Proc().CheckImageQuality2(img.w, img.h, img.data()), Proc().m_nFingerWinX,
                                Proc().m_nFingerWinY};
    ASSERT_TRUE(ModelQuality2(img) == got) << what << ": quality " << got.nQuality << " window " << got.nWinX << ", "
                                           << got.nWinY;
    ASSERT_EQ(ModelQuality(img), Proc().CheckImageQuality(img.w, img.h, img.data())) << what;
    int nMean = -1, nWant = -1;
    ASSERT_EQ(ModelStdDeviation(img, &nWant), Proc().GetStdDeviation(img.w, img.h, img.data(), &nMean)) << what;
    ASSERT_EQ(nWant, nMean) << what;
}

TEST(Quality, MatchesTheModelsOnAGridOfSizes)
{
    std::mt19937 gen(41);
    std::set<int> qualities;
    const int anSizes[][2] = {{1, 1},  {2, 600},   {600, 2},   {3, 3},     {4, 5},     {5, 5},    {16, 9},
                              {20, 22}, {17, 40},  {33, 600},  {56, 40},   {120, 77},  {257, 300}, {599, 600},
                              {600, 431}, {600, 600}};
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
// profiles of exactly 8 and 7 (amplitudes around 9), and column sums past
// 16 bits.
TEST(Quality, StructuredImagesAtTheThresholds)
{
    for (int nAt = -8; nAt <= 8; ++nAt) {
        for (int nCase = 0; nCase < 4; ++nCase) {
            Image img(600, 600);
            const int x0 = nCase == 0 ? 150 + nAt : (nCase == 1 ? 350 + nAt : 250);
            const int y0 = nCase == 2 ? 175 + nAt : (nCase == 3 ? 325 + nAt : 250);
            for (int y = y0; y < y0 + 100; ++y)
                for (int x = x0; x < x0 + 100; ++x)
                    img.at(y, x) = static_cast<unsigned char>(255 * Texture(y, x));
            ExpectQualityMatches(img, "square at " + std::to_string(x0) + ", " + std::to_string(y0));
        }
        Image faint(600, 600);
        for (int y = 0; y < 600; ++y)
            for (int x = 100; x < 500; ++x)
                faint.at(y, x) = static_cast<unsigned char>((y / 2) % 2 ? (x < 200 ? 255 : 9 + nAt / 4) : 0);
        ExpectQualityMatches(faint, "faint texture " + std::to_string(nAt));
    }
    Image deep(600, 600);
    for (int y = 0; y <= 298; ++y)
        for (int x = 300; x < 500; ++x)
            deep.at(y, x) = static_cast<unsigned char>(220 * Texture(y, x));
    ExpectQualityMatches(deep, "column sums past 16 bits");
    Image wide(2000, 2000);
    for (int x = 1; x < 2000; x += 2)
        for (int y = 0; y < 2000; ++y)
            wide.at(y, x) = 255;
    int nMean = -1, nWant = 0;
    EXPECT_EQ(ModelStdDeviation(wide, &nWant), Proc().GetStdDeviation(2000, 2000, wide.data(), &nMean));
    EXPECT_EQ(nWant, nMean);
}

// -------------------------------------------------------------- latent

const int kDriverPairs[3][2] = {{104, 127}, {154, 180}, {207, 232}};
const int kRvmPairs[3][2] = {{67, 110}, {153, 196}, {239, 282}};

unsigned char ModelSpreadTest(const Image& f, const int (*pairs)[2])
{
    for (int k = 0; k < 3; ++k) {
        int anSpread[2];
        for (int n = 0; n < 2; ++n) {
            int nSum = 0;
            for (int c = 80; c <= 1133; ++c)
                nSum += f(pairs[k][n], c);
            anSpread[n] = 0;
            for (int c = 80; c <= 1133; ++c)
                anSpread[n] += (f(pairs[k][n], c) - nSum / 1054) * (f(pairs[k][n], c) - nSum / 1054);
        }
        if (anSpread[0] * 100 / (anSpread[1] + 1) <= 150)
            return 1;
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
// above the rest), ratios around 150, halves of 0 and 1 (the mean truncates),
// full swings and noise. Columns outside 80..1133 stay noise.
TEST(Latent, SpreadTestsMatchTheModel)
{
    std::mt19937 gen(7);
    Image f(1214, 616);
    for (auto& v : f.px)
        v = static_cast<unsigned char>(gen());
    int anSeen[2] = {0, 0};
    for (int nTrial = 0; nTrial < 400; ++nTrial) {
        const int (*pairs)[2] = nTrial % 2 ? kRvmPairs : kDriverPairs;
        for (int k = 0; k < 3; ++k) {
            const int nSecond = gen() % 400, anRaised[2] = {(150 * (nSecond + 1)) / 100 - 1 + static_cast<int>(gen() % 4), nSecond};
            for (int n = 0; n < 2; ++n) {
                const int nKind = gen() % 10, nBase = 20 + gen() % 200;
                for (int c = 80; c <= 1133; ++c) {
                    const int v = nKind < 7 ? nBase + (c - 80 < anRaised[n]) : (nKind == 7 ? c % 2 : (nKind == 8 ? 255 * (c % 2) : gen() % 256));
                    f.at(pairs[k][n], c) = static_cast<unsigned char>(v);
                }
            }
        }
        for (const int (*p)[2] : {kDriverPairs, kRvmPairs}) {
            const unsigned char nWant = ModelSpreadTest(f, p);
            ASSERT_EQ(nWant, p == kDriverPairs ? Proc().CheckLatent2(f.data()) : Proc().CheckLatentForRVM71(f.data()))
                << "trial " << nTrial;
            ++anSeen[nWant];
        }
    }
    EXPECT_GT(anSeen[0], 10);
    EXPECT_GT(anSeen[1], 10);
}

// Edge counts near their limits in every band (edges of 20 and 21 levels to
// the right or below a sample), and a few stray steps; the width argument
// plays no part.
TEST(Latent, EdgeTestMatchesTheModel)
{
    std::mt19937 gen(11);
    int anSeen[2] = {0, 0};
    for (int nTrial = 0; nTrial < 400; ++nTrial) {
        Image f(1214, 616, 100);
        for (int nBand : {56, 107, 157, 208}) {
            for (int n = (nBand == 56 ? 96 : 98) + gen() % 5; n > 0; --n)
                f.at(nBand, 4 * n + 2) = static_cast<unsigned char>(gen() % 2 ? 121 : 79);
            for (int n = gen() % 3; n > 0; --n) {  // steps of 20 or 21 right of or below a sample
                const int c = 4 * (gen() % 300 + 1), nStep = gen() % 2 ? 20 : 21;
                f.at(gen() % 2 ? nBand + 9 : nBand + 31, gen() % 2 ? c + 2 : c) = static_cast<unsigned char>(100 + nStep);
            }
        }
        const unsigned char nWant = ModelEdgeTest(f);
        ASSERT_EQ(nWant, Proc().CheckLatent1(f.data(), static_cast<unsigned>(gen()))) << "trial " << nTrial;
        ++anSeen[nWant];
    }
    EXPECT_GT(anSeen[0], 10);
    EXPECT_GT(anSeen[1], 10);
}

// -------------------------------------------------------- finger state

int ModelLocalVariance(const Image& img, int* pMean)
{
    const int nBx0 = img.w / 8 / 3, nBy0 = img.h / 8 / 2, nBx1 = 2 * nBx0, nBy1 = nBy0 + 2 * nBy0 / 3;
    const int nOx = img.w % 8 / 2, nOy = img.h % 8 / 2, nBlocks = (nBx1 - nBx0) * (nBy1 - nBy0);
    long nMeans = 0, nDeviations = 0;
    for (int by = nBy0; by < nBy1; ++by)
        for (int bx = nBx0; bx < nBx1; ++bx) {
            int nSum = 0, nSquares = 0;
            for (int k = 0; k < 64; ++k)
                nSum += img(nOy + 8 * by + k / 8, nOx + 8 * bx + k % 8);
            for (int k = 0; k < 64; ++k)
                nSquares += (img(nOy + 8 * by + k / 8, nOx + 8 * bx + k % 8) - nSum / 64) *
                            (img(nOy + 8 * by + k / 8, nOx + 8 * bx + k % 8) - nSum / 64);
            nMeans += nSum / 64;
            nDeviations += static_cast<int>(std::sqrt(nSquares / 64.0));
        }
    *pMean = nBlocks > 0 ? static_cast<int>(nMeans / nBlocks) : 0;
    return nBlocks > 0 ? static_cast<int>(nDeviations / nBlocks) : 0;
}

int ModelFingerState(const Image& img, int nWinX, int nWinY)
{
    if (nWinX < 0 || nWinX > 200 || nWinY < 0 || nWinY > 150)
        return 0;
    Image win(400, 450);
    for (int r = 0; r < 450; ++r)
        std::copy(&img.px[(nWinY + r) * 600 + nWinX], &img.px[(nWinY + r) * 600 + nWinX] + 400, &win.px[r * 400]);
    int nMean = 0;
    const int nSd = ModelLocalVariance(win, &nMean);
    const int anX[3] = {40, 60, 20}, anY[3] = {20, 74, 170};
    int d[3];
    for (int k = 0; k < 3; ++k)
        d[k] = static_cast<int>(std::sqrt(static_cast<double>((anX[k] - nSd) * (anX[k] - nSd) + (anY[k] - nMean) * (anY[k] - nMean))));
    return d[0] < d[1] && d[0] < d[2] ? 1 : (d[1] <= d[0] && d[1] <= d[2] ? 2 : (d[2] < d[0] && d[2] < d[1] ? 3 : 0));
}

// 8 x 8 blocks aligned to the measuring grid of a window at (x0, y0) (its
// rows start one pixel into a block), k pixels of level a and 64 - k of b.
Image BlockImage(int x0, int y0, int k, int a, int b, std::mt19937& gen)
{
    Image img(600, 600);
    for (auto& v : img.px)
        v = static_cast<unsigned char>(gen());
    for (int r = 0; r < 450; ++r)
        for (int c = 0; c < 400; ++c)
            img.at(y0 + r, x0 + c) = static_cast<unsigned char>(((r + 7) % 8) * 8 + c % 8 < k ? a : b);
    return img;
}

TEST(FingerState, LocalVarianceMatchesTheModelOnAGridOfSizes)
{
    std::mt19937 gen(3);
    const int anSizes[][2] = {{23, 64}, {64, 31}, {24, 32}, {26, 32}, {24, 98}, {48, 64}, {97, 131}, {400, 450}};
    for (const auto& s : anSizes) {
        for (int nTrial = 0; nTrial < 6; ++nTrial) {
            Image img = nTrial < 3 ? Patchwork(s[0], s[1], gen, 255) : Image(s[0], s[1]);
            for (int i = 0; nTrial >= 3 && i < img.w * img.h; ++i)  // flat blocks of random levels
                img.px[i] = static_cast<unsigned char>((i % img.w / 8 * 37 + i / img.w / 8 * 91 + nTrial * 50) % 256);
            int nMean = -1, nWant = -1;
            ASSERT_EQ(ModelLocalVariance(img, &nWant), Proc().GetLocalVariance(img.w, img.h, img.data(), &nMean));
            ASSERT_EQ(nWant, nMean) << s[0] << " x " << s[1];
        }
    }
}

// The reference points, a tie between states 1 and 2 (sd 50, mean 47),
// uniform images and random block statistics, in windows placed anywhere,
// also just outside the image.
TEST(FingerState, MatchesTheModel)
{
    std::mt19937 gen(5);
    const int anBlocks[][3] = {{2, 243, 13}, {7, 246, 53}, {1, 4, 173}, {4, 242, 34}, {0, 0, 0}, {0, 0, 255}};
    int anSeen[4] = {0, 0, 0, 0};
    for (int nTrial = 0; nTrial < 60; ++nTrial) {
        const int x0 = nTrial < 12 ? 100 : static_cast<int>(gen() % 203) - 1, y0 = nTrial < 12 ? 75 : static_cast<int>(gen() % 153) - 1;
        const int* p = anBlocks[nTrial % 6];
        const int k = nTrial < 12 ? p[0] : gen() % 64, a = nTrial < 12 ? p[1] : gen() % 256, b = nTrial < 12 ? p[2] : gen() % 256;
        Image img = BlockImage(std::min(200, std::max(0, x0)), std::min(150, std::max(0, y0)), k, a, b, gen);
        Proc().m_nFingerWinX = x0;
        Proc().m_nFingerWinY = y0;
        const int nWant = ModelFingerState(img, x0, y0);
        ASSERT_EQ(nWant, Proc().EstimateFingerState(600, 600, img.data())) << "trial " << nTrial;
        ++anSeen[nWant];
    }
    for (int n : anSeen)
        EXPECT_GT(n, 0);
    Proc().m_nFingerWinX = 100;
    Proc().m_nFingerWinY = 75;
    EXPECT_EQ(1, Proc().AutoSetPara(nullptr));
}

// -------------------------------------------------------- enhancement

void ModelHistoequal(Image& img)
{
    long anCdf[256] = {0};
    for (unsigned char v : img.px)
        ++anCdf[v];
    for (int g = 1; g < 256; ++g)
        anCdf[g] += anCdf[g - 1];
    for (auto& v : img.px)
        v = static_cast<unsigned char>(v >= 245 ? 255 : std::min(255L, static_cast<long>(anCdf[v] * (1280.0 / img.px.size()))));
}

// Random images of every spread over a grid of sizes; black images; a fifth
// of the pixels on either side of one level; 49 x (1280.0 / 490) just below 128.
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
    for (int i = 0; i < 49; ++i)
        images.back().px[i * 10] = 0;
    for (Image& img : images) {
        Image want = img;
        ModelHistoequal(want);
        Proc().Histoequal(img.data(), img.w, img.h);
        ASSERT_EQ(want.px, img.px) << img.w << " x " << img.h;
    }
}

// Clipped 17 x 17 means by summed-area tables.
std::vector<int> BoxMeans(const std::vector<int>& v)
{
    std::vector<long long> sat(601 * 601, 0);
    for (int r = 0; r < 600; ++r)
        for (int c = 0; c < 600; ++c)
            sat[(r + 1) * 601 + c + 1] = v[r * 600 + c] + sat[r * 601 + c + 1] + sat[(r + 1) * 601 + c] - sat[r * 601 + c];
    std::vector<int> out(360000);
    for (int r = 0; r < 600; ++r)
        for (int c = 0; c < 600; ++c) {
            const int r0 = std::max(0, r - 8), r1 = std::min(599, r + 8), c0 = std::max(0, c - 8), c1 = std::min(599, c + 8);
            const long long s = sat[(r1 + 1) * 601 + c1 + 1] - sat[r0 * 601 + c1 + 1] - sat[(r1 + 1) * 601 + c0] + sat[r0 * 601 + c0];
            out[r * 600 + c] = static_cast<int>(s / ((r1 - r0 + 1) * (c1 - c0 + 1)));
        }
    return out;
}

// The cleaned image; counts the pixels above the normalised mean whose
// local deviation is 19, 20, and whose local mean equals it.
Bytes ModelFinal(const Bytes& in, int anBoundary[3])
{
    long long nSum = 0, nDev = 0, nSumA = 0;
    for (unsigned char p : in)
        nSum += p;
    const int nMean = static_cast<int>(nSum / 360000);
    for (unsigned char p : in)
        nDev += std::abs(p - nMean);
    const int nMad = static_cast<int>(nDev / 360000);
    if (nMad == 0)
        return in;
    std::vector<int> a(360000), diff(360000);
    for (int i = 0; i < 360000; ++i) {
        const int p = in[i], v = p > nMean ? 150 + 75 * (p - nMean) / nMad : 150 - 75 * (nMean - p) / nMad;
        nSumA += a[i] = std::max(0, std::min(255, v));
    }
    const int nMeanA = static_cast<int>(nSumA / 360000);
    const std::vector<int> m = BoxMeans(a);
    for (int i = 0; i < 360000; ++i)
        diff[i] = std::abs(a[i] - m[i]);
    const std::vector<int> d = BoxMeans(diff);
    Bytes out = in;
    for (int i = 0; i < 360000; ++i) {
        anBoundary[0] += m[i] > nMeanA && d[i] == 19;
        anBoundary[1] += m[i] > nMeanA && d[i] == 20;
        anBoundary[2] += m[i] == nMeanA && d[i] < 20;
        if (m[i] > nMeanA && d[i] < 20)
            out[i] = 255;
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
        for (int r = 0; r < 600; ++r) {
            for (int c = 0; c < 600; ++c) {
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
                img[r * 600 + c] = static_cast<unsigned char>(std::max(0, std::min(254, v)));
            }
        }
        if (nKind == 7)
            img[12345] = 255;  // mean absolute deviation below one level
        const Bytes want = ModelFinal(img, anBoundary);
        Proc().Final(img.data());
        ASSERT_EQ("", testutil::FirstDifference(want.data(), img.data(), 360000, 600)) << "image " << nKind;
    }
    EXPECT_GT(anBoundary[0], 0);
    EXPECT_GT(anBoundary[1], 0);
    EXPECT_GT(anBoundary[2], 0);
}

// ------------------------------------------------------------ refusals

// Missing buffers and sizes outside the range of each entry point: the
// refusal value, no pixel written, the finger window and roll state kept.
struct Refusal {
    const char* pszName;
    std::function<int(CImageProc&, unsigned char*)> call;
    int nResult;
};

class Refusals : public ::testing::TestWithParam<Refusal> {};

TEST_P(Refusals, LeaveEverythingAsItIs)
{
    CImageProc& proc = Proc();
    Bytes img(2000 * 1300, 77);
    proc.m_nFingerWinX = 13;
    proc.m_nFingerWinY = 17;
    proc.m_bRollStarted = 0;
    EXPECT_EQ(GetParam().nResult, GetParam().call(proc, img.data()));
    EXPECT_EQ(Bytes(2000 * 1300, 77), img);
    EXPECT_EQ(13, proc.m_nFingerWinX);
    EXPECT_EQ(17, proc.m_nFingerWinY);
    EXPECT_EQ(0, proc.m_bRollStarted);
    proc.m_nFingerWinX = 100;
    proc.m_nFingerWinY = 75;
}

int WithoutTable(CImageProc& p, bool bEx, unsigned char* pImg)
{
    tagModifyEntry** pp = nullptr;
    std::swap(bEx ? p.m_ppModifyTableEx : p.m_ppModifyTable, pp);
    const int n = (p.*(bEx ? &CImageProc::CorrectImageCalcEx : &CImageProc::CorrectImageCalc))(pImg, 1800, 1280, pImg + 1000000, 600, 600, 0, 0);
    std::swap(bEx ? p.m_ppModifyTableEx : p.m_ppModifyTable, pp);
    return n;
}

int MeanOut(int n, int nMean) { return nMean == 0 ? n : -1; }

INSTANTIATE_TEST_SUITE_P(
    EntryPoints, Refusals,
    ::testing::Values(
        Refusal{"grey", [](CImageProc& p, unsigned char* q) { p.RGBtoGRAY(nullptr, q, 4, 4); return 0; }, 0},
        Refusal{"grey2", [](CImageProc& p, unsigned char* q) { p.RGBtoGRAY2(nullptr, q, 4, 4); return 0; }, 0},
        Refusal{"mirror", [](CImageProc& p, unsigned char*) { return p.RotateRightImage(nullptr, 600, 600); }, 0},
        Refusal{"lookup_src", [](CImageProc& p, unsigned char* q) { return p.CorrectImage(nullptr, 1280, 676, q, 600, 600, 0, 0); }, 0},
        Refusal{"lookup_dst", [](CImageProc& p, unsigned char* q) { return p.CorrectImage(q, 1280, 676, nullptr, 600, 600, 0, 0); }, 0},
        Refusal{"calc_src", [](CImageProc& p, unsigned char* q) { return p.CorrectImageCalc(nullptr, 1288, 876, q, 600, 600, 0, 0); }, 0},
        Refusal{"calc_dst", [](CImageProc& p, unsigned char* q) { return p.CorrectImageCalc(q, 1288, 876, nullptr, 600, 600, 0, 0); }, 0},
        Refusal{"calcex_src", [](CImageProc& p, unsigned char* q) { return p.CorrectImageCalcEx(nullptr, 1800, 1280, q, 600, 600, 0, 0); }, 0},
        Refusal{"calcex_dst", [](CImageProc& p, unsigned char* q) { return p.CorrectImageCalcEx(q, 1800, 1280, nullptr, 600, 600, 0, 0); }, 0},
        Refusal{"calc_table", [](CImageProc& p, unsigned char* q) { return WithoutTable(p, false, q); }, 0},
        Refusal{"calcex_table", [](CImageProc& p, unsigned char* q) { return WithoutTable(p, true, q); }, 0},
        Refusal{"quality2_null", [](CImageProc& p, unsigned char*) { return p.CheckImageQuality2(600, 600, nullptr); }, 0},
        Refusal{"quality2_wide", [](CImageProc& p, unsigned char* q) { return p.CheckImageQuality2(601, 600, q); }, 0},
        Refusal{"quality2_tall", [](CImageProc& p, unsigned char* q) { return p.CheckImageQuality2(600, 601, q); }, 0},
        Refusal{"quality2_negative", [](CImageProc& p, unsigned char* q) { return p.CheckImageQuality2(-1, 600, q); }, 0},
        Refusal{"quality_null", [](CImageProc& p, unsigned char*) { return p.CheckImageQuality(600, 600, nullptr); }, 0},
        Refusal{"quality_empty", [](CImageProc& p, unsigned char* q) { return p.CheckImageQuality(0, 600, q); }, 0},
        Refusal{"deviation", [](CImageProc& p, unsigned char*) { int m = -1, n = p.GetStdDeviation(5, 5, nullptr, &m); return MeanOut(n, m); }, 0},
        Refusal{"latent1", [](CImageProc& p, unsigned char*) { return int(p.CheckLatent1(nullptr, 1214)); }, 1},
        Refusal{"latent2", [](CImageProc& p, unsigned char*) { return int(p.CheckLatent2(nullptr)); }, 1},
        Refusal{"latent_rvm71", [](CImageProc& p, unsigned char*) { return int(p.CheckLatentForRVM71(nullptr)); }, 1},
        Refusal{"variance", [](CImageProc& p, unsigned char*) { int m = -1, n = p.GetLocalVariance(24, 32, nullptr, &m); return MeanOut(n, m); }, 0},
        Refusal{"finger_state", [](CImageProc& p, unsigned char*) { return p.EstimateFingerState(600, 600, nullptr); }, 0},
        Refusal{"compose_frame", [](CImageProc& p, unsigned char* q) { return p.ImageComposition(nullptr, q, 360000, 1, 1.0f); }, 1},
        Refusal{"compose_composite", [](CImageProc& p, unsigned char* q) { return p.ImageComposition(q, nullptr, 360000, 1, 1.0f); }, 1},
        Refusal{"compose_size", [](CImageProc& p, unsigned char* q) { return p.ImageComposition(q, q + 400000, 359999, 1, 1.0f); }, 1},
        Refusal{"histoequal", [](CImageProc& p, unsigned char* q) { p.Histoequal(nullptr, 600, 600); p.Histoequal(q, 0, 600); return 0; }, 0},
        Refusal{"final", [](CImageProc& p, unsigned char*) { p.Final(nullptr); return 0; }, 0}),
    [](const ::testing::TestParamInfo<Refusal>& info) { return std::string(info.param.pszName); });

} // namespace
