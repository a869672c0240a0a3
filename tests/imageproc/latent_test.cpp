// Latent print tests: the row-spread ratio test (driver and RVM71 rows) and
// the edge-count test, on synthetic 1214 x 616 grey latent frames.
#include "tavk05/isproc.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace {

const int kStride = 1214;
const int kRows = 616;

CImageProc& Proc()
{
    static CImageProc proc;
    return proc;
}

struct Frame {
    std::vector<unsigned char> px;
    explicit Frame(unsigned char value = 100) : px(kStride * kRows, value) {}
    unsigned char& at(int r, int c) { return px[r * kStride + c]; }
    unsigned char* data() { return px.data(); }
    // Row of the measured columns 80..1133 at `base`, with `raised` of them one level higher:
    // the truncated mean stays at `base` while raised < 1054, so the spread is exactly `raised`.
    void SpreadRow(int r, int base, int raised)
    {
        for (int c = 80; c <= 1133; ++c)
            at(r, c) = (unsigned char)base;
        for (int i = 0; i < raised; ++i)
            at(r, 80 + i) = (unsigned char)(base + 1);
    }
};

// Every pair passes clearly: first rows alternate 0/255 (huge spread), second rows flat.
Frame PassingFrame(const int (*pairs)[2])
{
    Frame f;
    std::srand(7);
    for (auto& v : f.px)
        v = (unsigned char)(std::rand() % 256);
    for (int k = 0; k < 3; ++k) {
        for (int c = 80; c <= 1133; ++c)
            f.at(pairs[k][0], c) = (c % 2) ? 255 : 0;
        f.SpreadRow(pairs[k][1], 100, 0);
    }
    return f;
}

const int kDriverPairs[3][2] = {{104, 127}, {154, 180}, {207, 232}};
const int kRvmPairs[3][2] = {{67, 110}, {153, 196}, {239, 282}};

unsigned char Driver(Frame& f) { return Proc().CheckLatent2(f.data()); }
unsigned char Rvm(Frame& f) { return Proc().CheckLatentForRVM71(f.data()); }

TEST(LatentSpread, UniformFrameIsLatentForBothRowSets)
{
    Frame f(137);
    EXPECT_EQ(1, Driver(f));
    EXPECT_EQ(1, Rvm(f));
}

TEST(LatentSpread, VaryingFirstRowsAndFlatSecondRowsAreLive)
{
    Frame driver = PassingFrame(kDriverPairs);
    EXPECT_EQ(0, Driver(driver));
    Frame rvm = PassingFrame(kRvmPairs);
    EXPECT_EQ(0, Rvm(rvm));
    // Each test looks only at its own rows: the other row set is random there.
    EXPECT_EQ(1, Rvm(driver));
    EXPECT_EQ(1, Driver(rvm));
}

TEST(LatentSpread, SmallestFirstRowSpreadAgainstFlatPartner)
{
    // A flat second row makes the ratio 100 x S(first): S = 1 gives 100 (latent), S = 2 gives 200.
    for (int k = 0; k < 3; ++k) {
        Frame f = PassingFrame(kDriverPairs);
        f.SpreadRow(kDriverPairs[k][0], 50, 1);
        EXPECT_EQ(1, Driver(f)) << "pair " << k;
        f.SpreadRow(kDriverPairs[k][0], 50, 2);
        EXPECT_EQ(0, Driver(f)) << "pair " << k;
    }
}

TEST(LatentSpread, RatioOfExactly150IsLatent)
{
    // Second row spread 99 -> divisor 100; first row spread 150 gives ratio 150, 151 gives 151.
    for (int k = 0; k < 3; ++k) {
        Frame f = PassingFrame(kDriverPairs);
        f.SpreadRow(kDriverPairs[k][1], 100, 99);
        f.SpreadRow(kDriverPairs[k][0], 30, 150);
        EXPECT_EQ(1, Driver(f)) << "pair " << k;
        f.SpreadRow(kDriverPairs[k][0], 30, 151);
        EXPECT_EQ(0, Driver(f)) << "pair " << k;

        Frame g = PassingFrame(kRvmPairs);
        g.SpreadRow(kRvmPairs[k][1], 100, 99);
        g.SpreadRow(kRvmPairs[k][0], 30, 150);
        EXPECT_EQ(1, Rvm(g)) << "pair " << k;
        g.SpreadRow(kRvmPairs[k][0], 30, 151);
        EXPECT_EQ(0, Rvm(g)) << "pair " << k;
    }
}

