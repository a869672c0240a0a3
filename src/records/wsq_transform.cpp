// The symmetric wavelet transform of the WSQ standard (Annex A.2): the
// 64-subband structure, the filter bank taken from a transform table and the
// line plans that fold the symmetric extensions into per-output tap lists.
#include "wsq_internal.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace tavk05rec {
namespace wsq {
namespace {

struct Children {
    Split tl, tr, bl, br;
};

// Splits a region: the lowpass half of an axis has the larger share of an odd
// length; an inverted axis stores its highpass half first.
Children SplitRegion(const Split& parent)
{
    const Region& r = parent.region;
    const int nLowW = (r.nW + 1) / 2;
    const int nLowH = (r.nH + 1) / 2;
    const int nFirstW = parent.bInvRows ? r.nW - nLowW : nLowW;
    const int nFirstH = parent.bInvCols ? r.nH - nLowH : nLowH;
    Children c;
    c.tl.region = {r.nX, r.nY, nFirstW, nFirstH};
    c.tr.region = {r.nX + nFirstW, r.nY, r.nW - nFirstW, nFirstH};
    c.bl.region = {r.nX, r.nY + nFirstH, nFirstW, r.nH - nFirstH};
    c.br.region = {r.nX + nFirstW, r.nY + nFirstH, r.nW - nFirstW, r.nH - nFirstH};
    // A band taken from the highpass side of a split has its spectrum
    // reversed; splitting it again stores its highpass half first.
    c.tr.bInvRows = true;
    c.bl.bInvCols = true;
    c.br.bInvRows = true;
    c.br.bInvCols = true;
    return c;
}

void FourBands(const Children& c, Layout& layout, int nFirst)
{
    layout.subbands[nFirst] = c.tl.region;
    layout.subbands[nFirst + 1] = c.tr.region;
    layout.subbands[nFirst + 2] = c.bl.region;
    layout.subbands[nFirst + 3] = c.br.region;
}

// Folds n into [0, nHalf] for a signal symmetric about 0 and nHalf (period
// 2 nHalf); *pSign becomes -1 when the fold crossed a centre an odd number of times.
int Fold(long long n, long long nHalf, int* pSign)
{
    *pSign = 1;
    if (nHalf == 0) return 0;
    const long long nPeriod = 2 * nHalf;
    long long r = n % nPeriod;
    if (r < 0) r += nPeriod;
    if (r > nHalf) {
        r = nPeriod - r;
        *pSign = -1;
    }
    return static_cast<int>(r);
}

// Where the two halves of a line of nLength samples are stored: the lowpass
// half has the larger share of an odd length; an inverted line stores its
// highpass half first.
struct Halves {
    int nLow;
    int nHigh;
    int nLowAt;
    int nHighAt;
};

Halves HalvesOf(int nLength, bool bInverted)
{
    const int nLow = (nLength + 1) / 2;
    const int nHigh = nLength / 2;
    return {nLow, nHigh, bInverted ? nHigh : 0, bInverted ? 0 : nLow};
}

// Sample n of the analysis extension of a line of nLength samples.
int AnalysisSource(long long n, int nLength, bool bWholeSample)
{
    int nSign;
    if (bWholeSample) return Fold(n, nLength - 1, &nSign);
    // Half-sample symmetric about -1/2 and nLength - 1/2.
    const long long nPeriod = 2LL * nLength;
    long long r = n % nPeriod;
    if (r < 0) r += nPeriod;
    if (r >= nLength) r = nPeriod - 1 - r;
    return static_cast<int>(r);
}

// Stored index and sign of band nBand's value c0(n) or c1(n), n even, in the
// synthesis extension of a line of nLength samples; -1 when it is zero.
int SynthesisSource(long long n, int nBand, int nLength, bool bWholeSample, const Halves& halves, int* pSign)
{
    *pSign = 1;
    int s;
    if (nBand == 0) {
        return bWholeSample ? halves.nLowAt + Fold(n, nLength - 1, &s) / 2
                            : halves.nLowAt + (Fold(n + 1, nLength, &s) - 1) / 2;
    }
    if (halves.nHigh == 0) return -1;
    if (bWholeSample) return halves.nHighAt + (Fold(n + 1, nLength - 1, &s) - 1) / 2;
    const int r = Fold(n + 1, nLength, pSign);
    return (r == 0 || r == nLength) ? -1 : halves.nHighAt + (r - 1) / 2;
}

}  // namespace

Layout BuildLayout(int nWidth, int nHeight, bool bWithHh1)
{
    Layout layout;
    Split root;
    root.region = {0, 0, nWidth, nHeight};
    layout.splits.push_back(root);
    const Children level1 = SplitRegion(root);
    layout.splits.push_back(level1.tl);
    layout.splits.push_back(level1.tr);
    layout.splits.push_back(level1.bl);
    const Children ll1 = SplitRegion(level1.tl);
    layout.splits.push_back(ll1.tr);
    layout.splits.push_back(ll1.bl);
    const Children n4 = SplitRegion(ll1.tr);
    const Children n5 = SplitRegion(ll1.bl);
    const Split* apGroup[] = {&n4.tl, &n4.tr, &n4.bl, &n4.br, &n5.tl, &n5.tr, &n5.bl, &n5.br};
    int nBand = 19;
    for (const Split* p : apGroup) {
        layout.splits.push_back(*p);
        FourBands(SplitRegion(*p), layout, nBand);
        nBand += 4;
    }
    layout.splits.push_back(ll1.tl);
    const Children n14 = SplitRegion(ll1.tl);
    const Split* apSmall[] = {&n14.tl, &n14.tr, &n14.bl, &n14.br};
    nBand = 3;
    for (const Split* p : apSmall) {
        layout.splits.push_back(*p);
        FourBands(SplitRegion(*p), layout, nBand);
        nBand += 4;
    }
    const Children n15 = SplitRegion(n14.tl);
    layout.splits.push_back(n15.tl);
    FourBands(SplitRegion(n15.tl), layout, 0);
    layout.subbands[4] = n15.tr.region;
    layout.subbands[5] = n15.bl.region;
    layout.subbands[6] = n15.br.region;
    layout.subbands[51] = ll1.br.region;
    FourBands(SplitRegion(level1.tr), layout, 52);
    FourBands(SplitRegion(level1.bl), layout, 56);
    FourBands(SplitRegion(level1.br), layout, 60);
    if (bWithHh1) layout.splits.push_back(level1.br);
    return layout;
}

FilterBank StandardFilters()
{
    // Encoder number two's analysis pair (Part 3, Table 1), right halves from the centre.
    FilterBank bank;
    bank.nLowLength = 9;
    bank.nHighLength = 7;
    bank.low = {0.852698679009403, 0.377402855612654, -0.110624404418423, -0.023849465019380, 0.037828455506995};
    bank.high = {0.788485616405664, -0.418092273222212, -0.040689417609558, 0.064538882628938};
    return bank;
}

bool FilterBankValid(const FilterBank& bank)
{
    const int n0 = bank.nLowLength;
    const int n1 = bank.nHighLength;
    if (n0 < 1 || n1 < 1) return false;
    if ((n0 % 2) != (n1 % 2)) return false;
    const bool bOdd = (n0 % 2) == 1;
    const int nMax = bOdd ? kMaxFilterLength - 1 : kMaxFilterLength;
    if (n0 > nMax || n1 > nMax) return false;
    const size_t nLow = bOdd ? static_cast<size_t>((n0 + 1) / 2) : static_cast<size_t>(n0 / 2);
    const size_t nHigh = bOdd ? static_cast<size_t>((n1 + 1) / 2) : static_cast<size_t>(n1 / 2);
    if (bank.low.size() != nLow || bank.high.size() != nHigh) return false;
    for (double d : bank.low) {
        if (!std::isfinite(d)) return false;
    }
    for (double d : bank.high) {
        if (!std::isfinite(d)) return false;
    }
    return true;
}

bool IsStandardFilters(const FilterBank& bank)
{
    const FilterBank ref = StandardFilters();
    if (bank.nLowLength != ref.nLowLength || bank.nHighLength != ref.nHighLength) return false;
    if (bank.low.size() != ref.low.size() || bank.high.size() != ref.high.size()) return false;
    for (size_t i = 0; i < ref.low.size(); ++i) {
        if (std::fabs(bank.low[i] - ref.low[i]) > 1e-6) return false;
    }
    for (size_t i = 0; i < ref.high.size(); ++i) {
        if (std::fabs(bank.high[i] - ref.high[i]) > 1e-6) return false;
    }
    return true;
}

Transform::Transform(const FilterBank& bank) : m_bWholeSample((bank.nLowLength % 2) == 1)
{
    const int n0 = bank.nLowLength;
    const int n1 = bank.nHighLength;
    if (m_bWholeSample) {
        // h0 symmetric about 0; h1 symmetric about -1.
        const int r0 = (n0 - 1) / 2;
        const int r1 = (n1 - 1) / 2;
        m_h0.nFirst = -r0;
        for (int n = -r0; n <= r0; ++n) m_h0.taps.push_back(bank.low[static_cast<size_t>(std::abs(n))]);
        m_h1.nFirst = -1 - r1;
        for (int n = -1 - r1; n <= -1 + r1; ++n) m_h1.taps.push_back(bank.high[static_cast<size_t>(std::abs(n + 1))]);
    } else {
        // Both centred at -1/2: h0 symmetric, h1 antisymmetric.
        const int r0 = n0 / 2;
        const int r1 = n1 / 2;
        m_h0.nFirst = -r0;
        for (int n = -r0; n < r0; ++n)
            m_h0.taps.push_back(n >= 0 ? bank.low[static_cast<size_t>(n)] : bank.low[static_cast<size_t>(-1 - n)]);
        m_h1.nFirst = -r1;
        for (int n = -r1; n < r1; ++n)
            m_h1.taps.push_back(n >= 0 ? bank.high[static_cast<size_t>(n)] : -bank.high[static_cast<size_t>(-1 - n)]);
    }
    // Synthesis filters from the anti-aliasing relations: f0(n) ~ (-1)^n h1(n-1),
    // f1(n) ~ (-1)^n h0(n-1); their two gains are fitted so that analysis
    // followed by synthesis is the identity on an unbounded line.
    auto alternate = [](const Impulse& h) {
        Impulse f;
        f.nFirst = h.nFirst + 1;
        for (size_t i = 0; i < h.taps.size(); ++i) {
            const int n = f.nFirst + static_cast<int>(i);
            f.taps.push_back((n % 2 == 0) ? h.taps[i] : -h.taps[i]);
        }
        return f;
    };
    m_f0 = alternate(m_h1);
    m_f1 = alternate(m_h0);
    // Responses to a unit sample at p = 0 and p = 1 through each channel.
    constexpr int kSpan = 4 * kMaxFilterLength + 8;
    double a11 = 0, a12 = 0, a22 = 0, b1 = 0, b2 = 0;
    for (int p = 0; p < 2; ++p) {
        std::vector<double> respLow(2 * kSpan + 1, 0.0), respHigh(2 * kSpan + 1, 0.0);
        auto channel = [&](const Impulse& h, const Impulse& f, std::vector<double>& resp) {
            for (size_t i = 0; i < h.taps.size(); ++i) {
                const int m = h.nFirst + static_cast<int>(i);  // 2k - p = m
                if (((m + p) % 2) != 0) continue;
                for (size_t j = 0; j < f.taps.size(); ++j) {
                    const int n = m + p + f.nFirst + static_cast<int>(j);
                    resp[static_cast<size_t>(n + kSpan)] += h.taps[i] * f.taps[j];
                }
            }
        };
        channel(m_h0, m_f0, respLow);
        channel(m_h1, m_f1, respHigh);
        for (int n = -kSpan; n <= kSpan; ++n) {
            const double dA = respLow[static_cast<size_t>(n + kSpan)];
            const double dB = respHigh[static_cast<size_t>(n + kSpan)];
            const double dTarget = (n == p) ? 1.0 : 0.0;
            a11 += dA * dA;
            a12 += dA * dB;
            a22 += dB * dB;
            b1 += dA * dTarget;
            b2 += dB * dTarget;
        }
    }
    const double dDet = a11 * a22 - a12 * a12;
    double s0 = 1.0, s1 = -1.0;
    if (std::fabs(dDet) > 1e-300) {
        s0 = (b1 * a22 - b2 * a12) / dDet;
        s1 = (a11 * b2 - a12 * b1) / dDet;
    }
    if (!std::isfinite(s0) || !std::isfinite(s1)) {
        s0 = 1.0;
        s1 = -1.0;
    }
    for (double& d : m_f0.taps) d *= s0;
    for (double& d : m_f1.taps) d *= s1;
}

LinePlan Transform::MakeAnalysis(int nLength, bool bInverted) const
{
    LinePlan plan;
    plan.nLength = nLength;
    const Halves halves = HalvesOf(nLength, bInverted);
    std::vector<int> order(static_cast<size_t>(nLength));
    for (int k = 0; k < halves.nLow; ++k) order[static_cast<size_t>(halves.nLowAt + k)] = 2 * k;
    for (int k = 0; k < halves.nHigh; ++k) order[static_cast<size_t>(halves.nHighAt + k)] = -1 - 2 * k;
    plan.offsets.push_back(0);
    for (int o = 0; o < nLength; ++o) {
        const int nCode = order[static_cast<size_t>(o)];
        const bool bLow = nCode >= 0;
        const long long nCentre = bLow ? nCode : (-1 - nCode);  // 2k
        const Impulse& h = bLow ? m_h0 : m_h1;
        for (size_t i = 0; i < h.taps.size(); ++i) {
            const long long m = h.nFirst + static_cast<long long>(i);
            plan.coef.push_back(h.taps[i]);
            plan.source.push_back(AnalysisSource(nCentre - m, nLength, m_bWholeSample));
        }
        plan.offsets.push_back(static_cast<int>(plan.coef.size()));
    }
    return plan;
}

LinePlan Transform::MakeSynthesis(int nLength, bool bInverted) const
{
    LinePlan plan;
    plan.nLength = nLength;
    const Halves halves = HalvesOf(nLength, bInverted);
    plan.offsets.push_back(0);
    for (int n = 0; n < nLength; ++n) {
        for (int nBand = 0; nBand < 2; ++nBand) {
            const Impulse& f = nBand == 0 ? m_f0 : m_f1;
            for (size_t i = 0; i < f.taps.size(); ++i) {
                const long long j = f.nFirst + static_cast<long long>(i);
                if (((n - j) % 2) != 0) continue;
                const long long nC = n - j;  // 2k
                int nSign;
                const int nSrc = SynthesisSource(nC, nBand, nLength, m_bWholeSample, halves, &nSign);
                if (nSrc < 0) continue;
                plan.coef.push_back(nSign * f.taps[i]);
                plan.source.push_back(nSrc);
            }
        }
        plan.offsets.push_back(static_cast<int>(plan.coef.size()));
    }
    return plan;
}

// A transform kept by a codec sees images of many sizes; past this many
// plans its caches start again rather than grow without bound.
constexpr size_t kMaxCachedPlans = 64;

const LinePlan& Transform::Cached(int nLength, bool bInverted, bool bSynthesis)
{
    for (const CacheEntry& e : m_cache) {
        if (e.nLength == nLength && e.bInverted == bInverted && e.bSynthesis == bSynthesis) return e.plan;
    }
    if (m_cache.size() >= kMaxCachedPlans) m_cache.clear();
    m_cache.push_back({nLength, bInverted, bSynthesis,
                       bSynthesis ? MakeSynthesis(nLength, bInverted) : MakeAnalysis(nLength, bInverted)});
    return m_cache.back().plan;
}

const LinePlan& Transform::AnalysisPlan(int nLength, bool bInverted) { return Cached(nLength, bInverted, false); }
const LinePlan& Transform::SynthesisPlan(int nLength, bool bInverted) { return Cached(nLength, bInverted, true); }

RowPlan Transform::MakeRowAnalysis(int nLength, bool bInverted) const
{
    constexpr int kPad = 20;  // even, beyond the longest filter's half length
    const Halves halves = HalvesOf(nLength, bInverted);
    const int nPhase = (nLength + 2 * kPad + 1) / 2 + 1;
    RowPlan plan;
    plan.nLength = nLength;
    for (int nOdd = 0; nOdd < 2; ++nOdd) {
        for (int j = 0; j < nPhase; ++j) {
            plan.gather.push_back(AnalysisSource(-kPad + 2LL * j + nOdd, nLength, m_bWholeSample));
            plan.sign.push_back(1.0);
        }
    }
    for (int nBand = 0; nBand < 2; ++nBand) {
        RowGroup& g = plan.groups[nBand];
        const Impulse& h = nBand == 0 ? m_h0 : m_h1;
        g.nCount = nBand == 0 ? halves.nLow : halves.nHigh;
        g.nOutAt = nBand == 0 ? halves.nLowAt : halves.nHighAt;
        for (size_t i = 0; i < h.taps.size(); ++i) {
            const int m = h.nFirst + static_cast<int>(i);  // sample 2k - m
            g.coef.push_back(h.taps[i]);
            g.source.push_back(((m % 2) == 0) ? (kPad - m) / 2 : nPhase + (kPad - m - 1) / 2);
        }
    }
    return plan;
}

RowPlan Transform::MakeRowSynthesis(int nLength, bool bInverted) const
{
    constexpr int kPad = 12;  // beyond half the longest synthesis filter
    const Halves halves = HalvesOf(nLength, bInverted);
    const int nPhase = halves.nLow + 2 * kPad + 2;
    RowPlan plan;
    plan.nLength = nLength;
    // Phase buffers: b0(u - kPad) and b1(u - kPad), from the stored halves
    // through their symmetric (or antisymmetric) extensions.
    for (int nBand = 0; nBand < 2; ++nBand) {
        for (int u = 0; u < nPhase; ++u) {
            int nSign;
            const int nIndex = SynthesisSource(2LL * (u - kPad), nBand, nLength, m_bWholeSample, halves, &nSign);
            plan.gather.push_back(nIndex);
            plan.sign.push_back(nSign);
        }
    }
    // Even outputs n = 2t take the taps j of even index, odd outputs the odd ones;
    // band 0 first, taps ascending, as in the line plan.
    for (int nParity = 0; nParity < 2; ++nParity) {
        RowGroup& g = plan.groups[nParity];
        g.nCount = nParity == 0 ? halves.nLow : halves.nHigh;
        g.nOutAt = nParity;
        g.nOutStep = 2;
        for (int nBand = 0; nBand < 2; ++nBand) {
            const Impulse& f = nBand == 0 ? m_f0 : m_f1;
            for (size_t i = 0; i < f.taps.size(); ++i) {
                const int j = f.nFirst + static_cast<int>(i);
                if (((j - nParity) % 2) != 0) continue;
                g.coef.push_back(f.taps[i]);
                g.source.push_back(nBand * nPhase + kPad - (j - nParity) / 2);
            }
        }
    }
    return plan;
}

namespace {

// Cuts the gather into stretches of unit or double step (at least four
// samples long) and single entries.
void CutRuns(RowPlan& plan)
{
    const int nGather = static_cast<int>(plan.gather.size());
    auto plain = [&](int g) {
        return plan.gather[static_cast<size_t>(g)] >= 0 && plan.sign[static_cast<size_t>(g)] == 1.0;
    };
    int g = 0;
    while (g < nGather) {
        int nEnd = g + 1;
        int nStep = 0;
        if (plain(g) && nEnd < nGather && plain(nEnd)) {
            nStep = plan.gather[static_cast<size_t>(nEnd)] - plan.gather[static_cast<size_t>(g)];
            if (nStep == 1 || nStep == 2) {
                while (nEnd < nGather && plain(nEnd) &&
                       plan.gather[static_cast<size_t>(nEnd)] - plan.gather[static_cast<size_t>(nEnd - 1)] == nStep) {
                    ++nEnd;
                }
            }
            if ((nStep != 1 && nStep != 2) || nEnd - g < 4) {
                nStep = 0;
                nEnd = g + 1;
            }
        }
        plan.runs.push_back({g, nEnd - g, plan.gather[static_cast<size_t>(g)], nStep});
        g = nEnd;
    }
}

}  // namespace

const RowPlan& Transform::CachedRow(int nLength, bool bInverted, bool bSynthesis)
{
    for (const RowCacheEntry& e : m_rowCache) {
        if (e.nLength == nLength && e.bInverted == bInverted && e.bSynthesis == bSynthesis) return e.plan;
    }
    if (m_rowCache.size() >= kMaxCachedPlans) m_rowCache.clear();
    m_rowCache.push_back({nLength, bInverted, bSynthesis,
                          bSynthesis ? MakeRowSynthesis(nLength, bInverted) : MakeRowAnalysis(nLength, bInverted)});
    CutRuns(m_rowCache.back().plan);
    return m_rowCache.back().plan;
}

void Transform::ApplyRows(double* pImage, int nStride, const Region& region, const RowPlan& plan)
{
    const size_t nGather = plan.gather.size();
    m_phase.resize(nGather);
    m_temp.resize(static_cast<size_t>(region.nW));
    double* pPhase = m_phase.data();
    for (int y = 0; y < region.nH; ++y) {
        double* pRow = pImage + static_cast<size_t>(region.nY + y) * static_cast<size_t>(nStride) + region.nX;
        for (const GatherRun& run : plan.runs) {
            double* pTo = pPhase + run.nAt;
            if (run.nSource < 0) {
                *pTo = 0.0;
                continue;
            }
            const double* pFrom = pRow + run.nSource;
            if (run.nStep == 1) {
                std::memcpy(pTo, pFrom, sizeof(double) * static_cast<size_t>(run.nCount));
            } else if (run.nStep == 2) {
                const int nDone = EveryOtherSse2(pTo, pFrom, run.nCount);
                EveryOtherPlain(pTo, pFrom, nDone, run.nCount);
            } else {
                *pTo = plan.sign[static_cast<size_t>(run.nAt)] * *pFrom;
            }
        }
        // The row itself is no longer read: groups of unit step write into it
        // directly; the even and odd outputs of synthesis are interleaved into it.
        double* pTemp = m_temp.data();
        for (const RowGroup& grp : plan.groups) {
            const int nTaps = static_cast<int>(grp.coef.size());
            double* pOut = grp.nOutStep == 1 ? pRow + grp.nOutAt : pTemp;
            const int nDone = CombineRowsSse2(pOut, pPhase, 1, grp.source.data(), grp.coef.data(), nTaps, grp.nCount);
            CombineRowsPlain(pOut, pPhase, 1, grp.source.data(), grp.coef.data(), nTaps, nDone, grp.nCount);
            if (grp.nOutStep != 1) pTemp += grp.nCount;
        }
        if (plan.groups[0].nOutStep != 1) {
            const double* pEven = m_temp.data();
            const double* pOdd = pEven + plan.groups[0].nCount;
            const int nPairs = plan.groups[1].nCount;
            const int nDone = InterleaveSse2(pRow, pEven, pOdd, nPairs);
            InterleavePlain(pRow, pEven, pOdd, nDone, nPairs);
            if (plan.groups[0].nCount > nPairs) pRow[2 * nPairs] = pEven[nPairs];
        }
    }
}

// Columns are filtered in strips of 32, so that the scratch buffer stays
// small (no fresh pages per call) and in cache.
void Transform::ApplyCols(double* pImage, int nStride, const Region& region, const LinePlan& plan)
{
    constexpr int kStrip = 32;
    const size_t nH = static_cast<size_t>(region.nH);
    m_temp.resize(nH * kStrip);
    double* pBase = pImage + static_cast<size_t>(region.nY) * static_cast<size_t>(nStride) + region.nX;
    const size_t nRowStride = static_cast<size_t>(nStride);
    for (int x0 = 0; x0 < region.nW; x0 += kStrip) {
        const int nCount = x0 + kStrip <= region.nW ? kStrip : region.nW - x0;
        for (size_t o = 0; o < nH; ++o) {
            const int nFrom = plan.offsets[o];
            const int nTaps = plan.offsets[o + 1] - nFrom;
            double* pOut = m_temp.data() + o * kStrip;
            const int* pSource = plan.source.data() + nFrom;
            const double* pCoef = plan.coef.data() + nFrom;
            const int nDone = CombineRowsSse2(pOut, pBase + x0, nRowStride, pSource, pCoef, nTaps, nCount);
            CombineRowsPlain(pOut, pBase + x0, nRowStride, pSource, pCoef, nTaps, nDone, nCount);
        }
        for (size_t o = 0; o < nH; ++o) {
            double* pRow = pBase + o * nRowStride + x0;
            const double* pSrc = m_temp.data() + o * kStrip;
            std::memcpy(pRow, pSrc, sizeof(double) * static_cast<size_t>(nCount));
        }
    }
}

void EveryOtherPlain(double* pOut, const double* pFrom, int nFrom, int nCount)
{
    for (int i = nFrom; i < nCount; ++i) pOut[i] = pFrom[2 * i];
}

void InterleavePlain(double* pOut, const double* pEven, const double* pOdd, int nFrom, int nPairs)
{
    for (int k = nFrom; k < nPairs; ++k) {
        pOut[2 * k] = pEven[k];
        pOut[2 * k + 1] = pOdd[k];
    }
}

void CombineRowsPlain(double* pOut, const double* pBase, size_t nRowStride, const int* pSource, const double* pCoef,
                      int nTaps, int nFrom, int nCount)
{
    for (int x = nFrom; x < nCount; ++x) {
        double dAcc = 0.0;
        for (int t = 0; t < nTaps; ++t)
            dAcc += pCoef[t] * pBase[static_cast<size_t>(pSource[t]) * nRowStride + static_cast<size_t>(x)];
        pOut[x] = dAcc;
    }
}

Transform& Workspace::TransformFor(const FilterBank& bank)
{
    const bool bSame = m_pTransform && bank.nLowLength == m_bank.nLowLength &&
                       bank.nHighLength == m_bank.nHighLength && bank.low == m_bank.low && bank.high == m_bank.high;
    if (!bSame) {
        m_pTransform.reset();
        m_bank = bank;
        m_pTransform.reset(new Transform(bank));
    }
    return *m_pTransform;
}

void Transform::Forward(double* pImage, int nStride, const Layout& layout)
{
    for (const Split& s : layout.splits) {
        if (s.region.nW <= 0 || s.region.nH <= 0) continue;
        ApplyRows(pImage, nStride, s.region, CachedRow(s.region.nW, s.bInvRows, false));
        ApplyCols(pImage, nStride, s.region, AnalysisPlan(s.region.nH, s.bInvCols));
    }
}

void Transform::Inverse(double* pImage, int nStride, const Layout& layout)
{
    for (auto it = layout.splits.rbegin(); it != layout.splits.rend(); ++it) {
        const Split& s = *it;
        if (s.region.nW <= 0 || s.region.nH <= 0) continue;
        ApplyCols(pImage, nStride, s.region, SynthesisPlan(s.region.nH, s.bInvCols));
        ApplyRows(pImage, nStride, s.region, CachedRow(s.region.nW, s.bInvRows, true));
    }
}

}  // namespace wsq
}  // namespace tavk05rec
