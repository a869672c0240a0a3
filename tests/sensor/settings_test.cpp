// The sensor object's state: construction, open and close, settings and what
// reaches the unit, registers, control codes and the background capture.
#include <functional>

#include "sensor_fixture.h"

namespace {

using sensortest::Bytes;
using sensortest::RequestNumbers;
using sensortest::RequestsOf;
using sensortest::SensorTest;

// The sensor-option block: 1, 2, exposure, gain, then 124 zero bytes.
Bytes OptionBlock(unsigned char byExposure, unsigned char byGain)
{
    Bytes vec(128, 0);
    vec[0] = 1, vec[1] = 2, vec[2] = byExposure, vec[3] = byGain;
    return vec;
}

// Construction touches no unit; the device info record has ten words, the
// ninth left as the caller set it, width and height from the size code.
TEST_F(SensorTest, ConstructionAndDeviceInfo)
{
    AttachUnits("0:model=7,fw=0x3000");
    COberin sensor(nullptr);
    EXPECT_EQ(State(0).nOpenCount, 0);
    EXPECT_EQ(State(0).nRequests, 0ul);
    EXPECT_EQ(sensor.GetDeviceType(), 4ul);
    EXPECT_EQ(sensor.m_nRollMode, 0ul);
    EXPECT_EQ(sensor.m_nScanMode, 0ul);
    EXPECT_TRUE(sensor.m_bLatentCheck);
    EXPECT_TRUE(sensor.m_bCaptureEnable);
    EXPECT_EQ(sensor.m_bPixelInvert, 1);
    EXPECT_FALSE(sensor.m_bDevInitialized);
    sensor.m_pRawBuf[OBERIN_FRAME_BUFFER_BYTES - 1] = 1;  // full size (the sanitizer checks the ends)
    sensor.m_pRawCopyBuf[OBERIN_FRAME_BUFFER_BYTES - 1] = sensor.m_pGreyBuf[OBERIN_FRAME_BUFFER_BYTES - 1] = 2;
    typedef std::vector<unsigned int> Words;
    ISensor::tagDeviceInfoParam info;
    auto InfoWords = [&info] {
        Words vec(sizeof(info) / sizeof(unsigned int));
        std::memcpy(vec.data(), &info, sizeof(info));
        return vec;
    };
    std::memset(&info, 0xA5, sizeof(info));
    sensor.m_nError = 53;
    EXPECT_EQ(sensor.GetDeviceInfo(&info), 0ul);
    EXPECT_EQ(sensor.GetError(), 0ul);
    EXPECT_EQ(InfoWords(), (Words{957, 0, 600, 600, 20, 40, 0, 0, 0xA5A5A5A5u, 2}));
    sensor.m_nImageSize = 6;  // outside the table: width and height stay
    std::memset(&info, 0x5A, sizeof(info));
    EXPECT_EQ(sensor.GetDeviceInfo(&info), 0ul);
    EXPECT_EQ(InfoWords(), (Words{957, 0, 0x5A5A5A5Au, 0x5A5A5A5Au, 20, 40, 0, 0, 0x5A5A5A5Au, 2}));
}

// Open picks node 0 for an index beyond 7, switches the LED on with the
// selector in force and reads the settings file; a failed open is 55 and
// keeps what the earlier open found. Close switches the LED off and drops
// the transport; closing again leaves the last status alone.
TEST_F(SensorTest, OpenAndClose)
{
    AttachUnits("0:model=4;3:model=7,fw=0x3000");
    WriteFile(m_strConf, sensortest::SettingsText(71, 33, 4, 1));
    COberin sensor(nullptr);
    EXPECT_EQ(sensor.OpenDevice(2, 0), 55ul);
    EXPECT_EQ(sensor.GetError(), 55ul);
    EXPECT_EQ(sensor.m_nBrightness, 40ul);  // the file is read by a successful open only
    for (unsigned long nIndex : {957ul, 8ul}) {
        EXPECT_EQ(sensor.OpenDevice(nIndex, 12345), 0ul);
        EXPECT_EQ(sensor.CloseDevice(), 0ul);
    }
    EXPECT_EQ(State(0).nOpenCount, 2);
    EXPECT_EQ(sensor.m_wDeviceIndex, 0);
    EXPECT_EQ(sensor.m_nBrightness, 71ul);
    EXPECT_EQ(sensor.m_nContrast, 33ul);
    EXPECT_EQ(sensor.m_nGain, 4ul);
    EXPECT_EQ(sensor.m_nScanMode, 1ul);
    EXPECT_TRUE(RequestsOf(VXD_REQ_SET_SENSOR_OPTION).empty());  // not pushed before InitDev

    ASSERT_EQ(sensor.OpenDevice(3, 0), 0ul);
    EXPECT_EQ(sensor.GetDeviceType(), 7ul);
    EXPECT_EQ(RequestsOf(VXD_REQ_LED, 3).back().vecBlock, (Bytes{1, 0}));
    sensor.m_wLedMode = 1;
    Inject(3, "openfail");
    sensor.m_nBrightness = 66;
    EXPECT_EQ(sensor.OpenDevice(3, 0), 55ul);
    EXPECT_EQ(sensor.GetDeviceType(), 7ul);
    EXPECT_EQ(sensor.m_nFrameBytes, 2304000ul);
    EXPECT_EQ(sensor.m_nBrightness, 66ul);

    // A smaller model opened later keeps the large geometry.
    ASSERT_EQ(sensor.OpenDevice(0, 0), 0ul);
    EXPECT_EQ(sensor.m_ImageProc.m_nDeviceType, 4);
    EXPECT_EQ(sensor.m_nRawWidth, 1800ul);
    EXPECT_EQ(sensor.m_nRawHeight, 1280ul);
    EXPECT_FLOAT_EQ(sensor.m_fContrastFactor, 1.42f);

    tavk05virt::ClearLog(0);
    EXPECT_EQ(sensor.CloseDevice(), 0ul);
    EXPECT_EQ(sensor.m_pVxd, nullptr);
    EXPECT_FALSE(State(0).bOpen);
    EXPECT_FALSE(State(0).bLedOn);
    EXPECT_EQ(RequestsOf(VXD_REQ_LED).back().vecBlock, (Bytes{0, 1}));
    sensor.m_nError = 53;
    EXPECT_EQ(sensor.CloseDevice(), 0ul);
    EXPECT_EQ(sensor.GetError(), 53ul);
    EXPECT_EQ(sensor.LockDevice(), 2ul);
    EXPECT_EQ(sensor.UnlockDevice(), 2ul);
    // Without a transport the locked setters keep the value; the workers store it.
    EXPECT_EQ(sensor.SetGainValue(8), 2ul);
    EXPECT_EQ(sensor.m_nGain, 4ul);
    EXPECT_EQ(sensor.SetBrightnessEx(45), 2ul);
    EXPECT_EQ(sensor.m_nBrightness, 45ul);
}

// The factor at a contrast follows model and firmware (signed below the
// neutral point); models 5 and 6 build no contrast table and switch it off.
// The table does not depend on the setting: black up to 82, then a curve
// below the identity through the listed points, ending at 254, 255.
TEST_F(SensorTest, ContrastFactorAndTable)
{
    const struct {
        const char* pszUnit;
        unsigned long nContrast;
        float fFactor;
    } aCases[] = {
        {"model=4", 100, 2.6f},          {"model=4", 0, 0.6f},
        {"model=3", 20, 1.0f},           {"product=0x0630", 45, 1.5f},
        {"model=5", 100, 3.23f},         {"model=5", 16, 1.55f},
        {"model=5", 0, 1.23f},           {"model=6", 100, 3.15f},
        {"model=6", 0, 1.15f},           {"model=7,fw=0x2FFF", 100, 3.6f},
        {"model=7,fw=0x2FFF", 0, 1.6f},  {"model=7,fw=0x3000", 100, 3.02f},
        {"model=8,fw=0x3000", 0, 1.02f}, {"model=8,fw=0x1005", 30, 2.2f},
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(testing::Message() << c.pszUnit << " contrast " << c.nContrast);
        std::unique_ptr<COberin> pSensor = OpenSensor(c.pszUnit);
        const bool bNoTable = pSensor->m_nDeviceType == 5 || pSensor->m_nDeviceType == 6;
        pSensor->m_ImageProc.m_bContrastTable = bNoTable ? 1 : 0;
        std::memset(pSensor->m_ImageProc.m_ucContrastTable, 0x77, 256);
        pSensor->m_nError = 53;
        ASSERT_EQ(pSensor->SetContrast(c.nContrast), 0ul);
        EXPECT_EQ(pSensor->GetError(), 0ul);
        EXPECT_FLOAT_EQ(pSensor->m_fContrastFactor, c.fFactor);
        EXPECT_EQ(pSensor->m_ImageProc.m_bContrastTable, bNoTable ? 0 : 1);
        EXPECT_EQ(pSensor->m_ImageProc.m_ucContrastTable[192], bNoTable ? 0x77 : 132);
        EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    }
    // Without a transport the firmware is unknown: models 7 and 8 take the older one's factor.
    std::unique_ptr<COberin> pSensor = OpenSensor("model=7,fw=0x3000");
    ASSERT_EQ(pSensor->CloseDevice(), 0ul);
    ASSERT_EQ(pSensor->SetContrast(20), 0ul);
    EXPECT_FLOAT_EQ(pSensor->m_fContrastFactor, 2.0f);
    const unsigned char* pTable = pSensor->m_ImageProc.m_ucContrastTable;
    EXPECT_EQ(std::count(pTable, pTable + 83, 0), 83);
    const int anPoints[][2] = {{83, 1}, {128, 11}, {160, 51}, {192, 132}, {224, 210}, {254, 254}, {255, 255}};
    for (const auto& point : anPoints) {
        EXPECT_EQ(pTable[point[0]], point[1]) << point[0];
    }
    for (int i = 1; i < 256; ++i) {
        EXPECT_GE(pTable[i], pTable[i - 1]) << i;
        EXPECT_LE(pTable[i], i) << i;
    }
}

// Setters: the status, the value kept, and the option block sent (brightness
// and gain go out together).
TEST_F(SensorTest, SettersAndWhatReachesTheUnit)
{
    typedef std::function<unsigned long(COberin&)> Call;
    const struct {
        const char* pszName;
        Call fnCall;
        const char* pszFault;
        unsigned long nStatus;
        unsigned long nBrightness, nGain, nContrast, nImageSize;
        int nExposureSent, nGainSent;  // -1: no option block
    } aCases[] = {
        {"brightness 0", [](COberin& s) { return s.SetBrightness(0); }, "", 0, 0, 2, 20, 5, 0, 2},
        {"brightness 100", [](COberin& s) { return s.SetBrightnessEx(100); }, "", 0, 100, 2, 20, 5, 100, 2},
        {"brightness 101", [](COberin& s) { return s.SetBrightness(101); }, "", 3, 40, 2, 20, 5, -1, -1},
        {"brightness 286", [](COberin& s) { return s.SetBrightnessEx(286); }, "", 3, 40, 2, 20, 5, -1, -1},
        {"brightness refused", [](COberin& s) { return s.SetBrightness(61); }, "fail=5", 2, 61, 2, 20, 5, -1, -1},
        {"gain 1", [](COberin& s) { return s.SetGainValue(1); }, "", 0, 40, 1, 20, 5, 40, 1},
        {"gain 8", [](COberin& s) { return s.SetGainValueEx(8); }, "", 0, 40, 8, 20, 5, 40, 8},
        {"gain 3", [](COberin& s) { return s.SetGainValue(3); }, "", 3, 40, 2, 20, 5, -1, -1},
        {"gain 0", [](COberin& s) { return s.SetGainValueEx(0); }, "", 3, 40, 2, 20, 5, -1, -1},
        {"gain 258", [](COberin& s) { return s.SetGainValue(258); }, "", 3, 40, 2, 20, 5, -1, -1},
        {"gain refused", [](COberin& s) { return s.SetGainValue(8); }, "fail=5", 2, 40, 8, 20, 5, -1, -1},
        {"contrast 101", [](COberin& s) { return s.SetContrast(101); }, "", 3, 40, 2, 20, 5, -1, -1},
        {"contrast 2^32-1", [](COberin& s) { return s.SetContrast(0xFFFFFFFFul); }, "", 3, 40, 2, 20, 5, -1, -1},
        {"size 356 x 292", [](COberin& s) { return s.SetImageSize(356, 292); }, "", 0, 40, 2, 20, 0, -1, -1},
        {"size 228 x 292", [](COberin& s) { return s.SetImageSize(228, 292); }, "", 0, 40, 2, 20, 1, -1, -1},
        {"size 356 x 456", [](COberin& s) { return s.SetImageSize(356, 456); }, "", 0, 40, 2, 20, 2, -1, -1},
        {"size 248 x 292", [](COberin& s) { return s.SetImageSize(248, 292); }, "", 0, 40, 2, 20, 3, -1, -1},
        {"size 260 x 300", [](COberin& s) { return s.SetImageSize(260, 300); }, "", 0, 40, 2, 20, 4, -1, -1},
        {"size 292 x 248", [](COberin& s) { return s.SetImageSize(292, 248); }, "", 2, 40, 2, 20, 5, -1, -1},
        {"size 600 x 601", [](COberin& s) { return s.SetImageSize(600, 601); }, "", 2, 40, 2, 20, 5, -1, -1},
        {"size 2^31+600", [](COberin& s) { return s.SetImageSize(600 + (1ul << 31), 600); }, "", 2, 40, 2, 20, 5, -1,
         -1},
        {"black calibration", [](COberin& s) { return s.SetBlackCalibration(1); }, "", 4, 40, 2, 20, 5, -1, -1},
        {"exposure", [](COberin& s) { return s.SetExposure(10, 20); }, "", 4, 40, 2, 20, 5, -1, -1},
        {"exposure worker", [](COberin& s) { return s.SetExposureEx(10, 20); }, "", 4, 40, 2, 20, 5, -1, -1},
        {"auto exposure", [](COberin& s) { return s.SetAutoExposure(true); }, "", 4, 40, 2, 20, 5, -1, -1},
        {"auto gain", [](COberin& s) { return s.SetAutoGain(true); }, "", 4, 40, 2, 20, 5, -1, -1},
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(c.pszName);
        std::unique_ptr<COberin> pSensor = OpenSensor("model=4");
        ASSERT_EQ(pSensor->SetBrightness(40), 0ul);  // both in the option block
        ASSERT_EQ(pSensor->SetGainValue(2), 0ul);
        tavk05virt::ClearLog(0);
        if (*c.pszFault != '\0') Inject(0, c.pszFault);
        pSensor->m_nError = 53;
        EXPECT_EQ(c.fnCall(*pSensor), c.nStatus);
        EXPECT_EQ(pSensor->GetError(), c.nStatus);
        EXPECT_EQ((std::vector<unsigned long>{pSensor->m_nBrightness, pSensor->m_nGain, pSensor->m_nContrast,
                                              pSensor->m_nImageSize}),
                  (std::vector<unsigned long>{c.nBrightness, c.nGain, c.nContrast, c.nImageSize}));
        const std::vector<tavk05virt::Request> vec = RequestsOf(VXD_REQ_SET_SENSOR_OPTION);
        if (c.nExposureSent < 0) {
            EXPECT_TRUE(vec.empty() || vec.back().bFailed);
        } else {
            ASSERT_EQ(vec.size(), 1u);
            EXPECT_EQ(vec[0].vecBlock, OptionBlock(c.nExposureSent, c.nGainSent));
        }
    }
}

// Registers: 0 capture options, 1 scan mode, 155 roll mode (only models 3,
// 5 and 7 roll); others read 255. Neither direction touches the last status.
TEST_F(SensorTest, Registers)
{
    const struct {
        const char* pszUnit;
        unsigned long nReg, nValue;
        unsigned long nRead;         // ReadData(nReg) afterwards
        int bLatentCheck, bCapture;  // -1: not checked
        int nRollState;              // after the write from rolling (1)
    } aCases[] = {
        {"model=4", 0, 0, 0, 0, 1, 1},       {"model=4", 0, 2, 2, 1, 0, 1},     {"model=4", 0, 3, 1, 1, 1, 1},
        {"model=4", 1, 1, 1, -1, -1, 1},     {"model=4", 1, 5, 0, -1, -1, 1},   {"model=3", 155, 1, 1, -1, -1, 1},
        {"model=4", 155, 1, 0, -1, -1, 0},   {"model=5", 155, 1, 1, -1, -1, 1}, {"model=6", 155, 1, 0, -1, -1, 0},
        {"model=7", 155, 1, 1, -1, -1, 1},   {"model=8", 155, 1, 0, -1, -1, 0}, {"model=5", 155, 2, 0, -1, -1, 0},
        {"model=5", 155, 0, 0, -1, -1, 0},   {"model=7", 2, 1, 255, -1, -1, 1}, {"model=7", 154, 1, 255, -1, -1, 1},
        {"model=7", 156, 1, 255, -1, -1, 1},
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(testing::Message() << c.pszUnit << " register " << c.nReg << " = " << c.nValue);
        std::unique_ptr<COberin> pSensor = OpenSensor(c.pszUnit);
        pSensor->m_nRollState = 1;
        pSensor->m_nError = 54;
        EXPECT_EQ(pSensor->WriteData(c.nReg, c.nValue), 0ul);
        EXPECT_EQ(pSensor->ReadData(c.nReg), c.nRead);
        if (c.bLatentCheck >= 0) {
            EXPECT_EQ(pSensor->m_bLatentCheck, c.bLatentCheck != 0);
        }
        if (c.bCapture >= 0) {
            EXPECT_EQ(pSensor->m_bCaptureEnable, c.bCapture != 0);
        }
        EXPECT_EQ(pSensor->m_nRollState, c.nRollState);
        EXPECT_EQ(pSensor->GetError(), 54ul);
        EXPECT_EQ(pSensor->ReadData(1), c.nReg == 1 ? c.nRead : 0);
        EXPECT_EQ(pSensor->ReadData(155), c.nReg == 155 ? c.nRead : 0);
    }
    // Reads give the low eight bits of what is stored (the settings file may hold any number).
    COberin sensor(nullptr);
    sensor.m_nScanMode = 0x1FE;
    sensor.m_nRollMode = 0x301;
    EXPECT_EQ(sensor.ReadData(1), 254ul);
    EXPECT_EQ(sensor.ReadData(155), 1ul);
}

unsigned long CallbackA(void*, void*) { return 0; }
unsigned long CallbackB(void*, void*) { return 101; }

// Types 1 and 2 set function and context; another type keeps the function
// but takes the context and is 2; a null function removes the callback.
TEST_F(SensorTest, CallbackRegistrationByType)
{
    COberin sensor(nullptr);
    int anContext[2] = {};
    sensor.m_nError = 57;
    const struct {
        unsigned long nType;
        ISensor::PFN_CALLBACK pfn, pfnAfter;
        void* pContext;
        unsigned long nStatus;
    } aCases[] = {{1, CallbackA, CallbackA, &anContext[0], 0}, {2, CallbackB, CallbackB, &anContext[1], 0},
                  {3, CallbackA, CallbackB, &anContext[0], 2}, {0, CallbackA, CallbackB, &anContext[1], 2},
                  {100, CallbackA, CallbackB, nullptr, 2},     {1, nullptr, nullptr, nullptr, 0}};
    for (const auto& c : aCases) {
        EXPECT_EQ(sensor.SetCallBackFunction(c.nType, c.pfn, c.pContext), c.nStatus) << c.nType;
        EXPECT_EQ(sensor.m_pfnCallback, c.pfnAfter) << c.nType;
        EXPECT_EQ(sensor.m_pCallbackContext, c.pContext) << c.nType;
    }
    EXPECT_EQ(sensor.GetError(), 57ul);
}

// InitDev pushes contrast, brightness and gain in this order, stops at the
// first refusal without marking the device initialised, and tries again on
// the next call; once initialised only a forced call or a new open pushes.
TEST_F(SensorTest, InitDevStopsAtTheFirstFailureAndRetries)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=7,fw=0x3000");
    const struct {
        unsigned long nContrast, nGain;
        const char* pszFault;
        bool bForce;
        unsigned long nStatus;
        size_t nBlocks;  // option blocks that reached the unit
    } aCases[] = {
        {150, 4, "", false, 3, 0}, {30, 4, "fail=5", false, 2, 1}, {30, 3, "clearfaults", false, 3, 1},
        {30, 4, "", false, 0, 2},  {30, 4, "", false, 0, 0},       {30, 4, "", true, 0, 2},
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(testing::Message() << c.nContrast << " " << c.nGain << " " << c.pszFault);
        pSensor->m_nBrightness = 55;
        pSensor->m_nContrast = c.nContrast;
        pSensor->m_nGain = c.nGain;
        if (*c.pszFault != '\0') Inject(0, c.pszFault);
        tavk05virt::ClearLog(0);
        EXPECT_EQ(pSensor->InitDev(c.bForce), c.nStatus);
        EXPECT_EQ(pSensor->m_bDevInitialized, c.nStatus == 0);
        const std::vector<tavk05virt::Request> vec = RequestsOf(VXD_REQ_SET_SENSOR_OPTION);
        ASSERT_EQ(vec.size(), c.nBlocks);
        if (c.nBlocks == 2) {
            EXPECT_EQ(vec[1].vecBlock, OptionBlock(55, 4));
        }
    }
    EXPECT_FLOAT_EQ(pSensor->m_fContrastFactor, 1.62f);
    ASSERT_EQ(pSensor->OpenDevice(0, 0), 0ul);
    EXPECT_FALSE(pSensor->m_bDevInitialized);
}

