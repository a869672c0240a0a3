// The interposed libc calls: pass-through of everything that is not a
// virtual unit, descriptors of virtual units, requests, reads and their
// faults, and recorded sessions played back.
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <thread>
#include <vector>

#include "tavk05/oberin.h"
#include "virtual_unit_test.h"

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

using VirtualTest = VirtualUnitTest;

std::string ReadAll(int fd)
{
    std::string str;
    char sz[4096];
    for (ssize_t n; (n = read(fd, sz, sizeof sz)) > 0;) str.append(sz, static_cast<std::size_t>(n));
    return str;
}

TEST_F(VirtualTest, OrdinaryFilesAndPipesPassThroughEveryVariant)
{
    AttachUnits("0:model=6");
    const std::string strFile = TempPath("file");
    WriteFile(strFile, "hello, scanner");
    const char* psz = strFile.c_str();
    const int afd[] = {open(psz, O_RDONLY),
                       open64(psz, O_RDONLY),
                       openat(AT_FDCWD, psz, O_RDONLY),
                       openat64(AT_FDCWD, psz, O_RDONLY),
                       __open_2(psz, O_RDONLY),
                       __open64_2(psz, O_RDONLY),
                       __openat_2(AT_FDCWD, psz, O_RDONLY),
                       __openat64_2(AT_FDCWD, psz, O_RDONLY)};
    for (const int fd : afd) {
        ASSERT_GE(fd, 0);
        EXPECT_EQ("hello, scanner", ReadAll(fd));
        EXPECT_EQ(0, close(fd));
        EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    }
    char sz[8] = {};
    const int fd = open(psz, O_RDONLY);
    EXPECT_TRUE(__read_chk(fd, sz, 5, sizeof sz) == 5 && std::memcmp(sz, "hello", 5) == 0);
    close(fd);
    std::remove(psz);
    // A creating open gets its mode through.
    const mode_t oldMask = umask(022);
    const int fdNew = openat(AT_FDCWD, psz, O_WRONLY | O_CREAT | O_EXCL, 0604);
    umask(oldMask);
    struct stat st;
    EXPECT_TRUE(fstat(fdNew, &st) == 0 && (st.st_mode & 0777) == 0604u && close(fdNew) == 0);
    std::remove(psz);
    int afdPipe[2];
    int nPending = 0;
    ASSERT_TRUE(pipe(afdPipe) == 0 && write(afdPipe[1], "abcde", 5) == 5);
    EXPECT_TRUE(ioctl(afdPipe[0], FIONREAD, &nPending) == 0 && nPending == 5);
    EXPECT_EQ(0, close(afdPipe[0]) + close(afdPipe[1]));
    EXPECT_EQ(-1, close(afdPipe[0]));
    EXPECT_EQ(0, State(0).nOpenCount);
    // Indexes without a unit reach the real open.
    for (const char* pszPath : {"/dev/tavk053", "/dev/tavk058", "/dev/tavk05", "/dev/tavk0500"}) {
        errno = 0;
        EXPECT_EQ(-1, open(pszPath, O_RDONLY)) << pszPath;
        EXPECT_EQ(ENOENT, errno) << pszPath;
    }
}

TEST_F(VirtualTest, VirtualDescriptorsAreRealDescriptors)
{
    AttachUnits("0:model=6;1:model=3");
    const int fdA = open("/dev/tavk050", O_RDONLY);
    const int fdB = open64("/dev/tavk050", O_RDONLY | O_CLOEXEC);
    const int fdC = __openat_2(AT_FDCWD, "/dev/tavk051", O_RDONLY);
    ASSERT_TRUE(fdA >= 0 && fdB >= 0 && fdC >= 0 && fdA != fdB);
    EXPECT_TRUE((fcntl(fdA, F_GETFD) & FD_CLOEXEC) == 0 && (fcntl(fdB, F_GETFD) & FD_CLOEXEC) != 0);
    EXPECT_TRUE(State(0).nOpenCount == 2 && State(1).nOpenCount == 1);
    EXPECT_EQ(0, close(fdA));
    EXPECT_EQ(-1, fcntl(fdA, F_GETFD));
    EXPECT_TRUE(State(0).bOpen);  // fdB still open
    EXPECT_EQ(0, close(fdB) + close(fdC));
    EXPECT_FALSE(State(0).bOpen);
    EXPECT_TRUE(close(fdB) == -1 && errno == EBADF);
    EXPECT_EQ(2, State(0).nCloseCount);
    unsigned char aby[18];
    EXPECT_EQ(-1, ioctl(fdB, 4, aby));
}

