// The verbs of the command line. Each gives the program's exit status.
#ifndef ORN_TOOLS_COMMANDS_H
#define ORN_TOOLS_COMMANDS_H

#include "module_session.h"
#include "symbolizer.h"

#include <string>
#include <vector>

namespace orn_tool {

struct SymbolizeOptions {
    std::string module;
    std::vector<std::string> addresses; ///< none: from standard input
    AddressSpace space = AddressSpace::Pseudo;
    bool asJson = false;
};
int runSymbolize(const SymbolizeOptions& options);

struct InfoOptions {
    std::string module;
    bool asJson = false;
};
int runInfo(const InfoOptions& options);

struct SymbolsOptions {
    std::string module;
    std::vector<std::string> kinds; ///< words of kindWords(); none: all
    bool isCut = false;
    bool asJson = false;
};
int runSymbols(const SymbolsOptions& options);

} // namespace orn_tool

#endif
