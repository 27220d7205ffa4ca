#pragma once

#include "support/byte_assembler.h"

#include <elf.h>

#include <array>
#include <concepts>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orn_test {

enum class ElfClass { k32, k64 };

namespace elf_records {
struct Section;
struct Segment;
struct Symbol;
struct SymbolTable;
} // namespace elf_records

/// Values that go into the written ELF header in place of the right ones. They change nothing else: the
/// tables stay where they are.
struct ElfHeaderOverrides {
    std::array<std::optional<uint8_t>, EI_NIDENT> e_ident;
    std::optional<uint16_t> e_type, e_machine;
    std::optional<uint32_t> e_version;
    std::optional<uint64_t> e_entry, e_phoff, e_shoff;
    std::optional<uint32_t> e_flags;
    std::optional<uint16_t> e_ehsize, e_phentsize, e_phnum, e_shentsize, e_shnum, e_shstrndx;
};

/// The same for one section header: the contents stay as they are, where they are.
struct ElfSectionOverrides {
    std::optional<uint32_t> sh_name, sh_type;
    std::optional<uint64_t> sh_flags, sh_addr, sh_offset, sh_size;
    std::optional<uint32_t> sh_link, sh_info;
    std::optional<uint64_t> sh_addralign, sh_entsize;
};

/// The same for one program header.
struct ElfSegmentOverrides {
    std::optional<uint32_t> p_type, p_flags;
    std::optional<uint64_t> p_offset, p_vaddr, p_paddr, p_filesz, p_memsz, p_align;
};

/// Every header as it is about to be written, in the 64-bit form whatever the class.
struct ElfHeaders {
    Elf64_Ehdr header{};
    std::vector<Elf64_Phdr> programs;
    std::vector<Elf64_Shdr> sections;
};

/// Where everything really lies in a built file, whatever overridden headers say. A range of a section
/// without bytes in the file is empty.
struct ElfLayout {
    struct Range {
        uint64_t offset = 0;
        uint64_t size = 0;
    };

    Range header;
    Range programHeaders;
    Range sectionHeaders;
    /// Bytes from one entry of the table to the next.
    uint64_t programHeaderStride = 0;
    uint64_t sectionHeaderStride = 0;
    /// By section index; index 0 is the null section.
    std::vector<std::string> sectionNames;
    std::vector<Range> sections;
    uint64_t fileSize = 0;

    /// The first section of this name; throws `std::logic_error` if there is none.
    uint32_t sectionIndex(std::string_view name) const;
    Range section(std::string_view name) const { return sections.at(sectionIndex(name)); }
    uint64_t programHeaderOffset(size_t index) const;
    uint64_t sectionHeaderOffset(size_t index) const;
    /// The file offset of every byte of the ELF header and both tables, for tests that change each in turn.
    std::vector<uint64_t> headerByteOffsets() const;
};

/// How compressed contents are introduced.
enum class ElfCompression {
    /// "ZLIB" and the size as a big-endian 8-byte number: the ".zdebug_" form.
    kZlibBlock,
    /// A genuine `Elf32_Chdr` or `Elf64_Chdr`, with `SHF_COMPRESSED`.
    kChdr,
    /// A header of the length of a `Chdr`, with `SHF_COMPRESSED`: the byte 1, three zeros, the size as a
    /// big-endian
    /// 8-byte number at offset 4, zeros.
    kChdrWithBigEndianSize,
};

/// A zlib stream of `bytes`, without any header of a section.
std::vector<uint8_t> zlibCompressed(std::span<const uint8_t> bytes);

/// The checksum that `.gnu_debuglink` holds of a debug file with these contents.
uint32_t debugLinkCrc(std::span<const uint8_t> bytes);

class ElfSection;

