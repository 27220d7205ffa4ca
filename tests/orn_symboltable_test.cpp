// The symbol table: what stays in it, who wins an address, and the two views over an interval.

#include "support/symbol_fakes.h"

#include <algorithm>
#include <random>

using namespace ORN_3_30;
using namespace ORN_3_30::test;

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct Face {
    symbol_visibility_t visibility = symbol_visibility_global;
    symbol_kind_t kind = symbol_kind_function;
};

class SymbolTableTest : public SymbolModelTest {
protected:
    SymbolScope* makeScope(const char* name, Address64 low, Address64 high, Face face) {
        SymbolScope* scope = createSymbolScope(loader, name, low, nullptr, face.visibility, face.kind);
        scope->addRange(low, high);
        return scope;
    }
    FakeScope* makeFake(const char* name, Address64 low, Address64 high, Face face = Face()) {
        auto* scope = new FakeScope(&loader, name, low, nullptr, face.visibility, face.kind);
        scope->addRange(low, high);
        scope->onDestruction = [this, name] { destroyed.push_back(name); };
        return scope;
    }
    int add(const char* name, Address64 low, Address64 high) { return add(name, low, high, Face()); }
    int add(const char* name, Address64 low, Address64 high, Face face) {
        return table->addScope(makeScope(name, low, high, face));
    }
    void markSectionEnd(Address64 address) { EXPECT_EQ(table->addScopeRange(address, address, nullptr), 0); }

    std::string at(Address64 address, symbol_kind_t mask = symbol_kind_all,
                   ISymbolSelector* selector = nullptr) {
        SymMgrObjectPtr<ISymbolRange> range;
        table->symbolRangeByAddress(range, address, mask, selector);
        return text(range);
    }
    std::vector<std::string> raw(Address64 low, Address64 high, symbol_kind_t mask = symbol_kind_all) {
        RangeIteratorPtr ranges;
        table->symbolRanges(ranges, low, high, mask);
        return texts(ranges);
    }
    RangeIteratorPtr cutView(Address64 low, Address64 high, symbol_kind_t mask = symbol_kind_all,
                             ISymbolSelector* selector = nullptr) {
        RangeIteratorPtr ranges;
        table->nonOverlappedSymbolRanges(ranges, low, high, mask, selector);
        return ranges;
    }
    /// Stops where next() says so, as callers do.
    std::vector<std::string> cut(Address64 low, Address64 high, symbol_kind_t mask = symbol_kind_all,
                                 ISymbolSelector* selector = nullptr) {
        RangeIteratorPtr ranges = cutView(low, high, mask, selector);
        std::vector<std::string> all;
        for (bool more = ranges; more; more = ranges->next())
            all.push_back(text(ranges->current()));
        return all;
    }

    static constexpr Face local{symbol_visibility_local, symbol_kind_function};
    static constexpr Face variable{symbol_visibility_global, symbol_kind_variable};
    static constexpr Face other{symbol_visibility_global, symbol_kind_other};

    std::vector<std::string> destroyed;
    SymMgrObjectPtr<ISymbolTable> table = ISymbolTable::create(nullptr);
};

// --- Who wins an address

TEST_F(SymbolTableTest, EmptyTableAnswersNothing) {
    EXPECT_EQ(at(0), "null");
    EXPECT_THAT(raw(0, ~0ULL), IsEmpty());
    EXPECT_FALSE(cutView(0, ~0ULL));
}

TEST_F(SymbolTableTest, SymbolOwnsItsStartAndNotItsEnd) {
    add("f", 0x1000, 0x2000);
    EXPECT_EQ(at(0xFFF), "null");
    EXPECT_EQ(at(0x1000), "f[1000,2000)");
    EXPECT_EQ(at(0x1FFF), "f[1000,2000)");
    EXPECT_EQ(at(0x2000), "null");
}

TEST_F(SymbolTableTest, GapsAnswerNothing) {
    add("f", 0x1000, 0x1100);
    add("g", 0x2000, 0x2100);
    EXPECT_EQ(at(0x1800), "null");
    EXPECT_EQ(at(0x2000), "g[2000,2100)");
}

TEST_F(SymbolTableTest, EmptySymbolCoversItsCellOnly) {
    add("empty", 0x1000, 0x1000);
    add("sized", 0x2000, 0x2100);
    EXPECT_EQ(at(0x1000), "empty[1000,1000)");
    EXPECT_EQ(at(0x1800), "empty[1000,1000)");
    EXPECT_EQ(at(0x2000), "sized[2000,2100)");
    EXPECT_EQ(at(0x2100), "null");
}

TEST_F(SymbolTableTest, LastEmptySymbolCoversEverythingBehindIt) {
    add("empty", 0x1000, 0x1000);
    EXPECT_EQ(at(~0ULL), "empty[1000,1000)");
}

TEST_F(SymbolTableTest, LocalLosesToGlobalWhateverTheOrder) {
    add("global", 0x1000, 0x2000);
    add("local", 0x1000, 0x2000, local);
    EXPECT_EQ(at(0x1800), "global[1000,2000)");
    table = ISymbolTable::create(nullptr);
    add("local", 0x1000, 0x2000, local);
    add("global", 0x1000, 0x2000);
    EXPECT_EQ(at(0x1800), "global[1000,2000)");
}

TEST_F(SymbolTableTest, FunctionBeatsVariable) {
    add("v", 0x1000, 0x2000, variable);
    add("f", 0x1000, 0x2000);
    EXPECT_EQ(at(0x1800), "f[1000,2000)");
}

TEST_F(SymbolTableTest, OtherBeatsVariable) {
    add("o", 0x1000, 0x2000, other);
    add("v", 0x1000, 0x2000, variable);
    EXPECT_EQ(at(0x1800), "o[1000,2000)");
}

TEST_F(SymbolTableTest, KindComesBeforeVisibility) {
    add("global", 0x1000, 0x2000, variable);
    add("local", 0x1000, 0x2000, local);
    EXPECT_EQ(at(0x1800), "local[1000,2000)");
}

TEST_F(SymbolTableTest, DebugDetailComesBeforeKindAndVisibility) {
    FakeUnit unit;
    FakeScope* detailed =
        makeFake("detailed", 0x1000, 0x2000, {symbol_visibility_local, symbol_kind_variable});
    detailed->fakeSymbol->unit = &unit;
    add("first", 0x1000, 0x2000);
    table->addScope(detailed);
    add("last", 0x1000, 0x1F00);
    EXPECT_EQ(at(0x1800), "detailed[1000,2000)");
    detailed->fakeSymbol->unitStatus = status_False; // a unit that is given with it does not count
    EXPECT_EQ(at(0x1800), "first[1000,2000)");
}

