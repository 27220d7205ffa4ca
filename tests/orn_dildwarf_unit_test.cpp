#include "orn/source.h"
#include "orn_dildwarf_lines.h"
#include "orn_dildwarf_unit.h"
#include "orn_ffl.h"
#include "support/dwarf_assembler.h"
#include "support/dwarf_unit.h"
#include "support/orn_fixture.h"

#include <gtest/gtest.h>

namespace ORN_3_30 {
namespace {

using orn_test::DwarfAssembler;
using orn_test::DwarfSpec;
using orn_test::DwarfValue;
using test::DwarfUnits;

class CompilationUnitTest : public test::OrnTest {
protected:
    /// A unit whose top entry has these attributes.
    DWARFCompilationUnit& build(const std::vector<DwarfSpec>& specs, const std::vector<DwarfValue>& values,
                                unsigned long long bias = 0) {
        m_dwarf.abbreviation(1, DW_TAG_compile_unit, true, specs).endAbbreviations();
        m_dwarf.beginUnit().entry(1, values).null().endUnit();
        return load(bias);
    }
    DWARFCompilationUnit& withProducer(const std::string& producer) {
        m_dwarf = DwarfAssembler();
        return build({{DW_AT_producer, DW_FORM_string}}, {producer.c_str()});
    }
    DWARFCompilationUnit& load(unsigned long long bias = 0) {
        m_units = std::make_unique<DwarfUnits>(m_dwarf, bias);
        m_unit = &m_units->unit(0);
        m_unit->loadTopEntry();
        return *m_unit;
    }
    void expectCompiler(const std::string& producer, compiler_kind_t kind, unsigned major, unsigned minor) {
        DWARFCompilationUnit& unit = withProducer(producer);
        EXPECT_EQ(unit.getCompilerKind(), kind) << producer;
        EXPECT_EQ(unit.getCompilerMajorVersion(), major) << producer;
        EXPECT_EQ(unit.getCompilerMinorVersion(), minor) << producer;
        EXPECT_EQ(unit.getCompilerName(), producer);
    }
    std::string optReportFile(const std::string& producer) {
        const char* file = withProducer(producer).getOptReportFile();
        return file ? file : "(none)";
    }
    std::string merged(const std::string& options, const std::string& further) {
        m_dwarf = DwarfAssembler();
        DWARFCompilationUnit& unit =
            build({{DW_AT_VEXOR_compile_options, DW_FORM_string}}, {options.c_str()});
        unit.mergeCompileOptions(further.c_str());
        return unit.getCompileOptions();
    }