/// A section as other things name it: a handle, an index such as `SHN_ABS`, or a name, which may belong to a
/// section made later.
class ElfSectionRef {
public:
    ElfSectionRef(ElfSection section);
    template <std::integral T>
    ElfSectionRef(T index) : m_index(static_cast<uint32_t>(index)) {}
    ElfSectionRef(const char* name) : m_name(name) {}
    ElfSectionRef(std::string name) : m_name(std::move(name)) {}
    /// For symbols: the first allocated section whose addresses hold the symbol's value, `SHN_ABS` if none
    /// does.
    static ElfSectionRef holdingTheValue() { return ElfSectionRef(); }

private:
    friend class ElfAssembler;
    ElfSectionRef() = default;
    elf_records::Section* m_section = nullptr;
    std::optional<uint32_t> m_index;
    std::optional<std::string> m_name;
};

/// One section of an `ElfAssembler`. A handle: copies mean the same section, and it is valid as long as the
/// assembler, or the one that this was moved to, lives. Setters return the handle, for chains.
class ElfSection {
public:
    /// Known at once, except for the section name table, whose index is known from the first `build` on.
    uint32_t index() const;
    const std::string& name() const;

    ElfSection type(uint32_t value) const;
    ElfSection flags(uint64_t value) const;
    ElfSection address(uint64_t value) const;
    /// Where the contents go in the file; without it the assembler finds a place.
    ElfSection offset(uint64_t value) const;
    /// Of a section without contents (`SHT_NOBITS`, or one whose bytes do not matter): its size.
    ElfSection size(uint64_t value) const;
    ElfSection align(uint64_t value) const;
    ElfSection entrySize(uint64_t value) const;
    ElfSection link(ElfSectionRef section) const;
    ElfSection info(ElfSectionRef section) const;

    /// The contents, in the byte order of the file. In sections that the assembler fills itself (symbol
    /// tables) these bytes follow the generated ones.
    ByteAssembler& data() const;
    ElfSection append(std::span<const uint8_t> bytes) const;
    ElfSection append(std::initializer_list<uint8_t> bytes) const;
    ElfSection append(const ByteAssembler& bytes) const;
    ElfSection zeros(size_t count) const;
    /// The address of a label of `data`, for symbols.
    uint64_t addressOf(ByteAssembler::LabelRef label) const;

    /// Damage: what the section header says in place of the truth.
    ElfSectionOverrides& header() const;

private:
    friend class ElfAssembler;
    friend class ElfSectionRef;
    friend class ElfSegment;
    friend class ElfSymbolTable;
    explicit ElfSection(elf_records::Section* record) : m_record(record) {}
    elf_records::Section* m_record;
};

/// One program header. What is not set follows from the sections that it covers. A handle, like `ElfSection`.
class ElfSegment {
public:
    ElfSegment covers(std::initializer_list<ElfSection> sections) const;
    ElfSegment flags(uint32_t value) const;
    ElfSegment address(uint64_t value) const;
    ElfSegment physicalAddress(uint64_t value) const;
    ElfSegment offset(uint64_t value) const;
    ElfSegment fileSize(uint64_t value) const;
    ElfSegment memorySize(uint64_t value) const;
    ElfSegment align(uint64_t value) const;

    /// Damage: what the program header says in place of the truth.
    ElfSegmentOverrides& header() const;

private:
    friend class ElfAssembler;
    explicit ElfSegment(elf_records::Segment* record) : m_record(record) {}
    elf_records::Segment* m_record;
};

/// One entry of a symbol table. A handle, like `ElfSection`; stands for its index in relocations.
class ElfSymbol {
public:
    uint32_t index() const;
    operator uint32_t() const { return index(); }

    ElfSymbol other(uint8_t value) const;
    /// `st_info` as a whole.
    ElfSymbol info(uint8_t value) const;
    /// `st_name` in place of the offset of the name.
    ElfSymbol nameOffset(uint32_t value) const;

private:
    friend class ElfSymbolTable;
    explicit ElfSymbol(elf_records::Symbol* record) : m_record(record) {}
    elf_records::Symbol* m_record;
};

