// Geometry correction of a grey raw image into the finished 600 x 600 image,
// mirrored left to right: nearest-sample lookup through the compiled-in
// coordinate tables (CorrectImage), or bilinear interpolation through the
// modify tables (CorrectImageCalc for a 1288 x 876 source,
// CorrectImageCalcEx for 1700 columns of an 1800 x 1280 source).
//
// The interpolating variants are defined as resampling a copy of the source
// and its mirror onto a square canvas, cropping a 600 x 600 window out of it
// and mirroring that. Here the copies are not made: the source rows are
// read in place, forwards for the right half and backwards for the left
// half. And when the caller asks for the usual 600 x 600 output, the crop
// and the final mirror are folded into the resampling: each computed canvas
// pixel inside the window is stored straight at its mirrored place in the
// destination, and pixels outside the window are not computed. The stored
// bytes are the same.
#include "tavk05/isproc.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

const unsigned kOut = IMG_WIDTH;              // finished image side
const size_t kOutPixels = IMG_PIXELS;

// Read regions of the coordinate tables (row stride 660 for all four).
const unsigned kTableStride = 660;
const unsigned kTableTop = 21;
const unsigned kTableLeft = 26;
const unsigned kTable1103Top = 10;
const unsigned kTable1103Left = 25;

bool Overlaps(const void* pA, size_t nA, const void* pB, size_t nB)
{
    const uintptr_t a = reinterpret_cast<uintptr_t>(pA);
    const uintptr_t b = reinterpret_cast<uintptr_t>(pB);
    return a < b + nB && b < a + nA;
}

#if defined(__SSE2__)
inline __m128i ReverseBytes(__m128i v)
{
    v = _mm_shuffle_epi32(v, _MM_SHUFFLE(0, 1, 2, 3));
    v = _mm_shufflelo_epi16(v, _MM_SHUFFLE(2, 3, 0, 1));
    v = _mm_shufflehi_epi16(v, _MM_SHUFFLE(2, 3, 0, 1));
    return _mm_or_si128(_mm_slli_epi16(v, 8), _mm_srli_epi16(v, 8));
}
#endif

// Reverses n bytes in place.
void ReverseInPlace(unsigned char* p, size_t n)
{
    size_t nLo = 0;
    size_t nHi = n;  // bytes nLo .. nHi - 1 are still to be reversed
#if defined(__SSE2__)
    while (nHi - nLo >= 32) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + nLo));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + nHi - 16));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p + nLo), ReverseBytes(b));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p + nHi - 16), ReverseBytes(a));
        nLo += 16;
        nHi -= 16;
    }
#endif
    std::reverse(p + nLo, p + nHi);
}

// Nearest-sample lookup of the 600 x 600 window; with bMirror each output
// row is stored right to left. A table entry that points outside the source
// the caller described gives 0 instead of a read outside the buffer (the
// calibration data never do so for the image sizes they serve).
template <bool bMirror>
void Lookup(const unsigned char* pSrc, unsigned long nSrcWidth, size_t nSrcPixels, const unsigned short* pX,
            const unsigned short* pY, unsigned char* pDst)
{
    for (unsigned y = 0; y < kOut; ++y) {
        const unsigned short* pRowX = pX + y * kTableStride;
        const unsigned short* pRowY = pY + y * kTableStride;
        unsigned char* pOut = pDst + y * kOut;
        for (unsigned x = 0; x < kOut; ++x) {
            const size_t nIndex = static_cast<size_t>(pRowY[x]) * nSrcWidth + pRowX[x];
            const unsigned char v = nIndex < nSrcPixels ? pSrc[nIndex] : 0;
            pOut[bMirror ? kOut - 1 - x : x] = v;
        }
    }
}

