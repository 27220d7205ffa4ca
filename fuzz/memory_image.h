// A module image over bytes in memory.
#ifndef ORN_FUZZ_MEMORY_IMAGE_H
#define ORN_FUZZ_MEMORY_IMAGE_H

#include "orn/module_image.h"

#include <cstdint>
#include <cstring>

namespace orn_fuzz {

/// Shows borrowed bytes as a module's file, so that a fuzz run touches no disk.
class MemoryImage : public ORN_3_30::SymMgrObject<ORN_3_30::IModuleImage> {
public:
    MemoryImage(const std::uint8_t* data, std::size_t size)
        : SymMgrObject<ORN_3_30::IModuleImage>(nullptr), m_data(data), m_size(size) {}

    unsigned long long read(unsigned long long offset, unsigned long long size, void* buffer) override {
        if (offset >= m_size)
            return 0;
        const unsigned long long count = size < m_size - offset ? size : m_size - offset;
        std::memcpy(buffer, m_data + offset, count);
        return count;
    }
    unsigned long long getSize() override { return m_size; }
    const char* getPath() override { return "in memory"; }
    unsigned long long getFileOffset() override { return 0; }
    ORN_3_30::arch_t getArch() override { return ORN_3_30::arch_unknown; }

private:
    const std::uint8_t* m_data;
    std::size_t m_size;
};

} // namespace orn_fuzz

#endif
