// Scopes: their ranges, thunks and loads, and the module-wide scope.

#include "support/symbol_fakes.h"

#include <memory>
#include <utility>

using namespace ORN_3_30;
using namespace ORN_3_30::test;

namespace {

using Intervals = std::vector<std::pair<Address64, Address64>>;

class ScopeTest : public SymbolModelTest {
protected:
    Intervals rangesOf(Scope& scope) {
        Intervals intervals;
        for (Scope::RangeNode* node = scope.rangeList()->m_head; node; node = node->next)
            intervals.emplace_back(node->low, node->high);
        return intervals;
    }
    Intervals rangesAfter(const Intervals& added) {
        FakeScope scope(&loader, "f", 0);
        for (auto [low, high] : added)
            scope.addRange(low, high);
        return rangesOf(scope);
    }
};

// --- addRange

TEST_F(ScopeTest, TouchingRangesAreMergedAlsoIntoThePrimaryNode) {
    EXPECT_EQ(rangesAfter({{10, 20}, {20, 30}}), (Intervals{{10, 30}}));
}

TEST_F(ScopeTest, NewHeadIsNeverMergedWithTheOldOne) {
    EXPECT_EQ(rangesAfter({{10, 20}, {20, 30}, {5, 40}}), (Intervals{{5, 40}, {10, 30}}));
    EXPECT_EQ(rangesAfter({{10, 20}, {5, 10}}), (Intervals{{5, 10}, {10, 20}}));
}

TEST_F(ScopeTest, PrimaryNodeIsNeverAbsorbedAsAFollowingNode) {
    // The primary node is [50, 60); [10, 20) comes in front of it and then grows over it.
    EXPECT_EQ(rangesAfter({{50, 60}, {10, 20}, {20, 55}}), (Intervals{{10, 55}, {50, 60}}));
    EXPECT_EQ(rangesAfter({{50, 60}, {10, 20}, {15, 70}}), (Intervals{{10, 70}, {50, 60}}));
}

TEST_F(ScopeTest, SeparateRangesStayApartInOrder) {
    EXPECT_EQ(rangesAfter({{10, 20}, {50, 60}, {30, 40}}), (Intervals{{10, 20}, {30, 40}, {50, 60}}));
}

TEST_F(ScopeTest, RangeGrowsTheNodeBehindItDownward) {
    EXPECT_EQ(rangesAfter({{10, 20}, {50, 60}, {40, 50}}), (Intervals{{10, 20}, {40, 60}}));
    EXPECT_EQ(rangesAfter({{10, 20}, {50, 60}, {40, 55}}), (Intervals{{10, 20}, {40, 60}}));
}

TEST_F(ScopeTest, RangeAbsorbsEveryFollowingNodeThatItReaches) {
    EXPECT_EQ(rangesAfter({{10, 20}, {50, 60}, {70, 80}, {90, 99}, {40, 70}}),
              (Intervals{{10, 20}, {40, 80}, {90, 99}}));
    EXPECT_EQ(rangesAfter({{10, 20}, {50, 60}, {70, 80}, {15, 75}}), (Intervals{{10, 80}}));
}

TEST_F(ScopeTest, RangeBetweenTwoNodesJoinsThem) {
    EXPECT_EQ(rangesAfter({{10, 20}, {30, 40}, {20, 30}}), (Intervals{{10, 40}}));
}

TEST_F(ScopeTest, RangeThatIsHeldAlreadyChangesNothing) {
    EXPECT_EQ(rangesAfter({{10, 40}, {20, 30}}), (Intervals{{10, 40}}));
}

TEST_F(ScopeTest, EmptyAndReversedRangesAreKeptAsTheyAre) {
    EXPECT_EQ(rangesAfter({{10, 10}}), (Intervals{{10, 10}}));
    EXPECT_EQ(rangesAfter({{20, 10}, {30, 40}}), (Intervals{{20, 10}, {30, 40}}));
}

TEST_F(ScopeTest, CursorStandsOnTheNodeTouchedLast) {
    FakeScope scope(&loader, "f", 0);
    scope.addRange(10, 20);
    scope.addRange(50, 60);
    EXPECT_EQ(scope.rangeList()->m_cursor.load()->low, 50U);
    EXPECT_EQ(scope.rangeList()->m_primary->low, 10U);
    scope.addRange(15, 25);
    EXPECT_EQ(scope.rangeList()->m_cursor.load()->low, 10U);
    scope.addRange(5, 6);
    EXPECT_EQ(scope.rangeList()->m_cursor.load()->low, 5U);
    EXPECT_EQ(scope.rangeList()->m_primary->low, 10U);
}

TEST_F(ScopeTest, RangesOfManyOrdersEndSorted) {
    FakeScope scope(&loader, "f", 0);
    for (Address64 step = 0; step < 500; ++step)
        scope.addRange(10 * (step * 7 % 500) + 3, 10 * (step * 7 % 500) + 5);
    Intervals ranges = rangesOf(scope);
    ASSERT_EQ(ranges.size(), 500U);
    for (std::size_t index = 0; index < ranges.size(); ++index)
        EXPECT_EQ(ranges[index].first, 10 * index + 3);
}

// --- removeRange

TEST_F(ScopeTest, RemovedHeadLeavesHeadAndCursorOnItsSuccessor) {
    FakeScope scope(&loader, "f", 0);
    scope.addRange(10, 20);
    scope.addRange(30, 40);
    scope.addRange(50, 60);
    scope.removeRange(10);
    EXPECT_EQ(rangesOf(scope), (Intervals{{30, 40}, {50, 60}}));
    EXPECT_EQ(scope.rangeList()->m_cursor.load(), scope.rangeList()->m_head);
    EXPECT_EQ(scope.rangeList()->m_primary, nullptr);
}

TEST_F(ScopeTest, RemovedCursorMovesToTheNodeBeforeIt) {
    FakeScope scope(&loader, "f", 0);
    scope.addRange(10, 20);
    scope.addRange(30, 40);
    scope.removeRange(30);
    EXPECT_EQ(rangesOf(scope), (Intervals{{10, 20}}));
    EXPECT_EQ(scope.rangeList()->m_cursor.load()->low, 10U);
    EXPECT_EQ(scope.rangeList()->m_primary->low, 10U);
}

TEST_F(ScopeTest, RemovingWhatIsNotThereChangesNothing) {
    FakeScope scope(&loader, "f", 0);
    scope.removeRange(1);
    scope.addRange(10, 20);
    scope.removeRange(11);
    EXPECT_EQ(rangesOf(scope), (Intervals{{10, 20}}));
}

TEST_F(ScopeTest, ListEmptiedByRemovalTakesANewPrimaryNode) {
    FakeScope scope(&loader, "f", 0);
    scope.addRange(10, 20);
    scope.removeRange(10);
    EXPECT_EQ(scope.firstLow(), ~0ULL);
    EXPECT_EQ(scope.lastHigh(), ~0ULL);
    scope.addRange(30, 40);
    EXPECT_EQ(scope.rangeList()->m_primary->low, 30U);
}

// --- Questions about ranges

TEST_F(ScopeTest, EmptyListEndsAtAllOnes) {
    FakeScope scope(&loader, "f", 0);
    EXPECT_EQ(scope.firstLow(), ~0ULL);
    EXPECT_EQ(scope.lastHigh(), ~0ULL);
    EXPECT_FALSE(scope.hasManyRanges());
}

TEST_F(ScopeTest, ExtentRunsFromTheHeadToTheLastNode) {
    FakeScope scope(&loader, "f", 0);
    scope.addRange(30, 40);
    EXPECT_FALSE(scope.hasManyRanges());
    scope.addRange(10, 20);
    EXPECT_TRUE(scope.hasManyRanges());
    EXPECT_EQ(scope.firstLow(), 10U);
    EXPECT_EQ(scope.lastHigh(), 40U);
}

TEST_F(ScopeTest, LastHighIsThatOfTheLastNodeEvenIfAnotherIsGreater) {
    FakeScope scope(&loader, "f", 0);
    scope.addRange(10, 30);
    scope.addRange(5, 40);
    EXPECT_EQ(scope.lastHigh(), 30U);
}

TEST_F(ScopeTest, RangeContainsItsLowAndNotItsHigh) {
    FakeScope scope(&loader, "f", 0);
    scope.addRange(10, 20);
    scope.addRange(30, 40);
    Address64 low = 7, high = 8;
    EXPECT_FALSE(scope.rangeContaining(low, high, 20));
    EXPECT_FALSE(scope.rangeContaining(low, high, 40));
    EXPECT_FALSE(scope.rangeContaining(low, high, 9));
    EXPECT_EQ(low, 7U);
    EXPECT_EQ(high, 8U);
    EXPECT_TRUE(scope.rangeContaining(low, high, 10));
    EXPECT_EQ(low, 10U);
    EXPECT_EQ(high, 20U);
    EXPECT_EQ(scope.rangeList()->m_cursor.load()->low, 10U);
    EXPECT_TRUE(scope.rangeContaining(low, high, 39));
    EXPECT_EQ(low, 30U);
    EXPECT_TRUE(scope.rangeContaining(low, high, 19)); // in front of the cursor
    EXPECT_EQ(low, 10U);
}

TEST_F(ScopeTest, CollapsedRangesLeaveTheHeadWithANewHigh) {
    FakeScope scope(&loader, "f", 0);
    scope.addRange(30, 40);
    scope.addRange(10, 20);
    scope.addRange(50, 60);
    scope.collapseRanges(60);
    EXPECT_EQ(rangesOf(scope), (Intervals{{10, 60}}));
    EXPECT_EQ(scope.rangeList()->m_cursor.load(), scope.rangeList()->m_head);
    EXPECT_EQ(scope.rangeList()->m_primary, scope.rangeList()->m_head);
}

// --- compare

class CompareTest : public ScopeTest {
protected:
    unsigned compared(Intervals mine, const char* myName, Intervals theirs, const char* theirName) {
        std::unique_ptr<SymbolScope> first = made(mine, myName);
        std::unique_ptr<SymbolScope> second = made(theirs, theirName);
        return first->compare(second.get(), ~0ULL, nullptr);
    }

private:
    std::unique_ptr<SymbolScope> made(const Intervals& ranges, const char* name) {
        std::unique_ptr<SymbolScope> scope(
            createSymbolScope(loader, name, 0, nullptr, symbol_visibility_global, symbol_kind_function));
        for (auto [low, high] : ranges)
            scope->addRange(low, high);
        return scope;
    }
};

TEST_F(CompareTest, SameEndAndRawNameAreTheSame) {
    EXPECT_EQ(compared({{10, 20}}, "a", {{10, 20}}, "a"), 1U);
    EXPECT_EQ(compared({{10, 20}}, "a", {{10, 20}}, "b"), 0U);
    EXPECT_EQ(compared({{10, 20}}, "a", {{10, 21}}, "a"), 0U);
}

TEST_F(CompareTest, EmptySymbolIsTheSameAsASizedOneOfItsName) {
    EXPECT_EQ(compared({{10, 20}}, "a", {{10, 10}}, "a"), 1U);
    EXPECT_EQ(compared({{10, 20}}, "a", {{10, 10}}, "b"), 0U);
    EXPECT_EQ(compared({{10, 10}}, "a", {{10, 20}}, "a"), 0U); // and not the other way round
    EXPECT_EQ(compared({{10, 10}}, "a", {{10, 10}}, "a"), 1U);
}

TEST_F(CompareTest, RawNamesDecideAndNotShortOnes) {
    EXPECT_EQ(compared({{10, 20}}, "bar", {{10, 20}}, "_ZN3foo3barEi"), 0U);
}

TEST_F(CompareTest, ScopeWithoutRangesCountsAsEmpty) {
    EXPECT_EQ(compared({{10, 20}}, "a", {}, "a"), 1U);
    EXPECT_EQ(compared({}, "a", {}, "a"), 1U);
    EXPECT_EQ(compared({}, "a", {{10, 20}}, "a"), 0U);
}

TEST_F(CompareTest, ScopeWithoutSymbolIsNothingElse) {
    SymbolScope nameless(&loader, nullptr, nullptr);
    FakeScope named(&loader, "a", 0);
    EXPECT_EQ(nameless.compare(&named, ~0ULL, nullptr), 0U);
    EXPECT_EQ(named.compare(&nameless, ~0ULL, nullptr), 0U);
}

// --- Thunks

TEST_F(ScopeTest, KeptThunkBelongsToTheScope) {
    FakeScope scope(&loader, "puts", 0);
    scope.addThunk(new ImportThunk(nullptr, 0x1000, 0x10));
    SymMgrObjectPtr<IThunk> found;
    scope.thunkAt(0x100F, found);
    ASSERT_TRUE(found);
    EXPECT_STREQ(found->name(), "puts");
    scope.thunkAt(0x1010, found);
    EXPECT_FALSE(found);
}

TEST_F(ScopeTest, ThunkWhoseAddressIsCoveredIsDropped) {
    FakeScope scope(&loader, "f", 0);
    scope.addThunk(new ImportThunk(nullptr, 0x1000, 0x10));
    SymMgrObjectPtr<ImportThunk> dropped = new ImportThunk(nullptr, 0x1008, 0x10);
    scope.addThunk(dropped);
    EXPECT_EQ(scope.thunks()->size(), 1U);
    unsigned count = 0;
    dropped->refCount(count);
    EXPECT_EQ(count, 1U);
}

TEST_F(ScopeTest, ThunkThatReachesIntoAHeldOneIsKept) {
    FakeScope scope(&loader, "f", 0);
    scope.addThunk(new ImportThunk(nullptr, 0x1000, 0x10));
    scope.addThunk(new ImportThunk(nullptr, 0xFF8, 0x10));
    ASSERT_EQ(scope.thunks()->size(), 2U);
    SymMgrObjectPtr<IThunk> found;
    scope.thunkAt(0x1004, found); // both hold it: the first of them answers
    EXPECT_EQ(found.get(), (*scope.thunks())[0].get());
    scope.thunkAt(0xFFF, found);
    EXPECT_EQ(found.get(), (*scope.thunks())[1].get());
}

TEST_F(ScopeTest, LookingForAThunkMakesNoContainer) {
    FakeScope scope(&loader, "f", 0);
    SymMgrObjectPtr<IThunk> found = new ImportThunk(nullptr, 0, 1);
    scope.thunkAt(0, found);
    EXPECT_FALSE(found);
    EXPECT_FALSE(scope.hasThunks());
}

// --- Construction and answers of the plain classes

TEST_F(ScopeTest, CreatedScopeOwnsASymbolOfItsOwn) {
    GlobalScope module(&loader, nullptr, nullptr);
    std::unique_ptr<SymbolScope> scope(
        createSymbolScope(loader, "f", 0x1234, &module, symbol_visibility_local, symbol_kind_variable));
    ASSERT_TRUE(scope->symbol());
    EXPECT_EQ(scope->symbolObject(), scope->symbol());
    EXPECT_EQ(scope->parent(), &module);
    EXPECT_EQ(scope->loader(), &loader);
    EXPECT_EQ(scope->inlineInstance(), nullptr);
    EXPECT_EQ(scope->id(), ~0ULL);
    auto* symbol = static_cast<Symbol*>(scope->symbol());
    EXPECT_EQ(symbol->id(), ~0ULL);
    EXPECT_EQ(symbol->value(), 0x1234U);
    EXPECT_EQ(symbol->scope(), scope.get());
    EXPECT_EQ(symbol->kind(), symbol_kind_variable);
    EXPECT_EQ(symbol->visibility(), symbol_visibility_local);
}

TEST_F(ScopeTest, SymbolOfACreatedScopeSurvivesItsLastRelease) {
    std::unique_ptr<SymbolScope> scope(
        createSymbolScope(loader, "f", 0, nullptr, symbol_visibility_local, symbol_kind_function));
    Symbol* own = static_cast<Symbol*>(scope->symbol());
    SymMgrObjectPtr<Symbol> other =
        new Symbol(&loader, "g", 0, scope.get(), symbol_visibility_local, symbol_kind_function, 5);
    scope->setSymbol(other);
    EXPECT_STREQ(scope->symbol()->rawName(), "g");
    EXPECT_EQ(scope->id(), 5U);
    EXPECT_STREQ(own->rawName(), "f");
}

TEST_F(ScopeTest, ScopeMadeWithASymbolTakesIt) {
    FakeScope face(&loader, "f", 0);
    SymbolScope scope(&loader, nullptr, face.symbol(), nullptr);
    EXPECT_EQ(scope.symbol(), face.symbol());
}

TEST_F(ScopeTest, ScopeMadeWithANullSymbolReportsIt) {
    expectLog("ASSERTION FAILED: 'm_symbol != NULL'");
    SymbolScope scope(&loader, nullptr, nullptr, nullptr);
    EXPECT_EQ(scope.symbol(), nullptr);
    EXPECT_EQ(scope.id(), ~0ULL);
}

TEST_F(ScopeTest, TableIsMadeAtFirstUseAndKept) {
    FakeScope scope(&loader, "f", 0);
    ISymbolTable* table = scope.symbolTable();
    ASSERT_TRUE(table);
    EXPECT_EQ(scope.symbolTable(), table);
    EXPECT_EQ(table->scope(), &scope);
}

// --- Loading

TEST_F(ScopeTest, LoadAsksForTheMissingKindsOnly) {
    FakeScope scope(&loader, "f", 0);
    scope.onLoad = [](symbol_kind_t) { return status_Ok; };
    EXPECT_EQ(scope.load(symbol_kind_function), status_Ok);
    EXPECT_EQ(scope.load(symbol_kind_function | symbol_kind_label), status_Ok);
    EXPECT_EQ(scope.kindsLoaded, symbol_kind_label);
    EXPECT_EQ(scope.load(symbol_kind_function), status_Ok);
    EXPECT_EQ(scope.load(symbol_kind_none), status_Ok);
    EXPECT_EQ(scope.loads, 2);
}

TEST_F(ScopeTest, FailedLoadIsNotRepeatedAndTheTableAnswers) {
    FakeScope scope(&loader, "module", 0);
    scope.onLoad = [&](symbol_kind_t) {
        SymbolScope* symbol =
            createSymbolScope(loader, "f", 0x10, &scope, symbol_visibility_global, symbol_kind_function);
        symbol->addRange(0x10, 0x20);
        scope.symbolTable()->addScope(symbol);
        return status_BadFileFormat;
    };
    EXPECT_EQ(scope.load(symbol_kind_function), status_BadFileFormat);
    EXPECT_EQ(scope.load(symbol_kind_function), status_Ok);
    EXPECT_EQ(scope.loads, 1);
    SymMgrObjectPtr<ISymbolRange> range;
    EXPECT_EQ(scope.symbolRangeByAddress(range, 0x18, symbol_kind_function, nullptr), status_Ok);
    EXPECT_EQ(text(range), "f[10,20)");
}

TEST_F(ScopeTest, LoadThatRunsOutOfMemoryIsNotRepeatedEither) {
    FakeScope scope(&loader, "f", 0);
    scope.onLoad = [](symbol_kind_t) -> status_t { throw std::bad_alloc(); };
    EXPECT_THROW(static_cast<void>(scope.load(symbol_kind_function)), std::bad_alloc);
    EXPECT_EQ(scope.load(symbol_kind_function), status_Ok);
    EXPECT_EQ(scope.loads, 1);
}

TEST_F(ScopeTest, FailedLoadEndsTheQueryWithOutUntouched) {
    FakeScope scope(&loader, "module", 0);
    scope.onLoad = [](symbol_kind_t) { return status_BadDebugInfo; };
    SymMgrObjectPtr<ISymbolRange> range = new SymbolRange(1, 2, &scope, nullptr);
    SymMgrObjectPtr<ISymbolRange> before = range;
    EXPECT_EQ(scope.symbolRangeByAddress(range, 0, symbol_kind_function, nullptr), status_BadDebugInfo);
    EXPECT_EQ(range.get(), before.get());
}

TEST_F(ScopeTest, FirstQueryOfAPlainScopeIsFalseWithOutUntouchedAndTheSecondAnswers) {
    std::unique_ptr<SymbolScope> scope(
        createSymbolScope(loader, "f", 0, nullptr, symbol_visibility_global, symbol_kind_function));
    SymbolScope* nested =
        createSymbolScope(loader, "inner", 0x10, scope.get(), symbol_visibility_local, symbol_kind_label);
    nested->addRange(0x10, 0x20);
    scope->symbolTable()->addScope(nested);
    RangeIteratorPtr ranges = new RelRangeIterator(scope.get());
    RangeIteratorPtr before = ranges;
    EXPECT_EQ(scope->symbolRanges(ranges, 0, 0x100, symbol_kind_label), status_False);
    EXPECT_EQ(ranges.get(), before.get());
    EXPECT_EQ(scope->symbolRanges(ranges, 0, 0x100, symbol_kind_label), status_Ok);
    EXPECT_THAT(texts(ranges), ::testing::ElementsAre("inner[10,20)"));
}

TEST_F(ScopeTest, MaskOfZeroMeansTheLoadedKindsInSymbolRangesOnly) {
    FakeScope scope(&loader, "module", 0);
    scope.onLoad = [](symbol_kind_t) { return status_Ok; };
    SymbolScope* nested =
        createSymbolScope(loader, "f", 0x10, &scope, symbol_visibility_global, symbol_kind_function);
    nested->addRange(0x10, 0x20);
    scope.symbolTable()->addScope(nested);
    RangeIteratorPtr ranges;
    EXPECT_EQ(scope.symbolRanges(ranges, 0, 0x100, symbol_kind_none), status_False); // nothing is loaded
    ASSERT_EQ(scope.load(symbol_kind_function), status_Ok);
    EXPECT_EQ(scope.symbolRanges(ranges, 0, 0x100, symbol_kind_none), status_Ok);
    SymMgrObjectPtr<ISymbolRange> range;
    EXPECT_EQ(scope.symbolRangeByAddress(range, 0x18, symbol_kind_none, nullptr), status_False);
    EXPECT_EQ(scope.nonOverlappedSymbolRanges(ranges, 0, 0x100, symbol_kind_none, nullptr), status_False);
    EXPECT_EQ(scope.nonOverlappedSymbolRanges(ranges, 0, 0x100, symbol_kind_function, nullptr), status_Ok);
    EXPECT_THAT(texts(ranges), ::testing::ElementsAre("f[10,20)"));
}

// --- The filter of a load

TEST_F(ScopeTest, FilterWithoutAddressesLetsEverythingPass) {
    std::set<unsigned long long> addresses;
    LoadFilter filter(&addresses);
    EXPECT_TRUE(filter.passes(10, 20));
    EXPECT_TRUE(filter.passes(20, 10));
}

TEST_F(ScopeTest, FilterLetsPassWhatHoldsAnAddressAndWhatIsEmpty) {
    std::set<unsigned long long> addresses{15, 100};
    LoadFilter filter(&addresses);
    EXPECT_TRUE(filter.passes(15, 16));
    EXPECT_TRUE(filter.passes(10, 20));
    EXPECT_FALSE(filter.passes(10, 15));
    EXPECT_FALSE(filter.passes(16, 100));
    EXPECT_TRUE(filter.passes(50, 50));
    EXPECT_FALSE(filter.passes(200, 300));
    EXPECT_FALSE(filter.passes(~0ULL - 1, 3)); // a sum that wrapped holds nothing
}

// --- GlobalScope

class FakeResolver : public SymMgrObject<ISrcLineResolver> {
public:
    explicit FakeResolver(ILock* lock) : SymMgrObject<ISrcLineResolver>(lock) {}