/// A symbol table and its strings. The null entry is made by itself. A handle, like `ElfSection`.
class ElfSymbolTable {
public:
    ElfSymbol add(std::string_view name, uint64_t value, uint64_t size = 0, unsigned bind = STB_GLOBAL,
                  unsigned type = STT_FUNC, ElfSectionRef section = ElfSectionRef::holdingTheValue()) const;
    /// Makes each entry, the null entry too, longer by so many bytes (of 0xCC, so that reading them shows).
    ElfSymbolTable padEntries(unsigned bytes) const;
    ElfSection section() const;
    ElfSection strings() const;

private:
    friend class ElfAssembler;
    explicit ElfSymbolTable(elf_records::SymbolTable* record) : m_record(record) {}
    elf_records::SymbolTable* m_record;
};

/// A relocation section, `SHT_REL` or `SHT_RELA`. A handle, like `ElfSection`.
class ElfRelocations {
public:
    /// `symbol` is an index or an `ElfSymbol`. The addend of `SHT_REL` lies at the place itself and is not
    /// written.
    ElfRelocations add(uint64_t offset, uint32_t symbol, uint32_t type, int64_t addend = 0) const;
    /// With `r_info` as a whole.
    ElfRelocations addRaw(uint64_t offset, uint64_t info, int64_t addend = 0) const;
    ElfSection section() const { return m_section; }

private:
    friend class ElfAssembler;
    ElfRelocations(ElfSection section, ElfClass elfClass, bool hasAddends)
        : m_section(section), m_class(elfClass), m_hasAddends(hasAddends) {}
    ElfSection m_section;
    ElfClass m_class;
    bool m_hasAddends;
};

/// Builds ELF files of both classes for tests.
///
///     ElfAssembler elf;
///     auto text = elf.section(".text", SHT_PROGBITS, SHF_ALLOC |
///     SHF_EXECINSTR).address(0x1000).zeros(0x100); elf.load({text}); elf.symbol("main", 0x1000, 16,
///     STB_GLOBAL, STT_FUNC, text); auto bytes = elf.build();
///
/// Files are valid unless damage is asked for: offsets, sizes, table positions, the symbol tables' `sh_link`
/// and `sh_info` and the section names follow from what was asked. Section indices are handed out in the
/// order of making, from 1; the table of section names comes last. In the file stand: ELF header, program
/// headers, the allocated sections in the order of their addresses, the other sections, the section headers.
/// A section in a `PT_LOAD` segment lies at an offset congruent to its address modulo the segment's
/// alignment; sections of one segment lie as far apart in the file as in memory.
///
/// Three ways of damage: the `header()` overrides of the file, of sections and of segments, for values that a
/// header is to claim; `afterLayout`, for values that depend on the layout; and the bytes themselves, found
/// through `layout`.
///
/// Misuse, such as sections that would overlap in the file, throws `std::logic_error`.
class ElfAssembler {
public:
    /// With no machine given it is `EM_X86_64` or `EM_386`.
    explicit ElfAssembler(ElfClass elfClass = ElfClass::k64, std::optional<uint16_t> machine = std::nullopt,
                          uint16_t type = ET_DYN, ByteOrder order = ByteOrder::kLittle);
    ElfAssembler(ElfAssembler&&) noexcept;
    ElfAssembler& operator=(ElfAssembler&&) noexcept;
    ~ElfAssembler();

    // The file as a whole.
    ElfClass elfClass() const;
    ElfAssembler& type(uint16_t value);
    ElfAssembler& machine(uint16_t value);
    ElfAssembler& entry(uint64_t value);
    ElfAssembler& flags(uint32_t value);
    /// `EI_DATA` alone: the fields are still written in the order given to the constructor.
    ElfAssembler& dataEncoding(uint8_t value);
    /// The real distance of table entries: longer entries are padded with zeros, shorter ones cut off.
    ElfAssembler& programHeaderStride(uint16_t value);
    ElfAssembler& sectionHeaderStride(uint16_t value);
    /// No section name table: `e_shstrndx` is 0.
    ElfAssembler& withoutSectionNames();
    /// No section headers at all; the contents stay.
    ElfAssembler& withoutSectionHeaders();
    /// Damage: what the ELF header says in place of the truth.
    ElfHeaderOverrides& header();
    /// Called with the final headers, after all overrides, before they are written.
    ElfAssembler& afterLayout(std::function<void(ElfHeaders&)> change);

