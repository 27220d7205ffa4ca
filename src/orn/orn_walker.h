// Bounded cursor over the bytes of a section. Little-endian alone is read; no byte is ever swapped.
#ifndef ORN_WALKER_H
#define ORN_WALKER_H

#include "orn/section_data.h"
#include "orn/status.h"

#include <cstdint>
#include <cstring>

namespace ORN_3_30 {

/// A view of bytes and a position in it: a value, copied freely, without virtual calls. The bytes belong to
/// someone else and have to outlive it.
///
/// The position is an offset and no pointer, since damaged data sends it anywhere: it goes past the end of
/// the view as far as it is told to, saturates at the largest number, and nothing outside the view is
/// touched. For the unchecked reads a view is followed by endless zero bytes.
class SectionWalker {
public:
    /// An empty view.
    SectionWalker() = default;
    /// The whole of a section. Data that cannot be had is logged, and the view is empty.
    explicit SectionWalker(ISectionData* section);
    /// `size` bytes from `begin`, standing at offset `position`.
    SectionWalker(const unsigned char* begin, unsigned long long size, unsigned long long position = 0)
        : m_begin(begin), m_size(begin ? size : 0), m_position(position) {}

    /// Bounded reads: `status_Ok` if the bytes are there, otherwise a failure with position and `value`
    /// untouched.
    template <typename T>
    status_t getUnsigned1(T& value) {
        return getUnsigned<std::uint8_t>(value);
    }
    template <typename T>
    status_t getUnsigned2(T& value) {
        return getUnsigned<std::uint16_t>(value);
    }
    template <typename T>
    status_t getUnsigned4(T& value) {
        return getUnsigned<std::uint32_t>(value);
    }
    template <typename T>
    status_t getUnsigned8(T& value) {
        return getUnsigned<std::uint64_t>(value);
    }

    /// Unchecked reads: bytes past the view are zeros, and the position moves by the full width.
    std::uint8_t readU8() { return readFixed<std::uint8_t>(); }
    std::uint16_t readU16() { return readFixed<std::uint16_t>(); }
    std::uint32_t readU32() { return readFixed<std::uint32_t>(); }
    std::uint64_t readU64() { return readFixed<std::uint64_t>(); }
    /// Stops at the end of the view with what it has. Bits beyond 64 are ignored.
    unsigned long long readULEB() {
        if (m_position < m_size && m_begin[m_position] < 0x80)
            return m_begin[m_position++];
        return readLongULEB();
    }
    /// Has no bound: past the view it reads a final zero byte. Bits beyond 64 are ignored.
    long long readSLEB();
    /// 4 or 8 bytes by the address size; any other size is logged and gives 0 without moving.
    unsigned long long readAddress();

    /// The size is stored whatever it is; 0 is logged.
    void setAddressSize(std::uint8_t size);
    std::uint8_t addressSize() const { return m_addressSize; }

    unsigned long long size() const { return m_size; }
    /// Bytes from the position to the end of the view; 0 past it.
    unsigned long long remaining() const { return m_position < m_size ? m_size - m_position : 0; }
    /// Distance of the position from the begin; may be past the view.
    unsigned long long offset() const { return m_position; }
    void seek(unsigned long long offset) { m_position = offset; }
    void skip(unsigned long long count) {
        m_position = count > ~0ULL - m_position ? ~0ULL : m_position + count;
    }

    const unsigned char* begin() const { return m_begin; }
    const unsigned char* end() const { return m_begin + m_size; }
    /// The next byte to read, or the end of the view.
    const unsigned char* cursor() const { return m_begin + (m_position < m_size ? m_position : m_size); }

protected:
    /// Whether all of `count` bytes from the position lie in the view.
    bool holds(unsigned long long count) const { return remaining() >= count; }

private:
    template <typename Width, typename T>
    status_t getUnsigned(T& value) {
        static_assert(sizeof(T) >= sizeof(Width), "a read widens, it never narrows");
        if (!holds(sizeof(Width)))
            return status_Fail;
        value = readHeld<Width>();
        return status_Ok;
    }
    template <typename Width>
    Width readFixed() {
        return holds(sizeof(Width)) ? readHeld<Width>() : static_cast<Width>(readPastEnd(sizeof(Width)));
    }
    template <typename Width>
    Width readHeld() {
        Width value;
        std::memcpy(&value, m_begin + m_position, sizeof(value));
        m_position += sizeof(value);
        return value;
    }
    std::uint64_t readPastEnd(unsigned width);
    unsigned long long readLongULEB();

    const unsigned char* m_begin = nullptr;
    unsigned long long m_size = 0;
    unsigned long long m_position = 0;
    std::uint8_t m_addressSize = 0;
};

/// A walker over bytes of one's own: whoever relocates a section holds a private copy of it.
class WritableSectionWalker : public SectionWalker {
public:
    WritableSectionWalker(unsigned char* begin, unsigned long long size, unsigned long long position = 0)
        : SectionWalker(begin, size, position), m_data(begin) {}

    /// Writes advance by the full width; a value that does not lie wholly in the view is dropped.
    void writeU32(std::uint32_t value) { write(value); }
    void writeU64(std::uint64_t value) { write(value); }
    /// 4 or 8 bytes by the address size; any other size is logged and writes nothing.
    void writeAddress(unsigned long long value);

private:
    template <typename Width>
    void write(Width value) {
        if (holds(sizeof(value)))
            std::memcpy(m_data + offset(), &value, sizeof(value));
        skip(sizeof(value));
    }

    unsigned char* m_data;
};

} // namespace ORN_3_30

#endif
