// Kernel modules out of a distribution's kernel package, through the command line, compared with readelf.
// They are relocatable files: every section begins at 0, so that their addresses lie on one another. ".text"
// alone is the code, and what other sections hold at an address of ".text" is told by rank. The files are
// brought by scripts/test-inputs.sh; ORN_TEST_INPUTS names its directory. Without them there is nothing to
// test.

#include "support/real_module.h"
#include "support/tool_process.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using nlohmann::json;
using orn_test::ElfSection;
using orn_test::ReadelfModule;
using orn_test::RealModule;
using orn_test::Tally;

std::string answerOf(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), ORN_TOOL_PATH);
    const orn_test::ProcessResult result = orn_test::runProcess(arguments);
    EXPECT_EQ(result.exitStatus, 0) << result.error;
    return result.output;
}

std::string hexOf(std::uint64_t value) {
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

class KernelModules : public testing::Test {
protected:
    void SetUp() override {
        const char* named = std::getenv("ORN_TEST_INPUTS");
        const std::string directory =
            (named && *named ? std::string(named) : ORN_SOURCE_DIR "/build-inputs") + "/kernel";
        std::error_code missing;
        for (const auto& entry : std::filesystem::directory_iterator(directory, missing))
            if (entry.path().extension() == ".ko")
                m_paths.push_back(entry.path().string());
        std::sort(m_paths.begin(), m_paths.end());
        if (m_paths.empty())
            GTEST_SKIP() << "no kernel modules in " << directory << "; scripts/test-inputs.sh brings them";
    }

    const std::vector<std::string>& paths() const { return m_paths; }

private:
    std::vector<std::string> m_paths;
};

TEST_F(KernelModules, EverySymbolThatIsKeptIsFoundAtItsStart) {
    Tally tally;
    for (const std::string& path : paths())
        RealModule(path, tally).check();
    for (const auto& [rule, count] : tally)
        std::cout << count << "  " << rule << "\n";
    EXPECT_GT(tally["answered by a name of the table at that address"], 100U);
}

TEST_F(KernelModules, EveryFunctionOfTextIsAnsweredByANameThatHoldsItsStart) {
    for (const std::string& path : paths()) {
        const ReadelfModule elf(path);
        const auto textIndex = static_cast<std::size_t>(elf.section(".text") - elf.sections.data());
        std::vector<std::string> command{"symbolize", "--json", path};
        std::vector<orn_test::ElfSymbol> functions;
        for (const auto& symbol : elf.symbols)
            if (symbol.type == "FUNC" && symbol.section == std::to_string(textIndex)) {
                functions.push_back(symbol);
                command.push_back(hexOf(symbol.value));
            }
        if (functions.empty())
            continue; // a module of nothing but its beginning and its end
        std::istringstream lines(answerOf(command));
        for (const auto& function : functions) {
            std::string line;
            ASSERT_TRUE(std::getline(lines, line)) << path;
            const json answer = json::parse(line)["symbol"];
            ASSERT_FALSE(answer.is_null()) << path << ": " << function.name;
            const bool isThere = std::any_of(elf.symbols.begin(), elf.symbols.end(), [&](const auto& symbol) {
                return symbol.name == answer["raw"] && symbol.value <= function.value &&
                       (symbol.value == function.value || function.value < symbol.value + symbol.size);
            });
            EXPECT_TRUE(isThere) << path << ": " << function.name << " is answered by " << answer;
        }
    }
}

TEST_F(KernelModules, TextIsTheOneSegmentAndTheBaseIsItsAddress) {
    for (const std::string& path : paths()) {
        const ReadelfModule elf(path);
        const ElfSection* text = elf.section(".text");
        ASSERT_TRUE(text) << path;
        const json info = json::parse(answerOf({"info", "--json", path}));
        EXPECT_EQ(info["format"], "elf");
        EXPECT_EQ(info["loadAddress"], hexOf(text->address));
        EXPECT_EQ(info["imageSize"], hexOf(text->size));
        // Whatever else occupies memory lies on it, and it has the better right.
        ASSERT_EQ(info["segments"].size(), 1U) << path;
        const json& segment = info["segments"][0];
        EXPECT_EQ(segment["name"], ".text");
        EXPECT_EQ(segment["address"], hexOf(text->address));
        EXPECT_EQ(segment["fileOffset"], hexOf(text->fileOffset));
        EXPECT_EQ(segment["fileSize"], hexOf(text->size));
        EXPECT_EQ(segment["size"], hexOf(text->size));
        EXPECT_EQ(info["sections"].size(), elf.sections.size());
    }
}

TEST_F(KernelModules, FileOffsetsCountFromText) {
    for (const std::string& path : paths()) {
        const ElfSection text = *ReadelfModule(path).section(".text");
        const json answer =
            json::parse(answerOf({"symbolize", "--json", "--file-offset", path, hexOf(text.fileOffset + 1)}));
        EXPECT_EQ(answer["address"], hexOf(text.address + 1)) << path;
        EXPECT_EQ(answer["rva"], "0x1") << path;
        EXPECT_FALSE(answer["symbol"].is_null()) << path;
    }
}

TEST_F(KernelModules, TheDebugFileOfTheBuildIdIsTheCandidate) {
    for (const std::string& path : paths()) {
        const std::string id = ReadelfModule(path).buildId;
        ASSERT_GT(id.size(), 2U) << path;
        const json candidates = json::parse(answerOf({"info", "--json", path}))["candidates"];
        ASSERT_FALSE(candidates.empty()) << path;
        EXPECT_EQ(candidates[0]["wanted"], ".build-id/" + id.substr(0, 2) + "/" + id.substr(2) + ".debug");
        EXPECT_EQ(candidates[0]["state"], 4);
        EXPECT_EQ(candidates[0]["chosen"], false);
    }
}

} // namespace
