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
    int nDeviceType;                  // 3..8; 0 for a product the driver does not know
    unsigned short wProduct;          // idProduct; 0 for none
    bool bFromDescriptor;             // a device's descriptor selects the row (product and firmware range)
    unsigned short wFirmwareLow;      // bcdDevice range that selects the row, inclusive; the narrowest
    unsigned short wFirmwareHigh;     //   range that holds a device's firmware wins
    bool bNewFirmware;                // the row's firmware class: above kLastOldFirmware
    unsigned short wDefaultFirmware;  // bcdDevice a virtual unit of the model reports unless told; 0 not this row
    bool bOpenSetsGeometry;           // opening takes the geometry and factor below (else keeps what it had)
    unsigned long nRawWidth;          // colour mosaic width in samples
    unsigned long nRawHeight;         // colour mosaic height in samples
    unsigned long nFrameBytes;        // bytes per frame: mosaic and unused tail
    int nReadsAveraged;               // frames a single capture averages
    Correction eCorrection;
    const char* pszCorrection;  // how the correction reads, for people
    bool bTables1103;           // coordinate-table correction uses the 1103 tables (else the main ones)
    float fContrastFactor;      // factor before any contrast setting
    double dContrastBase;       // factor at the neutral contrast
    long nNeutralContrast;      // contrast that gives the base factor
    bool bShading;              // shading table and scaling at capture; so the live view shows frames as
                                //   captured, no contrast table is built, and a roll merges frame pixels
    bool bRolls;                // composes rolled prints
    bool bSmoothRoll;           // a finished rolled image is smoothed
    int nPreviewBase;           // live view maps a darkening d to (base - d) x factor; 0: the contrast table
    int nRollBase;              // rolled composition maps d to (base - d) x contrast; 0: the contrast table
};

// The sensor's geometry before any device is opened, and that of models 3
// and 4 and of unknown products, which opening leaves as it is.
constexpr unsigned long kSmallWidth = 1280, kSmallHeight = 676, kSmallFrameBytes = 926720;
constexpr unsigned long kMidWidth = 1288, kMidHeight = 876, kMidFrameBytes = 1128448;
constexpr unsigned long kLargeWidth = 1800, kLargeHeight = 1280, kLargeFrameBytes = 2304000;

