// What damaged debug information can multiply: one long thing that many small ones name. Each shape is read
// in time and memory that grow with the size of the sections and not with a product of two of their sizes.
// Where work can be counted it is; elsewhere the bound in seconds is far above what the reading takes and far
// below what the product would.

#include "orn/source.h"
#include "orn_dil.h"
#include "support/dwarf_module.h"
#include "support/orn_fixture.h"

#include <chrono>
#include <set>

namespace ORN_3_30::test {
namespace {

using orn_test::ByteAssembler;
using orn_test::DwarfAssembler;
using M = DwarfModule;

constexpr double inTime = 30.0;

// Codes of abbreviations, beside those that DwarfModule counts up from 1.
constexpr unsigned topCode = 100;
constexpr unsigned longCode = 101;
constexpr unsigned shortCode = 102;

class DwarfWorkTest : public OrnTest {
protected:
    DwarfWorkTest() {
        allowLog("");
        setLogLevel(errorLevel + 1);
        dwarf.abbreviation(topCode, DW_TAG_compile_unit, true, {});
    }

    /// A unit whose entries are the bytes that `write` appends.
    template <typename Write>
    void unitOf(const Write& write) {
        dwarf.beginUnit().entry(topCode);
        write(dwarf.info());
        dwarf.null().endUnit();
    }
    /// Seconds that a load of symbols takes.
    double secondsToLoad(symbol_kind_t flags = symbol_kind_all) {
        module.scope();
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(module.load(flags), status_Ok);
        return secondsSince(begin);
    }
    static double secondsSince(std::chrono::steady_clock::time_point begin) {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }

