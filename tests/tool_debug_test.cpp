// The command line on modules with debug information: source lines in both directions, compilation units, and
// debug files that were split off and lie in debug directories. Programs are compiled and split on the spot.

#include "support/temp_dir.h"
#include "support/tool_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace {

using nlohmann::json;
using orn_test::ProcessResult;
using orn_test::TempDir;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char buildId[] = "0x0123456789abcdef";
constexpr char buildIdFile[] = ".build-id/01/23456789abcdef.debug";

ProcessResult orn(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), ORN_TOOL_PATH);
    return orn_test::runProcess(arguments);
}

/// Standard output of a run that has to end well.
std::string answerOf(const std::vector<std::string>& arguments) {
    const ProcessResult result = orn(arguments);
    EXPECT_EQ(result.exitStatus, 0) << result.error;
    EXPECT_EQ(result.error, "");
    return result.output;
}

std::vector<json> objectsOf(const std::string& output) {
    std::vector<json> objects;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);)
        objects.push_back(json::parse(line));
    return objects;
}

std::string hexOf(unsigned long long value) {
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

unsigned long long numberOf(const json& hex) {
    return std::stoull(hex.get<std::string>(), nullptr, 16);
}

std::set<unsigned> linesIn(const std::vector<json>& rows) {
    std::set<unsigned> lines;
    for (const json& row : rows)
        if (!row["line"].is_null())
            lines.insert(row["line"].get<unsigned>());
    return lines;
}

void run(const std::vector<std::string>& command) {
    const ProcessResult result = orn_test::runProcess(command);
    ASSERT_EQ(result.exitStatus, 0) << result.error;
}

/// One program for all tests, of a C and a C++ unit that share a header, whole and split.
class ToolDebug : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_directory = new TempDir;
        s_program = s_directory->path("prog");
        s_directory->makeDirectory("src");
        s_directory->makeDirectory("bin");
        s_directory->write("src/shape.h", "static int twice(int x) {\n"
                                          "    return x * 2;\n"
                                          "}\n");
        const std::string one = s_directory->write("src/one.c", "#include \"shape.h\"\n"
                                                                "int other(int);\n"
                                                                "int one(int x) {\n"
                                                                "    return twice(x) + other(x);\n"
                                                                "}\n"
                                                                "int main(void) { return one(1); }\n");
        const std::string two = s_directory->write("src/two.cpp", "namespace foo {\n"
                                                                  "int bar(int x) {\n"
                                                                  "    return x + 1;\n"
                                                                  "}\n"
                                                                  "}\n"
                                                                  "extern \"C\" int other(int x) {\n"
                                                                  "    return foo::bar(x);\n"
                                                                  "}\n");
        compile("gcc", one, "one.o");
        compile("g++", two, "two.o");
        run({"g++", "-no-pie", std::string("-Wl,--build-id=") + buildId, s_directory->path("one.o"),
             s_directory->path("two.o"), "-o", s_program});
        run({"objcopy", "--only-keep-debug", s_program, s_directory->path("prog.debug")});
        // The link names a file that does not lie beside the stripped program.
        run({"objcopy", "--strip-debug", "--add-gnu-debuglink=" + s_directory->path("prog.debug"), s_program,
             stripped()});
    }

    static void TearDownTestSuite() {
        delete s_directory;
        s_directory = nullptr;
    }

    static std::string stripped() { return s_directory->path("bin/prog"); }

    static std::vector<json> linesOf(const std::string& question, const std::string& value) {
        return objectsOf(answerOf({"lines", "--json", s_program, question, value}));
    }

    /// A copy of the split-off file at `place` in the debug directory of the test.
    std::string install(const std::string& place) const {
        const std::string file = m_debugDirectory.path(place);
        std::filesystem::create_directories(std::filesystem::path(file).parent_path());
        std::filesystem::copy_file(s_directory->path("prog.debug"), file);
        return file;
    }

    json infoOfStripped() const {
        return json::parse(answerOf({"info", "--json", "--debug-dir", m_debugDirectory.path(), stripped()}));
    }

    std::string textOfStripped() const {
        return answerOf({"info", "--debug-dir", m_debugDirectory.path(), stripped()});
    }

    static TempDir* s_directory;
    static std::string s_program;
    TempDir m_debugDirectory;

private:
    static void compile(const std::string& compiler, const std::string& source, const std::string& object) {
        run({compiler, "-gdwarf-4", "-O0", "-c", source, "-o", s_directory->path(object)});
    }
};

