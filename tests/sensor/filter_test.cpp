// Image filters of the sensor: box mean and median against brute-force
// references, the background-subtracted contrast mapping in each of its
// modes, the brightness correction by finger state and the adaptive stubs.
#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <memory>
#include <random>

#include "sensor_fixture.h"

namespace {

using sensortest::RequestsOf;
using sensortest::SensorTest;

typedef std::vector<unsigned char> Image;

Image RandomImage(size_t nPixels, unsigned nSeed)
{
    std::mt19937 gen(nSeed);
    std::uniform_int_distribution<int> dist(0, 255);
    Image img(nPixels);
    for (unsigned char& by : img) by = static_cast<unsigned char>(dist(gen));
    return img;
}

// Box mean summed afresh for every pixel.
Image BruteBoxMean(const Image& src, int w, int h, int r)
{
    Image dst = src;
    for (int y = r; y <= h - r - 1; ++y) {
        for (int x = r; x <= w - r - 1; ++x) {
            long nSum = 0;
            for (int yy = y - r; yy <= y + r; ++yy)
                for (int xx = x - r; xx <= x + r; ++xx) nSum += src[yy * w + xx];
            dst[y * w + x] = static_cast<unsigned char>(nSum / ((2 * r + 1) * (2 * r + 1)));
        }
    }
    return dst;
}

// Median by partial selection, a different route from the filter's sort.
Image BruteMedian(const Image& src, int w, int h)
{
    Image dst = src;
    for (int y = 1; y + 1 < h; ++y) {
        for (int x = 1; x + 1 < w; ++x) {
            std::vector<unsigned char> v;
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) v.push_back(src[(y + dy) * w + x + dx]);
            std::nth_element(v.begin(), v.begin() + 4, v.end());
            dst[y * w + x] = v[4];
        }
    }
    return dst;
}

// Truncation toward zero and clamping of a grey product, worked in long
// double from the float factor.
int ClampedProduct(int nLevel, float fFactor)
{
    const long double x = static_cast<long double>(nLevel) * static_cast<long double>(fFactor);
    const long long n = static_cast<long long>(x);  // toward zero
    return static_cast<int>(std::min<long long>(255, std::max<long long>(0, n)));
}

class FilterTest : public SensorTest {
protected:
    void SetUp() override
    {
        SensorTest::SetUp();
        m_pSensor.reset(new COberin(nullptr));
    }

    void TearDown() override
    {
        m_pSensor.reset();
        SensorTest::TearDown();
    }

    // A contrast table that differs from the identity everywhere it can.
    void UseTable(int bTable)
    {
        CImageProc& proc = m_pSensor->m_ImageProc;
        proc.m_bContrastTable = bTable;
        for (int i = 0; i < 256; ++i) proc.m_ucContrastTable[i] = static_cast<unsigned char>((i * 7 + 13) % 256);
    }

    // Background and frame such that d = background - frame covers 0..255 and
    // frames brighter than their background occur too.
    void MakeScene(Image* pFrame)
    {
        unsigned char* pBg = m_pSensor->m_ImageProc.m_pBackground;
        pFrame->assign(360000, 0);
        for (int i = 0; i < 360000; ++i) {
            pBg[i] = static_cast<unsigned char>(255 - (i % 7));
            (*pFrame)[i] = static_cast<unsigned char>((i * 31 + i / 600) % 256);
        }
    }

    std::unique_ptr<COberin> m_pSensor;
};

TEST_F(FilterTest, SmoothImageMatchesBoxMeanSummedAfresh)
{
    const struct {
        int w, h;
    } aSizes[] = {{600, 600}, {37, 23}, {11, 40}, {64, 11}};
    unsigned nSeed = 1;
    for (const auto& size : aSizes) {
        for (int r = 1; r <= 5; ++r) {
            if (size.w < 2 * r + 1 || size.h < 2 * r + 1) continue;
            if (size.w == 600 && r > 2) continue;  // the brute force is slow at full size
            SCOPED_TRACE(testing::Message() << size.w << "x" << size.h << " r=" << r);
            const Image src = RandomImage(static_cast<size_t>(size.w) * size.h, nSeed++);
            Image img = src;
            m_pSensor->SmoothImage(size.w, size.h, img.data(), r);
            EXPECT_EQ(img, BruteBoxMean(src, size.w, size.h, r));
        }
    }
}

