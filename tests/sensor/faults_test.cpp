// Every entry point that reaches the unit, under every fault the sensor or the
// unit can have: the status each gives, that it is kept as the last status,
// and that a sensor whose frame buffers could not be had still opens, sets
// and reports, but never reads the unit.
#include <atomic>
#include <functional>
#include <new>

#include "sensor_fixture.h"

namespace {

std::atomic<bool> g_bFailFrameBuffers(false);

}  // namespace

// The program's nothrow array allocation: while g_bFailFrameBuffers is set,
// requests of a frame buffer's size fail.
void* operator new[](std::size_t nBytes, const std::nothrow_t&) noexcept
{
    if (g_bFailFrameBuffers.load() && nBytes == OBERIN_FRAME_BUFFER_BYTES) return nullptr;
    try {
        return ::operator new[](nBytes);
    } catch (...) {
        return nullptr;
    }
}

namespace {

using sensortest::Bytes;
using sensortest::SensorTest;

enum Fault {
    kNone,
    kNeverOpened,
    kClosed,
    kNoFrameBuffers,
    kStartFails,
    kStopFails,
    kReadFails,
    kOptionFails,
    kLedFails,
    kValueFails,
    kUnplugged,
    kFaults
};
const char* const kapszFault[kFaults] = {
    "none",     "never opened", "closed", "no frame buffers",       "fail=21", "fail=22",
    "readfail", "fail=5",       "fail=8", "fail=9,fail=17,fail=18", "unplug=0"};

struct EntryPoint {
    const char* pszName;
    std::function<unsigned long(COberin&, unsigned char*)> fnCall;
    bool bKeepsStatus;                  // leaves the last status as it was
    unsigned long anExpected[kFaults];  // status under each fault, in the order above
};

void PrintTo(const EntryPoint& ep, std::ostream* pOs) { *pOs << ep.pszName; }

unsigned long Io(COberin& s, unsigned long nCode, unsigned long nInLen, unsigned long nOutCap)
{
    unsigned char abyIn[64] = {1, 0};
    unsigned char abyOut[64] = {};
    unsigned long nLen = 0;
    return s.DevIoControl(nCode, nInLen ? abyIn : nullptr, nInLen, nOutCap ? abyOut : nullptr, nOutCap,
                          nOutCap ? &nLen : nullptr);
}

class FaultTest : public SensorTest, public ::testing::WithParamInterface<EntryPoint> {
protected:
    void TearDown() override
    {
        g_bFailFrameBuffers = false;
        SensorTest::TearDown();
    }

