// A walker's position taken apart, for loops over many small values.
#ifndef ORN_DILDWARF_READER_H
#define ORN_DILDWARF_READER_H

#include "orn_log.h"
#include "orn_walker.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace ORN_3_30 {

/// Reads what SectionWalker's unchecked reads do, from plain pointers that a compiler keeps in registers: a
/// value that lies wholly in the view is one comparison and one load. The walker itself moves at finish().
class ViewReader {
public:
    explicit ViewReader(SectionWalker& walker) : m_walker(walker), m_end(walker.end()) { resume(); }

    void finish() { m_walker.seek(offset()); }

    unsigned long long offset() const {
        const unsigned long long inside = static_cast<unsigned long long>(m_cursor - m_walker.begin());
        return m_beyond > ~0ULL - inside ? ~0ULL : inside + m_beyond;
    }
    unsigned long long viewEnd() const { return m_walker.size(); }
    unsigned long long remaining() const { return static_cast<unsigned long long>(m_end - m_cursor); }
    const unsigned char* cursor() const { return m_cursor; }
    /// The walker, standing where this reader does. What is read through it is lost on the reader.
    const SectionWalker& walkerHere() {
        finish();
        return m_walker;
    }

    std::uint8_t readU8() { return read<std::uint8_t>(); }
    std::uint16_t readU16() { return read<std::uint16_t>(); }
    std::uint32_t readU32() { return read<std::uint32_t>(); }
    std::uint64_t readU64() { return read<std::uint64_t>(); }

    unsigned long long readULEB() {
        if (m_cursor != m_end && !(*m_cursor & 0x80))
            return *m_cursor++;
        if (remaining() >= 2 && !(m_cursor[1] & 0x80)) {
            const unsigned long long value = (m_cursor[0] & 0x7fULL) | (m_cursor[1] * 0x80ULL);
            m_cursor += 2;
            return value;
        }
        return throughWalker([](SectionWalker& walker) { return walker.readULEB(); });
    }
    /// The two's complement of a negative number.
    unsigned long long readSLEB() {
        if (m_cursor != m_end && !(*m_cursor & 0x80)) {
            const unsigned long long value = *m_cursor++;
            return value - ((value & 0x40) << 1);
        }
        return throughWalker(
            [](SectionWalker& walker) { return static_cast<unsigned long long>(walker.readSLEB()); });
    }
    unsigned long long readAddress() {
        const std::uint8_t size = m_walker.addressSize();
        if (size == 8)
            return readU64();
        if (size == 4)
            return readU32();
        ORN_ASSERT(false);
        return 0;
    }
    unsigned long long readOffset(bool is64Bit) { return is64Bit ? readU64() : readU32(); }

    void skip(unsigned long long count) {
        const unsigned long long inside = std::min(count, remaining());
        m_cursor += inside;
        const unsigned long long rest = count - inside;
        m_beyond = rest > ~0ULL - m_beyond ? ~0ULL : m_beyond + rest;
    }
    /// To `offset`, which lies in the view or is its end.
    void seekInside(unsigned long long offset) {
        m_cursor = m_walker.begin() + offset;
        m_beyond = 0;
    }
    void skipULEB() {
        const unsigned char* begin = m_cursor;
        while (m_cursor != m_end) {
            if (!(*m_cursor++ & 0x80))
                break;
        }
        noteLEB(static_cast<unsigned long long>(m_cursor - begin));
    }
    void skipSLEB() { readSLEB(); }
    /// To the end of the view, from where nothing can be decoded.
    void giveUp() { skip(remaining()); }

    /// Bytes of all numbers of variable length that were read but the short ones. Numbers are the only values
    /// that cost more the longer they are: damaged ones are as long as a section.
    unsigned long long longLEBBytes() const { return m_longLEBBytes; }

private:
    static constexpr unsigned long long shortLEB = 16;

    void noteLEB(unsigned long long length) {
        if (length > shortLEB)
            m_longLEBBytes += length;
    }
    template <typename Width>
    Width read() {
        if (remaining() >= sizeof(Width)) {
            Width value;
            std::memcpy(&value, m_cursor, sizeof(value));
            m_cursor += sizeof(value);
            return value;
        }
        Width value = 0;
        if (remaining() > 0)
            std::memcpy(&value, m_cursor, remaining());
        skip(sizeof(Width));
        return value;
    }
    template <typename Read>
    unsigned long long throughWalker(const Read& readValue) {
        finish();
        const unsigned long long begin = m_walker.offset();
        const unsigned long long value = readValue(m_walker);
        noteLEB(m_walker.offset() - begin);
        resume();
        return value;
    }
    void resume() {
        m_cursor = m_walker.cursor();
        m_beyond = m_walker.offset() > m_walker.size() ? m_walker.offset() - m_walker.size() : 0;
    }

    SectionWalker& m_walker;
    const unsigned char* m_cursor;
    const unsigned char* m_end;
    unsigned long long m_beyond; ///< how far the position is behind the end
    unsigned long long m_longLEBBytes = 0;
};

} // namespace ORN_3_30

#endif
