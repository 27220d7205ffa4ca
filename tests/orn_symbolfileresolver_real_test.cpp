// The candidates of programs that the compiler and objcopy have made, as the loader of ELF modules lists
// them.

#include "orn_fflelf.h"
#include "orn_moduleimage.h"
#include "orn_symbolfileresolver.h"
#include "support/elf_assembler.h"
#include "support/orn_fixture.h"
#include "support/temp_dir.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace ORN_3_30::test {
namespace {

namespace fs = std::filesystem;
using Candidate = SymMgrObjectPtr<ISymbolFileToResolve>;
using CandidateIterator = SymMgrObjectPtr<IIterator<Candidate>>;

constexpr const char* buildId = "0123456789abcdef0123456789abcdef01234567";
constexpr const char* buildIdFile = ".build-id/01/23456789abcdef0123456789abcdef01234567.debug";

class RealSymbolFilesTest : public OrnTest {
protected:
    void SetUp() override {
        if (!run("gcc --version && objcopy --version"))
            GTEST_SKIP() << "there is no gcc or no objcopy";
    }

    bool run(const std::string& command) const {
        return std::system(("cd " + m_dir.path() + " && { " + command + "; } >output 2>&1").c_str()) == 0;
    }

    /// Makes "prog" with debug information, with an own build id or none.
    std::string compile(const std::string& options = "-g -gdwarf-4", const std::string& id = buildId) const {
        m_dir.write("prog.c", "int main(void) { return 0; }\n");
        const std::string idOption = id.empty() ? "none" : "0x" + id;
        EXPECT_TRUE(run("gcc " + options + " -Wl,--build-id=" + idOption + " prog.c -o prog"))
            << orn_test::TempDir::contents(m_dir.path("output"));
        return m_dir.path("prog");
    }

    /// Moves the debug information of "prog" into "prog.debug", which a debug link names.
    std::string compileAndSplit(const std::string& id = buildId) const {
        const std::string program = compile("-g -gdwarf-4", id);
        EXPECT_TRUE(run("objcopy --only-keep-debug prog prog.debug && objcopy --strip-debug "
                        "--add-gnu-debuglink=prog.debug prog"));
        return program;
    }

    std::vector<Candidate> candidatesOf(const std::string& path) {
        if (!m_loader)
            m_loader = new ElfFileLoader(new FileImage(path.c_str(), 0, arch_unknown));
        EXPECT_EQ(m_loader->getStatus(), status_Ok);
        EXPECT_EQ(m_loader->getSymbolFiles(m_iterator), status_Ok);
        std::vector<Candidate> list;
        for (Candidate candidate = m_iterator->current(); candidate;
             candidate = m_iterator->next() ? m_iterator->current() : Candidate())
            list.push_back(candidate);
        return list;
    }

    long long standardChoice() { return SymbolFileResolver().resolveSymbolFile(m_iterator); }

    template <typename Kind>
    static bool isA(const Candidate& candidate) {
        return dynamic_cast<Kind*>(candidate.get()) != nullptr;
    }

    orn_test::TempDir m_dir;
    SymMgrObjectPtr<ElfFileLoader> m_loader;
    CandidateIterator m_iterator;
};

TEST_F(RealSymbolFilesTest, BuildIdComesBeforeDebugLinkAndThatBeforeTheModuleItself) {
    const std::string program = compile();
    const auto list = candidatesOf(program);
    ASSERT_EQ(list.size(), 3u);
    EXPECT_TRUE(isA<DWARFBuildIdSymbolFileToResolve>(list[0]));
    EXPECT_EQ(list[0]->state(), 4u);
    EXPECT_STREQ(list[0]->wantedName(), buildIdFile);
    EXPECT_TRUE(isA<DWARFSymbolFileToResolve>(list[1]));
    EXPECT_EQ(list[1]->state(), 1u);
    EXPECT_EQ(list[1]->wantedName(), program);
    EXPECT_TRUE(isA<BinaryWithDWARFInfo>(list[2]));
    EXPECT_EQ(list[2]->state(), 1u);
    EXPECT_EQ(list[2]->wantedName(), program);
    for (std::size_t index = 0; index < list.size(); ++index) {
        EXPECT_EQ(list[index]->modulePath(), program);
        EXPECT_EQ(list[index]->kind(), 1u);
    }
    EXPECT_EQ(standardChoice(), 1);
}

TEST_F(RealSymbolFilesTest, IndicesCountWhatIsListed) {
    const auto list = candidatesOf(compile("-g -gdwarf-4", ""));
    ASSERT_EQ(list.size(), 2u); // without build id the debug link is the first
    EXPECT_EQ(list[0]->resolve(m_dir.path("prog").c_str()), 0);
    EXPECT_EQ(list[1]->resolve(m_dir.path("prog").c_str()), 1);
}

TEST_F(RealSymbolFilesTest, AModuleWithoutAnyDebugInformationListsNothing) {
    EXPECT_TRUE(candidatesOf(compile("-g0", "")).empty());
    EXPECT_EQ(standardChoice(), -1);
}

TEST_F(RealSymbolFilesTest, ASplitOffFileBesideTheModuleIsChosen) {
    const auto list = candidatesOf(compileAndSplit());
    ASSERT_EQ(list.size(), 2u); // the module itself has nothing left
    EXPECT_EQ(list[1]->state(), 1u);
    EXPECT_EQ(list[1]->wantedName(), m_dir.path("prog.debug"));
    EXPECT_EQ(standardChoice(), 1);
}

TEST_F(RealSymbolFilesTest, ASplitOffFileInTheDebugDirectoryIsChosen) {
    compileAndSplit();
    ASSERT_TRUE(run("mkdir .debug && mv prog.debug .debug"));
    const auto list = candidatesOf(m_dir.path("prog"));
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[1]->wantedName(), m_dir.path(".debug/prog.debug"));
    EXPECT_EQ(standardChoice(), 1);
}

