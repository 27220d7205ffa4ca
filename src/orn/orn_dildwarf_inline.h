// Code that was expanded in place: its scope, and where the call stood.
#ifndef ORN_DILDWARF_INLINE_H
#define ORN_DILDWARF_INLINE_H

#include "orn_dildwarf_scope.h"

namespace ORN_3_30 {

class DWARFInlineInstanceScope;

/// One expansion of a function at one call. Part of its scope. A module may have more of these than of
/// functions, so the place of the call stays in the entry until someone asks for it.
class DWARFInlineInstance : public InlineInstance {
public:
    explicit DWARFInlineInstance(DWARFInlineInstanceScope* scope);

    void callSite(SymMgrObjectPtr<ISourceLocation>& out) override;
    int hasCallSite() override;
    void onLastRelease() override {} // part of its scope

private:
    DWARFInlineInstanceScope& owner() const;
    ISourceLocation* ensureLocation();

    DWARFLocation m_location;
};

/// The scope of one expansion, below that of a function or of another expansion.
class DWARFInlineInstanceScope : public DWARFScope {
public:
    DWARFInlineInstanceScope(IFileFormatLoader* loader, Scope* parent, const DWARFName& name,
                             unsigned long long value, const Entry& entry, bool hasCallSite);

    IInlineInstance* inlineInstance() override { return &m_inlineInstance; }

private:
    DWARFInlineInstance m_inlineInstance;
};

} // namespace ORN_3_30

#endif