TEST_F(SymbolTableTest, InnerSymbolBeatsOuterOneOfEqualRank) {
    add("section", 0x1000, 0x9000, other);
    add("function", 0x2000, 0x3000, other);
    EXPECT_EQ(at(0x2800), "function[2000,3000)");
    EXPECT_EQ(at(0x3000), "section[1000,9000)");
    EXPECT_EQ(at(0x1FFF), "section[1000,9000)");
}

TEST_F(SymbolTableTest, InlineInstanceNeverDisplacesWhatIsNotInlined) {
    FakeScope* inlined = makeFake("inlined", 0x1100, 0x1200);
    inlined->isInlined = true;
    FakeScope* within = makeFake("within", 0x1140, 0x1180);
    within->isInlined = true;
    add("f", 0x1000, 0x2000);
    table->addScope(inlined);
    table->addScope(within);
    EXPECT_EQ(at(0x1150), "f[1000,2000)");
    FakeScope* outer = makeFake("outer", 0x1090, 0x1900);
    outer->isInlined = true;
    table = ISymbolTable::create(nullptr);
    table->addScope(outer);
    add("g", 0x1100, 0x1800);
    FakeScope* innermost = makeFake("innermost", 0x1140, 0x1180);
    innermost->isInlined = true;
    EXPECT_EQ(at(0x1150), "g[1100,1800)"); // over an inlined one, what is not inlined wins
    table->addScope(innermost);
    EXPECT_EQ(at(0x1150), "g[1100,1800)");
}

TEST_F(SymbolTableTest, InlineInstancesYieldToInnerOnes) {
    FakeScope* outer = makeFake("outer", 0x1000, 0x2000);
    FakeScope* inner = makeFake("inner", 0x1100, 0x1200);
    outer->isInlined = inner->isInlined = true;
    table->addScope(outer);
    table->addScope(inner);
    EXPECT_EQ(at(0x1150), "inner[1100,1200)");
}

TEST_F(SymbolTableTest, AmongEqualsTheGreaterEndStays) {
    add("short", 0x1000, 0x1800);
    add("long", 0x1000, 0x2000);
    add("middle", 0x1000, 0x1900);
    EXPECT_EQ(at(0x1400), "long[1000,2000)");
}

TEST_F(SymbolTableTest, AmongEqualEndsTheHeadStaysAndLaterOnesComeRightBehindIt) {
    add("first", 0x1000, 0x2000);
    add("second", 0x1000, 0x2000);
    add("third", 0x1000, 0x2000);
    add("shorter", 0x1000, 0x1800);
    EXPECT_THAT(raw(0x1000, 0x2000), ElementsAre("first[1000,2000)", "third[1000,2000)", "second[1000,2000)",
                                                 "shorter[1000,1800)"));
}

TEST_F(SymbolTableTest, CopyingTurnsEqualEndsBehindTheHeadAround) {
    add("first", 0x1000, 0x2000);
    add("second", 0x1000, 0x2000);
    add("third", 0x1000, 0x2000);
    add("new", 0x1800, 0x1900);
    // The cell at 0x1000 lists first, third, second; in the new cell each copy goes right behind the head.
    EXPECT_THAT(raw(0x1800, 0x1900),
                ElementsAre("first[1000,2000)", "second[1000,2000)", "third[1000,2000)", "new[1800,1900)"));
}

TEST_F(SymbolTableTest, MaskChoosesAmongTheCandidates) {
    add("f", 0x1000, 0x2000);
    add("v", 0x1000, 0x2000, variable);
    EXPECT_EQ(at(0x1800, symbol_kind_variable), "v[1000,2000)");
    EXPECT_EQ(at(0x1800, symbol_kind_label), "null");
    EXPECT_EQ(at(0x1800, symbol_kind_none), "null");
}

TEST_F(SymbolTableTest, ScopeWithoutSymbolIsReportedAndEndsTheWalk) {
    add("long", 0x1000, 0x3000);
    auto* nameless = new SymbolScope(&loader, nullptr, nullptr);
    nameless->addRange(0x1000, 0x2000);
    table->addScope(nameless);
    add("entry", 0x1000, 0x1800, {symbol_visibility_global, symbol_kind_entry_point});
    EXPECT_EQ(at(0x1400), "long[1000,3000)"); // the entry point would win if the walk went on
    std::vector<LogMessage> logs = takeLogs();
    ASSERT_EQ(logs.size(), 1U);
    EXPECT_EQ(logs[0].level, errorLevel);
    EXPECT_THAT(logs[0].text, ::testing::HasSubstr("ASSERTION FAILED: 'symbol != NULL'"));
    EXPECT_THAT(logs[0].text, ::testing::HasSubstr("orn_symboltable.cpp"));
    EXPECT_EQ(at(0x2400), "long[1000,3000)"); // it does not cover this address and is not asked
    EXPECT_THAT(raw(0x1000, 0x1001), ElementsAre("long[1000,3000)", "entry[1000,1800)"));
}

// --- Adding

TEST_F(SymbolTableTest, ExactDuplicateIsRefusedAndDestroyed) {
    add("f", 0x1000, 0x2000);
    FakeScope* twin = makeFake("f", 0x1000, 0x2000);
    EXPECT_EQ(table->addScope(twin), 0);
    EXPECT_THAT(destroyed, ElementsAre("f"));
    EXPECT_THAT(raw(0, ~0ULL), ElementsAre("f[1000,2000)"));
}

TEST_F(SymbolTableTest, AliasIsKept) {
    EXPECT_EQ(add("f", 0x1000, 0x2000), 1);
    EXPECT_EQ(add("alias", 0x1000, 0x2000), 1);
    EXPECT_THAT(raw(0, ~0ULL), ElementsAre("f[1000,2000)", "alias[1000,2000)"));
}

TEST_F(SymbolTableTest, EmptyTwinOfASizedSymbolIsRefusedButNotTheOtherWayRound) {
    EXPECT_EQ(add("f", 0x1000, 0x2000), 1);
    EXPECT_EQ(add("f", 0x1000, 0x1000), 0);
    EXPECT_EQ(add("g", 0x3000, 0x3000), 1);
    EXPECT_EQ(add("g", 0x3000, 0x4000), 1);
    EXPECT_THAT(raw(0x3000, 0x4000), ElementsAre("g[3000,4000)", "g[3000,3000)"));
}

