// Grey PNG files on good and hostile files and paths: any format is read as
// 8-bit grey, damaged or oversized files are refused with a message without a
// crash, a leak or a large allocation, and the writer never follows a link or
// replaces what is not a regular file of the user's own.
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdlib>
#include <random>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "imagefile/png_grey.h"

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

class PngTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char* pszTmp = std::getenv("TAVK05_TEST_TMP");
        const std::string strBase = pszTmp != nullptr ? pszTmp : "/tmp";
        m_strDir = strBase + "/png-test-" + std::to_string(::getpid());
        ::mkdir(strBase.c_str(), 0755);
        ASSERT_EQ(::mkdir(m_strDir.c_str(), 0755), 0) << m_strDir;
        m_strFile = m_strDir + "/f.png";
    }
    void TearDown() override { std::system(("rm -rf '" + m_strDir + "'").c_str()); }

    void Write(const Bytes& v)
    {
        std::ofstream(m_strFile, std::ios::binary | std::ios::trunc)
            .write(reinterpret_cast<const char*>(v.data()), static_cast<std::streamsize>(v.size()));
    }

    // The message when refused, "" when read.
    std::string Read(const std::string& strPath)
    {
        std::string strError;
        if (tavk05png::ReadGrey(strPath, &m_image, &strError)) {
            EXPECT_EQ(m_image.vecPixels.size(), size_t(m_image.nWidth) * m_image.nHeight);
            return "";
        }
        EXPECT_EQ(strError.compare(0, strPath.size(), strPath), 0) << strError;
        return strError;
    }

    std::string m_strDir, m_strFile;
    tavk05png::GreyImage m_image;
};

// Every format comes out as 8-bit grey of the file's size; only an 8-bit grey
// file is marked as stored so. A header that declares a huge image is refused
// before anything is allocated for it (the file itself is tiny).
TEST_F(PngTest, FormatsAndSizes)
{
    struct Case {
        unsigned long nW, nH;
        int nDepth, nColour;
    } const aCases[] = {{599, 600, 8, 0}, {600, 601, 8, 0}, {600, 600, 16, 0}, {600, 600, 4, 0},
                        {600, 600, 8, 2}, {1, 1, 8, 0},     {4096, 1, 8, 0}};
    for (const Case& c : aCases) {
        Write(MakePng(c.nW, c.nH, c.nDepth, c.nColour, c.nH));
        ASSERT_EQ(Read(m_strFile), "") << c.nW << "x" << c.nH << " " << c.nDepth;
        EXPECT_EQ(m_image.nWidth * 100000ul + m_image.nHeight, c.nW * 100000ul + c.nH);
        EXPECT_EQ(m_image.bStoredGrey8, c.nDepth == 8 && c.nColour == 0);
    }
    for (unsigned long nSide : {4097ul, 16384ul, 1000000ul}) {
        Write(MakePng(nSide, nSide, 8, 0, 1));
        EXPECT_NE(Read(m_strFile), "") << nSide;
    }
}

TEST_F(PngTest, DamagedFilesAreRefusedAtEveryCut)
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

// What is written reads back bit for bit at 500 ppi; a file of the user's
// own is replaced keeping its permissions, and nothing is left beside it.
TEST_F(PngTest, WrittenImagesReadBack)
{
    std::mt19937 gen(3);
    Bytes vecImage(600 * 437);
    for (auto& v : vecImage) v = static_cast<unsigned char>(gen());
    Write({1, 2, 3});
    ASSERT_EQ(::chmod(m_strFile.c_str(), 0640), 0);
    std::string strError;
    ASSERT_TRUE(tavk05png::WriteGrey(m_strFile, vecImage.data(), 600, 437, &strError)) << strError;
    ASSERT_EQ(Read(m_strFile), "");
    EXPECT_EQ(m_image.vecPixels, vecImage);
    EXPECT_TRUE(m_image.bStoredGrey8 && std::abs(m_image.fPpiX - 500) < 0.1 && std::abs(m_image.fPpiY - 500) < 0.1);
    struct stat st;
    EXPECT_TRUE(::stat(m_strFile.c_str(), &st) == 0 && (st.st_mode & 0777) == 0640);
    EXPECT_EQ(std::system(("test $(ls -A '" + m_strDir + "' | wc -l) = 1").c_str()), 0);
}

