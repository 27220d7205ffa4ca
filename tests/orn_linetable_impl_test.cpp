// The line table: what it stores, what it answers and in which order.

#include "support/allocation.h"
#include "support/line_fakes.h"
#include "support/orn_fixture.h"
#include "support/reference_line_table.h"

#include "orn_linetable_impl.h"
#include "orn_linetable_iterators.h"
#include "orn_sourceline_impl.h"

#include <random>

namespace ORN_3_30::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned long long everyUnit = ~0ULL;
constexpr unsigned everyFile = ~0U;

/// Gives a file for every number.
class NumberedFiles : public SymMgrObject<ISrcLineResolver> {
public:
    NumberedFiles() : SymMgrObject<ISrcLineResolver>(nullptr) {}

    void sourceLocationAt(SymMgrObjectPtr<ISourceLocation>&, unsigned long long, unsigned long long,
                          ILineTable*, ISourceLocationSelector*) override {}
    status_t sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out,
                         unsigned long long unitId, unsigned fileId, unsigned long long low,
                         unsigned long long high, ILineTable*) override {
        queries.push_back({low, high, unitId, fileId});
        if (table)
            table->sourceLinesInRange(out, unitId, fileId, low, high);
        return status;
    }
    unsigned fileCount() override { return 0; }
    ISourceFile* fileAt(unsigned index) override {
        auto& file = m_files[index];
        if (!file)
            file = new SourceFile(this, index, "file", 0, 0);
        return file.get();
    }
    ICompUnitDetails* compUnitDetails(unsigned long long) override { return nullptr; }
    int reserved() override { return 0; }
    void noteAddress(unsigned long long) override {}
    ILineTable* lineTable() override { return nullptr; }

    ILineTable* table = nullptr; ///< where files and symbols look for lines
    status_t status = status_Ok;
    std::vector<LineQuery> queries;

private:
    std::map<unsigned, SymMgrObjectPtr<SourceFile>> m_files;
};

using Lines = SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>;

LineAnswer answerOf(ISourceLine& line) {
    SymMgrObjectPtr<IAddress> address;
    line.address(address);
    ISourceLocation* location = line.location();
    return {location->file()->id(),
            location->symbolId(),
            location->line(),
            location->column(),
            location->extra(),
            address->pseudoAddr(),
            address->pseudoAddr() + line.size()};
}

std::vector<LineAnswer> answersOf(const Lines& lines) {
    std::vector<LineAnswer> answers;
    for (auto line = lines->current(); line; line = lines->next() ? lines->current() : nullptr)
        answers.push_back(answerOf(*line));
    return answers;
}

class LineTableTest : public OrnTest {
protected:
    LineTableTest() : module(new FakeModule), resolver(new NumberedFiles), table(newTable()) {}

    ILineTable* newTable() { return ILineTable::create(*module, *resolver); }
    LineTable& inside() { return static_cast<LineTable&>(*table); }

    void add(unsigned line, unsigned long long low, unsigned long long high, unsigned fileId = 1,
             unsigned long long unitId = 7, unsigned long long tag = 0) {
        EXPECT_NE(nullptr, table->addLineRange(unitId, fileId, line, 0, low, high - low, tag));
    }

    Lines linesIn(unsigned long long low, unsigned long long high, unsigned fileId = everyFile,
                  unsigned long long unitId = everyUnit) {
        Lines lines;
        table->sourceLinesInRange(lines, unitId, fileId, low, high);
        return lines;
    }
    Lines linesAt(unsigned long long address, unsigned fileId = everyFile,
                  unsigned long long unitId = everyUnit) {
        Lines lines;
        table->sourceLinesAt(lines, address, unitId, fileId);
        return lines;
    }
    static std::vector<unsigned> numbersOf(const Lines& lines) {
        std::vector<unsigned> numbers;
        for (const LineAnswer& answer : answersOf(lines))
            numbers.push_back(answer.line);
        return numbers;
    }

    SymMgrObjectPtr<FakeModule> module;
    SymMgrObjectPtr<NumberedFiles> resolver;
    SymMgrObjectPtr<ILineTable> table;
};

// Storing

TEST_F(LineTableTest, OnePositionAddedTwiceWithOneEndIsOneLine) {
    add(5, 0x1000, 0x1010);
    add(5, 0x1000, 0x1010);
    EXPECT_EQ(1u, inside().locatorCount());
    EXPECT_THAT(numbersOf(linesAt(0x1000)), ElementsAre(5));
}

TEST_F(LineTableTest, OnePositionAddedWithTwoEndsIsTwoLines) {
    add(5, 0x1000, 0x1020);
    add(5, 0x1000, 0x1010);
    EXPECT_THAT(answersOf(linesAt(0x1000)), ElementsAre(LineAnswer{1, 7, 5, 0, 0, 0x1000, 0x1010},
                                                        LineAnswer{1, 7, 5, 0, 0, 0x1000, 0x1020}));
}

