// ElfFileLoader: an ELF module as segments, sections and candidates. Made by IFileFormatLoader::create once
// the file is recognised; what it knows of the format it has from ElfHelper. Kernel modules have no segments:
// their sections stand in. Symbols are read in orn_fflelf_symbols.cpp.

#include "orn_fflelf.h"

#include "orn_dildwarf.h"
#include "orn_elf_names.h"
#include "orn_elf_section_data.h"
#include "orn_ffl_arith.h"
#include "orn_file.h"
#include "orn_log.h"
#include "orn_moduleimage.h"
#include "orn_symbolfileresolver.h"
#include "orn_systemmap.h"

#include <cstdlib>
#include <cstring>
#include <utility>
namespace ORN_3_30 {

namespace {

constexpr char textName[] = ".text";
constexpr char dataName[] = ".data";

/// The environment switch of the reader of managed-code containers.
constexpr char legacyOatReader[] = "ORN_USE_LEGACY_OAT_READER";

bool hasDebugSections(const ElfHelper& helper) {
    return helper.getDebugInfo() || helper.getDebugLineIndex() != ElfHelper::noSection ||
           helper.getDebugStr();
}

bool isLegacyOatReaderOn() {
    const char* value = std::getenv(legacyOatReader);
    return value && *value;
}

internal::ElfNameBudget sectionNameBudget(const ElfHelper& helper) {
    return internal::ElfNameBudget(helper.getSectionNamesSize(), helper.getSectionCount());
}

using Candidates = std::vector<SymMgrObjectPtr<ISymbolFileToResolve>>;

/// Lists the candidate if it wants any file at all. Its index is its place among those listed.
void addIfWanting(Candidates& symbolFiles, SymMgrObjectPtr<ISymbolFileToResolve> candidate) {
    if (*candidate->wantedName() != '\0')
        symbolFiles.push_back(std::move(candidate));
}

template <typename Candidate>
void addCandidate(Candidates& symbolFiles, const char* modulePath, IFileFormatHelper* helper, ILock* lock) {
    const auto index = static_cast<long long>(symbolFiles.size());
    addIfWanting(symbolFiles, new Candidate(index, modulePath, helper, lock));
}

/// The listings of a kernel's symbols. Any part of the path may name the kernel; what is called "kcore" alone
/// has no "kallsyms" beside it.
void addKernelListings(Candidates& symbolFiles, const char* modulePath, ILock* lock) {
    const bool isKernel = std::strstr(modulePath, "vmlinu") != nullptr;
    const auto add = [&](bool isSystemMap) {
        const auto index = static_cast<long long>(symbolFiles.size());
        addIfWanting(symbolFiles, new SystemMap(modulePath, index, lock, isSystemMap));
    };
    if (isKernel || std::strstr(modulePath, "kcore"))
        add(true);
    if (isKernel)
        add(false);
}

} // namespace

/// Makes a segment of each loadable program header.
class ElfFileLoader::LoadableProgramHeadersWalker final : public ElfHelper::IProgramHeadersCallback {
public:
    explicit LoadableProgramHeadersWalker(ElfFileLoader& loader) : m_loader(loader) {}

    void operator()(const Elf64_Phdr& header, unsigned) override {
        const bool isCode = (header.p_flags & PF_X) != 0;
        m_loader.addSegment(header.p_vaddr, isCode ? textName : dataName,
                            header.p_vaddr - m_loader.getImageBase(), header.p_offset, header.p_filesz,
                            header.p_memsz, isCode ? 0 : 1);
    }

private:
    ElfFileLoader& m_loader;
};

/// Makes a segment of each section that occupies memory, for a module without program headers.
class ElfFileLoader::DriverSegmentsWalker final : public ElfHelper::ISectionHeadersCallback {
public:
    explicit DriverSegmentsWalker(ElfFileLoader& loader)
        : m_loader(loader), m_names(sectionNameBudget(*loader.m_elfHelper)) {}

