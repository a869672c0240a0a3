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
