// A unit of `.debug_info`: header, abbreviations, what its top entry says, and its line program.
#ifndef ORN_DILDWARF_UNIT_H
#define ORN_DILDWARF_UNIT_H

#include "orn/comp_unit_details.h"
#include "orn/object.h"
#include "orn_dildwarf_attr.h"
#include "orn_dildwarf_sections.h"
#include "orn_ranges.h"

#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ORN_3_30 {

class DWARFDebugInfoLoader;
class LineResolver;
class ViewReader;

/// Which compiler made a unit: it changes how later code reads the unit.
enum compiler_kind_t : std::uint32_t {
    compiler_Unknown = 0,
    compiler_Gnu = 1,
    compiler_Gnu296 = 2,   ///< GNU C or C++ 2.96, whose DW_AT_sibling is not to be trusted
    compiler_VexorOld = 3, ///< before version 8, or of no version
    compiler_Vexor = 4
};

/// The header of a unit, as the scan finds it.
struct DWARFUnitHeader {
    unsigned long long offset = 0; ///< in `.debug_info`
    unsigned long long size = 0;   ///< with the length field, as stated, however short the section is
    unsigned long long abbrevOffset = 0;
    std::uint8_t addressSize = 0;
    bool is64Bit = false;
    std::uint32_t version = 0;
    std::uint32_t headerSize = 0; ///< from the unit's start to the first entry
};

/// One unit. Made by the scan alone; lives as long as the loader. Plain calls; what it reads of entries
/// belongs under the loading lock, only loadLines and what calls it have a lock of the unit's own.
class DWARFCompilationUnit : public ICompUnitDetails, public SymMgrObjectImpl {
public:
    /// File ids above this, seen as signed numbers negative, are no file.
    static constexpr unsigned noFileId = 0xffffffff;

    /// `loader` is borrowed and null in a unit that stands alone.
    DWARFCompilationUnit(const DWARFUnitHeader& header, std::shared_ptr<const AbbrevTable> abbrevs,
                         DWARFSections* sections, DWARFDebugInfoLoader* loader);
    ~DWARFCompilationUnit() override;

    unsigned long long getOffset() override { return m_header.offset; }
    ISourceFile* getSourceFile() override;
    ISourceFile* findSourceFile(const char* path) override;
    unsigned getUnitFlags() override { return 0; }
    const char* getCompilationDirectory() override { return m_compDir; }
    const char* getCompileOptions() override { return m_compileOptions; }
    const char* getOptReportFile() override;
    const char* getCompilerName() override;
    unsigned getCompilerMajorVersion() override { return m_compilerMajor; }
    unsigned getCompilerMinorVersion() override { return m_compilerMinor; }
    language_t getLanguage() override { return m_language; }
    void getExtension(void*& out) override { out = nullptr; }
    void addFileId(unsigned id) override { m_fileIds.push_back(id); }
    unsigned getFileId(unsigned number) override;
    status_t loadLines(RangeFilter* ranges) override;

    const DWARFUnitHeader& header() const { return m_header; }
    compiler_kind_t getCompilerKind() const { return m_compilerKind; }
    std::uint32_t getVersion() const { return m_header.version; }
    bool isBigOffsets() const { return m_header.is64Bit; }
    std::uint8_t getAddressSize() const { return m_header.addressSize; }
    unsigned getOffsetSize() const { return m_header.is64Bit ? 8 : 4; }
    unsigned long long getSize() const { return m_header.size; }
    std::uint32_t getHeaderSize() const { return m_header.headerSize; }
    /// Without the load bias: what range lists are relative to. 0 if the unit has none.
    unsigned long long getLowPc() const { return m_lowPc; }
    unsigned long long getLoadBias() const { return m_loadBias; }
    const char* getName() const { return m_name; }
    const char* getProducer() const { return m_producer; }
    bool hasStmtList() const { return m_hasStmtList; }
    unsigned long long getStmtList() const { return m_stmtList; }
    bool isFortran() const { return m_language == language_Fortran; }
    /// Whether DW_AT_sibling may be followed in this unit. Quirk: known compilers only, without GNU 2.96.
    bool trustsSiblings() const {
        return m_compilerKind != compiler_Unknown && m_compilerKind != compiler_Gnu296;
    }

    void addIncludeDir(const char* directory) { m_includeDirs.push_back(directory); }
    /// Null past the end. Number 0 here is directory 1 of the line program.
    const char* getIncludeDir(unsigned long long index) const {
        return index < m_includeDirs.size() ? m_includeDirs[index] : nullptr;
    }
    void setFirstFile(unsigned long long hint);
    /// Whether there is a hint, which is stored.
    bool getFirstFile(unsigned long long& out) const;
    DWARFSections* getSections() const { return m_sections; }
    DWARFDebugInfoLoader* getLoader() const { return m_loader; }
    /// The loader dies, and with it what it lent; symbols may hold the unit longer.
    void forgetLoader() {
        m_loader = nullptr;
        m_lineResolver = nullptr;
    }
    /// Forgets directories and files: the line program's header is about to be read.
    void clearFiles();
    /// The resolver that files and rows go to; without one, lines are not read yet. Borrowed.
    void setLineResolver(LineResolver* resolver) { m_lineResolver = resolver; }
    LineResolver* getLineResolver() const { return m_lineResolver; }