TempDir* ToolDebug::s_directory = nullptr;
std::string ToolDebug::s_program;

// ---- lines

TEST_F(ToolDebug, SymbolIsAnsweredWithItsLinesAscending) {
    const auto rows = linesOf("--symbol", "one");
    EXPECT_EQ(linesIn(rows), (std::set<unsigned>{3, 4, 5}));
    for (std::size_t at = 1; at < rows.size(); ++at)
        EXPECT_EQ(rows[at]["begin"], rows[at - 1]["end"]);
    for (const json& row : rows) {
        EXPECT_EQ(row["file"], s_directory->path("src/one.c"));
        EXPECT_EQ(numberOf(row["end"]) - numberOf(row["begin"]), row["size"].get<unsigned>());
    }
}

TEST_F(ToolDebug, SymbolGoesByRawShortAndFullName) {
    const auto rows = linesOf("--symbol", "_ZN3foo3barEi");
    EXPECT_EQ(linesIn(rows), (std::set<unsigned>{2, 3, 4}));
    for (const char* name : {"bar", "foo::bar(int)", "foo::bar"})
        EXPECT_EQ(linesOf("--symbol", name), rows) << name;
}

TEST_F(ToolDebug, NameThatNothingHasGivesNoRowAndIsNoError) {
    for (const char* name : {"ba", "bar(", "foo", "nothing"})
        EXPECT_THAT(linesOf("--symbol", name), IsEmpty()) << name;
    for (const char* name : {"nothing.c", "wo.cpp", "two.cpp:99", "two.cpp:x"})
        EXPECT_THAT(linesOf("--file", name), IsEmpty()) << name;
}

TEST_F(ToolDebug, RangeIsAnsweredWithItsLinesCutToIt) {
    const auto all = linesOf("--symbol", "foo::bar");
    ASSERT_GE(all.size(), 2U);
    const auto low = numberOf(all[0]["begin"]) + 1;
    const auto high = numberOf(all[1]["begin"]) + 1;
    const auto rows = objectsOf(answerOf({"lines", "--json", s_program, "--range", hexOf(low), hexOf(high)}));
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(rows[0]["begin"], hexOf(low));
    EXPECT_EQ(rows[0]["end"], all[0]["end"]);
    EXPECT_EQ(rows[0]["line"], all[0]["line"]);
    EXPECT_EQ(rows[1]["begin"], all[1]["begin"]);
    EXPECT_EQ(rows[1]["end"], hexOf(high));
    EXPECT_EQ(rows[1]["size"], 1);
}

TEST_F(ToolDebug, RangeHoldsTheLinesOfEveryFile) {
    const auto rows = objectsOf(answerOf({"lines", "--json", s_program, "--range", "0", "ffffffffffffffff"}));
    std::set<std::string> files;
    for (const json& row : rows)
        files.insert(std::filesystem::path(row["file"].get<std::string>()).filename());
    EXPECT_EQ(files, (std::set<std::string>{"one.c", "shape.h", "two.cpp"}));
}

TEST_F(ToolDebug, FileIsAnsweredWithAllItsCode) {
    EXPECT_EQ(linesIn(linesOf("--file", "two.cpp")), (std::set<unsigned>{2, 3, 4, 6, 7, 8}));
    EXPECT_EQ(linesIn(linesOf("--file", "shape.h")), (std::set<unsigned>{1, 2, 3}));
}

TEST_F(ToolDebug, LineIsAnsweredWithTheAddressesThatLeadBackToIt) {
    const auto rows = linesOf("--file", "two.cpp:3");
    ASSERT_FALSE(rows.empty());
    for (const json& row : rows) {
        EXPECT_EQ(row["line"], 3);
        const auto answer = objectsOf(answerOf({"symbolize", "--json", s_program, row["begin"]}));
        ASSERT_EQ(answer.size(), 1U);
        EXPECT_EQ(answer[0]["frames"][0]["line"], 3);
        EXPECT_EQ(answer[0]["frames"][0]["file"], row["file"]);
    }
}

TEST_F(ToolDebug, FileGoesByTheEndOfItsPathFromADirectoryOn) {
    const auto rows = linesOf("--file", "two.cpp:3");
    EXPECT_EQ(linesOf("--file", "src/two.cpp:3"), rows);
    EXPECT_EQ(linesOf("--file", s_directory->path("src/two.cpp:3")), rows);
    EXPECT_THAT(linesOf("--file", "rc/two.cpp:3"), IsEmpty());
}

