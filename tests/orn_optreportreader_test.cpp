// Reports of one section and of a module, on sections assembled here. Damage of every kind stands in
// orn_optreportreader_damage_test.cpp.

#include "orn_optreportreader.h"

#include "orn/module_symbol_bank.h"
#include "orn/symbol_manager.h"
#include "orn_address.h"
#include "orn_buffer.h"
#include "support/allocation.h"
#include "support/elf_assembler.h"
#include "support/fake_loader.h"
#include "support/orn_fixture.h"
#include "support/report_assembler.h"
#include "support/temp_dir.h"

#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace ORN_3_30::test {
namespace {

using orn_test::joined;
using orn_test::kHoldsReports;
using orn_test::kRelativeAnchors;
using orn_test::kShortAnchors;
using orn_test::ReportTable;
using orn_test::reportValue;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Bytes = std::vector<std::uint8_t>;
using ReportIterator = IIterator<IOptReportEntry*>;

constexpr const char* brokenTable = "ASSERTION FAILED: '(status_Ok == st) || (st == status_False)'";
constexpr const char* brokenSection = "ASSERTION FAILED: 'status_False == st'";

/// In a block of exactly their size, so that a sanitizer sees a read behind it.
SymMgrObjectPtr<IBuffer> bufferOf(const Bytes& bytes) {
    SymMgrObjectPtr<IBuffer> buffer = new ByteBuffer(bytes.size());
    if (!bytes.empty())
        std::memcpy(buffer->data(), bytes.data(), bytes.size());
    return buffer;
}

std::string wholeTextOf(IOptReportEntry& entry) {
    unsigned long long size = 0;
    const char* text = entry.text(size);
    return {text, size};
}

/// Without what fills it up.
std::string textOf(IOptReportEntry& entry) {
    const std::string text = wholeTextOf(entry);
    return text.substr(0, text.find('\0'));
}

struct Report {
    unsigned long long address;
    unsigned version;
    std::string text;
    bool operator==(const Report&) const = default;
};

void PrintTo(const Report& report, std::ostream* stream) {
    *stream << std::hex << report.address << " v" << std::dec << report.version << " '" << report.text << "'";
}

Report reportOf(IOptReportEntry& entry) {
    return {entry.address(), entry.version(), textOf(entry)};
}

std::vector<Report> rest(ReportIterator& reports) {
    std::vector<Report> all;
    while (IOptReportEntry* entry = reports.current()) {
        all.push_back(reportOf(*entry));
        if (!reports.next())
            break;
    }
    return all;
}

/// Opens the step that nobody can call with nothing open.
class OpenReader : public OptReportReader {
public:
    using OptReportReader::OptReportReader;
    using OptReportReader::readReport;
};
using ReaderPtr = SymMgrObjectPtr<OpenReader>;

class OptReportReaderTest : public OrnTest {
protected:
    static ReaderPtr readerOf(const Bytes& bytes, unsigned long long address = 0) {
        const ReaderPtr reader = new OpenReader(bufferOf(bytes), address);
        reader->reset();
        return reader;
    }
    static std::vector<Report> reportsIn(const Bytes& bytes, unsigned long long address = 0) {
        const ReaderPtr reader = readerOf(bytes, address);
        std::vector<Report> all = rest(*reader);
        EXPECT_EQ(reader->status(), status_False);
        return all;
    }
    /// The reports in front of the place that breaks the section.
    std::vector<Report> reportsOfBroken(const Bytes& bytes) {
        expectLog(brokenTable);
        const ReaderPtr reader = readerOf(bytes);
        std::vector<Report> all = rest(*reader);
        EXPECT_EQ(reader->status(), status_BadFileFormat);
        EXPECT_EQ(reader->current(), nullptr);
        EXPECT_FALSE(reader->next()) << "the section is left";
        EXPECT_EQ(reader->status(), status_False);
        return all;
    }
};

// --- Reports

TEST_F(OptReportReaderTest, EveryReportIsGivenWithItsAddressAndVersion) {
    const Bytes section = ReportTable().version(3).report(0x401000, "one").report(0x402000, "two").bytes();
    EXPECT_THAT(reportsIn(section), ElementsAre(Report{0x401000, 3, "one"}, Report{0x402000, 3, "two"}));
}

TEST_F(OptReportReaderTest, BeforeItIsResetItStandsNowhere) {
    const ReaderPtr reader = new OpenReader(bufferOf(ReportTable().report(1, "a").bytes()), 0);
    EXPECT_EQ(reader->current(), nullptr);
    reader->reset();
    EXPECT_NE(reader->current(), nullptr);
}

TEST_F(OptReportReaderTest, ResetBeginsAgainWithoutAVersion) {
    const ReaderPtr reader = readerOf(ReportTable().report(1, "a").version(9).report(2, "b").bytes());
    const std::vector<Report> first = rest(*reader);
    reader->reset();
    EXPECT_EQ(rest(*reader), first);
    EXPECT_THAT(first, ElementsAre(Report{1, 0, "a"}, Report{2, 9, "b"}));
}

TEST_F(OptReportReaderTest, TheEntryGivenIsOverwrittenByTheNext) {
    const ReaderPtr reader = readerOf(ReportTable().report(1, "a").report(2, "b").bytes());
    IOptReportEntry* entry = reader->current();
    EXPECT_TRUE(reader->next());
    EXPECT_EQ(reader->current(), entry);
    EXPECT_EQ(entry->address(), 2U);
}

TEST_F(OptReportReaderTest, AtTheEndItStays) {
    const ReaderPtr reader = readerOf(ReportTable().report(1, "a").bytes());
    EXPECT_FALSE(reader->next());
    EXPECT_FALSE(reader->next());
    EXPECT_EQ(reader->current(), nullptr);
    EXPECT_EQ(reader->status(), status_False);
}

TEST_F(OptReportReaderTest, WithoutDataThereIsNothing) {
    const ReaderPtr reader = new OpenReader(nullptr, 0);
    reader->reset();
    EXPECT_EQ(reader->current(), nullptr);
    EXPECT_THAT(reportsIn({}), IsEmpty());
}

TEST_F(OptReportReaderTest, ReadingWithoutATableIsAFault) {
    const ReaderPtr reader = new OpenReader(bufferOf({}), 0);
    expectLog("ASSERTION FAILED: 'm_header'");
    EXPECT_EQ(reader->readReport(), status_InvalidPointer);
}

// --- Texts

TEST_F(OptReportReaderTest, ATextOfTwoBytesHasSixteen) {
    const ReaderPtr reader = readerOf(ReportTable().report(1, "ab").bytes());
    EXPECT_EQ(wholeTextOf(*reader->current()), std::string("ab") + std::string(14, '\0'));
}

TEST_F(OptReportReaderTest, ALongTextHasTheBytesThatWereTouched) {
    for (const std::size_t size : {15, 16, 17, 18, 19, 20, 21, 22, 100, 255}) {
        std::string text;
        for (std::size_t i = 0; i < size; ++i)
            text += static_cast<char>('!' + i % 90);
        const ReaderPtr reader = readerOf(ReportTable().report(1, text).bytes());
        // The last group may reach into one byte more, which is zero.
        const std::size_t groups = (size * 8 + 6) / 7;
        const std::size_t touched = (groups * 7 + 7) / 8;
        text.resize(std::max<std::size_t>(touched, 16));
        EXPECT_EQ(wholeTextOf(*reader->current()), text) << size;
    }
}

TEST_F(OptReportReaderTest, EveryByteValuePasses) {
    std::string text;
    for (int value = 255; value > 0; --value)
        text += static_cast<char>(value);
    const ReaderPtr reader = readerOf(ReportTable().report(1, text).bytes());
    EXPECT_EQ(wholeTextOf(*reader->current()).substr(0, text.size()), text);
}

/// The area of a text has four bytes more than the value says, and sixteen at least.
TEST_F(OptReportReaderTest, WhatRunsPastItsAreaIsDropped) {
    const auto textWithLength = [](std::uint8_t length, const std::string& text) {
        Bytes value = reportValue(text);
        value[0] = length;
        return wholeTextOf(
            *readerOf(ReportTable().entry(1, "optimization_report", value).bytes())->current());
    };
    const std::string text(60, 'x');
    EXPECT_EQ(textWithLength(1, text), std::string(16, 'x'));
    EXPECT_EQ(textWithLength(12, text), std::string(16, 'x'));
    EXPECT_EQ(textWithLength(13, text), std::string(17, 'x'));
    EXPECT_EQ(textWithLength(40, text), std::string(44, 'x'));
}

TEST_F(OptReportReaderTest, ATextThatTheSectionCutsOffIsTakenAsItIs) {
    Bytes section = ReportTable().report(1, std::string(40, 'x')).bytes();
    section.resize(section.size() - 20); // of 46 groups 26 are left: 182 bits
    const ReaderPtr reader = readerOf(section);
    ASSERT_NE(reader->current(), nullptr);
    EXPECT_EQ(wholeTextOf(*reader->current()).substr(0, 22), std::string(22, 'x'));
    EXPECT_EQ(wholeTextOf(*reader->current()).size(), 23U);
}

TEST_F(OptReportReaderTest, ATextWithoutMemoryIsReported) {
    if (!canFailAllocations())
        GTEST_SKIP() << "allocations cannot be made to fail here";
    const ReaderPtr reader = readerOf(ReportTable().report(1, "a").report(2, std::string(40, 'x')).bytes());
    expectLog("can't allocate memory: 41");
    expectLog(brokenTable);
    {
        const FailingAllocation failure(1);
        EXPECT_FALSE(reader->next());
        EXPECT_TRUE(failure.happened());
    }
    EXPECT_EQ(reader->status(), status_OutOfMemory);
}

// --- Versions

TEST_F(OptReportReaderTest, AVersionAppliesToAllThatFollowsAlsoInALaterTable) {
    const Bytes section = joined({ReportTable().report(1, "a").version(5).report(2, "b").bytes(),
                                  ReportTable().report(3, "c").version(6).report(4, "d").bytes()});
    EXPECT_THAT(reportsIn(section),
                ElementsAre(Report{1, 0, "a"}, Report{2, 5, "b"}, Report{3, 5, "c"}, Report{4, 6, "d"}));
}

TEST_F(OptReportReaderTest, AVersionHasSixteenBits) {
    for (const auto& [written, read] : {std::pair{0xFFFFULL, 0xFFFFU},
                                        {0x1FFFFULL, 0xFFFFU},
                                        {0x12345678ULL, 0x5678U},
                                        {~0ULL, 0xFFFFU},
                                        {300ULL, 300U}})
        EXPECT_THAT(reportsIn(ReportTable().version(written).report(1, "a").bytes()),
                    ElementsAre(Report{1, read, "a"}));
}

TEST_F(OptReportReaderTest, AVersionMayEndWithTheSection) {
    ReportTable table;
    table.report(1, "a");
    table.entry(0, "optimization_report_version", Bytes{1, 0x10, 0x83});
    EXPECT_THAT(reportsIn(table.bytes()), ElementsAre(Report{1, 0, "a"}, Report{1, 0, "a"}));
}

// --- Anchors

TEST_F(OptReportReaderTest, AnAnchorHasSixtyFourBits) {
    EXPECT_THAT(reportsIn(ReportTable().report(0x7F00112233445566, "a").bytes(), 0x1000),
                ElementsAre(Report{0x7F00112233445566, 0, "a"}));
}

TEST_F(OptReportReaderTest, AShortAnchorIsTheLowHalfWithItsSign) {
    const Bytes section = ReportTable(kHoldsReports | kShortAnchors | kRelativeAnchors)
                              .report(0x1122334400000010, "ahead")
                              .report(0x00000000FFFFFFF0, "behind")
                              .bytes();
    EXPECT_THAT(reportsIn(section, 0x8000),
                ElementsAre(Report{0x8010, 0, "ahead"}, Report{0x7FF0, 0, "behind"}));
}

TEST_F(OptReportReaderTest, RelativeAnchorsOfTwoTablesHaveDifferentBases) {
    const Bytes first = ReportTable(kHoldsReports | kRelativeAnchors).report(0x10, "a").bytes();
    const Bytes second = ReportTable(kHoldsReports | kRelativeAnchors).report(0x10, "b").bytes();
    EXPECT_THAT(reportsIn(joined({first, second}), 0x8000),
                ElementsAre(Report{0x8010, 0, "a"}, Report{0x8010 + first.size(), 0, "b"}));
}

TEST_F(OptReportReaderTest, ANegativeAnchorIsReportedAndKept) {
    expectLog("ASSERTION FAILED: 'anchor_address >= 0'", 2);
    EXPECT_THAT(reportsIn(ReportTable().report(0xFFFFFFFF81000000, "a").bytes()),
                ElementsAre(Report{0xFFFFFFFF81000000, 0, "a"}));
    EXPECT_THAT(reportsIn(ReportTable(kHoldsReports | kShortAnchors).report(0xFFFFFFFF, "a").bytes()),
                ElementsAre(Report{~0ULL, 0, "a"}));
}

// --- Tables

TEST_F(OptReportReaderTest, ATableWithoutReportsIsSkippedAndTheNextIsRead) {
    const Bytes section =
        joined({ReportTable(0).report(1, "a").bytes(), ReportTable().report(2, "b").bytes()});
    EXPECT_THAT(reportsIn(section), ElementsAre(Report{2, 0, "b"}));
}

TEST_F(OptReportReaderTest, ATableOfAnotherMajorVersionIsSkipped) {
    for (const auto& [version, isRead] :
         {std::pair{0x0000, false}, {0x0100, true}, {0x01FF, true}, {0x0200, false}, {0x00FF, false}}) {
        ReportTable table;
        table.report(1, "a").header.version = static_cast<std::uint16_t>(version);
        EXPECT_EQ(reportsIn(table.bytes()).size(), isRead ? 1U : 0U) << version;
    }
}

TEST_F(OptReportReaderTest, ASkippedTableIsLeftBehindItsHeader) {
    const Bytes hidden = ReportTable().report(2, "b").bytes();
    ReportTable skipped(0);
    skipped.header.headerSize = static_cast<std::uint16_t>(ReportTable::kHeaderSize + hidden.size());
    const Bytes last = ReportTable().report(3, "c").bytes();
    EXPECT_THAT(reportsIn(joined({skipped.bytes(), hidden, last})), ElementsAre(Report{3, 0, "c"}))
        << "what a skipped header covers is not searched";
}

TEST_F(OptReportReaderTest, ASkippedTableOfHeaderSizeZeroIsLeftByAByte) {
    ReportTable skipped(0);
    skipped.header.headerSize = 0;
    EXPECT_THAT(reportsIn(joined({skipped.bytes(), ReportTable().report(1, "a").bytes()})),
                ElementsAre(Report{1, 0, "a"}));
}

TEST_F(OptReportReaderTest, OtherBytesMayStandBetweenTables) {
    const Bytes noise = {'.', 'o', 'm', 'l', '_', '.', '.', 0, '.', 'o'};
    EXPECT_THAT(reportsIn(joined({noise, ReportTable().report(1, "a").bytes(), noise, noise,
                                  ReportTable().report(2, "b").bytes(), noise})),
                ElementsAre(Report{1, 0, "a"}, Report{2, 0, "b"}));
}

TEST_F(OptReportReaderTest, TheMagicEndsInANul) {
    Bytes section = ReportTable().report(1, "a").bytes();
    section[15] = 'x';
    EXPECT_THAT(reportsIn(section), IsEmpty());
}

TEST_F(OptReportReaderTest, ATableIsLookedAtFromFortyNineBytesOn) {
    Bytes section = ReportTable().bytes();
    ASSERT_EQ(section.size(), 44U);
    section.resize(48);
    EXPECT_THAT(reportsIn(section), IsEmpty());
    section.resize(49);
    EXPECT_THAT(reportsIn(section), ElementsAre(Report{0, 0, ""}));
}

TEST_F(OptReportReaderTest, EntriesFollowTheHeaderWhateverItsSize) {
    Bytes section = ReportTable().report(0x1234, "a").bytes();
    section.insert(section.begin() + ReportTable::kHeaderSize, 4, 0);
    section[18] += 4; // header size
    section[24] += 4; // strings
    section[32] += 4; // values
    EXPECT_THAT(reportsIn(section), ElementsAre(Report{0x1234, 0, "a"}));
}

TEST_F(OptReportReaderTest, TheSearchGoesOnBehindTheValues) {
    ReportTable table;
    table.report(1, "a");
    const Bytes hidden = ReportTable().report(9, "hidden").bytes();
    table.header.valuesSize = static_cast<std::uint32_t>(reportValue("a").size() + hidden.size());
    EXPECT_THAT(reportsIn(joined({table.bytes(), hidden, ReportTable().report(2, "b").bytes()})),
                ElementsAre(Report{1, 0, "a"}, Report{2, 0, "b"}));
}

TEST_F(OptReportReaderTest, BehindATableTheSearchNeverGoesBack) {
    ReportTable empty;
    empty.header.headerSize = 0;
    empty.header.valuesOffset = 0;
    empty.header.valuesSize = 0;
    EXPECT_THAT(reportsIn(joined({empty.bytes(), Bytes(8, 0)})), ElementsAre(Report{0, 0, ""}));
}

TEST_F(OptReportReaderTest, ValuesMayLieAmongTheEntries) {
    ReportTable table;
    table.report(1, "a");
    Bytes section = table.bytes();
    section[32] = ReportTable::kHeaderSize; // values offset: the first entry, whose low bytes are an anchor
    section[33] = 0;
    section[ReportTable::kHeaderSize] = 1;
    section[ReportTable::kHeaderSize + 1] = 0x10;
    section[ReportTable::kHeaderSize + 2] = 0x41;
    section[36] = 8; // values size
    EXPECT_THAT(reportsIn(section), ElementsAre(Report{0x411001, 0, "A"}));
}

TEST_F(OptReportReaderTest, ATableWithoutEntriesGivesTheEntryOnceMore) {
    const Bytes empty = ReportTable().padValues(8).bytes();
    EXPECT_THAT(reportsIn(joined({empty, ReportTable().version(2).report(7, "a").bytes(), empty})),
                ElementsAre(Report{0, 0, ""}, Report{7, 2, "a"}, Report{7, 2, "a"}));
}

TEST_F(OptReportReaderTest, ATableThatDoesNotEndInAReportGivesTheEntryOnceMore) {
    const Bytes section = ReportTable().report(7, "a").version(2).bytes();
    EXPECT_THAT(reportsIn(section), ElementsAre(Report{7, 0, "a"}, Report{7, 0, "a"}));
}

// --- Entries

TEST_F(OptReportReaderTest, EntriesOfOtherNamesAreSteppedOver) {
    const Bytes any = {0, 0, 0};
    const Bytes section = ReportTable()
                              .entry(5, "optimization_report_", any)
                              .entry(6, "optimization_repor", any)
                              .entry(7, "", any)
                              .report(8, "a")
                              .bytes();
    EXPECT_THAT(reportsIn(section), ElementsAre(Report{8, 0, "a"}));
}

TEST_F(OptReportReaderTest, ANameWithoutEndInTheSectionIsNoKnownName) {
    ReportTable table;
    table.report(1, "a");
    // The name comes last in the section, less its NUL.
    Bytes section = joined({table.bytes(), {'o'}});
    const std::string name = "optimization_report";
    section.pop_back();
    const std::size_t place = section.size();
    section.insert(section.end(), name.begin(), name.end());
    section[24] = static_cast<std::uint8_t>(place); // strings offset
    EXPECT_THAT(reportsIn(section), ElementsAre(Report{0, 0, ""})) << "an unknown name, and the repeat";
    section.push_back(0);
    EXPECT_THAT(reportsIn(section), ElementsAre(Report{1, 0, "a"}));
}

TEST_F(OptReportReaderTest, AnUnknownNameNeedsNoValue) {
    ReportTable table;
    table.rawEntry(1, table.offsetOfName("other"), 0xFFFFFFFF).report(2, "a");
    EXPECT_THAT(reportsIn(table.bytes()), ElementsAre(Report{2, 0, "a"}));
}

TEST_F(OptReportReaderTest, AnEntryNeedsAByteBehindIt) {
    ReportTable table;
    table.report(1, "a");
    Bytes section = table.bytes();
    section.resize(ReportTable::kHeaderSize + 16);
    EXPECT_THAT(reportsOfBroken(section), IsEmpty());
}

TEST_F(OptReportReaderTest, APlaceOutsideItsAreaBreaksTheSection) {
    const std::function<void(ReportTable&)> damages[] = {
        [](ReportTable& table) { table.header.stringsSize = 0; },
        [](ReportTable& table) { table.header.valuesSize = 0; },
        [](ReportTable& table) { table.header.stringsOffset = 0xFFFFFFFF; },
        [](ReportTable& table) { table.header.valuesOffset = 0xFFFFFFFF; },
        [](ReportTable& table) { table.header.headerSize = 0xFFFF; },
    };
    for (const auto& damage : damages) {
        ReportTable table;
        damage(table.report(1, "a"));
        EXPECT_THAT(reportsOfBroken(joined({table.bytes(), ReportTable().report(2, "b").bytes()})),
                    IsEmpty());
    }
}

TEST_F(OptReportReaderTest, TheOffsetsOfAnEntryHaveToBeBelowTheSizes) {
    ReportTable byName;
    byName.report(1, "a").rawEntry(2, 20, 0).padValues(100);
    EXPECT_THAT(reportsOfBroken(byName.bytes()), ElementsAre(Report{1, 0, "a"})) << "20 bytes of strings";
    ReportTable byValue;
    byValue.report(1, "a").rawEntry(2, 0, 4);
    EXPECT_THAT(reportsOfBroken(joined({byValue.bytes(), Bytes(40, 1)})), ElementsAre(Report{1, 0, "a"}))
        << "4 bytes of values";
}

TEST_F(OptReportReaderTest, AValueOfAnotherFormOrOfNoLengthBreaksTheSection) {
    for (const Bytes& value : {Bytes{1, 0x11, 0x41}, Bytes{1, 0, 0x41}, Bytes{0, 0x10, 0x41}})
        for (const char* name : {"optimization_report", "optimization_report_version"})
            EXPECT_THAT(reportsOfBroken(ReportTable().report(1, "a").entry(2, name, value).bytes()),
                        ElementsAre(Report{1, 0, "a"}));
}

TEST_F(OptReportReaderTest, AFormPastTheEndBreaksTheSection) {
    EXPECT_THAT(
        reportsOfBroken(ReportTable().report(1, "a").entry(2, "optimization_report", Bytes{1}).bytes()),
        ElementsAre(Report{1, 0, "a"}));
}

TEST_F(OptReportReaderTest, WhatWasReadInFrontOfABrokenTableIsGiven) {
    ReportTable broken;
    broken.report(3, "c").header.valuesSize = 0;
    EXPECT_THAT(reportsOfBroken(joined({ReportTable().report(1, "a").bytes(), broken.bytes(),
                                        ReportTable().report(4, "d").bytes()})),
                ElementsAre(Report{1, 0, "a"}));
}

// --- The store

/// A section with bytes, or one that cannot be read.
class ReportSection : public FakeSection {
public:
    ReportSection(std::string sectionName, Bytes contents, unsigned long long sectionAddress = 0)
        : m_bytes(std::move(contents)) {
        name = std::move(sectionName);
        address = sectionAddress;
        size = m_bytes.size();
    }
    status_t read(SymMgrObjectPtr<IBuffer>& out) override {
        ++reads;
        if (!isFailure(status) && status != status_False)
            out = bufferOf(m_bytes);
        return status;
    }

