// Shared fixture of the sensor tests: a private settings file per test, no
// virtual units left over from an earlier test, and the helpers that read
// what a unit received.
#ifndef TAVK05_TESTS_SENSOR_FIXTURE_H
#define TAVK05_TESTS_SENSOR_FIXTURE_H

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tavk05/oberin.h"
#include "virtual_unit_test.h"

namespace sensortest {

typedef std::vector<unsigned char> Bytes;

const unsigned char kUntouched = 0x5A;  // prefill of the host's image buffer

// The settings file exactly as the driver writes it.
inline std::string SettingsText(int nBrightness, int nContrast, int nGain, int nScanMode)
{
    char sz[200];
    std::snprintf(sz, sizeof(sz), "Brightness  =  %d\nContrast    =  %d\nGain        =  %d\nScanMode    =  %d\n",
                  nBrightness, nContrast, nGain, nScanMode);
    return sz;
}

// The control requests with number nRequest that unit nIndex received.
inline std::vector<tavk05virt::Request> RequestsOf(unsigned long nRequest, int nIndex = 0)
{
    std::vector<tavk05virt::Request> vec;
    for (const tavk05virt::Request& req : tavk05virt::RequestLog(nIndex))
        if (req.nRequest == nRequest) vec.push_back(req);
    return vec;
}

inline std::vector<unsigned long> RequestNumbers()
{
    std::vector<unsigned long> vec;
    for (const tavk05virt::Request& req : tavk05virt::RequestLog(0)) vec.push_back(req.nRequest);
    return vec;
}

class SensorTest : public VirtualUnitTest {
protected:
    void SetUp() override
    {
        VirtualUnitTest::SetUp();
        const char* pszTmp = std::getenv("TAVK05_TEST_TMP");
        m_strDir = (pszTmp != nullptr && *pszTmp != '\0') ? pszTmp : "/tmp";
        ::mkdir(m_strDir.c_str(), 0755);
        m_strConf = m_strDir + "/sensor-" + std::to_string(static_cast<long>(::getpid())) + ".conf";
        ::setenv("TAVK05_CONF", m_strConf.c_str(), 1);  // the settings tests point it elsewhere
        ::unlink(m_strConf.c_str());
    }

    void TearDown() override
    {
        VirtualUnitTest::TearDown();
        ::unlink(m_strConf.c_str());
    }

    // A sensor opened on unit 0 of the given configuration without a
    // settings file, its requests so far forgotten.
    std::unique_ptr<COberin> OpenSensor(const std::string& strUnit)
    {
        tavk05virt::DetachAll();
        ::unlink(m_strConf.c_str());
        AttachUnits("0:" + strUnit);
        std::unique_ptr<COberin> pSensor(new COberin(nullptr));
        EXPECT_EQ(pSensor->OpenDevice(0, 0), 0ul);
        tavk05virt::ClearLog(0);
        return pSensor;
    }

    std::string m_strDir;
    std::string m_strConf;
};

}  // namespace sensortest

#endif
