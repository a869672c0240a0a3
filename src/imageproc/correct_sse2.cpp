// SSE2 kernels of the corrections: eight entries of a compact modify-table
// row at a time, and the byte reversal of the mirror.
#include "imageproc/correct_geometry.h"

#if defined(__SSE2__)
#include <emmintrin.h>

#include <cstdint>
#include <cstring>

namespace imageproc {

namespace {

inline __m128i ReverseBytes(__m128i v)
{
    v = _mm_shuffle_epi32(v, _MM_SHUFFLE(0, 1, 2, 3));
    v = _mm_shufflelo_epi16(v, _MM_SHUFFLE(2, 3, 0, 1));
    v = _mm_shufflehi_epi16(v, _MM_SHUFFLE(2, 3, 0, 1));
    return _mm_or_si128(_mm_slli_epi16(v, 8), _mm_srli_epi16(v, 8));
}

// The eight 16-bit lanes in reverse order.
inline __m128i ReverseWords(__m128i v)
{
    v = _mm_shuffle_epi32(v, _MM_SHUFFLE(0, 1, 2, 3));
    v = _mm_shufflelo_epi16(v, _MM_SHUFFLE(2, 3, 0, 1));
    return _mm_shufflehi_epi16(v, _MM_SHUFFLE(2, 3, 0, 1));
}

inline int Load16(const unsigned char* p)
{
    uint16_t n;
    std::memcpy(&n, p, sizeof n);
    return n;
}

// The two bytes at p + anOffset[k], for k from 0 to 7, as eight 16-bit
// lanes: the byte at the lower address in the low half.
inline __m128i Pairs(const unsigned char* p, const int (&anOffset)[8])
{
    __m128i v = _mm_cvtsi32_si128(Load16(p + anOffset[0]));
    v = _mm_insert_epi16(v, Load16(p + anOffset[1]), 1);
    v = _mm_insert_epi16(v, Load16(p + anOffset[2]), 2);
    v = _mm_insert_epi16(v, Load16(p + anOffset[3]), 3);
    v = _mm_insert_epi16(v, Load16(p + anOffset[4]), 4);
    v = _mm_insert_epi16(v, Load16(p + anOffset[5]), 5);
    v = _mm_insert_epi16(v, Load16(p + anOffset[6]), 6);
    return _mm_insert_epi16(v, Load16(p + anOffset[7]), 7);
}

// One weighted sum per lane: the same single-precision products and sums,
// in the same order, as the plain loop, truncated toward zero.
inline __m128i WeightedFour(__m128i tl, __m128i tr, __m128i br, __m128i bl, const __m128 (&aw)[4])
{
    __m128 sum = _mm_mul_ps(_mm_cvtepi32_ps(tl), aw[0]);
    sum = _mm_add_ps(sum, _mm_mul_ps(_mm_cvtepi32_ps(tr), aw[1]));
    sum = _mm_add_ps(sum, _mm_mul_ps(_mm_cvtepi32_ps(br), aw[2]));
    sum = _mm_add_ps(sum, _mm_mul_ps(_mm_cvtepi32_ps(bl), aw[3]));
    return _mm_cvttps_epi32(sum);
}

// Four entries: the weights from the column fractions fc and the row
// fraction, then the right pixels from the pairs top and bottom (left
// sample in the low byte) and the left pixels from the mirrored pairs
// (whose high byte is the mirrored image's left sample). Each pair vector
// holds four entries in 32-bit lanes.
inline void Four(__m128i top, __m128i bottom, __m128i topMirror, __m128i bottomMirror, __m128 fc, __m128 fr,
                 __m128 fRowNear, __m128i& right, __m128i& left)
{
    const __m128 fColNear = _mm_sub_ps(_mm_set1_ps(1.0f), fc);
    const __m128 aw[4] = {_mm_mul_ps(fColNear, fRowNear), _mm_mul_ps(fc, fRowNear), _mm_mul_ps(fc, fr),
                          _mm_mul_ps(fColNear, fr)};
    const __m128i lowByte = _mm_set1_epi32(0xFF);
    right = WeightedFour(_mm_and_si128(top, lowByte), _mm_srli_epi32(top, 8), _mm_srli_epi32(bottom, 8),
                         _mm_and_si128(bottom, lowByte), aw);
    left = WeightedFour(_mm_srli_epi32(topMirror, 8), _mm_and_si128(topMirror, lowByte),
                        _mm_and_si128(bottomMirror, lowByte), _mm_srli_epi32(bottomMirror, 8), aw);
}

// The low bytes of eight 32-bit lanes as eight 16-bit lanes, in order.
inline __m128i LowBytes(__m128i a, __m128i b)
{
    const __m128i lowByte = _mm_set1_epi32(0xFF);
    return _mm_packs_epi32(_mm_and_si128(a, lowByte), _mm_and_si128(b, lowByte));
}

// Eight pixels of consecutive entries, stored at p, p + nStep, ... (p is
// the first entry's place): leftwards for nStep -1.
inline void StoreEight(unsigned char* p, int nStep, __m128i words)
{
    if (nStep < 0) {
        words = ReverseWords(words);
        p -= 7;
    }
    _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packus_epi16(words, words));
}

} // namespace

