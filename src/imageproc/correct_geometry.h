// Internal to the library: the geometry of the interpolating corrections
// and the bookkeeping their plain and vector loops share, the plain loops
// over runs of entries (isproc_correct.cpp) and their vector kernels
// (correct_sse2.cpp).
#ifndef TAVK05_SRC_IMAGEPROC_CORRECT_GEOMETRY_H
#define TAVK05_SRC_IMAGEPROC_CORRECT_GEOMETRY_H

#include "imageproc/modify_tables.h"
#include "tavk05/isproc.h"

#include <cstddef>
#include <memory>

namespace imageproc {

const unsigned kOut = IMG_WIDTH;  // finished image side
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
        if (nOutRow >= kOut || nOutCol >= kOut) return kOutPixels;
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
    if (static_cast<unsigned>(e.nSrcRow) > G::kMaxRow || static_cast<unsigned>(e.nSrcCol) > G::kMaxCol) return false;
    return (e.nSrcIndex[2] < nLimit) & (e.nSrcIndex[0] < nLimit) & (e.nSrcIndex[1] < nLimit) &
           (e.nSrcIndex[3] < nLimit);
}

// ------------------------------------------------------------------------
// Runs of regular entries.
//
// The corrections read the public entries at every call: whatever a host
// wrote into them, and whenever, is what the image is made of. Most entries
// are as the table build lays them out, and for those the work is simple:
// an entry is regular when it is usable (nSrcRow and nSrcCol in range), its
// two targets are j columns right and left of the canvas centre on its own
// canvas row, and its four neighbours are a 2 x 2 block of one source row
// pair (indexes i0, i0 + 1, i0 + SW + 1, i0 + SW, with i0 on the pair's top
// row and not on its last column). A run is a stretch of consecutive
// entries of a canvas row tested against one row pair; the run's work stops
// at the first entry that is not regular, which the caller then takes on
// its own, in the general way.

struct EntryRun {
    const tagModifyEntry* pEntry;  // the run's first entry
    unsigned nEntries;             // entries at most; all their targets inside the crop window
    unsigned nDstRight;            // nDstRight of the first entry as the build places it
    unsigned nDstLeft;             // nDstLeft of the first entry as the build places it
    unsigned nRowStart;            // source index of column 0 of the pair's top row
    const unsigned char* pTop;     // the pair's rows, as images of nSrcWidth columns
    const unsigned char* pBottom;
    unsigned nSrcWidth;
    unsigned nMaxRow;       // largest usable nSrcRow
    unsigned nMaxCol;       // largest usable nSrcCol
    unsigned char* pRight;  // where the first entry's right pixel goes
    unsigned char* pLeft;   // where its left pixel goes
    int nStep;              // right pixels advance by nStep an entry, left ones by -nStep
};

// Whether entry k of the run is regular.
inline bool Regular(const EntryRun& run, unsigned k)
{
    const tagModifyEntry& e = run.pEntry[k];
    const unsigned SW = run.nSrcWidth;
    const unsigned i0 = e.nSrcIndex[0];
    return static_cast<unsigned>(e.nSrcRow) <= run.nMaxRow && static_cast<unsigned>(e.nSrcCol) <= run.nMaxCol &&
           e.nDstRight == run.nDstRight + k && e.nDstLeft == run.nDstLeft - k && i0 - run.nRowStart < SW - 1 &&
           e.nSrcIndex[1] == i0 + 1 && e.nSrcIndex[2] == i0 + SW + 1 && e.nSrcIndex[3] == i0 + SW;
}

// The weighted sum of four neighbours as the correction defines it: the
// products added in order in single precision, truncated toward zero, the
// low 8 bits kept. A sum outside the range of int (weights a host wrote)
// gives 0, as the processor's conversion does.
inline unsigned char WeightedSum(const unsigned char (&aby)[4], const float (&afWeight)[4])
{
    float fSum = static_cast<float>(aby[0]) * afWeight[0];
    fSum = fSum + static_cast<float>(aby[1]) * afWeight[1];
    fSum = fSum + static_cast<float>(aby[2]) * afWeight[2];
    fSum = fSum + static_cast<float>(aby[3]) * afWeight[3];
    if (!(fSum > -2147483648.0f && fSum < 2147483648.0f)) return 0;
    return static_cast<unsigned char>(static_cast<int>(fSum));
}

// Entries nFrom, nFrom + 1, ... of the run while they are regular: each
// stores its right pixel, then its left pixel (read from the image
// mirrored). Returns the first entry it did not do.
unsigned ResampleRun(const EntryRun& run, unsigned nFrom);

// A stretch of consecutive entries of a canvas row whose targets, where
// the build places them, lie outside the crop window: an entry whose targets
// are there stores nothing that is seen, whatever its other fields hold.
struct OutsideRun {
    const tagModifyEntry* pEntry;  // the stretch's first entry
    unsigned nEntries;
    unsigned nDstRight;  // nDstRight of the first entry as the build places it
    unsigned nDstLeft;   // nDstLeft of the first entry as the build places it
};

// Entries nFrom, nFrom + 1, ... of the stretch while their targets are where
// the build places them; returns the first entry whose targets are not.
unsigned PassOutside(const OutsideRun& run, unsigned nFrom);

#if defined(__SSE2__)
// Entries 0, 1, ... of the run, four at a time, up to the first group of
// four that holds an entry that is not regular; returns how many it did.
unsigned ResampleRunSse2(const EntryRun& run);

// Entries 0, 1, ... of the stretch, four at a time, up to the first group of
// four that holds an entry whose targets are not where the build places
// them; returns how many it passed.
unsigned PassOutsideSse2(const OutsideRun& run);

// Reverses the outer 16-byte blocks of n bytes, swapping them end for end,
// while 32 or more bytes are left in the middle; returns how many bytes it
// did at each end.
size_t ReverseOuterSse2(unsigned char* p, size_t n);
#endif

}  // namespace imageproc

// What the processor keeps besides its public fields: the arena of the
// modify-table rows.
struct CImageProc::CPrivate {
    std::unique_ptr<imageproc::CTableArena> pArena;
};

#endif
