// Format loader of PE modules, and the view of a module that debug information readers use.
#ifndef ORN_FFLPE_H
#define ORN_FFLPE_H

#include "orn/section_data.h"
#include "orn_ffl.h"
#include "orn_pe.h"
#include "orn_r2rreader.h"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace ORN_3_30 {

class File;

/// Whether the file carries the signatures of a PE file. Looks at the contents alone, whatever the name.
bool isPE(const char* path);

/// Which program database belongs to a module, as one entry of its debug directory says.
struct CodeViewRecord {
    std::uint32_t signature = 0; ///< of the older kind of record
    std::uint32_t age = 0;
    std::string path;
    std::array<unsigned char, 16> guid{}; ///< of the newer kind
};

/// Loader of PE modules: segments and sections out of the section table, symbols out of the export table. A
/// damaged file is a loader with less in it and never a failure. There is no reader of program databases, so
/// a module has no candidates for its symbol file.
class PEExecFileLoader : public FileFormatLoader {
public:
    explicit PEExecFileLoader(const char* path);
    ~PEExecFileLoader() override;

    const char* getPath() override { return m_path.c_str(); }
    exec_format_t getExecFormat() override { return exec_format_pe; }
    arch_t getArch() override { return m_arch; }
    unsigned long long getImageBase() override { return m_imageBase; }
    unsigned long long getEntryPoint() override;
    unsigned long long getImageSize() override { return m_imageSize; }
    status_t readSymbols(ISymbolTable* sink, LoadFilter* filter, symbol_kind_t flags) override;
    void getSectionByName(SymMgrObjectPtr<ISection>& out, const char* name) override;
    void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned index) override;
    bool isReadyToRun() override { return m_readyToRun.isReadyToRun(); }

    /// Whether the module has a CLR header.
    bool isManaged() const { return m_managed; }

    /// Index of the first section of that name, the number of sections if there is none.
    unsigned findSectionIndex(const char* name);
    unsigned getSectionCount() const { return static_cast<unsigned>(m_sectionHeaders.size()); }

protected:
    status_t collectSymbolFiles(std::vector<SymMgrObjectPtr<ISymbolFileToResolve>>& symbolFiles) override;
    IDebugInfoLoader* createDebugInfoLoader(const char* path, unsigned type, long long index) override;
    void addSectionEnds(ISymbolTable* sink) override;
    void ensureRead() override;

    // The database that the module names. No interface tells it; a client that wants it has to be given one.
    std::uint32_t getPdbSignature() const { return m_pdbSignature; }
    std::uint32_t getPdbAge() const { return m_pdbAge; }
    const std::string& getPdbPath() const { return m_pdbPath; }
    const std::array<unsigned char, 16>& getPdbGuid() const { return m_pdbGuid; }
    unsigned long long getBaseOfCode() const { return m_baseOfCode; }

private:
    class ExportReader;

    // Headers, in the order of reading.
    void readFileInfo();
    bool readHeaders(File& file);
    template <typename Headers>
    void takeOptionalHeader(const Headers& headers);
    bool readSectionTable(File& file);
    bool findDirectories(File& file);
    bool keepExportDirectory(File& file, std::uint32_t offset);
    void readDebugDirectory(File& file, std::vector<CodeViewRecord>& records);
    void chooseCodeView(const std::vector<CodeViewRecord>& records);

    const std::vector<std::string>& sectionNames();
    void addSegments();

    std::string m_path;
    IMAGE_DATA_DIRECTORY m_debugDirectory;
    std::vector<IMAGE_SECTION_HEADER> m_sectionHeaders;
    std::optional<IMAGE_EXPORT_DIRECTORY> m_exportDirectory; ///< none unless it is usable
    std::uint32_t m_sectionTableOffset;
    std::uint32_t m_sectionCount; ///< as the file says; what was read is m_sectionHeaders
    std::uint32_t m_exportRva;
    std::uint32_t m_globalPtrRva; ///< of 64-bit files alone
    std::uint32_t m_debugDirectoryOffset;
    std::uint32_t m_debugDirectorySize;
    std::uint32_t m_stringTableOffset;
    std::uint32_t m_exportDelta; ///< from a file offset to an RVA in the section of the export directory
    arch_t m_arch;
    unsigned long long m_imageSize;
    unsigned long long m_imageBase;
    unsigned long long m_baseOfCode;
    unsigned long long m_entryPointRva;
    std::uint32_t m_pdbSignature;
    std::uint32_t m_pdbAge;
    std::string m_pdbPath;
    std::array<unsigned char, 16> m_pdbGuid;
    bool m_managed;
    std::uint32_t m_comDescriptorRva;
    bool m_infoRead;
    bool m_segmentsRead;
    bool m_namesRead;
    std::vector<std::string> m_sectionNames; ///< resolved, by index, once m_namesRead is set
    ReadyToRunReader m_readyToRun;
};

/// The module as debug information readers see it.
class PEFileFormatHelper : public SymMgrObject<IFileFormatHelper> {
public:
    explicit PEFileFormatHelper(SymMgrObjectPtr<PEExecFileLoader> loader);

    bool isCodeOrDataAddress(unsigned long long address) override;
    unsigned long long getImageBase() override;
    void getSectionData(SymMgrObjectPtr<ISectionData>& out, section_kind_t kind) override;
    void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned index) override;
    /// Null: images are linked.
    void getRelocationAddends(SymMgrObjectPtr<RelocationAddends>& out, unsigned sectionIndex) override;

private:
    SymMgrObjectPtr<ISectionData> findSectionData(const std::string& name, bool compressed);

    SymMgrObjectPtr<PEExecFileLoader> m_loader;
    /// What was asked for; null for a section that is not there. Each kind is looked up once.
    std::map<section_kind_t, SymMgrObjectPtr<ISectionData>> m_sectionData;
};

} // namespace ORN_3_30

#endif
