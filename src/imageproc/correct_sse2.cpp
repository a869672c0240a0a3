// SSE2 kernels of the corrections: runs of regular modify-table entries,
// four at a time, read and checked straight from the entries, and the byte
// reversal of the mirror.
#include "imageproc/correct_geometry.h"

#if defined(__SSE2__)
#include <emmintrin.h>

#include <cstddef>
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

inline int Load16(const unsigned char* p)
{
    uint16_t n;
    std::memcpy(&n, p, sizeof n);
    return n;
}

// The four 32-bit words at p0 .. p3 (one per entry) as the rows of a 4 x 4
// matrix, transposed: word k of every entry in lane order, as aOut[k].
inline void Transpose(const void* p0, const void* p1, const void* p2, const void* p3, __m128i (&aOut)[4])
{
    const __m128i a0 = _mm_loadu_si128(static_cast<const __m128i*>(p0));
    const __m128i a1 = _mm_loadu_si128(static_cast<const __m128i*>(p1));
    const __m128i a2 = _mm_loadu_si128(static_cast<const __m128i*>(p2));
    const __m128i a3 = _mm_loadu_si128(static_cast<const __m128i*>(p3));
    const __m128i t0 = _mm_unpacklo_epi32(a0, a1);
    const __m128i t1 = _mm_unpacklo_epi32(a2, a3);
    const __m128i t2 = _mm_unpackhi_epi32(a0, a1);
    const __m128i t3 = _mm_unpackhi_epi32(a2, a3);
    aOut[0] = _mm_unpacklo_epi64(t0, t1);
    aOut[1] = _mm_unpackhi_epi64(t0, t1);
    aOut[2] = _mm_unpacklo_epi64(t2, t3);
    aOut[3] = _mm_unpackhi_epi64(t2, t3);
}

// Sign bits set where x is not within 0 .. nMax (x and nMax below 2^31
// when within): x itself negative, or nMax - x negative.
inline __m128i OutOfRange(__m128i x, __m128i max) { return _mm_or_si128(x, _mm_sub_epi32(max, x)); }

// The two bytes at p + at[k], k the even 16-bit lanes 0, 2, 4 and 6 of at,
// and then at q + at[k], as the eight 16-bit lanes of a vector. Each offset
// serves both its loads at once, so that the i386 build needs one register
// for offsets, not four.
inline __m128i Pairs(const unsigned char* p, const unsigned char* q, __m128i at)
{
    int nAt = _mm_extract_epi16(at, 0);
    __m128i v = _mm_cvtsi32_si128(Load16(p + nAt));
    v = _mm_insert_epi16(v, Load16(q + nAt), 4);
    nAt = _mm_extract_epi16(at, 2);
    v = _mm_insert_epi16(v, Load16(p + nAt), 1);
    v = _mm_insert_epi16(v, Load16(q + nAt), 5);
    nAt = _mm_extract_epi16(at, 4);
    v = _mm_insert_epi16(v, Load16(p + nAt), 2);
    v = _mm_insert_epi16(v, Load16(q + nAt), 6);
    nAt = _mm_extract_epi16(at, 6);
    v = _mm_insert_epi16(v, Load16(p + nAt), 3);
    return _mm_insert_epi16(v, Load16(q + nAt), 7);
}

// One weighted sum per lane: the same single-precision products and sums,
// in the same order, as the plain loop, truncated toward zero (a sum out of
// the range of int gives 0x80000000, whose low byte is 0).
inline __m128i WeightedFour(__m128i tl, __m128i tr, __m128i br, __m128i bl, const __m128 (&aw)[4])
{
    __m128 sum = _mm_mul_ps(_mm_cvtepi32_ps(tl), aw[0]);
    sum = _mm_add_ps(sum, _mm_mul_ps(_mm_cvtepi32_ps(tr), aw[1]));
    sum = _mm_add_ps(sum, _mm_mul_ps(_mm_cvtepi32_ps(br), aw[2]));
    sum = _mm_add_ps(sum, _mm_mul_ps(_mm_cvtepi32_ps(bl), aw[3]));
    return _mm_cvttps_epi32(sum);
}

// Entries ahead of the one being read whose lines are asked for.
const int kPrefetchEntries = 24;

