// Line resolvers: loading before asking, picking among several lines, source files and their ids.

#include "support/line_fakes.h"
#include "support/orn_fixture.h"

#include "orn_dil.h"
#include "orn_linetable_impl.h"
#include "orn_sourceline_impl.h"

#include <atomic>
#include <string>
#include <thread>

namespace ORN_3_30::test {
namespace {

using testing::ElementsAre;

constexpr unsigned long long everyUnit = ~0ULL;
constexpr unsigned everyFile = ~0U;

using Lines = SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>;
using Locations = SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLocation>>>;

/// A resolver with a table of its own.
class TableResolver : public LineResolver {
public:
    TableResolver(IFileFormatLoader* loader, IDebugInfoLoader* debugLoader, IScope* scope, ILock* lock)
        : LineResolver(loader, debugLoader, scope, lock) {
        setLineTable(ILineTable::create(*loader, *this));
    }
};

/// Counts how deep it is held.
class CountingLock : public ILock {
public:
    void lock() override { ++depth; }
    void unlock() override { --depth; }
    int depth = 0;
};

class LineResolverTest : public OrnTest {
protected:
    LineResolverTest()
        : module(new FakeModule),
          debugInfo(new FakeDebugInfo),
          scope(new FakeLineScope(*module)),
          resolver(new TableResolver(module, debugInfo, scope, &lock)) {
        resolver->addFile("/src/a.c", 0, 0);
    }

    void add(unsigned line, unsigned long long low, unsigned long long high, unsigned long long unitId = 7) {
        resolver->lineTable()->addLineRange(unitId, 0, line, 0, low, high - low, 0);
    }
    SymMgrObjectPtr<ISourceLocation> locationAt(unsigned long long address,
                                                ISourceLocationSelector* selector = nullptr) {
        SymMgrObjectPtr<ISourceLocation> location;
        resolver->sourceLocationAt(location, address, everyUnit, nullptr, selector);
        return location;
    }

