// Virtual TAVK05 scanner: libtavk05-virtual.so interposes open, close, ioctl
// and read for "/dev/tavk05N" and answers as the kernel driver would, so any
// host runs without hardware (LD_PRELOAD, or linked before the C library).
//
// Units are configured from the environment variable TAVK05_VIRTUAL when the
// library loads, or at run time through this API, with the same syntax:
//
//     INDEX:key=value,key=value;INDEX:key=value,...
//
// Test programs and tools use the functions below to attach units, inject
// faults and read back what the driver sent.
#ifndef TAVK05_VIRTUAL_H
#define TAVK05_VIRTUAL_H

#include <string>
#include <vector>

#if defined(__GNUC__)
#define TAVK05_VIRTUAL_API __attribute__((visibility("default")))
#else
#define TAVK05_VIRTUAL_API
#endif

namespace tavk05virt {

// One control request as the unit received it.
struct Request {
    unsigned long nRequest;               // request number (4, 5, 8, ...)
    std::vector<unsigned char> vecBlock;  // argument block as it arrived (empty for 21, 22)
    bool bFailed;                         // the unit answered it with an error
};

// Observable state of one unit.
struct UnitState {
    bool bAttached;                 // the unit exists (not unplugged)
    bool bOpen;                     // at least one descriptor is open on it
    int nOpenCount;                 // successful opens so far
    int nCloseCount;                // closes so far
    bool bLedOn;                    // last LED request switched it on
    unsigned char byLedSelector;    // selector byte of the last LED request
    unsigned char byExposure;       // exposure of the last sensor-option block
    unsigned char byGain;           // gain of the last sensor-option block
    bool bAcquiring;                // between start and stop of acquisition
    unsigned long nRequests;        // control requests received
    unsigned long nReads;           // reads received
    unsigned char abyOption[128];   // last sensor-option block
    unsigned char abyValue[64];     // value block stored by the last set-value request
    unsigned char abyDeviceId[64];  // device-ID block the unit answers with
    unsigned long nLastReadBytes;   // byte count the last read asked for
};

// Recording or playback of a unit's session (keys record= and replay=).
struct SessionStatus {
    bool bRecording;              // record= is writing the session
    unsigned long nRecorded;      // events written so far
    std::string strRecordError;   // why the recorder stopped writing (empty while it writes)
    bool bReplaying;              // replay= answers the unit's calls
    unsigned long nReplayed;      // events played back so far
    unsigned long nReplayEvents;  // events in the recording
    bool bDiverged;               // the host left the recording
    std::string strDivergence;    // where and how (empty until then)
};

// Adds or replaces units; returns false (and changes nothing) on a syntax
// error, with a description in *pError when given.
TAVK05_VIRTUAL_API bool Attach(const std::string& strUnits, std::string* pError = nullptr);
// Removes every unit, its faults and its logs.
TAVK05_VIRTUAL_API void DetachAll();
// Adds faults or settings to an attached unit, with the key=value syntax
// ("fail=21", "fail=9@3", "openfail", "unplug=10", ...).
TAVK05_VIRTUAL_API bool Inject(int nIndex, const std::string& strKeys, std::string* pError = nullptr);
TAVK05_VIRTUAL_API bool GetState(int nIndex, UnitState* pState);
TAVK05_VIRTUAL_API std::vector<Request> RequestLog(int nIndex);
TAVK05_VIRTUAL_API void ClearLog(int nIndex);
TAVK05_VIRTUAL_API bool GetSession(int nIndex, SessionStatus* pStatus);
// The syntax help text (keys, values, examples).
TAVK05_VIRTUAL_API const char* Syntax();

// The person at the glass of a unit that shows scene=person (the default):
// the finger rests flat on the glass until the host asks otherwise. Each
// call takes effect from the unit's next read. Lift: the glass is clear (for
// a background frame). Place: the finger comes down and settles (3 reads of
// clear glass, then 6 reads), and lies differently each time. Roll: the
// finger is put down on its side, held for 6 reads, rolled across the glass
// for 34 reads and lifted over 2. False when the unit is not attached or
// shows another scene.
TAVK05_VIRTUAL_API bool Lift(int nIndex);
TAVK05_VIRTUAL_API bool Place(int nIndex);
TAVK05_VIRTUAL_API bool Roll(int nIndex);

// The API for a program that finds the virtual scanner only preloaded
// (LD_PRELOAD) and is not linked with it, as the tavk05 command does:
//     auto pfn = reinterpret_cast<const tavk05virt::Api* (*)()>(dlsym(RTLD_DEFAULT, "Tavk05VirtualApi"));
// pfn is null where no virtual scanner is loaded (real hardware).
struct Api {
    unsigned nVersion;  // 1: the members below
    bool (*pfnAttach)(const std::string& strUnits, std::string* pError);
    bool (*pfnLift)(int nIndex);
    bool (*pfnPlace)(int nIndex);
    bool (*pfnRoll)(int nIndex);
};

}  // namespace tavk05virt

extern "C" TAVK05_VIRTUAL_API const tavk05virt::Api* Tavk05VirtualApi();

#endif
