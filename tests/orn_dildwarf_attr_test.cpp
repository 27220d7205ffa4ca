#include "orn_dildwarf_attr.h"
#include "orn_dildwarf_unit.h"
#include "support/dwarf_assembler.h"
#include "support/dwarf_unit.h"
#include "support/orn_fixture.h"

#include <gtest/gtest.h>

#include <chrono>

namespace ORN_3_30 {
namespace {

using orn_test::DwarfAssembler;
using orn_test::DwarfUnitOptions;
using orn_test::DwarfValue;
using test::DwarfUnits;

constexpr std::uint64_t allOnes = ~0ULL;

class AttrBindingsTest : public test::OrnTest {
protected:
    /// One unit with one entry of one attribute, in front of a second entry that shows where the first ends.
    void decode(std::uint64_t form, const DwarfValue& value, const DwarfUnitOptions& options = {},
                unsigned long long bias = 0) {
        m_dwarf.abbreviation(1, DW_TAG_variable, false, {{DW_AT_location, form}});
        m_dwarf.abbreviation(2, DW_TAG_label, false, {}).endAbbreviations();
        m_dwarf.beginUnit(options).entry(1, {value}).entry(2).endUnit();
        load(options, bias);
        SectionWalker walker = m_unit->walkerAt(m_unit->firstEntryOffset());
        ASSERT_TRUE(m_unit->readAttrBindings(walker, *m_attrs));
        expectSkipGivesTheSame(walker);
        m_binding = m_attrs->find(DW_AT_location, true);
        AttrBindings second(m_unit);
        EXPECT_TRUE(m_unit->readAttrBindings(walker, second));
        EXPECT_EQ(second.tag(), DW_TAG_label);
    }

    void load(const DwarfUnitOptions& options = {}, unsigned long long bias = 0) {
        m_units = std::make_unique<DwarfUnits>(m_dwarf, bias);
        m_unit = &m_units->unit(0, options);
        m_attrs = new AttrBindings(m_unit);
    }

    void expectSkipGivesTheSame(const SectionWalker& decoded) {
        SectionWalker walker = m_unit->walkerAt(m_unit->firstEntryOffset());
        const DWARFCompilationUnit::EntryCode code = m_unit->readEntryCode(walker);
        ASSERT_NE(code.abbrev, nullptr);
        unsigned long long sibling = 0;
        EXPECT_TRUE(m_unit->skipAttributes(walker, code, sibling));
        EXPECT_EQ(walker.offset(), decoded.offset());
    }

    bool readFirst() { return m_unit->readAttrBindingsAt(m_unit->firstEntryOffset(), *m_attrs); }

    void expectNumber(std::uint64_t form, std::uint64_t value) {
        ASSERT_NE(m_binding, nullptr);
        EXPECT_EQ(m_binding->form, form);
        EXPECT_EQ(m_binding->value, value);
        EXPECT_EQ(m_binding->data, nullptr);
    }
    void expectBlock(std::uint64_t form, const std::vector<std::uint8_t>& bytes) {
        ASSERT_NE(m_binding, nullptr);
        EXPECT_EQ(m_binding->form, form);
        ASSERT_EQ(m_binding->value, bytes.size());
        EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), m_binding->bytes()));
    }

    DwarfAssembler m_dwarf;
    std::unique_ptr<DwarfUnits> m_units;
    DWARFCompilationUnit* m_unit = nullptr;
    SymMgrObjectPtr<AttrBindings> m_attrs;
    AttrBinding* m_binding = nullptr;
};

DwarfUnitOptions withVersion(std::uint16_t version, bool is64Bit = false, std::uint8_t addressSize = 8) {
    DwarfUnitOptions options;
    options.version = version;
    options.is64Bit = is64Bit;
    options.addressSize = addressSize;
    return options;
}

// Forms.

TEST_F(AttrBindingsTest, AnAddressGetsTheLoadBias) {
    decode(DW_FORM_addr, 0x401000, {}, 0x10000);
    expectNumber(DW_FORM_addr, 0x411000);
}

TEST_F(AttrBindingsTest, AnAddressIsAsWideAsTheUnitSays) {
    decode(DW_FORM_addr, 0xfffffff0, withVersion(4, false, 4));
    expectNumber(DW_FORM_addr, 0xfffffff0);
}

TEST_F(AttrBindingsTest, AnAddressOfAnotherWidthIsReportedAndZero) {
    expectLog("ASSERTION FAILED: 'false'", 2); // decoded and skipped
    decode(DW_FORM_addr, DwarfValue::raw({}), withVersion(4, false, 2));
    expectNumber(DW_FORM_addr, 0);
}

TEST_F(AttrBindingsTest, EveryConstantWithAWidthLosesIt) {
    const std::pair<std::uint64_t, std::uint64_t> forms[] = {{DW_FORM_data1, 0xfe},
                                                             {DW_FORM_data2, 0xfedc},
                                                             {DW_FORM_data4, 0xfedcba98},
                                                             {DW_FORM_data8, 0xfedcba9876543210}};
    for (const auto& [form, value] : forms) {
        m_dwarf = DwarfAssembler();
        decode(form, allOnes & value);
        expectNumber(DW_FORM_data8, value);
    }
}

TEST_F(AttrBindingsTest, OnlyASignedConstantStaysDistinguishable) {
    decode(DW_FORM_sdata, -129);
    expectNumber(DW_FORM_sdata, static_cast<std::uint64_t>(-129));
}

