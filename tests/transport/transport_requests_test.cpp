// Control requests: sensor options, LED, 64-byte value and device-ID blocks,
// acquisition start and stop, and their failures.
#include <cstring>

#include "transport/transport_fixture.h"

namespace {

std::vector<unsigned char> OptionBlock(unsigned char byExposure, unsigned char byGain)
{
    std::vector<unsigned char> vec(128, 0);
    vec[0] = 1;
    vec[1] = 2;
    vec[2] = byExposure;
    vec[3] = byGain;
    return vec;
}

TEST_F(TransportTest, ExposureAndGainShareOneOptionBlock)
{
    AttachUnits("0:model=6");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    EXPECT_EQ(VXD_OK, vxd.SetGain(2));
    EXPECT_EQ(VXD_OK, vxd.SetExposure(40));
    const std::vector<tavk05virt::Request> vecLog = tavk05virt::RequestLog(0);
    ASSERT_EQ(2u, vecLog.size());
    EXPECT_EQ(5u, vecLog[0].nRequest);
    EXPECT_EQ(OptionBlock(0, 2), vecLog[0].vecBlock);
    EXPECT_EQ(5u, vecLog[1].nRequest);
    EXPECT_EQ(OptionBlock(40, 2), vecLog[1].vecBlock);
    EXPECT_EQ(40, vxd.m_byExposure);
    EXPECT_EQ(2, vxd.m_byGain);
    EXPECT_EQ(40, State().byExposure);
    EXPECT_EQ(2, State().byGain);
}

TEST_F(TransportTest, SensorOptionSendsCurrentBytesAgain)
{
    AttachUnits("0:model=3");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    vxd.m_byExposure = 0xFE;
    vxd.m_byGain = 0x81;
    EXPECT_EQ(VXD_OK, vxd.SetSensorOption());
    const std::vector<tavk05virt::Request> vecLog = tavk05virt::RequestLog(0);
    ASSERT_EQ(1u, vecLog.size());
    EXPECT_EQ(OptionBlock(0xFE, 0x81), vecLog[0].vecBlock);
}

TEST_F(TransportTest, LedBlockCarriesSwitchAndLowSelectorByte)
{
    AttachUnits("0:model=7");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    EXPECT_EQ(VXD_OK, vxd.SetLedOn(true, 0x0201));
    EXPECT_TRUE(State().bLedOn);
    EXPECT_EQ(0x01, State().byLedSelector);
    EXPECT_EQ(VXD_OK, vxd.SetLedOn(false, 0));
    EXPECT_FALSE(State().bLedOn);

    const std::vector<tavk05virt::Request> vecLog = tavk05virt::RequestLog(0);
    ASSERT_EQ(2u, vecLog.size());
    EXPECT_EQ(8u, vecLog[0].nRequest);
    EXPECT_EQ((std::vector<unsigned char>{1, 0x01}), vecLog[0].vecBlock);
    EXPECT_EQ((std::vector<unsigned char>{0, 0}), vecLog[1].vecBlock);
}

TEST_F(TransportTest, DeviceIdGoesOutZeroedAndComesBackWhole)
{
    AttachUnits("0:model=7,serial=AB12-x");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    unsigned char abyOut[64];
    std::memset(abyOut, 0xAA, sizeof abyOut);
    unsigned long nLen = 12345;
    ASSERT_EQ(VXD_OK, vxd.DevIoCtlGetDevID(abyOut, &nLen));
    EXPECT_EQ(64u, nLen);

    const std::vector<tavk05virt::Request> vecLog = tavk05virt::RequestLog(0);
    ASSERT_EQ(1u, vecLog.size());
    EXPECT_EQ(9u, vecLog[0].nRequest);
    EXPECT_EQ(std::vector<unsigned char>(64, 0), vecLog[0].vecBlock);

    const char szExpected[] = "TAVK05-7-AB12-x";
    EXPECT_EQ(0, std::memcmp(abyOut, szExpected, sizeof szExpected));
    for (std::size_t i = sizeof szExpected; i < sizeof abyOut; ++i) {
        ASSERT_EQ(0, abyOut[i]) << "byte " << i;
    }
    EXPECT_EQ(0, std::memcmp(abyOut, State().abyDeviceId, 64));
}

TEST_F(TransportTest, SetValueSendsAtMost64BytesAndGetValueReturnsThem)
{
    AttachUnits("0:model=8");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    unsigned char abyIn[100];
    for (unsigned i = 0; i < sizeof abyIn; ++i) abyIn[i] = static_cast<unsigned char>(200 - i);
    ASSERT_EQ(VXD_OK, vxd.DevIoCtlSetValue(abyIn, sizeof abyIn));
    std::vector<tavk05virt::Request> vecLog = tavk05virt::RequestLog(0);
    ASSERT_EQ(1u, vecLog.size());
    EXPECT_EQ(18u, vecLog[0].nRequest);
    EXPECT_EQ(std::vector<unsigned char>(abyIn, abyIn + 64), vecLog[0].vecBlock);

    unsigned char abyOut[64] = {};
    unsigned long nLen = 0;
    ASSERT_EQ(VXD_OK, vxd.DevIoCtlGetValue(abyOut, &nLen));
    EXPECT_EQ(64u, nLen);
    EXPECT_EQ(0, std::memcmp(abyIn, abyOut, 64));
    vecLog = tavk05virt::RequestLog(0);
    ASSERT_EQ(2u, vecLog.size());
    EXPECT_EQ(17u, vecLog[1].nRequest);
    EXPECT_EQ(std::vector<unsigned char>(64, 0), vecLog[1].vecBlock);
}

TEST_F(TransportTest, ShortSetValueIsPaddedWithZeros)
{
    AttachUnits("0:model=8");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    unsigned char abyIn[10];
    std::memset(abyIn, 0x5C, sizeof abyIn);
    ASSERT_EQ(VXD_OK, vxd.DevIoCtlSetValue(abyIn, sizeof abyIn));
    std::vector<unsigned char> vecExpected(64, 0);
    std::memset(vecExpected.data(), 0x5C, 10);
    EXPECT_EQ(vecExpected, tavk05virt::RequestLog(0).at(0).vecBlock);
    EXPECT_EQ(0, std::memcmp(vecExpected.data(), State().abyValue, 64));
}

TEST_F(TransportTest, RollControlStartsStopsAndIgnoresOtherModes)
{
    AttachUnits("0:model=6");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    EXPECT_EQ(VXD_OK, vxd.RollDevIoControl(0));
    EXPECT_TRUE(State().bAcquiring);
    EXPECT_EQ(VXD_OK, vxd.RollDevIoControl(2));
    EXPECT_EQ(VXD_OK, vxd.RollDevIoControl(0xFFFFFFFFUL));
    EXPECT_TRUE(State().bAcquiring);
    EXPECT_EQ(VXD_OK, vxd.RollDevIoControl(1));
    EXPECT_FALSE(State().bAcquiring);
    EXPECT_EQ((std::vector<unsigned long>{21, 22}), RequestNumbers());
    for (const tavk05virt::Request& req : tavk05virt::RequestLog(0)) {
        EXPECT_TRUE(req.vecBlock.empty());
    }
}

TEST_F(TransportTest, OperationsWithoutRequestsSendNothing)
{
    AttachUnits("0:model=6");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    unsigned long nLen = 77;
    EXPECT_EQ(VXD_OK, vxd.DevIoCtlCheckAutoOnStatus(nullptr, &nLen));
    EXPECT_EQ(0u, nLen);
    EXPECT_EQ(VXD_OK, vxd.ResetPipe(3));
    EXPECT_EQ(VXD_OK, vxd.LockDevice());
    EXPECT_EQ(VXD_OK, vxd.UnlockDevice());
    EXPECT_EQ(VXD_OK, vxd.SetAutoExposure(true));
    EXPECT_EQ(VXD_OK, vxd.SetAutoGain(true));
    EXPECT_EQ(VXD_OK, vxd.I2cReadData(0x10));
    EXPECT_EQ(VXD_OK, vxd.I2cWriteData(0x10, 0x20));
    EXPECT_EQ(0, vxd.GetBandwidth());
    EXPECT_EQ(0, vxd.GetOpenHandleCount());
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    EXPECT_EQ(0u, State().nReads);
}

TEST_F(TransportTest, EveryRequestOnClosedNodeIsRefusedBeforeSending)
{
    AttachUnits("0:model=4");
    CVxdInterface vxd;
    ASSERT_EQ(VXD_OK, vxd.OpenUSB(0));
    vxd.CloseUSB();
    tavk05virt::ClearLog(0);
    const unsigned long nReadsBefore = State().nReads;

    unsigned char abyBlock[64];
    std::memset(abyBlock, 0x33, sizeof abyBlock);
    unsigned long nLen = 99;
    EXPECT_EQ(VXD_E_NOT_OPEN, vxd.SetExposure(10));
    EXPECT_EQ(VXD_E_NOT_OPEN, vxd.SetGain(10));
    EXPECT_EQ(VXD_E_NOT_OPEN, vxd.SetLedOn(true, 0));
    EXPECT_EQ(VXD_E_NOT_OPEN, vxd.DevIoCtlGetDevID(abyBlock, &nLen));
    EXPECT_EQ(0u, nLen);
    nLen = 99;
    EXPECT_EQ(VXD_E_NOT_OPEN, vxd.DevIoCtlGetValue(abyBlock, &nLen));
    EXPECT_EQ(0u, nLen);
    EXPECT_EQ(VXD_E_NOT_OPEN, vxd.DevIoCtlSetValue(abyBlock, sizeof abyBlock));
    EXPECT_EQ(VXD_E_NOT_OPEN, vxd.RollDevIoControl(0));
    EXPECT_EQ(VXD_E_NOT_OPEN, vxd.RollDevIoControl(1));
    EXPECT_EQ(VXD_E_NOT_OPEN, vxd.GetDevInfo());
    EXPECT_EQ(VXD_E_NOT_OPEN, vxd.ReadData(abyBlock, 10, 3000));
    EXPECT_EQ(VXD_E_NOT_OPEN, vxd.ReadDataEx(abyBlock, 10, 3000));
    EXPECT_EQ(VXD_E_NOT_OPEN, vxd.ReadLatent(abyBlock, 10));
    EXPECT_EQ(VXD_E_LED, vxd.ResetPipe(0));
    // Caller data untouched, the exposure byte not taken over.
    for (unsigned char by : abyBlock) ASSERT_EQ(0x33, by);
    EXPECT_EQ(0, vxd.m_byExposure);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    EXPECT_EQ(nReadsBefore, State().nReads);
}

// One failing request number and what the transport makes of it.
struct FaultCase {
    unsigned long nRequest;
    int (*pfnCall)(CVxdInterface&);
    int nExpected;
};

// A failed get request writes nothing and leaves the length at 0; a
// successful one delivers 64 bytes.
void ExpectBlockOutcome(int nResult, const unsigned char* pBlock, unsigned long nLen)
{
    if (nResult != 0) {
        for (int i = 0; i < 64; ++i) EXPECT_EQ(0x6B, pBlock[i]);
        EXPECT_EQ(0u, nLen);
    } else {
        EXPECT_EQ(64u, nLen);
    }
}

int CallSetExposure(CVxdInterface& vxd) { return vxd.SetExposure(9); }
int CallSetLed(CVxdInterface& vxd) { return vxd.SetLedOn(true, 1); }
int CallGetDevId(CVxdInterface& vxd)
{
    unsigned char aby[64];
    std::memset(aby, 0x6B, sizeof aby);
    unsigned long nLen = 5;
    const int nResult = vxd.DevIoCtlGetDevID(aby, &nLen);
    ExpectBlockOutcome(nResult, aby, nLen);
    return nResult;
}
int CallGetValue(CVxdInterface& vxd)
{
    unsigned char aby[64];
    std::memset(aby, 0x6B, sizeof aby);
    unsigned long nLen = 5;
    const int nResult = vxd.DevIoCtlGetValue(aby, &nLen);
    ExpectBlockOutcome(nResult, aby, nLen);
    return nResult;
}
int CallSetValue(CVxdInterface& vxd)
{
    unsigned char aby[4] = {1, 2, 3, 4};
    return vxd.DevIoCtlSetValue(aby, sizeof aby);
}
int CallStart(CVxdInterface& vxd) { return vxd.RollDevIoControl(0); }
int CallStop(CVxdInterface& vxd) { return vxd.RollDevIoControl(1); }
int CallDescriptor(CVxdInterface& vxd)
{
    _usb_device_descriptor desc = {};
    return vxd.GetDevDescriptor(&desc);
}

class RequestFault : public TransportTest, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(RequestFault, FailedRequestGivesItsResultAndIsSentOnce)
{
    const FaultCase& fc = GetParam();
    AttachUnits("0:model=6");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    Inject(0, "fail=" + std::to_string(fc.nRequest));
    EXPECT_EQ(fc.nExpected, fc.pfnCall(vxd));
    const std::vector<tavk05virt::Request> vecLog = tavk05virt::RequestLog(0);
    ASSERT_EQ(1u, vecLog.size());
    EXPECT_EQ(fc.nRequest, vecLog[0].nRequest);
    EXPECT_TRUE(vecLog[0].bFailed);
    // The node stays open: the next request is sent again.
    EXPECT_GE(vxd.m_hDevice, 0);
    Inject(0, "clearfaults");
    EXPECT_EQ(0, fc.pfnCall(vxd));
}

INSTANTIATE_TEST_SUITE_P(
    EachRequest, RequestFault,
    ::testing::Values(FaultCase{4, CallDescriptor, -1}, FaultCase{5, CallSetExposure, VXD_E_REQUEST},
                      FaultCase{8, CallSetLed, VXD_E_LED}, FaultCase{9, CallGetDevId, VXD_E_REQUEST},
                      FaultCase{17, CallGetValue, VXD_E_REQUEST}, FaultCase{18, CallSetValue, VXD_E_REQUEST},
                      FaultCase{21, CallStart, VXD_E_REQUEST}, FaultCase{22, CallStop, VXD_E_REQUEST}));

TEST_F(TransportTest, FaultFromNthCallLetsEarlierCallsThrough)
{
    AttachUnits("0:model=6,fail=5@3");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    EXPECT_EQ(VXD_OK, vxd.SetGain(1));
    EXPECT_EQ(VXD_OK, vxd.SetGain(2));
    EXPECT_EQ(VXD_E_REQUEST, vxd.SetGain(3));
    EXPECT_EQ(VXD_E_REQUEST, vxd.SetExposure(4));
    // The unit kept the last block it accepted; the transport its own bytes.
    EXPECT_EQ(2, State().byGain);
    EXPECT_EQ(0, State().byExposure);
    EXPECT_EQ(3, vxd.m_byGain);
    EXPECT_EQ(4, vxd.m_byExposure);
}

TEST_F(TransportTest, NullArgumentsAreRejected)
{
    AttachUnits("0:model=6");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    unsigned long nLen = 7;
    unsigned char aby[64];
    EXPECT_EQ(VXD_E_INVALID, vxd.DevIoCtlGetDevID(nullptr, &nLen));
    EXPECT_EQ(0u, nLen);
    EXPECT_EQ(VXD_E_INVALID, vxd.DevIoCtlGetValue(aby, nullptr));
    EXPECT_EQ(VXD_E_INVALID, vxd.DevIoCtlSetValue(nullptr, 4));
    EXPECT_EQ(VXD_E_INVALID, vxd.ReadData(nullptr, 10, 3000));
    EXPECT_EQ(VXD_E_INVALID, vxd.ReadDataEx(nullptr, 10, 3000));
    EXPECT_EQ(VXD_E_INVALID, vxd.ReadLatent(nullptr, 10));
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    EXPECT_EQ(0u, State().nReads);
}

}  // namespace
