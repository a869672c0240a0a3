// The sensor's filters and contrast mapping against reference models, the
// brightness correction by finger state, and the refused adaptive scan mode.
#include <stdlib.h>

#include <algorithm>
#include <ctime>
#include <random>

#include "sensor_fixture.h"

namespace {

using sensortest::Bytes;
using sensortest::RequestsOf;
using sensortest::SensorTest;

Bytes RandomImage(size_t nPixels, unsigned nSeed)
{
    std::mt19937 gen(nSeed);
    Bytes img(nPixels);
    for (unsigned char& by : img) by = static_cast<unsigned char>(gen() % 256);
    return img;
}

// Box mean of radius r summed afresh (bMedian: the median of the 3 x 3
// neighbourhood by partial selection); the border of width r stays.
Bytes BruteFilter(const Bytes& src, int w, int h, int r, bool bMedian)
{
    Bytes dst = src;
    for (int y = r; y < h - r; ++y) {
        for (int x = r; x < w - r; ++x) {
            std::vector<int> vec;
            for (int yy = y - r; yy <= y + r; ++yy)
                for (int xx = x - r; xx <= x + r; ++xx) vec.push_back(src[yy * w + xx]);
            std::nth_element(vec.begin(), vec.begin() + vec.size() / 2, vec.end());
            long nSum = 0;
            for (int n : vec) nSum += n;
            dst[y * w + x] =
                static_cast<unsigned char>(bMedian ? vec[vec.size() / 2] : nSum / static_cast<long>(vec.size()));
        }
    }
    return dst;
}

TEST_F(SensorTest, SmoothAndMedianMatchBruteForce)
{
    COberin sensor(nullptr);
    unsigned nSeed = 1;
    for (int w : {3, 11, 37, 600}) {
        for (int h : {3, 23, 600}) {
            if ((w == 600) != (h == 600)) continue;
            for (int r = 0; r <= 5; ++r) {
                SCOPED_TRACE(testing::Message() << w << " x " << h << " r=" << r);
                if (w == 600 && r > 2) continue;  // the brute force is slow at full size
                const Bytes src = RandomImage(static_cast<size_t>(w) * h, nSeed++);
                Bytes img = src;
                sensor.SmoothImage(w, h, img.data(), r);
                // Radius 0 and images without an interior pixel stay as they are.
                EXPECT_EQ(img, r == 0 || w < 2 * r + 1 || h < 2 * r + 1 ? src : BruteFilter(src, w, h, r, false));
                if (r != 1) continue;
                img = src;
                sensor.MedianFilter(img.data(), static_cast<unsigned long>(w), static_cast<unsigned long>(h));
                EXPECT_EQ(img, BruteFilter(src, w, h, 1, true));
            }
        }
    }
    Bytes small = RandomImage(36, 7);
    sensor.SmoothImage(4, 9, small.data(), -1);
    sensor.SmoothImage(4, 9, nullptr, 1);
    EXPECT_EQ(small, RandomImage(36, 7));
}

// The truncated and limited product of a level and the float factor.
int ClampedProduct(int nLevel, float fFactor)
{
    const long long n = static_cast<long long>(static_cast<long double>(nLevel) * static_cast<long double>(fFactor));
    return static_cast<int>(std::min<long long>(255, std::max<long long>(0, n)));
}

// The frame becomes its darkening d = background - frame (at least 0); the
// output is by mode: 255 - 3d (no table), the table at that level plus a
// jitter from random() seeded with the time (table), base - d for models 7
// and 8 (base 180 from firmware 0x3000, else 125), scaled by the factor; a
// copy of the frame for models 5 and 6; nothing for a table flag of 2.
enum Mapping { kPlain, kTable, kBase, kCopy, kNothing };

TEST_F(SensorTest, ContrastMappingByMode)
{
    const struct {
        const char* pszUnit;  // "": never opened, no transport
        int nType, bTable;
        Mapping eMode;
        int nBase;
    } aCases[] = {
        {"", 3, 0, kPlain, 0},
        {"", 4, 1, kTable, 0},
        {"", 5, 1, kCopy, 0},
        {"", 6, 0, kCopy, 0},
        {"", 3, 2, kNothing, 0},
        {"model=8,fw=0x3000", 8, 1, kBase, 180},
        {"model=7,fw=0x2FFF", 7, 1, kBase, 125},
        {"", 8, 1, kBase, 125},
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(testing::Message() << c.pszUnit << " type " << c.nType << " table " << c.bTable);
        std::unique_ptr<COberin> pSensor(*c.pszUnit ? OpenSensor(c.pszUnit)
                                                    : std::unique_ptr<COberin>(new COberin(nullptr)));
        pSensor->m_nDeviceType = c.nType;
        CImageProc& proc = pSensor->m_ImageProc;
        proc.m_bContrastTable = c.bTable;
        for (int i = 0; i < 256; ++i) proc.m_ucContrastTable[i] = static_cast<unsigned char>((i * 7 + 13) % 256);
        pSensor->m_fContrastFactor = 1.37f;
        Bytes frame(IMG_PIXELS);
        for (int i = 0; i < IMG_PIXELS; ++i) {
            proc.m_pBackground[i] = static_cast<unsigned char>(255 - i % 7);
            frame[i] = static_cast<unsigned char>((i * 31 + i / 600) % 256);
        }
        const Bytes original = frame;
        Bytes out(IMG_PIXELS, 3);
        time_t tBefore = 0;
        for (int nTry = 0; nTry < 5; ++nTry) {  // retry a call that straddles a second
            frame = original;
            tBefore = std::time(nullptr);
            pSensor->DoModifyContrast(frame.data(), out.data());
            if (std::time(nullptr) == tBefore) break;
        }
        // The jitter is drawn from a copy of the generator's state: the
        // process-wide generator is left as the mapping reseeded it.
        const long nNextAfterCall = ::random();
        ::srandom(static_cast<unsigned int>(tBefore));
        if (c.eMode == kTable) {
            EXPECT_EQ(::random(), nNextAfterCall);
            ::srandom(static_cast<unsigned int>(tBefore));
        }
        int anJitter[9] = {};
        for (int i = 0; i < IMG_PIXELS; ++i) {
            const int d = std::max(0, proc.m_pBackground[i] - original[i]);
            ASSERT_EQ(frame[i], c.eMode == kCopy ? original[i] : d) << i;
            int nExpected = 3;
            if (c.eMode == kPlain) nExpected = std::max(0, 255 - 3 * d);
            if (c.eMode == kCopy) nExpected = original[i];
            if (c.eMode == kBase) nExpected = ClampedProduct(c.nBase - d, 1.37f);
            if (c.eMode == kTable) {
                const int nJitter = static_cast<int>(::random() % 9) - 4;
                ++anJitter[nJitter + 4];
                nExpected = ClampedProduct(proc.m_ucContrastTable[std::max(0, 255 - 3 * d)] + nJitter, 1.37f);
            }
            ASSERT_EQ(out[i], nExpected) << i;
        }
        if (c.eMode != kTable) continue;
        for (int n : anJitter) EXPECT_GT(n, 30000);  // all nine offsets occur
    }
}

// A normal print changes nothing; a pale one sets brightness 30, a dark one
// 60, sent to the unit; from the 20th try, or without an image, nothing.
TEST_F(SensorTest, FingerStateSetsBrightness)
{
    std::unique_ptr<COberin> pSensor = OpenSensor("model=4");
    Bytes normal(IMG_PIXELS);
    for (int i = 0; i < IMG_PIXELS; ++i) normal[i] = (i % 600) % 2 == 0 ? 14 : 134;  // deviation 60, mean 74
    const struct {
        const char* pszName;
        Bytes img;
        int nCount;
        bool bNormal, bChanged;
        unsigned long nBrightness;
    } aCases[] = {
        {"normal", normal, 19, true, false, 45},
        {"pale", Bytes(IMG_PIXELS, 255), 19, false, true, 30},
        {"dark", Bytes(IMG_PIXELS, 0), 19, false, true, 60},
        {"dark, 20th try", Bytes(IMG_PIXELS, 0), 20, false, false, 45},
        {"no image", Bytes(), 0, false, false, 45},
    };
    for (const auto& c : aCases) {
        SCOPED_TRACE(c.pszName);
        pSensor->m_nBrightness = 45;
        tavk05virt::ClearLog(0);
        Bytes img = c.img;
        bool bChanged = !c.bChanged;
        EXPECT_EQ(pSensor->IsNormalFingerprint(600, 600, img.empty() ? nullptr : img.data(), c.nCount, 0, &bChanged),
                  c.bNormal);
        EXPECT_EQ(bChanged, c.bChanged);
        EXPECT_EQ(pSensor->m_nBrightness, c.nBrightness);
        const std::vector<tavk05virt::Request> vec = RequestsOf(VXD_REQ_SET_SENSOR_OPTION);
        EXPECT_EQ(vec.size(), c.bChanged ? 1u : 0u);
        if (!vec.empty()) {
            EXPECT_EQ(vec[0].vecBlock[2], c.nBrightness);
        }
    }
}

unsigned long CountingCallback(void* pContext, void* pInfo)
{
    int* pn = static_cast<int*>(pContext);
    const ISensor::tagCallbackInfo* pRecord = static_cast<const ISensor::tagCallbackInfo*>(pInfo);
    ++pn[0];
    pn[2] = static_cast<int>(pRecord->nQuality);
    pn[3] = static_cast<int>(pRecord->nStatus);
    return static_cast<unsigned long>(pn[1]);
}

// The adaptive scan mode is 4: one attempt, the callback asked once per
// attempt with a zeroed record; a nonzero answer stops before the attempt.
TEST_F(SensorTest, AdaptiveModeIsRefused)
{
    COberin sensor(nullptr);
    Bytes img(IMG_PIXELS, 9);
    EXPECT_EQ(sensor.GetImageEnhanced(img.data(), 1, 2, true, false), 2);
    EXPECT_EQ(sensor.GetError(), 4ul);
    int anCalls[4] = {0, 0, -1, -1};  // calls, reply, quality and status seen
    sensor.m_CallbackInfo.nQuality = 80;
    sensor.m_CallbackInfo.nStatus = 53;
    sensor.SetCallBackFunction(1, CountingCallback, anCalls);
    EXPECT_EQ(sensor.GetImageEnhanced(img.data(), 1, 2, false, false), 2);
    anCalls[1] = 5;
    sensor.m_nError = 0;
    EXPECT_EQ(sensor.GetImageEnhanced(img.data(), 1, 2, false, false), 1);
    EXPECT_EQ(anCalls[0], 2);  // calls
    EXPECT_EQ(anCalls[2], 0);  // quality seen
    EXPECT_EQ(anCalls[3], 0);  // status seen
    EXPECT_EQ(sensor.GetError(), 0ul);
    bool bMore = true;
    EXPECT_EQ(sensor.GetAdaptiveImage(img.data(), 1, 2, 20, &bMore, true, true, true), 4ul);
    EXPECT_TRUE(bMore);
    EXPECT_EQ(sensor.GetLiveImageEx2_Adaptive(img.data(), 100, 1, nullptr, 20), 4ul);
    EXPECT_EQ(sensor.GetImage_Adaptive(img.data()), 4ul);
    EXPECT_EQ(img, Bytes(IMG_PIXELS, 9));
}

}  // namespace
