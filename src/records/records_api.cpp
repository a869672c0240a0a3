// The C interface of the records library: plain structures in and out,
// status codes, buffers from malloc that the caller releases through the
// library. WSQ compression and decompression happen here, between the
// caller's pixels and the record modules, which carry image data as it is.
#include "tavk05/records.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <stdexcept>

#include "ansi_nist.h"
#include "iso19794.h"
#include "records_common.h"
#include "wsq.h"

using namespace tavk05rec;

namespace {

static_assert(static_cast<int>(TAVK05_REC_COMP_NONE) == static_cast<int>(kCompNone) &&
                  static_cast<int>(TAVK05_REC_COMP_WSQ) == static_cast<int>(kCompWsq) &&
                  static_cast<int>(TAVK05_REC_COMP_PNG) == static_cast<int>(kCompPng),
              "compression values of the C interface and the record modules agree");
static_assert(static_cast<int>(TAVK05_REC_TRUNCATED) == static_cast<int>(kRecTruncated) &&
                  static_cast<int>(TAVK05_REC_UNKNOWN_FORMAT) == static_cast<int>(kRecUnknownFormat) &&
                  static_cast<int>(TAVK05_REC_NO_MEMORY) == static_cast<int>(kWsqNoMemory) &&
                  static_cast<int>(TAVK05_REC_CORRUPT) == static_cast<int>(kWsqCorrupt),
              "status values of the C interface, the record modules and the WSQ codec agree");
static_assert(TAVK05_REC_MAX_SIDE == kMaxSide && TAVK05_REC_MAX_PIXELS == kMaxPixels, "bounds agree");

constexpr double kDefaultBitRate = 0.75;

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};
using MallocBuffer = std::unique_ptr<unsigned char, FreeDeleter>;

// Runs an operation, turning an allocation failure into a status code: no
// exception leaves the library.
template <typename Operation>
int Guarded(Operation operation)
{
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        return kRecNoMemory;
    } catch (const std::length_error&) {
        return kRecTooLarge;
    }
}

// A malloc copy of bytes (one byte for an empty run, so that the pointer is
// never null on success).
MallocBuffer Copy(const unsigned char* pData, size_t nSize)
{
    MallocBuffer buffer(static_cast<unsigned char*>(std::malloc(nSize == 0 ? 1 : nSize)));
    if (buffer && nSize != 0) {
        std::memcpy(buffer.get(), pData, nSize);
    }
    return buffer;
}

int Hand(const std::vector<unsigned char>& bytes, unsigned char** ppOut, size_t* pnOutSize)
{
    MallocBuffer buffer = Copy(bytes.data(), bytes.size());
    if (!buffer) {
        return kRecNoMemory;
    }
    *ppOut = buffer.release();
    *pnOutSize = bytes.size();
    return kRecOk;
}

// The finger image as the record modules take it: pixels compressed to WSQ
// where asked, PNG and WSQ streams as given.
int FromCaller(const Tavk05RecFinger& in, FingerImage& finger)
{
    finger.nFingerPosition = in.nFingerPosition;
    finger.nImpression = in.nImpression;
    finger.nQuality = in.nQuality;
    finger.nCompression = in.nCompression;
    finger.nPpi = in.nPpi;
    finger.nWidth = in.nWidth;
    finger.nHeight = in.nHeight;
    if (in.nWidth < 1 || in.nHeight < 1) {
        return kRecBadArgument;
    }
    if (CheckDimensions(in.nWidth, in.nHeight) != kRecOk) {
        return kRecTooLarge;
    }
    const size_t nPixels = static_cast<size_t>(in.nWidth) * static_cast<size_t>(in.nHeight);
    const bool bStream = in.pData != nullptr && in.nDataSize != 0;
    switch (in.nCompression) {
        case kCompNone:
            if (in.pPixels == nullptr) {
                return kRecBadArgument;
            }
            finger.data.assign(in.pPixels, in.pPixels + nPixels);
            return kRecOk;
        case kCompPng:
            if (!bStream) {
                return kRecBadArgument;
            }
            finger.data.assign(in.pData, in.pData + in.nDataSize);
            return kRecOk;
        case kCompWsq:
            break;
        default:
            return kRecBadArgument;
    }
    if (bStream) {
        WsqInfo info;
        if (WsqReadInfo(in.pData, in.nDataSize, info) != kWsqOk || info.nWidth != in.nWidth ||
            info.nHeight != in.nHeight) {
            return kRecBadArgument;
        }
        finger.data.assign(in.pData, in.pData + in.nDataSize);
        return kRecOk;
    }
    if (in.pPixels == nullptr || in.dBitRate < 0.0) {
        return kRecBadArgument;
    }
    const double dBitRate = in.dBitRate == 0.0 ? kDefaultBitRate : in.dBitRate;
    return WsqEncode(in.pPixels, in.nWidth, in.nHeight, in.nPpi, dBitRate, {}, finger.data);
}

