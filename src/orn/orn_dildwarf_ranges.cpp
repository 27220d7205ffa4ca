// Address intervals of entries: from low and high attributes, and from the lists of `.debug_ranges`. Called
// by the walk (orn_dildwarf_walk.cpp) for functions and expanded calls; clients may call the exported part.

#include "orn_dildwarf.h"
#include "orn_log.h"

#include <algorithm>

namespace ORN_3_30 {

namespace {

/// A first address of all ones selects a base.
unsigned long long baseSelector(unsigned addressSize) {
    return addressSize == 4 ? 0xffffffffULL : ~0ULL;
}

/// Scopes keep their ranges in a list that is filled fastest in ascending order. Damaged data may hold lists
/// of any length in any order; those of compilers that are as long as the second number are sorted, and
/// between the two there are few.
constexpr std::size_t usualList = 256;
constexpr std::size_t longestUnsortedList = 4096;

} // namespace

void dwarf_utils::calculateHighLowAdresses(const AttrBinding* lowAttr, const AttrBinding* highAttr,
                                           unsigned long long& low, unsigned long long& high) {
    low = 0;
    high = 0;
    const bool isHighAnAddress = highAttr && highAttr->form == DW_FORM_addr;
    if (lowAttr)
        low = lowAttr->value;
    else if (isHighAnAddress)
        low = highAttr->value;
    if (!highAttr)
        high = low;
    else
        high = isHighAnAddress ? highAttr->value : low + highAttr->value;
}

void DWARFDebugInfoLoader::sortIfLong(RangeDeque& ranges) const {
    if (ranges.size() <= usualList || std::is_sorted(ranges.begin(), ranges.end()))
        return;
    if (ranges.size() > longestUnsortedList ||
        !m_sections->affords(ranges.size() * (ranges.size() / usualList)))
        std::stable_sort(ranges.begin(), ranges.end());
}

// Everything is computed in the symbol file's own addresses, in which bases are told, and biased once at the
// end.
unsigned long long DWARFDebugInfoLoader::readRanges(DWARFCompilationUnit& unit, const AttrBinding* rangesAttr,
                                                    unsigned addressSize, RangeDeque* out,
                                                    unsigned long long limit) {
    if (!ORN_ASSERT(rangesAttr))
        return 0;
    if (out)
        out->clear();
    if (!m_sections->ranges() || rangesAttr->value >= m_sections->rangesSize())
        return 0;
    SectionWalker walker(m_sections->ranges(), m_sections->rangesSize(), rangesAttr->value);
    walker.setAddressSize(static_cast<std::uint8_t>(addressSize));
    const unsigned long long bias = unit.getLoadBias();
    unsigned long long base = unit.getLowPc();
    unsigned long long selected = 0;
    unsigned long long smallest = ~0ULL;
    bool isAnyAppended = false;
    for (; walker.remaining() > 0 && m_rangesBudget > 0; --m_rangesBudget) {
        const unsigned long long first = walker.readAddress();
        const unsigned long long second = walker.readAddress();
        if (first == 0 && second == 0)
            break;
        if (first == baseSelector(addressSize)) {
            base = selected = second;
            continue;
        }
        if (first == second)
            continue;
        smallest = std::min(smallest, first);
        isAnyAppended = true;
        if (!out)
            continue;
        // Quirk: a base that would carry a range beyond the enclosing function is dropped, for the rest of
        // the list as well.
        if (limit != 0 && selected != 0 && limit < first + base + bias)
            base = selected = 0;
        out->emplace_back(first + base + bias, second + base + bias);
    }
    return (isAnyAppended ? smallest + base : base) + bias;
}

} // namespace ORN_3_30
