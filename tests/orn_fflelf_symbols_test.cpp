// Facts about the symbols of ELF modules: which records are kept and as what, the thunks of the procedure
// linkage table, and what reaches the table.

#include "orn_fflelf_symbols.h"

#include "orn_fflelf.h"
#include "orn_scope.h"
#include "support/elf_assembler.h"
#include "support/memory_image.h"
#include "support/orn_fixture.h"
#include "support/recording_sink.h"

#include <set>
#include <string>
#include <vector>

namespace ORN_3_30 {
namespace {

using orn_test::ElfAssembler;
using orn_test::ElfClass;
using orn_test::ElfSymbol;
using orn_test::MemoryImage;
using orn_test::RecordingSink;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint64_t codeFlags = SHF_ALLOC | SHF_EXECINSTR;
constexpr uint64_t dataFlags = SHF_ALLOC | SHF_WRITE;

constexpr symbol_kind_t noThunks = symbol_kind_entry_point | symbol_kind_variable | symbol_kind_other;

/// ".text" at 0x1000, ".data" at 0x3000, each of 0x100 bytes in a segment of its own.
struct Module {
    explicit Module(ElfClass elfClass = ElfClass::k64)
        : elf(elfClass),
          text(elf.section(".text", SHT_PROGBITS, codeFlags).address(0x1000).zeros(0x100)),
          data(elf.section(".data", SHT_PROGBITS, dataFlags).address(0x3000).zeros(0x100)) {
        elf.load({text});
        elf.load({data});
    }

    ElfSymbol dynamicSymbol(const char* name, uint64_t value, orn_test::ElfSectionRef section) {
        ElfSymbol symbol = elf.dynamicSymbol(name, value, 16, STB_GLOBAL, STT_FUNC, section);
        elf.dynamicSymbols().section().flags(0);
        elf.dynamicSymbols().strings().flags(0);
        return symbol;
    }

    /// Reads all kinds but the thunks unless told otherwise.
    RecordingSink& read(symbol_kind_t flags = noThunks, LoadFilter* filter = nullptr) {
        loader = new ElfFileLoader(new MemoryImage(elf.build()));
        sink = new RecordingSink;
        EXPECT_EQ(loader->readSymbols(sink, filter, flags), status_Ok);
        return *sink;
    }

