// The command line of tavk05: one table of commands and one of options, from
// which the parser (getopt_long), the help text and the hidden option list
// that the tests compare with the bash completion and the manual page are
// all made.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"
#include "profile/model_profile.h"
#include "tavk05/version.h"

namespace cli {

namespace {

// The units of --virtual without a value.
#define TAVK05_DEFAULT_UNITS "0:model=7"

enum ValueKind {
    kFlag,       // no value
    kNumber,     // a whole number in [nMin, nMax]
    kDecimal,    // a decimal number in [nMin / 100, nMax / 100]
    kChoice,     // one of the words of pszValue, separated by '|'
    kGain,       // 1, 2, 4 or 8
    kImageSize,  // one of the nominal image sizes
    kDims,       // any WxH
    kOutput,     // an output file, in a format a writer knows
    kText,       // taken as given
    kOptional    // --name or --name=TEXT
};

// One option. pszCommands lists the commands it belongs to, separated by
// blanks; an empty list makes it a global option, valid before and after
// the command.
struct OptionDef {
    const char* pszCommands;
    const char* pszLong;
    char chShort;
    ValueKind eKind;
    const char* pszValue;  // what the value is called in the help
    long nMin, nMax;
    const char* pszHelp;  // empty: accepted, not shown
};

const OptionDef kOptions[] = {
    {"", "device", 'd', kNumber, "N", 0, 7, "device index (default 0; also -dN)"},
    {"", "virtual", 0, kOptional, "UNITS", 0, 0,
     "use the virtual scanner instead of hardware; UNITS as in\nTAVK05_VIRTUAL (tavk05-virtual(7)), "
     "default " TAVK05_DEFAULT_UNITS ":\na person at the glass who follows the prompts"},
    {"", "verbose", 'v', kFlag, "", 0, 0, "show each driver call with its status"},
    {"", "help", 'h', kFlag, "", 0, 0, "this text, or one command's"},
    {"", "version", 0, kFlag, "", 0, 0, "the version of libtavk05 in use"},
    {"", "list-options", 0, kFlag, "", 0, 0, ""},
    {"capture background live roll", "output", 'o', kOutput, "FILE", 0, 0,
     "write the image to FILE, in the format its extension\nnames (- for PNG on standard output)"},
    {"capture", "now", 0, kFlag, "", 0, 0, "one frame at once, without the guidance"},
    {"capture", "timeout", 0, kNumber, "MS", 1, 3600000, "wait for the finger at most MS\n(default 20000)"},
    {"capture", "brightness", 0, kNumber, "N", 0, 100, "brightness of this capture"},
    {"capture", "contrast", 0, kNumber, "N", 0, 100, "contrast of this capture"},
    {"capture", "gain", 0, kGain, "N", 1, 8, "gain of this capture: 1, 2, 4 or 8"},
    {"capture", "size", 0, kImageSize, "WxH", 0, 0, "nominal size at which the marks lie (the image stays\n600 x 600)"},
    {"capture", "latent", 0, kFlag, "", 0, 0, "refuse the capture when a latent print is on the glass"},
    {"capture", "latent-only", 0, kFlag, "", 0, 0, "only check the glass for a latent print"},
    {"verify", "size", 0, kDims, "WxH", 0, 0, "the marks' nominal size (default: the image's)"},
    {"live", "threshold", 0, kNumber, "N", 0, 100,
     "quality that ends live view (default 40;\n20 on device types 5 and 6, whose live view\nlacks background "
     "correction)"},
    {"roll", "threshold", 0, kNumber, "N", 0, 100, "quality a rolled print must reach (default 20)"},
    {"live roll", "timeout", 0, kNumber, "MS", 1, 3600000, "give up after MS (default 20000)"},
    {"live roll", "no-picture", 0, kFlag, "", 0, 0, "no picture on the terminal, only the progress line"},
    {"live roll", "background", 0, kFlag, "", 0, 0, ""},  // from older scripts: the background is always taken
    {"capture live roll convert", "finger", 0, kNumber, "N", 0, 10,
     "finger position in .fir and .an2 (0 unknown,\nthe default; 1..5 right thumb to little finger,\n6..10 left)"},
    {"capture live roll convert", "bitrate", 0, kDecimal, "B", 10, 800,
     "WSQ bits per pixel (default 0.75; 2.25 keeps\nmore detail)"},
    {"capture live roll convert", "iso-version", 0, kChoice, "2005|2011", 0, 0,
     "edition of ISO/IEC 19794-4 for .fir\n(default 2011)"},
    {"capture live roll convert", "compression", 0, kChoice, "wsq|none|png", 0, 0,
     "the image in .fir and .an2 (default wsq)"},
    {"serve", "port", 0, kNumber, "N", 0, 65535, "port on 127.0.0.1 and ::1 (default 7405; 0: any free\nport)"},
};

// One command: its arguments besides the options, what it does, and how
// many arguments it takes.
struct CommandDef {
    const char* pszName;
    const char* pszArgs;
    const char* pszText;
    int (*pfnRun)(const Options&);
    unsigned nMinArgs, nMaxArgs;
};

int CmdHelp(const Options& opt);

const CommandDef kCommands[] = {
    {"capture", "-o FILE",
     "one finished 600 x 600 image, corner-marked: asks\nfor clear glass (background), "
     "waits for the finger,\nthen captures",
     CmdCapture, 0, 0},
    {"live", "[-o FILE]",
     "live view until a frame reaches the quality\nthreshold (the background is taken first: "
     "keep\nthe glass clear)",
     CmdLive, 0, 0},
    {"roll", "[-o FILE]", "rolled print: place the finger, then roll it\nacross the glass (models 3, 5, 7)", CmdRoll, 0,
     0},
    {"verify", "FILE", "check the four corner marks (exit 0 when all hold;\n5 for WSQ, which does not keep them)",
     CmdVerify, 1, 1},
    {"convert", "IN OUT", "IN (format by content) to OUT (format by\nextension), between .png, .wsq, .fir and .an2",
     CmdConvert, 2, 2},
    {"show", "FILE",
     "what a PNG, WSQ, ISO/IEC 19794-4 or ANSI/NIST-ITL\nfile holds: size, resolution, compression,\n"
     "bit rate, finger, impression, quality, records",
     CmdShow, 1, 1},
    {"list", "", "every scanner present: node, type, firmware, device ID", CmdList, 0, 0},
    {"info", "", "device type, firmware, frame geometry, settings,\ndevice ID", CmdInfo, 0, 0},
    {"background", "[-o FILE]", "capture the background frame used by live view", CmdBackground, 0, 0},
    {"config", "show | set KEY=N...",
     "the settings file: show it, or set brightness=0..100,\ncontrast=0..100, "
     "gain=1|2|4|8, scanmode=0",
     CmdConfig, 1, 100},
    {"serve", "", "the local capture service for web applications and\nthe technician's page (tavk05-serve(1))",
     CmdServe, 0, 0},
    {"help", "[COMMAND]", "the usage of one command, or of all", CmdHelp, 0, 1},
};

const char kHelpHead[] =
    "Usage: tavk05 [GLOBAL OPTIONS] COMMAND [OPTIONS] [ARGS]\n"
    "\n"
    "Drive a TAVK05 fingerprint scanner (/dev/tavk05N) through libtavk05.\n"
    "\n"
    "First steps, on the virtual scanner (no hardware needed):\n"
    "  tavk05 --virtual capture -o finger.png   # clear glass, then the finger\n"
    "  tavk05 verify finger.png\n"
    "  tavk05 convert finger.png finger.an2     # or .wsq, .fir\n"
    "  tavk05 show finger.an2\n"
    "  tavk05 --virtual live -o live.png\n"
    "  tavk05 --virtual roll -o rolled.png\n"
    "\n"
    "Commands ('tavk05 help COMMAND' or 'tavk05 COMMAND --help' for one):\n";

const char kHelpTail[] =
    "\n"
    "Options take their value as --name=VALUE or --name VALUE.\n"
    "\n"
    "Environment:\n"
    "  TAVK05_CONF          settings file instead of /etc/tavk05rf.conf\n"
    "  TAVK05_VIRTUAL       virtual units (when libtavk05-virtual.so is preloaded)\n"
    "\n"
    "Exit status: 0 success, 1 a driver operation failed (its status code and\n"
    "meaning are printed), 2 bad command line, 3 verification failed,\n"
    "4 a file could not be read or written, 5 verify: the file is WSQ,\n"
    "which does not keep the corner marks.\n";

bool BelongsTo(const OptionDef& def, const std::string& strCommand)
{
    if (*def.pszCommands == '\0') return true;
    const std::string strList = std::string(" ") + def.pszCommands + " ";
    return !strCommand.empty() && strList.find(" " + strCommand + " ") != std::string::npos;
}

const CommandDef* FindCommand(const std::string& strName)
{
    for (const CommandDef& cmd : kCommands) {
        if (strName == cmd.pszName) return &cmd;
    }
    return nullptr;
}

// Prints "LEFT" padded to the help column, then TEXT, whose further lines
// are indented to that column.
void PrintColumns(const std::string& strLeft, const std::string& strText)
{
    const size_t kColumn = 24;
    std::string strOut = strLeft;
    if (strOut.size() + 1 > kColumn) {
        strOut += "\n" + std::string(kColumn, ' ');
    } else {
        strOut.resize(kColumn, ' ');
    }
    for (const char ch : strText) {
        strOut += ch;
        if (ch == '\n') strOut += std::string(kColumn, ' ');
    }
    std::printf("%s\n", strOut.c_str());
}

// The nominal image sizes, "356x292, 228x292, ...".
std::string ImageSizeList()
{
    std::string str;
    for (const auto& size : tavk05profile::kImageSizes) {
        str += std::string(str.empty() ? "" : ", ") + std::to_string(size.nWidth) + "x" + std::to_string(size.nHeight);
    }
    return str;
}

// "0.1..8" for a decimal option's range.
std::string DecimalRange(const OptionDef& def)
{
    char szRange[64];
    std::snprintf(szRange, sizeof szRange, "%g..%g", def.nMin / 100.0, def.nMax / 100.0);
    return szRange;
}

// "wsq, none or png" for "wsq|none|png".
std::string ChoiceList(const std::string& strWords)
{
    std::string str = strWords;
    const size_t nLast = str.rfind('|');
    if (nLast != std::string::npos) str.replace(nLast, 1, " or ");
    for (size_t n = str.find('|'); n != std::string::npos; n = str.find('|')) str.replace(n, 1, ", ");
    return str;
}

// Whether strValue is one of the '|'-separated words of pszWords.
bool IsChoice(const std::string& strValue, const char* pszWords)
{
    const std::string strWords = std::string("|") + pszWords + "|";
    return !strValue.empty() && strValue.find('|') == std::string::npos &&
           strWords.find("|" + strValue + "|") != std::string::npos;
}

std::string OptionHelp(const OptionDef& def)
{
    std::string str = def.pszHelp;
    if (def.eKind == kNumber) {
        str += ", " + std::to_string(def.nMin) + ".." + std::to_string(def.nMax);
    } else if (def.eKind == kDecimal) {
        str += ", " + DecimalRange(def);
    } else if (def.eKind == kOutput) {
        str += ";\nformats: " + WriterList();
    } else if (def.eKind == kImageSize) {
        str += ":\n" + ImageSizeList();
    }
    return str;
}

// An option's line; a command's options stand further in than its name.
void PrintOption(const OptionDef& def, const char* pszIndent)
{
    std::string strLeft = pszIndent + (def.chShort ? std::string("-") + def.chShort + ", --" : std::string("    --"));
    strLeft += def.pszLong;
    if (def.eKind == kOptional) {
        strLeft += std::string("[=") + def.pszValue + "]";
    } else if (def.eKind != kFlag) {
        strLeft += std::string(" ") + def.pszValue;
    }
    PrintColumns(strLeft, OptionHelp(def));
}

void PrintCommand(const CommandDef& cmd)
{
    PrintColumns(std::string("  ") + cmd.pszName + (*cmd.pszArgs ? " " : "") + cmd.pszArgs, cmd.pszText);
    for (const OptionDef& def : kOptions) {
        if (*def.pszCommands != '\0' && *def.pszHelp != '\0' && BelongsTo(def, cmd.pszName)) PrintOption(def, "    ");
    }
}

int PrintHelp(const std::string& strCommand)
{
    if (strCommand.empty()) {
        std::fputs(kHelpHead, stdout);
        for (const CommandDef& cmd : kCommands) PrintCommand(cmd);
        std::printf("\nGlobal options (before or after the command):\n");
        for (const OptionDef& def : kOptions) {
            if (*def.pszCommands == '\0' && *def.pszHelp != '\0') PrintOption(def, "  ");
        }
        std::fputs(kHelpTail, stdout);
        return EXIT_OK;
    }
    const CommandDef* pCmd = FindCommand(strCommand);
    if (pCmd == nullptr) {
        std::string strKnown;
        for (const CommandDef& cmd : kCommands) strKnown += std::string(strKnown.empty() ? "" : ", ") + cmd.pszName;
        return Usage("no command '" + strCommand + "' (commands: " + strKnown + ")");
    }
    std::printf("Usage: tavk05 [GLOBAL OPTIONS] %s%s%s\n", pCmd->pszName, *pCmd->pszArgs ? " " : "", pCmd->pszArgs);
    PrintCommand(*pCmd);
    return EXIT_OK;
}

int CmdHelp(const Options& opt) { return PrintHelp(opt.vecArgs.empty() ? "" : opt.vecArgs[0]); }

// Every command with its options, one line each ("global" first), for the
// tests that hold the completion and the manual page to this table.
int ListOptions()
{
    for (int i = -1; i < static_cast<int>(sizeof kCommands / sizeof kCommands[0]); ++i) {
        std::string strLine = i < 0 ? "global" : kCommands[i].pszName;
        for (const OptionDef& def : kOptions) {
            const bool bGlobal = *def.pszCommands == '\0';
            if (*def.pszHelp == '\0' || (i < 0) != bGlobal || (i >= 0 && !BelongsTo(def, kCommands[i].pszName))) {
                continue;
            }
            if (def.chShort) strLine += std::string(" -") + def.chShort;
            strLine += std::string(" --") + def.pszLong;
        }
        std::printf("%s\n", strLine.c_str());
    }
    return EXIT_OK;
}

bool ParseDims(const std::string& str, unsigned long* pWidth, unsigned long* pHeight)
{
    unsigned long nW = 0, nH = 0;
    char chX = 0, chExtra = 0;
    if (std::sscanf(str.c_str(), "%lu%c%lu%c", &nW, &chX, &nH, &chExtra) != 3 || (chX != 'x' && chX != 'X')) {
        return false;
    }
    *pWidth = nW;
    *pHeight = nH;
    return true;
}

// Checks a value against its option's kind; false with what it must be.
bool CheckValue(const OptionDef& def, const std::string& strValue, std::string* pMust)
{
    long n = 0;
    unsigned long nW = 0, nH = 0;
    switch (def.eKind) {
        case kNumber:
            *pMust = std::to_string(def.nMin) + ".." + std::to_string(def.nMax);
            return ParseLong(strValue, def.nMin, def.nMax, &n);
        case kDecimal: {
            *pMust = DecimalRange(def);
            char* pEnd = nullptr;
            const double d = std::strtod(strValue.c_str(), &pEnd);
            return !strValue.empty() && *pEnd == '\0' && d >= def.nMin / 100.0 && d <= def.nMax / 100.0;
        }
        case kChoice:
            *pMust = ChoiceList(def.pszValue);
            return IsChoice(strValue, def.pszValue);
        case kGain:
            *pMust = "1, 2, 4 or 8";
            return ParseLong(strValue, 1, 8, &n) && (n & (n - 1)) == 0;
        case kImageSize: {
            *pMust = "one of " + ImageSizeList();
            bool bKnown = false;
            const bool bDims = ParseDims(strValue, &nW, &nH);
            for (const auto& size : tavk05profile::kImageSizes)
                bKnown |= bDims && size.nWidth == nW && size.nHeight == nH;
            return bKnown;
        }
        case kDims:
            *pMust = "WxH, e.g. 248x292";
            return ParseDims(strValue, &nW, &nH);
        case kOutput:
            *pMust = "a file name ending in " + WriterList() + " (or - for standard output)";
            return strValue == "-" || FindWriter(strValue) != nullptr;
        default:
            return true;
    }
}

// One getopt_long pass over argv for the options of strCommand (only the
// global ones while it is empty, stopping at the first argument that is not
// an option). Arguments that are not options go to *pvecRest. Returns -1 to
// go on, else the exit status.
int ParsePass(std::vector<char*> vecArgv, const std::string& strCommand, Options* pOpt,
              std::vector<std::string>* pvecRest)
{
    std::vector<const OptionDef*> vecDefs;
    std::vector<struct option> vecLong;
    std::string strShort = strCommand.empty() ? "+:" : ":";
    for (const OptionDef& def : kOptions) {
        if (!BelongsTo(def, strCommand)) continue;
        const int nHas = def.eKind == kFlag       ? no_argument
                         : def.eKind == kOptional ? optional_argument
                                                  : required_argument;
        vecDefs.push_back(&def);
        vecLong.push_back({def.pszLong, nHas, nullptr, 0});
        if (def.chShort) strShort += std::string(1, def.chShort) + (nHas == required_argument ? ":" : "");
    }
    vecLong.push_back({nullptr, 0, nullptr, 0});
    const std::string strWhere = strCommand.empty() ? "" : strCommand + ": ";
    vecArgv.push_back(nullptr);
    const int argc = static_cast<int>(vecArgv.size()) - 1;
    char** argv = vecArgv.data();
    optind = 0;  // a fresh scan
    opterr = 0;
    for (;;) {
        int nIndex = -1;
        const int nOpt = getopt_long(argc, argv, strShort.c_str(), vecLong.data(), &nIndex);
        if (nOpt == -1) break;
        const std::string strArg = argv[optind - 1];
        if (nOpt == '?') {
            const std::string strName = optopt != 0 ? std::string("-") + static_cast<char>(optopt) : strArg;
            return Usage(strWhere + "unknown option '" + strName + "'");
        }
        if (nOpt == ':') {
            return Usage(strWhere + "option '" + (optopt != 0 ? std::string("-") + static_cast<char>(optopt) : strArg) +
                         "' needs a value");
        }
        const OptionDef* pDef = nullptr;
        if (nIndex >= 0) {
            pDef = vecDefs[nIndex];
        } else {
            for (const OptionDef* p : vecDefs) {
                if (p->chShort == nOpt) pDef = p;
            }
        }
        const std::string strValue = optarg != nullptr ? optarg : "";
        std::string strMust;
        if (!CheckValue(*pDef, strValue, &strMust)) {
            return Usage(strWhere + "--" + pDef->pszLong + " must be " + strMust + ", not '" + strValue + "'");
        }
        const std::string strName = pDef->pszLong;
        if (strName == "help") return PrintHelp(strCommand);
        if (strName == "version") {
            std::printf("tavk05 %s\n", Tavk05GetVersion());
            return EXIT_OK;
        }
        if (strName == "list-options") return ListOptions();
        if (strName == "device") {
            pOpt->nDevice = std::strtoul(strValue.c_str(), nullptr, 10);
        } else if (strName == "verbose") {
            pOpt->bVerbose = true;
        } else if (strName == "virtual") {
            pOpt->bVirtual = true;
            if (optarg != nullptr) pOpt->strUnits = strValue;
        } else {
            pOpt->mapValues[strName] = strValue;
        }
    }
    for (int i = optind; i < argc; ++i) pvecRest->push_back(argv[i]);
    return -1;
}

}  // namespace

bool Options::Has(const char* pszName) const { return mapValues.count(pszName) != 0; }

std::string Options::Value(const char* pszName) const
{
    const auto it = mapValues.find(pszName);
    return it == mapValues.end() ? std::string() : it->second;
}

long Options::Number(const char* pszName, long nDefault) const
{
    const auto it = mapValues.find(pszName);
    return it == mapValues.end() ? nDefault : std::strtol(it->second.c_str(), nullptr, 10);
}

bool ParseSizeValue(const std::string& str, unsigned long* pWidth, unsigned long* pHeight)
{
    return ParseDims(str, pWidth, pHeight);
}

int ParseCommandLine(int argc, char** argv, Options* pOpt)
{
    pOpt->strUnits = TAVK05_DEFAULT_UNITS;
    std::vector<std::string> vecRest;
    int nExit = ParsePass(std::vector<char*>(argv, argv + argc), "", pOpt, &vecRest);
    if (nExit >= 0) return nExit;
    if (vecRest.empty()) return Usage("no command given");
    const CommandDef* pCmd = FindCommand(vecRest[0]);
    if (pCmd == nullptr) return PrintHelp(vecRest[0]);
    pOpt->strCommand = pCmd->pszName;
    std::vector<char*> vecArgv{argv[0]};
    for (size_t i = 1; i < vecRest.size(); ++i) vecArgv.push_back(&vecRest[i][0]);
    nExit = ParsePass(vecArgv, pOpt->strCommand, pOpt, &pOpt->vecArgs);
    if (nExit >= 0) return nExit;
    if (pOpt->vecArgs.size() < pCmd->nMinArgs || pOpt->vecArgs.size() > pCmd->nMaxArgs) {
        return Usage(std::string(pCmd->pszName) +
                     (pCmd->nMaxArgs == 0 ? " takes no arguments" : " takes " + std::string(pCmd->pszArgs)) +
                     (pOpt->vecArgs.size() > pCmd->nMaxArgs ? ", not '" + pOpt->vecArgs[pCmd->nMaxArgs] + "'" : ""));
    }
    return -1;
}

int RunCommand(const Options& opt) { return FindCommand(opt.strCommand)->pfnRun(opt); }

}  // namespace cli
