// SSE2 forms of the row kernels, 16 pixels at a time. A 3 x 3 filter row of
// 16 or more pixels is done whole, its last 16 overlapping the block before
// (the output must not overlap the rows); a shorter one is left to the plain
// loop. The other kernels do whole blocks of 16 and leave the rest to the
// plain loop. Each returns how many pixels it did.
#include "imageproc/kernels.h"

#if defined(__SSE2__)
#include <emmintrin.h>

#include "imageproc/grey_level_sse2.h"

namespace imageproc {

namespace {

inline __m128i Load(const unsigned char* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }

// Sum of the three rows at column c as 16-bit lanes: columns c .. c + 7 in
// lo, c + 8 .. c + 15 in hi.
inline void ColumnSums(const Rows3& rows, size_t c, __m128i& lo, __m128i& hi)
{
    const __m128i zero = _mm_setzero_si128();
    const __m128i a = Load(rows.pAbove + c);
    const __m128i b = Load(rows.pCentre + c);
    const __m128i d = Load(rows.pBelow + c);
    lo = _mm_add_epi16(_mm_add_epi16(_mm_unpacklo_epi8(a, zero), _mm_unpacklo_epi8(b, zero)),
                       _mm_unpacklo_epi8(d, zero));
    hi = _mm_add_epi16(_mm_add_epi16(_mm_unpackhi_epi8(a, zero), _mm_unpackhi_epi8(b, zero)),
                       _mm_unpackhi_epi8(d, zero));
}

// (s x 7282) >> 16 is s / 9 for every s up to 2295: the error term s / 9 x
// 0.00003 stays below 1/9.
const short kNinthMul = 7282;

inline void Sort2(__m128i& a, __m128i& b)
{
    const __m128i t = _mm_min_epu8(a, b);
    b = _mm_max_epu8(a, b);
    a = t;
}

// The three rows at column c sorted per lane: lo <= mid <= hi.
inline void SortedColumn(const Rows3& rows, size_t c, __m128i& lo, __m128i& mid, __m128i& hi)
{
    lo = Load(rows.pAbove + c);
    mid = Load(rows.pCentre + c);
    hi = Load(rows.pBelow + c);
    Sort2(lo, mid);
    Sort2(mid, hi);
    Sort2(lo, mid);
}

inline __m128i MedianOf3(__m128i a, __m128i b, __m128i c)
{
    return _mm_max_epu8(_mm_min_epu8(a, b), _mm_min_epu8(_mm_max_epu8(a, b), c));
}

inline void Mean16(const Rows3& rows, unsigned char* pOut, size_t c)
{
    const __m128i mul = _mm_set1_epi16(kNinthMul);
    __m128i lo0, hi0, lo1, hi1, lo2, hi2;
    ColumnSums(rows, c, lo0, hi0);
    ColumnSums(rows, c + 1, lo1, hi1);
    ColumnSums(rows, c + 2, lo2, hi2);
    const __m128i lo = _mm_mulhi_epu16(_mm_add_epi16(_mm_add_epi16(lo0, lo1), lo2), mul);
    const __m128i hi = _mm_mulhi_epu16(_mm_add_epi16(_mm_add_epi16(hi0, hi1), hi2), mul);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(pOut + c), _mm_packus_epi16(lo, hi));
}

inline void Store(unsigned char* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

// With each column of three sorted, the median of the nine is the median of
// the largest of the low values, the median of the middle ones and the
// smallest of the high ones. Every column is sorted once, into three rows
// of sorted samples, and each block of 16 outputs reads its three columns
// from them; chunks of the row keep those rows in the cache and on the stack.
const size_t kMedianChunk = 512;  // outputs sorted for at once

// Outputs c0 .. c0 + m - 1 (m >= 16), from columns c0 .. c0 + m + 1.
void MedianChunk(const Rows3& rows, unsigned char* pOut, size_t c0, size_t m)
{
    // The sorted rows low, middle and high, one after the other; blocks are
    // addressed from one pointer, so that 32-bit code needs no register for
    // each row and shift.
    const size_t kRow = kMedianChunk + 2;
    unsigned char abySorted[3 * kRow];
    const unsigned char* const pAbove = rows.pAbove + c0;
    const unsigned char* const pCentre = rows.pCentre + c0;
    const unsigned char* const pBelow = rows.pBelow + c0;
    const size_t nColumns = m + 2;
    // Columns in blocks of 16, the last block overlapping the one before.
    const auto sortColumns = [&](size_t j) {
        __m128i lo = Load(pAbove + j);
        __m128i mid = Load(pCentre + j);
        __m128i hi = Load(pBelow + j);
        Sort2(lo, mid);
        Sort2(mid, hi);
        Sort2(lo, mid);
        unsigned char* const p = abySorted + j;
        Store(p, lo);
        Store(p + kRow, mid);
        Store(p + 2 * kRow, hi);
    };
    for (size_t j = 0; j + 16 <= nColumns; j += 16) sortColumns(j);
    if (nColumns % 16 != 0) sortColumns(nColumns - 16);
    const auto median = [&](const unsigned char* p, unsigned char* pDst) {
        const __m128i maxLo = _mm_max_epu8(_mm_max_epu8(Load(p), Load(p + 1)), Load(p + 2));
        const __m128i midMid = MedianOf3(Load(p + kRow), Load(p + kRow + 1), Load(p + kRow + 2));
        const __m128i minHi =
            _mm_min_epu8(_mm_min_epu8(Load(p + 2 * kRow), Load(p + 2 * kRow + 1)), Load(p + 2 * kRow + 2));
        Store(pDst, MedianOf3(maxLo, midMid, minHi));
    };
    unsigned char* const pDst = pOut + c0;
    const unsigned char* const pLast = abySorted + (m - 16);
    const unsigned char* p = abySorted;
    for (unsigned char* q = pDst; p <= pLast; p += 16, q += 16) median(p, q);
    if (m % 16 != 0) median(pLast, pDst + (m - 16));
}

template <void (*Block)(const Rows3&, unsigned char*, size_t)>
size_t WholeRow(const Rows3& rows, unsigned char* pOut, size_t n)
{
    if (n < 16) return 0;
    for (size_t c = 0; c + 16 <= n; c += 16) Block(rows, pOut, c);
    if (n % 16 != 0) Block(rows, pOut, n - 16);
    return n;
}

}  // namespace

size_t Mean3RowSse2(const Rows3& rows, unsigned char* pOut, size_t n) { return WholeRow<Mean16>(rows, pOut, n); }

size_t Median3RowSse2(const Rows3& rows, unsigned char* pOut, size_t n)
{
    if (n < 16) return 0;
    // Chunks of kMedianChunk outputs, the last two shared out so that
    // neither holds fewer than 16.
    for (size_t c = 0; c < n;) {
        size_t m = n - c;
        if (m > kMedianChunk) m = m - kMedianChunk >= 16 ? kMedianChunk : m - 16;
        MedianChunk(rows, pOut, c, m);
        c += m;
    }
    return n;
}

size_t GreyRowSse2(const unsigned char* pTop, const unsigned char* pBottom, unsigned char* pOut, size_t n, int nParity)
{
    // Eight pixel pairs (x even, x + 1) per 16-bit lane: the low byte of a
    // lane loaded at x is the even pixel's sample, the high byte the odd
    // pixel's. The even pixel's TR is the odd pixel's TL and the even
    // pixel's BR the odd pixel's BL, so four loads give all samples:
    // TL/TR(even) from top[x], TR(odd) from top[x + 1], BL/BR(even) from
    // bottom[x], BR(odd) from bottom[x + 1]. Sums are at most 765, and
    // (v x 21846) >> 16 is v / 3 for all of them.
    const __m128i lowByte = _mm_set1_epi16(0x00FF);
    const __m128i third = _mm_set1_epi16(static_cast<short>(21846));
    size_t x = 0;
    // Reads reach x + 16, so a block needs x + 16 <= n.
    for (; x + 16 <= n; x += 16) {
        const __m128i t0 = Load(pTop + x);
        const __m128i t1 = Load(pTop + x + 1);
        const __m128i b0 = Load(pBottom + x);
        const __m128i b1 = Load(pBottom + x + 1);
        const __m128i topEven = _mm_and_si128(t0, lowByte);    // TL of the even pixel
        const __m128i topOdd = _mm_srli_epi16(t0, 8);          // TR even = TL odd
        const __m128i topNext = _mm_srli_epi16(t1, 8);         // TR of the odd pixel
        const __m128i botEven = _mm_and_si128(b0, lowByte);    // BL of the even pixel
        const __m128i botOdd = _mm_srli_epi16(b0, 8);          // BR even = BL odd
        const __m128i botNext = _mm_srli_epi16(b1, 8);         // BR of the odd pixel
        const __m128i aEven = _mm_add_epi16(topEven, botOdd);  // TL + BR
        const __m128i bEven = _mm_add_epi16(topOdd, botEven);  // TR + BL
        const __m128i aOdd = _mm_add_epi16(topOdd, botNext);
        const __m128i bOdd = _mm_add_epi16(topNext, botOdd);
        __m128i sumEven;
        __m128i sumOdd;
        if ((nParity & 1) == 0) {  // even x: x + parity even
            sumEven = _mm_add_epi16(aEven, _mm_srli_epi16(bEven, 1));
            sumOdd = _mm_add_epi16(bOdd, _mm_srli_epi16(aOdd, 1));
        } else {
            sumEven = _mm_add_epi16(bEven, _mm_srli_epi16(aEven, 1));
            sumOdd = _mm_add_epi16(aOdd, _mm_srli_epi16(bOdd, 1));
        }
        const __m128i greyEven = _mm_mulhi_epu16(sumEven, third);
        const __m128i greyOdd = _mm_mulhi_epu16(sumOdd, third);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pOut + x), _mm_or_si128(greyEven, _mm_slli_epi16(greyOdd, 8)));
    }
    return x;
}

