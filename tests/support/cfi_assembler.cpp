// Encodes call frame information as compilers lay it out, and as damaged files do.

#include "cfi_assembler.h"

#include <stdexcept>

namespace orn_test {

void CfiAssembler::beginEntry(bool is64Bit, std::optional<uint64_t> length) {
    if (is64Bit)
        m_bytes.u32(0xffffffff);
    const size_t place = m_bytes.size();
    const unsigned width = is64Bit ? 8 : 4;
    m_end = m_bytes.lengthPrefix(width);
    if (length)
        m_bytes.overwriteAt(place, *length, width);
}

size_t CfiAssembler::beginCie(const CieOptions& options) {
    const size_t begin = m_bytes.size();
    beginEntry(options.is64Bit, options.length);
    m_bytes.u32(0).u8(options.version).str(options.augmentation);
    m_bytes.uleb(options.codeAlignment).sleb(options.dataAlignment).uleb(options.returnRegister);
    if (options.augmentation.starts_with('z'))
        m_bytes.uleb(options.augmentationData.size()).raw(options.augmentationData);
    return begin;
}

size_t CfiAssembler::beginFde(size_t cie, uint64_t begin, uint64_t size, const FdeOptions& options) {
    const size_t offset = m_bytes.size();
    beginEntry(options.is64Bit, options.length);
    m_bytes.u32(options.id.value_or(static_cast<uint32_t>(m_bytes.size() - cie)));
    if (options.encoding) {
        constexpr uint8_t applicationMask = 0x70;
        constexpr uint8_t relativeToPlace = 0x10;
        const bool isRelative = (*options.encoding & applicationMask) == relativeToPlace;
        pointer(*options.encoding, begin - (isRelative ? m_sectionAddress + m_bytes.size() : 0));
        pointer(*options.encoding, size);
    } else {
        m_bytes.number(begin, m_addressSize).number(size, m_addressSize);
    }
    if (options.augmentationData)
        m_bytes.uleb(options.augmentationData->size()).raw(*options.augmentationData);
    return offset;
}

void CfiAssembler::pointer(uint8_t encoding, uint64_t value) {
    const auto number = [&](unsigned width) {
        m_bytes.number(width == 8 ? value : value & ((1ULL << (8 * width)) - 1), width);
    };
    switch (encoding & 0x0f) {
    case 0:
        return number(m_addressSize);
    case 1:
        m_bytes.uleb(value);
        return;
    case 2:
    case 10:
        return number(2);
    case 3:
    case 11:
        return number(4);
    case 4:
    case 12:
        return number(8);
    case 9:
        m_bytes.sleb(static_cast<int64_t>(value));
        return;
    default:
        throw std::logic_error("no encoding of a pointer");
    }
}

CfiAssembler& CfiAssembler::end() {
    m_bytes.align(m_addressSize);
    m_bytes.define(m_end.value());
    m_end.reset();
    return *this;
}

CfiAssembler& CfiAssembler::terminator() {
    m_bytes.u32(0);
    return *this;
}

CfiAssembler& CfiAssembler::op(uint8_t opcode, const std::vector<uint64_t>& operands) {
    m_bytes.u8(opcode);
    for (const uint64_t operand : operands)
        m_bytes.uleb(operand);
    return *this;
}

CfiAssembler& CfiAssembler::raw(const std::vector<uint8_t>& instructions) {
    m_bytes.raw(instructions);
    return *this;
}

} // namespace orn_test
