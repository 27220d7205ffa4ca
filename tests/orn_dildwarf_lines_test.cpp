#include "orn/source.h"
#include "orn_dildwarf_lines.h"
#include "support/dwarf_assembler.h"
#include "support/dwarf_module.h"
#include "support/dwarf_unit.h"
#include "support/orn_fixture.h"

#include <gtest/gtest.h>

#include <ostream>
#include <tuple>

namespace ORN_3_30 {
namespace {

using orn_test::DwarfAssembler;
using orn_test::DwarfLineOptions;
using orn_test::DwarfUnitOptions;
using test::DwarfUnits;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Gt;
using ::testing::IsEmpty;

/// One range as the resolver got it.
struct Range {
    unsigned long long address;
    unsigned long long size;
    unsigned line;
    unsigned fileId = 0;
    unsigned column = 0;
    unsigned long long extra = 0;
    unsigned long long unitId = 0;

    friend bool operator==(const Range& a, const Range& b) {
        return std::tie(a.address, a.size, a.line, a.fileId, a.column, a.extra, a.unitId) ==
               std::tie(b.address, b.size, b.line, b.fileId, b.column, b.extra, b.unitId);
    }
    friend std::ostream& operator<<(std::ostream& out, const Range& range) {
        return out << std::hex << "[0x" << range.address << ", +0x" << range.size << ")" << std::dec
                   << " line " << range.line << " file " << range.fileId << " column " << range.column
                   << " extra " << range.extra << " unit " << range.unitId;
    }
};

class RecordingResolver : public LineResolver {
public:
    RecordingResolver() : LineResolver(nullptr, nullptr, nullptr, nullptr) {}
    void addLineRange(unsigned long long unitId, unsigned fileId, unsigned line, unsigned column,
                      unsigned long long address, unsigned long long size,
                      unsigned long long extra) override {
        ranges.push_back({address, size, line, fileId, column, extra, unitId});
    }
    std::vector<Range> ranges;
};

class LineProgramTest : public test::OrnTest {
protected:
    /// Begins a program with one file, "/a.c".
    DwarfAssembler& begin(const DwarfLineOptions& options = {}) {
        return m_dwarf.beginLines(options).endIncludeDirectories().file("/a.c").endFiles();
    }
    /// Makes the unit, and no more.
    void build(unsigned long long bias = 0, std::uint8_t addressSize = 8, const char* compDir = "/comp") {
        m_dwarf.abbreviation(1, DW_TAG_compile_unit, false,
                             {{DW_AT_stmt_list, DW_FORM_sec_offset}, {DW_AT_comp_dir, DW_FORM_string}});
        m_dwarf.endAbbreviations();
        DwarfUnitOptions options;
        options.addressSize = addressSize;
        m_dwarf.beginUnit(options).entry(1, {m_stmtList, compDir}).endUnit();
        m_units = std::make_unique<DwarfUnits>(m_dwarf, bias);
        m_unit = &m_units->unit(0, options);
        m_unit->loadTopEntry();
        m_resolver = new RecordingResolver;
        m_unit->setLineResolver(m_resolver);
    }
    /// Makes the unit and runs its program.
    std::vector<Range>& run(RangeFilter* ranges = nullptr) {
        build();
        EXPECT_EQ(m_unit->loadLines(ranges), status_Ok);
        return m_resolver->ranges;
    }
    std::vector<std::string> files() {
        std::vector<std::string> names;
        for (unsigned i = 0; i < m_resolver->fileCount(); ++i)
            names.push_back(m_resolver->fileAt(i)->name());
        return names;
    }
    static DwarfLineOptions version(std::uint16_t number, bool is64Bit = false) {
        DwarfLineOptions options;
        options.version = number;
        options.is64Bit = is64Bit;
        return options;
    }

    DwarfAssembler m_dwarf;
    std::uint64_t m_stmtList = 0;
    std::unique_ptr<DwarfUnits> m_units;
    DWARFCompilationUnit* m_unit = nullptr;
    SymMgrObjectPtr<RecordingResolver> m_resolver;
};

// Rows and ranges.

TEST_F(LineProgramTest, OneRowAndTheEndOfTheSequenceGiveOneRange) {
    begin().setAddress(0x1000).op(DW_LNS_copy).opULEB(DW_LNS_advance_pc, 8).endSequence().endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 8, 1}));
}

TEST_F(LineProgramTest, TheEndOfASequenceAloneGivesNoRange) {
    begin().endSequence().endLines();
    EXPECT_THAT(run(), IsEmpty());
}

TEST_F(LineProgramTest, EveryRowReachesToTheNext) {
    begin()
        .setAddress(0x1000)
        .special(0, 4)
        .special(2, 3)
        .special(4, -5)
        .special(1, 0)
        .endSequence()
        .endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 2, 5}, Range{0x1002, 4, 8}, Range{0x1006, 1, 3},
                                   Range{0x1007, 0, 3}));
}

