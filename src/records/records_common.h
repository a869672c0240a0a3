// What the ISO/IEC 19794-4 and ANSI/NIST-ITL record modules share: status
// codes, the finger image as the containers carry it, a bounds-checked reader
// of big-endian bytes and the check of a PNG stream's header.
#ifndef TAVK05_RECORDS_COMMON_H
#define TAVK05_RECORDS_COMMON_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tavk05rec {

// The values of the C interface's TAVK05_REC_* codes.
enum RecStatus {
    kRecOk = 0,
    kRecBadArgument = 1,
    kRecCorrupt = 2,
    kRecUnsupported = 3,
    kRecTooLarge = 4,
    kRecNoMemory = 5,
    kRecTruncated = 6,
    kRecUnknownFormat = 7
};

enum Compression { kCompNone = 0, kCompWsq = 1, kCompPng = 2 };

constexpr int kMaxSide = 8192;
constexpr long long kMaxPixels = 4096LL * 4096;
constexpr int kQualityNone = 255;

// A finger image with its data as a record carries it: the raw pixels
// (kCompNone), a WSQ stream or a PNG stream.
struct FingerImage {
    int nFingerPosition = 0;
    int nImpression = 0;
    int nQuality = kQualityNone;
    int nCompression = kCompNone;
    int nPpi = 500;
    int nWidth = 0;
    int nHeight = 0;
    std::vector<unsigned char> data;
};

// Checks the dimensions against the library's bounds.
inline RecStatus CheckDimensions(long long nWidth, long long nHeight)
{
    if (nWidth < 1 || nHeight < 1) {
        return kRecCorrupt;
    }
    if (nWidth > kMaxSide || nHeight > kMaxSide || nWidth * nHeight > kMaxPixels) {
        return kRecTooLarge;
    }
    return kRecOk;
}

// Reads big-endian integers and byte runs from a bounded buffer. A read past
// the end reads nothing and leaves the reader failed; callers check Failed()
// once after a group of reads.
class ByteReader {
public:
    ByteReader(const unsigned char* pData, size_t nSize) : m_pData(pData), m_nSize(nSize) {}

    unsigned U8() { return static_cast<unsigned>(Take(1)); }
    unsigned U16() { return static_cast<unsigned>(Take(2)); }
    uint64_t U32() { return Take(4); }
    uint64_t U48() { return Take(6); }

    // The next nCount bytes, or nullptr (and failed) when fewer remain.
    const unsigned char* Bytes(size_t nCount)
    {
        if (m_bFailed || nCount > m_nSize - m_nPos) {
            m_bFailed = true;
            return nullptr;
        }
        const unsigned char* p = m_pData + m_nPos;
        m_nPos += nCount;
        return p;
    }

    void Skip(size_t nCount) { Bytes(nCount); }
    bool Failed() const { return m_bFailed; }
    size_t Position() const { return m_nPos; }
    size_t Remaining() const { return m_nSize - m_nPos; }

private:
    uint64_t Take(size_t nCount)
    {
        const unsigned char* p = Bytes(nCount);
        uint64_t nValue = 0;
        for (size_t i = 0; p != nullptr && i < nCount; ++i) {
            nValue = (nValue << 8) | p[i];
        }
        return nValue;
    }

    const unsigned char* m_pData;
    size_t m_nSize;
    size_t m_nPos = 0;
    bool m_bFailed = false;
};

// Appends big-endian integers.
inline void PutBe(std::vector<unsigned char>& out, uint64_t nValue, int nBytes)
{
    for (int i = nBytes - 1; i >= 0; --i) {
        out.push_back(static_cast<unsigned char>((nValue >> (8 * i)) & 0xFF));
    }
}

// Checks that a PNG stream starts with the signature and an IHDR chunk of an
// 8-bit grey image of the given size.
RecStatus CheckPngStream(const unsigned char* pData, size_t nSize, int nWidth, int nHeight);

// Pixels per inch from a resolution in the given unit (1 ppi, 2 ppcm); 0 when
// the unit is neither.
int PixelsPerInch(int nScaleUnits, int nValue);

// Checks a finger image given to a writer: finger position 0..nMaxPosition,
// live-scan plain or rolled, quality 0..100 or none, dimensions within bounds,
// data of the right form for its compression. kRecBadArgument or kRecTooLarge.
RecStatus CheckFingerForWriting(const FingerImage& finger, int nMaxPosition);

// Checks a finger image a reader found: the data agrees with the compression
// and the dimensions (raw pixels of the full size, a PNG header of the size).
RecStatus CheckFingerData(const FingerImage& finger);

}  // namespace tavk05rec

#endif
