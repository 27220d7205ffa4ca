// Facts about the assembler of binary test data itself: what it writes, and that it refuses misuse.

#include "support/byte_assembler.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace orn_test {
namespace {

using Bytes = std::vector<uint8_t>;

TEST(ByteAssembler, NumbersAreLittleEndianUnlessAskedOtherwise) {
    ByteAssembler little;
    little.u8(1).u16(0x0203).u32(0x04050607).u64(0x08090A0B0C0D0E0F);
    EXPECT_EQ(little.bytes(), (Bytes{1, 3, 2, 7, 6, 5, 4, 15, 14, 13, 12, 11, 10, 9, 8}));

    ByteAssembler big(ByteOrder::kBig);
    big.u8(1).u16(0x0203).u32(0x04050607).u64(0x08090A0B0C0D0E0F);
    EXPECT_EQ(big.bytes(), (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}));
}

TEST(ByteAssembler, NumbersMayHaveAnyWidthUpToEight) {
    ByteAssembler data;
    data.number(0x010203, 3).number(static_cast<uint64_t>(-2), 2);
    EXPECT_EQ(data.bytes(), (Bytes{3, 2, 1, 0xFE, 0xFF}));
    EXPECT_THROW(data.number(0, 0), std::logic_error);
    EXPECT_THROW(data.number(0, 9), std::logic_error);
}

TEST(ByteAssembler, ANumberTooWideForItsFieldIsRefused) {
    ByteAssembler data;
    EXPECT_THROW(data.number(0x100, 1), std::logic_error);
    EXPECT_THROW(data.number(static_cast<uint64_t>(-129), 1), std::logic_error);
    EXPECT_NO_THROW(data.number(0xFF, 1));
    EXPECT_NO_THROW(data.number(static_cast<uint64_t>(-128), 1));
}

TEST(ByteAssembler, UnsignedLebIsShortestOrDrawnOut) {
    ByteAssembler data;
    data.uleb(0).uleb(127).uleb(128).uleb(624485);
    EXPECT_EQ(data.take(), (Bytes{0, 0x7F, 0x80, 1, 0xE5, 0x8E, 0x26}));
    data.uleb(1, 4);
    EXPECT_EQ(data.take(), (Bytes{0x81, 0x80, 0x80, 0}));
    data.uleb(~uint64_t{0});
    EXPECT_EQ(data.take(), (Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 1}));
    EXPECT_THROW(data.uleb(128, 1), std::logic_error);
}

TEST(ByteAssembler, SignedLebIsShortestOrDrawnOut) {
    ByteAssembler data;
    data.sleb(0).sleb(2).sleb(-2).sleb(63).sleb(64).sleb(-64).sleb(-65).sleb(127).sleb(-128);
    EXPECT_EQ(data.take(), (Bytes{0, 2, 0x7E, 0x3F, 0xC0, 0, 0x40, 0xBF, 0x7F, 0xFF, 0, 0x80, 0x7F}));
    data.sleb(-1, 3).sleb(1, 3);
    EXPECT_EQ(data.take(), (Bytes{0xFF, 0xFF, 0x7F, 0x81, 0x80, 0}));
    data.sleb(INT64_MIN);
    EXPECT_EQ(data.take(), (Bytes{0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x7F}));
    EXPECT_THROW(data.sleb(64, 1), std::logic_error);
}

TEST(ByteAssembler, StringsEndInNulAndCharsDoNot) {
    ByteAssembler data;
    data.str("ab").chars("cd");
    EXPECT_EQ(data.bytes(), (Bytes{'a', 'b', 0, 'c', 'd'}));
}

TEST(ByteAssembler, FillAlignAndPadTo) {
    ByteAssembler data;
    data.raw({1, 2}).fill(1, 9).align(4, 0xAA).align(4).padTo(6, 0xBB);
    EXPECT_EQ(data.bytes(), (Bytes{1, 2, 9, 0xAA, 0xBB, 0xBB}));
    EXPECT_THROW(data.padTo(5), std::logic_error);
}