    void sourceLocationAt(SymMgrObjectPtr<ISourceLocation>&, unsigned long long, unsigned long long,
                          ILineTable*, ISourceLocationSelector*) override {}
    status_t sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>&, unsigned long long,
                         unsigned, unsigned long long, unsigned long long, ILineTable*) override {
        return status_False;
    }
    unsigned fileCount() override { return 0; }
    ISourceFile* fileAt(unsigned) override { return nullptr; }
    ICompUnitDetails* compUnitDetails(unsigned long long) override { return nullptr; }
    int reserved() override { return 0; }
    void noteAddress(unsigned long long address) override { noted.push_back(address); }
    ILineTable* lineTable() override { return nullptr; }

    std::vector<Address64> noted;
};

/// Makes its resolver with the lock that the scope lends it.
class ResolvingDebugLoader : public FakeDebugInfoLoader {
public:
    ISrcLineResolver* getLineResolver(GlobalScope*, ILock* lock) override {
        return resolver = new FakeResolver(lock);
    }
    FakeResolver* resolver = nullptr;
};

class GlobalScopeTest : public ScopeTest {
protected:
    void enter(Scope& module, const char* name, Address64 low, Address64 high,
               symbol_kind_t kind = symbol_kind_function) {
        SymbolScope* scope = createSymbolScope(loader, name, low, &module, symbol_visibility_global, kind);
        scope->addRange(low, high);
        module.symbolTable()->addScope(scope);
    }

