// Contrast: the scale factor by model and firmware, the contrast table, and
// InitDev pushing contrast, brightness and gain once per open.
#include <memory>
#include <string>

#include "sensor_fixture.h"

namespace {

using sensortest::RequestsOf;
using sensortest::SensorTest;

class ContrastTest : public SensorTest {};

// The table does not depend on the setting: black up to 82, then a curve
// through the listed points that never rises above the identity and ends at
// 254, 255.
TEST_F(ContrastTest, ContrastTableValues)
{
    COberin sensor(nullptr);  // type 4 before any open
    for (unsigned long nContrast : {0ul, 20ul, 100ul}) {
        SCOPED_TRACE(nContrast);
        std::memset(sensor.m_ImageProc.m_ucContrastTable, 0x77, 256);
        sensor.m_ImageProc.m_bContrastTable = 0;
        ASSERT_EQ(sensor.SetContrast(nContrast), 0ul);
        EXPECT_EQ(sensor.m_ImageProc.m_bContrastTable, 1);
        const unsigned char* pTable = sensor.m_ImageProc.m_ucContrastTable;
        for (int i = 0; i <= 82; ++i) EXPECT_EQ(pTable[i], 0) << "entry " << i;
        EXPECT_EQ(pTable[83], 1);
        EXPECT_EQ(pTable[128], 11);
        EXPECT_EQ(pTable[160], 51);
        EXPECT_EQ(pTable[192], 132);
        EXPECT_EQ(pTable[224], 210);
        EXPECT_EQ(pTable[254], 254);
        EXPECT_EQ(pTable[255], 255);
        for (int i = 1; i < 256; ++i) {
            EXPECT_GE(pTable[i], pTable[i - 1]) << "entry " << i;
            EXPECT_LE(pTable[i], i) << "entry " << i;
        }
    }
}

struct FactorCase {
    const char* pszUnit;
    unsigned long nContrast;
    float fFactor;
};

void PrintTo(const FactorCase& fc, std::ostream* pOs)
{
    *pOs << fc.pszUnit << " contrast " << fc.nContrast;
}

class ContrastFactorTest : public ContrastTest, public ::testing::WithParamInterface<FactorCase> {};

// The factor follows model and firmware; contrasts below the neutral point
// give factors below the base (the difference is signed). Models 5 and 6
// build no table and switch it off.
TEST_P(ContrastFactorTest, FactorByModelAndFirmware)
{
    const FactorCase& fc = GetParam();
    std::unique_ptr<COberin> pSensor = OpenSensor(fc.pszUnit);
    const int nType = pSensor->m_nDeviceType;
    pSensor->m_ImageProc.m_bContrastTable = (nType == 5 || nType == 6) ? 1 : 0;
    std::memset(pSensor->m_ImageProc.m_ucContrastTable, 0x77, 256);
    pSensor->m_nError = 53;

    ASSERT_EQ(pSensor->SetContrast(fc.nContrast), 0ul);
    EXPECT_EQ(pSensor->GetError(), 0ul);
    EXPECT_EQ(pSensor->m_nContrast, fc.nContrast);
    EXPECT_FLOAT_EQ(pSensor->m_fContrastFactor, fc.fFactor);
    if (nType == 5 || nType == 6) {
        EXPECT_EQ(pSensor->m_ImageProc.m_bContrastTable, 0);
        EXPECT_EQ(pSensor->m_ImageProc.m_ucContrastTable[200], 0x77);  // no table built
    } else {
        EXPECT_EQ(pSensor->m_ImageProc.m_bContrastTable, 1);
        EXPECT_EQ(pSensor->m_ImageProc.m_ucContrastTable[255], 255);
    }
    // Contrast does not reach the device.
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
}

INSTANTIATE_TEST_SUITE_P(
    Models, ContrastFactorTest,
    ::testing::Values(FactorCase{"model=4", 100, 2.6f}, FactorCase{"model=4", 0, 0.6f},
                      FactorCase{"model=3", 20, 1.0f}, FactorCase{"product=0x0630", 45, 1.5f},
                      FactorCase{"model=5", 100, 3.23f}, FactorCase{"model=5", 16, 1.55f},
                      FactorCase{"model=5", 0, 1.23f}, FactorCase{"model=6", 100, 3.15f},
                      FactorCase{"model=6", 0, 1.15f}, FactorCase{"model=7,fw=0x2FFF", 100, 3.6f},
                      FactorCase{"model=7,fw=0x2FFF", 0, 1.6f}, FactorCase{"model=7,fw=0x3000", 100, 3.02f},
                      FactorCase{"model=8,fw=0x3000", 0, 1.02f}, FactorCase{"model=8,fw=0x1005", 30, 2.2f}));

TEST_F(ContrastTest, OutOfRangeContrastChangesNothing)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=7,fw=0x3000");
    ASSERT_EQ(pSensor->SetContrast(55), 0ul);
    const float fFactor = pSensor->m_fContrastFactor;
    pSensor->m_ImageProc.m_bContrastTable = 0;
    EXPECT_EQ(pSensor->SetContrast(101), 3ul);
    EXPECT_EQ(pSensor->GetError(), 3ul);
    EXPECT_EQ(pSensor->m_nContrast, 55ul);
    EXPECT_EQ(pSensor->m_fContrastFactor, fFactor);
    EXPECT_EQ(pSensor->m_ImageProc.m_bContrastTable, 0);
    EXPECT_EQ(pSensor->SetContrast(0xFFFFFFFFul), 3ul);
    EXPECT_EQ(pSensor->m_nContrast, 55ul);
}

