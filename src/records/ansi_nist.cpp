// ANSI/NIST-ITL 1-2011 transactions.
//
// Tagged records (Type-1, Type-14 and the other text types) are fields
// "T.NNN:value" separated by GS (0x1D) and ended by FS (0x1C); subfields are
// separated by RS (0x1E), their items by US (0x1F). The first field, T.001
// LEN, counts the bytes of the whole record including the FS. The binary
// data of a Type-14 record is its last field, 14.999 DAT, which runs to the
// FS. Binary records (Types 3 to 8) start with a 4-byte big-endian length.
// Type-1 field 1.003 CNT names the type and IDC of every other record in
// order, which is how a reader knows where a binary record starts.
#include "ansi_nist.h"

#include <cstdio>
#include <cstring>
#include <map>

namespace tavk05rec {
namespace {

constexpr char kFs = 0x1C;
constexpr char kGs = 0x1D;
constexpr char kRs = 0x1E;
constexpr char kUs = 0x1F;
constexpr size_t kType4Header = 18;
constexpr int kMaxRecords = 999;
constexpr int kDatField = 999;

using Fields = std::map<int, std::string>;

bool IsDigits(const std::string& str, size_t nMaxDigits)
{
    if (str.empty() || str.size() > nMaxDigits) {
        return false;
    }
    for (char c : str) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    return true;
}

// A decimal integer of 1 to nMaxDigits digits (nMaxDigits <= 9).
bool ParseInt(const std::string& str, size_t nMaxDigits, int& nValue)
{
    if (!IsDigits(str, nMaxDigits)) {
        return false;
    }
    nValue = 0;
    for (char c : str) {
        nValue = nValue * 10 + (c - '0');
    }
    return true;
}

std::vector<std::string> Split(const std::string& str, char cSeparator)
{
    std::vector<std::string> parts(1);
    for (char c : str) {
        if (c == cSeparator) {
            parts.emplace_back();
        } else {
            parts.back().push_back(c);
        }
    }
    return parts;
}

// Printable ASCII without the separators, 1 to nMaxLength characters (0 to
// nMaxLength when bOptional).
bool IsText(const std::string& str, size_t nMaxLength, bool bOptional)
{
    if ((str.empty() && !bOptional) || str.size() > nMaxLength) {
        return false;
    }
    for (char c : str) {
        if (c < 0x20 || c > 0x7E) {
            return false;
        }
    }
    return true;
}

// ---- writing ----

std::string Tag(int nType, int nField)
{
    char szTag[16];
    std::snprintf(szTag, sizeof szTag, "%d.%03d:", nType, nField);
    return szTag;
}

// Appends a tagged record: LEN first, then the fields in order; a binary
// DAT (field 999) last when pDat is given.
void PutTaggedRecord(int nType, const std::vector<std::pair<int, std::string>>& fields,
                     const std::vector<unsigned char>* pDat, std::vector<unsigned char>& out)
{
    std::string strRest;
    for (size_t i = 0; i < fields.size(); ++i) {
        strRest += Tag(nType, fields[i].first) + fields[i].second;
        strRest += (i + 1 == fields.size() && pDat == nullptr) ? kFs : kGs;
    }
    size_t nTail = strRest.size();
    if (pDat != nullptr) {
        nTail += Tag(nType, kDatField).size() + pDat->size() + 1;
    }
    // LEN counts its own digits: grow the digit count until it holds.
    const std::string strLenTag = Tag(nType, 1);
    size_t nDigits = 1;
    size_t nLength = 0;
    for (;;) {
        nLength = strLenTag.size() + nDigits + 1 + nTail;
        if (std::to_string(nLength).size() == nDigits) {
            break;
        }
        ++nDigits;
    }
    const std::string strHead = strLenTag + std::to_string(nLength) + kGs;
    out.insert(out.end(), strHead.begin(), strHead.end());
    out.insert(out.end(), strRest.begin(), strRest.end());
    if (pDat != nullptr) {
        const std::string strDatTag = Tag(nType, kDatField);
        out.insert(out.end(), strDatTag.begin(), strDatTag.end());
        out.insert(out.end(), pDat->begin(), pDat->end());
        out.push_back(static_cast<unsigned char>(kFs));
    }
}

std::string Idc(int nIdc)
{
    char szIdc[8];
    std::snprintf(szIdc, sizeof szIdc, "%02d", nIdc);
    return szIdc;
}

RecStatus CheckHeader(const NistHeader& header)
{
    const bool bTot = IsText(header.strTot, 16, false);
    const bool bDate = header.strDate.size() == 8 && IsDigits(header.strDate, 8);
    const bool bPriority = header.nPriority >= 0 && header.nPriority <= 9;
    const bool bAgencies = IsText(header.strDai, 35, false) && IsText(header.strOri, 35, false);
    const bool bTcn = IsText(header.strTcn, 40, false);
    const bool bDomain = IsText(header.strDomName, 40, true) && IsText(header.strDomVersion, 40, true) &&
                         (!header.strDomName.empty() || header.strDomVersion.empty());
    return bTot && bDate && bPriority && bAgencies && bTcn && bDomain ? kRecOk : kRecBadArgument;
}

RecStatus CheckFinger(const NistFinger& finger)
{
    const RecStatus status = CheckFingerForWriting(finger.image, 10);
    if (status != kRecOk) {
        return status;
    }
    if (finger.nRecordType == 14) {
        return kRecOk;
    }
    // Type-4: 500 ppi, uncompressed or WSQ, line lengths in 2 bytes.
    if (finger.nRecordType == 4 && finger.image.nPpi == 500 && finger.image.nCompression != kCompPng) {
        return kRecOk;
    }
    return kRecBadArgument;
}

void PutType1(const NistHeader& header, const std::vector<NistFinger>& fingers, std::vector<unsigned char>& out)
{
    std::string strCnt = std::string("1") + kUs + std::to_string(fingers.size());
    for (size_t i = 0; i < fingers.size(); ++i) {
        strCnt += kRs + std::to_string(fingers[i].nRecordType) + kUs + Idc(static_cast<int>(i + 1));
    }
    std::vector<std::pair<int, std::string>> fields = {
        {2, "0500"}, {3, strCnt}, {4, header.strTot}, {5, header.strDate}};
    if (header.nPriority != 0) {
        fields.emplace_back(6, std::to_string(header.nPriority));
    }
    fields.emplace_back(7, header.strDai);
    fields.emplace_back(8, header.strOri);
    fields.emplace_back(9, header.strTcn);
    // Native scanning and nominal transmitting resolution, pixels per
    // millimetre: 19.69 for 500 ppi, as the receivers of 500 ppi prints expect.
    fields.emplace_back(11, "19.69");
    fields.emplace_back(12, "19.69");
    if (!header.strDomName.empty()) {
        fields.emplace_back(13, header.strDomName + kUs + header.strDomVersion);
    }
    PutTaggedRecord(1, fields, nullptr, out);
}

const char* CgaName(int nCompression)
{
    switch (nCompression) {
        case kCompWsq:
            return "WSQ20";
        case kCompPng:
            return "PNG";
        default:
            return "NONE";
    }
}

void PutType14(const NistHeader& header, const FingerImage& image, int nIdc, std::vector<unsigned char>& out)
{
    const std::string strPpi = std::to_string(image.nPpi);
    const std::string strPosition = std::to_string(image.nFingerPosition);
    std::vector<std::pair<int, std::string>> fields = {{2, Idc(nIdc)},
                                                       {3, std::to_string(image.nImpression)},
                                                       {4, header.strOri},
                                                       {5, header.strDate},
                                                       {6, std::to_string(image.nWidth)},
                                                       {7, std::to_string(image.nHeight)},
                                                       {8, "1"},  // scale units: pixels per inch
                                                       {9, strPpi},
                                                       {10, strPpi},
                                                       {11, CgaName(image.nCompression)},
                                                       {12, "8"},
                                                       {13, strPosition}};
    if (image.nQuality != kQualityNone) {
        // FQM: finger position, quality value, algorithm vendor and product
        // (unreported: this library's callers give a score, not its source).
        fields.emplace_back(24, strPosition + kUs + std::to_string(image.nQuality) + kUs + "0000" + kUs + "0");
    }
    PutTaggedRecord(14, fields, &image.data, out);
}

void PutType4(const FingerImage& image, int nIdc, std::vector<unsigned char>& out)
{
    PutBe(out, kType4Header + image.data.size(), 4);
    PutBe(out, static_cast<uint64_t>(nIdc), 1);
    PutBe(out, static_cast<uint64_t>(image.nImpression), 1);
    PutBe(out, static_cast<uint64_t>(image.nFingerPosition), 1);
    out.insert(out.end(), 5, 0xFF);  // unused finger positions
    PutBe(out, 0, 1);                // ISR: scanned at the minimum resolution, 19.69 ppmm
    PutBe(out, static_cast<uint64_t>(image.nWidth), 2);
    PutBe(out, static_cast<uint64_t>(image.nHeight), 2);
    PutBe(out, image.nCompression == kCompWsq ? 1 : 0, 1);
    out.insert(out.end(), image.data.begin(), image.data.end());
}

// ---- reading ----

// Parses "T.NNN:" at pText[nPos]; the record type and field number must each
// be 1 to 3 digits.
bool ParseTag(const unsigned char* pText, size_t nEnd, size_t& nPos, int& nType, int& nField)
{
    int nParts[2] = {0, 0};
    for (int nPart = 0; nPart < 2; ++nPart) {
        size_t nDigits = 0;
        while (nPos < nEnd && pText[nPos] >= '0' && pText[nPos] <= '9' && nDigits < 3) {
            nParts[nPart] = nParts[nPart] * 10 + (pText[nPos] - '0');
            ++nPos;
            ++nDigits;
        }
        const char cExpected = nPart == 0 ? '.' : ':';
        if (nDigits == 0 || nPos >= nEnd || pText[nPos] != cExpected) {
            return false;
        }
        ++nPos;
    }
    nType = nParts[0];
    nField = nParts[1];
    return true;
}

// Reads the tagged record of type nType at the start of pData (nSize bytes
// available): its length from LEN, then every field; field 999 of a record
// with binary data runs to the FS. nLength becomes the record's length.
RecStatus ParseTaggedRecord(const unsigned char* pData, size_t nSize, int nType, Fields& fields, size_t& nLength)
{
    size_t nPos = 0;
    int nTagType = 0;
    int nField = 0;
    const size_t nHeadEnd = nSize < 32 ? nSize : 32;
    if (!ParseTag(pData, nHeadEnd, nPos, nTagType, nField)) {
        return nSize < 8 ? kRecTruncated : kRecCorrupt;
    }
    if (nTagType != nType || nField != 1) {
        return kRecCorrupt;
    }
    std::string strLen;
    while (nPos < nSize && pData[nPos] != kGs && strLen.size() <= 9) {
        strLen.push_back(static_cast<char>(pData[nPos++]));
    }
    int nLen = 0;
    if (nPos >= nSize && strLen.size() <= 9) {
        return kRecTruncated;
    }
    if (!ParseInt(strLen, 9, nLen) || static_cast<size_t>(nLen) <= nPos + 1) {
        return kRecCorrupt;
    }
    nLength = static_cast<size_t>(nLen);
    if (nLength > nSize) {
        return kRecTruncated;
    }
    if (pData[nLength - 1] != kFs) {
        return kRecCorrupt;
    }
    fields.clear();
    fields[1] = strLen;
    const size_t nEnd = nLength - 1;  // the FS
    ++nPos;                           // the GS after LEN
    while (nPos < nEnd) {
        if (!ParseTag(pData, nEnd, nPos, nTagType, nField) || nTagType != nType || fields.count(nField) != 0) {
            return kRecCorrupt;
        }
        size_t nValueEnd = nEnd;
        const bool bBinary = nField == kDatField && nType != 1 && nType != 2;
        if (!bBinary) {
            const void* pGs = std::memchr(pData + nPos, kGs, nEnd - nPos);
            if (pGs != nullptr) {
                nValueEnd = static_cast<size_t>(static_cast<const unsigned char*>(pGs) - pData);
            }
        }
        fields[nField].assign(reinterpret_cast<const char*>(pData + nPos), nValueEnd - nPos);
        nPos = nValueEnd + (nValueEnd < nEnd ? 1 : 0);
    }
    return kRecOk;
}

std::string Field(const Fields& fields, int nField)
{
    const auto it = fields.find(nField);
    return it == fields.end() ? std::string() : it->second;
}

RecStatus ReadType1(const Fields& fields, NistHeader& header, std::vector<std::pair<int, int>>& records)
{
    if (fields.count(2) == 0 || fields.count(3) == 0) {
        return kRecCorrupt;
    }
    header.strVersion = Field(fields, 2);
    if (header.strVersion != "0500" && header.strVersion != "0501" && header.strVersion != "0502") {
        return kRecUnsupported;
    }
    header.strTot = Field(fields, 4);
    header.strDate = Field(fields, 5);
    header.nPriority = 0;
    if (fields.count(6) != 0 && !ParseInt(Field(fields, 6), 1, header.nPriority)) {
        return kRecCorrupt;
    }
    header.strDai = Field(fields, 7);
    header.strOri = Field(fields, 8);
    header.strTcn = Field(fields, 9);
    const std::vector<std::string> domain = Split(Field(fields, 13), kUs);
    header.strDomName = domain[0];
    header.strDomVersion = domain.size() > 1 ? domain[1] : std::string();

    const std::vector<std::string> subfields = Split(Field(fields, 3), kRs);
    const std::vector<std::string> first = Split(subfields[0], kUs);
    int nFirstType = 0;
    int nCount = 0;
    if (first.size() != 2 || !ParseInt(first[0], 2, nFirstType) || nFirstType != 1 || !ParseInt(first[1], 3, nCount)) {
        return kRecCorrupt;
    }
    if (nCount > kMaxRecords || subfields.size() != static_cast<size_t>(nCount) + 1) {
        return kRecCorrupt;
    }
    records.clear();
    for (size_t i = 1; i < subfields.size(); ++i) {
        const std::vector<std::string> items = Split(subfields[i], kUs);
        int nType = 0;
        int nIdc = 0;
        if (items.size() != 2 || !ParseInt(items[0], 2, nType) || !ParseInt(items[1], 2, nIdc) || nType < 2) {
            return kRecCorrupt;
        }
        records.emplace_back(nType, nIdc);
    }
    return kRecOk;
}

RecStatus ReadType14(const Fields& fields, int nIdc, FingerImage& image)
{
    for (int nRequired : {2, 3, 6, 7, 8, 9, 10, 11, 12, 13, kDatField}) {
        if (fields.count(nRequired) == 0) {
            return kRecCorrupt;
        }
    }
    int nRecordIdc = 0;
    int nScaleUnits = 0;
    int nHorizontal = 0;
    int nVertical = 0;
    int nDepth = 0;
    const std::vector<std::string> positions = Split(Field(fields, 13), kRs);
    if (!ParseInt(Field(fields, 2), 2, nRecordIdc) || !ParseInt(Field(fields, 3), 2, image.nImpression) ||
        !ParseInt(Field(fields, 6), 5, image.nWidth) || !ParseInt(Field(fields, 7), 5, image.nHeight) ||
        !ParseInt(Field(fields, 8), 1, nScaleUnits) || !ParseInt(Field(fields, 9), 5, nHorizontal) ||
        !ParseInt(Field(fields, 10), 5, nVertical) || !ParseInt(Field(fields, 12), 2, nDepth) ||
        !ParseInt(positions[0], 2, image.nFingerPosition) || nRecordIdc != nIdc) {
        return kRecCorrupt;
    }
    const RecStatus dimensions = CheckDimensions(image.nWidth, image.nHeight);
    if (dimensions != kRecOk) {
        return dimensions;
    }
    image.nPpi = PixelsPerInch(nScaleUnits, nHorizontal);
    if (nScaleUnits > 2 || nHorizontal == 0) {
        return kRecCorrupt;
    }
    // Scale units 0 give only the aspect ratio: no resolution to report.
    if (nScaleUnits == 0 || nHorizontal != nVertical || nDepth != 8) {
        return kRecUnsupported;
    }
    const std::string strCga = Field(fields, 11);
    if (strCga == "NONE") {
        image.nCompression = kCompNone;
    } else if (strCga == "WSQ20" || strCga == "WSQ") {
        image.nCompression = kCompWsq;
    } else if (strCga == "PNG") {
        image.nCompression = kCompPng;
    } else if (strCga == "JPEGB" || strCga == "JPEGL" || strCga == "JP2" || strCga == "JP2L") {
        return kRecUnsupported;
    } else {
        return kRecCorrupt;
    }
    image.nQuality = kQualityNone;
    if (fields.count(24) != 0) {
        const std::vector<std::string> items = Split(Split(Field(fields, 24), kRs)[0], kUs);
        int nQuality = 0;
        if (items.size() < 2 || !ParseInt(items[1], 3, nQuality)) {
            return kRecCorrupt;
        }
        // 254 (not computed) and 255 (failed) both mean no score.
        image.nQuality = nQuality <= 100 ? nQuality : kQualityNone;
    }
    const std::string& strDat = fields.at(kDatField);
    image.data.assign(strDat.begin(), strDat.end());
    return CheckFingerData(image);
}

RecStatus ReadType4(const unsigned char* pRecord, size_t nLength, int nIdc, int nNativePpi, FingerImage& image)
{
    ByteReader reader(pRecord, nLength);
    reader.Skip(4);
    const unsigned nRecordIdc = reader.U8();
    image.nImpression = static_cast<int>(reader.U8());
    image.nFingerPosition = static_cast<int>(reader.U8());
    reader.Skip(5);
    const unsigned nIsr = reader.U8();
    image.nWidth = static_cast<int>(reader.U16());
    image.nHeight = static_cast<int>(reader.U16());
    const unsigned nGca = reader.U8();
    if (reader.Failed() || nRecordIdc != static_cast<unsigned>(nIdc) || nIsr > 1) {
        return kRecCorrupt;
    }
    const RecStatus dimensions = CheckDimensions(image.nWidth, image.nHeight);
    if (dimensions != kRecOk) {
        return dimensions;
    }
    if (nGca > 1) {
        return kRecUnsupported;
    }
    image.nPpi = nIsr == 0 ? 500 : nNativePpi;
    if (image.nPpi == 0) {
        return kRecCorrupt;
    }
    image.nCompression = nGca == 1 ? kCompWsq : kCompNone;
    image.nQuality = kQualityNone;
    image.data.assign(pRecord + kType4Header, pRecord + nLength);
    return CheckFingerData(image);
}

// Pixels per inch from "DD.DD" pixels per millimetre; 0 for anything else.
int PpiFromPpmm(const std::string& str)
{
    if (str.size() != 5 || str[2] != '.') {
        return 0;
    }
    int nWhole = 0;
    int nHundredths = 0;
    if (!ParseInt(str.substr(0, 2), 2, nWhole) || !ParseInt(str.substr(3, 2), 2, nHundredths)) {
        return 0;
    }
    return ((nWhole * 100 + nHundredths) * 254 + 500) / 1000;
}

RecStatus ReadRecords(const unsigned char* pData, size_t nSize, NistTransaction& transaction)
{
    Fields fields;
    size_t nLength = 0;
    RecStatus status = ParseTaggedRecord(pData, nSize, 1, fields, nLength);
    if (status != kRecOk) {
        return status;
    }
    std::vector<std::pair<int, int>> records;
    status = ReadType1(fields, transaction.header, records);
    if (status != kRecOk) {
        return status;
    }
    const int nNativePpi = PpiFromPpmm(Field(fields, 11));
    size_t nPos = nLength;
    for (const auto& record : records) {
        const int nType = record.first;
        const unsigned char* pRecord = pData + nPos;
        const size_t nAvailable = nSize - nPos;
        transaction.recordTypes.push_back(nType);
        if (nType >= 3 && nType <= 8) {
            ByteReader reader(pRecord, nAvailable);
            nLength = static_cast<size_t>(reader.U32());
            if (reader.Failed() || nLength > nAvailable) {
                return kRecTruncated;
            }
            if (nLength < (nType == 4 ? kType4Header : 5)) {
                return kRecCorrupt;
            }
            if (nType == 4) {
                NistFinger finger;
                finger.nRecordType = 4;
                status = ReadType4(pRecord, nLength, record.second, nNativePpi, finger.image);
                if (status != kRecOk) {
                    return status;
                }
                transaction.fingers.push_back(std::move(finger));
            }
        } else {
            if (nType == 1) {
                return kRecCorrupt;
            }
            status = ParseTaggedRecord(pRecord, nAvailable, nType, fields, nLength);
            if (status != kRecOk) {
                return status;
            }
            if (nType == 14) {
                NistFinger finger;
                finger.nRecordType = 14;
                status = ReadType14(fields, record.second, finger.image);
                if (status != kRecOk) {
                    return status;
                }
                transaction.fingers.push_back(std::move(finger));
            }
        }
        nPos += nLength;
    }
    return nPos == nSize ? kRecOk : kRecCorrupt;
}

}  // namespace

RecStatus NistWrite(const NistHeader& header, const std::vector<NistFinger>& fingers, std::vector<unsigned char>& out)
{
    if (fingers.empty() || fingers.size() > 99) {
        return kRecBadArgument;
    }
    RecStatus status = CheckHeader(header);
    for (size_t i = 0; status == kRecOk && i < fingers.size(); ++i) {
        status = CheckFinger(fingers[i]);
    }
    if (status != kRecOk) {
        return status;
    }
    out.clear();
    PutType1(header, fingers, out);
    for (size_t i = 0; i < fingers.size(); ++i) {
        const int nIdc = static_cast<int>(i + 1);
        if (fingers[i].nRecordType == 14) {
            PutType14(header, fingers[i].image, nIdc, out);
        } else {
            PutType4(fingers[i].image, nIdc, out);
        }
    }
    return kRecOk;
}

RecStatus NistRead(const unsigned char* pData, size_t nSize, NistTransaction& transaction)
{
    transaction = NistTransaction();
    if (pData == nullptr && nSize != 0) {
        return kRecBadArgument;
    }
    static const char kStart[] = "1.001:";
    const size_t nCompare = nSize < 6 ? nSize : 6;
    if (nSize == 0 || std::memcmp(pData, kStart, nCompare) != 0) {
        return kRecUnknownFormat;
    }
    const RecStatus status = ReadRecords(pData, nSize, transaction);
    if (status != kRecOk) {
        transaction = NistTransaction();
    }
    return status;
}

}  // namespace tavk05rec
