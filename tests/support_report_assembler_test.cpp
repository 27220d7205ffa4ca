// The assembler of report sections against bytes counted by hand.

#include "support/report_assembler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace orn_test {
namespace {

using testing::ElementsAre;
using Bytes = std::vector<uint8_t>;

uint64_t numberAt(const Bytes& bytes, size_t place, unsigned width) {
    uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i)
        value |= static_cast<uint64_t>(bytes.at(place + i)) << (8 * i);
    return value;
}

std::string textAt(const Bytes& bytes, size_t place) {
    return reinterpret_cast<const char*>(&bytes.at(place));
}

TEST(ReportAssembler, TextIsPackedInGroupsOfSevenBits) {
    EXPECT_THAT(packedReportText("A"), ElementsAre(0xC1, 0x00)); // 1000001, then the top bit of 8
    EXPECT_THAT(packedReportText("ab"), ElementsAre(0xE1, 0xC4, 0x01));
    EXPECT_EQ(packedReportText("1234567").size(), 8U) << "56 bits are 8 groups, and no ninth";
    EXPECT_EQ(packedReportText("1234567").back() & 0x80, 0);
}

TEST(ReportAssembler, ValueBeginsWithLengthAndForm) {
    EXPECT_THAT(reportValue("ab"), ElementsAre(2, 0x10, 0xE1, 0xC4, 0x01));
    EXPECT_THROW(reportValue(""), std::logic_error);
    EXPECT_THROW(reportValue(std::string(256, 'x')), std::logic_error);
}

TEST(ReportAssembler, TableHasItsFieldsInPlace) {
    const Bytes bytes = ReportTable(0xD).version(7).report(0x1122334455667788, "ab").bytes();
    EXPECT_EQ(textAt(bytes, 0), ".oml_notify_tab");
    EXPECT_EQ(numberAt(bytes, 16, 2), 0x0100U);
    EXPECT_EQ(numberAt(bytes, 18, 2), 44U);
    EXPECT_EQ(numberAt(bytes, 20, 4), 2U);
    EXPECT_EQ(numberAt(bytes, 24, 4), 76U) << "strings behind two entries";
    EXPECT_EQ(numberAt(bytes, 28, 4), 48U);
    EXPECT_EQ(numberAt(bytes, 32, 4), 124U);
    EXPECT_EQ(numberAt(bytes, 36, 4), 8U);
    EXPECT_EQ(numberAt(bytes, 40, 4), 0xDU);
    EXPECT_EQ(textAt(bytes, 76), "optimization_report_version");
    EXPECT_EQ(numberAt(bytes, 60, 8), 0x1122334455667788U);
    EXPECT_EQ(textAt(bytes, 76 + numberAt(bytes, 68, 4)), "optimization_report");
    EXPECT_EQ(numberAt(bytes, 72, 4), 3U) << "behind the value of the version";
    EXPECT_EQ(numberAt(bytes, 124, 3), 0x071001U) << "length, form, number";
    EXPECT_EQ(bytes.size(), 132U);
}

TEST(ReportAssembler, NameThatIsThereIsUsedAgain) {
    const size_t one = ReportTable().report(1, "a").bytes().size();
    EXPECT_EQ(ReportTable().report(1, "a").report(2, "a").bytes().size() - one,
              ReportTable::kEntrySize + reportValue("a").size());
}

TEST(ReportAssembler, DamagedHeaderLeavesTheContents) {
    ReportTable table;
    table.report(1, "a");
    const Bytes sound = table.bytes();
    table.header.entryCount = 99;
    Bytes damaged = table.bytes();
    EXPECT_EQ(numberAt(damaged, 20, 4), 99U);
    damaged[20] = 1;
    EXPECT_EQ(damaged, sound);
}

} // namespace
} // namespace orn_test
