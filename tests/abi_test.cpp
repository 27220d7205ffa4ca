// The binary interface: which symbols the shared library exports, and the order of virtual operations.
// Clients compiled against earlier headers rely on both. The goldens are made with ORN_UPDATE_GOLDEN=1 in the
// environment and read by a person before they are committed.

#include "support/command.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using orn_test::commandOutput;

const std::string sourceDir = ORN_SOURCE_DIR;

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

void compareWithGolden(const std::string& name, const std::string& actual) {
    const std::string path = sourceDir + "/tests/golden/" + name;
    if (std::getenv("ORN_UPDATE_GOLDEN")) {
        std::ofstream(path) << actual;
        return;
    }
    std::ifstream file(path);
    ASSERT_TRUE(file) << path;
    std::stringstream expected;
    expected << file.rdbuf();
    EXPECT_EQ(linesOf(actual), linesOf(expected.str()));
}

/// The operations of one table, one a line, from clang's listing: what stands between the first address point
/// and the tables of further bases.
std::string operationsFromListing(const std::vector<std::string>& lines) {
    std::string operations;
    bool primary = false;
    for (const auto& line : lines) {
        if (line.rfind("Vtable for '", 0) == 0) {
            const auto begin = line.find('\'') + 1;
            std::string name = line.substr(begin, line.find('\'', begin) - begin);
            const bool listed = name.rfind("ORN_3_30::", 0) == 0 && name.back() == '_';
            primary = listed;
            if (listed)
                operations += name.substr(10, name.size() - 11) + "\n";
            continue;
        }
        const auto bar = line.find(" | ");
        if (line.rfind("VTable indices", 0) == 0 || line.rfind("Thunks for", 0) == 0)
            primary = false;
        if (!primary || bar == std::string::npos)
            continue;
        std::string operation = line.substr(bar + 3);
        if (operation.rfind("offset_to_top (0)", 0) == 0 || operation.find(" RTTI") != std::string::npos)
            continue;
        if (operation.rfind("offset_to_top", 0) == 0) {
            primary = false;
            continue;
        }
        if (const auto pure = operation.find(" [pure]"); pure != std::string::npos)
            operation.erase(pure);
        for (auto at = operation.find("ORN_3_30::"); at != std::string::npos;
             at = operation.find("ORN_3_30::"))
            operation.erase(at, 10);
        operations += "    " + operation + "\n";
    }
    return operations;
}

/// Classes in the order of their names: clang lists them in the order in which it meets them.
std::string sortedByClass(const std::string& operations) {
    std::vector<std::string> classes;
    for (const auto& line : linesOf(operations)) {
        if (line.rfind("    ", 0) != 0)
            classes.emplace_back();
        classes.back() += line + "\n";
    }
    std::sort(classes.begin(), classes.end());
    std::string text;
    for (const auto& one : classes)
        text += one;
    return text;
}

TEST(BinaryInterface, TheSharedLibraryExportsTheseSymbolsAndNoOthers) {
    int exitStatus = 0;
    const std::string listing =
        commandOutput("nm -D --defined-only -C --format=posix '" ORN_LIBRARY_PATH "'", &exitStatus);
    ASSERT_EQ(0, exitStatus);
    std::vector<std::string> names;
    for (const auto& line : linesOf(listing)) {
        // "name type value size": the name may hold blanks.
        std::string name = line;
        for (int field = 0; field < 3; ++field)
            if (const auto blank = name.rfind(' '); blank != std::string::npos)
                name.erase(blank);
        names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    std::string text;
    for (const auto& name : names)
        text += name + "\n";
    compareWithGolden("exported_symbols.txt", text);
}

TEST(BinaryInterface, VirtualOperationsKeepTheirOrder) {
    int exitStatus = 0;
    commandOutput("clang++ --version 2>/dev/null", &exitStatus);
    if (exitStatus != 0)
        GTEST_SKIP() << "clang lists the layouts, and it is not installed";
    const std::string listing =
        commandOutput("clang++ -std=c++20 -I'" + sourceDir + "/include' -I'" + sourceDir +
                          "/src/orn' -x c++ -S -emit-llvm -o /dev/null -Xclang -fdump-vtable-layouts '" +
                          sourceDir + "/tests/support/vtable_layouts.cc' 2>&1",
                      &exitStatus);
    ASSERT_EQ(0, exitStatus) << listing;
    compareWithGolden("virtual_operations.txt", sortedByClass(operationsFromListing(linesOf(listing))));
}

} // namespace