    DwarfModule module;
    DwarfAssembler& dwarf = module.dwarf;
};

// Abbreviations

/// Bytes of abbreviations read for `units` tables, each of which begins one abbreviation behind the one
/// before in a table of so many.
unsigned long long bytesReadOfOverlappingTables(unsigned units) {
    ByteAssembler bytes;
    for (unsigned i = 0; i < units; ++i)
        bytes.uleb(2 + i, 3).uleb(DW_TAG_variable).u8(0).uleb(0).uleb(0);
    const SymMgrObjectPtr<MemorySection> section = new MemorySection(bytes.bytes());
    AbbrevTables tables;
    unsigned long long sum = 0;
    for (unsigned i = 0; i < units; ++i)
        sum += tables.tableAt(section, 7ULL * i)->size();
    return sum;
}

TEST_F(DwarfWorkTest, OverlappingAbbreviationTablesAreReadInProportionToTheSection) {
    const unsigned long long atOnce = bytesReadOfOverlappingTables(4000);
    const unsigned long long ofTwice = bytesReadOfOverlappingTables(8000);
    EXPECT_LE(atOnce, 7u * 4000 * 8);
    EXPECT_LE(ofTwice, 2 * atOnce);
}

TEST_F(DwarfWorkTest, TablesThatDoNotOverlapAreAllReadHoweverManyThereAre) {
    ByteAssembler bytes;
    constexpr unsigned count = 20000;
    for (unsigned i = 0; i < count; ++i)
        bytes.uleb(1).uleb(DW_TAG_variable).u8(0).uleb(0).uleb(0).uleb(0);
    const SymMgrObjectPtr<MemorySection> section = new MemorySection(bytes.bytes());
    AbbrevTables tables;
    for (unsigned i = 0; i < count; ++i)
        ASSERT_NE(tables.tableAt(section, 6ULL * i)->find(1), nullptr) << i;
}

TEST_F(DwarfWorkTest, CodesFarFromEachOtherTakeNoPageEach) {
    PagedMap map;
    const AbbrevEntry entry{};
    for (unsigned long long page = 0; page < 1000; ++page)
        map[page * PagedMap::pageSize + 1] = &entry;
    EXPECT_LE(map.pageCount(), 70u);
    for (unsigned long long page = 0; page < 1000; ++page)
        EXPECT_EQ(map.find(page * PagedMap::pageSize + 1), &entry);
    EXPECT_EQ(map.find(2), nullptr);
}

// Entries

std::vector<orn_test::DwarfSpec> flags(unsigned count) {
    std::vector<orn_test::DwarfSpec> specs;
    for (unsigned i = 0; i < count; ++i)
        specs.push_back({0x3000 + i, DW_FORM_flag_present});
    return specs;
}

TEST_F(DwarfWorkTest, EntriesOfOneByteWithManyFlagsAreReadInTime) {
    dwarf.abbreviation(longCode, DW_TAG_label, false, flags(50000));
    unitOf([](ByteAssembler& info) { info.fill(50000, longCode); });
    EXPECT_LT(secondsToLoad(), inTime);
}

TEST_F(DwarfWorkTest, EntriesWithManyFlagsArePassedInTime) {
    auto specs = flags(50000);
    specs.insert(specs.begin(), {DW_AT_byte_size, DW_FORM_udata});
    dwarf.abbreviation(longCode, DW_TAG_base_type, false, specs);
    unitOf([](ByteAssembler& info) { info.fill(100000, longCode); });
    EXPECT_LT(secondsToLoad(), inTime);
}

TEST_F(DwarfWorkTest, AsManyFlagsAsAnyCompilerWritesAreRead) {
    auto specs = flags(200);
    specs.push_back({DW_AT_name, DW_FORM_string});
    specs.push_back({DW_AT_low_pc, DW_FORM_addr});
    dwarf.abbreviation(longCode, DW_TAG_label, false, specs);
    unitOf([](ByteAssembler& info) { info.u8(longCode).str("here").u64(0x1100); });
    EXPECT_EQ(module.symbols(symbol_kind_label), std::vector<std::string>{"here 0x1100-0x1100"});
}

TEST_F(DwarfWorkTest, AttributesThatTakeBytesAreNotLimited) {
    std::vector<orn_test::DwarfSpec> specs;
    for (unsigned i = 0; i < 5000; ++i)
        specs.push_back({0x3000 + i, DW_FORM_data1});
    specs.push_back({DW_AT_name, DW_FORM_string});
    specs.push_back({DW_AT_low_pc, DW_FORM_addr});
    dwarf.abbreviation(longCode, DW_TAG_label, false, specs);
    unitOf([](ByteAssembler& info) { info.u8(longCode).fill(5000).str("here").u64(0x1100); });
    EXPECT_EQ(module.symbols(symbol_kind_label), std::vector<std::string>{"here 0x1100-0x1100"});
}

TEST_F(DwarfWorkTest, EntriesThatTheirUnitsCutOffAreReadInTime) {
    std::vector<orn_test::DwarfSpec> specs;
    for (unsigned i = 0; i < 40000; ++i)
        specs.push_back({0x3000 + i, DW_FORM_data4});
    dwarf.abbreviation(longCode, DW_TAG_label, false, specs);
    for (unsigned i = 0; i < 10000; ++i)
        dwarf.info().u32(8).u16(4).u32(0).u8(8).u8(longCode);
    EXPECT_LT(secondsToLoad(), inTime);
}

TEST_F(DwarfWorkTest, AddressesOfAWidthThatIsNotReadAreFew) {
    std::vector<orn_test::DwarfSpec> specs;
    for (unsigned i = 0; i < 20000; ++i)
        specs.push_back({0x3000 + i, DW_FORM_addr});
    dwarf.abbreviation(longCode, DW_TAG_label, false, specs);
    orn_test::DwarfUnitOptions options;
    options.addressSize = 3;
    dwarf.beginUnit(options).entry(topCode);
    dwarf.info().fill(20000, longCode);
    dwarf.null().endUnit();
    EXPECT_LT(secondsToLoad(), inTime);
}

// References

TEST_F(DwarfWorkTest, ALongChainOfReferencesIsNotWalkedFromEachLink) {
    dwarf.abbreviation(longCode, DW_TAG_subprogram, false, {{DW_AT_abstract_origin, DW_FORM_ref4}});
    unitOf([](ByteAssembler& info) {
        const auto first = static_cast<std::uint32_t>(info.size());
        for (unsigned i = 0; i < 20000; ++i)
            info.u8(longCode).u32(first + 5 * (i + 1));
    });
    EXPECT_LT(secondsToLoad(), inTime);
}

TEST_F(DwarfWorkTest, AChainOfAnyUsualLengthIsFollowedFromEachOfManyEntries) {
    // Each of the functions has its name at the far end of the same chain, so that it is walked very often.
    dwarf.abbreviation(longCode, DW_TAG_base_type, false, {{DW_AT_abstract_origin, DW_FORM_ref4}});
    dwarf.abbreviation(shortCode, DW_TAG_label, false,
                       {{DW_AT_low_pc, DW_FORM_addr}, {DW_AT_abstract_origin, DW_FORM_ref4}});
    dwarf.abbreviation(103, DW_TAG_base_type, false, {{DW_AT_name, DW_FORM_string}});
    constexpr unsigned count = 5000;
    unitOf([](ByteAssembler& info) {
        auto link = static_cast<std::uint32_t>(info.size());
        info.u8(103).str("l");
        for (unsigned i = 0; i < 14; ++i) {
            const auto next = link;
            link = static_cast<std::uint32_t>(info.size());
            info.u8(longCode).u32(next);
        }
        for (unsigned i = 0; i < count; ++i)
            info.u8(shortCode).u64(0x1100 + i).u32(link);
    });
    EXPECT_EQ(module.symbols(symbol_kind_label).size(), count);
}

TEST_F(DwarfWorkTest, ManyReferencesToOneLongEntryAreFollowedInTime) {
    std::vector<orn_test::DwarfSpec> specs(100000, {DW_AT_byte_size, DW_FORM_data1});
    dwarf.abbreviation(longCode, DW_TAG_base_type, false, specs);
    dwarf.abbreviation(shortCode, DW_TAG_subprogram, false, {{DW_AT_abstract_origin, DW_FORM_ref4}});
    unitOf([](ByteAssembler& info) {
        const auto entry = static_cast<std::uint32_t>(info.size());
        info.u8(longCode).fill(100000);
        for (unsigned i = 0; i < 40000; ++i)
            info.u8(shortCode).u32(entry);
    });
    EXPECT_LT(secondsToLoad(), inTime);
}

TEST_F(DwarfWorkTest, ManyReferencesIntoOneLongNumberAreFollowedInTime) {
    dwarf.abbreviation(longCode, DW_TAG_base_type, false, {{DW_AT_const_value, DW_FORM_block4}});
    dwarf.abbreviation(shortCode, DW_TAG_subprogram, false, {{DW_AT_abstract_origin, DW_FORM_ref4}});
    unitOf([](ByteAssembler& info) {
        info.u8(longCode).u32(400000);
        const auto number = static_cast<std::uint32_t>(info.size());
        info.fill(400000, 0x80);
        for (unsigned i = 0; i < 40000; ++i)
            info.u8(shortCode).u32(number);
    });
    EXPECT_LT(secondsToLoad(), inTime);
}

TEST_F(DwarfWorkTest, ManyArraysThatShareTheirChildrenAreReadInTime) {
    dwarf.abbreviation(longCode, DW_TAG_array_type, true, {});
    dwarf.abbreviation(shortCode, DW_TAG_variable, false,
                       {{DW_AT_location, DW_FORM_block1}, {DW_AT_type, DW_FORM_ref4}});
    unitOf([](ByteAssembler& info) {
        const auto arrays = static_cast<std::uint32_t>(info.size());
        constexpr unsigned count = 100000;
        for (unsigned i = 0; i < 20000; ++i)
            info.u8(shortCode).u8(9).u8(DW_OP_addr).u64(0x1000 + i).u32(arrays + 20000 * 15 + i);
        info.fill(count, longCode).fill(count);
    });
    EXPECT_LT(secondsToLoad(symbol_kind_variable), inTime);
}

// Texts

/// Of units that all name one producer, which is long and has to be searched, those whose compiler is known.
unsigned unitsOfKnownCompiler(unsigned length) {
    DwarfModule module;
    module.dwarf.abbreviation(longCode, DW_TAG_compile_unit, false, {{DW_AT_producer, DW_FORM_strp}});
    module.dwarf.str().chars("GNU ").fill(length, 'x').u8(0);
    constexpr unsigned count = 5000;
    for (unsigned i = 0; i < count; ++i)
        module.dwarf.info().u32(12).u16(4).u32(0).u8(8).u8(longCode).u32(0);
    module.scope();
    EXPECT_EQ(module.load(symbol_kind_none), status_Ok);
    unsigned known = 0;
    for (const auto& [offset, unit] : module.loader().units()) {
        EXPECT_EQ(static_cast<const void*>(unit->getProducer()),
                  module.loader().units().begin()->second->getProducer())
            << "a copy";
        known += unit->getCompilerKind() == compiler_Gnu ? 1 : 0;
    }
    return known;
}

TEST_F(DwarfWorkTest, ALongTextOfManyUnitsIsNotSearchedForEachOfThem) {
    EXPECT_EQ(unitsOfKnownCompiler(4000), 5000u) << "compilers write texts as long as this";
    const unsigned known = unitsOfKnownCompiler(1000000);
    EXPECT_GT(known, 50u);
    EXPECT_LT(known, 500u);
}

TEST_F(DwarfWorkTest, ALongCompilationDirectoryIsNotCopiedForEachDirectory) {
    dwarf.abbreviation(longCode, DW_TAG_compile_unit, false,
                       {{DW_AT_stmt_list, DW_FORM_sec_offset}, {DW_AT_comp_dir, DW_FORM_strp}});
    dwarf.str().fill(2000000, 'd').u8(0);
    dwarf.beginLines();
    constexpr unsigned count = 30000;
    for (unsigned i = 0; i < count; ++i)
        dwarf.includeDirectory("i");
    dwarf.endIncludeDirectories();
    for (unsigned i = 0; i < count; ++i)
        dwarf.file("f", i + 1);
    dwarf.endFiles().endLines();
    dwarf.beginUnit().entry(longCode, {0, 0}).endUnit();
    const auto begin = std::chrono::steady_clock::now();
    module.scope();
    EXPECT_EQ(module.loader().loadLineTable(nullptr), status_Ok);
    EXPECT_LT(secondsSince(begin), inTime);
}

/// Bytes of the paths of many files in one directory.
std::size_t bytesOfPaths(std::size_t directoryLength, unsigned files) {
    DwarfModule module;
    DwarfAssembler& dwarf = module.dwarf;
    dwarf.beginLines().includeDirectory("/" + std::string(directoryLength, 'd')).endIncludeDirectories();
    for (unsigned i = 0; i < files; ++i)
        dwarf.file(std::to_string(i), 1);
    dwarf.endFiles().endLines();
    module.unit(M::lines(0)).endUnit();
    GlobalScope& scope = module.scope();
    EXPECT_EQ(module.loader().loadLineTable(nullptr), status_Ok);
    ISrcLineResolver* resolver = scope.lineResolver();
    EXPECT_EQ(resolver->fileCount(), files);
    std::size_t bytes = 0;
    for (unsigned i = 0; i < resolver->fileCount(); ++i)
        bytes += std::strlen(resolver->fileAt(i)->name());
    return bytes;
}

TEST_F(DwarfWorkTest, ALongDirectoryIsNotPutBeforeEachOfManyFiles) {
    EXPECT_GT(bytesOfPaths(500, 20000), 500u * 20000) << "directories are as long as this";
    EXPECT_LT(bytesOfPaths(4000, 20000), 2000000u);
}

// Line programs

/// Units that have lines of those that share one program of about `size` bytes.
unsigned unitsWithLines(unsigned units, unsigned size) {
    DwarfModule module;
    DwarfAssembler& dwarf = module.dwarf;
    dwarf.beginLines().endIncludeDirectories().file("a.c").endFiles().setAddress(0x1000);
    for (unsigned i = 0; i < size; ++i)
        dwarf.special(0, 1);
    dwarf.endSequence().endLines();
    dwarf.abbreviation(longCode, DW_TAG_compile_unit, false, {{DW_AT_stmt_list, DW_FORM_sec_offset}});
    for (unsigned i = 0; i < units; ++i)
        dwarf.beginUnit().entry(longCode, {0}).endUnit();
    module.scope();
    static_cast<void>(module.loader().loadLineTable(nullptr));
    unsigned count = 0;
    for (const auto& [offset, unit] : module.loader().units()) {
        const status_t status = unit->loadLines(nullptr);
        EXPECT_TRUE(status == status_Ok || status == status_BadDebugInfo) << status;
        count += status == status_Ok ? 1 : 0;
    }
    return count;
}

TEST_F(DwarfWorkTest, UnitsMayShareALineProgram) {
    EXPECT_EQ(unitsWithLines(16, 40000), 16u);
    EXPECT_EQ(unitsWithLines(1000, 100), 1000u);
}

TEST_F(DwarfWorkTest, ALongLineProgramIsNotRunForAnyNumberOfUnits) {
    EXPECT_LT(unitsWithLines(300, 20000), 80u);
}

// The inside of functions

std::size_t rangesInside(IScope& scope) {
    std::size_t count = 0;
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
    static_cast<void>(scope.symbolRanges(ranges, 0, ~0ULL, symbol_kind_all));
    for (auto range = ranges ? ranges->current() : nullptr; range;
         range = ranges->next() ? ranges->current() : nullptr)
        ++count;
    return count;
}

TEST_F(DwarfWorkTest, ALongRangeListThatManyFunctionsHaveInsideIsReadInProportion) {
    constexpr unsigned pairs = 4000;
    constexpr unsigned functions = 400;
    for (unsigned i = 0; i < pairs; ++i)
        module.pair(2 * i, 2 * i + 1);
    module.pair(0, 0);
    // The first pair is not the list's end.
    dwarf.ranges().overwriteAt(8, 1, 8);
    module.unit({{DW_AT_low_pc, DW_FORM_addr, 0x1000}});
    module.leaf(DW_TAG_subprogram, M::named("abstract") + DwarfAttrs{{DW_AT_inline, DW_FORM_data1, 1}}, "a");
    for (unsigned i = 0; i < functions; ++i) {
        module.openFunction("f", 0x1000 + i, 1);
        module.leaf(DW_TAG_inlined_subroutine, M::origin("a") + M::ranges(0)).close();
    }
    module.endUnit();
    std::size_t count = 0;
    for (unsigned i = 0; i < functions; ++i) {
        Scope* function = module.scopeAt(0x1000 + i);
        ASSERT_NE(function, nullptr);
        count += rangesInside(*function);
    }
    EXPECT_GT(count, pairs);
    EXPECT_LT(count, 60u * pairs) << "of " << functions * pairs;
}

TEST_F(DwarfWorkTest, DeeplyNestedCallsAreReadLevelByLevelInTime) {
    constexpr unsigned depth = 20000;
    dwarf.abbreviation(longCode, DW_TAG_inlined_subroutine, true,
                       {{DW_AT_abstract_origin, DW_FORM_ref1},
                        {DW_AT_low_pc, DW_FORM_addr},
                        {DW_AT_high_pc, DW_FORM_data4}});
    dwarf.abbreviation(shortCode, DW_TAG_subprogram, true,
                       {{DW_AT_name, DW_FORM_string},
                        {DW_AT_inline, DW_FORM_data1},
                        {DW_AT_low_pc, DW_FORM_addr},
                        {DW_AT_high_pc, DW_FORM_data4}});
    unitOf([](ByteAssembler& info) {
        const auto function = static_cast<std::uint8_t>(info.size());
        info.u8(shortCode).str("f").u8(1).u64(0x1000).u32(0x1000);
        for (unsigned i = 0; i < depth; ++i)
            info.u8(longCode).u8(function).u64(0x1000).u32(0x1000);
        info.fill(depth + 1);
    });
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(module.chainAt(0x1800).size(), depth + 1);
    EXPECT_LT(secondsSince(begin), inTime);
}

std::size_t symbolsBelow(IScope& scope) {
    std::vector<IScope*> open{&scope};
    std::size_t count = 0;
    while (!open.empty()) {
        IScope* top = open.back();
        open.pop_back();
        SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
        static_cast<void>(top->symbolRanges(ranges, 0, ~0ULL, symbol_kind_label));
        for (auto range = ranges ? ranges->current() : nullptr; range;
             range = ranges->next() ? ranges->current() : nullptr) {
            ++count;
            // Only those of the first level: each has all that nests in it inside as well.
            if (top == &scope)
                open.push_back(dynamic_cast<DWARFSymbol&>(*range->symbol()).scope());
        }
    }
    return count;
}

TEST_F(DwarfWorkTest, LabelsThatNestHaveAllBelowThemInsideOnlyUpToABound) {
    constexpr unsigned depth = 3000;
    dwarf.abbreviation(longCode, DW_TAG_label, true,
                       {{DW_AT_name, DW_FORM_string}, {DW_AT_low_pc, DW_FORM_addr}});
    unitOf([](ByteAssembler& info) {
        for (unsigned i = 0; i < depth; ++i)
            info.u8(longCode).str("l").u64(0x1000 + i);
        info.fill(depth);
    });
    const std::size_t count = symbolsBelow(module.scope());
    EXPECT_GT(count, 2 * depth);
    EXPECT_LT(count, 200000u) << "of " << depth * depth / 2;
}

TEST_F(DwarfWorkTest, EntriesWithOptionsDoNotSearchALongTextEach) {
    dwarf.abbreviation(longCode, DW_TAG_VEXOR_compile_options, false,
                       {{DW_AT_VEXOR_compile_options, DW_FORM_strp}});
    dwarf.str().fill(1000000, '-').u8(0);
    unitOf([](ByteAssembler& info) {
        for (unsigned i = 0; i < 20000; ++i)
            info.u8(longCode).u32(0);
    });
    EXPECT_LT(secondsToLoad(), inTime);
}

TEST_F(DwarfWorkTest, FunctionsThatNestInAnyOrderAreTakenInInTime) {
    constexpr unsigned count = 4000;
    dwarf.abbreviation(
        longCode, DW_TAG_subprogram, false,
        {{DW_AT_name, DW_FORM_string}, {DW_AT_low_pc, DW_FORM_addr}, {DW_AT_high_pc, DW_FORM_data4}});
    unitOf([](ByteAssembler& info) {
        for (unsigned i = 0; i < count; ++i) {
            const unsigned size = 1 + i * 1237 % count;
            info.u8(longCode).str("f" + std::to_string(i)).u64(0x1000 + count - size).u32(2 * size);
        }
    });
    module.scope();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(module.load(symbol_kind_function), status_OutOfMemory);
    EXPECT_LT(secondsSince(begin), inTime);
}

} // namespace
} // namespace ORN_3_30::test
