// The record formats of tavk05: the .wsq, .fir and .an2 writers of the
// writers table, one reader for every format the command writes (found by
// content), and the convert and show commands.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "cli.h"
#include "imagefile/png_grey.h"

namespace cli {

namespace {

// Nothing the command reads is larger: 4096 x 4096 grey pixels and the
// record around them.
const long long kMaxFileBytes = 64ll << 20;

// Buffers and structures the records library hands out, released on scope exit.
struct RecBuffer {
    unsigned char* p = nullptr;
    size_t nSize = 0;
    ~RecBuffer() { Tavk05RecordsFree(p); }
};
struct RecImage : Tavk05RecImage {
    RecImage() : Tavk05RecImage() {}
    ~RecImage() { Tavk05RecImageRelease(this); }
};
struct NistTransaction : Tavk05NistTransaction {
    NistTransaction() : Tavk05NistTransaction() {}
    ~NistTransaction() { Tavk05NistRelease(this); }
};
struct Description : Tavk05RecDescription {
    Description() : Tavk05RecDescription() {}
    ~Description() { Tavk05RecDescriptionRelease(this); }
};

std::string RecError(const std::string& strPath, const char* pszWhat, int nStatus)
{
    return strPath + ": " + pszWhat + ": " + Tavk05RecordsStatusText(nStatus);
}

// The finger as the records library takes it: pixels, compressed as asked
// (a PNG stream made here, WSQ inside the library).
bool MakeFinger(const unsigned char* pImage, unsigned nWidth, unsigned nHeight, const ImageFacts& facts,
                std::vector<unsigned char>* pPng, Tavk05RecFinger* pFinger, std::string* pError)
{
    *pFinger = Tavk05RecFinger();
    pFinger->nFingerPosition = facts.nFinger;
    pFinger->nImpression = facts.nImpression;
    pFinger->nQuality = facts.nQuality;
    pFinger->nCompression = facts.nCompression;
    pFinger->nPpi = facts.nPpi;
    pFinger->nWidth = static_cast<int>(nWidth);
    pFinger->nHeight = static_cast<int>(nHeight);
    pFinger->pPixels = pImage;
    pFinger->dBitRate = facts.dBitRate;
    if (facts.nCompression == TAVK05_REC_COMP_PNG) {
        if (!tavk05png::EncodeGrey(pImage, nWidth, nHeight, pPng)) {
            *pError = "PNG encoding failed (is this build without libpng?)";
            return false;
        }
        pFinger->pPixels = nullptr;
        pFinger->pData = pPng->data();
        pFinger->nDataSize = pPng->size();
    }
    return true;
}

// The Type-1 fields of a transaction the command makes itself. The domain
// of a receiving system defines TOT, DAI and ORI; the command fills them
// with plain placeholders and numbers the transaction by time and process.
Tavk05NistHeader CommandHeader()
{
    Tavk05NistHeader header = {};
    std::snprintf(header.szTot, sizeof header.szTot, "%s", "TAVK05");
    std::snprintf(header.szDai, sizeof header.szDai, "%s", "NONE");
    std::snprintf(header.szOri, sizeof header.szOri, "%s", "NONE");
    std::snprintf(header.szTcn, sizeof header.szTcn, "TAVK05-%lld-%ld", static_cast<long long>(std::time(nullptr)),
                  static_cast<long>(getpid()));
    return header;
}

// Reads a whole regular file of at most kMaxFileBytes; never waits on a FIFO.
bool ReadFile(const std::string& strPath, std::vector<unsigned char>* pData, std::string* pError)
{
    const int fd = open(strPath.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        *pError = strPath + ": " + std::strerror(errno);
        return false;
    }
    struct stat st;
    bool bOk = false;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        *pError = strPath + ": not a regular file";
    } else if (st.st_size > kMaxFileBytes) {
        *pError = strPath + ": larger than 64 MiB";
    } else {
        pData->resize(static_cast<size_t>(st.st_size));
        size_t nDone = 0;
        ssize_t nRead = 1;
        while (nDone < pData->size() && (nRead = read(fd, pData->data() + nDone, pData->size() - nDone)) > 0) {
            nDone += static_cast<size_t>(nRead);
        }
        pData->resize(nDone);
        bOk = nRead >= 0;
        if (!bOk) *pError = strPath + ": " + std::strerror(errno);
    }
    close(fd);
    return bOk;
}

// The pixels and facts of a finger image a reader returned.
bool TakeRecImage(const std::string& strPath, const Tavk05RecImage& image, LoadedImage* pImage, std::string* pError)
{
    pImage->facts.nFinger = image.nFingerPosition;
    pImage->facts.nImpression = image.nImpression;
    pImage->facts.nQuality = image.nQuality;
    pImage->facts.nPpi = image.nPpi;
    pImage->facts.nCompression = image.nCompression;
    pImage->bLossy = image.nCompression == TAVK05_REC_COMP_WSQ;
    if (image.nCompression == TAVK05_REC_COMP_PNG) {
        tavk05png::GreyImage png;
        std::string strWhy;
        if (!tavk05png::DecodeGrey(image.pData, image.nDataSize, &png, &strWhy)) {
            *pError = strPath + ": the record's PNG image: " + strWhy;
            return false;
        }
        pImage->vecPixels = std::move(png.vecPixels);
        pImage->nWidth = png.nWidth;
        pImage->nHeight = png.nHeight;
        pImage->bStoredGrey8 = png.bStoredGrey8;
        return true;
    }
    pImage->nWidth = static_cast<unsigned>(image.nWidth);
    pImage->nHeight = static_cast<unsigned>(image.nHeight);
    pImage->vecPixels.assign(image.pPixels, image.pPixels + static_cast<size_t>(image.nWidth) * image.nHeight);
    return true;
}

const char* FingerName(int nFinger)
{
    static const char* const kNames[] = {"unknown",     "right thumb",  "right index", "right middle",
                                         "right ring",  "right little", "left thumb",  "left index",
                                         "left middle", "left ring",    "left little"};
    return nFinger >= 0 && nFinger <= 10 ? kNames[nFinger] : "another position";
}

const char* ImpressionName(int nImpression)
{
    static const char* const kNames[] = {"live-scan plain", "live-scan rolled", "nonlive-scan plain",
                                         "nonlive-scan rolled"};
    return nImpression >= 0 && nImpression <= 3 ? kNames[nImpression] : "another type";
}

void ShowEntry(const Tavk05RecEntry& entry, const char* pszIndent)
{
    std::printf("%ssize          %d x %d\n", pszIndent, entry.nWidth, entry.nHeight);
    std::printf("%sresolution    %d ppi\n", pszIndent, entry.nPpi);
    std::printf("%scompression   %s", pszIndent, Tavk05RecordsCompressionName(entry.nCompression));
    if (entry.nCompression == TAVK05_REC_COMP_WSQ && entry.dWsqBitRate > 0.0) {
        std::printf(", bit rate %.2f", entry.dWsqBitRate);
    }
    std::printf(" (%zu bytes, %.2f bits per pixel)\n", entry.nDataSize, entry.dBitsPerPixel);
    if (entry.nFingerPosition >= 0) {
        std::printf("%sfinger        %d (%s)\n", pszIndent, entry.nFingerPosition, FingerName(entry.nFingerPosition));
    }
    if (entry.nImpression >= 0) {
        std::printf("%simpression    %d (%s)\n", pszIndent, entry.nImpression, ImpressionName(entry.nImpression));
    }
    if (entry.nQuality >= 0 && entry.nQuality <= 100) {
        std::printf("%squality       %d\n", pszIndent, entry.nQuality);
    } else if (entry.nQuality >= 0) {
        std::printf("%squality       not computed (%d)\n", pszIndent, entry.nQuality);
    }
}

int ShowPng(const std::string& strPath, long long nBytes)
{
    tavk05png::GreyImage image;
    std::string strError;
    if (!tavk05png::ReadGrey(strPath, &image, &strError)) {
        std::fprintf(stderr, "tavk05: %s\n", strError.c_str());
        return EXIT_IO;
    }
    static const char* const kColours[] = {"grey", "", "RGB", "palette", "grey and alpha", "", "RGB and alpha"};
    const char* pszColour = image.nColourType >= 0 && image.nColourType <= 6 ? kColours[image.nColourType] : "";
    std::printf("%s: PNG, %lld bytes\n", strPath.c_str(), nBytes);
    std::printf("size          %u x %u\n", image.nWidth, image.nHeight);
    std::printf("bit depth     %d (%s)\n", image.nBitDepth, pszColour);
    if (image.fPpiX > 0.0) {
        std::printf("resolution    %.0f x %.0f ppi\n", image.fPpiX, image.fPpiY);
    } else {
        std::printf("resolution    not stated\n");
    }
    std::printf("compression   PNG (lossless)\n");
    return EXIT_OK;
}

bool IsPng(const std::vector<unsigned char>& vecData)
{
    static const unsigned char kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    return vecData.size() >= sizeof kSignature && std::memcmp(vecData.data(), kSignature, sizeof kSignature) == 0;
}

}  // namespace

