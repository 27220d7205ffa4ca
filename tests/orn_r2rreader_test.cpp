// Facts about the reader that tells whether a managed module has native code beside its byte code.

#include "orn_r2rreader.h"

#include "orn_fflpe.h"
#include "orn_file.h"
#include "support/orn_fixture.h"
#include "support/pe_assembler.h"
#include "support/temp_dir.h"

#include <string>
#include <vector>

namespace ORN_3_30 {
namespace {

using orn_test::ByteAssembler;
using orn_test::PeAssembler;
using orn_test::PeClass;
using orn_test::peCode;
using orn_test::peData;
using orn_test::PeLayout;
using orn_test::peReadOnly;

using Bytes = std::vector<uint8_t>;

constexpr const char* assertion = "ASSERTION FAILED: 'false'";
constexpr uint32_t clrRva = 0x2000;
constexpr uint32_t nativeRva = 0x3000;
constexpr unsigned nativeSection = 2;

/// A managed module with native code, without alignment: what is cut off is what was meant.
PeAssembler nativeModule(const Bytes& header = PeAssembler::readyToRunHeader(),
                         PeClass peClass = PeClass::k64) {
    PeAssembler pe(peClass);
    pe.fileAlignment(1);
    pe.section(".text", 0x1000, peCode).data.fill(0x10, 0xC3);
    pe.clrHeader(clrRva, nativeRva);
    pe.section(".native", nativeRva, peReadOnly).data.raw(header);
    return pe;
}

class ReadyToRunTest : public test::OrnTest {
protected:
    SymMgrObjectPtr<PEExecFileLoader> loaderOf(const Bytes& bytes) {
        return new PEExecFileLoader(
            directory.write("module.dll", {reinterpret_cast<const char*>(bytes.data()), bytes.size()})
                .c_str());
    }
    bool isReadyToRun(const Bytes& bytes) { return loaderOf(bytes)->isReadyToRun(); }
    bool isReadyToRun(const PeAssembler& pe) { return isReadyToRun(pe.build()); }

