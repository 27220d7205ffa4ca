// Facts about the candidates for symbol files and the standard choice, on made-up modules. What real tools
// leave behind is looked at in orn_symbolfileresolver_real_test.cpp.

#include "orn_symbolfileresolver.h"

#include "orn_containers.h"
#include "orn_crc32.h"
#include "support/elf_assembler.h"
#include "support/orn_fixture.h"
#include "support/symbol_file_fakes.h"
#include "support/temp_dir.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ORN_3_30::test {
namespace {

namespace fs = std::filesystem;
using Candidate = SymMgrObjectPtr<ISymbolFileToResolve>;

constexpr long long index7 = 7; // of the candidate under test
constexpr const char* debugContents = "the contents of a debug file";

std::uint32_t crcOf(const std::string& text) {
    return crc32(0, text.data(), text.size());
}

class CountingLock : public OrnLock {
public:
    void lock() override {
        ++locked;
        OrnLock::lock();
    }
    int locked = 0;
};

/// A module in a directory of its own, of which only the sections in `m_helper` are known.
class CandidateTest : public OrnTest {
protected:
    CandidateTest() {
        m_dir.makeDirectory("bin");
        m_module = m_dir.path("bin/prog");
    }

    std::string beside(const std::string& name) const { return m_dir.path("bin/" + name); }

    std::string makePipe(const std::string& name) const {
        const std::string path = m_dir.path(name);
        EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
        return path;
    }

    /// A file of that size without any data in it.
    std::string makeSparse(const std::string& name, std::uintmax_t size) const {
        const std::string path = m_dir.write(name, "");
        fs::resize_file(path, size);
        return path;
    }

    bool wasLogged(const std::string& text) const {
        const auto texts = messages(informationLevel);
        return std::find(texts.begin(), texts.end(), text) != texts.end();
    }

