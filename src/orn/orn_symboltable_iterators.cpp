// The views that a symbol table hands out: the candidates at one address, everything in an interval as it was
// entered, and an interval cut into pieces with one winner each. They keep plain positions while the table
// stays as it is, and look their place up again when its change stamp has moved.

#include "orn_symboltable_iterators.h"

#include "orn_log.h"
#include "orn_symbolrange.h"

#include <algorithm>

namespace ORN_3_30 {

// --- The candidates at one address

SymbolByAddrIterator::SymbolByAddrIterator(SymbolTable* table, unsigned long long cellKey,
                                           unsigned long long address, symbol_kind_t mask)
    : SymMgrObject<IIterator<SymMgrObjectPtr<ISymbol>>>(nullptr),
      m_table(table),
      m_cellKey(cellKey),
      m_address(address),
      m_mask(mask) {
    reset();
}

bool SymbolByAddrIterator::next() {
    if (!m_symbol)
        return false;
    if (m_changeStamp != m_table->m_changeStamp) {
        // A list that has changed under the walk ends it: reset() shows the new one.
        m_symbol = nullptr;
        return false;
    }
    settleFrom(m_index + 1);
    return m_symbol != nullptr;
}

void SymbolByAddrIterator::reset() {
    m_changeStamp = m_table->m_changeStamp;
    m_cell = m_table->m_cells.find(m_cellKey);
    settleFrom(0);
}

/// Stands on the first candidate from place `index` on.
void SymbolByAddrIterator::settleFrom(std::size_t index) {
    m_symbol = nullptr;
    if (m_cell == m_table->m_cells.end())
        return;
    const CellList& list = m_table->m_cells.listAt(m_cell);
    for (m_index = index; m_index < list.size(); ++m_index) {
        if (!SymbolTable::covers(*list[m_index], m_address))
            continue;
        ISymbol* symbol = m_table->scopeOf(*list[m_index])->symbol();
        if (!ORN_ASSERT(symbol != NULL))
            return;
        if ((symbol->kind() & m_mask) == symbol_kind_none)
            continue;
        m_symbol = symbol;
        return;
    }
}

// --- The raw view

SymbolRangesIterator::SymbolRangesIterator(SymbolTable* table, unsigned long long low,
                                           unsigned long long high, symbol_kind_t mask)
    : SymMgrObject<IIterator<SymMgrObjectPtr<ISymbolRange>>>(nullptr),
      m_table(table),
      m_low(low),
      m_high(high),
      m_mask(mask) {
    reset();
}

SymMgrObjectPtr<ISymbolRange> SymbolRangesIterator::current() {
    if (!m_scope)
        return nullptr;
    return new SymbolRange(m_begin, m_end, m_scope, nullptr);
}

void SymbolRangesIterator::reset() {
    CellIndex& cells = m_table->m_cells;
    m_changeStamp = m_table->m_changeStamp;
    m_scope = nullptr;
    Position first = m_table->firstCellOf(m_low);
    if (first == cells.end())
        return;
    m_firstKey = cells.keyAt(first);
    settleFrom(first, 0);
}

bool SymbolRangesIterator::next() {
    if (!m_scope)
        return false;
    if (m_changeStamp == m_table->m_changeStamp)
        settleFrom(m_cell, m_index + 1);
    else
        resume();
    return m_scope != nullptr;
}

/// Stands on the first entry that is reported, from place `index` of `cell` on.
void SymbolRangesIterator::settleFrom(Position cell, std::size_t index) {
    CellIndex& cells = m_table->m_cells;
    m_scope = nullptr;
    for (; cell != cells.end() && cells.keyAt(cell) <= m_high; cell = cells.next(cell), index = 0) {
        m_cellKey = cells.keyAt(cell);
        const CellList& list = cells.listAt(cell);
        for (; index < list.size(); ++index) {
            m_entry = list[index];
            if (!isReported(*m_entry, m_cellKey))
                continue;
            m_cell = cell;
            m_index = index;
            m_begin = m_entry->start;
            m_end = m_entry->end;
            m_scope = m_table->scopeOf(*list[index]);
            return;
        }
    }
}

/// Goes on behind the current entry in a table that has changed. If the cell does not list it any more, the
/// walk goes on with what ends before it, since lists are ordered by descending end.
void SymbolRangesIterator::resume() {
    CellIndex& cells = m_table->m_cells;
    m_changeStamp = m_table->m_changeStamp;
    Position cell = cells.lowerBound(m_cellKey);
    std::size_t index = 0;
    if (cell != cells.end() && cells.keyAt(cell) == m_cellKey) {
        const CellList& list = cells.listAt(cell);
        auto known = std::find(list.begin(), list.end(), m_entry);
        auto next = known != list.end() ? known + 1
                                        : std::find_if(list.begin(), list.end(), [&](const CellEntry* entry) {
                                              return entry->end < m_end;
                                          });
        index = static_cast<std::size_t>(next - list.begin());
    }
    settleFrom(cell, index);
}

/// An entry is reported where it starts, or in the first cell, so that it comes once, and only if it
/// overlaps.
bool SymbolRangesIterator::isReported(const CellEntry& entry, unsigned long long cellKey) const {
    if (entry.start != cellKey && cellKey != m_firstKey)
        return false;
    unsigned long long begin = std::max(entry.start, m_low);
    unsigned long long end = std::min(entry.end, m_high);
    if (begin > end)
        return false;
    bool endsAtLow = entry.end == m_low && !entry.isEmpty();
    bool startsAtHigh = entry.start >= m_high && m_low != m_high;
    if (begin == end && (endsAtLow || startsAtHigh))
        return false;
    if (entry.isPlain())
        return (static_cast<symbol_kind_t>(entry.kind) & m_mask) != symbol_kind_none;
    ISymbol* symbol = entry.scope->symbol();
    return symbol && (symbol->kind() & m_mask) != symbol_kind_none;
}

// --- The cut view

NonOverlappedSymbolRangesIterator::NonOverlappedSymbolRangesIterator(SymbolTable* table,
                                                                     unsigned long long low,
                                                                     unsigned long long high,
                                                                     symbol_kind_t mask,
                                                                     ISymbolSelector* selector)
    : SymMgrObject<IIterator<SymMgrObjectPtr<ISymbolRange>>>(nullptr),
      m_table(table),
      m_low(low),
      m_high(high),
      m_mask(mask),
      m_selector(selector),
      m_end(0) {
    reset();
}

void NonOverlappedSymbolRangesIterator::reset() {
    CellIndex& cells = m_table->m_cells;
    m_changeStamp = m_table->m_changeStamp;
    m_scope = nullptr;
    m_cell = m_table->firstCellOf(m_low);
    m_endCell = cells.lowerBound(m_high);
    m_cursor = m_cell != cells.end() ? std::max(m_low, cells.keyAt(m_cell)) : m_low;
    next();
}

bool NonOverlappedSymbolRangesIterator::hasCurrent() const {
    return m_scope && !(m_cell == m_endCell && m_begin == m_high);
}

// Quirk: after next() has returned false in front of the end cell there still is a current range, from
// `high` on. Callers stop by what next() returns.
SymMgrObjectPtr<ISymbolRange> NonOverlappedSymbolRangesIterator::current() {
    if (!hasCurrent())
        return nullptr;
    return new SymbolRange(m_begin, m_end, m_scope, nullptr);
}

bool NonOverlappedSymbolRangesIterator::next() {
    followChanges();
    if (m_cell == m_endCell || m_cursor >= m_high)
        return giveUp();
    CellEntry* winner = chooseHere();
    while (!winner) {
        if (!stepToNextCell())
            return giveUp();
        winner = chooseHere();
    }
    m_begin = m_cursor;
    m_scope = m_table->scopeOf(*winner);
    extendResult(winner);
    return true;
}

bool NonOverlappedSymbolRangesIterator::giveUp() {
    m_begin = m_high;
    return false;
}

/// Who wins at the cursor. A selector may run queries, and these may load. It may also choose a symbol whose
/// first entry here ends in front of the cursor: that entry is no winner, or the walk would turn back and
/// never end.
CellEntry* NonOverlappedSymbolRangesIterator::chooseHere() {
    CellEntry* chosen = m_table->choose(m_cell, m_cursor, m_mask, m_selector);
    followChanges();
    return chosen && SymbolTable::covers(*chosen, m_cursor) ? chosen : nullptr;
}

/// False if that is the end cell.
bool NonOverlappedSymbolRangesIterator::stepToNextCell() {
    if (m_cell == m_endCell)
        return false;
    m_cell = m_table->m_cells.next(m_cell);
    if (m_cell == m_endCell)
        return false;
    m_cursor = m_table->m_cells.keyAt(m_cell);
    return true;
}

/// Joins the following cells to the result for as long as the same scope wins them.
void NonOverlappedSymbolRangesIterator::extendResult(CellEntry* winner) {
    CellIndex& cells = m_table->m_cells;
    for (;;) {
        Position following = m_cell != m_endCell ? cells.next(m_cell) : m_endCell;
        if (following == m_endCell)
            return endInLastCell(*winner);
        unsigned long long nextKey = cells.keyAt(following);
        if (winner->end <= nextKey)
            return endBefore(nextKey, *winner);
        m_cell = following;
        m_cursor = nextKey;
        winner = chooseHere();
        if (!winner || m_table->scopeOf(*winner) != m_scope) {
            m_end = m_cursor;
            return;
        }
    }
}

void NonOverlappedSymbolRangesIterator::endInLastCell(const CellEntry& winner) {
    if (winner.end < m_high && !winner.isEmpty()) {
        m_end = winner.end;
        m_cursor = winner.end;
        return;
    }
    m_end = m_high;
    m_cursor = m_high;
    m_cell = m_endCell;
}

/// A cursor that stays inside a cell leaves the cell's rest to another entry, or to none.
void NonOverlappedSymbolRangesIterator::endBefore(unsigned long long nextKey, const CellEntry& winner) {
    m_end = winner.isEmpty() ? nextKey : winner.end;
    m_cursor = m_end;
    if (m_end == nextKey)
        m_cell = m_table->m_cells.next(m_cell);
}

void NonOverlappedSymbolRangesIterator::followChanges() {
    if (m_changeStamp == m_table->m_changeStamp)
        return;
    m_changeStamp = m_table->m_changeStamp;
    CellIndex& cells = m_table->m_cells;
    bool wasAtEnd = m_cell == m_endCell;
    m_endCell = cells.lowerBound(m_high);
    m_cell = wasAtEnd ? m_endCell : m_table->firstCellOf(m_cursor);
    if (m_cell != m_endCell)
        m_cursor = std::max(m_cursor, cells.keyAt(m_cell));
}

} // namespace ORN_3_30
