#include "orn_walker.h"

#include "support/orn_fixture.h"

#include <cstdint>
#include <vector>

using namespace ORN_3_30;

namespace {

constexpr unsigned long long top = ~0ULL;

class SectionWalkerTest : public test::OrnTest {
protected:
    using Bytes = std::vector<unsigned char>;

    static SectionWalker over(const Bytes& bytes, unsigned long long position = 0) {
        return SectionWalker(bytes.data(), bytes.size(), position);
    }
};

/// Section data with contents of one's own; null data stands for contents that cannot be had.
class FakeSectionData : public SymMgrObject<ISectionData> {
public:
    FakeSectionData(const unsigned char* data, unsigned long long size)
        : SymMgrObject<ISectionData>(nullptr), m_data(data), m_size(size) {}
    const unsigned char* getData() override { return m_data; }
    unsigned long long getSize() override { return m_size; }
    unsigned long long getSize(status_t& status) override {
        status = status_Ok;
        return m_size;
    }
    unsigned getIndex() override { return 0; }
    unsigned long long getBias() override { return 0; }

private:
    const unsigned char* m_data;
    unsigned long long m_size;
};

} // namespace

TEST_F(SectionWalkerTest, StandsAtTheStartOfTheWholeSection) {
    const Bytes bytes = {1, 2, 3};
    FakeSectionData data(bytes.data(), bytes.size());
    const SectionWalker walker(&data);
    EXPECT_EQ(walker.begin(), bytes.data());
    EXPECT_EQ(walker.end(), bytes.data() + 3);
    EXPECT_EQ(walker.cursor(), bytes.data());
    EXPECT_EQ(walker.size(), 3u);
    EXPECT_EQ(walker.remaining(), 3u);
    EXPECT_EQ(walker.offset(), 0u);
    EXPECT_EQ(walker.addressSize(), 0u);
}

TEST_F(SectionWalkerTest, ASectionWithoutDataIsLoggedAndGivesAnEmptyView) {
    FakeSectionData data(nullptr, 100);
    SectionWalker walker(&data);
    EXPECT_EQ(walker.begin(), nullptr);
    EXPECT_EQ(walker.size(), 0u);
    EXPECT_EQ(walker.remaining(), 0u);
    EXPECT_EQ(walker.readU32(), 0u);
    ASSERT_EQ(messages(test::errorLevel).size(), 1u);
    expectLog("NULL section data\n");
}

TEST_F(SectionWalkerTest, NoSectionAtAllIsTheSame) {
    SectionWalker walker(nullptr);
    std::uint32_t value = 7;
    EXPECT_TRUE(isFailure(walker.getUnsigned1(value)));
    EXPECT_EQ(walker.size(), 0u);
    expectLog("NULL section data");
}

TEST_F(SectionWalkerTest, AnEmptySectionIsNoError) {
    const unsigned char byte = 0;
    FakeSectionData data(&byte, 0);
    EXPECT_EQ(SectionWalker(&data).size(), 0u);
}

TEST_F(SectionWalkerTest, StartsAtAGivenPositionOfAView) {
    const Bytes bytes = {1, 2, 3, 4};
    SectionWalker walker = over(bytes, 2);
    EXPECT_EQ(walker.offset(), 2u);
    EXPECT_EQ(walker.readU8(), 3u);
    EXPECT_EQ(SectionWalker(nullptr, 10).size(), 0u);
}

TEST_F(SectionWalkerTest, BoundedReadsAreLittleEndianAndWiden) {
    const Bytes bytes = {0x81, 0x01, 0x82, 0x01, 0x02, 0x03, 0x84, 1, 2, 3, 4, 5, 6, 7, 0x88};
    SectionWalker walker = over(bytes);
    std::uint64_t value = 0;
    EXPECT_EQ(walker.getUnsigned1(value), status_Ok);
    EXPECT_EQ(value, 0x81u);
    EXPECT_EQ(walker.getUnsigned2(value), status_Ok);
    EXPECT_EQ(value, 0x8201u);
    EXPECT_EQ(walker.getUnsigned4(value), status_Ok);
    EXPECT_EQ(value, 0x84030201u);
    EXPECT_EQ(walker.getUnsigned8(value), status_Ok);
    EXPECT_EQ(value, 0x8807060504030201u);
    EXPECT_EQ(walker.remaining(), 0u);
}

