// Factory of sensor objects and the registry of those alive.
#include <new>

#include "sensor/isensor_registry.h"
#include "tavk05/oberin.h"

ISensor* g_pSaveISensor[ISENSOR_REGISTRY_SIZE] = {};
int g_nCntISensor = 0;

extern "C" int CreateISensor(ISensor::tagCreateParam* pParam, ISensor** ppSensor)
{
    if (ppSensor == nullptr) {
        return TAVK05_E_CREATE;
    }
    // Nothing may escape across the C boundary: an allocation failure of the
    // object (or of anything its constructor allocates with throwing new)
    // becomes result 1 with no object.
    ISensor* pSensor = nullptr;
    try {
        pSensor = new COberin(pParam);
    } catch (const std::bad_alloc&) {
        pSensor = nullptr;
    } catch (...) {
        pSensor = nullptr;
    }
    *ppSensor = pSensor;
    if (pSensor == nullptr) {
        return TAVK05_E_CREATE;
    }
    if (g_nCntISensor < 0 || g_nCntISensor >= ISENSOR_REGISTRY_SIZE) {
        // The registry is full: the new object is refused rather than kept
        // unregistered or written past the last entry. Its destructor writes
        // the settings file, which only repeats what the others will write.
        delete pSensor;
        *ppSensor = nullptr;
        return TAVK05_E_CREATE;
    }
    g_pSaveISensor[g_nCntISensor] = pSensor;
    ++g_nCntISensor;
    return TAVK05_OK;
}

extern "C" int DestroyISensor(ISensor* pSensor)
{
    if (pSensor != nullptr) {
        for (int i = 0; i < g_nCntISensor && i < ISENSOR_REGISTRY_SIZE; ++i) {
            if (g_pSaveISensor[i] != pSensor) {
                continue;
            }
            for (int j = i; j + 1 < g_nCntISensor && j + 1 < ISENSOR_REGISTRY_SIZE; ++j) {
                g_pSaveISensor[j] = g_pSaveISensor[j + 1];
            }
            --g_nCntISensor;
            g_pSaveISensor[g_nCntISensor] = nullptr;
            break;
        }
        // Deleted whether registered or not; the destructor saves the
        // settings and closes the device.
        delete pSensor;
    }
    return TAVK05_OK;
}
