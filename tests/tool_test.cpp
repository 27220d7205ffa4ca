// The command line as a person and a pipe see it: runs the built program on modules compiled on the spot and
// on what is installed. What an answer should be is told by nm and readelf.

#include "support/temp_dir.h"
#include "support/tool_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <map>
#include <sstream>

namespace {

using nlohmann::json;
using orn_test::Dialogue;
using orn_test::ProcessResult;
using orn_test::TempDir;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::string hexOf(unsigned long long value) {
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

unsigned long long numberOf(const json& hex) {
    return std::stoull(hex.get<std::string>(), nullptr, 16);
}

ProcessResult orn(std::vector<std::string> arguments, std::string_view input = {}) {
    arguments.insert(arguments.begin(), ORN_TOOL_PATH);
    return orn_test::runProcess(arguments, input);
}

/// Standard output of a run that has to end well.
std::string answerOf(const std::vector<std::string>& arguments, std::string_view input = {}) {
    const ProcessResult result = orn(arguments, input);
    EXPECT_EQ(result.exitStatus, 0) << result.error;
    EXPECT_EQ(result.error, "");
    return result.output;
}

std::vector<json> objectsOf(const std::string& output) {
    std::vector<json> objects;
    for (const std::string& line : linesOf(output))
        objects.push_back(json::parse(line));
    return objects;
}

/// One module for all tests: a program at a load address of its own, so that addresses, RVAs and file offsets
/// are three different numbers.
class Tool : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_directory = new TempDir;
        s_program = s_directory->path("prog");
        const std::string source = s_directory->write("prog.cpp", R"(
            namespace foo {
            int value = 3;
            __attribute__((noinline)) int bar(int x) { return x + value; }
            template <typename T> __attribute__((noinline)) T larger(T a, T b) { return a < b ? b : a; }
            }
            extern "C" int plain_name(int x) { return x * 2; }
            int main(int count, char**) { return foo::bar(count) + foo::larger(count, plain_name(count)); }
        )");
        const ProcessResult compiled = orn_test::runProcess(
            {"c++", "-O0", "-no-pie", "-Wl,-Ttext-segment=0x10000000", "-o", s_program, source});
        ASSERT_EQ(compiled.exitStatus, 0) << compiled.error;
        readSymbols();
    }

    static void TearDownTestSuite() {
        delete s_directory;
        s_directory = nullptr;
        s_symbols.clear();
    }

    static unsigned long long addressOf(const std::string& symbol) { return s_symbols.at(symbol); }

    static json answerFor(const std::string& address, const std::string& option = "--json") {
        const auto objects = objectsOf(answerOf({"symbolize", "--json", option, s_program, address}));
        EXPECT_EQ(objects.size(), 1U);
        return objects.empty() ? json() : objects[0];
    }

    static constexpr unsigned long long loadAddress = 0x10000000;
    static TempDir* s_directory;
    static std::string s_program;

private:
    static void readSymbols() {
        for (const std::string& line :
             linesOf(orn_test::runProcess({"nm", "--defined-only", s_program}).output)) {
            std::istringstream stream(line);
            std::string address;
            std::string type;
            std::string name;
            if (stream >> address >> type >> name)
                s_symbols[name] = std::stoull(address, nullptr, 16);
        }
    }

    static std::map<std::string, unsigned long long> s_symbols;
};

TempDir* Tool::s_directory = nullptr;
std::string Tool::s_program;
std::map<std::string, unsigned long long> Tool::s_symbols;

// ---- Usage

TEST_F(Tool, HelpStandsEverywhereAndIsNoError) {
    for (const char* verb : {"", "symbolize", "info", "symbols", "lines", "units", "reports", "frame"}) {
        std::vector<std::string> arguments = {verb, "--help"};
        if (arguments[0].empty())
            arguments.erase(arguments.begin());
        EXPECT_THAT(answerOf(arguments), HasSubstr("Usage: orn")) << verb;
    }
}