TEST_F(LineProgramTest, TheRowThatEndsASequenceHasNoLineOfItsOwn) {
    begin().setAddress(0x1000).special(0, 4);
    m_dwarf.opSLEB(DW_LNS_advance_line, 100).opULEB(DW_LNS_advance_pc, 4).endSequence().endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 4, 5}));
}

TEST_F(LineProgramTest, SequencesAreIndependent) {
    begin();
    for (const std::uint64_t address : {0x1000, 0x2000})
        m_dwarf.setAddress(address).special(0, 2).opULEB(DW_LNS_advance_pc, 4).endSequence();
    m_dwarf.endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 4, 3}, Range{0x2000, 4, 3}));
}

TEST_F(LineProgramTest, EveryRegisterStartsAnewBehindASequence) {
    begin();
    m_dwarf.setAddress(0x1000).opULEB(DW_LNS_set_column, 9).opULEB(DW_LNS_set_file, 7);
    m_dwarf.extended(DW_LNE_set_discriminator, {3}).opSLEB(DW_LNS_advance_line, 50).endSequence();
    m_dwarf.op(DW_LNS_copy).opULEB(DW_LNS_advance_pc, 4).endSequence().endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0, 4, 1}));
}

TEST_F(LineProgramTest, AnAddressBelowThePreviousGivesNoRangeAndPairingGoesOnFromIt) {
    begin().setAddress(0x2000).special(0, 1).setAddress(0x1000).special(0, 1);
    m_dwarf.special(4, 1).endSequence().endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 4, 3}, Range{0x1004, 0, 4}));
}

TEST_F(LineProgramTest, RangesOfSizeZeroAreDelivered) {
    begin().setAddress(0x1000).special(0, 1).special(0, 1).endSequence().endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 0, 2}, Range{0x1000, 0, 3}));
}

TEST_F(LineProgramTest, AProgramThatBreaksOffGivesTheRangesThatAreClosed) {
    begin().setAddress(0x1000).special(0, 1).special(4, 1).special(4, 1).endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 4, 2}, Range{0x1004, 4, 3}));
}

TEST_F(LineProgramTest, StatementAndBlockFlagsPlayNoPart) {
    begin().setAddress(0x1000).op(DW_LNS_negate_stmt).special(0, 1).op(DW_LNS_set_basic_block);
    m_dwarf.special(2, 1).op(DW_LNS_set_prologue_end).op(DW_LNS_set_epilogue_begin).special(2, 1);
    m_dwarf.opULEB(DW_LNS_set_isa, 300).endSequence().endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 2, 2}, Range{0x1002, 2, 3}, Range{0x1004, 0, 4}));
}

TEST_F(LineProgramTest, TheDiscriminatorIsOfOneRow) {
    begin().setAddress(0x1000).extended(DW_LNE_set_discriminator, {0x81, 0x01}).special(0, 1);
    m_dwarf.special(2, 1).endSequence().endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 2, 2, 0, 0, 129}, Range{0x1002, 0, 3}));
}

TEST_F(LineProgramTest, TheColumnStaysFromRowToRow) {
    begin()
        .setAddress(0x1000)
        .opULEB(DW_LNS_set_column, 7)
        .special(0, 1)
        .special(2, 1)
        .endSequence()
        .endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 2, 2, 0, 7}, Range{0x1002, 0, 3, 0, 7}));
}

TEST_F(LineProgramTest, RowsOfSeveralFilesGiveRangesOfSeveralIds) {
    m_dwarf.beginLines().endIncludeDirectories().file("/a.c").file("/b.c").endFiles();
    m_dwarf.setAddress(0x1000)
        .special(0, 1)
        .opULEB(DW_LNS_set_file, 2)
        .special(2, 1)
        .endSequence()
        .endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 2, 2, 0}, Range{0x1002, 0, 3, 1}));
}

TEST_F(LineProgramTest, RowsOfAFilePastTheTableGiveNoRange) {
    for (const std::uint64_t file : {0ULL, 2ULL, 0xffffffffULL, 0x100000001ULL}) {
        m_dwarf = DwarfAssembler();
        begin().setAddress(0x1000).opULEB(DW_LNS_set_file, file).special(0, 1).opULEB(DW_LNS_set_file, 1);
        m_dwarf.special(2, 1).endSequence().endLines();
        EXPECT_THAT(run(), ElementsAre(Range{0x1002, 0, 3})) << file;
    }
}

TEST_F(LineProgramTest, RowsOutsideTheImageGiveNoRange) {
    begin().setAddress(0x1000).special(0, 1).setAddress(0x2000).special(0, 1).special(4, 1).endSequence();
    m_dwarf.endLines();
    build(0x100000);
    // Asked with the address of the file, not with the biased one.
    m_units->helper().isOutside = [](unsigned long long address) {
        return address < 0x2000 || address > 0x2003;
    };
    ASSERT_EQ(m_unit->loadLines(nullptr), status_Ok);
    EXPECT_THAT(m_resolver->ranges, ElementsAre(Range{0x102000, 4, 3}));
}

