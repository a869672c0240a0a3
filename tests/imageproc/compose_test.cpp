// Rolled composition tests: reset, finger location, roll direction and its
// end conditions, and the box merge against a reference built from
// summed-area tables (and direct 21 x 21 sums for narrow strips).
#include "tavk05/isproc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

typedef std::vector<unsigned char> Image;

CImageProc& Proc()
{
    static CImageProc proc;
    return proc;
}

// Finger frames. Rows with y mod 4 in {0, 1} of the finger columns a..b are dark, all else
// is at the background level. Against a flat background the converted image is 255 except
// those dark pixels, so every finger column counts all 598 inner rows in the activity
// profile (its upper and lower neighbours always differ), each neighbouring column counts
// the 299 dark rows (left and right neighbours differ there) and nothing else counts.
// Smoothed over 11 columns, the profile falls to 299 / 11 = 27 six columns outside the
// finger: the finger edges are found at a - 5 and b + 5 (for 11 <= a, b <= 588).
Image FingerFrame(int a, int b, int background = 255, unsigned seed = 0)
{
    Image f(360000, (unsigned char)background);
    if (seed)
        std::srand(seed);
    for (int y = 0; y < 600; ++y) {
        if (y % 4 > 1)
            continue;
        for (int x = a; x <= b; ++x)
            f[y * 600 + x] = (unsigned char)(background - 85 + (seed ? std::rand() % 27 : 0));
    }
    return f;
}

// Converted level without contrast table: 255 - 3 (background - frame), within 0..255.
Image Converted(const Image& f, int background)
{
    Image g(360000);
    for (int i = 0; i < 360000; ++i) {
        const int d = std::max(0, background - f[i]);
        g[i] = (unsigned char)std::max(0, 255 - 3 * d);
    }
    return g;
}

// Sum of the 21 x 21 box with top-left (i, c) of an image, directly or from a summed-area
// table.
struct BoxSums {
    std::vector<long long> sat;
    const Image* img;
    bool direct;
    BoxSums(const Image& im, bool bDirect) : sat(601 * 601, 0), img(&im), direct(bDirect)
    {
        for (int r = 0; r < 600; ++r)
            for (int c = 0; c < 600; ++c)
                sat[(r + 1) * 601 + c + 1] = im[r * 600 + c] + sat[r * 601 + c + 1] + sat[(r + 1) * 601 + c] - sat[r * 601 + c];
    }
    long long operator()(int i, int c) const
    {
        if (direct) {
            long long s = 0;
            for (int r = i; r < i + 21; ++r)
                for (int k = c; k < c + 21; ++k)
                    s += (*img)[r * 600 + k];
            return s;
        }
        return sat[(i + 21) * 601 + c + 21] - sat[i * 601 + c + 21] - sat[(i + 21) * 601 + c] + sat[i * 601 + c];
    }
};

// Expected composite after merging new pixels y into composite x at seam s. Only boxes that
// lie wholly inside the image decide a pixel.
Image Merged(const Image& x, const Image& y, int s, int direction, bool direct = false)
{
    Image out = x;
    const BoxSums sx(x, direct), sy(y, direct);
    if (direction == 1) {
        for (int j = 0; j <= 569 - s; ++j) {
            const int left = s - 10 + j;
            if (left < 0)
                continue;
            for (int i = 0; i <= 579; ++i)
                if (sx(i, left) > sy(i, left))
                    out[(i + 10) * 600 + s + j] = y[(i + 10) * 600 + s + j];
        }
        for (int r = 0; r < 600; ++r)
            if (r < 10 || r >= 590)
                for (int c = std::max(s, 0); c < 600; ++c)
                    out[r * 600 + c] = y[r * 600 + c];
    } else {
        for (int j = 0; j <= s - 11; ++j) {
            if (j + 20 > 599)
                continue;
            for (int i = 0; i <= 579; ++i)
                if (sx(i, j) > sy(i, j))
                    out[(i + 10) * 600 + j] = y[(i + 10) * 600 + j];
        }
        for (int r = 0; r < 600; ++r)
            if (r < 10 || r >= 590)
                for (int c = 0; c < std::min(s, 600); ++c)
                    out[r * 600 + c] = y[r * 600 + c];
    }
    return out;
}

