// One virtual scanner unit: its USB identity, the answers to the kernel
// driver's control requests, frame delivery and the faults it was told to
// show. Not thread-safe by itself; the registry serialises all calls.
#ifndef TAVK05_VSCANNER_UNIT_H
#define TAVK05_VSCANNER_UNIT_H

#include <sys/types.h>

#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "tavk05/virtual.h"
#include "vscanner_config.h"
#include "vscanner_render.h"
#include "vscanner_session.h"

namespace tavk05virt {

class CVirtualUnit {
public:
    typedef std::chrono::steady_clock Clock;

    explicit CVirtualUnit(int nIndex);

    // Applies a key set. Checks first and changes nothing when it fails.
    bool Apply(const UnitKeys& keys, std::string* pError);

    // A unit given record= without virtual: opens, requests and reads go to
    // the real node /dev/tavk05N (the registry opens it).
    bool PassThrough() const { return m_bPassThrough; }

    // 0 when an open may go ahead, else the errno to fail it with.
    int CheckOpen();
    // The outcome of an open (0 or its errno); returns the number the unit
    // gives the descriptor (1, 2, ... for the successful opens since the
    // unit's session began), which the other calls on it pass back as
    // nHandle. fd is the descriptor itself (the real node's when passing
    // through).
    unsigned long Opened(int nErrno);
    void Closed(unsigned long nHandle);

    // A control request: 0, or -errno.
    int Ioctl(unsigned long nHandle, int fd, unsigned long nRequest, void* pArg);

    // When a read arriving now may deliver its frame (pacing by delay= and
    // fps=); reserves that frame slot.
    Clock::time_point ReserveRead(Clock::time_point tNow);
    // One read. The unit answers it itself: true, with the byte count or
    // -errno in *pnResult. A unit that passes through answers false: the
    // caller reads the real node outside the registry lock, gives the outcome
    // to the recorder left in *ppRecorder (held by the caller, so the read is
    // recorded even when the unit is detached meanwhile) and, when the unit
    // is still there, calls PassedThrough.
    bool Read(unsigned long nHandle, void* pBuf, size_t nBytes, ssize_t* pnResult,
              std::shared_ptr<CSessionRecorder>* ppRecorder);
    void PassedThrough() { CountOperation(); }

    // The person at the glass does eAction from the next read on; false when
    // the unit shows no person.
    bool Person(PersonAction eAction) { return m_pSource && m_pSource->Person(eAction, m_nFrames); }

    bool Vanished() const { return m_bVanished; }
    void GetState(UnitState* pState) const;
    std::vector<Request> Log() const;
    void ClearLog() { m_dequeLog.clear(); }
    void GetSession(SessionStatus* pStatus) const;

private:
    struct FailState {
        unsigned long nRequest;
        unsigned long nFrom;
        unsigned long nCalls;
    };
    struct CountedFault {
        bool bActive = false;
        unsigned long nFrom = 0;
        unsigned long nCalls = 0;
        // Counts one more call; true when this call is to fail.
        bool Hit()
        {
            if (!bActive) return false;
            ++nCalls;
            return nCalls >= nFrom;
        }
    };

    void CountOperation();
    void AddLog(unsigned long nRequest, const void* pBlock, size_t nBlock, bool bFailed);
    void DeviceIdBlock(unsigned char* pBlock) const;
    void DescriptorBlock(unsigned char* pBlock) const;
    bool EnsureFrame(const RenderInput& in);
    int Answer(int fd, unsigned long nRequest, void* pArg);
    ssize_t RenderRead(void* pBuf, size_t nBytes);

    const int m_nIndex;
    // Identity.
    int m_nModel;
    unsigned short m_wVendor;
    unsigned short m_wProduct;
    unsigned short m_wFirmware;
    std::string m_strSerial;
    SceneParams m_scene;
    std::unique_ptr<CFrameSource> m_pSource;

    // State as the driver changed it.
    int m_nOpenCount;
    int m_nCloseCount;
    int m_nOpenFds;
    bool m_bLedOn;
    unsigned char m_byLedSelector;
    unsigned char m_abyOption[128];
    unsigned char m_abyValue[64];
    bool m_bAcquiring;
    unsigned long m_nRequests;
    unsigned long m_nReads;
    unsigned long m_nFrames;
    unsigned long m_nAcquisitions;
    unsigned long m_nReadInAcquisition;
    unsigned long m_nLastReadBytes;

    // Faults.
    std::vector<FailState> m_vecFail;
    CountedFault m_openFail;
    CountedFault m_readFail;
    CountedFault m_shortRead;
    unsigned long m_nShortBytes;
    bool m_bUnplugPending;
    unsigned long m_nUnplugAfter;
    unsigned long m_nOpsSinceUnplug;
    bool m_bVanished;

    // Pacing.
    unsigned m_nDelayMs;
    unsigned m_nFps;
    Clock::time_point m_tNextFrame;

    // Last rendered frame.
    std::unique_ptr<unsigned char[]> m_pFrame;
    unsigned long m_nFrameCapacity;
    bool m_bFrameValid;
    unsigned long long m_nFrameKey;
    FrameGeometry m_frameGeometry;

    std::deque<Request> m_dequeLog;

    // Session: recorded, played back, or passed through to the real node.
    std::shared_ptr<CSessionRecorder> m_pRecorder;
    std::unique_ptr<CSessionReplay> m_pReplay;
    bool m_bPassThrough;
    unsigned long m_nHandles;
};

}  // namespace tavk05virt

#endif
