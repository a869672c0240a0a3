// tavk05 serve where the build found no Boost.Beast or nlohmann-json.
#include <cstdio>

#include "cli.h"

namespace cli {

int CmdServe(const Options&)
{
    std::fprintf(stderr, "tavk05: serve was not built into this tavk05 (Boost.Beast and nlohmann-json were missing)\n");
    return EXIT_USAGE;
}

}  // namespace cli
