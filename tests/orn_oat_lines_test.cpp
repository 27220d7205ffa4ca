// Facts about the lines of compiled managed code: mapping tables, line programs, and how the two are joined.

#include "orn_oat_lines.h"

#include "orn_oat_class.h"
#include "support/command.h"
#include "support/oat_reading.h"
#include "support/orn_fixture.h"
#include "support/temp_dir.h"

#include <map>
#include <random>
#include <sstream>

namespace ORN_3_30 {
namespace {

using orn_test::ByteAssembler;
using orn_test::DexAssembler;
using orn_test::DexLines;
using orn_test::OatAssembler;
using orn_test::OatCode;
using orn_test::oatDataAddress;
using orn_test::OatMapping;
using orn_test::OatReading;
using orn_test::OatRow;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;

using OatMappingTableTest = test::OrnTest;
using OatLines = test::OrnTest;
using DexLineMachineTest = test::OrnTest;

const std::string foo = "Lcom/acme/Foo;";

// --- Mapping tables

struct TableReading {
    TableReading(const std::vector<uint8_t>& bytes, long long version = 28, uint32_t offset = 1)
        : buffer(new ByteBuffer(bytes.size() + 1)), budget(bytes.size()), table(buffer, 0x100, version) {
        buffer->data()[0] = 0xEE; // so that a table at offset 1 is the bytes
        if (!bytes.empty())
            std::memcpy(buffer->data() + 1, bytes.data(), bytes.size());
        table.setOffset(offset);
    }
    status_t read() { return table.readMappingTable(budget); }
    /// Dex pc and native offset.
    std::vector<std::pair<uint32_t, uint64_t>> entries() const {
        std::vector<std::pair<uint32_t, uint64_t>> entries;
        for (const auto& [dex, range] : table.map()) {
            EXPECT_EQ(range.end, range.start + 1);
            entries.emplace_back(dex, range.start);
        }
        return entries;
    }

