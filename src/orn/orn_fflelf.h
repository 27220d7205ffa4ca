// Format loader of ELF modules, and the views of a module that hang on it.
#ifndef ORN_FFLELF_H
#define ORN_FFLELF_H

#include "orn/address.h"
#include "orn/symbol_table.h"
#include "orn_elf.h"
#include "orn_ffl.h"

namespace ORN_3_30 {

/// The module as debug information readers see it.
class ElfFileFormatHelper : public SymMgrObject<IFileFormatHelper> {
public:
    explicit ElfFileFormatHelper(SymMgrObjectPtr<ElfHelper> elfHelper);

    bool isCodeOrDataAddress(unsigned long long address) override;
    unsigned long long getImageBase() override;
    void getSectionData(SymMgrObjectPtr<ISectionData>& out, section_kind_t kind) override;
    void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned index) override;
    void getRelocationAddends(SymMgrObjectPtr<RelocationAddends>& out, unsigned sectionIndex) override;

    ElfHelper* getElfHelper() const { return m_elfHelper; }

private:
    void makeSectionData(SymMgrObjectPtr<ISectionData>& out, unsigned index);

    SymMgrObjectPtr<ElfHelper> m_elfHelper;
};

/// Whether a section that was asked for by its index says that it has no bytes in the file.
bool hasNoBitsByFlags(const Elf64_Shdr& header);

/// Loader of ELF modules: segments and sections, the symbols of the symbol tables and of the procedure
/// linkage table, the candidates of the symbol file and the reader of each.
class ElfFileLoader : public FileFormatLoader {
public:
    explicit ElfFileLoader(SymMgrObjectPtr<IModuleImage> image);
    ~ElfFileLoader() override;

    const char* getPath() override;
    exec_format_t getExecFormat() override { return exec_format_elf; }
    arch_t getArch() override;
    unsigned long long getImageBase() override;
    unsigned long long getEntryPoint() override;
    unsigned long long getImageSize() override;
    status_t readSymbols(ISymbolTable* sink, LoadFilter* filter, symbol_kind_t flags) override;
    void getSectionByName(SymMgrObjectPtr<ISection>& out, const char* name) override;
    void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned index) override;

    ElfHelper* getElfHelper() const { return m_elfHelper; }

protected:
    bool isBogusImage() override;
    status_t collectSymbolFiles(std::vector<SymMgrObjectPtr<ISymbolFileToResolve>>& symbolFiles) override;
    IDebugInfoLoader* createDebugInfoLoader(const char* path, unsigned type, long long index) override;
    void addSectionEnds(ISymbolTable* sink) override;
    Segment* createSegment(const char* name, unsigned long long rva, unsigned long long fileOffset,
                           unsigned long long fileSize, unsigned long long memorySize,
                           unsigned kind) override;

    // The managed-code container that the legacy reader knows; null and 0 unless that reader is switched on.
    IAddress* getOatData() const { return m_oatData; }
    IAddress* getOatExec() const { return m_oatExec; }
    unsigned long long getOatDataSize() const { return m_oatDataSize; }

private:
    class LoadableProgramHeadersWalker;
    class DriverSegmentsWalker;
    class SectionHeaderWalker;
    class SectionEndWalker;

    void readFileInfo();
    void addSectionsAsSegments();
    void addDwarfCandidates(std::vector<SymMgrObjectPtr<ISymbolFileToResolve>>& symbolFiles);
    void findOatContainer();
    bool isOatContainer() const { return m_oatDataSize != 0 && m_oatData && m_oatExec; }
    void addOatCandidate(std::vector<SymMgrObjectPtr<ISymbolFileToResolve>>& symbolFiles);
    IDebugInfoLoader* createOatLoader(const char* path);
    void readTable(const ElfHelper::SymbolTableData& table, ISymbolTable* sink, LoadFilter* filter,
                   symbol_kind_t flags);
    void readThunks(ISymbolTable* sink, LoadFilter* filter);
    unsigned long long biasOf(const ElfHelper& helper) const;
    IDebugInfoLoader* createDwarfLoader(const char* path);

    SymMgrObjectPtr<ElfHelper> m_elfHelper;
    bool m_infoRead;
    SymMgrObjectPtr<IAddress> m_oatData;
    SymMgrObjectPtr<IAddress> m_oatExec;
    unsigned long long m_oatDataSize;
};

/// A segment that knows its sections.
class ELFSegment : public Segment {
public:
    ELFSegment(ElfHelper* elfHelper, IFileFormatLoader* loader, const char* name, unsigned long long rva,
               unsigned long long fileOffset, unsigned long long fileSize, unsigned long long memorySize,
               unsigned kind);

    void getSections(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISection>>>& out, bool codeOnly) override;

private:
    ElfHelper* m_elfHelper; ///< not counted
};

/// The sections of one segment in index order.
class ELFSectionIterator : public SymMgrObject<IIterator<SymMgrObjectPtr<ISection>>> {
public:
    ELFSectionIterator(IFileFormatLoader* loader, ElfHelper* elfHelper, unsigned long long startOffset,
                       unsigned long long endOffset, bool codeOnly);

    SymMgrObjectPtr<ISection> current() override;
    bool next() override;
    void reset() override;

private:
    bool belongs(const Elf64_Shdr& header) const;
    void skipForeign();

    SymMgrObjectPtr<IFileFormatLoader> m_loader; ///< owns the helper
    ElfHelper* m_elfHelper;
    unsigned m_index;
    unsigned long long m_startOffset;
    unsigned long long m_endOffset;
    bool m_codeOnly;
};

} // namespace ORN_3_30

#endif
