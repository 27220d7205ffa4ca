// Debug information as a whole: units, abbreviations, entries, with texts, lines and range lists beside them.
//
// The input is one section behind the other; in front stand the sizes of all but the last, 2 bytes each.

#include "debug_sections.h"
#include "fuzz_targets.h"

#include <algorithm>

namespace orn_fuzz {

using namespace ORN_3_30;

void dwarf_info(const std::uint8_t* data, std::size_t size) {
    constexpr section_kind_t kinds[] = {section_debug_abbrev, section_debug_str, section_debug_line,
                                        section_debug_ranges};
    constexpr std::size_t headerSize = 2 * std::size(kinds);
    if (size < headerSize)
        return;
    const std::uint8_t* header = data;
    const std::uint8_t* end = data + size;
    data += headerSize;
    DebugSections sections;
    for (const section_kind_t kind : kinds) {
        const std::size_t stated = header[0] + 256U * header[1];
        const std::size_t taken = std::min(stated, static_cast<std::size_t>(end - data));
        sections[kind].assign(data, data + taken);
        header += 2;
        data += taken;
    }
    sections[section_debug_info].assign(data, end);
    (void)askEverything(sections);
}

} // namespace orn_fuzz
