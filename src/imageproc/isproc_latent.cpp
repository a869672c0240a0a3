// Latent print detection on the grey latent frame (1214 pixels a row) that
// the driver converts from the scanner's latent read. Each test reads only
// a handful of rows and answers 1 for a residue left on the glass (reject)
// or 0 for a live finger (accept).
#include "profile/model_profile.h"
#include "tavk05/isproc.h"

namespace {

const int LATENT_STRIDE = tavk05profile::kLatentWidth;  // row stride of the grey latent frame
const int SPREAD_FIRST_COL = 80;                        // spread rows are measured over columns 80..1133
const int SPREAD_COLS = 1054;
const int SPREAD_MIN_RATIO = 150;  // first row must vary more than 1.5 x its partner

// Sum of squared deviations from the truncated row mean over the measured
// columns. Bounded by 1054 * 255^2 < 2^31 / 100, so the ratio below cannot
// overflow either.
int RowSpread(const unsigned char* pImage, int nRow)
{
    const unsigned char* p = pImage + nRow * LATENT_STRIDE + SPREAD_FIRST_COL;
    int nSum = 0;
    for (int i = 0; i < SPREAD_COLS; ++i) nSum += p[i];
    const int nMean = nSum / SPREAD_COLS;
    int nSpread = 0;
    for (int i = 0; i < SPREAD_COLS; ++i) {
        const int nDiff = p[i] - nMean;
        nSpread += nDiff * nDiff;
    }
    return nSpread;
}

// A live finger makes the first row of every pair vary far more than the
// second one; a residue does not. Answers 1 as soon as one pair fails.
unsigned char SpreadPairsTest(const unsigned char* pImage, const int (*pPairs)[2])
{
    if (pImage == nullptr) return 1;
    for (int k = 0; k < 3; ++k) {
        const int nFirst = RowSpread(pImage, pPairs[k][0]);
        const int nSecond = RowSpread(pImage, pPairs[k][1]);
        const int nRatio = (nFirst * 100) / (nSecond + 1);
        if (!(nRatio > SPREAD_MIN_RATIO)) return 1;
    }
    return 0;
}

// Number of edge samples in a band of 30 rows: every fourth column of a
// row, compared with the pixel two columns right and two rows down.
int EdgeCount(const unsigned char* pImage, int nFirstRow)
{
    const int nThreshold = 20;
    int nCount = 0;
    for (int r = nFirstRow; r < nFirstRow + 30; ++r) {
        const unsigned char* pRow = pImage + r * LATENT_STRIDE;
        const unsigned char* pBelow = pRow + 2 * LATENT_STRIDE;
        for (int c = 0; c <= 1208; c += 4) {
            const int p = pRow[c];
            const int nRight = pRow[c + 2] - p;
            const int nDown = pBelow[c] - p;
            if (nRight > nThreshold || nRight < -nThreshold || nDown > nThreshold || nDown < -nThreshold) ++nCount;
        }
    }
    return nCount;
}

}  // namespace

// The driver's test: three row pairs of the sensor's latent window.
// A null frame cannot be judged and counts as latent.
unsigned char CImageProc::CheckLatent2(unsigned char* pImage)
{
    static const int nPairs[3][2] = {{104, 127}, {154, 180}, {207, 232}};
    return SpreadPairsTest(pImage, nPairs);
}

// The same test on the rows of the RVM71 sensor.
unsigned char CImageProc::CheckLatentForRVM71(unsigned char* pImage)
{
    static const int nPairs[3][2] = {{67, 110}, {153, 196}, {239, 282}};
    return SpreadPairsTest(pImage, nPairs);
}

// Edge-count test: the bands at rows 56 and 157 must show texture, the
// bands at rows 107 and 208 must be nearly flat, and the top band must be
// busier than the one below it. The width argument does not change the
// result: the frame layout is fixed.
unsigned char CImageProc::CheckLatent1(unsigned char* pImage, unsigned int nWidth)
{
    (void)nWidth;
    if (pImage == nullptr) return 1;
    const int nE107 = EdgeCount(pImage, 107);
    const int nE208 = EdgeCount(pImage, 208);
    const int nE56 = EdgeCount(pImage, 56);
    const int nE157 = EdgeCount(pImage, 157);
    if (nE107 <= 100 && nE208 <= 100 && nE56 > nE107 && nE157 >= 100) return 0;
    return 1;
}
