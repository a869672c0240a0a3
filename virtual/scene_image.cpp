// Prints given as images (see scene_image.h).
#include "scene_image.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "scene_compose.h"

#ifdef TAVK05_HAVE_PNG
#include <png.h>
#endif

namespace tavk05virt {

namespace {

const unsigned kMaxSide = 4096;
const double kPixelsPerMetre500 = 500.0 / 0.0254;

struct FileCloser {
    void operator()(std::FILE* p) const { std::fclose(p); }
};

#ifdef TAVK05_HAVE_PNG
// libpng's own handlers print to the host's standard error; the message
// for the host is made here instead.
void PngError(png_structp pPng, png_const_charp)
{
    png_longjmp(pPng, 1);
}

void PngWarning(png_structp, png_const_charp) {}
#endif

}  // namespace

bool ReadGreyPng(const std::string& strPath, std::vector<unsigned char>* pPixels, unsigned* pnWidth,
                 unsigned* pnHeight, std::string* pError)
{
#ifndef TAVK05_HAVE_PNG
    (void)pPixels;
    (void)pnWidth;
    (void)pnHeight;
    if (pError) *pError = strPath + ": this virtual scanner was built without PNG support";
    return false;
#else
    std::unique_ptr<std::FILE, FileCloser> pFile(std::fopen(strPath.c_str(), "rb"));
    if (!pFile) {
        if (pError) *pError = strPath + ": cannot open: " + std::strerror(errno);
        return false;
    }
    unsigned char abySignature[8];
    if (std::fread(abySignature, 1, sizeof abySignature, pFile.get()) != sizeof abySignature ||
        png_sig_cmp(abySignature, 0, sizeof abySignature) != 0) {
        if (pError) *pError = strPath + ": not a PNG file";
        return false;
    }
    png_structp pPng = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, PngError, PngWarning);
    png_infop pInfo = pPng ? png_create_info_struct(pPng) : nullptr;
    if (!pInfo) {
        png_destroy_read_struct(&pPng, nullptr, nullptr);
        if (pError) *pError = strPath + ": out of memory";
        return false;
    }
    // libpng's error exit leaves through longjmp: nothing below owns memory
    // of its own (the rows go straight into the caller's buffer).
    std::vector<unsigned char>& vecPixels = *pPixels;
    const char* volatile pszProblem = nullptr;
    if (setjmp(png_jmpbuf(pPng))) {
        png_destroy_read_struct(&pPng, &pInfo, nullptr);
        if (pError) *pError = strPath + ": " + (pszProblem ? pszProblem : "damaged or truncated PNG data");
        return false;
    }
    png_set_user_limits(pPng, kMaxSide, kMaxSide);
    png_init_io(pPng, pFile.get());
    png_set_sig_bytes(pPng, sizeof abySignature);
    png_read_info(pPng, pInfo);
    const png_uint_32 nWidth = png_get_image_width(pPng, pInfo);
    const png_uint_32 nHeight = png_get_image_height(pPng, pInfo);
    png_uint_32 nResX = 0;
    png_uint_32 nResY = 0;
    int nUnit = 0;
    if (png_get_pHYs(pPng, pInfo, &nResX, &nResY, &nUnit) && nUnit == PNG_RESOLUTION_METER) {
        const double fLow = 0.98 * kPixelsPerMetre500;
        const double fHigh = 1.02 * kPixelsPerMetre500;
        if (nResX < fLow || nResX > fHigh || nResY < fLow || nResY > fHigh) {
            png_destroy_read_struct(&pPng, &pInfo, nullptr);
            if (pError) {
                *pError = strPath + ": " + std::to_string(static_cast<int>(nResX * 0.0254 + 0.5)) +
                          " ppi; the scanner takes 500 ppi prints";
            }
            return false;
        }
    }
    // Whatever the file holds, 8-bit grey comes out.
    const int nColour = png_get_color_type(pPng, pInfo);
    png_set_strip_16(pPng);
    png_set_expand(pPng);
    if (nColour & PNG_COLOR_MASK_COLOR) png_set_rgb_to_gray_fixed(pPng, 1, -1, -1);
    png_set_strip_alpha(pPng);
    const int nPasses = png_set_interlace_handling(pPng);
    png_read_update_info(pPng, pInfo);
    if (png_get_rowbytes(pPng, pInfo) != nWidth || png_get_channels(pPng, pInfo) != 1) {
        pszProblem = "unsupported pixel layout";
        png_error(pPng, "layout");
    }
    try {
        vecPixels.assign(static_cast<size_t>(nWidth) * nHeight, 0);
    } catch (const std::bad_alloc&) {
        png_destroy_read_struct(&pPng, &pInfo, nullptr);
        if (pError) *pError = strPath + ": out of memory";
        return false;
    }
    for (int nPass = 0; nPass < nPasses; ++nPass) {
        for (png_uint_32 y = 0; y < nHeight; ++y) {
            png_read_row(pPng, vecPixels.data() + static_cast<size_t>(y) * nWidth, nullptr);
        }
    }
    png_read_end(pPng, nullptr);
    png_destroy_read_struct(&pPng, &pInfo, nullptr);
    *pnWidth = nWidth;
    *pnHeight = nHeight;
    return true;
#endif
}

