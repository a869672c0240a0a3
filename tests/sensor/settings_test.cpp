// Settings of the sensor: image size, brightness and gain with what reaches
// the unit, pixel inversion, the register interface, the unsupported
// settings and the callback registration.
#include <memory>

#include "sensor_fixture.h"

namespace {

using sensortest::RequestsOf;
using sensortest::SensorTest;

class SettingsTest : public SensorTest {
protected:
    std::unique_ptr<COberin> MakeSensor() { return std::unique_ptr<COberin>(new COberin(nullptr)); }

    std::unique_ptr<COberin> OpenSensor(const char* pszUnit)
    {
        AttachUnits(pszUnit);
        std::unique_ptr<COberin> pSensor = MakeSensor();
        EXPECT_EQ(pSensor->OpenDevice(0, 0), 0ul);
        tavk05virt::ClearLog(0);
        return pSensor;
    }

    // The sensor-option block: 1, 2, exposure, gain, then 124 zero bytes.
    static std::vector<unsigned char> OptionBlock(unsigned char byExposure, unsigned char byGain)
    {
        std::vector<unsigned char> vec(128, 0);
        vec[0] = 1;
        vec[1] = 2;
        vec[2] = byExposure;
        vec[3] = byGain;
        return vec;
    }
};

TEST_F(SettingsTest, ImageSizeAcceptsTheSixNominalSizesOnly)
{
    std::unique_ptr<COberin> pSensor = MakeSensor();
    const unsigned long aSizes[6][2] = {{356, 292}, {228, 292}, {356, 456}, {248, 292}, {260, 300}, {600, 600}};
    for (unsigned long nCode = 0; nCode < 6; ++nCode) {
        SCOPED_TRACE(nCode);
        pSensor->m_nError = 53;
        EXPECT_EQ(pSensor->SetImageSize(aSizes[nCode][0], aSizes[nCode][1]), 0ul);
        EXPECT_EQ(pSensor->GetError(), 0ul);
        EXPECT_EQ(pSensor->m_nImageSize, nCode);
        ISensor::tagDeviceInfoParam info = {};
        pSensor->GetDeviceInfo(&info);
        EXPECT_EQ(info.ImageWidth, aSizes[nCode][0]);
        EXPECT_EQ(info.ImageHeight, aSizes[nCode][1]);
    }

    ASSERT_EQ(pSensor->SetImageSize(248, 292), 0ul);
    const unsigned long aBad[][2] = {{292, 248}, {600, 601}, {0, 0}, {356, 300}, {600 + (1ul << 31), 600}};
    for (const auto& pair : aBad) {
        SCOPED_TRACE(pair[0]);
        EXPECT_EQ(pSensor->SetImageSize(pair[0], pair[1]), 2ul);
        EXPECT_EQ(pSensor->GetError(), 2ul);
        EXPECT_EQ(pSensor->m_nImageSize, 3ul);
    }
    // The output image itself stays 600 by 600.
    EXPECT_EQ(pSensor->m_nWidth, 600ul);
    EXPECT_EQ(pSensor->m_nHeight, 600ul);
}

TEST_F(SettingsTest, BrightnessAndGainReachTheUnitInOneOptionBlock)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("0:model=7,fw=0x3000");
    EXPECT_EQ(pSensor->SetGainValue(4), 0ul);
    EXPECT_EQ(pSensor->SetBrightness(55), 0ul);
    EXPECT_EQ(pSensor->GetError(), 0ul);
    EXPECT_EQ(pSensor->m_nBrightness, 55ul);
    EXPECT_EQ(pSensor->m_nGain, 4ul);

    std::vector<tavk05virt::Request> vecOption = RequestsOf(0, 5);
    ASSERT_EQ(vecOption.size(), 2u);
    EXPECT_EQ(vecOption[1].vecBlock, OptionBlock(55, 4));
    tavk05virt::UnitState st = StateOf(0);
    EXPECT_EQ(st.byExposure, 55);
    EXPECT_EQ(st.byGain, 4);

