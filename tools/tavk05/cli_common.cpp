// Status texts, error reporting and the sensor session of the tavk05 command.
#include "cli.h"

#include "imagefile/png_grey.h"
#include "profile/model_profile.h"
#include "tavk05/virtual.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace cli {

const char* StatusText(unsigned long nStatus) { return Tavk05StatusText(nStatus); }

bool g_bVerbose = false;

unsigned long Traced(const char* pszCall, unsigned long nStatus)
{
    if (g_bVerbose) std::fprintf(stderr, "tavk05: %s = %lu (%s)\n", pszCall, nStatus, StatusText(nStatus));
    return nStatus;
}

int Fail(const char* pszWhat, unsigned long nStatus)
{
    std::fprintf(stderr, "tavk05: %s failed: status %lu (%s)\n", pszWhat, nStatus, StatusText(nStatus));
    return EXIT_DEVICE;
}

int Usage(const std::string& strMessage)
{
    std::fprintf(stderr, "tavk05: %s\nTry 'tavk05 --help'.\n", strMessage.c_str());
    return EXIT_USAGE;
}

// Says why a device node could not be opened, as the system sees it, and
// what usually helps.
void ExplainOpenFailure(const char* pszNode)
{
    if (access(pszNode, F_OK) != 0) {
        std::fprintf(stderr,
                     "tavk05: %s does not exist: is the scanner plugged in and its kernel driver "
                     "loaded? ('tavk05 --virtual' uses the virtual scanner)\n",
                     pszNode);
    } else if (access(pszNode, R_OK) != 0) {
        std::fprintf(stderr,
                     "tavk05: %s: %s: the scanner's udev rule gives the node to the user at the seat "
                     "and to the plugdev group (add yourself with 'adduser $USER plugdev', then log in "
                     "again)\n",
                     pszNode, std::strerror(errno));
    } else {
        std::fprintf(stderr,
                     "tavk05: %s exists and is readable, but the driver could not open it: is another "
                     "program using the scanner?\n",
                     pszNode);
    }
}

bool OutputWritable(const std::string& strPath)
{
    std::string strError;
    if (tavk05png::CheckTarget(strPath, &strError)) return true;
    std::fprintf(stderr, "tavk05: cannot write %s\n", strError.c_str());
    return false;
}

namespace {

// The first row is also the format of standard output ("-").
const ImageWriter kWriters[] = {
    {".png", "PNG, 8-bit grey, 500 ppi", WritePngImage},
    {".wsq", "WSQ, FBI WSQ 3.1", WriteWsqImage},
    {".fir", "ISO/IEC 19794-4 finger image record", WriteIsoImage},
    {".an2", "ANSI/NIST-ITL 1-2011 transaction, Type-1 and Type-14", WriteNistImage},
};

// The virtual scanner's API when it is loaded (preloaded by --virtual, or by
// the user), else null.
const tavk05virt::Api* VirtualApi()
{
    using GetApi = const tavk05virt::Api* (*)();
    const auto pfnGet = reinterpret_cast<GetApi>(dlsym(RTLD_DEFAULT, "Tavk05VirtualApi"));
    const tavk05virt::Api* pApi = pfnGet != nullptr ? pfnGet() : nullptr;
    return pApi != nullptr && pApi->nVersion >= 1 ? pApi : nullptr;
}

}  // namespace

const ImageWriter* FindWriter(const std::string& strPath)
{
    if (strPath == "-") return &kWriters[0];
    const size_t nDot = strPath.rfind('.');
    if (nDot == std::string::npos || strPath.find('/', nDot) != std::string::npos) return nullptr;
    std::string strExtension = strPath.substr(nDot);
    for (char& ch : strExtension) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    for (const ImageWriter& writer : kWriters) {
        if (strExtension == writer.pszExtension) return &writer;
    }
    return nullptr;
}

std::string WriterList()
{
    std::string str;
    const size_t nCount = sizeof kWriters / sizeof kWriters[0];
    for (size_t i = 0; i < nCount; ++i) {
        str += std::string(i == 0 ? "" : i + 1 == nCount ? " or " : ", ") + kWriters[i].pszExtension;
    }
    return str;
}

bool SaveImage(const std::string& strPath, const unsigned char* pImage, const ImageFacts& facts)
{
    std::string strError;
    const ImageWriter* pWriter = FindWriter(strPath);
    if (pWriter != nullptr && pWriter->pfnWrite(strPath, pImage, IMG_WIDTH, IMG_HEIGHT, facts, &strError)) return true;
    std::fprintf(stderr, "tavk05: cannot write %s\n", pWriter != nullptr ? strError.c_str() : strPath.c_str());
    return false;
}

bool AskPerson(unsigned long nDevice, PersonAsk eAsk)
{
    const tavk05virt::Api* pApi = VirtualApi();
    if (pApi == nullptr) return false;
    const int nIndex = static_cast<int>(nDevice);
    return eAsk == kAskLift    ? pApi->pfnLift(nIndex)
           : eAsk == kAskPlace ? pApi->pfnPlace(nIndex)
                               : pApi->pfnRoll(nIndex);
}

int AttachVirtualUnits(const std::string& strUnits)
{
    const tavk05virt::Api* pApi = VirtualApi();
    if (pApi == nullptr) {
        std::fprintf(stderr, "tavk05: the virtual scanner did not load (LD_PRELOAD=%s)\n",
                     std::getenv("LD_PRELOAD") != nullptr ? std::getenv("LD_PRELOAD") : "");
        return EXIT_IO;
    }
    std::string strError;
    if (!pApi->pfnAttach(strUnits, &strError)) return Usage("--virtual='" + strUnits + "': " + strError);
    return EXIT_OK;
}

Session::Session() = default;

Session::~Session()
{
    if (m_pSensor != nullptr) {
        DestroyISensor(m_pSensor);
    }
}

bool Session::Open(unsigned long nIndex)
{
    ISensor* pSensor = nullptr;
    const int nCreate = CreateISensor(nullptr, &pSensor);
    if (nCreate != 0 || pSensor == nullptr) {
        Fail("CreateISensor", TAVK05_E_CREATE);
        return false;
    }
    m_pSensor = static_cast<COberin*>(pSensor);
    const unsigned long nStatus = Traced("OpenDevice", m_pSensor->OpenDevice(nIndex, 0));
    if (nStatus != TAVK05_OK) {
        // The sensor writes its settings when it is destroyed; a sensor that
        // never opened holds construction values, so it is given the file's
        // own first: a failed open never changes the technician's settings.
        if (access(COberin::ConfigPath(), F_OK) == 0) m_pSensor->RetrieveConfig();
        char szWhat[64];
        std::snprintf(szWhat, sizeof szWhat, "opening /dev/tavk05%lu", nIndex);
        Fail(szWhat, nStatus);
        ExplainOpenFailure(szWhat + 8);
        return false;
    }
    return true;
}

long DefaultLiveThreshold(unsigned long nDeviceType, bool bRoll)
{
    const bool bPlainPreview = tavk05profile::ProfileOf(static_cast<int>(nDeviceType), false).bShading;
    return bRoll || bPlainPreview ? 20 : 40;
}

}  // namespace cli