TEST_F(FilterTest, SmoothImageKeepsBorderAndTruncates)
{
    Image img(600 * 600, 0);
    img[300 * 600 + 300] = 255;
    img[0] = 255;  // a border pixel is not smoothed, nor does it spread
    m_pSensor->SmoothImage(600, 600, img.data(), 1);
    for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) EXPECT_EQ(img[(300 + dy) * 600 + 300 + dx], 28);  // 255 / 9
    EXPECT_EQ(img[0], 255);
    EXPECT_EQ(img[601], 28);  // reads the unsmoothed corner through the copy
    EXPECT_EQ(img[302 * 600 + 300], 0);

    // Images without an interior pixel, radius 0 and a null image change nothing.
    Image small = RandomImage(4 * 9, 7);
    const Image smallCopy = small;
    m_pSensor->SmoothImage(4, 9, small.data(), 2);
    m_pSensor->SmoothImage(4, 9, small.data(), 0);
    m_pSensor->SmoothImage(4, 9, small.data(), -1);
    m_pSensor->SmoothImage(4, 9, nullptr, 1);
    EXPECT_EQ(small, smallCopy);
}

TEST_F(FilterTest, MedianFilterTakesTheMiddleOfNineAndKeepsBorder)
{
    Image img(20 * 10, 0);
    img[5 * 20 + 7] = 255;    // a lone bright pixel vanishes
    img[0 * 20 + 3] = 200;    // on the border it stays
    m_pSensor->MedianFilter(img.data(), 20, 10);
    EXPECT_EQ(std::count(img.begin(), img.end(), 0), 20 * 10 - 1);
    EXPECT_EQ(img[3], 200);

    const struct {
        int w, h;
    } aSizes[] = {{600, 600}, {3, 3}, {17, 5}};
    unsigned nSeed = 40;
    for (const auto& size : aSizes) {
        SCOPED_TRACE(testing::Message() << size.w << "x" << size.h);
        const Image src = RandomImage(static_cast<size_t>(size.w) * size.h, nSeed++);
        Image out = src;
        m_pSensor->MedianFilter(out.data(), size.w, size.h);
        EXPECT_EQ(out, BruteMedian(src, size.w, size.h));
    }
}

TEST_F(FilterTest, ContrastMappingWithoutTableShowsThreeTimesTheDarkening)
{
    m_pSensor->m_nDeviceType = 3;
    UseTable(0);
    Image frame;
    MakeScene(&frame);
    const Image original = frame;
    Image out(360000, 77);
    m_pSensor->DoModifyContrast(frame.data(), out.data());
    unsigned char* pBg = m_pSensor->m_ImageProc.m_pBackground;
    for (int i = 0; i < 360000; ++i) {
        const int d = std::max(0, pBg[i] - original[i]);
        ASSERT_EQ(frame[i], d) << i;
        ASSERT_EQ(out[i], std::max(0, 255 - 3 * d)) << i;
    }

    // A frame equal to its background is white, and the frame becomes 0.
    std::fill(frame.begin(), frame.end(), 140);
    std::fill(pBg, pBg + 360000, 140);
    m_pSensor->DoModifyContrast(frame.data(), out.data());
    EXPECT_EQ(std::count(out.begin(), out.end(), 255), 360000);
    EXPECT_EQ(std::count(frame.begin(), frame.end(), 0), 360000);
}

TEST_F(FilterTest, ContrastMappingOfModelsSevenAndEightUsesFirmwareBase)
{
    // Background equal to the frame: base x factor.
    const struct {
        int nModel;
        const char* pszUnit;
        float fFactor;
        int nExpected;
    } aCases[] = {{8, "0:model=8,fw=0x3000", 1.42f, 255}, {7, "0:model=7,fw=0x2FFF", 2.0f, 250}};
    for (const auto& c : aCases) {
        SCOPED_TRACE(c.pszUnit);
        AttachUnits(c.pszUnit);
        ASSERT_EQ(m_pSensor->OpenDevice(0, 0), 0ul);
        ASSERT_EQ(m_pSensor->m_nDeviceType, c.nModel);
        UseTable(1);
        m_pSensor->m_fContrastFactor = c.fFactor;
        Image frame(360000, 90);
        std::fill(m_pSensor->m_ImageProc.m_pBackground, m_pSensor->m_ImageProc.m_pBackground + 360000, 90);
        Image out(360000, 1);
        m_pSensor->DoModifyContrast(frame.data(), out.data());
        EXPECT_EQ(std::count(out.begin(), out.end(), c.nExpected), 360000);
        m_pSensor->CloseDevice();
    }

    // Every darkening: v = base - d, scaled, truncated and clamped; older
    // firmware (and no transport at all) takes base 125.
    const int aFirmware[] = {0x3000, 0x2FFF};
    for (int nFirmware : aFirmware) {
        SCOPED_TRACE(nFirmware);
        AttachUnits(nFirmware == 0x3000 ? "0:model=8,fw=0x3000" : "0:model=8,fw=0x2FFF");
        ASSERT_EQ(m_pSensor->OpenDevice(0, 0), 0ul);
        UseTable(1);
        m_pSensor->m_fContrastFactor = 1.37f;
        Image frame;
        MakeScene(&frame);
        const Image original = frame;
        Image out(360000, 1);
        m_pSensor->DoModifyContrast(frame.data(), out.data());
        const int nBase = nFirmware > 0x2FFF ? 180 : 125;
        const unsigned char* pBg = m_pSensor->m_ImageProc.m_pBackground;
        for (int i = 0; i < 360000; ++i) {
            const int d = std::max(0, pBg[i] - original[i]);
            ASSERT_EQ(frame[i], d) << i;
            ASSERT_EQ(out[i], ClampedProduct(nBase - d, 1.37f)) << i;
        }
        m_pSensor->CloseDevice();
    }
    ASSERT_EQ(m_pSensor->m_pVxd, nullptr);
    Image frame(360000, 10);
    std::fill(m_pSensor->m_ImageProc.m_pBackground, m_pSensor->m_ImageProc.m_pBackground + 360000, 10);
    Image out(360000, 1);
    m_pSensor->DoModifyContrast(frame.data(), out.data());
    EXPECT_EQ(out[12345], ClampedProduct(125, 1.37f));
}

