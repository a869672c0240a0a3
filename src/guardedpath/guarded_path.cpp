// Path walk that refuses links planted by other users (see guarded_path.h).
#include "guardedpath/guarded_path.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace tavk05path {

namespace {

// Links followed in one walk, as the kernel allows.
const int kMaxLinks = 40;

// Pushes the components of strPath onto the stack of names still to walk,
// the first component on top. Empty names between slashes mean nothing; a
// trailing slash says the path names a directory, kept as an empty last name.
void PushComponents(const std::string& strPath, std::vector<std::string>* pStack)
{
    std::vector<std::string> vec;
    for (size_t nStart = 0;;) {
        const size_t nEnd = strPath.find('/', nStart);
        const std::string strPiece = strPath.substr(nStart, nEnd == std::string::npos ? nEnd : nEnd - nStart);
        if (!strPiece.empty()) vec.push_back(strPiece);
        if (nEnd == std::string::npos) break;
        nStart = nEnd + 1;
    }
    if (strPath.empty() || strPath.back() == '/') vec.push_back("");
    pStack->insert(pStack->end(), vec.rbegin(), vec.rend());
}

bool MayFollow(const struct stat& stLink, const struct stat& stDir, ELinkRule eRule)
{
    const uid_t nMe = ::geteuid();
    if (stLink.st_uid == nMe) return true;
    if (eRule == kOwnOrRoot) return stLink.st_uid == 0;
    const bool bShared = (stDir.st_mode & S_ISVTX) != 0 && (stDir.st_mode & S_IWOTH) != 0;
    return !bShared || stLink.st_uid == stDir.st_uid;
}

}  // namespace

CResolved::~CResolved()
{
    if (m_nDirFd >= 0) ::close(m_nDirFd);
}

int Resolve(const char* pszPath, ELinkRule eRule, bool bFollowLast, CResolved* pOut)
{
    if (pOut->m_nDirFd >= 0) ::close(pOut->m_nDirFd);
    pOut->m_nDirFd = -1;
    const std::string strPath = pszPath != nullptr ? pszPath : "";
    if (strPath.empty()) return ENOENT;
    std::vector<std::string> vecStack;
    PushComponents(strPath, &vecStack);
    int nDir = ::open(strPath[0] == '/' ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (nDir < 0) return errno;
    std::string strShown = strPath[0] == '/' ? "" : ".";  // the path as walked, for messages
    int nLinks = 0;
    int nResult = 0;
    while (nResult == 0) {
        const std::string strName = vecStack.back();
        vecStack.pop_back();
        const bool bLast = vecStack.empty();
        if (bLast && (strName.empty() || strName == "." || strName == "..")) {
            nResult = EISDIR;
            break;
        }
        if (strName.empty() || strName == ".") continue;
        struct stat st;
        if (::fstatat(nDir, strName.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            nResult = errno;
            if (nResult == ENOENT && bLast) nResult = 0;  // a file not made yet
            if (nResult == 0) {
                pOut->m_strName = strName;
                pOut->m_nDirFd = nDir;
                return 0;
            }
            break;
        }
        if (S_ISLNK(st.st_mode) && (!bLast || bFollowLast)) {
            // Owner and text are read from the link itself through one
            // descriptor, so both belong to the same link.
            const int nLink = ::openat(nDir, strName.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
            struct stat stLink, stDir;
            char szText[PATH_MAX];
            ssize_t nLen = -1;
            if (nLink >= 0 && ::fstat(nLink, &stLink) == 0 && S_ISLNK(stLink.st_mode) && ::fstat(nDir, &stDir) == 0) {
                if (!MayFollow(stLink, stDir, eRule)) {
                    pOut->m_strRefused = strShown + "/" + strName;
                    nResult = kLinkRefused;
                } else if (++nLinks > kMaxLinks) {
                    nResult = ELOOP;
                } else {
                    nLen = ::readlinkat(nLink, "", szText, sizeof(szText));
                    if (nLen < 0)
                        nResult = errno;
                    else if (nLen == 0)
                        nResult = ENOENT;
                    else if (nLen >= static_cast<ssize_t>(sizeof(szText)))
                        nResult = ENAMETOOLONG;
                }
            } else {
                nResult = nLink < 0 ? errno : EAGAIN;  // replaced under our feet
            }
            if (nLink >= 0) ::close(nLink);
            if (nResult != 0) break;
            const std::string strTarget(szText, static_cast<size_t>(nLen));
            PushComponents(strTarget, &vecStack);
            if (strTarget[0] == '/') {
                const int nRoot = ::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
                if (nRoot < 0) {
                    nResult = errno;
                    break;
                }
                ::close(nDir);
                nDir = nRoot;
                strShown.clear();
            }
            continue;
        }
        if (bLast) {
            pOut->m_strName = strName;
            pOut->m_nDirFd = nDir;
            return 0;
        }
        // A directory on the way; O_NOFOLLOW refuses a link put there since.
        const int nNext = ::openat(nDir, strName.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (nNext < 0) {
            nResult = errno == ELOOP ? ENOTDIR : errno;
            break;
        }
        ::close(nDir);
        nDir = nNext;
        strShown += "/" + strName;
    }
    ::close(nDir);
    return nResult;
}

}  // namespace tavk05path