TEST_F(AttrBindingsTest, ASmallSignedConstantIsSignExtended) {
    decode(DW_FORM_sdata, -2);
    expectNumber(DW_FORM_sdata, static_cast<std::uint64_t>(-2));
}

TEST_F(AttrBindingsTest, UdataKeepsItsForm) {
    decode(DW_FORM_udata, allOnes);
    expectNumber(DW_FORM_udata, allOnes);
}

TEST_F(AttrBindingsTest, AFlagHasItsByte) {
    decode(DW_FORM_flag, 3);
    expectNumber(DW_FORM_flag, 3);
}

TEST_F(AttrBindingsTest, AFlagThatIsOnlyPresentHasTheValueZero) {
    decode(DW_FORM_flag_present, 0);
    expectNumber(DW_FORM_flag_present, 0);
}

TEST_F(AttrBindingsTest, EveryBlockBecomesABlock) {
    const std::vector<std::uint8_t> bytes = {1, 0, 3};
    for (const std::uint64_t form : {DW_FORM_block1, DW_FORM_block2, DW_FORM_block4, DW_FORM_block}) {
        m_dwarf = DwarfAssembler();
        decode(form, bytes);
        expectBlock(DW_FORM_block, bytes);
    }
}

TEST_F(AttrBindingsTest, AnExpressionKeepsItsForm) {
    decode(DW_FORM_exprloc, std::vector<std::uint8_t>{9, 8});
    expectBlock(DW_FORM_exprloc, {9, 8});
}

TEST_F(AttrBindingsTest, ATextHasItsLength) {
    decode(DW_FORM_string, "name");
    ASSERT_NE(m_binding, nullptr);
    EXPECT_EQ(m_binding->form, DW_FORM_string);
    EXPECT_EQ(m_binding->value, 4u);
    EXPECT_STREQ(m_binding->text(), "name");
}

TEST_F(AttrBindingsTest, ALongTextHasItsLengthToo) {
    const std::string text(100000, 'x');
    decode(DW_FORM_string, text.c_str());
    EXPECT_EQ(m_binding->value, text.size());
    EXPECT_EQ(m_binding->text(), text);
}

TEST_F(AttrBindingsTest, ATextOfTheStringSectionKeepsNoNumber) {
    m_dwarf.string("before");
    decode(DW_FORM_strp, "name");
    ASSERT_NE(m_binding, nullptr);
    EXPECT_EQ(m_binding->form, DW_FORM_strp);
    EXPECT_EQ(m_binding->value, 0u);
    EXPECT_STREQ(m_binding->text(), "name");
}

TEST_F(AttrBindingsTest, AnOffsetAtTheEndOfTheStringSectionGivesNull) {
    m_dwarf.string("all");
    decode(DW_FORM_strp, 4);
    ASSERT_NE(m_binding, nullptr);
    EXPECT_EQ(m_binding->data, nullptr);
    EXPECT_EQ(m_binding->text(), nullptr);
}

TEST_F(AttrBindingsTest, WithoutAStringSectionATextIsNull) {
    decode(DW_FORM_strp, 0);
    ASSERT_NE(m_binding, nullptr);
    EXPECT_EQ(m_binding->data, nullptr);
}

TEST_F(AttrBindingsTest, ATextThatTheStringSectionCutsOffEndsWithIt) {
    m_dwarf.str().str("whole").chars("cut");
    decode(DW_FORM_strp, 7);
    EXPECT_STREQ(m_binding->text(), "ut");
}

TEST_F(AttrBindingsTest, LocalReferencesOfEveryWidthBecomeAbsolute) {
    const std::pair<std::uint64_t, std::uint64_t> forms[] = {{DW_FORM_ref1, 0x12},
                                                             {DW_FORM_ref2, 0x1234},
                                                             {DW_FORM_ref4, 0x12345678},
                                                             {DW_FORM_ref8, 0x123456789abcdef0},
                                                             {DW_FORM_ref_udata, 0x12345}};
    for (const auto& [form, value] : forms) {
        m_dwarf = DwarfAssembler();
        m_dwarf.beginUnit().endUnit();
        const std::uint64_t unitOffset = m_dwarf.info().size();
        m_dwarf.abbreviation(1, DW_TAG_variable, false, {{DW_AT_type, form}}).endAbbreviations();
        m_dwarf.beginUnit().entry(1, {value}).endUnit();
        m_units = std::make_unique<DwarfUnits>(m_dwarf);
        m_unit = &m_units->unit(1);
        m_attrs = new AttrBindings(m_unit);
        ASSERT_TRUE(readFirst());
        m_binding = m_attrs->find(DW_AT_type, true);
        expectNumber(DW_FORM_ref_addr, value + unitOffset);
    }
}

TEST_F(AttrBindingsTest, ARefAddrOfVersion2IsAsWideAsAnAddress) {
    decode(DW_FORM_ref_addr, 0x1122334455667788, withVersion(2));
    expectNumber(DW_FORM_ref_addr, 0x1122334455667788);
}

TEST_F(AttrBindingsTest, ARefAddrOfVersion3IsAsWideAsAnOffset) {
    decode(DW_FORM_ref_addr, 0x11223344, withVersion(3));
    expectNumber(DW_FORM_ref_addr, 0x11223344);
}