// The rows. The image processor knows only the device type, so the fields
// it reads (bTables1103, bShading, nRollBase) are the same in both firmware
// classes of a type (checked below).
inline constexpr ModelProfile kProfiles[] = {
    {.nDeviceType = 0,
     .wProduct = 0,
     .bFromDescriptor = false,
     .wFirmwareLow = 0,
     .wFirmwareHigh = 0,
     .bNewFirmware = false,
     .wDefaultFirmware = 0,
     .bOpenSetsGeometry = false,
     .nRawWidth = kSmallWidth,
     .nRawHeight = kSmallHeight,
     .nFrameBytes = kSmallFrameBytes,
     .nReadsAveraged = 4,
     .eCorrection = kCorrectTables,
     .pszCorrection = "coordinate tables",
     .bTables1103 = false,
     .fContrastFactor = 1.3f,
     .dContrastBase = 1.0,
     .nNeutralContrast = 20,
     .bShading = false,
     .bRolls = true,
     .bSmoothRoll = true,
     .nPreviewBase = 0,
     .nRollBase = 0},
    {.nDeviceType = 3,
     .wProduct = VXD_PRODUCT_0610,
     .bFromDescriptor = true,
     .wFirmwareLow = 0,
     .wFirmwareHigh = kFirmware1004,
     .bNewFirmware = false,
     .wDefaultFirmware = kFirmware1004,
     .bOpenSetsGeometry = false,
     .nRawWidth = kSmallWidth,
     .nRawHeight = kSmallHeight,
     .nFrameBytes = kSmallFrameBytes,
     .nReadsAveraged = 4,
     .eCorrection = kCorrectTables,
     .pszCorrection = "coordinate tables",
     .bTables1103 = false,
     .fContrastFactor = 1.3f,
     .dContrastBase = 1.0,
     .nNeutralContrast = 20,
     .bShading = false,
     .bRolls = true,
     .bSmoothRoll = true,
     .nPreviewBase = 0,
     .nRollBase = 0},
    {.nDeviceType = 4,
     .wProduct = VXD_PRODUCT_0620,
     .bFromDescriptor = true,
     .wFirmwareLow = 0,
     .wFirmwareHigh = kFirmware1004,
     .bNewFirmware = false,
     .wDefaultFirmware = kFirmware1004,
     .bOpenSetsGeometry = false,
     .nRawWidth = kSmallWidth,
     .nRawHeight = kSmallHeight,
     .nFrameBytes = kSmallFrameBytes,
     .nReadsAveraged = 4,
     .eCorrection = kCorrectTables,
     .pszCorrection = "coordinate tables",
     .bTables1103 = false,
     .fContrastFactor = 1.3f,
     .dContrastBase = 1.0,
     .nNeutralContrast = 20,
     .bShading = false,
     .bRolls = false,
     .bSmoothRoll = true,
     .nPreviewBase = 0,
     .nRollBase = 0},
    {.nDeviceType = 5,
     .wProduct = VXD_PRODUCT_0610,
     .bFromDescriptor = true,
     .wFirmwareLow = kFirmware1103,
     .wFirmwareHigh = kFirmware1103,
     .bNewFirmware = false,
     .wDefaultFirmware = kFirmware1103,
     .bOpenSetsGeometry = true,
     .nRawWidth = kMidWidth,
     .nRawHeight = kMidHeight,
     .nFrameBytes = kMidFrameBytes,
     .nReadsAveraged = 1,
     .eCorrection = kCorrectTables,
     .pszCorrection = "coordinate tables 1103, shading",
     .bTables1103 = true,
     .fContrastFactor = 1.55f,
     .dContrastBase = 1.55,
     .nNeutralContrast = 16,
     .bShading = true,
     .bRolls = true,
     .bSmoothRoll = true,
     .nPreviewBase = 0,
     .nRollBase = 0},
    // No firmware makes models 5 and 6 with new firmware (it makes 7 and
    // 8); these rows serve a sensor whose type is set by hand.
    {.nDeviceType = 5,
     .wProduct = VXD_PRODUCT_0610,
     .bFromDescriptor = false,
     .wFirmwareLow = 0,
     .wFirmwareHigh = 0,
     .bNewFirmware = true,
     .wDefaultFirmware = 0,
     .bOpenSetsGeometry = true,
     .nRawWidth = kLargeWidth,
     .nRawHeight = kLargeHeight,
     .nFrameBytes = kLargeFrameBytes,
     .nReadsAveraged = 1,
     .eCorrection = kCorrectTables,
     .pszCorrection = "coordinate tables 1103, shading",
     .bTables1103 = true,
     .fContrastFactor = 1.42f,
     .dContrastBase = 1.55,
     .nNeutralContrast = 16,
     .bShading = true,
     .bRolls = true,
     .bSmoothRoll = true,
     .nPreviewBase = 0,
     .nRollBase = 0},
    {.nDeviceType = 6,
     .wProduct = VXD_PRODUCT_0620,
     .bFromDescriptor = true,
     .wFirmwareLow = kFirmware1103,
     .wFirmwareHigh = kFirmware1103,
     .bNewFirmware = false,
     .wDefaultFirmware = kFirmware1103,
     .bOpenSetsGeometry = true,
     .nRawWidth = kMidWidth,
     .nRawHeight = kMidHeight,
     .nFrameBytes = kMidFrameBytes,
     .nReadsAveraged = 1,
     .eCorrection = kCorrectTables,
     .pszCorrection = "coordinate tables 1103, shading",
     .bTables1103 = true,
     .fContrastFactor = 1.55f,
     .dContrastBase = 1.55,
     .nNeutralContrast = 20,
     .bShading = true,
     .bRolls = false,
     .bSmoothRoll = true,
     .nPreviewBase = 0,
     .nRollBase = 0},
    {.nDeviceType = 6,
     .wProduct = VXD_PRODUCT_0620,
     .bFromDescriptor = false,
     .wFirmwareLow = 0,
     .wFirmwareHigh = 0,
     .bNewFirmware = true,
     .wDefaultFirmware = 0,
     .bOpenSetsGeometry = true,
     .nRawWidth = kLargeWidth,
     .nRawHeight = kLargeHeight,
     .nFrameBytes = kLargeFrameBytes,
     .nReadsAveraged = 1,
     .eCorrection = kCorrectTables,
     .pszCorrection = "coordinate tables 1103, shading",
     .bTables1103 = true,
     .fContrastFactor = 1.42f,
     .dContrastBase = 1.55,
     .nNeutralContrast = 20,
     .bShading = true,
     .bRolls = false,
     .bSmoothRoll = true,
     .nPreviewBase = 0,
     .nRollBase = 0},
    {.nDeviceType = 7,
     .wProduct = VXD_PRODUCT_0610,
     .bFromDescriptor = true,
     .wFirmwareLow = kFirmware1004 + 1,
     .wFirmwareHigh = kLastOldFirmware,
     .bNewFirmware = false,
     .wDefaultFirmware = 0,
     .bOpenSetsGeometry = true,
     .nRawWidth = kMidWidth,
     .nRawHeight = kMidHeight,
     .nFrameBytes = kMidFrameBytes,
     .nReadsAveraged = 1,
     .eCorrection = kCorrectCalc,
     .pszCorrection = "bilinear, 1288 x 876 modify table",
     .bTables1103 = true,
     .fContrastFactor = 2.0f,
     .dContrastBase = 2.0,
     .nNeutralContrast = 20,
     .bShading = false,
     .bRolls = true,
     .bSmoothRoll = false,
     .nPreviewBase = 125,
     .nRollBase = 125},
    {.nDeviceType = 7,
     .wProduct = VXD_PRODUCT_0610,
     .bFromDescriptor = true,
     .wFirmwareLow = kFirstNewFirmware,
     .wFirmwareHigh = 0xFFFF,
     .bNewFirmware = true,
     .wDefaultFirmware = kFirstNewFirmware,
     .bOpenSetsGeometry = true,
     .nRawWidth = kLargeWidth,
     .nRawHeight = kLargeHeight,
     .nFrameBytes = kLargeFrameBytes,
     .nReadsAveraged = 1,
     .eCorrection = kCorrectCalcEx,
     .pszCorrection = "bilinear, 1700 x 1300 modify table",
     .bTables1103 = true,
     .fContrastFactor = 1.42f,
     .dContrastBase = 1.42,
     .nNeutralContrast = 20,
     .bShading = false,
     .bRolls = true,
     .bSmoothRoll = false,
     .nPreviewBase = 180,
     .nRollBase = 125},
    {.nDeviceType = 8,
     .wProduct = VXD_PRODUCT_0620,
     .bFromDescriptor = true,
     .wFirmwareLow = kFirmware1004 + 1,
     .wFirmwareHigh = kLastOldFirmware,
     .bNewFirmware = false,
     .wDefaultFirmware = 0,
     .bOpenSetsGeometry = true,
     .nRawWidth = kMidWidth,
     .nRawHeight = kMidHeight,
     .nFrameBytes = kMidFrameBytes,
     .nReadsAveraged = 1,
     .eCorrection = kCorrectCalc,
     .pszCorrection = "bilinear, 1288 x 876 modify table",
     .bTables1103 = true,
     .fContrastFactor = 2.0f,
     .dContrastBase = 2.0,
     .nNeutralContrast = 20,
     .bShading = false,
     .bRolls = false,
     .bSmoothRoll = true,
     .nPreviewBase = 125,
     .nRollBase = 0},
    {.nDeviceType = 8,
     .wProduct = VXD_PRODUCT_0620,
     .bFromDescriptor = true,
     .wFirmwareLow = kFirstNewFirmware,
     .wFirmwareHigh = 0xFFFF,
     .bNewFirmware = true,
     .wDefaultFirmware = kFirstNewFirmware,
     .bOpenSetsGeometry = true,
     .nRawWidth = kLargeWidth,
     .nRawHeight = kLargeHeight,
     .nFrameBytes = kLargeFrameBytes,
     .nReadsAveraged = 1,
     .eCorrection = kCorrectCalcEx,
     .pszCorrection = "bilinear, 1700 x 1300 modify table",
     .bTables1103 = true,
     .fContrastFactor = 1.42f,
     .dContrastBase = 1.42,
     .nNeutralContrast = 20,
     .bShading = false,
     .bRolls = false,
     .bSmoothRoll = true,
     .nPreviewBase = 180,
     .nRollBase = 0},
};

