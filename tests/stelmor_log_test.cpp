// The stand-in for the logging configuration: it keeps log4cplus from complaining and leaves the rest to the
// program that embeds the library.

#include "stelmor_log.h"

#include <gtest/gtest.h>

#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

namespace {

TEST(ComponentLoggerTest, GetsANullAppenderAndNoLevel) {
    log4cplus::Logger logger = log4cplus::Logger::getInstance("orn-test-component");
    ASSERT_TRUE(logger.getAllAppenders().empty());
    stelmor_1::log::configureComponentLogger("orn-test-component");
    const auto appenders = logger.getAllAppenders();
    ASSERT_EQ(appenders.size(), 1U);
    EXPECT_NE(dynamic_cast<log4cplus::NullAppender*>(appenders[0].get()), nullptr);
    EXPECT_EQ(logger.getLogLevel(), log4cplus::NOT_SET_LOG_LEVEL);
    logger.removeAllAppenders();
}

TEST(ComponentLoggerTest, ThatOfTheLibraryStandsBeforeAnyTestRuns) {
    EXPECT_TRUE(log4cplus::Logger::exists("ORN"));
}

} // namespace
