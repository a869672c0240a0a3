// Behaviour of one virtual scanner unit.
#include "vscanner_unit.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "profile/model_profile.h"
#include "vscanner_registry.h"
#include "vscanner_requests.h"

namespace tavk05virt {

namespace {

const unsigned short kDefaultVendor = 0x1209;
const int kDefaultModel = tavk05profile::kDefaultDeviceType;
const std::size_t kMaxLog = 10000;

// The firmware a unit of the model reports unless told otherwise.
unsigned short DefaultFirmware(int nModel) { return tavk05profile::DefaultRowOf(nModel).wDefaultFirmware; }

unsigned short ProductOf(int nModel) { return tavk05profile::DefaultRowOf(nModel).wProduct; }

}  // namespace

CVirtualUnit::CVirtualUnit(int nIndex)
    : m_nIndex(nIndex),
      m_nModel(kDefaultModel),
      m_wVendor(kDefaultVendor),
      m_wProduct(ProductOf(kDefaultModel)),
      m_wFirmware(DefaultFirmware(kDefaultModel)),
      m_strSerial("VIRT000" + std::to_string(nIndex)),
      m_nOpenCount(0),
      m_nCloseCount(0),
      m_nOpenFds(0),
      m_bLedOn(false),
      m_byLedSelector(0),
      m_abyOption(),
      m_abyValue(),
      m_bAcquiring(false),
      m_nRequests(0),
      m_nReads(0),
      m_nFrames(0),
      m_nAcquisitions(0),
      m_nReadInAcquisition(0),
      m_nLastReadBytes(0),
      m_nShortBytes(0),
      m_bUnplugPending(false),
      m_nUnplugAfter(0),
      m_nOpsSinceUnplug(0),
      m_bVanished(false),
      m_nDelayMs(0),
      m_nFps(0),
      m_tNextFrame(),
      m_nFrameCapacity(0),
      m_bFrameValid(false),
      m_nFrameKey(0),
      m_frameGeometry(),
      m_bPassThrough(false),
      m_nHandles(0)
{
    // The frame source comes with the first key set applied (the person,
    // unless the keys choose another scene).
}

bool CVirtualUnit::Apply(const UnitKeys& keys, std::string* pError)
{
    // Everything that can fail comes first, so that a refused key set leaves
    // the unit as it was.
    const bool bNewScene = keys.strScene || keys.vecLevels || !keys.vecSceneKeys.empty() || !m_pSource;
    SceneParams scene = m_scene;
    std::unique_ptr<CFrameSource> pSource;
    if (bNewScene) {
        if (keys.strScene) scene.strScene = *keys.strScene;
        if (keys.vecLevels) scene.vecLevels = *keys.vecLevels;
        for (const auto& key : keys.vecSceneKeys) {
            bool bReplaced = false;
            for (auto& old : scene.vecSceneKeys) {
                // image= and images= name the prints: a later one replaces either.
                const bool bPrints =
                    (old.first == "image" || old.first == "images") && (key.first == "image" || key.first == "images");
                if (old.first == key.first || bPrints) {
                    old.first = key.first;
                    old.second = key.second;
                    bReplaced = true;
                }
            }
            if (!bReplaced) scene.vecSceneKeys.push_back(key);
        }
        std::string strError;
        pSource = MakeFrameSource(scene, &strError);
        if (!pSource) {
            if (pError) *pError = strError;
            return false;
        }
    }
    std::unique_ptr<CSessionReplay> pReplay;
    std::unique_ptr<CSessionRecorder> pRecorder;
    {
        std::string strError;
        if (keys.strReplay) pReplay = CSessionReplay::Load(*keys.strReplay, m_nIndex, &strError);
        // Created last: a refused key set leaves no file behind.
        if ((!keys.strReplay || pReplay) && keys.strRecord) {
            pRecorder = CSessionRecorder::Create(*keys.strRecord, &strError);
        }
        if (!strError.empty()) {
            if (pError) *pError = strError;
            return false;
        }
    }

    if (keys.nModel) {
        m_nModel = *keys.nModel;
        m_wProduct = ProductOf(m_nModel);
        m_wFirmware = DefaultFirmware(m_nModel);
    }
    if (keys.wProduct) m_wProduct = *keys.wProduct;
    if (keys.wFirmware) m_wFirmware = *keys.wFirmware;
    if (keys.wVendor) m_wVendor = *keys.wVendor;
    if (keys.strSerial) m_strSerial = *keys.strSerial;
    if (bNewScene) {
        m_scene = scene;
        m_pSource = std::move(pSource);
        m_bFrameValid = false;
    }

    if (keys.bClearFaults) {
        m_vecFail.clear();
        m_openFail = CountedFault();
        m_readFail = CountedFault();
        m_shortRead = CountedFault();
        m_bUnplugPending = false;
    }
    for (const FailRule& rule : keys.vecFail) {
        bool bReplaced = false;
        for (FailState& state : m_vecFail) {
            if (state.nRequest == rule.nRequest) {
                state.nFrom = rule.nFrom;
                state.nCalls = 0;
                bReplaced = true;
            }
        }
        if (!bReplaced) m_vecFail.push_back(FailState{rule.nRequest, rule.nFrom, 0});
    }
    if (keys.nOpenFailFrom) {
        m_openFail.bActive = true;
        m_openFail.nFrom = *keys.nOpenFailFrom;
        m_openFail.nCalls = 0;
    }
    if (keys.nReadFailFrom) {
        m_readFail.bActive = true;
        m_readFail.nFrom = *keys.nReadFailFrom;
        m_readFail.nCalls = 0;
    }
    if (keys.shortRead) {
        m_shortRead.bActive = true;
        m_shortRead.nFrom = keys.shortRead->nFrom;
        m_shortRead.nCalls = 0;
        m_nShortBytes = keys.shortRead->nBytes;
    }
    if (keys.bReplug) {
        m_bVanished = false;
    }
    if (keys.nUnplugAfter) {
        m_nOpsSinceUnplug = 0;
        m_nUnplugAfter = *keys.nUnplugAfter;
        m_bUnplugPending = m_nUnplugAfter > 0;
        if (m_nUnplugAfter == 0) m_bVanished = true;
    }
    if (pReplay) {
        m_pReplay = std::move(pReplay);
        m_bPassThrough = false;
    }
    if (pRecorder) {
        m_pRecorder = std::move(pRecorder);
        m_bPassThrough = !keys.bRecordVirtual && !m_pReplay;
    }
    if (keys.strReplay || keys.strRecord) {
        m_nHandles = 0;  // descriptors are numbered from the session's start
    }
    if (keys.nDelayMs) m_nDelayMs = *keys.nDelayMs;
    if (keys.nFps) {
        m_nFps = *keys.nFps;
        m_tNextFrame = Clock::time_point();
    }
    return true;
}

int CVirtualUnit::CheckOpen()
{
    if (m_pReplay) {
        return m_pReplay->Open(m_nHandles + 1);
    }
    if (m_bVanished) {
        return ENOENT;  // the node went away with the device
    }
    if (m_openFail.Hit()) {
        return ENODEV;
    }
    return 0;
}

unsigned long CVirtualUnit::Opened(int nErrno)
{
    unsigned long nHandle = 0;
    if (nErrno == 0) {
        ++m_nOpenCount;
        ++m_nOpenFds;
        nHandle = ++m_nHandles;
    }
    if (m_pRecorder) m_pRecorder->Open(nHandle, nErrno);
    return nHandle;
}

void CVirtualUnit::Closed(unsigned long nHandle)
{
    ++m_nCloseCount;
    if (m_nOpenFds > 0) --m_nOpenFds;
    if (m_pReplay) m_pReplay->Close(nHandle);
    if (m_pRecorder) m_pRecorder->Close(nHandle);
}

void CVirtualUnit::CountOperation()
{
    if (!m_bUnplugPending) return;
    ++m_nOpsSinceUnplug;
    if (m_nOpsSinceUnplug >= m_nUnplugAfter) {
        m_bVanished = true;
        m_bUnplugPending = false;
        m_bAcquiring = false;
    }
}

void CVirtualUnit::AddLog(unsigned long nRequest, const void* pBlock, size_t nBlock, bool bFailed)
{
    if (m_dequeLog.size() >= kMaxLog) {
        m_dequeLog.pop_front();
    }
    Request req;
    req.nRequest = nRequest;
    if (pBlock != nullptr && nBlock > 0) {
        const unsigned char* p = static_cast<const unsigned char*>(pBlock);
        req.vecBlock.assign(p, p + nBlock);
    }
    req.bFailed = bFailed;
    m_dequeLog.push_back(std::move(req));
}

void CVirtualUnit::DescriptorBlock(unsigned char* pBlock) const
{
    const unsigned char aby[18] = {
        18,  // bLength
        1,   // bDescriptorType: device
        0x00,
        0x02,  // bcdUSB 2.00
        0xFF,
        0x00,
        0x00,  // vendor-specific class
        64,    // bMaxPacketSize0
        static_cast<unsigned char>(m_wVendor & 0xFF),
        static_cast<unsigned char>(m_wVendor >> 8),
        static_cast<unsigned char>(m_wProduct & 0xFF),
        static_cast<unsigned char>(m_wProduct >> 8),
        static_cast<unsigned char>(m_wFirmware & 0xFF),
        static_cast<unsigned char>(m_wFirmware >> 8),
        1,
        2,
        3,  // manufacturer, product, serial strings
        1,  // one configuration
    };
    std::memcpy(pBlock, aby, sizeof aby);
}

void CVirtualUnit::DeviceIdBlock(unsigned char* pBlock) const
{
    char sz[64] = {};
    std::snprintf(sz, sizeof sz, "TAVK05-%d-%s", m_nModel, m_strSerial.c_str());
    std::memcpy(pBlock, sz, sizeof sz);
}

int CVirtualUnit::Answer(int fd, unsigned long nRequest, void* pArg)
{
    if (m_bPassThrough) {
        return RealIoctl(fd, nRequest, pArg) < 0 ? -errno : 0;
    }
    unsigned char* pBlock = static_cast<unsigned char*>(pArg);
    switch (nRequest) {
        case 4:
            DescriptorBlock(pBlock);
            break;
        case 9:
            DeviceIdBlock(pBlock);
            break;
        case 17:
            std::memcpy(pBlock, m_abyValue, sizeof m_abyValue);
            break;
        default:
            break;
    }
    return 0;
}

int CVirtualUnit::Ioctl(unsigned long nHandle, int fd, unsigned long nRequest, void* pArg)
{
    ++m_nRequests;
    const RequestInfo* pInfo = FindRequest(nRequest);
    const std::size_t nBlock = pInfo != nullptr ? pInfo->nBlock : 0;
    unsigned char* pBlock = nBlock > 0 ? static_cast<unsigned char*>(pArg) : nullptr;
    // The block as it arrived, for the log, the state and the recorder.
    unsigned char abyArrived[128];
    if (pBlock != nullptr) std::memcpy(abyArrived, pBlock, nBlock);
    bool bLogBlock = false;
    int nResult = 0;
    if (m_pReplay) {
        nResult = m_pReplay->Request(nHandle, nRequest, pBlock, nBlock);
        bLogBlock = pBlock != nullptr;
    } else if (m_bVanished) {
        nResult = -ENODEV;
    } else if (pInfo == nullptr && !m_bPassThrough) {
        nResult = -EINVAL;
    } else if (nBlock > 0 && pBlock == nullptr) {
        nResult = -EFAULT;
    } else {
        bool bFail = false;
        for (FailState& state : m_vecFail) {
            if (state.nRequest == nRequest) {
                ++state.nCalls;
                bFail = state.nCalls >= state.nFrom;
            }
        }
        bLogBlock = pBlock != nullptr;
        nResult = bFail ? -EIO : Answer(fd, nRequest, pArg);
    }
    AddLog(nRequest, bLogBlock ? abyArrived : nullptr, nBlock, nResult != 0);
    if (nResult == 0) {
        switch (nRequest) {
            case 5:
                std::memcpy(m_abyOption, abyArrived, sizeof m_abyOption);
                break;
            case 8:
                m_bLedOn = abyArrived[0] != 0;
                m_byLedSelector = abyArrived[1];
                break;
            case 18:
                std::memcpy(m_abyValue, abyArrived, sizeof m_abyValue);
                break;
            case 21:
                m_bAcquiring = true;
                ++m_nAcquisitions;
                m_nReadInAcquisition = 0;
                break;
            case 22:
                m_bAcquiring = false;
                break;
            default:
                break;
        }
    }
    if (m_pRecorder) {
        // Blocks to the device as they arrived; blocks back only when filled.
        const unsigned char* pKeep = nullptr;
        if (pBlock != nullptr) pKeep = pInfo->eUse == kBlockIn ? abyArrived : (nResult == 0 ? pBlock : nullptr);
        m_pRecorder->Request(nHandle, nRequest, pKeep, nBlock, -nResult);
    }
    CountOperation();
    return nResult;
}

CVirtualUnit::Clock::time_point CVirtualUnit::ReserveRead(Clock::time_point tNow)
{
    Clock::time_point tDue = tNow;
    if (m_nFps > 0) {
        if (m_tNextFrame > tDue) tDue = m_tNextFrame;
        m_tNextFrame = tDue + std::chrono::microseconds(1000000 / m_nFps);
    }
    return tDue + std::chrono::milliseconds(m_nDelayMs);
}

bool CVirtualUnit::EnsureFrame(const RenderInput& in)
{
    if (!m_pSource) {
        return false;
    }
    const unsigned long long nKey = m_pSource->FrameKey(in);
    if (m_bFrameValid && nKey == m_nFrameKey && in.geometry.nFrameBytes == m_frameGeometry.nFrameBytes &&
        in.geometry.nWidth == m_frameGeometry.nWidth && in.geometry.nHeight == m_frameGeometry.nHeight) {
        return true;
    }
    if (m_nFrameCapacity < in.geometry.nFrameBytes) {
        m_pFrame.reset();
        m_nFrameCapacity = 0;
        m_pFrame.reset(new (std::nothrow) unsigned char[in.geometry.nFrameBytes]);
        if (!m_pFrame) {
            m_bFrameValid = false;
            return false;
        }
        m_nFrameCapacity = in.geometry.nFrameBytes;
    }
    m_pSource->Render(in, m_pFrame.get());
    m_bFrameValid = true;
    m_nFrameKey = nKey;
    m_frameGeometry = in.geometry;
    return true;
}

bool CVirtualUnit::Read(unsigned long nHandle, void* pBuf, size_t nBytes, ssize_t* pnResult,
                        std::shared_ptr<CSessionRecorder>* ppRecorder)
{
    ++m_nReads;
    m_nLastReadBytes = nBytes;
    ssize_t nResult = 0;
    if (m_pReplay) {
        nResult = m_pReplay->Read(nHandle, pBuf, nBytes);
    } else if (m_bVanished) {
        nResult = -ENODEV;
    } else if (m_readFail.Hit()) {
        nResult = -EIO;
    } else if (m_bPassThrough) {
        *ppRecorder = m_pRecorder;
        return false;
    } else {
        nResult = RenderRead(pBuf, nBytes);
    }
    if (m_pRecorder) m_pRecorder->Read(nHandle, nBytes, nResult, pBuf);
    CountOperation();
    *pnResult = nResult;
    return true;
}

ssize_t CVirtualUnit::RenderRead(void* pBuf, size_t nBytes)
{
    RenderInput in;
    in.nIndex = m_nIndex;
    in.nModel = m_nModel;
    in.nDevType = DeviceTypeOf(m_wProduct, m_wFirmware);
    in.wProduct = m_wProduct;
    in.wBcdDevice = m_wFirmware;
    in.geometry = GeometryOf(in.nDevType, m_wFirmware);
    in.byExposure = m_abyOption[2];
    in.byGain = m_abyOption[3];
    in.bLedOn = m_bLedOn;
    in.nFrame = m_nFrames;
    in.nAcquisition = m_nAcquisitions;
    in.nReadInAcquisition = m_nReadInAcquisition;
    in.bAcquiring = m_bAcquiring;

    size_t nDeliver = nBytes < in.geometry.nFrameBytes ? nBytes : in.geometry.nFrameBytes;
    if (m_shortRead.Hit() && nDeliver > m_nShortBytes) {
        nDeliver = m_nShortBytes;
    }
    if (nDeliver > 0 && pBuf == nullptr) {
        return -EFAULT;
    }
    if (!EnsureFrame(in)) {
        return -ENOMEM;
    }
    if (nDeliver > 0) {
        std::memcpy(pBuf, m_pFrame.get(), nDeliver);
    }
    ++m_nFrames;
    ++m_nReadInAcquisition;
    return static_cast<ssize_t>(nDeliver);
}

void CVirtualUnit::GetState(UnitState* pState) const
{
    pState->bAttached = !m_bVanished;
    pState->bOpen = m_nOpenFds > 0;
    pState->nOpenCount = m_nOpenCount;
    pState->nCloseCount = m_nCloseCount;
    pState->bLedOn = m_bLedOn;
    pState->byLedSelector = m_byLedSelector;
    pState->byExposure = m_abyOption[2];
    pState->byGain = m_abyOption[3];
    pState->bAcquiring = m_bAcquiring;
    pState->nRequests = m_nRequests;
    pState->nReads = m_nReads;
    pState->nLastReadBytes = m_nLastReadBytes;
    std::memcpy(pState->abyOption, m_abyOption, sizeof m_abyOption);
    std::memcpy(pState->abyValue, m_abyValue, sizeof m_abyValue);
    DeviceIdBlock(pState->abyDeviceId);
}

void CVirtualUnit::GetSession(SessionStatus* pStatus) const
{
    *pStatus = SessionStatus();
    if (m_pRecorder) {
        pStatus->bRecording = m_pRecorder->Error().empty();
        pStatus->nRecorded = m_pRecorder->Events();
        pStatus->strRecordError = m_pRecorder->Error();
    }
    if (m_pReplay) m_pReplay->GetStatus(pStatus);
}

std::vector<Request> CVirtualUnit::Log() const { return std::vector<Request>(m_dequeLog.begin(), m_dequeLog.end()); }

}  // namespace tavk05virt
