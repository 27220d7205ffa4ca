// Scopes and symbols whose answers a test sets by hand, and readable forms of what a table gives.
#ifndef ORN_TEST_SYMBOL_FAKES_H
#define ORN_TEST_SYMBOL_FAKES_H

#include "orn/comp_unit_details.h"
#include "orn_symbolrange.h"
#include "orn_symboltable.h"
#include "support/fake_loader.h"
#include "support/orn_fixture.h"

#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace ORN_3_30::test {

using Address64 = unsigned long long;
using RangeIteratorPtr = SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>;

/// A unit that has nothing to say but that it exists.
class FakeUnit : public ICompUnitDetails {
public:
    unsigned long long getOffset() override { return 0; }
    ISourceFile* getSourceFile() override { return nullptr; }
    ISourceFile* findSourceFile(const char*) override { return nullptr; }
    unsigned getUnitFlags() override { return 0; }
    const char* getCompilationDirectory() override { return ""; }
    const char* getCompileOptions() override { return ""; }
    const char* getOptReportFile() override { return nullptr; }
    const char* getCompilerName() override { return ""; }
    unsigned getCompilerMajorVersion() override { return 0; }
    unsigned getCompilerMinorVersion() override { return 0; }
    language_t getLanguage() override { return language_C; }
    void getExtension(void*& out) override { out = nullptr; }
    void addFileId(unsigned) override {}
    unsigned getFileId(unsigned) override { return ~0U; }
    status_t loadLines(RangeFilter*) override { return status_Ok; }
};

class FakeSymbol : public Symbol {
public:
    using Symbol::Symbol;

    status_t compUnitDetails(ICompUnitDetails*& out) override {
        if (!unit)
            return status_False;
        out = unit;
        return unitStatus;
    }
    void loseName() { m_demangler = nullptr; }

    ICompUnitDetails* unit = nullptr;
    status_t unitStatus = status_Ok;
};

class FakeInlineInstance : public InlineInstance {
public:
    using InlineInstance::InlineInstance;
    void callSite(SymMgrObjectPtr<ISourceLocation>& out) override { out = nullptr; }
    int hasCallSite() override { return 0; }
};

/// A scope with a symbol of its own; every extension point can be taken over.
class FakeScope : public SymbolScope {
public:
    FakeScope(IFileFormatLoader* loader, const char* name, Address64 value, Scope* parent = nullptr,
              symbol_visibility_t visibility = symbol_visibility_global,
              symbol_kind_t kind = symbol_kind_function)
        : SymbolScope(loader, parent, nullptr),
          fakeSymbol(new FakeSymbol(loader, name, value, this, visibility, kind, ~0ULL)),
          m_inlineInstance(this) {
        setSymbol(fakeSymbol);
    }
    ~FakeScope() override {
        if (onDestruction)
            onDestruction();
    }

    IInlineInstance* inlineInstance() override { return isInlined ? &m_inlineInstance : nullptr; }
    unsigned compare(Scope* other, Address64 nextKey, Scope* nextScope) override {
        return onCompare ? onCompare(other, nextKey, nextScope) : Scope::compare(other, nextKey, nextScope);
    }
    void merge(Scope* other, unsigned bits) override {
        if (onMerge)
            onMerge(other, bits);
    }
    status_t loadContent(symbol_kind_t mask) override {
        ++loads;
        kindsLoaded = mask;
        return onLoad ? onLoad(mask) : status_False;
    }

    using Scope::collapseRanges;

    FakeSymbol* fakeSymbol;
    bool isInlined = false;
    std::function<unsigned(Scope*, Address64, Scope*)> onCompare;
    std::function<void(Scope*, unsigned)> onMerge;
    std::function<status_t(symbol_kind_t)> onLoad;
    std::function<void()> onDestruction;
    int loads = 0;
    symbol_kind_t kindsLoaded = symbol_kind_none;

private:
    FakeInlineInstance m_inlineInstance;
};

/// A selector that answers by a function and counts how often it is asked.
class FakeSelector : public ISymbolSelector {
public:
    using Candidates = SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbol>>>;

    SymMgrObjectPtr<ISymbol> select(Candidates& candidates) override {
        ++calls;
        return onSelect ? onSelect(candidates) : candidates->current();
    }

    std::function<SymMgrObjectPtr<ISymbol>(Candidates&)> onSelect;
    int calls = 0;
};

/// The fixture of the symbol model's tests: a loader that outlives every scope of the test.
class SymbolModelTest : public OrnTest {
private:
    SymMgrObjectPtr<FakeLoader> m_loader = new FakeLoader;

protected:
    FakeLoader& loader = *m_loader;
};

inline Address64 beginOf(ISymbolRange& range) {
    SymMgrObjectPtr<IAddress> address;
    range.beginAddress(address);
    return address->pseudoAddr();
}

inline Address64 endOf(ISymbolRange& range) {
    SymMgrObjectPtr<IAddress> address;
    range.endAddress(address);
    return address->pseudoAddr();
}

/// "name[1000,2000)", in hexadecimal; "null" for a null range.
inline std::string text(ISymbolRange* range) {
    if (!range)
        return "null";
    std::ostringstream stream;
    stream << (range->symbol() ? range->symbol()->rawName() : "?") << std::hex << '[' << beginOf(*range)
           << ',' << endOf(*range) << ')';
    return stream.str();
}

/// The texts of everything that an iterator yields from where it stands.
inline std::vector<std::string> texts(const RangeIteratorPtr& ranges) {
    std::vector<std::string> all;
    if (!ranges)
        return all;
    for (auto range = ranges->current(); range; range = ranges->next() ? ranges->current() : nullptr)
        all.push_back(text(range));
    return all;
}

} // namespace ORN_3_30::test

#endif
