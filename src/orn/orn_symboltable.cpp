// SymbolTable: takes scopes in, merges what is the same, and answers who owns an address. Filled by the loads
// of its scope, asked by every query. How the cells are stored is in orn_symboltable_cells, the views over an
// interval are in orn_symboltable_iterators. It takes no lock and never reads a file.

#include "orn_symboltable.h"

#include "orn_log.h"
#include "orn_symbolrange.h"
#include "orn_symboltable_iterators.h"

#include <new>

namespace ORN_3_30 {

namespace {

/// Overlaps cost a node per entry and cell, so a forged file could ask for the square of its symbols. Nodes
/// are therefore limited by a number that no honest module comes near: an entry would have to lie inside 64
/// others on average. Beyond it the table is out of memory.
constexpr unsigned long long nodesAlwaysAllowed = 16ULL << 20;
constexpr unsigned long long nodesAllowedPerEntry = 64;

/// Puts a node in its place in a cell's list. `from` is null, or a node of the list that it is known to come
/// behind; what is returned is such a node for further nodes whose ends are not above this one's.
CellNode* insertNode(Cell& cell, CellNode* node, CellNode* from = nullptr) {
    unsigned long long end = node->entry->end;
    if (!cell.head || end > cell.head->entry->end) {
        node->next = cell.head;
        cell.head = node;
        return node;
    }
    // Quirk: the head is passed whatever its end, the others only if their ends are greater.
    CellNode* previous = from ? from : cell.head;
    while (previous->next && previous->next->entry->end > end)
        previous = previous->next;
    node->next = previous->next;
    previous->next = node;
    return previous;
}

bool unlinkNode(Cell& cell, const CellNode* node) {
    for (CellNode** link = &cell.head; *link; link = &(*link)->next) {
        if (*link == node) {
            *link = node->next;
            return true;
        }
    }
    return false;
}

/// Whether a candidate takes an address from the best one so far; both cover it.
bool beats(const CellEntry& candidate, ISymbol& candidateSymbol, const CellEntry& best, ISymbol& bestSymbol,
           unsigned long long address) {
    auto hasDebugDetail = [](ISymbol& symbol) {
        ICompUnitDetails* details = nullptr;
        return symbol.compUnitDetails(details) == status_Ok && details;
    };
    bool candidateHasDetail = hasDebugDetail(candidateSymbol);
    if (candidateHasDetail != hasDebugDetail(bestSymbol))
        return candidateHasDetail;
    unsigned candidateRank = symbolPriorityByKind(candidateSymbol.kind());
    unsigned bestRank = symbolPriorityByKind(bestSymbol.kind());
    if (candidateRank != bestRank)
        return candidateRank < bestRank;
    symbol_visibility_t candidateVisibility = candidateSymbol.visibility();
    symbol_visibility_t bestVisibility = bestSymbol.visibility();
    if (candidateVisibility != bestVisibility)
        return candidateVisibility > bestVisibility;
    // The inner symbol wins, but inlined code never displaces what is not inlined.
    return candidate.start > best.start && candidate.start <= address &&
           !(candidate.scope->inlineInstance() && !best.scope->inlineInstance());
}

} // namespace

ISymbolTable* ISymbolTable::create(Scope* scope) {
    return new SymbolTable(scope, nullptr);
}

SymbolTable::SymbolTable(Scope* scope, ILock* lock)
    : SymMgrObject<ISymbolTable>(lock), m_scope(scope), m_entryCount(0), m_nodeCount(0), m_changeStamp(0) {}

SymbolTable::~SymbolTable() {
    for (Scope* scope : m_scopes)
        delete scope;
}

// --- Taking scopes in

/// Runs `add`, which says whether the scope is in the table now, and keeps or destroys the scope. A scope
/// whose addition fails half way may have entries already, so it stays.
template <typename Add>
int SymbolTable::takeScope(Scope* scope, const Add& add) {
    if (!scope)
        return 0;
    bool wasOwned = scope->isOwnedByTable();
    if (!wasOwned) {
        m_scopes.push_back(scope);
        scope->setOwnedByTable();
    }
    if (add())
        return 1;
    if (!wasOwned) {
        m_scopes.pop_back();
        delete scope;
    }
    return 0;
}

int SymbolTable::addScope(Scope* scope) {
    return takeScope(scope, [&] {
        bool added = false;
        Scope* survivor = nullptr;
        addScopeRanges(scope, added, survivor);
        addScopeThunks(scope, added, survivor ? survivor : scope);
        return added;
    });
}

int SymbolTable::addScopeRange(unsigned long long low, unsigned long long high, Scope* scope) {
    if (!scope) {
        markSectionEnd(low);
        return 0;
    }
    return takeScope(scope, [&] { return addEntry(low, high, scope)->entry->scope == scope; });
}

/// `survivor` is the scope that the ranges now belong to: this one if any range was entered for it, else the
/// one that absorbed the last range.
void SymbolTable::addScopeRanges(Scope* scope, bool& added, Scope*& survivor) {
    auto addRange = [&](unsigned long long low, unsigned long long high) {
        Scope* holder = addEntry(low, high, scope)->entry->scope;
        added = added || holder == scope;
        if (survivor != scope)
            survivor = holder;
    };
    if (!scope->hasManyRanges()) {
        if (const Scope::RangeNode* only = scope->rangeList()->m_head)
            addRange(only->low, only->high);
        return;
    }
    // From a copy of the list: an entry may fold ranges of the very scope that is being added.
    std::vector<std::pair<unsigned long long, unsigned long long>> ranges;
    for (const Scope::RangeNode* node = scope->rangeList()->m_head; node; node = node->next)
        ranges.emplace_back(node->low, node->high);
    for (auto [low, high] : ranges)
        addRange(low, high);
}

void SymbolTable::addScopeThunks(Scope* scope, bool& added, Scope* target) {
    if (!scope->hasThunks())
        return;
    for (std::size_t index = 0; index < scope->thunks()->size(); ++index)
        addThunkEntry(scope, (*scope->thunks())[index], added, target);
}

void SymbolTable::addThunkEntry(Scope* scope, IThunk* held, bool& added, Scope* target) {
    auto* thunk = static_cast<Thunk*>(held);
    Scope* holder = addEntry(thunk->address(), thunk->end(), target)->entry->scope;
    added = added || holder == scope;
    if (target != scope && holder == target) {
        target->addThunk(thunk);
    } else if (!added) {
        holder->addThunk(thunk);
        holder->removeRange(thunk->address());
    }
}

/// Enters [start, end) of a scope and gives the node that stands for it: a new one, or that of an entry which
/// turned out to be the same thing.
CellNode* SymbolTable::addEntry(unsigned long long start, unsigned long long end, Scope* scope) {
    Position cell = m_cells.lowerBound(start);
    bool isNewKey = cell == m_cells.end() || m_cells.at(cell).key != start;
    if (!isNewKey) {
        if (CellNode* settled = settleWithExisting(cell, end, scope))
            return settled;
    }
    CellEntry* entry = newEntry(start, end, scope);
    ++m_changeStamp;
    if (isNewKey)
        cell = addCell(cell, start, entry);
    else
        insertNode(m_cells.at(cell), &entry->ownerNode);
    extend(cell, entry, start);
    return &entry->ownerNode;
}

/// Asks the entries that start where the newcomer starts. Null: none of them is the same thing.
CellNode* SymbolTable::settleWithExisting(Position cell, unsigned long long end, Scope* scope) {
    unsigned long long key = m_cells.at(cell).key;
    unsigned long long nextKey = 0;
    Scope* nextScope = nullptr;
    bool isNeighbourKnown = false;
    for (CellNode* node = m_cells.at(cell).head; node; node = node->next) {
        CellEntry* entry = node->entry;
        if (entry->start != key)
            continue;
        if (!isNeighbourKnown)
            findNeighbour(cell, nextKey, nextScope);
        isNeighbourKnown = true;
        unsigned bits = entry->scope->compare(scope, nextKey, nextScope);
        if (bits == scopeMatch_Same)
            return node;
        if (bits != scopeMatch_None)
            return mergeInto(entry, end, scope, bits);
    }
    return nullptr;
}

/// The next cell, and the last listed scope that starts there.
void SymbolTable::findNeighbour(Position cell, unsigned long long& nextKey, Scope*& nextScope) const {
    nextKey = ~0ULL;
    nextScope = nullptr;
    Position next = m_cells.next(cell);
    if (next == m_cells.end())
        return;
    nextKey = m_cells.at(next).key;
    for (const CellNode* node = m_cells.at(next).head; node; node = node->next) {
        if (node->entry->start == nextKey)
            nextScope = node->entry->scope;
    }
}

/// Lets an entry take the newcomer over, as the bits of compare() say.
CellNode* SymbolTable::mergeInto(CellEntry* entry, unsigned long long end, Scope* scope, unsigned bits) {
    ++m_changeStamp;
    unsigned long long knownUpTo = entry->start;
    if (bits & scopeMatch_Grow) {
        if (!entry->isEmpty())
            removeFromFollowingCells(entry->start, entry->end, ValueComparer(entry));
    } else if (bits & scopeMatch_Fold) {
        knownUpTo = entry->end;
        removeFurtherRanges(entry->scope);
    }
    entry->scope->merge(scope, bits);
    if (bits & (scopeMatch_Grow | scopeMatch_Fold)) {
        entry->end = end;
        putBack(entry, knownUpTo);
    }
    return &entry->ownerNode;
}

// --- Cells and their lists

CellEntry* SymbolTable::newEntry(unsigned long long start, unsigned long long end, Scope* scope) {
    CellEntry* entry = m_entryPool.allocate();
    *entry = {{entry, nullptr}, start, end, scope};
    ++m_entryCount;
    return entry;
}

CellNode* SymbolTable::newNode(CellEntry* entry) {
    if (m_nodeCount >= nodesAlwaysAllowed + nodesAllowedPerEntry * m_entryCount)
        throw std::bad_alloc();
    CellNode* node = m_nodePool.allocate();
    *node = {entry, nullptr};
    ++m_nodeCount;
    return node;
}

/// A cell for a new key, with what reaches into it from the cell before. A null `entry` makes a cell without
/// an entry of its own.
SymbolTable::Position SymbolTable::addCell(Position before, unsigned long long key, CellEntry* entry) {
    Position cell = m_cells.insert(before, key);
    if (entry) {
        entry->ownerNode.next = nullptr;
        m_cells.at(cell).head = &entry->ownerNode;
    }
    if (cell != m_cells.begin())
        copyReachingEntries(m_cells.previous(cell), cell);
    return cell;
}

/// Stops at the first entry that does not reach the new cell. Quirk: an empty entry is never copied, and
/// nothing that is listed behind it either.
void SymbolTable::copyReachingEntries(Position from, Position to) {
    Cell& target = m_cells.at(to);
    CellNode* place = nullptr;
    unsigned long long lastEnd = 0;
    for (CellNode* node = m_cells.at(from).head; node && node->entry->end > target.key; node = node->next) {
        // Ends descend, so each copy goes behind the one before it: the copying is linear.
        bool isBehindLast = place && node->entry->end <= lastEnd;
        lastEnd = node->entry->end;
        place = insertNode(target, newNode(node->entry), isBehindLast ? place : nullptr);
    }
}

/// Nothing reaches beyond a section's end but what was known to: the empty symbols in front of it do not.
void SymbolTable::markSectionEnd(unsigned long long key) {
    Position cell = m_cells.lowerBound(key);
    if (cell != m_cells.end() && m_cells.at(cell).key == key)
        return;
    ++m_changeStamp;
    addCell(cell, key, nullptr);
}

/// Makes the entry known to the cells behind its own that it covers, from `fromKey` on.
void SymbolTable::extend(Position cell, CellEntry* entry, unsigned long long fromKey) {
    for (cell = m_cells.next(cell); cell != m_cells.end() && m_cells.at(cell).key < entry->end;
         cell = m_cells.next(cell)) {
        if (m_cells.at(cell).key >= fromKey)
            insertNode(m_cells.at(cell), newNode(entry));
    }
}

/// Ranks an entry anew after its end has changed. Removing the further ranges of its scope may have taken the
/// entry itself out, or even its cell.
void SymbolTable::putBack(CellEntry* entry, unsigned long long fromKey) {
    Position cell = m_cells.lowerBound(entry->start);
    if (cell == m_cells.end() || m_cells.at(cell).key != entry->start) {
        cell = addCell(cell, entry->start, entry);
    } else {
        unlinkNode(m_cells.at(cell), &entry->ownerNode);
        insertNode(m_cells.at(cell), &entry->ownerNode);
    }
    extend(cell, entry, fromKey);
}

/// From the cells whose keys lie above `key` and below `end`.
void SymbolTable::removeFromFollowingCells(unsigned long long key, unsigned long long end,
                                           const ISymbolTableListItemComparer& comparer) {
    Position cell = m_cells.upperBound(key);
    while (cell != m_cells.end() && m_cells.at(cell).key < end)
        cell = removeMatching(cell, comparer);
}

void SymbolTable::removeFurtherRanges(Scope* scope) {
    if (!scope->hasManyRanges())
        return;
    ScopeComparer comparer(scope);
    for (Scope::RangeNode* range = scope->rangeList()->m_head->next; range; range = range->next) {
        if (m_cells.find(range->low) == m_cells.end())
            continue;
        removeFromFollowingCells(range->low, range->high, comparer);
        removeMatching(m_cells.find(range->low), comparer);
    }
}

/// Takes the first matching node out; a cell that is empty then goes too. Gives the following cell.
///
/// An entry whose owner goes keeps its memory until the table dies: nodes of it may be left in other cells,
/// where a scope's ranges and its entries disagree. This happens only where scopes are folded.
SymbolTable::Position SymbolTable::removeMatching(Position cell,
                                                  const ISymbolTableListItemComparer& comparer) {
    Cell& holder = m_cells.at(cell);
    for (CellNode** link = &holder.head; *link; link = &(*link)->next) {
        CellNode* node = *link;
        if (!comparer.matches(*node))
            continue;
        *link = node->next;
        if (node != &node->entry->ownerNode) {
            m_nodePool.free(node);
            --m_nodeCount;
        }
        break;
    }
    return holder.head ? m_cells.next(cell) : m_cells.erase(cell);
}

// --- Queries

/// The cell that holds `address`, or the end.
SymbolTable::Position SymbolTable::cellHolding(unsigned long long address) const {
    Position above = m_cells.upperBound(address);
    return above == m_cells.begin() ? m_cells.end() : m_cells.previous(above);
}

/// The cell that holds `low`; the first one if `low` lies before it.
SymbolTable::Position SymbolTable::firstCellOf(unsigned long long low) const {
    Position above = m_cells.upperBound(low);
    return above == m_cells.begin() ? above : m_cells.previous(above);
}

/// An empty entry covers its whole cell: it is a symbol whose size nobody told. Not so an expanded call
/// without code, of which compilers leave many behind: what is known to be nowhere covers nothing.
bool SymbolTable::covers(const CellEntry& entry, unsigned long long address) {
    return entry.end > address || (entry.isEmpty() && !entry.scope->inlineInstance());
}

void SymbolTable::symbolRangeByAddress(SymMgrObjectPtr<ISymbolRange>& out, unsigned long long address,
                                       symbol_kind_t mask, ISymbolSelector* selector) {
    out = nullptr;
    Position cell = cellHolding(address);
    if (cell == m_cells.end())
        return;
    if (const CellEntry* entry = choose(cell, address, mask, selector))
        out = new SymbolRange(entry->start, entry->end, entry->scope, nullptr);
}

const CellEntry* SymbolTable::choose(Position cell, unsigned long long address, symbol_kind_t mask,
                                     ISymbolSelector* selector) {
    return selector ? selected(cell, address, mask, *selector) : winner(m_cells.at(cell), address, mask);
}

/// The default rule.
const CellEntry* SymbolTable::winner(const Cell& cell, unsigned long long address, symbol_kind_t mask) {
    const CellEntry* best = nullptr;
    ISymbol* bestSymbol = nullptr;
    for (const CellNode* node = cell.head; node; node = node->next) {
        const CellEntry* entry = node->entry;
        if (!covers(*entry, address))
            continue;
        ISymbol* symbol = entry->scope->symbol();
        if (!ORN_ASSERT(symbol != NULL))
            break;
        if ((symbol->kind() & mask) == symbol_kind_none)
            continue;
        if (best && !beats(*entry, *symbol, *best, *bestSymbol, address))
            continue;
        best = entry;
        bestSymbol = symbol;
    }
    return best;
}

/// The selector may run queries of its own, and these may load: the cell is looked up again behind the call.
const CellEntry* SymbolTable::selected(Position cell, unsigned long long address, symbol_kind_t mask,
                                       ISymbolSelector& selector) {
    unsigned long long key = m_cells.at(cell).key;
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbol>>> candidates =
        new SymbolByAddrIterator(this, key, address, mask);
    SymMgrObjectPtr<ISymbol> chosen = candidates->current();
    if (chosen && candidates->next()) {
        candidates->reset();
        chosen = selector.select(candidates);
    }
    cell = m_cells.find(key);
    if (!chosen || cell == m_cells.end())
        return nullptr;
    for (const CellNode* node = m_cells.at(cell).head; node; node = node->next) {
        if (node->entry->scope->symbol() == chosen.get())
            return node->entry;
    }
    return nullptr;
}

void SymbolTable::symbolRanges(RangeIteratorPtr& out, unsigned long long low, unsigned long long high,
                               symbol_kind_t mask) {
    out = nullptr;
    if (low > high)
        return;
    SymMgrObjectPtr<SymbolRangesIterator> ranges = new SymbolRangesIterator(this, low, high, mask);
    if (ranges->hasCurrent())
        out = ranges.get();
}

void SymbolTable::nonOverlappedSymbolRanges(RangeIteratorPtr& out, unsigned long long low,
                                            unsigned long long high, symbol_kind_t mask,
                                            ISymbolSelector* selector) {
    out = nullptr;
    if (low > high)
        return;
    SymMgrObjectPtr<NonOverlappedSymbolRangesIterator> ranges =
        new NonOverlappedSymbolRangesIterator(this, low, high, mask, selector);
    if (ranges->hasCurrent())
        out = ranges.get();
}

} // namespace ORN_3_30
