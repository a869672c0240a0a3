/* A host of the scanner driver in plain C.
 *
 * It knows the driver only by its binary contract: the two exported factory
 * functions, the layout of the records, and the order of the sensor's
 * virtual operations. Every operation is called through its virtual-table
 * slot, with the object pointer as first argument (cdecl on i386, SysV on
 * x86_64), and each probe is chosen so that only the operation expected in
 * that slot gives the checked result: a reordered table fails here.
 *
 * Usage: abi_host PATH/libtavk05.so SETTINGS-FILE
 * with a virtual unit 0 of model 7, firmware 0x3000 configured in
 * TAVK05_VIRTUAL.
 */
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* The records as the host sees them. */
struct DeviceInfo {
    unsigned int DeviceID;
    unsigned int Reserved1;
    unsigned int ImageWidth;
    unsigned int ImageHeight;
    unsigned int Contrast;
    unsigned int Brightness;
    unsigned int Reserved2;
    unsigned int Reserved3;
    unsigned int Reserved4;
    unsigned int Gain;
};

struct CallbackInfo {
    unsigned int nWidth;
    unsigned int nHeight;
    unsigned int nQuality;
    unsigned int nStatus;
};

struct CreateParam {
    unsigned int nReserved[4];
};

_Static_assert(sizeof(struct DeviceInfo) == 40, "device info record is 40 bytes");
_Static_assert(sizeof(struct CallbackInfo) == 16, "callback record is 16 bytes");

/* Virtual-table slots: 0 and 1 are the complete-object and deleting
 * destructors, then the operations in declaration order. */
enum {
    SLOT_OPEN_DEVICE = 2, SLOT_GET_IMAGE, SLOT_GET_ERROR, SLOT_GET_DEVICE_INFO, SLOT_CONFIGURE, SLOT_RESET_DEVICE,
    SLOT_SET_IMAGE_SIZE, SLOT_SET_BRIGHTNESS, SLOT_SET_CONTRAST, SLOT_SET_BLACK_CALIBRATION, SLOT_SET_LED_ON,
    SLOT_SET_EXPOSURE, SLOT_SET_GAIN_VALUE, SLOT_SET_AUTO_EXPOSURE, SLOT_SET_AUTO_GAIN, SLOT_WRITE_DATA,
    SLOT_READ_DATA, SLOT_SET_PIXEL_INVERT, SLOT_GET_LIVE_IMAGE, SLOT_AUTO_TUNNING, SLOT_GET_LIVE_IMAGE_EX,
    SLOT_GET_LIVE_IMAGE_EX2, SLOT_SET_CALLBACK_FUNCTION, SLOT_AUTO_TUNING, SLOT_CLOSE_DEVICE, SLOT_DEV_IO_CONTROL,
    SLOT_GET_DEVICE_TYPE = 28,
    /* The sensor class's own operations follow those of the interface. */
    SLOT_GET_LIVE_IMAGE_EX2_ADAPTIVE = 29, SLOT_GET_LIVE_IMAGE_EX2_NORMAL = 30, SLOT_GET_IMAGE_FOR_ROLL = 33
};

typedef int (*CreateFn)(struct CreateParam*, void**);
typedef int (*DestroyFn)(void*);

typedef unsigned long (*CallbackFn)(void*, void*);
typedef unsigned long (*OpVoid)(void*);
typedef unsigned long (*OpULong)(void*, unsigned long);
typedef unsigned long (*OpULong2)(void*, unsigned long, unsigned long);
typedef unsigned long (*OpUInt)(void*, unsigned int);
typedef unsigned long (*OpBool)(void*, _Bool);
typedef unsigned long (*OpInfo)(void*, struct DeviceInfo*);
typedef unsigned long (*OpCallback)(void*, unsigned long, CallbackFn, void*);
typedef unsigned long (*OpLive)(void*, unsigned char*, unsigned long, unsigned int);
typedef unsigned long (*OpLiveEx)(void*, unsigned char*, unsigned long, unsigned int, unsigned long);
typedef unsigned long (*OpLiveEx2)(void*, unsigned char*, unsigned long, unsigned int, void*, unsigned long);
typedef unsigned long (*OpForRoll)(void*, unsigned char*, unsigned long);
typedef unsigned long (*OpIoControl)(void*, unsigned long, void*, unsigned long, void*, unsigned long,
                                     unsigned long*);

static int g_nPassed;
static int g_nFailed;

static void Check(int bOk, int nSlot, const char* pszWhat, unsigned long nExpected, unsigned long nGot)
{
    if (bOk) {
        ++g_nPassed;
        return;
    }
    ++g_nFailed;
    fprintf(stderr, "FAIL slot %d, %s: expected %lu, got %lu\n", nSlot, pszWhat, nExpected, nGot);
}