TEST_F(SectionWalkerTest, ABoundedReadThatDoesNotFitLeavesPositionAndValueAlone) {
    const Bytes bytes(8, 0xFF);
    std::uint64_t value = 42;
    SectionWalker walker = over(bytes, 8);
    EXPECT_NE(walker.getUnsigned1(value), status_Ok);
    walker.seek(7);
    EXPECT_NE(walker.getUnsigned2(value), status_Ok);
    walker.seek(5);
    EXPECT_NE(walker.getUnsigned4(value), status_Ok);
    walker.seek(1);
    EXPECT_NE(walker.getUnsigned8(value), status_Ok);
    EXPECT_EQ(walker.offset(), 1u);
    EXPECT_EQ(value, 42u);
    walker.seek(0);
    EXPECT_EQ(walker.getUnsigned8(value), status_Ok);
}

TEST_F(SectionWalkerTest, ABoundedReadPastTheEndFails) {
    const Bytes bytes(8, 0xFF);
    std::uint64_t value = 42;
    for (const unsigned long long position : {9ULL, 1ULL << 40, top - 3, top}) {
        SectionWalker walker = over(bytes, position);
        EXPECT_EQ(walker.remaining(), 0u);
        EXPECT_NE(walker.getUnsigned1(value), status_Ok);
        EXPECT_NE(walker.getUnsigned8(value), status_Ok);
        EXPECT_EQ(walker.offset(), position);
    }
    EXPECT_EQ(value, 42u);
}

TEST_F(SectionWalkerTest, UncheckedReadsAdvanceByTheirWidth) {
    const Bytes bytes = {1, 2, 0, 4, 0, 0, 0, 8, 0, 0, 0, 0, 0, 0, 0x80};
    SectionWalker walker = over(bytes);
    EXPECT_EQ(walker.readU8(), 1u);
    EXPECT_EQ(walker.readU16(), 2u);
    EXPECT_EQ(walker.readU32(), 4u);
    EXPECT_EQ(walker.readU64(), 0x8000000000000008u);
    EXPECT_EQ(walker.offset(), 15u);
}

TEST_F(SectionWalkerTest, UncheckedReadsSeeZerosPastTheView) {
    const Bytes bytes = {0x11, 0x22, 0x33};
    SectionWalker walker = over(bytes, 1);
    EXPECT_EQ(walker.readU64(), 0x3322u);
    EXPECT_EQ(walker.offset(), 9u);
    EXPECT_EQ(walker.remaining(), 0u);
    EXPECT_EQ(walker.cursor(), walker.end());
    EXPECT_EQ(walker.readU8(), 0u);
    EXPECT_EQ(walker.readU16(), 0u);
    EXPECT_EQ(walker.readU32(), 0u);
    EXPECT_EQ(walker.offset(), 16u);
    walker.seek(2);
    EXPECT_EQ(walker.readU16(), 0x33u);
    walker.seek(0);
    EXPECT_EQ(walker.readU32(), 0x332211u);
}

TEST_F(SectionWalkerTest, ThePositionSaturates) {
    const Bytes bytes = {0x11};
    SectionWalker walker = over(bytes);
    walker.skip(top - 2);
    EXPECT_EQ(walker.offset(), top - 2);
    EXPECT_EQ(walker.readU64(), 0u);
    EXPECT_EQ(walker.offset(), top);
    walker.skip(top);
    EXPECT_EQ(walker.offset(), top);
    EXPECT_EQ(walker.readU8(), 0u);
    EXPECT_EQ(walker.readULEB(), 0u);
    EXPECT_EQ(walker.readSLEB(), 0);
    EXPECT_EQ(walker.offset(), top);
    walker.seek(0);
    EXPECT_EQ(walker.readU8(), 0x11u);
}