TEST_F(SymbolTableTest, ThousandsOfAliasesAreToldApartAndTwinsRefused) {
    for (int number = 0; number < 3000; ++number)
        ASSERT_EQ(add(("n" + std::to_string(number)).c_str(), 0x1000, 0x2000), 1);
    for (int number = 0; number < 3000; number += 100) {
        EXPECT_EQ(add(("n" + std::to_string(number)).c_str(), 0x1000, 0x2000), 0);
        EXPECT_EQ(add(("n" + std::to_string(number)).c_str(), 0x1000, 0x1000), 0);
        EXPECT_EQ(add(("n" + std::to_string(number)).c_str(), 0x1000, 0x1800), 1);
    }
    EXPECT_EQ(raw(0x1000, 0x1001).size(), 3030U);
}

TEST_F(SymbolTableTest, CrowdedCellStillAsksScopesWithARuleOfTheirOwn) {
    for (int number = 0; number < 100; ++number)
        add(("n" + std::to_string(number)).c_str(), 0x1000, 0x2000);
    FakeScope* asked = makeFake("asked", 0x1000, 0x1100);
    table->addScope(asked);
    asked->onCompare = [](Scope*, Address64, Scope*) { return 1U; };
    EXPECT_EQ(add("unlike", 0x1000, 0x2000), 0);
}

TEST_F(SymbolTableTest, RefusedRangeDestroysItsScope) {
    add("f", 0x1000, 0x2000);
    EXPECT_EQ(table->addScopeRange(0x1000, 0x2000, makeFake("f", 0x1000, 0x2000)), 0);
    EXPECT_THAT(destroyed, ElementsAre("f"));
    EXPECT_EQ(table->addScopeRange(0x3000, 0x3100, makeFake("g", 0x3000, 0x3100)), 1);
    EXPECT_EQ(at(0x3000), "g[3000,3100)");
}

TEST_F(SymbolTableTest, AddScopeRangeTakesTheGivenIntervalAndNotTheScopesRanges) {
    EXPECT_EQ(table->addScopeRange(0x5000, 0x5010, makeFake("f", 0x1000, 0x2000)), 1);
    EXPECT_EQ(at(0x5008), "f[5000,5010)");
    EXPECT_EQ(at(0x1000), "null");
}

TEST_F(SymbolTableTest, ScopeEntersTheTableOnce) {
    FakeScope* scope = makeFake("f", 0x1000, 0x2000);
    EXPECT_EQ(table->addScopeRange(0x1000, 0x2000, scope), 1);
    EXPECT_EQ(table->addScopeRange(0x3000, 0x4000, scope), 1);
    EXPECT_EQ(table->addScopeRange(0x1000, 0x2000, scope), 1); // its own twin
    table = nullptr;
    EXPECT_THAT(destroyed, ElementsAre("f"));
}

TEST_F(SymbolTableTest, OwnedScopeIsNotDestroyedWhenAFurtherRangeIsRefused) {
    FakeScope* scope = makeFake("f", 0x1000, 0x2000);
    add("f", 0x3000, 0x2000);
    EXPECT_EQ(table->addScopeRange(0x1000, 0x2000, scope), 1);
    EXPECT_EQ(table->addScopeRange(0x3000, 0x2000, scope), 0);
    EXPECT_THAT(destroyed, IsEmpty());
    EXPECT_EQ(at(0x1000), "f[1000,2000)");
}

TEST_F(SymbolTableTest, TableDestroysItsScopesInOrderWhateverTheirCounts) {
    FakeScope* first = makeFake("first", 0x2000, 0x3000);
    table->addScope(first);
    table->addScope(makeFake("second", 0x1000, 0x2000));
    first->addRef();
    table = nullptr;
    EXPECT_THAT(destroyed, ElementsAre("first", "second"));
}

TEST_F(SymbolTableTest, NothingIsAddedForANullScope) {
    EXPECT_EQ(table->addScope(nullptr), 0);
    EXPECT_THAT(raw(0, ~0ULL), IsEmpty());
}

TEST_F(SymbolTableTest, ScopeWithoutRangesAndThunksIsRefused) {
    FakeScope* scope = makeFake("f", 0, 1);
    scope->removeRange(0);
    EXPECT_EQ(table->addScope(scope), 0);
    EXPECT_THAT(destroyed, ElementsAre("f"));
}

TEST_F(SymbolTableTest, EveryRangeOfAScopeIsEntered) {
    FakeScope* scope = makeFake("f", 0x1000, 0x1100);
    scope->addRange(0x3000, 0x3100);
    EXPECT_EQ(table->addScope(scope), 1);
    EXPECT_EQ(at(0x1080), "f[1000,1100)");
    EXPECT_EQ(at(0x3080), "f[3000,3100)");
    EXPECT_EQ(at(0x2000), "null");
}

TEST_F(SymbolTableTest, TableKnowsItsScope) {
    GlobalScope module(&loader, nullptr, nullptr);
    EXPECT_EQ(module.symbolTable()->scope(), &module);
    EXPECT_EQ(table->scope(), nullptr);
}

// --- Thunks

TEST_F(SymbolTableTest, ThunksOfAScopeAreEntered) {
    FakeScope* scope = makeFake("puts", 0x1000, 0x1100);
    scope->addThunk(new ImportThunk(nullptr, 0x3000, 0x10));
    EXPECT_EQ(table->addScope(scope), 1);
    EXPECT_EQ(at(0x3008), "puts[3000,3010)");
}

TEST_F(SymbolTableTest, ScopeOfThunksAloneIsEntered) {
    FakeScope* scope = makeFake("puts", 0, 1);
    scope->removeRange(0);
    scope->addThunk(new ImportThunk(nullptr, 0x3000, 0x10));
    EXPECT_EQ(table->addScope(scope), 1);
    EXPECT_EQ(at(0x3008), "puts[3000,3010)");
}

TEST_F(SymbolTableTest, ThunksOfAnAbsorbedScopeGoToItsSurvivor) {
    FakeScope* survivor = makeFake("f", 0x1000, 0x2000);
    table->addScope(survivor);
    FakeScope* twin = makeFake("f", 0x1000, 0x2000);
    twin->addThunk(new ImportThunk(nullptr, 0x3000, 0x10));
    EXPECT_EQ(table->addScope(twin), 0);
    EXPECT_THAT(destroyed, ElementsAre("f"));
    EXPECT_EQ(at(0x3008), "f[3000,3010)");
    ASSERT_TRUE(survivor->hasThunks());
    EXPECT_STREQ((*survivor->thunks())[0]->name(), "f");
    SymMgrObjectPtr<ISymbolRange> range;
    table->symbolRangeByAddress(range, 0x3000, symbol_kind_all, nullptr);
    EXPECT_EQ(range->thunk(), (*survivor->thunks())[0].get());
}

