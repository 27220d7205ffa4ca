// The search for the symbol that owns a set of ranges, over ranges and symbols whose answers are set by hand.

#include "orn_modulesymbolbank.h"

#include "support/fake_loader.h"
#include "support/orn_fixture.h"

#include <algorithm>
#include <new>

namespace ORN_3_30::test {
namespace {

using RangeList = std::vector<SymMgrObjectPtr<ISymbolRange>>;
using RangeIterator = IIterator<SymMgrObjectPtr<ISymbolRange>>;
using internal::IntervalList;

constexpr unsigned long long imageBase = 0x400000;

class FakeInstance : public SymMgrObject<IInlineInstance> {
public:
    FakeInstance() : SymMgrObject<IInlineInstance>(nullptr) {}
    void callSite(SymMgrObjectPtr<ISourceLocation>&) override {}
    ISymbol* symbol() override { return nullptr; }
    int hasCallSite() override { return 0; }
};

class FakeSymbol : public SymMgrObject<ISymbol> {
public:
    FakeSymbol() : SymMgrObject<ISymbol>(nullptr) {}

    status_t sourceLocation(SymMgrObjectPtr<ISourceLocation>&) override { return status_False; }
    status_t compUnitDetails(ICompUnitDetails*&) override { return status_False; }
    const char* rawName() override { return ""; }
    const char* demangledName(unsigned) override { return ""; }
    const char* shortName() override { return ""; }
    const char* fullName() override { return ""; }
    symbol_kind_t kind() override { return symbol_kind_function; }
    void address(SymMgrObjectPtr<IAddress>&) override {}
    void ranges(SymMgrObjectPtr<RangeIterator>& out) override {
        if (hasRanges)
            out = new VectorIteratorWrapper<RangeList, SymMgrObjectPtr<ISymbolRange>>(&own, nullptr);
    }
    symbol_visibility_t visibility() override { return symbol_visibility_global; }
    void thunkRanges(SymMgrObjectPtr<RangeIterator>& out) override {
        ++thunksAsked;
        if (hasThunks)
            out = new VectorIteratorWrapper<RangeList, SymMgrObjectPtr<ISymbolRange>>(&thunks, nullptr);
    }
    void sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>&, IAddress*,
                     IAddress*) override {}
    void sourceLineAt(SymMgrObjectPtr<ISourceLine>&, IAddress*) override {}

    bool hasRanges = true;
    bool hasThunks = true;
    RangeList own;
    RangeList thunks;
    int thunksAsked = 0;
};

class FakeRange : public SymMgrObject<ISymbolRange> {
public:
    FakeRange(IFileFormatLoader* loader, unsigned long long rva, unsigned long long size)
        : SymMgrObject<ISymbolRange>(nullptr), m_loader(loader), m_rva(rva), m_size(size) {}

    void beginAddress(SymMgrObjectPtr<IAddress>& out) override {
        if (hasAddress)
            out = new Address(m_loader, imageBase + m_rva, nullptr);
    }
    void endAddress(SymMgrObjectPtr<IAddress>&) override {}
    unsigned long long size() override { return m_size; }
    unsigned long long sizeToNextSymbol() override { return m_size; }
    ISymbol* symbol() override { return owner; }
    IInlineInstance* inlineInstance() override { return instance; }
    IThunk* thunk() override { return nullptr; }
    void parentRange(SymMgrObjectPtr<ISymbolRange>&) override {}
    int startsSymbol() override { return 0; }
    void nestedRanges(SymMgrObjectPtr<RangeIterator>&) override {}
    void nestedRangeByAddress(SymMgrObjectPtr<ISymbolRange>& out, IAddress* address) override {
        askedAt = address->pseudoAddr();
        out = nested.get();
    }