// The caller's view of a finger image read: WSQ decompressed, raw pixels
// copied, PNG left to the caller.
int ToCaller(const FingerImage& finger, int nRecordType, Tavk05RecImage& out)
{
    out = Tavk05RecImage();
    out.nFingerPosition = finger.nFingerPosition;
    out.nImpression = finger.nImpression;
    out.nQuality = finger.nQuality;
    out.nCompression = finger.nCompression;
    out.nPpi = finger.nPpi;
    out.nWidth = finger.nWidth;
    out.nHeight = finger.nHeight;
    out.nRecordType = nRecordType;
    MallocBuffer pixels;
    if (finger.nCompression == kCompNone) {
        pixels = Copy(finger.data.data(), finger.data.size());
    } else if (finger.nCompression == kCompWsq) {
        // The record and the stream inside it must agree on the image size,
        // checked before decoding so that the record's bounds hold.
        WsqInfo info;
        WsqResult result = WsqReadInfo(finger.data.data(), finger.data.size(), info);
        if (result != kWsqOk) {
            return result;
        }
        if (info.nWidth != finger.nWidth || info.nHeight != finger.nHeight) {
            return kRecCorrupt;
        }
        std::vector<unsigned char> decoded;
        result = WsqDecode(finger.data.data(), finger.data.size(), decoded, info);
        if (result != kWsqOk) {
            return result;
        }
        pixels = Copy(decoded.data(), decoded.size());
    }
    MallocBuffer data = Copy(finger.data.data(), finger.data.size());
    if (!data || (finger.nCompression != kCompPng && !pixels)) {
        return kRecNoMemory;
    }
    out.pPixels = pixels.release();
    out.pData = data.release();
    out.nDataSize = finger.data.size();
    return kRecOk;
}

void CopyText(char* pDest, size_t nDestSize, const std::string& str)
{
    const size_t nCopy = str.size() < nDestSize - 1 ? str.size() : nDestSize - 1;
    std::memcpy(pDest, str.data(), nCopy);
    pDest[nCopy] = '\0';
}

std::string TextOf(const char* pText, size_t nSize) { return std::string(pText, strnlen(pText, nSize)); }

// Today's date in UTC as YYYYMMDD.
std::string Today()
{
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&now, &parts);
    char szDate[48];
    std::snprintf(szDate, sizeof szDate, "%04d%02d%02d", parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday);
    return szDate;
}

int DescribeEntry(const FingerImage& finger, int nRecordType, Tavk05RecEntry& entry)
{
    entry.nRecordType = nRecordType;
    entry.nWidth = finger.nWidth;
    entry.nHeight = finger.nHeight;
    entry.nPpi = finger.nPpi;
    entry.nCompression = finger.nCompression;
    entry.nFingerPosition = finger.nFingerPosition;
    entry.nImpression = finger.nImpression;
    entry.nQuality = finger.nQuality;
    entry.nDataSize = finger.data.size();
    entry.dBitsPerPixel = static_cast<double>(finger.data.size()) * 8.0 /
                          (static_cast<double>(finger.nWidth) * static_cast<double>(finger.nHeight));
    entry.dWsqBitRate = 0.0;
    if (finger.nCompression == kCompWsq) {
        WsqInfo info;
        const WsqResult result = WsqReadInfo(finger.data.data(), finger.data.size(), info);
        if (result != kWsqOk) {
            return result;
        }
        if (info.nWidth != finger.nWidth || info.nHeight != finger.nHeight) {
            return kRecCorrupt;
        }
        entry.dWsqBitRate = info.dBitRate;
    }
    return kRecOk;
}

