// Regions of the address space and what is known inside them.
#ifndef ORN_SCOPE_H
#define ORN_SCOPE_H

#include "orn/export.h"
#include "orn/status.h"
#include "orn/symbol_table.h"

namespace ORN_3_30 {

class IFileFormatLoader;
class SymbolScope;

/// A region of pseudo addresses with the symbols inside it: a whole module, or one function.
class IScope : public ISymMgrObject {
public:
    /// Borrowed; null for a whole module.
    virtual IScope* parent() = 0;
    /// The symbol whose region this is, borrowed; may be null.
    virtual ISymbol* symbol() = 0;
    /// Borrowed; null unless the region is inlined code.
    virtual IInlineInstance* inlineInstance() = 0;
    /// All ranges that overlap [low, high). A mask of 0 means the kinds already loaded. `status_False` with
    /// `out` untouched or null: nothing found.
    virtual status_t symbolRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out,
                                  unsigned long long low, unsigned long long high, symbol_kind_t mask) = 0;
    /// The one range that wins at an address.
    virtual status_t symbolRangeByAddress(SymMgrObjectPtr<ISymbolRange>& out, unsigned long long address,
                                          symbol_kind_t mask, ISymbolSelector* selector) = 0;

protected:
    ~IScope() = default;
};

/// Makes a scope with its symbol. The caller adds ranges and hands the scope to a table, which owns it from
/// then on.
ORN_API SymbolScope* createSymbolScope(IFileFormatLoader& loader, const char* name, unsigned long long value,
                                       Scope* parent, symbol_visibility_t visibility, symbol_kind_t kind);

} // namespace ORN_3_30

#endif
