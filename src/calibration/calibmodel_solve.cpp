#include "calibmodel_solve.h"

namespace tavk05cal {

bool SolveLinear(double* pA, double* pB, int n, double* pX)
{
    if (n <= 0 || n > 8) {
        return false;
    }
    for (int nCol = 0; nCol < n; ++nCol) {
        int nPivot = nCol;
        for (int nRow = nCol + 1; nRow < n; ++nRow) {
            const double dCand = pA[nRow * n + nCol];
            const double dBest = pA[nPivot * n + nCol];
            if ((dCand < 0 ? -dCand : dCand) > (dBest < 0 ? -dBest : dBest)) {
                nPivot = nRow;
            }
        }
        if (pA[nPivot * n + nCol] == 0.0) {
            return false;
        }
        if (nPivot != nCol) {
            for (int k = 0; k < n; ++k) {
                const double d = pA[nCol * n + k];
                pA[nCol * n + k] = pA[nPivot * n + k];
                pA[nPivot * n + k] = d;
            }
            const double d = pB[nCol];
            pB[nCol] = pB[nPivot];
            pB[nPivot] = d;
        }
        for (int nRow = nCol + 1; nRow < n; ++nRow) {
            const double dFactor = pA[nRow * n + nCol] / pA[nCol * n + nCol];
            for (int k = nCol; k < n; ++k) {
                pA[nRow * n + k] -= dFactor * pA[nCol * n + k];
            }
            pB[nRow] -= dFactor * pB[nCol];
        }
    }
    for (int nRow = n - 1; nRow >= 0; --nRow) {
        double dSum = pB[nRow];
        for (int k = nRow + 1; k < n; ++k) {
            dSum -= pA[nRow * n + k] * pX[k];
        }
        pX[nRow] = dSum / pA[nRow * n + nRow];
    }
    return true;
}

}  // namespace tavk05cal