    /// Whether `offset` of `.debug_info` lies in this unit.
    bool holds(unsigned long long offset) const {
        return offset >= m_header.offset && offset - m_header.offset < m_header.size;
    }
    /// A walker at `offset` of `.debug_info`: its offsets are those of the section, its end is the unit's or
    /// the section's, whichever comes first.
    SectionWalker walkerAt(unsigned long long offset) const;
    bool hasEntries() const { return m_header.headerSize < m_header.size; }
    unsigned long long firstEntryOffset() const { return m_header.offset + m_header.headerSize; }

    /// Decodes the entry at the walker into `attrBindings`, which is reset first. False at a null entry, and
    /// at one that cannot be decoded: then the walker goes to the end, so that nothing is decoded out of
    /// step.
    bool readAttrBindings(SectionWalker& walker, AttrBindings& attrBindings);
    /// The same of the entry at an offset of `.debug_info`.
    bool readAttrBindingsAt(unsigned long long offset, AttrBindings& attrBindings);
    /// readAttrBindings of an entry that others refer to. Any number of them may refer to one that is as long
    /// as the unit: after too much of that such entries count as not decodable.
    bool readReferredEntry(SectionWalker& walker, AttrBindings& attrBindings);

    // readAttrBindings in two steps, for walks that do not want every entry.

    /// What a walk knows of an entry before its attributes.
    struct EntryCode {
        const AbbrevEntry* abbrev = nullptr; ///< null where readAttrBindings would give false
        unsigned long long start = 0;        ///< of the entry in `.debug_info`
    };
    /// Reads the code of an entry.
    EntryCode readEntryCode(SectionWalker& walker) const;
    /// Decodes the attributes behind the code.
    bool readAttributes(SectionWalker& walker, const EntryCode& code, AttrBindings& attrBindings);
    /// Passes the attributes behind the code; `sibling` becomes the value of DW_AT_sibling, 0 without one.
    /// Result and messages are those of decoding.
    bool skipAttributes(SectionWalker& walker, const EntryCode& code, unsigned long long& sibling) const;
    /// From the first child of an entry whose DW_AT_sibling is `sibling` (0: none) to behind the null entry
    /// that ends its children: by that sibling and those of the children where they are trusted. Gives how
    /// many entries were read on the way.
    unsigned long long skipChildren(SectionWalker& walker, unsigned long long sibling) const;
    /// Offsets in `.debug_info`: where the children of an entry begin, and what is behind their end.
    using Subtree = std::pair<unsigned long long, unsigned long long>;
    /// The subtrees that skipChildren passes, the whole one and those inside, as far as more than `least`
    /// entries have to be read to pass them.
    std::vector<Subtree> largeSubtrees(SectionWalker walker, unsigned long long sibling,
                                       unsigned long long least) const;

    /// Reads the top entry, once, if it is a DW_TAG_compile_unit.
    void loadTopEntry();
    bool isTopEntryLoaded() const { return m_topEntryLoaded; }
    /// Merges the text of an entry with further compile options into those of the unit.
    void mergeCompileOptions(const char* text);

private:
    /// Attributes, and bytes of long numbers, of an entry that is like those of sound data.
    static constexpr unsigned long long usualEntryWork = 1024;

    void readTopEntry(AttrBindings& attrs);
    static void readText(AttrBindings& attrs, unsigned long long attribute, const char*& out);
    bool followSibling(ViewReader& reader, unsigned long long sibling) const;
    template <typename OnOpen, typename OnClose>
    unsigned long long passSubtree(SectionWalker& walker, unsigned long long sibling, const OnOpen& onOpen,
                                   const OnClose& onClose) const;
    bool reachesTo(unsigned long long offset) const {
        return offset >= m_header.offset && offset - m_header.offset <= m_header.size;
    }

    // orn_dildwarf_producer.cpp
    void parseProducer();
    void parseGnuProducer(std::string_view producer);
    void parseVexorProducer(std::string_view producer);
    void parseOptReportFile(std::string_view producer);

    ILock* loadLock() const;
    ISourceFile* findMainFile();
    status_t runLineProgram(RangeFilter* ranges);

    DWARFUnitHeader m_header;
    std::shared_ptr<const AbbrevTable> m_abbrevsMap; ///< shared by the units of one abbreviation offset
    language_t m_language = language_C;
    bool m_hasFirstFileHint = false;
    unsigned long long m_firstFileHint = 0;
    bool m_hasStmtList = false;
    unsigned long long m_stmtList = 0;
    // Texts of the debug sections, not copied: any number of units may share a long one.
    const char* m_compDir = "";
    const char* m_name = "";
    const char* m_compileOptions = "";
    std::string m_mergedOptions;         ///< what m_compileOptions is once an entry has added to it
    ISourceFile* m_sourceFile = nullptr; ///< borrowed from the line resolver
    const char* m_producer = "";
    unsigned long long m_lowPc = 0; ///< without the load bias
    unsigned long long m_loadBias;  ///< added to every DW_FORM_addr and to every line address
    compiler_kind_t m_compilerKind = compiler_Unknown;
    std::uint32_t m_compilerMajor = 0;
    std::uint32_t m_compilerMinor = 0;
    std::string m_optReportFile;
    SymMgrObjectPtr<DWARFSections> m_sections;
    DWARFDebugInfoLoader* m_loader;         ///< not counted
    std::vector<const char*> m_includeDirs; ///< into `.debug_line`; element 0 is directory 1
    std::vector<std::uint32_t> m_fileIds;   ///< element 0 is file 1
    LineResolver* m_lineResolver = nullptr; ///< borrowed from the loader
    status_t m_lineStatus = status_NotInitialized;
    bool m_topEntryLoaded = false;
    OrnLock m_lock; ///< guards the line program's run
};

} // namespace ORN_3_30

#endif