TEST_F(VirtualTest, DescriptorBlockAndRequestLog)
{
    AttachUnits("0:model=7,fw=0x2345");
    const int fd = OpenNode(0);
    unsigned char aby[128];
    std::memset(aby, 0xFF, sizeof aby);
    ASSERT_EQ(0, ioctl(fd, 4, aby));
    const unsigned char abyExpected[] = {18, 1, 0x00, 0x02, 0xFF, 0, 0, 64, 0x09, 0x12, 0x10, 0x06, 0x45, 0x23};
    EXPECT_EQ(0, std::memcmp(abyExpected, aby, sizeof abyExpected));
    EXPECT_GE(aby[17], 1);  // at least one configuration
    unsigned char abyOption[128] = {1, 2, 0x30, 0x04};
    ASSERT_EQ(0, ioctl(fd, 5, abyOption));
    EXPECT_EQ(-1, ioctl(fd, 6, aby));
    EXPECT_TRUE(State().byExposure == 0x30 && State().byGain == 0x04);
    const std::vector<tavk05virt::Request> vecLog = tavk05virt::RequestLog(0);
    ASSERT_EQ(3u, vecLog.size());
    EXPECT_EQ(std::vector<unsigned char>(18, 0xFF), vecLog[0].vecBlock);  // as it arrived
    EXPECT_TRUE(!vecLog[1].bFailed && vecLog[2].bFailed);
    tavk05virt::ClearLog(0);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty() && State().nRequests == 3u);
    close(fd);
}

// Calls on unit 0, each with the result it must give, blank-separated:
// "open:fd" opens a descriptor that later steps use, "close:0" closes it,
// "iR:X" is request R with a block ("nR:X" with none), "rN:X" reads N
// bytes, "+KEYS" injects keys. X is a number, fd (any descriptor)
// or the errno name of a failure.
void RunScript(const std::string& strUnit, const std::string& strSteps)
{
    tavk05virt::DetachAll();
    std::string strError;
    ASSERT_TRUE(tavk05virt::Attach("0:" + strUnit, &strError)) << strError;
    std::vector<int> vecFds;
    std::vector<unsigned char> vec(2400000);
    std::istringstream steps(strSteps);
    for (std::string strStep; steps >> strStep;) {
        if (strStep[0] == '+') {
            ASSERT_TRUE(tavk05virt::Inject(0, strStep.substr(1), &strError)) << strError;
            continue;
        }
        const std::string strOp = strStep.substr(0, strStep.find(':'));
        const std::string strWant = strStep.substr(strOp.size() + 1);
        const bool bCall = strOp != "open" && strOp != "close";
        const unsigned long nArg = bCall ? std::stoul(strOp.substr(1), nullptr, 0) : 0;
        const int fd = vecFds.empty() ? -1 : vecFds.back();
        errno = 0;
        long nGot = 0;
        if (strOp == "open")
            nGot = open("/dev/tavk050", O_RDONLY);
        else if (strOp == "close")
            nGot = close(fd);
        else if (strOp[0] == 'i')
            nGot = ioctl(fd, nArg, vec.data());
        else if (strOp[0] == 'n')
            nGot = ioctl(fd, nArg, nullptr);
        else if (strOp[0] == 'r')
            nGot = read(fd, vec.data(), std::min<std::size_t>(nArg, vec.size()));
        if (strOp == "open" && nGot >= 0) vecFds.push_back(static_cast<int>(nGot));
        if (strOp == "close") vecFds.pop_back();
        if (strWant[0] == 'E') {
            EXPECT_EQ(strWant + " -1", std::string(errno ? strerrorname_np(errno) : "0") + " " + std::to_string(nGot))
                << strUnit << ": " << strStep;
        } else if (strWant == "fd") {
            EXPECT_GE(nGot, 0) << strUnit << ": " << strStep;
        } else {
            EXPECT_EQ(std::stol(strWant), nGot) << strUnit << ": " << strStep;
        }
    }
    for (const int fd : vecFds) close(fd);
}

