// The command line "orn": reads the arguments and runs one verb.

#include "commands.h"
#include "names.h"

#include "orn/version.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <functional>
#include <new>

namespace orn_tool {

namespace {

/// The verb that was asked for, with its options bound.
using Verb = std::function<int()>;

void addModule(CLI::App& command, ModuleChoice& module) {
    command.add_option("MODULE", module.path, "Program, library, kernel module or other module file")
        ->required();
    command
        .add_option("--debug-dir", module.debugDirectories,
                    "Search debug files here, by build id and by debug link; may be given several times")
        ->type_name("DIR")
        ->capture_default_str()
        ->allow_extra_args(false);
    command
        .add_option(
            "--arch", module.architecture,
            "Architecture, where the file does not tell it: a compressed Linux kernel, or by its number a "
            "GPU binary")
        ->check(CLI::IsMember(architectureWords()));
    command.add_option("--kernel", module.kernel, "The kernel of a GPU binary that is meant")
        ->type_name("NAME");
}

void addJson(CLI::App& command, bool& asJson) {
    command.add_flag("--json", asJson, "Print JSON, one object a line");
}

void addSymbolize(CLI::App& app, SymbolizeOptions& options, Verb& verb) {
    CLI::App* command = app.add_subcommand("symbolize", "Tell who owns addresses of a module");
    command->footer(
        "Addresses are hexadecimal, with or without 0x, and mean the module at its preferred load\n"
        "address, as nm prints them. An address that nothing owns is ?? in text and null in JSON.");
    addModule(*command, options.module);
    command->add_option("ADDRESS", options.addresses,
                        "Addresses; without any, lines of standard input, each answered at once");
    auto* rva = command->add_flag_callback(
        "--rva", [&options] { options.space = AddressSpace::Rva; }, "Addresses count from the load address");
    command
        ->add_flag_callback(
            "--file-offset", [&options] { options.space = AddressSpace::FileOffset; },
            "Addresses count from the begin of the file")
        ->excludes(rva);
    addJson(*command, options.asJson);
    command->callback([&options, &verb] { verb = [&options] { return runSymbolize(options); }; });
}

void addInfo(CLI::App& app, InfoOptions& options, Verb& verb) {
    CLI::App* command = app.add_subcommand("info", "Tell what a module is and where its symbols come from");
    addModule(*command, options.module);
    addJson(*command, options.asJson);
    command->callback([&options, &verb] { verb = [&options] { return runInfo(options); }; });
}

void addSymbols(CLI::App& app, SymbolsOptions& options, Verb& verb) {
    CLI::App* command = app.add_subcommand("symbols", "List the symbols of a module with their ranges");
    command->footer("Columns: begin, end, size, kind, visibility, name. Ranges may overlap unless --cut.");
    addModule(*command, options.module);
    command->add_option("--kind", options.kinds, "Only symbols of this kind; may be given several times")
        ->check(CLI::IsMember(kindWords()))
        ->allow_extra_args(false);
    command->add_flag("--cut", options.isCut, "Cut ranges so that each address has one owner");
    addJson(*command, options.asJson);
    command->callback([&options, &verb] { verb = [&options] { return runSymbols(options); }; });
}

void addLines(CLI::App& app, LinesOptions& options, Verb& verb) {
    CLI::App* command =
        app.add_subcommand("lines", "Tell the source lines of code, and the code of source lines");
    command->footer("Columns: begin, end, position. A file is named by its path or by the end of it, from a\n"
                    "directory on; a symbol by its raw, short or full name, with or without parameters.");
    addModule(*command, options.module);
    CLI::Option_group* question = command->add_option_group("Question", "What is asked; one of");
    question->add_option("--range", options.range, "Lines of the addresses [LOW, HIGH), in hexadecimal")
        ->type_name("LOW HIGH")
        ->expected(2);
    question->add_option("--file", options.file, "Addresses of a file or of one line of it")
        ->type_name("NAME[:LINE]");
    question->add_option("--symbol", options.symbol, "Lines of the symbols of that name")->type_name("NAME");
    question->require_option(1);
    addJson(*command, options.asJson);
    command->callback([&options, &verb] { verb = [&options] { return runLines(options); }; });
}

void addUnits(CLI::App& app, UnitsOptions& options, Verb& verb) {
    CLI::App* command = app.add_subcommand("units", "List the compilation units that own symbols");
    addModule(*command, options.module);
    addJson(*command, options.asJson);
    command->callback([&options, &verb] { verb = [&options] { return runUnits(options); }; });
}

void addReports(CLI::App& app, ReportsOptions& options, Verb& verb) {
    CLI::App* command = app.add_subcommand("reports", "List the compiler's optimisation reports");
    command->footer("Columns: address, version, text.");
    addModule(*command, options.module);
    command->add_option("--range", options.range, "Reports of the addresses [LOW, HIGH), in hexadecimal")
        ->type_name("LOW HIGH")
        ->expected(2);
    addJson(*command, options.asJson);
    command->callback([&options, &verb] { verb = [&options] { return runReports(options); }; });
}

void addFrame(CLI::App& app, FrameOptions& options, Verb& verb) {
    CLI::App* command = app.add_subcommand("frame", "Tell the variable at an address of a function's stack");
    command->footer(
        "All values are hexadecimal, with or without 0x. PC means the module at its preferred load\n"
        "address; registers and data address are those of the stopped program. Columns: variable\n"
        "with its members, what it is, begin and offset, function, declaration.");
    addModule(*command, options.module);
    command->add_option("PC", options.code, "Where the function stopped")->required();
    command->add_option("--data", options.data, "The address on the stack")->type_name("ADDRESS")->required();
    command->add_option("--sp", options.stackPointer, "The stack pointer: rsp, esp")
        ->type_name("VALUE")
        ->required();
    command->add_option("--fp", options.framePointer, "The frame pointer: rbp, ebp")
        ->type_name("VALUE")
        ->required();
    addJson(*command, options.asJson);
    command->callback([&options, &verb] { verb = [&options] { return runFrame(options); }; });
}

int runProgram(int argc, char** argv) {
    CLI::App app("Turns addresses of module files into names.", "orn");
    app.require_subcommand(1);
    app.set_version_flag("--version", "orn " ORN_VERSION_STRING);
    app.footer("Exit status: 0 done, 1 the module could not be loaded, 2 wrong usage.\n"
               "\"orn VERB --help\" tells the options of a verb.");
    SymbolizeOptions symbolize;
    InfoOptions info;
    SymbolsOptions symbols;
    LinesOptions lines;
    UnitsOptions units;
    ReportsOptions reports;
    FrameOptions frame;
    Verb verb;
    addSymbolize(app, symbolize, verb);
    addInfo(app, info, verb);
    addSymbols(app, symbols, verb);
    addLines(app, lines, verb);
    addUnits(app, units, verb);
    addReports(app, reports, verb);
    addFrame(app, frame, verb);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& result) {
        // Help and version come as "errors" too, with 0 for their exit status.
        return app.exit(result) == 0 ? exit_Done : exit_Usage;
    }
    return verb();
}

} // namespace

} // namespace orn_tool

int main(int argc, char** argv) {
    try {
        return orn_tool::runProgram(argc, argv);
    } catch (const std::bad_alloc&) {
        std::fputs("orn: out of memory: free memory or raise the limit (ulimit -v) and try again\n", stderr);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "orn: %s\n", error.what());
    }
    return orn_tool::exit_NotLoaded;
}
