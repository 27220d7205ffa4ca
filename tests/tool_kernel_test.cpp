// The command line on Linux kernels with listings of their symbols, and on modules with optimisation reports.

#include "support/elf_assembler.h"
#include "support/report_assembler.h"
#include "support/temp_dir.h"
#include "support/tool_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>

namespace {

using nlohmann::json;
using orn_test::ElfAssembler;
using orn_test::ProcessResult;
using orn_test::ReportTable;
using orn_test::TempDir;
using testing::HasSubstr;
using testing::StartsWith;

ProcessResult orn(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), ORN_TOOL_PATH);
    return orn_test::runProcess(arguments);
}

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

// ---- Kernels

class KernelTool : public testing::Test {
protected:
    std::string writeKernel(const std::string& name) const {
        ElfAssembler elf;
        elf.loadRange(0xFFFFFFFF81000000, 0x100000, PF_R | PF_X);
        const std::string path = m_dir.path(name);
        elf.write(path);
        return path;
    }
    /// What the answer names, or null.
    static json symbolAt(const std::vector<std::string>& module, const std::string& address) {
        std::vector<std::string> arguments = {"symbolize", "--json"};
        arguments.insert(arguments.end(), module.begin(), module.end());
        arguments.push_back(address);
        const auto objects = objectsOf(answerOf(arguments));
        EXPECT_EQ(objects.size(), 1U);
        return objects.empty() ? json() : objects[0]["symbol"];
    }

    TempDir m_dir;
};

TEST_F(KernelTool, KernelIsSymbolizedThroughItsSystemMap) {
    const std::string kernel = writeKernel("vmlinux-6.1");
    m_dir.write("System.map-6.1",
                "ffffffff81000000 T startup_64\nffffffff81000040 t secondary\nffffffff81000100 D table\n");
    const json symbol = symbolAt({kernel}, "ffffffff81000050");
    EXPECT_EQ(symbol["name"], "secondary");
    EXPECT_EQ(symbol["kind"], "function");
    EXPECT_EQ(symbol["begin"], "0xffffffff81000040");
    EXPECT_EQ(symbolAt({kernel}, "0xffffffff81000108")["kind"], "variable");
    EXPECT_THAT(answerOf({"symbolize", kernel, "ffffffff81000050"}), HasSubstr("secondary"));
    EXPECT_EQ(objectsOf(answerOf({"symbols", "--json", kernel})).size(), 3U);
}

TEST_F(KernelTool, KernelIsSymbolizedThroughACopyOfKallsyms) {
    const std::string kernel = writeKernel("vmlinux-6.1");
    m_dir.write("kallsyms", "0000000000000000 A fixed_percpu_data\nffffffff9e400000 T startup_64\n"
                            "ffffffff9e400040 t secondary\nffffffffc0400000 t ext4_read\t[ext4]\n");
    EXPECT_EQ(symbolAt({kernel}, "ffffffff81000050")["name"], "secondary");
    EXPECT_EQ(objectsOf(answerOf({"symbols", "--json", kernel})).size(), 2U);
}

TEST_F(KernelTool, CompressedKernelNeedsItsArchitecture) {
    const std::string kernel = m_dir.write("vmlinuz-6.1-amd64", "MZ, and so on");
    m_dir.write("System.map-6.1-amd64", "ffffffff81000000 T startup_64\nffffffff81000040 t secondary\n");
    EXPECT_EQ(symbolAt({kernel, "--arch", "x86-64"}, "ffffffff81000050")["name"], "secondary");
    const std::string named = m_dir.write("vmlinuz-6.1-x86_64", "MZ, and so on");
    m_dir.write("System.map-6.1-x86_64", "ffffffff81000000 T startup_64\n");
    EXPECT_EQ(symbolAt({named}, "ffffffff81000050")["name"], "startup_64");
}

TEST_F(KernelTool, KernelWithoutListingIsNoError) {
    EXPECT_TRUE(symbolAt({writeKernel("vmlinux-6.1")}, "ffffffff81000050").is_null());
}