    std::vector<std::string> order;
};

TEST_F(GlobalScopeTest, HasNeitherParentNorSymbol) {
    GlobalScope module(&loader, nullptr, nullptr);
    EXPECT_EQ(module.parent(), nullptr);
    EXPECT_EQ(module.symbol(), nullptr);
    EXPECT_EQ(module.symbolObject(), nullptr);
    EXPECT_EQ(module.id(), ~0ULL);
    EXPECT_EQ(module.lineResolver(), nullptr);
}

TEST_F(GlobalScopeTest, DebugInformationIsReadFirst) {
    SymMgrObjectPtr<FakeDebugInfoLoader> debugLoader = new FakeDebugInfoLoader;
    debugLoader->onLoad = [&](ISymbolTable*, symbol_kind_t kinds) {
        order.push_back("debug " + std::to_string(kinds));
        return status_Ok;
    };
    loader.onRead = [&](ISymbolTable*, symbol_kind_t kinds) {
        order.push_back("file " + std::to_string(kinds));
        return status_Ok;
    };
    GlobalScope module(&loader, debugLoader, nullptr);
    EXPECT_EQ(module.load(symbol_kind_function), status_Ok);
    EXPECT_EQ(module.load(symbol_kind_function | symbol_kind_variable), status_Ok);
    EXPECT_THAT(order, ::testing::ElementsAre("debug 1", "file 1", "debug 4", "file 4"));
}

