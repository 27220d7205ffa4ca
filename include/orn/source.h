// Source files, lines and locations, and the resolver that makes them.
#ifndef ORN_SOURCE_H
#define ORN_SOURCE_H

#include "orn/iterator.h"
#include "orn/status.h"

namespace ORN_3_30 {

class IAddress;
class ICompUnitDetails;
class ILineTable;
class ISourceLine;

/// A file known to the debug information. Owned by its resolver: hold the bank for as long as you hold it.
class ISourceFile {
public:
    /// The name as the debug information gives it.
    virtual const char* name() = 0;
    /// The file's lines in [low, high); null limits are open. `status_False` if there is no answer.
    virtual status_t sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out,
                                 unsigned long long unitId, IAddress* low, IAddress* high) = 0;
    /// Null if there is none.
    virtual const char* directory() = 0;
    virtual unsigned timestamp() = 0;
    virtual unsigned long long modificationTime() = 0;
    /// Length in bytes as the debug information gives it.
    virtual unsigned long long length() = 0;
    /// The number of the file in line tables.
    virtual unsigned id() = 0;

protected:
    ~ISourceFile() = default;
};

/// A position in source code.
class ISourceLocation : public ISymMgrObject {
public:
    /// Borrowed; null if the file is not known.
    virtual ISourceFile* file() = 0;
    virtual unsigned long long symbolId() = 0;
    virtual unsigned line() = 0;
    virtual unsigned column() = 0;
    /// A further coordinate passed through from the debug information.
    virtual unsigned long long extra() = 0;

protected:
    ~ISourceLocation() = default;
};

/// A position bound to an interval of code.
class ISourceLine : public ISymMgrObject {
public:
    /// Borrowed from the line.
    virtual ISourceLocation* location() = 0;
    /// Length of the code interval in bytes.
    virtual unsigned size() = 0;
    /// Start of the interval.
    virtual void address(SymMgrObjectPtr<IAddress>& out) = 0;
    /// Start of the interval as an RVA.
    virtual unsigned long long relativeAddress() = 0;

protected:
    ~ISourceLine() = default;
};

/// Decides among several source locations; implemented by callers.
class ISourceLocationSelector {
public:
    virtual SymMgrObjectPtr<ISourceLocation>
    select(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLocation>>>& candidates) = 0;

protected:
    ~ISourceLocationSelector() = default;
};

/// Stands between queries and a line table: knows the source files and makes sure that lines are loaded.
/// Unit ids 0, 0xFFFFFFFF and all ones mean every unit; a file id of all ones means every file.
class ISrcLineResolver : public ISymMgrObject {
public:
    virtual ~ISrcLineResolver() {}
    /// The one location that answers which source is at an address; null if there is none.
    virtual void sourceLocationAt(SymMgrObjectPtr<ISourceLocation>& out, unsigned long long address,
                                  unsigned long long unitId, ILineTable* table,
                                  ISourceLocationSelector* selector) = 0;
    virtual status_t sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out,
                                 unsigned long long unitId, unsigned fileId, unsigned long long low,
                                 unsigned long long high, ILineTable* table) = 0;
    virtual unsigned fileCount() = 0;
    /// Borrowed; null beyond the end.
    virtual ISourceFile* fileAt(unsigned index) = 0;
    /// Borrowed; null if there is no such unit.
    virtual ICompUnitDetails* compUnitDetails(unsigned long long id) = 0;
    /// Keeps its place in the table of operations; gives 0.
    virtual int reserved() = 0;
    /// An address of interest was announced.
    virtual void noteAddress(unsigned long long address) = 0;
    /// Borrowed; may be null.
    virtual ILineTable* lineTable() = 0;
};

} // namespace ORN_3_30

#endif
