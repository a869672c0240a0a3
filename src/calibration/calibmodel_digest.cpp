#include "calibration/calibmodel.h"

namespace tavk05cal {

uint64_t Fnv1a(const void* pData, size_t nBytes, uint64_t nHash)
{
    const unsigned char* p = static_cast<const unsigned char*>(pData);
    for (size_t i = 0; i < nBytes; ++i) {
        nHash = (nHash ^ p[i]) * 1099511628211ULL;
    }
    return nHash;
}

}  // namespace tavk05cal
