// Shared pieces of the WSQ encoder and decoder: marker codes, the subband
// layout of the FBI decomposition, the filter bank and its transform plans,
// deterministic elementary functions and the bit-level Huffman machinery.
#ifndef TAVK05_RECORDS_WSQ_INTERNAL_H
#define TAVK05_RECORDS_WSQ_INTERNAL_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "wsq.h"

namespace tavk05rec {
namespace wsq {

constexpr int kMarkerSoi = 0xFFA0;
constexpr int kMarkerEoi = 0xFFA1;
constexpr int kMarkerSof = 0xFFA2;
constexpr int kMarkerSob = 0xFFA3;
constexpr int kMarkerDtt = 0xFFA4;
constexpr int kMarkerDqt = 0xFFA5;
constexpr int kMarkerDht = 0xFFA6;
constexpr int kMarkerDri = 0xFFA7;
constexpr int kMarkerCom = 0xFFA8;
constexpr int kMarkerRst0 = 0xFFB0;
constexpr int kMarkerRst7 = 0xFFB7;

constexpr int kSubbands = 64;
constexpr int kCodedSubbands = 60;  // subbands 60..63 are never coded by encoder number two
constexpr int kMaxFilterLength = 32;
constexpr int kHuffmanTables = 8;

struct Region {
    int nX = 0;
    int nY = 0;
    int nW = 0;
    int nH = 0;
};

// One two-dimensional split of the decomposition: rows are filtered first,
// then columns. An inverted axis stores its highpass half first.
struct Split {
    Region region;
    bool bInvRows = false;
    bool bInvCols = false;
};

// The 64-subband structure for an image of nWidth x nHeight: the splits in
// analysis order and the region of each subband. bWithHh1 adds the split of
// the first level's diagonal band (subbands 60..63), which encoder number two
// never codes.
struct Layout {
    std::vector<Split> splits;
    std::array<Region, kSubbands> subbands;
};
Layout BuildLayout(int nWidth, int nHeight, bool bWithHh1);

// Analysis filters as transmitted in the transform table: the right halves,
// starting at the centre (A.2.1.1 of the standard).
struct FilterBank {
    int nLowLength = 0;        // L0
    int nHighLength = 0;       // L1
    std::vector<double> low;   // h0 coefficients from the file, centre first
    std::vector<double> high;  // h1 coefficients from the file, centre first
};
FilterBank StandardFilters();  // the 7/9 pair of encoder number two
bool FilterBankValid(const FilterBank& bank);
bool IsStandardFilters(const FilterBank& bank);

// Full impulse responses with their first index: h(n) for n = nFirst .. nFirst + size - 1.
struct Impulse {
    int nFirst = 0;
    std::vector<double> taps;
};

// Per-output lists of (coefficient, source index) for one line length: the
// symmetric extension folded in. Used along rows and along columns alike.
struct LinePlan {
    int nLength = 0;
    std::vector<int> offsets;  // nLength + 1 entries into coef/source
    std::vector<double> coef;
    std::vector<int> source;
};

// Rows filtered by phases: the extended row is gathered once into two
// phase buffers (even and odd samples for analysis, the two extended bands
// for synthesis); each output group then has fixed taps into them, so the
// same vector kernel as for columns runs along the row. The taps of an output
// are those of its LinePlan, in the same order, so the sums are the same.
struct RowGroup {
    int nCount = 0;
    int nOutAt = 0;
    int nOutStep = 1;
    std::vector<double> coef;
    std::vector<int> source;
};
// A stretch of the gather whose samples are taken unchanged from the row at
// a fixed step (1 or 2); nStep 0 marks a single entry taken through the
// gather and sign tables (the folded ends).
struct GatherRun {
    int nAt = 0;
    int nCount = 0;
    int nSource = 0;
    int nStep = 0;
};
struct RowPlan {
    int nLength = 0;
    std::vector<int> gather;      // row index of each phase sample, -1 for zero
    std::vector<double> sign;     // +1 or -1 applied to the gathered sample
    std::vector<GatherRun> runs;  // the gather, cut into stretches
    RowGroup groups[2];
};

class Transform {
public:
    explicit Transform(const FilterBank& bank);
    // Analysis and synthesis of one line length, cached.
    const LinePlan& AnalysisPlan(int nLength, bool bInverted);
    const LinePlan& SynthesisPlan(int nLength, bool bInverted);
    // Whole decomposition in place on a row-major image of stride nStride.
    void Forward(double* pImage, int nStride, const Layout& layout);
    void Inverse(double* pImage, int nStride, const Layout& layout);

private:
    LinePlan MakeAnalysis(int nLength, bool bInverted) const;
    LinePlan MakeSynthesis(int nLength, bool bInverted) const;
    const LinePlan& Cached(int nLength, bool bInverted, bool bSynthesis);
    RowPlan MakeRowAnalysis(int nLength, bool bInverted) const;
    RowPlan MakeRowSynthesis(int nLength, bool bInverted) const;
    const RowPlan& CachedRow(int nLength, bool bInverted, bool bSynthesis);
    void ApplyRows(double* pImage, int nStride, const Region& region, const RowPlan& plan);
    void ApplyCols(double* pImage, int nStride, const Region& region, const LinePlan& plan);

