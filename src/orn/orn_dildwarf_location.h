// Where variables lie: location expressions and the lists of them.
#ifndef ORN_DILDWARF_LOCATION_H
#define ORN_DILDWARF_LOCATION_H

#include "orn_dildwarf_attr.h"
#include "orn_walker.h"

namespace ORN_3_30 {

class IStackFrameContext;

/// The address that the first operation of a location expression gives in a frame; the rest is ignored. 0
/// for an operation that is not read. A null context has 0 in both registers.
unsigned long long readLocation(SectionWalker walker, IStackFrameContext* context,
                                unsigned long long frameBase, unsigned addressSize);

/// Whether an attribute holds an expression itself.
bool isExpression(const AttrBinding& location);
/// Whether an attribute holds the offset of a list.
bool isLocationList(const AttrBinding& location);
/// A walker over the block of an attribute.
SectionWalker walkerOver(const AttrBinding& block);

/// The lists of `.debug_loc`, for one query.
class LocationLists {
public:
    /// `section` may be null.
    explicit LocationLists(ISectionData* section);

    /// The expression of the list at `locOffsetAttr` that holds at `codeAddress`, an address of the symbol
    /// file without any bias. False if there is none.
    bool findLocationListEntry(const DWARFCompilationUnit& unit, const AttrBinding* locOffsetAttr,
                               unsigned addressSize, unsigned long long codeAddress,
                               SectionWalker& outWalker);

private:
    SymMgrObjectPtr<ISectionData> m_section;
    SectionWalker m_walker;
    unsigned long long m_budget; ///< pairs that the query may still read
};

} // namespace ORN_3_30

#endif
