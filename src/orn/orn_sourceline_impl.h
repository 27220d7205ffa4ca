// Source files, locations and lines: the values that line queries hand out.
#ifndef ORN_SOURCELINE_IMPL_H
#define ORN_SOURCELINE_IMPL_H

#include "orn/source.h"

#include <string>

namespace ORN_3_30 {

class IFileFormatLoader;

/// A file of the debug information. Lives as long as its resolver, which counts it.
class SourceFile final : public ISourceFile, public SymMgrObjectImpl {
public:
    /// The resolver is borrowed. Directory and 32-bit time stay empty: no debug information gives them.
    SourceFile(ISrcLineResolver* resolver, unsigned id, std::string name, unsigned long long modificationTime,
               unsigned long long length);

    /// Not inline: gcc guesses the destructor of the base there and warns of freeing the middle of an object.
    unsigned release() override;

    const char* name() override { return m_name.c_str(); }
    status_t sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out,
                         unsigned long long unitId, IAddress* low, IAddress* high) override;
    const char* directory() override { return m_directory.empty() ? nullptr : m_directory.c_str(); }
    unsigned timestamp() override { return m_timestamp; }
    unsigned long long modificationTime() override { return m_modificationTime; }
    unsigned long long length() override { return m_length; }
    unsigned id() override { return m_id; }

private:
    ISrcLineResolver* m_resolver;
    std::string m_name;
    unsigned m_id;
    std::string m_directory;
    unsigned m_timestamp;
    unsigned long long m_modificationTime;
    unsigned long long m_length;
};

/// A position in source code, by the number of its file. Not counted under a lock.
class SourceLocation : public SymMgrObject<ISourceLocation> {
public:
    /// The resolver is borrowed: it outlives every location that its module hands out.
    SourceLocation(ISrcLineResolver* resolver, unsigned long long symbolId, unsigned fileIndex, unsigned line,
                   unsigned column, unsigned long long extra);

    ISourceFile* file() override;
    unsigned long long symbolId() override { return m_symbolId; }
    unsigned line() override { return m_line; }
    unsigned column() override { return m_column; }
    unsigned long long extra() override { return m_extra; }
    unsigned fileIndex() const { return m_fileIndex; }

private:
    /// Set without a lock: whoever asks gets the same value.
    ISourceFile* m_file;
    ISrcLineResolver* m_resolver;
    unsigned m_line;
    unsigned m_column;
    unsigned m_fileIndex;
    unsigned long long m_extra;
    unsigned long long m_symbolId;
};

/// A position bound to an interval of code.
class SourceLine : public SymMgrObject<ISourceLine> {
public:
    /// The loader and the resolver are borrowed; [low, high) is the interval.
    SourceLine(IFileFormatLoader* loader, ISrcLineResolver* resolver, unsigned long long symbolId,
               unsigned fileIndex, unsigned line, unsigned column, unsigned long long extra,
               unsigned long long low, unsigned long long high);
    SourceLine(IFileFormatLoader* loader, ISourceLocation* location, unsigned long long low,
               unsigned long long high);

    ISourceLocation* location() override { return m_location; }
    unsigned size() override { return m_size; }
    void address(SymMgrObjectPtr<IAddress>& out) override;
    unsigned long long relativeAddress() override;

private:
    IFileFormatLoader* m_loader;
    SymMgrObjectPtr<ISourceLocation> m_location;
    unsigned long long m_address;
    unsigned m_size;
};

/// Shows an iterator of lines as one of their locations.
class SourceLineToLocIterator : public SymMgrObject<IIterator<SymMgrObjectPtr<ISourceLocation>>> {
public:
    explicit SourceLineToLocIterator(IIterator<SymMgrObjectPtr<ISourceLine>>* lines);

    SymMgrObjectPtr<ISourceLocation> current() override;
    bool next() override { return m_lines->next(); }
    void reset() override { m_lines->reset(); }

private:
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>> m_lines;
};

} // namespace ORN_3_30

#endif