TEST_F(Tool, VersionIsThatOfTheHeaders) {
    EXPECT_EQ(answerOf({"--version"}), "orn 3.30.0\n");
}

TEST_F(Tool, WrongUsageEndsWithTwo) {
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"dance"},
        {"symbolize"},
        {"info"},
        {"symbols"},
        {"info", s_program, "--wrong"},
        {"symbolize", "--rva", "--file-offset", s_program, "1"},
        {"symbols", "--kind", "nonsense", s_program},
        {"symbols", "--arch", "nonsense", s_program},
        {"reports", "--range", "1", s_program},
        {"reports", s_program, "--range", "2", "2"},
        {"reports", s_program, "--range", "2", "main"},
        {"symbolize", s_program, "main"},
        {"symbolize", s_program, "-1"},
        {"symbolize", s_program, "0x"},
        {"symbolize", s_program, ""},
        {"symbolize", s_program, "10000000000000000"},
    };
    for (const auto& arguments : wrong) {
        const ProcessResult result = orn(arguments);
        EXPECT_EQ(result.exitStatus, 2) << testing::PrintToString(arguments);
        EXPECT_EQ(result.output, "") << testing::PrintToString(arguments);
        EXPECT_NE(result.error, "") << testing::PrintToString(arguments);
    }
}

TEST_F(Tool, WrongAddressIsNamedAndNothingIsAnswered) {
    const ProcessResult result = orn({"symbolize", s_program, "1", "wrong"});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.error, StartsWith("orn: 'wrong' is no address"));
}

// ---- Modules that cannot be loaded

void expectNotLoaded(const std::string& path, const std::string& status, const std::string& advice) {
    for (const char* verb : {"symbolize", "info", "symbols", "units", "reports"}) {
        const ProcessResult result = orn({verb, path});
        EXPECT_EQ(result.exitStatus, 1) << verb << ' ' << path;
        EXPECT_EQ(result.output, "") << verb << ' ' << path;
        const auto lines = linesOf(result.error);
        ASSERT_EQ(lines.size(), 1U) << result.error;
        EXPECT_THAT(lines[0], StartsWith("orn: cannot load '" + path + "': " + status + ": "));
        EXPECT_THAT(lines[0], HasSubstr(advice));
    }
}

TEST_F(Tool, MissingFileIsToldInOneLine) {
    expectNotLoaded(s_directory->path("missing"), "\"Can't open file\"", "there is no such file");
    expectNotLoaded("", "\"Can't open file\"", "there is no such file");
}

TEST_F(Tool, DirectoryIsToldInOneLine) {
    expectNotLoaded(s_directory->path(), "\"Can't open file\"", "this is a directory");
}

TEST_F(Tool, ForeignFileIsToldInOneLine) {
    expectNotLoaded(s_directory->write("text", "no module at all, but longer than any header would be: " +
                                                   std::string(500, '.')),
                    "\"File format is incorrect\"", "see what it is with 'file'");
}

TEST_F(Tool, FileCutShortIsToldInOneLine) {
    expectNotLoaded(s_directory->write("cut", TempDir::contents(s_program).substr(0, 40)),
                    "\"File format is incorrect\"", "damaged");
}

// ---- symbolize

TEST_F(Tool, TextNamesOwnerModuleAndRva) {
    const auto address = addressOf("main");
    EXPECT_EQ(answerOf({"symbolize", s_program, hexOf(address)}),
              hexOf(address) + "  main  (in prog at " + hexOf(address - loadAddress) + ")\n");
}

TEST_F(Tool, TextTellsTheDistanceFromTheBegin) {
    const auto address = addressOf("_ZN3foo3barEi") + 4;
    EXPECT_EQ(answerOf({"symbolize", s_program, hexOf(address)}),
              hexOf(address) + "  foo::bar(int)+0x4  (in prog at " + hexOf(address - loadAddress) + ")\n");
}

TEST_F(Tool, TextAlignsShortAddresses) {
    EXPECT_EQ(answerOf({"symbolize", s_program, "1"}), "0x1         ??\n");
}

