// DevIoControl on the virtual scanner: every control code, the blocks it
// sends and returns, argument checks, result mapping, and the background
// capture with its temporary brightness and gain.
#include <memory>
#include <string>
#include <vector>

#include "capture_reference.h"
#include "sensor_fixture.h"

namespace {

using capturetest::Bytes;
using sensortest::RequestsOf;
using sensortest::SensorTest;
using tavk05virt::Request;

class DevIoTest : public SensorTest {
protected:

    static Bytes Numbered(size_t n, unsigned char byFirst)
    {
        Bytes v(n);
        for (size_t i = 0; i < n; ++i) v[i] = static_cast<unsigned char>(byFirst + i);
        return v;
    }

    static std::vector<unsigned long> RequestNumbers(int nIndex)
    {
        std::vector<unsigned long> vec;
        for (const Request& req : tavk05virt::RequestLog(nIndex)) vec.push_back(req.nRequest);
        return vec;
    }
};

// Codes 0 and 1 start and stop acquisition; a refused request and a missing
// transport are 2.
TEST_F(DevIoTest, StartAndStopAcquisition)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=7,fw=0x3000");
    EXPECT_EQ(pSensor->DevIoControl(0, nullptr, 0, nullptr, 0, nullptr), 0ul);
    EXPECT_TRUE(StateOf(0).bAcquiring);
    EXPECT_EQ(pSensor->DevIoControl(1, nullptr, 0, nullptr, 0, nullptr), 0ul);
    EXPECT_FALSE(StateOf(0).bAcquiring);
    EXPECT_EQ(RequestNumbers(0), (std::vector<unsigned long>{21, 22}));

    ASSERT_TRUE(tavk05virt::Inject(0, "fail=22"));
    EXPECT_EQ(pSensor->DevIoControl(1, nullptr, 0, nullptr, 0, nullptr), 2ul);
    EXPECT_EQ(pSensor->GetError(), 2ul);

    ASSERT_EQ(pSensor->CloseDevice(), 0ul);
    tavk05virt::ClearLog(0);
    EXPECT_EQ(pSensor->DevIoControl(0, nullptr, 0, nullptr, 0, nullptr), 2ul);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
}

// Code 257: the selector is kept for every later LED request; a selector
// other than 0 or 1 and a short block change nothing.
TEST_F(DevIoTest, LedWithSelector)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=4");
    unsigned char abyOn1[2] = {1, 1};
    EXPECT_EQ(pSensor->DevIoControl(257, abyOn1, 2, nullptr, 0, nullptr), 0ul);
    EXPECT_EQ(pSensor->m_wLedMode, 1);
    std::vector<Request> vecLed = RequestsOf(0, VXD_REQ_LED);
    ASSERT_EQ(vecLed.size(), 1u);
    EXPECT_EQ(vecLed[0].vecBlock, (std::vector<unsigned char>{1, 1}));

    unsigned char abyOff0[2] = {0, 0};
    EXPECT_EQ(pSensor->DevIoControl(257, abyOff0, 2, nullptr, 0, nullptr), 0ul);
    EXPECT_EQ(pSensor->m_wLedMode, 0);
    EXPECT_FALSE(StateOf(0).bLedOn);

    // Any non-zero first byte switches on.
    unsigned char abyOn7[3] = {7, 1, 99};
    EXPECT_EQ(pSensor->DevIoControl(257, abyOn7, 3, nullptr, 0, nullptr), 0ul);
    EXPECT_TRUE(StateOf(0).bLedOn);
    EXPECT_EQ(StateOf(0).byLedSelector, 1);

    tavk05virt::ClearLog(0);
    unsigned char abyBadSelector[2] = {0, 2};
    EXPECT_EQ(pSensor->DevIoControl(257, abyBadSelector, 2, nullptr, 0, nullptr), 3ul);
    EXPECT_EQ(pSensor->GetError(), 3ul);
    EXPECT_EQ(pSensor->DevIoControl(257, abyOff0, 1, nullptr, 0, nullptr), 3ul);
    EXPECT_EQ(pSensor->DevIoControl(257, abyOff0, 0, nullptr, 0, nullptr), 3ul);
    EXPECT_EQ(pSensor->DevIoControl(257, nullptr, 2, nullptr, 0, nullptr), 3ul);
    EXPECT_EQ(pSensor->DevIoCtlSetSCLed(abyOff0, 1), 3ul);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    EXPECT_EQ(pSensor->m_wLedMode, 1);
    EXPECT_TRUE(StateOf(0).bLedOn);

    // The kept selector goes out with the LED-off request of CloseDevice.
    ASSERT_EQ(pSensor->CloseDevice(), 0ul);
    vecLed = RequestsOf(0, VXD_REQ_LED);
    ASSERT_EQ(vecLed.size(), 1u);
    EXPECT_EQ(vecLed[0].vecBlock, (std::vector<unsigned char>{0, 1}));

    // A failing LED request is 2, and so is a missing transport.
    EXPECT_EQ(pSensor->DevIoControl(257, abyOn1, 2, nullptr, 0, nullptr), 2ul);
    ASSERT_EQ(pSensor->OpenDevice(0, 0), 0ul);
    ASSERT_TRUE(tavk05virt::Inject(0, "fail=8"));
    EXPECT_EQ(pSensor->DevIoControl(257, abyOn1, 2, nullptr, 0, nullptr), 2ul);
}

