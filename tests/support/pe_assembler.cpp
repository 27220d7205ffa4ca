// The assembler of PE images. Shares nothing with the library, so that what both say of a file means
// something; its own files are judged by objdump.

#include "support/pe_assembler.h"

#include <algorithm>
#include <stdexcept>

namespace orn_test {

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t ntHeadersOffset = 0x80;
constexpr uint32_t sectionAlignment = 0x1000;
constexpr size_t shortNameLength = 8;
constexpr uint32_t stringTableStart = 4; ///< behind its own size
constexpr uint32_t debugEntrySize = 28;
constexpr unsigned exportDirectoryIndex = 0;
constexpr unsigned debugDirectoryIndex = 6;
constexpr unsigned clrDirectoryIndex = 14;

} // namespace

void putNumber(Bytes& bytes, size_t offset, uint64_t value, unsigned width) {
    if (offset + width > bytes.size())
        throw std::logic_error("putNumber: outside the bytes");
    for (unsigned i = 0; i < width; ++i)
        bytes[offset + i] = static_cast<uint8_t>(value >> (8 * i));
}

// --- PeExports

PeExports& PeExports::base(uint32_t value) {
    m_base = value;
    return *this;
}

uint16_t PeExports::add(std::string_view name, uint32_t rva) {
    const uint16_t index = addUnnamed(rva);
    alias(name, index);
    return index;
}

uint16_t PeExports::addUnnamed(uint32_t rva) {
    m_functions.push_back({rva, ""});
    return static_cast<uint16_t>(m_functions.size() - 1);
}

PeExports& PeExports::alias(std::string_view name, uint16_t index) {
    m_names.emplace_back(name, index);
    return *this;
}

uint16_t PeExports::addForwarder(std::string_view name, std::string_view target) {
    m_functions.push_back({0, std::string(target)});
    const auto index = static_cast<uint16_t>(m_functions.size() - 1);
    alias(name, index);
    return index;
}

ByteAssembler PeExports::contents(uint32_t rva) const {
    ByteAssembler out;
    out.u32(0).u32(0).u16(0).u16(0).absolute("module", 4, rva).u32(m_base);
    out.u32(static_cast<uint32_t>(m_functions.size())).u32(static_cast<uint32_t>(m_names.size()));
    out.absolute("functions", 4, rva).absolute("names", 4, rva).absolute("ordinals", 4, rva);
    out.define("functions");
    for (size_t i = 0; i < m_functions.size(); ++i) {
        if (m_functions[i].target.empty())
            out.u32(m_functions[i].rva);
        else
            out.absolute("target" + std::to_string(i), 4, rva);
    }
    out.define("names");
    for (size_t i = 0; i < m_names.size(); ++i)
        out.absolute("name" + std::to_string(i), 4, rva);
    out.define("ordinals");
    for (const auto& [name, index] : m_names)
        out.u16(index);
    out.define("module").str("module.dll");
    for (size_t i = 0; i < m_names.size(); ++i)
        out.define("name" + std::to_string(i)).str(m_names[i].first);
    for (size_t i = 0; i < m_functions.size(); ++i)
        if (!m_functions[i].target.empty())
            out.define("target" + std::to_string(i)).str(m_functions[i].target);
    return out;
}

// --- PeAssembler: what is asked for

PeAssembler::PeAssembler(PeClass peClass)
    : m_class(peClass),
      m_machine(peClass == PeClass::k64 ? 0x8664 : 0x014C),
      m_imageBase(peClass == PeClass::k64 ? 0x180000000 : 0x400000) {}

PeAssembler& PeAssembler::machine(uint16_t value) {
    m_machine = value;
    return *this;
}

PeAssembler& PeAssembler::imageBase(uint64_t value) {
    m_imageBase = value;
    return *this;
}

PeAssembler& PeAssembler::entry(uint32_t rva) {
    m_entry = rva;
    return *this;
}

PeAssembler& PeAssembler::baseOfCode(uint32_t rva) {
    m_baseOfCode = rva;
    return *this;
}

PeAssembler& PeAssembler::fileAlignment(uint32_t value) {
    m_fileAlignment = value;
    return *this;
}

PeAssembler& PeAssembler::directory(unsigned index, uint32_t rva, uint32_t size) {
    m_directories.at(index) = {rva, size};
    return *this;
}

PeAssembler& PeAssembler::directoryCount(uint32_t value) {
    m_directoryCount = value;
    return *this;
}

PeSection& PeAssembler::section(std::string name, uint32_t rva, uint32_t characteristics) {
    PeSection& made = m_sections.emplace_back();
    made.name = std::move(name);
    made.rva = rva;
    made.characteristics = characteristics;
    return made;
}