TEST_F(GlobalScopeTest, StatusOfALoadIsPutTogetherFromBoth) {
    struct Case {
        status_t debug, file, expected;
    };
    for (Case each :
         {Case{status_Ok, status_Ok, status_Ok}, Case{status_False, status_Ok, status_Ok},
          Case{status_Ok, status_False, status_Ok}, Case{status_False, status_False, status_False},
          Case{status_BadDebugInfo, status_Ok, status_BadDebugInfo},
          Case{status_BadDebugInfo, status_False, status_BadDebugInfo},
          Case{status_Ok, status_BadFileFormat, status_BadFileFormat},
          Case{status_BadDebugInfo, status_BadFileFormat, status_BadFileFormat}}) {
        SymMgrObjectPtr<FakeDebugInfoLoader> debugLoader = new FakeDebugInfoLoader;
        debugLoader->loadStatus = each.debug;
        loader.readStatus = each.file;
        GlobalScope module(&loader, debugLoader, nullptr);
        EXPECT_EQ(module.load(symbol_kind_function), each.expected) << each.debug << each.file;
    }
}

TEST_F(GlobalScopeTest, WithoutDebugLoaderItsStatusIsFalse) {
    GlobalScope first(&loader, nullptr, nullptr);
    EXPECT_EQ(first.load(symbol_kind_function), status_Ok);
    loader.readStatus = status_False;
    GlobalScope second(&loader, nullptr, nullptr);
    EXPECT_EQ(second.load(symbol_kind_function), status_False);
}