TEST_F(SymbolTableTest, ThunkOverASymbolOfItsNameGoesToItAndTakesItsRange) {
    FakeScope* known = makeFake("puts", 0x3000, 0x3000);
    known->onCompare = [](Scope*, Address64, Scope*) { return 1U; };
    table->addScope(known);
    FakeScope* newcomer = makeFake("puts", 0, 1);
    newcomer->removeRange(0);
    newcomer->addThunk(new ImportThunk(nullptr, 0x3000, 0x10));
    EXPECT_EQ(table->addScope(newcomer), 0);
    EXPECT_TRUE(known->hasThunks());
    EXPECT_EQ(known->firstLow(), ~0ULL); // the range at the thunk's address is gone
    EXPECT_THAT(destroyed, ElementsAre("puts"));
}

// --- What compare() asks for

class MatchTest : public SymbolTableTest {
protected:
    /// [0x1000, 0x1100) whose scope answers `bits`, a neighbour at 0x1200, and the newcomer's addition.
    int addOver(unsigned bits, Address64 newEnd) {
        existing = makeFake("existing", 0x1000, 0x1100);
        existing->onCompare = [this, bits](Scope*, Address64 key, Scope* scope) {
            nextKey = key;
            nextScope = scope;
            return bits;
        };
        existing->onMerge = [this](Scope* from, unsigned given) {
            mergedName = from->symbol()->rawName();
            mergedBits = given;
        };
        table->addScope(existing);
        add("neighbour", 0x1200, 0x1300);
        return table->addScope(makeFake("newcomer", 0x1000, newEnd));
    }

    FakeScope* existing = nullptr;
    Address64 nextKey = 0;
    Scope* nextScope = nullptr;
    std::string mergedName;
    unsigned mergedBits = 0;
};

TEST_F(MatchTest, NoBitsKeepBoth) {
    EXPECT_EQ(addOver(0, 0x1400), 1);
    EXPECT_THAT(raw(0x1000, 0x1001), ElementsAre("newcomer[1000,1400)", "existing[1000,1100)"));
    EXPECT_EQ(mergedName, "");
}

TEST_F(MatchTest, BitOneAloneDropsTheNewcomerAndMergesNothing) {
    EXPECT_EQ(addOver(1, 0x1400), 0);
    EXPECT_THAT(destroyed, ElementsAre("newcomer"));
    EXPECT_EQ(mergedName, "");
    EXPECT_THAT(raw(0x1000, 0x1001), ElementsAre("existing[1000,1100)"));
}

TEST_F(MatchTest, NameAndVisibilityBitsMergeAndChangeNoInterval) {
    for (unsigned bits : {8U, 16U, 24U, 9U, 32U}) {
        table = ISymbolTable::create(nullptr);
        EXPECT_EQ(addOver(bits, 0x1400), 0);
        EXPECT_EQ(mergedName, "newcomer");
        EXPECT_EQ(mergedBits, bits);
        EXPECT_THAT(raw(0x1000, 0x1001), ElementsAre("existing[1000,1100)"));
    }
}

TEST_F(MatchTest, GrowthReachesIntoTheFollowingCells) {
    for (unsigned bits : {2U, 2U + 16U, 2U + 1U, 2U + 4U}) {
        table = ISymbolTable::create(nullptr);
        EXPECT_EQ(addOver(bits, 0x1400), 0);
        EXPECT_EQ(mergedBits, bits);
        EXPECT_THAT(raw(0x1000, 0x1001), ElementsAre("existing[1000,1400)"));
        EXPECT_EQ(at(0x1280), "neighbour[1200,1300)"); // the inner one
        EXPECT_EQ(at(0x1380), "existing[1000,1400)");
    }
}

TEST_F(MatchTest, GrowthCanShrink) {
    add("early", 0x1080, 0x1090);
    EXPECT_EQ(addOver(2, 0x1040), 0);
    EXPECT_EQ(at(0x1030), "existing[1000,1040)");
    EXPECT_EQ(at(0x1050), "null");
    EXPECT_EQ(at(0x1095), "null");
    EXPECT_EQ(at(0x1088), "early[1080,1090)");
}

TEST_F(MatchTest, GrownEmptyEntryCoversWhatItGrewTo) {
    existing = makeFake("existing", 0x1000, 0x1000);
    existing->onCompare = [](Scope*, Address64, Scope*) { return 2U; };
    table->addScope(existing);
    add("neighbour", 0x1200, 0x1300);
    EXPECT_EQ(table->addScope(makeFake("newcomer", 0x1000, 0x1400)), 0);
    EXPECT_EQ(at(0x1350), "existing[1000,1400)");
    EXPECT_EQ(at(0x1400), "null");
}

TEST_F(MatchTest, GrowthRanksTheEntryAnew) {
    add("longer", 0x1000, 0x1180);
    EXPECT_EQ(addOver(2, 0x1400), 0);
    EXPECT_THAT(raw(0x1000, 0x1001), ElementsAre("existing[1000,1400)", "longer[1000,1180)"));
}

TEST_F(MatchTest, FoldingExtendsBehindTheOldEndOnly) {
    for (unsigned bits : {4U, 4U + 16U, 4U + 8U}) {
        table = ISymbolTable::create(nullptr);
        EXPECT_EQ(addOver(bits, 0x1400), 0);
        EXPECT_EQ(mergedBits, bits);
        EXPECT_EQ(at(0x1180), "existing[1000,1400)");
        EXPECT_EQ(at(0x1380), "existing[1000,1400)");
        EXPECT_EQ(at(0x1400), "null");
    }
}

TEST_F(MatchTest, FoldingTakesTheFurtherRangesOut) {
    existing = makeFake("existing", 0x1000, 0x1100);
    existing->addRange(0x2000, 0x2400);
    existing->addRange(0x3000, 0x3100);
    table->addScope(existing);
    add("within", 0x2200, 0x2300);
    existing->onCompare = [](Scope*, Address64, Scope*) { return 4U; };
    existing->onMerge = [this](Scope*, unsigned) { existing->collapseRanges(0x3100); };
    EXPECT_EQ(table->addScope(makeFake("newcomer", 0x1000, 0x3100)), 0);
    EXPECT_THAT(raw(0, ~0ULL), ElementsAre("existing[1000,3100)", "within[2200,2300)"));
    EXPECT_EQ(at(0x1800), "existing[1000,3100)");
    EXPECT_EQ(at(0x2250), "within[2200,2300)");
    EXPECT_EQ(at(0x2280), "within[2200,2300)");
    EXPECT_EQ(at(0x2350), "existing[1000,3100)");
    EXPECT_EQ(at(0x3000), "existing[1000,3100)");
    EXPECT_EQ(at(0x3100), "null");
}

