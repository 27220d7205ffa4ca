// The object that a client holds for one module.
#ifndef ORN_MODULESYMBOLBANK_IMPL_H
#define ORN_MODULESYMBOLBANK_IMPL_H

#include "orn/debug_info_loader.h"
#include "orn/file_format_loader.h"
#include "orn/module_symbol_bank.h"
#include "orn_optreportreader.h"
#include "orn_scope.h"

#include <utility>
#include <vector>

namespace ORN_3_30 {

class SymbolManager;

/// Binds one format loader, at most one debug info loader and the module's scope together, and forwards each
/// query to the one that answers it. Making a bank reads nothing.
///
/// Two locks: the bank's own count shares the manager's registry lock, so that a look-up never meets a bank
/// that is dying; what is inside the bank shares `m_lock` and stays independent of other modules.
class ModuleSymbolBank : public SymMgrObject<IModuleSymbolBank>, public IPrefetcher {
public:
    /// Both loaders get a reference of the bank's; `debugInfoLoader` may be null. `lock` guards the count.
    ModuleSymbolBank(IFileFormatLoader* ffl, IDebugInfoLoader* debugInfoLoader, ILock* lock);
    ~ModuleSymbolBank() override;

    const char* execFileName() override;
    const char* symFileName() override;
    exec_format_t execFileFormat() override;
    unsigned symFileFormat() override;
    arch_t architecture() override;
    unsigned long long preferredLoadAddress() override;
    SymMgrObjectPtr<IAddress> entryPoint() override;
    unsigned long long imageSize() override;
    status_t compUnitDetailsById(unsigned id, ICompUnitDetails*& out) override;
    status_t reservedQuery() override;
    status_t optReports(SymMgrObjectPtr<IIterator<IOptReportEntry*>>& out, SymMgrObjectPtr<IAddress> begin,
                        unsigned long long size) override;
    status_t optReportAt(SymMgrObjectPtr<IAddress> address, IOptReportEntry*& out) override;
    status_t symbolRangeByAddress(IAddress* addr, SymMgrObjectPtr<ISymbolRange>& out, symbol_kind_t mask,
                                  ISymbolSelector* selector) override;
    status_t originalSymbolRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out,
                                  symbol_kind_t mask, IAddress* begin, IAddress* end) override;
    status_t nonOverlappedSymbolRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out,
                                       symbol_kind_t mask, IAddress* begin, IAddress* end,
                                       ISymbolSelector* selector) override;
    status_t sourceFileByName(...) override;
    status_t sourceLocationByAddress(IAddress* addr, SymMgrObjectPtr<ISourceLocation>& out, unsigned flags,
                                     void* context) override;
    status_t sectionByName(const char* name, SymMgrObjectPtr<ISection>& out) override;
    status_t segments(SymMgrObjectPtr<IIterator<ISegment*>>& out) override;
    status_t segmentByName(const char* name, ISegment*& out) override;
    status_t addressFromRVA(unsigned long long rva, SymMgrObjectPtr<IAddress>& out) override;
    status_t addressFromPseudoAddress(unsigned long long pseudoAddr, SymMgrObjectPtr<IAddress>& out) override;
    status_t addressFromSegmentOffset(ISegment* segment, unsigned long long offset,
                                      SymMgrObjectPtr<IAddress>& out) override;
    status_t addressFromFileOffset(unsigned long long offset, SymMgrObjectPtr<IAddress>& out) override;
    unsigned long long memoryEstimate() override;
    IPrefetcher* prefetcher() override { return this; }
    status_t findStackVariable(IAddress* addr, unsigned long long dataAddress, IStackFrameContext* context,
                               SymMgrObjectPtr<ISymbol>& out, bool* memberFlag) override;
    status_t symbolByRanges(IRanges* ranges, SymMgrObjectPtr<ISymbol>& out, bool stopAtInline,
                            bool useThunkRanges) override;
    status_t moduleTraits(unsigned& out) override;

    status_t putPseudoAddress(unsigned long long pseudoAddr) override;
    status_t putRVA(unsigned long long rva) override;

private:
    SymMgrObjectPtr<SymbolManager> m_symbolManager; ///< keeps the registries
    SymMgrObjectPtr<IFileFormatLoader> m_ffl;
    SymMgrObjectPtr<IDebugInfoLoader> m_debugInfoLoader; ///< null without a usable symbol file
    GlobalScope m_globalScope;
    OptReportStorage m_optReports;
    /// For the objects inside the bank. It is destroyed before the scope that was given it, so nothing in
    /// there may use it in a constructor or a destructor.
    OrnLock m_lock;
};

namespace internal {

/// Half-open intervals, begin and end.
using IntervalList = std::vector<std::pair<unsigned long long, unsigned long long>>;

/// Takes away from `rest`, whose intervals are RVAs, what the symbol ranges cover. True if nothing is left.
bool coverIntervals(IntervalList& rest, SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& outRanges);

} // namespace internal
} // namespace ORN_3_30

#endif