Tavk05RecEntry EmptyEntry(int nRecordType)
{
    Tavk05RecEntry entry{};
    entry.nRecordType = nRecordType;
    entry.nCompression = -1;
    entry.nFingerPosition = -1;
    entry.nImpression = -1;
    entry.nQuality = -1;
    return entry;
}

int Describe(const unsigned char* pData, size_t nSize, Tavk05RecDescription& description,
             std::vector<Tavk05RecEntry>& entries)
{
    if (nSize >= 2 && pData[0] == 0xFF && pData[1] == 0xA0) {
        description.nFormat = TAVK05_REC_FORMAT_WSQ;
        WsqInfo info;
        const WsqResult result = WsqReadInfo(pData, nSize, info);
        if (result != kWsqOk) {
            return result;
        }
        Tavk05RecEntry entry = EmptyEntry(0);
        entry.nWidth = info.nWidth;
        entry.nHeight = info.nHeight;
        entry.nPpi = info.nPpi > 0 ? info.nPpi : 0;
        entry.nCompression = kCompWsq;
        entry.nDataSize = nSize;
        entry.dBitsPerPixel =
            static_cast<double>(nSize) * 8.0 / (static_cast<double>(info.nWidth) * static_cast<double>(info.nHeight));
        entry.dWsqBitRate = info.dBitRate;
        entries.push_back(entry);
        return kRecOk;
    }
    if (nSize >= 4 && std::memcmp(pData, "FIR", 4) == 0) {
        int nVersion = 0;
        std::vector<FingerImage> fingers;
        const RecStatus status = IsoRead(pData, nSize, nVersion, fingers);
        description.nFormat = nVersion == 2011 ? TAVK05_REC_FORMAT_ISO2011 : TAVK05_REC_FORMAT_ISO2005;
        CopyText(description.szVersion, sizeof description.szVersion, nVersion == 2011 ? "020" : "010");
        if (status != kRecOk) {
            return status;
        }
        for (const FingerImage& finger : fingers) {
            entries.push_back(EmptyEntry(0));
            const int nStatus = DescribeEntry(finger, 0, entries.back());
            if (nStatus != kRecOk) {
                return nStatus;
            }
        }
        return kRecOk;
    }
    if (nSize >= 6 && std::memcmp(pData, "1.001:", 6) == 0) {
        description.nFormat = TAVK05_REC_FORMAT_NIST;
        NistTransaction transaction;
        const RecStatus status = NistRead(pData, nSize, transaction);
        if (status != kRecOk) {
            return status;
        }
        CopyText(description.szVersion, sizeof description.szVersion, transaction.header.strVersion);
        entries.push_back(EmptyEntry(1));
        size_t nFinger = 0;
        for (int nType : transaction.recordTypes) {
            entries.push_back(EmptyEntry(nType));
            if (nType == 4 || nType == 14) {
                const int nStatus = DescribeEntry(transaction.fingers[nFinger++].image, nType, entries.back());
                if (nStatus != kRecOk) {
                    return nStatus;
                }
            }
        }
        return kRecOk;
    }
    return kRecUnknownFormat;
}

}  // namespace

