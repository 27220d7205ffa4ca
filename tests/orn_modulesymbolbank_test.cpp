// The bank's life and its queries, over loaders whose answers are set by hand.

#include "orn_modulesymbolbank.h"

#include "orn/opt_report.h"
#include "support/fake_loader.h"
#include "support/orn_fixture.h"
#include "support/temp_dir.h"

#include <atomic>
#include <chrono>
#include <new>
#include <thread>

namespace ORN_3_30::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using RangeIterator = IIterator<SymMgrObjectPtr<ISymbolRange>>;

constexpr unsigned long long imageBase = 0x400000;

class FakeLocation : public SymMgrObject<ISourceLocation> {
public:
    FakeLocation() : SymMgrObject<ISourceLocation>(nullptr) {}
    ISourceFile* file() override { return nullptr; }
    unsigned long long symbolId() override { return 0; }
    unsigned line() override { return 7; }
    unsigned column() override { return 0; }
    unsigned long long extra() override { return 0; }
};

/// Keeps what it was asked.
class FakeResolver : public SymMgrObject<ISrcLineResolver> {
public:
    FakeResolver() : SymMgrObject<ISrcLineResolver>(nullptr) {}

    void sourceLocationAt(SymMgrObjectPtr<ISourceLocation>& out, unsigned long long address,
                          unsigned long long unitId, ILineTable* table,
                          ISourceLocationSelector* selector) override {
        if (refusesMemory)
            throw std::bad_alloc();
        outWasNull = !out;
        askedAddress = address;
        askedUnit = unitId;
        askedTable = table;
        askedSelector = selector;
        out = location.get();
    }
    status_t sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>&, unsigned long long,
                         unsigned, unsigned long long, unsigned long long, ILineTable*) override {
        return status_NotImpl;
    }
    unsigned fileCount() override { return 0; }
    ISourceFile* fileAt(unsigned) override { return nullptr; }
    ICompUnitDetails* compUnitDetails(unsigned long long id) override {
        if (refusesMemory)
            throw std::bad_alloc();
        askedUnit = id;
        return details;
    }
    int reserved() override { return 0; }
    void noteAddress(unsigned long long address) override {
        if (refusesMemory)
            throw std::bad_alloc();
        noted.push_back(address);
    }
    ILineTable* lineTable() override { return nullptr; }

    SymMgrObjectPtr<FakeLocation> location;
    ICompUnitDetails* details = nullptr;
    bool refusesMemory = false;
    bool outWasNull = false;
    unsigned long long askedAddress = 0;
    unsigned long long askedUnit = 0;
    ILineTable* askedTable = nullptr;
    ISourceLocationSelector* askedSelector = nullptr;
    std::vector<unsigned long long> noted;
};

/// Feeds one symbol of that extent into a table.
void enterSymbol(IFileFormatLoader& loader, ISymbolTable* sink, const char* name, unsigned long long low,
                 unsigned long long high) {
    Scope* scope =
        createSymbolScope(loader, name, low, sink->scope(), symbol_visibility_global, symbol_kind_function);
    scope->addRange(low, high);
    sink->addScopeRange(low, high, scope);
}

class BankTest : public OrnTest {
protected:
    BankTest() {
        FakeSegment segment;
        segment.name = "LOAD1";
        segment.rva = 0;
        segment.memorySize = segment.fileSize = 0x10000;
        loader->segments.push_back(segment);
    }

    /// A bank outside the registries, with or without a symbol file.
    SymMgrObjectPtr<ModuleSymbolBank> makeBank(IDebugInfoLoader* debugInfoLoader = nullptr) {
        return new ModuleSymbolBank(loader, debugInfoLoader, nullptr);
    }

    SymMgrObjectPtr<IAddress> at(unsigned long long pseudoAddr) {
        return new Address(loader, pseudoAddr, nullptr);
    }

    /// Texts of the trace of `call`.
    template <typename Call>
    std::vector<std::string> traceOf(const Call& call) {
        setLogLevel(traceLevel);
        takeLogs();
        call();
        setLogLevel(informationLevel);
        std::vector<std::string> texts;
        for (const LogMessage& message : takeLogs())
            if (message.level == traceLevel)
                texts.push_back(message.text);
        return texts;
    }

    SymMgrObjectPtr<FakeLoader> loader = new FakeLoader;
    SymMgrObjectPtr<FakeDebugInfoLoader> debug = new FakeDebugInfoLoader;
    SymMgrObjectPtr<FakeResolver> resolver = new FakeResolver;
};