ImageFacts FactsFromOptions(const Options& opt, int nImpression, int nQuality)
{
    ImageFacts facts;
    facts.nImpression = nImpression;
    facts.nQuality = nQuality >= 0 && nQuality <= 100 ? nQuality : TAVK05_REC_QUALITY_NONE;
    facts.nFinger = static_cast<int>(opt.Number("finger", 0));
    if (opt.Has("bitrate")) facts.dBitRate = std::strtod(opt.Value("bitrate").c_str(), nullptr);
    if (opt.Has("iso-version")) facts.nIsoVersion = static_cast<int>(opt.Number("iso-version", 2011));
    const std::string strCompression = opt.Value("compression");
    if (strCompression == "none") facts.nCompression = TAVK05_REC_COMP_NONE;
    if (strCompression == "png") facts.nCompression = TAVK05_REC_COMP_PNG;
    return facts;
}

bool WritePngImage(const std::string& strPath, const unsigned char* pImage, unsigned nWidth, unsigned nHeight,
                   const ImageFacts&, std::string* pError)
{
    return tavk05png::WriteGrey(strPath, pImage, nWidth, nHeight, pError);
}

bool WriteWsqImage(const std::string& strPath, const unsigned char* pImage, unsigned nWidth, unsigned nHeight,
                   const ImageFacts& facts, std::string* pError)
{
    RecBuffer out;
    const int nStatus = Tavk05WsqEncode(pImage, static_cast<int>(nWidth), static_cast<int>(nHeight), facts.nPpi,
                                        facts.dBitRate, &out.p, &out.nSize);
    if (nStatus != TAVK05_REC_OK) {
        *pError = RecError(strPath, "WSQ encoding", nStatus);
        return false;
    }
    return tavk05png::WriteBytes(strPath, out.p, out.nSize, pError);
}