TEST_F(AttrBindingsTest, ARefAddrOfVersion2WithShortAddressesHas4Bytes) {
    decode(DW_FORM_ref_addr, 0x11223344, withVersion(2, true, 4));
    expectNumber(DW_FORM_ref_addr, 0x11223344);
}

TEST_F(AttrBindingsTest, OffsetsOfThe64BitFormatHave8Bytes) {
    m_dwarf.string("before");
    decode(DW_FORM_strp, "name", withVersion(4, true));
    EXPECT_STREQ(m_binding->text(), "name");
    m_dwarf = DwarfAssembler();
    decode(DW_FORM_sec_offset, 0x1122334455667788, withVersion(4, true));
    expectNumber(DW_FORM_sec_offset, 0x1122334455667788);
    m_dwarf = DwarfAssembler();
    decode(DW_FORM_ref_addr, 0x1122334455667788, withVersion(4, true));
    expectNumber(DW_FORM_ref_addr, 0x1122334455667788);
}

TEST_F(AttrBindingsTest, ASectionOffsetIsKept) {
    decode(DW_FORM_sec_offset, 0x11223344);
    expectNumber(DW_FORM_sec_offset, 0x11223344);
}

TEST_F(AttrBindingsTest, ASignatureIsAllOnes) {
    decode(DW_FORM_ref_sig8, 0x1122334455667788);
    expectNumber(DW_FORM_ref_sig8, allOnes);
}

TEST_F(AttrBindingsTest, AnIndirectFormIsNamedByTheEntry) {
    decode(DW_FORM_indirect, DwarfValue::indirect(DW_FORM_data2, 0x1234));
    expectNumber(DW_FORM_data8, 0x1234);
}

TEST_F(AttrBindingsTest, AnIndirectFormMayNameAnother) {
    decode(DW_FORM_indirect, DwarfValue::raw({DW_FORM_indirect, DW_FORM_indirect, DW_FORM_data1, 9}));
    expectNumber(DW_FORM_data8, 9);
}

TEST_F(AttrBindingsTest, VendorFormsAreConsumedAndDropped) {
    for (const std::uint64_t form :
         {DW_FORM_GNU_addr_index, DW_FORM_GNU_str_index, DW_FORM_GNU_ref_alt, DW_FORM_GNU_strp_alt}) {
        for (const bool is64Bit : {false, true}) {
            m_dwarf = DwarfAssembler();
            decode(form, 0x1234, withVersion(4, is64Bit));
            EXPECT_EQ(m_binding, nullptr);
            EXPECT_EQ(m_attrs->attributeCount(), 0u);
        }
    }
}

TEST_F(AttrBindingsTest, AnIndirectVendorFormIsDropped) {
    decode(DW_FORM_indirect, DwarfValue::indirect(DW_FORM_GNU_str_index, 300));
    EXPECT_EQ(m_binding, nullptr);
}

TEST_F(AttrBindingsTest, AnUnknownFormEndsTheWalkOfItsUnit) {
    for (const std::uint64_t form :
         {0x02ULL, 0x1aULL, 0x1fULL, 0x21ULL, 0x1f00ULL, 0x1f03ULL, 0x100000017ULL}) {
        m_dwarf = DwarfAssembler();
        m_dwarf.abbreviation(1, DW_TAG_variable, true, {{DW_AT_name, DW_FORM_data1}, {DW_AT_type, form}})
            .endAbbreviations();
        m_dwarf.beginUnit().entry(1, {7, DwarfValue::raw({1, 1, 1})}).endUnit();
        load();
        SectionWalker walker = m_unit->walkerAt(m_unit->firstEntryOffset());
        EXPECT_FALSE(m_unit->readAttrBindings(walker, *m_attrs)) << form;
        EXPECT_EQ(walker.remaining(), 0u);
        EXPECT_EQ(m_attrs->find(DW_AT_name), nullptr);
        SectionWalker skipping = m_unit->walkerAt(m_unit->firstEntryOffset());
        unsigned long long sibling = 0;
        EXPECT_FALSE(m_unit->skipAttributes(skipping, m_unit->readEntryCode(skipping), sibling));
        EXPECT_EQ(skipping.remaining(), 0u);
    }
}

// Entries.

TEST_F(AttrBindingsTest, ANullEntryLeavesTheBindingsEmpty) {
    m_dwarf.abbreviation(1, DW_TAG_variable, true, {{DW_AT_name, DW_FORM_string}}).endAbbreviations();
    m_dwarf.beginUnit().entry(1, {"a"}).null().entry(1, {"b"}).endUnit();
    load();
    SectionWalker walker = m_unit->walkerAt(m_unit->firstEntryOffset());
    ASSERT_TRUE(m_unit->readAttrBindings(walker, *m_attrs));
    EXPECT_FALSE(m_unit->readAttrBindings(walker, *m_attrs));
    EXPECT_EQ(m_attrs->tag(), 0u);
    EXPECT_EQ(m_attrs->getHasChildren(), 0);
    EXPECT_EQ(m_attrs->find(DW_AT_name), nullptr);
    // The walk goes on behind it.
    ASSERT_TRUE(m_unit->readAttrBindings(walker, *m_attrs));
    EXPECT_STREQ(m_attrs->find(DW_AT_name)->text(), "b");
}

