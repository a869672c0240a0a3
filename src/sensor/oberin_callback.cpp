// Registration of the host callback that the capture loops call.
#include "tavk05/oberin.h"

namespace {

const unsigned long kCallbackTypeFirst = 1;
const unsigned long kCallbackTypeSecond = 2;

}  // namespace

// The context is taken for every type; the function only for types 1 and 2
// (a null function removes the callback). The last status is left as it was.
unsigned long COberin::SetCallBackFunction(unsigned long nType, PFN_CALLBACK pfnCallback, void* pContext)
{
    m_pCallbackContext = pContext;
    if (nType != kCallbackTypeFirst && nType != kCallbackTypeSecond) {
        return TAVK05_E_FAILED;
    }
    m_pfnCallback = pfnCallback;
    return TAVK05_OK;
}
