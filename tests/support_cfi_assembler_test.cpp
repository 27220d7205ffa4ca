#include "support/cfi_assembler.h"
#include "support/elf_assembler.h"
#include "support/temp_dir.h"
#include "support/tool_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orn_test {
namespace {

using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class CfiAssemblerTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::system("readelf --version >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "readelf is not installed";
    }

    /// What readelf makes of the section, without a word of complaint.
    static std::string dumped(const CfiAssembler& cfi, const char* how, ElfClass elfClass = ElfClass::k64) {
        ElfAssembler elf(elfClass);
        elf.section(".eh_frame", SHT_PROGBITS, SHF_ALLOC).address(cfi.sectionAddress()).append(cfi.bytes());
        TempDir directory;
        elf.write(directory.path("module"));
        const ProcessResult result = runProcess({"readelf", how, directory.path("module")});
        EXPECT_THAT(result.error, IsEmpty());
        return result.output;
    }
};

TEST_F(CfiAssemblerTest, ReadelfAgreesOnEntriesAndTheirRows) {
    CfiAssembler cfi;
    const size_t cie = cfi.beginCie();
    cfi.defCfa(7, 8).offset(16, 1).end();
    cfi.beginFde(cie, 0x1000, 0x20);
    cfi.advance(1).defCfaOffset(16).advance(3).defCfaRegister(6).end();
    cfi.terminator();
    const std::string dump = dumped(cfi, "--debug-dump=frames-interp");
    EXPECT_THAT(dump, HasSubstr("CIE \"zR\" cf=1 df=-8 ra=16"));
    EXPECT_THAT(dump, HasSubstr("pc=0000000000001000..0000000000001020"));
    EXPECT_THAT(dump, HasSubstr("0000000000001001 rsp+16"));
    EXPECT_THAT(dump, HasSubstr("0000000000001004 rbp+16"));
    EXPECT_THAT(dump, HasSubstr("ZERO terminator"));
}

TEST_F(CfiAssemblerTest, ReadelfAgreesOnInstructions) {
    CfiAssembler cfi;
    const size_t cie = cfi.beginCie();
    cfi.defCfa(7, 8).end();
    cfi.beginFde(cie, 0x1000, 0x20);
    cfi.rememberState().restoreState().restore(3).op(0x05, {17, 2}).raw({0x02, 0x10}).end();
    const std::string dump = dumped(cfi, "--debug-dump=frames");
    EXPECT_THAT(dump, HasSubstr("DW_CFA_remember_state"));
    EXPECT_THAT(dump, HasSubstr("DW_CFA_restore_state"));
    EXPECT_THAT(dump, HasSubstr("DW_CFA_restore: r3"));
    EXPECT_THAT(dump, ContainsRegex("DW_CFA_offset_extended: r17 .* at cfa-16"));
    EXPECT_THAT(dump, HasSubstr("DW_CFA_advance_loc1: 16 to 0000000000001010"));
}

TEST_F(CfiAssemblerTest, ReadelfAgreesOnAugmentationsAndEncodings) {
    CfiAssembler cfi;
    CieOptions options;
    options.augmentation = "zPLR";
    options.augmentationData = {0x03, 1, 2, 3, 4, 0x1b, 0x1b};
    const size_t cie = cfi.beginCie(options);
    cfi.end();
    FdeOptions function;
    function.augmentationData = {9, 9, 9, 9};
    cfi.beginFde(cie, 0x1000, 0x20, function);
    cfi.end();
    const std::string dump = dumped(cfi, "--debug-dump=frames");
    EXPECT_THAT(dump, ContainsRegex("Augmentation: +\"zPLR\""));
    EXPECT_THAT(dump, HasSubstr("03 01 02 03 04 1b 1b"));
    EXPECT_THAT(dump, HasSubstr("Augmentation data:     09 09 09 09"));
}

TEST_F(CfiAssemblerTest, ReadelfAgreesOnPlainPointersOf32Bits) {
    CfiAssembler cfi(0x2000, 4);
    CieOptions options;
    options.augmentation = "";
    options.dataAlignment = -4;
    options.returnRegister = 8;
    const size_t cie = cfi.beginCie(options);
    cfi.defCfa(4, 4).end();
    cfi.beginFde(cie, 0x1000, 0x20, {std::nullopt, std::nullopt, false, {}, {}});
    cfi.end();
    const std::string dump = dumped(cfi, "--debug-dump=frames-interp", ElfClass::k32);
    EXPECT_THAT(dump, HasSubstr("CIE \"\" cf=1 df=-4 ra=8"));
    EXPECT_THAT(dump, HasSubstr("pc=00001000..00001020"));
    EXPECT_THAT(dump, HasSubstr("esp+4"));
}

// readelf takes 8 bytes for an id behind a length of 8, where this kind of section has 4.
TEST(CfiAssembler, ALongLengthHasTwelveBytesAndLeavesTheIdAsItIs) {
    CfiAssembler cfi;
    CieOptions common;
    FdeOptions function;
    common.is64Bit = function.is64Bit = true;
    const size_t cie = cfi.beginCie(common);
    cfi.end();
    const size_t fde = cfi.beginFde(cie, 0x1000, 0x20, function);
    cfi.end();
    const std::vector<uint8_t> bytes = cfi.bytes().bytes();
    EXPECT_THAT(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 12),
                ElementsAre(0xff, 0xff, 0xff, 0xff, fde - 12, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(bytes.at(fde + 12), fde + 12 - cie);
}

TEST(CfiAssembler, ALengthOrAnIdMayBeALie) {
    CfiAssembler cfi;
    CieOptions options;
    options.length = 0x77;
    const size_t cie = cfi.beginCie(options);
    cfi.end();
    FdeOptions function;
    function.id = 0x99;
    const size_t fde = cfi.beginFde(cie, 0, 0, function);
    cfi.end();
    EXPECT_EQ(cfi.bytes().bytes().at(cie), 0x77);
    EXPECT_EQ(cfi.bytes().bytes().at(fde + 4), 0x99);
}

TEST(CfiAssembler, AnUnknownEncodingIsAMisuse) {
    CfiAssembler cfi;
    FdeOptions function;
    function.encoding = 0x15;
    EXPECT_THROW(cfi.beginFde(0, 0, 0, function), std::logic_error);
}

} // namespace
} // namespace orn_test
