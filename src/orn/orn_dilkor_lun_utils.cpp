// The newer GPU debug format: the frame of the file, and the joining of a kernel's two streams into rows of
// machine code. The line resolver of GPU kernels asks for one kernel's rows and files, the format loader for
// the place of its ELF object. That object is read in orn_dilkor_lun_utils_mira.cpp, the other stream in
// orn_dilkor_lun_utils_isa.cpp.
//
// Nothing else vouches for the file: every step is tested against its end, and a test that fails is logged.

#include "orn_dilkor_lun_utils.h"

#include "orn/types.h"
#include "orn_buffer.h"
#include "orn_dilkor_lun_utils_isa.h"
#include "orn_log.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace ORN_3_30 {

using internal::isKorAlignment;
using internal::korLimit;

namespace {

const SProgramDebugDataHeaderLUN& programHeaderOf(IBuffer& buffer) {
    return *reinterpret_cast<const SProgramDebugDataHeaderLUN*>(buffer.data());
}

bool hasProgramHeader(IBuffer* buffer) {
    return buffer && buffer->data() && buffer->size() >= sizeof(SProgramDebugDataHeaderLUN);
}

/// What is tested whatever the architecture is.
bool isProgramHeader(const SProgramDebugDataHeaderLUN& header, std::uint32_t firstVersion) {
    return header.Version >= firstVersion && header.Version < internal::korNoVersion &&
           isKorAlignment(header.Alignment) && header.LimitA <= korLimit && header.LimitB <= korLimit &&
           header.NumberOfKernels <= korLimit;
}

/// Whole words. Quirk: in 32 bits, so that a size of 0 has a field of 0 bytes, and the greatest sizes too.
std::uint32_t alignedNameSize(const SKernelDebugDataHeaderLUN& kernelHeader) {
    return ((kernelHeader.KernelNameSize - 1U) & ~3U) + 4U;
}

bool isOneStepWanted() {
    const char* value = std::getenv("ORN_ONE_STEP_DEBUG_INFO");
    return value && *value;
}

} // namespace

KorLunDebugInfoParser::KorLunDebugInfoParser(IBuffer* buffer, const char* path)
    : SymMgrObject<IKorDebugInfoParser>(nullptr), m_debugInfo(buffer), m_path(path ? path : "") {}

bool KorLunDebugInfoParser::validate(const SymMgrObjectPtr<IBuffer>& buffer, unsigned arch, bool) {
    if (arch < arch_gpu_either || arch > arch_gpu_lun_last || !hasProgramHeader(buffer))
        return false;
    return isProgramHeader(programHeaderOf(*buffer), arch == arch_gpu_either ? internal::korFirstLunVersion
                                                                             : internal::korFirstVersion);
}

std::size_t KorLunDebugInfoParser::minimumSize() {
    return sizeof(SProgramDebugDataHeaderLUN);
}

status_t KorLunDebugInfoParser::create(SymMgrObjectPtr<KorLunDebugInfoParser>& out,
                                       const SymMgrObjectPtr<IBuffer>& buffer, const char* path) {
    if (!hasProgramHeader(buffer) || !isProgramHeader(programHeaderOf(*buffer), internal::korFirstVersion))
        return status_BadFileFormat;
    SymMgrObjectPtr<KorLunDebugInfoParser> parser = new KorLunDebugInfoParser(buffer, path);
    const status_t status = parser->load();
    if (status == status_Ok)
        out = parser;
    return status;
}

// --- The index of the kernels

status_t KorLunDebugInfoParser::load() {
    m_kernels.clear();
    if (!m_debugInfo || !m_debugInfo->data())
        return status_Fail;
    Bytes ptr = m_debugInfo->data();
    if (!fits(ptr, sizeof(SProgramDebugDataHeaderLUN),
              "(uint64_t)(ptr - m_debugInfo->data()) + sizeof(SProgramDebugDataHeaderLUN) <= "
              "m_debugInfo->size()"))
        return status_BadFileFormat;
    const std::uint32_t kernels = programHeaderOf(*m_debugInfo).NumberOfKernels;
    ptr += sizeof(SProgramDebugDataHeaderLUN);
    for (std::uint32_t i = 0; i < kernels; ++i) {
        if (const status_t status = indexKernel(ptr); isFailure(status))
            return status;
    }
    return status_Ok;
}