// ------------------------------------------------------------------------
// Interpolating correction.
//
// The source is addressed by rows: apRow[p] points at row p of the image
// the modify-table indexes refer to (the 1288 x 876 source itself, or the
// 1700 x 1300 padded image, whose rows are 1700-byte windows of the source
// rows or a row of zeros). Index k of a table entry is pixel
// (k / SW, k % SW) of that image; the left half reads the image mirrored,
// pixel (k / SW, SW - 1 - k % SW). No padded or mirrored copy is built.

struct CalcGeometry {
    enum : unsigned {
        kCanvas = MODIFY_SIZE,  // W x W canvas
        kSrcWidth = 1288,       // SW
        kSrcRows = 876,
        kMaxRow = 875,
        kMaxCol = 643,
        kCropTop = 30,
        kCropLeft = 30
    };
};

struct ExGeometry {
    enum : unsigned {
        kCanvas = MODIFY_SIZE_EX,
        kSrcWidth = 1700,
        kSrcRows = 1300,
        kMaxRow = 1299,
        kMaxCol = 849,
        kCropTop = 10,
        kCropLeft = 26
    };
};

const unsigned kExFirstCol = 50;  // first source column of the padded image
const unsigned kExTopPad = 10;    // source row i is padded row i + 10

// Maps canvas indexes of the W x W canvas to destination indexes inside the
// 600 x 600 crop window, mirrored or not. The canvas row of the last index
// is remembered, as consecutive entries stay on one row, so that a
// division is needed only when the row changes.
template <class G, bool bMirror>
class CCropMap {
public:
    CCropMap() : m_nRowStart(0), m_nOutRow(0u - G::kCropTop) {}

    // Moves to the canvas row of nCanvas; returns that row minus the crop
    // top (wrapping above the window) and the canvas index of its first
    // pixel.
    unsigned Row(unsigned nCanvas, unsigned& nRowStart)
    {
        if (nCanvas - m_nRowStart >= G::kCanvas) {
            const unsigned nRow = nCanvas / G::kCanvas;
            m_nRowStart = nRow * G::kCanvas;
            m_nOutRow = nRow - G::kCropTop;
        }
        nRowStart = m_nRowStart;
        return m_nOutRow;
    }

    // Destination index, or kOutPixels outside the window.
    size_t operator()(unsigned nCanvas)
    {
        unsigned nRowStart;
        const unsigned nOutRow = Row(nCanvas, nRowStart);
        const unsigned nOutCol = nCanvas - nRowStart - G::kCropLeft;  // wraps left of the window
        if (nOutRow >= kOut || nOutCol >= kOut)
            return kOutPixels;
        return static_cast<size_t>(nOutRow) * kOut + (bMirror ? kOut - 1 - nOutCol : nOutCol);
    }

private:
    unsigned m_nRowStart;  // canvas index of the first pixel of the current row
    unsigned m_nOutRow;    // current canvas row minus the crop top (wraps above)
};

// Row and column of a source index, remembering the row of the last one.
template <class G>
class CSourceRow {
public:
    CSourceRow() : m_nRowStart(0), m_nRow(0) {}

    unsigned Locate(unsigned nIndex, unsigned& nCol)
    {
        nCol = nIndex - m_nRowStart;
        if (nCol >= G::kSrcWidth) {
            m_nRow = nIndex / G::kSrcWidth;
            m_nRowStart = m_nRow * G::kSrcWidth;
            nCol = nIndex - m_nRowStart;
        }
        return m_nRow;
    }

private:
    unsigned m_nRowStart;
    unsigned m_nRow;
};

// Whether an entry may be used: 0 <= nSrcRow <= max row, 0 <= nSrcCol <=
// max column, and the bottom-right index (the last of the four) inside the
// source. The other three indexes are tested too, so that an edited table
// cannot lead outside.
template <class G>
inline bool Usable(const tagModifyEntry& e)
{
    const unsigned nLimit = G::kSrcWidth * G::kSrcRows;
    if (static_cast<unsigned>(e.nSrcRow) > G::kMaxRow || static_cast<unsigned>(e.nSrcCol) > G::kMaxCol)
        return false;
    return (e.nSrcIndex[2] < nLimit) & (e.nSrcIndex[0] < nLimit) & (e.nSrcIndex[1] < nLimit) &
           (e.nSrcIndex[3] < nLimit);
}

