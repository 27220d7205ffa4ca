// Texts, levels and order of messages, assertions and trace blocks.

#include "orn_log.h"

#include "support/allocation.h"
#include "support/orn_fixture.h"

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace ORN_3_30::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LogTest : public OrnTest {
protected:
    static std::string at(int line) {
        return std::string(", at file: ") + __FILE__ + ":" + std::to_string(line);
    }
    static std::string tail(int line) { return "\n" + at(line); }

    std::vector<std::string> takeTexts() {
        std::vector<std::string> texts;
        for (const LogMessage& message : takeLogs())
            texts.push_back(message.text);
        return texts;
    }
};

TEST_F(LogTest, AWarningEndsInItsOrigin) {
    ORN_LOG_WARNING("Unable to read " << 5 << " bytes");
    const int line = __LINE__ - 1;
    const auto logs = takeLogs();
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0].level, 30000);
    EXPECT_EQ(logs[0].text, "Unable to read 5 bytes" + tail(line));
}

TEST_F(LogTest, AnErrorEndsInItsOriginAndCarriesItAsItsLocationToo) {
    ORN_LOG_ERROR("Out of memory");
    const int line = __LINE__ - 1;
    const auto logs = takeLogs();
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0].level, 40000);
    EXPECT_EQ(logs[0].text, "Out of memory" + tail(line));
    EXPECT_EQ(logs[0].file, __FILE__);
    EXPECT_EQ(logs[0].line, line);
}

TEST_F(LogTest, AnInformationIsTheBareText) {
    ORN_LOG_INFO("hello");
    const auto logs = takeLogs();
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0].level, 20000);
    EXPECT_EQ(logs[0].text, "hello");
}

TEST_F(LogTest, AFailedAssertionLogsAndTheOperationGoesOn) {
    const int* pointer = nullptr;
    bool wentOn = false;
    ORN_ASSERT(pointer != NULL);
    const int line = __LINE__ - 1;
    wentOn = true;
    const auto logs = takeLogs();
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0].level, 40000);
    EXPECT_EQ(logs[0].text, "ASSERTION FAILED: 'pointer != NULL'" + at(line) + tail(line));
    EXPECT_EQ(logs[0].file, __FILE__);
    EXPECT_EQ(logs[0].line, line);
    EXPECT_TRUE(wentOn);
}

TEST_F(LogTest, AnAssertionKeepsTheExpressionAsItStandsInTheSource) {
    const int* ranges = nullptr;
    ORN_ASSERT(ranges != 0L && *ranges > 0);
    EXPECT_THAT(takeTexts(), ElementsAre(testing::StartsWith(
                                 "ASSERTION FAILED: 'ranges != 0L && *ranges > 0', at file: ")));
}

TEST_F(LogTest, AnAssertionMayBringItsOwnText) {
    ORN_ASSERT_TEXT(1 > 2, "m_symbol != NULL");
    EXPECT_THAT(takeTexts(),
                ElementsAre(testing::StartsWith("ASSERTION FAILED: 'm_symbol != NULL', at file: ")));
}

TEST_F(LogTest, AnAssertionYieldsItsConditionAndEvaluatesItOnce) {
    int evaluated = 0;
    EXPECT_TRUE(ORN_ASSERT(++evaluated == 1));
    EXPECT_EQ(evaluated, 1);
    EXPECT_THAT(takeTexts(), IsEmpty());
    EXPECT_FALSE(ORN_ASSERT(++evaluated == 1));
    EXPECT_EQ(evaluated, 2);
    EXPECT_EQ(takeTexts().size(), 1u);
}

TEST_F(LogTest, AnAssertionIsEvaluatedWithTheLogOff) {
    setLogLevel(50000);
    int evaluated = 0;
    EXPECT_FALSE(ORN_ASSERT(++evaluated == 2));
    EXPECT_EQ(evaluated, 1);
    EXPECT_THAT(takeTexts(), IsEmpty());
}

TEST_F(LogTest, NoTextIsBuiltWhenTheLevelIsOff) {
    int built = 0;
    setLogLevel(errorLevel);
    ORN_LOG_WARNING(++built);
    ORN_LOG_INFO(++built);
    EXPECT_EQ(built, 0);
    ORN_LOG_ERROR(++built);
    EXPECT_EQ(built, 1);
    takeLogs();
}

void traced() {
    ORN_TRACE("addressOf");
    ORN_TRACE_IN("execFileName", "/bin/x");
    ORN_TRACE_IN("rva", 4096ULL);
    ORN_LOG_INFO("inside");
}

TEST_F(LogTest, ATraceBlockWritesItsLinesInOrder) {
    setLogLevel(traceLevel);
    traced();
    const auto logs = takeLogs();
    ASSERT_EQ(logs.size(), 5u);
    EXPECT_EQ(logs[0].text, "ENTER: addressOf");
    EXPECT_EQ(logs[1].text, "addressOf: [IN] execFileName = /bin/x");
    EXPECT_EQ(logs[2].text, "addressOf: [IN] rva = 4096");
    EXPECT_EQ(logs[3].text, "inside");
    EXPECT_EQ(logs[4].text, "EXIT:  addressOf");
    for (int index : {0, 1, 2, 4})
        EXPECT_EQ(logs[index].level, 0);
    EXPECT_EQ(logs[4].file, logs[0].file);
    EXPECT_EQ(logs[4].line, logs[0].line);
}

