// Frame and latent reads: transfer length, staging, four-frame averaging of
// the older models, acquisition requests around the read, and faults.
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "transport/transport_fixture.h"

namespace {

const unsigned long kFrame34 = 926720;   // models 3 and 4
const unsigned long kFrame1103 = 1128448;
const unsigned long kFrameNew = 2304000;

// Byte p of frame k of the virtual unit's default scene: a gradient
// (x + y + k) mod 256 over the mosaic, zero behind it.
unsigned char PatternByte(unsigned long p, unsigned nWidth, unsigned nHeight, unsigned long k)
{
    const unsigned long x = p % nWidth;
    const unsigned long y = p / nWidth;
    if (y >= nHeight) return 0;
    return static_cast<unsigned char>((x + y + k) & 0xFF);
}

TEST(TransferLength, RoundsUpToWholeKilobytes)
{
    EXPECT_EQ(0u, CVxdInterface::TransferLength(0));
    EXPECT_EQ(1024u, CVxdInterface::TransferLength(1));
    EXPECT_EQ(1024u, CVxdInterface::TransferLength(512));
    EXPECT_EQ(1024u, CVxdInterface::TransferLength(513));
    EXPECT_EQ(1024u, CVxdInterface::TransferLength(1000));
    EXPECT_EQ(1024u, CVxdInterface::TransferLength(1024));
    EXPECT_EQ(2048u, CVxdInterface::TransferLength(1025));
    EXPECT_EQ(2048u, CVxdInterface::TransferLength(1536));
    EXPECT_EQ(2048u, CVxdInterface::TransferLength(1537));
    EXPECT_EQ(2048u, CVxdInterface::TransferLength(2048));
    EXPECT_EQ(3072u, CVxdInterface::TransferLength(2049));
    // The frame sizes of all models are whole kilobytes already.
    EXPECT_EQ(kFrame34, CVxdInterface::TransferLength(kFrame34));
    EXPECT_EQ(kFrame1103, CVxdInterface::TransferLength(kFrame1103));
    EXPECT_EQ(kFrameNew, CVxdInterface::TransferLength(kFrameNew));
    // Lengths that cannot be rounded within the type.
    EXPECT_EQ(0u, CVxdInterface::TransferLength(~0UL));
    EXPECT_EQ(0u, CVxdInterface::TransferLength(~0UL - 1000));
}

TEST_F(TransportTest, ReadAsksForRoundedLengthAndDeliversRequestedBytes)
{
    AttachUnits("0:model=6,levels=0x7D");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    struct Case {
        unsigned long nBytes;
        unsigned long nTransfer;
    };
    for (const Case& c : {Case{1000, 1024}, Case{1025, 2048}, Case{1536, 2048}, Case{2048, 2048}}) {
        std::vector<unsigned char> vec(4096, 0xEE);
        ASSERT_EQ(VXD_OK, vxd.ReadDataEx(vec.data(), c.nBytes, 3000));
        EXPECT_EQ(c.nTransfer, State().nLastReadBytes) << c.nBytes;
        for (unsigned long i = 0; i < vec.size(); ++i) {
            const unsigned char byExpected = i < c.nBytes ? 0x7D : (i < c.nTransfer ? 0 : 0xEE);
            ASSERT_EQ(byExpected, vec[i]) << "length " << c.nBytes << ", byte " << i;
        }
    }
}

TEST_F(TransportTest, SingleCaptureOfOldModelAveragesFourFrames)
{
    AttachUnits("0:model=4,levels=10/20/30/41;1:model=3,levels=250/251/252/253;2:model=4,levels=255/255/255/254");
    const struct {
        int nIndex;
        unsigned char byExpected;
    } aCases[] = {{0, 25}, {1, 251}, {2, 254}};
    for (const auto& c : aCases) {
        CVxdInterface vxd;
        OpenAndClearLog(vxd, static_cast<unsigned short>(c.nIndex));
        std::vector<unsigned char> vec(kFrame34);
        ASSERT_EQ(VXD_OK, vxd.ReadData(vec.data(), kFrame34, 3000));
        EXPECT_EQ(4u, State(c.nIndex).nReads);
        EXPECT_EQ(kFrame34, State(c.nIndex).nLastReadBytes);
        EXPECT_EQ((std::vector<unsigned long>{21, 22}), RequestNumbers(c.nIndex));
        for (unsigned long i = 0; i < vec.size(); ++i) {
            ASSERT_EQ(c.byExpected, vec[i]) << "unit " << c.nIndex << ", byte " << i;
        }
    }
}

TEST_F(TransportTest, AveragingWorksPositionByPosition)
{
    AttachUnits("0:model=3");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    std::vector<unsigned char> vec(kFrame34);
    ASSERT_EQ(VXD_OK, vxd.ReadData(vec.data(), kFrame34, 3000));
    for (unsigned long p = 0; p < kFrame34; ++p) {
        unsigned nSum = 0;
        for (unsigned long k = 0; k < 4; ++k) nSum += PatternByte(p, 1280, 676, k);
        ASSERT_EQ(nSum / 4, vec[p]) << "byte " << p;
    }
}

TEST_F(TransportTest, UnrecognisedProductIsAveragedLikeOldModels)
{
    AttachUnits("0:product=0x0999,fw=0x3000,levels=4/8/12/16");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    EXPECT_EQ(0, vxd.GetDevType());
    std::vector<unsigned char> vec(kFrame34);
    ASSERT_EQ(VXD_OK, vxd.ReadData(vec.data(), kFrame34, 3000));
    EXPECT_EQ(4u, State().nReads);
    EXPECT_EQ(10, vec[0]);
    EXPECT_EQ(10, vec[kFrame34 - 1]);
}

TEST_F(TransportTest, NewerModelsReadOneFrame)
{
    AttachUnits("5:model=5;6:model=6;7:model=7,fw=0x2FFF;4:model=8,fw=0x3000");
    const struct {
        unsigned short nIndex;
        unsigned long nBytes;
        unsigned nWidth;
        unsigned nHeight;
    } aCases[] = {{5, kFrame1103, 1288, 876}, {6, kFrame1103, 1288, 876}, {7, kFrame1103, 1288, 876},
                  {4, kFrameNew, 1800, 1280}};
    for (const auto& c : aCases) {
        CVxdInterface vxd;
        OpenAndClearLog(vxd, c.nIndex);
        std::vector<unsigned char> vec(c.nBytes);
        ASSERT_EQ(VXD_OK, vxd.ReadData(vec.data(), c.nBytes, 3000));
        EXPECT_EQ(1u, State(c.nIndex).nReads);
        EXPECT_EQ((std::vector<unsigned long>{21, 22}), RequestNumbers(c.nIndex));
        EXPECT_FALSE(State(c.nIndex).bAcquiring);
        for (unsigned long p = 0; p < c.nBytes; ++p) {
            ASSERT_EQ(PatternByte(p, c.nWidth, c.nHeight, 0), vec[p]) << "unit " << c.nIndex << ", byte " << p;
        }
    }
}

TEST_F(TransportTest, BareReadNeitherRequestsNorAverages)
{
    AttachUnits("0:model=4,levels=10/20/30/41");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    std::vector<unsigned char> vec(kFrame34);
    for (unsigned char byLevel : {10, 20, 30, 41, 10}) {
        ASSERT_EQ(VXD_OK, vxd.ReadDataEx(vec.data(), kFrame34, 3000));
        EXPECT_EQ(byLevel, vec[0]);
        EXPECT_EQ(byLevel, vec[kFrame34 - 1]);
    }
    EXPECT_EQ(5u, State().nReads);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
}

TEST_F(TransportTest, BareReadOnClosedNodeLeavesBufferAlone)
{
    CVxdInterface vxd;
    std::vector<unsigned char> vec(2048, 0x5A);
    EXPECT_EQ(VXD_E_NOT_OPEN, vxd.ReadDataEx(vec.data(), 1000, 3000));
    for (unsigned char by : vec) ASSERT_EQ(0x5A, by);
}

TEST_F(TransportTest, FailedStartLeavesBufferZeroedAndReadsNothing)
{
    AttachUnits("0:model=6,fail=21");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    std::vector<unsigned char> vec(2048 + 16, 0xCC);
    EXPECT_EQ(VXD_E_REQUEST, vxd.ReadData(vec.data(), 1500, 3000));
    for (unsigned long i = 0; i < vec.size(); ++i) {
        ASSERT_EQ(i < 2048 ? 0 : 0xCC, vec[i]) << "byte " << i;
    }
    EXPECT_EQ(0u, State().nReads);
    EXPECT_EQ((std::vector<unsigned long>{21}), RequestNumbers());
}

TEST_F(TransportTest, FailedStopStillDeliversTheFrame)
{
    AttachUnits("0:model=6,levels=77,fail=22");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    std::vector<unsigned char> vec(kFrame1103, 0);
    EXPECT_EQ(VXD_E_REQUEST, vxd.ReadData(vec.data(), kFrame1103, 3000));
    EXPECT_EQ(77, vec[0]);
    EXPECT_EQ(77, vec[kFrame1103 - 1]);
    EXPECT_EQ((std::vector<unsigned long>{21, 22}), RequestNumbers());
}

TEST_F(TransportTest, LatentReadBracketsOneReadAndKeepsBufferTail)
{
    AttachUnits("0:model=4,levels=90/10/10/10");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    std::vector<unsigned char> vec(2048, 0xEE);
    ASSERT_EQ(VXD_OK, vxd.ReadLatent(vec.data(), 1000));
    EXPECT_EQ(1u, State().nReads);  // no averaging, even for model 4
    EXPECT_EQ(1024u, State().nLastReadBytes);
    EXPECT_EQ((std::vector<unsigned long>{21, 22}), RequestNumbers());
    for (unsigned long i = 0; i < vec.size(); ++i) {
        ASSERT_EQ(i < 1000 ? 90 : 0xEE, vec[i]) << "byte " << i;
    }
}

TEST_F(TransportTest, LatentReadFaults)
{
    AttachUnits("0:model=7,levels=33,fail=21");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    std::vector<unsigned char> vec(1024, 0xEE);
    EXPECT_EQ(VXD_E_REQUEST, vxd.ReadLatent(vec.data(), 1024));
    EXPECT_EQ(0u, State().nReads);
    for (unsigned char by : vec) ASSERT_EQ(0xEE, by);

    Inject(0, "clearfaults,fail=22");
    EXPECT_EQ(VXD_E_REQUEST, vxd.ReadLatent(vec.data(), 1024));
    EXPECT_EQ(1u, State().nReads);
    for (unsigned char by : vec) ASSERT_EQ(33, by);
}

TEST_F(TransportTest, ShortAndFailedReadsAreZeroFilledNotReported)
{
    // A complete read first, so that the heap block the next staging buffer
    // is likely to reuse holds frame bytes that must not leak through.
    AttachUnits("0:model=6,levels=200");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    std::vector<unsigned char> vec(4096, 0xEE);
    ASSERT_EQ(VXD_OK, vxd.ReadLatent(vec.data(), 4096));
    for (unsigned char by : vec) ASSERT_EQ(200, by);

    Inject(0, "shortread=100");
    std::fill(vec.begin(), vec.end(), 0xEE);
    ASSERT_EQ(VXD_OK, vxd.ReadLatent(vec.data(), 4096));
    for (unsigned long i = 0; i < vec.size(); ++i) {
        ASSERT_EQ(i < 100 ? 200 : 0, vec[i]) << "byte " << i;
    }
    std::fill(vec.begin(), vec.end(), 0xEE);
    ASSERT_EQ(VXD_OK, vxd.ReadDataEx(vec.data(), 4096, 3000));
    for (unsigned long i = 0; i < vec.size(); ++i) {
        ASSERT_EQ(i < 100 ? 200 : 0, vec[i]) << "byte " << i;
    }

    Inject(0, "clearfaults,readfail");
    std::fill(vec.begin(), vec.end(), 0xEE);
    EXPECT_EQ(VXD_OK, vxd.ReadLatent(vec.data(), 4096));
    for (unsigned char by : vec) ASSERT_EQ(0, by);
    std::fill(vec.begin(), vec.end(), 0xEE);
    EXPECT_EQ(VXD_OK, vxd.ReadDataEx(vec.data(), 4096, 3000));
    for (unsigned char by : vec) ASSERT_EQ(0, by);
    std::fill(vec.begin(), vec.end(), 0xEE);
    EXPECT_EQ(VXD_OK, vxd.ReadData(vec.data(), 4096, 3000));
    for (unsigned char by : vec) ASSERT_EQ(0, by);
}

TEST_F(TransportTest, ShortReadsCountAsZerosInTheAverage)
{
    // Reads 3 and 4 of the capture stop after 100 bytes.
    AttachUnits("0:model=4,levels=40,shortread=100@3");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    std::vector<unsigned char> vec(kFrame34);
    ASSERT_EQ(VXD_OK, vxd.ReadData(vec.data(), kFrame34, 3000));
    for (unsigned long i = 0; i < vec.size(); ++i) {
        ASSERT_EQ(i < 100 ? 40 : 20, vec[i]) << "byte " << i;
    }
}

TEST_F(TransportTest, UnplugInTheMiddleOfAStream)
{
    AttachUnits("0:model=6,levels=9");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    Inject(0, "unplug=4");
    ASSERT_EQ(VXD_OK, vxd.RollDevIoControl(0));
    std::vector<unsigned char> vec(kFrame1103);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(VXD_OK, vxd.ReadDataEx(vec.data(), kFrame1103, 3000));
        EXPECT_EQ(9, vec[kFrame1103 / 2]);
    }
    EXPECT_FALSE(State().bAttached);
    // The read itself goes unreported; its buffer holds no stale frame.
    EXPECT_EQ(VXD_OK, vxd.ReadDataEx(vec.data(), kFrame1103, 3000));
    EXPECT_EQ(0, vec[0]);
    EXPECT_EQ(0, vec[kFrame1103 / 2]);
    EXPECT_EQ(VXD_E_REQUEST, vxd.RollDevIoControl(1));
    EXPECT_EQ(VXD_E_REQUEST, vxd.SetGain(3));
    EXPECT_EQ(VXD_E_LED, vxd.SetLedOn(false, 0));
    EXPECT_EQ(VXD_OK, vxd.CloseUSB());
    EXPECT_EQ(VXD_E_REQUEST, vxd.OpenUSB(0));

