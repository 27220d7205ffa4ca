// Facts about the symbols of compiled managed code, their resolver, and how both look through a module's
// scope.

#include "orn_oat_symbol.h"

#include "orn/symbol_manager.h"
#include "orn_scope.h"
#include "support/oat_reading.h"
#include "support/orn_fixture.h"
#include "support/temp_dir.h"

#include <cstdlib>

namespace ORN_3_30 {
namespace {

using orn_test::DexAssembler;
using orn_test::DexLines;
using orn_test::OatAssembler;
using orn_test::oatDataAddress;
using orn_test::OatReading;
using orn_test::TempDir;
using testing::ElementsAre;
using testing::IsEmpty;

using OatSymbols = test::OrnTest;
using OatResolver = test::OrnTest;
using OatModule = test::OrnTest;

using LinePtr = SymMgrObjectPtr<ISourceLine>;
using Lines = SymMgrObjectPtr<IIterator<LinePtr>>;

/// "com.acme.Foo" in Foo.java: `bar` has its lines 10 and 11 and one of Part.java, `plain` has no lines.
OatAssembler oatWithLines() {
    DexAssembler dex;
    dex.addClass("Lcom/acme/Foo;", "Foo.java");
    dex.addMethod(0, "bar", {.lines = DexLines(10).row(0, 0).row(1, 1).setFile("Part.java").row(7, 1).end()});
    dex.addMethod(0, "plain");
    OatAssembler oat(28);
    oat.addDex(dex);
    oat.record(0, 0).code["bar"] = {.size = 0x20, .nativeToDex = {{0, 0}, {8, 1}, {16, 2}}};
    return oat;
}

std::vector<unsigned> linesIn(IIterator<LinePtr>* lines) {
    std::vector<unsigned> numbers;
    for (LinePtr line = lines ? lines->current() : nullptr; line;
         line = lines->next() ? lines->current() : nullptr)
        numbers.push_back(line->location()->line());
    return numbers;
}

struct Loaded {
    explicit Loaded(const OatAssembler& oat = oatWithLines()) : reading(oat) {
        EXPECT_EQ(reading.load(), status_Ok);
    }
    ISymbol& symbol(const std::string& name) {
        return *reading.sink.find("com.acme.Foo." + name)->scope->symbol();
    }
    SymMgrObjectPtr<IAddress> at(const std::string& name, uint64_t delta) {
        return new Address(reading.format, reading.sink.find("com.acme.Foo." + name)->low + delta, nullptr);
    }

