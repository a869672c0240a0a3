// Session recording and playback (see vscanner_session.h).
#include "vscanner_session.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "vscanner_registry.h"
#include "vscanner_requests.h"

namespace tavk05virt {

namespace {

const unsigned char kMagic[8] = {'T', 'A', 'V', 'K', '0', '5', 'S', 0x1A};
const std::uint32_t kVersion = 1;
const std::size_t kHeaderBytes = 16;
const std::size_t kHeadBytes = 28;
const unsigned char kFlagRepeat = 1;
// Limits a recording must keep: far above any session of the real device
// (its largest transfer is 2,304,000 bytes), low enough that a hostile file
// cannot make the player index without end.
const std::uint64_t kMaxReadBytes = 64u << 20;
const std::size_t kMaxEvents = 1000000;
const int kMaxErrno = 4095;

void Put32(unsigned char* p, std::uint32_t n)
{
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(n >> (8 * i));
}

std::uint32_t Get32(const unsigned char* p)
{
    std::uint32_t n = 0;
    for (int i = 3; i >= 0; --i) n = (n << 8) | p[i];
    return n;
}

std::uint64_t Get64(const unsigned char* p) { return Get32(p) | (static_cast<std::uint64_t>(Get32(p + 4)) << 32); }

bool WriteAll(int fd, const void* pData, std::size_t nBytes)
{
    const unsigned char* p = static_cast<const unsigned char*>(pData);
    while (nBytes > 0) {
        const ssize_t n = write(fd, p, nBytes);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        nBytes -= static_cast<std::size_t>(n);
    }
    return true;
}

bool ReadAt(int fd, void* pBuf, std::size_t nBytes, off_t nOffset)
{
    unsigned char* p = static_cast<unsigned char*>(pBuf);
    while (nBytes > 0) {
        const ssize_t n = pread(fd, p, nBytes, nOffset);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        nBytes -= static_cast<std::size_t>(n);
        nOffset += n;
    }
    return true;
}

std::string Hex(unsigned n)
{
    char sz[8];
    std::snprintf(sz, sizeof sz, "0x%02x", n & 0xFFu);
    return sz;
}

std::string OnDescriptor(unsigned long nHandle) { return " on descriptor " + std::to_string(nHandle); }

}  // namespace

// ---- Recorder ----

CSessionRecorder::CSessionRecorder(int fd, const std::string& strPath)
    : m_fd(fd), m_strPath(strPath), m_bStarted(false), m_nEvents(0)
{
}

CSessionRecorder::~CSessionRecorder() { RealClose(m_fd); }

std::unique_ptr<CSessionRecorder> CSessionRecorder::Create(const std::string& strPath, std::string* pError)
{
    // Opened without O_TRUNC, and emptied only by the first event once it is
    // known to be a regular file: record= cannot wipe a device or follow a
    // link, and a process that inherits the configuration but never uses
    // the unit (a shell in front of the host) leaves the file alone.
    const int fd = RealOpen(strPath.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
        *pError = "record: cannot create '" + strPath + "': " + std::strerror(errno);
        return nullptr;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        *pError = "record: '" + strPath + "' is not a regular file";
        RealClose(fd);
        return nullptr;
    }
    return std::unique_ptr<CSessionRecorder>(new CSessionRecorder(fd, strPath));
}

void CSessionRecorder::Write(EventKind eKind, unsigned char byFlags, unsigned long nHandle, unsigned long nRequest,
                             int nErrno, std::uint64_t nAsked, const void* pData, std::size_t nLength,
                             std::size_t nWritten)
{
    if (!m_strError.empty()) return;
    if (!m_bStarted) {
        unsigned char abyHeader[kHeaderBytes] = {};
        std::memcpy(abyHeader, kMagic, sizeof kMagic);
        Put32(abyHeader + 8, kVersion);
        if (ftruncate(m_fd, 0) != 0 || lseek(m_fd, 0, SEEK_SET) != 0 || !WriteAll(m_fd, abyHeader, kHeaderBytes)) {
            m_strError = "writing '" + m_strPath + "' failed: " + std::strerror(errno);
            std::fprintf(stderr, "tavk05-virtual: record: %s; nothing recorded\n", m_strError.c_str());
            return;
        }
        m_bStarted = true;
    }
    unsigned char abyHead[kHeadBytes] = {};
    abyHead[0] = eKind;
    abyHead[1] = byFlags;
    Put32(abyHead + 4, static_cast<std::uint32_t>(nHandle));
    Put32(abyHead + 8, static_cast<std::uint32_t>(nRequest));
    Put32(abyHead + 12, static_cast<std::uint32_t>(nErrno));
    Put32(abyHead + 16, static_cast<std::uint32_t>(nAsked));
    Put32(abyHead + 20, static_cast<std::uint32_t>(nAsked >> 32));
    Put32(abyHead + 24, static_cast<std::uint32_t>(nLength));
    if (!WriteAll(m_fd, abyHead, sizeof abyHead) || !WriteAll(m_fd, pData, nWritten)) {
        m_strError = "writing '" + m_strPath + "' failed: " + std::strerror(errno);
        std::fprintf(stderr, "tavk05-virtual: record: %s; recording stopped\n", m_strError.c_str());
        return;
    }
    ++m_nEvents;
}

void CSessionRecorder::Open(unsigned long nHandle, int nErrno)
{
    Write(kEventOpen, 0, nErrno == 0 ? nHandle : 0, 0, nErrno, 0, nullptr, 0, 0);
}

void CSessionRecorder::Close(unsigned long nHandle) { Write(kEventClose, 0, nHandle, 0, 0, 0, nullptr, 0, 0); }

void CSessionRecorder::Request(unsigned long nHandle, unsigned long nRequest, const unsigned char* pBlock,
                               std::size_t nBlock, int nErrno)
{
    if (pBlock == nullptr) nBlock = 0;
    Write(kEventRequest, 0, nHandle, nRequest, nErrno, 0, pBlock, nBlock, nBlock);
}

void CSessionRecorder::Read(unsigned long nHandle, std::size_t nAsked, ssize_t nResult, const void* pData)
{
    if (nResult < 0) {
        Write(kEventRead, 0, nHandle, 0, static_cast<int>(-nResult), nAsked, nullptr, 0, 0);
        return;
    }
    const std::size_t nBytes = static_cast<std::size_t>(nResult);
    if (nBytes > 0 && nBytes <= m_vecLastRead.size() && std::memcmp(m_vecLastRead.data(), pData, nBytes) == 0) {
        Write(kEventRead, kFlagRepeat, nHandle, 0, 0, nAsked, nullptr, nBytes, 0);
        return;
    }
    Write(kEventRead, 0, nHandle, 0, 0, nAsked, pData, nBytes, nBytes);
    if (nBytes > 0) {
        try {
            const unsigned char* p = static_cast<const unsigned char*>(pData);
            m_vecLastRead.assign(p, p + nBytes);
        } catch (...) {
            m_vecLastRead.clear();  // no repeats then, but still a correct recording
        }
    }
}

// ---- Player ----

CSessionReplay::CSessionReplay(int fd, const std::string& strPath, int nIndex)
    : m_fd(fd), m_strPath(strPath), m_nIndex(nIndex), m_nNext(0)
{
}

CSessionReplay::~CSessionReplay() { RealClose(m_fd); }

std::unique_ptr<CSessionReplay> CSessionReplay::Load(const std::string& strPath, int nIndex, std::string* pError)
{
    const int fd = RealOpen(strPath.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0);
    if (fd < 0) {
        *pError = "replay: cannot open '" + strPath + "': " + std::strerror(errno);
        return nullptr;
    }
    std::unique_ptr<CSessionReplay> pReplay(new CSessionReplay(fd, strPath, nIndex));
    const std::string strWhere = "replay: '" + strPath + "': ";
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        *pError = strWhere + "not a regular file";
        return nullptr;
    }
    const std::uint64_t nSize = static_cast<std::uint64_t>(st.st_size);
    unsigned char abyHeader[kHeaderBytes];
    if (nSize < kHeaderBytes || !ReadAt(fd, abyHeader, kHeaderBytes, 0) ||
        std::memcmp(abyHeader, kMagic, sizeof kMagic) != 0) {
        *pError = strWhere + "not a session recording";
        return nullptr;
    }
    if (Get32(abyHeader + 8) != kVersion || Get32(abyHeader + 12) != 0) {
        *pError = strWhere + "recording version " + std::to_string(Get32(abyHeader + 8)) + " is not supported";
        return nullptr;
    }