    bool m_bWholeSample;
    Impulse m_h0, m_h1, m_f0, m_f1;
    struct CacheEntry {
        int nLength;
        bool bInverted;
        bool bSynthesis;
        LinePlan plan;
    };
    std::vector<CacheEntry> m_cache;
    struct RowCacheEntry {
        int nLength;
        bool bInverted;
        bool bSynthesis;
        RowPlan plan;
    };
    std::vector<RowCacheEntry> m_rowCache;
    std::vector<double> m_phase;
    std::vector<double> m_temp;
};

// An array of at most the largest count asked for so far, left uninitialised
// and kept between uses.
template <typename T>
class Scratch {
public:
    T* Get(size_t nCount)
    {
        if (nCount > m_nCapacity) {
            m_p.reset();
            m_nCapacity = 0;
            m_p.reset(new T[nCount]);
            m_nCapacity = nCount;
        }
        return m_p.get();
    }

private:
    std::unique_ptr<T[]> m_p;
    size_t m_nCapacity = 0;
};

// What a WsqCodec keeps between images.
struct Workspace {
    Scratch<double> image;  // transform coefficients, row-major
    Scratch<int> indices;   // the encoder's bin indices, block after block
    // The transform of a filter bank, with its plans; made again only when
    // the bank differs from the last one.
    Transform& TransformFor(const FilterBank& bank);

private:
    FilterBank m_bank;
    std::unique_ptr<Transform> m_pTransform;
};

// Combines rows: pOut[x] = sum over t of pCoef[t] * pBase[pSource[t] * nRowStride + x],
// for x < nCount, taps in order. The SSE2 kernel does a prefix and returns how
// many outputs it did; the plain loop finishes from nFrom.
void CombineRowsPlain(double* pOut, const double* pBase, size_t nRowStride, const int* pSource, const double* pCoef,
                      int nTaps, int nFrom, int nCount);
int CombineRowsSse2(double* pOut, const double* pBase, size_t nRowStride, const int* pSource, const double* pCoef,
                    int nTaps, int nCount);

// Takes every other sample: pOut[i] = pFrom[2i] for i < nCount (the
// analysis rows' even and odd phases). Kernel prefix, plain rest.
void EveryOtherPlain(double* pOut, const double* pFrom, int nFrom, int nCount);
int EveryOtherSse2(double* pOut, const double* pFrom, int nCount);

// Interleaves: pOut[2k] = pEven[k], pOut[2k + 1] = pOdd[k] for k < nPairs
// (the synthesis rows' even and odd outputs). Kernel prefix, plain rest.
void InterleavePlain(double* pOut, const double* pEven, const double* pOdd, int nFrom, int nPairs);
int InterleaveSse2(double* pOut, const double* pEven, const double* pOdd, int nPairs);

// Sum, least and greatest of grey levels (the encoder's normalisation).
// Kernel prefix, plain rest from nFrom.
struct GreyStats {
    uint64_t nSum = 0;
    int nMin = 255;
    int nMax = 0;
};
void GreyStatsPlain(const unsigned char* pPixels, size_t nFrom, size_t nCount, GreyStats& stats);
size_t GreyStatsSse2(const unsigned char* pPixels, size_t nCount, GreyStats& stats);

// Bin indices of nCount coefficients with bin width dQ and half the zero
// bin dHalfZ (A.3.1 of the standard), truncated toward zero. Kernel prefix,
// plain rest from nFrom.
void QuantizePlain(const double* pCoef, int nFrom, int nCount, double dQ, double dHalfZ, int* pOut);
int QuantizeSse2(const double* pCoef, int nCount, double dQ, double dHalfZ, int* pOut);

// Where the run of zero indices that starts at nFrom ends (nCount when it
// reaches the end). The kernel skips whole groups of zeros from the start
// and returns how many it skipped; the plain loop goes on from there.
size_t ZeroRunPlain(const int* pIndex, size_t nFrom, size_t nCount);
size_t ZeroRunSse2(const int* pIndex, size_t nCount);

// Grey levels of the reconstruction: value * dScale + dMean, rounded by
// adding one half and truncating, limited to 0..255. Kernel prefix, plain
// rest from nFrom.
void ToGreyPlain(const double* pImage, size_t nFrom, size_t nCount, double dScale, double dMean, unsigned char* pOut);
size_t ToGreySse2(const double* pImage, size_t nCount, double dScale, double dMean, unsigned char* pOut);

// Elementary functions computed the same way on every ABI (the C library's
// log and exp differ between i386 and x86_64 in the last bits).
double DetLog(double dX);
double DetExp(double dX);

// Scaled decimal values of the tables: value / 10^scale.
struct Scaled16 {
    int nScale;
    unsigned nValue;
};
Scaled16 ToScaled16(double dValue);
struct Scaled32 {
    int nScale;
    uint32_t nValue;
};
Scaled32 ToScaled32(double dValue);
double FromScaled(int nScale, double dValue);

// Huffman tables in the interchange form: BITS (codes of each length 1..16)
// and HUFFVAL (symbols in order of increasing code length).
struct HuffmanTable {
    std::array<uint8_t, 16> bits{};
    std::vector<uint8_t> values;
};
// Optimal code lengths for the symbol counts (256 entries), limited to 16
// bits with the all-ones code reserved (Annex K of ISO/IEC 10918-1).
HuffmanTable BuildHuffmanTable(const std::array<uint32_t, 256>& counts);

// Encoding codes per symbol.
struct HuffmanCodes {
    std::array<uint16_t, 256> code{};
    std::array<uint8_t, 256> size{};
};
HuffmanCodes MakeCodes(const HuffmanTable& table);

// Decoding tables (F.2.2.3 of ISO/IEC 10918-1) with a lookup for short codes.
struct HuffmanDecoder {
    bool bDefined = false;
    std::array<int32_t, 17> minCode{};
    std::array<int32_t, 17> maxCode{};
    std::array<int32_t, 17> valPtr{};
    std::vector<uint8_t> values;
    std::array<uint16_t, 256> fast{};  // (length << 8) | symbol for 8-bit prefixes, 0 when longer
};
bool MakeDecoder(const HuffmanTable& table, HuffmanDecoder& decoder);

// The encoder with any filter bank (the FBI settings use StandardFilters()).
WsqResult Encode(const unsigned char* pPixels, int nWidth, int nHeight, int nPpi, double dBitRate,
                 const std::vector<std::pair<std::string, std::string>>& extraNistcom, const FilterBank& bank,
                 Workspace& work, std::vector<unsigned char>& out);

// Symbols of the coding model (Table A.2 of the standard).
constexpr int kSymEscPos8 = 101;
constexpr int kSymEscNeg8 = 102;
constexpr int kSymEscPos16 = 103;
constexpr int kSymEscNeg16 = 104;
constexpr int kSymEscRun8 = 105;
constexpr int kSymEscRun16 = 106;
constexpr int kSymZero = 180;
constexpr int kMaxRunSymbol = 100;
constexpr int kMinCoefSymbol = -73;
constexpr int kMaxCoefSymbol = 74;

}  // namespace wsq
}  // namespace tavk05rec

#endif
