// The library's version and the texts of its status codes, for hosts.
#include "tavk05/status.h"
#include "tavk05/version.h"

extern "C" const char* Tavk05GetVersion(void) { return TAVK05_VERSION_STRING; }

extern "C" const char* Tavk05StatusText(unsigned long nStatus)
{
    switch (nStatus) {
        case TAVK05_OK:
            return "success";
        case TAVK05_E_CREATE:
            return "the sensor object could not be created";
        case TAVK05_E_FAILED:
            return "operation failed (no device, request failed or memory short)";
        case TAVK05_E_INVALID:
            return "invalid argument";
        case TAVK05_E_UNSUPPORTED:
            return "operation not supported";
        case TAVK05_E_READ:
            return "frame read or device request failed";
        case TAVK05_E_NO_IMAGE:
            return "no image accepted (time limit, host gave up or latent print stayed)";
        case TAVK05_E_NOT_OPEN:
            return "device node not open or could not be opened";
        case TAVK05_E_LATENT:
            return "latent print detected or rolled image below the quality threshold";
        default:
            return "unknown status";
    }
}
