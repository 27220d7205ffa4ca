// Symbols of compiled managed code. The walk over the container makes them through OATSymbolCallBack; clients
// ask them for their source. Names and ranges are the base's business.

#include "orn_oat_symbol.h"

#include "orn/address.h"
#include "orn_ffl_arith.h"
#include "orn_linetable_impl.h"
#include "orn_log.h"

#include <algorithm>
#include <memory>

namespace ORN_3_30 {

namespace {

/// A container has no units to tell one method from another by.
constexpr unsigned long long noId = ~0ULL;
constexpr unsigned long long everyUnit = 0;

} // namespace

/// Compilers store equal code once, so that crowds of methods share an address: the table has to tell them
/// apart quickly.
OATSymbolScope::OATSymbolScope(IFileFormatLoader* loader, Scope* parent)
    : SymbolScope(loader, parent, nullptr) {
    setToldBy(ToldBy::RawName);
}

OATSymbol::OATSymbol(IFileFormatLoader* loader, const char* name, unsigned long long address, Scope* scope,
                     symbol_visibility_t visibility, symbol_kind_t kind, OATSrcLineResolver* resolver)
    : Symbol(loader, name, address, scope, visibility, kind, noId), m_lineResolver(resolver) {}

OATSymbol::~OATSymbol() {
    if (ISourceLocation* location = m_sourceLocation.load(std::memory_order_relaxed))
        location->release();
}

status_t OATSymbol::sourceLocation(SymMgrObjectPtr<ISourceLocation>& out) {
    try {
        if (ISourceLocation* known = m_sourceLocation.load(std::memory_order_acquire)) {
            out = known;
            return status_Ok;
        }
        SymMgrObjectPtr<ISourceLocation> found;
        if (m_lineResolver)
            m_lineResolver->sourceLocationAt(found, value(), everyUnit, nullptr, nullptr);
        if (!found)
            return status_False;
        ISourceLocation* kept = nullptr;
        if (m_sourceLocation.compare_exchange_strong(kept, found.get(), std::memory_order_acq_rel)) {
            kept = found;
            kept->addRef(); // the symbol's reference
        }
        out = kept;
        return status_Ok;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

/// An empty interval asks for one address: right for a method of size 0, wrong for one that is clipped away.
void OATSymbol::sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out, IAddress* low,
                            IAddress* high) try {
    out = nullptr;
    const unsigned long long begin = scope()->firstLow();
    const unsigned long long end = scope()->lastHigh();
    const unsigned long long from = low ? std::max(begin, low->pseudoAddr()) : begin;
    const unsigned long long to = high ? std::min(end, high->pseudoAddr()) : end;
    if (!m_lineResolver || from > to || (from == to && begin != end))
        return;
    if (isFailure(m_lineResolver->sourceLines(out, everyUnit, LineQuery::everyFile, from, to, nullptr)))
        out = nullptr;
} catch (const std::bad_alloc&) {
    ORN_LOG_ERROR("Out of memory");
    out = nullptr;
}

void OATSymbol::sourceLineAt(SymMgrObjectPtr<ISourceLine>& out, IAddress* addr) try {
    out = nullptr;
    if (addr && m_lineResolver)
        m_lineResolver->sourceLineAt(out, addr->pseudoAddr(), everyUnit, nullptr);
} catch (const std::bad_alloc&) {
    ORN_LOG_ERROR("Out of memory");
    out = nullptr;
}

void OATSymbolCallBack::operator()(const char* name, unsigned long long address, unsigned long long size,
                                   symbol_visibility_t visibility, symbol_kind_t kind) {
    if (!name || !*name)
        return;
    auto scope = std::make_unique<OATSymbolScope>(&m_loader, m_sink.scope());
    scope->setSymbol(new OATSymbol(&m_loader, name, address, scope.get(), visibility, kind, m_resolver));
    const unsigned long long end = internal::saturatingSum(address, size);
    scope->addRange(address, end);
    m_sink.addScopeRange(address, end, scope.release());
}

} // namespace ORN_3_30