// --- Life

TEST_F(BankTest, MakingABankReadsNothing) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank(debug);
    EXPECT_EQ(loader->reads, 0);
    EXPECT_EQ(debug->loads, 0);
    EXPECT_EQ(loader->symbolFilesAsked, 0);
}

TEST_F(BankTest, ABankKeepsItsLoadersAndLetsThemGoDebugFirst) {
    std::vector<std::string> deaths;
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank(debug);
    loader->onDestruction = [&] { deaths.push_back("format"); };
    debug->onDestruction = [&] { deaths.push_back("debug"); };
    loader = nullptr;
    debug = nullptr;
    EXPECT_THAT(deaths, IsEmpty());
    bank = nullptr;
    EXPECT_THAT(deaths, ElementsAre("debug", "format"));
}

TEST_F(BankTest, ConstructionAndDestructionAreTraced) {
    SymMgrObjectPtr<ModuleSymbolBank> bank;
    EXPECT_THAT(traceOf([&] { bank = makeBank(); }),
                ElementsAre("ENTER: ModuleSymbolBank", "EXIT:  ModuleSymbolBank"));
    EXPECT_THAT(traceOf([&] { bank = nullptr; }),
                ElementsAre("ENTER: ~ModuleSymbolBank", "EXIT:  ~ModuleSymbolBank"));
}

TEST_F(BankTest, ABankWithoutFormatLoaderIsReported) {
    expectLog("ASSERTION FAILED: 'm_ffl', at file: ");
    SymMgrObjectPtr<ModuleSymbolBank> bank = new ModuleSymbolBank(nullptr, nullptr, nullptr);
}

// --- What the module is

TEST_F(BankTest, TheModuleAnswersForItself) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    EXPECT_STREQ(bank->execFileName(), "/fake/module");
    EXPECT_EQ(bank->execFileFormat(), exec_format_elf);
    EXPECT_EQ(bank->architecture(), arch_arm);
    EXPECT_EQ(bank->preferredLoadAddress(), imageBase);
    EXPECT_EQ(bank->imageSize(), 0x5000u);
}

TEST_F(BankTest, WithoutASymbolFileTheModuleIsItsOwn) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    EXPECT_STREQ(bank->symFileName(), bank->execFileName());
    EXPECT_EQ(bank->symFileFormat(), 0u);
}

TEST_F(BankTest, TheSymbolFileHasItsOwnNameAndFormat) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank(debug);
    EXPECT_STREQ(bank->symFileName(), "/fake/module.debug");
    EXPECT_EQ(bank->symFileFormat(), 1u);
}

TEST_F(BankTest, TheEntryPointIsAnAddress) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<IAddress> entry = bank->entryPoint();
    ASSERT_TRUE(entry != nullptr);
    EXPECT_EQ(entry->pseudoAddr(), 0x400010u);
}

TEST_F(BankTest, AnEntryPointOutsideTheModuleIsNull) {
    loader->entryPoint = 0x10;
    EXPECT_TRUE(makeBank()->entryPoint() == nullptr);
}

TEST_F(BankTest, AnEntryPointWithoutMemoryIsNull) {
    expectLog("Out of memory");
    loader->onAddress = [](SymMgrObjectPtr<IAddress>&, unsigned long long) -> status_t {
        throw std::bad_alloc();
    };
    EXPECT_TRUE(makeBank()->entryPoint() == nullptr);
}

TEST_F(BankTest, OnlyPEModulesHaveTraits) {
    unsigned traits = 99;
    EXPECT_EQ(makeBank()->moduleTraits(traits), status_Ok);
    EXPECT_EQ(traits, 0u);
}

// --- Places without an answer

TEST_F(BankTest, TheReservedQueryIsNotImplementedAndNotTraced) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    EXPECT_THAT(traceOf([&] { EXPECT_EQ(bank->reservedQuery(), status_NotImpl); }), IsEmpty());
}

TEST_F(BankTest, SourceFilesByNameAreNotImplementedWhateverTheArguments) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    EXPECT_EQ(bank->sourceFileByName(1, "a.c", 2.0), status_NotImpl);
    EXPECT_THAT(traceOf([&] { EXPECT_EQ(bank->sourceFileByName("a.c"), status_NotImpl); }),
                ElementsAre("ENTER: sourceFileByName", "EXIT:  sourceFileByName"));
}