TEST_F(Tool, AddressWithoutOwnerIsNoError) {
    const json answer = answerFor("0xffffffffffffffff");
    EXPECT_EQ(answer["address"], "0xffffffffffffffff");
    EXPECT_EQ(answer["symbol"], nullptr);
    EXPECT_EQ(answer["frames"], json::array());
}

TEST_F(Tool, JsonHasEveryKeyInItsPlace) {
    const auto address = addressOf("main");
    const std::string line = answerOf({"symbolize", "--json", s_program, hexOf(address)});
    const json answer = json::parse(line);
    const std::string end = answer["symbol"]["end"];
    EXPECT_GT(std::stoull(end, nullptr, 16), address);
    EXPECT_EQ(line,
              "{\"module\":\"" + s_program + "\",\"address\":\"" + hexOf(address) + "\",\"rva\":\"" +
                  hexOf(address - loadAddress) +
                  "\",\"symbol\":{\"name\":\"main\",\"raw\":\"main\",\"kind\":\"function\","
                  "\"visibility\":\"global\",\"begin\":\"" +
                  hexOf(address) + "\",\"end\":\"" + end +
                  "\",\"thunk\":false},\"frames\":[{\"function\":\"main\",\"raw\":\"main\",\"file\":null,"
                  "\"line\":null,\"column\":null,\"inlined\":false}]}\n");
}

TEST_F(Tool, JsonHasRawAndDemangledName) {
    const json answer = answerFor(hexOf(addressOf("_ZN3foo6largerIiEET_S1_S1_")));
    EXPECT_EQ(answer["symbol"]["raw"], "_ZN3foo6largerIiEET_S1_S1_");
    EXPECT_EQ(answer["symbol"]["name"], "int foo::larger<int>(int, int)");
    EXPECT_EQ(answer["frames"][0]["function"], "int foo::larger<int>(int, int)");
    EXPECT_EQ(answer["frames"][0]["raw"], "_ZN3foo6largerIiEET_S1_S1_");
}

TEST_F(Tool, AddressesGoWithAndWithoutPrefixInEitherCase) {
    const std::string digits = hexOf(addressOf("plain_name")).substr(2);
    std::string upper = digits;
    std::transform(upper.begin(), upper.end(), upper.begin(), toupper);
    for (const std::string& text : {digits, upper, "0x" + digits, "0X" + upper, "00000000" + digits})
        EXPECT_EQ(answerFor(text)["symbol"]["name"], "plain_name") << text;
}

TEST_F(Tool, RvaCountsFromTheLoadAddress) {
    const auto address = addressOf("plain_name");
    EXPECT_EQ(answerFor(hexOf(address - loadAddress), "--rva"), answerFor(hexOf(address)));
}

TEST_F(Tool, FileOffsetCountsFromTheBeginOfTheFile) {
    const auto address = addressOf("plain_name");
    const json info = json::parse(answerOf({"info", "--json", s_program}));
    unsigned long long offset = 0;
    for (const json& section : info["sections"])
        if (section["name"] == ".text")
            offset = address - numberOf(section["address"]) + numberOf(section["fileOffset"]);
    ASSERT_NE(offset, 0U);
    EXPECT_EQ(answerFor(hexOf(offset), "--file-offset"), answerFor(hexOf(address)));
}

TEST_F(Tool, FileOffsetOutsideTheFileHasNoAddress) {
    const json answer = answerFor("7fffffffffff", "--file-offset");
    EXPECT_EQ(answer["address"], nullptr);
    EXPECT_EQ(answer["rva"], nullptr);
    EXPECT_EQ(answer["symbol"], nullptr);
    EXPECT_EQ(answerOf({"symbolize", "--file-offset", s_program, "7fffffffffff"}), "??          ??\n");
}

