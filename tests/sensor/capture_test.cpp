// Single capture on the virtual scanner: the frame each model and firmware
// asks for and how it becomes the finished image, shading of models 5 and 6,
// corner marks by image-size code, the latent pre-check, the failure paths
// and DoModify.
#include <algorithm>
#include <climits>
#include <memory>
#include <ostream>
#include <string>

#include "capture_reference.h"
#include "sensor_fixture.h"
#include "tavk05/mark.h"

namespace {

using capturetest::Bytes;
using capturetest::CapturedPattern;
using capturetest::Compose;
using capturetest::CountDifferences;
using capturetest::Geometry;
using capturetest::GeometryFor;
using sensortest::RequestsOf;
using sensortest::SensorTest;

const unsigned char kUntouched = 0x5A;  // prefill that no capture produces by chance everywhere

class CaptureTest : public SensorTest {
protected:

    static Bytes Canvas() { return Bytes(IMG_PIXELS, kUntouched); }

    static bool AllEqual(const Bytes& image, size_t nFrom, size_t nTo, unsigned char by)
    {
        for (size_t i = nFrom; i < nTo; ++i) {
            if (image[i] != by) return false;
        }
        return true;
    }
};

// ---------------------------------------------------------------------------
// The six model and firmware paths.

struct CapturePath {
    const char* pszUnit;
    int nDeviceType;   // what the descriptor makes of the unit
    int nFirmware;
    unsigned nReads;   // reads of one single capture
};

void PrintTo(const CapturePath& path, std::ostream* pOs)
{
    *pOs << path.pszUnit;
}

class CapturePathTest : public CaptureTest, public ::testing::WithParamInterface<CapturePath> {};

// Every path requests a frame of its model's size, feeds only the mosaic to
// the conversion and produces what the public steps compose from the frame
// it served, marked for the nominal size of the image-size code.
TEST_P(CapturePathTest, GetImageComposesTheServedFrame)
{
    const CapturePath& path = GetParam();
    std::unique_ptr<COberin> pSensor = OpenSensor(path.pszUnit);
    ASSERT_EQ(pSensor->GetDeviceType(), static_cast<unsigned long>(path.nDeviceType));
    const Geometry geo = GeometryFor(path.nDeviceType, path.nFirmware);
    ASSERT_EQ(pSensor->m_nFrameBytes, geo.nFrameBytes);

    ASSERT_EQ(pSensor->SetImageSize(248, 292), 0ul);  // code 3
    // Whatever lies behind the mosaic in the copy must stay there.
    std::memset(pSensor->m_pRawCopyBuf, 0xA5, OBERIN_FRAME_BUFFER_BYTES);
    const unsigned long k = StateOf(0).nReads;

    Bytes image = Canvas();
    ASSERT_EQ(pSensor->GetImage(image.data()), 0ul);
    EXPECT_EQ(pSensor->GetError(), 0ul);

    const tavk05virt::UnitState st = StateOf(0);
    EXPECT_EQ(st.nReads - k, path.nReads);
    EXPECT_EQ(st.nLastReadBytes, geo.nFrameBytes);
    EXPECT_EQ(RequestsOf(0, VXD_REQ_START_ACQUISITION).size(), 1u);
    EXPECT_EQ(RequestsOf(0, VXD_REQ_STOP_ACQUISITION).size(), 1u);

    const Bytes raw = CapturedPattern(path.nDeviceType, geo, k);
    const size_t nMosaic = geo.nWidth * geo.nHeight;
    EXPECT_EQ(std::memcmp(pSensor->m_pRawBuf, raw.data(), raw.size()), 0) << "frame as read";
    EXPECT_EQ(std::memcmp(pSensor->m_pRawCopyBuf, raw.data(), nMosaic), 0) << "mosaic copy";
    const Bytes copyTail(pSensor->m_pRawCopyBuf + nMosaic, pSensor->m_pRawCopyBuf + OBERIN_FRAME_BUFFER_BYTES);
    EXPECT_TRUE(AllEqual(copyTail, 0, copyTail.size(), 0xA5)) << "bytes behind the mosaic were copied";

    Bytes expected = Canvas();
    Compose(raw, geo, path.nDeviceType, path.nFirmware, pSensor->m_fContrastFactor, true, 3, &expected);
    EXPECT_EQ(CountDifferences(image, expected), 0u);
    EXPECT_EQ(GetLTWaterM(image.data(), 248, 292), 1);
    EXPECT_EQ(GetRTWaterM(image.data(), 248, 292), 1);
    EXPECT_EQ(GetLBWaterM(image.data(), 248, 292), 1);
    EXPECT_EQ(GetRBWaterM(image.data(), 248, 292), 1);
}

INSTANTIATE_TEST_SUITE_P(
    ModelsAndFirmware, CapturePathTest,
    ::testing::Values(CapturePath{"model=3", 3, 0x1004, 4}, CapturePath{"model=4", 4, 0x1004, 4},
                      CapturePath{"product=0x0630", 0, 0x1004, 4}, CapturePath{"model=5", 5, 0x1103, 1},
                      CapturePath{"model=6", 6, 0x1103, 1}, CapturePath{"model=7,fw=0x2FFF", 7, 0x2FFF, 1},
                      CapturePath{"model=8,fw=0x1005", 8, 0x1005, 1}, CapturePath{"model=7,fw=0x3000", 7, 0x3000, 1},
                      CapturePath{"model=8,fw=0x3000", 8, 0x3000, 1}));

// Types 5 and 6 always report firmware 0x1103, so a large frame with the
// 1103 tables cannot come from a descriptor; the sensor is put into that
// state by hand on a unit that serves 1800 x 1280 frames.
TEST_F(CaptureTest, LargeFrameOfModelSixUsesTheTableLookupAndShading)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=7,fw=0x3000");
    pSensor->m_nDeviceType = 6;
    pSensor->m_ImageProc.m_nDeviceType = 6;
    pSensor->m_fContrastFactor = 1.42f;
    const Geometry geo = GeometryFor(7, 0x3000);
    const unsigned long k = StateOf(0).nReads;

