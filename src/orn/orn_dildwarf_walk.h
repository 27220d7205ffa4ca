// The walk over entries that makes symbols and their scopes.
#ifndef ORN_DILDWARF_WALK_H
#define ORN_DILDWARF_WALK_H

#include "orn_dildwarf.h"
#include "orn_dildwarf_scope.h"

#include <string>
#include <vector>

namespace ORN_3_30 {

/// Where a walk puts its scopes: a table that stands, or that of a scope, made when the first one arrives.
class DWARFSymbolSink {
public:
    explicit DWARFSymbolSink(ISymbolTable* table) : m_table(table), m_scope(table ? table->scope() : nullptr) {}
    explicit DWARFSymbolSink(Scope& scope) : m_table(nullptr), m_scope(&scope) {}

    bool exists() const { return m_table || m_scope; }
    /// Whose table it is; may be null.
    Scope* scope() const { return m_scope; }
    /// The table owns the scope from here on, or destroys it.
    void add(Scope* scope);

private:
    ISymbolTable* m_table;
    Scope* m_scope;
};

/// One walk over entries of one unit. Which entries become symbols is said by flags: those of symbol_kind_t
/// that symbols are wanted of.
///
/// The tree is walked with a stack of levels of its own: entries nest as deep as damaged data likes. Entries
/// that nobody wants are passed without being decoded.
class DWARFSymbolWalk {
public:
    /// `filter` may be null. An outer walk is that of a unit: expanded calls make no objects in it.
    DWARFSymbolWalk(DWARFDebugInfoLoader& loader, const DWARFSymbolSink& sink, LoadFilter* filter,
                    bool isOuter);
    ~DWARFSymbolWalk();
    DWARFSymbolWalk(const DWARFSymbolWalk&) = delete;
    DWARFSymbolWalk& operator=(const DWARFSymbolWalk&) = delete;

    /// Walks the unit's first entry and what is below it.
    void walkUnit(DWARFCompilationUnit& unit, symbol_kind_t flags);
    /// Walks what is below one entry.
    void walkChildren(DWARFCompilationUnit& unit, unsigned long long entryOffset, symbol_kind_t flags);

private:
    /// The children of one entry while they are walked.
    struct Level {
        symbol_kind_t flags;
        bool hasScope; ///< the entry's scope is the top of m_scopeStack
    };
    /// What becomes of the children of an entry.
    struct Descent {
        bool isWanted;
        symbol_kind_t flags;
    };
    static constexpr Descent nothingBelow{false, symbol_kind_none};

    using EntryCode = DWARFCompilationUnit::EntryCode;
    using RangeDeque = DWARFDebugInfoLoader::RangeDeque;

    void begin(DWARFCompilationUnit& unit, unsigned long long offset);
    void walkLevels();
    void closeLevel();
    bool readDIE(symbol_kind_t flags);
    bool processDIE(const EntryCode& code, symbol_kind_t flags);
    bool processSubprogram(const EntryCode& code, symbol_kind_t flags);
    bool skipEntry(const EntryCode& code);
    bool descend(const EntryCode& code, symbol_kind_t flags);
    template <typename Read>
    bool readEntry(const EntryCode& code, const Read& read);

    // Each reads the decoded entry, pushes the scope of what it makes of it, and says what becomes of the
    // children.
    Descent readFunction(symbol_kind_t kind, symbol_kind_t flags);
    Descent readInlinedSubroutine();
    Descent readLabel(symbol_kind_t flags);
    Descent readVariable(symbol_kind_t flags);
    Descent readCompileOptions(symbol_kind_t flags);

    void makeRangesFunction(const char* name, symbol_kind_t kind, const AttrBinding* ranges);
    bool makePlainFunction(const char* name, symbol_kind_t kind, const AttrBinding* lowAttr,
                           const AttrBinding* highAttr);
    void makeRangesInline(const AttrBinding* ranges);
    void makePlainInline(const AttrBinding* lowAttr, const AttrBinding* highAttr);
    DWARFScope* makeFunctionSymbol(const char* name, unsigned long long address, symbol_kind_t kind);
    DWARFScope* makeInlineSymbol(unsigned long long low, unsigned long long high);
    void pushWithRange(DWARFScope* scope, unsigned long long low, unsigned long long high);
    void pushWithRanges(DWARFScope* scope);
    void popScope();

    const char* nameOfEntry();
    const char* nameOfInlined();
    const char* withoutFortranMark(const char* name);
    unsigned long long limitOfRanges() const;
    void mapAddresses(unsigned long long& low, unsigned long long& high) const;
    bool passesFilter(unsigned long long low, unsigned long long high) const;
    bool passesFilter(Scope& scope) const;

    DWARFDebugInfoLoader& m_loader;
    DWARFSymbolSink m_sink;
    LoadFilter* m_filter;
    bool m_isOuter;
    DWARFCompilationUnit* m_unit = nullptr;
    SectionWalker m_walker;
    AttrBindings m_attrs; ///< the entry that is being read
    std::vector<Level> m_levels;
    std::vector<Scope*> m_scopeStack; ///< scopes whose children are being walked
    RangeDeque m_ranges;
    std::string m_nameBuffer;
};

} // namespace ORN_3_30

#endif
