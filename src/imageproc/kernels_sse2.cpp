// SSE2 forms of the 3 x 3 row kernels, 16 pixels at a time. A row of 16 or
// more pixels is done whole, its last 16 overlapping the block before (the
// output must not overlap the rows); a shorter one is left to the plain
// loop. Each returns how many pixels it did.
#include "imageproc/kernels.h"

#if defined(__SSE2__)
#include <emmintrin.h>

namespace imageproc {

namespace {

inline __m128i Load(const unsigned char* p)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

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

// With each column of three sorted, the median of the nine is the median of
// the largest of the low values, the median of the middle ones and the
// smallest of the high ones.
inline void Median16(const Rows3& rows, unsigned char* pOut, size_t c)
{
    __m128i lo0, mid0, hi0, lo1, mid1, hi1, lo2, mid2, hi2;
    SortedColumn(rows, c, lo0, mid0, hi0);
    SortedColumn(rows, c + 1, lo1, mid1, hi1);
    SortedColumn(rows, c + 2, lo2, mid2, hi2);
    const __m128i maxLo = _mm_max_epu8(_mm_max_epu8(lo0, lo1), lo2);
    const __m128i minHi = _mm_min_epu8(_mm_min_epu8(hi0, hi1), hi2);
    const __m128i midMid = MedianOf3(mid0, mid1, mid2);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(pOut + c), MedianOf3(maxLo, midMid, minHi));
}

template <void (*Block)(const Rows3&, unsigned char*, size_t)>
size_t WholeRow(const Rows3& rows, unsigned char* pOut, size_t n)
{
    if (n < 16)
        return 0;
    for (size_t c = 0; c + 16 <= n; c += 16)
        Block(rows, pOut, c);
    if (n % 16 != 0)
        Block(rows, pOut, n - 16);
    return n;
}

} // namespace

size_t Mean3RowSse2(const Rows3& rows, unsigned char* pOut, size_t n)
{
    return WholeRow<Mean16>(rows, pOut, n);
}

size_t Median3RowSse2(const Rows3& rows, unsigned char* pOut, size_t n)
{
    return WholeRow<Median16>(rows, pOut, n);
}

} // namespace imageproc

#endif
