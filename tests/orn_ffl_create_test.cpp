#include "orn_ffl_create.h"

#include "orn_fflelf.h"
#include "orn_fflpe.h"
#include "orn_moduleimage.h"
#include "support/allocation.h"
#include "support/byte_assembler.h"
#include "support/elf_assembler.h"
#include "support/orn_fixture.h"
#include "support/temp_dir.h"

#include <string>
#include <vector>

using namespace ORN_3_30;
using orn_test::ByteAssembler;
using orn_test::ElfAssembler;
using orn_test::ElfClass;

namespace {

std::string asText(const std::vector<uint8_t>& bytes) {
    return {bytes.begin(), bytes.end()};
}

/// A PE file as far as its signature test goes: the new header at 0x80.
ByteAssembler peHeaders() {
    ByteAssembler pe;
    pe.u16(0x5A4D).padTo(60).u32(0x80).padTo(0x80).u32(0x4550).padTo(0x80 + 248);
    return pe;
}

std::string elfFile(ElfClass elfClass = ElfClass::k64) {
    ElfAssembler elf(elfClass);
    elf.section(".text", SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR).address(0x1000).zeros(16);
    elf.loadAllSections();
    return asText(elf.build());
}

class RecognitionTest : public test::OrnTest {
protected:
    status_t create(const std::string& name, const std::string& contents, unsigned long long offset = 0) {
        path = directory.write(name, contents);
        return IFileFormatLoader::create(out, new FileImage(path.c_str(), offset, arch_unknown), "");
    }
    bool isElfLoader() { return dynamic_cast<ElfFileLoader*>(out.get()) != nullptr; }
    bool isPELoader() { return dynamic_cast<PEExecFileLoader*>(out.get()) != nullptr; }

    orn_test::TempDir directory;
    std::string path;
    SymMgrObjectPtr<IFileFormatLoader> out;
};

} // namespace

TEST_F(RecognitionTest, AnELFFileIsKnownByItsContents) {
    EXPECT_EQ(create("module.exe", elfFile()), status_Ok);
    ASSERT_TRUE(isElfLoader());
    EXPECT_EQ(out->getExecFormat(), exec_format_elf);
    EXPECT_EQ(out->getPath(), path);
    EXPECT_EQ(create("module", elfFile(ElfClass::k32)), status_Ok);
    EXPECT_TRUE(isElfLoader());
}

TEST_F(RecognitionTest, NoImageIsAnInvalidArgument) {
    ASSERT_EQ(create("module", elfFile()), status_Ok);
    EXPECT_EQ(IFileFormatLoader::create(out, nullptr, ""), status_InvalidArg);
    EXPECT_FALSE(out);
}

TEST_F(RecognitionTest, AFileOfNoKnownFormatGivesNoLoader) {
    EXPECT_EQ(create("module", std::string(300, 'x')), status_BadFileFormat);
    EXPECT_FALSE(out);
    EXPECT_EQ(create("module", "\x7F" + std::string("ELG") + std::string(300, 'x')), status_BadFileFormat);
    EXPECT_FALSE(out);
}

TEST_F(RecognitionTest, AFileShorterThanAnyHeaderGivesNoLoader) {
    EXPECT_EQ(create("module", ""), status_BadFileFormat);
    EXPECT_EQ(create("module", "\x7F"
                               "EL"),
              status_BadFileFormat);
    EXPECT_EQ(create("module", std::string(63, 'M')), status_BadFileFormat);
    EXPECT_FALSE(out);
    expectLog("ASSERTION FAILED: 'file.read(dosHeaderSize, &dosHeader) == dosHeaderSize'", 3);
}

TEST_F(RecognitionTest, ADamagedELFFileHasALoaderAndAFailure) {
    std::string damaged = elfFile();
    damaged[EI_CLASS] = 7;
    EXPECT_EQ(create("module", damaged), status_BadFileFormat);
    ASSERT_TRUE(isElfLoader());
    EXPECT_EQ(out->getStatus(), status_BadFileFormat);
    expectLog("neither ELFCLASS32 nor ELFCLASS64");
}

TEST_F(RecognitionTest, APEFileIsKnownByItsContents) {
    EXPECT_EQ(create("module.so", asText(peHeaders().bytes())), status_Ok);
    ASSERT_TRUE(isPELoader());
    EXPECT_EQ(out->getExecFormat(), exec_format_pe);
    EXPECT_EQ(out->getPath(), path);
}

