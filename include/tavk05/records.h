/* libtavk05-records: finger image records for 500 ppi grey fingerprints.
 *
 * WSQ compression (FBI WSQ 3.1), ISO/IEC 19794-4 finger image records (2005
 * "010" and 2011 "020") and ANSI/NIST-ITL 1-2011 transactions (Type-1 with
 * Type-14 or binary Type-4 finger records), written and read through plain C.
 *
 * Every function returns a status code (TAVK05_REC_OK on success); the text
 * of a code comes from Tavk05RecordsStatusText. Buffers the library hands out
 * are released with Tavk05RecordsFree; structures that own buffers have a
 * release function of their own. Readers take any bytes: whatever they are
 * given, they answer with a status code. */
#ifndef TAVK05_RECORDS_H
#define TAVK05_RECORDS_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define TAVK05_REC_API __attribute__((visibility("default")))
#else
#define TAVK05_REC_API
#endif

/* Status codes. 1 to 5 are those of the WSQ codec too. */
enum {
    TAVK05_REC_OK = 0,
    TAVK05_REC_BAD_ARGUMENT = 1, /* a null pointer, a value out of range */
    TAVK05_REC_CORRUPT = 2,      /* lengths, counts or markers that contradict each other */
    TAVK05_REC_UNSUPPORTED = 3,  /* a valid record this library does not handle (version, compression, depth) */
    TAVK05_REC_TOO_LARGE = 4,    /* dimensions or sizes beyond the library's bounds */
    TAVK05_REC_NO_MEMORY = 5,
    TAVK05_REC_TRUNCATED = 6,     /* the data ends before what its own lengths announce */
    TAVK05_REC_UNKNOWN_FORMAT = 7 /* neither WSQ, ISO/IEC 19794-4 nor ANSI/NIST-ITL */
};

/* Image compression, whatever code the container uses for it. */
enum {
    TAVK05_REC_COMP_NONE = 0, /* 8-bit grey, one byte a pixel, rows top to bottom */
    TAVK05_REC_COMP_WSQ = 1,  /* compressed and decompressed inside the library */
    TAVK05_REC_COMP_PNG = 2   /* a PNG stream the caller provides and receives as it is */
};

/* Impression types (the ISO and ANSI/NIST codes agree on these). */
enum { TAVK05_REC_LIVE_PLAIN = 0, TAVK05_REC_LIVE_ROLLED = 1 };

/* Quality 0..100, or this value where none was determined. */
#define TAVK05_REC_QUALITY_NONE 255

/* Bounds of every image the library writes or reads. */
#define TAVK05_REC_MAX_SIDE 8192
#define TAVK05_REC_MAX_PIXELS (4096 * 4096)

/* One finger image as a writer takes it. */
typedef struct Tavk05RecFinger {
    int nFingerPosition; /* 0 unknown, 1 right thumb .. 10 left little */
    int nImpression;     /* TAVK05_REC_LIVE_PLAIN or TAVK05_REC_LIVE_ROLLED */
    int nQuality;        /* 0..100 or TAVK05_REC_QUALITY_NONE */
    int nCompression;    /* TAVK05_REC_COMP_* */
    int nPpi;            /* resolution, pixels per inch (500) */
    int nWidth;
    int nHeight;
    /* NONE and WSQ: nWidth * nHeight grey pixels. */
    const unsigned char* pPixels;
    /* PNG: the PNG stream (8-bit grey, nWidth x nHeight). WSQ: an already
     * compressed stream may be given here instead of pixels. */
    const unsigned char* pData;
    size_t nDataSize;
    double dBitRate; /* WSQ from pixels: bits per pixel, 0 for 0.75 */
} Tavk05RecFinger;

/* One finger image as a reader returns it; release with Tavk05RecImageRelease. */
typedef struct Tavk05RecImage {
    int nFingerPosition;
    int nImpression;
    int nQuality;
    int nCompression;
    int nPpi;
    int nWidth;
    int nHeight;
    int nRecordType;        /* ANSI/NIST: 4 or 14; ISO: 0 */
    unsigned char* pPixels; /* nWidth * nHeight grey pixels; NULL for PNG */
    unsigned char* pData;   /* the image data as the record carries it */
    size_t nDataSize;
} Tavk05RecImage;

/* ---- library ---- */
TAVK05_REC_API const char* Tavk05RecordsVersion(void);
TAVK05_REC_API const char* Tavk05RecordsStatusText(int nStatus);
TAVK05_REC_API void Tavk05RecordsFree(void* pBuffer);
TAVK05_REC_API void Tavk05RecImageRelease(Tavk05RecImage* pImage);

/* ---- WSQ ---- */
/* Compresses nWidth x nHeight grey pixels at dBitRate bits per pixel (0 for
 * 0.75); *ppOut is released with Tavk05RecordsFree. */
TAVK05_REC_API int Tavk05WsqEncode(const unsigned char* pPixels, int nWidth, int nHeight, int nPpi, double dBitRate,
                                   unsigned char** ppOut, size_t* pnOutSize);
/* Decompresses a WSQ stream; *ppPixels is released with Tavk05RecordsFree.
 * pnPpi may be NULL. */
TAVK05_REC_API int Tavk05WsqDecode(const unsigned char* pData, size_t nSize, unsigned char** ppPixels, int* pnWidth,
                                   int* pnHeight, int* pnPpi);
/* A codec keeps its working memory from one image to the next: a host that
 * compresses or expands many images in one process (a batch, a service) makes
 * one per thread and passes it to each call instead of paying for fresh
 * memory every time. Same arguments and results as the calls above.
 * Tavk05WsqCodecNew returns NULL when memory is short. */
