// Base fixture of the tests that run on virtual units: every test starts and
// ends with no unit attached, and attaching or injecting must succeed; with
// the file helpers those tests share.
#ifndef TAVK05_TESTS_VIRTUAL_UNIT_TEST_H
#define TAVK05_TESTS_VIRTUAL_UNIT_TEST_H

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tavk05/virtual.h"

class VirtualUnitTest : public ::testing::Test {
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
        EXPECT_TRUE(tavk05virt::GetState(nIndex, &state)) << "unit " << nIndex;
        return state;
    }

    static int OpenNode(int nIndex) { return open(("/dev/tavk05" + std::to_string(nIndex)).c_str(), O_RDONLY); }

    // A whole file as a string ("" when it cannot be read), and a new content.
    static std::string FileText(const std::string& strPath)
    {
        std::string str;
        if (FILE* pFile = std::fopen(strPath.c_str(), "rb")) {
            for (int ch; (ch = std::fgetc(pFile)) != EOF;) str += static_cast<char>(ch);
            std::fclose(pFile);
        }
        return str;
    }

    static void WriteFile(const std::string& strPath, const std::string& strContent)
    {
        FILE* pFile = std::fopen(strPath.c_str(), "wb");
        ASSERT_NE(pFile, nullptr) << strPath;
        EXPECT_EQ(std::fwrite(strContent.data(), 1, strContent.size(), pFile), strContent.size());
        std::fclose(pFile);
    }

    // A scratch file path under TAVK05_TEST_TMP (or /tmp).
    static std::string TempPath(const std::string& strName)
    {
        const char* pszDir = std::getenv("TAVK05_TEST_TMP");
        return std::string(pszDir != nullptr && *pszDir != '\0' ? pszDir : "/tmp") + "/tv_" + std::to_string(getpid()) +
               "_" + strName;
    }
};

#endif