// Row sums by SAD, column sums in 16-bit lanes.
size_t GradientRowSse2(const Rows3& rows, uint16_t* pColSum, size_t n, unsigned& nRowSum)
{
    const __m128i zero = _mm_setzero_si128();
    __m128i rowSum = zero;
    size_t x = 0;
    for (; x + 16 <= n; x += 16) {
        rowSum = _mm_add_epi64(rowSum, _mm_sad_epu8(Load(rows.pCentre + x - 1), Load(rows.pCentre + x + 1)));
        const __m128i col = greylevel::AbsDiff(Load(rows.pAbove + x), Load(rows.pBelow + x));
        __m128i* pLo = reinterpret_cast<__m128i*>(pColSum + x);
        __m128i* pHi = reinterpret_cast<__m128i*>(pColSum + x + 8);
        _mm_storeu_si128(pLo, _mm_add_epi16(_mm_loadu_si128(pLo), _mm_unpacklo_epi8(col, zero)));
        _mm_storeu_si128(pHi, _mm_add_epi16(_mm_loadu_si128(pHi), _mm_unpackhi_epi8(col, zero)));
    }
    nRowSum += static_cast<unsigned>(_mm_cvtsi128_si32(rowSum) + _mm_cvtsi128_si32(_mm_srli_si128(rowSum, 8)));
    return x;
}

