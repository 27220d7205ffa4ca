// The bank's life and its queries. Nearly every query is a trace block around a forward: here it is decided
// who answers and what a missing answer is reported as. The loading itself lies with the module's scope, the
// search by ranges in the sibling file, what is done with optimisation reports with their store.

#include "orn_modulesymbolbank.h"

#include "orn/source.h"
#include "orn_fflpe.h"
#include "orn_file.h"
#include "orn_log.h"
#include "orn_symbolmanager.h"

#include <new>

namespace ORN_3_30 {

status_t IModuleSymbolBank::create(SymMgrObjectPtr<IModuleSymbolBank>& out,
                                   SymMgrObjectPtr<IModuleImage> image, ISymbolFileResolver* resolver,
                                   bool noCache, const char* kernelName) {
    ORN_TRACE("create");
    SymMgrObjectPtr<SymbolManager> manager = SymbolManager::instance();
    if (!manager) {
        ORN_LOG_ERROR("can't instantiate ISymbolManager object");
        return status_Fail;
    }
    try {
        return manager->loadSymbolsFromModule(out, image, resolver, noCache ? load_flag_no_cache : 0u,
                                              kernelName);
    }
    ORN_CATCH_OUT_OF_MEMORY
}

ModuleSymbolBank::ModuleSymbolBank(IFileFormatLoader* ffl, IDebugInfoLoader* debugInfoLoader, ILock* lock)
    : SymMgrObject<IModuleSymbolBank>(lock),
      m_symbolManager(SymbolManager::existing()),
      m_ffl(ffl),
      m_debugInfoLoader(debugInfoLoader),
      m_globalScope(ffl, debugInfoLoader, &m_lock),
      m_optReports(ffl, debugInfoLoader) {
    ORN_TRACE("ModuleSymbolBank");
    ORN_ASSERT(m_ffl);
}

// The registry forgets the bank before anything else, so that no client finds a dying one; this works because
// the bank's count shares the registry lock. The rest goes in the reverse order of the members, where the
// format loader's release may take the loader out of its registry and the manager's release end the manager.
ModuleSymbolBank::~ModuleSymbolBank() {
    ORN_TRACE("~ModuleSymbolBank");
    if (m_symbolManager)
        m_symbolManager->releaseBank(m_ffl, m_debugInfoLoader);
    m_debugInfoLoader = nullptr;
}

const char* ModuleSymbolBank::execFileName() {
    ORN_TRACE("execFileName");
    return m_ffl->getPath();
}

const char* ModuleSymbolBank::symFileName() {
    ORN_TRACE("symFileName");
    return m_debugInfoLoader ? m_debugInfoLoader->getPath() : m_ffl->getPath();
}

exec_format_t ModuleSymbolBank::execFileFormat() {
    ORN_TRACE("execFileFormat");
    return m_ffl->getExecFormat();
}

unsigned ModuleSymbolBank::symFileFormat() {
    ORN_TRACE("symFileFormat");
    return m_debugInfoLoader ? m_debugInfoLoader->getType() : symbol_file_none;
}

arch_t ModuleSymbolBank::architecture() {
    ORN_TRACE("architecture");
    return m_ffl->getArch();
}

unsigned long long ModuleSymbolBank::preferredLoadAddress() {
    ORN_TRACE("preferredLoadAddress");
    return m_ffl->getImageBase();
}

SymMgrObjectPtr<IAddress> ModuleSymbolBank::entryPoint() {
    ORN_TRACE("entryPoint");
    try {
        SymMgrObjectPtr<IAddress> address;
        if (!isFailure(m_ffl->getAddress(address, m_ffl->getEntryPoint())))
            return address;
    } catch (const std::bad_alloc&) {
        ORN_LOG_ERROR("Out of memory");
    }
    return nullptr;
}

unsigned long long ModuleSymbolBank::imageSize() {
    ORN_TRACE("imageSize");
    return m_ffl->getImageSize();
}

status_t ModuleSymbolBank::compUnitDetailsById(unsigned id, ICompUnitDetails*& out) {
    ORN_TRACE("compUnitDetailsById");
    try {
        ISrcLineResolver* resolver = m_globalScope.lineResolver();
        if (!resolver)
            return status_False;
        out = resolver->compUnitDetails(id);
        return out ? status_Ok : status_False;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

// Quirk: the query keeps its place in the table of operations and has never had an answer.
status_t ModuleSymbolBank::reservedQuery() {
    return status_NotImpl;
}

status_t ModuleSymbolBank::optReports(SymMgrObjectPtr<IIterator<IOptReportEntry*>>& out,
                                      SymMgrObjectPtr<IAddress> begin, unsigned long long size) {
    try {
        return m_optReports.reports(out, begin, size);
    }
    ORN_CATCH_OUT_OF_MEMORY
}

status_t ModuleSymbolBank::optReportAt(SymMgrObjectPtr<IAddress> address, IOptReportEntry*& out) {
    try {
        return m_optReports.reportAt(address, out);
    }
    ORN_CATCH_OUT_OF_MEMORY
}

status_t ModuleSymbolBank::symbolRangeByAddress(IAddress* addr, SymMgrObjectPtr<ISymbolRange>& out,
                                                symbol_kind_t mask, ISymbolSelector* selector) {
    ORN_TRACE("symbolRangeByAddress");
    if (!addr)
        return status_InvalidArg;
    const unsigned long long pseudoAddr = addr->pseudoAddr();
    ORN_TRACE_IN("addr->pseudoAddr()", pseudoAddr);
    try {
        return m_globalScope.symbolRangeByAddress(out, pseudoAddr, mask, selector);
    }
    ORN_CATCH_OUT_OF_MEMORY
}

status_t
ModuleSymbolBank::originalSymbolRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out,
                                       symbol_kind_t mask, IAddress* begin, IAddress* end) {
    ORN_TRACE("originalSymbolRanges");
    const unsigned long long beginPseudoAddr = begin ? begin->pseudoAddr() : 0;
    const unsigned long long endPseudoAddr = end ? end->pseudoAddr() : ~0ULL;
    ORN_TRACE_IN("beginPseudoAddr", beginPseudoAddr);
    ORN_TRACE_IN("endPseudoAddr", endPseudoAddr);
    try {
        return m_globalScope.symbolRanges(out, beginPseudoAddr, endPseudoAddr, mask);
    }
    ORN_CATCH_OUT_OF_MEMORY
}

status_t
ModuleSymbolBank::nonOverlappedSymbolRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out,
                                            symbol_kind_t mask, IAddress* begin, IAddress* end,
                                            ISymbolSelector* selector) {
    ORN_TRACE("nonOverlappedSymbolRanges");
    const unsigned long long beginPseudoAddr = begin ? begin->pseudoAddr() : 0;
    const unsigned long long endPseudoAddr = end ? end->pseudoAddr() : ~0ULL;
    ORN_TRACE_IN("beginPseudoAddr", beginPseudoAddr);
    ORN_TRACE_IN("endPseudoAddr", endPseudoAddr);
    try {
        return m_globalScope.nonOverlappedSymbolRanges(out, beginPseudoAddr, endPseudoAddr, mask, selector);
    }
    ORN_CATCH_OUT_OF_MEMORY
}

// Quirk: takes whatever it is given and looks at none of it.
status_t ModuleSymbolBank::sourceFileByName(...) {
    ORN_TRACE("sourceFileByName");
    return status_NotImpl;
}

// Quirk: the flags are the id of the compilation unit that is asked, and the context is the selector.
status_t ModuleSymbolBank::sourceLocationByAddress(IAddress* addr, SymMgrObjectPtr<ISourceLocation>& out,
                                                   unsigned flags, void* context) {
    ORN_TRACE("sourceLocationByAddress");
    if (!addr)
        return status_InvalidArg;
    const unsigned long long pseudoAddr = addr->pseudoAddr();
    ORN_TRACE_IN("addr->pseudoAddr()", pseudoAddr);
    try {
        ISrcLineResolver* resolver = m_globalScope.lineResolver();
        if (!resolver)
            return status_False;
        SymMgrObjectPtr<ISourceLocation> location;
        resolver->sourceLocationAt(location, pseudoAddr, flags, nullptr,
                                   static_cast<ISourceLocationSelector*>(context));
        out = location;
        return out ? status_Ok : status_False;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

status_t ModuleSymbolBank::sectionByName(const char* name, SymMgrObjectPtr<ISection>& out) {
    ORN_TRACE("sectionByName");
    if (!name)
        return status_InvalidArg;
    try {
        SymMgrObjectPtr<ISection> section;
        m_ffl->getSectionByName(section, name);
        out = section;
        return out ? status_Ok : status_False;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

// Quirk: a module without segments is a failure, unlike elsewhere an answer that is missing.
status_t ModuleSymbolBank::segments(SymMgrObjectPtr<IIterator<ISegment*>>& out) {
    ORN_TRACE("segments");
    try {
        SymMgrObjectPtr<IIterator<ISegment*>> iterator;
        m_ffl->getSegments(iterator);
        out = iterator;
        return out && out->current() ? status_Ok : status_Fail;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

// Quirk: an unknown name is `status_Ok` with a null segment, unlike an unknown section.
status_t ModuleSymbolBank::segmentByName(const char* name, ISegment*& out) {
    ORN_TRACE("segmentByName");
    if (!name)
        return status_InvalidArg;
    try {
        out = m_ffl->findSegmentByName(name);
        return status_Ok;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

status_t ModuleSymbolBank::addressFromRVA(unsigned long long rva, SymMgrObjectPtr<IAddress>& out) {
    try {
        return m_ffl->getAddress(out, m_ffl->getImageBase() + rva);
    }
    ORN_CATCH_OUT_OF_MEMORY
}

status_t ModuleSymbolBank::addressFromPseudoAddress(unsigned long long pseudoAddr,
                                                    SymMgrObjectPtr<IAddress>& out) {
    try {
        return m_ffl->getAddress(out, pseudoAddr);
    }
    ORN_CATCH_OUT_OF_MEMORY
}

status_t ModuleSymbolBank::addressFromSegmentOffset(ISegment* segment, unsigned long long offset,
                                                    SymMgrObjectPtr<IAddress>& out) {
    if (!segment)
        return status_InvalidArg;
    try {
        return m_ffl->getAddress(out, m_ffl->getImageBase() + offset + segment->getRva());
    }
    ORN_CATCH_OUT_OF_MEMORY
}

status_t ModuleSymbolBank::addressFromFileOffset(unsigned long long offset, SymMgrObjectPtr<IAddress>& out) {
    try {
        return m_ffl->getAddressOfFileOffset(out, offset);
    }
    ORN_CATCH_OUT_OF_MEMORY
}

// Quirk: the factor is a rule of thumb, and clients plan with it.
unsigned long long ModuleSymbolBank::memoryEstimate() {
    constexpr unsigned long long memoryPerFileByte = 8;
    unsigned long long size = m_debugInfoLoader ? fileSize(m_debugInfoLoader->getPath()) : 0;
    if (size == 0)
        size = fileSize(m_ffl->getPath());
    return size * memoryPerFileByte;
}

status_t ModuleSymbolBank::findStackVariable(IAddress* addr, unsigned long long dataAddress,
                                             IStackFrameContext* context, SymMgrObjectPtr<ISymbol>& out,
                                             bool* memberFlag) {
    ORN_TRACE("findStackVariable");
    if (!m_debugInfoLoader)
        return status_False;
    try {
        SymMgrObjectPtr<ISymbolRange> range;
        const status_t status = symbolRangeByAddress(addr, range, symbol_kind_function, nullptr);
        if (status != status_Ok)
            return status;
        return m_debugInfoLoader->findStackVariable(range->symbol(), addr, dataAddress, context, out,
                                                    memberFlag);
    }
    ORN_CATCH_OUT_OF_MEMORY
}

status_t ModuleSymbolBank::moduleTraits(unsigned& out) {
    enum : unsigned { traitManaged = 1, traitReadyToRun = 2 };
    out = 0;
    const auto* module = dynamic_cast<PEExecFileLoader*>(m_ffl.get());
    if (module && module->isManaged())
        out = traitManaged | (m_ffl->isReadyToRun() ? traitReadyToRun : 0u);
    return status_Ok;
}

status_t ModuleSymbolBank::putPseudoAddress(unsigned long long pseudoAddr) {
    ORN_TRACE("putPseudoAddress");
    ORN_TRACE_IN("pseudoAddr", pseudoAddr);
    try {
        m_globalScope.addInterestingAddress(pseudoAddr);
        return status_False;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

status_t ModuleSymbolBank::putRVA(unsigned long long rva) {
    ORN_TRACE("putRVA");
    ORN_TRACE_IN("rva", rva);
    return putPseudoAddress(m_ffl->getImageBase() + rva);
}

} // namespace ORN_3_30
