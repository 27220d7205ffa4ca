// The older GPU debug format: a fixed header, strings, and a line table for each kernel that has one. The
// line resolver of GPU kernels asks for one kernel's rows and the files they count in; candidates ask whether
// a file is of this format. Rows are given in the order of the file: nothing is sorted here.
//
// Places are tested by the formulas that writers and readers of the format share. They let a structure end
// one byte behind the file: that byte, and all behind it, reads as 0.

#include "orn_dilkor_tav_utils.h"

#include "orn/types.h"
#include "orn_log.h"

#include <cstring>

namespace ORN_3_30 {

using internal::isKorAlignment;
using internal::korLimit;

namespace {

constexpr unsigned wordSize = 4;
constexpr unsigned kernelDataHeaderSize = 12;
constexpr unsigned lineTableHeaderSize = 4;
constexpr unsigned lineTableEntrySize = 12;

constexpr unsigned lineBits = 24;
constexpr std::uint32_t lineMask = (1U << lineBits) - 1;

bool isVersionOf(std::uint32_t version, unsigned arch) {
    const std::uint32_t end =
        arch == arch_gpu_tav_first ? internal::korNoVersion : internal::korFirstLunVersion;
    return version >= internal::korFirstVersion && version < end;
}

const SProgramDebugDataHeaderTAV& headerOf(IBuffer& buffer) {
    return *reinterpret_cast<const SProgramDebugDataHeaderTAV*>(buffer.data());
}

} // namespace

KorTavDebugInfoParser::KorTavDebugInfoParser(IBuffer* buffer)
    : SymMgrObject<IKorDebugInfoParser>(nullptr),
      m_debugInfo(buffer),
      m_header(nullptr),
      m_fileTableHeader(nullptr),
      m_dirTableHeader(nullptr) {}

bool KorTavDebugInfoParser::validate(const SymMgrObjectPtr<IBuffer>& buffer, unsigned arch, bool) {
    if (arch != arch_gpu_tav_first && arch != arch_gpu_either)
        return false;
    if (!buffer || !buffer->data() || buffer->size() < minimumSize())
        return false;
    const SProgramDebugDataHeaderTAV& header = headerOf(*buffer);
    return isVersionOf(header.Version, arch) && isKorAlignment(header.Alignment) &&
           header.LimitA <= korLimit && header.LimitB <= korLimit &&
           header.NumberOfKernelData <= header.NumberOfKernels && header.NumberOfKernels <= korLimit;
}

std::size_t KorTavDebugInfoParser::minimumSize() {
    return sizeof(SProgramDebugDataHeaderTAV);
}

status_t KorTavDebugInfoParser::create(SymMgrObjectPtr<IKorDebugInfoParser>& out,
                                       const SymMgrObjectPtr<IBuffer>& buffer) {
    if (!buffer || !buffer->data())
        return status_BadFileFormat;
    const SymMgrObjectPtr<KorTavDebugInfoParser> parser = new KorTavDebugInfoParser(buffer);
    const status_t status = parser->load();
    if (status == status_Ok)
        out = parser.get();
    return status;
}

// --- Reading

std::uint32_t KorTavDebugInfoParser::wordAt(unsigned long long offset) const {
    return internal::korWordAt(m_debugInfo->data(), m_debugInfo->size(), offset);
}

/// Quirk: the last byte is compared as an end is, so that it may lie just behind the file.
bool KorTavDebugInfoParser::reaches(unsigned long long offset, unsigned long long size) const {
    return offset + size - 1 <= m_debugInfo->size();
}

status_t KorTavDebugInfoParser::load() {
    const status_t status = readTables();
    if (isFailure(status)) {
        m_header = nullptr;
        m_fileTableHeader = m_dirTableHeader = nullptr;
        m_strings.clear();
    }
    return status;
}

status_t KorTavDebugInfoParser::readTables() {
    m_strings.clear();
    const Bytes data = m_debugInfo ? m_debugInfo->data() : nullptr;
    if (!data || m_debugInfo->size() < minimumSize())
        return status_BadFileFormat;
    m_header = &headerOf(*m_debugInfo);
    const unsigned long long fileTableHeader =
        minimumSize() + static_cast<unsigned long long>(m_header->StringTableSize);
    if (!ORN_ASSERT_TEXT(
            reaches(fileTableHeader, wordSize),
            "(size_t)((uint8_t*)(m_fileTableHeader + 1) - 1 - (uint8_t*)m_header) <= m_debugInfo->size()"))
        return status_BadFileFormat;
    const unsigned long long dirTableHeader = fileTableHeader + wordSize;
    if (!ORN_ASSERT_TEXT(
            reaches(dirTableHeader, wordSize),
            "(size_t)((uint8_t*)(m_dirTableHeader + 1) - 1 - (uint8_t*)m_header) <= m_debugInfo->size()"))
        return status_BadFileFormat;
    m_fileTableHeader = data + fileTableHeader;
    m_dirTableHeader = data + dirTableHeader;
    return readStrings(minimumSize());
}

status_t KorTavDebugInfoParser::readStrings(unsigned long long stringTableEncoding) {
    const unsigned long long count = static_cast<unsigned long long>(wordAt(offsetOf(m_fileTableHeader))) +
                                     wordAt(offsetOf(m_dirTableHeader)) + m_header->NumberOfKernels;
    const unsigned long long size = m_debugInfo->size();
    if (!ORN_ASSERT_TEXT(
            stringTableEncoding <= size,
            "(size_t)((uint8_t*)stringTableEncoding - (uint8_t*)m_header) <= m_debugInfo->size()"))
        return status_BadFileFormat;
    unsigned long long strings = stringTableEncoding;
    for (unsigned long long i = 0; i < count; ++i) {
        const void* text = m_debugInfo->data() + strings;
        const void* zero = std::memchr(text, 0, size - strings);
        m_strings.push_back(static_cast<const char*>(text));
        // Behind the zero. The one behind the file ends no string: stepping over it leads out.
        strings = zero ? offsetOf(static_cast<Bytes>(zero)) + 1 : size + 1;
        if (!ORN_ASSERT_TEXT(strings <= size,
                             "(size_t)((uint8_t*)strings - (uint8_t*)m_header) <= m_debugInfo->size()"))
            return status_BadFileFormat;
    }
    if (!ORN_ASSERT_TEXT(strings - stringTableEncoding <= m_header->StringTableSize,
                         "(size_t)(strings - stringTableEncoding) <= m_header->StringTableSize"))
        return status_BadFileFormat;
    return status_Ok;
}

// --- Queries

unsigned KorTavDebugInfoParser::getNumberOfKernels() {
    return m_header ? m_header->NumberOfKernels : 0;
}

status_t KorTavDebugInfoParser::copyStrings(unsigned long long first, unsigned long long count,
                                            std::vector<std::string>& out) const {
    out.clear();
    for (unsigned long long i = first; i < first + count && i < m_strings.size(); ++i)
        out.emplace_back(m_strings[i]);
    return status_Ok;
}

status_t KorTavDebugInfoParser::getKernelNames(std::vector<std::string>& out) {
    if (!ORN_ASSERT(m_fileTableHeader) || !ORN_ASSERT(m_dirTableHeader))
        return status_BadFileFormat;
    const unsigned long long first = static_cast<unsigned long long>(wordAt(offsetOf(m_fileTableHeader))) +
                                     wordAt(offsetOf(m_dirTableHeader));
    return copyStrings(first, m_strings.size(), out);
}

status_t KorTavDebugInfoParser::getSourceFileNames(const std::string&, std::vector<std::string>& out) {
    if (!ORN_ASSERT(m_fileTableHeader) || !ORN_ASSERT(m_dirTableHeader))
        return status_BadFileFormat;
    return copyStrings(wordAt(offsetOf(m_fileTableHeader)), wordAt(offsetOf(m_dirTableHeader)), out);
}

status_t KorTavDebugInfoParser::getLines(const std::string& kernel, std::vector<KorTavLineEntry>& out,
                                         IAddressMapping*) {
    if (kernel.empty())
        return status_InvalidArg;
    std::vector<std::string> names;
    const status_t result = getKernelNames(names);
    if (!ORN_ASSERT(result == status_Ok))
        return result;
    if (!ORN_ASSERT(m_header) || !ORN_ASSERT(m_fileTableHeader))
        return status_BadFileFormat;
    const std::uint32_t records = m_header->NumberOfKernelData;
    unsigned long long record = offsetOf(m_dirTableHeader) + m_header->KernelDataOffset;
    for (std::uint32_t i = 0; i < records; ++i) {
        if (!checkRecord(record, i))
            return status_BadFileFormat;
        const std::uint32_t kernelIndex = wordAt(record);
        const std::uint32_t count = wordAt(record + kernelDataHeaderSize);
        const unsigned long long entries = record + kernelDataHeaderSize + lineTableHeaderSize;
        if (kernelIndex < names.size() && names[kernelIndex] == kernel) {
            readEntries(entries, count, out);
            return status_Ok;
        }
        record = entries + static_cast<unsigned long long>(count) * lineTableEntrySize;
    }
    return status_NotFound;
}

/// Record number `i` at that offset: whether its headers lie in the file and its kernel is one that may stand
/// here.
bool KorTavDebugInfoParser::checkRecord(unsigned long long kernelDataHeader, std::uint32_t i) const {
    if (!ORN_ASSERT_TEXT(
            reaches(kernelDataHeader, kernelDataHeaderSize),
            "(size_t)((uint8_t*)(kernelDataHeader + 1) - 1 - (uint8_t*)m_header) <= m_debugInfo->size()"))
        return false;
    const unsigned long long lineTableHeader = kernelDataHeader + kernelDataHeaderSize;
    if (!ORN_ASSERT_TEXT(
            reaches(lineTableHeader, lineTableHeaderSize),
            "(size_t)((uint8_t*)(lineTableHeader + 1) - 1 - (uint8_t*)m_header) <= m_debugInfo->size()"))
        return false;
    // Quirk: a first entry has to be there even where the table has none.
    const unsigned long long lineTableEntry = lineTableHeader + lineTableHeaderSize;
    if (!ORN_ASSERT_TEXT(
            reaches(lineTableEntry, lineTableEntrySize),
            "(size_t)((uint8_t*)(lineTableEntry + 1) - 1 - (uint8_t*)m_header) <= m_debugInfo->size()"))
        return false;
    // Records stand in ascending order of the index; kernels without lines leave gaps.
    const std::uint32_t kernelIndex = wordAt(kernelDataHeader);
    return ORN_ASSERT_TEXT(i <= kernelIndex, "i <= kernelDataHeader->KernelIndex") &&
           ORN_ASSERT_TEXT(kernelIndex < m_header->NumberOfKernels,
                           "kernelDataHeader->KernelIndex < m_header->NumberOfKernels");
}

/// Quirk: a table that is longer than the file just ends with it.
void KorTavDebugInfoParser::readEntries(unsigned long long lineTableEntry, std::uint32_t count,
                                        std::vector<KorTavLineEntry>& out) const {
    for (std::uint32_t i = 0; i < count && reaches(lineTableEntry, lineTableEntrySize); ++i) {
        const std::uint32_t position = wordAt(lineTableEntry + wordSize);
        out.push_back({wordAt(lineTableEntry), position & lineMask, position >> lineBits,
                       wordAt(lineTableEntry + 2 * wordSize)});
        lineTableEntry += lineTableEntrySize;
    }
}

} // namespace ORN_3_30
