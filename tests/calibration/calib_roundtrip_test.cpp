// Round trip through the driver: a grid drawn in final-image coordinates is
// placed into the raw grey geometry of each correction path with the
// model's inverse, corrected by CImageProc, and must come out straight,
// evenly spaced and in place. This ties together the compiled-in tables,
// the modify tables, the crops, the padding of the Ex path and the mirror.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <ostream>
#include <vector>

#include "calibration/calibmodel.h"
#include "tavk05/isproc.h"

namespace {

using tavk05cal::CGeometry;
using tavk05cal::Path;

const int kSide = 600;
const double kSpacing = 40.0;
// Offsets that differ from their own mirror images (599 - 13 = 586 is 26
// modulo 40, 599 - 17 = 582 is 22), so a missing or extra mirror or a
// transposition shows as lines 9 to 13 pixels off.
const double kFirstColumnLine = 13.0;
const double kFirstRowLine = 17.0;
// Line half width in final pixels: wide enough that nearest-sample lookup,
// which skips a raw row now and then (up to 1.5 raw rows per final row),
// always catches a good part of every line.
const double kHalfWidth = 2.0;
const double kTolerance = 1.5;
// Mean signed offset over the whole grid: the sampling errors average out,
// so a shift by a whole pixel (a crop or padding off by one) stands out.
const double kBiasTolerance = 0.25;

struct Case {
    Path ePath;
    int nDeviceType;
    const char* pszName;
};

const Case kCases[] = {
    {tavk05cal::PATH_TABLE_1280, 4, "Table1280"},
    {tavk05cal::PATH_TABLE_1288, 6, "Table1288"},
    {tavk05cal::PATH_TABLE_1800, 5, "Table1800"},
    {tavk05cal::PATH_CALC_1288, 7, "Calc1288"},
    {tavk05cal::PATH_CALC_1800, 8, "CalcEx1800"},
};

void PrintTo(const Case& c, std::ostream* pOut)
{
    *pOut << c.pszName;
}

// Darkness (0..200) of the line pattern at coordinate d.
double LineDarkness(double d, double dFirst)
{
    const double dPhase = std::fmod(d - dFirst + 10.0 * kSpacing, kSpacing);
    const double dDist = std::min(dPhase, kSpacing - dPhase);
    return dDist >= kHalfWidth ? 0.0 : 200.0 * (1.0 - dDist / kHalfWidth);
}

class RoundTrip : public ::testing::TestWithParam<Case> {
protected:
    void SetUp() override
    {
        const CGeometry geo(GetParam().ePath);
        m_nWidth = geo.RawWidth();
        m_nHeight = geo.RawHeight();
        const size_t nPixels = static_cast<size_t>(m_nWidth) * m_nHeight;
        m_vecFx.resize(nPixels);
        m_vecFy.resize(nPixels);
        geo.FillRawToFinal(m_vecFx.data(), m_vecFy.data());
        m_pProc.reset(new CImageProc);
        m_pProc->m_nDeviceType = GetParam().nDeviceType;
    }

    // Raw grey image of lines across (bColumns: lines of constant final
    // column) on a white background, then the driver's correction.
    std::vector<unsigned char> Corrected(bool bColumns)
    {
        std::vector<unsigned char> vecRaw(m_vecFx.size(), 255);
        for (size_t i = 0; i < vecRaw.size(); ++i) {
            if (m_vecFx[i] == tavk05cal::kOutside) {
                continue;
            }
            const double dDark = bColumns ? LineDarkness(m_vecFx[i], kFirstColumnLine)
                                          : LineDarkness(m_vecFy[i], kFirstRowLine);
            vecRaw[i] = static_cast<unsigned char>(255.0 - dDark);
        }
        std::vector<unsigned char> vecOut(kSide * kSide, 0);
        int nResult = 0;
        const unsigned long nW = m_nWidth, nH = m_nHeight;
        switch (GetParam().ePath) {
        case tavk05cal::PATH_CALC_1288:
            nResult = m_pProc->CorrectImageCalc(vecRaw.data(), nW, nH, vecOut.data(), kSide, kSide, 0, 0);
            break;
        case tavk05cal::PATH_CALC_1800:
            nResult = m_pProc->CorrectImageCalcEx(vecRaw.data(), nW, nH, vecOut.data(), kSide, kSide, 0, 0);
            break;
        default:
            nResult = m_pProc->CorrectImage(vecRaw.data(), nW, nH, vecOut.data(), kSide, kSide, 0, 0);
            break;
        }
        EXPECT_EQ(nResult, 1);
        return vecOut;
    }

