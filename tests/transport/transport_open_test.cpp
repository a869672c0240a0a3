// Opening and closing the device node; device type and firmware from the
// USB device descriptor.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "transport/transport_fixture.h"

namespace {

bool DescriptorIsOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

TEST_F(TransportTest, ConstructedTransportIsClosedAndZeroed)
{
    const CVxdInterface vxd;
    EXPECT_EQ(-1, vxd.m_hDevice);
    EXPECT_EQ(0, vxd.m_nDevType);
    EXPECT_EQ(0, vxd.m_nFirmwareVersion);
    EXPECT_EQ(0, vxd.m_byGain);
    EXPECT_EQ(0, vxd.m_byExposure);
    EXPECT_FALSE(vxd.m_bLatentCapable);
}

TEST_F(TransportTest, OpenRejectsIndexAboveSevenWithoutTouchingAnyNode)
{
    AttachUnits("0:model=6;7:model=6");
    CVxdInterface vxd;
    EXPECT_EQ(VXD_E_INVALID, vxd.OpenUSB(8));
    EXPECT_EQ(VXD_E_INVALID, vxd.OpenUSB(0xFFFF));
    EXPECT_EQ(-1, vxd.m_hDevice);
    EXPECT_EQ(0, State(0).nOpenCount);
    EXPECT_EQ(0, State(7).nOpenCount);
}

TEST_F(TransportTest, OpenOfMissingNodeFailsWithNegativeHandle)
{
    CVxdInterface vxd;
    EXPECT_EQ(VXD_E_REQUEST, vxd.OpenUSB(3));  // no unit, no real node
    EXPECT_LT(vxd.m_hDevice, 0);
    EXPECT_EQ(VXD_E_NOT_OPEN, vxd.GetDevInfo());
}

TEST_F(TransportTest, OpenFailureOfTheDeviceIsReported)
{
    AttachUnits("2:model=5,openfail");
    CVxdInterface vxd;
    EXPECT_EQ(VXD_E_REQUEST, vxd.OpenUSB(2));
    EXPECT_LT(vxd.m_hDevice, 0);
    EXPECT_EQ(0, State(2).nOpenCount);
}

TEST_F(TransportTest, OpenReadsDescriptorAndClearsLatentFlag)
{
    AttachUnits("5:model=8,fw=0x3000");
    CVxdInterface vxd;
    vxd.SetLatentCapable(true);
    ASSERT_EQ(VXD_OK, vxd.OpenUSB(5));
    EXPECT_GE(vxd.m_hDevice, 0);
    EXPECT_FALSE(vxd.m_bLatentCapable);
    EXPECT_EQ(8, vxd.GetDevType());
    EXPECT_EQ(0x3000, vxd.GetFirmwareVersion());
    // New firmware for the sensor driver means above 0x2FFF.
    EXPECT_GT(vxd.GetFirmwareVersion(), 0x2FFF);

    const std::vector<tavk05virt::Request> vecLog = tavk05virt::RequestLog(5);
    ASSERT_EQ(1u, vecLog.size());
    EXPECT_EQ(4u, vecLog[0].nRequest);
    EXPECT_EQ(18u, vecLog[0].vecBlock.size());
    EXPECT_TRUE(State(5).bOpen);
}

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
    std::snprintf(szUnit, sizeof szUnit, "0:product=0x%04x,fw=0x%04x", tc.wProduct, tc.wFirmware);
    AttachUnits(szUnit);
    CVxdInterface vxd;
    ASSERT_EQ(VXD_OK, vxd.OpenUSB(0));
    EXPECT_EQ(tc.nType, vxd.GetDevType()) << szUnit;
    EXPECT_EQ(tc.wFirmware, vxd.GetFirmwareVersion());
}

INSTANTIATE_TEST_SUITE_P(
    Boundaries, DeviceTypeTable,
    ::testing::Values(TypeCase{0x0610, 0x0000, 3}, TypeCase{0x0610, 0x1004, 3}, TypeCase{0x0610, 0x1005, 7},
                      TypeCase{0x0610, 0x1102, 7}, TypeCase{0x0610, 0x1103, 5}, TypeCase{0x0610, 0x1104, 7},
                      TypeCase{0x0610, 0x2FFF, 7}, TypeCase{0x0610, 0x3000, 7}, TypeCase{0x0610, 0xFFFF, 7},
                      TypeCase{0x0620, 0x0100, 4}, TypeCase{0x0620, 0x1004, 4}, TypeCase{0x0620, 0x1005, 8},
                      TypeCase{0x0620, 0x1103, 6}, TypeCase{0x0620, 0x3000, 8}));

TEST_F(TransportTest, UnknownProductKeepsTypeButTakesFirmware)
{
    AttachUnits("0:model=6;1:product=0x0630,fw=0x1103;2:product=0x0611,fw=0x3000");
    CVxdInterface vxd;
    EXPECT_EQ(VXD_OK, vxd.OpenUSB(1));
    EXPECT_EQ(0, vxd.GetDevType());  // nothing known yet
    EXPECT_EQ(0x1103, vxd.GetFirmwareVersion());
    vxd.CloseUSB();

    ASSERT_EQ(VXD_OK, vxd.OpenUSB(0));
    EXPECT_EQ(6, vxd.GetDevType());
    vxd.CloseUSB();
    ASSERT_EQ(VXD_OK, vxd.OpenUSB(2));
    EXPECT_EQ(6, vxd.GetDevType());  // left as it was
    EXPECT_EQ(0x3000, vxd.GetFirmwareVersion());
}