TEST_F(MatchTest, FoldingSurvivesTheRemovalOfTheVeryEntry) {
    existing = makeFake("existing", 0x1000, 0x1100);
    existing->addRange(0x2000, 0x2400);
    table->addScope(existing);
    existing->onCompare = [](Scope*, Address64, Scope*) { return 4U; };
    EXPECT_EQ(table->addScope(makeFake("newcomer", 0x2000, 0x2800)), 0);
    EXPECT_EQ(at(0x2700), "existing[2000,2800)");
    EXPECT_EQ(at(0x2800), "null");
}

TEST_F(MatchTest, FoldingSurvivesRangesThatTheTableNeverGot) {
    existing = makeFake("existing", 0x1000, 0x1100);
    table->addScope(existing);
    existing->addRange(0x2000, 0x2400);
    add("other", 0x2100, 0x2200);
    existing->onCompare = [](Scope*, Address64, Scope*) { return 4U; };
    EXPECT_EQ(table->addScope(makeFake("newcomer", 0x1000, 0x2400)), 0);
    EXPECT_EQ(at(0x2300), "existing[1000,2400)");
}

TEST_F(MatchTest, FoldingSurvivesAnOverlappingHead) {
    existing = makeFake("existing", 0x1000, 0x1300);
    existing->addRange(0x800, 0x1400); // in front of it, and longer
    table->addScope(existing);
    add("x", 0x1100, 0x1200);
    add("y", 0x1350, 0x1360);
    existing->onCompare = [](Scope*, Address64, Scope*) { return 4U; };
    existing->onMerge = [this](Scope*, unsigned) { existing->collapseRanges(0x1300); };
    EXPECT_EQ(table->addScope(makeFake("newcomer", 0x800, 0x1300)), 0);
    EXPECT_EQ(at(0x900), "existing[800,1300)");
    EXPECT_EQ(at(0x1380), "null");
}

TEST_F(MatchTest, NeighbourIsTheNextKeyAndTheLastScopeThatStartsThere) {
    FakeScope* first = makeFake("first", 0x1200, 0x1400);
    FakeScope* last = makeFake("last", 0x1200, 0x1300);
    table->addScope(last);
    table->addScope(first);
    addOver(0, 0x1250);
    EXPECT_EQ(nextKey, 0x1200U);
    EXPECT_EQ(nextScope, last); // "neighbour" has the same end and comes before it
}

TEST_F(MatchTest, WithoutNeighbourTheNextKeyIsAllOnes) {
    FakeScope* scope = makeFake("f", 0x1000, 0x1100);
    scope->onCompare = [this](Scope*, Address64 key, Scope* next) {
        nextKey = key;
        nextScope = next;
        return 0U;
    };
    table->addScope(scope);
    add("g", 0x1000, 0x1100);
    EXPECT_EQ(nextKey, ~0ULL);
    EXPECT_EQ(nextScope, nullptr);
}

TEST_F(MatchTest, SectionEndIsANextKeyWithoutScope) {
    markSectionEnd(0x1180);
    addOver(0, 0x1100);
    EXPECT_EQ(nextKey, 0x1180U);
    EXPECT_EQ(nextScope, nullptr);
}

TEST_F(MatchTest, OnlyEntriesThatStartThereAreAsked) {
    FakeScope* around = makeFake("around", 0x800, 0x3000);
    int asked = 0;
    around->onCompare = [&](Scope*, Address64, Scope*) {
        ++asked;
        return 1U;
    };
    table->addScope(around);
    add("f", 0x1000, 0x1100);
    add("g", 0x1000, 0x1100);
    EXPECT_EQ(asked, 0);
    EXPECT_THAT(raw(0x1000, 0x1001), ElementsAre("around[800,3000)", "g[1000,1100)", "f[1000,1100)"));
}

// --- Section ends

TEST_F(SymbolTableTest, SectionEndStopsAnEmptySymbol) {
    add("empty", 0x1000, 0x1000);
    markSectionEnd(0x1800);
    EXPECT_EQ(at(0x17FF), "empty[1000,1000)");
    EXPECT_EQ(at(0x1800), "null");
    EXPECT_EQ(at(0x5000), "null");
}

TEST_F(SymbolTableTest, SectionEndDoesNotStopASizedSymbol) {
    add("f", 0x1000, 0x2000);
    markSectionEnd(0x1800);
    EXPECT_EQ(at(0x1900), "f[1000,2000)");
    EXPECT_THAT(raw(0, ~0ULL), ElementsAre("f[1000,2000)"));
    EXPECT_THAT(cut(0x1000, 0x2000), ElementsAre("f[1000,2000)"));
}

TEST_F(SymbolTableTest, SectionEndAtAKnownKeyChangesNothing) {
    add("f", 0x1000, 0x2000);
    markSectionEnd(0x1000);
    EXPECT_EQ(at(0x1800), "f[1000,2000)");
}

TEST_F(SymbolTableTest, SymbolAtASectionEndIsEntered) {
    markSectionEnd(0x1000);
    EXPECT_EQ(at(0x1000), "null");
    EXPECT_EQ(add("f", 0x1000, 0x2000), 1);
    EXPECT_EQ(at(0x1000), "f[1000,2000)");
}

TEST_F(SymbolTableTest, EmptyCellsReportNothingAndAreSteppedOver) {
    markSectionEnd(0x800);
    add("f", 0x1000, 0x1100);
    markSectionEnd(0x1200);
    markSectionEnd(0x1300);
    add("g", 0x2000, 0x2100);
    EXPECT_THAT(raw(0, ~0ULL), ElementsAre("f[1000,1100)", "g[2000,2100)"));
    EXPECT_THAT(cut(0, 0x3000), ElementsAre("f[1000,1100)", "g[2000,2100)"));
    EXPECT_THAT(raw(0x1210, 0x1220), IsEmpty());
    EXPECT_FALSE(cutView(0x1210, 0x1220));
}

// --- The raw view

TEST_F(SymbolTableTest, RawViewYieldsEveryEntryOnce) {
    add("outer", 0x1000, 0x4000);
    add("inner", 0x2000, 0x3000);
    add("behind", 0x5000, 0x6000);
    EXPECT_THAT(raw(0, ~0ULL), ElementsAre("outer[1000,4000)", "inner[2000,3000)", "behind[5000,6000)"));
    EXPECT_THAT(raw(0x2800, 0x5001),
                ElementsAre("outer[1000,4000)", "inner[2000,3000)", "behind[5000,6000)"));
    EXPECT_THAT(raw(0x3800, 0x5000), ElementsAre("outer[1000,4000)"));
}