void PlacePrint(const unsigned char* pPrint, unsigned nWidth, unsigned nHeight, unsigned char* pGlass)
{
    const int kSide = CPrintImages::kSide;
    std::memset(pGlass, GlassLevels::kGlass, static_cast<size_t>(kSide) * kSide);
    // Offset of the print's first column and row on the glass (negative:
    // the print is cropped there).
    const long nLeft = (kSide - static_cast<long>(nWidth)) / 2;
    const long nTop = (kSide - static_cast<long>(nHeight)) / 2;
    for (long y = 0; y < kSide; ++y) {
        const long sy = y - nTop;
        if (sy < 0 || sy >= static_cast<long>(nHeight)) continue;
        const long x0 = std::max(0L, nLeft);
        const long x1 = std::min(static_cast<long>(kSide), nLeft + static_cast<long>(nWidth));
        if (x1 <= x0) continue;
        std::memcpy(pGlass + y * kSide + x0, pPrint + static_cast<size_t>(sy) * nWidth + (x0 - nLeft),
                    static_cast<size_t>(x1 - x0));
    }
}

std::shared_ptr<const CPrintImages> CPrintImages::Load(const std::string& strPath, bool bDirectory,
                                                       std::string* pError)
{
    try {
        std::vector<std::string> vecFiles;
        if (!bDirectory) {
            vecFiles.push_back(strPath);
        } else {
            std::unique_ptr<DIR, int (*)(DIR*)> pDir(opendir(strPath.c_str()), closedir);
            if (!pDir) {
                if (pError) *pError = strPath + ": cannot read the directory: " + std::strerror(errno);
                return nullptr;
            }
            while (const dirent* pEntry = readdir(pDir.get())) {
                const std::string strName = pEntry->d_name;
                if (strName.size() > 4 && strName.compare(strName.size() - 4, 4, ".png") == 0) {
                    vecFiles.push_back(strPath + "/" + strName);
                }
            }
            std::sort(vecFiles.begin(), vecFiles.end());
            if (vecFiles.empty()) {
                if (pError) *pError = strPath + ": no .png files";
                return nullptr;
            }
            if (vecFiles.size() > kMaxFiles) {
                if (pError) *pError = strPath + ": more than " + std::to_string(kMaxFiles) + " .png files";
                return nullptr;
            }
        }
        std::shared_ptr<CPrintImages> pImages = std::make_shared<CPrintImages>();
        for (const std::string& strFile : vecFiles) {
            std::vector<unsigned char> vecPixels;
            unsigned nWidth = 0;
            unsigned nHeight = 0;
            if (!ReadGreyPng(strFile, &vecPixels, &nWidth, &nHeight, pError)) return nullptr;
            pImages->m_vecGlass.emplace_back(static_cast<size_t>(kSide) * kSide);
            PlacePrint(vecPixels.data(), nWidth, nHeight, pImages->m_vecGlass.back().data());
        }
        return pImages;
    } catch (const std::bad_alloc&) {
        if (pError) *pError = strPath + ": out of memory for the prints";
        return nullptr;
    }
}

}  // namespace tavk05virt
