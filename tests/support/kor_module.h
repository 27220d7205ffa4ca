// A GPU binary with its symbol file on the disk, and everything that loads from it.
#pragma once

#include "kor_assembler.h"
#include "kor_buffers.h"
#include "kor_mira.h"
#include "orn/address.h"
#include "orn/source.h"
#include "orn/symbol.h"
#include "orn_dilkor.h"
#include "orn_fflkor.h"
#include "temp_dir.h"

#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace ORN_3_30::test {

/// One row of a line table.
struct KorRow {
    unsigned long long address;
    unsigned size;
    unsigned line;
    unsigned column;
    std::string file;

    friend bool operator==(const KorRow&, const KorRow&) = default;
    friend std::ostream& operator<<(std::ostream& stream, const KorRow& row) {
        return stream << std::hex << "{0x" << row.address << ", 0x" << row.size << std::dec << ", "
                      << row.line << ", " << row.column << ", " << row.file << "}";
    }
};

/// A module "k.clbin" of 0x200 bytes with "k.clpdb" beside it.
class KorModule {
public:
    static constexpr unsigned imageSize = 0x200;

    KorModule(const std::vector<std::uint8_t>& symbolFileBytes, unsigned arch, const char* kernel = "k")
        : path(directory.write("k.clbin", std::string(imageSize, '\0'))),
          symbolFile(directory.write("k.clpdb", asText(symbolFileBytes))),
          format(new KorBinFileLoader(path.c_str(), kernel, static_cast<arch_t>(arch))) {}

    /// The debug info loader of the candidate; null if there is none.
    IDebugInfoLoader* debug() {
        if (m_debug)
            return m_debug;
        SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>> candidates;
        static_cast<void>(format->getSymbolFiles(candidates));
        static_cast<void>(format->getDebugInfoLoader(m_debug, 0));
        return m_debug;
    }
    GlobalScope& scope() {
        if (!m_scope)
            m_scope = std::make_unique<GlobalScope>(format.get(), debug(), nullptr);
        return *m_scope;
    }
    ISrcLineResolver& resolver() { return *scope().lineResolver(); }

    /// All rows of the table, as they are.
    std::vector<KorRow> rows() {
        SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>> lines;
        resolver().lineTable()->sourceLinesInRange(lines, ~0ULL, ~0U, 0, ~0ULL);
        std::vector<KorRow> all;
        for (auto line = lines->current(); line; line = lines->next() ? lines->current() : nullptr)
            all.push_back(rowOf(*line));
        return all;
    }
    static KorRow rowOf(ISourceLine& line) {
        ISourceLocation& location = *line.location();
        return {line.relativeAddress(), line.size(), location.line(), location.column(),
                location.file() ? location.file()->name() : "?"};
    }
    unsigned lineAt(unsigned long long address) {
        SymMgrObjectPtr<ISourceLocation> location;
        resolver().sourceLocationAt(location, address, 0, nullptr, nullptr);
        return location ? location->line() : 0;
    }
    SymMgrObjectPtr<ISymbolRange> rangeAt(unsigned long long address, symbol_kind_t mask = symbol_kind_all) {
        SymMgrObjectPtr<ISymbolRange> range;
        static_cast<void>(scope().symbolRangeByAddress(range, address, mask, nullptr));
        return range;
    }
    /// "name begin-end" of all that is in the table, once loaded.
    std::vector<std::string> symbols(symbol_kind_t mask = symbol_kind_all) {
        SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
        static_cast<void>(scope().symbolRanges(ranges, 0, ~0ULL, mask));
        std::vector<std::string> all;
        for (auto range = ranges ? ranges->current() : nullptr; range;
             range = ranges->next() ? ranges->current() : nullptr)
            all.push_back(textOf(*range));
        return all;
    }
    static std::string textOf(ISymbolRange& range) {
        SymMgrObjectPtr<IAddress> begin;
        SymMgrObjectPtr<IAddress> end;
        range.beginAddress(begin);
        range.endAddress(end);
        std::ostringstream text;
        text << range.symbol()->rawName() << std::hex << " 0x" << begin->pseudoAddr() << "-0x"
             << end->pseudoAddr();
        return text.str();
    }
    SymMgrObjectPtr<IAddress> address(unsigned long long value) {
        SymMgrObjectPtr<IAddress> out;
        static_cast<void>(format->getAddress(out, value));
        return out;
    }

    orn_test::TempDir directory;
    std::string path;
    std::string symbolFile;
    SymMgrObjectPtr<KorBinFileLoader> format;

private:
    SymMgrObjectPtr<IDebugInfoLoader> m_debug;
    std::unique_ptr<GlobalScope> m_scope;
};

} // namespace ORN_3_30::test
