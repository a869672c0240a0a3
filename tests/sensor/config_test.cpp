// The settings file: its exact text, position-based reading with its quirks,
// defaults, and safe replacement.
#include <dirent.h>

#include <memory>

#include "sensor_fixture.h"

namespace {

using sensortest::PathExists;
using sensortest::ReadFile;
using sensortest::SensorTest;
using sensortest::SettingsText;
using sensortest::WriteFile;

class ConfigTest : public SensorTest {
protected:
    std::unique_ptr<COberin> MakeSensor() { return std::unique_ptr<COberin>(new COberin(nullptr)); }

    // Writes the file through a sensor holding these four values.
    void SaveThroughSensor(unsigned long nBrightness, unsigned long nContrast, unsigned long nGain,
                           unsigned long nScanMode)
    {
        std::unique_ptr<COberin> pSensor = MakeSensor();
        pSensor->m_nBrightness = nBrightness;
        pSensor->m_nContrast = nContrast;
        pSensor->m_nGain = nGain;
        pSensor->m_nScanMode = nScanMode;
        pSensor->SaveConfig();
    }

    // Names in the scratch directory that start with the settings file's name
    // and are not it (left-over temporary files).
    std::vector<std::string> StrayFiles()
    {
        std::vector<std::string> vec;
        const std::string strBase = m_strConf.substr(m_strConf.rfind('/') + 1);
        DIR* pDir = ::opendir(m_strDir.c_str());
        if (pDir == nullptr) return vec;
        while (const dirent* pEntry = ::readdir(pDir)) {
            const std::string strName = pEntry->d_name;
            if (strName != strBase && strName.compare(0, strBase.size(), strBase) == 0) vec.push_back(strName);
        }
        ::closedir(pDir);
        return vec;
    }
};

TEST_F(ConfigTest, PathComesFromTheEnvironmentOrDefaultsToEtc)
{
    EXPECT_EQ(std::string(COberin::ConfigPath()), m_strConf);
    ::setenv("TAVK05_CONF", "", 1);
    EXPECT_STREQ(COberin::ConfigPath(), "/etc/tavk05rf.conf");
    ::unsetenv("TAVK05_CONF");
    EXPECT_STREQ(COberin::ConfigPath(), "/etc/tavk05rf.conf");
    ::setenv("TAVK05_CONF", m_strConf.c_str(), 1);
}

TEST_F(ConfigTest, NeverOpenedSensorWritesTheConstructionDefaults)
{
    { std::unique_ptr<COberin> pSensor = MakeSensor(); }
    std::string strText;
    ASSERT_TRUE(ReadFile(m_strConf, &strText));
    EXPECT_EQ(strText,
              "Brightness  =  40\n"
              "Contrast    =  20\n"
              "Gain        =  2\n"
              "ScanMode    =  0\n");
    EXPECT_EQ(strText.size(), 70u);
    EXPECT_TRUE(StrayFiles().empty());
}

TEST_F(ConfigTest, DestructionWritesTheCurrentSettings)
{
    AttachUnits("0:model=5");
    {
        std::unique_ptr<COberin> pSensor = MakeSensor();
        ASSERT_EQ(pSensor->OpenDevice(0, 0), 0ul);
        ASSERT_EQ(pSensor->SetBrightness(63), 0ul);
        ASSERT_EQ(pSensor->SetGainValue(8), 0ul);
        pSensor->WriteData(1, 1);
        pSensor->m_nContrast = 45;
    }
    std::string strText;
    ASSERT_TRUE(ReadFile(m_strConf, &strText));
    EXPECT_EQ(strText, SettingsText(63, 45, 8, 1));
}

TEST_F(ConfigTest, TwoDigitSettingsRoundTrip)
{
    SaveThroughSensor(40, 20, 2, 1);
    std::unique_ptr<COberin> pSensor = MakeSensor();
    pSensor->m_nBrightness = 99;
    pSensor->m_nContrast = 99;
    pSensor->m_nGain = 8;
    pSensor->m_nScanMode = 0;
    pSensor->RetrieveConfig();
    EXPECT_EQ(pSensor->m_nBrightness, 40ul);
    EXPECT_EQ(pSensor->m_nContrast, 20ul);
    EXPECT_EQ(pSensor->m_nGain, 2ul);
    EXPECT_EQ(pSensor->m_nScanMode, 1ul);

    SaveThroughSensor(99, 10, 8, 0);
    pSensor->RetrieveConfig();
    EXPECT_EQ(pSensor->m_nBrightness, 99ul);
    EXPECT_EQ(pSensor->m_nContrast, 10ul);
    EXPECT_EQ(pSensor->m_nGain, 8ul);
    EXPECT_EQ(pSensor->m_nScanMode, 0ul);
}

TEST_F(ConfigTest, OpenLoadsTheFileIntoTheSensor)
{
    AttachUnits("0:model=4");
    WriteFile(m_strConf, SettingsText(71, 33, 4, 1));
    std::unique_ptr<COberin> pSensor = MakeSensor();
    ASSERT_EQ(pSensor->OpenDevice(0, 0), 0ul);
    EXPECT_EQ(pSensor->m_nBrightness, 71ul);
    EXPECT_EQ(pSensor->m_nContrast, 33ul);
    EXPECT_EQ(pSensor->m_nGain, 4ul);
    EXPECT_EQ(pSensor->m_nScanMode, 1ul);
    // Loading only stores the values; nothing is sent until the device is
    // initialised.
    EXPECT_TRUE(sensortest::RequestsOf(0, 5).empty());
}

TEST_F(ConfigTest, OneDigitBrightnessShiftsTheContrastRead)
{
    // Brightness 5 shortens the first line by one byte, so offset 33 falls on
    // the second digit of the contrast.
    SaveThroughSensor(5, 20, 4, 1);
    std::unique_ptr<COberin> pSensor = MakeSensor();
    pSensor->RetrieveConfig();
    EXPECT_EQ(pSensor->m_nBrightness, 5ul);
    EXPECT_EQ(pSensor->m_nContrast, 0ul);
    EXPECT_EQ(pSensor->m_nGain, 4ul);
    EXPECT_EQ(pSensor->m_nScanMode, 1ul);
}

TEST_F(ConfigTest, ThreeDigitValuesLeaveGainAndScanModeAsTheyWere)
{
    // Two extra bytes move the gain and scan-mode reads onto the '=' signs.
    SaveThroughSensor(100, 100, 8, 1);
    std::unique_ptr<COberin> pSensor = MakeSensor();
    pSensor->m_nGain = 4;
    pSensor->m_nScanMode = 0;
    pSensor->RetrieveConfig();
    EXPECT_EQ(pSensor->m_nBrightness, 100ul);
    EXPECT_EQ(pSensor->m_nContrast, 100ul);
    EXPECT_EQ(pSensor->m_nGain, 4ul);
    EXPECT_EQ(pSensor->m_nScanMode, 0ul);
}

TEST_F(ConfigTest, ReadsThatFindNoNumberLeaveTheFields)
{
    std::unique_ptr<COberin> pSensor = MakeSensor();
    pSensor->m_nBrightness = 11;
    pSensor->m_nContrast = 22;
    pSensor->m_nGain = 4;
    pSensor->m_nScanMode = 1;

    WriteFile(m_strConf, "");
    pSensor->RetrieveConfig();
    EXPECT_EQ(pSensor->m_nBrightness, 11ul);
    EXPECT_EQ(pSensor->m_nContrast, 22ul);
    EXPECT_EQ(pSensor->m_nGain, 4ul);
    EXPECT_EQ(pSensor->m_nScanMode, 1ul);

    // Only the first value present: the later reads run past the end.
    WriteFile(m_strConf, "Brightness  =  57\n");
    pSensor->RetrieveConfig();
    EXPECT_EQ(pSensor->m_nBrightness, 57ul);
    EXPECT_EQ(pSensor->m_nContrast, 22ul);
    EXPECT_EQ(pSensor->m_nGain, 4ul);
    EXPECT_EQ(pSensor->m_nScanMode, 1ul);
}

TEST_F(ConfigTest, MissingFileGivesTheFileDefaultsNotTheConstructionOnes)
{
    AttachUnits("0:model=7,fw=0x3000");
    std::unique_ptr<COberin> pSensor = MakeSensor();
    EXPECT_EQ(pSensor->m_nGain, 2ul);
    pSensor->m_nBrightness = 90;
    pSensor->m_nContrast = 90;
    pSensor->m_nScanMode = 1;
    ASSERT_FALSE(PathExists(m_strConf));
    ASSERT_EQ(pSensor->OpenDevice(0, 0), 0ul);
    EXPECT_EQ(pSensor->m_nBrightness, 40ul);
    EXPECT_EQ(pSensor->m_nContrast, 20ul);
    EXPECT_EQ(pSensor->m_nGain, 1ul);
    EXPECT_EQ(pSensor->m_nScanMode, 0ul);
    ISensor::tagDeviceInfoParam info = {};
    pSensor->GetDeviceInfo(&info);
    EXPECT_EQ(info.Gain, 1u);
}

TEST_F(ConfigTest, SavingReplacesALongerFileWholeAndKeepsItsPermissions)
{
    WriteFile(m_strConf, std::string(300, 'x') + "\n");
    ASSERT_EQ(::chmod(m_strConf.c_str(), 0606), 0);
    SaveThroughSensor(42, 24, 1, 0);
    std::string strText;
    ASSERT_TRUE(ReadFile(m_strConf, &strText));
    EXPECT_EQ(strText, SettingsText(42, 24, 1, 0));
    EXPECT_TRUE(StrayFiles().empty());
    struct stat st;
    ASSERT_EQ(::stat(m_strConf.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0606u);
}

TEST_F(ConfigTest, UnwritableLocationsAreSkippedSilently)
{
    // A directory that does not exist.
    const std::string strMissing = m_strDir + "/no-such-dir-" + std::to_string(::getpid()) + "/tavk05.conf";
    ::setenv("TAVK05_CONF", strMissing.c_str(), 1);
    SaveThroughSensor(40, 20, 2, 0);
    { std::unique_ptr<COberin> pSensor = MakeSensor(); }
    EXPECT_FALSE(PathExists(strMissing));

    // A directory where the file should be: it stays a directory and no
    // temporary file is left beside it.
    ::setenv("TAVK05_CONF", m_strConf.c_str(), 1);
    ASSERT_EQ(::mkdir(m_strConf.c_str(), 0755), 0);
    { std::unique_ptr<COberin> pSensor = MakeSensor(); }
    struct stat st;
    ASSERT_EQ(::stat(m_strConf.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_TRUE(StrayFiles().empty());
    // Reading from it finds no number and changes nothing.
    std::unique_ptr<COberin> pSensor = MakeSensor();
    pSensor->m_nGain = 8;
    pSensor->RetrieveConfig();
    EXPECT_EQ(pSensor->m_nGain, 8ul);
    pSensor.reset();
    EXPECT_EQ(::rmdir(m_strConf.c_str()), 0);
}

}  // namespace