TEST_F(RecognitionTest, AModuleInsideAPEFileIsAlwaysELF) {
    ByteAssembler container = peHeaders();
    container.padTo(0x400);
    const std::string elf = elfFile();
    EXPECT_EQ(create("module", asText(container.bytes()) + elf, 0x400), status_Ok);
    EXPECT_TRUE(isElfLoader());

    EXPECT_EQ(create("module", asText(container.bytes()) + std::string(300, '\0'), 0x400),
              status_BadFileFormat);
    EXPECT_TRUE(isElfLoader()) << "and the status says that the bytes there are none";
    allowLog("");
}

TEST_F(RecognitionTest, AKernelIsNotTestedForPE) {
    EXPECT_EQ(create("vmlinux", asText(peHeaders().bytes())), status_BadFileFormat);
    EXPECT_EQ(create("vmlinux-short", "x"), status_BadFileFormat) << "and nothing is logged";
    EXPECT_EQ(create("vmlinu.elf", elfFile()), status_Ok);
}

TEST_F(RecognitionTest, AKernelsNameCountsAtTheStartOfTheBaseNameOnly) {
    EXPECT_EQ(create("my-vmlinux", asText(peHeaders().bytes())), status_Ok);
    EXPECT_TRUE(isPELoader());
    directory.makeDirectory("vmlinux");
    EXPECT_EQ(create("vmlinux/module", asText(peHeaders().bytes())), status_Ok);
    EXPECT_TRUE(isPELoader());
}

TEST_F(RecognitionTest, AMadeUpKernelHasALoader) {
    EXPECT_EQ(IFileFormatLoader::create(out, new BogusELFImage("vmlinux-x86_64", arch_unknown), ""),
              status_Ok);
    ASSERT_TRUE(isElfLoader());
    EXPECT_EQ(out->getImageBase(), 0xFFFFFFFF80000000u);
    EXPECT_EQ(out->getArch(), arch_x86_64);
    ASSERT_NE(out->findSegment(0xFFFFFFFFA0001234u), nullptr);
    EXPECT_EQ(out->findSegment(0xFFFFFFFFA0001234u)->getFileSize(), 0u);
}

TEST_F(RecognitionTest, RecognitionIsTraced) {
    setLogLevel(test::traceLevel);
    EXPECT_EQ(IFileFormatLoader::create(out, nullptr, ""), status_InvalidArg);
    EXPECT_EQ(internal::createFileFormatLoader(out, nullptr, ""), status_InvalidArg);
    EXPECT_EQ(messages(test::traceLevel),
              (std::vector<std::string>{"ENTER: create", "EXIT:  create", "ENTER: create", "EXIT:  create"}));
}

TEST_F(RecognitionTest, ALoaderThatIsNotMadeForWantOfMemorySaysSo) {
    if (!ORN_3_30::test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    path = directory.write("a-name-that-is-too-long-for-the-short-strings", elfFile());
    const SymMgrObjectPtr<IModuleImage> image = new FileImage(path.c_str(), 0, arch_unknown);
    {
        test::FailingAllocation failing(1);
        EXPECT_EQ(IFileFormatLoader::create(out, image, ""), status_OutOfMemory);
        EXPECT_TRUE(failing.happened());
    }
    EXPECT_FALSE(out);
    expectLog("Out of memory");
    test::FailingAllocation failing(1);
    EXPECT_THROW((void)internal::createFileFormatLoader(out, image, ""), std::bad_alloc);
}

// --- The signature test of PE files

namespace {

class PESignatureTest : public RecognitionTest {
protected:
    bool passes(const ByteAssembler& pe) { return isPE(directory.write("pe", asText(pe.bytes())).c_str()); }
};

} // namespace

TEST_F(PESignatureTest, TheTwoSignaturesMakeAPEFile) {
    EXPECT_TRUE(passes(peHeaders()));
    EXPECT_FALSE(passes(peHeaders().overwriteAt(0, 0x5A4E, 2)));
    EXPECT_FALSE(passes(peHeaders().overwriteAt(0x80, 0x454E, 2)));
}

TEST_F(PESignatureTest, OfTheSecondSignature16BitsCount) {
    EXPECT_TRUE(passes(peHeaders().overwriteAt(0x80, 0xABCD4550, 4)));
}

TEST_F(PESignatureTest, AHeaderThatIsCutOffIsLogged) {
    EXPECT_FALSE(passes(peHeaders().overwriteAt(60, 0x81, 4)));
    EXPECT_FALSE(passes(peHeaders().overwriteAt(60, 0xFFFFFFFF, 4)));
    expectLog("ASSERTION FAILED: 'file.read(ntHeadersSize, &ntHeaders) == ntHeadersSize'", 2);
}

TEST_F(PESignatureTest, AMissingFileIsNone) {
    EXPECT_FALSE(isPE(directory.path("missing").c_str()));
    EXPECT_FALSE(isPE(nullptr));
    expectLog("ASSERTION FAILED: ", 2);
}
