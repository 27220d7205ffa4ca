// Line resolvers. Symbols, source files and the bank ask them for lines; they see to it that the line
// programs that a query needs have run, then ask the line table. What a line program is they do not know:
// the debug info loader and its units run them and hand rows and files back.

#include "orn_dil.h"

#include "orn/address.h"
#include "orn/comp_unit_details.h"
#include "orn/debug_info_loader.h"
#include "orn_linetable_iterators.h"
#include "orn_log.h"
#include "orn_sourceline_impl.h"

namespace ORN_3_30 {

namespace {

unsigned long long startOf(ISourceLine& line) {
    SymMgrObjectPtr<IAddress> address;
    line.address(address);
    return address->pseudoAddr();
}

/// The line that starts last; of several the first one.
SymMgrObjectPtr<ISourceLine> innermostLine(SrcLineResolver::LineIterator* srcLineIt) {
    SymMgrObjectPtr<ISourceLine> best = srcLineIt->current();
    while (srcLineIt->next()) {
        SymMgrObjectPtr<ISourceLine> candidate = srcLineIt->current();
        if (!ORN_ASSERT_TEXT(candidate, "srcLineIt->current()!=NULL"))
            continue;
        if (best && startOf(*best) < startOf(*candidate))
            best = std::move(candidate);
    }
    return best;
}

} // namespace

// SrcLineResolver

void SrcLineResolver::linesAt(SymMgrObjectPtr<LineIterator>& out, unsigned long long address,
                              unsigned long long unitId, ILineTable* table) {
    if (isFailure(sourceLinesInRange(out, address, address, unitId, LineQuery::everyFile, table)))
        out = nullptr;
}

void SrcLineResolver::sourceLocationAt(SymMgrObjectPtr<ISourceLocation>& out, unsigned long long address,
                                       unsigned long long unitId, ILineTable* table,
                                       ISourceLocationSelector* selector) {
    if (!selector) {
        SymMgrObjectPtr<ISourceLine> line;
        sourceLineAt(line, address, unitId, table);
        out = line ? line->location() : nullptr;
        return;
    }
    SymMgrObjectPtr<LineIterator> lines;
    linesAt(lines, address, unitId, table);
    if (!lines) {
        out = nullptr;
        return;
    }
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLocation>>> locations =
        new SourceLineToLocIterator(lines);
    out = selector->select(locations);
}

void SrcLineResolver::sourceLineAt(SymMgrObjectPtr<ISourceLine>& out, unsigned long long address,
                                   unsigned long long unitId, ILineTable* table) {
    SymMgrObjectPtr<LineIterator> lines;
    linesAt(lines, address, unitId, table);
    out = lines ? innermostLine(lines) : nullptr;
}

status_t SrcLineResolver::sourceLines(SymMgrObjectPtr<LineIterator>& out, unsigned long long unitId,
                                      unsigned fileId, unsigned long long low, unsigned long long high,
                                      ILineTable* table) {
    try {
        return sourceLinesInRange(out, low, high, unitId, fileId, table);
    }
    ORN_CATCH_OUT_OF_MEMORY
}

// LineResolver

LineResolver::LineResolver(IFileFormatLoader* loader, IDebugInfoLoader* debugLoader, IScope* scope,
                           ILock* loadLock)
    : m_loader(loader), m_debugLoader(debugLoader), m_scope(scope), m_loadLock(loadLock) {}

LineResolver::~LineResolver() {
    for (ISourceFile* file : m_files)
        static_cast<SourceFile*>(file)->release();
}

void LineResolver::setScope(IScope* scope, ILock* loadLock) {
    m_scope = scope;
    m_loadLock = loadLock;
}

unsigned LineResolver::fileCount() {
    ScopedLock guard(m_loadLock);
    return static_cast<unsigned>(m_files.size());
}

ISourceFile* LineResolver::fileAt(unsigned index) {
    ScopedLock guard(m_loadLock);
    return index < m_files.size() ? m_files[index] : nullptr;
}

ICompUnitDetails* LineResolver::compUnitDetails(unsigned long long id) {
    return m_debugLoader->getCompilationUnit(id);
}

/// The iterator is made under the lock too, as the table is not to grow meanwhile.
status_t LineResolver::sourceLinesInRange(SymMgrObjectPtr<LineIterator>& out, unsigned long long low,
                                          unsigned long long high, unsigned long long unitId, unsigned fileId,
                                          ILineTable* table) {
    ScopedLock guard(m_loadLock);
    const status_t status = ensureLines(unitId);
    if (status != status_Ok)
        return status;
    ILineTable* source = table ? table : m_lineTable.get();
    if (source)
        out = new InlineCallerSourceLineIterator(*this, *m_loader, m_scope, *source,
                                                 {low, high, unitId, fileId});
    return status_Ok;
}

/// A query that names a unit runs that unit's program alone. A unit that is not known may just not have been
/// looked for yet: then all are run.
status_t LineResolver::ensureLines(unsigned long long unitId) {
    if (!LineQuery::isEveryUnit(unitId))
        if (ICompUnitDetails* unit = m_debugLoader->getCompilationUnit(unitId))
            return unit->loadLines(nullptr);
    return m_debugLoader->loadLineTable(m_lineTable);
}

void LineResolver::addLineRange(unsigned long long, unsigned, unsigned, unsigned, unsigned long long,
                                unsigned long long, unsigned long long) {}

unsigned LineResolver::addFile(std::string_view path, unsigned long long modificationTime,
                               unsigned long long length) {
    ScopedLock guard(m_loadLock);
    if (const auto known = m_fileIdsByPath.find(path); known != m_fileIdsByPath.end())
        return known->second;
    const auto id = static_cast<unsigned>(m_files.size());
    SymMgrObjectPtr<SourceFile> file = new SourceFile(this, id, std::string(path), modificationTime, length);
    m_files.push_back(file.get());
    file->addRef(); // from here on the destructor's
    m_fileIdsByPath.emplace(file->name(), id);
    return id;
}

unsigned LineResolver::registerFile(ICompUnitDetails& unit, std::string_view path,
                                    unsigned long long modificationTime, unsigned long long length) {
    ScopedLock guard(m_loadLock);
    const unsigned id = addFile(path, modificationTime, length);
    unit.addFileId(id);
    return id;
}

int LineResolver::fileIdOf(unsigned long long number, ICompUnitDetails& unit) {
    if (number > 0xFFFFFFFF)
        return -1;
    ScopedLock guard(m_loadLock);
    // Whatever the outcome: a program that fails behind its file table has delivered its files.
    static_cast<void>(unit.loadLines(nullptr));
    return static_cast<int>(unit.getFileId(static_cast<unsigned>(number)));
}

ISourceFile* LineResolver::fileByPath(std::string_view path) {
    ScopedLock guard(m_loadLock);
    const auto known = m_fileIdsByPath.find(path);
    return known != m_fileIdsByPath.end() ? m_files[known->second] : nullptr;
}

} // namespace ORN_3_30
