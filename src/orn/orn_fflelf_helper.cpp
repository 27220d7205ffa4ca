// The views that hang on an ELF module: the helper through which debug information readers see it, and the
// segments that know their sections. Candidates and debug info loaders make the helper; segments are made by
// the loader alone.

#include "orn_elf_section_data.h"
#include "orn_ffl_arith.h"
#include "orn_fflelf.h"
#include "orn_log.h"
#include "orn_relocations.h"
#include "orn_section_data.h"

#include <utility>

namespace ORN_3_30 {

// Quirk: on every way that goes by index the type's number is looked for among the flags; only the way by
// name tests the type. Callers live with both answers.
bool hasNoBitsByFlags(const Elf64_Shdr& header) {
    return (header.sh_flags & SHT_NOBITS) != 0;
}

ElfFileFormatHelper::ElfFileFormatHelper(SymMgrObjectPtr<ElfHelper> elfHelper)
    : SymMgrObject<IFileFormatHelper>(nullptr), m_elfHelper(std::move(elfHelper)) {
    ORN_ASSERT_TEXT(m_elfHelper != nullptr, "elfHelper != NULL");
}

bool ElfFileFormatHelper::isCodeOrDataAddress(unsigned long long address) {
    return m_elfHelper && m_elfHelper->isCodeOrDataAddress(address);
}

unsigned long long ElfFileFormatHelper::getImageBase() {
    return m_elfHelper ? m_elfHelper->getImageBase() : ~0ULL;
}

void ElfFileFormatHelper::getSectionData(SymMgrObjectPtr<ISectionData>& out, section_kind_t kind) {
    out = nullptr;
    if (!m_elfHelper)
        return;
    switch (kind) {
    case section_debug_info:
        out = m_elfHelper->getDebugInfo();
        break;
    case section_debug_abbrev:
        makeSectionData(out, m_elfHelper->getDebugAbbrevIndex());
        break;
    case section_debug_str:
        out = m_elfHelper->getDebugStr();
        break;
    case section_debug_line:
        makeSectionData(out, m_elfHelper->getDebugLineIndex());
        break;
    case section_debug_ranges:
        out = m_elfHelper->getDebugRanges();
        break;
    case section_debug_loc:
        out = m_elfHelper->getDebugLoc();
        break;
    case section_note_gnu_build_id:
        makeSectionData(out, m_elfHelper->getBuildIdIndex());
        break;
    case section_gnu_debuglink:
        makeSectionData(out, m_elfHelper->getDebugLinkIndex());
        break;
    case section_eh_frame:
        out = m_elfHelper->getEhFrame();
        break;
    }
}

void ElfFileFormatHelper::makeSectionData(SymMgrObjectPtr<ISectionData>& out, unsigned index) {
    if (index != ElfHelper::noSection)
        out = new ElfSectionData(m_elfHelper, index);
}

void ElfFileFormatHelper::getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned index) {
    out = nullptr;
    const Elf64_Shdr* header = m_elfHelper ? m_elfHelper->getSectionHeader(index) : nullptr;
    if (!header)
        return;
    SymMgrObjectPtr<ISectionData> data = new ElfSectionData(m_elfHelper, index);
    out = new SectionDataAdapter(data, m_elfHelper->getSectionName(index), header->sh_addr,
                                 header->sh_offset + m_elfHelper->getModuleOffset(), header->sh_size,
                                 hasNoBitsByFlags(*header));
}

// Linked files carry relocations too, but theirs are done by the loader of programs and not by readers.
void ElfFileFormatHelper::getRelocationAddends(SymMgrObjectPtr<RelocationAddends>& out,
                                               unsigned sectionIndex) {
    out = nullptr;
    if (m_elfHelper && m_elfHelper->getHeader().e_type == ET_REL)
        m_elfHelper->getRelocationAddends(out, sectionIndex);
}

ELFSegment::ELFSegment(ElfHelper* elfHelper, IFileFormatLoader* loader, const char* name,
                       unsigned long long rva, unsigned long long fileOffset, unsigned long long fileSize,
                       unsigned long long memorySize, unsigned kind)
    : Segment(loader, name, rva, fileOffset, fileSize, memorySize, kind), m_elfHelper(elfHelper) {}

// Quirk: the end of the stretch is the segment's size in the file, not its offset plus that size. A segment
// that does not begin the file misses its last sections, or has none at all.
void ELFSegment::getSections(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISection>>>& out, bool codeOnly) {
    out = new ELFSectionIterator(loader(), m_elfHelper, getFileOffset() - m_elfHelper->getModuleOffset(),
                                 getFileSize(), codeOnly);
}

ELFSectionIterator::ELFSectionIterator(IFileFormatLoader* loader, ElfHelper* elfHelper,
                                       unsigned long long startOffset, unsigned long long endOffset,
                                       bool codeOnly)
    : SymMgrObject<IIterator<SymMgrObjectPtr<ISection>>>(nullptr),
      m_loader(loader),
      m_elfHelper(elfHelper),
      m_index(0),
      m_startOffset(startOffset),
      m_endOffset(endOffset),
      m_codeOnly(codeOnly) {
    skipForeign();
}

SymMgrObjectPtr<ISection> ELFSectionIterator::current() {
    const Elf64_Shdr* header = m_elfHelper->getSectionHeader(m_index);
    if (!header)
        return nullptr;
    return new Section(m_loader, m_elfHelper->getSectionName(m_index), header->sh_addr,
                       header->sh_offset + m_elfHelper->getModuleOffset(), header->sh_size,
                       hasNoBitsByFlags(*header));
}

bool ELFSectionIterator::next() {
    if (m_index < m_elfHelper->getSectionCount()) {
        ++m_index;
        skipForeign();
    }
    return m_index < m_elfHelper->getSectionCount();
}

void ELFSectionIterator::reset() {
    m_index = 0;
    skipForeign();
}

bool ELFSectionIterator::belongs(const Elf64_Shdr& header) const {
    return header.sh_size != 0 && header.sh_offset >= m_startOffset &&
           internal::fitsInside(header.sh_offset, header.sh_size, m_endOffset) &&
           (!m_codeOnly || (header.sh_flags & SHF_EXECINSTR));
}

void ELFSectionIterator::skipForeign() {
    while (m_index < m_elfHelper->getSectionCount() && !belongs(*m_elfHelper->getSectionHeader(m_index)))
        ++m_index;
}

} // namespace ORN_3_30
