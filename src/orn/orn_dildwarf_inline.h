// Code that was expanded in place: its scope, and where the call stood.
#ifndef ORN_DILDWARF_INLINE_H
#define ORN_DILDWARF_INLINE_H

#include "orn_dildwarf_scope.h"

namespace ORN_3_30 {

class DWARFInlineInstanceScope;

/// One expansion of a function at one call. Part of its scope.
class DWARFInlineInstance : public InlineInstance {
public:
    DWARFInlineInstance(DWARFInlineInstanceScope* scope, const DWARFPosition& callSite);

    void callSite(SymMgrObjectPtr<ISourceLocation>& out) override;
    int hasCallSite() override;
    void onLastRelease() override {} // part of its scope

private:
    ISourceLocation* ensureLocation();

    DWARFPosition m_callSite;
    DWARFLocation m_location;
};

/// The scope of one expansion, below that of a function or of another expansion.
class DWARFInlineInstanceScope : public DWARFScope {
public:
    DWARFInlineInstanceScope(IFileFormatLoader* loader, Scope* parent, const DWARFName& name,
                             unsigned long long value, const Entry& entry, const DWARFPosition& callSite);

    IInlineInstance* inlineInstance() override { return &m_inlineInstance; }

private:
    DWARFInlineInstance m_inlineInstance;
};

} // namespace ORN_3_30

#endif