    orn_test::TempDir directory;
};

TEST_F(ReadyToRunTest, TheSignatureDecidesWhateverTheVersion) {
    for (const auto& [major, minor] : {std::pair{0, 0}, {1, 0}, {4, 1}, {0xFFFF, 0xFFFF}}) {
        EXPECT_TRUE(isReadyToRun(nativeModule(PeAssembler::readyToRunHeader(major, minor)))) << major;
        EXPECT_TRUE(isReadyToRun(nativeModule(PeAssembler::readyToRunHeader(major, minor), PeClass::k32)));
    }
    for (const size_t byte : {0, 1, 2, 3}) {
        Bytes header = PeAssembler::readyToRunHeader();
        header[byte] ^= 1;
        EXPECT_FALSE(isReadyToRun(nativeModule(header))) << byte;
    }
}

TEST_F(ReadyToRunTest, AModuleWithoutCOMDescriptorIsNone) {
    PeAssembler pe;
    pe.section(".text", 0x1000, peCode).data.fill(0x10, 0xC3);
    SymMgrObjectPtr<PEExecFileLoader> loader = loaderOf(pe.build());
    EXPECT_FALSE(loader->isReadyToRun());
    EXPECT_FALSE(loader->isManaged());
}

// Nothing is read: not even where a section claims to hold the address 0 and ends before its header.
TEST_F(ReadyToRunTest, ADescriptorAtAddressZeroReadsNothing) {
    const IMAGE_SECTION_HEADER section{".text", 0x1000, 0, 0x1000, 0, 0, 0, 0, 0, 0};
    File file(directory.write("short", "x").c_str());
    const ReadyToRunReader reader(&file, {{&section, 1}, arch_x86_64, 0});
    EXPECT_FALSE(reader.isReadyToRun());
    EXPECT_EQ(file.tell(), 0);
    EXPECT_EQ(reader.getArch(), arch_x86_64);
    EXPECT_FALSE(ReadyToRunReader().isReadyToRun());
}

TEST_F(ReadyToRunTest, AModuleWithoutSectionsReadsNothing) {
    File file(directory.write("short", "x").c_str());
    const ReadyToRunReader reader(&file, {{}, arch_ia32, clrRva});
    EXPECT_FALSE(reader.isReadyToRun());
    EXPECT_EQ(file.tell(), 0);
}

TEST_F(ReadyToRunTest, APlainManagedModuleIsNone) {
    PeAssembler pe;
    pe.section(".text", 0x1000, peCode).data.fill(0x10, 0xC3);
    pe.clrHeader(clrRva, 0);
    SymMgrObjectPtr<PEExecFileLoader> loader = loaderOf(pe.build());
    EXPECT_FALSE(loader->isReadyToRun());
    EXPECT_TRUE(loader->isManaged());
}

TEST_F(ReadyToRunTest, ADescriptorOutsideEverySectionIsNone) {
    PeAssembler pe = nativeModule();
    pe.directory(14, 0x8000, 72);
    EXPECT_FALSE(isReadyToRun(pe));
    pe.directory(14, clrRva + 72, 72);
    EXPECT_FALSE(isReadyToRun(pe)) << "the end is outside";
}

TEST_F(ReadyToRunTest, AFileThatEndsInTheCLRHeaderIsReportedOnce) {
    PeAssembler pe;
    pe.fileAlignment(1).clrHeader(clrRva, nativeRva);
    Bytes bytes = pe.build();
    bytes.resize(bytes.size() - 1);
    expectLog(assertion, 2);
    EXPECT_FALSE(isReadyToRun(bytes));
    bytes.resize(pe.layout().sections[0]);
    EXPECT_FALSE(isReadyToRun(bytes));
}

TEST_F(ReadyToRunTest, TheLastCLRHeaderCounts) {
    PeAssembler pe = nativeModule();
    pe.section(".later", clrRva, peData).data.fill(72);
    EXPECT_FALSE(isReadyToRun(pe)) << "it has no native header";
}

TEST_F(ReadyToRunTest, AFailedReadEndsTheWalk) {
    PeAssembler pe;
    pe.fileAlignment(1);
    auto& early = pe.section(".early", clrRva, peData);
    early.sizeOfRawData = 72;
    early.pointerToRawData = 0x100000;
    pe.clrHeader(clrRva, nativeRva);
    pe.section(".native", nativeRva, peReadOnly).data.raw(PeAssembler::readyToRunHeader());
    expectLog(assertion);
    EXPECT_FALSE(isReadyToRun(pe));
}

TEST_F(ReadyToRunTest, TheLastSectionThatHoldsTheNativeHeaderWins) {
    PeAssembler pe = nativeModule(Bytes(16, 0));
    EXPECT_FALSE(isReadyToRun(pe));
    pe.section(".later", nativeRva, peData).data.raw(PeAssembler::readyToRunHeader());
    EXPECT_TRUE(isReadyToRun(pe));
    pe.section(".last", nativeRva, peData).data.fill(16);
    EXPECT_FALSE(isReadyToRun(pe));
}

TEST_F(ReadyToRunTest, ANativeHeaderOutsideEverySectionIsLookedForAtTheStartOfTheFile) {
    PeAssembler pe = nativeModule();
    pe.sectionAt(nativeSection).sizeOfRawData = 0;
    EXPECT_FALSE(isReadyToRun(pe)) << "where the first signature of the file stands";

    const IMAGE_SECTION_HEADER section{".clr", 0x1000, clrRva, 72, 16, 0, 0, 0, 0, 0};
    ByteAssembler bytes;
    bytes.raw(PeAssembler::readyToRunHeader()).fill(64).u32(nativeRva).u32(16);
    const Bytes made = bytes.bytes();
    File file(directory.write("made", {reinterpret_cast<const char*>(made.data()), made.size()}).c_str());
    EXPECT_TRUE(ReadyToRunReader(&file, {{&section, 1}, arch_x86_64, clrRva}).isReadyToRun());
}

// The end of a section is a sum of 32 bits, which wraps: such a section holds nothing behind its start.
TEST_F(ReadyToRunTest, ASectionThatReachesPastTheLastAddressHoldsNothing) {
    PeAssembler pe = nativeModule();
    pe.sectionAt(nativeSection).sizeOfRawData = 0xFFFFFFFF;
    EXPECT_FALSE(isReadyToRun(pe));
}

TEST_F(ReadyToRunTest, AFileThatEndsInTheSignatureIsNoneWithoutALog) {
    Bytes bytes = nativeModule().build();
    bytes.resize(bytes.size() - 16 + 3);
    EXPECT_FALSE(isReadyToRun(bytes));
    bytes.resize(bytes.size() - 3);
    EXPECT_FALSE(isReadyToRun(bytes));
}

TEST_F(ReadyToRunTest, AFileThatEndsBehindTheSignatureIsReported) {
    const Bytes whole = nativeModule().build();
    for (const size_t kept : {4, 6, 8, 12}) {
        Bytes bytes = whole;
        bytes.resize(whole.size() - 16 + kept);
        EXPECT_FALSE(isReadyToRun(bytes)) << kept;
        const std::vector<test::LogMessage> logs = takeLogs();
        ASSERT_EQ(logs.size(), 1u) << kept;
        EXPECT_THAT(logs[0].text, testing::HasSubstr(assertion));
    }
}

TEST_F(ReadyToRunTest, AFieldThatIsCutIsRead) {
    const Bytes whole = nativeModule().build();
    for (const size_t kept : {13, 14, 15}) {
        Bytes bytes = whole;
        bytes.resize(whole.size() - 16 + kept);
        EXPECT_TRUE(isReadyToRun(bytes)) << kept << ": only a read of nothing is an error";
    }
}

TEST_F(ReadyToRunTest, HeadersThatCannotBeReadLeaveItOut) {
    PeAssembler pe = nativeModule();
    pe.exports(0x4000);
    Bytes bytes = pe.build();
    ASSERT_TRUE(isReadyToRun(bytes));
    bytes.resize(pe.layout().sections[3] + 39); // in the export directory
    expectLog("ASSERTION FAILED: 'readAt(file, offset, directory)'");
    EXPECT_FALSE(isReadyToRun(bytes));
}

TEST_F(ReadyToRunTest, ADebugDirectoryCutShortDoesNotMatter) {
    PeAssembler pe = nativeModule();
    pe.directory(6, nativeRva, 10 * 28);
    expectLog("ASSERTION FAILED: 'result != RecordResult::Cut'");
    EXPECT_TRUE(isReadyToRun(pe));
}

} // namespace
} // namespace ORN_3_30