    Bytes image = Canvas();
    ASSERT_TRUE(pSensor->CaptureImage(image.data(), false));
    EXPECT_EQ(StateOf(0).nLastReadBytes, 2304000ul);

    Bytes expected = Canvas();
    Compose(CapturedPattern(6, geo, k), geo, 6, 0x3000, 1.42f, false, 5, &expected);
    EXPECT_EQ(CountDifferences(image, expected), 0u);
}

// The rolled-capture variant reads one bare frame inside the caller's
// acquisition (no start or stop request, no averaging) and finishes it the
// same way.
TEST_F(CaptureTest, CaptureForRollReadsOneFrameWithoutAcquisitionRequests)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=4");
    const Geometry geo = GeometryFor(4, 0x1004);
    const unsigned long k = StateOf(0).nReads;

    Bytes image = Canvas();
    ASSERT_TRUE(pSensor->CaptureImageForRoll(image.data(), true));
    EXPECT_EQ(StateOf(0).nReads - k, 1ul);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());

    Bytes expected = Canvas();
    Compose(capturetest::PatternFrame(geo, k), geo, 4, 0x1004, pSensor->m_fContrastFactor, true, 5, &expected);
    EXPECT_EQ(CountDifferences(image, expected), 0u);
}

// ---------------------------------------------------------------------------
// Grey levels after the correction.

