#include "orn_dildwarf_scope.h"

#include "orn_dildwarf.h"
#include "support/allocation.h"
#include "support/dwarf_module.h"
#include "support/orn_fixture.h"
#include "support/recording_sink.h"

#include <set>
#include <string>

namespace ORN_3_30::test {
namespace {

using orn_test::DwarfValue;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using M = DwarfModule;

/// How a scope of the debug information sees a plain one that starts where it starts.
class DwarfScopeMatchTest : public OrnTest {
protected:
    DwarfScopeMatchTest() {
        m_module.unit().endUnit();
        EXPECT_EQ(m_module.load(symbol_kind_function), status_Ok);
    }

    DWARFScope& debugScope(const char* name, std::vector<std::pair<unsigned, unsigned>> ranges) {
        DWARFCompilationUnit* unit = m_module.loader().units().begin()->second;
        m_debug = std::make_unique<DWARFScope>(m_module.format.get(), nullptr, DWARFName{name, true}, 0x1000,
                                               symbol_kind_function,
                                               DWARFScope::Entry{unit, 11, DW_TAG_subprogram});
        for (auto [low, high] : ranges)
            m_debug->addRange(low, high);
        return *m_debug;
    }
    Scope& plain(const char* name, unsigned low, unsigned high,
                 symbol_visibility_t visibility = symbol_visibility_global) {
        m_plain.emplace_back(
            createSymbolScope(*m_module.format, name, low, nullptr, visibility, symbol_kind_function));
        m_plain.back()->addRange(low, high);
        return *m_plain.back();
    }
    unsigned compare(Scope& other, unsigned long long nextKey = ~0ULL, Scope* nextScope = nullptr) {
        return m_debug->compare(&other, nextKey, nextScope);
    }