TEST_F(LineTableTest, ARepetitionIsDroppedAlsoAcrossQueries) {
    add(5, 0x1000, 0x1010);
    EXPECT_THAT(numbersOf(linesAt(0x1000)), ElementsAre(5));
    add(5, 0x1000, 0x1010);
    EXPECT_THAT(numbersOf(linesAt(0x1000)), ElementsAre(5));
    EXPECT_EQ(1u, inside().locatorCount());
}

TEST_F(LineTableTest, LinesThatDifferInTheTagAloneStayApart) {
    add(5, 0x1000, 0x1010, 1, 7, 2);
    add(5, 0x1000, 0x1010, 1, 7, 1);
    EXPECT_THAT(answersOf(linesAt(0x1000)), ElementsAre(LineAnswer{1, 7, 5, 0, 2, 0x1000, 0x1010},
                                                        LineAnswer{1, 7, 5, 0, 1, 0x1000, 0x1010}));
}

TEST_F(LineTableTest, ATagComesBackAsExtraInAllItsBits) {
    add(5, 0x1000, 0x1010, 1, 7, 0xFEDCBA9876543210);
    EXPECT_EQ(0xFEDCBA9876543210, linesAt(0x1000)->current()->location()->extra());
}

TEST_F(LineTableTest, ALengthOfMoreThan32BitsCoversWhatItSays) {
    add(5, 0x1000, 0x1000 + 0x1FFFFFFFF);
    add(6, 0x1000, 0x1000 + 0xFFFFFFFFULL);
    EXPECT_THAT(numbersOf(linesAt(0x1000 + 0x1FFFFFFFE)), ElementsAre(5));
    EXPECT_THAT(numbersOf(linesAt(0x1000 + 0x1FFFFFFFF)), IsEmpty());
    EXPECT_THAT(numbersOf(linesAt(0x1000 + 0xFFFFFFFEULL)), ElementsAre(5, 6));
}

TEST_F(LineTableTest, WideValuesSurviveTheMergeOfWhatWasAddedBetweenQueries) {
    for (unsigned i = 0; i < 8; ++i) {
        add(i, 0x1000, 0x1000 + 0x100000000 + i, 1, 7, 0x100000000 + i);
        EXPECT_EQ(i + 1, numbersOf(linesAt(0x1000)).size());
    }
    unsigned i = 0;
    for (const LineAnswer& answer : answersOf(linesAt(0x1000))) {
        EXPECT_EQ(0x100000000 + i, answer.tag);
        EXPECT_EQ(i, answer.line);
        ++i;
    }
    EXPECT_THAT(numbersOf(linesAt(0x1000 + 0x100000000 + 6)), ElementsAre(7));
}

TEST_F(LineTableTest, AnIntervalThatWouldPassTheEndOfAllAddressesEndsThere) {
    EXPECT_NE(nullptr, table->addLineRange(7, 1, 5, 0, ~0ULL - 4, 100, 0));
    EXPECT_THAT(numbersOf(linesAt(~0ULL - 1)), ElementsAre(5));
    EXPECT_THAT(numbersOf(linesAt(3)), IsEmpty());
}

TEST_F(LineTableTest, TheRangesOfOneFileAndUnitShareOneToken) {
    void* first = table->addLineRange(7, 1, 5, 0, 0x1000, 4, 0);
    void* other = table->addLineRange(8, 1, 5, 0, 0x2000, 4, 0);
    EXPECT_EQ(first, table->addLineRange(7, 1, 6, 0, 0x1004, 4, 0));
    EXPECT_NE(first, other);
    EXPECT_NE(first, table->addLineRange(7, 2, 6, 0, 0x1004, 4, 0));
    EXPECT_EQ(other, table->addLineRange(8, 1, 7, 0, 0x2004, 4, 0));
}

TEST_F(LineTableTest, TheIdOfEveryFileCannotBeAFilesOwn) {
    expectLog("ASSERTION FAILED: 'rangeMgr != 0L'");
    EXPECT_EQ(nullptr, table->addLineRange(7, everyFile, 5, 0, 0x1000, 4, 0));
    EXPECT_THAT(messages(errorLevel), ElementsAre(testing::HasSubstr("orn_linetable_impl")));
}

TEST_F(LineTableTest, FileIds0And300GiveTwoPagesOf256) {
    add(1, 0x1000, 0x1004, 0);
    EXPECT_EQ(1u, inside().files().pageCount());
    add(1, 0x1000, 0x1004, 300);
    EXPECT_EQ(2u, inside().files().pageCount());
    EXPECT_EQ(256u, inside().files().pageSize());
    EXPECT_EQ(512u, inside().files().capacity());
    EXPECT_EQ(nullptr, inside().files().get(299));
    EXPECT_NE(nullptr, inside().files().get(300));
}

TEST(SparseArray, ChoosesItsPageSizeByTheFirstNumber) {
    int object = 0;
    SparseArray<int> small(0, 0);
    small.slot(0x40000) = &object;
    EXPECT_EQ(256u, small.pageSize());
    EXPECT_EQ(&object, small.get(0x40000));
    SparseArray<int> large(0, 0);
    large.slot(0x40001) = &object;
    EXPECT_EQ(0x40000u, large.pageSize());
    EXPECT_EQ(2u, large.pageCount());
    EXPECT_EQ(&object, large.get(0x40001));
    EXPECT_EQ(nullptr, large.get(0));
    EXPECT_EQ(nullptr, large.get(0x80000));
}

