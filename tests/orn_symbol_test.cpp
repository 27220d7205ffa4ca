// Symbols, thunks, inline instances.

#include "support/symbol_fakes.h"

#include <memory>
#include <thread>

using namespace ORN_3_30;
using namespace ORN_3_30::test;

namespace {

using SymbolTest = SymbolModelTest;

/// A scope that the test owns.
std::unique_ptr<SymbolScope> makeScope(FakeLoader& loader, const char* name, Address64 value,
                                       Scope* parent = nullptr) {
    return std::unique_ptr<SymbolScope>(
        createSymbolScope(loader, name, value, parent, symbol_visibility_global, symbol_kind_function));
}

TEST_F(SymbolTest, PriorityFollowsTheKindsAndNotTheirNumbers) {
    EXPECT_EQ(symbolPriorityByKind(symbol_kind_entry_point), 0U);
    EXPECT_EQ(symbolPriorityByKind(symbol_kind_function), 1U);
    EXPECT_EQ(symbolPriorityByKind(symbol_kind_label), 2U);
    EXPECT_EQ(symbolPriorityByKind(symbol_kind_other), 3U);
    EXPECT_EQ(symbolPriorityByKind(symbol_kind_variable), 4U);
}

TEST_F(SymbolTest, WhatIsNoSingleKindHasPriorityTen) {
    EXPECT_EQ(symbolPriorityByKind(symbol_kind_none), 10U);
    EXPECT_EQ(symbolPriorityByKind(symbol_kind_function | symbol_kind_label), 10U);
    EXPECT_EQ(symbolPriorityByKind(static_cast<symbol_kind_t>(32)), 10U);
    EXPECT_EQ(symbolPriorityByKind(symbol_kind_all), 10U);
}

TEST_F(SymbolTest, KindAndVisibilityAreStoredAsGiven) {
    FakeScope scope(&loader, "f", 0x10, nullptr, symbol_visibility_local,
                    symbol_kind_function | symbol_kind_other);
    EXPECT_EQ(scope.symbol()->kind(), symbol_kind_function | symbol_kind_other);
    EXPECT_EQ(scope.symbol()->visibility(), symbol_visibility_local);
    scope.fakeSymbol->setKind(symbol_kind_label);
    scope.fakeSymbol->setVisibility(symbol_visibility_global);
    EXPECT_EQ(scope.symbol()->kind(), symbol_kind_label);
    EXPECT_EQ(scope.symbol()->visibility(), symbol_visibility_global);
}

TEST_F(SymbolTest, NamesComeFromTheDemangler) {
    FakeScope scope(&loader, "_ZN3foo3barEi", 0);
    NamedSymbol& symbol = *scope.fakeSymbol;
    EXPECT_STREQ(symbol.rawName(), "_ZN3foo3barEi");
    EXPECT_STREQ(symbol.rawNameUnlocked(), "_ZN3foo3barEi");
    EXPECT_STREQ(symbol.shortName(), "bar");
    EXPECT_STREQ(symbol.shortNameUnlocked(), "bar");
    EXPECT_STREQ(symbol.fullName(), "foo::bar(int)");
    EXPECT_STREQ(symbol.demangledName(0), "foo::bar(int)");
    EXPECT_STREQ(symbol.demangledNameUnlocked(0), "foo::bar(int)");
}

TEST_F(SymbolTest, SetNameReplacesEveryForm) {
    FakeScope scope(&loader, "old", 0);
    scope.fakeSymbol->setName("_ZN3foo3barEi");
    EXPECT_STREQ(scope.symbol()->rawName(), "_ZN3foo3barEi");
    EXPECT_STREQ(scope.symbol()->shortName(), "bar");
}

TEST_F(SymbolTest, WithoutDemanglerEveryNameIsEmptyAndLogged) {
    FakeScope scope(&loader, "f", 0);
    FakeSymbol& symbol = *scope.fakeSymbol;
    symbol.loseName();
    EXPECT_STREQ(symbol.rawName(), "");
    EXPECT_STREQ(symbol.demangledName(0), "");
    EXPECT_STREQ(symbol.shortName(), "");
    EXPECT_STREQ(symbol.fullName(), "");
    EXPECT_STREQ(symbol.rawNameUnlocked(), "");
    EXPECT_STREQ(symbol.shortNameUnlocked(), "");
    EXPECT_STREQ(symbol.demangledNameUnlocked(0), "");
    std::vector<LogMessage> logs = takeLogs();
    ASSERT_EQ(logs.size(), 7U);
    for (const LogMessage& message : logs) {
        EXPECT_EQ(message.level, errorLevel);
        EXPECT_THAT(message.text, ::testing::HasSubstr("ASSERTION FAILED: 'm_demangler'"));
        EXPECT_THAT(message.text, ::testing::HasSubstr("orn_symbol.cpp"));
    }
}

TEST_F(SymbolTest, NamesAreReadWhileAnotherThreadReplacesThem) {
    FakeScope first(&loader, "a", 0);
    FakeScope second(&loader, "b", 0);
    std::thread renamer([&] {
        for (int turn = 0; turn < 2000; ++turn) {
            first.fakeSymbol->setName("_Z1xv");
            second.fakeSymbol->setVisibility(symbol_visibility_local);
        }
    });
    for (int turn = 0; turn < 2000; ++turn)
        EXPECT_STREQ(second.symbol()->fullName(), "b");
    renamer.join();
    EXPECT_STREQ(first.symbol()->fullName(), "x()");
}

TEST_F(SymbolTest, IdIsTheLoadersTag) {
    FakeScope scope(&loader, "f", 0);
    EXPECT_EQ(scope.id(), ~0ULL);
    scope.fakeSymbol->setId(77);
    EXPECT_EQ(scope.fakeSymbol->id(), 77U);
    EXPECT_EQ(scope.id(), 77U);
}

TEST_F(SymbolTest, AddressIsTheValueAndNewAtEveryCall) {
    auto scope = makeScope(loader, "f", 0x401234);
    scope->addRange(0x401000, 0x402000);
    SymMgrObjectPtr<IAddress> first, second;
    scope->symbol()->address(first);
    scope->symbol()->address(second);
    EXPECT_EQ(first->pseudoAddr(), 0x401234U);
    EXPECT_EQ(first->rva(), 0x1234U);
    EXPECT_NE(first.get(), second.get());
}

TEST_F(SymbolTest, PlainSymbolKnowsNothingOfSources) {
    auto scope = makeScope(loader, "f", 0x1000);
    ISymbol& symbol = *scope->symbol();
    SymMgrObjectPtr<ISourceLocation> location;
    EXPECT_EQ(symbol.sourceLocation(location), status_False);
    ICompUnitDetails* details = nullptr;
    EXPECT_EQ(symbol.compUnitDetails(details), status_False);
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>> lines;
    symbol.sourceLines(lines, nullptr, nullptr);
    EXPECT_FALSE(lines);
    SymMgrObjectPtr<ISourceLine> line;
    symbol.sourceLineAt(line, nullptr);
    EXPECT_FALSE(line);
}

TEST_F(SymbolTest, RangesAscendByLowAddress) {
    auto scope = makeScope(loader, "f", 0x2000);
    scope->addRange(0x2000, 0x2100);
    scope->addRange(0x1000, 0x1100);
    RangeIteratorPtr ranges;
    scope->symbol()->ranges(ranges);
    EXPECT_THAT(texts(ranges), ::testing::ElementsAre("f[1000,1100)", "f[2000,2100)"));
    EXPECT_FALSE(ranges->next());
    EXPECT_FALSE(ranges->current());
    ranges->reset();
    EXPECT_EQ(text(ranges->current()), "f[1000,1100)");
    EXPECT_FALSE(ranges->current()->thunk());
}

TEST_F(SymbolTest, RangesOfAScopeWithoutRangesAreAnEmptyIterator) {
    auto scope = makeScope(loader, "f", 0x2000);
    RangeIteratorPtr ranges;
    scope->symbol()->ranges(ranges);
    ASSERT_TRUE(ranges);
    EXPECT_FALSE(ranges->current());
    EXPECT_FALSE(ranges->next());
}

TEST_F(SymbolTest, RangesAreAFreshIteratorAtEachCall) {
    auto scope = makeScope(loader, "f", 0);
    RangeIteratorPtr first, second;
    scope->symbol()->ranges(first);
    scope->symbol()->ranges(second);
    EXPECT_NE(first.get(), second.get());
}

TEST_F(SymbolTest, RangeIteratorsHoldTheScope) {
    auto scope = makeScope(loader, "f", 0);
    unsigned count = 0;
    {
        RangeIteratorPtr ranges, thunks;
        scope->symbol()->ranges(ranges);
        scope->symbol()->thunkRanges(thunks);
        scope->refCount(count);
        EXPECT_EQ(count, 2U);
    }
    scope->refCount(count);
    EXPECT_EQ(count, 0U);
    EXPECT_STREQ(scope->symbol()->rawName(), "f"); // the last release destroyed nothing
}

TEST_F(SymbolTest, ThunkRangesOfAScopeWithoutThunksYieldNothing) {
    auto scope = makeScope(loader, "f", 0);
    RangeIteratorPtr thunks;
    scope->symbol()->thunkRanges(thunks);
    ASSERT_TRUE(thunks);
    EXPECT_FALSE(thunks->current());
    EXPECT_FALSE(thunks->next());
    EXPECT_FALSE(thunks->current());
}

TEST_F(SymbolTest, ThunkRangesComeInOrderOfArrivalWithTheirThunks) {
    auto scope = makeScope(loader, "f", 0);
    auto* first = new ImportThunk(nullptr, 0x3000, 0x10);
    scope->addThunk(first);
    scope->addThunk(new ImportThunk(nullptr, 0x1000, 0x10));
    RangeIteratorPtr thunks;
    scope->symbol()->thunkRanges(thunks);
    EXPECT_EQ(thunks->current()->thunk(), first);
    EXPECT_THAT(texts(thunks), ::testing::ElementsAre("f[3000,3010)", "f[1000,1010)"));
    EXPECT_FALSE(thunks->next());
    thunks->reset();
    EXPECT_EQ(text(thunks->current()), "f[3000,3010)");
}

TEST_F(SymbolTest, ImportThunkIsAnImportWithTheNameOfItsScope) {
    auto first = makeScope(loader, "puts", 0);
    auto second = makeScope(loader, "_Z1xv", 0);
    SymMgrObjectPtr<ImportThunk> thunk = new ImportThunk(first.get(), 0x1000, 0x10);
    EXPECT_EQ(thunk->isImport(), 1);
    EXPECT_STREQ(thunk->name(), "puts");
    thunk->setScope(second.get());
    EXPECT_STREQ(thunk->name(), "_Z1xv");
    EXPECT_EQ(thunk->address(), 0x1000U);
    EXPECT_EQ(thunk->size(), 0x10U);
}

TEST_F(SymbolTest, ThunkCoversAHalfOpenInterval) {
    SymMgrObjectPtr<ImportThunk> thunk = new ImportThunk(nullptr, 0x1000, 0x10);
    EXPECT_FALSE(thunk->contains(0xFFF));
    EXPECT_TRUE(thunk->contains(0x1000));
    EXPECT_TRUE(thunk->contains(0x100F));
    EXPECT_FALSE(thunk->contains(0x1010));
}

TEST_F(SymbolTest, ThunkThatWrapsCoversNothing) {
    SymMgrObjectPtr<ImportThunk> thunk = new ImportThunk(nullptr, ~0ULL - 3, 0x10);
    EXPECT_FALSE(thunk->contains(~0ULL - 3));
    EXPECT_FALSE(thunk->contains(0));
}

TEST_F(SymbolTest, InlineInstanceAnswersThroughItsScope) {
    FakeScope scope(&loader, "f", 0);
    scope.addRange(0x10, 0x20);
    SymMgrObjectPtr<FakeInlineInstance> instance = new FakeInlineInstance(&scope);
    EXPECT_EQ(instance->symbol(), scope.symbol());
    RangeIteratorPtr ranges;
    instance->ranges(ranges);
    EXPECT_THAT(texts(ranges), ::testing::ElementsAre("f[10,20)"));
}

} // namespace
