// The strict fixture itself: what it lets pass and what it holds up.

#include "support/orn_fixture.h"

#include "orn_log.h"

#include <gtest/gtest-spi.h>

#include <memory>

namespace ORN_3_30::test {
namespace {

class FixtureTest : public OrnTest {
protected:
    /// What a test that ran `body` would have been told at its end.
    template <typename Body>
    std::vector<std::string> failuresOf(const Body& body) {
        struct Probe : OrnTest {
            void TestBody() override {}
        };
        ::testing::TestPartResultArray results;
        auto probe = std::make_unique<Probe>();
        body(*probe);
        {
            ::testing::ScopedFakeTestPartResultReporter reporter(
                ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ALL_THREADS, &results);
            probe.reset();
        }
        takeLogs();
        std::vector<std::string> failures;
        for (int i = 0; i < results.size(); ++i)
            failures.push_back(results.GetTestPartResult(i).message());
        return failures;
    }
};

TEST_F(FixtureTest, AnUnannouncedWarningFailsTheTest) {
    EXPECT_THAT(failuresOf([](OrnTest&) { ORN_LOG_WARNING("something odd"); }),
                testing::ElementsAre(testing::HasSubstr("something odd")));
}

TEST_F(FixtureTest, AnInformationDoesNotFailTheTest) {
    EXPECT_THAT(failuresOf([](OrnTest&) { ORN_LOG_INFO("something usual"); }), testing::IsEmpty());
}

TEST_F(FixtureTest, AnAnnouncedErrorPassesOnceOnly) {
    auto twice = [](OrnTest& test) {
        test.expectLog("odd");
        ORN_LOG_ERROR("odd one");
        ORN_LOG_ERROR("odd two");
    };
    EXPECT_THAT(failuresOf(twice), testing::ElementsAre(testing::HasSubstr("odd two")));
}

TEST_F(FixtureTest, AnAnnouncedErrorThatNeverComesFailsTheTest) {
    EXPECT_THAT(failuresOf([](OrnTest& test) { test.expectLog("odd"); }),
                testing::ElementsAre(testing::HasSubstr("odd")));
}

TEST_F(FixtureTest, AllowedMessagesPassInAnyNumber) {
    auto body = [](OrnTest& test) {
        test.allowLog("odd");
        test.allowLog("strange");
        ORN_LOG_ERROR("odd one");
        ORN_LOG_ERROR("odd two");
    };
    EXPECT_THAT(failuresOf(body), testing::IsEmpty());
}

TEST_F(FixtureTest, TakenMessagesAreTheTestsOwnBusiness) {
    auto body = [](OrnTest& test) {
        ORN_LOG_ERROR("odd");
        const std::vector<LogMessage> taken = test.takeLogs();
        ASSERT_EQ(taken.size(), 1u);
        EXPECT_EQ(taken[0].level, errorLevel);
        EXPECT_THAT(taken[0].text, testing::StartsWith("odd\n, at file: "));
    };
    EXPECT_THAT(failuresOf(body), testing::IsEmpty());
}

} // namespace
} // namespace ORN_3_30::test
