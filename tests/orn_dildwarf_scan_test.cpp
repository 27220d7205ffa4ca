#include "orn_dildwarf.h"
#include "orn_relocations.h"
#include "support/dwarf_assembler.h"
#include "support/dwarf_sections.h"
#include "support/orn_fixture.h"

#include <gtest/gtest.h>

namespace ORN_3_30 {
namespace {

using orn_test::DwarfAssembler;
using orn_test::DwarfUnitOptions;
using orn_test::DwarfValue;
using test::MemoryHelper;
using test::MemorySection;

class ScanningLoader : public DWARFDebugInfoLoader {
public:
    explicit ScanningLoader(IFileFormatHelper* helper)
        : DWARFDebugInfoLoader(nullptr, "", helper, 0, nullptr) {}
    using DWARFDebugInfoLoader::readCompUnit;
    using DWARFDebugInfoLoader::scanUnits;
};

class UnitScanTest : public test::OrnTest {
protected:
    void load() { load(m_dwarf.info().bytes()); }
    void load(const std::vector<std::uint8_t>& info) {
        m_helper = new MemoryHelper;
        m_helper->set(section_debug_info, info);
        m_helper->set(section_debug_abbrev, m_dwarf.abbrev().bytes());
        if (m_dwarf.line().size() > 0)
            m_helper->set(section_debug_line, m_dwarf.line().bytes());
        if (m_dwarf.str().size() > 0)
            m_helper->set(section_debug_str, m_dwarf.str().bytes());
        m_loader = new ScanningLoader(m_helper);
        ASSERT_EQ(m_loader->sections().ensureRead(), status_Ok);
    }
    DWARFCompilationUnit& unit(std::size_t index) { return *m_loader->units().at(m_dwarf.unitOffset(index)); }
    static DwarfUnitOptions options(std::uint16_t version, bool is64Bit = false,
                                    std::uint8_t addressSize = 8) {
        DwarfUnitOptions options;
        options.version = version;
        options.is64Bit = is64Bit;
        options.addressSize = addressSize;
        return options;
    }

