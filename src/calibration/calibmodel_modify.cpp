// Geometry of the interpolating correction: canvas row i is taken from
// source row i / (k1 i + k0), and the distance j from the canvas centre is
// stretched to j / (m1 i + m0) source columns; the right half of the canvas
// samples from the source centre column on, the left half is the mirror.
#include "calibration/calibmodel.h"

namespace tavk05cal {

namespace {

struct ModifyCoeffs {
    float fRowSlope;  // k1
    float fRowBase;   // k0
    float fColSlope;  // m1
    float fColBase;   // m0
};

const ModifyCoeffs g_aCoeffs[2] = {
    {-5.3583e-05f, 0.81343f, 7.4524e-05f, 0.4946f},
    {-1.1357385e-05f, 0.4958448f, 5.20432e-05f, 0.3598727f},
};

const ModifyLayout g_aModify[2] = {
    // canvas, source, centre, crop row/col, padding
    {660, 1288, 876, 644, 30, 30, 0, 0},
    {650, 1700, 1300, 850, 10, 26, 10, 50},
};

inline int Index(ModifyId eTable) { return eTable == MODIFY_EX ? 1 : 0; }

}  // namespace

const ModifyLayout& GetModifyLayout(ModifyId eTable) { return g_aModify[Index(eTable)]; }

float ModifyRowDivisor(ModifyId eTable, int nRow)
{
    const ModifyCoeffs& c = g_aCoeffs[Index(eTable)];
    return static_cast<float>(static_cast<double>(c.fRowSlope) * nRow + static_cast<double>(c.fRowBase));
}

float ModifyColDivisor(ModifyId eTable, int nRow)
{
    const ModifyCoeffs& c = g_aCoeffs[Index(eTable)];
    return static_cast<float>(static_cast<double>(c.fColSlope) * nRow + static_cast<double>(c.fColBase));
}

void ModifyCanvasToSource(ModifyId eTable, double dRow, double dCol, double* pdSx, double* pdSy)
{
    const ModifyCoeffs& c = g_aCoeffs[Index(eTable)];
    const ModifyLayout& l = g_aModify[Index(eTable)];
    const double dRowDiv = static_cast<double>(c.fRowSlope) * dRow + static_cast<double>(c.fRowBase);
    const double dColDiv = static_cast<double>(c.fColSlope) * dRow + static_cast<double>(c.fColBase);
    const double dHalf = l.nCanvas / 2;
    const double dJ = dCol - dHalf;
    *pdSy = dRow / dRowDiv;
    if (dJ <= 0.0) {
        // Left half (the centre column included): the mirrored source, one
        // column left of the centre.
        *pdSx = (l.nSrcCentre - 1) + dJ / dColDiv;
    } else if (dJ >= 1.0) {
        *pdSx = l.nSrcCentre + dJ / dColDiv;
    } else {
        // Between the centre column and the next: the seam, bridged linearly.
        *pdSx = (l.nSrcCentre - 1) + dJ * (1.0 + 1.0 / dColDiv);
    }
}

void ModifySourceToCanvas(ModifyId eTable, double dSx, double dSy, double* pdRow, double* pdCol)
{
    const ModifyCoeffs& c = g_aCoeffs[Index(eTable)];
    const ModifyLayout& l = g_aModify[Index(eTable)];
    // y = i / (k1 i + k0)  <=>  i = y k0 / (1 - y k1)
    const double dRow = dSy * static_cast<double>(c.fRowBase) / (1.0 - dSy * static_cast<double>(c.fRowSlope));
    const double dColDiv = static_cast<double>(c.fColSlope) * dRow + static_cast<double>(c.fColBase);
    const double dHalf = l.nCanvas / 2;
    const double dLeftEnd = l.nSrcCentre - 1;
    const double dRightStart = l.nSrcCentre + 1.0 / dColDiv;
    *pdRow = dRow;
    if (dSx <= dLeftEnd) {
        *pdCol = dHalf + (dSx - dLeftEnd) * dColDiv;
    } else if (dSx >= dRightStart) {
        *pdCol = dHalf + (dSx - l.nSrcCentre) * dColDiv;
    } else {
        *pdCol = dHalf + (dSx - dLeftEnd) / (1.0 + 1.0 / dColDiv);
    }
}

}  // namespace tavk05cal