class Compose : public ::testing::Test {
protected:
    Image comp = Image(360000, 77);

    void SetUp() override { Prepare(255, 3); }

    void Prepare(int background, int deviceType)
    {
        CImageProc& p = Proc();
        std::memset(p.m_pBackground, background, 360000);
        p.m_bContrastTable = 0;
        p.m_nDeviceType = deviceType;
        ASSERT_EQ(0, p.ImageComposition(nullptr, nullptr, 360000, 0, 1.0f));
    }
    int Call(Image& frame, int n = 1, float contrast = 1.0f)
    {
        return Proc().ImageComposition(frame.data(), comp.data(), 360000, n, contrast);
    }
    // Puts the processor in the middle of a roll with the given previous edges.
    void Rolling(int direction, int left, int right)
    {
        CImageProc& p = Proc();
        p.m_bRollStarted = 1;
        p.m_nRollDirection = direction;
        p.m_nRollLeft = left;
        p.m_nRollRight = right;
    }
    void ExpectState(int started, int left, int right)
    {
        EXPECT_EQ(started, Proc().m_bRollStarted);
        EXPECT_EQ(left, Proc().m_nRollLeft);
        EXPECT_EQ(right, Proc().m_nRollRight);
    }
};

TEST_F(Compose, ResetClearsTheStateOnly)
{
    CImageProc& p = Proc();
    p.m_bRollStarted = 1;
    p.m_nRollCenter = 5;
    p.m_nRollLeft = 6;
    p.m_nRollRight = 7;
    p.m_nRollDirection = 2;
    Image frame = FingerFrame(100, 200);
    EXPECT_EQ(0, Call(frame, 0));
    EXPECT_EQ(0, p.m_nRollCenter);
    ExpectState(0, 0, 0);
    EXPECT_EQ(2, p.m_nRollDirection);
    EXPECT_EQ(Image(360000, 77), comp);
    EXPECT_EQ(0, p.ImageComposition(nullptr, nullptr, 0, -4, 1.0f));
}

TEST_F(Compose, FirstFrameBecomesTheCompositeAndFixesTheDirection)
{
    Image frame = FingerFrame(200, 398);
    EXPECT_EQ(0, Call(frame));
    EXPECT_EQ(Converted(frame, 255), comp);
    ExpectState(1, 195, 403);
    EXPECT_EQ(299, Proc().m_nRollCenter);
    EXPECT_EQ(1, Proc().m_nRollDirection);

    Prepare(255, 3);
    Image right = FingerFrame(200, 400);
    EXPECT_EQ(0, Call(right));
    ExpectState(1, 195, 405);
    EXPECT_EQ(300, Proc().m_nRollCenter);
    EXPECT_EQ(2, Proc().m_nRollDirection);
}

TEST_F(Compose, FingerReachingTheSidesOfTheImage)
{
    // Finger from column 0: the profile never falls to 30 on the left, so the left edge is 0.
    Image left = FingerFrame(0, 7);
    EXPECT_EQ(0, Call(left));
    ExpectState(1, 0, 12);
    Prepare(255, 3);
    Image right = FingerFrame(450, 599);
    EXPECT_EQ(0, Call(right));
    ExpectState(1, 445, 599);
    EXPECT_EQ(2, Proc().m_nRollDirection);
}

TEST_F(Compose, NoFingerCompletesWithoutTouchingTheComposite)
{
    Image blank(360000, 255);
    EXPECT_EQ(1, Call(blank));
    ExpectState(0, 0, 0);
    EXPECT_EQ(Image(360000, 77), comp);

    Image frame = FingerFrame(100, 200);
    ASSERT_EQ(0, Call(frame));
    const Image started = comp;
    EXPECT_EQ(1, Call(blank, 2));
    EXPECT_EQ(0, Proc().m_bRollStarted);
    EXPECT_EQ(started, comp);
}

