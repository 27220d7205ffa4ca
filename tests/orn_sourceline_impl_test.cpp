// Source files, locations and lines: what they carry and what they ask their resolver.

#include "support/line_fakes.h"
#include "support/orn_fixture.h"

#include "orn_linetable_impl.h"
#include "orn_sourceline_impl.h"

#include <stdexcept>

namespace ORN_3_30::test {
namespace {

using Lines = SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>;

/// Records what it is asked and gives what the test wants.
class RecordingResolver : public SymMgrObject<ISrcLineResolver> {
public:
    RecordingResolver() : SymMgrObject<ISrcLineResolver>(nullptr) {}

    void sourceLocationAt(SymMgrObjectPtr<ISourceLocation>&, unsigned long long, unsigned long long,
                          ILineTable*, ISourceLocationSelector*) override {}
    status_t sourceLines(Lines& out, unsigned long long unitId, unsigned fileId, unsigned long long low,
                         unsigned long long high, ILineTable* table) override {
        if (isOutOfMemory)
            throw std::bad_alloc();
        queries.push_back({low, high, unitId, fileId});
        tables.push_back(table);
        if (lines)
            out = lines;
        return status;
    }
    unsigned fileCount() override { return 0; }
    ISourceFile* fileAt(unsigned index) override {
        ++filesAsked;
        if (isBroken)
            throw std::runtime_error("broken");
        return index == knownFile ? file : nullptr;
    }
    ICompUnitDetails* compUnitDetails(unsigned long long) override { return nullptr; }
    int reserved() override { return 0; }
    void noteAddress(unsigned long long) override {}
    ILineTable* lineTable() override { return nullptr; }

    std::vector<LineQuery> queries;
    std::vector<ILineTable*> tables;
    Lines lines;
    status_t status = status_Ok;
    ISourceFile* file = nullptr;
    unsigned knownFile = 3;
    int filesAsked = 0;
    bool isBroken = false;
    bool isOutOfMemory = false;
};

/// Two lines.
class TwoLines : public SymMgrObject<IIterator<SymMgrObjectPtr<ISourceLine>>> {
public:
    TwoLines(FakeModule& module, ISrcLineResolver& resolver)
        : SymMgrObject(nullptr),
          m_lines{new SourceLine(&module, &resolver, 7, 3, 10, 0, 0, 0x1000, 0x1004),
                  new SourceLine(&module, &resolver, 7, 3, 20, 0, 0, 0x1004, 0x1008)} {}

    SymMgrObjectPtr<ISourceLine> current() override { return m_cursor < 2 ? m_lines[m_cursor] : nullptr; }
    bool next() override { return ++m_cursor < 2; }
    void reset() override { m_cursor = 0; }

private:
    std::size_t m_cursor = 0;
    std::array<SymMgrObjectPtr<ISourceLine>, 2> m_lines;
};

class SourceTest : public OrnTest {
protected:
    SourceTest() : module(new FakeModule(0x400000)), resolver(new RecordingResolver) {}

    SymMgrObjectPtr<SourceFile> newFile() { return new SourceFile(resolver, 3, "/src/a.c", 111, 222); }
    SymMgrObjectPtr<ISourceLine> newLine(unsigned long long low, unsigned long long high) {
        return new SourceLine(module, resolver, 7, 3, 10, 5, 99, low, high);
    }

