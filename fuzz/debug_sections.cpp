// Loads debug sections and asks for everything: behind the fuzz targets of the debug information readers and
// the tests that damage sections byte by byte.

#include "debug_sections.h"

#include "orn/address.h"
#include "orn/source.h"
#include "orn/symbol.h"
#include "orn_dildwarf.h"
#include "orn_dildwarf_symbol.h"
#include "orn_ffl.h"
#include "orn_scope.h"

#include <algorithm>
#include <memory>
#include <new>

namespace orn_fuzz {

using namespace ORN_3_30;

namespace {

using RangeIterator = IIterator<SymMgrObjectPtr<ISymbolRange>>;
using LineIterator = IIterator<SymMgrObjectPtr<ISourceLine>>;

/// A section whose bytes stand in a block of exactly their size, so that a read behind them is found out.
class BytesSection : public SymMgrObject<ISectionData> {
public:
    BytesSection(const std::vector<std::uint8_t>& bytes, unsigned index)
        : SymMgrObject<ISectionData>(nullptr),
          m_bytes(new unsigned char[bytes.size()]),
          m_size(bytes.size()),
          m_index(index) {
        std::copy(bytes.begin(), bytes.end(), m_bytes.get());
    }

    const unsigned char* getData() override { return m_bytes.get(); }
    unsigned long long getSize() override { return m_size; }
    unsigned long long getSize(status_t& status) override {
        status = status_Ok;
        return m_size;
    }
    unsigned getIndex() override { return m_index; }
    unsigned long long getBias() override { return 0; }

private:
    std::unique_ptr<unsigned char[]> m_bytes;
    unsigned long long m_size;
    unsigned m_index;
};

class SectionsHelper : public SymMgrObject<IFileFormatHelper> {
public:
    explicit SectionsHelper(const DebugSections& sections) : SymMgrObject<IFileFormatHelper>(nullptr) {
        for (const auto& [kind, bytes] : sections)
            m_sections[kind] = new BytesSection(bytes, kind);
    }

    bool isCodeOrDataAddress(unsigned long long) override { return true; }
    unsigned long long getImageBase() override { return 0; }
    void getSectionData(SymMgrObjectPtr<ISectionData>& out, section_kind_t kind) override {
        const auto found = m_sections.find(kind);
        out = found != m_sections.end() ? found->second.get() : nullptr;
    }
    void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned) override { out = nullptr; }
    void getRelocationAddends(SymMgrObjectPtr<RelocationAddends>& out, unsigned) override { out = nullptr; }

private:
    std::map<section_kind_t, SymMgrObjectPtr<BytesSection>> m_sections;
};

class CodeLoader : public FileFormatLoader {
public:
    CodeLoader() { addSegment(0x1000, ".text", 0x1000, 0, 0x8000, 0x8000, 0); }

    const char* getPath() override { return "in memory"; }
    exec_format_t getExecFormat() override { return exec_format_elf; }
    arch_t getArch() override { return arch_x86_64; }
    unsigned long long getImageBase() override { return 0; }
    unsigned long long getEntryPoint() override { return 0; }
    unsigned long long getImageSize() override { return 0; }
    status_t readSymbols(ISymbolTable*, LoadFilter*, symbol_kind_t) override { return status_Ok; }
    void getSectionByName(SymMgrObjectPtr<ISection>& out, const char*) override { out = nullptr; }
    void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned) override { out = nullptr; }

protected:
    status_t collectSymbolFiles(std::vector<SymMgrObjectPtr<ISymbolFileToResolve>>&) override {
        return status_Ok;
    }
    IDebugInfoLoader* createDebugInfoLoader(const char*, unsigned, long long) override { return nullptr; }
    void addSectionEnds(ISymbolTable*) override {}
};

class Questions {
public:
    explicit Questions(const DebugSections& sections)
        : m_loader(new DWARFDebugInfoLoader(m_format, "in memory", new SectionsHelper(sections), 0, nullptr)),
          m_scope(std::make_unique<GlobalScope>(m_format.get(), m_loader.get(), nullptr)) {}

