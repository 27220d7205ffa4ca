// Plain symbols: those of a format's own table, whose scopes the table makes when somebody asks for them. To
// everybody outside they are symbols like any other.

#include "orn_symbolrange.h"
#include "orn_symboltable.h"
#include "support/allocation.h"
#include "support/fake_loader.h"
#include "support/orn_fixture.h"

#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace ORN_3_30::test {
namespace {

/// A scope that tells how often it dies and, if need be, how it compares.
class WatchedScope : public SymbolScope {
public:
    WatchedScope(IFileFormatLoader* loader, const char* name, unsigned long long low, unsigned long long high,
                 int& deaths)
        : SymbolScope(loader, nullptr,
                      new Symbol(loader, name, low, this, symbol_visibility_global, symbol_kind_function, 0),
                      nullptr),
          m_deaths(deaths) {
        addRange(low, high);
    }
    ~WatchedScope() override { ++m_deaths; }

    unsigned compare(Scope* other, unsigned long long nextKey, Scope* nextScope) override {
        return onCompare ? onCompare(other) : Scope::compare(other, nextKey, nextScope);
    }

    std::function<unsigned(Scope*)> onCompare;

private:
    int& m_deaths;
};

class PlainSymbolTest : public OrnTest {
protected:
    using RangePtr = SymMgrObjectPtr<ISymbolRange>;

    void enter(const char* name, unsigned long long low, unsigned long long high,
               symbol_visibility_t visibility = symbol_visibility_global,
               symbol_kind_t kind = symbol_kind_function) {
        table->addPlainSymbol(*loader, {name, visibility, kind}, low, high);
    }

    RangePtr rangeAt(unsigned long long address) {
        RangePtr range;
        table->symbolRangeByAddress(range, address, symbol_kind_all, nullptr);
        return range;
    }

    std::string nameAt(unsigned long long address) {
        const RangePtr range = rangeAt(address);
        return range ? range->symbol()->rawName() : "";
    }

    std::vector<std::string> names() {
        std::vector<std::string> all;
        SymMgrObjectPtr<IIterator<RangePtr>> ranges;
        table->symbolRanges(ranges, 0, ~0ULL, symbol_kind_all);
        for (RangePtr range = ranges ? ranges->current() : nullptr; range;
             range = ranges->next() ? ranges->current() : nullptr)
            all.push_back(range->symbol()->rawName());
        return all;
    }

