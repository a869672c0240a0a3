// Rolled image composition: each frame of a finger rolled across the glass
// is located (left and right finger edges from a column activity profile)
// and the part beyond the seam is merged into the composite, pixel by
// pixel, from whichever image is darker over the 21 x 21 box around it.
#include "imageproc/kernels.h"
#include "tavk05/isproc.h"
#include "grey_level.h"
#include "profile/model_profile.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace {

const int SIDE = 600;     // frames and composite are 600 x 600
const int BOX_HALF = 10;  // merge boxes of 21 x 21 pixels
const int BOX_SIDE = 2 * BOX_HALF + 1;
const int ACTIVITY_STEP = 15;         // a neighbour difference above this counts as texture
const int SMOOTH_HALF = 5;            // profile smoothed over 11 columns
const int PRESENCE_MIN = 50;          // smoothed peak below this: no finger
const int EDGE_LEVEL = 30;            // finger edge where the profile falls to this
const int RETREAT_TOLERANCE = 10;     // leading edge may fall back this far (frame ignored)
const int SPEED_LIMIT = 90;           // mean edge move per frame above this: too fast
const int DIRECTION_SPLIT = 299;      // first finger centre at or left of this rolls rightwards
const int RIGHTWARD_STRIP_END = 579;  // last strip column of a rightward merge
const int RIGHTWARD_BOX_LAST = RIGHTWARD_STRIP_END - (BOX_SIDE - 1);  // 559

enum { RESULT_CONTINUE = 0, RESULT_COMPLETE = 1, RESULT_TOO_FAST = 2 };

// Background subtraction and grey mapping of the whole frame into pGrey.
// d = background - frame (at least 0); then, by mode:
//   no contrast table:  255 - 3d
//   a roll base:        (base - d) x contrast (the model profile's nRollBase)
//   otherwise:          (table[255 - 3d] + jitter of -4..+4 from rand()) x contrast
// all clamped to 0..255. Products are formed in double, which holds them
// exactly, and the per-level results are tabulated once per frame.
void ConvertFrame(const unsigned char* pFrame, const unsigned char* pBackground, int bContrastTable,
                  const unsigned char* pTable, int nRollBase, float fContrast, unsigned char* pGrey)
{
    if (bContrastTable == 0) {
        for (int i = 0; i < SIDE * SIDE; ++i) {
            pGrey[i] = (unsigned char)greylevel::Lightness(greylevel::Darkening(pBackground[i], pFrame[i]));
        }
        return;
    }
    if (nRollBase != 0) {
        unsigned char ucMap[256];
        for (int d = 0; d < 256; ++d) ucMap[d] = greylevel::Truncate((double)(nRollBase - d) * (double)fContrast);
        for (int i = 0; i < SIDE * SIDE; ++i) {
            pGrey[i] = ucMap[greylevel::Darkening(pBackground[i], pFrame[i])];
        }
        return;
    }
    // Jittered levels run from -4 to 259; index = level + 4.
    unsigned char ucScaled[264];
    for (int v = -4; v < 260; ++v) ucScaled[v + 4] = greylevel::Truncate((double)v * (double)fContrast);
    for (int i = 0; i < SIDE * SIDE; ++i) {
        int v = pTable[greylevel::Lightness(greylevel::Darkening(pBackground[i], pFrame[i]))];
        v = v + (std::rand() % 9) - 4;
        pGrey[i] = ucScaled[v + 4];
    }
}

// Column activity: for rows and columns 1..598, a pixel counts once when
// its left and right neighbours, or else its upper and lower neighbours,
// differ by more than the step. The counts (at most 598) fit 16 bits.
void ActivityProfile(const unsigned char* pGrey, int* pActivity)
{
    uint16_t nCount[SIDE] = {0};
    const size_t nInner = SIDE - 2;  // columns 1 .. 598
    for (int y = 1; y <= SIDE - 2; ++y) {
        const unsigned char* pUp = pGrey + (y - 1) * SIDE;
        const imageproc::Rows3 rows = {pUp + 1, pUp + SIDE + 1, pUp + 2 * SIDE + 1};
        size_t nDone = 0;
#if defined(__SSE2__)
        nDone = imageproc::ActivityRowSse2(rows, nCount + 1, ACTIVITY_STEP, nInner);
#endif
        imageproc::ActivityRow(rows, nCount + 1, ACTIVITY_STEP, nDone, nInner);
    }
    for (int c = 0; c < SIDE; ++c) pActivity[c] = nCount[c];
}

