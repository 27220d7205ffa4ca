// Where people keep debug files, and which of them a module gets.
#ifndef ORN_TOOLS_DEBUG_FILE_SEARCH_H
#define ORN_TOOLS_DEBUG_FILE_SEARCH_H

#include "orn/symbol_file.h"

#include <string>
#include <vector>

namespace orn_tool {

/// A candidate for the module's symbol file as it was when the choice was made.
struct Candidate {
    std::string wantedName;
    unsigned kind;  ///< symbol_file_type_t
    unsigned state; ///< as of ISymbolFileToResolve
    bool isRequired;
    bool isChosen;
    bool isSearched;                  ///< the debug directories were gone through
    std::vector<std::string> refused; ///< files that lay there and did not pass
};

/// Takes the first candidate that is usable, as it stands or by a file in one of the directories, and writes
/// down what there was. Nothing is searched for candidates behind the one that is taken.
class DebugFileSearch : public ORN_3_30::ISymbolFileResolver {
public:
    /// Both are borrowed for the time of the load.
    DebugFileSearch(const std::vector<std::string>& directories, std::vector<Candidate>& record)
        : m_directories(directories), m_record(record) {}

    long long
    resolveSymbolFile(ORN_3_30::SymMgrObjectPtr<ORN_3_30::IIterator<
                          ORN_3_30::SymMgrObjectPtr<ORN_3_30::ISymbolFileToResolve>>>& candidates) override;

private:
    void search(ORN_3_30::ISymbolFileToResolve& candidate, Candidate& entry) const;
    std::vector<std::string> placesOf(ORN_3_30::ISymbolFileToResolve& candidate) const;

    const std::vector<std::string>& m_directories;
    std::vector<Candidate>& m_record;
};

} // namespace orn_tool

#endif