// Models 5 and 6 add the shading table and scale the level above 90: a sum
// of 90 or less ends as 0, a level of 255 stays 255 at the open factor 1.55.
TEST_F(CaptureTest, ModelFiveShadingBoundaries)
{
    int nMaxShade = 0;
    int nArgMax = 0;
    for (int i = 0; i < IMG_PIXELS; ++i) {
        if (pModBuf[i] > nMaxShade) {
            nMaxShade = pModBuf[i];
            nArgMax = i;
        }
    }
    ASSERT_LE(nMaxShade, 90);

    // Every sum at most 90: black everywhere.
    {
        std::unique_ptr<COberin> pSensor = OpenSensor("model=5,levels=" + std::to_string(90 - nMaxShade));
        EXPECT_FLOAT_EQ(pSensor->m_fContrastFactor, 1.55f);
        Bytes image = Canvas();
        ASSERT_TRUE(pSensor->CaptureImage(image.data(), false));
        EXPECT_TRUE(AllEqual(image, 0, image.size(), 0));
    }
    // One level more: only the most shaded pixels reach 91, and 1 x 1.55
    // truncates to 1.
    {
        std::unique_ptr<COberin> pSensor = OpenSensor("model=5,levels=" + std::to_string(91 - nMaxShade));
        Bytes image = Canvas();
        ASSERT_TRUE(pSensor->CaptureImage(image.data(), false));
        EXPECT_EQ(image[nArgMax], 1);
        for (int i = 0; i < IMG_PIXELS; ++i) {
            ASSERT_EQ(image[i], pModBuf[i] == nMaxShade ? 1 : 0) << "pixel " << i;
        }
    }
    // Full level: (255 - 90) x 1.55 = 255.75 stays 255.
    {
        std::unique_ptr<COberin> pSensor = OpenSensor("model=5,levels=255");
        Bytes image = Canvas();
        ASSERT_TRUE(pSensor->CaptureImage(image.data(), false));
        EXPECT_TRUE(AllEqual(image, 0, image.size(), 255));
    }
}

// A mid level on model 6 follows the factor of the contrast setting and is
// limited to 255 where the product exceeds it.
TEST_F(CaptureTest, ModelSixScalesByTheContrastFactor)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=6,levels=150");
    ASSERT_EQ(pSensor->SetContrast(100), 0ul);  // (100 - 20) x 0.02 + 1.55 = 3.15
    const float fFactor = pSensor->m_fContrastFactor;
    ASSERT_FLOAT_EQ(fFactor, 3.15f);
    Bytes image = Canvas();
    ASSERT_TRUE(pSensor->CaptureImage(image.data(), false));
    for (int i = 0; i < IMG_PIXELS; ++i) {
        const int nSum = 150 + pModBuf[i];
        const int nScaled = static_cast<int>((nSum - 90) * static_cast<double>(fFactor));
        ASSERT_EQ(image[i], nScaled > 255 ? 255 : nScaled) << "pixel " << i;
    }
}

// The other models get no grey-level mapping in the capture: a flat frame
// comes out at its level (the interpolating corrections may lose one).
TEST_F(CaptureTest, OtherModelsKeepTheCorrectedLevels)
{
    const char* const apszUnits[] = {"model=4,levels=200", "model=7,fw=0x2FFF,levels=200",
                                     "model=8,fw=0x3000,levels=200"};
    for (const char* pszUnit : apszUnits) {
        SCOPED_TRACE(pszUnit);
        std::unique_ptr<COberin> pSensor = OpenSensor(pszUnit);
        ASSERT_GT(pSensor->m_fContrastFactor, 1.0f);  // scaling would push 200 to 255
        Bytes image = Canvas();
        ASSERT_TRUE(pSensor->CaptureImage(image.data(), false));
        for (int i = 0; i < IMG_PIXELS; ++i) {
            ASSERT_TRUE(image[i] == 200 || image[i] == 199) << "pixel " << i << ": " << int(image[i]);
        }
    }
}

// ---------------------------------------------------------------------------
// Scan mode, missing pieces and failed reads.

TEST_F(CaptureTest, AdaptiveScanModeReadsNothing)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=4");
    pSensor->WriteData(1, 1);
    Bytes image = Canvas();
    EXPECT_EQ(pSensor->GetImage(image.data()), 4ul);
    EXPECT_EQ(pSensor->GetError(), 4ul);
    EXPECT_EQ(StateOf(0).nReads, 0ul);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    EXPECT_TRUE(AllEqual(image, 0, image.size(), kUntouched));
    EXPECT_EQ(pSensor->GetImage_Adaptive(image.data()), 4ul);
}

