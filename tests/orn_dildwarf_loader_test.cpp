#include "orn/address.h"
#include "orn/line_table.h"
#include "orn/source.h"
#include "orn_dildwarf.h"
#include "orn_dildwarf_walk.h"
#include "support/allocation.h"
#include "support/dwarf_module.h"
#include "support/fake_loader.h"
#include "support/orn_fixture.h"

#include <cstdlib>
#include <set>

namespace ORN_3_30::test {
namespace {

using orn_test::DwarfUnitOptions;
using orn_test::DwarfValue;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;
using M = DwarfModule;

class Environment {
public:
    Environment(const char* name, const char* value) : m_name(name) { ::setenv(name, value, 1); }
    ~Environment() { ::unsetenv(m_name); }

private:
    const char* m_name;
};

class DwarfLoaderTest : public OrnTest {
protected:
    /// A module with one C unit that holds just this function.
    void oneFunction(const DwarfAttrs& attrs) { m_module.unit().leaf(DW_TAG_subprogram, attrs).endUnit(); }
    std::vector<std::string> functions() { return m_module.symbols(symbol_kind_function); }

    DwarfModule m_module;
};

// --- Status of loads

TEST_F(DwarfLoaderTest, WithoutDebugInfoEveryLoadFailsAndOneIsLogged) {
    expectLog("Cannot read .debug_info section /module.debug");
    EXPECT_EQ(m_module.load(symbol_kind_function), status_NoDebugInfo);
    EXPECT_EQ(m_module.load(symbol_kind_variable), status_NoDebugInfo);
    EXPECT_THAT(messages(warningLevel), SizeIs(1));
}

TEST_F(DwarfLoaderTest, ASectionWithoutBytesIsNoDebugInfo) {
    oneFunction(M::function("f", 0x1000, 0x20));
    m_module.helper().set(section_debug_info, {1, 2, 3})->setMissing();
    expectLog("Cannot read .debug_info section ");
    EXPECT_EQ(m_module.load(symbol_kind_function), status_NoDebugInfo);
}

TEST_F(DwarfLoaderTest, ASectionOfAnUnknownFormIsReportedAsSuch) {
    oneFunction(M::function("f", 0x1000, 0x20));
    m_module.helper().set(section_debug_info, {1, 2, 3})->setStatus(status_UnsupportedDebugInfoFormat);
    expectLog("Failed to read debug info");
    EXPECT_EQ(m_module.load(symbol_kind_function), status_UnsupportedDebugInfoFormat);
    EXPECT_EQ(m_module.load(symbol_kind_function), status_UnsupportedDebugInfoFormat);
    EXPECT_THAT(messages(warningLevel), SizeIs(1));
}

TEST_F(DwarfLoaderTest, TheSkipSwitchKeepsUnitsAndDropsSymbols) {
    const Environment skip("ORN_SKIP_DWARF_SYMBOLS", "1");
    oneFunction(M::function("f", 0x1000, 0x20));
    EXPECT_EQ(m_module.load(symbol_kind_function), status_Ok);
    EXPECT_THAT(functions(), IsEmpty());
    EXPECT_NE(m_module.loader().getCompilationUnit(0), nullptr);
}

TEST_F(DwarfLoaderTest, AnEmptySkipSwitchHasNoEffect) {
    const Environment skip("ORN_SKIP_DWARF_SYMBOLS", "");
    oneFunction(M::function("f", 0x1000, 0x20));
    EXPECT_THAT(functions(), ElementsAre("f 0x1000-0x1020"));
}

TEST_F(DwarfLoaderTest, UnitsAreScannedOnce) {
    m_module.unit().leaf(DW_TAG_subprogram, M::function("f", 0x1000, 0x20));
    m_module.leaf(DW_TAG_variable, M::named("v") + M::place(0x2000)).endUnit();
    EXPECT_EQ(m_module.load(symbol_kind_function), status_Ok);
    ICompUnitDetails* unit = m_module.loader().getCompilationUnit(0);
    EXPECT_EQ(m_module.load(symbol_kind_variable), status_Ok);
    EXPECT_EQ(m_module.loader().getCompilationUnit(0), unit);
    EXPECT_EQ(m_module.helper().reads[section_debug_info], 1);
    EXPECT_EQ(m_module.helper().reads[section_debug_abbrev], 1);
    EXPECT_THAT(DwarfModule::listOf(m_module.scope(), symbol_kind_other), IsEmpty());
}

class AbortedScanTest : public DwarfLoaderTest {
protected:
    AbortedScanTest() {
        const unsigned long long lines = m_module.lineProgram({"a.c"});
        m_module.unit(M::lines(lines)).leaf(DW_TAG_subprogram, M::function("f", 0x1000, 0x20)).endUnit();
        DwarfUnitOptions five;
        five.version = 5;
        m_module.unit({}, five).endUnit();
        expectLog("ASSERTION FAILED: 'version <= 4'");
    }
};

TEST_F(AbortedScanTest, WalksNothingTheFirstTimeAndWhatIsThereTheSecondTime) {
    EXPECT_EQ(m_module.load(symbol_kind_function), status_UnsupportedFormatVersion);
    EXPECT_EQ(m_module.loader().units().size(), 1u);
    SymMgrObjectPtr<ISymbolRange> range;
    m_module.table()->symbolRangeByAddress(range, 0x1000, symbol_kind_function, nullptr);
    EXPECT_FALSE(range);
    EXPECT_EQ(m_module.load(symbol_kind_function), status_Ok);
    m_module.table()->symbolRangeByAddress(range, 0x1000, symbol_kind_function, nullptr);
    EXPECT_TRUE(range);
}

TEST_F(AbortedScanTest, LinesOfTheUnitsInFrontOfItAreThere) {
    EXPECT_EQ(m_module.load(symbol_kind_function), status_UnsupportedFormatVersion);
    SymMgrObjectPtr<ISourceLocation> location;
    m_module.scope().lineResolver()->sourceLocationAt(location, 0x1000, 0, nullptr, nullptr);
    ASSERT_TRUE(location);
    EXPECT_STREQ(location->file()->name(), "a.c");
}

TEST_F(AbortedScanTest, ALineQueryKeepsTheErrorForTheFirstLoad) {
    m_module.scope();
    EXPECT_EQ(m_module.loader().loadLineTable(nullptr), status_Ok);
    EXPECT_EQ(m_module.load(symbol_kind_function), status_UnsupportedFormatVersion);
    EXPECT_EQ(m_module.load(symbol_kind_function), status_Ok);
}

TEST_F(DwarfLoaderTest, ATruncatedUnitIsABadFile) {
    oneFunction(M::function("f", 0x1000, 0x20));
    m_module.dwarf.info().u8(1).u8(2);
    expectLog("ASSERTION FAILED: 'walker.getUnsigned4(debugInfoForCUSize) == status_Ok'");
    EXPECT_EQ(m_module.load(symbol_kind_function), status_BadFileFormat);
    EXPECT_EQ(m_module.load(symbol_kind_function), status_Ok);
    EXPECT_EQ(m_module.loader().units().size(), 1u);
}

TEST_F(DwarfLoaderTest, AScanThatFoundNoUnitIsTriedAgain) {
    DwarfUnitOptions five;
    five.version = 5;
    m_module.unit({}, five).endUnit();
    expectLog("ASSERTION FAILED: 'version <= 4'", 2);
    EXPECT_EQ(m_module.load(symbol_kind_function), status_UnsupportedFormatVersion);
    EXPECT_EQ(m_module.load(symbol_kind_function), status_UnsupportedFormatVersion);
}

// --- Lines, units, resolver

TEST_F(DwarfLoaderTest, LinesMayBeAskedForBeforeAnySymbol) {
    const unsigned long long lines = m_module.lineProgram({"a.c"});
    m_module.unit(M::lines(lines)).endUnit();
    SymMgrObjectPtr<ISourceLocation> location;
    m_module.scope().lineResolver()->sourceLocationAt(location, 0x1000, 0, nullptr, nullptr);
    ASSERT_TRUE(location);
    EXPECT_EQ(location->line(), 1u);
    EXPECT_EQ(m_module.loader().loadLineTable(nullptr), status_Ok);
}

TEST_F(DwarfLoaderTest, OneUnitWithLinesIsEnoughForTheStatus) {
    const unsigned long long lines = m_module.lineProgram({"a.c"});
    m_module.unit().endUnit();
    m_module.unit(M::lines(lines)).endUnit();
    m_module.unit().endUnit();
    m_module.scope();
    EXPECT_EQ(m_module.loader().loadLineTable(nullptr), status_Ok);
    EXPECT_EQ(m_module.loader().loadLineTable(nullptr), status_Ok);
}

TEST_F(DwarfLoaderTest, WithoutLinesInAnyUnitTheLastFailureIsTheStatus) {
    const unsigned long long lines = m_module.lineProgram({"a.c"});
    m_module.unit().endUnit();
    m_module.unit(M::lines(lines + 0x1000)).endUnit();
    m_module.scope();
    EXPECT_EQ(m_module.loader().loadLineTable(nullptr), status_BadDebugInfo);
}

TEST_F(DwarfLoaderTest, WithoutALineSectionThereAreSymbolsAndNoLines) {
    oneFunction(M::function("f", 0x1000, 0x20));
    m_module.scope();
    EXPECT_EQ(m_module.loader().loadLineTable(nullptr), status_NoDebugInfo);
    EXPECT_THAT(functions(), ElementsAre("f 0x1000-0x1020"));
}

TEST_F(DwarfLoaderTest, WithoutUnitsLinesFail) {
    m_module.scope();
    expectLog("Cannot read .debug_info section ");
    EXPECT_EQ(m_module.loader().loadLineTable(nullptr), status_Fail);
}

TEST_F(DwarfLoaderTest, UnitsAreFoundByTheirExactOffset) {
    m_module.unit().endUnit().unit().endUnit();
    const auto second = m_module.dwarf.unitOffset(1);
    EXPECT_EQ(m_module.loader().getCompilationUnit(0), nullptr);
    EXPECT_EQ(m_module.load(symbol_kind_function), status_Ok);
    ASSERT_NE(m_module.loader().getCompilationUnit(second), nullptr);
    EXPECT_EQ(m_module.loader().getCompilationUnit(second)->getOffset(), second);
    EXPECT_EQ(m_module.loader().getCompilationUnit(second + 1), nullptr);
}

TEST_F(DwarfLoaderTest, HasOneLineResolver) {
    oneFunction(M::function("f", 0x1000, 0x20));
    GlobalScope& scope = m_module.scope();
    OrnLock lock;
    EXPECT_EQ(m_module.loader().getLineResolver(&scope, &lock), scope.lineResolver());
    EXPECT_EQ(m_module.loader().loadLock(), &lock);
}

TEST_F(DwarfLoaderTest, SaysItsPathAndType) {
    EXPECT_STREQ(m_module.loader().getPath(), "/module.debug");
    EXPECT_EQ(m_module.loader().getType(), 1u);
}

class OneSection : public MemoryHelper {
public:
    void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned index) override {
        out = index == 7 ? section.get() : nullptr;
    }
    SymMgrObjectPtr<ISection> section = new FakeSection;
};

TEST_F(DwarfLoaderTest, SectionsAreThoseOfTheHelper) {
    const SymMgrObjectPtr<OneSection> helper = new OneSection;
    m_module.loaderHelper = helper.get();
    SymMgrObjectPtr<ISection> section;
    m_module.loader().getSectionByIndex(section, 7);
    EXPECT_EQ(section.get(), helper->section.get());
    m_module.loader().getSectionByIndex(section, 8);
    EXPECT_FALSE(section);
    const SymMgrObjectPtr<DWARFDebugInfoLoader> helperless =
        new DWARFDebugInfoLoader(m_module.format, "/module", nullptr, 0, nullptr);
    section = helper->section;
    helperless->getSectionByIndex(section, 7);
    EXPECT_FALSE(section);
}

// --- Functions

TEST_F(DwarfLoaderTest, AFunctionHasItsRangeAndIsLocal) {
    m_module.unit().endUnit();
    oneFunction(M::function("f", 0x1000, 0x20));
    DWARFSymbol* symbol = m_module.symbolAt(0x101f);
    ASSERT_NE(symbol, nullptr);
    EXPECT_THAT(functions(), ElementsAre("f 0x1000-0x1020"));
    EXPECT_EQ(symbol->kind(), symbol_kind_function);
    EXPECT_EQ(symbol->visibility(), symbol_visibility_local);
    EXPECT_EQ(symbol->id(), m_module.dwarf.unitOffset(1));
    EXPECT_EQ(symbol->value(), 0x1000u);
}

TEST_F(DwarfLoaderTest, AHighAddressMayBeAnOffsetOrAnAddress) {
    m_module.unit();
    m_module.leaf(DW_TAG_subprogram, M::function("offset", 0x1000, 0x20));
    m_module.leaf(DW_TAG_subprogram, M::named("address") + DwarfAttrs{{DW_AT_low_pc, DW_FORM_addr, 0x2000},
                                                                      {DW_AT_high_pc, DW_FORM_addr, 0x2020}});
    m_module.endUnit();
    EXPECT_THAT(functions(), ElementsAre("offset 0x1000-0x1020", "address 0x2000-0x2020"));
}

TEST_F(DwarfLoaderTest, AFunctionThatEndsBelowItsStartIsNone) {
    oneFunction(M::named("f") +
                DwarfAttrs{{DW_AT_low_pc, DW_FORM_addr, 0x2000}, {DW_AT_high_pc, DW_FORM_addr, 0x1fff}});
    EXPECT_THAT(functions(), IsEmpty());
}

TEST_F(DwarfLoaderTest, AFunctionOutsideEverySegmentIsNone) {
    m_module.hasOwnSegments = true;
    m_module.format->segment(0x1000, 0x100);
    m_module.format->segment(0x3000, 0x100);
    m_module.unit();
    for (unsigned long long low : {0xfff, 0x1000, 0x1100, 0x1101, 0x3000, 0x3101})
        m_module.leaf(DW_TAG_subprogram, M::function("f", low, 1));
    m_module.endUnit();
    // The address one past a segment's end belongs to it.
    EXPECT_THAT(functions(), ElementsAre("f 0x1000-0x1001", "f 0x1100-0x1101", "f 0x3000-0x3001"));
}

TEST_F(DwarfLoaderTest, SegmentsAreRelativeToTheImageBase) {
    m_module.hasOwnSegments = true;
    m_module.format->imageBase = 0x400000;
    m_module.format->segment(0x401000, 0x100);
    m_module.unit();
    m_module.leaf(DW_TAG_subprogram, M::function("f", 0x401000, 0x10));
    m_module.leaf(DW_TAG_subprogram, M::function("g", 0x1000, 0x10)).endUnit();
    EXPECT_THAT(functions(), ElementsAre("f 0x401000-0x401010"));
}

class UnfilledSegment : public SegmentsLoader {
public:
    UnfilledSegment() { addSegment(0x1000, ".bss", 0x1000, 0x400, 0x10, 0x100, 0); }
};

TEST_F(DwarfLoaderTest, SegmentsAreAsLargeAsInMemory) {
    m_module.hasOwnSegments = true;
    m_module.format = new UnfilledSegment;
    m_module.unit().leaf(DW_TAG_subprogram, M::function("f", 0x1100, 1));
    m_module.leaf(DW_TAG_subprogram, M::function("g", 0x1101, 1)).endUnit();
    EXPECT_THAT(functions(), ElementsAre("f 0x1100-0x1101"));
}

TEST_F(DwarfLoaderTest, ADeclarationIsNoFunction) {
    m_module.unit();
    m_module.open(DW_TAG_subprogram,
                  M::named("f") + DwarfAttrs{{DW_AT_declaration, DW_FORM_flag_present, 1}});
    m_module.leaf(DW_TAG_variable, M::named("v") + M::place(0x2000)).close();
    m_module.endUnit();
    EXPECT_THAT(m_module.symbols(), IsEmpty());
}

TEST_F(DwarfLoaderTest, AnAbstractInstanceMakesNothing) {
    oneFunction(M::named("f") + DwarfAttrs{{DW_AT_inline, DW_FORM_data1, 1}});
    EXPECT_THAT(m_module.symbols(), IsEmpty());
}

TEST_F(DwarfLoaderTest, ANamelessAbstractInstanceHasItsChildrenWalked) {
    m_module.unit().open(DW_TAG_subprogram, {{DW_AT_inline, DW_FORM_data1, 1}});
    m_module.leaf(DW_TAG_variable, M::named("v") + M::place(0x2000)).close().endUnit();
    EXPECT_THAT(m_module.symbols(), ElementsAre("v 0x2000-0x2000"));
}

TEST_F(DwarfLoaderTest, AddressesAreFoundThroughReferences) {
    m_module.unit();
    m_module.open(DW_TAG_structure_type);
    m_module.leaf(DW_TAG_subprogram, M::code(0x1000, 0x20), "declared").close();
    m_module.leaf(DW_TAG_subprogram, M::named("f") + M::declaredBy("declared")).endUnit();
    EXPECT_THAT(functions(), ElementsAre("f 0x1000-0x1020"));
}

TEST_F(DwarfLoaderTest, ARangeListMakesARangeForEachPair) {
    m_module.pair(0x2000, 0x2010).pair(0x1000, 0x1020).pair(0, 0);
    oneFunction(M::named("f") + M::ranges(0));
    EXPECT_THAT(functions(), ElementsAre("f 0x1000-0x1020", "f 0x2000-0x2010"));
    EXPECT_EQ(m_module.symbolAt(0x2000)->value(), 0x1000u);
}

TEST_F(DwarfLoaderTest, ARangeListComesBeforeLowAndHigh) {
    m_module.pair(0x2000, 0x2010).pair(0, 0);
    oneFunction(M::function("f", 0x1000, 0x20) + M::ranges(0));
    EXPECT_THAT(functions(), ElementsAre("f 0x2000-0x2010"));
}

TEST_F(DwarfLoaderTest, AnEmptyRangeListMakesNothing) {
    m_module.pair(0, 0);
    m_module.unit({{DW_AT_low_pc, DW_FORM_addr, 0x1000}});
    m_module.leaf(DW_TAG_subprogram, M::named("f") + M::ranges(0)).endUnit();
    EXPECT_THAT(functions(), IsEmpty());
}

TEST_F(DwarfLoaderTest, TheBiasMovesFunctionsRangesAndVariables) {
    m_module.bias = 0x10000;
    m_module.hasOwnSegments = true;
    m_module.format->segment(0x11000, 0x8000);
    m_module.pair(0x500, 0x510).pair(0, 0);
    m_module.unit({{DW_AT_low_pc, DW_FORM_addr, 0x1000}});
    m_module.leaf(DW_TAG_subprogram, M::function("f", 0x1000, 0x20));
    m_module.leaf(DW_TAG_subprogram, M::named("g") + M::ranges(0));
    m_module.leaf(DW_TAG_variable, M::named("v") + M::place(0x2000)).endUnit();
    EXPECT_THAT(m_module.symbols(),
                ElementsAre("f 0x11000-0x11020", "g 0x11500-0x11510", "v 0x12000-0x12000"));
}

class HalvingMap : public SymMgrObject<IAddressMapping> {
public:
    HalvingMap() : SymMgrObject<IAddressMapping>(nullptr) {}
    status_t convert(unsigned long long& low, unsigned long long& high) override {
        low /= 2;
        high /= 2;
        return status_Ok;
    }
    void addMapping(unsigned long long, unsigned long long) override {}
};

class MappedLoader : public DWARFDebugInfoLoader {
public:
    using DWARFDebugInfoLoader::DWARFDebugInfoLoader;
    using DWARFDebugInfoLoader::setAddressMapping;
};

TEST_F(DwarfLoaderTest, AnAddressMappingConvertsLowHighAndEachRange) {
    m_module.pair(0x4000, 0x4010).pair(0x6000, 0x6010).pair(0, 0);
    m_module.unit().leaf(DW_TAG_subprogram, M::function("f", 0x2000, 0x20));
    m_module.leaf(DW_TAG_subprogram, M::named("g") + M::ranges(0)).endUnit();
    SymMgrObjectPtr<MappedLoader> loader =
        new MappedLoader(m_module.format, "/module", &m_module.helper(), 0, nullptr);
    loader->setAddressMapping(new HalvingMap);
    GlobalScope scope(m_module.format, loader, nullptr);
    EXPECT_THAT(DwarfModule::listOf(scope),
                ElementsAre("f 0x1000-0x1010", "g 0x2000-0x2008", "g 0x3000-0x3008"));
}

// --- Names

class DwarfNameTest : public DwarfLoaderTest {
protected:
    /// Name of the function with these attributes; empty without one.
    std::string nameOf(const DwarfAttrs& attrs, unsigned language = DW_LANG_C89) {
        DwarfModule module;
        module.unit(M::language(language));
        module.leaf(DW_TAG_subprogram, attrs + M::code(0x1000, 0x20)).endUnit();
        DWARFSymbol* symbol = module.symbolAt(0x1000);
        return symbol ? symbol->rawName() : "";
    }
    static DwarfAttrs linkage(const char* name) { return {{DW_AT_linkage_name, DW_FORM_string, name}}; }
    static DwarfAttrs mips(const char* name) { return {{DW_AT_MIPS_linkage_name, DW_FORM_string, name}}; }
};

TEST_F(DwarfNameTest, TheLinkageNameComesFirstAndTheOlderAttributeBeforeIt) {
    EXPECT_EQ(nameOf(M::named("f")), "f");
    EXPECT_EQ(nameOf(M::named("f") + linkage("_Z1fv")), "_Z1fv");
    EXPECT_EQ(nameOf(M::named("f") + linkage("_Z1fv") + mips("_Z1fi")), "_Z1fi");
}

TEST_F(DwarfNameTest, AnEmptyLinkageNameIsNoName) {
    EXPECT_EQ(nameOf(M::named("f") + linkage("")), "");
    EXPECT_EQ(nameOf(M::named("f") + linkage("_Z1fv") + mips("")), "");
}

TEST_F(DwarfNameTest, ALinkageNameOutsideTheTextsIsAnEmptyOne) {
    EXPECT_EQ(nameOf(M::named("f") +
                     DwarfAttrs{{DW_AT_linkage_name, DW_FORM_strp, DwarfValue::raw({0xff, 0xff, 0, 0})}}),
              "");
}

TEST_F(DwarfNameTest, AnEmptyNameIsNone) {
    EXPECT_EQ(nameOf(M::named("")), "");
    EXPECT_EQ(nameOf({}), "");
}

TEST_F(DwarfNameTest, FollowsReferences) {
    m_module.unit().open(DW_TAG_structure_type);
    m_module.leaf(DW_TAG_subprogram, M::named("f") + linkage("_ZN1S1fEv"), "declared").close();
    m_module.leaf(DW_TAG_subprogram, M::declaredBy("declared") + DwarfAttrs{{DW_AT_inline, DW_FORM_data1, 1}},
                  "abstract");
    m_module.leaf(DW_TAG_subprogram, M::origin("abstract") + M::code(0x1000, 0x20)).endUnit();
    EXPECT_THAT(functions(), ElementsAre("_ZN1S1fEv 0x1000-0x1020"));
}

TEST_F(DwarfNameTest, InFortranALastUnderscoreGoes) {
    EXPECT_EQ(nameOf(M::named("f_"), DW_LANG_Fortran77), "f");
    EXPECT_EQ(nameOf(M::named("f__"), DW_LANG_Fortran90), "f_");
    EXPECT_EQ(nameOf(M::named("f"), DW_LANG_Fortran95), "f");
    EXPECT_EQ(nameOf(M::named("_BLNK_"), DW_LANG_Fortran77), "_BLNK_");
    EXPECT_EQ(nameOf(M::named("f_")), "f_");
}

TEST_F(DwarfNameTest, AFunctionWithoutANameHasItsChildrenWalked) {
    m_module.unit().open(DW_TAG_subprogram, M::code(0x1000, 0x100));
    m_module.leaf(DW_TAG_subprogram, M::function("inner", 0x1010, 0x10)).close().endUnit();
    EXPECT_THAT(functions(), ElementsAre("inner 0x1010-0x1020"));
}

// --- Where functions are looked for

class DwarfWalkTest : public DwarfLoaderTest {
protected:
    /// What is found below an entry of a tag.
    std::vector<std::string> below(uint64_t tag, symbol_kind_t mask = symbol_kind_function,
                                   unsigned language = DW_LANG_C89) {
        DwarfModule module;
        module.unit(M::language(language)).open(tag, M::function("outer", 0x1000, 0x1000));
        module.leaf(DW_TAG_subprogram, M::function("f", 0x1100, 0x20));
        module.leaf(DW_TAG_variable, M::named("v") + M::place(0x3000)).close().endUnit();
        return module.symbols(mask);
    }
};

TEST_F(DwarfWalkTest, BlocksModulesAndCommonBlocksAreEntered) {
    for (unsigned tag :
         {DW_TAG_lexical_block, DW_TAG_try_block, DW_TAG_common_block, DW_TAG_module, DW_TAG_compile_unit})
        EXPECT_THAT(below(tag), ElementsAre("f 0x1100-0x1120")) << tag;
}

TEST_F(DwarfWalkTest, NamespacesTypesAndUnknownTagsAreNot) {
    for (unsigned tag : {DW_TAG_namespace + 0U, DW_TAG_structure_type + 0U, DW_TAG_class_type + 0U, 0x4109U})
        EXPECT_THAT(below(tag), IsEmpty()) << tag;
}

TEST_F(DwarfWalkTest, OnlyInFortranFunctionsAreEntered) {
    EXPECT_THAT(below(DW_TAG_subprogram), ElementsAre("outer 0x1000-0x2000"));
    EXPECT_THAT(below(DW_TAG_subprogram, symbol_kind_function, DW_LANG_Fortran90),
                ElementsAre("outer 0x1000-0x2000", "f 0x1100-0x1120"));
}

TEST_F(DwarfWalkTest, VariablesInsideFunctionsAreThereInFortranAlone) {
    EXPECT_THAT(below(DW_TAG_subprogram, symbol_kind_variable), IsEmpty());
    EXPECT_THAT(below(DW_TAG_subprogram, symbol_kind_variable, DW_LANG_Fortran90),
                ElementsAre("v 0x3000-0x3000"));
}

TEST_F(DwarfWalkTest, ExpandedCallsAreEnteredAndMakeNothing) {
    EXPECT_THAT(below(DW_TAG_inlined_subroutine), ElementsAre("f 0x1100-0x1120"));
}

TEST_F(DwarfWalkTest, LabelsAndVariablesAreEnteredIfTheyAreWanted) {
    EXPECT_THAT(below(DW_TAG_label, symbol_kind_function), IsEmpty());
    EXPECT_THAT(below(DW_TAG_label, symbol_kind_label | symbol_kind_function),
                ElementsAre("outer 0x1000-0x1000", "f 0x1100-0x1120"));
    EXPECT_THAT(below(DW_TAG_variable, symbol_kind_function), IsEmpty());
    EXPECT_THAT(below(DW_TAG_variable, symbol_kind_variable | symbol_kind_function),
                ElementsAre("f 0x1100-0x1120", "v 0x3000-0x3000"));
}

TEST_F(DwarfWalkTest, EntryPointsAreAKindOfTheirOwn) {
    m_module.unit().leaf(DW_TAG_entry_point, M::function("e", 0x1000, 0x20)).endUnit();
    EXPECT_THAT(m_module.symbols(symbol_kind_function), IsEmpty());
    EXPECT_THAT(m_module.symbols(symbol_kind_entry_point), ElementsAre("e 0x1000-0x1020"));
    EXPECT_EQ(m_module.symbolAt(0x1000, symbol_kind_entry_point)->kind(), symbol_kind_entry_point);
}

TEST_F(DwarfWalkTest, AUnitThatIsNotACompileUnitIsPassed) {
    m_module.dwarf.beginUnit();
    m_module.open(DW_TAG_partial_unit).leaf(DW_TAG_subprogram, M::function("f", 0x1000, 0x20)).endUnit();
    oneFunction(M::function("g", 0x2000, 0x20));
    EXPECT_THAT(functions(), ElementsAre("g 0x2000-0x2020"));
}

TEST_F(DwarfWalkTest, AnUndecodableEntryEndsItsUnitAlone) {
    m_module.unit().leaf(DW_TAG_subprogram, M::function("f", 0x1000, 0x20));
    m_module.dwarf.info().uleb(1000);
    m_module.leaf(DW_TAG_subprogram, M::function("lost", 0x2000, 0x20)).endUnit();
    oneFunction(M::function("g", 0x3000, 0x20));
    expectLog("ASSERTION FAILED: 'false'");
    EXPECT_THAT(functions(), ElementsAre("f 0x1000-0x1020", "g 0x3000-0x3020"));
}

TEST_F(DwarfWalkTest, EntriesMayNestAsDeepAsTheyLike) {
    constexpr unsigned depth = 200000;
    m_module.unit().open(DW_TAG_lexical_block);
    for (unsigned i = 0; i < depth; ++i)
        m_module.dwarf.entry(2);
    m_module.leaf(DW_TAG_subprogram, M::function("f", 0x1000, 0x20));
    m_module.endUnit();
    EXPECT_THAT(functions(), ElementsAre("f 0x1000-0x1020"));
}

/// A structure whose sibling says that the function behind it is one of its children.
class SiblingTest : public DwarfLoaderTest {
protected:
    std::vector<std::string> functionsOf(const char* producer) {
        DwarfModule module;
        module.unit(M::producer(producer));
        module.open(DW_TAG_structure_type, {{DW_AT_sibling, DW_FORM_ref4, DwarfValue::ref("end")}});
        module.leaf(DW_TAG_member).close();
        module.leaf(DW_TAG_subprogram, M::function("f", 0x1000, 0x20));
        module.leaf(DW_TAG_subprogram, M::function("g", 0x2000, 0x20), "end").endUnit();
        return module.symbols(symbol_kind_function);
    }
};

TEST_F(SiblingTest, IsTrustedOfKnownCompilers) {
    EXPECT_THAT(functionsOf("GNU C 8.3.0"), ElementsAre("g 0x2000-0x2020"));
    EXPECT_THAT(functionsOf("Vexor(R) C, Version 12"), ElementsAre("g 0x2000-0x2020"));
}

TEST_F(SiblingTest, IsNotTrustedOfUnknownOnesAndOfOneThatGetsItWrong) {
    EXPECT_THAT(functionsOf("some compiler"), SizeIs(2));
    EXPECT_THAT(functionsOf("GNU C 2.96"), SizeIs(2));
}

TEST_F(DwarfLoaderTest, FurtherCompileOptionsAreMergedOnce) {
    m_module.unit(DwarfAttrs{{DW_AT_VEXOR_compile_options, DW_FORM_string, "-c "}});
    m_module.leaf(DW_TAG_VEXOR_compile_options, {{DW_AT_VEXOR_compile_options, DW_FORM_string, "-g -O2 "}});
    m_module.endUnit();
    EXPECT_EQ(m_module.load(symbol_kind_function), status_Ok);
    const std::string merged = m_module.loader().getCompilationUnit(0)->getCompileOptions();
    EXPECT_NE(merged.find("-g "), std::string::npos);
    EXPECT_EQ(m_module.load(symbol_kind_variable), status_Ok);
    EXPECT_EQ(m_module.loader().getCompilationUnit(0)->getCompileOptions(), merged);
}

// --- Labels and variables

TEST_F(DwarfLoaderTest, ALabelIsAPoint) {
    m_module.unit().leaf(DW_TAG_label, M::function("l", 0x1000, 0x20)).endUnit();
    EXPECT_THAT(m_module.symbols(symbol_kind_label), ElementsAre("l 0x1000-0x1000"));
    EXPECT_EQ(m_module.symbolAt(0x1000, symbol_kind_label)->kind(), symbol_kind_label);
}

TEST_F(DwarfLoaderTest, ALabelNeedsANameAndAnAddressInASegment) {
    m_module.unit();
    m_module.leaf(DW_TAG_label, M::named("nowhere"));
    m_module.leaf(DW_TAG_label, M::code(0x1000, 1));
    m_module.leaf(DW_TAG_label, M::function("", 0x1000, 1));
    m_module.leaf(DW_TAG_label, M::function("outside", 0x100, 1)).endUnit();
    EXPECT_THAT(m_module.symbols(symbol_kind_label), IsEmpty());
}

TEST_F(DwarfLoaderTest, AVariableNeedsAPlaceOfItsOwn) {
    m_module.unit();
    m_module.leaf(DW_TAG_variable, M::named("none"));
    m_module.leaf(DW_TAG_variable, M::named("local") + DwarfAttrs{{DW_AT_location, DW_FORM_exprloc,
                                                                   std::vector<uint8_t>{DW_OP_fbreg, 0x10}}});
    m_module.leaf(DW_TAG_variable,
                  M::named("empty") + DwarfAttrs{{DW_AT_location, DW_FORM_exprloc, std::vector<uint8_t>{}}});
    m_module.leaf(DW_TAG_variable, M::named("list") + DwarfAttrs{{DW_AT_location, DW_FORM_sec_offset, 3}});
    m_module.leaf(DW_TAG_variable, M::place(0x2000));
    m_module.leaf(DW_TAG_variable, M::named("outside") + M::place(0x100));
    m_module.leaf(DW_TAG_variable, M::named("v") + M::place(0x2000)).endUnit();
    EXPECT_THAT(m_module.symbols(symbol_kind_variable), ElementsAre("v 0x2000-0x2000"));
    EXPECT_EQ(m_module.symbolAt(0x2000, symbol_kind_variable)->kind(), symbol_kind_variable);
}

TEST_F(DwarfLoaderTest, AnOlderBlockTellsAPlaceAsWell) {
    DwarfAttrs place = M::place(0x2000);
    place[0].form = DW_FORM_block1;
    m_module.unit().leaf(DW_TAG_variable, M::named("v") + place).endUnit();
    EXPECT_THAT(m_module.symbols(symbol_kind_variable), ElementsAre("v 0x2000-0x2000"));
}

TEST_F(DwarfLoaderTest, AnAddressThatIsCutOffReadsZerosForWhatIsMissing) {
    m_module.unit().leaf(DW_TAG_variable,
                         M::named("v") + DwarfAttrs{{DW_AT_location, DW_FORM_exprloc,
                                                     std::vector<uint8_t>{DW_OP_addr, 0x34, 0x12}}});
    m_module.endUnit();
    EXPECT_THAT(m_module.symbols(symbol_kind_variable), ElementsAre("v 0x1234-0x1234"));
}

TEST_F(DwarfLoaderTest, AStaticMemberHasTheNameOfItsDeclaration) {
    m_module.unit().open(DW_TAG_structure_type);
    m_module.leaf(DW_TAG_member, M::named("s"), "declared").close();
    m_module.leaf(DW_TAG_variable, M::declaredBy("declared") + M::place(0x2000) +
                                       DwarfAttrs{{DW_AT_linkage_name, DW_FORM_string, "_ZN1S1sE"}});
    m_module.endUnit();
    EXPECT_THAT(m_module.symbols(symbol_kind_variable), ElementsAre("_ZN1S1sE 0x2000-0x2000"));
}

/// Sizes of variables by their types.
class VariableSizeTest : public DwarfLoaderTest {
protected:
    VariableSizeTest() { m_module.unit(M::language(DW_LANG_C89)); }

