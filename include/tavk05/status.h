/* Status codes of the TAVK05 driver and their texts. Plain C: usable from C
 * and C++ hosts alike. */
#ifndef TAVK05_STATUS_H
#define TAVK05_STATUS_H

#ifndef TAVK05_API
#if defined(__GNUC__)
#define TAVK05_API __attribute__((visibility("default")))
#else
#define TAVK05_API
#endif
#endif

/* Status codes returned by the sensor operations (and kept as the last status). */
enum {
    TAVK05_OK = 0,            /* success */
    TAVK05_E_CREATE = 1,      /* CreateISensor could not make the object */
    TAVK05_E_FAILED = 2,      /* no transport, request failed, memory short, unknown size */
    TAVK05_E_INVALID = 3,     /* invalid argument */
    TAVK05_E_UNSUPPORTED = 4, /* operation not supported */
    TAVK05_E_READ = 53,       /* frame or latent read failed, driver value/ID request failed */
    TAVK05_E_NO_IMAGE = 54,   /* live capture ended without an accepted image */
    TAVK05_E_NOT_OPEN = 55,   /* device node not open or could not be opened */
    TAVK05_E_LATENT = 57      /* latent print detected, or rolled image below threshold */
};

#ifdef __cplusplus
extern "C" {
#endif

/* The meaning of a status code in words ("unknown status" for any other
 * value); a static string. */
TAVK05_API const char* Tavk05StatusText(unsigned long nStatus);

#ifdef __cplusplus
}
#endif

#endif
