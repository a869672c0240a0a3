// SSE2 kernels of the whole-image enhancements, 16 pixels at a time: the
// histogram and the level map of Histoequal, and the sums, square means and
// final test of Final. Each does a leading part of its work and returns how
// much; the plain loops (isproc_enhance.cpp) finish the rest.
#include "imageproc/enhance.h"

#if defined(__SSE2__)
#include <emmintrin.h>

#include "imageproc/grey_level_sse2.h"

#include <cstring>

namespace imageproc {

namespace {

inline __m128i Load(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }

inline void Store(void* p, __m128i v) { _mm_storeu_si128(static_cast<__m128i*>(p), v); }

// Whether every byte of v is at least the byte of t (t holding one level).
inline bool AllAtLeast(__m128i v, __m128i t)
{
    return _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_max_epu8(v, t), v)) == 0xFFFF;
}

}  // namespace

// Blocks whose 16 levels are all 245 or brighter hold nothing to count
// (most of a finger image's background); the others are counted into four
// partial histograms in turn, so that equal neighbouring levels do not wait
// on each other. Only the partial counts of levels below 245 are added.
size_t CountDarkLevelsSse2(const unsigned char* p, size_t n, uint32_t (&anHist)[256])
{
    uint32_t anPart[4][256] = {{0}};
    const __m128i white = _mm_set1_epi8(static_cast<char>(kHistoWhite));
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        if (AllAtLeast(Load(p + i), white)) continue;
        const unsigned char* const q = p + i;
#pragma GCC unroll 4
        for (size_t k = 0; k < 16; k += 4) {
            ++anPart[0][q[k]];
            ++anPart[1][q[k + 1]];
            ++anPart[2][q[k + 2]];
            ++anPart[3][q[k + 3]];
        }
    }
    for (unsigned g = 0; g < kHistoWhite; ++g) anHist[g] += anPart[0][g] + anPart[1][g] + anPart[2][g] + anPart[3][g];
    return i;
}

// From the first level whose entry and all brighter ones' are 255, a block
// of 16 such levels is stored as 255 at once; any other block is looked up
// two levels at a time in the pair map, or level by level without one.
size_t MapLevelsSse2(unsigned char* p, size_t n, const unsigned char (&ucMap)[256], const uint16_t* pPairs)
{
    unsigned nWhite = 256;
    while (nWhite > 0 && ucMap[nWhite - 1] == 255) --nWhite;
    const bool bWhite = nWhite < 256;
    const __m128i white = _mm_set1_epi8(static_cast<char>(bWhite ? nWhite : 255));
    const __m128i all = _mm_set1_epi8(static_cast<char>(0xFF));
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m128i v = Load(p + i);
        if (bWhite && AllAtLeast(v, white)) {
            Store(p + i, all);
            continue;
        }
        if (pPairs != nullptr) {
            __m128i m = _mm_cvtsi32_si128(pPairs[_mm_extract_epi16(v, 0)]);
            m = _mm_insert_epi16(m, pPairs[_mm_extract_epi16(v, 1)], 1);
            m = _mm_insert_epi16(m, pPairs[_mm_extract_epi16(v, 2)], 2);
            m = _mm_insert_epi16(m, pPairs[_mm_extract_epi16(v, 3)], 3);
            m = _mm_insert_epi16(m, pPairs[_mm_extract_epi16(v, 4)], 4);
            m = _mm_insert_epi16(m, pPairs[_mm_extract_epi16(v, 5)], 5);
            m = _mm_insert_epi16(m, pPairs[_mm_extract_epi16(v, 6)], 6);
            m = _mm_insert_epi16(m, pPairs[_mm_extract_epi16(v, 7)], 7);
            Store(p + i, m);
            continue;
        }
        unsigned char* const q = p + i;
#pragma GCC unroll 16
        for (size_t k = 0; k < 16; ++k) q[k] = ucMap[q[k]];
    }
    return i;
}

