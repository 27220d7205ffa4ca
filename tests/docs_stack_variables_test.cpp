// Runs the worked example of docs/stack-variables.md as it stands there, and compares what comes out with
// what the document says, addresses aside.

#include "support/stack_programs.h"
#include "support/temp_dir.h"
#include "support/tool_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <sstream>

namespace {

using orn_test::TempDir;
using testing::HasSubstr;

/// The fenced blocks of one language, in order.
std::vector<std::string> blocksOf(const std::string& document, const std::string& language) {
    std::vector<std::string> blocks;
    const std::string fence = "\n```" + language + "\n";
    for (std::size_t at = document.find(fence); at != std::string::npos; at = document.find(fence, at)) {
        at += fence.size();
        blocks.push_back(document.substr(at, document.find("\n```", at) - at + 1));
    }
    return blocks;
}

std::string withoutAddresses(const std::string& text) {
    return std::regex_replace(text, std::regex("0x[0-9a-f]+"), "0x");
}

std::string withoutDirectories(const std::string& text) {
    return std::regex_replace(text, std::regex("/[^ ]*/"), "");
}

std::vector<std::string> wordsOf(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

std::string shell(const std::string& directory, const std::string& command) {
    const orn_test::ProcessResult result =
        orn_test::runProcess({"sh", "-c", "cd '" + directory + "' && " + command});
    EXPECT_EQ(result.exitStatus, 0) << result.error;
    return result.output;
}

TEST(StackVariablesDocument, TheWorkedExampleGivesWhatItShows) {
    const std::string document = TempDir::contents(ORN_SOURCE_DIR "/docs/stack-variables.md");
    const auto sources = blocksOf(document, "c");
    const auto scripts = blocksOf(document, "gdb");
    const auto commands = blocksOf(document, "sh");
    const auto outputs = blocksOf(document, "text");
    ASSERT_EQ(sources.size(), 1u);
    ASSERT_EQ(scripts.size(), 1u);
    ASSERT_EQ(commands.size(), 2u);
    ASSERT_EQ(outputs.size(), 2u);
    const std::string reason = orn_test::whyNoStackPrograms();
    if (!reason.empty())
        GTEST_SKIP() << reason;

    TempDir directory;
    directory.write("stopped.c", sources[0]);
    directory.write("stop.gdb", scripts[0]);
    shell(directory.path(), commands[0]);
    const std::string told = shell(directory.path(), commands[1]);
    EXPECT_THAT(withoutAddresses(told), HasSubstr(withoutAddresses(outputs[0])));

    // The line that the debugger has written for the person.
    std::vector<std::string> question = wordsOf(told.substr(told.rfind("orn frame ")));
    constexpr std::size_t wordsOfQuestion = 9; // orn frame MODULE PC --data ADDRESS --sp VALUE --fp VALUE
    ASSERT_GT(question.size(), wordsOfQuestion);
    question.resize(wordsOfQuestion + 1);
    const std::string program = directory.path("stopped");
    question[0] = ORN_TOOL_PATH;
    question[2] = program;
    const orn_test::ProcessResult answer = orn_test::runProcess(question);
    EXPECT_EQ(answer.error, "");
    EXPECT_EQ(withoutAddresses(withoutDirectories(answer.output)),
              withoutAddresses(withoutDirectories(outputs[1])));

    // The beginning that Orn names is the debugger's &frame.
    std::smatch begin;
    ASSERT_TRUE(std::regex_search(told, begin, std::regex("struct box \\*\\) (0x[0-9a-f]+)")));
    EXPECT_THAT(answer.output, HasSubstr(begin[1].str() + "+8"));
}

} // namespace
