// Finger state tests: block statistics of the measuring step and the
// nearest-reference classification of the finger window.
#include "tavk05/isproc.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace {

CImageProc& Proc()
{
    static CImageProc proc;
    return proc;
}

// A 600 x 600 image whose finger window at (wx, wy) is tiled with 8 x 8 blocks aligned to
// the measuring grid (window rows start one pixel into a block: 450 mod 8 = 2, offset 1).
// Each block holds k pixels of level a and 64 - k of level b.
std::vector<unsigned char> BlockImage(int wx, int wy, int k, int a, int b, unsigned char outside = 0)
{
    std::vector<unsigned char> img(360000, outside);
    for (int r = 0; r < 450; ++r)
        for (int c = 0; c < 400; ++c) {
            const int pos = ((r + 7) % 8) * 8 + c % 8; // r - 1 mod 8
            img[(wy + r) * 600 + wx + c] = (unsigned char)(pos < k ? a : b);
        }
    return img;
}

int State(std::vector<unsigned char>& img) { return Proc().EstimateFingerState(600, 600, img.data()); }

class FingerState : public ::testing::Test {
protected:
    void SetUp() override
    {
        Proc().m_nFingerWinX = 100;
        Proc().m_nFingerWinY = 75;
    }
};

TEST_F(FingerState, UniformWindows)
{
    // All 255: sd 0, mean 255, distances 238, 190, 87 -> pale.
    std::vector<unsigned char> white(360000, 255);
    EXPECT_EQ(3, State(white));
    // All 0: sd 0, mean 0, distances 44, 95, 171 -> dark.
    std::vector<unsigned char> black(360000, 0);
    EXPECT_EQ(1, State(black));
}

TEST_F(FingerState, ReferencePointsAndTies)
{
    // Block levels chosen to give exactly the wanted (sd, mean) pair in every block.
    std::vector<unsigned char> dark = BlockImage(100, 75, 2, 243, 13);   // (40, 20)
    std::vector<unsigned char> normal = BlockImage(100, 75, 7, 246, 53); // (60, 74)
    std::vector<unsigned char> pale = BlockImage(100, 75, 1, 4, 173);    // (20, 170)
    std::vector<unsigned char> tie = BlockImage(100, 75, 4, 242, 34);    // (50, 47): d1 = d2 = 28
    int mean = -1;
    std::vector<unsigned char> win(400 * 450);
    for (int r = 0; r < 450; ++r)
        for (int c = 0; c < 400; ++c)
            win[r * 400 + c] = tie[(75 + r) * 600 + 100 + c];
    EXPECT_EQ(50, Proc().GetLocalVariance(400, 450, win.data(), &mean));
    EXPECT_EQ(47, mean);

    EXPECT_EQ(1, State(dark));
    EXPECT_EQ(2, State(normal));
    EXPECT_EQ(3, State(pale));
    EXPECT_EQ(2, State(tie));
}

TEST_F(FingerState, OnlyTheCentralBlocksOfTheWindowCount)
{
    // Region of the window: columns 128..255, rows 225..368. Noise everywhere else in the
    // window and the image leaves the pale classification alone; noise inside changes it.
    std::vector<unsigned char> img = BlockImage(100, 75, 1, 4, 173);
    std::srand(3);
    for (int y = 0; y < 600; ++y)
        for (int x = 0; x < 600; ++x) {
            const int r = y - 75, c = x - 100;
            const bool inRegion = r >= 225 && r <= 368 && c >= 128 && c <= 255;
            if (!inRegion)
                img[y * 600 + x] = (unsigned char)(std::rand() % 256);
        }
    EXPECT_EQ(3, State(img));
    for (int r = 225; r <= 368; ++r)
        for (int c = 128; c <= 255; ++c)
            img[(75 + r) * 600 + 100 + c] = (unsigned char)(std::rand() % 40);
    EXPECT_EQ(1, State(img));
}

