// A sensor whose frame buffers cannot be allocated stays usable for
// everything but capture.
#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>

#include "sensor_fixture.h"

namespace {

// Which allocation of a frame buffer (counting from 1) fails; 0: none.
std::atomic<int> g_nFailFrameAllocation(0);
std::atomic<int> g_nFrameAllocations(0);

}  // namespace

// The program's nothrow array allocation: the chosen frame-buffer-sized
// request fails, everything else goes to the ordinary allocator.
void* operator new[](std::size_t nBytes, const std::nothrow_t&) noexcept
{
    if (nBytes == OBERIN_FRAME_BUFFER_BYTES) {
        const int nThis = ++g_nFrameAllocations;
        if (nThis == g_nFailFrameAllocation.load()) return nullptr;
    }
    try {
        return ::operator new[](nBytes);
    } catch (...) {
        return nullptr;
    }
}

namespace {

using sensortest::PathExists;
using sensortest::SensorTest;

class FrameBufferTest : public SensorTest {
protected:
    void TearDown() override
    {
        g_nFailFrameAllocation = 0;
        SensorTest::TearDown();
    }

    // Builds a sensor whose nth frame-buffer allocation fails.
    std::unique_ptr<COberin> MakeSensorFailingAt(int nWhich)
    {
        g_nFrameAllocations = 0;
        g_nFailFrameAllocation = nWhich;
        std::unique_ptr<COberin> pSensor(new COberin(nullptr));
        g_nFailFrameAllocation = 0;
        EXPECT_EQ(g_nFrameAllocations.load(), 3);
        return pSensor;
    }
};

TEST_F(FrameBufferTest, AnyFailedBufferLeavesNone)
{
    for (int nWhich = 1; nWhich <= 3; ++nWhich) {
        SCOPED_TRACE(nWhich);
        std::unique_ptr<COberin> pSensor = MakeSensorFailingAt(nWhich);
        // All or nothing, so that one test of m_pRawBuf guards a capture
        // (and the buffers obtained before the failure are not leaked).
        EXPECT_EQ(pSensor->m_pRawBuf, nullptr);
        EXPECT_EQ(pSensor->m_pRawCopyBuf, nullptr);
        EXPECT_EQ(pSensor->m_pGreyBuf, nullptr);
    }
}

TEST_F(FrameBufferTest, SensorWithoutBuffersStillOpensSetsAndSaves)
{
    AttachUnits("0:model=7,fw=0x3000");
    {
        std::unique_ptr<COberin> pSensor = MakeSensorFailingAt(2);
        ASSERT_EQ(pSensor->m_pRawBuf, nullptr);
        EXPECT_EQ(pSensor->OpenDevice(0, 0), 0ul);
        EXPECT_EQ(pSensor->GetDeviceType(), 7ul);
        EXPECT_TRUE(StateOf(0).bLedOn);
        EXPECT_EQ(pSensor->SetBrightness(50), 0ul);
        EXPECT_EQ(pSensor->SetGainValue(4), 0ul);
        EXPECT_EQ(pSensor->CloseDevice(), 0ul);
    }
    EXPECT_FALSE(StateOf(0).bOpen);
    EXPECT_TRUE(PathExists(m_strConf));
}

}  // namespace
