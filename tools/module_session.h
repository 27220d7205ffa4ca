// One module, loaded for one run of a verb.
#ifndef ORN_TOOLS_MODULE_SESSION_H
#define ORN_TOOLS_MODULE_SESSION_H

#include "debug_file_search.h"

#include "orn/file_format_loader.h"
#include "orn/module_symbol_bank.h"
#include "orn/symbol_manager.h"

#include <string>
#include <vector>

namespace orn_tool {

/// Exit status of the program. A write that fails counts as the first of the two failures.
enum exit_status_t : int { exit_Done = 0, exit_NotLoaded = 1, exit_Usage = 2 };

/// What a verb is asked about, and where debug files that are not beside it may lie.
struct ModuleChoice {
    std::string path;
    std::string architecture; ///< a word of architectureWords(); empty: the file tells it
    std::string kernel;       ///< of a GPU binary
    std::vector<std::string> debugDirectories = {"/usr/lib/debug"};
};

/// Holds the manager and the bank, and with them everything that a verb asks for.
class ModuleSession {
public:
    explicit ModuleSession(ModuleChoice choice) : m_choice(std::move(choice)) {}
    ModuleSession(const ModuleSession&) = delete;
    ModuleSession& operator=(const ModuleSession&) = delete;

    /// Loads the module; says on standard error what is wrong if that fails.
    bool load();

    /// As it stands on the command line.
    const std::string& path() const { return m_choice.path; }
    ORN_3_30::IModuleSymbolBank& bank() const { return *m_bank; }
    /// Of a GPU binary; empty if none was named.
    const std::string& kernel() const { return m_choice.kernel; }
    const std::vector<Candidate>& candidates() const { return m_candidates; }
    /// A loader of the module beside the bank's own, for what the bank does not tell.
    ORN_3_30::status_t openFormat(ORN_3_30::SymMgrObjectPtr<ORN_3_30::IFileFormatLoader>& loader) const;
    /// Says on standard error what is missing for the lines of a GPU binary.
    void askForKernel() const;
    /// How wide the addresses of the module are as text, so that they stand in columns.
    std::size_t addressWidth() const;

private:
    ORN_3_30::arch_t architecture() const;

    ModuleChoice m_choice;
    ORN_3_30::SymMgrObjectPtr<ORN_3_30::ISymbolManager> m_manager;
    ORN_3_30::SymMgrObjectPtr<ORN_3_30::IModuleSymbolBank> m_bank;
    std::vector<Candidate> m_candidates;
};

class Output;

/// Sends what is left and gives the exit status; says on standard error if something could not be written.
int finish(Output& output);

/// The one line about a module that cannot be loaded: path, status, and what a person can do.
void reportFailure(const std::string& path, ORN_3_30::status_t status);

/// One line of the program's own on standard error.
void printError(const std::string& line);

/// What there is to say about debug information of a version that the library does not read.
std::string unreadVersionText();

/// Says that symbols could be read in part only.
void warnAboutSymbols(const std::string& path, ORN_3_30::status_t status);

} // namespace orn_tool

#endif
