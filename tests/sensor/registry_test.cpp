// The factory and its registry of live sensors, and the record layouts hosts
// are built against (both ABIs must agree on them).
#include <cstddef>

#include "sensor/isensor_registry.h"
#include "sensor_fixture.h"

static_assert(sizeof(ISensor::tagDeviceInfoParam) == 40, "device info record is ten 32-bit words");
static_assert(sizeof(ISensor::tagCallbackInfo) == 16, "callback record is four 32-bit words");
static_assert(offsetof(ISensor::tagDeviceInfoParam, Reserved4) == 32, "ninth word at byte 32");
static_assert(offsetof(ISensor::tagDeviceInfoParam, Gain) == 36, "gain is the tenth word");
static_assert(offsetof(ISensor::tagCallbackInfo, nStatus) == 12, "status is the fourth word");

namespace {

// A sensor that only counts its destruction, so that the registry can be
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
    unsigned long GetLiveImageEx2(unsigned char*, unsigned long, unsigned int, void*, unsigned long) override { return 0; }
    unsigned long SetCallBackFunction(unsigned long, PFN_CALLBACK, void*) override { return 0; }
    unsigned long AutoTuning() override { return 0; }
    unsigned long CloseDevice() override { return 0; }
    unsigned long DevIoControl(unsigned long, void*, unsigned long, void*, unsigned long, unsigned long*) override { return 0; }
    unsigned long GetDeviceType() override { return 0; }

private:
    int* m_pnDestroyed;
};

class RegistryTest : public sensortest::SensorTest {
protected:
    void SetUp() override
    {
        SensorTest::SetUp();
        ASSERT_EQ(g_nCntISensor, 0);  // every test leaves the registry empty
    }

    static void ExpectRegistry(const std::vector<ISensor*>& vec)
    {
        ASSERT_EQ(g_nCntISensor, static_cast<int>(vec.size()));
        for (int i = 0; i < ISENSOR_REGISTRY_SIZE; ++i)
            ASSERT_EQ(g_pSaveISensor[i], i < static_cast<int>(vec.size()) ? vec[i] : nullptr) << i;
    }
};

// Sensors are registered in order of creation; destroying one closes the gap
// and saves its settings; null and foreign pointers leave the registry alone.
TEST_F(RegistryTest, CreateAndDestroyKeepTheOrder)
{
    ISensor::tagCreateParam param;
    for (unsigned int& n : param.nReserved) n = 0xDEADBEEF;  // never read
    ISensor* ap[3] = {};
    for (int i = 0; i < 3; ++i) { ASSERT_EQ(CreateISensor(i == 1 ? &param : nullptr, &ap[i]), 0); }
    ExpectRegistry({ap[0], ap[1], ap[2]});
    EXPECT_NE(dynamic_cast<COberin*>(ap[0]), nullptr);

    EXPECT_EQ(DestroyISensor(ap[1]), 0);
    ExpectRegistry({ap[0], ap[2]});
    EXPECT_NE(sensortest::FileText(m_strConf), "");  // saved

    int nDestroyed = 0;
    EXPECT_EQ(DestroyISensor(nullptr), 0);
    EXPECT_EQ(DestroyISensor(new CFakeSensor(&nDestroyed)), 0);  // deleted, never registered
    EXPECT_EQ(nDestroyed, 1);
    ExpectRegistry({ap[0], ap[2]});
    EXPECT_EQ(DestroyISensor(ap[2]), 0);
    EXPECT_EQ(DestroyISensor(ap[0]), 0);
    ExpectRegistry({});

    EXPECT_EQ(CreateISensor(nullptr, nullptr), 1);
    ExpectRegistry({});
}

// The creation beyond the last entry is refused (its object destroyed, which
// saves the settings); with room again a creation lands behind the survivors.
TEST_F(RegistryTest, FullRegistryRefusesAndCompactsInOrder)
{
    int nDestroyed = 0;
    std::vector<ISensor*> vecFakes;
    for (int i = 0; i < ISENSOR_REGISTRY_SIZE; ++i) {
        vecFakes.push_back(new CFakeSensor(&nDestroyed));
        g_pSaveISensor[i] = vecFakes.back();
    }
    g_nCntISensor = ISENSOR_REGISTRY_SIZE;

    ISensor* pSensor = reinterpret_cast<ISensor*>(0x1);
    EXPECT_EQ(CreateISensor(nullptr, &pSensor), 1);
    EXPECT_EQ(pSensor, nullptr);
    ExpectRegistry(vecFakes);
    EXPECT_NE(sensortest::FileText(m_strConf), "");  // saved

    std::vector<ISensor*> vecOdd;
    for (int i = 0; i < ISENSOR_REGISTRY_SIZE; ++i) {
        if (i % 2 == 0) { EXPECT_EQ(DestroyISensor(vecFakes[i]), 0); }
        else vecOdd.push_back(vecFakes[i]);
    }
    EXPECT_EQ(nDestroyed, ISENSOR_REGISTRY_SIZE / 2);
    ExpectRegistry(vecOdd);

    ISensor* pNew = nullptr;
    ASSERT_EQ(CreateISensor(nullptr, &pNew), 0);
    vecOdd.push_back(pNew);
    ExpectRegistry(vecOdd);
    for (ISensor* p : vecOdd) { EXPECT_EQ(DestroyISensor(p), 0); }
    EXPECT_EQ(nDestroyed, ISENSOR_REGISTRY_SIZE);
    ExpectRegistry({});
}

}  // namespace