    bool hasAddress = true;
    SymMgrObjectPtr<FakeSymbol> owner;
    SymMgrObjectPtr<FakeInstance> instance;
    SymMgrObjectPtr<FakeRange> nested;
    unsigned long long askedAt = 0;

private:
    IFileFormatLoader* m_loader;
    unsigned long long m_rva;
    unsigned long long m_size;
};

/// A bank whose outermost range at any address is given.
class BankWithRange : public ModuleSymbolBank {
public:
    explicit BankWithRange(IFileFormatLoader* loader) : ModuleSymbolBank(loader, nullptr, nullptr) {}

    status_t symbolRangeByAddress(IAddress* addr, SymMgrObjectPtr<ISymbolRange>& out, symbol_kind_t mask,
                                  ISymbolSelector* selector) override {
        askedAt = addr->pseudoAddr();
        askedFor = mask;
        askedSelector = selector;
        if (refusesMemory)
            throw std::bad_alloc();
        out = outermost.get();
        return answer;
    }

    SymMgrObjectPtr<FakeRange> outermost;
    status_t answer = status_Ok;
    bool refusesMemory = false;
    unsigned long long askedAt = 0;
    symbol_kind_t askedFor = symbol_kind_none;
    ISymbolSelector* askedSelector = nullptr;
};

class SymbolByRangesTest : public OrnTest {
protected:
    SymbolByRangesTest() {
        FakeSegment segment;
        segment.memorySize = 0x10000;
        loader->segments.push_back(segment);
        bank = new BankWithRange(loader);
    }

    SymMgrObjectPtr<FakeRange> range(unsigned long long rva, unsigned long long size) {
        return new FakeRange(loader, rva, size);
    }

    /// The range of a symbol that covers [low, high) with one or more ranges of its own.
    SymMgrObjectPtr<FakeRange> rangeOfSymbol(const IntervalList& own, const IntervalList& thunks = {}) {
        SymMgrObjectPtr<FakeRange> made = range(own.front().first, own.front().second - own.front().first);
        made->owner = new FakeSymbol;
        for (const auto& [low, high] : own)
            made->owner->own.push_back(range(low, high - low).get());
        for (const auto& [low, high] : thunks)
            made->owner->thunks.push_back(range(low, high - low).get());
        return made;
    }

    status_t search(const IntervalList& intervals, bool stopAtInline = false, bool useThunkRanges = false) {
        RangesAdapter ranges(&intervals);
        return bank->symbolByRanges(&ranges, found, stopAtInline, useThunkRanges);
    }