TEST_F(SectionWalkerTest, ACopyWalksOnItsOwn) {
    const Bytes bytes = {1, 2};
    SectionWalker walker = over(bytes);
    SectionWalker copy = walker;
    copy.skip(1);
    EXPECT_EQ(copy.readU8(), 2u);
    EXPECT_EQ(walker.readU8(), 1u);
}

TEST_F(SectionWalkerTest, ReadsUnsignedLeb128) {
    const Bytes bytes = {0x7F, 0xE5, 0x8E, 0x26, 0x80, 0x00};
    SectionWalker walker = over(bytes);
    EXPECT_EQ(walker.readULEB(), 127u);
    EXPECT_EQ(walker.readULEB(), 624485u);
    EXPECT_EQ(walker.readULEB(), 0u);
    EXPECT_EQ(walker.offset(), 6u);
}

TEST_F(SectionWalkerTest, UnsignedLeb128StopsAtTheEndOfTheViewWithWhatItHas) {
    const Bytes bytes = {0x81, 0x82};
    SectionWalker walker = over(bytes);
    EXPECT_EQ(walker.readULEB(), 0x101u);
    EXPECT_EQ(walker.offset(), 2u);
    EXPECT_EQ(walker.readULEB(), 0u);
    EXPECT_EQ(walker.offset(), 2u);
    walker.seek(5);
    EXPECT_EQ(walker.readULEB(), 0u);
    EXPECT_EQ(walker.offset(), 5u);
}

TEST_F(SectionWalkerTest, Leb128IgnoresBitsBeyond64) {
    Bytes bytes(12, 0xFF);
    bytes.back() = 0x7F;
    SectionWalker walker = over(bytes);
    EXPECT_EQ(walker.readULEB(), top);
    EXPECT_EQ(walker.offset(), 12u);
    walker.seek(0);
    EXPECT_EQ(walker.readSLEB(), -1);
    EXPECT_EQ(walker.offset(), 12u);

    Bytes eleven(11, 0x80);
    eleven.back() = 0x7F;
    EXPECT_EQ(over(eleven).readULEB(), 0u);
    EXPECT_EQ(over(eleven).readSLEB(), 0);

    const Bytes tenth = {0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x7E};
    SectionWalker tenthWalker = over(tenth);
    EXPECT_EQ(tenthWalker.readULEB(), 0u);
    tenthWalker.seek(0);
    EXPECT_EQ(tenthWalker.readSLEB(), 0);
}

TEST_F(SectionWalkerTest, ALongRunOfLeb128BytesEndsWithTheView) {
    const Bytes bytes(100000, 0x80);
    SectionWalker walker = over(bytes);
    EXPECT_EQ(walker.readULEB(), 0u);
    EXPECT_EQ(walker.remaining(), 0u);
    walker.seek(0);
    EXPECT_EQ(walker.readSLEB(), 0);
    EXPECT_EQ(walker.offset(), bytes.size() + 1);
}

TEST_F(SectionWalkerTest, ReadsSignedLeb128) {
    const Bytes bytes = {0x02, 0x7E, 0xFF, 0x00, 0x81, 0x7F, 0x3F, 0x40};
    SectionWalker walker = over(bytes);
    EXPECT_EQ(walker.readSLEB(), 2);
    EXPECT_EQ(walker.readSLEB(), -2);
    EXPECT_EQ(walker.readSLEB(), 127);
    EXPECT_EQ(walker.readSLEB(), -127);
    EXPECT_EQ(walker.readSLEB(), 63);
    EXPECT_EQ(walker.readSLEB(), -64);
}