TEST_F(LogTest, ANullTextPrintsNothing) {
    setLogLevel(traceLevel);
    {
        ORN_TRACE("create");
        ORN_TRACE_IN("execFileName", static_cast<const char*>(nullptr));
    }
    EXPECT_THAT(takeTexts(), ElementsAre("ENTER: create", "create: [IN] execFileName = ", "EXIT:  create"));
}

TEST_F(LogTest, TracedNumbersAreUnsignedDecimals) {
    setLogLevel(traceLevel);
    {
        ORN_TRACE("putRVA");
        ORN_TRACE_IN("rva", ~0ULL);
    }
    EXPECT_THAT(takeTexts(),
                ElementsAre("ENTER: putRVA", "putRVA: [IN] rva = 18446744073709551615", "EXIT:  putRVA"));
}

TEST_F(LogTest, ABlockThatWasEnteredUntracedStaysUntraced) {
    {
        ORN_TRACE("create");
        setLogLevel(traceLevel);
        ORN_TRACE_IN("rva", 1ULL);
    }
    EXPECT_THAT(takeTexts(), IsEmpty());
}

TEST_F(LogTest, ABlockThatWasEnteredTracedIsTracedToItsEnd) {
    setLogLevel(traceLevel);
    {
        ORN_TRACE("create");
        setLogLevel(errorLevel);
    }
    EXPECT_THAT(takeTexts(), ElementsAre("ENTER: create", "EXIT:  create"));
}

TEST_F(LogTest, AnUntracedBlockAllocatesNothing) {
    if (!ORN_3_30::test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    const long before = liveAllocations();
    bool failed = false;
    {
        FailingAllocation failing(1);
        traced();
        failed = failing.happened();
    }
    EXPECT_TRUE(failed) << "the information inside is built";
    {
        setLogLevel(errorLevel);
        FailingAllocation failing(1);
        traced();
        failed = failing.happened();
    }
    EXPECT_FALSE(failed);
    EXPECT_EQ(liveAllocations(), before);
}

status_t allocating() {
    ORN_TRACE("create");
    try {
        throw std::bad_alloc();
    }
    ORN_CATCH_OUT_OF_MEMORY
}

TEST_F(LogTest, AFailedAllocationBecomesAStatusAndExitComesLast) {
    setLogLevel(traceLevel);
    EXPECT_EQ(allocating(), status_OutOfMemory);
    EXPECT_THAT(takeTexts(), ElementsAre("ENTER: create", testing::StartsWith("Out of memory\n, at file: "),
                                         "EXIT:  create"));
}

struct Unprintable {};
std::ostream& operator<<(std::ostream&, const Unprintable&) {
    throw std::runtime_error("no text");
}

TEST_F(LogTest, AMessageThatCannotBeBuiltIsLeftOut) {
    EXPECT_NO_THROW(ORN_LOG_ERROR("before " << Unprintable()));
    EXPECT_THAT(takeTexts(), IsEmpty());
}

class ThrowingAppender : public log4cplus::Appender {
public:
    ~ThrowingAppender() override { destructorImpl(); }
    void close() override { closed = true; }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent&) override {
        throw std::runtime_error("disk full");
    }
};

TEST_F(LogTest, AnAppenderThatThrowsDoesNotReachTheCaller) {
    setLogLevel(traceLevel);
    log4cplus::Logger logger = log4cplus::Logger::getInstance("ORN");
    log4cplus::SharedAppenderPtr thrower(new ThrowingAppender);
    logger.addAppender(thrower);
    EXPECT_NO_THROW(traced());
    EXPECT_NO_THROW(ORN_LOG_ERROR("odd"));
    EXPECT_NO_THROW(ORN_ASSERT(1 > 2));
    logger.removeAppender(thrower);
    takeLogs();
}

/// Made before everything else in static storage, so that it dies after the logger does.
struct LastToDie {
    ~LastToDie() {
        if (!isArmed)
            return;
        std::fputs(internal::isLogEnabled(internal::log_Error) ? "logger alive" : "logger gone", stderr);
        ORN_TRACE("late");
        ORN_LOG_ERROR("late");
        ORN_ASSERT(1 > 2);
        std::fputs(" and nothing happened", stderr);
    }
    bool isArmed = false;
};

__attribute__((init_priority(101))) LastToDie s_lastToDie;

TEST(LogDeathTest, WhatIsLoggedBehindTheEndOfTheLoggerGoesNowhere) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            s_lastToDie.isArmed = true;
            std::exit(0);
        },
        testing::ExitedWithCode(0), "logger gone and nothing happened");
}

} // namespace
} // namespace ORN_3_30::test
