// The assembler of binary test data: fields, labels and deliberate damage. It knows nothing of any file
// format; the assemblers of formats are built on it. It is strict on purpose: a test that asks for something
// impossible must hear of it here, and not find out as a puzzling result of the code under test.

#include "support/byte_assembler.h"

#include <algorithm>
#include <stdexcept>

namespace orn_test {

namespace {

constexpr unsigned kBitsPerByte = 8;
constexpr unsigned kLebBits = 7;
constexpr uint8_t kLebMask = 0x7F;
constexpr uint8_t kLebMore = 0x80;
constexpr unsigned kLongestLeb = 32;

void requireWidth(unsigned width) {
    if (width == 0 || width > sizeof(uint64_t)) {
        throw std::logic_error("ByteAssembler: impossible field width " + std::to_string(width));
    }
}

// A field takes unsigned numbers of its width, and negative ones that are sign-extended to 64 bits.
void requireFit(uint64_t value, unsigned width) {
    if (width == sizeof(uint64_t)) {
        return;
    }
    const unsigned bits = width * kBitsPerByte;
    const bool fitsUnsigned = value >> bits == 0;
    const bool fitsSigned = value >> (bits - 1) == ~uint64_t{0} >> (bits - 1);
    if (!fitsUnsigned && !fitsSigned) {
        throw std::logic_error("ByteAssembler: the value " + std::to_string(value) + " does not fit " +
                               std::to_string(width) + " bytes");
    }
}

std::vector<uint8_t> encodeUleb(uint64_t value, unsigned length) {
    std::vector<uint8_t> out;
    do {
        out.push_back(static_cast<uint8_t>((value & kLebMask) | kLebMore));
        value >>= kLebBits;
    } while (value != 0 || out.size() < length);
    out.back() &= kLebMask;
    return out;
}

std::vector<uint8_t> encodeSleb(int64_t value, unsigned length) {
    std::vector<uint8_t> out;
    bool isLast = false;
    while (!isLast) {
        const auto low = static_cast<uint8_t>(value & kLebMask);
        value >>= kLebBits;
        const bool signBit = (low & 0x40) != 0;
        const bool isComplete = (value == 0 && !signBit) || (value == -1 && signBit);
        isLast = isComplete && out.size() + 1 >= length;
        out.push_back(isLast ? low : static_cast<uint8_t>(low | kLebMore));
    }
    return out;
}

void requireLebLength(const std::vector<uint8_t>& leb, unsigned length) {
    if (length > kLongestLeb) {
        throw std::logic_error("ByteAssembler: an LEB128 of " + std::to_string(length) +
                               " bytes is too long");
    }
    if (length != 0 && leb.size() != length) {
        throw std::logic_error("ByteAssembler: an LEB128 value does not fit " + std::to_string(length) +
                               " bytes");
    }
}

void writeOver(std::vector<uint8_t>& out, uint64_t offset, const std::vector<uint8_t>& bytes) {
    if (offset > out.size() || bytes.size() > out.size() - offset) {
        throw std::logic_error("ByteAssembler: overwriting at offset " + std::to_string(offset) +
                               " goes beyond the " + std::to_string(out.size()) + " bytes written");
    }
    std::copy(bytes.begin(), bytes.end(), out.begin() + static_cast<std::ptrdiff_t>(offset));
}

} // namespace

ByteAssembler& ByteAssembler::number(uint64_t value, unsigned width) {
    return raw(encoded(value, width));
}

ByteAssembler& ByteAssembler::uleb(uint64_t value, unsigned length) {
    const auto leb = encodeUleb(value, std::min(length, kLongestLeb));
    requireLebLength(leb, length);
    return raw(leb);
}

ByteAssembler& ByteAssembler::sleb(int64_t value, unsigned length) {
    const auto leb = encodeSleb(value, std::min(length, kLongestLeb));
    requireLebLength(leb, length);
    return raw(leb);
}

ByteAssembler& ByteAssembler::str(std::string_view text) {
    return chars(text).u8(0);
}

ByteAssembler& ByteAssembler::chars(std::string_view text) {
    m_bytes.insert(m_bytes.end(), text.begin(), text.end());
    return *this;
}

ByteAssembler& ByteAssembler::raw(std::span<const uint8_t> bytes) {
    m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
    return *this;
}

ByteAssembler& ByteAssembler::raw(std::initializer_list<uint8_t> bytes) {
    m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
    return *this;
}

ByteAssembler& ByteAssembler::fill(size_t count, uint8_t value) {
    m_bytes.insert(m_bytes.end(), count, value);
    return *this;
}

ByteAssembler& ByteAssembler::align(size_t alignment, uint8_t value) {
    const size_t excess = alignment == 0 ? 0 : m_bytes.size() % alignment;
    return excess == 0 ? *this : fill(alignment - excess, value);
}

ByteAssembler& ByteAssembler::padTo(size_t offset, uint8_t value) {
    if (offset < m_bytes.size()) {
        throw std::logic_error("ByteAssembler: padTo " + std::to_string(offset) + " lies behind " +
                               std::to_string(m_bytes.size()));
    }
    return fill(offset - m_bytes.size(), value);
}

ByteAssembler::Label ByteAssembler::newLabel() {
    m_labels.emplace_back();
    return Label(m_labels.size() - 1);
}

ByteAssembler::Label ByteAssembler::label(std::string_view name) {
    const auto found = m_names.find(name);
    if (found != m_names.end()) {
        return found->second;
    }
    const Label label = newLabel();
    m_labels.back().name = name;
    m_names.emplace(name, label);
    return label;
}

ByteAssembler::Label ByteAssembler::here() {
    const Label label = newLabel();
    define(label);
    return label;
}

ByteAssembler& ByteAssembler::define(LabelRef label) {
    LabelState& state = m_labels.at(resolve(label).m_id);
    if (state.offset) {
        throw std::logic_error("ByteAssembler: the label '" + state.name + "' is defined twice");
    }
    state.offset = m_bytes.size();
    return *this;
}

bool ByteAssembler::isDefined(LabelRef label) const {
    const auto found = findLabel(label);
    return found && m_labels.at(found->m_id).offset.has_value();
}

size_t ByteAssembler::offsetOf(LabelRef label) const {
    const auto found = findLabel(label);
    if (!found) {
        throw std::logic_error("ByteAssembler: there is no label '" + label.m_name + "'");
    }
    return definedOffset(*found);
}

ByteAssembler& ByteAssembler::absolute(LabelRef label, unsigned width, int64_t addend) {
    return addFixup({size(), width, false, resolve(label), std::nullopt, addend});
}

ByteAssembler& ByteAssembler::difference(LabelRef end, LabelRef begin, unsigned width, int64_t addend) {
    return addFixup({size(), width, false, resolve(end), resolve(begin), addend});
}

ByteAssembler& ByteAssembler::ulebDifference(LabelRef end, LabelRef begin, unsigned length, int64_t addend) {
    return addFixup({size(), length, true, resolve(end), resolve(begin), addend});
}

ByteAssembler::Label ByteAssembler::lengthPrefix(unsigned width) {
    const Label begin = newLabel();
    const Label end = newLabel();
    difference(end, begin, width);
    define(begin);
    return end;
}

ByteAssembler& ByteAssembler::overwriteAt(size_t offset, uint64_t value, unsigned width) {
    m_overwrites.push_back({std::nullopt, static_cast<int64_t>(offset), encoded(value, width)});
    return *this;
}

ByteAssembler& ByteAssembler::overwriteAt(size_t offset, std::span<const uint8_t> bytes) {
    m_overwrites.push_back({std::nullopt, static_cast<int64_t>(offset), {bytes.begin(), bytes.end()}});
    return *this;
}

ByteAssembler& ByteAssembler::overwrite(LabelRef label, uint64_t value, unsigned width, int64_t delta) {
    m_overwrites.push_back({resolve(label), delta, encoded(value, width)});
    return *this;
}

ByteAssembler& ByteAssembler::overwrite(LabelRef label, std::span<const uint8_t> bytes, int64_t delta) {
    m_overwrites.push_back({resolve(label), delta, {bytes.begin(), bytes.end()}});
    return *this;
}

std::vector<uint8_t> ByteAssembler::bytes() const {
    std::vector<uint8_t> out = m_bytes;
    for (const Fixup& fixup : m_fixups) {
        applyFixup(fixup, out);
    }
    for (const Overwrite& overwrite : m_overwrites) {
        applyOverwrite(overwrite, out);
    }
    return out;
}

std::vector<uint8_t> ByteAssembler::take() {
    std::vector<uint8_t> out = bytes();
    *this = ByteAssembler(m_order);
    return out;
}

ByteAssembler::Label ByteAssembler::resolve(const LabelRef& ref) {
    return ref.m_label ? *ref.m_label : label(ref.m_name);
}

std::optional<ByteAssembler::Label> ByteAssembler::findLabel(const LabelRef& ref) const {
    if (ref.m_label) {
        return ref.m_label;
    }
    const auto found = m_names.find(ref.m_name);
    return found == m_names.end() ? std::nullopt : std::optional<Label>(found->second);
}

size_t ByteAssembler::definedOffset(Label label) const {
    const LabelState& state = m_labels.at(label.m_id);
    if (!state.offset) {
        throw std::logic_error("ByteAssembler: the label '" + state.name + "' (number " +
                               std::to_string(label.m_id) + ") is never defined");
    }
    return *state.offset;
}

ByteAssembler& ByteAssembler::addFixup(Fixup fixup) {
    if (!fixup.isLeb) {
        requireWidth(fixup.width);
    } else if (fixup.width == 0 || fixup.width > kLongestLeb) {
        throw std::logic_error("ByteAssembler: a computed LEB128 needs a length of 1 to " +
                               std::to_string(kLongestLeb));
    }
    m_fixups.push_back(fixup);
    return fill(fixup.width);
}

void ByteAssembler::applyFixup(const Fixup& fixup, std::vector<uint8_t>& out) const {
    uint64_t value = definedOffset(fixup.plus) + static_cast<uint64_t>(fixup.addend);
    if (fixup.minus) {
        value -= definedOffset(*fixup.minus);
    }
    if (!fixup.isLeb) {
        writeOver(out, fixup.offset, encoded(value, fixup.width));
        return;
    }
    const auto leb = encodeUleb(value, fixup.width);
    requireLebLength(leb, fixup.width);
    writeOver(out, fixup.offset, leb);
}

void ByteAssembler::applyOverwrite(const Overwrite& overwrite, std::vector<uint8_t>& out) const {
    const size_t base = overwrite.base ? definedOffset(*overwrite.base) : 0;
    // A negative result wraps to a huge offset, which writeOver refuses.
    writeOver(out, base + static_cast<uint64_t>(overwrite.delta), overwrite.bytes);
}

std::vector<uint8_t> ByteAssembler::encoded(uint64_t value, unsigned width) const {
    requireWidth(width);
    requireFit(value, width);
    std::vector<uint8_t> out;
    for (unsigned i = 0; i < width; ++i) {
        out.push_back(static_cast<uint8_t>(value >> (i * kBitsPerByte)));
    }
    if (m_order == ByteOrder::kBig) {
        std::reverse(out.begin(), out.end());
    }
    return out;
}

} // namespace orn_test