TEST_F(FingerState, WindowOriginComesFromTheProcessor)
{
    // Dark blocks only in the measured region of the window at (200, 150), white elsewhere;
    // the region of the window at (0, 0) does not overlap it.
    std::vector<unsigned char> img = BlockImage(200, 150, 2, 243, 13, 255);
    for (int y = 0; y < 600; ++y)
        for (int x = 0; x < 600; ++x) {
            const int r = y - 150, c = x - 200;
            if (!(r >= 225 && r <= 368 && c >= 128 && c <= 255))
                img[y * 600 + x] = 255;
        }
    Proc().m_nFingerWinX = 0;
    Proc().m_nFingerWinY = 0;
    EXPECT_EQ(3, State(img));
    Proc().m_nFingerWinX = 200;
    Proc().m_nFingerWinY = 150;
    EXPECT_EQ(1, State(img));
    // The window is placed by the quality check: a finger at the bottom left moves it there.
    std::vector<unsigned char> finger(360000, 0);
    for (int y = 500; y < 600; ++y)
        for (int x = 0; x < 100; ++x)
            finger[y * 600 + x] = ((x / 2 + y / 2) % 2) ? 255 : 0;
    Proc().CheckImageQuality2(600, 600, finger.data());
    EXPECT_EQ(0, Proc().m_nFingerWinX);
    EXPECT_EQ(150, Proc().m_nFingerWinY);
}

TEST_F(FingerState, WindowOutsideTheImageOrNoImageGivesZero)
{
    std::vector<unsigned char> img(360000, 0);
    Proc().m_nFingerWinX = 201;
    EXPECT_EQ(0, State(img));
    Proc().m_nFingerWinX = -1;
    EXPECT_EQ(0, State(img));
    Proc().m_nFingerWinX = 200;
    Proc().m_nFingerWinY = 151;
    EXPECT_EQ(0, State(img));
    Proc().m_nFingerWinY = 150;
    EXPECT_EQ(1, State(img));
    EXPECT_EQ(0, Proc().EstimateFingerState(600, 600, nullptr));
}

TEST(LocalVariance, SingleBlockAndGridOffsets)
{
    // 26 x 32: one region block, columns 9..16 (offset (26 mod 8) / 2 = 1), rows 16..23.
    std::vector<unsigned char> img(26 * 32, 0);
    int mean = -1;
    for (int y = 16; y <= 23; ++y)
        img[y * 26 + 8] = 255; // column 8 lies left of the block
    EXPECT_EQ(0, Proc().GetLocalVariance(26, 32, img.data(), &mean));
    EXPECT_EQ(0, mean);
    for (int y = 16; y <= 23; ++y)
        img[y * 26 + 9] = 255; // column 9 is its first: 8 of 64 pixels at 255
    // mean 2040 / 64 = 31; squares 8 x 224^2 + 56 x 31^2 = 455224; / 64 -> root 84
    EXPECT_EQ(84, Proc().GetLocalVariance(26, 32, img.data(), &mean));
    EXPECT_EQ(31, mean);
    img[15 * 26 + 12] = 255; // row 15 lies above the block
    img[24 * 26 + 12] = 255; // row 24 below it
    img[20 * 26 + 17] = 255; // column 17 right of it
    EXPECT_EQ(84, Proc().GetLocalVariance(26, 32, img.data(), &mean));
    EXPECT_EQ(31, mean);
}

TEST(LocalVariance, RowOffsetAndRegionDepth)
{
    // 24 x 98: one block column (columns 8..15); 12 block rows offset by (98 mod 8) / 2 = 1;
    // region block rows 6 .. 6 + 12 / 3 = 10 (exclusive): rows 49..80.
    std::vector<unsigned char> img(24 * 98, 0);
    int mean = -1;
    for (int x = 0; x < 24; ++x)
        img[48 * 24 + x] = img[81 * 24 + x] = 255; // the rows just outside
    EXPECT_EQ(0, Proc().GetLocalVariance(24, 98, img.data(), &mean));
    EXPECT_EQ(0, mean);
    for (int y = 73; y <= 80; ++y) // the last region block: mean 255 in one block of four
        for (int x = 8; x < 16; ++x)
            img[y * 24 + x] = 255;
    EXPECT_EQ(0, Proc().GetLocalVariance(24, 98, img.data(), &mean));
    EXPECT_EQ(63, mean);
}

