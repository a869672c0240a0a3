// Internal to the library: the first build of both modify tables, into rows
// just allocated and not yet written. It stores what InitModifyTable and
// InitModifyTableEx store, and 0 as the indexes and weights of the entries
// that those leave as they are.
#ifndef TAVK05_SRC_IMAGEPROC_MODIFY_TABLES_H
#define TAVK05_SRC_IMAGEPROC_MODIFY_TABLES_H

#include "tavk05/isproc.h"

namespace imageproc {

void BuildFreshModifyTables(tagModifyEntry* const* ppTable, tagModifyEntry* const* ppTableEx);

} // namespace imageproc

#endif
