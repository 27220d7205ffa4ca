// SymbolTable: takes scopes in, merges what is the same, and answers who owns an address. Filled by the loads
// of its scope, asked by every query. How the cells are stored is in orn_symboltable_cells, the views over an
// interval are in orn_symboltable_iterators. It takes no lock and never reads a file.

#include "orn_symboltable.h"

#include "orn_log.h"
#include "orn_symbolrange.h"
#include "orn_symboltable_iterators.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace ORN_3_30 {

namespace {

/// Overlaps cost a listing per entry and cell, so a forged file could ask for the square of its symbols.
/// Listings are therefore limited by a number that no honest module comes near: an entry would have to lie
/// inside 64 others on average. Beyond it the table is out of memory.
constexpr unsigned long long listingsAlwaysAllowed = 16ULL << 20;
constexpr unsigned long long listingsAllowedPerEntry = 64;
/// Each listing moves those on one side of it in the list. Lists are as long as a forged file likes, so the
/// moves are limited too, by far more than the longest lists of honest modules need: those of functions that
/// the linker dropped, which all lie at one address.
constexpr unsigned long long movesAlwaysAllowed = 1ULL << 28;
constexpr unsigned long long movesAllowedPerEntry = 1ULL << 16;

/// From `place` on, behind every entry that ends above `end`. Quirk: the head is passed whatever its end, the
/// others only if their ends are greater.
std::size_t placeBehind(const CellList& list, std::size_t place, unsigned long long end) {
    place = std::max<std::size_t>(place, 1);
    while (place < list.size() && list[place]->end > end)
        ++place;
    return place;
}

/// Lists longer than this are searched with the help of name hashes.
constexpr std::size_t crowdedList = 16;

std::size_t hashOf(std::string_view name) {
    return std::hash<std::string_view>()(name);
}

std::string_view withoutFinalDot(std::string_view name) {
    return !name.empty() && name.back() == '.' ? name.substr(0, name.size() - 1) : name;
}

/// Null until somebody has asked for the scope of a plain symbol; queries may make it at any moment.
Scope* madeScope(CellEntry& entry) {
    return std::atomic_ref<Scope*>(entry.scope).load(std::memory_order_acquire);
}

/// What the ranking asks of a symbol. A plain one is told by its entry, without a look at its scope.
class Contender {
public:
    explicit Contender(CellEntry& entry)
        : m_entry(&entry), m_symbol(entry.isPlain() ? nullptr : entry.scope->symbol()) {}

    bool hasSymbol() const { return m_entry->isPlain() || m_symbol; }
    symbol_kind_t kind() const {
        return m_symbol ? m_symbol->kind() : static_cast<symbol_kind_t>(m_entry->kind);
    }
    CellEntry* entry() const { return m_entry; }

    /// Whether this one takes an address from the best one so far; both cover it.
    bool beats(const Contender& best, unsigned long long address) const {
        if (hasDebugDetail() != best.hasDebugDetail())
            return hasDebugDetail();
        const unsigned rank = symbolPriorityByKind(kind());
        const unsigned bestRank = symbolPriorityByKind(best.kind());
        if (rank != bestRank)
            return rank < bestRank;
        if (visibility() != best.visibility())
            return visibility() > best.visibility();
        // The inner symbol wins, but inlined code never displaces what is not inlined.
        return m_entry->start > best.m_entry->start && m_entry->start <= address &&
               !(isInlined() && !best.isInlined());
    }

private:
    symbol_visibility_t visibility() const {
        return m_symbol ? m_symbol->visibility() : static_cast<symbol_visibility_t>(m_entry->visibility);
    }
    bool hasDebugDetail() const {
        ICompUnitDetails* details = nullptr;
        return m_symbol && m_symbol->compUnitDetails(details) == status_Ok && details;
    }
    bool isInlined() const { return m_symbol && m_entry->scope->inlineInstance(); }