TEST_F(LineProgramTest, TheFilterIsAskedWithBiasedAddresses) {
    begin().setAddress(0x1000).special(0, 1).special(0x10, 1).special(0x10, 1).endSequence().endLines();
    build(0x100000);
    SymMgrObjectPtr<RangeFilter> filter = new RangeFilter;
    filter->add(0x101010, 0x101011);
    ASSERT_EQ(m_unit->loadLines(filter), status_Ok);
    EXPECT_THAT(m_resolver->ranges, ElementsAre(Range{0x101010, 0x10, 3}));
}

TEST_F(LineProgramTest, TheFilterTakesARowWithoutSizeForAPoint) {
    begin().setAddress(0x1010).special(0, 1).special(0, 1).special(1, 1).special(0, 1).endSequence();
    m_dwarf.endLines();
    build();
    SymMgrObjectPtr<RangeFilter> filter = new RangeFilter;
    filter->add(0x1010, 0x1011);
    ASSERT_EQ(m_unit->loadLines(filter), status_Ok);
    EXPECT_THAT(m_resolver->ranges, ElementsAre(Range{0x1010, 0, 2}, Range{0x1010, 1, 3}));
}

TEST_F(LineProgramTest, TheUnitIdIsTheUnitsOffset) {
    begin().setAddress(0x1000).special(0, 1).endSequence().endLines();
    m_dwarf.abbreviation(1, DW_TAG_compile_unit, false, {{DW_AT_stmt_list, DW_FORM_sec_offset}});
    m_dwarf.endAbbreviations();
    m_dwarf.beginUnit().null().endUnit();
    m_dwarf.beginUnit().entry(1, {0}).endUnit();
    DwarfUnits units(m_dwarf);
    DWARFCompilationUnit& unit = units.unit(1);
    unit.loadTopEntry();
    m_resolver = new RecordingResolver;
    unit.setLineResolver(m_resolver);
    ASSERT_EQ(unit.loadLines(nullptr), status_Ok);
    ASSERT_EQ(m_resolver->ranges.size(), 1u);
    EXPECT_EQ(m_resolver->ranges[0].unitId, m_dwarf.unitOffset(1));
}

TEST_F(LineProgramTest, RunningTwiceDoesNotDuplicateRows) {
    begin().setAddress(0x1000).special(0, 1).endSequence().endLines();
    run();
    EXPECT_EQ(m_unit->loadLines(nullptr), status_Ok);
    EXPECT_EQ(m_resolver->ranges.size(), 1u);
    EXPECT_EQ(m_unit->getFileId(1), 0u);
    EXPECT_EQ(m_unit->getFileId(2), 0xffffffffu);
}

// Opcodes.

TEST_F(LineProgramTest, AdvancePcIsMultipliedByTheInstructionLength) {
    DwarfLineOptions options;
    options.minimumInstructionLength = 4;
    begin(options).setAddress(0x1000).op(DW_LNS_copy).opULEB(DW_LNS_advance_pc, 300).endSequence().endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 1200, 1}));
}

TEST_F(LineProgramTest, SpecialOpcodesAreMultipliedByTheInstructionLength) {
    DwarfLineOptions options;
    options.minimumInstructionLength = 4;
    begin(options).setAddress(0x1000).special(0, 1).special(3, 1).endSequence().endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 12, 2}, Range{0x100c, 0, 3}));
}

TEST_F(LineProgramTest, ConstAddPcIsNotMultipliedByTheInstructionLength) {
    for (const std::uint8_t instructionLength : {1, 4}) {
        m_dwarf = DwarfAssembler();
        DwarfLineOptions options;
        options.minimumInstructionLength = instructionLength;
        begin(options).setAddress(0x1000).op(DW_LNS_copy).op(DW_LNS_const_add_pc).endSequence().endLines();
        EXPECT_THAT(run(), ElementsAre(Range{0x1000, (255 - 13) / 14, 1}));
    }
}

TEST_F(LineProgramTest, FixedAdvancePcIsSigned) {
    begin()
        .setAddress(0x1002)
        .fixedAdvance(0xfffe)
        .op(DW_LNS_copy)
        .fixedAdvance(0x7fff)
        .endSequence()
        .endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 0x7fff, 1}));
}

TEST_F(LineProgramTest, LinesAdvanceBothWays) {
    begin().setAddress(0x1000).opSLEB(DW_LNS_advance_line, 1000).op(DW_LNS_copy);
    m_dwarf.opSLEB(DW_LNS_advance_line, -990).special(1, 0).endSequence().endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 1, 1001}, Range{0x1001, 0, 11}));
}

