// The section headers of an ELF file: which sections the library knows by name, which addresses hold code and
// data, and the contents of a section as a block of memory. Called by the constructor of ElfHelper and by
// ElfSectionData. Sections that nobody knows by name may say of themselves what they like.

#include "orn_elf.h"
#include "orn_elf_alloc.h"
#include "orn_elf_section_data.h"
#include "orn_ffl_arith.h"
#include "orn_log.h"
#include "orn_section_data.h"

#include <cstring>
#include <string_view>

namespace ORN_3_30 {

using internal::fitsInside;
using internal::saturatingSum;

namespace {

constexpr std::string_view zlibBlockPrefix = ".zdebug_";

Elf64_Shdr widened(const Elf32_Shdr& narrow) {
    Elf64_Shdr header{};
    header.sh_name = narrow.sh_name;
    header.sh_type = narrow.sh_type;
    header.sh_flags = narrow.sh_flags;
    header.sh_addr = narrow.sh_addr;
    header.sh_offset = narrow.sh_offset;
    header.sh_size = narrow.sh_size;
    header.sh_link = narrow.sh_link;
    header.sh_info = narrow.sh_info;
    header.sh_addralign = narrow.sh_addralign;
    header.sh_entsize = narrow.sh_entsize;
    return header;
}

bool isRelocationSection(const Elf64_Shdr& header) {
    return header.sh_type == SHT_RELA || header.sh_type == SHT_REL;
}

bool isDataSection(const Elf64_Shdr& header) {
    return (header.sh_flags & SHF_WRITE) || ((header.sh_flags & SHF_ALLOC) && header.sh_type == SHT_PROGBITS);
}

/// The compressed form of a debug section's name, ".z" and the plain name without its dot, counts too.
bool isDebugName(const char* name, const char* plain) {
    return std::strcmp(name, plain) == 0 ||
           (std::strncmp(name, ".z", 2) == 0 && std::strcmp(name + 2, plain + 1) == 0);
}

} // namespace

struct ElfHelper::LoadRange {
    unsigned long long begin;
    unsigned long long end;
    bool holds(unsigned long long address) const { return begin <= address && address < end; }
};

ElfHelper::LoadRange ElfHelper::firstLoadRange() const {
    return {m_firstLoadAddress, saturatingSum(m_firstLoadAddress, m_firstLoadSize)};
}

ElfHelper::LoadRange ElfHelper::secondLoadRange() const {
    return {m_secondLoadAddress, saturatingSum(m_secondLoadAddress, m_secondLoadSize)};
}

bool ElfHelper::readSectionHeaders() {
    if (m_header.e_shnum == 0)
        return true;
    auto table = readTable(m_header.e_shoff, m_header.e_shnum, m_header.e_shentsize,
                           m_is64Bit ? sizeof(Elf64_Shdr) : sizeof(Elf32_Shdr));
    if (!table)
        return false;
    m_sectionHeaders = internal::allocateArray<Elf64_Shdr>(m_header.e_shnum);
    for (unsigned index = 0; index < m_header.e_shnum; ++index)
        m_sectionHeaders[index] = sectionHeaderAt(table.get() + index * std::size_t{m_header.e_shentsize});
    return readSectionNames() && classifySections();
}

Elf64_Shdr ElfHelper::sectionHeaderAt(const unsigned char* entry) const {
    Elf64_Shdr header;
    if (m_is64Bit) {
        std::memcpy(&header, entry, sizeof(header));
    } else {
        Elf32_Shdr narrow;
        std::memcpy(&narrow, entry, sizeof(narrow));
        header = widened(narrow);
    }
    // Quirk: this machine marks sections that occupy memory by another flag, and by it alone.
    if (getMachine() == machineOfExceptions && header.sh_flags == SHF_OS_NONCONFORMING &&
        header.sh_type != SHT_NULL)
        header.sh_flags = SHF_ALLOC;
    return header;
}

bool ElfHelper::readSectionNames() {
    if (m_header.e_shstrndx == SHN_UNDEF)
        return true;
    unsigned long long size = 0;
    m_shStrTab.reset(getSectionData(m_header.e_shstrndx, size));
    if (!m_shStrTab) {
        ORN_LOG_ERROR("Failed to read string table for file" << getPath());
        return false;
    }
    m_shStrTabSize = size;
    return true;
}

bool ElfHelper::classifySections() {
    RangeMaps ranges;
    bool sound = true;
    for (unsigned index = 0; sound && index < m_header.e_shnum; ++index)
        sound = noteSection(index, ranges);
    m_codeRanges.assign(ranges.code);
    m_dataRanges.assign(ranges.data);
    return sound;
}

// False if the file lost contents that the library would read.
bool ElfHelper::noteSection(unsigned index, RangeMaps& ranges) {
    const Elf64_Shdr& header = m_sectionHeaders[index];
    if (header.sh_size == 0)
        return true;
    noteRange(index, ranges);
    if (isRelocationSection(header)) {
        m_relocationSections.emplace(header.sh_info, index);
        return true;
    }
    if (header.sh_type == SHT_NOBITS || !noteKnownName(index, ranges) || isInsideFile(header))
        return true;
    ORN_LOG_ERROR("Section " << getSectionName(index) << " in file " << getPath()
                             << " has incorrect size or file is truncated");
    return false;
}

// Padding between two sections of one segment belongs to the former: symbols of hand-written code reach
// there.
unsigned long long ElfHelper::endWithoutGap(unsigned index) const {
    const Elf64_Shdr& header = m_sectionHeaders[index];
    const unsigned long long end = saturatingSum(header.sh_addr, header.sh_size);
    if (index + 1 >= m_header.e_shnum)
        return end;
    const unsigned long long next = m_sectionHeaders[index + 1].sh_addr;
    if (end >= next)
        return end;
    for (const LoadRange& range : {firstLoadRange(), secondLoadRange()}) {
        if (range.holds(header.sh_addr) && range.holds(next))
            return next;
    }
    return end;
}

// Quirk: data counts only inside the first two loadable segments, though linkers lay out more of them.
void ElfHelper::noteRange(unsigned index, RangeMaps& ranges) const {
    const Elf64_Shdr& header = m_sectionHeaders[index];
    const unsigned long long end = endWithoutGap(index);
    if (header.sh_flags & SHF_EXECINSTR) {
        ranges.code[header.sh_addr] = end;
        return;
    }
    if (!isDataSection(header))
        return;
    for (const LoadRange& range : {secondLoadRange(), firstLoadRange()}) {
        if (range.holds(header.sh_addr) && end <= range.end) {
            ranges.data[header.sh_addr] = end;
            return;
        }
    }
}

// Whether the section has a name that the library knows and nobody before it took. The first one wins, also
// if a later one is the sounder.
bool ElfHelper::noteKnownName(unsigned index, RangeMaps& ranges) {
    struct KnownSection {
        const char* name;
        bool isDebug;
        SymMgrObjectPtr<ISectionData> ElfHelper::*data;
        unsigned ElfHelper::*index;
    };
    static constexpr KnownSection knownSections[] = {
        {".symtab", false, &ElfHelper::m_symTab, nullptr},
        {".strtab", false, &ElfHelper::m_strTab, nullptr},
        {".dynsym", false, &ElfHelper::m_dynSym, nullptr},
        {".dynstr", false, &ElfHelper::m_dynStr, nullptr},
        {".plt", false, nullptr, &ElfHelper::m_pltIndex},
        {".gnu_debuglink", false, nullptr, &ElfHelper::m_debugLinkIndex},
        {".note.gnu.build-id", false, nullptr, &ElfHelper::m_buildIdIndex},
        {".debug_info", true, &ElfHelper::m_debugInfo, nullptr},
        {".debug_abbrev", true, nullptr, &ElfHelper::m_debugAbbrevIndex},
        {".debug_str", true, &ElfHelper::m_debugStr, nullptr},
        {".debug_ranges", true, &ElfHelper::m_debugRanges, nullptr},
        {".debug_loc", true, &ElfHelper::m_debugLoc, nullptr},
        {".debug_line", true, nullptr, &ElfHelper::m_debugLineIndex},
        {".eh_frame", true, &ElfHelper::m_ehFrame, nullptr},
    };
    const char* name = getSectionName(index);
    for (const KnownSection& known : knownSections) {
        if (!(known.isDebug ? isDebugName(name, known.name) : std::strcmp(name, known.name) == 0))
            continue;
        if (known.data) {
            if (this->*known.data)
                return false;
            this->*known.data = new ElfSectionData(this, index);
            return true;
        }
        if (this->*known.index != noSection)
            return false;
        this->*known.index = index;
        return true;
    }
    if (std::strcmp(name, ".rodata") != 0)
        return false;
    const Elf64_Shdr& header = m_sectionHeaders[index];
    ranges.data.emplace(header.sh_addr, saturatingSum(header.sh_addr, header.sh_size));
    return true;
}

bool ElfHelper::isInsideFile(const Elf64_Shdr& header) const {
    return fitsInside(header.sh_offset, header.sh_size, m_fileImage->getSize());
}

unsigned char* ElfHelper::getSectionData(unsigned index, unsigned long long& size) {
    SectionBlock block;
    // A failed decompression leaves the raw contents, which are better than nothing; no other failure leaves
    // a block.
    static_cast<void>(readSection(index, block));
    size = block.size;
    return block.data.release();
}

status_t ElfHelper::readSection(unsigned index, SectionBlock& out) {
    const Elf64_Shdr* header = getSectionHeader(index);
    if (!header || !m_fileImage)
        return status_Fail;
    if (!isInsideFile(*header))
        return status_NoSectionData;
    SectionBlock block;
    block.data = internal::allocateArray<unsigned char>(header->sh_size, 1);
    block.size = header->sh_size;
    if (!ORN_ASSERT(m_fileImage->read(header->sh_offset, block.size, block.data.get()) == block.size))
        return status_NoSectionData;
    block.data[block.size] = 0;
    status_t status = decompress(index, block);
    out = std::move(block);
    return status;
}

// Replaces a compressed block by its contents; leaves it alone if they are not to be had.
status_t ElfHelper::decompress(unsigned index, SectionBlock& block) const {
    if (!m_shStrTab)
        return status_Ok;
    const bool hasFlag = (m_sectionHeaders[index].sh_flags & SHF_COMPRESSED) != 0;
    const bool hasName = std::string_view(getSectionName(index)).starts_with(zlibBlockPrefix);
    if (!hasFlag && !hasName)
        return status_Ok;
    unsigned char* data = nullptr;
    unsigned long long size = 0;
    status_t status = decompressSection(block.data.get(), block.size, data, size, !hasFlag, m_is64Bit);
    if (isFailure(status))
        return status;
    block.data.reset(data);
    block.size = size;
    return status;
}

} // namespace ORN_3_30
