// SSE2 forms of the jitter block and of the jittered mapping (darkening,
// table index and lookup). The jitter block: four values of r at a time, by
// r[j] = r[j - 6] + r[j - 34] + r[j - 31] (r[j - 3] expanded once), whose
// nearest term lies two vectors back, and the remainder by 9 through a
// multiply by 2^33 / 9 rounded up, exact for every 32-bit value.
#include "live_jitter.h"

#if defined(__SSE2__)
#include <emmintrin.h>

namespace oberin {

namespace {

inline __m128i Load(const uint32_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }

// x % 9 per 32-bit lane.
inline __m128i Remainder9(__m128i x)
{
    const __m128i magic = _mm_set1_epi32(0x38E38E39);
    const __m128i q02 = _mm_srli_epi64(_mm_mul_epu32(x, magic), 33);
    const __m128i q13 = _mm_srli_epi64(_mm_mul_epu32(_mm_srli_epi64(x, 32), magic), 33);
    const __m128i q = _mm_or_si128(q02, _mm_slli_epi64(q13, 32));
    return _mm_sub_epi32(x, _mm_add_epi32(_mm_slli_epi32(q, 3), q));
}

}  // namespace

size_t CLiveJitter::ExtendSse2(uint32_t* a, unsigned char* pOut, size_t n)
{
    const size_t nDone = n - n % 16;
    __m128i older = Load(a + kHistory - 8);  // r[j - 8 .. j - 5]
    __m128i last = Load(a + kHistory - 4);   // r[j - 4 .. j - 1]
    for (size_t k = 0; k < nDone; k += 16) {
        __m128i aJitter[4];
        for (int v = 0; v < 4; ++v) {
            const size_t j = kHistory + k + 4 * static_cast<size_t>(v);
            const __m128i back6 = _mm_or_si128(_mm_srli_si128(older, 8), _mm_slli_si128(last, 8));
            const __m128i r = _mm_add_epi32(_mm_add_epi32(back6, Load(a + j - kHistory)), Load(a + j - kHistory + 3));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(a + j), r);
            older = last;
            last = r;
            aJitter[v] = Remainder9(_mm_srli_epi32(r, 1));
        }
        const __m128i lo = _mm_packs_epi32(aJitter[0], aJitter[1]);
        const __m128i hi = _mm_packs_epi32(aJitter[2], aJitter[3]);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pOut + k), _mm_packus_epi16(lo, hi));
    }
    return nDone;
}

size_t MapDarkenedSse2(const unsigned char* pBg, const unsigned char* pIn, const unsigned char* pJitter,
                       const unsigned char* pShown, unsigned char* pDark, unsigned char* pOut, size_t n)
{
    const __m128i zero = _mm_setzero_si128();
    const __m128i span = _mm_set1_epi16(kJitterSpan);
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m128i d = _mm_subs_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pBg + i)),
                                        _mm_loadu_si128(reinterpret_cast<const __m128i*>(pIn + i)));
        const __m128i j = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pJitter + i));
        if (pDark != nullptr) _mm_storeu_si128(reinterpret_cast<__m128i*>(pDark + i), d);
        // The table indexes d x 9 + draw, eight 16-bit lanes each, looked
        // up straight from the lanes.
        const __m128i lo = _mm_add_epi16(_mm_mullo_epi16(_mm_unpacklo_epi8(d, zero), span), _mm_unpacklo_epi8(j, zero));
        const __m128i hi = _mm_add_epi16(_mm_mullo_epi16(_mm_unpackhi_epi8(d, zero), span), _mm_unpackhi_epi8(j, zero));
        unsigned char* const p = pOut + i;
        p[0] = pShown[_mm_extract_epi16(lo, 0)];
        p[1] = pShown[_mm_extract_epi16(lo, 1)];
        p[2] = pShown[_mm_extract_epi16(lo, 2)];
        p[3] = pShown[_mm_extract_epi16(lo, 3)];
        p[4] = pShown[_mm_extract_epi16(lo, 4)];
        p[5] = pShown[_mm_extract_epi16(lo, 5)];
        p[6] = pShown[_mm_extract_epi16(lo, 6)];
        p[7] = pShown[_mm_extract_epi16(lo, 7)];
        p[8] = pShown[_mm_extract_epi16(hi, 0)];
        p[9] = pShown[_mm_extract_epi16(hi, 1)];
        p[10] = pShown[_mm_extract_epi16(hi, 2)];
        p[11] = pShown[_mm_extract_epi16(hi, 3)];
        p[12] = pShown[_mm_extract_epi16(hi, 4)];
        p[13] = pShown[_mm_extract_epi16(hi, 5)];
        p[14] = pShown[_mm_extract_epi16(hi, 6)];
        p[15] = pShown[_mm_extract_epi16(hi, 7)];
    }
    return i;
}

}  // namespace oberin

#endif