// Centred moving average over 11 columns, clipped at the image sides.
void SmoothProfile(const int* pActivity, int* pSmooth)
{
    for (int c = 0; c < SIDE; ++c) {
        const int nFrom = c - SMOOTH_HALF < 0 ? 0 : c - SMOOTH_HALF;
        const int nTo = c + SMOOTH_HALF > SIDE - 1 ? SIDE - 1 : c + SMOOTH_HALF;
        int nSum = 0;
        for (int k = nFrom; k <= nTo; ++k) nSum += pActivity[k];
        pSmooth[c] = nSum / (nTo - nFrom + 1);
    }
}

// Adds (xIn - yIn) - (xOut - yOut) to nCount column sums.
void UpdateColumnDiff(short* pColDiff, int nCount, const unsigned char* pXIn, const unsigned char* pYIn,
                      const unsigned char* pXOut, const unsigned char* pYOut)
{
    int16_t* const pDiff = reinterpret_cast<int16_t*>(pColDiff);
    size_t nDone = 0;
#if defined(__SSE2__)
    nDone = imageproc::AddColumnDiffSse2(pDiff, pXIn, pYIn, pXOut, pYOut, static_cast<size_t>(nCount));
#endif
    imageproc::AddColumnDiff(pDiff, pXIn, pYIn, pXOut, pYOut, nDone, static_cast<size_t>(nCount));
}

// Merges the boxes whose left columns run from nBoxFirst to nBoxLast
// (each box 21 columns wide, inside the image) for every box row 0..579.
// The pixel at the box's row centre and at column (box left + nTargetShift)
// takes the new image's value when the composite's box sum is strictly
// greater (brighter) than the new image's. All decisions are taken on the
// composite as it was before this frame, hence the copy of the strip.
//
// Both box sums are kept as one running sum of the difference composite -
// new: column sums over the box's 21 rows (at most 21 x 255 either way, so
// 16 bits), updated by one entering and one leaving row per box row, then
// slid across the row with one entering and one leaving column per box.
// Every box costs a constant number of additions. Returns false, with the
// composite untouched, when the strip copy cannot be allocated.
bool MergeStrip(unsigned char* pComposite, const unsigned char* pNew, int nBoxFirst, int nBoxLast, int nTargetShift)
{
    const int nBoxes = nBoxLast - nBoxFirst + 1;
    const int nStrip = nBoxes + BOX_SIDE - 1;
    std::unique_ptr<unsigned char[]> pOld(new (std::nothrow) unsigned char[(size_t)nStrip * SIDE]);
    if (!pOld) return false;
    short nColDiff[SIDE] = {0};
    unsigned char ucTake[SIDE];

    for (int y = 0; y < SIDE; ++y) std::memcpy(pOld.get() + y * nStrip, pComposite + y * SIDE + nBoxFirst, nStrip);

    const unsigned char* pNewStrip = pNew + nBoxFirst;
    for (int y = 0; y < BOX_SIDE; ++y) {
        const unsigned char* pX = pOld.get() + y * nStrip;
        const unsigned char* pY = pNewStrip + y * SIDE;
        for (int k = 0; k < nStrip; ++k) nColDiff[k] = (short)(nColDiff[k] + pX[k] - pY[k]);
    }

    for (int i = 0; i <= SIDE - BOX_SIDE; ++i) {
        if (i > 0)
            UpdateColumnDiff(nColDiff, nStrip, pOld.get() + (i + BOX_SIDE - 1) * nStrip,
                             pNewStrip + (i + BOX_SIDE - 1) * SIDE, pOld.get() + (i - 1) * nStrip,
                             pNewStrip + (i - 1) * SIDE);

        // Slide the box across the row; 0xFF marks a pixel to take.
        int nBoxDiff = 0;
        for (int k = 0; k < BOX_SIDE; ++k) nBoxDiff += nColDiff[k];
        ucTake[0] = nBoxDiff > 0 ? 0xFF : 0;
        for (int b = 1; b < nBoxes; ++b) {
            nBoxDiff += nColDiff[b + BOX_SIDE - 1] - nColDiff[b - 1];
            ucTake[b] = nBoxDiff > 0 ? 0xFF : 0;
        }

        const int nRow = (i + BOX_HALF) * SIDE + nBoxFirst + nTargetShift;
        unsigned char* pDst = pComposite + nRow;
        const unsigned char* pSrc = pNew + nRow;
        size_t nDone = 0;
#if defined(__SSE2__)
        nDone = imageproc::TakeWhereSse2(pDst, pSrc, ucTake, static_cast<size_t>(nBoxes));
#endif
        imageproc::TakeWhere(pDst, pSrc, ucTake, nDone, static_cast<size_t>(nBoxes));
    }
    return true;
}

