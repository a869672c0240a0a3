// Status texts, error reporting and the sensor session of the tavk05 command.
#include "cli.h"

#include "imagefile/png_grey.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace cli {

const char* StatusText(unsigned long nStatus)
{
    return Tavk05StatusText(nStatus);
}

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
        std::fprintf(stderr, "tavk05: %s does not exist: is the scanner plugged in and its kernel driver "
                             "loaded? ('tavk05 --virtual' uses the virtual scanner)\n", pszNode);
    } else if (access(pszNode, R_OK) != 0) {
        std::fprintf(stderr, "tavk05: %s: %s: the scanner's udev rule gives the node to the user at the seat "
                             "and to the plugdev group (add yourself with 'adduser $USER plugdev', then log in "
                             "again)\n", pszNode, std::strerror(errno));
    } else {
        std::fprintf(stderr, "tavk05: %s exists and is readable, but the driver could not open it: is another "
                             "program using the scanner?\n", pszNode);
    }
}

bool OutputWritable(const std::string& strPath)
{
    std::string strError;
    if (tavk05png::CheckTarget(strPath, &strError)) return true;
    std::fprintf(stderr, "tavk05: cannot write %s\n", strError.c_str());
    return false;
}

bool SavePng(const std::string& strPath, const unsigned char* pImage)
{
    std::string strError;
    if (tavk05png::WriteGrey(strPath, pImage, IMG_WIDTH, IMG_HEIGHT, &strError)) return true;
    std::fprintf(stderr, "tavk05: cannot write %s\n", strError.c_str());
    return false;
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

}  // namespace cli