    status_t status = status_Ok;
    int reads = 0;

private:
    Bytes m_bytes;
};
using SectionPtr = SymMgrObjectPtr<ReportSection>;

template <typename Loader>
class WithSections : public Loader {
public:
    void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned index) override {
        ++sectionsAsked;
        out = index < sections.size() ? sections[index].get() : nullptr;
    }
    WithSections& add(std::string name, Bytes bytes, unsigned long long address = 0) {
        sections.push_back(new ReportSection(std::move(name), std::move(bytes), address));
        return *this;
    }

    std::vector<SectionPtr> sections;
    int sectionsAsked = 0;
};

class OptReportStorageTest : public OrnTest {
protected:
    OptReportStorageTest() {
        FakeSegment segment;
        segment.memorySize = ~0ULL - loader->imageBase;
        loader->segments.push_back(segment);
    }
    SymMgrObjectPtr<IAddress> at(unsigned long long address) { return new Address(loader, address, nullptr); }

    /// Reports of [begin, begin + size).
    std::vector<unsigned long long> addressesIn(unsigned long long begin, unsigned long long size) {
        SymMgrObjectPtr<ReportIterator> reports;
        const status_t status = storage.reports(reports, at(begin), size);
        EXPECT_TRUE(reports);
        EXPECT_EQ(status, reports && reports->current() ? status_Ok : status_False);
        std::vector<unsigned long long> addresses;
        for (const Report& report : rest(*reports))
            addresses.push_back(report.address);
        return addresses;
    }
    std::vector<Report> everything() {
        SymMgrObjectPtr<ReportIterator> reports;
        if (storage.reports(reports, nullptr, 0) != status_Ok)
            return {};
        return rest(*reports);
    }

