// PEExecFileLoader: a PE module as segments and sections. Made by IFileFormatLoader::create once the
// signature test, which stands here too, recognises the file. The headers are read by orn_fflpe_headers.cpp
// in construction, the exports by orn_fflpe_symbols.cpp when a module's scope first wants symbols. The file
// is read from its path and not through an image: a PE module is never embedded in another file.

#include "orn_fflpe.h"

#include "orn_file.h"
#include "orn_log.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace ORN_3_30 {

namespace {

constexpr std::int64_t dosHeaderSize = sizeof(IMAGE_DOS_HEADER);
constexpr std::int64_t ntHeadersSize = sizeof(IMAGE_NT_HEADERS32);

enum : unsigned { kindCode = 1, kindOther = 2 };

/// The eight bytes may be used up by the name, without a terminator.
std::string shortNameOf(const IMAGE_SECTION_HEADER& header) {
    return {header.Name, strnlen(header.Name, sizeof(header.Name))};
}

/// Reads the names that do not fit into the section table. They may share their bytes, each a tail of
/// another, so a damaged file of a megabyte could name tens of thousands of sections by half a megabyte each.
/// What the names may take together grows with the file, far above what linkers make.
class LongNameReader {
public:
    LongNameReader(const std::string& path, std::uint32_t stringTableOffset, std::size_t nameCount)
        : m_file(path.c_str()),
          m_stringTableOffset(stringTableOffset),
          m_size(static_cast<std::int64_t>(m_file.size())),
          m_left(m_size + static_cast<std::int64_t>(nameCount) * bytesPerName) {}

    /// Replaces "/" and a number by the name that it leads to; where it leads nowhere the name stays.
    void resolve(std::string& name) {
        char* end = nullptr;
        const long number = std::strtol(name.c_str() + 1, &end, 10);
        if (end == name.c_str() + 1)
            return;
        const std::int64_t offset = static_cast<std::int64_t>(m_stringTableOffset) + number;
        if (ORN_ASSERT(offset >= 0 && offset < m_size))
            read(offset, name);
    }

private:
    /// Up to the NUL or the file's end.
    void read(std::int64_t offset, std::string& name) {
        std::string longName;
        char piece[256];
        m_file.seek(offset);
        for (std::int64_t count = sizeof(piece); count == sizeof(piece);) {
            count = m_file.read(sizeof(piece), piece);
            if (count <= 0)
                break;
            const std::size_t length = strnlen(piece, count);
            longName.append(piece, length);
            if (length < static_cast<std::size_t>(count))
                break;
            if (static_cast<std::int64_t>(longName.size()) > m_left)
                return;
        }
        m_left -= static_cast<std::int64_t>(longName.size());
        name = std::move(longName);
    }

    static constexpr std::int64_t bytesPerName = 1024;

    File m_file;
    std::uint32_t m_stringTableOffset;
    std::int64_t m_size;
    std::int64_t m_left;
};

bool isLongName(const std::string& name) {
    return name.size() > 1 && name[0] == '/';
}

} // namespace

bool isPE(const char* path) {
    File file(path);
    IMAGE_DOS_HEADER dosHeader;
    if (!ORN_ASSERT(file.read(dosHeaderSize, &dosHeader) == dosHeaderSize))
        return false;
    if (dosHeader.e_magic != IMAGE_DOS_SIGNATURE)
        return false;
    file.seek(dosHeader.e_lfanew);
    IMAGE_NT_HEADERS32 ntHeaders;
    if (!ORN_ASSERT(file.read(ntHeadersSize, &ntHeaders) == ntHeadersSize))
        return false;
    // Quirk: 16 bits of the four-byte signature are compared, so the two zero bytes behind "PE" may be any.
    return static_cast<std::uint16_t>(ntHeaders.Signature) == IMAGE_NT_SIGNATURE;
}

