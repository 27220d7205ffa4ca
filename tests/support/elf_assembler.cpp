// The surface of the ELF assembler. Its operations only keep what they were told, in records to which the
// handles point; nothing is laid out before `build` (elf_assembler_build.cpp). So the order of calls does not
// matter, and a test may build, change one thing and build again.
//
// It leaves out what no reader under test looks at: dynamic sections, hash tables, symbol versions and
// extended section numbering.

#include "support/elf_assembler_impl.h"

#include <zlib.h>

#include <algorithm>
#include <fstream>

namespace orn_test {

namespace {

constexpr uint64_t kNoteAlign = 4;

} // namespace

// -------------------------------------------------------------------------------------------

uint32_t ElfLayout::sectionIndex(std::string_view name) const {
    const auto found = std::find(sectionNames.begin(), sectionNames.end(), name);
    if (found == sectionNames.end()) {
        elfMisuse("there is no section '" + std::string(name) + "'");
    }
    return static_cast<uint32_t>(found - sectionNames.begin());
}

uint64_t ElfLayout::programHeaderOffset(size_t index) const {
    const uint64_t offset = index * programHeaderStride;
    if (offset >= programHeaders.size) {
        elfMisuse("there is no program header " + std::to_string(index));
    }
    return programHeaders.offset + offset;
}

uint64_t ElfLayout::sectionHeaderOffset(size_t index) const {
    const uint64_t offset = index * sectionHeaderStride;
    if (offset >= sectionHeaders.size) {
        elfMisuse("there is no section header " + std::to_string(index));
    }
    return sectionHeaders.offset + offset;
}

std::vector<uint64_t> ElfLayout::headerByteOffsets() const {
    std::vector<uint64_t> offsets;
    for (const Range& range : {header, programHeaders, sectionHeaders}) {
        for (uint64_t i = 0; i < range.size; ++i) {
            offsets.push_back(range.offset + i);
        }
    }
    return offsets;
}

// -----------------------------------------------------------------------------------------------------

std::vector<uint8_t> zlibCompressed(std::span<const uint8_t> bytes) {
    uLongf size = compressBound(bytes.size());
    std::vector<uint8_t> out(size);
    if (compress(out.data(), &size, bytes.data(), bytes.size()) != Z_OK) {
        elfMisuse("zlib cannot compress");
    }
    out.resize(size);
    return out;
}

uint32_t debugLinkCrc(std::span<const uint8_t> bytes) {
    return static_cast<uint32_t>(crc32_z(0, bytes.data(), bytes.size()));
}

std::unique_ptr<elf_records::Section> ElfAssembler::Impl::makeSection(std::string name, uint32_t sectionType,
                                                                      uint64_t sectionFlags) const {
    auto section = std::make_unique<Section>();
    section->name = std::move(name);
    section->type = sectionType;
    section->flags = sectionFlags;
    section->data = ByteAssembler(order);
    return section;
}

elf_records::Section* ElfAssembler::Impl::addSection(std::string name, uint32_t sectionType,
                                                     uint64_t sectionFlags) {
    sections.push_back(makeSection(std::move(name), sectionType, sectionFlags));
    sections.back()->index = static_cast<uint32_t>(sections.size() - 1);
    return sections.back().get();
}

elf_records::SymbolTable* ElfAssembler::Impl::addSymbolTable(std::string name, std::string stringsName,
                                                             uint32_t tableType, uint64_t tableFlags) {
    symbolTables.push_back(std::make_unique<SymbolTable>());
    SymbolTable* table = symbolTables.back().get();
    table->section = addSection(std::move(name), tableType, tableFlags);
    table->strings = addSection(std::move(stringsName), SHT_STRTAB, tableFlags);
    table->strings->data.u8(0);
    table->section->symbols = table;
    table->section->align = wordSize();
    table->section->link = ElfSection(table->strings);
    table->symbols.push_back({0, 0, 0, 0, 0, 0, ElfSectionRef(SHN_UNDEF)});
    return table;
}

// -----------------------------------------------------------------------------------------------------

ElfSectionRef::ElfSectionRef(ElfSection section) : m_section(section.m_record) {}

uint32_t ElfSection::index() const {
    return m_record->index;
}

const std::string& ElfSection::name() const {
    return m_record->name;
}

ElfSection ElfSection::type(uint32_t value) const {
    m_record->type = value;
    return *this;
}

ElfSection ElfSection::flags(uint64_t value) const {
    m_record->flags = value;
    return *this;
}

ElfSection ElfSection::address(uint64_t value) const {
    m_record->address = value;
    return *this;
}

ElfSection ElfSection::offset(uint64_t value) const {
    m_record->offset = value;
    return *this;
}

ElfSection ElfSection::size(uint64_t value) const {
    m_record->size = value;
    return *this;
}

ElfSection ElfSection::align(uint64_t value) const {
    m_record->align = value;
    return *this;
}

ElfSection ElfSection::entrySize(uint64_t value) const {
    m_record->entrySize = value;
    return *this;
}

ElfSection ElfSection::link(ElfSectionRef section) const {
    m_record->link = std::move(section);
    return *this;
}

ElfSection ElfSection::info(ElfSectionRef section) const {
    m_record->info = std::move(section);
    return *this;
}

ByteAssembler& ElfSection::data() const {
    return m_record->data;
}

ElfSection ElfSection::append(std::span<const uint8_t> bytes) const {
    m_record->data.raw(bytes);
    return *this;
}

ElfSection ElfSection::append(std::initializer_list<uint8_t> bytes) const {
    m_record->data.raw(bytes);
    return *this;
}

ElfSection ElfSection::append(const ByteAssembler& bytes) const {
    return append(bytes.bytes());
}

ElfSection ElfSection::zeros(size_t count) const {
    m_record->data.fill(count);
    return *this;
}

uint64_t ElfSection::addressOf(ByteAssembler::LabelRef label) const {
    return m_record->address + m_record->data.offsetOf(std::move(label));
}

ElfSectionOverrides& ElfSection::header() const {
    return m_record->overrides;
}

ElfSegment ElfSegment::covers(std::initializer_list<ElfSection> sections) const {
    for (const ElfSection& section : sections) {
        m_record->sections.push_back(section.m_record);
    }
    return *this;
}

ElfSegment ElfSegment::flags(uint32_t value) const {
    m_record->flags = value;
    return *this;
}

ElfSegment ElfSegment::address(uint64_t value) const {
    m_record->address = value;
    return *this;
}

ElfSegment ElfSegment::physicalAddress(uint64_t value) const {
    m_record->physicalAddress = value;
    return *this;
}

ElfSegment ElfSegment::offset(uint64_t value) const {
    m_record->offset = value;
    return *this;
}

ElfSegment ElfSegment::fileSize(uint64_t value) const {
    m_record->fileSize = value;
    return *this;
}

ElfSegment ElfSegment::memorySize(uint64_t value) const {
    m_record->memorySize = value;
    return *this;
}

ElfSegment ElfSegment::align(uint64_t value) const {
    m_record->align = value;
    return *this;
}

ElfSegmentOverrides& ElfSegment::header() const {
    return m_record->overrides;
}

uint32_t ElfSymbol::index() const {
    return m_record->index;
}

ElfSymbol ElfSymbol::other(uint8_t value) const {
    m_record->other = value;
    return *this;
}

ElfSymbol ElfSymbol::info(uint8_t value) const {
    m_record->info = value;
    return *this;
}

ElfSymbol ElfSymbol::nameOffset(uint32_t value) const {
    m_record->nameOffset = value;
    return *this;
}

ElfSymbol ElfSymbolTable::add(std::string_view name, uint64_t value, uint64_t size, unsigned bind,
                              unsigned type, ElfSectionRef section) const {
    ByteAssembler& strings = m_record->strings->data;
    const auto nameOffset = name.empty() ? 0U : static_cast<uint32_t>(strings.size());
    if (!name.empty()) {
        strings.str(name);
    }
    const auto index = static_cast<uint32_t>(m_record->symbols.size());
    const auto info = static_cast<uint8_t>(ELF64_ST_INFO(bind, type));
    m_record->symbols.push_back({index, nameOffset, value, size, info, STV_DEFAULT, std::move(section)});
    return ElfSymbol(&m_record->symbols.back());
}

ElfSymbolTable ElfSymbolTable::padEntries(unsigned bytes) const {
    m_record->padding = bytes;
    return *this;
}

ElfSection ElfSymbolTable::section() const {
    return ElfSection(m_record->section);
}

ElfSection ElfSymbolTable::strings() const {
    return ElfSection(m_record->strings);
}

ElfRelocations ElfRelocations::add(uint64_t offset, uint32_t symbol, uint32_t type, int64_t addend) const {
    const uint64_t info = m_class == ElfClass::k64 ? ELF64_R_INFO(uint64_t{symbol}, type)
                                                   : uint64_t{ELF32_R_INFO(symbol, type)};
    return addRaw(offset, info, addend);
}

ElfRelocations ElfRelocations::addRaw(uint64_t offset, uint64_t info, int64_t addend) const {
    const unsigned width = m_class == ElfClass::k64 ? 8 : 4;
    ByteAssembler& data = m_section.data();
    data.number(offset, width).number(info, width);
    if (m_hasAddends) {
        data.number(static_cast<uint64_t>(addend), width);
    }
    return *this;
}

// ---------------------------------------------------------------------------------------

ElfAssembler::ElfAssembler(ElfClass elfClass, std::optional<uint16_t> machine, uint16_t type, ByteOrder order)
    : m_impl(std::make_unique<Impl>()) {
    m_impl->elfClass = elfClass;
    m_impl->machine = machine.value_or(elfClass == ElfClass::k64 ? EM_X86_64 : EM_386);
    m_impl->type = type;
    m_impl->order = order;
    m_impl->addSection("", SHT_NULL, 0);
    m_impl->names = m_impl->makeSection(".shstrtab", SHT_STRTAB, 0);
}

ElfAssembler::ElfAssembler(ElfAssembler&&) noexcept = default;
ElfAssembler& ElfAssembler::operator=(ElfAssembler&&) noexcept = default;
ElfAssembler::~ElfAssembler() = default;

ElfClass ElfAssembler::elfClass() const {
    return m_impl->elfClass;
}

ElfAssembler& ElfAssembler::type(uint16_t value) {
    m_impl->type = value;
    return *this;
}

ElfAssembler& ElfAssembler::machine(uint16_t value) {
    m_impl->machine = value;
    return *this;
}

ElfAssembler& ElfAssembler::entry(uint64_t value) {
    m_impl->entry = value;
    return *this;
}

ElfAssembler& ElfAssembler::flags(uint32_t value) {
    m_impl->flags = value;
    return *this;
}

ElfAssembler& ElfAssembler::dataEncoding(uint8_t value) {
    m_impl->dataEncoding = value;
    return *this;
}

ElfAssembler& ElfAssembler::programHeaderStride(uint16_t value) {
    m_impl->programHeaderStride = value;
    return *this;
}

ElfAssembler& ElfAssembler::sectionHeaderStride(uint16_t value) {
    m_impl->sectionHeaderStride = value;
    return *this;
}

ElfAssembler& ElfAssembler::withoutSectionNames() {
    m_impl->hasSectionNames = false;
    return *this;
}

ElfAssembler& ElfAssembler::withoutSectionHeaders() {
    m_impl->hasSectionHeaders = false;
    return *this;
}

ElfHeaderOverrides& ElfAssembler::header() {
    return m_impl->overrides;
}

ElfAssembler& ElfAssembler::afterLayout(std::function<void(ElfHeaders&)> change) {
    m_impl->callbacks.push_back(std::move(change));
    return *this;
}

ElfSection ElfAssembler::section(std::string name, uint32_t type, uint64_t flags) {
    return ElfSection(m_impl->addSection(std::move(name), type, flags));
}

ElfSection ElfAssembler::sectionAt(uint32_t index) {
    if (index >= m_impl->sections.size()) {
        elfMisuse("there is no section " + std::to_string(index));
    }
    return ElfSection(m_impl->sections[index].get());
}

ElfSection ElfAssembler::sectionNames() {
    return ElfSection(m_impl->names.get());
}

ElfSection ElfAssembler::compressedSection(std::string name, std::span<const uint8_t> contents,
                                           std::optional<ElfCompression> form) {
    const bool isZdebug = name.starts_with(".zdebug_");
    const ElfCompression actual =
        form.value_or(isZdebug ? ElfCompression::kZlibBlock : ElfCompression::kChdr);
    const bool is64 = m_impl->is64();
    const auto chdrSize = is64 ? sizeof(Elf64_Chdr) : sizeof(Elf32_Chdr);
    const ElfSection made =
        section(std::move(name), SHT_PROGBITS, actual == ElfCompression::kZlibBlock ? 0 : SHF_COMPRESSED);
    const auto bigEndianSize = ByteAssembler(ByteOrder::kBig).u64(contents.size()).bytes();
    ByteAssembler& data = made.data();
    switch (actual) {
    case ElfCompression::kZlibBlock:
        data.chars("ZLIB").raw(bigEndianSize);
        break;
    case ElfCompression::kChdr:
        data.u32(ELFCOMPRESS_ZLIB);
        if (is64) {
            data.u32(0);
        }
        data.number(contents.size(), is64 ? 8 : 4).number(1, is64 ? 8 : 4);
        break;
    case ElfCompression::kChdrWithBigEndianSize:
        data.raw({ELFCOMPRESS_ZLIB, 0, 0, 0}).raw(bigEndianSize).padTo(chdrSize);
        break;
    }
    return made.append(zlibCompressed(contents));
}

ElfSection ElfAssembler::note(std::string sectionName, std::string_view owner, uint32_t type,
                              std::span<const uint8_t> description) {
    const ElfSection made = section(std::move(sectionName), SHT_NOTE, SHF_ALLOC).align(kNoteAlign);
    made.data().u32(static_cast<uint32_t>(owner.size() + 1)).u32(static_cast<uint32_t>(description.size()));
    made.data().u32(type).str(owner).align(kNoteAlign).raw(description).align(kNoteAlign);
    return made;
}

ElfSection ElfAssembler::buildId(std::span<const uint8_t> id) {
    return note(".note.gnu.build-id", ELF_NOTE_GNU, NT_GNU_BUILD_ID, id);
}

ElfSection ElfAssembler::buildId(std::initializer_list<uint8_t> id) {
    return buildId(std::span<const uint8_t>(id.begin(), id.size()));
}

ElfSection ElfAssembler::debugLink(std::string_view fileName, uint32_t crc) {
    const ElfSection made = section(".gnu_debuglink").align(kNoteAlign);
    made.data().str(fileName).align(kNoteAlign).u32(crc);
    return made;
}

ElfSegment ElfAssembler::segment(uint32_t type, uint32_t flags) {
    m_impl->segments.push_back(std::make_unique<elf_records::Segment>());
    m_impl->segments.back()->type = type;
    m_impl->segments.back()->flags = flags;
    return ElfSegment(m_impl->segments.back().get());
}

ElfSegment ElfAssembler::load(std::initializer_list<ElfSection> sections, std::optional<uint32_t> flags) {
    uint32_t access = PF_R;
    for (const ElfSection& section : sections) {
        access |= section.m_record->access();
    }
    return segment(PT_LOAD, flags.value_or(access)).covers(sections);
}

ElfSegment ElfAssembler::loadRange(uint64_t address, uint64_t memorySize, uint32_t flags) {
    return segment(PT_LOAD, flags).address(address).memorySize(memorySize);
}

ElfAssembler& ElfAssembler::loadAllSections() {
    m_impl->loadsAllSections = true;
    return *this;
}

ElfSymbol ElfAssembler::symbol(std::string_view name, uint64_t value, uint64_t size, unsigned bind,
                               unsigned type, ElfSectionRef section) {
    return symbols().add(name, value, size, bind, type, std::move(section));
}

ElfSymbol ElfAssembler::dynamicSymbol(std::string_view name, uint64_t value, uint64_t size, unsigned bind,
                                      unsigned type, ElfSectionRef section) {
    return dynamicSymbols().add(name, value, size, bind, type, std::move(section));
}

ElfSymbolTable ElfAssembler::symbols() {
    if (m_impl->symbols == nullptr) {
        m_impl->symbols = m_impl->addSymbolTable(".symtab", ".strtab", SHT_SYMTAB, 0);
    }
    return ElfSymbolTable(m_impl->symbols);
}

ElfSymbolTable ElfAssembler::dynamicSymbols() {
    if (m_impl->dynamicSymbols == nullptr) {
        m_impl->dynamicSymbols = m_impl->addSymbolTable(".dynsym", ".dynstr", SHT_DYNSYM, SHF_ALLOC);
    }
    return ElfSymbolTable(m_impl->dynamicSymbols);
}

ElfSymbolTable ElfAssembler::addSymbolTable(std::string name, std::string stringsName, uint32_t type,
                                            uint64_t flags) {
    return ElfSymbolTable(m_impl->addSymbolTable(std::move(name), std::move(stringsName), type, flags));
}

ElfRelocations ElfAssembler::relocations(std::string name, uint32_t type, ElfSectionRef target,
                                         ElfSectionRef symbolTable, uint64_t flags) {
    const bool hasAddends = type == SHT_RELA;
    const uint64_t wordSize = m_impl->wordSize();
    const ElfSection made = section(std::move(name), type, flags)
                                .align(wordSize)
                                .entrySize(wordSize * (hasAddends ? 3 : 2))
                                .info(std::move(target))
                                .link(std::move(symbolTable));
    return ElfRelocations(made, m_impl->elfClass, hasAddends);
}

std::vector<uint8_t> ElfAssembler::build() const {
    return m_impl->assemble().file;
}

ElfLayout ElfAssembler::layout() const {
    return m_impl->assemble().layout;
}

void ElfAssembler::write(const std::string& path) const {
    const auto bytes = build();
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file) {
        throw std::runtime_error("ElfAssembler: cannot write " + path);
    }
}

} // namespace orn_test