// Weighted sum of the four neighbours, added in order in single precision,
// truncated toward zero; the low 8 bits are the pixel.
inline unsigned char Weighted(const unsigned char (&aby)[4], const float (&afWeight)[4])
{
    float fSum = static_cast<float>(aby[0]) * afWeight[0];
    fSum = fSum + static_cast<float>(aby[1]) * afWeight[1];
    fSum = fSum + static_cast<float>(aby[2]) * afWeight[2];
    fSum = fSum + static_cast<float>(aby[3]) * afWeight[3];
    return static_cast<unsigned char>(static_cast<int>(fSum));
}

// The pixels of an entry's four neighbours in the image (abyRight) and in
// the mirrored image (abyLeft).
template <class G>
inline void Neighbours(const tagModifyEntry& e, const unsigned char* const* apRow, CSourceRow<G>& rows,
                       unsigned char (&abyRight)[4], unsigned char (&abyLeft)[4])
{
    const unsigned SW = G::kSrcWidth;
    const unsigned i0 = e.nSrcIndex[0];
    unsigned nCol;
    const unsigned nRow = rows.Locate(i0, nCol);
    if (e.nSrcIndex[1] == i0 + 1 && e.nSrcIndex[2] == i0 + SW + 1 && e.nSrcIndex[3] == i0 + SW && nCol + 1 < SW) {
        // The usual 2 x 2 block inside one row pair.
        const unsigned char* pTop = apRow[nRow];
        const unsigned char* pBottom = apRow[nRow + 1];
        const unsigned nMirror = SW - 1 - nCol;
        abyRight[0] = pTop[nCol];
        abyRight[1] = pTop[nCol + 1];
        abyRight[2] = pBottom[nCol + 1];
        abyRight[3] = pBottom[nCol];
        abyLeft[0] = pTop[nMirror];
        abyLeft[1] = pTop[nMirror - 1];
        abyLeft[2] = pBottom[nMirror - 1];
        abyLeft[3] = pBottom[nMirror];
    } else {
        // Any other shape, such as a block whose right column lies on the
        // next row: each index on its own.
        for (int k = 0; k < 4; ++k) {
            const unsigned nIndex = e.nSrcIndex[k];
            const unsigned char* pRow = apRow[nIndex / SW];
            const unsigned nAt = nIndex % SW;
            abyRight[k] = pRow[nAt];
            abyLeft[k] = pRow[SW - 1 - nAt];
        }
    }
}

// Right and left half of one entry, the right pixel stored first. Doing
// both halves entry by entry gives the result of a whole right pass
// followed by a whole left pass as long as the targets lie as the table
// build places them: right targets right of the canvas centre column, left
// targets left of it, and the centre pixel only as both targets of one
// entry. Returns false, with nothing stored, for an entry that breaks
// this (an edited table); the caller then takes the two passes.
template <class G, bool bMirror>
inline bool ResampleEntry(const tagModifyEntry& e, const unsigned char* const* apRow, unsigned char* pDst,
                          CCropMap<G, bMirror>& crop, CSourceRow<G>& rows)
{
    if (!Usable<G>(e))
        return true;
    const unsigned nCentre = G::kCanvas / 2;
    unsigned nRowStart;
    crop.Row(e.nDstRight, nRowStart);
    const unsigned nColRight = e.nDstRight - nRowStart;
    crop.Row(e.nDstLeft, nRowStart);
    const unsigned nColLeft = e.nDstLeft - nRowStart;
    if (nColLeft > nCentre || nColRight < nCentre || (nColRight == nCentre && e.nDstLeft != e.nDstRight))
        return false;
    const size_t nRight = crop(e.nDstRight);
    const size_t nLeft = crop(e.nDstLeft);
    if (nRight >= kOutPixels && nLeft >= kOutPixels)
        return true;  // outside the crop window: never seen
    unsigned char abyRight[4];
    unsigned char abyLeft[4];
    Neighbours(e, apRow, rows, abyRight, abyLeft);
    const float afWeight[4] = {e.fWeight[0], e.fWeight[1], e.fWeight[2], e.fWeight[3]};
    if (nRight < kOutPixels)
        pDst[nRight] = Weighted(abyRight, afWeight);
    if (nLeft < kOutPixels)
        pDst[nLeft] = Weighted(abyLeft, afWeight);
    return true;
}

