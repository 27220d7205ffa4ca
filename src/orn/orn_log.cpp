// The one logger of the library and everything that is written through it. Every other source file calls in
// here; log4cplus is called with forcedLog alone, after our own test of the level, so its macros and its
// trace class stay out. The text of a message is built only when its level is enabled.

#include "orn_log.h"

#include "stelmor_log.h"

#include <log4cplus/logger.h>

#include <atomic>
#include <sstream>
#include <string>

namespace ORN_3_30::internal {

namespace {

/// False before the logger is made and after it is gone: objects that die later, in static destructors of the
/// embedding program, log into nothing instead of into a dead logger.
std::atomic<bool> s_loggerAlive{false};

struct ComponentLogger {
    ComponentLogger() {
        const std::string component = "ORN";
        stelmor_1::log::configureComponentLogger(component);
        logger = log4cplus::Logger::getInstance(component);
        s_loggerAlive = true;
    }
    ~ComponentLogger() { s_loggerAlive = false; }

    log4cplus::Logger logger;
};

log4cplus::Logger& componentLogger() {
    static ComponentLogger instance;
    return instance.logger;
}

} // namespace

bool touchLogger() noexcept {
    try {
        componentLogger();
        return true;
    } catch (...) {
        return false;
    }
}

bool isLogEnabled(log_level_t level) noexcept {
    if (!s_loggerAlive.load(std::memory_order_relaxed))
        return false;
    try {
        return componentLogger().isEnabledFor(level);
    } catch (...) {
        return false;
    }
}

void logBuilt(log_level_t level, const char* file, int line, void (*build)(std::ostream&, const void*),
              const void* context) noexcept {
    if (!isLogEnabled(level))
        return;
    try {
        std::ostringstream text;
        build(text, context);
        if (level >= log_Warning)
            text << std::endl << ", at file: " << file << ":" << line;
        componentLogger().forcedLog(level, text.str(), file, line);
    } catch (...) {
        // A message that cannot be written is not worth a failing operation.
    }
}

void reportFailedAssertion(const char* expression, const char* file, int line) noexcept {
    logMessage(log_Error, file, line, [&](std::ostream& stream) {
        stream << "ASSERTION FAILED: '" << expression << "', at file: " << file << ":" << line;
    });
}

struct TraceBlock::Entry {
    log4cplus::Logger logger;
    std::string operation;
    const char* file;
    int line;

    void write(const std::string& text) noexcept {
        if (!s_loggerAlive.load(std::memory_order_relaxed))
            return;
        try {
            logger.forcedLog(log_Trace, text, file, line);
        } catch (...) {
            // As in logBuilt().
        }
    }
};

TraceBlock::TraceBlock(const char* operation, const char* file, int line) noexcept : m_entry(nullptr) {
    if (!isLogEnabled(log_Trace))
        return;
    try {
        m_entry = new Entry{componentLogger(), operation, file, line};
        m_entry->write("ENTER: " + m_entry->operation);
    } catch (...) {
        // Untraced, but running.
    }
}

TraceBlock::~TraceBlock() {
    if (!m_entry)
        return;
    try {
        m_entry->write("EXIT:  " + m_entry->operation);
    } catch (...) {
        // As in logBuilt().
    }
    delete m_entry;
}

void TraceBlock::in(const char* argument, const char* value) noexcept {
    if (!m_entry)
        return;
    try {
        m_entry->write(m_entry->operation + ": [IN] " + argument + " = " + (value ? value : ""));
    } catch (...) {
        // As in logBuilt().
    }
}

void TraceBlock::in(const char* argument, unsigned long long value) noexcept {
    if (!m_entry)
        return;
    try {
        m_entry->write(m_entry->operation + ": [IN] " + argument + " = " + std::to_string(value));
    } catch (...) {
        // As in logBuilt().
    }
}

} // namespace ORN_3_30::internal