TEST_F(LineProgramTest, TheLineOfASpecialOpcodeIsSigned) {
    DwarfLineOptions options;
    options.lineBase = -100;
    options.lineRange = 200;
    begin(options).setAddress(0x1000).opSLEB(DW_LNS_advance_line, 149).special(0, -100).special(0, 99);
    m_dwarf.endSequence().endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 0, 50}, Range{0x1000, 0, 149}));
}

TEST_F(LineProgramTest, AnUnknownStandardOpcodeIsReportedAndItsOperandsAreOpcodes) {
    DwarfLineOptions options;
    options.opcodeBase = 20;
    begin(options)
        .setAddress(0x1000)
        .op(17)
        .op(DW_LNS_copy)
        .op(19)
        .opULEB(DW_LNS_advance_pc, 2)
        .endSequence();
    m_dwarf.endLines();
    expectLog("ASSERTION FAILED: 'false'", 2);
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 2, 1}));
}

TEST_F(LineProgramTest, AnUnknownExtendedOpcodeIsReportedAndPassed) {
    begin().setAddress(0x1000).extended(0x80, {1, 2, 3, 1}).special(0, 1).endSequence().endLines();
    run();
    const std::vector<test::LogMessage> logs = takeLogs();
    ASSERT_FALSE(logs.empty());
    EXPECT_EQ(logs.back().level, test::errorLevel);
    EXPECT_EQ(logs.back().text.rfind("Line machine do not support opcode 128", 0), 0u) << logs.back().text;
    EXPECT_THAT(m_resolver->ranges, ElementsAre(Range{0x1000, 0, 2}));
}

TEST_F(LineProgramTest, AnExtendedOpcodeIsAsLongAsItSays) {
    begin();
    // An address with two bytes too many, and a file whose length ends it early.
    m_dwarf.line().u8(0).uleb(11).u8(DW_LNE_set_address).u64(0x1000).u8(1).u8(1);
    m_dwarf.special(0, 1).endSequence().endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 0, 2}));
}

TEST_F(LineProgramTest, ShortAddressesAreReadShort) {
    DwarfLineOptions options;
    options.addressSize = 4;
    begin(options).setAddress(0xfffff000).special(0, 1).endSequence().endLines();
    build(0, 4);
    ASSERT_EQ(m_unit->loadLines(nullptr), status_Ok);
    EXPECT_THAT(m_resolver->ranges, ElementsAre(Range{0xfffff000, 0, 2}));
}

TEST_F(LineProgramTest, DefineFileAddsToTheFiles) {
    begin().defineFile("b.c", 0, 5, 6).setAddress(0x1000).opULEB(DW_LNS_set_file, 2).special(0, 1);
    m_dwarf.endSequence().endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 0, 2, 1}));
    EXPECT_THAT(files(), ElementsAre("/a.c", "/comp/b.c"));
    EXPECT_EQ(m_resolver->fileAt(1)->modificationTime(), 5u);
    EXPECT_EQ(m_resolver->fileAt(1)->length(), 6u);
}

TEST_F(LineProgramTest, ADefinedFileWithoutANameIsReportedAndStaysAFile) {
    begin()
        .defineFile("")
        .setAddress(0x1000)
        .opULEB(DW_LNS_set_file, 2)
        .special(0, 1)
        .endSequence()
        .endLines();
    expectLog("ASSERTION FAILED: 'fileName && strlen(fileName) > 0'");
    EXPECT_EQ(run().size(), 1u);
    EXPECT_EQ(m_unit->getFileId(2), 1u);
}

// The step.

TEST_F(LineProgramTest, AStepDeliversOneRowAndKeepsTheRegisters) {
    begin()
        .setAddress(0x1000)
        .op(DW_LNS_set_basic_block)
        .extended(DW_LNE_set_discriminator, {4})
        .special(1, 2);
    m_dwarf.op(DW_LNS_negate_stmt).endSequence().op(DW_LNS_copy).endLines();
    build();
    DWARFLineProgram program(*m_unit, nullptr);
    ASSERT_EQ(program.readHeader(), status_Ok);
    const DWARFLineState& state = program.state();
    EXPECT_TRUE(state.isStmt);
    ASSERT_TRUE(program.step());
    EXPECT_EQ(state.address, 0x1001u);
    EXPECT_EQ(state.line, 3u);
    EXPECT_EQ(state.discriminator, 4u);
    EXPECT_TRUE(state.basicBlock);
    EXPECT_TRUE(state.rowPending);
    ASSERT_TRUE(program.step());
    EXPECT_TRUE(state.endSequence);
    EXPECT_FALSE(state.basicBlock);
    EXPECT_EQ(state.discriminator, 0u);
    EXPECT_FALSE(state.isStmt);
    ASSERT_TRUE(program.step());
    EXPECT_FALSE(state.endSequence);
    EXPECT_TRUE(state.isStmt);
    EXPECT_EQ(state.address, 0u);
    EXPECT_EQ(state.line, 1u);
    EXPECT_EQ(state.file, 1u);
    EXPECT_FALSE(program.step());
    EXPECT_FALSE(program.step());
}

