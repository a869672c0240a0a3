// Opening and closing the device node, the device type from the USB
// descriptor, and the control requests with their failures.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "transport/transport_fixture.h"

namespace {

bool DescriptorIsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

TEST_F(TransportTest, OpenFailsWithoutTouchingTheNode)
{
    AttachUnits("0:model=6;2:model=5,openfail;7:model=6");
    CVxdInterface vxd;
    EXPECT_EQ(-1, vxd.m_hDevice);
    EXPECT_EQ(0, vxd.m_nDevType);
    EXPECT_EQ(VXD_E_INVALID, vxd.OpenUSB(8));
    EXPECT_EQ(VXD_E_INVALID, vxd.OpenUSB(0xFFFF));
    EXPECT_EQ(VXD_E_REQUEST, vxd.OpenUSB(2));  // the node refuses
    EXPECT_EQ(VXD_E_REQUEST, vxd.OpenUSB(3));  // no node at all
    EXPECT_LT(vxd.m_hDevice, 0);
    EXPECT_EQ(VXD_E_NOT_OPEN, vxd.GetDevInfo());
    for (int nIndex : {0, 2, 7}) EXPECT_EQ(0, State(nIndex).nOpenCount) << nIndex;
}

TEST_F(TransportTest, OpenReadsTheDescriptorLittleEndianAndClearsLatentFlag)
{
    AttachUnits("5:product=0x0620,fw=0x3000,vendor=0xABCD");
    CVxdInterface vxd;
    vxd.SetLatentCapable(true);
    ASSERT_EQ(VXD_OK, vxd.OpenUSB(5));
    EXPECT_FALSE(vxd.m_bLatentCapable);
    EXPECT_EQ(8, vxd.GetDevType());
    EXPECT_EQ(0x3000, vxd.GetFirmwareVersion());
    const std::vector<tavk05virt::Request> vecLog = tavk05virt::RequestLog(5);
    ASSERT_EQ(1u, vecLog.size());
    EXPECT_EQ(std::make_pair(4ul, size_t(18)), std::make_pair(vecLog[0].nRequest, vecLog[0].vecBlock.size()));

    _usb_device_descriptor desc = {};
    ASSERT_EQ(0, vxd.GetDevDescriptor(&desc));
    EXPECT_EQ(std::vector<int>({18, 0xABCD, 0x0620, 0x3000}),
              std::vector<int>({desc.bLength, desc.idVendor, desc.idProduct, desc.bcdDevice}));
}

// Device type by product and firmware, at every boundary of the firmware
// ranges; an unknown product (last column: the type opened before it) keeps
// the type the transport had and takes the firmware.
struct TypeCase {
    unsigned short wProduct;
    unsigned short wFirmware;
    int nType;
};

class DeviceTypeTable : public TransportTest, public ::testing::WithParamInterface<TypeCase> {};

TEST_P(DeviceTypeTable, TypeFollowsProductAndFirmware)
{
    const TypeCase& tc = GetParam();
    char szUnit[64];
    std::snprintf(szUnit, sizeof szUnit, "0:model=6;1:product=0x%04x,fw=0x%04x", tc.wProduct, tc.wFirmware);
    AttachUnits(szUnit);
    CVxdInterface vxd;
    ASSERT_EQ(VXD_OK, vxd.OpenUSB(0));
    ASSERT_EQ(VXD_OK, vxd.OpenUSB(1));
    EXPECT_EQ(tc.nType, vxd.GetDevType()) << szUnit;
    EXPECT_EQ(tc.wFirmware, vxd.GetFirmwareVersion());
    vxd.CloseUSB();
    EXPECT_EQ(tc.nType, vxd.GetDevType());  // type and firmware outlive the close
    EXPECT_EQ(tc.wFirmware, vxd.GetFirmwareVersion());
}

INSTANTIATE_TEST_SUITE_P(Boundaries, DeviceTypeTable,
                         ::testing::Values(TypeCase{0x0610, 0x0000, 3}, TypeCase{0x0610, 0x1004, 3},
                                           TypeCase{0x0610, 0x1005, 7}, TypeCase{0x0610, 0x1102, 7},
                                           TypeCase{0x0610, 0x1103, 5}, TypeCase{0x0610, 0x1104, 7},
                                           TypeCase{0x0610, 0xFFFF, 7}, TypeCase{0x0620, 0x1004, 4},
                                           TypeCase{0x0620, 0x1005, 8}, TypeCase{0x0620, 0x1103, 6},
                                           TypeCase{0x0620, 0x3000, 8}, TypeCase{0x0630, 0x1103, 6},
                                           TypeCase{0x0611, 0x3000, 6}, TypeCase{0x0000, 0x1004, 6}));

TEST_F(TransportTest, FailedDescriptorRequestStillOpensButChangesNothing)
{
    AttachUnits("0:model=7;1:model=4,fail=4");
    CVxdInterface vxd;
    ASSERT_EQ(VXD_OK, vxd.OpenUSB(0));
    ASSERT_EQ(VXD_OK, vxd.OpenUSB(1));  // a second open does not close the first node
    EXPECT_EQ(std::vector<int>({1, 0, 7, 0x3000}), std::vector<int>({State(0).nOpenCount, State(0).nCloseCount,
                                                                     vxd.GetDevType(), vxd.GetFirmwareVersion()}));
    EXPECT_EQ(-1, vxd.GetDevInfo());  // the raw request result
}

TEST_F(TransportTest, CloseLeavesTheNodeOfOldFirmwareOpen)
{
    AttachUnits("0:model=4,fw=0x07FF;1:model=4,fw=0x0800;2:model=7");
    CVxdInterface vxdOld;
    ASSERT_EQ(VXD_OK, vxdOld.OpenUSB(0));
    const int fdOld = vxdOld.m_hDevice;
    EXPECT_EQ(VXD_OK, vxdOld.CloseUSB());
    EXPECT_EQ(-1, vxdOld.m_hDevice);
    EXPECT_TRUE(DescriptorIsOpen(fdOld));
    EXPECT_TRUE(State(0).bOpen);
    close(fdOld);

    CVxdInterface vxdNew;
    ASSERT_EQ(VXD_OK, vxdNew.OpenUSB(1));
    const int fdNew = vxdNew.m_hDevice;
    EXPECT_EQ(VXD_OK, vxdNew.CloseUSB());
    EXPECT_EQ(VXD_OK, vxdNew.CloseUSB());  // closing twice is harmless
    EXPECT_FALSE(DescriptorIsOpen(fdNew));
    EXPECT_EQ(1, State(1).nCloseCount);

    int fd = -1;
    {
        CVxdInterface vxd;
        ASSERT_EQ(VXD_OK, vxd.OpenUSB(2));
        fd = vxd.m_hDevice;
    }
    EXPECT_FALSE(DescriptorIsOpen(fd));  // the destructor closes
}

TEST_F(TransportTest, AcquisitionModesAndRequestFreeOperations)
{
    AttachUnits("0:model=6");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    for (unsigned long nMode : {0UL, 2UL, 0xFFFFFFFFUL}) EXPECT_EQ(VXD_OK, vxd.RollDevIoControl(nMode));
    EXPECT_TRUE(State().bAcquiring);
    EXPECT_EQ(VXD_OK, vxd.RollDevIoControl(1));
    EXPECT_FALSE(State().bAcquiring);
    unsigned long nLen = 77;
    EXPECT_EQ(VXD_OK, vxd.DevIoCtlCheckAutoOnStatus(nullptr, &nLen));
    EXPECT_EQ(0u, nLen);
    // The operations the kernel driver has no request for succeed without one.
    for (const int nResult :
         {vxd.ResetPipe(3), vxd.LockDevice(), vxd.UnlockDevice(), vxd.SetAutoExposure(true), vxd.SetAutoGain(true),
          vxd.I2cReadData(0x10), vxd.I2cWriteData(0x10, 0x20), vxd.GetBandwidth(), vxd.GetOpenHandleCount()}) {
        EXPECT_EQ(VXD_OK, nResult);
    }
    EXPECT_EQ((std::vector<unsigned long>{21, 22}), RequestNumbers());
    for (const tavk05virt::Request& req : tavk05virt::RequestLog(0)) EXPECT_TRUE(req.vecBlock.empty());
}

// Every request-sending entry point: the request it sends, its result when
// the kernel driver refuses that request, and when the node is closed.
using Block = unsigned char*;
struct EntryPoint {
    const char* pszName;
    unsigned long nRequest;
    int nOnFault;
    int (*pfnCall)(CVxdInterface&, Block pBlock, unsigned long* pLen);
};

const EntryPoint kEntryPoints[] = {
    {"descriptor", 4, -1, [](CVxdInterface& v, Block, unsigned long*) { return v.GetDevInfo(); }},
    {"exposure", 5, VXD_E_REQUEST, [](CVxdInterface& v, Block, unsigned long*) { return v.SetExposure(9); }},
    {"gain", 5, VXD_E_REQUEST, [](CVxdInterface& v, Block, unsigned long*) { return v.SetGain(9); }},
    {"led", 8, VXD_E_LED, [](CVxdInterface& v, Block, unsigned long*) { return v.SetLedOn(true, 1); }},
    {"device_id", 9, VXD_E_REQUEST,
     [](CVxdInterface& v, Block p, unsigned long* n) { return v.DevIoCtlGetDevID(p, n); }},
    {"get_value", 17, VXD_E_REQUEST,
     [](CVxdInterface& v, Block p, unsigned long* n) { return v.DevIoCtlGetValue(p, n); }},
    {"set_value", 18, VXD_E_REQUEST,
     [](CVxdInterface& v, Block p, unsigned long*) { return v.DevIoCtlSetValue(p, 4); }},
    {"start", 21, VXD_E_REQUEST, [](CVxdInterface& v, Block, unsigned long*) { return v.RollDevIoControl(0); }},
    {"stop", 22, VXD_E_REQUEST, [](CVxdInterface& v, Block, unsigned long*) { return v.RollDevIoControl(1); }},
};

class RequestEntryPoint : public TransportTest, public ::testing::WithParamInterface<EntryPoint> {
protected:
    // Calls the entry point on a block of 0x6B; a failure must leave the block
    // and report length 0, a success of a get request 64 bytes.
    int Call(CVxdInterface& vxd)
    {
        std::memset(m_aby, 0x6B, sizeof m_aby);
        m_nLen = 5;
        const int nResult = GetParam().pfnCall(vxd, m_aby, &m_nLen);
        const bool bGet = GetParam().nRequest == 9 || GetParam().nRequest == 17;
        EXPECT_TRUE(!bGet || m_nLen == (nResult == VXD_OK ? 64u : 0u)) << m_nLen;
        EXPECT_TRUE(!bGet || nResult == VXD_OK || std::count(m_aby, m_aby + 64, 0x6B) == 64);
        return nResult;
    }
    unsigned char m_aby[64];
    unsigned long m_nLen = 0;
};

TEST_P(RequestEntryPoint, RefusedRequestIsReportedOnceAndTheNodeStaysOpen)
{
    AttachUnits("0:model=6");
    CVxdInterface vxd;
    OpenAndClearLog(vxd);
    Inject(0, "fail=" + std::to_string(GetParam().nRequest));
    EXPECT_EQ(GetParam().nOnFault, Call(vxd));
    const std::vector<tavk05virt::Request> vecLog = tavk05virt::RequestLog(0);
    ASSERT_EQ(1u, vecLog.size());
    EXPECT_EQ(GetParam().nRequest, vecLog[0].nRequest);
    EXPECT_GE(vxd.m_hDevice, 0);
    Inject(0, "clearfaults");
    EXPECT_EQ(VXD_OK, Call(vxd));
}

TEST_P(RequestEntryPoint, ClosedNodeRefusesBeforeSending)
{
    AttachUnits("0:model=6");
    CVxdInterface vxd;
    ASSERT_EQ(VXD_OK, vxd.OpenUSB(0));
    vxd.CloseUSB();
    tavk05virt::ClearLog(0);
    EXPECT_EQ(VXD_E_NOT_OPEN, Call(vxd));
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    EXPECT_EQ(0, vxd.m_byExposure);  // the exposure byte is not taken over
    EXPECT_EQ(VXD_E_LED, vxd.ResetPipe(0));
}

INSTANTIATE_TEST_SUITE_P(All, RequestEntryPoint, ::testing::ValuesIn(kEntryPoints),
                         [](const ::testing::TestParamInfo<EntryPoint>& info) { return info.param.pszName; });

TEST_F(TransportTest, NullArgumentsAreRejectedBeforeSending)
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
    EXPECT_EQ(VXD_OK, vxd.DevIoCtlSetValue(nullptr, 0));  // an empty block goes out zeroed
    EXPECT_EQ((std::vector<unsigned long>{18}), RequestNumbers());
}

}  // namespace
