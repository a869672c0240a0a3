// SSE2 kernel of the column filter: two outputs per step, each summed over
// the taps in the same order as the plain loop, so the results are the same bits.
#include "wsq_internal.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace tavk05rec {
namespace wsq {

int CombineRowsSse2(double* pOut, const double* const* ppRows, const double* pCoef, int nTaps, int nCount) {
#if defined(__SSE2__)
    int x = 0;
    for (; x + 4 <= nCount; x += 4) {
        __m128d acc0 = _mm_setzero_pd();
        __m128d acc1 = _mm_setzero_pd();
        for (int t = 0; t < nTaps; ++t) {
            const __m128d c = _mm_set1_pd(pCoef[t]);
            acc0 = _mm_add_pd(acc0, _mm_mul_pd(c, _mm_loadu_pd(ppRows[t] + x)));
            acc1 = _mm_add_pd(acc1, _mm_mul_pd(c, _mm_loadu_pd(ppRows[t] + x + 2)));
        }
        _mm_storeu_pd(pOut + x, acc0);
        _mm_storeu_pd(pOut + x + 2, acc1);
    }
    return x;
#else
    (void)pOut;
    (void)ppRows;
    (void)pCoef;
    (void)nTaps;
    (void)nCount;
    return 0;
#endif
}

}  // namespace wsq
}  // namespace tavk05rec