// Headers.

TEST_F(LineProgramTest, EveryVersionAndFormatIsRead) {
    for (const std::uint16_t number : {2, 3, 4}) {
        for (const bool is64Bit : {false, true}) {
            m_dwarf = DwarfAssembler();
            begin(version(number, is64Bit)).setAddress(0x1000).special(0, 1).special(3, 1).endSequence();
            m_dwarf.endLines();
            EXPECT_THAT(run(), ElementsAre(Range{0x1000, 3, 2}, Range{0x1003, 0, 3})) << number << is64Bit;
            EXPECT_THAT(files(), ElementsAre("/a.c"));
        }
    }
}

TEST_F(LineProgramTest, TheVersionIsToldAsInformation) {
    begin(version(3)).endLines();
    run();
    EXPECT_THAT(messages(test::informationLevel), ElementsAre("Line info version: 3"));
}

TEST_F(LineProgramTest, AVersionThatIsNotReadIsNotRemembered) {
    begin(version(5)).endLines();
    build();
    EXPECT_EQ(m_unit->loadLines(nullptr), status_UnsupportedFormatVersion);
    EXPECT_EQ(m_unit->loadLines(nullptr), status_UnsupportedFormatVersion);
    EXPECT_EQ(messages(test::informationLevel).size(), 2u);
}

TEST_F(LineProgramTest, TheProgramBeginsWhereTheHeaderSays) {
    DwarfLineOptions options;
    constexpr std::uint64_t fields = 6 + 12;
    constexpr std::uint64_t tables = 1 + sizeof("/a.c") + 3 + 1;
    options.headerLength = fields + tables + 5;
    begin(options);
    // Something unknown between the files and the program.
    m_dwarf.line().fill(5, DW_LNS_copy);
    m_dwarf.setAddress(0x1000).special(0, 1).endSequence().endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 0, 2}));
}

TEST_F(LineProgramTest, AUnitWithoutAStatementListHasNoLines) {
    begin().endLines();
    m_dwarf.abbreviation(1, DW_TAG_compile_unit, false, {}).endAbbreviations();
    m_dwarf.beginUnit().entry(1).endUnit();
    DwarfUnits units(m_dwarf);
    DWARFCompilationUnit& unit = units.unit(0);
    unit.loadTopEntry();
    m_resolver = new RecordingResolver;
    unit.setLineResolver(m_resolver);
    EXPECT_EQ(unit.loadLines(nullptr), status_NoDebugInfo);
    EXPECT_EQ(unit.loadLines(nullptr), status_NoDebugInfo);
}

TEST_F(LineProgramTest, WithoutALineSectionThereAreNoLines) {
    build();
    EXPECT_EQ(m_unit->loadLines(nullptr), status_NoDebugInfo);
}

TEST_F(LineProgramTest, AStatementListAtTheEndOfTheSectionIsBad) {
    begin().endLines();
    m_stmtList = m_dwarf.line().size();
    build();
    EXPECT_EQ(m_unit->loadLines(nullptr), status_BadDebugInfo);
    EXPECT_EQ(m_unit->loadLines(nullptr), status_BadDebugInfo);
}

TEST_F(LineProgramTest, WithoutAResolverNothingIsRunOrRemembered) {
    begin().setAddress(0x1000).special(0, 1).endSequence().endLines();
    build();
    m_unit->setLineResolver(nullptr);
    EXPECT_EQ(m_unit->loadLines(nullptr), status_NotInitialized);
    m_unit->setLineResolver(m_resolver);
    EXPECT_EQ(m_unit->loadLines(nullptr), status_Ok);
    EXPECT_EQ(m_resolver->ranges.size(), 1u);
}

TEST_F(LineProgramTest, TheProgramOfTheUnitsOwnOffsetIsRun) {
    begin().setAddress(0x1000).special(0, 1).endSequence().endLines();
    m_stmtList = m_dwarf.line().size();
    m_dwarf.beginLines().endIncludeDirectories().file("/b.c").endFiles();
    m_dwarf.setAddress(0x2000).special(0, 1).endSequence().endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x2000, 0, 2}));
    EXPECT_THAT(files(), ElementsAre("/b.c"));
}

TEST_F(LineProgramTest, AProgramEndsWithItsLength) {
    begin().setAddress(0x1000).special(0, 1).special(2, 1).endLines();
    // Belongs to nobody.
    m_dwarf.special(2, 1).endSequence();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 2, 2}));
}

TEST_F(LineProgramTest, ALengthBeyondTheSectionIsClamped) {
    for (const bool is64Bit : {false, true}) {
        for (const std::uint64_t length : {0x1000ULL, 0xfffffff0ULL, is64Bit ? ~0ULL : 0x2000ULL}) {
            m_dwarf = DwarfAssembler();
            DwarfLineOptions options = version(4, is64Bit);
            options.length = length;
            begin(options).setAddress(0x1000).special(0, 1).endSequence().endLines();
            EXPECT_THAT(run(), ElementsAre(Range{0x1000, 0, 2}));
        }
    }
}