unsigned ResampleCompactSse2(const CompactJob& job)
{
    const unsigned n = job.nRight < job.nLeft ? job.nRight : job.nLeft;
    const __m128 fr = _mm_set1_ps(job.fRowFrac);
    const __m128 fRowNear = _mm_sub_ps(_mm_set1_ps(1.0f), fr);
    const __m128i zero = _mm_setzero_si128();
    // Mirrored pairs start one column further left: the pair at
    // SW - 2 - c holds the mirrored image's columns c + 1 and c.
    const unsigned char* const pTopMirror = job.pTop + (job.nSrcWidth - 2);
    const unsigned char* const pBottomMirror = job.pBottom + (job.nSrcWidth - 2);
    unsigned j = 0;
    for (; j + 8 <= n; j += 8) {
        int anCol[8];
        int anMirror[8];
        for (int k = 0; k < 8; ++k) {
            anCol[k] = job.pnCol[j + k];
            anMirror[k] = -anCol[k];
        }
        const __m128i top = Pairs(job.pTop, anCol);
        const __m128i bottom = Pairs(job.pBottom, anCol);
        const __m128i topMirror = Pairs(pTopMirror, anMirror);
        const __m128i bottomMirror = Pairs(pBottomMirror, anMirror);

        __m128i rightLo, leftLo, rightHi, leftHi;
        Four(_mm_unpacklo_epi16(top, zero), _mm_unpacklo_epi16(bottom, zero), _mm_unpacklo_epi16(topMirror, zero),
             _mm_unpacklo_epi16(bottomMirror, zero), _mm_loadu_ps(job.pfColFrac + j), fr, fRowNear, rightLo, leftLo);
        Four(_mm_unpackhi_epi16(top, zero), _mm_unpackhi_epi16(bottom, zero), _mm_unpackhi_epi16(topMirror, zero),
             _mm_unpackhi_epi16(bottomMirror, zero), _mm_loadu_ps(job.pfColFrac + j + 4), fr, fRowNear, rightHi,
             leftHi);

        // Right pixels first: entry 0's left pixel replaces its right one.
        const ptrdiff_t nOffset = static_cast<ptrdiff_t>(job.nStep) * static_cast<ptrdiff_t>(j);
        unsigned char* const pCentre = job.pOut + job.nCentreOut;
        StoreEight(pCentre + nOffset, job.nStep, LowBytes(rightLo, rightHi));
        StoreEight(pCentre - nOffset, -job.nStep, LowBytes(leftLo, leftHi));
    }
    return j;
}

size_t ReverseOuterSse2(unsigned char* p, size_t n)
{
    size_t nLo = 0;
    size_t nHi = n;  // bytes nLo .. nHi - 1 are still to be reversed
    while (nHi - nLo >= 32) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + nLo));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + nHi - 16));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p + nLo), ReverseBytes(b));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p + nHi - 16), ReverseBytes(a));
        nLo += 16;
        nHi -= 16;
    }
    return nLo;
}

} // namespace imageproc

#endif
