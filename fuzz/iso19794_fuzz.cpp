// Feeds any bytes to the ISO/IEC 19794-4 reader; a record read is written back and must read the same.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "iso19794.h"

using namespace tavk05rec;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    int nVersion = 0;
    std::vector<FingerImage> fingers;
    if (IsoRead(pData, nSize, nVersion, fingers) == kRecOk) {
        const FingerImage& first = fingers.front();
        std::vector<unsigned char> again;
        // Only live-scan plain or rolled single fingers are written.
        if (IsoWrite(nVersion, first, IsoCapture(), again) == kRecOk) {
            int nVersionAgain = 0;
            std::vector<FingerImage> fingersAgain;
            if (IsoRead(again.data(), again.size(), nVersionAgain, fingersAgain) != kRecOk ||
                fingersAgain.front().data != first.data || fingersAgain.front().nWidth != first.nWidth) {
                std::abort();
            }
        }
    }
    return 0;
}
