// Facts about the assembler of PE images. That its files are valid and say what was asked is judged by
// objdump, which shares no code with it.

#include "support/command.h"
#include "support/pe_assembler.h"
#include "support/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace orn_test {
namespace {

using testing::HasSubstr;
using testing::Not;

class PeAssemblerTest : public testing::Test {
protected:
    void SetUp() override {
        if (commandOutput("objdump -i").find("pei-x86-64") == std::string::npos)
            GTEST_SKIP() << "this objdump does not read PE images";
    }

    /// With runs of blanks made one.
    std::string objdump(const PeAssembler& pe, const std::string& options) {
        const std::vector<uint8_t> bytes = pe.build();
        const std::string file =
            m_directory.write("module.dll", {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
        int exitStatus = 0;
        const std::string output =
            commandOutput("objdump " + options + " '" + file + "' 2>&1 | tr -s ' \t' ' '", &exitStatus);
        EXPECT_EQ(exitStatus, 0);
        EXPECT_THAT(output, Not(HasSubstr("arning")));
        return output;
    }

private:
    TempDir m_directory;
};

PeAssembler module(PeClass peClass) {
    PeAssembler pe(peClass);
    pe.entry(0x1010).baseOfCode(0x1000);
    pe.section(".text", 0x1000, peCode).data.fill(0x123, 0xC3);
    pe.section(".data", 0x2000, peData).data.fill(0x45, 0xDD);
    pe.section(".bss", 0x3000, peNoBytes).virtualSize = 0x678;
    return pe;
}

TEST_F(PeAssemblerTest, HeadersSayWhatWasAsked) {
    const std::string wide = objdump(module(PeClass::k64).imageBase(0x7FF712340000), "-p");
    EXPECT_THAT(wide, HasSubstr("file format pei-x86-64"));
    EXPECT_THAT(wide, HasSubstr("Magic 020b (PE32+)"));
    EXPECT_THAT(wide, HasSubstr("AddressOfEntryPoint 0000000000001010"));
    EXPECT_THAT(wide, HasSubstr("BaseOfCode 0000000000001000"));
    EXPECT_THAT(wide, HasSubstr("ImageBase 00007ff712340000"));
    EXPECT_THAT(wide, HasSubstr("SizeOfImage 00004000"));
    const std::string narrow = objdump(module(PeClass::k32), "-p");
    EXPECT_THAT(narrow, HasSubstr("file format pei-i386"));
    EXPECT_THAT(narrow, HasSubstr("Magic 010b (PE32)"));
    EXPECT_THAT(narrow, HasSubstr("ImageBase 00400000"));
}

TEST_F(PeAssemblerTest, SectionsLieWhereTheLayoutSays) {
    for (const PeClass peClass : {PeClass::k32, PeClass::k64}) {
        PeAssembler pe = module(peClass);
        EXPECT_EQ(pe.layout().sections, (std::vector<uint32_t>{0x200, 0x400, 0}));
        const std::string base = peClass == PeClass::k64 ? "000000018000" : "0040";
        const std::string output = objdump(pe, "-h");
        EXPECT_THAT(output, HasSubstr("0 .text 00000123 " + base + "1000 " + base + "1000 00000200"));
        EXPECT_THAT(output, HasSubstr("1 .data 00000045 " + base + "2000 " + base + "2000 00000400"));
        EXPECT_THAT(output, HasSubstr("2 .bss 00000678 " + base + "3000 " + base + "3000 00000000"));
        EXPECT_THAT(objdump(pe, "-s -j .data"), HasSubstr("2040 dddddddd dd"));
    }
}

TEST_F(PeAssemblerTest, LongNamesAreFound) {
    PeAssembler pe = module(PeClass::k64);
    pe.section(".debug_abbrev", 0x4000, peData).data.fill(4);
    pe.section(".another_long_name", 0x5000, peData).data.fill(4);
    const std::string output = objdump(pe, "-h");
    EXPECT_THAT(output, HasSubstr("3 .debug_abbrev 00000004"));
    EXPECT_THAT(output, HasSubstr("4 .another_long_name 00000004"));
}

TEST_F(PeAssemblerTest, ExportsSayWhatWasAsked) {
    PeAssembler pe = module(PeClass::k64);
    PeExports& exports = pe.exports(0x4000).base(5);
    exports.add("function", 0x1010);
    exports.addUnnamed(0);
    exports.addUnnamed(0x1020);
    exports.addForwarder("elsewhere", "OTHER.Function");
    exports.alias("second_name", 0);
    const std::string output = objdump(pe, "-p");
    EXPECT_THAT(output, HasSubstr("Ordinal Base 5"));
    EXPECT_THAT(output, HasSubstr("[ 0] +base[ 5] 1010 Export RVA"));
    EXPECT_THAT(output, Not(HasSubstr("[ 1] +base[ 6]")));
    EXPECT_THAT(output, HasSubstr("[ 2] +base[ 7] 1020 Export RVA"));
    EXPECT_THAT(output, HasSubstr("Forwarder RVA -- OTHER.Function"));
    EXPECT_THAT(output, HasSubstr("[ 0] function\n"));
    EXPECT_THAT(output, HasSubstr("[ 3] elsewhere\n"));
    EXPECT_THAT(output, HasSubstr("[ 0] second_name\n"));
}

TEST_F(PeAssemblerTest, DebugEntriesLeadToTheirRecords) {
    PeAssembler pe = module(PeClass::k64);
    pe.debugEntry(0x4000, 2, PeAssembler::rsds({1, 2, 3, 4}, 7, "path.pdb"));
    pe.debugEntry(0x4000, 2, PeAssembler::nb10(0x11223344, 9, "old.pdb"));
    const std::string output = objdump(pe, "-p");
    EXPECT_THAT(output, HasSubstr("There is a debug directory in .debug"));
    EXPECT_THAT(output, HasSubstr("age 7 pdb path.pdb"));
    EXPECT_THAT(output, HasSubstr("format NB10"));
    EXPECT_THAT(output, HasSubstr("age 9"));
}

TEST_F(PeAssemblerTest, TheCLRHeaderIsADirectory) {
    PeAssembler pe = module(PeClass::k64);
    pe.clrHeader(0x4000, 0x1000);
    EXPECT_THAT(objdump(pe, "-p"), HasSubstr("Entry e 0000000000004000 00000048 CLR Runtime Header"));
    EXPECT_THAT(objdump(pe, "-s -j .cormeta"), HasSubstr("4000 48000000 02000500"));
    EXPECT_THAT(objdump(pe, "-s -j .cormeta"), HasSubstr("4040 00100000 10000000"));
}

TEST(PeAssembler, DamageIsLeftToTheCaller) {
    PeAssembler pe;
    auto& section = pe.section(".text", 0x1000, peCode);
    section.data.fill(4);
    section.sizeOfRawData = 0x11111111;
    section.pointerToRawData = 0x22222222;
    section.shortName = "abcdefgh";
    std::vector<uint8_t> bytes = pe.build();
    const std::string header(bytes.begin() + pe.layout().sectionHeader(0),
                             bytes.begin() + pe.layout().sectionHeader(1));
    EXPECT_EQ(header.substr(0, 8), "abcdefgh");
    EXPECT_EQ(header.substr(16, 8), "\x11\x11\x11\x11\"\"\"\"");
    EXPECT_EQ(bytes.size(), pe.layout().fileSize);
    putNumber(bytes, 2, 0x1234, 2);
    EXPECT_EQ(bytes[2], 0x34);
    EXPECT_EQ(bytes[3], 0x12);
    EXPECT_THROW(putNumber(bytes, bytes.size() - 1, 0, 2), std::logic_error);
    section.shortName = "ninechars";
    EXPECT_THROW((void)pe.build(), std::logic_error);
}

} // namespace
} // namespace orn_test
