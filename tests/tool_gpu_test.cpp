// The command line on GPU binaries of both compilers.

#include "support/kor_assembler.h"
#include "support/kor_mira.h"
#include "support/temp_dir.h"
#include "support/tool_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;
using orn_test::KorIsaAssembler;
using orn_test::LunAssembler;
using orn_test::MiraObject;
using orn_test::ProcessResult;
using orn_test::TavAssembler;
using testing::HasSubstr;

/// "x.clbin" of 0x200 bytes with a symbol file beside it.
class ToolOnGpuBinary : public testing::Test {
protected:
    ToolOnGpuBinary() : binary(directory.write("x.clbin", std::string(0x200, '\1'))) {}

    void writeTav() {
        TavAssembler tav;
        tav.sourceFile("/src/add.cl").sourceFile("/src/mul.cl").kernel("add").kernel("mul");
        tav.lines(0, {{0x10, 42, 10, 0}, {0x30, 43, 2, 0}}).lines(1, {{0, 7, 0, 1}});
        write(tav.build());
    }
    void writeLun() {
        MiraObject mira;
        mira.files = {"/src/add.cl"};
        mira.rows = {{1, 42, 1, 10}, {3, 43, 1, 2}};
        mira.functions = {{"add_code", 1, 2}};
        KorIsaAssembler isa;
        isa.object("add", {{1, 0x10}, {2, 0x20}, {3, 0x30}, {4, 0x40}});
        write(LunAssembler().kernel("add", mira.build(), isa.build()).build());
    }
    ProcessResult run(const std::string& verb, const std::vector<std::string>& arguments) {
        std::vector<std::string> command = {ORN_TOOL_PATH, verb, binary};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return orn_test::runProcess(command);
    }
    std::string answerOf(const std::string& verb, const std::vector<std::string>& arguments) {
        const ProcessResult result = run(verb, arguments);
        EXPECT_EQ(result.exitStatus, 0) << result.error;
        EXPECT_EQ(result.error, "");
        return result.output;
    }

    orn_test::TempDir directory;
    std::string binary;

private:
    void write(const std::vector<uint8_t>& bytes) {
        directory.write("x.clpdb", std::string(bytes.begin(), bytes.end()));
    }
};

} // namespace

TEST_F(ToolOnGpuBinary, SymbolizePrintsFileAndLineOfTheOlderFormat) {
    writeTav();
    EXPECT_THAT(answerOf("symbolize", {"--arch", "8", "--kernel", "add", "10", "0x2f", "30"}),
                testing::AllOf(HasSubstr("0x2f   .dbginfo_kor at /src/add.cl:42 "),
                               HasSubstr("0x30   .dbginfo_kor at /src/add.cl:43 ")));
    EXPECT_THAT(answerOf("symbolize", {"--arch", "9", "--kernel", "mul", "10"}), HasSubstr("/src/mul.cl:7"));
}

TEST_F(ToolOnGpuBinary, SymbolizePrintsFunctionFileAndLineOfTheNewerFormat) {
    writeLun();
    const json answer =
        json::parse(answerOf("symbolize", {"--arch", "10", "--kernel", "add", "--json", "0x20"}));
    EXPECT_EQ(answer["symbol"]["name"], "add_code");
    EXPECT_EQ(answer["symbol"]["begin"], "0x10");
    EXPECT_EQ(answer["frames"][0]["file"], "/src/add.cl");
    EXPECT_EQ(answer["frames"][0]["line"], 42);
    EXPECT_EQ(answer["frames"][0]["column"], 10);
}

TEST_F(ToolOnGpuBinary, LinesAndSymbolsTakeTheSameOptions) {
    writeTav();
    EXPECT_EQ(answerOf("lines", {"--arch", "8", "--kernel", "add", "--range", "0", "40"}),
              "0x10   0x30   /src/add.cl:42:10\n"
              "0x30   0x40   /src/add.cl:43:2\n");
    EXPECT_THAT(answerOf("symbols", {"--arch", "8", "--kernel", "add"}), HasSubstr(".dbginfo_kor"));
    writeLun();
    EXPECT_THAT(answerOf("symbols", {"--arch", "12", "--kernel", "add"}), HasSubstr("add_code"));
    EXPECT_THAT(answerOf("lines", {"--arch", "12", "--kernel", "add", "--file", "add.cl:43"}),
                HasSubstr("0x30"));
}

TEST_F(ToolOnGpuBinary, InfoSaysThatKernelsAreNotListed) {
    writeTav();
    const std::string text = answerOf("info", {"--arch", "8", "--kernel", "add"});
    EXPECT_THAT(text, HasSubstr("Format          gpu\n"));
    EXPECT_THAT(text, HasSubstr("Kernel          add\n"));
    EXPECT_THAT(text, HasSubstr("Kernels         not listed: the library's interfaces do not give them\n"));
    EXPECT_THAT(text, HasSubstr("Symbol file     " + directory.path("x.clpdb") + " (gpu)\n"));
    EXPECT_THAT(answerOf("info", {}), HasSubstr("Kernel          none named\n"));
    const json described = json::parse(answerOf("info", {"--arch", "8", "--kernel", "add", "--json"}));
    EXPECT_EQ(described["kernel"], "add");
    EXPECT_EQ(described["kernels"], json());
    EXPECT_EQ(described["candidates"][0]["chosen"], true);
}

TEST_F(ToolOnGpuBinary, ASymbolFileElsewhereIsFound) {
    writeTav();
    directory.makeDirectory("debug");
    std::filesystem::rename(directory.path("x.clpdb"), directory.path("debug/x.clpdb"));
    EXPECT_THAT(answerOf("symbolize",
                         {"--arch", "8", "--kernel", "add", "--debug-dir", directory.path("debug"), "10"}),
                HasSubstr("/src/add.cl:42"));
}

TEST_F(ToolOnGpuBinary, WithoutAKernelThePersonIsAskedForOne) {
    writeTav();
    const ProcessResult result = run("symbolize", {"--arch", "8", "10"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.error, HasSubstr("holds kernels of a GPU: name one with --kernel"));
    EXPECT_THAT(run("lines", {"--range", "0", "10"}).error, HasSubstr("--kernel"));
}

TEST_F(ToolOnGpuBinary, AnArchitectureIsANumberThatThereIs) {
    for (const char* wrong : {"16", "-1", "gpu"}) {
        const ProcessResult result = run("symbolize", {"--arch", wrong, "10"});
        EXPECT_EQ(result.exitStatus, 2) << wrong;
        EXPECT_THAT(result.error, HasSubstr("--arch"));
    }
}
