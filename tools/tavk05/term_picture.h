// The live picture on a terminal: a grey image drawn with Unicode upper half
// blocks, two image rows to a text row, in 24-bit grey.
#ifndef TAVK05_TERM_PICTURE_H
#define TAVK05_TERM_PICTURE_H

#include <string>

namespace cli {

// The text that draws the nWidth x nHeight image in at most nCols columns
// and nRows text rows, keeping its proportions (a text cell is about twice as
// high as wide: one cell shows two pixels stacked). Every row ends by
// resetting the colours and a newline; the result has exactly *pnRowsUsed
// rows. Empty when the space is too small for a picture.
std::string RenderHalfBlocks(const unsigned char* pImage, int nWidth, int nHeight, int nCols, int nRows,
                             int* pnRowsUsed);

}  // namespace cli

#endif