    void operator()(const Elf64_Shdr& header, unsigned index) override {
        if (!(header.sh_flags & SHF_ALLOC))
            return;
        const char* name = m_loader.m_elfHelper->getSectionName(index);
        if (!m_names.afford(name))
            name = "";
        unsigned kind = kindOther;
        if (std::strcmp(name, textName) == 0) {
            kind = kindText;
            textAddress = header.sh_addr;
            textSize = header.sh_size;
        } else if (std::strcmp(name, dataName) == 0) {
            kind = kindData;
        }
        // Quirk: a section in front of ".text" gets its plain address here, since none is known to subtract.
        const bool added = m_loader.addSegment(header.sh_addr, name, header.sh_addr - textAddress,
                                               header.sh_offset + m_loader.m_elfHelper->getModuleOffset(),
                                               header.sh_size, header.sh_size, kind);
        if (added && kind == kindData) {
            dataAddress = header.sh_addr;
            dataSize = header.sh_size;
        }
    }

    unsigned long long textAddress = 0;
    unsigned long long textSize = 0;
    unsigned long long dataAddress = 0;
    unsigned long long dataSize = 0;

private:
    enum : unsigned { kindOther = 0, kindText = 1, kindData = 2 };

    ElfFileLoader& m_loader;
    internal::ElfNameBudget m_names;
};

/// Enters each section that has bytes in the file and occupies memory.
class ElfFileLoader::SectionHeaderWalker final : public ElfHelper::ISectionHeadersCallback {
public:
    explicit SectionHeaderWalker(ElfFileLoader& loader)
        : m_loader(loader), m_names(sectionNameBudget(*loader.m_elfHelper)) {}

    void operator()(const Elf64_Shdr& header, unsigned index) override {
        if (!(header.sh_flags & SHF_ALLOC) || header.sh_type != SHT_PROGBITS)
            return;
        const char* name = m_loader.m_elfHelper->getSectionName(index);
        m_loader.addSection(m_names.afford(name) ? name : "", header.sh_addr, header.sh_size);
    }

private:
    ElfFileLoader& m_loader;
    internal::ElfNameBudget m_names;
};

/// Tells a symbol table where sections end, so that no symbol reaches past its own.
class ElfFileLoader::SectionEndWalker final : public ElfHelper::ISectionHeadersCallback {
public:
    explicit SectionEndWalker(ISymbolTable& sink) : m_sink(sink) {}

    void operator()(const Elf64_Shdr& header, unsigned) override {
        if (!(header.sh_flags & SHF_ALLOC))
            return;
        const unsigned long long end = internal::saturatingSum(header.sh_addr, header.sh_size);
        m_sink.addScopeRange(end, end, nullptr);
    }

private:
    ISymbolTable& m_sink;
};

ElfFileLoader::ElfFileLoader(SymMgrObjectPtr<IModuleImage> image)
    : m_elfHelper(new ElfHelper(std::move(image))), m_infoRead(false), m_oatDataSize(0) {
    readFileInfo();
    if (!m_elfHelper->isValid())
        m_status = status_BadFileFormat;
    if (isLegacyOatReaderOn())
        findOatContainer();
}

ElfFileLoader::~ElfFileLoader() = default;

const char* ElfFileLoader::getPath() {
    return m_elfHelper->getPath();
}

arch_t ElfFileLoader::getArch() {
    return m_elfHelper->getArch();
}

unsigned long long ElfFileLoader::getImageBase() {
    return m_elfHelper->getImageBase();
}

unsigned long long ElfFileLoader::getEntryPoint() {
    return m_elfHelper->getHeader().e_entry;
}

unsigned long long ElfFileLoader::getImageSize() {
    return m_elfHelper->getFirstLoadSize();
}

bool ElfFileLoader::isBogusImage() {
    return dynamic_cast<BogusELFImage*>(m_elfHelper->getImage()) != nullptr;
}

void ElfFileLoader::readFileInfo() {
    ORN_TRACE("readFileInfo");
    if (m_infoRead)
        return;
    if (m_segments.empty()) {
        if (!m_elfHelper->isValid())
            return;
        LoadableProgramHeadersWalker walker(*this);
        m_elfHelper->walkProgramHeaders(walker);
    }
    if (m_segments.empty())
        addSectionsAsSegments();
    SectionHeaderWalker walker(*this);
    m_elfHelper->walkSectionHeaders(walker);
    m_infoRead = true;
}

void ElfFileLoader::addSectionsAsSegments() {
    DriverSegmentsWalker walker(*this);
    m_elfHelper->walkSectionHeaders(walker);
    m_elfHelper->layOutBySections(walker.textAddress, walker.textSize, walker.dataAddress, walker.dataSize);
}

void ElfFileLoader::getSectionByName(SymMgrObjectPtr<ISection>& out, const char* name) {
    out = nullptr;
    const unsigned index = m_elfHelper->findSectionByName(name);
    const Elf64_Shdr* header = m_elfHelper->getSectionHeader(index);
    if (header)
        out = new Section(this, name, header->sh_addr, header->sh_offset + m_elfHelper->getModuleOffset(),
                          header->sh_size, header->sh_type == SHT_NOBITS);
}

void ElfFileLoader::getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned index) {
    out = nullptr;
    if (const Elf64_Shdr* header = m_elfHelper->getSectionHeader(index))
        out = new Section(this, m_elfHelper->getSectionName(index), header->sh_addr,
                          header->sh_offset + m_elfHelper->getModuleOffset(), header->sh_size,
                          hasNoBitsByFlags(*header));
}

