// The geometry of the calibration model: path selection, forward and inverse
// maps of the five correction paths and the raw-to-final map, checked on
// random positions; and agreement of the interpolating geometry with the
// driver's modify tables.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "calibration/calibmodel.h"
#include "profile/model_profile.h"
#include "tavk05/isproc.h"

namespace {

using tavk05cal::CGeometry;
using tavk05cal::Path;

TEST(CalibPaths, EveryModelProfileHasThePathOfItsGeometry)
{
    for (const tavk05profile::ModelProfile& row : tavk05profile::kProfiles) {
        const int nFirmware = row.bNewFirmware ? tavk05profile::kFirstNewFirmware : tavk05profile::kFirmware1103;
        const Path ePath = tavk05cal::PathForDevice(row.nDeviceType, static_cast<unsigned>(nFirmware));
        const CGeometry geo(ePath);
        EXPECT_EQ(static_cast<int>(row.nRawWidth), geo.RawWidth()) << row.nDeviceType << "/" << row.bNewFirmware;
        EXPECT_EQ(static_cast<int>(row.nRawHeight), geo.RawHeight()) << row.nDeviceType << "/" << row.bNewFirmware;
        const bool bCalc = ePath == tavk05cal::PATH_CALC_1288 || ePath == tavk05cal::PATH_CALC_1800;
        EXPECT_EQ(row.eCorrection != tavk05profile::kCorrectTables, bCalc) << row.nDeviceType;
    }
}

class CalibGeometry : public ::testing::TestWithParam<Path> {};

TEST_P(CalibGeometry, MapsAreInversesAndTheFinalImageLiesInsideTheRawOne)
{
    const CGeometry geo(GetParam());
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> pos(-0.5, 599.5);
    for (int i = 0; i < 4000; ++i) {
        // Random positions, every 50th on a border of the final image.
        const double dFx = i % 50 == 0 ? (i % 100 == 0 ? -0.5 : 599.5) : pos(rng);
        const double dFy = pos(rng);
        double dSx = 0.0, dSy = 0.0, dBackX = -1.0, dBackY = -1.0;
        geo.FinalToRaw(dFx, dFy, &dSx, &dSy);
        ASSERT_TRUE(dSx >= 0.0 && dSx <= geo.RawWidth() - 1.0 && dSy >= 0.0 && dSy <= geo.RawHeight() - 1.0)
            << dFx << "," << dFy;
        ASSERT_TRUE(geo.RawToFinal(dSx, dSy, &dBackX, &dBackY)) << dFx << "," << dFy;
        ASSERT_NEAR(dBackX, dFx, 1e-6) << dFx << "," << dFy;
        ASSERT_NEAR(dBackY, dFy, 1e-6) << dFx << "," << dFy;
    }
    // Just beyond each border of the final image, and the raw corners, are
    // outside the picture.
    double dFx = 0.0, dFy = 0.0, dSx = 0.0, dSy = 0.0;
    for (const auto& a : {std::make_pair(-1.0, 300.0), {600.0, 300.0}, {300.0, -1.0}, {300.0, 600.0}}) {
        geo.FinalToRaw(a.first, a.second, &dSx, &dSy);
        EXPECT_FALSE(geo.RawToFinal(dSx, dSy, &dFx, &dFy)) << a.first << "," << a.second;
    }
    EXPECT_FALSE(geo.RawToFinal(0.0, 0.0, &dFx, &dFy));
    EXPECT_FALSE(geo.RawToFinal(geo.RawWidth() - 1.0, geo.RawHeight() - 1.0, &dFx, &dFy));
}

TEST_P(CalibGeometry, RawMapAgreesWithPointwiseInverse)
{
    const CGeometry geo(GetParam());
    const size_t nPixels = static_cast<size_t>(geo.RawWidth()) * geo.RawHeight();
    std::vector<float> vecFx(nPixels), vecFy(nPixels);
    geo.FillRawToFinal(vecFx.data(), vecFy.data());
    size_t nInside = 0;
    for (int nY = 0; nY < geo.RawHeight(); nY += 5) {
        for (int nX = 0; nX < geo.RawWidth(); ++nX) {
            const size_t i = static_cast<size_t>(nY) * geo.RawWidth() + nX;
            double dFx = 0.0, dFy = 0.0;
            const bool bIn = geo.RawToFinal(nX, nY, &dFx, &dFy);
            ASSERT_EQ(bIn, vecFx[i] != tavk05cal::kOutside) << nX << "," << nY;
            ASSERT_EQ(bIn, vecFy[i] != tavk05cal::kOutside) << nX << "," << nY;
            if (bIn) {
                ++nInside;
                ASSERT_NEAR(vecFx[i], dFx, 1e-3) << nX << "," << nY;
                ASSERT_NEAR(vecFy[i], dFy, 1e-3) << nX << "," << nY;
            }
        }
    }
    // The sampled rows cover a fifth of the picture's raw area: 600 x 600
    // final pixels of at least 1.9 raw columns by 1 raw row each, and at
    // most 2.8 by 2.1 (the Ex path).
    EXPECT_GT(nInside, 600u * 600u * 19 / 10 / 5);
    EXPECT_LT(nInside, 600u * 600u * 6 / 5);
}

INSTANTIATE_TEST_SUITE_P(Calibration, CalibGeometry,
                         ::testing::Values(tavk05cal::PATH_TABLE_1280, tavk05cal::PATH_TABLE_1288,
                                           tavk05cal::PATH_TABLE_1800, tavk05cal::PATH_CALC_1288,
                                           tavk05cal::PATH_CALC_1800),
                         [](const ::testing::TestParamInfo<Path>& info) {
                             return "Path" + std::to_string(static_cast<int>(info.param));
                         });

// The interpolating geometry must be the one the driver's modify tables hold:
// every entry's source row and column (relative to the centre column), the
// mirrored left half reading the column just left of the centre.
void CheckModifyTable(tavk05cal::ModifyId eTable, tagModifyEntry** ppRows)
{
    const tavk05cal::ModifyLayout& l = tavk05cal::GetModifyLayout(eTable);
    const int nHalf = l.nCanvas / 2;
    for (int i = 0; i < l.nCanvas; ++i) {
        for (int j = 1; j < nHalf; ++j) {
            double dSx = 0.0, dSy = 0.0;
            tavk05cal::ModifyCanvasToSource(eTable, i, nHalf + j, &dSx, &dSy);
            const tagModifyEntry& e = ppRows[i][j];
            ASSERT_NEAR(e.fSrcRow, dSy, 2e-3) << "row " << i << " entry " << j;
            ASSERT_NEAR(e.fSrcCol, dSx - l.nSrcCentre, 2e-3) << "row " << i << " entry " << j;
            tavk05cal::ModifyCanvasToSource(eTable, i, nHalf - j, &dSx, &dSy);
            ASSERT_NEAR(e.fSrcCol, (l.nSrcCentre - 1) - dSx, 2e-3) << "row " << i << " entry " << j;
        }
        const float fDiv = tavk05cal::ModifyRowDivisor(eTable, i);
        ASSERT_EQ(ppRows[i][0].fSrcRow, static_cast<float>(i / static_cast<double>(fDiv))) << "row " << i;
        const float fColDiv = tavk05cal::ModifyColDivisor(eTable, i);
        ASSERT_EQ(ppRows[i][7].fSrcCol, static_cast<float>(7.0 / static_cast<double>(fColDiv))) << "row " << i;
    }
    // Across the seam at the canvas centre the source column rises without
    // a step and the inverse gives the canvas position back.
    double dPrev = -1.0;
    for (double dCol = nHalf - 2.0; dCol <= nHalf + 3.0; dCol += 0.125) {
        double dSx = 0.0, dSy = 0.0, dRow = 0.0, dBack = 0.0;
        tavk05cal::ModifyCanvasToSource(eTable, 200.0, dCol, &dSx, &dSy);
        EXPECT_GT(dSx, dPrev) << dCol;
        EXPECT_TRUE(dPrev < 0.0 || dSx - dPrev < 0.125 * 4.0) << dCol;
        dPrev = dSx;
        tavk05cal::ModifySourceToCanvas(eTable, dSx, dSy, &dRow, &dBack);
        EXPECT_NEAR(dBack, dCol, 1e-9);
        EXPECT_NEAR(dRow, 200.0, 1e-9);
    }
}

TEST(CalibModify, GeometryMatchesTheDriversModifyTables)
{
    std::unique_ptr<CImageProc> pProc(new CImageProc);
    CheckModifyTable(tavk05cal::MODIFY_STD, pProc->m_ppModifyTable);
    CheckModifyTable(tavk05cal::MODIFY_EX, pProc->m_ppModifyTableEx);
}

}  // namespace