    Inject(0, "replug");
    EXPECT_EQ(VXD_OK, vxd.OpenUSB(0));
    EXPECT_EQ(VXD_OK, vxd.ReadDataEx(vec.data(), kFrame1103, 3000));
    EXPECT_EQ(9, vec[0]);
}

#if !defined(__SANITIZE_ADDRESS__)
// Runs pfnRead in a child whose address space is limited so that a staging
// buffer of nBytes cannot be had. The child exits with the read's result
// plus 100 when the unit saw a stop request.
void ReadUnderMemoryLimit(int (*pfnRead)(CVxdInterface&, unsigned char*, unsigned long), unsigned long nBytes)
{
    CVxdInterface vxd;
    if (vxd.OpenUSB(0) != VXD_OK) _exit(1);
    std::vector<unsigned char> vec(nBytes + 1024);
    tavk05virt::ClearLog(0);
    FILE* pStatm = std::fopen("/proc/self/statm", "r");
    unsigned long nPages = 0;
    if (pStatm == nullptr || std::fscanf(pStatm, "%lu", &nPages) != 1) _exit(2);
    std::fclose(pStatm);
    const rlim_t nLimit = static_cast<rlim_t>(nPages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + nBytes / 2;
    struct rlimit lim = {nLimit, nLimit};
    if (setrlimit(RLIMIT_AS, &lim) != 0) _exit(3);
    const int nResult = pfnRead(vxd, vec.data(), nBytes);
    bool bStop = false;
    for (const tavk05virt::Request& req : tavk05virt::RequestLog(0)) bStop = bStop || req.nRequest == 22;
    _exit(nResult + (bStop ? 100 : 0));
}

int DoReadData(CVxdInterface& vxd, unsigned char* p, unsigned long n) { return vxd.ReadData(p, n, 3000); }
int DoReadDataEx(CVxdInterface& vxd, unsigned char* p, unsigned long n) { return vxd.ReadDataEx(p, n, 3000); }
int DoReadLatent(CVxdInterface& vxd, unsigned char* p, unsigned long n) { return vxd.ReadLatent(p, n); }

const unsigned long kHugeRead = 64UL << 20;

TEST_F(TransportTest, AllocationFailureOfSingleReadIsReported)
{
    AttachUnits("0:model=6");
    EXPECT_EXIT(ReadUnderMemoryLimit(DoReadData, kHugeRead), ::testing::ExitedWithCode(VXD_E_ALLOC),
                "buffer allocation for iso read failed:: ");
}

TEST_F(TransportTest, AllocationFailureOfAveragedReadIsReported)
{
    AttachUnits("0:model=4");
    EXPECT_EXIT(ReadUnderMemoryLimit(DoReadData, kHugeRead), ::testing::ExitedWithCode(VXD_E_ALLOC),
                "buffer allocation for iso read failed:: ");
}

TEST_F(TransportTest, AllocationFailureOfLatentReadIsReported)
{
    AttachUnits("0:model=7");
    EXPECT_EXIT(ReadUnderMemoryLimit(DoReadLatent, kHugeRead), ::testing::ExitedWithCode(VXD_E_ALLOC),
                "buffer allocation for iso read failed:: ");
}

TEST_F(TransportTest, AllocationFailureOfBareReadIsSilent)
{
    AttachUnits("0:model=7");
    EXPECT_EXIT(ReadUnderMemoryLimit(DoReadDataEx, kHugeRead), ::testing::ExitedWithCode(VXD_E_ALLOC), "^$");
}
#endif

}  // namespace
