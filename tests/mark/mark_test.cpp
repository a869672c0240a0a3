// Corner marks: the worked values, a table-driven model of each corner's
// rule checked against Set and Get on random images of every nominal size,
// independence of the four corners, tamper detection, and the left-bottom
// default that reads two bytes by linear index.
#include "tavk05/mark.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;
typedef void (*SetFn)(unsigned char*, int, int);
typedef int (*GetFn)(unsigned char*, int, int);

// One corner as the mark rule describes it, in (row, column) terms.
struct CornerModel {
    const char* pszName;
    SetFn pSet;
    GetFn pGet;
    // Each position is (row, column) given as (base, offset from w or h);
    // resolved by the functions below.
    int anMarked[2][2];
    int anSelA[2][2];
    int anSelB[2][2];
    int anBlock[2][2];
    bool bLinearDefault;  // left-bottom: default from bytes at indexes 1 and h
};

// A coordinate is k (from the start) when "fromEnd" is 0, else size - k.
int Coord(const int an[2], int nSize)
{
    return an[0] ? nSize - an[1] : an[1];
}

const CornerModel kCorners[4] = {
    {"left-top", SetLTWaterM, GetLTWaterM, {{0, 0}, {0, 0}}, {{0, 0}, {0, 1}}, {{0, 1}, {0, 0}}, {{0, 1}, {0, 1}}, false},
    {"right-top", SetRTWaterM, GetRTWaterM, {{0, 0}, {1, 1}}, {{0, 0}, {1, 2}}, {{0, 1}, {1, 1}}, {{0, 1}, {1, 4}}, false},
    {"left-bottom", SetLBWaterM, GetLBWaterM, {{1, 1}, {0, 0}}, {{1, 2}, {0, 0}}, {{1, 1}, {0, 1}}, {{1, 4}, {0, 1}}, true},
    {"right-bottom", SetRBWaterM, GetRBWaterM, {{1, 1}, {1, 1}}, {{1, 1}, {1, 2}}, {{1, 2}, {1, 1}}, {{1, 4}, {1, 4}}, false},
};

long Index(const int an[2][2], int w, int h)
{
    return static_cast<long>(Coord(an[0], h)) * w + Coord(an[1], w);
}

// The value the corner should carry, from the rule as stated.
int Expected(const CornerModel& m, const Bytes& img, int w, int h)
{
    const int a = img[Index(m.anSelA, w, h)];
    const int b = img[Index(m.anSelB, w, h)];
    const int s = (a + b) % 10;
    if (s == 0) {
        if (m.bLinearDefault)
            return (img[1] + img[h]) / 2;
        return (a + b) / 2;
    }
    const int nRow = Coord(m.anBlock[0], h) + (s - 1) / 3;
    const int nCol = Coord(m.anBlock[1], w) + (s - 1) % 3;
    return img[nRow * w + nCol];
}

Bytes RandomImage(int w, int h, unsigned nSeed)
{
    std::mt19937 gen(nSeed);
    Bytes img(static_cast<size_t>(w) * h);
    for (size_t i = 0; i < img.size(); i += 4) {
        const unsigned nWord = gen();
        for (size_t k = 0; k < 4 && i + k < img.size(); ++k)
            img[i + k] = static_cast<unsigned char>(nWord >> (8 * k));
    }
    return img;
}

struct Size {
    int w, h;
};
// The nominal sizes of the image-size codes, and small odd ones.
const Size kSizes[] = {{600, 600}, {356, 292}, {228, 292}, {356, 456}, {248, 292}, {260, 300}, {5, 5}, {7, 9}};

TEST(Mark, WorkedExampleLeftTop)
{
    Bytes img(600 * 600, 0);
    img[1] = 17;
    img[600] = 25;
    img[602] = 201;  // pixel (1, 2)
    SetLTWaterM(img.data(), 600, 600);
    EXPECT_EQ(201, img[0]);
    EXPECT_EQ(1, GetLTWaterM(img.data(), 600, 600));

    img[1] = 15;
    SetLTWaterM(img.data(), 600, 600);
    EXPECT_EQ(20, img[0]);
    EXPECT_EQ(1, GetLTWaterM(img.data(), 600, 600));
}