TEST_F(GlobalScopeTest, LoadingNothingCallsNobody) {
    SymMgrObjectPtr<FakeDebugInfoLoader> debugLoader = new FakeDebugInfoLoader;
    GlobalScope module(&loader, debugLoader, nullptr);
    EXPECT_EQ(module.loadContent(symbol_kind_none), status_Ok);
    EXPECT_EQ(debugLoader->loads, 0);
    EXPECT_EQ(loader.reads, 0);
}

TEST_F(GlobalScopeTest, LineResolverIsMadeAtOnceAndGoesWithTheScope) {
    SymMgrObjectPtr<ResolvingDebugLoader> debugLoader = new ResolvingDebugLoader;
    SymMgrObjectPtr<FakeResolver> held;
    {
        GlobalScope module(&loader, debugLoader, nullptr);
        ASSERT_TRUE(debugLoader->resolver);
        EXPECT_EQ(module.lineResolver(), debugLoader->resolver);
        unsigned count = 0;
        debugLoader->resolver->refCount(count);
        EXPECT_EQ(count, 1U);
    }
}

TEST_F(GlobalScopeTest, InterestingAddressMakesTheNextQueryLoadAgain) {
    SymMgrObjectPtr<ResolvingDebugLoader> debugLoader = new ResolvingDebugLoader;
    GlobalScope module(&loader, debugLoader, nullptr);
    EXPECT_EQ(module.load(symbol_kind_function), status_Ok);
    EXPECT_EQ(module.load(symbol_kind_function), status_Ok);
    EXPECT_EQ(loader.reads, 1);
    module.addInterestingAddress(0x401000);
    EXPECT_THAT(debugLoader->resolver->noted, ::testing::ElementsAre(0x401000U));
    EXPECT_EQ(module.load(symbol_kind_function), status_Ok);
    EXPECT_EQ(loader.reads, 2);
}

