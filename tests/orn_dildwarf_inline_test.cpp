#include "orn_dildwarf_inline.h"

#include "orn/source.h"
#include "orn_dildwarf.h"
#include "support/dwarf_module.h"
#include "support/orn_fixture.h"

namespace ORN_3_30::test {
namespace {

using orn_test::DwarfValue;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using M = DwarfModule;

class DwarfInlineTest : public OrnTest {
protected:
    /// A unit with the abstract instances of three functions.
    DwarfInlineTest& unit(const DwarfAttrs& attrs = {}) {
        const unsigned long long lines = m_module.lineProgram({"a.c", "b.h"}, 0x1000, 16);
        m_module.unit(M::lines(lines) + attrs);
        for (const char* name : {"a", "b", "c"})
            m_module.leaf(DW_TAG_subprogram,
                          M::named(name) + M::declared(2, 40) +
                              DwarfAttrs{{DW_AT_inline, DW_FORM_data1, 1},
                                         {DW_AT_decl_column, DW_FORM_data1, 4},
                                         {DW_AT_VEXOR_position_extra, DW_FORM_data1, 5}},
                          name);
        return *this;
    }
    static DwarfAttrs call(const char* of, unsigned long long low, unsigned long long size,
                           unsigned line = 7) {
        return M::origin(of) + M::code(low, size) + M::called(1, line);
    }
    /// Expansions below the function at an address, of the first level.
    std::vector<std::string> below(unsigned long long address) {
        Scope* scope = m_module.scopeAt(address);
        return scope ? DwarfModule::listOf(*scope, symbol_kind_function) : std::vector<std::string>{};
    }
    SymMgrObjectPtr<ISymbolRange> firstBelow(unsigned long long address) {
        SymMgrObjectPtr<ISymbolRange> range = m_module.at(address);
        return range ? m_module.nestedAt(*range, address) : nullptr;
    }

