// Facts about relocation records: how they are read, which are left out, and what they write.

#include "orn_relocations.h"

#include "orn_elf.h"
#include "orn_walker.h"
#include "support/elf_assembler.h"
#include "support/memory_image.h"
#include "support/orn_fixture.h"

#include <cstring>
#include <string>
#include <vector>

namespace ORN_3_30 {
namespace {

using orn_test::ElfAssembler;
using orn_test::ElfClass;
using orn_test::ElfSymbol;
using orn_test::MemoryImage;

class EntryList : public IAddendCallBack {
public:
    void operator()(const RelocationEntry& entry) override { entries.push_back(entry); }
    std::vector<RelocationEntry> entries;
};

/// A relocatable file with records for ".text".
struct Object {
    explicit Object(ElfClass elfClass, uint32_t type = SHT_RELA)
        : elf(elfClass, std::nullopt, ET_REL),
          text(elf.section(".text", SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR).zeros(0x40)),
          symbol(elf.symbol("target", 0x123, 4, STB_GLOBAL, STT_FUNC, text)),
          records(elf.relocations(type == SHT_RELA ? ".rela.text" : ".rel.text", type, text,
                                  elf.symbols().section())) {}

    std::vector<RelocationEntry> read() {
        helper = new ElfHelper(new MemoryImage(elf.build()));
        helper->getRelocationAddends(addends, text.index());
        EntryList list;
        if (addends)
            addends->walk(list);
        return list.entries;
    }

    ElfAssembler elf;
    orn_test::ElfSection text;
    ElfSymbol symbol;
    orn_test::ElfRelocations records;
    SymMgrObjectPtr<ElfHelper> helper;
    SymMgrObjectPtr<RelocationAddends> addends;
};

using RelocationsTest = test::OrnTest;

TEST_F(RelocationsTest, RecordCarriesItsSymbol) {
    for (ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        Object object(elfClass);
        object.records.add(8, object.symbol, 1, 0x10);
        std::vector<RelocationEntry> entries = object.read();
        ASSERT_EQ(entries.size(), 1u);
        EXPECT_EQ(entries[0].offset, 8u);
        EXPECT_EQ(entries[0].value, 0x133u);
        EXPECT_EQ(entries[0].index, 0u);
        ASSERT_TRUE(entries[0].strings);
        EXPECT_STREQ(reinterpret_cast<const char*>(entries[0].strings->getData()) + entries[0].nameOffset,
                     "target");
    }
}

TEST_F(RelocationsTest, RecordWithoutAddendHasNone) {
    for (ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        Object object(elfClass, SHT_REL);
        object.records.add(8, object.symbol, 1).add(16, 0, 1);
        std::vector<RelocationEntry> entries = object.read();
        ASSERT_EQ(entries.size(), 2u);
        EXPECT_EQ(entries[0].value, 0x123u);
        EXPECT_EQ(entries[1].value, 0u);
        EXPECT_EQ(entries[1].index, 1u);
    }
}

TEST_F(RelocationsTest, RecordsComeInTheOrderOfTheirPlaces) {
    Object object(ElfClass::k64);
    object.records.add(0x18, object.symbol, 1).add(8, object.symbol, 1).add(0x10, object.symbol, 1);
    std::vector<RelocationEntry> entries = object.read();
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].offset, 8u);
    EXPECT_EQ(entries[0].index, 1u);
    EXPECT_EQ(entries[1].index, 2u);
    EXPECT_EQ(entries[2].index, 0u);
}

TEST_F(RelocationsTest, LaterRecordOfAPlaceReplacesTheEarlierOne) {
    Object object(ElfClass::k64);
    object.records.add(8, object.symbol, 1, 1).add(8, object.symbol, 1, 2);
    std::vector<RelocationEntry> entries = object.read();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].value, 0x125u);
    EXPECT_EQ(entries[0].index, 1u);
}

TEST_F(RelocationsTest, SymbolsOfOtherTypesAreLeftOutAndCounted) {
    Object object(ElfClass::k64);
    ElfSymbol file = object.elf.symbol("file", 0, 0, STB_LOCAL, STT_FILE, SHN_ABS);
    ElfSymbol section = object.elf.symbol("section", 0x20, 0, STB_LOCAL, STT_SECTION, object.text);
    object.records.add(8, file, 1).add(16, section, 1);
    std::vector<RelocationEntry> entries = object.read();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].offset, 16u);
    EXPECT_EQ(entries[0].value, 0x20u);
    EXPECT_EQ(entries[0].index, 1u);
}

TEST_F(RelocationsTest, NullSymbolIsTakenWhateverItsType) {
    Object object(ElfClass::k64);
    object.records.add(8, 0, 1, 0x77);
    object.symbol.info(0);
    const uint64_t table = object.elf.layout().section(".symtab").offset;
    std::vector<uint8_t> bytes = object.elf.build();
    bytes[table + 4] = STT_FILE;
    object.helper = new ElfHelper(new MemoryImage(bytes));
    object.helper->getRelocationAddends(object.addends, object.text.index());
    EntryList list;
    object.addends->walk(list);
    ASSERT_EQ(list.entries.size(), 1u);
    EXPECT_EQ(list.entries[0].value, 0x77u);
}

TEST_F(RelocationsTest, RecordWhoseSymbolDoesNotLieInTheTableIsLeftOut) {
    for (ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        Object object(elfClass);
        object.records.add(8, 2, 1).add(16, object.symbol, 1).add(24, 0xFFFFFF, 1);
        std::vector<RelocationEntry> entries = object.read();
        ASSERT_EQ(entries.size(), 1u) << "two entries: the null one and the symbol";
        EXPECT_EQ(entries[0].offset, 16u);
    }
}

