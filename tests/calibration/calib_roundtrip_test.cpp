// Round trip through the driver: a grid drawn in final-image coordinates is
// placed into the raw grey geometry of each correction path with the
// model's inverse, corrected by CImageProc, and must come out straight,
// evenly spaced and in place. This ties together the compiled-in tables,
// the modify tables, the crops, the padding of the Ex path and the mirror.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
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
    {tavk05cal::PATH_TABLE_1280, 4, "Table1280"}, {tavk05cal::PATH_TABLE_1288, 6, "Table1288"},
    {tavk05cal::PATH_TABLE_1800, 5, "Table1800"}, {tavk05cal::PATH_CALC_1288, 7, "Calc1288"},
    {tavk05cal::PATH_CALC_1800, 8, "CalcEx1800"},
};

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
            if (m_vecFx[i] != tavk05cal::kOutside)
                vecRaw[i] = static_cast<unsigned char>(255.0 - (bColumns ? LineDarkness(m_vecFx[i], kFirstColumnLine)
                                                                         : LineDarkness(m_vecFy[i], kFirstRowLine)));
        }
        std::vector<unsigned char> vecOut(kSide * kSide, 0);
        const Path e = GetParam().ePath;
        const auto pfnCorrect = e == tavk05cal::PATH_CALC_1288   ? &CImageProc::CorrectImageCalc
                                : e == tavk05cal::PATH_CALC_1800 ? &CImageProc::CorrectImageCalcEx
                                                                 : &CImageProc::CorrectImage;
        EXPECT_EQ(1, ((*m_pProc).*pfnCorrect)(vecRaw.data(), m_nWidth, m_nHeight, vecOut.data(), kSide, kSide, 0, 0));
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

TEST_P(RoundTrip, LinesComeOutStraightEvenlySpacedAndInPlace)
{
    for (const bool bColumns : {true, false}) {
        // Lines of constant final column are measured along rows, lines of
        // constant final row along columns.
        const std::vector<unsigned char> vecOut = Corrected(bColumns);
        const double dFirst = bColumns ? kFirstColumnLine : kFirstRowLine;
        const int nAlong = bColumns ? kSide : 1;   // from one profile to the next
        const int nAcross = bColumns ? 1 : kSide;  // within a profile
        double dBias = 0.0;
        int nLines = 0;
        for (double dLine = dFirst; dLine < kSide - 10; dLine += kSpacing) {
            ++nLines;
            for (int k = 0; k < kSide; ++k) {
                const double dCentre = Centre(&vecOut[k * nAlong], nAcross, dLine);
                ASSERT_GE(dCentre, 0.0) << bColumns << ": line " << dLine << " missing at " << k;
                ASSERT_NEAR(dCentre, dLine, kTolerance) << bColumns << ": line " << dLine << " at " << k;
                dBias += dCentre - dLine;
            }
        }
        EXPECT_EQ(nLines, 15);
        EXPECT_NEAR(dBias / (nLines * kSide), 0.0, kBiasTolerance) << bColumns;
        // Between the lines the image stays white: nothing else was drawn.
        for (int k = 0; k < kSide; k += 11)
            for (double dGap = dFirst + kSpacing / 2; dGap < kSide; dGap += kSpacing)
                EXPECT_GE(vecOut[k * nAlong + static_cast<int>(dGap) * nAcross], 250) << bColumns << " " << k;
    }
}

INSTANTIATE_TEST_SUITE_P(Calibration, RoundTrip, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& info) { return std::string(info.param.pszName); });

}  // namespace
