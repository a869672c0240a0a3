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
//
// The modify tables are public and the corrections read their entries as
// they stand at each call, whatever a host wrote and when: no form of them
// is derived and kept. Runs of entries laid out as the table build lays
// them out are checked and resampled four at a time; any other entry is
// taken on its own (correct_geometry.h).
//
// The vector kernels are in correct_sse2.cpp.
#include "imageproc/correct_geometry.h"
#include "profile/model_profile.h"
#include "tavk05/isproc.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

namespace {

using namespace imageproc;

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

// Reverses n bytes in place.
void ReverseInPlace(unsigned char* p, size_t n)
{
    size_t nDone = 0;  // bytes reversed at each end
#if defined(__SSE2__)
    nDone = ReverseOuterSse2(p, n);
#endif
    std::reverse(p + nDone, p + n - nDone);
}

// Table lookup of the 600 x 600 window; with bMirror each destination
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
    if (!Usable<G>(e)) return true;
    const unsigned nCentre = G::kCanvas / 2;
    unsigned nRowStart;
    crop.Row(e.nDstRight, nRowStart);
    const unsigned nColRight = e.nDstRight - nRowStart;
    crop.Row(e.nDstLeft, nRowStart);
    const unsigned nColLeft = e.nDstLeft - nRowStart;
    if (nColLeft > nCentre || nColRight < nCentre || (nColRight == nCentre && e.nDstLeft != e.nDstRight)) return false;
    const size_t nRight = crop(e.nDstRight);
    const size_t nLeft = crop(e.nDstLeft);
    if (nRight >= kOutPixels && nLeft >= kOutPixels) return true;  // outside the crop window: never seen
    unsigned char abyRight[4];
    unsigned char abyLeft[4];
    Neighbours(e, apRow, rows, abyRight, abyLeft);
    const float afWeight[4] = {e.fWeight[0], e.fWeight[1], e.fWeight[2], e.fWeight[3]};
    if (nRight < kOutPixels) pDst[nRight] = WeightedSum(abyRight, afWeight);
    if (nLeft < kOutPixels) pDst[nLeft] = WeightedSum(abyLeft, afWeight);
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
            if (pRow == nullptr) continue;
            for (unsigned c = 0; c < G::kCanvas / 2; ++c) {
                const tagModifyEntry& e = pRow[c];
                if (!Usable<G>(e)) continue;
                const size_t nAt = crop(nHalf == 0 ? e.nDstRight : e.nDstLeft);
                if (nAt >= kOutPixels) continue;
                unsigned char abyRight[4];
                unsigned char abyLeft[4];
                Neighbours(e, apRow, rows, abyRight, abyLeft);
                const float afWeight[4] = {e.fWeight[0], e.fWeight[1], e.fWeight[2], e.fWeight[3]};
                pDst[nAt] = WeightedSum(nHalf == 0 ? abyRight : abyLeft, afWeight);
            }
        }
    }
}