TEST_F(FilterTest, ContrastMappingWithTableAddsJitterFromGeneratorSeededWithTime)
{
    m_pSensor->m_nDeviceType = 4;
    UseTable(1);
    m_pSensor->m_fContrastFactor = 1.3f;
    Image frame;
    MakeScene(&frame);
    const Image original = frame;
    Image out(360000, 0);
    // The generator is seeded with the current second; retry when the call
    // straddles a second boundary.
    time_t tBefore = 0;
    time_t tAfter = 1;
    for (int nTry = 0; nTry < 5 && tBefore != tAfter; ++nTry) {
        frame = original;
        tBefore = std::time(nullptr);
        m_pSensor->DoModifyContrast(frame.data(), out.data());
        tAfter = std::time(nullptr);
    }
    ASSERT_EQ(tBefore, tAfter);
    // The process-wide generator is left as reseeded: the jitter is drawn
    // from a copy of its state.
    const long nNextAfterCall = ::random();
    ::srandom(static_cast<unsigned int>(tBefore));
    EXPECT_EQ(::random(), nNextAfterCall);

    ::srandom(static_cast<unsigned int>(tBefore));
    const unsigned char* pBg = m_pSensor->m_ImageProc.m_pBackground;
    const unsigned char* pTab = m_pSensor->m_ImageProc.m_ucContrastTable;
    int nJitterSeen[9] = {0};
    for (int i = 0; i < 360000; ++i) {
        const int d = std::max(0, pBg[i] - original[i]);
        const int t = std::max(0, 255 - 3 * d);
        const int nJitter = static_cast<int>(::random() % 9) - 4;
        ++nJitterSeen[nJitter + 4];
        ASSERT_EQ(frame[i], d) << i;
        ASSERT_EQ(out[i], ClampedProduct(pTab[t] + nJitter, 1.3f)) << i;
    }
    for (int n : nJitterSeen) EXPECT_GT(n, 30000);  // all nine offsets occur
}

TEST_F(FilterTest, ContrastMappingCopiesModelsFiveAndSixAndSkipsUnknownTableState)
{
    for (int nModel = 5; nModel <= 6; ++nModel) {
        m_pSensor->m_nDeviceType = nModel;
        UseTable(nModel == 5 ? 1 : 0);
        Image frame;
        MakeScene(&frame);
        const Image original = frame;
        Image out(360000, 3);
        m_pSensor->DoModifyContrast(frame.data(), out.data());
        EXPECT_EQ(out, original);
        EXPECT_EQ(frame, original);
    }

    // A table flag other than 0 and 1: the output is not written, the frame
    // still receives the darkening.
    m_pSensor->m_nDeviceType = 3;
    UseTable(2);
    Image frame;
    MakeScene(&frame);
    const Image original = frame;
    Image out(360000, 3);
    m_pSensor->DoModifyContrast(frame.data(), out.data());
    EXPECT_EQ(std::count(out.begin(), out.end(), 3), 360000);
    const unsigned char* pBg = m_pSensor->m_ImageProc.m_pBackground;
    for (int i = 0; i < 360000; i += 997) EXPECT_EQ(frame[i], std::max(0, pBg[i] - original[i]));
}

