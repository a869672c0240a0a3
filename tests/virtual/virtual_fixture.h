// Shared fixture of the virtual scanner tests.
#ifndef TAVK05_TESTS_VIRTUAL_FIXTURE_H
#define TAVK05_TESTS_VIRTUAL_FIXTURE_H

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

#include "tavk05/virtual.h"

class VirtualTest : public ::testing::Test {
protected:
    void SetUp() override { tavk05virt::DetachAll(); }
    void TearDown() override { tavk05virt::DetachAll(); }

    static void AttachUnits(const std::string& strUnits)
    {
        std::string strError;
        ASSERT_TRUE(tavk05virt::Attach(strUnits, &strError)) << strUnits << ": " << strError;
    }

    static void Inject(int nIndex, const std::string& strKeys)
    {
        std::string strError;
        ASSERT_TRUE(tavk05virt::Inject(nIndex, strKeys, &strError)) << strKeys << ": " << strError;
    }

    static tavk05virt::UnitState State(int nIndex = 0)
    {
        tavk05virt::UnitState state = {};
        EXPECT_TRUE(tavk05virt::GetState(nIndex, &state));
        return state;
    }

    static int OpenNode(int nIndex)
    {
        const std::string strPath = "/dev/tavk05" + std::to_string(nIndex);
        return open(strPath.c_str(), O_RDONLY);
    }

public:
    // A scratch file path under TAVK05_TEST_TMP (or /tmp).
    static std::string TempPath(const std::string& strName)
    {
        const char* pszDir = std::getenv("TAVK05_TEST_TMP");
        std::string strDir = (pszDir != nullptr && *pszDir != '\0') ? pszDir : "/tmp";
        return strDir + "/tv_" + std::to_string(getpid()) + "_" + strName;
    }
};

#endif
