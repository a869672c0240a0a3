// Single capture on the virtual scanner: the finished image of every model
// and firmware class pinned by a golden image of the committed print, the
// latent pre-check and the refusals around a capture, the limits of the
// shading, and DoModify.
#include <climits>
#include <ostream>

#include "golden_image.h"
#include "sensor_fixture.h"
#include "tavk05/mark.h"

namespace {

using goldentest::MatchesGolden;
using sensortest::Bytes;
using sensortest::kUntouched;
using sensortest::RequestsOf;
using sensortest::SensorTest;

struct CapturePath {
    const char* pszUnit;
    int nDeviceType;  // what the descriptor makes of the unit
    unsigned long nRawWidth, nRawHeight, nFrameBytes;
    unsigned nReads;            // reads of one capture (averaged models read four)
    const char* pszGolden;      // finished image of the print, size code 3 (one per correction)
    const char* pszRollGolden;  // the same through the rolled-capture variant; nullptr: not pinned
};

void PrintTo(const CapturePath& path, std::ostream* pOs) { *pOs << path.pszUnit; }

class CapturePathTest : public SensorTest, public ::testing::WithParamInterface<CapturePath> {};

// Each path asks for a frame of its model's size, copies only the mosaic and
// finishes the image (grey conversion, correction, shading, marks of the
// nominal size) exactly as it did when checked against the public steps.
TEST_P(CapturePathTest, FinishedImageOfThePrint)
{
    const CapturePath& path = GetParam();
    std::unique_ptr<COberin> pSensor =
        OpenSensor(std::string(path.pszUnit) + ",scene=flat,fps=0," + goldentest::PrintKey());
    ASSERT_EQ(pSensor->GetDeviceType(), static_cast<unsigned long>(path.nDeviceType));
    EXPECT_EQ(pSensor->m_nRawWidth, path.nRawWidth);
    EXPECT_EQ(pSensor->m_nRawHeight, path.nRawHeight);
    ASSERT_EQ(pSensor->m_nFrameBytes, path.nFrameBytes);
    ASSERT_EQ(pSensor->SetImageSize(248, 292), 0ul);
    std::memset(pSensor->m_pRawCopyBuf, 0xA5, OBERIN_FRAME_BUFFER_BYTES);
    const unsigned long nReads = State(0).nReads;

    Bytes image(IMG_PIXELS, kUntouched);
    pSensor->m_nError = 53;
    ASSERT_EQ(pSensor->GetImage(image.data()), 0ul);
    EXPECT_EQ(pSensor->GetError(), 0ul);
    EXPECT_EQ(State(0).nReads - nReads, path.nReads);
    EXPECT_EQ(State(0).nLastReadBytes, path.nFrameBytes);
    EXPECT_EQ(sensortest::RequestNumbers(),
              (std::vector<unsigned long>{VXD_REQ_START_ACQUISITION, VXD_REQ_STOP_ACQUISITION}));
    EXPECT_EQ(pSensor->m_pRawCopyBuf[path.nRawWidth * path.nRawHeight], 0xA5) << "copied behind the mosaic";
    EXPECT_TRUE(MatchesGolden(image, path.pszGolden));
    EXPECT_EQ(GetRBWaterM(image.data(), 248, 292), 1);

    // The rolled-capture variant reads one bare frame inside the caller's
    // acquisition: no requests, no averaging, marks of the full image; it
    // leaves the last status, and refuses a null image with 3.
    tavk05virt::ClearLog(0);
    image.assign(IMG_PIXELS, kUntouched);
    pSensor->m_nError = 53;
    EXPECT_EQ(pSensor->GetImageForRoll(nullptr, 0), 3ul);
    EXPECT_EQ(pSensor->GetImageForRoll(image.data(), 0), 0ul);
    EXPECT_EQ(pSensor->GetError(), 53ul);
    EXPECT_EQ(State(0).nReads - nReads, path.nReads + 1);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    if (path.pszRollGolden != nullptr) {
        EXPECT_TRUE(MatchesGolden(image, path.pszRollGolden));
    }
}

INSTANTIATE_TEST_SUITE_P(
    ModelsAndFirmware, CapturePathTest,
    ::testing::Values(
        CapturePath{"model=3", 3, 1280, 676, 926720, 4, "capture-tables", "roll-frame-tables"},
        CapturePath{"model=4", 4, 1280, 676, 926720, 4, "capture-tables", "roll-frame-tables"},
        CapturePath{"product=0x0630", 0, 1280, 676, 926720, 4, "capture-tables", "roll-frame-tables"},
        CapturePath{"model=5", 5, 1288, 876, 1128448, 1, "capture-tables-1103-shading", nullptr},
        CapturePath{"model=6", 6, 1288, 876, 1128448, 1, "capture-tables-1103-shading", nullptr},
        CapturePath{"model=7,fw=0x2FFF", 7, 1288, 876, 1128448, 1, "capture-calc", nullptr},
        CapturePath{"model=8,fw=0x1005", 8, 1288, 876, 1128448, 1, "capture-calc", nullptr},
        CapturePath{"model=7,fw=0x3000", 7, 1800, 1280, 2304000, 1, "capture-calc-ex", "roll-frame-calc-ex"},
        CapturePath{"model=8,fw=0xFFFF", 8, 1800, 1280, 2304000, 1, "capture-calc-ex", "roll-frame-calc-ex"}));

// What a capture reads and leaves in the host's buffer (size code 1) around
// the latent pre-check (on latent-capable units in check mode) and its refusals.
enum ImageLeft { kLeftAlone, kNominalWhite, kCaptured };

struct CaptureCase {
    const char* pszName;
    const char* pszUnit;
    bool bLatentCapable;
    unsigned long nCaptureOption;  // register 0: 0 capture, 1 check and capture, 2 check only
    unsigned long nScanMode;
    const char* pszFault;
    unsigned long nFrameBytes;  // 0: as the model has it
    bool bNullImage;
    unsigned long nStatus;
    unsigned long nReads;
    ImageLeft eImage;
};

TEST_F(SensorTest, CaptureAroundTheLatentCheck)
{
    const CaptureCase aCases[] = {
        {"latent print", "model=4,levels=120", true, 1, 0, "", 0, false, 57, 1, kNominalWhite},
        {"latent print, check only", "model=4,levels=120", true, 2, 0, "", 0, false, 57, 1, kNominalWhite},
        {"latent print, no image", "model=4,levels=120", true, 2, 0, "", 0, true, 57, 1, kLeftAlone},
        {"residue alone", "model=8,scene=latent,latentcheck=1", true, 1, 0, "", 0, false, 57, 1, kNominalWhite},
        {"unit not capable", "model=5,levels=120", false, 1, 0, "", 0, false, 0, 1, kCaptured},
        {"capture only", "model=5,levels=120", true, 0, 0, "", 0, false, 0, 1, kCaptured},
        {"live finger", "model=7,fw=0x3000,scene=flat,latentcheck=1", true, 1, 0, "", 0, false, 0, 2, kCaptured},
        {"live finger, check only", "model=4,scene=flat,latentcheck=2", true, 2, 0, "", 0, false, 0, 1, kLeftAlone},
        {"latent start fails", "model=5", true, 1, 0, "fail=21", 0, false, 53, 0, kLeftAlone},
        {"latent stop fails", "model=5", true, 1, 0, "fail=22", 0, false, 53, 1, kLeftAlone},
        {"frame stop fails", "model=5", false, 1, 0, "fail=22", 0, false, 53, 1, kLeftAlone},
        {"adaptive scan mode", "model=4", true, 1, 1, "", 0, false, 4, 0, kLeftAlone},
        {"no image", "model=5", false, 1, 0, "", 0, true, 0, 0, kLeftAlone},
        {"frame beyond the buffers", "model=7", false, 1, 0, "", OBERIN_FRAME_BUFFER_BYTES + 1024, false, 2, 0,
         kLeftAlone},
        {"latent frame beyond memory", "model=7", true, 2, 0, "", ULONG_MAX - 100, false, 2, 0, kLeftAlone},
    };
    for (const CaptureCase& c : aCases) {
        SCOPED_TRACE(c.pszName);
        std::unique_ptr<COberin> pSensor = OpenSensor(c.pszUnit);
        ASSERT_EQ(pSensor->SetImageSize(228, 292), 0ul);
        pSensor->m_pVxd->SetLatentCapable(c.bLatentCapable);
        pSensor->WriteData(0, c.nCaptureOption);
        pSensor->WriteData(1, c.nScanMode);
        if (*c.pszFault != '\0') Inject(0, c.pszFault);
        if (c.nFrameBytes != 0) pSensor->m_nFrameBytes = c.nFrameBytes;
        Bytes image(IMG_PIXELS, kUntouched);
        EXPECT_EQ(pSensor->GetImage(c.bNullImage ? nullptr : image.data()), c.nStatus);
        EXPECT_EQ(pSensor->GetError(), c.nStatus);
        EXPECT_EQ(State(0).nReads, c.nReads);
        size_t nStarted = 0;  // every acquisition started is stopped
        for (const tavk05virt::Request& req : RequestsOf(VXD_REQ_START_ACQUISITION)) nStarted += !req.bFailed;
        EXPECT_EQ(RequestsOf(VXD_REQ_STOP_ACQUISITION).size(), nStarted);
        const size_t nNominal = 228 * 292;
        const size_t nWhite = static_cast<size_t>(std::count(image.begin(), image.begin() + nNominal, 255));
        const size_t nUntouched = static_cast<size_t>(std::count(image.begin(), image.end(), kUntouched));
        if (c.eImage == kLeftAlone) {
            EXPECT_EQ(nUntouched, image.size());
        }
        if (c.eImage == kNominalWhite) {
            EXPECT_EQ(nWhite, nNominal);
            EXPECT_EQ(nUntouched, image.size() - nNominal);
        }
        if (c.eImage == kCaptured) {
            EXPECT_EQ(GetLTWaterM(image.data(), 228, 292), 1);
        }
    }
}

// Models 5 and 6 add the shading table and scale the level above 90 by the
// contrast factor, truncated and limited to 255: the saturation and the
// floor the flat finger of the digests does not reach.
TEST_F(SensorTest, ShadingAndScaleAtTheirLimits)
{
    const int nMaxShade = *std::max_element(pModBuf, pModBuf + IMG_PIXELS);
    const struct {
        std::string strUnit;
        unsigned long nContrast;
        int nLow, nHigh;  // the darkest and the lightest level of the image
    } aCases[] = {
        {"model=5,levels=" + std::to_string(91 - nMaxShade), 16, 0, 1},  // 1 x 1.55 truncates to 1
        {"model=5,levels=255", 16, 255, 255},                            // 165 x 1.55 = 255.75
        {"model=6,levels=120", 100, 94, 255},                            // 30 x 3.15 = 94.5
        {"model=6,levels=100", 0, 11, (10 + nMaxShade) * 115 / 100},     // 10 x 1.15 = 11.5
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(c.strUnit);
        std::unique_ptr<COberin> pSensor = OpenSensor(c.strUnit);
        ASSERT_EQ(pSensor->SetContrast(c.nContrast), 0ul);
        Bytes image(IMG_PIXELS, kUntouched);
        ASSERT_TRUE(pSensor->CaptureImage(image.data(), false));
        EXPECT_EQ(*std::min_element(image.begin(), image.end()), c.nLow);
        EXPECT_EQ(*std::max_element(image.begin(), image.end()), c.nHigh);
    }
}

// DoModify: the nominal image of size codes 1 and 3 resampled from the
// 600 x 600 image (every 60000 / width / 100th column of the same row),
// mirrored, inverted on request, scaled with the ceiling 254, and marked;
// nothing behind it is written.
TEST_F(SensorTest, DoModifyResamplesMirrorsScalesAndMarks)
{
    COberin sensor(nullptr);
    Bytes src(IMG_PIXELS);
    for (int i = 0; i < IMG_PIXELS; ++i) src[i] = static_cast<unsigned char>((i % 600 * 7 + i / 600 * 3) % 256);
    const struct {
        unsigned long nWidth, nHeight;
        bool bInvert;
    } aCases[] = {{228, 292, false}, {248, 292, true}, {600, 600, false}};
    for (const auto& c : aCases) {
        SCOPED_TRACE(c.nWidth);
        ASSERT_EQ(sensor.SetImageSize(c.nWidth, c.nHeight), 0ul);
        sensor.SetPixelInvert(c.bInvert);
        sensor.m_fContrastFactor = 1.5f;
        Bytes dst(IMG_PIXELS, 9);
        sensor.DoModify(src.data(), dst.data());
        const int w = static_cast<int>(c.nWidth);
        const int h = static_cast<int>(c.nHeight);
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                if ((y == 0 || y == h - 1) && (x == 0 || x == w - 1)) continue;  // marks
                const int s = src[y * 600 + 60000 / w * x / 100];
                const int v = std::min(254, (c.bInvert ? 255 - s : s) * 3 / 2);
                ASSERT_EQ(dst[y * w + w - 1 - x], v) << "row " << y << ", column " << x;
            }
        }
        EXPECT_EQ(GetLTWaterM(dst.data(), w, h), 1);
        EXPECT_EQ(GetRBWaterM(dst.data(), w, h), 1);
        EXPECT_EQ(std::count(dst.begin() + w * h, dst.end(), 9), IMG_PIXELS - w * h);
    }
    Bytes dst(IMG_PIXELS, 9);
    sensor.DoModify(nullptr, dst.data());
    sensor.DoModify(src.data(), nullptr);
    EXPECT_EQ(dst, Bytes(IMG_PIXELS, 9));
}

}  // namespace