// Border rows the boxes cannot reach (0..9 and 590..599): columns
// nFrom..nTo are copied from the new image.
void CopyBorderRows(unsigned char* pComposite, const unsigned char* pNew, int nFrom, int nTo)
{
    if (nFrom > nTo) return;
    for (int y = 0; y < SIDE; ++y) {
        if (y == BOX_HALF) y = SIDE - BOX_HALF;
        std::memcpy(pComposite + y * SIDE + nFrom, pNew + y * SIDE + nFrom, (size_t)(nTo - nFrom + 1));
    }
}

}  // namespace

// One frame of a rolled capture. nFrame 0 (or less) starts a new roll: the
// state is cleared and nothing else happens. Later frames return 0 when the
// frame was merged or ignored, 1 when the rolled image is complete (finger
// gone, roll reversed, or the edge of the glass reached) and 2 when the
// roll is too fast.
//
// Only the first 360000 bytes of the images are used; an image size below
// that is refused with 1 and nothing written, as are null images. When a
// work buffer cannot be allocated the frame is treated as ignored (0, no
// state change, composite untouched).
//
// The merge boxes of a seam close to a side of the image would reach
// outside it (direction 1 with the seam left of column 10, direction 2
// with it right of column 590). Only boxes that lie wholly inside the
// image are evaluated: the few columns next to the side whose box does not
// fit keep the composite's value, exactly as the columns 570..599 do in
// direction 1. Seams further inside are not affected by this.
int CImageProc::ImageComposition(unsigned char* pFrame, unsigned char* pComposite, long nSize, int nFrame,
                                 float fContrast)
{
    if (nFrame <= 0) {
        m_bRollStarted = 0;
        m_nRollCenter = 0;
        m_nRollLeft = 0;
        m_nRollRight = 0;
        return RESULT_CONTINUE;
    }
    if (pFrame == nullptr || pComposite == nullptr || m_pBackground == nullptr || nSize < IMG_PIXELS)
        return RESULT_COMPLETE;

    std::unique_ptr<unsigned char[]> pGrey(new (std::nothrow) unsigned char[IMG_PIXELS]);
    if (!pGrey) return RESULT_CONTINUE;
    const tavk05profile::ModelProfile& profile =
        tavk05profile::ProfileOf(m_nDeviceType, false, tavk05profile::LibraryModels());
    ConvertFrame(pFrame, m_pBackground, m_bContrastTable, m_ucContrastTable, profile.nRollBase, fContrast, pGrey.get());

    int nActivity[SIDE];
    int nSmooth[SIDE];
    ActivityProfile(pGrey.get(), nActivity);

    // Shaded models merge the frame's own pixels; the finger is still
    // located on the converted image.
    const unsigned char* pNew = profile.bShading ? pFrame : pGrey.get();

    SmoothProfile(nActivity, nSmooth);
    int nPeak = nSmooth[0];
    int p = 0;
    for (int c = 1; c < SIDE; ++c) {
        if (nSmooth[c] > nPeak) {
            nPeak = nSmooth[c];
            p = c;
        }
    }
    if (nPeak < PRESENCE_MIN) {
        if (m_bRollStarted == 1) m_bRollStarted = 0;
        return RESULT_COMPLETE;
    }

    int l = 0;
    for (int c = p; c >= 0; --c) {
        if (nSmooth[c] <= EDGE_LEVEL) {
            l = c + 1;
            break;
        }
    }
    int r = SIDE - 1;
    for (int c = p; c < SIDE; ++c) {
        if (nSmooth[c] <= EDGE_LEVEL) {
            r = c - 1;
            break;
        }
    }
    l = l < 0 ? 0 : (l > SIDE - 1 ? SIDE - 1 : l);
    r = r < 0 ? 0 : (r > SIDE - 1 ? SIDE - 1 : r);

    if (m_bRollStarted == 0) {
        std::memcpy(pComposite, pNew, IMG_PIXELS);
        m_nRollCenter = (l + r) / 2;
        m_nRollLeft = l;
        m_nRollRight = r;
        m_nRollDirection = m_nRollCenter <= DIRECTION_SPLIT ? 1 : 2;
        m_bRollStarted = 1;
        return RESULT_CONTINUE;
    }

    // The state is public; wide arithmetic keeps odd values from overflowing.
    const long long L = m_nRollLeft;
    const long long R = m_nRollRight;
    long long nSeam;
    int nBoxFirst, nBoxLast, nTargetShift, nBorderFrom, nBorderTo;
    if (m_nRollDirection == 1) {
        // Rightward roll: the right edge leads.
        if (r < R - RETREAT_TOLERANCE) return RESULT_COMPLETE;
        if (r < R) return RESULT_CONTINUE;
        if (((l - L) + (r - R)) / 2 > SPEED_LIMIT) return RESULT_TOO_FAST;
        nSeam = (R + l) / 2;
        // The strip runs from s - 10 to 579: 570 - s boxes.
        if (RIGHTWARD_BOX_LAST - (nSeam - BOX_HALF) + 1 <= 0) return RESULT_COMPLETE;
        // Boxes from column s - 10 (not left of 0) to 559; targets at their centres.
        nBoxFirst = nSeam - BOX_HALF < 0 ? 0 : (int)(nSeam - BOX_HALF);
        nBoxLast = RIGHTWARD_BOX_LAST;
        nTargetShift = BOX_HALF;
        nBorderFrom = nSeam < 0 ? 0 : (int)nSeam;
        nBorderTo = SIDE - 1;
    } else {
        // Leftward roll: the left edge leads.
        if (l > L + RETREAT_TOLERANCE) return RESULT_COMPLETE;
        if (l > L) return RESULT_CONTINUE;
        if (((l - L) + (r - R)) / 2 > SPEED_LIMIT) return RESULT_TOO_FAST;
        nSeam = (L + r) / 2;
        if (nSeam <= BOX_HALF) return RESULT_COMPLETE;
        // Boxes from column 0 to s - 11 (not beyond 579); targets at their left columns.
        nBoxFirst = 0;
        nBoxLast = nSeam - BOX_HALF - 1 > SIDE - BOX_SIDE ? SIDE - BOX_SIDE : (int)(nSeam - BOX_HALF - 1);
        nTargetShift = 0;
        nBorderFrom = 0;
        nBorderTo = nSeam > SIDE ? SIDE - 1 : (int)(nSeam - 1);
    }

    if (!MergeStrip(pComposite, pNew, nBoxFirst, nBoxLast, nTargetShift)) return RESULT_CONTINUE;
    CopyBorderRows(pComposite, pNew, nBorderFrom, nBorderTo);

    m_nRollCenter = p;
    m_nRollLeft = l;
    m_nRollRight = r;
    return RESULT_CONTINUE;
}

void imageproc::ActivityRow(const Rows3& rows, uint16_t* pCount, unsigned char byStep, size_t nFrom, size_t n)
{
    for (size_t x = nFrom; x < n; ++x) {
        const int bAcross = std::abs(rows.pCentre[x - 1] - rows.pCentre[x + 1]) > byStep;
        const int bDown = std::abs(rows.pAbove[x] - rows.pBelow[x]) > byStep;
        pCount[x] = static_cast<uint16_t>(pCount[x] + (bAcross | bDown));
    }
}

void imageproc::AddColumnDiff(int16_t* pDiff, const unsigned char* pXIn, const unsigned char* pYIn,
                              const unsigned char* pXOut, const unsigned char* pYOut, size_t nFrom, size_t n)
{
    for (size_t k = nFrom; k < n; ++k)
        pDiff[k] = static_cast<int16_t>(pDiff[k] + (pXIn[k] - pYIn[k]) - (pXOut[k] - pYOut[k]));
}

void imageproc::TakeWhere(unsigned char* pDst, const unsigned char* pSrc, const unsigned char* pTake, size_t nFrom,
                          size_t n)
{
    for (size_t k = nFrom; k < n; ++k)
        if (pTake[k] != 0) pDst[k] = pSrc[k];
}