PeExports& PeAssembler::exports(uint32_t rva) {
    if (!m_exports) {
        m_exports.emplace();
        m_exportSection = static_cast<unsigned>(m_sections.size());
        section(".edata", rva, peReadOnly);
        directory(exportDirectoryIndex, rva, 0);
    }
    return *m_exports;
}

PeAssembler& PeAssembler::debugEntry(uint32_t rva, uint32_t type, Bytes record) {
    if (m_debugEntries.empty()) {
        m_debugSection = static_cast<unsigned>(m_sections.size());
        section(".debug", rva, peReadOnly);
    }
    m_debugEntries.push_back({type, std::move(record)});
    return directory(debugDirectoryIndex, rva, static_cast<uint32_t>(m_debugEntries.size() * debugEntrySize));
}

PeAssembler& PeAssembler::clrHeader(uint32_t rva, uint32_t nativeHeaderRva) {
    PeSection& made = section(".cormeta", rva, peReadOnly);
    made.data.u32(72).u16(2).u16(5).padTo(64).u32(nativeHeaderRva).u32(nativeHeaderRva != 0 ? 16 : 0);
    return directory(clrDirectoryIndex, rva, 72);
}

Bytes PeAssembler::rsds(const std::array<uint8_t, 16>& guid, uint32_t age, std::string_view path) {
    ByteAssembler record;
    record.chars("RSDS").raw(guid).u32(age).str(path);
    return record.take();
}

Bytes PeAssembler::nb10(uint32_t signature, uint32_t age, std::string_view path) {
    ByteAssembler record;
    record.chars("NB10").u32(0).u32(signature).u32(age).str(path);
    return record.take();
}

Bytes PeAssembler::readyToRunHeader(uint16_t majorVersion, uint16_t minorVersion) {
    ByteAssembler header;
    header.chars("RTR").u8(0).u16(majorVersion).u16(minorVersion).u32(0).u32(0);
    return header.take();
}

// --- PeAssembler: what comes of it

uint32_t PeAssembler::aligned(uint64_t value) const {
    return static_cast<uint32_t>((value + m_fileAlignment - 1) / m_fileAlignment * m_fileAlignment);
}

uint32_t PeAssembler::optionalHeaderSize() const {
    return (is64Bit() ? 112 : 96) + 8 * m_directoryCount;
}

Bytes PeAssembler::debugBytes(uint32_t fileOffset) const {
    const uint32_t rva = m_sections[m_debugSection].rva;
    ByteAssembler out;
    for (size_t i = 0; i < m_debugEntries.size(); ++i) {
        const std::string label = "record" + std::to_string(i);
        out.u32(0).u32(0).u16(0).u16(0).u32(m_debugEntries[i].type);
        out.u32(static_cast<uint32_t>(m_debugEntries[i].record.size()));
        out.absolute(label, 4, rva).absolute(label, 4, fileOffset);
    }
    for (size_t i = 0; i < m_debugEntries.size(); ++i)
        out.define("record" + std::to_string(i)).raw(m_debugEntries[i].record);
    return out.bytes();
}

std::vector<Bytes> PeAssembler::sectionBytes(const PeLayout& layout) const {
    std::vector<Bytes> all;
    for (size_t i = 0; i < m_sections.size(); ++i) {
        Bytes bytes = m_sections[i].data.bytes();
        if (m_exports && i == m_exportSection)
            bytes = m_exports->contents(m_sections[i].rva).bytes();
        if (!m_debugEntries.empty() && i == m_debugSection)
            bytes = debugBytes(i < layout.sections.size() ? layout.sections[i] : 0);
        all.push_back(std::move(bytes));
    }
    return all;
}

/// By section, from the start of the string table; 0 for a short name.
std::vector<uint32_t> PeAssembler::longNameOffsets() const {
    std::vector<uint32_t> offsets;
    uint32_t next = stringTableStart;
    for (const PeSection& section : m_sections) {
        const bool isLong = section.name.size() > shortNameLength;
        offsets.push_back(isLong ? next : 0);
        next += isLong ? static_cast<uint32_t>(section.name.size() + 1) : 0;
    }
    return offsets;
}

PeLayout PeAssembler::layout() const {
    PeLayout layout;
    layout.ntHeaders = ntHeadersOffset;
    layout.fileHeader = layout.ntHeaders + 4;
    layout.optionalHeader = layout.fileHeader + 20;
    layout.dataDirectories = layout.optionalHeader + optionalHeaderSize() - 8 * m_directoryCount;
    layout.sectionTable = layout.optionalHeader + optionalHeaderSize();
    uint32_t next = aligned(layout.sectionHeader(static_cast<unsigned>(m_sections.size())));
    for (const Bytes& bytes : sectionBytes({})) {
        layout.sections.push_back(bytes.empty() ? 0 : next);
        next += aligned(bytes.size());
    }
    uint32_t strings = 0;
    for (const PeSection& section : m_sections)
        strings += section.name.size() > shortNameLength ? static_cast<uint32_t>(section.name.size() + 1) : 0;
    if (strings != 0) {
        layout.stringTable = next;
        next += stringTableStart + strings;
    }
    layout.fileSize = next;
    return layout;
}