// Without a transport the firmware is unknown: models 7 and 8 then take the
// factor of the older firmware.
TEST_F(ContrastTest, ClosedModelSevenCountsAsOlderFirmware)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=7,fw=0x3000");
    ASSERT_EQ(pSensor->SetContrast(20), 0ul);
    EXPECT_FLOAT_EQ(pSensor->m_fContrastFactor, 1.42f);
    ASSERT_EQ(pSensor->CloseDevice(), 0ul);
    ASSERT_EQ(pSensor->SetContrast(20), 0ul);
    EXPECT_FLOAT_EQ(pSensor->m_fContrastFactor, 2.0f);
    EXPECT_EQ(pSensor->m_ImageProc.m_bContrastTable, 1);
}

// InitDev pushes contrast, brightness and gain, in this order, stops at the
// first refusal without marking the device initialised, and tries again on
// the next call until all three went through.
TEST_F(ContrastTest, InitDevStopsAtTheFirstFailureAndRetries)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=7,fw=0x3000");
    pSensor->m_nBrightness = 55;
    pSensor->m_nGain = 4;

    // Contrast out of range: nothing reaches the device.
    pSensor->m_nContrast = 150;
    EXPECT_EQ(pSensor->InitDev(false), 3ul);
    EXPECT_FALSE(pSensor->m_bDevInitialized);
    EXPECT_TRUE(RequestsOf(0, VXD_REQ_SET_SENSOR_OPTION).empty());

    // Brightness refused by the device: the gain is not sent.
    pSensor->m_nContrast = 30;
    ASSERT_TRUE(tavk05virt::Inject(0, "fail=5"));
    EXPECT_EQ(pSensor->InitDev(false), 2ul);
    EXPECT_FALSE(pSensor->m_bDevInitialized);
    EXPECT_EQ(RequestsOf(0, VXD_REQ_SET_SENSOR_OPTION).size(), 1u);
    EXPECT_FLOAT_EQ(pSensor->m_fContrastFactor, 1.62f);  // contrast was applied

    // Gain out of range: brightness sent, gain not.
    ASSERT_TRUE(tavk05virt::Inject(0, "clearfaults"));
    tavk05virt::ClearLog(0);
    pSensor->m_nGain = 3;
    EXPECT_EQ(pSensor->InitDev(false), 3ul);
    EXPECT_FALSE(pSensor->m_bDevInitialized);
    EXPECT_EQ(RequestsOf(0, VXD_REQ_SET_SENSOR_OPTION).size(), 1u);

    // All three pass: brightness then gain reach the device.
    tavk05virt::ClearLog(0);
    pSensor->m_nGain = 4;
    EXPECT_EQ(pSensor->InitDev(false), 0ul);
    EXPECT_TRUE(pSensor->m_bDevInitialized);
    const std::vector<tavk05virt::Request> vecOptions = RequestsOf(0, VXD_REQ_SET_SENSOR_OPTION);
    ASSERT_EQ(vecOptions.size(), 2u);
    EXPECT_EQ(vecOptions[0].vecBlock[2], 55);
    EXPECT_EQ(vecOptions[1].vecBlock[2], 55);
    EXPECT_EQ(vecOptions[1].vecBlock[3], 4);

    // Once initialised, only a forced call pushes again.
    tavk05virt::ClearLog(0);
    EXPECT_EQ(pSensor->InitDev(false), 0ul);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    EXPECT_EQ(pSensor->InitDev(true), 0ul);
    EXPECT_EQ(RequestsOf(0, VXD_REQ_SET_SENSOR_OPTION).size(), 2u);

    // A new open makes the device uninitialised again.
    ASSERT_EQ(pSensor->OpenDevice(0, 0), 0ul);
    EXPECT_FALSE(pSensor->m_bDevInitialized);
}

TEST_F(ContrastTest, InitDevWithoutTransportFailsAtBrightness)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=4");
    ASSERT_EQ(pSensor->CloseDevice(), 0ul);
    EXPECT_EQ(pSensor->InitDev(true), 2ul);
    EXPECT_FALSE(pSensor->m_bDevInitialized);
}

}  // namespace
