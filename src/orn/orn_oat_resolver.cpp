// The line resolver of compiled managed code. The line machine fills it while symbols are loaded; symbols,
// source files and the bank ask it. Nothing is read on demand here.

#include "orn_oat_resolver.h"

#include "orn/file_format_loader.h"
#include "orn_linetable_iterators.h"
#include "orn_log.h"

#include <utility>

namespace ORN_3_30 {

namespace {

/// A container has no units: all its lines stand under one number.
constexpr unsigned long long onlyUnit = 0;
constexpr unsigned long long noTag = 0;

} // namespace

OATSrcLineResolver::OATSrcLineResolver(IFileFormatLoader* loader, IScope* scope, ILock* loadLock)
    : m_loader(loader),
      m_scope(scope),
      m_loadLock(loadLock),
      m_lineTable(ILineTable::create(*loader, *this)) {}

OATSrcLineResolver::~OATSrcLineResolver() = default;

void OATSrcLineResolver::setScope(IScope* scope, ILock* loadLock) {
    m_scope = scope;
    m_loadLock = loadLock;
}

unsigned OATSrcLineResolver::fileCount() {
    ScopedLock guard(m_loadLock);
    return static_cast<unsigned>(m_sourceFiles.size());
}

ISourceFile* OATSrcLineResolver::fileAt(unsigned index) {
    ScopedLock guard(m_loadLock);
    if (index >= m_sourceFiles.size()) {
        ORN_LOG_WARNING("Invalid source file id: " << index);
        return nullptr;
    }
    return m_sourceFiles[index].get();
}

/// Quirk: no load runs first, unlike with resolvers of other formats: lines are there once the symbols are.
status_t OATSrcLineResolver::sourceLinesInRange(SymMgrObjectPtr<LineIterator>& out, unsigned long long low,
                                                unsigned long long high, unsigned long long unitId,
                                                unsigned fileId, ILineTable* table) {
    ScopedLock guard(m_loadLock);
    out = new InlineCallerSourceLineIterator(*this, *m_loader, m_scope, table ? *table : *m_lineTable,
                                             {low, high, unitId, fileId});
    return status_Ok;
}

// A load holds the loading lock already; taken here it would come behind the lock of the debug info loader.

void OATSrcLineResolver::addLine(unsigned fileId, unsigned line, unsigned column, unsigned long long address,
                                 unsigned long long size) {
    ORN_LOG_INFO("Adding line to table: fileID=" << fileId << " line=" << line << " range: 0x" << std::hex
                                                 << address << " - 0x" << address + size);
    m_lineTable->addLineRange(onlyUnit, fileId, line, column, address, size, noTag);
}

unsigned OATSrcLineResolver::findOrAddFile(std::string_view name) {
    std::string key(name);
    if (const auto known = m_fileIdsByName.find(key); known != m_fileIdsByName.end())
        return known->second;
    const auto id = static_cast<unsigned>(m_sourceFiles.size());
    m_sourceFiles.push_back(new SourceFile(this, id, key, 0, 0));
    m_fileIdsByName.emplace(std::move(key), id);
    return id;
}

} // namespace ORN_3_30
