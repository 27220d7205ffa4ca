// Programs whose variables are asked for, and the debugger that tells where they really lie.
#pragma once

#include <string>
#include <vector>

namespace orn_test {

/// One way of compiling the programs.
struct StackBuild {
    bool isClang;
    unsigned version; ///< of DWARF
    unsigned bits;
    unsigned optimisation;

    bool hasFortran() const { return !isClang; }
    std::string name() const;
};

/// Every one of the matrix.
std::vector<StackBuild> allStackBuilds();

/// What the debugger tells of an expression in a frame.
struct DebuggerAnswer {
    std::string function;
    std::string expression;
    unsigned long long pc;
    unsigned long long stackPointer;
    unsigned long long framePointer;
    unsigned long long address;
    unsigned long long size;
};

/// Something that is to be asked for in a function.
struct StackExpression {
    const char* function;
    const char* expression;
    const char* variable;  ///< as the library is to name it
    const char* rule;      ///< why it is not to be found so; empty where it is
    const char* clangRule; ///< the same for what clang makes
};
const std::vector<StackExpression>& stackExpressions();

/// Why the programs cannot be made or stopped here; empty if they can.
std::string whyNoStackPrograms();

/// Compiles the program into `directory`; gives its path, empty where that failed, with the reason in `log`.
std::string compileStackProgram(const StackBuild& build, const std::string& directory, std::string& log);
/// Runs the program in the debugger to every place that is marked in the sources and asks there, in all
/// frames.
std::vector<DebuggerAnswer> askDebugger(const std::string& program, const std::string& directory,
                                        std::string& log);

} // namespace orn_test