TEST_F(ToolDebug, TextHasBeginEndAndPosition) {
    const auto rows = linesOf("--symbol", "bar");
    ASSERT_FALSE(rows.empty());
    EXPECT_THAT(answerOf({"lines", s_program, "--symbol", "bar"}),
                StartsWith(rows[0]["begin"].get<std::string>() + "  " + rows[0]["end"].get<std::string>() +
                           "  " + s_directory->path("src/two.cpp") + ":2:"));
}

TEST_F(ToolDebug, WrongQuestionsEndWithTwo) {
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"--symbol", "one", "--file", "one.c"},
        {"--range", "1"},
        {"--range", "1", "wrong"},
        {"--range", "2", "2"},
        {"--range", "3", "2"},
        {"--symbol", ""},
        {"--file", ":12"},
    };
    for (auto arguments : wrong) {
        arguments.insert(arguments.begin(), {"lines", s_program});
        const ProcessResult result = orn(arguments);
        EXPECT_EQ(result.exitStatus, 2) << testing::PrintToString(arguments);
        EXPECT_EQ(result.output, "") << testing::PrintToString(arguments);
        EXPECT_NE(result.error, "") << testing::PrintToString(arguments);
    }
}

TEST_F(ToolDebug, ModuleWithoutLinesIsToldInOneLine) {
    const ProcessResult result =
        orn({"lines", "--debug-dir", m_debugDirectory.path(), stripped(), "--symbol", "one"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.error,
                StartsWith("orn: no source lines of '" + stripped() + "' can be read: there is no"));
    EXPECT_EQ(std::count(result.error.begin(), result.error.end(), '\n'), 1);
}

TEST_F(ToolDebug, DebugInformationOfAVersionThatIsNotReadIsToldInOneLine) {
    const std::string object = s_directory->path("five.o");
    run({"gcc", "-gdwarf-5", "-c", s_directory->path("src/one.c"), "-o", object});
    const ProcessResult result = orn({"lines", object, "--file", "one.c"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.error, "orn: no source lines of '" + object +
                                "' can be read: the debug information is of a version that is not read; "
                                "build with -gdwarf-4\n");
    const std::string told = "orn: not all symbols of '" + object +
                             "' could be read: the debug information is of a version that is not read; "
                             "build with -gdwarf-4\n";
    EXPECT_EQ(orn({"symbols", object}).error, told);
    EXPECT_EQ(orn({"units", object}).error, told);
}

// ---- units

TEST_F(ToolDebug, UnitsAreListedOnceByOffset) {
    const auto units = objectsOf(answerOf({"units", "--json", s_program}));
    ASSERT_EQ(units.size(), 2U);
    EXPECT_LT(numberOf(units[0]["offset"]), numberOf(units[1]["offset"]));
    EXPECT_EQ(units[0]["language"], "c");
    EXPECT_EQ(units[0]["name"], s_directory->path("src/one.c"));
    EXPECT_THAT(units[0]["compiler"].get<std::string>(), StartsWith("GNU C"));
    EXPECT_EQ(units[1]["language"], "c++");
    EXPECT_EQ(units[1]["name"], s_directory->path("src/two.cpp"));
    for (const json& unit : units) {
        EXPECT_EQ(unit["directory"], std::filesystem::current_path().string());
        EXPECT_EQ(unit["options"], nullptr);
        EXPECT_TRUE(unit.contains("version"));
    }
}

TEST_F(ToolDebug, UnitsAsTextHaveTheSameFacts) {
    const std::string text = answerOf({"units", s_program});
    EXPECT_THAT(text, HasSubstr("offset  language"));
    EXPECT_THAT(text, HasSubstr("  see compiler  ")) << "of C17, which the library has no version from";
    EXPECT_THAT(text, HasSubstr(s_directory->path("src/one.c")));
    EXPECT_THAT(text, HasSubstr("GNU C++"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
}

TEST_F(ToolDebug, ModuleWithoutDebugInformationHasNoUnits) {
    EXPECT_EQ(answerOf({"units", "--debug-dir", m_debugDirectory.path(), stripped()}), "");
}

// ---- Debug directories

TEST_F(ToolDebug, DebugFileIsFoundByBuildId) {
    const std::string file = install(buildIdFile);
    const json info = infoOfStripped();
    EXPECT_EQ(info["symbolFile"]["path"], file);
    EXPECT_EQ(info["candidates"][0]["chosen"], true);
    EXPECT_EQ(info["candidates"][0]["wanted"], file);
    EXPECT_EQ(info["candidates"][1]["searched"], false);
}

TEST_F(ToolDebug, DebugFileIsFoundByDebugLinkInACopyOfTheModulesDirectory) {
    const std::string file = install(s_directory->path("bin/prog.debug").substr(1));
    EXPECT_EQ(infoOfStripped()["symbolFile"]["path"], file);
}

TEST_F(ToolDebug, DebugFileIsFoundByDebugLinkInTheDebugDirectoryItself) {
    const std::string file = install("prog.debug");
    const json info = infoOfStripped();
    EXPECT_EQ(info["symbolFile"]["path"], file);
    EXPECT_EQ(info["candidates"][0]["meaning"], "to be searched for");
    EXPECT_EQ(info["candidates"][0]["refused"], json::array());
    EXPECT_EQ(info["candidates"][1]["chosen"], true);
    EXPECT_THAT(textOfStripped(), HasSubstr("to be searched for, not found"));
}

TEST_F(ToolDebug, BuildIdGoesBeforeDebugLinkAndTheModulesPlaceBeforeTheDebugDirectoryItself) {
    install("prog.debug");
    const std::string placed = install(s_directory->path("bin/prog.debug").substr(1));
    EXPECT_EQ(infoOfStripped()["symbolFile"]["path"], placed);
    const std::string identified = install(buildIdFile);
    EXPECT_EQ(infoOfStripped()["symbolFile"]["path"], identified);
}

TEST_F(ToolDebug, DirectoriesAreSearchedInTheirOrder) {
    const std::string file = install("prog.debug");
    const TempDir other;
    std::filesystem::copy_file(file, other.path("prog.debug"));
    const json info =
        json::parse(answerOf({"info", "--json", "--debug-dir", other.path("missing"), "--debug-dir",
                              other.path(), "--debug-dir", m_debugDirectory.path(), stripped()}));
    EXPECT_EQ(info["symbolFile"]["path"], other.path("prog.debug"));
}

TEST_F(ToolDebug, FileOfAnotherBuildIsRefusedAndNamed) {
    const std::string file = install(buildIdFile);
    std::filesystem::copy_file(s_directory->path("one.o"), file,
                               std::filesystem::copy_options::overwrite_existing);
    const json info = infoOfStripped();
    EXPECT_EQ(info["symbolFile"], nullptr);
    EXPECT_EQ(info["candidates"][0]["refused"], json::array({file}));
    EXPECT_THAT(textOfStripped(), HasSubstr("to be searched for, refused " + file));
}

TEST_F(ToolDebug, ChangedFileOfADebugLinkDoesNotHideTheRightOne) {
    const std::string changed = install(s_directory->path("bin/prog.debug").substr(1));
    std::ofstream(changed, std::ios::app) << "changed";
    EXPECT_EQ(infoOfStripped()["symbolFile"], nullptr);
    const std::string right = install("prog.debug");
    const json info = infoOfStripped();
    EXPECT_EQ(info["symbolFile"]["path"], right);
    EXPECT_EQ(info["candidates"][1]["refused"], json::array({changed}));
}

TEST_F(ToolDebug, UsableCandidateBehindTheChosenOneIsNotNeeded) {
    const std::string text = answerOf({"info", "--debug-dir", m_debugDirectory.path(), s_program});
    EXPECT_THAT(text, HasSubstr("usable, chosen"));
    EXPECT_THAT(text, HasSubstr("usable, not needed"));
}

TEST_F(ToolDebug, EveryVerbReadsTheDebugFileThatWasFound) {
    install(buildIdFile);
    const std::string& directory = m_debugDirectory.path();
    for (const char* file : {"two.cpp:3", "one.c", "shape.h"})
        EXPECT_EQ(answerOf({"lines", "--debug-dir", directory, stripped(), "--file", file}),
                  answerOf({"lines", s_program, "--file", file}));
    EXPECT_EQ(answerOf({"lines", "--debug-dir", directory, stripped(), "--symbol", "one"}),
              answerOf({"lines", s_program, "--symbol", "one"}));
    EXPECT_EQ(answerOf({"units", "--debug-dir", directory, stripped()}), answerOf({"units", s_program}));
    const std::string address = linesOf("--symbol", "one")[0]["begin"];
    EXPECT_THAT(answerOf({"symbolize", "--debug-dir", directory, stripped(), address}),
                HasSubstr("one at " + s_directory->path("src/one.c") + ":3"));
    EXPECT_THAT(answerOf({"symbolize", stripped(), address, "--debug-dir", directory}), HasSubstr("one.c:3"));
}

} // namespace
