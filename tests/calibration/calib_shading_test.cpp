// Properties of the shading table pModBuf linked into the driver.
#include <gtest/gtest.h>

#include <algorithm>

#include "calibration/calibmodel.h"
#include "tavk05/isproc.h"

namespace {

const int kSide = 600;

double RowMean(int nRow)
{
    long nSum = 0;
    for (int c = 0; c < kSide; ++c) {
        nSum += pModBuf[nRow * kSide + c];
    }
    return static_cast<double>(nSum) / kSide;
}

double ColumnMean(int nCol)
{
    long nSum = 0;
    for (int r = 0; r < kSide; ++r) {
        nSum += pModBuf[r * kSide + nCol];
    }
    return static_cast<double>(nSum) / kSide;
}

TEST(Shading, RangeMeanAndZeros)
{
    long nSum = 0, nZeros = 0;
    int nMax = 0;
    for (int i = 0; i < kSide * kSide; ++i) {
        nSum += pModBuf[i];
        nZeros += pModBuf[i] == 0 ? 1 : 0;
        nMax = std::max(nMax, static_cast<int>(pModBuf[i]));
    }
    EXPECT_EQ(nMax, 73);
    // "About 11.2" and "about 104,000": the statement's last digit.
    EXPECT_NEAR(static_cast<double>(nSum) / (kSide * kSide), 11.2, 0.1);
    EXPECT_NEAR(static_cast<double>(nZeros), 104000.0, 1000.0);
}

TEST(Shading, GrowsTowardsTheBottom)
{
    // Each row mean at least the one above (a smooth model has no dips).
    for (int r = 1; r < kSide; ++r) {
        ASSERT_GE(RowMean(r), RowMean(r - 1)) << "row " << r;
    }
    EXPECT_NEAR(RowMean(0), 1.0, 0.5);
    EXPECT_NEAR(RowMean(kSide - 1), 34.0, 1.0);
}

TEST(Shading, GrowsTowardsBothEdgesMoreOnTheLeft)
{
    EXPECT_NEAR(ColumnMean(0), 23.0, 1.0);
    EXPECT_NEAR(ColumnMean(kSide / 2), 7.0, 0.5);
    EXPECT_NEAR(ColumnMean(kSide - 1), 15.0, 1.0);
    // The column means fall from the left edge to a minimum in the middle
    // third and rise again to the right edge. Near the flat minimum the
    // rounding of 600 values may move a mean by a few thousandths.
    const double dJitter = 0.01;
    int nMinCol = 0;
    for (int c = 1; c < kSide; ++c) {
        if (ColumnMean(c) < ColumnMean(nMinCol)) {
            nMinCol = c;
        }
    }
    EXPECT_GT(nMinCol, kSide / 3);
    EXPECT_LT(nMinCol, 2 * kSide / 3);
    for (int c = 1; c <= nMinCol; ++c) {
        ASSERT_LE(ColumnMean(c), ColumnMean(c - 1) + dJitter) << "column " << c;
    }
    for (int c = nMinCol + 1; c < kSide; ++c) {
        ASSERT_GE(ColumnMean(c) + dJitter, ColumnMean(c - 1)) << "column " << c;
    }
}

TEST(Shading, LinkedTableMatchesTheModelTheVirtualScannerUses)
{
    for (int r = 0; r < kSide; r += 7) {
        for (int c = 0; c < kSide; ++c) {
            ASSERT_EQ(pModBuf[r * kSide + c], tavk05cal::ShadingAt(c, r)) << "row " << r << " column " << c;
        }
    }
}

}  // namespace