    std::unique_ptr<COberin> Prepare(Fault eFault)
    {
        tavk05virt::DetachAll();
        AttachUnits("0:model=7,fw=0x3000,scene=flat,fps=0");
        g_bFailFrameBuffers = eFault == kNoFrameBuffers;
        std::unique_ptr<COberin> pSensor(new COberin(nullptr));
        g_bFailFrameBuffers = false;
        pSensor->m_nError = 77;
        if (eFault == kNoFrameBuffers) {  // all or nothing, so that one test guards a capture
            EXPECT_TRUE(!pSensor->m_pRawBuf && !pSensor->m_pRawCopyBuf && !pSensor->m_pGreyBuf);
        }
        if (eFault == kNeverOpened) return pSensor;
        EXPECT_EQ(pSensor->OpenDevice(0, 0), 0ul);
        if (eFault == kClosed) {
            EXPECT_EQ(pSensor->CloseDevice(), 0ul);
        }
        if (eFault >= kStartFails) Inject(0, kapszFault[eFault]);
        tavk05virt::ClearLog(0);
        pSensor->m_nError = 77;  // cleared by the open
        return pSensor;
    }
};

TEST_P(FaultTest, StatusOfEachFault)
{
    const EntryPoint& ep = GetParam();
    for (int nFault = 0; nFault < kFaults; ++nFault) {
        SCOPED_TRACE(kapszFault[nFault]);
        std::unique_ptr<COberin> pSensor = Prepare(static_cast<Fault>(nFault));
        const unsigned long nReads = nFault == kNeverOpened || nFault == kClosed ? 0 : State(0).nReads;
        Bytes image(IMG_PIXELS, sensortest::kUntouched);
        const unsigned long nStatus = ep.fnCall(*pSensor, image.data());
        EXPECT_EQ(nStatus, ep.anExpected[nFault]);
        EXPECT_EQ(pSensor->GetError(), ep.bKeepsStatus ? 77ul : nStatus);
        if (nFault == kNoFrameBuffers || nFault == kNeverOpened) {
            EXPECT_EQ(State(0).nReads, nReads);
            EXPECT_EQ(image, Bytes(IMG_PIXELS, sensortest::kUntouched));
        }
    }
}

// Fault order: none, never opened, closed, no frame buffers, start, stop,
// read, option, LED, value requests, unplugged. A failed read is not seen:
// the frame comes as zeros.
INSTANTIATE_TEST_SUITE_P(
    EntryPoints, FaultTest,
    ::testing::Values(EntryPoint{"GetImage",
                                 [](COberin& s, unsigned char* p) { return s.GetImage(p); },
                                 false,
                                 {0, 53, 2, 2, 53, 53, 0, 0, 0, 0, 53}},
                      EntryPoint{"GetImageForRoll",
                                 [](COberin& s, unsigned char* p) { return s.GetImageForRoll(p, 0); },
                                 true,
                                 {0, 2, 2, 2, 0, 0, 0, 0, 0, 0, 0}},
                      EntryPoint{
                          "GetLiveImageEx2",
                          [](COberin& s, unsigned char* p) { return s.GetLiveImageEx2(p, 60000, 0, nullptr, 0); },
                          false,
                          {0, 2, 2, 2, 2, 2, 0, 0, 0, 0, 2}},
                      EntryPoint{"background",
                                 [](COberin& s, unsigned char*) { return Io(s, TAVK05_IOCTL_BACKGROUND, 0, 0); },
                                 false,
                                 {0, 2, 2, 2, 2, 2, 0, 2, 0, 0, 2}},
                      EntryPoint{"start acquisition",
                                 [](COberin& s, unsigned char*) { return Io(s, TAVK05_IOCTL_START_ACQUISITION, 0, 0); },
                                 false,
                                 {0, 2, 2, 0, 2, 0, 0, 0, 0, 0, 2}},
                      EntryPoint{"stop acquisition",
                                 [](COberin& s, unsigned char*) { return Io(s, TAVK05_IOCTL_STOP_ACQUISITION, 0, 0); },
                                 false,
                                 {0, 2, 2, 0, 0, 2, 0, 0, 0, 0, 2}},
                      EntryPoint{"LED",
                                 [](COberin& s, unsigned char*) { return Io(s, TAVK05_IOCTL_LED, 2, 0); },
                                 false,
                                 {0, 2, 2, 0, 0, 0, 0, 0, 2, 0, 2}},
                      EntryPoint{"set value",
                                 [](COberin& s, unsigned char*) { return Io(s, TAVK05_IOCTL_SET_VALUE, 64, 0); },
                                 false,
                                 {0, 53, 2, 0, 0, 0, 0, 0, 0, 53, 53}},
                      EntryPoint{"device ID",
                                 [](COberin& s, unsigned char*) { return Io(s, TAVK05_IOCTL_GET_DEVICE_ID, 0, 64); },
                                 false,
                                 {0, 53, 2, 0, 0, 0, 0, 0, 0, 53, 53}},
                      EntryPoint{"get value",
                                 [](COberin& s, unsigned char*) { return Io(s, TAVK05_IOCTL_GET_VALUE, 0, 64); },
                                 false,
                                 {0, 53, 2, 0, 0, 0, 0, 0, 0, 53, 53}},
                      EntryPoint{"brightness",
                                 [](COberin& s, unsigned char*) { return s.SetBrightness(50); },
                                 false,
                                 {0, 2, 2, 0, 0, 0, 0, 2, 0, 0, 2}},
                      EntryPoint{"gain",
                                 [](COberin& s, unsigned char*) { return s.SetGainValue(4); },
                                 false,
                                 {0, 2, 2, 0, 0, 0, 0, 2, 0, 0, 2}},
                      EntryPoint{"LED on",
                                 [](COberin& s, unsigned char*) { return s.SetLedOn(true); },
                                 false,
                                 {0, 2, 2, 0, 0, 0, 0, 0, 2, 0, 2}},
                      EntryPoint{"device info",
                                 [](COberin& s, unsigned char*) { return s.GetDeviceInfo(nullptr); },
                                 false,
                                 {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}}));

}  // namespace