// The two passes as such, for any placement of the targets: every right
// pixel in table order, then every left pixel.
template <class G, bool bMirror>
void ResampleInTwoPasses(const tagModifyEntry* const* ppTable, const unsigned char* const* apRow, unsigned char* pDst)
{
    CCropMap<G, bMirror> crop;
    CSourceRow<G> rows;
    for (int nHalf = 0; nHalf < 2; ++nHalf) {
        for (unsigned r = 0; r < G::kCanvas; ++r) {
            const tagModifyEntry* const pRow = ppTable[r];
            if (pRow == nullptr)
                continue;
            for (unsigned c = 0; c < G::kCanvas / 2; ++c) {
                const tagModifyEntry& e = pRow[c];
                if (!Usable<G>(e))
                    continue;
                const size_t nAt = crop(nHalf == 0 ? e.nDstRight : e.nDstLeft);
                if (nAt >= kOutPixels)
                    continue;
                unsigned char abyRight[4];
                unsigned char abyLeft[4];
                Neighbours(e, apRow, rows, abyRight, abyLeft);
                const float afWeight[4] = {e.fWeight[0], e.fWeight[1], e.fWeight[2], e.fWeight[3]};
                pDst[nAt] = Weighted(nHalf == 0 ? abyRight : abyLeft, afWeight);
            }
        }
    }
}

const unsigned kPrefetchEntries = 24;

inline void Prefetch(const void* p)
{
#if defined(__SSE2__)
    _mm_prefetch(static_cast<const char*>(p), _MM_HINT_T0);
#else
    (void)p;
#endif
}

inline unsigned Load16(const unsigned char* p)
{
    uint16_t n;
    std::memcpy(&n, p, sizeof n);
    return n;
}

#if defined(__SSE2__)
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
#endif

// Both halves of the interpolating correction over the W rows of a modify
// table: every usable entry produces its right-half pixel from the image and
// its left-half pixel from the mirrored image, entry by entry. With the
// targets placed as the table build places them, right and left targets of
// different entries never coincide, and the centre column, targeted by both
// halves of entry 0, keeps the left value as it is stored second -- as if
// the whole right half had been computed before the left half. A table
// edited otherwise is done in the two passes instead.
template <class G, bool bMirror>
void Resample(const tagModifyEntry* const* ppTable, const unsigned char* const* apRow, unsigned char* pDst)
{
    CCropMap<G, bMirror> crop;
    CSourceRow<G> rows;
    const unsigned nEntries = G::kCanvas / 2;
    for (unsigned r = 0; r < G::kCanvas; ++r) {
        const tagModifyEntry* const pRow = ppTable[r];
        if (pRow == nullptr)
            continue;
        const tagModifyEntry* const pNextRow = r + 1 < G::kCanvas ? ppTable[r + 1] : nullptr;
        unsigned c = 0;
#if defined(__SSE2__)
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
            if (!ResampleFour(pRow + c, apRow, pDst, crop, rows)) {
                for (unsigned k = c; k < c + 4; ++k) {
                    if (!ResampleEntry(pRow[k], apRow, pDst, crop, rows)) {
                        ResampleInTwoPasses<G, bMirror>(ppTable, apRow, pDst);
                        return;
                    }
                }
            }
        }
#endif
        for (; c < nEntries; ++c) {
            if (!ResampleEntry(pRow[c], apRow, pDst, crop, rows)) {
                // Everything stored so far is stored again, in pass order.
                ResampleInTwoPasses<G, bMirror>(ppTable, apRow, pDst);
                return;
            }
        }
    }
}

