// Golden images: a test's image compared with a PNG under its directory's
// golden/ folder, with a report of how many pixels differ and where the
// first one is. TAVK05_REGEN_GOLDEN=1 (scripts/regen-golden) writes the
// images instead. The same PNG serves both ABIs: pixels are compared, not files.
#ifndef TAVK05_TESTS_GOLDEN_IMAGE_H
#define TAVK05_TESTS_GOLDEN_IMAGE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "imagefile/png_grey.h"

namespace goldentest {

inline std::string GoldenPath(const std::string& strName)
{
    return std::string(TAVK05_GOLDEN_DIR) + "/" + strName + ".png";
}

inline ::testing::AssertionResult MatchesGolden(const std::vector<unsigned char>& image, const std::string& strName,
                                                unsigned nWidth = 600, unsigned nHeight = 600)
{
    const std::string strPath = GoldenPath(strName);
    std::string strError;
    const char* pszRegen = std::getenv("TAVK05_REGEN_GOLDEN");
    if (pszRegen != nullptr && std::string(pszRegen) == "1") {
        const bool bWritten = tavk05png::WriteGrey(strPath, image.data(), nWidth, nHeight, &strError);
        return bWritten ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << strError;
    }
    tavk05png::GreyImage golden;
    if (!tavk05png::ReadGrey(strPath, &golden, &strError))
        return ::testing::AssertionFailure() << strError << " (scripts/regen-golden writes the golden images)";
    if (golden.nWidth != nWidth || golden.nHeight != nHeight || image.size() < golden.vecPixels.size()) {
        return ::testing::AssertionFailure() << strName << ": golden is " << golden.nWidth << " x " << golden.nHeight
                                             << ", image " << nWidth << " x " << nHeight;
    }
    size_t nDiffer = 0, nFirst = 0;
    for (size_t i = 0; i < golden.vecPixels.size(); ++i) {
        if (image[i] == golden.vecPixels[i]) continue;
        if (nDiffer++ == 0) nFirst = i;
    }
    if (nDiffer == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << strName << ": " << nDiffer << " of " << golden.vecPixels.size()
                                         << " pixels differ; the first at column " << nFirst % nWidth << ", row "
                                         << nFirst / nWidth << ": image " << int(image[nFirst]) << ", golden "
                                         << int(golden.vecPixels[nFirst]);
}

// The frozen input of the golden images: a committed 500 ppi print, shown by
// a virtual unit with image= instead of a synthetic finger.
inline std::string PrintKey() { return "image=" + GoldenPath("print"); }

}  // namespace goldentest

#endif
