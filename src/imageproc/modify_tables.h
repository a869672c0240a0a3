// Internal to the library: the first build of both modify tables, into rows
// just allocated and not yet written. It stores what InitModifyTable and
// InitModifyTableEx store, and 0 as the indexes and weights of the entries
// that those leave as they are.
#ifndef TAVK05_SRC_IMAGEPROC_MODIFY_TABLES_H
#define TAVK05_SRC_IMAGEPROC_MODIFY_TABLES_H

#include "tavk05/isproc.h"

#include <cstddef>

namespace imageproc {

void BuildFreshModifyTables(tagModifyEntry* const* ppTable, tagModifyEntry* const* ppTableEx);

// The bilinear weights of an entry, in the order of its four neighbours
// (top left, top right, bottom right, bottom left), from its row and column
// fractions, in single precision: what the table build stores.
inline void BilinearWeights(float fr, float fc, float (&afWeight)[4])
{
    const float fRowNear = 1.0f - fr;
    const float fColNear = 1.0f - fc;
    afWeight[0] = fColNear * fRowNear;
    afWeight[1] = fc * fRowNear;
    afWeight[2] = fc * fr;
    afWeight[3] = fColNear * fr;
}

// Memory for the rows of the modify tables: one anonymous mapping, handed
// out row by row, each row starting on a page. The rows are written once,
// in the constructor, and only their first half; with all 51 MB in one
// mapping the kernel may back it with huge pages, so that it is
// faulted in a few dozen steps instead of page by page. Without the
// mapping, Row has nothing to give and the rows come from the heap.
class CTableArena {
public:
    explicit CTableArena(size_t nBytes);
    ~CTableArena();
    CTableArena(const CTableArena&) = delete;
    CTableArena& operator=(const CTableArena&) = delete;

    // Bytes of a row of nEntries entries, rounded up to whole pages.
    static size_t RowBytes(size_t nEntries);

    // The next row of nEntries entries, or null when the arena has no room.
    tagModifyEntry* Row(size_t nEntries);
    bool Holds(const void* p) const;

private:
    unsigned char* m_p;  // the mapping, or null
    size_t m_nBytes;
    size_t m_nUsed;
};

}  // namespace imageproc

#endif
