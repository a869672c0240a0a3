// Shared pieces of the tavk05 command.
#ifndef TAVK05_CLI_H
#define TAVK05_CLI_H

#include <map>
#include <string>
#include <vector>

#include "tavk05/oberin.h"
#include "tavk05/records.h"

namespace cli {

// Exit codes of the command (documented in --help).
enum {
    EXIT_OK = 0,
    EXIT_DEVICE = 1,  // a driver operation failed
    EXIT_USAGE = 2,   // bad command line
    EXIT_CHECK = 3,   // verification found a mark missing
    EXIT_IO = 4,      // a file could not be read or written
    EXIT_LOSSY = 5    // verify: the file's compression does not keep the marks (WSQ)
};

// The command line, parsed and checked against the option table
// (cli_options.cpp).
struct Options {
    unsigned long nDevice = 0;  // device index 0..7
    bool bVerbose = false;
    bool bVirtual = false;  // --virtual
    std::string strUnits;   // its units
    std::string strCommand;
    std::map<std::string, std::string> mapValues;  // the command's options given ("" for a flag)
    std::vector<std::string> vecArgs;              // its arguments besides the options

    bool Has(const char* pszName) const;
    std::string Value(const char* pszName) const;
    long Number(const char* pszName, long nDefault) const;  // a value checked when parsed
};

// Parses the whole command line; -1 to go on, else the exit status (help,
// version or a usage error, already printed).
int ParseCommandLine(int argc, char** argv, Options* pOpt);
int RunCommand(const Options& opt);
// "WxH" into its two numbers.
bool ParseSizeValue(const std::string& str, unsigned long* pWidth, unsigned long* pHeight);

// What a file says about its image besides the pixels: the record fields
// of .fir and .an2, and how .wsq (or a record's WSQ) is compressed.
struct ImageFacts {
    int nFinger = 0;                          // 0 unknown, 1..10 as the standards number fingers
    int nImpression = TAVK05_REC_LIVE_PLAIN;  // or TAVK05_REC_LIVE_ROLLED
    int nQuality = TAVK05_REC_QUALITY_NONE;   // 0..100, or not computed
    int nPpi = 500;
    double dBitRate = 0.75;                         // WSQ bits per pixel
    int nIsoVersion = 2011;                         // .fir: 2005 or 2011
    int nCompression = TAVK05_REC_COMP_WSQ;         // of the image in .fir and .an2
    const Tavk05NistHeader* pNistHeader = nullptr;  // .an2: Type-1 fields to keep (convert), else the command's own
};
// The facts the options of capture, live, roll and convert set, for an
// image of this impression and quality.
ImageFacts FactsFromOptions(const Options& opt, int nImpression, int nQuality);

// The image formats the command writes, chosen by the output file's
// extension: one row each.
struct ImageWriter {
    const char* pszExtension;  // lower case, with the dot
    const char* pszFormat;
    bool (*pfnWrite)(const std::string& strPath, const unsigned char* pImage, unsigned nWidth, unsigned nHeight,
                     const ImageFacts& facts, std::string* pError);
};
// The writers of cmd_formats.cpp (PNG is the PNG module's).
bool WritePngImage(const std::string& strPath, const unsigned char* pImage, unsigned nWidth, unsigned nHeight,
                   const ImageFacts& facts, std::string* pError);
bool WriteWsqImage(const std::string& strPath, const unsigned char* pImage, unsigned nWidth, unsigned nHeight,
                   const ImageFacts& facts, std::string* pError);
bool WriteIsoImage(const std::string& strPath, const unsigned char* pImage, unsigned nWidth, unsigned nHeight,
                   const ImageFacts& facts, std::string* pError);
bool WriteNistImage(const std::string& strPath, const unsigned char* pImage, unsigned nWidth, unsigned nHeight,
                    const ImageFacts& facts, std::string* pError);

// An image read from any format the command writes, found by content.
struct LoadedImage {
    std::vector<unsigned char> vecPixels;  // 8-bit grey, nWidth x nHeight
    unsigned nWidth = 0;
    unsigned nHeight = 0;
    std::string strFormat;     // "PNG", "WSQ", "ISO/IEC 19794-4:2011", ...
    bool bLossy = false;       // WSQ-compressed: pixels are not those captured
    bool bStoredGrey8 = true;  // nothing converted on reading (a PNG of another depth or colour is)
    ImageFacts facts;
    bool bNist = false;
    Tavk05NistHeader nistHeader = {};  // the transaction's Type-1 fields, when bNist
};
// Reads strPath (a regular file of at most 64 MiB); the first finger image
// of a record or transaction. False with a message naming the file.
bool LoadImage(const std::string& strPath, LoadedImage* pImage, std::string* pError);
// The writer for a path ("-": the first, PNG), or null.
const ImageWriter* FindWriter(const std::string& strPath);
// ".png" (or ".png, .wsq and .fir") for messages and help.
std::string WriterList();

// What the person at the virtual scanner's glass is asked to do.
enum PersonAsk { kAskLift, kAskPlace, kAskRoll };
// On the virtual scanner the person at unit nDevice's glass does as the
// prompt says; on hardware nothing happens. True when a person listened.
bool AskPerson(unsigned long nDevice, PersonAsk eAsk);
// In the run under the virtual scanner: attaches the units of --virtual
// through its API. An exit status, EXIT_OK to go on.
int AttachVirtualUnits(const std::string& strUnits);

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
// check leaves no file behind. (The format was checked with the options.)
bool OutputWritable(const std::string& strPath);

// Writes a finished 600 x 600 image in the format of the path's extension
// ("-": PNG on standard output); prints why not.
bool SaveImage(const std::string& strPath, const unsigned char* pImage, const ImageFacts& facts);

// Parses a whole number in [nMin, nMax] (decimal or 0x hex).
bool ParseLong(const std::string& str, long nMin, long nMax, long* pValue);

// Guided capture. TakeBackground asks for clear glass, takes the background
// frame the live conversion subtracts and refuses one that shows a finger;
// WaitForFinger asks for the finger and watches live frames until one shows
// it, or the time-out. Both return an exit status (EXIT_OK to go on).
// On the virtual scanner the person at the glass follows both prompts.
int TakeBackground(COberin& sensor, unsigned long nDevice);
int WaitForFinger(COberin& sensor, unsigned long nDevice, long nTimeoutMs);

int CmdInfo(const Options& opt);
int CmdList(const Options& opt);
int CmdConfig(const Options& opt);
int CmdCapture(const Options& opt);
int CmdBackground(const Options& opt);
int CmdVerify(const Options& opt);
int CmdLive(const Options& opt);
int CmdRoll(const Options& opt);
// The quality at which live view (or a roll) stops unless told: 40, or 20 for
// a roll and for a model whose live view shows frames as captured, without
// the background subtracted, which score lower.
long DefaultLiveThreshold(unsigned long nDeviceType, bool bRoll);

int CmdConvert(const Options& opt);
int CmdShow(const Options& opt);
// tavk05 serve (serve_*.cpp): the local capture service.
int CmdServe(const Options& opt);

}  // namespace cli

#endif
