// The five correction paths: final image position <-> raw grey position.
//
// Table paths: final (fx, fy) is written from table region position
// (u = fy, v = 599 - fx), the mirror undone. Interpolating paths: final
// (fx, fy) is canvas (crop row + fy, crop column + 599 - fx), and the raw
// frame sits in the table's source shifted by the padding of the Ex path.
#include "calibration/calibmodel.h"
#include "profile/model_profile.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace tavk05cal {

namespace {

const double kLastFinal = kFinalSize - 1;
// A final position is inside within half a pixel of the border (and the
// rounding error of a round trip through the model).
const double kEdge = 0.5 + 1e-9;
const double kNoHint = -1.0e9;  // outside the table model's margin: no starting point

bool IsTablePath(Path ePath)
{
    return ePath == PATH_TABLE_1280 || ePath == PATH_TABLE_1288 || ePath == PATH_TABLE_1800;
}

ModifyId ModifyFor(Path ePath) { return ePath == PATH_CALC_1800 ? MODIFY_EX : MODIFY_STD; }

bool InsideFinal(double dFx, double dFy)
{
    return dFx >= -kEdge && dFx <= kLastFinal + kEdge && dFy >= -kEdge && dFy <= kLastFinal + kEdge;
}

void FillPointwise(const CGeometry& geo, float* pfFx, float* pfFy)
{
    for (int nY = 0; nY < geo.RawHeight(); ++nY) {
        for (int nX = 0; nX < geo.RawWidth(); ++nX) {
            const size_t i = static_cast<size_t>(nY) * geo.RawWidth() + nX;
            double dFx = 0.0, dFy = 0.0;
            const bool bIn = geo.RawToFinal(nX, nY, &dFx, &dFy);
            pfFx[i] = bIn ? static_cast<float>(dFx) : kOutside;
            pfFy[i] = bIn ? static_cast<float>(dFy) : kOutside;
        }
    }
}

}  // namespace

Path PathForDevice(int nDeviceType, unsigned int nFirmware)
{
    const tavk05profile::ModelProfile& profile =
        tavk05profile::ProfileOf(nDeviceType, tavk05profile::IsNewFirmware(static_cast<int>(nFirmware)));
    switch (profile.eCorrection) {
        case tavk05profile::kCorrectCalc:
            return PATH_CALC_1288;
        case tavk05profile::kCorrectCalcEx:
            return PATH_CALC_1800;
        default:
            break;
    }
    if (profile.nRawWidth == tavk05profile::kLargeWidth) return PATH_TABLE_1800;
    return profile.nRawWidth == tavk05profile::kMidWidth ? PATH_TABLE_1288 : PATH_TABLE_1280;
}

// The raw geometry a path corrects: the mid-sized sensor for the 1288 paths,
// the large one for the 1800 paths, the small one for the main tables.
void RawSize(Path ePath, int* pnWidth, int* pnHeight)
{
    const bool bMid = ePath == PATH_TABLE_1288 || ePath == PATH_CALC_1288;
    const bool bLarge = ePath == PATH_TABLE_1800 || ePath == PATH_CALC_1800;
    *pnWidth = static_cast<int>(bLarge ? tavk05profile::kLargeWidth
                                : bMid ? tavk05profile::kMidWidth
                                       : tavk05profile::kSmallWidth);
    *pnHeight = static_cast<int>(bLarge ? tavk05profile::kLargeHeight
                                 : bMid ? tavk05profile::kMidHeight
                                        : tavk05profile::kSmallHeight);
}

CGeometry::CGeometry(Path ePath)
    : m_ePath(ePath), m_nRawWidth(0), m_nRawHeight(0), m_Table(ePath == PATH_TABLE_1280 ? TABLE_MAIN : TABLE_1103)
{
    RawSize(ePath, &m_nRawWidth, &m_nRawHeight);
}

void CGeometry::FinalToRaw(double dFx, double dFy, double* pdSx, double* pdSy) const
{
    if (IsTablePath(m_ePath)) {
        m_Table.Source(dFy, kLastFinal - dFx, pdSx, pdSy);
        return;
    }
    const ModifyId eTable = ModifyFor(m_ePath);
    const ModifyLayout& l = GetModifyLayout(eTable);
    double dSx = 0.0, dSy = 0.0;
    ModifyCanvasToSource(eTable, l.nCropRow + dFy, l.nCropCol + kLastFinal - dFx, &dSx, &dSy);
    *pdSx = dSx + l.nPadCol;
    *pdSy = dSy - l.nPadRow;
}

