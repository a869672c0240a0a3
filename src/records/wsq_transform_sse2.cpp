// SSE2 kernel of the line filter: eight, then two outputs per step, each summed over
// the taps in the same order as the plain loop, so the results are the same bits.
// The usual tap counts (up to ten) have their own unrolled copy: the tap rows'
// addresses and the broadcast coefficients are set up once per call rather than
// once per tap and output group.
#include "wsq_internal.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace tavk05rec {
namespace wsq {

#if defined(__SSE2__)
namespace {

template <int N>
int CombineFixed(double* pOut, const double* pBase, size_t nRowStride, const int* pSource, const double* pCoef,
                 int nCount)
{
    const double* apRow[N];
    __m128d aCoef[N];
    for (int t = 0; t < N; ++t) {
        apRow[t] = pBase + static_cast<size_t>(pSource[t]) * nRowStride;
        aCoef[t] = _mm_set1_pd(pCoef[t]);
    }
    int x = 0;
    for (; x + 8 <= nCount; x += 8) {
        __m128d acc0 = _mm_setzero_pd();
        __m128d acc1 = _mm_setzero_pd();
        __m128d acc2 = _mm_setzero_pd();
        __m128d acc3 = _mm_setzero_pd();
#if defined(__i386__)
#pragma GCC unroll 1
#else
#pragma GCC unroll 16
#endif
        for (int t = 0; t < N; ++t) {
            const double* pRow = apRow[t] + x;
            acc0 = _mm_add_pd(acc0, _mm_mul_pd(aCoef[t], _mm_loadu_pd(pRow)));
            acc1 = _mm_add_pd(acc1, _mm_mul_pd(aCoef[t], _mm_loadu_pd(pRow + 2)));
            acc2 = _mm_add_pd(acc2, _mm_mul_pd(aCoef[t], _mm_loadu_pd(pRow + 4)));
            acc3 = _mm_add_pd(acc3, _mm_mul_pd(aCoef[t], _mm_loadu_pd(pRow + 6)));
        }
        _mm_storeu_pd(pOut + x, acc0);
        _mm_storeu_pd(pOut + x + 2, acc1);
        _mm_storeu_pd(pOut + x + 4, acc2);
        _mm_storeu_pd(pOut + x + 6, acc3);
    }
    for (; x + 2 <= nCount; x += 2) {
        __m128d acc = _mm_setzero_pd();
#pragma GCC unroll 16
        for (int t = 0; t < N; ++t) acc = _mm_add_pd(acc, _mm_mul_pd(aCoef[t], _mm_loadu_pd(apRow[t] + x)));
        _mm_storeu_pd(pOut + x, acc);
    }
    return x;
}

int CombineAny(double* pOut, const double* pBase, size_t nRowStride, const int* pSource, const double* pCoef, int nTaps,
               int nCount)
{
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
}

}  // namespace
#endif

int CombineRowsSse2(double* pOut, const double* pBase, size_t nRowStride, const int* pSource, const double* pCoef,
                    int nTaps, int nCount)
{
#if defined(__SSE2__)
    switch (nTaps) {
        case 1:
            return CombineFixed<1>(pOut, pBase, nRowStride, pSource, pCoef, nCount);
        case 2:
            return CombineFixed<2>(pOut, pBase, nRowStride, pSource, pCoef, nCount);
        case 3:
            return CombineFixed<3>(pOut, pBase, nRowStride, pSource, pCoef, nCount);
        case 4:
            return CombineFixed<4>(pOut, pBase, nRowStride, pSource, pCoef, nCount);
        case 5:
            return CombineFixed<5>(pOut, pBase, nRowStride, pSource, pCoef, nCount);
        case 6:
            return CombineFixed<6>(pOut, pBase, nRowStride, pSource, pCoef, nCount);
        case 7:
            return CombineFixed<7>(pOut, pBase, nRowStride, pSource, pCoef, nCount);
        case 8:
            return CombineFixed<8>(pOut, pBase, nRowStride, pSource, pCoef, nCount);
        case 9:
            return CombineFixed<9>(pOut, pBase, nRowStride, pSource, pCoef, nCount);
        case 10:
            return CombineFixed<10>(pOut, pBase, nRowStride, pSource, pCoef, nCount);
        default:
            return nTaps > 0 ? CombineAny(pOut, pBase, nRowStride, pSource, pCoef, nTaps, nCount) : 0;
    }
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

int EveryOtherSse2(double* pOut, const double* pFrom, int nCount)
{
#if defined(__SSE2__)
    int i = 0;
    for (; i + 4 <= nCount; i += 4) {
        const __m128d a = _mm_loadh_pd(_mm_load_sd(pFrom + 2 * i), pFrom + 2 * i + 2);
        const __m128d b = _mm_loadh_pd(_mm_load_sd(pFrom + 2 * i + 4), pFrom + 2 * i + 6);
        _mm_storeu_pd(pOut + i, a);
        _mm_storeu_pd(pOut + i + 2, b);
    }
    return i;
#else
    (void)pOut;
    (void)pFrom;
    (void)nCount;
    return 0;
#endif
}

int InterleaveSse2(double* pOut, const double* pEven, const double* pOdd, int nPairs)
{
#if defined(__SSE2__)
    int k = 0;
    for (; k + 2 <= nPairs; k += 2) {
        const __m128d e = _mm_loadu_pd(pEven + k);
        const __m128d o = _mm_loadu_pd(pOdd + k);
        _mm_storeu_pd(pOut + 2 * k, _mm_unpacklo_pd(e, o));
        _mm_storeu_pd(pOut + 2 * k + 2, _mm_unpackhi_pd(e, o));
    }
    return k;
#else
    (void)pOut;
    (void)pEven;
    (void)pOdd;
    (void)nPairs;
    return 0;
#endif
}

}  // namespace wsq
}  // namespace tavk05rec