TEST_F(GlobalScopeTest, LoadersGetTheFilterOfTheNotedAddresses) {
    class FilteringLoader : public FakeLoader {
    public:
        status_t readSymbols(ISymbolTable*, LoadFilter* filter, symbol_kind_t) override {
            passed = filter->passes(0x10, 0x20);
            return status_Ok;
        }
        bool passed = false;
    };
    SymMgrObjectPtr<FilteringLoader> filtering = new FilteringLoader;
    GlobalScope module(filtering, nullptr, nullptr);
    ASSERT_EQ(module.load(symbol_kind_function), status_Ok);
    EXPECT_TRUE(filtering->passed);
    module.addInterestingAddress(0x20);
    ASSERT_EQ(module.load(symbol_kind_function), status_Ok);
    EXPECT_FALSE(filtering->passed);
    module.addInterestingAddress(0x1F);
    ASSERT_EQ(module.load(symbol_kind_function), status_Ok);
    EXPECT_TRUE(filtering->passed);
}

TEST_F(GlobalScopeTest, InterestingRangesWithoutAddressesAreNullAndLoadNothing) {
    GlobalScope module(&loader, nullptr, nullptr);
    SymMgrObjectPtr<RangeFilter> ranges = new RangeFilter;
    module.interestingRanges(ranges);
    EXPECT_FALSE(ranges);
    EXPECT_EQ(loader.reads, 0);
}

