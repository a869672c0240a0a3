// tavk05: command-line access to a TAVK05 fingerprint scanner, real or virtual.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cli.h"

namespace {

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
    // The units go to the virtual scanner through its API, which says why it
    // refuses them; units of the environment do not mix in.
    unsetenv("TAVK05_VIRTUAL");
    setenv("TAVK05_CLI_VIRTUAL", strUnits.c_str(), 1);
    // Libraries the user preloads stay preloaded, after the virtual scanner.
    if (const char* pszPreload = std::getenv("LD_PRELOAD"); pszPreload != nullptr && *pszPreload != '\0') {
        strLib += ':';
        strLib += pszPreload;
    }
    setenv("LD_PRELOAD", strLib.c_str(), 1);
    execv(szSelf, argv);
    std::fprintf(stderr, "tavk05: cannot run %s: %s\n", szSelf, std::strerror(errno));
    return cli::EXIT_IO;
}

}  // namespace

int main(int argc, char** argv)
{
    cli::Options opt;
    if (const int nExit = cli::ParseCommandLine(argc, argv, &opt); nExit >= 0) return nExit;
    // The run under the virtual scanner finds the units in TAVK05_CLI_VIRTUAL.
    if (const char* pszUnits = std::getenv("TAVK05_CLI_VIRTUAL")) {
        if (const int nExit = cli::AttachVirtualUnits(pszUnits)) return nExit;
    } else if (opt.bVirtual) {
        return ReexecVirtual(argv, opt.strUnits);
    }
    cli::g_bVerbose = opt.bVerbose;
    return cli::RunCommand(opt);
}
