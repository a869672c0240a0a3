// WSQ codec: round trips of a virtual print at the FBI rates, the file's
// header and NISTCOM fields, the encoded bytes against a committed file (the
// same on x86_64 and i386), the transform's perfect reconstruction for whole-
// and half-sample filter banks, the SSE2 kernel against the plain loop, and
// hostile input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "records_images.h"
#include "wsq.h"
#include "wsq_internal.h"

using namespace tavk05rec;

namespace {

const uint32_t kSeed = 3;

std::vector<unsigned char> Encoded(const std::vector<unsigned char>& pixels, int nWidth, int nHeight, double dRate)
{
    std::vector<unsigned char> out;
    EXPECT_EQ(WsqEncode(pixels.data(), nWidth, nHeight, 500, dRate, {}, out), kWsqOk);
    return out;
}

double MeanAbsError(const std::vector<unsigned char>& a, const std::vector<unsigned char>& b)
{
    double dSum = 0.0;
    for (size_t i = 0; i < a.size(); ++i) dSum += std::abs(static_cast<int>(a[i]) - static_cast<int>(b[i]));
    return dSum / static_cast<double>(a.size());
}

std::string GoldenPath()
{
    const std::string strHere = __FILE__;
    return strHere.substr(0, strHere.rfind('/')) + "/wsq_virtual_finger_3.wsq";
}

class WsqPrint : public ::testing::Test {
protected:
    static void SetUpTestSuite() { s_finger = recordtest::VirtualFinger(kSeed); }
    static std::vector<unsigned char> s_finger;
};
std::vector<unsigned char> WsqPrint::s_finger;

// The rate model of the FBI settings spends less than the target on a print
// with much background (NIST's encoder does the same); more rate buys fidelity.
TEST_F(WsqPrint, RoundTripAtBothFbiRatesStaysUnderTheRateAndKeepsTheRidges)
{
    double adError[2] = {0.0, 0.0};
    size_t anSize[2] = {0, 0};
    const double adRate[2] = {0.75, 2.25};
    for (int i = 0; i < 2; ++i) {
        SCOPED_TRACE(adRate[i]);
        const std::vector<unsigned char> file = Encoded(s_finger, 600, 600, adRate[i]);
        anSize[i] = file.size();
        EXPECT_LT(8.0 * static_cast<double>(file.size()) / (600.0 * 600.0), adRate[i]);
        std::vector<unsigned char> pixels;
        WsqInfo info;
        ASSERT_EQ(WsqDecode(file.data(), file.size(), pixels, info), kWsqOk);
        ASSERT_EQ(pixels.size(), s_finger.size());
        adError[i] = MeanAbsError(pixels, s_finger);
    }
    EXPECT_LT(adError[0], 5.0) << "mean absolute error at 0.75";
    EXPECT_LT(adError[1], 3.0) << "mean absolute error at 2.25";
    EXPECT_GT(anSize[1], 2 * anSize[0]) << "file sizes at 2.25 and 0.75";
}

TEST_F(WsqPrint, HeaderAndNistcomCarryGeometryResolutionAndRate)
{
    const std::vector<unsigned char> file = Encoded(s_finger, 600, 600, 0.75);
    WsqInfo info;
    ASSERT_EQ(WsqReadInfo(file.data(), file.size(), info), kWsqOk);
    EXPECT_EQ(info.nWidth, 600);
    EXPECT_EQ(info.nHeight, 600);
    EXPECT_EQ(info.nPpi, 500);
    EXPECT_DOUBLE_EQ(info.dBitRate, 0.75);
    EXPECT_EQ(info.nEncoder, 2);
    EXPECT_FALSE(info.bCustomFilters);
    std::vector<WsqComment> comments;
    ASSERT_EQ(WsqReadComments(file.data(), file.size(), comments), kWsqOk);
    ASSERT_EQ(comments.size(), 1u);
    EXPECT_EQ(comments[0].strText,
              "NIST_COM 9\nPIX_WIDTH 600\nPIX_HEIGHT 600\nPIX_DEPTH 8\nPPI 500\nLOSSY 1\nCOLORSPACE GRAY\n"
              "COMPRESSION WSQ\nWSQ_BITRATE 0.750000");
}

TEST_F(WsqPrint, ExtraNistcomFieldsFollowTheStandardOnes)
{
    std::vector<unsigned char> file;
    ASSERT_EQ(WsqEncode(s_finger.data(), 600, 600, 500, 0.75, {{"FING_POS", "7"}}, file), kWsqOk);
    std::vector<WsqComment> comments;
    ASSERT_EQ(WsqReadComments(file.data(), file.size(), comments), kWsqOk);
    ASSERT_EQ(comments.size(), 1u);
    EXPECT_EQ(comments[0].strText.substr(0, 11), "NIST_COM 10");
    EXPECT_EQ(comments[0].strText.substr(comments[0].strText.size() - 11), "\nFING_POS 7");
}

// The committed file was written by this encoder; any change of its bytes,
// and any difference between the ABIs, shows here.
TEST_F(WsqPrint, EncodedBytesEqualTheCommittedFile)
{
    std::ifstream in(GoldenPath(), std::ios::binary);
    ASSERT_TRUE(in.good()) << GoldenPath();
    const std::vector<unsigned char> golden{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    const std::vector<unsigned char> file = Encoded(s_finger, 600, 600, 0.75);
    ASSERT_EQ(file.size(), golden.size());
    size_t nFirstDiff = file.size();
    for (size_t i = 0; i < file.size() && nFirstDiff == file.size(); ++i) {
        if (file[i] != golden[i]) nFirstDiff = i;
    }
    EXPECT_EQ(nFirstDiff, file.size()) << "first differing byte";
}

TEST(WsqCodec, OddSizesAndFlatImagesRoundTrip)
{
    for (int nSide : {1, 2, 7, 33, 65}) {
        SCOPED_TRACE(nSide);
        std::vector<unsigned char> ramp(static_cast<size_t>(nSide * (nSide + 3)));
        for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<unsigned char>(60 + (i * 7) % 120);
        const std::vector<unsigned char> file = Encoded(ramp, nSide, nSide + 3, 2.25);
        std::vector<unsigned char> pixels;
        WsqInfo info;
        ASSERT_EQ(WsqDecode(file.data(), file.size(), pixels, info), kWsqOk);
        EXPECT_EQ(info.nWidth, nSide);
        EXPECT_EQ(info.nHeight, nSide + 3);
        EXPECT_EQ(pixels.size(), ramp.size());
    }
    const std::vector<unsigned char> flat(40 * 30, 77);
    const std::vector<unsigned char> file = Encoded(flat, 40, 30, 0.75);
    std::vector<unsigned char> pixels;
    WsqInfo info;
    ASSERT_EQ(WsqDecode(file.data(), file.size(), pixels, info), kWsqOk);
    EXPECT_EQ(pixels, flat);
}

// A half-sample (even-length) filter bank travels in the transform table and
// the decoder takes it from there.
TEST(WsqCodec, OtherFilterBankIsTakenFromTheTransformTable)
{
    const std::vector<unsigned char> finger = recordtest::VirtualFinger(kSeed);
    wsq::FilterBank haar;
    haar.nLowLength = 2;
    haar.nHighLength = 2;
    haar.low = {std::sqrt(0.5)};
    haar.high = {std::sqrt(0.5)};
    std::vector<unsigned char> file;
    wsq::Workspace work;
    ASSERT_EQ(wsq::Encode(finger.data(), 600, 600, 500, 2.25, {}, haar, work, file), kWsqOk);
    std::vector<unsigned char> pixels;
    WsqInfo info;
    ASSERT_EQ(WsqDecode(file.data(), file.size(), pixels, info), kWsqOk);
    EXPECT_TRUE(info.bCustomFilters);
    EXPECT_LT(MeanAbsError(pixels, finger), 3.0);
}

// A codec kept from image to image (larger, then smaller, then the 7/9 pair
// after another filter bank) gives every image the bytes a fresh one gives.
TEST_F(WsqPrint, KeptCodecGivesTheBytesOfFreshCalls)
{
    std::vector<unsigned char> corner(200 * 150);
    for (int y = 0; y < 150; ++y)
        std::copy_n(s_finger.begin() + (200 + y) * 600 + 200, 200, corner.begin() + y * 200);
    wsq::FilterBank haar;
    haar.nLowLength = 2;
    haar.nHighLength = 2;
    haar.low = {std::sqrt(0.5)};
    haar.high = {std::sqrt(0.5)};
    std::vector<unsigned char> haarFile;
    wsq::Workspace work;
    ASSERT_EQ(wsq::Encode(s_finger.data(), 600, 600, 500, 2.25, {}, haar, work, haarFile), kWsqOk);

    WsqCodec codec;
    std::vector<unsigned char> whole, part, again, pixels;
    WsqInfo info;
    ASSERT_EQ(codec.Encode(s_finger.data(), 600, 600, 500, 0.75, {}, whole), kWsqOk);
    ASSERT_EQ(codec.Encode(corner.data(), 200, 150, 500, 0.75, {}, part), kWsqOk);
    EXPECT_EQ(part, Encoded(corner, 200, 150, 0.75));
    ASSERT_EQ(codec.Decode(haarFile.data(), haarFile.size(), pixels, info), kWsqOk);
    std::vector<unsigned char> fresh;
    ASSERT_EQ(WsqDecode(haarFile.data(), haarFile.size(), fresh, info), kWsqOk);
    EXPECT_EQ(pixels, fresh);
    ASSERT_EQ(codec.Decode(part.data(), part.size(), pixels, info), kWsqOk);
    ASSERT_EQ(WsqDecode(part.data(), part.size(), fresh, info), kWsqOk);
    EXPECT_EQ(pixels, fresh);
    ASSERT_EQ(codec.Encode(s_finger.data(), 600, 600, 500, 0.75, {}, again), kWsqOk);
    EXPECT_EQ(again, whole);
    EXPECT_EQ(again, Encoded(s_finger, 600, 600, 0.75));
}

TEST(WsqTransform, ForwardThenInverseIsTheIdentityForWholeAndHalfSampleBanks)
{
    wsq::FilterBank haar;
    haar.nLowLength = 2;
    haar.nHighLength = 2;
    haar.low = {std::sqrt(0.5)};
    haar.high = {std::sqrt(0.5)};
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> dist(-100.0, 100.0);
    for (const wsq::FilterBank& bank : {wsq::StandardFilters(), haar}) {
        for (int nWidth : {37, 64, 101}) {
            SCOPED_TRACE(nWidth);
            const int nHeight = nWidth + 5;
            std::vector<double> image(static_cast<size_t>(nWidth * nHeight));
            for (double& d : image) d = dist(rng);
            const std::vector<double> original = image;
            const wsq::Layout layout = wsq::BuildLayout(nWidth, nHeight, true);
            wsq::Transform transform(bank);
            transform.Forward(image.data(), nWidth, layout);
            transform.Inverse(image.data(), nWidth, layout);
            double dWorst = 0.0;
            for (size_t i = 0; i < image.size(); ++i) dWorst = std::fmax(dWorst, std::fabs(image[i] - original[i]));
            EXPECT_LT(dWorst, 1e-9);
        }
    }
}

TEST(WsqTransform, LayoutTilesTheImageWithSixtyFourSubbands)
{
    const wsq::Layout layout = wsq::BuildLayout(601, 599, false);
    std::vector<int> cover(601 * 599, 0);
    for (const wsq::Region& b : layout.subbands) {
        for (int y = b.nY; y < b.nY + b.nH; ++y) {
            for (int x = b.nX; x < b.nX + b.nW; ++x) ++cover[static_cast<size_t>(y * 601 + x)];
        }
    }
    int nWrong = 0;
    for (int c : cover) nWrong += c != 1;
    EXPECT_EQ(nWrong, 0) << "pixels covered by no subband or by several";
}

TEST(WsqTransform, Sse2KernelEqualsThePlainLoopBitForBit)
{
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> dist(-300.0, 300.0);
    const size_t nStride = 601;
    std::vector<double> rows(nStride * 12);
    for (double& d : rows) d = dist(rng);
    for (int nCount : {0, 3, 8, 17, 600}) {
        for (int nTaps : {0, 1, 4, 7, 8, 9, 10, 12}) {
            std::vector<int> source;
            std::vector<double> coef;
            for (int t = 0; t < nTaps; ++t) {
                source.push_back((t * 5) % 12);
                coef.push_back(dist(rng) / 300.0);
            }
            std::vector<double> plain(600), vector(600);
            wsq::CombineRowsPlain(plain.data(), rows.data(), nStride, source.data(), coef.data(), nTaps, 0, nCount);
            const int nDone =
                wsq::CombineRowsSse2(vector.data(), rows.data(), nStride, source.data(), coef.data(), nTaps, nCount);
            wsq::CombineRowsPlain(vector.data(), rows.data(), nStride, source.data(), coef.data(), nTaps, nDone,
                                  nCount);
            EXPECT_EQ(std::memcmp(plain.data(), vector.data(), sizeof(double) * static_cast<size_t>(nCount)), 0)
                << nCount << " outputs, " << nTaps << " taps";
        }
    }
}

TEST(WsqTransform, Sse2InterleaveEqualsThePlainLoop)
{
    std::vector<double> even(301), odd(301);
    for (size_t k = 0; k < even.size(); ++k) {
        even[k] = 0.5 + static_cast<double>(k);
        odd[k] = -0.25 - static_cast<double>(k);
    }
    for (int nPairs : {0, 1, 2, 5, 300}) {
        std::vector<double> plain(602, 9.0), vector(602, 9.0);
        wsq::InterleavePlain(plain.data(), even.data(), odd.data(), 0, nPairs);
        const int nDone = wsq::InterleaveSse2(vector.data(), even.data(), odd.data(), nPairs);
        wsq::InterleavePlain(vector.data(), even.data(), odd.data(), nDone, nPairs);
        EXPECT_EQ(plain, vector) << nPairs << " pairs";
    }
}

TEST(WsqTransform, Sse2EveryOtherEqualsThePlainLoop)
{
    std::vector<double> row(601);
    for (size_t i = 0; i < row.size(); ++i) row[i] = 0.5 - static_cast<double>(i);
    for (int nCount : {0, 3, 4, 7, 300}) {
        std::vector<double> plain(300, 9.0), vector(300, 9.0);
        wsq::EveryOtherPlain(plain.data(), row.data(), 0, nCount);
        const int nDone = wsq::EveryOtherSse2(vector.data(), row.data(), nCount);
        wsq::EveryOtherPlain(vector.data(), row.data(), nDone, nCount);
        EXPECT_EQ(plain, vector) << nCount << " samples";
    }
}

TEST(WsqEncoderKernels, Sse2GreyStatsEqualThePlainLoop)
{
    std::mt19937 rng(9);
    std::vector<unsigned char> pixels(1000);
    for (unsigned char& c : pixels) c = static_cast<unsigned char>(40 + rng() % 150);
    pixels[999] = 7;  // the least level in the plain loop's tail
    for (size_t nCount : {0, 5, 16, 17, 1000}) {
        wsq::GreyStats plain, vector;
        wsq::GreyStatsPlain(pixels.data(), 0, nCount, plain);
        wsq::GreyStatsPlain(pixels.data(), wsq::GreyStatsSse2(pixels.data(), nCount, vector), nCount, vector);
        EXPECT_EQ(plain.nSum, vector.nSum) << nCount << " pixels";
        EXPECT_EQ(plain.nMin, vector.nMin) << nCount << " pixels";
        EXPECT_EQ(plain.nMax, vector.nMax) << nCount << " pixels";
    }
}

// Zero-bin edges, bin edges, clamped magnitudes and signed zeros as well as
// ordinary coefficients.
TEST(WsqEncoderKernels, Sse2QuantizerEqualsThePlainLoop)
{
    const double dQ = 3.7, dHalfZ = 2.22;
    std::vector<double> coef = {0.0, -0.0, dHalfZ, -dHalfZ, std::nextafter(dHalfZ, 9.0), -std::nextafter(dHalfZ, 9.0),
                                dHalfZ + dQ, -dHalfZ - dQ, dHalfZ + 2 * dQ, 1e12, -1e12, 1e300, -1e300};
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> dist(-40.0, 40.0);
    while (coef.size() < 203) coef.push_back(dist(rng));
    for (int nCount : {0, 3, 4, 13, 203}) {
        std::vector<int> plain(203, 99), vector(203, 99);
        wsq::QuantizePlain(coef.data(), 0, nCount, dQ, dHalfZ, plain.data());
        const int nDone = wsq::QuantizeSse2(coef.data(), nCount, dQ, dHalfZ, vector.data());
        wsq::QuantizePlain(coef.data(), nDone, nCount, dQ, dHalfZ, vector.data());
        EXPECT_EQ(plain, vector) << nCount << " coefficients";
    }
}

TEST(WsqEncoderKernels, Sse2ZeroRunEndsWhereThePlainLoopEnds)
{
    std::vector<int> index(64, 0);
    index[3] = 1;
    index[20] = -2;
    index[63] = 5;
    for (size_t nFrom = 0; nFrom < index.size(); ++nFrom) {
        for (size_t nCount : {nFrom, size_t{40}, index.size()}) {
            if (nCount < nFrom) continue;
            const size_t nPlain = wsq::ZeroRunPlain(index.data(), nFrom, nCount);
            const size_t nSkipped = wsq::ZeroRunSse2(index.data() + nFrom, nCount - nFrom);
            EXPECT_EQ(nPlain, wsq::ZeroRunPlain(index.data(), nFrom + nSkipped, nCount))
                << "run from " << nFrom << " in " << nCount;
        }
    }
}

// Levels below black, above white, on the rounding edge and ordinary ones.
TEST(WsqDecoderKernels, Sse2GreyLevelsEqualThePlainLoop)
{
    std::vector<double> image = {-1e9, -200.0, -0.51, -0.5, -0.49, 0.0, 0.49999999, 0.5, 127.5, 254.4, 254.5, 255.0, 1e9};
    std::mt19937 rng(13);
    std::uniform_real_distribution<double> dist(-2.0, 2.0);
    while (image.size() < 101) image.push_back(dist(rng));
    const double dScale = 70.25, dMean = 128.5;
    for (size_t nCount : {0, 7, 8, 13, 101}) {
        std::vector<unsigned char> plain(101, 9), vector(101, 9);
        wsq::ToGreyPlain(image.data(), 0, nCount, dScale, dMean, plain.data());
        const size_t nDone = wsq::ToGreySse2(image.data(), nCount, dScale, dMean, vector.data());
        wsq::ToGreyPlain(image.data(), nDone, nCount, dScale, dMean, vector.data());
        EXPECT_EQ(plain, vector) << nCount << " levels";
    }
}

TEST(WsqTables, DeterministicLogAndExpAgreeWithTheLibrary)
{
    for (double d : {1e-300, 0.001, 0.5, 1.0, 1.01, 2.0, 7.5, 1234.5, 1e300}) {
        EXPECT_NEAR(wsq::DetLog(d), std::log(d), 1e-15 * std::fmax(1.0, std::fabs(std::log(d)))) << d;
    }
    for (double d : {-700.0, -3.2, 0.0, 0.25, 1.0, 10.0, 700.0}) {
        EXPECT_NEAR(wsq::DetExp(d) / std::exp(d), 1.0, 1e-14) << d;
    }
}

// Skewed counts push the optimal code past 16 bits: lengths are limited and
// the all-ones code stays free.
TEST(WsqTables, HuffmanCodesFitSixteenBitsAndLeaveAllOnesFree)
{
    std::array<uint32_t, 256> counts{};
    uint32_t a = 1, b = 1;
    for (int s = 1; s <= 40; ++s) {
        counts[static_cast<size_t>(s)] = a;
        const uint32_t c = a + b;
        a = b;
        b = c;
    }
    const wsq::HuffmanTable table = wsq::BuildHuffmanTable(counts);
    EXPECT_EQ(table.values.size(), 40u);
    double dKraft = 0.0;
    for (int nLen = 1; nLen <= 16; ++nLen) dKraft += table.bits[static_cast<size_t>(nLen - 1)] * std::ldexp(1.0, -nLen);
    EXPECT_LT(dKraft, 1.0);
    wsq::HuffmanDecoder decoder;
    EXPECT_TRUE(wsq::MakeDecoder(table, decoder));
}

TEST(WsqHostile, EveryTruncationIsRefusedWithoutHarm)
{
    std::vector<unsigned char> small(48 * 40);
    for (size_t i = 0; i < small.size(); ++i) small[i] = static_cast<unsigned char>((i * 31) ^ (i / 48));
    const std::vector<unsigned char> file = Encoded(small, 48, 40, 0.75);
    int nAccepted = 0;
    for (size_t n = 0; n < file.size(); ++n) {
        const std::vector<unsigned char> cut(file.begin(), file.begin() + static_cast<long>(n));
        std::vector<unsigned char> pixels;
        WsqInfo info;
        nAccepted += WsqDecode(cut.data(), cut.size(), pixels, info) == kWsqOk;
    }
    EXPECT_EQ(nAccepted, 0);
}

TEST(WsqHostile, HeaderDimensionsAndTablesAreChecked)
{
    std::vector<unsigned char> small(48 * 40, 90);
    small[100] = 200;
    const std::vector<unsigned char> file = Encoded(small, 48, 40, 0.75);
    size_t nSof = 0;
    while (nSof + 1 < file.size() && !(file[nSof] == 0xFF && file[nSof + 1] == 0xA2)) ++nSof;
    ASSERT_LT(nSof + 10, file.size());
    std::vector<unsigned char> pixels;
    WsqInfo info;

    std::vector<unsigned char> zeroWidth = file;
    zeroWidth[nSof + 8] = 0;
    zeroWidth[nSof + 9] = 0;
    EXPECT_EQ(WsqDecode(zeroWidth.data(), zeroWidth.size(), pixels, info), kWsqCorrupt);

    std::vector<unsigned char> huge = file;
    huge[nSof + 6] = 0xFF;  // 65535 x 65535
    huge[nSof + 7] = 0xFF;
    huge[nSof + 8] = 0xFF;
    huge[nSof + 9] = 0xFF;
    EXPECT_EQ(WsqDecode(huge.data(), huge.size(), pixels, info), kWsqTooLarge);

    size_t nDht = 0;
    while (nDht + 1 < file.size() && !(file[nDht] == 0xFF && file[nDht + 1] == 0xA6)) ++nDht;
    std::vector<unsigned char> overfull = file;
    overfull[nDht + 5] = 5;  // five codes of one bit
    EXPECT_EQ(WsqDecode(overfull.data(), overfull.size(), pixels, info), kWsqCorrupt);

    EXPECT_EQ(WsqDecode(nullptr, 10, pixels, info), kWsqBadArgument);
}

TEST(WsqHostile, EncoderRefusesBadArguments)
{
    const std::vector<unsigned char> pixels(16, 0);
    std::vector<unsigned char> out;
    EXPECT_EQ(WsqEncode(nullptr, 4, 4, 500, 0.75, {}, out), kWsqBadArgument);
    EXPECT_EQ(WsqEncode(pixels.data(), 0, 4, 500, 0.75, {}, out), kWsqBadArgument);
    EXPECT_EQ(WsqEncode(pixels.data(), 4, 4, 500, 0.0, {}, out), kWsqBadArgument);
    EXPECT_EQ(WsqEncode(pixels.data(), 4, 4, 500, 0.75, {{"BAD KEY", "1"}}, out), kWsqBadArgument);
    EXPECT_EQ(WsqEncode(pixels.data(), 20000, 4, 500, 0.75, {}, out), kWsqTooLarge);
}

}  // namespace