TEST_F(AttrBindingsTest, TheOffsetIsThatBehindTheCode) {
    m_dwarf.abbreviation(300, DW_TAG_variable, true, {}).endAbbreviations();
    m_dwarf.beginUnit().entry(300).endUnit();
    load();
    ASSERT_TRUE(readFirst());
    EXPECT_EQ(m_attrs->offset(), m_unit->firstEntryOffset() + 2);
    EXPECT_EQ(m_attrs->entryStart(), m_unit->firstEntryOffset());
    EXPECT_EQ(m_attrs->getHasChildren(), DW_CHILDREN_yes);
    EXPECT_EQ(m_attrs->compUnit(), m_unit);
}

TEST_F(AttrBindingsTest, AnUnknownCodeIsReportedAndEndsTheWalkOfItsUnit) {
    m_dwarf.abbreviation(1, DW_TAG_variable, false, {}).endAbbreviations();
    m_dwarf.beginUnit();
    m_dwarf.info().uleb(77);
    m_dwarf.entry(1).endUnit();
    load();
    expectLog("ASSERTION FAILED: 'false'");
    SectionWalker walker = m_unit->walkerAt(m_unit->firstEntryOffset());
    EXPECT_FALSE(m_unit->readAttrBindings(walker, *m_attrs));
    EXPECT_FALSE(m_unit->readAttrBindings(walker, *m_attrs));
    EXPECT_EQ(walker.remaining(), 0u);
}

TEST_F(AttrBindingsTest, AttributesAreAscendingWhateverTheOrderOfTheFile) {
    m_dwarf
        .abbreviation(1, DW_TAG_variable, false,
                      {{DW_AT_MIPS_linkage_name, DW_FORM_data1},
                       {DW_AT_type, DW_FORM_data1},
                       {DW_AT_name, DW_FORM_data1},
                       {DW_AT_external, DW_FORM_flag_present}})
        .endAbbreviations();
    m_dwarf.beginUnit().entry(1, {1, 2, 3, 0}).endUnit();
    load();
    ASSERT_TRUE(readFirst());
    ASSERT_EQ(m_attrs->attributeCount(), 4u);
    EXPECT_EQ(m_attrs->attributeAt(0), DW_AT_name);
    EXPECT_EQ(m_attrs->attributeAt(1), DW_AT_external);
    EXPECT_EQ(m_attrs->attributeAt(2), DW_AT_type);
    EXPECT_EQ(m_attrs->attributeAt(3), DW_AT_MIPS_linkage_name);
    EXPECT_EQ(m_attrs->find(DW_AT_MIPS_linkage_name)->value, 1u);
    EXPECT_EQ(m_attrs->find(DW_AT_type)->value, 2u);
    EXPECT_EQ(m_attrs->find(DW_AT_name)->value, 3u);
    EXPECT_EQ(m_attrs->bindingAt(1), m_attrs->find(DW_AT_external));
    EXPECT_EQ(m_attrs->find(DW_AT_sibling), nullptr);
    EXPECT_EQ(m_attrs->find(DW_AT_name + (1ULL << 32)), nullptr);
}

TEST_F(AttrBindingsTest, OfEqualAttributesTheFirstStaysAndTheSecondIsConsumed) {
    m_dwarf
        .abbreviation(1, DW_TAG_variable, false,
                      {{DW_AT_name, DW_FORM_data2}, {DW_AT_name, DW_FORM_data4}, {DW_AT_type, DW_FORM_data1}})
        .endAbbreviations();
    m_dwarf.beginUnit().entry(1, {11, 22, 33}).endUnit();
    load();
    ASSERT_TRUE(readFirst());
    EXPECT_EQ(m_attrs->find(DW_AT_name)->value, 11u);
    EXPECT_EQ(m_attrs->find(DW_AT_type)->value, 33u);
}

TEST_F(AttrBindingsTest, AfterADroppedAttributeItsEqualIsTheFirst) {
    m_dwarf
        .abbreviation(1, DW_TAG_variable, false,
                      {{DW_AT_name, DW_FORM_GNU_str_index}, {DW_AT_name, DW_FORM_data4}})
        .endAbbreviations();
    m_dwarf.beginUnit().entry(1, {11, 22}).endUnit();
    load();
    ASSERT_TRUE(readFirst());
    EXPECT_EQ(m_attrs->find(DW_AT_name)->value, 22u);
}

TEST_F(AttrBindingsTest, IndirectAttributesKeepTheSameOrderAndTheFirstOfEquals) {
    m_dwarf
        .abbreviation(1, DW_TAG_variable, false,
                      {{DW_AT_type, DW_FORM_indirect},
                       {DW_AT_name, DW_FORM_indirect},
                       {DW_AT_name, DW_FORM_indirect},
                       {DW_AT_type, DW_FORM_data1}})
        .endAbbreviations();
    m_dwarf.beginUnit()
        .entry(1, {DwarfValue::indirect(DW_FORM_GNU_str_index, 1), DwarfValue::indirect(DW_FORM_data1, 2),
                   DwarfValue::indirect(DW_FORM_data1, 3), 4})
        .endUnit();
    load();
    ASSERT_TRUE(readFirst());
    ASSERT_EQ(m_attrs->attributeCount(), 2u);
    EXPECT_EQ(m_attrs->attributeAt(0), DW_AT_name);
    EXPECT_EQ(m_attrs->find(DW_AT_name)->value, 2u);
    EXPECT_EQ(m_attrs->find(DW_AT_type)->value, 4u);
    EXPECT_EQ(m_attrs->kept()->find(DW_AT_type)->value, 4u);
}

