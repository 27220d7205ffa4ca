#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orn_test {

enum class ByteOrder { kLittle, kBig };

/// Writes binary test data field by field.
///
/// Fields that depend on what comes later (lengths, offsets) name labels, which may be defined before or
/// after their use; `bytes` puts the values in. A label is either a `Label` from `newLabel`/`here`, or a
/// plain name, which exists from its first mention:
///
///     ByteAssembler unit;
///     auto end = unit.lengthPrefix(4);          // the length of all up to define(end)
///     unit.u16(4).absolute("abbrevs", 4).u8(8);
///     unit.define(end);
///     unit.define("abbrevs").uleb(1);
///
/// To damage a finished field, `overwrite` it: overwritten bytes win over everything else, whenever they are
/// asked for. Every misuse (an undefined or twice defined label, a value too wide for its field, a place
/// outside the data) throws `std::logic_error`.
class ByteAssembler {
public:
    class Label {
    public:
        friend bool operator==(Label, Label) = default;

    private:
        friend class ByteAssembler;
        explicit Label(size_t id) : m_id(id) {}
        size_t m_id;
    };

    /// Either kind of label, as the operations take it.
    class LabelRef {
    public:
        LabelRef(Label label) : m_label(label) {}
        LabelRef(const char* name) : m_name(name) {}
        LabelRef(std::string_view name) : m_name(name) {}
        LabelRef(const std::string& name) : m_name(name) {}

    private:
        friend class ByteAssembler;
        std::optional<Label> m_label;
        std::string m_name;
    };

    explicit ByteAssembler(ByteOrder order = ByteOrder::kLittle) : m_order(order) {}

    ByteOrder order() const { return m_order; }
    /// The number of bytes so far, which is the offset of the next field.
    size_t size() const { return m_bytes.size(); }

    // Plain fields.
    ByteAssembler& u8(uint8_t value) { return number(value, 1); }
    ByteAssembler& u16(uint16_t value) { return number(value, 2); }
    ByteAssembler& u32(uint32_t value) { return number(value, 4); }
    ByteAssembler& u64(uint64_t value) { return number(value, 8); }
    /// A number of `width` (1 to 8) bytes; negative numbers are passed sign-extended.
    ByteAssembler& number(uint64_t value, unsigned width);
    /// LEB128 in the shortest form, or drawn out to `length` bytes.
    ByteAssembler& uleb(uint64_t value, unsigned length = 0);
    ByteAssembler& sleb(int64_t value, unsigned length = 0);
    /// The characters and a NUL.
    ByteAssembler& str(std::string_view text);
    /// The characters alone.
    ByteAssembler& chars(std::string_view text);
    ByteAssembler& raw(std::span<const uint8_t> bytes);
    ByteAssembler& raw(std::initializer_list<uint8_t> bytes);
    ByteAssembler& fill(size_t count, uint8_t value = 0);
    ByteAssembler& align(size_t alignment, uint8_t value = 0);
    /// Fills up to the offset `offset`, which must not lie behind.
    ByteAssembler& padTo(size_t offset, uint8_t value = 0);

    // Labels.
    Label newLabel();
    /// The label of this name.
    Label label(std::string_view name);
    /// A new label, defined at the current offset.
    Label here();
    ByteAssembler& define(LabelRef label);
    bool isDefined(LabelRef label) const;
    /// The offset of a defined label.
    size_t offsetOf(LabelRef label) const;

    // Fields that are computed from labels.
    /// The offset of `label` plus `addend`.
    ByteAssembler& absolute(LabelRef label, unsigned width, int64_t addend = 0);
    /// The bytes from `begin` to `end`, plus `addend`.
    ByteAssembler& difference(LabelRef end, LabelRef begin, unsigned width, int64_t addend = 0);
    /// The same as ULEB128 of exactly `length` bytes.
    ByteAssembler& ulebDifference(LabelRef end, LabelRef begin, unsigned length, int64_t addend = 0);
    /// A field that holds the number of bytes between its own end and the returned label.
    [[nodiscard]] Label lengthPrefix(unsigned width);

    // Damage.
    ByteAssembler& overwriteAt(size_t offset, uint64_t value, unsigned width);
    ByteAssembler& overwriteAt(size_t offset, std::span<const uint8_t> bytes);
    /// The place is `delta` bytes behind the label.
    ByteAssembler& overwrite(LabelRef label, uint64_t value, unsigned width, int64_t delta = 0);
    ByteAssembler& overwrite(LabelRef label, std::span<const uint8_t> bytes, int64_t delta = 0);

    /// The data with every label and every overwriting put in.
    std::vector<uint8_t> bytes() const;
    /// The same, leaving the assembler empty, without labels.
    std::vector<uint8_t> take();

private:
    struct Fixup {
        size_t offset;
        unsigned width;
        bool isLeb;
        Label plus;
        std::optional<Label> minus;
        int64_t addend;
    };
    struct Overwrite {
        std::optional<Label> base;
        int64_t delta;
        std::vector<uint8_t> bytes;
    };
    struct LabelState {
        std::string name;
        std::optional<size_t> offset;
    };

    Label resolve(const LabelRef& ref);
    std::optional<Label> findLabel(const LabelRef& ref) const;
    size_t definedOffset(Label label) const;
    ByteAssembler& addFixup(Fixup fixup);
    void applyFixup(const Fixup& fixup, std::vector<uint8_t>& out) const;
    void applyOverwrite(const Overwrite& overwrite, std::vector<uint8_t>& out) const;
    std::vector<uint8_t> encoded(uint64_t value, unsigned width) const;

    ByteOrder m_order;
    std::vector<uint8_t> m_bytes;
    std::vector<LabelState> m_labels;
    std::map<std::string, Label, std::less<>> m_names;
    std::vector<Fixup> m_fixups;
    std::vector<Overwrite> m_overwrites;
};

} // namespace orn_test