TEST_F(LineProgramTest, AHeaderLengthBeyondTheProgramLeavesNothingToRun) {
    for (const std::uint64_t length : {0x1000ULL, 0xffffffffULL}) {
        m_dwarf = DwarfAssembler();
        DwarfLineOptions options;
        options.headerLength = length;
        begin(options).setAddress(0x1000).special(0, 1).endSequence().endLines();
        EXPECT_THAT(run(), IsEmpty());
        EXPECT_THAT(files(), ElementsAre("/a.c"));
    }
}

TEST_F(LineProgramTest, HeaderFieldsOutOfRangeAreReportedAndUsed) {
    DwarfLineOptions options;
    options.minimumInstructionLength = 0;
    begin(options).setAddress(0x1000).special(0, 1).special(3, 1).endSequence().endLines();
    expectLog("ASSERTION FAILED: '1 <= minimumInstructionLength'");
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 0, 2}, Range{0x1000, 0, 3}));

    m_dwarf = DwarfAssembler();
    options.minimumInstructionLength = 5;
    options.defaultIsStmt = 2;
    begin(options).setAddress(0x1000).special(0, 1).special(3, 1).endSequence().endLines();
    expectLog("ASSERTION FAILED: 'minimumInstructionLength <= 4'");
    expectLog("ASSERTION FAILED: 'defaultIsStmt < 2'");
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 15, 2}, Range{0x100f, 0, 3}));
}

TEST_F(LineProgramTest, ALineRangeOf0AddsNothing) {
    DwarfLineOptions options;
    options.lineRange = 0;
    options.lineBase = 2;
    begin(options).setAddress(0x1000).op(200).op(DW_LNS_const_add_pc).op(13).endSequence().endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 0, 3}, Range{0x1000, 0, 5}));
}

TEST_F(LineProgramTest, AnOpcodeBaseOf0SkipsNothingAndMakesEveryOpcodeSpecial) {
    DwarfLineOptions options;
    options.opcodeBase = 0;
    m_dwarf.beginLines(options).endIncludeDirectories().file("/a.c").endFiles();
    m_dwarf.line().u8(0).u8(1).u8(28);
    m_dwarf.endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0, 0, 0xfffffffc}, Range{0, 2, 0xfffffff8}));
}

TEST_F(LineProgramTest, AnOpcodeBaseOf1LeavesExtendedOpcodesAlone) {
    DwarfLineOptions options;
    options.opcodeBase = 1;
    begin(options).setAddress(0x1000).special(0, 1).endSequence().endLines();
    EXPECT_THAT(run(), ElementsAre(Range{0x1000, 0, 2}));
}

// Files and directories.

TEST_F(LineProgramTest, FilesAreJoinedWithTheirDirectories) {
    m_dwarf.beginLines().includeDirectory("/abs").includeDirectory("rel/x").endIncludeDirectories();
    m_dwarf.file("plain.c").file("one.h", 1).file("two.h", 2).file("three.h", 3).file("/abs.h", 2);
    m_dwarf.file("far.h", ~0ULL).endFiles().endLines();
    run();
    EXPECT_THAT(files(), ElementsAre("/comp/plain.c", "/abs/one.h", "/comp/rel/x/two.h", "three.h", "/abs.h",
                                     "far.h"));
    EXPECT_STREQ(m_unit->getIncludeDir(0), "/abs");
    EXPECT_STREQ(m_unit->getIncludeDir(1), "rel/x");
    EXPECT_EQ(m_unit->getIncludeDir(2), nullptr);
}

TEST_F(LineProgramTest, WithoutACompilationDirectoryFilesStayRelative) {
    m_dwarf.beginLines().includeDirectory("rel").endIncludeDirectories();
    m_dwarf.file("plain.c").file("one.h", 1).endFiles().endLines();
    build(0, 8, "");
    ASSERT_EQ(m_unit->loadLines(nullptr), status_Ok);
    EXPECT_THAT(files(), ElementsAre("plain.c", "rel/one.h"));
}

TEST_F(LineProgramTest, EqualPathsShareOneIdAndKeepTheirNumbers) {
    m_dwarf.beginLines().endIncludeDirectories().file("/a.c").file("/b.c").file("/a.c").endFiles().endLines();
    run();
    EXPECT_EQ(m_unit->getFileId(1), 0u);
    EXPECT_EQ(m_unit->getFileId(2), 1u);
    EXPECT_EQ(m_unit->getFileId(3), 0u);
    EXPECT_EQ(m_resolver->fileCount(), 2u);
}