TEST_F(Compose, EdgesWhereTheProfileFallsTo30)
{
    // Isolated dark pixels two columns outside the usual edge column add 4 counts each to
    // its smoothing window (2 in their own column, 1 in each neighbour): with 8 of them the
    // window sums to 299 + 32 = 331, smoothed 30, still an edge; with 11, 343 gives 31 and
    // the edge moves one column further out.
    for (int dots : {8, 11}) {
        Prepare(255, 3);
        Image f = FingerFrame(200, 300);
        for (int k = 0; k < dots; ++k) {
            f[(10 + 4 * k) * 600 + 192] = 170; // left of the finger
            f[(10 + 4 * k) * 600 + 308] = 170; // right of it
        }
        ASSERT_EQ(0, Call(f));
        ExpectState(1, dots == 8 ? 195 : 194, dots == 8 ? 305 : 306);
    }
}

TEST_F(Compose, ProfileNearTheSidesAveragesFewerColumns)
{
    // Finger from column 8: the smoothed value at column 2 averages columns 0..7 only,
    // 299 / 8 = 37, so the edge is found one column further left, at column 1 + 1.
    Image f = FingerFrame(8, 100);
    ASSERT_EQ(0, Call(f));
    ExpectState(1, 2, 105);
}

TEST_F(Compose, ActivityNeedsNeighbourStepsAbove15)
{
    // Converted steps of 15 (frame 5 below the background) do not count, 18 (6 below) do.
    // Horizontal texture: columns in pairs; vertical texture: rows in pairs.
    for (int below : {5, 6}) {
        for (int vertical : {0, 1}) {
            Prepare(255, 3);
            Image f(360000, 255);
            for (int y = 0; y < 600; ++y)
                for (int x = 100; x <= 300; ++x)
                    if (((vertical ? y : x) % 4) < 2)
                        f[y * 600 + x] = (unsigned char)(255 - below);
            EXPECT_EQ(below == 5 ? 1 : 0, Call(f)) << below << " " << vertical;
        }
    }
}

// Plain model of the finger location on a converted image: activity per column, 11-column
// mean, first peak column, edges where the mean falls to 30.
struct Location {
    int peak, left, right;
};

Location Locate(const Image& g)
{
    int act[600] = {0};
    for (int y = 1; y <= 598; ++y)
        for (int x = 1; x <= 598; ++x)
            if (std::abs(g[y * 600 + x - 1] - g[y * 600 + x + 1]) > 15 ||
                std::abs(g[(y - 1) * 600 + x] - g[(y + 1) * 600 + x]) > 15)
                ++act[x];
    int sm[600];
    for (int c = 0; c < 600; ++c) {
        int sum = 0, n = 0;
        for (int k = std::max(0, c - 5); k <= std::min(599, c + 5); ++k, ++n)
            sum += act[k];
        sm[c] = sum / n;
    }
    const int p = (int)(std::max_element(sm, sm + 600) - sm);
    Location loc = {sm[p], 0, 599};
    for (int c = p; c >= 0; --c)
        if (sm[c] <= 30) {
            loc.left = c + 1;
            break;
        }
    for (int c = p; c < 600; ++c)
        if (sm[c] <= 30) {
            loc.right = c - 1;
            break;
        }
    return loc;
}

TEST_F(Compose, LocationMatchesThePixelModel)
{
    // Random levels around the activity step over a random part of the frame.
    std::srand(43);
    int found = 0, missed = 0;
    for (int trial = 0; trial < 12; ++trial) {
        Prepare(255, 3);
        Image f(360000, 255);
        const int a = std::rand() % 500, b = a + 10 + std::rand() % 300;
        const int spread = 3 + std::rand() % 10; // frame levels: converted steps up to 3 x spread
        for (int y = 0; y < 600; ++y)
            for (int x = a; x <= std::min(599, b); ++x)
                f[y * 600 + x] = (unsigned char)(255 - std::rand() % (spread + 1));
        const Location loc = Locate(Converted(f, 255));
        const int result = Call(f);
        if (loc.peak < 50) {
            EXPECT_EQ(1, result) << trial;
            ++missed;
            continue;
        }
        ASSERT_EQ(0, result) << trial;
        ExpectState(1, loc.left, loc.right);
        ++found;
    }
    EXPECT_GT(found, 2);
    EXPECT_GT(missed, 0);
}

