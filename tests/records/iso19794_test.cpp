// ISO/IEC 19794-4 finger image records: the byte layout of both editions,
// round trips, and the refusal of hostile records with the right status.
#include <gtest/gtest.h>

#include "iso19794.h"
#include "records_images.h"

namespace {

using namespace tavk05rec;
using recordtest::BeAt;
using recordtest::RampFinger;
using recordtest::SetBe;

std::vector<unsigned char> Written(int nVersion, const FingerImage& finger, const IsoCapture& capture = IsoCapture())
{
    std::vector<unsigned char> out;
    EXPECT_EQ(kRecOk, IsoWrite(nVersion, finger, capture, out));
    return out;
}

RecStatus ReadStatus(const std::vector<unsigned char>& bytes)
{
    int nVersion = 0;
    std::vector<FingerImage> fingers;
    return IsoRead(bytes.data(), bytes.size(), nVersion, fingers);
}

TEST(Iso19794, Layout2005)
{
    const FingerImage finger = RampFinger(40, 30);
    const std::vector<unsigned char> rec = Written(2005, finger);
    ASSERT_EQ(32u + 14u + 1200u, rec.size());
    EXPECT_EQ(std::string("FIR", 4), recordtest::Text(rec).substr(0, 4));
    EXPECT_EQ(std::string("010", 4), recordtest::Text(rec).substr(4, 4));
    EXPECT_EQ(rec.size(), BeAt(rec, 8, 6));    // record length
    EXPECT_EQ(31u, BeAt(rec, 16, 2));          // image acquisition level: 500 ppi, 256 grey levels
    EXPECT_EQ(1u, BeAt(rec, 18, 1));           // number of fingers
    EXPECT_EQ(1u, BeAt(rec, 19, 1));           // scale units: ppi
    EXPECT_EQ(500u, BeAt(rec, 20, 2));         // horizontal scan resolution
    EXPECT_EQ(500u, BeAt(rec, 26, 2));         // vertical image resolution
    EXPECT_EQ(8u, BeAt(rec, 28, 1));           // bit depth
    EXPECT_EQ(0u, BeAt(rec, 29, 1));           // compression: uncompressed
    EXPECT_EQ(14u + 1200u, BeAt(rec, 32, 4));  // finger data block length
    EXPECT_EQ(7u, BeAt(rec, 36, 1));           // finger position
    EXPECT_EQ(1u, BeAt(rec, 37, 1));           // count of views
    EXPECT_EQ(1u, BeAt(rec, 38, 1));           // view number
    EXPECT_EQ(64u, BeAt(rec, 39, 1));          // quality
    EXPECT_EQ(1u, BeAt(rec, 40, 1));           // impression: live-scan rolled
    EXPECT_EQ(40u, BeAt(rec, 41, 2));          // width
    EXPECT_EQ(30u, BeAt(rec, 43, 2));          // height
    EXPECT_EQ(finger.data.front(), rec.at(46));
}

TEST(Iso19794, Layout2011)
{
    IsoCapture capture;
    capture.nYear = 2026;
    capture.nMonth = 11;
    capture.nDay = 26;
    capture.nHour = 1;
    capture.nMillisecond = 250;
    capture.nVendorId = 0x1234;
    const std::vector<unsigned char> rec = Written(2011, RampFinger(40, 30), capture);
    const size_t nRepresentation = 41 + 5 + 1200;
    ASSERT_EQ(15 + nRepresentation, rec.size());
    EXPECT_EQ(std::string("020", 4), recordtest::Text(rec).substr(4, 4));
    EXPECT_EQ(rec.size(), BeAt(rec, 8, 4));        // record length
    EXPECT_EQ(1u, BeAt(rec, 12, 2));               // representations
    EXPECT_EQ(0u, BeAt(rec, 14, 1));               // no certification
    EXPECT_EQ(nRepresentation, BeAt(rec, 15, 4));  // representation length
    EXPECT_EQ(2026u, BeAt(rec, 19, 2));            // capture year
    EXPECT_EQ(11u, BeAt(rec, 21, 1));              // month
    EXPECT_EQ(250u, BeAt(rec, 26, 2));             // millisecond
    EXPECT_EQ(0x1234u, BeAt(rec, 29, 2));          // device vendor
    EXPECT_EQ(1u, BeAt(rec, 33, 1));               // quality blocks
    EXPECT_EQ(64u, BeAt(rec, 34, 1));              // quality score
    EXPECT_EQ(7u, BeAt(rec, 39, 1));               // finger position
    EXPECT_EQ(1u, BeAt(rec, 41, 1));               // scale units: ppi
    EXPECT_EQ(500u, BeAt(rec, 46, 2));             // horizontal image sampling rate
    EXPECT_EQ(8u, BeAt(rec, 50, 1));               // bit depth
    EXPECT_EQ(0u, BeAt(rec, 51, 1));               // compression
    EXPECT_EQ(1u, BeAt(rec, 52, 1));               // impression
    EXPECT_EQ(40u, BeAt(rec, 53, 2));              // width
    EXPECT_EQ(30u, BeAt(rec, 55, 2));              // height
    EXPECT_EQ(1200u, BeAt(rec, 57, 4));            // image data length
}

TEST(Iso19794, UnknownCaptureDateAndQualityAreLeftOut)
{
    FingerImage finger = RampFinger(8, 8);
    finger.nQuality = kQualityNone;
    const std::vector<unsigned char> rec = Written(2011, finger);
    EXPECT_EQ(0xFFFFu, BeAt(rec, 19, 2));  // year unknown
    EXPECT_EQ(0u, BeAt(rec, 33, 1));       // no quality block
    EXPECT_EQ(15u + 41u + 64u, rec.size());
}

TEST(Iso19794, PngCodeOfEachEdition)
{
    FingerImage finger = RampFinger(20, 10);
    finger.nCompression = kCompPng;
    finger.data = recordtest::PngHeader(20, 10);
    EXPECT_EQ(5u, BeAt(Written(2005, finger), 29, 1));
    EXPECT_EQ(6u, BeAt(Written(2011, finger), 51, 1));
}

TEST(Iso19794, RoundTripsBothEditions)
{
    for (int nVersion : {2005, 2011}) {
        SCOPED_TRACE(nVersion);
        FingerImage finger = RampFinger(33, 21);
        finger.nPpi = 1000;
        const std::vector<unsigned char> rec = Written(nVersion, finger);
        int nRead = 0;
        std::vector<FingerImage> fingers;
        ASSERT_EQ(kRecOk, IsoRead(rec.data(), rec.size(), nRead, fingers));
        EXPECT_EQ(nVersion, nRead);
        ASSERT_EQ(1u, fingers.size());
        EXPECT_EQ(7, fingers[0].nFingerPosition);
        EXPECT_EQ(1, fingers[0].nImpression);
        EXPECT_EQ(64, fingers[0].nQuality);
        EXPECT_EQ(kCompNone, fingers[0].nCompression);
        EXPECT_EQ(1000, fingers[0].nPpi);
        EXPECT_EQ(33, fingers[0].nWidth);
        EXPECT_EQ(21, fingers[0].nHeight);
        EXPECT_EQ(finger.data, fingers[0].data);
    }
}

TEST(Iso19794, ResolutionInPixelsPerCentimetreIsConverted)
{
    std::vector<unsigned char> rec = Written(2005, RampFinger(8, 8));
    SetBe(rec, 19, 2, 1);    // scale units: ppcm
    SetBe(rec, 24, 197, 2);  // 197 ppcm
    SetBe(rec, 26, 197, 2);
    int nVersion = 0;
    std::vector<FingerImage> fingers;
    ASSERT_EQ(kRecOk, IsoRead(rec.data(), rec.size(), nVersion, fingers));
    EXPECT_EQ(500, fingers[0].nPpi);
}

TEST(Iso19794, EveryTruncationIsRefused)
{
    for (int nVersion : {2005, 2011}) {
        const std::vector<unsigned char> rec = Written(nVersion, RampFinger(6, 5));
        for (size_t n = 4; n < rec.size(); ++n) {
            const std::vector<unsigned char> cut(rec.begin(), rec.begin() + static_cast<long>(n));
            EXPECT_EQ(kRecTruncated, ReadStatus(cut)) << nVersion << " cut to " << n << " bytes";
        }
    }
}

TEST(Iso19794, LyingLengthsAreRefused)
{
    std::vector<unsigned char> rec = Written(2005, RampFinger(6, 5));
    std::vector<unsigned char> shortRecord = rec;
    SetBe(shortRecord, 8, rec.size() - 1, 6);
    EXPECT_EQ(kRecCorrupt, ReadStatus(shortRecord));
    std::vector<unsigned char> longFinger = rec;
    SetBe(longFinger, 32, 14 + 31, 4);  // one byte more than the record holds
    EXPECT_EQ(kRecCorrupt, ReadStatus(longFinger));
    std::vector<unsigned char> moreFingers = rec;
    SetBe(moreFingers, 18, 2, 1);
    EXPECT_EQ(kRecCorrupt, ReadStatus(moreFingers));
    std::vector<unsigned char> wrongSize = rec;
    SetBe(wrongSize, 41, 7, 2);  // width 7: 35 pixels announced, 30 present
    EXPECT_EQ(kRecCorrupt, ReadStatus(wrongSize));

    std::vector<unsigned char> rec2011 = Written(2011, RampFinger(6, 5));
    std::vector<unsigned char> longImage = rec2011;
    SetBe(longImage, 57, 31, 4);  // image data length past the representation
    EXPECT_EQ(kRecCorrupt, ReadStatus(longImage));
    std::vector<unsigned char> manyQualityBlocks = rec2011;
    SetBe(manyQualityBlocks, 33, 200, 1);
    EXPECT_EQ(kRecCorrupt, ReadStatus(manyQualityBlocks));
}

TEST(Iso19794, HugeDimensionsAreRefused)
{
    std::vector<unsigned char> rec = Written(2005, RampFinger(6, 5));
    SetBe(rec, 41, 65535, 2);
    SetBe(rec, 43, 65535, 2);
    EXPECT_EQ(kRecTooLarge, ReadStatus(rec));
    std::vector<unsigned char> rec2011 = Written(2011, RampFinger(6, 5));
    SetBe(rec2011, 53, 9000, 2);
    EXPECT_EQ(kRecTooLarge, ReadStatus(rec2011));
}

TEST(Iso19794, UnsupportedContentIsNamed)
{
    const std::vector<unsigned char> rec = Written(2005, RampFinger(6, 5));
    std::vector<unsigned char> jpeg = rec;
    SetBe(jpeg, 29, 3, 1);
    EXPECT_EQ(kRecUnsupported, ReadStatus(jpeg));
    std::vector<unsigned char> reserved = rec;
    SetBe(reserved, 29, 9, 1);
    EXPECT_EQ(kRecCorrupt, ReadStatus(reserved));
    std::vector<unsigned char> deep = rec;
    SetBe(deep, 28, 16, 1);
    EXPECT_EQ(kRecUnsupported, ReadStatus(deep));
    std::vector<unsigned char> edition = rec;
    edition[5] = '3';
    EXPECT_EQ(kRecUnsupported, ReadStatus(edition));
    std::vector<unsigned char> other = rec;
    other[0] = 'X';
    EXPECT_EQ(kRecUnknownFormat, ReadStatus(other));
}

TEST(Iso19794, WriterRefusesWhatItCannotWrite)
{
    std::vector<unsigned char> out;
    FingerImage finger = RampFinger(6, 5);
    EXPECT_EQ(kRecBadArgument, IsoWrite(2008, finger, IsoCapture(), out));
    finger.nImpression = 2;
    EXPECT_EQ(kRecBadArgument, IsoWrite(2005, finger, IsoCapture(), out));
    finger = RampFinger(6, 5);
    finger.nQuality = 101;
    EXPECT_EQ(kRecBadArgument, IsoWrite(2005, finger, IsoCapture(), out));
    finger = RampFinger(6, 5);
    finger.nFingerPosition = 11;
    EXPECT_EQ(kRecBadArgument, IsoWrite(2005, finger, IsoCapture(), out));
    finger = RampFinger(6, 5);
    finger.data.pop_back();
    EXPECT_EQ(kRecBadArgument, IsoWrite(2005, finger, IsoCapture(), out));
    finger = RampFinger(6, 5);
    finger.nCompression = kCompPng;
    EXPECT_EQ(kRecBadArgument, IsoWrite(2005, finger, IsoCapture(), out));  // pixels are no PNG stream
    IsoCapture capture;
    capture.nYear = 2026;
    capture.nMonth = 13;
    EXPECT_EQ(kRecBadArgument, IsoWrite(2011, RampFinger(6, 5), capture, out));
}

}  // namespace