TEST_F(AttrBindingsTest, TheTextOfAnAttributeThatIsNoneIsNull) {
    decode(DW_FORM_block1, std::vector<std::uint8_t>{'a', 'b'});
    EXPECT_NE(m_binding->data, nullptr);
    EXPECT_EQ(m_binding->text(), nullptr);
    EXPECT_EQ(textOf(nullptr), nullptr);
}

TEST_F(AttrBindingsTest, AKeptEntryOutlivesTheNextOne) {
    m_dwarf.abbreviation(1, DW_TAG_variable, false, {{DW_AT_name, DW_FORM_string}}).endAbbreviations();
    m_dwarf.beginUnit().entry(1, {"first"}).entry(1, {"second"}).endUnit();
    load();
    SectionWalker walker = m_unit->walkerAt(m_unit->firstEntryOffset());
    ASSERT_TRUE(m_unit->readAttrBindings(walker, *m_attrs));
    const SymMgrObjectPtr<AttrBindings> kept = m_attrs->kept();
    ASSERT_TRUE(m_unit->readAttrBindings(walker, *m_attrs));
    EXPECT_STREQ(kept->find(DW_AT_name)->text(), "first");
    EXPECT_EQ(kept->tag(), DW_TAG_variable);
    EXPECT_EQ(kept->entryStart(), m_unit->firstEntryOffset());
    EXPECT_STREQ(m_attrs->find(DW_AT_name)->text(), "second");
}

// Views that end too early.

TEST_F(AttrBindingsTest, ValuesPastTheViewAreZeros) {
    m_dwarf
        .abbreviation(1, DW_TAG_variable, true,
                      {{DW_AT_type, DW_FORM_data4},
                       {DW_AT_low_pc, DW_FORM_addr},
                       {DW_AT_name, DW_FORM_string},
                       {DW_AT_byte_size, DW_FORM_sdata},
                       {DW_AT_count, DW_FORM_udata},
                       {DW_AT_frame_base, DW_FORM_block4}})
        .endAbbreviations();
    m_dwarf.beginUnit();
    m_dwarf.info().uleb(1).u16(0x1234);
    m_dwarf.endUnit();
    load();
    ASSERT_TRUE(readFirst());
    EXPECT_EQ(m_attrs->find(DW_AT_type)->value, 0x1234u);
    EXPECT_EQ(m_attrs->find(DW_AT_low_pc)->value, 0u);
    EXPECT_STREQ(m_attrs->find(DW_AT_name)->text(), "");
    EXPECT_EQ(m_attrs->find(DW_AT_byte_size)->value, 0u);
    EXPECT_EQ(m_attrs->find(DW_AT_count)->value, 0u);
    EXPECT_EQ(m_attrs->find(DW_AT_frame_base)->value, 0u);
}

TEST_F(AttrBindingsTest, ABlockIsClampedToTheView) {
    m_dwarf.abbreviation(1, DW_TAG_variable, true, {{DW_AT_location, DW_FORM_block4}}).endAbbreviations();
    m_dwarf.beginUnit();
    m_dwarf.info().uleb(1).u32(0xfffffff0).u8(1).u8(2);
    m_dwarf.endUnit();
    load();
    SectionWalker walker = m_unit->walkerAt(m_unit->firstEntryOffset());
    ASSERT_TRUE(m_unit->readAttrBindings(walker, *m_attrs));
    EXPECT_EQ(m_attrs->find(DW_AT_location)->value, 2u);
    EXPECT_EQ(walker.remaining(), 0u);
}

TEST_F(AttrBindingsTest, ATextThatTheViewCutsOffIsACopyWithAnEnd) {
    for (const std::size_t length : {3u, 5000u}) {
        m_dwarf = DwarfAssembler();
        m_dwarf.abbreviation(1, DW_TAG_variable, true, {{DW_AT_name, DW_FORM_string}}).endAbbreviations();
        m_dwarf.beginUnit();
        const std::string text(length, 'x');
        m_dwarf.info().uleb(1).chars(text);
        m_dwarf.endUnit();
        m_dwarf.beginUnit().endUnit();
        load();
        ASSERT_TRUE(readFirst());
        EXPECT_EQ(m_attrs->find(DW_AT_name)->value, length);
        EXPECT_EQ(m_attrs->find(DW_AT_name)->text(), text);
    }
}

TEST_F(AttrBindingsTest, ASectionOffsetThatIsCutOffFailsTheEntry) {
    const std::pair<bool, const char*> formats[] = {{false, "walker.getUnsigned4(attrValue) == status_Ok"},
                                                    {true, "walker.getUnsigned8(attrValue) == status_Ok"}};
    for (const auto& [is64Bit, text] : formats) {
        m_dwarf = DwarfAssembler();
        m_dwarf.abbreviation(1, DW_TAG_variable, true, {{DW_AT_location, DW_FORM_sec_offset}})
            .endAbbreviations();
        m_dwarf.beginUnit(withVersion(4, is64Bit));
        m_dwarf.info().uleb(1).fill(is64Bit ? 7 : 3, 1);
        m_dwarf.endUnit();
        load(withVersion(4, is64Bit));
        expectLog(text, 2);
        SectionWalker walker = m_unit->walkerAt(m_unit->firstEntryOffset());
        EXPECT_FALSE(m_unit->readAttrBindings(walker, *m_attrs));
        EXPECT_EQ(walker.remaining(), 0u);
        SectionWalker skipping = m_unit->walkerAt(m_unit->firstEntryOffset());
        unsigned long long sibling = 0;
        EXPECT_FALSE(m_unit->skipAttributes(skipping, m_unit->readEntryCode(skipping), sibling));
    }
}