    DwarfAssembler m_dwarf;
    std::unique_ptr<DwarfUnits> m_units;
    DWARFCompilationUnit* m_unit = nullptr;
};

// The top entry.

TEST_F(CompilationUnitTest, TakesWhatItsTopEntrySays) {
    DWARFCompilationUnit& unit =
        build({{DW_AT_stmt_list, DW_FORM_sec_offset},
               {DW_AT_low_pc, DW_FORM_addr},
               {DW_AT_language, DW_FORM_data1},
               {DW_AT_comp_dir, DW_FORM_strp},
               {DW_AT_name, DW_FORM_string},
               {DW_AT_producer, DW_FORM_strp},
               {DW_AT_VEXOR_compile_options, DW_FORM_string}},
              {0x123, 0x401000, DW_LANG_C_plus_plus, "/dir", "a.cpp", "GNU C++ 4.8.2", "-g -O2"});
    EXPECT_TRUE(unit.isTopEntryLoaded());
    EXPECT_TRUE(unit.hasStmtList());
    EXPECT_EQ(unit.getStmtList(), 0x123u);
    EXPECT_EQ(unit.getLowPc(), 0x401000u);
    EXPECT_EQ(unit.getLanguage(), language_Cplusplus);
    EXPECT_STREQ(unit.getCompilationDirectory(), "/dir");
    EXPECT_STREQ(unit.getName(), "a.cpp");
    EXPECT_STREQ(unit.getCompilerName(), "GNU C++ 4.8.2");
    EXPECT_STREQ(unit.getCompileOptions(), "-g -O2");
    EXPECT_EQ(unit.getCompilerKind(), compiler_Gnu);
}

TEST_F(CompilationUnitTest, WhatIsMissingIsEmptyOrZero) {
    DWARFCompilationUnit& unit = build({}, {});
    EXPECT_EQ(unit.getLanguage(), language_C);
    EXPECT_STREQ(unit.getCompilationDirectory(), "");
    EXPECT_STREQ(unit.getName(), "");
    EXPECT_STREQ(unit.getCompilerName(), "");
    EXPECT_STREQ(unit.getCompileOptions(), "");
    EXPECT_EQ(unit.getOptReportFile(), nullptr);
    EXPECT_EQ(unit.getCompilerKind(), compiler_Unknown);
    EXPECT_EQ(unit.getLowPc(), 0u);
    EXPECT_FALSE(unit.hasStmtList());
    EXPECT_EQ(unit.getUnitFlags(), 0u);
    void* extension = &unit;
    unit.getExtension(extension);
    EXPECT_EQ(extension, nullptr);
}

TEST_F(CompilationUnitTest, TheEntryPcStandsInForAMissingLowPc) {
    EXPECT_EQ(build({{DW_AT_entry_pc, DW_FORM_addr}}, {0x2000}).getLowPc(), 0x2000u);
    m_dwarf = DwarfAssembler();
    EXPECT_EQ(
        build({{DW_AT_entry_pc, DW_FORM_addr}, {DW_AT_low_pc, DW_FORM_addr}}, {0x2000, 0x1000}).getLowPc(),
        0x1000u);
}

TEST_F(CompilationUnitTest, TheLowPcIsOfTheSymbolFilesOwnAddresses) {
    DWARFCompilationUnit& unit = build({{DW_AT_low_pc, DW_FORM_addr}}, {0x1000}, 0x500000);
    EXPECT_EQ(unit.getLowPc(), 0x1000u);
    EXPECT_EQ(unit.getLoadBias(), 0x500000u);
}

TEST_F(CompilationUnitTest, WhatTheTopEntryRefersToCounts) {
    m_dwarf.abbreviation(1, DW_TAG_compile_unit, true, {{DW_AT_abstract_origin, DW_FORM_ref4}});
    m_dwarf.abbreviation(2, DW_TAG_compile_unit, false, {{DW_AT_name, DW_FORM_string}}).endAbbreviations();
    m_dwarf.beginUnit().entry(1, {DwarfValue::ref("o")}).entry(2, {"origin.c"}, "o").null().endUnit();
    EXPECT_STREQ(load().getName(), "origin.c");
}

TEST_F(CompilationUnitTest, ATextOfNoTextFormIsNone) {
    EXPECT_STREQ(build({{DW_AT_name, DW_FORM_block1}}, {std::vector<std::uint8_t>{'a'}}).getName(), "");
}

TEST_F(CompilationUnitTest, ATextOutsideTheStringSectionLeavesTheFieldEmpty) {
    EXPECT_STREQ(build({{DW_AT_name, DW_FORM_strp}}, {99}).getName(), "");
}

TEST_F(CompilationUnitTest, ATopEntryOfAnotherTagIsNotTaken) {
    m_dwarf.abbreviation(1, DW_TAG_partial_unit, true, {{DW_AT_name, DW_FORM_string}}).endAbbreviations();
    m_dwarf.beginUnit().entry(1, {"p.c"}).null().endUnit();
    EXPECT_STREQ(load().getName(), "");
    EXPECT_FALSE(m_unit->isTopEntryLoaded());
}

TEST_F(CompilationUnitTest, AUnitThatIsAllHeaderHasNoTopEntry) {
    m_dwarf.endAbbreviations().beginUnit().endUnit();
    EXPECT_FALSE(load().hasEntries());
    EXPECT_FALSE(m_unit->isTopEntryLoaded());
}

TEST_F(CompilationUnitTest, LanguagesHaveTheirNumbers) {
    const std::pair<unsigned, language_t> languages[] = {
        {1, language_C},    {2, language_C},       {3, language_Ada},     {4, language_Cplusplus},
        {5, language_C},    {7, language_Fortran}, {8, language_Fortran}, {14, language_Fortran},
        {0x1a, language_C}, {0x8001, language_C}};
    for (const auto& [number, language] : languages) {
        m_dwarf = DwarfAssembler();
        EXPECT_EQ(build({{DW_AT_language, DW_FORM_data2}}, {number}).getLanguage(), language) << number;
    }
    EXPECT_EQ(language_Ada, 1u);
    EXPECT_EQ(language_C, 3u);
    EXPECT_EQ(language_Cplusplus, 4u);
    EXPECT_EQ(language_Fortran, 5u);
}

// Producers.

TEST_F(CompilationUnitTest, ProducersOfGnu) {
    expectCompiler("GNU C 2.96 20000731", compiler_Gnu296, 2, 96);
    expectCompiler("GNU C++ 2.96", compiler_Gnu296, 2, 96);
    expectCompiler("GNU C++ 4.8.2 20140120", compiler_Gnu, 4, 8);
    expectCompiler("GNU C 4", compiler_Gnu, 4, 0);
    expectCompiler("GNU C 4.", compiler_Gnu, 4, 0);
    expectCompiler("GNU C 2.95", compiler_Gnu, 2, 95);
}

TEST_F(CompilationUnitTest, AGnuProducerWithoutAMarkerHasNoNumbers) {
    expectCompiler("GNU AS 2.35.2", compiler_Gnu, 0, 0);
    expectCompiler("GNU C++14 12.2.0 -g", compiler_Gnu, 0, 0);
    expectCompiler("GNU C ", compiler_Gnu, 0, 0);
    expectCompiler("GNU C abc", compiler_Gnu, 0, 0);
}

TEST_F(CompilationUnitTest, TheCppMarkerGoesBeforeTheCMarkerWhereverTheyStand) {
    expectCompiler("GNU C 3.1 GNU C++ 4.2", compiler_Gnu, 4, 2);
}

TEST_F(CompilationUnitTest, GnuAnywhereButAtTheStartIsNotGnu) {
    expectCompiler("The GNU C 4.8", compiler_Unknown, 0, 0);
    expectCompiler("GNUC 4.8", compiler_Unknown, 0, 0);
}

TEST_F(CompilationUnitTest, ProducersOfVexor) {
    expectCompiler("Vexor(R) C Version 7.1", compiler_VexorOld, 7, 0);
    expectCompiler("Vexor(R) C Version 12.0", compiler_Vexor, 12, 0);
    expectCompiler("Vexor(R) C Version 8", compiler_Vexor, 8, 0);
    expectCompiler("Vexor C Version 12", compiler_Vexor, 12, 0);
    expectCompiler("Vexor(R) C", compiler_VexorOld, 0, 0);
    expectCompiler("Vexor(R) C Version ", compiler_VexorOld, 0, 0);
    expectCompiler("Vexor(R) C Version x", compiler_VexorOld, 0, 0);
}

TEST_F(CompilationUnitTest, VexorAnywhereButAtTheStartIsUnknown) {
    expectCompiler("C of Vexor(R) Version 12", compiler_Unknown, 0, 0);
    expectCompiler("C of Vexor Version 12", compiler_Unknown, 0, 0);
    // The longer marker is found first, though the shorter one stands at the start.
    expectCompiler("Vexor C for Vexor(R) Version 12", compiler_Unknown, 0, 0);
}

TEST_F(CompilationUnitTest, OtherProducersAreKeptAsText) {
    expectCompiler("clang version 14.0.6", compiler_Unknown, 0, 0);
    EXPECT_EQ(optReportFile("clang Version 14 Opt_report_file a.rpt"), "(none)");
}

TEST_F(CompilationUnitTest, TheReportFileEndsAtABlankOrBehindABackslash) {
    EXPECT_EQ(optReportFile("Vexor(R) Opt_report_file a.rpt -g"), "a.rpt");
    EXPECT_EQ(optReportFile("Vexor(R) Version 12 Opt_report_file a.rpt"), "a.rpt");
    EXPECT_EQ(optReportFile("Vexor(R) Opt_report_file a\\ b.rpt"), "a\\");
    EXPECT_EQ(optReportFile("Vexor(R) Opt_report_file dir\\a.rpt"), "dir\\");
    EXPECT_EQ(optReportFile("Vexor(R) Opt_report_file a b\\"), "a");
    EXPECT_EQ(optReportFile("Vexor(R) Opt_report_file "), "(none)");
    EXPECT_EQ(optReportFile("Vexor(R) Opt_report_file  a"), "(none)");
    EXPECT_EQ(optReportFile("GNU C 4.8 Opt_report_file a.rpt"), "(none)");
}

TEST_F(CompilationUnitTest, WithoutAProducerAnUnknownCompilerHasAnEmptyName) {
    EXPECT_STREQ(withProducer("").getCompilerName(), "");
}

TEST_F(CompilationUnitTest, SiblingsAreTrustedByCompiler) {
    EXPECT_TRUE(withProducer("GNU C 4.8").trustsSiblings());
    EXPECT_FALSE(withProducer("GNU C 2.96").trustsSiblings());
    EXPECT_FALSE(withProducer("clang").trustsSiblings());
    EXPECT_TRUE(withProducer("Vexor(R)").trustsSiblings());
}

// Options.

TEST_F(CompilationUnitTest, FurtherOptionsAreAppendedWithABlankBeforeAndBehind) {
    EXPECT_EQ(merged("-c", "-g -O2 x"), "-c -g  -O2 ");
}

TEST_F(CompilationUnitTest, OptionsThatAreThereAreNotAppended) {
    EXPECT_EQ(merged("-g -O2 ", "-g -O2 -O3 "), "-g -O2  -O3 ");
}

TEST_F(CompilationUnitTest, EveryOptionOfTheListsIsMergedInTheirOrder) {
    EXPECT_EQ(merged("", "-fast -Ox -O3 -O2 debug:full debug:all -g "),
              " -g  debug:all  debug:full  -O2  -O3  -Ox  -fast ");
}

TEST_F(CompilationUnitTest, OptionsOutsideTheListsAreIgnored) {
    EXPECT_EQ(merged("-c", "-O1 -Wall -g"), "-c");
}

TEST_F(CompilationUnitTest, WithStackChecksOnlyDebugOptionsAreMerged) {
    EXPECT_EQ(merged("-c", "-g -O2 -check stack "), "-c -g ");
}

TEST_F(CompilationUnitTest, NoTextMergesNothing) {
    DWARFCompilationUnit& unit = build({{DW_AT_VEXOR_compile_options, DW_FORM_string}}, {"-c"});
    unit.mergeCompileOptions(nullptr);
    EXPECT_STREQ(unit.getCompileOptions(), "-c");
}

TEST_F(CompilationUnitTest, TheTopEntryIsNotReadAnewAndTheMergedOptionsStay) {
    DWARFCompilationUnit& unit = build({{DW_AT_VEXOR_compile_options, DW_FORM_string}}, {"-c"});
    unit.mergeCompileOptions("-g ");
    unit.loadTopEntry();
    EXPECT_STREQ(unit.getCompileOptions(), "-c -g ");
}

// Files.

TEST_F(CompilationUnitTest, FileNumbersBeginAtOne) {
    DWARFCompilationUnit& unit = build({}, {});
    unit.addFileId(7);
    unit.addFileId(9);
    EXPECT_EQ(unit.getFileId(0), 0xffffffffu);
    EXPECT_EQ(unit.getFileId(1), 7u);
    EXPECT_EQ(unit.getFileId(2), 9u);
    EXPECT_EQ(unit.getFileId(3), 0xffffffffu);
    EXPECT_EQ(unit.getFileId(0xffffffffu), 0xffffffffu);
}

TEST_F(CompilationUnitTest, IncludeDirectoriesEndInNull) {
    DWARFCompilationUnit& unit = build({}, {});
    unit.addIncludeDir("one");
    EXPECT_STREQ(unit.getIncludeDir(0), "one");
    EXPECT_EQ(unit.getIncludeDir(1), nullptr);
    EXPECT_EQ(unit.getIncludeDir(~0ULL), nullptr);
}

TEST_F(CompilationUnitTest, TheHintOfTheFirstFileIsThereOnceSet) {
    DWARFCompilationUnit& unit = build({}, {});
    unsigned long long hint = 5;
    EXPECT_FALSE(unit.getFirstFile(hint));
    EXPECT_EQ(hint, 0u);
    unit.setFirstFile(3);
    EXPECT_TRUE(unit.getFirstFile(hint));
    EXPECT_EQ(hint, 3u);
}

TEST_F(CompilationUnitTest, ANullPathIsReported) {
    expectLog("ASSERTION FAILED: 'false'");
    EXPECT_EQ(build({}, {}).findSourceFile(nullptr), nullptr);
}

/// A unit with a line program of three files, and a resolver.
class UnitFilesTest : public CompilationUnitTest {
protected:
    void buildWithFiles(const char* name) {
        m_dwarf.beginLines().endIncludeDirectories();
        m_dwarf.file("/src/a.h", 0, 1, 2).file("/src/main.c", 0, 3, 4).file("/src/other/main.c").endFiles();
        m_dwarf.endLines();
        build({{DW_AT_stmt_list, DW_FORM_sec_offset}, {DW_AT_name, DW_FORM_string}}, {0, name});
        m_resolver = new LineResolver(nullptr, nullptr, nullptr, nullptr);
        m_unit->setLineResolver(m_resolver);
    }
    SymMgrObjectPtr<LineResolver> m_resolver;
};

TEST_F(UnitFilesTest, TheMainFileIsTheFirstWhosePathEndsWithTheName) {
    buildWithFiles("main.c");
    ISourceFile* file = m_unit->getSourceFile();
    ASSERT_NE(file, nullptr);
    EXPECT_STREQ(file->name(), "/src/main.c");
    EXPECT_EQ(file->modificationTime(), 3u);
    EXPECT_EQ(file->length(), 4u);
    EXPECT_EQ(m_unit->getSourceFile(), file);
}

TEST_F(UnitFilesTest, TheNameOfTheMainFileMayStandInItsPathTwice) {
    m_dwarf.beginLines().endIncludeDirectories();
    m_dwarf.file("/main.c/a.h").file("/main.c/main.c").endFiles().endLines();
    build({{DW_AT_stmt_list, DW_FORM_sec_offset}, {DW_AT_name, DW_FORM_string}}, {0, "main.c"});
    m_resolver = new LineResolver(nullptr, nullptr, nullptr, nullptr);
    m_unit->setLineResolver(m_resolver);
    EXPECT_STREQ(m_unit->getSourceFile()->name(), "/main.c/main.c");
}

TEST_F(UnitFilesTest, WithoutAMatchTheMainFileIsTheFirst) {
    buildWithFiles("nowhere.c");
    EXPECT_STREQ(m_unit->getSourceFile()->name(), "/src/a.h");
}

TEST_F(UnitFilesTest, WithoutANameTheMainFileIsTheFirst) {
    buildWithFiles("");
    EXPECT_STREQ(m_unit->getSourceFile()->name(), "/src/a.h");
}

TEST_F(UnitFilesTest, AFileIsFoundByItsPath) {
    buildWithFiles("main.c");
    ASSERT_EQ(m_unit->loadLines(nullptr), status_Ok);
    EXPECT_STREQ(m_unit->findSourceFile("/src/main.c")->name(), "/src/main.c");
    EXPECT_EQ(m_unit->findSourceFile("main.c"), nullptr);
}

TEST_F(UnitFilesTest, WithoutAResolverThereIsNoFileUntilThereIsOne) {
    buildWithFiles("main.c");
    m_unit->setLineResolver(nullptr);
    EXPECT_EQ(m_unit->getSourceFile(), nullptr);
    EXPECT_EQ(m_unit->findSourceFile("/src/main.c"), nullptr);
    m_unit->setLineResolver(m_resolver);
    EXPECT_STREQ(m_unit->getSourceFile()->name(), "/src/main.c");
}

TEST_F(UnitFilesTest, AUnitWithoutLinesHasNoFile) {
    build({}, {});
    m_resolver = new LineResolver(nullptr, nullptr, nullptr, nullptr);
    m_unit->setLineResolver(m_resolver);
    EXPECT_EQ(m_unit->getSourceFile(), nullptr);
}

} // namespace
} // namespace ORN_3_30