TEST_F(Compose, PresenceNeedsAProfilePeakOf50)
{
    // Twelve pairs of dark rows (rows 4..49) make each finger column count 48 rows; one more
    // single dark row (row 100) adds its two neighbours: 50.
    for (int extra : {0, 1}) {
        Prepare(255, 3);
        Image f(360000, 255);
        for (int x = 100; x <= 299; ++x) {
            for (int k = 1; k <= 12; ++k)
                f[(4 * k) * 600 + x] = f[(4 * k + 1) * 600 + x] = 170;
            if (extra)
                f[100 * 600 + x] = 170;
        }
        EXPECT_EQ(extra ? 0 : 1, Call(f)) << extra;
        EXPECT_EQ(extra, Proc().m_bRollStarted);
    }
}

TEST_F(Compose, RetreatOfTheLeadingEdge)
{
    // Rightward roll from edges 95..205: the right edge at 195 is ignored, at 194 it ends.
    Image first = FingerFrame(100, 200);
    ASSERT_EQ(0, Call(first));
    const Image start = comp;
    Image back10 = FingerFrame(120, 190);
    EXPECT_EQ(0, Call(back10, 2));
    ExpectState(1, 95, 205);
    EXPECT_EQ(start, comp);
    Image back11 = FingerFrame(120, 189);
    EXPECT_EQ(1, Call(back11, 3));
    ExpectState(1, 95, 205);
    EXPECT_EQ(start, comp);

    // Leftward roll from edges 395..505: the left edge at 405 is ignored, at 406 it ends.
    Prepare(255, 3);
    Image second = FingerFrame(400, 500);
    ASSERT_EQ(0, Call(second));
    ASSERT_EQ(2, Proc().m_nRollDirection);
    const Image start2 = comp;
    Image fwd10 = FingerFrame(410, 480);
    EXPECT_EQ(0, Call(fwd10, 2));
    ExpectState(1, 395, 505);
    Image fwd11 = FingerFrame(411, 480);
    EXPECT_EQ(1, Call(fwd11, 3));
    ExpectState(1, 395, 505);
    EXPECT_EQ(start2, comp);
}

TEST_F(Compose, SpeedLimitOnTheMeanEdgeMove)
{
    const struct {
        int a, b, result;
    } cases[] = {
        {190, 290, 0}, // both edges +90: mean 90
        {190, 291, 0}, // +90 and +91: (181) / 2 = 90
        {191, 291, 2}, // mean 91
    };
    for (const auto& c : cases) {
        Prepare(255, 3);
        Image first = FingerFrame(100, 200);
        ASSERT_EQ(0, Call(first));
        const Image start = comp;
        Image next = FingerFrame(c.a, c.b);
        EXPECT_EQ(c.result, Call(next, 2)) << c.a << " " << c.b;
        if (c.result == 2) {
            ExpectState(1, 95, 205);
            EXPECT_EQ(start, comp);
        } else {
            ExpectState(1, c.a - 5, c.b + 5);
        }
    }
    // Leftward roll: a right edge running away toward higher columns trips the same test.
    for (int b : {530, 532}) {
        Prepare(255, 3);
        Image first = FingerFrame(300, 350); // edges 295..355, centre 325
        ASSERT_EQ(0, Call(first));
        Image next = FingerFrame(300, b);
        EXPECT_EQ(b == 530 ? 0 : 2, Call(next, 2)) << b;
    }
    // A fast move toward lower columns never does.
    Prepare(255, 3);
    Image first = FingerFrame(400, 500);
    ASSERT_EQ(0, Call(first));
    Image far = FingerFrame(100, 200);
    EXPECT_EQ(0, Call(far, 2));
    ExpectState(1, 95, 205);
}

