// tavk05: command-line access to a TAVK05 fingerprint scanner, real or virtual.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cli.h"
#include "tavk05/version.h"

namespace {

const char kHelpHead[] =
    "Usage: tavk05 [GLOBAL OPTIONS] COMMAND [ARGS]\n"
    "\n"
    "Drive a TAVK05 fingerprint scanner (/dev/tavk05N) through libtavk05.\n"
    "\n"
    "Commands ('tavk05 help COMMAND' or 'tavk05 COMMAND --help' for one):\n";

// Each command's part of the help, shown in the whole text and alone.
struct CommandHelp {
    const char* pszName;
    const char* pszText;
};
const CommandHelp kCommandHelp[] = {
    {"list", "  list                 every scanner present: node, type, firmware, device ID\n"},
    {"info", "  info                 device type, firmware, frame geometry, settings, device ID\n"},
    {"capture",
     "  capture -o FILE.png  one finished 600 x 600 image, corner-marked: asks for clear\n"
     "                       glass (background), waits for the finger, then captures\n"
     "      --now            one frame at once, without the guidance\n"
     "      --timeout MS     wait for the finger at most MS (default 20000)\n"
     "      --brightness N   0..100     --contrast N   0..100     --gain N   1, 2, 4, 8\n"
     "      --size WxH       nominal size for the marks: 356x292, 228x292, 356x456,\n"
     "                       248x292, 260x300 or 600x600 (the image stays 600 x 600)\n"
     "      --latent         refuse the capture when a latent print is on the glass\n"
     "      --latent-only    only check the glass for a latent print\n"},
    {"background", "  background [-o FILE.png]   capture the background frame used by live view\n"},
    {"verify", "  verify FILE.png [--size WxH]   check the four corner marks (exit 0 when all hold)\n"},
    {"live",
     "  live [-o FILE.png]   live view until a frame reaches the quality threshold\n"
     "      --threshold N    0..100 (default 40)     --timeout MS   (default 20000)\n"
     "      --no-picture     no picture on the terminal, only the progress line\n"
     "                       (the background is taken first: keep the glass clear)\n"},
    {"roll",
     "  roll [-o FILE.png]   rolled print: place the finger, then roll it across the glass\n"
     "                       (models 3, 5, 7); same options as live, threshold default 20\n"},
    {"config",
     "  config show          the settings file and the values the driver reads from it\n"
     "  config set KEY=N...  kept in the file: brightness=0..100, contrast=0..100,\n"
     "                       gain=1|2|4|8, scanmode=0\n"},
};

const char kHelpTail[] =
    "\n"
    "Global options:\n"
    "  -d, --device N       device index 0..7 (default 0); also -dN, --device=N\n"
    "  --virtual[=UNITS]    use the virtual scanner instead of hardware; UNITS as in\n"
    "                       TAVK05_VIRTUAL, default 0:model=7,fw=0x3000,scene=flat\n"
    "  -v, --verbose        show each driver call with its status\n"
    "  -h, --help           this text\n"
    "  --version            the version of libtavk05 in use\n"
    "\n"
    "Environment:\n"
    "  TAVK05_CONF          settings file instead of /etc/tavk05rf.conf\n"
    "  TAVK05_VIRTUAL       virtual units (when libtavk05-virtual.so is preloaded)\n"
    "\n"
    "Exit status: 0 success, 1 a driver operation failed (its status code and\n"
    "meaning are printed), 2 bad command line, 3 verification failed,\n"
    "4 a file could not be read or written.\n";

// The whole help, or one command's part of it; a usage error for an unknown
// command.
int Help(const std::string& strCommand)
{
    if (strCommand.empty()) {
        std::fputs(kHelpHead, stdout);
        for (const CommandHelp& help : kCommandHelp) std::fputs(help.pszText, stdout);
        std::fputs(kHelpTail, stdout);
        return cli::EXIT_OK;
    }
    for (const CommandHelp& help : kCommandHelp) {
        if (strCommand == help.pszName) {
            std::printf("Usage: tavk05 [GLOBAL OPTIONS] %s\n%s", help.pszName, help.pszText);
            return cli::EXIT_OK;
        }
    }
    std::string strKnown;
    for (const CommandHelp& help : kCommandHelp) strKnown += std::string(strKnown.empty() ? "" : ", ") + help.pszName;
    return cli::Usage("no command '" + strCommand + "' (commands: " + strKnown + ")");
}

const char kDefaultUnits[] = "0:model=7,fw=0x3000,scene=flat";

// Runs this program again with the virtual scanner preloaded: interposing
// open/ioctl/read must be in place before the driver runs, which only the
// dynamic loader can arrange.
int ReexecVirtual(char** argv, const std::string& strUnits)
{
    char szSelf[4096];
    const ssize_t nLen = readlink("/proc/self/exe", szSelf, sizeof szSelf - 1);
    if (nLen <= 0) {
        std::fprintf(stderr, "tavk05: cannot locate this program: %s\n", std::strerror(errno));
        return cli::EXIT_IO;
    }
    szSelf[nLen] = '\0';
    std::string strLib;
    if (const char* pszLib = ::secure_getenv("TAVK05_VIRTUAL_LIB")) {
        strLib = pszLib;
    } else {
        // Beside the command in the build tree, or where the packages put
        // it relative to the installed command.
        std::string strDir(szSelf);
        strDir.erase(strDir.rfind('/'));
        for (const char* pszRel : {"/../lib/libtavk05-virtual.so", "/" TAVK05_VIRTUAL_REL}) {
            strLib = strDir + pszRel;
            if (access(strLib.c_str(), R_OK) == 0) break;
        }
    }
    if (access(strLib.c_str(), R_OK) != 0) {
        std::fprintf(stderr, "tavk05: virtual scanner library %s not found\n", strLib.c_str());
        return cli::EXIT_IO;
    }
    setenv("TAVK05_VIRTUAL", strUnits.c_str(), 1);
    // Libraries the user preloads stay preloaded, after the virtual scanner.
    if (const char* pszPreload = std::getenv("LD_PRELOAD"); pszPreload != nullptr && *pszPreload != '\0') {
        strLib += ':';
        strLib += pszPreload;
    }
    setenv("LD_PRELOAD", strLib.c_str(), 1);
    setenv("TAVK05_CLI_VIRTUAL", "1", 1);
    execv(szSelf, argv);
    std::fprintf(stderr, "tavk05: cannot run %s: %s\n", szSelf, std::strerror(errno));
    return cli::EXIT_IO;
}

bool ParseIndex(const char* psz, unsigned long* pIndex)
{
    char* pEnd = nullptr;
    errno = 0;
    const unsigned long n = std::strtoul(psz, &pEnd, 10);
    if (errno != 0 || pEnd == psz || *pEnd != '\0' || n > 7) {
        return false;
    }
    *pIndex = n;
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    cli::Options opt;
    std::string strCommand;
    bool bVirtual = false;
    std::string strUnits = kDefaultUnits;

    // Global options may stand before or after the command; everything else
    // after the command belongs to it.
    for (int i = 1; i < argc; ++i) {
        const std::string strArg = argv[i];
        if (strArg == "-h" || strArg == "--help") {
            return Help(strCommand);
        } else if (strArg == "-v" || strArg == "--verbose") {
            opt.bVerbose = true;
        } else if (strArg == "--virtual" || strArg.rfind("--virtual=", 0) == 0) {
            bVirtual = true;
            if (strArg.size() > 10) strUnits = strArg.substr(10);
        } else if (strArg == "--version") {
            // The version of the library this command runs with.
            std::printf("tavk05 %s\n", Tavk05GetVersion());
            return cli::EXIT_OK;
        } else if (strArg == "-d" || strArg == "--device" || strArg.rfind("--device=", 0) == 0 ||
                   (strArg.size() > 2 && strArg.compare(0, 2, "-d") == 0)) {
            const char* pszIndex = nullptr;
            if (strArg == "-d" || strArg == "--device") {
                pszIndex = i + 1 < argc ? argv[++i] : "";
            } else {
                pszIndex = argv[i] + (strArg[1] == 'd' ? 2 : 9);
            }
            if (!ParseIndex(pszIndex, &opt.nDevice)) {
                return cli::Usage(std::string("device index must be 0..7, not '") + pszIndex + "'");
            }
        } else if (strCommand.empty()) {
            if (!strArg.empty() && strArg[0] == '-') return cli::Usage("unknown option '" + strArg + "'");
            strCommand = strArg;
        } else {
            opt.vecArgs.push_back(strArg);
        }
    }

    if (bVirtual && std::getenv("TAVK05_CLI_VIRTUAL") == nullptr) {
        return ReexecVirtual(argv, strUnits);
    }
    if (strCommand.empty()) {
        return cli::Usage("no command given");
    }
    if (strCommand == "help") return Help(opt.vecArgs.empty() ? "" : opt.vecArgs[0]);
    cli::g_bVerbose = opt.bVerbose;
    if (strCommand == "list") return cli::CmdList(opt);
    if (strCommand == "info") return cli::CmdInfo(opt);
    if (strCommand == "config") return cli::CmdConfig(opt);
    if (strCommand == "capture") return cli::CmdCapture(opt);
    if (strCommand == "background") return cli::CmdBackground(opt);
    if (strCommand == "verify") return cli::CmdVerify(opt);
    if (strCommand == "live") return cli::CmdLive(opt);
    if (strCommand == "roll") return cli::CmdRoll(opt);
    return Help(strCommand);
}
