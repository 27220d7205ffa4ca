// A symbol table as plain as can be: one map of cells, one list of nodes per cell, every step as the rules
// say it. It is slow and has no interfaces; tests compare the answers of the real table with its.
#ifndef ORN_TEST_REFERENCE_SYMBOL_TABLE_H
#define ORN_TEST_REFERENCE_SYMBOL_TABLE_H

#include "orn_scope.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <iterator>
#include <list>
#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace ORN_3_30::test {

struct ReferenceEntry {
    unsigned long long start;
    unsigned long long end;
    Scope* scope;
};

/// The entry stays while any node refers to it, also when its owner is gone.
struct ReferenceNode {
    bool isOwner;
    std::shared_ptr<ReferenceEntry> entry;
};

class ReferenceSymbolTable {
public:
    using Address64 = unsigned long long;
    using EntryPtr = std::shared_ptr<ReferenceEntry>;

    struct Answer {
        Address64 begin;
        Address64 end;
        Scope* scope;
    };
    /// Chooses one of several candidates; null for none.
    using Selector = std::function<ISymbol*(const std::vector<ISymbol*>&)>;

    ReferenceSymbolTable() = default;
    ReferenceSymbolTable(const ReferenceSymbolTable&) = delete;
    ReferenceSymbolTable& operator=(const ReferenceSymbolTable&) = delete;
    ~ReferenceSymbolTable() {
        for (Scope* scope : m_scopes)
            delete scope;
    }

    int addScope(Scope* scope) {
        bool added = false;
        Scope* survivor = nullptr;
        std::vector<std::pair<Address64, Address64>> ranges;
        for (Scope::RangeNode* range = scope->rangeList()->m_head; range; range = range->next)
            ranges.emplace_back(range->low, range->high);
        for (auto [low, high] : ranges) {
            Scope* holder = addEntry(low, high, scope)->scope;
            if (holder == scope)
                added = true;
            if (survivor != scope)
                survivor = holder;
        }
        Scope* target = survivor ? survivor : scope;
        std::vector<SymMgrObjectPtr<IThunk>> thunks = *scope->thunks();
        for (const SymMgrObjectPtr<IThunk>& held : thunks) {
            auto* thunk = static_cast<Thunk*>(held.get());
            Scope* holder = addEntry(thunk->address(), thunk->address() + thunk->size(), target)->scope;
            if (holder == scope)
                added = true;
            if (target != scope && holder == target) {
                target->addThunk(thunk);
            } else if (!added) {
                holder->addThunk(thunk);
                holder->removeRange(thunk->address());
            }
        }
        return keepOrDestroy(scope, added);
    }

    int addScopeRange(Address64 low, Address64 high, Scope* scope) {
        if (!scope) {
            if (m_cells.find(low) == m_cells.end())
                makeCell(low, nullptr);
            return 0;
        }
        return keepOrDestroy(scope, addEntry(low, high, scope)->scope == scope);
    }

    /// At most one answer.
    std::vector<Answer> atAddress(Address64 address, symbol_kind_t mask, const Selector& selector,
                                  int& reports) const {
        auto cell = m_cells.lower_bound(address);
        if (cell == m_cells.end() || cell->first != address) {
            if (cell == m_cells.begin())
                return {};
            --cell;
        }
        EntryPtr chosen = choose(cell->second, address, mask, selector, reports);
        if (!chosen)
            return {};
        return {{chosen->start, chosen->end, chosen->scope}};
    }

    std::vector<Answer> rawView(Address64 low, Address64 high, symbol_kind_t mask) const {
        std::vector<Answer> all;
        if (low > high)
            return all;
        auto first = firstCell(low);
        for (auto cell = first; cell != m_cells.end() && cell->first <= high; ++cell) {
            for (const Node& node : cell->second) {
                const Entry& entry = *node.entry;
                if (cell != first && entry.start != cell->first)
                    continue;
                Address64 begin = std::max(entry.start, low);
                Address64 end = std::min(entry.end, high);
                if (begin > end)
                    continue;
                if (begin == end && entry.end == low && entry.start != entry.end)
                    continue;
                if (begin == end && entry.start >= high && low != high)
                    continue;
                ISymbol* symbol = entry.scope->symbol();
                if (symbol && (symbol->kind() & mask) != symbol_kind_none)
                    all.push_back({entry.start, entry.end, entry.scope});
            }
        }
        return all;
    }

