// What a module says about its separate debug file: the debug link and the build id.
#ifndef ORN_DEBUGLINK_H
#define ORN_DEBUGLINK_H

#include "orn/section_data.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ORN_3_30 {

/// Contents of ".gnu_debuglink": a debug file's name and the CRC-32 of all its bytes.
struct DebugLink {
    std::string name;
    std::uint32_t crc;
};

/// Empty if the section holds no whole link.
std::optional<DebugLink> readDebugLink(ISectionData& section);

/// The build id of the first note in `section`, as lower-case hexadecimal digits. Empty if there is none; a
/// null section is reported as well.
std::string readBuildId(ISectionData* section);

/// Where debug files are kept by build id, relative to a directory of debug files:
/// ".build-id/ab/cdef....debug". Empty if there are too few digits for a directory and a name.
std::string debugFileOfBuildId(std::string_view digits);

} // namespace ORN_3_30

#endif