    // Every accepted value is sent as it is; the limits are inclusive.
    for (unsigned long nGain : {1ul, 2ul, 8ul}) {
        EXPECT_EQ(pSensor->SetGainValueEx(nGain), 0ul);
        EXPECT_EQ(StateOf(0).byGain, nGain);
    }
    for (unsigned long nBrightness : {0ul, 100ul}) {
        EXPECT_EQ(pSensor->SetBrightnessEx(nBrightness), 0ul);
        EXPECT_EQ(StateOf(0).byExposure, nBrightness);
    }
    EXPECT_EQ(RequestsOf(0, 5).back().vecBlock, OptionBlock(100, 8));
}

TEST_F(SettingsTest, OutOfRangeBrightnessAndGainAreRefusedWithoutARequest)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("0:model=5");
    ASSERT_EQ(pSensor->SetBrightness(30), 0ul);
    ASSERT_EQ(pSensor->SetGainValue(2), 0ul);
    tavk05virt::ClearLog(0);

    for (unsigned long nBrightness : {101ul, 255ul, 256ul + 30ul}) {
        SCOPED_TRACE(nBrightness);
        EXPECT_EQ(pSensor->SetBrightness(nBrightness), 3ul);
        EXPECT_EQ(pSensor->GetError(), 3ul);
        EXPECT_EQ(pSensor->SetBrightnessEx(nBrightness), 3ul);
        EXPECT_EQ(pSensor->m_nBrightness, 30ul);
    }
    for (unsigned long nGain : {0ul, 3ul, 5ul, 16ul, 258ul}) {
        SCOPED_TRACE(nGain);
        EXPECT_EQ(pSensor->SetGainValue(nGain), 3ul);
        EXPECT_EQ(pSensor->GetError(), 3ul);
        EXPECT_EQ(pSensor->SetGainValueEx(nGain), 3ul);
        EXPECT_EQ(pSensor->m_nGain, 2ul);
    }
    EXPECT_TRUE(RequestsOf(0, 5).empty());
}

TEST_F(SettingsTest, FailedOptionRequestStillStoresTheSetting)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("0:model=4");
    ASSERT_TRUE(tavk05virt::Inject(0, "fail=5"));
    EXPECT_EQ(pSensor->SetBrightness(61), 2ul);
    EXPECT_EQ(pSensor->GetError(), 2ul);
    EXPECT_EQ(pSensor->m_nBrightness, 61ul);
    EXPECT_EQ(pSensor->SetGainValue(8), 2ul);
    EXPECT_EQ(pSensor->m_nGain, 8ul);

    ASSERT_TRUE(tavk05virt::Inject(0, "clearfaults"));
    EXPECT_EQ(pSensor->SetGainValue(8), 0ul);
    EXPECT_EQ(pSensor->GetError(), 0ul);
    EXPECT_EQ(StateOf(0).byExposure, 61);
    EXPECT_EQ(StateOf(0).byGain, 8);
}

TEST_F(SettingsTest, PixelInvertSetsTheFlagAndClearsTheStatus)
{
    std::unique_ptr<COberin> pSensor = MakeSensor();
    pSensor->m_nError = 55;
    EXPECT_EQ(pSensor->SetPixelInvert(false), 0ul);
    EXPECT_EQ(pSensor->m_bPixelInvert, 0);
    EXPECT_EQ(pSensor->GetError(), 0ul);
    pSensor->m_nError = 55;
    EXPECT_EQ(pSensor->SetPixelInvert(true), 0ul);
    EXPECT_EQ(pSensor->m_bPixelInvert, 1);
    EXPECT_EQ(pSensor->GetError(), 0ul);
}

