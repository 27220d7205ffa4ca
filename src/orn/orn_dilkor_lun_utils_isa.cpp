// The private stream of the newer GPU compiler, kor ISA: made and dropped within one question for a kernel's
// lines. Every read is tested against the end of the stream; a test that fails ends the reading, and what it
// wanted is logged.

#include "orn_dilkor_lun_utils_isa.h"

#include "orn_log.h"

#include <cstring>

namespace ORN_3_30 {

namespace {

constexpr std::uint32_t streamMagic = 0xDEADD010;
// Sizes of records that are passed over, and of the pairs of instruction maps.
constexpr unsigned CoraMapSize = 8;
constexpr unsigned LiveIntervalMIRASize = 10;
constexpr unsigned LiveIntervalKorISASize = 14;
constexpr unsigned RegInfoMappingSize = 9;
constexpr unsigned frameSlots = 3;

template <typename Number>
constexpr const char* fitsText() {
    if constexpr (sizeof(Number) == sizeof(std::uint32_t))
        return "ptr - m_debugInfo->data() + sizeof(uint32_t) <= m_debugInfo->size()";
    else if constexpr (sizeof(Number) == sizeof(std::uint16_t))
        return "ptr - m_debugInfo->data() + sizeof(uint16_t) <= m_debugInfo->size()";
    else
        return "ptr - m_debugInfo->data() + sizeof(uint8_t) <= m_debugInfo->size()";
}

/// Little-endian, as everything in the stream.
template <typename Number>
Number numberAt(const unsigned char* bytes) {
    Number value = 0;
    for (unsigned i = 0; i < sizeof(value); ++i)
        value = static_cast<Number>(value | (static_cast<std::uint64_t>(bytes[i]) << (8 * i)));
    return value;
}

} // namespace

LunDbgParser::LunDbgParser(IBuffer* buffer) : SymMgrObject<ILunDbgParser>(nullptr), m_debugInfo(buffer) {}

status_t LunDbgParser::create(SymMgrObjectPtr<ILunDbgParser>& out, const SymMgrObjectPtr<IBuffer>& buffer) {
    if (!buffer || !buffer->data() || buffer->size() < sizeof(streamMagic) ||
        numberAt<std::uint32_t>(buffer->data()) != streamMagic)
        return status_BadFileFormat;
    const SymMgrObjectPtr<LunDbgParser> parser = new LunDbgParser(buffer);
    const status_t status = parser->load();
    if (status == status_Ok)
        out = parser.get();
    return status;
}

status_t LunDbgParser::getKernelNames(std::vector<std::string>& out) {
    out.clear();
    for (const auto& [name, offset] : m_kernels)
        out.push_back(name);
    return status_Ok;
}

status_t LunDbgParser::getInstructionMap(const std::string& kernel,
                                         std::vector<std::pair<unsigned, unsigned>>& out) {
    if (!ORN_ASSERT_TEXT(!m_kernels.empty(), "m_kernels.size() > 0"))
        return status_Fail;
    out.clear();
    const auto found = m_kernels.find(kernel);
    if (found == m_kernels.end())
        return status_NotFound;
    Cursor ptr = m_debugInfo->data() + found->second;
    std::uint32_t count = 0;
    if (!read(ptr, count))
        return status_BadFileFormat;
    out.emplace_back(0, 0);
    for (std::uint32_t i = 0; i < count; ++i) {
        std::uint32_t instruction = 0;
        std::uint32_t codeOffset = 0;
        if (!read(ptr, instruction) || !read(ptr, codeOffset))
            return status_BadFileFormat;
        // Quirk: 0 means no code here, though code begins there too; the leading pair stands for that one.
        if (codeOffset != 0)
            out.emplace_back(instruction, codeOffset);
    }
    return status_Ok;
}

// --- The cursor

bool LunDbgParser::skip(Cursor& ptr, unsigned long long size, const char* expression) const {
    if (!ORN_ASSERT_TEXT(fits(ptr, size), expression))
        return false;
    ptr += size;
    return true;
}

template <typename Number>
bool LunDbgParser::read(Cursor& ptr, Number& out) const {
    const Cursor place = ptr;
    if (!skip(ptr, sizeof(Number), fitsText<Number>()))
        return false;
    out = numberAt<Number>(place);
    return true;
}

template <typename Number>
bool LunDbgParser::skipNumber(Cursor& ptr) const {
    return skip(ptr, sizeof(Number), fitsText<Number>());
}

// --- The records

status_t LunDbgParser::load() {
    Cursor ptr = m_debugInfo->data();
    std::uint16_t numCompiledObjects = 0;
    if (!skipNumber<std::uint32_t>(ptr) || !read(ptr, numCompiledObjects))
        return status_BadFileFormat;
    for (std::uint16_t i = 0; i < numCompiledObjects; ++i) {
        if (!readObject(ptr))
            return status_BadFileFormat;
    }
    return status_Ok;
}

/// One kernel, or a function that kernels call: that one is read over and leaves no trace.
bool LunDbgParser::readObject(Cursor& ptr) {
    std::string kernel;
    std::uint32_t relocOffset = 0;
    if (!readKernelName(ptr, kernel) || !read(ptr, relocOffset) || !skipInstructions(ptr))
        return false;
    if (relocOffset == 0) {
        ORN_ASSERT(m_kernels.count(kernel) == 0);
        m_kernels[kernel] = static_cast<std::size_t>(ptr - m_debugInfo->data());
    }
    return skipInstructions(ptr) && skipVariables(ptr) && skipSubRoutines(ptr) &&
           skipNumber<std::uint16_t>(ptr) && skipFrameSlots(ptr) && skipRegisters(ptr) && skipRegisters(ptr);
}

bool LunDbgParser::readKernelName(Cursor& ptr, std::string& kernel) const {
    std::uint8_t kernelNameLen = 0;
    if (!read(ptr, kernelNameLen))
        return false;
    const char* name = reinterpret_cast<const char*>(ptr);
    if (!skip(ptr, kernelNameLen, "ptr - m_debugInfo->data() + (size_t)kernelNameLen <= m_debugInfo->size()"))
        return false;
    kernel.assign(name, ::strnlen(name, kernelNameLen));
    return true;
}

bool LunDbgParser::skipInstructions(Cursor& ptr) const {
    std::uint32_t numElements = 0;
    return read(ptr, numElements) &&
           skip(ptr, static_cast<unsigned long long>(numElements) * CoraMapSize,
                "ptr - m_debugInfo->data() + (size_t)numElements*CoraMapSize <= m_debugInfo->size()");
}

bool LunDbgParser::skipVariables(Cursor& ptr) const {
    std::uint32_t numVars = 0;
    if (!read(ptr, numVars))
        return false;
    for (std::uint32_t i = 0; i < numVars; ++i) {
        if (!skipName(ptr) || !skipMiraIntervals(ptr))
            return false;
    }
    return true;
}

bool LunDbgParser::skipSubRoutines(Cursor& ptr) const {
    std::uint16_t numSubs = 0;
    if (!read(ptr, numSubs))
        return false;
    for (std::uint16_t i = 0; i < numSubs; ++i) {
        if (!skipName(ptr) || !skipNumber<std::uint32_t>(ptr) || !skipNumber<std::uint32_t>(ptr) ||
            !skipMiraIntervals(ptr))
            return false;
    }
    return true;
}

bool LunDbgParser::skipFrameSlots(Cursor& ptr) const {
    for (unsigned i = 0; i < frameSlots; ++i) {
        std::uint8_t flag = 0;
        if (!read(ptr, flag) || (flag != 0 && !skipKorIsaIntervals(ptr)))
            return false;
    }
    return true;
}

bool LunDbgParser::skipName(Cursor& ptr) const {
    std::uint8_t varNameLen = 0;
    return ORN_ASSERT(ptr) && read(ptr, varNameLen) &&
           skip(ptr, varNameLen, "ptr - m_debugInfo->data() + (size_t)varNameLen <= m_debugInfo->size()");
}

bool LunDbgParser::skipMiraIntervals(Cursor& ptr) const {
    std::uint16_t numIntervals = 0;
    return ORN_ASSERT(ptr) && read(ptr, numIntervals) &&
           skip(ptr, static_cast<unsigned long long>(numIntervals) * LiveIntervalMIRASize,
                "ptr - m_debugInfo->data() + (size_t)numIntervals*LiveIntervalMIRASize <= "
                "m_debugInfo->size()");
}

bool LunDbgParser::skipKorIsaIntervals(Cursor& ptr) const {
    std::uint16_t numIntervals = 0;
    return ORN_ASSERT(ptr) && read(ptr, numIntervals) &&
           skip(ptr, static_cast<unsigned long long>(numIntervals) * LiveIntervalKorISASize,
                "ptr - m_debugInfo->data() + (size_t)numIntervals*LiveIntervalKorISASize <= "
                "m_debugInfo->size()");
}

/// One of the two lists of register records.
bool LunDbgParser::skipRegisters(Cursor& ptr) const {
    std::uint16_t records = 0;
    if (!ORN_ASSERT(ptr) || !read(ptr, records))
        return false;
    for (std::uint16_t i = 0; i < records; ++i) {
        std::uint16_t numEntries = 0;
        if (!skipNumber<std::uint32_t>(ptr) || !read(ptr, numEntries) ||
            !skip(ptr, static_cast<unsigned long long>(numEntries) * RegInfoMappingSize,
                  "ptr - m_debugInfo->data() + (size_t)numEntries*RegInfoMappingSize <= m_debugInfo->size()"))
            return false;
    }
    return true;
}

} // namespace ORN_3_30
