// A model is added by one row of the model profile: this program links the
// unchanged library with the built-in table plus a made-up model 9 (a new
// product with the small sensor of models 3 and 4) and captures through it.
#include <array>

#include "golden_image.h"
#include "profile/model_profile.h"
#include "tavk05/oberin.h"
#include "virtual_unit_test.h"

namespace {

using tavk05profile::ModelProfile;

constexpr unsigned short kNewProduct = 0x0630;

constexpr ModelProfile kModel9 = {.nDeviceType = 9,
                                  .wProduct = kNewProduct,
                                  .bFromDescriptor = true,
                                  .wFirmwareLow = 0,
                                  .wFirmwareHigh = 0xFFFF,
                                  .bNewFirmware = false,
                                  .wDefaultFirmware = 0,
                                  .bOpenSetsGeometry = true,
                                  .nRawWidth = tavk05profile::kSmallWidth,
                                  .nRawHeight = tavk05profile::kSmallHeight,
                                  .nFrameBytes = tavk05profile::kSmallFrameBytes,
                                  .nReadsAveraged = 4,
                                  .eCorrection = tavk05profile::kCorrectTables,
                                  .pszCorrection = "coordinate tables",
                                  .bTables1103 = false,
                                  .fContrastFactor = 1.3f,
                                  .dContrastBase = 1.0,
                                  .nNeutralContrast = 20,
                                  .bShading = false,
                                  .bRolls = false,
                                  .bSmoothRoll = true,
                                  .nPreviewBase = 0,
                                  .nRollBase = 0};

constexpr std::size_t kBuiltIn = sizeof tavk05profile::kProfiles / sizeof tavk05profile::kProfiles[0];

constexpr std::array<ModelProfile, kBuiltIn + 1> WithModel9()
{
    std::array<ModelProfile, kBuiltIn + 1> rows{};
    for (std::size_t i = 0; i < kBuiltIn; ++i) rows[i] = tavk05profile::kProfiles[i];
    rows[kBuiltIn] = kModel9;
    return rows;
}

constexpr std::array<ModelProfile, kBuiltIn + 1> kRows = WithModel9();

}  // namespace

// The table the library reads in this program.
tavk05profile::ModelTable tavk05profile::LibraryModels() { return {kRows.data(), kRows.size()}; }

namespace {

class MadeUpModelTest : public VirtualUnitTest {};

// The built-in table does not know the product; the library, reading the
// table with model 9, reports type 9, refuses roll mode as the row says
// (an unknown product's row would roll) and captures the print exactly as
// models 3 and 4 do.
TEST_F(MadeUpModelTest, CapturesThroughTheNewRow)
{
    EXPECT_EQ(tavk05profile::DeviceTypeOf(kNewProduct, 0x1004), 0);
    EXPECT_EQ(tavk05profile::DeviceTypeOf(kNewProduct, 0x1004, tavk05profile::LibraryModels()), 9);
    AttachUnits("0:product=0x0630,fw=0x1004,scene=flat,fps=0," + goldentest::PrintKey());
    COberin sensor(nullptr);
    ASSERT_EQ(sensor.OpenDevice(0, 0), 0ul);
    EXPECT_EQ(sensor.GetDeviceType(), 9ul);
    sensor.WriteData(155, 1);
    EXPECT_EQ(sensor.m_nRollMode, 0);
    ASSERT_EQ(sensor.SetImageSize(248, 292), 0ul);
    std::vector<unsigned char> image(IMG_PIXELS);
    const unsigned long nReads = State(0).nReads;
    ASSERT_EQ(sensor.GetImage(image.data()), 0ul);
    EXPECT_EQ(State(0).nReads - nReads, 4u);
    EXPECT_TRUE(goldentest::MatchesGolden(image, "capture-tables"));
}

}  // namespace
