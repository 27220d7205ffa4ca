// The debug info loader for files with DWARF: units, symbols with their scopes, lines.
#ifndef ORN_DILDWARF_H
#define ORN_DILDWARF_H

#include "orn/address_mapping.h"
#include "orn_dildwarf_unit.h"
#include "orn_ffl.h"
#include "orn_scope.h"

#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace ORN_3_30 {

class DWARFLineResolver;

namespace dwarf_utils {

/// The interval that an entry's low and high attributes tell; either may be null. Without a high one the
/// interval is empty; a high one that is no address is an offset from the low one.
ORN_API void calculateHighLowAdresses(AttrBinding* lowAttr, AttrBinding* highAttr, unsigned long long& low,
                                      unsigned long long& high);

} // namespace dwarf_utils

/// Reads DWARF 2 to 4. Everything is lazy: the first need of symbols or lines scans the units, a walk reads
/// entries no deeper than the outermost functions, a function's own children are read when someone asks.
///
/// Runs under the global scope's loading lock; m_scopeStack is a member, so that walks must not overlap.
class DWARFDebugInfoLoader : public DebugInfoLoader {
public:
    using UnitsByOffset = std::map<unsigned long long, SymMgrObjectPtr<DWARFCompilationUnit>>;
    using RangeDeque = std::deque<std::pair<unsigned long long, unsigned long long>>;

    /// `flags` of a walk beside symbol_kind_t: below an inlined subroutine.
    static constexpr symbol_kind_t belowInlined = static_cast<symbol_kind_t>(0x20);

    DWARFDebugInfoLoader(FileFormatLoader* formatLoader, IFileFormatHelper* helper, const char* symFileName,
                         ILock* lock);
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

    /// Scans the units if that was not done, and reads their top entries. A failure is kept for loadSymbols.
    status_t ensureUnits();

    /// Reads the children of a function's scope: the walk behind DWARFScope::loadContent.
    status_t loadChildren(DWARFCompilationUnit& unit, unsigned long long entryOffset, Scope& scope,
                          symbol_kind_t flags);

protected:
    // orn_dildwarf_scan.cpp

    /// Reads one unit's header and its abbreviations, and enters it in the map. `walker` stands on a unit of
    /// `.debug_info`, and behind it afterwards. A failure ends the scan.
    status_t readCompUnit(SectionWalker& walker);
    /// Reads all units.
    status_t scanUnits();

    SymMgrObjectPtr<DWARFSections> m_sections;

private:
    static status_t readUnitLength(SectionWalker& walker, DWARFUnitHeader& header,
                                   unsigned long long& length);
    static status_t readUnitHeader(const SectionWalker& walker, DWARFUnitHeader& header,
                                   unsigned long long length);
    void addUnit(const DWARFUnitHeader& header);

    UnitsByOffset m_compUnits;
    SymMgrObjectPtr<IFileFormatHelper> m_helper;
    std::string m_symFileName;
    status_t m_lineStatus;
    DWARFLineResolver* m_lineResolver;
    SymMgrObjectPtr<ISrcLineResolver> m_lineResolverRef;
    std::deque<Scope*> m_scopeStack;
    SymMgrObjectPtr<IAddressMapping> m_addressMapping; ///< null here
    AbbrevTables m_abbrevTables;
    bool m_loadDwarfSymbols; ///< false: units, lines and compiler details, and no symbols
    status_t m_status;
    status_t m_scanStatus; ///< of a scan that a line query met failing, until loadSymbols returns it
};

} // namespace ORN_3_30

#endif
