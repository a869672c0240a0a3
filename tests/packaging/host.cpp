// A C++ host: one capture on unit 0 through ISensor, its marks checked.
#include <cstdio>
#include <vector>

#include <tavk05/isensor.h>
#include <tavk05/mark.h>
#include <tavk05/version.h>

int main()
{
    ISensor* pSensor = nullptr;
    if (CreateISensor(nullptr, &pSensor) != 0) return 1;
    std::vector<unsigned char> vecImage(600 * 600);
    unsigned long nStatus = pSensor->OpenDevice(0, 0);
    if (nStatus == 0) nStatus = pSensor->GetImage(vecImage.data());
    const unsigned long nType = pSensor->GetDeviceType();
    DestroyISensor(pSensor);
    std::printf("c++ host: libtavk05 %s, type %lu, capture: %s\n", Tavk05GetVersion(), nType,
                Tavk05StatusText(nStatus));
    return nStatus == 0 && GetRBWaterM(vecImage.data(), 600, 600) ? 0 : 2;
}