    DwarfModule m_module;
};

TEST_F(DwarfInlineTest, TheTreeIsReadLevelByLevel) {
    unit();
    m_module.openFunction("f", 0x1000, 0x100);
    m_module.open(DW_TAG_inlined_subroutine, call("a", 0x1010, 0x40));
    m_module.open(DW_TAG_lexical_block).open(DW_TAG_inlined_subroutine, call("b", 0x1018, 0x10));
    m_module.leaf(DW_TAG_inlined_subroutine, call("c", 0x101c, 4)).close().close().close();
    m_module.leaf(DW_TAG_inlined_subroutine, call("c", 0x1080, 4)).close().endUnit();

    EXPECT_THAT(m_module.symbols(symbol_kind_function), ElementsAre("f 0x1000-0x1100"));
    EXPECT_THAT(below(0x1000), ElementsAre("a 0x1010-0x1050", "c 0x1080-0x1084"));
    EXPECT_THAT(m_module.chainAt(0x1000), ElementsAre("f"));
    EXPECT_THAT(m_module.chainAt(0x1010), ElementsAre("f", "a"));
    EXPECT_THAT(m_module.chainAt(0x1018), ElementsAre("f", "a", "b"));
    EXPECT_THAT(m_module.chainAt(0x101c), ElementsAre("f", "a", "b", "c"));
    EXPECT_THAT(m_module.chainAt(0x1020), ElementsAre("f", "a", "b"));
    EXPECT_THAT(m_module.chainAt(0x1083), ElementsAre("f", "c"));
}

TEST_F(DwarfInlineTest, ANestedOneIsFoundOnlyAfterItsParentWasRead) {
    unit();
    m_module.openFunction("f", 0x1000, 0x100);
    m_module.open(DW_TAG_inlined_subroutine, call("a", 0x1010, 0x40));
    m_module.leaf(DW_TAG_inlined_subroutine, call("b", 0x1018, 0x10)).close().close().endUnit();
    SymMgrObjectPtr<ISymbolRange> outer = firstBelow(0x1018);
    ASSERT_TRUE(outer);
    EXPECT_STREQ(outer->symbol()->rawName(), "a");
    Scope* scope = static_cast<DWARFSymbol*>(outer->symbol())->scope();
    EXPECT_FALSE(scope->hasTable());
    EXPECT_EQ(scope->load(symbol_kind_function), status_Ok);
    EXPECT_THAT(DwarfModule::listOf(*scope), ElementsAre("b 0x1018-0x1028"));
}

TEST_F(DwarfInlineTest, TheInstanceKnowsItsCallAndItsFunction) {
    m_module.unit().endUnit();
    unit();
    m_module.openFunction("f", 0x1000, 0x100);
    m_module.leaf(DW_TAG_inlined_subroutine,
                  call("a", 0x1010, 0x40) + DwarfAttrs{{DW_AT_call_column, DW_FORM_data1, 3},
                                                       {DW_AT_VEXOR_position_extra, DW_FORM_data1, 9}});
    m_module.close().endUnit();
    SymMgrObjectPtr<ISymbolRange> range = firstBelow(0x1010);
    ASSERT_TRUE(range);
    IInlineInstance* instance = range->inlineInstance();
    ASSERT_NE(instance, nullptr);
    EXPECT_EQ(instance->symbol(), range->symbol());
    EXPECT_EQ(range->symbol()->kind(), symbol_kind_function);
    EXPECT_EQ(range->symbol()->visibility(), symbol_visibility_local);

    EXPECT_EQ(instance->hasCallSite(), 1);
    SymMgrObjectPtr<ISourceLocation> callSite;
    instance->callSite(callSite);
    ASSERT_TRUE(callSite);
    EXPECT_STREQ(callSite->file()->name(), "a.c");
    EXPECT_EQ(callSite->line(), 7u);
    EXPECT_EQ(callSite->column(), 3u);
    EXPECT_EQ(callSite->extra(), 9u);
    EXPECT_EQ(callSite->symbolId(), m_module.dwarf.unitOffset(1));
    EXPECT_EQ(instance->hasCallSite(), 1) << "it stays when the location is made";
    SymMgrObjectPtr<ISourceLocation> again;
    instance->callSite(again);
    EXPECT_EQ(again.get(), callSite.get());

    SymMgrObjectPtr<ISourceLocation> declaration;
    ASSERT_EQ(range->symbol()->sourceLocation(declaration), status_Ok);
    EXPECT_STREQ(declaration->file()->name(), "b.h");
    EXPECT_EQ(declaration->line(), 40u);
    EXPECT_EQ(declaration->column(), 4u);
    EXPECT_EQ(declaration->extra(), 5u);
}

TEST_F(DwarfInlineTest, AFunctionIsNoInstance) {
    unit();
    m_module.leaf(DW_TAG_subprogram, M::function("f", 0x1000, 0x100)).endUnit();
    EXPECT_EQ(m_module.at(0x1000)->inlineInstance(), nullptr);
}

TEST_F(DwarfInlineTest, WithoutFileOrLineThereIsNoCallSite) {
    unit();
    m_module.openFunction("f", 0x1000, 0x100);
    m_module.leaf(DW_TAG_inlined_subroutine, M::origin("a") + M::code(0x1000, 1) + M::called(0, 1));
    m_module.leaf(DW_TAG_inlined_subroutine, M::origin("b") + M::code(0x1001, 1) + M::called(1, 0));
    m_module.leaf(DW_TAG_inlined_subroutine, M::origin("c") + M::code(0x1002, 1)).close().endUnit();
    for (unsigned long long address = 0x1000; address < 0x1003; ++address) {
        SymMgrObjectPtr<ISymbolRange> range = firstBelow(address);
        ASSERT_TRUE(range && range->inlineInstance());
        EXPECT_EQ(range->inlineInstance()->hasCallSite(), 0);
        SymMgrObjectPtr<ISourceLocation> callSite;
        range->inlineInstance()->callSite(callSite);
        EXPECT_FALSE(callSite);
    }
}

TEST_F(DwarfInlineTest, ACallInAFileThatIsNotKnownHasNoLocation) {
    unit();
    m_module.openFunction("f", 0x1000, 0x100);
    m_module.leaf(DW_TAG_inlined_subroutine, M::origin("a") + M::code(0x1000, 1) + M::called(77, 1));
    m_module.close().endUnit();
    SymMgrObjectPtr<ISymbolRange> range = firstBelow(0x1000);
    ASSERT_TRUE(range && range->inlineInstance());
    EXPECT_EQ(range->inlineInstance()->hasCallSite(), 1);
    SymMgrObjectPtr<ISourceLocation> callSite;
    range->inlineInstance()->callSite(callSite);
    EXPECT_FALSE(callSite);
}

// --- What makes an instance

TEST_F(DwarfInlineTest, WithoutAnOriginThereIsNone) {
    unit();
    m_module.openFunction("f", 0x1000, 0x100);
    m_module.leaf(DW_TAG_inlined_subroutine, M::function("named", 0x1010, 0x10)).close().endUnit();
    EXPECT_THAT(below(0x1000), IsEmpty());
}

TEST_F(DwarfInlineTest, WithoutAddressesThereIsNone) {
    unit();
    m_module.openFunction("f", 0x1000, 0x100);
    m_module.leaf(DW_TAG_inlined_subroutine, M::origin("a")).close().endUnit();
    EXPECT_THAT(below(0x1000), IsEmpty());
}

TEST_F(DwarfInlineTest, AddressesOfTheOriginDoNotCount) {
    m_module.unit();
    m_module.leaf(DW_TAG_subprogram, M::function("a", 0x2000, 0x20), "a");
    m_module.openFunction("f", 0x1000, 0x100);
    m_module.leaf(DW_TAG_inlined_subroutine, M::origin("a")).close().endUnit();
    EXPECT_THAT(below(0x1000), IsEmpty());
}

TEST_F(DwarfInlineTest, ARangeThatLeavesItsSegmentMakesNone) {
    m_module.hasOwnSegments = true;
    m_module.format->segment(0x1000, 0x100);
    m_module.format->segment(0x2000, 0x100);
    m_module.pair(0x1010, 0x1020).pair(0x2010, 0x2020).pair(0, 0);
    unit();
    m_module.openFunction("f", 0x1000, 0x100);
    m_module.leaf(DW_TAG_inlined_subroutine, call("a", 0x10f0, 0x11));
    m_module.leaf(DW_TAG_inlined_subroutine, M::origin("b") + M::ranges(0));
    m_module.leaf(DW_TAG_inlined_subroutine, call("c", 0x10f0, 0x10)).close().endUnit();
    EXPECT_THAT(below(0x1000), ElementsAre("c 0x10f0-0x1100"));
}

TEST_F(DwarfInlineTest, RangesAreTakenUnlessLowAndHighAreBothThere) {
    m_module.pair(0x1030, 0x1040).pair(0x1010, 0x1020).pair(0, 0);
    unit();
    m_module.openFunction("f", 0x1000, 0x100);
    m_module.leaf(DW_TAG_inlined_subroutine,
                  M::origin("a") + M::ranges(0) + DwarfAttrs{{DW_AT_low_pc, DW_FORM_addr, 0x1050}});
    m_module.leaf(DW_TAG_inlined_subroutine, call("b", 0x1060, 0x10) + M::ranges(0)).close().endUnit();
    EXPECT_THAT(below(0x1000), ElementsAre("a 0x1010-0x1020", "a 0x1030-0x1040", "b 0x1060-0x1070"));
}

TEST_F(DwarfInlineTest, AHighBelowLowCountsAsLowAndLeavesNoCode) {
    unit();
    m_module.openFunction("f", 0x1000, 0x100);
    m_module.leaf(DW_TAG_inlined_subroutine,
                  M::origin("a") + DwarfAttrs{{DW_AT_low_pc, DW_FORM_addr, 0x1020},
                                              {DW_AT_high_pc, DW_FORM_addr, 0x1010}});
    m_module.close().endUnit();
    EXPECT_THAT(below(0x1000), IsEmpty());
}

TEST_F(DwarfInlineTest, ABaseThatLeavesTheFunctionIsDroppedForOneCompiler) {
    m_module.pair(~0ULL, 0x1000).pair(0x1010, 0x1020).pair(0, 0);
    unit(M::producer("Vexor(R) C, Version 12"));
    m_module.openFunction("f", 0x1000, 0x100);
    m_module.leaf(DW_TAG_inlined_subroutine, M::origin("a") + M::ranges(0)).close().endUnit();
    EXPECT_THAT(below(0x1000), ElementsAre("a 0x1010-0x1020"));
}

TEST_F(DwarfInlineTest, TheSameBaseStaysForOtherCompilers) {
    m_module.pair(~0ULL, 0x1000).pair(0x1010, 0x1020).pair(0, 0);
    unit(M::producer("GNU C 8.3.0"));
    m_module.openFunction("f", 0x1000, 0x100);
    m_module.leaf(DW_TAG_inlined_subroutine, M::origin("a") + M::ranges(0)).close().endUnit();
    EXPECT_THAT(below(0x1000), ElementsAre("a 0x2010-0x2020"));
}

TEST_F(DwarfInlineTest, TheSameBaseStaysForOldVersionsOfThatCompiler) {
    m_module.pair(~0ULL, 0x1000).pair(0x1010, 0x1020).pair(0, 0);
    unit(M::producer("Vexor(R) C, Version 7"));
    m_module.openFunction("f", 0x1000, 0x100);
    m_module.leaf(DW_TAG_inlined_subroutine, M::origin("a") + M::ranges(0)).close().endUnit();
    EXPECT_THAT(below(0x1000), ElementsAre("a 0x2010-0x2020"));
}

class QuarteringMap : public SymMgrObject<IAddressMapping> {
public:
    QuarteringMap() : SymMgrObject<IAddressMapping>(nullptr) {}
    status_t convert(unsigned long long& low, unsigned long long& high) override {
        low /= 4;
        high /= 4;
        return status_Ok;
    }
    void addMapping(unsigned long long, unsigned long long) override {}
};

class QuarteredLoader : public DWARFDebugInfoLoader {
public:
    using DWARFDebugInfoLoader::DWARFDebugInfoLoader;
    using DWARFDebugInfoLoader::setAddressMapping;
};

TEST_F(DwarfInlineTest, AnAddressMappingConvertsLowHighAndEachRange) {
    m_module.pair(0x4100, 0x4140).pair(0x4180, 0x41c0).pair(0, 0);
    unit();
    m_module.openFunction("f", 0x4000, 0x400);
    m_module.leaf(DW_TAG_inlined_subroutine, call("a", 0x4010, 0x20));
    m_module.leaf(DW_TAG_inlined_subroutine, M::origin("b") + M::ranges(0)).close().endUnit();
    const SymMgrObjectPtr<QuarteredLoader> loader =
        new QuarteredLoader(m_module.format, "/module", &m_module.helper(), 0, nullptr);
    loader->setAddressMapping(new QuarteringMap);
    GlobalScope scope(m_module.format, loader, nullptr);
    SymMgrObjectPtr<ISymbolRange> range;
    ASSERT_EQ(scope.symbolRangeByAddress(range, 0x1000, symbol_kind_function, nullptr), status_Ok);
    EXPECT_THAT(DwarfModule::listOf(*static_cast<DWARFSymbol*>(range->symbol())->scope()),
                ElementsAre("a 0x1004-0x100c", "b 0x1040-0x1050", "b 0x1060-0x1070"));
}

TEST_F(DwarfInlineTest, AnExpansionWithoutCodeMakesNoObject) {
    unit();
    m_module.openFunction("f", 0x1000, 0x100);
    m_module.open(DW_TAG_inlined_subroutine, call("a", 0x1010, 0x40));
    m_module.leaf(DW_TAG_inlined_subroutine, call("b", 0x1020, 0)).close();
    m_module.leaf(DW_TAG_inlined_subroutine, call("c", 0x1030, 0)).close().endUnit();
    EXPECT_THAT(below(0x1000), ElementsAre("a 0x1010-0x1050"));
    EXPECT_THAT(m_module.chainAt(0x1030), ElementsAre("f", "a"));
    EXPECT_THAT(m_module.chainAt(0x1020), ElementsAre("f", "a"));
    EXPECT_THAT(m_module.chainAt(0x1060), ElementsAre("f"));
}

// --- Names

class DwarfInlineNameTest : public DwarfInlineTest {
protected:
    static DwarfAttrs linkage(const char* name) { return {{DW_AT_linkage_name, DW_FORM_string, name}}; }
    static DwarfAttrs declaration() { return {{DW_AT_declaration, DW_FORM_flag_present, 1}}; }

