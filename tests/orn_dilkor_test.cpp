#include "orn_dilkor.h"

#include "support/kor_module.h"
#include "support/orn_fixture.h"

#include <filesystem>

namespace ORN_3_30::test {
namespace {

using orn_test::KorIsaAssembler;
using orn_test::LunAssembler;
using orn_test::MiraObject;
using orn_test::TavAssembler;
using Bytes = std::vector<std::uint8_t>;
using Rows = std::vector<KorRow>;
using Texts = std::vector<std::string>;

constexpr unsigned tavArch = 8;
constexpr unsigned lunArch = 10;

constexpr char tavSymbols[] = "TAV format, creating bogus symbol to continue resolving";

// --- Where generated code went

class KorMappingTest : public OrnTest {
protected:
    using Interval = std::pair<unsigned long long, unsigned long long>;

    Interval convert(unsigned long long low, unsigned long long high, status_t expected = status_Ok) {
        EXPECT_EQ(mapping->convert(low, high), expected);
        return {low, high};
    }
    void expectLowFailure(int count = 1) { expectLog("Failed to convert low function address", count); }
    void expectHighFailure(int count = 1) { expectLog("Failed to convert high function address", count); }

    SymMgrObjectPtr<KorAddressMapping> mapping = new KorAddressMapping(100);
};

} // namespace

TEST_F(KorMappingTest, AnAddressWithOneEntryBecomesItsValue) {
    mapping->addMapping(1, 0x1000);
    mapping->addMapping(5, 0x5000);
    EXPECT_EQ(convert(1, 5), Interval(0x1000, 0x5000));
}

TEST_F(KorMappingTest, AnAddressWithoutAnEntryTakesThatOfTheNextAddress) {
    mapping->addMapping(3, 0x3000);
    mapping->addMapping(9, 0x9000);
    EXPECT_EQ(convert(1, 5), Interval(0x3000, 0x9000));
}

TEST_F(KorMappingTest, AnAddressWithSeveralEntriesIsPassedOver) {
    for (const unsigned long long to : {0x10, 0x11, 0x12})
        mapping->addMapping(1, to);
    mapping->addMapping(2, 0x2000);
    mapping->addMapping(7, 0x7000);
    mapping->addMapping(7, 0x7000);
    mapping->addMapping(8, 0x8000);
    EXPECT_EQ(convert(1, 7), Interval(0x2000, 0x8000));
}

TEST_F(KorMappingTest, TheLowEndIsLookedForInFrontOfTheHighOneThatCameIn) {
    mapping->addMapping(5, 0);
    mapping->addMapping(9, 0x9000);
    EXPECT_EQ(convert(4, 6), Interval(0, 0x9000)) << "5 is in front of 6, whatever becomes of 6";
    EXPECT_EQ(convert(4, 5, status_Fail), Interval(4, 0));
    EXPECT_EQ(convert(6, 6, status_Fail), Interval(6, 0x9000));
    expectLowFailure(2);
}

TEST_F(KorMappingTest, TheHighEndIsLookedForInTheImage) {
    mapping->addMapping(1, 0x1000);
    mapping->addMapping(100, 0x9999);
    EXPECT_EQ(convert(1, 50, status_Fail), Interval(0x1000, 50));
    mapping->addMapping(99, 0x9000);
    EXPECT_EQ(convert(1, 50), Interval(0x1000, 0x9000));
    EXPECT_EQ(convert(1, 100, status_Fail), Interval(0x1000, 100));
    expectHighFailure(2);
}

TEST_F(KorMappingTest, AddressZeroIsLookedForWhateverTheLimit) {
    mapping = new KorAddressMapping(0);
    mapping->addMapping(0, 0x1000);
    EXPECT_EQ(convert(0, 0), Interval(0x1000, 0x1000));
    mapping->addMapping(0, 0x2000);
    mapping->addMapping(1, 0x3000);
    EXPECT_EQ(convert(0, 0, status_Fail), Interval(0, 0)) << "and the next address is not";
    expectLowFailure();
    expectHighFailure();
}

TEST_F(KorMappingTest, WithoutEntriesAnIntervalStays) {
    EXPECT_EQ(convert(1, 5, status_Fail), Interval(1, 5));
    EXPECT_EQ(messages(errorLevel).size(), 2u);
    expectLowFailure();
    expectHighFailure();
}

TEST_F(KorMappingTest, ManyEntriesOfTheSameAddressesTakeNoTimeToPass) {
    setLogLevel(errorLevel + 1);
    mapping = new KorAddressMapping(~0ULL);
    for (unsigned long long from = 1; from < 50000; ++from)
        for (const unsigned long long to : {1, 2})
            mapping->addMapping(from, to);
    mapping->addMapping(60000, 7);
    mapping->addMapping(60001, 9);
    for (unsigned i = 1; i < 50000; ++i)
        ASSERT_EQ(convert(i, 60001), Interval(7, 9));
}

// --- The older compiler's kernels

namespace {

class KorTavTest : public OrnTest {
protected:
    static TavAssembler twoFiles() {
        TavAssembler tav;
        tav.sourceFile("a.cl").sourceFile("b.h").kernel("k").kernel("other");
        return tav;
    }
    static TavAssembler twoLines() { return twoFiles().lines(0, {{0x10, 42, 10, 0}, {0x30, 43, 1, 1}}); }

