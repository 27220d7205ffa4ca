#include "orn_dildwarf.h"
#include "support/dwarf_module.h"
#include "support/orn_fixture.h"

namespace ORN_3_30::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

AttrBinding address(unsigned long long value) {
    return {DW_FORM_addr, value, nullptr};
}
AttrBinding number(unsigned long long value) {
    return {DW_FORM_data8, value, nullptr};
}

class HighLowAddressesTest : public OrnTest {
protected:
    std::pair<unsigned long long, unsigned long long> of(const AttrBinding* low, const AttrBinding* high) {
        std::pair<unsigned long long, unsigned long long> result{77, 77};
        dwarf_utils::calculateHighLowAdresses(low, high, result.first, result.second);
        return result;
    }
};

TEST_F(HighLowAddressesTest, AConstantHighIsAnOffsetAndAnAddressIsOne) {
    const AttrBinding low = address(0x1000);
    const AttrBinding offset = number(0x20);
    const AttrBinding high = address(0x1020);
    EXPECT_THAT(of(&low, &offset), Pair(0x1000, 0x1020));
    EXPECT_THAT(of(&low, &high), Pair(0x1000, 0x1020));
}

TEST_F(HighLowAddressesTest, WithoutHighItIsLow) {
    const AttrBinding low = address(0x1000);
    EXPECT_THAT(of(&low, nullptr), Pair(0x1000, 0x1000));
}

TEST_F(HighLowAddressesTest, WithoutLowAnAddressServesForBoth) {
    const AttrBinding high = address(0x1020);
    const AttrBinding offset = number(0x20);
    EXPECT_THAT(of(nullptr, &high), Pair(0x1020, 0x1020));
    EXPECT_THAT(of(nullptr, &offset), Pair(0, 0x20));
}

TEST_F(HighLowAddressesTest, WithNeitherBothAreZero) {
    EXPECT_THAT(of(nullptr, nullptr), Pair(0, 0));
}

class RangeListTest : public OrnTest {
protected:
    /// The list at `offset`, of a unit that begins at `lowPc`.
    unsigned long long read(unsigned long long lowPc = 0x1000, unsigned long long limit = 0,
                            unsigned long long offset = 0) {
        if (!m_isBuilt) {
            m_module.unit({{DW_AT_low_pc, DW_FORM_addr, lowPc}}, m_options);
            m_module.endUnit();
            EXPECT_EQ(m_module.load(symbol_kind_function), status_Ok);
        }
        m_isBuilt = true;
        const AttrBinding ranges{DW_FORM_sec_offset, offset, nullptr};
        DWARFCompilationUnit& unit = *m_module.loader().units().begin()->second;
        return m_module.loader().readRanges(unit, &ranges, unit.getAddressSize(), &m_list, limit);
    }

    DwarfModule m_module;
    orn_test::DwarfUnitOptions m_options;
    bool m_isBuilt = false;
    DWARFDebugInfoLoader::RangeDeque m_list;
};

TEST_F(RangeListTest, IsRelativeToTheUnitAndGivesTheSmallestAddress) {
    m_module.pair(0x40, 0x50).pair(0x10, 0x20).pair(0, 0).pair(0x60, 0x70);
    EXPECT_EQ(read(), 0x1010u);
    EXPECT_THAT(m_list, ElementsAre(Pair(0x1040, 0x1050), Pair(0x1010, 0x1020)));
}

TEST_F(RangeListTest, ABaseSelectionAloneYieldsNothingAndGivesTheBase) {
    m_module.pair(~0ULL, 0x2000).pair(0, 0);
    EXPECT_EQ(read(), 0x2000u);
    EXPECT_THAT(m_list, IsEmpty());
}

TEST_F(RangeListTest, AnEmptyListGivesTheUnitsLow) {
    m_module.pair(0, 0);
    EXPECT_EQ(read(), 0x1000u);
    EXPECT_THAT(m_list, IsEmpty());
}

TEST_F(RangeListTest, ASelectedBaseCountsForWhatFollows) {
    m_module.pair(0x10, 0x20).pair(~0ULL, 0x3000).pair(0x10, 0x20).pair(0, 0);
    // Quirk: the smallest first address is told relative to the last base.
    EXPECT_EQ(read(), 0x3010u);
    EXPECT_THAT(m_list, ElementsAre(Pair(0x1010, 0x1020), Pair(0x3010, 0x3020)));
}

TEST_F(RangeListTest, PairsOfOneAddressArePassed) {
    m_module.pair(0x10, 0x10).pair(0x30, 0x40).pair(0, 0);
    EXPECT_EQ(read(), 0x1030u);
    EXPECT_THAT(m_list, ElementsAre(Pair(0x1030, 0x1040)));
}

