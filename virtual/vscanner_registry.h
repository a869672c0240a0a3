// Registry of the virtual scanner: the eight unit slots, the descriptors
// opened on them, and the entry points the libc interposers call.
#ifndef TAVK05_VSCANNER_REGISTRY_H
#define TAVK05_VSCANNER_REGISTRY_H

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <unordered_map>

#include "vscanner_unit.h"

namespace tavk05virt {

enum { kUnitCount = 8 };

// A descriptor handed out for a unit. The descriptor is a real one (a memfd,
// or the real node for a unit that passes through to it, so that its
// identity can be checked: a descriptor that libc closed behind the
// interposers' back and the kernel reused is recognised as not ours).
struct FdEntry {
    int nIndex;
    unsigned long nGeneration;  // generation of the unit it was opened on
    unsigned long nHandle;      // the unit's number for this open (see CVirtualUnit::Opened)
    dev_t dev;
    ino_t ino;
};

struct Registry {
    std::mutex mutex;
    std::unique_ptr<CVirtualUnit> apUnits[kUnitCount];
    unsigned long anGeneration[kUnitCount] = {};
    unsigned long nNextGeneration = 1;
    std::unordered_map<int, FdEntry> mapFds;
};

// The process-wide registry, created on first use and never destroyed: the
// interposers may run during exit, after static destructors.
Registry& TheRegistry();

// Installs a unit in slot nIndex (replacing any earlier one, whose open
// descriptors then fail with ENODEV). Caller holds the mutex.
void InstallUnit(Registry& reg, int nIndex, std::unique_ptr<CVirtualUnit> pUnit);

// 0..7 for "/dev/tavk05N", else -1.
int DeviceIndexOfPath(const char* pszPath);

// False only for descriptors that are certainly not virtual (lock-free).
bool MaybeVirtualFd(int fd);

// Each returns false when the call is not the virtual scanner's to answer
// (the caller then passes it on to libc); otherwise the result is in
// *pResult with errno set on failure.
bool VirtualOpen(int nIndex, int nFlags, int* pResult);
bool VirtualClose(int fd, int* pResult);
bool VirtualIoctl(int fd, unsigned long nRequest, void* pArg, int* pResult);
bool VirtualRead(int fd, void* pBuf, size_t nBytes, ssize_t* pResult);

// The C library's own functions (resolved by the interposers).
int RealOpen(const char* pszPath, int nFlags, mode_t mode);
int RealClose(int fd);
int RealIoctl(int fd, unsigned long nRequest, void* pArg);
ssize_t RealRead(int fd, void* pBuf, size_t nBytes);

}  // namespace tavk05virt

#endif