    orn_test::TempDir m_dir;
    std::string m_module;
    CountingLock m_lock;
    SymMgrObjectPtr<FakeFormatHelper> m_helper = new FakeFormatHelper;
};

// The debug link

class DebugLinkCandidateTest : public CandidateTest {
protected:
    Candidate make() { return make(m_module.c_str()); }
    Candidate make(const char* modulePath) {
        return new DWARFSymbolFileToResolve(index7, modulePath, m_helper, &m_lock);
    }
    Candidate makeWithLink(const std::string& name = "prog.debug",
                           const std::string& contents = debugContents) {
        m_helper->add(section_gnu_debuglink, debugLinkBytes(name, crcOf(contents)));
        return make();
    }
    static void expect(const Candidate& candidate, unsigned state, const std::string& name) {
        EXPECT_EQ(candidate->state(), state);
        EXPECT_EQ(candidate->wantedName(), name);
    }
};

TEST_F(DebugLinkCandidateTest, IsOfTheDwarfFamilyAndRequired) {
    const Candidate candidate = makeWithLink();
    EXPECT_EQ(candidate->kind(), 1u);
    EXPECT_EQ(candidate->isRequired(), 1);
    EXPECT_EQ(candidate->modulePath(), m_module);
}

TEST_F(DebugLinkCandidateTest, CountsUnderTheLockOfItsCreator) {
    const Candidate candidate = make();
    EXPECT_EQ(m_lock.locked, 1);
}

TEST_F(DebugLinkCandidateTest, WithoutModulePathNothingIsSetUp) {
    m_helper->add(section_debug_info);
    const Candidate candidate = make(nullptr);
    expect(candidate, 0, "");
    EXPECT_EQ(candidate->modulePath(), nullptr);
    EXPECT_EQ(m_helper->questions, 0);
}

TEST_F(DebugLinkCandidateTest, WithoutHelperNothingIsFound) {
    const Candidate candidate = new DWARFSymbolFileToResolve(index7, m_module.c_str(), nullptr, nullptr);
    expect(candidate, 4, "");
}

TEST_F(DebugLinkCandidateTest, WithoutLinkAModuleWithDebugInfoIsItsOwnSymbolFile) {
    m_helper->add(section_debug_info);
    expect(make(), 1, m_module);
}

TEST_F(DebugLinkCandidateTest, WithoutLinkAndDebugInfoNothingIsFound) {
    expect(make(), 4, "");
}

TEST_F(DebugLinkCandidateTest, ALinkComesBeforeTheModulesOwnDebugInfo) {
    m_helper->add(section_debug_info);
    expect(makeWithLink(), 4, "prog.debug");
}

TEST_F(DebugLinkCandidateTest, ALinkWithoutTerminatorCountsAsAbsent) {
    m_helper->add(section_debug_info).add(section_gnu_debuglink, Bytes(16, 'n'));
    expect(make(), 1, m_module);
}

TEST_F(DebugLinkCandidateTest, ALinkWithoutChecksumCountsAsAbsent) {
    Bytes link = debugLinkBytes("prog.debug", 1);
    link.pop_back();
    m_helper->add(section_debug_info).add(section_gnu_debuglink, link);
    const Candidate candidate = make();
    expect(candidate, 1, m_module);
    EXPECT_EQ(candidate->resolve(m_dir.write("empty", "").c_str()), -1); // whose checksum is 0
}

TEST_F(DebugLinkCandidateTest, AFileBesideTheModuleWithTheRightChecksumIsTaken) {
    const std::string file = m_dir.write("bin/prog.debug", debugContents);
    expect(makeWithLink(), 1, file);
}

TEST_F(DebugLinkCandidateTest, AFileInTheDebugDirectoryWithTheRightChecksumIsTaken) {
    m_dir.makeDirectory("bin/.debug");
    const std::string file = m_dir.write("bin/.debug/prog.debug", debugContents);
    expect(makeWithLink(), 1, file);
}

TEST_F(DebugLinkCandidateTest, TheFileBesideTheModuleComesFirst) {
    m_dir.makeDirectory("bin/.debug");
    m_dir.write("bin/.debug/prog.debug", debugContents);
    const std::string file = m_dir.write("bin/prog.debug", debugContents);
    expect(makeWithLink(), 1, file);
}

TEST_F(DebugLinkCandidateTest, AFileWithAWrongChecksumIsNotTaken) {
    m_dir.write("bin/prog.debug", "other contents");
    expect(makeWithLink(), 3, "prog.debug");
}

TEST_F(DebugLinkCandidateTest, AWrongChecksumInTheDebugDirectoryAloneIsNoticedToo) {
    m_dir.makeDirectory("bin/.debug");
    m_dir.write("bin/.debug/prog.debug", "other contents");
    expect(makeWithLink(), 3, "prog.debug");
}

TEST_F(DebugLinkCandidateTest, AWrongFileBesideTheModuleDoesNotHideTheRightOneInTheDebugDirectory) {
    m_dir.makeDirectory("bin/.debug");
    m_dir.write("bin/prog.debug", "other contents");
    const std::string file = m_dir.write("bin/.debug/prog.debug", debugContents);
    expect(makeWithLink(), 1, file);
}

TEST_F(DebugLinkCandidateTest, WithNoFileInEitherPlaceTheBareNameIsWanted) {
    expect(makeWithLink(), 4, "prog.debug");
}

TEST_F(DebugLinkCandidateTest, ARelativeModulePathIsSeenFromTheCurrentDirectory) {
    m_dir.write("bin/prog.debug", debugContents);
    m_helper->add(section_gnu_debuglink, debugLinkBytes("prog.debug", crcOf(debugContents)));
    const fs::path before = fs::current_path();
    fs::current_path(m_dir.path("bin"));
    expect(make("prog"), 1, "prog.debug");
    fs::rename("prog.debug", "moved");
    fs::create_directory(".debug");
    fs::rename("moved", ".debug/prog.debug");
    expect(make("prog"), 1, ".debug/prog.debug");
    fs::current_path(before);
}

TEST_F(DebugLinkCandidateTest, TheWholeFileIsSummedWhateverItsSize) {
    for (const std::size_t size : {0u, 1u, 0x1FFFu, 0x2000u, 0x2001u, 0x6000u, 0x6007u}) {
        std::string contents(size, '\0');
        for (std::size_t i = 0; i < size; ++i)
            contents[i] = static_cast<char>(i * 7 + i / 251);
        const std::string file = m_dir.write("bin/prog.debug", contents);
        expect(makeWithLink("prog.debug", contents), 1, file);
    }
}

TEST_F(DebugLinkCandidateTest, DirectoriesUnderTheWantedNameAreNoFiles) {
    m_dir.makeDirectory("bin/prog.debug");
    m_dir.makeDirectory("bin/.debug/prog.debug");
    expect(makeWithLink(), 4, "prog.debug");
}

TEST_F(DebugLinkCandidateTest, APipeUnderTheWantedNameIsNoFileAndIsNotWaitedFor) {
    makePipe("bin/prog.debug");
    expect(makeWithLink(), 4, "prog.debug");
}

TEST_F(DebugLinkCandidateTest, AnEmptyNameFindsNothing) {
    expect(makeWithLink(""), 4, "");
}

TEST_F(DebugLinkCandidateTest, AFileOfAbsurdSizeIsNotSummed) {
    makeSparse("bin/prog.debug", (std::uintmax_t{1} << 36) + 1);
    expect(makeWithLink(), 3, "prog.debug");
}

TEST_F(DebugLinkCandidateTest, AnOfferedFileWithTheRightChecksumPasses) {
    const Candidate candidate = makeWithLink();
    const std::string file = m_dir.write("elsewhere", debugContents);
    EXPECT_EQ(candidate->resolve(file.c_str()), index7);
    expect(candidate, 1, file);
}

TEST_F(DebugLinkCandidateTest, TheAcceptedPathIsKeptAsGiven) {
    const Candidate candidate = makeWithLink();
    m_dir.write("elsewhere", debugContents);
    const std::string spelling = m_dir.path("bin/../elsewhere");
    EXPECT_EQ(candidate->resolve(spelling.c_str()), index7);
    expect(candidate, 1, spelling);
}

TEST_F(DebugLinkCandidateTest, AnOfferedFileWithAWrongChecksumLeavesEverythingAsItWas) {
    const Candidate candidate = makeWithLink();
    EXPECT_EQ(candidate->resolve(m_dir.write("elsewhere", "other contents").c_str()), -1);
    expect(candidate, 4, "prog.debug");
}

TEST_F(DebugLinkCandidateTest, WhatIsNoFileDoesNotPass) {
    const Candidate candidate = makeWithLink("prog.debug", "");
    EXPECT_EQ(candidate->resolve(nullptr), -1);
    EXPECT_EQ(candidate->resolve(""), -1);
    EXPECT_EQ(candidate->resolve(m_dir.path("missing").c_str()), -1);
    EXPECT_EQ(candidate->resolve(m_dir.path("bin").c_str()), -1);
    EXPECT_EQ(candidate->resolve(makePipe("pipe").c_str()), -1);
    EXPECT_EQ(candidate->resolve("/dev/zero"), -1);
    EXPECT_EQ(candidate->resolve("/dev/null"), -1);
    EXPECT_EQ(candidate->resolve(makeSparse("huge", (std::uintmax_t{1} << 36) + 1).c_str()), -1);
    expect(candidate, 4, "prog.debug");
}

TEST_F(DebugLinkCandidateTest, TheAcceptedFileIsKnownAgainByAnySpellingAndNotReadAnew) {
    const Candidate candidate = makeWithLink();
    const std::string file = m_dir.write("elsewhere", debugContents);
    ASSERT_EQ(candidate->resolve(file.c_str()), index7);
    m_dir.write("elsewhere", "other contents");
    EXPECT_EQ(candidate->resolve(m_dir.path("./bin/..//elsewhere").c_str()), index7);
    expect(candidate, 1, file);
}

TEST_F(DebugLinkCandidateTest, AUsableCandidateStillJudgesOtherPaths) {
    const Candidate candidate = makeWithLink();
    const std::string first = m_dir.write("first", debugContents);
    const std::string second = m_dir.write("second", debugContents);
    ASSERT_EQ(candidate->resolve(first.c_str()), index7);
    EXPECT_EQ(candidate->resolve(m_dir.write("third", "other contents").c_str()), -1);
    expect(candidate, 1, first);
    EXPECT_EQ(candidate->resolve(second.c_str()), index7);
    expect(candidate, 1, second);
}

TEST_F(DebugLinkCandidateTest, AModuleThatIsItsOwnSymbolFilePassesAndNothingElse) {
    m_helper->add(section_debug_info);
    const Candidate candidate = make();
    EXPECT_EQ(candidate->resolve(m_module.c_str()), index7);
    EXPECT_EQ(candidate->resolve(m_dir.write("empty", "").c_str()), -1);
}

// The build id

const Bytes moduleId = {0xAB, 0xCD, 0xEF, 0x01, 0x23, 0x45, 0x67, 0x89};

class BuildIdCandidateTest : public CandidateTest {
protected:
    Candidate make() {
        return new DWARFBuildIdSymbolFileToResolve(index7, m_module.c_str(), m_helper, &m_lock);
    }
    Candidate makeWithId() {
        m_helper->add(section_note_gnu_build_id, buildIdNote(moduleId));
        return make();
    }
    std::string writeElfWithId(const std::string& name, const Bytes& id,
                               orn_test::ElfClass elfClass = orn_test::ElfClass::k64) const {
        orn_test::ElfAssembler elf(elfClass);
        elf.buildId(id);
        elf.write(m_dir.path(name));
        return m_dir.path(name);
    }
    void expectWaiting(const Candidate& candidate) {
        EXPECT_EQ(candidate->state(), 4u);
        EXPECT_STREQ(candidate->wantedName(), ".build-id/ab/cdef0123456789.debug");
    }
    bool wasValidated(const std::string& path) const {
        return wasLogged("validating Build ID for symbol file candidate: " + path);
    }
    bool hasPassed(const std::string& path) const {
        return wasLogged("validation passed for symbol file: " + path);
    }
};

TEST_F(BuildIdCandidateTest, IsOfTheDwarfFamilyAndRequired) {
    const Candidate candidate = make();
    EXPECT_EQ(m_lock.locked, 1);
    EXPECT_EQ(candidate->kind(), 1u);
    EXPECT_EQ(candidate->isRequired(), 1);
    EXPECT_EQ(candidate->modulePath(), m_module);
}

TEST_F(BuildIdCandidateTest, WantsTheFileThatIsNamedByTheId) {
    expectWaiting(makeWithId());
}

TEST_F(BuildIdCandidateTest, WithoutModulePathNothingIsSetUp) {
    m_helper->add(section_note_gnu_build_id, buildIdNote(moduleId));
    const Candidate candidate = new DWARFBuildIdSymbolFileToResolve(index7, nullptr, m_helper, nullptr);
    EXPECT_EQ(candidate->state(), 0u);
    EXPECT_STREQ(candidate->wantedName(), "");
    EXPECT_EQ(candidate->modulePath(), nullptr);
    EXPECT_EQ(m_helper->questions, 0);
}

TEST_F(BuildIdCandidateTest, WithoutNoteNothingIsSetUp) {
    const Candidate candidate = make();
    EXPECT_EQ(candidate->state(), 0u);
    EXPECT_STREQ(candidate->wantedName(), "");
    const std::string file = writeElfWithId("elsewhere", moduleId);
    EXPECT_EQ(candidate->resolve(file.c_str()), -1);
    EXPECT_FALSE(wasValidated(file));
}

TEST_F(BuildIdCandidateTest, ADamagedNoteSetsNothingUp) {
    m_helper->add(section_note_gnu_build_id, noteBytes(0xFFFFFFFF, 8, 3, "GNU", moduleId));
    const Candidate candidate = make();
    EXPECT_EQ(candidate->state(), 0u);
    EXPECT_STREQ(candidate->wantedName(), "");
}

TEST_F(BuildIdCandidateTest, AFileInTheUsualPlaceIsNotTakenWithoutAResolver) {
    m_dir.makeDirectory("bin/.build-id/ab");
    writeElfWithId("bin/.build-id/ab/cdef0123456789.debug", moduleId);
    const fs::path before = fs::current_path();
    fs::current_path(m_dir.path("bin"));
    expectWaiting(makeWithId());
    fs::current_path(before);
}

TEST_F(BuildIdCandidateTest, AnOfferedFileWithTheSameIdPasses) {
    for (const auto elfClass : {orn_test::ElfClass::k64, orn_test::ElfClass::k32}) {
        const Candidate candidate = makeWithId();
        const std::string file = writeElfWithId("elsewhere", moduleId, elfClass);
        EXPECT_EQ(candidate->resolve(file.c_str()), index7);
        EXPECT_EQ(candidate->state(), 1u);
        EXPECT_EQ(candidate->wantedName(), file);
        EXPECT_TRUE(wasValidated(file));
        EXPECT_TRUE(hasPassed(file));
    }
}

TEST_F(BuildIdCandidateTest, AnOfferedFileWithAnotherIdIsRejected) {
    const Candidate candidate = makeWithId();
    Bytes otherId = moduleId;
    otherId.back() ^= 1;
    const std::string file = writeElfWithId("elsewhere", otherId);
    EXPECT_EQ(candidate->resolve(file.c_str()), -1);
    expectWaiting(candidate);
    EXPECT_TRUE(wasValidated(file));
    EXPECT_FALSE(hasPassed(file));
}

TEST_F(BuildIdCandidateTest, AnIdThatBeginsWithTheModulesIsAnotherOne) {
    const Candidate candidate = makeWithId();
    Bytes longer = moduleId;
    longer.insert(longer.end(), 4, 0);
    EXPECT_EQ(candidate->resolve(writeElfWithId("elsewhere", longer).c_str()), -1);
}

TEST_F(BuildIdCandidateTest, AnOfferedFileWithoutIdIsRejected) {
    const Candidate candidate = makeWithId();
    orn_test::ElfAssembler elf;
    elf.section(".text").zeros(4);
    elf.write(m_dir.path("elsewhere"));
    EXPECT_EQ(candidate->resolve(m_dir.path("elsewhere").c_str()), -1);
    EXPECT_TRUE(wasValidated(m_dir.path("elsewhere")));
    EXPECT_FALSE(hasPassed(m_dir.path("elsewhere")));
}

TEST_F(BuildIdCandidateTest, AnOfferedFileThatIsNoElfFileIsRejected) {
    const Candidate candidate = makeWithId();
    allowLog(""); // the reader of ELF files says what it thinks of this
    const std::string file =
        m_dir.write("elsewhere", "just a text, and long enough for the header of a file");
    EXPECT_EQ(candidate->resolve(file.c_str()), -1);
    EXPECT_EQ(candidate->resolve(m_dir.write("empty", "").c_str()), -1);
    expectWaiting(candidate);
    EXPECT_TRUE(wasValidated(file));
    EXPECT_FALSE(hasPassed(file));
}

TEST_F(BuildIdCandidateTest, EveryTrueBeginningOfTheRightFileIsRejected) {
    const Candidate candidate = makeWithId();
    allowLog("");
    const std::string whole = orn_test::TempDir::contents(writeElfWithId("whole", moduleId));
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const std::string file = m_dir.write("cut", whole.substr(0, size));
        ASSERT_EQ(candidate->resolve(file.c_str()), -1) << size;
    }
    expectWaiting(candidate);
}