#define EXPECT_EQ(slot, what, expected, got)                                                     \
    do {                                                                                         \
        const unsigned long nExp_ = (unsigned long)(expected);                                   \
        const unsigned long nGot_ = (unsigned long)(got);                                        \
        Check(nExp_ == nGot_, (slot), (what), nExp_, nGot_);                                     \
    } while (0)

/* The function in slot nSlot of the object's virtual table. */
static void* Slot(void* pSensor, int nSlot)
{
    void** ppTable;
    memcpy(&ppTable, pSensor, sizeof(ppTable));
    return ppTable[nSlot];
}

#define OP(type, sensor, slot) ((type)Slot((sensor), (slot)))

static unsigned long HostCallback(void* pContext, void* pInfo)
{
    (void)pContext;
    (void)pInfo;
    return 0;
}

static unsigned long LastError(void* p)
{
    return OP(OpVoid, p, SLOT_GET_ERROR)(p);
}

/* The result of a call and the status GetError reports after it. */
#define EXPECT_STATUS(p, slot, what, expected, got, stored)                                      \
    do {                                                                                         \
        EXPECT_EQ((slot), (what), (expected), (got));                                            \
        EXPECT_EQ((slot), "GetError after " what, (stored), LastError(p));                     \
    } while (0)

static int ReadWholeFile(const char* pszPath, char* pBuf, size_t nCap, size_t* pnLen)
{
    FILE* pFile = fopen(pszPath, "rb");
    if (pFile == NULL) return 0;
    *pnLen = fread(pBuf, 1, nCap, pFile);
    fclose(pFile);
    return 1;
}

static void ProbeClosedSensor(void* p)
{
    EXPECT_EQ(SLOT_GET_DEVICE_TYPE, "GetDeviceType before open", 4, OP(OpVoid, p, SLOT_GET_DEVICE_TYPE)(p));
    EXPECT_EQ(SLOT_GET_ERROR, "GetError of a new sensor", 0, LastError(p));
}

/* Live capture with the callback of type 1 installed (it always goes on) and
 * roll mode on, so the loop's own quality is 0 after every frame: threshold
 * 20 is never reached and a time limit of 0 ms ends the capture with 54 after
 * one frame, while threshold 0 accepts the first frame. */
static void ProbeLiveCapture(void* p)
{
    static unsigned char abyImage[600 * 600];
    EXPECT_STATUS(p, SLOT_GET_LIVE_IMAGE_EX2, "GetLiveImageEx2 without image", 3,
                  OP(OpLiveEx2, p, SLOT_GET_LIVE_IMAGE_EX2)(p, NULL, 1000, 0, NULL, 20), 3);
    EXPECT_EQ(SLOT_GET_LIVE_IMAGE_EX2, "GetLiveImageEx2 threshold 0", 0,
              OP(OpLiveEx2, p, SLOT_GET_LIVE_IMAGE_EX2)(p, abyImage, 0, 1, NULL, 0));
    EXPECT_EQ(SLOT_GET_LIVE_IMAGE, "GetLiveImage without image", 3,
              OP(OpLive, p, SLOT_GET_LIVE_IMAGE)(p, NULL, 1000, 0));
    EXPECT_EQ(SLOT_GET_LIVE_IMAGE, "GetLiveImage (threshold 20) times out", 54,
              OP(OpLive, p, SLOT_GET_LIVE_IMAGE)(p, abyImage, 0, 0));
    EXPECT_EQ(SLOT_GET_LIVE_IMAGE_EX, "GetLiveImageEx without image", 3,
              OP(OpLiveEx, p, SLOT_GET_LIVE_IMAGE_EX)(p, NULL, 1000, 0, 20));
    EXPECT_STATUS(p, SLOT_GET_LIVE_IMAGE_EX, "GetLiveImageEx threshold 0", 0,
                  OP(OpLiveEx, p, SLOT_GET_LIVE_IMAGE_EX)(p, abyImage, 0, 0, 0), 0);

    /* Not in the interface, but in the sensor's table: the adaptive live
     * capture refuses, the normal one checks the image without the lock (and
     * so without storing its result), the rolled-path grab keeps the status. */
    EXPECT_EQ(SLOT_GET_LIVE_IMAGE_EX2_ADAPTIVE, "GetLiveImageEx2_Adaptive", 4,
              OP(OpLiveEx2, p, SLOT_GET_LIVE_IMAGE_EX2_ADAPTIVE)(p, abyImage, 0, 0, NULL, 0));
    OP(OpULong2, p, SLOT_SET_IMAGE_SIZE)(p, 2, 2);
    EXPECT_STATUS(p, SLOT_GET_LIVE_IMAGE_EX2_NORMAL, "GetLiveImageEx2_Normal without image", 3,
                  OP(OpLiveEx2, p, SLOT_GET_LIVE_IMAGE_EX2_NORMAL)(p, NULL, 0, 0, NULL, 0), 0);
    OP(OpULong2, p, SLOT_SET_IMAGE_SIZE)(p, 2, 2);
    EXPECT_EQ(SLOT_GET_IMAGE_FOR_ROLL, "GetImageForRoll without image", 3,
              OP(OpForRoll, p, SLOT_GET_IMAGE_FOR_ROLL)(p, NULL, 0));
    EXPECT_STATUS(p, SLOT_GET_IMAGE_FOR_ROLL, "GetImageForRoll", 0,
                  OP(OpForRoll, p, SLOT_GET_IMAGE_FOR_ROLL)(p, abyImage, 0), 2);
}