TEST(Mark, EachCornerFollowsItsRule)
{
    unsigned nSeed = 1;
    for (const Size& sz : kSizes) {
        for (const CornerModel& m : kCorners) {
            for (int nTrial = 0; nTrial < 24; ++nTrial) {
                Bytes img = RandomImage(sz.w, sz.h, nSeed++);
                // Force the selector-0 case in some trials.
                if (nTrial % 4 == 0) {
                    img[Index(m.anSelA, sz.w, sz.h)] = 33;
                    img[Index(m.anSelB, sz.w, sz.h)] = 77;
                }
                Bytes expected = img;
                expected[Index(m.anMarked, sz.w, sz.h)] = static_cast<unsigned char>(Expected(m, img, sz.w, sz.h));
                m.pSet(img.data(), sz.w, sz.h);
                ASSERT_EQ(expected, img) << m.pszName << " " << sz.w << " x " << sz.h << " trial " << nTrial;
                ASSERT_EQ(1, m.pGet(img.data(), sz.w, sz.h)) << m.pszName;
            }
        }
    }
}

TEST(Mark, CornersAreIndependentOfStampingOrderAndStampingTwice)
{
    int anOrder[4] = {0, 1, 2, 3};
    unsigned nSeed = 2000;
    for (const Size& sz : kSizes) {
        const Bytes original = RandomImage(sz.w, sz.h, nSeed++);
        Bytes first;
        do {
            Bytes img = original;
            for (int k : anOrder)
                kCorners[k].pSet(img.data(), sz.w, sz.h);
            for (const CornerModel& m : kCorners)
                EXPECT_EQ(1, m.pGet(img.data(), sz.w, sz.h)) << m.pszName << " " << sz.w << " x " << sz.h;
            if (first.empty())
                first = img;
            EXPECT_EQ(first, img) << sz.w << " x " << sz.h;
            // Only the four corners may change.
            Bytes masked = img;
            for (const CornerModel& m : kCorners)
                masked[Index(m.anMarked, sz.w, sz.h)] = original[Index(m.anMarked, sz.w, sz.h)];
            EXPECT_EQ(original, masked);
            // Stamping again changes nothing.
            for (const CornerModel& m : kCorners)
                m.pSet(img.data(), sz.w, sz.h);
            EXPECT_EQ(first, img);
        } while (std::next_permutation(anOrder, anOrder + 4));
    }
}

TEST(Mark, TamperedSelectorIsDetected)
{
    unsigned nSeed = 4000;
    int nDetected = 0;
    for (const CornerModel& m : kCorners) {
        for (int nTrial = 0; nTrial < 50; ++nTrial) {
            Bytes img = RandomImage(600, 600, nSeed++);
            m.pSet(img.data(), 600, 600);
            // Move selector a by one level: the selector changes.
            unsigned char& bySel = img[Index(m.anSelA, 600, 600)];
            bySel = static_cast<unsigned char>(bySel == 255 ? 254 : bySel + 1);
            const bool bSame = img[Index(m.anMarked, 600, 600)] == Expected(m, img, 600, 600);
            EXPECT_EQ(bSame ? 1 : 0, m.pGet(img.data(), 600, 600)) << m.pszName;
            nDetected += bSame ? 0 : 1;
        }
    }
    EXPECT_GT(nDetected, 150);
}

TEST(Mark, OtherWidthDoesNotVerify)
{
    unsigned nSeed = 5000;
    int nFailures = 0;
    for (int nTrial = 0; nTrial < 50; ++nTrial) {
        Bytes img = RandomImage(600, 600, nSeed++);
        for (const CornerModel& m : kCorners)
            m.pSet(img.data(), 600, 600);
        for (const CornerModel& m : kCorners) {
            const int nWant = img[Index(m.anMarked, 580, 600)] == Expected(m, img, 580, 600) ? 1 : 0;
            EXPECT_EQ(nWant, m.pGet(img.data(), 580, 600)) << m.pszName;
            nFailures += 1 - nWant;
        }
    }
    EXPECT_GT(nFailures, 150);
}

