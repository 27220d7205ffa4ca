#include "orn_debuglink.h"

#include "support/orn_fixture.h"
#include "support/symbol_file_fakes.h"

#include <climits>
#include <string>

namespace ORN_3_30::test {
namespace {

constexpr std::uint32_t buildIdType = 3;
const std::string_view gnu("GNU\0", 4);

class DebugLinkSectionTest : public OrnTest {
protected:
    static std::optional<DebugLink> read(Bytes bytes, status_t status = status_Ok) {
        SymMgrObjectPtr<ISectionData> section = new FakeSectionData(std::move(bytes), status);
        return readDebugLink(*section);
    }
};

class BuildIdSectionTest : public OrnTest {
protected:
    static std::string read(Bytes bytes, status_t status = status_Ok) {
        SymMgrObjectPtr<ISectionData> section = new FakeSectionData(std::move(bytes), status);
        return readBuildId(section);
    }
};

TEST_F(DebugLinkSectionTest, TheSumStandsOnTheNextWordBehindTheTerminator) {
    for (std::size_t length = 0; length < 10; ++length) {
        const std::string name(length, 'n');
        const auto link = read(debugLinkBytes(name, 0x89ABCDEF));
        ASSERT_TRUE(link) << length;
        EXPECT_EQ(link->name, name);
        EXPECT_EQ(link->crc, 0x89ABCDEFu) << length;
    }
}

TEST_F(DebugLinkSectionTest, BytesBehindTheSumDoNotMatter) {
    Bytes bytes = debugLinkBytes("prog.debug", 7);
    bytes.push_back('x');
    const auto link = read(bytes);
    ASSERT_TRUE(link);
    EXPECT_EQ(link->name, "prog.debug");
    EXPECT_EQ(link->crc, 7u);
}

TEST_F(DebugLinkSectionTest, EveryTrueBeginningOfALinkIsNone) {
    const Bytes whole = debugLinkBytes("prog.debug", 7);
    for (std::size_t size = 0; size < whole.size(); ++size)
        ASSERT_FALSE(read(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)))) << size;
}

TEST_F(DebugLinkSectionTest, ANameWithoutTerminatorIsNone) {
    EXPECT_FALSE(read(Bytes(64, 'n')));
}

TEST_F(DebugLinkSectionTest, ANameLongerThanAnyPathIsNone) {
    EXPECT_TRUE(read(debugLinkBytes(std::string(PATH_MAX - 1, 'n'), 1)));
    EXPECT_FALSE(read(debugLinkBytes(std::string(PATH_MAX, 'n'), 1)));
}

TEST_F(DebugLinkSectionTest, ContentsThatCannotBeDecompressedAreNone) {
    EXPECT_FALSE(read(debugLinkBytes("prog.debug", 7), status_UnsupportedDebugInfoFormat));
}

TEST_F(BuildIdSectionTest, TheTextIsTwoLowerCaseDigitsForEachByte) {
    EXPECT_EQ(read(buildIdNote({0x00, 0x0A, 0xB0, 0xFF})), "000ab0ff");
}

TEST_F(BuildIdSectionTest, PaddingBehindTheDescriptionBelongsToTheText) {
    EXPECT_EQ(read(noteBytes(4, 5, buildIdType, gnu, {1, 2, 3, 4, 5, 0xEE, 0xDD, 0xCC})), "0102030405eeddcc");
}

TEST_F(BuildIdSectionTest, FewerThanTwelveBytesAreNone) {
    for (std::size_t size = 0; size < 12; ++size)
        EXPECT_EQ(read(Bytes(size, 4)), "") << size;
}

TEST_F(BuildIdSectionTest, EveryTrueBeginningOfANoteIsNone) {
    const Bytes whole = buildIdNote({1, 2, 3, 4, 5, 6, 7, 8});
    for (std::size_t size = 0; size < whole.size(); ++size)
        ASSERT_EQ(read(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size))), "") << size;
    EXPECT_EQ(read(whole), "0102030405060708");
}

TEST_F(BuildIdSectionTest, ANameSizeThatRoundsToFourPasses) {
    for (const std::uint32_t size : {1u, 2u, 3u, 4u})
        EXPECT_EQ(read(noteBytes(size, 4, buildIdType, gnu, {1, 2, 3, 4})), "01020304") << size;
}