// Codes 259 and 260 send the caller's bytes in a zero-padded 64-byte block,
// never more than 64 of them; a refused request is 53.
TEST_F(DevIoTest, SetValueBlocks)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=6");
    const Bytes vecShort = Numbered(10, 1);
    const Bytes vecLong = Numbered(100, 101);

    for (unsigned long nCode : {259ul, 260ul}) {
        SCOPED_TRACE(nCode);
        tavk05virt::ClearLog(0);
        EXPECT_EQ(pSensor->DevIoControl(nCode, const_cast<unsigned char*>(vecShort.data()), 10, nullptr, 0,
                                        nullptr),
                  0ul);
        EXPECT_EQ(pSensor->DevIoControl(nCode, const_cast<unsigned char*>(vecLong.data()), 100, nullptr, 0,
                                        nullptr),
                  0ul);
        const std::vector<Request> vecSet = RequestsOf(0, VXD_REQ_SET_VALUE);
        ASSERT_EQ(vecSet.size(), 2u);
        Bytes expectShort(64, 0);
        std::copy(vecShort.begin(), vecShort.end(), expectShort.begin());
        EXPECT_EQ(vecSet[0].vecBlock, expectShort);
        EXPECT_EQ(vecSet[1].vecBlock, Bytes(vecLong.begin(), vecLong.begin() + 64));

        EXPECT_EQ(pSensor->DevIoControl(nCode, nullptr, 10, nullptr, 0, nullptr), 3ul);
        EXPECT_EQ(pSensor->DevIoControl(nCode, const_cast<unsigned char*>(vecShort.data()), 0, nullptr, 0,
                                        nullptr),
                  3ul);
        EXPECT_EQ(RequestsOf(0, VXD_REQ_SET_VALUE).size(), 2u);

        ASSERT_TRUE(tavk05virt::Inject(0, "fail=18"));
        EXPECT_EQ(pSensor->DevIoControl(nCode, const_cast<unsigned char*>(vecShort.data()), 10, nullptr, 0,
                                        nullptr),
                  53ul);
        EXPECT_EQ(pSensor->GetError(), 53ul);
        ASSERT_TRUE(tavk05virt::Inject(0, "clearfaults"));
    }

    ASSERT_EQ(pSensor->CloseDevice(), 0ul);
    EXPECT_EQ(pSensor->DevIoControl(259, const_cast<unsigned char*>(vecShort.data()), 10, nullptr, 0, nullptr),
              2ul);
    EXPECT_EQ(pSensor->DevIoControl(260, const_cast<unsigned char*>(vecShort.data()), 10, nullptr, 0, nullptr),
              2ul);
}