    SymMgrObjectPtr<IBuffer> buffer;
    OatBudget budget;
    OatMappingTable table;
};

using Entries = std::vector<std::pair<uint32_t, uint64_t>>;

TEST_F(OatMappingTableTest, BothTablesGoIntoOneMap) {
    TableReading reading({4, 1, 0x10, 2, 0x20, 5, 0x30, 1, 0x08, 0x7F});
    EXPECT_EQ(reading.read(), status_Ok);
    EXPECT_EQ(reading.entries(), (Entries{{2, 0x110}, {5, 0x120}, {6, 0x150}}))
        << "each table starts anew from the code offset and dex pc 0, and 5 comes twice";
}

TEST_F(OatMappingTableTest, FirstEntryOfADexPcStays) {
    TableReading reading({3, 2, 0x10, 2, 0x10, 0, 0x40, 2});
    EXPECT_EQ(reading.read(), status_Ok);
    EXPECT_EQ(reading.entries(), (Entries{{2, 0x110}}));
}

TEST_F(OatMappingTableTest, DexDeltasAreSignedButInVersion7) {
    const std::vector<uint8_t> bytes{2, 2, 4, 0x20, 4, 0x7E};
    TableReading version7(bytes, 7);
    EXPECT_EQ(version7.read(), status_Ok);
    EXPECT_EQ(version7.entries(), (Entries{{0x20, 0x104}, {0x9E, 0x108}}));
    TableReading version14(bytes, 14);
    EXPECT_EQ(version14.read(), status_Ok);
    EXPECT_EQ(version14.entries(), (Entries{{0x1E, 0x108}, {0x20, 0x104}}));
}

TEST_F(OatMappingTableTest, TableIsReadOnce) {
    TableReading reading({1, 1, 4, 8});
    EXPECT_EQ(reading.read(), status_Ok);
    takeLogs();
    reading.buffer->data()[1] = 0x7F;
    EXPECT_EQ(reading.read(), status_Ok);
    EXPECT_EQ(reading.entries().size(), 1u);
    EXPECT_THAT(messages(test::informationLevel), IsEmpty());
}

TEST_F(OatMappingTableTest, ReadingIsTold) {
    TableReading reading({3, 2, 0x10, 2, 0x20, 5, 0x0A, 4});
    EXPECT_EQ(reading.read(), status_Ok);
    EXPECT_THAT(messages(test::informationLevel),
                ElementsAre("Reading dex to native mapping table ...", "Mapping table size: 3",
                            "Native to dex table size: 2", "Dex to native table size: 1",
                            "     nativeToDex map: 0x0110 - 0x02", "     nativeToDex map: 0x0130 - 0x07",
                            "     nativeToDex map: 0x010a - 0x04"));
}

TEST_F(OatMappingTableTest, MissingTableIsNoFailure) {
    TableReading reading({1, 1, 4, 8}, 28, 0);
    EXPECT_EQ(reading.read(), status_False);
    EXPECT_EQ(reading.read(), status_Ok) << "it counts as read";
    OatBudget budget(0);
    OatMappingTable withoutBuffer(nullptr, 0, 28);
    withoutBuffer.setOffset(1);
    EXPECT_EQ(withoutBuffer.readMappingTable(budget), status_False);
}

TEST_F(OatMappingTableTest, EveryCutOffTableIsRefused) {
    const std::vector<uint8_t> whole{4, 1, 0x10, 2, 0x20, 5, 0x30, 1, 0x08, 0x7F};
    for (size_t size = 0; size < whole.size(); ++size) {
        TableReading reading({whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size)});
        EXPECT_EQ(reading.read(), status_BadFileFormat) << size;
        EXPECT_EQ(reading.entries().size(), size < 4 ? 0u : (size - 2) / 2) << "what was read stays";
    }
    TableReading past(whole, 28, 11);
    EXPECT_EQ(past.read(), status_BadFileFormat);
    TableReading farPast(whole, 28, 0xFFFFFFFF);
    EXPECT_EQ(farPast.read(), status_BadFileFormat);
}

TEST_F(OatMappingTableTest, FirstTableLargerThanBothIsLogged) {
    TableReading reading({1, 2, 4, 8, 4, 8});
    expectLog("ASSERTION FAILED");
    EXPECT_EQ(reading.read(), status_BadFileFormat);
    EXPECT_THAT(reading.entries(), IsEmpty());
}

// --- Joining

/// A method of one class, with lines and code; the code's address is 0 in what the tests compare.
struct Method {
    explicit Method(DexLines lines, OatCode code = {}, int version = 28,
                    std::optional<std::string> sourceFile = "Foo.java")
        : oat(version), thumb(code.isThumb ? 1 : 0) {
        dex.addClass(foo, std::move(sourceFile));
        dex.addMethod(0, "bar", {.instructionUnits = 200, .lines = std::move(lines)});
        oat.addDex(dex);
        oat.record(0, 0).code["bar"] = std::move(code);
    }

    uint64_t address() const { return oatDataAddress + oat.codeOffset(0, 0, "bar") + thumb; }
    std::vector<OatRow> rows(status_t expected = status_Ok) {
        return rows(oat.build(), oat.executableOffset(), expected);
    }
    std::vector<OatRow> rows(const std::vector<uint8_t>& bytes, uint64_t executableOffset,
                             status_t expected = status_Ok) {
        OatReading reading(bytes, executableOffset);
        EXPECT_EQ(reading.load(), expected);
        EXPECT_THAT(reading.sink.names(), ElementsAre("com.acme.Foo.bar")) << "the symbol is there anyway";
        std::vector<OatRow> rows = reading.rows();
        for (OatRow& row : rows)
            row.address -= address();
        fileNames.clear();
        for (unsigned i = 0; i < reading.resolver->fileCount(); ++i)
            fileNames.emplace_back(reading.resolver->fileAt(i)->name());
        return rows;
    }