TEST_F(SymbolTableTest, RawViewOfReversedLimitsIsNull) {
    add("f", 0x1000, 0x2000);
    RangeIteratorPtr ranges = cutView(0x1000, 0x2000);
    table->symbolRanges(ranges, 0x1801, 0x1800, symbol_kind_all);
    EXPECT_FALSE(ranges);
}

TEST_F(SymbolTableTest, RawViewOfAPointHasWhatContainsItAndNotWhatEndsThere) {
    add("ending", 0x1000, 0x1800);
    add("f", 0x1000, 0x2000);
    EXPECT_THAT(raw(0x1800, 0x1800), ElementsAre("f[1000,2000)"));
    EXPECT_THAT(raw(0x1000, 0x1000), ElementsAre("f[1000,2000)", "ending[1000,1800)"));
    EXPECT_THAT(raw(0x2000, 0x2000), IsEmpty());
}

TEST_F(SymbolTableTest, RawViewHasNothingThatStartsAtItsEnd) {
    add("f", 0x1000, 0x2000);
    add("g", 0x2000, 0x3000);
    EXPECT_THAT(raw(0x1000, 0x2000), ElementsAre("f[1000,2000)"));
    EXPECT_THAT(raw(0x2000, 0x2000), ElementsAre("g[2000,3000)"));
}

TEST_F(SymbolTableTest, RawViewHasEmptySymbolsWhereTheyStand) {
    add("empty", 0x1000, 0x1000);
    add("f", 0x2000, 0x3000);
    EXPECT_THAT(raw(0x1000, 0x1800), ElementsAre("empty[1000,1000)"));
    EXPECT_THAT(raw(0x1000, 0x1000), ElementsAre("empty[1000,1000)"));
    EXPECT_THAT(raw(0x800, 0x1000), IsEmpty());
    EXPECT_THAT(raw(0x1400, 0x1800), IsEmpty()); // the cell is covered, the symbol does not overlap
}

TEST_F(SymbolTableTest, RawViewFiltersByKind) {
    add("f", 0x1000, 0x2000);
    add("v", 0x1000, 0x2000, variable);
    EXPECT_THAT(raw(0, ~0ULL, symbol_kind_variable), ElementsAre("v[1000,2000)"));
    EXPECT_THAT(raw(0, ~0ULL, symbol_kind_none), IsEmpty());
}

TEST_F(SymbolTableTest, RawViewStartsAgainAtReset) {
    add("f", 0x1000, 0x2000);
    add("g", 0x2000, 0x3000);
    RangeIteratorPtr ranges;
    table->symbolRanges(ranges, 0, ~0ULL, symbol_kind_all);
    EXPECT_TRUE(ranges->next());
    EXPECT_FALSE(ranges->next());
    EXPECT_FALSE(ranges->current());
    EXPECT_FALSE(ranges->next());
    ranges->reset();
    EXPECT_EQ(text(ranges->current()), "f[1000,2000)");
}

TEST_F(SymbolTableTest, ViewsHoldTheTable) {
    add("f", 0x1000, 0x2000);
    RangeIteratorPtr rawRanges, cutRanges = cutView(0, ~0ULL);
    table->symbolRanges(rawRanges, 0, ~0ULL, symbol_kind_all);
    table = nullptr;
    EXPECT_EQ(text(rawRanges->current()), "f[1000,2000)");
    EXPECT_EQ(text(cutRanges->current()), "f[1000,2000)");
}

TEST_F(SymbolTableTest, ViewsGoOnInATableThatGrowsMeanwhile) {
    for (Address64 number = 0; number < 200; ++number)
        add("f", 0x10000 + 0x100 * number, 0x10000 + 0x100 * number + 0x80);
    RangeIteratorPtr rawRanges, cutRanges = cutView(0, ~0ULL);
    table->symbolRanges(rawRanges, 0, ~0ULL, symbol_kind_all);
    std::vector<Address64> rawBegins{beginOf(*rawRanges->current())};
    std::vector<Address64> cutBegins{beginOf(*cutRanges->current())};
    for (Address64 number = 0; number < 200; ++number) {
        add("before", 0x1000 + 16 * number, 0x1000 + 16 * number + 8);
        add("after", 0x100000 + 16 * number, 0x100000 + 16 * number + 8);
        ASSERT_TRUE(rawRanges->next());
        ASSERT_TRUE(cutRanges->next());
        rawBegins.push_back(beginOf(*rawRanges->current()));
        cutBegins.push_back(beginOf(*cutRanges->current()));
    }
    EXPECT_TRUE(std::is_sorted(rawBegins.begin(), rawBegins.end()));
    EXPECT_EQ(rawBegins, cutBegins);
    EXPECT_EQ(rawBegins[1], 0x10100U);
    EXPECT_EQ(rawBegins[200], 0x100000U);
}

TEST_F(SymbolTableTest, RawViewGoesOnWhereItsEntryWasRemoved) {
    FakeScope* folded = makeFake("folded", 0x1000, 0x1100);
    folded->addRange(0x2000, 0x2100);
    table->addScope(folded);
    add("after", 0x3000, 0x3100);
    RangeIteratorPtr ranges;
    table->symbolRanges(ranges, 0, ~0ULL, symbol_kind_all);
    ASSERT_TRUE(ranges->next());
    EXPECT_EQ(text(ranges->current()), "folded[2000,2100)");
    folded->onCompare = [](Scope*, Address64, Scope*) { return 4U; };
    table->addScope(makeFake("newcomer", 0x1000, 0x2100));
    EXPECT_EQ(text(ranges->current()), "folded[2000,2100)"); // as it was
    ASSERT_TRUE(ranges->next());
    EXPECT_EQ(text(ranges->current()), "after[3000,3100)");
    EXPECT_FALSE(ranges->next());
}

// --- The cut view

TEST_F(SymbolTableTest, NestedSymbolCutsTheOuterOneInTwo) {
    add("outer", 0x1000, 0x4000);
    add("inner", 0x2000, 0x3000);
    EXPECT_THAT(cut(0x1000, 0x4000), ElementsAre("outer[1000,2000)", "inner[2000,3000)", "outer[3000,4000)"));
    EXPECT_THAT(cut(0x1800, 0x2800), ElementsAre("outer[1800,2000)", "inner[2000,2800)"));
}