    int deaths = 0;
    SymMgrObjectPtr<FakeLoader> loader = new FakeLoader;
    GlobalScope module{loader, nullptr, nullptr};
    SymMgrObjectPtr<SymbolTable> table = new SymbolTable(&module, nullptr);
};

TEST_F(PlainSymbolTest, HasAScopeOfItsOwnWhenItIsAskedFor) {
    enter("main", 0x1000, 0x1020, symbol_visibility_local, symbol_kind_variable);
    const RangePtr range = rangeAt(0x1010);
    ASSERT_TRUE(range);
    EXPECT_EQ(range->size(), 0x20U);
    EXPECT_STREQ(range->symbol()->rawName(), "main");
    EXPECT_EQ(range->symbol()->visibility(), symbol_visibility_local);
    EXPECT_EQ(range->symbol()->kind(), symbol_kind_variable);
    EXPECT_EQ(range->startsSymbol(), 1);
    SymMgrObjectPtr<IIterator<RangePtr>> pieces;
    range->symbol()->ranges(pieces);
    EXPECT_EQ(pieces->current()->size(), 0x20U);
    EXPECT_EQ(rangeAt(0x1000)->symbol(), range->symbol()) << "made once";
}

TEST_F(PlainSymbolTest, IsRankedAgainstScopesAndItsLike) {
    enter("local", 0x1000, 0x1100, symbol_visibility_local);
    enter("global", 0x1000, 0x1100);
    enter("variable", 0x1040, 0x1050, symbol_visibility_global, symbol_kind_variable);
    enter("inner", 0x1080, 0x1090);
    EXPECT_EQ(nameAt(0x1000), "global");
    EXPECT_EQ(nameAt(0x1048), "global");
    EXPECT_EQ(nameAt(0x1088), "inner");
    table->addScopeRange(0x1084, 0x1088, new WatchedScope(loader, "scope", 0x1084, 0x1088, deaths));
    EXPECT_EQ(nameAt(0x1084), "scope");
    EXPECT_EQ(nameAt(0x1088), "inner");
}

TEST_F(PlainSymbolTest, TwinsAreDroppedAndAliasesKeptWhetherAskedForOrNot) {
    enter("one", 0x1000, 0x1010);
    enter("one", 0x1000, 0x1010);
    enter("two", 0x1000, 0x1010);
    enter("one", 0x1000, 0x1000); // an empty twin of a sized symbol
    EXPECT_EQ(names().size(), 2U);
    enter("one", 0x1000, 0x1010);
    enter("three", 0x1000, 0x1010);
    EXPECT_EQ(names().size(), 3U);
    enter("one", 0x1000, 0x1020);
    EXPECT_EQ(names().size(), 4U);
}

TEST_F(PlainSymbolTest, LooksForItsTwinAmongScopes) {
    table->addScopeRange(0x1000, 0x1010, new WatchedScope(loader, "main", 0x1000, 0x1010, deaths));
    enter("main", 0x1000, 0x1010);
    EXPECT_EQ(names(), std::vector<std::string>{"main"});
    enter("alias", 0x1000, 0x1010);
    EXPECT_EQ(names().size(), 2U);
    EXPECT_EQ(deaths, 0);
}

// The comparison makes scopes of plain symbols, which the table owns from then on: among them the newcomer
// that is refused has to be the one that goes.
TEST_F(PlainSymbolTest, ScopeThatIsRefusedForItIsDestroyedAloneAndOnce) {
    enter("other", 0x1000, 0x1010);
    enter("main", 0x1000, 0x1010);
    EXPECT_EQ(table->addScopeRange(0x1000, 0x1010, new WatchedScope(loader, "main", 0x1000, 0x1010, deaths)),
              0);
    EXPECT_EQ(deaths, 1);
    EXPECT_EQ(names().size(), 2U);
    table = nullptr;
    EXPECT_EQ(deaths, 1);
}

TEST_F(PlainSymbolTest, ScopeWithAThunkThatIsRefusedForItLeavesTheThunk) {
    enter("import", 0x1000, 0x1010);
    SymbolScope* scope =
        createSymbolScope(*loader, "import", 0x1000, &module, symbol_visibility_global, symbol_kind_function);
    scope->addThunk(new ImportThunk(scope, 0x1000, 0x10));
    EXPECT_EQ(table->addScope(scope), 0);
    const RangePtr range = rangeAt(0x1008);
    ASSERT_TRUE(range);
    ASSERT_TRUE(range->thunk());
    EXPECT_STREQ(range->thunk()->name(), "import");
}

// Whatever allocation fails while a plain symbol meets a scope, the table stays whole.
TEST_F(PlainSymbolTest, MemoryThatIsRefusedLeavesTheTableWhole) {
    setLogLevel(errorLevel + 1);
    std::deque<std::string> kept;
    bool happened = true;
    for (unsigned long number = 1; happened; ++number) {
        const unsigned long long low = 0x1000 * number;
        table->addScopeRange(low, low + 0x40, new WatchedScope(loader, "scope", low, low + 0x40, deaths));
        enter("inside", low + 0x10, low + 0x20);
        kept.push_back("a name that is too long for short strings " + std::to_string(number));
        {
            FailingAllocation failing(number);
            try {
                enter(kept.back().c_str(), low, low + 0x30);
            } catch (const std::bad_alloc&) {
            }
            happened = failing.happened();
        }
        EXPECT_FALSE(nameAt(low + 0x18).empty());
    }
    EXPECT_FALSE(names().empty());
}

TEST_F(PlainSymbolTest, TableThatCannotBeMadeIsNullAndReported) {
    if (!ORN_3_30::test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    expectLog("Out of memory");
    FailingAllocation failing(1);
    EXPECT_EQ(ISymbolTable::create(&module), nullptr);
}

} // namespace
} // namespace ORN_3_30::test
