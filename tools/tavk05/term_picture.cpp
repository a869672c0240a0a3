// Half-block rendering of a grey image for the live view on a terminal.
#include "term_picture.h"

#include <algorithm>
#include <cstdio>

namespace cli {

namespace {

// Mean grey level of the source block that one picture pixel covers.
int BlockMean(const unsigned char* pImage, int nWidth, int x0, int x1, int y0, int y1)
{
    long nSum = 0;
    for (int y = y0; y < y1; ++y) {
        for (int x = x0; x < x1; ++x) nSum += pImage[static_cast<long>(y) * nWidth + x];
    }
    const long nCount = static_cast<long>(x1 - x0) * (y1 - y0);
    return static_cast<int>(nSum / nCount);
}

}  // namespace

std::string RenderHalfBlocks(const unsigned char* pImage, int nWidth, int nHeight, int nCols, int nRows,
                             int* pnRowsUsed)
{
    *pnRowsUsed = 0;
    if (pImage == nullptr || nWidth <= 0 || nHeight <= 0 || nCols < 2 || nRows < 1) return "";
    // Picture pixels across (pw) and down (ph, two to a text row), as large
    // as the space allows without distorting the image or upscaling it.
    int pw = std::min(nCols, nWidth);
    int ph = static_cast<int>(static_cast<long>(pw) * nHeight / nWidth);
    if (ph > 2 * nRows) {
        ph = 2 * nRows;
        pw = static_cast<int>(static_cast<long>(ph) * nWidth / nHeight);
    }
    ph -= ph % 2;
    if (pw < 1 || ph < 2) return "";

    std::string strOut;
    strOut.reserve(static_cast<size_t>(pw) * (ph / 2) * 40);
    char szCell[64];
    for (int r = 0; r < ph / 2; ++r) {
        int nLastTop = -1, nLastBottom = -1;
        for (int c = 0; c < pw; ++c) {
            const int x0 = static_cast<int>(static_cast<long>(c) * nWidth / pw);
            const int x1 = std::max(x0 + 1, static_cast<int>(static_cast<long>(c + 1) * nWidth / pw));
            int anGrey[2];
            for (int k = 0; k < 2; ++k) {
                const int py = 2 * r + k;
                const int y0 = static_cast<int>(static_cast<long>(py) * nHeight / ph);
                const int y1 = std::max(y0 + 1, static_cast<int>(static_cast<long>(py + 1) * nHeight / ph));
                anGrey[k] = BlockMean(pImage, nWidth, x0, x1, y0, y1);
            }
            // Colours are sent only where they change along the row.
            if (anGrey[0] != nLastTop) {
                std::snprintf(szCell, sizeof szCell, "\x1b[38;2;%d;%d;%dm", anGrey[0], anGrey[0], anGrey[0]);
                strOut += szCell;
                nLastTop = anGrey[0];
            }
            if (anGrey[1] != nLastBottom) {
                std::snprintf(szCell, sizeof szCell, "\x1b[48;2;%d;%d;%dm", anGrey[1], anGrey[1], anGrey[1]);
                strOut += szCell;
                nLastBottom = anGrey[1];
            }
            strOut += "\xe2\x96\x80";  // U+2580 UPPER HALF BLOCK
        }
        strOut += "\x1b[0m\n";
    }
    *pnRowsUsed = ph / 2;
    return strOut;
}

}  // namespace cli