// A table of rows: the built-in one, or (in a test) one with more rows.
struct ModelTable {
    const ModelProfile* pRows;
    unsigned long nRows;
    constexpr const ModelProfile* begin() const { return pRows; }
    constexpr const ModelProfile* end() const { return pRows + nRows; }
};
inline constexpr ModelTable kBuiltInModels = {kProfiles, sizeof kProfiles / sizeof kProfiles[0]};

// The table the driver library (transport, sensor, image processor) reads:
// kBuiltInModels. It is defined alone in model_profile.cpp, so that a test
// program may define it itself and link the unchanged library with a table
// of one more row. The virtual scanner and the tools read kBuiltInModels.
ModelTable LibraryModels();

// The type a new sensor assumes before it opens a device.
constexpr int kDefaultDeviceType = 4;

// The row of a device type and firmware class; unknown types get the first
// row (the unknown product), types without a row for the class the other one.
constexpr const ModelProfile& ProfileOf(int nDeviceType, bool bNewFirmware, ModelTable table = kBuiltInModels)
{
    const ModelProfile* pAny = nullptr;
    for (const ModelProfile& row : table) {
        if (row.nDeviceType != nDeviceType) continue;
        if (row.bNewFirmware == bNewFirmware) return row;
        pAny = &row;
    }
    return pAny != nullptr ? *pAny : table.pRows[0];
}

