// ANSI/NIST-ITL 1-2011 transactions: the fields and separators receivers
// read, round trips of Type-14 and Type-4 records, and the refusal of
// hostile transactions with the right status.
#include <gtest/gtest.h>

#include "ansi_nist.h"
#include "records_images.h"

namespace {

using namespace tavk05rec;
using recordtest::BeAt;
using recordtest::RampFinger;
using recordtest::Text;

const std::string kGs = "\x1D";
const std::string kRs = "\x1E";
const std::string kUs = "\x1F";
const std::string kFs = "\x1C";

NistHeader Header()
{
    NistHeader header;
    header.strTot = "CAR";
    header.strDate = "20261126";
    header.nPriority = 2;
    header.strDai = "WVFBI0000";
    header.strOri = "NY0303000";
    header.strTcn = "TCN-0001";
    header.strDomName = "NORAM";
    header.strDomVersion = "EBTS";
    return header;
}

// A Type-14 record of a 1000 x 3 ramp (so that a width of four digits can be
// rewritten in place) and a Type-4 record of a 6 x 5 ramp.
std::vector<unsigned char> Transaction()
{
    std::vector<NistFinger> fingers(2);
    fingers[0].image = RampFinger(1000, 3);
    fingers[1].nRecordType = 4;
    fingers[1].image = RampFinger(6, 5);
    fingers[1].image.nFingerPosition = 2;
    fingers[1].image.nImpression = 0;
    std::vector<unsigned char> out;
    EXPECT_EQ(kRecOk, NistWrite(Header(), fingers, out));
    return out;
}

RecStatus ReadStatus(const std::string& strBytes)
{
    NistTransaction transaction;
    return NistRead(reinterpret_cast<const unsigned char*>(strBytes.data()), strBytes.size(), transaction);
}

// The text with the first occurrence of strFrom replaced by strTo.
std::string Replaced(std::string str, const std::string& strFrom, const std::string& strTo)
{
    const size_t nAt = str.find(strFrom);
    EXPECT_NE(std::string::npos, nAt) << strFrom;
    return nAt == std::string::npos ? str : str.replace(nAt, strFrom.size(), strTo);
}

// Length of the tagged record at nStart: up to and including its FS.
size_t TaggedLength(const std::string& str, size_t nStart, const std::string& strLenTag)
{
    const size_t nLenEnd = str.find(kGs, nStart);
    return static_cast<size_t>(std::stoul(str.substr(nStart + strLenTag.size(), nLenEnd - nStart - strLenTag.size())));
}

TEST(AnsiNist, Type1Fields)
{
    const std::string str = Text(Transaction());
    const size_t nType1 = TaggedLength(str, 0, "1.001:");
    const std::string strType1 = str.substr(0, nType1);
    EXPECT_EQ(kFs, strType1.substr(nType1 - 1));
    EXPECT_EQ(std::string::npos, strType1.substr(0, nType1 - 1).find(kFs));
    EXPECT_NE(std::string::npos, strType1.find(kGs + "1.002:0500" + kGs));
    EXPECT_NE(std::string::npos,
              strType1.find(kGs + "1.003:1" + kUs + "2" + kRs + "14" + kUs + "01" + kRs + "4" + kUs + "02" + kGs));
    EXPECT_NE(std::string::npos, strType1.find(kGs + "1.004:CAR" + kGs));
    EXPECT_NE(std::string::npos, strType1.find(kGs + "1.005:20261126" + kGs));
    EXPECT_NE(std::string::npos, strType1.find(kGs + "1.006:2" + kGs));
    EXPECT_NE(std::string::npos, strType1.find(kGs + "1.007:WVFBI0000" + kGs));
    EXPECT_NE(std::string::npos, strType1.find(kGs + "1.008:NY0303000" + kGs));
    EXPECT_NE(std::string::npos, strType1.find(kGs + "1.009:TCN-0001" + kGs));
    EXPECT_NE(std::string::npos, strType1.find(kGs + "1.011:19.69" + kGs));
    EXPECT_NE(std::string::npos, strType1.find(kGs + "1.012:19.69" + kGs));
    EXPECT_NE(std::string::npos, strType1.find(kGs + "1.013:NORAM" + kUs + "EBTS" + kFs));
}

TEST(AnsiNist, Type14Fields)
{
    const std::string str = Text(Transaction());
    const size_t nStart = TaggedLength(str, 0, "1.001:");
    ASSERT_EQ("14.001:", str.substr(nStart, 7));
    const size_t nLength = TaggedLength(str, nStart, "14.001:");
    const std::string strRecord = str.substr(nStart, nLength);
    EXPECT_EQ(kFs, strRecord.substr(nLength - 1));
    for (const char* pField :
         {"14.002:01", "14.003:1", "14.004:NY0303000", "14.005:20261126", "14.006:1000", "14.007:3", "14.008:1",
          "14.009:500", "14.010:500", "14.011:NONE", "14.012:8", "14.013:7"}) {
        EXPECT_NE(std::string::npos, strRecord.find(kGs + pField + kGs)) << pField;
    }
    EXPECT_NE(std::string::npos, strRecord.find(kGs + "14.024:7" + kUs + "64" + kUs + "0000" + kUs + "0" + kGs));
    // The image is the last field and runs to the FS.
    EXPECT_EQ(nLength - 1 - 3000, strRecord.find(kGs + "14.999:") + 8);
}

TEST(AnsiNist, Type4Header)
{
    const std::vector<unsigned char> bytes = Transaction();
    const std::string str = Text(bytes);
    const size_t nType1 = TaggedLength(str, 0, "1.001:");
    const size_t nType4 = nType1 + TaggedLength(str, nType1, "14.001:");
    ASSERT_EQ(nType4 + 18 + 30, bytes.size());
    EXPECT_EQ(18u + 30u, BeAt(bytes, nType4, 4));          // LEN
    EXPECT_EQ(2u, BeAt(bytes, nType4 + 4, 1));             // IDC
    EXPECT_EQ(0u, BeAt(bytes, nType4 + 5, 1));             // IMP: live-scan plain
    EXPECT_EQ(2u, BeAt(bytes, nType4 + 6, 1));             // FGP
    EXPECT_EQ(0xFFFFFFFFFFu, BeAt(bytes, nType4 + 7, 5));  // unused finger positions
    EXPECT_EQ(0u, BeAt(bytes, nType4 + 12, 1));            // ISR
    EXPECT_EQ(6u, BeAt(bytes, nType4 + 13, 2));            // HLL
    EXPECT_EQ(5u, BeAt(bytes, nType4 + 15, 2));            // VLL
    EXPECT_EQ(0u, BeAt(bytes, nType4 + 17, 1));            // GCA: none
}

TEST(AnsiNist, RoundTrip)
{
    const std::vector<unsigned char> bytes = Transaction();
    NistTransaction transaction;
    ASSERT_EQ(kRecOk, NistRead(bytes.data(), bytes.size(), transaction));
    EXPECT_EQ("0500", transaction.header.strVersion);
    EXPECT_EQ("CAR", transaction.header.strTot);
    EXPECT_EQ("20261126", transaction.header.strDate);
    EXPECT_EQ(2, transaction.header.nPriority);
    EXPECT_EQ("WVFBI0000", transaction.header.strDai);
    EXPECT_EQ("NY0303000", transaction.header.strOri);
    EXPECT_EQ("TCN-0001", transaction.header.strTcn);
    EXPECT_EQ("NORAM", transaction.header.strDomName);
    EXPECT_EQ("EBTS", transaction.header.strDomVersion);
    EXPECT_EQ((std::vector<int>{14, 4}), transaction.recordTypes);
    ASSERT_EQ(2u, transaction.fingers.size());
    const FingerImage& type14 = transaction.fingers[0].image;
    EXPECT_EQ(14, transaction.fingers[0].nRecordType);
    EXPECT_EQ(7, type14.nFingerPosition);
    EXPECT_EQ(1, type14.nImpression);
    EXPECT_EQ(64, type14.nQuality);
    EXPECT_EQ(500, type14.nPpi);
    EXPECT_EQ(1000, type14.nWidth);
    EXPECT_EQ(3, type14.nHeight);
    EXPECT_EQ(RampFinger(1000, 3).data, type14.data);
    const FingerImage& type4 = transaction.fingers[1].image;
    EXPECT_EQ(4, transaction.fingers[1].nRecordType);
    EXPECT_EQ(2, type4.nFingerPosition);
    EXPECT_EQ(0, type4.nImpression);
    EXPECT_EQ(kQualityNone, type4.nQuality);
    EXPECT_EQ(500, type4.nPpi);
    EXPECT_EQ(6, type4.nWidth);
    EXPECT_EQ(RampFinger(6, 5).data, type4.data);
}

TEST(AnsiNist, LaterVersionsAreReadAndOthersRefused)
{
    const std::string str = Text(Transaction());
    EXPECT_EQ(kRecOk, ReadStatus(Replaced(str, "1.002:0500", "1.002:0501")));
    EXPECT_EQ(kRecOk, ReadStatus(Replaced(str, "1.002:0500", "1.002:0502")));
    EXPECT_EQ(kRecUnsupported, ReadStatus(Replaced(str, "1.002:0500", "1.002:0400")));
}

TEST(AnsiNist, EveryTruncationIsRefused)
{
    const std::string str = Text(Transaction());
    for (size_t n = 1; n < str.size(); ++n) {
        EXPECT_EQ(kRecTruncated, ReadStatus(str.substr(0, n))) << "cut to " << n << " bytes";
    }
}

TEST(AnsiNist, LyingLengthsAndCountsAreRefused)
{
    const std::string str = Text(Transaction());
    const size_t nType1 = TaggedLength(str, 0, "1.001:");
    const std::string strLen = "14.001:" + std::to_string(TaggedLength(str, nType1, "14.001:"));
    const std::string strShorter = "14.001:" + std::to_string(TaggedLength(str, nType1, "14.001:") - 1);
    EXPECT_EQ(kRecCorrupt, ReadStatus(Replaced(str, strLen, strShorter)));
    EXPECT_EQ(kRecCorrupt, ReadStatus(str + "x"));
    // CNT counts three records where two follow.
    EXPECT_EQ(kRecCorrupt, ReadStatus(Replaced(str, "1" + kUs + "2" + kRs, "1" + kUs + "3" + kRs)));
    EXPECT_EQ(kRecCorrupt, ReadStatus(Replaced(str, "14" + kUs + "01", "14" + kUs + "05")));  // IDC differs
    EXPECT_EQ(kRecCorrupt, ReadStatus(Replaced(str, "14.011:", "14.911:")));                  // CGA missing
    EXPECT_EQ(kRecCorrupt, ReadStatus(Replaced(str, "14.007:3", "14.007:4")));                // more pixels than data

    std::string strType4Length = str;
    strType4Length[str.size() - 18 - 30 + 3] = 49;  // Type-4 LEN one more than the bytes left
    EXPECT_EQ(kRecTruncated, ReadStatus(strType4Length));
}

TEST(AnsiNist, HugeDimensionsAreRefused)
{
    const std::string str = Text(Transaction());
    EXPECT_EQ(kRecTooLarge, ReadStatus(Replaced(str, "14.006:1000", "14.006:9999")));
    std::string strType4 = str;
    strType4[str.size() - 30 - 5] = '\xFF';  // HLL 0xFF06
    EXPECT_EQ(kRecTooLarge, ReadStatus(strType4));
}

TEST(AnsiNist, UnsupportedContentIsNamed)
{
    const std::string str = Text(Transaction());
    EXPECT_EQ(kRecUnsupported, ReadStatus(Replaced(str, "14.011:NONE", "14.011:JP2L")));
    EXPECT_EQ(kRecCorrupt, ReadStatus(Replaced(str, "14.011:NONE", "14.011:ABCD")));
    EXPECT_EQ(kRecUnsupported, ReadStatus(Replaced(str, "14.012:8", "14.012:9")));
    EXPECT_EQ(kRecUnknownFormat, ReadStatus("FIR"));
}

TEST(AnsiNist, WriterRefusesWhatReceiversWouldNot)
{
    std::vector<unsigned char> out;
    std::vector<NistFinger> fingers(1);
    fingers[0].image = RampFinger(6, 5);
    EXPECT_EQ(kRecBadArgument, NistWrite(Header(), {}, out));
    NistHeader header = Header();
    header.strOri = "NY" + kGs + "03";
    EXPECT_EQ(kRecBadArgument, NistWrite(header, fingers, out));
    header = Header();
    header.strTcn.clear();
    EXPECT_EQ(kRecBadArgument, NistWrite(header, fingers, out));
    header = Header();
    header.strDate = "2026-11-";
    EXPECT_EQ(kRecBadArgument, NistWrite(header, fingers, out));
    fingers[0].nRecordType = 4;
    fingers[0].image.nPpi = 1000;
    EXPECT_EQ(kRecBadArgument, NistWrite(Header(), fingers, out));
    fingers[0].image = RampFinger(20, 10);
    fingers[0].image.nCompression = kCompPng;
    fingers[0].image.data = recordtest::PngHeader(20, 10);
    EXPECT_EQ(kRecBadArgument, NistWrite(Header(), fingers, out));
    fingers[0].nRecordType = 9;
    fingers[0].image = RampFinger(6, 5);
    EXPECT_EQ(kRecBadArgument, NistWrite(Header(), fingers, out));
}

}  // namespace
