// The walk that the search for stack variables and their members shares. Unlike the walk that makes symbols
// (orn_dildwarf_walk.cpp) it passes nothing: every entry is decoded.

#include "orn_dildwarf_visitor.h"

#include "orn_dildwarf_unit.h"
#include "orn_log.h"

namespace ORN_3_30 {

/// Levels are counted and not called: entries nest as deep as damaged data likes. What ends a level is a null
/// entry, or one that cannot be decoded: then the walker stands at the end, so that all levels end.
bool visitDIEs(SectionWalker& walker, DWARFCompilationUnit& unit, DIEVisitor& visitor) {
    AttrBindings entry(&unit);
    for (;;) {
        if (!unit.readAttrBindings(walker, entry)) {
            if (visitor.depth() == 0)
                return true;
            visitor.leaveLevel();
            continue;
        }
        if (!visitor.visit(walker, unit, entry))
            return false;
        if (entry.hasChildren())
            visitor.enterLevel();
    }
}

} // namespace ORN_3_30