TEST_F(BankTest, OptimisationReportsAreNotTraced) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<IIterator<IOptReportEntry*>> reports;
    IOptReportEntry* report = nullptr;
    EXPECT_THAT(traceOf([&] {
                    EXPECT_EQ(bank->optReports(reports, nullptr, 0), status_False);
                    EXPECT_EQ(bank->optReportAt(nullptr, report), status_False);
                }),
                IsEmpty());
}

// --- Symbols

TEST_F(BankTest, ANullAddressIsAnInvalidArgumentAndLoadsNothing) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank(debug);
    SymMgrObjectPtr<ISymbolRange> range;
    EXPECT_EQ(bank->symbolRangeByAddress(nullptr, range, symbol_kind_all, nullptr), status_InvalidArg);
    EXPECT_EQ(loader->reads, 0);
    EXPECT_EQ(debug->loads, 0);
}

TEST_F(BankTest, ANullAddressIsTracedWithoutAnArgument) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<ISymbolRange> range;
    SymMgrObjectPtr<ISourceLocation> location;
    const auto trace = traceOf([&] {
        EXPECT_EQ(bank->symbolRangeByAddress(nullptr, range, symbol_kind_all, nullptr), status_InvalidArg);
        EXPECT_EQ(bank->sourceLocationByAddress(nullptr, location, 0, nullptr), status_InvalidArg);
    });
    EXPECT_THAT(trace, ElementsAre("ENTER: symbolRangeByAddress", "EXIT:  symbolRangeByAddress",
                                   "ENTER: sourceLocationByAddress", "EXIT:  sourceLocationByAddress"));
}

TEST_F(BankTest, AModuleWithoutDebugInformationAnswersWithItsFormatsSymbols) {
    loader->onRead = [this](ISymbolTable* sink, symbol_kind_t) {
        enterSymbol(*loader, sink, "main", 0x401000, 0x401020);
        return status_Ok;
    };
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<ISymbolRange> range;
    ASSERT_EQ(bank->symbolRangeByAddress(at(0x401010), range, symbol_kind_function, nullptr), status_Ok);
    EXPECT_STREQ(range->symbol()->rawName(), "main");
    EXPECT_EQ(loader->kindsRead, symbol_kind_function);
}

TEST_F(BankTest, ASearchThatFindsNothingIsFalse) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank(debug);
    SymMgrObjectPtr<ISymbolRange> range;
    EXPECT_EQ(bank->symbolRangeByAddress(at(0x401010), range, symbol_kind_function, nullptr), status_False);
    EXPECT_TRUE(range == nullptr);
}

TEST_F(BankTest, KindsThatAreLoadedTouchNoLoader) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank(debug);
    SymMgrObjectPtr<ISymbolRange> range;
    (void)bank->symbolRangeByAddress(at(0x401010), range, symbol_kind_code, nullptr);
    (void)bank->symbolRangeByAddress(at(0x401010), range, symbol_kind_function, nullptr);
    EXPECT_EQ(loader->reads, 1);
    EXPECT_EQ(debug->loads, 1);
}

TEST_F(BankTest, AFailingLoadIsReportedOnceAndNotRepeated) {
    loader->readStatus = status_CantReadFile;
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank(debug);
    SymMgrObjectPtr<ISymbolRange> range;
    EXPECT_EQ(bank->symbolRangeByAddress(at(0x401010), range, symbol_kind_function, nullptr),
              status_CantReadFile);
    EXPECT_EQ(bank->symbolRangeByAddress(at(0x401010), range, symbol_kind_function, nullptr), status_False);
    EXPECT_EQ(loader->reads, 1);
}

TEST_F(BankTest, CorruptDebugInformationLeavesTheFormatsSymbols) {
    debug->loadStatus = status_BadDebugInfo;
    loader->onRead = [this](ISymbolTable* sink, symbol_kind_t) {
        enterSymbol(*loader, sink, "main", 0x401000, 0x401020);
        return status_Ok;
    };
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank(debug);
    SymMgrObjectPtr<ISymbolRange> range;
    EXPECT_EQ(bank->symbolRangeByAddress(at(0x401010), range, symbol_kind_function, nullptr),
              status_BadDebugInfo);
    ASSERT_EQ(bank->symbolRangeByAddress(at(0x401010), range, symbol_kind_function, nullptr), status_Ok);
    EXPECT_STREQ(range->symbol()->rawName(), "main");
}

