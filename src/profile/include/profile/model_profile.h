// What each scanner model and firmware class is, as data: one row per model
// and firmware class. The transport derives the device type from the USB
// descriptor with it, the sensor takes its frame geometry, averaged reads,
// correction, contrast, shading and rolling from it, and the virtual scanner
// and the tools describe and imitate the models by it. Internal to the
// project: nothing here is installed.
#ifndef TAVK05_PROFILE_MODEL_PROFILE_H
#define TAVK05_PROFILE_MODEL_PROFILE_H

#include "tavk05/vxdinter.h"

namespace tavk05profile {

// Firmware versions (bcdDevice) that split the models.
constexpr unsigned short kFirmware1004 = 0x1004;  // last firmware of models 3 and 4
constexpr unsigned short kFirmware1103 = 0x1103;  // the firmware of models 5 and 6
constexpr int kLastOldFirmware = 0x2FFF;          // above: the large 1800 x 1280 sensor
constexpr unsigned short kFirstNewFirmware = 0x3000;

// How a grey frame is corrected into the 600 x 600 image.
enum Correction {
    kCorrectTables,  // coordinate tables by the processor's type (CorrectImage)
    kCorrectCalc,    // bilinear through the modify table (CorrectImageCalc)
    kCorrectCalcEx   // bilinear through the large modify table (CorrectImageCalcEx)
};

struct ModelProfile {
    int nDeviceType;                 // 3..8; 0 for a product the driver does not know
    unsigned short wProduct;         // idProduct; 0 for none
    bool bNewFirmware;               // firmware above kLastOldFirmware
    unsigned short wDefaultFirmware; // bcdDevice a virtual unit of the model reports unless told; 0 not this row
    bool bOpenSetsGeometry;          // opening takes the geometry and factor below (else keeps what it had)
    unsigned long nRawWidth;         // colour mosaic width in samples
    unsigned long nRawHeight;        // colour mosaic height in samples
    unsigned long nFrameBytes;       // bytes per frame: mosaic and unused tail
    int nReadsAveraged;              // frames a single capture averages
    Correction eCorrection;
    const char* pszCorrection;       // how the correction reads, for people
    float fContrastFactor;           // factor before any contrast setting
    double dContrastBase;            // factor at the neutral contrast
    long nNeutralContrast;           // contrast that gives the base factor
    bool bShading;                   // shading table and scaling after the correction
    bool bRolls;                     // composes rolled prints
    bool bSmoothRoll;                // a finished rolled image is smoothed
    int nPreviewBase;                // live view of models 7 and 8: the level of clear glass; 0 for the table
};

// The sensor's geometry before any device is opened, and that of models 3
// and 4 and of unknown products, which opening leaves as it is.
constexpr unsigned long kSmallWidth = 1280, kSmallHeight = 676, kSmallFrameBytes = 926720;
constexpr unsigned long kMidWidth = 1288, kMidHeight = 876, kMidFrameBytes = 1128448;
constexpr unsigned long kLargeWidth = 1800, kLargeHeight = 1280, kLargeFrameBytes = 2304000;

inline constexpr ModelProfile kProfiles[] = {
    // type product firmware default-fw sets  width height frame reads correction ... preview base
    {0, 0, false, 0, false, kSmallWidth, kSmallHeight, kSmallFrameBytes, 4, kCorrectTables,
     "coordinate tables", 1.3f, 1.0, 20, false, true, true, 0},
    {3, VXD_PRODUCT_0610, false, kFirmware1004, false, kSmallWidth, kSmallHeight, kSmallFrameBytes, 4,
     kCorrectTables, "coordinate tables", 1.3f, 1.0, 20, false, true, true, 0},
    {4, VXD_PRODUCT_0620, false, kFirmware1004, false, kSmallWidth, kSmallHeight, kSmallFrameBytes, 4,
     kCorrectTables, "coordinate tables", 1.3f, 1.0, 20, false, false, true, 0},
    {5, VXD_PRODUCT_0610, false, kFirmware1103, true, kMidWidth, kMidHeight, kMidFrameBytes, 1, kCorrectTables,
     "coordinate tables 1103, shading", 1.55f, 1.55, 16, true, true, true, 0},
    {5, VXD_PRODUCT_0610, true, 0, true, kLargeWidth, kLargeHeight, kLargeFrameBytes, 1, kCorrectTables,
     "coordinate tables 1103, shading", 1.42f, 1.55, 16, true, true, true, 0},
    {6, VXD_PRODUCT_0620, false, kFirmware1103, true, kMidWidth, kMidHeight, kMidFrameBytes, 1, kCorrectTables,
     "coordinate tables 1103, shading", 1.55f, 1.55, 20, true, false, true, 0},
    {6, VXD_PRODUCT_0620, true, 0, true, kLargeWidth, kLargeHeight, kLargeFrameBytes, 1, kCorrectTables,
     "coordinate tables 1103, shading", 1.42f, 1.55, 20, true, false, true, 0},
    {7, VXD_PRODUCT_0610, false, 0, true, kMidWidth, kMidHeight, kMidFrameBytes, 1, kCorrectCalc,
     "bilinear, 1288 x 876 modify table", 2.0f, 2.0, 20, false, true, false, 125},
    {7, VXD_PRODUCT_0610, true, kFirstNewFirmware, true, kLargeWidth, kLargeHeight, kLargeFrameBytes, 1,
     kCorrectCalcEx, "bilinear, 1700 x 1300 modify table", 1.42f, 1.42, 20, false, true, false, 180},
    {8, VXD_PRODUCT_0620, false, 0, true, kMidWidth, kMidHeight, kMidFrameBytes, 1, kCorrectCalc,
     "bilinear, 1288 x 876 modify table", 2.0f, 2.0, 20, false, false, true, 125},
    {8, VXD_PRODUCT_0620, true, kFirstNewFirmware, true, kLargeWidth, kLargeHeight, kLargeFrameBytes, 1,
     kCorrectCalcEx, "bilinear, 1700 x 1300 modify table", 1.42f, 1.42, 20, false, false, true, 180},
};

// The type a new sensor assumes before it opens a device.
constexpr int kDefaultDeviceType = 4;

// The row of a device type and firmware class; unknown types get the row of
// the unknown product, types without a row for the class the other one.
constexpr const ModelProfile& ProfileOf(int nDeviceType, bool bNewFirmware)
{
    const ModelProfile* pAny = nullptr;
    for (const ModelProfile& row : kProfiles) {
        if (row.nDeviceType != nDeviceType) continue;
        if (row.bNewFirmware == bNewFirmware) return row;
        pAny = &row;
    }
    return pAny != nullptr ? *pAny : kProfiles[0];
}

constexpr bool IsNewFirmware(int nFirmware)
{
    return nFirmware > kLastOldFirmware;
}

// Device type by idProduct and bcdDevice: firmware 0x1103 makes models 5 and
// 6, firmware above 0x1004 models 7 and 8, older firmware models 3 and 4;
// 0 for a product the driver does not know.
constexpr int DeviceTypeOf(unsigned short wProduct, unsigned short wBcdDevice)
{
    int nBase = 0;
    for (const ModelProfile& row : kProfiles) {
        if (row.nDeviceType != 0 && row.wProduct == wProduct && (nBase == 0 || row.nDeviceType < nBase)) {
            nBase = row.nDeviceType;
        }
    }
    if (nBase == 0) return 0;
    if (wBcdDevice == kFirmware1103) return nBase + 2;
    if (wBcdDevice > kFirmware1004) return nBase + 4;
    return nBase;
}

// idProduct and default firmware of a model 3..8 as a virtual unit reports them.
constexpr const ModelProfile& DefaultRowOf(int nModel)
{
    for (const ModelProfile& row : kProfiles) {
        if (row.nDeviceType == nModel && row.wDefaultFirmware != 0) return row;
    }
    return kProfiles[0];
}

// Nominal image sizes by image-size code (SetImageSize, GetDeviceInfo), and
// how the capture paths use them: the single capture and roll paths mark and
// fill the nominal size of the marked codes (the others the output size),
// DoModify resamples to the width of the resampled codes.
struct ImageSize {
    unsigned nWidth;
    unsigned nHeight;
    bool bCaptureNominal;
    bool bResampled;
};
inline constexpr ImageSize kImageSizes[] = {
    {356, 292, false, false}, {228, 292, true, true},  {356, 456, false, false},
    {248, 292, true, true},   {260, 300, true, false}, {600, 600, true, false},
};
constexpr unsigned long kImageSizeCodes = sizeof kImageSizes / sizeof kImageSizes[0];

// A latent frame is read out as a 1214 x 616 mosaic whatever the model.
constexpr int kLatentWidth = 1214;
constexpr int kLatentHeight = 616;

static_assert(ProfileOf(7, true).nFrameBytes == kLargeFrameBytes, "row lookup by type and firmware");
static_assert(DeviceTypeOf(VXD_PRODUCT_0620, kFirmware1103) == 6, "device type rule");

}  // namespace tavk05profile

#endif
