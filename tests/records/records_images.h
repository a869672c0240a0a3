// Finger images for the record tests: a virtual finger as the project's
// scanner renders it, and small images of known pixels.
#ifndef TAVK05_TESTS_RECORDS_IMAGES_H
#define TAVK05_TESTS_RECORDS_IMAGES_H

#include <cstddef>
#include <string>
#include <vector>

#include "finger_pattern.h"
#include "records_common.h"
#include "scene_compose.h"

namespace recordtest {

// The 600 x 600 print of a flat virtual finger.
inline std::vector<unsigned char> VirtualFinger(uint32_t nSeed)
{
    const std::shared_ptr<const tavk05virt::CFingerPattern> pPattern = tavk05virt::GetFingerPattern(nSeed);
    tavk05virt::SceneConfig config;
    config.nSeed = nSeed;
    std::vector<unsigned char> glass(600 * 600);
    tavk05virt::ComposeGlass(pPattern.get(), tavk05virt::PoseAt(config, pPattern->Genome(), 40), glass.data());
    return glass;
}

// An uncompressed finger image whose pixels are a ramp.
inline tavk05rec::FingerImage RampFinger(int nWidth, int nHeight)
{
    tavk05rec::FingerImage finger;
    finger.nFingerPosition = 7;
    finger.nImpression = 1;
    finger.nQuality = 64;
    finger.nWidth = nWidth;
    finger.nHeight = nHeight;
    for (int i = 0; i < nWidth * nHeight; ++i) {
        finger.data.push_back(static_cast<unsigned char>(i * 13 + i / nWidth));
    }
    return finger;
}

// The signature and IHDR chunk of an 8-bit grey PNG: what the library looks
// at of a PNG stream it carries.
inline std::vector<unsigned char> PngHeader(int nWidth, int nHeight)
{
    std::vector<unsigned char> png = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A, 0, 0, 0, 13, 'I', 'H', 'D', 'R'};
    tavk05rec::PutBe(png, static_cast<uint64_t>(nWidth), 4);
    tavk05rec::PutBe(png, static_cast<uint64_t>(nHeight), 4);
    png.insert(png.end(), {8, 0, 0, 0, 0, 0x12, 0x34, 0x56, 0x78});  // depth, grey, methods, a CRC
    return png;
}

// Big-endian integer of nBytes at nOffset.
inline uint64_t BeAt(const std::vector<unsigned char>& bytes, size_t nOffset, int nBytes)
{
    uint64_t nValue = 0;
    for (int i = 0; i < nBytes; ++i) {
        nValue = (nValue << 8) | bytes.at(nOffset + static_cast<size_t>(i));
    }
    return nValue;
}

inline void SetBe(std::vector<unsigned char>& bytes, size_t nOffset, uint64_t nValue, int nBytes)
{
    for (int i = nBytes - 1; i >= 0; --i) {
        bytes.at(nOffset + static_cast<size_t>(i)) = static_cast<unsigned char>(nValue & 0xFF);
        nValue >>= 8;
    }
}

inline std::string Text(const std::vector<unsigned char>& bytes) { return std::string(bytes.begin(), bytes.end()); }

}  // namespace recordtest

#endif
