// The walk over entries that makes symbols and their scopes.
#ifndef ORN_DILDWARF_WALK_H
#define ORN_DILDWARF_WALK_H

#include "orn_dildwarf.h"
#include "orn_dildwarf_scope.h"

#include <string>
#include <unordered_map>
#include <vector>

namespace ORN_3_30 {

/// Where a walk puts its scopes: a table that stands, or that of a scope, made when the first one arrives.
class DWARFSymbolSink {
public:
    explicit DWARFSymbolSink(ISymbolTable* table)
        : m_table(table), m_scope(table ? table->scope() : nullptr) {}
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

/// Names of expanded functions by the offsets of their entries: a function that is expanded once is expanded
/// often. One array that is searched from a place that the offset tells: nearly every search is one miss of
/// the cache, where a map with nodes has three.
class InlinedNames {
public:
    /// Null if the offset is not known; the name itself may be null too.
    const char* const* find(unsigned long long offset) const {
        if (m_slots.empty())
            return nullptr;
        const Slot& slot = m_slots[placeOf(offset)];
        return slot.isTaken() ? &slot.name : nullptr;
    }
    /// `offset` is not known yet.
    void add(unsigned long long offset, const char* name);

private:
    struct Slot {
        unsigned long long offsetPlusOne = 0; ///< 0: free
        const char* name = nullptr;

        bool isTaken() const { return offsetPlusOne != 0; }
    };

    /// Of the offset, or the free one where it belongs.
    std::size_t placeOf(unsigned long long offset) const {
        const std::size_t mask = m_slots.size() - 1;
        std::size_t place = static_cast<std::size_t>((offset * 0x9E3779B97F4A7C15ULL) >> 32) & mask;
        while (m_slots[place].isTaken() && m_slots[place].offsetPlusOne != offset + 1)
            place = (place + 1) & mask;
        return place;
    }
    void grow();

    std::vector<Slot> m_slots; ///< a power of two, at most half of them taken
    std::size_t m_count = 0;
};

/// Walks over entries, one unit after another. Which entries become symbols is said by flags: those of
/// symbol_kind_t that symbols are wanted of.
///
/// The tree is walked with a stack of levels of its own: entries nest as deep as damaged data likes. Entries
/// that nobody wants are passed without being decoded.
class DWARFSymbolWalk {
public:
    explicit DWARFSymbolWalk(DWARFDebugInfoLoader& loader);
    ~DWARFSymbolWalk();
    DWARFSymbolWalk(const DWARFSymbolWalk&) = delete;
    DWARFSymbolWalk& operator=(const DWARFSymbolWalk&) = delete;

    /// Walks the unit's first entry and what is below it, without the inside of functions. `filter` may be
    /// null.
    void walkUnit(DWARFCompilationUnit& unit, symbol_kind_t flags, const DWARFSymbolSink& sink,
                  LoadFilter* filter);
    /// Walks what is below one entry. Only here expanded calls make objects.
    void walkChildren(DWARFCompilationUnit& unit, unsigned long long entryOffset, symbol_kind_t flags,
                      const DWARFSymbolSink& sink);

private:
    /// Subtrees of which more entries have to be read than this are passed once only.
    static constexpr unsigned long long largeSubtree = 1024;

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

    void begin(DWARFCompilationUnit& unit, unsigned long long offset, const DWARFSymbolSink& sink,
               LoadFilter* filter);
    void dropScopes();
    void walkLevels();
    void closeLevel();
    bool readDIE(symbol_kind_t flags);
    bool processDIE(const EntryCode& code, symbol_kind_t flags);
    bool processSubprogram(const EntryCode& code, symbol_kind_t flags);
    bool skipEntry(const EntryCode& code);
    void skipChildren(unsigned long long sibling);
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

    void makeRangesFunction(const DWARFName& name, symbol_kind_t kind, const AttrBinding* ranges);
    bool makePlainFunction(const DWARFName& name, symbol_kind_t kind, const AttrBinding* lowAttr,
                           const AttrBinding* highAttr);
    void makeRangesInline(const AttrBinding* ranges);
    void makePlainInline(const AttrBinding* lowAttr, const AttrBinding* highAttr);
    DWARFScope* makeFunctionSymbol(const DWARFName& name, unsigned long long address, symbol_kind_t kind);
    DWARFScope* makeInlineSymbol(unsigned long long low, unsigned long long high);
    bool affordsScope();
    void pushWithRange(DWARFScope* scope, unsigned long long low, unsigned long long high);
    void pushWithRanges(DWARFScope* scope);
    void popScope();

    const char* nameOfEntry();
    const char* nameOfInlined();
    const char* readNameOfInlined();
    DWARFName withoutFortranMark(const char* name);
    unsigned long long limitOfRanges() const;
    void mapAddresses(unsigned long long& low, unsigned long long& high) const;
    bool passesFilter(unsigned long long low, unsigned long long high) const;
    bool passesFilter(Scope& scope) const;

    DWARFDebugInfoLoader& m_loader;
    DWARFSymbolSink m_sink{nullptr};
    LoadFilter* m_filter = nullptr;
    bool m_isOuter = true;
    DWARFCompilationUnit* m_unit = nullptr;
    SectionWalker m_walker;
    AttrBindings m_attrs; ///< the entry that is being read
    std::vector<Level> m_levels;
    std::vector<Scope*> m_scopeStack; ///< scopes whose children are being walked
    RangeDeque m_ranges;
    std::string m_nameBuffer;
    InlinedNames m_inlinedNames;
    /// Ends of large subtrees that the inside of functions has, by their begins.
    std::unordered_map<unsigned long long, unsigned long long> m_subtreeEnds;
};

} // namespace ORN_3_30

#endif
