// Prepares log4cplus for a component's logger. All that it does is to keep log4cplus from complaining about a
// logger without an appender: it adds a null appender. It sets no level and reads neither files nor the
// environment; a program that embeds the library configures log4cplus as it likes, before or after.

#include "stelmor_log.h"

#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

namespace stelmor_1::log {

void configureComponentLogger(const std::string& component) {
    log4cplus::Logger logger = log4cplus::Logger::getInstance(component);
    logger.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender));
}

} // namespace stelmor_1::log
