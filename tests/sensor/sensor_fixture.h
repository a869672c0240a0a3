// Shared fixture of the sensor tests: a private settings file per test and no
// virtual units left over from an earlier test.
#ifndef TAVK05_TESTS_SENSOR_FIXTURE_H
#define TAVK05_TESTS_SENSOR_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "tavk05/oberin.h"
#include "tavk05/virtual.h"

namespace sensortest {

// Reads a whole file; false when it cannot be opened.
inline bool ReadFile(const std::string& strPath, std::string* pstrContent)
{
    FILE* pFile = std::fopen(strPath.c_str(), "rb");
    if (pFile == nullptr) return false;
    pstrContent->clear();
    char ach[256];
    size_t n;
    while ((n = std::fread(ach, 1, sizeof(ach), pFile)) > 0) pstrContent->append(ach, n);
    std::fclose(pFile);
    return true;
}

inline void WriteFile(const std::string& strPath, const std::string& strContent)
{
    FILE* pFile = std::fopen(strPath.c_str(), "wb");
    ASSERT_NE(pFile, nullptr) << strPath;
    ASSERT_EQ(std::fwrite(strContent.data(), 1, strContent.size(), pFile), strContent.size());
    std::fclose(pFile);
}

inline bool PathExists(const std::string& strPath)
{
    struct stat st;
    return ::stat(strPath.c_str(), &st) == 0;
}

// The settings file exactly as the driver writes it.
inline std::string SettingsText(int nBrightness, int nContrast, int nGain, int nScanMode)
{
    char sz[200];
    std::snprintf(sz, sizeof(sz),
                  "Brightness  =  %d\nContrast    =  %d\nGain        =  %d\nScanMode    =  %d\n",
                  nBrightness, nContrast, nGain, nScanMode);
    return sz;
}

// The control requests with number nRequest that unit nIndex received.
inline std::vector<tavk05virt::Request> RequestsOf(int nIndex, unsigned long nRequest)
{
    std::vector<tavk05virt::Request> vec;
    for (const tavk05virt::Request& req : tavk05virt::RequestLog(nIndex)) {
        if (req.nRequest == nRequest) vec.push_back(req);
    }
    return vec;
}

class SensorTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        tavk05virt::DetachAll();
        const char* pszTmp = std::getenv("TAVK05_TEST_TMP");
        m_strDir = (pszTmp != nullptr && *pszTmp != '\0') ? pszTmp : "/tmp";
        ::mkdir(m_strDir.c_str(), 0755);
        const ::testing::TestInfo* pInfo = ::testing::UnitTest::GetInstance()->current_test_info();
        m_strConf = m_strDir + "/sensor-" + pInfo->test_suite_name() + "-" + pInfo->name() + "-" +
                    std::to_string(static_cast<long>(::getpid())) + ".conf";
        const char* pszOld = std::getenv("TAVK05_CONF");
        m_bHadConf = pszOld != nullptr;
        if (m_bHadConf) m_strOldConf = pszOld;
        ::setenv("TAVK05_CONF", m_strConf.c_str(), 1);
        ::unlink(m_strConf.c_str());
    }

    void TearDown() override
    {
        tavk05virt::DetachAll();
        ::unlink(m_strConf.c_str());
        if (m_bHadConf) {
            ::setenv("TAVK05_CONF", m_strOldConf.c_str(), 1);
        } else {
            ::unsetenv("TAVK05_CONF");
        }
    }

    void AttachUnits(const std::string& strUnits)
    {
        std::string strError;
        ASSERT_TRUE(tavk05virt::Attach(strUnits, &strError)) << strUnits << ": " << strError;
    }

    // A sensor opened on unit 0 of the given configuration, its requests so
    // far forgotten.
    std::unique_ptr<COberin> OpenSensor(const std::string& strUnit)
    {
        AttachUnits("0:" + strUnit);
        std::unique_ptr<COberin> pSensor(new COberin(nullptr));
        EXPECT_EQ(pSensor->OpenDevice(0, 0), 0ul);
        tavk05virt::ClearLog(0);
        return pSensor;
    }

    tavk05virt::UnitState StateOf(int nIndex)
    {
        tavk05virt::UnitState st = {};
        EXPECT_TRUE(tavk05virt::GetState(nIndex, &st)) << "unit " << nIndex;
        return st;
    }

    std::string m_strDir;
    std::string m_strConf;
    bool m_bHadConf = false;
    std::string m_strOldConf;
};

}  // namespace sensortest

#endif