TEST(LatentSpread, SpreadIsTakenAroundTheTruncatedMean)
{
    // Half zeros, half ones: the mean 0.5 truncates to 0, so the spread is 527 (not 263.5).
    // Against a second row of spread 348 the ratio is 52700 / 349 = 151: live.
    Frame f = PassingFrame(kDriverPairs);
    for (int c = 80; c <= 1133; ++c)
        f.at(154, c) = (unsigned char)(c % 2);
    f.SpreadRow(180, 100, 348);
    EXPECT_EQ(0, Driver(f));
    f.SpreadRow(180, 100, 349); // 52700 / 350 = 150
    EXPECT_EQ(1, Driver(f));
}

TEST(LatentSpread, OnlyTheMeasuredColumnsCount)
{
    Frame f = PassingFrame(kDriverPairs);
    // Wild values left of column 80 and right of column 1133 in the flat rows change nothing.
    for (int k = 0; k < 3; ++k) {
        const int r = kDriverPairs[k][1];
        for (int c = 0; c < 80; ++c)
            f.at(r, c) = (unsigned char)(c * 3);
        for (int c = 1134; c < kStride; ++c)
            f.at(r, c) = (unsigned char)(c * 7);
    }
    EXPECT_EQ(0, Driver(f));
    f.SpreadRow(104, 50, 2); // ratio 200 against the flat partner: still live
    EXPECT_EQ(0, Driver(f));
    f.at(127, 1133) = 101; // the last measured column counts: spread 1, ratio 100
    EXPECT_EQ(1, Driver(f));
    f.at(127, 1133) = 100;
    f.at(127, 80) = 101; // and so does the first
    EXPECT_EQ(1, Driver(f));
}

TEST(LatentSpread, NullFrameIsLatent)
{
    EXPECT_EQ(1, Proc().CheckLatent2(nullptr));
    EXPECT_EQ(1, Proc().CheckLatentForRVM71(nullptr));
}

// Edge-count frames: flat at 100; an edge sample at (r, c) is made by changing the pixel two
// columns to its right, which is neither a sample nor the lower neighbour of one.
struct EdgeFrame : Frame {
    EdgeFrame() : Frame(100) {}
    void Edges(int firstRow, int count, int step = 21)
    {
        int n = 0;
        for (int r = firstRow; r < firstRow + 30 && n < count; ++r)
            for (int c = 0; c <= 1208 && n < count; c += 4, ++n)
                at(r, c + 2) = (unsigned char)(100 + step);
    }
};

unsigned char Edge(EdgeFrame& f) { return Proc().CheckLatent1(f.data(), kStride); }

TEST(LatentEdges, BandThresholds)
{
    {
        EdgeFrame f; // E56 1, E157 99: too little texture in the lower band
        f.Edges(56, 1);
        f.Edges(157, 99);
        EXPECT_EQ(1, Edge(f));
        f.Edges(157, 100);
        EXPECT_EQ(0, Edge(f));
    }
    {
        EdgeFrame f; // E107 100 is still flat enough, 101 is not
        f.Edges(56, 200);
        f.Edges(157, 100);
        f.Edges(107, 100);
        EXPECT_EQ(0, Edge(f));
        f.Edges(107, 101);
        EXPECT_EQ(1, Edge(f));
    }
    {
        EdgeFrame f; // the same for E208
        f.Edges(56, 1);
        f.Edges(157, 100);
        f.Edges(208, 100);
        EXPECT_EQ(0, Edge(f));
        f.Edges(208, 101);
        EXPECT_EQ(1, Edge(f));
    }
    {
        EdgeFrame f; // the top band must be strictly busier than the band at row 107
        f.Edges(157, 300);
        f.Edges(107, 5);
        f.Edges(56, 5);
        EXPECT_EQ(1, Edge(f));
        f.Edges(56, 6);
        EXPECT_EQ(0, Edge(f));
    }
}