    SymMgrObjectPtr<FakeModule> module;
    SymMgrObjectPtr<RecordingResolver> resolver;
};

using SourceFileTest = SourceTest;
using SourceLocationTest = SourceTest;
using SourceLineTest = SourceTest;

TEST_F(SourceFileTest, CarriesWhatTheDebugInformationSays) {
    const auto file = newFile();
    EXPECT_STREQ("/src/a.c", file->name());
    EXPECT_EQ(3u, file->id());
    EXPECT_EQ(111u, file->modificationTime());
    EXPECT_EQ(222u, file->length());
    EXPECT_EQ(0u, file->timestamp());
}

TEST_F(SourceFileTest, AnEmptyDirectoryIsNull) {
    EXPECT_EQ(nullptr, newFile()->directory());
}

TEST_F(SourceFileTest, LimitsThatAreNullAreOpen) {
    resolver->lines = new TwoLines(*module, *resolver);
    Lines lines;
    EXPECT_EQ(status_Ok, newFile()->sourceLines(lines, 7, nullptr, nullptr));
    EXPECT_NE(nullptr, lines);
    ASSERT_EQ(1u, resolver->queries.size());
    EXPECT_EQ(0u, resolver->queries[0].low);
    EXPECT_EQ(~0ULL, resolver->queries[0].high);
    EXPECT_EQ(7u, resolver->queries[0].unitId);
    EXPECT_EQ(3u, resolver->queries[0].fileId);
    EXPECT_EQ(nullptr, resolver->tables[0]);
}

TEST_F(SourceFileTest, LimitsAreReadFromTheAddresses) {
    const SymMgrObjectPtr<IAddress> low = new Address(module, 0x1000, nullptr);
    const SymMgrObjectPtr<IAddress> high = new Address(module, 0x2000, nullptr);
    Lines lines;
    EXPECT_EQ(status_False, newFile()->sourceLines(lines, 7, low, high));
    ASSERT_EQ(1u, resolver->queries.size());
    EXPECT_EQ(0x1000u, resolver->queries[0].low);
    EXPECT_EQ(0x2000u, resolver->queries[0].high);
}

TEST_F(SourceFileTest, NoIteratorMeansNo) {
    Lines lines;
    EXPECT_EQ(status_False, newFile()->sourceLines(lines, 7, nullptr, nullptr));
    EXPECT_EQ(nullptr, lines);
}

TEST_F(SourceFileTest, AFailureIsPassedOnAndLeavesTheOutput) {
    const Lines before = new TwoLines(*module, *resolver);
    Lines lines = before;
    resolver->status = status_NoDebugInfo;
    EXPECT_EQ(status_NoDebugInfo, newFile()->sourceLines(lines, 7, nullptr, nullptr));
    EXPECT_EQ(before.get(), lines.get());
}

TEST_F(SourceFileTest, RunningOutOfMemoryIsAStatus) {
    resolver->isOutOfMemory = true;
    expectLog("Out of memory");
    Lines lines;
    EXPECT_EQ(status_OutOfMemory, newFile()->sourceLines(lines, 7, nullptr, nullptr));
}

TEST_F(SourceLocationTest, CarriesItsPosition) {
    const SymMgrObjectPtr<ISourceLocation> location = new SourceLocation(resolver, 7, 3, 10, 5, 99);
    EXPECT_EQ(7u, location->symbolId());
    EXPECT_EQ(10u, location->line());
    EXPECT_EQ(5u, location->column());
    EXPECT_EQ(99u, location->extra());
}

TEST_F(SourceLocationTest, TheFileIsAskedForOnce) {
    const auto file = newFile();
    resolver->file = file.get();
    const SymMgrObjectPtr<ISourceLocation> location = new SourceLocation(resolver, 7, 3, 10, 5, 99);
    EXPECT_EQ(0, resolver->filesAsked);
    EXPECT_EQ(file.get(), location->file());
    EXPECT_EQ(file.get(), location->file());
    EXPECT_EQ(1, resolver->filesAsked);
}

TEST_F(SourceLocationTest, AFileThatIsNotKnownIsAskedForAgain) {
    const auto file = newFile();
    const SymMgrObjectPtr<ISourceLocation> location = new SourceLocation(resolver, 7, 3, 10, 5, 99);
    EXPECT_EQ(nullptr, location->file());
    resolver->file = file.get();
    EXPECT_EQ(file.get(), location->file());
}

TEST_F(SourceLocationTest, AnExceptionOfTheResolverIsReportedAndGivesNoFile) {
    const SymMgrObjectPtr<ISourceLocation> location = new SourceLocation(resolver, 7, 3, 10, 5, 99);
    resolver->isBroken = true;
    expectLog("Unable to get source file 3: broken");
    EXPECT_EQ(nullptr, location->file());
    EXPECT_EQ(1u, messages(errorLevel).size());
    const auto file = newFile();
    resolver->isBroken = false;
    resolver->file = file.get();
    EXPECT_EQ(file.get(), location->file());
}

TEST_F(SourceLineTest, CarriesItsLocationAndInterval) {
    const auto line = newLine(0x401000, 0x401010);
    EXPECT_EQ(16u, line->size());
    SymMgrObjectPtr<IAddress> address;
    line->address(address);
    EXPECT_EQ(0x401000u, address->pseudoAddr());
    EXPECT_EQ(0x1000u, line->relativeAddress());
    EXPECT_EQ(7u, line->location()->symbolId());
    EXPECT_EQ(10u, line->location()->line());
    EXPECT_EQ(5u, line->location()->column());
    EXPECT_EQ(99u, line->location()->extra());
}

TEST_F(SourceLineTest, ALineAtTheImageBaseHasTheRelativeAddress0) {
    EXPECT_EQ(0u, newLine(0x400000, 0x400010)->relativeAddress());
}

TEST_F(SourceLineTest, ALineWithLowEqualToHighHasSize0) {
    EXPECT_EQ(0u, newLine(0x401000, 0x401000)->size());
}

TEST_F(SourceLineTest, SharesALocationThatIsGivenToIt) {
    const SymMgrObjectPtr<ISourceLocation> location = new SourceLocation(resolver, 7, 3, 10, 5, 99);
    const SymMgrObjectPtr<ISourceLine> line = new SourceLine(module, location, 0x401000, 0x401004);
    EXPECT_EQ(location.get(), line->location());
    EXPECT_EQ(4u, line->size());
}

TEST_F(SourceLineTest, ALocationOutlivesItsLine) {
    SymMgrObjectPtr<ISourceLocation> location = newLine(0x401000, 0x401004)->location();
    EXPECT_EQ(10u, location->line());
}

TEST_F(SourceLineTest, AnIteratorOfLocationsFollowsTheLines) {
    const Lines lines = new TwoLines(*module, *resolver);
    const SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLocation>>> locations =
        new SourceLineToLocIterator(lines);
    EXPECT_EQ(10u, locations->current()->line());
    EXPECT_TRUE(locations->next());
    EXPECT_EQ(20u, locations->current()->line());
    EXPECT_FALSE(locations->next());
    EXPECT_EQ(nullptr, locations->current());
    locations->reset();
    EXPECT_EQ(10u, locations->current()->line());
}

} // namespace
} // namespace ORN_3_30::test