TEST_F(Tool, OptionsMayFollowTheModule) {
    const std::string address = hexOf(addressOf("main"));
    EXPECT_EQ(answerOf({"symbolize", s_program, address, "--json"}),
              answerOf({"symbolize", "--json", s_program, address}));
}

/// A copy of the program in which bytes of the name "plain_name" are others.
std::string renamedProgram(const TempDir& directory, const std::string& program, const std::string& name) {
    std::string contents = TempDir::contents(program);
    for (std::size_t at = 0; (at = contents.find("plain_name", at)) != std::string::npos;)
        contents.replace(at, 10, name);
    return directory.write("renamed", contents);
}

TEST_F(Tool, NamesAreEscapedInJson) {
    const std::string name = "\"\\\n\x01/\xC3\xA9\xE2\x82\xAC"; // ends in two letters of UTF-8
    ASSERT_EQ(name.size(), 10U);
    const std::string program = renamedProgram(*s_directory, s_program, name);
    const auto answers =
        objectsOf(answerOf({"symbolize", "--json", program, hexOf(addressOf("plain_name"))}));
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0]["symbol"]["raw"], name);
}

TEST_F(Tool, BytesThatAreNoTextBecomeReplacementsInJson) {
    // A lone continuation, an overlong form, a surrogate, and a sequence that ends too early.
    const std::string name = "\x80\xC0\xAF\xED\xA0\x80\xF0\x9F\x98z";
    ASSERT_EQ(name.size(), 10U);
    const std::string program = renamedProgram(*s_directory, s_program, name);
    const auto answers =
        objectsOf(answerOf({"symbolize", "--json", program, hexOf(addressOf("plain_name"))}));
    ASSERT_EQ(answers.size(), 1U);
    std::string replaced;
    for (int i = 0; i < 9; ++i)
        replaced += "\xEF\xBF\xBD";
    EXPECT_EQ(answers[0]["symbol"]["raw"], replaced + "z");
}

TEST_F(Tool, TextDoesNotSteerTheTerminal) {
    const std::string name = "\x1b[31m\x7f\xC2\x9B\xFFz";
    ASSERT_EQ(name.size(), 10U);
    const std::string program = renamedProgram(*s_directory, s_program, name);
    const std::string shown = "\\x1b[31m\\x7f\\xc2\\x9b\\xffz";
    EXPECT_THAT(answerOf({"symbolize", program, hexOf(addressOf("plain_name"))}), HasSubstr("  " + shown));
    EXPECT_THAT(answerOf({"symbols", program}), HasSubstr("  " + shown + "\n"));
    EXPECT_THAT(orn({"info", s_directory->path("no\x1bsuch")}).error, HasSubstr("no\\x1bsuch"));
}

// ---- symbolize from standard input

TEST_F(Tool, EveryLineIsAnsweredBeforeTheNextIsSent) {
    for (const char* option : {"--json", "--rva"}) {
        Dialogue dialogue({ORN_TOOL_PATH, "symbolize", option, s_program});
        const bool isRva = std::string(option) == "--rva";
        for (const char* name : {"main", "plain_name", "main"}) {
            dialogue.send(hexOf(addressOf(name) - (isRva ? loadAddress : 0)) + "\n");
            EXPECT_THAT(dialogue.receiveLine(), HasSubstr(name));
        }
        dialogue.send("no address\n");
        EXPECT_THAT(dialogue.receiveLine(), HasSubstr("no address"));
        EXPECT_EQ(dialogue.finish(), 0);
    }
}

TEST_F(Tool, LineInTwoPartsIsOneLine) {
    Dialogue dialogue({ORN_TOOL_PATH, "symbolize", s_program});
    const std::string address = hexOf(addressOf("main"));
    dialogue.send(address.substr(0, 5));
    dialogue.send(address.substr(5) + "\n");
    EXPECT_THAT(dialogue.receiveLine(), StartsWith(address + "  main  "));
    EXPECT_EQ(dialogue.finish(), 0);
}

