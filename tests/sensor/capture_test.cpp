// Single capture on the virtual scanner: the finished image of every model
// and firmware class pinned by its digest, the latent pre-check and the
// refusals around a capture, the limits of the shading, and DoModify.
#include <climits>
#include <ostream>

#include "sensor_fixture.h"
#include "tavk05/mark.h"

namespace {

using sensortest::Bytes;
using sensortest::Digest;
using sensortest::kUntouched;
using sensortest::RequestsOf;
using sensortest::SensorTest;

struct CapturePath {
    const char* pszUnit;
    int nDeviceType;                 // what the descriptor makes of the unit
    unsigned long nRawWidth, nRawHeight, nFrameBytes;
    unsigned nReads;                 // reads of one capture (averaged models read four)
    unsigned long long nDigest;      // finished image of the flat finger, size code 3
    unsigned long long nRollDigest;  // the same through the rolled-capture variant
};

void PrintTo(const CapturePath& path, std::ostream* pOs) { *pOs << path.pszUnit; }

class CapturePathTest : public SensorTest, public ::testing::WithParamInterface<CapturePath> {};

// Each path asks for a frame of its model's size, copies only the mosaic and
// finishes the image (grey conversion, correction, shading, marks of the
// nominal size) exactly as it did when checked against the public steps.
TEST_P(CapturePathTest, FinishedImageOfTheFlatFinger)
{
    const CapturePath& path = GetParam();
    std::unique_ptr<COberin> pSensor = OpenSensor(std::string(path.pszUnit) + ",scene=flat,fps=0");
    ASSERT_EQ(pSensor->GetDeviceType(), static_cast<unsigned long>(path.nDeviceType));
    EXPECT_EQ(pSensor->m_nRawWidth * 10000 + pSensor->m_nRawHeight, path.nRawWidth * 10000 + path.nRawHeight);
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
    EXPECT_EQ(sensortest::RequestNumbers(), (std::vector<unsigned long>{VXD_REQ_START_ACQUISITION,
                                                                          VXD_REQ_STOP_ACQUISITION}));
    EXPECT_EQ(pSensor->m_pRawCopyBuf[path.nRawWidth * path.nRawHeight], 0xA5) << "copied behind the mosaic";
    EXPECT_EQ(Digest(image), path.nDigest);
    EXPECT_EQ(GetRBWaterM(image.data(), 248, 292), 1);

    // The rolled-capture variant reads one bare frame inside the caller's
    // acquisition: no requests, no averaging, marks of the full image; it
    // leaves the last status, and refuses a null image with 3.
    tavk05virt::ClearLog(0);
    image.assign(IMG_PIXELS, kUntouched);
    pSensor->m_nError = 53;
    EXPECT_EQ(pSensor->GetImageForRoll(nullptr, 0) * 10 + pSensor->GetImageForRoll(image.data(), 0), 30ul);
    EXPECT_EQ(pSensor->GetError(), 53ul);
    EXPECT_EQ(State(0).nReads - nReads, path.nReads + 1);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());
    EXPECT_EQ(Digest(image), path.nRollDigest);
}

INSTANTIATE_TEST_SUITE_P(
    ModelsAndFirmware, CapturePathTest,
    ::testing::Values(
        CapturePath{"model=3", 3, 1280, 676, 926720, 4, 0xca37e62cf1e39b2eull, 0x180a76f92e5ca1dbull},
        CapturePath{"model=4", 4, 1280, 676, 926720, 4, 0xca37e62cf1e39b2eull, 0x180a76f92e5ca1dbull},
        CapturePath{"product=0x0630", 0, 1280, 676, 926720, 4, 0xca37e62cf1e39b2eull, 0x180a76f92e5ca1dbull},
        CapturePath{"model=5", 5, 1288, 876, 1128448, 1, 0x2d38c7f95af3d78cull, 0x7d2efc0f0d1c1f2aull},
        CapturePath{"model=6", 6, 1288, 876, 1128448, 1, 0x2d38c7f95af3d78cull, 0x7d2efc0f0d1c1f2aull},
        CapturePath{"model=7,fw=0x2FFF", 7, 1288, 876, 1128448, 1, 0x119e7c79b3e284faull, 0xe54fa83cd55fe3bbull},
        CapturePath{"model=8,fw=0x1005", 8, 1288, 876, 1128448, 1, 0x119e7c79b3e284faull, 0xe54fa83cd55fe3bbull},
        CapturePath{"model=7,fw=0x3000", 7, 1800, 1280, 2304000, 1, 0xb8ea714179ce59b7ull, 0xa67de3238609213eull},
        CapturePath{"model=8,fw=0xFFFF", 8, 1800, 1280, 2304000, 1, 0xb8ea714179ce59b7ull, 0xa67de3238609213eull}));