    /// The cut view, step by step: what next() gives, and what current() gives afterwards.
    class CutView {
    public:
        CutView(const ReferenceSymbolTable& table, Address64 low, Address64 high, symbol_kind_t mask,
                Selector selector, int& reports)
            : m_table(table),
              m_high(high),
              m_mask(mask),
              m_selector(std::move(selector)),
              m_reports(reports),
              m_cell(table.firstCell(low)),
              m_endCell(table.m_cells.lower_bound(high)),
              m_cursor(m_cell == table.m_cells.end() ? low : std::max(low, m_cell->first)),
              m_begin(0),
              m_end(0),
              m_scope(nullptr) {
            next();
        }

        bool next() {
            if (m_cell == m_endCell || m_cursor >= m_high) {
                m_begin = m_high;
                return false;
            }
            EntryPtr entry = select();
            while (!entry) {
                ++m_cell;
                if (m_cell == m_endCell)
                    break;
                m_cursor = m_cell->first;
                entry = select();
            }
            if (!entry) {
                m_begin = m_high;
                return false;
            }
            m_begin = m_cursor;
            m_scope = entry->scope;
            for (;;) {
                Address64 entryEnd = entry->end;
                auto following = std::next(m_cell);
                if (following == m_endCell) {
                    if (entryEnd < m_high && entry->start != entry->end) {
                        m_end = entryEnd;
                        m_cursor = entryEnd;
                    } else {
                        m_end = m_high;
                        m_cursor = m_high;
                        ++m_cell;
                    }
                    return true;
                }
                if (entryEnd <= following->first) {
                    m_end = entry->start == entry->end ? following->first : entryEnd;
                    if (m_end == following->first)
                        ++m_cell;
                    m_cursor = m_end;
                    return true;
                }
                ++m_cell;
                m_cursor = m_cell->first;
                entry = select();
                if (!entry || entry->scope != m_scope) {
                    m_end = m_cursor;
                    return true;
                }
            }
        }

        std::vector<Answer> current() const {
            if (!m_scope || (m_cell == m_endCell && m_begin == m_high))
                return {};
            return {{m_begin, m_end, m_scope}};
        }

    private:
        EntryPtr select() const {
            EntryPtr chosen = m_table.choose(m_cell->second, m_cursor, m_mask, m_selector, m_reports);
            bool isBehind = chosen && (chosen->end > m_cursor || chosen->start == chosen->end);
            return isBehind ? chosen : nullptr;
        }

        const ReferenceSymbolTable& m_table;
        Address64 m_high;
        symbol_kind_t m_mask;
        Selector m_selector;
        int& m_reports;
        std::map<Address64, std::list<ReferenceNode>>::const_iterator m_cell, m_endCell;
        Address64 m_cursor, m_begin, m_end;
        Scope* m_scope;
    };

private:
    using Entry = ReferenceEntry;
    using Node = ReferenceNode;
    using List = std::list<Node>;
    using Cells = std::map<Address64, List>;
    using CellIterator = Cells::iterator;
    using Matches = std::function<bool(const Node&)>;

    EntryPtr addEntry(Address64 start, Address64 end, Scope* scope);
    EntryPtr mergeInto(const EntryPtr& entry, Address64 end, Scope* scope, unsigned bits);
    CellIterator makeCell(Address64 key, EntryPtr entry);
    void extend(const EntryPtr& entry, Address64 delta);
    CellIterator removeMatching(CellIterator cell, const Matches& matches);
    void removeBehind(Address64 key, Address64 end, const Matches& matches);
    static void insert(List& list, Node node);
    static bool beats(const Entry& candidate, const Entry& best, Address64 address);
    EntryPtr choose(const List& list, Address64 address, symbol_kind_t mask, const Selector& selector,
                    int& reports) const;