// The low bytes of the four 32-bit lanes of right stored at pRight,
// pRight + nStep, pRight + 2 nStep, pRight + 3 nStep, and those of left at
// pLeft, pLeft - nStep, pLeft - 2 nStep, pLeft - 3 nStep: packed together,
// the lanes that go to falling addresses reversed.
template <int nStep>
inline void StoreEight(unsigned char* pRight, unsigned char* pLeft, __m128i right, __m128i left, __m128i lowByte)
{
    __m128i v = _mm_packs_epi32(_mm_and_si128(right, lowByte), _mm_and_si128(left, lowByte));
    if (nStep > 0) {
        v = _mm_shufflehi_epi16(v, _MM_SHUFFLE(0, 1, 2, 3));
        pLeft -= 3;
    } else {
        v = _mm_shufflelo_epi16(v, _MM_SHUFFLE(0, 1, 2, 3));
        pRight -= 3;
    }
    v = _mm_packus_epi16(v, v);
    const int32_t nRight = _mm_cvtsi128_si32(v);
    const int32_t nLeft = _mm_cvtsi128_si32(_mm_shuffle_epi32(v, _MM_SHUFFLE(1, 1, 1, 1)));
    std::memcpy(pRight, &nRight, sizeof nRight);
    std::memcpy(pLeft, &nLeft, sizeof nLeft);
}

}  // namespace

namespace {

// The run kernel for one direction of the stores (nStep 1 or -1), with the
// run's fields in locals: the stores could otherwise alias them.
template <int nStep>
unsigned ResampleRunSse2(const EntryRun& run)
{
    const tagModifyEntry* const pEntry = run.pEntry;
    const unsigned nEntries = run.nEntries;
    const unsigned char* const pTop = run.pTop;
    const unsigned char* const pBottom = run.pBottom;
    unsigned char* const pRight = run.pRight;
    unsigned char* const pLeft = run.pLeft;
    const unsigned SW = run.nSrcWidth;
    const __m128i maxRow = _mm_set1_epi32(static_cast<int>(run.nMaxRow));
    const __m128i maxCol = _mm_set1_epi32(static_cast<int>(run.nMaxCol));
    const __m128i maxPairCol = _mm_set1_epi32(static_cast<int>(SW - 2));
    const __m128i rowStart = _mm_set1_epi32(static_cast<int>(run.nRowStart));
    const __m128i below = _mm_set1_epi32(static_cast<int>(SW));
    const __m128i four = _mm_set1_epi32(4);
    const __m128i zero = _mm_setzero_si128();
    const __m128i lowByte = _mm_set1_epi32(0xFF);
    // The targets of entry k: nDstRight + k and nDstLeft - k, whose sum
    // stays the same along the run.
    __m128i right = _mm_add_epi32(_mm_set1_epi32(static_cast<int>(run.nDstRight)), _mm_setr_epi32(0, 1, 2, 3));
    const __m128i both = _mm_set1_epi32(static_cast<int>(run.nDstRight + run.nDstLeft));
    unsigned k = 0;
    for (; k + 4 <= nEntries; k += 4) {
        const tagModifyEntry* const e = pEntry + k;
        // The entries are read once, front to back, far more of them than
        // the caches hold: ask for the lines a little ahead. Four entries
        // span 192 bytes, so three lines a step keep pace with the reads.
        _mm_prefetch(reinterpret_cast<const char*>(e + kPrefetchEntries), _MM_HINT_T0);
        _mm_prefetch(reinterpret_cast<const char*>(e + kPrefetchEntries) + 64, _MM_HINT_T0);
        _mm_prefetch(reinterpret_cast<const char*>(e + kPrefetchEntries) + 128, _MM_HINT_T0);
        __m128i aPlace[4];  // nSrcRow, nSrcCol, nDstRight, nDstLeft
        __m128i aIndex[4];  // nSrcIndex[0 .. 3]
        Transpose(&e[0].nSrcRow, &e[1].nSrcRow, &e[2].nSrcRow, &e[3].nSrcRow, aPlace);
        Transpose(e[0].nSrcIndex, e[1].nSrcIndex, e[2].nSrcIndex, e[3].nSrcIndex, aIndex);
        const __m128i col = _mm_sub_epi32(aIndex[0], rowStart);
        // Mirrored pairs start one column further left: the pair at
        // SW - 2 - c holds the mirrored image's columns c + 1 and c.
        const __m128i mirror = _mm_sub_epi32(maxPairCol, col);
        // Sign bits: a range broken; other bits: a field not as expected.
        const __m128i range = _mm_or_si128(_mm_or_si128(OutOfRange(aPlace[0], maxRow), OutOfRange(aPlace[1], maxCol)),
                                           _mm_or_si128(col, mirror));
        __m128i diff =
            _mm_or_si128(_mm_xor_si128(aPlace[2], right), _mm_xor_si128(_mm_add_epi32(aPlace[2], aPlace[3]), both));
        // i1 - i0 and i2 - i3 are 1 where i0 - i1 and i3 - i2 are all ones.
        const __m128i ones = _mm_cmpeq_epi32(zero, zero);
        diff = _mm_or_si128(diff, _mm_andnot_si128(_mm_sub_epi32(aIndex[0], aIndex[1]), ones));
        diff = _mm_or_si128(diff, _mm_andnot_si128(_mm_sub_epi32(aIndex[3], aIndex[2]), ones));
        diff = _mm_or_si128(diff, _mm_xor_si128(aIndex[3], _mm_add_epi32(aIndex[0], below)));
        if (_mm_movemask_ps(_mm_castsi128_ps(range)) != 0 || _mm_movemask_epi8(_mm_cmpeq_epi32(diff, zero)) != 0xFFFF)
            break;
        right = _mm_add_epi32(right, four);

        __m128 aw[4] = {_mm_loadu_ps(e[0].fWeight), _mm_loadu_ps(e[1].fWeight), _mm_loadu_ps(e[2].fWeight),
                        _mm_loadu_ps(e[3].fWeight)};
        _MM_TRANSPOSE4_PS(aw[0], aw[1], aw[2], aw[3]);

        // Columns and mirrored columns are below 2^16 here.
        // Each 16-bit lane a pair of samples, the left one in the low byte:
        // the four top pairs, then the four bottom pairs.
        const __m128i pairs = Pairs(pTop, pBottom, col);
        const __m128i mirrored = Pairs(pTop, pBottom, mirror);
        // Each pair widened to a 32-bit lane: its left sample is the low
        // byte, the right one the next.
        const __m128i top = _mm_unpacklo_epi16(pairs, zero);
        const __m128i bottom = _mm_unpackhi_epi16(pairs, zero);
        const __m128i mirroredTop = _mm_unpacklo_epi16(mirrored, zero);
        const __m128i mirroredBottom = _mm_unpackhi_epi16(mirrored, zero);
        const __m128i rightPixels = WeightedFour(_mm_and_si128(top, lowByte), _mm_srli_epi32(top, 8),
                                                 _mm_srli_epi32(bottom, 8), _mm_and_si128(bottom, lowByte), aw);
        const __m128i leftPixels =
            WeightedFour(_mm_srli_epi32(mirroredTop, 8), _mm_and_si128(mirroredTop, lowByte),
                         _mm_and_si128(mirroredBottom, lowByte), _mm_srli_epi32(mirroredBottom, 8), aw);
        // Right pixels first: entry 0's left pixel replaces its right one
        // when both lie on the centre.
        const ptrdiff_t nOffset = static_cast<ptrdiff_t>(nStep) * static_cast<ptrdiff_t>(k);
        StoreEight<nStep>(pRight + nOffset, pLeft - nOffset, rightPixels, leftPixels, lowByte);
    }
    return k;
}

}  // namespace