// The distance d = |g - nMean| of each level, its quotient 75 d / nMad by
// a multiply: with 2^s the least power of two not below nMad and
// M = ceil(75 x 2^(8 + s) / nMad) (below 38401), the quotient is the high
// half of (256 d) x M shifted right by s. M x nMad exceeds 75 x 2^(8 + s) by
// e < nMad <= 2^s, so the product overshoots 75 d / nMad by
// d e / (nMad 2^(8 + s)) < 1 / nMad, while a quotient by nMad that is not
// whole lies at least 1 / nMad below the next whole number. The levels above the mean add
// their quotient to 150, the others subtract it, both saturating at 0 and
// 255 as the table clamps.
size_t NormaliseLevelsSse2(const unsigned char* pIn, unsigned char* pOut, size_t n, int nMean, int nMad)
{
    if (nMean < 0 || nMean > 255 || nMad < 1 || nMad > 255) return 0;
    int nShift = 0;
    while ((1 << nShift) < nMad) ++nShift;
    const unsigned nMul = ((75u << (8 + nShift)) + static_cast<unsigned>(nMad) - 1) / static_cast<unsigned>(nMad);
    const __m128i zero = _mm_setzero_si128();
    const __m128i mean = _mm_set1_epi8(static_cast<char>(nMean));
    const __m128i mul = _mm_set1_epi16(static_cast<short>(nMul));
    const __m128i shift = _mm_cvtsi32_si128(nShift);
    const __m128i middle = _mm_set1_epi8(static_cast<char>(150));
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m128i v = Load(pIn + i);
        const __m128i above = _mm_subs_epu8(v, mean);
        const __m128i below = _mm_subs_epu8(mean, v);
        // 256 d in each 16-bit lane, times M, high half, shifted: at most 19125.
        const __m128i upLo = _mm_srl_epi16(_mm_mulhi_epu16(_mm_unpacklo_epi8(zero, above), mul), shift);
        const __m128i upHi = _mm_srl_epi16(_mm_mulhi_epu16(_mm_unpackhi_epi8(zero, above), mul), shift);
        const __m128i downLo = _mm_srl_epi16(_mm_mulhi_epu16(_mm_unpacklo_epi8(zero, below), mul), shift);
        const __m128i downHi = _mm_srl_epi16(_mm_mulhi_epu16(_mm_unpackhi_epi8(zero, below), mul), shift);
        const __m128i up = _mm_packus_epi16(upLo, upHi);
        const __m128i down = _mm_packus_epi16(downLo, downHi);
        Store(pOut + i, _mm_subs_epu8(_mm_adds_epu8(middle, up), down));
    }
    return i;
}

size_t SumAbsDiffSse2(const unsigned char* p, size_t n, unsigned char byRef, uint64_t& nSum)
{
    const __m128i ref = _mm_set1_epi8(static_cast<char>(byRef));
    __m128i sum = _mm_setzero_si128();  // two 64-bit sums
    size_t i = 0;
    for (; i + 16 <= n; i += 16) sum = _mm_add_epi64(sum, _mm_sad_epu8(Load(p + i), ref));
    uint64_t anSum[2];
    Store(anSum, sum);
    nSum += anSum[0] + anSum[1];
    return i;
}

size_t AbsDiffBytesSse2(const unsigned char* pA, const unsigned char* pB, unsigned char* pOut, size_t n)
{
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m128i a = Load(pA + i);
        const __m128i b = Load(pB + i);
        Store(pOut + i, greylevel::AbsDiff(a, b));
    }
    return i;
}

size_t AddColumnRowSse2(uint16_t* pSum, const unsigned char* pAdd, const unsigned char* pSub, size_t n)
{
    const __m128i zero = _mm_setzero_si128();
    size_t c = 0;
    for (; c + 16 <= n; c += 16) {
        const __m128i a = Load(pAdd + c);
        const __m128i s = Load(pSub + c);
        const __m128i lo =
            _mm_sub_epi16(_mm_add_epi16(Load(pSum + c), _mm_unpacklo_epi8(a, zero)), _mm_unpacklo_epi8(s, zero));
        const __m128i hi =
            _mm_sub_epi16(_mm_add_epi16(Load(pSum + c + 8), _mm_unpackhi_epi8(a, zero)), _mm_unpackhi_epi8(s, zero));
        Store(pSum + c, lo);
        Store(pSum + c + 8, hi);
    }
    return c;
}

// The sums of four consecutive squares, each the last plus the column
// entering it minus the column leaving it, as a running sum from carry (the
// sum before, in every lane, which then becomes the fourth sum), and their
// quotients, the low 8 bits, in 32-bit lanes.
inline __m128i NextQuotients(__m128i enter, __m128i leave, __m128i& carry, __m128 recip, __m128 half, __m128i lowByte)
{
    __m128i x = _mm_sub_epi32(enter, leave);
    x = _mm_add_epi32(x, _mm_slli_si128(x, 4));
    x = _mm_add_epi32(x, _mm_slli_si128(x, 8));
    x = _mm_add_epi32(x, carry);
    carry = _mm_shuffle_epi32(x, _MM_SHUFFLE(3, 3, 3, 3));
    const __m128 f = _mm_add_ps(_mm_mul_ps(_mm_cvtepi32_ps(x), recip), half);
    return _mm_and_si128(_mm_cvttps_epi32(f), lowByte);
}

