// Scopes: regions of the address space, their ranges and their lazily filled tables.
#ifndef ORN_SCOPE_IMPL_H
#define ORN_SCOPE_IMPL_H

#include "orn/scope.h"
#include "orn/source.h"
#include "orn_ranges.h"
#include "orn_symbol.h"

#include <atomic>
#include <memory>
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

/// What a table shall do with a newcomer that starts where an entry starts; bits that Scope::compare() gives.
enum scope_match_t : unsigned {
    scopeMatch_None = 0,            ///< two different things
    scopeMatch_Same = 1,            ///< alone: the same thing, the newcomer is dropped
    scopeMatch_Grow = 2,            ///< the entry grows to the newcomer's end
    scopeMatch_Fold = 4,            ///< the scope is folded into one range that ends where the newcomer ends
    scopeMatch_TakeName = 8,        ///< the newcomer's raw name is the better one
    scopeMatch_TakeVisibility = 16, ///< the newcomer's visibility is the right one
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
        /// The node touched last, where searches begin. Queries of several threads move it, and wherever it
        /// stands the answers are the same: hence atomic, but unordered.
        std::atomic<RangeNode*> m_cursor{nullptr};
        RangeNode* m_primary = nullptr; ///< the node made first; addRange merges it into no other
    };

    using Thunks = std::vector<SymMgrObjectPtr<IThunk>>;

    /// `loader` and `parent` are borrowed; `lock` guards the count.
    Scope(IFileFormatLoader* loader, Scope* parent, ILock* lock);
    ~Scope() override;

    IScope* parent() override { return m_parent; }
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
    /// What the table shall do when `other` starts where an entry of this scope starts: scope_match_t bits.
    /// `nextKey` is where the next cell starts, all ones without one; `nextScope` the last listed scope that
    /// starts exactly there, or null.
    virtual unsigned compare(Scope* other, unsigned long long nextKey, Scope* nextScope);
    /// Takes over from `other` what the bits of compare() say. The caller destroys `other`.
    virtual void merge(Scope* other, unsigned int bits);
    virtual unsigned long long id() { return ~0ULL; }
    virtual ISymbol* symbolObject() { return nullptr; }
    virtual status_t load(symbol_kind_t mask);
    virtual status_t loadContent(symbol_kind_t mask) = 0;
    /// Made at first use, without locking: of two threads that come first one gives its table up.
    virtual ISymbolTable* symbolTable();
    /// Made at first use like the table.
    virtual Thunks* thunks();
    virtual RangeList* rangeList() { return &m_rangeList; }

    void addRange(unsigned long long low, unsigned long long high);
    void removeRange(unsigned long long low);
    bool hasManyRanges() const { return m_rangeList.m_head && m_rangeList.m_head->next; }
    /// All ones for a scope without ranges.
    unsigned long long firstLow() const { return m_rangeList.m_head ? m_rangeList.m_head->low : ~0ULL; }
    unsigned long long lastHigh() const;
    IFileFormatLoader* loader() const { return m_loader; }
    /// Keeps `thunk` unless one that is held covers its address; a kept thunk's scope becomes this one.
    /// A thunk that nobody holds and that is not kept is destroyed. Every thunk of a scope is a Thunk.
    void addThunk(IThunk* thunk);
    void thunkAt(unsigned long long address, SymMgrObjectPtr<IThunk>& out);

    Scope* parentScope() const { return m_parent; }
    bool hasThunks() const {
        const Extras* mine = m_extras.load(std::memory_order_acquire);
        const Thunks* thunks = mine ? mine->m_thunks.load(std::memory_order_acquire) : nullptr;
        return thunks && !thunks->empty();
    }
    bool hasTable() const {
        const Extras* mine = m_extras.load(std::memory_order_acquire);
        return mine && mine->m_symbolTable.load(std::memory_order_acquire);
    }
    /// A table has taken the scope for good; a scope enters one table once.
    bool isOwnedByTable() const { return m_ownedByTable; }
    void setOwnedByTable() { m_ownedByTable = true; }
    /// The next scope of the table that has taken this one; the table's to change.
    Scope*& nextOwned() { return m_nextOwned; }
    /// What compare() of this scope goes by: it gives nothing for a scope that differs in it.
    enum class ToldBy : unsigned char {
        Anything, ///< ask compare()
        RawName,
        AnyName ///< one of raw and short name, less a final ".", is one of the other's
    };
    ToldBy toldBy() const { return m_toldBy; }

