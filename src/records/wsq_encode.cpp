// WSQ encoder with the FBI parameter settings of encoder number two:
// normalisation, the 7/9 transform, subband variances, bin widths iterated
// to the target bit rate, and Huffman coding in three blocks.
#include "wsq.h"
#include "wsq_internal.h"

#include <cmath>
#include <cstdio>
#include <memory>
#include <new>

namespace tavk05rec {
namespace {

using namespace wsq;

class ByteWriter {
public:
    explicit ByteWriter(std::vector<unsigned char>& out) : m_out(out) {}
    void Byte(unsigned nValue) { m_out.push_back(static_cast<unsigned char>(nValue & 0xFF)); }
    void Word(unsigned nValue)
    {
        Byte(nValue >> 8);
        Byte(nValue);
    }
    void Long(uint32_t nValue)
    {
        Word(nValue >> 16);
        Word(nValue & 0xFFFF);
    }
    void Scaled(double dValue)
    {
        const Scaled16 s = ToScaled16(dValue);
        Byte(static_cast<unsigned>(s.nScale));
        Word(s.nValue);
    }

private:
    std::vector<unsigned char>& m_out;
};

// Entropy-coded bits, most significant first, 0xFF followed by a stuffed zero,
// the last byte padded with ones. Codes and extra bits are at most 16 bits.
class BitWriter {
public:
    explicit BitWriter(std::vector<unsigned char>& out) : m_out(out) {}
    void Put(uint32_t nCode, int nBits)
    {
        m_nAcc = (m_nAcc << nBits) | (nCode & ((1u << nBits) - 1u));
        m_nCount += nBits;
        while (m_nCount >= 8) {
            m_nCount -= 8;
            Emit((m_nAcc >> m_nCount) & 0xFFu);
        }
    }
    void Flush()
    {
        if (m_nCount != 0) Put((1u << (8 - m_nCount)) - 1u, 8 - m_nCount);
    }

private:
    void Emit(uint32_t nByte)
    {
        m_out.push_back(static_cast<unsigned char>(nByte));
        if (nByte == 0xFF) m_out.push_back(0);
    }
    std::vector<unsigned char>& m_out;
    uint32_t m_nAcc = 0;
    int m_nCount = 0;
};

// Calls fn(symbol, extraBits, extraLength) for each symbol of a block's
// coefficient sequence (Table A.2 model).
template <typename Fn>
void ForEachSymbol(const int* pCoef, size_t nCount, Fn fn)
{
    uint32_t nRun = 0;
    auto flushRun = [&]() {
        while (nRun > 0) {
            const uint32_t nPart = nRun > 0xFFFF ? 0xFFFF : nRun;
            if (nPart <= static_cast<uint32_t>(kMaxRunSymbol)) {
                fn(static_cast<int>(nPart), 0u, 0);
            } else if (nPart <= 0xFF) {
                fn(kSymEscRun8, nPart, 8);
            } else {
                fn(kSymEscRun16, nPart, 16);
            }
            nRun -= nPart;
        }
    };
    size_t i = 0;
    while (i < nCount) {
        if (pCoef[i] == 0) {
            const size_t nEnd = ZeroRunPlain(pCoef, i + ZeroRunSse2(pCoef + i, nCount - i), nCount);
            nRun += static_cast<uint32_t>(nEnd - i);
            i = nEnd;
            continue;
        }
        const int c = pCoef[i++];
        flushRun();
        if (c >= kMinCoefSymbol && c <= kMaxCoefSymbol) {
            fn(kSymZero + c, 0u, 0);
        } else {
            const uint32_t nMag = static_cast<uint32_t>(c > 0 ? c : -c);
            if (nMag <= 0xFF) {
                fn(c > 0 ? kSymEscPos8 : kSymEscNeg8, nMag, 8);
            } else {
                fn(c > 0 ? kSymEscPos16 : kSymEscNeg16, nMag > 0xFFFF ? 0xFFFFu : nMag, 16);
            }
        }
    }
    flushRun();
}

void CountSymbols(const int* pCoef, size_t nCount, std::array<uint32_t, 256>& counts)
{
    ForEachSymbol(pCoef, nCount, [&](int nSym, uint32_t, int) { ++counts[static_cast<size_t>(nSym)]; });
}

// Subband variances over the central region the FBI settings prescribe
// (Part 3, 3.1), or over whole subbands for images of little contrast.
std::array<double, kSubbands> Variances(const double* pImage, int nStride, const Layout& layout)
{
    std::array<double, kSubbands> var{};
    auto variance = [&](const Region& b, bool bCentral) {
        int nX = b.nX, nY = b.nY, nW = b.nW, nH = b.nH;
        if (bCentral) {
            nX += b.nW / 8;
            nY += (9 * b.nH) / 32;
            nW = (3 * b.nW) / 4;
            nH = (7 * b.nH) / 16;
        }
        const double dN = static_cast<double>(nW) * nH;
        if (dN < 2.0) return 0.0;
        double dSum = 0.0, dSq = 0.0;
        for (int y = 0; y < nH; ++y) {
            const double* p = pImage + static_cast<size_t>(nY + y) * static_cast<size_t>(nStride) + nX;
            for (int x = 0; x < nW; ++x) {
                dSum += p[x];
                dSq += p[x] * p[x];
            }
        }
        return (dSq - dSum * dSum / dN) / (dN - 1.0);
    };
    double dLowSum = 0.0;
    for (int k = 0; k < 4; ++k) {
        var[static_cast<size_t>(k)] = variance(layout.subbands[static_cast<size_t>(k)], true);
        dLowSum += var[static_cast<size_t>(k)];
    }
    const bool bCentral = dLowSum >= 20000.0;
    for (int k = bCentral ? 4 : 0; k < kCodedSubbands; ++k) {
        var[static_cast<size_t>(k)] = variance(layout.subbands[static_cast<size_t>(k)], bCentral);
    }
    return var;
}

// Bin widths of encoder number two (Part 3, 3.2): relative widths from the
// variances, the proportionality q iterated so that the subbands with a
// positive modelled rate meet the target rate.
void BinWidths(const std::array<double, kSubbands>& var, double dRate, std::array<double, kSubbands>& q,
               std::array<double, kSubbands>& z)
{
    constexpr double kGamma = 2.5;
    std::array<double, kSubbands> relative{};
    std::array<double, kSubbands> sigma{};
    std::array<double, kSubbands> invArea{};
    std::array<bool, kSubbands> inK0{};
    for (int k = 0; k < kCodedSubbands; ++k) {
        const size_t i = static_cast<size_t>(k);
        invArea[i] = k < 4 ? 1.0 / 1024.0 : (k < 51 ? 1.0 / 256.0 : 1.0 / 16.0);
        if (var[i] < 1.01) continue;
        inK0[i] = true;
        sigma[i] = std::sqrt(var[i]);
        double dWeight = 1.0;
        switch (k) {
            case 52:
            case 56:
                dWeight = 1.32;
                break;
            case 53:
            case 58:
            case 55:
            case 59:
                dWeight = 1.08;
                break;
            case 54:
            case 57:
                dWeight = 1.42;
                break;
            default:
                break;
        }
        relative[i] = k < 4 ? 1.0 : 10.0 / (dWeight * DetLog(var[i]));
    }
    std::array<bool, kSubbands> inK = inK0;
    double dQ = 1.0;
    for (int nIter = 0; nIter <= kSubbands; ++nIter) {
        double dS = 0.0, dLogP = 0.0;
        for (int k = 0; k < kCodedSubbands; ++k) {
            const size_t i = static_cast<size_t>(k);
            if (!inK[i]) continue;
            dS += invArea[i];
            dLogP += invArea[i] * DetLog(sigma[i] / relative[i]);
        }
        if (dS <= 0.0) break;
        dQ = DetExp(0.69314718055994530942 * (dRate / dS - 1.0) - dLogP / dS) / kGamma;
        bool bExcluded = false;
        for (int k = 0; k < kCodedSubbands; ++k) {
            const size_t i = static_cast<size_t>(k);
            if (inK[i] && relative[i] / dQ >= 2.0 * kGamma * sigma[i]) {
                inK[i] = false;
                bExcluded = true;
            }
        }
        if (!bExcluded) break;
    }
    for (int k = 0; k < kSubbands; ++k) {
        const size_t i = static_cast<size_t>(k);
        q[i] = inK0[i] ? relative[i] / dQ : 0.0;
        z[i] = 1.2 * q[i];
    }
}

// The bin indices of a subband, row by row, from pOut on; returns the end.
int* QuantizeBand(const double* pImage, int nStride, const Region& b, double dQ, double dZ, int* pOut)
{
    const double dHalfZ = dZ / 2.0;
    for (int y = 0; y < b.nH; ++y) {
        const double* p = pImage + static_cast<size_t>(b.nY + y) * static_cast<size_t>(nStride) + b.nX;
        const int nDone = QuantizeSse2(p, b.nW, dQ, dHalfZ, pOut);
        QuantizePlain(p, nDone, b.nW, dQ, dHalfZ, pOut);
        pOut += b.nW;
    }
    return pOut;
}

// Six decimals with a point whatever the locale.
std::string FormatRate(double dValue)
{
    const long long nMicro = static_cast<long long>(std::floor(dValue * 1e6 + 0.5));
    char buf[48];
    std::snprintf(buf, sizeof buf, "%lld.%06lld", nMicro / 1000000, nMicro % 1000000);
    return buf;
}

}  // namespace

namespace wsq {

WsqResult Encode(const unsigned char* pPixels, int nWidth, int nHeight, int nPpi, double dBitRate,
                 const std::vector<std::pair<std::string, std::string>>& extraNistcom, const FilterBank& bank,
                 Workspace& work, std::vector<unsigned char>& out)
{
    out.clear();
    if (pPixels == nullptr || nWidth < 1 || nHeight < 1) return kWsqBadArgument;
    if (!(dBitRate > 0.0) || !(dBitRate <= 8.0)) return kWsqBadArgument;
    if (!FilterBankValid(bank)) return kWsqBadArgument;
    if (nPpi == 0 || nPpi < -1) return kWsqBadArgument;
    if (nWidth > kWsqMaxSide || nHeight > kWsqMaxSide || static_cast<long long>(nWidth) * nHeight > kWsqMaxPixels) {
        return kWsqTooLarge;
    }
    for (const auto& kv : extraNistcom) {
        if (kv.first.empty() || kv.first.find_first_of(" \n\r") != std::string::npos ||
            kv.second.find_first_of("\n\r") != std::string::npos) {
            return kWsqBadArgument;
        }
    }
    try {
        const size_t nPixels = static_cast<size_t>(nWidth) * static_cast<size_t>(nHeight);
        // Normalisation (Part 3, 1): mean M, scale R so that the extreme grey
        // level maps to +-128.
        GreyStats stats;
        GreyStatsPlain(pPixels, GreyStatsSse2(pPixels, nPixels, stats), nPixels, stats);
        const double dMean = static_cast<double>(stats.nSum) / static_cast<double>(nPixels);
        const double dLowDiff = dMean - stats.nMin;
        const double dHighDiff = stats.nMax - dMean;
        double dScale = (dLowDiff >= dHighDiff ? dLowDiff : dHighDiff) / 128.0;
        if (!(dScale > 0.0)) dScale = 1.0;
        double adLevel[256];
        for (int v = 0; v < 256; ++v) adLevel[v] = (v - dMean) / dScale;
        // Every element is written below: no zero fill first.
        double* const pImg = work.image.Get(nPixels);
        for (size_t i = 0; i < nPixels; ++i) pImg[i] = adLevel[pPixels[i]];

        const Layout layout = BuildLayout(nWidth, nHeight, false);
        work.TransformFor(bank).Forward(pImg, nWidth, layout);

        std::array<double, kSubbands> q{}, z{};
        BinWidths(Variances(pImg, nWidth, layout), dBitRate, q, z);

        // Blocks: subbands 0-18, 19-51, 52-59; the second table serves the last two.
        const int anBlockStart[] = {0, 19, 52, 60};
        int* const pIndices = work.indices.Get(nPixels);
        int* apBlock[4] = {pIndices};
        for (int b = 0; b < 3; ++b) {
            int* pEnd = apBlock[b];
            for (int k = anBlockStart[b]; k < anBlockStart[b + 1]; ++k) {
                if (q[static_cast<size_t>(k)] > 0.0) {
                    pEnd = QuantizeBand(pImg, nWidth, layout.subbands[static_cast<size_t>(k)],
                                        q[static_cast<size_t>(k)], z[static_cast<size_t>(k)], pEnd);
                }
            }
            apBlock[b + 1] = pEnd;
        }
        auto blockSize = [&](int b) { return static_cast<size_t>(apBlock[b + 1] - apBlock[b]); };
        std::array<uint32_t, 256> counts0{}, counts1{};
        CountSymbols(apBlock[0], blockSize(0), counts0);
        CountSymbols(apBlock[1], blockSize(1), counts1);
        CountSymbols(apBlock[2], blockSize(2), counts1);
        const HuffmanTable table[2] = {BuildHuffmanTable(counts0), BuildHuffmanTable(counts1)};
        const HuffmanCodes codes[2] = {MakeCodes(table[0]), MakeCodes(table[1])};

        out.reserve(nPixels / 8 + 4096);
        ByteWriter w(out);
        w.Word(kMarkerSoi);

        // NISTCOM comment: the resolution travels in its PPI field.
        std::vector<std::pair<std::string, std::string>> fields = {{"PIX_WIDTH", std::to_string(nWidth)},
                                                                   {"PIX_HEIGHT", std::to_string(nHeight)},
                                                                   {"PIX_DEPTH", "8"},
                                                                   {"PPI", std::to_string(nPpi)},
                                                                   {"LOSSY", "1"},
                                                                   {"COLORSPACE", "GRAY"},
                                                                   {"COMPRESSION", "WSQ"},
                                                                   {"WSQ_BITRATE", FormatRate(dBitRate)}};
        for (const auto& kv : extraNistcom) fields.push_back(kv);
        std::string strCom = "NIST_COM " + std::to_string(fields.size() + 1);
        for (const auto& kv : fields) strCom += "\n" + kv.first + " " + kv.second;
        if (strCom.size() + 2 > 0xFFFF) return kWsqBadArgument;
        w.Word(kMarkerCom);
        w.Word(static_cast<unsigned>(strCom.size() + 2));
        for (char c : strCom) w.Byte(static_cast<unsigned char>(c));

        // Transform table.
        w.Word(kMarkerDtt);
        w.Word(static_cast<unsigned>(4 + 6 * (bank.low.size() + bank.high.size())));
        w.Byte(static_cast<unsigned>(bank.nLowLength));
        w.Byte(static_cast<unsigned>(bank.nHighLength));
        for (const std::vector<double>* pHalf : {&bank.low, &bank.high}) {
            for (double d : *pHalf) {
                w.Byte(d < 0.0 ? 1u : 0u);
                const Scaled32 s = ToScaled32(std::fabs(d));
                w.Byte(static_cast<unsigned>(s.nScale));
                w.Long(s.nValue);
            }
        }
        // Quantisation table.
        w.Word(kMarkerDqt);
        w.Word(2 + 3 + 6 * kSubbands);
        w.Scaled(0.44);
        for (int k = 0; k < kSubbands; ++k) {
            w.Scaled(q[static_cast<size_t>(k)]);
            w.Scaled(z[static_cast<size_t>(k)]);
        }
        // Frame header: black 0, white 255, lines, samples, M, R, encoder 2, software 0.
        w.Word(kMarkerSof);
        w.Word(17);
        w.Byte(0);
        w.Byte(255);
        w.Word(static_cast<unsigned>(nHeight));
        w.Word(static_cast<unsigned>(nWidth));
        w.Scaled(dMean);
        w.Scaled(dScale);
        w.Byte(2);
        w.Word(0);
        // Both Huffman tables in one segment.
        size_t nDhtLength = 2;
        for (const HuffmanTable& s : table) nDhtLength += 17 + s.values.size();
        w.Word(kMarkerDht);
        w.Word(static_cast<unsigned>(nDhtLength));
        for (int t = 0; t < 2; ++t) {
            w.Byte(static_cast<unsigned>(t));
            for (uint8_t b : table[t].bits) w.Byte(b);
            for (uint8_t v : table[t].values) w.Byte(v);
        }
        for (int b = 0; b < 3; ++b) {
            const int nTable = b == 0 ? 0 : 1;
            w.Word(kMarkerSob);
            w.Word(3);
            w.Byte(static_cast<unsigned>(nTable));
            BitWriter bits(out);
            const HuffmanCodes& c = codes[nTable];
            ForEachSymbol(apBlock[b], blockSize(b), [&](int nSym, uint32_t nExtra, int nExtraBits) {
                bits.Put(c.code[static_cast<size_t>(nSym)], c.size[static_cast<size_t>(nSym)]);
                if (nExtraBits > 0) bits.Put(nExtra, nExtraBits);
            });
            bits.Flush();
        }
        w.Word(kMarkerEoi);
        return kWsqOk;
    } catch (const std::bad_alloc&) {
        out.clear();
        return kWsqNoMemory;
    }
}

void GreyStatsPlain(const unsigned char* pPixels, size_t nFrom, size_t nCount, GreyStats& stats)
{
    for (size_t i = nFrom; i < nCount; ++i) {
        const int v = pPixels[i];
        stats.nSum += static_cast<uint64_t>(v);
        if (v < stats.nMin) stats.nMin = v;
        if (v > stats.nMax) stats.nMax = v;
    }
}

void QuantizePlain(const double* pCoef, int nFrom, int nCount, double dQ, double dHalfZ, int* pOut)
{
    for (int i = nFrom; i < nCount; ++i) {
        const double dC = pCoef[i];
        if (dC >= -dHalfZ && dC <= dHalfZ) {
            pOut[i] = 0;
            continue;
        }
        double dIndex = dC > 0.0 ? (dC - dHalfZ) / dQ + 1.0 : (dC + dHalfZ) / dQ - 1.0;
        if (dIndex > 2147483647.0) dIndex = 2147483647.0;
        if (dIndex < -2147483647.0) dIndex = -2147483647.0;
        pOut[i] = static_cast<int>(dIndex);  // truncation toward zero
    }
}

size_t ZeroRunPlain(const int* pIndex, size_t nFrom, size_t nCount)
{
    while (nFrom < nCount && pIndex[nFrom] == 0) ++nFrom;
    return nFrom;
}

}  // namespace wsq

WsqResult WsqEncode(const unsigned char* pPixels, int nWidth, int nHeight, int nPpi, double dBitRate,
                    const std::vector<std::pair<std::string, std::string>>& extraNistcom,
                    std::vector<unsigned char>& out)
{
    WsqCodec codec;
    return codec.Encode(pPixels, nWidth, nHeight, nPpi, dBitRate, extraNistcom, out);
}

WsqCodec::WsqCodec() noexcept = default;
WsqCodec::~WsqCodec() = default;

WsqResult WsqCodec::Encode(const unsigned char* pPixels, int nWidth, int nHeight, int nPpi, double dBitRate,
                           const std::vector<std::pair<std::string, std::string>>& extraNistcom,
                           std::vector<unsigned char>& out)
{
    try {
        if (!m_pWork) m_pWork.reset(new wsq::Workspace);
    } catch (const std::bad_alloc&) {
        out.clear();
        return kWsqNoMemory;
    }
    return wsq::Encode(pPixels, nWidth, nHeight, nPpi, dBitRate, extraNistcom, wsq::StandardFilters(), *m_pWork,
                       out);
}

}  // namespace tavk05rec