    SymMgrObjectPtr<FakeLoader> loader = new FakeLoader;
    SymMgrObjectPtr<BankWithRange> bank;
    SymMgrObjectPtr<ISymbol> found;
};

TEST_F(SymbolByRangesTest, AFunctionOfTwoRangesOwnsBoth) {
    bank->outermost = rangeOfSymbol({{0x100, 0x200}, {0x800, 0x900}});
    EXPECT_EQ(search({{0x100, 0x200}, {0x800, 0x900}}), status_Ok);
    EXPECT_EQ(found.get(), bank->outermost->owner.get());
}

TEST_F(SymbolByRangesTest, ARangeOutsideTheFunctionIsNoAnswer) {
    bank->outermost = rangeOfSymbol({{0x100, 0x200}, {0x800, 0x900}});
    found = bank->outermost->owner.get();
    EXPECT_EQ(search({{0x100, 0x200}, {0x900, 0x910}}), status_False);
    EXPECT_TRUE(found == nullptr);
}

TEST_F(SymbolByRangesTest, TheSearchStartsAtTheFirstRangeAmongAllCode) {
    bank->outermost = rangeOfSymbol({{0x100, 0x200}});
    EXPECT_EQ(search({{0x120, 0x130}, {0x110, 0x118}}), status_Ok);
    EXPECT_EQ(bank->askedAt, imageBase + 0x120);
    EXPECT_EQ(bank->askedFor, 27u);
    EXPECT_EQ(bank->askedSelector, nullptr);
    EXPECT_EQ(bank->outermost->askedAt, imageBase + 0x120);
}

TEST_F(SymbolByRangesTest, TheInnermostSymbolThatCoversTheSetWins) {
    bank->outermost = rangeOfSymbol({{0x100, 0x200}});
    bank->outermost->nested = rangeOfSymbol({{0x110, 0x180}});
    bank->outermost->nested->nested = rangeOfSymbol({{0x120, 0x128}});
    EXPECT_EQ(search({{0x120, 0x130}}), status_Ok);
    EXPECT_EQ(found.get(), bank->outermost->nested->owner.get());
}

TEST_F(SymbolByRangesTest, TheWalkEndsAtTheFirstSymbolThatDoesNotCover) {
    bank->outermost = rangeOfSymbol({{0x100, 0x110}});
    bank->outermost->nested = rangeOfSymbol({{0x100, 0x200}});
    EXPECT_EQ(search({{0x100, 0x120}}), status_False);
    EXPECT_TRUE(found == nullptr);
}

TEST_F(SymbolByRangesTest, InlinedCodeIsEnteredUnlessTheWalkStopsThere) {
    bank->outermost = rangeOfSymbol({{0x100, 0x200}});
    bank->outermost->nested = rangeOfSymbol({{0x110, 0x180}});
    bank->outermost->nested->instance = new FakeInstance;
    EXPECT_EQ(search({{0x120, 0x130}}, false), status_Ok);
    EXPECT_EQ(found.get(), bank->outermost->nested->owner.get());
    EXPECT_EQ(search({{0x120, 0x130}}, true), status_Ok);
    EXPECT_EQ(found.get(), bank->outermost->owner.get());
}

TEST_F(SymbolByRangesTest, ARangeWithoutSymbolEndsTheWalk) {
    bank->outermost = rangeOfSymbol({{0x100, 0x200}});
    bank->outermost->nested = range(0x100, 0x100);
    bank->outermost->nested->nested = rangeOfSymbol({{0x100, 0x200}});
    EXPECT_EQ(search({{0x120, 0x130}}), status_Ok);
    EXPECT_EQ(found.get(), bank->outermost->owner.get());
}

TEST_F(SymbolByRangesTest, ASymbolThatGivesNoRangesEndsTheWalk) {
    bank->outermost = rangeOfSymbol({{0x100, 0x200}});
    bank->outermost->owner->hasRanges = false;
    EXPECT_EQ(search({{0x120, 0x130}}, false, true), status_False);
    EXPECT_EQ(bank->outermost->owner->thunksAsked, 0);
}

TEST_F(SymbolByRangesTest, ThunksCoverTheRestWhenTheyCount) {
    bank->outermost = rangeOfSymbol({{0x100, 0x200}}, {{0x600, 0x610}});
    EXPECT_EQ(search({{0x100, 0x110}, {0x600, 0x610}}, false, false), status_False);
    EXPECT_EQ(bank->outermost->owner->thunksAsked, 0);
    EXPECT_EQ(search({{0x100, 0x110}, {0x600, 0x610}}, false, true), status_Ok);
    EXPECT_EQ(found.get(), bank->outermost->owner.get());
}

TEST_F(SymbolByRangesTest, ThunksThatLeaveARestAreNoMatch) {
    bank->outermost = rangeOfSymbol({{0x100, 0x200}}, {{0x600, 0x608}});
    EXPECT_EQ(search({{0x100, 0x110}, {0x600, 0x610}}, false, true), status_False);
}

TEST_F(SymbolByRangesTest, ThunksAreNotAskedOfASymbolThatCoversAlone) {
    bank->outermost = rangeOfSymbol({{0x100, 0x200}}, {{0x600, 0x610}});
    EXPECT_EQ(search({{0x100, 0x110}}, false, true), status_Ok);
    EXPECT_EQ(bank->outermost->owner->thunksAsked, 0);
}

TEST_F(SymbolByRangesTest, ThunksOfInlinedCodeDoNotCount) {
    bank->outermost = rangeOfSymbol({{0x100, 0x200}}, {{0x600, 0x610}});
    bank->outermost->instance = new FakeInstance;
    EXPECT_EQ(search({{0x100, 0x110}, {0x600, 0x610}}, false, true), status_False);
    EXPECT_EQ(bank->outermost->owner->thunksAsked, 0);
}

TEST_F(SymbolByRangesTest, ASymbolWithoutThunksEndsTheWalk) {
    bank->outermost = rangeOfSymbol({{0x100, 0x200}});
    bank->outermost->owner->hasThunks = false;
    EXPECT_EQ(search({{0x100, 0x110}, {0x600, 0x610}}, false, true), status_False);
}

TEST_F(SymbolByRangesTest, NoRangesAreAnInvalidArgument) {
    expectLog("ASSERTION FAILED: 'ranges != 0L && ranges->getCount() > 0', at file: ", 2);
    found = new FakeSymbol;
    EXPECT_EQ(bank->symbolByRanges(nullptr, found, false, false), status_InvalidArg);
    EXPECT_EQ(search({}), status_InvalidArg);
    EXPECT_TRUE(found != nullptr) << "a wrong call leaves the result alone";
}

TEST_F(SymbolByRangesTest, AnAddressOutsideTheModuleGivesItsFailure) {
    expectLog("ASSERTION FAILED: 'status == status_Ok', at file: ");
    EXPECT_EQ(search({{0x900000, 0x900010}}), status_Fail);
    EXPECT_TRUE(found == nullptr);
}

TEST_F(SymbolByRangesTest, ALoaderThatGivesNoAddressIsNoAnswer) {
    expectLog("ASSERTION FAILED: 'addr != 0L', at file: ");
    loader->onAddress = [](SymMgrObjectPtr<IAddress>&, unsigned long long) { return status_Ok; };
    EXPECT_EQ(search({{0x100, 0x110}}), status_False);
}

TEST_F(SymbolByRangesTest, NothingAtTheAddressIsNoAnswer) {
    expectLog("ASSERTION FAILED: 'status == status_Ok', at file: ");
    bank->answer = status_False;
    EXPECT_EQ(search({{0x100, 0x110}}), status_False);
}

TEST_F(SymbolByRangesTest, AFailingLoadIsPassedOn) {
    expectLog("ASSERTION FAILED: 'status == status_Ok', at file: ");
    bank->answer = status_CantReadFile;
    EXPECT_EQ(search({{0x100, 0x110}}), status_CantReadFile);
}

TEST_F(SymbolByRangesTest, ANullRangeIsNoAnswer) {
    expectLog("ASSERTION FAILED: 'range != 0L', at file: ");
    EXPECT_EQ(search({{0x100, 0x110}}), status_False);
}

TEST_F(SymbolByRangesTest, AnAllocationThatFailsIsReported) {
    expectLog("Out of memory");
    bank->refusesMemory = true;
    EXPECT_EQ(search({{0x100, 0x110}}), status_OutOfMemory);
}

/// The cover test by itself.
class CoverTest : public OrnTest {
protected:
    bool cover(const IntervalList& ranges) {
        m_ranges.clear();
        for (const auto& [low, high] : ranges)
            m_ranges.push_back(new FakeRange(loader, low, high - low));
        SymMgrObjectPtr<RangeIterator> iterator =
            new VectorIteratorWrapper<RangeList, SymMgrObjectPtr<ISymbolRange>>(&m_ranges, nullptr);
        return internal::coverIntervals(rest, iterator);
    }

