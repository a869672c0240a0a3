// The control requests the scanner's kernel driver answers: their numbers,
// the size of their argument blocks and which way each block carries data.
#ifndef TAVK05_VSCANNER_REQUESTS_H
#define TAVK05_VSCANNER_REQUESTS_H

#include <cstddef>
#include <string>

namespace tavk05virt {

enum BlockUse {
    kBlockNone,  // no argument block (the argument is 0)
    kBlockIn,    // the host's block goes to the device
    kBlockOut,   // the device fills the block
};

struct RequestInfo {
    unsigned long nRequest;
    std::size_t nBlock;  // bytes of the argument block
    BlockUse eUse;
};

// The request's entry, or null for a request the driver does not know.
const RequestInfo* FindRequest(unsigned long nRequest);

// "4, 5, 8, ..." for messages.
std::string RequestList();

}  // namespace tavk05virt

#endif