TEST_F(Compose, SeamTooCloseToTheEdgeCompletes)
{
    // Rightward: seam (580 + 560) / 2 = 570 leaves no box: complete, nothing merged.
    Image frame = FingerFrame(565, 580);
    Rolling(1, 560, 580);
    EXPECT_EQ(1, Call(frame, 5));
    EXPECT_EQ(Image(360000, 77), comp);
    ExpectState(1, 560, 580);
    // Seam 569: one box column (centre column 569) and the border rows from 569. A bright
    // composite loses to the finger there.
    comp.assign(360000, 250);
    Image closer = FingerFrame(563, 580);
    Rolling(1, 560, 580);
    EXPECT_EQ(0, Call(closer, 5));
    EXPECT_EQ(Merged(Image(360000, 250), Converted(closer, 255), 569, 1), comp);
    EXPECT_EQ(250, comp[300 * 600 + 568]);
    EXPECT_EQ(0, comp[300 * 600 + 569]); // a dark finger row
    EXPECT_EQ(250, comp[300 * 600 + 570]);

    // Leftward: seam (10 + 11) / 2 = 10 completes; (10 + 12) / 2 = 11 merges column 0 only.
    comp.assign(360000, 77);
    Image six = FingerFrame(0, 6);
    Rolling(2, 10, 20);
    EXPECT_EQ(1, Call(six, 5));
    EXPECT_EQ(Image(360000, 77), comp);
    Image seven = FingerFrame(0, 7);
    Rolling(2, 10, 20);
    EXPECT_EQ(0, Call(seven, 5));
    ExpectState(1, 0, 12);
    EXPECT_EQ(Merged(Image(360000, 77), Converted(seven, 255), 11, 2), comp);
}

// Merge extent: with the composite one level brighter than the new pixels everywhere, every
// box takes the new pixel; one level darker, none does. The border rows are copied anyway.
// Device types 5 and 6 merge the frame's own pixels.
TEST_F(Compose, MergeExtentAndFramePixelsForDevices5And6)
{
    for (int device : {5, 6}) {
        for (int delta : {1, -1}) {
            // Rightward: edges 95..205, then 115..225, seam (205 + 115) / 2 = 160.
            Prepare(250, device);
            Image first = FingerFrame(100, 200, 250);
            ASSERT_EQ(0, Call(first));
            EXPECT_EQ(first, comp); // the frame itself, not its conversion
            Image next = FingerFrame(120, 220, 250);
            for (int i = 0; i < 360000; ++i)
                comp[i] = (unsigned char)(next[i] + delta);
            ASSERT_EQ(0, Call(next, 2));
            for (int r = 0; r < 600; ++r)
                for (int c = 0; c < 600; ++c) {
                    const bool border = r < 10 || r >= 590;
                    const bool taken = c >= 160 && (border || (delta > 0 && c <= 569));
                    ASSERT_EQ(next[r * 600 + c] + (taken ? 0 : delta), comp[r * 600 + c])
                        << device << " " << delta << " " << r << " " << c;
                }
            EXPECT_EQ(125, Proc().m_nRollCenter); // first column of the peak: finger column 120 + 5

            // Leftward: edges 395..505, then 375..485, seam (395 + 485) / 2 = 440. Boxes
            // decide columns 0..429; columns 430..439 are left out except in the border rows.
            Prepare(250, device);
            Image second = FingerFrame(400, 500, 250);
            ASSERT_EQ(0, Call(second));
            Image left = FingerFrame(380, 480, 250);
            for (int i = 0; i < 360000; ++i)
                comp[i] = (unsigned char)(left[i] + delta);
            ASSERT_EQ(0, Call(left, 2));
            for (int r = 0; r < 600; ++r)
                for (int c = 0; c < 600; ++c) {
                    const bool border = r < 10 || r >= 590;
                    const bool taken = border ? c <= 439 : (delta > 0 && c <= 429);
                    ASSERT_EQ(left[r * 600 + c] + (taken ? 0 : delta), comp[r * 600 + c])
                        << device << " " << delta << " " << r << " " << c;
                }
        }
    }
}

