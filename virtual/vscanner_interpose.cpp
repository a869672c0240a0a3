// The libc entry points the virtual scanner takes over. Calls on
// "/dev/tavk05N" with a configured unit, and on descriptors opened that way,
// are answered by the unit; everything else goes to the next definition in
// the lookup order (the C library, or a sanitizer runtime in front of it),
// found with dlsym(RTLD_NEXT).
//
// The C++ names are private; the exported symbol names come from asm labels,
// so these definitions do not collide with the declarations (or fortified
// inline wrappers) of <fcntl.h> and <unistd.h>.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>

#include "vscanner_registry.h"

#define TAVK05_INTERPOSE extern "C" __attribute__((visibility("default")))

TAVK05_INTERPOSE int VirtOpen(const char* pszPath, int nFlags, ...) __asm__("open");
TAVK05_INTERPOSE int VirtOpen64(const char* pszPath, int nFlags, ...) __asm__("open64");
TAVK05_INTERPOSE int VirtOpenAt(int dirfd, const char* pszPath, int nFlags, ...) __asm__("openat");
TAVK05_INTERPOSE int VirtOpenAt64(int dirfd, const char* pszPath, int nFlags, ...) __asm__("openat64");
TAVK05_INTERPOSE int VirtOpen2(const char* pszPath, int nFlags) __asm__("__open_2");
TAVK05_INTERPOSE int VirtOpen64_2(const char* pszPath, int nFlags) __asm__("__open64_2");
TAVK05_INTERPOSE int VirtOpenAt2(int dirfd, const char* pszPath, int nFlags) __asm__("__openat_2");
TAVK05_INTERPOSE int VirtOpenAt64_2(int dirfd, const char* pszPath, int nFlags) __asm__("__openat64_2");
TAVK05_INTERPOSE int VirtClose(int fd) __asm__("close");
TAVK05_INTERPOSE int VirtIoctl(int fd, unsigned long nRequest, ...) __asm__("ioctl");
TAVK05_INTERPOSE ssize_t VirtRead(int fd, void* pBuf, size_t nBytes) __asm__("read");
TAVK05_INTERPOSE ssize_t VirtReadChk(int fd, void* pBuf, size_t nBytes, size_t nBufLen) __asm__("__read_chk");

namespace {

typedef int (*OpenFn)(const char*, int, ...);
typedef int (*OpenAtFn)(int, const char*, int, ...);
typedef int (*Open2Fn)(const char*, int);
typedef int (*OpenAt2Fn)(int, const char*, int);
typedef int (*CloseFn)(int);
typedef int (*IoctlFn)(int, unsigned long, ...);
typedef ssize_t (*ReadFn)(int, void*, size_t);
typedef ssize_t (*ReadChkFn)(int, void*, size_t, size_t);

// Set while this thread is inside dlsym: if dlsym itself opens or reads
// something, that call must not ask dlsym again; it goes to the kernel.
thread_local bool t_bResolving = false;

// The next definition of a symbol, looked up once. Null while it cannot be
// had (recursion through dlsym, or a libc without the symbol); callers then
// use the system call directly.
template <typename Fn>
Fn Next(std::atomic<void*>& slot, const char* pszName)
{
    void* p = slot.load(std::memory_order_acquire);
    if (p == nullptr && !t_bResolving) {
        const int nErrno = errno;
        t_bResolving = true;
        p = dlsym(RTLD_NEXT, pszName);
        t_bResolving = false;
        errno = nErrno;
        if (p != nullptr) slot.store(p, std::memory_order_release);
    }
    return reinterpret_cast<Fn>(p);
}

std::atomic<void*> g_pOpen(nullptr), g_pOpen64(nullptr), g_pOpenAt(nullptr), g_pOpenAt64(nullptr);
std::atomic<void*> g_pOpen2(nullptr), g_pOpen64_2(nullptr), g_pOpenAt2(nullptr), g_pOpenAt64_2(nullptr);
std::atomic<void*> g_pClose(nullptr), g_pIoctl(nullptr), g_pRead(nullptr), g_pReadChk(nullptr);

#ifndef O_LARGEFILE
#define O_LARGEFILE 0
#endif

bool NeedsMode(int nFlags)
{
#ifdef O_TMPFILE
    if ((nFlags & O_TMPFILE) == O_TMPFILE) return true;
#endif
    return (nFlags & O_CREAT) != 0;
}

// The mode argument of an open that creates a file; the variadic argument is
// only there (and only read) when the flags ask for one.
mode_t ModeArgument(int nFlags, va_list ap)
{
    return NeedsMode(nFlags) ? static_cast<mode_t>(va_arg(ap, unsigned int)) : 0;
}

int SysOpenAt(int dirfd, const char* pszPath, int nFlags, mode_t mode)
{
    return static_cast<int>(syscall(SYS_openat, dirfd, pszPath, nFlags, mode));
}

// Shared body of the open family. nIndex is the unit index of the path
// (-1 for any other path); pfnNext does the real open.
template <typename NextOpen>
int OpenCommon(const char* pszPath, int nFlags, NextOpen pfnNext)
{
    const int nIndex = tavk05virt::DeviceIndexOfPath(pszPath);
    int nResult = -1;
    if (nIndex >= 0 && tavk05virt::VirtualOpen(nIndex, nFlags, &nResult)) {
        return nResult;
    }
    return pfnNext();
}

}  // namespace

