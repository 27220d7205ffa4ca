#include "orn_dilkor_lun_utils.h"

#include "support/kor_assembler.h"
#include "support/kor_buffers.h"
#include "support/kor_mira.h"
#include "support/orn_fixture.h"
#include "support/temp_dir.h"

#include <cstdlib>

namespace ORN_3_30::test {
namespace {

using orn_test::KorIsaAssembler;
using orn_test::LunAssembler;
using orn_test::MiraObject;
using Bytes = std::vector<std::uint8_t>;
using Lines = std::vector<KorTavLineEntry>;
using Names = std::vector<std::string>;
using Pairs = KorLunDebugInfoParser::InstructionMap;

constexpr unsigned arch9 = 9;
constexpr unsigned arch10 = 10;

class LunTest : public OrnTest {
protected:
    LunTest() { ::unsetenv(oneStep); }
    ~LunTest() override { ::unsetenv(oneStep); }

    static bool isValid(const Bytes& bytes, unsigned arch = arch9) {
        return KorLunDebugInfoParser::validate(bufferOf(bytes), arch, false);
    }
    static bool isValid(const LunAssembler& lun, unsigned arch = arch9) { return isValid(lun.build(), arch); }

    /// The file stands on the disk too, where the streams with debug information are read.
    status_t create(const Bytes& bytes) {
        parser = nullptr;
        path = directory.write("k.clpdb", asText(bytes));
        return KorLunDebugInfoParser::create(parser, bufferOf(bytes), path.c_str());
    }
    status_t create(const LunAssembler& lun) { return create(lun.build()); }
    Names names() {
        Names all{"cleared"};
        EXPECT_EQ(parser->getKernelNames(all), status_Ok);
        return all;
    }
    /// Rows 10 at instruction 1 and 11 at 3.
    static Bytes twoRows() {
        MiraObject mira;
        mira.rows = {{1, 10, 1, 4}, {3, 11, 1, 5}};
        return mira.build();
    }
    static Bytes isaOf(const std::string& kernel, const KorIsaAssembler::Pairs& pairs) {
        KorIsaAssembler isa;
        return isa.object(kernel, pairs).build();
    }
    status_t linesOf(const std::string& kernel, Lines& lines, IAddressMapping* mapping = nullptr) {
        return parser->getLines(kernel, lines, mapping);
    }
    void expectAssertion(const std::string& expression, int count = 1) {
        expectLog("ASSERTION FAILED: '" + expression + "'", count);
    }
    /// What a part that does not lie in the file logs.
    void expectEnd(const std::string& size) {
        expectAssertion("(uint64_t)(ptr - m_debugInfo->data()) + " + size + " <= m_debugInfo->size()");
    }

    static constexpr char oneStep[] = "ORN_ONE_STEP_DEBUG_INFO";