TEST_F(SymbolTableTest, CellsOfOneWinnerAreJoined) {
    add("f", 0x1000, 0x4000);
    add("v1", 0x2000, 0x2100, variable);
    add("v2", 0x3000, 0x3100, variable);
    markSectionEnd(0x3800);
    EXPECT_THAT(cut(0, ~0ULL), ElementsAre("f[1000,4000)"));
}

TEST_F(SymbolTableTest, CutViewSkipsGaps) {
    add("f", 0x1000, 0x1100);
    add("g", 0x2000, 0x2100);
    EXPECT_THAT(cut(0x1000, 0x3000), ElementsAre("f[1000,1100)", "g[2000,2100)"));
    EXPECT_THAT(cut(0x1180, 0x3000), ElementsAre("g[2000,2100)"));
    EXPECT_FALSE(cutView(0x1100, 0x2000));
    EXPECT_FALSE(cutView(0x1180, 0x1190));
}

TEST_F(SymbolTableTest, CutViewGivesAnEmptySymbolItsCell) {
    add("empty", 0x1000, 0x1000);
    add("f", 0x2000, 0x2100);
    EXPECT_THAT(cut(0x1000, 0x3000), ElementsAre("empty[1000,2000)", "f[2000,2100)"));
    EXPECT_THAT(cut(0x1400, 0x1800), ElementsAre("empty[1400,1800)"));
}

TEST_F(SymbolTableTest, CutViewGoesOnWithTheOuterSymbolInsideACell) {
    add("outer", 0x1000, 0x3000);
    add("inner", 0x1000, 0x2000, {symbol_visibility_global, symbol_kind_entry_point});
    EXPECT_THAT(cut(0x1000, 0x4000), ElementsAre("inner[1000,2000)", "outer[2000,3000)"));
}

TEST_F(SymbolTableTest, CutViewStartsInTheFirstCellBehindItsLow) {
    add("f", 0x1000, 0x2000);
    EXPECT_THAT(cut(0, 0x1800), ElementsAre("f[1000,1800)"));
}

TEST_F(SymbolTableTest, CutViewOfEmptyOrReversedLimitsIsNull) {
    add("f", 0x1000, 0x2000);
    EXPECT_FALSE(cutView(0x1800, 0x1800));
    EXPECT_FALSE(cutView(0x1000, 0x1000));
    EXPECT_FALSE(cutView(0x1801, 0x1800));
}

TEST_F(SymbolTableTest, CutViewBehindItsEndInsideTheTableStillHasARangeFromItsHigh) {
    add("f", 0x1000, 0x1100);
    markSectionEnd(0x1800);
    RangeIteratorPtr ranges = cutView(0x1000, 0x1080);
    EXPECT_EQ(text(ranges->current()), "f[1000,1080)");
    EXPECT_FALSE(ranges->next());
    EXPECT_FALSE(ranges->current()); // in the end cell: nothing
    ranges = cutView(0x1000, 0x1200);
    EXPECT_EQ(text(ranges->current()), "f[1000,1100)");
    EXPECT_FALSE(ranges->next());
    EXPECT_FALSE(ranges->current());
}

TEST_F(SymbolTableTest, CutViewStartsAgainAtReset) {
    add("outer", 0x1000, 0x4000);
    add("inner", 0x2000, 0x3000);
    RangeIteratorPtr ranges = cutView(0, ~0ULL);
    while (ranges->next()) {
    }
    ranges->reset();
    EXPECT_EQ(text(ranges->current()), "outer[1000,2000)");
    EXPECT_TRUE(ranges->next());
    EXPECT_EQ(text(ranges->current()), "inner[2000,3000)");
}

// --- Selectors

TEST_F(SymbolTableTest, SelectorIsNotAskedAboutOneCandidate) {
    add("f", 0x1000, 0x2000);
    add("v", 0x1000, 0x2000, variable);
    FakeSelector selector;
    EXPECT_EQ(at(0x1800, symbol_kind_function, &selector), "f[1000,2000)");
    EXPECT_EQ(at(0x1800, symbol_kind_label, &selector), "null");
    EXPECT_EQ(selector.calls, 0);
}

TEST_F(SymbolTableTest, SelectorGetsTheCandidatesInListOrderFromTheFirst) {
    add("short", 0x1000, 0x1800, local);
    add("long", 0x1000, 0x2000);
    add("v", 0x1000, 0x3000, variable);
    add("over", 0x1000, 0x1200);
    FakeSelector selector;
    std::vector<std::string> offered;
    selector.onSelect = [&](FakeSelector::Candidates& candidates) {
        SymMgrObjectPtr<ISymbol> last;
        for (auto symbol = candidates->current(); symbol;
             symbol = candidates->next() ? candidates->current() : nullptr) {
            offered.push_back(symbol->rawName());
            last = symbol;
        }
        return last;
    };
    EXPECT_EQ(at(0x1400, symbol_kind_function, &selector), "short[1000,1800)");
    EXPECT_THAT(offered, ElementsAre("long", "short"));
    EXPECT_EQ(selector.calls, 1);
}

TEST_F(SymbolTableTest, SelectorMayChooseNothing) {
    add("f", 0x1000, 0x2000);
    add("g", 0x1000, 0x2000);
    FakeSelector selector;
    selector.onSelect = [](FakeSelector::Candidates&) { return nullptr; };
    EXPECT_EQ(at(0x1800, symbol_kind_all, &selector), "null");
    EXPECT_EQ(selector.calls, 1);
}

TEST_F(SymbolTableTest, SelectorThatChoosesAForeignSymbolGetsNothing) {
    add("f", 0x1000, 0x2000);
    add("g", 0x1000, 0x2000);
    FakeScope foreign(&loader, "foreign", 0x1000);
    FakeSelector selector;
    selector.onSelect = [&](FakeSelector::Candidates&) { return foreign.symbol(); };
    EXPECT_EQ(at(0x1800, symbol_kind_all, &selector), "null");
}

TEST_F(SymbolTableTest, SelectorDecidesTheCutView) {
    add("f", 0x1000, 0x3000);
    add("g", 0x2000, 0x4000);
    FakeSelector selector; // takes the first candidate: the one with the greater end
    EXPECT_THAT(cut(0, ~0ULL, symbol_kind_all, &selector), ElementsAre("f[1000,2000)", "g[2000,4000)"));
    selector.onSelect = [](FakeSelector::Candidates& candidates) {
        candidates->next();
        return candidates->current();
    };
    EXPECT_THAT(cut(0, ~0ULL, symbol_kind_all, &selector), ElementsAre("f[1000,3000)", "g[3000,4000)"));
}

