// Everything that a client can ask about one module.
#ifndef ORN_MODULE_SYMBOL_BANK_H
#define ORN_MODULE_SYMBOL_BANK_H

#include "orn/address.h"
#include "orn/export.h"
#include "orn/file_format_loader.h"
#include "orn/iterator.h"
#include "orn/module_image.h"
#include "orn/ranges.h"
#include "orn/status.h"
#include "orn/symbol_file.h"
#include "orn/symbol_table.h"
#include "orn/types.h"

namespace ORN_3_30 {

class ICompUnitDetails;
class IOptReportEntry;
class ISourceLocation;
class IStackFrameContext;
class ISymbol;

/// Announces addresses of interest before the first query, so that less has to be read.
class IPrefetcher {
public:
    /// Both make the next query load anew, limited to what the announced addresses need. The result of a
    /// noted address is `status_False`.
    virtual status_t putPseudoAddress(unsigned long long pseudoAddr) = 0;
    virtual status_t putRVA(unsigned long long rva) = 0;

protected:
    ~IPrefetcher() = default;
};

/// One module. Creating it reads nothing: each query states by a mask of symbol kinds what it needs, and only
/// that is read, once; a failing load is reported to the query that caused it and not repeated.
///
/// Hold the bank for as long as you hold anything that it gave: symbols, ranges, iterators, addresses,
/// segments. All operations may be called from several threads. Addresses are explained at IAddress. Unless
/// an operation says otherwise, a query that finds nothing gives `status_False`, and null out pointers are
/// the caller's fault. Any operation that makes objects may give `status_OutOfMemory`.
class IModuleSymbolBank : public ISymMgrObject {
public:
    /// Path of the module.
    virtual const char* execFileName() = 0;
    /// Path of the symbol file; the module's own without one.
    virtual const char* symFileName() = 0;
    virtual exec_format_t execFileFormat() = 0;
    /// A value of symbol_file_type_t; 0 without a symbol file.
    virtual unsigned symFileFormat() = 0;
    virtual arch_t architecture() = 0;
    virtual unsigned long long preferredLoadAddress() = 0;
    /// Null if the entry point lies outside the module.
    virtual SymMgrObjectPtr<IAddress> entryPoint() = 0;
    /// In bytes.
    virtual unsigned long long imageSize() = 0;
    /// Details of a compilation unit, borrowed.
    virtual status_t compUnitDetailsById(unsigned id, ICompUnitDetails*& out) = 0;
    /// Keeps its place; `status_NotImpl`.
    virtual status_t reservedQuery() = 0;
    /// Optimisation reports anchored in [begin, begin + size), in the order of addresses; a null begin means
    /// all. The iterator and its entries are the bank's. The first of these two queries must not race with
    /// another: it reads the reports.
    virtual status_t optReports(SymMgrObjectPtr<IIterator<IOptReportEntry*>>& out,
                                SymMgrObjectPtr<IAddress> begin, unsigned long long size) = 0;
    /// The first report anchored at exactly that address, borrowed. A null address has none.
    virtual status_t optReportAt(SymMgrObjectPtr<IAddress> address, IOptReportEntry*& out) = 0;
    /// The range of the symbol that owns an address. A null address is `status_InvalidArg`; without a
    /// selector the library's ranking decides among several.
    virtual status_t symbolRangeByAddress(IAddress* addr, SymMgrObjectPtr<ISymbolRange>& out,
                                          symbol_kind_t mask, ISymbolSelector* selector) = 0;
    /// The ranges in [begin, end) as they were loaded; they may overlap. Null limits are open.
    virtual status_t originalSymbolRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out,
                                          symbol_kind_t mask, IAddress* begin, IAddress* end) = 0;
    /// [begin, end) cut so that nothing overlaps, each piece with its winner.
    virtual status_t nonOverlappedSymbolRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out,
                                               symbol_kind_t mask, IAddress* begin, IAddress* end,
                                               ISymbolSelector* selector) = 0;
    /// `status_NotImpl` for any argument.
    virtual status_t sourceFileByName(...) = 0;
    /// The source location at an address. `flags` is a unit id (0, 0xFFFFFFFF: every unit), `context` an
    /// `ISourceLocationSelector*` or null.
    virtual status_t sourceLocationByAddress(IAddress* addr, SymMgrObjectPtr<ISourceLocation>& out,
                                             unsigned flags, void* context) = 0;
    virtual status_t sectionByName(const char* name, SymMgrObjectPtr<ISection>& out) = 0;
    /// `status_Fail` for a module without segments.
    virtual status_t segments(SymMgrObjectPtr<IIterator<ISegment*>>& out) = 0;
    /// `status_Ok` with a null segment for an unknown name.
    virtual status_t segmentByName(const char* name, ISegment*& out) = 0;
    /// Addresses of the module in any of the address spaces; `status_Fail` for one that lies outside.
    virtual status_t addressFromRVA(unsigned long long rva, SymMgrObjectPtr<IAddress>& out) = 0;
    virtual status_t addressFromPseudoAddress(unsigned long long pseudoAddr,
                                              SymMgrObjectPtr<IAddress>& out) = 0;
    virtual status_t addressFromSegmentOffset(ISegment* segment, unsigned long long offset,
                                              SymMgrObjectPtr<IAddress>& out) = 0;
    virtual status_t addressFromFileOffset(unsigned long long offset, SymMgrObjectPtr<IAddress>& out) = 0;
    /// A rule of thumb for planning, in bytes: eight times the size of the symbol file.
    virtual unsigned long long memoryEstimate() = 0;
    /// The bank's own prefetcher, borrowed.
    virtual IPrefetcher* prefetcher() = 0;
    /// The variable at a stack address `dataAddress` in the frame `context` of the function at `addr`, a
    /// pseudo address; for a caller's frame the return address less one. The frame's registers and
    /// `dataAddress` are those of the running program. `*memberFlag` (may be null) is set if the answer names
    /// a member of the variable: "box::corner::y". The answer's address is where the variable begins on the
    /// stack; it covers no range of the module. `status_False`: nothing is known there; `out` is untouched
    /// then and on failure. `status_NoDebugInfo`: no entries can be read. `status_Fail`: the function does
    /// not hold `addr` in one piece.
    ///
    /// Answers are kept by the two registers and `dataAddress`, whatever the function: frames of different
    /// moments that have the same registers want a bank of their own, loaded without the cache.
    virtual status_t findStackVariable(IAddress* addr, unsigned long long dataAddress,
                                       IStackFrameContext* context, SymMgrObjectPtr<ISymbol>& out,
                                       bool* memberFlag) = 0;
    /// The innermost symbol that covers all of `ranges` (begins are RVAs). With `stopAtInline` inlined code
    /// is not entered; with `useThunkRanges` a symbol's thunks count for it.
    virtual status_t symbolByRanges(IRanges* ranges, SymMgrObjectPtr<ISymbol>& out, bool stopAtInline,
                                    bool useThunkRanges) = 0;
    /// A sum: 1 for managed code, and 2 more if it has native code beside it.
    virtual status_t moduleTraits(unsigned& out) = 0;

    /// The bank of an image that the client made itself. Banks are shared: the same unchanged module gives
    /// the same bank while it lives. `kernelName` is not part of a module's identity: a second kernel of a
    /// GPU binary needs `noCache`.
    ORN_API static status_t create(SymMgrObjectPtr<IModuleSymbolBank>& out,
                                   SymMgrObjectPtr<IModuleImage> image, ISymbolFileResolver* resolver,
                                   bool noCache, const char* kernelName);

protected:
    ~IModuleSymbolBank() = default;
};

} // namespace ORN_3_30

#endif
