// Properties of the coordinate tables linked into the driver (the data in
// the library, not the model that generated them).
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

#include "calibration/calibmodel.h"
#include "tavk05/isproc.h"

namespace {

struct LinkedPair {
    const char* pszName;
    const unsigned short* pusX;
    const unsigned short* pusY;
    int nRows;
    int nRegionRow, nRegionCol;
    int nImageWidth, nImageHeight;
    int nFirstTrailingZero;
    // What the optics were calibrated to.
    int nTopLeftX, nTopLeftY, nTopRightX, nTopRightY;
    int nCentreX, nCentreY;
    int nBottomLeftX, nBottomLeftY, nBottomRightX, nBottomRightY;
    double dStepTop, dStepBottom;         // source rows per output row
    double dSpanTop, dSpanBottom;         // source columns per output column
    int nMidTop, nMidBottom;              // source column of region column 300
};

const LinkedPair kPairs[] = {
    {"usXtable/usYtable", usXtable, usYtable, 640, 21, 26, 1280, 676, 634,
     14, 20, 1257, 20, 635, 351, 56, 663, 1203, 663, 1.12, 1.00, 2.08, 1.91, 637, 632},
    {"usXtable1103/usYtable1103", usXtable1103, usYtable1103, 660, 10, 25, 1288, 876, 640,
     13, 10, 1267, 9, 643, 428, 56, 872, 1221, 872, 1.28, 1.48, 2.09, 1.94, 642, 641},
};

void PrintTo(const LinkedPair& p, std::ostream* pOut)
{
    *pOut << p.pszName;
}

const int kStride = 660;
const int kRegion = 600;

class LinkedTables : public ::testing::TestWithParam<LinkedPair> {
protected:
    int X(int nRow, int nCol) const
    {
        const LinkedPair& p = GetParam();
        return p.pusX[(p.nRegionRow + nRow) * kStride + p.nRegionCol + nCol];
    }
    int Y(int nRow, int nCol) const
    {
        const LinkedPair& p = GetParam();
        return p.pusY[(p.nRegionRow + nRow) * kStride + p.nRegionCol + nCol];
    }
};

TEST_P(LinkedTables, TellingEntriesAtCornersAndCentre)
{
    const LinkedPair& p = GetParam();
    EXPECT_EQ(X(0, 0), p.nTopLeftX);
    EXPECT_EQ(Y(0, 0), p.nTopLeftY);
    EXPECT_EQ(X(0, 599), p.nTopRightX);
    EXPECT_EQ(Y(0, 599), p.nTopRightY);
    EXPECT_EQ(X(300, 300), p.nCentreX);
    EXPECT_EQ(Y(300, 300), p.nCentreY);
    EXPECT_EQ(X(599, 0), p.nBottomLeftX);
    EXPECT_EQ(Y(599, 0), p.nBottomLeftY);
    EXPECT_EQ(X(599, 599), p.nBottomRightX);
    EXPECT_EQ(Y(599, 599), p.nBottomRightY);
}

TEST_P(LinkedTables, SourceRowIsLevelAlongRowsAndNeverFallsDownColumns)
{
    for (int r = 0; r < kRegion; ++r) {
        int nMin = 1 << 30, nMax = -1;
        for (int c = 0; c < kRegion; ++c) {
            nMin = std::min(nMin, Y(r, c));
            nMax = std::max(nMax, Y(r, c));
        }
        ASSERT_LE(nMax - nMin, 1) << "region row " << r;
    }
    for (int c = 0; c < kRegion; ++c) {
        for (int r = 1; r < kRegion; ++r) {
            ASSERT_GE(Y(r, c), Y(r - 1, c)) << "region row " << r << " column " << c;
        }
    }
}

TEST_P(LinkedTables, SourceRowRangeAndSteps)
{
    const LinkedPair& p = GetParam();
    // The whole top row lies between the two top corners, the bottom row at
    // the bottom value.
    for (int c = 0; c < kRegion; ++c) {
        EXPECT_GE(Y(0, c), std::min(p.nTopLeftY, p.nTopRightY));
        EXPECT_LE(Y(0, c), std::max(p.nTopLeftY, p.nTopRightY));
        EXPECT_EQ(Y(599, c), p.nBottomLeftY);
    }
    // Steps measured over 30 rows at the middle column: the rounding of the
    // two ends costs at most 1/30, the curvature over 30 rows about 0.02.
    const double dTol = 0.05;
    EXPECT_NEAR((Y(30, 300) - Y(0, 300)) / 30.0, p.dStepTop, dTol);
    EXPECT_NEAR((Y(599, 300) - Y(569, 300)) / 30.0, p.dStepBottom, dTol);
}

TEST_P(LinkedTables, SourceColumnRisesAlongRowsNearlyLinearly)
{
    const LinkedPair& p = GetParam();
    for (int r = 0; r < kRegion; ++r) {
        for (int c = 1; c < kRegion; ++c) {
            ASSERT_GE(X(r, c), X(r, c - 1)) << "region row " << r << " column " << c;
        }
        // Close to linear: within 4 source columns (0.3 % of the span) of the
        // chord, which leaves room for the gentle bow that puts the middle
        // column a source column or two off the chord.
        const double dLeft = X(r, 0), dRight = X(r, 599);
        for (int c = 0; c < kRegion; c += 13) {
            const double dChord = dLeft + (dRight - dLeft) * c / 599.0;
            ASSERT_NEAR(X(r, c), dChord, 4.0) << "region row " << r << " column " << c;
        }
    }
    // Spans per output column (stated to two decimals) and the middle column.
    EXPECT_NEAR((X(0, 599) - X(0, 0)) / 599.0, p.dSpanTop, 0.01);
    EXPECT_NEAR((X(599, 599) - X(599, 0)) / 599.0, p.dSpanBottom, 0.01);
    EXPECT_NEAR(X(0, 300), p.nMidTop, 1.0);
    EXPECT_NEAR(X(599, 300), p.nMidBottom, 1.0);
    // A trapezoid wider at the top.
    EXPECT_GT(X(0, 599) - X(0, 0), X(599, 599) - X(599, 0));
}

TEST_P(LinkedTables, ReadRegionStaysInsideItsImage)
{
    const LinkedPair& p = GetParam();
    int nMaxX = 0, nMaxY = 0;
    for (int r = 0; r < kRegion; ++r) {
        for (int c = 0; c < kRegion; ++c) {
            nMaxX = std::max(nMaxX, X(r, c));
            nMaxY = std::max(nMaxY, Y(r, c));
        }
    }
    EXPECT_EQ(nMaxX, std::max(p.nTopRightX, p.nBottomRightX));
    EXPECT_EQ(nMaxY, p.nBottomLeftY);
    EXPECT_LT(nMaxX, p.nImageWidth);
    EXPECT_LT(nMaxY, p.nImageHeight);
}

TEST_P(LinkedTables, ZeroRowsExactlyWhereExpectedAndValuesElsewhere)
{
    const LinkedPair& p = GetParam();
    for (int r = 0; r < p.nRows; ++r) {
        const bool bZeroRow = r < 2 || r >= p.nFirstTrailingZero;
        int nNonZero = 0;
        for (int c = 0; c < kStride; ++c) {
            const int x = p.pusX[r * kStride + c], y = p.pusY[r * kStride + c];
            nNonZero += (x != 0 || y != 0) ? 1 : 0;
            // Entries outside the read region are extrapolated but clamped
            // into the image as well.
            ASSERT_LT(x, p.nImageWidth) << "row " << r << " column " << c;
            ASSERT_LT(y, p.nImageHeight) << "row " << r << " column " << c;
        }
        if (bZeroRow) {
            EXPECT_EQ(nNonZero, 0) << "row " << r;
        } else {
            EXPECT_GT(nNonZero, kStride / 2) << "row " << r;
        }
    }
}

TEST_P(LinkedTables, ExtrapolatedRowsContinueTheRegion)
{
    const LinkedPair& p = GetParam();
    // The rows above and below the read region keep the source row rising
    // (until it is clamped at the image's edge) in the middle column.
    const int nCol = p.nRegionCol + 300;
    for (int r = 3; r < p.nFirstTrailingZero; ++r) {
        const int yPrev = p.pusY[(r - 1) * kStride + nCol], y = p.pusY[r * kStride + nCol];
        EXPECT_GE(y, yPrev) << "row " << r;
    }
    EXPECT_LT(p.pusY[2 * kStride + nCol], Y(0, 300));
    EXPECT_GT(p.pusY[(p.nFirstTrailingZero - 1) * kStride + nCol], Y(599, 300));
}

TEST_P(LinkedTables, LinkedDataIsWhatTheModelGenerates)
{
    // The virtual scanner inverts the model; it must describe the data the
    // driver really uses (a stale generated file would fail here).
    const LinkedPair& p = GetParam();
    const tavk05cal::CTableModel model(p.pusX == usXtable ? tavk05cal::TABLE_MAIN : tavk05cal::TABLE_1103);
    const size_t nEntries = static_cast<size_t>(p.nRows) * kStride;
    std::vector<unsigned short> vecX(nEntries), vecY(nEntries);
    model.Fill(vecX.data(), vecY.data());
    EXPECT_TRUE(std::equal(vecX.begin(), vecX.end(), p.pusX));
    EXPECT_TRUE(std::equal(vecY.begin(), vecY.end(), p.pusY));
}

INSTANTIATE_TEST_SUITE_P(Calibration, LinkedTables, ::testing::ValuesIn(kPairs),
                         [](const ::testing::TestParamInfo<LinkedPair>& info) {
                             return info.param.pusX == usXtable ? std::string("Main") : std::string("Pair1103");
                         });

}  // namespace