    void open(const TavAssembler& tav, const char* kernel = "k", unsigned arch = tavArch) {
        module = std::make_unique<KorModule>(tav.build(), arch, kernel);
    }
    void open(const Bytes& bytes, unsigned arch) { module = std::make_unique<KorModule>(bytes, arch); }

    std::unique_ptr<KorModule> module;
};

} // namespace

TEST_F(KorTavTest, ARowReachesToTheNextAndTheLastToTheEndOfEverything) {
    open(twoLines());
    EXPECT_EQ(module->rows(), (Rows{{0x10, 0x20, 42, 10, "a.cl"}, {0x30, 0xffffffff, 43, 1, "b.h"}}));
}

TEST_F(KorTavTest, ASingleRowReachesToTheEndOfEverything) {
    open(twoFiles().lines(0, {{0x10, 42, 10, 0}}));
    EXPECT_EQ(module->rows(), (Rows{{0x10, 0xffffffff, 42, 10, "a.cl"}}));
}

TEST_F(KorTavTest, ATableWithoutRowsIsEmpty) {
    Bytes bytes = twoFiles().lines(0, {}).build();
    bytes.resize(bytes.size() + 12);
    open(bytes, tavArch);
    EXPECT_TRUE(module->rows().empty());
}

TEST_F(KorTavTest, SizesAreDifferencesOf32Bits) {
    open(twoFiles().lines(0, {{0x30, 1, 0, 0}, {0x10, 2, 0, 0}, {0x10, 3, 0, 1}}));
    EXPECT_EQ(
        module->rows(),
        (Rows{{0x10, 0, 2, 0, "a.cl"}, {0x30, 0xffffffe0, 1, 0, "a.cl"}, {0x10, 0xffffffff, 3, 0, "b.h"}}));
}

TEST_F(KorTavTest, ARowOfAFileThatIsNotThereIsDropped) {
    open(twoFiles().lines(0, {{0x10, 1, 0, 2}, {0x20, 2, 0, 0}, {0x30, 3, 0, 0xffffffff}}));
    EXPECT_EQ(module->rows(), (Rows{{0x20, 0x10, 2, 0, "a.cl"}})) << "and still ends the row before it";
}

TEST_F(KorTavTest, FilesOfRowsAreCountedAsIfEachNameWereNew) {
    TavAssembler tav;
    tav.sourceFile("a.cl").sourceFile("").sourceFile("a.cl").sourceFile("b.h").kernel("k");
    tav.lines(0, {{0x10, 1, 0, 0}, {0x20, 2, 0, 1}, {0x30, 3, 0, 2}, {0x40, 4, 0, 3}});
    open(tav);
    EXPECT_EQ(module->resolver().fileCount(), 2u);
    EXPECT_EQ(module->rows(), (Rows{{0x10, 0x10, 1, 0, "a.cl"}, {0x20, 0x10, 2, 0, "b.h"}}))
        << "number 1 is the empty name, and b.h is number 3";
}

TEST_F(KorTavTest, LoadingLinesLeavesTheTableAsItIs) {
    open(twoLines());
    const Rows before = module->rows();
    EXPECT_EQ(module->debug()->loadLineTable(module->resolver().lineTable()), status_Ok);
    EXPECT_EQ(module->rows(), before);
    EXPECT_EQ(messages(warningLevel).size(), 1u);
    expectLog("TAV format, don't load lines for it");
}

TEST_F(KorTavTest, QueriesFindTheRowOfAnAddress) {
    open(twoLines());
    EXPECT_EQ(module->lineAt(0xf), 0u);
    EXPECT_EQ(module->lineAt(0x10), 42u);
    EXPECT_EQ(module->lineAt(0x2f), 42u);
    EXPECT_EQ(module->lineAt(0x30), 43u);
    EXPECT_EQ(module->lineAt(0x30 + 0xfffffffeULL), 43u);
    allowLog("TAV format");
}

TEST_F(KorTavTest, AllCodeIsOneSymbol) {
    open(twoLines());
    GlobalScope& scope = module->scope();
    EXPECT_EQ(module->debug()->loadSymbols(scope.symbolTable(), nullptr, symbol_kind_function,
                                           scope.lineResolver()),
              status_Ok);
    expectLog(tavSymbols);
    EXPECT_EQ(messages(warningLevel).size(), 1u);
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
    scope.symbolTable()->symbolRanges(ranges, 0, ~0ULL, symbol_kind_all);
    ASSERT_TRUE(ranges);
    EXPECT_EQ(KorModule::textOf(*ranges->current()), ".dbginfo_kor 0x0-0x200");
    ISymbol* symbol = ranges->current()->symbol();
    EXPECT_EQ(symbol->kind(), symbol_kind_other);
    EXPECT_EQ(symbol->visibility(), symbol_visibility_local);
    SymMgrObjectPtr<IAddress> address;
    symbol->address(address);
    EXPECT_EQ(address->pseudoAddr(), 0u);
    EXPECT_FALSE(ranges->next());
}

TEST_F(KorTavTest, TheOneSymbolIsThereOnceHoweverOftenItIsLoaded) {
    open(twoLines());
    EXPECT_EQ(module->symbols(symbol_kind_function).size(), 0u);
    EXPECT_EQ(module->symbols(symbol_kind_all), (Texts{".dbginfo_kor 0x0-0x200", ".code_kor 0x0-0x200"}));
    expectLog(tavSymbols, 4);
}

TEST_F(KorTavTest, TheSymbolsSourceIsToldByTheLines) {
    open(twoFiles().lines(0, {{0, 41, 2, 1}, {0x10, 42, 10, 0}, {0x30, 43, 1, 1}}));
    allowLog("TAV format");
    SymMgrObjectPtr<ISymbolRange> range = module->rangeAt(0x20);
    ASSERT_TRUE(range);
    auto* symbol = dynamic_cast<KorSymbol*>(range->symbol());
    ASSERT_TRUE(symbol) << range->symbol()->rawName();

    SymMgrObjectPtr<ISourceLocation> location;
    EXPECT_EQ(symbol->sourceLocation(location), status_Ok);
    ASSERT_TRUE(location);
    EXPECT_EQ(location->line(), 41u);
    EXPECT_STREQ(location->file()->name(), "b.h");
    SymMgrObjectPtr<ISourceLocation> again;
    EXPECT_EQ(symbol->sourceLocation(again), status_Ok);
    EXPECT_EQ(location, again) << "it is kept";

    SymMgrObjectPtr<ISourceLine> line;
    symbol->sourceLineAt(line, module->address(0x2f));
    ASSERT_TRUE(line);
    EXPECT_EQ(KorModule::rowOf(*line), (KorRow{0x10, 0x20, 42, 10, "a.cl"}));
    symbol->sourceLineAt(line, nullptr);
    EXPECT_FALSE(line);

    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>> lines;
    symbol->sourceLines(lines, nullptr, nullptr);
    ASSERT_TRUE(lines);
    std::vector<unsigned> numbers;
    for (auto each = lines->current(); each; each = lines->next() ? lines->current() : nullptr)
        numbers.push_back(each->location()->line());
    std::sort(numbers.begin(), numbers.end());
    EXPECT_EQ(numbers, (std::vector<unsigned>{41, 42, 43})) << "of every file";
}

TEST_F(KorTavTest, ASymbolWithoutLinesHasNoSource) {
    open(twoLines());
    const SymMgrObjectPtr<KorSymbol> symbol =
        new KorSymbol(module->format, "s", 0, nullptr, symbol_visibility_local, symbol_kind_other, nullptr);
    SymMgrObjectPtr<ISourceLocation> location;
    EXPECT_EQ(symbol->sourceLocation(location), status_False);
    EXPECT_FALSE(location);
    SymMgrObjectPtr<ISourceLine> line;
    symbol->sourceLineAt(line, module->address(0x10));
    EXPECT_FALSE(line);
}

TEST_F(KorTavTest, ThereAreNoStackVariables) {
    open(twoLines());
    SymMgrObjectPtr<ISymbol> symbol;
    bool isMember = true;
    EXPECT_EQ(module->debug()->findStackVariable(nullptr, nullptr, 0, nullptr, symbol, nullptr),
              status_False);
    EXPECT_EQ(
        module->debug()->findStackVariable(nullptr, module->address(0x10), ~0ULL, nullptr, symbol, &isMember),
        status_False);
    EXPECT_FALSE(symbol);
}

TEST_F(KorTavTest, TheLineResolverIsMadeOnce) {
    open(twoLines());
    ISrcLineResolver* first = &module->resolver();
    OrnLock lock;
    EXPECT_EQ(module->debug()->getLineResolver(&module->scope(), &lock), first);
    EXPECT_EQ(module->rows().size(), 2u);
    EXPECT_EQ(module->debug()->getLineResolver(&module->scope(), nullptr), first);
    EXPECT_EQ(module->debug()->getCompilationUnit(0), nullptr);
}

TEST_F(KorTavTest, AKernelThatTheFileDoesNotHaveHasNoLinesAndNoFailures) {
    open(twoLines(), "missing");
    EXPECT_TRUE(module->rows().empty());
    EXPECT_EQ(module->lineAt(0x10), 0u);
    EXPECT_EQ(messages(errorLevel).size(), 2u);
    expectLog("Unable to obtain any info for wrong OCL kernel name missing");
    expectLog("Unable to load line info for OCL kernel missing. Result status code: "
              "\"One or more arguments are invalid\"");
    allowLog("TAV format");
}

TEST_F(KorTavTest, NoKernelNameIsAWrongOne) {
    TavAssembler tav;
    tav.kernel("").lines(0, {{0x10, 1, 0, 0}});
    open(tav, nullptr);
    EXPECT_TRUE(module->rows().empty()) << "though the file has a kernel of that name";
    expectLog("Unable to obtain any info for wrong OCL kernel name \n");
    expectLog("Unable to load line info for OCL kernel . Result status code: \"One or more");
}

TEST_F(KorTavTest, AKernelWithoutADataRecordHasNoLines) {
    open(twoLines(), "other");
    EXPECT_TRUE(module->rows().empty());
    expectLog("Unable to obtain line info for OCL kernel other. DebugInfoParser status: \"Not found\"");
    expectLog("Unable to load line info for OCL kernel other. Result status code: \"Not found\"");
    EXPECT_EQ(messages(errorLevel).size(), 2u);
}

TEST_F(KorTavTest, AFileThatCannotBeParsedHasNoLines) {
    Bytes bytes = twoLines().build();
    bytes.resize(0x30);
    open(bytes, tavArch);
    EXPECT_TRUE(module->rows().empty());
    expectLog("ASSERTION FAILED: ");
    expectLog("Unable to load line info for OCL kernel k. Result status code: \"File format is incorrect\"");
}

TEST_F(KorTavTest, AFileThatIsGoneHasNoLines) {
    open(twoLines());
    const SymMgrObjectPtr<IDebugInfoLoader> debug = module->debug();
    std::filesystem::remove(module->symbolFile);
    EXPECT_TRUE(module->rows().empty());
    EXPECT_EQ(debug->getType(), static_cast<unsigned>(symbol_file_none));
    expectLog("Unable to load line info for OCL kernel k. Result status code: \"Can't open file\"");
}

TEST_F(KorTavTest, AFileOfNoKnownFormatHasNoLines) {
    open(twoLines());
    const SymMgrObjectPtr<IDebugInfoLoader> debug = module->debug();
    module->directory.write("k.clpdb", std::string(0x100, 'x'));
    EXPECT_TRUE(module->rows().empty());
    expectLog("Unable to load line info for OCL kernel k. Result status code: \"Unspecified error\"");
}

TEST_F(KorTavTest, TheTypeIsToldByTheHeadOfTheFileAndKept) {
    const auto typeOf = [&](const Bytes& bytes, unsigned arch) {
        open(bytes, arch);
        const SymMgrObjectPtr<IDebugInfoLoader> loader =
            new KorDebugInfoLoader(module->format, module->symbolFile.c_str(), nullptr, nullptr);
        const unsigned type = loader->getType();
        std::filesystem::remove(module->symbolFile);
        EXPECT_EQ(loader->getType(), type);
        EXPECT_EQ(loader->getPath(), module->symbolFile);
        return type;
    };
    EXPECT_EQ(typeOf(twoLines().build(), 8), 6u);
    EXPECT_EQ(typeOf(twoLines().build(), 9), 6u);
    EXPECT_EQ(typeOf(twoLines().build(), 10), 7u) << "its version serves";
    EXPECT_EQ(typeOf(LunAssembler().build(), 9), 7u) << "28 bytes are too few for the older format";
    EXPECT_EQ(typeOf(LunAssembler().build(), 8), 0u);
    EXPECT_EQ(typeOf(twoLines().build(), 3), 0u);
    EXPECT_EQ(typeOf(Bytes(27), 9), 0u);
}

// --- The newer compiler's kernels

namespace {

class KorLunTest : public OrnTest {
protected:
    /// One function, 1 to 3, of which 1 is code at 16 and so on; rows 10 at 1 and 11 at 3.
    static MiraObject mira() {
        MiraObject object;
        object.rows = {{1, 10, 1, 4}, {3, 11, 2, 5}};
        object.files = {"/src/a.cl", "/src/b.h"};
        object.functions = {{"kernel_code", 1, 2}};
        return object;
    }
    static Bytes isa() {
        KorIsaAssembler stream;
        return stream.object("k", {{1, 16}, {2, 32}, {3, 48}, {4, 64}}).build();
    }
    void open(const MiraObject& object, const Bytes& stream, unsigned arch = lunArch,
              const char* kernel = "k") {
        LunAssembler lun;
        module = std::make_unique<KorModule>(lun.kernel("k", object.build(), stream).build(), arch, kernel);
    }

