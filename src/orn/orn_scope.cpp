// Scopes: the regions that symbols stand for, and the module-wide scope that everything hangs below. A scope
// keeps its own ranges and thunks, makes its nested table at first use, and reads nothing before a query
// names a kind that is not loaded yet. What is read, and how, is the loaders' business; who wins an address
// is the table's.

#include "orn_scope.h"

#include "orn/address.h"
#include "orn/debug_info_loader.h"
#include "orn/file_format_loader.h"
#include "orn_log.h"
#include "orn_symbolrange.h"
#include "orn_symboltable.h"

#include <algorithm>
#include <cstring>

namespace ORN_3_30 {

bool LoadFilter::passes(unsigned long long low, unsigned long long high) const {
    if (m_addresses->empty() || low == high)
        return true;
    auto found = m_addresses->lower_bound(low);
    return found != m_addresses->end() && *found < high;
}

Scope::Scope(IFileFormatLoader* loader, Scope* parent, ILock* lock)
    : SymMgrObject<IScope>(lock),
      m_extras(nullptr),
      m_parent(parent),
      m_loader(loader),
      m_nextOwned(nullptr),
      m_loadedKinds(symbol_kind_none),
      m_firstNodeTaken(false),
      m_ownedByTable(false),
      m_toldBy(ToldBy::Anything) {}

Scope::~Scope() {
    releaseContent();
    delete m_extras.load(std::memory_order_relaxed);
    while (RangeNode* node = m_rangeList.m_head) {
        m_rangeList.m_head = node->next;
        freeRangeNode(node);
    }
}

void Scope::releaseContent() {
    Extras* mine = m_extras.load(std::memory_order_acquire);
    if (!mine)
        return;
    if (ISymbolTable* table = mine->m_symbolTable.exchange(nullptr))
        table->release();
    if (Thunks* thunks = mine->m_thunks.load(std::memory_order_acquire))
        thunks->clear();
}

Scope::Extras& Scope::extras() {
    Extras* mine = m_extras.load(std::memory_order_acquire);
    if (!mine) {
        auto made = std::make_unique<Extras>();
        if (m_extras.compare_exchange_strong(mine, made.get(), std::memory_order_acq_rel))
            mine = made.release();
    }
    return *mine;
}

ISymbolTable* Scope::symbolTable() {
    Extras& mine = extras();
    ISymbolTable* table = mine.m_symbolTable.load(std::memory_order_acquire);
    if (!table) {
        SymMgrObjectPtr<ISymbolTable> made = new SymbolTable(this, &mine.m_lock);
        if (mine.m_symbolTable.compare_exchange_strong(table, made.get(), std::memory_order_acq_rel)) {
            table = made;
            table->addRef(); // the scope's reference
        }
    }
    return table;
}

Scope::Thunks* Scope::thunks() {
    Extras& mine = extras();
    Thunks* thunks = mine.m_thunks.load(std::memory_order_acquire);
    if (!thunks) {
        auto made = std::make_unique<Thunks>();
        if (mine.m_thunks.compare_exchange_strong(thunks, made.get(), std::memory_order_acq_rel))
            thunks = made.release();
    }
    return thunks;
}

// The three queries below share their steps: load what the mask asks for, ask the table, say whether there
// was an answer.

// Quirk: `status_False` of a load ends the query too. A plain symbol's scope has nothing to load, so its
// first query for a new mask gives `status_False` with `out` untouched, and the second one answers.
status_t Scope::symbolRanges(SymMgrObjectPtr<RangeIterator>& out, unsigned long long low,
                             unsigned long long high, symbol_kind_t mask) {
    if (mask == symbol_kind_none)
        mask = loadedKinds();
    status_t status = load(mask);
    if (status != status_Ok)
        return status;
    symbolTable()->symbolRanges(out, low, high, mask);
    return out ? status_Ok : status_False;
}

status_t Scope::symbolRangeByAddress(SymMgrObjectPtr<ISymbolRange>& out, unsigned long long address,
                                     symbol_kind_t mask, ISymbolSelector* selector) {
    status_t status = load(mask);
    if (status != status_Ok)
        return status;
    symbolTable()->symbolRangeByAddress(out, address, mask, selector);
    return out ? status_Ok : status_False;
}

status_t Scope::nonOverlappedSymbolRanges(SymMgrObjectPtr<RangeIterator>& out, unsigned long long low,
                                          unsigned long long high, symbol_kind_t mask,
                                          ISymbolSelector* selector) {
    status_t status = load(mask);
    if (status != status_Ok)
        return status;
    symbolTable()->nonOverlappedSymbolRanges(out, low, high, mask, selector);
    return out ? status_Ok : status_False;
}

// Quirk: a failed load counts as done. Later queries see whatever the table holds.
status_t Scope::load(symbol_kind_t mask) {
    symbol_kind_t missing = mask & ~loadedKinds();
    if (missing == symbol_kind_none)
        return status_Ok;
    auto noteAsLoaded = [&] { m_loadedKinds.store(loadedKinds() | missing, std::memory_order_relaxed); };
    try {
        status_t status = loadContent(missing);
        noteAsLoaded();
        return status;
    } catch (...) {
        noteAsLoaded();
        throw;
    }
}

unsigned Scope::compare(Scope* other, unsigned long long, Scope*) {
    bool otherIsEmptyAlone = firstLow() != lastHigh() && other->firstLow() == other->lastHigh();
    if (!otherIsEmptyAlone && lastHigh() != other->lastHigh())
        return scopeMatch_None;
    ISymbol* mine = symbol();
    ISymbol* theirs = other->symbol();
    bool isSame = mine && theirs && std::strcmp(mine->rawName(), theirs->rawName()) == 0;
    return isSame ? scopeMatch_Same : scopeMatch_None;
}

void Scope::merge(Scope*, unsigned int) {}

// --- Ranges

void Scope::addRange(unsigned long long low, unsigned long long high) {
    RangeNode* previous = nullptr;
    RangeNode* next = searchStart(low);
    while (next && next->low <= low) {
        previous = next;
        next = next->next;
    }
    // Quirk: a new head is never merged with the old one, even if they touch or overlap.
    if (!previous) {
        insertNode(nullptr, low, high);
        return;
    }
    bool isMerged = mergeForward(next, low, high);
    isMerged = mergeBackward(previous, low, high) || isMerged;
    if (!isMerged)
        insertNode(previous, low, high);
}

/// Lets the node behind the new range grow over it. The primary node may grow, but is never taken in.
bool Scope::mergeForward(RangeNode* next, unsigned long long low, unsigned long long high) {
    if (!next || next == m_rangeList.m_primary || high < next->low)
        return false;
    next->low = low;
    next->high = std::max(next->high, high);
    while (next->next && next->next != m_rangeList.m_primary && high >= next->next->low)
        absorbFollowing(next);
    m_rangeList.m_cursor = next;
    return true;
}

/// Lets the node in front of the new range grow over it, and over what it then reaches. Ranges that touch are
/// merged too.
bool Scope::mergeBackward(RangeNode* previous, unsigned long long low, unsigned long long high) {
    if (previous->high < low)
        return false;
    previous->high = std::max(previous->high, high);
    while (previous->next && previous->next != m_rangeList.m_primary && previous->high >= previous->next->low)
        absorbFollowing(previous);
    m_rangeList.m_cursor = previous;
    return true;
}

void Scope::absorbFollowing(RangeNode* node) {
    RangeNode* absorbed = node->next;
    node->high = std::max(node->high, absorbed->high);
    node->next = absorbed->next;
    freeRangeNode(absorbed);
}

/// Behind `previous`, or in front of everything.
void Scope::insertNode(RangeNode* previous, unsigned long long low, unsigned long long high) {
    RangeNode*& link = previous ? previous->next : m_rangeList.m_head;
    link = newRangeNode(low, high, link);
    m_rangeList.m_cursor = link;
    if (!previous && !m_rangeList.m_primary)
        m_rangeList.m_primary = link;
}

void Scope::removeRange(unsigned long long low) {
    RangeNode* previous = nullptr;
    RangeNode* node = m_rangeList.m_head;
    while (node && node->low != low) {
        previous = node;
        node = node->next;
    }
    if (!node)
        return;
    if (!previous) {
        m_rangeList.m_head = node->next;
        m_rangeList.m_cursor = node->next;
    } else {
        previous->next = node->next;
        if (m_rangeList.m_cursor == node)
            m_rangeList.m_cursor = previous;
    }
    if (m_rangeList.m_primary == node)
        m_rangeList.m_primary = nullptr;
    freeRangeNode(node);
}

void Scope::collapseRanges(unsigned long long high) {
    RangeNode* head = m_rangeList.m_head;
    if (!head)
        return;
    while (RangeNode* node = head->next) {
        head->next = node->next;
        freeRangeNode(node);
    }
    head->high = high;
    m_rangeList.m_cursor = head;
    m_rangeList.m_primary = head;
}

bool Scope::rangeContaining(unsigned long long& low, unsigned long long& high, unsigned long long address) {
    RangeNode* found = nullptr;
    for (RangeNode* node = searchStart(address); node && node->low <= address; node = node->next)
        found = node;
    if (!found || found->high <= address)
        return false;
    low = found->low;
    high = found->high;
    m_rangeList.m_cursor.store(found, std::memory_order_relaxed);
    return true;
}

unsigned long long Scope::lastHigh() const {
    RangeNode* node = m_rangeList.m_cursor.load(std::memory_order_relaxed);
    if (!node)
        node = m_rangeList.m_head;
    if (!node)
        return ~0ULL;
    while (node->next)
        node = node->next;
    return node->high;
}

Scope::RangeNode* Scope::searchStart(unsigned long long address) const {
    RangeNode* cursor = m_rangeList.m_cursor.load(std::memory_order_relaxed);
    return cursor && address >= cursor->low ? cursor : m_rangeList.m_head;
}

Scope::RangeNode* Scope::newRangeNode(unsigned long long low, unsigned long long high, RangeNode* next) {
    if (m_firstNodeTaken)
        return new RangeNode{low, high, next};
    m_firstNodeTaken = true;
    m_firstNode = {low, high, next};
    return &m_firstNode;
}

void Scope::freeRangeNode(RangeNode* node) {
    if (node == &m_firstNode)
        m_firstNodeTaken = false;
    else
        delete node;
}

// --- Thunks

// Quirk: only the new thunk's address is tested, so one that starts in front of a held thunk and reaches into
// it is kept.
void Scope::addThunk(IThunk* thunk) {
    SymMgrObjectPtr<IThunk> held(thunk);
    auto* added = static_cast<Thunk*>(thunk);
    SymMgrObjectPtr<IThunk> covering;
    thunkAt(added->address(), covering);
    if (covering)
        return;
    thunks()->push_back(held);
    added->setScope(this);
}

void Scope::thunkAt(unsigned long long address, SymMgrObjectPtr<IThunk>& out) {
    out = nullptr;
    if (!hasThunks())
        return;
    for (const SymMgrObjectPtr<IThunk>& thunk : *thunks()) {
        if (static_cast<Thunk*>(thunk.get())->contains(address)) {
            out = thunk;
            return;
        }
    }
}

// --- SymbolScope

SymbolScope::SymbolScope(IFileFormatLoader* loader, Scope* parent, ILock* lock)
    : Scope(loader, parent, lock) {}

SymbolScope::SymbolScope(IFileFormatLoader* loader, Scope* parent, ISymbol* symbol, ILock* lock)
    : Scope(loader, parent, lock), m_symbol(symbol) {
    ORN_ASSERT(m_symbol != NULL);
}

unsigned long long SymbolScope::id() {
    // Every symbol of a scope is a NamedSymbol: ISymbol has no identity of its own.
    return m_symbol ? static_cast<NamedSymbol*>(m_symbol.get())->id() : Scope::id();
}

status_t SymbolScope::loadContent(symbol_kind_t) {
    return status_False;
}

namespace {

/// A scope and its symbol in one piece of memory. Modules have as many of them as names.
class PlainSymbolScope final : public SymbolScope {
public:
    PlainSymbolScope(IFileFormatLoader* loader, const char* name, unsigned long long value, Scope* parent,
                     symbol_visibility_t visibility, symbol_kind_t kind)
        : SymbolScope(loader, parent, nullptr),
          m_embeddedSymbol(loader, name, value, this, visibility, kind, ~0ULL) {
        setSymbol(&m_embeddedSymbol);
        setToldBy(ToldBy::RawName);
    }
    /// The reference goes before the symbol that it points at.
    ~PlainSymbolScope() override { setSymbol(nullptr); }

private:
    class EmbeddedSymbol : public Symbol {
    public:
        using Symbol::Symbol;
        void onLastRelease() override {} // part of its scope
    };

