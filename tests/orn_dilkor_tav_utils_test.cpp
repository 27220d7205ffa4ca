#include "orn_dilkor_tav_utils.h"

#include "support/kor_assembler.h"
#include "support/kor_buffers.h"
#include "support/orn_fixture.h"

namespace ORN_3_30::test {
namespace {

using orn_test::ByteAssembler;
using orn_test::TavAssembler;
using Bytes = std::vector<std::uint8_t>;
using Lines = std::vector<KorTavLineEntry>;
using Names = std::vector<std::string>;

constexpr unsigned arch8 = 8;
constexpr unsigned arch9 = 9;

// Offsets of the header's fields.
constexpr std::size_t versionAt = 0x04;
constexpr std::size_t stringsSizeAt = 0x0c;
constexpr std::size_t numberOfKernelsAt = 0x24;
constexpr std::size_t numberOfKernelDataAt = 0x28;

class TavTest : public OrnTest {
protected:
    /// Two files; three kernels, of which the second has no lines.
    static TavAssembler twoKernels() {
        TavAssembler tav;
        tav.firstString("first").sourceFile("a.cl").sourceFile("b.h");
        tav.kernel("add").kernel("none").kernel("mul");
        tav.lines(0, {{0x10, 42, 10, 0}, {0x20, 43, 1, 1}});
        tav.lines(2, {{0x40, 7, 2, 1}});
        return tav;
    }
    static Bytes withField(Bytes bytes, std::size_t offset, std::uint32_t value) {
        for (unsigned i = 0; i < 4; ++i)
            bytes.at(offset + i) = static_cast<std::uint8_t>(value >> (8 * i));
        return bytes;
    }
    static bool isValid(const Bytes& bytes, unsigned arch = arch8) {
        return KorTavDebugInfoParser::validate(bufferOf(bytes), arch, false);
    }
    static bool isValid(const TavAssembler& tav, unsigned arch = arch8) { return isValid(tav.build(), arch); }

    status_t create(const Bytes& bytes) {
        parser = nullptr;
        return KorTavDebugInfoParser::create(parser, bufferOf(bytes));
    }
    status_t create(const TavAssembler& tav) { return create(tav.build()); }
    void expectAssertion(const std::string& expression) {
        expectLog("ASSERTION FAILED: '" + expression + "'");
    }
    void expectAssertionAbout(const std::string& structure) {
        expectAssertion("(size_t)((uint8_t*)(" + structure +
                        " + 1) - 1 - (uint8_t*)m_header) <= m_debugInfo->size()");
    }

