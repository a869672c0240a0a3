// The settings file: path, text, the reader against a formatted read, the
// atomic save (also when killed) and hostile paths and processes.
#include <dirent.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <random>

#include "sensor_fixture.h"

namespace {

using sensortest::SensorTest;
using sensortest::SettingsText;

const uid_t kNobody = 65534;

// Run as "TAVK05_PRINT_PATH=1 test_sensor", the program prints the settings
// path its sensors would use and exits: the privileged-process test runs a
// set-group-ID copy of itself that way (a save would reach /etc).
struct PrintPathMode {
    PrintPathMode()
    {
        if (std::getenv("TAVK05_PRINT_PATH") == nullptr) return;
        std::printf("%s", COberin::ConfigPath());
        std::fflush(nullptr);
        ::_exit(0);
    }
} g_printPathMode;

class ConfigTest : public SensorTest {
protected:
    // The scratch directory lies under /tmp, not in the build tree: the tests
    // that act as nobody must reach it wherever the tree was cloned.
    void SetUp() override
    {
        SensorTest::SetUp();
        char szTemplate[] = "/tmp/tavk05-settings-XXXXXX";
        ASSERT_NE(::mkdtemp(szTemplate), nullptr);
        m_strPriv = szTemplate;
        ::chmod(m_strPriv.c_str(), 0777);
    }

    void TearDown() override
    {
        std::system(("rm -rf '" + m_strPriv + "'").c_str());
        SensorTest::TearDown();
    }

    // Points the sensor at strPath and lets a sensor with this brightness save.
    static void SaveTo(const std::string& strPath, int nBrightness = 42)
    {
        ::setenv("TAVK05_CONF", strPath.c_str(), 1);
        COberin sensor(nullptr);
        sensor.m_nBrightness = static_cast<unsigned long>(nBrightness);
        sensor.SaveConfig();
    }

    static void SaveAsNobody(const std::string& strPath)
    {
        const pid_t pid = ::fork();
        if (pid == 0) ::_exit(::setgid(kNobody) != 0 || ::setuid(kNobody) != 0 ? 3 : (SaveTo(strPath), 0));
        int nStatus = 0;
        ASSERT_EQ(::waitpid(pid, &nStatus, 0), pid);
        ASSERT_TRUE(WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0);
    }

    static ino_t InodeOf(const std::string& strPath)
    {
        struct stat st = {};
        return ::lstat(strPath.c_str(), &st) == 0 ? st.st_ino : 0;
    }

    // Names in the private directory, sorted.
    std::vector<std::string> Entries()
    {
        std::vector<std::string> vec;
        DIR* pDir = ::opendir(m_strPriv.c_str());
        while (const dirent* pEntry = pDir != nullptr ? ::readdir(pDir) : nullptr)
            if (std::strcmp(pEntry->d_name, ".") != 0 && std::strcmp(pEntry->d_name, "..") != 0)
                vec.push_back(pEntry->d_name);
        if (pDir != nullptr) ::closedir(pDir);
        std::sort(vec.begin(), vec.end());
        return vec;
    }