    SymMgrObjectPtr<WithSections<FakeLoader>> loader = new WithSections<FakeLoader>;
    SymMgrObjectPtr<WithSections<FakeDebugInfoLoader>> debug = new WithSections<FakeDebugInfoLoader>;
    OptReportStorage storage{loader, debug};
};

TEST_F(OptReportStorageTest, AModuleWithoutReportsIsLookedAtOnce) {
    loader->add(".text", {});
    SymMgrObjectPtr<ReportIterator> reports;
    EXPECT_EQ(storage.reports(reports, nullptr, 0), status_False);
    EXPECT_FALSE(reports);
    const int asked = loader->sectionsAsked + debug->sectionsAsked;
    EXPECT_GT(asked, 0);
    EXPECT_EQ(storage.reports(reports, nullptr, 0), status_False);
    IOptReportEntry* entry = nullptr;
    EXPECT_EQ(storage.reportAt(at(1), entry), status_False);
    EXPECT_EQ(loader->sectionsAsked + debug->sectionsAsked, asked);
}

TEST_F(OptReportStorageTest, MakingAStoreReadsNothing) {
    EXPECT_EQ(loader->sectionsAsked, 0);
    IOptReportEntry* entry = nullptr;
    EXPECT_EQ(storage.reportAt(nullptr, entry), status_False);
    EXPECT_EQ(loader->sectionsAsked, 0) << "no address is nothing to look for";
}

