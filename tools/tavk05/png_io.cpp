// PNG reading and writing through libpng.
#include "png_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#ifdef TAVK05_HAVE_PNG
#include <png.h>
#endif

namespace cli {

namespace {

const unsigned kPixelsPerMetre = 19685;  // 500 pixels per inch

struct FileCloser {
    void operator()(std::FILE* p) const { std::fclose(p); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace

#ifdef TAVK05_HAVE_PNG

bool WritePng(const std::string& strPath, const unsigned char* pPixels, unsigned nWidth, unsigned nHeight,
              std::string* pError)
{
    // "-" is standard output.
    FilePtr pFile(strPath == "-" ? ::fdopen(::dup(STDOUT_FILENO), "wb") : std::fopen(strPath.c_str(), "wb"));
    if (!pFile) {
        *pError = strPath + ": " + std::strerror(errno);
        return false;
    }
    png_structp pPng = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop pInfo = pPng ? png_create_info_struct(pPng) : nullptr;
    if (pInfo == nullptr) {
        png_destroy_write_struct(&pPng, nullptr);
        *pError = "out of memory";
        return false;
    }
    if (setjmp(png_jmpbuf(pPng))) {
        png_destroy_write_struct(&pPng, &pInfo);
        *pError = strPath + ": PNG encoding failed";
        return false;
    }
    png_init_io(pPng, pFile.get());
    png_set_IHDR(pPng, pInfo, nWidth, nHeight, 8, PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_pHYs(pPng, pInfo, kPixelsPerMetre, kPixelsPerMetre, PNG_RESOLUTION_METER);
    png_write_info(pPng, pInfo);
    for (unsigned y = 0; y < nHeight; ++y) {
        png_write_row(pPng, const_cast<png_bytep>(pPixels + static_cast<size_t>(y) * nWidth));
    }
    png_write_end(pPng, nullptr);
    png_destroy_write_struct(&pPng, &pInfo);
    if (std::fflush(pFile.get()) != 0) {
        *pError = strPath + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

namespace {

const png_uint_32 kSide = 600;           // the one image size the command reads
const png_uint_32 kLimitSide = 4096;     // libpng refuses larger headers outright
const png_alloc_size_t kChunkLimit = 1u << 20;

void SilentWarning(png_structp, png_const_charp) {}

void JumpOnError(png_structp pPng, png_const_charp)
{
    png_longjmp(pPng, 1);
}

enum EPngResult { kPngOk, kPngCorrupt, kPngNotGrey600, kPngNoMemory };

// Decodes a 600 x 600 8-bit grey PNG into pOut (360,000 bytes). libpng reports
// errors by a long jump back into this function, so nothing here but plain
// data lives on its stack: no destructor can be skipped.
EPngResult DecodeGrey600(std::FILE* pFile, unsigned char* pOut)
{
    png_structp pPng = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, JumpOnError, SilentWarning);
    if (pPng == nullptr) return kPngNoMemory;
    png_infop pInfo = png_create_info_struct(pPng);
    if (pInfo == nullptr) {
        png_destroy_read_struct(&pPng, nullptr, nullptr);
        return kPngNoMemory;
    }
    volatile EPngResult eResult = kPngCorrupt;
    if (setjmp(png_jmpbuf(pPng)) == 0) {
        png_set_user_limits(pPng, kLimitSide, kLimitSide);
        png_set_chunk_cache_max(pPng, 64);
        png_set_chunk_malloc_max(pPng, kChunkLimit);
        png_init_io(pPng, pFile);
        png_set_sig_bytes(pPng, 8);
        png_read_info(pPng, pInfo);
        if (png_get_image_width(pPng, pInfo) != kSide || png_get_image_height(pPng, pInfo) != kSide ||
            png_get_bit_depth(pPng, pInfo) != 8 || png_get_color_type(pPng, pInfo) != PNG_COLOR_TYPE_GRAY) {
            eResult = kPngNotGrey600;
        } else {
            const int nPasses = png_set_interlace_handling(pPng);
            png_read_update_info(pPng, pInfo);
            for (int nPass = 0; nPass < nPasses; ++nPass) {
                for (png_uint_32 y = 0; y < kSide; ++y) {
                    png_read_row(pPng, pOut + static_cast<size_t>(y) * kSide, nullptr);
                }
            }
            png_read_end(pPng, nullptr);
            eResult = kPngOk;
        }
    }
    png_destroy_read_struct(&pPng, &pInfo, nullptr);
    return eResult;
}

}  // namespace

bool ReadPng(const std::string& strPath, std::vector<unsigned char>* pPixels, unsigned* pWidth, unsigned* pHeight,
             std::string* pError)
{
    // Only a regular file is read: a FIFO or device at the path must not hang
    // or feed the decoder forever.
    const int fd = ::open(strPath.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        *pError = strPath + ": " + std::strerror(errno);
        return false;
    }
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        *pError = strPath + ": not a regular file";
        return false;
    }
    FilePtr pFile(::fdopen(fd, "rb"));
    if (!pFile) {
        ::close(fd);
        *pError = strPath + ": " + std::strerror(errno);
        return false;
    }
    unsigned char abySig[8] = {};
    if (std::fread(abySig, 1, sizeof abySig, pFile.get()) != sizeof abySig || png_sig_cmp(abySig, 0, 8) != 0) {
        *pError = strPath + ": not a PNG file";
        return false;
    }
    std::vector<unsigned char> vecPixels(static_cast<size_t>(kSide) * kSide);
    switch (DecodeGrey600(pFile.get(), vecPixels.data())) {
    case kPngOk:
        break;
    case kPngNotGrey600:
        *pError = strPath + ": not a 600 x 600 8-bit grey image";
        return false;
    case kPngNoMemory:
        *pError = "out of memory";
        return false;
    default:
        *pError = strPath + ": corrupt or truncated PNG file";
        return false;
    }
    pPixels->swap(vecPixels);
    *pWidth = kSide;
    *pHeight = kSide;
    return true;
}

#else

bool WritePng(const std::string&, const unsigned char*, unsigned, unsigned, std::string* pError)
{
    *pError = "this build of tavk05 has no PNG support (libpng was not found)";
    return false;
}

bool ReadPng(const std::string&, std::vector<unsigned char>*, unsigned*, unsigned*, std::string* pError)
{
    *pError = "this build of tavk05 has no PNG support (libpng was not found)";
    return false;
}

#endif

}  // namespace cli
