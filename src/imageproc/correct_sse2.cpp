// SSE2 kernels of the corrections: four modify-table entries at a time,
// and the byte reversal of the mirror.
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

const unsigned kPrefetchEntries = 24;

inline void Prefetch(const void* p)
{
    _mm_prefetch(static_cast<const char*>(p), _MM_HINT_T0);
}

inline unsigned Load16(const unsigned char* p)
{
    uint16_t n;
    std::memcpy(&n, p, sizeof n);
    return n;
}

// Unsigned a < b on 32-bit lanes.
inline __m128i LessUnsigned(__m128i a, __m128i b)
{
    const __m128i sign = _mm_set1_epi32(static_cast<int>(0x80000000u));
    return _mm_cmplt_epi32(_mm_xor_si128(a, sign), _mm_xor_si128(b, sign));
}

// The weighted sums of four entries, one per lane, from their top-left,
// top-right, bottom-right and bottom-left samples: in every lane the same
// single-precision products and sums, in the same order, as Weighted.
inline __m128i WeightedFour(__m128i tl, __m128i tr, __m128i br, __m128i bl, const __m128 (&aw)[4])
{
    __m128 sum = _mm_mul_ps(_mm_cvtepi32_ps(tl), aw[0]);
    sum = _mm_add_ps(sum, _mm_mul_ps(_mm_cvtepi32_ps(tr), aw[1]));
    sum = _mm_add_ps(sum, _mm_mul_ps(_mm_cvtepi32_ps(br), aw[2]));
    sum = _mm_add_ps(sum, _mm_mul_ps(_mm_cvtepi32_ps(bl), aw[3]));
    return _mm_cvttps_epi32(sum);
}

// Destination indexes of four canvas targets on the row that starts at
// canvas index nRowStart, -1 for targets outside the crop window.
template <class G, bool bMirror>
inline __m128i CropFour(__m128i canvas, unsigned nRowStart, unsigned nOutRow)
{
    const __m128i outCol = _mm_sub_epi32(canvas, _mm_set1_epi32(static_cast<int>(nRowStart + G::kCropLeft)));
    const __m128i inside = LessUnsigned(outCol, _mm_set1_epi32(static_cast<int>(kOut)));
    const int nBase = static_cast<int>(nOutRow * kOut);
    const __m128i pos = bMirror ? _mm_sub_epi32(_mm_set1_epi32(nBase + static_cast<int>(kOut) - 1), outCol)
                                : _mm_add_epi32(_mm_set1_epi32(nBase), outCol);
    return _mm_or_si128(_mm_and_si128(inside, pos), _mm_andnot_si128(inside, _mm_set1_epi32(-1)));
}

// Loads four 16-byte records, one per entry, and transposes them: lane k of
// result i is 32-bit field i of entry k (moved as raw bits).
inline void LoadFields(const void* p0, const void* p1, const void* p2, const void* p3, __m128i (&aOut)[4])
{
    __m128 f0 = _mm_loadu_ps(static_cast<const float*>(p0));
    __m128 f1 = _mm_loadu_ps(static_cast<const float*>(p1));
    __m128 f2 = _mm_loadu_ps(static_cast<const float*>(p2));
    __m128 f3 = _mm_loadu_ps(static_cast<const float*>(p3));
    _MM_TRANSPOSE4_PS(f0, f1, f2, f3);
    aOut[0] = _mm_castps_si128(f0);
    aOut[1] = _mm_castps_si128(f1);
    aOut[2] = _mm_castps_si128(f2);
    aOut[3] = _mm_castps_si128(f3);
}

// The two bytes at each of four addresses, zero-extended into four 32-bit
// lanes (built in registers: storing four ints and loading them as one
// vector would stall on the store forwarding).
inline __m128i Pairs(const unsigned char* p0, const unsigned char* p1, const unsigned char* p2,
                     const unsigned char* p3)
{
    __m128i v = _mm_setzero_si128();
    v = _mm_insert_epi16(v, static_cast<int>(Load16(p0)), 0);
    v = _mm_insert_epi16(v, static_cast<int>(Load16(p1)), 2);
    v = _mm_insert_epi16(v, static_cast<int>(Load16(p2)), 4);
    return _mm_insert_epi16(v, static_cast<int>(Load16(p3)), 6);
}