    int keepOrDestroy(Scope* scope, bool added) {
        bool isKnown = std::find(m_scopes.begin(), m_scopes.end(), scope) != m_scopes.end();
        if (added && !isKnown)
            m_scopes.push_back(scope);
        if (!added && !isKnown)
            delete scope;
        return added;
    }

    Cells::const_iterator firstCell(Address64 low) const {
        auto cell = m_cells.lower_bound(low);
        if (cell != m_cells.begin() && (cell == m_cells.end() || cell->first != low))
            --cell;
        return cell;
    }

    Cells m_cells;
    std::deque<Scope*> m_scopes;
};

inline void ReferenceSymbolTable::insert(List& list, Node node) {
    if (list.empty() || node.entry->end > list.front().entry->end) {
        list.push_front(node);
        return;
    }
    auto place = std::next(list.begin());
    while (place != list.end() && place->entry->end > node.entry->end)
        ++place;
    list.insert(place, node);
}

inline ReferenceSymbolTable::EntryPtr ReferenceSymbolTable::addEntry(Address64 start, Address64 end,
                                                                     Scope* scope) {
    auto cell = m_cells.find(start);
    if (cell != m_cells.end()) {
        bool isNeighbourKnown = false;
        Address64 nextKey = ~0ULL;
        Scope* nextScope = nullptr;
        for (const Node& node : cell->second) {
            if (node.entry->start != start)
                continue;
            if (!isNeighbourKnown) {
                isNeighbourKnown = true;
                auto next = std::next(cell);
                if (next != m_cells.end()) {
                    nextKey = next->first;
                    for (const Node& other : next->second)
                        if (other.entry->start == nextKey)
                            nextScope = other.entry->scope;
                }
            }
            EntryPtr entry = node.entry;
            unsigned bits = entry->scope->compare(scope, nextKey, nextScope);
            if (bits == 0)
                continue;
            if (bits == 1)
                return entry;
            return mergeInto(entry, end, scope, bits);
        }
        auto entry = std::make_shared<Entry>(Entry{start, end, scope});
        insert(cell->second, {true, entry});
        extend(entry, 0);
        return entry;
    }
    auto entry = std::make_shared<Entry>(Entry{start, end, scope});
    makeCell(start, entry);
    extend(entry, 0);
    return entry;
}

inline ReferenceSymbolTable::EntryPtr ReferenceSymbolTable::mergeInto(const EntryPtr& entry, Address64 end,
                                                                      Scope* scope, unsigned bits) {
    Address64 delta = 0;
    if (bits & 2) {
        if (entry->start != entry->end)
            removeBehind(entry->start, entry->end, [&](const Node& node) { return node.entry == entry; });
    } else if (bits & 4) {
        delta = entry->end - entry->start;
        Scope* folded = entry->scope;
        auto isOfScope = [=](const Node& node) { return node.entry->scope == folded; };
        if (folded->hasManyRanges()) {
            for (Scope::RangeNode* range = folded->rangeList()->m_head->next; range; range = range->next) {
                if (m_cells.find(range->low) == m_cells.end())
                    continue;
                removeBehind(range->low, range->high, isOfScope);
                removeMatching(m_cells.find(range->low), isOfScope);
            }
        }
    }
    entry->scope->merge(scope, bits);
    if ((bits & 6) == 0)
        return entry;
    entry->end = end;
    auto cell = m_cells.find(entry->start);
    if (cell == m_cells.end()) {
        makeCell(entry->start, entry);
    } else {
        cell->second.remove_if([&](const Node& node) { return node.isOwner && node.entry == entry; });
        insert(cell->second, {true, entry});
    }
    extend(entry, delta);
    return entry;
}

