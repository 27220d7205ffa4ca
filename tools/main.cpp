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

void addModule(CLI::App& command, std::string& module) {
    command.add_option("MODULE", module, "Program, library, kernel module or other module file")->required();
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

int runProgram(int argc, char** argv) {
    CLI::App app("Turns addresses of module files into names.", "orn");
    app.require_subcommand(1);
    app.set_version_flag("--version", "orn " ORN_VERSION_STRING);
    app.footer("Exit status: 0 done, 1 the module could not be loaded, 2 wrong usage.\n"
               "\"orn VERB --help\" tells the options of a verb.");
    SymbolizeOptions symbolize;
    InfoOptions info;
    SymbolsOptions symbols;
    Verb verb;
    addSymbolize(app, symbolize, verb);
    addInfo(app, info, verb);
    addSymbols(app, symbols, verb);
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
