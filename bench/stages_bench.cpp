// Each processing stage next to the OpenCV operation that does the
// equivalent work, single-threaded, on the same input in the same run:
// Stage/<stage>/ours and Stage/<stage>/opencv, five repetitions each, whose
// medians main.cpp sets side by side. Without OpenCV only ours are run.
//
// Targets on the 2-core reference machine (x86_64, RelWithDebInfo): every
// stage at a ratio of 1.0 or below; the largest frame at most 1.9 ms; the
// preview with table and jitter at most 0.6 ms.
#include <benchmark/benchmark.h>

#include "random_bytes.h"

#include <cstring>
#include <ctime>
#include <random>
#include <vector>

#include "sensor/oberin_filter.h"
#include "tavk05/isproc.h"

#if defined(TAVK05_BENCH_OPENCV)
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

typedef std::vector<unsigned char> Bytes;

const int kMosaicWidth = 1800;
const int kMosaicHeight = 1280;
const int kRepetitions = 5;

using benchinput::Random;

COberin& Sensor()
{
    static COberin sensor(nullptr);
    return sensor;
}

CImageProc& Proc() { return Sensor().m_ImageProc; }

template <class F>
void Loop(benchmark::State& state, F f)
{
    for (auto _ : state) {
        f();
        benchmark::ClobberMemory();
    }
}

#define STAGE(fn, name) \
    BENCHMARK(fn)->Name(name)->Repetitions(kRepetitions)->ReportAggregatesOnly(true)->Unit(benchmark::kMicrosecond)

// --- ours -----------------------------------------------------------------

void OursGrey(benchmark::State& state)
{
    const Bytes src = Random(static_cast<size_t>(kMosaicWidth) * kMosaicHeight, 1);
    Bytes dst(src.size());
    Loop(state,
         [&] { Proc().RGBtoGRAY2(const_cast<unsigned char*>(src.data()), dst.data(), kMosaicWidth, kMosaicHeight); });
}
STAGE(OursGrey, "Stage/grey 1800x1280/ours");

void OursCalcEx(benchmark::State& state)
{
    Bytes src = Random(static_cast<size_t>(kMosaicWidth) * kMosaicHeight, 2);
    Bytes dst(IMG_PIXELS);
    Loop(state,
         [&] { Proc().CorrectImageCalcEx(src.data(), kMosaicWidth, kMosaicHeight, dst.data(), 600, 600, 0, 0); });
}
STAGE(OursCalcEx, "Stage/CorrectImageCalcEx/ours");

void OursCalc(benchmark::State& state)
{
    Bytes src = Random(1288 * 876, 3);
    Bytes dst(IMG_PIXELS);
    Loop(state, [&] { Proc().CorrectImageCalc(src.data(), 1288, 876, dst.data(), 600, 600, 0, 0); });
}
STAGE(OursCalc, "Stage/CorrectImageCalc/ours");

void OursLargestFrame(benchmark::State& state)
{
    const size_t nMosaic = static_cast<size_t>(kMosaicWidth) * kMosaicHeight;
    const Bytes raw = Random(nMosaic, 4);
    Bytes copy(nMosaic), grey(nMosaic), image(IMG_PIXELS);
    Loop(state, [&] {
        std::memcpy(copy.data(), raw.data(), nMosaic);
        Proc().RGBtoGRAY2(copy.data(), grey.data(), kMosaicWidth, kMosaicHeight);
        Proc().CorrectImageCalcEx(grey.data(), kMosaicWidth, kMosaicHeight, image.data(), 600, 600, 0, 0);
    });
}
STAGE(OursLargestFrame, "Stage/largest frame/ours");

// A stage that works in place on a random finished image, restored before
// every iteration.
template <typename Fn>
void InPlace(benchmark::State& state, unsigned nSeed, Fn fnStage)
{
    const Bytes src = Random(IMG_PIXELS, nSeed);
    Bytes work(IMG_PIXELS);
    Loop(state, [&] {
        std::memcpy(work.data(), src.data(), IMG_PIXELS);
        fnStage(work.data());
    });
}