    DwarfModule m_module;
    std::unique_ptr<DWARFScope> m_debug;
    std::vector<std::unique_ptr<SymbolScope>> m_plain;
};

TEST_F(DwarfScopeMatchTest, AnotherStartIsAnotherThing) {
    debugScope("f", {{0x1000, 0x1020}});
    EXPECT_EQ(compare(plain("f", 0x1001, 0x1020)), 0u);
}

TEST_F(DwarfScopeMatchTest, APlainNameThatIsTheShortFormGivesItsNameAndVisibility) {
    debugScope("bar", {{0x1000, 0x1020}});
    EXPECT_EQ(compare(plain("_ZN3foo3barEi", 0x1000, 0x1020)), 24u);
    EXPECT_EQ(compare(plain("bar", 0x1000, 0x1020)), 24u);
}

/// The functions that a linker dropped all start at one address; there names are looked up, not compared one
/// by one.
TEST_F(DwarfScopeMatchTest, InACrowdTheSameThingIsFoundByAnyOfItsNames) {
    SymMgrObjectPtr<ISymbolTable> table = ISymbolTable::create(nullptr);
    DWARFCompilationUnit* unit = m_module.loader().units().begin()->second;
    std::vector<std::string> names{"bar"};
    for (int number = 0; number < 100; ++number)
        names.push_back("d" + std::to_string(number));
    for (const std::string& name : names) {
        auto* scope = new DWARFScope(m_module.format.get(), nullptr, DWARFName{name.c_str(), true}, 0x1000,
                                     symbol_kind_function, DWARFScope::Entry{unit, 11, DW_TAG_subprogram});
        scope->addRange(0x1000, 0x1020);
        EXPECT_EQ(table->addScopeRange(0x1000, 0x1020, scope), 1) << name;
    }
    auto addPlain = [&](const char* name) {
        plain(name, 0x1000, 0x1020);
        Scope* scope = m_plain.back().release();
        m_plain.pop_back();
        return table->addScopeRange(0x1000, 0x1020, scope);
    };
    EXPECT_EQ(addPlain("_ZN3foo3barEi"), 0); // by its short name
    EXPECT_EQ(addPlain("d7."), 0);           // but for the dot
    EXPECT_EQ(addPlain("d8"), 0);
    EXPECT_EQ(addPlain("other"), 1);
    EXPECT_EQ(addPlain("other"), 0);
    EXPECT_EQ(addPlain("_ZN3foo3barEi"), 0); // which is the scope's own name now

    std::multiset<std::string> held;
    SymMgrObjectPtr<Scope::RangeIterator> ranges;
    table->symbolRanges(ranges, 0x1000, 0x1020, symbol_kind_all);
    for (auto range = ranges->current(); range; range = ranges->next() ? ranges->current() : nullptr)
        held.insert(range->symbol()->rawName());
    EXPECT_EQ(held.size(), names.size() + 1);
    EXPECT_EQ(held.count("_ZN3foo3barEi"), 1u);
    EXPECT_EQ(held.count("bar"), 0u);
    EXPECT_EQ(held.count("d7."), 1u);
}

TEST_F(DwarfScopeMatchTest, EqualMangledNamesGiveTheVisibility) {
    debugScope("_ZN3foo3barEi", {{0x1000, 0x1020}});
    EXPECT_EQ(compare(plain("_ZN3foo3barEi", 0x1000, 0x1020)), 16u);
}

TEST_F(DwarfScopeMatchTest, MangledNamesOfOneShortFormGiveTheVisibility) {
    debugScope("_ZN3foo3barEi", {{0x1000, 0x1020}});
    EXPECT_EQ(compare(plain("_ZN3foo3barEl", 0x1000, 0x1020)), 16u);
    EXPECT_EQ(compare(plain("bar", 0x1000, 0x1020)), 16u);
}

TEST_F(DwarfScopeMatchTest, AFinalDotOfTheOtherDoesNotCount) {
    debugScope("f", {{0x1000, 0x1020}});
    EXPECT_EQ(compare(plain("f.", 0x1000, 0x1020)), 24u);
    EXPECT_EQ(compare(plain("f..", 0x1000, 0x1020)), 0u);
    EXPECT_EQ(compare(plain("f.x", 0x1000, 0x1020)), 0u);
    debugScope("f.", {{0x1000, 0x1020}});
    EXPECT_EQ(compare(plain("f", 0x1000, 0x1020)), 0u);
}

TEST_F(DwarfScopeMatchTest, OtherNamesAreOtherThings) {
    debugScope("f", {{0x1000, 0x1020}});
    EXPECT_EQ(compare(plain("g", 0x1000, 0x1020)), 0u);
    EXPECT_EQ(compare(plain("ff", 0x1000, 0x1020)), 0u);
    EXPECT_EQ(compare(plain("", 0x1000, 0x1020)), 0u);
}

TEST_F(DwarfScopeMatchTest, SeveralRangesAreFoldedIfTheEndsAreEqual) {
    debugScope("f", {{0x1000, 0x1020}, {0x1040, 0x1060}});
    EXPECT_EQ(compare(plain("f", 0x1000, 0x1060)), 4u + 24u);
    EXPECT_EQ(compare(plain("f", 0x1000, 0x1020)), 24u);
}

TEST_F(DwarfScopeMatchTest, AnEmptyOtherChangesNoRange) {
    debugScope("f", {{0x1000, 0x1020}});
    EXPECT_EQ(compare(plain("f", 0x1000, 0x1000)), 24u);
}

TEST_F(DwarfScopeMatchTest, AnEmptyScopeGrows) {
    debugScope("f", {{0x1000, 0x1000}});
    EXPECT_EQ(compare(plain("f", 0x1000, 0x1020)), 2u + 24u);
}

TEST_F(DwarfScopeMatchTest, GrowsUpToTheNextSymbol) {
    debugScope("f", {{0x1000, 0x1010}});
    EXPECT_EQ(compare(plain("f", 0x1000, 0x1020)), 2u + 24u);
    EXPECT_EQ(compare(plain("f", 0x1000, 0x1020), 0x1020), 2u + 24u);
    EXPECT_EQ(compare(plain("f", 0x1000, 0x1021), 0x1020), 24u);
    EXPECT_EQ(compare(plain("f", 0x1000, 0x1010), 0x1020), 24u);
    EXPECT_EQ(compare(plain("f", 0x1000, 0x100f), 0x1020), 24u);
    EXPECT_EQ(compare(plain("f", 0x1000, 0x1020), 0x1010), 24u);
}

TEST_F(DwarfScopeMatchTest, ShrinksIfItReachesIntoTheNextSymbol) {
    debugScope("f", {{0x1000, 0x1030}});
    EXPECT_EQ(compare(plain("f", 0x1000, 0x1020), 0x1020), 2u + 24u);
    EXPECT_EQ(compare(plain("f", 0x1000, 0x1020), 0x1030), 24u);
}

TEST_F(DwarfScopeMatchTest, KeepsItsEndWhereTheNextSymbolIsAPieceOfTheSameName) {
    debugScope("f", {{0x1000, 0x1030}});
    EXPECT_EQ(compare(plain("f", 0x1000, 0x1020), 0x1020, &plain("f.", 0x1020, 0x1030)), 24u);
    EXPECT_EQ(compare(plain("f", 0x1000, 0x1020), 0x1020, &plain("f", 0x1020, 0x1030)), 24u);
    EXPECT_EQ(compare(plain("f", 0x1000, 0x1020), 0x1020, &plain("g", 0x1020, 0x1030)), 2u + 24u);
    EXPECT_EQ(compare(plain("f", 0x1000, 0x101f), 0x1020, &plain("f", 0x1020, 0x1030)), 2u + 24u);
}

TEST_F(DwarfScopeMatchTest, MergesWhatTheBitsSay) {
    DWARFScope& scope = debugScope("bar", {{0x1000, 0x1010}});
    Scope& other = plain("_ZN3foo3barEi", 0x1000, 0x1020);
    scope.merge(&other, 16);
    EXPECT_STREQ(scope.symbol()->rawName(), "bar");
    EXPECT_EQ(scope.symbol()->visibility(), symbol_visibility_global);
    scope.merge(&other, 8);
    EXPECT_STREQ(scope.symbol()->rawName(), "_ZN3foo3barEi");
    EXPECT_EQ(scope.lastHigh(), 0x1010u);
    scope.merge(&other, 2);
    EXPECT_EQ(scope.lastHigh(), 0x1020u);
}

TEST_F(DwarfScopeMatchTest, FoldingLeavesOneRange) {
    DWARFScope& scope = debugScope("f", {{0x1000, 0x1010}, {0x1040, 0x1060}, {0x1080, 0x1090}});
    scope.merge(&plain("f", 0x1000, 0x1090), 4);
    EXPECT_FALSE(scope.hasManyRanges());
    EXPECT_EQ(scope.firstLow(), 0x1000u);
    EXPECT_EQ(scope.lastHigh(), 0x1090u);
}

TEST_F(DwarfScopeMatchTest, FoldingOneRangeChangesNothing) {
    DWARFScope& scope = debugScope("f", {{0x1000, 0x1010}});
    scope.merge(&plain("f", 0x1000, 0x1090), 4);
    EXPECT_EQ(scope.lastHigh(), 0x1010u);
}

// --- Together with the format's symbols

class DwarfScopeTest : public OrnTest {
protected:
    DwarfModule m_module;
};

TEST_F(DwarfScopeTest, ThePlainSymbolOfAFunctionIsTakenIn) {
    m_module.format->onRead = [this](ISymbolTable* sink) {
        SymbolScope* scope = createSymbolScope(*m_module.format, "_ZN3foo3barEi", 0x1000, sink->scope(),
                                               symbol_visibility_global, symbol_kind_function);
        scope->addRange(0x1000, 0x1030);
        sink->addScopeRange(0x1000, 0x1030, scope);
    };
    m_module.unit().leaf(DW_TAG_subprogram, M::function("bar", 0x1000, 0x20)).endUnit();
    EXPECT_THAT(m_module.symbols(symbol_kind_function), ElementsAre("_ZN3foo3barEi 0x1000-0x1030"));
    EXPECT_EQ(m_module.symbolAt(0x1028)->visibility(), symbol_visibility_global);
}

// --- What is inside

TEST_F(DwarfScopeTest, ReadsItsContentAtTheFirstQueryIntoItsOwnTable) {
    m_module.unit().openFunction("f", 0x1000, 0x100);
    m_module.leaf(DW_TAG_label, M::function("l", 0x1010, 0));
    m_module.open(DW_TAG_lexical_block);
    m_module.leaf(DW_TAG_variable, M::named("v") + M::place(0x3000)).close();
    m_module.leaf(DW_TAG_subprogram, M::function("nested", 0x1080, 0x10));
    m_module.close().endUnit();
    EXPECT_THAT(m_module.symbols(), ElementsAre("f 0x1000-0x1100"));
    Scope* scope = m_module.scopeAt(0x1000);
    ASSERT_NE(scope, nullptr);
    EXPECT_FALSE(scope->hasTable());
    EXPECT_THAT(DwarfModule::listOf(*scope, symbol_kind_label), ElementsAre("l 0x1010-0x1010"));
    EXPECT_THAT(DwarfModule::listOf(*scope, symbol_kind_variable), ElementsAre("v 0x3000-0x3000"));
    EXPECT_THAT(DwarfModule::listOf(*scope, symbol_kind_function), ElementsAre("nested 0x1080-0x1090"));
    EXPECT_EQ(scope->symbolTable()->scope(), scope);
    SymMgrObjectPtr<ISymbolRange> nested;
    EXPECT_EQ(scope->symbolRangeByAddress(nested, 0x1080, symbol_kind_function, nullptr), status_Ok);
    EXPECT_EQ(static_cast<DWARFSymbol*>(nested->symbol())->scope()->parent(), scope);
}

class HeldLock : public ILock {
public:
    void lock() override {
        ++depth;
        ++times;
    }
    void unlock() override { --depth; }
    int depth = 0;
    int times = 0;
};

TEST_F(DwarfScopeTest, ReadsItsContentUnderTheLoadingLock) {
    m_module.unit().openFunction("f", 0x1000, 0x100);
    m_module.leaf(DW_TAG_label, M::function("l", 0x1010, 0)).close().endUnit();
    Scope* scope = m_module.scopeAt(0x1000);
    ASSERT_NE(scope, nullptr);
    HeldLock lock;
    ILock* before = m_module.loader().loadLock();
    m_module.loader().getLineResolver(&m_module.scope(), &lock);
    EXPECT_EQ(scope->loadContent(symbol_kind_label), status_Ok);
    EXPECT_GT(lock.times, 0);
    EXPECT_EQ(lock.depth, 0);
    m_module.loader().getLineResolver(&m_module.scope(), before);
}

/// Notes in which order scopes arrive.
class ArrivalSink : public orn_test::RecordingSink {
public:
    int addScope(Scope* scope) override {
        arrived.emplace_back(scope->symbol()->rawName());
        return RecordingSink::addScope(scope);
    }
    std::vector<std::string> arrived;
};

TEST_F(DwarfScopeTest, ArrivesAfterWhatIsInside) {
    m_module.unit({{DW_AT_language, DW_FORM_data1, DW_LANG_Fortran90}}).openFunction("outer", 0x1000, 0x100);
    m_module.openFunction("middle", 0x1010, 0x80);
    m_module.leaf(DW_TAG_subprogram, M::function("inner", 0x1020, 0x10)).close();
    m_module.leaf(DW_TAG_subprogram, M::function("last", 0x10a0, 0x10)).close().endUnit();
    const SymMgrObjectPtr<ArrivalSink> sink = new ArrivalSink;
    EXPECT_EQ(m_module.loader().loadSymbols(sink, nullptr, symbol_kind_function, nullptr), status_Ok);
    EXPECT_THAT(sink->arrived, ElementsAre("inner", "middle", "last", "outer"));
}

TEST_F(DwarfScopeTest, ReadsEachKindOnce) {
    m_module.unit().openFunction("f", 0x1000, 0x100);
    m_module.leaf(DW_TAG_label, M::function("l", 0x1010, 0)).close().endUnit();
    Scope* scope = m_module.scopeAt(0x1000);
    ASSERT_NE(scope, nullptr);
    EXPECT_EQ(scope->loadContent(symbol_kind_label), status_Ok);
    EXPECT_EQ(scope->loadContent(symbol_kind_label), status_Ok);
    EXPECT_EQ(scope->load(symbol_kind_label), status_Ok);
    EXPECT_THAT(DwarfModule::listOf(*scope, symbol_kind_label), ElementsAre("l 0x1010-0x1010"));
}

TEST_F(DwarfScopeTest, AnEntryWithoutChildrenIsReadWithSuccessAndHasNoTable) {
    m_module.unit().leaf(DW_TAG_subprogram, M::function("f", 0x1000, 0x100)).endUnit();
    Scope* scope = m_module.scopeAt(0x1000);
    ASSERT_NE(scope, nullptr);
    EXPECT_EQ(scope->loadContent(symbol_kind_function), status_Ok);
    SymMgrObjectPtr<ISymbolRange> range = m_module.at(0x1000);
    EXPECT_EQ(scope->symbolRangeByAddress(range, 0x1000, symbol_kind_all, nullptr), status_False);
    EXPECT_FALSE(range);
    SymMgrObjectPtr<Scope::RangeIterator> ranges;
    EXPECT_EQ(scope->symbolRanges(ranges, 0, ~0ULL, symbol_kind_none), status_False);
    EXPECT_FALSE(scope->hasTable());
}

TEST_F(DwarfScopeTest, WithAllOfMemoryGoneItSaysSoAndDoesNotTryAgain) {
    if (!ORN_3_30::test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    m_module.unit().openFunction("f", 0x1000, 0x100);
    m_module.leaf(DW_TAG_label, M::function("l", 0x1010, 0)).close().endUnit();
    Scope* scope = m_module.scopeAt(0x1000);
    expectLog("Out of memory");
    {
        const FailingAllocation failing(1);
        EXPECT_EQ(scope->load(symbol_kind_label), status_OutOfMemory);
    }
    EXPECT_EQ(scope->load(symbol_kind_label), status_Ok);
    EXPECT_THAT(DwarfModule::listOf(*scope, symbol_kind_label), IsEmpty());
}

// --- Members

class DwarfMembersTest : public OrnTest {
protected:
    static DwarfAttrs size(unsigned bytes) { return {{DW_AT_byte_size, DW_FORM_data1, bytes}}; }
    static DwarfAttrs at(unsigned offset) { return {{DW_AT_data_member_location, DW_FORM_data1, offset}}; }
    /// A unit with a structure of an integer and a structure, and a variable of a type.
    void build(const char* type) {
        m_module.unit();
        m_module.leaf(DW_TAG_base_type, M::named("int") + size(4), "int");
        m_module.open(DW_TAG_structure_type, M::named("inner") + size(8), "inner");
        m_module.leaf(DW_TAG_member, M::named("x") + M::type("int") + at(0));
        m_module.leaf(DW_TAG_member, M::named("y") + M::type("int") +
                                         DwarfAttrs{{DW_AT_data_member_location, DW_FORM_block1,
                                                     std::vector<uint8_t>{DW_OP_plus_uconst, 4}}});
        m_module.close();
        m_module.open(DW_TAG_structure_type, M::named("outer") + size(16), "outer");
        m_module.leaf(DW_TAG_member, M::named("n") + M::type("int") + at(0));
        m_module.leaf(DW_TAG_member, M::named("s") + M::type("inner") + at(4));
        m_module.leaf(DW_TAG_member, M::type("int") + at(12));
        m_module.leaf(DW_TAG_member, M::named("static") + M::type("int"));
        m_module.leaf(DW_TAG_member, M::named("odd") + M::type("int") +
                                         DwarfAttrs{{DW_AT_data_member_location, DW_FORM_block1,
                                                     std::vector<uint8_t>{DW_OP_const1u, 4}}});
        m_module.close();
        m_module.leaf(DW_TAG_typedef, M::type("outer"), "typedef");
        m_module.leaf(DW_TAG_const_type, M::type("typedef"), "const");
        m_module.leaf(DW_TAG_pointer_type, M::type("outer") + size(8), "pointer");
        m_module.leaf(DW_TAG_typedef, M::type("circle"), "circle");
        m_module.leaf(DW_TAG_variable, M::named("v") + M::place(0x2000) + M::type(type)).endUnit();
    }
    std::vector<std::string> members() {
        Scope* scope = m_module.scopeAt(0x2000, symbol_kind_variable);
        return scope ? DwarfModule::listOf(*scope, symbol_kind_variable) : std::vector<std::string>{};
    }

    DwarfModule m_module;
};

TEST_F(DwarfMembersTest, OfAVariableAreVariablesInside) {
    build("outer");
    EXPECT_THAT(m_module.symbols(symbol_kind_variable), ElementsAre("v 0x2000-0x2010"));
    EXPECT_THAT(members(), ElementsAre("n 0x2000-0x2004", "s 0x2004-0x200c"));
}

TEST_F(DwarfMembersTest, AreReadLevelByLevel) {
    build("outer");
    SymMgrObjectPtr<ISymbolRange> range = m_module.at(0x2000, symbol_kind_variable);
    SymMgrObjectPtr<ISymbolRange> member = m_module.nestedAt(*range, 0x2008);
    ASSERT_TRUE(member);
    EXPECT_STREQ(member->symbol()->rawName(), "s");
    EXPECT_EQ(member->symbol()->kind(), symbol_kind_variable);
    EXPECT_EQ(member->symbol()->visibility(), symbol_visibility_local);
    SymMgrObjectPtr<ISymbolRange> inner = m_module.nestedAt(*member, 0x2008);
    ASSERT_TRUE(inner);
    EXPECT_STREQ(inner->symbol()->rawName(), "y");
}

TEST_F(DwarfMembersTest, AreFoundBehindTypedefsAndQualifiers) {
    build("const");
    EXPECT_THAT(members(), ElementsAre("n 0x2000-0x2004", "s 0x2004-0x200c"));
}

TEST_F(DwarfMembersTest, AreNotFoundBehindPointers) {
    build("pointer");
    EXPECT_THAT(members(), IsEmpty());
}

TEST_F(DwarfMembersTest, AreNotFoundWhereTypesLeadRoundInACircle) {
    build("circle");
    EXPECT_THAT(members(), IsEmpty());
}

TEST_F(DwarfMembersTest, NeedNoSegment) {
    m_module.hasOwnSegments = true;
    m_module.format->segment(0x2000, 0);
    build("outer");
    EXPECT_THAT(members(), ElementsAre("n 0x2000-0x2004", "s 0x2004-0x200c"));
}

} // namespace
} // namespace ORN_3_30::test
