// Address: one location in its three address spaces.

#include "orn_address.h"

#include "support/fake_loader.h"

#include <gtest/gtest.h>

namespace ORN_3_30::test {
namespace {

constexpr unsigned long long none = ~0ULL;

/// A module at 0x400000 with a segment at RVA 0x1000: 0x200 bytes from offset 0x500 on, 0x300 in memory.
class AddressTest : public ::testing::Test {
protected:
    AddressTest() {
        FakeSegment segment;
        segment.rva = 0x1000;
        segment.fileOffset = 0x500;
        segment.fileSize = 0x200;
        segment.memorySize = 0x300;
        loader->segments.push_back(segment);
    }

    SymMgrObjectPtr<IAddress> at(unsigned long long pseudoAddr) {
        return new Address(loader, pseudoAddr, nullptr);
    }

    SymMgrObjectPtr<FakeLoader> loader = new FakeLoader;
};

TEST_F(AddressTest, TheRvaIsThePseudoAddressWithoutTheImageBase) {
    EXPECT_EQ(at(0x401080)->pseudoAddr(), 0x401080u);
    EXPECT_EQ(at(0x401080)->rva(), 0x1080u);
    EXPECT_EQ(at(0)->rva(), 0ULL - 0x400000);
}

TEST_F(AddressTest, WithoutAnAddressItIsZero) {
    SymMgrObjectPtr<IAddress> address = new Address(loader, nullptr);
    EXPECT_EQ(address->pseudoAddr(), 0u);
}

TEST_F(AddressTest, AnAddressInASegmentHasASegmentOffset) {
    EXPECT_EQ(at(0x401080)->segment(), &loader->segments.front());
    EXPECT_EQ(at(0x401080)->segmentOffset(), 0x80u);
}

TEST_F(AddressTest, AnAddressOutsideHasNeitherSegmentNorOffsets) {
    EXPECT_EQ(at(0x1000)->segment(), nullptr);
    EXPECT_EQ(at(0x1000)->segmentOffset(), none);
    EXPECT_EQ(at(0x1000)->fileOffset(), none);
}

TEST_F(AddressTest, TheFileOffsetComesFromTheSegment) {
    EXPECT_EQ(at(0x401000)->fileOffset(), 0x500u);
    EXPECT_EQ(at(0x401080)->fileOffset(), 0x580u);
}

TEST_F(AddressTest, TheEndOfASegmentStillMaps) {
    EXPECT_EQ(at(0x401200)->fileOffset(), 0x700u);
}

TEST_F(AddressTest, TheZeroFilledTailHasNoFileOffset) {
    EXPECT_EQ(at(0x401201)->fileOffset(), none);
}

TEST_F(AddressTest, ASegmentWithoutAFileHasNoFileOffsets) {
    FakeSegment kernel;
    kernel.rva = 0x10000000;
    kernel.fileOffset = none;
    kernel.memorySize = 0x1000;
    loader->segments.push_back(kernel);
    EXPECT_EQ(at(0x10400000)->fileOffset(), none);
    EXPECT_EQ(at(0x10400010)->fileOffset(), none);
}

TEST_F(AddressTest, AFailedTestIsRemembered) {
    SymMgrObjectPtr<IAddress> address = at(0x401280);
    EXPECT_EQ(address->fileOffset(), none);
    const int lookUps = loader->lookUps;
    EXPECT_EQ(address->fileOffset(), none);
    EXPECT_EQ(loader->lookUps, lookUps);
}

TEST_F(AddressTest, AFileOffsetIsWorkedOutOnce) {
    SymMgrObjectPtr<IAddress> address = at(0x401080);
    EXPECT_EQ(address->fileOffset(), 0x580u);
    const int lookUps = loader->lookUps;
    EXPECT_EQ(address->fileOffset(), 0x580u);
    EXPECT_EQ(loader->lookUps, lookUps);
}

TEST_F(AddressTest, NothingIsRememberedWithoutSegmentAndSection) {
    SymMgrObjectPtr<IAddress> address = at(0x1000);
    EXPECT_EQ(address->fileOffset(), none);
    FakeSegment late;
    late.rva = 0x1000 - loader->imageBase;
    late.fileOffset = 0x10;
    late.fileSize = late.memorySize = 0x20;
    loader->segments.push_back(late);
    EXPECT_EQ(address->fileOffset(), 0x10u);
}

TEST_F(AddressTest, ASectionServesWithoutASegmentAndItsAddressIsTakenAsAnRva) {
    loader->section = new FakeSection;
    loader->section->address = 0x800000;
    loader->section->fileOffset = 0x900000;
    loader->section->size = 0x100;
    EXPECT_EQ(at(0x800010)->fileOffset(), 0x900010u - loader->imageBase);
}

TEST_F(AddressTest, TheSetterLeavesAKnownFileOffsetAlone) {
    SymMgrObjectPtr<Address> address = new Address(loader, 0x401080, nullptr);
    EXPECT_EQ(address->fileOffset(), 0x580u);
    address->setPseudoAddr(0x401090);
    EXPECT_EQ(address->pseudoAddr(), 0x401090u);
    EXPECT_EQ(address->fileOffset(), 0x580u);
}

TEST_F(AddressTest, TheSetterLeavesARememberedFailureAlone) {
    SymMgrObjectPtr<Address> address = new Address(loader, 0x401280, nullptr);
    EXPECT_EQ(address->fileOffset(), none);
    address->setPseudoAddr(0x401080);
    EXPECT_EQ(address->fileOffset(), none);
}

TEST_F(AddressTest, ComparisonsAreUnsigned) {
    SymMgrObjectPtr<IAddress> low = at(1);
    SymMgrObjectPtr<IAddress> high = at(0xFFFFFFFF80000000);
    EXPECT_TRUE(low->lessThan(*high));
    EXPECT_FALSE(low->greaterThan(*high));
    EXPECT_TRUE(high->greaterThan(*low));
    EXPECT_TRUE(low->notEquals(*high));
    EXPECT_FALSE(low->equals(*high));
    EXPECT_TRUE(low->equals(*at(1)));
    EXPECT_FALSE(low->notEquals(*at(1)));
    EXPECT_FALSE(low->lessThan(*at(1)));
    EXPECT_FALSE(low->greaterThan(*at(1)));
}

} // namespace
} // namespace ORN_3_30::test