    ElfAssembler elf;
    orn_test::ElfSection text;
    orn_test::ElfSection data;
    SymMgrObjectPtr<ElfFileLoader> loader;
    SymMgrObjectPtr<RecordingSink> sink; ///< its scopes go before the loader
};

std::vector<std::string> namesRead(Module& module, symbol_kind_t flags = noThunks,
                                   LoadFilter* filter = nullptr) {
    return module.read(flags, filter).names();
}

using ElfSymbolsTest = test::OrnTest;

// --- Decoding

TEST_F(ElfSymbolsTest, FunctionBecomesAScopeWithItsRange) {
    for (ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        Module module(elfClass);
        module.elf.symbol("main", 0x1010, 0x20);
        RecordingSink& sink = module.read();
        ASSERT_EQ(sink.entries.size(), 1u);
        RecordingSink::Entry& entry = sink.entries[0];
        EXPECT_EQ(entry.name, "main");
        EXPECT_EQ(entry.low, 0x1010u);
        EXPECT_EQ(entry.high, 0x1030u);
        EXPECT_EQ(entry.kind, symbol_kind_function);
        EXPECT_EQ(entry.visibility, symbol_visibility_global);
        EXPECT_EQ(entry.scope->firstLow(), 0x1010u);
        EXPECT_EQ(entry.scope->lastHigh(), 0x1030u);
        EXPECT_FALSE(entry.scope->hasThunks());
        EXPECT_EQ(entry.scope->loader(), module.loader);
    }
}

TEST_F(ElfSymbolsTest, VisibilityFollowsTheBinding) {
    Module module;
    module.elf.symbol("local", 0x1000, 1, STB_LOCAL);
    module.elf.symbol("global", 0x1001, 1, STB_GLOBAL);
    module.elf.symbol("weak", 0x1002, 1, STB_WEAK);
    RecordingSink& sink = module.read();
    EXPECT_EQ(sink.find("local")->visibility, symbol_visibility_local);
    EXPECT_EQ(sink.find("global")->visibility, symbol_visibility_global);
    EXPECT_EQ(sink.find("weak")->visibility, symbol_visibility_global);
}

TEST_F(ElfSymbolsTest, OtherBindingsAreDropped) {
    Module module;
    for (unsigned bind : {3u, static_cast<unsigned>(STB_GNU_UNIQUE), 15u})
        module.elf.symbol("odd", 0x1000, 1, bind);
    EXPECT_THAT(namesRead(module), IsEmpty());
}

TEST_F(ElfSymbolsTest, KindFollowsTheType) {
    Module module;
    module.elf.symbol("function", 0x1000, 1, STB_GLOBAL, STT_FUNC);
    module.elf.symbol("object", 0x3000, 1, STB_GLOBAL, STT_OBJECT);
    module.elf.symbol("untyped", 0x3001, 1, STB_GLOBAL, STT_NOTYPE);
    RecordingSink& sink = module.read();
    EXPECT_EQ(sink.find("function")->kind, symbol_kind_function);
    EXPECT_EQ(sink.find("object")->kind, symbol_kind_variable);
    EXPECT_EQ(sink.find("untyped")->kind, symbol_kind_other);
}

TEST_F(ElfSymbolsTest, OtherTypesAreDropped) {
    Module module;
    for (unsigned type : {STT_SECTION, STT_FILE, STT_COMMON, STT_TLS, STT_GNU_IFUNC, 15})
        module.elf.symbol("odd", 0x1000, 1, STB_GLOBAL, type);
    EXPECT_THAT(namesRead(module), IsEmpty());
}

TEST_F(ElfSymbolsTest, UndefinedAndCommonSymbolsAreDropped) {
    Module module;
    module.elf.symbol("undefined", 0x1000, 1, STB_GLOBAL, STT_FUNC, SHN_UNDEF);
    module.elf.symbol("common", 0x1000, 1, STB_GLOBAL, STT_FUNC, SHN_COMMON);
    EXPECT_THAT(namesRead(module), IsEmpty());
}

TEST_F(ElfSymbolsTest, AbsoluteSymbolIsKeptOnlyIfItsAddressFallsInARange) {
    Module module;
    module.elf.symbol("inside", 0x1000, 1, STB_GLOBAL, STT_FUNC, SHN_ABS);
    module.elf.symbol("outside", 0x9000, 1, STB_GLOBAL, STT_FUNC, SHN_ABS);
    EXPECT_THAT(namesRead(module), ElementsAre("inside"));
}

TEST_F(ElfSymbolsTest, FunctionsHaveToLieInCodeObjectsAnywhere) {
    Module module;
    module.elf.symbol("function in data", 0x3000, 1, STB_GLOBAL, STT_FUNC);
    module.elf.symbol("object in code", 0x1000, 1, STB_GLOBAL, STT_OBJECT);
    module.elf.symbol("untyped in code", 0x1001, 1, STB_GLOBAL, STT_NOTYPE);
    for (unsigned type : {STT_FUNC, STT_OBJECT, STT_NOTYPE})
        module.elf.symbol("nowhere", 0x9000, 1, STB_GLOBAL, type, SHN_ABS);
    EXPECT_THAT(namesRead(module), ElementsAre("object in code", "untyped in code"));
}

TEST_F(ElfSymbolsTest, FlagsChooseTheTypes) {
    Module module;
    module.elf.symbol("function", 0x1000, 1, STB_GLOBAL, STT_FUNC);
    module.elf.symbol("object", 0x3000, 1, STB_GLOBAL, STT_OBJECT);
    module.elf.symbol("untyped", 0x3001, 1, STB_GLOBAL, STT_NOTYPE);
    EXPECT_THAT(namesRead(module, symbol_kind_function), ElementsAre("function", "untyped"));
    EXPECT_THAT(namesRead(module, symbol_kind_entry_point), ElementsAre("function", "untyped"));
    EXPECT_THAT(namesRead(module, symbol_kind_label), ElementsAre("object", "untyped"));
    EXPECT_THAT(namesRead(module, symbol_kind_variable), ElementsAre("object", "untyped"));
    EXPECT_THAT(namesRead(module, symbol_kind_none), ElementsAre("untyped")) << "always asked for";
}

TEST_F(ElfSymbolsTest, DecodeTellsKindAndVisibilityOfSkippedRecordsToo) {
    Module module;
    module.read();
    ElfHelper& helper = *module.loader->getElfHelper();
    Elf64_Sym symbol{};
    symbol.st_name = 1;
    symbol.st_info = ELF64_ST_INFO(STB_GLOBAL, STT_FUNC);
    symbol.st_shndx = 1;
    symbol.st_value = 0x1000;
    symbol.st_size = 4;
    const auto* entry = reinterpret_cast<const unsigned char*>(&symbol);
    ElfSymbolStrings strings{"\0name", 6, 6};
    ElfSymbolRecord record;
    EXPECT_EQ(decodeSymbol(entry, strings, helper, 0, symbol_kind_variable, record), status_False);
    EXPECT_EQ(record.kind, symbol_kind_other);
    EXPECT_EQ(record.visibility, symbol_visibility_global);
    EXPECT_EQ(record.address, 0x1000u);
    EXPECT_EQ(record.name, nullptr);
    EXPECT_EQ(decodeSymbol(entry, strings, helper, 0, symbol_kind_function, record), status_Ok);
    EXPECT_STREQ(record.name, "name");
    EXPECT_EQ(record.size, 4u);
    EXPECT_EQ(decodeSymbol(entry, {nullptr, 6, 6}, helper, 0, symbol_kind_function, record), status_False)
        << "no strings";
    EXPECT_EQ(record.name, nullptr);
    // The bias moves the address before it is judged.
    EXPECT_EQ(decodeSymbol(entry, strings, helper, 0x10, symbol_kind_function, record), status_Ok);
    EXPECT_EQ(record.address, 0x1010u);
    EXPECT_EQ(decodeSymbol(entry, strings, helper, 0x1000, symbol_kind_function, record), status_False);
}

TEST_F(ElfSymbolsTest, NameOffsetAboveTheLimitIsABrokenRecordAndOnePastTheEndNoName) {
    Module module;
    module.read();
    ElfHelper& helper = *module.loader->getElfHelper();
    Elf64_Sym symbol{};
    symbol.st_info = ELF64_ST_INFO(STB_GLOBAL, STT_FUNC);
    symbol.st_shndx = 1;
    symbol.st_value = 0x1000;
    auto decoded = [&](unsigned name, unsigned long long limit) {
        symbol.st_name = name;
        ElfSymbolRecord record;
        return decodeSymbol(reinterpret_cast<const unsigned char*>(&symbol), {"\0name", 6, limit}, helper, 0,
                            symbol_kind_function, record);
    };
    EXPECT_EQ(decoded(0, 6), status_False);
    EXPECT_EQ(decoded(5, 6), status_Ok);
    EXPECT_EQ(decoded(6, 6), status_False);
    EXPECT_EQ(decoded(7, 6), status_BadFileFormat);
    EXPECT_EQ(decoded(7, unlimitedNames), status_False);
    EXPECT_EQ(decoded(0xFFFFFFFF, unlimitedNames), status_False);
}

// --- Tables

TEST_F(ElfSymbolsTest, BothTablesAreReadTheFullOneFirst) {
    Module module;
    module.dynamicSymbol("exported", 0x1000, module.text);
    module.elf.symbol("main", 0x1010, 1);
    EXPECT_THAT(namesRead(module), ElementsAre("main", "exported"));
}

TEST_F(ElfSymbolsTest, StrippedModuleStillGivesItsDynamicSymbols) {
    Module module;
    module.dynamicSymbol("exported", 0x1000, module.text);
    EXPECT_THAT(namesRead(module), ElementsAre("exported"));
}

TEST_F(ElfSymbolsTest, TableWithoutItsStringsIsNotRead) {
    Module module;
    module.elf.symbol("main", 0x1000, 1);
    module.elf.symbols().strings().header().sh_name = 0;
    EXPECT_THAT(namesRead(module), IsEmpty());
}

TEST_F(ElfSymbolsTest, RecordsWithoutNameAreSkippedAndTheWalkGoesOn) {
    Module module;
    module.elf.symbol("past", 0x1000, 1).nameOffset(0x1000000);
    module.elf.symbol("unnamed", 0x1000, 1).nameOffset(0);
    module.elf.symbol("last", 0x1000, 1);
    // "": the offset is that of a NUL behind a name.
    const uint32_t nul = 5;
    module.elf.symbol("empty", 0x1000, 1).nameOffset(nul);
    EXPECT_THAT(namesRead(module), ElementsAre("last"));
}

TEST_F(ElfSymbolsTest, LastNameWithoutNulEndsWithTheTable) {
    Module module;
    module.elf.symbol("main", 0x1000, 1);
    const uint64_t size = module.elf.layout().section(".strtab").size;
    module.elf.symbols().strings().header().sh_size = size - 2;
    EXPECT_THAT(namesRead(module), ElementsAre("mai"));
}

TEST_F(ElfSymbolsTest, RecordCutOffByTheTablesEndIsNotRead) {
    Module module;
    module.elf.symbol("first", 0x1000, 1);
    module.elf.symbol("second", 0x1001, 1);
    module.elf.symbols().section().header().sh_size = 3 * sizeof(Elf64_Sym) - 1;
    EXPECT_THAT(namesRead(module), ElementsAre("first"));
}

TEST_F(ElfSymbolsTest, MachineOfExceptionsHasFourMoreBytesInEachEntry) {
    expectLog("Unknown binary architecture: 31", 2);
    for (ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        Module module(elfClass);
        module.elf.machine(31);
        module.elf.symbols().padEntries(4);
        module.elf.symbol("first", 0x1000, 1);
        module.elf.symbol("second", 0x1010, 1);
        EXPECT_THAT(namesRead(module), ElementsAre("first", "second"));
    }
}

TEST_F(ElfSymbolsTest, InvalidModuleFails) {
    Module module;
    module.elf.header().e_shoff = 0x1000000;
    SymMgrObjectPtr<ElfFileLoader> loader = new ElfFileLoader(new MemoryImage(module.elf.build()));
    SymMgrObjectPtr<RecordingSink> sink = new RecordingSink;
    expectLog("ASSERTION FAILED: '");
    EXPECT_EQ(loader->readSymbols(sink, nullptr, symbol_kind_all), status_Fail);
    EXPECT_THAT(sink->entries, IsEmpty());
    EXPECT_THAT(sink->sectionEnds, IsEmpty());
}

TEST_F(ElfSymbolsTest, FilterLetsPassWhatHoldsAnAnnouncedAddress) {
    Module module;
    module.elf.symbol("wanted", 0x1000, 0x10);
    module.elf.symbol("foreign", 0x1010, 0x10);
    module.elf.symbol("empty", 0x1020, 0);
    std::set<unsigned long long> addresses;
    LoadFilter filter(&addresses);
    EXPECT_THAT(namesRead(module, noThunks, &filter), ElementsAre("wanted", "foreign", "empty"));
    addresses.insert(0x100F);
    EXPECT_THAT(namesRead(module, noThunks, &filter), ElementsAre("wanted", "empty"));
}

TEST_F(ElfSymbolsTest, SizeThatWrapsReachesToTheEndOfTheAddressSpace) {
    Module module;
    module.elf.symbol("huge", 0x1000, ~0ULL - 1);
    RecordingSink& sink = module.read();
    ASSERT_EQ(sink.entries.size(), 1u);
    EXPECT_EQ(sink.entries[0].low, 0x1000u);
    EXPECT_EQ(sink.entries[0].high, ~0ULL);
}

TEST_F(ElfSymbolsTest, SymbolsOfABorrowedTableMoveByItsBias) {
    Module debug;
    debug.elf.symbol("main", 0x1010, 0x10);
    ElfAssembler elf;
    elf.load({elf.section(".text", SHT_PROGBITS, codeFlags).address(0x5000).zeros(0x100)});
    SymMgrObjectPtr<ElfFileLoader> loader = new ElfFileLoader(new MemoryImage(elf.build()));
    SymMgrObjectPtr<ElfHelper> debugHelper = new ElfHelper(new MemoryImage(debug.elf.build()));
    loader->getElfHelper()->mergeDebugFile(*debugHelper);
    SymMgrObjectPtr<RecordingSink> sink = new RecordingSink;
    EXPECT_EQ(loader->readSymbols(sink, nullptr, symbol_kind_function), status_Ok);
    ASSERT_EQ(sink->entries.size(), 1u);
    EXPECT_EQ(sink->entries[0].low, 0x5010u);
}

TEST_F(ElfSymbolsTest, EndsOfAllocatedSectionsAreToldAfterTheSymbols) {
    Module module;
    module.elf.section(".comment").zeros(4);
    RecordingSink& sink = module.read();
    std::vector<unsigned long long> ends;
    for (const RecordingSink::Entry& end : sink.sectionEnds) {
        EXPECT_EQ(end.low, end.high);
        ends.push_back(end.low);
    }
    EXPECT_THAT(ends, ElementsAre(0x1100, 0x3100));
}

TEST_F(ElfSymbolsTest, LoadMayBeRepeated) {
    Module module;
    module.elf.symbol("main", 0x1010, 1);
    module.read();
    SymMgrObjectPtr<RecordingSink> again = new RecordingSink;
    EXPECT_EQ(module.loader->readSymbols(again, nullptr, noThunks), status_Ok);
    EXPECT_THAT(again->names(), ElementsAre("main"));
}

TEST_F(ElfSymbolsTest, NamesThatShareOneLongTailDoNotMultiplyIt) {
    // 20000 names, each the whole of a text of 100000 bytes but for its first few: copies would take 2 GB.
    Module module;
    module.elf.symbol(std::string(100000, 'x'), 0x1000, 1);
    for (unsigned i = 0; i < 20000; ++i)
        module.elf.symbol("", 0x1000, 1).nameOffset(2 + i);
    std::size_t copied = 0;
    for (const std::string& name : namesRead(module))
        copied += name.size();
    EXPECT_GT(copied, 100000u);
    EXPECT_LT(copied, 16u * 100000 + 20100u * 1024);
}

// --- Thunks

struct PltModule : Module {
    PltModule() : plt(elf.section(".plt", SHT_PROGBITS, codeFlags).address(0x2000).zeros(0x40)) {
        first = dynamicSymbol("first", 0, SHN_UNDEF).index();
        second = dynamicSymbol("second", 0, SHN_UNDEF).index();
    }
    orn_test::ElfRelocations relocate(orn_test::ElfSectionRef target) {
        return elf.relocations(".rela.plt", SHT_RELA, target, elf.dynamicSymbols().section());
    }
    orn_test::ElfSection plt;
    uint32_t first;
    uint32_t second;
};

TEST_F(ElfSymbolsTest, ThunkFollowsFromTheNumberOfItsRelocation) {
    PltModule module;
    module.relocate(module.plt)
        .add(0x4008, module.first, R_X86_64_JUMP_SLOT)
        .add(0x4000, module.second, R_X86_64_JUMP_SLOT);
    RecordingSink& sink = module.read(symbol_kind_function);
    EXPECT_THAT(sink.names(), ElementsAre("second", "first")) << "in order of the relocated places";
    const RecordingSink::Entry& first = *sink.find("first");
    EXPECT_EQ(first.low, 0x2010u) << "entry 0 is the resolver's stub";
    EXPECT_EQ(first.high, 0x2020u);
    EXPECT_EQ(first.kind, symbol_kind_function);
    EXPECT_EQ(first.visibility, symbol_visibility_global);
    EXPECT_EQ(sink.find("second")->low, 0x2020u);
}

TEST_F(ElfSymbolsTest, ThunkScopeHasAThunkAndNoRange) {
    PltModule module;
    module.relocate(module.plt).add(0x4000, module.first, R_X86_64_JUMP_SLOT);
    RecordingSink& sink = module.read(symbol_kind_function);
    ASSERT_EQ(sink.entries.size(), 1u);
    Scope& scope = *sink.entries[0].scope;
    EXPECT_EQ(scope.rangeList()->m_head, nullptr);
    SymMgrObjectPtr<IThunk> thunk;
    scope.thunkAt(0x201F, thunk);
    ASSERT_TRUE(thunk);
    EXPECT_EQ(thunk->isImport(), 1);
    scope.thunkAt(0x2020, thunk);
    EXPECT_FALSE(thunk);
}

TEST_F(ElfSymbolsTest, EntryPointsAloneAskForNoThunks) {
    PltModule module;
    module.elf.symbol("main", 0x1010, 1);
    module.relocate(module.plt).add(0x4000, module.first, R_X86_64_JUMP_SLOT);
    EXPECT_THAT(namesRead(module, symbol_kind_entry_point), ElementsAre("main"));
    EXPECT_THAT(namesRead(module, symbol_kind_function), ElementsAre("main", "first"));
}

TEST_F(ElfSymbolsTest, RelocationsOfAnotherSectionGiveNoThunks) {
    PltModule module;
    auto gotPlt = module.elf.section(".got.plt", SHT_PROGBITS, dataFlags).address(0x4000).zeros(0x40);
    module.relocate(gotPlt).add(0x4000, module.first, R_X86_64_JUMP_SLOT);
    EXPECT_THAT(namesRead(module, symbol_kind_function), IsEmpty());
}

TEST_F(ElfSymbolsTest, WithoutPltThereAreNoThunks) {
    PltModule module;
    module.plt.header().sh_name = 0;
    module.relocate(module.plt).add(0x4000, module.first, R_X86_64_JUMP_SLOT);
    EXPECT_THAT(namesRead(module, symbol_kind_function), IsEmpty());
}

TEST_F(ElfSymbolsTest, ThunksPassTheFilterToo) {
    PltModule module;
    module.relocate(module.plt).add(0x4000, module.first, 7).add(0x4008, module.second, 7);
    std::set<unsigned long long> addresses{0x202F};
    LoadFilter filter(&addresses);
    EXPECT_THAT(namesRead(module, symbol_kind_function, &filter), ElementsAre("second"));
}

TEST_F(ElfSymbolsTest, ThunkWithoutNameIsSkipped) {
    PltModule module;
    const uint32_t unnamed = module.dynamicSymbol("x", 0, SHN_UNDEF).nameOffset(0).index();
    const uint32_t past = module.dynamicSymbol("y", 0, SHN_UNDEF).nameOffset(0x10000).index();
    module.relocate(module.plt).add(0x4000, unnamed, 7).add(0x4008, past, 7).add(0x4010, module.second, 7);
    RecordingSink& sink = module.read(symbol_kind_function);
    EXPECT_THAT(sink.names(), ElementsAre("second"));
    EXPECT_EQ(sink.entries[0].low, 0x2030u) << "the skipped ones count";
}

TEST_F(ElfSymbolsTest, NullOrEmptyNameIsIgnored) {
    Module module;
    module.read();
    SymMgrObjectPtr<RecordingSink> sink = new RecordingSink;
    RegularSymbolCallBack callback(*module.loader, *sink);
    callback(nullptr, 0x1000, 1, symbol_visibility_global, symbol_kind_function);
    callback("", 0x1000, 1, symbol_visibility_global, symbol_kind_function);
    EXPECT_THAT(sink->entries, IsEmpty());
    callback("x", 0x1000, 1, symbol_visibility_global, symbol_kind_function);
    EXPECT_THAT(sink->names(), ElementsAre("x"));
}

} // namespace
} // namespace ORN_3_30
