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
    unsigned int DeviceID, Reserved1, ImageWidth, ImageHeight, Contrast, Brightness, Reserved2, Reserved3, Reserved4,
        Gain;
};
struct CallbackInfo {
    unsigned int nWidth, nHeight, nQuality, nStatus;
};
struct CreateParam {
    unsigned int nReserved[4];
};
_Static_assert(sizeof(struct DeviceInfo) == 40, "device info record is 40 bytes");
_Static_assert(sizeof(struct CallbackInfo) == 16, "callback record is 16 bytes");

/* Virtual-table slots: 0 and 1 are the complete-object and deleting
 * destructors, then the operations in declaration order. */
enum {
    SLOT_OPEN_DEVICE = 2,
    SLOT_GET_IMAGE,
    SLOT_GET_ERROR,
    SLOT_GET_DEVICE_INFO,
    SLOT_CONFIGURE,
    SLOT_RESET_DEVICE,
    SLOT_SET_IMAGE_SIZE,
    SLOT_SET_BRIGHTNESS,
    SLOT_SET_CONTRAST,
    SLOT_SET_BLACK_CALIBRATION,
    SLOT_SET_LED_ON,
    SLOT_SET_EXPOSURE,
    SLOT_SET_GAIN_VALUE,
    SLOT_SET_AUTO_EXPOSURE,
    SLOT_SET_AUTO_GAIN,
    SLOT_WRITE_DATA,
    SLOT_READ_DATA,
    SLOT_SET_PIXEL_INVERT,
    SLOT_GET_LIVE_IMAGE,
    SLOT_AUTO_TUNNING,
    SLOT_GET_LIVE_IMAGE_EX,
    SLOT_GET_LIVE_IMAGE_EX2,
    SLOT_SET_CALLBACK_FUNCTION,
    SLOT_AUTO_TUNING,
    SLOT_CLOSE_DEVICE,
    SLOT_DEV_IO_CONTROL,
    SLOT_GET_DEVICE_TYPE = 28,
    /* The sensor class's own operations follow those of the interface. */
    SLOT_GET_LIVE_IMAGE_EX2_ADAPTIVE = 29,
    SLOT_GET_LIVE_IMAGE_EX2_NORMAL = 30,
    SLOT_GET_IMAGE_FOR_ROLL = 33
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
typedef unsigned long (*OpIoCtl)(void*, unsigned long, void*, unsigned long, void*, unsigned long, unsigned long*);

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

#define EXPECT_EQ(slot, what, expected, got)                   \
    do {                                                       \
        const unsigned long nExp_ = (unsigned long)(expected); \
        const unsigned long nGot_ = (unsigned long)(got);      \
        Check(nExp_ == nGot_, (slot), (what), nExp_, nGot_);   \
    } while (0)

/* The function in slot nSlot of the object's virtual table. */
static void* Slot(void* pSensor, int nSlot)
{
    void** ppTable;
    memcpy(&ppTable, pSensor, sizeof(ppTable));
    return ppTable[nSlot];
}

/* Calls the operation in a slot of the sensor p with the given arguments. */
#define CALL(type, slot, ...) (((type)Slot(p, (slot)))(p, ##__VA_ARGS__))
/* Checks the result of a call of slot, and with EXPECT_STORED also the
 * status GetError reports after it. */
#define EXPECT_CALL(expected, type, slot, ...) EXPECT_EQ((slot), #slot, (expected), CALL(type, slot, ##__VA_ARGS__))
#define EXPECT_STORED(slot, stored) EXPECT_EQ((slot), "GetError after " #slot, (stored), CALL(OpVoid, SLOT_GET_ERROR))

static unsigned long HostCallback(void* pContext, void* pInfo)
{
    (void)pContext;
    (void)pInfo;
    return 0;
}

/* Live capture with the callback of type 1 installed (it always goes on) and
 * roll mode on, so the loop's own quality is 0 after every frame: threshold
 * 20 is never reached and a time limit of 0 ms ends the capture with 54 after
 * one frame, while threshold 0 accepts the first frame. */
static void ProbeLiveCapture(void* p)
{
    static unsigned char abyImage[600 * 600];
    EXPECT_CALL(3, OpLiveEx2, SLOT_GET_LIVE_IMAGE_EX2, NULL, 1000, 0, NULL, 20);
    EXPECT_STORED(SLOT_GET_LIVE_IMAGE_EX2, 3);
    EXPECT_CALL(0, OpLiveEx2, SLOT_GET_LIVE_IMAGE_EX2, abyImage, 0, 1, NULL, 0);
    EXPECT_CALL(3, OpLive, SLOT_GET_LIVE_IMAGE, NULL, 1000, 0);
    EXPECT_CALL(54, OpLive, SLOT_GET_LIVE_IMAGE, abyImage, 0, 0);
    EXPECT_CALL(3, OpLiveEx, SLOT_GET_LIVE_IMAGE_EX, NULL, 1000, 0, 20);
    EXPECT_CALL(0, OpLiveEx, SLOT_GET_LIVE_IMAGE_EX, abyImage, 0, 0, 0);
    EXPECT_STORED(SLOT_GET_LIVE_IMAGE_EX, 0);

    /* Not in the interface, but in the sensor's table: the adaptive live
     * capture refuses, the normal one checks the image without the lock (and
     * so without storing its result), the rolled-path grab keeps the status. */
    EXPECT_CALL(4, OpLiveEx2, SLOT_GET_LIVE_IMAGE_EX2_ADAPTIVE, abyImage, 0, 0, NULL, 0);
    CALL(OpULong2, SLOT_SET_IMAGE_SIZE, 2, 2);
    EXPECT_CALL(3, OpLiveEx2, SLOT_GET_LIVE_IMAGE_EX2_NORMAL, NULL, 0, 0, NULL, 0);
    EXPECT_STORED(SLOT_GET_LIVE_IMAGE_EX2_NORMAL, 0); /* its device information stored 0 */
    CALL(OpULong2, SLOT_SET_IMAGE_SIZE, 2, 2);
    EXPECT_CALL(3, OpForRoll, SLOT_GET_IMAGE_FOR_ROLL, NULL, 0);
    EXPECT_CALL(0, OpForRoll, SLOT_GET_IMAGE_FOR_ROLL, abyImage, 0);
    EXPECT_STORED(SLOT_GET_IMAGE_FOR_ROLL, 2);
}

static void ProbeOpenSensor(void* p)
{
    static const unsigned int kInfo[10] = {957, 0, 600, 600, 20, 40, 0, 0, 0xA5A5A5A5u, 1};
    struct DeviceInfo info;
    unsigned int anInfo[10];
    unsigned long nOutLen = 0;
    int nContext = 0, i;

    EXPECT_CALL(4, OpVoid, SLOT_GET_DEVICE_TYPE); /* before open */
    EXPECT_EQ(SLOT_GET_ERROR, "GetError of a new sensor", 0, CALL(OpVoid, SLOT_GET_ERROR));
    EXPECT_CALL(0, OpULong2, SLOT_OPEN_DEVICE, 957, 0);
    EXPECT_CALL(7, OpVoid, SLOT_GET_DEVICE_TYPE);

    /* Device information: no settings file, so gain is 1; Reserved4 stays. */
    memset(&info, 0xA5, sizeof(info));
    EXPECT_CALL(0, OpInfo, SLOT_GET_DEVICE_INFO, &info);
    memcpy(anInfo, &info, sizeof(anInfo));
    for (i = 0; i < 10; ++i) EXPECT_EQ(SLOT_GET_DEVICE_INFO, "device info field", kInfo[i], anInfo[i]);

    /* Configure is the one operation that returns and stores 4; ResetDevice
     * returns 0 without touching the status. */
    EXPECT_CALL(4, OpUInt, SLOT_CONFIGURE, 0u);
    EXPECT_CALL(0, OpVoid, SLOT_RESET_DEVICE);
    EXPECT_STORED(SLOT_RESET_DEVICE, 4);

    EXPECT_CALL(2, OpULong2, SLOT_SET_IMAGE_SIZE, 1, 1);
    EXPECT_CALL(0, OpULong2, SLOT_SET_IMAGE_SIZE, 228, 292);
    EXPECT_CALL(3, OpULong, SLOT_SET_BRIGHTNESS, 101);
    EXPECT_CALL(0, OpULong, SLOT_SET_BRIGHTNESS, 77);
    EXPECT_CALL(3, OpULong, SLOT_SET_GAIN_VALUE, 3);
    EXPECT_CALL(0, OpULong, SLOT_SET_GAIN_VALUE, 8);
    CALL(OpInfo, SLOT_GET_DEVICE_INFO, &info);
    EXPECT_EQ(SLOT_SET_IMAGE_SIZE, "ImageWidth after SetImageSize", 228, info.ImageWidth);
    EXPECT_EQ(SLOT_SET_IMAGE_SIZE, "ImageHeight after SetImageSize", 292, info.ImageHeight);
    EXPECT_EQ(SLOT_SET_BRIGHTNESS, "Brightness after SetBrightness", 77, info.Brightness);
    EXPECT_EQ(SLOT_SET_GAIN_VALUE, "Gain after SetGainValue", 8, info.Gain);

    /* The unsupported settings. */
    EXPECT_CALL(4, OpULong, SLOT_SET_BLACK_CALIBRATION, 1);
    EXPECT_CALL(4, OpULong2, SLOT_SET_EXPOSURE, 1, 2);
    EXPECT_CALL(4, OpBool, SLOT_SET_AUTO_EXPOSURE, 1);
    EXPECT_CALL(4, OpBool, SLOT_SET_AUTO_GAIN, 1);

    EXPECT_CALL(0, OpBool, SLOT_SET_LED_ON, 1);
    EXPECT_CALL(0, OpBool, SLOT_SET_PIXEL_INVERT, 0);
    /* The register interface: capture options, roll mode (model 7 rolls). */
    EXPECT_CALL(0, OpULong2, SLOT_WRITE_DATA, 0, 2);
    EXPECT_CALL(2, OpULong, SLOT_READ_DATA, 0);
    EXPECT_CALL(0, OpULong2, SLOT_WRITE_DATA, 155, 1);
    EXPECT_CALL(1, OpULong, SLOT_READ_DATA, 155);
    EXPECT_CALL(255, OpULong, SLOT_READ_DATA, 7);

    /* Operations that leave the last status alone: set it to 2 first. */
    CALL(OpULong2, SLOT_SET_IMAGE_SIZE, 2, 2);
    EXPECT_CALL(4, OpVoid, SLOT_AUTO_TUNNING);
    EXPECT_STORED(SLOT_AUTO_TUNNING, 2);
    EXPECT_CALL(4, OpVoid, SLOT_AUTO_TUNING);
    EXPECT_STORED(SLOT_AUTO_TUNING, 2);
    EXPECT_CALL(2, OpCallback, SLOT_SET_CALLBACK_FUNCTION, 3, HostCallback, &nContext);
    EXPECT_CALL(0, OpCallback, SLOT_SET_CALLBACK_FUNCTION, 1, HostCallback, &nContext);
    EXPECT_STORED(SLOT_SET_CALLBACK_FUNCTION, 2);

    ProbeLiveCapture(p);

    /* Control code 0x301 is the one the driver declares unsupported, 0x102
     * one it does not know. */
    EXPECT_CALL(4, OpIoCtl, SLOT_DEV_IO_CONTROL, 0x301, NULL, 0, NULL, 0, &nOutLen);
    EXPECT_CALL(3, OpIoCtl, SLOT_DEV_IO_CONTROL, 0x102, NULL, 0, NULL, 0, &nOutLen);
    EXPECT_STORED(SLOT_DEV_IO_CONTROL, 3);

    /* Contrast: out of range is 3; an accepted value shows in the device
     * information. */
    EXPECT_CALL(3, OpULong, SLOT_SET_CONTRAST, 101);
    EXPECT_CALL(0, OpULong, SLOT_SET_CONTRAST, 55);
    CALL(OpInfo, SLOT_GET_DEVICE_INFO, &info);
    EXPECT_EQ(SLOT_SET_CONTRAST, "Contrast after SetContrast(55)", 55, info.Contrast);

    EXPECT_CALL(0, OpVoid, SLOT_CLOSE_DEVICE);
    EXPECT_STORED(SLOT_CLOSE_DEVICE, 0); /* the LED went off */
    EXPECT_CALL(2, OpBool, SLOT_SET_LED_ON, 1);
    EXPECT_CALL(0, OpVoid, SLOT_CLOSE_DEVICE);
    EXPECT_STORED(SLOT_CLOSE_DEVICE, 2);
    EXPECT_CALL(7, OpVoid, SLOT_GET_DEVICE_TYPE); /* after close */
}

int main(int argc, char** argv)
{
    const char* pszUnits = getenv("TAVK05_VIRTUAL");
    void* hLib;
    CreateFn pfnCreate;
    DestroyFn pfnDestroy;
    void* pSensor = NULL;

    if (argc != 3 || pszUnits == NULL || strstr(pszUnits, "model=7") == NULL) {
        fprintf(stderr, "usage: TAVK05_VIRTUAL=0:model=7,fw=0x3000 %s PATH/libtavk05.so SETTINGS-FILE\n", argv[0]);
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
        return 1;
    }
    EXPECT_EQ(-1, "CreateISensor with no result pointer", 1, pfnCreate(NULL, NULL));
    EXPECT_EQ(-1, "CreateISensor", 0, pfnCreate(NULL, &pSensor));
    if (pSensor == NULL) {
        fprintf(stderr, "FAIL CreateISensor gave no object\n");
        return 1;
    }
    ProbeOpenSensor(pSensor);
    EXPECT_EQ(-1, "DestroyISensor", 0, pfnDestroy(pSensor));
    EXPECT_EQ(-1, "DestroyISensor(NULL)", 0, pfnDestroy(NULL));
    EXPECT_EQ(-1, "settings file written at destruction", 0, access(argv[2], F_OK));
    unlink(argv[2]);
    dlclose(hLib);

    printf("abi: %d passed, %d failed\n", g_nPassed, g_nFailed);
    return g_nFailed == 0 ? 0 : 1;
}
