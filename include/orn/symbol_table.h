// Who owns which address: symbol ranges and the table that ranks them.
#ifndef ORN_SYMBOL_TABLE_H
#define ORN_SYMBOL_TABLE_H

#include "orn/export.h"
#include "orn/iterator.h"
#include "orn/types.h"

namespace ORN_3_30 {

class IAddress;
class IInlineInstance;
class ISymbol;
class IThunk;
class Scope;

/// One interval of pseudo addresses, half-open, and what owns it. A range is a copy: it stays valid while
/// tables change, as long as the bank lives.
class ISymbolRange : public ISymMgrObject {
public:
    virtual void beginAddress(SymMgrObjectPtr<IAddress>& out) = 0;
    virtual void endAddress(SymMgrObjectPtr<IAddress>& out) = 0;
    /// Length in bytes.
    virtual unsigned long long size() = 0;
    /// Distance from the begin to the next symbol, for symbols whose size is not to be trusted.
    virtual unsigned long long sizeToNextSymbol() = 0;
    /// Borrowed; may be null.
    virtual ISymbol* symbol() = 0;
    /// Borrowed; null unless the range belongs to inlined code.
    virtual IInlineInstance* inlineInstance() = 0;
    /// Borrowed; null unless a thunk of the symbol holds the begin.
    virtual IThunk* thunk() = 0;
    /// The enclosing scope's range that holds the begin; null at the outermost level.
    virtual void parentRange(SymMgrObjectPtr<ISymbolRange>& out) = 0;
    /// 1 if the symbol's own address is the begin.
    virtual int startsSymbol() = 0;
    /// Ranges nested inside this one.
    virtual void nestedRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out) = 0;
    /// The nested range at one address; null if there is none.
    virtual void nestedRangeByAddress(SymMgrObjectPtr<ISymbolRange>& out, IAddress* address) = 0;

protected:
    ~ISymbolRange() = default;
};

/// Decides among several symbols at one address; implemented by callers. Not asked about a single candidate.
class ISymbolSelector {
public:
    /// The chosen candidate. Null, or a symbol that is no candidate, means that nothing is found.
    virtual SymMgrObjectPtr<ISymbol>
    select(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbol>>>& candidates) = 0;

protected:
    ~ISymbolSelector() = default;
};

/// Keeps every symbol of one scope, overlaps included, and decides at query time. Addresses are pseudo
/// addresses. The table takes no lock: its scope serialises loads.
class ISymbolTable : public ISymMgrObject {
public:
    /// Enters all ranges and thunks of `scope`, which belongs to the table from here on, also when it is
    /// refused (then it is destroyed). 1 if it stayed.
    virtual int addScope(Scope* scope) = 0;
    /// The same for one interval. A null scope marks the end of a section.
    virtual int addScopeRange(unsigned long long low, unsigned long long high, Scope* scope) = 0;
    /// The winner at an address; null if there is none.
    virtual void symbolRangeByAddress(SymMgrObjectPtr<ISymbolRange>& out, unsigned long long address,
                                      symbol_kind_t mask, ISymbolSelector* selector) = 0;
    /// Everything that overlaps [low, high), as it was entered; null if there is nothing.
    virtual void symbolRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out,
                              unsigned long long low, unsigned long long high, symbol_kind_t mask) = 0;
    /// [low, high) cut into intervals that do not overlap, each with its winner; null if there is nothing.
    virtual void nonOverlappedSymbolRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out,
                                           unsigned long long low, unsigned long long high,
                                           symbol_kind_t mask, ISymbolSelector* selector) = 0;
    /// The table's scope, borrowed.
    virtual Scope* scope() = 0;

    /// A new table for `scope`, count 0, not guarded; null without memory.
    ORN_API static ISymbolTable* create(Scope* scope);

protected:
    ~ISymbolTable() = default;
};

} // namespace ORN_3_30

#endif
