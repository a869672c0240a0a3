// The factory and its registry of live sensors, and the callback record's
// layout (the C host checks the device info record on both ABIs).
#include <algorithm>
#include <cstddef>

#include "sensor/isensor_registry.h"
#include "sensor_fixture.h"

static_assert(sizeof(ISensor::tagCallbackInfo) == 16 && offsetof(ISensor::tagCallbackInfo, nStatus) == 12,
              "callback record is four 32-bit words");

namespace {

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

    // Whether a sensor saved its settings (its destructor did) since the last call.
    bool Saved()
    {
        const bool bSaved = FileText(m_strConf) != "";
        ::unlink(m_strConf.c_str());
        return bSaved;
    }
};

// Sensors are registered in order of creation; destroying one closes the gap
// and saves its settings; null and foreign pointers leave the registry alone
// (a foreign sensor is deleted all the same).
TEST_F(RegistryTest, CreateAndDestroyKeepTheOrder)
{
    ISensor::tagCreateParam param;
    for (unsigned int& n : param.nReserved) n = 0xDEADBEEF;  // never read
    ISensor* ap[3] = {};
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(CreateISensor(i == 1 ? &param : nullptr, &ap[i]), 0);
    }
    ExpectRegistry({ap[0], ap[1], ap[2]});
    EXPECT_NE(dynamic_cast<COberin*>(ap[0]), nullptr);

    EXPECT_EQ(DestroyISensor(ap[1]), 0);
    ExpectRegistry({ap[0], ap[2]});
    EXPECT_TRUE(Saved());
    EXPECT_EQ(DestroyISensor(nullptr), 0);
    EXPECT_EQ(DestroyISensor(new COberin(nullptr)), 0);
    EXPECT_TRUE(Saved());
    ExpectRegistry({ap[0], ap[2]});
    EXPECT_EQ(DestroyISensor(ap[2]), 0);
    EXPECT_EQ(DestroyISensor(ap[0]), 0);
    ExpectRegistry({});

    EXPECT_EQ(CreateISensor(nullptr, nullptr), 1);
    ExpectRegistry({});
}

// A full registry (sensors among stand-ins that are never destroyed) refuses
// a creation and destroys its object, which saves the settings; destroying
// registered sensors compacts in order, and a creation lands behind the rest.
TEST_F(RegistryTest, FullRegistryRefusesAndCompactsInOrder)
{
    ISensor* ap[3] = {};
    for (ISensor*& p : ap) {
        ASSERT_EQ(CreateISensor(nullptr, &p), 0);
    }
    static char s_achStandIns[ISENSOR_REGISTRY_SIZE];
    std::vector<ISensor*> vecAll;
    for (int i = 0; i < ISENSOR_REGISTRY_SIZE; ++i)
        vecAll.push_back(i == 0    ? ap[0]
                         : i == 50 ? ap[1]
                         : i == 99 ? ap[2]
                                   : reinterpret_cast<ISensor*>(&s_achStandIns[i]));
    std::copy(vecAll.begin(), vecAll.end(), g_pSaveISensor);
    g_nCntISensor = ISENSOR_REGISTRY_SIZE;
    Saved();

    ISensor* pSensor = reinterpret_cast<ISensor*>(0x1);
    EXPECT_EQ(CreateISensor(nullptr, &pSensor), 1);
    EXPECT_EQ(pSensor, nullptr);
    ExpectRegistry(vecAll);
    EXPECT_TRUE(Saved());

    for (ISensor* p : ap) {
        EXPECT_EQ(DestroyISensor(p), 0);
        vecAll.erase(std::find(vecAll.begin(), vecAll.end(), p));
        ExpectRegistry(vecAll);
    }
    ASSERT_EQ(CreateISensor(nullptr, &pSensor), 0);
    vecAll.push_back(pSensor);
    ExpectRegistry(vecAll);
    EXPECT_EQ(DestroyISensor(pSensor), 0);
    std::fill(g_pSaveISensor, g_pSaveISensor + ISENSOR_REGISTRY_SIZE, nullptr);
    g_nCntISensor = 0;
}

}  // namespace