namespace tavk05virt {

int RealOpen(const char* pszPath, int nFlags, mode_t mode)
{
    const OpenFn pfn = Next<OpenFn>(g_pOpen, "open");
    return pfn ? pfn(pszPath, nFlags, mode) : SysOpenAt(AT_FDCWD, pszPath, nFlags, mode);
}

int RealClose(int fd)
{
    const CloseFn pfn = Next<CloseFn>(g_pClose, "close");
    return pfn ? pfn(fd) : static_cast<int>(syscall(SYS_close, fd));
}

int RealIoctl(int fd, unsigned long nRequest, void* pArg)
{
    const IoctlFn pfn = Next<IoctlFn>(g_pIoctl, "ioctl");
    return pfn ? pfn(fd, nRequest, pArg) : static_cast<int>(syscall(SYS_ioctl, fd, nRequest, pArg));
}

ssize_t RealRead(int fd, void* pBuf, size_t nBytes)
{
    const ReadFn pfn = Next<ReadFn>(g_pRead, "read");
    return pfn ? pfn(fd, pBuf, nBytes) : syscall(SYS_read, fd, pBuf, nBytes);
}

}  // namespace tavk05virt

int VirtOpen(const char* pszPath, int nFlags, ...)
{
    va_list ap;
    va_start(ap, nFlags);
    const mode_t mode = ModeArgument(nFlags, ap);
    va_end(ap);
    return OpenCommon(pszPath, nFlags, [&] {
        const OpenFn pfn = Next<OpenFn>(g_pOpen, "open");
        return pfn ? pfn(pszPath, nFlags, mode) : SysOpenAt(AT_FDCWD, pszPath, nFlags, mode);
    });
}

int VirtOpen64(const char* pszPath, int nFlags, ...)
{
    va_list ap;
    va_start(ap, nFlags);
    const mode_t mode = ModeArgument(nFlags, ap);
    va_end(ap);
    return OpenCommon(pszPath, nFlags, [&] {
        const OpenFn pfn = Next<OpenFn>(g_pOpen64, "open64");
        return pfn ? pfn(pszPath, nFlags, mode) : SysOpenAt(AT_FDCWD, pszPath, nFlags | O_LARGEFILE, mode);
    });
}

int VirtOpenAt(int dirfd, const char* pszPath, int nFlags, ...)
{
    va_list ap;
    va_start(ap, nFlags);
    const mode_t mode = ModeArgument(nFlags, ap);
    va_end(ap);
    return OpenCommon(pszPath, nFlags, [&] {
        const OpenAtFn pfn = Next<OpenAtFn>(g_pOpenAt, "openat");
        return pfn ? pfn(dirfd, pszPath, nFlags, mode) : SysOpenAt(dirfd, pszPath, nFlags, mode);
    });
}

int VirtOpenAt64(int dirfd, const char* pszPath, int nFlags, ...)
{
    va_list ap;
    va_start(ap, nFlags);
    const mode_t mode = ModeArgument(nFlags, ap);
    va_end(ap);
    return OpenCommon(pszPath, nFlags, [&] {
        const OpenAtFn pfn = Next<OpenAtFn>(g_pOpenAt64, "openat64");
        return pfn ? pfn(dirfd, pszPath, nFlags, mode) : SysOpenAt(dirfd, pszPath, nFlags | O_LARGEFILE, mode);
    });
}

