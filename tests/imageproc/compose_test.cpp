// Rolled composition against a plain model of one call: the model reads the
// processor's roll state, predicts the result, the new state and the
// composite (box sums from summed-area tables), and every call of random
// rolls and of structured steps at the thresholds is checked against it.
#include "imageproc_reference.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace {

using ref::Bytes;
const int kPixels = 360000;

struct Outcome {
    int nResult, bStarted, nLeft, nRight, nCenter, nDirection;
    Bytes comp;
};

Bytes Convert(const CImageProc& p, const Bytes& frame, float fContrast)
{
    Bytes g(kPixels);
    for (int i = 0; i < kPixels; ++i) {
        const int d = std::max(0, p.m_pBackground[i] - frame[i]);
        int v = std::max(0, 255 - 3 * d);
        if (p.m_bContrastTable && p.m_nDeviceType == 7)
            v = static_cast<int>((125 - d) * static_cast<long double>(fContrast));
        else if (p.m_bContrastTable)
            v = static_cast<int>((p.m_ucContrastTable[v] + std::rand() % 9 - 4) * static_cast<long double>(fContrast));
        g[i] = static_cast<unsigned char>(std::max(0, std::min(255, v)));
    }
    return g;
}

// Merge of the new pixels y into the composite x at seam s; only boxes that
// lie wholly inside the image decide a pixel.
void Merge(Bytes& x, const Bytes& y, int s, int nDirection)
{
    const std::vector<long long> sx = testutil::SummedArea(x), sy = testutil::SummedArea(y);
    // Rightward, columns s..569 are decided by the boxes centred on them;
    // leftward, columns 0..s-11 by the boxes that start at them.
    const int nFirst = nDirection == 1 ? s : 0, nEnd = nDirection == 1 ? 570 : s - 10,
              nShift = nDirection == 1 ? 10 : 0;
    for (int c = nFirst; c < nEnd; ++c)
        for (int i = 0; i <= 579 && c - nShift >= 0 && c - nShift + 20 <= 599; ++i)
            if (testutil::AreaSum(sx, i, c - nShift, i + 20, c - nShift + 20) >
                testutil::AreaSum(sy, i, c - nShift, i + 20, c - nShift + 20))
                x[(i + 10) * 600 + c] = y[(i + 10) * 600 + c];
    for (int r = 0; r < 600; ++r)
        for (int c = nDirection == 1 ? std::max(s, 0) : 0; c < (nDirection == 1 ? 600 : std::min(s, 600)); ++c)
            if (r < 10 || r >= 590) x[r * 600 + c] = y[r * 600 + c];
}

Outcome Predict(const CImageProc& p, const Bytes& frame, const Bytes& comp, int nFrame, float fContrast)
{
    Outcome o = {0,
                 p.m_bRollStarted,
                 p.m_nRollLeft,
                 p.m_nRollRight,
                 p.m_nRollCenter,
                 p.m_nRollDirection,
                 Bytes(comp.begin(), comp.begin() + kPixels)};
    if (nFrame <= 0) {
        o.bStarted = o.nLeft = o.nRight = o.nCenter = 0;
        return o;
    }
    const Bytes g = Convert(p, frame, fContrast);
    const Bytes& y = p.m_nDeviceType == 5 || p.m_nDeviceType == 6 ? frame : g;
    int anAct[600] = {0}, anSmooth[600];
    for (int r = 1; r <= 598; ++r)
        for (int c = 1; c <= 598; ++c)
            anAct[c] += std::abs(g[r * 600 + c - 1] - g[r * 600 + c + 1]) > 15 ||
                        std::abs(g[(r - 1) * 600 + c] - g[(r + 1) * 600 + c]) > 15;
    for (int c = 0; c < 600; ++c) {
        int nSum = 0, n = 0;
        for (int k = std::max(0, c - 5); k <= std::min(599, c + 5); ++k, ++n) nSum += anAct[k];
        anSmooth[c] = nSum / n;
    }
    const int nPeakAt = static_cast<int>(std::max_element(anSmooth, anSmooth + 600) - anSmooth);
    if (anSmooth[nPeakAt] < 50) {
        o.bStarted = 0;
        o.nResult = 1;
        return o;
    }
    int l = 0, r = 599;
    for (int c = nPeakAt; c >= 0 && l == 0; --c) l = anSmooth[c] <= 30 ? c + 1 : 0;
    for (int c = nPeakAt; c < 600 && r == 599; ++c) r = anSmooth[c] <= 30 ? c - 1 : 599;
    if (!o.bStarted) {
        o.comp = y;
        o.nCenter = (l + r) / 2;
        o.nDirection = o.nCenter <= 299 ? 1 : 2;
        o.bStarted = 1;
        o.nLeft = l;
        o.nRight = r;
        return o;
    }
    const bool bRight = o.nDirection == 1;
    const int nLead = bRight ? o.nRight - r : l - o.nLeft;  // how far the leading edge went back
    if (nLead > 10 || nLead > 0) {
        o.nResult = nLead > 10 ? 1 : 0;
        return o;
    }
    if (((l - o.nLeft) + (r - o.nRight)) / 2 > 90) {
        o.nResult = 2;
        return o;
    }
    const int s = bRight ? (o.nRight + l) / 2 : (o.nLeft + r) / 2;
    if (bRight ? 570 - s <= 0 : s <= 10) {
        o.nResult = 1;
        return o;
    }
    Merge(o.comp, y, s, o.nDirection);
    o.nCenter = nPeakAt;
    o.nLeft = l;
    o.nRight = r;
    return o;
}