TEST_F(Tool, EveryLineHasItsAnswerWhateverItHolds) {
    const std::string address = hexOf(addressOf("main"));
    const std::string input = address + "\r\n\nwrong\n \t" + address + " \n" + std::string(200000, 'f') +
                              "\n" + "-1\n10000000000000000\n" + address;
    const auto lines = linesOf(answerOf({"symbolize", s_program}, input));
    ASSERT_EQ(lines.size(), 8U);
    const std::string owner = address + "  main  (in prog at " + hexOf(addressOf("main") - loadAddress) + ")";
    EXPECT_EQ(lines[0], owner);
    EXPECT_EQ(lines[1], "  ??");
    EXPECT_EQ(lines[2], "wrong  ??");
    EXPECT_EQ(lines[3], owner);
    EXPECT_THAT(lines[4], testing::EndsWith("f  ??"));
    EXPECT_EQ(lines[5], "-1  ??");
    EXPECT_EQ(lines[6], "10000000000000000  ??");
    EXPECT_EQ(lines[7], owner);
}

TEST_F(Tool, LineThatIsNoAddressHasItsTextInJson) {
    const auto answers = objectsOf(answerOf({"symbolize", "--json", s_program}, "wr\"ong\n\n"));
    ASSERT_EQ(answers.size(), 2U);
    EXPECT_EQ(answers[0], json({{"module", s_program},
                                {"address", "wr\"ong"},
                                {"rva", nullptr},
                                {"symbol", nullptr},
                                {"frames", json::array()}}));
    EXPECT_EQ(answers[1]["address"], "");
}

TEST_F(Tool, EmptyInputHasNoAnswers) {
    EXPECT_EQ(answerOf({"symbolize", s_program}, ""), "");
}

TEST_F(Tool, ManyLinesAreAnsweredInTheirOrder) {
    constexpr unsigned count = 100000;
    const auto begin = addressOf("main");
    std::string input;
    for (unsigned i = 0; i < count; ++i)
        input += hexOf(begin + i) + "\n";
    const auto lines = linesOf(answerOf({"symbolize", s_program}, input));
    ASSERT_EQ(lines.size(), count);
    for (unsigned i = 0; i < count; ++i)
        ASSERT_THAT(lines[i], StartsWith(hexOf(begin + i) + "  "));
}

TEST_F(Tool, OutputThatIsFullIsTold) {
    const ProcessResult result =
        orn_test::runProcess({"sh", "-c", "exec \"$0\" symbols \"$1\" >/dev/full", ORN_TOOL_PATH, s_program});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.error, StartsWith("orn: cannot write"));
}

// ---- info

TEST_F(Tool, InfoTellsWhatTheModuleIs) {
    const json info = json::parse(answerOf({"info", "--json", s_program}));
    EXPECT_EQ(info["module"], s_program);
    EXPECT_EQ(info["format"], "elf");
    EXPECT_EQ(info["loadAddress"], hexOf(loadAddress));
    EXPECT_EQ(info["entryPoint"], hexOf(addressOf("_start")));
    EXPECT_EQ(info["symbolFile"], nullptr);
    EXPECT_FALSE(info["segments"].empty());
    EXPECT_GT(numberOf(info["imageSize"]), 0U);
#if defined(__x86_64__)
    EXPECT_EQ(info["architecture"], "x86-64");
#endif
}

TEST_F(Tool, InfoListsEverySectionOfTheFile) {
    const json info = json::parse(answerOf({"info", "--json", s_program}));
    const std::string expected = orn_test::runProcess({"readelf", "-SW", s_program}).output;
    unsigned found = 0;
    for (const json& section : info["sections"]) {
        const std::string name = section["name"];
        if (name.empty())
            continue;
        EXPECT_THAT(expected, HasSubstr("] " + name + " "));
        ++found;
    }
    const auto lines = linesOf(expected);
    const auto count = std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.find("] .") != std::string::npos;
    });
    EXPECT_EQ(found, static_cast<unsigned>(count));
}

