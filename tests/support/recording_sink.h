#pragma once

#include "orn/scope.h"
#include "orn/symbol.h"
#include "orn_scope.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace orn_test {

/// A symbol table that decides nothing: it keeps what it is given, in order.
class RecordingSink : public ORN_3_30::SymMgrObject<ORN_3_30::ISymbolTable> {
public:
    struct Entry {
        unsigned long long low;
        unsigned long long high;
        std::string name; ///< empty for the end of a section
        ORN_3_30::symbol_kind_t kind;
        ORN_3_30::symbol_visibility_t visibility;
        std::unique_ptr<ORN_3_30::Scope> scope;
    };

    RecordingSink() : SymMgrObject<ISymbolTable>(nullptr) {}

    int addScopeRange(unsigned long long low, unsigned long long high, ORN_3_30::Scope* scope) override {
        if (!scope) {
            sectionEnds.push_back({low, high, "", {}, {}, nullptr});
            return 0;
        }
        std::unique_ptr<ORN_3_30::Scope> owned(scope); // also if there is no memory for its entry
        ORN_3_30::ISymbol* symbol = owned->symbol();
        entries.push_back(
            {low, high, symbol->rawName(), symbol->kind(), symbol->visibility(), std::move(owned)});
        return 1;
    }
    int addScope(ORN_3_30::Scope* scope) override {
        delete scope;
        return 0;
    }
    void symbolRangeByAddress(ORN_3_30::SymMgrObjectPtr<ORN_3_30::ISymbolRange>&, unsigned long long,
                              ORN_3_30::symbol_kind_t, ORN_3_30::ISymbolSelector*) override {}
    void symbolRanges(
        ORN_3_30::SymMgrObjectPtr<ORN_3_30::IIterator<ORN_3_30::SymMgrObjectPtr<ORN_3_30::ISymbolRange>>>&,
        unsigned long long, unsigned long long, ORN_3_30::symbol_kind_t) override {}
    void nonOverlappedSymbolRanges(
        ORN_3_30::SymMgrObjectPtr<ORN_3_30::IIterator<ORN_3_30::SymMgrObjectPtr<ORN_3_30::ISymbolRange>>>&,
        unsigned long long, unsigned long long, ORN_3_30::symbol_kind_t,
        ORN_3_30::ISymbolSelector*) override {}
    ORN_3_30::Scope* scope() override { return nullptr; }

    const Entry* find(const std::string& name) const {
        for (const Entry& entry : entries) {
            if (entry.name == name)
                return &entry;
        }
        return nullptr;
    }
    std::vector<std::string> names() const {
        std::vector<std::string> all;
        for (const Entry& entry : entries)
            all.push_back(entry.name);
        return all;
    }

    std::vector<Entry> entries;
    std::vector<Entry> sectionEnds;
};

} // namespace orn_test