    std::string m_strPriv;
};

TEST_F(ConfigTest, PathTextAndDefaults)
{
    EXPECT_EQ(std::string(COberin::ConfigPath()), m_strConf);
    ::setenv("TAVK05_CONF", "", 1);
    EXPECT_STREQ(COberin::ConfigPath(), "/etc/tavk05rf.conf");
    ::unsetenv("TAVK05_CONF");
    EXPECT_STREQ(COberin::ConfigPath(), "/etc/tavk05rf.conf");

    // A never-opened sensor saves the construction defaults on destruction,
    // replacing a longer file whole and keeping its permissions.
    const std::string strFile = m_strPriv + "/tavk05.conf";
    WriteFile(strFile, std::string(300, 'x'));
    ASSERT_EQ(::chmod(strFile.c_str(), 0606), 0);
    ::setenv("TAVK05_CONF", strFile.c_str(), 1);
    {
        COberin sensor(nullptr);
    }
    EXPECT_EQ(FileText(strFile), "Brightness  =  40\nContrast    =  20\nGain        =  2\nScanMode    =  0\n");
    struct stat st = {};
    ASSERT_EQ(::stat(strFile.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0606u);
    EXPECT_EQ(Entries(), std::vector<std::string>{"tavk05.conf"});

    // An open without a file takes the file defaults (gain 1, not 2).
    ::unlink(strFile.c_str());
    AttachUnits("0:model=7,fw=0x3000");
    COberin sensor(nullptr);
    sensor.m_nBrightness = sensor.m_nContrast = 90;
    sensor.m_nScanMode = 1;
    ASSERT_EQ(sensor.OpenDevice(0, 0), 0ul);
    EXPECT_EQ(sensor.m_nBrightness, 40ul);
    EXPECT_EQ(sensor.m_nContrast, 20ul);
    EXPECT_EQ(sensor.m_nGain, 1ul);
    EXPECT_EQ(sensor.m_nScanMode, 0ul);
}

// The reader behaves as fscanf("%d") at the offsets 15, 33, 50 and 67 would
// (a value it cannot read stays as it was): on files the driver writes for a
// grid of values, whose one- and three-digit numbers shift the later
// offsets, on numbers at and around the limits of int and long (and 2^64),
// and on random numbers of any sign and length with leading zeros, while
// reading only a bounded prefix. Numbers of 20 digits and more saturate (the
// C library's conversion gives LONG_MAX, narrowed to int) and must not wrap.
TEST_F(ConfigTest, ReaderMatchesTheFormattedRead)
{
    const std::string strFile = m_strPriv + "/read.conf";
    ::setenv("TAVK05_CONF", strFile.c_str(), 1);
    std::vector<std::string> vecTexts = {"", "Brightness  =  57\n"};
    for (int b : {0, 5, 40, 100})
        for (int c : {0, 20, 99, 100})
            for (int g : {1, 8}) vecTexts.push_back(SettingsText(b, c, g, b % 2));
    for (const char* pszEdge :
         {"2147483647", "2147483648", "4294967295", "4294967296", "9223372036854775807", "9223372036854775808",
          "18446744073709551615", "18446744073709551616", "123456789012345678901", "99999999999999999999",
          "0000000000000000000000000000000000042"})
        for (const char* pszSign : {"", "-", "+"}) vecTexts.push_back(std::string(15, ' ') + pszSign + pszEdge);
    std::mt19937 rng(1234);
    const std::string strAlphabet = "0123456789          \n\t+-=xB";
    for (int nCase = 0; nCase < 300; ++nCase) {
        std::string strText =
            nCase < 4 ? std::string(nCase, ' ') + (nCase % 2 ? "-" : "") + std::string(200 + 40 * nCase, '9') : "";
        for (size_t i = 0, nLen = nCase < 4 ? 0 : rng() % 120; i < nLen; ++i)
            strText += strAlphabet[rng() % strAlphabet.size()];
        vecTexts.push_back(strText);
    }
    for (int nCase = 0; nCase < 2000; ++nCase) {  // numbers: sign, leading zeros, 1 to 400 digits
        std::string strText;
        while (strText.size() < 90) {
            strText += std::string(rng() % 3, ' ') + "  +-"[rng() % 4];
            strText += std::string(rng() % 4 == 0 ? rng() % 60 : 0, '0');
            for (size_t i = 0, n = 1 + (rng() % 8 == 0 ? rng() % 400 : rng() % 25); i < n; ++i)
                strText += static_cast<char>('0' + rng() % 10);
            strText += "\n="[rng() % 2];
        }
        vecTexts.push_back(strText);
    }
    COberin sensor(nullptr);
    const long anOffsets[4] = {15, 33, 50, 67};
    for (const std::string& strText : vecTexts) {
        WriteFile(strFile, strText);
        unsigned long anExpected[4] = {11, 22, 33, 44};
        FILE* pFile = std::fopen(strFile.c_str(), "r");
        ASSERT_NE(pFile, nullptr);
        for (int i = 0; i < 4; ++i) {
            int nValue = 0;
            if (std::fseek(pFile, anOffsets[i], SEEK_SET) == 0 && std::fscanf(pFile, "%d", &nValue) == 1)
                anExpected[i] = static_cast<unsigned long>(static_cast<long>(nValue));
        }
        std::fclose(pFile);
        sensor.m_nBrightness = 11, sensor.m_nContrast = 22, sensor.m_nGain = 33, sensor.m_nScanMode = 44;
        sensor.RetrieveConfig();
        const unsigned long anGot[4] = {sensor.m_nBrightness, sensor.m_nContrast, sensor.m_nGain, sensor.m_nScanMode};
        for (int i = 0; i < 4; ++i)
            ASSERT_EQ(anGot[i], anExpected[i]) << "at offset " << anOffsets[i] << " of '" << strText << "'";
    }
}

// Entries that are not regular files are neither read nor replaced (a FIFO
// without a writer does not block); a missing directory is skipped.
TEST_F(ConfigTest, NonRegularEntriesAreLeftAlone)
{
    const std::string strFifo = m_strPriv + "/fifo";
    const std::string strNode = m_strPriv + "/null";
    const std::string strDir = m_strPriv + "/dir";
    ASSERT_EQ(::mkfifo(strFifo.c_str(), 0666), 0);
    ASSERT_EQ(::mkdir(strDir.c_str(), 0755), 0);
    const bool bNode = ::mknod(strNode.c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0;  // a private /dev/null
    for (const std::string& strPath : {strFifo, strNode, strDir, m_strPriv + "/missing/tavk05.conf"}) {
        SCOPED_TRACE(strPath);
        if (strPath == strNode && !bNode) continue;
        const ino_t nInode = InodeOf(strPath);
        ::setenv("TAVK05_CONF", strPath.c_str(), 1);
        COberin sensor(nullptr);
        sensor.m_nGain = 8;
        sensor.RetrieveConfig();
        EXPECT_EQ(sensor.m_nGain, nInode == 0 ? 1ul : 8ul);  // a missing file gives the defaults
        sensor.SaveConfig();
        EXPECT_EQ(InodeOf(strPath), nInode);
    }
    std::vector<std::string> vecExpected = {"dir", "fifo"};
    if (bNode) vecExpected.push_back("null");
    EXPECT_EQ(Entries(), vecExpected);
}

// A link is followed: the file it names is updated and the link stays, also
// through a relative link and a link to a file not made yet.
TEST_F(ConfigTest, SymbolicLinksUpdateTheFileTheyName)
{
    ASSERT_EQ(::mkdir((m_strPriv + "/etc").c_str(), 0755), 0);
    WriteFile(m_strPriv + "/etc/real.conf", SettingsText(10, 20, 2, 0));
    ASSERT_EQ(::symlink("etc/real.conf", (m_strPriv + "/rel.conf").c_str()), 0);
    ASSERT_EQ(::symlink((m_strPriv + "/rel.conf").c_str(), (m_strPriv + "/abs.conf").c_str()), 0);
    ASSERT_EQ(::symlink("etc/new.conf", (m_strPriv + "/dangling.conf").c_str()), 0);
    SaveTo(m_strPriv + "/abs.conf", 55);
    SaveTo(m_strPriv + "/dangling.conf", 66);
    EXPECT_EQ(FileText(m_strPriv + "/etc/real.conf"), SettingsText(55, 20, 2, 0));
    EXPECT_EQ(FileText(m_strPriv + "/etc/new.conf"), SettingsText(66, 20, 2, 0));
    struct stat st = {};
    for (const char* pszLink : {"/rel.conf", "/abs.conf", "/dangling.conf"})
        EXPECT_TRUE(::lstat((m_strPriv + pszLink).c_str(), &st) == 0 && S_ISLNK(st.st_mode)) << pszLink;
    EXPECT_EQ(Entries(), (std::vector<std::string>{"abs.conf", "dangling.conf", "etc", "rel.conf"}));
}

// In a sticky, world-writable directory (as /tmp) a link is followed only
// when it belongs to the process's user or to the directory's owner, as the
// kernel's protected_symlinks rule decides, whatever that setting is here: a
// link nobody planted to a root-owned file (as /etc/shadow), or to a
// directory on the way, is neither read nor written through, and stays.
TEST_F(ConfigTest, LinksOthersPlantedInSharedDirectoriesAreNotFollowed)
{
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
    const struct {
        const char* pszCase;
        uid_t nDirOwner;
        mode_t nDirMode;
        uid_t nLinkOwner;
        bool bLinkToDirectory;  // the link stands for the directory on the way, not the file
        bool bAsNobody;         // the saving process runs as nobody
        bool bFollowed;
    } aCases[] = {
        {"nobody's link in root's sticky directory", 0, 01777, kNobody, false, false, false},
        {"nobody's link to a directory on the way", 0, 01777, kNobody, true, false, false},
        {"root's link, root's directory", 0, 01777, 0, false, false, true},
        {"nobody's link, nobody's directory", kNobody, 01777, kNobody, true, false, true},
        {"root's own link in nobody's directory", kNobody, 01777, 0, false, false, true},
        {"nobody's link, directory not sticky", 0, 0777, kNobody, false, false, true},
        {"nobody's own link, saved by nobody", 0, 01777, kNobody, false, true, true},
        {"a third user's link, saved by nobody", 0, 01777, 4321, true, true, false},
    };
    int nCase = 0;
    for (const auto& c : aCases) {
        SCOPED_TRACE(c.pszCase);
        const std::string strShared = m_strPriv + "/shared" + std::to_string(nCase);
        const std::string strEtc = m_strPriv + "/etc" + std::to_string(nCase++);
        const std::string strTarget = strEtc + "/shadow";
        ASSERT_EQ(::mkdir(strShared.c_str(), 0), 0);
        ASSERT_EQ(::chown(strShared.c_str(), c.nDirOwner, c.nDirOwner), 0);
        ASSERT_EQ(::chmod(strShared.c_str(), c.nDirMode), 0);
        ASSERT_EQ(::mkdir(strEtc.c_str(), 0755), 0);
        WriteFile(strTarget, SettingsText(61, 20, 2, 0));
        ASSERT_EQ(::chmod(strTarget.c_str(), c.bAsNobody ? 0666 : 0640), 0);
        const std::string strLink = strShared + (c.bLinkToDirectory ? "/etc" : "/tavk05rf.conf");
        ASSERT_EQ(::symlink(c.bLinkToDirectory ? strEtc.c_str() : strTarget.c_str(), strLink.c_str()), 0);
        ASSERT_EQ(::lchown(strLink.c_str(), c.nLinkOwner, c.nLinkOwner), 0);
        const std::string strPath = c.bLinkToDirectory ? strLink + "/shadow" : strLink;
        struct stat stBefore = {}, st = {};
        ASSERT_EQ(::stat(strTarget.c_str(), &stBefore), 0);
        ::usleep(10000);
        if (!c.bAsNobody) {
            ::setenv("TAVK05_CONF", strPath.c_str(), 1);
            COberin sensor(nullptr);
            sensor.RetrieveConfig();
            EXPECT_EQ(sensor.m_nBrightness, c.bFollowed ? 61ul : 40ul);  // 40: as if there were no file
        }
        if (c.bAsNobody)
            SaveAsNobody(strPath);
        else
            SaveTo(strPath, 42);
        EXPECT_EQ(FileText(strTarget), SettingsText(c.bFollowed ? 42 : 61, 20, 2, 0));
        ASSERT_EQ(::stat(strTarget.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, c.bAsNobody ? 0666u : 0640u);
        if (!c.bFollowed) {
            EXPECT_EQ(st.st_mtim.tv_sec, stBefore.st_mtim.tv_sec);
            EXPECT_EQ(st.st_mtim.tv_nsec, stBefore.st_mtim.tv_nsec);
        }
        ASSERT_EQ(::lstat(strLink.c_str(), &st), 0);
        EXPECT_TRUE(S_ISLNK(st.st_mode));
    }
}

// Permissions decide as an open for writing would: a file the process may
// not write stays even in a writable directory; a writable file in a
// directory that is not the process's is rewritten in place.
TEST_F(ConfigTest, PermissionsOfFileAndDirectoryDecide)
{
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
    const std::string strLocked = m_strPriv + "/locked.conf";
    WriteFile(strLocked, SettingsText(10, 20, 2, 0));
    ASSERT_EQ(::chmod(strLocked.c_str(), 0644), 0);
    const ino_t nLockedInode = InodeOf(strLocked);
    SaveAsNobody(strLocked);
    EXPECT_EQ(FileText(strLocked), SettingsText(10, 20, 2, 0));
    EXPECT_EQ(InodeOf(strLocked), nLockedInode);

    const std::string strShared = m_strPriv + "/etc";
    ASSERT_EQ(::mkdir(strShared.c_str(), 0755), 0);
    const std::string strOpen = strShared + "/open.conf";
    WriteFile(strOpen, std::string(100, '#'));
    ASSERT_EQ(::chmod(strOpen.c_str(), 0666), 0);
    const ino_t nOpenInode = InodeOf(strOpen);
    SaveAsNobody(strOpen);
    EXPECT_EQ(FileText(strOpen), SettingsText(42, 20, 2, 0));
    EXPECT_EQ(InodeOf(strOpen), nOpenInode);
    EXPECT_EQ(Entries(), (std::vector<std::string>{"etc", "locked.conf"}));
}

// A process killed while saving leaves a complete file; a temporary it may
// have left is removed by the next save, while those of live processes stay.
TEST_F(ConfigTest, KillDuringSaveLeavesACompleteFileAndNoTemporaries)
{
    const std::string strFile = m_strPriv + "/kill.conf";
    SaveTo(strFile, 10);
    std::mt19937 rng(99);
    for (int nTrial = 0; nTrial < 50; ++nTrial) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            for (int n = 0;; n ^= 1) SaveTo(strFile, n ? 10 : 99);
        }
        ::usleep(200 + rng() % 3000);
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        const std::string strText = FileText(strFile);
        ASSERT_TRUE(strText == SettingsText(10, 20, 2, 0) || strText == SettingsText(99, 20, 2, 0))
            << "trial " << nTrial << ": '" << strText << "'";
    }
    const pid_t pidGone = ::fork();
    if (pidGone == 0) ::_exit(0);
    ::waitpid(pidGone, nullptr, 0);
    WriteFile(strFile + ".tmp." + std::to_string(pidGone) + ".0", "stale");
    WriteFile(strFile + ".tmp." + std::to_string(::getpid()) + ".7", "live");
    SaveTo(strFile, 10);
    EXPECT_EQ(Entries(), (std::vector<std::string>{"kill.conf", "kill.conf.tmp." + std::to_string(::getpid()) + ".7"}));
}

// A privileged process (here set-group-ID to nogroup, run by root: it stays
// root, so it loads the build tree's libraries wherever the tree was cloned)
// ignores TAVK05_CONF and uses /etc/tavk05rf.conf; without the privilege the
// same program takes the variable's file.
TEST_F(ConfigTest, PrivilegedProcessIgnoresTheVariable)
{
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to make a set-group-ID program";
    struct statvfs vfs = {};
    if (::statvfs(m_strPriv.c_str(), &vfs) != 0 || (vfs.f_flag & ST_NOSUID)) GTEST_SKIP() << "mounted nosuid";
    char szSelf[4096];
    const ssize_t nLen = ::readlink("/proc/self/exe", szSelf, sizeof(szSelf) - 1);
    ASSERT_GT(nLen, 0);
    szSelf[nLen] = '\0';
    const std::string strProgram = m_strPriv + "/sgid-host", strOther = m_strPriv + "/other.conf";
    ASSERT_EQ(std::system(("cp '" + std::string(szSelf) + "' '" + strProgram + "'").c_str()), 0);
    ASSERT_EQ(::chown(strProgram.c_str(), 0, kNobody), 0);
    ASSERT_EQ(::chmod(strProgram.c_str(), 02755), 0);
    auto PathUsed = [&] {
        std::string str;
        FILE* pOut = ::popen(("TAVK05_PRINT_PATH=1 TAVK05_CONF='" + strOther + "' '" + strProgram + "'").c_str(), "r");
        char sz[256];
        while (pOut != nullptr && std::fgets(sz, sizeof(sz), pOut) != nullptr) str += sz;
        EXPECT_EQ(pOut != nullptr ? ::pclose(pOut) : -1, 0);
        return str;
    };
    EXPECT_EQ(PathUsed(), "/etc/tavk05rf.conf");
    ASSERT_EQ(::chmod(strProgram.c_str(), 0755), 0);
    EXPECT_EQ(PathUsed(), strOther);
}

}  // namespace