TEST_F(LineProgramTest, TextsThatAreCutOffHaveAnEnd) {
    m_dwarf.beginLines().includeDirectory("dir");
    m_dwarf.line().chars("cut");
    m_dwarf.endFiles().endLines();
    std::vector<std::uint8_t> line = m_dwarf.line().bytes();
    line.pop_back(); // the zero byte behind it
    m_dwarf = DwarfAssembler();
    m_dwarf.line().raw(line);
    run();
    EXPECT_STREQ(m_unit->getIncludeDir(0), "dir");
    EXPECT_STREQ(m_unit->getIncludeDir(1), "cut");
    EXPECT_EQ(m_unit->getIncludeDir(2), nullptr);
}

TEST_F(LineProgramTest, ADirectoryLongerThanAnyPathIsNone) {
    m_dwarf.beginLines().includeDirectory(std::string(100000, 'd')).endIncludeDirectories();
    m_dwarf.file("a.c", 1).endFiles().endLines();
    run();
    EXPECT_THAT(files(), ElementsAre("a.c"));
}

// Damage.

TEST_F(LineProgramTest, EveryCutEndsAndEveryByteMayBeWrong) {
    m_dwarf.beginLines().includeDirectory("inc").endIncludeDirectories().file("a.c", 1).endFiles();
    m_dwarf.setAddress(0x1000).special(0, 1).opULEB(DW_LNS_set_column, 300).special(3, -2);
    m_dwarf.opSLEB(DW_LNS_advance_line, -70).fixedAdvance(7).defineFile("b.c").endSequence().endLines();
    const std::vector<std::uint8_t> whole = m_dwarf.line().bytes();
    allowLog("ASSERTION FAILED");
    allowLog("Line machine do not support opcode ");
    const auto runBytes = [&](const std::vector<std::uint8_t>& bytes) {
        m_dwarf = DwarfAssembler();
        m_dwarf.line().raw(bytes);
        build();
        static_cast<void>(m_unit->loadLines(nullptr));
    };
    for (std::size_t size = 1; size < whole.size(); ++size)
        runBytes(std::vector<std::uint8_t>(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
    for (std::size_t place = 0; place < whole.size(); ++place) {
        for (unsigned value = 0; value < 256; ++value) {
            std::vector<std::uint8_t> bytes = whole;
            bytes[place] = static_cast<std::uint8_t>(value);
            runBytes(bytes);
        }
    }
}

// Relocations.

TEST_F(LineProgramTest, AddressesAreRelocatedOnceThoughUnitsShareAProgram) {
    begin().setAddress(0).special(0, 1).endSequence().endLines();
    m_dwarf.abbreviation(1, DW_TAG_compile_unit, false, {{DW_AT_stmt_list, DW_FORM_sec_offset}});
    m_dwarf.endAbbreviations();
    m_dwarf.beginUnit().entry(1, {0}).endUnit();
    m_dwarf.beginUnit().entry(1, {0}).endUnit();
    DwarfUnits units(m_dwarf);
    SymMgrObjectPtr<RelocationAddends> relocations = new RELRelocationAddends(0);
    RelocationEntry entry;
    entry.offset = m_dwarf.line().size() - 1 - 3 - 8; // the operand, in front of a row and the end
    entry.value = 0x1122334400001000;
    relocations->add(entry);
    units.helper().relocate(section_debug_line, relocations);
    m_resolver = new RecordingResolver;
    for (std::size_t i = 0; i < 2; ++i) {
        DWARFCompilationUnit& unit = units.unit(i);
        unit.loadTopEntry();
        unit.setLineResolver(m_resolver);
        ASSERT_EQ(unit.loadLines(nullptr), status_Ok);
    }
    ASSERT_EQ(m_resolver->ranges.size(), 2u);
    EXPECT_EQ(m_resolver->ranges[0].address, 0x1122334400001000u);
    EXPECT_EQ(m_resolver->ranges[1].address, 0x1122334400001000u);
}

TEST_F(LineProgramTest, PlacesAreAsWideAsTheUnitsAddresses) {
    DwarfLineOptions lineOptions;
    lineOptions.addressSize = 4;
    begin(lineOptions).setAddress(0).special(0, 1).endSequence().endLines();
    m_dwarf.abbreviation(1, DW_TAG_compile_unit, false, {{DW_AT_stmt_list, DW_FORM_sec_offset}});
    m_dwarf.endAbbreviations();
    DwarfUnitOptions options;
    options.addressSize = 4;
    m_dwarf.beginUnit(options).entry(1, {0}).endUnit();
    DwarfUnits units(m_dwarf);
    SymMgrObjectPtr<RelocationAddends> relocations = new RELARelocationAddends(0);
    RelocationEntry entry;
    entry.offset = m_dwarf.line().size() - 1 - 3 - 4;
    entry.value = 0x1122334455667788;
    relocations->add(entry);
    units.helper().relocate(section_debug_line, relocations);
    DWARFCompilationUnit& unit = units.unit(0, options);
    unit.loadTopEntry();
    m_resolver = new RecordingResolver;
    unit.setLineResolver(m_resolver);
    ASSERT_EQ(unit.loadLines(nullptr), status_Ok);
    EXPECT_THAT(m_resolver->ranges, ElementsAre(Range{0x55667788, 0, 2}));
}

// Through the loader.

class HeldLock : public ILock {
public:
    void lock() override { times += depth++ == 0; }
    void unlock() override { --depth; }
    int depth = 0;
    int times = 0;
};

/// Two units; the program of the first one stands behind that of the second one.
class LoadedLinesTest : public test::OrnTest {
protected:
    using M = test::DwarfModule;

    LoadedLinesTest() {
        const unsigned long long second = m_module.lineProgram({"second.c"}, 0x1000, 2);
        const unsigned long long first = m_module.lineProgram({"first.c"}, 0x2000);
        m_module.unit(M::lines(first)).endUnit();
        m_module.unit(M::lines(second));
        m_module.leaf(DW_TAG_subprogram, M::function("f", 0x1000, 0x20) + M::declared(1, 1)).endUnit();
    }
    LineResolver& resolver() { return static_cast<LineResolver&>(*m_module.scope().lineResolver()); }
    SymMgrObjectPtr<IAddress> addressOf(unsigned long long value) {
        m_module.scope(); // now the module has its segment
        SymMgrObjectPtr<IAddress> address;
        EXPECT_EQ(m_module.format->getAddress(address, value), status_Ok);
        return address;
    }
    std::vector<unsigned> linesOfSymbol(IAddress* low, IAddress* high) {
        SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>> lines;
        m_module.symbolAt(0x1000)->sourceLines(lines, low, high);
        std::vector<unsigned> numbers;
        for (auto line = lines->current(); line; line = lines->next() ? lines->current() : nullptr)
            numbers.push_back(line->location()->line());
        return numbers;
    }

    HeldLock m_lock; ///< outlives the loader
    test::DwarfModule m_module;
};

TEST_F(LoadedLinesTest, FilesAreNumberedInTheOrderOfTheUnits) {
    SymMgrObjectPtr<ISourceLocation> location;
    resolver().sourceLocationAt(location, 0x1000, 0, nullptr, nullptr);
    ASSERT_EQ(resolver().fileCount(), 2u);
    EXPECT_STREQ(resolver().fileAt(0)->name(), "first.c");
    EXPECT_STREQ(resolver().fileAt(1)->name(), "second.c");
}

TEST_F(LoadedLinesTest, ASymbolRunsTheProgramOfItsUnitAlone) {
    EXPECT_THAT(linesOfSymbol(nullptr, nullptr), ElementsAre(1, 2));
    ASSERT_EQ(resolver().fileCount(), 1u);
    EXPECT_STREQ(resolver().fileAt(0)->name(), "second.c");
}

TEST_F(LoadedLinesTest, ASymbolGivesItsLinesBetweenTheLimits) {
    EXPECT_THAT(linesOfSymbol(addressOf(0x1010), nullptr), ElementsAre(2));
    EXPECT_THAT(linesOfSymbol(nullptr, addressOf(0x1010)), ElementsAre(1));
}

TEST_F(LoadedLinesTest, AllProgramsRunUnderTheLoadingLock) {
    m_module.loader().getLineResolver(&m_module.scope(), &m_lock);
    std::vector<int> depths;
    m_module.helper().isOutside = [&](unsigned long long) {
        depths.push_back(m_lock.depth);
        return false;
    };
    EXPECT_EQ(m_module.loader().loadLineTable(nullptr), status_Ok);
    EXPECT_THAT(depths, Each(Gt(0)));
    EXPECT_EQ(depths.size(), 3u);
    EXPECT_EQ(m_lock.depth, 0);
    EXPECT_EQ(m_lock.times, 1) << "nobody sees the status in between";
}

TEST_F(LoadedLinesTest, ALocationHasAllThatItsRowSays) {
    test::DwarfModule module;
    module.dwarf.beginLines().endIncludeDirectories().file("a.c").file("b.c").endFiles();
    module.dwarf.setAddress(0x1000).opULEB(DW_LNS_set_file, 2).opULEB(DW_LNS_set_column, 7);
    module.dwarf.extended(DW_LNE_set_discriminator, {5}).opSLEB(DW_LNS_advance_line, 9).special(0, 0);
    module.dwarf.special(4, 0).endSequence().endLines();
    module.unit().endUnit().unit(M::lines(0)).endUnit();
    SymMgrObjectPtr<ISourceLocation> location;
    module.scope().lineResolver()->sourceLocationAt(location, 0x1003, 0, nullptr, nullptr);
    ASSERT_TRUE(location);
    EXPECT_STREQ(location->file()->name(), "b.c");
    EXPECT_EQ(location->line(), 10u);
    EXPECT_EQ(location->column(), 7u);
    EXPECT_EQ(location->extra(), 5u);
    EXPECT_EQ(location->symbolId(), module.dwarf.unitOffset(1));
}

} // namespace
} // namespace ORN_3_30