// Codes 514 and 515 hand on the driver's 64-byte blocks, code 516 the first
// 60 bytes of the value block.
TEST_F(DevIoTest, DeviceIdAndValueBlocks)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=8,serial=AB-12");
    const Bytes vecValue = Numbered(64, 200);
    ASSERT_EQ(pSensor->DevIoControl(259, const_cast<unsigned char*>(vecValue.data()), 64, nullptr, 0, nullptr),
              0ul);
    const tavk05virt::UnitState st = StateOf(0);

    Bytes out(80, 0xEE);
    unsigned long nLen = 0;
    EXPECT_EQ(pSensor->DevIoControl(514, nullptr, 0, out.data(), 80, &nLen), 0ul);
    EXPECT_EQ(nLen, 64ul);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 64), Bytes(st.abyDeviceId, st.abyDeviceId + 64));
    EXPECT_EQ(out[64], 0xEE);

    std::fill(out.begin(), out.end(), 0xEE);
    nLen = 64;
    EXPECT_EQ(pSensor->DevIoControl(515, nullptr, 0, out.data(), 64, &nLen), 0ul);
    EXPECT_EQ(nLen, 64ul);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 64), vecValue);

    std::fill(out.begin(), out.end(), 0xEE);
    nLen = 0;
    EXPECT_EQ(pSensor->DevIoControl(516, nullptr, 0, out.data(), 60, &nLen), 0ul);
    EXPECT_EQ(nLen, 60ul);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 60), Bytes(vecValue.begin(), vecValue.begin() + 60));
    EXPECT_EQ(out[60], 0xEE);

    const std::vector<unsigned long> vecExpected = {18, 9, 17, 17};
    EXPECT_EQ(RequestNumbers(0), vecExpected);
}

// Output checks come before any request: no block, no length word, a length
// word above the capacity, or a capacity below the block are 3.
TEST_F(DevIoTest, OutputArgumentChecks)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=4");
    Bytes out(100, 0xEE);
    for (unsigned long nCode : {514ul, 515ul, 516ul}) {
        SCOPED_TRACE(nCode);
        const unsigned long nBlock = nCode == 516 ? 60 : 64;
        unsigned long nLen = 0;
        EXPECT_EQ(pSensor->DevIoControl(nCode, nullptr, 0, nullptr, 64, &nLen), 3ul);
        EXPECT_EQ(pSensor->DevIoControl(nCode, nullptr, 0, out.data(), 0, &nLen), 3ul);
        EXPECT_EQ(pSensor->DevIoControl(nCode, nullptr, 0, out.data(), 64, nullptr), 3ul);
        nLen = 100;
        EXPECT_EQ(pSensor->DevIoControl(nCode, nullptr, 0, out.data(), 64, &nLen), 3ul);
        EXPECT_EQ(nLen, 100ul);
        nLen = 0;
        EXPECT_EQ(pSensor->DevIoControl(nCode, nullptr, 0, out.data(), nBlock - 1, &nLen), 3ul);
        EXPECT_EQ(pSensor->GetError(), 3ul);
        // Exactly the block is enough.
        EXPECT_EQ(pSensor->DevIoControl(nCode, nullptr, 0, out.data(), nBlock, &nLen), 0ul);
        EXPECT_EQ(nLen, nBlock);
    }
    EXPECT_EQ(RequestNumbers(0), (std::vector<unsigned long>{9, 17, 17}));
    EXPECT_EQ(out[64], 0xEE);
}

// A refused request is 53 with the length word 0 and the output untouched;
// without a transport it is 2.
TEST_F(DevIoTest, OutputRequestFailures)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=4");
    ASSERT_TRUE(tavk05virt::Inject(0, "fail=9,fail=17"));
    Bytes out(64, 0xEE);
    for (unsigned long nCode : {514ul, 515ul, 516ul}) {
        SCOPED_TRACE(nCode);
        unsigned long nLen = 5;
        EXPECT_EQ(pSensor->DevIoControl(nCode, nullptr, 0, out.data(), 64, &nLen), 53ul);
        EXPECT_EQ(pSensor->GetError(), 53ul);
        EXPECT_EQ(nLen, 0ul);
        EXPECT_EQ(out, Bytes(64, 0xEE));
    }

    ASSERT_EQ(pSensor->CloseDevice(), 0ul);
    for (unsigned long nCode : {514ul, 515ul, 516ul}) {
        unsigned long nLen = 0;
        EXPECT_EQ(pSensor->DevIoControl(nCode, nullptr, 0, out.data(), 64, &nLen), 2ul) << nCode;
    }
    unsigned long nLen = 9;
    EXPECT_EQ(pSensor->DevIoCtlCheckAutoOnStatus(out.data(), &nLen), 2ul);
    EXPECT_EQ(pSensor->DevIoCtlGetDevID(out.data(), &nLen), 2ul);
    EXPECT_EQ(pSensor->DevIoCtlGetValue(out.data(), &nLen), 2ul);
    EXPECT_EQ(pSensor->DevIoCtlSetValue(out.data(), 4), 2ul);
    EXPECT_EQ(nLen, 9ul);
}