TEST_F(KernelTool, BrokenListingIsToldAndWhatWasReadAnswers) {
    const std::string kernel = writeKernel("vmlinux-6.1");
    m_dir.write("System.map-6.1", "ffffffff81000000 T startup_64\nnonsense\n");
    const ProcessResult result = orn({"symbolize", kernel, "ffffffff81000050"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.output, HasSubstr("startup_64"));
    EXPECT_THAT(result.error, StartsWith("orn: not all symbols of"));
}

TEST_F(KernelTool, InfoListsTheListingsAmongTheCandidates) {
    const std::string kernel = writeKernel("vmlinux-6.1");
    const std::string copy = m_dir.write("kallsyms", "ffffffff9e400000 T startup_64\n");
    const auto info = json::parse(answerOf({"info", "--json", kernel}));
    const std::string text = info.dump();
    EXPECT_THAT(text, HasSubstr(m_dir.path("System.map-6.1")));
    EXPECT_THAT(text, HasSubstr(copy));
    EXPECT_THAT(text, HasSubstr("kernel-map"));
}

TEST_F(KernelTool, ListingIsSearchedInTheDebugDirectories) {
    const std::string kernel = writeKernel("vmlinux-6.1");
    m_dir.makeDirectory("debug" + m_dir.path());
    m_dir.write("debug" + m_dir.path() + "/System.map-6.1", "ffffffff81000000 T startup_64\n");
    EXPECT_EQ(symbolAt({kernel, "--debug-dir", m_dir.path("debug")}, "ffffffff81000050")["name"],
              "startup_64");
}

// ---- Optimisation reports

class ReportTool : public testing::Test {
protected:
    std::string writeModule(const std::vector<uint8_t>& reports) const {
        ElfAssembler elf;
        const auto text =
            elf.section(".text", SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR).address(0x401000).zeros(0x100);
        elf.load({text});
        if (!reports.empty())
            elf.section(".debug_opt_report").append(reports);
        const std::string path = m_dir.path("module");
        elf.write(path);
        return path;
    }

    TempDir m_dir;
};

TEST_F(ReportTool, TextHasARowForEachReport) {
    const std::string module = writeModule(
        ReportTable().version(12).report(0x401020, "loop vectorised").report(0x401010, "inlined").bytes());
    EXPECT_EQ(answerOf({"reports", module}), "0x401010  12     inlined\n"
                                             "0x401020  12     loop vectorised\n");
}

TEST_F(ReportTool, JsonHasAnObjectForEachReport) {
    const std::string module =
        writeModule(ReportTable().version(12).report(0x401020, "one\n\"two\"").report(0x401010, "b").bytes());
    const auto objects = objectsOf(answerOf({"reports", "--json", module}));
    ASSERT_EQ(objects.size(), 2U);
    EXPECT_EQ(objects[0], json({{"address", "0x401010"}, {"version", 12}, {"text", "b"}}));
    EXPECT_EQ(objects[1], json({{"address", "0x401020"}, {"version", 12}, {"text", "one\n\"two\""}}));
}

TEST_F(ReportTool, RangeIsCutToItsLimits) {
    const std::string module =
        writeModule(ReportTable().report(0x401010, "a").report(0x401020, "b").report(0x401030, "c").bytes());
    const auto countIn = [&](const std::string& low, const std::string& high) {
        return objectsOf(answerOf({"reports", module, "--json", "--range", low, high})).size();
    };
    EXPECT_EQ(countIn("401010", "0x401030"), 2U);
    EXPECT_EQ(countIn("0", "ffffffffffffffff"), 3U) << "limits may lie outside the module";
    EXPECT_EQ(countIn("401011", "401020"), 0U);
    EXPECT_EQ(orn({"reports", module, "--range", "401020", "401010"}).exitStatus, 2);
}

TEST_F(ReportTool, ModuleWithoutReportsIsNoError) {
    EXPECT_EQ(answerOf({"reports", writeModule({})}), "");
    EXPECT_EQ(answerOf({"reports", "--json", writeModule({})}), "");
}

TEST_F(ReportTool, TextDoesNotSteerTheTerminal) {
    EXPECT_THAT(answerOf({"reports", writeModule(ReportTable().report(1, "\x1b[31m").bytes())}),
                HasSubstr("\\x1b[31m"));
}

} // namespace
