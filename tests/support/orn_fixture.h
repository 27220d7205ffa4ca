// The fixture of nearly every test: no warning or error goes by unnoticed, and nothing stays behind.
#ifndef ORN_FIXTURE_H
#define ORN_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ORN_3_30::test {

/// The levels of the library's messages, by number, as tests speak of them.
constexpr int traceLevel = 0;
constexpr int informationLevel = 20000;
constexpr int warningLevel = 30000;
constexpr int errorLevel = 40000;

/// One message as it arrived at an appender of the logger "ORN".
struct LogMessage {
    int level;
    std::string text; ///< with the tail ", at file: ..." where it has one
    std::string file;
    int line;
};

/// Collects what the logger "ORN" gets while a test runs. When the test is over and its members are gone, a
/// warning or an error that was neither announced nor taken fails it, and so do an announced one that never
/// came and a bank or a format loader that stays behind in the manager's registries.
///
///     using SymbolTableTest = test::OrnTest;
///     TEST_F(SymbolTableTest, ...) { expectLog("Out of memory"); ... }
class OrnTest : public ::testing::Test {
public:
    OrnTest();
    ~OrnTest() override;

    /// Announces exactly `count` messages at level 30000 or above that contain `part`.
    void expectLog(const std::string& part, int count = 1);
    /// Lets messages that contain `part` pass, however many there are, none included.
    void allowLog(const std::string& part);
    /// Everything logged so far, in order; the test answers for what it has taken.
    std::vector<LogMessage> takeLogs();
    /// Texts of what was logged at exactly that level and not taken yet.
    std::vector<std::string> messages(int level) const;

    /// Level of the logger until the test ends; it starts at informationLevel.
    void setLogLevel(int level);

private:
    class Collector;
    struct Announced {
        std::string part;
        int count; ///< negative: any number
    };

    bool wasAnnounced(const LogMessage& message);
    void checkLogs();
    static void checkRegistries();

    Collector* m_collector; ///< counted by the logger and by m_holder
    struct Holder;
    Holder* m_holder;
    std::vector<Announced> m_announced;
};

} // namespace ORN_3_30::test

#endif
