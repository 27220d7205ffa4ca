// Scopes: regions of the address space, their ranges and their lazily filled tables.
#ifndef ORN_SCOPE_IMPL_H
#define ORN_SCOPE_IMPL_H

#include "orn/scope.h"
#include "orn/source.h"
#include "orn_ranges.h"
#include "orn_symbol.h"

#include <set>
#include <vector>

namespace ORN_3_30 {

class IDebugInfoLoader;

/// Limits a load to what the announced addresses need. With no address announced everything passes.
class LoadFilter {
public:
    explicit LoadFilter(const std::set<unsigned long long>* addresses) : m_addresses(addresses) {}

    /// Whether [low, high) holds an announced address. An empty interval always passes.
    bool passes(unsigned long long low, unsigned long long high) const;

private:
    const std::set<unsigned long long>* m_addresses; ///< borrowed from the module's scope
};

/// A region of the address space, its own ranges, and the table of what is nested inside it.
class Scope : public SymMgrObject<IScope> {
public:
    using RangeIterator = IIterator<SymMgrObjectPtr<ISymbolRange>>;

    /// One range of the scope, half-open.
    struct RangeNode {
        unsigned long long low;
        unsigned long long high;
        RangeNode* next;
    };

    /// The scope's ranges, ascending by low address.
    struct RangeList {
        RangeNode* m_head = nullptr;
        RangeNode* m_cursor = nullptr;  ///< the node touched last, where searches begin
        RangeNode* m_primary = nullptr; ///< the node made first; never merged into a neighbour by addRange
    };

    using Thunks = std::vector<SymMgrObjectPtr<IThunk>>;

    /// `loader` and `parent` are borrowed; `lock` guards the count.
    Scope(IFileFormatLoader* loader, Scope* parent, ILock* lock);
    ~Scope() override;

    IScope* parent() override;
    ISymbol* symbol() override { return nullptr; }
    IInlineInstance* inlineInstance() override { return nullptr; }
    status_t symbolRanges(SymMgrObjectPtr<RangeIterator>& out, unsigned long long low,
                          unsigned long long high, symbol_kind_t mask) override;
    status_t symbolRangeByAddress(SymMgrObjectPtr<ISymbolRange>& out, unsigned long long address,
                                  symbol_kind_t mask, ISymbolSelector* selector) override;

    /// Tables own scopes and delete them; iterators hold counted pointers to them meanwhile. So the last
    /// release of a reference destroys nothing.
    void onLastRelease() override {}

    /// The scope's own range that holds `address`; the outputs are untouched if there is none.
    virtual bool rangeContaining(unsigned long long& low, unsigned long long& high,
                                 unsigned long long address);
    virtual status_t nonOverlappedSymbolRanges(SymMgrObjectPtr<RangeIterator>& out, unsigned long long low,
                                               unsigned long long high, symbol_kind_t mask,
                                               ISymbolSelector* selector);
    /// What the table shall do when `other` starts where this scope starts; bits explained at SymbolTable.
    virtual unsigned compare(Scope* other, unsigned long long nextKey, Scope* nextScope);
    virtual void merge(Scope* other, unsigned int bits);
    virtual unsigned long long id();
    virtual ISymbol* symbolObject();
    virtual status_t load(symbol_kind_t mask);
    virtual status_t loadContent(symbol_kind_t mask) = 0;
    /// Made at first use.
    virtual ISymbolTable* symbolTable();
    virtual Thunks* thunks();
    virtual RangeList* rangeList();

    void addRange(unsigned long long low, unsigned long long high);
    void removeRange(unsigned long long low);
    bool hasManyRanges() const;
    /// All ones for a scope without ranges.
    unsigned long long firstLow() const;
    unsigned long long lastHigh() const;
    IFileFormatLoader* loader() const { return m_loader; }
    /// Keeps `thunk` unless one that is held covers its address; a kept thunk's scope becomes this one.
    void addThunk(IThunk* thunk);
    void thunkAt(unsigned long long address, SymMgrObjectPtr<IThunk>& out);

private:
    IFileFormatLoader* m_loader; ///< borrowed
};

/// The region of one symbol, which it owns.
class SymbolScope : public Scope {
public:
    SymbolScope(IFileFormatLoader* loader, Scope* parent, ILock* lock);
    SymbolScope(IFileFormatLoader* loader, Scope* parent, ISymbol* symbol, ILock* lock);

    ISymbol* symbol() override;
    unsigned long long id() override;
    ISymbol* symbolObject() override;
    status_t loadContent(symbol_kind_t mask) override;

    virtual void setSymbol(ISymbol* symbol);
};

/// A whole module. Loads are serialised by a lock of its own.
class GlobalScope : public Scope {
public:
    GlobalScope(IFileFormatLoader* fileLoader, IDebugInfoLoader* debugLoader, ILock* lock);
    ~GlobalScope() override;

    status_t load(symbol_kind_t mask) override;
    status_t loadContent(symbol_kind_t mask) override;

    /// Null without debug information.
    ISrcLineResolver* lineResolver() const;
    /// Notes an address of interest; the next query loads anew.
    void addInterestingAddress(unsigned long long address);
    /// Ranges of the symbols around the noted addresses; null without any.
    void interestingRanges(SymMgrObjectPtr<RangeFilter>& out);
};

} // namespace ORN_3_30

#endif
