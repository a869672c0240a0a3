// The factory and its registry of live sensors.
#include <cstddef>

#include "sensor/isensor_registry.h"
#include "sensor_fixture.h"

// Hosts are built against these layouts; both ABIs must agree on them.
static_assert(sizeof(ISensor::tagDeviceInfoParam) == 40, "device info record is ten 32-bit words");
static_assert(sizeof(ISensor::tagCallbackInfo) == 16, "callback record is four 32-bit words");
static_assert(offsetof(ISensor::tagDeviceInfoParam, Reserved4) == 32, "ninth word at byte 32");
static_assert(offsetof(ISensor::tagDeviceInfoParam, Gain) == 36, "gain is the tenth word");
static_assert(offsetof(ISensor::tagCallbackInfo, nStatus) == 12, "status is the fourth word");

namespace {

using sensortest::PathExists;
using sensortest::SensorTest;

// A sensor that only records its destruction, so that the registry can be
// filled without building real sensor objects.
class CFakeSensor : public ISensor {
public:
    explicit CFakeSensor(int* pnDestroyed) : m_pnDestroyed(pnDestroyed) {}
    ~CFakeSensor() override { ++*m_pnDestroyed; }

    unsigned long OpenDevice(unsigned long, unsigned long) override { return 0; }
    unsigned long GetImage(unsigned char*) override { return 0; }
    unsigned long GetError() override { return 0; }
    unsigned long GetDeviceInfo(tagDeviceInfoParam*) override { return 0; }
    unsigned long Configure(unsigned int) override { return 0; }
    unsigned long ResetDevice() override { return 0; }
    unsigned long SetImageSize(unsigned long, unsigned long) override { return 0; }
    unsigned long SetBrightness(unsigned long) override { return 0; }
    unsigned long SetContrast(unsigned long) override { return 0; }
    unsigned long SetBlackCalibration(unsigned long) override { return 0; }
    unsigned long SetLedOn(bool) override { return 0; }
    unsigned long SetExposure(unsigned long, unsigned long) override { return 0; }
    unsigned long SetGainValue(unsigned long) override { return 0; }
    unsigned long SetAutoExposure(bool) override { return 0; }
    unsigned long SetAutoGain(bool) override { return 0; }
    unsigned long WriteData(unsigned long, unsigned long) override { return 0; }
    unsigned long ReadData(unsigned long) override { return 0; }
    unsigned long SetPixelInvert(bool) override { return 0; }
    unsigned long GetLiveImage(unsigned char*, unsigned long, unsigned int) override { return 0; }
    unsigned long AutoTunning() override { return 0; }
    unsigned long GetLiveImageEx(unsigned char*, unsigned long, unsigned int, unsigned long) override { return 0; }
    unsigned long GetLiveImageEx2(unsigned char*, unsigned long, unsigned int, void*, unsigned long) override
    {
        return 0;
    }
    unsigned long SetCallBackFunction(unsigned long, PFN_CALLBACK, void*) override { return 0; }
    unsigned long AutoTuning() override { return 0; }
    unsigned long CloseDevice() override { return 0; }
    unsigned long DevIoControl(unsigned long, void*, unsigned long, void*, unsigned long, unsigned long*) override
    {
        return 0;
    }
    unsigned long GetDeviceType() override { return 0; }

private:
    int* m_pnDestroyed;
};

class RegistryTest : public SensorTest {
protected:
    void SetUp() override
    {
        SensorTest::SetUp();
        // Every test leaves the registry as it found it; an empty registry
        // keeps the positions below simple.
        ASSERT_EQ(g_nCntISensor, 0);
        for (int i = 0; i < ISENSOR_REGISTRY_SIZE; ++i) ASSERT_EQ(g_pSaveISensor[i], nullptr) << i;
    }
};

TEST_F(RegistryTest, CreatedSensorsAreRegisteredInOrder)
{
    // The creation record is accepted, filled or null, and never read.
    ISensor::tagCreateParam param;
    for (unsigned int& n : param.nReserved) n = 0xDEADBEEF;
    ISensor* apSensor[3] = {};
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(CreateISensor(i == 1 ? &param : nullptr, &apSensor[i]), 0);
        ASSERT_NE(apSensor[i], nullptr);
        EXPECT_EQ(g_nCntISensor, i + 1);
        EXPECT_EQ(g_pSaveISensor[i], apSensor[i]);
    }
    EXPECT_NE(apSensor[0], apSensor[1]);
    EXPECT_NE(apSensor[1], apSensor[2]);
    // The factory makes the one driver implementation.
    EXPECT_NE(dynamic_cast<COberin*>(apSensor[0]), nullptr);
    for (ISensor* p : apSensor) EXPECT_EQ(DestroyISensor(p), 0);
    EXPECT_EQ(g_nCntISensor, 0);
}