    std::size_t askAll() {
        askSymbols(*m_scope, deepest);
        for (const unsigned long long address : {0x1000ULL, 0x1010ULL, 0x1020ULL, 0x1100ULL, 0x3000ULL})
            askAddress(address);
        askLines();
        askFiles();
        askUnits();
        return m_symbols;
    }

private:
    static constexpr unsigned deepest = 4;
    static constexpr std::size_t mostSymbols = 500;
    static constexpr unsigned mostLines = 200;
    static constexpr unsigned mostFiles = 50;
    static constexpr unsigned mostUnits = 50;

    void askSymbols(IScope& scope, unsigned levels) {
        SymMgrObjectPtr<RangeIterator> ranges;
        (void)scope.symbolRanges(ranges, 0, ~0ULL, symbol_kind_all);
        for (auto range = ranges ? ranges->current() : nullptr; range && m_symbols < mostSymbols;
             range = ranges->next() ? ranges->current() : nullptr) {
            ++m_symbols;
            askRange(*range, levels);
        }
    }
    void askRange(ISymbolRange& range, unsigned levels) {
        SymMgrObjectPtr<ISourceLocation> location;
        if (IInlineInstance* instance = range.inlineInstance())
            instance->callSite(location);
        ISymbol* symbol = range.symbol();
        if (!symbol)
            return;
        (void)symbol->sourceLocation(location);
        (void)symbol->shortName();
        SymMgrObjectPtr<LineIterator> lines;
        symbol->sourceLines(lines, nullptr, nullptr);
        walk(lines);
        auto* dwarf = dynamic_cast<DWARFSymbol*>(symbol);
        if (dwarf && levels > 0)
            askSymbols(*dwarf->scope(), levels - 1);
    }
    void askAddress(unsigned long long pseudoAddress) {
        SymMgrObjectPtr<IAddress> address;
        (void)m_format->getAddress(address, pseudoAddress);
        SymMgrObjectPtr<ISymbolRange> range;
        (void)m_scope->symbolRangeByAddress(range, pseudoAddress, symbol_kind_function, nullptr);
        for (unsigned levels = 0; range && levels < 10 * deepest; ++levels) {
            SymMgrObjectPtr<ISymbolRange> nested;
            range->nestedRangeByAddress(nested, address);
            range = nested;
        }
        SymMgrObjectPtr<ISourceLocation> location;
        m_scope->lineResolver()->sourceLocationAt(location, pseudoAddress, ~0ULL, nullptr, nullptr);
        if (location)
            (void)location->file();
    }
    void askLines() {
        SymMgrObjectPtr<LineIterator> lines;
        (void)m_scope->lineResolver()->sourceLines(lines, ~0ULL, ~0U, 0, ~0ULL, nullptr);
        walk(lines);
    }
    static void walk(LineIterator* lines) {
        unsigned count = 0;
        for (auto line = lines ? lines->current() : nullptr; line && count < mostLines;
             line = lines->next() ? lines->current() : nullptr) {
            (void)line->location();
            ++count;
        }
    }
    void askFiles() {
        ISrcLineResolver* resolver = m_scope->lineResolver();
        for (unsigned i = 0; i < std::min(resolver->fileCount(), mostFiles); ++i) {
            SymMgrObjectPtr<LineIterator> lines;
            ISourceFile* file = resolver->fileAt(i);
            (void)file->sourceLines(lines, ~0ULL, nullptr, nullptr);
            walk(lines);
        }
    }
    void askUnits() {
        unsigned count = 0;
        for (const auto& [offset, unit] : m_loader->units()) {
            if (++count > mostUnits)
                return;
            (void)unit->getSourceFile();
            (void)unit->getCompilerName();
            (void)unit->getOptReportFile();
            (void)unit->findSourceFile("a.c");
            (void)unit->getFileId(1);
        }
    }

    SymMgrObjectPtr<CodeLoader> m_format = new CodeLoader;
    SymMgrObjectPtr<DWARFDebugInfoLoader> m_loader;
    std::unique_ptr<GlobalScope> m_scope;
    std::size_t m_symbols = 0;
};

} // namespace

std::size_t askEverything(const DebugSections& sections) {
    try {
        return Questions(sections).askAll();
    } catch (const std::bad_alloc&) {
        // Public operations turn it into a status; nothing may be lost on the way.
        return 0;
    }
}

} // namespace orn_fuzz
