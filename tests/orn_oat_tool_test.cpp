// The command line on a container of compiled managed code: the whole way from a file to class, method,
// source file and line, and the same file as plain ELF where the legacy reader is off.

#include "support/oat_assembler.h"
#include "support/temp_dir.h"
#include "support/tool_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>

namespace {

using nlohmann::json;
using orn_test::DexAssembler;
using orn_test::DexLines;
using orn_test::OatAssembler;
using orn_test::ProcessResult;
using orn_test::TempDir;
using testing::HasSubstr;
using testing::Not;

constexpr uint64_t oatDataAddress = 0x4000;

/// Two dex files; the classes are of all three types, the methods with and without lines.
OatAssembler application(int version) {
    DexAssembler first;
    first.addClass("Lcom/acme/Foo;", "Foo.java");
    first.addMethod(0, "bar", {.lines = DexLines(40).row(0, 0).row(2, 3).end()});
    first.addMethod(0, "quiet");
    first.addClass("Lcom/acme/Dormant;", "Dormant.java");
    first.addMethod(1, "sleep", {.lines = DexLines(1).row(0, 0).end()});
    DexAssembler second;
    second.addClass("LMain;", "Main.java");
    second.addMethod(0, "<init>", {.lines = DexLines(3).row(0, 0).end()});
    second.addMethod(0, "run", {.isVirtual = true, .lines = DexLines(7).row(0, 0).row(1, 1).end()});
    OatAssembler oat(version);
    oat.addDex(first);
    oat.addDex(second);
    oat.record(0, 0).code["bar"] = {.size = 0x20, .nativeToDex = {{0, 0}, {12, 3}}};
    oat.record(0, 1).type = 2;
    oat.record(1, 0) = {1, {{"run", {.size = 0x18, .nativeToDex = {{0, 0}, {8, 1}}}}}};
    return oat;
}

class OatTool : public testing::TestWithParam<int> {
protected:
    OatTool() : m_oat(application(GetParam())) {
        const std::vector<uint8_t> bytes = m_oat.module(oatDataAddress).build();
        m_path = m_directory.write("app.oat", std::string(bytes.begin(), bytes.end()));
    }

    std::string addressOf(size_t dex, size_t classIndex, const std::string& method, uint64_t delta) const {
        std::ostringstream text;
        text << "0x" << std::hex << oatDataAddress + m_oat.codeOffset(dex, classIndex, method) + delta;
        return text.str();
    }
    /// With the legacy reader switched so; the answer's lines as objects.
    std::vector<json> symbolize(const std::string& legacyReader, std::vector<std::string> addresses) const {
        std::vector<std::string> command{
            "env", "ORN_USE_LEGACY_OAT_READER=" + legacyReader, ORN_TOOL_PATH, "symbolize", "--json", m_path};
        command.insert(command.end(), addresses.begin(), addresses.end());
        const ProcessResult result = orn_test::runProcess(command);
        EXPECT_EQ(result.exitStatus, 0) << result.error;
        EXPECT_EQ(result.error, "");
        std::vector<json> objects;
        std::istringstream lines(result.output);
        for (std::string line; std::getline(lines, line);)
            objects.push_back(json::parse(line));
        return objects;
    }

    TempDir m_directory;
    OatAssembler m_oat;
    std::string m_path;
};

TEST_P(OatTool, PrintsClassMethodFileAndLine) {
    const auto answers =
        symbolize("1", {addressOf(0, 0, "bar", 0), addressOf(0, 0, "bar", 12), addressOf(0, 0, "bar", 20),
                        addressOf(0, 0, "quiet", 4), addressOf(1, 0, "run", 8)});
    ASSERT_EQ(answers.size(), 5u);
    const auto expectFrame = [&](size_t index, const char* function, const json& file, const json& line) {
        SCOPED_TRACE(answers[index].dump());
        EXPECT_EQ(answers[index]["symbol"]["name"], function);
        ASSERT_EQ(answers[index]["frames"].size(), 1u);
        const json& frame = answers[index]["frames"][0];
        EXPECT_EQ(frame["function"], function);
        EXPECT_EQ(frame["file"], file);
        EXPECT_EQ(frame["line"], line);
    };
    expectFrame(0, "com.acme.Foo.bar", "Foo.java", 40);
    expectFrame(1, "com.acme.Foo.bar", "Foo.java", 42);
    expectFrame(2, "com.acme.Foo.bar", "Foo.java", 40);
    expectFrame(3, "com.acme.Foo.quiet", nullptr, nullptr);
    expectFrame(4, "Main.run", "Main.java", 8);
}

TEST_P(OatTool, WithoutTheSwitchTheFileIsPlainElf) {
    for (const json& answer : symbolize("", {addressOf(0, 0, "bar", 0), addressOf(1, 0, "run", 8)})) {
        EXPECT_EQ(answer["symbol"]["name"], "oatexec") << answer;
        EXPECT_EQ(answer["frames"][0]["file"], nullptr) << answer;
    }
}

TEST_P(OatTool, TextHasFileAndLine) {
    const ProcessResult result = orn_test::runProcess({"env", "ORN_USE_LEGACY_OAT_READER=1", ORN_TOOL_PATH,
                                                       "symbolize", m_path, addressOf(0, 0, "bar", 12)});
    EXPECT_EQ(result.exitStatus, 0) << result.error;
    EXPECT_THAT(result.output, HasSubstr("com.acme.Foo.bar"));
    EXPECT_THAT(result.output, HasSubstr("Foo.java:42"));
}

TEST_P(OatTool, InfoNamesTheSymbolFile) {
    const auto info = [&](const std::string& legacyReader) {
        return orn_test::runProcess(
                   {"env", "ORN_USE_LEGACY_OAT_READER=" + legacyReader, ORN_TOOL_PATH, "info", m_path})
            .output;
    };
    EXPECT_THAT(info("1"), HasSubstr("oat"));
    EXPECT_THAT(info(""), Not(HasSubstr("format: oat")));
}

TEST_P(OatTool, LinesAreListedBySymbolAndByFile) {
    const auto lines = [&](const std::string& by, const std::string& name) {
        const ProcessResult result = orn_test::runProcess(
            {"env", "ORN_USE_LEGACY_OAT_READER=1", ORN_TOOL_PATH, "lines", m_path, by, name});
        EXPECT_EQ(result.exitStatus, 0) << result.error;
        EXPECT_EQ(result.error, "");
        return result.output;
    };
    EXPECT_THAT(lines("--symbol", "com.acme.Foo.bar"), HasSubstr("Foo.java:42"));
    EXPECT_THAT(lines("--file", "Main.java:8"), HasSubstr("Main.java:8"));
    EXPECT_THAT(lines("--file", "Main.java:8"), Not(HasSubstr("Foo.java")));
}

INSTANTIATE_TEST_SUITE_P(Versions, OatTool, testing::Values(7, 15, 28),
                         [](const auto& info) { return "Version" + std::to_string(info.param); });

} // namespace
