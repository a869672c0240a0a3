// Unit configuration: the INDEX:key=value syntax, its errors, and the keys'
// effect on what a unit reports.
#include <sys/ioctl.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "virtual/virtual_fixture.h"

namespace {

struct Identity {
    unsigned short wVendor;
    unsigned short wProduct;
    unsigned short wFirmware;
};

// idVendor, idProduct and bcdDevice of unit nIndex, as its descriptor tells.
Identity DescriptorOf(int nIndex)
{
    Identity id = {};
    const std::string strPath = "/dev/tavk05" + std::to_string(nIndex);
    const int fd = open(strPath.c_str(), O_RDONLY);
    EXPECT_GE(fd, 0) << strPath;
    unsigned char aby[18] = {};
    EXPECT_EQ(0, ioctl(fd, 4, aby));
    close(fd);
    id.wVendor = static_cast<unsigned short>(aby[8] | (aby[9] << 8));
    id.wProduct = static_cast<unsigned short>(aby[10] | (aby[11] << 8));
    id.wFirmware = static_cast<unsigned short>(aby[12] | (aby[13] << 8));
    return id;
}

TEST_F(VirtualTest, ModelsSelectProductAndDefaultFirmware)
{
    AttachUnits("0:model=3;1:model=4;2:model=5;3:model=6;4:model=7;5:model=8;6:");
    const struct {
        int nIndex;
        unsigned short wProduct;
        unsigned short wFirmware;
    } aCases[] = {{0, 0x0610, 0x1004}, {1, 0x0620, 0x1004}, {2, 0x0610, 0x1103}, {3, 0x0620, 0x1103},
                  {4, 0x0610, 0x3000}, {5, 0x0620, 0x3000}, {6, 0x0620, 0x1004}};
    for (const auto& c : aCases) {
        const Identity id = DescriptorOf(c.nIndex);
        EXPECT_EQ(c.wProduct, id.wProduct) << "unit " << c.nIndex;
        EXPECT_EQ(c.wFirmware, id.wFirmware) << "unit " << c.nIndex;
        EXPECT_EQ(DescriptorOf(0).wVendor, id.wVendor);  // one fixed vendor
    }
}

TEST_F(VirtualTest, ExplicitKeysWinOverModelDefaultsInAnyOrder)
{
    AttachUnits(" 0 : fw=0x2000 , model=7 ; 1:model=7,fw=8192;2:product=0x0630,model=5;3:vendor=0x1234");
    EXPECT_EQ(0x2000, DescriptorOf(0).wFirmware);
    EXPECT_EQ(0x0610, DescriptorOf(0).wProduct);
    EXPECT_EQ(0x2000, DescriptorOf(1).wFirmware);
    EXPECT_EQ(0x0630, DescriptorOf(2).wProduct);
    EXPECT_EQ(0x1103, DescriptorOf(2).wFirmware);
    EXPECT_EQ(0x1234, DescriptorOf(3).wVendor);
}

TEST_F(VirtualTest, SerialAppearsInDeviceId)
{
    AttachUnits("0:model=5,serial=X9.y_z-1;1:model=8");
    tavk05virt::UnitState state = State(0);
    const char szExpected[] = "TAVK05-5-X9.y_z-1";
    EXPECT_EQ(0, std::memcmp(state.abyDeviceId, szExpected, sizeof szExpected));
    for (std::size_t i = sizeof szExpected; i < 64; ++i) ASSERT_EQ(0, state.abyDeviceId[i]);
    // Units differ without a serial given.
    EXPECT_NE(0, std::memcmp(State(1).abyDeviceId + 9, state.abyDeviceId + 9, 8));
    EXPECT_EQ(0, std::memcmp(State(1).abyDeviceId, "TAVK05-8-", 9));
}

TEST_F(VirtualTest, EmptyListAttachesNothing)
{
    AttachUnits("");
    AttachUnits(" ; ;");
    tavk05virt::UnitState state;
    for (int i = 0; i < 8; ++i) EXPECT_FALSE(tavk05virt::GetState(i, &state));
}

TEST_F(VirtualTest, BadSyntaxIsRefusedWithAMessageNamingTheProblem)
{
    const struct {
        const char* pszUnits;
        const char* pszMention;
    } aCases[] = {
        {"0", "INDEX:"},
        {"8:model=5", "0..7"},
        {"x:model=5", "0..7"},
        {"01:model=5", "0..7"},
        {"0:model=9", "model"},
        {"0:model=2", "model"},
        {"0:model=", "model"},
        {"0:model", "model"},
        {"0:model=5x", "model"},
        {"0:colour=red", "colour"},
        {"0:fw=0x10000", "fw"},
        {"0:fw=-1", "fw"},
        {"0:fw=0x", "fw"},
        {"0:product=99999", "product"},
        {"0:serial=a b", "serial"},
        {"0:serial=a;b", "b"},
        {"0:serial=123456789012345678901234567890123", "serial"},
        {"0:fail=7", "fail"},
        {"0:fail=21@0", "fail"},
        {"0:fail=21@", "fail"},
        {"0:openfail=0", "openfail"},
        {"0:readfail=x", "readfail"},
        {"0:unplug", "unplug"},
        {"0:shortread=", "shortread"},
        {"0:delay=60001", "delay"},
        {"0:fps=1001", "fps"},
        {"0:scene=forest", "forest"},
        {"0:scene=levels", "levels"},
        {"0:levels=1/256", "levels"},
        {"0:levels=1//2", "levels"},
        {"0:clearfaults=1", "clearfaults"},
        {"0:model=5,,fw=1", "empty"},
        {"0:=5", "key"},
        {"0:model=5;0:model=6", "twice"},
        {"0:model=99999999999999999999999", "model"},
    };
    for (const auto& c : aCases) {
        std::string strError;
        EXPECT_FALSE(tavk05virt::Attach(c.pszUnits, &strError)) << c.pszUnits;
        EXPECT_NE(std::string::npos, strError.find(c.pszMention)) << c.pszUnits << " gave: " << strError;
    }
    tavk05virt::UnitState state;
    EXPECT_FALSE(tavk05virt::GetState(0, &state));
}

TEST_F(VirtualTest, AttachIsAllOrNothing)
{
    AttachUnits("1:model=3");
    EXPECT_FALSE(tavk05virt::Attach("0:model=5;1:model=6;2:model=9"));
    tavk05virt::UnitState state;
    EXPECT_FALSE(tavk05virt::GetState(0, &state));
    EXPECT_EQ(0x0610, DescriptorOf(1).wProduct);  // unit 1 not replaced
    EXPECT_FALSE(tavk05virt::GetState(2, &state));
}

TEST_F(VirtualTest, InjectChangesOnlyAnAttachedUnitAndOnlyWhenValid)
{
    AttachUnits("0:model=4");
    std::string strError;
    EXPECT_FALSE(tavk05virt::Inject(1, "fail=21", &strError));
    EXPECT_NE(std::string::npos, strError.find("1"));
    EXPECT_FALSE(tavk05virt::Inject(8, "fail=21", &strError));
    EXPECT_FALSE(tavk05virt::Inject(-1, "fail=21", &strError));
    EXPECT_FALSE(tavk05virt::Inject(0, "fw=0x3000,bogus", &strError));
    EXPECT_NE(std::string::npos, strError.find("bogus"));
    EXPECT_EQ(0x1004, DescriptorOf(0).wFirmware);  // nothing of the refused set applied
    Inject(0, "fw=0x3000");
    EXPECT_EQ(0x3000, DescriptorOf(0).wFirmware);
}

TEST_F(VirtualTest, SyntaxHelpCoversTheKeys)
{
    const std::string strHelp = tavk05virt::Syntax();
    for (const char* pszKey : {"model=", "fw=", "product=", "vendor=", "serial=", "scene=", "levels=", "fail=",
                               "openfail", "readfail", "shortread=", "unplug=", "delay=", "fps=", "clearfaults",
                               "replug"}) {
        EXPECT_NE(std::string::npos, strHelp.find(pszKey)) << pszKey;
    }
}

// The environment variable is read when the library loads, so it is checked
// in a fresh run of this program that only reports what it found.
TEST(VirtualEnvironment, ChildReport)
{
    if (std::getenv("TV_ENV_CHILD") == nullptr) {
        GTEST_SKIP() << "runs only as the child of EnvironmentConfiguresUnitsAtLoad";
    }
    for (int i = 0; i < 8; ++i) {
        tavk05virt::UnitState state;
        if (tavk05virt::GetState(i, &state)) {
            std::printf("UNIT %d %.20s\n", i, reinterpret_cast<const char*>(state.abyDeviceId));
        }
    }
}

TEST(VirtualEnvironment, EnvironmentConfiguresUnitsAtLoad)
{
    char szSelf[4096];
    const ssize_t nLen = readlink("/proc/self/exe", szSelf, sizeof szSelf - 1);
    ASSERT_GT(nLen, 0);
    szSelf[nLen] = '\0';
    const std::string strErr = VirtualTest::TempPath("env_stderr");
    const std::string strCommand = std::string("TV_ENV_CHILD=1 TAVK05_VIRTUAL='1:model=5,serial=A1;2:model=9;") +
                                   "3:model=8,serial=B2;4:nokey' '" + szSelf +
                                   "' --gtest_filter=VirtualEnvironment.ChildReport 2>'" + strErr + "'";
    FILE* pPipe = popen(strCommand.c_str(), "r");
    ASSERT_NE(nullptr, pPipe);
    std::string strOut;
    char szLine[512];
    while (std::fgets(szLine, sizeof szLine, pPipe) != nullptr) strOut += szLine;
    const int nStatus = pclose(pPipe);
    EXPECT_TRUE(WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0) << strOut;

    EXPECT_NE(std::string::npos, strOut.find("UNIT 1 TAVK05-5-A1\n")) << strOut;
    EXPECT_NE(std::string::npos, strOut.find("UNIT 3 TAVK05-8-B2\n")) << strOut;
    EXPECT_EQ(std::string::npos, strOut.find("UNIT 2")) << strOut;
    EXPECT_EQ(std::string::npos, strOut.find("UNIT 4")) << strOut;

    std::vector<std::string> vecErrLines;
    FILE* pErr = std::fopen(strErr.c_str(), "r");
    ASSERT_NE(nullptr, pErr);
    while (std::fgets(szLine, sizeof szLine, pErr) != nullptr) {
        if (std::strncmp(szLine, "tavk05-virtual:", 15) == 0) vecErrLines.push_back(szLine);
    }
    std::fclose(pErr);
    std::remove(strErr.c_str());
    ASSERT_EQ(2u, vecErrLines.size());
    EXPECT_NE(std::string::npos, vecErrLines[0].find("unit 2")) << vecErrLines[0];
    EXPECT_NE(std::string::npos, vecErrLines[1].find("nokey")) << vecErrLines[1];
}

}  // namespace