TEST_F(SectionWalkerTest, SignedLeb128SignExtendsWhenFewerThan64BitsWereRead) {
    const Bytes nine = {0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x40};
    EXPECT_EQ(over(nine).readSLEB(), -(1LL << 62));
    const Bytes ten = {0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x7F};
    EXPECT_EQ(over(ten).readSLEB(), INT64_MIN);
    const Bytes tenWithoutBit63 = {0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x40};
    EXPECT_EQ(over(tenWithoutBit63).readSLEB(), 0);
}

TEST_F(SectionWalkerTest, SignedLeb128ReadsAFinalZeroPastTheView) {
    const Bytes bytes = {0xFF};
    SectionWalker walker = over(bytes);
    EXPECT_EQ(walker.readSLEB(), 0x7F);
    EXPECT_EQ(walker.offset(), 2u);
}

TEST_F(SectionWalkerTest, ReadsAddressesOfItsAddressSize) {
    const Bytes bytes = {1, 0, 0, 0x80, 2, 0, 0, 0, 0, 0, 0, 0x80};
    SectionWalker walker = over(bytes);
    walker.setAddressSize(4);
    EXPECT_EQ(walker.readAddress(), 0x80000001u);
    EXPECT_EQ(walker.offset(), 4u);
    walker.setAddressSize(8);
    EXPECT_EQ(walker.readAddress(), 0x8000000000000002u);
    EXPECT_EQ(walker.offset(), 12u);
}

TEST_F(SectionWalkerTest, AnAddressOfAnyOtherSizeIsLoggedAndDoesNotMove) {
    const Bytes bytes(16, 0xFF);
    SectionWalker walker = over(bytes);
    EXPECT_EQ(walker.readAddress(), 0u);
    walker.setAddressSize(2);
    EXPECT_EQ(walker.readAddress(), 0u);
    EXPECT_EQ(walker.offset(), 0u);
    EXPECT_EQ(messages(test::errorLevel).size(), 2u);
    expectLog("ASSERTION FAILED: 'false'", 2);
}

TEST_F(SectionWalkerTest, AddressSize0IsLoggedAndStored) {
    SectionWalker walker;
    walker.setAddressSize(8);
    walker.setAddressSize(0);
    EXPECT_EQ(walker.addressSize(), 0u);
    EXPECT_EQ(messages(test::warningLevel).size(), 1u);
    expectLog("addrSize == 0 \n");
}

TEST_F(SectionWalkerTest, WritesAreSeenByReads) {
    Bytes bytes(12);
    WritableSectionWalker walker(bytes.data(), bytes.size());
    walker.setAddressSize(4);
    walker.writeAddress(0x1122334455667788);
    walker.setAddressSize(8);
    walker.writeAddress(0x99AABBCCDDEEFF00);
    EXPECT_EQ(walker.offset(), 12u);
    walker.seek(0);
    EXPECT_EQ(walker.readU32(), 0x55667788u);
    EXPECT_EQ(walker.readU64(), 0x99AABBCCDDEEFF00u);
}

TEST_F(SectionWalkerTest, WritesThatAreNotWhollyInsideAreDropped) {
    Bytes bytes(11, 0xAA);
    // One byte less than there is, so that a stray write shows.
    WritableSectionWalker walker(bytes.data(), 10, 7);
    walker.writeU32(0);
    EXPECT_EQ(walker.offset(), 11u);
    walker.seek(3);
    walker.writeU64(0);
    EXPECT_EQ(walker.offset(), 11u);
    walker.seek(top - 1);
    walker.writeU64(0);
    EXPECT_EQ(walker.offset(), top);
    EXPECT_EQ(bytes, Bytes(11, 0xAA));
}

TEST_F(SectionWalkerTest, AnAddressOfAnyOtherSizeIsNotWritten) {
    Bytes bytes(8, 0xAA);
    WritableSectionWalker walker(bytes.data(), bytes.size());
    walker.writeAddress(0);
    EXPECT_EQ(walker.offset(), 0u);
    EXPECT_EQ(bytes, Bytes(8, 0xAA));
    expectLog("ASSERTION FAILED: 'false'");
}
