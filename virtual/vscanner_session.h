// Recorded sessions of a unit: every open, close, control request and read
// as the host saw it, written to a compact file and played back later.
//
// File layout (all numbers little-endian, the same on every ABI):
//   header  8 bytes "TAVK05S\x1a", u32 version (1), u32 zero
//   events  one after another, each a 28-byte head and its data:
//           u8 kind (1 open, 2 close, 3 request, 4 read), u8 flags, u16 zero,
//           u32 descriptor (the Nth successful open of the session),
//           u32 request number (requests only), i32 errno (0: success),
//           u64 bytes asked (reads only), u32 length, then the data:
//           - request: its argument block as the host sent it (blocks that go
//             to the device) or as the device filled it (blocks that come
//             back, only when the request succeeded);
//           - read: the bytes delivered, or none when flag 1 says they are
//             the first `length` bytes of the last read whose bytes were
//             written out (a repeated frame).
// A recording ends with its last complete event.
#ifndef TAVK05_VSCANNER_SESSION_H
#define TAVK05_VSCANNER_SESSION_H

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tavk05/virtual.h"

namespace tavk05virt {

enum EventKind : unsigned char { kEventOpen = 1, kEventClose = 2, kEventRequest = 3, kEventRead = 4 };

// Writes a session. After a write error it writes nothing more and keeps
// the error for the unit's session status.
class CSessionRecorder {
public:
    // Opens FILE, creating it when missing (a regular file; symbolic links
    // are not followed); null with a message when it cannot. The file is
    // emptied when the first event is written.
    static std::unique_ptr<CSessionRecorder> Create(const std::string& strPath, std::string* pError);
    ~CSessionRecorder();
    CSessionRecorder(const CSessionRecorder&) = delete;
    CSessionRecorder& operator=(const CSessionRecorder&) = delete;

    void Open(unsigned long nHandle, int nErrno);
    void Close(unsigned long nHandle);
    // pBlock: the block the table of requests says to keep (see above).
    void Request(unsigned long nHandle, unsigned long nRequest, const unsigned char* pBlock, std::size_t nBlock,
                 int nErrno);
    // nResult: the byte count delivered at pData, or -errno.
    void Read(unsigned long nHandle, std::size_t nAsked, ssize_t nResult, const void* pData);

    unsigned long Events() const { return m_nEvents; }
    const std::string& Error() const { return m_strError; }

private:
    CSessionRecorder(int fd, const std::string& strPath);
    void Write(EventKind eKind, unsigned char byFlags, unsigned long nHandle, unsigned long nRequest, int nErrno,
               std::uint64_t nAsked, const void* pData, std::size_t nLength, std::size_t nWritten);

    const int m_fd;
    const std::string m_strPath;
    bool m_bStarted;  // the file was emptied and its header written
    std::vector<unsigned char> m_vecLastRead;
    unsigned long m_nEvents;
    std::string m_strError;
};

// Plays a session back. Each call checks that the host does what the
// recording says it did next and answers as the recording does. The first
// call that differs is a divergence: it is written to standard error once,
// kept for the session status, and that call and every later one fail
// with EIO.
class CSessionReplay {
public:
    // Reads and checks the whole file (its events are indexed, their data
    // stays in the file); null with a message for a file that is not a
    // complete, well-formed recording.
    static std::unique_ptr<CSessionReplay> Load(const std::string& strPath, int nIndex, std::string* pError);
    ~CSessionReplay();
    CSessionReplay(const CSessionReplay&) = delete;
    CSessionReplay& operator=(const CSessionReplay&) = delete;

    // 0 or the errno the open failed with.
    int Open(unsigned long nHandle);
    void Close(unsigned long nHandle);
    // 0 or -errno; fills the block of a request whose block comes back.
    int Request(unsigned long nHandle, unsigned long nRequest, unsigned char* pBlock, std::size_t nBlock);
    // The byte count or -errno.
    ssize_t Read(unsigned long nHandle, void* pBuf, std::size_t nAsked);

    void GetStatus(SessionStatus* pStatus) const;

private:
    struct Event {
        EventKind eKind;
        unsigned long nHandle;
        unsigned long nRequest;
        int nErrno;
        std::uint64_t nAsked;
        std::size_t nLength;
        off_t nData;  // where the data lies in the file (an earlier read's for a repeat)
    };
    CSessionReplay(int fd, const std::string& strPath, int nIndex);
    // The next event when it is of this kind on this descriptor, else null
    // after reporting the divergence.
    const Event* Next(EventKind eKind, unsigned long nHandle, const std::string& strGot);
    void Diverge(const std::string& strExpected, const std::string& strGot);
    std::string Describe(const Event& event) const;

    const int m_fd;
    const std::string m_strPath;
    const int m_nIndex;
    std::vector<Event> m_vecEvents;
    std::size_t m_nNext;
    std::string m_strDivergence;
};

}  // namespace tavk05virt

#endif
