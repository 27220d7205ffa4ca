// CRC-32 over blocks of memory, eight bytes a step.
//
// Called for every debug file that a debug link names, over the whole of the file, which may have gigabytes:
// here the time of a load goes that finds its symbol file by a debug link. The plain loop, one table look-up
// for each byte, waits for the result of the last look-up at every byte; with eight tables the look-ups of
// eight bytes wait for the last step together. Instructions of particular processors are left out on purpose:
// the file's blocks come through read(2), and the sum is no longer what such a load waits for most.

#include "orn_crc32.h"

#include "orn_log.h"

#include <array>

namespace ORN_3_30 {

namespace {

constexpr std::uint32_t reflectedPolynomial = 0xEDB88320u;
constexpr std::size_t stepSize = 8;

using Table = std::array<std::uint32_t, 256>;

/// Table k takes a byte that k further bytes of the same step follow.
constexpr std::array<Table, stepSize> makeTables() {
    std::array<Table, stepSize> tables{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t sum = byte;
        for (int bit = 0; bit < 8; ++bit)
            sum = (sum & 1) != 0 ? (sum >> 1) ^ reflectedPolynomial : sum >> 1;
        tables[0][byte] = sum;
    }
    for (std::size_t k = 1; k < stepSize; ++k)
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const std::uint32_t before = tables[k - 1][byte];
            tables[k][byte] = (before >> 8) ^ tables[0][before & 0xFF];
        }
    return tables;
}

constexpr std::array<Table, stepSize> s_tables = makeTables();

/// Four bytes, the first one lowest, whatever the host's order; compilers make one load of it where they can.
inline std::uint32_t littleEndian(const unsigned char* bytes) noexcept {
    return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
           static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

inline std::uint32_t addStep(std::uint32_t sum, const unsigned char* bytes) noexcept {
    const std::uint32_t low = sum ^ littleEndian(bytes);
    const std::uint32_t high = littleEndian(bytes + 4);
    return s_tables[7][low & 0xFF] ^ s_tables[6][low >> 8 & 0xFF] ^ s_tables[5][low >> 16 & 0xFF] ^
           s_tables[4][low >> 24] ^ s_tables[3][high & 0xFF] ^ s_tables[2][high >> 8 & 0xFF] ^
           s_tables[1][high >> 16 & 0xFF] ^ s_tables[0][high >> 24];
}

inline std::uint32_t addByte(std::uint32_t sum, unsigned char byte) noexcept {
    return sum >> 8 ^ s_tables[0][(sum ^ byte) & 0xFF];
}

} // namespace

std::uint32_t crc32(std::uint32_t crc, const void* data, std::size_t size) noexcept {
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::uint32_t sum = ~crc;
    for (; size >= stepSize; size -= stepSize, bytes += stepSize)
        sum = addStep(sum, bytes);
    for (; size > 0; --size, ++bytes)
        sum = addByte(sum, *bytes);
    return ~sum;
}

} // namespace ORN_3_30