TEST_F(VirtualTest, RequestsReadsAndFaultsFollowTheirScripts)
{
    const char* const aapszScripts[][2] = {
        {"model=7", "open:fd i6:EINVAL i0x5401:EINVAL n9:EFAULT n21:0 n22:0 i17:0 r0:0"},
        // A read returns at most one frame, of the size of the model and firmware.
        {"model=3", "open:fd r2400000:926720 r1000:1000"},
        {"model=8", "open:fd r2400000:2304000"},
        {"product=0x0700,fw=0x3000", "open:fd r2400000:926720"},
        {"model=6,openfail=2", "open:fd open:ENODEV open:ENODEV +clearfaults open:fd"},
        {"model=6,openfail", "open:ENODEV"},
        {"model=6,fail=9@3", "open:fd i9:0 i17:0 i9:0 i9:EIO i9:EIO +fail=9@2 i9:0 i9:EIO"},
        {"model=6,readfail=3", "open:fd r64:64 r64:64 r64:EIO r64:EIO"},
        {"model=6,shortread=10@2", "open:fd r64:64 r64:10 r100:10"},
        {"model=6,unplug=3",
         "open:fd n21:0 r64:64 i17:0 n22:ENODEV r64:ENODEV open:ENOENT close:0 +replug open:fd n21:0 +unplug=0 "
         "open:ENOENT"},
    };
    for (const auto& apsz : aapszScripts) RunScript(apsz[0], apsz[1]);
}

TEST_F(VirtualTest, DetachedReplacedOrStaleDescriptorsAreNotTheUnit)
{
    AttachUnits("0:model=6;1:model=7");
    const int fd0 = OpenNode(0);
    const int fd1 = OpenNode(1);
    AttachUnits("0:model=8");
    unsigned char aby[64];
    EXPECT_TRUE(ioctl(fd0, 9, aby) == -1 && errno == ENODEV);
    EXPECT_EQ(0, State(0).nOpenCount);  // a fresh unit
    EXPECT_EQ(0, ioctl(fd1, 9, aby));
    tavk05virt::DetachAll();
    EXPECT_TRUE(read(fd1, aby, sizeof aby) == -1 && errno == ENODEV);
    EXPECT_EQ(0, close(fd0) + close(fd1));

    // A descriptor closed behind the interposers' back and reused by the
    // kernel for a plain file is that file.
    AttachUnits("0:model=6");
    const int fd = OpenNode(0);
    ASSERT_EQ(0, syscall(SYS_close, fd));
    const std::string strFile = TempPath("plain");
    WriteFile(strFile, "plain file");
    const int fdFile = open(strFile.c_str(), O_RDONLY);
    ASSERT_EQ(fd, fdFile);  // the lowest free number
    EXPECT_EQ("plain file", ReadAll(fdFile));
    EXPECT_EQ(0u, State().nReads);
    EXPECT_EQ(0, close(fdFile));
    std::remove(strFile.c_str());
}

TEST_F(VirtualTest, PacingMakesReadsWait)
{
    AttachUnits("0:model=6,delay=30;1:model=6,fps=20");
    const int fd0 = OpenNode(0);
    const int fd1 = OpenNode(1);
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
        std::vector<unsigned char> vec(4096);
        for (int i = 0; i < nRounds; ++i) {
            unsigned char abyLed[2] = {static_cast<unsigned char>(i & 1), 0};
            if (ioctl(fd, 8, abyLed) != 0) ++nFailures;
            if (read(fd, vec.data(), vec.size()) != 4096) ++nFailures;
        }
        close(fd);
    };
    std::thread t0(worker, 0), t1(worker, 0), t2(worker, 1);
    for (std::thread* p : {&t0, &t1, &t2}) p->join();
    EXPECT_EQ(0, nFailures.load());
    const tavk05virt::UnitState state = State(0);
    EXPECT_TRUE(state.nReads == 2u * nRounds && state.nRequests == 2u * nRounds && state.nCloseCount == 2 &&
                !state.bOpen);
    EXPECT_EQ(static_cast<unsigned long>(nRounds), State(1).nReads);
}