TEST_F(TransportTest, FailedDescriptorRequestStillOpensButChangesNothing)
{
    AttachUnits("0:model=7;1:model=4,fail=4");
    CVxdInterface vxd;
    ASSERT_EQ(VXD_OK, vxd.OpenUSB(0));
    vxd.CloseUSB();
    ASSERT_EQ(VXD_OK, vxd.OpenUSB(1));
    EXPECT_GE(vxd.m_hDevice, 0);
    EXPECT_EQ(7, vxd.GetDevType());
    EXPECT_EQ(0x3000, vxd.GetFirmwareVersion());

    _usb_device_descriptor desc = {};
    EXPECT_EQ(-1, vxd.GetDevDescriptor(&desc));
    EXPECT_EQ(-1, vxd.GetDevInfo());  // the raw request result
    EXPECT_EQ(7, vxd.GetDevType());
}

TEST_F(TransportTest, DescriptorFieldsArriveLittleEndian)
{
    AttachUnits("0:product=0x0620,fw=0x1234,vendor=0xABCD");
    CVxdInterface vxd;
    ASSERT_EQ(VXD_OK, vxd.OpenUSB(0));
    _usb_device_descriptor desc = {};
    ASSERT_EQ(0, vxd.GetDevDescriptor(&desc));
    EXPECT_EQ(18, desc.bLength);
    EXPECT_EQ(1, desc.bDescriptorType);
    EXPECT_EQ(0x0200, desc.bcdUSB);
    EXPECT_EQ(0xABCD, desc.idVendor);
    EXPECT_EQ(0x0620, desc.idProduct);
    EXPECT_EQ(0x1234, desc.bcdDevice);
    EXPECT_EQ(0x1234, vxd.GetFirmwareVersion());
}

TEST_F(TransportTest, CloseWithOldFirmwareLeavesDescriptorOpen)
{
    AttachUnits("0:model=4,fw=0x07FF;1:model=4,fw=0x0800");
    CVxdInterface vxdOld;
    ASSERT_EQ(VXD_OK, vxdOld.OpenUSB(0));
    const int fdOld = vxdOld.m_hDevice;
    EXPECT_EQ(VXD_OK, vxdOld.CloseUSB());
    EXPECT_EQ(-1, vxdOld.m_hDevice);
    EXPECT_TRUE(DescriptorIsOpen(fdOld));
    EXPECT_EQ(0, State(0).nCloseCount);
    EXPECT_TRUE(State(0).bOpen);
    // Nothing is sent on a transport that counts as closed.
    EXPECT_EQ(VXD_E_NOT_OPEN, vxdOld.RollDevIoControl(0));
    close(fdOld);

    CVxdInterface vxdNew;
    ASSERT_EQ(VXD_OK, vxdNew.OpenUSB(1));
    const int fdNew = vxdNew.m_hDevice;
    EXPECT_EQ(VXD_OK, vxdNew.CloseUSB());
    EXPECT_FALSE(DescriptorIsOpen(fdNew));
    EXPECT_EQ(1, State(1).nCloseCount);
    EXPECT_FALSE(State(1).bOpen);
    EXPECT_EQ(VXD_OK, vxdNew.CloseUSB());  // closing twice is harmless
    EXPECT_EQ(1, State(1).nCloseCount);
}

TEST_F(TransportTest, TypeAndFirmwareOutliveClose)
{
    AttachUnits("0:model=5");
    CVxdInterface vxd;
    ASSERT_EQ(VXD_OK, vxd.OpenUSB(0));
    vxd.CloseUSB();
    EXPECT_EQ(5, vxd.GetDevType());
    EXPECT_EQ(0x1103, vxd.GetFirmwareVersion());
}

TEST_F(TransportTest, DestructorClosesTheNode)
{
    AttachUnits("0:model=7");
    int fd = -1;
    {
        CVxdInterface vxd;
        ASSERT_EQ(VXD_OK, vxd.OpenUSB(0));
        fd = vxd.m_hDevice;
        EXPECT_TRUE(DescriptorIsOpen(fd));
    }
    EXPECT_FALSE(DescriptorIsOpen(fd));
    EXPECT_EQ(1, State(0).nCloseCount);
}

TEST_F(TransportTest, ReopenOverwritesHandleWithoutClosing)
{
    AttachUnits("0:model=7");
    CVxdInterface vxd;
    ASSERT_EQ(VXD_OK, vxd.OpenUSB(0));
    const int fdFirst = vxd.m_hDevice;
    ASSERT_EQ(VXD_OK, vxd.OpenUSB(0));
    EXPECT_NE(fdFirst, vxd.m_hDevice);
    EXPECT_TRUE(DescriptorIsOpen(fdFirst));
    EXPECT_EQ(2, State(0).nOpenCount);
    EXPECT_EQ(0, State(0).nCloseCount);
    close(fdFirst);
}

}  // namespace