    CellEntry* m_entry;
    ISymbol* m_symbol; ///< null for a plain symbol
};

/// Guards the making of scopes of plain symbols, by queries of any thread on any table: short and rare. Never
/// destroyed, for a client may ask in a static destructor.
ILock* makeScopeLock() {
    static OrnLock* const lock = new OrnLock;
    return lock;
}

} // namespace

/// Who asks to enter the table: a scope with one of its intervals, or a plain symbol. The scope of a plain
/// one is made only if an entry has to compare itself with it, and goes with the newcomer: should it be asked
/// for, it is made again. An entry that held it could be left behind by an allocation that fails.
class SymbolTable::Newcomer {
public:
    Newcomer(unsigned long long start, unsigned long long end, Scope* scope)
        : start(start), end(end), m_scope(scope), m_plain(nullptr), m_loader(nullptr), m_parent(nullptr) {}
    Newcomer(unsigned long long start, unsigned long long end, const PlainSymbol& plain,
             IFileFormatLoader& loader, Scope* parent)
        : start(start), end(end), m_scope(nullptr), m_plain(&plain), m_loader(&loader), m_parent(parent) {}

    const unsigned long long start;
    const unsigned long long end;

    const PlainSymbol* plain() const { return m_plain; }
    /// The scope for the entry to hold; null for a plain symbol.
    Scope* lastingScope() const { return m_scope; }
    Scope* scope() {
        if (m_scope)
            return m_scope;
        if (!m_made)
            m_made.reset(newPlainScope(*m_loader, m_parent, *m_plain, start, end));
        return m_made.get();
    }
    /// The names, null without a symbol.
    const char* rawName() {
        if (m_plain)
            return m_plain->name;
        ISymbol* symbol = m_scope->symbol();
        return symbol ? symbol->rawName() : nullptr;
    }
    const char* shortName() {
        ISymbol* symbol = scope()->symbol();
        return symbol ? symbol->shortName() : nullptr;
    }

    /// The rule of plain symbols, without their scopes.
    bool isSameAs(const CellEntry& entry) const {
        const bool isEmptyAlone = !entry.isEmpty() && start == end;
        return (isEmptyAlone || entry.end == end) && std::strcmp(entry.name, m_plain->name) == 0;
    }

private:
    Scope* m_scope;
    const PlainSymbol* m_plain;
    IFileFormatLoader* m_loader;
    Scope* m_parent;
    std::unique_ptr<Scope> m_made;
};

/// The entries that start at one crowded address, by hashes of their names: some modules have thousands of
/// names for one address, and debug information leaves the functions that the linker dropped all at one. To
/// compare each with each would take the square of their number.
struct SymbolTable::Crowd {
    std::unordered_multimap<std::size_t, CellEntry*> byName;
    std::vector<CellEntry*> others; ///< of scopes that are not told by their names
    bool hasShortNames = false;     ///< some are told by their short names too

    void add(CellEntry& entry) {
        if (entry.isPlain()) {
            byName.emplace(hashOf(entry.name), &entry);
            return;
        }
        ISymbol* symbol = entry.scope->symbol();
        if (!symbol || entry.scope->toldBy() == Scope::ToldBy::Anything) {
            others.push_back(&entry);
            return;
        }
        byName.emplace(hashOf(symbol->rawName()), &entry);
        if (entry.scope->toldBy() == Scope::ToldBy::AnyName) {
            byName.emplace(hashOf(symbol->shortName()), &entry);
            hasShortNames = true;
        }
    }

    void collect(std::string_view name, std::vector<CellEntry*>& out) const {
        for (std::string_view form : {name, withoutFinalDot(name)}) {
            auto [first, last] = byName.equal_range(hashOf(form));
            for (; first != last; ++first)
                out.push_back(first->second);
        }
    }
};

struct SymbolTable::ModuleParts {
    IFileFormatLoader* plainLoader = nullptr; ///< borrowed: of the plain symbols
    Crowds crowds;
};