// Finger columns a..b dark on the rows y % 4 in {0, 1} below nRows; dots
// (isolated dark pixels) eight columns outside the finger.
Bytes Frame(int a, int b, const CImageProc& p, std::mt19937& gen, int nDepth, int nRows = 600, int nDots = 0)
{
    Bytes f(p.m_pBackground, p.m_pBackground + kPixels);
    for (int y = 0; y < nRows; ++y)
        for (int x = a; x <= b && y % 4 < 2; ++x)
            f[y * 600 + x] = static_cast<unsigned char>(
                std::max(0, f[y * 600 + x] - nDepth - (nDepth > 20 ? static_cast<int>(gen() % 27) : 0)));
    for (int k = 0; k < nDots; ++k)
        for (int x : {a - 8, b + 8})
            if (x >= 0 && x < 600)
                f[(10 + 4 * k) * 600 + x] = static_cast<unsigned char>(std::max(0, f[(10 + 4 * k) * 600 + x] - 85));
    return f;
}

class Compose : public ::testing::Test {
protected:
    std::unique_ptr<CImageProc> m_pProc{new CImageProc};
    Bytes m_comp = Bytes(kPixels + 40000, 77);  // a size past 360000: the bytes beyond stay
    int m_anResults[3] = {0, 0, 0};

    // Device type, background (flat at an even level, noisy below an odd one), and the contrast table for
    // nSetup 2 and 3.
    void Setup(int nSetup, int nBackground, std::mt19937& gen)
    {
        const int anDevice[5] = {3, 5, 7, 3, 6};
        m_pProc->m_nDeviceType = anDevice[nSetup];
        m_pProc->m_bContrastTable = nSetup == 2 || nSetup == 3;
        for (int g = 0; g < 256; ++g) m_pProc->m_ucContrastTable[g] = static_cast<unsigned char>(g / 2 + 100);
        for (int i = 0; i < kPixels; ++i)
            m_pProc->m_pBackground[i] = static_cast<unsigned char>(nBackground - (nBackground % 2 ? gen() % 3 : 0));
    }
    int Call(const Bytes& frame, int nFrame, float fContrast = 1.0f)
    {
        std::srand(static_cast<unsigned>(nFrame + 99));
        const Outcome o = Predict(*m_pProc, frame, m_comp, nFrame, fContrast);
        const int nAfterModel = std::rand();
        std::srand(static_cast<unsigned>(nFrame + 99));
        const int nResult = m_pProc->ImageComposition(const_cast<unsigned char*>(frame.data()), m_comp.data(),
                                                      kPixels + 40000 * (nFrame % 2), nFrame, fContrast);
        EXPECT_EQ(nAfterModel, std::rand()) << "one draw a pixel, only with the table";
        const CImageProc& p = *m_pProc;
        EXPECT_EQ(std::vector<int>({o.nResult, o.bStarted, o.nLeft, o.nRight, o.nCenter, o.nDirection}),
                  std::vector<int>(
                      {nResult, p.m_bRollStarted, p.m_nRollLeft, p.m_nRollRight, p.m_nRollCenter, p.m_nRollDirection}));
        EXPECT_EQ("", testutil::FirstDifference(o.comp.data(), m_comp.data(), kPixels, 600));
        EXPECT_EQ(40000, std::count(m_comp.begin() + kPixels, m_comp.end(), 77));
        ++m_anResults[nResult];
        return nResult;
    }
    void Rolling(int nDirection, int nLeft, int nRight)
    {
        m_pProc->m_bRollStarted = nDirection != 0;
        m_pProc->m_nRollDirection = nDirection;
        m_pProc->m_nRollLeft = nLeft;
        m_pProc->m_nRollRight = nRight;
    }
};

