// Corner marks by their properties: a Set changes its own corner pixel and
// nothing else, into one of the pixels its selector names; Get answers
// exactly whether Set would leave the image as it is; the four corners are
// independent and stamping is idempotent; out-of-range arguments are left
// alone. Random images over a grid of sizes.
#include "tavk05/mark.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;

// A corner by its sides; its selectors are the two pixels next to it and its
// source block is the 3 x 3 block one pixel in from it.
struct Corner {
    void (*pSet)(unsigned char*, int, int);
    int (*pGet)(unsigned char*, int, int);
    bool bTop, bLeft;
};

const Corner kCorners[4] = {{SetLTWaterM, GetLTWaterM, true, true},
                            {SetRTWaterM, GetRTWaterM, true, false},
                            {SetLBWaterM, GetLBWaterM, false, true},
                            {SetRBWaterM, GetRBWaterM, false, false}};

long At(int w, int r, int c) { return static_cast<long>(r) * w + c; }

long CornerAt(const Corner& k, int w, int h) { return At(w, k.bTop ? 0 : h - 1, k.bLeft ? 0 : w - 1); }

Bytes RandomImage(int w, int h, std::mt19937& gen)
{
    Bytes img(static_cast<size_t>(w) * h);
    for (auto& v : img)
        v = static_cast<unsigned char>(gen() % (gen() % 4 == 0 ? 4 : 256));  // some images of few levels
    return img;
}

std::vector<std::pair<int, int>> Sizes()
{
    std::vector<std::pair<int, int>> sizes = {{600, 600}, {356, 292}, {228, 292}, {356, 456}, {248, 292}, {260, 300}};
    for (int w = 5; w <= 12; ++w)
        for (int h = 5; h <= 12; ++h) sizes.push_back({w, h});
    return sizes;
}

// Each corner alone, with each selector sum 0..9 forced: only the corner
// pixel changes, to block position s (row-major) or, for s = 0, to the half
// sum of its selectors (left-bottom: of the bytes at indexes 1 and h); Get
// then says 1.
TEST(Mark, EachCornerTakesThePixelItsSelectorNames)
{
    std::mt19937 gen(1);
    for (const auto& size : Sizes()) {
        const int w = size.first, h = size.second;
        for (const Corner& k : kCorners) {
            const int r = k.bTop ? 0 : h - 1, c = k.bLeft ? 0 : w - 1, dr = k.bTop ? 1 : -1, dc = k.bLeft ? 1 : -1;
            for (int s = 0; s < 10; ++s) {
                Bytes img = RandomImage(w, h, gen);
                const int a = img[At(w, r, c + dc)];
                img[At(w, r + dr, c)] = static_cast<unsigned char>((s - a % 10 + 10) % 10 + 10 * (gen() % 25));
                const int b = img[At(w, r + dr, c)];
                ASSERT_EQ(s, (a + b) % 10);
                const int nBlockRow = k.bTop ? 1 : h - 4, nBlockCol = k.bLeft ? 1 : w - 4;
                int nWant = s ? img[At(w, nBlockRow + (s - 1) / 3, nBlockCol + (s - 1) % 3)] : (a + b) / 2;
                if (s == 0 && !k.bTop && k.bLeft) nWant = (img[1] + img[h]) / 2;
                Bytes want = img;
                want[CornerAt(k, w, h)] = static_cast<unsigned char>(nWant);
                k.pSet(img.data(), w, h);
                ASSERT_EQ(want, img) << w << " x " << h << " corner " << (&k - kCorners) << " s " << s;
                ASSERT_EQ(1, k.pGet(img.data(), w, h));
            }
        }
    }
}

// Get on unmarked images, on marked ones after tampering with a selector,
// and with another width: 1 exactly when Set would change nothing. All
// orders of stamping give one image, which differs from the original at most
// in its four corners (the left-bottom default reads the right-top corner
// when h = w - 1, so those sizes keep the standard order).
TEST(Mark, GetTellsWhetherSetWouldChangeTheImage)
{
    std::mt19937 gen(2);
    int anAnswers[2] = {0, 0};
    for (const auto& size : Sizes()) {
        const int w = size.first, h = size.second;
        for (int nTrial = 0; nTrial < 12; ++nTrial) {
            const Bytes original = RandomImage(w, h, gen);
            auto expectGetMatchesSet = [&](const Bytes& img, int nWidth) {
                for (const Corner& k : kCorners) {
                    Bytes stamped = img;
                    k.pSet(stamped.data(), nWidth, h);
                    const int nGet = k.pGet(const_cast<unsigned char*>(img.data()), nWidth, h);
                    ASSERT_EQ(stamped == img ? 1 : 0, nGet) << w << " x " << h << " width " << nWidth;
                    ++anAnswers[nGet];
                }
            };
            expectGetMatchesSet(original, w);
            expectGetMatchesSet(original, w - 1);
            Bytes first;
            int anOrder[4] = {0, 1, 2, 3};
            do {
                Bytes stamped = original;
                for (int n : anOrder) kCorners[n].pSet(stamped.data(), w, h);
                if (first.empty()) first = stamped;
                ASSERT_TRUE(h == w - 1 || first == stamped) << w << " x " << h;
            } while (nTrial == 0 && std::next_permutation(anOrder, anOrder + 4));
            for (const Corner& k : kCorners) EXPECT_EQ(1, k.pGet(first.data(), w, h));
            expectGetMatchesSet(first, w - 1);
            for (const Corner& k : kCorners) {
                Bytes tampered = first;
                tampered[At(w, k.bTop ? 0 : h - 1, k.bLeft ? 1 : w - 2)] ^= 1 + gen() % 9;
                expectGetMatchesSet(tampered, w);
                first[CornerAt(k, w, h)] = original[CornerAt(k, w, h)];
            }
            ASSERT_EQ(original, first) << "only the corners change";
        }
    }
    EXPECT_GT(anAnswers[0], 1000);
    EXPECT_GT(anAnswers[1], 1000);
}

// Null images and sizes below 4 are left alone and never verify.
TEST(Mark, OutOfRangeArgumentsAreLeftAlone)
{
    Bytes img(16, 50);
    for (const Corner& k : kCorners) {
        for (int n : {-1, 0, 3}) {
            k.pSet(img.data(), n, 4);
            k.pSet(img.data(), 4, n);
            EXPECT_EQ(0, k.pGet(img.data(), n, 4));
            EXPECT_EQ(0, k.pGet(img.data(), 4, n));
        }
        k.pSet(nullptr, 600, 600);
        EXPECT_EQ(0, k.pGet(nullptr, 600, 600));
        EXPECT_EQ(1, k.pGet(img.data(), 4, 4));
    }
    EXPECT_EQ(Bytes(16, 50), img);
}

}  // namespace