void OursSmooth(benchmark::State& state)
{
    InPlace(state, 5, [](unsigned char* p) { Sensor().SmoothImage(IMG_WIDTH, IMG_HEIGHT, p, 1); });
}
STAGE(OursSmooth, "Stage/SmoothImage 3x3/ours");

void OursMedian(benchmark::State& state)
{
    InPlace(state, 6, [](unsigned char* p) { Sensor().MedianFilter(p, IMG_WIDTH, IMG_HEIGHT); });
}
STAGE(OursMedian, "Stage/MedianFilter 3x3/ours");

// A stage that works in place on a finished image, restored before every
// iteration.
template <typename Fn>
void InPlaceOn(benchmark::State& state, const Bytes& src, Fn fnStage)
{
    Bytes work(IMG_PIXELS);
    Loop(state, [&] {
        std::memcpy(work.data(), src.data(), IMG_PIXELS);
        fnStage(work.data());
    });
}

// Histoequal and Final on a finger on bright glass, as a host applies them,
// and Histoequal on random levels too.
void OursHistoequal(benchmark::State& state)
{
    InPlaceOn(state, benchinput::FingerFrame(300),
              [](unsigned char* p) { Proc().Histoequal(p, IMG_WIDTH, IMG_HEIGHT); });
}
STAGE(OursHistoequal, "Stage/Histoequal finger/ours");

void OursHistoequalRandom(benchmark::State& state)
{
    InPlace(state, 7, [](unsigned char* p) { Proc().Histoequal(p, IMG_WIDTH, IMG_HEIGHT); });
}
STAGE(OursHistoequalRandom, "Stage/Histoequal random/ours");

void OursFinal(benchmark::State& state)
{
    InPlaceOn(state, benchinput::FingerFrame(300), [](unsigned char* p) { Proc().Final(p); });
}
STAGE(OursFinal, "Stage/Final 17x17/ours");

// The live preview of models 3 and 4 with the contrast table: background
// subtraction, table, jitter and scale.
void OursPreview(benchmark::State& state)
{
    COberin& s = Sensor();
    s.m_nDeviceType = 4;
    s.m_ImageProc.m_nDeviceType = 4;
    s.SetContrast(40);
    Bytes background = Random(IMG_PIXELS, 8);
    unsigned char* pSaved = s.m_ImageProc.m_pBackground;
    s.m_ImageProc.m_pBackground = background.data();
    const Bytes frame = Random(IMG_PIXELS, 9);
    Bytes work(frame), shown(IMG_PIXELS);
    Loop(state, [&] { oberin::MapContrast(s, work.data(), shown.data(), oberin::kFrameReadOnly); });
    s.m_ImageProc.m_pBackground = pSaved;
}
STAGE(OursPreview, "Stage/preview table+jitter/ours");

#if defined(TAVK05_BENCH_OPENCV)
// --- OpenCV -----------------------------------------------------------------

// One thread, as ours runs on one.
const bool g_bOneThread = (cv::setNumThreads(1), true);

void CvGrey(benchmark::State& state)
{
    Bytes src = Random(static_cast<size_t>(kMosaicWidth) * kMosaicHeight, 1);
    const cv::Mat in(kMosaicHeight, kMosaicWidth, CV_8UC1, src.data());
    cv::Mat out(kMosaicHeight, kMosaicWidth, CV_8UC1);
    Loop(state, [&] { cv::cvtColor(in, out, cv::COLOR_BayerBG2GRAY); });
}
STAGE(CvGrey, "Stage/grey 1800x1280/opencv");