TEST_F(RealSymbolFilesTest, ASplitOffFileThatChangedIsNotChosen) {
    compileAndSplit();
    ASSERT_TRUE(run("echo >>prog.debug"));
    const auto list = candidatesOf(m_dir.path("prog"));
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[1]->state(), 3u);
    EXPECT_STREQ(list[1]->wantedName(), "prog.debug");
    EXPECT_EQ(standardChoice(), -1);
}

TEST_F(RealSymbolFilesTest, AChangedFileDoesNotHideTheRightOneInTheDebugDirectory) {
    compileAndSplit();
    ASSERT_TRUE(run("mkdir .debug && cp prog.debug .debug && echo >>prog.debug"));
    const auto list = candidatesOf(m_dir.path("prog"));
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[1]->wantedName(), m_dir.path(".debug/prog.debug"));
}

TEST_F(RealSymbolFilesTest, AFileInTheUsualPlaceOfTheBuildIdIsPassedOverUntilItIsOffered) {
    compileAndSplit();
    const std::string file = m_dir.path(buildIdFile);
    ASSERT_TRUE(run("mkdir -p $(dirname " + file + ") && mv prog.debug " + file));
    const auto list = candidatesOf(m_dir.path("prog"));
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0]->state(), 4u);
    EXPECT_EQ(standardChoice(), -1);

    EXPECT_EQ(list[0]->resolve(file.c_str()), 0);
    EXPECT_EQ(list[0]->state(), 1u);
    EXPECT_EQ(list[0]->wantedName(), file);
    EXPECT_EQ(standardChoice(), 0);
    EXPECT_EQ(list[1]->resolve(file.c_str()), 1); // its checksum is the right one as well
}

TEST_F(RealSymbolFilesTest, AFileOfAnotherBuildIsRejected) {
    compileAndSplit();
    ASSERT_TRUE(run("mv prog program"));
    const std::string otherId(40, '9');
    ASSERT_TRUE(run("gcc -g -gdwarf-4 -Wl,--build-id=0x" + otherId + " prog.c -o other"));
    const auto list = candidatesOf(m_dir.path("program"));
    ASSERT_FALSE(list.empty());
    const std::string other = m_dir.path("other");
    EXPECT_EQ(list[0]->resolve(other.c_str()), -1);
    EXPECT_EQ(list[0]->state(), 4u);
    const auto texts = messages(informationLevel);
    EXPECT_NE(
        std::find(texts.begin(), texts.end(), "validating Build ID for symbol file candidate: " + other),
        texts.end());
    EXPECT_EQ(std::find(texts.begin(), texts.end(), "validation passed for symbol file: " + other),
              texts.end());
}

// The linker ends such a note, and with it the section, at the last byte of the id; the rounded size of the
// description does not fit any more.
TEST_F(RealSymbolFilesTest, ABuildIdOfOddLengthWithoutPaddingIsNotUsed) {
    const auto list = candidatesOf(compile("-g -gdwarf-4", "0123456789"));
    ASSERT_EQ(list.size(), 2u);
    EXPECT_TRUE(isA<DWARFSymbolFileToResolve>(list[0]));
}

TEST_F(RealSymbolFilesTest, CompressedDebugSectionsCountAsDebugInformation) {
    const auto list = candidatesOf(compile("-g -gdwarf-4 -gz"));
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[2]->state(), 1u);
}

TEST_F(RealSymbolFilesTest, ASymbolFileIsOpenedOnlyOnceItIsAskedFor) {
    compileAndSplit();
    candidatesOf(m_dir.path("prog"));
    const auto texts = messages(informationLevel);
    EXPECT_TRUE(std::none_of(texts.begin(), texts.end(), [](const std::string& text) {
        return text.find("validating Build ID") != std::string::npos;
    }));
}

TEST_F(RealSymbolFilesTest, AskingAgainGivesTheSameCandidates) {
    const std::string program = compile();
    const auto first = candidatesOf(program);
    const auto second = candidatesOf(program);
    ASSERT_EQ(first.size(), second.size());
    for (std::size_t index = 0; index < first.size(); ++index)
        EXPECT_EQ(first[index].get(), second[index].get());
}

} // namespace
} // namespace ORN_3_30::test