TEST_F(BankTest, DebugInformationWithoutMemoryLeavesTheFormatsSymbols) {
    expectLog("Out of memory");
    debug->onLoad = [](ISymbolTable*, symbol_kind_t) -> status_t { throw std::bad_alloc(); };
    loader->onRead = [this](ISymbolTable* sink, symbol_kind_t) {
        enterSymbol(*loader, sink, "main", 0x401000, 0x401020);
        return status_Ok;
    };
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank(debug);
    SymMgrObjectPtr<ISymbolRange> range;
    EXPECT_EQ(bank->symbolRangeByAddress(at(0x401010), range, symbol_kind_function, nullptr),
              status_OutOfMemory);
    ASSERT_EQ(bank->symbolRangeByAddress(at(0x401010), range, symbol_kind_function, nullptr), status_Ok);
    EXPECT_STREQ(range->symbol()->rawName(), "main");
}

TEST_F(BankTest, TheLineResolverIsMadeWithTheLockThatALoadHolds) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank(debug);
    ASSERT_TRUE(debug->lentLock);
    std::atomic<bool> isLockFree = false;
    std::thread other;
    loader->onRead = [&](ISymbolTable*, symbol_kind_t) {
        other = std::thread([&] {
            ScopedLock guard(debug->lentLock);
            isLockFree = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        EXPECT_FALSE(isLockFree);
        return status_Ok;
    };
    SymMgrObjectPtr<ISymbolRange> range;
    EXPECT_EQ(bank->symbolRangeByAddress(at(0x401010), range, symbol_kind_function, nullptr), status_False);
    other.join();
    EXPECT_TRUE(isLockFree);
}

TEST_F(BankTest, ManyThreadsMayBeTheFirstToAskInsideASymbol) {
    loader->onRead = [this](ISymbolTable* sink, symbol_kind_t) {
        enterSymbol(*loader, sink, "main", 0x401000, 0x401020);
        return status_Ok;
    };
    for (int round = 0; round < 20; ++round) {
        SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
        std::atomic<int> waiting = 4;
        std::vector<std::thread> threads;
        for (int number = 0; number < 4; ++number)
            threads.emplace_back([&] {
                const SymMgrObjectPtr<IAddress> address = at(0x401010);
                SymMgrObjectPtr<ISymbolRange> range;
                const status_t status =
                    bank->symbolRangeByAddress(address, range, symbol_kind_function, nullptr);
                --waiting;
                while (waiting > 0)
                    std::this_thread::yield();
                ASSERT_EQ(status, status_Ok);
                SymMgrObjectPtr<ISymbolRange> nested;
                range->nestedRangeByAddress(nested, address);
                range->nestedRangeByAddress(nested, address);
                EXPECT_FALSE(nested);
            });
        for (std::thread& thread : threads)
            thread.join();
    }
}

TEST_F(BankTest, ALoadWithoutMemoryIsReported) {
    expectLog("Out of memory");
    loader->onRead = [](ISymbolTable*, symbol_kind_t) -> status_t { throw std::bad_alloc(); };
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<ISymbolRange> range;
    EXPECT_EQ(bank->symbolRangeByAddress(at(0x401010), range, symbol_kind_function, nullptr),
              status_OutOfMemory);
}

TEST_F(BankTest, NullLimitsWalkTheWholeModule) {
    loader->onRead = [this](ISymbolTable* sink, symbol_kind_t) {
        enterSymbol(*loader, sink, "first", 0x401000, 0x401020);
        enterSymbol(*loader, sink, "last", 0x402000, 0x402020);
        return status_Ok;
    };
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<RangeIterator> ranges;
    ASSERT_EQ(bank->originalSymbolRanges(ranges, symbol_kind_function, nullptr, nullptr), status_Ok);
    EXPECT_STREQ(ranges->current()->symbol()->rawName(), "first");
    EXPECT_TRUE(ranges->next());
    EXPECT_STREQ(ranges->current()->symbol()->rawName(), "last");
    EXPECT_FALSE(ranges->next());

    SymMgrObjectPtr<RangeIterator> pieces;
    ASSERT_EQ(bank->nonOverlappedSymbolRanges(pieces, symbol_kind_function, nullptr, nullptr, nullptr),
              status_Ok);
    EXPECT_STREQ(pieces->current()->symbol()->rawName(), "first");
}

TEST_F(BankTest, LimitsAreAddresses) {
    loader->onRead = [this](ISymbolTable* sink, symbol_kind_t) {
        enterSymbol(*loader, sink, "first", 0x401000, 0x401020);
        enterSymbol(*loader, sink, "last", 0x402000, 0x402020);
        return status_Ok;
    };
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<RangeIterator> ranges;
    ASSERT_EQ(bank->originalSymbolRanges(ranges, symbol_kind_function, at(0x401800), at(0x403000)),
              status_Ok);
    EXPECT_STREQ(ranges->current()->symbol()->rawName(), "last");
    EXPECT_FALSE(ranges->next());
}

TEST_F(BankTest, LimitsAreTracedAsTheyAreUsed) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<RangeIterator> ranges;
    EXPECT_THAT(
        traceOf([&] { (void)bank->originalSymbolRanges(ranges, symbol_kind_function, nullptr, nullptr); }),
        ElementsAre("ENTER: originalSymbolRanges", "originalSymbolRanges: [IN] beginPseudoAddr = 0",
                    "originalSymbolRanges: [IN] endPseudoAddr = 18446744073709551615",
                    "EXIT:  originalSymbolRanges"));
    EXPECT_THAT(
        traceOf([&] {
            (void)bank->nonOverlappedSymbolRanges(ranges, symbol_kind_function, at(16), at(32), nullptr);
        }),
        ElementsAre(
            "ENTER: nonOverlappedSymbolRanges", "nonOverlappedSymbolRanges: [IN] beginPseudoAddr = 16",
            "nonOverlappedSymbolRanges: [IN] endPseudoAddr = 32", "EXIT:  nonOverlappedSymbolRanges"));
}