/// Whether so many bytes from `ptr` on lie in the file; what is missing is logged as `expression`.
bool KorLunDebugInfoParser::fits(Bytes ptr, unsigned long long size, const char* expression) const {
    return ORN_ASSERT_TEXT(offsetOf(ptr) + size <= m_debugInfo->size(), expression);
}

bool KorLunDebugInfoParser::fitsKernelHeader(Bytes ptr) const {
    return fits(
        ptr, sizeof(SKernelDebugDataHeaderLUN),
        "(uint64_t)(ptr - m_debugInfo->data()) + sizeof(SKernelDebugDataHeaderLUN) <= m_debugInfo->size()");
}

/// Enters the kernel whose record is at `ptr`, and steps over the record.
status_t KorLunDebugInfoParser::indexKernel(Bytes& ptr) {
    if (!fitsKernelHeader(ptr))
        return status_BadFileFormat;
    const auto* kernelHeader = reinterpret_cast<const SKernelDebugDataHeaderLUN*>(ptr);
    ptr += sizeof(SKernelDebugDataHeaderLUN);
    const std::uint32_t kernelNameSizeAligned = alignedNameSize(*kernelHeader);
    if (!fits(ptr, kernelNameSizeAligned,
              "(uint64_t)(ptr - m_debugInfo->data()) + kernelNameSizeAligned <= m_debugInfo->size()"))
        return status_BadFileFormat;
    ptr += kernelNameSizeAligned;
    if (!fits(ptr, kernelHeader->SizeMiraDbgInBytes,
              "(uint64_t)(ptr - m_debugInfo->data()) + kernelHeader->SizeMiraDbgInBytes <= "
              "m_debugInfo->size()"))
        return status_BadFileFormat;
    ptr += kernelHeader->SizeMiraDbgInBytes;
    if (!fits(ptr, kernelHeader->SizeKorIsaDbgInBytes,
              "(uint64_t)(ptr - m_debugInfo->data()) + kernelHeader->SizeKorIsaDbgInBytes <= "
              "m_debugInfo->size()"))
        return status_BadFileFormat;
    ptr += kernelHeader->SizeKorIsaDbgInBytes;
    m_kernels[nameOf(*kernelHeader)] = kernelHeader; // of several of one name the last counts
    return status_Ok;
}

/// Quirk: by the stated size and not by that of the field, which is smaller for the greatest sizes.
std::string KorLunDebugInfoParser::nameOf(const SKernelDebugDataHeaderLUN& kernelHeader) const {
    const unsigned long long begin = offsetOf(&kernelHeader) + sizeof(kernelHeader);
    const unsigned long long length =
        std::min<unsigned long long>(kernelHeader.KernelNameSize, m_debugInfo->size() - begin);
    const char* name = reinterpret_cast<const char*>(m_debugInfo->data() + begin);
    return {name, ::strnlen(name, length)};
}

unsigned KorLunDebugInfoParser::getNumberOfKernels() {
    return static_cast<unsigned>(m_kernels.size());
}

status_t KorLunDebugInfoParser::getKernelNames(std::vector<std::string>& out) {
    out.clear();
    for (const auto& [name, kernelHeader] : m_kernels)
        out.push_back(name);
    return status_Ok;
}

const SKernelDebugDataHeaderLUN* KorLunDebugInfoParser::findKernel(const std::string& kernel) const {
    const auto found = m_kernels.find(kernel);
    return found != m_kernels.end() ? found->second : nullptr;
}

// --- The streams of a kernel