typedef struct Tavk05WsqCodec Tavk05WsqCodec;
TAVK05_REC_API Tavk05WsqCodec* Tavk05WsqCodecNew(void);
TAVK05_REC_API void Tavk05WsqCodecFree(Tavk05WsqCodec* pCodec);
TAVK05_REC_API int Tavk05WsqCodecEncode(Tavk05WsqCodec* pCodec, const unsigned char* pPixels, int nWidth, int nHeight,
                                        int nPpi, double dBitRate, unsigned char** ppOut, size_t* pnOutSize);
TAVK05_REC_API int Tavk05WsqCodecDecode(Tavk05WsqCodec* pCodec, const unsigned char* pData, size_t nSize,
                                        unsigned char** ppPixels, int* pnWidth, int* pnHeight, int* pnPpi);

/* ---- ISO/IEC 19794-4 ---- */
/* Extra fields of the 2011 representation header; NULL writes "unknown". */
typedef struct Tavk05IsoCapture {
    int nYear, nMonth, nDay, nHour, nMinute, nSecond, nMillisecond; /* nYear 0: date unknown */
    int nDeviceTechnology;                                          /* 0 unknown */
    int nVendorId;                                                  /* 0 unknown */
    int nDeviceType;                                                /* 0 unknown */
} Tavk05IsoCapture;

/* Writes a one-finger, one-view record; nVersion is 2005 or 2011. */
TAVK05_REC_API int Tavk05IsoWrite(int nVersion, const Tavk05RecFinger* pFinger, const Tavk05IsoCapture* pCapture,
                                  unsigned char** ppOut, size_t* pnOutSize);
/* Reads the first view of the first finger of a record; WSQ is decompressed,
 * PNG returned as it is. pnVersion (2005 or 2011) may be NULL. */
TAVK05_REC_API int Tavk05IsoRead(const unsigned char* pData, size_t nSize, int* pnVersion, Tavk05RecImage* pImage);

/* ---- ANSI/NIST-ITL 1-2011 ---- */
/* The Type-1 fields. Strings are NUL-terminated; empty ones are left out
 * where the field is optional. */
typedef struct Tavk05NistHeader {
    char szVersion[5];     /* 1.002: written as "0500"; read "0500", "0501" or "0502" */
    char szTot[17];        /* 1.004 type of transaction, e.g. "CAR" */
    char szDate[9];        /* 1.005 YYYYMMDD */
    int nPriority;         /* 1.006 1..9, 0 to leave out */
    char szDai[36];        /* 1.007 destination agency */
    char szOri[36];        /* 1.008 originating agency */
    char szTcn[41];        /* 1.009 transaction control number */
    char szDomName[41];    /* 1.013 domain name, empty to leave out */
    char szDomVersion[41]; /* 1.013 domain version */
} Tavk05NistHeader;

/* One finger record of a transaction as a writer takes it. */
typedef struct Tavk05NistFinger {
    int nRecordType; /* 14, or 4 (500 ppi, NONE or WSQ only) */
    Tavk05RecFinger finger;
} Tavk05NistFinger;

/* A transaction as a reader returns it; release with Tavk05NistRelease. */
typedef struct Tavk05NistTransaction {
    Tavk05NistHeader header;
    int nRecords; /* every record after Type-1, fingers or not */
    int nFingers;
    Tavk05RecImage* pFingers; /* the Type-4 and Type-14 records, in order */
} Tavk05NistTransaction;

TAVK05_REC_API int Tavk05NistWrite(const Tavk05NistHeader* pHeader, const Tavk05NistFinger* pFingers, int nFingers,
                                   unsigned char** ppOut, size_t* pnOutSize);
TAVK05_REC_API int Tavk05NistRead(const unsigned char* pData, size_t nSize, Tavk05NistTransaction* pTransaction);
TAVK05_REC_API void Tavk05NistRelease(Tavk05NistTransaction* pTransaction);

/* ---- any of the formats, for a show command ---- */
enum {
    TAVK05_REC_FORMAT_WSQ = 1,
    TAVK05_REC_FORMAT_ISO2005 = 2,
    TAVK05_REC_FORMAT_ISO2011 = 3,
    TAVK05_REC_FORMAT_NIST = 4
};

typedef struct Tavk05RecEntry {
    int nRecordType;                            /* ANSI/NIST record type; 0 for a WSQ file or an ISO finger */
    int nWidth, nHeight, nPpi;                  /* 0 for records without an image */
    int nCompression;                           /* TAVK05_REC_COMP_*, -1 for another or none */
    int nFingerPosition, nImpression, nQuality; /* -1 where the record has none */
    size_t nDataSize;                           /* bytes of image data */
    double dBitsPerPixel;                       /* nDataSize * 8 / (nWidth * nHeight) */
    double dWsqBitRate;                         /* the bit rate a WSQ stream declares, 0 where it declares none */
} Tavk05RecEntry;

typedef struct Tavk05RecDescription {
    int nFormat;       /* TAVK05_REC_FORMAT_* */
    char szVersion[5]; /* ISO "010"/"020", ANSI/NIST "0500".."0502", WSQ "" */
    size_t nSize;      /* bytes of the whole file */
    int nEntries;
    Tavk05RecEntry* pEntries; /* release with Tavk05RecDescriptionRelease */
} Tavk05RecDescription;

/* Detects the format by content and describes every record, decompressing
 * nothing. */
TAVK05_REC_API int Tavk05RecordsDescribe(const unsigned char* pData, size_t nSize, Tavk05RecDescription* pDescription);
TAVK05_REC_API void Tavk05RecDescriptionRelease(Tavk05RecDescription* pDescription);
TAVK05_REC_API const char* Tavk05RecordsFormatName(int nFormat);
TAVK05_REC_API const char* Tavk05RecordsCompressionName(int nCompression);

#ifdef __cplusplus
}
#endif

#endif