    DexAssembler dex;
    OatAssembler oat;
    uint64_t thumb;
    std::vector<std::string> fileNames;
};

using Rows = std::vector<OatRow>;

TEST_F(OatLines, MethodWithAnEmptyMappingTableHasOneRangeAtItsFirstLine) {
    for (const int version : {7, 14, 28}) {
        Method method(DexLines(30).row(3, 0).row(2, 4).end(), {.size = 0x40}, version);
        EXPECT_EQ(method.rows(), (Rows{{"Foo.java", 33, 0, 0x40}})) << version;
    }
}

TEST_F(OatLines, MethodWithoutMappingTableHasOneRangeToo) {
    Method method(DexLines(30).row(0, 0).end(), {.size = 0x40, .hasMapping = false}, 15);
    EXPECT_EQ(method.rows(), (Rows{{"Foo.java", 30, 0, 0x40}}));
    Method withThumb(DexLines(30).row(0, 0).end(), {.size = 0x40, .isThumb = true, .hasMapping = false}, 28);
    EXPECT_EQ(withThumb.rows(), (Rows{{"Foo.java", 30, 0, 0x40}}));
    Method told(DexLines(30).row(0, 0).end(), {.size = 0x40, .hasMapping = false}, 28);
    expectLog("m_codeOffset > *uintCodePtr");
    EXPECT_EQ(told.rows(), (Rows{{"Foo.java", 30, 0, 0x40}}));
}

TEST_F(OatLines, MappedBytesHaveTheirLineAndGapsTheFirstOne) {
    Method method(DexLines(10).row(0, 0).row(1, 2).row(5, 3).end(),
                  {.size = 0x40, .nativeToDex = {{0, 0}, {8, 2}, {0x20, 5}}});
    EXPECT_EQ(method.rows(), (Rows{{"Foo.java", 10, 0, 1},
                                   {"Foo.java", 10, 1, 7},
                                   {"Foo.java", 11, 8, 1},
                                   {"Foo.java", 10, 9, 0x17},
                                   {"Foo.java", 16, 0x20, 1},
                                   {"Foo.java", 10, 0x21, 0x1F}}));
}

TEST_F(OatLines, ThumbCodeHasItsLinesWhereItsSymbolIs) {
    Method method(DexLines(10).row(0, 0).row(1, 2).end(),
                  {.size = 0x10, .isThumb = true, .nativeToDex = {{0, 0}, {8, 2}}});
    EXPECT_EQ(
        method.rows(),
        (Rows{
            {"Foo.java", 10, 0, 1}, {"Foo.java", 10, 1, 7}, {"Foo.java", 11, 8, 1}, {"Foo.java", 10, 9, 7}}));
}

TEST_F(OatLines, DexPcsBetweenRowsHaveTheLineOfTheRowInFront) {
    Method method(DexLines(10).row(0, 0).row(4, 6).row(4, 6).end(),
                  {.size = 0x10, .nativeToDex = {{0, 0}, {2, 3}, {4, 5}, {6, 6}, {8, 9}}});
    const Rows rows = method.rows();
    EXPECT_THAT(
        rows,
        IsSupersetOf(Rows{
            {"Foo.java", 10, 2, 1}, {"Foo.java", 10, 4, 1}, {"Foo.java", 14, 6, 1}, {"Foo.java", 14, 8, 1}}));
}

TEST_F(OatLines, DexPcsInFrontOfTheFirstRowHaveNoLineOfTheirOwn) {
    Method method(DexLines(10).row(0, 4).row(1, 2).end(), {.size = 8, .nativeToDex = {{2, 1}, {4, 4}}});
    EXPECT_EQ(method.rows(), (Rows{{"Foo.java", 10, 0, 4}, {"Foo.java", 10, 4, 1}, {"Foo.java", 10, 5, 3}}));
}

TEST_F(OatLines, DexPcsBehindTheLastRowAreLeftToTheFirstLine) {
    Method method(DexLines(10).row(0, 0).row(7, 2).end(),
                  {.size = 8, .nativeToDex = {{0, 0}, {2, 2}, {4, 3}}});
    EXPECT_THAT(method.rows(), Contains(OatRow{"Foo.java", 10, 3, 5}));
}

TEST_F(OatLines, SeveralRowsAtOneDexPcGiveTheFirstToItsCode) {
    Method method(DexLines(10).row(0, 0).row(1, 2).row(1, 0).row(1, 3).end(),
                  {.size = 0x10, .nativeToDex = {{0, 0}, {4, 2}, {8, 3}}});
    const Rows rows = method.rows();
    EXPECT_THAT(rows, Contains(OatRow{"Foo.java", 11, 4, 1}));
    EXPECT_THAT(rows, Contains(OatRow{"Foo.java", 12, 8, 1})) << "and the last one to what follows";
}

TEST_F(OatLines, RowsAreEnteredWithoutUnitColumnOrTag) {
    Method method(DexLines(10).row(0, 0).end(), {.size = 8, .nativeToDex = {{0, 0}}});
    OatReading reading(method.oat);
    EXPECT_EQ(reading.load(), status_Ok);
    SymMgrObjectPtr<ISourceLocation> location;
    reading.resolver->sourceLocationAt(location, method.address(), 0, nullptr, nullptr);
    ASSERT_NE(location, nullptr);
    EXPECT_EQ(location->symbolId(), 0u);
    EXPECT_EQ(location->column(), 0u);
    EXPECT_EQ(location->extra(), 0u);
    EXPECT_EQ(location->line(), 10u);
    std::ostringstream told;
    told << "Adding line to table: fileID=0 line=10 range: 0x" << std::hex << method.address() << " - 0x"
         << method.address() + 1;
    EXPECT_THAT(messages(test::informationLevel), Contains(told.str()));
    EXPECT_THAT(messages(test::informationLevel), Contains("     Line to dex address: 10 - 0x0"));
}

TEST_F(OatLines, LoadingAgainAddsNothing) {
    Method method(DexLines(10).row(0, 0).row(1, 2).end(), {.size = 0x10, .nativeToDex = {{0, 0}, {8, 2}}});
    OatReading reading(method.oat);
    EXPECT_EQ(reading.load(), status_Ok);
    const Rows rows = reading.rows();
    EXPECT_EQ(reading.load(), status_Ok);
    EXPECT_EQ(reading.rows(), rows);
    EXPECT_EQ(reading.resolver->fileCount(), 1u);
}

/// The two state machines on their own, over a map given by hand.
struct Joining {
    explicit Joining(OatMappingTable::Map entries)
        : method(DexLines(1).end()),
          reading(method.oat),
          map(std::move(entries)),
          context(*reading.resolver, map) {
        context.m_executableOffset = 0x1000;
        context.m_executableAddress = 0x501000;
        context.m_methodAddress = 0x501100;
        context.m_methodSize = 0x10;
        context.m_fileId = reading.resolver->findOrAddFile("Foo.java");
    }