TEST_F(SettingsTest, UnsupportedSettingsReport4)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("0:model=8");
    const tavk05virt::UnitState stBefore = StateOf(0);
    typedef unsigned long (*Probe)(COberin&);
    const Probe aProbes[] = {
        [](COberin& s) { return s.SetBlackCalibration(1); },
        [](COberin& s) { return s.SetExposure(10, 20); },
        [](COberin& s) { return s.SetExposureEx(10, 20); },
        [](COberin& s) { return s.SetAutoExposure(true); },
        [](COberin& s) { return s.SetAutoGain(true); },
    };
    for (Probe pfn : aProbes) {
        pSensor->m_nError = 0;
        EXPECT_EQ(pfn(*pSensor), 4ul);
        EXPECT_EQ(pSensor->GetError(), 4ul);
    }
    EXPECT_EQ(StateOf(0).nRequests, stBefore.nRequests);

    // Tuning reports 4 but leaves the last status as it was.
    pSensor->m_nError = 57;
    EXPECT_EQ(pSensor->AutoTunning(), 4ul);
    EXPECT_EQ(pSensor->AutoTuning(), 4ul);
    EXPECT_EQ(pSensor->GetError(), 57ul);
}

// A driver variant that tunes: AutoTuning must reach it through the
// virtual table.
class CTuningSensor : public COberin {
public:
    CTuningSensor() : COberin(nullptr) {}
    unsigned long AutoTunning() override { return 77; }
};

TEST_F(SettingsTest, AutoTuningDispatchesVirtually)
{
    std::unique_ptr<COberin> pSensor(new CTuningSensor());
    EXPECT_EQ(pSensor->AutoTuning(), 77ul);
}

TEST_F(SettingsTest, CaptureOptionRegisterRoundTrips)
{
    std::unique_ptr<COberin> pSensor = MakeSensor();
    EXPECT_EQ(pSensor->ReadData(0), 1ul);  // latent check and capture on

    pSensor->m_nError = 53;
    EXPECT_EQ(pSensor->WriteData(0, 0), 0ul);
    EXPECT_FALSE(pSensor->m_bLatentCheck);
    EXPECT_TRUE(pSensor->m_bCaptureEnable);
    EXPECT_EQ(pSensor->ReadData(0), 0ul);

    EXPECT_EQ(pSensor->WriteData(0, 2), 0ul);
    EXPECT_TRUE(pSensor->m_bLatentCheck);
    EXPECT_FALSE(pSensor->m_bCaptureEnable);
    EXPECT_EQ(pSensor->ReadData(0), 2ul);

    // An unknown option value changes nothing.
    EXPECT_EQ(pSensor->WriteData(0, 3), 0ul);
    EXPECT_EQ(pSensor->ReadData(0), 2ul);

    EXPECT_EQ(pSensor->WriteData(0, 1), 0ul);
    EXPECT_TRUE(pSensor->m_bLatentCheck);
    EXPECT_TRUE(pSensor->m_bCaptureEnable);
    EXPECT_EQ(pSensor->ReadData(0), 1ul);

    // Neither direction touches the last status.
    EXPECT_EQ(pSensor->GetError(), 53ul);
}

TEST_F(SettingsTest, ScanModeRegisterKeepsOnlyZeroAndOne)
{
    std::unique_ptr<COberin> pSensor = MakeSensor();
    pSensor->WriteData(1, 1);
    EXPECT_EQ(pSensor->m_nScanMode, 1ul);
    EXPECT_EQ(pSensor->ReadData(1), 1ul);
    pSensor->WriteData(1, 5);
    EXPECT_EQ(pSensor->m_nScanMode, 0ul);
    EXPECT_EQ(pSensor->ReadData(1), 0ul);
    pSensor->WriteData(1, 1);
    pSensor->WriteData(1, 0);
    EXPECT_EQ(pSensor->ReadData(1), 0ul);

    // Reads give the low eight bits of whatever is stored (the settings file
    // may hold any number).
    pSensor->m_nScanMode = 0x1FE;
    EXPECT_EQ(pSensor->ReadData(1), 0xFEul);
}