TEST_F(AttrBindingsTest, AnEntryOutsideTheViewReadsAsNull) {
    m_dwarf.abbreviation(1, DW_TAG_variable, true, {}).endAbbreviations();
    m_dwarf.beginUnit().entry(1).endUnit();
    load();
    EXPECT_FALSE(m_unit->readAttrBindingsAt(m_dwarf.info().size(), *m_attrs));
    EXPECT_FALSE(m_unit->readAttrBindingsAt(~0ULL, *m_attrs));
}

// Origins.

class OriginTest : public AttrBindingsTest {
protected:
    /// Code 1: a name; 2: an origin; 3: a declaration and a type; 4: both references.
    OriginTest() {
        m_dwarf.abbreviation(1, DW_TAG_subprogram, false, {{DW_AT_name, DW_FORM_string}});
        m_dwarf.abbreviation(2, DW_TAG_subprogram, false, {{DW_AT_abstract_origin, DW_FORM_ref4}});
        m_dwarf.abbreviation(3, DW_TAG_subprogram, false,
                             {{DW_AT_specification, DW_FORM_ref4}, {DW_AT_type, DW_FORM_data1}});
        m_dwarf.abbreviation(4, DW_TAG_subprogram, false,
                             {{DW_AT_specification, DW_FORM_ref4}, {DW_AT_abstract_origin, DW_FORM_ref4}});
        m_dwarf.abbreviation(5, DW_TAG_subprogram, false, {{DW_AT_abstract_origin, DW_FORM_ref_addr}});
        m_dwarf.endAbbreviations();
        m_dwarf.beginUnit();
    }
    AttrBindings& read(const std::string& label) {
        m_dwarf.endUnit();
        load();
        EXPECT_TRUE(m_unit->readAttrBindingsAt(m_dwarf.offsetOf(label), *m_attrs));
        return *m_attrs;
    }
};

TEST_F(OriginTest, FindFollowsReferencesThroughAChain) {
    m_dwarf.entry(1, {"name"}, "a").entry(3, {DwarfValue::ref("a"), 5}, "b");
    m_dwarf.entry(2, {DwarfValue::ref("b")}, "c");
    AttrBindings& attrs = read("c");
    EXPECT_EQ(attrs.find(DW_AT_name, true), nullptr);
    EXPECT_STREQ(attrs.find(DW_AT_name)->text(), "name");
    EXPECT_EQ(attrs.find(DW_AT_type)->value, 5u);
    EXPECT_EQ(attrs.find(DW_AT_external), nullptr);
}

TEST_F(OriginTest, TheAbstractOriginGoesBeforeTheSpecification) {
    m_dwarf.entry(1, {"specified"}, "a").entry(1, {"abstract"}, "b");
    m_dwarf.entry(4, {DwarfValue::ref("a"), DwarfValue::ref("b")}, "c");
    EXPECT_STREQ(read("c").find(DW_AT_name)->text(), "abstract");
}

TEST_F(OriginTest, AnEntryWithoutReferencesHasNoOrigin) {
    m_dwarf.entry(1, {"name"}, "a");
    EXPECT_EQ(read("a").getOrigin(), nullptr);
}

TEST_F(OriginTest, TheOriginIsKept) {
    m_dwarf.entry(1, {"name"}, "a").entry(2, {DwarfValue::ref("a")}, "b");
    AttrBindings& attrs = read("b");
    AttrBindings* origin = attrs.getOrigin();
    ASSERT_NE(origin, nullptr);
    EXPECT_EQ(attrs.getOrigin(), origin);
    EXPECT_EQ(origin->entryStart(), m_dwarf.offsetOf("a"));
}

TEST_F(OriginTest, AnOriginThatSomeoneHoldsSurvivesTheNextEntry) {
    m_dwarf.entry(1, {"name"}, "a").entry(2, {DwarfValue::ref("a")}, "b").entry(1, {"other"}, "c");
    m_dwarf.entry(2, {DwarfValue::ref("c")}, "d");
    const SymMgrObjectPtr<AttrBindings> held = read("b").getOrigin();
    ASSERT_TRUE(m_unit->readAttrBindingsAt(m_dwarf.offsetOf("d"), *m_attrs));
    EXPECT_STREQ(m_attrs->find(DW_AT_name)->text(), "other");
    EXPECT_STREQ(held->find(DW_AT_name)->text(), "name");
}

TEST_F(OriginTest, AWalkUsesTheObjectsOfFormerOriginsAgain) {
    m_dwarf.entry(1, {"name"}, "a").entry(2, {DwarfValue::ref("a")}, "b").entry(1, {"other"}, "c");
    m_dwarf.entry(2, {DwarfValue::ref("c")}, "d");
    AttrBindings* first = read("b").getOrigin();
    ASSERT_TRUE(m_unit->readAttrBindingsAt(m_dwarf.offsetOf("d"), *m_attrs));
    EXPECT_EQ(m_attrs->getOrigin(), first);
    EXPECT_STREQ(m_attrs->find(DW_AT_name)->text(), "other");
}

