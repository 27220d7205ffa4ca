// Facts about the assembler of ELF files. That its files are valid and say what was asked is judged by
// readelf, which shares no code with it; the exact places of damaged fields are judged through the structures
// of <elf.h>.

#include "support/elf_assembler.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace orn_test {
namespace {

using Bytes = std::vector<uint8_t>;

class Scratch {
public:
    Scratch() {
        std::string pattern = (std::filesystem::temp_directory_path() / "elf_assembler_XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        m_path = pattern;
    }
    ~Scratch() { std::filesystem::remove_all(m_path); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    std::string path(const std::string& name) const { return (m_path / name).string(); }

private:
    std::filesystem::path m_path;
};

// What `readelf` prints, with runs of blanks made one; its complaints are a failure.
std::string readelf(const ElfAssembler& elf, const std::string& options = "-hSlsrn") {
    const Scratch scratch;
    const std::string file = scratch.path("file.elf");
    elf.write(file);
    const std::string command = "readelf " + options + " -W " + file + " 2>" + scratch.path("errors");
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        throw std::runtime_error("cannot run readelf");
    }
    std::string text;
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) {
        if (c != ' ' || text.empty() || text.back() != ' ') {
            text.push_back(static_cast<char>(c));
        }
    }
    EXPECT_EQ(pclose(pipe), 0);
    std::stringstream errors;
    errors << std::ifstream(scratch.path("errors")).rdbuf();
    EXPECT_EQ(errors.str(), "");
    return text;
}

testing::AssertionResult contains(const std::string& text, const std::string& part) {
    if (text.find(part) != std::string::npos) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "no '" << part << "' in:\n" << text;
}

template <typename T>
T structAt(const Bytes& bytes, uint64_t offset) {
    T value;
    EXPECT_LE(offset + sizeof(T), bytes.size());
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

Elf64_Shdr sectionHeader64(const ElfAssembler& elf, std::string_view name) {
    const ElfLayout layout = elf.layout();
    return structAt<Elf64_Shdr>(elf.build(), layout.sectionHeaderOffset(layout.sectionIndex(name)));
}

Elf64_Phdr programHeader64(const ElfAssembler& elf, size_t index) {
    return structAt<Elf64_Phdr>(elf.build(), elf.layout().programHeaderOffset(index));
}

// One of everything.
ElfAssembler wholeModule(ElfClass elfClass) {
    ElfAssembler elf(elfClass);
    elf.entry(0x1010);
    auto id = elf.buildId({0xAB, 0xCD, 0xEF, 0x01}).address(0x200);
    elf.dynamicSymbols().section().address(0x300);
    elf.dynamicSymbols().strings().address(0x400);
    const auto imported = elf.dynamicSymbol("imported", 0, 0, STB_GLOBAL, STT_FUNC, SHN_UNDEF);
    auto relocations = elf.relocations(".rela.plt", SHT_RELA, ".plt", ".dynsym", SHF_ALLOC);
    relocations.add(0x3000, imported, R_X86_64_JUMP_SLOT, 0x11).section().address(0x500);
    auto plt = elf.section(".plt", SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR).address(0x1000).zeros(0x10);
    auto text = elf.section(".text", SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR).address(0x1010).zeros(0x100);
    auto data = elf.section(".data", SHT_PROGBITS, SHF_ALLOC | SHF_WRITE).address(0x3000).zeros(0x20);
    auto bss = elf.section(".bss", SHT_NOBITS, SHF_ALLOC | SHF_WRITE).address(0x3020).size(0x1000);
    elf.debugLink("module.debug", 0x12345678);
    elf.load({id, elf.dynamicSymbols().section(), elf.dynamicSymbols().strings(), relocations.section()});
    elf.load({plt, text});
    elf.load({data, bss});
    elf.segment(PT_NOTE).covers({id});
    elf.symbol("helper", 0x1020, 8, STB_LOCAL, STT_FUNC, text);
    elf.symbol("main", 0x1010, 16, STB_GLOBAL, STT_FUNC, ".text");
    elf.symbol("table", 0x3008, 4, STB_WEAK, STT_OBJECT);
    elf.symbol("constant", 0x77, 0, STB_GLOBAL, STT_NOTYPE, SHN_ABS);
    return elf;
}

TEST(ElfAssembler, ReadelfSeesTheHeaderOfBothClasses) {
    const auto text64 = readelf(wholeModule(ElfClass::k64));
    EXPECT_TRUE(contains(text64, "Class: ELF64\n"));
    EXPECT_TRUE(contains(text64, "Data: 2's complement, little endian\n"));
    EXPECT_TRUE(contains(text64, "Type: DYN"));
    EXPECT_TRUE(contains(text64, "Machine: Advanced Micro Devices X86-64\n"));
    EXPECT_TRUE(contains(text64, "Entry point address: 0x1010\n"));

    const auto text32 = readelf(wholeModule(ElfClass::k32));
    EXPECT_TRUE(contains(text32, "Class: ELF32\n"));
    EXPECT_TRUE(contains(text32, "Machine: Intel 80386\n"));
    EXPECT_TRUE(contains(text32, "Entry point address: 0x1010\n"));
}

TEST(ElfAssembler, ReadelfSeesTheSectionsOfBothClasses) {
    const auto text64 = readelf(wholeModule(ElfClass::k64));
    EXPECT_TRUE(contains(text64, ".text PROGBITS 0000000000001010 001010 000100 00 AX 0 0 1\n"));
    EXPECT_TRUE(contains(text64, ".bss NOBITS 0000000000003020 002020 001000 00 WA 0 0 1\n"));
    EXPECT_TRUE(contains(text64, "[ 4] .rela.plt RELA 0000000000000500 000500 000018 18 A 2 5 8\n"));
    EXPECT_TRUE(contains(text64, ".shstrtab STRTAB 0000000000000000"));

    const auto text32 = readelf(wholeModule(ElfClass::k32));
    EXPECT_TRUE(contains(text32, ".text PROGBITS 00001010 001010 000100 00 AX 0 0 1\n"));
    EXPECT_TRUE(contains(text32, ".bss NOBITS 00003020 002020 001000 00 WA 0 0 1\n"));
    EXPECT_TRUE(contains(text32, ".rela.plt RELA 00000500 000500 00000c 0c A 2 5 4\n"));
}

TEST(ElfAssembler, ReadelfSeesTheSymbolsOfBothClasses) {
    for (const ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        const auto text = readelf(wholeModule(elfClass));
        const std::string zeros = elfClass == ElfClass::k64 ? "00000000" : "";
        EXPECT_TRUE(contains(text, "1: " + zeros + "00001020 8 FUNC LOCAL DEFAULT 6 helper\n"));
        EXPECT_TRUE(contains(text, "2: " + zeros + "00001010 16 FUNC GLOBAL DEFAULT 6 main\n"));
        EXPECT_TRUE(contains(text, "3: " + zeros + "00003008 4 OBJECT WEAK DEFAULT 7 table\n"));
        EXPECT_TRUE(contains(text, "4: " + zeros + "00000077 0 NOTYPE GLOBAL DEFAULT ABS constant\n"));
        EXPECT_TRUE(contains(text, "1: " + zeros + "00000000 0 FUNC GLOBAL DEFAULT UND imported\n"));
    }
}

TEST(ElfAssembler, ReadelfSeesTheSegmentsOfBothClasses) {
    const auto text64 = readelf(wholeModule(ElfClass::k64));
    EXPECT_TRUE(contains(
        text64, "LOAD 0x001000 0x0000000000001000 0x0000000000001000 0x000110 0x000110 R E 0x1000\n"));
    EXPECT_TRUE(contains(
        text64, "LOAD 0x002000 0x0000000000003000 0x0000000000003000 0x000020 0x001020 RW 0x1000\n"));
    EXPECT_TRUE(contains(text64, "01 .plt .text \n"));
    EXPECT_TRUE(contains(text64, "02 .data .bss \n"));
    EXPECT_TRUE(contains(text64, "03 .note.gnu.build-id \n"));

    const auto text32 = readelf(wholeModule(ElfClass::k32));
    EXPECT_TRUE(contains(text32, "LOAD 0x001000 0x00001000 0x00001000 0x00110 0x00110 R E 0x1000\n"));
    EXPECT_TRUE(contains(text32, "LOAD 0x002000 0x00003000 0x00003000 0x00020 0x01020 RW 0x1000\n"));
}

TEST(ElfAssembler, ReadelfSeesRelocationsWithAndWithoutAddends) {
    EXPECT_TRUE(
        contains(readelf(wholeModule(ElfClass::k64)),
                 "0000000000003000 0000000100000007 R_X86_64_JUMP_SLOT 0000000000000000 imported + 11\n"));
    for (const ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        ElfAssembler elf(elfClass, std::nullopt, ET_REL);
        auto info = elf.section(".debug_info").zeros(16);
        const auto symbol = elf.symbol("target", 0x40, 0, STB_GLOBAL, STT_NOTYPE, info);
        elf.relocations(".rel.debug_info", SHT_REL, info, ".symtab")
            .add(4, symbol, R_386_32)
            .add(8, symbol, R_386_32);
        const auto text = readelf(elf);
        EXPECT_TRUE(contains(text, "Relocation section '.rel.debug_info' at offset"));
        EXPECT_TRUE(contains(text, "contains 2 entries"));
        EXPECT_TRUE(contains(text, elfClass == ElfClass::k64
                                       ? "0000000000000008 0000000100000001"
                                       : "00000008 00000101 R_386_32 00000040 target\n"));
    }
}

TEST(ElfAssembler, ReadelfSeesTheBuildId) {
    for (const ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        EXPECT_TRUE(contains(readelf(wholeModule(elfClass)), "Build ID: abcdef01\n"));
    }
}

TEST(ElfAssembler, TheDebugLinkIsNamePaddingAndChecksum) {
    const Bytes contents{'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(debugLinkCrc(contents), 0xCBF43926u);
    ElfAssembler elf;
    auto link = elf.debugLink("ab.debug", 0x04030201);
    EXPECT_EQ(link.data().bytes(), (Bytes{'a', 'b', '.', 'd', 'e', 'b', 'u', 'g', 0, 0, 0, 0, 1, 2, 3, 4}));
}

TEST(ElfAssembler, ReadelfInflatesGenuinelyCompressedSections) {
    for (const ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        ElfAssembler elf(elfClass);
        const std::string text(500, 'x');
        const Bytes contents(text.begin(), text.end());
        elf.compressedSection(".debug_str", contents);
        elf.compressedSection(".zdebug_line_str", contents);
        EXPECT_TRUE(contains(readelf(elf, "-St"), "ZLIB, "));
        EXPECT_TRUE(contains(readelf(elf, "-z -p .debug_str"), text));
        EXPECT_TRUE(contains(readelf(elf, "-z -p .zdebug_line_str"), text));
    }
}

TEST(ElfAssembler, ACompressedSectionMayHoldItsSizeBigEndianAtFour) {
    const Bytes contents(300, 7);
    for (const auto& [elfClass, headerSize] :
         {std::pair(ElfClass::k32, 12U), std::pair(ElfClass::k64, 24U)}) {
        ElfAssembler elf(elfClass);
        const auto bytes =
            elf.compressedSection(".debug_info", contents, ElfCompression::kChdrWithBigEndianSize)
                .data()
                .bytes();
        Bytes header{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 300 >> 8, 300 & 0xFF};
        header.resize(headerSize);
        EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + headerSize), header);
        Bytes inflated(300);
        uLongf size = inflated.size();
        EXPECT_EQ(uncompress(inflated.data(), &size, bytes.data() + headerSize, bytes.size() - headerSize),
                  Z_OK);
        EXPECT_EQ(inflated, contents);
    }
}

TEST(ElfAssembler, PaddedSymbolEntriesAreFurtherApart) {
    for (const auto& [elfClass, entry] : {std::pair(ElfClass::k32, 16U), std::pair(ElfClass::k64, 24U)}) {
        ElfAssembler elf(elfClass);
        elf.symbols().padEntries(4);
        elf.symbol("a", 1).other(STV_HIDDEN);
        const auto bytes = elf.build();
        const auto range = elf.layout().section(".symtab");
        ASSERT_EQ(range.size, 2 * (entry + 4));
        const uint64_t second = range.offset + entry + 4;
        EXPECT_EQ(structAt<uint32_t>(bytes, second), 1u);
        EXPECT_EQ(bytes[second + (elfClass == ElfClass::k64 ? 5 : 13)], STV_HIDDEN);
        EXPECT_EQ(structAt<uint32_t>(bytes, second + entry), 0xCCCCCCCC);
    }
}

TEST(ElfAssembler, SymbolFieldsCanBeDamaged) {
    ElfAssembler elf;
    elf.symbol("a", 1).nameOffset(0x10000).info(0xF5);
    elf.symbols().section().append({0xEE});
    const auto range = elf.layout().section(".symtab");
    ASSERT_EQ(range.size, 2 * sizeof(Elf64_Sym) + 1);
    const auto symbol = structAt<Elf64_Sym>(elf.build(), range.offset + sizeof(Elf64_Sym));
    EXPECT_EQ(symbol.st_name, 0x10000u);
    EXPECT_EQ(symbol.st_info, 0xF5);
    EXPECT_EQ(elf.build()[range.offset + range.size - 1], 0xEE);
}

TEST(ElfAssembler, ASymbolBelongsToTheSectionThatHoldsItsValue) {
    ElfAssembler elf;
    elf.section(".text", SHT_PROGBITS, SHF_ALLOC).address(0x1000).zeros(0x10);
    elf.section(".bss", SHT_NOBITS, SHF_ALLOC).address(0x1010).size(0x10);
    elf.symbol("inText", 0x100F);
    elf.symbol("inBss", 0x1010);
    elf.symbol("outside", 0x1020);
    const auto bytes = elf.build();
    const auto table = elf.layout().section(".symtab").offset;
    EXPECT_EQ(structAt<Elf64_Sym>(bytes, table + sizeof(Elf64_Sym)).st_shndx, 1);
    EXPECT_EQ(structAt<Elf64_Sym>(bytes, table + 2 * sizeof(Elf64_Sym)).st_shndx, 2);
    EXPECT_EQ(structAt<Elf64_Sym>(bytes, table + 3 * sizeof(Elf64_Sym)).st_shndx, SHN_ABS);
}

TEST(ElfAssembler, SymbolsMayTakeTheirAddressFromALabel) {
    ElfAssembler elf;
    auto text = elf.section(".text", SHT_PROGBITS, SHF_ALLOC).address(0x1000).zeros(4);
    text.data().define("f").u8(0xC3);
    EXPECT_EQ(text.addressOf("f"), 0x1004u);
}

TEST(ElfAssembler, LocalSymbolsMayFollowGlobalOnes) {
    ElfAssembler elf;
    auto text = elf.section(".text", SHT_PROGBITS, SHF_ALLOC).address(0x1000).zeros(0x10);
    elf.symbol("global", 0x1000, 1, STB_GLOBAL, STT_FUNC, text);
    elf.symbol("local", 0x1000, 1, STB_LOCAL, STT_FUNC, text);
    const auto printed = readelf(elf);
    EXPECT_TRUE(contains(printed, "1: 0000000000001000 1 FUNC GLOBAL DEFAULT 1 global\n"));
    EXPECT_TRUE(contains(printed, "2: 0000000000001000 1 FUNC LOCAL DEFAULT 1 local\n"));
}

TEST(ElfAssembler, TwoSymbolTablesOfOneNameCanStandSideBySide) {
    ElfAssembler elf;
    elf.symbol("first", 1);
    elf.addSymbolTable(".symtab", ".strtab").add("second", 2);
    const auto printed = readelf(elf);
    EXPECT_TRUE(contains(printed, "0000000000000001 0 FUNC GLOBAL DEFAULT ABS first\n"));
    EXPECT_TRUE(contains(printed, "0000000000000002 0 FUNC GLOBAL DEFAULT ABS second\n"));
}

TEST(ElfAssembler, BigEndianFilesAreBigEndianThroughout) {
    ElfAssembler elf(ElfClass::k64, EM_PPC64, ET_EXEC, ByteOrder::kBig);
    auto text = elf.section(".text", SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR).address(0x1000).zeros(0x10);
    elf.load({text});
    elf.symbol("main", 0x1000, 16);
    const auto printed = readelf(elf);
    EXPECT_TRUE(contains(printed, "big endian"));
    EXPECT_TRUE(contains(printed, "1: 0000000000001000 16 FUNC GLOBAL DEFAULT 1 main\n"));
}

TEST(ElfAssembler, TheDataEncodingByteCanLie) {
    ElfAssembler elf;
    elf.dataEncoding(ELFDATA2MSB).machine(31);
    const auto header = structAt<Elf64_Ehdr>(elf.build(), 0);
    EXPECT_EQ(header.e_ident[EI_DATA], ELFDATA2MSB);
    EXPECT_EQ(header.e_machine, 31);
}

TEST(ElfAssembler, AFileOfNothingIsAHeader) {
    EXPECT_EQ(ElfAssembler(ElfClass::k64).build().size(), sizeof(Elf64_Ehdr));
    EXPECT_EQ(ElfAssembler(ElfClass::k32).build().size(), sizeof(Elf32_Ehdr));
    EXPECT_TRUE(contains(readelf(ElfAssembler()), "There are no sections in this file."));
}

TEST(ElfAssembler, SectionNamesCanBeLeftOut) {
    ElfAssembler elf;
    elf.section(".text").zeros(4);
    elf.withoutSectionNames();
    const auto bytes = elf.build();
    const auto header = structAt<Elf64_Ehdr>(bytes, 0);
    EXPECT_EQ(header.e_shstrndx, 0);
    EXPECT_EQ(header.e_shnum, 2);
    EXPECT_EQ(structAt<Elf64_Shdr>(bytes, elf.layout().sectionHeaderOffset(1)).sh_name, 0u);
}

TEST(ElfAssembler, SectionHeadersCanBeLeftOut) {
    auto elf = wholeModule(ElfClass::k64);
    elf.withoutSectionHeaders();
    EXPECT_TRUE(contains(readelf(elf), "There are no sections in this file."));
    EXPECT_EQ(elf.layout().sectionHeaders.size, 0u);
}

TEST(ElfAssembler, HeaderOverridesChangeNothingElse) {
    auto elf = wholeModule(ElfClass::k64);
    const auto whole = elf.build();
    elf.header().e_phoff = 0x123456789;
    elf.header().e_shstrndx = 0xFFFF;
    elf.header().e_ident[EI_CLASS] = 9;
    auto damaged = elf.build();
    auto header = structAt<Elf64_Ehdr>(damaged, 0);
    EXPECT_EQ(header.e_phoff, 0x123456789u);
    EXPECT_EQ(header.e_shstrndx, 0xFFFF);
    EXPECT_EQ(header.e_ident[EI_CLASS], 9);
    std::copy(whole.begin(), whole.begin() + sizeof(Elf64_Ehdr), damaged.begin());
    EXPECT_EQ(damaged, whole);
}

TEST(ElfAssembler, SectionOverridesChangeTheHeaderAlone) {
    auto elf = wholeModule(ElfClass::k64);
    const auto before = elf.layout();
    auto text = elf.sectionAt(before.sectionIndex(".text"));
    text.header().sh_size = ~uint64_t{0};
    text.header().sh_offset = 5;
    text.header().sh_name = 0x7777;
    const auto header = sectionHeader64(elf, ".text");
    EXPECT_EQ(header.sh_size, ~uint64_t{0});
    EXPECT_EQ(header.sh_offset, 5u);
    EXPECT_EQ(header.sh_name, 0x7777u);
    EXPECT_EQ(elf.layout().section(".text").offset, before.section(".text").offset);
    EXPECT_EQ(elf.layout().fileSize, before.fileSize);
}

TEST(ElfAssembler, SegmentOverridesChangeTheHeaderAlone) {
    ElfAssembler elf;
    auto text = elf.section(".text", SHT_PROGBITS, SHF_ALLOC).address(0x1000).zeros(0x10);
    auto segment = elf.load({text});
    segment.header().p_offset = 1;
    segment.header().p_filesz = 2;
    EXPECT_EQ(programHeader64(elf, 0).p_offset, 1u);
    EXPECT_EQ(programHeader64(elf, 0).p_filesz, 2u);
    EXPECT_EQ(programHeader64(elf, 0).p_memsz, 0x10u);
    EXPECT_EQ(elf.layout().section(".text").offset, 0x1000u);
}

TEST(ElfAssembler, TheNullSectionAndTheNameTableCanBeDamagedToo) {
    ElfAssembler elf;
    elf.section(".text").zeros(1);
    elf.sectionAt(0).header().sh_size = 7;
    elf.sectionNames().header().sh_size = 3;
    const auto layout = elf.layout();
    EXPECT_EQ(structAt<Elf64_Shdr>(elf.build(), layout.sectionHeaderOffset(0)).sh_size, 7u);
    EXPECT_EQ(sectionHeader64(elf, ".shstrtab").sh_size, 3u);
    EXPECT_EQ(elf.sectionNames().index(), 2u);
}

TEST(ElfAssembler, AfterLayoutSeesTheHeadersAndHasTheLastWord) {
    ElfAssembler elf(ElfClass::k32);
    auto text = elf.section(".text").zeros(0x10);
    text.header().sh_size = 1;
    uint64_t seenOffset = 0;
    elf.afterLayout([&](ElfHeaders& headers) {
        seenOffset = headers.sections.at(text.index()).sh_offset;
        EXPECT_EQ(headers.sections.at(text.index()).sh_size, 1u);
        headers.sections.at(text.index()).sh_size = headers.header.e_shoff;
    });
    const auto bytes = elf.build();
    const auto layout = elf.layout();
    EXPECT_EQ(seenOffset, layout.section(".text").offset);
    EXPECT_EQ(structAt<Elf32_Shdr>(bytes, layout.sectionHeaderOffset(text.index())).sh_size,
              layout.sectionHeaders.offset);
}

TEST(ElfAssembler, ThirtyTwoBitStructuresHaveTheirOwnLayout) {
    const auto elf = wholeModule(ElfClass::k32);
    const auto bytes = elf.build();
    const auto layout = elf.layout();
    const auto header = structAt<Elf32_Ehdr>(bytes, 0);
    EXPECT_EQ(header.e_ehsize, sizeof(Elf32_Ehdr));
    EXPECT_EQ(header.e_phentsize, sizeof(Elf32_Phdr));
    EXPECT_EQ(header.e_shentsize, sizeof(Elf32_Shdr));
    const auto segment = structAt<Elf32_Phdr>(bytes, layout.programHeaderOffset(1));
    EXPECT_EQ(segment.p_flags, static_cast<uint32_t>(PF_R | PF_X));
    EXPECT_EQ(segment.p_vaddr, 0x1000u);
    const auto symbol = structAt<Elf32_Sym>(bytes, layout.section(".symtab").offset + 2 * sizeof(Elf32_Sym));
    EXPECT_EQ(symbol.st_value, 0x1010u);
    EXPECT_EQ(symbol.st_info, ELF32_ST_INFO(STB_GLOBAL, STT_FUNC));
}

TEST(ElfAssembler, TableEntriesMayLieFurtherApart) {
    auto elf = wholeModule(ElfClass::k64);
    elf.programHeaderStride(sizeof(Elf64_Phdr) + 8).sectionHeaderStride(sizeof(Elf64_Shdr) + 16);
    const auto header = structAt<Elf64_Ehdr>(elf.build(), 0);
    EXPECT_EQ(header.e_phentsize, sizeof(Elf64_Phdr) + 8);
    EXPECT_EQ(header.e_shentsize, sizeof(Elf64_Shdr) + 16);
    EXPECT_EQ(programHeader64(elf, 1).p_vaddr, 0x1000u);
    EXPECT_EQ(sectionHeader64(elf, ".text").sh_addr, 0x1010u);
    EXPECT_EQ(elf.layout().fileSize, header.e_shoff + header.e_shnum * header.e_shentsize);
}

TEST(ElfAssembler, TableEntriesMayBeCutShort) {
    ElfAssembler elf;
    elf.loadRange(0x1000, 0x10, PF_R);
    elf.programHeaderStride(8);
    EXPECT_EQ(elf.build().size(), sizeof(Elf64_Ehdr) + 8);
}

TEST(ElfAssembler, TheLayoutCoversEveryByteOfTheHeaders) {
    for (const ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        const auto elf = wholeModule(elfClass);
        const auto whole = elf.build();
        const auto layout = elf.layout();
        EXPECT_EQ(layout.fileSize, whole.size());
        const auto offsets = layout.headerByteOffsets();
        EXPECT_EQ(offsets.size(), layout.header.size + 4 * layout.programHeaderStride +
                                      layout.sectionNames.size() * layout.sectionHeaderStride);
        EXPECT_EQ(offsets.front(), 0u);
        EXPECT_EQ(offsets.back(), whole.size() - 1);
    }
}

TEST(ElfAssembler, TheLayoutRefusesWhatIsNotThere) {
    ElfAssembler elf;
    elf.section(".text").zeros(1);
    EXPECT_THROW(elf.layout().sectionIndex(".data"), std::logic_error);
    EXPECT_THROW(elf.layout().programHeaderOffset(0), std::logic_error);
    EXPECT_THROW(elf.layout().sectionHeaderOffset(3), std::logic_error);
    EXPECT_THROW(elf.sectionAt(2), std::logic_error);
}

TEST(ElfAssembler, OneElfFileFitsIntoASectionOfAnother) {
    ElfAssembler inner(ElfClass::k64, 181);
    inner.symbol("inner", 0x10);
    const auto innerBytes = inner.build();
    ElfAssembler outer;
    auto rodata =
        outer.section(".rodata", SHT_PROGBITS, SHF_ALLOC).address(0x2000).zeros(24).append(innerBytes);
    outer.load({rodata});
    const auto bytes = outer.build();
    const auto begin =
        bytes.begin() + static_cast<std::ptrdiff_t>(outer.layout().section(".rodata").offset + 24);
    EXPECT_EQ(Bytes(begin, begin + static_cast<std::ptrdiff_t>(innerBytes.size())), innerBytes);
    readelf(outer);
}

TEST(ElfAssembler, ALoadedRangeHoldsTheSectionsInsideIt) {
    ElfAssembler elf;
    elf.section(".text", SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR).address(0x401800).zeros(0x10);
    elf.section(".beyond", SHT_PROGBITS, SHF_ALLOC).address(0x403000).zeros(0x10);
    elf.loadRange(0x401000, 0x2000, PF_R | PF_X);
    const auto header = programHeader64(elf, 0);
    EXPECT_EQ(header.p_vaddr, 0x401000u);
    EXPECT_EQ(header.p_memsz, 0x2000u);
    EXPECT_EQ(header.p_filesz, 0x810u);
    EXPECT_EQ(header.p_offset + 0x800, elf.layout().section(".text").offset);
    EXPECT_EQ(header.p_offset % 0x1000, 0u);
    readelf(elf);
}

TEST(ElfAssembler, AnExplicitSegmentOffsetPlacesItsSections) {
    ElfAssembler elf;
    auto text = elf.section(".text", SHT_PROGBITS, SHF_ALLOC).address(0x400).zeros(0x10);
    elf.loadRange(0, 0x1000, PF_R).offset(0);
    EXPECT_EQ(elf.layout().section(".text").offset, 0x400u);
    EXPECT_EQ(programHeader64(elf, 0).p_filesz, 0x410u);
    EXPECT_EQ(text.index(), 1u);
}

TEST(ElfAssembler, AllSectionsCanBeLoadedInRunsOfEqualAccess) {
    ElfAssembler elf;
    elf.section(".init", SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR).address(0x1000).zeros(0x10);
    elf.section(".comment").zeros(3);
    elf.section(".text", SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR).address(0x1010).zeros(0x10);
    elf.loadAllSections();
    elf.section(".data", SHT_PROGBITS, SHF_ALLOC | SHF_WRITE).address(0x2020).zeros(0x10);
    const auto printed = readelf(elf);
    EXPECT_TRUE(contains(printed, "00 .init .text \n"));
    EXPECT_TRUE(contains(printed, "01 .data \n"));
    EXPECT_EQ(structAt<Elf64_Ehdr>(elf.build(), 0).e_phnum, 2);
    EXPECT_EQ(programHeader64(elf, 1).p_flags, static_cast<uint32_t>(PF_R | PF_W));
}

TEST(ElfAssembler, SegmentFieldsCanAllBeSet) {
    ElfAssembler elf;
    elf.segment(PT_TLS, PF_W)
        .address(1)
        .physicalAddress(2)
        .offset(3)
        .fileSize(4)
        .memorySize(5)
        .align(6)
        .flags(PF_X);
    const auto header = programHeader64(elf, 0);
    EXPECT_EQ(header.p_type, static_cast<uint32_t>(PT_TLS));
    EXPECT_EQ(header.p_flags, static_cast<uint32_t>(PF_X));
    EXPECT_EQ(header.p_vaddr, 1u);
    EXPECT_EQ(header.p_paddr, 2u);
    EXPECT_EQ(header.p_offset, 3u);
    EXPECT_EQ(header.p_filesz, 4u);
    EXPECT_EQ(header.p_memsz, 5u);
    EXPECT_EQ(header.p_align, 6u);
}

TEST(ElfAssembler, AnExplicitOffsetIsWhereTheContentsGo) {
    ElfAssembler elf;
    elf.section(".far").offset(0x800).append({1, 2, 3});
    const auto bytes = elf.build();
    EXPECT_EQ(elf.layout().section(".far").offset, 0x800u);
    EXPECT_EQ(Bytes(bytes.begin() + 0x800, bytes.begin() + 0x803), (Bytes{1, 2, 3}));
    EXPECT_EQ(sectionHeader64(elf, ".far").sh_offset, 0x800u);
}

TEST(ElfAssembler, SectionsThatWouldOverlapInTheFileAreRefused) {
    ElfAssembler elf;
    auto first = elf.section(".a", SHT_PROGBITS, SHF_ALLOC).address(0x1000).zeros(0x20);
    auto second = elf.section(".b", SHT_PROGBITS, SHF_ALLOC).address(0x1010).zeros(0x20);
    elf.load({first, second});
    EXPECT_THROW(elf.build(), std::logic_error);
    second.offset(0x3000);
    EXPECT_NO_THROW(elf.build());
}

TEST(ElfAssembler, AFileOfUnreasonableSizeIsRefused) {
    ElfAssembler elf;
    auto low = elf.section(".low", SHT_PROGBITS, SHF_ALLOC).address(0x1000).zeros(1);
    auto high = elf.section(".high", SHT_PROGBITS, SHF_ALLOC).address(0xFFFFFFFF80000000).zeros(1);
    elf.load({low, high});
    EXPECT_THROW(elf.build(), std::logic_error);
}

TEST(ElfAssembler, ALinkToASectionThatNeverComesIsRefused) {
    ElfAssembler elf;
    elf.section(".a").link(".later").info(0);
    EXPECT_THROW(elf.build(), std::logic_error);
    elf.section(".later");
    EXPECT_EQ(sectionHeader64(elf, ".a").sh_link, 2u);
}

TEST(ElfAssembler, ANumberTooWideForThirtyTwoBitsIsRefused) {
    ElfAssembler elf(ElfClass::k32);
    elf.section(".a", SHT_PROGBITS, SHF_ALLOC).address(0x100000000);
    EXPECT_THROW(elf.build(), std::logic_error);
}

TEST(ElfAssembler, HandlesSurviveMovingTheAssembler) {
    ElfAssembler first;
    auto text = first.section(".text");
    auto symbol = first.symbol("a", 1);
    const ElfAssembler second = std::move(first);
    text.append({7}).address(0x40);
    symbol.other(2);
    EXPECT_EQ(sectionHeader64(second, ".text").sh_addr, 0x40u);
    EXPECT_EQ(second.layout().section(".text").size, 1u);
}

TEST(ElfAssembler, WritingToAnImpossiblePlaceIsReported) {
    const Scratch scratch;
    EXPECT_THROW(ElfAssembler().write(scratch.path("no/such/directory")), std::runtime_error);
}

} // namespace
} // namespace orn_test
