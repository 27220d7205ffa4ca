#include "orn_dildwarf_abbrev.h"
#include "orn_dildwarf_constants.h"
#include "support/byte_assembler.h"
#include "support/dwarf_sections.h"
#include "support/orn_fixture.h"

#include <gtest/gtest.h>

#include <chrono>

namespace ORN_3_30 {
namespace {

using orn_test::ByteAssembler;
using test::MemorySection;

class AbbrevTableTest : public test::OrnTest {
protected:
    const AbbrevTable& read(const ByteAssembler& bytes, unsigned long long offset = 0) {
        const std::vector<std::uint8_t> data = bytes.bytes();
        m_section = new MemorySection(data);
        m_table = std::make_unique<AbbrevTable>(m_section->getData(), data.size(), offset, m_pool);
        return *m_table;
    }

    std::shared_ptr<AbbrevPool> m_pool = std::make_shared<AbbrevPool>();
    SymMgrObjectPtr<MemorySection> m_section;
    std::unique_ptr<AbbrevTable> m_table;
};

ByteAssembler& abbreviation(ByteAssembler& out, unsigned long long code, unsigned long long tag) {
    return out.uleb(code).uleb(tag).u8(0).uleb(0).uleb(0);
}

TEST_F(AbbrevTableTest, KeepsTagChildrenAndSpecsInTheOrderOfTheFile) {
    ByteAssembler bytes;
    bytes.uleb(7).uleb(DW_TAG_subprogram).u8(1);
    bytes.uleb(DW_AT_name).uleb(DW_FORM_strp).uleb(DW_AT_sibling).uleb(DW_FORM_ref4).uleb(0).uleb(0).uleb(0);
    const AbbrevEntry* entry = read(bytes).find(7);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->tag, DW_TAG_subprogram);
    EXPECT_EQ(entry->hasChildren, 1);
    ASSERT_EQ(entry->specCount, 2u);
    EXPECT_EQ(entry->specs[0].attribute, DW_AT_name);
    EXPECT_EQ(entry->specs[0].form, DW_FORM_strp);
    EXPECT_EQ(entry->specs[1].attribute, DW_AT_sibling);
    EXPECT_EQ(entry->specs[1].form, DW_FORM_ref4);
}

TEST_F(AbbrevTableTest, EndsAtCodeZero) {
    ByteAssembler bytes;
    abbreviation(bytes, 1, DW_TAG_variable).uleb(0);
    abbreviation(bytes, 2, DW_TAG_member);
    EXPECT_NE(read(bytes).find(1), nullptr);
    EXPECT_EQ(m_table->find(2), nullptr);
}

TEST_F(AbbrevTableTest, EndsSilentlyAtTheSecondCodeOne) {
    ByteAssembler bytes;
    abbreviation(bytes, 1, DW_TAG_variable);
    abbreviation(bytes, 2, DW_TAG_member);
    abbreviation(bytes, 1, DW_TAG_label);
    abbreviation(bytes, 3, DW_TAG_member);
    EXPECT_EQ(read(bytes).find(1)->tag, DW_TAG_variable);
    EXPECT_NE(m_table->find(2), nullptr);
    EXPECT_EQ(m_table->find(3), nullptr);
}

TEST_F(AbbrevTableTest, AnyOtherCodeDefinedTwiceIsReportedAndTheLaterOneCounts) {
    ByteAssembler bytes;
    abbreviation(bytes, 2, DW_TAG_variable);
    abbreviation(bytes, 2, DW_TAG_label).uleb(0);
    expectLog("ASSERTION FAILED: 'm_abbrevsMap[abbrevCode] == NULL'");
    EXPECT_EQ(read(bytes).find(2)->tag, DW_TAG_label);
}

TEST_F(AbbrevTableTest, APairWithOneZeroIsAPair) {
    ByteAssembler bytes;
    bytes.uleb(1).uleb(DW_TAG_variable).u8(0);
    bytes.uleb(DW_AT_name).uleb(0).uleb(0).uleb(DW_FORM_data1).uleb(0).uleb(0).uleb(0);
    const AbbrevEntry* entry = read(bytes).find(1);
    ASSERT_EQ(entry->specCount, 2u);
    EXPECT_EQ(entry->specs[0].form, 0u);
    EXPECT_EQ(entry->specs[1].attribute, 0u);
}

TEST_F(AbbrevTableTest, TheSectionsEndEndsTheSpecsAndTheTable) {
    ByteAssembler bytes;
    bytes.uleb(1).uleb(DW_TAG_variable).u8(1).uleb(DW_AT_name).uleb(DW_FORM_string);
    const AbbrevEntry* entry = read(bytes).find(1);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->specCount, 1u);
}

TEST_F(AbbrevTableTest, ACodeAloneIsAnEntryOfZeros) {
    ByteAssembler bytes;
    bytes.uleb(5);
    const AbbrevEntry* entry = read(bytes).find(5);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->tag, 0u);
    EXPECT_EQ(entry->hasChildren, 0);
    EXPECT_EQ(entry->specCount, 0u);
}

TEST_F(AbbrevTableTest, BeginsAtItsOffset) {
    ByteAssembler bytes;
    bytes.fill(9, 0xff);
    abbreviation(bytes, 1, DW_TAG_variable).uleb(0);
    EXPECT_EQ(read(bytes, 9).find(1)->tag, DW_TAG_variable);
}

TEST_F(AbbrevTableTest, AnOffsetAtOrPastTheEndIsAnEmptyTable) {
    ByteAssembler bytes;
    abbreviation(bytes, 1, DW_TAG_variable).uleb(0);
    EXPECT_EQ(read(bytes, bytes.size()).find(1), nullptr);
    EXPECT_EQ(read(bytes, 1000).find(1), nullptr);
    EXPECT_EQ(read(bytes, ~0ULL).find(1), nullptr);
}

