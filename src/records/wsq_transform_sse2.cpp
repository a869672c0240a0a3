// SSE2 kernel of the line filter: eight, then two outputs per step, each summed over
// the taps in the same order as the plain loop, so the results are the same bits.
#include "wsq_internal.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace tavk05rec {
namespace wsq {

int CombineRowsSse2(double* pOut, const double* pBase, size_t nRowStride, const int* pSource, const double* pCoef,
                    int nTaps, int nCount) {
#if defined(__SSE2__)
    int x = 0;
    for (; x + 8 <= nCount; x += 8) {
        __m128d acc0 = _mm_setzero_pd();
        __m128d acc1 = _mm_setzero_pd();
        __m128d acc2 = _mm_setzero_pd();
        __m128d acc3 = _mm_setzero_pd();
        for (int t = 0; t < nTaps; ++t) {
            const __m128d c = _mm_set1_pd(pCoef[t]);
            const double* pRow = pBase + static_cast<size_t>(pSource[t]) * nRowStride + x;
            acc0 = _mm_add_pd(acc0, _mm_mul_pd(c, _mm_loadu_pd(pRow)));
            acc1 = _mm_add_pd(acc1, _mm_mul_pd(c, _mm_loadu_pd(pRow + 2)));
            acc2 = _mm_add_pd(acc2, _mm_mul_pd(c, _mm_loadu_pd(pRow + 4)));
            acc3 = _mm_add_pd(acc3, _mm_mul_pd(c, _mm_loadu_pd(pRow + 6)));
        }
        _mm_storeu_pd(pOut + x, acc0);
        _mm_storeu_pd(pOut + x + 2, acc1);
        _mm_storeu_pd(pOut + x + 4, acc2);
        _mm_storeu_pd(pOut + x + 6, acc3);
    }
    for (; x + 2 <= nCount; x += 2) {
        __m128d acc = _mm_setzero_pd();
        for (int t = 0; t < nTaps; ++t) {
            const double* pRow = pBase + static_cast<size_t>(pSource[t]) * nRowStride + x;
            acc = _mm_add_pd(acc, _mm_mul_pd(_mm_set1_pd(pCoef[t]), _mm_loadu_pd(pRow)));
        }
        _mm_storeu_pd(pOut + x, acc);
    }
    return x;
#else
    (void)pOut;
    (void)pBase;
    (void)nRowStride;
    (void)pSource;
    (void)pCoef;
    (void)nTaps;
    (void)nCount;
    return 0;
#endif
}

}  // namespace wsq
}  // namespace tavk05rec
