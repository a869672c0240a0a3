// tavk05 info: what the device is and how the driver will read it.
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "cli.h"

namespace cli {

namespace {

const char* CorrectionName(const COberin& sensor)
{
    const bool bNewFirmware = sensor.m_pVxd != nullptr && sensor.m_pVxd->GetFirmwareVersion() > 0x2FFF;
    switch (sensor.m_nDeviceType) {
    case 7:
    case 8:
        return bNewFirmware ? "bilinear, 1700 x 1300 modify table" : "bilinear, 1288 x 876 modify table";
    case 5:
    case 6:
        return "coordinate tables 1103, shading";
    default:
        return "coordinate tables";
    }
}

// The printable part of the 64-byte device-ID block.
std::string PrintableId(const unsigned char* pBlock, unsigned long nLen)
{
    std::string str;
    for (unsigned long i = 0; i < nLen && pBlock[i] != 0; ++i) {
        str += std::isprint(pBlock[i]) ? static_cast<char>(pBlock[i]) : '.';
    }
    return str;
}

}  // namespace

int CmdInfo(const Options& opt)
{
    if (!opt.vecArgs.empty()) {
        return Usage("info takes no arguments");
    }
    Session session;
    if (!session.Open(opt.nDevice)) {
        return EXIT_DEVICE;
    }
    COberin& sensor = *session.Get();
    ISensor::tagDeviceInfoParam info = {};
    sensor.GetDeviceInfo(&info);

    std::printf("device        /dev/tavk05%lu\n", opt.nDevice);
    std::printf("type          %lu%s\n", sensor.GetDeviceType(),
                sensor.GetDeviceType() == 0 ? " (unrecognised product)" : "");
    std::printf("firmware      0x%04X\n", static_cast<unsigned>(sensor.m_pVxd->GetFirmwareVersion()));
    std::printf("raw frame     %lu x %lu mosaic, %lu bytes a read\n", sensor.m_nRawWidth, sensor.m_nRawHeight,
                sensor.m_nFrameBytes);
    std::printf("correction    %s\n", CorrectionName(sensor));
    std::printf("image         600 x 600 (marks for %u x %u)\n", info.ImageWidth, info.ImageHeight);
    std::printf("brightness    %u\n", info.Brightness);
    std::printf("contrast      %u (factor %.2f)\n", info.Contrast, static_cast<double>(sensor.m_fContrastFactor));
    std::printf("gain          %u\n", info.Gain);
    std::printf("scan mode     %lu\n", sensor.m_nScanMode);
    std::printf("settings      %s\n", COberin::ConfigPath());

    unsigned char abyId[64] = {};
    unsigned long nLen = 0;
    const unsigned long nId =
        sensor.DevIoControl(TAVK05_IOCTL_GET_DEVICE_ID, nullptr, 0, abyId, sizeof abyId, &nLen);
    if (nId == TAVK05_OK) {
        std::printf("device ID     %s\n", PrintableId(abyId, nLen).c_str());
    } else {
        std::printf("device ID     not available: status %lu (%s)\n", nId, StatusText(nId));
    }
    return EXIT_OK;
}

namespace {

// A sensor object that is never opened: it loads and saves the settings file
// exactly as the driver does.
class ConfigSensor {
public:
    ConfigSensor() : m_pSensor(new COberin(nullptr)) { m_pSensor->RetrieveConfig(); }
    ~ConfigSensor() { Finish(); }
    COberin* operator->() const { return m_pSensor; }

    // For read-only use: the destructor's write goes to a scratch file instead.
    void DiscardOnClose()
    {
        char szPath[] = "/tmp/tavk05-config-XXXXXX";
        const int hFile = mkstemp(szPath);
        if (hFile >= 0) {
            close(hFile);
            m_strScratch = szPath;
            setenv("TAVK05_CONF", szPath, 1);
        }
    }
    // Destroys the sensor, which writes the settings file.
    void Finish()
    {
        delete m_pSensor;
        m_pSensor = nullptr;
        if (!m_strScratch.empty()) unlink(m_strScratch.c_str());
    }

private:
    COberin* m_pSensor;
    std::string m_strScratch;
};

int ConfigShow()
{
    const std::string strPath = COberin::ConfigPath();
    std::FILE* pFile = std::fopen(strPath.c_str(), "r");
    if (pFile == nullptr) {
        std::printf("%s: not present\n", strPath.c_str());
    } else {
        std::printf("%s:\n", strPath.c_str());
        char szLine[256];
        while (std::fgets(szLine, sizeof szLine, pFile) != nullptr) std::fputs(szLine, stdout);
        std::fclose(pFile);
    }
    ConfigSensor sensor;
    std::printf("the driver reads: brightness %lu, contrast %lu, gain %lu, scan mode %lu\n",
                sensor->m_nBrightness, sensor->m_nContrast, sensor->m_nGain, sensor->m_nScanMode);
    sensor.DiscardOnClose();
    sensor.Finish();
    return EXIT_OK;
}

int ConfigSet(const std::vector<std::string>& vecArgs)
{
    if (vecArgs.empty()) return Usage("config set needs KEY=N (brightness, contrast, gain, scanmode)");
    ConfigSensor sensor;
    // Nothing is written unless every argument is good.
    auto Refuse = [&sensor](const std::string& strMessage) {
        sensor.DiscardOnClose();
        return Usage(strMessage);
    };
    for (const std::string& strArg : vecArgs) {
        const size_t nEq = strArg.find('=');
        const std::string strKey = strArg.substr(0, nEq);
        long nValue = 0;
        if (nEq == std::string::npos || !ParseLong(strArg.substr(nEq + 1), 0, 100, &nValue)) {
            return Refuse("config set: '" + strArg + "' is not KEY=N with N in 0..100");
        }
        // Without an open device a value is stored and 2 reported, so only
        // the range matters here.
        if (strKey == "brightness") {
            sensor->SetBrightnessEx(nValue);
        } else if (strKey == "contrast") {
            sensor->SetContrast(nValue);
        } else if (strKey == "gain") {
            if (nValue != 1 && nValue != 2 && nValue != 4 && nValue != 8) {
                return Refuse("config set: gain is 1, 2, 4 or 8");
            }
            sensor->SetGainValueEx(nValue);
        } else if (strKey == "scanmode") {
            if (nValue > 1) return Refuse("config set: scanmode is 0 (normal) or 1 (adaptive)");
            sensor->WriteData(1, nValue);
        } else {
            return Refuse("config set: unknown key '" + strKey + "'");
        }
    }
    std::printf("%s: brightness %lu, contrast %lu, gain %lu, scan mode %lu\n", COberin::ConfigPath(),
                sensor->m_nBrightness, sensor->m_nContrast, sensor->m_nGain, sensor->m_nScanMode);
    sensor.Finish();
    return EXIT_OK;
}

}  // namespace

int CmdConfig(const Options& opt)
{
    if (!opt.vecArgs.empty() && opt.vecArgs[0] == "show" && opt.vecArgs.size() == 1) return ConfigShow();
    if (!opt.vecArgs.empty() && opt.vecArgs[0] == "set") {
        return ConfigSet(std::vector<std::string>(opt.vecArgs.begin() + 1, opt.vecArgs.end()));
    }
    return Usage("usage: tavk05 config show | tavk05 config set KEY=N ...");
}

}  // namespace cli
