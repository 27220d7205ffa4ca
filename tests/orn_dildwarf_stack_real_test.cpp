// Variables of real programs, beside what a debugger says where they lie. gcc, clang and gfortran make them,
// of every version of the debug information, word size and two levels of optimisation. Takes about 20
// seconds.

#include "orn/address.h"
#include "orn/module_symbol_bank.h"
#include "orn/stack_frame_context.h"
#include "orn/symbol.h"
#include "orn/symbol_manager.h"
#include "support/orn_fixture.h"
#include "support/stack_programs.h"
#include "support/temp_dir.h"

#include <atomic>
#include <iostream>
#include <map>
#include <thread>

namespace ORN_3_30::test {
namespace {

using orn_test::DebuggerAnswer;
using orn_test::StackBuild;
using orn_test::StackExpression;

/// What the library says.
struct Found {
    std::string name; ///< empty: nothing there
    unsigned long long begin = 0;
    bool isMember = false;
};

class RealStackTest : public OrnTest {
protected:
    /// One program with what the debugger told.
    struct Program {
        std::string path;
        std::string log;
        std::vector<DebuggerAnswer> answers;
    };

    void SetUp() override {
        const std::string reason = orn_test::whyNoStackPrograms();
        if (!reason.empty())
            GTEST_SKIP() << reason;
    }

    /// Makes and runs them side by side: most of the time is spent in other programs.
    std::vector<Program> runAll(const std::vector<StackBuild>& builds) {
        std::vector<Program> programs(builds.size());
        std::atomic<std::size_t> next{0};
        const auto work = [&] {
            for (std::size_t i = next++; i < builds.size(); i = next++) {
                const std::string directory = m_directory.path(builds[i].name());
                std::filesystem::create_directories(directory);
                Program& program = programs[i];
                program.path = orn_test::compileStackProgram(builds[i], directory, program.log);
                if (!program.path.empty())
                    program.answers = orn_test::askDebugger(program.path, directory, program.log);
            }
        };
        std::thread other(work);
        work();
        other.join();
        return programs;
    }

    static Found find(IModuleSymbolBank& bank, const DebuggerAnswer& at, unsigned long long address) {
        IStackFrameContext* created = IStackFrameContext::create();
        const SymMgrObjectPtr<IStackFrameContext> frame = created;
        created->release();
        frame->setRegister(0, at.stackPointer);
        frame->setRegister(1, at.framePointer);
        SymMgrObjectPtr<IAddress> code;
        EXPECT_EQ(bank.addressFromPseudoAddress(at.pc, code), status_Ok);
        SymMgrObjectPtr<ISymbol> symbol;
        Found found;
        if (bank.findStackVariable(code, address, frame, symbol, &found.isMember) != status_Ok)
            return {};
        SymMgrObjectPtr<IAddress> begin;
        symbol->address(begin);
        found.name = symbol->rawName();
        found.begin = begin->pseudoAddr();
        return found;
    }

    orn_test::TempDir m_directory;
};

bool isSameFrame(const DebuggerAnswer& a, const DebuggerAnswer& b) {
    return a.function == b.function && a.stackPointer == b.stackPointer && a.framePointer == b.framePointer;
}

const StackExpression& expressionOf(const DebuggerAnswer& answer) {
    for (const StackExpression& each : orn_test::stackExpressions())
        if (answer.function == each.function && answer.expression == each.expression)
            return each;
    throw std::logic_error(answer.expression);
}

/// Why something is not found in what the build makes; empty if it is to be found.
std::string ruleOf(const StackBuild& build, const StackExpression& asked) {
    if (*asked.rule)
        return asked.rule;
    if (!build.isClang) {
        const bool isCut = build.version == 4 && build.optimisation == 1;
        return isCut && asked.function == std::string("recurse")
                   ? "behind the last row of a function its frame has the rule of the common entry"
                   : "";
    }
    if (*asked.clangRule)
        return asked.clangRule;
    // clang describes frames by the frame pointer.
    if (build.version == 4)
        return "an expression that is not the frame's address leaves the base at zero";
    return build.bits == 32 ? "the frame pointer of 32 bits as a register is not read" : "";
}

TEST_F(RealStackTest, TheVariablesAreThoseThatTheDebuggerShows) {
    const std::vector<StackBuild> builds = orn_test::allStackBuilds();
    const std::vector<Program> programs = runAll(builds);
    std::map<std::string, int> differences;
    int equal = 0;
    SymMgrObjectPtr<ISymbolManager> manager;
    ASSERT_EQ(ISymbolManager::create(manager), status_Ok);
    for (std::size_t i = 0; i < builds.size(); ++i) {
        SCOPED_TRACE(builds[i].name());
        const Program& program = programs[i];
        ASSERT_FALSE(program.path.empty()) << program.log;
        EXPECT_GT(program.answers.size(), builds[i].hasFortran() ? 60u : 50u) << program.log;
        SymMgrObjectPtr<IModuleSymbolBank> bank;
        const DebuggerAnswer* previous = nullptr;
        for (const DebuggerAnswer& answer : program.answers) {
            // Answers are kept by the registers alone, and functions called from one place have the same.
            if (!previous || !isSameFrame(*previous, answer)) {
                bank = nullptr;
                ASSERT_EQ(manager->loadSymbolsFromModule(program.path.c_str(), nullptr, bank, arch_unknown,
                                                         false, nullptr),
                          status_Ok);
            }
            previous = &answer;
            const StackExpression& asked = expressionOf(answer);
            const std::string expected = asked.variable;
            for (const unsigned long long address : {answer.address, answer.address + answer.size - 1}) {
                const Found found = find(*bank, answer, address);
                const bool isMember = expected.find("::") != std::string::npos;
                if (found.name == expected && found.isMember == isMember) {
                    ++equal;
                    continue;
                }
                const std::string rule = ruleOf(builds[i], asked);
                ++differences[rule];
                EXPECT_FALSE(rule.empty()) << answer.function << ' ' << answer.expression << " found "
                                           << (found.name.empty() ? "nothing" : found.name) << ", pc 0x"
                                           << std::hex << answer.pc << " sp 0x" << answer.stackPointer
                                           << " fp 0x" << answer.framePointer << " at 0x" << address;
            }
            if (expected != answer.expression)
                continue;
            // The bytes on either side of a whole variable belong to something else.
            for (const unsigned long long address : {answer.address - 1, answer.address + answer.size})
                EXPECT_NE(find(*bank, answer, address).name, expected) << answer.function;
        }
    }
    std::cout << equal << " answers are equal\n";
    for (const auto& [rule, count] : differences)
        std::cout << count << " differ: " << rule << '\n';
    EXPECT_GT(equal, 1000);
}

} // namespace
} // namespace ORN_3_30::test
