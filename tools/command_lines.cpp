// "orn lines": from code to source positions and back, as the line tables have it.

#include "commands.h"

#include "address_text.h"
#include "json_writer.h"
#include "line_source.h"
#include "output.h"

#include "orn/address.h"
#include "orn/symbol.h"

#include <charconv>
#include <unistd.h>

namespace orn_tool {

using ORN_3_30::IAddress;
using ORN_3_30::IIterator;
using ORN_3_30::IModuleSymbolBank;
using ORN_3_30::isFailure;
using ORN_3_30::ISymbol;
using ORN_3_30::ISymbolRange;
using ORN_3_30::status_t;
using ORN_3_30::SymMgrObjectPtr;
using ORN_3_30::toUString;
using enum ORN_3_30::status_t;
using enum ORN_3_30::symbol_kind_t;

namespace {

struct FileAndLine {
    std::string_view name;
    std::optional<unsigned> line;
};

/// A colon with anything but a number behind it belongs to the name.
FileAndLine parseFile(std::string_view text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos)
        return {text, {}};
    unsigned line = 0;
    const char* end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data() + colon + 1, end, line);
    if (error != std::errc() || stopped != end)
        return {text, {}};
    return {text.substr(0, colon), line};
}

/// A full name may be given without its parameters.
bool isNamed(ISymbol& symbol, std::string_view name) {
    for (const char* each : {symbol.rawName(), symbol.demangledName(0), symbol.shortName()})
        if (each && name == each)
            return true;
    const char* text = symbol.fullName();
    const std::string_view full = text ? text : "";
    return full.starts_with(name) && (full.size() == name.size() || full[name.size()] == '(');
}

status_t collectOfRange(LineSource& source, ISymbolRange& range, std::vector<LineRow>& rows) {
    SymMgrObjectPtr<IAddress> begin;
    range.beginAddress(begin);
    if (!begin || range.size() == 0)
        return status_False;
    return source.collectRange(begin->pseudoAddr(), begin->pseudoAddr() + range.size(), rows);
}

status_t collectSymbols(LineSource& source, const ModuleSession& session, std::string_view name,
                        std::vector<LineRow>& rows) {
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
    IModuleSymbolBank& bank = session.bank();
    // A load that fails in part is told once; the second query answers from what could be read.
    status_t status = bank.originalSymbolRanges(ranges, symbol_kind_all, nullptr, nullptr);
    if (isFailure(status)) {
        warnAboutSymbols(session.path(), status);
        status = bank.originalSymbolRanges(ranges, symbol_kind_all, nullptr, nullptr);
    }
    if (isFailure(status) || !ranges)
        return status;
    while (SymMgrObjectPtr<ISymbolRange> range = ranges->current()) {
        if (range->symbol() && !range->thunk() && isNamed(*range->symbol(), name)) {
            status = collectOfRange(source, *range, rows);
            if (isFailure(status))
                return status;
        }
        if (!ranges->next())
            break;
    }
    return status_Ok;
}

/// `limits`: empty or the two of the range.
status_t collect(LineSource& source, const ModuleSession& session, const LinesOptions& options,
                 const std::vector<unsigned long long>& limits, std::vector<LineRow>& rows) {
    if (!limits.empty())
        return source.collectRange(limits[0], limits[1], rows);
    if (!options.symbol.empty())
        return collectSymbols(source, session, options.symbol, rows);
    const FileAndLine wanted = parseFile(options.file);
    return source.collectFile(wanted.name, wanted.line, rows);
}

/// The usage that the declarations of the options cannot express.
bool checkUsage(const LinesOptions& options, std::vector<unsigned long long>& limits) {
    if (!parseAll(options.range, limits))
        return false;
    if (!limits.empty() && limits[0] >= limits[1]) {
        printError("the range has nothing in it: LOW must be below HIGH");
        return false;
    }
    if (limits.empty() && options.symbol.empty() && parseFile(options.file).name.empty()) {
        printError("the name is empty: name a file or a symbol");
        return false;
    }
    return true;
}

/// A load of lines that fails for all units does not say why; a load of symbols does.
status_t causeOf(const ModuleSession& session, status_t status) {
    if (status != status_Fail)
        return status;
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
    const status_t told = session.bank().originalSymbolRanges(ranges, symbol_kind_all, nullptr, nullptr);
    return isFailure(told) ? told : status;
}

void reportNoLines(const ModuleSession& session, status_t status) {
    const std::string problem = "no source lines of '" + printable(session.path()) + "' can be read: ";
    status = causeOf(session, status);
    if (status == status_UnsupportedFormatVersion)
        printError(problem + unreadVersionText());
    else if (isFailure(status))
        printError(
            problem + toUString(status) +
            ": the debug information is damaged or of a version that is not read; see it with readelf");
    else
        printError(problem + "there is no symbol file; see with 'orn info' what was searched for, and name "
                             "its directory with --debug-dir");
}

void printText(Output& output, const std::vector<LineRow>& rows, std::size_t addressWidth) {
    for (const LineRow& row : rows) {
        for (const unsigned long long address : {row.begin, row.end}) {
            const std::string text = hexText(address);
            output.put(text).putSpaces(text.size() < addressWidth ? addressWidth - text.size() + 2 : 2);
        }
        output.putPrintable(row.file ? row.file : "??");
        if (row.line != 0)
            output.put(':').putDecimal(row.line);
        if (row.line != 0 && row.column != 0)
            output.put(':').putDecimal(row.column);
        output.put('\n');
    }
}

void printJson(Output& output, const std::vector<LineRow>& rows) {
    const auto known = [](unsigned value) { return value != 0 ? std::optional(value) : std::nullopt; };
    JsonWriter json(output);
    for (const LineRow& row : rows) {
        json.beginObject().key("begin").hex(row.begin).key("end").hex(row.end);
        json.key("size").number(row.end - row.begin).key("file").stringOrNull(row.file);
        json.key("line").number(known(row.line)).key("column").number(known(row.column));
        json.key("discriminator").number(row.discriminator).endObject().endLine();
    }
}

} // namespace

int runLines(const LinesOptions& options) {
    std::vector<unsigned long long> limits;
    if (!checkUsage(options, limits))
        return exit_Usage;
    ModuleSession session(options.module);
    if (!session.load())
        return exit_NotLoaded;
    session.askForKernel();
    LineSource source;
    std::vector<LineRow> rows;
    status_t status = source.load(session);
    if (status == status_Ok)
        status = collect(source, session, options, limits, rows);
    if (isFailure(status) || status == status_False)
        reportNoLines(session, status);
    sortRows(rows);
    Output output(STDOUT_FILENO);
    if (options.asJson)
        printJson(output, rows);
    else
        printText(output, rows, session.addressWidth());
    return finish(output);
}

} // namespace orn_tool
