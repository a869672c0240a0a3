// The C interface of the records library on prints of virtual fingers: WSQ
// through every container, PNG carried as it is, the description of each
// format, and status codes for hostile input and bad arguments.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "records_images.h"
#include "tavk05/records.h"
#include "tavk05/version.h"

namespace {

// A buffer the library handed out, released through the library.
struct LibraryFree {
    void operator()(unsigned char* p) const { Tavk05RecordsFree(p); }
};
using Owned = std::unique_ptr<unsigned char, LibraryFree>;

struct ImageGuard {
    Tavk05RecImage image{};
    ~ImageGuard() { Tavk05RecImageRelease(&image); }
};

struct TransactionGuard {
    Tavk05NistTransaction transaction{};
    ~TransactionGuard() { Tavk05NistRelease(&transaction); }
};

struct DescriptionGuard {
    Tavk05RecDescription description{};
    ~DescriptionGuard() { Tavk05RecDescriptionRelease(&description); }
};

class RecordsApi : public ::testing::Test {
protected:
    static void SetUpTestSuite() { s_pPrint = new std::vector<unsigned char>(recordtest::VirtualFinger(3)); }
    static void TearDownTestSuite()
    {
        delete s_pPrint;
        s_pPrint = nullptr;
    }

    static Tavk05RecFinger Finger(int nCompression)
    {
        Tavk05RecFinger finger{};
        finger.nFingerPosition = 2;
        finger.nImpression = TAVK05_REC_LIVE_PLAIN;
        finger.nQuality = 77;
        finger.nCompression = nCompression;
        finger.nPpi = 500;
        finger.nWidth = 600;
        finger.nHeight = 600;
        finger.pPixels = s_pPrint->data();
        return finger;
    }

    // Mean absolute difference of a decoded print from the original.
    static double MeanError(const unsigned char* pPixels)
    {
        long long nSum = 0;
        for (size_t i = 0; i < s_pPrint->size(); ++i) {
            nSum += std::abs(static_cast<int>(pPixels[i]) - static_cast<int>((*s_pPrint)[i]));
        }
        return static_cast<double>(nSum) / static_cast<double>(s_pPrint->size());
    }