    SymMgrObjectPtr<IKorDebugInfoParser> parser;
};

} // namespace

// --- validate

TEST_F(TavTest, TheLeastSizeIsThatOfTheHeader) {
    EXPECT_EQ(KorTavDebugInfoParser::minimumSize(), 0x2cu);
    const Bytes bytes = TavAssembler().build();
    EXPECT_TRUE(isValid(Bytes(bytes.begin(), bytes.begin() + 0x2c)));
    EXPECT_FALSE(isValid(Bytes(bytes.begin(), bytes.begin() + 0x2b)));
    EXPECT_FALSE(isValid(Bytes()));
}

TEST_F(TavTest, NoBufferIsNotValid) {
    EXPECT_FALSE(KorTavDebugInfoParser::validate(nullptr, arch8, false));
    EXPECT_FALSE(KorTavDebugInfoParser::validate(new RefusedBuffer, arch8, false));
}

TEST_F(TavTest, TheFormatServesTwoArchitectures) {
    for (unsigned arch = 0; arch < 20; ++arch)
        EXPECT_EQ(isValid(TavAssembler(), arch), arch == 8 || arch == 9) << arch;
}

TEST_F(TavTest, TheVersionHasBoundsThatDependOnTheArchitecture) {
    TavAssembler tav;
    const auto isValidVersion = [&](std::uint32_t version, unsigned arch) {
        tav.version = version;
        return isValid(tav, arch);
    };
    for (const unsigned arch : {arch8, arch9}) {
        EXPECT_FALSE(isValidVersion(0x3fb, arch));
        EXPECT_TRUE(isValidVersion(0x3fc, arch));
        EXPECT_TRUE(isValidVersion(0x41a, arch));
        EXPECT_FALSE(isValidVersion(0xffffffff, arch));
    }
    EXPECT_TRUE(isValidVersion(0x41b, arch8));
    EXPECT_TRUE(isValidVersion(0xfffffffe, arch8));
    EXPECT_FALSE(isValidVersion(0x41b, arch9));
}

TEST_F(TavTest, TheAlignmentIsAPowerOfTwoOrNone) {
    TavAssembler tav;
    const auto isValidAlignment = [&](std::uint32_t alignment) {
        tav.alignment = alignment;
        return isValid(tav);
    };
    for (const std::uint32_t alignment : {0u, 1u, 2u, 0x200u, 0x400u})
        EXPECT_TRUE(isValidAlignment(alignment)) << alignment;
    for (const std::uint32_t alignment : {3u, 0x3ffu, 0x401u, 0x800u, 0x80000000u})
        EXPECT_FALSE(isValidAlignment(alignment)) << alignment;
}

TEST_F(TavTest, EachLimitHasItsBound) {
    TavAssembler tav;
    tav.limitA = tav.limitB = 0x400;
    EXPECT_TRUE(isValid(tav));
    tav.limitA = 0x401;
    EXPECT_FALSE(isValid(tav));
    tav.limitA = 0;
    tav.limitB = 0x401;
    EXPECT_FALSE(isValid(tav));
}

TEST_F(TavTest, ThereAreNoMoreRecordsThanKernelsAndNotTooManyKernels) {
    const Bytes bytes = twoKernels().build();
    EXPECT_TRUE(isValid(withField(bytes, numberOfKernelDataAt, 3)));
    EXPECT_FALSE(isValid(withField(bytes, numberOfKernelDataAt, 4)));
    EXPECT_TRUE(isValid(withField(bytes, numberOfKernelsAt, 0x400)));
    EXPECT_FALSE(isValid(withField(bytes, numberOfKernelsAt, 0x401)));
}

// --- load

TEST_F(TavTest, AFileGivesItsKernelsAndItsFilesEachInTheirGroup) {
    ASSERT_EQ(create(twoKernels()), status_Ok);
    EXPECT_EQ(parser->getNumberOfKernels(), 3u);
    Names names{"cleared"};
    EXPECT_EQ(parser->getKernelNames(names), status_Ok);
    EXPECT_EQ(names, (Names{"add", "none", "mul"}));
    names = {"cleared"};
    EXPECT_EQ(parser->getSourceFileNames("add", names), status_Ok);
    EXPECT_EQ(names, (Names{"a.cl", "b.h"}));
    EXPECT_EQ(parser->getSourceFileNames("no such kernel", names), status_Ok)
        << "the kernel is not looked at";
    EXPECT_EQ(names.size(), 2u);
}

TEST_F(TavTest, NothingIsCreatedOfNothing) {
    EXPECT_EQ(create(Bytes(0x2b)), status_BadFileFormat);
    EXPECT_EQ(KorTavDebugInfoParser::create(parser, nullptr), status_BadFileFormat);
    EXPECT_EQ(KorTavDebugInfoParser::create(parser, new RefusedBuffer), status_BadFileFormat);
    EXPECT_FALSE(parser);
}

TEST_F(TavTest, AFailedLoadLeavesWhatWasThere) {
    ASSERT_EQ(create(twoKernels()), status_Ok);
    const SymMgrObjectPtr<IKorDebugInfoParser> before = parser;
    TavAssembler damaged = twoKernels();
    damaged.stringTableSize = 0xffffffff;
    EXPECT_EQ(KorTavDebugInfoParser::create(parser, bufferOf(damaged.build())), status_BadFileFormat);
    EXPECT_EQ(parser, before);
    expectAssertionAbout("m_fileTableHeader");
}

TEST_F(TavTest, TheFirstCountMayEndOneByteBehindTheFile) {
    const Bytes whole = TavAssembler().build();
    ASSERT_EQ(whole.size(), 0x2cu + 8);
    EXPECT_EQ(create(Bytes(whole.begin(), whole.end() - 4)), status_BadFileFormat);
    expectAssertionAbout("m_dirTableHeader");
    EXPECT_EQ(create(Bytes(whole.begin(), whole.end() - 5)), status_BadFileFormat);
    expectAssertionAbout("m_dirTableHeader");
    EXPECT_EQ(create(Bytes(whole.begin(), whole.end() - 6)), status_BadFileFormat);
    expectAssertionAbout("m_fileTableHeader");
}

TEST_F(TavTest, TheByteBehindTheFileReadsAsZero) {
    TavAssembler tav;
    tav.sourceFile("a.cl");
    Bytes bytes = tav.build();
    ASSERT_EQ(bytes.back(), 0);
    bytes.pop_back();
    ASSERT_EQ(create(bytes), status_Ok);
    Names names;
    EXPECT_EQ(parser->getSourceFileNames("", names), status_Ok);
    EXPECT_EQ(names, Names{"a.cl"});
    bytes.pop_back();
    EXPECT_EQ(create(bytes), status_BadFileFormat);
    expectAssertionAbout("m_dirTableHeader");
}

TEST_F(TavTest, AStringWithoutItsZeroFailsAtTheEndOfTheFile) {
    TavAssembler tav;
    tav.kernel("kernel");
    Bytes bytes = tav.build();
    bytes[0x2c + 6] = 'x';
    // The counts behind the strings have zero bytes: one more string is wanted than there are.
    for (std::size_t i = bytes.size() - 8; i < bytes.size(); ++i)
        bytes[i] = 'x';
    EXPECT_EQ(create(bytes), status_BadFileFormat);
    expectAssertion("(size_t)((uint8_t*)strings - (uint8_t*)m_header) <= m_debugInfo->size()");
}

TEST_F(TavTest, AStringThatEndsOnlyBehindTheTableFails) {
    TavAssembler tav;
    tav.kernel("");
    Bytes bytes = tav.build();
    bytes[0x2c] = 'k'; // the zero that ends it is the first byte of the counts
    EXPECT_EQ(create(bytes), status_BadFileFormat);
    expectAssertion("(size_t)(strings - stringTableEncoding) <= m_header->StringTableSize");
}

TEST_F(TavTest, TheStringsMayUseLessThanTheirTable) {
    TavAssembler tav = twoKernels();
    tav.stringPadding = 5;
    EXPECT_EQ(create(tav), status_Ok);
}

TEST_F(TavTest, CountsAreSummedInFullWidth) {
    TavAssembler tav = twoKernels();
    tav.firstGroup = 0xffffffff;
    tav.sourceFiles = 4; // with the three kernels 6 in 32 bits, which is what there is
    EXPECT_EQ(create(tav), status_BadFileFormat);
    expectAssertion("(size_t)((uint8_t*)strings - (uint8_t*)m_header) <= m_debugInfo->size()");
}

TEST_F(TavTest, AParserThatIsNotLoadedHasNothing) {
    const SymMgrObjectPtr<KorTavDebugInfoParser> raw =
        new KorTavDebugInfoParser(bufferOf(twoKernels().build()));
    Names names;
    Lines lines;
    EXPECT_EQ(raw->getNumberOfKernels(), 0u);
    EXPECT_EQ(raw->getKernelNames(names), status_BadFileFormat);
    EXPECT_EQ(raw->getSourceFileNames("add", names), status_BadFileFormat);
    expectLog("ASSERTION FAILED: 'm_fileTableHeader'", 3);
    EXPECT_EQ(raw->getLines("add", lines, nullptr), status_BadFileFormat);
    expectAssertion("result == status_Ok");
    EXPECT_EQ(raw->load(), status_Ok);
    EXPECT_EQ(raw->getLines("add", lines, nullptr), status_Ok);
}

TEST_F(TavTest, AParserWhoseLoadFailedHasNothing) {
    TavAssembler tav = twoKernels();
    tav.stringTableSize = 3;
    const SymMgrObjectPtr<KorTavDebugInfoParser> raw = new KorTavDebugInfoParser(bufferOf(tav.build()));
    EXPECT_EQ(raw->load(), status_BadFileFormat);
    EXPECT_EQ(raw->getNumberOfKernels(), 0u);
    allowLog("ASSERTION FAILED: ");
    Names names;
    EXPECT_EQ(raw->getKernelNames(names), status_BadFileFormat);
    const SymMgrObjectPtr<KorTavDebugInfoParser> none = new KorTavDebugInfoParser(nullptr);
    EXPECT_EQ(none->load(), status_BadFileFormat);
}

// --- getLines

TEST_F(TavTest, ALineWordHasTheLineBelowAndTheColumnOnTop) {
    ASSERT_EQ(create(twoKernels()), status_Ok);
    Lines lines;
    EXPECT_EQ(parser->getLines("add", lines, nullptr), status_Ok);
    EXPECT_EQ(lines, (Lines{{0x10, 42, 10, 0}, {0x20, 43, 1, 1}}));

    TavAssembler tav;
    tav.kernel("k").lines(0, {{0xffffffff, 0xffffff, 0xff, 0xffffffff}});
    ASSERT_EQ(create(tav), status_Ok);
    lines.clear();
    EXPECT_EQ(parser->getLines("k", lines, nullptr), status_Ok);
    EXPECT_EQ(lines, (Lines{{0xffffffff, 0xffffff, 0xff, 0xffffffff}}));
}

TEST_F(TavTest, LinesAreAppendedInTheOrderOfTheFile) {
    TavAssembler tav;
    tav.kernel("k").lines(0, {{0x30, 3, 0, 0}, {0x10, 1, 0, 0}, {0x10, 2, 0, 0}});
    ASSERT_EQ(create(tav), status_Ok);
    Lines lines{{9, 9, 9, 9}};
    EXPECT_EQ(parser->getLines("k", lines, nullptr), status_Ok);
    EXPECT_EQ(lines, (Lines{{9, 9, 9, 9}, {0x30, 3, 0, 0}, {0x10, 1, 0, 0}, {0x10, 2, 0, 0}}));
}

TEST_F(TavTest, TheMappingIsNotUsed) {
    ASSERT_EQ(create(twoKernels()), status_Ok);
    const SymMgrObjectPtr<RecordingMapping> mapping = new RecordingMapping;
    Lines lines;
    EXPECT_EQ(parser->getLines("add", lines, mapping), status_Ok);
    EXPECT_TRUE(mapping->pairs.empty());
}

TEST_F(TavTest, RecordsMayLeaveKernelsOut) {
    ASSERT_EQ(create(twoKernels()), status_Ok);
    Lines lines;
    EXPECT_EQ(parser->getLines("none", lines, nullptr), status_NotFound);
    EXPECT_EQ(parser->getLines("mul", lines, nullptr), status_Ok);
    EXPECT_EQ(lines, (Lines{{0x40, 7, 2, 1}}));
}

TEST_F(TavTest, TheRecordsBeginSoManyBytesBehindTheSecondCount) {
    TavAssembler tav = twoKernels();
    tav.dataPadding = 3;
    ASSERT_EQ(create(tav), status_Ok);
    Lines lines;
    EXPECT_EQ(parser->getLines("mul", lines, nullptr), status_Ok);
    EXPECT_EQ(lines.size(), 1u);
}

TEST_F(TavTest, ANameHasToBeTheWholeName) {
    ASSERT_EQ(create(twoKernels()), status_Ok);
    Lines lines;
    for (const char* name : {"ad", "addd", "dd", "ADD", "first", "a.cl"})
        EXPECT_EQ(parser->getLines(name, lines, nullptr), status_NotFound) << name;
    EXPECT_EQ(parser->getLines(std::string("add\0", 4), lines, nullptr), status_NotFound);
    EXPECT_EQ(parser->getLines("", lines, nullptr), status_InvalidArg);
    EXPECT_TRUE(lines.empty());
}

TEST_F(TavTest, TheHeadOfARecordHasToLieInTheFile) {
    TavAssembler tav;
    tav.kernel("k").lines(0, {{1, 2, 3, 4}});
    const Bytes bytes = tav.build();
    const auto linesWithout = [&](std::size_t count) {
        EXPECT_EQ(create(Bytes(bytes.begin(), bytes.end() - static_cast<long>(count))), status_Ok);
        Lines lines;
        return parser->getLines("k", lines, nullptr);
    };
    EXPECT_EQ(linesWithout(1), status_Ok) << "one byte may be missing";
    EXPECT_EQ(linesWithout(2), status_BadFileFormat);
    expectAssertionAbout("lineTableEntry");
    EXPECT_EQ(linesWithout(12 + 2), status_BadFileFormat);
    expectAssertionAbout("lineTableHeader");
    EXPECT_EQ(linesWithout(16 + 2), status_BadFileFormat);
    expectAssertionAbout("kernelDataHeader");
}

TEST_F(TavTest, AFirstEntryHasToBeThereEvenInATableWithoutAny) {
    TavAssembler tav;
    tav.kernel("k").lines(0, {});
    Bytes bytes = tav.build();
    ASSERT_EQ(create(bytes), status_Ok);
    Lines lines;
    EXPECT_EQ(parser->getLines("k", lines, nullptr), status_BadFileFormat);
    expectAssertionAbout("lineTableEntry");
    bytes.resize(bytes.size() + 11);
    ASSERT_EQ(create(bytes), status_Ok);
    EXPECT_EQ(parser->getLines("k", lines, nullptr), status_Ok);
    EXPECT_TRUE(lines.empty());
}

TEST_F(TavTest, ATableLongerThanTheFileEndsWithIt) {
    TavAssembler tav;
    tav.kernel("k").lines(0, {{1, 2, 3, 4}, {5, 6, 7, 0x04030201}});
    tav.lineCount = 0xffffffff;
    Bytes bytes = tav.build();
    ASSERT_EQ(create(bytes), status_Ok);
    Lines lines;
    EXPECT_EQ(parser->getLines("k", lines, nullptr), status_Ok);
    EXPECT_EQ(lines, (Lines{{1, 2, 3, 4}, {5, 6, 7, 0x04030201}}));

    bytes.pop_back(); // what is missing is 0
    ASSERT_EQ(create(bytes), status_Ok);
    lines.clear();
    EXPECT_EQ(parser->getLines("k", lines, nullptr), status_Ok);
    EXPECT_EQ(lines, (Lines{{1, 2, 3, 4}, {5, 6, 7, 0x00030201}}));

    bytes.pop_back();
    ASSERT_EQ(create(bytes), status_Ok);
    lines.clear();
    EXPECT_EQ(parser->getLines("k", lines, nullptr), status_Ok);
    EXPECT_EQ(lines, (Lines{{1, 2, 3, 4}}));
}

TEST_F(TavTest, ARecordOfALongTableLeadsOutOfTheFile) {
    TavAssembler tav = twoKernels();
    tav.lineCount = 0xffffffff;
    ASSERT_EQ(create(tav), status_Ok);
    Lines lines;
    EXPECT_EQ(parser->getLines("mul", lines, nullptr), status_BadFileFormat);
    expectAssertionAbout("kernelDataHeader");
}

TEST_F(TavTest, RecordsStandInAscendingOrder) {
    TavAssembler tav;
    tav.kernel("a").kernel("b").lines(1, {{}}).lines(0, {{}});
    ASSERT_EQ(create(tav), status_Ok);
    Lines lines;
    EXPECT_EQ(parser->getLines("a", lines, nullptr), status_BadFileFormat);
    expectAssertion("i <= kernelDataHeader->KernelIndex");
}

TEST_F(TavTest, ARecordBelongsToAKernelThatThereIs) {
    TavAssembler tav;
    tav.kernel("a").kernel("b").lines(0, {{}}).lines(2, {{}});
    ASSERT_EQ(create(tav), status_Ok);
    Lines lines;
    EXPECT_EQ(parser->getLines("b", lines, nullptr), status_BadFileFormat);
    expectAssertion("kernelDataHeader->KernelIndex < m_header->NumberOfKernels");
}

TEST_F(TavTest, AnOffsetOfTheRecordsBehindTheFileIsFoundOut) {
    TavAssembler tav = twoKernels();
    tav.kernelDataOffset = 0xffffffff;
    ASSERT_EQ(create(tav), status_Ok);
    Lines lines;
    EXPECT_EQ(parser->getLines("add", lines, nullptr), status_BadFileFormat);
    expectAssertionAbout("kernelDataHeader");
}

// --- Hostile files

namespace {

class HostileTavTest : public TavTest {
protected:
    HostileTavTest() {
        allowLog("");
        setLogLevel(errorLevel + 1);
    }
    /// Asks for everything. Gives whether there was a parser.
    static bool visit(const Bytes& bytes) {
        const SymMgrObjectPtr<IBuffer> buffer = bufferOf(bytes);
        static_cast<void>(KorTavDebugInfoParser::validate(buffer, arch9, false));
        SymMgrObjectPtr<IKorDebugInfoParser> parser;
        if (KorTavDebugInfoParser::create(parser, buffer) != status_Ok)
            return false;
        Names names;
        EXPECT_EQ(parser->getSourceFileNames("", names), status_Ok);
        EXPECT_EQ(parser->getKernelNames(names), status_Ok);
        for (const std::string& name : names) {
            Lines lines;
            static_cast<void>(parser->getLines(name, lines, nullptr));
            EXPECT_LE(lines.size(), bytes.size() / 12 + 1);
        }
        return true;
    }
};

} // namespace

TEST_F(HostileTavTest, EveryPrefixEndsCleanly) {
    const Bytes bytes = twoKernels().build();
    ASSERT_TRUE(visit(bytes));
    for (std::size_t size = 0; size < bytes.size(); ++size)
        visit(Bytes(bytes.begin(), bytes.begin() + static_cast<long>(size)));
}

TEST_F(HostileTavTest, EveryChangedByteEndsCleanly) {
    TavAssembler tav;
    tav.sourceFile("a.cl").kernel("k").kernel("m");
    const Bytes bytes = tav.lines(0, {{1, 2, 3, 0}}).lines(1, {{4, 5, 6, 0}}).build();
    ASSERT_TRUE(visit(bytes));
    for (std::size_t i = 0; i < bytes.size(); ++i)
        for (unsigned value = 0; value < 256; ++value) {
            Bytes changed = bytes;
            changed[i] = static_cast<std::uint8_t>(value);
            visit(changed);
        }
}

TEST_F(HostileTavTest, CountsBeyondAnyFileTakeNoTime) {
    TavAssembler tav = twoKernels();
    tav.numberOfKernels = tav.numberOfKernelData = 0xffffffff;
    EXPECT_FALSE(visit(tav.build()));
    tav.numberOfKernels = 3;
    ASSERT_TRUE(visit(tav.build()));
    tav.firstGroup = tav.sourceFiles = 0xffffffff;
    Bytes zeros = tav.build();
    zeros.resize(1 << 20);
    EXPECT_FALSE(visit(zeros)) << "a string for each byte";
    visit(withField(withField(zeros, versionAt, 0x400), stringsSizeAt, 1 << 19));
}

} // namespace ORN_3_30::test
