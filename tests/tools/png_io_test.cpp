// The PNG reader of the command on good and hostile files: only a 600 x 600
// 8-bit grey image is accepted, everything else is refused with a message,
// without a crash, a leak or a large allocation.
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "png_io.h"

namespace {

using Bytes = std::vector<unsigned char>;

void Put32(Bytes& v, unsigned long n)
{
    for (int nShift = 24; nShift >= 0; nShift -= 8) v.push_back(static_cast<unsigned char>(n >> nShift));
}

void Chunk(Bytes& v, const char* pszType, const Bytes& data)
{
    Put32(v, data.size());
    Bytes body(pszType, pszType + 4);
    body.insert(body.end(), data.begin(), data.end());
    v.insert(v.end(), body.begin(), body.end());
    Put32(v, crc32(0, body.data(), static_cast<uInt>(body.size())));
}

// A PNG with the given header and nRows rows of pixel data (filter byte 0).
Bytes MakePng(unsigned long nWidth, unsigned long nHeight, int nDepth, int nColour, unsigned long nRows)
{
    Bytes v = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    Bytes ihdr;
    Put32(ihdr, nWidth);
    Put32(ihdr, nHeight);
    ihdr.insert(ihdr.end(), {static_cast<unsigned char>(nDepth), static_cast<unsigned char>(nColour), 0, 0, 0});
    Chunk(v, "IHDR", ihdr);
    const int nChannels = nColour == 2 ? 3 : 1;
    const size_t nRowBytes = 1 + (nWidth * nChannels * nDepth + 7) / 8;
    Bytes raw(nRowBytes * nRows, 0);
    for (size_t i = 0; i < raw.size(); ++i) raw[i] = i % nRowBytes ? static_cast<unsigned char>(i * 7) : 0;
    uLongf nZipped = compressBound(static_cast<uLong>(raw.size()));
    Bytes zipped(nZipped);
    compress(zipped.data(), &nZipped, raw.data(), static_cast<uLong>(raw.size()));
    zipped.resize(nZipped);
    Chunk(v, "IDAT", zipped);
    Chunk(v, "IEND", {});
    return v;
}

class PngReadTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char* pszTmp = std::getenv("TAVK05_TEST_TMP");
        m_strDir = std::string(pszTmp != nullptr ? pszTmp : "/tmp");
        ::mkdir(m_strDir.c_str(), 0755);
        m_strFile = m_strDir + "/png-test-" + std::to_string(::getpid()) + ".png";
    }
    void TearDown() override { ::unlink(m_strFile.c_str()); }

    void Write(const Bytes& v)
    {
        std::ofstream(m_strFile, std::ios::binary | std::ios::trunc)
            .write(reinterpret_cast<const char*>(v.data()), static_cast<std::streamsize>(v.size()));
    }

    // Reads m_strFile; the message when refused, "" when read.
    std::string Read(const std::string& strPath)
    {
        std::vector<unsigned char> vecPixels;
        unsigned nW = 0, nH = 0;
        std::string strError;
        if (cli::ReadPng(strPath, &vecPixels, &nW, &nH, &strError)) {
            EXPECT_EQ(vecPixels.size(), 360000u);
            EXPECT_EQ(nW * nH, 360000u);
            return "";
        }
        EXPECT_FALSE(strError.empty());
        return strError;
    }

    std::string m_strDir, m_strFile;
};

TEST_F(PngReadTest, OtherSizesAndFormatsAreNamed)
{
    const char* const pszNotGrey = "not a 600 x 600 8-bit grey image";
    struct Case {
        unsigned long nW, nH;
        int nDepth, nColour;
    } const aCases[] = {{599, 600, 8, 0}, {600, 601, 8, 0}, {600, 600, 16, 0}, {600, 600, 4, 0},
                        {600, 600, 8, 2}, {1, 1, 8, 0}};
    for (const Case& c : aCases) {
        Write(MakePng(c.nW, c.nH, c.nDepth, c.nColour, c.nH));
        EXPECT_NE(Read(m_strFile).find(pszNotGrey), std::string::npos) << c.nW << "x" << c.nH << " " << c.nDepth;
    }
    // A header that declares a huge image is refused before anything is
    // allocated for it (the file itself is tiny).
    Write(MakePng(16384, 16384, 8, 0, 1));
    EXPECT_NE(Read(m_strFile), "");
    Write(MakePng(1000000, 1000000, 8, 0, 1));
    EXPECT_NE(Read(m_strFile), "");
}

TEST_F(PngReadTest, DamagedFilesAreRefusedAtEveryCut)
{
    const Bytes good = MakePng(600, 600, 8, 0, 600);
    Write(good);
    ASSERT_EQ(Read(m_strFile), "");
    // Cut short anywhere, including inside the signature and the header.
    for (size_t nCut = 0; nCut < good.size(); nCut += 1 + nCut / 3) {
        Write(Bytes(good.begin(), good.begin() + static_cast<long>(nCut)));
        EXPECT_NE(Read(m_strFile), "") << "cut at " << nCut;
    }
    // A flipped byte in the header, the compressed data and a checksum.
    for (size_t nAt : {size_t(20), good.size() / 2, good.size() - 14}) {
        Bytes bad = good;
        bad[nAt] ^= 0x5a;
        Write(bad);
        EXPECT_NE(Read(m_strFile), "") << "byte " << nAt;
    }
    // Image rows missing although the data stream is intact.
    Write(MakePng(600, 600, 8, 0, 300));
    EXPECT_NE(Read(m_strFile), "");
}

TEST_F(PngReadTest, PathsThatAreNotRegularFilesAreRefused)
{
    EXPECT_NE(Read(m_strDir), "");
    EXPECT_NE(Read(m_strDir + "/no-such-file.png"), "");
    const std::string strFifo = m_strFile + ".fifo";
    ASSERT_EQ(::mkfifo(strFifo.c_str(), 0600), 0);
    EXPECT_NE(Read(strFifo), "");  // returns at once: no writer is waited for
    ::unlink(strFifo.c_str());
}

}  // namespace