// --- Announced addresses

TEST_F(BankTest, AnAnnouncedAddressMakesTheNextQueryReadAgainAndTheTableKeepsWhatItHas) {
    loader->onRead = [this](ISymbolTable* sink, symbol_kind_t) {
        if (loader->reads == 1)
            enterSymbol(*loader, sink, "main", 0x401000, 0x401020);
        return status_Ok;
    };
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<ISymbolRange> range;
    EXPECT_EQ(bank->symbolRangeByAddress(at(0x401010), range, symbol_kind_function, nullptr), status_Ok);
    EXPECT_EQ(bank->putPseudoAddress(0x401010), status_False);
    range = nullptr;
    EXPECT_EQ(bank->symbolRangeByAddress(at(0x401010), range, symbol_kind_function, nullptr), status_Ok);
    EXPECT_EQ(loader->reads, 2);
}

TEST_F(BankTest, AnAnnouncedRvaIsThatOfTheSamePseudoAddress) {
    debug->lineResolver = resolver.get();
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank(debug);
    EXPECT_EQ(bank->prefetcher()->putRVA(0x1010), status_False);
    EXPECT_EQ(bank->prefetcher()->putPseudoAddress(bank->preferredLoadAddress() + 0x1010), status_False);
    EXPECT_THAT(resolver->noted, ElementsAre(0x401010, 0x401010));
}

TEST_F(BankTest, AnnouncementsAreTraced) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    EXPECT_THAT(traceOf([&] { (void)bank->putRVA(16); }),
                ElementsAre("ENTER: putRVA", "putRVA: [IN] rva = 16", "ENTER: putPseudoAddress",
                            "putPseudoAddress: [IN] pseudoAddr = 4194320", "EXIT:  putPseudoAddress",
                            "EXIT:  putRVA"));
}

TEST_F(BankTest, AnAnnouncementWithoutMemoryIsReported) {
    expectLog("Out of memory");
    debug->lineResolver = resolver.get();
    resolver->refusesMemory = true;
    EXPECT_EQ(makeBank(debug)->putPseudoAddress(0x401010), status_OutOfMemory);
}

// --- Lines and units

TEST_F(BankTest, WithoutALineResolverThereAreNoLinesAndNoUnits) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank(debug);
    SymMgrObjectPtr<ISourceLocation> location;
    ICompUnitDetails* details = nullptr;
    EXPECT_EQ(bank->sourceLocationByAddress(at(0x401010), location, 0, nullptr), status_False);
    EXPECT_EQ(bank->compUnitDetailsById(0, details), status_False);
}

