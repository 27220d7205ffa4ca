#pragma once

#include "byte_assembler.h"
#include "elf_assembler.h"

#include <concepts>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace orn_test {

/// One attribute of an abbreviation, by number.
struct DwarfSpec {
    uint64_t attribute;
    uint64_t form;
};

/// A value of an entry, written by the form that its abbreviation names.
class DwarfValue {
public:
    template <typename T>
    requires std::integral<T> || std::is_enum_v<T> DwarfValue(T number)
        : m_number(static_cast<uint64_t>(number)) {}
    /// For `DW_FORM_string` and `DW_FORM_strp`, where it goes into `.debug_str`.
    DwarfValue(const char* text) : m_text(text) {}
    /// For blocks and expressions.
    DwarfValue(std::vector<uint8_t> block) : m_block(std::move(block)) {}
    /// A reference to the entry of this label; relative to the unit or absolute, as the form wants it.
    static DwarfValue ref(std::string label);
    /// For `DW_FORM_indirect`: the form in front of the value.
    static DwarfValue indirect(uint64_t form, DwarfValue value);
    /// Bytes as they are, whatever the form.
    static DwarfValue raw(std::vector<uint8_t> bytes);

private:
    friend class DwarfAssembler;
    DwarfValue() = default;
    uint64_t m_number = 0;
    std::optional<std::string> m_text;
    std::optional<std::vector<uint8_t>> m_block;
    std::optional<std::string> m_label;
    std::optional<uint64_t> m_form;
    std::optional<std::vector<uint8_t>> m_raw;
};

struct DwarfUnitOptions {
    uint16_t version = 4;
    bool is64Bit = false;
    uint8_t addressSize = 8;
    uint64_t abbrevOffset = 0;
    std::optional<uint64_t> length; ///< in place of the true one
};

struct DwarfLineOptions {
    uint16_t version = 4;
    bool is64Bit = false;
    uint8_t minimumInstructionLength = 1;
    uint8_t defaultIsStmt = 1;
    int8_t lineBase = -5;
    uint8_t lineRange = 14;
    uint8_t opcodeBase = 13;
    uint8_t addressSize = 8; ///< of `setAddress`; no field of the header
    std::optional<uint64_t> length;
    std::optional<uint64_t> headerLength;
};

/// Builds the debug sections of a module for tests.
///
///     DwarfAssembler dwarf;
///     dwarf.abbreviation(1, DW_TAG_compile_unit, true, {{DW_AT_name, DW_FORM_string}});
///     dwarf.endAbbreviations();
///     dwarf.beginUnit();
///     dwarf.entry(1, {"a.c"});
///     dwarf.null();
///     dwarf.endUnit();
///
/// The sections are `ByteAssembler`s: what the operations here do not offer, and all damage, is written
/// there. Values are encoded by the abbreviations defined so far, the latest of a code.
class DwarfAssembler {
public:
    ByteAssembler& abbrev() { return m_abbrev; }
    ByteAssembler& info() { return m_info; }
    ByteAssembler& str() { return m_str; }
    ByteAssembler& line() { return m_line; }
    ByteAssembler& ranges() { return m_ranges; }
    const ByteAssembler& abbrev() const { return m_abbrev; }
    const ByteAssembler& info() const { return m_info; }
    const ByteAssembler& str() const { return m_str; }
    const ByteAssembler& line() const { return m_line; }
    const ByteAssembler& ranges() const { return m_ranges; }

    // .debug_abbrev
    DwarfAssembler& abbreviation(uint64_t code, uint64_t tag, bool hasChildren, std::vector<DwarfSpec> specs);
    DwarfAssembler& endAbbreviations();

    // .debug_info
    DwarfAssembler& beginUnit(const DwarfUnitOptions& options = {});
    /// `label`, if given, names the entry for references.
    DwarfAssembler& entry(uint64_t code, const std::vector<DwarfValue>& values = {},
                          const std::string& label = "");
    DwarfAssembler& null();
    DwarfAssembler& endUnit();
    /// Offset in `.debug_info` of unit number `index`, and of what follows its header.
    size_t unitCount() const { return m_units.size(); }
    uint64_t unitOffset(size_t index) const { return m_units.at(index).offset; }
    uint64_t firstEntryOffset(size_t index) const { return m_units.at(index).firstEntry; }
    /// Offset in `.debug_info` of an entry of `entry`.
    uint64_t offsetOf(const std::string& label) const { return m_info.offsetOf(label); }

    // .debug_str
    /// Offset of the text, which is there once.
    uint64_t string(std::string_view text);

    // .debug_line; an operation for each opcode.
    DwarfAssembler& beginLines(const DwarfLineOptions& options = {});
    DwarfAssembler& includeDirectory(std::string_view name);
    DwarfAssembler& endIncludeDirectories();
    DwarfAssembler& file(std::string_view name, uint64_t directory = 0, uint64_t time = 0,
                         uint64_t length = 0);
    /// Ends the file table, and with it the header.
    DwarfAssembler& endFiles();
    DwarfAssembler& special(unsigned instructions, int lines);
    DwarfAssembler& op(uint8_t opcode);
    DwarfAssembler& opULEB(uint8_t opcode, uint64_t operand);
    DwarfAssembler& opSLEB(uint8_t opcode, int64_t operand);
    DwarfAssembler& fixedAdvance(uint16_t operand);
    DwarfAssembler& extended(uint8_t opcode, const std::vector<uint8_t>& operands = {});
    DwarfAssembler& setAddress(uint64_t address);
    DwarfAssembler& defineFile(std::string_view name, uint64_t directory = 0, uint64_t time = 0,
                               uint64_t length = 0);
    DwarfAssembler& endSequence();
    DwarfAssembler& endLines();

    /// Adds every section that has bytes.
    void addTo(ElfAssembler& elf) const;

private:
    void writeValue(uint64_t form, const DwarfValue& value);
    void writeReference(uint64_t form, unsigned width, const DwarfValue& value);
    void writeBlock(const DwarfValue& value, unsigned lengthWidth);
    ByteAssembler::Label writeLength(ByteAssembler& out, bool is64Bit, std::optional<uint64_t> length);
    unsigned offsetSize() const { return m_unit.is64Bit ? 8 : 4; }

    ByteAssembler m_abbrev;
    ByteAssembler m_info;
    ByteAssembler m_str;
    ByteAssembler m_line;
    ByteAssembler m_ranges;
    std::map<uint64_t, std::vector<DwarfSpec>> m_specs;
    std::map<std::string, uint64_t, std::less<>> m_strings;
    struct Unit {
        uint64_t offset;
        uint64_t firstEntry;
    };
    std::vector<Unit> m_units;
    DwarfUnitOptions m_unit;
    std::optional<ByteAssembler::Label> m_unitBegin;
    std::optional<ByteAssembler::Label> m_unitEnd;
    DwarfLineOptions m_lines;
    std::optional<ByteAssembler::Label> m_linesEnd;
    std::optional<ByteAssembler::Label> m_lineHeaderEnd;
};

} // namespace orn_test
