// The debug info loader for files with DWARF: units, symbols with their scopes, lines.
#ifndef ORN_DILDWARF_H
#define ORN_DILDWARF_H

#include "orn/address_mapping.h"
#include "orn_dildwarf_types.h"
#include "orn_dildwarf_unit.h"
#include "orn_ffl.h"
#include "orn_scope.h"

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace ORN_3_30 {

class DWARFCallFrameInformation;
class DWARFSymbolWalk;

namespace dwarf_utils {

/// The interval that an entry's low and high attributes tell; either may be null. Without a high one the
/// interval is empty; a high one that is no address is an offset from the low one.
ORN_API void calculateHighLowAdresses(const AttrBinding* lowAttr, const AttrBinding* highAttr,
                                      unsigned long long& low, unsigned long long& high);

} // namespace dwarf_utils

/// The segments of a module, for the question whether an address lies in one. Both ends of a segment belong
/// to it.
class SegmentSpans {
public:
    /// Reads the segments at the first call.
    void ensureRead(IFileFormatLoader& loader);
    /// Whether one segment holds both addresses.
    bool holdBoth(unsigned long long low, unsigned long long high) const;

private:
    struct Span {
        unsigned long long begin;
        unsigned long long greatestEnd; ///< of the spans up to and with this one
    };
    std::vector<Span> m_spans; ///< ascending by begin
    bool m_isRead = false;
};

/// Reads DWARF 2 to 4. Everything is lazy: the first need of symbols or lines scans the units, a walk reads
/// entries no deeper than the outermost functions, a function's own children are read when someone asks.
///
/// Runs under the global scope's loading lock, which getLineResolver() brings.
class DWARFDebugInfoLoader : public DebugInfoLoader {
public:
    using UnitsByOffset = std::map<unsigned long long, SymMgrObjectPtr<DWARFCompilationUnit>>;
    /// Intervals of a range list, in the order of the list.
    using RangeDeque = std::vector<std::pair<unsigned long long, unsigned long long>>;

    /// `bias` is added to every address of the symbol file. `lock` guards the count.
    DWARFDebugInfoLoader(FileFormatLoader* formatLoader, const char* symFileName, IFileFormatHelper* helper,
                         unsigned long long bias, ILock* lock);
    ~DWARFDebugInfoLoader() override;

    const char* getPath() override { return m_symFileName.c_str(); }
    unsigned getType() override { return symbol_file_dwarf; }
    status_t loadSymbols(ISymbolTable* sink, LoadFilter* filter, symbol_kind_t flags,
                         ISrcLineResolver* resolver) override;
    ISrcLineResolver* getLineResolver(GlobalScope* scope, ILock* loadLock) override;
    status_t findStackVariable(ISymbol* function, IAddress* codeAddress, unsigned long long dataAddress,
                               IStackFrameContext* context, SymMgrObjectPtr<ISymbol>& out,
                               bool* memberFlag) override;
    void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned index) override;
    status_t loadLineTable(ILineTable* lineTable) override;
    ICompUnitDetails* getCompilationUnit(unsigned long long offset) override;

    /// The unit of the first offset at or above `offset`, or the one before it, if it holds `offset`.
    ///
    /// Quirk: an offset above the greatest unit's own offset gives null, even inside that last unit.
    DWARFCompilationUnit* findCompUnitContaining(unsigned long long offset) const;
    const UnitsByOffset& units() const { return m_compUnits; }
    IFileFormatHelper* helper() const { return m_helper; }
    DWARFSections& sections() const { return *m_sections; }
    IFileFormatLoader& fileLoader() const { return *formatLoader(); }
    /// Null where nothing maps addresses.
    IAddressMapping* addressMapping() const { return m_addressMapping; }
    const SegmentSpans& segments() const { return m_segments; }
    DWARFTypes& types() { return m_types; }
    /// Borrowed from the scope that asked for the line resolver last; null before.
    ILock* loadLock() const { return m_loadLock; }
    /// Reads `.eh_frame`, once it succeeds; a failure is met again at every call.
    bool ensureFrameInformation();
    /// Null before ensureFrameInformation() has succeeded.
    const DWARFCallFrameInformation* frameInformation() const { return m_frameInformation; }

    /// Reads the children of an entry into the scope's own table: what is behind DWARFScope::loadContent.
    status_t loadChildren(DWARFCompilationUnit& unit, unsigned long long entryOffset, Scope& scope,
                          symbol_kind_t flags);
    /// Reads the members of the structure that a variable or member is into the scope's own table.
    void loadMembers(DWARFCompilationUnit& unit, unsigned long long entryOffset, Scope& scope);
    /// Reads the list that `rangesAttr` names into `out` (may be null), which is cleared first, and gives the
    /// smallest address. Addresses are those of the module. A nonzero `limit` is an address that a base
    /// selection must not carry a range beyond.
    unsigned long long readRanges(DWARFCompilationUnit& unit, const AttrBinding* rangesAttr,
                                  unsigned addressSize, RangeDeque* out, unsigned long long limit);
    /// Sorts a list that would take too long to be made the list of a scope as it is.
    void sortIfLong(RangeDeque& ranges) const;
    /// Whether the inside of functions may still be read: `entries` is taken off what is left. Functions and
    /// labels nest in damaged data as deep as it likes, and the inside of each is read with all that is below
    /// it.
    bool affordsInside(unsigned long long entries) {
        const bool isAfforded = entries <= m_insideBudget;
        m_insideBudget = isAfforded ? m_insideBudget - entries : 0;
        return isAfforded;
    }

protected:
    // orn_dildwarf_scan.cpp

    /// Reads one unit's header and its abbreviations, and enters it in the map. `walker` stands on a unit of
    /// `.debug_info`, and behind it afterwards. A failure ends the scan.
    status_t readCompUnit(SectionWalker& walker);
    /// Reads all units.
    status_t scanUnits();

    // For loaders with address mappings and line resolvers of their own.

    void setAddressMapping(IAddressMapping* mapping) { m_addressMapping = mapping; }
    /// The line resolver that was kept, from here on with that scope and lock; null before.
    LineResolver* knownLineResolver(GlobalScope* scope, ILock* loadLock);
    /// Keeps a new line resolver, and lets the units have it.
    LineResolver* keepLineResolver(LineResolver* resolver);

    SymMgrObjectPtr<DWARFSections> m_sections;

private:
    static status_t readUnitLength(SectionWalker& walker, DWARFUnitHeader& header,
                                   unsigned long long& length);
    static status_t readUnitHeader(const SectionWalker& walker, DWARFUnitHeader& header,
                                   unsigned long long length);
    void addUnit(const DWARFUnitHeader& header);

    status_t ensureUnits();
    status_t ensureSections();
    void renewBudgets();
    void loadUnitSymbols(ISymbolTable* sink, LoadFilter* filter, symbol_kind_t flags);

    // orn_dildwarf_stackquery.cpp

    struct StackAnswer {
        SymMgrObjectPtr<ISymbol> symbol;
        bool isMember = false;
    };
    /// By stack and frame pointer, then by data address.
    using StackAnswers = std::map<std::pair<unsigned long long, unsigned long long>,
                                  std::map<unsigned long long, StackAnswer>>;

    UnitsByOffset m_compUnits;
    SymMgrObjectPtr<IFileFormatHelper> m_helper;
    std::string m_symFileName;
    status_t m_lineStatus;
    LineResolver* m_lineResolver;
    SymMgrObjectPtr<ISrcLineResolver> m_lineResolverRef;
    ILock* m_loadLock;
    SymMgrObjectPtr<IAddressMapping> m_addressMapping; ///< null here
    AbbrevTables m_abbrevTables;
    std::unique_ptr<DWARFSymbolWalk> m_walk; ///< one serves all walks, which do not overlap
    // Left until the next load of symbols.
    unsigned long long m_rangesBudget; ///< pairs of range lists
    unsigned long long m_insideBudget; ///< entries inside functions
    SegmentSpans m_segments;
    DWARFTypes m_types;
    OrnLock m_queryLock; ///< held through findStackVariable; guards the two below
    SymMgrObjectPtr<DWARFCallFrameInformation> m_frameInformation;
    StackAnswers m_stackAnswers;
    bool m_loadDwarfSymbols; ///< false: units, lines and compiler details, and no symbols
    status_t m_status;
    status_t m_scanStatus; ///< of a scan that a line query met failing, until loadSymbols returns it
    bool m_topEntriesRead;
};

} // namespace ORN_3_30

#endif
