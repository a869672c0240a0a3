// tavk05 info: what the device is and how the driver will read it.
#include <cctype>
#include <cstdio>

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
    const int nId = sensor.m_pVxd->DevIoCtlGetDevID(abyId, &nLen);
    if (nId == 0) {
        std::printf("device ID     %s\n", PrintableId(abyId, nLen).c_str());
    } else {
        std::printf("device ID     (request failed: %d)\n", nId);
    }
    return EXIT_OK;
}

int CmdConfig(const Options& opt)
{
    if (opt.vecArgs.size() != 1 || opt.vecArgs[0] != "show") {
        return Usage("usage: tavk05 config show");
    }
    std::FILE* pFile = std::fopen(COberin::ConfigPath(), "r");
    if (pFile == nullptr) {
        std::printf("%s: not present; the driver uses brightness 40, contrast 20, gain 1, scan mode 0\n",
                    COberin::ConfigPath());
        return EXIT_OK;
    }
    std::printf("%s:\n", COberin::ConfigPath());
    char szLine[256];
    while (std::fgets(szLine, sizeof szLine, pFile) != nullptr) {
        std::fputs(szLine, stdout);
    }
    std::fclose(pFile);
    return EXIT_OK;
}

}  // namespace cli