TEST(LocalVariance, BlockDeviationIsTruncated)
{
    // One pixel of 255 among 63 of 0: mean 3, squares 252^2 + 63 x 9 = 64071, / 64 = 1001.1,
    // root 31.64 -> 31.
    std::vector<unsigned char> img(24 * 32, 0);
    img[16 * 24 + 8] = 255;
    int mean = -1;
    EXPECT_EQ(31, Proc().GetLocalVariance(24, 32, img.data(), &mean));
    EXPECT_EQ(3, mean);
}

TEST_F(FingerState, RegionRowsOfTheWindow)
{
    // The region's block rows 28..45 are window rows 225..368: the last of them counts
    // (16 of 288 blocks at 255 give a mean of 14), the row after it does not.
    std::vector<unsigned char> win(400 * 450, 0);
    int mean = -1;
    for (int c = 0; c < 400; ++c)
        win[369 * 400 + c] = win[224 * 400 + c] = 255;
    EXPECT_EQ(0, Proc().GetLocalVariance(400, 450, win.data(), &mean));
    EXPECT_EQ(0, mean);
    for (int r = 361; r <= 368; ++r)
        for (int c = 0; c < 400; ++c)
            win[r * 400 + c] = 255;
    EXPECT_EQ(0, Proc().GetLocalVariance(400, 450, win.data(), &mean));
    EXPECT_EQ(16 * 255 / 288, mean);
}

TEST(LocalVariance, AveragesTruncateOverTheBlocks)
{
    // 48 x 64: nbx 6 -> block columns 2..3; nby 8 -> block rows 4..5 (up to 4 + 8 / 3 = 6): 4 blocks.
    // Three flat blocks (sd 0) at 10 and one at 13: mean (30 + 13) / 4 = 10.
    std::vector<unsigned char> img(48 * 64, 10);
    for (int y = 40; y < 48; ++y)
        for (int x = 24; x < 32; ++x)
            img[y * 48 + x] = 13;
    int mean = -1;
    EXPECT_EQ(0, Proc().GetLocalVariance(48, 64, img.data(), &mean));
    EXPECT_EQ(10, mean);
    // One block of half 0, half 100 (sd 50): (0 + 0 + 0 + 50) / 4 = 12.
    for (int y = 32; y < 40; ++y)
        for (int x = 16; x < 24; ++x)
            img[y * 48 + x] = (x < 20) ? 0 : 100;
    EXPECT_EQ(12, Proc().GetLocalVariance(48, 64, img.data(), &mean));
    EXPECT_EQ((50 + 10 + 10 + 13) / 4, mean);
}

TEST(LocalVariance, TooSmallForABlock)
{
    std::vector<unsigned char> img(64 * 64, 77);
    int mean = -1;
    EXPECT_EQ(0, Proc().GetLocalVariance(23, 64, img.data(), &mean));
    EXPECT_EQ(0, mean);
    mean = -1;
    EXPECT_EQ(0, Proc().GetLocalVariance(64, 31, img.data(), &mean));
    EXPECT_EQ(0, mean);
    mean = -1;
    EXPECT_EQ(0, Proc().GetLocalVariance(24, 32, nullptr, &mean));
    EXPECT_EQ(0, mean);
    // The smallest size that holds one: 24 x 32.
    EXPECT_EQ(0, Proc().GetLocalVariance(24, 32, img.data(), &mean));
    EXPECT_EQ(77, mean);
}

TEST(AutoSetPara, AlwaysOne)
{
    std::vector<unsigned char> img(360000, 5);
    EXPECT_EQ(1, Proc().AutoSetPara(img.data()));
    EXPECT_EQ(1, Proc().AutoSetPara(nullptr));
    EXPECT_EQ(5, img[0]);
}

} // namespace
