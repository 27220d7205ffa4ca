// Source files, locations and lines. They carry what the debug information says and look files up through
// their resolver; they load nothing of their own accord, but a file's query for its lines makes the resolver
// load.

#include "orn_sourceline_impl.h"

#include "orn/file_format_loader.h"
#include "orn_address.h"
#include "orn_log.h"

#include <exception>
#include <utility>

namespace ORN_3_30 {

// SourceFile

SourceFile::SourceFile(ISrcLineResolver* resolver, unsigned id, std::string name,
                       unsigned long long modificationTime, unsigned long long length)
    : m_resolver(resolver),
      m_name(std::move(name)),
      m_id(id),
      m_timestamp(0),
      m_modificationTime(modificationTime),
      m_length(length) {}

unsigned SourceFile::release() {
    return SymMgrObjectImpl::release();
}

status_t SourceFile::sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out,
                                 unsigned long long unitId, IAddress* low, IAddress* high) {
    try {
        SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>> lines;
        const status_t status = m_resolver->sourceLines(lines, unitId, m_id, low ? low->pseudoAddr() : 0,
                                                        high ? high->pseudoAddr() : ~0ULL, nullptr);
        if (isFailure(status))
            return status;
        out = lines;
        return out ? status_Ok : status_False;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

// SourceLocation

SourceLocation::SourceLocation(ISrcLineResolver* resolver, unsigned long long symbolId, unsigned fileIndex,
                               unsigned line, unsigned column, unsigned long long extra)
    : SymMgrObject(nullptr),
      m_file(nullptr),
      m_resolver(resolver),
      m_line(line),
      m_column(column),
      m_fileIndex(fileIndex),
      m_extra(extra),
      m_symbolId(symbolId) {}

/// A number that the resolver does not know yet is asked for again next time.
ISourceFile* SourceLocation::file() {
    try {
        if (!m_file)
            m_file = m_resolver->fileAt(m_fileIndex);
        return m_file;
    } catch (const std::exception& failure) {
        ORN_LOG_ERROR("Unable to get source file " << m_fileIndex << ": " << failure.what());
        return nullptr;
    }
}

// SourceLine

SourceLine::SourceLine(IFileFormatLoader* loader, ISrcLineResolver* resolver, unsigned long long symbolId,
                       unsigned fileIndex, unsigned line, unsigned column, unsigned long long extra,
                       unsigned long long low, unsigned long long high)
    : SourceLine(loader, new SourceLocation(resolver, symbolId, fileIndex, line, column, extra), low, high) {}

SourceLine::SourceLine(IFileFormatLoader* loader, ISourceLocation* location, unsigned long long low,
                       unsigned long long high)
    : SymMgrObject(nullptr),
      m_loader(loader),
      m_location(location),
      m_address(low),
      m_size(static_cast<unsigned>(high - low)) {}

void SourceLine::address(SymMgrObjectPtr<IAddress>& out) {
    out = new Address(m_loader, m_address, nullptr);
}

unsigned long long SourceLine::relativeAddress() {
    return m_address - m_loader->getImageBase();
}

// SourceLineToLocIterator

SourceLineToLocIterator::SourceLineToLocIterator(IIterator<SymMgrObjectPtr<ISourceLine>>* lines)
    : SymMgrObject(nullptr), m_lines(lines) {}

SymMgrObjectPtr<ISourceLocation> SourceLineToLocIterator::current() {
    const SymMgrObjectPtr<ISourceLine> line = m_lines->current();
    return line ? line->location() : nullptr;
}

} // namespace ORN_3_30