SymbolTable::ModuleParts& SymbolTable::moduleParts() {
    if (!m_module)
        m_module = std::make_unique<ModuleParts>();
    return *m_module;
}

ISymbolTable* ISymbolTable::create(Scope* scope) {
    try {
        return new SymbolTable(scope, nullptr);
    } catch (const std::bad_alloc&) {
        ORN_LOG_ERROR("Out of memory");
        return nullptr;
    }
}

// OwnedScopes

void OwnedScopes::append(Scope* scope) {
    linkBehind(m_last) = scope;
    m_last = scope;
}

void OwnedScopes::append(OwnedScopes& others) {
    if (!others.m_first)
        return;
    linkBehind(m_last) = others.m_first;
    m_last = others.m_last;
    others.m_first = others.m_last = nullptr;
}

void OwnedScopes::remove(Scope* scope, Scope* previous) {
    linkBehind(previous) = scope->nextOwned();
    if (m_last == scope)
        m_last = previous;
}

Scope* OwnedScopes::takeFirst() {
    Scope* first = m_first;
    if (first)
        remove(first, nullptr);
    return first;
}

Scope*& OwnedScopes::linkBehind(Scope* scope) {
    return scope ? scope->nextOwned() : m_first;
}

// SymbolTable

SymbolTable::SymbolTable(Scope* scope, ILock* lock)
    : SymMgrObject<ISymbolTable>(lock),
      m_scope(scope),
      m_entryCount(0),
      m_furtherListings(0),
      m_listingMoves(0),
      m_isOrdered(true),
      m_changeStamp(0) {}

/// The scopes have tables of their own, theirs too, as deep as expanded calls nest in damaged data: the
/// scopes of a table that dies inside the death of another wait until that one is done, so that destructors
/// do not nest.
SymbolTable::~SymbolTable() {
    thread_local OwnedScopes* waiting = nullptr;
    if (waiting) {
        waiting->append(m_scopes);
        return;
    }
    OwnedScopes scopes;
    scopes.append(m_scopes);
    waiting = &scopes;
    while (Scope* scope = scopes.takeFirst())
        delete scope;
    waiting = nullptr;
}

// --- Taking scopes in