bool WriteIsoImage(const std::string& strPath, const unsigned char* pImage, unsigned nWidth, unsigned nHeight,
                   const ImageFacts& facts, std::string* pError)
{
    std::vector<unsigned char> vecPng;
    Tavk05RecFinger finger;
    if (!MakeFinger(pImage, nWidth, nHeight, facts, &vecPng, &finger, pError)) return false;
    RecBuffer out;
    const int nStatus = Tavk05IsoWrite(facts.nIsoVersion, &finger, nullptr, &out.p, &out.nSize);
    if (nStatus != TAVK05_REC_OK) {
        *pError = RecError(strPath, "ISO/IEC 19794-4 record", nStatus);
        return false;
    }
    return tavk05png::WriteBytes(strPath, out.p, out.nSize, pError);
}

bool WriteNistImage(const std::string& strPath, const unsigned char* pImage, unsigned nWidth, unsigned nHeight,
                    const ImageFacts& facts, std::string* pError)
{
    Tavk05NistFinger record;
    std::vector<unsigned char> vecPng;
    record.nRecordType = 14;
    if (!MakeFinger(pImage, nWidth, nHeight, facts, &vecPng, &record.finger, pError)) return false;
    const Tavk05NistHeader header = facts.pNistHeader != nullptr ? *facts.pNistHeader : CommandHeader();
    RecBuffer out;
    const int nStatus = Tavk05NistWrite(&header, &record, 1, &out.p, &out.nSize);
    if (nStatus != TAVK05_REC_OK) {
        *pError = RecError(strPath, "ANSI/NIST-ITL transaction", nStatus);
        return false;
    }
    return tavk05png::WriteBytes(strPath, out.p, out.nSize, pError);
}

