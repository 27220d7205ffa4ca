// Range lists: the input is a section with them. A function of either width of addresses has the list at its
// begin, and inside it an expanded call has the list at the second byte, which lies in the first one.

#include "debug_sections.h"
#include "fuzz_targets.h"

namespace orn_fuzz {

using namespace ORN_3_30;

void dwarf_ranges(const std::uint8_t* data, std::size_t size) {
    DebugSections sections;
    sections[section_debug_abbrev] = {
        1, 0x11, 1, 0x25, 8,    0x11, 1,    0, 0, // compile unit: producer, low pc
        2, 0x2e, 1, 3,    8,    0x55, 0x17, 0, 0, // subprogram: name, ranges
        3, 0x1d, 0, 0x31, 0x11, 0x55, 0x17, 0, 0, // inlined subroutine: origin (one byte), ranges
        0};
    for (const std::uint8_t addressSize : {std::uint8_t{8}, std::uint8_t{4}}) {
        std::vector<std::uint8_t> unit = {4, 0, 0, 0, 0, 0, addressSize, 1};
        for (const char c : {'V', 'e', 'x', 'o', 'r', ' ', 'V', 'e', 'r', 's', 'i', 'o', 'n', ' ', '9', '\0'})
            unit.push_back(static_cast<std::uint8_t>(c));
        unit.insert(unit.end(), {0, 0x10});
        unit.insert(unit.end(), addressSize - 2U, 0);
        const auto function = static_cast<std::uint8_t>(4 + unit.size());
        unit.insert(unit.end(), {2, 'f', 0, 0, 0, 0, 0});
        unit.insert(unit.end(), {3, function, 1, 0, 0, 0, 0, 0});
        std::vector<std::uint8_t>& info = sections[section_debug_info];
        info.insert(info.end(), {static_cast<std::uint8_t>(unit.size()), 0, 0, 0});
        info.insert(info.end(), unit.begin(), unit.end());
    }
    sections[section_debug_ranges].assign(data, data + size);
    (void)askEverything(sections);
}

} // namespace orn_fuzz
