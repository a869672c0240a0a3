// The settings file: brightness, contrast, gain and scan mode carried from
// one use of the library to the next.
//
// The file is four fixed lines, "Brightness  =  40" and so on, each label 15
// characters wide. It is read back by absolute position, not by label, which
// is only right for two-digit brightness and contrast and a one-digit gain;
// other widths make some reads land on a digit or on the '=' sign. That
// behaviour is relied on by existing installations and is kept as it is.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tavk05/oberin.h"

namespace {

const char kDefaultConfigPath[] = "/etc/tavk05rf.conf";

// Offsets of the four values as the reader expects them.
const long kBrightnessOffset = 15;
const long kContrastOffset = 33;
const long kGainOffset = 50;
const long kScanModeOffset = 67;

// Reads one decimal number at nOffset into *pnValue; no number leaves it.
void ReadValueAt(FILE* pFile, long nOffset, unsigned long* pnValue)
{
    if (std::fseek(pFile, nOffset, SEEK_SET) != 0) {
        return;
    }
    int nValue = 0;
    if (std::fscanf(pFile, "%d", &nValue) == 1) {
        *pnValue = static_cast<unsigned long>(static_cast<long>(nValue));
    }
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

// Creates a fresh temporary file beside strTarget; -1 when the directory
// does not allow it. The mode is that of a file made by fopen (0666 less the
// umask).
int CreateTempBeside(const std::string& strTarget, std::string* pstrTemp)
{
    for (unsigned nTry = 0; nTry < 16; ++nTry) {
        *pstrTemp = strTarget + ".tmp." + std::to_string(static_cast<long>(::getpid())) + "." +
                    std::to_string(nTry);
        const int fd = ::open(pstrTemp->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0) {
            return fd;
        }
        if (errno != EEXIST) {
            return -1;
        }
    }
    return -1;
}

// Gives the new file the permissions and, where allowed, the owner of the
// file it replaces, so that a file an administrator opened up for other users
// stays open after the replacement.
void CopyAttributes(const std::string& strTarget, int fd)
{
    struct stat st;
    if (::stat(strTarget.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        return;
    }
    if (::fchown(fd, st.st_uid, st.st_gid) != 0) {
        // Only a privileged process may give a file away; keep our own.
    }
    ::fchmod(fd, st.st_mode & 07777);
}

}  // namespace

const char* COberin::ConfigPath()
{
    const char* pszPath = std::getenv("TAVK05_CONF");
    if (pszPath != nullptr && *pszPath != '\0') {
        return pszPath;
    }
    return kDefaultConfigPath;
}

void COberin::RetrieveConfig()
{
    FILE* pFile = std::fopen(ConfigPath(), "r");
    if (pFile == nullptr) {
        m_nBrightness = 40;
        m_nContrast = 20;
        m_nGain = 1;
        m_nScanMode = 0;
        return;
    }
    ReadValueAt(pFile, kBrightnessOffset, &m_nBrightness);
    ReadValueAt(pFile, kContrastOffset, &m_nContrast);
    ReadValueAt(pFile, kGainOffset, &m_nGain);
    ReadValueAt(pFile, kScanModeOffset, &m_nScanMode);
    std::fclose(pFile);
}

// Writes the four lines to a temporary file in the same directory and
// renames it over the settings file, so that a crash leaves either the old
// or the new file, never half of one. When the directory does not allow a
// new file but the settings file itself is writable, the file is rewritten
// in place. When neither works, or a write fails, the old file is left as it
// was and nothing is reported.
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
        const std::string strTarget = ConfigPath();
        std::string strTemp;
        const int fd = CreateTempBeside(strTarget, &strTemp);
        if (fd >= 0) {
            CopyAttributes(strTarget, fd);
            const bool bWritten = WriteAll(fd, szText, nBytes) && ::fsync(fd) == 0;
            const bool bClosed = ::close(fd) == 0;
            if (!(bWritten && bClosed && std::rename(strTemp.c_str(), strTarget.c_str()) == 0)) {
                // Short of space, or the target cannot be replaced (a
                // directory, say): the old file stays as it was.
                ::unlink(strTemp.c_str());
            }
            return;
        }
    } catch (...) {
        // No memory for the path strings: fall through to the direct write.
    }

    FILE* pFile = std::fopen(ConfigPath(), "w+");
    if (pFile == nullptr) {
        return;
    }
    std::fwrite(szText, 1, nBytes, pFile);
    std::fclose(pFile);
}