TEST(SparseArray, KeepsWhatItHoldsWhenItGrows) {
    int object = 0;
    SparseArray<int> array(256, 8);
    array.slot(3) = &object;
    array.slot(100000) = &object;
    EXPECT_EQ(&object, array.get(3));
    int count = 0;
    array.forEach([&count](int*) { ++count; });
    EXPECT_EQ(2, count);
}

TEST_F(LineTableTest, AnAllocationThatFailsReachesTheCallerAndLeavesTheTableUsable) {
    if (!canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    int failures = 0;
    for (unsigned long number = 1;; ++number) {
        table = newTable();
        bool happened = false;
        {
            const FailingAllocation failing(number);
            try {
                table->addLineRange(7, 1, 5, 0, 0x1000, 4, 1ULL << 40);
            } catch (const std::bad_alloc&) {
                ++failures;
            }
            happened = failing.happened();
        }
        if (!happened)
            break;
        add(6, 0x1000, 0x1004);
        EXPECT_THAT(numbersOf(linesAt(0x1000)), ElementsAre(6)) << number;
    }
    EXPECT_GT(failures, 0);
}

// Queries for an address

TEST_F(LineTableTest, AnAddressFindsTheLineThatStartsThereAndNotTheOneThatEndsThere) {
    add(5, 0x1000, 0x1010);
    add(6, 0x1010, 0x1020);
    EXPECT_THAT(numbersOf(linesAt(0x1010)), ElementsAre(6));
    EXPECT_THAT(numbersOf(linesIn(0x1010, 0x1010)), ElementsAre(6));
    EXPECT_THAT(numbersOf(linesAt(0x100F)), ElementsAre(5));
}

TEST_F(LineTableTest, AnAddressFindsNoLineOfSize0) {
    add(5, 0x1000, 0x1000);
    EXPECT_THAT(numbersOf(linesAt(0x1000)), IsEmpty());
    EXPECT_THAT(numbersOf(linesAt(0xFFF)), IsEmpty());
}

TEST_F(LineTableTest, AnEmptyTableGivesAnIteratorWithoutLines) {
    for (const Lines& lines : {linesAt(0x1000), linesIn(0, ~0ULL)}) {
        ASSERT_NE(nullptr, lines);
        EXPECT_EQ(nullptr, lines->current());
        EXPECT_FALSE(lines->next());
        lines->reset();
        EXPECT_EQ(nullptr, lines->current());
    }
}

TEST_F(LineTableTest, TheLastOfAllAddressesHasNoLine) {
    add(5, 0x1000, ~0ULL);
    EXPECT_THAT(numbersOf(linesAt(~0ULL)), IsEmpty());
    EXPECT_THAT(numbersOf(linesAt(~0ULL - 1)), ElementsAre(5));
}

TEST_F(LineTableTest, OverlappingLinesComeByStartThenLineThenColumn) {
    table->addLineRange(7, 1, 9, 2, 0x1008, 8, 0);
    table->addLineRange(7, 1, 9, 1, 0x1008, 8, 0);
    add(8, 0x1008, 0x1010);
    add(20, 0x1000, 0x1010);
    const auto answers = answersOf(linesAt(0x1008));
    ASSERT_EQ(4u, answers.size());
    EXPECT_EQ(20u, answers[0].line);
    EXPECT_EQ(8u, answers[1].line);
    EXPECT_EQ(1u, answers[2].column);
    EXPECT_EQ(2u, answers[3].column);
}

TEST_F(LineTableTest, ALongLineIsFoundBehindManyShortOnes) {
    add(1, 0x1000, 0x100000);
    for (unsigned i = 1; i < 5000; ++i)
        add(2, 0x1000 + i * 4, 0x1000 + i * 4 + 4);
    EXPECT_THAT(numbersOf(linesAt(0x1000 + 4000 * 4)), ElementsAre(1, 2));
    EXPECT_THAT(numbersOf(linesAt(0x80000)), ElementsAre(1));
}

TEST_F(LineTableTest, ALongLineIsFoundWhereverItStands) {
    for (unsigned place = 0; place < 2100; place += 13) {
        table = newTable();
        for (unsigned i = 0; i < 4000; ++i)
            add(i == place ? 1 : 2, 0x1000 + i * 4, i == place ? 0x100000 : 0x1000 + i * 4 + 4);
        ASSERT_THAT(numbersOf(linesAt(0x80000)), ElementsAre(1)) << place;
        ASSERT_THAT(numbersOf(linesAt(0x1000 + 3999 * 4)), ElementsAre(1, 2)) << place;
    }
}

// Queries for an interval

TEST_F(LineTableTest, AnIntervalFindsWhatOverlapsItHalfOpen) {
    add(4, 0xF00, 0x1000);
    add(5, 0xFFF, 0x1001);
    add(6, 0x1010, 0x1020);
    add(7, 0x1020, 0x1030);
    EXPECT_THAT(numbersOf(linesIn(0x1000, 0x1020)), ElementsAre(5, 6));
}

TEST_F(LineTableTest, AnIntervalFindsALineOfSize0AboveItsLowEndOnly) {
    add(5, 0x1000, 0x1000);
    EXPECT_THAT(numbersOf(linesIn(0xFFF, 0x1001)), ElementsAre(5));
    EXPECT_THAT(numbersOf(linesIn(0x1000, 0x1001)), IsEmpty());
    EXPECT_THAT(numbersOf(linesIn(0xFFF, 0x1000)), IsEmpty());
}

TEST_F(LineTableTest, AReversedIntervalFindsNothing) {
    add(5, 0x1000, 0x2000);
    EXPECT_THAT(numbersOf(linesIn(0x1800, 0x1400)), IsEmpty());
}

TEST_F(LineTableTest, ALocatorThatReachesIntoTheIntervalComesWithTheEndsThatDo) {
    add(5, 0x1000, 0x1010);
    add(5, 0x1000, 0x1020);
    add(5, 0x1000, 0x1030);
    EXPECT_THAT(answersOf(linesIn(0x1010, 0x1040)), ElementsAre(LineAnswer{1, 7, 5, 0, 0, 0x1000, 0x1020},
                                                                LineAnswer{1, 7, 5, 0, 0, 0x1000, 0x1030}));
}

TEST_F(LineTableTest, LinesComeByFileThenUnitThenAddress) {
    add(1, 0x1000, 0x1004, 2, 9);
    add(2, 0x1000, 0x1004, 2, 8);
    add(3, 0x1004, 0x1008, 1, 9);
    add(4, 0x1000, 0x1004, 1, 9);
    EXPECT_THAT(numbersOf(linesIn(0x1000, 0x1008)), ElementsAre(4, 3, 2, 1));
}

TEST_F(LineTableTest, AFileOrAUnitLimitsTheLines) {
    add(1, 0x1000, 0x1004, 1, 8);
    add(2, 0x1000, 0x1004, 1, 9);
    add(3, 0x1000, 0x1004, 2, 9);
    EXPECT_THAT(numbersOf(linesAt(0x1000, 1)), ElementsAre(1, 2));
    EXPECT_THAT(numbersOf(linesAt(0x1000, everyFile, 9)), ElementsAre(2, 3));
    EXPECT_THAT(numbersOf(linesAt(0x1000, 1, 9)), ElementsAre(2));
    EXPECT_THAT(numbersOf(linesAt(0x1000, 3)), IsEmpty());
    EXPECT_THAT(numbersOf(linesAt(0x1000, 100000)), IsEmpty());
}

TEST_F(LineTableTest, ThreeUnitIdsMeanEveryUnit) {
    add(1, 0x1000, 0x1004, 1, 0);
    add(2, 0x1000, 0x1004, 1, 9);
    for (const unsigned long long unitId : {0ULL, 0xFFFFFFFFULL, ~0ULL})
        EXPECT_THAT(numbersOf(linesAt(0x1000, everyFile, unitId)), ElementsAre(1, 2));
}

TEST_F(LineTableTest, AnIteratorShowsTheTableAsItWasWhenItWasMade) {
    for (unsigned i = 0; i < 4000; ++i)
        add(i, 0x1000 + i, 0x1001 + i, i % 3);
    const Lines wide = linesIn(0, ~0ULL);
    const Lines narrow = linesAt(0x1000);
    for (unsigned i = 0; i < 4000; ++i)
        add(i, 0x1000 + i, 0x1003 + i, i % 3);
    EXPECT_EQ(8000u, inside().locatorCount());
    EXPECT_EQ(4000u, answersOf(wide).size());
    EXPECT_EQ(1u, answersOf(narrow).size());
    wide->reset();
    EXPECT_EQ(4000u, answersOf(wide).size());
}

TEST_F(LineTableTest, ResetStartsAWideIterationAnew) {
    for (unsigned i = 0; i < 4000; ++i)
        add(i, 0x1000 + i, 0x1001 + i, i % 3, 10 + i % 5);
    const Lines lines = linesIn(0, ~0ULL);
    const auto once = answersOf(lines);
    EXPECT_EQ(nullptr, lines->current());
    EXPECT_FALSE(lines->next());
    lines->reset();
    EXPECT_EQ(once, answersOf(lines));
    EXPECT_EQ(4000u, once.size());
}

TEST_F(LineTableTest, AQueryForMostOfAFileOrOfTheTableIsWide) {
    for (unsigned i = 0; i < 4000; ++i)
        add(i, 0x1000 + i, 0x1001 + i, i % 3);
    EXPECT_TRUE(inside().isWide({0, ~0ULL, everyUnit, everyFile}));
    EXPECT_TRUE(inside().isWide({0, ~0ULL, everyUnit, 1}));
    EXPECT_FALSE(inside().isWide({0x1000, 0x1000, everyUnit, everyFile}));
    EXPECT_FALSE(inside().isWide({0x1000, 0x1010, everyUnit, 1}));
    EXPECT_FALSE(inside().isWide({0x2000, 0x1000, everyUnit, everyFile}));
}

TEST_F(LineTableTest, AdditionsThatAlternateWithQueriesLeaveFewLists) {
    for (unsigned i = 0; i < 3000; ++i) {
        add(i, 0x1000 + i, 0x1001 + i);
        ASSERT_THAT(numbersOf(linesAt(0x1000 + i)), ElementsAre(i));
    }
    EXPECT_LE(inside().listsByFile().size(), 12u);
    EXPECT_EQ(3000u, inside().locatorCount());
}

// Against the slow table

class LineTableAgainstReference : public LineTableTest {
protected:
    unsigned pick(unsigned count) { return static_cast<unsigned>(random() % count); }

    void addToBoth(unsigned files, unsigned units, unsigned lines, unsigned tags, unsigned addresses,
                   unsigned sizes) {
        const unsigned fileId = pick(files);
        const unsigned long long unitId = 10 + pick(units);
        const unsigned line = pick(lines);
        const unsigned column = pick(2);
        const unsigned long long address = 100 + pick(addresses);
        const unsigned long long size = pick(sizes);
        const unsigned long long tag = pick(tags) * 0x80000001ULL;
        table->addLineRange(unitId, fileId, line, column, address, size, tag);
        reference.add(unitId, fileId, line, column, address, size, tag);
    }

    void compareQuery(unsigned long long low, unsigned long long high, unsigned long long unitId,
                      unsigned fileId) {
        SCOPED_TRACE(testing::Message()
                     << "[" << low << ", " << high << ") unit " << unitId << " file " << fileId);
        ASSERT_EQ(reference.query(low, high, unitId, fileId), answersOf(linesIn(low, high, fileId, unitId)));
        if (low == high) {
            ASSERT_EQ(reference.query(low, high, unitId, fileId), answersOf(linesAt(low, fileId, unitId)));
        }
    }

    void compareRandomQuery(unsigned files, unsigned units, unsigned addresses) {
        const unsigned long long low = 98 + pick(addresses + 4);
        const unsigned long long high = pick(2) ? low : low + pick(addresses + 4);
        const unsigned long long unitId = pick(2) ? everyUnit : 10 + pick(units);
        const unsigned fileId = pick(2) ? everyFile : pick(files);
        compareQuery(low, high, unitId, fileId);
    }

    std::mt19937 random{20240229};
    ReferenceLineTable reference;
};

TEST_F(LineTableAgainstReference, CrowdedTablesGiveTheSameAnswersInTheSameOrder) {
    for (int round = 0; round < 1500 && !HasFatalFailure(); ++round) {
        table = newTable();
        reference = ReferenceLineTable();
        const unsigned addresses = 1 + pick(12);
        const unsigned sizes = 1 + pick(12);
        const unsigned rows = 1 + pick(40);
        for (unsigned row = 0; row < rows && !HasFatalFailure(); ++row) {
            addToBoth(2, 2, 2, 3, addresses, sizes);
            if (pick(4) == 0)
                compareRandomQuery(2, 2, addresses + sizes);
        }
        for (unsigned long long low = 99; low < 101 + addresses + sizes && !HasFatalFailure(); ++low)
            compareQuery(low, low + pick(3), everyUnit, everyFile);
    }
}

TEST_F(LineTableAgainstReference, TiesInOneFileAndUnitKeepTheOrderOfTheirCells) {
    for (int round = 0; round < 2500 && !HasFatalFailure(); ++round) {
        table = newTable();
        reference = ReferenceLineTable();
        const unsigned rows = 1 + pick(25);
        for (unsigned row = 0; row < rows && !HasFatalFailure(); ++row) {
            addToBoth(1, 1, 1, 3, 8, 8);
            if (pick(6) == 0)
                compareRandomQuery(1, 1, 16);
        }
        for (unsigned long long low = 99; low < 118 && !HasFatalFailure(); ++low)
            compareQuery(low, low + pick(3), everyUnit, everyFile);
    }
}

TEST_F(LineTableAgainstReference, LargeTablesGiveTheSameAnswersForWideQueries) {
    for (int round = 0; round < 8 && !HasFatalFailure(); ++round) {
        table = newTable();
        reference = ReferenceLineTable();
        for (unsigned row = 0; row < 6000 && !HasFatalFailure(); ++row) {
            addToBoth(5, 7, 20, 2, 3000, row % 100 == 0 ? 2000 : 20);
            if (pick(150) == 0)
                compareRandomQuery(5, 7, 3100);
        }
        for (const unsigned fileId : {everyFile, 0U, 4U})
            for (const unsigned long long unitId : {everyUnit, 0ULL, 12ULL})
                compareQuery(0, ~0ULL, unitId, fileId);
        for (int query = 0; query < 200 && !HasFatalFailure(); ++query)
            compareRandomQuery(5, 7, 3100);
    }
}

TEST_F(LineTableAgainstReference, SequencesAsLineProgramsDeliverThemGiveTheSameAnswers) {
    for (int round = 0; round < 100 && !HasFatalFailure(); ++round) {
        table = newTable();
        reference = ReferenceLineTable();
        for (unsigned unit = 1; unit <= 10 && !HasFatalFailure(); ++unit) {
            unsigned long long address = 100 + pick(400);
            for (unsigned row = 0; row < 30; ++row) {
                const unsigned fileId = pick(4);
                const unsigned line = pick(50);
                const unsigned long long size = pick(5);
                const unsigned long long tag = pick(3) == 0 ? 1 : 0;
                table->addLineRange(unit, fileId, line, 0, address, size, tag);
                reference.add(unit, fileId, line, 0, address, size, tag);
                address += size;
            }
            for (int query = 0; query < 10 && !HasFatalFailure(); ++query)
                compareRandomQuery(4, 1, 600);
        }
    }
}

// Calls that were expanded in place

class InlineCallerTest : public LineTableTest {
protected:
    InlineCallerTest() : scope(new FakeLineScope(*module)) {}

    FakeInstance* callFrom(unsigned line, unsigned fileId = 1) {
        const SymMgrObjectPtr<ISourceLocation> location = new SourceLocation(resolver, 7, fileId, line, 0, 0);
        instances.emplace_back(new FakeInstance(location));
        return instances.back();
    }

    Lines linesWithCallers(unsigned long long low, unsigned long long high, unsigned fileId = everyFile) {
        return new InlineCallerSourceLineIterator(*resolver, *module, scope, *table,
                                                  {low, high, everyUnit, fileId});
    }

    SymMgrObjectPtr<FakeLineScope> scope;
    std::vector<SymMgrObjectPtr<FakeInstance>> instances;
};

TEST_F(InlineCallerTest, ALineIsFollowedByItsCallsInnermostFirst) {
    add(30, 0x1008, 0x100C);
    scope->pieces = {
        {0x1000, 0x2000, nullptr, {{0x1004, 0x1020, callFrom(10), {{0x1008, 0x1010, callFrom(20)}}}}}};
    EXPECT_THAT(answersOf(linesWithCallers(0x1009, 0x1009)),
                ElementsAre(LineAnswer{1, 7, 30, 0, 0, 0x1008, 0x100C},
                            LineAnswer{1, 7, 20, 0, 0, 0x1008, 0x1010},
                            LineAnswer{1, 7, 10, 0, 0, 0x1004, 0x1020}));
    EXPECT_EQ(symbol_kind_function, scope->askedFor);
}

TEST_F(InlineCallerTest, CallsAreLookedForAtTheGreaterOfLineStartAndLowEnd) {
    add(30, 0x1000, 0x1010);
    add(31, 0x1010, 0x1020);
    scope->pieces = {{0x1000, 0x2000, nullptr, {}}};
    EXPECT_THAT(numbersOf(linesWithCallers(0x1008, 0x1018)), ElementsAre(30, 31));
    EXPECT_THAT(scope->askedAt, ElementsAre(0x1008, 0x1010));
}

TEST_F(InlineCallerTest, ACallComesOnceInAnIterationAndAgainAfterReset) {
    add(30, 0x1000, 0x1004);
    add(31, 0x1004, 0x1008);
    scope->pieces = {{0x1000, 0x2000, nullptr, {{0x1000, 0x1008, callFrom(10)}}}};
    const Lines lines = linesWithCallers(0x1000, 0x1008);
    EXPECT_THAT(numbersOf(lines), ElementsAre(30, 10, 31));
    EXPECT_EQ(nullptr, lines->current());
    EXPECT_FALSE(lines->next());
    lines->reset();
    EXPECT_THAT(numbersOf(lines), ElementsAre(30, 10, 31));
}

TEST_F(InlineCallerTest, ManyCallsComeOnceEach) {
    std::vector<FakePiece> calls;
    for (unsigned i = 0; i < 50; ++i) {
        add(1000 + 2 * i, 0x1000 + 8 * i, 0x1004 + 8 * i);
        add(1001 + 2 * i, 0x1004 + 8 * i, 0x1008 + 8 * i);
        calls.push_back({0x1000 + 8 * i, 0x1008 + 8 * i, callFrom(i)});
    }
    scope->pieces = {{0x1000, 0x2000, nullptr, calls}};
    const auto numbers = numbersOf(linesWithCallers(0x1000, 0x2000));
    EXPECT_EQ(150u, numbers.size());
    for (unsigned i = 0; i < 50; ++i)
        EXPECT_EQ(1, std::count(numbers.begin(), numbers.end(), i)) << i;
}

TEST_F(InlineCallerTest, CallsAreLookedForOnceAtAnAddressHoweverManyLinesItHas) {
    for (unsigned i = 0; i < 100; ++i)
        add(1000 + i, 0x1000, 0x1010 + i);
    scope->pieces = {{0x1000, 0x2000, nullptr, {{0x1000, 0x1008, callFrom(10)}}}};
    const Lines lines = linesWithCallers(0x1000, 0x1000);
    EXPECT_EQ(101u, numbersOf(lines).size());
    EXPECT_THAT(scope->askedAt, ElementsAre(0x1000));
    lines->reset();
    EXPECT_EQ(101u, numbersOf(lines).size());
}

TEST_F(InlineCallerTest, CallsAreNotLimitedToTheFileOfTheQuery) {
    add(30, 0x1000, 0x1004, 1);
    add(31, 0x1000, 0x1004, 2);
    scope->pieces = {{0x1000, 0x2000, nullptr, {{0x1000, 0x1008, callFrom(10, 5)}}}};
    EXPECT_THAT(
        answersOf(linesWithCallers(0x1000, 0x1000, 1)),
        ElementsAre(LineAnswer{1, 7, 30, 0, 0, 0x1000, 0x1004}, LineAnswer{5, 7, 10, 0, 0, 0x1000, 0x1008}));
}

TEST_F(InlineCallerTest, AnInstanceWithoutCallSiteGivesNoLineButItsNestedOnesDo) {
    add(30, 0x1000, 0x1004);
    FakeInstance* silent = callFrom(10);
    silent->knowsCallSite = false;
    scope->pieces = {{0x1000, 0x2000, nullptr, {{0x1000, 0x1010, silent, {{0x1000, 0x1008, callFrom(20)}}}}}};
    EXPECT_THAT(numbersOf(linesWithCallers(0x1000, 0x1000)), ElementsAre(30, 20));
}

TEST_F(InlineCallerTest, AnInstanceThatGivesNoLocationIsReported) {
    add(30, 0x1000, 0x1004);
    instances.emplace_back(new FakeInstance(nullptr));
    scope->pieces = {{0x1000, 0x2000, nullptr, {{0x1000, 0x1010, instances.back()}}}};
    expectLog("ASSERTION FAILED: 'srcLocation == NULL '");
    EXPECT_THAT(numbersOf(linesWithCallers(0x1000, 0x1000)), ElementsAre(30));
    EXPECT_THAT(messages(errorLevel), ElementsAre(testing::HasSubstr("orn_linetable_impl")));
}

TEST_F(InlineCallerTest, NestedCodeThatIsNoCallIsPassedThrough) {
    add(30, 0x1000, 0x1004);
    scope->pieces = {
        {0x1000, 0x2000, nullptr, {{0x1000, 0x1010, nullptr, {{0x1000, 0x1008, callFrom(20)}}}}}};
    EXPECT_THAT(numbersOf(linesWithCallers(0x1000, 0x1000)), ElementsAre(30, 20));
}

TEST_F(InlineCallerTest, WithoutFunctionScopeOrSymbolsThereAreJustTheLines) {
    add(30, 0x1000, 0x1004);
    EXPECT_THAT(numbersOf(linesWithCallers(0x1000, 0x1000)), ElementsAre(30));
    scope->pieces = {{0x1000, 0x2000, nullptr, {{0x1000, 0x1008, callFrom(20)}}}};
    scope->status = status_Fail;
    EXPECT_THAT(numbersOf(linesWithCallers(0x1000, 0x1000)), ElementsAre(30));
    const Lines scopeless = new InlineCallerSourceLineIterator(*resolver, *module, nullptr, *table,
                                                               {0x1000, 0x1000, 0, everyFile});
    EXPECT_THAT(numbersOf(scopeless), ElementsAre(30));
}

TEST_F(InlineCallerTest, NoLineMeansNoCall) {
    scope->pieces = {{0x1000, 0x2000, nullptr, {{0x1000, 0x1008, callFrom(20)}}}};
    const Lines lines = linesWithCallers(0x1000, 0x1000);
    EXPECT_EQ(nullptr, lines->current());
    EXPECT_FALSE(lines->next());
    EXPECT_THAT(scope->askedAt, IsEmpty());
}

TEST_F(InlineCallerTest, TheIteratorKeepsItsResolver) {
    unsigned before = 0;
    unsigned during = 0;
    resolver->refCount(before);
    const Lines lines = linesWithCallers(0x1000, 0x1000);
    resolver->refCount(during);
    EXPECT_EQ(before + 1, during);
}

TEST_F(InlineCallerTest, TheLineOfACallIsOneElement) {
    const SymMgrObjectPtr<ISourceLocation> location = new SourceLocation(resolver, 7, 1, 10, 0, 0);
    const Lines lines = new RangeCallerSourceLineIterator(*module, location, 0x1000, 0x1010);
    EXPECT_EQ((LineAnswer{1, 7, 10, 0, 0, 0x1000, 0x1010}), answerOf(*lines->current()));
    EXPECT_FALSE(lines->next());
    EXPECT_EQ(nullptr, lines->current());
    lines->reset();
    EXPECT_NE(nullptr, lines->current());
}

// Lines of a symbol

class SymbolLinesTest : public LineTableTest {
protected:
    SymbolLinesTest()
        : scope(new FakeLineScope(*module)), location(new SourceLocation(resolver, 7, 1, 3, 0, 0)) {
        resolver->table = table;
    }

    SymMgrObjectPtr<IAddress> at(unsigned long long address) {
        return address == ~0ULL ? nullptr : new Address(module, address, nullptr);
    }
    Lines linesOfSymbol(unsigned long long low = ~0ULL, unsigned long long high = ~0ULL) {
        return new SymbolSourceLineIterator(scope, 1, 7, location, at(low), at(high));
    }

    SymMgrObjectPtr<FakeLineScope> scope;
    SymMgrObjectPtr<ISourceLocation> location;
};

TEST_F(SymbolLinesTest, TheLinesOfAllRangesComeOneRangeAfterTheOther) {
    add(30, 0x1000, 0x1008);
    add(31, 0x1008, 0x1010);
    add(40, 0x2000, 0x2008);
    add(50, 0x3000, 0x3008);
    scope->pieces = {{0x1000, 0x1010}, {0x1800, 0x1810}, {0x3000, 0x3008}};
    const Lines lines = linesOfSymbol();
    EXPECT_THAT(numbersOf(lines), ElementsAre(30, 31, 50));
    EXPECT_EQ(nullptr, lines->current());
    EXPECT_FALSE(lines->next());
    lines->reset();
    EXPECT_THAT(numbersOf(lines), ElementsAre(30, 31, 50));
}

TEST_F(SymbolLinesTest, TheQueryNamesTheSymbolsUnitAndTheFileOfItsDeclaration) {
    add(30, 0x1000, 0x1008, 1);
    add(31, 0x1000, 0x1008, 2);
    add(32, 0x1000, 0x1008, 1, 8);
    scope->pieces = {{0x1000, 0x1010}};
    EXPECT_THAT(numbersOf(linesOfSymbol()), ElementsAre(30));
    ASSERT_EQ(1u, resolver->queries.size());
    EXPECT_EQ(7u, resolver->queries[0].unitId);
    EXPECT_EQ(1u, resolver->queries[0].fileId);
}

TEST_F(SymbolLinesTest, EachRangeIsClippedToTheLimits) {
    scope->pieces = {{0x1000, 0x1010}, {0x2000, 0x2010}, {0x3000, 0x3010}, {0x4000, 0x4010}};
    add(30, 0x1000, 0x4010);
    EXPECT_EQ(2u, numbersOf(linesOfSymbol(0x2008, 0x3008)).size());
    ASSERT_EQ(2u, resolver->queries.size());
    EXPECT_EQ(0x2008u, resolver->queries[0].low);
    EXPECT_EQ(0x2010u, resolver->queries[0].high);
    EXPECT_EQ(0x3000u, resolver->queries[1].low);
    EXPECT_EQ(0x3008u, resolver->queries[1].high);
}

TEST_F(SymbolLinesTest, ARangeThatTouchesALimitFromOutsideIsPassedOver) {
    scope->pieces = {{0x1000, 0x2000}, {0x3000, 0x3010}};
    add(30, 0x1000, 0x4000);
    EXPECT_THAT(numbersOf(linesOfSymbol(0x2000, 0x3000)), IsEmpty());
    EXPECT_THAT(resolver->queries, IsEmpty());
}

TEST_F(SymbolLinesTest, ARangeOfSize0AsksForItsAddress) {
    scope->pieces = {{0x1000, 0x1000}};
    add(30, 0x1000, 0x1008);
    EXPECT_THAT(numbersOf(linesOfSymbol()), ElementsAre(30));
    EXPECT_THAT(numbersOf(linesOfSymbol(0x1000, 0x1004)), ElementsAre(30));
    EXPECT_THAT(numbersOf(linesOfSymbol(0x1001, 0x1004)), IsEmpty());
}

TEST_F(SymbolLinesTest, WithoutLocationFileOrSymbolThereAreNoLines) {
    scope->pieces = {{0x1000, 0x1010}};
    add(30, 0x1000, 0x1008);
    const Lines unlocated = new SymbolSourceLineIterator(scope, 1, 7, nullptr, nullptr, nullptr);
    EXPECT_EQ(nullptr, unlocated->current());
    EXPECT_FALSE(unlocated->next());
    const Lines fileless = new SymbolSourceLineIterator(scope, everyFile, 7, location, nullptr, nullptr);
    EXPECT_EQ(nullptr, fileless->current());
    scope->hasSymbol = false;
    const Lines nameless = linesOfSymbol();
    EXPECT_EQ(nullptr, nameless->current());
    nameless->reset();
    EXPECT_EQ(nullptr, nameless->current());
}

TEST_F(SymbolLinesTest, AFailedQueryIsARangeWithoutLines) {
    scope->pieces = {{0x1000, 0x1010}};
    add(30, 0x1000, 0x1008);
    resolver->status = status_Fail;
    EXPECT_EQ(nullptr, linesOfSymbol()->current());
}

} // namespace
} // namespace ORN_3_30::test
