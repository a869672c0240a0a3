// PNG reading and writing through libpng.
#include "png_io.h"

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
    FilePtr pFile(std::fopen(strPath.c_str(), "wb"));
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

bool ReadPng(const std::string& strPath, std::vector<unsigned char>* pPixels, unsigned* pWidth, unsigned* pHeight,
             std::string* pError)
{
    FilePtr pFile(std::fopen(strPath.c_str(), "rb"));
    if (!pFile) {
        *pError = strPath + ": " + std::strerror(errno);
        return false;
    }
    unsigned char abySig[8] = {};
    if (std::fread(abySig, 1, sizeof abySig, pFile.get()) != sizeof abySig || png_sig_cmp(abySig, 0, 8) != 0) {
        *pError = strPath + ": not a PNG file";
        return false;
    }
    png_structp pPng = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop pInfo = pPng ? png_create_info_struct(pPng) : nullptr;
    if (pInfo == nullptr) {
        png_destroy_read_struct(&pPng, nullptr, nullptr);
        *pError = "out of memory";
        return false;
    }
    if (setjmp(png_jmpbuf(pPng))) {
        png_destroy_read_struct(&pPng, &pInfo, nullptr);
        *pError = strPath + ": corrupt PNG file";
        return false;
    }
    png_init_io(pPng, pFile.get());
    png_set_sig_bytes(pPng, 8);
    png_read_info(pPng, pInfo);
    const png_uint_32 nW = png_get_image_width(pPng, pInfo);
    const png_uint_32 nH = png_get_image_height(pPng, pInfo);
    if (nW == 0 || nH == 0 || nW > 16384 || nH > 16384) {
        png_destroy_read_struct(&pPng, &pInfo, nullptr);
        *pError = strPath + ": unsupported image size";
        return false;
    }
    // Whatever the file holds, deliver 8-bit grey.
    png_set_expand(pPng);
    png_set_strip_16(pPng);
    png_set_strip_alpha(pPng);
    png_set_rgb_to_gray_fixed(pPng, 1, -1, -1);
    png_read_update_info(pPng, pInfo);
    if (png_get_rowbytes(pPng, pInfo) != nW) {
        png_destroy_read_struct(&pPng, &pInfo, nullptr);
        *pError = strPath + ": cannot convert to 8-bit grey";
        return false;
    }
    pPixels->assign(static_cast<size_t>(nW) * nH, 0);
    std::vector<png_bytep> vecRows(nH);
    for (png_uint_32 y = 0; y < nH; ++y) {
        vecRows[y] = pPixels->data() + static_cast<size_t>(y) * nW;
    }
    png_read_image(pPng, vecRows.data());
    png_read_end(pPng, nullptr);
    png_destroy_read_struct(&pPng, &pInfo, nullptr);
    *pWidth = nW;
    *pHeight = nH;
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
