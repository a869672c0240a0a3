// COberin contrast (the grey-level scale factor and the contrast table of the
// background-subtracted paths) and InitDev, which pushes contrast,
// brightness and gain to the device once per open.
#include <cmath>

#include "tavk05/oberin.h"
#include "oberin_firmware.h"

namespace {

const unsigned long kMaxContrast = 100;

// Factor = (contrast - neutral) x step + base, by model and firmware; the
// bases and neutral contrasts are those of the model profile.
const double kFactorStep = 0.02;
using tavk05profile::ProfileOf;
const long kNeutralContrast = ProfileOf(0, false).nNeutralContrast;
const long kNeutralContrastModel5 = ProfileOf(5, false).nNeutralContrast;
const double kBaseModel78NewFirmware = ProfileOf(7, true).dContrastBase;
const double kBaseModel78OldFirmware = ProfileOf(7, false).dContrastBase;
const double kBaseModel56 = ProfileOf(5, false).dContrastBase;
const double kBaseOther = ProfileOf(0, false).dContrastBase;

// Contrast table: a sigmoid around level 160 composed with a gamma curve.
const double kGamma = 0.4;
const double kSlope = 4.0;
const double kCentre = 160.0;

float ContrastFactor(int nDeviceType, bool bNewFirmware, unsigned long nContrast)
{
    // The contrast is taken as signed, so contrasts below the neutral one
    // give factors below the base.
    const long c = static_cast<long>(nContrast);
    double fFactor;
    switch (nDeviceType) {
    case 7:
    case 8:
        fFactor = static_cast<double>(c - kNeutralContrast) * kFactorStep +
                  (bNewFirmware ? kBaseModel78NewFirmware : kBaseModel78OldFirmware);
        break;
    case 5:
        fFactor = static_cast<double>(c - kNeutralContrastModel5) * kFactorStep + kBaseModel56;
        break;
    case 6:
        fFactor = static_cast<double>(c - kNeutralContrast) * kFactorStep + kBaseModel56;
        break;
    default:
        fFactor = static_cast<double>(c - kNeutralContrast) * kFactorStep + kBaseOther;
        break;
    }
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
    m_fContrastFactor = ContrastFactor(m_nDeviceType, oberin::HasNewFirmware(m_pVxd), nContrast);
    if (m_nDeviceType == 5 || m_nDeviceType == 6) {
        // These models scale in the capture itself and use no table.
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
