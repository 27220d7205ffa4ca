// Scopes of functions, labels, variables and inlined code that debug information tells of.
#ifndef ORN_DILDWARF_SCOPE_H
#define ORN_DILDWARF_SCOPE_H

#include "orn_dildwarf_symbol.h"
#include "orn_scope.h"

#include <atomic>

namespace ORN_3_30 {

/// A scope made of an entry, and its symbol in the same piece of memory.
///
/// What is inside is read at the first query that wants it, one level of the tree of entries at a time, into
/// the scope's own table. Reading runs under the loading lock; once read, queries take no lock.
class DWARFScope : public SymbolScope {
public:
    /// What a scope is made of.
    struct Entry {
        DWARFCompilationUnit* unit;
        unsigned long long offset; ///< in `.debug_info`
        unsigned long long tag;    ///< `DW_TAG_*`
    };

    DWARFScope(IFileFormatLoader* loader, Scope* parent, const DWARFName& name, unsigned long long value,
               symbol_kind_t kind, const Entry& entry,
               DWARFSymbol::DeclaredBy declaredBy = DWARFSymbol::declaredBy_Entry);
    ~DWARFScope() override;

    status_t symbolRanges(SymMgrObjectPtr<RangeIterator>& out, unsigned long long low,
                          unsigned long long high, symbol_kind_t mask) override;
    status_t symbolRangeByAddress(SymMgrObjectPtr<ISymbolRange>& out, unsigned long long address,
                                  symbol_kind_t mask, ISymbolSelector* selector) override;

    unsigned compare(Scope* other, unsigned long long nextKey, Scope* nextScope) override;
    void merge(Scope* other, unsigned int bits) override;
    status_t load(symbol_kind_t mask) override;
    status_t loadContent(symbol_kind_t mask) override;

    DWARFCompilationUnit& unit() const { return m_embeddedSymbol.unit(); }
    unsigned long long entryOffset() const { return m_embeddedSymbol.entryOffset(); }
    /// Whether the entry tells the place of a call; only of an expanded one.
    bool hasCallSite() const { return m_hasCallSite; }

protected:
    void setHasCallSite(bool hasCallSite) { m_hasCallSite = hasCallSite; }

private:
    class EmbeddedSymbol : public DWARFSymbol {
    public:
        using DWARFSymbol::DWARFSymbol;
        void onLastRelease() override {} // part of its scope
    };

    unsigned compareRanges(Scope* other, unsigned long long nextKey, Scope* nextScope) const;
    bool endsWhereNextBegins(Scope* other, unsigned long long nextKey, Scope* nextScope) const;
    ILock* loadLock() const;
    bool isRead(symbol_kind_t mask) const {
        return (mask & ~m_readKinds.load(std::memory_order_acquire)) == symbol_kind_none;
    }
    status_t readContent(symbol_kind_t mask);

    EmbeddedSymbol m_embeddedSymbol;
    const bool m_hasMembers; ///< the entry is a variable, whose members are symbols of their own
    bool m_hasCallSite = false;
    std::atomic<symbol_kind_t> m_readKinds{symbol_kind_none};
};

} // namespace ORN_3_30

#endif
