// What a unit knows of itself: what its top entry says, its files, and the answers to clients that ask how
// code was compiled. Made by the unit scan (orn_dildwarf_scan.cpp). Entries are decoded in
// orn_dildwarf_attr.cpp, producers and options read in orn_dildwarf_producer.cpp, lines in
// orn_dildwarf_lines.cpp.

#include "orn_dildwarf_unit.h"

#include "orn/source.h"
#include "orn_dil.h"
#include "orn_dildwarf_lines.h"
#include "orn_log.h"

#include <string_view>

namespace ORN_3_30 {

namespace {

language_t languageOf(unsigned long long dwLang) {
    switch (dwLang) {
    case DW_LANG_Ada83:
        return language_Ada;
    case DW_LANG_C_plus_plus:
        return language_Cplusplus;
    case DW_LANG_Fortran77:
    case DW_LANG_Fortran90:
    case DW_LANG_Fortran95:
        return language_Fortran;
    default:
        return language_C;
    }
}

bool endsWith(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

} // namespace

DWARFCompilationUnit::DWARFCompilationUnit(const DWARFUnitHeader& header,
                                           std::shared_ptr<const AbbrevTable> abbrevs,
                                           DWARFSections* sections, DWARFDebugInfoLoader* loader)
    : m_header(header),
      m_abbrevsMap(std::move(abbrevs)),
      m_loadBias(sections->loadBias()),
      m_sections(sections),
      m_loader(loader) {}

DWARFCompilationUnit::~DWARFCompilationUnit() = default;

void DWARFCompilationUnit::loadTopEntry() {
    if (m_topEntryLoaded || !hasEntries())
        return;
    AttrBindings attrs(this);
    if (readAttrBindingsAt(firstEntryOffset(), attrs) && attrs.tag() == DW_TAG_compile_unit)
        readTopEntry(attrs);
}

void DWARFCompilationUnit::readTopEntry(AttrBindings& attrs) {
    if (m_topEntryLoaded)
        return;
    m_topEntryLoaded = true;
    // References are followed: what a unit does not say itself its origin may.
    const AttrBinding* language = attrs.find(DW_AT_language);
    m_language = languageOf(language ? language->value : static_cast<unsigned long long>(DW_LANG_C));
    readText(attrs, DW_AT_producer, m_producer);
    parseProducer();
    readText(attrs, DW_AT_comp_dir, m_compDir);
    readText(attrs, DW_AT_name, m_name);
    readText(attrs, DW_AT_VEXOR_compile_options, m_compileOptions);
    const AttrBinding* lowPc = attrs.find(DW_AT_low_pc);
    if (!lowPc)
        lowPc = attrs.find(DW_AT_entry_pc);
    // In the symbol file's own addresses, which range lists are relative to.
    if (lowPc)
        m_lowPc = lowPc->form == DW_FORM_addr ? lowPc->value - m_loadBias : lowPc->value;
    if (const AttrBinding* stmtList = attrs.find(DW_AT_stmt_list)) {
        m_stmtList = stmtList->value;
        m_hasStmtList = true;
    }
}

/// Leaves `out` alone unless the attribute is there and is a text.
void DWARFCompilationUnit::readText(AttrBindings& attrs, unsigned long long attribute, const char*& out) {
    if (const char* text = textOf(attrs.find(attribute)))
        out = text;
}

void DWARFCompilationUnit::setFirstFile(unsigned long long hint) {
    m_firstFileHint = hint;
    m_hasFirstFileHint = true;
}

bool DWARFCompilationUnit::getFirstFile(unsigned long long& out) const {
    out = m_firstFileHint;
    return m_hasFirstFileHint;
}

void DWARFCompilationUnit::clearFiles() {
    m_includeDirs.clear();
    m_fileIds.clear();
}

/// Number 0 is never a file.
unsigned DWARFCompilationUnit::getFileId(unsigned number) {
    return number != 0 && number <= m_fileIds.size() ? m_fileIds[number - 1] : noFileId;
}

ISourceFile* DWARFCompilationUnit::findSourceFile(const char* path) {
    if (!ORN_ASSERT_TEXT(path != nullptr, "false"))
        return nullptr;
    return m_lineResolver ? m_lineResolver->fileByPath(path) : nullptr;
}

ISourceFile* DWARFCompilationUnit::getSourceFile() {
    try {
        ScopedLock loading(loadLock());
        ScopedLock guard(&m_lock);
        if (m_sourceFile)
            return m_sourceFile;
        // The file table is read with the lines; how that ends says nothing about the files.
        static_cast<void>(loadLines(nullptr));
        if (m_lineResolver && !m_fileIds.empty())
            m_sourceFile = findMainFile();
    } catch (const std::bad_alloc&) {
        ORN_LOG_ERROR("Out of memory");
    }
    return m_sourceFile;
}

/// The first file whose path ends with the unit's name, else the first file.
ISourceFile* DWARFCompilationUnit::findMainFile() {
    if (*m_name && m_sections->affordsText(m_name)) {
        const std::string_view name = m_name;
        for (const std::uint32_t id : m_fileIds) {
            ISourceFile* file = m_lineResolver->fileAt(id);
            if (file && endsWith(file->name(), name))
                return file;
        }
    }
    return m_lineResolver->fileAt(m_fileIds.front());
}

/// Files and rows go to what all units share, under this lock. It comes before a unit's own.
ILock* DWARFCompilationUnit::loadLock() const {
    return m_lineResolver ? m_lineResolver->loadLock() : nullptr;
}

status_t DWARFCompilationUnit::loadLines(RangeFilter* ranges) {
    try {
        ScopedLock loading(loadLock());
        ScopedLock guard(&m_lock);
        if (m_lineStatus != status_NotInitialized)
            return m_lineStatus;
        // Without a resolver the files would have no ids and the rows no table: later, with one, they will.
        if (!m_lineResolver)
            return status_NotInitialized;
        return runLineProgram(ranges);
    }
    ORN_CATCH_OUT_OF_MEMORY
}

status_t DWARFCompilationUnit::runLineProgram(RangeFilter* ranges) {
    const RelocatedSection& section = m_sections->line();
    if (!m_hasStmtList || !section.isPresent())
        return m_lineStatus = status_NoDebugInfo;
    if (m_stmtList >= section.size())
        return m_lineStatus = status_BadDebugInfo;
    DWARFLineProgram program(*this, ranges);
    // Quirk: a version that is not read is told and not remembered; the next call looks again.
    const status_t status = program.readHeader();
    if (status == status_UnsupportedFormatVersion)
        return status;
    if (isFailure(status))
        return m_lineStatus = status;
    // A row that cannot be stored for want of memory must not be stored twice by a second run.
    m_lineStatus = status_Ok;
    program.runRows();
    return m_lineStatus;
}

} // namespace ORN_3_30