TEST_F(RangeListTest, TheEndOfTheSectionEndsTheList) {
    m_module.pair(0x10, 0x20);
    EXPECT_EQ(read(), 0x1010u);
    EXPECT_THAT(m_list, ElementsAre(Pair(0x1010, 0x1020)));
}

TEST_F(RangeListTest, APairThatIsCutOffReadsZerosForWhatIsMissing) {
    m_module.dwarf.ranges().u64(0x10);
    EXPECT_EQ(read(), 0x1010u);
    EXPECT_THAT(m_list, ElementsAre(Pair(0x1010, 0x1000)));
}

TEST_F(RangeListTest, AnOffsetAtOrPastTheEndGivesZero) {
    m_module.pair(0x10, 0x20);
    m_list.emplace_back(1, 2);
    EXPECT_EQ(read(0x1000, 0, 16), 0u);
    EXPECT_THAT(m_list, IsEmpty());
    EXPECT_EQ(read(0x1000, 0, ~0ULL), 0u);
}

TEST_F(RangeListTest, WithoutTheSectionItGivesZero) {
    EXPECT_EQ(read(), 0u);
}

TEST_F(RangeListTest, AnAttributeThatIsMissingIsReported) {
    m_module.pair(0x10, 0x20);
    read();
    DWARFCompilationUnit& unit = *m_module.loader().units().begin()->second;
    expectLog("ASSERTION FAILED: 'rangesAttr'");
    EXPECT_EQ(m_module.loader().readRanges(unit, nullptr, 8, &m_list, 0), 0u);
}

TEST_F(RangeListTest, TheListIsNotNeeded) {
    m_module.pair(0x40, 0x50).pair(0x10, 0x20).pair(0, 0);
    read();
    DWARFCompilationUnit& unit = *m_module.loader().units().begin()->second;
    const AttrBinding ranges{DW_FORM_sec_offset, 0, nullptr};
    EXPECT_EQ(m_module.loader().readRanges(unit, &ranges, 8, nullptr, 0), 0x1010u);
}

TEST_F(RangeListTest, FourByteAddressesHaveASelectorOfFourBytes) {
    m_options.addressSize = 4;
    m_module.dwarf.ranges().u32(0x10).u32(0x20).u32(0xffffffff).u32(0x2000).u32(1).u32(2).u32(0).u32(0);
    EXPECT_EQ(read(), 0x2001u);
    EXPECT_THAT(m_list, ElementsAre(Pair(0x1010, 0x1020), Pair(0x2001, 0x2002)));
}

TEST_F(RangeListTest, ABaseThatCarriesARangeBeyondTheLimitIsDropped) {
    m_module.pair(~0ULL, 0x1000).pair(0x1100, 0x1200).pair(0x1300, 0x1400).pair(0, 0);
    EXPECT_EQ(read(0, 0x2000), 0x1100u);
    EXPECT_THAT(m_list, ElementsAre(Pair(0x1100, 0x1200), Pair(0x1300, 0x1400)));
}

TEST_F(RangeListTest, AtTheLimitTheBaseStays) {
    m_module.pair(~0ULL, 0x1000).pair(0x1000, 0x1200).pair(0, 0);
    EXPECT_EQ(read(0, 0x2000), 0x2000u);
    EXPECT_THAT(m_list, ElementsAre(Pair(0x2000, 0x2200)));
}

TEST_F(RangeListTest, ALimitDoesNotTouchTheUnitsOwnBase) {
    m_module.pair(0x1100, 0x1200).pair(0, 0);
    EXPECT_EQ(read(0x1000, 0x1800), 0x2100u);
    EXPECT_THAT(m_list, ElementsAre(Pair(0x2100, 0x2200)));
}

TEST_F(RangeListTest, TheBiasIsAddedOnceToRangesAndResult) {
    m_module.bias = 0x100000;
    m_module.pair(0x10, 0x20).pair(~0ULL, 0x3000).pair(0x10, 0x20).pair(0, 0);
    EXPECT_EQ(read(), 0x103010u);
    EXPECT_THAT(m_list, ElementsAre(Pair(0x101010, 0x101020), Pair(0x103010, 0x103020)));
}

TEST_F(RangeListTest, TheLimitIsAnAddressOfTheModule) {
    m_module.bias = 0x100000;
    m_module.pair(~0ULL, 0x1000).pair(0x1000, 0x1200).pair(0, 0);
    EXPECT_EQ(read(0, 0x102000), 0x102000u);
    EXPECT_EQ(read(0, 0x101fff), 0x101000u);
}

TEST_F(RangeListTest, AnAddressSizeThatIsNotReadEndsTheList) {
    m_module.pair(0x10, 0x20);
    m_options.addressSize = 2;
    allowLog("ASSERTION FAILED: 'false'");
    EXPECT_EQ(read(0), 0u);
    EXPECT_THAT(m_list, IsEmpty());
}

} // namespace
} // namespace ORN_3_30::test
