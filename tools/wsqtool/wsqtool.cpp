// tavk05-wsqtool: WSQ encoding and decoding of binary PGM images, and the
// comparisons of the WSQ compliance measures.
//
//   tavk05-wsqtool encode [-r RATE] [-p PPI] IN.pgm OUT.wsq
//   tavk05-wsqtool decode IN.wsq OUT.pgm
//   tavk05-wsqtool info IN.wsq
//   tavk05-wsqtool compare-pixels A.pgm B.pgm
//   tavk05-wsqtool compare-quant TEST.wsq REFERENCE.wsq
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cctype>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "wsq.h"

using namespace tavk05rec;

namespace {

bool ReadFile(const char* pPath, std::vector<unsigned char>& data)
{
    std::ifstream in(pPath, std::ios::binary);
    if (!in) return false;
    data.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

bool WriteFile(const char* pPath, const std::vector<unsigned char>& data)
{
    std::ofstream out(pPath, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
    return static_cast<bool>(out);
}

struct Grey {
    int nWidth = 0;
    int nHeight = 0;
    std::vector<unsigned char> pixels;
};

// Binary PGM with 8-bit samples; comments allowed in the header.
bool ReadPgm(const char* pPath, Grey& img)
{
    std::vector<unsigned char> data;
    if (!ReadFile(pPath, data) || data.size() < 2 || data[0] != 'P' || data[1] != '5') return false;
    size_t nPos = 2;
    long anField[3];
    for (long& nField : anField) {
        for (;;) {
            while (nPos < data.size() && std::isspace(data[nPos])) ++nPos;
            if (nPos < data.size() && data[nPos] == '#') {
                while (nPos < data.size() && data[nPos] != '\n') ++nPos;
                continue;
            }
            break;
        }
        nField = 0;
        size_t nDigits = 0;
        while (nPos < data.size() && std::isdigit(data[nPos]) && nDigits < 9) {
            nField = nField * 10 + (data[nPos++] - '0');
            ++nDigits;
        }
        if (nDigits == 0) return false;
    }
    ++nPos;
    if (anField[0] < 1 || anField[1] < 1 || anField[2] != 255) return false;
    const size_t nCount = static_cast<size_t>(anField[0]) * static_cast<size_t>(anField[1]);
    if (nPos > data.size() || data.size() - nPos < nCount) return false;
    img.nWidth = static_cast<int>(anField[0]);
    img.nHeight = static_cast<int>(anField[1]);
    img.pixels.assign(data.begin() + static_cast<long>(nPos), data.begin() + static_cast<long>(nPos + nCount));
    return true;
}

bool WritePgm(const char* pPath, int nWidth, int nHeight, const std::vector<unsigned char>& pixels)
{
    const std::string strHeader = "P5\n" + std::to_string(nWidth) + " " + std::to_string(nHeight) + "\n255\n";
    std::vector<unsigned char> data(strHeader.begin(), strHeader.end());
    data.insert(data.end(), pixels.begin(), pixels.end());
    return WriteFile(pPath, data);
}

int Fail(const char* pWhat, const char* pPath)
{
    std::fprintf(stderr, "tavk05-wsqtool: %s: %s\n", pPath, pWhat);
    return 1;
}

int Encode(int argc, char** argv)
{
    double dRate = 0.75;
    int nPpi = 500;
    int nOpt;
    optind = 2;
    while ((nOpt = getopt(argc, argv, "r:p:")) != -1) {
        if (nOpt == 'r')
            dRate = std::atof(optarg);
        else if (nOpt == 'p')
            nPpi = std::atoi(optarg);
        else
            return 2;
    }
    if (argc - optind != 2) return 2;
    Grey img;
    if (!ReadPgm(argv[optind], img)) return Fail("not an 8-bit binary PGM image", argv[optind]);
    std::vector<unsigned char> out;
    const WsqResult res = WsqEncode(img.pixels.data(), img.nWidth, img.nHeight, nPpi, dRate, {}, out);
    if (res != kWsqOk) return Fail(WsqResultText(res), argv[optind]);
    if (!WriteFile(argv[optind + 1], out)) return Fail("cannot write", argv[optind + 1]);
    return 0;
}

int Decode(const char* pIn, const char* pOut)
{
    std::vector<unsigned char> data, pixels;
    if (!ReadFile(pIn, data)) return Fail("cannot read", pIn);
    WsqInfo info;
    const WsqResult res = WsqDecode(data.data(), data.size(), pixels, info);
    if (res != kWsqOk) return Fail(WsqResultText(res), pIn);
    if (!WritePgm(pOut, info.nWidth, info.nHeight, pixels)) return Fail("cannot write", pOut);
    return 0;
}

int Info(const char* pIn)
{
    std::vector<unsigned char> data;
    if (!ReadFile(pIn, data)) return Fail("cannot read", pIn);
    WsqInfo info;
    const WsqResult res = WsqReadInfo(data.data(), data.size(), info);
    if (res != kWsqOk) return Fail(WsqResultText(res), pIn);
    std::printf("width %d\nheight %d\nppi %d\nbitrate %.6f\nencoder %d\ncustom_filters %d\n", info.nWidth, info.nHeight,
                info.nPpi, info.dBitRate, info.nEncoder, info.bCustomFilters ? 1 : 0);
    return 0;
}

// Pixels equal and the largest difference (decoder measure, Annex AA.3).
int ComparePixels(const char* pA, const char* pB)
{
    Grey a, b;
    if (!ReadPgm(pA, a)) return Fail("not an 8-bit binary PGM image", pA);
    if (!ReadPgm(pB, b)) return Fail("not an 8-bit binary PGM image", pB);
    if (a.nWidth != b.nWidth || a.nHeight != b.nHeight) {
        std::printf("pixels 0\nequal 0\nmax_diff 255\n");
        return 0;
    }
    size_t nEqual = 0;
    int nMax = 0;
    for (size_t i = 0; i < a.pixels.size(); ++i) {
        const int d = std::abs(static_cast<int>(a.pixels[i]) - static_cast<int>(b.pixels[i]));
        if (d == 0) ++nEqual;
        if (d > nMax) nMax = d;
    }
    std::printf("pixels %zu\nequal %zu\nmax_diff %d\n", a.pixels.size(), nEqual, nMax);
    return 0;
}

// Bin widths, zero-bin widths and bin indices (encoder measures, Annex AA.2).
int CompareQuant(const char* pTest, const char* pRef)
{
    std::vector<unsigned char> test, ref;
    if (!ReadFile(pTest, test)) return Fail("cannot read", pTest);
    if (!ReadFile(pRef, ref)) return Fail("cannot read", pRef);
    WsqQuantization qt, qr;
    WsqResult res = WsqReadQuantization(test.data(), test.size(), qt);
    if (res != kWsqOk) return Fail(WsqResultText(res), pTest);
    res = WsqReadQuantization(ref.data(), ref.size(), qr);
    if (res != kWsqOk) return Fail(WsqResultText(res), pRef);
    double dMaxQ = 0.0, dMaxZ = 0.0;
    int nCodedMismatch = 0;
    for (size_t k = 0; k < qr.q.size(); ++k) {
        if ((qr.q[k] > 0.0) != (qt.q[k] > 0.0)) {
            ++nCodedMismatch;
            continue;
        }
        if (qr.q[k] > 0.0) dMaxQ = std::fmax(dMaxQ, 100.0 * std::fabs(qt.q[k] - qr.q[k]) / qr.q[k]);
        if (qr.z[k] > 0.0) dMaxZ = std::fmax(dMaxZ, 100.0 * std::fabs(qt.z[k] - qr.z[k]) / qr.z[k]);
    }
    size_t nEqual = 0;
    long nMax = 0;
    const size_t nCount = qr.indices.size();
    if (qt.indices.size() == nCount) {
        for (size_t i = 0; i < nCount; ++i) {
            const long d = std::labs(static_cast<long>(qt.indices[i]) - qr.indices[i]);
            if (d == 0) ++nEqual;
            if (d > nMax) nMax = d;
        }
    } else {
        nMax = -1;
    }
    std::printf(
        "subbands_coded_differently %d\nq_dev_percent %.6f\nz_dev_percent %.6f\nindices %zu\nequal %zu\n"
        "max_diff %ld\n",
        nCodedMismatch, dMaxQ, dMaxZ, nCount, nEqual, nMax);
    return 0;
}

int Usage()
{
    std::fprintf(stderr,
                 "usage: tavk05-wsqtool encode [-r RATE] [-p PPI] IN.pgm OUT.wsq\n"
                 "       tavk05-wsqtool decode IN.wsq OUT.pgm\n"
                 "       tavk05-wsqtool info IN.wsq\n"
                 "       tavk05-wsqtool compare-pixels A.pgm B.pgm\n"
                 "       tavk05-wsqtool compare-quant TEST.wsq REFERENCE.wsq\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) return Usage();
    const std::string strCmd = argv[1];
    int nRes = 2;
    if (strCmd == "encode")
        nRes = Encode(argc, argv);
    else if (strCmd == "decode" && argc == 4)
        nRes = Decode(argv[2], argv[3]);
    else if (strCmd == "info" && argc == 3)
        nRes = Info(argv[2]);
    else if (strCmd == "compare-pixels" && argc == 4)
        nRes = ComparePixels(argv[2], argv[3]);
    else if (strCmd == "compare-quant" && argc == 4)
        nRes = CompareQuant(argv[2], argv[3]);
    return nRes == 2 ? Usage() : nRes;
}