static void ProbeOpenSensor(void* p)
{
    struct DeviceInfo info;
    int nContext = 0;

    EXPECT_EQ(SLOT_OPEN_DEVICE, "OpenDevice(957)", 0, OP(OpULong2, p, SLOT_OPEN_DEVICE)(p, 957, 0));
    EXPECT_EQ(SLOT_GET_DEVICE_TYPE, "GetDeviceType of the model-7 unit", 7,
              OP(OpVoid, p, SLOT_GET_DEVICE_TYPE)(p));

    /* Device information: no settings file, so gain is 1; Reserved4 stays. */
    {
        static const unsigned int kExpected[10] = {957, 0, 600, 600, 20, 40, 0, 0, 0xA5A5A5A5u, 1};
        unsigned int anGot[10];
        int i;
        memset(&info, 0xA5, sizeof(info));
        EXPECT_EQ(SLOT_GET_DEVICE_INFO, "GetDeviceInfo result", 0, OP(OpInfo, p, SLOT_GET_DEVICE_INFO)(p, &info));
        memcpy(anGot, &info, sizeof(anGot));
        for (i = 0; i < 10; ++i) EXPECT_EQ(SLOT_GET_DEVICE_INFO, "device info field", kExpected[i], anGot[i]);
    }

    /* Configure is the one operation that returns and stores 4 ... */
    EXPECT_STATUS(p, SLOT_CONFIGURE, "Configure", 4, OP(OpUInt, p, SLOT_CONFIGURE)(p, 0u), 4);
    /* ... and ResetDevice returns 0 without touching it. */
    EXPECT_STATUS(p, SLOT_RESET_DEVICE, "ResetDevice", 0, OP(OpVoid, p, SLOT_RESET_DEVICE)(p), 4);

    EXPECT_EQ(SLOT_SET_IMAGE_SIZE, "SetImageSize(1, 1)", 2, OP(OpULong2, p, SLOT_SET_IMAGE_SIZE)(p, 1, 1));
    EXPECT_EQ(SLOT_SET_IMAGE_SIZE, "SetImageSize(228, 292)", 0,
              OP(OpULong2, p, SLOT_SET_IMAGE_SIZE)(p, 228, 292));

    EXPECT_EQ(SLOT_SET_BRIGHTNESS, "SetBrightness(101)", 3, OP(OpULong, p, SLOT_SET_BRIGHTNESS)(p, 101));
    EXPECT_EQ(SLOT_SET_BRIGHTNESS, "SetBrightness(77)", 0, OP(OpULong, p, SLOT_SET_BRIGHTNESS)(p, 77));
    EXPECT_EQ(SLOT_SET_GAIN_VALUE, "SetGainValue(3)", 3, OP(OpULong, p, SLOT_SET_GAIN_VALUE)(p, 3));
    EXPECT_EQ(SLOT_SET_GAIN_VALUE, "SetGainValue(8)", 0, OP(OpULong, p, SLOT_SET_GAIN_VALUE)(p, 8));

    OP(OpInfo, p, SLOT_GET_DEVICE_INFO)(p, &info);
    EXPECT_EQ(SLOT_SET_IMAGE_SIZE, "ImageWidth after SetImageSize", 228, info.ImageWidth);
    EXPECT_EQ(SLOT_SET_IMAGE_SIZE, "ImageHeight after SetImageSize", 292, info.ImageHeight);
    EXPECT_EQ(SLOT_SET_BRIGHTNESS, "Brightness after SetBrightness", 77, info.Brightness);
    EXPECT_EQ(SLOT_SET_GAIN_VALUE, "Gain after SetGainValue", 8, info.Gain);

    /* The unsupported settings return and store 4 (GetDeviceInfo stores 0
     * before each). */
    OP(OpInfo, p, SLOT_GET_DEVICE_INFO)(p, NULL);
    EXPECT_STATUS(p, SLOT_SET_BLACK_CALIBRATION, "SetBlackCalibration", 4,
                  OP(OpULong, p, SLOT_SET_BLACK_CALIBRATION)(p, 1), 4);
    OP(OpInfo, p, SLOT_GET_DEVICE_INFO)(p, NULL);
    EXPECT_STATUS(p, SLOT_SET_EXPOSURE, "SetExposure", 4, OP(OpULong2, p, SLOT_SET_EXPOSURE)(p, 1, 2), 4);
    OP(OpInfo, p, SLOT_GET_DEVICE_INFO)(p, NULL);
    EXPECT_STATUS(p, SLOT_SET_AUTO_EXPOSURE, "SetAutoExposure", 4, OP(OpBool, p, SLOT_SET_AUTO_EXPOSURE)(p, 1), 4);
    OP(OpInfo, p, SLOT_GET_DEVICE_INFO)(p, NULL);
    EXPECT_STATUS(p, SLOT_SET_AUTO_GAIN, "SetAutoGain", 4, OP(OpBool, p, SLOT_SET_AUTO_GAIN)(p, 1), 4);

    EXPECT_EQ(SLOT_SET_LED_ON, "SetLedOn(true)", 0, OP(OpBool, p, SLOT_SET_LED_ON)(p, 1));
    EXPECT_EQ(SLOT_SET_PIXEL_INVERT, "SetPixelInvert(false)", 0, OP(OpBool, p, SLOT_SET_PIXEL_INVERT)(p, 0));

    /* The register interface. */
    EXPECT_EQ(SLOT_WRITE_DATA, "WriteData(0, 2)", 0, OP(OpULong2, p, SLOT_WRITE_DATA)(p, 0, 2));
    EXPECT_EQ(SLOT_READ_DATA, "ReadData(0) after WriteData(0, 2)", 2, OP(OpULong, p, SLOT_READ_DATA)(p, 0));
    EXPECT_EQ(SLOT_WRITE_DATA, "WriteData(155, 1)", 0, OP(OpULong2, p, SLOT_WRITE_DATA)(p, 155, 1));
    EXPECT_EQ(SLOT_READ_DATA, "ReadData(155) on model 7", 1, OP(OpULong, p, SLOT_READ_DATA)(p, 155));
    EXPECT_EQ(SLOT_READ_DATA, "ReadData(7)", 255, OP(OpULong, p, SLOT_READ_DATA)(p, 7));

    /* Operations that leave the last status alone: set it to 2 first. */
    OP(OpULong2, p, SLOT_SET_IMAGE_SIZE)(p, 2, 2);
    EXPECT_STATUS(p, SLOT_AUTO_TUNNING, "AutoTunning", 4, OP(OpVoid, p, SLOT_AUTO_TUNNING)(p), 2);
    EXPECT_STATUS(p, SLOT_AUTO_TUNING, "AutoTuning", 4, OP(OpVoid, p, SLOT_AUTO_TUNING)(p), 2);
    EXPECT_EQ(SLOT_SET_CALLBACK_FUNCTION, "SetCallBackFunction type 3", 2,
              OP(OpCallback, p, SLOT_SET_CALLBACK_FUNCTION)(p, 3, HostCallback, &nContext));
    EXPECT_STATUS(p, SLOT_SET_CALLBACK_FUNCTION, "SetCallBackFunction type 1", 0,
                  OP(OpCallback, p, SLOT_SET_CALLBACK_FUNCTION)(p, 1, HostCallback, &nContext), 2);

    ProbeLiveCapture(p);

    /* Control code 0x301 is the one the driver declares unsupported ... */
    {
        unsigned long nOutLen = 0;
        EXPECT_EQ(SLOT_DEV_IO_CONTROL, "DevIoControl(0x301)", 4,
                  OP(OpIoControl, p, SLOT_DEV_IO_CONTROL)(p, 0x301, NULL, 0, NULL, 0, &nOutLen));
        /* ... and 0x102 one it does not know. */
        EXPECT_STATUS(p, SLOT_DEV_IO_CONTROL, "DevIoControl(0x102)", 3,
                      OP(OpIoControl, p, SLOT_DEV_IO_CONTROL)(p, 0x102, NULL, 0, NULL, 0, &nOutLen), 3);
    }

    /* Contrast: out of range is 3; an accepted value shows in the device
     * information (and is set back so that the settings file keeps 20). */
    EXPECT_EQ(SLOT_SET_CONTRAST, "SetContrast(101)", 3, OP(OpULong, p, SLOT_SET_CONTRAST)(p, 101));
    EXPECT_EQ(SLOT_SET_CONTRAST, "SetContrast(55)", 0, OP(OpULong, p, SLOT_SET_CONTRAST)(p, 55));
    memset(&info, 0, sizeof(info));
    OP(OpInfo, p, SLOT_GET_DEVICE_INFO)(p, &info);
    EXPECT_EQ(SLOT_SET_CONTRAST, "Contrast after SetContrast(55)", 55, info.Contrast);
    EXPECT_EQ(SLOT_SET_CONTRAST, "SetContrast(20)", 0, OP(OpULong, p, SLOT_SET_CONTRAST)(p, 20));

    EXPECT_STATUS(p, SLOT_CLOSE_DEVICE, "CloseDevice (LED off)", 0, OP(OpVoid, p, SLOT_CLOSE_DEVICE)(p), 0);
    EXPECT_EQ(SLOT_SET_LED_ON, "SetLedOn after CloseDevice", 2, OP(OpBool, p, SLOT_SET_LED_ON)(p, 1));
    EXPECT_STATUS(p, SLOT_CLOSE_DEVICE, "second CloseDevice", 0, OP(OpVoid, p, SLOT_CLOSE_DEVICE)(p), 2);
    EXPECT_EQ(SLOT_GET_DEVICE_TYPE, "GetDeviceType after close", 7, OP(OpVoid, p, SLOT_GET_DEVICE_TYPE)(p));
}

