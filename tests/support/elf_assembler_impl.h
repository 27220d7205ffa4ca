#pragma once

// What an `ElfAssembler` remembers, for its two sources only: tests include elf_assembler.h.

#include "support/elf_assembler.h"

#include <deque>
#include <memory>
#include <stdexcept>

namespace orn_test {

namespace elf_records {

struct Section {
    std::string name;
    uint32_t index = 0;
    uint32_t type = SHT_NULL;
    uint64_t flags = 0;
    uint64_t address = 0;
    std::optional<uint64_t> offset;
    std::optional<uint64_t> size;
    uint64_t align = 1;
    uint64_t entrySize = 0;
    std::optional<ElfSectionRef> link;
    std::optional<ElfSectionRef> info;
    ByteAssembler data;
    const SymbolTable* symbols = nullptr;
    ElfSectionOverrides overrides;

    bool isAllocated() const { return (flags & SHF_ALLOC) != 0; }
    /// The segment flags that the section needs.
    uint32_t access() const {
        return PF_R | ((flags & SHF_EXECINSTR) != 0 ? PF_X : 0U) | ((flags & SHF_WRITE) != 0 ? PF_W : 0U);
    }
};

struct Segment {
    uint32_t type = PT_NULL;
    uint32_t flags = 0;
    std::vector<Section*> sections;
    std::optional<uint64_t> address, physicalAddress, offset, fileSize, memorySize, align;
    ElfSegmentOverrides overrides;
};

struct Symbol {
    uint32_t index;
    uint32_t nameOffset;
    uint64_t value;
    uint64_t size;
    uint8_t info;
    uint8_t other;
    ElfSectionRef section;
};

struct SymbolTable {
    Section* section = nullptr;
    Section* strings = nullptr;
    unsigned padding = 0;
    // A deque, because handles point to the entries.
    std::deque<Symbol> symbols;
};

} // namespace elf_records

[[noreturn]] inline void elfMisuse(const std::string& what) {
    throw std::logic_error("ElfAssembler: " + what);
}

struct ElfAssembler::Impl {
    using Section = elf_records::Section;
    using Segment = elf_records::Segment;
    using SymbolTable = elf_records::SymbolTable;

    // One building of the file.
    struct Assembly {
        std::vector<Section*> sections;
        std::vector<Segment> segments;
        std::vector<std::vector<uint8_t>> contents;
        std::vector<uint64_t> offsets;
        // Of the segments, as far as it is known while sections are being placed.
        std::vector<std::optional<uint64_t>> segmentOffsets;
        uint64_t end = 0;
        std::vector<uint32_t> nameOffsets;
        ElfHeaders headers;
        ElfLayout layout;
        std::vector<uint8_t> file;
    };

    ElfClass elfClass = ElfClass::k64;
    ByteOrder order = ByteOrder::kLittle;
    uint16_t type = ET_DYN;
    uint16_t machine = EM_NONE;
    uint64_t entry = 0;
    uint32_t flags = 0;
    std::optional<uint8_t> dataEncoding;
    std::optional<uint16_t> programHeaderStride;
    std::optional<uint16_t> sectionHeaderStride;
    bool hasSectionNames = true;
    bool hasSectionHeaders = true;
    bool loadsAllSections = false;
    ElfHeaderOverrides overrides;
    std::vector<std::function<void(ElfHeaders&)>> callbacks;

    // Records are held by pointer, because handles point to them.
    std::vector<std::unique_ptr<Section>> sections;
    std::unique_ptr<Section> names;
    std::vector<std::unique_ptr<Segment>> segments;
    std::vector<std::unique_ptr<SymbolTable>> symbolTables;
    SymbolTable* symbols = nullptr;
    SymbolTable* dynamicSymbols = nullptr;

    bool is64() const { return elfClass == ElfClass::k64; }
    uint64_t headerSize() const { return is64() ? sizeof(Elf64_Ehdr) : sizeof(Elf32_Ehdr); }
    uint64_t programHeaderSize() const { return is64() ? sizeof(Elf64_Phdr) : sizeof(Elf32_Phdr); }
    uint64_t sectionHeaderSize() const { return is64() ? sizeof(Elf64_Shdr) : sizeof(Elf32_Shdr); }
    uint64_t symbolSize() const { return is64() ? sizeof(Elf64_Sym) : sizeof(Elf32_Sym); }
    uint64_t wordSize() const { return is64() ? 8 : 4; }

    std::unique_ptr<Section> makeSection(std::string name, uint32_t sectionType, uint64_t sectionFlags) const;
    Section* addSection(std::string name, uint32_t sectionType, uint64_t sectionFlags);
    SymbolTable* addSymbolTable(std::string name, std::string stringsName, uint32_t tableType,
                                uint64_t tableFlags);

    Assembly assemble() const;
    void collectSections(Assembly& assembly) const;
    void collectSegments(Assembly& assembly) const;
    void makeContents(Assembly& assembly) const;
    void makeNames(Assembly& assembly) const;
    void placeSections(Assembly& assembly) const;
    void makeLayout(Assembly& assembly) const;
    void makeHeaders(Assembly& assembly) const;
    void writeFile(Assembly& assembly) const;

    std::vector<uint8_t> contentsOf(const Section& section) const;
    std::vector<uint8_t> symbolTableBytes(const SymbolTable& table) const;
    uint32_t localSymbolsEnd(const SymbolTable& table) const;
    uint64_t sizeOf(const Assembly& assembly, const Section& section) const;
    uint64_t sizeOf(const Section& section) const;
    uint32_t resolve(const ElfSectionRef& ref) const;
    uint32_t sectionHolding(uint64_t value) const;

    std::optional<size_t> loadSegmentOf(const Assembly& assembly, const Section& section) const;
    uint64_t placeOf(Assembly& assembly, const Section& section) const;
    uint64_t placeInSegment(Assembly& assembly, const Section& section, size_t segment) const;

    Elf64_Ehdr headerOf(const Assembly& assembly) const;
    Elf64_Shdr sectionHeaderOf(const Assembly& assembly, const Section& section) const;
    Elf64_Phdr programHeaderOf(const Assembly& assembly, size_t index) const;
    template <typename Header, typename Write>
    std::vector<uint8_t> tableOf(const std::vector<Header>& headers, uint64_t stride, Write write) const;

    static uint64_t baseOf(const Segment& segment);
    static std::vector<Section*> coveredBy(const Assembly& assembly, const Segment& segment);
};

} // namespace orn_test