TEST_F(SymbolTableTest, CutViewEndsWhenTheChosenSymbolsFirstEntryLiesBehind) {
    FakeScope* scope = makeFake("f", 0x1000, 0x2500);
    table->addScope(scope);
    EXPECT_EQ(table->addScopeRange(0x2000, 0x2000, scope), 1);
    FakeSelector selector;
    EXPECT_EQ(at(0x3000, symbol_kind_all), "f[2000,2000)");
    EXPECT_EQ(at(0x3000, symbol_kind_all, &selector), "f[1000,2500)"); // the first that is listed
    EXPECT_THAT(cut(0x1000, 0x4000, symbol_kind_all, &selector), ElementsAre("f[1000,2500)"));
    EXPECT_THAT(cut(0x1000, 0x4000), ElementsAre("f[1000,4000)"));
}

TEST_F(SymbolTableTest, SelectorMayChangeTheTable) {
    add("f", 0x1000, 0x3000);
    add("g", 0x1000, 0x4000);
    FakeSelector selector;
    Address64 next = 0x100;
    selector.onSelect = [&](FakeSelector::Candidates& candidates) {
        for (int count = 0; count < 50; ++count, next += 0x20)
            add("late", next, next + 0x10);
        EXPECT_FALSE(candidates->next()); // a walk ends in a table that has changed
        candidates->reset();
        return candidates->current();
    };
    EXPECT_EQ(at(0x2000, symbol_kind_all, &selector), "g[1000,4000)");
    std::vector<std::string> all = cut(0x1000, 0x4000, symbol_kind_all, &selector);
    EXPECT_FALSE(all.empty());
    EXPECT_GT(selector.calls, 1);
}

// --- Hostile input

TEST_F(SymbolTableTest, IntervalThatWrapsCoversNothing) {
    EXPECT_EQ(add("wrapped", 0xFFFFFFFFFFFFF000ULL, 0x1000), 1);
    EXPECT_EQ(add("f", 0x800, 0x900), 1);
    EXPECT_EQ(add("last", ~0ULL - 1, ~0ULL - 1), 1);
    EXPECT_EQ(at(0xFFFFFFFFFFFFF800ULL), "null");
    EXPECT_EQ(at(0), "null");
    EXPECT_EQ(at(0x880), "f[800,900)");
    EXPECT_THAT(raw(0, ~0ULL), ElementsAre("f[800,900)", "last[fffffffffffffffe,fffffffffffffffe)"));
    EXPECT_THAT(cut(0, ~0ULL - 1), ElementsAre("f[800,900)"));
}

TEST_F(SymbolTableTest, WholeAddressSpaceIsOneSymbolsAtMost) {
    loader.segments.emplace_back();
    loader.segments.back().rva = 0 - loader.imageBase;
    loader.segments.back().memorySize = ~0ULL;
    EXPECT_EQ(add("all", 0, ~0ULL), 1);
    EXPECT_EQ(add("top", ~0ULL, ~0ULL), 1);
    EXPECT_EQ(at(0x1234), "all[0,ffffffffffffffff)");
    EXPECT_EQ(at(~0ULL), "top[ffffffffffffffff,ffffffffffffffff)");
    EXPECT_EQ(cut(0, ~0ULL).size(), 1U);
}

TEST_F(SymbolTableTest, ReversedRangesOfAMergedEntryDoNoHarm) {
    FakeScope* existing = makeFake("existing", 0x2000, 0x1000);
    existing->onCompare = [](Scope*, Address64, Scope*) { return 4U; };
    table->addScope(existing);
    add("f", 0x2800, 0x2900);
    EXPECT_EQ(table->addScope(makeFake("newcomer", 0x2000, 0x3000)), 0);
    EXPECT_EQ(at(0x2980), "existing[2000,3000)");
    existing->onCompare = [](Scope*, Address64, Scope*) { return 2U; };
    EXPECT_EQ(table->addScope(makeFake("newcomer", 0x2000, 0x1000)), 0);
    EXPECT_EQ(at(0x2980), "null");
}

TEST_F(SymbolTableTest, ThousandsOfNestedSymbolsAreFoundInside) {
    constexpr Address64 count = 1500;
    for (Address64 number = 0; number < count; ++number)
        add("f", 0x1000 + number, 0x1000 + 3 * count - number);
    for (Address64 number = 0; number < count; number += 100) {
        SymMgrObjectPtr<ISymbolRange> range;
        table->symbolRangeByAddress(range, 0x1000 + number, symbol_kind_all, nullptr);
        EXPECT_EQ(beginOf(*range), 0x1000 + number);
    }
    EXPECT_EQ(cut(0, ~0ULL).size(), 2 * count - 1);
}

TEST_F(SymbolTableTest, ForgedOverlapsRunOutOfMemoryInsteadOfTakingIt) {
    std::size_t added = 0;
    try {
        for (Address64 number = 0; number < 100000; ++number, ++added)
            add("f", 0x1000 + number, 0x10000000 - number);
        ADD_FAILURE() << "no limit";
    } catch (const std::bad_alloc&) {
        EXPECT_GT(added, 5000U);
        EXPECT_LT(added, 10000U);
    }
    EXPECT_NE(at(0x1001), "null"); // what came before it stands
}

// --- Many cells

TEST_F(SymbolTableTest, EveryAddressOfALargeTableIsFoundWhateverTheOrderOfInsertion) {
    constexpr Address64 count = 5000;
    std::vector<Address64> order(count);
    for (Address64 number = 0; number < count; ++number)
        order[number] = number;
    std::mt19937 random(1);
    for (int round = 0; round < 3; ++round) {
        table = ISymbolTable::create(nullptr);
        for (Address64 number : order)
            ASSERT_EQ(add("f", 0x1000 + 16 * number, 0x1008 + 16 * number), 1);
        for (Address64 number = 0; number < count; ++number) {
            SymMgrObjectPtr<ISymbolRange> range;
            table->symbolRangeByAddress(range, 0x1007 + 16 * number, symbol_kind_all, nullptr);
            ASSERT_TRUE(range);
            ASSERT_EQ(beginOf(*range), 0x1000 + 16 * number);
            table->symbolRangeByAddress(range, 0x1008 + 16 * number, symbol_kind_all, nullptr);
            ASSERT_FALSE(range);
        }
        EXPECT_EQ(raw(0, ~0ULL).size(), count);
        if (round == 0)
            std::reverse(order.begin(), order.end());
        else
            std::shuffle(order.begin(), order.end(), random);
    }
}

} // namespace
