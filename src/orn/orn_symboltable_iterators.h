// The views of a symbol table. Each holds a reference to its table, remembers its place by address, and finds
// it again when the table has changed meanwhile.
#ifndef ORN_SYMBOLTABLE_ITERATORS_H
#define ORN_SYMBOLTABLE_ITERATORS_H

#include "orn_symboltable.h"

namespace ORN_3_30 {

/// The symbols that cover one address, in the order of the cell's list: what a selector chooses from.
class SymbolByAddrIterator : public SymMgrObject<IIterator<SymMgrObjectPtr<ISymbol>>> {
public:
    /// `cellKey` is the key of the cell that holds `address`.
    SymbolByAddrIterator(SymbolTable* table, unsigned long long cellKey, unsigned long long address,
                         symbol_kind_t mask);

    SymMgrObjectPtr<ISymbol> current() override { return m_symbol; }
    bool next() override;
    void reset() override;

private:
    void settleFrom(std::size_t index);

    SymMgrObjectPtr<SymbolTable> m_table;
    unsigned long long m_cellKey;
    unsigned long long m_address;
    symbol_kind_t m_mask;
    CellIndex::Position m_cell;
    std::size_t m_index; ///< in the cell's list
    ISymbol* m_symbol;   ///< null past the end
    unsigned long long m_changeStamp;
};

/// The raw view: every entry that overlaps an interval, once.
class SymbolRangesIterator : public SymMgrObject<IIterator<SymMgrObjectPtr<ISymbolRange>>> {
public:
    SymbolRangesIterator(SymbolTable* table, unsigned long long low, unsigned long long high,
                         symbol_kind_t mask);

    SymMgrObjectPtr<ISymbolRange> current() override;
    bool next() override;
    void reset() override;

    bool hasCurrent() const { return m_scope != nullptr; }

private:
    using Position = CellIndex::Position;

    void settleFrom(Position cell, std::size_t index);
    void resume();
    bool isReported(const CellEntry& entry, unsigned long long cellKey) const;

    SymMgrObjectPtr<SymbolTable> m_table;
    unsigned long long m_low;
    unsigned long long m_high;
    symbol_kind_t m_mask;
    unsigned long long m_firstKey; ///< of the cell that holds `m_low`
    Position m_cell;
    unsigned long long m_cellKey;
    std::size_t m_index;        ///< in the cell's list
    const CellEntry* m_entry;   ///< the current one
    unsigned long long m_begin; ///< as it was when the walk came to it
    unsigned long long m_end;
    Scope* m_scope; ///< null past the end
    unsigned long long m_changeStamp;
};

/// The cut view: consecutive intervals that do not overlap, each with its winner.
class NonOverlappedSymbolRangesIterator : public SymMgrObject<IIterator<SymMgrObjectPtr<ISymbolRange>>> {
public:
    /// `selector` is borrowed and may be null.
    NonOverlappedSymbolRangesIterator(SymbolTable* table, unsigned long long low, unsigned long long high,
                                      symbol_kind_t mask, ISymbolSelector* selector);

    SymMgrObjectPtr<ISymbolRange> current() override;
    bool next() override;
    void reset() override;

    bool hasCurrent() const;

private:
    using Position = CellIndex::Position;

    CellEntry* chooseHere();
    bool stepToNextCell();
    bool giveUp();
    void extendResult(CellEntry* winner);
    void endInLastCell(const CellEntry& winner);
    void endBefore(unsigned long long nextKey, const CellEntry& winner);
    void followChanges();

    SymMgrObjectPtr<SymbolTable> m_table;
    unsigned long long m_low;
    unsigned long long m_high;
    symbol_kind_t m_mask;
    ISymbolSelector* m_selector;
    Position m_cell;
    Position m_endCell;          ///< the first cell that is not below `m_high`
    unsigned long long m_cursor; ///< where the next result is looked for; inside m_cell
    unsigned long long m_begin;  ///< the current result
    unsigned long long m_end;
    Scope* m_scope;
    unsigned long long m_changeStamp;
};

} // namespace ORN_3_30

#endif
