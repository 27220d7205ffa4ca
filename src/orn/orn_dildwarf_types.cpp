// Sizes of types, for the symbols of static variables and for stack variables. A type's size may come from
// another type: typedefs, qualifiers, arrays. Such a chain is walked to its end and then filled from there,
// so that its length costs no stack. Everything else about types is left out.

#include "orn_dildwarf_types.h"

#include "orn_dildwarf.h"
#include "orn_log.h"

#include <string_view>

namespace ORN_3_30 {

namespace {

/// Types that have size and structure of the type that they name.
bool isFollowed(unsigned long long tag) {
    switch (tag) {
    case DW_TAG_typedef:
    case DW_TAG_pointer_type:
    case DW_TAG_reference_type:
    case DW_TAG_const_type:
    case DW_TAG_packed_type:
    case DW_TAG_volatile_type:
    case DW_TAG_restrict_type:
    case DW_TAG_shared_type:
    case DW_TAG_rvalue_reference_type:
        return true;
    default:
        return false;
    }
}

bool isStructure(unsigned long long tag) {
    return tag == DW_TAG_structure_type || tag == DW_TAG_class_type || tag == DW_TAG_union_type;
}

bool isIntegerName(std::string_view name) {
    constexpr std::string_view ending = " int";
    const bool endsSo = name.size() >= ending.size() && name.substr(name.size() - ending.size()) == ending;
    return name == "int" || endsSo || name == "short" || name == "unsigned short";
}

unsigned long long saturatedProduct(unsigned long long a, unsigned long long b) {
    unsigned long long product = 0;
    return __builtin_mul_overflow(a, b, &product) ? ~0ULL : product;
}

/// A bound that is computed or told by another entry is not known here.
bool isConstant(const AttrBinding& bound) {
    return bound.form == DW_FORM_data8 || bound.form == DW_FORM_udata || bound.form == DW_FORM_sdata;
}

/// How many elements the dimensions of an array make.
struct ArrayCount {
    unsigned long long product = 1;
    bool isSized = false;

    /// Quirk: a dimension of one element, whose bounds are equal, does not make an array sized.
    void addDimension(AttrBindings& subrange) {
        const AttrBinding* upperBound = subrange.find(DW_AT_upper_bound);
        if (!upperBound || !isConstant(*upperBound))
            return;
        const AttrBinding* lowerBound = subrange.find(DW_AT_lower_bound);
        long long lower = subrange.compUnit()->isFortran() ? 1 : 0;
        if (lowerBound && lowerBound->form == DW_FORM_sdata)
            lower = static_cast<long long>(lowerBound->value);
        const auto upper = static_cast<long long>(upperBound->value);
        if (upper <= lower)
            return;
        const unsigned long long distance =
            static_cast<unsigned long long>(upper) - static_cast<unsigned long long>(lower);
        product = saturatedProduct(product, distance == ~0ULL ? distance : distance + 1);
        isSized = true;
    }
};

/// Reads the dimensions behind the entry of an array; the walker stands on its first child.
///
/// References may lead anywhere, and so each to another of many arrays that share one long list of children:
/// what is beyond a few dimensions is counted.
ArrayCount readDimensions(DWARFCompilationUnit& unit, SectionWalker& walker) {
    constexpr unsigned usualDimensions = 16;
    DWARFSections& sections = *unit.getSections();
    ArrayCount count;
    AttrBindings child(&unit);
    for (unsigned children = 0; unit.readAttrBindings(walker, child); ++children) {
        if (children >= usualDimensions && !sections.affords(1))
            return ArrayCount();
        if (child.tag() == DW_TAG_subrange_type)
            count.addDimension(child);
        if (child.hasChildren()) {
            if (sections.isExcessUsedUp())
                return ArrayCount();
            const AttrBinding* sibling = child.find(DW_AT_sibling, true);
            static_cast<void>(sections.affords(unit.skipChildren(walker, sibling ? sibling->value : 0)));
        }
    }
    return count;
}

} // namespace

struct DWARFTypes::Step {
    unsigned long long offset = 0;
    TypeInfo info;
    bool hasByteSize = false;
    bool hasNext = false; ///< the size comes from the type at `next`
    unsigned long long next = 0;
    ArrayCount elements;
    DWARFCompilationUnit* unit = nullptr;

    /// Takes what the next type on the way tells.
    void complete(const TypeInfo& followed) {
        if (info.tag == DW_TAG_array_type) {
            if (elements.isSized && followed.size != 0)
                info.size = saturatedProduct(followed.size, elements.product);
            return;
        }
        if (!hasByteSize)
            info.size = followed.size;
        info.structOffset = followed.structOffset;
        if (info.tag == DW_TAG_typedef)
            info.isInteger = followed.isInteger;
    }
};

bool DWARFTypes::readStep(DWARFCompilationUnit& unit, unsigned long long offset, Step& step) {
    DWARFCompilationUnit* holder = &unit;
    if (!unit.holds(offset))
        holder = unit.getLoader() ? unit.getLoader()->findCompUnitContaining(offset) : nullptr;
    if (!holder)
        return false;
    AttrBindings type(holder);
    SectionWalker walker = holder->walkerAt(offset);
    if (!holder->readReferredEntry(walker, type))
        return false;
    step.offset = offset;
    step.unit = holder;
    step.info.tag = type.tag();
    const AttrBinding* byteSize = type.find(DW_AT_byte_size);
    step.hasByteSize = byteSize != nullptr;
    step.info.size = byteSize ? byteSize->value : 0;
    const bool isArray = type.tag() == DW_TAG_array_type && !byteSize;
    const AttrBinding* next = isArray || isFollowed(type.tag()) ? type.find(DW_AT_type) : nullptr;
    step.hasNext = next != nullptr;
    step.next = next ? next->value : 0;
    if (isArray && type.hasChildren())
        step.elements = readDimensions(*holder, walker);
    if (type.tag() == DW_TAG_base_type) {
        const char* name = textOf(type.find(DW_AT_name));
        step.info.isInteger = name && holder->getSections()->affordsText(name) && isIntegerName(name);
    }
    if (isStructure(type.tag()))
        step.info.structOffset = offset;
    return true;
}

bool DWARFTypes::readType(DWARFCompilationUnit& unit, unsigned long long offset, TypeInfo& typeInfo) {
    std::vector<Step> steps;
    Known known;
    DWARFCompilationUnit* from = &unit;
    for (unsigned long long next = offset; next != ~0ULL;) {
        const auto [place, isNew] = m_known.try_emplace(next);
        if (!isNew) {
            known = place->second;
            break;
        }
        Step step;
        if (!readStep(*from, next, step))
            break;
        steps.push_back(step);
        if (!step.hasNext)
            break;
        from = step.unit;
        next = step.next;
    }
    // From the far end of the chain back to the type asked for.
    for (; !steps.empty(); steps.pop_back()) {
        Step& step = steps.back();
        if (step.hasNext && known.isReadable)
            step.complete(known.info);
        known = {true, step.info};
        m_known[step.offset] = known;
    }
    if (known.isReadable)
        typeInfo = known.info;
    return known.isReadable;
}

} // namespace ORN_3_30
