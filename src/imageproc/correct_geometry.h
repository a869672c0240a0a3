// Internal to the library: the geometry of the interpolating corrections
// and the bookkeeping their plain and vector loops share, and the vector
// kernels of those loops (correct_sse2.cpp).
#ifndef TAVK05_SRC_IMAGEPROC_CORRECT_GEOMETRY_H
#define TAVK05_SRC_IMAGEPROC_CORRECT_GEOMETRY_H

#include "imageproc/modify_tables.h"
#include "tavk05/isproc.h"

#include <cstddef>
#include <memory>

namespace imageproc {

const unsigned kOut = IMG_WIDTH;              // finished image side
const size_t kOutPixels = IMG_PIXELS;

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

// ------------------------------------------------------------------------
// The compact form of a modify table.
//
// A table as the build lays it out has a regular shape: every entry of a
// row takes its four neighbours as a 2 x 2 block from one source row pair,
// all with the same row fraction, its weights are the products of that
// fraction and the entry's column fraction, and its two targets are j
// columns right and left of the canvas centre. Of such a table only this is
// needed for the 600 x 600 crop window: per window row the source row pair,
// the row fraction and how many leading entries have a target inside the
// window; per entry the source column of its top-left neighbour and its
// column fraction. That is 6 bytes per entry instead of the entry's 56, and
// the correction reads the compact form instead of the entries.
//
// The compact form is derived from the entries themselves, and only when
// every entry that matters passes the checks (the weights recomputed from
// the two fractions equal to the bit the ones stored); otherwise the
// correction reads the entries.

// Entries of a window row whose right target (kRightEntries) or left
// target (kLeftEntries) lies inside the window: entry j targets crop
// columns kCentre + j and kCentre - j.
template <class G>
struct CropShape {
    enum : unsigned {
        kCentre = G::kCanvas / 2 - G::kCropLeft,
        kRightEntries = kOut - kCentre < G::kCanvas / 2 ? kOut - kCentre : G::kCanvas / 2,
        kLeftEntries = kCentre + 1 < G::kCanvas / 2 ? kCentre + 1 : G::kCanvas / 2,
        kEntries = kRightEntries > kLeftEntries ? kRightEntries : kLeftEntries,
        kStride = (kEntries + 7) / 8 * 8  // entries stored per window row
    };
};

struct CompactRow {
    unsigned nSrcRow;  // top row of the row pair
    float fRowFrac;    // fSrcRow - nSrcRow, the same in every entry
    unsigned nRight;   // entries 0 .. nRight - 1 store their right pixel
    unsigned nLeft;    // entries 0 .. nLeft - 1 store their left pixel
};

// One window row to resample: the source row pair, the entries' columns and
// fractions, and where the pixels go. Entry j stores its right pixel at
// pOut[nCentreOut + nStep * j] and then its left pixel at
// pOut[nCentreOut - nStep * j] (nStep is 1, or -1 when the row is stored
// mirrored); the left pixel of entry 0 thus replaces its right one.
struct CompactJob {
    const unsigned char* pTop;
    const unsigned char* pBottom;
    unsigned nSrcWidth;  // the left half reads column nSrcWidth - 1 - c for c
    const unsigned short* pnCol;
    const float* pfColFrac;
    float fRowFrac;
    unsigned nRight;
    unsigned nLeft;
    unsigned char* pOut;
    unsigned nCentreOut;
    int nStep;
};

// Entries nFrom to the larger count of the job, one by one: the plain loop.
void ResampleCompact(const CompactJob& job, unsigned nFrom);

// The compact form of one table.
class CCompactTable {
public:
    // Checks the table and derives the compact form from it; false when the
    // table is not shaped as described above (or memory is short).
    template <class G>
    bool Derive(const tagModifyEntry* const* ppTable);

    const CompactRow& Row(unsigned y) const { return m_pRows[y]; }
    const unsigned short* Columns(unsigned y) const { return m_pnCol.get() + static_cast<size_t>(y) * m_nStride; }
    const float* Fractions(unsigned y) const { return m_pfFrac.get() + static_cast<size_t>(y) * m_nStride; }

private:
    unsigned m_nStride = 0;                      // entries stored per window row
    std::unique_ptr<CompactRow[]> m_pRows;       // the 600 window rows
    std::unique_ptr<unsigned short[]> m_pnCol;   // column of the top-left neighbour
    std::unique_ptr<float[]> m_pfFrac;           // fSrcCol - nSrcCol
};

#if defined(__SSE2__)
// Entries 0 to a multiple of 8 no larger than both counts of the job, eight
// at a time; returns how many it did.
unsigned ResampleCompactSse2(const CompactJob& job);

// Reverses the outer 16-byte blocks of n bytes, swapping them end for end,
// while 32 or more bytes are left in the middle; returns how many bytes it
// did at each end.
size_t ReverseOuterSse2(unsigned char* p, size_t n);
#endif

} // namespace imageproc

// What the processor keeps besides its public fields: the arena of the
// modify-table rows, and per table the compact form that the corrections
// read, derived at the first correction that reads the table and again
// after the table is rebuilt. A slot checked without a compact form means
// the table has another shape and is read entry by entry.
struct CImageProc::CPrivate {
    struct Slot {
        bool bChecked = false;
        const tagModifyEntry* const* ppTable = nullptr;  // the table checked
        std::unique_ptr<imageproc::CCompactTable> pCompact;
    };
    std::unique_ptr<imageproc::CTableArena> pArena;
    Slot calc;
    Slot ex;

    // The compact form of ppTable, derived first if the slot has not
    // checked this table yet; null when the table is to be read entry by
    // entry.
    template <class G>
    static const imageproc::CCompactTable* Compact(Slot& slot, const tagModifyEntry* const* ppTable);
};

#endif
