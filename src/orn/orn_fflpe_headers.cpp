// What construction reads of a PE module: headers, section table, where the export and debug directories lie,
// the program database that the module names, and whether its managed code has native code beside it. Nothing
// is reported: what can't be read stays empty, and what was read before it stays.

#include "orn_fflpe.h"

#include "orn_file.h"
#include "orn_log.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string_view>
#include <utility>

namespace ORN_3_30 {

namespace {

template <typename Record>
bool readAt(File& file, unsigned long long offset, Record& record) {
    if (offset > static_cast<unsigned long long>(std::numeric_limits<std::int64_t>::max()))
        return false;
    file.seek(static_cast<std::int64_t>(offset));
    return file.read(sizeof(record), &record) == static_cast<std::int64_t>(sizeof(record));
}

arch_t archOf(std::uint16_t machine) {
    switch (machine) {
    case IMAGE_FILE_MACHINE_I386:
        return arch_ia32;
    case IMAGE_FILE_MACHINE_IA64:
        return arch_itanium;
    case IMAGE_FILE_MACHINE_AMD64:
        return arch_x86_64;
    case IMAGE_FILE_MACHINE_ARM:
        return arch_arm;
    case IMAGE_FILE_MACHINE_THUMB:
        return arch_arm_thumb;
    default:
        return arch_unknown;
    }
}

/// Sections of a packed file, which is no place for an export table: what lies there is made when it runs.
bool isPacked(const IMAGE_SECTION_HEADER& section) {
    constexpr std::string_view packerPrefix = "UPX";
    return std::string_view(section.Name, sizeof(section.Name)).starts_with(packerPrefix);
}

// --- CodeView records

constexpr std::uint32_t signatureOf(const char (&text)[5]) {
    std::uint32_t signature = 0;
    for (int i = 3; i >= 0; --i)
        signature = signature << 8 | static_cast<unsigned char>(text[i]);
    return signature;
}

constexpr std::uint32_t signatureRSDS = signatureOf("RSDS");
constexpr std::uint32_t signatureNB10 = signatureOf("NB10");
constexpr std::uint32_t signatureNB11 = signatureOf("NB11");
constexpr std::uint32_t signatureNB09 = signatureOf("NB09");

/// The fixed part of either kind of record, behind whose end the path begins.
struct RecordRSDS {
    std::uint32_t signature;
    unsigned char guid[16];
    std::uint32_t age;
};
static_assert(sizeof(RecordRSDS) == 24);

struct RecordNB10 {
    std::uint32_t signature;
    std::uint32_t offset;
    std::uint32_t timestamp;
    std::uint32_t age;
};
static_assert(sizeof(RecordNB10) == 16);

enum class RecordResult { Read, Refused, Cut };

/// A longer path is cut, and needs no terminator then.
constexpr std::int64_t longestPath = 260;

RecordResult readPath(File& file, std::string& path) {
    char text[longestPath];
    const std::int64_t count = std::max<std::int64_t>(file.read(sizeof(text), text), 0);
    const std::size_t length = strnlen(text, count);
    if (length == static_cast<std::size_t>(count) && count < longestPath)
        return RecordResult::Cut;
    path.assign(text, length);
    return RecordResult::Read;
}

RecordResult readRSDS(File& file, unsigned long long at, CodeViewRecord& record) {
    RecordRSDS fixed;
    if (!readAt(file, at, fixed))
        return RecordResult::Cut;
    std::memcpy(record.guid.data(), fixed.guid, record.guid.size());
    record.age = fixed.age;
    return readPath(file, record.path);
}

RecordResult readNB10(File& file, unsigned long long at, CodeViewRecord& record) {
    RecordNB10 fixed;
    if (!readAt(file, at, fixed))
        return RecordResult::Cut;
    record.signature = fixed.timestamp;
    record.age = fixed.age;
    return readPath(file, record.path);
}

RecordResult readCodeViewRecord(File& file, unsigned long long at, CodeViewRecord& record) {
    std::uint32_t signature = 0;
    if (!readAt(file, at, signature))
        return RecordResult::Cut;
    if (signature == signatureRSDS)
        return readRSDS(file, at, record);
    if (signature == signatureNB10)
        return readNB10(file, at, record);
    // These two hold their debug information in the module itself, which nobody reads any more.
    ORN_ASSERT(signature != signatureNB11);
    ORN_ASSERT(signature != signatureNB09);
    return RecordResult::Refused;
}

/// Where the entry's CodeView record lies. False if the file ends first.
bool findRecord(File& file, const IMAGE_DEBUG_DIRECTORY& entry, unsigned long long& at) {
    at = entry.PointerToRawData;
    if (entry.Type != IMAGE_DEBUG_TYPE_COFF)
        return true;
    IMAGE_COFF_SYMBOLS_HEADER symbols;
    if (!readAt(file, at, symbols))
        return false;
    at += symbols.LvaToFirstSymbol;
    return true;
}

RecordResult readEntry(File& file, const IMAGE_DEBUG_DIRECTORY& entry, CodeViewRecord& record) {
    if (entry.Type != IMAGE_DEBUG_TYPE_COFF && entry.Type != IMAGE_DEBUG_TYPE_CODEVIEW)
        return RecordResult::Refused;
    unsigned long long at = 0;
    return findRecord(file, entry, at) ? readCodeViewRecord(file, at, record) : RecordResult::Cut;
}

/// The database of native code that was made ahead of time from a managed module.
bool namesNativeImage(const CodeViewRecord& record) {
    constexpr std::string_view ending = ".ni.pdb";
    return record.path.size() > ending.size() && std::string_view(record.path).ends_with(ending);
}

} // namespace

// --- The headers

void PEExecFileLoader::readFileInfo() {
    ORN_TRACE("readFileInfo");
    if (m_infoRead)
        return;
    m_infoRead = true;
    File file(m_path.c_str());
    if (!readHeaders(file) || !readSectionTable(file) || !findDirectories(file))
        return;
    std::vector<CodeViewRecord> records;
    readDebugDirectory(file, records);
    chooseCodeView(records);
    m_readyToRun = ReadyToRunReader(&file, {m_sectionHeaders, m_arch, m_comDescriptorRva});
}

/// Quirk: headers and directories are read at the full size of their class, whatever size and number of
/// directories the file states: in a file with fewer of them the section table is taken for the rest.
bool PEExecFileLoader::readHeaders(File& file) {
    IMAGE_DOS_HEADER dosHeader;
    IMAGE_NT_HEADERS32 headers;
    if (!ORN_ASSERT(readAt(file, 0, dosHeader)) || !ORN_ASSERT(readAt(file, dosHeader.e_lfanew, headers)))
        return false;
    const IMAGE_FILE_HEADER& fileHeader = headers.FileHeader;
    m_stringTableOffset = static_cast<std::uint32_t>(std::min<unsigned long long>(
        fileHeader.PointerToSymbolTable +
            static_cast<unsigned long long>(fileHeader.NumberOfSymbols) * IMAGE_SIZEOF_SYMBOL,
        std::numeric_limits<std::uint32_t>::max()));
    m_sectionCount = fileHeader.NumberOfSections;
    m_sectionTableOffset = dosHeader.e_lfanew + fileHeader.SizeOfOptionalHeader +
                           static_cast<std::uint32_t>(sizeof(headers.Signature) + sizeof(fileHeader));
    m_arch = archOf(fileHeader.Machine);
    m_exportRva = headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress;
    if (headers.OptionalHeader.Magic != IMAGE_NT_OPTIONAL_HDR64_MAGIC) {
        takeOptionalHeader(headers.OptionalHeader);
        return true;
    }
    IMAGE_NT_HEADERS64 wideHeaders;
    if (!ORN_ASSERT(readAt(file, dosHeader.e_lfanew, wideHeaders)))
        return false;
    takeOptionalHeader(wideHeaders.OptionalHeader);
    m_exportRva = wideHeaders.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress;
    m_globalPtrRva = wideHeaders.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_GLOBALPTR].VirtualAddress;
    return true;
}