uint32_t PeAssembler::sizeOfImage(const std::vector<Bytes>& contents) const {
    uint64_t end = sectionAlignment;
    for (size_t i = 0; i < m_sections.size(); ++i)
        end = std::max<uint64_t>(end,
                                 m_sections[i].rva + static_cast<uint64_t>(m_sections[i].virtualSize.value_or(
                                                         static_cast<uint32_t>(contents[i].size()))));
    return static_cast<uint32_t>((end + sectionAlignment - 1) / sectionAlignment * sectionAlignment);
}

/// The export table's size is known when it is complete, unless the directory was set by hand.
uint32_t PeAssembler::directorySize(unsigned index) const {
    const auto& [rva, size] = m_directories.at(index);
    if (index == exportDirectoryIndex && m_exports && size == 0 && rva != 0)
        return static_cast<uint32_t>(m_exports->contents(rva).bytes().size());
    return size;
}

void PeAssembler::writeFileHeader(ByteAssembler& out, const PeLayout& layout) const {
    constexpr uint16_t executableImage = 0x0002;
    constexpr uint16_t machine32Bit = 0x0100;
    constexpr uint16_t library = 0x2000;
    out.u16(m_machine).u16(static_cast<uint16_t>(m_sections.size())).u32(0);
    out.u32(layout.stringTable).u32(0); // a symbol table without symbols: its strings follow at once
    out.u16(static_cast<uint16_t>(optionalHeaderSize()));
    out.u16(executableImage | library | (is64Bit() ? 0 : machine32Bit));
}

void PeAssembler::writeOptionalHeader(ByteAssembler& out, uint32_t sizeOfImage) const {
    const unsigned word = is64Bit() ? 8 : 4;
    out.u16(is64Bit() ? 0x020B : 0x010B).u8(2).u8(40).u32(0).u32(0).u32(0).u32(m_entry).u32(m_baseOfCode);
    if (!is64Bit())
        out.u32(0); // BaseOfData
    out.number(m_imageBase, word).u32(sectionAlignment).u32(m_fileAlignment);
    out.u16(4).u16(0).u16(0).u16(0).u16(5).u16(2).u32(0).u32(sizeOfImage);
    out.u32(0x400).u32(0).u16(3).u16(0);
    out.number(0x200000, word).number(0x1000, word).number(0x100000, word).number(0x1000, word);
    out.u32(0).u32(m_directoryCount);
    for (uint32_t i = 0; i < m_directoryCount; ++i)
        out.u32(m_directories.at(i).first).u32(directorySize(i));
}

void PeAssembler::writeSectionTable(ByteAssembler& out, const PeLayout& layout,
                                    const std::vector<Bytes>& contents) const {
    const std::vector<uint32_t> longNames = longNameOffsets();
    for (size_t i = 0; i < m_sections.size(); ++i) {
        const PeSection& section = m_sections[i];
        const std::string name =
            section.shortName.value_or(longNames[i] != 0 ? "/" + std::to_string(longNames[i]) : section.name);
        if (name.size() > shortNameLength)
            throw std::logic_error("PeAssembler: the short name " + name + " is too long");
        const auto size = static_cast<uint32_t>(contents[i].size());
        out.chars(name).fill(shortNameLength - name.size());
        out.u32(section.virtualSize.value_or(size)).u32(section.rva);
        out.u32(section.sizeOfRawData.value_or(aligned(size)));
        out.u32(section.pointerToRawData.value_or(layout.sections[i]));
        out.u32(0).u32(0).u16(0).u16(0).u32(section.characteristics);
    }
}

Bytes PeAssembler::build() const {
    const PeLayout places = layout();
    const std::vector<Bytes> contents = sectionBytes(places);
    ByteAssembler out;
    out.chars("MZ").padTo(60).u32(ntHeadersOffset).padTo(ntHeadersOffset).chars("PE").u16(0);
    writeFileHeader(out, places);
    writeOptionalHeader(out, sizeOfImage(contents));
    writeSectionTable(out, places, contents);
    for (const Bytes& bytes : contents)
        out.padTo(aligned(out.size())).raw(bytes);
    out.padTo(aligned(out.size()));
    if (places.stringTable != 0) {
        out.u32(places.fileSize - places.stringTable);
        for (const PeSection& section : m_sections)
            if (section.name.size() > shortNameLength)
                out.str(section.name);
    }
    return out.bytes();
}

} // namespace orn_test