    OatReading reading;
};

TEST_F(OatSymbols, EachHasAScopeAndOneRangeOfItsOwn) {
    Loaded loaded;
    ASSERT_EQ(loaded.reading.sink.entries.size(), 2u);
    for (const auto& entry : loaded.reading.sink.entries) {
        EXPECT_EQ(entry.scope->firstLow(), entry.low);
        EXPECT_EQ(entry.scope->lastHigh(), entry.high);
        EXPECT_FALSE(entry.scope->hasManyRanges());
        SymMgrObjectPtr<IAddress> address;
        entry.scope->symbol()->address(address);
        EXPECT_EQ(address->pseudoAddr(), entry.low);
        EXPECT_NE(dynamic_cast<OATSymbolScope*>(entry.scope.get()), nullptr);
    }
    EXPECT_NE(loaded.reading.sink.entries[0].scope, loaded.reading.sink.entries[1].scope);
}

TEST_F(OatSymbols, LocationIsThatOfTheStart) {
    Loaded loaded;
    SymMgrObjectPtr<ISourceLocation> location;
    EXPECT_EQ(loaded.symbol("bar").sourceLocation(location), status_Ok);
    ASSERT_NE(location, nullptr);
    EXPECT_EQ(location->line(), 10u);
    EXPECT_STREQ(location->file()->name(), "Foo.java");
}

TEST_F(OatSymbols, LocationIsKept) {
    Loaded loaded;
    SymMgrObjectPtr<ISourceLocation> first;
    SymMgrObjectPtr<ISourceLocation> second;
    EXPECT_EQ(loaded.symbol("bar").sourceLocation(first), status_Ok);
    EXPECT_EQ(loaded.symbol("bar").sourceLocation(second), status_Ok);
    EXPECT_EQ(first, second);
}

TEST_F(OatSymbols, MissingLocationIsNoFailureAndIsAskedForAgain) {
    Loaded loaded;
    SymMgrObjectPtr<ISourceLocation> location;
    EXPECT_EQ(loaded.symbol("plain").sourceLocation(location), status_False);
    EXPECT_EQ(location, nullptr);
    loaded.reading.resolver->addLine(0, 77, 0, loaded.reading.sink.find("com.acme.Foo.plain")->low, 4);
    EXPECT_EQ(loaded.symbol("plain").sourceLocation(location), status_Ok);
    EXPECT_EQ(location->line(), 77u);
}

TEST_F(OatSymbols, LinesAreThoseOfTheWholeMethodInAllItsFiles) {
    Loaded loaded;
    Lines lines;
    loaded.symbol("bar").sourceLines(lines, nullptr, nullptr);
    EXPECT_THAT(linesIn(lines), ElementsAre(10, 11, 10, 10, 18, 10))
        << "by file; gaps go to the file named last";
    loaded.symbol("plain").sourceLines(lines, nullptr, nullptr);
    EXPECT_THAT(linesIn(lines), IsEmpty());
}

TEST_F(OatSymbols, LinesAreClipped) {
    Loaded loaded;
    Lines lines;
    loaded.symbol("bar").sourceLines(lines, loaded.at("bar", 8), loaded.at("bar", 9));
    EXPECT_THAT(linesIn(lines), ElementsAre(11));
    loaded.symbol("bar").sourceLines(lines, loaded.at("bar", 0x20), nullptr);
    EXPECT_EQ(lines, nullptr);
    loaded.symbol("bar").sourceLines(lines, nullptr, loaded.at("bar", 0));
    EXPECT_EQ(lines, nullptr);
    loaded.symbol("bar").sourceLines(lines, loaded.at("plain", 0), loaded.at("plain", 0x1000));
    EXPECT_EQ(lines, nullptr) << "no lines of others";
}

TEST_F(OatSymbols, LineAtAnAddress) {
    Loaded loaded;
    LinePtr line;
    loaded.symbol("bar").sourceLineAt(line, loaded.at("bar", 16));
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(line->location()->line(), 18u);
    EXPECT_STREQ(line->location()->file()->name(), "Part.java");
    loaded.symbol("bar").sourceLineAt(line, nullptr);
    EXPECT_EQ(line, nullptr);
    loaded.symbol("bar").sourceLineAt(line, loaded.at("plain", 0));
    EXPECT_EQ(line, nullptr);
}

TEST_F(OatSymbols, WithoutResolverThereIsNoSource) {
    OatReading reading(oatWithLines());
    OATSymbolCallBack callBack(*reading.format, reading.sink, nullptr);
    callBack("a.b", 0x1000, 0x10, symbol_visibility_local, symbol_kind_function);
    ASSERT_THAT(reading.sink.names(), ElementsAre("a.b"));
    ISymbol& symbol = *reading.sink.entries[0].scope->symbol();
    SymMgrObjectPtr<ISourceLocation> location;
    EXPECT_EQ(symbol.sourceLocation(location), status_False);
    Lines lines;
    symbol.sourceLines(lines, nullptr, nullptr);
    EXPECT_EQ(lines, nullptr);
    LinePtr line;
    SymMgrObjectPtr<IAddress> address = new Address(reading.format, 0x1000, nullptr);
    symbol.sourceLineAt(line, address);
    EXPECT_EQ(line, nullptr);
}

TEST_F(OatSymbols, NamelessOnesAreIgnored) {
    OatReading reading(oatWithLines());
    OATSymbolCallBack callBack(*reading.format, reading.sink, nullptr);
    callBack(nullptr, 0x1000, 0x10, symbol_visibility_local, symbol_kind_function);
    callBack("", 0x1000, 0x10, symbol_visibility_local, symbol_kind_function);
    EXPECT_THAT(reading.sink.names(), IsEmpty());
}

TEST_F(OatSymbols, SizeThatLeadsPastTheLastAddressEndsThere) {
    OatReading reading(oatWithLines());
    OATSymbolCallBack callBack(*reading.format, reading.sink, nullptr);
    callBack("a.b", ~0ULL - 4, 0x10, symbol_visibility_local, symbol_kind_function);
    EXPECT_EQ(reading.sink.entries[0].high, ~0ULL);
}

// --- The resolver

TEST_F(OatResolver, FileBeyondTheEndIsLogged) {
    Loaded loaded;
    EXPECT_EQ(loaded.reading.resolver->fileCount(), 2u);
    EXPECT_NE(loaded.reading.resolver->fileAt(1), nullptr);
    expectLog("Invalid source file id: 2");
    EXPECT_EQ(loaded.reading.resolver->fileAt(2), nullptr);
}

TEST_F(OatResolver, FilesAreToldByTheirExactName) {
    OatReading reading(oatWithLines());
    EXPECT_EQ(reading.resolver->findOrAddFile("A.java"), 0u);
    EXPECT_EQ(reading.resolver->findOrAddFile("a.java"), 1u);
    EXPECT_EQ(reading.resolver->findOrAddFile(""), 2u);
    EXPECT_EQ(reading.resolver->findOrAddFile("A.java"), 0u);
    EXPECT_EQ(reading.resolver->findOrAddFile(""), 2u);
}

TEST_F(OatResolver, HasNoUnits) {
    OatReading reading(oatWithLines());
    EXPECT_EQ(reading.resolver->compUnitDetails(0), nullptr);
    EXPECT_EQ(reading.resolver->reserved(), 0);
    EXPECT_NE(reading.resolver->lineTable(), nullptr);
    EXPECT_EQ(reading.resolver->fileCount(), 0u);
    reading.resolver->noteAddress(1);
}

TEST_F(OatResolver, AnswersFromAnotherTableWhereOneIsGiven) {
    Loaded loaded;
    SymMgrObjectPtr<ILineTable> other = ILineTable::create(*loaded.reading.format, *loaded.reading.resolver);
    other->addLineRange(0, 0, 99, 0, 0x10, 8, 0);
    Lines lines;
    EXPECT_EQ(loaded.reading.resolver->sourceLines(lines, 0, ~0U, 0, ~0ULL, other), status_Ok);
    EXPECT_THAT(linesIn(lines), ElementsAre(99));
}

TEST_F(OatResolver, QueriesLoadNothing) {
    OatReading reading(oatWithLines());
    Lines lines;
    EXPECT_EQ(reading.resolver->sourceLines(lines, 0, ~0U, 0, ~0ULL, nullptr), status_Ok);
    EXPECT_THAT(linesIn(lines), IsEmpty());
    EXPECT_EQ(reading.loader->version(), -1) << "nobody read the header";
}

// --- Through a bank

class EnvironmentSwitch {
public:
    EnvironmentSwitch() { ::setenv("ORN_USE_LEGACY_OAT_READER", "1", 1); }
    ~EnvironmentSwitch() { ::unsetenv("ORN_USE_LEGACY_OAT_READER"); }
};

SymMgrObjectPtr<IModuleSymbolBank> bankOf(const TempDir& directory, const OatAssembler& oat) {
    const std::vector<uint8_t> bytes = oat.module(0x4000).build();
    const std::string path = directory.write("app.oat", std::string(bytes.begin(), bytes.end()));
    SymMgrObjectPtr<ISymbolManager> manager;
    EXPECT_EQ(ISymbolManager::create(manager), status_Ok);
    SymMgrObjectPtr<IModuleSymbolBank> bank;
    EXPECT_EQ(manager->loadSymbolsFromModule(path.c_str(), nullptr, bank, arch_unknown, false, nullptr),
              status_Ok);
    return bank;
}

TEST_F(OatModule, MethodWinsOverTheSymbolAroundAllCode) {
    const TempDir directory;
    const EnvironmentSwitch on;
    const OatAssembler oat = oatWithLines();
    const auto bank = bankOf(directory, oat);
    EXPECT_EQ(bank->symFileFormat(), static_cast<unsigned>(symbol_file_oat));
    SymMgrObjectPtr<IAddress> address;
    ASSERT_EQ(bank->addressFromPseudoAddress(0x4000 + oat.codeOffset(0, 0, "bar") + 8, address), status_Ok);
    SymMgrObjectPtr<ISymbolRange> range;
    ASSERT_EQ(bank->symbolRangeByAddress(address, range, symbol_kind_all, nullptr), status_Ok);
    EXPECT_STREQ(range->symbol()->rawName(), "com.acme.Foo.bar");
    EXPECT_EQ(range->size(), 0x20u);
    SymMgrObjectPtr<ISourceLocation> location;
    ASSERT_EQ(bank->sourceLocationByAddress(address, location, 0, nullptr), status_Ok);
    EXPECT_EQ(location->line(), 11u);
    ASSERT_EQ(bank->addressFromPseudoAddress(0x4000 + oat.executableOffset(), address), status_Ok);
    ASSERT_EQ(bank->symbolRangeByAddress(address, range, symbol_kind_all, nullptr), status_Ok);
    EXPECT_STREQ(range->symbol()->rawName(), "oatexec") << "in front of the first method";
}

TEST_F(OatModule, LoadingOfFurtherKindsKeepsEachMethodOnce) {
    const TempDir directory;
    const EnvironmentSwitch on;
    const auto bank = bankOf(directory, oatWithLines());
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
    for (const symbol_kind_t kind : {symbol_kind_function, symbol_kind_label, symbol_kind_entry_point})
        static_cast<void>(bank->originalSymbolRanges(ranges, kind, nullptr, nullptr));
    ranges = nullptr;
    ASSERT_EQ(bank->originalSymbolRanges(ranges, symbol_kind_function, nullptr, nullptr), status_Ok);
    std::vector<std::string> names;
    while (auto range = ranges->current()) {
        names.emplace_back(range->symbol()->rawName());
        if (!ranges->next())
            break;
    }
    EXPECT_THAT(names, ElementsAre("com.acme.Foo.bar", "com.acme.Foo.plain"));
}

TEST_F(OatModule, AnotherBankOfTheLoadersGetsItsOwnSymbols) {
    const TempDir directory;
    const EnvironmentSwitch on;
    const OatAssembler oat = oatWithLines();
    OatReading reading(oat);
    for (int round = 0; round < 2; ++round) {
        GlobalScope scope(reading.format, reading.loader, nullptr);
        SymMgrObjectPtr<ISymbolRange> range;
        const uint64_t address = oatDataAddress + oat.codeOffset(0, 0, "bar");
        EXPECT_EQ(scope.symbolRangeByAddress(range, address, symbol_kind_function, nullptr), status_Ok);
        ASSERT_NE(range, nullptr) << round;
        Lines lines;
        range->symbol()->sourceLines(lines, nullptr, nullptr);
        EXPECT_EQ(linesIn(lines).size(), 6u) << "lines are told by the resolver, which knows the new scope";
    }
}

} // namespace
} // namespace ORN_3_30
