// Unit configuration: the INDEX:key=value syntax, its errors, and the keys'
// effect on what a unit reports.
#include <dlfcn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tavk05/oberin.h"
#include "virtual_unit_test.h"

namespace {

using VirtualTest = VirtualUnitTest;

// idVendor, idProduct and bcdDevice of unit nIndex, as its descriptor tells.
std::vector<unsigned> DescriptorOf(int nIndex)
{
    const int fd = open(("/dev/tavk05" + std::to_string(nIndex)).c_str(), O_RDONLY);
    unsigned char aby[18] = {};
    EXPECT_EQ(0, ioctl(fd, 4, aby)) << "unit " << nIndex;
    close(fd);
    std::vector<unsigned> vec;
    for (int i = 8; i < 14; i += 2) vec.push_back(aby[i] | (aby[i + 1] << 8u));
    return vec;
}

TEST_F(VirtualTest, ModelsAndExplicitKeysSetTheIdentityInAnyOrder)
{
    const struct {
        const char* pszKeys;
        unsigned nVendor, nProduct, nFirmware;
    } aCases[] = {
        // Models 3 to 6 are pinned by the device type and geometry each capture path finds.
        {"model=7", 0x1209, 0x0610, 0x3000},
        {"model=8", 0x1209, 0x0620, 0x3000},
        {"", 0x1209, 0x0620, 0x1004},
        {" fw=0x2000 , model=7 ", 0x1209, 0x0610, 0x2000},
        {"model=7,fw=8192", 0x1209, 0x0610, 0x2000},
        {"product=0x0630,model=5", 0x1209, 0x0630, 0x1103},
        {"vendor=0x1234", 0x1234, 0x0620, 0x1004},
    };
    for (const auto& c : aCases) {
        AttachUnits(std::string("3:") + c.pszKeys);
        EXPECT_EQ((std::vector<unsigned>{c.nVendor, c.nProduct, c.nFirmware}), DescriptorOf(3)) << c.pszKeys;
    }
}

TEST_F(VirtualTest, BadSyntaxIsRefusedWithAMessageNamingTheProblem)
{
    const char* const aapszCases[][2] = {
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
        {"0:openfail=", "openfail"},
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
        {"0:record=/dev/tavk051", "scanner node"},
        {"0:virtual", "record="},
        {"0:record", "record"},
        {"0:replay=/nonexistent/x", "cannot open"},
        {"0:replay=/tmp", "not a regular file"},
        {"0:record=/dev/null", "not a regular file"},
        {"0:record=/nonexistent/x", "cannot create"},
        {"0:scene=flat,seed=x", "seed"},
        {"0:scene=rolls", "roll-left"},
        {"0:latentcheck", "latentcheck"},
        {"0:seed=4294967296", "seed"},
        {"0:seed=-1", "seed"},
        {"0:wait=3x", "wait"},
        {"0:latent=", "latent"},
        {"0:latentcheck=3", "latentcheck"},
        {"0:scene=Flat", "Flat"},
        {"0:image=a.png,images=b", "image= and images= contradict"},
        {"0:scene=empty,images=b", "images= and scene=empty contradict"},
        {"0:scene=pattern,seed=3", "seed= and scene=pattern contradict"},
        {"0:scene=flat,levels=3", "levels= and scene=flat contradict"},
    };
    for (const auto& apsz : aapszCases) {
        std::string strError;
        EXPECT_FALSE(tavk05virt::Attach(apsz[0], &strError)) << apsz[0];
        EXPECT_NE(std::string::npos, strError.find(apsz[1])) << apsz[0] << " gave: " << strError;
    }
    tavk05virt::UnitState state;
    EXPECT_FALSE(tavk05virt::GetState(0, &state));
}

TEST_F(VirtualTest, AttachAndInjectAreAllOrNothing)
{
    AttachUnits(" ; ;");
    tavk05virt::UnitState state;
    for (int i = 0; i < 8; ++i) EXPECT_FALSE(tavk05virt::GetState(i, &state));
    AttachUnits("1:model=3");
    EXPECT_FALSE(tavk05virt::Attach("0:model=5;1:model=6;2:model=9"));
    EXPECT_FALSE(tavk05virt::GetState(0, &state));
    EXPECT_EQ(0x0610u, DescriptorOf(1)[1]);  // unit 1 not replaced

    std::string strError;
    EXPECT_FALSE(tavk05virt::Inject(0, "fail=21", &strError));
    EXPECT_NE(std::string::npos, strError.find("no unit 0"));
    EXPECT_FALSE(tavk05virt::Inject(8, "fail=21", &strError));
    EXPECT_FALSE(tavk05virt::Inject(-1, "fail=21", &strError));
    EXPECT_FALSE(tavk05virt::Inject(1, "fw=0x3000,bogus", &strError));
    EXPECT_NE(std::string::npos, strError.find("bogus"));
    EXPECT_EQ(0x1004u, DescriptorOf(1)[2]);  // nothing of the refused set applied
    Inject(1, "fw=0x3000");
    EXPECT_EQ(0x3000u, DescriptorOf(1)[2]);

    const std::string strHelp = tavk05virt::Syntax();
    for (const char* pszKey : {"model=",     "fw=",     "product=", "vendor=",  "serial=",
                               "scene=",     "levels=", "fail=",    "openfail", "readfail",
                               "shortread=", "unplug=", "delay=",   "fps=",     "clearfaults",
                               "replug",     "record=", "virtual",  "replay=",  "latentcheck=M"}) {
        EXPECT_NE(std::string::npos, strHelp.find(pszKey)) << pszKey;
    }
}

// Whether the next single capture of unit 0 shows a finger (its ridge area
// as the live capture measures it).
bool FingerSeen(COberin& sensor)
{
    std::vector<unsigned char> vecImage(IMG_PIXELS);
    EXPECT_EQ(0u, sensor.GetImage(vecImage.data()));
    return sensor.m_ImageProc.CheckImageQuality2(IMG_WIDTH, IMG_HEIGHT, vecImage.data()) >= 25;
}

TEST_F(VirtualTest, ThePersonDoesWhatTheHostAsks)
{
    AttachUnits("0:model=7;1:model=7,scene=flat");  // unit 0 without scene=: the person
    COberin sensor(nullptr);
    ASSERT_EQ(0u, sensor.OpenDevice(0, 0));
    EXPECT_TRUE(FingerSeen(sensor)) << "resting on the glass before anything is asked";
    EXPECT_TRUE(tavk05virt::Lift(0));
    EXPECT_FALSE(FingerSeen(sensor)) << "lifted";
    EXPECT_TRUE(tavk05virt::Place(0));
    std::vector<bool> vecPlace;
    for (int i = 0; i < 10; ++i) vecPlace.push_back(FingerSeen(sensor));
    // 3 reads of clear glass; then the contact grows as the finger settles.
    EXPECT_EQ((std::vector<bool>{false, false, false, false, false, false, true, true, true, true}), vecPlace);
    EXPECT_TRUE(tavk05virt::Roll(0));
    int nRolled = 0;
    for (int i = 0; i < 44; ++i) nRolled += FingerSeen(sensor);
    EXPECT_EQ(41, nRolled) << "held 6 reads, rolled over 34, the first of 2 lifting reads";
    EXPECT_FALSE(tavk05virt::Lift(1)) << "scene=flat has no person";
    EXPECT_FALSE(tavk05virt::Place(5)) << "no unit";
    // A program that finds the library only preloaded reaches the same calls.
    using GetApi = const tavk05virt::Api* (*)();
    const auto pfnGet = reinterpret_cast<GetApi>(dlsym(RTLD_DEFAULT, "Tavk05VirtualApi"));
    ASSERT_NE(nullptr, pfnGet);
    EXPECT_EQ(&tavk05virt::Roll, pfnGet()->pfnRoll);
}

// The environment variable is read when the library loads, so it is checked
// in a fresh run of this program that only reports the units it found.
TEST(VirtualEnvironment, ChildReport)
{
    if (std::getenv("TV_ENV_CHILD") == nullptr) GTEST_SKIP() << "runs as the child of EnvironmentConfiguresUnitsAtLoad";
    tavk05virt::UnitState state;
    for (int i = 0; i < 8; ++i) {
        if (tavk05virt::GetState(i, &state)) std::printf("UNIT %d %.20s\n", i, (const char*)state.abyDeviceId);
    }
}

TEST(VirtualEnvironment, EnvironmentConfiguresUnitsAtLoad)
{
    char szSelf[4096];
    const ssize_t nLen = readlink("/proc/self/exe", szSelf, sizeof szSelf - 1);
    ASSERT_GT(nLen, 0);
    szSelf[nLen] = '\0';
    const std::string strCommand = std::string("TV_ENV_CHILD=1 TAVK05_VIRTUAL='1:model=5,serial=A1;2:model=9;") +
                                   "3:model=8,serial=B2;4:nokey' '" + szSelf +
                                   "' --gtest_filter=VirtualEnvironment.ChildReport 2>&1";
    FILE* pPipe = popen(strCommand.c_str(), "r");
    ASSERT_NE(nullptr, pPipe);
    // The library's complaints about units 2 and 4 come first, then the units it attached.
    std::string strOut;
    char szLine[512];
    while (std::fgets(szLine, sizeof szLine, pPipe) != nullptr) strOut += szLine;
    const int nStatus = pclose(pPipe);
    EXPECT_TRUE(WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0) << strOut;
    const size_t nUnits = strOut.find("UNIT 1 TAVK05-5-A1\nUNIT 3 TAVK05-8-B2\n");
    EXPECT_NE(std::string::npos, nUnits) << strOut;
    EXPECT_LT(strOut.find("tavk05-virtual: unit 2"), nUnits) << strOut;
    EXPECT_LT(strOut.find("nokey"), nUnits) << strOut;
    int nTold = 0;  // each told once, nothing else
    for (size_t i = strOut.find("tavk05-virtual:"); i != std::string::npos; i = strOut.find("tavk05-virtual:", i + 1)) {
        ++nTold;
    }
    EXPECT_EQ(2, nTold) << strOut;
}

}  // namespace
