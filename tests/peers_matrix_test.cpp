// Programs of five compilers, in three versions of the debug information, at four levels of optimisation, of
// 32 and 64 bits: what our command line says of their addresses beside what addr2line, llvm-symbolizer and
// eu-addr2line say. Each difference has to be of a rule (support/peer_rules.cpp); how often each rule applies
// is printed.
//
// The programs are in tests/programs; they are compiled here, since what is compared is what the compilers of
// this machine make of them.

#include "support/command.h"
#include "support/peer_comparison.h"
#include "support/real_module.h"
#include "support/sanitized.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

namespace orn_test {
namespace {

struct Language {
    const char* compiler;
    const char* source;
    const char* options;
};

// The names of types that no library has make the programs of C and C++ the same for both compilers.
// eu-addr2line finds a unit by its entry in .debug_aranges alone, which clang leaves out unless it is told
// not to.
constexpr Language languages[] = {
    {"gcc", "levels.c", ""},
    {"g++", "templates.cpp", ""},
    {"clang", "levels.c", "-gdwarf-aranges"},
    {"clang++", "templates.cpp", "-gdwarf-aranges"},
    {"gfortran", "arrays.f90", ""},
};

void PrintTo(const Language& language, std::ostream* out) {
    *out << language.compiler;
}

const Language& languageOf(const std::string& compiler) {
    return *std::find_if(std::begin(languages), std::end(languages),
                         [&](const Language& language) { return language.compiler == compiler; });
}

bool succeeds(const std::string& command) {
    int status = -1;
    commandOutput(command + " >/dev/null 2>&1", &status);
    return status == 0;
}

/// Empty if everything that is compared with is installed.
std::string whatIsMissing(const std::string& compiler) {
    if (!succeeds(compiler + " --version"))
        return compiler;
    for (Peer peer : allPeers) {
        if (!isInstalled(peer))
            return nameOf(peer);
    }
    return {};
}

class PeersTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (isSanitized)
            GTEST_SKIP() << "about answers, not about memory";
        std::filesystem::copy(ORN_SOURCE_DIR "/tests/programs", m_dir.path(),
                              std::filesystem::copy_options::recursive);
    }

    void skipWithout(const std::string& compiler) {
        if (const std::string missing = whatIsMissing(compiler); !missing.empty())
            GTEST_SKIP() << "there is no " << missing;
    }

    /// In the directory of the sources, so that names of files are relative to the unit's directory.
    testing::AssertionResult run(const std::string& command) const {
        int status = -1;
        const std::string output =
            commandOutput("cd '" + m_dir.path() + "' && { " + command + "; } 2>&1", &status);
        if (status == 0)
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << command << '\n' << output;
    }

    /// `options` before the ones of the language, which name the source.
    testing::AssertionResult compile(const Language& language, const std::string& options,
                                     const std::string& output) const {
        return run(std::string(language.compiler) + " -w " + options + ' ' + language.options + ' ' +
                   language.source + " -o " + output);
    }

    bool makesProgramsOf32Bits(const Language& language) const {
        return static_cast<bool>(compile(language, "-m32", "probe"));
    }

    void report(const PeerLedger& ledger) const {
        std::cout << ledger.rulesText();
        EXPECT_EQ(ledger.unexplained(), "");
        EXPECT_EQ(ledger.overused(), "");
    }

    TempDir m_dir;
};

class PeersMatrixTest : public PeersTest, public ::testing::WithParamInterface<Language> {};

// Takes about 10 s for each compiler: 24 programs are compiled and put to four programs each.
TEST_P(PeersMatrixTest, EveryDifferenceFromThePeersIsOfARule) {
    const Language& language = GetParam();
    skipWithout(language.compiler);
    if (IsSkipped())
        return;
    std::vector<const char*> widths = {"-m64"};
    if (makesProgramsOf32Bits(language))
        widths.push_back("-m32");
    else
        std::cout << "no programs of 32 bits: there is no library for them\n";
    PeerLedger ledger;
    for (const char* version : {"-gdwarf-2", "-gdwarf-3", "-gdwarf-4"}) {
        for (const char* level : {"-O0", "-O1", "-O2", "-O3"}) {
            for (const char* width : widths) {
                const std::string options = std::string(version) + ' ' + level + ' ' + width;
                ASSERT_TRUE(compile(language, options, "program"));
                compareWithPeers({language.compiler + (' ' + options),
                                  language.compiler,
                                  m_dir.path("program"),
                                  {},
                                  {},
                                  {}},
                                 {5, 8}, ledger);
            }
        }
    }
    report(ledger);
    EXPECT_GT(ledger.comparisons(), 10000u);
    EXPECT_GT(ledger.expanded(), 100u);
}