extern "C" {

const char* Tavk05RecordsVersion(void) { return TAVK05_RECORDS_VERSION; }

const char* Tavk05RecordsStatusText(int nStatus)
{
    switch (nStatus) {
        case TAVK05_REC_OK:
            return "success";
        case TAVK05_REC_BAD_ARGUMENT:
            return "invalid argument";
        case TAVK05_REC_CORRUPT:
            return "corrupt data: lengths, counts or markers contradict each other";
        case TAVK05_REC_UNSUPPORTED:
            return "valid but not supported (version, compression or bit depth)";
        case TAVK05_REC_TOO_LARGE:
            return "image or record too large";
        case TAVK05_REC_NO_MEMORY:
            return "out of memory";
        case TAVK05_REC_TRUNCATED:
            return "truncated: the data ends before its announced length";
        case TAVK05_REC_UNKNOWN_FORMAT:
            return "unknown format: neither WSQ, ISO/IEC 19794-4 nor ANSI/NIST-ITL";
        default:
            return "unknown status code";
    }
}

void Tavk05RecordsFree(void* pBuffer) { std::free(pBuffer); }

void Tavk05RecImageRelease(Tavk05RecImage* pImage)
{
    if (pImage != nullptr) {
        std::free(pImage->pPixels);
        std::free(pImage->pData);
        *pImage = Tavk05RecImage();
    }
}

struct Tavk05WsqCodec {
    WsqCodec codec;
};

Tavk05WsqCodec* Tavk05WsqCodecNew(void) { return new (std::nothrow) Tavk05WsqCodec; }

void Tavk05WsqCodecFree(Tavk05WsqCodec* pCodec) { delete pCodec; }

int Tavk05WsqCodecEncode(Tavk05WsqCodec* pCodec, const unsigned char* pPixels, int nWidth, int nHeight, int nPpi,
                         double dBitRate, unsigned char** ppOut, size_t* pnOutSize)
{
    if (pCodec == nullptr || pPixels == nullptr || ppOut == nullptr || pnOutSize == nullptr || dBitRate < 0.0) {
        return kRecBadArgument;
    }
    return Guarded([&]() -> int {
        std::vector<unsigned char> out;
        const WsqResult result = pCodec->codec.Encode(pPixels, nWidth, nHeight, nPpi,
                                                      dBitRate == 0.0 ? kDefaultBitRate : dBitRate, {}, out);
        return result != kWsqOk ? result : Hand(out, ppOut, pnOutSize);
    });
}

int Tavk05WsqCodecDecode(Tavk05WsqCodec* pCodec, const unsigned char* pData, size_t nSize, unsigned char** ppPixels,
                         int* pnWidth, int* pnHeight, int* pnPpi)
{
    if (pCodec == nullptr || pData == nullptr || ppPixels == nullptr || pnWidth == nullptr || pnHeight == nullptr) {
        return kRecBadArgument;
    }
    return Guarded([&]() -> int {
        std::vector<unsigned char> pixels;
        WsqInfo info;
        const WsqResult result = pCodec->codec.Decode(pData, nSize, pixels, info);
        if (result != kWsqOk) {
            return result;
        }
        size_t nPixels = 0;
        const int nStatus = Hand(pixels, ppPixels, &nPixels);
        if (nStatus == kRecOk) {
            *pnWidth = info.nWidth;
            *pnHeight = info.nHeight;
            if (pnPpi != nullptr) {
                *pnPpi = info.nPpi > 0 ? info.nPpi : 0;
            }
        }
        return nStatus;
    });
}

int Tavk05WsqEncode(const unsigned char* pPixels, int nWidth, int nHeight, int nPpi, double dBitRate,
                    unsigned char** ppOut, size_t* pnOutSize)
{
    Tavk05WsqCodec codec;
    return Tavk05WsqCodecEncode(&codec, pPixels, nWidth, nHeight, nPpi, dBitRate, ppOut, pnOutSize);
}

int Tavk05WsqDecode(const unsigned char* pData, size_t nSize, unsigned char** ppPixels, int* pnWidth, int* pnHeight,
                    int* pnPpi)
{
    Tavk05WsqCodec codec;
    return Tavk05WsqCodecDecode(&codec, pData, nSize, ppPixels, pnWidth, pnHeight, pnPpi);
}

int Tavk05IsoWrite(int nVersion, const Tavk05RecFinger* pFinger, const Tavk05IsoCapture* pCapture,
                   unsigned char** ppOut, size_t* pnOutSize)
{
    if (pFinger == nullptr || ppOut == nullptr || pnOutSize == nullptr) {
        return kRecBadArgument;
    }
    return Guarded([&]() -> int {
        FingerImage finger;
        int nStatus = FromCaller(*pFinger, finger);
        if (nStatus != kRecOk) {
            return nStatus;
        }
        IsoCapture capture;
        if (pCapture != nullptr) {
            capture.nYear = pCapture->nYear;
            capture.nMonth = pCapture->nMonth;
            capture.nDay = pCapture->nDay;
            capture.nHour = pCapture->nHour;
            capture.nMinute = pCapture->nMinute;
            capture.nSecond = pCapture->nSecond;
            capture.nMillisecond = pCapture->nMillisecond;
            capture.nDeviceTechnology = pCapture->nDeviceTechnology;
            capture.nVendorId = pCapture->nVendorId;
            capture.nDeviceType = pCapture->nDeviceType;
        }
        std::vector<unsigned char> out;
        nStatus = IsoWrite(nVersion, finger, capture, out);
        return nStatus != kRecOk ? nStatus : Hand(out, ppOut, pnOutSize);
    });
}

int Tavk05IsoRead(const unsigned char* pData, size_t nSize, int* pnVersion, Tavk05RecImage* pImage)
{
    if (pData == nullptr || pImage == nullptr) {
        return kRecBadArgument;
    }
    *pImage = Tavk05RecImage();
    return Guarded([&]() -> int {
        int nVersion = 0;
        std::vector<FingerImage> fingers;
        const RecStatus status = IsoRead(pData, nSize, nVersion, fingers);
        if (status != kRecOk) {
            return status;
        }
        const int nStatus = ToCaller(fingers.front(), 0, *pImage);
        if (nStatus != kRecOk) {
            Tavk05RecImageRelease(pImage);
            return nStatus;
        }
        if (pnVersion != nullptr) {
            *pnVersion = nVersion;
        }
        return kRecOk;
    });
}

int Tavk05NistWrite(const Tavk05NistHeader* pHeader, const Tavk05NistFinger* pFingers, int nFingers,
                    unsigned char** ppOut, size_t* pnOutSize)
{
    if (pHeader == nullptr || pFingers == nullptr || nFingers < 1 || nFingers > 99 || ppOut == nullptr ||
        pnOutSize == nullptr) {
        return kRecBadArgument;
    }
    return Guarded([&]() -> int {
        NistHeader header;
        header.strTot = TextOf(pHeader->szTot, sizeof pHeader->szTot);
        header.strDate = TextOf(pHeader->szDate, sizeof pHeader->szDate);
        if (header.strDate.empty()) {
            header.strDate = Today();
        }
        header.nPriority = pHeader->nPriority;
        header.strDai = TextOf(pHeader->szDai, sizeof pHeader->szDai);
        header.strOri = TextOf(pHeader->szOri, sizeof pHeader->szOri);
        header.strTcn = TextOf(pHeader->szTcn, sizeof pHeader->szTcn);
        header.strDomName = TextOf(pHeader->szDomName, sizeof pHeader->szDomName);
        header.strDomVersion = TextOf(pHeader->szDomVersion, sizeof pHeader->szDomVersion);
        std::vector<NistFinger> fingers(static_cast<size_t>(nFingers));
        for (int i = 0; i < nFingers; ++i) {
            fingers[i].nRecordType = pFingers[i].nRecordType;
            const int nStatus = FromCaller(pFingers[i].finger, fingers[i].image);
            if (nStatus != kRecOk) {
                return nStatus;
            }
        }
        std::vector<unsigned char> out;
        const RecStatus status = NistWrite(header, fingers, out);
        return status != kRecOk ? status : Hand(out, ppOut, pnOutSize);
    });
}

int Tavk05NistRead(const unsigned char* pData, size_t nSize, Tavk05NistTransaction* pTransaction)
{
    if (pData == nullptr || pTransaction == nullptr) {
        return kRecBadArgument;
    }
    *pTransaction = Tavk05NistTransaction();
    return Guarded([&]() -> int {
        NistTransaction transaction;
        const RecStatus status = NistRead(pData, nSize, transaction);
        if (status != kRecOk) {
            return status;
        }
        Tavk05NistTransaction& out = *pTransaction;
        const NistHeader& header = transaction.header;
        CopyText(out.header.szVersion, sizeof out.header.szVersion, header.strVersion);
        CopyText(out.header.szTot, sizeof out.header.szTot, header.strTot);
        CopyText(out.header.szDate, sizeof out.header.szDate, header.strDate);
        out.header.nPriority = header.nPriority;
        CopyText(out.header.szDai, sizeof out.header.szDai, header.strDai);
        CopyText(out.header.szOri, sizeof out.header.szOri, header.strOri);
        CopyText(out.header.szTcn, sizeof out.header.szTcn, header.strTcn);
        CopyText(out.header.szDomName, sizeof out.header.szDomName, header.strDomName);
        CopyText(out.header.szDomVersion, sizeof out.header.szDomVersion, header.strDomVersion);
        out.nRecords = static_cast<int>(transaction.recordTypes.size());
        if (!transaction.fingers.empty()) {
            out.pFingers =
                static_cast<Tavk05RecImage*>(std::calloc(transaction.fingers.size(), sizeof(Tavk05RecImage)));
            if (out.pFingers == nullptr) {
                return kRecNoMemory;
            }
        }
        for (const NistFinger& finger : transaction.fingers) {
            const int nStatus = ToCaller(finger.image, finger.nRecordType, out.pFingers[out.nFingers]);
            if (nStatus != kRecOk) {
                Tavk05NistRelease(pTransaction);
                return nStatus;
            }
            ++out.nFingers;
        }
        return kRecOk;
    });
}

void Tavk05NistRelease(Tavk05NistTransaction* pTransaction)
{
    if (pTransaction == nullptr) {
        return;
    }
    for (int i = 0; i < pTransaction->nFingers; ++i) {
        Tavk05RecImageRelease(&pTransaction->pFingers[i]);
    }
    std::free(pTransaction->pFingers);
    *pTransaction = Tavk05NistTransaction();
}

int Tavk05RecordsDescribe(const unsigned char* pData, size_t nSize, Tavk05RecDescription* pDescription)
{
    if (pData == nullptr || pDescription == nullptr) {
        return kRecBadArgument;
    }
    *pDescription = Tavk05RecDescription();
    pDescription->nSize = nSize;
    return Guarded([&]() -> int {
        std::vector<Tavk05RecEntry> entries;
        const int nStatus = Describe(pData, nSize, *pDescription, entries);
        if (nStatus != kRecOk) {
            return nStatus;
        }
        pDescription->pEntries = static_cast<Tavk05RecEntry*>(std::calloc(entries.size(), sizeof(Tavk05RecEntry)));
        if (pDescription->pEntries == nullptr) {
            return kRecNoMemory;
        }
        std::memcpy(pDescription->pEntries, entries.data(), entries.size() * sizeof(Tavk05RecEntry));
        pDescription->nEntries = static_cast<int>(entries.size());
        return kRecOk;
    });
}

void Tavk05RecDescriptionRelease(Tavk05RecDescription* pDescription)
{
    if (pDescription != nullptr) {
        std::free(pDescription->pEntries);
        *pDescription = Tavk05RecDescription();
    }
}

const char* Tavk05RecordsFormatName(int nFormat)
{
    switch (nFormat) {
        case TAVK05_REC_FORMAT_WSQ:
            return "WSQ";
        case TAVK05_REC_FORMAT_ISO2005:
            return "ISO/IEC 19794-4:2005";
        case TAVK05_REC_FORMAT_ISO2011:
            return "ISO/IEC 19794-4:2011";
        case TAVK05_REC_FORMAT_NIST:
            return "ANSI/NIST-ITL 1-2011";
        default:
            return "unknown";
    }
}

const char* Tavk05RecordsCompressionName(int nCompression)
{
    switch (nCompression) {
        case TAVK05_REC_COMP_NONE:
            return "none";
        case TAVK05_REC_COMP_WSQ:
            return "WSQ";
        case TAVK05_REC_COMP_PNG:
            return "PNG";
        default:
            return "other";
    }
}

}  // extern "C"
