// CImageProc: construction and destruction of the processor state -- the
// background frame, the contrast table, the finger window and the two modify
// tables that the interpolating geometry correction reads.
#include "imageproc/correct_geometry.h"
#include "imageproc/modify_tables.h"
#include "tavk05/isproc.h"

#include <cstring>
#include <memory>
#include <new>

namespace {

// Owns a modify table (an array of row pointers, each row an array with room
// for a whole row of entries) until it is handed over to the processor;
// frees whatever was allocated if construction stops half way. Rows come
// from the arena while it has room, else each from the heap.
class CTableHolder {
public:
    CTableHolder(int nRows, int nEntries, imageproc::CTableArena* pArena)
        : m_pp(new tagModifyEntry*[nRows]), m_nRows(nRows), m_pArena(pArena)
    {
        for (int r = 0; r < m_nRows; ++r) m_pp[r] = nullptr;
        try {
            for (int r = 0; r < m_nRows; ++r) {
                // The first half of a row is what the table build fills,
                // every byte of it, and what readers see. The second half is
                // room that nothing reads or writes.
                m_pp[r] = pArena != nullptr ? pArena->Row(static_cast<size_t>(nEntries)) : nullptr;
                if (m_pp[r] == nullptr) m_pp[r] = new tagModifyEntry[nEntries];
            }
        } catch (...) {
            // The destructor does not run for a half-built holder.
            Free(m_pp, m_nRows, m_pArena);
            throw;
        }
    }
    ~CTableHolder() { Free(m_pp, m_nRows, m_pArena); }
    CTableHolder(const CTableHolder&) = delete;
    CTableHolder& operator=(const CTableHolder&) = delete;

    tagModifyEntry** Release()
    {
        tagModifyEntry** pp = m_pp;
        m_pp = nullptr;
        return pp;
    }

    // Frees the rows that are not the arena's (the arena's go with it),
    // then the row array.
    static void Free(tagModifyEntry** pp, int nRows, const imageproc::CTableArena* pArena)
    {
        if (pp == nullptr) return;
        for (int r = 0; r < nRows; ++r) {
            if (pArena == nullptr || !pArena->Holds(pp[r])) delete[] pp[r];
        }
        delete[] pp;
    }

private:
    tagModifyEntry** m_pp;
    int m_nRows;
    const imageproc::CTableArena* m_pArena;
};

}  // namespace

CImageProc::CImageProc()
    : m_bRollStarted(0),
      m_nRollCenter(0),
      m_nRollLeft(0),
      m_nRollRight(0),
      m_nRollDirection(0),
      m_bContrastTable(0),
      m_pBackground(nullptr),
      m_nDeviceType(0),
      m_nFingerWinX(0),
      m_nFingerWinY(0),
      m_ppModifyTable(nullptr),
      m_ppModifyTableEx(nullptr),
      m_pPrivate(nullptr)
{
    // A failed allocation throws std::bad_alloc out of here; the sensor's
    // creation catches it. Everything allocated so far is released by the
    // holders on the way out.
    m_bContrastTable = 0;

    std::unique_ptr<unsigned char[]> pBackground(new unsigned char[IMG_PIXELS]);
    std::memset(pBackground.get(), 255, IMG_PIXELS);

    // Entries 0..254 are the defined default; entry 255 gets the same value
    // so that no byte of the table is ever indeterminate. Nothing reads the
    // table before SetContrast has rewritten all of it.
    std::memset(m_ucContrastTable, 255, sizeof m_ucContrastTable);

    m_bRollStarted = 0;
    m_nDeviceType = 0;

    // The private part, with the arena that holds the rows of both tables
    // in one mapping (without the mapping, the rows come from the heap).
    std::unique_ptr<CPrivate> pPrivate(new CPrivate);
    pPrivate->pArena.reset(
        new imageproc::CTableArena(imageproc::CTableArena::RowBytes(MODIFY_SIZE) * MODIFY_SIZE +
                                   imageproc::CTableArena::RowBytes(MODIFY_SIZE_EX) * MODIFY_SIZE_EX));
    CTableHolder table(MODIFY_SIZE, MODIFY_SIZE, pPrivate->pArena.get());
    CTableHolder tableEx(MODIFY_SIZE_EX, MODIFY_SIZE_EX, pPrivate->pArena.get());

    m_pBackground = pBackground.release();
    m_ppModifyTable = table.Release();
    m_ppModifyTableEx = tableEx.Release();
    m_pPrivate = pPrivate.release();

    // InitModifyTable and InitModifyTableEx on rows not yet written.
    imageproc::BuildFreshModifyTables(m_ppModifyTable, m_ppModifyTableEx);

    m_nFingerWinX = 100;
    m_nFingerWinY = 75;
}

CImageProc::~CImageProc()
{
    delete[] m_pBackground;
    m_pBackground = nullptr;
    // The rows first, then the arena they may lie in.
    const imageproc::CTableArena* const pArena = m_pPrivate != nullptr ? m_pPrivate->pArena.get() : nullptr;
    CTableHolder::Free(m_ppModifyTable, MODIFY_SIZE, pArena);
    m_ppModifyTable = nullptr;
    CTableHolder::Free(m_ppModifyTableEx, MODIFY_SIZE_EX, pArena);
    m_ppModifyTableEx = nullptr;
    delete m_pPrivate;
    m_pPrivate = nullptr;
}
