// SectionWalker: what every parser of section contents reads through (relocations, debug information, maps).
// The only place where byte order and bounds of contents are handled. The short reads are in the header; here
// stands what is rare or long. Strings and blocks are left to the parsers, which know what has to last.

#include "orn_walker.h"

#include "orn_log.h"

namespace ORN_3_30 {

namespace {

constexpr unsigned valueBits = 64;
constexpr unsigned bitsOfLebByte = 7;
constexpr unsigned char lebContinues = 0x80;
constexpr unsigned char lebPayload = 0x7F;
constexpr unsigned char lebSign = 0x40;

/// Puts in the payload of one byte; what lies beyond the value's bits falls away.
void addLebByte(unsigned long long& value, unsigned& shift, unsigned char byte) {
    if (shift >= valueBits)
        return;
    value |= static_cast<unsigned long long>(byte & lebPayload) << shift;
    shift += bitsOfLebByte;
}

} // namespace

SectionWalker::SectionWalker(ISectionData* section) {
    const unsigned char* data = section ? section->getData() : nullptr;
    if (!data) {
        ORN_LOG_ERROR("NULL section data");
        return;
    }
    m_begin = data;
    m_size = section->getSize();
}

unsigned long long SectionWalker::readLongULEB() {
    unsigned long long value = 0;
    unsigned shift = 0;
    while (m_position < m_size) {
        const unsigned char byte = m_begin[m_position++];
        addLebByte(value, shift, byte);
        if (!(byte & lebContinues))
            break;
    }
    return value;
}

long long SectionWalker::readSLEB() {
    unsigned long long value = 0;
    unsigned shift = 0;
    unsigned char byte;
    do {
        byte = readU8();
        addLebByte(value, shift, byte);
    } while (byte & lebContinues);
    if (shift < valueBits && (byte & lebSign))
        value |= ~0ULL << shift;
    return static_cast<long long>(value);
}

unsigned long long SectionWalker::readAddress() {
    switch (m_addressSize) {
    case 4:
        return readU32();
    case 8:
        return readU64();
    default:
        ORN_ASSERT(false);
        return 0;
    }
}

void SectionWalker::setAddressSize(std::uint8_t size) {
    if (size == 0)
        ORN_LOG_WARNING("addrSize == 0 ");
    m_addressSize = size;
}

/// The bytes that are there, and zeros for the others.
std::uint64_t SectionWalker::readPastEnd(unsigned width) {
    std::uint64_t value = 0;
    if (const unsigned long long held = remaining())
        std::memcpy(&value, m_begin + m_position, held);
    skip(width);
    return value;
}

void WritableSectionWalker::writeAddress(unsigned long long value) {
    switch (addressSize()) {
    case 4:
        writeU32(static_cast<std::uint32_t>(value));
        break;
    case 8:
        writeU64(value);
        break;
    default:
        ORN_ASSERT(false);
    }
}

} // namespace ORN_3_30
