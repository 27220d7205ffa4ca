// Compressed sections in both header forms.

#include "fuzz_targets.h"
#include "orn_section_data.h"

#include <new>

namespace orn_fuzz {

using namespace ORN_3_30;

void section_data(const std::uint8_t* data, std::size_t size) {
    for (const bool isZlibBlock : {false, true})
        for (const bool is64Bit : {false, true}) {
            unsigned char* inflated = nullptr;
            unsigned long long inflatedSize = 0;
            try {
                (void)decompressSection(data, size, inflated, inflatedSize, isZlibBlock, is64Bit);
            } catch (const std::bad_alloc&) {
                // The declared size may be anything.
            }
            delete[] inflated;
        }
}

} // namespace orn_fuzz
