// The five correction paths: final image position <-> raw grey position.
//
// Table paths: final (fx, fy) is written from table region position
// (u = fy, v = 599 - fx), the mirror undone. Interpolating paths: final
// (fx, fy) is canvas (crop row + fy, crop column + 599 - fx), and the raw
// frame sits in the table's source shifted by the padding of the Ex path.
#include "calibration/calibmodel.h"

namespace tavk05cal {

namespace {

const double kLastFinal = kFinalSize - 1;
// A final position is inside within half a pixel of the border (and the
// rounding error of a round trip through the model).
const double kEdge = 0.5 + 1e-9;
const double kNoHint = -1.0e9;   // outside the table model's margin: no starting point

bool IsTablePath(Path ePath)
{
    return ePath == PATH_TABLE_1280 || ePath == PATH_TABLE_1288 || ePath == PATH_TABLE_1800;
}

ModifyId ModifyFor(Path ePath)
{
    return ePath == PATH_CALC_1800 ? MODIFY_EX : MODIFY_STD;
}

bool InsideFinal(double dFx, double dFy)
{
    return dFx >= -kEdge && dFx <= kLastFinal + kEdge && dFy >= -kEdge && dFy <= kLastFinal + kEdge;
}

}  // namespace

Path PathForDevice(int nDeviceType, unsigned int nFirmware)
{
    const bool bNew = nFirmware > 0x2FFFu;
    switch (nDeviceType) {
    case 5:
    case 6:
        return bNew ? PATH_TABLE_1800 : PATH_TABLE_1288;
    case 7:
    case 8:
        return bNew ? PATH_CALC_1800 : PATH_CALC_1288;
    default:
        return PATH_TABLE_1280;
    }
}

void RawSize(Path ePath, int* pnWidth, int* pnHeight)
{
    switch (ePath) {
    case PATH_TABLE_1288:
    case PATH_CALC_1288:
        *pnWidth = 1288;
        *pnHeight = 876;
        break;
    case PATH_TABLE_1800:
    case PATH_CALC_1800:
        *pnWidth = 1800;
        *pnHeight = 1280;
        break;
    default:
        *pnWidth = 1280;
        *pnHeight = 676;
        break;
    }
}

CGeometry::CGeometry(Path ePath)
    : m_ePath(ePath), m_nRawWidth(0), m_nRawHeight(0),
      m_Table(ePath == PATH_TABLE_1280 ? TABLE_MAIN : TABLE_1103)
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
    const bool bTable = IsTablePath(m_ePath);
    double dRowHintU = kNoHint, dRowHintV = kNoHint;
    for (int nY = 0; nY < m_nRawHeight; ++nY) {
        float* pRowX = pfFx + static_cast<size_t>(nY) * m_nRawWidth;
        float* pRowY = pfFy + static_cast<size_t>(nY) * m_nRawWidth;
        // Newton from the previous pixel's solution: one or two steps each.
        double dHintU = dRowHintU, dHintV = dRowHintV;
        for (int nX = 0; nX < m_nRawWidth; ++nX) {
            double dFx = 0.0, dFy = 0.0;
            bool bIn = false;
            if (bTable) {
                double dU = dHintU, dV = dHintV;
                if (m_Table.Region(nX, nY, &dU, &dV)) {
                    dHintU = dU;
                    dHintV = dV;
                    dFx = kLastFinal - dV;
                    dFy = dU;
                    bIn = InsideFinal(dFx, dFy);
                } else {
                    dHintU = dHintV = kNoHint;
                }
                if (nX == 0) {
                    dRowHintU = dHintU;
                    dRowHintV = dHintV;
                }
            } else {
                bIn = RawToFinal(nX, nY, &dFx, &dFy);
            }
            pRowX[nX] = bIn ? static_cast<float>(dFx) : kOutside;
            pRowY[nX] = bIn ? static_cast<float>(dFy) : kOutside;
        }
    }
}

}  // namespace tavk05cal
