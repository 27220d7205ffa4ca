// The table of one scope: every symbol in it, overlaps included, and who wins an address.
#ifndef ORN_SYMBOLTABLE_IMPL_H
#define ORN_SYMBOLTABLE_IMPL_H

#include "orn_scope.h"
#include "orn_symboltable_cells.h"

#include <memory>
#include <unordered_map>
#include <vector>

namespace ORN_3_30 {

/// A symbol as a format's own symbol table tells it.
struct PlainSymbol {
    const char* name; ///< not empty; outlives the table
    symbol_visibility_t visibility;
    symbol_kind_t kind;
};

/// Finds an entry in a cell's list.
class ISymbolTableListItemComparer {
public:
    virtual bool matches(const CellEntry& entry) const = 0;

protected:
    ~ISymbolTableListItemComparer() = default;
};

/// An entry of one scope.
class ScopeComparer : public ISymbolTableListItemComparer {
public:
    explicit ScopeComparer(const Scope* scope) : m_scope(scope) {}
    bool matches(const CellEntry& entry) const override { return entry.scope == m_scope; }

private:
    const Scope* m_scope;
};

/// One entry.
class ValueComparer : public ISymbolTableListItemComparer {
public:
    explicit ValueComparer(const CellEntry* entry) : m_entry(entry) {}
    bool matches(const CellEntry& entry) const override { return &entry == m_entry; }

private:
    const CellEntry* m_entry;
};

/// The scopes of a table in order of arrival, chained through themselves: most tables are nested ones of few
/// scopes, and a module has very many of them.
class OwnedScopes {
public:
    OwnedScopes() = default;
    OwnedScopes(const OwnedScopes&) = delete;
    OwnedScopes& operator=(const OwnedScopes&) = delete;

    /// Null if there is none.
    Scope* last() const { return m_last; }
    void append(Scope* scope);
    /// Takes all of them over.
    void append(OwnedScopes& others);
    /// `previous` is the one in front of `scope`; null for the first.
    void remove(Scope* scope, Scope* previous);
    /// Null if there is none.
    Scope* takeFirst();

private:
    Scope*& linkBehind(Scope* scope);

    Scope* m_first = nullptr;
    Scope* m_last = nullptr;
};

/// The address space is cut into cells, each from one start address to the next, and a cell lists every entry
/// that covers it. So a lookup is one search for the cell and a walk of its list.
///
/// A list is ordered by descending end. A newcomer whose end is above the head's becomes the head; otherwise
/// it goes behind the head and behind every following entry whose end is greater. Among equal ends that makes
/// the head stay the first and any other newcomer come before those that were there. Which of equal
/// candidates wins depends on it.
///
/// The cell where an entry starts is its owner. An entry that loses its place there, which happens only where
/// scopes are folded, keeps its memory until the table dies: other cells may still list it.
class SymbolTable : public SymMgrObject<ISymbolTable> {
public:
    using RangeIteratorPtr = SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>;

    /// `scope` is borrowed; `lock` guards the count.
    SymbolTable(Scope* scope, ILock* lock);
    ~SymbolTable() override;

    int addScope(Scope* scope) override;
    int addScopeRange(unsigned long long low, unsigned long long high, Scope* scope) override;
    void symbolRangeByAddress(SymMgrObjectPtr<ISymbolRange>& out, unsigned long long address,
                              symbol_kind_t mask, ISymbolSelector* selector) override;
    void symbolRanges(RangeIteratorPtr& out, unsigned long long low, unsigned long long high,
                      symbol_kind_t mask) override;
    void nonOverlappedSymbolRanges(RangeIteratorPtr& out, unsigned long long low, unsigned long long high,
                                   symbol_kind_t mask, ISymbolSelector* selector) override;
    Scope* scope() override { return m_scope; }

    /// Does what making a symbol scope with the one range [low, high) and handing it to addScopeRange() does,
    /// but makes the scope when somebody asks for it. `loader` is that of the table's module.
    void addPlainSymbol(IFileFormatLoader& loader, const PlainSymbol& symbol, unsigned long long low,
                        unsigned long long high);

private:
    friend class SymbolByAddrIterator;
    friend class SymbolRangesIterator;
    friend class NonOverlappedSymbolRangesIterator;