TEST_F(BankTest, TheLineResolverIsAskedForTheUnitInTheFlagsWithTheSelectorInTheContext) {
    debug->lineResolver = resolver.get();
    resolver->location = new FakeLocation;
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank(debug);
    SymMgrObjectPtr<ISourceLocation> location = new FakeLocation;
    int selector = 0;
    EXPECT_EQ(bank->sourceLocationByAddress(at(0x401010), location, 17, &selector), status_Ok);
    EXPECT_EQ(location.get(), resolver->location.get());
    EXPECT_EQ(resolver->askedAddress, 0x401010u);
    EXPECT_EQ(resolver->askedUnit, 17u);
    EXPECT_EQ(resolver->askedTable, nullptr);
    EXPECT_EQ(static_cast<void*>(resolver->askedSelector), static_cast<void*>(&selector));
    EXPECT_TRUE(resolver->outWasNull);
}

TEST_F(BankTest, NoLocationIsFalseAndNull) {
    debug->lineResolver = resolver.get();
    SymMgrObjectPtr<ISourceLocation> location = new FakeLocation;
    EXPECT_EQ(makeBank(debug)->sourceLocationByAddress(at(0x401010), location, 0, nullptr), status_False);
    EXPECT_TRUE(location == nullptr);
}

TEST_F(BankTest, TheAddressOfALocationIsTraced) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<ISourceLocation> location;
    EXPECT_THAT(traceOf([&] { (void)bank->sourceLocationByAddress(at(16), location, 0, nullptr); }),
                ElementsAre("ENTER: sourceLocationByAddress",
                            "sourceLocationByAddress: [IN] addr->pseudoAddr() = 16",
                            "EXIT:  sourceLocationByAddress"));
}

TEST_F(BankTest, ALocationOrUnitWithoutMemoryIsReported) {
    expectLog("Out of memory", 2);
    debug->lineResolver = resolver.get();
    resolver->refusesMemory = true;
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank(debug);
    SymMgrObjectPtr<ISourceLocation> location;
    ICompUnitDetails* details = nullptr;
    EXPECT_EQ(bank->sourceLocationByAddress(at(0x401010), location, 0, nullptr), status_OutOfMemory);
    EXPECT_EQ(bank->compUnitDetailsById(0, details), status_OutOfMemory);
}

TEST_F(BankTest, UnitsComeFromTheLineResolver) {
    debug->lineResolver = resolver.get();
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank(debug);
    int stand = 0;
    ICompUnitDetails* details = reinterpret_cast<ICompUnitDetails*>(&stand);
    EXPECT_EQ(bank->compUnitDetailsById(5, details), status_False);
    EXPECT_EQ(details, nullptr);
    resolver->details = reinterpret_cast<ICompUnitDetails*>(&stand);
    EXPECT_EQ(bank->compUnitDetailsById(6, details), status_Ok);
    EXPECT_EQ(details, resolver->details);
    EXPECT_EQ(resolver->askedUnit, 6u);
}

// --- Sections and segments

TEST_F(BankTest, ASectionIsFoundByName) {
    loader->section = new FakeSection;
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<ISection> section;
    EXPECT_EQ(bank->sectionByName(".text", section), status_Ok);
    EXPECT_EQ(section.get(), loader->section.get());
}

TEST_F(BankTest, AnUnknownSectionIsFalseAndNull) {
    SymMgrObjectPtr<ISection> section = new FakeSection;
    EXPECT_EQ(makeBank()->sectionByName(".nowhere", section), status_False);
    EXPECT_TRUE(section == nullptr);
}

TEST_F(BankTest, ANullNameIsAnInvalidArgument) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<ISection> section;
    ISegment* segment = nullptr;
    EXPECT_EQ(bank->sectionByName(nullptr, section), status_InvalidArg);
    EXPECT_EQ(bank->segmentByName(nullptr, segment), status_InvalidArg);
}

TEST_F(BankTest, SegmentsAreIterated) {
    SymMgrObjectPtr<IIterator<ISegment*>> segments;
    ASSERT_EQ(makeBank()->segments(segments), status_Ok);
    EXPECT_EQ(segments->current(), &loader->segments.front());
}

TEST_F(BankTest, AModuleWithoutSegmentsIsAFailure) {
    loader->segments.clear();
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<IIterator<ISegment*>> segments;
    EXPECT_EQ(bank->segments(segments), status_Fail);
    loader->hasSegmentIterator = false;
    EXPECT_EQ(bank->segments(segments), status_Fail);
    EXPECT_TRUE(segments == nullptr);
}

TEST_F(BankTest, AnUnknownSegmentIsOkAndNull) {
    ISegment* segment = &loader->segments.front();
    EXPECT_EQ(makeBank()->segmentByName("nowhere", segment), status_Ok);
    EXPECT_EQ(segment, nullptr);
}