// Paths that are not regular files of the user's own are neither read nor
// written, and are left as they were: a directory, a missing file or
// directory, a FIFO (no writer or reader is waited for), a link, and as root
// another user's file.
TEST_F(PngTest, OtherPathsAreLeftAlone)
{
    const unsigned char abyPixel[1] = {9};
    const std::string strFifo = m_strDir + "/fifo.png", strLink = m_strDir + "/link.png";
    const std::string strOther = m_strDir + "/other.png";
    Write({1, 2, 3});
    ASSERT_TRUE(::mkfifo(strFifo.c_str(), 0600) == 0 && ::symlink(m_strFile.c_str(), strLink.c_str()) == 0);
    std::ofstream(strOther) << "theirs";
    const bool bRoot = ::geteuid() == 0 && ::chown(strOther.c_str(), 65534, 65534) == 0;
    for (const std::string& strPath : {m_strDir, m_strDir + "/no-such-file.png", strFifo}) {
        EXPECT_NE(Read(strPath), "") << strPath;
    }
    for (const std::string& strPath : {m_strDir, m_strDir + "/no-dir/f.png", strFifo, strLink, strOther}) {
        if (strPath == strOther && !bRoot) continue;
        std::string strError;
        EXPECT_FALSE(tavk05png::WriteGrey(strPath, abyPixel, 1, 1, &strError)) << strPath;
        EXPECT_EQ(strError.compare(0, strPath.size(), strPath), 0) << strError;
    }
    std::ifstream in(m_strFile, std::ios::binary);
    EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(in), {}), (Bytes{1, 2, 3}));
    EXPECT_EQ(std::system(("test $(ls -A '" + m_strDir + "' | wc -l) = 4").c_str()), 0);
}

// A link of another user anywhere on the path is not followed, root's links
// and the user's own are: root cannot be led to replace its own file through
// a folder link nobody planted in a shared directory, whatever the kernel's
// fs.protected_symlinks says.
TEST_F(PngTest, LinksOfOtherUsersOnThePathAreNotFollowed)
{
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to plant another user's link";
    const unsigned char abyPixel[1] = {9};
    const std::string strPub = m_strDir + "/pub", strEtc = m_strDir + "/etc", strShadow = strEtc + "/shadow";
    ASSERT_EQ(::mkdir(strPub.c_str(), 0), 0);
    ASSERT_EQ(::chmod(strPub.c_str(), 01777), 0);
    ASSERT_EQ(::mkdir(strEtc.c_str(), 0755), 0);
    const struct {
        uid_t nOwner;
        bool bWritten;
    } aCases[] = {{65534, false}, {4321, false}, {0, true}};
    for (const auto& c : aCases) {
        const std::string strLink = strPub + "/scans" + std::to_string(c.nOwner);
        ASSERT_EQ(::symlink(strEtc.c_str(), strLink.c_str()), 0);
        ASSERT_EQ(::lchown(strLink.c_str(), c.nOwner, c.nOwner), 0);
        std::ofstream(strShadow, std::ios::trunc) << "root:secret\n";
        std::string strError;
        EXPECT_EQ(tavk05png::WriteGrey(strLink + "/shadow", abyPixel, 1, 1, &strError), c.bWritten) << c.nOwner;
        EXPECT_EQ(strError.find(strLink + ", a symbolic link of another user") != std::string::npos, !c.bWritten)
            << strError;
        std::ifstream in(strShadow);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}) == "root:secret\n", !c.bWritten) << c.nOwner;
    }
}

}  // namespace
