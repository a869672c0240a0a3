// Table of the kernel driver's control requests.
#include "vscanner_requests.h"

namespace tavk05virt {

namespace {

const RequestInfo kRequests[] = {
    {4, 18, kBlockOut},   // device descriptor
    {5, 128, kBlockIn},   // sensor options
    {8, 2, kBlockIn},     // LED
    {9, 64, kBlockOut},   // device ID
    {17, 64, kBlockOut},  // get value
    {18, 64, kBlockIn},   // set value
    {21, 0, kBlockNone},  // start acquisition
    {22, 0, kBlockNone},  // stop acquisition
};

}  // namespace

const RequestInfo* FindRequest(unsigned long nRequest)
{
    for (const RequestInfo& info : kRequests) {
        if (info.nRequest == nRequest) return &info;
    }
    return nullptr;
}

std::string RequestList()
{
    std::string str;
    for (const RequestInfo& info : kRequests) {
        if (!str.empty()) str += ", ";
        str += std::to_string(info.nRequest);
    }
    return str;
}

}  // namespace tavk05virt