INSTANTIATE_TEST_SUITE_P(Compilers, PeersMatrixTest, ::testing::ValuesIn(languages), [](const auto& info) {
    std::string name = info.param.compiler;
    std::replace(name.begin(), name.end(), '+', 'p');
    return name;
});

using PeersFormTest = PeersTest;

// All sections of an object file begin at 0, and an address alone does not say of which one it is: the
// programs differ in what they take it for. So everything is put into one section.
TEST_F(PeersFormTest, ObjectFilesHaveFunctionsAndLines) {
    struct OneSection {
        const char* compiler;
        const char* options;
    };
    PeerLedger ledger;
    for (const auto& [compiler, oneSection] :
         {OneSection{"gcc", " -c -Dcold= -fno-reorder-functions"}, OneSection{"clang", " -c -Dcold="}}) {
        skipWithout(compiler);
        if (IsSkipped())
            return;
        for (const char* options : {"-O1 -gdwarf-4 -m64", "-O2 -gdwarf-3 -m64", "-O1 -gdwarf-2 -m32"}) {
            ASSERT_TRUE(compile(languageOf(compiler), std::string(options) + oneSection, "object.o"));
            compareWithPeers({.name = std::string(compiler) + " -c " + options,
                              .compiler = compiler,
                              .path = m_dir.path("object.o")},
                             {3, 4}, ledger);
        }
    }
    report(ledger);
}

// Of 32 bits only the older form: the size that the header of the newer one declares is read where one of 64
// bits has it, and what stands there is no size that memory could hold.
TEST_F(PeersFormTest, CompressedSectionsAnswerAsPlainOnesDo) {
    skipWithout("g++");
    if (IsSkipped())
        return;
    PeerLedger ledger;
    std::vector<std::string> forms = {"-O2 -gdwarf-4 -gz=zlib", "-O1 -gdwarf-2 -gz=zlib",
                                      "-O1 -gdwarf-3 -gz=zlib-gnu"};
    if (makesProgramsOf32Bits(languageOf("g++")))
        forms.emplace_back("-O1 -gdwarf-4 -gz=zlib-gnu -m32");
    for (const std::string& form : forms) {
        ASSERT_TRUE(compile(languageOf("g++"), form, "program"));
        const ReadelfModule elf(m_dir.path("program"));
        const ElfSection* plain = elf.section(".debug_info");
        ASSERT_TRUE(elf.section(".zdebug_info") || (plain && plain->has('C')))
            << form << " compresses nothing";
        compareWithPeers({.name = form, .compiler = "g++", .path = m_dir.path("program")}, {7, 8}, ledger);
    }
    report(ledger);
}

TEST_F(PeersFormTest, ADebugFileBesideTheProgramIsFoundByItsDebugLink) {
    skipWithout("g++");
    if (IsSkipped())
        return;
    PeerLedger ledger;
    ASSERT_TRUE(compile(languageOf("g++"), "-O2 -gdwarf-4", "whole"));
    ASSERT_TRUE(run("objcopy --only-keep-debug whole program.debug && strip -g -o program whole && "
                    "objcopy --add-gnu-debuglink=program.debug program"));
    compareWithPeers({.name = "debug link",
                      .compiler = "g++",
                      .path = m_dir.path("program"),
                      .whole = m_dir.path("whole")},
                     {5, 8}, ledger);
    report(ledger);
}

TEST_F(PeersFormTest, ADebugFileInADirectoryOfBuildIdsIsFound) {
    skipWithout("g++");
    if (IsSkipped())
        return;
    PeerLedger ledger;
    ASSERT_TRUE(compile(languageOf("g++"), "-O2 -gdwarf-4 -Wl,--build-id", "whole"));
    const std::string id = ReadelfModule(m_dir.path("whole")).buildId;
    ASSERT_GT(id.size(), 2u);
    const std::string directory = "debug/.build-id/" + id.substr(0, 2);
    ASSERT_TRUE(run("mkdir -p " + directory + " && objcopy --only-keep-debug whole " + directory + '/' +
                    id.substr(2) + ".debug && strip -o program whole"));
    compareWithPeers({.name = "build id",
                      .compiler = "g++",
                      .path = m_dir.path("program"),
                      .pathForPeers = m_dir.path("whole"),
                      .ourOptions = {"--debug-dir", m_dir.path("debug")}},
                     {5, 8}, ledger);
    report(ledger);
}

} // namespace
} // namespace orn_test