TEST_F(CaptureTest, FailedFrameReadLeavesTheImageAndReports53)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=7,fw=0x3000");
    pSensor->WriteData(0, 0);  // capture only
    ASSERT_TRUE(tavk05virt::Inject(0, "fail=21"));
    Bytes image = Canvas();
    EXPECT_EQ(pSensor->GetImage(image.data()), 53ul);
    EXPECT_EQ(pSensor->GetError(), 53ul);
    EXPECT_TRUE(AllEqual(image, 0, image.size(), kUntouched));

    // A failed stop request fails the capture too, although the frame came.
    ASSERT_TRUE(tavk05virt::Inject(0, "clearfaults,fail=22"));
    EXPECT_FALSE(pSensor->CaptureImage(image.data(), true));
    EXPECT_TRUE(AllEqual(image, 0, image.size(), kUntouched));
}

TEST_F(CaptureTest, NullImageSucceedsWithoutARead)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=5");
    EXPECT_TRUE(pSensor->CaptureImage(nullptr, true));
    pSensor->m_nError = 53;
    EXPECT_EQ(pSensor->GetImage(nullptr), 0ul);
    EXPECT_EQ(pSensor->GetError(), 0ul);
    EXPECT_EQ(StateOf(0).nReads, 0ul);
}

TEST_F(CaptureTest, CaptureWithoutTransportOrOpenNode)
{
    AttachUnits("0:model=4");
    std::unique_ptr<COberin> pSensor(new COberin(nullptr));
    Bytes image = Canvas();
    // Before the open the transport exists but its node is closed.
    EXPECT_EQ(pSensor->GetImage(image.data()), 53ul);
    EXPECT_FALSE(pSensor->CaptureImage(image.data(), true));

    ASSERT_EQ(pSensor->OpenDevice(0, 0), 0ul);
    ASSERT_EQ(pSensor->CloseDevice(), 0ul);
    const unsigned long nReads = StateOf(0).nReads;
    EXPECT_EQ(pSensor->GetImage(image.data()), 2ul);  // the lock needs a transport
    EXPECT_EQ(pSensor->GetError(), 2ul);
    EXPECT_FALSE(pSensor->CaptureImage(image.data(), true));
    EXPECT_FALSE(pSensor->CaptureImage(nullptr, true));
    EXPECT_FALSE(pSensor->CaptureImageForRoll(image.data(), true));
    EXPECT_EQ(StateOf(0).nReads, nReads);
    EXPECT_TRUE(AllEqual(image, 0, image.size(), kUntouched));
}

// A sensor whose constructor could not allocate the frame buffers reports
// memory short and never asks the device for a frame.
TEST_F(CaptureTest, MissingFrameBuffersFailCleanly)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=7,fw=0x3000");
    delete[] pSensor->m_pRawBuf;
    delete[] pSensor->m_pRawCopyBuf;
    delete[] pSensor->m_pGreyBuf;
    pSensor->m_pRawBuf = nullptr;
    pSensor->m_pRawCopyBuf = nullptr;
    pSensor->m_pGreyBuf = nullptr;
    pSensor->m_pVxd->SetLatentCapable(true);

    Bytes image = Canvas();
    EXPECT_FALSE(pSensor->CaptureImage(image.data(), true));
    EXPECT_FALSE(pSensor->CaptureImageForRoll(image.data(), true));
    EXPECT_EQ(pSensor->GetImage(image.data()), 2ul);
    EXPECT_EQ(pSensor->GetError(), 2ul);
    EXPECT_EQ(StateOf(0).nReads, 0ul);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    EXPECT_TRUE(AllEqual(image, 0, image.size(), kUntouched));
}