// The low bytes of four 32-bit lanes as four bytes in lane order.
inline int PackLowBytes(__m128i v)
{
    v = _mm_and_si128(v, _mm_set1_epi32(0xFF));
    v = _mm_packs_epi32(v, v);
    return _mm_cvtsi128_si32(_mm_packus_epi16(v, v));
}

// Four consecutive entries at once when all of them are usable 2 x 2
// blocks in one source row pair, with all targets on one canvas row; false
// (nothing written) otherwise.
template <class G, bool bMirror>
inline bool ResampleFour(const tagModifyEntry* e, const unsigned char* const* apRow, unsigned char* pDst,
                         CCropMap<G, bMirror>& crop, CSourceRow<G>& rows)
{
    const unsigned SW = G::kSrcWidth;
    __m128i field[4];  // nSrcRow, nSrcCol, nDstRight, nDstLeft
    LoadFields(&e[0].nSrcRow, &e[1].nSrcRow, &e[2].nSrcRow, &e[3].nSrcRow, field);
    __m128i index[4];  // nSrcIndex[0..3]
    LoadFields(e[0].nSrcIndex, e[1].nSrcIndex, e[2].nSrcIndex, e[3].nSrcIndex, index);

    __m128i ok = _mm_and_si128(LessUnsigned(field[0], _mm_set1_epi32(G::kMaxRow + 1)),
                               LessUnsigned(field[1], _mm_set1_epi32(G::kMaxCol + 1)));
    // Shaped i0, i0 + 1, i0 + SW + 1, i0 + SW, the largest inside the source.
    const __m128i topLeft = index[0];
    ok = _mm_and_si128(ok, _mm_cmpeq_epi32(index[1], _mm_add_epi32(topLeft, _mm_set1_epi32(1))));
    ok = _mm_and_si128(ok, _mm_cmpeq_epi32(index[2], _mm_add_epi32(topLeft, _mm_set1_epi32(static_cast<int>(SW + 1)))));
    ok = _mm_and_si128(ok, _mm_cmpeq_epi32(index[3], _mm_add_epi32(topLeft, _mm_set1_epi32(static_cast<int>(SW)))));
    ok = _mm_and_si128(ok, LessUnsigned(index[2], _mm_set1_epi32(static_cast<int>(G::kSrcWidth * G::kSrcRows))));
    // All four blocks on the source row of the first, each with its right
    // column on that row too.
    unsigned nCol0;
    const unsigned nSrcRow = rows.Locate(e[0].nSrcIndex[0], nCol0);
    const unsigned nSrcRowStart = e[0].nSrcIndex[0] - nCol0;
    ok = _mm_and_si128(ok, LessUnsigned(_mm_sub_epi32(topLeft, _mm_set1_epi32(static_cast<int>(nSrcRowStart))),
                                        _mm_set1_epi32(static_cast<int>(SW - 1))));
    // All eight targets on the canvas row of the first one.
    unsigned nRowStart;
    const unsigned nOutRow = crop.Row(static_cast<unsigned>(_mm_cvtsi128_si32(field[2])), nRowStart);
    const __m128i rowStart = _mm_set1_epi32(static_cast<int>(nRowStart));
    const __m128i canvasWidth = _mm_set1_epi32(G::kCanvas);
    const __m128i colRight = _mm_sub_epi32(field[2], rowStart);
    const __m128i colLeft = _mm_sub_epi32(field[3], rowStart);
    ok = _mm_and_si128(ok, LessUnsigned(colRight, canvasWidth));
    ok = _mm_and_si128(ok, LessUnsigned(colLeft, canvasWidth));
    // The placement that lets both halves be done entry by entry (see
    // ResampleEntry): left targets up to the centre column, right targets
    // beyond it or on it together with the left one.
    const __m128i centre = _mm_set1_epi32(G::kCanvas / 2);
    ok = _mm_and_si128(ok, LessUnsigned(colLeft, _mm_set1_epi32(G::kCanvas / 2 + 1)));
    ok = _mm_and_si128(ok, _mm_or_si128(LessUnsigned(centre, colRight),
                                        _mm_and_si128(_mm_cmpeq_epi32(colRight, centre),
                                                      _mm_cmpeq_epi32(field[2], field[3]))));
    if (_mm_movemask_epi8(ok) != 0xFFFF)
        return false;
    if (nOutRow >= kOut)
        return true;  // a canvas row outside the crop window: never seen

    const __m128i posRight = CropFour<G, bMirror>(field[2], nRowStart, nOutRow);
    const __m128i posLeft = CropFour<G, bMirror>(field[3], nRowStart, nOutRow);
    const __m128i none = _mm_set1_epi32(-1);
    const int nRightOutside = _mm_movemask_epi8(_mm_cmpeq_epi32(posRight, none));
    const int nLeftOutside = _mm_movemask_epi8(_mm_cmpeq_epi32(posLeft, none));
    if ((nRightOutside & nLeftOutside) == 0xFFFF)
        return true;  // every target outside the window

    // Each 16-bit load holds two horizontally adjacent samples, the left
    // one in the low byte; mirrored reads start one column further left.
    const unsigned char* const pTop = apRow[nSrcRow];
    const unsigned char* const pBottom = apRow[nSrcRow + 1];
    const unsigned char* const pTopMirror = apRow[nSrcRow] + (SW - 2);
    const unsigned char* const pBottomMirror = apRow[nSrcRow + 1] + (SW - 2);
    unsigned anCol[4];
    for (int k = 0; k < 4; ++k)
        anCol[k] = e[k].nSrcIndex[0] - nSrcRowStart;
    const __m128i top = Pairs(pTop + anCol[0], pTop + anCol[1], pTop + anCol[2], pTop + anCol[3]);
    const __m128i bottom = Pairs(pBottom + anCol[0], pBottom + anCol[1], pBottom + anCol[2], pBottom + anCol[3]);
    const __m128i topMirror =
        Pairs(pTopMirror - anCol[0], pTopMirror - anCol[1], pTopMirror - anCol[2], pTopMirror - anCol[3]);
    const __m128i bottomMirror = Pairs(pBottomMirror - anCol[0], pBottomMirror - anCol[1], pBottomMirror - anCol[2],
                                       pBottomMirror - anCol[3]);

    __m128 aw[4] = {_mm_loadu_ps(e[0].fWeight), _mm_loadu_ps(e[1].fWeight), _mm_loadu_ps(e[2].fWeight),
                    _mm_loadu_ps(e[3].fWeight)};
    _MM_TRANSPOSE4_PS(aw[0], aw[1], aw[2], aw[3]);  // aw[k]: weight k of the four entries

    const __m128i lowByte = _mm_set1_epi32(0xFF);
    // Right half: top-left and bottom-left are the low bytes.
    const __m128i right = WeightedFour(_mm_and_si128(top, lowByte), _mm_srli_epi32(top, 8),
                                       _mm_srli_epi32(bottom, 8), _mm_and_si128(bottom, lowByte), aw);
    // Left half, mirrored: top-left and bottom-left are the high bytes.
    const __m128i left = WeightedFour(_mm_srli_epi32(topMirror, 8), _mm_and_si128(topMirror, lowByte),
                                      _mm_and_si128(bottomMirror, lowByte), _mm_srli_epi32(bottomMirror, 8), aw);

    if (bMirror && (nRightOutside | nLeftOutside) == 0) {
        // The usual case: the right targets run leftwards from posRight[0]
        // and the left ones rightwards from posLeft[0] (the destination is
        // mirrored). Then each half is one 4-byte store, right before left.
        const int nRight0 = _mm_cvtsi128_si32(posRight);
        const int nLeft0 = _mm_cvtsi128_si32(posLeft);
        const __m128i runRight = _mm_sub_epi32(_mm_set1_epi32(nRight0), _mm_setr_epi32(0, 1, 2, 3));
        const __m128i runLeft = _mm_add_epi32(_mm_set1_epi32(nLeft0), _mm_setr_epi32(0, 1, 2, 3));
        if (_mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi32(posRight, runRight), _mm_cmpeq_epi32(posLeft, runLeft))) ==
            0xFFFF) {
            const int nRightBytes = PackLowBytes(_mm_shuffle_epi32(right, _MM_SHUFFLE(0, 1, 2, 3)));
            const int nLeftBytes = PackLowBytes(left);
            std::memcpy(pDst + nRight0 - 3, &nRightBytes, 4);
            std::memcpy(pDst + nLeft0, &nLeftBytes, 4);
            return true;
        }
    }
    int anValue[8];
    int anPos[8];
    _mm_storeu_si128(reinterpret_cast<__m128i*>(anValue), _mm_unpacklo_epi32(right, left));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(anValue + 4), _mm_unpackhi_epi32(right, left));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(anPos), _mm_unpacklo_epi32(posRight, posLeft));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(anPos + 4), _mm_unpackhi_epi32(posRight, posLeft));
    // Entry by entry, right before left.
    for (int k = 0; k < 8; ++k) {
        if (anPos[k] >= 0)
            pDst[anPos[k]] = static_cast<unsigned char>(anValue[k]);
    }
    return true;
}
} // namespace