    // Darkness-weighted centre of the line expected at dExpected, measured
    // along a profile of 600 values; -1 when no line is there.
    static double Centre(const unsigned char* pProfile, int nStride, double dExpected)
    {
        double dSum = 0.0, dMoment = 0.0;
        const int nFrom = std::max(0, static_cast<int>(dExpected) - 10);
        const int nTo = std::min(kSide - 1, static_cast<int>(dExpected) + 10);
        for (int i = nFrom; i <= nTo; ++i) {
            const double dDark = 255.0 - pProfile[i * nStride];
            dSum += dDark;
            dMoment += dDark * i;
        }
        return dSum < 150.0 ? -1.0 : dMoment / dSum;
    }

    int m_nWidth = 0, m_nHeight = 0;
    std::vector<float> m_vecFx, m_vecFy;
    std::unique_ptr<CImageProc> m_pProc;
};

TEST_P(RoundTrip, ColumnLinesComeOutStraightAndEvenlySpaced)
{
    const std::vector<unsigned char> vecOut = Corrected(true);
    double dWorst = 0.0, dBias = 0.0;
    int nLines = 0;
    for (double dLine = kFirstColumnLine; dLine < kSide - 10; dLine += kSpacing) {
        ++nLines;
        for (int y = 0; y < kSide; ++y) {
            const double dCentre = Centre(&vecOut[y * kSide], 1, dLine);
            ASSERT_GE(dCentre, 0.0) << "line " << dLine << " missing in row " << y;
            dWorst = std::max(dWorst, std::fabs(dCentre - dLine));
            dBias += dCentre - dLine;
            ASSERT_NEAR(dCentre, dLine, kTolerance) << "line " << dLine << " row " << y;
        }
    }
    EXPECT_EQ(nLines, 15);
    EXPECT_NEAR(dBias / (nLines * kSide), 0.0, kBiasTolerance);
    // Between the lines the image stays white: nothing else was drawn.
    for (int y = 0; y < kSide; y += 11) {
        for (double dGap = kFirstColumnLine + kSpacing / 2; dGap < kSide; dGap += kSpacing) {
            EXPECT_GE(vecOut[y * kSide + static_cast<int>(dGap)], 250) << "row " << y << " column " << dGap;
        }
    }
    RecordProperty("worst_column_offset_x1000", static_cast<int>(dWorst * 1000));
    RecordProperty("mean_column_offset_x1000", static_cast<int>(dBias / (nLines * kSide) * 1000));
}

TEST_P(RoundTrip, RowLinesComeOutStraightAndEvenlySpaced)
{
    const std::vector<unsigned char> vecOut = Corrected(false);
    double dWorst = 0.0, dBias = 0.0;
    int nLines = 0;
    for (double dLine = kFirstRowLine; dLine < kSide - 10; dLine += kSpacing) {
        ++nLines;
        for (int x = 0; x < kSide; ++x) {
            const double dCentre = Centre(&vecOut[x], kSide, dLine);
            ASSERT_GE(dCentre, 0.0) << "line " << dLine << " missing in column " << x;
            dWorst = std::max(dWorst, std::fabs(dCentre - dLine));
            dBias += dCentre - dLine;
            ASSERT_NEAR(dCentre, dLine, kTolerance) << "line " << dLine << " column " << x;
        }
    }
    EXPECT_EQ(nLines, 15);
    EXPECT_NEAR(dBias / (nLines * kSide), 0.0, kBiasTolerance);
    for (int x = 0; x < kSide; x += 11) {
        for (double dGap = kFirstRowLine + kSpacing / 2; dGap < kSide; dGap += kSpacing) {
            EXPECT_GE(vecOut[static_cast<int>(dGap) * kSide + x], 250) << "row " << dGap << " column " << x;
        }
    }
    RecordProperty("worst_row_offset_x1000", static_cast<int>(dWorst * 1000));
    RecordProperty("mean_row_offset_x1000", static_cast<int>(dBias / (nLines * kSide) * 1000));
}

INSTANTIATE_TEST_SUITE_P(Calibration, RoundTrip, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& info) { return std::string(info.param.pszName); });

}  // namespace
