// Shared fixture of the virtual scanner tests.
#ifndef TAVK05_TESTS_VIRTUAL_FIXTURE_H
#define TAVK05_TESTS_VIRTUAL_FIXTURE_H

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

#include "tavk05/virtual.h"
#include "virtual_unit_test.h"

class VirtualTest : public VirtualUnitTest {
protected:
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