    // Sections.
    ElfSection section(std::string name, uint32_t type = SHT_PROGBITS, uint64_t flags = 0);
    /// Any section by its index; 0 is the null section.
    ElfSection sectionAt(uint32_t index);
    /// The table of section names, for damage; its data goes behind the names.
    ElfSection sectionNames();
    /// A section with compressed contents; without a form, ".zdebug_" names get `kZlibBlock` and others
    /// `kChdr`.
    ElfSection compressedSection(std::string name, std::span<const uint8_t> contents,
                                 std::optional<ElfCompression> form = std::nullopt);
    /// A note section with one note, allocated and aligned to 4.
    ElfSection note(std::string sectionName, std::string_view owner, uint32_t type,
                    std::span<const uint8_t> description);
    /// ".note.gnu.build-id".
    ElfSection buildId(std::span<const uint8_t> id);
    ElfSection buildId(std::initializer_list<uint8_t> id);
    /// ".gnu_debuglink".
    ElfSection debugLink(std::string_view fileName, uint32_t crc);

    // Segments.
    /// A program header of which everything is set by hand or follows from `covers`.
    ElfSegment segment(uint32_t type, uint32_t flags = PF_R);
    /// A `PT_LOAD` around these sections; without flags they follow from the sections'.
    ElfSegment load(std::initializer_list<ElfSection> sections, std::optional<uint32_t> flags = std::nullopt);
    /// A `PT_LOAD` of a given address range, with whatever allocated sections lie in it.
    ElfSegment loadRange(uint64_t address, uint64_t memorySize, uint32_t flags);
    /// A `PT_LOAD` for each run of allocated sections with equal access, in the order of their making.
    /// Sections made later are seen too.
    ElfAssembler& loadAllSections();

    // Symbols.
    /// Into ".symtab", which is made on first use.
    ElfSymbol symbol(std::string_view name, uint64_t value, uint64_t size = 0, unsigned bind = STB_GLOBAL,
                     unsigned type = STT_FUNC, ElfSectionRef section = ElfSectionRef::holdingTheValue());
    /// Into ".dynsym".
    ElfSymbol dynamicSymbol(std::string_view name, uint64_t value, uint64_t size = 0,
                            unsigned bind = STB_GLOBAL, unsigned type = STT_FUNC,
                            ElfSectionRef section = ElfSectionRef::holdingTheValue());
    /// ".symtab" with ".strtab", and ".dynsym" with ".dynstr", made on first use. The dynamic ones are
    /// `SHF_ALLOC`.
    ElfSymbolTable symbols();
    ElfSymbolTable dynamicSymbols();
    /// A further table, whatever exists already.
    ElfSymbolTable addSymbolTable(std::string name, std::string stringsName, uint32_t type = SHT_SYMTAB,
                                  uint64_t flags = 0);

    // Relocations.
    /// `type` is `SHT_REL` or `SHT_RELA`; `target` becomes `sh_info`, `symbolTable` `sh_link`.
    ElfRelocations relocations(std::string name, uint32_t type, ElfSectionRef target,
                               ElfSectionRef symbolTable, uint64_t flags = 0);

    // Results. All may be asked for repeatedly, and the file changed in between.
    std::vector<uint8_t> build() const;
    ElfLayout layout() const;
    /// Builds into a file; throws `std::runtime_error` when that cannot be written.
    void write(const std::string& path) const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace orn_test