TEST_F(SettingsTest, RollModeRegisterDependsOnTheModel)
{
    struct Case {
        const char* pszUnit;
        unsigned long nExpectedMode;
    };
    const Case aCases[] = {
        {"0:model=3", 1}, {"0:model=4", 0}, {"0:model=5", 1},
        {"0:model=6", 0}, {"0:model=7", 1}, {"0:model=8", 0},
    };
    for (const Case& c : aCases) {
        SCOPED_TRACE(c.pszUnit);
        tavk05virt::DetachAll();
        std::unique_ptr<COberin> pSensor = OpenSensor(c.pszUnit);
        pSensor->m_nRollState = 1;
        pSensor->m_nError = 54;
        EXPECT_EQ(pSensor->WriteData(155, 1), 0ul);
        EXPECT_EQ(pSensor->m_nRollMode, c.nExpectedMode);
        EXPECT_EQ(pSensor->ReadData(155), c.nExpectedMode);
        // The roll state is reset exactly when roll mode ends up off.
        EXPECT_EQ(pSensor->m_nRollState, c.nExpectedMode == 0 ? 0 : 1);
        EXPECT_EQ(pSensor->GetError(), 54ul);
    }

    std::unique_ptr<COberin> pSensor = MakeSensor();
    pSensor->m_nDeviceType = 5;
    pSensor->WriteData(155, 1);
    ASSERT_EQ(pSensor->m_nRollMode, 1ul);
    pSensor->m_nRollState = 1;
    pSensor->WriteData(155, 2);  // out of range: off
    EXPECT_EQ(pSensor->m_nRollMode, 0ul);
    EXPECT_EQ(pSensor->m_nRollState, 0);

    pSensor->WriteData(155, 1);
    pSensor->m_nRollState = -1;
    pSensor->WriteData(155, 0);
    EXPECT_EQ(pSensor->m_nRollMode, 0ul);
    EXPECT_EQ(pSensor->m_nRollState, 0);
    pSensor->m_nRollMode = 0x301;
    EXPECT_EQ(pSensor->ReadData(155), 1ul);
}

TEST_F(SettingsTest, UnknownRegistersReadAs255AndIgnoreWrites)
{
    std::unique_ptr<COberin> pSensor = MakeSensor();
    pSensor->m_nDeviceType = 7;
    for (unsigned long nReg : {2ul, 7ul, 154ul, 156ul, 255ul}) {
        SCOPED_TRACE(nReg);
        EXPECT_EQ(pSensor->WriteData(nReg, 1), 0ul);
        EXPECT_EQ(pSensor->ReadData(nReg), 255ul);
    }
    EXPECT_EQ(pSensor->ReadData(0), 1ul);
    EXPECT_EQ(pSensor->m_nScanMode, 0ul);
    EXPECT_EQ(pSensor->m_nRollMode, 0ul);
    EXPECT_EQ(pSensor->m_nRollState, -1);
}

unsigned long CallbackA(void*, void*)
{
    return 0;
}

unsigned long CallbackB(void*, void*)
{
    return 101;
}

TEST_F(SettingsTest, CallbackRegistrationByType)
{
    std::unique_ptr<COberin> pSensor = MakeSensor();
    int nContext1 = 0, nContext2 = 0, nContext3 = 0;
    pSensor->m_nError = 57;

    EXPECT_EQ(pSensor->SetCallBackFunction(1, CallbackA, &nContext1), 0ul);
    EXPECT_EQ(pSensor->m_pfnCallback, &CallbackA);
    EXPECT_EQ(pSensor->m_pCallbackContext, &nContext1);

    EXPECT_EQ(pSensor->SetCallBackFunction(2, CallbackB, &nContext2), 0ul);
    EXPECT_EQ(pSensor->m_pfnCallback, &CallbackB);
    EXPECT_EQ(pSensor->m_pCallbackContext, &nContext2);

    // Another type keeps the function but takes the context.
    for (unsigned long nType : {0ul, 3ul, 100ul}) {
        EXPECT_EQ(pSensor->SetCallBackFunction(nType, CallbackA, &nContext3), 2ul);
        EXPECT_EQ(pSensor->m_pfnCallback, &CallbackB);
        EXPECT_EQ(pSensor->m_pCallbackContext, &nContext3);
    }

    // A null function removes the callback.
    EXPECT_EQ(pSensor->SetCallBackFunction(1, nullptr, nullptr), 0ul);
    EXPECT_EQ(pSensor->m_pfnCallback, nullptr);
    EXPECT_EQ(pSensor->m_pCallbackContext, nullptr);

    EXPECT_EQ(pSensor->GetError(), 57ul);
}

}  // namespace