    orn_test::TempDir directory;
    std::string path;
    SymMgrObjectPtr<KorLunDebugInfoParser> parser;
};

} // namespace

// --- validate

TEST_F(LunTest, TheLeastSizeIsThatOfTheHeader) {
    EXPECT_EQ(KorLunDebugInfoParser::minimumSize(), 28u);
    const Bytes bytes = LunAssembler().build();
    ASSERT_EQ(bytes.size(), 28u);
    EXPECT_TRUE(isValid(bytes));
    EXPECT_FALSE(isValid(Bytes(bytes.begin(), bytes.end() - 1)));
    EXPECT_FALSE(KorLunDebugInfoParser::validate(nullptr, arch9, false));
    EXPECT_FALSE(KorLunDebugInfoParser::validate(new RefusedBuffer, arch9, false));
}

TEST_F(LunTest, TheFormatServesSevenArchitectures) {
    for (unsigned arch = 0; arch < 20; ++arch)
        EXPECT_EQ(isValid(LunAssembler(), arch), arch >= 9 && arch <= 15) << arch;
}

TEST_F(LunTest, TheVersionHasBoundsThatDependOnTheArchitecture) {
    LunAssembler lun;
    const auto isValidVersion = [&](std::uint32_t version, unsigned arch) {
        lun.version = version;
        return isValid(lun, arch);
    };
    EXPECT_FALSE(isValidVersion(0x41a, arch9));
    EXPECT_TRUE(isValidVersion(0x41b, arch9));
    EXPECT_TRUE(isValidVersion(0xfffffffe, arch9));
    EXPECT_FALSE(isValidVersion(0xffffffff, arch9));
    for (unsigned arch = arch10; arch <= 15; ++arch) {
        EXPECT_FALSE(isValidVersion(0x3fb, arch));
        EXPECT_TRUE(isValidVersion(0x3fc, arch));
        EXPECT_TRUE(isValidVersion(0x41a, arch));
        EXPECT_FALSE(isValidVersion(0xffffffff, arch));
    }
}

TEST_F(LunTest, TheAlignmentIsAPowerOfTwoOrNone) {
    LunAssembler lun;
    for (const std::uint32_t alignment : {0u, 1u, 0x200u, 0x400u}) {
        lun.alignment = alignment;
        EXPECT_TRUE(isValid(lun)) << alignment;
    }
    for (const std::uint32_t alignment : {3u, 0x401u, 0x800u}) {
        lun.alignment = alignment;
        EXPECT_FALSE(isValid(lun)) << alignment;
    }
}

TEST_F(LunTest, LimitsAndKernelsHaveTheirBounds) {
    LunAssembler lun;
    lun.limitA = lun.limitB = 0x400;
    lun.numberOfKernels = 0x400;
    EXPECT_TRUE(isValid(lun));
    for (auto* limit : {&lun.limitA, &lun.limitB}) {
        *limit = 0x401;
        EXPECT_FALSE(isValid(lun));
        *limit = 0x400;
    }
    lun.numberOfKernels = 0x401;
    EXPECT_FALSE(isValid(lun));
}

// --- The index of the kernels

TEST_F(LunTest, KernelsAreListedInTheOrderOfTheirNames) {
    LunAssembler lun;
    lun.kernel("mul", {1, 2, 3}).kernel("add", {4}, {5, 6});
    ASSERT_EQ(create(lun), status_Ok);
    EXPECT_EQ(names(), (Names{"add", "mul"}));
    EXPECT_EQ(parser->getNumberOfKernels(), 2u);
    EXPECT_EQ(parser->findKernel("ad"), nullptr);
    ASSERT_NE(parser->findKernel("add"), nullptr);
    EXPECT_EQ(*parser->miraStream(parser->findKernel("add")), 4);
    EXPECT_EQ(*parser->korIsaStream(parser->findKernel("add")), 5);
    EXPECT_EQ(*parser->miraStream(parser->findKernel("mul")), 1);
}

TEST_F(LunTest, AFileWithoutKernelsIsWhole) {
    ASSERT_EQ(create(LunAssembler()), status_Ok);
    EXPECT_TRUE(names().empty());
}

TEST_F(LunTest, NothingIsCreatedOfAHeaderThatIsNotValid) {
    LunAssembler lun;
    lun.version = 0x3fc; // the bound whatever the architecture
    EXPECT_EQ(create(lun), status_Ok);
    lun.version = 0x3fb;
    EXPECT_EQ(create(lun), status_BadFileFormat);
    EXPECT_FALSE(parser);
    lun.version = 0x41b;
    lun.alignment = 3;
    EXPECT_EQ(create(lun), status_BadFileFormat);
    EXPECT_EQ(create(Bytes(27)), status_BadFileFormat);
    EXPECT_EQ(KorLunDebugInfoParser::create(parser, nullptr, ""), status_BadFileFormat);
    EXPECT_EQ(KorLunDebugInfoParser::create(parser, new RefusedBuffer, ""), status_BadFileFormat);
    EXPECT_FALSE(parser);
}

TEST_F(LunTest, ALoadOfNoDataFails) {
    SymMgrObjectPtr<KorLunDebugInfoParser> raw = new KorLunDebugInfoParser(new RefusedBuffer, "");
    EXPECT_EQ(raw->load(), status_Fail);
    raw = new KorLunDebugInfoParser(nullptr, nullptr);
    EXPECT_EQ(raw->load(), status_Fail);
    raw = new KorLunDebugInfoParser(bufferOf(Bytes(27)), "");
    EXPECT_EQ(raw->load(), status_BadFileFormat);
    expectEnd("sizeof(SProgramDebugDataHeaderLUN)");
}

TEST_F(LunTest, EveryPartOfAKernelHasToLieInTheFile) {
    LunAssembler lun;
    lun.kernel("kernel", {1, 2, 3, 4}, {5, 6, 7});
    Bytes bytes = lun.build();
    const auto createWithout = [&](std::size_t count) {
        return create(Bytes(bytes.begin(), bytes.end() - static_cast<long>(count)));
    };
    EXPECT_EQ(createWithout(0), status_Ok);
    EXPECT_EQ(createWithout(1), status_BadFileFormat);
    expectEnd("kernelHeader->SizeKorIsaDbgInBytes");
    EXPECT_EQ(createWithout(4), status_BadFileFormat);
    expectEnd("kernelHeader->SizeMiraDbgInBytes");
    EXPECT_EQ(createWithout(8), status_BadFileFormat);
    expectEnd("kernelNameSizeAligned");
    EXPECT_EQ(createWithout(16), status_BadFileFormat);
    expectEnd("sizeof(SKernelDebugDataHeaderLUN)");
    EXPECT_FALSE(parser);
}

TEST_F(LunTest, ANameHasAFieldOfWholeWords) {
    LunAssembler lun;
    lun.kernel("five5", {0xA5}).kernel("four", {0xA4}).kernel("", {0xA0});
    ASSERT_EQ(create(lun), status_Ok);
    EXPECT_EQ(names(), (Names{"", "five5", "four"}));
    EXPECT_EQ(*parser->miraStream(parser->findKernel("five5")), 0xA5);
    EXPECT_EQ(*parser->miraStream(parser->findKernel("four")), 0xA4);
    EXPECT_EQ(*parser->miraStream(parser->findKernel("")), 0xA0) << "a size of 0 has no field";
    const auto distance = [&](const char* kernel) {
        const SKernelDebugDataHeaderLUN* header = parser->findKernel(kernel);
        return parser->miraStream(header) - reinterpret_cast<const unsigned char*>(header);
    };
    EXPECT_EQ(distance("five5"), 12 + 8);
    EXPECT_EQ(distance("four"), 12 + 4);
    EXPECT_EQ(distance(""), 12);
}

TEST_F(LunTest, ANameIsWhatStandsBeforeItsFirstZero) {
    LunAssembler lun;
    lun.kernel(std::string("a\0b", 3), {}).kernel("unterminated", {1, 0});
    ASSERT_EQ(create(lun), status_Ok);
    EXPECT_EQ(names(), (Names{"a", "unterminated"}));
}

TEST_F(LunTest, TheGreatestNameSizesHaveNoFieldAndTheirNamesEndWithTheFile) {
    LunAssembler lun;
    lun.kernel("", {'x', 'y'}, {}, 0xffffffff);
    ASSERT_EQ(create(lun), status_Ok);
    EXPECT_EQ(names(), Names{"xy"});
    LunAssembler tooLong;
    tooLong.kernel("", {'x', 'y'}, {}, 0xfffffffc);
    EXPECT_EQ(create(tooLong), status_BadFileFormat);
    expectEnd("kernelNameSizeAligned");
}

TEST_F(LunTest, OfKernelsOfOneNameTheLastCounts) {
    LunAssembler lun;
    lun.kernel("k", {1}).kernel("k", {2});
    ASSERT_EQ(create(lun), status_Ok);
    EXPECT_EQ(parser->getNumberOfKernels(), 1u);
    EXPECT_EQ(*parser->miraStream(parser->findKernel("k")), 2);
}

TEST_F(LunTest, AnIndexMayBeMadeAgain) {
    LunAssembler lun;
    lun.kernel("k", {1});
    ASSERT_EQ(create(lun), status_Ok);
    EXPECT_EQ(parser->load(), status_Ok);
    EXPECT_EQ(names(), Names{"k"});
}

// --- The streams

TEST_F(LunTest, StreamsOfNoKernelAreNone) {
    ASSERT_EQ(create(LunAssembler()), status_Ok);
    EXPECT_EQ(parser->miraStream(nullptr), nullptr);
    EXPECT_EQ(parser->korIsaStream(nullptr), nullptr);
    expectAssertion("kernelHeader", 2);
    unsigned long long offset = 0;
    EXPECT_FALSE(parser->findMiraImage("none", offset));
}

TEST_F(LunTest, StreamsHaveToLieInTheFile) {
    LunAssembler lun;
    lun.kernel("k", {1, 2, 3}, {4, 5});
    const SymMgrObjectPtr<IBuffer> buffer = bufferOf(lun.build());
    ASSERT_EQ(KorLunDebugInfoParser::create(parser, buffer, ""), status_Ok);
    const SKernelDebugDataHeaderLUN* header = parser->findKernel("k");
    unsigned char* sizes = buffer->data() + 28 + 4;
    EXPECT_EQ(parser->miraStream(header), buffer->data() + 28 + 12 + 4);
    unsigned long long offset = 0;
    EXPECT_TRUE(parser->findMiraImage("k", offset));
    EXPECT_EQ(offset, 28u + 12 + 4);
    EXPECT_EQ(parser->korIsaStream(header), buffer->data() + 28 + 12 + 4 + 3);

    sizes[4] = 3;
    EXPECT_EQ(parser->korIsaStream(header), nullptr);
    expectAssertion("korIsaOffset + kernelHeader->SizeKorIsaDbgInBytes <= m_debugInfo->size()");
    sizes[0] = 6;
    EXPECT_EQ(parser->miraStream(header), nullptr);
    expectAssertion("miraOffset + kernelHeader->SizeMiraDbgInBytes <= m_debugInfo->size()");
    EXPECT_FALSE(parser->findMiraImage("k", offset));
    expectAssertion("miraOffset + kernelHeader->SizeMiraDbgInBytes <= m_debugInfo->size()");

    const auto headerAt = [&](std::size_t place) {
        return reinterpret_cast<const SKernelDebugDataHeaderLUN*>(buffer->data() + place);
    };
    EXPECT_EQ(parser->miraStream(headerAt(0)), nullptr);
    expectAssertion("ptr > m_debugInfo->data()");
    EXPECT_EQ(parser->miraStream(headerAt(buffer->size() - 11)), nullptr);
    expectEnd("sizeof(SKernelDebugDataHeaderLUN)");
}

// --- Files and lines of a kernel

TEST_F(LunTest, WithoutASecondStreamTheRowsAreTheAnswer) {
    LunAssembler lun;
    lun.kernel("k", twoRows());
    ASSERT_EQ(create(lun), status_Ok);
    const SymMgrObjectPtr<RecordingMapping> mapping = new RecordingMapping;
    Lines lines{{9, 9, 9, 9}};
    EXPECT_EQ(linesOf("k", lines, mapping), status_Ok);
    EXPECT_EQ(lines, (Lines{{9, 9, 9, 9}, {1, 10, 4, 0}, {3, 11, 5, 0}}));
    EXPECT_TRUE(mapping->pairs.empty()) << "no code was moved";
}

TEST_F(LunTest, TheEnvironmentMayAskForTheOneStepToo) {
    LunAssembler lun;
    lun.kernel("k", twoRows(), isaOf("k", {{1, 16}}));
    ASSERT_EQ(create(lun), status_Ok);
    const auto firstAddress = [&] {
        Lines lines;
        EXPECT_EQ(linesOf("k", lines), status_Ok);
        return lines.empty() ? ~0U : lines.front().address;
    };
    EXPECT_EQ(firstAddress(), 0u);
    ::setenv(oneStep, "", 1);
    EXPECT_EQ(firstAddress(), 0u);
    ::setenv(oneStep, "0", 1);
    EXPECT_EQ(firstAddress(), 1u);
}

TEST_F(LunTest, WithBothStreamsTheRowsAreThoseOfMachineCode) {
    LunAssembler lun;
    lun.kernel("k", twoRows(), isaOf("k", {{1, 16}, {2, 32}, {3, 48}}));
    ASSERT_EQ(create(lun), status_Ok);
    const SymMgrObjectPtr<RecordingMapping> mapping = new RecordingMapping;
    Lines lines;
    EXPECT_EQ(linesOf("k", lines, mapping), status_Ok);
    EXPECT_EQ(lines, (Lines{{0, 10, 4, 0}, {48, 11, 5, 0}})) << "the leading pair takes the first row";
    using All = decltype(mapping->pairs);
    EXPECT_EQ(mapping->pairs, (All{{0, 0}, {1, 16}, {2, 32}, {3, 48}}));
    lines.clear();
    EXPECT_EQ(linesOf("k", lines, nullptr), status_Ok);
    EXPECT_EQ(lines.size(), 2u);
}

TEST_F(LunTest, FilesComeInTheOrderOfTheIdsThatRowsName) {
    MiraObject mira;
    mira.files = {"/src/z.cl", "/src/a.h", "/src/m.h"};
    mira.rows = {{1, 10, 3}, {2, 20, 1}, {3, 30, 2}};
    LunAssembler lun;
    lun.kernel("k", mira.build());
    ASSERT_EQ(create(lun), status_Ok);
    Names files{"cleared"};
    EXPECT_EQ(parser->getSourceFileNames("k", files), status_Ok);
    EXPECT_EQ(files, (Names{"/src/z.cl", "/src/a.h", "/src/m.h"}));
    Lines lines;
    EXPECT_EQ(linesOf("k", lines), status_Ok);
    EXPECT_EQ(lines, (Lines{{1, 10, 0, 2}, {2, 20, 0, 0}, {3, 30, 0, 1}}))
        << "by address, though the table has them file by file";
}

TEST_F(LunTest, RowsWithoutExtentAreRowsToo) {
    MiraObject mira;
    mira.rows = {{1, 10}, {1, 11}, {3, 12}};
    LunAssembler lun;
    lun.kernel("k", mira.build());
    ASSERT_EQ(create(lun), status_Ok);
    Lines lines;
    EXPECT_EQ(linesOf("k", lines), status_Ok);
    EXPECT_EQ(lines, (Lines{{1, 10, 0, 0}, {1, 11, 0, 0}, {3, 12, 0, 0}}));
}

TEST_F(LunTest, EachKernelHasItsOwnRows) {
    MiraObject other;
    other.files = {"/src/b.cl"};
    other.rows = {{0, 77}};
    LunAssembler lun;
    lun.kernel("a", twoRows()).kernel("b", other.build());
    ASSERT_EQ(create(lun), status_Ok);
    Lines lines;
    EXPECT_EQ(linesOf("b", lines), status_Ok);
    EXPECT_EQ(lines, (Lines{{0, 77, 0, 0}}));
    Names files;
    EXPECT_EQ(parser->getSourceFileNames("b", files), status_Ok);
    EXPECT_EQ(files, Names{"/src/b.cl"});
}

TEST_F(LunTest, AnUnknownKernelHasNeitherLinesNorFiles) {
    ASSERT_EQ(create(LunAssembler()), status_Ok);
    Lines lines;
    Names files;
    EXPECT_EQ(linesOf("k", lines), status_NotFound);
    EXPECT_EQ(parser->getSourceFileNames("k", files), status_NotFound);
    expectAssertion("kernelHeader", 2);
}

TEST_F(LunTest, AStreamThatIsNoObjectFails) {
    LunAssembler lun;
    lun.kernel("k", Bytes(100, 'x'));
    ASSERT_EQ(create(lun), status_Ok);
    Lines lines;
    Names files;
    EXPECT_EQ(linesOf("k", lines), status_Fail);
    EXPECT_EQ(parser->getSourceFileNames("k", files), status_Fail);
    expectLog("neither ELFCLASS32 nor ELFCLASS64", 2);
    expectLog("Cannot read .debug_info section", 2);
    expectAssertion("m_elfHelper->isValid()", 2);
    expectAssertion("status == status_Ok", 2);
}

TEST_F(LunTest, AnObjectWithoutLinesFails) {
    MiraObject mira;
    mira.hasLines = false;
    LunAssembler lun;
    lun.kernel("k", mira.build());
    ASSERT_EQ(create(lun), status_Ok);
    Lines lines;
    EXPECT_EQ(linesOf("k", lines), status_NoDebugInfo);
    expectAssertion("status == status_Ok");
}

TEST_F(LunTest, AnObjectWithoutRowsFailsInEitherWay) {
    LunAssembler lun;
    lun.kernel("one", MiraObject().build()).kernel("two", MiraObject().build(), isaOf("two", {{1, 1}}));
    ASSERT_EQ(create(lun), status_Ok);
    Lines lines;
    EXPECT_EQ(linesOf("one", lines), status_Fail);
    expectAssertion("lineColumnInfo.size() > 0");
    EXPECT_EQ(linesOf("two", lines), status_Fail);
    expectAssertion("miraLineInfo.size() > 0");
}

TEST_F(LunTest, ASecondStreamThatCannotBeReadFails) {
    KorIsaAssembler foreign;
    foreign.magic = 1;
    KorIsaAssembler cut;
    cut.numCompiledObjects = 1;
    LunAssembler lun;
    lun.kernel("foreign", twoRows(), foreign.build()).kernel("cut", twoRows(), cut.build());
    lun.kernel("empty", twoRows(), KorIsaAssembler().build()).kernel("k", twoRows(), isaOf("other", {}));
    ASSERT_EQ(create(lun), status_Ok);
    Lines lines;
    EXPECT_EQ(linesOf("foreign", lines), status_BadFileFormat);
    expectAssertion("status == status_Ok");
    EXPECT_EQ(linesOf("cut", lines), status_BadFileFormat);
    expectLog("sizeof(uint8_t)");
    expectAssertion("status == status_Ok");
    EXPECT_EQ(linesOf("empty", lines), status_Fail);
    expectAssertion("m_kernels.size() > 0");
    EXPECT_EQ(linesOf("k", lines), status_NotFound);
    EXPECT_TRUE(lines.empty());
}

TEST_F(LunTest, AFileThatIsGoneHasNoRows) {
    LunAssembler lun;
    lun.kernel("k", twoRows());
    ASSERT_EQ(create(lun), status_Ok);
    std::filesystem::remove(path);
    Lines lines;
    EXPECT_TRUE(isFailure(linesOf("k", lines)));
    allowLog("");
}

// --- Joining rows and machine code

namespace {

class MergeTest : public LunTest {
protected:
    static Lines merge(const Lines& rows, const Pairs& pairs, status_t expected = status_Ok) {
        Lines lines;
        EXPECT_EQ(KorLunDebugInfoParser::mergeLines(rows, pairs, lines), expected);
        return lines;
    }
};

} // namespace

TEST_F(MergeTest, OneRowIsGivenForEachRunOfCodeWithOnePosition) {
    EXPECT_EQ(merge({{1, 10, 4, 2}, {3, 11, 5, 6}}, {{1, 16}, {2, 32}, {3, 48}}),
              (Lines{{16, 10, 4, 2}, {48, 11, 5, 6}}));
}

TEST_F(MergeTest, CodeInFrontOfTheSecondRowBelongsToTheFirst) {
    EXPECT_EQ(merge({{5, 10, 0, 0}, {8, 11, 0, 0}}, {{0, 0}, {6, 16}, {8, 32}}),
              (Lines{{0, 10, 0, 0}, {32, 11, 0, 0}}));
}

TEST_F(MergeTest, ASingleRowHasNoCodeInFrontOfIt) {
    EXPECT_EQ(merge({{5, 10, 0, 0}}, {{0, 0}, {4, 16}}), Lines{});
    EXPECT_EQ(merge({{5, 10, 0, 0}}, {{0, 0}, {5, 16}, {6, 32}}), (Lines{{16, 10, 0, 0}}));
}

TEST_F(MergeTest, ARowWithoutCodeIsLost) {
    EXPECT_EQ(merge({{1, 10, 0, 0}, {2, 11, 0, 0}, {3, 12, 0, 0}}, {{1, 16}, {3, 48}}),
              (Lines{{16, 10, 0, 0}, {48, 12, 0, 0}}));
}

TEST_F(MergeTest, InstructionsNeedNotAscend) {
    EXPECT_EQ(merge({{1, 10, 0, 0}, {3, 11, 0, 0}}, {{4, 16}, {2, 32}, {5, 48}}),
              (Lines{{16, 11, 0, 0}, {32, 10, 0, 0}, {48, 11, 0, 0}}));
}

TEST_F(MergeTest, OfTwoLinesOfOneInstructionTheFirstCounts) {
    EXPECT_EQ(merge({{1, 10, 1, 0}, {1, 11, 2, 0}, {3, 12, 3, 0}}, {{1, 16}, {3, 48}}),
              (Lines{{16, 10, 1, 0}, {48, 12, 3, 0}}));
    expectLog("LUN DBG Line Info: MIRA instruction 1 pointed to different source lines: 10, 11");
}

TEST_F(MergeTest, ARowThatIsThereTwiceIsNoNews) {
    EXPECT_EQ(merge({{1, 10, 1, 0}, {1, 10, 2, 1}}, {{1, 16}}), (Lines{{16, 10, 1, 0}}));
}

TEST_F(MergeTest, RowsAscend) {
    merge({{3, 10, 0, 0}, {1, 11, 0, 0}}, {{1, 16}}, status_Fail);
}

TEST_F(MergeTest, CodeAscendsWithoutRepeating) {
    merge({{1, 10, 0, 0}}, {{1, 16}, {2, 16}}, status_Fail);
    merge({{1, 10, 0, 0}}, {{1, 16}, {2, 8}}, status_Fail);
}

TEST_F(MergeTest, BothSidesHaveToHaveSomething) {
    merge({{1, 10, 0, 0}}, {}, status_Fail);
    expectAssertion("isaLineInfoSize > 0");
    merge({}, {{1, 16}}, status_Fail);
    expectAssertion("miraLineInfoSize > 0");
}

} // namespace ORN_3_30::test