TEST_F(AbbrevTableTest, UnitsOfOneOffsetShareATable) {
    ByteAssembler bytes;
    abbreviation(bytes, 1, DW_TAG_variable).uleb(0);
    SymMgrObjectPtr<MemorySection> section = new MemorySection(bytes.bytes());
    AbbrevTables tables;
    EXPECT_EQ(tables.tableAt(section, 0), tables.tableAt(section, 0));
    EXPECT_NE(tables.tableAt(section, 0), tables.tableAt(section, 1));
    EXPECT_EQ(AbbrevTables().tableAt(nullptr, 5)->find(1), nullptr);
}

TEST_F(AbbrevTableTest, ATableOutlivesItsLoader) {
    ByteAssembler bytes;
    abbreviation(bytes, 1, DW_TAG_variable).uleb(0);
    SymMgrObjectPtr<MemorySection> section = new MemorySection(bytes.bytes());
    auto tables = std::make_unique<AbbrevTables>();
    const std::shared_ptr<const AbbrevTable> table = tables->tableAt(section, 0);
    tables.reset();
    EXPECT_EQ(table->find(1)->tag, DW_TAG_variable);
}

TEST_F(AbbrevTableTest, EntriesKeepTheirAddresses) {
    ByteAssembler bytes;
    for (unsigned code = 1; code <= 5000; ++code)
        abbreviation(bytes, code, code);
    bytes.uleb(0);
    read(bytes);
    const AbbrevEntry* first = m_table->find(1);
    SymMgrObjectPtr<MemorySection> section = new MemorySection(bytes.bytes());
    AbbrevTable another(section->getData(), section->getSize(), 0, m_pool);
    EXPECT_EQ(m_table->find(1), first);
    for (unsigned code = 1; code <= 5000; ++code)
        ASSERT_EQ(m_table->find(code)->tag, code);
}

TEST_F(AbbrevTableTest, TheGreatestCodesAreFoundAndCostNothing) {
    ByteAssembler bytes;
    const unsigned long long codes[] = {
        1, 255, 256, 65535, PagedMap::maxPagedCode, 1u << 25, 0xffffffffULL, 1ULL << 40, ~0ULL - 1, ~0ULL};
    for (const unsigned long long code : codes)
        abbreviation(bytes, code, code % 1000);
    bytes.uleb(0);
    read(bytes);
    for (const unsigned long long code : codes)
        EXPECT_EQ(m_table->find(code)->tag, code % 1000) << code;
    EXPECT_EQ(m_table->find(2), nullptr);
    EXPECT_EQ(m_table->find(1ULL << 41), nullptr);
    EXPECT_LE(m_table->map().pageCount(), 3u);
}

TEST(PagedMap, LookingUpNeverGrowsIt) {
    PagedMap map;
    EXPECT_EQ(map.pageCount(), 1u);
    for (unsigned long long code = 0; code < 100000; code += 97)
        EXPECT_EQ(map.find(code), nullptr);
    EXPECT_EQ(map.find(~0ULL), nullptr);
    EXPECT_EQ(map.pageCount(), 1u);
}

TEST(PagedMap, HasPagesForDefinedCodesOnly) {
    PagedMap map;
    const AbbrevEntry entry{};
    map[3000] = &entry;
    EXPECT_EQ(map.pageCount(), 2u);
    EXPECT_EQ(map.find(3000), &entry);
    EXPECT_EQ(map.find(2999), nullptr);
    EXPECT_EQ(map.find(600), nullptr);
}

TEST(PagedMap, ACodeOfTheSideMapIsFoundWhenThePagesHaveGrownPastIt) {
    PagedMap map;
    const AbbrevEntry far{};
    const AbbrevEntry near{};
    constexpr unsigned long long farCode = 100 * PagedMap::pageSize + 5;
    map[farCode] = &far;
    for (unsigned long long code = 1; code < 200 * PagedMap::pageSize; ++code) {
        if (code != farCode)
            map[code] = &near;
    }
    EXPECT_EQ(map.find(farCode), &far);
    EXPECT_EQ(map.find(farCode + 1), &near);
    map[farCode] = &near;
    EXPECT_EQ(map.find(farCode), &near);
}

TEST(AttrShape, FindsAttributesOnEitherSideOfTheBits) {
    const unsigned long long keys[] = {0, 1, 63, 64, 127, 128, 0x2007, 0x3b01, ~0ULL};
    AttrShape shape;
    shape.assign(keys, std::size(keys));
    for (std::uint32_t i = 0; i < std::size(keys); ++i)
        EXPECT_EQ(shape.find(keys[i]), i);
    for (const unsigned long long absent : {2ULL, 62ULL, 65ULL, 126ULL, 129ULL, 0x2006ULL, ~0ULL - 1})
        EXPECT_EQ(shape.find(absent), AttrSpec::notKept);
}

TEST_F(AbbrevTableTest, ATableOfOneLongEntryIsReadInLinearTime) {
    // Attributes in descending order, each of them twice: what a list that is searched from its head likes
    // least.
    ByteAssembler bytes;
    bytes.uleb(1).uleb(DW_TAG_variable).u8(0);
    constexpr unsigned count = 200000;
    for (unsigned i = count; i > 0; --i)
        bytes.uleb(i).uleb(DW_FORM_data1).uleb(i).uleb(DW_FORM_data1);
    bytes.uleb(0).uleb(0).uleb(0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(read(bytes).find(1)->shape.count, count);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

} // namespace
} // namespace ORN_3_30