    std::uint64_t nPos = kHeaderBytes;
    unsigned long nOpens = 0;
    bool bLastRead = false;
    off_t nLastReadData = 0;
    std::size_t nLastReadLength = 0;
    while (nPos < nSize) {
        const std::string strEvent =
            strWhere + "event " + std::to_string(pReplay->m_vecEvents.size() + 1) + " at byte " + std::to_string(nPos);
        if (pReplay->m_vecEvents.size() >= kMaxEvents) {
            *pError = strWhere + "more than " + std::to_string(kMaxEvents) + " events";
            return nullptr;
        }
        unsigned char abyHead[kHeadBytes];
        if (nSize - nPos < kHeadBytes || !ReadAt(fd, abyHead, kHeadBytes, static_cast<off_t>(nPos))) {
            *pError = strEvent + ": cut short";
            return nullptr;
        }
        nPos += kHeadBytes;
        Event ev;
        ev.eKind = static_cast<EventKind>(abyHead[0]);
        const unsigned char byFlags = abyHead[1];
        ev.nHandle = Get32(abyHead + 4);
        ev.nRequest = Get32(abyHead + 8);
        const std::uint32_t nErrno = Get32(abyHead + 12);
        ev.nAsked = Get64(abyHead + 16);
        const std::uint32_t nLength = Get32(abyHead + 24);
        ev.nErrno = static_cast<int>(nErrno & 0xFFFF);
        ev.nLength = nLength;
        ev.nData = static_cast<off_t>(nPos);

        std::string strBad;
        const bool bKnownHandle = ev.nHandle >= 1 && ev.nHandle <= nOpens;
        std::uint64_t nStored = nLength;
        if (abyHead[2] != 0 || abyHead[3] != 0 || nErrno > static_cast<std::uint32_t>(kMaxErrno)) {
            strBad = "corrupt head";
        } else if ((ev.eKind == kEventRequest || ev.eKind == kEventRead) && !bKnownHandle) {
            strBad = "descriptor " + std::to_string(ev.nHandle) + " was never opened";
        } else if (ev.eKind == kEventOpen || ev.eKind == kEventClose) {
            const unsigned long nWant = ev.eKind == kEventClose ? ev.nHandle : (ev.nErrno == 0 ? nOpens + 1 : 0);
            if (byFlags != 0 || ev.nRequest != 0 || ev.nAsked != 0 || nLength != 0) {
                strBad = "corrupt head";
            } else if (ev.nHandle != nWant || (ev.eKind == kEventClose && !bKnownHandle)) {
                strBad = "descriptor " + std::to_string(ev.nHandle) + " out of order";
            } else if (ev.eKind == kEventOpen && ev.nErrno == 0) {
                ++nOpens;
            }
        } else if (ev.eKind == kEventRequest) {
            const RequestInfo* pInfo = FindRequest(ev.nRequest);
            const std::size_t nBlock = pInfo != nullptr ? pInfo->nBlock : 0;
            const bool bBlockKept = pInfo != nullptr && (pInfo->eUse == kBlockIn || ev.nErrno == 0);
            if (byFlags != 0 || ev.nAsked != 0) {
                strBad = "corrupt head";
            } else if (nLength != (bBlockKept ? nBlock : 0) && !(nLength == 0 && ev.nErrno != 0)) {
                strBad =
                    "request " + std::to_string(ev.nRequest) + " with a block of " + std::to_string(nLength) + " bytes";
            }
        } else if (ev.eKind == kEventRead) {
            if ((byFlags & ~kFlagRepeat) != 0 || ev.nRequest != 0) {
                strBad = "corrupt head";
            } else if (ev.nAsked > kMaxReadBytes || nLength > ev.nAsked || (ev.nErrno != 0 && nLength != 0)) {
                strBad = "read of " + std::to_string(nLength) + " of " + std::to_string(ev.nAsked) + " bytes";
            } else if ((byFlags & kFlagRepeat) != 0) {
                if (!bLastRead || nLength == 0 || nLength > nLastReadLength || ev.nErrno != 0) {
                    strBad = "repeats no earlier frame";
                }
                ev.nData = nLastReadData;
                nStored = 0;
            } else if (nLength > 0) {
                bLastRead = true;
                nLastReadData = ev.nData;
                nLastReadLength = nLength;
            }
        } else {
            strBad = "unknown event kind " + std::to_string(abyHead[0]);
        }
        if (strBad.empty() && nStored > nSize - nPos) {
            strBad = "declares " + std::to_string(nStored) + " bytes, the file holds " + std::to_string(nSize - nPos);
        }
        if (!strBad.empty()) {
            *pError = strEvent + ": " + strBad;
            return nullptr;
        }
        nPos += nStored;
        pReplay->m_vecEvents.push_back(ev);
    }
    return pReplay;
}