TEST_F(DevIoTest, UnknownAndUnsupportedCodes)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=4");
    unsigned char aby[64] = {1, 1};
    unsigned long nLen = 0;
    EXPECT_EQ(pSensor->DevIoControl(769, aby, 2, aby, 64, &nLen), 4ul);
    EXPECT_EQ(pSensor->GetError(), 4ul);
    for (unsigned long nCode : {2ul, 256ul, 258ul, 262ul, 513ul, 517ul, 768ul, 770ul, 0x10101ul}) {
        EXPECT_EQ(pSensor->DevIoControl(nCode, aby, 2, aby, 64, &nLen), 3ul) << nCode;
    }
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());

    // Not reachable through a code: clears the length word and succeeds.
    nLen = 9;
    EXPECT_EQ(pSensor->DevIoCtlCheckAutoOnStatus(aby, &nLen), 0ul);
    EXPECT_EQ(nLen, 0ul);
}

// Code 261 captures the background with brightness 35 (new firmware) and
// gain 2, unmarked, reapplies the contrast and restores brightness and gain.
TEST_F(DevIoTest, BackgroundCaptureRestoresBrightnessAndGain)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=7,fw=0x3000");
    ASSERT_EQ(pSensor->SetBrightness(50), 0ul);
    ASSERT_EQ(pSensor->SetGainValue(4), 0ul);
    ASSERT_EQ(pSensor->SetContrast(40), 0ul);
    const float fFactor = pSensor->m_fContrastFactor;
    pSensor->m_fContrastFactor = 9.0f;
    pSensor->m_ImageProc.m_bContrastTable = 0;
    tavk05virt::ClearLog(0);
    const unsigned long k = StateOf(0).nReads;

    EXPECT_EQ(pSensor->DevIoControl(261, nullptr, 0, nullptr, 0, nullptr), 0ul);
    EXPECT_EQ(pSensor->GetError(), 0ul);
    EXPECT_EQ(pSensor->m_nBrightness, 50ul);
    EXPECT_EQ(pSensor->m_nGain, 4ul);
    EXPECT_FLOAT_EQ(pSensor->m_fContrastFactor, fFactor);
    EXPECT_EQ(pSensor->m_ImageProc.m_bContrastTable, 1);

    // Option blocks (exposure, gain): 35/4, 35/2, capture, 50/2, 50/4.
    EXPECT_EQ(RequestNumbers(0), (std::vector<unsigned long>{5, 5, 21, 22, 5, 5}));
    const std::vector<Request> vecOptions = RequestsOf(0, VXD_REQ_SET_SENSOR_OPTION);
    ASSERT_EQ(vecOptions.size(), 4u);
    const unsigned char aby[4][2] = {{35, 4}, {35, 2}, {50, 2}, {50, 4}};
    for (int i = 0; i < 4; ++i) {
        Bytes expected(128, 0);
        expected[0] = 1;
        expected[1] = 2;
        expected[2] = aby[i][0];
        expected[3] = aby[i][1];
        EXPECT_EQ(vecOptions[i].vecBlock, expected) << "block " << i;
    }

    // The background is the unmarked capture of the frame served.
    const capturetest::Geometry geo = capturetest::GeometryFor(7, 0x3000);
    Bytes expected(IMG_PIXELS, 255);
    capturetest::Compose(capturetest::PatternFrame(geo, k), geo, 7, 0x3000, fFactor, false, 5, &expected);
    const Bytes background(pSensor->m_ImageProc.m_pBackground, pSensor->m_ImageProc.m_pBackground + IMG_PIXELS);
    EXPECT_EQ(capturetest::CountDifferences(background, expected), 0u);
}

