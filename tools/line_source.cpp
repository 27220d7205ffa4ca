// Reads the line tables as they are. A bank answers with the calls that were expanded at a line as well, and
// it does not list its files; so a reader of the symbol file is made beside it, without the module's scope.

#include "line_source.h"

#include "orn/address.h"
#include "orn/symbol_table.h"

#include <algorithm>
#include <tuple>

namespace orn_tool {

using ORN_3_30::IAddress;
using ORN_3_30::IIterator;
using ORN_3_30::isFailure;
using ORN_3_30::ISourceFile;
using ORN_3_30::ISourceLine;
using ORN_3_30::ISourceLocation;
using ORN_3_30::ISymbolFileToResolve;
using ORN_3_30::ISymbolTable;
using ORN_3_30::status_t;
using ORN_3_30::SymMgrObjectPtr;
using enum ORN_3_30::status_t;
using enum ORN_3_30::symbol_file_state_t;
using enum ORN_3_30::symbol_kind_t;

namespace {

using CandidateIteratorPtr = SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>>;

/// Repeats the choice that the session made, so that both read the same file; negative if there was none.
long long chooseAgain(const std::vector<Candidate>& made, CandidateIteratorPtr& candidates) {
    const auto chosen =
        std::find_if(made.begin(), made.end(), [](const Candidate& each) { return each.isChosen; });
    if (chosen == made.end() || !candidates)
        return -1;
    const long long index = chosen - made.begin();
    candidates->reset();
    for (long long at = 0; at < index; ++at)
        candidates->next();
    const SymMgrObjectPtr<ISymbolFileToResolve> candidate = candidates->current();
    if (!candidate)
        return -1;
    if (candidate->state() != symbol_file_usable)
        return candidate->resolve(chosen->wantedName.c_str());
    return index;
}

bool endsWithPath(std::string_view path, std::string_view name) {
    if (!path.ends_with(name))
        return false;
    return path.size() == name.size() || name.front() == '/' || path[path.size() - name.size() - 1] == '/';
}

LineRow rowOf(ISourceLine& line) {
    SymMgrObjectPtr<IAddress> address;
    line.address(address);
    ISourceLocation* location = line.location();
    ISourceFile* file = location->file();
    const unsigned long long begin = address ? address->pseudoAddr() : 0;
    return {begin,
            begin + line.size(),
            file ? file->name() : nullptr,
            location->line(),
            location->column(),
            location->extra()};
}

std::string_view fileOf(const LineRow& row) {
    return row.file ? std::string_view(row.file) : std::string_view();
}

auto keyOf(const LineRow& row) {
    return std::make_tuple(row.begin, row.end, fileOf(row), row.line, row.column, row.discriminator);
}

} // namespace

status_t LineSource::load(const ModuleSession& session) {
    status_t status = session.openFormat(m_format);
    CandidateIteratorPtr candidates;
    if (!isFailure(status))
        status = m_format->getSymbolFiles(candidates);
    if (isFailure(status))
        return status;
    const long long index = chooseAgain(session.candidates(), candidates);
    if (index < 0)
        return status_False;
    status = m_format->getDebugInfoLoader(m_debugInfo, index);
    if (isFailure(status) || !m_debugInfo)
        return isFailure(status) ? status : status_False;
    m_resolver = m_debugInfo->getLineResolver(nullptr, nullptr);
    if (!m_resolver)
        return status_False;
    status = m_debugInfo->loadLineTable(m_resolver->lineTable());
    return status == status_False ? loadLinesWithSymbols() : status;
}

/// There are formats whose lines come with their symbols and not by themselves. The symbols are dropped.
/// Lines in front of what is damaged are better than none.
status_t LineSource::loadLinesWithSymbols() {
    const SymMgrObjectPtr<ISymbolTable> symbols = ISymbolTable::create(nullptr);
    if (!symbols)
        return status_OutOfMemory;
    const status_t status = m_debugInfo->loadSymbols(symbols, nullptr, symbol_kind_all, m_resolver);
    return m_resolver->fileCount() != 0 ? status_Ok : status;
}

status_t LineSource::collectRange(unsigned long long low, unsigned long long high,
                                  std::vector<LineRow>& rows) {
    const std::size_t first = rows.size();
    const status_t status = collect(everyFile, low, high, rows);
    for (std::size_t at = first; at < rows.size(); ++at) {
        rows[at].begin = std::max(rows[at].begin, low);
        rows[at].end = std::min(rows[at].end, high);
    }
    return status;
}

status_t LineSource::collectFile(std::string_view name, const std::optional<unsigned>& line,
                                 std::vector<LineRow>& rows) {
    const unsigned count = m_resolver->fileCount();
    for (unsigned fileId = 0; fileId < count; ++fileId) {
        ISourceFile* file = m_resolver->fileAt(fileId);
        if (!file || !file->name() || !endsWithPath(file->name(), name))
            continue;
        if (const status_t status = collect(fileId, 0, highest, rows); isFailure(status))
            return status;
    }
    if (line)
        std::erase_if(rows, [&line](const LineRow& row) { return row.line != *line; });
    return status_Ok;
}

/// A row of size 0 marks a place and no code.
status_t LineSource::collect(unsigned fileId, unsigned long long low, unsigned long long high,
                             std::vector<LineRow>& rows) {
    constexpr unsigned long long everyUnit = 0;
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>> lines;
    const status_t status = m_resolver->sourceLines(lines, everyUnit, fileId, low, high, nullptr);
    if (isFailure(status) || !lines)
        return status;
    while (SymMgrObjectPtr<ISourceLine> line = lines->current()) {
        if (line->size() != 0 && line->location())
            rows.push_back(rowOf(*line));
        if (!lines->next())
            break;
    }
    return status;
}

void sortRows(std::vector<LineRow>& rows) {
    std::sort(rows.begin(), rows.end(),
              [](const LineRow& a, const LineRow& b) { return keyOf(a) < keyOf(b); });
    rows.erase(std::unique(rows.begin(), rows.end(),
                           [](const LineRow& a, const LineRow& b) { return keyOf(a) == keyOf(b); }),
               rows.end());
}

} // namespace orn_tool
