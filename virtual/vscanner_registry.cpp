// Descriptor bookkeeping of the virtual scanner and the dispatch of open,
// close, ioctl and read to its units.
#include "vscanner_registry.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

namespace tavk05virt {

namespace {

// One flag per descriptor number below kFdFlags: set while the descriptor may
// be virtual. Reads and ioctls on every other descriptor of the process pass
// through without taking the registry lock. Zero-initialised before any code
// runs, so it is safe however early the interposers are called.
const int kFdFlags = 65536;
std::atomic<unsigned char> g_abyFdFlag[kFdFlags];
// Virtual descriptors at or above kFdFlags (rare); they take the locked path.
std::atomic<int> g_nHighFds(0);

void MarkFd(int fd, bool bVirtual)
{
    if (fd < kFdFlags) {
        g_abyFdFlag[fd].store(bVirtual ? 1 : 0, std::memory_order_release);
    } else {
        g_nHighFds.fetch_add(bVirtual ? 1 : -1, std::memory_order_acq_rel);
    }
}

// The entry of fd when it is still the descriptor that was handed out; a
// stale entry is dropped. Caller holds the mutex.
FdEntry* FindFd(Registry& reg, int fd)
{
    const auto it = reg.mapFds.find(fd);
    if (it == reg.mapFds.end()) {
        return nullptr;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || st.st_dev != it->second.dev || st.st_ino != it->second.ino) {
        reg.mapFds.erase(it);
        MarkFd(fd, false);
        return nullptr;
    }
    return &it->second;
}

// The unit behind a descriptor entry, or null when the unit was detached or
// replaced since the open.
CVirtualUnit* UnitOf(Registry& reg, const FdEntry& entry)
{
    if (reg.anGeneration[entry.nIndex] != entry.nGeneration) {
        return nullptr;
    }
    return reg.apUnits[entry.nIndex].get();
}

// A fresh descriptor for an open of unit nIndex: the real node for a unit
// that passes through to it; else an anonymous memory file, unique so its
// identity can be checked, or /dev/null where memfd is missing.
int NewDescriptor(int nIndex, bool bPassThrough, int nFlags, FdEntry* pEntry)
{
    const bool bCloexec = (nFlags & O_CLOEXEC) != 0;
    int fd = -1;
    if (bPassThrough) {
        const std::string strNode = "/dev/tavk05" + std::to_string(nIndex);
        fd = RealOpen(strNode.c_str(), nFlags, 0);
    } else {
        fd = memfd_create("tavk05-virtual", bCloexec ? MFD_CLOEXEC : 0);
        if (fd < 0) fd = RealOpen("/dev/null", O_RDONLY | (bCloexec ? O_CLOEXEC : 0), 0);
    }
    if (fd < 0) {
        return -1;
    }
    struct stat st;
    if (fstat(fd, &st) != 0) {
        const int nErrno = errno;
        RealClose(fd);
        errno = nErrno;
        return -1;
    }
    pEntry->dev = st.st_dev;
    pEntry->ino = st.st_ino;
    return fd;
}

}  // namespace

Registry& TheRegistry()
{
    static Registry* const pRegistry = new Registry();
    return *pRegistry;
}

void InstallUnit(Registry& reg, int nIndex, std::unique_ptr<CVirtualUnit> pUnit)
{
    reg.apUnits[nIndex] = std::move(pUnit);
    reg.anGeneration[nIndex] = reg.apUnits[nIndex] ? reg.nNextGeneration++ : 0;
}

int DeviceIndexOfPath(const char* pszPath)
{
    static const char kPrefix[] = "/dev/tavk05";
    if (pszPath == nullptr) {
        return -1;
    }
    for (std::size_t i = 0; i + 1 < sizeof kPrefix; ++i) {
        if (pszPath[i] != kPrefix[i]) {
            return -1;
        }
    }
    const char c = pszPath[sizeof kPrefix - 1];
    if (c < '0' || c > '7' || pszPath[sizeof kPrefix] != '\0') {
        return -1;
    }
    return c - '0';
}

bool MaybeVirtualFd(int fd)
{
    if (fd < 0) {
        return false;
    }
    if (fd < kFdFlags) {
        return g_abyFdFlag[fd].load(std::memory_order_acquire) != 0;
    }
    return g_nHighFds.load(std::memory_order_acquire) > 0;
}

bool VirtualOpen(int nIndex, int nFlags, int* pResult)
{
    try {
        Registry& reg = TheRegistry();
        std::lock_guard<std::mutex> lock(reg.mutex);
        CVirtualUnit* pUnit = reg.apUnits[nIndex].get();
        if (pUnit == nullptr) {
            return false;  // no virtual unit here: the real node is asked
        }
        FdEntry entry;
        entry.nIndex = nIndex;
        entry.nGeneration = reg.anGeneration[nIndex];
        int nError = pUnit->CheckOpen();
        const int fd = nError == 0 ? NewDescriptor(nIndex, pUnit->PassThrough(), nFlags, &entry) : -1;
        if (nError == 0 && fd < 0) nError = errno;
        entry.nHandle = pUnit->Opened(nError);
        if (nError != 0) {
            *pResult = -1;
            errno = nError;
            return true;
        }
        // A stale entry under the same number (closed behind the interposers'
        // back) is simply replaced; its flag is already set.
        if (!reg.mapFds.insert_or_assign(fd, entry).second) {
            MarkFd(fd, false);
        }
        MarkFd(fd, true);
        *pResult = fd;
        return true;
    } catch (...) {
        *pResult = -1;
        errno = ENOMEM;
        return true;
    }
}

bool VirtualClose(int fd, int* pResult)
{
    try {
        Registry& reg = TheRegistry();
        {
            std::lock_guard<std::mutex> lock(reg.mutex);
            FdEntry* pEntry = FindFd(reg, fd);
            if (pEntry == nullptr) {
                return false;
            }
            if (CVirtualUnit* pUnit = UnitOf(reg, *pEntry)) {
                pUnit->Closed(pEntry->nHandle);
            }
            reg.mapFds.erase(fd);
            MarkFd(fd, false);
        }
        *pResult = RealClose(fd);
        return true;
    } catch (...) {
        return false;
    }
}

bool VirtualIoctl(int fd, unsigned long nRequest, void* pArg, int* pResult)
{
    try {
        Registry& reg = TheRegistry();
        std::lock_guard<std::mutex> lock(reg.mutex);
        FdEntry* pEntry = FindFd(reg, fd);
        if (pEntry == nullptr) {
            return false;
        }
        CVirtualUnit* pUnit = UnitOf(reg, *pEntry);
        const int nResult = pUnit != nullptr ? pUnit->Ioctl(pEntry->nHandle, fd, nRequest, pArg) : -ENODEV;
        if (nResult < 0) {
            *pResult = -1;
            errno = -nResult;
        } else {
            *pResult = nResult;
        }
        return true;
    } catch (...) {
        *pResult = -1;
        errno = ENOMEM;
        return true;
    }
}

namespace {

// Result of a read as the interposer returns it.
void SetReadResult(ssize_t nResult, ssize_t* pResult)
{
    if (nResult < 0) {
        *pResult = -1;
        errno = static_cast<int>(-nResult);
    } else {
        *pResult = nResult;
    }
}

}  // namespace

bool VirtualRead(int fd, void* pBuf, size_t nBytes, ssize_t* pResult)
{
    try {
        Registry& reg = TheRegistry();
        CVirtualUnit::Clock::time_point tDue;
        unsigned long nGeneration = 0;
        unsigned long nHandle = 0;
        int nIndex = 0;
        {
            std::lock_guard<std::mutex> lock(reg.mutex);
            FdEntry* pEntry = FindFd(reg, fd);
            if (pEntry == nullptr) {
                return false;
            }
            CVirtualUnit* pUnit = UnitOf(reg, *pEntry);
            if (pUnit == nullptr || pUnit->Vanished()) {
                if (pUnit != nullptr) {
                    // Counted; fails at once.
                    ssize_t nIgnored = 0;
                    std::shared_ptr<CSessionRecorder> pIgnored;
                    pUnit->Read(pEntry->nHandle, pBuf, nBytes, &nIgnored, &pIgnored);
                }
                *pResult = -1;
                errno = ENODEV;
                return true;
            }
            tDue = pUnit->ReserveRead(CVirtualUnit::Clock::now());
            nGeneration = pEntry->nGeneration;
            nIndex = pEntry->nIndex;
            nHandle = pEntry->nHandle;
        }
        // Pacing waits outside the lock, like a device that is still exposing.
        if (tDue > CVirtualUnit::Clock::now()) {
            std::this_thread::sleep_until(tDue);
        }
        const auto SameUnit = [&reg, nIndex, nGeneration]() {
            return reg.anGeneration[nIndex] == nGeneration ? reg.apUnits[nIndex].get() : nullptr;
        };
        std::shared_ptr<CSessionRecorder> pRecorder;
        int fdReal = -1;
        {
            std::lock_guard<std::mutex> lock(reg.mutex);
            CVirtualUnit* pUnit = SameUnit();
            ssize_t nResult = -ENODEV;
            if (pUnit == nullptr || pUnit->Read(nHandle, pBuf, nBytes, &nResult, &pRecorder)) {
                SetReadResult(nResult, pResult);
                return true;
            }
            // A read of the real node may block until the device has a frame:
            // it runs outside the lock on a duplicate of the descriptor, which
            // the host cannot close (nor the kernel hand out again) meanwhile.
            // The descriptor is checked again first: the host may have closed
            // it while the read was paced.
            const FdEntry* pEntry = FindFd(reg, fd);
            const bool bSame = pEntry != nullptr && pEntry->nGeneration == nGeneration && pEntry->nHandle == nHandle;
            fdReal = bSame ? fcntl(fd, F_DUPFD_CLOEXEC, 0) : -1;
            if (fdReal < 0) {
                nResult = bSame ? -errno : -EBADF;
                if (pRecorder) pRecorder->Read(nHandle, nBytes, nResult, pBuf);
                pRecorder.reset();  // the unit still holds it
                pUnit->PassedThrough();
                SetReadResult(nResult, pResult);
                return true;
            }
        }
        ssize_t nResult = RealRead(fdReal, pBuf, nBytes);
        if (nResult < 0) nResult = -errno;
        RealClose(fdReal);
        {
            // The read is recorded in the session it began in, even when the
            // unit was detached or given a new recording since.
            std::lock_guard<std::mutex> lock(reg.mutex);
            if (pRecorder) pRecorder->Read(nHandle, nBytes, nResult, pBuf);
            if (CVirtualUnit* pUnit = SameUnit()) pUnit->PassedThrough();
        }
        pRecorder.reset();
        SetReadResult(nResult, pResult);
        return true;
    } catch (...) {
        *pResult = -1;
        errno = ENOMEM;
        return true;
    }
}

}  // namespace tavk05virt