TEST(ByteAssembler, AbsoluteFieldsOfEveryWidthTakeTheLabelWhereverItIs) {
    ByteAssembler data;
    data.define("begin").u8(0xEE);
    data.absolute("end", 1).absolute("end", 2).absolute("end", 4).absolute("end", 8, 0x100);
    data.absolute("begin", 1);
    data.define("end");
    EXPECT_EQ(data.bytes(), (Bytes{0xEE, 17, 17, 0, 17, 0, 0, 0, 0x11, 1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(ByteAssembler, DifferencesMayBeNegative) {
    ByteAssembler data;
    const auto first = data.here();
    data.difference("last", first, 2).difference(first, "last", 2).difference("last", first, 1, 10);
    data.define("last");
    EXPECT_EQ(data.bytes(), (Bytes{5, 0, 0xFB, 0xFF, 15}));
}

TEST(ByteAssembler, ALengthPrefixCountsWhatFollowsItself) {
    ByteAssembler data;
    const auto end = data.lengthPrefix(4);
    data.u16(7).u8(8);
    data.define(end).u8(9);
    EXPECT_EQ(data.bytes(), (Bytes{3, 0, 0, 0, 7, 0, 8, 9}));
}

TEST(ByteAssembler, ComputedLebHasTheAskedLength) {
    ByteAssembler data;
    data.ulebDifference("end", "begin", 2).define("begin").fill(3).define("end");
    EXPECT_EQ(data.bytes(), (Bytes{0x83, 0, 0, 0, 0}));
}

TEST(ByteAssembler, OverwritingWinsOverComputedFields) {
    ByteAssembler data;
    data.overwrite("length", 0xFFFF, 2);
    data.define("length");
    const auto end = data.lengthPrefix(4);
    data.u32(0);
    data.define(end);
    data.overwriteAt(4, 0x11, 1).overwrite("length", Bytes{0x22, 0x33}, 5);
    EXPECT_EQ(data.bytes(), (Bytes{0xFF, 0xFF, 0, 0, 0x11, 0x22, 0x33, 0}));
}

TEST(ByteAssembler, OverwritingOutsideTheDataIsRefused) {
    ByteAssembler data;
    data.define("begin").u32(0);
    const ByteAssembler whole = data;
    data.overwriteAt(3, 0, 2);
    EXPECT_THROW(data.bytes(), std::logic_error);
    data = whole;
    data.overwrite("begin", 0, 1, -1);
    EXPECT_THROW(data.bytes(), std::logic_error);
    data = whole;
    data.overwriteAt(3, 0, 1);
    EXPECT_NO_THROW(data.bytes());
}

TEST(ByteAssembler, AnUndefinedLabelIsReported) {
    ByteAssembler data;
    data.absolute("nowhere", 4);
    EXPECT_FALSE(data.isDefined("nowhere"));
    EXPECT_THROW(data.bytes(), std::logic_error);
    EXPECT_THROW(data.take(), std::logic_error);
    EXPECT_THROW(data.offsetOf("nowhere"), std::logic_error);
    data.define("nowhere");
    EXPECT_EQ(data.bytes(), (Bytes{4, 0, 0, 0}));
}

TEST(ByteAssembler, ALabelDefinedTwiceIsReported) {
    ByteAssembler data;
    data.define("here");
    EXPECT_THROW(data.define("here"), std::logic_error);
}

TEST(ByteAssembler, AComputedValueTooWideForItsFieldIsReported) {
    ByteAssembler data;
    data.absolute("end", 1).fill(0x100).define("end");
    EXPECT_THROW(data.bytes(), std::logic_error);
}

TEST(ByteAssembler, TakeLeavesAnEmptyAssemblerOfTheSameOrder) {
    ByteAssembler data(ByteOrder::kBig);
    data.define("a").u16(1);
    EXPECT_EQ(data.take(), (Bytes{0, 1}));
    EXPECT_EQ(data.size(), 0u);
    data.define("a").u16(2);
    EXPECT_EQ(data.bytes(), (Bytes{0, 2}));
}

} // namespace
} // namespace orn_test