template <typename OptionalHeader>
void PEExecFileLoader::takeOptionalHeader(const OptionalHeader& header) {
    m_imageBase = header.ImageBase;
    m_imageSize = header.SizeOfImage;
    m_debugDirectory = header.DataDirectory[IMAGE_DIRECTORY_ENTRY_DEBUG];
    m_baseOfCode = header.BaseOfCode;
    m_entryPointRva = header.AddressOfEntryPoint;
    m_comDescriptorRva = header.DataDirectory[IMAGE_DIRECTORY_ENTRY_COM_DESCRIPTOR].VirtualAddress;
    m_managed = m_comDescriptorRva != 0;
}

bool PEExecFileLoader::readSectionTable(File& file) {
    std::vector<IMAGE_SECTION_HEADER> headers(m_sectionCount);
    const std::size_t size = headers.size() * sizeof(IMAGE_SECTION_HEADER);
    file.seek(m_sectionTableOffset);
    if (!ORN_ASSERT(file.read(size, headers.data()) == static_cast<std::int64_t>(size)))
        return false;
    m_sectionHeaders = std::move(headers);
    return true;
}

/// Every section is looked at, also behind the one that was found: the last one that holds a directory gives
/// its place, while of the export directory the first one that is usable is kept.
bool PEExecFileLoader::findDirectories(File& file) {
    std::optional<std::uint32_t> exportOffset;
    for (const IMAGE_SECTION_HEADER& section : m_sectionHeaders) {
        if (fileBytesHold(section, m_debugDirectory.VirtualAddress)) {
            m_debugDirectoryOffset =
                m_debugDirectory.VirtualAddress - section.VirtualAddress + section.PointerToRawData;
            m_debugDirectorySize = m_debugDirectory.Size;
        }
        if (!isPacked(section) && fileBytesHold(section, m_exportRva)) {
            m_exportDelta = section.VirtualAddress - section.PointerToRawData;
            exportOffset = m_exportRva - m_exportDelta;
        }
        if (exportOffset && !m_exportDirectory && !keepExportDirectory(file, *exportOffset))
            return false;
    }
    return true;
}

