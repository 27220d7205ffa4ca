#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orn_test {

/// Flags of an annotation table.
enum ReportTableFlag : uint32_t {
    kRelativeAnchors = 0x1,
    kShortAnchors = 0x4,
    kHoldsReports = 0x8,
};

/// Values that go into a table's header in place of the right ones; the contents stay where they are.
struct ReportTableOverrides {
    std::optional<uint16_t> version, headerSize;
    std::optional<uint32_t> entryCount, stringsOffset, stringsSize, valuesOffset, valuesSize, flags;
};

/// One annotation table of a section of optimisation reports: header, entries, strings, values, without gaps.
///
///     ReportTable().version(2).report(0x401000, "LOOP VECTORISED").bytes()
class ReportTable {
public:
    static constexpr uint16_t kHeaderSize = 44;
    static constexpr size_t kEntrySize = 16;

    explicit ReportTable(uint32_t flags = kHoldsReports) : m_flags(flags) {}

    /// An entry that sets the version of the reports behind it.
    ReportTable& version(uint64_t value);
    /// An entry with one report.
    ReportTable& report(uint64_t anchor, std::string_view text);
    /// An entry with any name and any value.
    ReportTable& entry(uint64_t anchor, std::string_view name, std::span<const uint8_t> value);
    /// The same with places of the test's own in the strings and the values.
    ReportTable& rawEntry(uint64_t anchor, uint32_t nameOffset, uint32_t valueOffset);
    /// Bytes behind the last value, which belong to the values.
    ReportTable& padValues(size_t count);

    /// Damage: what the header says in place of the truth.
    ReportTableOverrides header;

    /// Where a name or a value went, for rawEntry.
    uint32_t offsetOfName(std::string_view name);
    uint32_t addValue(std::span<const uint8_t> value);

    std::vector<uint8_t> bytes() const;

private:
    struct Entry {
        uint64_t anchor;
        uint32_t nameOffset;
        uint32_t valueOffset;
    };

    uint32_t m_flags;
    std::vector<Entry> m_entries;
    std::string m_strings;
    std::vector<uint8_t> m_values;
};

/// The value of a report: length, form, and the text in groups of seven bits.
std::vector<uint8_t> reportValue(std::string_view text);

/// A text as groups of seven bits, low bits first; the last byte alone has no top bit.
std::vector<uint8_t> packedReportText(std::string_view text);

/// Sections hold tables one behind the other.
std::vector<uint8_t> joined(std::initializer_list<std::vector<uint8_t>> parts);

} // namespace orn_test