TEST_F(Compose, EqualBoxSumsKeepTheComposite)
{
    // Composite = new pixels + 1 on columns 0 mod 21 and - 1 on columns 1 mod 21: every
    // 21-column box holds one of each, so all box sums are equal and nothing is taken.
    Prepare(250, 5);
    Image first = FingerFrame(100, 200, 250);
    ASSERT_EQ(0, Call(first));
    Image next = FingerFrame(120, 220, 250);
    Image x = next;
    for (int r = 0; r < 600; ++r)
        for (int c = 0; c < 600; ++c)
            x[r * 600 + c] = (unsigned char)(next[r * 600 + c] + (c % 21 == 0) - (c % 21 == 1));
    comp = x;
    ASSERT_EQ(0, Call(next, 2));
    for (int r = 0; r < 600; ++r)
        for (int c = 0; c < 600; ++c) {
            const bool border = (r < 10 || r >= 590) && c >= 160;
            ASSERT_EQ(border ? next[r * 600 + c] : x[r * 600 + c], comp[r * 600 + c]) << r << " " << c;
        }
}

TEST_F(Compose, RandomRollsMatchTheReference)
{
    for (int device : {3, 5}) {
        // Rightward roll over five frames with random ridge levels.
        Prepare(255, device);
        int n = 1;
        for (int a = 60; a <= 300; a += 60) {
            Image frame = FingerFrame(a, a + 120, 255, (unsigned)(a + device));
            const Image before = comp;
            const int right = Proc().m_nRollRight;
            const int started = Proc().m_bRollStarted;
            ASSERT_EQ(0, Call(frame, n++));
            const Image y = device == 5 ? frame : Converted(frame, 255);
            if (!started) {
                EXPECT_EQ(y, comp);
                continue;
            }
            const int s = (right + Proc().m_nRollLeft) / 2;
            ASSERT_EQ(Merged(before, y, s, 1), comp) << device << " " << a;
        }
        // Leftward roll.
        Prepare(255, device);
        n = 1;
        for (int a = 440; a >= 200; a -= 60) {
            Image frame = FingerFrame(a, a + 120, 255, (unsigned)(a * 3 + device));
            const Image before = comp;
            const int left = Proc().m_nRollLeft;
            const int started = Proc().m_bRollStarted;
            ASSERT_EQ(0, Call(frame, n++));
            if (!started)
                continue;
            const Image y = device == 5 ? frame : Converted(frame, 255);
            const int s = (left + Proc().m_nRollRight) / 2;
            ASSERT_EQ(Merged(before, y, s, 2), comp) << device << " " << a;
        }
    }
}

TEST_F(Compose, NarrowStripsAgainstDirectBoxSums)
{
    // Rightward seam 560: ten box columns; leftward seam 20: ten box columns.
    Image frame = FingerFrame(565, 585, 255, 17);
    std::srand(23);
    for (auto& v : comp)
        v = (unsigned char)(std::rand() % 256);
    Image before = comp;
    Rolling(1, 540, 560);
    ASSERT_EQ(0, Call(frame, 9));
    ASSERT_EQ(560, Proc().m_nRollLeft);
    EXPECT_EQ(Merged(before, Converted(frame, 255), 560, 1, true), comp);

    Image leftFrame = FingerFrame(0, 15, 255, 19);
    before = comp;
    Rolling(2, 20, 20);
    ASSERT_EQ(0, Call(leftFrame, 9));
    ASSERT_EQ(20, Proc().m_nRollRight);
    EXPECT_EQ(Merged(before, Converted(leftFrame, 255), 20, 2, true), comp);
}

// Seams so close to a side that the strip would leave the image: only whole boxes decide,
// the columns whose box does not fit keep the composite, the border rows are copied.
TEST_F(Compose, SeamsNearTheSidesStayInsideTheImage)
{
    std::srand(29);
    for (int seam : {0, 9}) {
        for (auto& v : comp)
            v = (unsigned char)(std::rand() % 256);
        const Image before = comp;
        Image frame = FingerFrame(0, 150, 255, (unsigned)(31 + seam));
        Rolling(1, 0, 2 * seam); // new left edge 0: seam = previous right / 2
        ASSERT_EQ(0, Call(frame, 4));
        ASSERT_EQ(0, Proc().m_nRollLeft);
        const Image y = Converted(frame, 255);
        EXPECT_EQ(Merged(before, y, seam, 1), comp) << seam;
        for (int r = 10; r < 590; ++r)
            for (int c = seam; c < 10; ++c)
                ASSERT_EQ(before[r * 600 + c], comp[r * 600 + c]) << seam << " " << r << " " << c;
    }
    for (int left : {599, 591}) {
        for (auto& v : comp)
            v = (unsigned char)(std::rand() % 256);
        const Image before = comp;
        Image frame = FingerFrame(450, 599, 255, (unsigned)left);
        Rolling(2, left, 599);
        ASSERT_EQ(0, Call(frame, 4));
        ASSERT_EQ(599, Proc().m_nRollRight);
        const int seam = (left + 599) / 2;
        const Image y = Converted(frame, 255);
        EXPECT_EQ(Merged(before, y, seam, 2), comp) << seam;
        for (int r = 10; r < 590; ++r)
            for (int c = 580; c < 600; ++c)
                ASSERT_EQ(before[r * 600 + c], comp[r * 600 + c]) << seam << " " << r << " " << c;
    }
}

