// Searches debug files where distributions install them: below the debug directories under the build id, or
// under the name of the debug link, first in a copy of the module's own place. What lies beside the module
// the library has tried itself. Whether a file is the right one is the candidate's to judge.
//
// The candidates are seen by taking part in the choice: the library shows them to nobody else.

#include "debug_file_search.h"

#include <filesystem>
#include <string_view>
#include <system_error>

namespace orn_tool {

using ORN_3_30::IIterator;
using ORN_3_30::ISymbolFileToResolve;
using ORN_3_30::SymMgrObjectPtr;
using enum ORN_3_30::symbol_file_state_t;

namespace {

std::string textOf(const char* text) {
    return text ? text : "";
}

bool isFile(const std::string& path) {
    std::error_code ignored; // what cannot be looked at is no file
    return std::filesystem::is_regular_file(path, ignored);
}

/// Absolute and without links, as debug directories repeat it; empty if there is none.
std::string directoryOf(const std::string& path) {
    std::error_code error;
    const std::filesystem::path real = std::filesystem::canonical(path, error);
    return error ? std::string() : real.parent_path().string();
}

std::string pathIn(std::string directory, const std::string& name) {
    return directory.append(1, '/').append(name);
}

} // namespace

long long DebugFileSearch::resolveSymbolFile(
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>>& candidates) {
    long long chosen = -1;
    m_record.clear();
    if (!candidates)
        return chosen;
    candidates->reset();
    while (SymMgrObjectPtr<ISymbolFileToResolve> candidate = candidates->current()) {
        Candidate entry{};
        if (chosen < 0)
            search(*candidate, entry);
        entry.wantedName = textOf(candidate->wantedName());
        entry.kind = candidate->kind();
        entry.state = candidate->state();
        entry.isRequired = candidate->isRequired() != 0;
        entry.isChosen = chosen < 0 && entry.state == symbol_file_usable;
        if (entry.isChosen)
            chosen = static_cast<long long>(m_record.size());
        m_record.push_back(std::move(entry));
        if (!candidates->next())
            break;
    }
    return chosen;
}

void DebugFileSearch::search(ISymbolFileToResolve& candidate, Candidate& entry) const {
    if (candidate.state() != symbol_file_to_search_for && candidate.state() != symbol_file_wrong_crc)
        return;
    for (const std::string& path : placesOf(candidate)) {
        entry.isSearched = true;
        if (!isFile(path))
            continue;
        if (candidate.resolve(path.c_str()) >= 0)
            return;
        entry.refused.push_back(path);
    }
}

std::vector<std::string> DebugFileSearch::placesOf(ISymbolFileToResolve& candidate) const {
    std::vector<std::string> places;
    const std::string name = textOf(candidate.wantedName());
    if (name.empty())
        return places;
    constexpr std::string_view buildIdDirectory = ".build-id/";
    const bool isByBuildId = name.starts_with(buildIdDirectory);
    const std::string moduleDirectory = isByBuildId ? "" : directoryOf(textOf(candidate.modulePath()));
    for (const std::string& directory : m_directories) {
        if (!moduleDirectory.empty())
            places.push_back(pathIn(directory + moduleDirectory, name));
        places.push_back(pathIn(directory, name));
    }
    return places;
}

} // namespace orn_tool