    EmbeddedSymbol m_embeddedSymbol;
};

} // namespace

SymbolScope* createSymbolScope(IFileFormatLoader& loader, const char* name, unsigned long long value,
                               Scope* parent, symbol_visibility_t visibility, symbol_kind_t kind) {
    return new PlainSymbolScope(&loader, name, value, parent, visibility, kind);
}

// --- GlobalScope

GlobalScope::GlobalScope(IFileFormatLoader* fileLoader, IDebugInfoLoader* debugLoader, ILock* lock)
    : Scope(fileLoader, nullptr, lock),
      m_fileLoader(fileLoader),
      m_debugLoader(debugLoader),
      m_loadFilter(&m_interestingAddresses) {
    if (m_debugLoader)
        m_lineResolver = m_debugLoader->getLineResolver(this, &m_loadLock);
}

/// Here, and not in the members' own destructors: tables and resolvers are guarded by locks of this scope.
GlobalScope::~GlobalScope() {
    m_lineResolver = nullptr;
    m_rangesCache = nullptr;
    releaseContent();
}

status_t GlobalScope::load(symbol_kind_t mask) {
    ScopedLock guard(&m_loadLock);
    return Scope::load(mask);
}

// Debug information comes first, so that the table always sees a debug symbol as the one that is there when
// the plain symbol of the same function arrives.
status_t GlobalScope::loadContent(symbol_kind_t mask) {
    status_t debugStatus = m_debugLoader ? status_Ok : status_False;
    status_t fileStatus = status_Ok;
    if (mask != symbol_kind_none) {
        if (m_debugLoader)
            debugStatus = loadDebugSymbols(mask);
        fileStatus = m_fileLoader->readSymbols(symbolTable(), &m_loadFilter, mask);
    }
    if (isFailure(fileStatus))
        return fileStatus;
    if (isFailure(debugStatus))
        return debugStatus;
    return fileStatus != status_Ok ? debugStatus : status_Ok;
}

/// Debug information that does not fit into memory leaves the format's own symbols to be read.
status_t GlobalScope::loadDebugSymbols(symbol_kind_t mask) {
    try {
        return m_debugLoader->loadSymbols(symbolTable(), &m_loadFilter, mask, m_lineResolver);
    }
    ORN_CATCH_OUT_OF_MEMORY
}

void GlobalScope::addInterestingAddress(unsigned long long address) {
    // Outside the lock: the resolver may take locks of its own.
    if (m_lineResolver)
        m_lineResolver->noteAddress(address);
    ScopedLock guard(&m_loadLock);
    forgetLoadedKinds();
    ScopedLock rangesGuard(&m_rangesLock);
    m_interestingAddresses.insert(address);
}

// Quirk: the ranges are found once; addresses that are noted later do not change them.
void GlobalScope::interestingRanges(SymMgrObjectPtr<RangeFilter>& out) {
    std::set<unsigned long long> addresses;
    {
        ScopedLock guard(&m_rangesLock);
        out = m_rangesCache;
        if (out || m_interestingAddresses.empty())
            return;
        addresses = m_interestingAddresses;
    }
    symbol_kind_t kinds = loadedKinds();
    if (kinds == symbol_kind_none) {
        kinds = symbol_kind_code;
        static_cast<void>(load(kinds));
    }
    out = new RangeFilter(&m_rangesLock);
    for (unsigned long long address : addresses)
        addRangesAround(address, kinds, *out);
    ScopedLock guard(&m_rangesLock);
    m_rangesCache = out;
}

/// A symbol whose size is not known reaches to the next one.
void GlobalScope::addRangesAround(unsigned long long address, symbol_kind_t kinds, RangeFilter& ranges) {
    SymMgrObjectPtr<ISymbolRange> found;
    symbolTable()->symbolRangeByAddress(found, address, kinds, nullptr);
    if (!found || !found->symbol())
        return;
    SymMgrObjectPtr<RangeIterator> pieces;
    found->symbol()->ranges(pieces);
    if (!pieces)
        return;
    for (auto piece = pieces->current(); piece; piece = pieces->next() ? pieces->current() : nullptr) {
        SymMgrObjectPtr<IAddress> start;
        piece->beginAddress(start);
        unsigned long long size = piece->size();
        unsigned long long begin = start->pseudoAddr();
        ranges.add(begin, begin + (size != 0 ? size : piece->sizeToNextSymbol()));
    }
}

} // namespace ORN_3_30
