#include "support/dwarf_assembler.h"
#include "support/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>

namespace orn_test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

std::string outputOf(const std::string& command) {
    std::string output;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    std::array<char, 4096> buffer;
    while (const std::size_t count = pipe ? fread(buffer.data(), 1, buffer.size(), pipe) : 0)
        output.append(buffer.data(), count);
    if (pipe)
        pclose(pipe);
    return output;
}

/// What readelf makes of the sections of `dwarf`.
std::string dumped(const DwarfAssembler& dwarf, const std::string& what) {
    ElfAssembler elf;
    dwarf.addTo(elf);
    TempDir directory;
    const std::string path = directory.path() + "/module";
    elf.write(path);
    return outputOf("readelf --debug-dump=" + what + " '" + path + "'");
}

bool hasReadelf() {
    return outputOf("readelf --version").find("GNU readelf") != std::string::npos;
}

class DwarfAssemblerTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!hasReadelf())
            GTEST_SKIP() << "readelf is not installed";
    }
};

TEST_F(DwarfAssemblerTest, ReadelfAgreesOnUnitsOfEveryVersionAndFormat) {
    for (const uint16_t version : {2, 3, 4}) {
        for (const bool is64Bit : {false, true}) {
            DwarfAssembler dwarf;
            dwarf.abbreviation(1, 0x11, true, {{0x03, 0x08}, {0x25, 0x0e}, {0x11, 0x01}});
            dwarf.abbreviation(2, 0x2e, false, {{0x03, 0x08}, {0x01, 0x13}}).endAbbreviations();
            DwarfUnitOptions options;
            options.version = version;
            options.is64Bit = is64Bit;
            dwarf.beginUnit(options).entry(1, {"a.c", "producer", 0x401000});
            dwarf.entry(2, {"f", DwarfValue::ref("g")}, "f").entry(2, {"g", DwarfValue::ref("f")}, "g");
            dwarf.null().endUnit();
            const std::string dump = dumped(dwarf, "info");
            EXPECT_THAT(dump, HasSubstr("Version:       " + std::to_string(version)));
            EXPECT_THAT(dump, HasSubstr(is64Bit ? "(64-bit)" : "(32-bit)"));
            EXPECT_THAT(dump, HasSubstr("DW_TAG_compile_unit"));
            EXPECT_THAT(dump, HasSubstr(": a.c"));
            EXPECT_THAT(dump, HasSubstr("): producer"));
            EXPECT_THAT(dump, HasSubstr("0x401000"));
            char reference[32];
            std::snprintf(reference, sizeof(reference), "<0x%llx>",
                          static_cast<unsigned long long>(dwarf.offsetOf("g")));
            EXPECT_THAT(dump, HasSubstr(reference));
            EXPECT_THAT(dump, Not(HasSubstr("readelf: ")));
        }
    }
}

TEST_F(DwarfAssemblerTest, ReadelfAgreesOnEveryForm) {
    DwarfAssembler dwarf;
    dwarf.abbreviation(1, 0x11, false,
                       {{0x2000, 0x0b}, {0x2001, 0x05}, {0x2002, 0x06}, {0x2003, 0x07}, {0x2004, 0x0d},
                        {0x2005, 0x0f}, {0x2006, 0x0c}, {0x2007, 0x08}, {0x2008, 0x0a}, {0x2009, 0x03},
                        {0x200a, 0x04}, {0x200b, 0x09}, {0x200c, 0x18}, {0x200d, 0x19}, {0x200e, 0x17},
                        {0x200f, 0x10}, {0x2010, 0x11}, {0x2011, 0x12}, {0x2012, 0x14}, {0x2013, 0x15},
                        {0x2014, 0x16}, {0x03, 0x08}});
    dwarf.endAbbreviations();
    const std::vector<uint8_t> block = {0x96};
    dwarf.beginUnit()
        .entry(1,
               {1,
                2,
                3,
                4,
                -5,
                600,
                1,
                "text",
                block,
                block,
                block,
                block,
                block,
                0,
                7,
                DwarfValue::ref("top"),
                DwarfValue::ref("top"),
                DwarfValue::ref("top"),
                DwarfValue::ref("top"),
                DwarfValue::ref("top"),
                DwarfValue::indirect(0x05, 8),
                "the last"},
               "top")
        .endUnit();
    const std::string dump = dumped(dwarf, "info");
    EXPECT_THAT(dump, HasSubstr(": -5"));
    EXPECT_THAT(dump, HasSubstr(": 600"));
    EXPECT_THAT(dump, HasSubstr(": the last"));
    EXPECT_THAT(dump, Not(HasSubstr("readelf: ")));
}

TEST_F(DwarfAssemblerTest, ReadelfAgreesOnLineProgramsOfEveryVersionAndFormat) {
    for (const uint16_t version : {2, 3, 4}) {
        for (const bool is64Bit : {false, true}) {
            DwarfAssembler dwarf;
            DwarfLineOptions options;
            options.version = version;
            options.is64Bit = is64Bit;
            dwarf.beginLines(options).includeDirectory("inc").endIncludeDirectories();
            dwarf.file("a.c").file("b.h", 1, 2, 3).endFiles();
            dwarf.setAddress(0x401000).special(0, 4).special(3, -2).opULEB(2, 10).opSLEB(3, 20).op(1);
            dwarf.fixedAdvance(16).op(8).defineFile("c.h").endSequence().endLines();
            const std::string dump = dumped(dwarf, "rawline");
            EXPECT_THAT(dump, HasSubstr("DWARF Version:               " + std::to_string(version)));
            EXPECT_THAT(dump, HasSubstr("inc"));
            EXPECT_THAT(dump, HasSubstr("b.h"));
            EXPECT_THAT(dump, HasSubstr("set Address to 0x401000"));
            EXPECT_THAT(dump, HasSubstr("advance Address by 3 to 0x401003 and Line by -2 to 3"));
            EXPECT_THAT(dump, HasSubstr("Advance PC by 10 to 0x40100d"));
            EXPECT_THAT(dump, HasSubstr("Advance Line by 20 to 23"));
            EXPECT_THAT(dump, HasSubstr("Advance PC by fixed size amount 16 to 0x40101d"));
            EXPECT_THAT(dump, HasSubstr("End of Sequence"));
            EXPECT_THAT(dump, Not(HasSubstr("readelf: ")));
        }
    }
}

TEST_F(DwarfAssemblerTest, ALengthMayLie) {
    DwarfAssembler dwarf;
    DwarfUnitOptions options;
    options.length = 0x1234;
    dwarf.beginUnit(options).null().endUnit();
    const std::vector<uint8_t> bytes = dwarf.info().bytes();
    EXPECT_EQ(bytes[0], 0x34);
    EXPECT_EQ(bytes[1], 0x12);
}

TEST_F(DwarfAssemblerTest, AnEntryHasAValueForEachAttribute) {
    DwarfAssembler dwarf;
    dwarf.abbreviation(1, 0x11, false, {{0x03, 0x08}}).endAbbreviations().beginUnit();
    EXPECT_THROW(dwarf.entry(1, {}), std::logic_error);
}

} // namespace
} // namespace orn_test