// A frame size beyond the work buffers is refused before any request.
TEST_F(CaptureTest, FrameLargerThanTheBuffersIsRefused)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=7,fw=0x3000");
    pSensor->m_nFrameBytes = OBERIN_FRAME_BUFFER_BYTES + 1024;
    Bytes image = Canvas();
    EXPECT_FALSE(pSensor->CaptureImage(image.data(), true));
    EXPECT_EQ(pSensor->GetImage(image.data()), 2ul);
    // Check-only mode needs no frame buffer, but a latent frame whose size
    // cannot even be expressed is memory short.
    pSensor->WriteData(0, 2);
    pSensor->m_pVxd->SetLatentCapable(true);
    pSensor->m_nFrameBytes = ULONG_MAX - 100;
    EXPECT_EQ(pSensor->GetImage(image.data()), 2ul);
    EXPECT_EQ(StateOf(0).nReads, 0ul);
    EXPECT_TRUE(AllEqual(image, 0, image.size(), kUntouched));
}

// ---------------------------------------------------------------------------
// Latent pre-check. A flat latent frame has no spread in any row, which the
// detector takes for a latent print.

TEST_F(CaptureTest, LatentPrintRejectsTheCaptureWithAWhiteNominalImage)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=4,levels=120");
    pSensor->m_pVxd->SetLatentCapable(true);
    ASSERT_EQ(pSensor->SetImageSize(248, 292), 0ul);
    Bytes image = Canvas();
    EXPECT_EQ(pSensor->GetImage(image.data()), 57ul);
    EXPECT_EQ(pSensor->GetError(), 57ul);
    EXPECT_TRUE(AllEqual(image, 0, 72416, 255));
    EXPECT_TRUE(AllEqual(image, 72416, image.size(), kUntouched));
    // Exactly one latent read (one acquisition, one read), no capture.
    EXPECT_EQ(StateOf(0).nReads, 1ul);
    EXPECT_EQ(RequestsOf(0, VXD_REQ_START_ACQUISITION).size(), 1u);
    EXPECT_EQ(RequestsOf(0, VXD_REQ_STOP_ACQUISITION).size(), 1u);
    EXPECT_EQ(StateOf(0).nLastReadBytes, 926720ul);

    // Check-only mode rejects the same way; a null image is simply not filled.
    pSensor->WriteData(0, 2);
    EXPECT_EQ(pSensor->GetImage(nullptr), 57ul);
    EXPECT_EQ(StateOf(0).nReads, 2ul);
}

TEST_F(CaptureTest, FailedLatentReadReports53WithoutCapture)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=5");
    pSensor->m_pVxd->SetLatentCapable(true);
    ASSERT_TRUE(tavk05virt::Inject(0, "fail=21"));
    Bytes image = Canvas();
    EXPECT_EQ(pSensor->GetImage(image.data()), 53ul);
    EXPECT_EQ(StateOf(0).nReads, 0ul);

    // The stop request after the latent read fails: the read happened, the
    // pre-check still fails and no frame follows.
    ASSERT_TRUE(tavk05virt::Inject(0, "clearfaults,fail=22"));
    EXPECT_EQ(pSensor->GetImage(image.data()), 53ul);
    EXPECT_EQ(StateOf(0).nReads, 1ul);
    EXPECT_TRUE(AllEqual(image, 0, image.size(), kUntouched));
}

// The pre-check runs only when the unit is latent-capable and the check is
// on: on a flat unit, which any pre-check rejects, the capture then goes
// through with the frame read alone.
TEST_F(CaptureTest, LatentCheckNeedsCapableUnitAndCheckMode)
{
    for (const bool bCapable : {false, true}) {
        SCOPED_TRACE(bCapable ? "capable unit, capture only" : "unit not capable, check and capture");
        std::unique_ptr<COberin> pSensor = OpenSensor("model=5,levels=120");
        ASSERT_FALSE(pSensor->m_pVxd->m_bLatentCapable);  // cleared by the open
        if (bCapable) {
            pSensor->m_pVxd->SetLatentCapable(true);
            pSensor->WriteData(0, 0);
        }
        Bytes image = Canvas();
        EXPECT_EQ(pSensor->GetImage(image.data()), 0ul);
        EXPECT_EQ(StateOf(0).nReads, 1ul);
        EXPECT_EQ(RequestsOf(0, VXD_REQ_START_ACQUISITION).size(), 1u);
        EXPECT_NE(image[300 * 600 + 300], kUntouched);
    }
}