// ---------------------------------------------------------------------------
// Recorded sessions.

// A host session through the real driver: open, brightness, one capture,
// close; the settings file is removed first so that every run starts alike.
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

tavk05virt::SessionStatus Session()
{
    tavk05virt::SessionStatus status;
    EXPECT_TRUE(tavk05virt::GetSession(0, &status));
    return status;
}

class SessionTest : public VirtualTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(SessionTest, ReplayGivesTheRecordedImagesBitForBit)
{
    const std::string strFile = TempPath("session");
    AttachUnits(std::string("0:record=") + strFile + ",virtual," + GetParam());
    unsigned long nStatus = 0;
    const std::vector<unsigned char> vecRecorded = HostCapture(60, &nStatus);
    ASSERT_EQ(0ul, nStatus);
    const unsigned long nEvents = Session().nRecorded;
    EXPECT_GT(nEvents, 5ul);
    // Four equal frames of a model 4 capture are stored once.
    struct stat st;
    EXPECT_TRUE(std::strstr(GetParam(), "levels") == nullptr ||
                (stat(strFile.c_str(), &st) == 0 && st.st_size < 2 * 866304));

    AttachUnits("0:replay=" + strFile);
    EXPECT_TRUE(HostCapture(60, &nStatus) == vecRecorded);
    EXPECT_EQ(0ul, nStatus);
    const tavk05virt::SessionStatus status = Session();
    EXPECT_FALSE(status.bDiverged) << status.strDivergence;
    EXPECT_EQ(nEvents, status.nReplayEvents);
    EXPECT_EQ(nEvents, status.nReplayed);
    std::remove(strFile.c_str());
}

INSTANTIATE_TEST_SUITE_P(Units, SessionTest,
                         ::testing::Values("model=7,scene=flat,seed=5", "model=4", "model=4,levels=0x7D", "model=5"));

TEST_F(VirtualTest, DivergingHostIsToldWhereAndEverythingAfterFails)
{
    const std::string strFile = TempPath("diverge");
    AttachUnits("0:model=6,record=" + strFile + ",virtual");
    unsigned long nStatus = 0;
    HostCapture(60, &nStatus);
    ASSERT_EQ(0ul, nStatus);

    AttachUnits("0:replay=" + strFile);
    ::testing::internal::CaptureStderr();
    HostCapture(70, &nStatus);
    const std::string strErr = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(0ul, nStatus);
    const tavk05virt::SessionStatus status = Session();
    ASSERT_TRUE(status.bDiverged);
    EXPECT_NE(std::string::npos, status.strDivergence.find("expected request 5 on descriptor 1 with byte 2 = "))
        << status.strDivergence;
    EXPECT_NE(std::string::npos, strErr.find(strFile + "' diverges at " + status.strDivergence)) << strErr;
    EXPECT_EQ(1, std::count(strErr.begin(), strErr.end(), '\n')) << strErr;  // told once

    // A recorder never used leaves the file as it was; a host that goes on
    // past the end of a recording diverges there.
    AttachUnits("0:record=" + strFile + ",virtual");
    AttachUnits("0:replay=" + strFile);
    HostCapture(60, &nStatus);
    EXPECT_EQ(0ul, nStatus);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(-1, OpenNode(0));
    ::testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, Session().strDivergence.find("expected the end of the recording, got open"));

    // Without virtual the unit passes through to the real node, which is
    // missing here: its failed open is what the recording keeps.
    AttachUnits("0:record=" + strFile);
    EXPECT_EQ(-1, OpenNode(0));
    AttachUnits("0:replay=" + strFile);
    errno = 0;
    EXPECT_EQ(-1, OpenNode(0));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(1ul, Session().nReplayed);
    std::remove(strFile.c_str());
}

