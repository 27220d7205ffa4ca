// Damaged ELF files: each truncation of a small file, and each change of a byte of its headers, has to load
// or to fail cleanly. Nothing is expected of the outcome but that it comes; the sanitizers judge the rest.

#include "orn_fflelf.h"
#include "orn_relocations.h"
#include "orn_scope.h"
#include "support/elf_assembler.h"
#include "support/memory_image.h"
#include "support/orn_fixture.h"

#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace ORN_3_30 {
namespace {

using orn_test::ElfAssembler;
using orn_test::ElfClass;
using orn_test::ElfLayout;
using orn_test::MemoryImage;

using Bytes = std::vector<uint8_t>;

constexpr uint64_t codeFlags = SHF_ALLOC | SHF_EXECINSTR;
constexpr uint64_t dataFlags = SHF_ALLOC | SHF_WRITE;

/// Something of everything that loading looks at.
ElfAssembler completeModule(ElfClass elfClass) {
    ElfAssembler elf(elfClass);
    auto text = elf.section(".text", SHT_PROGBITS, codeFlags).address(0x1000).zeros(0x40);
    auto plt = elf.section(".plt", SHT_PROGBITS, codeFlags).address(0x1040).zeros(0x20);
    auto rodata = elf.section(".rodata", SHT_PROGBITS, SHF_ALLOC).address(0x1060).zeros(0x10);
    auto data = elf.section(".data", SHT_PROGBITS, dataFlags).address(0x3000).zeros(0x20);
    elf.load({text, plt, rodata});
    elf.load({data});
    elf.symbol("main", 0x1000, 0x10);
    elf.symbol("counter", 0x3000, 4, STB_LOCAL, STT_OBJECT);
    auto imported = elf.dynamicSymbol("imported", 0, 0, STB_GLOBAL, STT_FUNC, SHN_UNDEF);
    elf.dynamicSymbols().section().flags(0);
    elf.dynamicSymbols().strings().flags(0);
    elf.relocations(".rela.plt", SHT_RELA, plt, elf.dynamicSymbols().section()).add(0x3000, imported, 7);
    elf.compressedSection(".zdebug_str", Bytes(64, 'x'));
    elf.section(".debug_info").zeros(16);
    elf.buildId({1, 2, 3, 4}).flags(0);
    elf.debugLink("module.debug", 0x12345678);
    return elf;
}

ElfAssembler kernelModule(ElfClass elfClass) {
    ElfAssembler elf(elfClass, std::nullopt, ET_REL);
    auto text = elf.section(".text", SHT_PROGBITS, codeFlags).zeros(0x40);
    auto init = elf.section(".init.text", SHT_PROGBITS, codeFlags).zeros(0x20);
    elf.section(".data", SHT_PROGBITS, dataFlags).address(0x100).zeros(0x20);
    elf.symbol("init_module", 0, 0x10, STB_GLOBAL, STT_FUNC, init);
    elf.symbol("probe", 8, 0x30, STB_LOCAL, STT_FUNC, text);
    elf.symbol("remove", 0x10, 0x30, STB_LOCAL, STT_FUNC, text);
    elf.relocations(".rela.text", SHT_RELA, text, elf.symbols().section()).add(8, 1, 1);
    return elf;
}

void walkSections(ElfFileLoader& loader) {
    for (int number = 1; ISegment* segment = loader.getSegmentAt(number); ++number) {
        SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISection>>> sections;
        segment->getSections(sections, false);
        while (sections->next())
            sections->current();
    }
}

/// A range's end comes from the file: a damaged one is walked for as long as an honest one would be.
constexpr int mostRanges = 1000;

void walkRanges(ISymbolTable& table) {
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
    table.symbolRanges(ranges, 0, ~0ULL, symbol_kind_all);
    for (int count = 0; ranges && count < mostRanges && ranges->next(); ++count)
        ranges->current()->thunk();
    table.nonOverlappedSymbolRanges(ranges, 0, ~0ULL - 1, symbol_kind_all, nullptr);
    for (int count = 0; ranges && count < mostRanges && ranges->next(); ++count)
        ranges->current()->size();
}

void readDebugSections(ElfHelper& elfHelper) {
    SymMgrObjectPtr<IFileFormatHelper> helper = new ElfFileFormatHelper(&elfHelper);
    for (unsigned kind = section_debug_info; kind <= section_eh_frame; ++kind) {
        SymMgrObjectPtr<ISectionData> data;
        helper->getSectionData(data, static_cast<section_kind_t>(kind));
        try {
            if (data)
                data->getData();
        } catch (const std::bad_alloc&) {
            // A compressed section may declare any size; whoever loads turns this into a status.
        }
    }
    for (unsigned index = 0; index < elfHelper.getSectionCount(); ++index) {
        SymMgrObjectPtr<RelocationAddends> addends;
        helper->getRelocationAddends(addends, index);
    }
}

/// All that a client does with a module: loads it, reads its symbols into a table and asks.
void use(Bytes bytes) {
    SymMgrObjectPtr<ElfFileLoader> loader = new ElfFileLoader(new MemoryImage(std::move(bytes)));
    GlobalScope scope(loader, nullptr, nullptr);
    SymMgrObjectPtr<ISymbolTable> table = ISymbolTable::create(&scope);
    static_cast<void>(loader->readSymbols(table, nullptr, symbol_kind_all));
    for (unsigned long long address : {0x1000ULL, 0x1050ULL, 0x3000ULL, 0ULL, ~0ULL}) {
        SymMgrObjectPtr<ISymbolRange> range;
        table->symbolRangeByAddress(range, address, symbol_kind_all, nullptr);
        if (range && range->symbol())
            range->symbol()->rawName();
    }
    walkRanges(*table);
    walkSections(*loader);
    readDebugSections(*loader->getElfHelper());
}

class ElfHostileTest : public test::OrnTest {
protected:
    /// Damaged files are complained about; every complaint is one of these.
    void SetUp() override {
        for (const char* part : {"ASSERTION FAILED: '", "neither ELFCLASS32 nor ELFCLASS64",
                                 "Unknown binary architecture: ", "Failed to read string table for file",
                                 " has incorrect size or file is truncated", "unknown compression algorithm",
                                 "error while uncompressing ZLIB section data",
                                 "can't allocate memory: ", "Out of memory", "NULL section data"})
            allowLog(part);
    }
};

TEST_F(ElfHostileTest, EveryTruncationLoadsOrFailsCleanly) {
    for (ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        for (const ElfAssembler& elf : {completeModule(elfClass), kernelModule(elfClass)}) {
            const Bytes whole = elf.build();
            for (std::size_t length = 0; length <= whole.size(); ++length)
                use(Bytes(whole.begin(), whole.begin() + length));
        }
    }
}

/// Changes each byte of the headers of `elf` to each other value.
void useEveryChangeOfHeaders(const ElfAssembler& elf) {
    const Bytes whole = elf.build();
    for (uint64_t offset : elf.layout().headerByteOffsets()) {
        for (unsigned change = 1; change < 256; ++change) {
            Bytes bytes = whole;
            bytes[offset] ^= change;
            use(std::move(bytes));
        }
    }
}

/// The same with the changes that matter most: each bit alone, and the smallest and largest values.
void useTellingChangesOfHeaders(const ElfAssembler& elf) {
    const Bytes whole = elf.build();
    for (uint64_t offset : elf.layout().headerByteOffsets()) {
        for (unsigned value : {0x00u, 0x7Fu, 0x80u, 0xFFu, whole[offset] ^ 0x01u, whole[offset] ^ 0x02u,
                               whole[offset] ^ 0x04u, whole[offset] ^ 0x08u, whole[offset] ^ 0x10u,
                               whole[offset] ^ 0x20u, whole[offset] ^ 0x40u, whole[offset] ^ 0x80u}) {
            Bytes bytes = whole;
            bytes[offset] = static_cast<uint8_t>(value);
            use(std::move(bytes));
        }
    }
}

/// As few headers as a module with symbols can have.
ElfAssembler smallestModule(ElfClass elfClass) {
    ElfAssembler elf(elfClass);
    auto text = elf.section(".text", SHT_PROGBITS, codeFlags).address(0x1000).zeros(0x10);
    elf.load({text});
    elf.symbol("main", 0x1000, 0x10);
    return elf;
}

TEST_F(ElfHostileTest, EveryChangeOfAHeaderByteLoadsOrFailsCleanly) {
    setLogLevel(test::errorLevel + 1); // hundreds of thousands of complaints that nobody reads
    for (ElfClass elfClass : {ElfClass::k32, ElfClass::k64})
        useEveryChangeOfHeaders(smallestModule(elfClass));
}

TEST_F(ElfHostileTest, ChangedHeadersOfACompleteModuleLoadOrFailCleanly) {
    setLogLevel(test::errorLevel + 1);
    for (ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        useTellingChangesOfHeaders(completeModule(elfClass));
        useTellingChangesOfHeaders(kernelModule(elfClass));
    }
}

/// Places of the bytes that symbols, names and relocations are made of.
std::vector<std::size_t> tableBytes(const Bytes& whole) {
    SymMgrObjectPtr<ElfHelper> helper = new ElfHelper(new MemoryImage(whole));
    std::vector<std::size_t> places;
    for (unsigned index = 0; const Elf64_Shdr* header = helper->getSectionHeader(index); ++index) {
        const auto type = header->sh_type;
        if (type == SHT_SYMTAB || type == SHT_DYNSYM || type == SHT_STRTAB || type == SHT_RELA ||
            type == SHT_REL)
            for (std::size_t offset = 0; offset < header->sh_size; ++offset)
                places.push_back(header->sh_offset + offset);
    }
    return places;
}

// Damage that adds up, as far as a new start every now and then: one flipped bit seldom says enough.
TEST_F(ElfHostileTest, FlippedBitsInTablesLoadOrFailCleanly) {
    setLogLevel(test::errorLevel + 1);
    constexpr int steps = 5000;
    constexpr int stepsBetweenStarts = 50;
    std::mt19937 random(20240229);
    for (ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        for (const ElfAssembler& elf : {completeModule(elfClass), kernelModule(elfClass)}) {
            const Bytes whole = elf.build();
            const std::vector<std::size_t> places = tableBytes(whole);
            ASSERT_GT(places.size(), 100U);
            Bytes bytes;
            for (int step = 0; step < steps; ++step) {
                if (step % stepsBetweenStarts == 0)
                    bytes = whole;
                bytes[places[random() % places.size()]] ^= static_cast<uint8_t>(1U << random() % 8);
                use(bytes);
            }
        }
    }
}

// The whole of every symbol of a table replaced: sizes and addresses of every magnitude, over and over one
// another.
TEST_F(ElfHostileTest, SymbolsOfAnyValuesLoadOrFailCleanly) {
    setLogLevel(test::errorLevel + 1);
    std::mt19937_64 random(20240301);
    const auto anyValue = [&] { return random() >> random() % 64; };
    for (int round = 0; round < 300; ++round) {
        ElfAssembler elf = kernelModule(ElfClass::k64);
        for (int number = 0; number < 40; ++number)
            elf.symbol("s" + std::to_string(number % 7), random() % 0x40, anyValue(),
                       random() % 2 ? STB_LOCAL : STB_GLOBAL, random() % 3, elf.sectionAt(1));
        use(elf.build());
    }
}

TEST_F(ElfHostileTest, ClassesMayBeMixedUp) {
    for (ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        Bytes bytes = completeModule(elfClass).build();
        bytes[EI_CLASS] = elfClass == ElfClass::k64 ? ELFCLASS32 : ELFCLASS64;
        use(bytes);
    }
}

TEST_F(ElfHostileTest, LargestHeaderTablesDoNotHang) {
    // 65535 sections and segments that all lie on one another, and all their names are tails of one text.
    ElfAssembler elf;
    elf.withoutSectionHeaders();
    Bytes bytes = elf.build();
    Elf64_Ehdr header;
    std::memcpy(&header, bytes.data(), sizeof(header));
    header.e_phoff = header.e_shoff = sizeof(header);
    header.e_phentsize = header.e_shentsize = 0;
    header.e_phnum = header.e_shnum = 0xFFFF;
    const std::size_t names = 64 << 10;
    header.e_shentsize = sizeof(Elf64_Shdr);
    header.e_shstrndx = 1;
    bytes.assign(sizeof(header) + 0xFFFF * sizeof(Elf64_Shdr) + names, 'x');
    std::memcpy(bytes.data(), &header, sizeof(header));
    for (unsigned index = 0; index < 0xFFFF; ++index) {
        Elf64_Shdr section{};
        section.sh_name = index % names;
        section.sh_type = SHT_PROGBITS;
        section.sh_flags = SHF_ALLOC | (index % 2 ? SHF_EXECINSTR : SHF_WRITE);
        section.sh_addr = 0xFFFF - index;
        section.sh_size = 0x10000;
        section.sh_offset = bytes.size() - names;
        if (index == 1)
            section.sh_size = names;
        std::memcpy(bytes.data() + sizeof(header) + index * sizeof(section), &section, sizeof(section));
    }
    const auto start = std::chrono::steady_clock::now();
    use(std::move(bytes));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

} // namespace
} // namespace ORN_3_30