TEST_F(Compose, ContrastTableConversions)
{
    // Device 7: (125 - d) x contrast, truncated and limited. Background 200, finger dark
    // rows at 115 (d = 85), outside 200 (d = 0) and a band of other levels.
    Prepare(200, 7);
    Proc().m_bContrastTable = 1;
    Image frame = FingerFrame(100, 300, 200);
    for (int x = 400; x < 600; ++x)
        frame[300 * 600 + x] = (unsigned char)(x - 300); // d from 200 down to 0; 100..299 wraps
    const float contrast = 1.7f;
    ASSERT_EQ(0, Call(frame, 1, contrast));
    for (int i = 0; i < 360000; ++i) {
        const int d = std::max(0, 200 - frame[i]);
        const double v = (125 - d) * (double)contrast;
        const int expect = v < 0 ? 0 : (v > 255 ? 255 : (int)v);
        ASSERT_EQ(expect, comp[i]) << i;
    }
    EXPECT_EQ(212, comp[0]);               // 125 x 1.7 = 212.5
    EXPECT_EQ(68, comp[0 * 600 + 100]);    // 40 x 1.7 = 68 (from a float just above 1.7)

    // Other devices: table, then a rand() jitter of -4..+4 per pixel in row-major order,
    // then the contrast factor.
    Prepare(255, 3);
    Proc().m_bContrastTable = 1;
    for (int g = 0; g < 256; ++g)
        Proc().m_ucContrastTable[g] = (unsigned char)(g / 2 + 100);
    Image f2 = FingerFrame(150, 350);
    std::srand(99);
    ASSERT_EQ(0, Call(f2, 1, 1.5f));
    const int after = std::rand();
    std::srand(99);
    for (int i = 0; i < 360000; ++i) {
        const int d = std::max(0, 255 - f2[i]);
        const int t = std::max(0, 255 - 3 * d);
        const int v = Proc().m_ucContrastTable[t] + std::rand() % 9 - 4;
        const int expect = std::min(255, std::max(0, (int)(v * 1.5)));
        ASSERT_EQ(expect, comp[i]) << i;
    }
    EXPECT_EQ(std::rand(), after); // exactly one draw per pixel, no reseeding
    ExpectState(1, 145, 355);
}

TEST_F(Compose, RefusedCalls)
{
    Image frame = FingerFrame(100, 200);
    EXPECT_EQ(1, Proc().ImageComposition(frame.data(), comp.data(), 359999, 1, 1.0f));
    EXPECT_EQ(1, Proc().ImageComposition(nullptr, comp.data(), 360000, 1, 1.0f));
    EXPECT_EQ(1, Proc().ImageComposition(frame.data(), nullptr, 360000, 1, 1.0f));
    ExpectState(0, 0, 0);
    EXPECT_EQ(Image(360000, 77), comp);

    // Larger sizes work on the first 360000 bytes only.
    Image big(400000, 9);
    EXPECT_EQ(0, Proc().ImageComposition(frame.data(), big.data(), 400000, 1, 1.0f));
    const Image g = Converted(frame, 255);
    EXPECT_TRUE(std::equal(g.begin(), g.end(), big.begin()));
    for (int i = 360000; i < 400000; ++i)
        ASSERT_EQ(9, big[i]);
}

} // namespace
