// The iteration contract, over vectors and maps.

#include "orn_containers.h"

#include <gtest/gtest.h>

#include <map>
#include <vector>

namespace ORN_3_30 {
namespace {

struct Item {
    unsigned addRef() { return ++count; }
    unsigned release() { return --count; }
    unsigned count = 0;
};

using ItemPtr = SymMgrObjectPtr<Item>;
using Items = std::vector<ItemPtr>;
using ItemIterator = VectorIteratorWrapper<Items, ItemPtr>;

TEST(VectorIteratorTest, ANewIteratorStandsOnTheFirstElement) {
    Item a;
    const Items items = {&a};
    SymMgrObjectPtr<IIterator<ItemPtr>> iterator = new ItemIterator(&items, nullptr);
    EXPECT_EQ(iterator->current().get(), &a);
}

TEST(VectorIteratorTest, CurrentGivesAReferenceOfItsOwn) {
    Item a;
    const Items items = {&a};
    SymMgrObjectPtr<IIterator<ItemPtr>> iterator = new ItemIterator(&items, nullptr);
    ItemPtr held = iterator->current();
    EXPECT_EQ(a.count, 2u);
}

TEST(VectorIteratorTest, NextTellsWhetherItStandsOnAnElement) {
    Item a;
    Item b;
    const Items items = {&a, &b};
    SymMgrObjectPtr<IIterator<ItemPtr>> iterator = new ItemIterator(&items, nullptr);
    EXPECT_TRUE(iterator->next());
    EXPECT_EQ(iterator->current().get(), &b);
    EXPECT_FALSE(iterator->next());
    EXPECT_TRUE(iterator->current() == nullptr);
}

TEST(VectorIteratorTest, AtTheEndItStaysAtTheEnd) {
    Item a;
    const Items items = {&a};
    SymMgrObjectPtr<IIterator<ItemPtr>> iterator = new ItemIterator(&items, nullptr);
    EXPECT_FALSE(iterator->next());
    EXPECT_FALSE(iterator->next());
    EXPECT_TRUE(iterator->current() == nullptr);
}

TEST(VectorIteratorTest, ResetGoesBackToTheFirstElement) {
    Item a;
    Item b;
    const Items items = {&a, &b};
    SymMgrObjectPtr<IIterator<ItemPtr>> iterator = new ItemIterator(&items, nullptr);
    iterator->next();
    iterator->next();
    iterator->reset();
    EXPECT_EQ(iterator->current().get(), &a);
}

TEST(VectorIteratorTest, AnEmptyVectorYieldsNullAtOnce) {
    const Items items;
    SymMgrObjectPtr<IIterator<ItemPtr>> iterator = new ItemIterator(&items, nullptr);
    EXPECT_TRUE(iterator->current() == nullptr);
    EXPECT_FALSE(iterator->next());
}

using Numbers = std::map<unsigned long long, Item*>;
using PlainFilter = CFilter<Item*, int>;
using PlainIterator = MapIteratorWrapper<Numbers, Item*, PlainFilter, int>;

TEST(MapIteratorTest, YieldsTheMappedValuesInTheOrderOfTheKeys) {
    Item a;
    Item b;
    const Numbers items = {{9, &b}, {3, &a}};
    SymMgrObjectPtr<IIterator<Item*>> iterator = new PlainIterator(items, 0, nullptr);
    EXPECT_EQ(iterator->current(), &a);
    EXPECT_TRUE(iterator->next());
    EXPECT_EQ(iterator->current(), &b);
    EXPECT_FALSE(iterator->next());
    EXPECT_EQ(iterator->current(), nullptr);
    EXPECT_FALSE(iterator->next());
    iterator->reset();
    EXPECT_EQ(iterator->current(), &a);
}

TEST(MapIteratorTest, AnEmptyMapYieldsNullAtOnce) {
    const Numbers items;
    SymMgrObjectPtr<IIterator<Item*>> iterator = new PlainIterator(items, 0, nullptr);
    EXPECT_EQ(iterator->current(), nullptr);
    EXPECT_FALSE(iterator->next());
}

struct AtLeast {
    explicit AtLeast(unsigned limit) : m_limit(limit) {}
    bool passes(const Item* item) const { return item->count >= m_limit; }
    unsigned m_limit;
};

TEST(MapIteratorTest, StepsOverWhatTheFilterRefuses) {
    Item low;
    Item high;
    high.count = 5;
    const Numbers items = {{1, &low}, {2, &high}, {3, &low}};
    using Iterator = MapIteratorWrapper<Numbers, Item*, AtLeast, unsigned>;
    SymMgrObjectPtr<IIterator<Item*>> iterator = new Iterator(items, 5u, nullptr);
    EXPECT_EQ(iterator->current(), &high);
    EXPECT_FALSE(iterator->next());
    iterator->reset();
    EXPECT_EQ(iterator->current(), &high);
}

} // namespace
} // namespace ORN_3_30
