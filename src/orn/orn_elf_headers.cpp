// The file header and the program headers of an ELF file, taken out of its image and widened. Called by the
// constructor of ElfHelper alone. Every number here may be a lie: tables have to lie inside the file, entries
// smaller than their structure are read as if zeros followed the table. No byte is ever swapped: big-endian
// files are refused.

#include "orn_elf.h"
#include "orn_elf_alloc.h"
#include "orn_ffl_arith.h"
#include "orn_log.h"

#include <cstring>

namespace ORN_3_30 {

namespace {

constexpr Elf64_Addr pageMask = 0xFFF;

/// The 32-bit header in the fields of the 64-bit one. `e_ehsize` is left 0: nothing relies on it.
Elf64_Ehdr widened(const Elf32_Ehdr& narrow) {
    Elf64_Ehdr header{};
    std::memcpy(header.e_ident, narrow.e_ident, sizeof(header.e_ident));
    header.e_type = narrow.e_type;
    header.e_machine = narrow.e_machine;
    header.e_version = narrow.e_version;
    header.e_entry = narrow.e_entry;
    header.e_phoff = narrow.e_phoff;
    header.e_shoff = narrow.e_shoff;
    header.e_flags = narrow.e_flags;
    header.e_phentsize = narrow.e_phentsize;
    header.e_phnum = narrow.e_phnum;
    header.e_shentsize = narrow.e_shentsize;
    header.e_shnum = narrow.e_shnum;
    header.e_shstrndx = narrow.e_shstrndx;
    return header;
}

Elf64_Phdr widened(const Elf32_Phdr& narrow) {
    Elf64_Phdr header{};
    header.p_type = narrow.p_type;
    header.p_flags = narrow.p_flags;
    header.p_offset = narrow.p_offset;
    header.p_vaddr = narrow.p_vaddr;
    header.p_paddr = narrow.p_paddr;
    header.p_filesz = narrow.p_filesz;
    header.p_memsz = narrow.p_memsz;
    header.p_align = narrow.p_align;
    return header;
}

} // namespace

bool ElfHelper::readHeaders() {
    if (!readIdentification() || !readFileHeader() || !acceptDataEncoding())
        return false;
    mapMachine();
    return readProgramHeaders() && readSectionHeaders();
}

bool ElfHelper::readIdentification() {
    unsigned char* ident = m_header.e_ident;
    if (!ORN_ASSERT(m_fileImage->read(0, EI_NIDENT, ident) == EI_NIDENT))
        return false;
    if (ident[EI_CLASS] != ELFCLASS32 && ident[EI_CLASS] != ELFCLASS64) {
        ORN_LOG_WARNING("File " << getPath() << " has neither ELFCLASS32 nor ELFCLASS64");
        return false;
    }
    m_is64Bit = ident[EI_CLASS] == ELFCLASS64;
    // The factory tests the magic before it makes an ELF loader, yet a module embedded in a file of another
    // format, or a candidate that a resolver offers, comes here untested.
    return ORN_ASSERT(std::memcmp(ident, ELFMAG, SELFMAG) == 0);
}

bool ElfHelper::readFileHeader() {
    if (m_is64Bit) {
        Elf64_Ehdr header;
        if (!ORN_ASSERT(m_fileImage->read(0, sizeof(header), &header) == sizeof(header)))
            return false;
        m_header = header;
        return true;
    }
    Elf32_Ehdr header;
    if (!ORN_ASSERT(m_fileImage->read(0, sizeof(header), &header) == sizeof(header)))
        return false;
    m_header = widened(header);
    return true;
}

// Quirk: files of one machine say big-endian and are little-endian all the same.
bool ElfHelper::acceptDataEncoding() {
    unsigned char& encoding = m_header.e_ident[EI_DATA];
    if (encoding == ELFDATA2MSB && getMachine() == machineOfExceptions)
        encoding = ELFDATA2LSB;
    return ORN_ASSERT(encoding == ELFDATA2LSB);
}

void ElfHelper::mapMachine() {
    switch (getMachine()) {
    case EM_386:
    case EM_ARC: // Quirk: counts as IA-32, though the number was given to another processor long since.
        m_arch = arch_ia32;
        break;
    case EM_IA_64:
        m_arch = arch_itanium;
        break;
    case EM_X86_64:
        m_arch = arch_x86_64;
        break;
    case EM_ARM:
        m_arch = arch_arm;
        break;
    case EM_L10M:
        m_arch = arch_coprocessor_1;
        break;
    case EM_K10M:
        m_arch = arch_coprocessor_2;
        break;
    default:
        m_arch = arch_unknown;
        ORN_LOG_WARNING("Unknown binary architecture: " << getMachine());
        break;
    }
}

bool ElfHelper::readProgramHeaders() {
    if (m_header.e_phnum == 0)
        return true;
    auto table = readTable(m_header.e_phoff, m_header.e_phnum, m_header.e_phentsize,
                           m_is64Bit ? sizeof(Elf64_Phdr) : sizeof(Elf32_Phdr));
    if (!table)
        return false;
    keepLoadableSegments(table.get());
    noteFirstLoadableSegments();
    return true;
}

// A table with room for one more entry behind it, all zeros: so the last entries can be read in full however
// small the file says they are. Null if the table does not lie inside the file.
std::unique_ptr<unsigned char[]> ElfHelper::readTable(unsigned long long offset, unsigned count,
                                                      unsigned stride, std::size_t entrySize) const {
    const unsigned long long size = static_cast<unsigned long long>(count) * stride;
    if (!internal::fitsInside(offset, size, m_fileImage->getSize()))
        return nullptr;
    auto table = internal::allocateArray<unsigned char>(size, entrySize);
    std::memset(table.get() + size, 0, entrySize);
    if (!ORN_ASSERT(m_fileImage->read(offset, size, table.get()) == size))
        return nullptr;
    return table;
}

Elf64_Phdr ElfHelper::programHeaderAt(const unsigned char* entry) const {
    if (m_is64Bit) {
        Elf64_Phdr header;
        std::memcpy(&header, entry, sizeof(header));
        return header;
    }
    Elf32_Phdr header;
    std::memcpy(&header, entry, sizeof(header));
    return widened(header);
}

void ElfHelper::keepLoadableSegments(const unsigned char* table) {
    const std::size_t stride = m_header.e_phentsize;
    for (unsigned index = 0; index < m_header.e_phnum; ++index) {
        if (programHeaderAt(table + index * stride).p_type == PT_LOAD)
            ++m_programHeaderCount;
    }
    if (m_programHeaderCount == 0)
        return;
    m_programHeaders = internal::allocateArray<Elf64_Phdr>(m_programHeaderCount);
    Elf64_Phdr* kept = m_programHeaders.get();
    for (unsigned index = 0; index < m_header.e_phnum; ++index) {
        Elf64_Phdr header = programHeaderAt(table + index * stride);
        if (header.p_type != PT_LOAD)
            continue;
        header.p_offset += getModuleOffset();
        *kept++ = header;
    }
}

void ElfHelper::noteFirstLoadableSegments() {
    if (m_programHeaderCount > 0) {
        m_firstLoadAddress = m_programHeaders[0].p_vaddr;
        m_imageBase = m_firstLoadAddress & ~pageMask;
        m_firstLoadSize = m_programHeaders[0].p_memsz;
    }
    if (m_programHeaderCount > 1) {
        m_secondLoadAddress = m_programHeaders[1].p_vaddr;
        m_secondLoadSize = m_programHeaders[1].p_memsz;
    }
}

void ElfHelper::walkRawProgramHeaders(IProgramHeadersCallback& callback) const {
    if (!m_valid || !m_is64Bit || m_header.e_phnum == 0)
        return;
    auto table = readTable(m_header.e_phoff, m_header.e_phnum, m_header.e_phentsize, sizeof(Elf64_Phdr));
    for (unsigned index = 0; table && index < m_header.e_phnum; ++index)
        callback(programHeaderAt(table.get() + index * std::size_t{m_header.e_phentsize}), index);
}

} // namespace ORN_3_30
