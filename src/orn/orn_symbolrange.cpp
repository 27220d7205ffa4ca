// SymbolRange, the answer to an address query, and the iterators that show a scope's own ranges and thunks. A
// range knows its interval and its scope; everything further is asked of the scope when a caller wants it.

#include "orn_symbolrange.h"

#include "orn/file_format_loader.h"
#include "orn_address.h"
#include "orn_log.h"

namespace ORN_3_30 {

namespace {
constexpr unsigned long long unknownEnd = ~0ULL;
}

SymbolRange::SymbolRange(unsigned long long begin, unsigned long long end, Scope* scope, IThunk* thunk)
    : SymMgrObject<ISymbolRange>(nullptr),
      m_begAddr(begin),
      m_endAddr(end),
      m_scope(scope),
      m_thunk(thunk),
      m_thunkKnown(false) {
    if (m_endAddr == unknownEnd)
        m_endAddr = segmentEnd();
}

void SymbolRange::beginAddress(SymMgrObjectPtr<IAddress>& out) {
    giveAddress(m_begAddress, m_begAddr, out);
}

void SymbolRange::endAddress(SymMgrObjectPtr<IAddress>& out) {
    giveAddress(m_endAddress, m_endAddr, out);
}

void SymbolRange::giveAddress(SymMgrObjectPtr<IAddress>& kept, unsigned long long value,
                              SymMgrObjectPtr<IAddress>& out) {
    if (!kept)
        kept = new Address(m_scope->loader(), value, nullptr);
    out = kept;
}

unsigned long long SymbolRange::size() {
    return ORN_ASSERT(m_endAddr >= m_begAddr) ? m_endAddr - m_begAddr : 0;
}

unsigned long long SymbolRange::sizeToNextSymbol() {
    unsigned long long next = 0;
    if (beginOfNextSymbol(next))
        return next - m_begAddr;
    unsigned long long end = segmentEnd();
    return (end >= m_endAddr ? end : m_endAddr) - m_begAddr;
}

/// The first begin at or behind the end of this range, as the enclosing scope has it.
bool SymbolRange::beginOfNextSymbol(unsigned long long& begin) {
    Scope* parent = m_scope->parentScope();
    SymMgrObjectPtr<Scope::RangeIterator> ranges;
    if (!parent || parent->symbolRanges(ranges, m_endAddr, ~0ULL, symbol_kind_none) != status_Ok || !ranges)
        return false;
    for (auto range = ranges->current(); range; range = ranges->next() ? ranges->current() : nullptr) {
        SymMgrObjectPtr<IAddress> address;
        range->beginAddress(address);
        begin = address->pseudoAddr();
        if (begin >= m_endAddr && begin > m_begAddr)
            return true;
    }
    return false;
}

unsigned long long SymbolRange::segmentEnd() {
    IFileFormatLoader* loader = m_scope->loader();
    ISegment* seg = loader->findSegment(m_begAddr);
    if (!ORN_ASSERT(seg))
        return ~0ULL;
    return seg->getRva() + seg->getMemorySize() + loader->getImageBase();
}

ISymbol* SymbolRange::symbol() {
    return m_scope->symbol();
}

IInlineInstance* SymbolRange::inlineInstance() {
    return m_scope->inlineInstance();
}

IThunk* SymbolRange::thunk() {
    if (!m_thunk && !m_thunkKnown) {
        SymMgrObjectPtr<IThunk> found;
        m_scope->thunkAt(m_begAddr, found);
        m_thunk = found;
        m_thunkKnown = true;
    }
    return m_thunk;
}

// Quirk: where the parent has no range at the begin, the caller gets a reversed range, from all ones to 0.
void SymbolRange::parentRange(SymMgrObjectPtr<ISymbolRange>& out) {
    Scope* parent = m_scope->parentScope();
    if (!parent) {
        out = nullptr;
        return;
    }
    unsigned long long low = ~0ULL;
    unsigned long long high = 0;
    parent->rangeContaining(low, high, m_begAddr);
    out = new SymbolRange(low, high, parent, nullptr);
}

int SymbolRange::startsSymbol() {
    ISymbol* owner = m_scope->symbol();
    if (!owner)
        return 1;
    SymMgrObjectPtr<IAddress> start;
    owner->address(start);
    return !start || start->pseudoAddr() == m_begAddr;
}

void SymbolRange::nestedRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out) {
    static_cast<void>(m_scope->symbolRanges(out, m_begAddr, m_endAddr, symbol_kind_all));
}

void SymbolRange::nestedRangeByAddress(SymMgrObjectPtr<ISymbolRange>& out, IAddress* address) {
    if (!address) {
        out = nullptr;
        return;
    }
    static_cast<void>(m_scope->symbolRangeByAddress(out, address->pseudoAddr(), symbol_kind_all, nullptr));
}

RelRangeIterator::RelRangeIterator(Scope* scope)
    : SymMgrObject<IIterator<SymMgrObjectPtr<ISymbolRange>>>(nullptr),
      m_ranges(scope->rangeList()),
      m_cursor(m_ranges->m_head),
      m_scope(scope) {}

SymMgrObjectPtr<ISymbolRange> RelRangeIterator::current() {
    if (!m_cursor)
        return nullptr;
    return new SymbolRange(m_cursor->low, m_cursor->high, m_scope, nullptr);
}

bool RelRangeIterator::next() {
    if (m_cursor)
        m_cursor = m_cursor->next;
    return m_cursor != nullptr;
}

void RelRangeIterator::reset() {
    m_cursor = m_ranges->m_head;
}

ThunkRangeIterator::ThunkRangeIterator(Scope* scope)
    : SymMgrObject<IIterator<SymMgrObjectPtr<ISymbolRange>>>(nullptr), m_cursor(0), m_scope(scope) {}

SymMgrObjectPtr<ISymbolRange> ThunkRangeIterator::current() {
    if (m_cursor >= thunkCount())
        return nullptr;
    // A thunk of a scope is a Thunk: addThunk() takes nothing else.
    auto* thunk = static_cast<Thunk*>((*m_scope->thunks())[m_cursor].get());
    return new SymbolRange(thunk->address(), thunk->end(), m_scope, thunk);
}

bool ThunkRangeIterator::next() {
    if (m_cursor < thunkCount())
        ++m_cursor;
    return m_cursor < thunkCount();
}

std::size_t ThunkRangeIterator::thunkCount() const {
    return m_scope->hasThunks() ? m_scope->thunks()->size() : 0;
}

} // namespace ORN_3_30
