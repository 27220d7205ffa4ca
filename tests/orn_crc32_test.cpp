#include "orn_crc32.h"

#include "support/elf_assembler.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

namespace ORN_3_30 {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes randomBytes(std::size_t size) {
    std::minstd_rand random(1);
    Bytes bytes(size);
    for (unsigned char& byte : bytes)
        byte = static_cast<unsigned char>(random() >> 8);
    return bytes;
}

/// Bit by bit, straight from the polynomial.
std::uint32_t slowCrc(const unsigned char* bytes, std::size_t size) {
    std::uint32_t sum = 0xFFFFFFFFu;
    for (std::size_t i = 0; i < size; ++i) {
        sum ^= bytes[i];
        for (int bit = 0; bit < 8; ++bit)
            sum = (sum & 1) != 0 ? (sum >> 1) ^ 0xEDB88320u : sum >> 1;
    }
    return ~sum;
}

TEST(Crc32, TheNineDigitsGiveTheCheckValue) {
    EXPECT_EQ(crc32(0, "123456789", 9), 0xCBF43926u);
}

TEST(Crc32, NothingLeavesTheSumAsItWas) {
    EXPECT_EQ(crc32(0, nullptr, 0), 0u);
    EXPECT_EQ(crc32(0x12345678, nullptr, 0), 0x12345678u);
}

TEST(Crc32, EverySizeAtEveryAlignmentIsSummedAsBitByBit) {
    const Bytes bytes = randomBytes(80);
    for (std::size_t begin = 0; begin < 8; ++begin)
        for (std::size_t size = 0; begin + size <= bytes.size(); ++size)
            ASSERT_EQ(crc32(0, bytes.data() + begin, size), slowCrc(bytes.data() + begin, size))
                << size << " bytes at " << begin;
}

TEST(Crc32, EveryByteValueAtEveryPlaceOfAStepCounts) {
    for (std::size_t place = 0; place < 8; ++place)
        for (unsigned value = 0; value < 256; ++value) {
            Bytes bytes(8);
            bytes[place] = static_cast<unsigned char>(value);
            ASSERT_EQ(crc32(0, bytes.data(), bytes.size()), slowCrc(bytes.data(), bytes.size()));
        }
}

TEST(Crc32, BlocksInSequenceGiveTheSumOfTheWhole) {
    const Bytes bytes = randomBytes(40);
    const std::uint32_t whole = crc32(0, bytes.data(), bytes.size());
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut)
        ASSERT_EQ(crc32(crc32(0, bytes.data(), cut), bytes.data() + cut, bytes.size() - cut), whole) << cut;
}

TEST(Crc32, AgreesWithTheSumOfDebugLinks) {
    const Bytes bytes = randomBytes(100001);
    EXPECT_EQ(crc32(0, bytes.data(), bytes.size()), orn_test::debugLinkCrc(bytes));
}

} // namespace
} // namespace ORN_3_30