unsigned ResampleRunSse2(const EntryRun& run)
{
    static_assert(offsetof(tagModifyEntry, nSrcCol) == offsetof(tagModifyEntry, nSrcRow) + 4 &&
                      offsetof(tagModifyEntry, nDstRight) == offsetof(tagModifyEntry, nSrcRow) + 8 &&
                      offsetof(tagModifyEntry, nDstLeft) == offsetof(tagModifyEntry, nSrcRow) + 12,
                  "the four words of an entry's range and targets lie together");
    return run.nStep < 0 ? ResampleRunSse2<-1>(run) : ResampleRunSse2<1>(run);
}

unsigned PassOutsideSse2(const OutsideRun& run)
{
    static_assert(offsetof(tagModifyEntry, nDstLeft) == offsetof(tagModifyEntry, nDstRight) + 4,
                  "an entry's two targets lie together");
    // Targets of entries k and k + 1, then of k + 2 and k + 3.
    __m128i expectLo = _mm_setr_epi32(static_cast<int>(run.nDstRight), static_cast<int>(run.nDstLeft),
                                      static_cast<int>(run.nDstRight + 1), static_cast<int>(run.nDstLeft - 1));
    __m128i expectHi = _mm_add_epi32(expectLo, _mm_setr_epi32(2, -2, 2, -2));
    const __m128i step = _mm_setr_epi32(4, -4, 4, -4);
    const __m128i zero = _mm_setzero_si128();
    unsigned k = 0;
    for (; k + 4 <= run.nEntries; k += 4) {
        const tagModifyEntry* const e = run.pEntry + k;
        const __m128i lo = _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(&e[0].nDstRight)),
                                              _mm_loadl_epi64(reinterpret_cast<const __m128i*>(&e[1].nDstRight)));
        const __m128i hi = _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(&e[2].nDstRight)),
                                              _mm_loadl_epi64(reinterpret_cast<const __m128i*>(&e[3].nDstRight)));
        const __m128i diff = _mm_or_si128(_mm_xor_si128(lo, expectLo), _mm_xor_si128(hi, expectHi));
        if (_mm_movemask_epi8(_mm_cmpeq_epi32(diff, zero)) != 0xFFFF) break;
        expectLo = _mm_add_epi32(expectLo, step);
        expectHi = _mm_add_epi32(expectHi, step);
    }
    return k;
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

}  // namespace imageproc

#endif