// Runs the resampling into the destination: mirrored straight into place
// for the usual 600 x 600 output, else into the crop layout followed by the
// mirror over the caller's width and height.
template <class G>
void ResampleInto(const tagModifyEntry* const* ppTable, const unsigned char* const* apRow, unsigned char* pDst,
                  unsigned long nDstWidth, unsigned long nDstHeight, CImageProc& proc)
{
    if (nDstWidth == kOut && nDstHeight == kOut) {
        Resample<G, true>(ppTable, apRow, pDst);
    } else {
        Resample<G, false>(ppTable, apRow, pDst);
        proc.RotateRightImage(pDst, static_cast<int>(nDstWidth), static_cast<int>(nDstHeight));
    }
}

bool IsUsualOutput(unsigned long nWidth, unsigned long nHeight)
{
    return nWidth == kOut && nHeight == kOut;
}

} // namespace

int CImageProc::RotateRightImage(unsigned char* pImage, int nWidth, int nHeight)
{
    if (pImage == nullptr)
        return 0;
    if (nWidth <= 0 || nHeight <= 0)
        return 1;  // nothing to mirror
    const size_t nRowBytes = static_cast<size_t>(nWidth);
    for (size_t r = 0; r < static_cast<size_t>(nHeight); ++r)
        ReverseInPlace(pImage + r * nRowBytes, nRowBytes);
    return 1;
}

int CImageProc::CorrectImage(unsigned char* pSrc, unsigned long nSrcWidth, unsigned long nSrcHeight,
                             unsigned char* pDst, unsigned long nDstWidth, unsigned long nDstHeight,
                             unsigned long nOffsetX, unsigned long nOffsetY)
{
    if (pSrc == nullptr || pDst == nullptr)
        return 0;
    // The offsets take part in this check only.
    if (nDstWidth + nOffsetX - 1 >= nSrcWidth || nDstHeight + nOffsetY - 1 >= nSrcHeight)
        return 0;

    const bool b1103 = m_nDeviceType >= 5 && m_nDeviceType <= 8;
    const unsigned nOrigin = b1103 ? kTable1103Top * kTableStride + kTable1103Left
                                   : kTableTop * kTableStride + kTableLeft;
    const unsigned short* pX = (b1103 ? usXtable1103 : usXtable) + nOrigin;
    const unsigned short* pY = (b1103 ? usYtable1103 : usYtable) + nOrigin;
    const size_t nSrcPixels = static_cast<size_t>(nSrcWidth) * nSrcHeight;

    if (IsUsualOutput(nDstWidth, nDstHeight) && !Overlaps(pSrc, nSrcPixels, pDst, kOutPixels)) {
        Lookup<true>(pSrc, nSrcWidth, nSrcPixels, pX, pY, pDst);
    } else {
        Lookup<false>(pSrc, nSrcWidth, nSrcPixels, pX, pY, pDst);
        RotateRightImage(pDst, static_cast<int>(nDstWidth), static_cast<int>(nDstHeight));
    }
    return 1;
}

int CImageProc::CorrectImageCalc(unsigned char* pSrc, unsigned long /*nSrcWidth*/, unsigned long /*nSrcHeight*/,
                                 unsigned char* pDst, unsigned long nDstWidth, unsigned long nDstHeight,
                                 unsigned long /*nOffsetX*/, unsigned long /*nOffsetY*/)
{
    if (pSrc == nullptr || pDst == nullptr || m_ppModifyTable == nullptr)
        return 0;

    // The 1288 x 876 source is read in place, unless the destination
    // overlaps it: then from a copy, as every read must see it unchanged.
    const size_t nSrcBytes = CalcGeometry::kSrcWidth * CalcGeometry::kSrcRows;
    const unsigned char* pImage = pSrc;
    std::unique_ptr<unsigned char[]> pCopy;
    if (Overlaps(pSrc, nSrcBytes, pDst, kOutPixels)) {
        pCopy.reset(new (std::nothrow) unsigned char[nSrcBytes]);
        if (!pCopy)
            return 0;
        std::memcpy(pCopy.get(), pSrc, nSrcBytes);
        pImage = pCopy.get();
    }
    const unsigned char* apRow[CalcGeometry::kSrcRows];
    for (unsigned p = 0; p < CalcGeometry::kSrcRows; ++p)
        apRow[p] = pImage + static_cast<size_t>(p) * CalcGeometry::kSrcWidth;

    ResampleInto<CalcGeometry>(m_ppModifyTable, apRow, pDst, nDstWidth, nDstHeight, *this);
    return 1;
}