    CountingLock lock;
    SymMgrObjectPtr<FakeModule> module;
    SymMgrObjectPtr<FakeDebugInfo> debugInfo;
    SymMgrObjectPtr<FakeLineScope> scope;
    SymMgrObjectPtr<TableResolver> resolver;
};

// Picking a location

TEST_F(LineResolverTest, OfTwoLinesAtAnAddressTheOneThatStartsLaterAnswers) {
    add(10, 0x1000, 0x1020);
    add(20, 0x1010, 0x1020);
    EXPECT_EQ(20u, locationAt(0x1018)->line());
    EXPECT_EQ(10u, locationAt(0x1008)->line());
}

TEST_F(LineResolverTest, OfTwoLinesWithOneStartTheFirstAnswers) {
    add(20, 0x1000, 0x1020);
    add(10, 0x1000, 0x1020);
    EXPECT_EQ(10u, locationAt(0x1008)->line());
}

TEST_F(LineResolverTest, AnAddressWithoutLineHasNoLocation) {
    add(10, 0x1000, 0x1020);
    SymMgrObjectPtr<ISourceLocation> location = new SourceLocation(resolver, 0, 0, 1, 0, 0);
    resolver->sourceLocationAt(location, 0x1020, everyUnit, nullptr, nullptr);
    EXPECT_EQ(nullptr, location);
}

TEST_F(LineResolverTest, AFailedLoadGivesNoLocation) {
    add(10, 0x1000, 0x1020);
    debugInfo->status = status_BadDebugInfo;
    EXPECT_EQ(nullptr, locationAt(0x1000));
}

TEST_F(LineResolverTest, ALineWinsAgainstACallThatStartsWithIt) {
    add(30, 0x1000, 0x1004);
    const SymMgrObjectPtr<ISourceLocation> site = new SourceLocation(resolver, 7, 0, 10, 0, 0);
    const SymMgrObjectPtr<FakeInstance> instance = new FakeInstance(site);
    scope->pieces = {{0x1000, 0x2000, nullptr, {{0x1000, 0x1010, instance}}}};
    EXPECT_EQ(30u, locationAt(0x1002)->line());
}

TEST_F(LineResolverTest, ACallThatStartsLaterThanTheLineAnswers) {
    add(30, 0x1000, 0x1010);
    const SymMgrObjectPtr<ISourceLocation> site = new SourceLocation(resolver, 7, 0, 10, 0, 0);
    const SymMgrObjectPtr<FakeInstance> instance = new FakeInstance(site);
    scope->pieces = {{0x1000, 0x2000, nullptr, {{0x1004, 0x1010, instance}}}};
    EXPECT_EQ(10u, locationAt(0x1008)->line());
    EXPECT_EQ(30u, locationAt(0x1002)->line());
}

TEST_F(LineResolverTest, ALineIsPickedAsItsLocationIs) {
    add(10, 0x1000, 0x1020);
    add(20, 0x1010, 0x1020);
    SymMgrObjectPtr<ISourceLine> line;
    resolver->sourceLineAt(line, 0x1018, everyUnit, nullptr);
    ASSERT_NE(nullptr, line);
    EXPECT_EQ(20u, line->location()->line());
    resolver->sourceLineAt(line, 0x1020, everyUnit, nullptr);
    EXPECT_EQ(nullptr, line);
}

/// Gives the last candidate.
class LastLocation : public ISourceLocationSelector {
public:
    SymMgrObjectPtr<ISourceLocation> select(Locations& candidates) override {
        SymMgrObjectPtr<ISourceLocation> chosen;
        for (auto location = candidates->current(); location;
             location = candidates->next() ? candidates->current() : nullptr) {
            lines.push_back(location->line());
            chosen = location;
        }
        return chosen;
    }
    std::vector<unsigned> lines;
};

TEST_F(LineResolverTest, ASelectorChoosesAmongAllLinesAndCalls) {
    add(30, 0x1000, 0x1010);
    add(31, 0x1002, 0x1010);
    const SymMgrObjectPtr<ISourceLocation> site = new SourceLocation(resolver, 7, 0, 10, 0, 0);
    const SymMgrObjectPtr<FakeInstance> instance = new FakeInstance(site);
    scope->pieces = {{0x1000, 0x2000, nullptr, {{0x1000, 0x1010, instance}}}};
    LastLocation selector;
    EXPECT_EQ(31u, locationAt(0x1008, &selector)->line());
    EXPECT_THAT(selector.lines, ElementsAre(30, 10, 31));
}

/// Has no choice to offer.
class NoLocation : public ISourceLocationSelector {
public:
    SymMgrObjectPtr<ISourceLocation> select(Locations&) override { return nullptr; }
};

TEST_F(LineResolverTest, ASelectorMayRefuseAll) {
    add(30, 0x1000, 0x1010);
    NoLocation selector;
    EXPECT_EQ(nullptr, locationAt(0x1000, &selector));
}

TEST_F(LineResolverTest, ASelectorIsNotAskedAfterAFailedLoad) {
    debugInfo->status = status_NoDebugInfo;
    LastLocation selector;
    EXPECT_EQ(nullptr, locationAt(0x1000, &selector));
    EXPECT_TRUE(selector.lines.empty());
}

/// Says that it moved on when it did not.
class HollowLines : public SymMgrObject<IIterator<SymMgrObjectPtr<ISourceLine>>> {
public:
    explicit HollowLines(std::vector<SymMgrObjectPtr<ISourceLine>> lines)
        : SymMgrObject(nullptr), m_lines(std::move(lines)) {}
    SymMgrObjectPtr<ISourceLine> current() override { return m_lines[m_cursor]; }
    bool next() override { return m_cursor + 1 < m_lines.size() && ++m_cursor; }
    void reset() override { m_cursor = 0; }

private:
    std::vector<SymMgrObjectPtr<ISourceLine>> m_lines;
    std::size_t m_cursor = 0;
};

class HollowResolver : public TableResolver {
public:
    using TableResolver::TableResolver;
    status_t sourceLinesInRange(Lines& out, unsigned long long, unsigned long long, unsigned long long,
                                unsigned, ILineTable*) override {
        out = new HollowLines({nullptr, nullptr, lineFrom(0x1000, 10)});
        if (hasFirst)
            out = new HollowLines({lineFrom(0x1000, 5), nullptr, lineFrom(0x1004, 10)});
        return status_Ok;
    }
    SymMgrObjectPtr<ISourceLine> lineFrom(unsigned long long low, unsigned line) {
        return new SourceLine(loader(), this, 7, 0, line, 0, 0, low, low + 8);
    }
    bool hasFirst = true;
};

TEST_F(LineResolverTest, ANullLineIsReportedAndPassedOver) {
    const SymMgrObjectPtr<HollowResolver> hollow = new HollowResolver(module, debugInfo, scope, nullptr);
    expectLog("ASSERTION FAILED: 'srcLineIt->current()!=NULL'");
    SymMgrObjectPtr<ISourceLocation> location;
    hollow->sourceLocationAt(location, 0x1006, everyUnit, nullptr, nullptr);
    ASSERT_NE(nullptr, location);
    EXPECT_EQ(10u, location->line());
    EXPECT_THAT(messages(errorLevel), ElementsAre(testing::HasSubstr("orn_dil")));
}

// Quirk: a line that comes first stays in place only against a line; against nothing nothing wins.
TEST_F(LineResolverTest, WithoutAFirstLineNoOtherWins) {
    const SymMgrObjectPtr<HollowResolver> hollow = new HollowResolver(module, debugInfo, scope, nullptr);
    hollow->hasFirst = false;
    expectLog("ASSERTION FAILED: 'srcLineIt->current()!=NULL'");
    SymMgrObjectPtr<ISourceLocation> location;
    hollow->sourceLocationAt(location, 0x1006, everyUnit, nullptr, nullptr);
    EXPECT_EQ(nullptr, location);
}

// Loading

TEST_F(LineResolverTest, AQueryForEveryUnitLoadsTheWholeTableFirst) {
    FakeLineUnit& unit = debugInfo->addUnit(0x40);
    unit.program = [this] { add(10, 0x1000, 0x1010, 0x40); };
    for (const unsigned long long unitId : {0ULL, 0xFFFFFFFFULL, ~0ULL}) {
        Lines lines;
        EXPECT_EQ(status_Ok, resolver->sourceLinesInRange(lines, 0x1000, 0x1000, unitId, everyFile, nullptr));
        ASSERT_NE(nullptr, lines->current());
        EXPECT_EQ(10u, lines->current()->location()->line());
    }
    EXPECT_EQ(3, debugInfo->loads);
    EXPECT_EQ(resolver->lineTable(), debugInfo->loadedTable);
}

TEST_F(LineResolverTest, AQueryForOneUnitLoadsThatUnitAlone) {
    FakeLineUnit& unit = debugInfo->addUnit(0x40);
    FakeLineUnit& other = debugInfo->addUnit(0x80);
    unit.program = [this] { add(10, 0x1000, 0x1010, 0x40); };
    Lines lines;
    EXPECT_EQ(status_Ok, resolver->sourceLines(lines, 0x40, everyFile, 0x1000, 0x1010, nullptr));
    ASSERT_NE(nullptr, lines);
    EXPECT_NE(nullptr, lines->current());
    EXPECT_EQ(1, unit.loads);
    EXPECT_EQ(0, other.loads);
    EXPECT_EQ(0, debugInfo->loads);
}

TEST_F(LineResolverTest, AQueryForAUnitThatIsNotKnownLoadsAll) {
    Lines lines;
    EXPECT_EQ(status_Ok, resolver->sourceLines(lines, 0x40, everyFile, 0x1000, 0x1010, nullptr));
    EXPECT_EQ(1, debugInfo->loads);
    EXPECT_EQ(nullptr, lines->current());
}

TEST_F(LineResolverTest, AStatusOtherThanOkIsReturnedWithoutIterator) {
    for (const status_t status : {status_False, status_NoDebugInfo}) {
        debugInfo->status = status;
        Lines lines;
        EXPECT_EQ(status, resolver->sourceLinesInRange(lines, 0, ~0ULL, everyUnit, everyFile, nullptr));
        EXPECT_EQ(nullptr, lines);
        FakeLineUnit& unit = debugInfo->addUnit(0x40);
        unit.status = status;
        EXPECT_EQ(status, resolver->sourceLinesInRange(lines, 0, ~0ULL, 0x40, everyFile, nullptr));
        EXPECT_EQ(nullptr, lines);
    }
}

TEST_F(LineResolverTest, ATableThatIsGivenIsAskedInsteadOfItsOwn) {
    add(10, 0x1000, 0x1010);
    const SymMgrObjectPtr<ILineTable> other = ILineTable::create(*module, *resolver);
    other->addLineRange(7, 0, 99, 0, 0x1000, 0x10, 0);
    SymMgrObjectPtr<ISourceLocation> location;
    resolver->sourceLocationAt(location, 0x1000, everyUnit, other, nullptr);
    EXPECT_EQ(99u, location->line());
}

TEST_F(LineResolverTest, LoadsRunUnderTheLoadingLock) {
    FakeLineUnit& unit = debugInfo->addUnit(0x40);
    int depth = 0;
    unit.program = [this, &depth] { depth = lock.depth; };
    EXPECT_EQ(nullptr, locationAt(0x1000));
    EXPECT_EQ(1, depth);
    EXPECT_EQ(0, lock.depth);
}

TEST_F(LineResolverTest, ThreadsMayLoadUnitsAndAskForLinesAtTheSameTime) {
    constexpr unsigned units = 40;
    OrnLock loadLock;
    resolver->setScope(nullptr, &loadLock);
    for (unsigned i = 1; i <= units; ++i) {
        FakeLineUnit& unit = debugInfo->addUnit(i * 0x100);
        unit.program = [this, i, &unit] {
            const unsigned fileId = resolver->registerFile(unit, "/src/" + std::to_string(i), 0, 0);
            for (unsigned row = 0; row < 64; ++row)
                resolver->lineTable()->addLineRange(i * 0x100, fileId, row, 0, i * 0x1000 + row, 1, 0);
        };
    }
    std::atomic<unsigned> found = 0;
    const auto ask = [this, &found](unsigned first) {
        for (unsigned step = 0; step < units; ++step) {
            const unsigned i = (first + step * 7) % units + 1;
            SymMgrObjectPtr<ISourceLocation> location;
            resolver->sourceLocationAt(location, i * 0x1000 + 20, i * 0x100, nullptr, nullptr);
            if (location && location->line() == 20 && location->file()->name() == "/src/" + std::to_string(i))
                ++found;
        }
    };
    std::vector<std::thread> threads;
    for (unsigned thread = 0; thread < 4; ++thread)
        threads.emplace_back(ask, thread * 11);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(4 * units, found);
}

TEST_F(LineResolverTest, ANewScopeTakesThePlaceOfTheOld) {
    CountingLock other;
    FakeLineUnit& unit = debugInfo->addUnit(0x40);
    int depth = 0;
    unit.program = [&other, &depth] { depth = other.depth; };
    resolver->setScope(nullptr, &other);
    EXPECT_EQ(nullptr, locationAt(0x1000));
    EXPECT_EQ(1, depth);
    EXPECT_EQ(&other, resolver->loadLock());
}

TEST_F(LineResolverTest, DetailsOfAUnitComeFromTheDebugInformation) {
    FakeLineUnit& unit = debugInfo->addUnit(0x40);
    EXPECT_EQ(&unit, resolver->compUnitDetails(0x40));
    EXPECT_EQ(nullptr, resolver->compUnitDetails(0x41));
}

TEST_F(LineResolverTest, TheOtherOperationsDoNothing) {
    EXPECT_EQ(0, resolver->reserved());
    resolver->noteAddress(0x1000);
    resolver->addLineRange(7, 0, 10, 0, 0x1000, 4, 0);
    EXPECT_EQ(nullptr, locationAt(0x1000));
}

// Source files

TEST_F(LineResolverTest, ANewResolverHasNoFiles) {
    const SymMgrObjectPtr<LineResolver> empty = new LineResolver(module, debugInfo, scope, nullptr);
    EXPECT_EQ(0u, empty->fileCount());
    EXPECT_EQ(nullptr, empty->fileAt(0));
    EXPECT_EQ(nullptr, empty->lineTable());
}

TEST_F(LineResolverTest, EqualPathsShareAnIdAndTheFirstTimesStay) {
    EXPECT_EQ(1u, resolver->addFile("/src/b.c", 111, 222));
    EXPECT_EQ(2u, resolver->addFile("/src/B.c", 0, 0));
    EXPECT_EQ(1u, resolver->addFile("/src/b.c", 333, 444));
    EXPECT_EQ(3u, resolver->fileCount());
    ISourceFile* file = resolver->fileAt(1);
    EXPECT_STREQ("/src/b.c", file->name());
    EXPECT_EQ(1u, file->id());
    EXPECT_EQ(111u, file->modificationTime());
    EXPECT_EQ(222u, file->length());
    EXPECT_EQ(nullptr, resolver->fileAt(3));
}

TEST_F(LineResolverTest, AFileIsFoundByItsPath) {
    EXPECT_EQ(resolver->fileAt(0), resolver->fileByPath("/src/a.c"));
    EXPECT_EQ(nullptr, resolver->fileByPath("/src/a"));
}

TEST_F(LineResolverTest, AUnitIsToldTheIdOfEachOfItsFiles) {
    FakeLineUnit& unit = debugInfo->addUnit(0x40);
    EXPECT_EQ(1u, resolver->registerFile(unit, "/src/b.c", 0, 0));
    EXPECT_EQ(0u, resolver->registerFile(unit, "/src/a.c", 0, 0));
    EXPECT_EQ(1u, resolver->registerFile(unit, "/src/b.c", 0, 0));
    EXPECT_THAT(unit.fileIds, ElementsAre(1, 0, 1));
}

TEST_F(LineResolverTest, TheIdOfAUnitsFileComesFromItsProgram) {
    FakeLineUnit& unit = debugInfo->addUnit(0x40);
    int depth = 0;
    unit.program = [this, &unit, &depth] {
        depth = lock.depth;
        resolver->registerFile(unit, "/src/b.c", 0, 0);
    };
    EXPECT_EQ(1, resolver->fileIdOf(1, unit));
    EXPECT_EQ(1, depth);
    EXPECT_EQ(-1, resolver->fileIdOf(0, unit));
    EXPECT_EQ(-1, resolver->fileIdOf(2, unit));
}

TEST_F(LineResolverTest, AFileNumberOfMoreThan32BitsIsNoFile) {
    FakeLineUnit& unit = debugInfo->addUnit(0x40);
    unit.fileIds = {0};
    EXPECT_EQ(0, resolver->fileIdOf(1, unit));
    EXPECT_EQ(-1, resolver->fileIdOf(0x100000001, unit));
}

TEST_F(LineResolverTest, AFilesLinesComeThroughItsResolver) {
    add(10, 0x1000, 0x1010);
    add(11, 0x1010, 0x1020);
    resolver->addFile("/src/b.c", 0, 0);
    resolver->lineTable()->addLineRange(7, 1, 99, 0, 0x1000, 0x10, 0);
    Lines lines;
    EXPECT_EQ(status_Ok, resolver->fileAt(0)->sourceLines(lines, everyUnit, nullptr, nullptr));
    std::vector<unsigned> numbers;
    for (auto line = lines->current(); line; line = lines->next() ? lines->current() : nullptr)
        numbers.push_back(line->location()->line());
    EXPECT_THAT(numbers, ElementsAre(10, 11));
}

} // namespace
} // namespace ORN_3_30::test
