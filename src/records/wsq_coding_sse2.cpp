// SSE2 kernels of the codec's passes over the whole image: the grey-level
// statistics of the normalisation, the quantiser and the search for runs of
// zero bin indices when encoding, the grey levels of the reconstruction when
// decoding. Each does a prefix of its work with the same arithmetic
// as the plain loop (IEEE division, comparisons and truncation are exact in
// either form) and returns how far it went; the plain loop finishes.
#include "wsq_internal.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace tavk05rec {
namespace wsq {

size_t GreyStatsSse2(const unsigned char* pPixels, size_t nCount, GreyStats& stats)
{
#if defined(__SSE2__)
    // Sums of 16 bytes at a time stay exact in the 64-bit lanes of psadbw.
    size_t i = 0;
    __m128i sum = _mm_setzero_si128();
    __m128i least = _mm_set1_epi8(static_cast<char>(stats.nMin));
    __m128i most = _mm_set1_epi8(static_cast<char>(stats.nMax));
    const __m128i zero = _mm_setzero_si128();
    for (; i + 16 <= nCount; i += 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pPixels + i));
        sum = _mm_add_epi64(sum, _mm_sad_epu8(v, zero));
        least = _mm_min_epu8(least, v);
        most = _mm_max_epu8(most, v);
    }
    alignas(16) uint64_t anSum[2];
    alignas(16) unsigned char anLeast[16], anMost[16];
    _mm_store_si128(reinterpret_cast<__m128i*>(anSum), sum);
    _mm_store_si128(reinterpret_cast<__m128i*>(anLeast), least);
    _mm_store_si128(reinterpret_cast<__m128i*>(anMost), most);
    stats.nSum += anSum[0] + anSum[1];
    for (int k = 0; k < 16; ++k) {
        if (anLeast[k] < stats.nMin) stats.nMin = anLeast[k];
        if (anMost[k] > stats.nMax) stats.nMax = anMost[k];
    }
    return i;
#else
    (void)pPixels;
    (void)nCount;
    (void)stats;
    return 0;
#endif
}

int QuantizeSse2(const double* pCoef, int nCount, double dQ, double dHalfZ, int* pOut)
{
#if defined(__SSE2__)
    const __m128d q = _mm_set1_pd(dQ);
    const __m128d halfZ = _mm_set1_pd(dHalfZ);
    const __m128d negHalfZ = _mm_set1_pd(-dHalfZ);
    const __m128d one = _mm_set1_pd(1.0);
    const __m128d zero = _mm_setzero_pd();
    const __m128d top = _mm_set1_pd(2147483647.0);
    const __m128d bottom = _mm_set1_pd(-2147483647.0);
    int i = 0;
    for (; i + 4 <= nCount; i += 4) {
        const __m128d c0 = _mm_loadu_pd(pCoef + i);
        const __m128d c1 = _mm_loadu_pd(pCoef + i + 2);
        // Inside the zero bin: -Z/2 <= c <= Z/2.
        const __m128d in0 = _mm_and_pd(_mm_cmpge_pd(c0, negHalfZ), _mm_cmple_pd(c0, halfZ));
        const __m128d in1 = _mm_and_pd(_mm_cmpge_pd(c1, negHalfZ), _mm_cmple_pd(c1, halfZ));
        if (_mm_movemask_pd(_mm_and_pd(in0, in1)) == 3) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(pOut + i), _mm_setzero_si128());
            continue;
        }
        __m128i an[2];
        const __m128d ac[2] = {c0, c1};
        const __m128d ain[2] = {in0, in1};
        for (int h = 0; h < 2; ++h) {
            const __m128d c = ac[h];
            const __m128d up = _mm_add_pd(_mm_div_pd(_mm_sub_pd(c, halfZ), q), one);
            const __m128d down = _mm_sub_pd(_mm_div_pd(_mm_add_pd(c, halfZ), q), one);
            const __m128d positive = _mm_cmpgt_pd(c, zero);
            __m128d index = _mm_or_pd(_mm_and_pd(positive, up), _mm_andnot_pd(positive, down));
            index = _mm_max_pd(_mm_min_pd(index, top), bottom);
            index = _mm_andnot_pd(ain[h], index);
            an[h] = _mm_cvttpd_epi32(index);
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pOut + i), _mm_unpacklo_epi64(an[0], an[1]));
    }
    return i;
#else
    (void)pCoef;
    (void)nCount;
    (void)dQ;
    (void)dHalfZ;
    (void)pOut;
    return 0;
#endif
}

size_t ZeroRunSse2(const int* pIndex, size_t nCount)
{
#if defined(__SSE2__)
    const __m128i zero = _mm_setzero_si128();
    size_t i = 0;
    for (; i + 8 <= nCount; i += 8) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pIndex + i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pIndex + i + 4));
        if (_mm_movemask_epi8(_mm_cmpeq_epi32(_mm_or_si128(a, b), zero)) != 0xFFFF) break;
    }
    return i;
#else
    (void)pIndex;
    (void)nCount;
    return 0;
#endif
}

size_t ToGreySse2(const double* pImage, size_t nCount, double dScale, double dMean, unsigned char* pOut)
{
#if defined(__SSE2__)
    const __m128d scale = _mm_set1_pd(dScale);
    const __m128d mean = _mm_set1_pd(dMean);
    const __m128d half = _mm_set1_pd(0.5);
    const __m128d zero = _mm_setzero_pd();
    const __m128d white = _mm_set1_pd(255.0);
    size_t i = 0;
    for (; i + 8 <= nCount; i += 8) {
        __m128i an[4];
        for (int h = 0; h < 4; ++h) {
            __m128d d = _mm_loadu_pd(pImage + i + 2 * h);
            d = _mm_add_pd(_mm_add_pd(_mm_mul_pd(d, scale), mean), half);
            d = _mm_min_pd(_mm_max_pd(d, zero), white);
            an[h] = _mm_cvttpd_epi32(d);
        }
        const __m128i lo = _mm_unpacklo_epi64(an[0], an[1]);
        const __m128i hi = _mm_unpacklo_epi64(an[2], an[3]);
        const __m128i words = _mm_packs_epi32(lo, hi);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(pOut + i), _mm_packus_epi16(words, words));
    }
    return i;
#else
    (void)pImage;
    (void)nCount;
    (void)dScale;
    (void)dMean;
    (void)pOut;
    return 0;
#endif
}

}  // namespace wsq
}  // namespace tavk05rec