bool KorLunDebugInfoParser::streamOffsets(const SKernelDebugDataHeaderLUN* kernelHeader,
                                          unsigned long long& miraOffset,
                                          unsigned long long& korIsaOffset) const {
    if (!ORN_ASSERT(kernelHeader))
        return false;
    Bytes ptr = reinterpret_cast<Bytes>(kernelHeader);
    if (!ORN_ASSERT(ptr > m_debugInfo->data()) || !fitsKernelHeader(ptr))
        return false;
    miraOffset = offsetOf(kernelHeader) + sizeof(SKernelDebugDataHeaderLUN) + alignedNameSize(*kernelHeader);
    korIsaOffset = miraOffset + kernelHeader->SizeMiraDbgInBytes;
    return ORN_ASSERT(miraOffset + kernelHeader->SizeMiraDbgInBytes <= m_debugInfo->size());
}

const unsigned char* KorLunDebugInfoParser::miraStream(const SKernelDebugDataHeaderLUN* kernelHeader) const {
    unsigned long long miraOffset = 0;
    unsigned long long korIsaOffset = 0;
    if (!streamOffsets(kernelHeader, miraOffset, korIsaOffset))
        return nullptr;
    return m_debugInfo->data() + miraOffset;
}

const unsigned char*
KorLunDebugInfoParser::korIsaStream(const SKernelDebugDataHeaderLUN* kernelHeader) const {
    unsigned long long miraOffset = 0;
    unsigned long long korIsaOffset = 0;
    if (!streamOffsets(kernelHeader, miraOffset, korIsaOffset) ||
        !ORN_ASSERT(korIsaOffset + kernelHeader->SizeKorIsaDbgInBytes <= m_debugInfo->size()))
        return nullptr;
    return m_debugInfo->data() + korIsaOffset;
}

bool KorLunDebugInfoParser::findMiraImage(const std::string& kernel, unsigned long long& fileOffset) const {
    const SKernelDebugDataHeaderLUN* kernelHeader = findKernel(kernel);
    const Bytes stream = kernelHeader ? miraStream(kernelHeader) : nullptr;
    if (stream)
        fileOffset = offsetOf(stream);
    return stream != nullptr;
}

// --- Files and lines

status_t KorLunDebugInfoParser::getSourceFileNames(const std::string& kernel, std::vector<std::string>& out) {
    out.clear();
    const SKernelDebugDataHeaderLUN* kernelHeader = findKernel(kernel);
    if (!ORN_ASSERT(kernelHeader))
        return status_NotFound;
    return readMiraFiles(kernelHeader, out);
}

/// Where the compiler went straight to machine code there is one stream only, and its rows are the answer.
status_t KorLunDebugInfoParser::getLines(const std::string& kernel, LineEntries& out,
                                         IAddressMapping* mapping) {
    const SKernelDebugDataHeaderLUN* kernelHeader = findKernel(kernel);
    if (!ORN_ASSERT(kernelHeader))
        return status_NotFound;
    const SymMgrObjectPtr<IBuffer> isaDbgInfo = new ByteBuffer(kernelHeader->SizeKorIsaDbgInBytes);
    if (kernelHeader->SizeKorIsaDbgInBytes == 0 || isOneStepWanted()) {
        LineEntries& lineColumnInfo = out;
        const status_t status = readMiraLines(kernelHeader, lineColumnInfo);
        if (status != status_Ok)
            return status;
        return ORN_ASSERT_TEXT(!lineColumnInfo.empty(), "lineColumnInfo.size() > 0") ? status_Ok
                                                                                     : status_Fail;
    }
    InstructionMap isaLineInfo;
    status_t status = readInstructionMap(kernel, kernelHeader, isaDbgInfo, isaLineInfo);
    if (isFailure(status))
        return status;
    LineEntries miraLineInfo;
    status = readMiraLines(kernelHeader, miraLineInfo);
    if (status != status_Ok)
        return status;
    if (!ORN_ASSERT_TEXT(!miraLineInfo.empty(), "miraLineInfo.size() > 0"))
        return status_Fail;
    if (mapping) {
        for (const auto& [instruction, codeOffset] : isaLineInfo)
            mapping->addMapping(instruction, codeOffset);
    }
    return mergeLines(miraLineInfo, isaLineInfo, out);
}