TEST_F(DevIoTest, BackgroundCaptureOnOlderFirmwareUsesBrightness37)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=5");
    const unsigned long nBrightness = pSensor->m_nBrightness;
    EXPECT_EQ(pSensor->DevIoControl(261, nullptr, 0, nullptr, 0, nullptr), 0ul);
    const std::vector<Request> vecOptions = RequestsOf(0, VXD_REQ_SET_SENSOR_OPTION);
    ASSERT_EQ(vecOptions.size(), 4u);
    EXPECT_EQ(vecOptions[0].vecBlock[2], 37);
    EXPECT_EQ(vecOptions[1].vecBlock[3], 2);
    EXPECT_EQ(pSensor->m_nBrightness, nBrightness);
    // Model 5 keeps its table switched off after the contrast is reapplied.
    EXPECT_EQ(pSensor->m_ImageProc.m_bContrastTable, 0);
}

// A failed capture reports 2, leaves the background and the contrast alone,
// and still restores brightness and gain; a refused brightness stops at once.
TEST_F(DevIoTest, BackgroundCaptureFailures)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=7,fw=0x2FFF");
    ASSERT_EQ(pSensor->SetBrightness(60), 0ul);
    ASSERT_EQ(pSensor->SetGainValue(8), 0ul);
    pSensor->m_fContrastFactor = 9.0f;
    std::memset(pSensor->m_ImageProc.m_pBackground, 0x33, IMG_PIXELS);
    ASSERT_TRUE(tavk05virt::Inject(0, "fail=21"));
    tavk05virt::ClearLog(0);

    EXPECT_EQ(pSensor->DevIoControl(261, nullptr, 0, nullptr, 0, nullptr), 2ul);
    EXPECT_EQ(pSensor->GetError(), 2ul);
    EXPECT_EQ(pSensor->m_nBrightness, 60ul);
    EXPECT_EQ(pSensor->m_nGain, 8ul);
    EXPECT_EQ(pSensor->m_fContrastFactor, 9.0f);
    EXPECT_EQ(pSensor->m_ImageProc.m_pBackground[12345], 0x33);
    const std::vector<Request> vecOptions = RequestsOf(0, VXD_REQ_SET_SENSOR_OPTION);
    ASSERT_EQ(vecOptions.size(), 4u);
    EXPECT_EQ(vecOptions[0].vecBlock[2], 37);
    EXPECT_EQ(vecOptions[3].vecBlock[2], 60);
    EXPECT_EQ(vecOptions[3].vecBlock[3], 8);

    // The device refuses the exposure: nothing more is tried or restored.
    ASSERT_TRUE(tavk05virt::Inject(0, "clearfaults,fail=5"));
    tavk05virt::ClearLog(0);
    EXPECT_EQ(pSensor->DevIoControl(261, nullptr, 0, nullptr, 0, nullptr), 2ul);
    EXPECT_EQ(RequestNumbers(0), (std::vector<unsigned long>{5}));
    EXPECT_EQ(pSensor->m_nBrightness, 37ul);
    EXPECT_EQ(pSensor->m_nGain, 8ul);

    // No transport.
    ASSERT_TRUE(tavk05virt::Inject(0, "clearfaults"));
    ASSERT_EQ(pSensor->CloseDevice(), 0ul);
    EXPECT_EQ(pSensor->DevIoControl(261, nullptr, 0, nullptr, 0, nullptr), 2ul);
}

// Without frame buffers the background cannot be captured; the device sees
// the setting changes and their undoing but no acquisition.
TEST_F(DevIoTest, BackgroundCaptureWithoutFrameBuffers)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=7,fw=0x3000");
    delete[] pSensor->m_pRawBuf;
    delete[] pSensor->m_pRawCopyBuf;
    delete[] pSensor->m_pGreyBuf;
    pSensor->m_pRawBuf = nullptr;
    pSensor->m_pRawCopyBuf = nullptr;
    pSensor->m_pGreyBuf = nullptr;
    const unsigned long nBrightness = pSensor->m_nBrightness;
    EXPECT_EQ(pSensor->DevIoControl(261, nullptr, 0, nullptr, 0, nullptr), 2ul);
    EXPECT_EQ(RequestNumbers(0), (std::vector<unsigned long>{5, 5, 5, 5}));
    EXPECT_EQ(pSensor->m_nBrightness, nBrightness);
    EXPECT_EQ(StateOf(0).nReads, 0ul);
}

}  // namespace