// Finger scenes: with latentcheck=1 the unit serves the latent exposure at
// the first read of each capture (the frame at the next one when it showed a
// live finger), with latentcheck=2 latent exposures only.

TEST_F(CaptureTest, LiveFingerPassesThePreCheckAndIsCaptured)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=7,fw=0x3000,scene=flat,latentcheck=1");
    pSensor->m_pVxd->SetLatentCapable(true);
    Bytes image = Canvas();
    EXPECT_EQ(pSensor->GetImage(image.data()), 0ul);
    EXPECT_EQ(StateOf(0).nReads, 2ul);  // the latent exposure, then the frame
    EXPECT_EQ(RequestsOf(0, VXD_REQ_START_ACQUISITION).size(), 2u);

    // The image is the finished frame that was served last.
    const Geometry geo = GeometryFor(7, 0x3000);
    const Bytes raw(pSensor->m_pRawBuf, pSensor->m_pRawBuf + geo.nFrameBytes);
    Bytes expected = Canvas();
    Compose(raw, geo, 7, 0x3000, pSensor->m_fContrastFactor, true, 5, &expected);
    EXPECT_EQ(CountDifferences(image, expected), 0u);
    int anSeen[256] = {};
    int nLevels = 0;
    for (unsigned char by : image) nLevels += anSeen[by]++ == 0;
    EXPECT_GT(nLevels, 32) << "a finger shows ridges, not a flat image";
}

TEST_F(CaptureTest, CheckOnlyWithALiveFingerLeavesTheImage)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=4,scene=flat,latentcheck=2");
    pSensor->m_pVxd->SetLatentCapable(true);
    pSensor->WriteData(0, 2);
    Bytes image = Canvas();
    EXPECT_EQ(pSensor->GetImage(image.data()), 0ul);
    EXPECT_EQ(pSensor->GetError(), 0ul);
    EXPECT_EQ(StateOf(0).nReads, 1ul);
    EXPECT_TRUE(AllEqual(image, 0, image.size(), kUntouched));
}

// Residue on the glass rejects the capture; once a finger lies there the
// next capture goes through.
TEST_F(CaptureTest, ResidueRejectsUntilAFingerLies)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=5,scene=flat,latent=1,latentcheck=1");
    pSensor->m_pVxd->SetLatentCapable(true);
    ASSERT_EQ(pSensor->SetImageSize(228, 292), 0ul);
    Bytes image = Canvas();
    EXPECT_EQ(pSensor->GetImage(image.data()), 57ul);
    EXPECT_TRUE(AllEqual(image, 0, 228 * 292, 255));
    EXPECT_TRUE(AllEqual(image, 228 * 292, image.size(), kUntouched));
    EXPECT_EQ(StateOf(0).nReads, 1ul);

    EXPECT_EQ(pSensor->GetImage(image.data()), 0ul);
    EXPECT_EQ(StateOf(0).nReads, 3ul);
    EXPECT_EQ(GetLTWaterM(image.data(), 228, 292), 1);
    EXPECT_EQ(GetRBWaterM(image.data(), 228, 292), 1);

    // Residue alone never passes.
    pSensor.reset();
    pSensor = OpenSensor("model=8,scene=latent,latentcheck=1");
    pSensor->m_pVxd->SetLatentCapable(true);
    EXPECT_EQ(pSensor->GetImage(image.data()), 57ul);
    EXPECT_EQ(pSensor->GetImage(image.data()), 57ul);
    EXPECT_EQ(StateOf(0).nReads, 2ul);
}

