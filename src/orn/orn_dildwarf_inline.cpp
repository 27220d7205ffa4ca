// Expanded calls. The walk makes one scope for each DW_TAG_inlined_subroutine of the level that it reads; the
// line iterators and clients ask the instance for the call. What was expanded is the symbol of the scope; its
// declaration is told by the entry of the function itself.

#include "orn_dildwarf_inline.h"

#include "orn/source.h"
#include "orn_dildwarf.h"
#include "orn_log.h"

namespace ORN_3_30 {

DWARFInlineInstance::DWARFInlineInstance(DWARFInlineInstanceScope* scope, const DWARFPosition& callSite)
    : InlineInstance(scope), m_callSite(callSite) {}

int DWARFInlineInstance::hasCallSite() {
    return m_callSite.exists() ? 1 : 0;
}

/// A call in a file that is not known has no location, though it has a place.
void DWARFInlineInstance::callSite(SymMgrObjectPtr<ISourceLocation>& out) try {
    out = ensureLocation();
} catch (const std::bad_alloc&) {
    ORN_LOG_ERROR("Out of memory");
    out = nullptr;
}

ISourceLocation* DWARFInlineInstance::ensureLocation() {
    if (ISourceLocation* known = m_location.get())
        return known;
    if (!m_callSite.exists())
        return nullptr;
    DWARFDebugInfoLoader* loader = m_callSite.unit->getLoader();
    if (!loader)
        return nullptr;
    ScopedLock guard(loader->loadLock());
    m_location.make(m_callSite);
    return m_location.get();
}

DWARFInlineInstanceScope::DWARFInlineInstanceScope(IFileFormatLoader* loader, Scope* parent,
                                                   const DWARFName& name, unsigned long long value,
                                                   const Entry& entry, const DWARFPosition& callSite)
    : DWARFScope(loader, parent, name, value, symbol_kind_function, entry, DWARFSymbol::declaredBy_Origin),
      m_inlineInstance(this, callSite) {}

} // namespace ORN_3_30