// Fixed-point maps with the sampling positions of a modify table: for every
// canvas pixel of the W x W canvas, its source row and column in an image
// of nWidth columns whose centre column is nCentre.
void ModifyMaps(const tagModifyEntry* const* ppTable, int nCanvas, int nRowOffset, int nCentre, cv::Mat& map1,
                cv::Mat& map2)
{
    cv::Mat mapX(nCanvas, nCanvas, CV_32FC1, cv::Scalar(0));
    cv::Mat mapY(nCanvas, nCanvas, CV_32FC1, cv::Scalar(0));
    for (int r = 0; r < nCanvas; ++r) {
        for (int j = 0; j < nCanvas / 2; ++j) {
            const tagModifyEntry& e = ppTable[r][j];
            mapY.at<float>(r, nCanvas / 2 + j) = mapY.at<float>(r, nCanvas / 2 - j) = e.fSrcRow - nRowOffset;
            mapX.at<float>(r, nCanvas / 2 + j) = nCentre + e.fSrcCol;
            mapX.at<float>(r, nCanvas / 2 - j) = nCentre - e.fSrcCol;
        }
    }
    cv::convertMaps(mapX, mapY, map1, map2, CV_16SC2);
}

void Remap(benchmark::State& state, const cv::Mat& in, const tagModifyEntry* const* ppTable, int nCanvas,
           int nRowOffset, int nCentre)
{
    cv::Mat map1, map2, out;
    ModifyMaps(ppTable, nCanvas, nRowOffset, nCentre, map1, map2);
    Loop(state, [&] { cv::remap(in, out, map1, map2, cv::INTER_LINEAR); });
}

void CvCalcEx(benchmark::State& state)
{
    Bytes src = Random(static_cast<size_t>(kMosaicWidth) * kMosaicHeight, 2);
    const cv::Mat in(kMosaicHeight, kMosaicWidth, CV_8UC1, src.data());
    Remap(state, in, Proc().m_ppModifyTableEx, MODIFY_SIZE_EX, 10, 900);
}
STAGE(CvCalcEx, "Stage/CorrectImageCalcEx/opencv");

void CvCalc(benchmark::State& state)
{
    Bytes src = Random(1288 * 876, 3);
    const cv::Mat in(876, 1288, CV_8UC1, src.data());
    Remap(state, in, Proc().m_ppModifyTable, MODIFY_SIZE, 0, 644);
}
STAGE(CvCalc, "Stage/CorrectImageCalc/opencv");

void CvLargestFrame(benchmark::State& state)
{
    const size_t nMosaic = static_cast<size_t>(kMosaicWidth) * kMosaicHeight;
    const Bytes raw = Random(nMosaic, 4);
    Bytes copy(nMosaic);
    const cv::Mat mosaic(kMosaicHeight, kMosaicWidth, CV_8UC1, copy.data());
    cv::Mat grey(kMosaicHeight, kMosaicWidth, CV_8UC1), canvas, image;
    cv::Mat map1, map2;
    ModifyMaps(Proc().m_ppModifyTableEx, MODIFY_SIZE_EX, 10, 900, map1, map2);
    Loop(state, [&] {
        std::memcpy(copy.data(), raw.data(), nMosaic);
        cv::cvtColor(mosaic, grey, cv::COLOR_BayerBG2GRAY);
        cv::remap(grey, canvas, map1, map2, cv::INTER_LINEAR);
        cv::flip(canvas, image, 1);
    });
}
STAGE(CvLargestFrame, "Stage/largest frame/opencv");

void CvSmooth(benchmark::State& state)
{
    const Bytes src = Random(IMG_PIXELS, 5);
    Bytes work(IMG_PIXELS);
    const cv::Mat in(IMG_HEIGHT, IMG_WIDTH, CV_8UC1, work.data());
    cv::Mat out(IMG_HEIGHT, IMG_WIDTH, CV_8UC1);
    Loop(state, [&] {
        std::memcpy(work.data(), src.data(), IMG_PIXELS);
        cv::blur(in, out, cv::Size(3, 3));
    });
}
STAGE(CvSmooth, "Stage/SmoothImage 3x3/opencv");

