// "orn symbols": the ranges of all symbols, as they were loaded or cut so that nothing overlaps.

#include "commands.h"

#include "json_writer.h"
#include "names.h"
#include "output.h"

#include "orn/address.h"
#include "orn/symbol.h"

#include <unistd.h>

namespace orn_tool {

using ORN_3_30::IAddress;
using ORN_3_30::IIterator;
using ORN_3_30::IModuleSymbolBank;
using ORN_3_30::isFailure;
using ORN_3_30::ISymbol;
using ORN_3_30::ISymbolRange;
using ORN_3_30::status_t;
using ORN_3_30::symbol_kind_t;
using ORN_3_30::SymMgrObjectPtr;
using enum ORN_3_30::symbol_kind_t;

namespace {

using RangeIteratorPtr = SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>;

symbol_kind_t maskOf(const SymbolsOptions& options) {
    symbol_kind_t mask = symbol_kind_none;
    for (const std::string& word : options.kinds)
        mask |= kindMask(word);
    return options.kinds.empty() ? symbol_kind_all : mask;
}

status_t query(IModuleSymbolBank& bank, const SymbolsOptions& options, RangeIteratorPtr& out) {
    const symbol_kind_t mask = maskOf(options);
    if (options.isCut)
        return bank.nonOverlappedSymbolRanges(out, mask, nullptr, nullptr, nullptr);
    return bank.originalSymbolRanges(out, mask, nullptr, nullptr);
}

/// One range with what is printed of it.
struct Row {
    explicit Row(ISymbolRange& range) : symbol(range.symbol()), isThunk(range.thunk() != nullptr) {
        SymMgrObjectPtr<IAddress> address;
        range.beginAddress(address);
        begin = address ? address->pseudoAddr() : 0;
        size = range.size();
    }

    ISymbol* symbol; ///< may be null
    bool isThunk;
    unsigned long long begin = 0;
    unsigned long long size = 0;
};

void putPadded(Output& output, std::string_view text, std::size_t width) {
    output.put(text).putSpaces(text.size() < width ? width - text.size() : 0);
}

/// Lines go out as they come, so the columns have fixed widths that nearly every module fits in.
class TextRows {
public:
    TextRows(Output& output, std::size_t addressWidth) : m_output(output), m_addressWidth(addressWidth) {}

    void put(const Row& row) {
        putPadded(m_output, hexText(row.begin), m_addressWidth + 2);
        putPadded(m_output, hexText(row.begin + row.size), m_addressWidth + 2);
        const std::string size = std::to_string(row.size);
        m_output.putSpaces(size.size() < 8 ? 8 - size.size() : 0).put(size).put("  ");
        putPadded(m_output, row.symbol ? wordFor(row.symbol->kind()) : "??", 13);
        putPadded(m_output, row.symbol ? wordFor(row.symbol->visibility()) : "??", 8);
        m_output.putPrintable(row.symbol ? row.symbol->demangledName(0) : "??");
        if (row.isThunk)
            m_output.put(" (import)");
        m_output.put('\n');
    }

private:
    Output& m_output;
    std::size_t m_addressWidth;
};

class JsonRows {
public:
    explicit JsonRows(Output& output) : m_json(output) {}

    void put(const Row& row) {
        m_json.beginObject();
        m_json.key("begin").hex(row.begin).key("end").hex(row.begin + row.size);
        m_json.key("size").number(row.size);
        putSymbol(row.symbol);
        m_json.key("thunk").boolean(row.isThunk).endObject().endLine();
    }

private:
    void putSymbol(ISymbol* symbol) {
        if (!symbol) {
            for (const char* key : {"name", "raw", "kind", "visibility"})
                m_json.key(key).null();
            return;
        }
        m_json.key("name").string(symbol->demangledName(0)).key("raw").string(symbol->rawName());
        m_json.key("kind").string(wordFor(symbol->kind()));
        m_json.key("visibility").string(wordFor(symbol->visibility()));
    }

    JsonWriter m_json;
};

template <typename Rows>
void printAll(RangeIteratorPtr& ranges, const Output& output, Rows&& rows) {
    if (!ranges)
        return;
    while (SymMgrObjectPtr<ISymbolRange> range = ranges->current()) {
        rows.put(Row(*range));
        if (!ranges->next() || output.hasFailed())
            break;
    }
}

} // namespace

int runSymbols(const SymbolsOptions& options) {
    ModuleSession session(options.module);
    if (!session.load())
        return exit_NotLoaded;
    RangeIteratorPtr ranges;
    // A load that fails in part is told once; the second query answers from what could be read.
    const status_t status = query(session.bank(), options, ranges);
    if (isFailure(status)) {
        warnAboutSymbols(session.path(), status);
        if (isFailure(query(session.bank(), options, ranges)))
            return exit_Done;
    }
    Output output(STDOUT_FILENO);
    if (options.asJson)
        printAll(ranges, output, JsonRows(output));
    else
        printAll(ranges, output, TextRows(output, session.addressWidth()));
    return finish(output);
}

} // namespace orn_tool
