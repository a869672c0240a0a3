// The 3 x 3 mean and median of an image's interior, row by row: each row of
// the result is formed from three rows of the unchanged image, so two saved
// rows suffice to filter in place. The row kernels have their plain form
// here and their vector form in kernels_sse2.cpp.
#include "imageproc/kernels.h"

#include <cstring>
#include <memory>
#include <new>

namespace imageproc {

namespace {

// Exact for every sum of nine grey levels (0 .. 2295).
inline unsigned char NinthOf(unsigned nSum) { return static_cast<unsigned char>(nSum / 9); }

// The fifth largest of nine by the exchange sort, largest first.
inline unsigned char MedianOf9(unsigned char (&by)[9])
{
    for (int i = 0; i < 8; ++i) {
        for (int j = i + 1; j < 9; ++j) {
            if (by[j] > by[i]) {
                const unsigned char t = by[i];
                by[i] = by[j];
                by[j] = t;
            }
        }
    }
    return by[4];
}

typedef void (*RowFilter)(const Rows3& rows, unsigned char* pOut, size_t n);
typedef size_t (*VectorRow)(const Rows3& rows, unsigned char* pOut, size_t n);
typedef void (*PlainRow)(const Rows3& rows, unsigned char* pOut, size_t nFrom, size_t n);

// One row: the vector kernel as far as it goes, the plain loop the rest.
template <VectorRow pfnVector, PlainRow pfnPlain>
void FilterRow(const Rows3& rows, unsigned char* pOut, size_t n)
{
    size_t c = 0;
#if defined(__SSE2__)
    c = pfnVector(rows, pOut, n);
#endif
    pfnPlain(rows, pOut, c, n);
}

// Output row y is written into the image once rows y - 1 and y are saved:
// the saved copies serve as its above and centre rows, the image row y + 1,
// not yet written, as its below row.
bool FilterInterior(unsigned char* pImage, size_t w, size_t h, RowFilter pfnRow)
{
    if (w < 3 || h < 3) return true;
    std::unique_ptr<unsigned char[]> pSaved(new (std::nothrow) unsigned char[2 * w]);
    if (!pSaved) return false;
    unsigned char* pAbove = pSaved.get();
    unsigned char* pCentre = pSaved.get() + w;
    std::memcpy(pCentre, pImage, w);
    for (size_t y = 1; y + 1 < h; ++y) {
        unsigned char* pRow = pImage + y * w;
        std::swap(pAbove, pCentre);
        std::memcpy(pCentre, pRow, w);
        const Rows3 rows = {pAbove, pCentre, pRow + w};
        pfnRow(rows, pRow + 1, w - 2);
    }
    return true;
}

}  // namespace

void Mean3Row(const Rows3& rows, unsigned char* pOut, size_t nFrom, size_t n)
{
    for (size_t c = nFrom; c < n; ++c) {
        unsigned nSum = 0;
        for (size_t dx = 0; dx < 3; ++dx) nSum += rows.pAbove[c + dx] + rows.pCentre[c + dx] + rows.pBelow[c + dx];
        pOut[c] = NinthOf(nSum);
    }
}

void Median3Row(const Rows3& rows, unsigned char* pOut, size_t nFrom, size_t n)
{
    for (size_t c = nFrom; c < n; ++c) {
        unsigned char by[9] = {rows.pAbove[c],  rows.pAbove[c + 1],  rows.pAbove[c + 2],
                               rows.pCentre[c], rows.pCentre[c + 1], rows.pCentre[c + 2],
                               rows.pBelow[c],  rows.pBelow[c + 1],  rows.pBelow[c + 2]};
        pOut[c] = MedianOf9(by);
    }
}

bool Mean3x3(unsigned char* pImage, size_t w, size_t h)
{
    return FilterInterior(pImage, w, h, FilterRow<Mean3RowSse2, Mean3Row>);
}

bool Median3x3(unsigned char* pImage, size_t w, size_t h)
{
    return FilterInterior(pImage, w, h, FilterRow<Median3RowSse2, Median3Row>);
}

}  // namespace imageproc
