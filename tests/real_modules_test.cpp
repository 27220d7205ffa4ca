// Every symbol of some dozens of installed programs and libraries, of both classes and several processors,
// looked up through the command line and compared with what readelf says of the same file. What is not
// answered by its own name has to be explained by a rule: symbols that are not kept (binding, type, place),
// and symbols that a stronger one covers.

#include "support/command.h"
#include "support/real_module.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <string>
#include <vector>

namespace {

using orn_test::RealModule;
using orn_test::Tally;

/// Up to `count` regular files of a directory that readelf finds symbols in, largest names last; links are
/// passed over, so that no module comes twice.
void addModules(std::vector<std::string>& modules, const std::string& directory, const std::string& part,
                std::size_t count) {
    std::error_code missing;
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(directory, missing)) {
        if (!entry.is_regular_file() || entry.is_symlink() || entry.file_size() > 3000000 ||
            entry.path().filename().string().find(part) == std::string::npos)
            continue;
        std::ifstream file(entry.path(), std::ios::binary);
        char magic[4] = {};
        if (file.read(magic, 4) && std::string(magic, 4) == "\177ELF")
            found.push_back(entry.path().string());
    }
    std::sort(found.begin(), found.end());
    if (found.size() > count)
        found.resize(count);
    modules.insert(modules.end(), found.begin(), found.end());
}

TEST(RealModules, EverySymbolThatIsKeptIsFoundAtItsStart) {
    // What the module's debug information says of its functions is another test's matter.
    const orn_test::TempDir directory;
    const std::string own = directory.path() + "/own.so";
    int exitStatus = 0;
    orn_test::commandOutput("objcopy --strip-debug '" ORN_LIBRARY_PATH "' '" + own + "'", &exitStatus);
    ASSERT_EQ(0, exitStatus);
    std::vector<std::string> modules{own};
    addModules(modules, "/lib/x86_64-linux-gnu", ".so", 25);
    addModules(modules, "/usr/bin", "", 15);
    addModules(modules, "/usr/arm-linux-gnueabihf/lib", ".so", 8);
    addModules(modules, "/usr/i686-linux-gnu/lib", ".so", 8);
    addModules(modules, "/usr/aarch64-linux-gnu/lib", ".so", 8);
    ASSERT_GE(modules.size(), 30U);
    Tally tally;
    std::set<std::string> machines;
    std::set<bool> classes;
    for (const auto& path : modules) {
        RealModule module(path, tally);
        machines.insert(module.elf().machine);
        classes.insert(module.elf().is64Bit);
        module.check();
    }
    for (const auto& [rule, count] : tally)
        std::cout << count << "  " << rule << "\n";
    EXPECT_GT(tally["answered by a name of the table at that address"], 10000U);
    if (std::filesystem::exists("/usr/arm-linux-gnueabihf/lib/libc.so.6")) {
        EXPECT_GE(machines.size(), 3U);
        EXPECT_EQ(2U, classes.size());
    }
}

} // namespace