TEST_F(RegistryTest, DestroyingTheMiddleSensorClosesTheGap)
{
    ISensor *pS1 = nullptr, *pS2 = nullptr, *pS3 = nullptr;
    ASSERT_EQ(CreateISensor(nullptr, &pS1), 0);
    ASSERT_EQ(CreateISensor(nullptr, &pS2), 0);
    ASSERT_EQ(CreateISensor(nullptr, &pS3), 0);

    EXPECT_EQ(DestroyISensor(pS2), 0);
    EXPECT_EQ(g_nCntISensor, 2);
    EXPECT_EQ(g_pSaveISensor[0], pS1);
    EXPECT_EQ(g_pSaveISensor[1], pS3);
    EXPECT_EQ(g_pSaveISensor[2], nullptr);
    // The destroyed sensor saved its settings on the way out.
    EXPECT_TRUE(PathExists(m_strConf));

    // Destroying the last one only clears its entry.
    EXPECT_EQ(DestroyISensor(pS3), 0);
    EXPECT_EQ(g_nCntISensor, 1);
    EXPECT_EQ(g_pSaveISensor[0], pS1);
    EXPECT_EQ(g_pSaveISensor[1], nullptr);

    EXPECT_EQ(DestroyISensor(pS1), 0);
    EXPECT_EQ(g_nCntISensor, 0);
    EXPECT_EQ(g_pSaveISensor[0], nullptr);
}

TEST_F(RegistryTest, NullAndUnregisteredPointersLeaveTheRegistryAlone)
{
    ISensor* pS1 = nullptr;
    ASSERT_EQ(CreateISensor(nullptr, &pS1), 0);

    EXPECT_EQ(DestroyISensor(nullptr), 0);
    EXPECT_EQ(g_nCntISensor, 1);
    EXPECT_EQ(g_pSaveISensor[0], pS1);
    EXPECT_EQ(g_pSaveISensor[1], nullptr);

    // An object that never went through the factory is still deleted.
    int nDestroyed = 0;
    EXPECT_EQ(DestroyISensor(new CFakeSensor(&nDestroyed)), 0);
    EXPECT_EQ(nDestroyed, 1);
    EXPECT_EQ(g_nCntISensor, 1);
    EXPECT_EQ(g_pSaveISensor[0], pS1);
    EXPECT_EQ(g_pSaveISensor[1], nullptr);

    EXPECT_EQ(DestroyISensor(pS1), 0);
    EXPECT_EQ(g_nCntISensor, 0);
}

TEST_F(RegistryTest, NullResultPointerCreatesNothing)
{
    EXPECT_EQ(CreateISensor(nullptr, nullptr), 1);
    EXPECT_EQ(g_nCntISensor, 0);
    EXPECT_EQ(g_pSaveISensor[0], nullptr);
    // No object was made, so none was destroyed and no settings were saved.
    EXPECT_FALSE(PathExists(m_strConf));
}

TEST_F(RegistryTest, FullRegistryRefusesAndCompactsInOrder)
{
    int nDestroyed = 0;
    std::vector<ISensor*> vecFakes;
    for (int i = 0; i < ISENSOR_REGISTRY_SIZE; ++i) {
        vecFakes.push_back(new CFakeSensor(&nDestroyed));
        g_pSaveISensor[i] = vecFakes.back();
    }
    g_nCntISensor = ISENSOR_REGISTRY_SIZE;

    // The 101st creation is refused: no object comes back, nothing is
    // written past the last entry, and the object made for it was destroyed
    // (which saved the settings file).
    ISensor* pSensor = reinterpret_cast<ISensor*>(0x1);
    EXPECT_EQ(CreateISensor(nullptr, &pSensor), 1);
    EXPECT_EQ(pSensor, nullptr);
    EXPECT_EQ(g_nCntISensor, ISENSOR_REGISTRY_SIZE);
    for (int i = 0; i < ISENSOR_REGISTRY_SIZE; ++i) EXPECT_EQ(g_pSaveISensor[i], vecFakes[i]) << i;
    EXPECT_TRUE(PathExists(m_strConf));
    EXPECT_EQ(nDestroyed, 0);

    // Take out every other sensor; the rest keep their order at the front.
    for (int i = 0; i < ISENSOR_REGISTRY_SIZE; i += 2) EXPECT_EQ(DestroyISensor(vecFakes[i]), 0);
    EXPECT_EQ(nDestroyed, ISENSOR_REGISTRY_SIZE / 2);
    ASSERT_EQ(g_nCntISensor, ISENSOR_REGISTRY_SIZE / 2);
    for (int i = 0; i < ISENSOR_REGISTRY_SIZE / 2; ++i) EXPECT_EQ(g_pSaveISensor[i], vecFakes[2 * i + 1]) << i;
    for (int i = ISENSOR_REGISTRY_SIZE / 2; i < ISENSOR_REGISTRY_SIZE; ++i) EXPECT_EQ(g_pSaveISensor[i], nullptr) << i;

    // With room again a creation succeeds and lands behind the survivors.
    ISensor* pNew = nullptr;
    ASSERT_EQ(CreateISensor(nullptr, &pNew), 0);
    EXPECT_EQ(g_pSaveISensor[ISENSOR_REGISTRY_SIZE / 2], pNew);
    EXPECT_EQ(DestroyISensor(pNew), 0);

    for (int i = 1; i < ISENSOR_REGISTRY_SIZE; i += 2) EXPECT_EQ(DestroyISensor(vecFakes[i]), 0);
    EXPECT_EQ(nDestroyed, ISENSOR_REGISTRY_SIZE);
    EXPECT_EQ(g_nCntISensor, 0);
    for (int i = 0; i < ISENSOR_REGISTRY_SIZE; ++i) EXPECT_EQ(g_pSaveISensor[i], nullptr) << i;
}

}  // namespace