TEST_F(Tool, SectionWithoutBytesHasNoFileOffset) {
    const json info = json::parse(answerOf({"info", "--json", s_program}));
    for (const json& section : info["sections"])
        EXPECT_EQ(section["fileOffset"].is_null(), section["name"] == ".bss") << section;
}

TEST_F(Tool, InfoAsTextHasTheSameFacts) {
    const std::string text = answerOf({"info", s_program});
    EXPECT_THAT(text, StartsWith("Module          " + s_program + "\nFormat          elf\n"));
    EXPECT_THAT(text, HasSubstr("\nLoad address    " + hexOf(loadAddress) + "\n"));
    EXPECT_THAT(text, HasSubstr("\nEntry point     " + hexOf(addressOf("_start")) + "\n"));
    EXPECT_THAT(text, HasSubstr("\nSymbol file     none\n"));
    EXPECT_THAT(text, HasSubstr("\nSegments\n"));
    EXPECT_THAT(text, HasSubstr("  .text\n"));
    for (const std::string& line : linesOf(text))
        EXPECT_FALSE(!line.empty() && line.back() == ' ') << line;
}

/// Splits debug information off a copy of the program and leaves a link to it.
void makeLinkedCopy(const std::string& from, const std::string& to, const std::string& debugFile) {
    for (const auto& command : std::vector<std::vector<std::string>>{
             {"objcopy", "--only-keep-debug", from, debugFile},
             {"objcopy", "--strip-debug", "--add-gnu-debuglink=" + debugFile, from, to}}) {
        const ProcessResult result = orn_test::runProcess(command);
        ASSERT_EQ(result.exitStatus, 0) << result.error;
    }
}

json candidateWanting(const json& info, const std::string& end) {
    for (const json& candidate : info["candidates"]) {
        const std::string wanted = candidate["wanted"];
        if (wanted.size() >= end.size() && wanted.compare(wanted.size() - end.size(), end.size(), end) == 0)
            return candidate;
    }
    return nullptr;
}

TEST_F(Tool, InfoListsTheCandidateOfADebugLinkWithItsState) {
    const std::string linked = s_directory->path("linked");
    const std::string debugFile = s_directory->path("linked.debug");
    makeLinkedCopy(s_program, linked, debugFile);

    json candidate = candidateWanting(json::parse(answerOf({"info", "--json", linked})), "linked.debug");
    ASSERT_FALSE(candidate.is_null());
    EXPECT_EQ(candidate["format"], "dwarf");
    EXPECT_EQ(candidate["state"], 1);
    EXPECT_EQ(candidate["chosen"], true);
    EXPECT_EQ(candidate["wanted"], debugFile);

    s_directory->write("linked.debug", "another file");
    candidate = candidateWanting(json::parse(answerOf({"info", "--json", linked})), "linked.debug");
    ASSERT_FALSE(candidate.is_null());
    EXPECT_EQ(candidate["state"], 3);
    EXPECT_EQ(candidate["meaning"], "checksum differs");
    EXPECT_EQ(candidate["chosen"], false);
    EXPECT_EQ(candidate["wanted"], "linked.debug");
    EXPECT_THAT(answerOf({"info", linked}), HasSubstr("checksum differs"));
}

