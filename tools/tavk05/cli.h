// Shared pieces of the tavk05 command.
#ifndef TAVK05_CLI_H
#define TAVK05_CLI_H

#include <string>
#include <vector>

#include "tavk05/oberin.h"

namespace cli {

// Exit codes of the command (documented in --help).
enum {
    EXIT_OK = 0,
    EXIT_DEVICE = 1,   // a driver operation failed
    EXIT_USAGE = 2,    // bad command line
    EXIT_CHECK = 3,    // verification found a mark missing
    EXIT_IO = 4        // a file could not be read or written
};

struct Options {
    unsigned long nDevice = 0;     // device index 0..7
    bool bVerbose = false;
    std::vector<std::string> vecArgs;  // the subcommand's own arguments
};

// Meaning of a driver status code, in words.
const char* StatusText(unsigned long nStatus);

// With -v every driver call is shown with its status on standard error:
// Traced("GetImage", sensor.GetImage(p)) gives the status back unchanged.
extern bool g_bVerbose;
unsigned long Traced(const char* pszCall, unsigned long nStatus);

// Prints "tavk05: WHAT failed: status N (meaning)" and returns EXIT_DEVICE.
int Fail(const char* pszWhat, unsigned long nStatus);

// Prints "tavk05: MESSAGE" plus a hint to --help and returns EXIT_USAGE.
int Usage(const std::string& strMessage);

// A sensor created and opened for the duration of a command.
class Session {
public:
    Session();
    ~Session();
    // Creates the sensor and opens device nIndex; prints the failure and
    // returns false when that is not possible.
    bool Open(unsigned long nIndex);
    COberin* operator->() const { return m_pSensor; }
    COberin* Get() const { return m_pSensor; }

private:
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    COberin* m_pSensor = nullptr;
};

// Whether an image can be written to strPath, found out before the device is
// touched, so that a capture is never lost to a bad output path; prints why
// not. A regular file or a new one in a writable directory qualifies; the
// check leaves no file behind.
bool OutputWritable(const std::string& strPath);

// Writes a finished 600 x 600 image as PNG ("-": standard output); prints why
// not.
bool SavePng(const std::string& strPath, const unsigned char* pImage);

// Parses a whole number in [nMin, nMax] (decimal or 0x hex).
bool ParseLong(const std::string& str, long nMin, long nMax, long* pValue);

// Guided capture. TakeBackground asks for clear glass, takes the background
// frame the live conversion subtracts and refuses one that shows a finger;
// WaitForFinger asks for the finger and watches live frames until one shows
// it, or the time-out. Both return an exit status (EXIT_OK to go on).
int TakeBackground(COberin& sensor);
int WaitForFinger(COberin& sensor, long nTimeoutMs);

int CmdInfo(const Options& opt);
int CmdList(const Options& opt);
int CmdConfig(const Options& opt);
int CmdCapture(const Options& opt);
int CmdBackground(const Options& opt);
int CmdVerify(const Options& opt);
int CmdLive(const Options& opt);
int CmdRoll(const Options& opt);

}  // namespace cli

#endif
