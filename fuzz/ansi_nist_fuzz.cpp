// Feeds any bytes to the ANSI/NIST-ITL transaction reader; a transaction
// read is written back and must read the same.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "ansi_nist.h"

using namespace tavk05rec;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize)
{
    NistTransaction transaction;
    if (NistRead(pData, nSize, transaction) == kRecOk && !transaction.fingers.empty()) {
        std::vector<unsigned char> again;
        if (NistWrite(transaction.header, transaction.fingers, again) == kRecOk) {
            NistTransaction transactionAgain;
            if (NistRead(again.data(), again.size(), transactionAgain) != kRecOk ||
                transactionAgain.fingers.size() != transaction.fingers.size() ||
                transactionAgain.fingers.front().image.data != transaction.fingers.front().image.data) {
                std::abort();
            }
        }
    }
    return 0;
}
