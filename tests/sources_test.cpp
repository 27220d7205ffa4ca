// Rules of the house that the sources themselves have to keep.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::map<std::string, std::string> sources() {
    std::map<std::string, std::string> all;
    for (const auto& entry : std::filesystem::directory_iterator(ORN_SOURCE_DIR "/src/orn")) {
        if (entry.path().extension() != ".cpp")
            continue;
        std::ostringstream text;
        text << std::ifstream(entry.path()).rdbuf();
        all[entry.path().filename().string()] = text.str();
    }
    return all;
}

// Whichever file is initialised first, the logger has to stand before an exported function runs. The header
// brings the initialiser that sees to it.
TEST(Sources, EachMakesSureThatTheLoggerStands) {
    const auto all = sources();
    ASSERT_GT(all.size(), 20U);
    for (const auto& [name, text] : all)
        EXPECT_NE(text.find("#include \"orn_log.h\""), std::string::npos) << name;
}

// Who watches the trace of a program counts on these operations and on no others.
TEST(Sources, TraceTheseOperationsAndNoOthers) {
    const std::vector<std::string> once = {"ModuleSymbolBank",
                                           "SymbolFileResolver",
                                           "SymbolManager",
                                           "architecture",
                                           "compUnitDetailsById",
                                           "entryPoint",
                                           "execFileFormat",
                                           "execFileName",
                                           "findStackVariable",
                                           "getFileLoader",
                                           "imageSize",
                                           "loadSymbolsFromModuleEx",
                                           "nonOverlappedSymbolRanges",
                                           "originalSymbolRanges",
                                           "preferredLoadAddress",
                                           "putPseudoAddress",
                                           "putRVA",
                                           "resolveSymbolFile",
                                           "sectionByName",
                                           "segmentByName",
                                           "segments",
                                           "sourceFileByName",
                                           "sourceLocationByAddress",
                                           "symFileFormat",
                                           "symFileName",
                                           "symbolByRanges",
                                           "symbolRangeByAddress",
                                           "~ModuleSymbolBank",
                                           "~SymbolManager"};
    std::multiset<std::string> expected(once.begin(), once.end());
    // The client's operation and the load step.
    for (int count = 0; count < 2; ++count)
        expected.insert("loadSymbolsFromModule");
    // Manager and bank; image and format loader each once for clients and once for loads.
    for (int count = 0; count < 6; ++count)
        expected.insert("create");

    std::multiset<std::string> found;
    const std::regex block("ORN_TRACE\\(\"([^\"]*)\"\\)");
    for (const auto& [name, text] : sources())
        for (std::sregex_iterator match(text.begin(), text.end(), block), end; match != end; ++match)
            found.insert((*match)[1]);
    // One a format that reads its headers late.
    EXPECT_GE(found.erase("readFileInfo"), 1U);
    EXPECT_THAT(found, testing::ContainerEq(expected));
}

} // namespace
