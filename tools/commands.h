// The verbs of the command line. Each gives the program's exit status.
#ifndef ORN_TOOLS_COMMANDS_H
#define ORN_TOOLS_COMMANDS_H

#include "module_session.h"
#include "symbolizer.h"

#include <string>
#include <vector>

namespace orn_tool {

struct SymbolizeOptions {
    ModuleChoice module;
    std::vector<std::string> addresses; ///< none: from standard input
    AddressSpace space = AddressSpace::Pseudo;
    bool asJson = false;
};
int runSymbolize(const SymbolizeOptions& options);

struct InfoOptions {
    ModuleChoice module;
    bool asJson = false;
};
int runInfo(const InfoOptions& options);

struct SymbolsOptions {
    ModuleChoice module;
    std::vector<std::string> kinds; ///< words of kindWords(); none: all
    bool isCut = false;
    bool asJson = false;
};
int runSymbols(const SymbolsOptions& options);

/// One of `range`, `file` and `symbol` says what is asked.
struct LinesOptions {
    ModuleChoice module;
    std::vector<std::string> range; ///< two addresses
    std::string file;               ///< with or without ":LINE"
    std::string symbol;
    bool asJson = false;
};
int runLines(const LinesOptions& options);

/// Addresses and registers as they stand on the command line.
struct FrameOptions {
    ModuleChoice module;
    std::string code;
    std::string data;
    std::string stackPointer;
    std::string framePointer;
    bool asJson = false;
};
int runFrame(const FrameOptions& options);

struct UnitsOptions {
    ModuleChoice module;
    bool asJson = false;
};
int runUnits(const UnitsOptions& options);

struct ReportsOptions {
    ModuleChoice module;
    std::vector<std::string> range; ///< two addresses; none: all
    bool asJson = false;
};
int runReports(const ReportsOptions& options);

} // namespace orn_tool

#endif