TEST_F(BuildIdSectionTest, AnyOtherNameSizeIsNone) {
    // The greatest ones wrap to small ones if they are rounded in 32 bits.
    for (const std::uint32_t size : {0u, 5u, 8u, 0x80000004u, 0xFFFFFFFCu, 0xFFFFFFFDu, 0xFFFFFFFFu})
        EXPECT_EQ(read(noteBytes(size, 4, buildIdType, gnu, {1, 2, 3, 4})), "") << size;
}

TEST_F(BuildIdSectionTest, AnotherNoteTypeIsNone) {
    for (const std::uint32_t type : {0u, 1u, 2u, 4u, 5u, 0x03000000u})
        EXPECT_EQ(read(noteBytes(4, 4, type, gnu, {1, 2, 3, 4})), "") << type;
}

TEST_F(BuildIdSectionTest, AnotherNameIsNone) {
    for (const std::string_view name : {"GNUX", "GNX\0", "gnu\0", "CORE"})
        EXPECT_EQ(read(noteBytes(4, 4, buildIdType, std::string_view(name.data(), 4), {1, 2, 3, 4})), "");
}

TEST_F(BuildIdSectionTest, AnEmptyDescriptionIsNone) {
    EXPECT_EQ(read(noteBytes(4, 0, buildIdType, gnu, {1, 2, 3, 4})), "");
}

TEST_F(BuildIdSectionTest, ADescriptionThatDoesNotFitIsNone) {
    EXPECT_EQ(read(noteBytes(4, 8, buildIdType, gnu, {1, 2, 3, 4, 5, 6, 7, 8})), "0102030405060708");
    for (const std::uint32_t size :
         {9u, 12u, 0x80000000u, 0xFFFFFFF8u, 0xFFFFFFFCu, 0xFFFFFFFDu, 0xFFFFFFFFu})
        EXPECT_EQ(read(noteBytes(4, size, buildIdType, gnu, {1, 2, 3, 4, 5, 6, 7, 8})), "") << size;
}

TEST_F(BuildIdSectionTest, ADescriptionThatFitsOnlyWithoutItsPaddingIsNone) {
    EXPECT_EQ(read(noteBytes(4, 5, buildIdType, gnu, {1, 2, 3, 4, 5})), "");
}

TEST_F(BuildIdSectionTest, ADescriptionOfAbsurdSizeIsNone) {
    EXPECT_EQ(read(buildIdNote(Bytes(0x10000, 0xAA))).size(), 0x20000u);
    EXPECT_EQ(read(buildIdNote(Bytes(0x10004, 0xAA))), "");
}

TEST_F(BuildIdSectionTest, OnlyTheFirstNoteCounts) {
    Bytes notes = noteBytes(4, 4, 1, gnu, {9, 9, 9, 9});
    const Bytes second = buildIdNote({1, 2, 3, 4});
    notes.insert(notes.end(), second.begin(), second.end());
    EXPECT_EQ(read(notes), "");
}

TEST_F(BuildIdSectionTest, ContentsThatCannotBeDecompressedAreNone) {
    EXPECT_EQ(read(buildIdNote({1, 2, 3, 4}), status_UnsupportedDebugInfoFormat), "");
}

TEST_F(BuildIdSectionTest, ANullSectionIsReported) {
    expectLog("ASSERTION FAILED: 'false', at file: ");
    EXPECT_EQ(readBuildId(nullptr), "");
}

TEST(DebugFileOfBuildId, TheFirstTwoDigitsAreADirectory) {
    EXPECT_EQ(debugFileOfBuildId("abcdef0123"), ".build-id/ab/cdef0123.debug");
    EXPECT_EQ(debugFileOfBuildId("abcd"), ".build-id/ab/cd.debug");
}

TEST(DebugFileOfBuildId, ThreeDigitsOrFewerGiveNoFile) {
    for (const std::string_view digits : {"", "a", "ab", "abc"})
        EXPECT_EQ(debugFileOfBuildId(digits), "") << digits;
}

} // namespace
} // namespace ORN_3_30::test
