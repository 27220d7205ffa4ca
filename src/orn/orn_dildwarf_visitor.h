// Walks over entries that look at each one and make no symbols.
#ifndef ORN_DILDWARF_VISITOR_H
#define ORN_DILDWARF_VISITOR_H

#include "orn_dildwarf_attr.h"
#include "orn_walker.h"

#include <cstdint>

namespace ORN_3_30 {

/// What looks at the entries of a walk.
class DIEVisitor {
public:
    /// True to go on with the walk. `attrBindings` is the walk's own, for as long as the call.
    virtual bool visit(SectionWalker& walker, DWARFCompilationUnit& unit, AttrBindings& attrBindings) = 0;
    virtual ~DIEVisitor() = default;

    void enterLevel() { ++m_depth; }
    void leaveLevel() { --m_depth; }
    /// Of the entry that is being visited; 0 where the walk began.
    std::uint32_t depth() const { return m_depth; }

private:
    std::uint32_t m_depth = 0;
};

/// Visits the entry at the walker, its siblings behind it, and all that is below them. False where the
/// visitor ended the walk.
bool visitDIEs(SectionWalker& walker, DWARFCompilationUnit& unit, DIEVisitor& visitor);

} // namespace ORN_3_30

#endif