protected:
    void setToldBy(ToldBy toldBy) { m_toldBy = toldBy; }
    /// Leaves the head alone in the list, ending at `high`.
    void collapseRanges(unsigned long long high);
    symbol_kind_t loadedKinds() const { return m_loadedKinds.load(std::memory_order_relaxed); }
    void forgetLoadedKinds() { m_loadedKinds.store(symbol_kind_none, std::memory_order_relaxed); }
    /// Releases table and thunks while the lock of the table still lives.
    void releaseContent();

private:
    /// What most scopes never need. A module has one scope per symbol, so every byte in Scope itself counts.
    struct Extras {
        OrnLock m_lock;                                    ///< guards the count of the table
        std::atomic<Thunks*> m_thunks{nullptr};            ///< owned; in order of arrival
        std::atomic<ISymbolTable*> m_symbolTable{nullptr}; ///< holds a reference

        ~Extras() { delete m_thunks.load(std::memory_order_relaxed); }
    };

    Extras& extras();
    RangeNode* newRangeNode(unsigned long long low, unsigned long long high, RangeNode* next);
    void freeRangeNode(RangeNode* node);
    RangeNode* searchStart(unsigned long long address) const;
    void insertNode(RangeNode* previous, unsigned long long low, unsigned long long high);
    bool mergeForward(RangeNode* next, unsigned long long low, unsigned long long high);
    bool mergeBackward(RangeNode* previous, unsigned long long low, unsigned long long high);
    void absorbFollowing(RangeNode* node);

    RangeList m_rangeList;
    RangeNode m_firstNode;         ///< room for one node: nearly every scope has exactly one range
    std::atomic<Extras*> m_extras; ///< owned; null until needed
    Scope* m_parent;               ///< borrowed
    IFileFormatLoader* m_loader;   ///< borrowed
    Scope* m_nextOwned;            ///< in the chain of the table that has taken this one
    std::atomic<symbol_kind_t> m_loadedKinds;
    bool m_firstNodeTaken;
    bool m_ownedByTable;
    ToldBy m_toldBy;
};

/// The region of one symbol, which it owns.
class SymbolScope : public Scope {
public:
    SymbolScope(IFileFormatLoader* loader, Scope* parent, ILock* lock);
    /// For readers that make the symbol themselves.
    SymbolScope(IFileFormatLoader* loader, Scope* parent, ISymbol* symbol, ILock* lock);

    ISymbol* symbol() override { return m_symbol; }
    unsigned long long id() override;
    ISymbol* symbolObject() override { return m_symbol; }
    status_t loadContent(symbol_kind_t mask) override;

    virtual void setSymbol(ISymbol* symbol) { m_symbol = symbol; }

private:
    SymMgrObjectPtr<ISymbol> m_symbol;
};

/// A whole module. Loads are serialised by a lock of its own.
class GlobalScope : public Scope {
public:
    GlobalScope(IFileFormatLoader* fileLoader, IDebugInfoLoader* debugLoader, ILock* lock);
    ~GlobalScope() override;

    status_t load(symbol_kind_t mask) override;
    status_t loadContent(symbol_kind_t mask) override;

    /// Null without debug information.
    ISrcLineResolver* lineResolver() const { return m_lineResolver; }
    /// Notes an address of interest; the next query loads anew.
    void addInterestingAddress(unsigned long long address);
    /// Ranges of the symbols around the noted addresses; null without any. Found once and kept.
    void interestingRanges(SymMgrObjectPtr<RangeFilter>& out);

private:
    status_t loadDebugSymbols(symbol_kind_t mask);
    void addRangesAround(unsigned long long address, symbol_kind_t kinds, RangeFilter& ranges);

    IFileFormatLoader* m_fileLoader; ///< borrowed
    IDebugInfoLoader* m_debugLoader; ///< borrowed; may be null
    /// Pseudo addresses. Written under both locks below, so that either of them is enough to read.
    std::set<unsigned long long> m_interestingAddresses;
    LoadFilter m_loadFilter;
    OrnLock m_loadLock;
    OrnLock m_rangesLock; ///< guards m_rangesCache, the filter's count too; nothing is called under it
    SymMgrObjectPtr<RangeFilter> m_rangesCache;
    SymMgrObjectPtr<ISrcLineResolver> m_lineResolver;
};

} // namespace ORN_3_30

#endif