/// Keeps the directory unless it is none: its reserved fields are 0. False if the file ends first.
bool PEExecFileLoader::keepExportDirectory(File& file, std::uint32_t offset) {
    IMAGE_EXPORT_DIRECTORY directory;
    if (!ORN_ASSERT(readAt(file, offset, directory)))
        return false;
    if (directory.Characteristics == 0 && directory.MajorVersion == 0 && directory.MinorVersion == 0)
        m_exportDirectory = directory;
    return true;
}

// --- The program database

void PEExecFileLoader::readDebugDirectory(File& file, std::vector<CodeViewRecord>& records) {
    const unsigned long long count = m_debugDirectorySize / sizeof(IMAGE_DEBUG_DIRECTORY);
    for (unsigned long long i = 0; i < count; ++i) {
        IMAGE_DEBUG_DIRECTORY entry;
        CodeViewRecord record;
        RecordResult result = RecordResult::Cut;
        if (readAt(file, m_debugDirectoryOffset + i * sizeof(entry), entry))
            result = readEntry(file, entry, record);
        if (!ORN_ASSERT(result != RecordResult::Cut))
            return;
        if (result == RecordResult::Read)
            records.push_back(std::move(record));
    }
}

void PEExecFileLoader::chooseCodeView(const std::vector<CodeViewRecord>& records) {
    if (records.empty())
        return;
    auto chosen = records.begin();
    if (m_managed) {
        const auto native = std::find_if(records.begin(), records.end(), namesNativeImage);
        if (native != records.end())
            chosen = native;
    }
    m_pdbSignature = chosen->signature;
    m_pdbAge = chosen->age;
    m_pdbPath = chosen->path;
    m_pdbGuid = chosen->guid;
}

} // namespace ORN_3_30