// Whole squares of side w = 2 nHalf + 1, from column nHalf on. The first
// sum is added up; each next one is the last plus the column entering the
// square minus the column leaving it, as running sums of four 32-bit lanes.
// The quotient by the count k = nRows x w is taken in single precision as
// S x (1/k) + 1/(2k), truncated: the true quotient is a whole number or at
// least 1/k from the next one, and with w at most 31 and k at most 65535
// (S below 2^21) the rounding stays far below 1/(2k).
size_t BoxMeanRowSse2(const BoxRow& row)
{
    const size_t w = 2 * static_cast<size_t>(row.nHalf) + 1;
    const unsigned nCount = row.nRows * static_cast<unsigned>(w);
    if (w > 31 || row.nRows == 0 || nCount > 65535 || row.n < w) return 0;
    const uint16_t* const cs = row.pColSum;
    unsigned nFirst = 0;
    for (size_t k = 0; k < w; ++k) nFirst += cs[k];
    row.pOut[row.nHalf] = static_cast<unsigned char>(nFirst / nCount);

    const __m128 recip = _mm_set1_ps(1.0f / static_cast<float>(nCount));
    const __m128 half = _mm_set1_ps(0.5f / static_cast<float>(nCount));
    const __m128i zero = _mm_setzero_si128();
    const __m128i lowByte = _mm_set1_epi32(0xFF);
    __m128i carry = _mm_set1_epi32(static_cast<int>(nFirst));  // the last sum, in every lane
    // Columns c = nHalf + 1 + 16 m on: the square of c ends at c + nHalf
    // and the column leaving it is c - nHalf - 1.
    size_t c = row.nHalf + 1;
    for (; c + 16 + row.nHalf <= row.n; c += 16) {
        const __m128i enterLo = Load(cs + c + row.nHalf);
        const __m128i leaveLo = Load(cs + c - row.nHalf - 1);
        const __m128i enterHi = Load(cs + c + 8 + row.nHalf);
        const __m128i leaveHi = Load(cs + c + 8 - row.nHalf - 1);
        const __m128i q0 = NextQuotients(_mm_unpacklo_epi16(enterLo, zero), _mm_unpacklo_epi16(leaveLo, zero), carry,
                                         recip, half, lowByte);
        const __m128i q1 = NextQuotients(_mm_unpackhi_epi16(enterLo, zero), _mm_unpackhi_epi16(leaveLo, zero), carry,
                                         recip, half, lowByte);
        const __m128i q2 = NextQuotients(_mm_unpacklo_epi16(enterHi, zero), _mm_unpacklo_epi16(leaveHi, zero), carry,
                                         recip, half, lowByte);
        const __m128i q3 = NextQuotients(_mm_unpackhi_epi16(enterHi, zero), _mm_unpackhi_epi16(leaveHi, zero), carry,
                                         recip, half, lowByte);
        Store(row.pOut + c, _mm_packus_epi16(_mm_packs_epi32(q0, q1), _mm_packs_epi32(q2, q3)));
    }
    return c - row.nHalf;
}

size_t WhitenFlatSse2(unsigned char* pImage, const unsigned char* pMean, const unsigned char* pDev, int nMeanFloor,
                      int nDevCeiling, size_t n)
{
    // Mean at least nMeanFloor + 1, deviation at most nDevCeiling - 1.
    const int nMeanMin = nMeanFloor < 0 ? 0 : nMeanFloor + 1;
    const int nDevMax = nDevCeiling > 256 ? 255 : nDevCeiling - 1;
    if (nMeanMin > 255 || nDevMax < 0) return n;  // no pixel qualifies
    const __m128i meanMin = _mm_set1_epi8(static_cast<char>(nMeanMin));
    const __m128i devMax = _mm_set1_epi8(static_cast<char>(nDevMax));
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m128i m = Load(pMean + i);
        const __m128i d = Load(pDev + i);
        const __m128i bright = _mm_cmpeq_epi8(_mm_max_epu8(m, meanMin), m);
        const __m128i flat = _mm_cmpeq_epi8(_mm_min_epu8(d, devMax), d);
        Store(pImage + i, _mm_or_si128(Load(pImage + i), _mm_and_si128(bright, flat)));
    }
    return i;
}

}  // namespace imageproc

#endif