    static std::vector<unsigned char>* s_pPrint;
};

std::vector<unsigned char>* RecordsApi::s_pPrint = nullptr;

// A WSQ print of 0.75 bit per pixel stays within a few grey levels of the
// original on average.
constexpr double kWsqMeanError = 6.0;

TEST_F(RecordsApi, VersionAndTexts)
{
    EXPECT_STREQ(TAVK05_VERSION_STRING, Tavk05RecordsVersion());
    const std::string strUnknown = Tavk05RecordsStatusText(99);
    for (int nStatus = TAVK05_REC_OK; nStatus <= TAVK05_REC_UNKNOWN_FORMAT; ++nStatus) {
        EXPECT_NE(strUnknown, Tavk05RecordsStatusText(nStatus)) << nStatus;
    }
    EXPECT_STREQ("WSQ", Tavk05RecordsCompressionName(TAVK05_REC_COMP_WSQ));
    EXPECT_STREQ("ISO/IEC 19794-4:2011", Tavk05RecordsFormatName(TAVK05_REC_FORMAT_ISO2011));
}

TEST_F(RecordsApi, WsqRoundTrip)
{
    unsigned char* pWsq = nullptr;
    size_t nWsq = 0;
    ASSERT_EQ(TAVK05_REC_OK, Tavk05WsqEncode(s_pPrint->data(), 600, 600, 500, 0.0, &pWsq, &nWsq));
    const Owned wsq(pWsq);
    EXPECT_LT(nWsq, s_pPrint->size() / 5);
    unsigned char* pPixels = nullptr;
    int nWidth = 0;
    int nHeight = 0;
    int nPpi = 0;
    ASSERT_EQ(TAVK05_REC_OK, Tavk05WsqDecode(pWsq, nWsq, &pPixels, &nWidth, &nHeight, &nPpi));
    const Owned pixels(pPixels);
    EXPECT_EQ(600, nWidth);
    EXPECT_EQ(600, nHeight);
    EXPECT_EQ(500, nPpi);
    EXPECT_LT(MeanError(pPixels), kWsqMeanError);
}

// A codec kept for several images gives the one-off calls' bytes and pixels.
TEST_F(RecordsApi, KeptWsqCodecMatchesOneOffCalls)
{
    unsigned char* pOnce = nullptr;
    size_t nOnce = 0;
    ASSERT_EQ(TAVK05_REC_OK, Tavk05WsqEncode(s_pPrint->data(), 600, 600, 500, 0.0, &pOnce, &nOnce));
    const Owned once(pOnce);
    const std::unique_ptr<Tavk05WsqCodec, void (*)(Tavk05WsqCodec*)> codec(Tavk05WsqCodecNew(), Tavk05WsqCodecFree);
    ASSERT_NE(nullptr, codec.get());
    for (int nRound = 0; nRound < 2; ++nRound) {
        SCOPED_TRACE(nRound);
        unsigned char* pWsq = nullptr;
        size_t nWsq = 0;
        ASSERT_EQ(TAVK05_REC_OK,
                  Tavk05WsqCodecEncode(codec.get(), s_pPrint->data(), 600, 600, 500, 0.0, &pWsq, &nWsq));
        const Owned wsq(pWsq);
        ASSERT_EQ(nOnce, nWsq);
        EXPECT_EQ(0, std::memcmp(pOnce, pWsq, nWsq));
        unsigned char* pPixels = nullptr;
        int nWidth = 0;
        int nHeight = 0;
        ASSERT_EQ(TAVK05_REC_OK, Tavk05WsqCodecDecode(codec.get(), pWsq, nWsq, &pPixels, &nWidth, &nHeight, nullptr));
        const Owned pixels(pPixels);
        EXPECT_EQ(600, nHeight);
        EXPECT_LT(MeanError(pPixels), kWsqMeanError);
    }
    unsigned char* pOut = nullptr;
    size_t nOut = 0;
    EXPECT_EQ(TAVK05_REC_BAD_ARGUMENT, Tavk05WsqCodecEncode(nullptr, s_pPrint->data(), 600, 600, 500, 0.0, &pOut, &nOut));
    EXPECT_EQ(nullptr, pOut);
}

TEST_F(RecordsApi, IsoWithWsqRoundTrip)
{
    for (int nVersion : {2005, 2011}) {
        SCOPED_TRACE(nVersion);
        const Tavk05RecFinger finger = Finger(TAVK05_REC_COMP_WSQ);
        unsigned char* pRecord = nullptr;
        size_t nRecord = 0;
        ASSERT_EQ(TAVK05_REC_OK, Tavk05IsoWrite(nVersion, &finger, nullptr, &pRecord, &nRecord));
        const Owned record(pRecord);
        ImageGuard read;
        int nRead = 0;
        ASSERT_EQ(TAVK05_REC_OK, Tavk05IsoRead(pRecord, nRecord, &nRead, &read.image));
        EXPECT_EQ(nVersion, nRead);
        EXPECT_EQ(TAVK05_REC_COMP_WSQ, read.image.nCompression);
        EXPECT_EQ(2, read.image.nFingerPosition);
        EXPECT_EQ(77, read.image.nQuality);
        EXPECT_EQ(600, read.image.nWidth);
        ASSERT_NE(nullptr, read.image.pPixels);
        EXPECT_LT(MeanError(read.image.pPixels), kWsqMeanError);
        ASSERT_GE(read.image.nDataSize, 2u);
        EXPECT_EQ(0xFF, read.image.pData[0]);
        EXPECT_EQ(0xA0, read.image.pData[1]);
    }
}

TEST_F(RecordsApi, PngIsCarriedAsItIs)
{
    const std::vector<unsigned char> png = recordtest::PngHeader(600, 600);
    Tavk05RecFinger finger = Finger(TAVK05_REC_COMP_PNG);
    finger.pData = png.data();
    finger.nDataSize = png.size();
    unsigned char* pRecord = nullptr;
    size_t nRecord = 0;
    ASSERT_EQ(TAVK05_REC_OK, Tavk05IsoWrite(2011, &finger, nullptr, &pRecord, &nRecord));
    const Owned record(pRecord);
    ImageGuard read;
    ASSERT_EQ(TAVK05_REC_OK, Tavk05IsoRead(pRecord, nRecord, nullptr, &read.image));
    EXPECT_EQ(TAVK05_REC_COMP_PNG, read.image.nCompression);
    EXPECT_EQ(nullptr, read.image.pPixels);
    EXPECT_EQ(png, std::vector<unsigned char>(read.image.pData, read.image.pData + read.image.nDataSize));
    const std::vector<unsigned char> wrongSize = recordtest::PngHeader(600, 599);
    finger.pData = wrongSize.data();
    EXPECT_EQ(TAVK05_REC_BAD_ARGUMENT, Tavk05IsoWrite(2011, &finger, nullptr, &pRecord, &nRecord));
}

TEST_F(RecordsApi, NistTransactionWithWsqRecords)
{
    Tavk05NistHeader header{};
    std::strcpy(header.szTot, "CAR");
    std::strcpy(header.szDate, "20261126");
    std::strcpy(header.szDai, "WVFBI0000");
    std::strcpy(header.szOri, "NY0303000");
    std::strcpy(header.szTcn, "T1");
    Tavk05NistFinger fingers[2] = {{14, Finger(TAVK05_REC_COMP_WSQ)}, {4, Finger(TAVK05_REC_COMP_WSQ)}};
    fingers[1].finger.nFingerPosition = 3;
    unsigned char* pBytes = nullptr;
    size_t nBytes = 0;
    ASSERT_EQ(TAVK05_REC_OK, Tavk05NistWrite(&header, fingers, 2, &pBytes, &nBytes));
    const Owned bytes(pBytes);
    TransactionGuard read;
    ASSERT_EQ(TAVK05_REC_OK, Tavk05NistRead(pBytes, nBytes, &read.transaction));
    EXPECT_STREQ("0500", read.transaction.header.szVersion);
    EXPECT_STREQ("T1", read.transaction.header.szTcn);
    EXPECT_EQ(2, read.transaction.nRecords);
    ASSERT_EQ(2, read.transaction.nFingers);
    EXPECT_EQ(14, read.transaction.pFingers[0].nRecordType);
    EXPECT_EQ(4, read.transaction.pFingers[1].nRecordType);
    EXPECT_EQ(3, read.transaction.pFingers[1].nFingerPosition);
    EXPECT_EQ(TAVK05_REC_COMP_WSQ, read.transaction.pFingers[1].nCompression);
    EXPECT_LT(MeanError(read.transaction.pFingers[0].pPixels), kWsqMeanError);
    EXPECT_LT(MeanError(read.transaction.pFingers[1].pPixels), kWsqMeanError);
}

TEST_F(RecordsApi, DescribesEachFormat)
{
    Tavk05RecFinger finger = Finger(TAVK05_REC_COMP_WSQ);
    unsigned char* pWsq = nullptr;
    size_t nWsq = 0;
    ASSERT_EQ(TAVK05_REC_OK, Tavk05WsqEncode(s_pPrint->data(), 600, 600, 500, 0.75, &pWsq, &nWsq));
    const Owned wsq(pWsq);
    DescriptionGuard plain;
    ASSERT_EQ(TAVK05_REC_OK, Tavk05RecordsDescribe(pWsq, nWsq, &plain.description));
    EXPECT_EQ(TAVK05_REC_FORMAT_WSQ, plain.description.nFormat);
    ASSERT_EQ(1, plain.description.nEntries);
    EXPECT_EQ(600, plain.description.pEntries[0].nHeight);
    EXPECT_EQ(500, plain.description.pEntries[0].nPpi);
    EXPECT_DOUBLE_EQ(nWsq * 8.0 / 360000.0, plain.description.pEntries[0].dBitsPerPixel);
    EXPECT_NEAR(0.75, plain.description.pEntries[0].dWsqBitRate, 1e-6);

    // A given WSQ stream is carried as it is.
    finger.pData = pWsq;
    finger.nDataSize = nWsq;
    finger.nImpression = TAVK05_REC_LIVE_ROLLED;
    unsigned char* pIso = nullptr;
    size_t nIso = 0;
    ASSERT_EQ(TAVK05_REC_OK, Tavk05IsoWrite(2011, &finger, nullptr, &pIso, &nIso));
    const Owned iso(pIso);
    DescriptionGuard isoDescription;
    ASSERT_EQ(TAVK05_REC_OK, Tavk05RecordsDescribe(pIso, nIso, &isoDescription.description));
    EXPECT_EQ(TAVK05_REC_FORMAT_ISO2011, isoDescription.description.nFormat);
    EXPECT_STREQ("020", isoDescription.description.szVersion);
    ASSERT_EQ(1, isoDescription.description.nEntries);
    EXPECT_EQ(nWsq, isoDescription.description.pEntries[0].nDataSize);
    EXPECT_EQ(TAVK05_REC_LIVE_ROLLED, isoDescription.description.pEntries[0].nImpression);
    EXPECT_EQ(77, isoDescription.description.pEntries[0].nQuality);

    Tavk05NistHeader header{};
    std::strcpy(header.szTot, "CAR");
    std::strcpy(header.szDai, "D");
    std::strcpy(header.szOri, "O");
    std::strcpy(header.szTcn, "T");
    const Tavk05NistFinger nist[2] = {{4, finger}, {14, Finger(TAVK05_REC_COMP_NONE)}};
    unsigned char* pNist = nullptr;
    size_t nNist = 0;
    ASSERT_EQ(TAVK05_REC_OK, Tavk05NistWrite(&header, nist, 2, &pNist, &nNist));
    const Owned nistBytes(pNist);
    DescriptionGuard nistDescription;
    ASSERT_EQ(TAVK05_REC_OK, Tavk05RecordsDescribe(pNist, nNist, &nistDescription.description));
    EXPECT_EQ(TAVK05_REC_FORMAT_NIST, nistDescription.description.nFormat);
    EXPECT_EQ(nNist, nistDescription.description.nSize);
    ASSERT_EQ(3, nistDescription.description.nEntries);
    EXPECT_EQ(1, nistDescription.description.pEntries[0].nRecordType);
    EXPECT_EQ(-1, nistDescription.description.pEntries[0].nCompression);
    EXPECT_EQ(4, nistDescription.description.pEntries[1].nRecordType);
    EXPECT_EQ(TAVK05_REC_COMP_WSQ, nistDescription.description.pEntries[1].nCompression);
    EXPECT_EQ(14, nistDescription.description.pEntries[2].nRecordType);
    EXPECT_DOUBLE_EQ(8.0, nistDescription.description.pEntries[2].dBitsPerPixel);

    const unsigned char text[] = "not a record";
    DescriptionGuard unknown;
    EXPECT_EQ(TAVK05_REC_UNKNOWN_FORMAT, Tavk05RecordsDescribe(text, sizeof text, &unknown.description));
}

TEST_F(RecordsApi, HostileInputLeavesNothingBehind)
{
    const Tavk05RecFinger finger = Finger(TAVK05_REC_COMP_WSQ);
    unsigned char* pRecord = nullptr;
    size_t nRecord = 0;
    ASSERT_EQ(TAVK05_REC_OK, Tavk05IsoWrite(2005, &finger, nullptr, &pRecord, &nRecord));
    const Owned record(pRecord);
    ImageGuard read;
    EXPECT_EQ(TAVK05_REC_TRUNCATED, Tavk05IsoRead(pRecord, nRecord - 1, nullptr, &read.image));
    EXPECT_EQ(nullptr, read.image.pData);
    // A WSQ stream cut inside its image: the ISO record around it is whole.
    std::vector<unsigned char> cutInside(pRecord, pRecord + nRecord - 100);
    recordtest::SetBe(cutInside, 8, cutInside.size(), 6);
    recordtest::SetBe(cutInside, 32, cutInside.size() - 32, 4);
    EXPECT_NE(TAVK05_REC_OK, Tavk05IsoRead(cutInside.data(), cutInside.size(), nullptr, &read.image));
    EXPECT_EQ(nullptr, read.image.pPixels);
    // A record that gives its WSQ image another size than the stream does.
    std::vector<unsigned char> otherSize(pRecord, pRecord + nRecord);
    recordtest::SetBe(otherSize, 41, 599, 2);
    EXPECT_EQ(TAVK05_REC_CORRUPT, Tavk05IsoRead(otherSize.data(), otherSize.size(), nullptr, &read.image));
    DescriptionGuard description;
    EXPECT_EQ(TAVK05_REC_CORRUPT, Tavk05RecordsDescribe(otherSize.data(), otherSize.size(), &description.description));
    EXPECT_EQ(TAVK05_REC_TRUNCATED, Tavk05RecordsDescribe(pRecord, 20, &description.description));
    EXPECT_EQ(nullptr, description.description.pEntries);
}

TEST_F(RecordsApi, BadArgumentsAreRefused)
{
    unsigned char* pOut = nullptr;
    size_t nOut = 0;
    Tavk05RecFinger finger = Finger(TAVK05_REC_COMP_NONE);
    EXPECT_EQ(TAVK05_REC_BAD_ARGUMENT, Tavk05IsoWrite(2005, nullptr, nullptr, &pOut, &nOut));
    finger.nCompression = 7;
    EXPECT_EQ(TAVK05_REC_BAD_ARGUMENT, Tavk05IsoWrite(2005, &finger, nullptr, &pOut, &nOut));
    finger = Finger(TAVK05_REC_COMP_NONE);
    finger.nWidth = 100000;
    EXPECT_EQ(TAVK05_REC_TOO_LARGE, Tavk05IsoWrite(2005, &finger, nullptr, &pOut, &nOut));
    finger = Finger(TAVK05_REC_COMP_WSQ);
    finger.dBitRate = -1.0;
    EXPECT_EQ(TAVK05_REC_BAD_ARGUMENT, Tavk05IsoWrite(2005, &finger, nullptr, &pOut, &nOut));
    Tavk05NistHeader header{};
    Tavk05NistFinger nist = {14, Finger(TAVK05_REC_COMP_NONE)};
    EXPECT_EQ(TAVK05_REC_BAD_ARGUMENT, Tavk05NistWrite(&header, &nist, 1, &pOut, &nOut));  // no TOT, DAI, ORI, TCN
    EXPECT_EQ(TAVK05_REC_BAD_ARGUMENT, Tavk05NistWrite(&header, &nist, 0, &pOut, &nOut));
    EXPECT_EQ(nullptr, pOut);
}

}  // namespace