TEST_F(OptReportStorageTest, SectionsAreKnownByTheirNames) {
    unsigned long long address = 0;
    for (const char* name : {".debug_opt_report", ".debug_opt_report.", ".debug_opt_report.text.main",
                             ".debug_opt_reports", ".debug_opt_repor", ".debug_opt", ".debug_o",
                             ".debug_info", "debug_opt_report", ".debug_opt_report_x", ""})
        loader->add(name, ReportTable().report(++address, *name ? name : "-").bytes());
    EXPECT_THAT(everything(),
                ElementsAre(Report{1, 0, ".debug_opt_report"}, Report{2, 0, ".debug_opt_report."},
                            Report{3, 0, ".debug_opt_report.text.main"}));
}

TEST_F(OptReportStorageTest, ReportsOfTheDebugFileAreReadWhereTheModuleHasNone) {
    loader->add(".text", {});
    debug->add(".debug_info", {}).add(".debug_opt_report", ReportTable().report(5, "debug").bytes());
    EXPECT_THAT(everything(), ElementsAre(Report{5, 0, "debug"}));
}

TEST_F(OptReportStorageTest, ReportsOfTheModuleHideThoseOfTheDebugFile) {
    loader->add(".debug_opt_report", ReportTable().report(1, "module").bytes());
    debug->add(".debug_opt_report", ReportTable().report(5, "debug").bytes());
    EXPECT_THAT(everything(), ElementsAre(Report{1, 0, "module"}));
    EXPECT_EQ(debug->sectionsAsked, 0);
}