// Control codes: status, the requests that reach the unit, the block sent
// and the bytes returned (the output buffer holds 0xEE before the call).
TEST_F(SensorTest, ControlCodes)
{
    Bytes vecIn(100), vecShort(64, 0);
    for (size_t i = 0; i < vecIn.size(); ++i) vecIn[i] = static_cast<unsigned char>(101 + i);
    const Bytes vecValue(vecIn.begin(), vecIn.begin() + 64);
    std::copy(vecIn.begin(), vecIn.begin() + 10, vecShort.begin());
    const struct {
        unsigned long nCode;
        const unsigned char* pIn;
        unsigned long nInLen, nOutCap, nLenBefore;
        bool bLenWord;
        unsigned long nStatus;
        std::vector<unsigned long> vecRequests;
        Bytes vecSent;       // block of the last request, when checked
        unsigned long nLen;  // length word afterwards
    } aCases[] = {
        {0, nullptr, 0, 0, 0, false, 0, {21}, {}, 0},
        {1, nullptr, 0, 0, 0, false, 0, {22}, {}, 0},
        {257, (const unsigned char*)"\1\1", 2, 0, 0, false, 0, {8}, {1, 1}, 0},
        {257, (const unsigned char*)"\0\2", 2, 0, 0, false, 3, {}, {}, 0},
        {257, vecIn.data(), 1, 0, 0, false, 3, {}, {}, 0},
        {257, nullptr, 2, 0, 0, false, 3, {}, {}, 0},
        {259, vecIn.data(), 10, 0, 0, false, 0, {18}, vecShort, 0},
        {260, vecIn.data(), 100, 0, 0, false, 0, {18}, vecValue, 0},
        {259, nullptr, 10, 0, 0, false, 3, {}, {}, 0},
        {260, vecIn.data(), 0, 0, 0, false, 3, {}, {}, 0},
        {515, nullptr, 0, 80, 64, true, 0, {17}, Bytes(64, 0), 64},
        {516, nullptr, 0, 60, 0, true, 0, {17}, {}, 60},
        {514, nullptr, 0, 64, 0, true, 0, {9}, Bytes(64, 0), 64},  // get requests go out zeroed
        {515, nullptr, 0, 64, 100, true, 3, {}, {}, 100},
        {515, nullptr, 0, 63, 0, true, 3, {}, {}, 0},
        {516, nullptr, 0, 59, 0, true, 3, {}, {}, 0},
        {514, nullptr, 0, 64, 0, false, 3, {}, {}, 0},
        {514, nullptr, 0, 0, 0, true, 3, {}, {}, 0},
        {769, vecIn.data(), 2, 64, 0, true, 4, {}, {}, 0},
        {2, vecIn.data(), 2, 64, 0, true, 3, {}, {}, 0},
        {262, vecIn.data(), 2, 64, 0, true, 3, {}, {}, 0},
        {513, vecIn.data(), 2, 64, 0, true, 3, {}, {}, 0},
        {517, vecIn.data(), 2, 64, 0, true, 3, {}, {}, 0},
        {0x10101, vecIn.data(), 2, 64, 0, true, 3, {}, {}, 0},
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(testing::Message() << "code " << c.nCode << " in " << c.nInLen << " out " << c.nOutCap);
        std::unique_ptr<COberin> pSensor = OpenSensor("model=8,serial=AB-12");
        ASSERT_EQ(pSensor->DevIoCtlSetValue(const_cast<unsigned char*>(vecValue.data()), 64), 0ul);
        tavk05virt::ClearLog(0);
        Bytes out(100, 0xEE);
        unsigned long nLen = c.nLenBefore;
        EXPECT_EQ(pSensor->DevIoControl(c.nCode, const_cast<unsigned char*>(c.pIn), c.nInLen,
                                        c.nOutCap ? out.data() : nullptr, c.nOutCap, c.bLenWord ? &nLen : nullptr),
                  c.nStatus);
        EXPECT_EQ(pSensor->GetError(), c.nStatus);
        EXPECT_EQ(RequestNumbers(), c.vecRequests);
        if (!c.vecSent.empty()) {
            EXPECT_EQ(tavk05virt::RequestLog(0).back().vecBlock, c.vecSent);
        }
        if (c.bLenWord) {
            EXPECT_EQ(nLen, c.nLen);
        }
        Bytes vecId(64, 0);  // the unit's device ID: its model and serial
        std::memcpy(vecId.data(), "TAVK05-8-AB-12", 14);
        const Bytes vecBlock = c.nCode == 514 ? vecId : vecValue;
        const size_t nBlock = c.nStatus == 0 ? c.nLen : 0;
        EXPECT_EQ(Bytes(out.begin(), out.begin() + nBlock), Bytes(vecBlock.begin(), vecBlock.begin() + nBlock));
        EXPECT_EQ(std::count(out.begin() + nBlock, out.end(), 0xEE), 100 - static_cast<long>(nBlock));
    }
    // The LED selector is kept for every later LED request, also the one of the close.
    std::unique_ptr<COberin> pSensor = OpenSensor("model=4");
    unsigned char abyOn[3] = {7, 1, 99};
    ASSERT_EQ(pSensor->DevIoControl(TAVK05_IOCTL_LED, abyOn, 3, nullptr, 0, nullptr), 0ul);
    unsigned long nLen = 9;  // the auto-on status is reachable through no code: 0, length 0
    EXPECT_EQ(pSensor->DevIoCtlCheckAutoOnStatus(abyOn, &nLen), 0ul);
    EXPECT_EQ(nLen, 0ul);
    ASSERT_EQ(pSensor->CloseDevice(), 0ul);
    EXPECT_EQ(RequestsOf(VXD_REQ_LED).back().vecBlock, (Bytes{0, 1}));
}

