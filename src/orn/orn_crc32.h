// The checksum by which a module recognises its separate debug file.
#ifndef ORN_CRC32_H
#define ORN_CRC32_H

#include <cstddef>
#include <cstdint>

namespace ORN_3_30 {

/// CRC-32 of `size` bytes, reflected, polynomial 0xEDB88320, inverted on entry and on exit. A block that
/// continues another one is given the result of that one as `crc`; the first block is given 0.
std::uint32_t crc32(std::uint32_t crc, const void* data, std::size_t size) noexcept;

} // namespace ORN_3_30

#endif