bool LoadImage(const std::string& strPath, LoadedImage* pImage, std::string* pError)
{
    std::vector<unsigned char> vecData;
    if (!ReadFile(strPath, &vecData, pError)) return false;
    if (IsPng(vecData)) {
        tavk05png::GreyImage png;
        if (!tavk05png::ReadGrey(strPath, &png, pError)) return false;
        pImage->strFormat = "PNG";
        pImage->vecPixels = std::move(png.vecPixels);
        pImage->nWidth = png.nWidth;
        pImage->nHeight = png.nHeight;
        pImage->bStoredGrey8 = png.bStoredGrey8;
        if (png.fPpiX > 0.0) pImage->facts.nPpi = static_cast<int>(png.fPpiX + 0.5);
        return true;
    }
    Description description;
    int nStatus = Tavk05RecordsDescribe(vecData.data(), vecData.size(), &description);
    if (nStatus != TAVK05_REC_OK) {
        *pError = nStatus == TAVK05_REC_UNKNOWN_FORMAT
                      ? strPath + ": neither PNG, WSQ, ISO/IEC 19794-4 nor ANSI/NIST-ITL"
                      : RecError(strPath, "reading", nStatus);
        return false;
    }
    pImage->strFormat = Tavk05RecordsFormatName(description.nFormat);
    if (description.nFormat == TAVK05_REC_FORMAT_WSQ) {
        RecBuffer pixels;
        int nWidth = 0, nHeight = 0, nPpi = 0;
        nStatus = Tavk05WsqDecode(vecData.data(), vecData.size(), &pixels.p, &nWidth, &nHeight, &nPpi);
        if (nStatus != TAVK05_REC_OK) {
            *pError = RecError(strPath, "WSQ decoding", nStatus);
            return false;
        }
        pImage->vecPixels.assign(pixels.p, pixels.p + static_cast<size_t>(nWidth) * nHeight);
        pImage->nWidth = static_cast<unsigned>(nWidth);
        pImage->nHeight = static_cast<unsigned>(nHeight);
        pImage->bLossy = true;
        if (nPpi > 0) pImage->facts.nPpi = nPpi;
        return true;
    }
    if (description.nFormat == TAVK05_REC_FORMAT_NIST) {
        NistTransaction transaction;
        nStatus = Tavk05NistRead(vecData.data(), vecData.size(), &transaction);
        if (nStatus != TAVK05_REC_OK) {
            *pError = RecError(strPath, "reading the transaction", nStatus);
            return false;
        }
        if (transaction.nFingers < 1) {
            *pError = strPath + ": the transaction holds no finger image (Type-4 or Type-14)";
            return false;
        }
        pImage->bNist = true;
        pImage->nistHeader = transaction.header;
        return TakeRecImage(strPath, transaction.pFingers[0], pImage, pError);
    }
    RecImage image;
    nStatus = Tavk05IsoRead(vecData.data(), vecData.size(), nullptr, &image);
    if (nStatus != TAVK05_REC_OK) {
        *pError = RecError(strPath, "reading the record", nStatus);
        return false;
    }
    return TakeRecImage(strPath, image, pImage, pError);
}