TEST_F(BuildIdCandidateTest, WhatIsNoFileIsNotEvenValidated) {
    const Candidate candidate = makeWithId();
    EXPECT_EQ(candidate->resolve(nullptr), -1);
    for (const std::string& path : {std::string(), m_dir.path("missing"), m_dir.path("bin"), makePipe("pipe"),
                                    std::string("/dev/zero")}) {
        EXPECT_EQ(candidate->resolve(path.c_str()), -1) << path;
        EXPECT_FALSE(wasValidated(path));
    }
    expectWaiting(candidate);
}

TEST_F(BuildIdCandidateTest, AFileOfAbsurdSizeIsRejected) {
    const Candidate candidate = makeWithId();
    const std::string file = writeElfWithId("huge", moduleId);
    fs::resize_file(file, (std::uintmax_t{1} << 36) + 1);
    EXPECT_EQ(candidate->resolve(file.c_str()), -1);
    expectWaiting(candidate);
}

TEST_F(BuildIdCandidateTest, TheAcceptedFileIsKnownAgainByAnySpellingAndNotReadAnew) {
    const Candidate candidate = makeWithId();
    const std::string file = writeElfWithId("elsewhere", moduleId);
    ASSERT_EQ(candidate->resolve(file.c_str()), index7);
    fs::remove(file);
    const std::string spelling = m_dir.path("bin/../elsewhere");
    EXPECT_EQ(candidate->resolve(spelling.c_str()), index7);
    EXPECT_FALSE(wasValidated(spelling));
    EXPECT_EQ(candidate->wantedName(), file);
}

