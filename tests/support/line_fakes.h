// Stand-ins for what surrounds the line model: a module, a debug information, scopes with inlined code.
#ifndef ORN_LINE_FAKES_H
#define ORN_LINE_FAKES_H

#include "orn/comp_unit_details.h"
#include "orn/debug_info_loader.h"
#include "orn/scope.h"
#include "orn/source.h"
#include "orn/symbol.h"
#include "orn_address.h"
#include "support/fake_loader.h"

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace ORN_3_30::test {

/// A module of which only the image base matters.
class FakeModule : public FakeLoader {
public:
    explicit FakeModule(unsigned long long base = 0) { imageBase = base; }
};

/// A unit whose line program is a function of the test.
class FakeLineUnit : public ICompUnitDetails {
public:
    explicit FakeLineUnit(unsigned long long offset) : m_offset(offset) {}

    unsigned long long getOffset() override { return m_offset; }
    ISourceFile* getSourceFile() override { return nullptr; }
    ISourceFile* findSourceFile(const char*) override { return nullptr; }
    unsigned getUnitFlags() override { return 0; }
    const char* getCompilationDirectory() override { return ""; }
    const char* getCompileOptions() override { return ""; }
    const char* getOptReportFile() override { return nullptr; }
    const char* getCompilerName() override { return ""; }
    unsigned getCompilerMajorVersion() override { return 0; }
    unsigned getCompilerMinorVersion() override { return 0; }
    language_t getLanguage() override { return static_cast<language_t>(3); }
    void getExtension(void*& out) override { out = nullptr; }
    void addFileId(unsigned id) override { fileIds.push_back(id); }
    unsigned getFileId(unsigned number) override {
        return number == 0 || number > fileIds.size() ? ~0U : fileIds[number - 1];
    }
    status_t loadLines(RangeFilter*) override {
        ++loads;
        if (loads == 1 && program)
            program();
        return status;
    }

    std::vector<unsigned> fileIds;
    std::function<void()> program;
    status_t status = status_Ok;
    int loads = 0;

private:
    unsigned long long m_offset;
};

/// A debug information that is made of such units.
class FakeDebugInfo : public SymMgrObject<IDebugInfoLoader> {
public:
    FakeDebugInfo() : SymMgrObject<IDebugInfoLoader>(nullptr) {}

    const char* getPath() override { return ""; }
    unsigned getType() override { return 1; }
    status_t loadSymbols(ISymbolTable*, LoadFilter*, symbol_kind_t, ISrcLineResolver*) override {
        return status_NotImpl;
    }
    ISrcLineResolver* getLineResolver(GlobalScope*, ILock*) override { return nullptr; }
    status_t findStackVariable(ISymbol*, IAddress*, unsigned long long, IStackFrameContext*,
                               SymMgrObjectPtr<ISymbol>&, bool*) override {
        return status_NotImpl;
    }
    void getSectionByIndex(SymMgrObjectPtr<ISection>&, unsigned) override {}
    status_t loadLineTable(ILineTable* table) override {
        ++loads;
        loadedTable = table;
        for (auto& unit : units)
            static_cast<void>(unit.second.loadLines(nullptr));
        return status;
    }
    ICompUnitDetails* getCompilationUnit(unsigned long long offset) override {
        const auto unit = units.find(offset);
        return unit != units.end() ? &unit->second : nullptr;
    }

    FakeLineUnit& addUnit(unsigned long long offset) { return units.emplace(offset, offset).first->second; }

    std::map<unsigned long long, FakeLineUnit> units;
    status_t status = status_Ok;
    int loads = 0;
    ILineTable* loadedTable = nullptr;
};

/// A call that was expanded in place.
class FakeInstance : public SymMgrObject<IInlineInstance> {
public:
    explicit FakeInstance(SymMgrObjectPtr<ISourceLocation> callSite)
        : SymMgrObject<IInlineInstance>(nullptr), m_callSite(std::move(callSite)) {}

    void callSite(SymMgrObjectPtr<ISourceLocation>& out) override { out = m_callSite; }
    ISymbol* symbol() override { return nullptr; }
    int hasCallSite() override { return knowsCallSite ? 1 : 0; }

    bool knowsCallSite = true;

private:
    SymMgrObjectPtr<ISourceLocation> m_callSite;
};

/// A piece of code with what is nested in it. Pieces belong to the test and outlive their ranges.
struct FakePiece {
    unsigned long long low;
    unsigned long long high;
    FakeInstance* instance = nullptr;
    std::vector<FakePiece> nested = {};
};

class FakeRange : public SymMgrObject<ISymbolRange> {
public:
    FakeRange(FakeModule& module, const FakePiece& piece)
        : SymMgrObject<ISymbolRange>(nullptr), m_module(module), m_piece(piece) {}

    static const FakePiece* find(const std::vector<FakePiece>& pieces, unsigned long long address) {
        for (const FakePiece& piece : pieces)
            if (piece.low <= address && address < piece.high)
                return &piece;
        return nullptr;
    }

    void beginAddress(SymMgrObjectPtr<IAddress>& out) override {
        out = new Address(&m_module, m_piece.low, nullptr);
    }
    void endAddress(SymMgrObjectPtr<IAddress>& out) override {
        out = new Address(&m_module, m_piece.high, nullptr);
    }
    unsigned long long size() override { return m_piece.high - m_piece.low; }
    unsigned long long sizeToNextSymbol() override { return size(); }
    ISymbol* symbol() override { return nullptr; }
    IInlineInstance* inlineInstance() override { return m_piece.instance; }
    IThunk* thunk() override { return nullptr; }
    void parentRange(SymMgrObjectPtr<ISymbolRange>& out) override { out = nullptr; }
    int startsSymbol() override { return 1; }
    void nestedRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out) override {
        out = nullptr;
    }
    void nestedRangeByAddress(SymMgrObjectPtr<ISymbolRange>& out, IAddress* address) override {
        const FakePiece* piece = find(m_piece.nested, address->pseudoAddr());
        out = piece ? new FakeRange(m_module, *piece) : nullptr;
    }

private:
    FakeModule& m_module;
    const FakePiece& m_piece;
};

