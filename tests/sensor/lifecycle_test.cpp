// Construction, opening and closing, the LED and the state-reporting
// operations of the sensor object, against virtual units.
#include <memory>

#include "sensor_fixture.h"

namespace {

using sensortest::RequestsOf;
using sensortest::SensorTest;

class LifecycleTest : public SensorTest {
protected:
    std::unique_ptr<COberin> MakeSensor() { return std::unique_ptr<COberin>(new COberin(nullptr)); }
};

TEST_F(LifecycleTest, ConstructionSetsTheDocumentedStateWithoutTouchingTheDevice)
{
    AttachUnits("0:model=7,fw=0x3000");
    std::unique_ptr<COberin> pSensor = MakeSensor();
    const COberin& s = *pSensor;
    EXPECT_EQ(s.m_nRollState, -1);
    EXPECT_NE(s.m_pVxd, nullptr);
    EXPECT_EQ(s.m_nError, 0ul);
    EXPECT_EQ(s.m_nImageSize, 5ul);
    EXPECT_NE(s.m_pRawBuf, nullptr);
    EXPECT_NE(s.m_pRawCopyBuf, nullptr);
    EXPECT_NE(s.m_pGreyBuf, nullptr);
    EXPECT_EQ(s.m_nFrameBytes, 926720ul);
    EXPECT_EQ(s.m_nWidth, 600ul);
    EXPECT_EQ(s.m_nHeight, 600ul);
    EXPECT_EQ(s.m_nGain, 2ul);
    EXPECT_EQ(s.m_bPixelInvert, 1);
    EXPECT_EQ(s.m_nContrast, 20ul);
    EXPECT_FLOAT_EQ(s.m_fContrastFactor, 1.3f);
    EXPECT_EQ(s.m_nBrightness, 40ul);
    EXPECT_EQ(s.m_pCallbackContext, nullptr);
    EXPECT_EQ(s.m_pfnCallback, nullptr);
    EXPECT_TRUE(s.m_bLatentCheck);
    EXPECT_TRUE(s.m_bCaptureEnable);
    EXPECT_EQ(s.m_wLedMode, 0);
    EXPECT_EQ(s.m_nRollMode, 0ul);
    EXPECT_EQ(s.m_nDeviceType, 4);
    EXPECT_EQ(s.m_nRawWidth, 1280ul);
    EXPECT_EQ(s.m_nRawHeight, 676ul);
    EXPECT_EQ(s.m_nScanMode, 0ul);
    EXPECT_EQ(s.m_wDeviceIndex, 0);
    EXPECT_FALSE(s.m_bDevInitialized);
    // The frame buffers are the full 2,340,000 bytes (ASan checks the ends).
    pSensor->m_pRawBuf[OBERIN_FRAME_BUFFER_BYTES - 1] = 1;
    pSensor->m_pRawCopyBuf[OBERIN_FRAME_BUFFER_BYTES - 1] = 2;
    pSensor->m_pGreyBuf[OBERIN_FRAME_BUFFER_BYTES - 1] = 3;

    const tavk05virt::UnitState st = StateOf(0);
    EXPECT_EQ(st.nOpenCount, 0);
    EXPECT_EQ(st.nRequests, 0ul);
}

TEST_F(LifecycleTest, NeverOpenedSensorReportsDefaultsAndRefusesTheLed)
{
    std::unique_ptr<COberin> pSensor = MakeSensor();
    EXPECT_EQ(pSensor->GetDeviceType(), 4ul);
    EXPECT_EQ(pSensor->GetError(), 0ul);

    ISensor::tagDeviceInfoParam info;
    std::memset(&info, 0xA5, sizeof(info));
    EXPECT_EQ(pSensor->GetDeviceInfo(&info), 0ul);
    EXPECT_EQ(info.DeviceID, 957u);
    EXPECT_EQ(info.ImageWidth, 600u);
    EXPECT_EQ(info.ImageHeight, 600u);
    EXPECT_EQ(info.Contrast, 20u);
    EXPECT_EQ(info.Brightness, 40u);
    EXPECT_EQ(info.Gain, 2u);

    // A transport exists but no node is open.
    EXPECT_EQ(pSensor->SetLedOn(true), 2ul);
    EXPECT_EQ(pSensor->GetError(), 2ul);
    EXPECT_EQ(pSensor->LockDevice(), 0ul);
    EXPECT_EQ(pSensor->UnlockDevice(), 0ul);
    // Brightness is stored although the unit cannot take it.
    EXPECT_EQ(pSensor->SetBrightness(55), 2ul);
    EXPECT_EQ(pSensor->m_nBrightness, 55ul);
    EXPECT_EQ(pSensor->SetGainValue(8), 2ul);
    EXPECT_EQ(pSensor->m_nGain, 8ul);

    EXPECT_EQ(pSensor->CloseDevice(), 0ul);
    EXPECT_EQ(pSensor->m_pVxd, nullptr);
    EXPECT_EQ(pSensor->GetError(), 2ul);  // switching the LED off failed
}

TEST_F(LifecycleTest, ClosedSensorRefusesWhatNeedsTheTransport)
{
    AttachUnits("0:model=4");
    std::unique_ptr<COberin> pSensor = MakeSensor();
    ASSERT_EQ(pSensor->OpenDevice(0, 0), 0ul);
    ASSERT_EQ(pSensor->CloseDevice(), 0ul);
    EXPECT_EQ(pSensor->m_pVxd, nullptr);
    EXPECT_EQ(pSensor->GetError(), 0ul);  // the LED went off

    EXPECT_EQ(pSensor->SetLedOn(true), 2ul);
    EXPECT_EQ(pSensor->GetError(), 2ul);
    EXPECT_EQ(pSensor->LockDevice(), 2ul);
    EXPECT_EQ(pSensor->UnlockDevice(), 2ul);

    // The locked setters stop at the lock and keep the old value ...
    const unsigned long nBrightness = pSensor->m_nBrightness;
    const unsigned long nGain = pSensor->m_nGain;
    EXPECT_EQ(pSensor->SetBrightness(nBrightness == 33 ? 34 : 33), 2ul);
    EXPECT_EQ(pSensor->m_nBrightness, nBrightness);
    EXPECT_EQ(pSensor->SetGainValue(nGain == 8 ? 4 : 8), 2ul);
    EXPECT_EQ(pSensor->m_nGain, nGain);
    // ... while the workers store the value and report the missing transport.
    EXPECT_EQ(pSensor->SetBrightnessEx(40), 2ul);
    EXPECT_EQ(pSensor->m_nBrightness, 40ul);
    EXPECT_EQ(pSensor->SetGainValueEx(4), 2ul);
    EXPECT_EQ(pSensor->m_nGain, 4ul);

    // Closing again is harmless and leaves the last status alone.
    pSensor->m_nError = 53;
    EXPECT_EQ(pSensor->CloseDevice(), 0ul);
    EXPECT_EQ(pSensor->GetError(), 53ul);

    // Reporting operations still work; ResetDevice leaves the status alone.
    EXPECT_EQ(pSensor->GetDeviceType(), 4ul);
    EXPECT_EQ(pSensor->GetDeviceInfo(nullptr), 0ul);
    EXPECT_EQ(pSensor->Configure(0), 4ul);
    EXPECT_EQ(pSensor->GetError(), 4ul);
    EXPECT_EQ(pSensor->ResetDevice(), 0ul);
    EXPECT_EQ(pSensor->GetError(), 4ul);

    // Opening again makes a new transport.
    EXPECT_EQ(pSensor->OpenDevice(0, 0), 0ul);
    EXPECT_NE(pSensor->m_pVxd, nullptr);
    EXPECT_EQ(StateOf(0).nOpenCount, 2);
    EXPECT_TRUE(StateOf(0).bLedOn);
}

TEST_F(LifecycleTest, OutOfRangeIndexesOpenNodeZero)
{
    AttachUnits("0:model=4;3:model=8");
    for (unsigned long nIndex : {957ul, 8ul, 100ul}) {
        SCOPED_TRACE(nIndex);
        tavk05virt::UnitState stBefore = StateOf(0);
        std::unique_ptr<COberin> pSensor = MakeSensor();
        pSensor->m_wDeviceIndex = 5;
        EXPECT_EQ(pSensor->OpenDevice(nIndex, 12345), 0ul);
        EXPECT_EQ(pSensor->m_wDeviceIndex, 0);
        EXPECT_EQ(pSensor->GetDeviceType(), 4ul);
        EXPECT_EQ(StateOf(0).nOpenCount, stBefore.nOpenCount + 1);
    }
    EXPECT_EQ(StateOf(3).nOpenCount, 0);

    std::unique_ptr<COberin> pSensor = MakeSensor();
    EXPECT_EQ(pSensor->OpenDevice(3, 0), 0ul);
    EXPECT_EQ(pSensor->m_wDeviceIndex, 3);
    EXPECT_EQ(pSensor->GetDeviceType(), 8ul);
    EXPECT_EQ(StateOf(3).nOpenCount, 1);
}

TEST_F(LifecycleTest, FailedOpenReports55AndKeepsTheEarlierDevice)
{
    AttachUnits("0:model=7,fw=0x3000");
    std::unique_ptr<COberin> pSensor = MakeSensor();

    // No unit at index 2 at all.
    EXPECT_EQ(pSensor->OpenDevice(2, 0), 55ul);
    EXPECT_EQ(pSensor->GetError(), 55ul);
    EXPECT_EQ(pSensor->GetDeviceType(), 4ul);
    EXPECT_EQ(pSensor->m_nRawWidth, 1280ul);
    EXPECT_EQ(pSensor->m_nRollState, -1);
    EXPECT_NE(pSensor->m_pVxd, nullptr);  // the transport stays, closed

    ASSERT_EQ(pSensor->OpenDevice(0, 0), 0ul);
    ASSERT_EQ(pSensor->GetDeviceType(), 7ul);
    ASSERT_EQ(pSensor->m_nRawWidth, 1800ul);

    // The unit refuses further opens: type and geometry stay those of the
    // earlier successful open.
    ASSERT_TRUE(tavk05virt::Inject(0, "openfail"));
    pSensor->m_nBrightness = 66;
    EXPECT_EQ(pSensor->OpenDevice(0, 0), 55ul);
    EXPECT_EQ(pSensor->GetError(), 55ul);
    EXPECT_EQ(pSensor->GetDeviceType(), 7ul);
    EXPECT_EQ(pSensor->m_nFrameBytes, 2304000ul);
    EXPECT_EQ(pSensor->m_nRawWidth, 1800ul);
    EXPECT_EQ(pSensor->m_nRawHeight, 1280ul);
    EXPECT_EQ(pSensor->m_nBrightness, 66ul);  // settings file not read
}

struct GeometryCase {
    const char* pszUnit;
    int nType;
    unsigned long nFrameBytes;
    unsigned long nRawWidth;
    unsigned long nRawHeight;
    float fFactor;
};

TEST_F(LifecycleTest, GeometryFollowsModelAndFirmware)
{
    const GeometryCase aCases[] = {
        {"0:model=3", 3, 926720, 1280, 676, 1.3f},
        {"0:model=4", 4, 926720, 1280, 676, 1.3f},
        {"0:model=5", 5, 1128448, 1288, 876, 1.55f},
        {"0:model=6", 6, 1128448, 1288, 876, 1.55f},
        {"0:model=7,fw=0x1005", 7, 1128448, 1288, 876, 2.0f},
        {"0:model=7,fw=0x2FFF", 7, 1128448, 1288, 876, 2.0f},
        {"0:model=7,fw=0x3000", 7, 2304000, 1800, 1280, 1.42f},
        {"0:model=8,fw=0x2FFF", 8, 1128448, 1288, 876, 2.0f},
        {"0:model=8,fw=0x3000", 8, 2304000, 1800, 1280, 1.42f},
        {"0:model=8,fw=0xFFFF", 8, 2304000, 1800, 1280, 1.42f},
        {"0:product=0x0630", 0, 926720, 1280, 676, 1.3f},
    };
    for (const GeometryCase& c : aCases) {
        SCOPED_TRACE(c.pszUnit);
        tavk05virt::DetachAll();
        AttachUnits(c.pszUnit);
        std::unique_ptr<COberin> pSensor = MakeSensor();
        pSensor->m_bDevInitialized = true;
        ASSERT_EQ(pSensor->OpenDevice(0, 0), 0ul);
        EXPECT_EQ(pSensor->GetError(), 0ul);
        EXPECT_EQ(pSensor->GetDeviceType(), static_cast<unsigned long>(c.nType));
        EXPECT_EQ(pSensor->m_nDeviceType, c.nType);
        EXPECT_EQ(pSensor->m_ImageProc.m_nDeviceType, c.nType);
        EXPECT_EQ(pSensor->m_nFrameBytes, c.nFrameBytes);
        EXPECT_EQ(pSensor->m_nRawWidth, c.nRawWidth);
        EXPECT_EQ(pSensor->m_nRawHeight, c.nRawHeight);
        EXPECT_FLOAT_EQ(pSensor->m_fContrastFactor, c.fFactor);
        EXPECT_EQ(pSensor->m_nRollState, 0);
        EXPECT_FALSE(pSensor->m_bDevInitialized);
        // The output stays 600 by 600 whatever the sensor.
        EXPECT_EQ(pSensor->m_nWidth, 600ul);
        EXPECT_EQ(pSensor->m_nHeight, 600ul);
    }
}

TEST_F(LifecycleTest, SmallSensorKeepsTheGeometryOfAnEarlierLargeOne)
{
    AttachUnits("0:model=7,fw=0x3000;1:model=4");
    std::unique_ptr<COberin> pSensor = MakeSensor();
    ASSERT_EQ(pSensor->OpenDevice(0, 0), 0ul);
    ASSERT_EQ(pSensor->CloseDevice(), 0ul);
    ASSERT_EQ(pSensor->OpenDevice(1, 0), 0ul);
    EXPECT_EQ(pSensor->GetDeviceType(), 4ul);
    EXPECT_EQ(pSensor->m_ImageProc.m_nDeviceType, 4);
    // Types 3 and 4 leave the geometry as it was.
    EXPECT_EQ(pSensor->m_nFrameBytes, 2304000ul);
    EXPECT_EQ(pSensor->m_nRawWidth, 1800ul);
    EXPECT_EQ(pSensor->m_nRawHeight, 1280ul);
    EXPECT_FLOAT_EQ(pSensor->m_fContrastFactor, 1.42f);
}

TEST_F(LifecycleTest, LedGoesOnAtOpenAndOffAtClose)
{
    AttachUnits("0:model=6");
    std::unique_ptr<COberin> pSensor = MakeSensor();
    ASSERT_EQ(pSensor->OpenDevice(0, 0), 0ul);
    tavk05virt::UnitState st = StateOf(0);
    EXPECT_TRUE(st.bOpen);
    EXPECT_TRUE(st.bLedOn);
    EXPECT_EQ(st.byLedSelector, 0);
    std::vector<tavk05virt::Request> vecLed = RequestsOf(0, 8);
    ASSERT_EQ(vecLed.size(), 1u);
    EXPECT_EQ(vecLed[0].vecBlock, (std::vector<unsigned char>{1, 0}));

    // The selector in force goes with every LED request.
    pSensor->m_wLedMode = 1;
    EXPECT_EQ(pSensor->SetLedOn(false), 0ul);
    EXPECT_FALSE(StateOf(0).bLedOn);
    EXPECT_EQ(pSensor->SetLedOn(true), 0ul);
    EXPECT_EQ(pSensor->GetError(), 0ul);
    st = StateOf(0);
    EXPECT_TRUE(st.bLedOn);
    EXPECT_EQ(st.byLedSelector, 1);

    tavk05virt::ClearLog(0);
    EXPECT_EQ(pSensor->CloseDevice(), 0ul);
    st = StateOf(0);
    EXPECT_FALSE(st.bLedOn);
    EXPECT_FALSE(st.bOpen);
    EXPECT_EQ(st.nCloseCount, 1);
    vecLed = RequestsOf(0, 8);
    ASSERT_EQ(vecLed.size(), 1u);
    EXPECT_EQ(vecLed[0].vecBlock, (std::vector<unsigned char>{0, 1}));
}

TEST_F(LifecycleTest, LedFailuresAreHiddenAtOpenAndKeptAtClose)
{
    AttachUnits("0:model=4,fail=8");
    std::unique_ptr<COberin> pSensor = MakeSensor();
    EXPECT_EQ(pSensor->OpenDevice(0, 0), 0ul);
    EXPECT_EQ(pSensor->GetError(), 0ul);
    EXPECT_EQ(pSensor->SetLedOn(true), 2ul);
    EXPECT_EQ(pSensor->GetError(), 2ul);
    EXPECT_EQ(pSensor->CloseDevice(), 0ul);
    EXPECT_EQ(pSensor->GetError(), 2ul);
    EXPECT_EQ(pSensor->m_pVxd, nullptr);
}

TEST_F(LifecycleTest, DeviceInfoFillsNineWordsAndLeavesTheNinth)
{
    std::unique_ptr<COberin> pSensor = MakeSensor();
    pSensor->m_nContrast = 77;
    pSensor->m_nBrightness = 88;
    pSensor->m_nGain = 4;
    pSensor->m_nImageSize = 1;
    pSensor->m_nError = 53;

    ISensor::tagDeviceInfoParam info;
    std::memset(&info, 0xA5, sizeof(info));
    EXPECT_EQ(pSensor->GetDeviceInfo(&info), 0ul);
    EXPECT_EQ(pSensor->GetError(), 0ul);
    EXPECT_EQ(info.DeviceID, 957u);
    EXPECT_EQ(info.Reserved1, 0u);
    EXPECT_EQ(info.ImageWidth, 228u);
    EXPECT_EQ(info.ImageHeight, 292u);
    EXPECT_EQ(info.Contrast, 77u);
    EXPECT_EQ(info.Brightness, 88u);
    EXPECT_EQ(info.Reserved2, 0u);
    EXPECT_EQ(info.Reserved3, 0u);
    EXPECT_EQ(info.Reserved4, 0xA5A5A5A5u);
    EXPECT_EQ(info.Gain, 4u);

    // An image-size code outside the table leaves width and height alone.
    pSensor->m_nImageSize = 6;
    std::memset(&info, 0x5A, sizeof(info));
    EXPECT_EQ(pSensor->GetDeviceInfo(&info), 0ul);
    EXPECT_EQ(info.ImageWidth, 0x5A5A5A5Au);
    EXPECT_EQ(info.ImageHeight, 0x5A5A5A5Au);
    EXPECT_EQ(info.Reserved4, 0x5A5A5A5Au);
    EXPECT_EQ(info.DeviceID, 957u);
    EXPECT_EQ(info.Gain, 4u);

    // A null record is accepted and still clears the last status.
    pSensor->m_nError = 3;
    EXPECT_EQ(pSensor->GetDeviceInfo(nullptr), 0ul);
    EXPECT_EQ(pSensor->GetError(), 0ul);
}

TEST_F(LifecycleTest, DestructionClosesTheOpenNode)
{
    AttachUnits("0:model=8");
    {
        std::unique_ptr<COberin> pSensor = MakeSensor();
        ASSERT_EQ(pSensor->OpenDevice(0, 0), 0ul);
        ASSERT_TRUE(StateOf(0).bOpen);
    }
    const tavk05virt::UnitState st = StateOf(0);
    EXPECT_FALSE(st.bOpen);
    EXPECT_FALSE(st.bLedOn);
    EXPECT_EQ(st.nCloseCount, 1);
}

}  // namespace