bool CGeometry::RawToFinal(double dSx, double dSy, double* pdFx, double* pdFy) const
{
    double dFx = 0.0, dFy = 0.0;
    if (IsTablePath(m_ePath)) {
        // A starting point outside the model's margin means "none".
        double dU = kNoHint, dV = kNoHint;
        if (!m_Table.Region(dSx, dSy, &dU, &dV)) {
            return false;
        }
        dFx = kLastFinal - dV;
        dFy = dU;
    } else {
        const ModifyId eTable = ModifyFor(m_ePath);
        const ModifyLayout& l = GetModifyLayout(eTable);
        double dRow = 0.0, dCol = 0.0;
        ModifySourceToCanvas(eTable, dSx - l.nPadCol, dSy + l.nPadRow, &dRow, &dCol);
        dFy = dRow - l.nCropRow;
        dFx = l.nCropCol + kLastFinal - dCol;
    }
    if (!InsideFinal(dFx, dFy)) {
        return false;
    }
    *pdFx = dFx;
    *pdFy = dFy;
    return true;
}

void CGeometry::FillRawToFinal(float* pfFx, float* pfFy) const
{
    if (!IsTablePath(m_ePath)) {
        // Closed form: cheap enough per pixel.
        FillPointwise(*this, pfFx, pfFy);
        return;
    }
    // Table paths: the model is inverted by Newton's method at knots every
    // kKnot raw columns (each started from the previous knot's solution) and
    // interpolated linearly in between; the inverse bends so little over
    // kKnot columns (below 1e-4 final pixels) that only pixels right at the
    // border of the final image need a solve of their own to be classified
    // exactly as RawToFinal would.
    const int kKnot = 8;
    const double kNearBorder = 0.01;
    std::vector<double> vecU, vecV;
    std::vector<char> vecOk;
    try {
        const size_t nKnots = static_cast<size_t>(m_nRawWidth / kKnot + 2);
        vecU.resize(nKnots);
        vecV.resize(nKnots);
        vecOk.resize(nKnots);
    } catch (...) {
        // Without the knot arrays, solve every pixel.
        FillPointwise(*this, pfFx, pfFy);
        return;
    }
    double dRowHintU = kNoHint, dRowHintV = kNoHint;
    for (int nY = 0; nY < m_nRawHeight; ++nY) {
        // Knots at 0, kKnot, 2 kKnot, ... and the last column.
        int nKnots = 0;
        double dHintU = dRowHintU, dHintV = dRowHintV;
        for (int nX = 0;; nX += kKnot) {
            const int nAt = std::min(nX, m_nRawWidth - 1);
            double dU = dHintU, dV = dHintV;
            const bool bOk = m_Table.Region(nAt, nY, &dU, &dV);
            vecU[nKnots] = dU;
            vecV[nKnots] = dV;
            vecOk[nKnots] = bOk ? 1 : 0;
            dHintU = bOk ? dU : kNoHint;
            dHintV = bOk ? dV : kNoHint;
            if (nKnots == 0) {
                dRowHintU = dHintU;
                dRowHintV = dHintV;
            }
            ++nKnots;
            if (nAt == m_nRawWidth - 1) {
                break;
            }
        }
        float* pRowX = pfFx + static_cast<size_t>(nY) * m_nRawWidth;
        float* pRowY = pfFy + static_cast<size_t>(nY) * m_nRawWidth;
        for (int nX = 0; nX < m_nRawWidth; ++nX) {
            const int k = nX / kKnot;
            const int nX0 = k * kKnot;
            const int nX1 = std::min(nX0 + kKnot, m_nRawWidth - 1);
            double dFx = 0.0, dFy = 0.0;
            bool bIn = false;
            bool bExact = !(vecOk[k] && (nX == nX0 || vecOk[k + 1]));
            if (!bExact) {
                const double dT = nX == nX0 ? 0.0 : static_cast<double>(nX - nX0) / (nX1 - nX0);
                const double dU = nX == nX0 ? vecU[k] : vecU[k] + (vecU[k + 1] - vecU[k]) * dT;
                const double dV = nX == nX0 ? vecV[k] : vecV[k] + (vecV[k + 1] - vecV[k]) * dT;
                dFx = kLastFinal - dV;
                dFy = dU;
                const double dLow = -kEdge, dHigh = kLastFinal + kEdge;
                bExact = std::fabs(dFx - dLow) < kNearBorder || std::fabs(dFx - dHigh) < kNearBorder ||
                         std::fabs(dFy - dLow) < kNearBorder || std::fabs(dFy - dHigh) < kNearBorder;
                bIn = InsideFinal(dFx, dFy);
            }
            if (bExact) {
                bIn = RawToFinal(nX, nY, &dFx, &dFy);
            }
            pRowX[nX] = bIn ? static_cast<float>(dFx) : kOutside;
            pRowY[nX] = bIn ? static_cast<float>(dFy) : kOutside;
        }
    }
}

}  // namespace tavk05cal
