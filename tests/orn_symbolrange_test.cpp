// What a symbol range computes from its interval and its scope.

#include "support/symbol_fakes.h"

#include <memory>

using namespace ORN_3_30;
using namespace ORN_3_30::test;

namespace {

/// One segment, pseudo addresses [0x401000, 0x406000], and a module scope with a function in it.
class SymbolRangeTest : public SymbolModelTest {
protected:
    SymbolRangeTest() {
        FakeSegment segment;
        segment.rva = 0x1000;
        segment.memorySize = 0x5000;
        loader.segments.push_back(segment);
    }

    using RangePtr = SymMgrObjectPtr<ISymbolRange>;

    RangePtr rangeOf(Scope* scope, Address64 begin, Address64 end, IThunk* thunk = nullptr) {
        return new SymbolRange(begin, end, scope, thunk);
    }
    SymbolScope* enter(Scope& parent, const char* name, Address64 low, Address64 high) {
        SymbolScope* scope =
            createSymbolScope(loader, name, low, &parent, symbol_visibility_global, symbol_kind_function);
        scope->addRange(low, high);
        EXPECT_EQ(parent.symbolTable()->addScope(scope), 1);
        return scope;
    }
};

TEST_F(SymbolRangeTest, AddressesAreMadeOnceAndKept) {
    FakeScope scope(&loader, "f", 0x401000);
    RangePtr range = rangeOf(&scope, 0x401000, 0x401100);
    SymMgrObjectPtr<IAddress> first, second, end;
    range->beginAddress(first);
    range->beginAddress(second);
    range->endAddress(end);
    EXPECT_EQ(first.get(), second.get());
    EXPECT_EQ(first->rva(), 0x1000U);
    EXPECT_EQ(end->pseudoAddr(), 0x401100U);
}

TEST_F(SymbolRangeTest, SizeIsTheDifference) {
    FakeScope scope(&loader, "f", 0x401000);
    EXPECT_EQ(rangeOf(&scope, 0x401000, 0x401100)->size(), 0x100U);
    EXPECT_EQ(rangeOf(&scope, 0x401000, 0x401000)->size(), 0U);
}

TEST_F(SymbolRangeTest, SizeOfAReversedRangeIsReportedAndZero) {
    FakeScope scope(&loader, "f", 0x401000);
    EXPECT_EQ(rangeOf(&scope, 0x401100, 0x401000)->size(), 0U);
    std::vector<LogMessage> logs = takeLogs();
    ASSERT_EQ(logs.size(), 1U);
    EXPECT_THAT(logs[0].text, ::testing::HasSubstr("ASSERTION FAILED: 'm_endAddr >= m_begAddr'"));
    EXPECT_THAT(logs[0].text, ::testing::HasSubstr("orn_symbolrange.cpp"));
}

TEST_F(SymbolRangeTest, UnknownEndIsTheEndOfTheSegment) {
    FakeScope scope(&loader, "f", 0x401000);
    EXPECT_EQ(endOf(*rangeOf(&scope, 0x401000, ~0ULL)), 0x406000U);
}

TEST_F(SymbolRangeTest, UnknownEndWithoutSegmentStaysUnknownAndIsReported) {
    expectLog("ASSERTION FAILED: 'seg'");
    FakeScope scope(&loader, "f", 0x1000);
    EXPECT_EQ(endOf(*rangeOf(&scope, 0x1000, ~0ULL)), ~0ULL);
}

TEST_F(SymbolRangeTest, SizeToNextSymbolReachesTheNextBegin) {
    GlobalScope module(&loader, nullptr, nullptr);
    ASSERT_EQ(module.load(symbol_kind_function), status_Ok);
    SymbolScope* scope = enter(module, "f", 0x401000, 0x401010);
    enter(module, "g", 0x401040, 0x401050);
    EXPECT_EQ(rangeOf(scope, 0x401000, 0x401010)->sizeToNextSymbol(), 0x40U);
}

TEST_F(SymbolRangeTest, SizeToNextSymbolPassesOverWhatBeginsBeforeTheEnd) {
    GlobalScope module(&loader, nullptr, nullptr);
    ASSERT_EQ(module.load(symbol_kind_function), status_Ok);
    SymbolScope* scope = enter(module, "empty", 0x401000, 0x401000);
    enter(module, "alias", 0x401000, 0x401000);
    enter(module, "around", 0x400F00, 0x402000);
    enter(module, "next", 0x401020, 0x401030);
    EXPECT_EQ(rangeOf(scope, 0x401000, 0x401000)->sizeToNextSymbol(), 0x20U);
}

TEST_F(SymbolRangeTest, SizeToNextSymbolOfTheLastOneReachesTheSegmentsEnd) {
    GlobalScope module(&loader, nullptr, nullptr);
    ASSERT_EQ(module.load(symbol_kind_function), status_Ok);
    SymbolScope* scope = enter(module, "f", 0x405000, 0x405010);
    EXPECT_EQ(rangeOf(scope, 0x405000, 0x405010)->sizeToNextSymbol(), 0x1000U);
}

TEST_F(SymbolRangeTest, SizeToNextSymbolWithoutParentReachesTheSegmentsEnd) {
    FakeScope scope(&loader, "f", 0x401000);
    EXPECT_EQ(rangeOf(&scope, 0x401000, 0x401010)->sizeToNextSymbol(), 0x5000U);
}

TEST_F(SymbolRangeTest, SizeToNextSymbolIsNeverLessThanTheRange) {
    FakeScope scope(&loader, "f", 0x401000);
    EXPECT_EQ(rangeOf(&scope, 0x401000, 0x407000)->sizeToNextSymbol(), 0x6000U);
}

TEST_F(SymbolRangeTest, SizeToNextSymbolAsksOnlyForWhatIsLoaded) {
    GlobalScope module(&loader, nullptr, nullptr);
    SymbolScope* scope = enter(module, "f", 0x401000, 0x401010);
    enter(module, "g", 0x401040, 0x401050);
    EXPECT_EQ(rangeOf(scope, 0x401000, 0x401010)->sizeToNextSymbol(), 0x5000U); // no kind is loaded
    EXPECT_EQ(loader.reads, 0);
}

TEST_F(SymbolRangeTest, SymbolAndInlineInstanceAreThoseOfTheScope) {
    FakeScope scope(&loader, "f", 0x401000);
    RangePtr range = rangeOf(&scope, 0x401000, 0x401010);
    EXPECT_EQ(range->symbol(), scope.symbol());
    EXPECT_EQ(range->inlineInstance(), nullptr);
    scope.isInlined = true;
    EXPECT_EQ(range->inlineInstance(), scope.inlineInstance());
}

TEST_F(SymbolRangeTest, ThunkIsLookedUpOnce) {
    FakeScope scope(&loader, "f", 0x401000);
    RangePtr early = rangeOf(&scope, 0x401000, 0x401010);
    EXPECT_EQ(early->thunk(), nullptr);
    scope.addThunk(new ImportThunk(nullptr, 0x401000, 0x10));
    EXPECT_EQ(early->thunk(), nullptr);
    RangePtr late = rangeOf(&scope, 0x401000, 0x401010);
    EXPECT_EQ(late->thunk(), (*scope.thunks())[0].get());
    unsigned count = 0;
    (*static_cast<Thunk*>(late->thunk())).refCount(count);
    EXPECT_EQ(count, 1U); // the range holds none
}

TEST_F(SymbolRangeTest, GivenThunkIsNotLookedUp) {
    FakeScope scope(&loader, "f", 0x401000);
    SymMgrObjectPtr<ImportThunk> thunk = new ImportThunk(&scope, 0x402000, 0x10);
    EXPECT_EQ(rangeOf(&scope, 0x401000, 0x401010, thunk)->thunk(), thunk.get());
}

TEST_F(SymbolRangeTest, ParentRangeIsTheParentsOwnRangeAroundTheBegin) {
    FakeScope outer(&loader, "outer", 0x401000);
    outer.addRange(0x401000, 0x401100);
    outer.addRange(0x402000, 0x402100);
    FakeScope inner(&loader, "inner", 0x402010, &outer);
    RangePtr parent;
    rangeOf(&inner, 0x402010, 0x402020)->parentRange(parent);
    EXPECT_EQ(text(parent), "outer[402000,402100)");
    EXPECT_EQ(parent->thunk(), nullptr);
}

TEST_F(SymbolRangeTest, ParentRangeWithoutParentIsNull) {
    FakeScope scope(&loader, "f", 0x401000);
    RangePtr parent = rangeOf(&scope, 1, 2);
    rangeOf(&scope, 0x401000, 0x401010)->parentRange(parent);
    EXPECT_FALSE(parent);
}

TEST_F(SymbolRangeTest, ParentRangeOutsideTheParentIsReversed) {
    FakeScope outer(&loader, "outer", 0x401000);
    FakeScope inner(&loader, "inner", 0x402010, &outer);
    RangePtr parent;
    rangeOf(&inner, 0x402010, 0x402020)->parentRange(parent);
    EXPECT_EQ(text(parent), "outer[ffffffffffffffff,0)");
}

TEST_F(SymbolRangeTest, StartsSymbolWhereTheSymbolsValueIs) {
    FakeScope scope(&loader, "f", 0x401000);
    EXPECT_EQ(rangeOf(&scope, 0x401000, 0x401010)->startsSymbol(), 1);
    EXPECT_EQ(rangeOf(&scope, 0x401004, 0x401010)->startsSymbol(), 0);
}

TEST_F(SymbolRangeTest, WithoutSymbolOrAddressARangeStartsOne) {
    SymbolScope nameless(&loader, nullptr, nullptr);
    EXPECT_EQ(rangeOf(&nameless, 0x401004, 0x401010)->startsSymbol(), 1);
    class Homeless : public Symbol {
    public:
        using Symbol::Symbol;
        void address(SymMgrObjectPtr<IAddress>& out) override { out = nullptr; }
    };
    nameless.setSymbol(
        new Homeless(&loader, "f", 0, &nameless, symbol_visibility_local, symbol_kind_function, 0));
    EXPECT_EQ(rangeOf(&nameless, 0x401004, 0x401010)->startsSymbol(), 1);
}

TEST_F(SymbolRangeTest, NestedRangesAreThoseOfTheScopesOwnTable) {
    FakeScope outer(&loader, "outer", 0x401000);
    outer.onLoad = [](symbol_kind_t) { return status_Ok; };
    enter(outer, "label", 0x401004, 0x401008);
    enter(outer, "behind", 0x401200, 0x401300);
    RangePtr range = rangeOf(&outer, 0x401000, 0x401100);
    RangeIteratorPtr nested;
    range->nestedRanges(nested);
    EXPECT_THAT(texts(nested), ::testing::ElementsAre("label[401004,401008)"));
    EXPECT_EQ(outer.kindsLoaded, symbol_kind_all);
}

TEST_F(SymbolRangeTest, NestedRangeByAddressAsksTheScope) {
    FakeScope outer(&loader, "outer", 0x401000);
    outer.onLoad = [](symbol_kind_t) { return status_Ok; };
    enter(outer, "label", 0x401004, 0x401008);
    RangePtr range = rangeOf(&outer, 0x401000, 0x401100);
    RangePtr nested;
    SymMgrObjectPtr<IAddress> address = new Address(&loader, 0x401006, nullptr);
    range->nestedRangeByAddress(nested, address);
    EXPECT_EQ(text(nested), "label[401004,401008)");
    range->nestedRangeByAddress(nested, nullptr);
    EXPECT_FALSE(nested);
}

} // namespace