TEST_F(OptReportStorageTest, WithoutADebugFileTheModuleAloneIsAsked) {
    OptReportStorage alone(loader, nullptr);
    SymMgrObjectPtr<ReportIterator> reports;
    EXPECT_EQ(alone.reports(reports, nullptr, 0), status_False);
}

TEST_F(OptReportStorageTest, ASectionThatCannotBeReadIsPassedOver) {
    for (const status_t status : {status_False, status_OutOfMemory}) {
        loader->add(".debug_opt_report", ReportTable().report(1, "unreadable").bytes());
        loader->sections.back()->status = status;
    }
    loader->add(".debug_opt_report.b", ReportTable().report(2, "b").bytes());
    debug->add(".debug_opt_report", ReportTable().report(5, "debug").bytes());
    EXPECT_THAT(everything(), ElementsAre(Report{2, 0, "b"}));
}

TEST_F(OptReportStorageTest, ABrokenSectionKeepsWhatWasReadAndIsReadOnce) {
    ReportTable broken;
    broken.report(1, "a").rawEntry(2, 0xFFFF, 0);
    loader->add(".debug_opt_report", broken.bytes());
    loader->add(".debug_opt_report.b", ReportTable().report(3, "b").bytes());
    expectLog(brokenTable);
    expectLog(brokenSection);
    EXPECT_THAT(everything(), ElementsAre(Report{1, 0, "a"}, Report{3, 0, "b"}));
    EXPECT_EQ(everything().size(), 2U);
    EXPECT_EQ(loader->sections[0]->reads, 1);
}

