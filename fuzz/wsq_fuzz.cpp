// Feeds any bytes to the WSQ reader: header, comments, bin indices and the
// full decode. A decoded image must have the size the header announced.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "wsq.h"

using namespace tavk05rec;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    WsqInfo info;
    const WsqResult infoResult = WsqReadInfo(pData, nSize, info);
    std::vector<WsqComment> comments;
    WsqReadComments(pData, nSize, comments);
    // Header-only files may announce images up to the decoder's bound, whose
    // synthesis of zeros takes seconds; the harness decodes the smaller ones.
    if (infoResult == kWsqOk && static_cast<long long>(info.nWidth) * info.nHeight > (1 << 16)) return 0;
    WsqQuantization quant;
    WsqReadQuantization(pData, nSize, quant);
    std::vector<unsigned char> pixels;
    WsqInfo decoded;
    if (WsqDecode(pData, nSize, pixels, decoded) == kWsqOk) {
        if (infoResult != kWsqOk || pixels.size() != static_cast<size_t>(decoded.nWidth) * decoded.nHeight ||
            decoded.nWidth != info.nWidth || decoded.nHeight != info.nHeight) {
            std::abort();
        }
    }
    return 0;
}
