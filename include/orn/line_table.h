// Which code interval came from which source position.
#ifndef ORN_LINE_TABLE_H
#define ORN_LINE_TABLE_H

#include "orn/export.h"
#include "orn/source.h"

namespace ORN_3_30 {

class IFileFormatLoader;

/// Which intervals of code came from which source positions, for all units of a module. It only grows.
/// Addresses are pseudo addresses. Lines come by file id, unit id, address, line, column, ascending; unit ids
/// 0, 0xFFFFFFFF and all ones mean every unit, a file id of all ones means every file. An iterator without
/// lines is handed out all the same: its `current()` is null at once.
///
/// The table takes no lock: who shares it between threads serialises additions and the making of iterators.
/// An iterator shows what the table held when it was made. An allocation failure throws `std::bad_alloc`.
class ILineTable : public ISymMgrObject {
public:
    virtual ~ILineTable() {}
    /// The lines at one address. A line of size 0 is at none.
    virtual void sourceLinesAt(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out,
                               unsigned long long address, unsigned long long unitId, unsigned fileId) = 0;
    /// The lines that overlap [low, high); the lines at `low` if both are equal.
    virtual void sourceLinesInRange(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out,
                                    unsigned long long unitId, unsigned fileId, unsigned long long low,
                                    unsigned long long high) = 0;
    /// Adds the range [address, address + size). `tag` comes back as `ISourceLocation::extra`. Gives a token
    /// that is null only if the range could not be stored.
    virtual void* addLineRange(unsigned long long unitId, unsigned fileId, unsigned line, unsigned column,
                               unsigned long long address, unsigned long long size,
                               unsigned long long tag) = 0;

    /// A new table, count 0, not guarded. The loader and the resolver are borrowed and outlive it; lines are
    /// made with them.
    ORN_API static ILineTable* create(IFileFormatLoader& loader, ISrcLineResolver& resolver);
};

} // namespace ORN_3_30

#endif
