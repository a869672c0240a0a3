// Prints given as images (see scene_image.h).
#include "scene_image.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "imagefile/png_grey.h"
#include "scene_compose.h"

namespace tavk05virt {

namespace {

const double kPpi = 500.0;

}  // namespace

bool ReadGreyPng(const std::string& strPath, std::vector<unsigned char>* pPixels, unsigned* pnWidth, unsigned* pnHeight,
                 std::string* pError)
{
    tavk05png::GreyImage image;
    std::string strError;
    const double fLow = 0.98 * kPpi, fHigh = 1.02 * kPpi;
    if (!tavk05png::ReadGrey(strPath, &image, &strError)) {
        if (pError) *pError = strError;
        return false;
    }
    // A file that states its resolution must state the scanner's.
    if ((image.fPpiX != 0.0 || image.fPpiY != 0.0) &&
        (image.fPpiX < fLow || image.fPpiX > fHigh || image.fPpiY < fLow || image.fPpiY > fHigh)) {
        if (pError) {
            *pError = strPath + ": " + std::to_string(static_cast<int>(image.fPpiX + 0.5)) +
                      " ppi; the scanner takes 500 ppi prints";
        }
        return false;
    }
    pPixels->swap(image.vecPixels);
    *pnWidth = image.nWidth;
    *pnHeight = image.nHeight;
    return true;
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

std::shared_ptr<const CPrintImages> CPrintImages::Load(const std::string& strPath, bool bDirectory, std::string* pError)
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
