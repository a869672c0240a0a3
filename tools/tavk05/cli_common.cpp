// Status texts, error reporting and the sensor session of the tavk05 command.
#include "cli.h"

#include <cstdio>

namespace cli {

const char* StatusText(unsigned long nStatus)
{
    switch (nStatus) {
    case TAVK05_OK: return "success";
    case TAVK05_E_CREATE: return "the sensor object could not be created";
    case TAVK05_E_FAILED: return "operation failed (no device, request failed or memory short)";
    case TAVK05_E_INVALID: return "invalid argument";
    case TAVK05_E_UNSUPPORTED: return "operation not supported";
    case TAVK05_E_READ: return "frame read or device request failed";
    case TAVK05_E_NO_IMAGE: return "no image accepted (time limit, host gave up or latent print stayed)";
    case TAVK05_E_NOT_OPEN: return "device node not open or could not be opened";
    case TAVK05_E_LATENT: return "latent print detected or rolled image below the quality threshold";
    default: return "unknown status";
    }
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
    const unsigned long nStatus = m_pSensor->OpenDevice(nIndex, 0);
    if (nStatus != TAVK05_OK) {
        char szWhat[64];
        std::snprintf(szWhat, sizeof szWhat, "opening /dev/tavk05%lu", nIndex);
        Fail(szWhat, nStatus);
        return false;
    }
    return true;
}

}  // namespace cli