// Both halves of the interpolating correction over the W rows of a modify
// table, entry by entry: every usable entry produces its right-half pixel
// from the image and its left-half pixel from the mirrored image. With the
// targets placed as the table build places them, right and left targets of
// different entries never coincide, and the centre column, targeted by
// both halves of entry 0, keeps the left value as it is stored second -- as
// if the whole right half had been computed before the left half. A table
// edited otherwise is done in the two passes instead.
//
// In a canvas row of the crop window, the leading entries whose built
// targets both lie inside the window go in runs of regular entries
// (vector kernel first, plain loop after it); an entry that breaks a run,
// the entries further out and the rows outside the window are taken one by
// one. Every entry is read at every call.
template <class G, bool bMirror>
void Resample(const tagModifyEntry* const* ppTable, const unsigned char* const* apRow, unsigned char* pDst)
{
    const unsigned W = G::kCanvas;
    const unsigned nHalf = W / 2;
    const unsigned SW = G::kSrcWidth;
    const unsigned nCentre = nHalf - G::kCropLeft;  // crop column of the canvas centre
    // Entry j targets crop columns nCentre + j and nCentre - j.
    const unsigned nRunEntries = std::min(std::min(kOut - nCentre, nCentre + 1), nHalf);
    CCropMap<G, bMirror> crop;
    CSourceRow<G> rows;
    for (unsigned r = 0; r < W; ++r) {
        const tagModifyEntry* const pRow = ppTable[r];
        if (pRow == nullptr) continue;
        const unsigned y = r - G::kCropTop;  // wraps above the window
        unsigned j = 0;
        while (y < kOut && j < nRunEntries) {
            const tagModifyEntry& e = pRow[j];
            unsigned nDone = 0;
            const unsigned nPair = e.nSrcIndex[0] / SW;
            if (Usable<G>(e) && nPair + 1 < G::kSrcRows) {
                unsigned char* const pOutRow = pDst + static_cast<size_t>(y) * kOut;
                const unsigned nRightCol = nCentre + j;
                const unsigned nLeftCol = nCentre - j;
                EntryRun run;
                run.pEntry = &e;
                run.nEntries = nRunEntries - j;
                run.nDstRight = r * W + nHalf + j;
                run.nDstLeft = r * W + nHalf - j;
                run.nRowStart = nPair * SW;
                run.pTop = apRow[nPair];
                run.pBottom = apRow[nPair + 1];
                run.nSrcWidth = SW;
                run.nMaxRow = G::kMaxRow;
                run.nMaxCol = G::kMaxCol;
                run.pRight = pOutRow + (bMirror ? kOut - 1 - nRightCol : nRightCol);
                run.pLeft = pOutRow + (bMirror ? kOut - 1 - nLeftCol : nLeftCol);
                run.nStep = bMirror ? -1 : 1;
#if defined(__SSE2__)
                nDone = ResampleRunSse2(run);
#endif
                nDone = ResampleRun(run, nDone);
            }
            if (nDone == 0) {
                if (!ResampleEntry(e, apRow, pDst, crop, rows)) {
                    // Everything stored so far is stored again, in pass order.
                    ResampleInTwoPasses<G, bMirror>(ppTable, apRow, pDst);
                    return;
                }
                nDone = 1;
            }
            j += nDone;
        }
        // The entries whose built targets lie outside the window: those
        // whose targets are where the build places them are passed over.
        const unsigned nOutside = y < kOut ? std::min(std::max(kOut - nCentre, nCentre + 1), nHalf) : 0;
        for (; j < nHalf; ++j) {
            if (j >= nOutside) {
                OutsideRun run = {pRow + j, nHalf - j, r * W + nHalf + j, r * W + nHalf - j};
                unsigned nPassed = 0;
#if defined(__SSE2__)
                nPassed = PassOutsideSse2(run);
#endif
                j += PassOutside(run, nPassed);
                if (j == nHalf) break;
            }
            if (!ResampleEntry(pRow[j], apRow, pDst, crop, rows)) {
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
    const bool bUsual = nDstWidth == kOut && nDstHeight == kOut;
    if (bUsual) {
        Resample<G, true>(ppTable, apRow, pDst);
    } else {
        Resample<G, false>(ppTable, apRow, pDst);
        proc.RotateRightImage(pDst, static_cast<int>(nDstWidth), static_cast<int>(nDstHeight));
    }
}

bool IsUsualOutput(unsigned long nWidth, unsigned long nHeight) { return nWidth == kOut && nHeight == kOut; }

}  // namespace

namespace imageproc {

unsigned ResampleRun(const EntryRun& run, unsigned nFrom)
{
    const unsigned SW = run.nSrcWidth;
    unsigned k = nFrom;
    for (; k < run.nEntries && Regular(run, k); ++k) {
        const tagModifyEntry& e = run.pEntry[k];
        const unsigned c = e.nSrcIndex[0] - run.nRowStart;
        const float afWeight[4] = {e.fWeight[0], e.fWeight[1], e.fWeight[2], e.fWeight[3]};
        const unsigned char abyRight[4] = {run.pTop[c], run.pTop[c + 1], run.pBottom[c + 1], run.pBottom[c]};
        // The mirrored image's column c is the image's column SW - 1 - c.
        const unsigned m = SW - 1 - c;
        const unsigned char abyLeft[4] = {run.pTop[m], run.pTop[m - 1], run.pBottom[m - 1], run.pBottom[m]};
        const ptrdiff_t nOffset = static_cast<ptrdiff_t>(run.nStep) * static_cast<ptrdiff_t>(k);
        run.pRight[nOffset] = WeightedSum(abyRight, afWeight);
        run.pLeft[-nOffset] = WeightedSum(abyLeft, afWeight);
    }
    return k;
}

unsigned PassOutside(const OutsideRun& run, unsigned nFrom)
{
    unsigned k = nFrom;
    while (k < run.nEntries && run.pEntry[k].nDstRight == run.nDstRight + k &&
           run.pEntry[k].nDstLeft == run.nDstLeft - k)
        ++k;
    return k;
}

}  // namespace imageproc

int CImageProc::RotateRightImage(unsigned char* pImage, int nWidth, int nHeight)
{
    if (pImage == nullptr) return 0;
    if (nWidth <= 0 || nHeight <= 0) return 1;  // nothing to mirror
    const size_t nRowBytes = static_cast<size_t>(nWidth);
    for (size_t r = 0; r < static_cast<size_t>(nHeight); ++r) ReverseInPlace(pImage + r * nRowBytes, nRowBytes);
    return 1;
}

int CImageProc::CorrectImage(unsigned char* pSrc, unsigned long nSrcWidth, unsigned long nSrcHeight,
                             unsigned char* pDst, unsigned long nDstWidth, unsigned long nDstHeight,
                             unsigned long nOffsetX, unsigned long nOffsetY)
{
    if (pSrc == nullptr || pDst == nullptr) return 0;
    // The offsets take part in this check only.
    if (nDstWidth + nOffsetX - 1 >= nSrcWidth || nDstHeight + nOffsetY - 1 >= nSrcHeight) return 0;

    const bool b1103 = tavk05profile::ProfileOf(m_nDeviceType, false, tavk05profile::LibraryModels()).bTables1103;
    const unsigned nOrigin =
        b1103 ? kTable1103Top * kTableStride + kTable1103Left : kTableTop * kTableStride + kTableLeft;
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
    if (pSrc == nullptr || pDst == nullptr || m_ppModifyTable == nullptr) return 0;

    // The 1288 x 876 source is read in place, unless the destination
    // overlaps it: then from a copy, as every read must see it unchanged.
    const size_t nSrcBytes = CalcGeometry::kSrcWidth * CalcGeometry::kSrcRows;
    const unsigned char* pImage = pSrc;
    std::unique_ptr<unsigned char[]> pCopy;
    if (Overlaps(pSrc, nSrcBytes, pDst, kOutPixels)) {
        pCopy.reset(new (std::nothrow) unsigned char[nSrcBytes]);
        if (!pCopy) return 0;
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
    if (pSrc == nullptr || pDst == nullptr || m_ppModifyTableEx == nullptr) return 0;

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
        if (!pCopy) return 0;
        std::memcpy(pCopy.get(), pSrc, nSrcPixels);
        pImage = pCopy.get();
    }

    // Source offset of padded row p, or nSrcPixels when it has none.
    const auto startOf = [&](unsigned p) -> size_t {
        if (p < kExTopPad || p - kExTopPad >= nSrcHeight) return nSrcPixels;
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
    if (!pRows) return 0;
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