TEST_F(OptReportStorageTest, EachSectionHasItsOwnAddressAndBeginsWithoutAVersion) {
    loader->add(".debug_opt_report.a",
                ReportTable(kHoldsReports | kRelativeAnchors).version(4).report(0x10, "a").bytes(), 0x1000);
    loader->add(".debug_opt_report.b",
                ReportTable(kHoldsReports | kRelativeAnchors).report(0x10, "b").bytes(), 0x2000);
    EXPECT_THAT(everything(), ElementsAre(Report{0x1010, 4, "a"}, Report{0x2010, 0, "b"}));
}

TEST_F(OptReportStorageTest, ReportsAreSortedAndEqualAddressesStayInTheOrderOfReading) {
    loader->add(".debug_opt_report.a", ReportTable().report(9, "a9").report(3, "a3").report(9, "A9").bytes());
    loader->add(".debug_opt_report.b", ReportTable().report(3, "b3").report(1, "b1").bytes());
    EXPECT_THAT(everything(), ElementsAre(Report{1, 0, "b1"}, Report{3, 0, "a3"}, Report{3, 0, "b3"},
                                          Report{9, 0, "a9"}, Report{9, 0, "A9"}));
}

TEST_F(OptReportStorageTest, TheRepeatOfATableThatEndsInNoReportIsKeptTwice) {
    loader->add(".debug_opt_report", ReportTable().report(7, "a").version(2).bytes());
    EXPECT_THAT(everything(), ElementsAre(Report{7, 0, "a"}, Report{7, 0, "a"}));
}

TEST_F(OptReportStorageTest, TheReportAtAnAddressIsTheFirstOfThatAddress) {
    loader->add(".debug_opt_report",
                ReportTable().report(9, "1st").report(9, "2nd").report(9, "3rd").report(9, "4th").bytes());
    IOptReportEntry* entry = nullptr;
    EXPECT_EQ(storage.reportAt(at(9), entry), status_Ok);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(textOf(*entry), "1st");
    for (const unsigned long long other : {8, 10}) {
        entry = nullptr;
        EXPECT_EQ(storage.reportAt(at(other), entry), status_False);
        EXPECT_EQ(entry, nullptr);
    }
}