int CmdConvert(const Options& opt)
{
    const std::string& strIn = opt.vecArgs[0];
    const std::string& strOut = opt.vecArgs[1];
    const ImageWriter* pWriter = FindWriter(strOut);
    if (pWriter == nullptr || strOut == "-") {
        return Usage("convert: OUT must be a file name ending in " + WriterList() + ", not '" + strOut + "'");
    }
    if (!OutputWritable(strOut)) return EXIT_IO;
    LoadedImage image;
    std::string strError;
    if (!LoadImage(strIn, &image, &strError)) {
        std::fprintf(stderr, "tavk05: %s\n", strError.c_str());
        return EXIT_IO;
    }
    // The record fields come along; options given override them.
    ImageFacts facts = FactsFromOptions(opt, image.facts.nImpression, image.facts.nQuality);
    if (!opt.Has("finger")) facts.nFinger = image.facts.nFinger;
    facts.nPpi = image.facts.nPpi;
    if (image.bNist) facts.pNistHeader = &image.nistHeader;
    if (!pWriter->pfnWrite(strOut, image.vecPixels.data(), image.nWidth, image.nHeight, facts, &strError)) {
        std::fprintf(stderr, "tavk05: cannot write %s\n", strError.c_str());
        return EXIT_IO;
    }
    std::printf("%s (%s, %u x %u) -> %s (%s)\n", strIn.c_str(), image.strFormat.c_str(), image.nWidth, image.nHeight,
                strOut.c_str(), pWriter->pszFormat);
    return EXIT_OK;
}

int CmdShow(const Options& opt)
{
    const std::string& strPath = opt.vecArgs[0];
    std::vector<unsigned char> vecData;
    std::string strError;
    if (!ReadFile(strPath, &vecData, &strError)) {
        std::fprintf(stderr, "tavk05: %s\n", strError.c_str());
        return EXIT_IO;
    }
    if (IsPng(vecData)) return ShowPng(strPath, static_cast<long long>(vecData.size()));
    Description description;
    const int nStatus = Tavk05RecordsDescribe(vecData.data(), vecData.size(), &description);
    if (nStatus != TAVK05_REC_OK) {
        std::fprintf(stderr, "tavk05: %s: %s\n", strPath.c_str(),
                     nStatus == TAVK05_REC_UNKNOWN_FORMAT ? "neither PNG, WSQ, ISO/IEC 19794-4 nor ANSI/NIST-ITL"
                                                          : Tavk05RecordsStatusText(nStatus));
        return EXIT_IO;
    }
    std::printf("%s: %s%s%s, %zu bytes\n", strPath.c_str(), Tavk05RecordsFormatName(description.nFormat),
                description.szVersion[0] != '\0' ? ", version " : "", description.szVersion, description.nSize);
    if (description.nFormat != TAVK05_REC_FORMAT_NIST) {
        for (int i = 0; i < description.nEntries; ++i) ShowEntry(description.pEntries[i], "");
        return EXIT_OK;
    }
    for (int i = 0; i < description.nEntries; ++i) {
        const Tavk05RecEntry& entry = description.pEntries[i];
        const bool bFinger = entry.nRecordType == 4 || entry.nRecordType == 14;
        std::printf("record %d      Type-%d%s\n", i + 1, entry.nRecordType,
                    entry.nRecordType == 1 ? " (transaction information)"
                    : bFinger              ? " (finger image)"
                                           : "");
        if (bFinger) ShowEntry(entry, "  ");
    }
    return EXIT_OK;
}

}  // namespace cli