// Rolls of random frames whose edges move by steps around every limit:
// retreats of 10 and 11, mean moves of 90 and 91, faint fingers (steps of
// 15 and 18 after conversion), profiles peaking at 46 and 50, dots that
// move an edge, all five conversions.
TEST_F(Compose, RandomRollsMatchTheModel)
{
    std::mt19937 gen(43);
    const int anMoves[] = {-12, -11, -10, -1, 0, 1, 10, 40, 89, 90, 91, 92, 150};
    int nMerged = 0;
    for (int nRoll = 0; nRoll < 40; ++nRoll) {
        Setup(nRoll % 5, 250 + gen() % 6, gen);
        const float fContrast = nRoll % 5 == 2 ? 1.7f : 1.5f;
        EXPECT_EQ(0, Call(Frame(0, 0, *m_pProc, gen, 85), 0));
        int a = gen() % 560, b = std::min(599, a + 10 + static_cast<int>(gen() % 150));
        for (int n = 1; n <= 6; ++n) {
            const int nDepth = n == 1 && nRoll % 7 == 3 ? 5 + nRoll % 2 : 85;
            const int nRows = n == 1 && nRoll % 7 == 4 ? 48 + 4 * (nRoll % 2) : 600;
            const int nStarted = m_pProc->m_bRollStarted;
            const int nResult =
                Call(Frame(a, b, *m_pProc, gen, nDepth, nRows, gen() % 3 == 0 ? 8 + gen() % 4 : 0), n, fContrast);
            nMerged += nStarted && nResult == 0;
            if (nResult != 0) break;
            const int nSign = m_pProc->m_nRollDirection == 1 ? 1 : -1;
            a = std::max(0, std::min(599, a + nSign * anMoves[gen() % 13]));
            b = std::max(a, std::min(599, b + nSign * anMoves[gen() % 13]));
        }
    }
    EXPECT_GT(m_anResults[2], 0);
    EXPECT_GT(m_anResults[1], 5);
    EXPECT_GT(nMerged, 20);
}

// Single steps from a given state: first frames centred at 299 and 300,
// mean edge moves of 90 and 91 (leftward too, by a right edge running away),
// seams at and past the ends of the strip
// (570 and 569 rightward, 10 and 11 leftward), narrow strips, seams so close
// to a side that boxes would leave the image, and composites equal to the
// new pixels plus or minus one (take all or nothing) or plus a pattern
// whose box sums are all equal (keep).
TEST_F(Compose, StepsNearTheSidesMatchTheModel)
{
    std::mt19937 gen(29);
    const struct {
        int nDirection, nLeft, nRight, a, b;
    } steps[] = {{1, 560, 580, 565, 580}, {1, 560, 580, 563, 580}, {2, 10, 20, 0, 6},       {2, 10, 20, 0, 7},
                 {1, 540, 560, 565, 585}, {2, 20, 20, 0, 15},      {1, 0, 0, 0, 150},       {1, 0, 18, 0, 150},
                 {2, 599, 599, 450, 599}, {2, 591, 599, 450, 599}, {1, 95, 205, 115, 215},  {2, 395, 505, 375, 485},
                 {0, 0, 0, 200, 398},     {0, 0, 0, 200, 400},     {2, 295, 355, 300, 530}, {2, 295, 355, 300, 532},
                 {1, 95, 205, 190, 291},  {1, 95, 205, 191, 291}};
    for (int nSetup : {0, 1}) {
        for (const auto& s : steps) {
            for (int nComp = 0; nComp < 4; ++nComp) {
                Setup(nSetup, 250, gen);
                const Bytes frame = Frame(s.a, s.b, *m_pProc, gen, 85);
                const Bytes y = nSetup == 1 ? frame : Convert(*m_pProc, frame, 1.7f);
                for (int i = 0; i < kPixels; ++i) {
                    const int nCol = i % 600, nNew = y[i];
                    const int anComp[4] = {static_cast<int>(gen() % 256), nNew + 1, nNew - 1,
                                           nNew + (nCol % 21 == 0) - (nCol % 21 == 1)};
                    m_comp[i] = static_cast<unsigned char>(std::max(0, std::min(255, anComp[nComp])));
                }
                Rolling(s.nDirection, s.nLeft, s.nRight);
                Call(frame, 4, 1.7f);
            }
        }
    }
    // First frames of faint fingers on a flat background: steps of exactly 15 and 18 after conversion, and
    // profiles peaking at 46 and 50.
    for (int nSetup : {0, 1}) {
        for (const auto& f :
             {std::make_pair(5, 600), std::make_pair(6, 600), std::make_pair(85, 48), std::make_pair(85, 52)}) {
            Setup(nSetup, 250, gen);
            Rolling(0, 0, 0);
            Call(Frame(100, 300, *m_pProc, gen, f.first, f.second), 1);
        }
    }
    EXPECT_GT(m_anResults[0], 50);
    EXPECT_GT(m_anResults[1], 10);
    EXPECT_EQ(0, m_pProc->ImageComposition(nullptr, nullptr, 0, -4, 1.0f));
}

}  // namespace