std::string CSessionReplay::Describe(const Event& event) const
{
    switch (event.eKind) {
        case kEventOpen:
            return "open";
        case kEventClose:
            return "close" + OnDescriptor(event.nHandle);
        case kEventRequest:
            return "request " + std::to_string(event.nRequest) + OnDescriptor(event.nHandle);
        case kEventRead:
            return "read of " + std::to_string(event.nAsked) + " bytes" + OnDescriptor(event.nHandle);
    }
    return "?";
}

void CSessionReplay::Diverge(const std::string& strExpected, const std::string& strGot)
{
    if (!m_strDivergence.empty()) return;
    m_strDivergence = "event " + std::to_string(m_nNext + 1) + " of " + std::to_string(m_vecEvents.size()) +
                      ": expected " + strExpected + ", got " + strGot;
    std::fprintf(stderr, "tavk05-virtual: unit %d: replay of '%s' diverges at %s\n", m_nIndex, m_strPath.c_str(),
                 m_strDivergence.c_str());
}

const CSessionReplay::Event* CSessionReplay::Next(EventKind eKind, unsigned long nHandle, const std::string& strGot)
{
    if (!m_strDivergence.empty()) return nullptr;
    if (m_nNext >= m_vecEvents.size()) {
        Diverge("the end of the recording", strGot);
        return nullptr;
    }
    const Event& ev = m_vecEvents[m_nNext];
    if (ev.eKind != eKind || (eKind != kEventOpen && ev.nHandle != nHandle)) {
        Diverge(Describe(ev), strGot);
        return nullptr;
    }
    return &ev;
}

