// The building half of the ELF assembler: it lays out the file that the records describe, works out its
// headers, lets the test damage them, and writes it all at the widths of the class. Called by `build`,
// `layout` and `write`, each of which starts anew and leaves the records alone.
//
// Big-endian files are written in full, although nothing else in the house reads them, because their refusal
// must be tested with real ones.

#include "support/elf_assembler_impl.h"

#include <algorithm>
#include <cstring>

namespace orn_test {

namespace {

constexpr uint64_t kPageSize = 0x1000;
constexpr uint64_t kLargestFile = 256U << 20U;
constexpr uint8_t kPaddingOfSymbols = 0xCC;

uint64_t alignedUp(uint64_t value, uint64_t alignment) {
    const uint64_t excess = alignment == 0 ? 0 : value % alignment;
    return excess == 0 ? value : value + alignment - excess;
}

template <typename Field, typename Value>
void replaceIfSet(Field& field, const std::optional<Value>& value) {
    if (value) {
        field = *value;
    }
}

// Writes the fields of the structures at the widths of one class.
class FieldWriter {
public:
    FieldWriter(ElfClass elfClass, ByteOrder order) : m_class(elfClass), m_out(order) {}

    bool is64() const { return m_class == ElfClass::k64; }
    ByteAssembler& out() { return m_out; }
    FieldWriter& half(uint16_t value) {
        m_out.u16(value);
        return *this;
    }
    FieldWriter& word(uint32_t value) {
        m_out.u32(value);
        return *this;
    }
    // An address, an offset or a size.
    FieldWriter& native(uint64_t value) {
        m_out.number(value, is64() ? 8 : 4);
        return *this;
    }

private:
    ElfClass m_class;
    ByteAssembler m_out;
};

void writeHeader(FieldWriter& out, const Elf64_Ehdr& header) {
    out.out().raw(header.e_ident);
    out.half(header.e_type).half(header.e_machine).word(header.e_version);
    out.native(header.e_entry).native(header.e_phoff).native(header.e_shoff).word(header.e_flags);
    out.half(header.e_ehsize).half(header.e_phentsize).half(header.e_phnum);
    out.half(header.e_shentsize).half(header.e_shnum).half(header.e_shstrndx);
}

void writeProgramHeader(FieldWriter& out, const Elf64_Phdr& header) {
    out.word(header.p_type);
    if (out.is64()) {
        out.word(header.p_flags);
    }
    out.native(header.p_offset).native(header.p_vaddr).native(header.p_paddr);
    out.native(header.p_filesz).native(header.p_memsz);
    if (!out.is64()) {
        out.word(header.p_flags);
    }
    out.native(header.p_align);
}

void writeSectionHeader(FieldWriter& out, const Elf64_Shdr& header) {
    out.word(header.sh_name).word(header.sh_type);
    out.native(header.sh_flags).native(header.sh_addr).native(header.sh_offset).native(header.sh_size);
    out.word(header.sh_link).word(header.sh_info);
    out.native(header.sh_addralign).native(header.sh_entsize);
}

void writeSymbol(FieldWriter& out, const elf_records::Symbol& symbol, uint16_t sectionIndex) {
    out.word(symbol.nameOffset);
    if (!out.is64()) {
        out.native(symbol.value).native(symbol.size);
    }
    out.out().u8(symbol.info).u8(symbol.other);
    out.half(sectionIndex);
    if (out.is64()) {
        out.native(symbol.value).native(symbol.size);
    }
}

void replaceOverridden(Elf64_Ehdr& header, const ElfHeaderOverrides& overrides) {
    for (size_t i = 0; i < overrides.e_ident.size(); ++i) {
        replaceIfSet(header.e_ident[i], overrides.e_ident[i]);
    }
    replaceIfSet(header.e_type, overrides.e_type);
    replaceIfSet(header.e_machine, overrides.e_machine);
    replaceIfSet(header.e_version, overrides.e_version);
    replaceIfSet(header.e_entry, overrides.e_entry);
    replaceIfSet(header.e_phoff, overrides.e_phoff);
    replaceIfSet(header.e_shoff, overrides.e_shoff);
    replaceIfSet(header.e_flags, overrides.e_flags);
    replaceIfSet(header.e_ehsize, overrides.e_ehsize);
    replaceIfSet(header.e_phentsize, overrides.e_phentsize);
    replaceIfSet(header.e_phnum, overrides.e_phnum);
    replaceIfSet(header.e_shentsize, overrides.e_shentsize);
    replaceIfSet(header.e_shnum, overrides.e_shnum);
    replaceIfSet(header.e_shstrndx, overrides.e_shstrndx);
}

void replaceOverridden(Elf64_Shdr& header, const ElfSectionOverrides& overrides) {
    replaceIfSet(header.sh_name, overrides.sh_name);
    replaceIfSet(header.sh_type, overrides.sh_type);
    replaceIfSet(header.sh_flags, overrides.sh_flags);
    replaceIfSet(header.sh_addr, overrides.sh_addr);
    replaceIfSet(header.sh_offset, overrides.sh_offset);
    replaceIfSet(header.sh_size, overrides.sh_size);
    replaceIfSet(header.sh_link, overrides.sh_link);
    replaceIfSet(header.sh_info, overrides.sh_info);
    replaceIfSet(header.sh_addralign, overrides.sh_addralign);
    replaceIfSet(header.sh_entsize, overrides.sh_entsize);
}

void replaceOverridden(Elf64_Phdr& header, const ElfSegmentOverrides& overrides) {
    replaceIfSet(header.p_type, overrides.p_type);
    replaceIfSet(header.p_flags, overrides.p_flags);
    replaceIfSet(header.p_offset, overrides.p_offset);
    replaceIfSet(header.p_vaddr, overrides.p_vaddr);
    replaceIfSet(header.p_paddr, overrides.p_paddr);
    replaceIfSet(header.p_filesz, overrides.p_filesz);
    replaceIfSet(header.p_memsz, overrides.p_memsz);
    replaceIfSet(header.p_align, overrides.p_align);
}

// The file under construction. Grows as needed; what is put later wins.
class FileImage {
public:
    void put(uint64_t offset, const std::vector<uint8_t>& bytes) {
        if (offset > kLargestFile || bytes.size() > kLargestFile - offset) {
            elfMisuse("the file would be larger than 256 MiB; are addresses of one segment so far apart?");
        }
        m_bytes.resize(std::max<uint64_t>(m_bytes.size(), offset + bytes.size()));
        std::copy(bytes.begin(), bytes.end(), m_bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    std::vector<uint8_t> take() { return std::move(m_bytes); }

private:
    std::vector<uint8_t> m_bytes;
};

} // namespace

ElfAssembler::Impl::Assembly ElfAssembler::Impl::assemble() const {
    Assembly assembly;
    collectSections(assembly);
    collectSegments(assembly);
    makeNames(assembly);
    makeContents(assembly);
    placeSections(assembly);
    makeLayout(assembly);
    makeHeaders(assembly);
    writeFile(assembly);
    return assembly;
}

void ElfAssembler::Impl::collectSections(Assembly& assembly) const {
    for (const auto& section : sections) {
        assembly.sections.push_back(section.get());
    }
    // A file in which nobody made a section has none, not even the null section.
    if (hasSectionNames && hasSectionHeaders && sections.size() > 1) {
        names->index = static_cast<uint32_t>(sections.size());
        assembly.sections.push_back(names.get());
    }
}

void ElfAssembler::Impl::collectSegments(Assembly& assembly) const {
    for (const auto& segment : segments) {
        assembly.segments.push_back(*segment);
    }
    if (!loadsAllSections) {
        return;
    }
    Segment* run = nullptr;
    for (Section* section : assembly.sections) {
        if (!section->isAllocated()) {
            continue;
        }
        const uint32_t access = section->access();
        if (run == nullptr || run->flags != access) {
            run = &assembly.segments.emplace_back();
            run->type = PT_LOAD;
            run->flags = access;
        }
        run->sections.push_back(section);
    }
}

void ElfAssembler::Impl::makeNames(Assembly& assembly) const {
    ByteAssembler strings(order);
    strings.u8(0);
    for (const Section* section : assembly.sections) {
        const bool isNamed = hasSectionNames && !section->name.empty();
        assembly.nameOffsets.push_back(isNamed ? static_cast<uint32_t>(strings.size()) : 0);
        if (isNamed) {
            strings.str(section->name);
        }
    }
    assembly.contents.resize(assembly.sections.size());
    if (assembly.sections.back() == names.get()) {
        assembly.contents.back() = strings.bytes();
    }
}

void ElfAssembler::Impl::makeContents(Assembly& assembly) const {
    for (const Section* section : assembly.sections) {
        auto& contents = assembly.contents[section->index];
        const auto own = contentsOf(*section);
        contents.insert(contents.end(), own.begin(), own.end());
    }
}

std::vector<uint8_t> ElfAssembler::Impl::contentsOf(const Section& section) const {
    if (section.type == SHT_NOBITS) {
        return {};
    }
    std::vector<uint8_t> contents;
    if (section.symbols != nullptr) {
        contents = symbolTableBytes(*section.symbols);
    }
    const auto data = section.data.bytes();
    contents.insert(contents.end(), data.begin(), data.end());
    if (section.size && *section.size > contents.size()) {
        if (*section.size > kLargestFile) {
            elfMisuse("the contents of '" + section.name +
                      "' are too large; override sh_size for a false size");
        }
        contents.resize(*section.size);
    }
    return contents;
}

std::vector<uint8_t> ElfAssembler::Impl::symbolTableBytes(const SymbolTable& table) const {
    FieldWriter out(elfClass, order);
    for (const auto& symbol : table.symbols) {
        const bool isByValue = !symbol.section.m_section && !symbol.section.m_index && !symbol.section.m_name;
        const uint32_t index = isByValue ? sectionHolding(symbol.value) : resolve(symbol.section);
        writeSymbol(out, symbol, static_cast<uint16_t>(index));
        out.out().fill(table.padding, kPaddingOfSymbols);
    }
    return out.out().bytes();
}

// `sh_info` of a symbol table. The order of the symbols is the test's, so locals may follow globals; then the
// end of the last local one is what readers accept.
uint32_t ElfAssembler::Impl::localSymbolsEnd(const SymbolTable& table) const {
    uint32_t end = 0;
    for (const auto& symbol : table.symbols) {
        if (ELF64_ST_BIND(symbol.info) == STB_LOCAL) {
            end = symbol.index + 1;
        }
    }
    return end;
}

uint64_t ElfAssembler::Impl::sizeOf(const Assembly& assembly, const Section& section) const {
    return section.type == SHT_NOBITS ? sizeOf(section) : assembly.contents[section.index].size();
}

// The size without that of generated contents, which lie at no address that a symbol could have.
uint64_t ElfAssembler::Impl::sizeOf(const Section& section) const {
    return std::max<uint64_t>(section.data.size(), section.size.value_or(0));
}

uint32_t ElfAssembler::Impl::resolve(const ElfSectionRef& ref) const {
    if (ref.m_section != nullptr) {
        return ref.m_section->index;
    }
    if (ref.m_index) {
        return *ref.m_index;
    }
    if (!ref.m_name) {
        elfMisuse("only a symbol can be told its section by its value");
    }
    for (const auto& section : sections) {
        if (section->name == *ref.m_name) {
            return section->index;
        }
    }
    elfMisuse("there is no section '" + *ref.m_name + "'");
}

uint32_t ElfAssembler::Impl::sectionHolding(uint64_t value) const {
    for (const auto& section : sections) {
        if (section->isAllocated() && value >= section->address &&
            value - section->address < sizeOf(*section)) {
            return section->index;
        }
    }
    return SHN_ABS;
}

// --- Placing
// ---------------------------------------------------------------------------------------------------

uint64_t ElfAssembler::Impl::baseOf(const Segment& segment) {
    if (segment.address) {
        return *segment.address;
    }
    uint64_t base = segment.sections.empty() ? 0 : ~uint64_t{0};
    for (const Section* section : segment.sections) {
        base = std::min(base, section->address);
    }
    return base;
}

std::optional<size_t> ElfAssembler::Impl::loadSegmentOf(const Assembly& assembly,
                                                        const Section& section) const {
    for (size_t i = 0; i < assembly.segments.size(); ++i) {
        const Segment& segment = assembly.segments[i];
        if (segment.type != PT_LOAD) {
            continue;
        }
        const auto covered = coveredBy(assembly, segment);
        if (std::find(covered.begin(), covered.end(), &section) != covered.end()) {
            return i;
        }
    }
    return std::nullopt;
}

// The sections that were named, or, in a segment that was only given an address range, those that lie in it.
std::vector<elf_records::Section*> ElfAssembler::Impl::coveredBy(const Assembly& assembly,
                                                                 const Segment& segment) {
    if (!segment.sections.empty() || !segment.address || !segment.memorySize) {
        return segment.sections;
    }
    std::vector<Section*> covered;
    for (Section* section : assembly.sections) {
        const bool isInside =
            section->address >= *segment.address && section->address - *segment.address < *segment.memorySize;
        if (section->isAllocated() && isInside) {
            covered.push_back(section);
        }
    }
    return covered;
}

void ElfAssembler::Impl::placeSections(Assembly& assembly) const {
    const uint64_t stride = programHeaderStride.value_or(static_cast<uint16_t>(programHeaderSize()));
    assembly.end = headerSize() + assembly.segments.size() * stride;
    for (const Segment& segment : assembly.segments) {
        assembly.segmentOffsets.push_back(segment.offset);
    }
    std::vector<const Section*> queue(assembly.sections.begin() + 1, assembly.sections.end());
    // Allocated sections first and by address, so that the parts of a segment meet in the file.
    std::stable_sort(queue.begin(), queue.end(), [](const Section* a, const Section* b) {
        if (a->isAllocated() != b->isAllocated()) {
            return a->isAllocated();
        }
        return a->isAllocated() && a->address < b->address;
    });
    assembly.offsets.resize(assembly.sections.size());
    for (const Section* section : queue) {
        const uint64_t offset = placeOf(assembly, *section);
        assembly.offsets[section->index] = offset;
        const uint64_t fileSize = assembly.contents[section->index].size();
        if (fileSize != 0) {
            assembly.end = std::max(assembly.end, offset + fileSize);
        }
    }
}

uint64_t ElfAssembler::Impl::placeOf(Assembly& assembly, const Section& section) const {
    const auto segment = loadSegmentOf(assembly, section);
    if (!section.offset) {
        return segment ? placeInSegment(assembly, section, *segment) : alignedUp(assembly.end, section.align);
    }
    if (segment && !assembly.segmentOffsets[*segment]) {
        const uint64_t delta = section.address - baseOf(assembly.segments[*segment]);
        if (delta <= *section.offset) {
            assembly.segmentOffsets[*segment] = *section.offset - delta;
        }
    }
    return *section.offset;
}

uint64_t ElfAssembler::Impl::placeInSegment(Assembly& assembly, const Section& section,
                                            size_t segment) const {
    const uint64_t base = baseOf(assembly.segments[segment]);
    if (section.address < base) {
        elfMisuse("the section '" + section.name + "' lies before its segment");
    }
    const uint64_t delta = section.address - base;
    auto& segmentOffset = assembly.segmentOffsets[segment];
    if (!segmentOffset) {
        const uint64_t align = std::max<uint64_t>(assembly.segments[segment].align.value_or(kPageSize), 1);
        const uint64_t earliest = std::max(assembly.end, delta);
        const uint64_t distance = (section.address % align + align - earliest % align) % align;
        segmentOffset = earliest + distance - delta;
    }
    const uint64_t offset = *segmentOffset + delta;
    if (offset < assembly.end && !assembly.contents[section.index].empty()) {
        elfMisuse("the section '" + section.name + "' would overlap what lies before it in the file; " +
                  "if that is meant, give it an offset");
    }
    return offset;
}

// --- Headers
// -----------------------------------------------------------------------------------------------------

void ElfAssembler::Impl::makeLayout(Assembly& assembly) const {
    ElfLayout& layout = assembly.layout;
    layout.header = {0, headerSize()};
    layout.programHeaderStride = programHeaderStride.value_or(static_cast<uint16_t>(programHeaderSize()));
    if (!assembly.segments.empty()) {
        layout.programHeaders = {headerSize(), assembly.segments.size() * layout.programHeaderStride};
    }
    for (const Section* section : assembly.sections) {
        const uint64_t size = assembly.contents[section->index].size();
        layout.sectionNames.push_back(section->name);
        layout.sections.push_back({assembly.offsets[section->index], size});
    }
    layout.sectionHeaderStride = sectionHeaderStride.value_or(static_cast<uint16_t>(sectionHeaderSize()));
    if (hasSectionHeaders && assembly.sections.size() > 1) {
        layout.sectionHeaders = {alignedUp(assembly.end, wordSize()),
                                 assembly.sections.size() * layout.sectionHeaderStride};
    }
}

void ElfAssembler::Impl::makeHeaders(Assembly& assembly) const {
    ElfHeaders& headers = assembly.headers;
    headers.header = headerOf(assembly);
    replaceOverridden(headers.header, overrides);
    for (size_t i = 0; i < assembly.segments.size(); ++i) {
        headers.programs.push_back(programHeaderOf(assembly, i));
        replaceOverridden(headers.programs.back(), assembly.segments[i].overrides);
    }
    if (assembly.layout.sectionHeaders.size != 0) {
        for (const Section* section : assembly.sections) {
            headers.sections.push_back(sectionHeaderOf(assembly, *section));
            replaceOverridden(headers.sections.back(), section->overrides);
        }
    }
    for (const auto& change : callbacks) {
        change(headers);
    }
}

Elf64_Ehdr ElfAssembler::Impl::headerOf(const Assembly& assembly) const {
    const ElfLayout& layout = assembly.layout;
    Elf64_Ehdr header{};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = is64() ? ELFCLASS64 : ELFCLASS32;
    header.e_ident[EI_DATA] = dataEncoding.value_or(order == ByteOrder::kLittle ? ELFDATA2LSB : ELFDATA2MSB);
    header.e_ident[EI_VERSION] = EV_CURRENT;
    header.e_type = type;
    header.e_machine = machine;
    header.e_version = EV_CURRENT;
    header.e_entry = entry;
    header.e_flags = flags;
    header.e_ehsize = static_cast<uint16_t>(headerSize());
    if (layout.programHeaders.size != 0) {
        header.e_phoff = layout.programHeaders.offset;
        header.e_phentsize = static_cast<uint16_t>(layout.programHeaderStride);
        header.e_phnum = static_cast<uint16_t>(assembly.segments.size());
    }
    if (layout.sectionHeaders.size != 0) {
        header.e_shoff = layout.sectionHeaders.offset;
        header.e_shentsize = static_cast<uint16_t>(layout.sectionHeaderStride);
        header.e_shnum = static_cast<uint16_t>(assembly.sections.size());
        const bool hasNames = assembly.sections.back() == names.get();
        header.e_shstrndx = static_cast<uint16_t>(hasNames ? names->index : SHN_UNDEF);
    }
    return header;
}

Elf64_Shdr ElfAssembler::Impl::sectionHeaderOf(const Assembly& assembly, const Section& section) const {
    Elf64_Shdr header{};
    if (section.index == SHN_UNDEF) {
        return header;
    }
    header.sh_name = assembly.nameOffsets[section.index];
    header.sh_type = section.type;
    header.sh_flags = section.flags;
    header.sh_addr = section.address;
    header.sh_offset = assembly.offsets[section.index];
    header.sh_size = sizeOf(assembly, section);
    header.sh_addralign = section.align;
    header.sh_entsize = section.entrySize;
    if (section.link) {
        header.sh_link = resolve(*section.link);
    }
    if (section.symbols != nullptr) {
        header.sh_info = localSymbolsEnd(*section.symbols);
        header.sh_entsize =
            section.entrySize != 0 ? section.entrySize : symbolSize() + section.symbols->padding;
    }
    if (section.info) {
        header.sh_info = resolve(*section.info);
    }
    return header;
}

Elf64_Phdr ElfAssembler::Impl::programHeaderOf(const Assembly& assembly, size_t index) const {
    const Segment& segment = assembly.segments[index];
    const auto covered = coveredBy(assembly, segment);
    const uint64_t base = baseOf(segment);
    uint64_t firstOffset = covered.empty() ? 0 : ~uint64_t{0};
    uint64_t fileEnd = 0;
    uint64_t memoryEnd = base;
    uint64_t align = 1;
    for (const Section* section : covered) {
        const uint64_t offset = assembly.offsets[section->index];
        const uint64_t size = sizeOf(assembly, *section);
        firstOffset = std::min(firstOffset, offset);
        fileEnd = section->type == SHT_NOBITS ? fileEnd : std::max(fileEnd, offset + size);
        memoryEnd = std::max(memoryEnd, section->address + size);
        align = std::max(align, section->align);
    }
    Elf64_Phdr header{};
    header.p_type = segment.type;
    header.p_flags = segment.flags;
    header.p_offset = assembly.segmentOffsets[index].value_or(firstOffset);
    header.p_vaddr = base;
    header.p_paddr = segment.physicalAddress.value_or(base);
    header.p_filesz = segment.fileSize.value_or(fileEnd > header.p_offset ? fileEnd - header.p_offset : 0);
    header.p_memsz = segment.memorySize.value_or(memoryEnd - base);
    header.p_align = segment.align.value_or(segment.type == PT_LOAD ? kPageSize : align);
    return header;
}

template <typename Header, typename Write>
std::vector<uint8_t> ElfAssembler::Impl::tableOf(const std::vector<Header>& headers, uint64_t stride,
                                                 Write write) const {
    std::vector<uint8_t> table;
    for (const Header& header : headers) {
        FieldWriter out(elfClass, order);
        write(out, header);
        auto entry = out.out().bytes();
        entry.resize(stride);
        table.insert(table.end(), entry.begin(), entry.end());
    }
    return table;
}

void ElfAssembler::Impl::writeFile(Assembly& assembly) const {
    ElfLayout& layout = assembly.layout;
    FileImage image;
    for (const Section* section : assembly.sections) {
        if (!assembly.contents[section->index].empty()) {
            image.put(assembly.offsets[section->index], assembly.contents[section->index]);
        }
    }
    image.put(layout.programHeaders.offset,
              tableOf(assembly.headers.programs, layout.programHeaderStride, writeProgramHeader));
    image.put(layout.sectionHeaders.offset,
              tableOf(assembly.headers.sections, layout.sectionHeaderStride, writeSectionHeader));
    FieldWriter header(elfClass, order);
    writeHeader(header, assembly.headers.header);
    image.put(0, header.out().bytes());
    assembly.file = image.take();
    layout.fileSize = assembly.file.size();
}

} // namespace orn_test
