// The geometry module: path selection, forward and inverse maps of the five
// correction paths, the raw-to-final map, and agreement of the
// interpolating geometry with the driver's modify tables.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

#include "calibration/calibmodel.h"
#include "tavk05/isproc.h"

namespace {

using tavk05cal::CGeometry;
using tavk05cal::Path;

const Path kAllPaths[] = {tavk05cal::PATH_TABLE_1280, tavk05cal::PATH_TABLE_1288, tavk05cal::PATH_TABLE_1800,
                          tavk05cal::PATH_CALC_1288, tavk05cal::PATH_CALC_1800};

TEST(CalibPaths, DeviceTypeAndFirmwareChooseThePath)
{
    EXPECT_EQ(tavk05cal::PathForDevice(3, 0x1000), tavk05cal::PATH_TABLE_1280);
    EXPECT_EQ(tavk05cal::PathForDevice(4, 0x3000), tavk05cal::PATH_TABLE_1280);
    EXPECT_EQ(tavk05cal::PathForDevice(0, 0), tavk05cal::PATH_TABLE_1280);
    EXPECT_EQ(tavk05cal::PathForDevice(5, 0x1103), tavk05cal::PATH_TABLE_1288);
    EXPECT_EQ(tavk05cal::PathForDevice(6, 0x2FFF), tavk05cal::PATH_TABLE_1288);
    EXPECT_EQ(tavk05cal::PathForDevice(6, 0x3000), tavk05cal::PATH_TABLE_1800);
    EXPECT_EQ(tavk05cal::PathForDevice(7, 0x2FFF), tavk05cal::PATH_CALC_1288);
    EXPECT_EQ(tavk05cal::PathForDevice(8, 0x3000), tavk05cal::PATH_CALC_1800);
}

TEST(CalibPaths, RawSizesFollowTheFrameGeometry)
{
    const int aSizes[][2] = {{1280, 676}, {1288, 876}, {1800, 1280}, {1288, 876}, {1800, 1280}};
    for (int i = 0; i < 5; ++i) {
        const CGeometry geo(kAllPaths[i]);
        EXPECT_EQ(geo.RawWidth(), aSizes[i][0]) << "path " << kAllPaths[i];
        EXPECT_EQ(geo.RawHeight(), aSizes[i][1]) << "path " << kAllPaths[i];
    }
}

class CalibGeometry : public ::testing::TestWithParam<Path> {};

TEST_P(CalibGeometry, FinalImageLiesInsideTheRawImage)
{
    const CGeometry geo(GetParam());
    const double aEdge[] = {-0.5, 0.0, 150.0, 298.5, 299.0, 299.5, 300.0, 450.0, 599.0, 599.5};
    for (double dFy : aEdge) {
        for (double dFx : aEdge) {
            double dSx = 0.0, dSy = 0.0;
            geo.FinalToRaw(dFx, dFy, &dSx, &dSy);
            EXPECT_GE(dSx, 0.0) << dFx << "," << dFy;
            EXPECT_LE(dSx, geo.RawWidth() - 1.0) << dFx << "," << dFy;
            EXPECT_GE(dSy, 0.0) << dFx << "," << dFy;
            EXPECT_LE(dSy, geo.RawHeight() - 1.0) << dFx << "," << dFy;
        }
    }
}

TEST_P(CalibGeometry, InverseUndoesForward)
{
    const CGeometry geo(GetParam());
    for (double dFy = -0.5; dFy <= 599.5; dFy += 23.25) {
        for (double dFx = -0.5; dFx <= 599.5; dFx += 7.75) {
            double dSx = 0.0, dSy = 0.0, dBackX = -1.0, dBackY = -1.0;
            geo.FinalToRaw(dFx, dFy, &dSx, &dSy);
            ASSERT_TRUE(geo.RawToFinal(dSx, dSy, &dBackX, &dBackY)) << dFx << "," << dFy;
            ASSERT_NEAR(dBackX, dFx, 1e-6) << dFx << "," << dFy;
            ASSERT_NEAR(dBackY, dFy, 1e-6) << dFx << "," << dFy;
        }
    }
}

TEST_P(CalibGeometry, ForwardUndoesInverseAndMirrors)
{
    const CGeometry geo(GetParam());
    // Along a raw row through the middle of the picture, the final column
    // falls as the raw column rises (the correction mirrors left to right)
    // and the final row barely moves.
    double dSx = 0.0, dSy = 0.0;
    geo.FinalToRaw(300.0, 300.0, &dSx, &dSy);
    const double dRow = std::floor(dSy);
    double dPrevFx = 1e9;
    int nInside = 0;
    for (int nX = 0; nX < geo.RawWidth(); ++nX) {
        double dFx = 0.0, dFy = 0.0;
        if (!geo.RawToFinal(nX, dRow, &dFx, &dFy)) {
            continue;
        }
        ++nInside;
        EXPECT_LT(dFx, dPrevFx) << "raw column " << nX;
        dPrevFx = dFx;
        EXPECT_NEAR(dFy, 300.0, 3.0) << "raw column " << nX;
        double dBackX = 0.0, dBackY = 0.0;
        geo.FinalToRaw(dFx, dFy, &dBackX, &dBackY);
        EXPECT_NEAR(dBackX, nX, 1e-6);
        EXPECT_NEAR(dBackY, dRow, 1e-6);
    }
    // About two raw columns per final column (2.7 on the Ex path's wider
    // frame).
    EXPECT_GT(nInside, 600 * 19 / 10);
    EXPECT_LT(nInside, 600 * 28 / 10);
}

TEST_P(CalibGeometry, RawPositionsOffThePictureAreOutside)
{
    const CGeometry geo(GetParam());
    double dFx = 0.0, dFy = 0.0;
    double dSx = 0.0, dSy = 0.0;
    // Just beyond each border of the final image, in raw coordinates.
    const double aBeyond[][2] = {{-1.0, 300.0}, {600.0, 300.0}, {300.0, -1.0}, {300.0, 600.0}};
    for (const auto& a : aBeyond) {
        geo.FinalToRaw(a[0], a[1], &dSx, &dSy);
        EXPECT_FALSE(geo.RawToFinal(dSx, dSy, &dFx, &dFy)) << a[0] << "," << a[1];
    }
    // The raw image's corners lie outside the picture on every path.
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

INSTANTIATE_TEST_SUITE_P(Calibration, CalibGeometry, ::testing::ValuesIn(kAllPaths),
                         [](const ::testing::TestParamInfo<Path>& info) {
                             return "Path" + std::to_string(static_cast<int>(info.param));
                         });

// The interpolating geometry must be the one the driver's modify tables hold:
// every entry's source row and column (relative to the centre column).
void CheckModifyTable(tavk05cal::ModifyId eTable, tagModifyEntry** ppRows)
{
    const tavk05cal::ModifyLayout& l = tavk05cal::GetModifyLayout(eTable);
    const int nHalf = l.nCanvas / 2;
    for (int i = 0; i < l.nCanvas; ++i) {
        for (int j = 1; j < nHalf; ++j) {
            double dSx = 0.0, dSy = 0.0;
            tavk05cal::ModifyCanvasToSource(eTable, i, nHalf + j, &dSx, &dSy);
            const tagModifyEntry& e = ppRows[i][j];
            // Both hold single-precision values of size up to 1300.
            ASSERT_NEAR(e.fSrcRow, dSy, 2e-3) << "row " << i << " entry " << j;
            ASSERT_NEAR(e.fSrcCol, dSx - l.nSrcCentre, 2e-3) << "row " << i << " entry " << j;
            // The mirrored left half reads the column just left of the centre.
            tavk05cal::ModifyCanvasToSource(eTable, i, nHalf - j, &dSx, &dSy);
            ASSERT_NEAR(e.fSrcCol, (l.nSrcCentre - 1) - dSx, 2e-3) << "row " << i << " entry " << j;
        }
        const float fDiv = tavk05cal::ModifyRowDivisor(eTable, i);
        ASSERT_EQ(ppRows[i][0].fSrcRow, static_cast<float>(i / static_cast<double>(fDiv))) << "row " << i;
        const float fColDiv = tavk05cal::ModifyColDivisor(eTable, i);
        ASSERT_EQ(ppRows[i][7].fSrcCol, static_cast<float>(7.0 / static_cast<double>(fColDiv))) << "row " << i;
    }
}

TEST(CalibModify, GeometryMatchesTheDriversModifyTables)
{
    std::unique_ptr<CImageProc> pProc(new CImageProc);
    CheckModifyTable(tavk05cal::MODIFY_STD, pProc->m_ppModifyTable);
    CheckModifyTable(tavk05cal::MODIFY_EX, pProc->m_ppModifyTableEx);
}

TEST(CalibModify, SeamAtTheCanvasCentreIsBridgedContinuously)
{
    for (tavk05cal::ModifyId eTable : {tavk05cal::MODIFY_STD, tavk05cal::MODIFY_EX}) {
        const tavk05cal::ModifyLayout& l = tavk05cal::GetModifyLayout(eTable);
        const double dHalf = l.nCanvas / 2;
        double dPrev = -1.0;
        for (double dCol = dHalf - 2.0; dCol <= dHalf + 3.0; dCol += 0.125) {
            double dSx = 0.0, dSy = 0.0, dRow = 0.0, dBack = 0.0;
            tavk05cal::ModifyCanvasToSource(eTable, 200.0, dCol, &dSx, &dSy);
            EXPECT_GT(dSx, dPrev) << dCol;
            // No step larger than the seam's width (one source column plus
            // the stretch 1 / b, below 3 in both tables) times the step of
            // the loop.
            if (dPrev >= 0.0) {
                EXPECT_LT(dSx - dPrev, 0.125 * 4.0) << dCol;
            }
            dPrev = dSx;
            tavk05cal::ModifySourceToCanvas(eTable, dSx, dSy, &dRow, &dBack);
            EXPECT_NEAR(dBack, dCol, 1e-9);
            EXPECT_NEAR(dRow, 200.0, 1e-9);
        }
    }
}

}  // namespace