int CSessionReplay::Open(unsigned long nHandle)
{
    const Event* pEv = Next(kEventOpen, nHandle, "open");
    if (pEv == nullptr) return EIO;
    ++m_nNext;
    return pEv->nErrno;
}

void CSessionReplay::Close(unsigned long nHandle)
{
    if (Next(kEventClose, nHandle, "close" + OnDescriptor(nHandle)) != nullptr) ++m_nNext;
}

int CSessionReplay::Request(unsigned long nHandle, unsigned long nRequest, unsigned char* pBlock, std::size_t nBlock)
{
    const std::string strGot = "request " + std::to_string(nRequest) + OnDescriptor(nHandle);
    const Event* pEv = Next(kEventRequest, nHandle, strGot);
    if (pEv == nullptr) return -EIO;
    if (pEv->nRequest != nRequest) {
        Diverge(Describe(*pEv), strGot);
        return -EIO;
    }
    const RequestInfo* pInfo = FindRequest(nRequest);
    const bool bIn = pInfo != nullptr && pInfo->eUse == kBlockIn;
    if (pEv->nLength > 0 && (pBlock == nullptr || nBlock != pEv->nLength)) {
        Diverge(Describe(*pEv) + " with a block", strGot + " without one");
        return -EIO;
    }
    if (bIn && pEv->nLength > 0) {
        unsigned char abyRecorded[128];
        if (nBlock > sizeof abyRecorded || !ReadAt(m_fd, abyRecorded, nBlock, pEv->nData)) {
            Diverge("the recorded block", "a recording file that changed since it was loaded");
            return -EIO;
        }
        for (std::size_t i = 0; i < nBlock; ++i) {
            if (abyRecorded[i] != pBlock[i]) {
                const std::string strByte = " with byte " + std::to_string(i) + " = ";
                Diverge(Describe(*pEv) + strByte + Hex(abyRecorded[i]), strGot + strByte + Hex(pBlock[i]));
                return -EIO;
            }
        }
    }
    if (pEv->nErrno != 0) {
        ++m_nNext;
        return -pEv->nErrno;
    }
    if (!bIn && pEv->nLength > 0 && !ReadAt(m_fd, pBlock, nBlock, pEv->nData)) {
        Diverge("the recorded block", "a recording file that changed since it was loaded");
        return -EIO;
    }
    ++m_nNext;
    return 0;
}

ssize_t CSessionReplay::Read(unsigned long nHandle, void* pBuf, std::size_t nAsked)
{
    const std::string strGot = "read of " + std::to_string(nAsked) + " bytes" + OnDescriptor(nHandle);
    const Event* pEv = Next(kEventRead, nHandle, strGot);
    if (pEv == nullptr) return -EIO;
    if (pEv->nAsked != nAsked) {
        Diverge(Describe(*pEv), strGot);
        return -EIO;
    }
    if (pEv->nErrno != 0) {
        ++m_nNext;
        return -pEv->nErrno;
    }
    if (pEv->nLength > 0 && (pBuf == nullptr || !ReadAt(m_fd, pBuf, pEv->nLength, pEv->nData))) {
        Diverge("the recorded frame", pBuf == nullptr ? std::string("no buffer") : "a recording file cut short");
        return -EIO;
    }
    ++m_nNext;
    return static_cast<ssize_t>(pEv->nLength);
}

void CSessionReplay::GetStatus(SessionStatus* pStatus) const
{
    pStatus->bReplaying = true;
    pStatus->nReplayed = m_nNext;
    pStatus->nReplayEvents = m_vecEvents.size();
    pStatus->bDiverged = !m_strDivergence.empty();
    pStatus->strDivergence = m_strDivergence;
}

}  // namespace tavk05virt