TEST_F(BuildIdCandidateTest, AUsableCandidateStillJudgesOtherPaths) {
    const Candidate candidate = makeWithId();
    const std::string first = writeElfWithId("first", moduleId);
    const std::string second = writeElfWithId("second", moduleId);
    ASSERT_EQ(candidate->resolve(first.c_str()), index7);
    EXPECT_EQ(candidate->resolve(writeElfWithId("third", {1, 2, 3, 4}).c_str()), -1);
    EXPECT_EQ(candidate->wantedName(), first);
    EXPECT_EQ(candidate->resolve(second.c_str()), index7);
    EXPECT_EQ(candidate->wantedName(), second);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ORN_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ORN_TEST_SANITIZED 1
#endif
#endif

TEST_F(BuildIdCandidateTest, AFileThatAsksForMoreMemoryThanThereIsIsRejected) {
#ifdef ORN_TEST_SANITIZED
    GTEST_SKIP() << "a sanitizer needs the memory that this test takes away";
#else
    // Section names as large as the file, which is a hole of four gigabytes.
    constexpr std::uint64_t size = std::uint64_t{1} << 32;
    orn_test::ElfAssembler elf;
    elf.buildId(moduleId);
    orn_test::ElfSectionOverrides& names = elf.sectionNames().header();
    names.sh_offset = 0;
    names.sh_size = size;
    const std::string file = m_dir.path("greedy");
    elf.write(file);
    fs::resize_file(file, size);

    const Candidate candidate = makeWithId();
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const rlimit limit{std::uint64_t{1} << 31, std::uint64_t{1} << 31};
        ::setrlimit(RLIMIT_AS, &limit);
        bool said = false;
        const bool rejected = candidate->resolve(file.c_str()) == -1;
        for (const std::string& text : messages(warningLevel))
            said |= text.rfind("cannot create ffHelper for " + file + "\n", 0) == 0;
        ::_exit(rejected && said ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
#endif
}

// The module itself

class BinaryCandidateTest : public CandidateTest {
protected:
    Candidate make() { return make(m_module.c_str()); }
    Candidate make(const char* modulePath) {
        return new BinaryWithDWARFInfo(index7, modulePath, m_helper, &m_lock);
    }
    Candidate makeWithDebugInfo() {
        m_helper->add(section_debug_info);
        return make();
    }
};

TEST_F(BinaryCandidateTest, IsOfTheDwarfFamilyAndRequired) {
    const Candidate candidate = make();
    EXPECT_EQ(m_lock.locked, 1);
    EXPECT_EQ(candidate->kind(), 1u);
    EXPECT_EQ(candidate->isRequired(), 1);
}

TEST_F(BinaryCandidateTest, AModuleWithDebugInfoIsUsableUnderItsCanonicalPath) {
    m_helper->add(section_debug_info);
    const Candidate candidate = make(m_dir.path("./bin/../bin/prog").c_str());
    EXPECT_EQ(candidate->state(), 1u);
    EXPECT_EQ(candidate->modulePath(), m_module);
    EXPECT_EQ(candidate->wantedName(), m_module);
    EXPECT_TRUE(wasLogged("Symbol file: " + m_module + " validity: 1"));
}

TEST_F(BinaryCandidateTest, AModuleWithoutDebugInfoWantsNothing) {
    const Candidate candidate = make();
    EXPECT_EQ(candidate->state(), 2u);
    EXPECT_STREQ(candidate->wantedName(), "");
    EXPECT_EQ(candidate->modulePath(), m_module);
    EXPECT_EQ(candidate->resolve(m_module.c_str()), -1);
    EXPECT_TRUE(wasLogged("Symbol file: " + m_module + " validity: 2"));
}

TEST_F(BinaryCandidateTest, WithoutModulePathNothingIsSetUp) {
    m_helper->add(section_debug_info);
    const Candidate candidate = make(nullptr);
    EXPECT_EQ(candidate->state(), 0u);
    EXPECT_STREQ(candidate->wantedName(), "");
    EXPECT_STREQ(candidate->modulePath(), "");
    EXPECT_EQ(m_helper->questions, 0);
}

TEST_F(BinaryCandidateTest, ANullPathGivesZeroAndSaysNothing) {
    const Candidate candidate = makeWithDebugInfo();
    takeLogs();
    EXPECT_EQ(candidate->resolve(nullptr), 0);
    EXPECT_TRUE(takeLogs().empty());
}

TEST_F(BinaryCandidateTest, TheModuleIsKnownByAnySpelling) {
    const Candidate candidate = makeWithDebugInfo();
    EXPECT_EQ(candidate->resolve(m_dir.path("bin//./prog").c_str()), index7);
    EXPECT_EQ(candidate->wantedName(), m_module);
}

TEST_F(BinaryCandidateTest, AnyOtherPathIsRejectedAndChangesNothing) {
    const Candidate candidate = makeWithDebugInfo();
    EXPECT_EQ(candidate->resolve("/some/other"), -1);
    EXPECT_EQ(candidate->state(), 1u);
    EXPECT_EQ(candidate->wantedName(), m_module);
    EXPECT_TRUE(wasLogged("Symbol file: /some/other validity: 1"));
}

TEST_F(BinaryCandidateTest, WithoutHelperTheStateIsGivenAndTheLackReported) {
    m_helper = nullptr;
    expectLog("ASSERTION FAILED: 'm_ffHelper != 0L', at file: ", 2); // at set-up and when asked
    const Candidate candidate = make();
    EXPECT_EQ(candidate->state(), 0u);
    EXPECT_EQ(candidate->resolve(m_module.c_str()), 0);
    EXPECT_EQ(candidate->resolve("/some/other"), -1);
}

TEST_F(BinaryCandidateTest, AModulePathAboveTheRootIsNeverUsable) {
    m_helper->add(section_debug_info);
    const Candidate candidate = make("/../prog");
    EXPECT_EQ(candidate->state(), 0u);
    expectLog("ASSERTION FAILED: 'resolvedSymFile != 0L', at file: ");
    EXPECT_EQ(candidate->resolve("/../prog"), -1);
    EXPECT_EQ(candidate->state(), 0u);
    EXPECT_STREQ(candidate->wantedName(), "");
}

TEST_F(BinaryCandidateTest, AnAllocationFailureIsReportedAndRejects) {
    const Candidate candidate = makeWithDebugInfo();
    m_helper->outOfMemory = true;
    expectLog("Out of memory");
    EXPECT_EQ(candidate->resolve(m_module.c_str()), -1);
    EXPECT_EQ(candidate->state(), 1u);
}

TEST_F(BinaryCandidateTest, AnAllocationFailureAtSetUpReachesTheMaker) {
    m_helper->outOfMemory = true;
    EXPECT_THROW(make(), std::bad_alloc);
}

// The standard choice

class StateOnly : public SymMgrObject<ISymbolFileToResolve> {
public:
    explicit StateOnly(unsigned state) : SymMgrObject<ISymbolFileToResolve>(nullptr), m_state(state) {}
    const char* wantedName() override { return ""; }
    const char* modulePath() override { return ""; }
    unsigned kind() override { return 1; }
    unsigned state() override {
        ++questions;
        return m_state;
    }
    long long resolve(const char*) override {
        ADD_FAILURE() << "the standard choice offers no paths";
        return -1;
    }
    int isRequired() override { return 1; }

    int questions = 0;

private:
    unsigned m_state;
};

class SymbolFileResolverTest : public OrnTest {
protected:
    using List = std::vector<Candidate>;
    using Iterator = SymMgrObjectPtr<IIterator<Candidate>>;

    StateOnly* add(unsigned state) {
        auto* candidate = new StateOnly(state);
        m_list.push_back(candidate);
        return candidate;
    }
    Iterator iterator() { return new VectorIteratorWrapper<List, Candidate>(&m_list, nullptr); }
    long long choose() {
        Iterator candidates = iterator();
        SymbolFileResolver resolver;
        return resolver.resolveSymbolFile(candidates);
    }

    List m_list;
};

TEST_F(SymbolFileResolverTest, TakesTheFirstUsableCandidateAndAsksNoFurther) {
    add(4);
    add(3);
    add(1);
    const StateOnly* last = add(1);
    EXPECT_EQ(choose(), 2);
    EXPECT_EQ(last->questions, 0);
}

TEST_F(SymbolFileResolverTest, PassesOverEveryOtherState) {
    for (const unsigned state : {0u, 2u, 3u, 4u})
        add(state);
    EXPECT_EQ(choose(), -1);
}

TEST_F(SymbolFileResolverTest, FindsNothingAmongNoCandidates) {
    EXPECT_EQ(choose(), -1);
    Iterator none;
    EXPECT_EQ(SymbolFileResolver().resolveSymbolFile(none), -1);
}

TEST_F(SymbolFileResolverTest, EndsAtANullCandidate) {
    m_list.emplace_back();
    add(1);
    EXPECT_EQ(choose(), -1);
}

TEST_F(SymbolFileResolverTest, BeginsAtTheFirstCandidateWhereverTheIteratorStands) {
    add(1);
    add(1);
    Iterator candidates = iterator();
    candidates->next();
    EXPECT_EQ(SymbolFileResolver().resolveSymbolFile(candidates), 0);
}

TEST_F(SymbolFileResolverTest, TracesItsMakingAndItsChoice) {
    setLogLevel(traceLevel);
    choose();
    setLogLevel(informationLevel);
    EXPECT_EQ(messages(traceLevel),
              (std::vector<std::string>{"ENTER: SymbolFileResolver", "EXIT:  SymbolFileResolver",
                                        "ENTER: resolveSymbolFile", "EXIT:  resolveSymbolFile"}));
}

TEST_F(SymbolFileResolverTest, IsDestroyedThroughItsInterface) {
    const std::unique_ptr<ISymbolFileResolver> resolver = std::make_unique<SymbolFileResolver>();
    Iterator candidates = iterator();
    EXPECT_EQ(resolver->resolveSymbolFile(candidates), -1);
}

} // namespace
} // namespace ORN_3_30::test