    SymMgrObjectPtr<FakeLoader> loader = new FakeLoader;
    IntervalList rest;

private:
    RangeList m_ranges;
};

TEST_F(CoverTest, AnIntervalInsideARangeDisappears) {
    rest = {{0x20, 0x30}, {0x10, 0x40}};
    EXPECT_TRUE(cover({{0x10, 0x40}}));
    EXPECT_THAT(rest, testing::IsEmpty());
}

TEST_F(CoverTest, AnIntervalThatSticksOutInFrontIsCutBack) {
    rest = {{0x08, 0x20}};
    EXPECT_FALSE(cover({{0x10, 0x40}}));
    EXPECT_EQ(rest, (IntervalList{{0x08, 0x10}}));
}

TEST_F(CoverTest, AnIntervalThatSticksOutBehindIsCutBack) {
    rest = {{0x20, 0x48}};
    EXPECT_FALSE(cover({{0x10, 0x40}}));
    EXPECT_EQ(rest, (IntervalList{{0x40, 0x48}}));
}

TEST_F(CoverTest, AnIntervalAroundARangeIsSplitInTwo) {
    rest = {{0x08, 0x48}};
    EXPECT_FALSE(cover({{0x10, 0x40}}));
    EXPECT_EQ(rest, (IntervalList{{0x08, 0x10}, {0x40, 0x48}}));
}

TEST_F(CoverTest, AnIntervalThatOnlyTouchesStays) {
    rest = {{0x08, 0x10}, {0x40, 0x48}};
    EXPECT_FALSE(cover({{0x10, 0x40}}));
    EXPECT_EQ(rest, (IntervalList{{0x08, 0x10}, {0x40, 0x48}}));
}

TEST_F(CoverTest, SeveralRangesCoverTogether) {
    rest = {{0x10, 0x40}};
    EXPECT_TRUE(cover({{0x18, 0x20}, {0x00, 0x18}, {0x20, 0x50}}));
}

TEST_F(CoverTest, NoRangesCoverNothing) {
    rest = {{0x10, 0x40}};
    EXPECT_FALSE(cover({}));
    EXPECT_EQ(rest, (IntervalList{{0x10, 0x40}}));
}

TEST_F(CoverTest, ARangeThatReachesTheEndOfTheAddressSpaceCoversIt) {
    rest = {{0xFFFFFFFFFFFFFF00, ~0ULL}};
    SymMgrObjectPtr<FakeRange> range = new FakeRange(loader, 0xFFFFFFFFFFFFFF00, 0x1000);
    RangeList ranges = {range.get()};
    SymMgrObjectPtr<RangeIterator> iterator =
        new VectorIteratorWrapper<RangeList, SymMgrObjectPtr<ISymbolRange>>(&ranges, nullptr);
    EXPECT_TRUE(internal::coverIntervals(rest, iterator));
}

TEST_F(CoverTest, TheTestStopsWhenNothingIsLeft) {
    rest = {{0x10, 0x20}};
    SymMgrObjectPtr<FakeRange> first = new FakeRange(loader, 0x10, 0x10);
    SymMgrObjectPtr<FakeRange> unasked = new FakeRange(loader, 0x10, 0x10);
    unasked->hasAddress = false; // would be reported
    RangeList ranges = {first.get(), unasked.get()};
    SymMgrObjectPtr<RangeIterator> iterator =
        new VectorIteratorWrapper<RangeList, SymMgrObjectPtr<ISymbolRange>>(&ranges, nullptr);
    EXPECT_TRUE(internal::coverIntervals(rest, iterator));
}

TEST_F(CoverTest, ARangeWithoutAddressEndsTheTest) {
    expectLog("ASSERTION FAILED: 'addr != 0L', at file: ");
    rest = {{0x10, 0x20}};
    SymMgrObjectPtr<FakeRange> broken = new FakeRange(loader, 0x10, 0x10);
    broken->hasAddress = false;
    SymMgrObjectPtr<FakeRange> covering = new FakeRange(loader, 0x10, 0x10);
    RangeList ranges = {broken.get(), covering.get()};
    SymMgrObjectPtr<RangeIterator> iterator =
        new VectorIteratorWrapper<RangeList, SymMgrObjectPtr<ISymbolRange>>(&ranges, nullptr);
    EXPECT_FALSE(internal::coverIntervals(rest, iterator));
    EXPECT_EQ(rest, (IntervalList{{0x10, 0x20}}));
}

TEST_F(CoverTest, ANullIteratorIsReported) {
    expectLog("ASSERTION FAILED: 'outRanges != 0L', at file: ");
    rest = {{0x10, 0x20}};
    SymMgrObjectPtr<RangeIterator> none;
    EXPECT_FALSE(internal::coverIntervals(rest, none));
}

} // namespace
} // namespace ORN_3_30::test