TEST_F(OptReportStorageTest, TheLimitIsExclusive) {
    loader->add(".debug_opt_report", ReportTable().report(10, "a").report(20, "b").report(30, "c").bytes());
    EXPECT_THAT(addressesIn(10, 20), ElementsAre(10, 20));
    EXPECT_THAT(addressesIn(10, 21), ElementsAre(10, 20, 30));
    EXPECT_THAT(addressesIn(11, 9), IsEmpty());
    EXPECT_THAT(addressesIn(11, 10), ElementsAre(20));
    EXPECT_THAT(addressesIn(10, 0), IsEmpty());
    EXPECT_THAT(addressesIn(31, 100), IsEmpty());
}

TEST_F(OptReportStorageTest, TheLimitIsExclusiveAtAddressZeroToo) {
    loader->add(".debug_opt_report", ReportTable().report(0, "zero").report(5, "five").bytes());
    EXPECT_THAT(addressesIn(0, 0), IsEmpty());
    EXPECT_THAT(addressesIn(0, 1), ElementsAre(0));
    EXPECT_THAT(addressesIn(0, 5), ElementsAre(0));
    EXPECT_THAT(addressesIn(0, 6), ElementsAre(0, 5));
}

TEST_F(OptReportStorageTest, ARangePastTheEndOfTheAddressSpaceHoldsNothing) {
    loader->add(".debug_opt_report", ReportTable().report(10, "a").report(0x7000, "b").bytes());
    EXPECT_THAT(addressesIn(10, ~0ULL - 10), ElementsAre(10, 0x7000));
    EXPECT_THAT(addressesIn(10, ~0ULL), IsEmpty());
}

TEST_F(OptReportStorageTest, TheLastAddressIsInNoRange) {
    expectLog("ASSERTION FAILED: 'anchor_address >= 0'", 2);
    loader->add(".debug_opt_report", ReportTable().report(~0ULL - 1, "a").report(~0ULL, "b").bytes());
    EXPECT_THAT(everything(), ElementsAre(Report{~0ULL - 1, 0, "a"}));
    IOptReportEntry* entry = nullptr;
    EXPECT_EQ(storage.reportAt(at(~0ULL), entry), status_Ok);
}

TEST_F(OptReportStorageTest, WithoutABeginTheSizeDoesNotCount) {
    loader->add(".debug_opt_report", ReportTable().report(10, "a").report(20, "b").bytes());
    for (const unsigned long long size : {0ULL, 15ULL, ~0ULL}) {
        SymMgrObjectPtr<ReportIterator> reports;
        EXPECT_EQ(storage.reports(reports, nullptr, size), status_Ok);
        EXPECT_EQ(rest(*reports).size(), 2U) << size;
    }
}

TEST_F(OptReportStorageTest, TheIteratorBeginsAgainAndStaysAtItsEnd) {
    loader->add(".debug_opt_report", ReportTable().report(10, "a").report(20, "b").report(30, "c").bytes());
    SymMgrObjectPtr<ReportIterator> reports;
    EXPECT_EQ(storage.reports(reports, at(15), 15), status_Ok);
    ASSERT_NE(reports->current(), nullptr);
    EXPECT_EQ(reports->current()->address(), 20U);
    EXPECT_FALSE(reports->next());
    EXPECT_EQ(reports->current(), nullptr);
    EXPECT_FALSE(reports->next());
    reports->reset();
    ASSERT_NE(reports->current(), nullptr);
    EXPECT_EQ(reports->current()->address(), 20U);
}

TEST_F(OptReportStorageTest, AnIteratorWithoutAStoreIsReported) {
    expectLog("ASSERTION FAILED: 'm_storage'");
    const SymMgrObjectPtr<ReportIterator> reports = new OptReportStorageIterator(nullptr, 0, ~0ULL);
    EXPECT_EQ(reports->current(), nullptr);
    EXPECT_FALSE(reports->next());
    reports->reset();
    EXPECT_EQ(reports->current(), nullptr);
}

/// Sections that together are larger than the file they come from share bytes; a file of megabytes could have
/// gigabytes read that way.
TEST_F(OptReportStorageTest, SectionsLargerThanTheirFileAreNotRead) {
    orn_test::TempDir directory;
    const Bytes table = ReportTable().report(1, "a").bytes();
    loader->path = directory.write("module", std::string(table.size() * 2 + 10, 'x'));
    for (int i = 0; i < 4; ++i)
        loader->add(".debug_opt_report", table);
    EXPECT_EQ(everything().size(), 2U);
    EXPECT_EQ(loader->sections[3]->reads, 0);
}

TEST_F(OptReportStorageTest, NamesLargerThanTheirFileEndTheWalk) {
    orn_test::TempDir directory;
    loader->path = directory.write("module", std::string(1000, 'x'));
    const Bytes table = ReportTable().report(1, "a").bytes();
    loader->add(".debug_opt_report", table);
    for (int i = 0; i < 40; ++i)
        loader->add(".debug_opt_report." + std::string(1000, 'x'), {});
    loader->add(".debug_opt_report", table);
    EXPECT_EQ(everything().size(), 1U);
    EXPECT_LT(loader->sectionsAsked, 20);
}

// --- The bank