TEST(Mark, LeftBottomDefaultReadsBytesOneAndH)
{
    // Square: bytes 1 and h are pixels (0, 1) and (1, 0).
    {
        Bytes img(600 * 600, 0);
        img[598 * 600] = 4;      // selector (h - 2, 0)
        img[599 * 600 + 1] = 6;  // selector (h - 1, 1): 10 mod 10 = 0
        img[1] = 90;
        img[600] = 31;
        SetLBWaterM(img.data(), 600, 600);
        EXPECT_EQ((90 + 31) / 2, img[599 * 600]);
    }
    // Not square: byte h is pixel (0, h), not a neighbour of any corner.
    {
        const int w = 300;
        const int h = 200;
        Bytes img(w * h, 0);
        img[(h - 2) * w] = 13;
        img[(h - 1) * w + 1] = 7;
        img[1] = 40;
        img[h] = 100;      // pixel (0, 200)
        img[w] = 250;      // pixel (1, 0): not read
        SetLBWaterM(img.data(), w, h);
        EXPECT_EQ(70, img[(h - 1) * w]);
        EXPECT_EQ(1, GetLBWaterM(img.data(), w, h));
        img[h] = 102;
        EXPECT_EQ(0, GetLBWaterM(img.data(), w, h));
    }
}

// With a height of the width minus one, the left-bottom default reads the
// right-top corner, so that corner must be stamped first.
TEST(Mark, HeightOneLessThanWidthNeedsTheStandardOrder)
{
    const int w = 8;
    const int h = 7;
    Bytes img(w * h, 10);
    img[(h - 2) * w] = 3;      // left-bottom selectors: 3 + 7 = 10 -> default
    img[(h - 1) * w + 1] = 7;
    img[1] = 20;               // default = (img[1] + img[7]) / 2, img[7] is the right-top corner
    img[w - 2] = 1;            // right-top selectors 1 + 10 = 11 -> s = 1: pixel (1, w - 4)
    img[w + w - 4] = 200;
    img[w - 1] = 60;

    Bytes standard = img;
    SetLTWaterM(standard.data(), w, h);
    SetRTWaterM(standard.data(), w, h);
    SetLBWaterM(standard.data(), w, h);
    SetRBWaterM(standard.data(), w, h);
    EXPECT_EQ(200, standard[w - 1]);
    EXPECT_EQ((20 + 200) / 2, standard[(h - 1) * w]);
    EXPECT_EQ(1, GetLBWaterM(standard.data(), w, h));

    Bytes reversed = img;
    SetLBWaterM(reversed.data(), w, h);
    SetRTWaterM(reversed.data(), w, h);
    EXPECT_EQ((20 + 60) / 2, reversed[(h - 1) * w]);
    EXPECT_EQ(0, GetLBWaterM(reversed.data(), w, h));
}

TEST(Mark, UniformImageKeepsItsCorners)
{
    for (int v : {0, 5, 7, 128, 255}) {
        Bytes img(356 * 292, static_cast<unsigned char>(v));
        for (const CornerModel& m : kCorners)
            m.pSet(img.data(), 356, 292);
        EXPECT_EQ(Bytes(356 * 292, static_cast<unsigned char>(v)), img) << "value " << v;
        for (const CornerModel& m : kCorners)
            EXPECT_EQ(1, m.pGet(img.data(), 356, 292)) << m.pszName << " value " << v;
    }
}

TEST(Mark, NullOrTinyImagesAreLeftAlone)
{
    Bytes img(9, 50);
    img[1] = 3;
    const Bytes before = img;
    for (const CornerModel& m : kCorners) {
        m.pSet(nullptr, 600, 600);
        EXPECT_EQ(0, m.pGet(nullptr, 600, 600));
        m.pSet(img.data(), 3, 3);
        EXPECT_EQ(0, m.pGet(img.data(), 3, 3));
    }
    EXPECT_EQ(before, img);
}

} // namespace