class FakeRangeIterator : public SymMgrObject<IIterator<SymMgrObjectPtr<ISymbolRange>>> {
public:
    FakeRangeIterator(FakeModule& module, const std::vector<FakePiece>& pieces)
        : SymMgrObject(nullptr), m_module(module), m_pieces(pieces) {}

    SymMgrObjectPtr<ISymbolRange> current() override {
        return m_cursor < m_pieces.size() ? new FakeRange(m_module, m_pieces[m_cursor]) : nullptr;
    }
    bool next() override {
        if (m_cursor < m_pieces.size())
            ++m_cursor;
        return m_cursor < m_pieces.size();
    }
    void reset() override { m_cursor = 0; }

private:
    FakeModule& m_module;
    const std::vector<FakePiece>& m_pieces;
    std::size_t m_cursor = 0;
};

/// A symbol of which only the ranges matter.
class FakeLineSymbol : public SymMgrObject<ISymbol> {
public:
    FakeLineSymbol(FakeModule& module, const std::vector<FakePiece>& pieces)
        : SymMgrObject<ISymbol>(nullptr), m_module(module), m_pieces(pieces) {}

    status_t sourceLocation(SymMgrObjectPtr<ISourceLocation>&) override { return status_False; }
    status_t compUnitDetails(ICompUnitDetails*&) override { return status_False; }
    const char* rawName() override { return ""; }
    const char* demangledName(unsigned int) override { return ""; }
    const char* shortName() override { return ""; }
    const char* fullName() override { return ""; }
    symbol_kind_t kind() override { return symbol_kind_function; }
    void address(SymMgrObjectPtr<IAddress>&) override {}
    void ranges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out) override {
        out = new FakeRangeIterator(m_module, m_pieces);
    }
    symbol_visibility_t visibility() override { return symbol_visibility_local; }
    void thunkRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>&) override {}
    void sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>&, IAddress*,
                     IAddress*) override {}
    void sourceLineAt(SymMgrObjectPtr<ISourceLine>&, IAddress*) override {}

private:
    FakeModule& m_module;
    const std::vector<FakePiece>& m_pieces;
};

/// A scope that answers with its pieces of code, and whose symbol has them as its ranges.
class FakeLineScope : public SymMgrObject<IScope> {
public:
    explicit FakeLineScope(FakeModule& module)
        : SymMgrObject<IScope>(nullptr), m_module(module), m_symbol(new FakeLineSymbol(module, pieces)) {}

    IScope* parent() override { return nullptr; }
    ISymbol* symbol() override { return hasSymbol ? m_symbol.get() : nullptr; }
    IInlineInstance* inlineInstance() override { return nullptr; }
    status_t symbolRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>&, unsigned long long,
                          unsigned long long, symbol_kind_t) override {
        return status_NotImpl;
    }
    status_t symbolRangeByAddress(SymMgrObjectPtr<ISymbolRange>& out, unsigned long long address,
                                  symbol_kind_t mask, ISymbolSelector*) override {
        askedAt.push_back(address);
        askedFor = mask;
        const FakePiece* piece = FakeRange::find(pieces, address);
        if (!piece)
            return status_False;
        out = new FakeRange(m_module, *piece);
        return status;
    }

    std::vector<FakePiece> pieces;
    std::vector<unsigned long long> askedAt;
    symbol_kind_t askedFor = static_cast<symbol_kind_t>(0);
    status_t status = status_Ok;
    bool hasSymbol = true;

private:
    FakeModule& m_module;
    SymMgrObjectPtr<ISymbol> m_symbol;
};

} // namespace ORN_3_30::test

#endif
