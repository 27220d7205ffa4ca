// "orn reports": what the compiler reported about its optimisations, by address. What stands in a report is
// the compiler's matter and printed as it is.

#include "commands.h"

#include "address_text.h"
#include "json_writer.h"
#include "output.h"

#include "orn/opt_report.h"

#include <string_view>
#include <unistd.h>

namespace orn_tool {

using ORN_3_30::IIterator;
using ORN_3_30::IOptReportEntry;
using ORN_3_30::isFailure;
using ORN_3_30::status_t;
using ORN_3_30::SymMgrObjectPtr;
using ORN_3_30::toUString;

namespace {

using ReportIteratorPtr = SymMgrObjectPtr<IIterator<IOptReportEntry*>>;

/// Without the NULs that fill a short text up.
std::string_view textOf(IOptReportEntry& report) {
    unsigned long long size = 0;
    const char* text = report.text(size);
    while (size > 0 && text[size - 1] == '\0')
        --size;
    return {text, size};
}

class TextRows {
public:
    TextRows(Output& output, std::size_t addressWidth) : m_output(output), m_addressWidth(addressWidth) {}

    void put(IOptReportEntry& report) {
        putPadded(hexText(report.address()), m_addressWidth + 2);
        putPadded(std::to_string(report.version()), versionWidth);
        m_output.putPrintable(textOf(report)).put('\n');
    }

private:
    static constexpr std::size_t versionWidth = 7; // five digits and two blanks

    void putPadded(std::string_view text, std::size_t width) {
        m_output.put(text).putSpaces(text.size() < width ? width - text.size() : 1);
    }

    Output& m_output;
    std::size_t m_addressWidth;
};

class JsonRows {
public:
    explicit JsonRows(Output& output) : m_json(output) {}

    void put(IOptReportEntry& report) {
        m_json.beginObject().key("address").hex(report.address());
        m_json.key("version").number(report.version());
        m_json.key("text").string(textOf(report)).endObject().endLine();
    }

private:
    JsonWriter m_json;
};

/// The limits of the range, or those of all addresses.
struct Range {
    unsigned long long low = 0;
    unsigned long long high = ~0ULL;
};

/// All reports are walked and the range is cut here: the library takes an address of the module for the begin
/// of a range, and a person may well begin in front of it.
template <typename Rows>
void printAll(ReportIteratorPtr& reports, const Range& range, const Output& output, Rows&& rows) {
    if (!reports)
        return;
    while (IOptReportEntry* report = reports->current()) {
        if (report->address() >= range.low && report->address() < range.high)
            rows.put(*report);
        if (!reports->next() || output.hasFailed())
            break;
    }
}

bool readRange(const ReportsOptions& options, Range& range) {
    std::vector<unsigned long long> limits;
    if (!parseAll(options.range, limits))
        return false;
    if (limits.empty())
        return true;
    range = {limits[0], limits[1]};
    if (range.low < range.high)
        return true;
    printError("the range has nothing in it: LOW must be below HIGH");
    return false;
}

} // namespace

int runReports(const ReportsOptions& options) {
    Range range;
    if (!readRange(options, range))
        return exit_Usage;
    ModuleSession session(options.module);
    if (!session.load())
        return exit_NotLoaded;
    ReportIteratorPtr reports;
    const status_t status = session.bank().optReports(reports, nullptr, 0);
    if (isFailure(status))
        printError("the reports of '" + printable(session.path()) +
                   "' could not be read: " + toUString(status));
    Output output(STDOUT_FILENO);
    if (options.asJson)
        printAll(reports, range, output, JsonRows(output));
    else
        printAll(reports, range, output, TextRows(output, session.addressWidth()));
    return finish(output);
}

} // namespace orn_tool