TEST_F(OriginTest, AReferenceToWhatCannotBeDecodedGivesNull) {
    m_dwarf.entry(2, {5}, "a");
    allowLog("ASSERTION FAILED: 'false'");
    EXPECT_EQ(read("a").getOrigin(), nullptr);
    EXPECT_EQ(m_attrs->find(DW_AT_name), nullptr);
}

TEST_F(OriginTest, AReferenceOutOfAUnitThatStandsAloneIsReported) {
    m_dwarf.entry(2, {100000}, "a");
    expectLog("ASSERTION FAILED: 'loader != 0L'");
    EXPECT_EQ(read("a").getOrigin(), nullptr);
}

TEST_F(OriginTest, AnEntryThatRefersToItselfHasNoOrigin) {
    m_dwarf.entry(2, {DwarfValue::ref("a")}, "a");
    EXPECT_EQ(read("a").find(DW_AT_name), nullptr);
}

TEST_F(OriginTest, ReferencesInACircleEnd) {
    // Into circles of every small length, over tails of every small length.
    for (int tail = 0; tail < 6; ++tail) {
        for (int circle = 1; circle < 6; ++circle) {
            m_dwarf = DwarfAssembler();
            m_dwarf.abbreviation(2, DW_TAG_subprogram, false, {{DW_AT_abstract_origin, DW_FORM_ref4}})
                .endAbbreviations();
            m_dwarf.beginUnit();
            const int count = tail + circle;
            for (int i = 0; i < count; ++i) {
                const int next = i + 1 < count ? i + 1 : tail;
                m_dwarf.entry(2, {DwarfValue::ref("e" + std::to_string(next))}, "e" + std::to_string(i));
            }
            EXPECT_EQ(read("e0").find(DW_AT_name), nullptr) << tail << ' ' << circle;
        }
    }
}

TEST_F(OriginTest, AVeryLongChainIsFollowedAndReleased) {
    constexpr int count = 300000;
    m_dwarf.entry(1, {"name"}, "e0");
    const std::uint64_t first = m_dwarf.offsetOf("e0") + 6;
    for (int i = 1; i < count; ++i)
        m_dwarf.entry(2, {i == 1 ? m_dwarf.offsetOf("e0") : first + 5ULL * (i - 2)});
    m_dwarf.endUnit();
    load();
    ASSERT_TRUE(m_unit->readAttrBindingsAt(first + 5ULL * (count - 2), *m_attrs));
    EXPECT_STREQ(m_attrs->find(DW_AT_name)->text(), "name");
    m_attrs = nullptr;
}

// Skipping.

class SkipTest : public AttrBindingsTest {
protected:
    /// Code 1: the top; 2: a sibling, an expression and children; 3: a leaf of fixed size; 4: children, no
    /// sibling; 5: a sibling behind a text.
    void build(const char* producer) {
        m_dwarf.abbreviation(1, DW_TAG_compile_unit, true, {{DW_AT_producer, DW_FORM_string}});
        m_dwarf.abbreviation(
            2, DW_TAG_subprogram, true,
            {{DW_AT_sibling, DW_FORM_ref4}, {DW_AT_frame_base, DW_FORM_exprloc}, {DW_AT_name, DW_FORM_strp}});
        m_dwarf.abbreviation(3, DW_TAG_variable, false,
                             {{DW_AT_type, DW_FORM_ref4}, {DW_AT_low_pc, DW_FORM_addr}});
        m_dwarf.abbreviation(4, DW_TAG_lexical_block, true, {{DW_AT_low_pc, DW_FORM_addr}});
        m_dwarf.abbreviation(5, DW_TAG_subprogram, true,
                             {{DW_AT_name, DW_FORM_string}, {DW_AT_sibling, DW_FORM_ref2}});
        m_dwarf.abbreviation(6, DW_TAG_subprogram, true,
                             {{DW_AT_low_pc, DW_FORM_addr}, {DW_AT_sibling, DW_FORM_ref1}});
        m_dwarf.endAbbreviations();
        m_dwarf.beginUnit().entry(1, {producer});
    }
    /// The label of the entry behind the children of `label`.
    void expectSkipsTo(const std::string& label, const std::string& behind) {
        load();
        m_unit->loadTopEntry();
        SectionWalker walker = m_unit->walkerAt(m_dwarf.offsetOf(label));
        const DWARFCompilationUnit::EntryCode code = m_unit->readEntryCode(walker);
        unsigned long long sibling = 0;
        ASSERT_TRUE(m_unit->skipAttributes(walker, code, sibling));
        m_unit->skipChildren(walker, sibling);
        EXPECT_EQ(walker.offset(), m_dwarf.offsetOf(behind));
    }
    const DwarfValue m_noBlock = std::vector<std::uint8_t>{1, 2};
};

TEST_F(SkipTest, SiblingsThatAreTrustedAreFollowed) {
    build("GNU C 4.8");
    m_dwarf.entry(2, {DwarfValue::ref("b"), m_noBlock, "f"}, "a");
    // Nothing that could be decoded.
    m_dwarf.info().uleb(999).fill(20, 0xff);
    m_dwarf.entry(2, {DwarfValue::ref("b"), m_noBlock, "g"}, "b").endUnit();
    expectSkipsTo("a", "b");
}