int CImageProc::CorrectImageCalcEx(unsigned char* pSrc, unsigned long nSrcWidth, unsigned long nSrcHeight,
                                   unsigned char* pDst, unsigned long nDstWidth, unsigned long nDstHeight,
                                   unsigned long /*nOffsetX*/, unsigned long /*nOffsetY*/)
{
    if (pSrc == nullptr || pDst == nullptr || m_ppModifyTableEx == nullptr)
        return 0;

    // The padded image: its row p is the 1700 bytes from column 50 of
    // source row p - 10, and 0 where there is no such source row (rows 0
    // to 9, and below the source). Source rows that would fall below the
    // 1300 padded rows are not used. A window reaching past the end of the
    // source (as width times height) reads as 0 there: such rows are taken
    // into a zero-filled scratch row, as is the zero row itself. If the
    // destination overlaps the source, the source is copied first.
    const unsigned W = ExGeometry::kSrcWidth;
    const size_t nSrcPixels = static_cast<size_t>(nSrcWidth) * nSrcHeight;
    const unsigned char* pImage = pSrc;
    std::unique_ptr<unsigned char[]> pCopy;
    if (Overlaps(pSrc, nSrcPixels, pDst, kOutPixels)) {
        pCopy.reset(new (std::nothrow) unsigned char[nSrcPixels]);
        if (!pCopy)
            return 0;
        std::memcpy(pCopy.get(), pSrc, nSrcPixels);
        pImage = pCopy.get();
    }

    // Source offset of padded row p, or nSrcPixels when it has none.
    const auto startOf = [&](unsigned p) -> size_t {
        if (p < kExTopPad || p - kExTopPad >= nSrcHeight)
            return nSrcPixels;
        const size_t nStart = static_cast<size_t>(p - kExTopPad) * nSrcWidth + kExFirstCol;
        return nStart < nSrcPixels ? nStart : nSrcPixels;
    };
    const unsigned nRows = ExGeometry::kSrcRows;
    unsigned nPartial = 0;
    for (unsigned p = 0; p < nRows; ++p) {
        const size_t nStart = startOf(p);
        nPartial += nStart < nSrcPixels && nSrcPixels - nStart < W ? 1 : 0;
    }
    // Row 0 of the scratch is the zero row; partial rows follow.
    std::unique_ptr<unsigned char[]> pRows(new (std::nothrow) unsigned char[static_cast<size_t>(1 + nPartial) * W]());
    if (!pRows)
        return 0;
    const unsigned char* apRow[ExGeometry::kSrcRows];
    unsigned char* pNextPartial = pRows.get() + W;
    for (unsigned p = 0; p < nRows; ++p) {
        const size_t nStart = startOf(p);
        if (nStart >= nSrcPixels) {
            apRow[p] = pRows.get();
        } else if (nSrcPixels - nStart >= W) {
            apRow[p] = pImage + nStart;
        } else {
            std::memcpy(pNextPartial, pImage + nStart, nSrcPixels - nStart);
            apRow[p] = pNextPartial;
            pNextPartial += W;
        }
    }

    ResampleInto<ExGeometry>(m_ppModifyTableEx, apRow, pDst, nDstWidth, nDstHeight, *this);
    return 1;
}
