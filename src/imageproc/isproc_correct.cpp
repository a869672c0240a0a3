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
// A table shaped as the build shapes it is read through its compact form
// (correct_geometry.h), 6 bytes per entry of the window instead of 56:
// the entries are far larger than the caches, and reading them was most of
// the time of a frame.
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



// Both halves of the interpolating correction over the W rows of a modify
// table, read entry by entry: every usable entry produces its right-half
// pixel from the image and its left-half pixel from the mirrored image.
// With the targets placed as the table build places them, right and left
// targets of different entries never coincide, and the centre column,
// targeted by both halves of entry 0, keeps the left value as it is stored
// second -- as if the whole right half had been computed before the left
// half. A table edited otherwise is done in the two passes instead.
template <class G, bool bMirror>
void Resample(const tagModifyEntry* const* ppTable, const unsigned char* const* apRow, unsigned char* pDst)
{
    CCropMap<G, bMirror> crop;
    CSourceRow<G> rows;
    for (unsigned r = 0; r < G::kCanvas; ++r) {
        const tagModifyEntry* const pRow = ppTable[r];
        if (pRow == nullptr)
            continue;
        for (unsigned c = 0; c < G::kCanvas / 2; ++c) {
            if (!ResampleEntry(pRow[c], apRow, pDst, crop, rows)) {
                // Everything stored so far is stored again, in pass order.
                ResampleInTwoPasses<G, bMirror>(ppTable, apRow, pDst);
                return;
            }
        }
    }
}

// The same through the compact form, window row by window row.
template <class G, bool bMirror>
void ResampleCompactTable(const CCompactTable& table, const unsigned char* const* apRow, unsigned char* pDst)
{
    typedef CropShape<G> S;
    for (unsigned y = 0; y < kOut; ++y) {
        const CompactRow& row = table.Row(y);
        if (row.nRight == 0 && row.nLeft == 0)
            continue;
        CompactJob job;
        job.pTop = apRow[row.nSrcRow];
        job.pBottom = apRow[row.nSrcRow + 1];
        job.nSrcWidth = G::kSrcWidth;
        job.pnCol = table.Columns(y);
        job.pfColFrac = table.Fractions(y);
        job.fRowFrac = row.fRowFrac;
        job.nRight = row.nRight;
        job.nLeft = row.nLeft;
        job.pOut = pDst + static_cast<size_t>(y) * kOut;
        job.nCentreOut = bMirror ? kOut - 1 - S::kCentre : S::kCentre;
        job.nStep = bMirror ? -1 : 1;
        unsigned nDone = 0;
#if defined(__SSE2__)
        nDone = ResampleCompactSse2(job);
#endif
        ResampleCompact(job, nDone);
    }
}

// Runs the resampling into the destination, through the compact form when
// there is one: mirrored straight into place for the usual 600 x 600
// output, else into the crop layout followed by the mirror over the
// caller's width and height.
template <class G>
void ResampleInto(const tagModifyEntry* const* ppTable, const CCompactTable* pCompact,
                  const unsigned char* const* apRow, unsigned char* pDst, unsigned long nDstWidth,
                  unsigned long nDstHeight, CImageProc& proc)
{
    const bool bUsual = nDstWidth == kOut && nDstHeight == kOut;
    if (pCompact != nullptr && bUsual)
        ResampleCompactTable<G, true>(*pCompact, apRow, pDst);
    else if (pCompact != nullptr)
        ResampleCompactTable<G, false>(*pCompact, apRow, pDst);
    else if (bUsual)
        Resample<G, true>(ppTable, apRow, pDst);
    else
        Resample<G, false>(ppTable, apRow, pDst);
    if (!bUsual)
        proc.RotateRightImage(pDst, static_cast<int>(nDstWidth), static_cast<int>(nDstHeight));
}

bool IsUsualOutput(unsigned long nWidth, unsigned long nHeight)
{
    return nWidth == kOut && nHeight == kOut;
}

} // namespace

