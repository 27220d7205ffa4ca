// The rows of a module's line tables.
#ifndef ORN_TOOLS_LINE_SOURCE_H
#define ORN_TOOLS_LINE_SOURCE_H

#include "module_session.h"

#include "orn/debug_info_loader.h"
#include "orn/file_format_loader.h"
#include "orn/source.h"

#include <limits>
#include <optional>
#include <string_view>
#include <vector>

namespace orn_tool {

/// Code [begin, end), in pseudo addresses, that came from one position. The text is borrowed from the source.
struct LineRow {
    unsigned long long begin;
    unsigned long long end;
    const char* file; ///< null if it is not known
    unsigned line;    ///< 0: none
    unsigned column;  ///< 0: none
    unsigned long long discriminator;
};

/// Reads lines beside the bank of a session, from the symbol file that the session took.
class LineSource {
public:
    /// Reads the line tables of all units. `status_False` if there is nothing to read them from.
    ORN_3_30::status_t load(const ModuleSession& session);

    /// Both append rows, those of code only; rows reach into [low, high) and are cut there.
    ORN_3_30::status_t collectRange(unsigned long long low, unsigned long long high,
                                    std::vector<LineRow>& rows);
    /// `name`: a path or the end of one, from a directory on. `line`: without, all lines.
    ORN_3_30::status_t collectFile(std::string_view name, const std::optional<unsigned>& line,
                                   std::vector<LineRow>& rows);

private:
    ORN_3_30::status_t loadLinesWithSymbols();

    static constexpr unsigned everyFile = std::numeric_limits<unsigned>::max();
    static constexpr unsigned long long highest = std::numeric_limits<unsigned long long>::max();

    ORN_3_30::status_t collect(unsigned fileId, unsigned long long low, unsigned long long high,
                               std::vector<LineRow>& rows);

    ORN_3_30::SymMgrObjectPtr<ORN_3_30::IFileFormatLoader> m_format;
    ORN_3_30::SymMgrObjectPtr<ORN_3_30::IDebugInfoLoader> m_debugInfo;
    ORN_3_30::ISrcLineResolver* m_resolver = nullptr; ///< the reader's
};

/// By address; a row that came twice stays once.
void sortRows(std::vector<LineRow>& rows);

} // namespace orn_tool

#endif
