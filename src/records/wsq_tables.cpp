// Deterministic elementary functions, the scaled decimal numbers of the WSQ
// tables and the Huffman code construction shared by encoder and decoder.
#include "wsq_internal.h"

#include <cmath>

namespace tavk05rec {
namespace wsq {

double DetLog(double dX)
{
    if (!(dX > 0.0) || !std::isfinite(dX)) return dX == 0.0 ? -HUGE_VAL : std::nan("");
    int nExp = 0;
    double dM = std::frexp(dX, &nExp);  // [0.5, 1)
    if (dM < 0.70710678118654752) {
        dM *= 2.0;
        --nExp;
    }
    // log m = 2 atanh(s), s = (m - 1) / (m + 1), |s| < 0.172.
    const double dS = (dM - 1.0) / (dM + 1.0);
    const double dS2 = dS * dS;
    double dSum = 0.0;
    for (int k = 27; k >= 1; k -= 2) dSum = dSum * dS2 + 1.0 / k;
    const double dLn2Hi = 6.93147180369123816490e-01;
    const double dLn2Lo = 1.90821492927058770002e-10;
    return nExp * dLn2Hi + (nExp * dLn2Lo + 2.0 * dS * dSum);
}

double DetExp(double dX)
{
    if (std::isnan(dX)) return dX;
    if (dX > 709.0) return HUGE_VAL;
    if (dX < -745.0) return 0.0;
    const double dLn2Hi = 6.93147180369123816490e-01;
    const double dLn2Lo = 1.90821492927058770002e-10;
    const double dK = std::floor(dX / 0.69314718055994530942 + 0.5);
    const double dR = (dX - dK * dLn2Hi) - dK * dLn2Lo;  // |r| <= 0.35
    double dSum = 1.0;
    for (int n = 22; n >= 1; --n) dSum = 1.0 + dSum * dR / n;
    return std::ldexp(dSum, static_cast<int>(dK));
}

Scaled16 ToScaled16(double dValue)
{
    if (!(dValue > 0.0)) return {0, 0};
    if (dValue >= 65535.0) return {0, 65535};
    int nScale = 0;
    while (dValue < 65535.0 && nScale < 30) {
        ++nScale;
        dValue *= 10.0;
    }
    --nScale;
    const double dRounded = std::floor(dValue / 10.0 + 0.5);
    return {nScale, static_cast<unsigned>(dRounded > 65535.0 ? 65535.0 : dRounded)};
}

Scaled32 ToScaled32(double dValue)
{
    if (!(dValue > 0.0)) return {0, 0};
    if (dValue >= 4294967295.0) return {0, 4294967295u};
    int nScale = 0;
    while (dValue < 4294967295.0 && nScale < 40) {
        ++nScale;
        dValue *= 10.0;
    }
    --nScale;
    const double dRounded = std::floor(dValue / 10.0 + 0.5);
    return {nScale, static_cast<uint32_t>(dRounded > 4294967295.0 ? 4294967295.0 : dRounded)};
}

double FromScaled(int nScale, double dValue)
{
    while (nScale > 0) {
        dValue /= 10.0;
        --nScale;
    }
    return dValue;
}

HuffmanTable BuildHuffmanTable(const std::array<uint32_t, 256>& counts)
{
    // Code sizes by repeatedly merging the two least frequent entries, with a
    // 257th entry of count 1 that reserves the all-ones code (ISO/IEC 10918-1 K.2).
    constexpr int kEntries = 257;
    std::array<uint64_t, kEntries> freq{};
    std::array<int, kEntries> codeSize{};
    std::array<int, kEntries> others{};
    for (int i = 0; i < 256; ++i) freq[static_cast<size_t>(i)] = counts[static_cast<size_t>(i)];
    freq[256] = 1;
    others.fill(-1);
    for (;;) {
        int v1 = -1;
        int v2 = -1;
        for (int i = 0; i < kEntries; ++i) {
            const uint64_t f = freq[static_cast<size_t>(i)];
            if (f == 0) continue;
            if (v1 < 0 || f <= freq[static_cast<size_t>(v1)]) {
                v2 = v1;
                v1 = i;
            } else if (v2 < 0 || f <= freq[static_cast<size_t>(v2)]) {
                v2 = i;
            }
        }
        if (v2 < 0) break;
        freq[static_cast<size_t>(v1)] += freq[static_cast<size_t>(v2)];
        freq[static_cast<size_t>(v2)] = 0;
        ++codeSize[static_cast<size_t>(v1)];
        while (others[static_cast<size_t>(v1)] >= 0) {
            v1 = others[static_cast<size_t>(v1)];
            ++codeSize[static_cast<size_t>(v1)];
        }
        others[static_cast<size_t>(v1)] = v2;
        ++codeSize[static_cast<size_t>(v2)];
        while (others[static_cast<size_t>(v2)] >= 0) {
            v2 = others[static_cast<size_t>(v2)];
            ++codeSize[static_cast<size_t>(v2)];
        }
    }
    std::array<int, kEntries + 1> bits{};
    int nUsed = 0;
    for (int i = 0; i < kEntries; ++i) {
        if (codeSize[static_cast<size_t>(i)] > 0) {
            ++bits[static_cast<size_t>(codeSize[static_cast<size_t>(i)])];
            ++nUsed;
        }
    }
    HuffmanTable table;
    if (nUsed < 2) return table;  // no symbol at all
    // Limit the lengths to 16 bits (K.3).
    for (int i = kEntries; i > 16; --i) {
        while (bits[static_cast<size_t>(i)] > 0) {
            int j = i - 2;
            while (bits[static_cast<size_t>(j)] == 0) --j;
            bits[static_cast<size_t>(i)] -= 2;
            bits[static_cast<size_t>(i - 1)] += 1;
            bits[static_cast<size_t>(j + 1)] += 2;
            bits[static_cast<size_t>(j)] -= 1;
        }
    }
    int nLongest = 16;
    while (bits[static_cast<size_t>(nLongest)] == 0) --nLongest;
    --bits[static_cast<size_t>(nLongest)];  // the reserved entry
    for (int i = 1; i <= 16; ++i)
        table.bits[static_cast<size_t>(i - 1)] = static_cast<uint8_t>(bits[static_cast<size_t>(i)]);
    for (int nSize = 1; nSize <= kEntries; ++nSize) {
        for (int s = 0; s < 256; ++s) {
            if (codeSize[static_cast<size_t>(s)] == nSize) table.values.push_back(static_cast<uint8_t>(s));
        }
    }
    return table;
}

HuffmanCodes MakeCodes(const HuffmanTable& table)
{
    HuffmanCodes codes;
    uint32_t nCode = 0;
    size_t k = 0;
    for (int nLen = 1; nLen <= 16; ++nLen) {
        for (int i = 0; i < table.bits[static_cast<size_t>(nLen - 1)] && k < table.values.size(); ++i, ++k) {
            codes.code[table.values[k]] = static_cast<uint16_t>(nCode++);
            codes.size[table.values[k]] = static_cast<uint8_t>(nLen);
        }
        nCode <<= 1;
    }
    return codes;
}

bool MakeDecoder(const HuffmanTable& table, HuffmanDecoder& decoder)
{
    decoder = HuffmanDecoder();
    size_t nTotal = 0;
    for (uint8_t b : table.bits) nTotal += b;
    if (nTotal > 256 || nTotal != table.values.size()) return false;
    int32_t nCode = 0;
    int32_t nIndex = 0;
    for (int nLen = 1; nLen <= 16; ++nLen) {
        const int nCount = table.bits[static_cast<size_t>(nLen - 1)];
        if (nCount == 0) {
            decoder.maxCode[static_cast<size_t>(nLen)] = -1;
        } else {
            decoder.valPtr[static_cast<size_t>(nLen)] = nIndex;
            decoder.minCode[static_cast<size_t>(nLen)] = nCode;
            for (int i = 0; i < nCount; ++i) {
                if (nCode >= (1 << nLen)) return false;
                if (nLen <= 8) {
                    const int nShift = 8 - nLen;
                    const int nFirst = nCode << nShift;
                    for (int f = 0; f < (1 << nShift); ++f) {
                        decoder.fast[static_cast<size_t>(nFirst + f)] =
                            static_cast<uint16_t>((nLen << 8) | table.values[static_cast<size_t>(nIndex)]);
                    }
                }
                ++nCode;
                ++nIndex;
            }
            decoder.maxCode[static_cast<size_t>(nLen)] = nCode - 1;
        }
        // More codes of this length than the length can hold: not a prefix code.
        if (nCode > (1 << nLen)) return false;
        nCode <<= 1;
    }
    decoder.values = table.values;
    decoder.bDefined = true;
    return true;
}

}  // namespace wsq
}  // namespace tavk05rec
