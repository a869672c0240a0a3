// Internal to the library: the geometry of the interpolating corrections
// and the bookkeeping their plain and vector loops share, and the vector
// kernels of those loops (correct_sse2.cpp).
#ifndef TAVK05_SRC_IMAGEPROC_CORRECT_GEOMETRY_H
#define TAVK05_SRC_IMAGEPROC_CORRECT_GEOMETRY_H

#include "tavk05/isproc.h"

#include <cstddef>

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

#if defined(__SSE2__)
// Groups of four entries of a table row from entry nFrom on, as long as the
// next group is four usable 2 x 2 blocks in one source row pair with all
// targets on one canvas row; returns the first entry not done (a group it
// cannot take, or fewer than four left). pNextRow, which may be null, is
// fetched ahead near the row's end.
template <class G, bool bMirror>
unsigned ResampleRowSse2(const tagModifyEntry* pRow, unsigned nFrom, const tagModifyEntry* pNextRow,
                         const unsigned char* const* apRow, unsigned char* pDst, CCropMap<G, bMirror>& crop,
                         CSourceRow<G>& rows);

// Reverses the outer 16-byte blocks of n bytes, swapping them end for end,
// while 32 or more bytes are left in the middle; returns how many bytes it
// did at each end.
size_t ReverseOuterSse2(unsigned char* p, size_t n);
#endif

} // namespace imageproc

#endif