TEST(LatentEdges, StepOf20IsNoEdgeAnd21Is)
{
    for (int sign : {1, -1}) {
        // Rightward neighbours.
        EdgeFrame f;
        f.Edges(56, 1);
        f.Edges(157, 99);
        f.at(186, 1202) = (unsigned char)(100 + 20 * sign); // right neighbour of sample (186, 1200)
        EXPECT_EQ(1, Edge(f)) << sign;
        f.at(186, 1202) = (unsigned char)(100 + 21 * sign);
        EXPECT_EQ(0, Edge(f)) << sign;

        // Lower neighbours: row 188 lies below the band, so only sample (186, 1208) sees it.
        EdgeFrame g;
        g.Edges(56, 1);
        g.Edges(157, 99);
        g.at(188, 1208) = (unsigned char)(100 + 20 * sign);
        EXPECT_EQ(1, Edge(g)) << sign;
        g.at(188, 1208) = (unsigned char)(100 + 21 * sign);
        EXPECT_EQ(0, Edge(g)) << sign;
    }
}

TEST(LatentEdges, OnlySamplesOnEveryFourthColumnCount)
{
    EdgeFrame f;
    f.Edges(56, 1);
    f.Edges(157, 99);
    // A jump right of an odd column, or two rows below a column 2 mod 4, is seen by no sample.
    f.at(160, 7) = 0;
    f.at(160, 1213) = 0;
    f.at(188, 2) = 0;
    EXPECT_EQ(1, Edge(f));
    f.at(186, 1202) = 0;
    EXPECT_EQ(0, Edge(f));
}

TEST(LatentEdges, SampleWithBothNeighboursDifferentCountsOnce)
{
    EdgeFrame f;
    f.Edges(56, 300);
    f.Edges(157, 100);
    f.Edges(107, 99);
    // Sample (136, 1200): right neighbour and lower neighbour (row 138, outside the band) both differ.
    f.at(136, 1202) = 0;
    f.at(138, 1200) = 0;
    EXPECT_EQ(0, Edge(f)); // E107 = 100, not 101
}

TEST(LatentEdges, UniformAndNullFramesAreLatentWidthIgnored)
{
    EdgeFrame flat;
    EXPECT_EQ(1, Edge(flat));
    EXPECT_EQ(1, Proc().CheckLatent1(nullptr, kStride));

    EdgeFrame live;
    live.Edges(56, 150);
    live.Edges(157, 150);
    for (unsigned int w : {0u, 1u, 600u, 1214u, 100000u})
        EXPECT_EQ(0, Proc().CheckLatent1(live.data(), w)) << w;
}

TEST(LatentEdges, TexturedTopBandsAndFlatLowerBandsOfARealisticFrame)
{
    // Ridges (period 4 across) in bands 56 and 157, a gentle ramp elsewhere.
    Frame f;
    for (int r = 0; r < kRows; ++r)
        for (int c = 0; c < kStride; ++c)
            f.at(r, c) = (unsigned char)(100 + c / 200);
    for (int band : {56, 157})
        for (int r = band; r < band + 32; ++r)
            for (int c = 0; c < kStride; ++c)
                f.at(r, c) = ((c / 2) % 2) ? 40 : 200;
    EXPECT_EQ(0, Proc().CheckLatent1(f.data(), kStride));
    // Ridges reaching into band 107 make the frame latent.
    for (int r = 107; r < 110; ++r)
        for (int c = 0; c < kStride; ++c)
            f.at(r, c) = ((c / 2) % 2) ? 40 : 200;
    EXPECT_EQ(1, Proc().CheckLatent1(f.data(), kStride));
}

} // namespace