    static DwarfAttrs size(unsigned bytes) { return {{DW_AT_byte_size, DW_FORM_data1, bytes}}; }
    void subrange(const DwarfAttrs& attrs) { m_module.leaf(DW_TAG_subrange_type, attrs); }
    static DwarfAttrs upper(long long bound) { return {{DW_AT_upper_bound, DW_FORM_sdata, bound}}; }
    static DwarfAttrs lower(long long bound) { return {{DW_AT_lower_bound, DW_FORM_sdata, bound}}; }

    unsigned long long sizeOf(const char* label) {
        m_module.leaf(DW_TAG_variable, M::named("v") + M::place(0x2000) + M::type(label)).endUnit();
        SymMgrObjectPtr<ISymbolRange> range = m_module.at(0x2000, symbol_kind_variable);
        EXPECT_TRUE(range);
        return range ? range->size() : ~0ULL;
    }
};

TEST_F(VariableSizeTest, IsThatOfTheBaseTypeBehindTypedefsAndQualifiers) {
    m_module.leaf(DW_TAG_base_type, M::named("int") + size(4), "int");
    m_module.leaf(DW_TAG_typedef, M::named("t") + M::type("int"), "t");
    m_module.leaf(DW_TAG_const_type, M::type("t"), "const");
    m_module.leaf(DW_TAG_volatile_type, M::type("const"), "volatile");
    EXPECT_EQ(sizeOf("volatile"), 4u);
}

TEST_F(VariableSizeTest, OfAPointerIsItsOwn) {
    m_module.leaf(DW_TAG_structure_type, M::named("s") + size(100), "s");
    m_module.leaf(DW_TAG_pointer_type, M::type("s") + size(8), "p");
    EXPECT_EQ(sizeOf("p"), 8u);
}

TEST_F(VariableSizeTest, OfAnArrayIsTheProductOfItsDimensions) {
    m_module.leaf(DW_TAG_base_type, M::named("int") + size(4), "int");
    m_module.open(DW_TAG_array_type, M::type("int"), "a");
    subrange(upper(9));
    subrange(lower(1) + upper(3));
    m_module.close();
    EXPECT_EQ(sizeOf("a"), 4u * 10 * 3);
}

TEST_F(VariableSizeTest, OfAnArrayOfArraysIsFoundTheSameWay) {
    m_module.leaf(DW_TAG_base_type, M::named("int") + size(4), "int");
    m_module.open(DW_TAG_array_type, M::type("int"), "inner");
    subrange(upper(9));
    m_module.close().open(DW_TAG_array_type, M::type("inner"), "outer");
    subrange(upper(1));
    m_module.close();
    EXPECT_EQ(sizeOf("outer"), 80u);
}

TEST_F(VariableSizeTest, ABoundThatIsComputedLeavesAnArrayUnsized) {
    m_module.leaf(DW_TAG_base_type, M::named("int") + size(4), "int");
    m_module.open(DW_TAG_array_type, M::type("int"), "a");
    subrange({{DW_AT_upper_bound, DW_FORM_exprloc, std::vector<uint8_t>{1}}});
    m_module.close();
    EXPECT_EQ(sizeOf("a"), 0u);
}

TEST_F(VariableSizeTest, AnArrayOfOneElementIsUnsized) {
    m_module.leaf(DW_TAG_base_type, M::named("int") + size(4), "int");
    m_module.open(DW_TAG_array_type, M::type("int"), "a");
    subrange(upper(0));
    m_module.close();
    EXPECT_EQ(sizeOf("a"), 0u);
}

TEST_F(VariableSizeTest, AnArraysOwnSizeWins) {
    m_module.leaf(DW_TAG_base_type, M::named("int") + size(4), "int");
    m_module.open(DW_TAG_array_type, M::type("int") + size(7), "a");
    subrange(upper(9));
    m_module.close();
    EXPECT_EQ(sizeOf("a"), 7u);
}

TEST_F(VariableSizeTest, TypesThatLeadRoundInACircleHaveNone) {
    m_module.leaf(DW_TAG_typedef, M::type("b"), "a");
    m_module.leaf(DW_TAG_typedef, M::type("a"), "b");
    EXPECT_EQ(sizeOf("a"), 0u);
}

TEST_F(DwarfLoaderTest, InFortranAnArrayCountsFromOne) {
    m_module.unit(M::language(DW_LANG_Fortran90));
    m_module.leaf(DW_TAG_base_type, M::named("integer") + DwarfAttrs{{DW_AT_byte_size, DW_FORM_data1, 4}},
                  "i");
    m_module.open(DW_TAG_array_type, M::type("i"), "a");
    m_module.leaf(DW_TAG_subrange_type, {{DW_AT_upper_bound, DW_FORM_sdata, 10}}).close();
    m_module.leaf(DW_TAG_variable, M::named("v") + M::place(0x2000) + M::type("a")).endUnit();
    EXPECT_THAT(m_module.symbols(symbol_kind_variable), ElementsAre("v 0x2000-0x2028"));
}

TEST_F(DwarfLoaderTest, TypesKnowIntegersAndStructures) {
    m_module.unit();
    for (const char* name : {"int", "long int", "unsigned short", "short", " int", "print", "char"})
        m_module.leaf(DW_TAG_base_type, M::named(name), name);
    m_module.leaf(DW_TAG_typedef, M::type("int"), "t");
    m_module.leaf(DW_TAG_const_type, M::type("int"), "c");
    m_module.leaf(DW_TAG_union_type, M::named("u"), "u");
    m_module.leaf(DW_TAG_pointer_type, M::type("u"), "p").endUnit();
    EXPECT_EQ(m_module.load(symbol_kind_function), status_Ok);
    DWARFCompilationUnit& unit = *m_module.loader().units().begin()->second;
    const auto read = [&](const char* label) {
        TypeInfo info;
        EXPECT_TRUE(m_module.loader().types().readType(unit, m_module.dwarf.offsetOf(label), info));
        return info;
    };
    for (const char* name : {"int", "long int", "unsigned short", "short", " int", "t"})
        EXPECT_TRUE(read(name).isInteger) << name;
    for (const char* name : {"print", "char", "c"})
        EXPECT_FALSE(read(name).isInteger) << name;
    EXPECT_EQ(read("p").structOffset, m_module.dwarf.offsetOf("u"));
    EXPECT_EQ(read("p").tag, DW_TAG_pointer_type);
    EXPECT_EQ(read("int").structOffset, ~0ULL);
    TypeInfo none;
    EXPECT_FALSE(m_module.loader().types().readType(unit, ~0ULL, none));
    EXPECT_FALSE(m_module.loader().types().readType(unit, 0x100000, none));
}

// --- The filter

class DwarfFilterTest : public DwarfLoaderTest {
protected:
    /// What is loaded of the kinds if only these addresses are of interest.
    std::vector<std::string> loaded(symbol_kind_t mask, std::set<unsigned long long> addresses) {
        LoadFilter filter(&addresses);
        EXPECT_EQ(m_module.loader().loadSymbols(m_module.table(), &filter, mask, nullptr), status_Ok);
        std::vector<std::string> names;
        SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
        m_module.table()->symbolRanges(ranges, 0, ~0ULL, mask);
        for (auto range = ranges ? ranges->current() : nullptr; range;
             range = ranges->next() ? ranges->current() : nullptr)
            names.push_back(range->symbol()->rawName());
        return names;
    }
};

TEST_F(DwarfFilterTest, LimitsFunctionsRangesLabelsAndVariables) {
    m_module.pair(0x2000, 0x2010).pair(0x2100, 0x2110).pair(0, 0).pair(0x2200, 0x2210).pair(0, 0);
    m_module.unit();
    m_module.leaf(DW_TAG_base_type, DwarfAttrs{{DW_AT_byte_size, DW_FORM_data1, 4}}, "int");
    m_module.leaf(DW_TAG_subprogram, M::function("in", 0x1000, 0x20));
    m_module.leaf(DW_TAG_subprogram, M::function("out", 0x1020, 0x20));
    m_module.leaf(DW_TAG_subprogram, M::named("ranges-in") + M::ranges(0));
    m_module.leaf(DW_TAG_subprogram, M::named("ranges-out") + M::ranges(48));
    m_module.leaf(DW_TAG_label, M::function("label-in", 0x1010, 0));
    m_module.leaf(DW_TAG_label, M::function("label-out", 0x1011, 0));
    m_module.leaf(DW_TAG_variable, M::named("variable-in") + M::place(0x3000) + M::type("int"));
    m_module.leaf(DW_TAG_variable, M::named("variable-out") + M::place(0x3004) + M::type("int"));
    m_module.endUnit();
    EXPECT_THAT(loaded(symbol_kind_all, {0x1010, 0x2105, 0x3003}),
                UnorderedElementsAre("in", "ranges-in", "ranges-in", "label-in", "variable-in"));
}

TEST_F(DwarfFilterTest, AFortranFunctionOutsideIsNotEntered) {
    m_module.unit(M::language(DW_LANG_Fortran90)).openFunction("out", 0x1000, 0x20);
    m_module.leaf(DW_TAG_subprogram, M::function("inner", 0x2000, 0x20)).close().endUnit();
    EXPECT_THAT(loaded(symbol_kind_function, {0x2010}), IsEmpty());
}

// --- Declarations

TEST_F(DwarfLoaderTest, ASymbolKnowsItsUnitAndItsDeclaration) {
    const unsigned long long lines = m_module.lineProgram({"a.c", "b.c"});
    m_module.unit().endUnit();
    m_module.unit(M::lines(lines));
    m_module.leaf(DW_TAG_subprogram, M::function("f", 0x1000, 0x20) + M::declared(2, 7) +
                                         DwarfAttrs{{DW_AT_decl_column, DW_FORM_data1, 3},
                                                    {DW_AT_VEXOR_position_extra, DW_FORM_data1, 9}});
    m_module.endUnit();
    DWARFSymbol* symbol = m_module.symbolAt(0x1000);
    ASSERT_NE(symbol, nullptr);
    ICompUnitDetails* unit = nullptr;
    EXPECT_EQ(symbol->compUnitDetails(unit), status_Ok);
    EXPECT_EQ(unit, m_module.loader().getCompilationUnit(m_module.dwarf.unitOffset(1)));
    SymMgrObjectPtr<ISourceLocation> location;
    ASSERT_EQ(symbol->sourceLocation(location), status_Ok);
    EXPECT_STREQ(location->file()->name(), "b.c");
    EXPECT_EQ(location->line(), 7u);
    EXPECT_EQ(location->column(), 3u);
    EXPECT_EQ(location->extra(), 9u);
    EXPECT_EQ(location->symbolId(), m_module.dwarf.unitOffset(1));
    SymMgrObjectPtr<ISourceLocation> again;
    EXPECT_EQ(symbol->sourceLocation(again), status_Ok);
    EXPECT_EQ(again.get(), location.get());
}

TEST_F(DwarfLoaderTest, WithoutFileOrLineThereIsNoDeclaration) {
    const unsigned long long lines = m_module.lineProgram({"a.c"});
    m_module.unit(M::lines(lines));
    m_module.leaf(DW_TAG_subprogram, M::function("f", 0x1000, 1));
    m_module.leaf(DW_TAG_subprogram, M::function("f", 0x1001, 1) + M::declared(0, 1));
    m_module.leaf(DW_TAG_subprogram, M::function("f", 0x1002, 1) + M::declared(1, 0));
    m_module.leaf(DW_TAG_subprogram, M::function("f", 0x1003, 1) + M::declared(2, 1)).endUnit();
    for (unsigned long long address = 0x1000; address < 0x1004; ++address) {
        SymMgrObjectPtr<ISourceLocation> location;
        EXPECT_EQ(m_module.symbolAt(address)->sourceLocation(location), status_False) << address;
        EXPECT_FALSE(location);
    }
}

TEST_F(DwarfLoaderTest, AFileNumberCountsInTheUnitOfTheEntryThatHoldsIt) {
    const unsigned long long first = m_module.lineProgram({"declared.h"});
    const unsigned long long second = m_module.lineProgram({"defined.c"}, 0x2000);
    m_module.unit(M::lines(first)).open(DW_TAG_structure_type);
    m_module.leaf(DW_TAG_subprogram, M::named("f") + M::declared(1, 5), "declared").close().endUnit();
    m_module.unit(M::lines(second));
    m_module.leaf(DW_TAG_subprogram, M::declaredBy("declared") + M::code(0x2000, 0x20)).endUnit();
    SymMgrObjectPtr<ISourceLocation> location;
    ASSERT_EQ(m_module.symbolAt(0x2000)->sourceLocation(location), status_Ok);
    EXPECT_STREQ(location->file()->name(), "declared.h");
    EXPECT_EQ(location->line(), 5u);
}

TEST_F(DwarfLoaderTest, ASymbolFindsItsLines) {
    const unsigned long long lines = m_module.lineProgram({"a.c"}, 0x1000, 3);
    m_module.unit(M::lines(lines));
    m_module.leaf(DW_TAG_subprogram, M::function("f", 0x1000, 0x30) + M::declared(1, 1)).endUnit();
    DWARFSymbol* symbol = m_module.symbolAt(0x1000);
    SymMgrObjectPtr<IAddress> address;
    ASSERT_EQ(m_module.format->getAddress(address, 0x1018), status_Ok);
    SymMgrObjectPtr<ISourceLine> line;
    symbol->sourceLineAt(line, address);
    ASSERT_TRUE(line);
    EXPECT_EQ(line->location()->line(), 2u);
    symbol->sourceLineAt(line, nullptr);
    EXPECT_FALSE(line);
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>> all;
    symbol->sourceLines(all, nullptr, nullptr);
    ASSERT_TRUE(all && all->current());
    EXPECT_EQ(all->current()->location()->line(), 1u);
}

TEST_F(DwarfLoaderTest, ASymbolThatOutlivesTheLoaderKeepsItsUnit) {
    oneFunction(M::function("f", 0x1000, 0x20) + M::declared(1, 1));
    SymMgrObjectPtr<DWARFDebugInfoLoader> loader =
        new DWARFDebugInfoLoader(m_module.format, "/module", &m_module.helper(), 0, nullptr);
    Scope* none = nullptr;
    SymMgrObjectPtr<ISymbolTable> table = ISymbolTable::create(none);
    EXPECT_EQ(loader->loadSymbols(table, nullptr, symbol_kind_function, nullptr), status_Ok);
    loader = nullptr;
    SymMgrObjectPtr<ISymbolRange> range;
    table->symbolRangeByAddress(range, 0x1000, symbol_kind_function, nullptr);
    ASSERT_TRUE(range);
    ICompUnitDetails* unit = nullptr;
    EXPECT_EQ(range->symbol()->compUnitDetails(unit), status_Ok);
    EXPECT_EQ(unit->getOffset(), 0u);
    SymMgrObjectPtr<ISourceLocation> location;
    EXPECT_EQ(range->symbol()->sourceLocation(location), status_False);
    SymMgrObjectPtr<ISymbolRange> nested;
    EXPECT_EQ(static_cast<DWARFSymbol*>(range->symbol())->scope()->load(symbol_kind_function),
              status_NoDebugInfo);
}

// --- Memory

/// Loads a module in which one allocation fails; the status of that load.
status_t loadWithFailure(unsigned long number, bool& happened) {
    DwarfModule module;
    module.pair(0x2000, 0x2010).pair(0x2100, 0x2110).pair(0, 0);
    module.unit(M::language(DW_LANG_Fortran90)).openFunction("f", 0x1000, 0x100);
    module.open(DW_TAG_subprogram, M::named("g") + M::ranges(0));
    module.leaf(DW_TAG_label, M::function("l", 0x1010, 0)).close().close();
    module.leaf(DW_TAG_variable, M::named("v") + M::place(0x3000)).endUnit();
    ISymbolTable* table = module.table();
    const FailingAllocation failing(number);
    const status_t status = module.loader().loadSymbols(table, nullptr, symbol_kind_all, nullptr);
    happened = failing.happened();
    return status;
}

TEST_F(DwarfLoaderTest, EveryAllocationThatFailsIsReportedAndLeavesNothingBehind) {
    if (!ORN_3_30::test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    allowLog("Out of memory");
    bool happened = true;
    static_cast<void>(loadWithFailure(1, happened)); // what is made once for all stands now
    takeLogs();
    int failures = 0;
    for (unsigned long number = 1; happened; ++number) {
        const long before = liveAllocations();
        const status_t status = loadWithFailure(number, happened);
        takeLogs();
        // The sorting of the standard library does without the memory that it asks for.
        EXPECT_TRUE(status == status_OutOfMemory || status == status_Ok) << number << ": " << status;
        failures += status == status_OutOfMemory;
        EXPECT_EQ(liveAllocations(), before) << number;
    }
    EXPECT_GT(failures, 30);
}

} // namespace
} // namespace ORN_3_30::test