// CheckLatent hands the grey latent frame to the detector: rows that vary
// above flat rows 23 to 26 rows below them read as a live finger.
TEST_F(CaptureTest, CheckLatentBridgesToTheDetector)
{
    COberin sensor(nullptr);
    Bytes flat(1214 * 616, 128);
    EXPECT_EQ(sensor.CheckLatent(flat.data()), 1);

    Bytes live(1214 * 616, 128);
    const int anRidgeRows[] = {104, 154, 207};
    for (int nRow : anRidgeRows) {
        for (int c = 0; c < 1214; ++c) live[nRow * 1214 + c] = (c / 4) % 2 ? 40 : 220;
    }
    EXPECT_EQ(sensor.CheckLatent(live.data()), 0);
}

// ---------------------------------------------------------------------------
// DoModify.

TEST_F(CaptureTest, DoModifyInvertsWithCeiling254)
{
    COberin sensor(nullptr);
    sensor.m_fContrastFactor = 1.0f;
    ASSERT_EQ(sensor.SetPixelInvert(true), 0ul);
    Bytes src(IMG_PIXELS, 0);
    Bytes dst(IMG_PIXELS, 7);
    sensor.DoModify(src.data(), dst.data());
    EXPECT_TRUE(AllEqual(dst, 0, dst.size(), 254));

    std::fill(src.begin(), src.end(), 255);
    sensor.DoModify(src.data(), dst.data());
    EXPECT_TRUE(AllEqual(dst, 0, dst.size(), 0));

    // Without inversion 255 x 1.0 hits the ceiling.
    sensor.SetPixelInvert(false);
    sensor.DoModify(src.data(), dst.data());
    EXPECT_TRUE(AllEqual(dst, 0, dst.size(), 254));

    // Null pointers do nothing.
    sensor.DoModify(nullptr, dst.data());
    sensor.DoModify(src.data(), nullptr);
    EXPECT_TRUE(AllEqual(dst, 0, dst.size(), 254));
}

// Size code 1: each output row of 228 takes every 2.63rd source pixel of
// the same row, mirrored, scaled and marked as a 228 x 292 image; nothing
// behind the nominal image is written.
TEST_F(CaptureTest, DoModifyResamplesMirrorsAndScales)
{
    COberin sensor(nullptr);
    ASSERT_EQ(sensor.SetImageSize(228, 292), 0ul);
    sensor.SetPixelInvert(false);
    sensor.m_fContrastFactor = 1.5f;
    Bytes src(IMG_PIXELS);
    for (int y = 0; y < 600; ++y) {
        for (int x = 0; x < 600; ++x) src[y * 600 + x] = static_cast<unsigned char>((x * 7 + y * 3) % 251);
    }
    Bytes dst(IMG_PIXELS, 9);
    sensor.DoModify(src.data(), dst.data());

    const int W = 228;
    const int H = 292;
    const int nScale = 60000 / W;  // 263: source columns x 100 per output column
    ASSERT_EQ(nScale, 263);
    for (int y = 0; y < H; ++y) {
        for (int x = 0; x < W; ++x) {
            const int nOut = y * W + (W - 1 - x);
            const bool bCorner = (y == 0 || y == H - 1) && (x == 0 || x == W - 1);
            if (bCorner) continue;
            const int s = src[y * 600 + nScale * x / 100];
            const int v = s * 3 / 2;  // exact for a factor of 1.5
            ASSERT_EQ(dst[nOut], v > 254 ? 254 : v) << "row " << y << ", column " << x;
        }
    }
    EXPECT_EQ(GetLTWaterM(dst.data(), W, H), 1);
    EXPECT_EQ(GetRTWaterM(dst.data(), W, H), 1);
    EXPECT_EQ(GetLBWaterM(dst.data(), W, H), 1);
    EXPECT_EQ(GetRBWaterM(dst.data(), W, H), 1);
    EXPECT_TRUE(AllEqual(dst, W * H, dst.size(), 9));
}

}  // namespace
