// Writes the debug sections of versions 2 to 4 field by field. Knows the encoding of every form, and nothing
// of what the library makes of it: the numbers come from the published format.

#include "dwarf_assembler.h"

#include <algorithm>
#include <stdexcept>

namespace orn_test {

namespace {

enum Form : uint64_t {
    kAddr = 0x01,
    kBlock2 = 0x03,
    kBlock4 = 0x04,
    kData2 = 0x05,
    kData4 = 0x06,
    kData8 = 0x07,
    kString = 0x08,
    kBlock = 0x09,
    kBlock1 = 0x0a,
    kData1 = 0x0b,
    kFlag = 0x0c,
    kSdata = 0x0d,
    kStrp = 0x0e,
    kUdata = 0x0f,
    kRefAddr = 0x10,
    kRef1 = 0x11,
    kRef2 = 0x12,
    kRef4 = 0x13,
    kRef8 = 0x14,
    kRefUdata = 0x15,
    kIndirect = 0x16,
    kSecOffset = 0x17,
    kExprloc = 0x18,
    kFlagPresent = 0x19,
    kRefSig8 = 0x20,
    kGnuAddrIndex = 0x1f01,
    kGnuStrIndex = 0x1f02,
    kGnuRefAlt = 0x1f20,
    kGnuStrpAlt = 0x1f21,
};

/// A label inside a unit needs its width before its value is known.
constexpr unsigned kLabelUlebLength = 4;

uint64_t maskTo(uint64_t value, unsigned width) {
    return width == 8 ? value : value & ((1ULL << (8 * width)) - 1);
}

} // namespace

DwarfValue DwarfValue::ref(std::string label) {
    DwarfValue value;
    value.m_label = std::move(label);
    return value;
}

DwarfValue DwarfValue::indirect(uint64_t form, DwarfValue value) {
    value.m_form = form;
    return value;
}

DwarfValue DwarfValue::raw(std::vector<uint8_t> bytes) {
    DwarfValue value;
    value.m_raw = std::move(bytes);
    return value;
}

DwarfAssembler& DwarfAssembler::abbreviation(uint64_t code, uint64_t tag, bool hasChildren,
                                             std::vector<DwarfSpec> specs) {
    m_abbrev.uleb(code).uleb(tag).u8(hasChildren ? 1 : 0);
    for (const DwarfSpec& spec : specs)
        m_abbrev.uleb(spec.attribute).uleb(spec.form);
    m_abbrev.uleb(0).uleb(0);
    m_specs[code] = std::move(specs);
    return *this;
}

DwarfAssembler& DwarfAssembler::endAbbreviations() {
    m_abbrev.uleb(0);
    return *this;
}

ByteAssembler::Label DwarfAssembler::writeLength(ByteAssembler& out, bool is64Bit,
                                                 std::optional<uint64_t> length) {
    if (is64Bit)
        out.u32(0xffffffff);
    const size_t place = out.size();
    const unsigned width = is64Bit ? 8 : 4;
    const ByteAssembler::Label end = out.lengthPrefix(width);
    if (length)
        out.overwriteAt(place, *length, width);
    return end;
}

DwarfAssembler& DwarfAssembler::beginUnit(const DwarfUnitOptions& options) {
    m_unit = options;
    m_units.push_back({m_info.size(), 0});
    m_unitBegin = m_info.here();
    m_unitEnd = writeLength(m_info, options.is64Bit, options.length);
    m_info.u16(options.version).number(options.abbrevOffset, offsetSize()).u8(options.addressSize);
    m_units.back().firstEntry = m_info.size();
    return *this;
}

DwarfAssembler& DwarfAssembler::entry(uint64_t code, const std::vector<DwarfValue>& values,
                                      const std::string& label) {
    if (!label.empty())
        m_info.define(label);
    m_info.uleb(code);
    const std::vector<DwarfSpec>& specs = m_specs.at(code);
    if (specs.size() != values.size())
        throw std::logic_error("an entry has one value for each attribute");
    for (size_t i = 0; i < specs.size(); ++i)
        writeValue(specs[i].form, values[i]);
    return *this;
}

DwarfAssembler& DwarfAssembler::null() {
    m_info.uleb(0);
    return *this;
}

DwarfAssembler& DwarfAssembler::endUnit() {
    m_info.define(m_unitEnd.value());
    return *this;
}

uint64_t DwarfAssembler::string(std::string_view text) {
    const auto found = m_strings.find(text);
    if (found != m_strings.end())
        return found->second;
    const uint64_t offset = m_str.size();
    m_str.str(text);
    m_strings.emplace(text, offset);
    return offset;
}

void DwarfAssembler::writeValue(uint64_t form, const DwarfValue& value) {
    if (value.m_raw) {
        m_info.raw(*value.m_raw);
        return;
    }
    const auto number = [&](unsigned width) { m_info.number(maskTo(value.m_number, width), width); };
    switch (form) {
    case kAddr:
        return number(m_unit.addressSize);
    case kData1:
    case kFlag:
        return number(1);
    case kData2:
        return number(2);
    case kData4:
        return number(4);
    case kData8:
    case kRefSig8:
        return number(8);
    case kSdata:
        m_info.sleb(static_cast<int64_t>(value.m_number));
        return;
    case kUdata:
    case kGnuAddrIndex:
    case kGnuStrIndex:
        m_info.uleb(value.m_number);
        return;
    case kString:
        m_info.str(value.m_text.value());
        return;
    case kStrp:
        m_info.number(value.m_text ? string(*value.m_text) : value.m_number, offsetSize());
        return;
    case kSecOffset:
    case kGnuRefAlt:
    case kGnuStrpAlt:
        return number(offsetSize());
    case kFlagPresent:
        return;
    case kBlock1:
        return writeBlock(value, 1);
    case kBlock2:
        return writeBlock(value, 2);
    case kBlock4:
        return writeBlock(value, 4);
    case kBlock:
    case kExprloc:
        return writeBlock(value, 0);
    case kRefAddr:
        return writeReference(form, m_unit.version < 3 ? m_unit.addressSize : offsetSize(), value);
    case kRef1:
        return writeReference(form, 1, value);
    case kRef2:
        return writeReference(form, 2, value);
    case kRef4:
        return writeReference(form, 4, value);
    case kRef8:
        return writeReference(form, 8, value);
    case kRefUdata:
        return writeReference(form, 0, value);
    case kIndirect: {
        DwarfValue direct = value;
        const uint64_t ownForm = direct.m_form.value();
        direct.m_form.reset();
        m_info.uleb(ownForm);
        return writeValue(ownForm, direct);
    }
    default:
        throw std::logic_error("no encoding of this form is known: give the bytes with raw()");
    }
}

void DwarfAssembler::writeReference(uint64_t form, unsigned width, const DwarfValue& value) {
    if (!value.m_label) {
        if (width == 0)
            m_info.uleb(value.m_number);
        else
            m_info.number(maskTo(value.m_number, width), width);
        return;
    }
    if (form == kRefAddr)
        m_info.absolute(*value.m_label, width);
    else if (width == 0)
        m_info.ulebDifference(*value.m_label, m_unitBegin.value(), kLabelUlebLength);
    else
        m_info.difference(*value.m_label, m_unitBegin.value(), width);
}

void DwarfAssembler::writeBlock(const DwarfValue& value, unsigned lengthWidth) {
    const std::vector<uint8_t>& block = value.m_block.value();
    if (lengthWidth == 0)
        m_info.uleb(block.size());
    else
        m_info.number(block.size(), lengthWidth);
    m_info.raw(block);
}

DwarfAssembler& DwarfAssembler::beginLines(const DwarfLineOptions& options) {
    m_lines = options;
    m_linesEnd = writeLength(m_line, options.is64Bit, options.length);
    m_line.u16(options.version);
    const size_t place = m_line.size();
    const unsigned width = options.is64Bit ? 8 : 4;
    m_lineHeaderEnd = m_line.lengthPrefix(width);
    if (options.headerLength)
        m_line.overwriteAt(place, *options.headerLength, width);
    m_line.u8(options.minimumInstructionLength);
    if (options.version >= 4)
        m_line.u8(1);
    m_line.u8(options.defaultIsStmt).u8(static_cast<uint8_t>(options.lineBase)).u8(options.lineRange);
    m_line.u8(options.opcodeBase);
    constexpr uint8_t operandCounts[] = {0, 1, 1, 1, 1, 0, 0, 0, 1, 0, 0, 1};
    for (unsigned opcode = 1; opcode < options.opcodeBase; ++opcode)
        m_line.u8(opcode <= std::size(operandCounts) ? operandCounts[opcode - 1] : 0);
    return *this;
}

DwarfAssembler& DwarfAssembler::includeDirectory(std::string_view name) {
    m_line.str(name);
    return *this;
}

DwarfAssembler& DwarfAssembler::endIncludeDirectories() {
    m_line.u8(0);
    return *this;
}

DwarfAssembler& DwarfAssembler::file(std::string_view name, uint64_t directory, uint64_t time,
                                     uint64_t length) {
    m_line.str(name).uleb(directory).uleb(time).uleb(length);
    return *this;
}

DwarfAssembler& DwarfAssembler::endFiles() {
    m_line.u8(0);
    m_line.define(m_lineHeaderEnd.value());
    return *this;
}

DwarfAssembler& DwarfAssembler::special(unsigned instructions, int lines) {
    const int opcode =
        lines - m_lines.lineBase + m_lines.lineRange * static_cast<int>(instructions) + m_lines.opcodeBase;
    if (lines < m_lines.lineBase || lines >= m_lines.lineBase + m_lines.lineRange || opcode > 255)
        throw std::logic_error("no special opcode does that");
    return op(static_cast<uint8_t>(opcode));
}

DwarfAssembler& DwarfAssembler::op(uint8_t opcode) {
    m_line.u8(opcode);
    return *this;
}

DwarfAssembler& DwarfAssembler::opULEB(uint8_t opcode, uint64_t operand) {
    m_line.u8(opcode).uleb(operand);
    return *this;
}

DwarfAssembler& DwarfAssembler::opSLEB(uint8_t opcode, int64_t operand) {
    m_line.u8(opcode).sleb(operand);
    return *this;
}

DwarfAssembler& DwarfAssembler::fixedAdvance(uint16_t operand) {
    m_line.u8(9).u16(operand);
    return *this;
}

DwarfAssembler& DwarfAssembler::extended(uint8_t opcode, const std::vector<uint8_t>& operands) {
    m_line.u8(0).uleb(operands.size() + 1).u8(opcode).raw(operands);
    return *this;
}

DwarfAssembler& DwarfAssembler::setAddress(uint64_t address) {
    ByteAssembler operand;
    operand.number(address, m_lines.addressSize);
    return extended(2, operand.bytes());
}

DwarfAssembler& DwarfAssembler::defineFile(std::string_view name, uint64_t directory, uint64_t time,
                                           uint64_t length) {
    ByteAssembler operands;
    operands.str(name).uleb(directory).uleb(time).uleb(length);
    return extended(3, operands.bytes());
}

DwarfAssembler& DwarfAssembler::endSequence() {
    return extended(1);
}

DwarfAssembler& DwarfAssembler::endLines() {
    m_line.define(m_linesEnd.value());
    return *this;
}

void DwarfAssembler::addTo(ElfAssembler& elf) const {
    const auto add = [&elf](const char* name, const ByteAssembler& bytes) {
        if (bytes.size() > 0)
            elf.section(name).append(bytes);
    };
    add(".debug_abbrev", m_abbrev);
    add(".debug_info", m_info);
    add(".debug_str", m_str);
    add(".debug_line", m_line);
    add(".debug_ranges", m_ranges);
}

} // namespace orn_test