void ElfFileLoader::addSectionEnds(ISymbolTable* sink) {
    SectionEndWalker walker(*sink);
    m_elfHelper->walkSectionHeaders(walker);
}

Segment* ElfFileLoader::createSegment(const char* name, unsigned long long rva, unsigned long long fileOffset,
                                      unsigned long long fileSize, unsigned long long memorySize,
                                      unsigned kind) {
    return new ELFSegment(m_elfHelper, this, name, rva, fileOffset, fileSize, memorySize, kind);
}

// The order is the order of preference: a debug file found by build id, one found by debug link, the module
// itself. Where a container of managed code was found, its reader stands in place of these. The listings of
// a kernel come last: a kernel with debug information has more to tell.
status_t ElfFileLoader::collectSymbolFiles(std::vector<SymMgrObjectPtr<ISymbolFileToResolve>>& symbolFiles) {
    IModuleImage* image = m_elfHelper->getImage();
    if (!image || !image->getPath())
        return status_Ok;
    readFileInfo();
    if (isOatContainer())
        addOatCandidate(symbolFiles);
    else
        addDwarfCandidates(symbolFiles);
    addKernelListings(symbolFiles, image->getPath(), &m_sharedLock);
    return status_Ok;
}

void ElfFileLoader::addDwarfCandidates(std::vector<SymMgrObjectPtr<ISymbolFileToResolve>>& symbolFiles) {
    const SymMgrObjectPtr<IFileFormatHelper> helper = new ElfFileFormatHelper(m_elfHelper);
    addCandidate<DWARFBuildIdSymbolFileToResolve>(symbolFiles, getPath(), helper, &m_sharedLock);
    addCandidate<DWARFSymbolFileToResolve>(symbolFiles, getPath(), helper, &m_sharedLock);
    addCandidate<BinaryWithDWARFInfo>(symbolFiles, getPath(), helper, &m_sharedLock);
}

IDebugInfoLoader* ElfFileLoader::createDebugInfoLoader(const char* path, unsigned type, long long) {
    switch (type) {
    case symbol_file_dwarf:
        return createDwarfLoader(path);
    case symbol_file_kernel_map:
        return new SystemMAPDebugInfoLoader(this, path, m_elfHelper, getArch(), debugInfoLock());
    case symbol_file_oat:
        return createOatLoader(path);
    default:
        return nullptr;
    }
}

/// From the addresses of a debug file to those of the module; a file without an image base is one of its own.
unsigned long long ElfFileLoader::biasOf(const ElfHelper& helper) const {
    return helper.getImageBase() == ~0ULL ? 0 : m_elfHelper->getImageBase() - helper.getImageBase();
}

IDebugInfoLoader* ElfFileLoader::createDwarfLoader(const char* path) {
    SymMgrObjectPtr<ElfHelper> helper = m_elfHelper;
    if (!samePath(path, getPath()))
        helper = new ElfHelper(new FileImage(path, 0, arch_unknown));
    m_elfHelper->mergeDebugFile(*helper);
    if (hasDebugSections(*helper))
        return new DWARFDebugInfoLoader(this, path, new ElfFileFormatHelper(helper), biasOf(*helper),
                                        debugInfoLock());
    // A separate file is a symbol file even without debug sections: it lent its symbol tables.
    return helper != m_elfHelper ? new EmptyDebugInfoLoader(this, path, debugInfoLock()) : nullptr;
}

} // namespace ORN_3_30