class OptReportBankTest : public OrnTest {
protected:
    static orn_test::ElfAssembler module() {
        orn_test::ElfAssembler elf;
        const auto text =
            elf.section(".text", SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR).address(0x401000).zeros(0x1000);
        elf.load({text});
        return elf;
    }
    SymMgrObjectPtr<IModuleSymbolBank> load(const std::string& path) {
        SymMgrObjectPtr<ISymbolManager> manager;
        EXPECT_EQ(ISymbolManager::create(manager), status_Ok);
        SymMgrObjectPtr<IModuleSymbolBank> bank;
        EXPECT_EQ(manager->loadSymbolsFromModule(path.c_str(), nullptr, bank, arch_unknown, false, nullptr),
                  status_Ok);
        return bank;
    }
    static std::vector<Report> reportsOf(IModuleSymbolBank& bank) {
        SymMgrObjectPtr<ReportIterator> reports;
        const status_t status = bank.optReports(reports, nullptr, 0);
        EXPECT_EQ(status, reports ? status_Ok : status_False);
        return reports ? rest(*reports) : std::vector<Report>();
    }

    orn_test::TempDir m_directory;
};

TEST_F(OptReportBankTest, ReportsOfAModuleAreFoundAndFetched) {
    orn_test::ElfAssembler elf = module();
    elf.section(".debug_opt_report")
        .append(
            ReportTable().version(2).report(0x401010, "loop vectorised").report(0x401020, "inlined").bytes());
    const std::string path = m_directory.path("module");
    elf.write(path);
    const auto bank = load(path);
    EXPECT_THAT(reportsOf(*bank),
                ElementsAre(Report{0x401010, 2, "loop vectorised"}, Report{0x401020, 2, "inlined"}));
    SymMgrObjectPtr<IAddress> address;
    ASSERT_EQ(bank->addressFromPseudoAddress(0x401020, address), status_Ok);
    IOptReportEntry* entry = nullptr;
    EXPECT_EQ(bank->optReportAt(address, entry), status_Ok);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(textOf(*entry), "inlined");
    SymMgrObjectPtr<ReportIterator> reports;
    EXPECT_EQ(bank->optReports(reports, address, 1), status_Ok);
    EXPECT_EQ(rest(*reports).size(), 1U);
}

TEST_F(OptReportBankTest, AModuleWithoutReportsAnswersFalse) {
    const std::string path = m_directory.path("module");
    module().write(path);
    const auto bank = load(path);
    EXPECT_THAT(reportsOf(*bank), IsEmpty());
}

/// A linked section of an executable is not in memory, so its address is 0 and anchors are whole addresses;
/// in a section that is, they count from the table.
TEST_F(OptReportBankTest, RelativeAnchorsCountFromTheSectionInMemory) {
    orn_test::ElfAssembler elf = module();
    const auto section = elf.section(".debug_opt_report", SHT_PROGBITS, SHF_ALLOC)
                             .address(0x403000)
                             .append(ReportTable(kHoldsReports | kRelativeAnchors | kShortAnchors)
                                         .report(static_cast<std::uint32_t>(-0x2000), "main")
                                         .bytes());
    elf.load({section});
    const std::string path = m_directory.path("module");
    elf.write(path);
    EXPECT_THAT(reportsOf(*load(path)), ElementsAre(Report{0x401000, 0, "main"}));
}

TEST_F(OptReportBankTest, ReportsInTheDebugFileAloneAreFoundThroughIt) {
    orn_test::ElfAssembler debug = module();
    debug.section(".debug_info").zeros(16);
    debug.section(".debug_opt_report").append(ReportTable().report(0x401030, "from the debug file").bytes());
    debug.write(m_directory.path("module.debug"));
    orn_test::ElfAssembler elf = module();
    elf.debugLink("module.debug", orn_test::debugLinkCrc(debug.build()));
    const std::string path = m_directory.path("module");
    elf.write(path);
    const auto bank = load(path);
    EXPECT_EQ(bank->symFileName(), m_directory.path("module.debug"));
    EXPECT_THAT(reportsOf(*bank), ElementsAre(Report{0x401030, 0, "from the debug file"}));
}

TEST_F(OptReportBankTest, CompressedReportsOfTheDebugFileAreFound) {
    orn_test::ElfAssembler debug = module();
    debug.section(".debug_info").zeros(16);
    ReportTable table;
    for (unsigned i = 0; i < 100; ++i)
        table.report(0x401000 + i, "the same text again and again");
    debug.compressedSection(".debug_opt_report", table.bytes());
    debug.write(m_directory.path("module.debug"));
    orn_test::ElfAssembler elf = module();
    elf.debugLink("module.debug", orn_test::debugLinkCrc(debug.build()));
    const std::string path = m_directory.path("module");
    elf.write(path);
    EXPECT_EQ(reportsOf(*load(path)).size(), 100U);
}

TEST_F(OptReportBankTest, ReportsWithoutMemoryAreReported) {
    if (!canFailAllocations())
        GTEST_SKIP() << "allocations cannot be made to fail here";
    orn_test::ElfAssembler elf = module();
    elf.section(".debug_opt_report").append(ReportTable().report(0x401010, "a").bytes());
    const std::string path = m_directory.path("module");
    elf.write(path);
    const auto bank = load(path);
    SymMgrObjectPtr<IAddress> address;
    ASSERT_EQ(bank->addressFromPseudoAddress(0x401010, address), status_Ok);
    SymMgrObjectPtr<ReportIterator> reports;
    expectLog("Out of memory");
    {
        const FailingAllocation failure(1);
        EXPECT_EQ(bank->optReports(reports, nullptr, 0), status_OutOfMemory);
    }
    EXPECT_FALSE(reports);
    IOptReportEntry* entry = nullptr;
    EXPECT_EQ(bank->optReportAt(address, entry), status_False)
        << "sections are read once, whatever comes of it";
}

} // namespace
} // namespace ORN_3_30::test
