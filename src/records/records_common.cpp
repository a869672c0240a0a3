// Checks shared by the record writers and readers.
#include "records_common.h"

#include <cstring>

namespace tavk05rec {

RecStatus CheckPngStream(const unsigned char* pData, size_t nSize, int nWidth, int nHeight)
{
    static const unsigned char kSignature[8] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
    ByteReader reader(pData, nSize);
    const unsigned char* pSignature = reader.Bytes(sizeof kSignature);
    const uint64_t nChunkLength = reader.U32();
    const unsigned char* pType = reader.Bytes(4);
    const uint64_t nWidthPng = reader.U32();
    const uint64_t nHeightPng = reader.U32();
    const unsigned nDepth = reader.U8();
    const unsigned nColourType = reader.U8();
    if (reader.Failed()) {
        return kRecTruncated;
    }
    if (std::memcmp(pSignature, kSignature, sizeof kSignature) != 0 || nChunkLength != 13 ||
        std::memcmp(pType, "IHDR", 4) != 0) {
        return kRecCorrupt;
    }
    if (nWidthPng != static_cast<uint64_t>(nWidth) || nHeightPng != static_cast<uint64_t>(nHeight)) {
        return kRecCorrupt;
    }
    // Only 8-bit grey (colour type 0) is a finger image of this library.
    if (nDepth != 8 || nColourType != 0) {
        return kRecUnsupported;
    }
    return kRecOk;
}

int PixelsPerInch(int nScaleUnits, int nValue)
{
    if (nScaleUnits == 1) {
        return nValue;
    }
    if (nScaleUnits == 2) {
        // Pixels per centimetre to the nearest pixel per inch.
        return (nValue * 254 + 50) / 100;
    }
    return 0;
}

RecStatus CheckFingerForWriting(const FingerImage& finger, int nMaxPosition)
{
    if (finger.nFingerPosition < 0 || finger.nFingerPosition > nMaxPosition) {
        return kRecBadArgument;
    }
    if (finger.nImpression != 0 && finger.nImpression != 1) {
        return kRecBadArgument;
    }
    if ((finger.nQuality < 0 || finger.nQuality > 100) && finger.nQuality != kQualityNone) {
        return kRecBadArgument;
    }
    if (finger.nPpi < 1 || finger.nPpi > 65535) {
        return kRecBadArgument;
    }
    if (finger.nWidth < 1 || finger.nHeight < 1) {
        return kRecBadArgument;
    }
    if (CheckDimensions(finger.nWidth, finger.nHeight) != kRecOk) {
        return kRecTooLarge;
    }
    switch (finger.nCompression) {
        case kCompNone:
            return finger.data.size() == static_cast<size_t>(finger.nWidth) * static_cast<size_t>(finger.nHeight)
                       ? kRecOk
                       : kRecBadArgument;
        case kCompWsq:
            return finger.data.empty() ? kRecBadArgument : kRecOk;
        case kCompPng:
            return CheckPngStream(finger.data.data(), finger.data.size(), finger.nWidth, finger.nHeight) == kRecOk
                       ? kRecOk
                       : kRecBadArgument;
        default:
            return kRecBadArgument;
    }
}

RecStatus CheckFingerData(const FingerImage& finger)
{
    switch (finger.nCompression) {
        case kCompNone:
            return finger.data.size() == static_cast<size_t>(finger.nWidth) * static_cast<size_t>(finger.nHeight)
                       ? kRecOk
                       : kRecCorrupt;
        case kCompWsq:
            return finger.data.empty() ? kRecCorrupt : kRecOk;
        case kCompPng:
            return CheckPngStream(finger.data.data(), finger.data.size(), finger.nWidth, finger.nHeight);
        default:
            return kRecUnsupported;
    }
}

}  // namespace tavk05rec