template <class G, bool bMirror>
unsigned ResampleRowSse2(const tagModifyEntry* pRow, unsigned nFrom, const tagModifyEntry* pNextRow,
                         const unsigned char* const* apRow, unsigned char* pDst, CCropMap<G, bMirror>& crop,
                         CSourceRow<G>& rows)
{
    const unsigned nEntries = G::kCanvas / 2;
    unsigned c = nFrom;
    for (; c + 4 <= nEntries; c += 4) {
        // The table is far larger than the caches, and each row is its
        // own allocation: fetch ahead within the row, and near its end
        // the start of the next row.
        const unsigned nAhead = c + kPrefetchEntries;
        if (nAhead < nEntries) {
            Prefetch(pRow + nAhead);
            Prefetch(pRow + nAhead + 2);
        } else if (pNextRow != nullptr) {
            Prefetch(pNextRow + (nAhead - nEntries));
            Prefetch(pNextRow + (nAhead - nEntries) + 2);
        }
        if (!ResampleFour(pRow + c, apRow, pDst, crop, rows))
            break;
    }
    return c;
}

template unsigned ResampleRowSse2<CalcGeometry, true>(const tagModifyEntry*, unsigned, const tagModifyEntry*,
                                                      const unsigned char* const*, unsigned char*,
                                                      CCropMap<CalcGeometry, true>&, CSourceRow<CalcGeometry>&);
template unsigned ResampleRowSse2<CalcGeometry, false>(const tagModifyEntry*, unsigned, const tagModifyEntry*,
                                                       const unsigned char* const*, unsigned char*,
                                                       CCropMap<CalcGeometry, false>&, CSourceRow<CalcGeometry>&);
template unsigned ResampleRowSse2<ExGeometry, true>(const tagModifyEntry*, unsigned, const tagModifyEntry*,
                                                    const unsigned char* const*, unsigned char*,
                                                    CCropMap<ExGeometry, true>&, CSourceRow<ExGeometry>&);
template unsigned ResampleRowSse2<ExGeometry, false>(const tagModifyEntry*, unsigned, const tagModifyEntry*,
                                                     const unsigned char* const*, unsigned char*,
                                                     CCropMap<ExGeometry, false>&, CSourceRow<ExGeometry>&);

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
