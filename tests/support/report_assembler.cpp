#include "support/report_assembler.h"

#include "support/byte_assembler.h"

#include <stdexcept>

namespace orn_test {

ReportTable& ReportTable::version(uint64_t value) {
    ByteAssembler bytes;
    bytes.u8(1).u8(0x10).uleb(value);
    return entry(0, "optimization_report_version", bytes.bytes());
}

ReportTable& ReportTable::report(uint64_t anchor, std::string_view text) {
    return entry(anchor, "optimization_report", reportValue(text));
}

ReportTable& ReportTable::entry(uint64_t anchor, std::string_view name, std::span<const uint8_t> value) {
    const uint32_t nameOffset = offsetOfName(name);
    return rawEntry(anchor, nameOffset, addValue(value));
}

ReportTable& ReportTable::rawEntry(uint64_t anchor, uint32_t nameOffset, uint32_t valueOffset) {
    m_entries.push_back({anchor, nameOffset, valueOffset});
    return *this;
}

ReportTable& ReportTable::padValues(size_t count) {
    m_values.resize(m_values.size() + count);
    return *this;
}

uint32_t ReportTable::offsetOfName(std::string_view name) {
    const std::string text = std::string(name) + '\0';
    for (size_t place = 0; place < m_strings.size(); place = m_strings.find('\0', place) + 1)
        if (m_strings.compare(place, text.size(), text) == 0)
            return static_cast<uint32_t>(place);
    m_strings += text;
    return static_cast<uint32_t>(m_strings.size() - text.size());
}

uint32_t ReportTable::addValue(std::span<const uint8_t> value) {
    m_values.insert(m_values.end(), value.begin(), value.end());
    return static_cast<uint32_t>(m_values.size() - value.size());
}

std::vector<uint8_t> ReportTable::bytes() const {
    const auto entriesSize = static_cast<uint32_t>(m_entries.size() * kEntrySize);
    const auto stringsSize = static_cast<uint32_t>(m_strings.size());
    const uint32_t strings = kHeaderSize + entriesSize;
    ByteAssembler out;
    out.str(".oml_notify_tab");
    out.u16(header.version.value_or(0x0100)).u16(header.headerSize.value_or(kHeaderSize));
    out.u32(header.entryCount.value_or(static_cast<uint32_t>(m_entries.size())));
    out.u32(header.stringsOffset.value_or(strings)).u32(header.stringsSize.value_or(stringsSize));
    out.u32(header.valuesOffset.value_or(strings + stringsSize));
    out.u32(header.valuesSize.value_or(static_cast<uint32_t>(m_values.size())));
    out.u32(header.flags.value_or(m_flags));
    for (const Entry& entry : m_entries)
        out.u64(entry.anchor).u32(entry.nameOffset).u32(entry.valueOffset);
    out.chars(m_strings).raw(m_values);
    return out.take();
}

std::vector<uint8_t> reportValue(std::string_view text) {
    if (text.empty() || text.size() > 255)
        throw std::logic_error("a report has 1 to 255 bytes");
    std::vector<uint8_t> value = {static_cast<uint8_t>(text.size()), 0x10};
    const std::vector<uint8_t> packed = packedReportText(text);
    value.insert(value.end(), packed.begin(), packed.end());
    return value;
}

std::vector<uint8_t> packedReportText(std::string_view text) {
    std::vector<uint8_t> packed;
    unsigned bits = 0;
    unsigned count = 0;
    for (const char character : text) {
        bits |= static_cast<unsigned>(static_cast<uint8_t>(character)) << count;
        for (count += 8; count >= 7; count -= 7, bits >>= 7)
            packed.push_back(static_cast<uint8_t>((bits & 0x7F) | 0x80));
    }
    if (count > 0 || packed.empty())
        packed.push_back(static_cast<uint8_t>(bits & 0x7F));
    packed.back() &= 0x7F;
    return packed;
}

std::vector<uint8_t> joined(std::initializer_list<std::vector<uint8_t>> parts) {
    std::vector<uint8_t> all;
    for (const auto& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

} // namespace orn_test
