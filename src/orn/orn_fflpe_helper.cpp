// PEFileFormatHelper: a PE module as readers of debug information see it, by the same section kinds as in an
// ELF module. It reads nothing itself: contents are read by whoever asks them for their bytes.

#include "orn_fflpe.h"

#include "orn_log.h"
#include "orn_relocations.h"
#include "orn_section_data.h"

#include <utility>

namespace ORN_3_30 {

namespace {

const char* nameOf(section_kind_t kind) {
    switch (kind) {
    case section_debug_info:
        return ".debug_info";
    case section_debug_abbrev:
        return ".debug_abbrev";
    case section_debug_str:
        return ".debug_str";
    case section_debug_line:
        return ".debug_line";
    case section_debug_ranges:
        return ".debug_ranges";
    case section_debug_loc:
        return ".debug_loc";
    case section_note_gnu_build_id:
        return ".note.gnu.build-id";
    case section_gnu_debuglink:
        return ".gnu_debuglink";
    case section_eh_frame:
        return ".eh_frame";
    }
    return nullptr;
}

} // namespace

PEFileFormatHelper::PEFileFormatHelper(SymMgrObjectPtr<PEExecFileLoader> loader)
    : SymMgrObject<IFileFormatHelper>(nullptr), m_loader(std::move(loader)) {}

bool PEFileFormatHelper::isCodeOrDataAddress(unsigned long long address) {
    return m_loader->findSegment(address) != nullptr;
}

unsigned long long PEFileFormatHelper::getImageBase() {
    return m_loader->getImageBase();
}

void PEFileFormatHelper::getSectionData(SymMgrObjectPtr<ISectionData>& out, section_kind_t kind) {
    out = nullptr;
    const char* name = nameOf(kind);
    if (!name)
        return;
    const auto known = m_sectionData.find(kind);
    if (known != m_sectionData.end()) {
        out = known->second;
        return;
    }
    out = findSectionData(name, false);
    if (!out) // "z" behind the first character: ".debug_info" is ".zdebug_info" where it is compressed
        out = findSectionData(std::string(name).insert(1, 1, 'z'), true);
    m_sectionData.emplace(kind, out);
}

/// Only what became a segment is there: of two sections that overlap the later one is not.
SymMgrObjectPtr<ISectionData> PEFileFormatHelper::findSectionData(const std::string& name, bool compressed) {
    if (!m_loader->findSegmentByName(name.c_str()))
        return nullptr;
    const unsigned index = m_loader->findSectionIndex(name.c_str());
    SymMgrObjectPtr<ISection> section;
    m_loader->getSectionByIndex(section, index);
    return section ? new PESectionData(section, index, compressed) : nullptr;
}

void PEFileFormatHelper::getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned index) {
    m_loader->getSectionByIndex(out, index);
}

void PEFileFormatHelper::getRelocationAddends(SymMgrObjectPtr<RelocationAddends>& out, unsigned) {
    out = nullptr;
}

} // namespace ORN_3_30