    Method method;
    OatReading reading;
    OatMappingTable::Map map;
    MethodLineContext context;
};

TEST_F(OatLines, NativeOffsetBelowTheExecutableOffsetIsLoggedAndEntered) {
    Joining joining({{0, {0xFF0, 0xFF1}}});
    expectLog("nativeOffset >= m_execOffset");
    addLine(joining.context, 0, 7);
    EXPECT_EQ(joining.reading.rows(), (Rows{{"Foo.java", 7, 0x500FF0, 1}}));
}

TEST_F(OatLines, ContextStartsWithoutAnything) {
    Joining empty({});
    EXPECT_EQ(empty.context.m_dexPc, 0xFFFFFFFFu);
    EXPECT_EQ(empty.context.m_currentLine, 0xFFFFFFFFu);
    EXPECT_EQ(empty.context.m_firstLine, 0xFFFFFFFFu);
    Joining filled({{3, {0, 1}}});
    EXPECT_EQ(filled.context.m_dexPc, 3u);
    MethodLineContext fresh(*filled.reading.resolver, filled.map);
    EXPECT_EQ(fresh.m_fileId, 0xFFFFFFFFu);
}

TEST_F(OatLines, WithoutAFileTheStateGoesOnAndNothingIsEntered) {
    Joining joining({{0, {0x1100, 0x1101}}, {2, {0x1104, 0x1105}}});
    joining.context.m_fileId = MethodLineContext::none;
    addLine(joining.context, 0, 7);
    EXPECT_EQ(joining.context.m_firstLine, 7u);
    EXPECT_EQ(joining.context.m_currentLine, 7u);
    EXPECT_THAT(joining.context.m_covered, ElementsAre(0x501100));
    EXPECT_EQ(joining.context.m_dexPc, 2u);
    finishMethod(joining.context);
    EXPECT_THAT(joining.reading.rows(), IsEmpty());
    joining.context.m_fileId = 0;
    addLine(joining.context, 2, 8);
    finishMethod(joining.context);
    EXPECT_EQ(
        joining.reading.rows(),
        (Rows{{"Foo.java", 7, 0x501101, 3}, {"Foo.java", 8, 0x501104, 1}, {"Foo.java", 7, 0x501105, 11}}))
        << "what was covered before the file was known stays covered";
}

TEST_F(OatLines, MethodWithoutARowIsNotFilled) {
    Joining joining({});
    finishMethod(joining.context);
    EXPECT_THAT(joining.reading.rows(), IsEmpty());
}

TEST_F(OatLines, GapsRunFromOneCoveredAddressToTheNextWhereverTheyLie) {
    Joining joining({{0, {0x10F0, 0x10F1}}, {1, {0x1120, 0x1121}}});
    addLine(joining.context, 0, 7);
    addLine(joining.context, 1, 8);
    finishMethod(joining.context);
    EXPECT_EQ(joining.reading.rows(), (Rows{{"Foo.java", 7, 0x5010F0, 1},
                                            {"Foo.java", 7, 0x5010F1, 0x1F},
                                            {"Foo.java", 7, 0x501111, 0xF},
                                            {"Foo.java", 8, 0x501120, 1}}));
}

// --- The line machine

TEST_F(DexLineMachineTest, LeastSpecialOpcodeGoesBackFourLinesAtTheSameAddress) {
    Method method(DexLines(30).raw({10}).end(), {.size = 8, .nativeToDex = {{0, 0}}});
    EXPECT_THAT(method.rows(), Contains(OatRow{"Foo.java", 26, 0, 1}));
}

TEST_F(DexLineMachineTest, SpecialOpcodesMoveBoth) {
    Method method(DexLines(30).raw({10 + 2 * 15 + 14}).raw({0xFF}).end(),
                  {.size = 0x20, .nativeToDex = {{4, 2}, {8, 18}}});
    const Rows rows = method.rows();
    EXPECT_THAT(rows, Contains(OatRow{"Foo.java", 40, 4, 1}));
    EXPECT_THAT(rows, Contains(OatRow{"Foo.java", 41, 8, 1})) << "245 is 16 * 15 + 5";
}

TEST_F(DexLineMachineTest, AddressAndLineAdvance) {
    Method method(
        DexLines(30).row(0, 0).advancePc(100).advanceLine(-7).row(0, 0).advanceLine(1000).row(0, 1).end(),
        {.size = 0x20, .nativeToDex = {{4, 100}, {8, 101}}});
    const Rows rows = method.rows();
    EXPECT_THAT(rows, Contains(OatRow{"Foo.java", 23, 4, 1}));
    EXPECT_THAT(rows, Contains(OatRow{"Foo.java", 1023, 8, 1}));
}

TEST_F(DexLineMachineTest, LocalsAndMarksAreSteppedOver) {
    Method method(DexLines(30)
                      .parameters({"one", "", "two"})
                      .startLocal(1)
                      .startLocalExtended(2)
                      .endLocal(1)
                      .restartLocal(1)
                      .prologueEnd()
                      .epilogueBegin()
                      .row(5, 0)
                      .end(),
                  {.size = 8});
    EXPECT_EQ(method.rows(), (Rows{{"Foo.java", 35, 0, 8}}));
}

TEST_F(DexLineMachineTest, FileChangesInTheMiddle) {
    Method method(DexLines(30).row(0, 0).setFile("Part.java").row(1, 2).setFile("Foo.java").row(1, 2).end(),
                  {.size = 0x10, .nativeToDex = {{0, 0}, {4, 2}, {8, 4}}});
    const Rows rows = method.rows();
    EXPECT_THAT(rows, Contains(OatRow{"Foo.java", 30, 0, 1}));
    EXPECT_THAT(rows, Contains(OatRow{"Part.java", 31, 4, 1}));
    EXPECT_THAT(rows, Contains(OatRow{"Foo.java", 32, 8, 1}));
    EXPECT_THAT(method.fileNames, ElementsAre("Foo.java", "Part.java"));
}

TEST_F(DexLineMachineTest, FileIndexOutOfRangeChangesNothing) {
    Method method(DexLines(30)
                      .raw({9, 0x7F})
                      .raw({9, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F})
                      .raw({9, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F})
                      .row(1, 0)
                      .end(),
                  {.size = 8});
    EXPECT_EQ(method.rows(), (Rows{{"Foo.java", 31, 0, 8}}));
}

TEST_F(DexLineMachineTest, FileWithOperandZeroEndsTheProgramWithAWarning) {
    Method method(DexLines(30).row(1, 0).raw({9, 0}).row(1, 1).end(),
                  {.size = 8, .nativeToDex = {{0, 0}, {4, 1}}});
    expectLog("Dex line machine: unknown opcode 9");
    EXPECT_EQ(method.rows(status_BadFileFormat), (Rows{{"Foo.java", 31, 0, 1}}))
        << "lines entered so far stay, and the gaps are not filled";
}

TEST_F(DexLineMachineTest, SourceFilesCountFromZeroInOrderOfFirstUse) {
    DexAssembler dex;
    const char* const files[] = {"Zebra.java", "Ape.java", "Zebra.java", "Cat.java"};
    for (size_t i = 0; i < 4; ++i)
        dex.addMethod(dex.addClass("LClass" + std::to_string(i) + ";", files[i]), "run",
                      {.lines = DexLines(10).row(0, 0).end()});
    OatAssembler oat(28);
    oat.addDex(dex);
    OatReading reading(oat);
    EXPECT_EQ(reading.load(), status_Ok);
    ASSERT_EQ(reading.resolver->fileCount(), 3u);
    EXPECT_STREQ(reading.resolver->fileAt(0)->name(), "Zebra.java");
    EXPECT_STREQ(reading.resolver->fileAt(1)->name(), "Ape.java");
    EXPECT_STREQ(reading.resolver->fileAt(2)->name(), "Cat.java");
    EXPECT_EQ(reading.resolver->fileAt(1)->id(), 1u);
}

TEST_F(DexLineMachineTest, ClassWithoutSourceFileHasLinesOnceAFileIsNamed) {
    Method without(DexLines(30).row(0, 0).end(), {.size = 8, .nativeToDex = {{0, 0}}}, 28, std::nullopt);
    EXPECT_THAT(without.rows(), IsEmpty());
    EXPECT_THAT(without.fileNames, IsEmpty());
    Method named(DexLines(30).row(0, 0).setFile("Late.java").row(1, 2).end(),
                 {.size = 8, .nativeToDex = {{0, 0}, {4, 2}}}, 28, std::nullopt);
    EXPECT_EQ(named.rows(),
              (Rows{{"Late.java", 30, 1, 3}, {"Late.java", 31, 4, 1}, {"Late.java", 30, 5, 3}}));
}

TEST_F(DexLineMachineTest, MethodWithoutDebugInfoHasNoLines) {
    DexAssembler dex;
    dex.addClass(foo, "Foo.java");
    dex.addMethod(0, "bar");
    OatAssembler oat(28);
    oat.addDex(dex);
    oat.record(0, 0).code["bar"].nativeToDex = {{0, 0}};
    OatReading reading(oat);
    EXPECT_EQ(reading.load(), status_Ok);
    EXPECT_THAT(reading.rows(), IsEmpty());
    EXPECT_THAT(messages(test::informationLevel), Not(Contains("Reading dex to native mapping table ...")))
        << "its mapping table is not read either";
}

TEST_F(DexLineMachineTest, WithoutResolverNoLinesAreRead) {
    Method method(DexLines(30).row(0, 0).end(), {.size = 8, .nativeToDex = {{0, 0}}});
    OatReading reading(method.oat);
    EXPECT_EQ(reading.loader->loadSymbols(&reading.sink, nullptr, symbol_kind_all, nullptr), status_Ok);
    EXPECT_THAT(reading.sink.names(), ElementsAre("com.acme.Foo.bar"));
    EXPECT_THAT(reading.rows(), IsEmpty());
    EXPECT_EQ(reading.resolver->fileCount(), 0u);
}

TEST_F(DexLineMachineTest, CodeItemPastTheEndIsLoggedAndSteppedOver) {
    Method method(DexLines(30).row(0, 0).end(), {.size = 8});
    const std::vector<uint8_t> whole = method.oat.build();
    const size_t dex = method.oat.assemble().offsetOf("dex:0");
    const size_t member = dex + method.dex.assemble().offsetOf("member:" + foo + "bar");
    ByteAssembler far;
    far.raw(whole).overwriteAt(member + 2, std::vector<uint8_t>{0xFF, 0x7F}); // code_off, two bytes
    expectLog("Invalid offset in dex method", 4);
    EXPECT_THAT(method.rows(far.bytes(), method.oat.executableOffset()), IsEmpty());

    // The item itself: 20 bytes have to be there, and 18 with the instructions.
    const auto statusAt = [&](size_t room, uint32_t units) {
        ByteAssembler bytes;
        bytes.raw(whole);
        const size_t item = bytes.size() - dex;
        bytes.fill(room);
        if (room >= 16)
            bytes.overwriteAt(dex + item + 12, units, 4);
        std::vector<uint8_t> moved = bytes.bytes();
        const std::vector<uint8_t> offset = ByteAssembler().uleb(item, 2).bytes();
        std::copy(offset.begin(), offset.end(), moved.begin() + static_cast<ptrdiff_t>(member) + 2);
        EXPECT_THAT(method.rows(moved, method.oat.executableOffset()), IsEmpty()) << "no debug info";
    };
    statusAt(19, 0);
    statusAt(20, 0);
    statusAt(20, 1);
    statusAt(20, 2);
    statusAt(4096, 0x80000000);
}

/// The line machine on a program of its own: the status.
status_t statusOf(const std::vector<uint8_t>& program, std::vector<OatRow>* rows = nullptr) {
    OatReading reading(OatAssembler(28));
    DexAssembler dex;
    dex.addClass(foo, "Foo.java");
    std::vector<uint8_t> bytes = dex.build();
    const auto offset = static_cast<uint32_t>(bytes.size());
    bytes.insert(bytes.end(), program.begin(), program.end());
    SymMgrObjectPtr<IBuffer> buffer = new ByteBuffer(bytes.size());
    std::memcpy(buffer->data(), bytes.data(), bytes.size());
    SymMgrObjectPtr<DexLoader> dexLoader = new DexLoader(buffer, 0, buffer->data(), 0, 0);
    const OatMappingTable::Map map{{0, {0, 1}}};
    MethodLineContext context(*reading.resolver, map);
    context.m_methodSize = 4;
    OatBudget budget(bytes.size());
    const status_t status = runLineMachine(*dexLoader, offset, 0, context, budget);
    if (rows)
        *rows = reading.rows();
    return status;
}

TEST_F(DexLineMachineTest, ProgramPastTheEndIsRefused) {
    EXPECT_EQ(statusOf({}), status_BadFileFormat);
}

TEST_F(DexLineMachineTest, OperandThatIsCutOffIsRefused) {
    const std::vector<uint8_t> cutOff[] = {
        {5, 0, 3, 1},
        {5, 0, 3, 1, 1},
        {5, 0, 4, 1, 1, 1},
        {5, 0, 4, 1},
    };
    for (const std::vector<uint8_t>& program : cutOff)
        EXPECT_EQ(statusOf(program), status_BadFileFormat) << program.size();
    // An only operand cannot be cut off: an opcode without anything behind it is not read.
    for (const uint8_t opcode : {1, 2, 5, 6, 9}) {
        EXPECT_EQ(statusOf({5, 0, opcode}), status_Ok) << int(opcode);
        EXPECT_EQ(statusOf({5, 0, opcode, 1}), status_Ok) << int(opcode);
    }
}

TEST_F(DexLineMachineTest, OpcodeThatIsTheLastByteIsNotRead) {
    std::vector<OatRow> rows;
    EXPECT_EQ(statusOf({5, 0, 14}, &rows), status_Ok);
    EXPECT_THAT(rows, IsEmpty());
    EXPECT_EQ(statusOf({5, 0, 14, 14}, &rows), status_Ok);
    EXPECT_EQ(rows, (Rows{{"Foo.java", 5, 0, 1}, {"Foo.java", 5, 1, 3}}))
        << "the program just ends, and the gaps are filled";
}

TEST_F(DexLineMachineTest, ParametersThatAreCutOffLeaveAnEmptyProgram) {
    std::vector<OatRow> rows;
    EXPECT_EQ(statusOf({5, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 1, 1}, &rows), status_Ok);
    EXPECT_THAT(rows, IsEmpty());
    EXPECT_EQ(statusOf({5}), status_Ok);
}

// --- Beside a reader that shares no code with this one

/// Random programs; where dexdump sees a row, a byte that is mapped to its dex pc has its line.
TEST_F(DexLineMachineTest, RowsAreThoseOfDexdump) {
    int status = 0;
    orn_test::commandOutput("command -v dexdump", &status);
    if (status != 0)
        GTEST_SKIP() << "needs dexdump";
    constexpr int methodCount = 60;
    constexpr unsigned units = 100;
    std::mt19937 random(20240607);
    const auto below = [&](unsigned end) { return static_cast<unsigned>(random() % end); };
    DexAssembler dex;
    dex.addClass(foo, "Foo.java");
    for (int i = 0; i < methodCount; ++i) {
        DexLines lines(500 + below(100));
        for (unsigned pc = 0; pc < units;) {
            const unsigned step =
                1 + below(6); // never two rows at one place, whose order is nobody's business
            if (below(3) == 0)
                lines.advanceLine(static_cast<int>(below(200)) - 100);
            if (below(4) == 0)
                lines.advancePc(step).row(static_cast<int>(below(15)) - 4, 0);
            else
                lines.row(static_cast<int>(below(15)) - 4, step);
            if (below(5) == 0)
                lines.prologueEnd().epilogueBegin();
            pc += step;
        }
        char name[8];
        std::snprintf(name, sizeof(name), "m%03d", i);
        dex.addMethod(0, name, {.instructionUnits = units, .lines = lines.end()});
    }
    OatAssembler oat(28);
    oat.addDex(dex);
    OatCode code{.size = 4 * units};
    for (unsigned pc = 0; pc < units; ++pc)
        code.nativeToDex.push_back({4ULL * pc, pc});
    for (const std::string& method : dex.methodNames(0))
        oat.record(0, 0).code[method] = code;
    setLogLevel(test::warningLevel);
    OatReading reading(oat);
    ASSERT_EQ(reading.load(), status_Ok);

    const orn_test::TempDir directory;
    const std::vector<uint8_t> bytes = dex.build();
    const std::string file = directory.write("classes.dex", std::string(bytes.begin(), bytes.end()));
    std::istringstream dump(orn_test::commandOutput("dexdump " + file));
    std::string method;
    int compared = 0;
    const ByteAssembler layout = oat.assemble();
    for (std::string text; std::getline(dump, text);) {
        if (const size_t at = text.find("name          : '"); at != std::string::npos)
            method = text.substr(at + 17, 4);
        unsigned pc = 0;
        unsigned line = 0;
        if (std::sscanf(text.c_str(), " 0x%x line=%u", &pc, &line) != 2 || pc >= units)
            continue;
        SymMgrObjectPtr<ISourceLocation> location;
        const uint64_t address = oatDataAddress + layout.offsetOf("code:0:0:" + method) + 4ULL * pc;
        reading.resolver->sourceLocationAt(location, address, 0, nullptr, nullptr);
        ASSERT_NE(location, nullptr) << method << ' ' << pc;
        ASSERT_EQ(location->line(), line) << method << ' ' << pc;
        ++compared;
    }
    EXPECT_GT(compared, methodCount * 10);
}

} // namespace
} // namespace ORN_3_30
