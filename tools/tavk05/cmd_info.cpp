// tavk05 info: what the device is and how the driver will read it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "cli.h"
#include "profile/model_profile.h"
#include "guardedpath/guarded_path.h"

namespace cli {

namespace {

const char* CorrectionName(const COberin& sensor)
{
    const bool bNewFirmware =
        sensor.m_pVxd != nullptr && tavk05profile::IsNewFirmware(sensor.m_pVxd->GetFirmwareVersion());
    return tavk05profile::ProfileOf(sensor.m_nDeviceType, bNewFirmware).pszCorrection;
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

int CmdList(const Options&)
{
    ISensor* pSensor = nullptr;
    if (CreateISensor(nullptr, &pSensor) != 0 || pSensor == nullptr) return Fail("CreateISensor", TAVK05_E_CREATE);
    COberin& sensor = *static_cast<COberin*>(pSensor);
    // The sensor writes the settings file when destroyed: it holds the
    // file's own values, so listing never changes them.
    if (access(COberin::ConfigPath(), F_OK) == 0) sensor.RetrieveConfig();
    int nFound = 0;
    for (unsigned long nIndex = 0; nIndex <= 7; ++nIndex) {
        if (Traced("OpenDevice", sensor.OpenDevice(nIndex, 0)) != TAVK05_OK) continue;
        if (nFound++ == 0) std::printf("%-14s %-5s %-9s %s\n", "device", "type", "firmware", "device ID");
        unsigned char abyId[64] = {};
        unsigned long nLen = 0;
        const bool bId =
            sensor.DevIoControl(TAVK05_IOCTL_GET_DEVICE_ID, nullptr, 0, abyId, sizeof abyId, &nLen) == TAVK05_OK;
        std::printf("/dev/tavk05%-3lu %-5lu 0x%04X    %s\n", nIndex, sensor.GetDeviceType(),
                    static_cast<unsigned>(sensor.m_pVxd->GetFirmwareVersion()),
                    bId ? PrintableId(abyId, nLen).c_str() : "(not available)");
        sensor.CloseDevice();
    }
    DestroyISensor(pSensor);
    if (nFound == 0) {
        std::fprintf(stderr, "tavk05: no scanner found at /dev/tavk050 to /dev/tavk057\n");
        return EXIT_DEVICE;
    }
    return EXIT_OK;
}

int CmdInfo(const Options& opt)
{
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
    const unsigned long nId = Traced("DevIoControl(device ID)", sensor.DevIoControl(TAVK05_IOCTL_GET_DEVICE_ID, nullptr,
                                                                                    0, abyId, sizeof abyId, &nLen));
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

// Reads the start of a regular file as the driver reaches it (no link of
// another user followed) and never waits on a FIFO or device: the bytes
// read, -1 when the path cannot be opened, -2 when it is not a regular file,
// -3 when it lies behind a link that is not followed (*pstrLink names it).
long ReadFileStart(const std::string& strPath, char* pBuf, size_t nSize, long long* pnFileSize,
                   std::string* pstrLink = nullptr)
{
    tavk05path::CResolved path;
    const int nReach = tavk05path::Resolve(strPath.c_str(), tavk05path::kKernelRule, true, &path);
    if (nReach == tavk05path::kLinkRefused && pstrLink != nullptr) *pstrLink = path.m_strRefused;
    if (nReach != 0) return nReach == tavk05path::kLinkRefused ? -3 : -1;
    const int hFile =
        openat(path.m_nDirFd, path.m_strName.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC);
    if (hFile < 0) return -1;
    struct stat st;
    long nRead = -2;
    if (fstat(hFile, &st) == 0 && S_ISREG(st.st_mode)) {
        nRead = std::max<long>(0, read(hFile, pBuf, nSize));
        *pnFileSize = st.st_size;
    }
    close(hFile);
    return nRead;
}

int ConfigShow()
{
    // Shown as the driver sees it: only a regular file, only its start (a
    // huge file must not flood the terminal).
    const std::string strPath = COberin::ConfigPath();
    char szText[512];
    long long nFileSize = 0;
    const long nRead = ReadFileStart(strPath, szText, sizeof szText, &nFileSize);
    if (nRead == -1) {
        std::printf("%s: not present\n", strPath.c_str());
    } else if (nRead == -3) {
        std::printf("%s: behind a symbolic link another user planted; not followed\n", strPath.c_str());
    } else if (nRead == -2) {
        std::printf("%s: not a regular file\n", strPath.c_str());
    } else {
        std::printf("%s:\n", strPath.c_str());
        std::fwrite(szText, 1, static_cast<size_t>(nRead), stdout);
        if (nFileSize > static_cast<long long>(sizeof szText)) std::printf("\n[... %lld bytes in all]\n", nFileSize);
    }
    ConfigSensor sensor;
    std::printf("the driver reads: brightness %lu, contrast %lu, gain %lu, scan mode %lu\n", sensor->m_nBrightness,
                sensor->m_nContrast, sensor->m_nGain, sensor->m_nScanMode);
    sensor.DiscardOnClose();
    sensor.Finish();
    return EXIT_OK;
}

// The file text the sensor writes for these values.
std::string SettingsText(const COberin& sensor)
{
    char szText[160];
    std::snprintf(szText, sizeof szText, "Brightness  =  %d\nContrast    =  %d\nGain        =  %d\nScanMode    =  %d\n",
                  static_cast<int>(sensor.m_nBrightness), static_cast<int>(sensor.m_nContrast),
                  static_cast<int>(sensor.m_nGain), static_cast<int>(sensor.m_nScanMode));
    return szText;
}

int ConfigSet(const std::vector<std::string>& vecArgs)
{
    if (vecArgs.empty()) {
        return Usage("config set needs KEY=N: brightness=0..100, contrast=0..100, gain=1|2|4|8, scanmode=0");
    }
    ConfigSensor sensor;
    // Nothing is written unless every argument is good.
    auto Refuse = [&sensor](const std::string& strMessage) {
        sensor.DiscardOnClose();
        return Usage(strMessage);
    };
    for (const std::string& strArg : vecArgs) {
        const size_t nEq = strArg.find('=');
        const std::string strKey = strArg.substr(0, nEq);
        const std::string strValue = nEq == std::string::npos ? "" : strArg.substr(nEq + 1);
        long nValue = 0;
        // Without an open device a value is stored and 2 reported, so only
        // the range matters here.
        if (strKey == "brightness" || strKey == "contrast") {
            if (!ParseLong(strValue, 0, 100, &nValue)) {
                return Refuse("config set: " + strKey + " must be 0..100, not '" + strValue + "'");
            }
            if (strKey == "brightness") {
                sensor->SetBrightnessEx(nValue);
            } else {
                sensor->SetContrast(nValue);
            }
        } else if (strKey == "gain") {
            if (!ParseLong(strValue, 1, 8, &nValue) || (nValue != 1 && nValue != 2 && nValue != 4 && nValue != 8)) {
                return Refuse("config set: gain must be 1, 2, 4 or 8, not '" + strValue + "'");
            }
            sensor->SetGainValueEx(nValue);
        } else if (strKey == "scanmode") {
            if (strValue == "1") {
                return Refuse(
                    "config set: scanmode 1 (adaptive capture) is not provided by this driver; "
                    "every capture would fail with status 4. Use scanmode=0");
            }
            if (!ParseLong(strValue, 0, 0, &nValue))
                return Refuse("config set: scanmode must be 0, not '" + strValue + "'");
            sensor->WriteData(1, nValue);
        } else {
            return Refuse("config set: unknown key '" + strKey + "' (brightness, contrast, gain, scanmode)");
        }
    }
    const std::string strWanted = SettingsText(*sensor.operator->());
    sensor.Finish();
    // The sensor reports nothing when it cannot write the file: read it back.
    const std::string strPath = COberin::ConfigPath();
    char szBuf[256];
    long long nFileSize = 0;
    std::string strLink;
    const long nRead = ReadFileStart(strPath, szBuf, sizeof szBuf, &nFileSize, &strLink);
    const std::string strHave(szBuf, static_cast<size_t>(std::max(0L, nRead)));
    if (nRead == -3) {
        std::fprintf(stderr,
                     "tavk05: the settings file %s was not written: %s is a symbolic link in a sticky, "
                     "world-writable directory, owned neither by you nor by the directory's owner, so it "
                     "is not followed; the settings are unchanged\n",
                     strPath.c_str(), strLink.c_str());
        return EXIT_IO;
    }
    if (strHave != strWanted) {
        std::fprintf(stderr,
                     "tavk05: the settings file %s could not be written (not a regular file, or no "
                     "permission); the settings are unchanged\n",
                     strPath.c_str());
        return EXIT_IO;
    }
    std::printf("%s:\n%s", strPath.c_str(), strWanted.c_str());
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
