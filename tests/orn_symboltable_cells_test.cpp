// The store under a symbol table, and the ends of sections, whose cells begin without an entry of their own.

#include "orn_symboltable_cells.h"

#include "orn_symbolrange.h"
#include "orn_symboltable.h"
#include "support/fake_loader.h"
#include "support/orn_fixture.h"

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