inline ReferenceSymbolTable::CellIterator ReferenceSymbolTable::makeCell(Address64 key, EntryPtr entry) {
    auto cell = m_cells.emplace(key, List()).first;
    if (entry)
        insert(cell->second, {true, entry});
    if (cell != m_cells.begin()) {
        for (const Node& node : std::prev(cell)->second) {
            if (node.entry->end <= key)
                break;
            insert(cell->second, {false, node.entry});
        }
    }
    return cell;
}

inline void ReferenceSymbolTable::extend(const EntryPtr& entry, Address64 delta) {
    for (auto cell = m_cells.upper_bound(entry->start); cell != m_cells.end() && cell->first < entry->end;
         ++cell) {
        if (cell->first >= entry->start + delta)
            insert(cell->second, {false, entry});
    }
}

inline ReferenceSymbolTable::CellIterator ReferenceSymbolTable::removeMatching(CellIterator cell,
                                                                               const Matches& matches) {
    auto found = std::find_if(cell->second.begin(), cell->second.end(), matches);
    if (found != cell->second.end())
        cell->second.erase(found);
    return cell->second.empty() ? m_cells.erase(cell) : std::next(cell);
}

inline void ReferenceSymbolTable::removeBehind(Address64 key, Address64 end, const Matches& matches) {
    auto cell = m_cells.upper_bound(key);
    while (cell != m_cells.end() && cell->first < end)
        cell = removeMatching(cell, matches);
}

inline bool ReferenceSymbolTable::beats(const Entry& candidate, const Entry& best, Address64 address) {
    ISymbol& mine = *candidate.scope->symbol();
    ISymbol& theirs = *best.scope->symbol();
    ICompUnitDetails* details = nullptr;
    bool iHaveDetail = mine.compUnitDetails(details) == status_Ok && details;
    details = nullptr;
    bool theyHaveDetail = theirs.compUnitDetails(details) == status_Ok && details;
    if (iHaveDetail && !theyHaveDetail)
        return true;
    if (!iHaveDetail && theyHaveDetail)
        return false;
    if (symbolPriorityByKind(mine.kind()) != symbolPriorityByKind(theirs.kind()))
        return symbolPriorityByKind(mine.kind()) < symbolPriorityByKind(theirs.kind());
    if (mine.visibility() != theirs.visibility())
        return mine.visibility() > theirs.visibility();
    if (candidate.scope->inlineInstance() && !best.scope->inlineInstance())
        return false;
    return candidate.start > best.start && candidate.start <= address;
}

/// `reports` counts the scopes without symbol that were come upon.
inline ReferenceSymbolTable::EntryPtr ReferenceSymbolTable::choose(const List& list, Address64 address,
                                                                   symbol_kind_t mask,
                                                                   const Selector& selector,
                                                                   int& reports) const {
    std::vector<EntryPtr> candidates;
    for (const Node& node : list) {
        if (node.entry->end <= address && node.entry->start != node.entry->end)
            continue;
        ISymbol* symbol = node.entry->scope->symbol();
        if (!symbol) {
            ++reports;
            break;
        }
        if ((symbol->kind() & mask) != symbol_kind_none)
            candidates.push_back(node.entry);
    }
    if (candidates.empty())
        return nullptr;
    if (!selector) {
        EntryPtr best;
        for (const EntryPtr& candidate : candidates)
            if (!best || beats(*candidate, *best, address))
                best = candidate;
        return best;
    }
    std::vector<ISymbol*> symbols;
    for (const EntryPtr& candidate : candidates)
        symbols.push_back(candidate->scope->symbol());
    ISymbol* chosen = symbols.size() == 1 ? symbols.front() : selector(symbols);
    if (!chosen)
        return nullptr;
    for (const Node& node : list)
        if (node.entry->scope->symbol() == chosen)
            return node.entry;
    return nullptr;
}

} // namespace ORN_3_30::test

#endif
