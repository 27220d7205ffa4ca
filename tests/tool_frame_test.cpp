// The verb "frame": variables of a program that was not even started. Registers are made up, since only the
// distance between them and the variables counts.

#include "support/command.h"
#include "support/temp_dir.h"
#include "support/tool_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <map>
#include <sstream>

namespace {

using nlohmann::json;
using orn_test::ProcessResult;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr unsigned long long framePointer = 0x7fff1000;

std::string hexOf(unsigned long long value) {
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

class ToolFrame : public testing::Test {
protected:
    void SetUp() override {
        m_directory.write("prog.c", "struct pair { int a, b; };\n"
                                    "void touch(void* place) { (void)place; }\n"
                                    "int work(int given) {\n"
                                    "    struct pair both = {given, 2};\n"
                                    "    touch(&both);\n"
                                    "    return both.a;\n"
                                    "}\n"
                                    "int main(void) { return work(0); }\n");
        m_program = m_directory.path("prog");
        int status = 0;
        orn_test::commandOutput(
            "cd '" + m_directory.path() + "' && gcc -m64 -gdwarf-3 -O0 -no-pie prog.c -o prog 2>&1", &status);
        if (status != 0)
            GTEST_SKIP() << "there is no gcc for x86-64";
        std::istringstream symbols(orn_test::commandOutput("nm '" + m_program + "' | grep ' work$'"));
        symbols >> std::hex >> m_work;
    }

    static ProcessResult orn(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), ORN_TOOL_PATH);
        return orn_test::runProcess(arguments);
    }
    ProcessResult ask(unsigned long long code, unsigned long long data, bool asJson = false) const {
        std::vector<std::string> arguments = {"frame",      m_program,   hexOf(code),
                                              "--data",     hexOf(data), "--sp",
                                              "0x7fff0f00", "--fp",      hexOf(framePointer)};
        if (asJson)
            arguments.emplace_back("--json");
        return orn(arguments);
    }
    /// Where each name is found, byte by byte below the frame pointer.
    std::map<std::string, unsigned long long> places() const {
        std::map<std::string, unsigned long long> found;
        for (unsigned long long at = framePointer - 32; at < framePointer; ++at) {
            const json answer = json::parse(ask(m_work + 8, at, true).output);
            if (!answer["variable"].is_null())
                found.emplace(answer["variable"]["name"], at);
        }
        return found;
    }

    orn_test::TempDir m_directory;
    std::string m_program;
    unsigned long long m_work = 0;
};

TEST_F(ToolFrame, NamesTheMemberAndItsDeclaration) {
    const auto found = places();
    ASSERT_EQ(found.count("both::a"), 1u);
    ASSERT_EQ(found.count("both::b"), 1u);
    const unsigned long long begin = found.at("both::a");
    EXPECT_EQ(found.at("both::b"), begin + 4);
    const ProcessResult answer = ask(m_work + 8, begin + 5);
    EXPECT_EQ(answer.exitStatus, 0);
    EXPECT_EQ(answer.error, "");
    EXPECT_THAT(answer.output, StartsWith("both::b  member  " + hexOf(begin) + "+5  in work  "));
    EXPECT_THAT(answer.output, EndsWith("prog.c:4:17\n"));
}

TEST_F(ToolFrame, JsonHasEverythingApart) {
    const auto found = places();
    ASSERT_EQ(found.count("both::b"), 1u);
    const unsigned long long at = found.at("both::b");
    const json answer = json::parse(ask(m_work + 8, at, true).output);
    EXPECT_EQ(answer["module"], m_program);
    EXPECT_EQ(answer["pc"], hexOf(m_work + 8));
    EXPECT_EQ(answer["data"], hexOf(at));
    EXPECT_EQ(answer["function"], "work");
    EXPECT_EQ(answer["variable"]["name"], "both::b");
    EXPECT_EQ(answer["variable"]["member"], true);
    EXPECT_EQ(answer["variable"]["begin"], hexOf(at - 4));
    EXPECT_EQ(answer["variable"]["offset"], 4);
    EXPECT_THAT(answer["variable"]["declaration"]["file"].get<std::string>(), EndsWith("prog.c"));
    EXPECT_EQ(answer["variable"]["declaration"]["line"], 4);
    EXPECT_EQ(answer["variable"]["declaration"]["column"], 17);
}

TEST_F(ToolFrame, NothingThereIsAnAnswer) {
    const ProcessResult text = ask(m_work + 8, 0x1000);
    EXPECT_EQ(text.exitStatus, 0);
    EXPECT_EQ(text.error, "");
    EXPECT_EQ(text.output, "no variable there\n");
    const json answer = json::parse(ask(m_work + 8, 0x1000, true).output);
    EXPECT_EQ(answer["function"], "work");
    EXPECT_TRUE(answer["variable"].is_null());
}

TEST_F(ToolFrame, CodeThatNobodyOwnsIsToldOnStandardError) {
    const ProcessResult text = ask(0x10, framePointer - 8);
    EXPECT_EQ(text.exitStatus, 0);
    EXPECT_EQ(text.output, "no variable there\n");
    EXPECT_THAT(text.error, StartsWith("orn: no variables of '" + m_program + "' can be searched: "));
}

TEST_F(ToolFrame, AFunctionWithoutDebugInformationHasNoVariables) {
    ASSERT_NE(orn_test::commandOutput("strip -g '" + m_program + "' && echo done"), "");
    const ProcessResult text = ask(m_work + 8, framePointer - 8);
    EXPECT_EQ(text.exitStatus, 0);
    EXPECT_EQ(text.output, "no variable there\n");
}

TEST_F(ToolFrame, EveryNumberIsWantedAndMustBeOne) {
    const std::vector<std::vector<std::string>> wrong = {
        {"frame", m_program},
        {"frame", m_program, "1000"},
        {"frame", m_program, "1000", "--data", "1", "--sp", "2"},
        {"frame", m_program, "1000", "--data", "1", "--fp", "2"},
        {"frame", m_program, "1000", "--sp", "1", "--fp", "2"},
        {"frame", m_program, "main", "--data", "1", "--sp", "2", "--fp", "3"},
        {"frame", m_program, "1000", "--data", "x", "--sp", "2", "--fp", "3"},
    };
    for (const auto& arguments : wrong) {
        const ProcessResult result = orn(arguments);
        EXPECT_EQ(result.exitStatus, 2) << testing::PrintToString(arguments);
        EXPECT_THAT(result.output, IsEmpty());
        EXPECT_NE(result.error, "");
    }
}

TEST_F(ToolFrame, AModuleThatCannotBeLoadedEndsWithOne) {
    const ProcessResult result =
        orn({"frame", m_directory.path("none"), "1000", "--data", "1", "--sp", "2", "--fp", "3"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.error, HasSubstr("orn: cannot load "));
}

} // namespace
