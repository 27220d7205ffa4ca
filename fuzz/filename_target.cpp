// Paths in every style through normalising, splitting and joining.

#include "fuzz_targets.h"
#include "orn_filename.h"

#include <string>

namespace orn_fuzz {

using namespace ORN_3_30;

void filename(const std::uint8_t* data, std::size_t size) {
    const std::string path(reinterpret_cast<const char*>(data), size);
    for (const path_style_t style : {pathStyle_Detect, pathStyle_Host, pathStyle_Unix, pathStyle_Windows}) {
        std::string out;
        canonicalPath(out, path.c_str(), style);
        std::string again;
        canonicalPath(again, out.c_str(), style);
        baseName(again, out.c_str());
        dirName(again, path.c_str());
        driveName(again, path.c_str());
        appendPath(again, path.c_str(), out.c_str());
    }
}

} // namespace orn_fuzz