TEST_F(BankTest, ASegmentIsFoundByName) {
    ISegment* segment = nullptr;
    EXPECT_EQ(makeBank()->segmentByName("LOAD1", segment), status_Ok);
    EXPECT_EQ(segment, &loader->segments.front());
}

// --- Addresses

TEST_F(BankTest, TheRvaZeroIsThePreferredLoadAddress) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<IAddress> address;
    ASSERT_EQ(bank->addressFromRVA(0, address), status_Ok);
    EXPECT_EQ(address->pseudoAddr(), bank->preferredLoadAddress());
    EXPECT_EQ(address->rva(), 0u);
}

TEST_F(BankTest, AnAddressOutsideTheModuleFails) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<IAddress> address;
    EXPECT_EQ(bank->addressFromRVA(0x900000, address), status_Fail);
    EXPECT_EQ(bank->addressFromPseudoAddress(0x10, address), status_Fail);
    EXPECT_TRUE(address == nullptr);
}

TEST_F(BankTest, AddressesComeFromEveryAddressSpace) {
    loader->segments.front().rva = 0x1000;
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<IAddress> address;
    ASSERT_EQ(bank->addressFromPseudoAddress(0x401010, address), status_Ok);
    EXPECT_EQ(address->pseudoAddr(), 0x401010u);
    ASSERT_EQ(bank->addressFromRVA(0x1020, address), status_Ok);
    EXPECT_EQ(address->pseudoAddr(), 0x401020u);
    ASSERT_EQ(bank->addressFromSegmentOffset(&loader->segments.front(), 0x30, address), status_Ok);
    EXPECT_EQ(address->pseudoAddr(), 0x401030u);
    loader->onAddress = [this](SymMgrObjectPtr<IAddress>& out, unsigned long long pseudoAddr) {
        out = at(pseudoAddr);
        return status_Ok;
    };
    ASSERT_EQ(bank->addressFromFileOffset(0x40, address), status_Ok);
    EXPECT_EQ(address->pseudoAddr(), 0x100040u);
}

TEST_F(BankTest, ANullSegmentIsAnInvalidArgument) {
    SymMgrObjectPtr<IAddress> address;
    EXPECT_EQ(makeBank()->addressFromSegmentOffset(nullptr, 0, address), status_InvalidArg);
}

TEST_F(BankTest, AnAddressWithoutMemoryIsReported) {
    expectLog("Out of memory", 4);
    loader->onAddress = [](SymMgrObjectPtr<IAddress>&, unsigned long long) -> status_t {
        throw std::bad_alloc();
    };
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<IAddress> address;
    EXPECT_EQ(bank->addressFromRVA(0, address), status_OutOfMemory);
    EXPECT_EQ(bank->addressFromPseudoAddress(0, address), status_OutOfMemory);
    EXPECT_EQ(bank->addressFromSegmentOffset(&loader->segments.front(), 0, address), status_OutOfMemory);
    EXPECT_EQ(bank->addressFromFileOffset(0, address), status_OutOfMemory);
}

// --- The rest

TEST_F(BankTest, TheEstimateIsEightTimesTheSymbolFile) {
    const orn_test::TempDir directory;
    loader->path = directory.write("module", std::string(100, 'm'));
    debug->path = directory.write("module.debug", std::string(300, 'd'));
    EXPECT_EQ(makeBank(debug)->memoryEstimate(), 2400u);
    EXPECT_EQ(makeBank()->memoryEstimate(), 800u);
}

TEST_F(BankTest, TheEstimateOfAnEmptyOrMissingSymbolFileIsThatOfTheModule) {
    const orn_test::TempDir directory;
    loader->path = directory.write("module", std::string(100, 'm'));
    debug->path = directory.write("module.debug", "");
    EXPECT_EQ(makeBank(debug)->memoryEstimate(), 800u);
    debug->path = directory.path("nowhere");
    EXPECT_EQ(makeBank(debug)->memoryEstimate(), 800u);
}

TEST_F(BankTest, ThePrefetcherIsTheBankItself) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    EXPECT_EQ(bank->prefetcher(), static_cast<IPrefetcher*>(bank.get()));
}

TEST_F(BankTest, WithoutASymbolFileThereAreNoStackVariables) {
    SymMgrObjectPtr<ISymbol> variable;
    bool isMember = false;
    EXPECT_EQ(makeBank()->findStackVariable(at(0x401010), 0, nullptr, variable, &isMember), status_False);
    EXPECT_EQ(loader->reads, 0);
}

