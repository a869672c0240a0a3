// The interposed libc calls: pass-through of everything that is not a
// virtual unit, descriptors of virtual units, control requests and reads.
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "tavk05/oberin.h"
#include "virtual/virtual_fixture.h"

extern "C" {
int __open_2(const char*, int);
int __open64_2(const char*, int);
int __openat_2(int, const char*, int);
int __openat64_2(int, const char*, int);
ssize_t __read_chk(int, void*, size_t, size_t);
int open64(const char*, int, ...);
int openat64(int, const char*, int, ...);
}

namespace {

const unsigned long kFrame34 = 926720;
const unsigned long kFrame1103 = 1128448;
const unsigned long kFrameNew = 2304000;

class TempFile {
public:
    explicit TempFile(const std::string& strContent) : m_strPath(VirtualTest::TempPath("file"))
    {
        FILE* pFile = std::fopen(m_strPath.c_str(), "w");
        EXPECT_NE(nullptr, pFile);
        if (pFile != nullptr) {
            std::fputs(strContent.c_str(), pFile);
            std::fclose(pFile);
        }
    }
    ~TempFile() { std::remove(m_strPath.c_str()); }
    const char* Path() const { return m_strPath.c_str(); }

private:
    std::string m_strPath;
};

std::string ReadAll(int fd)
{
    std::string str;
    char sz[64];
    for (;;) {
        const ssize_t n = read(fd, sz, sizeof sz);
        if (n <= 0) break;
        str.append(sz, static_cast<std::size_t>(n));
    }
    return str;
}

bool IsOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

TEST_F(VirtualTest, OrdinaryFilesPassThroughEveryOpenVariant)
{
    AttachUnits("0:model=6");
    const TempFile file("hello, scanner");
    std::vector<int> vecFds = {open(file.Path(), O_RDONLY),
                               open64(file.Path(), O_RDONLY),
                               openat(AT_FDCWD, file.Path(), O_RDONLY),
                               openat64(AT_FDCWD, file.Path(), O_RDONLY),
                               __open_2(file.Path(), O_RDONLY),
                               __open64_2(file.Path(), O_RDONLY),
                               __openat_2(AT_FDCWD, file.Path(), O_RDONLY),
                               __openat64_2(AT_FDCWD, file.Path(), O_RDONLY)};
    for (std::size_t i = 0; i < vecFds.size(); ++i) {
        ASSERT_GE(vecFds[i], 0) << "variant " << i;
        EXPECT_EQ("hello, scanner", ReadAll(vecFds[i])) << "variant " << i;
        EXPECT_EQ(0, close(vecFds[i]));
        EXPECT_FALSE(IsOpen(vecFds[i]));
    }
    char sz[8] = {};
    const int fd = open(file.Path(), O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(5, __read_chk(fd, sz, 5, sizeof sz));
    EXPECT_EQ(0, std::memcmp(sz, "hello", 5));
    close(fd);
    EXPECT_EQ(0, State(0).nOpenCount);
}

TEST_F(VirtualTest, CreatingOpenForwardsTheMode)
{
    const std::string strPath = TempPath("created");
    const mode_t oldMask = umask(022);
    const int fd = open(strPath.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0640);
    const int fdAt = openat(AT_FDCWD, (strPath + "2").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0604);
    umask(oldMask);
    ASSERT_GE(fd, 0);
    ASSERT_GE(fdAt, 0);
    struct stat st;
    ASSERT_EQ(0, fstat(fd, &st));
    EXPECT_EQ(0640u, st.st_mode & 0777);
    ASSERT_EQ(0, fstat(fdAt, &st));
    EXPECT_EQ(0604u, st.st_mode & 0777);
    close(fd);
    close(fdAt);
    std::remove(strPath.c_str());
    std::remove((strPath + "2").c_str());
}

TEST_F(VirtualTest, UnconfiguredIndexReachesTheRealOpen)
{
    AttachUnits("0:model=6");
    for (const char* pszPath : {"/dev/tavk053", "/dev/tavk057", "/dev/tavk058", "/dev/tavk05", "/dev/tavk0500"}) {
        errno = 0;
        EXPECT_EQ(-1, open(pszPath, O_RDONLY)) << pszPath;
        EXPECT_EQ(ENOENT, errno) << pszPath;
    }
    errno = 0;
    EXPECT_EQ(-1, openat(AT_FDCWD, "/dev/tavk052", O_RDONLY));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(VirtualTest, PassThroughIoctlAndReadOnPipes)
{
    AttachUnits("0:model=6");
    int afd[2];
    ASSERT_EQ(0, pipe(afd));
    ASSERT_EQ(5, write(afd[1], "abcde", 5));
    int nPending = 0;
    EXPECT_EQ(0, ioctl(afd[0], FIONREAD, &nPending));
    EXPECT_EQ(5, nPending);
    char sz[5];
    EXPECT_EQ(5, read(afd[0], sz, sizeof sz));
    EXPECT_EQ(0, std::memcmp(sz, "abcde", 5));
    EXPECT_EQ(0, close(afd[0]));
    EXPECT_EQ(0, close(afd[1]));
    errno = 0;
    EXPECT_EQ(-1, close(afd[0]));
    EXPECT_EQ(EBADF, errno);
}

TEST_F(VirtualTest, VirtualDescriptorsAreRealDescriptors)
{
    AttachUnits("0:model=6;1:model=3");
    const int fdA = open("/dev/tavk050", O_RDONLY);
    const int fdB = open64("/dev/tavk050", O_RDONLY | O_CLOEXEC);
    const int fdC = __openat_2(AT_FDCWD, "/dev/tavk051", O_RDONLY);
    ASSERT_GE(fdA, 0);
    ASSERT_GE(fdB, 0);
    ASSERT_GE(fdC, 0);
    EXPECT_NE(fdA, fdB);
    EXPECT_EQ(0, fcntl(fdA, F_GETFD) & FD_CLOEXEC);
    EXPECT_NE(0, fcntl(fdB, F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(2, State(0).nOpenCount);
    EXPECT_TRUE(State(0).bOpen);
    EXPECT_EQ(1, State(1).nOpenCount);

    EXPECT_EQ(0, close(fdA));
    EXPECT_FALSE(IsOpen(fdA));
    EXPECT_TRUE(State(0).bOpen);  // fdB still open
    EXPECT_EQ(0, close(fdB));
    EXPECT_FALSE(State(0).bOpen);
    EXPECT_EQ(2, State(0).nCloseCount);
    errno = 0;
    EXPECT_EQ(-1, close(fdB));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(2, State(0).nCloseCount);
    errno = 0;
    unsigned char aby[18];
    EXPECT_EQ(-1, ioctl(fdB, 4, aby));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(0, close(fdC));
}

TEST_F(VirtualTest, OpenFaults)
{
    AttachUnits("0:model=6,openfail=2;1:model=6,openfail");
    const int fd = OpenNode(0);
    EXPECT_GE(fd, 0);
    errno = 0;
    EXPECT_EQ(-1, OpenNode(0));
    EXPECT_EQ(ENODEV, errno);
    EXPECT_EQ(-1, OpenNode(0));
    errno = 0;
    EXPECT_EQ(-1, OpenNode(1));
    EXPECT_EQ(ENODEV, errno);
    EXPECT_EQ(1, State(0).nOpenCount);
    Inject(0, "clearfaults");
    const int fd2 = OpenNode(0);
    EXPECT_GE(fd2, 0);
    close(fd);
    close(fd2);
}

TEST_F(VirtualTest, RequestsAnswerAndUnknownOnesFail)
{
    AttachUnits("0:model=7,fw=0x2345");
    const int fd = OpenNode(0);
    ASSERT_GE(fd, 0);
    unsigned char abyDesc[18];
    std::memset(abyDesc, 0xFF, sizeof abyDesc);
    ASSERT_EQ(0, ioctl(fd, 4, abyDesc));
    EXPECT_EQ(18, abyDesc[0]);
    EXPECT_EQ(1, abyDesc[1]);
    EXPECT_EQ(0x00, abyDesc[2]);
    EXPECT_EQ(0x02, abyDesc[3]);
    EXPECT_EQ(0x10, abyDesc[10]);
    EXPECT_EQ(0x06, abyDesc[11]);
    EXPECT_EQ(0x45, abyDesc[12]);
    EXPECT_EQ(0x23, abyDesc[13]);
    EXPECT_GE(abyDesc[17], 1);  // at least one configuration

    errno = 0;
    unsigned char aby[128] = {};
    EXPECT_EQ(-1, ioctl(fd, 6, aby));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(-1, ioctl(fd, 0x5401, aby));  // a terminal request
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(-1, ioctl(fd, 9, nullptr));
    EXPECT_EQ(EFAULT, errno);
    EXPECT_EQ(0, ioctl(fd, 21, 0));
    EXPECT_TRUE(State().bAcquiring);
    EXPECT_EQ(0, ioctl(fd, 22, 0));
    EXPECT_FALSE(State().bAcquiring);

    const std::vector<tavk05virt::Request> vecLog = tavk05virt::RequestLog(0);
    ASSERT_EQ(6u, vecLog.size());
    EXPECT_FALSE(vecLog[0].bFailed);
    EXPECT_EQ(std::vector<unsigned char>(18, 0xFF), vecLog[0].vecBlock);  // as it arrived
    EXPECT_TRUE(vecLog[1].bFailed);
    EXPECT_EQ(6u, vecLog[1].nRequest);
    EXPECT_TRUE(vecLog[2].bFailed);
    EXPECT_TRUE(vecLog[3].bFailed);
    EXPECT_EQ(6u, State().nRequests);
    tavk05virt::ClearLog(0);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    EXPECT_EQ(6u, State().nRequests);
    close(fd);
}

TEST_F(VirtualTest, OptionAndLedBlocksUpdateTheState)
{
    AttachUnits("0:model=6");
    const int fd = OpenNode(0);
    ASSERT_GE(fd, 0);
    unsigned char abyOption[128] = {1, 2, 0x30, 0x04};
    abyOption[127] = 0x99;
    ASSERT_EQ(0, ioctl(fd, 5, abyOption));
    unsigned char abyLed[2] = {1, 1};
    ASSERT_EQ(0, ioctl(fd, 8, abyLed));
    const tavk05virt::UnitState state = State();
    EXPECT_EQ(0x30, state.byExposure);
    EXPECT_EQ(0x04, state.byGain);
    EXPECT_EQ(0, std::memcmp(abyOption, state.abyOption, 128));
    EXPECT_TRUE(state.bLedOn);
    EXPECT_EQ(1, state.byLedSelector);
    close(fd);
}

TEST_F(VirtualTest, FrameSizeFollowsModelAndFirmware)
{
    AttachUnits("0:model=3;1:model=4;2:model=5;3:model=6,fw=0x2FFF;4:model=7,fw=0x2FFF;5:model=8;"
                "6:model=6,fw=0x3000;7:product=0x0700,fw=0x3000");
    const unsigned long anExpected[8] = {kFrame34, kFrame34,  kFrame1103, kFrame1103,
                                         kFrame1103, kFrameNew, kFrameNew, kFrame34};
    std::vector<unsigned char> vec(kFrameNew + 4096);
    for (int i = 0; i < 8; ++i) {
        const int fd = OpenNode(i);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(static_cast<ssize_t>(anExpected[i]), read(fd, vec.data(), vec.size())) << "unit " << i;
        EXPECT_EQ(vec.size(), State(i).nLastReadBytes);
        EXPECT_EQ(1000, read(fd, vec.data(), 1000)) << "unit " << i;
        EXPECT_EQ(1000u, State(i).nLastReadBytes);
        EXPECT_EQ(0, read(fd, vec.data(), 0));
        EXPECT_EQ(3u, State(i).nReads);
        close(fd);
    }
}

TEST_F(VirtualTest, DefaultSceneIsAMovingGradient)
{
    AttachUnits("0:model=7,fw=0x3000");
    const int fd = OpenNode(0);
    ASSERT_GE(fd, 0);
    std::vector<unsigned char> vec(kFrameNew);
    for (unsigned long k = 0; k < 3; ++k) {
        ASSERT_EQ(static_cast<ssize_t>(kFrameNew), read(fd, vec.data(), vec.size()));
        for (unsigned long y = 0; y < 1280; y += 97) {
            for (unsigned long x = 0; x < 1800; x += 13) {
                ASSERT_EQ((x + y + k) & 0xFF, vec[y * 1800 + x]) << x << "," << y << " frame " << k;
            }
        }
    }
    close(fd);

    // Models 3 and 4: 676 rows of mosaic, the rest of the frame is zero.
    AttachUnits("1:model=4");
    const int fd1 = OpenNode(1);
    ASSERT_GE(fd1, 0);
    ASSERT_EQ(static_cast<ssize_t>(kFrame34), read(fd1, vec.data(), kFrame34));
    EXPECT_EQ((1279 + 675) & 0xFF, vec[675 * 1280 + 1279]);
    for (unsigned long p = 676 * 1280; p < kFrame34; ++p) ASSERT_EQ(0, vec[p]) << p;
    close(fd1);
}

TEST_F(VirtualTest, ReadFaultsFromTheNthRead)
{
    AttachUnits("0:model=6,levels=1/2/3,readfail=3;1:model=6,levels=5,shortread=10@2");
    const int fd = OpenNode(0);
    const int fd1 = OpenNode(1);
    ASSERT_GE(fd, 0);
    ASSERT_GE(fd1, 0);
    unsigned char aby[64];
    EXPECT_EQ(64, read(fd, aby, sizeof aby));
    EXPECT_EQ(1, aby[0]);
    EXPECT_EQ(64, read(fd, aby, sizeof aby));
    EXPECT_EQ(2, aby[63]);
    errno = 0;
    EXPECT_EQ(-1, read(fd, aby, sizeof aby));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(-1, read(fd, aby, sizeof aby));
    EXPECT_EQ(4u, State(0).nReads);

    EXPECT_EQ(64, read(fd1, aby, sizeof aby));
    std::memset(aby, 0, sizeof aby);
    EXPECT_EQ(10, read(fd1, aby, sizeof aby));
    EXPECT_EQ(5, aby[9]);
    EXPECT_EQ(0, aby[10]);
    EXPECT_EQ(10, __read_chk(fd1, aby, sizeof aby, sizeof aby));
    close(fd);
    close(fd1);
}

TEST_F(VirtualTest, RequestFaultFromTheNthCall)
{
    AttachUnits("0:model=6,fail=9@3");
    const int fd = OpenNode(0);
    ASSERT_GE(fd, 0);
    unsigned char aby[64];
    EXPECT_EQ(0, ioctl(fd, 9, aby));
    EXPECT_EQ(0, ioctl(fd, 17, aby));  // other requests do not count
    EXPECT_EQ(0, ioctl(fd, 9, aby));
    errno = 0;
    EXPECT_EQ(-1, ioctl(fd, 9, aby));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(-1, ioctl(fd, 9, aby));
    // Restating the rule restarts its count.
    Inject(0, "fail=9@2");
    EXPECT_EQ(0, ioctl(fd, 9, aby));
    EXPECT_EQ(-1, ioctl(fd, 9, aby));
    close(fd);
}

TEST_F(VirtualTest, UnplugCountsRequestsAndReadsThenVanishes)
{
    AttachUnits("0:model=6,unplug=3");
    const int fd = OpenNode(0);
    ASSERT_GE(fd, 0);
    unsigned char aby[64];
    EXPECT_EQ(0, ioctl(fd, 21, 0));
    EXPECT_EQ(64, read(fd, aby, sizeof aby));
    EXPECT_TRUE(State().bAttached);
    EXPECT_EQ(0, ioctl(fd, 17, aby));
    EXPECT_FALSE(State().bAttached);
    errno = 0;
    EXPECT_EQ(-1, ioctl(fd, 22, 0));
    EXPECT_EQ(ENODEV, errno);
    errno = 0;
    EXPECT_EQ(-1, read(fd, aby, sizeof aby));
    EXPECT_EQ(ENODEV, errno);
    errno = 0;
    EXPECT_EQ(-1, OpenNode(0));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(0, close(fd));
    EXPECT_FALSE(IsOpen(fd));

    Inject(0, "replug");
    const int fd2 = OpenNode(0);
    ASSERT_GE(fd2, 0);
    EXPECT_EQ(0, ioctl(fd2, 21, 0));
    close(fd2);

    Inject(0, "unplug=0");
    EXPECT_FALSE(State().bAttached);
    EXPECT_EQ(-1, OpenNode(0));
}

TEST_F(VirtualTest, DetachedOrReplacedUnitLeavesDeadDescriptors)
{
    AttachUnits("0:model=6;1:model=7");
    const int fd0 = OpenNode(0);
    const int fd1 = OpenNode(1);
    ASSERT_GE(fd0, 0);
    ASSERT_GE(fd1, 0);
    AttachUnits("0:model=8");
    unsigned char aby[64];
    errno = 0;
    EXPECT_EQ(-1, ioctl(fd0, 9, aby));
    EXPECT_EQ(ENODEV, errno);
    EXPECT_EQ(0, State(0).nOpenCount);  // a fresh unit
    EXPECT_EQ(0, ioctl(fd1, 9, aby));

    tavk05virt::DetachAll();
    errno = 0;
    EXPECT_EQ(-1, read(fd1, aby, sizeof aby));
    EXPECT_EQ(ENODEV, errno);
    EXPECT_EQ(0, close(fd0));
    EXPECT_EQ(0, close(fd1));
    errno = 0;
    EXPECT_EQ(-1, OpenNode(0));
    EXPECT_EQ(ENOENT, errno);  // the real open now
}

TEST_F(VirtualTest, DescriptorClosedBehindTheBackIsNotMistakenForTheUnit)
{
    AttachUnits("0:model=6,levels=0xAB");
    const int fd = OpenNode(0);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, syscall(SYS_close, fd));  // bypasses the interposed close
    const TempFile file("plain file");
    const int fdFile = open(file.Path(), O_RDONLY);
    ASSERT_EQ(fd, fdFile);  // the kernel hands out the lowest free number
    EXPECT_EQ("plain file", ReadAll(fdFile));
    EXPECT_EQ(0u, State().nReads);
    EXPECT_EQ(0, close(fdFile));
}

TEST_F(VirtualTest, PacingMakesReadsWait)
{
    AttachUnits("0:model=6,delay=30;1:model=6,fps=20");
    const int fd0 = OpenNode(0);
    const int fd1 = OpenNode(1);
    ASSERT_GE(fd0, 0);
    ASSERT_GE(fd1, 0);
    unsigned char aby[16];
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(16, read(fd0, aby, sizeof aby));
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(30));

    const auto t1 = std::chrono::steady_clock::now();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(16, read(fd1, aby, sizeof aby));
    EXPECT_GE(std::chrono::steady_clock::now() - t1, std::chrono::milliseconds(100));  // two periods of 50 ms
    close(fd0);
    close(fd1);
}

TEST_F(VirtualTest, ConcurrentUseKeepsCountsExact)
{
    AttachUnits("0:model=6;1:model=8");
    const int nRounds = 200;
    std::atomic<int> nFailures(0);
    auto worker = [&](int nIndex) {
        const int fd = OpenNode(nIndex);
        if (fd < 0) {
            ++nFailures;
            return;
        }
        std::vector<unsigned char> vec(4096);
        for (int i = 0; i < nRounds; ++i) {
            unsigned char abyLed[2] = {static_cast<unsigned char>(i & 1), 0};
            if (ioctl(fd, 8, abyLed) != 0) ++nFailures;
            if (read(fd, vec.data(), vec.size()) != 4096) ++nFailures;
        }
        close(fd);
    };
    std::thread t0(worker, 0), t1(worker, 0), t2(worker, 1);
    t0.join();
    t1.join();
    t2.join();
    EXPECT_EQ(0, nFailures.load());
    EXPECT_EQ(2u * nRounds, State(0).nReads);
    EXPECT_EQ(2u * nRounds, State(0).nRequests);
    EXPECT_EQ(static_cast<unsigned long>(nRounds), State(1).nReads);
    EXPECT_EQ(2, State(0).nCloseCount);
    EXPECT_FALSE(State(0).bOpen);
}

}  // namespace

// ---------------------------------------------------------------------------
// Recorded sessions.

namespace session {

std::string ReadFileBytes(const std::string& strPath)
{
    std::string str;
    FILE* pFile = std::fopen(strPath.c_str(), "rb");
    if (pFile == nullptr) return str;
    char ach[65536];
    std::size_t n;
    while ((n = std::fread(ach, 1, sizeof ach, pFile)) > 0) str.append(ach, n);
    std::fclose(pFile);
    return str;
}

// A host session through the real driver: open, brightness, one capture,
// close. The settings file is removed first so that every run starts alike.
std::vector<unsigned char> HostCapture(unsigned long nBrightness, unsigned long* pStatus)
{
    if (const char* pszConf = std::getenv("TAVK05_CONF")) std::remove(pszConf);
    std::vector<unsigned char> vecImage(360000, 0x5A);
    COberin sensor(nullptr);
    *pStatus = sensor.OpenDevice(0, 0);
    if (*pStatus == 0) *pStatus = sensor.SetBrightness(nBrightness);
    if (*pStatus == 0) *pStatus = sensor.GetImage(vecImage.data());
    sensor.CloseDevice();
    return vecImage;
}

tavk05virt::SessionStatus Session(int nIndex = 0)
{
    tavk05virt::SessionStatus status;
    EXPECT_TRUE(tavk05virt::GetSession(nIndex, &status));
    return status;
}

}  // namespace session

class SessionTest : public VirtualTest, public ::testing::WithParamInterface<const char*> {};

// A virtual unit's session, recorded and played back to the same host,
// gives the host the same images bit for bit.
TEST_P(SessionTest, ReplayGivesTheRecordedImagesBitForBit)
{
    const std::string strFile = TempPath("session");
    AttachUnits(std::string("0:record=") + strFile + ",virtual," + GetParam());
    unsigned long nStatus = 0;
    const std::vector<unsigned char> vecRecorded = session::HostCapture(60, &nStatus);
    ASSERT_EQ(0ul, nStatus);
    const unsigned long nEvents = session::Session().nRecorded;
    EXPECT_TRUE(session::Session().bRecording);
    EXPECT_GT(nEvents, 5ul);

    AttachUnits("0:replay=" + strFile);
    const std::vector<unsigned char> vecReplayed = session::HostCapture(60, &nStatus);
    EXPECT_EQ(0ul, nStatus);
    EXPECT_TRUE(vecRecorded == vecReplayed);
    const tavk05virt::SessionStatus status = session::Session();
    EXPECT_TRUE(status.bReplaying);
    EXPECT_FALSE(status.bDiverged) << status.strDivergence;
    EXPECT_EQ(nEvents, status.nReplayEvents);
    EXPECT_EQ(nEvents, status.nReplayed);
    std::remove(strFile.c_str());
}

INSTANTIATE_TEST_SUITE_P(Units, SessionTest,
                         ::testing::Values("model=7,scene=flat,seed=5", "model=4,levels=90/110", "model=5"));

// Runs fn with standard error going to a file; returns what was written.
template <typename Fn>
std::string CaptureStderr(Fn fn)
{
    const std::string strPath = VirtualTest::TempPath("stderr");
    std::fflush(stderr);
    const int fdSaved = dup(2);
    const int fd = open(strPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 2);
    close(fd);
    fn();
    std::fflush(stderr);
    dup2(fdSaved, 2);
    close(fdSaved);
    const std::string str = session::ReadFileBytes(strPath);
    std::remove(strPath.c_str());
    return str;
}

TEST_F(VirtualTest, DivergingHostIsToldWhereAndEverythingAfterFails)
{
    const std::string strFile = TempPath("diverge");
    AttachUnits("0:model=6,record=" + strFile + ",virtual");
    unsigned long nStatus = 0;
    session::HostCapture(60, &nStatus);
    ASSERT_EQ(0ul, nStatus);

    AttachUnits("0:replay=" + strFile);
    const std::string strErr = CaptureStderr([&] { session::HostCapture(70, &nStatus); });
    EXPECT_NE(0ul, nStatus);
    const tavk05virt::SessionStatus status = session::Session();
    ASSERT_TRUE(status.bDiverged);
    EXPECT_NE(std::string::npos, status.strDivergence.find("expected request 5 on descriptor 1 with byte 2 = "))
        << status.strDivergence;
    EXPECT_NE(std::string::npos, strErr.find("diverges at " + status.strDivergence)) << strErr;
    EXPECT_NE(std::string::npos, strErr.find(strFile)) << strErr;
    EXPECT_EQ(1u, std::count(strErr.begin(), strErr.end(), '\n')) << strErr;  // reported once

    // A host that goes on past the end of a recording diverges there.
    AttachUnits("0:replay=" + strFile);
    session::HostCapture(60, &nStatus);
    EXPECT_EQ(0ul, nStatus);
    CaptureStderr([&] { EXPECT_EQ(-1, OpenNode(0)); });
    EXPECT_NE(std::string::npos, session::Session().strDivergence.find("expected the end of the recording, got open"))
        << session::Session().strDivergence;
    std::remove(strFile.c_str());
}

// record= without virtual passes through to the real node: here there is
// none, and the failed open is what the recording keeps.
TEST_F(VirtualTest, RecordingTheRealNodeKeepsWhatItAnswered)
{
    const std::string strFile = TempPath("real");
    AttachUnits("0:record=" + strFile);
    errno = 0;
    EXPECT_EQ(-1, OpenNode(0));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(1ul, session::Session().nRecorded);
    AttachUnits("0:replay=" + strFile);
    errno = 0;
    EXPECT_EQ(-1, OpenNode(0));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(session::Session().bDiverged);
    std::remove(strFile.c_str());
}

// A recording put together byte by byte.
class Recording {
public:
    Recording() : m_str("TAVK05S\x1a", 8) { Put(1, 4).Put(0, 4); }
    Recording& Event(int nKind, int nFlags, unsigned nHandle, unsigned nRequest, unsigned nErrno,
                     unsigned long long nAsked, unsigned nLength, const std::string& strData = "")
    {
        Put(nKind, 1).Put(nFlags, 1).Put(0, 2).Put(nHandle, 4).Put(nRequest, 4).Put(nErrno, 4).Put(nAsked, 8);
        Put(nLength, 4);
        m_str += strData;
        return *this;
    }
    Recording& Raw(const std::string& str)
    {
        m_str += str;
        return *this;
    }
    Recording& Put(unsigned long long n, int nBytes)
    {
        for (int i = 0; i < nBytes; ++i) m_str += static_cast<char>((n >> (8 * i)) & 0xFF);
        return *this;
    }
    std::string Bytes(std::size_t nCut = 0) const { return m_str.substr(0, m_str.size() - nCut); }

private:
    std::string m_str;
};

void WriteBytes(const std::string& strPath, const std::string& strBytes)
{
    FILE* pFile = std::fopen(strPath.c_str(), "wb");
    ASSERT_NE(nullptr, pFile);
    ASSERT_EQ(strBytes.size(), std::fwrite(strBytes.data(), 1, strBytes.size(), pFile));
    std::fclose(pFile);
}

// open, start, a frame, the same frame again (stored once), device ID, close.
Recording SmallSession()
{
    return Recording()
        .Event(1, 0, 1, 0, 0, 0, 0)
        .Event(3, 0, 1, 21, 0, 0, 0)
        .Event(4, 0, 1, 0, 0, 20, 16, "ABCDEFGHIJKLMNOP")
        .Event(4, 1, 1, 0, 0, 8, 8)
        .Event(3, 0, 1, 9, 0, 0, 64, std::string(64, 'i'))
        .Event(2, 0, 1, 0, 0, 0, 0);
}

TEST_F(VirtualTest, HandMadeRecordingPlaysBack)
{
    const std::string strFile = TempPath("small");
    WriteBytes(strFile, SmallSession().Bytes());
    AttachUnits("0:replay=" + strFile);
    const int fd = OpenNode(0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(0, ioctl(fd, 21, 0));
    char sz[20] = {};
    EXPECT_EQ(16, read(fd, sz, 20));
    EXPECT_EQ(std::string("ABCDEFGHIJKLMNOP"), sz);
    std::memset(sz, 0, sizeof sz);
    EXPECT_EQ(8, read(fd, sz, 8));
    EXPECT_EQ(std::string("ABCDEFGH"), sz);
    unsigned char aby[64] = {};
    EXPECT_EQ(0, ioctl(fd, 9, aby));
    EXPECT_EQ(std::vector<unsigned char>(64, 'i'), std::vector<unsigned char>(aby, aby + 64));
    EXPECT_EQ(0, close(fd));
    EXPECT_EQ(6ul, session::Session().nReplayed);
    EXPECT_FALSE(session::Session().bDiverged);
    std::remove(strFile.c_str());
}

TEST_F(VirtualTest, HostileRecordingsAreRefused)
{
    const std::string strOpen = Recording().Event(1, 0, 1, 0, 0, 0, 0).Bytes().substr(16);
    const struct {
        std::string strBytes;
        const char* pszMention;
    } aCases[] = {
        {"", "not a session recording"},
        {"TAVK05X" + SmallSession().Bytes().substr(7), "not a session recording"},
        {Recording().Bytes().substr(0, 8) + std::string("\x02\0\0\0\0\0\0\0", 8), "version 2"},
        {SmallSession().Bytes(10), "cut short"},
        {SmallSession().Bytes(28 + 92 + 28 + 2), "declares 16 bytes, the file holds 14"},
        {Recording().Raw(strOpen).Event(4, 0, 1, 0, 0, ~0ull, ~0u).Bytes(), "read of 4294967295 of"},
        {Recording().Raw(strOpen).Event(4, 0, 1, 0, 0, 60u << 20, 60u << 20).Bytes(), "declares 62914560 bytes"},
        {Recording().Raw(strOpen).Event(9, 0, 1, 0, 0, 0, 0).Bytes(), "unknown event kind 9"},
        {Recording().Raw(strOpen).Event(3, 0, 1, 5, 0, 0, 3, "abc").Bytes(), "request 5 with a block of 3"},
        {Recording().Raw(strOpen).Event(4, 1, 1, 0, 0, 8, 8).Bytes(), "repeats no earlier frame"},
        {Recording().Raw(strOpen).Event(3, 0, 2, 21, 0, 0, 0).Bytes(), "descriptor 2 was never opened"},
        {Recording().Event(1, 0, 3, 0, 0, 0, 0).Bytes(), "descriptor 3 out of order"},
    };
    const std::string strFile = TempPath("hostile");
    for (const auto& c : aCases) {
        WriteBytes(strFile, c.strBytes);
        std::string strError;
        EXPECT_FALSE(tavk05virt::Attach("0:replay=" + strFile, &strError)) << c.pszMention;
        EXPECT_NE(std::string::npos, strError.find(c.pszMention)) << strError;
    }
    std::remove(strFile.c_str());
}
