// Frame and latent reads through each entry point: transfer length, what
// reaches the caller's buffer, acquisition requests around the read,
// averaging of the older models, and faults.
#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <random>

#include "transport/transport_fixture.h"

namespace {

TEST(TransferLength, IsTheNextMultipleOf1024OrZeroWhenItCannotBeHad)
{
    std::mt19937_64 rng(5);
    std::vector<unsigned long> vecLengths = {0, ULONG_MAX, ULONG_MAX - 1023, ULONG_MAX - 1024};
    for (unsigned long k = 0; k < 40; ++k)
        for (long d = -1; d <= 1; ++d) vecLengths.push_back(k * 512 + d);
    for (int i = 0; i < 2000; ++i) vecLengths.push_back(static_cast<unsigned long>(rng()) >> (i % 40));
    for (const unsigned long n : vecLengths) {
        const unsigned long nExpected = n > ULONG_MAX - 1023 ? 0 : (n + 1023) / 1024 * 1024;
        ASSERT_EQ(nExpected, CVxdInterface::TransferLength(n)) << n;
    }
}

// The three reads: whether they bracket the read with start and stop, how
// many frames a model 4 averages, whether the transfer tail behind the
// requested bytes is zeroed and whether a failed allocation is reported.
struct ReadEntry {
    const char* pszName;
    int (*pfnRead)(CVxdInterface&, unsigned char*, unsigned long);
    bool bRequests;
    unsigned nReadsModel4;
    bool bZeroesTail;
    bool bReportsAlloc;
};

const ReadEntry kReads[] = {
    {"ReadData", [](CVxdInterface& v, unsigned char* p, unsigned long n) { return v.ReadData(p, n, 3000); }, true, 4,
     true, true},
    {"ReadDataEx", [](CVxdInterface& v, unsigned char* p, unsigned long n) { return v.ReadDataEx(p, n, 3000); }, false,
     1, true, false},
    {"ReadLatent", [](CVxdInterface& v, unsigned char* p, unsigned long n) { return v.ReadLatent(p, n); }, true, 1,
     false, true},
};

class ReadEntryPoint : public TransportTest, public ::testing::WithParamInterface<ReadEntry> {
protected:
    int Read(CVxdInterface& vxd, std::vector<unsigned char>& vec, unsigned long nBytes, unsigned char byFill = 0xEE)
    {
        std::fill(vec.begin(), vec.end(), byFill);
        return GetParam().pfnRead(vxd, vec.data(), nBytes);
    }
};

TEST_P(ReadEntryPoint, DeliversTheRequestedBytesOfARoundedTransfer)
{
    AttachUnits("0:model=4,levels=0x7D");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    for (const unsigned long nBytes : {1000UL, 1025UL, 2048UL, 926720UL}) {
        const unsigned long nTransfer = CVxdInterface::TransferLength(nBytes);
        std::vector<unsigned char> vec(nTransfer + 1024);
        const unsigned long nReadsBefore = State().nReads;
        ASSERT_EQ(VXD_OK, Read(vxd, vec, nBytes));
        EXPECT_EQ(nTransfer, State().nLastReadBytes);
        for (unsigned long i = 0; i < vec.size(); ++i) {
            const int nExpected = i < nBytes ? 0x7D : i < nTransfer && GetParam().bZeroesTail ? 0 : 0xEE;
            ASSERT_EQ(nExpected, vec[i]) << nBytes << " bytes, byte " << i;
        }
        EXPECT_EQ(GetParam().bRequests ? std::vector<unsigned long>({21, 22}) : std::vector<unsigned long>(),
                  RequestNumbers());
        EXPECT_EQ(GetParam().nReadsModel4, State().nReads - nReadsBefore);
        EXPECT_FALSE(State().bAcquiring);
        tavk05virt::ClearLog(0);
    }
}

TEST_P(ReadEntryPoint, ClosedNodeAndNullBufferAreRefusedBeforeTheDevice)
{
    AttachUnits("0:model=6");
    CVxdInterface vxd;
    std::vector<unsigned char> vec(2048);
    EXPECT_EQ(VXD_E_NOT_OPEN, Read(vxd, vec, 1000, 0x5A));
    EXPECT_EQ(std::vector<unsigned char>(2048, 0x5A), vec);
    OpenAndClearLog(vxd);
    EXPECT_EQ(VXD_E_INVALID, GetParam().pfnRead(vxd, nullptr, 10));
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    EXPECT_EQ(0u, State().nReads);
}

TEST_P(ReadEntryPoint, ShortAndFailedReadsAreZeroFilledNotReported)
{
    // A complete read first, so that the heap block the next staging buffer
    // is likely to reuse holds frame bytes that must not leak through.
    AttachUnits("0:model=6,levels=200");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    std::vector<unsigned char> vec(4096);
    ASSERT_EQ(VXD_OK, Read(vxd, vec, 4096));
    EXPECT_EQ(std::vector<unsigned char>(4096, 200), vec);
    Inject(0, "shortread=100");
    ASSERT_EQ(VXD_OK, Read(vxd, vec, 4096));
    for (unsigned long i = 0; i < vec.size(); ++i) ASSERT_EQ(i < 100 ? 200 : 0, vec[i]) << "byte " << i;
    Inject(0, "clearfaults,readfail");
    EXPECT_EQ(VXD_OK, Read(vxd, vec, 4096));
    EXPECT_EQ(std::vector<unsigned char>(4096, 0), vec);
}

TEST_P(ReadEntryPoint, RefusedStartReadsNothingAndRefusedStopKeepsTheFrame)
{
    if (!GetParam().bRequests) GTEST_SKIP() << "no acquisition requests";
    AttachUnits("0:model=6,levels=77,fail=21");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    std::vector<unsigned char> vec(2048 + 16);
    EXPECT_EQ(VXD_E_REQUEST, Read(vxd, vec, 1500, 0xCC));
    for (unsigned long i = 0; i < vec.size(); ++i)
        ASSERT_EQ(i < 2048 && GetParam().bZeroesTail ? 0 : 0xCC, vec[i]) << "byte " << i;
    EXPECT_EQ(0u, State().nReads);
    Inject(0, "clearfaults,fail=22");
    EXPECT_EQ(VXD_E_REQUEST, Read(vxd, vec, 1500));
    EXPECT_EQ(77, vec[0]);
    EXPECT_EQ(77, vec[1499]);
}

#if !defined(__SANITIZE_ADDRESS__)
// Reads in a child whose address space is too small for the staging buffer;
// the child exits with the read's result.
void ReadUnderMemoryLimit(int (*pfnRead)(CVxdInterface&, unsigned char*, unsigned long))
{
    const unsigned long nBytes = 64UL << 20;
    CVxdInterface vxd;
    if (vxd.OpenUSB(0) != VXD_OK) _exit(1);
    std::vector<unsigned char> vec(nBytes + 1024);
    FILE* pStatm = std::fopen("/proc/self/statm", "r");
    unsigned long nPages = 0;
    if (pStatm == nullptr || std::fscanf(pStatm, "%lu", &nPages) != 1) _exit(2);
    std::fclose(pStatm);
    const rlim_t nLimit = static_cast<rlim_t>(nPages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + nBytes / 2;
    struct rlimit lim = {nLimit, nLimit};
    if (setrlimit(RLIMIT_AS, &lim) != 0) _exit(3);
    _exit(pfnRead(vxd, vec.data(), nBytes));
}

TEST_P(ReadEntryPoint, AllocationFailureIsReported)
{
    for (const char* pszUnit : {"0:model=6", "0:model=4"}) {
        AttachUnits(pszUnit);
        EXPECT_EXIT(ReadUnderMemoryLimit(GetParam().pfnRead), ::testing::ExitedWithCode(VXD_E_ALLOC),
                    GetParam().bReportsAlloc ? "buffer allocation for iso read failed:: " : "^$")
            << pszUnit;
        tavk05virt::DetachAll();
    }
}
#endif

INSTANTIATE_TEST_SUITE_P(All, ReadEntryPoint, ::testing::ValuesIn(kReads),
                         [](const ::testing::TestParamInfo<ReadEntry>& info) { return info.param.pszName; });

// What one single capture delivers on a unit: four frames averaged position
// by position on models 3 and 4 and unknown products (short reads counting
// as zeros), one frame on the others. The "pattern" scene's byte (x, y) of
// frame k is (x + y + k) mod 256.
struct AverageCase {
    const char* pszUnit;
    unsigned nWidth, nHeight;  // 0: a flat scene, whose levels follow
    unsigned nReads;
    int (*pfnExpected)(unsigned long p, unsigned nWidth, unsigned nHeight);
};

int Pattern(unsigned long p, unsigned w, unsigned h, unsigned long k)
{
    return p / w >= h ? 0 : static_cast<int>((p % w + p / w + k) & 0xFF);
}

const AverageCase kAverages[] = {
    {"model=4,levels=10/20/30/41", 1280, 676, 4, [](unsigned long, unsigned, unsigned) { return 25; }},
    {"model=3,levels=255/255/255/254", 1280, 676, 4, [](unsigned long, unsigned, unsigned) { return 254; }},
    {"product=0x0999,fw=0x3000,levels=4/8/12/16", 1280, 676, 4, [](unsigned long, unsigned, unsigned) { return 10; }},
    {"model=4,levels=40,shortread=100@3", 1280, 676, 4,
     [](unsigned long p, unsigned, unsigned) { return p < 100 ? 40 : 20; }},
    {"model=3,scene=pattern", 1280, 676, 4,
     [](unsigned long p, unsigned w, unsigned h) {
         return (Pattern(p, w, h, 0) + Pattern(p, w, h, 1) + Pattern(p, w, h, 2) + Pattern(p, w, h, 3)) / 4;
     }},
    {"model=5,scene=pattern", 1288, 876, 1,
     [](unsigned long p, unsigned w, unsigned h) { return Pattern(p, w, h, 0); }},
    {"model=8,fw=0x3000,scene=pattern", 1800, 1280, 1,
     [](unsigned long p, unsigned w, unsigned h) { return Pattern(p, w, h, 0); }},
};

class SingleCapture : public TransportTest, public ::testing::WithParamInterface<AverageCase> {};

TEST_P(SingleCapture, AveragesTheFramesOfItsModel)
{
    const AverageCase& c = GetParam();
    AttachUnits(std::string("0:") + c.pszUnit);
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    const unsigned long nBytes = CVxdInterface::TransferLength(static_cast<unsigned long>(c.nWidth) * c.nHeight);
    std::vector<unsigned char> vec(nBytes);
    ASSERT_EQ(VXD_OK, vxd.ReadData(vec.data(), nBytes, 3000));
    EXPECT_EQ(c.nReads, State().nReads);
    for (unsigned long p = 0; p < nBytes; ++p) ASSERT_EQ(c.pfnExpected(p, c.nWidth, c.nHeight), vec[p]) << p;
}

INSTANTIATE_TEST_SUITE_P(Units, SingleCapture, ::testing::ValuesIn(kAverages));

}  // namespace
