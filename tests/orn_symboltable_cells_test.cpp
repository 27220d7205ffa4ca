// The store under a symbol table, and the ends of sections, whose cells begin without an entry of their own.

#include "orn_symboltable_cells.h"

#include "orn_symbolrange.h"
#include "orn_symboltable.h"
#include "support/fake_loader.h"
#include "support/orn_fixture.h"

#include <algorithm>
#include <chrono>
#include <random>
#include <vector>

namespace ORN_3_30::test {
namespace {

TEST(CellListTest, ReservedRoomIsNoEntry) {
    ListStore store;
    CellEntry entry{};
    CellList list{};
    list.reserve(store, 3);
    EXPECT_TRUE(list.isEmpty());
    EXPECT_EQ(list.begin(), list.end());
    list.insert(store, 0, &entry);
    EXPECT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0], &entry);
    list.erase(store, 0);
    EXPECT_TRUE(list.isEmpty());
}

TEST(CellListTest, EntriesStayInOrderWhereverTheyComeAndGo) {
    ListStore store;
    std::vector<CellEntry> entries(3000);
    std::mt19937 random(1);
    // Near the front, near the end and anywhere, by turns: each moves the shorter side.
    for (const unsigned reach : {1U, 2U, 5U, 3000U}) {
        CellList list{};
        std::vector<CellEntry*> expected;
        for (CellEntry& entry : entries) {
            const std::size_t distance = random() % std::min<std::size_t>(reach, expected.size() + 1);
            const std::size_t index = random() % 4 == 0 ? expected.size() - distance : distance;
            list.insert(store, index, &entry);
            expected.insert(expected.begin() + static_cast<std::ptrdiff_t>(index), &entry);
            if (random() % 5 == 0) {
                const std::size_t erased = random() % expected.size();
                list.erase(store, erased);
                expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(erased));
            }
        }
        EXPECT_TRUE(std::equal(list.begin(), list.end(), expected.begin(), expected.end())) << reach;
        while (!expected.empty()) {
            list.erase(store, expected.size() / 3);
            expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(expected.size() / 3));
            EXPECT_TRUE(expected.empty() || list[0] == expected[0]);
        }
        EXPECT_TRUE(list.isEmpty());
    }
}

TEST(CellListTest, ManyNewcomersBehindTheHeadTakeLinearTime) {
    ListStore store;
    CellEntry entry{};
    CellList list{};
    list.insert(store, 0, &entry);
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000000; ++i) // with what is behind moved each time, four terabytes
        list.insert(store, 1, &entry);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    EXPECT_EQ(list.size(), 1000001U);
}

class SectionEndTest : public OrnTest {
protected:
    /// A symbol that holds [low, high).
    void enter(const char* name, unsigned long long low, unsigned long long high) {
        Scope* scope =
            createSymbolScope(*loader, name, low, &module, symbol_visibility_global, symbol_kind_function);
        scope->addRange(low, high);
        table->addScopeRange(low, high, scope);
    }

    std::string nameAt(unsigned long long address) {
        SymMgrObjectPtr<ISymbolRange> range;
        table->symbolRangeByAddress(range, address, symbol_kind_all, nullptr);
        return range ? range->symbol()->rawName() : "";
    }

    SymMgrObjectPtr<FakeLoader> loader = new FakeLoader;
    GlobalScope module{loader, nullptr, nullptr};
    SymMgrObjectPtr<ISymbolTable> table = ISymbolTable::create(&module);
};

// The sections of a kernel module all begin at 0, so that symbols of one reach past the end of another.
TEST_F(SectionEndTest, AnyNumberOfSymbolsMayReachPastIt) {
    for (unsigned count = 1; count <= 8; ++count) {
        const unsigned long long base = count * 0x1000;
        for (unsigned number = 0; number < count; ++number)
            enter(std::to_string(number).c_str(), base + number, base + 0x100 + 0x10 * number);
        EXPECT_EQ(table->addScopeRange(base + 0x80, base + 0x80, nullptr), 0);
        EXPECT_EQ(nameAt(base + 0x7F), std::to_string(count - 1));
        EXPECT_EQ(nameAt(base + 0x80), std::to_string(count - 1));
    }
}

} // namespace
} // namespace ORN_3_30::test
