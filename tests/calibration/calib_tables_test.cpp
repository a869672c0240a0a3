// The coordinate and shading tables linked into the driver are what the
// calibration model generates (the virtual scanner inverts that model, so a
// stale generated file would fail here), and have the shape the correction
// relies on.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "calibration/calibmodel.h"
#include "tavk05/isproc.h"

namespace {

const int kStride = 660;
const int kRegion = 600;

struct LinkedPair {
    const char* pszName;
    tavk05cal::TableId eTable;
    const unsigned short* pusX;
    const unsigned short* pusY;
    int nRows, nRegionRow, nRegionCol, nImageWidth, nImageHeight, nFirstTrailingZero;
};

const LinkedPair kPairs[] = {
    {"Main", tavk05cal::TABLE_MAIN, usXtable, usYtable, 640, 21, 26, 1280, 676, 634},
    {"Pair1103", tavk05cal::TABLE_1103, usXtable1103, usYtable1103, 660, 10, 25, 1288, 876, 640},
};

class LinkedTables : public ::testing::TestWithParam<LinkedPair> {};

TEST_P(LinkedTables, AreWhatTheModelGenerates)
{
    const LinkedPair& p = GetParam();
    const size_t nEntries = static_cast<size_t>(p.nRows) * kStride;
    std::vector<unsigned short> vecX(nEntries), vecY(nEntries);
    tavk05cal::CTableModel(p.eTable).Fill(vecX.data(), vecY.data());
    EXPECT_TRUE(std::equal(vecX.begin(), vecX.end(), p.pusX));
    EXPECT_TRUE(std::equal(vecY.begin(), vecY.end(), p.pusY));
}

TEST_P(LinkedTables, ReadInsideTheImageRisingAlongRowsAndColumns)
{
    const LinkedPair& p = GetParam();
    for (int r = 0; r < p.nRows; ++r) {
        const bool bZeroRow = r < 2 || r >= p.nFirstTrailingZero;
        int nNonZero = 0;
        for (int c = 0; c < kStride; ++c) {
            const int i = r * kStride + c;
            nNonZero += (p.pusX[i] != 0 || p.pusY[i] != 0) ? 1 : 0;
            ASSERT_LT(p.pusX[i], p.nImageWidth) << "row " << r << " column " << c;
            ASSERT_LT(p.pusY[i], p.nImageHeight) << "row " << r << " column " << c;
            const bool bRegion = r > p.nRegionRow && r < p.nRegionRow + kRegion && c > p.nRegionCol &&
                                 c < p.nRegionCol + kRegion;
            if (bRegion) {
                ASSERT_GE(p.pusX[i], p.pusX[i - 1]) << "row " << r << " column " << c;
                ASSERT_GE(p.pusY[i], p.pusY[i - kStride]) << "row " << r << " column " << c;
            }
        }
        EXPECT_EQ(bZeroRow, nNonZero == 0) << "row " << r;
        EXPECT_TRUE(bZeroRow || nNonZero > kStride / 2) << "row " << r;
    }
}

INSTANTIATE_TEST_SUITE_P(Calibration, LinkedTables, ::testing::ValuesIn(kPairs),
                         [](const ::testing::TestParamInfo<LinkedPair>& info) { return info.param.pszName; });

TEST(Shading, LinkedTableIsTheModelsAndGrowsTowardsTheBottom)
{
    const int kSide = 600;
    long nPrevRowSum = -1;
    for (int r = 0; r < kSide; ++r) {
        long nRowSum = 0;
        for (int c = 0; c < kSide; ++c) {
            ASSERT_EQ(pModBuf[r * kSide + c], tavk05cal::ShadingAt(c, r)) << "row " << r << " column " << c;
            nRowSum += pModBuf[r * kSide + c];
        }
        ASSERT_GE(nRowSum, nPrevRowSum) << "row " << r;
        nPrevRowSum = nRowSum;
    }
    EXPECT_EQ(73, *std::max_element(pModBuf, pModBuf + kSide * kSide));
}

}  // namespace