// Code 261 takes the background with brightness 35 (new firmware; 37 on
// older) and gain 2, reapplies the contrast and restores brightness and
// gain, also after a failed capture; a refused exposure stops at once.
TEST_F(SensorTest, BackgroundCapture)
{
    const struct {
        const char* pszUnit;
        const char* pszFault;
        unsigned long nStatus;
        std::vector<unsigned long> vecRequests;
        int nExposure;
        unsigned long nBrightnessAfter;
    } aCases[] = {
        {"model=7,fw=0x3000", "", 0, {5, 5, 21, 22, 5, 5}, 35, 50},
        {"model=5", "", 0, {5, 5, 21, 22, 5, 5}, 37, 50},
        {"model=7,fw=0x2FFF", "fail=21", 2, {5, 5, 21, 5, 5}, 37, 50},
        {"model=7,fw=0x2FFF", "fail=5", 2, {5}, 37, 37},
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(testing::Message() << c.pszUnit << " " << c.pszFault);
        std::unique_ptr<COberin> pSensor = OpenSensor(std::string(c.pszUnit) + ",scene=flat,fps=0");
        ASSERT_EQ(pSensor->SetBrightness(50), 0ul);
        ASSERT_EQ(pSensor->SetGainValue(4), 0ul);
        ASSERT_EQ(pSensor->SetContrast(40), 0ul);
        const float fFactor = pSensor->m_fContrastFactor;
        pSensor->m_fContrastFactor = 9.0f;
        pSensor->m_ImageProc.m_bContrastTable = 2;
        std::memset(pSensor->m_ImageProc.m_pBackground, 0x33, IMG_PIXELS);
        Inject(0, c.pszFault);
        tavk05virt::ClearLog(0);
        EXPECT_EQ(pSensor->DevIoControl(TAVK05_IOCTL_BACKGROUND, nullptr, 0, nullptr, 0, nullptr), c.nStatus);
        EXPECT_EQ(RequestNumbers(), c.vecRequests);
        const std::vector<tavk05virt::Request> vec = RequestsOf(VXD_REQ_SET_SENSOR_OPTION);
        EXPECT_EQ(vec[0].vecBlock, OptionBlock(c.nExposure, 4));
        if (vec.size() == 4) {
            EXPECT_EQ(vec[1].vecBlock, OptionBlock(c.nExposure, 2));
            EXPECT_EQ(vec[3].vecBlock, OptionBlock(50, 4));
        }
        EXPECT_EQ(pSensor->m_nBrightness, c.nBrightnessAfter);
        EXPECT_EQ(pSensor->m_nGain, 4ul);
        EXPECT_FLOAT_EQ(pSensor->m_fContrastFactor, c.nStatus == 0 ? fFactor : 9.0f);
        EXPECT_EQ(pSensor->m_ImageProc.m_bContrastTable, c.nStatus != 0 ? 2 : pSensor->m_nDeviceType == 5 ? 0 : 1);
        const Bytes vecBackground(pSensor->m_ImageProc.m_pBackground, pSensor->m_ImageProc.m_pBackground + IMG_PIXELS);
        // The background is the unmarked capture: no corner is 0x33 any more, and no mark is set.
        EXPECT_EQ(std::count(vecBackground.begin(), vecBackground.end(), 0x33) < 1000, c.nStatus == 0);
    }
}

}  // namespace
