/* A C host: the plain C parts of the interface (version, status texts,
 * corner marks) through the headers, and the library loaded by its
 * unversioned name as existing hosts do. */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include <tavk05/mark.h>
#include <tavk05/version.h>

int main(void)
{
    static unsigned char image[600 * 600];
    void* lib;
    SetLTWaterM(image, 600, 600);
    if (!GetLTWaterM(image, 600, 600)) return 1;
    if (strcmp(Tavk05GetVersion(), TAVK05_VERSION_STRING) != 0) return 2;
    lib = dlopen("libtavk05.so", RTLD_NOW);
    if (lib == NULL || dlsym(lib, "CreateISensor") == NULL || dlsym(lib, "DestroyISensor") == NULL) return 3;
    printf("c host: libtavk05 %s, status 55: %s\n", Tavk05GetVersion(), Tavk05StatusText(TAVK05_E_NOT_OPEN));
    return 0;
}
