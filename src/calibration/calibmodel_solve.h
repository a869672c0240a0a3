// Small dense linear solver for the model's fits (only +, -, *, / so that
// every ABI gets the same coefficients).
#ifndef TAVK05_CALIBMODEL_SOLVE_H
#define TAVK05_CALIBMODEL_SOLVE_H

namespace tavk05cal {

// Solves A x = b for an n x n row-major A (n <= 8) by Gaussian elimination
// with partial pivoting. A and b are overwritten. False when A is singular.
bool SolveLinear(double* pA, double* pB, int n, double* pX);

}  // namespace tavk05cal

#endif