/// `isaDbgInfo` is a buffer for the stream.
status_t KorLunDebugInfoParser::readInstructionMap(const std::string& kernel,
                                                   const SKernelDebugDataHeaderLUN* kernelHeader,
                                                   const SymMgrObjectPtr<IBuffer>& isaDbgInfo,
                                                   InstructionMap& out) const {
    if (!ORN_ASSERT(isaDbgInfo->size() == kernelHeader->SizeKorIsaDbgInBytes))
        return status_BadFileFormat;
    const Bytes stream = korIsaStream(kernelHeader);
    if (!stream)
        return status_BadFileFormat;
    std::memcpy(isaDbgInfo->data(), stream, isaDbgInfo->size());
    SymMgrObjectPtr<ILunDbgParser> parser;
    const status_t status = LunDbgParser::create(parser, isaDbgInfo);
    if (!ORN_ASSERT(status == status_Ok))
        return status;
    return parser->getInstructionMap(kernel, out);
}

// --- Joining rows and machine code

namespace {

/// Keeps one row for each instruction, the first. Rows ascend, or this fails.
bool keepFirstRows(const KorLunDebugInfoParser::LineEntries& rows, KorLunDebugInfoParser::LineEntries& kept) {
    for (const KorTavLineEntry& row : rows) {
        if (kept.empty() || row.address > kept.back().address) {
            kept.push_back(row);
            continue;
        }
        if (row.address < kept.back().address)
            return false;
        if (row.line != kept.back().line)
            ORN_LOG_WARNING("LUN DBG Line Info: MIRA instruction "
                            << row.address << " pointed to different source lines: " << kept.back().line
                            << ", " << row.line);
    }
    return true;
}

bool hasAscendingCode(const KorLunDebugInfoParser::InstructionMap& pairs) {
    for (std::size_t i = 1; i < pairs.size(); ++i) {
        if (pairs[i].second <= pairs[i - 1].second)
            return false;
    }
    return true;
}

/// The row that an instruction belongs to: the last one that does not begin behind it. One in front of all
/// rows belongs to the first, unless there is no other row.
const KorTavLineEntry* rowOf(const KorLunDebugInfoParser::LineEntries& rows, unsigned instruction) {
    const auto behind =
        std::upper_bound(rows.begin() + 1, rows.end(), instruction,
                         [](unsigned address, const KorTavLineEntry& row) { return address < row.address; });
    const KorTavLineEntry& row = *std::prev(behind);
    return behind != rows.end() || row.address <= instruction ? &row : nullptr;
}

} // namespace

status_t KorLunDebugInfoParser::mergeLines(const LineEntries& miraLineInfo, const InstructionMap& isaLineInfo,
                                           LineEntries& out) {
    const std::size_t isaLineInfoSize = isaLineInfo.size();
    if (!ORN_ASSERT(isaLineInfoSize > 0))
        return status_Fail;
    const std::size_t miraLineInfoSize = miraLineInfo.size();
    if (!ORN_ASSERT(miraLineInfoSize > 0))
        return status_Fail;
    LineEntries rows;
    if (!keepFirstRows(miraLineInfo, rows) || !hasAscendingCode(isaLineInfo))
        return status_Fail;
    const KorTavLineEntry* lastEmitted = nullptr;
    for (const auto& [instruction, codeOffset] : isaLineInfo) {
        const KorTavLineEntry* row = rowOf(rows, instruction);
        if (!row || row == lastEmitted)
            continue;
        out.push_back({codeOffset, row->line, row->column, row->fileIndex});
        lastEmitted = row;
    }
    return status_Ok;
}

} // namespace ORN_3_30
