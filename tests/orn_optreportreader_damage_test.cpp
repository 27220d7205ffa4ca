// Sections of reports that are damaged in every way: reading ends, touches nothing outside and takes a time
// that grows with the section.

#include "orn_optreportreader.h"

#include "orn_buffer.h"
#include "support/orn_fixture.h"
#include "support/report_assembler.h"

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

namespace ORN_3_30::test {
namespace {

using orn_test::joined;
using orn_test::ReportTable;
using Bytes = std::vector<std::uint8_t>;

/// Reads all reports; gives their number.
std::size_t countReports(const Bytes& bytes) {
    const SymMgrObjectPtr<ByteBuffer> buffer = new ByteBuffer(bytes.size());
    if (!bytes.empty())
        std::memcpy(buffer->data(), bytes.data(), bytes.size());
    const SymMgrObjectPtr<OptReportReader> reader = new OptReportReader(buffer, 0x1000);
    reader->reset();
    std::size_t count = 0;
    unsigned sum = 0;
    while (IOptReportEntry* entry = reader->current()) {
        unsigned long long size = 0;
        const char* text = entry->text(size);
        for (unsigned long long i = 0; i < size; ++i)
            sum += static_cast<unsigned char>(text[i]);
        ++count;
        reader->next();
    }
    EXPECT_LE(count, bytes.size() / 16 + 1) << sum;
    return count;
}

Bytes soundSection() {
    return joined({{'.', 'o', 'm', 'l', 0},
                   ReportTable().version(3).report(0x401000, "one").bytes(),
                   ReportTable(0).report(1, "x").bytes(),
                   ReportTable(orn_test::kHoldsReports | orn_test::kRelativeAnchors | orn_test::kShortAnchors)
                       .report(0x10, "a report of some length")
                       .entry(0, "other", Bytes{1, 2})
                       .bytes()});
}

class OptReportDamageTest : public OrnTest {
protected:
    // Damage is complained about, and nothing of interest stands in the complaints.
    OptReportDamageTest() { setLogLevel(errorLevel + 1); }

    /// Fails if it takes longer than what is linear could ever take.
    template <typename Run>
    static void expectQuick(const Run& run) {
        const auto begin = std::chrono::steady_clock::now();
        run();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    }
};

TEST_F(OptReportDamageTest, EveryPrefixIsRead) {
    const Bytes sound = soundSection();
    ASSERT_EQ(countReports(sound), 3U);
    for (std::size_t size = 0; size < sound.size(); ++size)
        countReports(Bytes(sound.begin(), sound.begin() + static_cast<std::ptrdiff_t>(size)));
}

TEST_F(OptReportDamageTest, EveryChangeOfAByteIsRead) {
    Bytes section = soundSection();
    for (std::uint8_t& byte : section) {
        const std::uint8_t sound = byte;
        for (int value = 0; value < 256; ++value) {
            byte = static_cast<std::uint8_t>(value);
            countReports(section);
        }
        byte = sound;
    }
}

TEST_F(OptReportDamageTest, EveryFieldOfAHeaderMayHoldAnExtreme) {
    for (const std::uint32_t value : {0U, 1U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU})
        for (int field = 0; field < 8; ++field) {
            ReportTable table;
            table.report(1, "a").report(2, "b");
            auto& header = table.header;
            std::optional<std::uint32_t>* const words[] = {&header.entryCount,  &header.stringsOffset,
                                                           &header.stringsSize, &header.valuesOffset,
                                                           &header.valuesSize,  &header.flags};
            if (field < 6)
                *words[field] = value;
            else
                (field == 6 ? header.headerSize : header.version) = static_cast<std::uint16_t>(value);
            countReports(table.bytes());
        }
}

constexpr std::size_t manyEntries = 50000;

TEST_F(OptReportDamageTest, ManyTextsOfOneEndlessRunAreReadInLinearTime) {
    ReportTable table;
    table.report(0, std::string(255, 'x'));
    const std::uint32_t value = table.addValue(joined({{255, 0x10}, Bytes(1 << 20, 0xFF)}));
    for (std::size_t i = 0; i < manyEntries; ++i)
        table.rawEntry(i, 0, value);
    const Bytes section = table.bytes();
    expectQuick([&] { EXPECT_EQ(countReports(section), manyEntries + 1); });
}

TEST_F(OptReportDamageTest, ManyVersionsOfOneEndlessRunAreReadInLinearTime) {
    ReportTable table;
    table.version(1);
    const std::uint32_t value = table.addValue(joined({{1, 0x10}, Bytes(1 << 20, 0x80)}));
    for (std::size_t i = 0; i < manyEntries; ++i)
        table.rawEntry(i, 0, value);
    const Bytes section = table.bytes();
    expectQuick([&] { EXPECT_EQ(countReports(section), 1U); });
}

TEST_F(OptReportDamageTest, ManyTablesOneIntoAnotherAreReadInLinearTime) {
    // Each has the whole rest of the section for its strings and values, and no entries.
    Bytes section;
    ReportTable table;
    table.header.stringsSize = table.header.valuesSize = 0xFFFFFFFF;
    table.header.valuesOffset = 0;
    table.header.valuesSize = 0;
    const Bytes one = table.bytes();
    for (std::size_t i = 0; i < manyEntries; ++i)
        section.insert(section.end(), one.begin(), one.end());
    expectQuick([&] { EXPECT_GT(countReports(section), manyEntries / 2); });
}

TEST_F(OptReportDamageTest, WhatNearlyIsATableIsSearchedInLinearTime) {
    std::string almost;
    while (almost.size() < 1 << 21)
        almost += ".oml_notify_tax.";
    const Bytes section(almost.begin(), almost.end());
    expectQuick([&] { EXPECT_EQ(countReports(section), 0U); });
}

} // namespace
} // namespace ORN_3_30::test