size_t ActivityRowSse2(const Rows3& rows, uint16_t* pCount, unsigned char byStep, size_t n)
{
    const __m128i step = _mm_set1_epi8(static_cast<char>(byStep));
    const __m128i one = _mm_set1_epi8(1);
    const __m128i zero = _mm_setzero_si128();
    size_t x = 0;
    for (; x + 16 <= n; x += 16) {
        // A lane is nonzero where a difference exceeds the step.
        const __m128i over = _mm_or_si128(
            _mm_subs_epu8(greylevel::AbsDiff(Load(rows.pCentre + x - 1), Load(rows.pCentre + x + 1)), step),
            _mm_subs_epu8(greylevel::AbsDiff(Load(rows.pAbove + x), Load(rows.pBelow + x)), step));
        const __m128i hit = _mm_andnot_si128(_mm_cmpeq_epi8(over, zero), one);
        __m128i* pLo = reinterpret_cast<__m128i*>(pCount + x);
        __m128i* pHi = reinterpret_cast<__m128i*>(pCount + x + 8);
        _mm_storeu_si128(pLo, _mm_add_epi16(_mm_loadu_si128(pLo), _mm_unpacklo_epi8(hit, zero)));
        _mm_storeu_si128(pHi, _mm_add_epi16(_mm_loadu_si128(pHi), _mm_unpackhi_epi8(hit, zero)));
    }
    return x;
}

size_t AddColumnDiffSse2(int16_t* pDiff, const unsigned char* pXIn, const unsigned char* pYIn,
                         const unsigned char* pXOut, const unsigned char* pYOut, size_t n)
{
    const __m128i zero = _mm_setzero_si128();
    size_t k = 0;
    for (; k + 16 <= n; k += 16) {
        const __m128i xIn = Load(pXIn + k);
        const __m128i yIn = Load(pYIn + k);
        const __m128i xOut = Load(pXOut + k);
        const __m128i yOut = Load(pYOut + k);
        const __m128i lo = _mm_sub_epi16(_mm_sub_epi16(_mm_unpacklo_epi8(xIn, zero), _mm_unpacklo_epi8(yIn, zero)),
                                         _mm_sub_epi16(_mm_unpacklo_epi8(xOut, zero), _mm_unpacklo_epi8(yOut, zero)));
        const __m128i hi = _mm_sub_epi16(_mm_sub_epi16(_mm_unpackhi_epi8(xIn, zero), _mm_unpackhi_epi8(yIn, zero)),
                                         _mm_sub_epi16(_mm_unpackhi_epi8(xOut, zero), _mm_unpackhi_epi8(yOut, zero)));
        __m128i* pLo = reinterpret_cast<__m128i*>(pDiff + k);
        __m128i* pHi = reinterpret_cast<__m128i*>(pDiff + k + 8);
        _mm_storeu_si128(pLo, _mm_add_epi16(_mm_loadu_si128(pLo), lo));
        _mm_storeu_si128(pHi, _mm_add_epi16(_mm_loadu_si128(pHi), hi));
    }
    return k;
}

size_t TakeWhereSse2(unsigned char* pDst, const unsigned char* pSrc, const unsigned char* pTake, size_t n)
{
    const __m128i zero = _mm_setzero_si128();
    size_t k = 0;
    for (; k + 16 <= n; k += 16) {
        const __m128i keep = _mm_cmpeq_epi8(Load(pTake + k), zero);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pDst + k),
                         _mm_or_si128(_mm_andnot_si128(keep, Load(pSrc + k)), _mm_and_si128(keep, Load(pDst + k))));
    }
    return k;
}

}  // namespace imageproc

#endif