/// Runs `add`, which says whether the scope is in the table now, and keeps or destroys the scope. A scope
/// whose addition fails half way may have entries already, so it stays.
template <typename Add>
int SymbolTable::takeScope(Scope* scope, const Add& add) {
    if (!scope)
        return 0;
    bool wasOwned = scope->isOwnedByTable();
    Scope* const previous = m_scopes.last();
    if (!wasOwned) {
        m_scopes.append(scope);
        scope->setOwnedByTable();
    }
    if (add())
        return 1;
    if (!wasOwned) {
        // Not the last one any more if scopes of plain symbols were made on the way.
        m_scopes.remove(scope, previous);
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
    return takeScope(scope, [&] { return addEntry(low, high, scope)->scope == scope; });
}

void SymbolTable::addPlainSymbol(IFileFormatLoader& loader, const PlainSymbol& symbol, unsigned long long low,
                                 unsigned long long high) {
    // One loader is remembered for all plain symbols; a scope carries its own.
    IFileFormatLoader*& known = moduleParts().plainLoader;
    if (known && known != &loader) {
        addScopeRange(low, high, newPlainScope(loader, m_scope, symbol, low, high));
        return;
    }
    known = &loader;
    Newcomer newcomer(low, high, symbol, loader, m_scope);
    addEntry(newcomer);
}

SymbolScope* SymbolTable::newPlainScope(IFileFormatLoader& loader, Scope* parent, const PlainSymbol& symbol,
                                        unsigned long long low, unsigned long long high) {
    std::unique_ptr<SymbolScope> scope(
        createSymbolScope(loader, symbol.name, low, parent, symbol.visibility, symbol.kind));
    scope->addRange(low, high);
    return scope.release();
}

/// The scope of an entry; that of a plain symbol is made when it is asked for first.
Scope* SymbolTable::scopeOf(CellEntry& entry) {
    Scope* scope = madeScope(entry);
    return scope ? scope : makeScope(entry);
}

Scope* SymbolTable::makeScope(CellEntry& entry) {
    ScopedLock guard(makeScopeLock());
    if (Scope* scope = madeScope(entry))
        return scope;
    const PlainSymbol symbol{entry.name, static_cast<symbol_visibility_t>(entry.visibility),
                             static_cast<symbol_kind_t>(entry.kind)};
    std::unique_ptr<SymbolScope> scope(
        newPlainScope(*m_module->plainLoader, m_scope, symbol, entry.start, entry.end));
    m_scopes.append(scope.get());
    scope->setOwnedByTable();
    std::atomic_ref<Scope*>(entry.scope).store(scope.get(), std::memory_order_release);
    return scope.release();
}

/// `survivor` is the scope that the ranges now belong to: this one if any range was entered for it, else the
/// one that absorbed the last range.
void SymbolTable::addScopeRanges(Scope* scope, bool& added, Scope*& survivor) {
    auto addRange = [&](unsigned long long low, unsigned long long high) {
        Scope* holder = addEntry(low, high, scope)->scope;
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
    Scope* holder = addEntry(thunk->address(), thunk->end(), target)->scope;
    added = added || holder == scope;
    if (target != scope && holder == target) {
        target->addThunk(thunk);
    } else if (!added) {
        holder->addThunk(thunk);
        holder->removeRange(thunk->address());
    }
}

/// Enters [start, end) of a scope and gives the entry that stands for it: a new one, or one which turned out
/// to be the same thing.
CellEntry* SymbolTable::addEntry(unsigned long long start, unsigned long long end, Scope* scope) {
    Newcomer newcomer(start, end, scope);
    CellEntry* entry = addEntry(newcomer);
    scopeOf(*entry); // callers look at it
    return entry;
}

CellEntry* SymbolTable::addEntry(Newcomer& newcomer) {
    const unsigned long long start = newcomer.start;
    Position cell = m_cells.lowerBound(start);
    bool isNewKey = cell == m_cells.end() || m_cells.keyAt(cell) != start;
    if (!isNewKey) {
        if (CellEntry* settled = settleWithExisting(cell, newcomer))
            return settled;
    }
    CellEntry* entry = newEntry(newcomer);
    ++m_changeStamp;
    if (isNewKey)
        cell = addCell(cell, start, entry);
    else
        list(m_cells.listAt(cell), entry);
    extend(cell, entry, start);
    if (Crowd* crowd = knownCrowd(start))
        crowd->add(*entry);
    return entry;
}

/// Asks the entries that start where the newcomer starts. Null: none of them is the same thing.
CellEntry* SymbolTable::settleWithExisting(Position cell, Newcomer& newcomer) {
    const CellList& holder = m_cells.listAt(cell);
    if (holder.size() > crowdedList && newcomer.rawName())
        return settleAmong(namesakesOf(newcomer, cell), cell, newcomer);
    return settleAmong(holder, cell, newcomer);
}

template <typename Entries>
CellEntry* SymbolTable::settleAmong(const Entries& entries, Position cell, Newcomer& newcomer) {
    const unsigned long long key = m_cells.keyAt(cell);
    unsigned long long nextKey = 0;
    Scope* nextScope = nullptr;
    bool isNeighbourKnown = false;
    for (CellEntry* entry : entries) {
        if (entry->start != key)
            continue;
        if (newcomer.plain() && entry->isPlain() && !madeScope(*entry)) {
            if (newcomer.isSameAs(*entry))
                return entry;
            continue;
        }
        if (!isNeighbourKnown)
            findNeighbour(cell, nextKey, nextScope);
        isNeighbourKnown = true;
        unsigned bits = scopeOf(*entry)->compare(newcomer.scope(), nextKey, nextScope);
        if (bits == scopeMatch_Same)
            return entry;
        if (bits != scopeMatch_None)
            return mergeInto(entry, newcomer.end, newcomer.scope(), bits);
    }
    return nullptr;
}

/// Null where none was made.
SymbolTable::Crowd* SymbolTable::knownCrowd(unsigned long long start) const {
    if (!m_module)
        return nullptr;
    const auto found = m_module->crowds.find(start);
    return found != m_module->crowds.end() ? found->second.get() : nullptr;
}

SymbolTable::Crowd& SymbolTable::crowdAt(Position cell) {
    const unsigned long long key = m_cells.keyAt(cell);
    std::unique_ptr<Crowd>& place = moduleParts().crowds[key];
    if (place)
        return *place;
    auto made = std::make_unique<Crowd>();
    for (CellEntry* entry : m_cells.listAt(cell))
        if (entry->start == key)
            made->add(*entry);
    place = std::move(made);
    return *place;
}

/// Those of a crowded cell that may be the same thing, in the order of its list.
std::vector<CellEntry*> SymbolTable::namesakesOf(Newcomer& newcomer, Position cell) {
    Crowd& crowd = crowdAt(cell);
    std::vector<CellEntry*> found = crowd.others;
    crowd.collect(newcomer.rawName(), found);
    if (crowd.hasShortNames)
        crowd.collect(newcomer.shortName(), found);
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    if (found.size() < 2)
        return found;
    std::vector<CellEntry*> inOrder;
    for (CellEntry* entry : m_cells.listAt(cell))
        if (std::binary_search(found.begin(), found.end(), entry))
            inOrder.push_back(entry);
    return inOrder;
}

/// The next cell, and the last listed scope that starts there.
void SymbolTable::findNeighbour(Position cell, unsigned long long& nextKey, Scope*& nextScope) {
    nextKey = ~0ULL;
    nextScope = nullptr;
    Position next = m_cells.next(cell);
    if (next == m_cells.end())
        return;
    nextKey = m_cells.keyAt(next);
    CellEntry* last = nullptr;
    for (CellEntry* entry : m_cells.listAt(next)) {
        if (entry->start == nextKey)
            last = entry;
    }
    nextScope = last ? scopeOf(*last) : nullptr;
}

/// Lets an entry take the newcomer over, as the bits of compare() say.
CellEntry* SymbolTable::mergeInto(CellEntry* entry, unsigned long long end, Scope* scope, unsigned bits) {
    ++m_changeStamp;
    unsigned long long knownUpTo = entry->start;
    if (bits & scopeMatch_Grow) {
        if (!entry->isEmpty())
            removeFromFollowingCells(entry->start, entry->end, ValueComparer(entry));
    } else if (bits & scopeMatch_Fold) {
        // The cells that list the entry already keep it where it is, whatever its new end.
        m_isOrdered = m_isOrdered && entry->end == end;
        knownUpTo = entry->end;
        removeFurtherRanges(entry->scope);
    }
    entry->scope->merge(scope, bits);
    if (bits & scopeMatch_TakeName)
        if (Crowd* crowd = knownCrowd(entry->start))
            crowd->add(*entry); // under its new names too
    if (bits & (scopeMatch_Grow | scopeMatch_Fold)) {
        entry->end = end;
        putBack(entry, knownUpTo);
    }
    return entry;
}

// --- Cells and their lists

CellEntry* SymbolTable::newEntry(const Newcomer& newcomer) {
    CellEntry* entry = m_entryPool.allocate();
    *entry = {newcomer.start, newcomer.end, newcomer.lastingScope(), nullptr, 0, 0};
    if (const PlainSymbol* plain = newcomer.plain()) {
        entry->name = plain->name;
        entry->kind = static_cast<std::uint8_t>(plain->kind);
        entry->visibility = static_cast<std::uint8_t>(plain->visibility);
    }
    ++m_entryCount;
    return entry;
}

/// Where an entry with this end goes in a list.
std::size_t SymbolTable::placeIn(const CellList& list, unsigned long long end) const {
    if (list.isEmpty() || end > list[0]->end)
        return 0;
    if (!m_isOrdered)
        return placeBehind(list, 1, end);
    CellEntry* const* others = list.begin() + 1;
    return 1 + partitionPoint(list.size() - 1, [=](std::size_t index) { return others[index]->end > end; });
}

void SymbolTable::list(CellList& list, CellEntry* entry) {
    list.insert(m_listStore, placeIn(list, entry->end), entry);
}

void SymbolTable::listInFurtherCell(CellList& list, std::size_t place, CellEntry* entry) {
    if (m_furtherListings >= listingsAlwaysAllowed + listingsAllowedPerEntry * m_entryCount)
        throw std::bad_alloc();
    m_listingMoves += std::min(place, list.size() - place);
    if (m_listingMoves > movesAlwaysAllowed + movesAllowedPerEntry * m_entryCount)
        throw std::bad_alloc();
    list.insert(m_listStore, place, entry);
    ++m_furtherListings;
}

/// A cell for a new key, with what reaches into it from the cell before. A null `entry` makes a cell without
/// an entry of its own.
SymbolTable::Position SymbolTable::addCell(Position before, unsigned long long key, CellEntry* entry) {
    Position cell = m_cells.insert(before, key);
    if (entry)
        list(m_cells.listAt(cell), entry);
    if (cell != m_cells.begin())
        copyReachingEntries(m_cells.previous(cell), cell);
    return cell;
}

/// Stops at the first entry that does not reach the new cell. Quirk: an empty entry is never copied, and
/// nothing that is listed behind it either.
void SymbolTable::copyReachingEntries(Position from, Position to) {
    const unsigned long long key = m_cells.keyAt(to);
    CellList& target = m_cells.listAt(to);
    const CellList& source = m_cells.listAt(from);
    auto reachingEnd =
        std::find_if(source.begin(), source.end(), [&](const CellEntry* entry) { return entry->end <= key; });
    if (reachingEnd == source.begin())
        return;
    target.reserve(m_listStore, target.size() + static_cast<std::size_t>(reachingEnd - source.begin()));
    std::size_t place = 0;
    unsigned long long lastEnd = 0;
    for (auto entry = source.begin(); entry != reachingEnd; ++entry) {
        // Ends descend, so an entry goes where the last one went or behind it: the copying is linear.
        bool isBehindLast = entry != source.begin() && (*entry)->end <= lastEnd;
        lastEnd = (*entry)->end;
        place = isBehindLast ? placeBehind(target, place, lastEnd) : placeIn(target, lastEnd);
        listInFurtherCell(target, place, *entry);
    }
}

/// Nothing reaches beyond a section's end but what was known to: the empty symbols in front of it do not.
void SymbolTable::markSectionEnd(unsigned long long key) {
    Position cell = m_cells.lowerBound(key);
    if (cell != m_cells.end() && m_cells.keyAt(cell) == key)
        return;
    ++m_changeStamp;
    addCell(cell, key, nullptr);
}

/// Makes the entry known to the cells behind its own that it covers, from `fromKey` on.
void SymbolTable::extend(Position cell, CellEntry* entry, unsigned long long fromKey) {
    for (cell = m_cells.next(cell); cell != m_cells.end() && m_cells.keyAt(cell) < entry->end;
         cell = m_cells.next(cell)) {
        if (m_cells.keyAt(cell) >= fromKey)
            listInFurtherCell(m_cells.listAt(cell), placeIn(m_cells.listAt(cell), entry->end), entry);
    }
}

/// Ranks an entry anew after its end has changed. Removing the further ranges of its scope may have taken the
/// entry itself out, or even its cell.
void SymbolTable::putBack(CellEntry* entry, unsigned long long fromKey) {
    Position cell = m_cells.lowerBound(entry->start);
    if (cell == m_cells.end() || m_cells.keyAt(cell) != entry->start) {
        cell = addCell(cell, entry->start, entry);
    } else {
        CellList& holder = m_cells.listAt(cell);
        auto found = std::find(holder.begin(), holder.end(), entry);
        if (found != holder.end())
            holder.erase(m_listStore, static_cast<std::size_t>(found - holder.begin()));
        list(m_cells.listAt(cell), entry);
    }
    extend(cell, entry, fromKey);
}

/// From the cells whose keys lie above `key` and below `end`.
void SymbolTable::removeFromFollowingCells(unsigned long long key, unsigned long long end,
                                           const ISymbolTableListItemComparer& comparer) {
    Position cell = m_cells.upperBound(key);
    while (cell != m_cells.end() && m_cells.keyAt(cell) < end)
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

/// Takes the first matching entry out; a cell that is empty then goes too. Gives the following cell.
SymbolTable::Position SymbolTable::removeMatching(Position cell,
                                                  const ISymbolTableListItemComparer& comparer) {
    CellList& holder = m_cells.listAt(cell);
    auto found = std::find_if(holder.begin(), holder.end(),
                              [&](const CellEntry* entry) { return comparer.matches(*entry); });
    if (found != holder.end()) {
        if ((*found)->start != m_cells.keyAt(cell))
            --m_furtherListings;
        else if (m_module)
            m_module->crowds.erase((*found)->start); // made anew when it is needed
        holder.erase(m_listStore, static_cast<std::size_t>(found - holder.begin()));
    }
    return holder.isEmpty() ? m_cells.erase(cell) : m_cells.next(cell);
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

/// An empty entry covers its whole cell: it is a symbol whose size nobody told.
bool SymbolTable::covers(const CellEntry& entry, unsigned long long address) {
    return entry.end > address || entry.isEmpty();
}

void SymbolTable::symbolRangeByAddress(SymMgrObjectPtr<ISymbolRange>& out, unsigned long long address,
                                       symbol_kind_t mask, ISymbolSelector* selector) {
    out = nullptr;
    Position cell = cellHolding(address);
    if (cell == m_cells.end())
        return;
    if (CellEntry* entry = choose(cell, address, mask, selector))
        out = new SymbolRange(entry->start, entry->end, scopeOf(*entry), nullptr);
}

CellEntry* SymbolTable::choose(Position cell, unsigned long long address, symbol_kind_t mask,
                               ISymbolSelector* selector) {
    return selector ? selected(cell, address, mask, *selector) : winner(m_cells.listAt(cell), address, mask);
}

/// The default rule.
CellEntry* SymbolTable::winner(const CellList& list, unsigned long long address, symbol_kind_t mask) {
    std::optional<Contender> best;
    for (CellEntry* entry : list) {
        if (!covers(*entry, address))
            continue;
        const Contender contender(*entry);
        if (!ORN_ASSERT_TEXT(contender.hasSymbol(), "symbol != NULL"))
            break;
        if ((contender.kind() & mask) == symbol_kind_none)
            continue;
        if (!best || contender.beats(*best, address))
            best = contender;
    }
    return best ? best->entry() : nullptr;
}

/// The selector may run queries of its own, and these may load: the cell is looked up again behind the call.
CellEntry* SymbolTable::selected(Position cell, unsigned long long address, symbol_kind_t mask,
                                 ISymbolSelector& selector) {
    unsigned long long key = m_cells.keyAt(cell);
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
    for (CellEntry* entry : m_cells.listAt(cell)) {
        Scope* scope = madeScope(*entry); // a chosen symbol has one
        if (scope && scope->symbol() == chosen.get())
            return entry;
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
