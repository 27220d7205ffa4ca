// Entry of every fuzz program: hands the bytes to the one target that the program was built for.

#include "fuzz_targets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    orn_fuzz::ORN_FUZZ_TARGET(data, size);
    return 0;
}
