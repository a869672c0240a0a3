// COberin contrast (the grey-level scale factor and the contrast table of the
// background-subtracted paths) and InitDev, which pushes contrast,
// brightness and gain to the device once per open.
#include <cmath>

#include "tavk05/oberin.h"
#include "oberin_firmware.h"

namespace {

const unsigned long kMaxContrast = 100;

// Factor = (contrast - neutral) x step + base; the base and the neutral
// contrast are the model profile's.
const double kFactorStep = 0.02;

// Contrast table: a sigmoid around level 160 composed with a gamma curve.
const double kGamma = 0.4;
const double kSlope = 4.0;
const double kCentre = 160.0;

float ContrastFactor(const tavk05profile::ModelProfile& profile, unsigned long nContrast)
{
    // The contrast is taken as signed, so contrasts below the neutral one
    // give factors below the base.
    const long c = static_cast<long>(nContrast);
    const double fFactor = static_cast<double>(c - profile.nNeutralContrast) * kFactorStep + profile.dContrastBase;
    return static_cast<float>(fFactor);
}

// The grey-level mapping of the background-subtracted paths. It does not
// depend on the contrast setting: 0 up to level 82, then rising to 254 at
// 254 and 255 at 255, never above the identity.
void BuildContrastTable(unsigned char* pTable)
{
    int anGamma[256];
    int anSigmoid[256];
    int anTable[256];
    for (int i = 0; i < 256; ++i) {
        double g = 255.0 * std::pow((i + 1) / 256.0, 1.0 / kGamma) + 0.5;
        if (g < 0.0) g = 0.0;
        if (g >= 255.0) g = 255.0;
        anGamma[i] = static_cast<int>(g);
    }
    for (int i = 0; i < 256; ++i) {
        const double s = 255.0 / (1.0 + std::exp(-kSlope * (i - kCentre) / 128.0));
        anSigmoid[i] = static_cast<int>(s);
    }
    for (int i = 0; i < 256; ++i) {
        anTable[i] = anGamma[anSigmoid[i]];
    }
    // Normalised in place to the last entry, which itself becomes 255 only
    // when its own turn comes; then limited by the identity.
    for (int i = 0; i < 256; ++i) {
        anTable[i] = anTable[i] * 255 / anTable[255];
        if (anTable[i] > i) anTable[i] = i;
    }
    for (int i = 0; i < 256; ++i) {
        pTable[i] = static_cast<unsigned char>(anTable[i]);
    }
}

}  // namespace

unsigned long COberin::SetContrast(unsigned long nContrast)
{
    if (nContrast > kMaxContrast) {
        m_nError = TAVK05_E_INVALID;
        return m_nError;
    }
    m_nContrast = nContrast;
    const tavk05profile::ModelProfile& profile = oberin::ProfileOf(*this);
    m_fContrastFactor = ContrastFactor(profile, nContrast);
    if (profile.bShading) {
        // Shaded models scale in the capture itself and use no table.
        m_ImageProc.m_bContrastTable = 0;
    } else {
        BuildContrastTable(m_ImageProc.m_ucContrastTable);
        m_ImageProc.m_bContrastTable = 1;
    }
    m_nError = TAVK05_OK;
    return m_nError;
}

unsigned long COberin::InitDev(bool bForce)
{
    if (!bForce && m_bDevInitialized) {
        return TAVK05_OK;
    }
    // Stops at the first refusal; the device then does not count as
    // initialised, so the next call tries all three again.
    unsigned long nResult = SetContrast(m_nContrast);
    if (nResult != TAVK05_OK) return nResult;
    nResult = SetBrightnessEx(m_nBrightness);
    if (nResult != TAVK05_OK) return nResult;
    nResult = SetGainValueEx(m_nGain);
    if (nResult != TAVK05_OK) return nResult;
    m_bDevInitialized = true;
    return TAVK05_OK;
}
