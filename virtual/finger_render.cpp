// Raw frame rendering of the virtual scanner (see finger_render.h).
#include "finger_render.h"

#include <cmath>
#include <cstring>
#include <mutex>
#include <new>

#include "calibration/calibmodel.h"
#include "finger_math.h"
#include "finger_noise.h"

namespace tavk05virt {

namespace {

const int kSize = 600;
const int kPixels = kSize * kSize;
const int kNominalExposure = 40;
const int kBlackLevel = 90;         // models 5 and 6
const double kShallowSlope = 1.55;  // models 5 and 6: the driver's factor at open

bool IsShadedPath(RawPath ePath) { return ePath == kPathTables876 || ePath == kPathTables1280; }

// Colour filter lookup: the value of a sample before the filter (with noise,
// offset by kLutOffset) to its byte. Red a little warmer, blue a little
// cooler, green as is; the driver's grey conversion weighs red, blue and
// the mean of the greens a third each, so the tint cancels.
enum { kLutOffset = 256, kLutSize = 768 };

struct FilterLuts {
    unsigned char abyRed[kLutSize];
    unsigned char abyGreen[kLutSize];
    unsigned char abyBlue[kLutSize];

    FilterLuts()
    {
        for (int i = 0; i < kLutSize; ++i) {
            const int v = i - kLutOffset;
            abyGreen[i] = static_cast<unsigned char>(fmath::Clamp(v, 0, 255));
            abyRed[i] = static_cast<unsigned char>(fmath::Clamp((v * 261 + 128) / 256, 0, 255));
            abyBlue[i] = static_cast<unsigned char>(fmath::Clamp(v < 0 ? v : (v * 251 + 128) / 256, 0, 255));
        }
    }
};

const FilterLuts& Luts()
{
    static const FilterLuts s_luts;
    return s_luts;
}

// Illumination across the platen: 1 in the middle, about 6 % less in the
// corners, in 1/1024.
const uint16_t* Vignetting()
{
    struct Table {
        uint16_t anValue[kPixels];
        Table()
        {
            for (int y = 0; y < kSize; ++y) {
                for (int x = 0; x < kSize; ++x) {
                    const double dx = (x - 299.5) / 299.5;
                    const double dy = (y - 299.5) / 299.5;
                    anValue[y * kSize + x] = static_cast<uint16_t>(1024.0 * (1.0 - 0.03 * (dx * dx + dy * dy)) + 0.5);
                }
            }
        }
    };
    static const Table s_table;
    return s_table.anValue;
}

// The shading table models 5 and 6 add to the finished image.
const unsigned char* Shading()
{
    struct Table {
        unsigned char abyValue[kPixels];
        Table() { tavk05cal::FillShading(abyValue); }
    };
    static const Table s_table;
    return s_table.abyValue;
}

// Gain as a power of two (0 for gain 1).
int GainStops(unsigned char byGain)
{
    if (byGain >= 8) return 3;
    if (byGain >= 4) return 2;
    if (byGain >= 2) return 1;
    return 0;
}

}  // namespace

RawPath PathOf(int nDevType, unsigned short wFirmware)
{
    return static_cast<RawPath>(tavk05cal::PathForDevice(nDevType, wFirmware));
}

void PathSize(RawPath ePath, unsigned* pnWidth, unsigned* pnHeight)
{
    int nWidth = 0;
    int nHeight = 0;
    tavk05cal::RawSize(static_cast<tavk05cal::Path>(ePath), &nWidth, &nHeight);
    *pnWidth = static_cast<unsigned>(nWidth);
    *pnHeight = static_cast<unsigned>(nHeight);
}

CRawMap::CRawMap(RawPath ePath, unsigned nWidth, unsigned nHeight)
    : m_ePath(ePath), m_nWidth(nWidth), m_nHeight(nHeight)
{
}

bool CRawMap::Build()
{
    const size_t nSamples = static_cast<size_t>(m_nWidth) * m_nHeight;
    m_pIndex.reset(new (std::nothrow) uint32_t[nSamples]);
    std::unique_ptr<float[]> pFx(new (std::nothrow) float[nSamples]);
    std::unique_ptr<float[]> pFy(new (std::nothrow) float[nSamples]);
    if (!m_pIndex || !pFx || !pFy) return false;
    const tavk05cal::CGeometry geometry(static_cast<tavk05cal::Path>(m_ePath));
    if (geometry.RawWidth() != static_cast<int>(m_nWidth) || geometry.RawHeight() != static_cast<int>(m_nHeight)) {
        return false;
    }
    // Final position of every grey pixel of the driver's 2 x 2 conversion.
    geometry.FillRawToFinal(pFx.get(), pFy.get());
    // A mosaic sample (x, y) enters the grey pixels x - 1 .. x, y - 1 .. y:
    // it stands for the mean of their positions. At the rim of the image
    // only those pixels that reach the finished image count, and the sample
    // takes the nearest edge pixel: the correction's rounding may read it.
    for (unsigned y = 0; y < m_nHeight; ++y) {
        const size_t nRow = static_cast<size_t>(y) * m_nWidth;
        const size_t nAbove = static_cast<size_t>(y > 0 ? y - 1 : 0) * m_nWidth;
        for (unsigned x = 0; x < m_nWidth; ++x) {
            const unsigned xl = x > 0 ? x - 1 : 0;
            const size_t an[4] = {nAbove + xl, nAbove + x, nRow + xl, nRow + x};
            double fx = 0.0;
            double fy = 0.0;
            int nInside = 0;
            for (size_t i : an) {
                if (pFx[i] == tavk05cal::kOutside || pFy[i] == tavk05cal::kOutside) continue;
                fx += pFx[i];
                fy += pFy[i];
                ++nInside;
            }
            uint32_t nIndex = kOutsideImage;
            if (nInside > 0) {
                const int rx = fmath::Clamp(static_cast<int>(std::floor(fx / nInside + 0.5)), 0, kSize - 1);
                const int ry = fmath::Clamp(static_cast<int>(std::floor(fy / nInside + 0.5)), 0, kSize - 1);
                nIndex = static_cast<uint32_t>(ry * kSize + rx);
            }
            m_pIndex[nRow + x] = nIndex;
        }
    }
    return true;
}

std::shared_ptr<const CRawMap> CRawMap::Get(RawPath ePath)
{
    static std::mutex s_mutex;
    static std::shared_ptr<const CRawMap> s_apMap[6];
    const int nSlot = static_cast<int>(ePath);
    if (nSlot < 1 || nSlot > 5) return nullptr;
    std::lock_guard<std::mutex> lock(s_mutex);
    if (!s_apMap[nSlot]) {
        unsigned nWidth = 0;
        unsigned nHeight = 0;
        PathSize(ePath, &nWidth, &nHeight);
        std::unique_ptr<CRawMap> pMap(new (std::nothrow) CRawMap(ePath, nWidth, nHeight));
        if (!pMap || !pMap->Build()) return nullptr;
        try {
            s_apMap[nSlot] = std::shared_ptr<const CRawMap>(std::move(pMap));
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }
    return s_apMap[nSlot];
}

SensorSettings EffectiveSettings(SensorSettings settings)
{
    if (settings.byGain == 0 && settings.byExposure == 0) {
        settings.byExposure = kNominalExposure;
        settings.byGain = 1;
    }
    if (settings.byGain == 0) settings.byGain = 1;
    return settings;
}

void SensorResponse(const unsigned char* pGlass, RawPath ePath, SensorSettings settings, unsigned char* pSignal)
{
    settings = EffectiveSettings(settings);
    // Light: proportional to exposure + 60, nominal at 40; gain stretches
    // the contrast around mid grey by 12 % a stop.
    const int nLight = 60 + settings.byExposure;                  // in 1/100
    const int nContrast = 256 + 31 * GainStops(settings.byGain);  // in 1/256
    const bool bShaded = IsShadedPath(ePath);
    const uint16_t* pVignetting = Vignetting();
    const unsigned char* pShading = bShaded ? Shading() : nullptr;
    // Response curve by vignetted light level (0 .. 255 * 1.6).
    int anCurve[410];
    for (int l = 0; l < 410; ++l) {
        anCurve[l] = fmath::Clamp(128 + ((l - 128) * nContrast) / 256, 0, 255);
    }
    for (int i = 0; i < kPixels; ++i) {
        const int nLevel = (pGlass[i] * nLight * pVignetting[i]) / (100 * 1024);
        int v = anCurve[nLevel < 409 ? nLevel : 409];
        if (bShaded) {
            v = kBlackLevel + static_cast<int>(v / kShallowSlope + 0.5) - pShading[i];
            v = fmath::Clamp(v, 0, 255);
        }
        pSignal[i] = static_cast<unsigned char>(v);
    }
    // Samples the correction never reads see empty glass at the rim.
    int nOutside = anCurve[(232 * nLight * 94) / (100 * 100)];
    if (bShaded) nOutside = fmath::Clamp(kBlackLevel + static_cast<int>(nOutside / kShallowSlope + 0.5), 0, 255);
    pSignal[kPixels] = static_cast<unsigned char>(nOutside);
}

int NoiseDeviation(RawPath ePath, SensorSettings settings)
{
    settings = EffectiveSettings(settings);
    static const int anDeviation[4] = {358, 460, 640, 896};  // 1.4, 1.8, 2.5, 3.5 grey levels
    const int n = anDeviation[GainStops(settings.byGain)];
    // The shallow sensors are quieter in their own units by their slope.
    return IsShadedPath(ePath) ? static_cast<int>(n / kShallowSlope) : n;
}

void RenderMosaic(const CRawMap& map, const unsigned char* pSignal, int nNoiseDeviation, uint64_t nNoiseSeed,
                  unsigned char* pFrame, unsigned long nFrameBytes)
{
    const unsigned nWidth = map.Width();
    const unsigned long nRowsFit = nWidth ? nFrameBytes / nWidth : 0;
    const unsigned nRows = nRowsFit < map.Height() ? static_cast<unsigned>(nRowsFit) : map.Height();
    const FilterLuts& luts = Luts();
    const int16_t* pNoise = NoiseTable();
    const uint32_t* pIndex = map.Index();
    // Noise in grey levels: (table * deviation) / 65536, rounded, computed
    // on a positive offset so that the shift never sees a negative value.
    const int kBias = 1 << 22;
    const int nDeviation = fmath::Clamp(nNoiseDeviation, 0, 2048);
    for (unsigned y = 0; y < nRows; ++y) {
        const unsigned nStart = static_cast<unsigned>(fmath::Hash(nNoiseSeed, y));
        const unsigned char* pEven = (y & 1u) ? luts.abyGreen : luts.abyRed;
        const unsigned char* pOdd = (y & 1u) ? luts.abyBlue : luts.abyGreen;
        const uint32_t* pRowIndex = pIndex + static_cast<size_t>(y) * nWidth;
        unsigned char* pOut = pFrame + static_cast<size_t>(y) * nWidth;
        for (unsigned x = 0; x + 1 < nWidth; x += 2) {
            const int n0 = ((pNoise[(nStart + x) & kNoiseMask] * nDeviation + kBias + 32768) >> 16) - (kBias >> 16);
            const int n1 = ((pNoise[(nStart + x + 1) & kNoiseMask] * nDeviation + kBias + 32768) >> 16) - (kBias >> 16);
            pOut[x] = pEven[pSignal[pRowIndex[x]] + n0 + kLutOffset];
            pOut[x + 1] = pOdd[pSignal[pRowIndex[x + 1]] + n1 + kLutOffset];
        }
        if (nWidth & 1u) {
            pOut[nWidth - 1] = pEven[pSignal[pRowIndex[nWidth - 1]] + kLutOffset];
        }
    }
    const size_t nWritten = static_cast<size_t>(nRows) * nWidth;
    if (nFrameBytes > nWritten) std::memset(pFrame + nWritten, 0, nFrameBytes - nWritten);
}

}  // namespace tavk05virt
