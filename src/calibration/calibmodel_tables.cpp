// Coordinate-table model: the smooth source position of every position of a
// table's read region, its inverse, and the stored (rounded, clamped) entries.
#include "calibration/calibmodel.h"

#include <cmath>

#include "calibmodel_solve.h"

namespace tavk05cal {

namespace {

const TableLayout g_aLayout[2] = {
    // rows, cols, region row, region col, image, zero rows
    {640, 660, 21, 26, 1280, 676, 2, 634},
    {660, 660, 10, 25, 1288, 876, 2, 640},
};

// What the optics are calibrated to: the source rows and columns seen at the
// top, middle and bottom of the read region.
struct TableTargets {
    double dRowTop;                          // P(0)
    double dStepTop;                         // P'(0), source rows per output row
    double dRowMiddle;                       // P(300)
    double dRowBottom;                       // P(599)
    double dStepBottom;                      // P'(599)
    double dTilt;                            // top row: left end minus right end
    double dLeftTop, dLeftBottom;            // source column of region column 0
    double dRightTop, dRightBottom;          // source column of region column 599
    double dMidTop, dMidCentre, dMidBottom;  // source column of region column 300
};

// The corner and centre entries are whole numbers here, so rounding keeps
// them exactly; the 1103 top row is tilted by 0.9 so that it rounds to 10 at
// the left and 9 at the right.
const TableTargets g_aTargets[2] = {
    {20.0, 1.12, 351.0, 663.0, 1.00, 0.3, 14.0, 56.0, 1257.0, 1203.0, 637.0, 635.0, 632.0},
    {9.75, 1.28, 428.0, 872.0, 1.48, 0.9, 13.0, 56.0, 1267.0, 1221.0, 642.0, 643.0, 641.0},
};

const double kLast = 599.0;    // last region row and column
const double kMiddle = 300.0;  // middle region row and column
const double kMarginLow = -300.0;
const double kMarginHigh = 900.0;

inline double RoundHalfUp(double d) { return std::floor(d + 0.5); }

}  // namespace

const TableLayout& GetTableLayout(TableId eTable) { return g_aLayout[eTable == TABLE_1103 ? 1 : 0]; }

CTableModel::CTableModel(TableId eTable)
    : m_eTable(eTable == TABLE_1103 ? TABLE_1103 : TABLE_MAIN), m_pLayout(&GetTableLayout(m_eTable))
{
    const TableTargets& t = g_aTargets[m_eTable];

    // Quartic row function from its ends, its middle and the end slopes, in
    // the normalised row s = u / 599 (keeps the system well conditioned).
    const double m = kMiddle / kLast;
    double aRow[5 * 5] = {
        1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, m, m * m, m * m * m, m * m * m * m, 1, 1, 1, 1, 1, 0, 1, 2, 3, 4,
    };
    double aRhs[5] = {t.dRowTop, t.dStepTop * kLast, t.dRowMiddle, t.dRowBottom, t.dStepBottom * kLast};
    SolveLinear(aRow, aRhs, 5, m_dRow);

    // The tilt is half a unit of w on each side: T(0) is the full difference
    // between the ends of the top row. P(0) is the row's mean.
    m_dTilt = t.dTilt;

    m_dRowSpan = Row(kLast) - Row(0.0);
    m_dLeft[0] = t.dLeftTop;
    m_dLeft[1] = t.dLeftBottom - t.dLeftTop;
    m_dRight[0] = t.dRightTop;
    m_dRight[1] = t.dRightBottom - t.dRightTop;

    // Bow G(u) through the values that put region column 300 where the
    // targets say, at the top, middle and bottom rows.
    const double dW300 = 2.0 * kMiddle / kLast - 1.0;
    const double aU[3] = {0.0, kMiddle, kLast};
    const double aS[3] = {0.0, kMiddle / kLast, 1.0};
    const double aMid[3] = {t.dMidTop, t.dMidCentre, t.dMidBottom};
    double aBow[3 * 3];
    double aBowRhs[3];
    for (int k = 0; k < 3; ++k) {
        m_dBow[0] = m_dBow[1] = m_dBow[2] = 0.0;
        double dC = 0.0, dH = 0.0, dG = 0.0;
        Columns(aU[k], &dC, &dH, &dG);
        aBow[k * 3 + 0] = 1.0;
        aBow[k * 3 + 1] = aS[k];
        aBow[k * 3 + 2] = aS[k] * aS[k];
        aBowRhs[k] = aMid[k] - dC - dH * dW300;
    }
    SolveLinear(aBow, aBowRhs, 3, m_dBow);
}

double CTableModel::Row(double dU) const
{
    const double dS = dU / kLast;
    return m_dRow[0] + dS * (m_dRow[1] + dS * (m_dRow[2] + dS * (m_dRow[3] + dS * m_dRow[4])));
}

double CTableModel::RowSlope(double dU) const
{
    const double dS = dU / kLast;
    return (m_dRow[1] + dS * (2.0 * m_dRow[2] + dS * (3.0 * m_dRow[3] + dS * 4.0 * m_dRow[4]))) / kLast;
}

void CTableModel::Columns(double dU, double* pdC, double* pdH, double* pdG) const
{
    const double dQ = (Row(dU) - m_dRow[0]) / m_dRowSpan;
    const double dLeft = m_dLeft[0] + m_dLeft[1] * dQ;
    const double dRight = m_dRight[0] + m_dRight[1] * dQ;
    *pdC = 0.5 * (dLeft + dRight);
    *pdH = 0.5 * (dRight - dLeft);
    const double dS = dU / kLast;
    *pdG = m_dBow[0] + dS * (m_dBow[1] + dS * m_dBow[2]);
}

void CTableModel::ColumnSlopes(double dU, double* pdC, double* pdH, double* pdG) const
{
    const double dQ = RowSlope(dU) / m_dRowSpan;
    *pdC = 0.5 * (m_dLeft[1] + m_dRight[1]) * dQ;
    *pdH = 0.5 * (m_dRight[1] - m_dLeft[1]) * dQ;
    *pdG = (m_dBow[1] + 2.0 * (dU / kLast) * m_dBow[2]) / kLast;
}

void CTableModel::Source(double dU, double dV, double* pdX, double* pdY) const
{
    const double dW = 2.0 * dV / kLast - 1.0;
    double dC = 0.0, dH = 0.0, dG = 0.0;
    Columns(dU, &dC, &dH, &dG);
    const double dTilt = m_dTilt * (1.0 - dU / kLast);
    *pdX = dC + dH * dW + dG * (1.0 - dW * dW);
    *pdY = Row(dU) - 0.5 * dTilt * dW;
}

bool CTableModel::Region(double dX, double dY, double* pdU, double* pdV) const
{
    // Start from the row that sees dY in the middle of the row, then Newton
    // on both coordinates; the mapping is nearly separable, so a handful of
    // steps reach full precision.
    double dU = *pdU, dV = *pdV;
    if (!(dU >= kMarginLow && dU <= kMarginHigh && dV >= kMarginLow && dV <= kMarginHigh)) {
        dU = (dY - m_dRow[0]) / RowSlope(0.0);
        dV = kMiddle;
    }
    for (int nIter = 0; nIter < 30; ++nIter) {
        if (dU < kMarginLow || dU > kMarginHigh || dV < kMarginLow || dV > kMarginHigh) {
            return false;
        }
        const double dW = 2.0 * dV / kLast - 1.0;
        double dC = 0.0, dH = 0.0, dG = 0.0, dCu = 0.0, dHu = 0.0, dGu = 0.0;
        Columns(dU, &dC, &dH, &dG);
        ColumnSlopes(dU, &dCu, &dHu, &dGu);
        const double dTilt = m_dTilt * (1.0 - dU / kLast);
        const double dFx = dC + dH * dW + dG * (1.0 - dW * dW) - dX;
        const double dFy = Row(dU) - 0.5 * dTilt * dW - dY;
        // Jacobian in (u, w).
        const double dXu = dCu + dHu * dW + dGu * (1.0 - dW * dW);
        const double dXw = dH - 2.0 * dG * dW;
        const double dYu = RowSlope(dU) + 0.5 * m_dTilt / kLast * dW;
        const double dYw = -0.5 * dTilt;
        const double dDet = dXu * dYw - dXw * dYu;
        if (dDet == 0.0) {
            return false;
        }
        const double dStepU = (dFx * dYw - dXw * dFy) / dDet;
        const double dStepW = (dXu * dFy - dFx * dYu) / dDet;
        dU -= dStepU;
        dV -= dStepW * 0.5 * kLast;
        if (std::fabs(dStepU) < 1e-6 && std::fabs(dStepW) < 2e-9) {
            // Quadratic convergence: what remains is far below 1e-9 pixels.
            *pdU = dU;
            *pdV = dV;
            return dU >= kMarginLow && dU <= kMarginHigh && dV >= kMarginLow && dV <= kMarginHigh;
        }
    }
    return false;
}

void CTableModel::Entry(int nRow, int nCol, unsigned short* pusX, unsigned short* pusY) const
{
    const TableLayout& l = *m_pLayout;
    if (nRow < l.nLeadingZero || nRow >= l.nTrailingZero) {
        *pusX = 0;
        *pusY = 0;
        return;
    }
    double dX = 0.0, dY = 0.0;
    Source(nRow - l.nRegionRow, nCol - l.nRegionCol, &dX, &dY);
    dX = RoundHalfUp(dX);
    dY = RoundHalfUp(dY);
    if (dX < 0.0) dX = 0.0;
    if (dX > l.nImageWidth - 1) dX = l.nImageWidth - 1;
    if (dY < 0.0) dY = 0.0;
    if (dY > l.nImageHeight - 1) dY = l.nImageHeight - 1;
    *pusX = static_cast<unsigned short>(dX);
    *pusY = static_cast<unsigned short>(dY);
}

void CTableModel::Fill(unsigned short* pusX, unsigned short* pusY) const
{
    const TableLayout& l = *m_pLayout;
    for (int nRow = 0; nRow < l.nRows; ++nRow) {
        for (int nCol = 0; nCol < l.nCols; ++nCol) {
            const int n = nRow * l.nCols + nCol;
            Entry(nRow, nCol, &pusX[n], &pusY[n]);
        }
    }
}

}  // namespace tavk05cal