TEST_F(BankTest, TheStackVariableIsAskedOfTheFunctionAtTheAddress) {
    loader->onRead = [this](ISymbolTable* sink, symbol_kind_t) {
        enterSymbol(*loader, sink, "main", 0x401000, 0x401020);
        return status_Ok;
    };
    SymMgrObjectPtr<IAddress> address = at(0x401010);
    auto* context = reinterpret_cast<IStackFrameContext*>(&address);
    SymMgrObjectPtr<ISymbol> variable;
    bool isMember = false;
    std::string function;
    debug->onStackVariable = [&](ISymbol* symbol, IAddress* codeAddress, unsigned long long dataAddress,
                                 IStackFrameContext* frame, SymMgrObjectPtr<ISymbol>& out, bool* flag) {
        function = symbol->rawName();
        EXPECT_EQ(codeAddress, address.get());
        EXPECT_EQ(dataAddress, 0x7FF0u);
        EXPECT_EQ(frame, context);
        EXPECT_EQ(&out, &variable);
        EXPECT_EQ(flag, &isMember);
        return status_NoDebugInfo;
    };
    EXPECT_EQ(makeBank(debug)->findStackVariable(address, 0x7FF0, context, variable, &isMember),
              status_NoDebugInfo);
    EXPECT_EQ(function, "main");
    EXPECT_EQ(loader->kindsRead, symbol_kind_function);
}

TEST_F(BankTest, AStackVariableOutsideAnyFunctionIsThatSearchsAnswer) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank(debug);
    SymMgrObjectPtr<ISymbol> variable;
    EXPECT_EQ(bank->findStackVariable(at(0x401010), 0, nullptr, variable, nullptr), status_False);
    EXPECT_EQ(bank->findStackVariable(nullptr, 0, nullptr, variable, nullptr), status_InvalidArg);
}

TEST_F(BankTest, ForwardsAreTracedByTheirNamesAndConversionsAreNot) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<IAddress> address;
    SymMgrObjectPtr<ISection> section;
    SymMgrObjectPtr<IIterator<ISegment*>> segments;
    SymMgrObjectPtr<ISymbol> symbol;
    ISegment* segment = nullptr;
    ICompUnitDetails* details = nullptr;
    unsigned traits = 0;
    auto enteredBy = [this](const auto& call) {
        std::vector<std::string> entered;
        for (const std::string& text : traceOf(call))
            if (text.rfind("ENTER: ", 0) == 0)
                entered.push_back(text.substr(7));
        return entered;
    };
    EXPECT_THAT(enteredBy([&] {
                    bank->execFileName();
                    bank->symFileName();
                    bank->execFileFormat();
                    bank->symFileFormat();
                    bank->architecture();
                    bank->preferredLoadAddress();
                    bank->entryPoint();
                    bank->imageSize();
                    (void)bank->compUnitDetailsById(0, details);
                    (void)bank->sectionByName(".text", section);
                    (void)bank->segments(segments);
                    (void)bank->segmentByName("x", segment);
                    (void)bank->findStackVariable(nullptr, 0, nullptr, symbol, nullptr);
                }),
                ElementsAre("execFileName", "symFileName", "execFileFormat", "symFileFormat", "architecture",
                            "preferredLoadAddress", "entryPoint", "imageSize", "compUnitDetailsById",
                            "sectionByName", "segments", "segmentByName", "findStackVariable"));
    EXPECT_THAT(enteredBy([&] {
                    (void)bank->addressFromRVA(0, address);
                    (void)bank->addressFromPseudoAddress(0, address);
                    (void)bank->addressFromSegmentOffset(&loader->segments.front(), 0, address);
                    (void)bank->addressFromFileOffset(0, address);
                    bank->memoryEstimate();
                    bank->prefetcher();
                    (void)bank->moduleTraits(traits);
                }),
                IsEmpty());
}

TEST_F(BankTest, TheSymbolAtAnAddressIsTracedWithTheAddress) {
    SymMgrObjectPtr<ModuleSymbolBank> bank = makeBank();
    SymMgrObjectPtr<ISymbolRange> range;
    EXPECT_THAT(
        traceOf([&] { (void)bank->symbolRangeByAddress(at(16), range, symbol_kind_function, nullptr); }),
        ElementsAre("ENTER: symbolRangeByAddress", "symbolRangeByAddress: [IN] addr->pseudoAddr() = 16",
                    "EXIT:  symbolRangeByAddress"));
}

} // namespace
} // namespace ORN_3_30::test
