// The coordinate and shading tables linked into the driver are what the
// calibration model generates (the virtual scanner inverts that model, so a
// stale generated file would fail here), and every model profile has the
// correction path of its geometry; whether the tables straighten an image is
// the round trip's to show, which also ties the model's geometry to the
// driver's modify tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "calibration/calibmodel.h"
#include "profile/model_profile.h"
#include "tavk05/isproc.h"

namespace {

TEST(CalibPaths, EveryModelProfileHasThePathOfItsGeometry)
{
    for (const tavk05profile::ModelProfile& row : tavk05profile::kProfiles) {
        const int nFirmware = row.bNewFirmware ? tavk05profile::kFirstNewFirmware : tavk05profile::kFirmware1103;
        const tavk05cal::Path ePath = tavk05cal::PathForDevice(row.nDeviceType, static_cast<unsigned>(nFirmware));
        const tavk05cal::CGeometry geo(ePath);
        EXPECT_EQ(static_cast<int>(row.nRawWidth * 10000 + row.nRawHeight), geo.RawWidth() * 10000 + geo.RawHeight())
            << row.nDeviceType << "/" << row.bNewFirmware;
        const bool bCalc = ePath == tavk05cal::PATH_CALC_1288 || ePath == tavk05cal::PATH_CALC_1800;
        EXPECT_EQ(row.eCorrection != tavk05profile::kCorrectTables, bCalc) << row.nDeviceType;
    }
}

const int kStride = 660;

struct LinkedPair {
    const char* pszName;
    tavk05cal::TableId eTable;
    const unsigned short* pusX;
    const unsigned short* pusY;
    int nRows;
};

const LinkedPair kPairs[] = {
    {"Main", tavk05cal::TABLE_MAIN, usXtable, usYtable, 640},
    {"Pair1103", tavk05cal::TABLE_1103, usXtable1103, usYtable1103, 660},
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