constexpr bool IsNewFirmware(int nFirmware) { return nFirmware > kLastOldFirmware; }

// Device type by idProduct and bcdDevice: the row of the product whose
// firmware range holds bcdDevice, the narrowest when several do (0x1103
// inside 0x1005..0x2FFF makes models 5 and 6); 0 for a product or firmware
// no row has.
constexpr int DeviceTypeOf(unsigned short wProduct, unsigned short wBcdDevice, ModelTable table = kBuiltInModels)
{
    // The best row kept by its values: a compared pointer is not constant under UBSan.
    int nType = 0;
    long nBestSpan = 0x10000;
    for (const ModelProfile& row : table) {
        if (!row.bFromDescriptor || row.wProduct != wProduct) continue;
        if (wBcdDevice < row.wFirmwareLow || wBcdDevice > row.wFirmwareHigh) continue;
        const long nSpan = static_cast<long>(row.wFirmwareHigh) - row.wFirmwareLow;
        if (nSpan < nBestSpan) {
            nBestSpan = nSpan;
            nType = row.nDeviceType;
        }
    }
    return nType;
}

// idProduct and default firmware of a model as a virtual unit reports them.
constexpr const ModelProfile& DefaultRowOf(int nModel, ModelTable table = kBuiltInModels)
{
    for (const ModelProfile& row : table) {
        if (row.nDeviceType == nModel && row.wDefaultFirmware != 0) return row;
    }
    return table.pRows[0];
}

// The lowest and highest model a virtual unit can be (rows with a default firmware).
constexpr int FirstModel(ModelTable table = kBuiltInModels)
{
    int n = 0;
    for (const ModelProfile& row : table) {
        if (row.wDefaultFirmware != 0 && (n == 0 || row.nDeviceType < n)) n = row.nDeviceType;
    }
    return n;
}

constexpr int LastModel(ModelTable table = kBuiltInModels)
{
    int n = 0;
    for (const ModelProfile& row : table) {
        if (row.wDefaultFirmware != 0 && row.nDeviceType > n) n = row.nDeviceType;
    }
    return n;
}

// True when the fields the image processor reads agree between the rows of each type.
constexpr bool ImageProcessorFieldsAgree(ModelTable table)
{
    for (const ModelProfile& a : table) {
        for (const ModelProfile& b : table) {
            if (a.nDeviceType != b.nDeviceType) continue;
            if (a.bTables1103 != b.bTables1103 || a.bShading != b.bShading || a.nRollBase != b.nRollBase) return false;
        }
    }
    return true;
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
static_assert(ImageProcessorFieldsAgree(kBuiltInModels), "image processor fields per type");

}  // namespace tavk05profile

#endif