namespace imageproc {

void ResampleCompact(const CompactJob& job, unsigned nFrom)
{
    const unsigned n = job.nRight > job.nLeft ? job.nRight : job.nLeft;
    for (unsigned j = nFrom; j < n; ++j) {
        const unsigned c = job.pnCol[j];
        float afWeight[4];
        BilinearWeights(job.fRowFrac, job.pfColFrac[j], afWeight);
        const ptrdiff_t nOffset = static_cast<ptrdiff_t>(job.nStep) * static_cast<ptrdiff_t>(j);
        if (j < job.nRight) {
            const unsigned char aby[4] = {job.pTop[c], job.pTop[c + 1], job.pBottom[c + 1], job.pBottom[c]};
            job.pOut[static_cast<ptrdiff_t>(job.nCentreOut) + nOffset] = Weighted(aby, afWeight);
        }
        if (j < job.nLeft) {
            // The mirrored image's column c is the image's column SW - 1 - c.
            const unsigned m = job.nSrcWidth - 1 - c;
            const unsigned char aby[4] = {job.pTop[m], job.pTop[m - 1], job.pBottom[m - 1], job.pBottom[m]};
            job.pOut[static_cast<ptrdiff_t>(job.nCentreOut) - nOffset] = Weighted(aby, afWeight);
        }
    }
}

template <class G>
bool CCompactTable::Derive(const tagModifyEntry* const* ppTable)
{
    typedef CropShape<G> S;
    const unsigned W = G::kCanvas;
    const unsigned nHalf = W / 2;
    const unsigned SW = G::kSrcWidth;
    m_nStride = S::kStride;
    m_pRows.reset(new (std::nothrow) CompactRow[kOut]);
    m_pnCol.reset(new (std::nothrow) unsigned short[kOut * S::kStride]());
    m_pfFrac.reset(new (std::nothrow) float[kOut * S::kStride]());
    if (!m_pRows || !m_pnCol || !m_pfFrac)
        return false;
    for (unsigned r = 0; r < W; ++r) {
        const tagModifyEntry* const pRow = ppTable[r];
        const unsigned y = r - G::kCropTop;  // wraps above the window
        const bool bWindow = y < kOut;
        CompactRow row = {0, 0.0f, 0, 0};
        unsigned nUsable = 0;  // leading usable entries
        for (unsigned j = 0; pRow != nullptr && j < nHalf; ++j) {
            const tagModifyEntry& e = pRow[j];
            // Every target where the build places it, in or out of the window.
            if (e.nDstRight != r * W + nHalf + j || e.nDstLeft != r * W + nHalf - j)
                return false;
            if (!bWindow || j >= S::kEntries || !Usable<G>(e))
                continue;
            if (nUsable != j)
                return false;  // a usable entry after one that is not
            const unsigned i0 = e.nSrcIndex[0];
            const unsigned nCol = i0 % SW;
            if (e.nSrcIndex[1] != i0 + 1 || e.nSrcIndex[2] != i0 + SW + 1 || e.nSrcIndex[3] != i0 + SW ||
                nCol + 1 >= SW)
                return false;
            const float fr = e.fSrcRow - static_cast<float>(e.nSrcRow);
            if (j == 0) {
                row.nSrcRow = i0 / SW;
                row.fRowFrac = fr;
            } else if (i0 / SW != row.nSrcRow || std::memcmp(&fr, &row.fRowFrac, sizeof fr) != 0) {
                return false;
            }
            const float fc = e.fSrcCol - static_cast<float>(e.nSrcCol);
            float afWeight[4];
            BilinearWeights(fr, fc, afWeight);
            if (std::memcmp(afWeight, e.fWeight, sizeof afWeight) != 0)
                return false;
            m_pnCol[y * S::kStride + j] = static_cast<unsigned short>(nCol);
            m_pfFrac[y * S::kStride + j] = fc;
            nUsable = j + 1;
        }
        if (bWindow) {
            row.nRight = nUsable < S::kRightEntries ? nUsable : S::kRightEntries;
            row.nLeft = nUsable < S::kLeftEntries ? nUsable : S::kLeftEntries;
            m_pRows[y] = row;
        }
    }
    return true;
}

} // namespace imageproc

template <class G>
const CCompactTable* CImageProc::CPrivate::Compact(Slot& slot, const tagModifyEntry* const* ppTable)
{
    if (!slot.bChecked || slot.ppTable != ppTable) {
        slot.bChecked = true;
        slot.ppTable = ppTable;
        slot.pCompact.reset(new (std::nothrow) CCompactTable);
        if (slot.pCompact && !slot.pCompact->Derive<G>(ppTable))
            slot.pCompact.reset();
    }
    return slot.pCompact.get();
}

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

    const bool b1103 = tavk05profile::ProfileOf(m_nDeviceType, false, tavk05profile::LibraryModels()).bTables1103;
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

    const CCompactTable* pCompact =
        m_pPrivate ? CPrivate::Compact<CalcGeometry>(m_pPrivate->calc, m_ppModifyTable) : nullptr;
    ResampleInto<CalcGeometry>(m_ppModifyTable, pCompact, apRow, pDst, nDstWidth, nDstHeight, *this);
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

    const CCompactTable* pCompact =
        m_pPrivate ? CPrivate::Compact<ExGeometry>(m_pPrivate->ex, m_ppModifyTableEx) : nullptr;
    ResampleInto<ExGeometry>(m_ppModifyTableEx, pCompact, apRow, pDst, nDstWidth, nDstHeight, *this);
    return 1;
}
