// WSQ grey-scale fingerprint image compression (FBI IAFIS-IC-0110, version 3.1).
//
// Encoder: the FBI parameter settings ("encoder number two"): 7/9 biorthogonal filter pair,
// 64-subband decomposition, bin widths from subband variances and the target bit rate,
// Huffman tables built per block. The image resolution travels in the NISTCOM comment's PPI field.
// Decoder: any conforming file, including transform tables with other filter banks.
// Input to the decoder and to WsqReadInfo is treated as hostile.
#ifndef TAVK05_RECORDS_WSQ_H
#define TAVK05_RECORDS_WSQ_H

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tavk05rec {

enum WsqResult {
    kWsqOk = 0,
    kWsqBadArgument = 1,
    kWsqCorrupt = 2,
    kWsqUnsupported = 3,
    kWsqTooLarge = 4,
    kWsqNoMemory = 5
};

// Largest image the decoder accepts.
constexpr int kWsqMaxSide = 16384;
constexpr long long kWsqMaxPixels = 32LL * 1024 * 1024;

struct WsqInfo {
    int nWidth = 0;
    int nHeight = 0;
    int nPpi = -1;                // from the NISTCOM PPI field; -1 when unknown
    double dBitRate = 0.0;        // from NISTCOM WSQ_BITRATE when present, else 0
    int nEncoder = 0;             // encoder number from the frame header
    bool bCustomFilters = false;  // transform table carries a filter pair other than the 7/9 one
};

struct WsqComment {
    std::string strText;
};

// Encodes nWidth x nHeight 8-bit grey pixels (row-major, no padding) at dBitRate bits per pixel
// (0.75 is the FBI setting for 500 ppi images). extraNistcom adds key/value pairs after the
// standard NISTCOM fields.
WsqResult WsqEncode(const unsigned char* pPixels, int nWidth, int nHeight, int nPpi, double dBitRate,
                    const std::vector<std::pair<std::string, std::string>>& extraNistcom,
                    std::vector<unsigned char>& out);

// Decodes a whole WSQ file into 8-bit grey pixels (row-major).
WsqResult WsqDecode(const unsigned char* pData, size_t nSize, std::vector<unsigned char>& pixels, WsqInfo& info);

namespace wsq {
struct Workspace;
}

// An encoder and decoder that keeps its working memory (the image of
// transform coefficients, the bin indices, the transform's plans) from one
// image to the next. A host that compresses or expands many prints in one
// process (a batch conversion, a capture service) pays for fresh memory
// pages and plans once instead of for every image; on i386, where the C
// library returns every large block to the kernel when it is freed, that is
// about a fifth of a 600 x 600 image's time. The results are the same bytes
// as WsqEncode's and WsqDecode's. A codec serves one thread at a time.
class WsqCodec {
public:
    WsqCodec() noexcept;
    ~WsqCodec();
    WsqCodec(const WsqCodec&) = delete;
    WsqCodec& operator=(const WsqCodec&) = delete;

    WsqResult Encode(const unsigned char* pPixels, int nWidth, int nHeight, int nPpi, double dBitRate,
                     const std::vector<std::pair<std::string, std::string>>& extraNistcom,
                     std::vector<unsigned char>& out);
    WsqResult Decode(const unsigned char* pData, size_t nSize, std::vector<unsigned char>& pixels, WsqInfo& info);

private:
    std::unique_ptr<wsq::Workspace> m_pWork;
};

// Reads dimensions, encoder number, filters and the NISTCOM fields without decoding the image.
WsqResult WsqReadInfo(const unsigned char* pData, size_t nSize, WsqInfo& info);

// Comment segments (COM) of a file, in file order.
WsqResult WsqReadComments(const unsigned char* pData, size_t nSize, std::vector<WsqComment>& comments);

// Quantiser parameters and bin indices of a file, without the inverse
// transform: what the conformance measures of the standard compare.
struct WsqQuantization {
    double dBinCentre = 0.0;
    std::vector<double> q;         // 64 bin widths
    std::vector<double> z;         // 64 zero-bin widths
    std::vector<int> subbandSize;  // coefficients of each coded subband (0 when not coded)
    std::vector<int> indices;      // bin indices of the coded subbands, subband order
};
WsqResult WsqReadQuantization(const unsigned char* pData, size_t nSize, WsqQuantization& quant);

const char* WsqResultText(WsqResult result);

}  // namespace tavk05rec

#endif
