// The modify tables: for every output pixel pair of the interpolating
// geometry correction, the source coordinate, the four source neighbours and
// their bilinear weights. Output row i is taken from source row i / a(i); the
// distance j from the centre column is stretched by 1 / b(i), where a and b
// are linear in the row.
//
// The arithmetic is fixed to the bit: single-precision coefficients; a, b,
// the row coordinate and the column coordinate evaluated in double and then
// rounded to float; floor in double; fractions and weights in float.
#include "imageproc/correct_geometry.h"
#include "imageproc/modify_tables.h"
#include "tavk05/isproc.h"

#include <cmath>

#include <sys/mman.h>

namespace {

// floor() as an int. Coordinates are never negative here (i, j >= 0 and
// a, b > 0), and for those truncation is floor, without the library call.
inline int FloorToInt(double d) { return d >= 0.0 ? static_cast<int>(d) : static_cast<int>(std::floor(d)); }

struct ModifyParams {
    int nSize;            // output width and height, W
    float fRowSlope;      // k1
    float fRowIntercept;  // k0
    float fColSlope;      // m1
    float fColIntercept;  // m0
    unsigned nSrcWidth;   // SW
    int nMaxRow;          // source height - 1
    unsigned nSrcCentre;  // SC
    int nMaxCol;          // (SW - 1) / 2
};

const ModifyParams kTable = {MODIFY_SIZE, -5.3583e-05f, 0.81343f, 7.4524e-05f, 0.4946f, 1288, 875, 644, 643};
const ModifyParams kTableEx = {
    MODIFY_SIZE_EX, -1.1357385e-05f, 0.4958448f, 5.20432e-05f, 0.3598727f, 1700, 1299, 850, 849};

// With bFresh the rows are new and uninitialised: the indexes and weights
// of entries without source neighbours, which a rebuild leaves as they are,
// are set to 0 here rather than by clearing the rows beforehand, so that
// each entry is written once.
void BuildModifyTable(tagModifyEntry* const* ppTable, const ModifyParams& p, bool bFresh)
{
    if (ppTable == nullptr) return;
    const int nHalf = p.nSize / 2;
    const unsigned nW = static_cast<unsigned>(p.nSize);
    for (int i = 0; i < p.nSize; ++i) {
        tagModifyEntry* const pRow = ppTable[i];
        if (pRow == nullptr) continue;
        const double dRow = static_cast<double>(i);
        const float a =
            static_cast<float>(static_cast<double>(p.fRowSlope) * dRow + static_cast<double>(p.fRowIntercept));
        const float b =
            static_cast<float>(static_cast<double>(p.fColSlope) * dRow + static_cast<double>(p.fColIntercept));
        // The row coordinate depends on the row alone.
        const float x = static_cast<float>(dRow / static_cast<double>(a));
        const int ix = FloorToInt(static_cast<double>(x));
        const float fr = x - static_cast<float>(ix);
        const bool bRowInside = ix >= 0 && ix <= p.nMaxRow;
        const unsigned nRowBase = static_cast<unsigned>(ix) * p.nSrcWidth + p.nSrcCentre;
        const unsigned nDstCentre = static_cast<unsigned>(i) * nW + static_cast<unsigned>(nHalf);

        for (int j = 0; j < nHalf; ++j) {
            tagModifyEntry& e = pRow[j];
            const float y = static_cast<float>(static_cast<double>(j) / static_cast<double>(b));
            const int iy = FloorToInt(static_cast<double>(y));
            e.fSrcRow = x;
            e.fSrcCol = y;
            e.nSrcRow = ix;
            e.nSrcCol = iy;
            e.nDstRight = nDstCentre + static_cast<unsigned>(j);
            e.nDstLeft = nDstCentre - static_cast<unsigned>(j);
            if (!bRowInside || iy < 0 || iy > p.nMaxCol) {
                // No source neighbours: indexes and weights stay as they are.
                if (bFresh) {
                    for (int k = 0; k < 4; ++k) {
                        e.nSrcIndex[k] = 0;
                        e.fWeight[k] = 0.0f;
                    }
                }
                continue;
            }
            const float fc = y - static_cast<float>(iy);
            const unsigned nTopLeft = nRowBase + static_cast<unsigned>(iy);
            e.nSrcIndex[0] = nTopLeft;
            e.nSrcIndex[1] = nTopLeft + 1;
            e.nSrcIndex[2] = nTopLeft + p.nSrcWidth + 1;
            e.nSrcIndex[3] = nTopLeft + p.nSrcWidth;
            imageproc::BilinearWeights(fr, fc, e.fWeight);
        }
    }
}

}  // namespace

namespace imageproc {

namespace {
const size_t kPage = 4096;
}  // namespace

CTableArena::CTableArena(size_t nBytes) : m_p(nullptr), m_nBytes(0), m_nUsed(0)
{
    void* p = ::mmap(nullptr, nBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return;
#if defined(MADV_HUGEPAGE)
    ::madvise(p, nBytes, MADV_HUGEPAGE);  // advice only: its failure changes nothing
#endif
    m_p = static_cast<unsigned char*>(p);
    m_nBytes = nBytes;
}

CTableArena::~CTableArena()
{
    if (m_p != nullptr) ::munmap(m_p, m_nBytes);
}

size_t CTableArena::RowBytes(size_t nEntries)
{
    return (nEntries * sizeof(tagModifyEntry) + kPage - 1) / kPage * kPage;
}

tagModifyEntry* CTableArena::Row(size_t nEntries)
{
    const size_t nBytes = RowBytes(nEntries);
    if (m_p == nullptr || m_nBytes - m_nUsed < nBytes) return nullptr;
    // Zero-filled by the kernel and suitably aligned for the entries.
    tagModifyEntry* const pRow = reinterpret_cast<tagModifyEntry*>(m_p + m_nUsed);
    m_nUsed += nBytes;
    return pRow;
}

bool CTableArena::Holds(const void* p) const
{
    const unsigned char* const pBy = static_cast<const unsigned char*>(p);
    return m_p != nullptr && pBy >= m_p && pBy < m_p + m_nBytes;
}

void BuildFreshModifyTables(tagModifyEntry* const* ppTable, tagModifyEntry* const* ppTableEx)
{
    BuildModifyTable(ppTable, kTable, true);
    BuildModifyTable(ppTableEx, kTableEx, true);
}

}  // namespace imageproc

void CImageProc::InitModifyTable() { BuildModifyTable(m_ppModifyTable, kTable, false); }

void CImageProc::InitModifyTableEx() { BuildModifyTable(m_ppModifyTableEx, kTableEx, false); }
