// Resolving a path without following a symbolic link another user planted.
//
// The path is walked one component at a time, each directory held by a
// descriptor, so nothing is looked up by name twice: the caller opens,
// creates and renames relative to the directory descriptor it gets back. A
// link is followed only where the rule in force allows it, whatever the
// kernel's own fs.protected_symlinks setting:
//  - kKernelRule: as the kernel's guard decides. A link in a sticky,
//    world-writable directory (such as /tmp) is followed only when it belongs
//    to this process's user or to the directory's owner.
//  - kOwnOrRoot: a link anywhere is followed only when it belongs to this
//    process's user or to root (the system's own links, such as /var/run).
#ifndef TAVK05_GUARDED_PATH_H
#define TAVK05_GUARDED_PATH_H

#include <string>

namespace tavk05path {

enum ELinkRule { kKernelRule, kOwnOrRoot };

// Result of a walk that refused a link (errno values are positive).
const int kLinkRefused = -1;

class CResolved {
public:
    CResolved() = default;
    ~CResolved();
    CResolved(const CResolved&) = delete;
    CResolved& operator=(const CResolved&) = delete;

    int m_nDirFd = -1;         // the directory holding the last component (O_PATH)
    std::string m_strName;     // the last component, never a link when it was followed
    std::string m_strRefused;  // with kLinkRefused: the link that was not followed, as reached
};

// Walks pszPath. bFollowLast: a link in the last component is followed too
// (otherwise the caller sees the link itself). 0 when the directory of the
// last component was reached (the last component itself need not exist),
// kLinkRefused, or an errno value (EISDIR for a path that names a directory
// by its form: empty last component, "." or "..").
int Resolve(const char* pszPath, ELinkRule eRule, bool bFollowLast, CResolved* pOut);

}  // namespace tavk05path

#endif
