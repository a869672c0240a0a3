// Mosaic-to-grey conversion: worked values, uniform and saturated mosaics,
// and bit-exact agreement with the plain reference on random mosaics of
// every size in use and of sizes that end in every vector remainder.
#include "imageproc_reference.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

struct Size {
    int w;
    int h;
};

// Frame mosaics (capture and rolled paths) and the latent frame.
const Size kSizesInUse[] = {{1280, 676}, {1288, 876}, {1800, 1280}, {1214, 616}};

typedef void (CImageProc::*GreyOp)(unsigned char*, unsigned char*, int, int);

// Runs an operation into a destination pre-filled with a value the
// conversion cannot leave behind unnoticed, sized exactly.
ref::Bytes Convert(GreyOp op, ref::Bytes src, int w, int h, unsigned char byPrefill = 0x5A)
{
    ref::Bytes dst(static_cast<size_t>(w) * h, byPrefill);
    (testutil::SharedProc().*op)(src.data(), dst.data(), w, h);
    return dst;
}

TEST(Grey, WorkedExampleFourByTwo)
{
    const ref::Bytes src = {10, 20, 30, 40, 50, 60, 70, 80};
    const ref::Bytes expected = {35, 45, 55, 40, 50, 60, 70, 80};
    EXPECT_EQ(expected, Convert(&CImageProc::RGBtoGRAY, src, 4, 2));
    EXPECT_EQ(expected, Convert(&CImageProc::RGBtoGRAY2, src, 4, 2));
}

TEST(Grey, GreensAreAveragedAndEverySumTruncates)
{
    // (0, 0), x + y even: (0 + 30 + (255 + 100) / 2) / 3 = (30 + 177) / 3 = 69
    // (1, 0), x + y odd:  (9 + 30 + (255 + 0) / 2) / 3 = (39 + 127) / 3 = 55
    // (2, 0), x + y even: (9 + 60 + (0 + 0) / 2) / 3 = 23
    const ref::Bytes src = {0, 255, 9, 0, 100, 30, 0, 60};
    const ref::Bytes expected = {69, 55, 23, 0, 100, 30, 0, 60};
    EXPECT_EQ(expected, Convert(&CImageProc::RGBtoGRAY, src, 4, 2));
    EXPECT_EQ(expected, Convert(&CImageProc::RGBtoGRAY2, src, 4, 2));
}

TEST(Grey, UniformMosaicStaysUniform)
{
    for (int v : {0, 1, 2, 3, 127, 128, 254, 255}) {
        const ref::Bytes src(96 * 10, static_cast<unsigned char>(v));
        for (GreyOp op : {&CImageProc::RGBtoGRAY, &CImageProc::RGBtoGRAY2}) {
            const ref::Bytes dst = Convert(op, src, 96, 10);
            EXPECT_EQ(src, dst) << "value " << v;
        }
    }
}

TEST(Grey, MatchesReferenceOnSizesInUse)
{
    unsigned nSeed = 1;
    for (const Size& s : kSizesInUse) {
        const size_t n = static_cast<size_t>(s.w) * s.h;
        const ref::Bytes src = testutil::RandomBytes(n, nSeed++);
        ref::Bytes expected(n);
        ref::RGBtoGRAY(src.data(), expected.data(), s.w, s.h);
        ref::Bytes expected2(n);
        ref::RGBtoGRAY2(src.data(), expected2.data(), s.w, s.h);
        ASSERT_EQ(expected, expected2) << "the two visiting orders disagree at " << s.w << " x " << s.h;
        for (GreyOp op : {&CImageProc::RGBtoGRAY, &CImageProc::RGBtoGRAY2}) {
            const ref::Bytes dst = Convert(op, src, s.w, s.h);
            EXPECT_EQ("", testutil::FirstDifference(expected.data(), dst.data(), n, s.w)) << s.w << " x " << s.h;
        }
    }
}

TEST(Grey, MatchesReferenceOnEvenSizesOfEveryRemainder)
{
    unsigned nSeed = 100;
    for (int w = 2; w <= 70; w += 2) {
        for (int h : {2, 4, 6}) {
            const size_t n = static_cast<size_t>(w) * h;
            const ref::Bytes src = testutil::RandomBytes(n, nSeed++);
            ref::Bytes expected(n);
            ref::RGBtoGRAY(src.data(), expected.data(), w, h);
            EXPECT_EQ(expected, Convert(&CImageProc::RGBtoGRAY, src, w, h)) << w << " x " << h;
            EXPECT_EQ(expected, Convert(&CImageProc::RGBtoGRAY2, src, w, h)) << w << " x " << h;
        }
    }
}

// Odd sizes are not used, but the row-major operation is still defined for
// them, and the two-pass one must still follow its own visiting order.
TEST(Grey, OddSizesFollowTheirVisitingOrder)
{
    unsigned nSeed = 500;
    for (int w : {1, 3, 17, 33, 35}) {
        for (int h : {1, 2, 3, 5, 8}) {
            const size_t n = static_cast<size_t>(w) * h;
            const ref::Bytes src = testutil::RandomBytes(n, nSeed++);
            ref::Bytes expected(n), expected2(n);
            ref::RGBtoGRAY(src.data(), expected.data(), w, h);
            EXPECT_EQ(expected, Convert(&CImageProc::RGBtoGRAY, src, w, h)) << w << " x " << h;
            if (h == 1)
                continue;  // a two-pass run over one row has no defined copy
            ref::RGBtoGRAY2(src.data(), expected2.data(), w, h);
            EXPECT_EQ(expected2, Convert(&CImageProc::RGBtoGRAY2, src, w, h)) << w << " x " << h;
        }
    }
}

TEST(Grey, NullBuffersAreIgnored)
{
    ref::Bytes dst(16, 7);
    testutil::SharedProc().RGBtoGRAY(nullptr, dst.data(), 4, 4);
    testutil::SharedProc().RGBtoGRAY2(nullptr, dst.data(), 4, 4);
    EXPECT_EQ(ref::Bytes(16, 7), dst);
}

} // namespace