// The fortified variants: the C library checks that O_CREAT comes with a
// mode, which these two-argument forms cannot pass.
int VirtOpen2(const char* pszPath, int nFlags)
{
    return OpenCommon(pszPath, nFlags, [&] {
        const Open2Fn pfn = Next<Open2Fn>(g_pOpen2, "__open_2");
        if (pfn) return pfn(pszPath, nFlags);
        if (NeedsMode(nFlags)) std::abort();
        return SysOpenAt(AT_FDCWD, pszPath, nFlags, 0);
    });
}

int VirtOpen64_2(const char* pszPath, int nFlags)
{
    return OpenCommon(pszPath, nFlags, [&] {
        const Open2Fn pfn = Next<Open2Fn>(g_pOpen64_2, "__open64_2");
        if (pfn) return pfn(pszPath, nFlags);
        if (NeedsMode(nFlags)) std::abort();
        return SysOpenAt(AT_FDCWD, pszPath, nFlags | O_LARGEFILE, 0);
    });
}

int VirtOpenAt2(int dirfd, const char* pszPath, int nFlags)
{
    return OpenCommon(pszPath, nFlags, [&] {
        const OpenAt2Fn pfn = Next<OpenAt2Fn>(g_pOpenAt2, "__openat_2");
        if (pfn) return pfn(dirfd, pszPath, nFlags);
        if (NeedsMode(nFlags)) std::abort();
        return SysOpenAt(dirfd, pszPath, nFlags, 0);
    });
}

int VirtOpenAt64_2(int dirfd, const char* pszPath, int nFlags)
{
    return OpenCommon(pszPath, nFlags, [&] {
        const OpenAt2Fn pfn = Next<OpenAt2Fn>(g_pOpenAt64_2, "__openat64_2");
        if (pfn) return pfn(dirfd, pszPath, nFlags);
        if (NeedsMode(nFlags)) std::abort();
        return SysOpenAt(dirfd, pszPath, nFlags | O_LARGEFILE, 0);
    });
}

int VirtClose(int fd)
{
    int nResult = 0;
    if (tavk05virt::MaybeVirtualFd(fd) && tavk05virt::VirtualClose(fd, &nResult)) {
        return nResult;
    }
    return tavk05virt::RealClose(fd);
}

int VirtIoctl(int fd, unsigned long nRequest, ...)
{
    // Every request of the kernel drivers takes at most one argument, a
    // pointer or a number no wider than one.
    va_list ap;
    va_start(ap, nRequest);
    void* pArg = va_arg(ap, void*);
    va_end(ap);
    int nResult = 0;
    if (tavk05virt::MaybeVirtualFd(fd) && tavk05virt::VirtualIoctl(fd, nRequest, pArg, &nResult)) {
        return nResult;
    }
    return tavk05virt::RealIoctl(fd, nRequest, pArg);
}

ssize_t VirtRead(int fd, void* pBuf, size_t nBytes)
{
    ssize_t nResult = 0;
    if (tavk05virt::MaybeVirtualFd(fd) && tavk05virt::VirtualRead(fd, pBuf, nBytes, &nResult)) {
        return nResult;
    }
    return tavk05virt::RealRead(fd, pBuf, nBytes);
}

ssize_t VirtReadChk(int fd, void* pBuf, size_t nBytes, size_t nBufLen)
{
    const ReadChkFn pfn = Next<ReadChkFn>(g_pReadChk, "__read_chk");
    if (nBytes > nBufLen) {
        // Let the C library report the overflow as it does for any read.
        if (pfn) return pfn(fd, pBuf, nBytes, nBufLen);
        std::abort();
    }
    ssize_t nResult = 0;
    if (tavk05virt::MaybeVirtualFd(fd) && tavk05virt::VirtualRead(fd, pBuf, nBytes, &nResult)) {
        return nResult;
    }
    return pfn ? pfn(fd, pBuf, nBytes, nBufLen) : syscall(SYS_read, fd, pBuf, nBytes);
}
