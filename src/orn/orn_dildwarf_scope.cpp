// Scopes of entries: how a symbol of the debug information takes in the plain symbol of the same function,
// and the lazy reading of what is inside. The symbol table calls compare() and merge() while symbols load;
// queries call the rest. The reading itself is orn_dildwarf_walk.cpp's.

#include "orn_dildwarf_scope.h"

#include "orn_dildwarf.h"
#include "orn_log.h"

#include <cstring>

namespace ORN_3_30 {

namespace {

NamedSymbol* namedSymbolOf(Scope* scope) {
    // Every symbol of a scope is a NamedSymbol: ISymbol has no names that go without the lock.
    return static_cast<NamedSymbol*>(scope->symbolObject());
}

/// Equal, or the second one is the first and a final ".": some compilers mark local copies so.
bool equalButForDot(const char* a, const char* b) {
    while (*a && *a == *b) {
        ++a;
        ++b;
    }
    return *a == 0 && (*b == 0 || (b[0] == '.' && b[1] == 0));
}

/// Names of the schemes that C++ and Rust compilers use. Those have a short form that is never the raw one.
bool looksMangled(const char* name) {
    return name[0] == '_' && (name[1] == 'Z' || name[1] == 'R');
}

/// The bits that two names give.
///
/// The short form of a mangled name costs as much as demangling it, and the table compares every plain symbol
/// with the debug symbol of its function: so equal mangled names are settled first. The short forms, then
/// equal, say the same.
unsigned compareNames(NamedSymbol& mine, NamedSymbol& other) {
    const char* raw = mine.rawNameUnlocked();
    const char* otherRaw = other.rawNameUnlocked();
    if (looksMangled(raw) && std::strcmp(raw, otherRaw) == 0)
        return scopeMatch_TakeVisibility;
    const char* otherShort = other.shortNameUnlocked();
    if (equalButForDot(raw, otherShort))
        return scopeMatch_TakeName | scopeMatch_TakeVisibility;
    const char* shortName = mine.shortNameUnlocked();
    if (equalButForDot(shortName, otherShort) && !equalButForDot(raw, shortName))
        return scopeMatch_TakeVisibility;
    return equalButForDot(raw, otherRaw) ? scopeMatch_TakeVisibility : scopeMatch_None;
}

} // namespace

DWARFScope::DWARFScope(IFileFormatLoader* loader, Scope* parent, const DWARFName& name,
                       unsigned long long value, symbol_kind_t kind, const Entry& entry,
                       DWARFSymbol::DeclaredBy declaredBy)
    : SymbolScope(loader, parent, nullptr),
      m_embeddedSymbol(loader, name, value, this, kind, entry.unit, entry.offset, declaredBy),
      m_hasMembers(entry.tag == DW_TAG_variable || entry.tag == DW_TAG_member) {
    setSymbol(&m_embeddedSymbol);
    setToldBy(ToldBy::AnyName);
}

/// The reference goes before the symbol that it points at.
DWARFScope::~DWARFScope() {
    setSymbol(nullptr);
}

// --- The plain symbol of the same function

unsigned DWARFScope::compare(Scope* other, unsigned long long nextKey, Scope* nextScope) {
    NamedSymbol* otherSymbol = namedSymbolOf(other);
    if (firstLow() != other->firstLow() || !otherSymbol)
        return scopeMatch_None;
    const unsigned names = compareNames(m_embeddedSymbol, *otherSymbol);
    if (names == scopeMatch_None)
        return scopeMatch_None;
    return names + compareRanges(other, nextKey, nextScope);
}

/// Whether this scope is to take the other's extent: the symbol table of the format knows the size of a
/// function, debug information sometimes does not.
unsigned DWARFScope::compareRanges(Scope* other, unsigned long long nextKey, Scope* nextScope) const {
    const unsigned long long high = lastHigh();
    const unsigned long long otherHigh = other->lastHigh();
    if (hasManyRanges() && !other->hasManyRanges())
        return high == otherHigh ? scopeMatch_Fold : scopeMatch_None;
    if (other->firstLow() == otherHigh)
        return scopeMatch_None;
    if (firstLow() == high)
        return scopeMatch_Grow;
    const bool reachesTooFar = high > nextKey && otherHigh < high;
    if (!reachesTooFar && (high >= nextKey || otherHigh > nextKey || otherHigh <= high))
        return scopeMatch_None;
    return endsWhereNextBegins(other, nextKey, nextScope) ? scopeMatch_None : scopeMatch_Grow;
}

/// The other one goes up to a piece of the same name: it is split there, and this scope has both pieces.
bool DWARFScope::endsWhereNextBegins(Scope* other, unsigned long long nextKey, Scope* nextScope) const {
    if (!nextScope || other->lastHigh() != nextKey)
        return false;
    NamedSymbol* nextSymbol = namedSymbolOf(nextScope);
    return nextSymbol &&
           equalButForDot(namedSymbolOf(other)->rawNameUnlocked(), nextSymbol->rawNameUnlocked());
}

void DWARFScope::merge(Scope* other, unsigned int bits) {
    NamedSymbol* otherSymbol = namedSymbolOf(other);
    if (bits & scopeMatch_TakeName)
        m_embeddedSymbol.setName(otherSymbol->rawNameUnlocked());
    if (bits & scopeMatch_TakeVisibility)
        m_embeddedSymbol.setVisibility(otherSymbol->visibility());
    const RangeNode* otherFirst = other->rangeList()->m_head;
    if ((bits & scopeMatch_Grow) && rangeList()->m_head && otherFirst)
        rangeList()->m_head->high = otherFirst->high;
    if ((bits & scopeMatch_Fold) && hasManyRanges())
        collapseRanges(other->lastHigh());
}

// --- What is inside

ILock* DWARFScope::loadLock() const {
    DWARFDebugInfoLoader* loader = unit().getLoader();
    return loader ? loader->loadLock() : nullptr;
}

/// Most scopes have nothing inside: those answer without a table of their own.
status_t DWARFScope::symbolRanges(SymMgrObjectPtr<RangeIterator>& out, unsigned long long low,
                                  unsigned long long high, symbol_kind_t mask) {
    if (mask != symbol_kind_none) {
        if (const status_t status = load(mask); status != status_Ok)
            return status;
    }
    if (hasTable())
        return SymbolScope::symbolRanges(out, low, high, mask);
    out = nullptr;
    return status_False;
}

status_t DWARFScope::symbolRangeByAddress(SymMgrObjectPtr<ISymbolRange>& out, unsigned long long address,
                                          symbol_kind_t mask, ISymbolSelector* selector) {
    if (const status_t status = load(mask); status != status_Ok)
        return status;
    if (hasTable())
        return SymbolScope::symbolRangeByAddress(out, address, mask, selector);
    out = nullptr;
    return status_False;
}

status_t DWARFScope::load(symbol_kind_t mask) {
    if (isRead(mask))
        return status_Ok;
    ScopedLock guard(loadLock());
    return SymbolScope::load(mask);
}

/// Has a mask of its own beside the base's: of two threads that want the same kinds the second one finds them
/// read once it has the lock.
status_t DWARFScope::loadContent(symbol_kind_t mask) {
    ScopedLock guard(loadLock());
    const symbol_kind_t missing = mask & ~m_readKinds.load(std::memory_order_relaxed);
    if (missing == symbol_kind_none)
        return status_Ok;
    status_t status = status_OutOfMemory;
    try {
        status = readContent(missing);
    } catch (const std::bad_alloc&) {
        ORN_LOG_ERROR("Out of memory");
    }
    m_readKinds.store(m_readKinds.load(std::memory_order_relaxed) | missing, std::memory_order_release);
    return status;
}

status_t DWARFScope::readContent(symbol_kind_t mask) {
    DWARFDebugInfoLoader* loader = unit().getLoader();
    if (!loader)
        return status_NoDebugInfo;
    const status_t status = loader->loadChildren(unit(), entryOffset(), *this, mask);
    if (status != status_Ok)
        return status;
    if ((mask & symbol_kind_variable) && m_hasMembers)
        loader->loadMembers(unit(), entryOffset(), *this);
    return status_Ok;
}

} // namespace ORN_3_30
