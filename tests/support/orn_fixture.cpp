// The strict fixture: an appender of its own on the logger "ORN", weighed with the manager's registries when
// the test is over. A destructor does it and not TearDown(): the members of the test are gone by then.

#include "support/orn_fixture.h"

#include "orn_symbolmanager.h"

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

#include <mutex>
#include <utility>

namespace ORN_3_30::test {

namespace {

/// Who filters a log by levels counts on these. Texts that are not listed may come at any level.
struct {
    const char* part;
    int level;
} const levels[] = {
    {"IModuleImage::create: wrong parameter. binFileName should not be empty", warningLevel},
    {", IModuleImage::create(): cannot create ", warningLevel},
    {"NULL pointer: ffl", warningLevel},
    {"createOffloadImage: ", warningLevel},
    {" has neither ELFCLASS32 nor ELFCLASS64", warningLevel},
    {"Unknown binary architecture: ", warningLevel},
    {"ASSERTION FAILED: '", errorLevel},
    {"Out of memory", errorLevel},
    {"can't allocate memory: ", errorLevel},
    {"can't instantiate ISymbolManager object", errorLevel},
    {"Module Image is NULL", errorLevel},
    {"could not open file", errorLevel},
    {"Unable to create ByteBuffer of size: ", errorLevel},
    {"Unable to read ", errorLevel},
    {"unknown compression algorithm", errorLevel},
    {"error while uncompressing ZLIB section data", errorLevel},
    {"Failed to read string table for file", errorLevel},
    {" has incorrect size or file is truncated", errorLevel},
};

void checkLevel(const LogMessage& message) {
    for (const auto& known : levels) {
        if (message.text.find(known.part) != std::string::npos) {
            EXPECT_EQ(message.level, known.level) << message.text;
        }
    }
}

} // namespace

class OrnTest::Collector : public log4cplus::Appender {
public:
    ~Collector() override { destructorImpl(); }
    void close() override { closed = true; }

    std::vector<LogMessage> snapshot() const {
        std::lock_guard<std::mutex> guard(m_guard);
        return m_messages;
    }
    std::vector<LogMessage> take() {
        std::lock_guard<std::mutex> guard(m_guard);
        return std::exchange(m_messages, {});
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        std::lock_guard<std::mutex> guard(m_guard);
        m_messages.push_back({event.getLogLevel(), event.getMessage(), event.getFile(), event.getLine()});
    }

private:
    mutable std::mutex m_guard;
    std::vector<LogMessage> m_messages;
};

struct OrnTest::Holder {
    log4cplus::Logger logger = log4cplus::Logger::getInstance("ORN");
    log4cplus::LogLevel levelBefore = logger.getLogLevel();
    log4cplus::SharedAppenderPtr appender;
};

OrnTest::OrnTest() : m_collector(new Collector), m_holder(new Holder) {
    m_holder->appender = log4cplus::SharedAppenderPtr(m_collector);
    m_holder->logger.addAppender(m_holder->appender);
    setLogLevel(informationLevel);
}

OrnTest::~OrnTest() {
    checkLogs();
    checkRegistries();
    m_holder->logger.removeAppender(m_holder->appender);
    m_holder->logger.setLogLevel(m_holder->levelBefore);
    delete m_holder;
}

void OrnTest::expectLog(const std::string& part, int count) {
    m_announced.push_back({part, count});
}

void OrnTest::allowLog(const std::string& part) {
    m_announced.push_back({part, -1});
}

std::vector<LogMessage> OrnTest::takeLogs() {
    return m_collector->take();
}

std::vector<std::string> OrnTest::messages(int level) const {
    std::vector<std::string> texts;
    for (const LogMessage& message : m_collector->snapshot())
        if (message.level == level)
            texts.push_back(message.text);
    return texts;
}

void OrnTest::setLogLevel(int level) {
    m_holder->logger.setLogLevel(level);
}

bool OrnTest::wasAnnounced(const LogMessage& message) {
    for (Announced& announced : m_announced) {
        if (announced.count == 0 || message.text.find(announced.part) == std::string::npos)
            continue;
        if (announced.count > 0)
            --announced.count;
        return true;
    }
    return false;
}

void OrnTest::checkLogs() {
    for (const LogMessage& message : takeLogs()) {
        if (message.level < warningLevel)
            continue;
        if (!wasAnnounced(message))
            ADD_FAILURE() << "unexpected message at level " << message.level << ": " << message.text;
        checkLevel(message);
    }
    for (const Announced& announced : m_announced)
        if (announced.count > 0)
            ADD_FAILURE() << "announced, but not logged: " << announced.part;
}

void OrnTest::checkRegistries() {
    EXPECT_EQ(internal::liveBankCount(), 0u) << "a bank stays behind";
    EXPECT_EQ(internal::registeredLoaderCount(), 0u) << "a format loader stays behind";
}

} // namespace ORN_3_30::test
