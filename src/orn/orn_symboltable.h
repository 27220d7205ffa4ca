// The table of one scope: every symbol in it, overlaps included, and who wins an address.
#ifndef ORN_SYMBOLTABLE_IMPL_H
#define ORN_SYMBOLTABLE_IMPL_H

#include "orn_scope.h"
#include "orn_symboltable_cells.h"

#include <vector>

namespace ORN_3_30 {

/// Finds a node in a cell's list.
class ISymbolTableListItemComparer {
public:
    virtual bool matches(const CellNode& node) const = 0;

protected:
    ~ISymbolTableListItemComparer() = default;
};

/// The node of an entry of a scope.
class ScopeComparer : public ISymbolTableListItemComparer {
public:
    explicit ScopeComparer(const Scope* scope) : m_scope(scope) {}
    bool matches(const CellNode& node) const override { return node.entry->scope == m_scope; }

private:
    const Scope* m_scope;
};

/// The node of one entry.
class ValueComparer : public ISymbolTableListItemComparer {
public:
    explicit ValueComparer(const CellEntry* entry) : m_entry(entry) {}
    bool matches(const CellNode& node) const override { return node.entry == m_entry; }

private:
    const CellEntry* m_entry;
};

/// The address space is cut into cells, each from one start address to the next, and a cell lists every entry
/// that covers it. So a lookup is one search for the cell and a walk of its list.
///
/// A list is ordered by descending end. A new node whose end is above the head's becomes the head; otherwise
/// it goes behind the head and behind every following node whose end is greater. Among equal ends that makes
/// the head stay the first and any other newcomer come before those that were there. Which of equal
/// candidates wins depends on it.
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

private:
    friend class SymbolByAddrIterator;
    friend class SymbolRangesIterator;
    friend class NonOverlappedSymbolRangesIterator;

    using Position = CellIndex::Position;

    // Adding.
    CellNode* addEntry(unsigned long long start, unsigned long long end, Scope* scope);
    CellNode* settleWithExisting(Position cell, unsigned long long end, Scope* scope);
    void findNeighbour(Position cell, unsigned long long& nextKey, Scope*& nextScope) const;
    CellNode* mergeInto(CellEntry* entry, unsigned long long end, Scope* scope, unsigned bits);
    void addScopeRanges(Scope* scope, bool& added, Scope*& survivor);
    void addScopeThunks(Scope* scope, bool& added, Scope* target);
    void addThunkEntry(Scope* scope, IThunk* thunk, bool& added, Scope* target);
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
    CellEntry* newEntry(unsigned long long start, unsigned long long end, Scope* scope);
    CellNode* newNode(CellEntry* entry);

    // Queries.
    Position cellHolding(unsigned long long address) const;
    Position firstCellOf(unsigned long long low) const;
    static bool covers(const CellEntry& entry, unsigned long long address);
    const CellEntry* choose(Position cell, unsigned long long address, symbol_kind_t mask,
                            ISymbolSelector* selector);
    static const CellEntry* winner(const Cell& cell, unsigned long long address, symbol_kind_t mask);
    const CellEntry* selected(Position cell, unsigned long long address, symbol_kind_t mask,
                              ISymbolSelector& selector);

    Scope* m_scope;
    CellIndex m_cells;
    std::vector<Scope*> m_scopes; ///< owned; deleted directly, whatever their counts
    RecordPool<CellEntry> m_entryPool;
    RecordPool<CellNode> m_nodePool;
    unsigned long long m_entryCount;
    unsigned long long m_nodeCount; ///< of nodes beside the owners
    /// Counts the changes of cells and lists: an iterator that finds another value looks up its place anew.
    unsigned long long m_changeStamp;
};

} // namespace ORN_3_30

#endif
