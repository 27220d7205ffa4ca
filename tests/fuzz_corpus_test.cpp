// Replays the corpus of every fuzz target: what once broke a parser, and one sound input each.

#include "fuzz_targets.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

namespace {

class FuzzCorpus : public ::testing::TestWithParam<orn_fuzz::Target> {};

TEST_P(FuzzCorpus, EveryInputComesBack) {
    const std::filesystem::path folder =
        std::filesystem::path(ORN_SOURCE_DIR) / "fuzz" / "corpus" / GetParam().name;
    int inputs = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        std::ifstream file(entry.path(), std::ios::binary);
        std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        SCOPED_TRACE(entry.path().filename().string());
        GetParam().run(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
        ++inputs;
    }
    EXPECT_GT(inputs, 0) << folder;
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzCorpus, ::testing::ValuesIn(orn_fuzz::targets),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