    using Position = CellIndex::Position;

    class Newcomer;
    struct Crowd;
    /// By the address where the entries start.
    using Crowds = std::unordered_map<unsigned long long, std::unique_ptr<Crowd>>;
    /// What the table of a module needs and the many nested ones do not.
    struct ModuleParts;

    // Adding.
    CellEntry* addEntry(unsigned long long start, unsigned long long end, Scope* scope);
    CellEntry* addEntry(Newcomer& newcomer);
    CellEntry* settleWithExisting(Position cell, Newcomer& newcomer);
    template <typename Entries>
    CellEntry* settleAmong(const Entries& entries, Position cell, Newcomer& newcomer);
    Crowd& crowdAt(Position cell);
    Crowd* knownCrowd(unsigned long long start) const;
    ModuleParts& moduleParts();
    std::vector<CellEntry*> namesakesOf(Newcomer& newcomer, Position cell);
    void findNeighbour(Position cell, unsigned long long& nextKey, Scope*& nextScope);
    CellEntry* mergeInto(CellEntry* entry, unsigned long long end, Scope* scope, unsigned bits);
    void addScopeRanges(Scope* scope, bool& added, Scope*& survivor);
    void addScopeThunks(Scope* scope, bool& added, Scope* target);
    void addThunkEntry(Scope* scope, IThunk* held, bool& added, Scope* target);
    template <typename Add>
    int takeScope(Scope* scope, const Add& add);

    // Cells and their lists.
    Position addCell(Position before, unsigned long long key, CellEntry* entry);
    void markSectionEnd(unsigned long long key);
    void copyReachingEntries(Position from, Position to);
    void extend(Position cell, CellEntry* entry, unsigned long long fromKey);
    void putBack(CellEntry* entry, unsigned long long fromKey);
    void removeFromFollowingCells(unsigned long long key, unsigned long long end,
                                  const ISymbolTableListItemComparer& comparer);
    void removeFurtherRanges(Scope* scope);
    Position removeMatching(Position cell, const ISymbolTableListItemComparer& comparer);
    CellEntry* newEntry(const Newcomer& newcomer);
    void list(CellList& list, CellEntry* entry);
    void listInFurtherCell(CellList& list, std::size_t place, CellEntry* entry);
    std::size_t placeIn(const CellList& list, unsigned long long end) const;

    // Scopes of plain symbols.
    Scope* scopeOf(CellEntry& entry);
    Scope* makeScope(CellEntry& entry);
    static SymbolScope* newPlainScope(IFileFormatLoader& loader, Scope* parent, const PlainSymbol& symbol,
                                      unsigned long long low, unsigned long long high);

    // Queries.
    Position cellHolding(unsigned long long address) const;
    Position firstCellOf(unsigned long long low) const;
    static bool covers(const CellEntry& entry, unsigned long long address);
    CellEntry* choose(Position cell, unsigned long long address, symbol_kind_t mask,
                      ISymbolSelector* selector);
    static CellEntry* winner(const CellList& list, unsigned long long address, symbol_kind_t mask);
    CellEntry* selected(Position cell, unsigned long long address, symbol_kind_t mask,
                        ISymbolSelector& selector);

    Scope* m_scope;
    CellIndex m_cells;
    OwnedScopes m_scopes;                  ///< deleted directly, whatever their counts
    std::unique_ptr<ModuleParts> m_module; ///< made when it is needed
    RecordPool<CellEntry> m_entryPool;
    ListStore m_listStore;
    unsigned long long m_entryCount;
    unsigned long long m_furtherListings; ///< of entries in cells that do not own them
    unsigned long long m_listingMoves;    ///< of entries in lists that took in such a listing
    unsigned long long m_isOrdered : 1;   ///< every list is ordered by descending end
    /// Counts the changes of cells and lists: an iterator that finds another value looks up its place anew.
    unsigned long long m_changeStamp : 63;
};

} // namespace ORN_3_30

#endif
