// "orn units": the compilation units of a module and how they were made. Units are reached from the symbols
// that they own; a unit of which the linker left nothing is not listed.

#include "commands.h"

#include "json_writer.h"
#include "names.h"
#include "output.h"
#include "text_table.h"

#include "orn/comp_unit_details.h"
#include "orn/source.h"
#include "orn/symbol.h"

#include <map>
#include <unistd.h>

namespace orn_tool {

using ORN_3_30::ICompUnitDetails;
using ORN_3_30::IIterator;
using ORN_3_30::IModuleSymbolBank;
using ORN_3_30::isFailure;
using ORN_3_30::ISourceFile;
using ORN_3_30::ISymbolRange;
using ORN_3_30::status_t;
using ORN_3_30::SymMgrObjectPtr;
using enum ORN_3_30::status_t;
using enum ORN_3_30::symbol_kind_t;

namespace {

using Units = std::map<unsigned long long, ICompUnitDetails*>; ///< by offset
using RangeIteratorPtr = SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>;

Units unitsOf(const ModuleSession& session) {
    Units units;
    RangeIteratorPtr ranges;
    IModuleSymbolBank& bank = session.bank();
    // A load that fails in part is told once; the second query answers from what could be read.
    status_t status = bank.originalSymbolRanges(ranges, symbol_kind_all, nullptr, nullptr);
    if (isFailure(status)) {
        warnAboutSymbols(session.path(), status);
        status = bank.originalSymbolRanges(ranges, symbol_kind_all, nullptr, nullptr);
    }
    if (isFailure(status) || !ranges)
        return units;
    while (SymMgrObjectPtr<ISymbolRange> range = ranges->current()) {
        ICompUnitDetails* unit = nullptr;
        if (range->symbol() && range->symbol()->compUnitDetails(unit) == status_Ok && unit)
            units.emplace(unit->getOffset(), unit);
        if (!ranges->next())
            break;
    }
    return units;
}

/// Null for an empty text: the library does not tell "empty" from "not said".
const char* known(const char* text) {
    return text && *text != 0 ? text : nullptr;
}

const char* nameOf(ICompUnitDetails& unit) {
    ISourceFile* file = unit.getSourceFile();
    return file ? known(file->name()) : nullptr;
}

/// Empty if the compiler's version is not known: the library reads it from few forms of the compiler's text.
std::string versionOf(ICompUnitDetails& unit) {
    const unsigned major = unit.getCompilerMajorVersion();
    const unsigned minor = unit.getCompilerMinorVersion();
    return major == 0 && minor == 0 ? "" : std::to_string(major) + '.' + std::to_string(minor);
}

/// A text that the library has no version from may hold one for the reader's eye.
std::string versionCell(ICompUnitDetails& unit) {
    std::string version = versionOf(unit);
    if (!version.empty())
        return version;
    return known(unit.getCompilerName()) ? "see compiler" : "-";
}

std::string orDash(const char* text) {
    return known(text) ? printable(text) : "-";
}

void printText(Output& output, const Units& units) {
    TextTable table({{"offset", TextTable::Align::Right},
                     {"language", TextTable::Align::Left},
                     {"version", TextTable::Align::Left},
                     {"name", TextTable::Align::Left},
                     {"directory", TextTable::Align::Left},
                     {"compiler", TextTable::Align::Left},
                     {"options", TextTable::Align::Left}});
    for (const auto& [offset, unit] : units)
        table.addRow({hexText(offset), wordFor(unit->getLanguage()), versionCell(*unit),
                      orDash(nameOf(*unit)), orDash(unit->getCompilationDirectory()),
                      orDash(unit->getCompilerName()), orDash(unit->getCompileOptions())});
    if (!table.isEmpty())
        table.print(output, 0);
}

void printJson(Output& output, const Units& units) {
    JsonWriter json(output);
    for (const auto& [offset, unit] : units) {
        const std::string version = versionOf(*unit);
        json.beginObject().key("offset").hex(offset);
        json.key("compiler").stringOrNull(known(unit->getCompilerName()));
        json.key("version").stringOrNull(known(version.c_str()));
        json.key("language").string(wordFor(unit->getLanguage()));
        json.key("options").stringOrNull(known(unit->getCompileOptions()));
        json.key("name").stringOrNull(nameOf(*unit));
        json.key("directory").stringOrNull(known(unit->getCompilationDirectory()));
        json.endObject().endLine();
    }
}

} // namespace

int runUnits(const UnitsOptions& options) {
    ModuleSession session(options.module);
    if (!session.load())
        return exit_NotLoaded;
    const Units units = unitsOf(session);
    Output output(STDOUT_FILENO);
    if (options.asJson)
        printJson(output, units);
    else
        printText(output, units);
    return finish(output);
}

} // namespace orn_tool