TEST_F(Tool, InfoListsTheDebugFileOfABuildIdBeforeThatOfADebugLink) {
    const std::string identified = s_directory->path("identified");
    const ProcessResult compiled = orn_test::runProcess(
        {"cc", "-g", "-x", "c", "-", "-Wl,--build-id=0x0123456789abcdef", "-o", identified},
        "int main(void) { return 0; }");
    ASSERT_EQ(compiled.exitStatus, 0) << compiled.error;
    const std::string linked = s_directory->path("identified-and-linked");
    const std::string debugFile = s_directory->path("identified.debug");
    makeLinkedCopy(identified, linked, debugFile);

    const json candidates = json::parse(answerOf({"info", "--json", linked}))["candidates"];
    ASSERT_EQ(candidates.size(), 2U) << candidates;
    EXPECT_EQ(candidates[0]["wanted"], ".build-id/01/23456789abcdef.debug");
    EXPECT_EQ(candidates[0]["state"], 4);
    EXPECT_EQ(candidates[0]["chosen"], false);
    EXPECT_EQ(candidates[1]["wanted"], debugFile);
    EXPECT_EQ(candidates[1]["state"], 1);
    EXPECT_EQ(candidates[1]["chosen"], true);

    // With its debug information inside, the module is a candidate too, and comes last.
    const json own = json::parse(answerOf({"info", "--json", identified}))["candidates"];
    ASSERT_GE(own.size(), 2U) << own;
    EXPECT_EQ(own[0]["state"], 4);
    EXPECT_EQ(own.back()["wanted"], identified);
    EXPECT_EQ(own.back()["state"], 1);
}

// ---- symbols

TEST_F(Tool, SymbolsListsEveryRangeWithItsBeginFirst) {
    const std::string text = answerOf({"symbols", s_program});
    const std::string begin = hexOf(addressOf("_ZN3foo3barEi"));
    bool isFound = false;
    for (const std::string& line : linesOf(text)) {
        EXPECT_THAT(line, StartsWith("0x"));
        isFound = isFound || (line.find(begin + "  ") == 0 && line.find("function") != std::string::npos &&
                              line.find("global") != std::string::npos &&
                              line.find("  foo::bar(int)") != std::string::npos);
    }
    EXPECT_TRUE(isFound) << text;
}

TEST_F(Tool, SymbolsAsJsonHaveWhatTheAnswersHave) {
    for (const json& symbol : objectsOf(answerOf({"symbols", "--json", s_program}))) {
        EXPECT_EQ(numberOf(symbol["end"]) - numberOf(symbol["begin"]), symbol["size"].get<unsigned>());
        if (symbol["raw"] == "main") {
            EXPECT_EQ(symbol["name"], "main");
            EXPECT_EQ(symbol["begin"], hexOf(addressOf("main")));
            EXPECT_EQ(symbol["kind"], "function");
            EXPECT_EQ(symbol["visibility"], "global");
            EXPECT_EQ(symbol["thunk"], false);
        }
    }
}

TEST_F(Tool, KindLimitsTheSymbols) {
    const auto functions = objectsOf(answerOf({"symbols", "--json", "--kind", "function", s_program}));
    EXPECT_THAT(functions, Not(IsEmpty()));
    for (const json& symbol : functions)
        EXPECT_EQ(symbol["kind"], "function");
    const auto all = objectsOf(answerOf({"symbols", "--json", s_program}));
    const auto both =
        objectsOf(answerOf({"symbols", "--json", "--kind", "function", "--kind", "variable", s_program}));
    EXPECT_GT(both.size(), functions.size());
    EXPECT_EQ(objectsOf(answerOf({"symbols", "--json", "--kind", "all", s_program})), all);
}

TEST_F(Tool, CutRangesDoNotOverlap) {
    unsigned long long end = 0;
    const auto pieces = objectsOf(answerOf({"symbols", "--json", "--cut", s_program}));
    EXPECT_THAT(pieces, Not(IsEmpty()));
    for (const json& piece : pieces) {
        EXPECT_GE(numberOf(piece["begin"]), end);
        end = numberOf(piece["end"]);
    }
}

TEST_F(Tool, InstalledProgramsAndLibrariesAreAnswered) {
    for (const char* path : {"/bin/true", "/bin/ls", "/bin/sh"}) {
        const std::vector<json> symbols = objectsOf(answerOf({"symbols", "--json", path}));
        EXPECT_EQ(json::parse(answerOf({"info", "--json", path}))["format"], "elf");
        std::string input;
        for (const json& symbol : symbols)
            input += symbol["begin"].get<std::string>() + "\n";
        EXPECT_EQ(linesOf(answerOf({"symbolize", path}, input)).size(), symbols.size());
    }
}

} // namespace