void CvMedian(benchmark::State& state)
{
    const Bytes src = Random(IMG_PIXELS, 6);
    Bytes work(IMG_PIXELS);
    const cv::Mat in(IMG_HEIGHT, IMG_WIDTH, CV_8UC1, work.data());
    cv::Mat out(IMG_HEIGHT, IMG_WIDTH, CV_8UC1);
    Loop(state, [&] {
        std::memcpy(work.data(), src.data(), IMG_PIXELS);
        cv::medianBlur(in, out, 3);
    });
}
STAGE(CvMedian, "Stage/MedianFilter 3x3/opencv");

void EqualizeHist(benchmark::State& state, const Bytes& src)
{
    Bytes work(IMG_PIXELS);
    const cv::Mat in(IMG_HEIGHT, IMG_WIDTH, CV_8UC1, work.data());
    Loop(state, [&] {
        std::memcpy(work.data(), src.data(), IMG_PIXELS);
        cv::equalizeHist(in, in);
    });
}

void CvHistoequal(benchmark::State& state) { EqualizeHist(state, benchinput::FingerFrame(300)); }
STAGE(CvHistoequal, "Stage/Histoequal finger/opencv");

void CvHistoequalRandom(benchmark::State& state) { EqualizeHist(state, Random(IMG_PIXELS, 7)); }
STAGE(CvHistoequalRandom, "Stage/Histoequal random/opencv");

// Final's work: local 17 x 17 mean and mean square, the deviation from
// them, and the flat places set to white.
void CvFinal(benchmark::State& state)
{
    const Bytes src = benchinput::FingerFrame(300);
    Bytes work(IMG_PIXELS);
    cv::Mat in(IMG_HEIGHT, IMG_WIDTH, CV_8UC1, work.data());
    cv::Mat mean, square, deviation, mask;
    Loop(state, [&] {
        std::memcpy(work.data(), src.data(), IMG_PIXELS);
        cv::boxFilter(in, mean, CV_32F, cv::Size(17, 17), cv::Point(-1, -1), true, cv::BORDER_CONSTANT);
        cv::sqrBoxFilter(in, square, CV_32F, cv::Size(17, 17), cv::Point(-1, -1), true, cv::BORDER_CONSTANT);
        cv::sqrt(square - mean.mul(mean), deviation);
        cv::compare(deviation, 20, mask, cv::CMP_LT);
        in.setTo(255, mask);
    });
}
STAGE(CvFinal, "Stage/Final 17x17/opencv");

// The preview's work: background minus frame, saturated, through the
// contrast table, plus a jitter of -4..+4 drawn for every pixel from a
// generator seeded for the frame (OpenCV's own, cv::RNG, where ours must
// give the C library's sequence), then scaled by the contrast factor.
void CvPreview(benchmark::State& state)
{
    Bytes background = Random(IMG_PIXELS, 8);
    Bytes frame = Random(IMG_PIXELS, 9);
    const cv::Mat bg(IMG_HEIGHT, IMG_WIDTH, CV_8UC1, background.data());
    const cv::Mat in(IMG_HEIGHT, IMG_WIDTH, CV_8UC1, frame.data());
    cv::Mat lut(1, 256, CV_8UC1), d, shown, jitter(IMG_HEIGHT, IMG_WIDTH, CV_8UC1), level, out;
    for (int i = 0; i < 256; ++i) lut.at<unsigned char>(i) = static_cast<unsigned char>(255 - i);
    Sensor().SetContrast(40);
    const double fFactor = Sensor().m_fContrastFactor;
    Loop(state, [&] {
        cv::RNG rng(static_cast<uint64_t>(std::time(nullptr)));
        rng.fill(jitter, cv::RNG::UNIFORM, 0, 9);
        cv::subtract(bg, in, d);
        cv::LUT(d, lut, shown);
        cv::add(shown, jitter, level, cv::noArray(), CV_16U);
        level.convertTo(out, CV_8U, fFactor, -4 * fFactor);
    });
}
STAGE(CvPreview, "Stage/preview table+jitter/opencv");
#endif

}  // namespace