TEST_F(GlobalScopeTest, InterestingRangesLoadEveryKindButVariables) {
    GlobalScope module(&loader, nullptr, nullptr);
    loader.onRead = [&](ISymbolTable*, symbol_kind_t) {
        enter(module, "f", 0x401000, 0x401100);
        enter(module, "far", 0x402000, 0x402100);
        return status_Ok;
    };
    module.addInterestingAddress(0x401010);
    SymMgrObjectPtr<RangeFilter> ranges;
    module.interestingRanges(ranges);
    ASSERT_TRUE(ranges);
    EXPECT_EQ(loader.kindsRead, 27U);
    EXPECT_TRUE(ranges->overlaps(0x4010FF, 0x401100));
    EXPECT_FALSE(ranges->overlaps(0x401100, 0x402000));
    EXPECT_FALSE(ranges->overlaps(0x402000, 0x402100));
    unsigned loads = static_cast<unsigned>(loader.reads);
    EXPECT_EQ(loads, 1U);
}

TEST_F(GlobalScopeTest, InterestingRangesUseTheLoadedKinds) {
    GlobalScope module(&loader, nullptr, nullptr);
    module.addInterestingAddress(0x401010);
    ASSERT_EQ(module.load(symbol_kind_variable), status_Ok);
    enter(module, "f", 0x401000, 0x401100, symbol_kind_function);
    enter(module, "v", 0x401000, 0x401080, symbol_kind_variable);
    SymMgrObjectPtr<RangeFilter> ranges;
    module.interestingRanges(ranges);
    ASSERT_TRUE(ranges);
    EXPECT_TRUE(ranges->overlaps(0x401000, 0x401080));
    EXPECT_FALSE(ranges->overlaps(0x401080, 0x401100));
    EXPECT_EQ(loader.reads, 1);
}