TEST_F(FilterTest, FingerStateSetsBrightnessForDarkAndPalePrints)
{
    AttachUnits("0:model=4");
    ASSERT_EQ(m_pSensor->OpenDevice(0, 0), 0ul);
    m_pSensor->m_nBrightness = 45;
    tavk05virt::ClearLog(0);

    // Columns alternating 14 and 134: block deviation 60 and mean 74, the
    // normal reference point.
    Image normal(360000);
    for (int i = 0; i < 360000; ++i) normal[i] = (i % 600) % 2 == 0 ? 14 : 134;
    const struct {
        const char* pszName;
        Image img;
        bool bNormal;
        bool bChanged;
        unsigned long nBrightness;
    } aCases[] = {
        {"normal", normal, true, false, 45},
        {"white (pale)", Image(360000, 255), false, true, 30},
        {"black (dark)", Image(360000, 0), false, true, 60},
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(c.pszName);
        m_pSensor->m_nBrightness = 45;
        tavk05virt::ClearLog(0);
        Image img = c.img;
        bool bChanged = !c.bChanged;
        EXPECT_EQ(m_pSensor->IsNormalFingerprint(600, 600, img.data(), 19, 0, &bChanged), c.bNormal);
        EXPECT_EQ(bChanged, c.bChanged);
        EXPECT_EQ(m_pSensor->m_nBrightness, c.nBrightness);
        const std::vector<tavk05virt::Request> vecOptions = RequestsOf(0, VXD_REQ_SET_SENSOR_OPTION);
        if (c.bChanged) {
            ASSERT_EQ(vecOptions.size(), 1u);
            EXPECT_EQ(vecOptions[0].vecBlock[2], c.nBrightness);
        } else {
            EXPECT_TRUE(vecOptions.empty());
        }
    }

    // From the 20th try on the state is not looked at.
    Image dark(360000, 0);
    m_pSensor->m_nBrightness = 45;
    tavk05virt::ClearLog(0);
    bool bChanged = true;
    EXPECT_FALSE(m_pSensor->IsNormalFingerprint(600, 600, dark.data(), 20, 0, &bChanged));
    EXPECT_FALSE(bChanged);
    EXPECT_EQ(m_pSensor->m_nBrightness, 45ul);
    EXPECT_TRUE(tavk05virt::RequestLog(0).empty());

    // An estimate that cannot be made (no image) is not normal and changes nothing.
    bChanged = true;
    EXPECT_FALSE(m_pSensor->IsNormalFingerprint(600, 600, nullptr, 0, 0, &bChanged));
    EXPECT_FALSE(bChanged);
    EXPECT_EQ(m_pSensor->m_nBrightness, 45ul);
}

unsigned long CountingCallback(void* pContext, void* pInfo)
{
    int* pnCalls = static_cast<int*>(pContext);
    ++pnCalls[0];
    const ISensor::tagCallbackInfo* pRecord = static_cast<const ISensor::tagCallbackInfo*>(pInfo);
    pnCalls[2] = static_cast<int>(pRecord->nQuality + pRecord->nStatus);
    return static_cast<unsigned long>(pnCalls[1]);
}

TEST_F(FilterTest, AdaptiveModeIsRefusedWithFour)
{
    // No callback: one attempt, refused.
    m_pSensor->m_nError = 0;
    Image img(360000, 9);
    EXPECT_EQ(m_pSensor->GetImageEnhanced(img.data(), 1, 2, true, false), 2);
    EXPECT_EQ(m_pSensor->GetError(), 4ul);

    // The callback is asked once per attempt with a zeroed record; a
    // nonzero answer stops before the attempt.
    int anCalls[3] = {0, 0, -1};
    m_pSensor->m_CallbackInfo.nQuality = 80;
    m_pSensor->m_CallbackInfo.nStatus = 53;
    m_pSensor->SetCallBackFunction(1, CountingCallback, anCalls);
    EXPECT_EQ(m_pSensor->GetImageEnhanced(img.data(), 1, 2, false, false), 2);
    EXPECT_EQ(anCalls[0], 1);
    EXPECT_EQ(anCalls[2], 0);
    anCalls[1] = 5;
    m_pSensor->m_nError = 0;
    EXPECT_EQ(m_pSensor->GetImageEnhanced(img.data(), 1, 2, false, false), 1);
    EXPECT_EQ(anCalls[0], 2);
    EXPECT_EQ(m_pSensor->GetError(), 0ul);

    bool bMore = true;
    EXPECT_EQ(m_pSensor->GetAdaptiveImage(img.data(), 1, 2, 20, &bMore, true, true, true), 4ul);
    EXPECT_TRUE(bMore);
    EXPECT_EQ(m_pSensor->GetLiveImageEx2_Adaptive(img.data(), 100, 1, nullptr, 20), 4ul);
    EXPECT_EQ(std::count(img.begin(), img.end(), 9), 360000);
}

}  // namespace
