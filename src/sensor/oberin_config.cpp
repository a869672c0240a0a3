// The settings file: brightness, contrast, gain and scan mode carried from
// one use of the library to the next.
//
// The file is four fixed lines, "Brightness  =  40" and so on, each label 15
// characters wide. It is read back by absolute position, not by label, which
// is only right for two-digit brightness and contrast and a one-digit gain;
// other widths make some reads land on a digit or on the '=' sign. That
// behaviour is relied on by existing installations and is kept as it is.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "guardedpath/guarded_path.h"
#include "tavk05/oberin.h"

namespace {

const char kDefaultConfigPath[] = "/etc/tavk05rf.conf";

// Offsets of the four values as the reader expects them.
const long kBrightnessOffset = 15;
const long kContrastOffset = 33;
const long kGainOffset = 50;
const long kScanModeOffset = 67;

// How far the reader may look into the file: a value is found behind at most
// this many bytes of white space, and its digits end there at the latest.
// Whatever a file holds, reading it costs a few pages.
const long kReadLimit = 64 * 1024;

// An owned descriptor, closed when it goes out of scope.
class CFileDesc {
public:
    explicit CFileDesc(int fd = -1) : m_fd(fd) {}
    ~CFileDesc() { Reset(-1); }
    CFileDesc(const CFileDesc&) = delete;
    CFileDesc& operator=(const CFileDesc&) = delete;
    int Get() const { return m_fd; }
    bool Valid() const { return m_fd >= 0; }
    void Reset(int fd)
    {
        if (m_fd >= 0) ::close(m_fd);
        m_fd = fd;
    }
    // Closes the descriptor and reports whether the close succeeded.
    bool Close()
    {
        const int fd = m_fd;
        m_fd = -1;
        return fd < 0 || ::close(fd) == 0;
    }

private:
    int m_fd;
};

// Byte-wise access to the first kReadLimit bytes of an open file, fetched a
// block at a time as the parser asks for them.
class CPrefixReader {
public:
    explicit CPrefixReader(int fd) : m_fd(fd) {}
    // The byte at nPos, or -1 past the end of the file or of the limit.
    int At(long nPos)
    {
        if (nPos < 0 || nPos >= kReadLimit) return -1;
        if (nPos < m_nBlockStart || nPos >= m_nBlockStart + m_nBlockLen) {
            m_nBlockStart = nPos - nPos % static_cast<long>(sizeof(m_aby));
            m_nBlockLen = 0;
            ssize_t nGot;
            do {
                nGot = ::pread(m_fd, m_aby, sizeof(m_aby), m_nBlockStart);
            } while (nGot < 0 && errno == EINTR);
            if (nGot > 0) m_nBlockLen = nGot;
            if (nPos >= m_nBlockStart + m_nBlockLen) return -1;
        }
        return m_aby[nPos - m_nBlockStart];
    }

private:
    int m_fd;
    long m_nBlockStart = 0;
    long m_nBlockLen = 0;
    unsigned char m_aby[512];
};

bool IsSpace(int c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

// Reads one decimal number at nOffset into *pnValue as "%d" would: white
// space skipped, an optional sign, digits of any count; a value too large
// for a long saturates as the C library's conversion does (the magnitude is
// clamped before it could wrap) and is then narrowed to int. No number
// leaves *pnValue as it was.
void ReadValueAt(CPrefixReader& reader, long nOffset, unsigned long* pnValue)
{
    long nPos = nOffset;
    while (IsSpace(reader.At(nPos))) ++nPos;
    bool bNegative = false;
    int c = reader.At(nPos);
    if (c == '+' || c == '-') {
        bNegative = (c == '-');
        c = reader.At(++nPos);
    }
    if (c < '0' || c > '9') return;
    unsigned long long nMagnitude = 0;
    const unsigned long long nLimit =
        bNegative ? static_cast<unsigned long long>(LONG_MAX) + 1ULL : static_cast<unsigned long long>(LONG_MAX);
    for (; c >= '0' && c <= '9'; c = reader.At(++nPos)) {
        const unsigned nDigit = static_cast<unsigned>(c - '0');
        nMagnitude = nMagnitude > (nLimit - nDigit) / 10 ? nLimit : nMagnitude * 10 + nDigit;
    }
    const long nLong =
        bNegative ? (nMagnitude == nLimit ? LONG_MIN : -static_cast<long>(nMagnitude)) : static_cast<long>(nMagnitude);
    const int nValue = static_cast<int>(nLong);
    *pnValue = static_cast<unsigned long>(static_cast<long>(nValue));
}

bool WriteAll(int fd, const char* p, size_t n)
{
    while (n > 0) {
        const ssize_t nDone = ::write(fd, p, n);
        if (nDone < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += nDone;
        n -= static_cast<size_t>(nDone);
    }
    return true;
}

// Temporaries of this file are named "<name>.tmp.<pid>.<n>". A process
// killed between creating and renaming one leaves it behind; those of
// processes that no longer exist are removed before the next save.
std::string TempName(const std::string& strName, unsigned nTry)
{
    return strName + ".tmp." + std::to_string(static_cast<long>(::getpid())) + "." + std::to_string(nTry);
}

void RemoveStaleTemporaries(int nDir, const std::string& strName)
{
    const std::string strPrefix = strName + ".tmp.";
    const int nList = ::openat(nDir, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* pDir = nList >= 0 ? ::fdopendir(nList) : nullptr;
    if (pDir == nullptr) {
        if (nList >= 0) ::close(nList);
        return;
    }
    while (const struct dirent* pEntry = ::readdir(pDir)) {
        const char* pszName = pEntry->d_name;
        if (std::strncmp(pszName, strPrefix.c_str(), strPrefix.size()) != 0) continue;
        char* pEnd = nullptr;
        errno = 0;
        const long nPid = std::strtol(pszName + strPrefix.size(), &pEnd, 10);
        if (errno != 0 || nPid <= 0 || nPid > INT_MAX || *pEnd != '.') continue;
        char* pEndTry = nullptr;
        std::strtoul(pEnd + 1, &pEndTry, 10);
        if (pEndTry == pEnd + 1 || *pEndTry != '\0') continue;
        if (::kill(static_cast<pid_t>(nPid), 0) == 0 || errno != ESRCH) continue;  // still alive
        struct stat st;
        if (::fstatat(nDir, pszName, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) &&
            st.st_uid == ::geteuid()) {
            ::unlinkat(nDir, pszName, 0);
        }
    }
    ::closedir(pDir);
}

// Gives the new file the permissions and, where allowed, the owner of the
// file it replaces, so that a file an administrator opened up for other users
// stays open after the replacement.
void CopyAttributes(const struct stat& stOld, int fd)
{
    if (::fchown(fd, stOld.st_uid, stOld.st_gid) != 0) {
        // Only a privileged process may give a file away; keep our own.
    }
    ::fchmod(fd, stOld.st_mode & 07777);
}

// Writes szText to a new file in the directory nDir and renames it over
// strName there, so that a crash leaves either the old or the new file, never
// half of one. The new file is made unnamed (O_TMPFILE) where the system
// offers that, and gets a name only for the instant before the rename.
// False when the directory does not allow a new file.
bool ReplaceAtomically(int nDir, const std::string& strName, const struct stat* pOld, const char* pszText,
                       size_t nBytes, bool bUnnamedAllowed = true)
{
    CFileDesc fd(bUnnamedAllowed ? ::openat(nDir, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666) : -1);
    const bool bUnnamed = fd.Valid();
    std::string strTemp;
    if (!bUnnamed) {
        for (unsigned nTry = 0; nTry < 16 && !fd.Valid(); ++nTry) {
            strTemp = TempName(strName, nTry);
            fd.Reset(::openat(nDir, strTemp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666));
            if (!fd.Valid() && errno != EEXIST) return false;
        }
        if (!fd.Valid()) return false;
    }
    if (pOld != nullptr) CopyAttributes(*pOld, fd.Get());
    bool bDone = WriteAll(fd.Get(), pszText, nBytes) && ::fsync(fd.Get()) == 0;
    if (bDone && bUnnamed) {
        // Give the finished file a name; linkat through /proc needs no privilege.
        const std::string strProc = "/proc/self/fd/" + std::to_string(fd.Get());
        bDone = false;
        for (unsigned nTry = 0; nTry < 16; ++nTry) {
            strTemp = TempName(strName, nTry);
            if (::linkat(AT_FDCWD, strProc.c_str(), nDir, strTemp.c_str(), AT_SYMLINK_FOLLOW) == 0) {
                bDone = true;
                break;
            }
            if (errno != EEXIST) break;
        }
        if (!bDone) {
            // No /proc to name it through: use a named temporary instead.
            fd.Reset(-1);
            return ReplaceAtomically(nDir, strName, pOld, pszText, nBytes, false);
        }
    }
    bDone = fd.Close() && bDone;
    if (bDone && ::renameat(nDir, strTemp.c_str(), nDir, strName.c_str()) == 0) return true;
    if (!strTemp.empty()) ::unlinkat(nDir, strTemp.c_str(), 0);
    return true;  // the directory allowed a new file; the old one stays as it was
}

}  // namespace

const char* COberin::ConfigPath()
{
    // A privileged process (set-user-ID and the like) ignores the variable:
    // otherwise whoever runs it could have any file replaced by the settings.
    const char* pszPath = ::secure_getenv("TAVK05_CONF");
    if (pszPath != nullptr && *pszPath != '\0') {
        return pszPath;
    }
    return kDefaultConfigPath;
}

void COberin::RetrieveConfig()
{
    // The file is reached without following a link another user planted
    // (guarded_path.h), and opened without blocking, so that a FIFO at the
    // path cannot stall OpenDevice. Only a regular file is read: anything
    // else that opens (a directory, a FIFO, a device) gives no numbers, like
    // an empty file.
    CFileDesc fd;
    try {
        tavk05path::CResolved path;
        if (tavk05path::Resolve(ConfigPath(), tavk05path::kKernelRule, true, &path) == 0) {
            fd.Reset(::openat(path.m_nDirFd, path.m_strName.c_str(),
                              O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC));
        }
    } catch (...) {
        // No memory for the path strings: as if the file could not be opened.
    }
    if (!fd.Valid()) {
        m_nBrightness = 40;
        m_nContrast = 20;
        m_nGain = 1;
        m_nScanMode = 0;
        return;
    }
    struct stat st;
    if (::fstat(fd.Get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        return;
    }
    CPrefixReader reader(fd.Get());
    ReadValueAt(reader, kBrightnessOffset, &m_nBrightness);
    ReadValueAt(reader, kContrastOffset, &m_nContrast);
    ReadValueAt(reader, kGainOffset, &m_nGain);
    ReadValueAt(reader, kScanModeOffset, &m_nScanMode);
}

// Saves the four lines. The save changes a file only where opening it for
// writing would have succeeded, and only a regular file: a device node, FIFO,
// socket or directory at the path is left alone, as is a file this process
// may not write. A symbolic link is followed and the file it names is
// updated, unless another user planted it (guarded_path.h). Where the
// directory allows a new file the update is atomic (temporary file and
// rename, mode and owner kept); where only the file itself is writable it is
// rewritten in place. Failures are not reported.
void COberin::SaveConfig()
{
    char szText[160];
    const int nLen = std::snprintf(szText, sizeof(szText),
                                   "Brightness  =  %d\n"
                                   "Contrast    =  %d\n"
                                   "Gain        =  %d\n"
                                   "ScanMode    =  %d\n",
                                   static_cast<int>(m_nBrightness), static_cast<int>(m_nContrast),
                                   static_cast<int>(m_nGain), static_cast<int>(m_nScanMode));
    if (nLen <= 0 || static_cast<size_t>(nLen) >= sizeof(szText)) {
        return;
    }
    const size_t nBytes = static_cast<size_t>(nLen);

    try {
        tavk05path::CResolved path;
        if (tavk05path::Resolve(ConfigPath(), tavk05path::kKernelRule, true, &path) != 0) return;
        const int nDir = path.m_nDirFd;
        const std::string& strName = path.m_strName;
        struct stat st;
        if (::fstatat(nDir, strName.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno != ENOENT) return;
            // A new file: only where its directory allows one.
            RemoveStaleTemporaries(nDir, strName);
            ReplaceAtomically(nDir, strName, nullptr, szText, nBytes);
            return;
        }
        if (!S_ISREG(st.st_mode)) return;
        CFileDesc fd(::openat(nDir, strName.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC));
        struct stat stOpen;
        if (!fd.Valid() || ::fstat(fd.Get(), &stOpen) != 0 || !S_ISREG(stOpen.st_mode)) return;
        RemoveStaleTemporaries(nDir, strName);
        if (ReplaceAtomically(nDir, strName, &stOpen, szText, nBytes)) return;
        // The directory is not ours but the file is writable: rewrite it in
        // place, new text first, then cut off what is left of the old.
        if (::pwrite(fd.Get(), szText, nBytes, 0) == static_cast<ssize_t>(nBytes)) {
            if (::ftruncate(fd.Get(), static_cast<off_t>(nBytes)) == 0) ::fsync(fd.Get());
        }
    } catch (...) {
        // No memory for the path strings: nothing is written.
    }
}