    DwarfAssembler m_dwarf;
    SymMgrObjectPtr<MemoryHelper> m_helper;
    SymMgrObjectPtr<ScanningLoader> m_loader;
};

TEST_F(UnitScanTest, EntersEveryUnitByItsOffset) {
    m_dwarf.beginUnit(options(2)).null().endUnit();
    m_dwarf.beginUnit(options(3, true, 4)).null().null().endUnit();
    m_dwarf.beginUnit(options(4)).endUnit();
    load();
    ASSERT_EQ(m_loader->scanUnits(), status_Ok);
    ASSERT_EQ(m_loader->units().size(), 3u);
    EXPECT_EQ(unit(0).getOffset(), 0u);
    EXPECT_EQ(unit(0).getVersion(), 2u);
    EXPECT_EQ(unit(0).getAddressSize(), 8);
    EXPECT_FALSE(unit(0).isBigOffsets());
    EXPECT_EQ(unit(0).getHeaderSize(), 11u);
    EXPECT_EQ(unit(0).getSize(), 12u);
    EXPECT_EQ(unit(1).getVersion(), 3u);
    EXPECT_EQ(unit(1).getAddressSize(), 4);
    EXPECT_EQ(unit(1).getHeaderSize(), 23u);
    EXPECT_EQ(unit(2).getVersion(), 4u);
    EXPECT_FALSE(unit(2).hasEntries());
}

TEST_F(UnitScanTest, A64BitUnitCountsALengthOf12Bytes) {
    m_dwarf.beginUnit(options(4, true)).null().endUnit();
    load();
    ASSERT_EQ(m_loader->scanUnits(), status_Ok);
    EXPECT_TRUE(unit(0).isBigOffsets());
    EXPECT_EQ(unit(0).getSize(), m_dwarf.info().size());
}

TEST_F(UnitScanTest, AnEmptySectionHasNoUnits) {
    load({});
    EXPECT_EQ(m_loader->scanUnits(), status_Ok);
    EXPECT_TRUE(m_loader->units().empty());
}

TEST_F(UnitScanTest, Version5StopsTheScan) {
    m_dwarf.beginUnit(options(4)).null().endUnit();
    m_dwarf.beginUnit(options(5)).null().endUnit();
    m_dwarf.beginUnit(options(4)).null().endUnit();
    load();
    expectLog("ASSERTION FAILED: 'version <= 4'");
    EXPECT_EQ(m_loader->scanUnits(), status_UnsupportedFormatVersion);
    EXPECT_EQ(m_loader->units().size(), 1u);
}

TEST_F(UnitScanTest, AHeaderThatIsCutOffIsReportedByItsField) {
    struct Cut {
        bool is64Bit;
        std::size_t size;
        const char* text;
    };
    const Cut cuts[] = {{false, 3, "walker.getUnsigned4(debugInfoForCUSize) == status_Ok"},
                        {true, 11, "walker.getUnsigned8(debugInfoForCUSize) == status_Ok"},
                        {false, 4, "rootWalker.getUnsigned2(version) == status_Ok"},
                        {false, 5, "rootWalker.getUnsigned2(version) == status_Ok"},
                        {false, 9, "rootWalker.getUnsigned4(abbrevOffset) == status_Ok"},
                        {true, 21, "rootWalker.getUnsigned8(abbrevOffset) == status_Ok"},
                        {false, 10, "rootWalker.getUnsigned1(addrSize) == status_Ok"}};
    for (const Cut& cut : cuts) {
        m_dwarf = DwarfAssembler();
        m_dwarf.beginUnit(options(4, cut.is64Bit)).null().endUnit();
        std::vector<std::uint8_t> info = m_dwarf.info().bytes();
        info.resize(cut.size);
        load(info);
        EXPECT_EQ(m_loader->scanUnits(), status_BadFileFormat);
        EXPECT_TRUE(m_loader->units().empty());
        const std::vector<test::LogMessage> logs = takeLogs();
        ASSERT_EQ(logs.size(), 1u);
        EXPECT_EQ(logs[0].level, test::errorLevel);
        EXPECT_EQ(logs[0].text.rfind("ASSERTION FAILED: '" + std::string(cut.text) + "'", 0), 0u)
            << logs[0].text;
    }
}

TEST_F(UnitScanTest, ALengthTooShortForTheHeaderIsReported) {
    DwarfUnitOptions unit;
    unit.length = 0;
    m_dwarf.beginUnit(unit).null().endUnit();
    load();
    expectLog("rootWalker.getUnsigned2(version) == status_Ok");
    EXPECT_EQ(m_loader->scanUnits(), status_BadFileFormat);
}

TEST_F(UnitScanTest, ALengthBeyondTheSectionKeepsItsStatedSize) {
    for (const std::uint64_t length : {0x1000ULL, 0xfffffffeULL}) {
        m_dwarf = DwarfAssembler();
        DwarfUnitOptions unitOptions;
        unitOptions.length = length;
        m_dwarf.abbreviation(1, DW_TAG_compile_unit, false, {{DW_AT_name, DW_FORM_string}})
            .endAbbreviations();
        m_dwarf.beginUnit(unitOptions).entry(1, {"a.c"}).endUnit();
        load();
        ASSERT_EQ(m_loader->scanUnits(), status_Ok);
        EXPECT_EQ(unit(0).getSize(), length + 4);
        unit(0).loadTopEntry();
        EXPECT_STREQ(unit(0).getName(), "a.c");
    }
}

TEST_F(UnitScanTest, ALengthThatWrapsIsTooLarge) {
    DwarfUnitOptions unitOptions = options(4, true);
    unitOptions.length = ~0ULL;
    m_dwarf.beginUnit(unitOptions).null().endUnit();
    load();
    ASSERT_EQ(m_loader->scanUnits(), status_Ok);
    EXPECT_EQ(unit(0).getSize(), ~0ULL);
    EXPECT_TRUE(unit(0).holds(1000));
}

TEST_F(UnitScanTest, AnAddressSizeOf0IsReportedAndKept) {
    m_dwarf.beginUnit(options(4, false, 0)).null().endUnit();
    load();
    expectLog("addrSize == 0 ");
    EXPECT_EQ(m_loader->scanUnits(), status_Ok);
    EXPECT_EQ(unit(0).getAddressSize(), 0);
}

TEST_F(UnitScanTest, ReadsNoEntry) {
    // Whatever the entries are, and however wrong.
    m_dwarf.endAbbreviations().beginUnit();
    m_dwarf.info().fill(100, 0xee);
    m_dwarf.endUnit();
    load();
    EXPECT_EQ(m_loader->scanUnits(), status_Ok);
}

TEST_F(UnitScanTest, UnitsOfOneAbbreviationOffsetReadTheirOwnEntries) {
    m_dwarf.abbreviation(1, DW_TAG_compile_unit, false, {{DW_AT_name, DW_FORM_string}}).endAbbreviations();
    const std::uint64_t second = m_dwarf.abbrev().size();
    m_dwarf.abbreviation(2, DW_TAG_compile_unit, false, {{DW_AT_comp_dir, DW_FORM_strp}}).endAbbreviations();
    m_dwarf.beginUnit().entry(1, {"a.c"}).endUnit();
    DwarfUnitOptions other = options(4, true);
    other.abbrevOffset = second;
    m_dwarf.beginUnit(other).entry(2, {"/dir"}).endUnit();
    m_dwarf.beginUnit().entry(1, {"b.c"}).endUnit();
    load();
    ASSERT_EQ(m_loader->scanUnits(), status_Ok);
    for (std::size_t i = 0; i < 3; ++i)
        unit(i).loadTopEntry();
    EXPECT_STREQ(unit(0).getName(), "a.c");
    EXPECT_STREQ(unit(1).getCompilationDirectory(), "/dir");
    EXPECT_STREQ(unit(2).getName(), "b.c");
}

// Relocations.

class RelocatedScanTest : public UnitScanTest {
protected:
    void loadRelocated(RelocationAddends* relocations) {
        m_helper = new MemoryHelper;
        m_section = m_helper->set(section_debug_info, m_dwarf.info().bytes());
        m_helper->set(section_debug_abbrev, m_dwarf.abbrev().bytes());
        m_helper->set(section_debug_str, m_dwarf.str().bytes());
        m_helper->relocate(section_debug_info, relocations);
        m_loader = new ScanningLoader(m_helper);
        ASSERT_EQ(m_loader->sections().ensureRead(), status_Ok);
    }
    static RelocationEntry entry(unsigned long long offset, unsigned long long value) {
        RelocationEntry entry;
        entry.offset = offset;
        entry.value = value;
        return entry;
    }
    MemorySection* m_section = nullptr;
};

TEST_F(RelocatedScanTest, EachUnitIsRelocatedBeforeItIsRead) {
    m_dwarf.abbreviation(1, DW_TAG_compile_unit, false, {{DW_AT_name, DW_FORM_strp}}).endAbbreviations();
    m_dwarf.abbreviation(1, DW_TAG_compile_unit, false, {{DW_AT_comp_dir, DW_FORM_strp}}).endAbbreviations();
    const std::uint64_t second = 8; // bytes of the first table
    m_dwarf.string("first");
    m_dwarf.string("second");
    m_dwarf.beginUnit().entry(1, {0}).endUnit();
    m_dwarf.beginUnit().entry(1, {0}).endUnit();
    SymMgrObjectPtr<RelocationAddends> relocations = new RELARelocationAddends(0);
    relocations->add(entry(m_dwarf.firstEntryOffset(0) + 1, 6));
    // The header's own offset of the abbreviations too.
    relocations->add(entry(m_dwarf.unitOffset(1) + 6, second));
    relocations->add(entry(m_dwarf.firstEntryOffset(1) + 1, 6));
    loadRelocated(relocations);
    ASSERT_EQ(m_loader->scanUnits(), status_Ok);
    unit(0).loadTopEntry();
    unit(1).loadTopEntry();
    EXPECT_STREQ(unit(0).getName(), "second");
    EXPECT_STREQ(unit(1).getCompilationDirectory(), "second");
    // Everyone else's contents are as they were.
    EXPECT_EQ(m_section->getData()[m_dwarf.firstEntryOffset(0) + 1], 0);
}

TEST_F(RelocatedScanTest, AnAddendAtThePlaceCountsOnce) {
    m_dwarf.abbreviation(1, DW_TAG_compile_unit, false, {{DW_AT_stmt_list, DW_FORM_data4}})
        .endAbbreviations();
    m_dwarf.beginUnit().entry(1, {5}).endUnit();
    SymMgrObjectPtr<RelocationAddends> relocations = new RELRelocationAddends(0);
    relocations->add(entry(m_dwarf.firstEntryOffset(0) + 1, 100));
    loadRelocated(relocations);
    ASSERT_EQ(m_loader->scanUnits(), status_Ok);
    ASSERT_EQ(m_loader->scanUnits(), status_Ok);
    unit(0).loadTopEntry();
    EXPECT_EQ(unit(0).getStmtList(), 105u);
}

TEST_F(RelocatedScanTest, PlacesAreAsWideAsTheUnitsOffsets) {
    m_dwarf.abbreviation(1, DW_TAG_compile_unit, false, {{DW_AT_stmt_list, DW_FORM_data8}})
        .endAbbreviations();
    m_dwarf.beginUnit().entry(1, {0}).endUnit();
    m_dwarf.beginUnit(options(4, true)).entry(1, {0}).endUnit();
    SymMgrObjectPtr<RelocationAddends> relocations = new RELARelocationAddends(0);
    relocations->add(entry(m_dwarf.firstEntryOffset(0) + 1, 0x1122334455667788));
    relocations->add(entry(m_dwarf.firstEntryOffset(1) + 1, 0x1122334455667788));
    loadRelocated(relocations);
    ASSERT_EQ(m_loader->scanUnits(), status_Ok);
    unit(0).loadTopEntry();
    unit(1).loadTopEntry();
    EXPECT_EQ(unit(0).getStmtList(), 0x55667788u);
    EXPECT_EQ(unit(1).getStmtList(), 0x1122334455667788u);
}

TEST_F(RelocatedScanTest, APlaceThatIsNotWhollyInsideIsSkipped) {
    m_dwarf.endAbbreviations().beginUnit().null().null().endUnit();
    SymMgrObjectPtr<RelocationAddends> relocations = new RELARelocationAddends(0);
    relocations->add(entry(m_dwarf.info().size() - 2, 0xffffffff));
    relocations->add(entry(1000, 1));
    loadRelocated(relocations);
    EXPECT_EQ(m_loader->scanUnits(), status_Ok);
    EXPECT_EQ(m_loader->sections().info().begin()[m_dwarf.info().size() - 1], 0);
}

TEST(RelocatedSection, RangesThatOverlapRelocateEachPlaceOnce) {
    SymMgrObjectPtr<MemorySection> section = new MemorySection(std::vector<std::uint8_t>(64, 0));
    SymMgrObjectPtr<RelocationAddends> relocations = new RELRelocationAddends(0);
    for (unsigned offset = 0; offset < 64; offset += 4) {
        RelocationEntry entry;
        entry.offset = offset;
        entry.value = 1;
        relocations->add(entry);
    }
    RelocatedSection relocated;
    relocated.assign(section, relocations);
    const std::pair<unsigned, unsigned> ranges[] = {{8, 16},  {32, 40}, {12, 36}, {0, 4},  {0, 64},
                                                    {60, 64}, {5, 5},   {16, 8},  {40, 48}};
    for (const auto& [begin, end] : ranges)
        relocated.relocate(begin, end, 4);
    for (unsigned offset = 0; offset < 64; offset += 4)
        EXPECT_EQ(relocated.begin()[offset], 1) << offset;
}

// Units by offset.

class UnitOfOffsetTest : public UnitScanTest {
protected:
    UnitOfOffsetTest() {
        m_dwarf.abbreviation(1, DW_TAG_subprogram, false, {{DW_AT_name, DW_FORM_string}});
        m_dwarf.abbreviation(2, DW_TAG_subprogram, false, {{DW_AT_abstract_origin, DW_FORM_ref_addr}});
        m_dwarf.endAbbreviations();
        const std::uint64_t second = m_dwarf.abbrev().size();
        m_dwarf.abbreviation(1, DW_TAG_subprogram, false, {{DW_AT_specification, DW_FORM_ref_addr}});
        m_dwarf.endAbbreviations();
        m_dwarf.beginUnit().entry(2, {DwarfValue::ref("second")}, "first").endUnit();
        DwarfUnitOptions other;
        other.abbrevOffset = second;
        m_dwarf.beginUnit(other).entry(1, {DwarfValue::ref("third")}, "second").endUnit();
        m_dwarf.abbreviation(1, DW_TAG_subprogram, false, {{DW_AT_name, DW_FORM_string}});
        m_dwarf.abbrev().uleb(0);
        m_dwarf.beginUnit().entry(1, {"name"}, "third").endUnit();
        m_dwarf.beginUnit().entry(1, {"last"}, "last").endUnit();
    }
    void SetUp() override {
        load();
        ASSERT_EQ(m_loader->scanUnits(), status_Ok);
    }
};

TEST_F(UnitOfOffsetTest, AnOffsetInsideAUnitFindsIt) {
    EXPECT_EQ(m_loader->findCompUnitContaining(0), &unit(0));
    EXPECT_EQ(m_loader->findCompUnitContaining(m_dwarf.offsetOf("first")), &unit(0));
    EXPECT_EQ(m_loader->findCompUnitContaining(m_dwarf.unitOffset(1)), &unit(1));
    EXPECT_EQ(m_loader->findCompUnitContaining(m_dwarf.offsetOf("third")), &unit(2));
}

TEST_F(UnitOfOffsetTest, TheLastUnitIsFoundByItsOwnOffsetAlone) {
    EXPECT_EQ(m_loader->findCompUnitContaining(m_dwarf.unitOffset(3)), &unit(3));
    EXPECT_EQ(m_loader->findCompUnitContaining(m_dwarf.offsetOf("last")), nullptr);
    EXPECT_EQ(m_loader->findCompUnitContaining(~0ULL), nullptr);
}

TEST_F(UnitOfOffsetTest, ReferencesIntoOtherUnitsAreFollowedWithTheirAbbreviations) {
    AttrBindings attrs(&unit(0));
    ASSERT_TRUE(unit(0).readAttrBindingsAt(m_dwarf.offsetOf("first"), attrs));
    EXPECT_STREQ(attrs.find(DW_AT_name)->text(), "name");
    EXPECT_EQ(attrs.getOrigin()->compUnit(), &unit(1));
    EXPECT_EQ(attrs.getOrigin()->getOrigin()->compUnit(), &unit(2));
}

// Sections.

TEST(DWARFSections, WithoutDebugInfoThereIsNone) {
    SymMgrObjectPtr<MemoryHelper> helper = new MemoryHelper;
    SymMgrObjectPtr<DWARFSections> sections = new DWARFSections(helper);
    EXPECT_EQ(sections->ensureRead(), status_NoDebugInfo);
    helper->set(section_debug_info, {1, 2, 3})->setMissing();
    sections = new DWARFSections(helper);
    EXPECT_EQ(sections->ensureRead(), status_NoDebugInfo);
    sections = new DWARFSections(nullptr);
    EXPECT_EQ(sections->ensureRead(), status_NoDebugInfo);
}

TEST(DWARFSections, AFailedDecompressionIsSeenThoughThereAreBytes) {
    SymMgrObjectPtr<MemoryHelper> helper = new MemoryHelper;
    helper->set(section_debug_info, {1, 2, 3})->setStatus(status_UnsupportedDebugInfoFormat);
    SymMgrObjectPtr<DWARFSections> sections = new DWARFSections(helper);
    EXPECT_EQ(sections->ensureRead(), status_UnsupportedDebugInfoFormat);
}

TEST(DWARFSections, ASectionThatCannotBeDecompressedCountsAsAbsent) {
    SymMgrObjectPtr<MemoryHelper> helper = new MemoryHelper;
    helper->set(section_debug_info, {});
    helper->set(section_debug_str, {'a', 0})->setStatus(status_UnsupportedDebugInfoFormat);
    helper->set(section_debug_line, {1})->setStatus(status_UnsupportedDebugInfoFormat);
    SymMgrObjectPtr<DWARFSections> sections = new DWARFSections(helper);
    EXPECT_EQ(sections->ensureRead(), status_Ok);
    EXPECT_EQ(sections->stringAt(0), nullptr);
    EXPECT_FALSE(sections->line().isPresent());
}

TEST(DWARFSections, AreReadOnce) {
    SymMgrObjectPtr<MemoryHelper> helper = new MemoryHelper;
    helper->set(section_debug_info, {});
    SymMgrObjectPtr<DWARFSections> sections = new DWARFSections(helper);
    EXPECT_EQ(sections->ensureRead(), status_Ok);
    EXPECT_EQ(sections->ensureRead(), status_Ok);
    EXPECT_EQ(helper->reads[section_debug_info], 1);
    EXPECT_EQ(helper->reads[section_debug_str], 1);
}

} // namespace
} // namespace ORN_3_30
