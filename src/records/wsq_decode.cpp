// WSQ decoder for any conforming file: tables taken from the file (including
// transform tables with other filter banks), restart intervals, fill bytes.
// Input is hostile: every length, count and marker is checked before use.
#include "wsq.h"
#include "wsq_internal.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <new>

namespace tavk05rec {
namespace {

using namespace wsq;

class Reader {
public:
    Reader(const unsigned char* pData, size_t nSize) : m_p(pData), m_nSize(nSize) {}
    size_t Pos() const { return m_nPos; }
    size_t Left() const { return m_nSize - m_nPos; }
    void Seek(size_t nPos) { m_nPos = nPos; }
    bool Byte(unsigned& nValue)
    {
        if (Left() < 1) return false;
        nValue = m_p[m_nPos++];
        return true;
    }
    bool Word(unsigned& nValue)
    {
        if (Left() < 2) return false;
        nValue = (static_cast<unsigned>(m_p[m_nPos]) << 8) | m_p[m_nPos + 1];
        m_nPos += 2;
        return true;
    }
    bool Long(uint32_t& nValue)
    {
        unsigned nHi, nLo;
        if (!Word(nHi) || !Word(nLo)) return false;
        nValue = (static_cast<uint32_t>(nHi) << 16) | nLo;
        return true;
    }
    // A marker, after any number of 0xFF fill bytes.
    bool Marker(int& nMarker)
    {
        if (Left() < 2 || m_p[m_nPos] != 0xFF) return false;
        while (Left() >= 2 && m_p[m_nPos] == 0xFF && m_p[m_nPos + 1] == 0xFF) ++m_nPos;
        unsigned nValue;
        if (!Word(nValue) || nValue == 0xFF00) return false;
        nMarker = static_cast<int>(nValue);
        return true;
    }
    const unsigned char* Data() const { return m_p; }
    size_t Size() const { return m_nSize; }

private:
    const unsigned char* m_p;
    size_t m_nSize;
    size_t m_nPos = 0;
};

// Entropy-coded segment reader: stops in front of the next marker.
class BitReader {
public:
    BitReader(const unsigned char* pData, size_t nSize, size_t nPos) : m_p(pData), m_nSize(nSize), m_nPos(nPos) {}
    size_t Pos() const { return m_nPos; }
    int Available()
    {
        Fill();
        return m_nBits;
    }
    // True at the end of the segment: only padding ones (fewer than 8) remain.
    bool AtEnd()
    {
        Fill();
        if (!m_bAtMarker || m_nBits >= 8) return false;
        const uint64_t nMask = (m_nBits == 0) ? 0 : ((uint64_t{1} << m_nBits) - 1);
        return (m_nAcc & nMask) == nMask;
    }
    bool Get(int nBits, uint32_t& nValue)
    {
        Fill();
        if (m_nBits < nBits) return false;
        m_nBits -= nBits;
        nValue = static_cast<uint32_t>((m_nAcc >> m_nBits) & ((uint64_t{1} << nBits) - 1));
        return true;
    }
    // Next 8 bits without consuming (zeros past the end), and how many are real.
    unsigned Peek8()
    {
        Fill();
        if (m_nBits >= 8) return static_cast<unsigned>((m_nAcc >> (m_nBits - 8)) & 0xFF);
        return static_cast<unsigned>((m_nAcc << (8 - m_nBits)) & 0xFF);
    }
    void Skip(int nBits) { m_nBits -= nBits; }

private:
    void Fill()
    {
        while (m_nBits <= 56 && !m_bAtMarker) {
            if (m_nPos >= m_nSize) {
                m_bAtMarker = true;
                break;
            }
            unsigned nByte = m_p[m_nPos];
            if (nByte == 0xFF) {
                if (m_nPos + 1 < m_nSize && m_p[m_nPos + 1] == 0x00) {
                    m_nPos += 2;
                } else {
                    m_bAtMarker = true;
                    break;
                }
            } else {
                ++m_nPos;
            }
            m_nAcc = (m_nAcc << 8) | nByte;
            m_nBits += 8;
        }
    }
    const unsigned char* m_p;
    size_t m_nSize;
    size_t m_nPos;
    uint64_t m_nAcc = 0;
    int m_nBits = 0;
    bool m_bAtMarker = false;
};

struct QuantTable {
    bool bDefined = false;
    double dBinCentre = 0.0;
    std::array<double, kSubbands> q{};
    std::array<double, kSubbands> z{};
};

struct Frame {
    bool bDefined = false;
    int nWidth = 0;
    int nHeight = 0;
    double dMean = 0.0;
    double dScale = 0.0;
    int nEncoder = 0;
};

struct DecoderState {
    FilterBank bank;
    bool bHaveTransform = false;
    QuantTable quant;
    std::array<HuffmanDecoder, kHuffmanTables> huffman;
    unsigned nRestart = 0;
    Frame frame;
    std::vector<std::string> comments;
};

// No table written by an encoder shifts the decimal point further: a 16-bit
// value moved 24 places is below 1e-19.
constexpr unsigned kMaxScale = 24;

WsqResult ParseDtt(Reader& r, size_t nLength, DecoderState& st)
{
    unsigned n0, n1;
    if (nLength < 4 || !r.Byte(n0) || !r.Byte(n1)) return kWsqCorrupt;
    FilterBank bank;
    bank.nLowLength = static_cast<int>(n0);
    bank.nHighLength = static_cast<int>(n1);
    if (n0 == 0 || n1 == 0 || (n0 % 2) != (n1 % 2)) return kWsqCorrupt;
    const bool bOdd = (n0 % 2) == 1;
    const unsigned nMax = bOdd ? kMaxFilterLength - 1 : kMaxFilterLength;
    if (n0 > nMax || n1 > nMax) return kWsqUnsupported;
    const size_t nLow = bOdd ? (n0 + 1) / 2 : n0 / 2;
    const size_t nHigh = bOdd ? (n1 + 1) / 2 : n1 / 2;
    if (nLength != 4 + 6 * (nLow + nHigh)) return kWsqCorrupt;
    for (size_t i = 0; i < nLow + nHigh; ++i) {
        unsigned nSign, nScale;
        uint32_t nValue;
        if (!r.Byte(nSign) || !r.Byte(nScale) || !r.Long(nValue) || nScale > kMaxScale) return kWsqCorrupt;
        double d = FromScaled(static_cast<int>(nScale), static_cast<double>(nValue));
        if (nSign != 0) d = -d;
        (i < nLow ? bank.low : bank.high).push_back(d);
    }
    if (!FilterBankValid(bank)) return kWsqCorrupt;
    st.bank = bank;
    st.bHaveTransform = true;
    return kWsqOk;
}

bool ReadScaled(Reader& r, double& dValue)
{
    unsigned nScale, nValue;
    if (!r.Byte(nScale) || !r.Word(nValue) || nScale > kMaxScale) return false;
    dValue = FromScaled(static_cast<int>(nScale), static_cast<double>(nValue));
    return true;
}

WsqResult ParseDqt(Reader& r, size_t nLength, DecoderState& st)
{
    if (nLength != 2 + 3 + 6 * kSubbands) return kWsqCorrupt;
    QuantTable t;
    if (!ReadScaled(r, t.dBinCentre)) return kWsqCorrupt;
    for (int k = 0; k < kSubbands; ++k) {
        if (!ReadScaled(r, t.q[static_cast<size_t>(k)]) || !ReadScaled(r, t.z[static_cast<size_t>(k)])) {
            return kWsqCorrupt;
        }
    }
    t.bDefined = true;
    st.quant = t;
    return kWsqOk;
}

WsqResult ParseDht(Reader& r, size_t nLength, DecoderState& st)
{
    size_t nLeft = nLength - 2;
    if (nLeft == 0) return kWsqCorrupt;
    while (nLeft > 0) {
        if (nLeft < 17) return kWsqCorrupt;
        unsigned nTable = 0;
        r.Byte(nTable);
        if (nTable >= kHuffmanTables) return kWsqCorrupt;
        HuffmanTable table;
        size_t nTotal = 0;
        for (int i = 0; i < 16; ++i) {
            unsigned b = 0;
            r.Byte(b);
            table.bits[static_cast<size_t>(i)] = static_cast<uint8_t>(b);
            nTotal += b;
        }
        nLeft -= 17;
        if (nTotal > 256 || nTotal > nLeft) return kWsqCorrupt;
        for (size_t i = 0; i < nTotal; ++i) {
            unsigned v = 0;
            r.Byte(v);
            table.values.push_back(static_cast<uint8_t>(v));
        }
        nLeft -= nTotal;
        if (!MakeDecoder(table, st.huffman[nTable])) return kWsqCorrupt;
    }
    return kWsqOk;
}

WsqResult ParseSof(Reader& r, size_t nLength, DecoderState& st)
{
    if (st.frame.bDefined) return kWsqCorrupt;  // one frame per file
    if (nLength != 17) return kWsqCorrupt;
    unsigned nBlack, nWhite, nHeight, nWidth, nEncoder, nSoftware;
    double dMean, dScale;
    if (!r.Byte(nBlack) || !r.Byte(nWhite) || !r.Word(nHeight) || !r.Word(nWidth) || !ReadScaled(r, dMean) ||
        !ReadScaled(r, dScale) || !r.Byte(nEncoder) || !r.Word(nSoftware)) {
        return kWsqCorrupt;
    }
    if (nWidth == 0 || nHeight == 0) return kWsqCorrupt;
    if (nWidth > static_cast<unsigned>(kWsqMaxSide) || nHeight > static_cast<unsigned>(kWsqMaxSide) ||
        static_cast<long long>(nWidth) * nHeight > kWsqMaxPixels) {
        return kWsqTooLarge;
    }
    st.frame.bDefined = true;
    st.frame.nWidth = static_cast<int>(nWidth);
    st.frame.nHeight = static_cast<int>(nHeight);
    st.frame.dMean = dMean;
    st.frame.dScale = dScale;
    st.frame.nEncoder = static_cast<int>(nEncoder);
    return kWsqOk;
}

// Where decoded coefficients go: the coded subbands in order, dequantised
// into the image at their regions.
class Sink {
public:
    Sink(const Layout& layout, const QuantTable& quant, double* pImage, int nStride, std::vector<int>* pIndices)
        : m_layout(layout), m_pImage(pImage), m_nStride(nStride), m_pIndices(pIndices)
    {
        for (int k = 0; k < kSubbands; ++k) {
            const Region& b = layout.subbands[static_cast<size_t>(k)];
            if (quant.q[static_cast<size_t>(k)] > 0.0 && b.nW > 0 && b.nH > 0) m_bands.push_back(k);
        }
        Advance(0);
    }
    bool Full() const { return m_nBand >= m_bands.size(); }
    bool Zeros(uint32_t nCount)
    {
        if (m_pIndices != nullptr && Room() >= nCount) m_pIndices->insert(m_pIndices->end(), nCount, 0);
        return Advance(nCount);
    }
    bool Value(int nValue, const QuantTable& quant)
    {
        if (Full()) return false;
        if (m_pIndices != nullptr) {
            m_pIndices->push_back(nValue);
            return Advance(1);
        }
        const size_t k = static_cast<size_t>(m_bands[m_nBand]);
        const Region& b = m_layout.subbands[k];
        const double dQ = quant.q[k];
        const double dHalfZ = quant.z[k] / 2.0;
        const double dC = quant.dBinCentre;
        const double dV = nValue > 0 ? dQ * (nValue - dC) + dHalfZ : dQ * (nValue + dC) - dHalfZ;
        // A subband has fewer than 2^32 coefficients (the frame is limited).
        const uint32_t nOffset = static_cast<uint32_t>(m_nOffset);
        const int nY = static_cast<int>(nOffset / static_cast<uint32_t>(b.nW));
        const int nX = static_cast<int>(nOffset % static_cast<uint32_t>(b.nW));
        m_pImage[static_cast<size_t>(b.nY + nY) * static_cast<size_t>(m_nStride) + static_cast<size_t>(b.nX + nX)] = dV;
        return Advance(1);
    }

private:
    uint64_t Room() const
    {
        uint64_t nRoom = 0;
        for (size_t i = m_nBand; i < m_bands.size(); ++i) {
            const Region& b = m_layout.subbands[static_cast<size_t>(m_bands[i])];
            nRoom += static_cast<uint64_t>(b.nW) * static_cast<uint64_t>(b.nH);
        }
        return nRoom - m_nOffset;
    }
    bool Advance(uint64_t nCount)
    {
        while (m_nBand < m_bands.size()) {
            const Region& b = m_layout.subbands[static_cast<size_t>(m_bands[m_nBand])];
            const uint64_t nSize = static_cast<uint64_t>(b.nW) * static_cast<uint64_t>(b.nH);
            const uint64_t nRoom = nSize - m_nOffset;
            if (nCount < nRoom) {
                m_nOffset += nCount;
                return true;
            }
            nCount -= nRoom;
            ++m_nBand;
            m_nOffset = 0;
        }
        return nCount == 0;
    }
    const Layout& m_layout;
    double* m_pImage;
    int m_nStride;
    std::vector<int>* m_pIndices;
    std::vector<int> m_bands;
    size_t m_nBand = 0;
    uint64_t m_nOffset = 0;
};

bool DecodeSymbol(BitReader& bits, const HuffmanDecoder& h, int& nSymbol)
{
    const int nAvail = bits.Available();
    const unsigned nFast = h.fast[bits.Peek8()];
    if (nFast != 0 && static_cast<int>(nFast >> 8) <= nAvail) {
        bits.Skip(static_cast<int>(nFast >> 8));
        nSymbol = static_cast<int>(nFast & 0xFF);
        return true;
    }
    int32_t nCode = 0;
    for (int nLen = 1; nLen <= 16; ++nLen) {
        uint32_t nBit;
        if (!bits.Get(1, nBit)) return false;
        nCode = (nCode << 1) | static_cast<int32_t>(nBit);
        if (h.maxCode[static_cast<size_t>(nLen)] >= 0 && nCode <= h.maxCode[static_cast<size_t>(nLen)] &&
            nCode >= h.minCode[static_cast<size_t>(nLen)]) {
            const int32_t nIndex = h.valPtr[static_cast<size_t>(nLen)] + nCode - h.minCode[static_cast<size_t>(nLen)];
            if (nIndex < 0 || static_cast<size_t>(nIndex) >= h.values.size()) return false;
            nSymbol = h.values[static_cast<size_t>(nIndex)];
            return true;
        }
    }
    return false;
}

// Decodes one entropy-coded segment; returns the position of the marker that ends it.
WsqResult DecodeSegment(const unsigned char* pData, size_t nSize, size_t& nPos, const HuffmanDecoder& h,
                        const QuantTable& quant, Sink& sink)
{
    BitReader bits(pData, nSize, nPos);
    while (!bits.AtEnd()) {
        int nSym;
        if (!DecodeSymbol(bits, h, nSym)) return kWsqCorrupt;
        bool bOk = true;
        uint32_t nExtra = 0;
        if (nSym >= 1 && nSym <= kMaxRunSymbol) {
            bOk = sink.Zeros(static_cast<uint32_t>(nSym));
        } else if (nSym == kSymEscRun8 || nSym == kSymEscRun16) {
            bOk = bits.Get(nSym == kSymEscRun8 ? 8 : 16, nExtra) && sink.Zeros(nExtra);
        } else if (nSym >= kSymEscPos8 && nSym <= kSymEscNeg16) {
            const int nBits = nSym <= kSymEscNeg8 ? 8 : 16;
            bOk = bits.Get(nBits, nExtra);
            const int nValue = static_cast<int>(nExtra);
            bOk = bOk && sink.Value((nSym == kSymEscPos8 || nSym == kSymEscPos16) ? nValue : -nValue, quant);
        } else if (nSym >= kSymZero + kMinCoefSymbol && nSym <= kSymZero + kMaxCoefSymbol && nSym != kSymZero) {
            bOk = sink.Value(nSym - kSymZero, quant);
        } else {
            bOk = false;
        }
        if (!bOk) return kWsqCorrupt;
    }
    nPos = bits.Pos();
    return kWsqOk;
}

void ParseNistcom(const std::string& strText, WsqInfo& info)
{
    if (strText.compare(0, 8, "NIST_COM") != 0) return;
    size_t nStart = 0;
    while (nStart < strText.size()) {
        size_t nEnd = strText.find('\n', nStart);
        if (nEnd == std::string::npos) nEnd = strText.size();
        const std::string strLine = strText.substr(nStart, nEnd - nStart);
        const size_t nSpace = strLine.find(' ');
        if (nSpace != std::string::npos) {
            const std::string strKey = strLine.substr(0, nSpace);
            const std::string strValue = strLine.substr(nSpace + 1);
            char* pEnd = nullptr;
            if (strKey == "PPI") {
                const long n = std::strtol(strValue.c_str(), &pEnd, 10);
                if (pEnd != strValue.c_str() && n > 0 && n < 1000000) info.nPpi = static_cast<int>(n);
            } else if (strKey == "WSQ_BITRATE") {
                // Decimal point whatever the locale: integer and fraction parts.
                const size_t nDot = strValue.find('.');
                const long nInt = std::strtol(strValue.substr(0, nDot).c_str(), &pEnd, 10);
                double dValue = static_cast<double>(nInt);
                if (nDot != std::string::npos) {
                    double dPlace = 0.1;
                    for (size_t i = nDot + 1; i < strValue.size() && strValue[i] >= '0' && strValue[i] <= '9'; ++i) {
                        dValue += (strValue[i] - '0') * dPlace;
                        dPlace /= 10.0;
                    }
                }
                if (dValue > 0.0 && dValue < 1000.0) info.dBitRate = dValue;
            }
        }
        nStart = nEnd + 1;
    }
}

// Walks the file. With pImage null only tables and headers are read (the
// entropy-coded data skipped); otherwise blocks are decoded into *pImage.
WsqResult Walk(const unsigned char* pData, size_t nSize, DecoderState& st, Scratch<double>* pImage, Layout* pLayout,
               std::vector<int>* pIndices = nullptr)
{
    if (pData == nullptr) return kWsqBadArgument;
    Reader r(pData, nSize);
    int nMarker;
    if (!r.Marker(nMarker) || nMarker != kMarkerSoi) return kWsqCorrupt;
    std::unique_ptr<Sink> sink;
    bool bAnyBlock = false;
    for (;;) {
        if (!r.Marker(nMarker)) return kWsqCorrupt;
        if (nMarker == kMarkerEoi) break;
        if (nMarker == kMarkerSoi || (nMarker >= kMarkerRst0 && nMarker <= kMarkerRst7)) return kWsqCorrupt;
        unsigned nLength;
        if (!r.Word(nLength) || nLength < 2 || nLength - 2 > r.Left()) return kWsqCorrupt;
        const size_t nEnd = r.Pos() + nLength - 2;
        WsqResult res = kWsqOk;
        switch (nMarker) {
            case kMarkerDtt:
                res = ParseDtt(r, nLength, st);
                break;
            case kMarkerDqt:
                res = ParseDqt(r, nLength, st);
                break;
            case kMarkerDht:
                res = ParseDht(r, nLength, st);
                break;
            case kMarkerSof:
                res = ParseSof(r, nLength, st);
                break;
            case kMarkerDri: {
                unsigned nRestart;
                if (nLength != 4 || !r.Word(nRestart)) return kWsqCorrupt;
                st.nRestart = nRestart;
                break;
            }
            case kMarkerCom:
                st.comments.emplace_back(reinterpret_cast<const char*>(pData + r.Pos()), nLength - 2);
                break;
            case kMarkerSob: {
                unsigned nTable;
                if (nLength != 3 || !r.Byte(nTable)) return kWsqCorrupt;
                if (!st.frame.bDefined || nTable >= kHuffmanTables || !st.huffman[nTable].bDefined) return kWsqCorrupt;
                if (!st.bHaveTransform || !st.quant.bDefined) return kWsqCorrupt;
                bAnyBlock = true;
                size_t nPos = nEnd;
                if (pImage != nullptr) {
                    if (!sink) {
                        bool bHh1 = false;
                        for (int k = kCodedSubbands; k < kSubbands; ++k)
                            bHh1 = bHh1 || st.quant.q[static_cast<size_t>(k)] > 0.0;
                        *pLayout = BuildLayout(st.frame.nWidth, st.frame.nHeight, bHh1);
                        double* pPlane = nullptr;
                        if (pIndices == nullptr) {
                            const size_t nPixels =
                                static_cast<size_t>(st.frame.nWidth) * static_cast<size_t>(st.frame.nHeight);
                            pPlane = pImage->Get(nPixels);
                            std::fill(pPlane, pPlane + nPixels, 0.0);
                        }
                        sink.reset(new Sink(*pLayout, st.quant, pPlane, st.frame.nWidth, pIndices));
                    }
                    // Entropy-coded segments, separated by restart markers.
                    for (;;) {
                        res = DecodeSegment(pData, nSize, nPos, st.huffman[nTable], st.quant, *sink);
                        if (res != kWsqOk) return res;
                        if (nPos + 1 < nSize && pData[nPos] == 0xFF && pData[nPos + 1] >= 0xB0 &&
                            pData[nPos + 1] <= 0xB7) {
                            nPos += 2;
                            continue;
                        }
                        break;
                    }
                } else {
                    // Skip to the next marker that is not a restart.
                    while (nPos + 1 < nSize) {
                        if (pData[nPos] == 0xFF && pData[nPos + 1] != 0x00 && pData[nPos + 1] != 0xFF &&
                            !(pData[nPos + 1] >= 0xB0 && pData[nPos + 1] <= 0xB7)) {
                            break;
                        }
                        ++nPos;
                    }
                }
                r.Seek(nPos);
                continue;
            }
            default:
                // Unknown segments with a length are skipped.
                break;
        }
        if (res != kWsqOk) return res;
        r.Seek(nEnd);
    }
    if (!st.frame.bDefined) return kWsqCorrupt;
    if (pImage != nullptr && !bAnyBlock) return kWsqCorrupt;
    return kWsqOk;
}

WsqResult FillInfo(const DecoderState& st, WsqInfo& info)
{
    info = WsqInfo();
    info.nWidth = st.frame.nWidth;
    info.nHeight = st.frame.nHeight;
    info.nEncoder = st.frame.nEncoder;
    info.bCustomFilters = st.bHaveTransform && !IsStandardFilters(st.bank);
    for (const std::string& s : st.comments) ParseNistcom(s, info);
    return kWsqOk;
}

}  // namespace

WsqResult WsqReadInfo(const unsigned char* pData, size_t nSize, WsqInfo& info)
{
    try {
        DecoderState st;
        const WsqResult res = Walk(pData, nSize, st, nullptr, nullptr);
        if (res != kWsqOk) return res;
        return FillInfo(st, info);
    } catch (const std::bad_alloc&) {
        return kWsqNoMemory;
    }
}

WsqResult WsqReadComments(const unsigned char* pData, size_t nSize, std::vector<WsqComment>& comments)
{
    comments.clear();
    try {
        DecoderState st;
        const WsqResult res = Walk(pData, nSize, st, nullptr, nullptr);
        if (res != kWsqOk) return res;
        for (const std::string& s : st.comments) comments.push_back({s});
        return kWsqOk;
    } catch (const std::bad_alloc&) {
        return kWsqNoMemory;
    }
}

WsqResult WsqDecode(const unsigned char* pData, size_t nSize, std::vector<unsigned char>& pixels, WsqInfo& info)
{
    WsqCodec codec;
    return codec.Decode(pData, nSize, pixels, info);
}

WsqResult WsqCodec::Decode(const unsigned char* pData, size_t nSize, std::vector<unsigned char>& pixels, WsqInfo& info)
{
    pixels.clear();
    try {
        if (!m_pWork) m_pWork.reset(new Workspace);
        DecoderState st;
        Layout layout;
        const WsqResult res = Walk(pData, nSize, st, &m_pWork->image, &layout);
        if (res != kWsqOk) return res;
        const size_t nPixels = static_cast<size_t>(st.frame.nWidth) * static_cast<size_t>(st.frame.nHeight);
        double* const pImage = m_pWork->image.Get(nPixels);
        m_pWork->TransformFor(st.bank).Inverse(pImage, st.frame.nWidth, layout);
        pixels.resize(nPixels);
        const double dScale = st.frame.dScale, dMean = st.frame.dMean;
        ToGreyPlain(pImage, ToGreySse2(pImage, nPixels, dScale, dMean, pixels.data()), nPixels, dScale, dMean,
                    pixels.data());
        return FillInfo(st, info);
    } catch (const std::bad_alloc&) {
        pixels.clear();
        return kWsqNoMemory;
    }
}

namespace wsq {

void ToGreyPlain(const double* pImage, size_t nFrom, size_t nCount, double dScale, double dMean, unsigned char* pOut)
{
    for (size_t i = nFrom; i < nCount; ++i) {
        const double d = pImage[i] * dScale + dMean + 0.5;
        pOut[i] = d < 0.0 ? 0 : (d > 255.0 ? 255 : static_cast<unsigned char>(d));
    }
}

}  // namespace wsq

WsqResult WsqReadQuantization(const unsigned char* pData, size_t nSize, WsqQuantization& quant)
{
    quant = WsqQuantization();
    try {
        DecoderState st;
        Scratch<double> unused;
        Layout layout;
        const WsqResult res = Walk(pData, nSize, st, &unused, &layout, &quant.indices);
        if (res != kWsqOk) return res;
        quant.dBinCentre = st.quant.dBinCentre;
        quant.q.assign(st.quant.q.begin(), st.quant.q.end());
        quant.z.assign(st.quant.z.begin(), st.quant.z.end());
        for (int k = 0; k < kSubbands; ++k) {
            const Region& b = layout.subbands[static_cast<size_t>(k)];
            quant.subbandSize.push_back(st.quant.q[static_cast<size_t>(k)] > 0.0 ? b.nW * b.nH : 0);
        }
        return kWsqOk;
    } catch (const std::bad_alloc&) {
        return kWsqNoMemory;
    }
}

const char* WsqResultText(WsqResult result)
{
    switch (result) {
        case kWsqOk:
            return "success";
        case kWsqBadArgument:
            return "invalid argument";
        case kWsqCorrupt:
            return "corrupt or truncated WSQ data";
        case kWsqUnsupported:
            return "unsupported WSQ feature";
        case kWsqTooLarge:
            return "image too large";
        case kWsqNoMemory:
            return "out of memory";
    }
    return "unknown result";
}

}  // namespace tavk05rec
