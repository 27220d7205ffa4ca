#pragma once

#include "orn/module_image.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orn_test {

/// A module image over bytes of the test's own. It reads as a file does, short at the end, and counts reads.
class MemoryImage : public ORN_3_30::SymMgrObject<ORN_3_30::IModuleImage> {
public:
    explicit MemoryImage(std::vector<uint8_t> contents, std::string filePath = "/module",
                         unsigned long long offsetInFile = 0)
        : SymMgrObject<IModuleImage>(nullptr),
          bytes(std::move(contents)),
          path(std::move(filePath)),
          fileOffset(offsetInFile) {}

    unsigned long long read(unsigned long long offset, unsigned long long size, void* buffer) override {
        ++reads;
        if (offset >= bytes.size())
            return 0;
        const unsigned long long count = std::min<unsigned long long>(size, bytes.size() - offset);
        std::memcpy(buffer, bytes.data() + offset, count);
        return count;
    }
    unsigned long long getSize() override { return claimedSize.value_or(bytes.size()); }
    const char* getPath() override { return path.c_str(); }
    unsigned long long getFileOffset() override { return fileOffset; }
    ORN_3_30::arch_t getArch() override { return ORN_3_30::arch_unknown; }

    std::vector<uint8_t> bytes;
    std::string path;
    unsigned long long fileOffset;
    std::optional<unsigned long long> claimedSize; ///< a size that is not the truth
    int reads = 0;
};

} // namespace orn_test