TEST_F(SkipTest, SiblingsOfNestedEntriesAreFollowed) {
    build("GNU C 4.8");
    m_dwarf.entry(4, {0}, "a");
    m_dwarf.entry(5, {"f", DwarfValue::ref("c")});
    m_dwarf.info().uleb(999).fill(20, 0xff);
    m_dwarf.entry(3, {0, 0}, "c");
    m_dwarf.entry(6, {0, DwarfValue::ref("d")});
    m_dwarf.info().uleb(999).fill(20, 0xff);
    m_dwarf.info().define("d");
    m_dwarf.null().entry(3, {0, 0}, "b").endUnit();
    expectSkipsTo("a", "b");
}

TEST_F(SkipTest, SiblingsThatAreNotTrustedAreNot) {
    for (const char* producer : {"clang", "GNU C 2.96"}) {
        m_dwarf = DwarfAssembler();
        build(producer);
        m_dwarf.entry(2, {DwarfValue::ref("wrong"), m_noBlock, "f"}, "a");
        m_dwarf.entry(2, {DwarfValue::ref("wrong"), m_noBlock, "f"}).entry(3, {0, 0}).null();
        m_dwarf.entry(4, {0}).entry(4, {0}).null().entry(3, {0, 0}).null();
        m_dwarf.null().entry(3, {0, 0}, "b").entry(3, {0, 0}, "wrong").endUnit();
        expectSkipsTo("a", "b");
    }
}

TEST_F(SkipTest, ASiblingThatLeadsBackOrOutOfTheUnitIsNone) {
    for (const std::uint64_t sibling : {0ULL, 3ULL, 0x7fffffffULL}) {
        m_dwarf = DwarfAssembler();
        build("GNU C 4.8");
        m_dwarf.entry(2, {sibling, m_noBlock, "f"}, "a");
        m_dwarf.entry(2, {sibling, m_noBlock, "f"}).entry(3, {0, 0}).null();
        m_dwarf.null().entry(3, {0, 0}, "b").endUnit();
        expectSkipsTo("a", "b");
    }
}

TEST_F(SkipTest, WithoutItsEndTheUnitEndsTheChildren) {
    build("GNU C 4.8");
    m_dwarf.entry(4, {0}, "a").entry(4, {0}).entry(3, {0, 0});
    m_dwarf.info().define("end");
    m_dwarf.endUnit();
    expectSkipsTo("a", "end");
}

TEST_F(SkipTest, AnUnknownCodeIsReportedAndEndsTheUnit) {
    build("GNU C 4.8");
    m_dwarf.entry(4, {0}, "a");
    m_dwarf.info().uleb(999);
    m_dwarf.null().entry(3, {0, 0});
    m_dwarf.info().define("end");
    m_dwarf.endUnit();
    expectLog("ASSERTION FAILED: 'false'");
    expectSkipsTo("a", "end");
}

TEST_F(SkipTest, TheSiblingOfAnEntryThatIsCutOffIsWhatIsThere) {
    build("GNU C 4.8");
    m_dwarf.info().define("a").uleb(6).u32(1);
    m_dwarf.info().define("end");
    m_dwarf.endUnit();
    load();
    SectionWalker walker = m_unit->walkerAt(m_dwarf.offsetOf("a"));
    unsigned long long sibling = 1;
    ASSERT_TRUE(m_unit->skipAttributes(walker, m_unit->readEntryCode(walker), sibling));
    EXPECT_EQ(sibling, m_unit->getOffset());
    EXPECT_EQ(walker.remaining(), 0u);
}

TEST_F(SkipTest, VeryDeepNestingIsSkippedWithoutRecursion) {
    build("clang");
    constexpr int depth = 1000000;
    m_dwarf.info().define("a");
    m_dwarf.abbrev();
    for (int i = 0; i < depth; ++i)
        m_dwarf.info().uleb(4).u64(0);
    m_dwarf.info().fill(depth);
    m_dwarf.entry(3, {0, 0}, "b").endUnit();
    expectSkipsTo("a", "b");
}

// Time.

TEST_F(AttrBindingsTest, ManyReferencesToOneLongTextSearchItOnce) {
    constexpr int count = 200000;
    const std::string text(4000000, 'x');
    m_dwarf.abbreviation(1, DW_TAG_subprogram, false, {{DW_AT_name, DW_FORM_string}});
    m_dwarf.abbreviation(2, DW_TAG_subprogram, false, {{DW_AT_abstract_origin, DW_FORM_ref4}});
    m_dwarf.endAbbreviations();
    m_dwarf.beginUnit().entry(1, {text.c_str()}, "a");
    const std::uint64_t target = m_dwarf.offsetOf("a");
    for (int i = 0; i < count; ++i)
        m_dwarf.entry(2, {target});
    m_dwarf.endUnit();
    load();
    const auto start = std::chrono::steady_clock::now();
    SectionWalker walker = m_unit->walkerAt(m_unit->firstEntryOffset());
    int named = 0;
    while (m_unit->readAttrBindings(walker, *m_attrs))
        named += m_attrs->find(DW_AT_name)->value == text.size();
    EXPECT_EQ(named, count + 1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

} // namespace
} // namespace ORN_3_30
