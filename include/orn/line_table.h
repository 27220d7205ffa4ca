// Which code interval came from which source position.
#ifndef ORN_LINE_TABLE_H
#define ORN_LINE_TABLE_H

#include "orn/source.h"

namespace ORN_3_30 {

class IFileFormatLoader;

/// Store of line ranges, keyed by file and by pseudo address. Takes no lock of its own.
class ILineTable : public ISymMgrObject {
public:
    virtual ~ILineTable() {}
    /// The lines at one address; a file id of all ones means all files.
    virtual void sourceLinesAt(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out,
                               unsigned long long address, unsigned long long unitId, unsigned fileId) = 0;
    /// The lines that overlap [low, high).
    virtual void sourceLinesInRange(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out,
                                    unsigned long long unitId, unsigned fileId, unsigned long long low,
                                    unsigned long long high) = 0;
    /// Adds one range. Gives a token that is null only if the range could not be stored.
    virtual void* addLineRange(unsigned long long unitId, unsigned fileId, unsigned line, unsigned column,
                               unsigned long long address, unsigned long long size,
                               unsigned long long tag) = 0;
};

} // namespace ORN_3_30

#endif
