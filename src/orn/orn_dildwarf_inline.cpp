// Expanded calls. The walk makes one scope for each DW_TAG_inlined_subroutine of the level that it reads; the
// line iterators and clients ask the instance for the call. What was expanded is the symbol of the scope; its
// declaration is told by the entry of the function itself.

#include "orn_dildwarf_inline.h"

#include "orn/source.h"
#include "orn_dildwarf.h"
#include "orn_log.h"

namespace ORN_3_30 {

DWARFInlineInstance::DWARFInlineInstance(DWARFInlineInstanceScope* scope) : InlineInstance(scope) {}

DWARFInlineInstanceScope& DWARFInlineInstance::owner() const {
    return static_cast<DWARFInlineInstanceScope&>(*m_scope);
}

int DWARFInlineInstance::hasCallSite() {
    return owner().hasCallSite() ? 1 : 0;
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
    const DWARFInlineInstanceScope& scope = owner();
    if (!scope.hasCallSite())
        return nullptr;
    DWARFCompilationUnit& unit = scope.unit();
    // The abbreviations go with the loader: without it no entry can be read.
    DWARFDebugInfoLoader* loader = unit.getLoader();
    if (!loader)
        return nullptr;
    ScopedLock guard(loader->loadLock());
    AttrBindings entry(&unit);
    if (unit.readAttrBindingsAt(scope.entryOffset(), entry))
        m_location.make(callSiteOf(entry));
    return m_location.get();
}

DWARFInlineInstanceScope::DWARFInlineInstanceScope(IFileFormatLoader* loader, Scope* parent,
                                                   const DWARFName& name, unsigned long long value,
                                                   const Entry& entry, bool hasCallSite)
    : DWARFScope(loader, parent, name, value, symbol_kind_function, entry, DWARFSymbol::declaredBy_Origin),
      m_inlineInstance(this) {
    setHasCallSite(hasCallSite);
}

} // namespace ORN_3_30