// What a capture reads and leaves in the host's buffer (size code 1) around
// the latent pre-check (on latent-capable units in check mode) and its refusals.
struct CaptureCase {
    const char* pszName;
    const char* pszUnit;
    bool bLatentCapable;
    unsigned long nCaptureOption;  // register 0: 0 capture, 1 check and capture, 2 check only
    unsigned long nScanMode;
    const char* pszFault;
    unsigned long nFrameBytes;     // 0: as the model has it
    bool bNullImage;
    unsigned long nStatus;
    unsigned long nReads;
    char cImage;                   // 'u' untouched, 'w' nominal image white, 'c' captured
};

TEST_F(SensorTest, CaptureAroundTheLatentCheck)
{
    const CaptureCase aCases[] = {
        {"latent print", "model=4,levels=120", true, 1, 0, "", 0, false, 57, 1, 'w'},
        {"latent print, check only", "model=4,levels=120", true, 2, 0, "", 0, false, 57, 1, 'w'},
        {"latent print, no image", "model=4,levels=120", true, 2, 0, "", 0, true, 57, 1, 'u'},
        {"residue alone", "model=8,scene=latent,latentcheck=1", true, 1, 0, "", 0, false, 57, 1, 'w'},
        {"unit not capable", "model=5,levels=120", false, 1, 0, "", 0, false, 0, 1, 'c'},
        {"capture only", "model=5,levels=120", true, 0, 0, "", 0, false, 0, 1, 'c'},
        {"live finger", "model=7,fw=0x3000,scene=flat,latentcheck=1", true, 1, 0, "", 0, false, 0, 2, 'c'},
        {"live finger, check only", "model=4,scene=flat,latentcheck=2", true, 2, 0, "", 0, false, 0, 1, 'u'},
        {"latent start fails", "model=5", true, 1, 0, "fail=21", 0, false, 53, 0, 'u'},
        {"latent stop fails", "model=5", true, 1, 0, "fail=22", 0, false, 53, 1, 'u'},
        {"frame stop fails", "model=5", false, 1, 0, "fail=22", 0, false, 53, 1, 'u'},
        {"adaptive scan mode", "model=4", true, 1, 1, "", 0, false, 4, 0, 'u'},
        {"no image", "model=5", false, 1, 0, "", 0, true, 0, 0, 'u'},
        {"frame beyond the buffers", "model=7", false, 1, 0, "", OBERIN_FRAME_BUFFER_BYTES + 1024, false, 2, 0, 'u'},
        {"latent frame beyond memory", "model=7", true, 2, 0, "", ULONG_MAX - 100, false, 2, 0, 'u'},
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
        if (c.cImage == 'u') { EXPECT_EQ(nUntouched, image.size()); }
        if (c.cImage == 'w') { EXPECT_TRUE(nWhite == nNominal && nWhite + nUntouched == image.size()) << nWhite; }
        if (c.cImage == 'c') { EXPECT_EQ(GetLTWaterM(image.data(), 228, 292), 1); }
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
        int nLow, nHigh;  // every level of the image lies in [nLow, nHigh]
    } aCases[] = {
        {"model=5,levels=" + std::to_string(91 - nMaxShade), 16, 0, 1},  // 1 x 1.55 truncates to 1
        {"model=5,levels=255", 16, 255, 255},                           // 165 x 1.55 = 255.75
        {"model=6,levels=120", 100, 94, 255},                           // 30 x 3.15 = 94.5
        {"model=6,levels=100", 0, 11, (10 + nMaxShade) * 115 / 100},    // 10 x 1.15 = 11.5
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(c.strUnit);
        std::unique_ptr<COberin> pSensor = OpenSensor(c.strUnit);
        ASSERT_EQ(pSensor->SetContrast(c.nContrast), 0ul);
        Bytes image(IMG_PIXELS, kUntouched);
        ASSERT_TRUE(pSensor->CaptureImage(image.data(), false));
        EXPECT_EQ(*std::min_element(image.begin(), image.end()) * 1000 + *std::max_element(image.begin(), image.end()),
                  c.nLow * 1000 + c.nHigh);
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
        EXPECT_EQ(GetLTWaterM(dst.data(), w, h) + GetRBWaterM(dst.data(), w, h), 2);
        EXPECT_EQ(std::count(dst.begin() + w * h, dst.end(), 9), IMG_PIXELS - w * h);
    }
    Bytes dst(IMG_PIXELS, 9);
    sensor.DoModify(nullptr, dst.data());
    sensor.DoModify(src.data(), nullptr);
    EXPECT_EQ(dst, Bytes(IMG_PIXELS, 9));
}

}  // namespace