int main(int argc, char** argv)
{
    static const char kExpectedSettings[] = "Brightness  =  77\n"
                                            "Contrast    =  20\n"
                                            "Gain        =  8\n"
                                            "ScanMode    =  0\n";
    const char* pszUnits = getenv("TAVK05_VIRTUAL");
    void* hLib;
    CreateFn pfnCreate;
    DestroyFn pfnDestroy;
    void* pSensor = NULL;
    char achFile[256];
    size_t nFileLen = 0;

    if (argc != 3) {
        fprintf(stderr, "usage: %s PATH/libtavk05.so SETTINGS-FILE\n", argv[0]);
        return 2;
    }
    if (pszUnits == NULL || strstr(pszUnits, "model=7") == NULL) {
        fprintf(stderr, "abi_host: TAVK05_VIRTUAL must configure unit 0 as model 7 (0:model=7,fw=0x3000)\n");
        return 2;
    }
    /* The settings file goes where the caller says, never to /etc. */
    setenv("TAVK05_CONF", argv[2], 1);
    unlink(argv[2]);

    hLib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (hLib == NULL) {
        fprintf(stderr, "FAIL dlopen: %s\n", dlerror());
        return 1;
    }
    pfnCreate = (CreateFn)dlsym(hLib, "CreateISensor");
    pfnDestroy = (DestroyFn)dlsym(hLib, "DestroyISensor");
    if (pfnCreate == NULL || pfnDestroy == NULL) {
        fprintf(stderr, "FAIL dlsym: CreateISensor or DestroyISensor not exported under its plain name\n");
        dlclose(hLib);
        return 1;
    }

    EXPECT_EQ(-1, "CreateISensor with no result pointer", 1, pfnCreate(NULL, NULL));
    EXPECT_EQ(-1, "CreateISensor", 0, pfnCreate(NULL, &pSensor));
    if (pSensor == NULL) {
        fprintf(stderr, "FAIL CreateISensor gave no object\n");
        dlclose(hLib);
        return 1;
    }

    ProbeClosedSensor(pSensor);
    ProbeOpenSensor(pSensor);

    EXPECT_EQ(-1, "DestroyISensor", 0, pfnDestroy(pSensor));
    EXPECT_EQ(-1, "DestroyISensor(NULL)", 0, pfnDestroy(NULL));

    /* The settings written at destruction, byte for byte. */
    if (!ReadWholeFile(argv[2], achFile, sizeof(achFile), &nFileLen)) nFileLen = 0;
    Check(nFileLen == sizeof(kExpectedSettings) - 1 && memcmp(achFile, kExpectedSettings, nFileLen) == 0, -1,
          "settings file written at destruction (bytes)", sizeof(kExpectedSettings) - 1, nFileLen);
    unlink(argv[2]);
    dlclose(hLib);

    printf("abi: %d passed, %d failed\n", g_nPassed, g_nFailed);
    return g_nFailed == 0 ? 0 : 1;
}