    /// Name of an expansion of a function with these attributes.
    std::string nameOf(const DwarfAttrs& attrs, unsigned language = DW_LANG_C_plus_plus) {
        DwarfModule module;
        module.unit(M::language(language));
        module.leaf(DW_TAG_subprogram, M::named("declared") + linkage("_ZN1S1dEv"), "declared");
        module.leaf(DW_TAG_subprogram, attrs, "origin");
        module.openFunction("f", 0x1000, 0x100);
        module.leaf(DW_TAG_inlined_subroutine, M::origin("origin") + M::code(0x1010, 0x10)).close().endUnit();
        Scope* scope = module.scopeAt(0x1000);
        SymMgrObjectPtr<ISymbolRange> range;
        static_cast<void>(scope->symbolRangeByAddress(range, 0x1010, symbol_kind_function, nullptr));
        return range ? range->symbol()->rawName() : "";
    }
};

TEST_F(DwarfInlineNameTest, TheLinkageNameCountsInCplusplusOfADeclaredFunction) {
    EXPECT_EQ(nameOf(M::named("d") + linkage("_Z1dv") + declaration()), "_Z1dv");
    EXPECT_EQ(nameOf(M::declaredBy("declared")), "_ZN1S1dEv");
    EXPECT_EQ(nameOf(M::named("d") + linkage("_Z1dv")), "d");
    EXPECT_EQ(nameOf(M::named("d") + linkage("_Z1dv") + declaration(), DW_LANG_C89), "d");
    EXPECT_EQ(nameOf(M::declaredBy("declared"), DW_LANG_C89), "declared");
}

TEST_F(DwarfInlineNameTest, TheOlderAttributeComesFirst) {
    EXPECT_EQ(nameOf(M::named("d") + linkage("_Z1dv") + declaration() +
                     DwarfAttrs{{DW_AT_MIPS_linkage_name, DW_FORM_string, "_Z1di"}}),
              "_Z1di");
}

TEST_F(DwarfInlineNameTest, AnEmptyLinkageNameFallsToTheName) {
    EXPECT_EQ(nameOf(M::named("d") + linkage("") + declaration()), "d");
    const DwarfAttrs outsideTheTexts = {
        {DW_AT_linkage_name, DW_FORM_strp, DwarfValue::raw({0xff, 0xff, 0, 0})}};
    EXPECT_EQ(nameOf(M::named("d") + outsideTheTexts + declaration()), "d");
}

TEST_F(DwarfInlineNameTest, WithoutANameThereIsNoInstance) {
    EXPECT_EQ(nameOf({}), "");
    EXPECT_EQ(nameOf(M::named("")), "");
    EXPECT_EQ(nameOf(linkage("_Z1dv")), "");
}

TEST_F(DwarfInlineNameTest, InFortranALastUnderscoreGoes) {
    EXPECT_EQ(nameOf(M::named("d_"), DW_LANG_Fortran90), "d");
    EXPECT_EQ(nameOf(M::named("_BLNK_"), DW_LANG_Fortran90), "_BLNK_");
}

// --- Kinds

TEST_F(DwarfInlineTest, WithVariablesAloneThoseOfAnExpansionBelongToTheFunction) {
    unit();
    m_module.openFunction("f", 0x1000, 0x100);
    m_module.open(DW_TAG_inlined_subroutine, call("a", 0x1010, 0x40));
    m_module.leaf(DW_TAG_variable, M::named("v") + M::place(0x3000)).close().close().endUnit();
    Scope* scope = m_module.scopeAt(0x1000);
    EXPECT_EQ(scope->load(symbol_kind_variable), status_Ok);
    EXPECT_THAT(DwarfModule::listOf(*scope, symbol_kind_variable), ElementsAre("v 0x3000-0x3000"));
}

TEST_F(DwarfInlineTest, WithFunctionsAsWellTheyBelongToTheExpansion) {
    unit();
    m_module.openFunction("f", 0x1000, 0x100);
    m_module.open(DW_TAG_inlined_subroutine, call("a", 0x1010, 0x40));
    m_module.leaf(DW_TAG_variable, M::named("v") + M::place(0x3000)).close().close().endUnit();
    Scope* scope = m_module.scopeAt(0x1000);
    EXPECT_THAT(DwarfModule::listOf(*scope), ElementsAre("a 0x1010-0x1050"));
    SymMgrObjectPtr<ISymbolRange> instance = firstBelow(0x1010);
    Scope* inner = static_cast<DWARFSymbol*>(instance->symbol())->scope();
    EXPECT_THAT(DwarfModule::listOf(*inner), ElementsAre("v 0x3000-0x3000"));
}

TEST_F(DwarfInlineTest, ThousandsOfExpansionsAreFoundOneByOne) {
    m_module.hasOwnSegments = true;
    m_module.format->segment(0x1000, 0x1000000);
    unit();
    m_module.openFunction("f", 0x1000, 0x100000);
    m_module.leaf(DW_TAG_inlined_subroutine, call("a", 0x1010, 0x10));
    for (unsigned i = 1; i < 20000; ++i)
        m_module.leaf(DW_TAG_inlined_subroutine, call("a", 0x1010 + i * 0x20, 0x10));
    m_module.close().endUnit();
    for (unsigned i = 0; i < 20000; i += 1111) {
        EXPECT_THAT(m_module.chainAt(0x1018 + i * 0x20), ElementsAre("f", "a")) << i;
        EXPECT_THAT(m_module.chainAt(0x1020 + i * 0x20), ElementsAre("f")) << i;
    }
}

} // namespace
} // namespace ORN_3_30::test