    std::unique_ptr<KorModule> module;
};

} // namespace

TEST_F(KorLunTest, LinesAreThoseOfMachineCode) {
    open(mira(), isa());
    EXPECT_EQ(module->rows(), (Rows{{0, 48, 10, 4, "/src/a.cl"}, {48, 0xffffffff, 11, 5, "/src/b.h"}}));
}

TEST_F(KorLunTest, FunctionsLieWhereTheirCodeWent) {
    open(mira(), isa());
    EXPECT_EQ(module->symbols(symbol_kind_function), Texts{"kernel_code 0x10-0x30"});
    EXPECT_EQ(messages(warningLevel).size(), 1u);
    expectLog("LUN format, loading symbols using DWARF flow");
}

TEST_F(KorLunTest, AFunctionThatWentNowhereKeepsItsAddresses) {
    MiraObject object = mira();
    object.functions = {{"beyond", 5, 3}};
    open(object, isa());
    EXPECT_EQ(module->symbols(symbol_kind_function), Texts{"beyond 0x5-0x8"});
    expectLog("LUN format, loading symbols using DWARF flow");
    expectLog("Failed to convert low function address");
    expectLog("Failed to convert high function address");
}

TEST_F(KorLunTest, InOneStepNoCodeIsMoved) {
    open(mira(), {});
    EXPECT_EQ(module->rows(), (Rows{{1, 2, 10, 4, "/src/a.cl"}, {3, 0xffffffff, 11, 5, "/src/b.h"}}));
    EXPECT_EQ(module->symbols(symbol_kind_function), Texts{"kernel_code 0x1-0x3"});
    allowLog("LUN format, ");
    expectLog("Failed to convert low function address");
    expectLog("Failed to convert high function address");
}

TEST_F(KorLunTest, LinesOfUnitsDoNotReachTheTable) {
    open(mira(), isa());
    const Rows before = module->rows();
    EXPECT_EQ(module->debug()->loadLineTable(module->resolver().lineTable()), status_Ok);
    expectLog("LUN format, loading lines using DWARF flow");
    EXPECT_EQ(messages(warningLevel).size(), 1u);
    EXPECT_EQ(module->rows(), before);
    ICompUnitDetails* unit = module->debug()->getCompilationUnit(0);
    ASSERT_TRUE(unit);
    EXPECT_EQ(unit->getFileId(2), 1u) << "but their files are registered";
    EXPECT_EQ(module->resolver().fileCount(), 2u);
}

TEST_F(KorLunTest, QueriesFindTheRowOfAnAddress) {
    open(mira(), isa());
    EXPECT_EQ(module->lineAt(0), 10u);
    EXPECT_EQ(module->lineAt(47), 10u);
    EXPECT_EQ(module->lineAt(48), 11u);
    expectLog("LUN format, loading lines using DWARF flow", 3);
    allowLog("LUN format, loading symbols using DWARF flow");
}

TEST_F(KorLunTest, ThereAreNoStackVariables) {
    open(mira(), isa());
    SymMgrObjectPtr<ISymbol> symbol;
    EXPECT_EQ(module->debug()->findStackVariable(nullptr, module->address(16), 0, nullptr, symbol, nullptr),
              status_False);
}

TEST_F(KorLunTest, TheArchitectureOfBothCompilersReadsTheNewerFormatToo) {
    open(mira(), isa(), 9);
    EXPECT_EQ(module->debug()->getType(), 7u);
    EXPECT_EQ(module->rows().size(), 2u);
    EXPECT_EQ(module->symbols(symbol_kind_all), (Texts{".code_kor 0x0-0x200", "kernel_code 0x10-0x30"}));
    expectLog("LUN format, loading symbols using DWARF flow");
    expectLog(tavSymbols);
}

namespace {

/// Takes the symbol file away as soon as lines were read.
class RemovingMapping : public SymMgrObject<IAddressMapping> {
public:
    explicit RemovingMapping(std::string path)
        : SymMgrObject<IAddressMapping>(nullptr), m_path(std::move(path)) {}
    status_t convert(unsigned long long&, unsigned long long&) override { return status_Fail; }
    void addMapping(unsigned long long, unsigned long long) override { std::filesystem::remove(m_path); }

private:
    std::string m_path;
};

} // namespace

TEST_F(KorLunTest, AKernelWhoseFilesCannotBeReadHasNoLines) {
    open(mira(), isa());
    const SymMgrObjectPtr<KorSrcLineResolver> resolver = new KorSrcLineResolver(
        *module->format, *module->debug(), new RemovingMapping(module->symbolFile), nullptr, nullptr);
    EXPECT_EQ(resolver->fileCount(), 0u);
    expectLog("Unable to obtain source files info for OCL kernel k. DebugInfoParser status: "
              "\"Unspecified error\"");
    expectLog("Unable to load line info for OCL kernel k. Result status code: \"Unspecified error\"");
    allowLog("Cannot read .debug_info section");
    allowLog("ASSERTION FAILED: ");
    allowLog("ELFCLASS");
}

} // namespace ORN_3_30::test