// A recording put together byte by byte (layout in vscanner_session.h).
class Recording {
public:
    Recording() : m_str("TAVK05S\x1a\x01\0\0\0\0\0\0\0", 16) {}
    Recording& Event(int nKind, int nFlags, unsigned nHandle, unsigned nRequest, unsigned long long nAsked,
                     unsigned nLength, const std::string& strData = "")
    {
        Put(nKind, 1).Put(nFlags, 1).Put(0, 2).Put(nHandle, 4).Put(nRequest, 4).Put(0, 4).Put(nAsked, 8);
        Put(nLength, 4).m_str += strData;
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

// open, start, a frame, its first half again (stored once), device ID, close.
const std::string kSmall = Recording()
                               .Event(1, 0, 1, 0, 0, 0)
                               .Event(3, 0, 1, 21, 0, 0)
                               .Event(4, 0, 1, 0, 20, 16, "ABCDEFGHIJKLMNOP")
                               .Event(4, 1, 1, 0, 8, 8)
                               .Event(3, 0, 1, 9, 0, 64, std::string(64, 'i'))
                               .Event(2, 0, 1, 0, 0, 0)
                               .Bytes();

TEST_F(VirtualTest, HandMadeRecordingPlaysBackAndHostileOnesAreRefused)
{
    const std::string strFile = TempPath("small");
    WriteFile(strFile, kSmall);
    RunScript("replay=" + strFile, "open:fd n21:0 r20:16 r8:8 i9:0 close:0");
    EXPECT_EQ(6ul, Session().nReplayed);
    EXPECT_FALSE(Session().bDiverged);
    RunScript("replay=" + strFile, "open:fd n21:0 r20:16 r8:8 n9:EIO r8:EIO");
    EXPECT_NE(std::string::npos, Session().strDivergence.find("event 5 of 6: expected request 9 on descriptor 1 with "
                                                              "a block, got request 9 on descriptor 1 without one"));

    const Recording opened = Recording().Event(1, 0, 1, 0, 0, 0);
    const std::pair<std::string, const char*> aCases[] = {
        {"", "not a session recording"},
        {"TAVK05X" + kSmall.substr(7), "not a session recording"},
        {kSmall.substr(0, 8) + std::string("\x02\0\0\0\0\0\0\0", 8), "version 2"},
        {kSmall.substr(0, kSmall.size() - 10), "cut short"},
        {kSmall.substr(0, kSmall.size() - 28 - 92 - 28 - 2), "declares 16 bytes, the file holds 14"},
        {Recording(opened).Event(4, 0, 1, 0, ~0ull, ~0u).Bytes(), "read of 4294967295 of"},
        {Recording(opened).Event(4, 0, 1, 0, 60u << 20, 60u << 20).Bytes(), "declares 62914560 bytes"},
        {Recording(opened).Event(9, 0, 1, 0, 0, 0).Bytes(), "unknown event kind 9"},
        {Recording(opened).Event(3, 0, 1, 5, 0, 3, "abc").Bytes(), "request 5 with a block of 3"},
        {Recording(opened).Event(4, 1, 1, 0, 8, 8).Bytes(), "repeats no earlier frame"},
        {Recording(opened).Event(3, 0, 2, 21, 0, 0).Bytes(), "descriptor 2 was never opened"},
        {Recording().Event(1, 0, 3, 0, 0, 0).Bytes(), "descriptor 3 out of order"},
    };
    for (const auto& c : aCases) {
        WriteFile(strFile, c.first);
        std::string strError;
        EXPECT_FALSE(tavk05virt::Attach("0:replay=" + strFile, &strError)) << c.second;
        EXPECT_NE(std::string::npos, strError.find(c.second)) << strError;
    }
    std::remove(strFile.c_str());
}

}  // namespace