TEST_F(GlobalScopeTest, InterestingRangesOfAnEmptySymbolReachTheNextOne) {
    GlobalScope module(&loader, nullptr, nullptr);
    module.addInterestingAddress(0x401010);
    ASSERT_EQ(module.load(symbol_kind_function), status_Ok);
    enter(module, "empty", 0x401000, 0x401000);
    enter(module, "next", 0x401800, 0x401900);
    SymMgrObjectPtr<RangeFilter> ranges;
    module.interestingRanges(ranges);
    ASSERT_TRUE(ranges);
    EXPECT_TRUE(ranges->overlaps(0x4017FF, 0x401800));
    EXPECT_FALSE(ranges->overlaps(0x401800, 0x401801));
}

TEST_F(GlobalScopeTest, InterestingRangesAreFoundOnce) {
    GlobalScope module(&loader, nullptr, nullptr);
    enter(module, "f", 0x401000, 0x401100);
    enter(module, "g", 0x402000, 0x402100);
    module.addInterestingAddress(0x401010);
    SymMgrObjectPtr<RangeFilter> first, second;
    module.interestingRanges(first);
    module.addInterestingAddress(0x402010);
    module.interestingRanges(second);
    EXPECT_EQ(first.get(), second.get());
    EXPECT_FALSE(second->overlaps(0x402000, 0x402100));
}

} // namespace