PEExecFileLoader::PEExecFileLoader(const char* path)
    : m_path(path ? path : ""),
      m_debugDirectory{},
      m_sectionTableOffset(0),
      m_sectionCount(0),
      m_exportRva(0),
      m_globalPtrRva(0),
      m_debugDirectoryOffset(0),
      m_debugDirectorySize(0),
      m_stringTableOffset(0),
      m_exportDelta(0),
      m_arch(arch_unknown),
      m_imageSize(0),
      m_imageBase(0),
      m_baseOfCode(0),
      m_entryPointRva(0),
      m_pdbSignature(0),
      m_pdbAge(0),
      m_pdbGuid{},
      m_managed(false),
      m_comDescriptorRva(0),
      m_infoRead(false),
      m_segmentsRead(false),
      m_namesRead(false) {
    readFileInfo();
}

PEExecFileLoader::~PEExecFileLoader() = default;

unsigned long long PEExecFileLoader::getEntryPoint() {
    return m_entryPointRva == 0 ? 0 : getImageBase() + m_entryPointRva;
}

unsigned PEExecFileLoader::findSectionIndex(const char* name) {
    if (!name)
        return getSectionCount();
    const std::vector<std::string>& names = sectionNames();
    return static_cast<unsigned>(std::find(names.begin(), names.end(), name) - names.begin());
}

void PEExecFileLoader::getSectionByName(SymMgrObjectPtr<ISection>& out, const char* name) {
    getSectionByIndex(out, findSectionIndex(name));
}

/// Quirk: the address of a section is its RVA here, where other formats give a pseudo address, its size is
/// that in the file, and one without bytes in the file does not say so.
void PEExecFileLoader::getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned index) {
    out = nullptr;
    if (index >= m_sectionHeaders.size())
        return;
    const IMAGE_SECTION_HEADER& header = m_sectionHeaders[index];
    out = new Section(this, sectionNames()[index].c_str(), header.VirtualAddress, header.PointerToRawData,
                      header.SizeOfRawData, false);
}

status_t PEExecFileLoader::collectSymbolFiles(std::vector<SymMgrObjectPtr<ISymbolFileToResolve>>&) {
    return status_Ok;
}

IDebugInfoLoader* PEExecFileLoader::createDebugInfoLoader(const char*, unsigned, long long) {
    return nullptr;
}

void PEExecFileLoader::ensureRead() {
    ScopedLock guard(&m_symbolFilesLock);
    if (m_segmentsRead)
        return;
    m_segmentsRead = true;
    try {
        addSegments();
    } catch (...) {
        // What is there stays, and the next question adds the rest.
        m_segmentsRead = false;
        throw;
    }
}

void PEExecFileLoader::addSegments() {
    const std::vector<std::string>& names = sectionNames();
    for (std::size_t i = 0; i < m_sectionHeaders.size(); ++i) {
        const IMAGE_SECTION_HEADER& header = m_sectionHeaders[i];
        const unsigned kind = header.Characteristics & IMAGE_SCN_CNT_CODE ? kindCode : kindOther;
        addSegment(m_imageBase + header.VirtualAddress, names[i].c_str(), header.VirtualAddress,
                   header.PointerToRawData, header.SizeOfRawData, header.VirtualSize, kind);
    }
}

/// Read once, and not before somebody wants a name: the long ones lie behind all that construction reads.
const std::vector<std::string>& PEExecFileLoader::sectionNames() {
    ScopedLock guard(&m_symbolFilesLock);
    if (m_namesRead)
        return m_sectionNames;
    std::vector<std::string> names;
    for (const IMAGE_SECTION_HEADER& header : m_sectionHeaders)
        names.push_back(shortNameOf(header));
    if (std::any_of(names.begin(), names.end(), isLongName)) {
        LongNameReader reader(m_path, m_stringTableOffset, names.size());
        for (std::string& name : names)
            if (isLongName(name))
                reader.resolve(name);
    }
    m_sectionNames = std::move(names);
    m_namesRead = true;
    return m_sectionNames;
}

} // namespace ORN_3_30
