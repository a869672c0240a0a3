// ISO/IEC 19794-4 finger image records.
//
// 2005 ("FIR\0" "010\0"): a 32-byte general header (record length in 6
// bytes) and per finger view a 14-byte finger header before the image data.
// 2011 ("FIR\0" "020\0"): a 15-byte general header (record length in 4
// bytes) and per representation a header with capture date and device,
// quality and certification blocks, then the image data with its length.
// All integers are big-endian.
#include "iso19794.h"

#include <cstring>

namespace tavk05rec {
namespace {

constexpr size_t kHeader2005 = 32;
constexpr size_t kFingerHeader2005 = 14;
constexpr size_t kHeader2011 = 15;
// Representation header without quality and certification blocks, and its
// fixed part before the quality blocks.
constexpr size_t kRepresentationFixed2011 = 4 + 9 + 1 + 2 + 2 + 1 + 22;
// Image acquisition level of 500 ppi, 256 grey levels.
constexpr unsigned kAcquisitionLevel500 = 31;
constexpr unsigned kScalePpi = 1;

// Compression codes of the two editions: 2011 split JPEG 2000 into lossy
// (4) and lossless (5), which moved PNG from 5 to 6.
int CompressionCode(int nVersion, int nCompression)
{
    switch (nCompression) {
        case kCompNone:
            return 0;
        case kCompWsq:
            return 2;
        default:
            return nVersion == 2005 ? 5 : 6;
    }
}

// The library's compression for a code read, or -1 for a valid code it does
// not handle (bit-packed, JPEG, JPEG 2000) and -2 for a reserved one.
int CompressionFromCode(int nVersion, unsigned nCode)
{
    const unsigned nPng = nVersion == 2005 ? 5 : 6;
    if (nCode == 0) {
        return kCompNone;
    }
    if (nCode == 2) {
        return kCompWsq;
    }
    if (nCode == nPng) {
        return kCompPng;
    }
    return nCode < nPng ? -1 : -2;
}

RecStatus Write2005(const FingerImage& finger, std::vector<unsigned char>& out)
{
    const uint64_t nFingerLength = kFingerHeader2005 + finger.data.size();
    const uint64_t nRecordLength = kHeader2005 + nFingerLength;
    if (nRecordLength >= (1ULL << 48)) {
        return kRecTooLarge;
    }
    out.clear();
    out.reserve(nRecordLength);
    out.insert(out.end(), {'F', 'I', 'R', 0, '0', '1', '0', 0});
    PutBe(out, nRecordLength, 6);
    PutBe(out, 0, 2);  // capture device ID: unreported
    PutBe(out, kAcquisitionLevel500, 2);
    PutBe(out, 1, 1);  // number of fingers
    PutBe(out, kScalePpi, 1);
    for (int i = 0; i < 4; ++i) {  // scan and image resolution, horizontal and vertical
        PutBe(out, static_cast<uint64_t>(finger.nPpi), 2);
    }
    PutBe(out, 8, 1);  // bit depth
    PutBe(out, static_cast<uint64_t>(CompressionCode(2005, finger.nCompression)), 1);
    PutBe(out, 0, 2);  // reserved

    PutBe(out, nFingerLength, 4);
    PutBe(out, static_cast<uint64_t>(finger.nFingerPosition), 1);
    PutBe(out, 1, 1);  // count of views
    PutBe(out, 1, 1);  // view number
    PutBe(out, static_cast<uint64_t>(finger.nQuality), 1);
    PutBe(out, static_cast<uint64_t>(finger.nImpression), 1);
    PutBe(out, static_cast<uint64_t>(finger.nWidth), 2);
    PutBe(out, static_cast<uint64_t>(finger.nHeight), 2);
    PutBe(out, 0, 1);  // reserved
    out.insert(out.end(), finger.data.begin(), finger.data.end());
    return kRecOk;
}

RecStatus Write2011(const FingerImage& finger, const IsoCapture& capture, std::vector<unsigned char>& out)
{
    const bool bQuality = finger.nQuality != kQualityNone;
    const uint64_t nRepresentationLength = kRepresentationFixed2011 + (bQuality ? 5 : 0) + finger.data.size();
    const uint64_t nRecordLength = kHeader2011 + nRepresentationLength;
    if (nRecordLength > 0xFFFFFFFFULL) {
        return kRecTooLarge;
    }
    out.clear();
    out.reserve(nRecordLength);
    out.insert(out.end(), {'F', 'I', 'R', 0, '0', '2', '0', 0});
    PutBe(out, nRecordLength, 4);
    PutBe(out, 1, 2);  // number of finger representations
    PutBe(out, 0, 1);  // no certification blocks

    PutBe(out, nRepresentationLength, 4);
    if (capture.nYear == 0) {
        out.insert(out.end(), 9, 0xFF);  // capture date and time unknown
    } else {
        PutBe(out, static_cast<uint64_t>(capture.nYear), 2);
        for (int nPart : {capture.nMonth, capture.nDay, capture.nHour, capture.nMinute, capture.nSecond}) {
            PutBe(out, static_cast<uint64_t>(nPart), 1);
        }
        PutBe(out, static_cast<uint64_t>(capture.nMillisecond), 2);
    }
    PutBe(out, static_cast<uint64_t>(capture.nDeviceTechnology), 1);
    PutBe(out, static_cast<uint64_t>(capture.nVendorId), 2);
    PutBe(out, static_cast<uint64_t>(capture.nDeviceType), 2);
    PutBe(out, bQuality ? 1 : 0, 1);  // quality blocks
    if (bQuality) {
        PutBe(out, static_cast<uint64_t>(finger.nQuality), 1);
        PutBe(out, 0, 2);  // quality algorithm vendor: unreported
        PutBe(out, 0, 2);  // quality algorithm: unreported
    }
    PutBe(out, static_cast<uint64_t>(finger.nFingerPosition), 1);
    PutBe(out, 0, 1);  // representation number
    PutBe(out, kScalePpi, 1);
    for (int i = 0; i < 4; ++i) {  // scan and image sampling rate, horizontal and vertical
        PutBe(out, static_cast<uint64_t>(finger.nPpi), 2);
    }
    PutBe(out, 8, 1);  // bit depth
    PutBe(out, static_cast<uint64_t>(CompressionCode(2011, finger.nCompression)), 1);
    PutBe(out, static_cast<uint64_t>(finger.nImpression), 1);
    PutBe(out, static_cast<uint64_t>(finger.nWidth), 2);
    PutBe(out, static_cast<uint64_t>(finger.nHeight), 2);
    PutBe(out, finger.data.size(), 4);
    out.insert(out.end(), finger.data.begin(), finger.data.end());
    return kRecOk;
}

// Checks the image fields common to both editions and takes the image data.
RecStatus TakeImage(int nVersion, unsigned nScaleUnits, unsigned nResolutionX, unsigned nResolutionY, unsigned nDepth,
                    unsigned nCompressionCode, const unsigned char* pImage, size_t nImageSize, FingerImage& finger)
{
    const RecStatus dimensions = CheckDimensions(finger.nWidth, finger.nHeight);
    if (dimensions != kRecOk) {
        return dimensions;
    }
    const int nPpi = PixelsPerInch(static_cast<int>(nScaleUnits), static_cast<int>(nResolutionX));
    if (nPpi == 0 || nResolutionX == 0) {
        return kRecCorrupt;
    }
    if (nResolutionX != nResolutionY || nDepth != 8) {
        return kRecUnsupported;
    }
    const int nCompression = CompressionFromCode(nVersion, nCompressionCode);
    if (nCompression == -1) {
        return kRecUnsupported;
    }
    if (nCompression == -2) {
        return kRecCorrupt;
    }
    finger.nPpi = nPpi;
    finger.nCompression = nCompression;
    finger.data.assign(pImage, pImage + nImageSize);
    return CheckFingerData(finger);
}

RecStatus Read2005(const unsigned char* pData, size_t nSize, std::vector<FingerImage>& fingers)
{
    ByteReader header(pData, nSize);
    header.Skip(8);
    const uint64_t nRecordLength = header.U48();
    header.Skip(4);  // capture device ID, image acquisition level
    const unsigned nFingers = header.U8();
    const unsigned nScaleUnits = header.U8();
    header.Skip(4);  // scan resolution
    const unsigned nResolutionX = header.U16();
    const unsigned nResolutionY = header.U16();
    const unsigned nDepth = header.U8();
    const unsigned nCompressionCode = header.U8();
    header.Skip(2);
    if (header.Failed()) {
        return kRecTruncated;
    }
    if (nRecordLength < kHeader2005 + kFingerHeader2005 || nFingers == 0) {
        return kRecCorrupt;
    }
    if (nRecordLength > nSize) {
        return kRecTruncated;
    }
    if (nRecordLength < nSize) {
        return kRecCorrupt;
    }

    ByteReader body(pData + kHeader2005, nSize - kHeader2005);
    for (unsigned nFinger = 0; nFinger < nFingers; ++nFinger) {
        const uint64_t nFingerLength = body.U32();
        FingerImage finger;
        finger.nFingerPosition = static_cast<int>(body.U8());
        body.Skip(2);  // count of views, view number
        finger.nQuality = static_cast<int>(body.U8());
        finger.nImpression = static_cast<int>(body.U8());
        finger.nWidth = static_cast<int>(body.U16());
        finger.nHeight = static_cast<int>(body.U16());
        body.Skip(1);
        if (body.Failed()) {
            return kRecCorrupt;  // fewer fingers than the header counts
        }
        if (nFingerLength < kFingerHeader2005 || nFingerLength - kFingerHeader2005 > body.Remaining()) {
            return kRecCorrupt;
        }
        const size_t nImageSize = static_cast<size_t>(nFingerLength - kFingerHeader2005);
        const RecStatus status = TakeImage(2005, nScaleUnits, nResolutionX, nResolutionY, nDepth, nCompressionCode,
                                           body.Bytes(nImageSize), nImageSize, finger);
        if (status != kRecOk) {
            return status;
        }
        fingers.push_back(std::move(finger));
    }
    return body.Remaining() == 0 ? kRecOk : kRecCorrupt;
}

RecStatus ReadRepresentation2011(const unsigned char* pData, size_t nSize, bool bCertification, FingerImage& finger)
{
    ByteReader rep(pData, nSize);
    rep.Skip(4 + 9 + 1 + 2 + 2);  // length, capture date and time, device technology, vendor and type
    const unsigned nQualityBlocks = rep.U8();
    for (unsigned i = 0; i < nQualityBlocks; ++i) {
        const unsigned nQuality = rep.U8();
        rep.Skip(4);
        if (i == 0) {
            finger.nQuality = static_cast<int>(nQuality);
        }
    }
    if (bCertification) {
        rep.Skip(3 * static_cast<size_t>(rep.U8()));
    }
    finger.nFingerPosition = static_cast<int>(rep.U8());
    rep.Skip(1);  // representation number
    const unsigned nScaleUnits = rep.U8();
    rep.Skip(4);  // scan sampling rate
    const unsigned nResolutionX = rep.U16();
    const unsigned nResolutionY = rep.U16();
    const unsigned nDepth = rep.U8();
    const unsigned nCompressionCode = rep.U8();
    finger.nImpression = static_cast<int>(rep.U8());
    finger.nWidth = static_cast<int>(rep.U16());
    finger.nHeight = static_cast<int>(rep.U16());
    const uint64_t nImageSize = rep.U32();
    if (rep.Failed() || nImageSize > rep.Remaining()) {
        return kRecCorrupt;  // the representation is shorter than its fields
    }
    // Anything after the image data (extended data blocks) is left unread.
    return TakeImage(2011, nScaleUnits, nResolutionX, nResolutionY, nDepth, nCompressionCode,
                     rep.Bytes(static_cast<size_t>(nImageSize)), static_cast<size_t>(nImageSize), finger);
}

RecStatus Read2011(const unsigned char* pData, size_t nSize, std::vector<FingerImage>& fingers)
{
    ByteReader header(pData, nSize);
    header.Skip(8);
    const uint64_t nRecordLength = header.U32();
    const unsigned nRepresentations = header.U16();
    const unsigned nCertification = header.U8();
    if (header.Failed()) {
        return kRecTruncated;
    }
    if (nRecordLength < kHeader2011 + kRepresentationFixed2011 || nRepresentations == 0 || nCertification > 1) {
        return kRecCorrupt;
    }
    if (nRecordLength > nSize) {
        return kRecTruncated;
    }
    if (nRecordLength < nSize) {
        return kRecCorrupt;
    }
    ByteReader body(pData + kHeader2011, nSize - kHeader2011);
    for (unsigned nIndex = 0; nIndex < nRepresentations; ++nIndex) {
        const size_t nStart = body.Position();
        const uint64_t nLength = body.U32();
        if (body.Failed() || nLength < kRepresentationFixed2011 || nLength - 4 > body.Remaining()) {
            return kRecCorrupt;
        }
        FingerImage finger;
        const RecStatus status = ReadRepresentation2011(pData + kHeader2011 + nStart, static_cast<size_t>(nLength),
                                                        nCertification == 1, finger);
        if (status != kRecOk) {
            return status;
        }
        body.Skip(static_cast<size_t>(nLength - 4));
        fingers.push_back(std::move(finger));
    }
    return body.Remaining() == 0 ? kRecOk : kRecCorrupt;
}

}  // namespace

RecStatus IsoWrite(int nVersion, const FingerImage& finger, const IsoCapture& capture, std::vector<unsigned char>& out)
{
    if (nVersion != 2005 && nVersion != 2011) {
        return kRecBadArgument;
    }
    const RecStatus status = CheckFingerForWriting(finger, 10);
    if (status != kRecOk) {
        return status;
    }
    if (nVersion == 2005) {
        return Write2005(finger, out);
    }
    const bool bDate =
        capture.nYear == 0 || (capture.nYear <= 9999 && capture.nMonth >= 1 && capture.nMonth <= 12 &&
                               capture.nDay >= 1 && capture.nDay <= 31 && capture.nHour >= 0 && capture.nHour <= 23 &&
                               capture.nMinute >= 0 && capture.nMinute <= 59 && capture.nSecond >= 0 &&
                               capture.nSecond <= 59 && capture.nMillisecond >= 0 && capture.nMillisecond <= 999);
    const bool bDevice = capture.nDeviceTechnology >= 0 && capture.nDeviceTechnology <= 255 && capture.nVendorId >= 0 &&
                         capture.nVendorId <= 0xFFFF && capture.nDeviceType >= 0 && capture.nDeviceType <= 0xFFFF;
    if (!bDate || !bDevice) {
        return kRecBadArgument;
    }
    return Write2011(finger, capture, out);
}

RecStatus IsoRead(const unsigned char* pData, size_t nSize, int& nVersion, std::vector<FingerImage>& fingers)
{
    fingers.clear();
    if (pData == nullptr && nSize != 0) {
        return kRecBadArgument;
    }
    if (nSize < 8) {
        return nSize >= 4 && std::memcmp(pData, "FIR", 4) == 0 ? kRecTruncated : kRecUnknownFormat;
    }
    if (std::memcmp(pData, "FIR", 4) != 0) {
        return kRecUnknownFormat;
    }
    RecStatus status = kRecUnsupported;
    if (std::memcmp(pData + 4, "010", 4) == 0) {
        nVersion = 2005;
        status = Read2005(pData, nSize, fingers);
    } else if (std::memcmp(pData + 4, "020", 4) == 0) {
        nVersion = 2011;
        status = Read2011(pData, nSize, fingers);
    }
    if (status != kRecOk) {
        fingers.clear();
    }
    return status;
}

}  // namespace tavk05rec
