// Line programs: the input is a section with them. Two units, with addresses of either width, share what
// stands at its begin.

#include "debug_sections.h"
#include "fuzz_targets.h"

namespace orn_fuzz {

using namespace ORN_3_30;

void dwarf_line(const std::uint8_t* data, std::size_t size) {
    DebugSections sections;
    // 1: DW_TAG_compile_unit, DW_AT_stmt_list as a section offset, DW_AT_comp_dir and DW_AT_name as texts.
    sections[section_debug_abbrev] = {1, 0x11, 0, 0x10, 0x17, 0x1b, 8, 3, 8, 0, 0, 0};
    for (const std::uint8_t addressSize : {std::uint8_t{8}, std::uint8_t{4}}) {
        const std::uint8_t unit[] = {20, 0, 0, 0, 4,   0,   0, 0,   0,   0,   addressSize, 1,
                                     0,  0, 0, 0, '/', 'c', 0, 'a', '.', 'c', 0,           0};
        sections[section_debug_info].insert(sections[section_debug_info].end(), std::begin(unit),
                                            std::end(unit));
    }
    sections[section_debug_line].assign(data, data + size);
    (void)askEverything(sections);
}

} // namespace orn_fuzz