TEST_F(RelocationsTest, LinkPastTheSectionsGivesNoRecords) {
    Object object(ElfClass::k64);
    object.records.add(8, object.symbol, 1);
    object.records.section().header().sh_link = 0xFFFF;
    EXPECT_TRUE(object.read().empty());
    ASSERT_TRUE(object.addends) << "an empty object all the same";
    EXPECT_TRUE(object.addends->isEmpty());
}

TEST_F(RelocationsTest, LinkToAnUnknownTableGivesValuesWithoutStrings) {
    Object object(ElfClass::k64);
    auto other = object.elf.addSymbolTable(".other", ".otherstr");
    ElfSymbol symbol = other.add("else", 0x55, 0, STB_GLOBAL, STT_FUNC, object.text);
    object.elf.relocations(".rela.data", SHT_RELA, other.strings(), other.section()).add(8, symbol, 1);
    SymMgrObjectPtr<ElfHelper> helper = new ElfHelper(new MemoryImage(object.elf.build()));
    SymMgrObjectPtr<RelocationAddends> addends;
    helper->getRelocationAddends(addends, other.strings().index());
    ASSERT_TRUE(addends);
    EntryList list;
    addends->walk(list);
    ASSERT_EQ(list.entries.size(), 1u);
    EXPECT_EQ(list.entries[0].value, 0x55u);
    EXPECT_FALSE(list.entries[0].strings);
}

TEST_F(RelocationsTest, LinkToTheDynamicTableTakesItsStrings) {
    ElfAssembler elf;
    auto plt = elf.section(".plt", SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR).address(0x1000).zeros(0x20);
    ElfSymbol symbol = elf.dynamicSymbol("imported", 0, 0, STB_GLOBAL, STT_FUNC, SHN_UNDEF);
    elf.dynamicSymbols().section().flags(0);
    elf.dynamicSymbols().strings().flags(0);
    elf.relocations(".rela.plt", SHT_RELA, plt, elf.dynamicSymbols().section()).add(0x4000, symbol, 7);
    SymMgrObjectPtr<ElfHelper> helper = new ElfHelper(new MemoryImage(elf.build()));
    SymMgrObjectPtr<RelocationAddends> addends;
    helper->getRelocationAddends(addends, plt.index());
    EntryList list;
    addends->walk(list);
    ASSERT_EQ(list.entries.size(), 1u);
    EXPECT_EQ(list.entries[0].strings, helper->getDynStr());
}

TEST_F(RelocationsTest, RecordCutOffByTheSectionsEndReadsAsIfZerosFollowed) {
    Object object(ElfClass::k64);
    object.records.add(0x20, object.symbol, 1).add(0x28, object.symbol, 1);
    object.records.section().header().sh_size = sizeof(Elf64_Rela) + 8;
    std::vector<RelocationEntry> entries = object.read();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[1].offset, 0x28u);
    EXPECT_EQ(entries[1].value, 0u) << "the null symbol";
}

// --- Application

template <typename Addends>
std::string applied(uint8_t addressSize, std::vector<uint8_t> bytes, const RelocationEntry& entry) {
    SymMgrObjectPtr<Addends> addends = new Addends(1);
    addends->add(entry);
    WritableSectionWalker walker(bytes.data(), bytes.size());
    walker.setAddressSize(addressSize);
    addends->applyRange(walker, 0, ~0ULL);
    return std::string(bytes.begin(), bytes.end());
}

RelocationEntry entryAt(unsigned long long offset, unsigned long long value) {
    RelocationEntry entry;
    entry.offset = offset;
    entry.value = value;
    return entry;
}

TEST_F(RelocationsTest, AddendInTheRecordOverwritesThePlace) {
    EXPECT_EQ(applied<RELARelocationAddends>(4, {9, 1, 1, 1, 1, 9}, entryAt(1, 0x44434241)), "\tABCD\t");
    EXPECT_EQ(applied<RELARelocationAddends>(8, std::vector<uint8_t>(9, 9), entryAt(1, 0x4847464544434241)),
              "\tABCDEFGH");
}

TEST_F(RelocationsTest, AddendAtThePlaceIsAdded) {
    EXPECT_EQ(applied<RELRelocationAddends>(4, {9, 1, 1, 1, 1, 9}, entryAt(1, 0x43424140)), "\tABCD\t");
}

TEST_F(RelocationsTest, PlaceThatDoesNotLieInsideIsLeftAlone) {
    for (unsigned long long offset : {2ULL, 100ULL, ~0ULL}) {
        EXPECT_EQ(applied<RELARelocationAddends>(4, {'a', 'b', 'c', 'd', 'e'}, entryAt(offset, 0)), "abcde");
        EXPECT_EQ(applied<RELRelocationAddends>(4, {'a', 'b', 'c', 'd', 'e'}, entryAt(offset, 0)), "abcde");
    }
}

TEST_F(RelocationsTest, OnlyPlacesInTheRangeAreApplied) {
    SymMgrObjectPtr<RelocationAddends> addends = new RELRelocationAddends(1);
    for (unsigned long long offset : {0, 4, 8, 12})
        addends->add(entryAt(offset, 1));
    std::vector<uint8_t> bytes(16);
    WritableSectionWalker walker(bytes.data(), bytes.size());
    walker.setAddressSize(4);
    addends->applyRange(walker, 4, 12);
    EXPECT_EQ(bytes, (std::vector<uint8_t>{0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
}

} // namespace
} // namespace ORN_3_30
