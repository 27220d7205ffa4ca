// Sizes of types: what a variable takes of the address space.
#ifndef ORN_DILDWARF_TYPES_H
#define ORN_DILDWARF_TYPES_H

#include "orn_dildwarf_attr.h"

#include <unordered_map>
#include <vector>

namespace ORN_3_30 {

/// What is known of a type.
struct TypeInfo {
    unsigned long long size = 0; ///< in bytes; 0 where it is not known
    bool isInteger = false;      ///< a base type of one of the integer names, or a typedef of it
    /// In `.debug_info`, of the structure, class or union that the type is, or leads to; all ones without
    /// one.
    unsigned long long structOffset = ~0ULL;
    unsigned long long tag = 0; ///< `DW_TAG_*` of the type's own entry
};

/// The types of one loader by their offsets, each read once. Used under the loading lock.
class DWARFTypes {
public:
    /// Reads the type at `offset` of `.debug_info`; `unit` is where the reference stands. False without such
    /// a type, and where types lead round in a circle.
    bool readType(DWARFCompilationUnit& unit, unsigned long long offset, TypeInfo& typeInfo);

private:
    struct Known {
        bool isReadable = false; ///< also false while the type is being read
        TypeInfo info;
    };
    /// One type on the way from the type asked for to the one that all its sizes come from.
    struct Step;

    bool readStep(DWARFCompilationUnit& unit, unsigned long long offset, Step& step);

    std::unordered_map<unsigned long long, Known> m_known;
};

} // namespace ORN_3_30

#endif
