// A module that is nothing but debug sections in memory, and all that can be asked of it.
#ifndef ORN_FUZZ_DEBUG_SECTIONS_H
#define ORN_FUZZ_DEBUG_SECTIONS_H

#include "orn/section_data.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace orn_fuzz {

/// Debug sections by their kinds.
using DebugSections = std::map<ORN_3_30::section_kind_t, std::vector<std::uint8_t>>;

/// Loads the sections as those of a module with code from 0x1000 to 0x9000, and asks for units, symbols,
/// lines, files, expanded calls and the content of scopes. Gives how many symbols were seen; what is asked is
/// bounded, so that a run takes no longer than its reading.
std::size_t askEverything(const DebugSections& sections);

} // namespace orn_fuzz

#endif
