// The debug info loader of files with DWARF. A module's scope asks it for symbols, its line resolver for
// lines, scopes of functions for what is inside them. It decides what is read when: unit headers and top
// entries at the first need of anything, the level of functions by the kinds that are wanted, the inside of a
// function when somebody asks, each line program when its lines are needed.
//
// Not used on purpose: the address index of `.debug_aranges`. An address reaches a unit through the symbol
// that covers it, and compilers leave the index out or get it wrong.

#include "orn_dildwarf.h"

#include "orn_dildwarf_cfi.h"
#include "orn_dildwarf_lines.h"
#include "orn_dildwarf_walk.h"
#include "orn_log.h"

#include <algorithm>
#include <cstdlib>

namespace ORN_3_30 {

namespace {

bool isSet(const char* variable) {
    const char* value = std::getenv(variable);
    return value && *value;
}

/// How often each range of `.debug_ranges` may be read, on average, in a load and by what is asked of the
/// inside of functions up to the next one; small sections have a number at any rate. Each list belongs to one
/// entry; where damaged entries share a long list, what they make of it would grow with the product of both.
constexpr unsigned long long readingsOfRange = 16;
constexpr unsigned long long readingsAtAnyRate = 0x10000;
constexpr unsigned long long smallestPair = 8;

/// The same of entries inside functions, by the bytes of `.debug_info`. Each is read once for each kind of
/// symbol that is asked for apart from the others.
constexpr unsigned long long entriesOfByte = 16;
constexpr unsigned long long entriesAtAnyRate = 0x100000;

} // namespace

// --- Segments

void SegmentSpans::ensureRead(IFileFormatLoader& loader) {
    if (m_isRead)
        return;
    m_spans.clear();
    SymMgrObjectPtr<IIterator<ISegment*>> segments;
    loader.getSegments(segments);
    const unsigned long long imageBase = loader.getImageBase();
    for (ISegment* segment = segments ? segments->current() : nullptr; segment;
         segment = segments->next() ? segments->current() : nullptr) {
        const unsigned long long begin = imageBase + segment->getRva();
        const unsigned long long size = segment->getMemorySize();
        m_spans.push_back({begin, size > ~0ULL - begin ? ~0ULL : begin + size});
    }
    std::sort(m_spans.begin(), m_spans.end(), [](const Span& a, const Span& b) { return a.begin < b.begin; });
    for (std::size_t i = 1; i < m_spans.size(); ++i)
        m_spans[i].greatestEnd = std::max(m_spans[i].greatestEnd, m_spans[i - 1].greatestEnd);
    m_isRead = true;
}

/// Of the segments that begin in front of both, one that reaches behind both holds both.
bool SegmentSpans::holdBoth(unsigned long long low, unsigned long long high) const {
    if (high < low)
        std::swap(low, high);
    const auto above =
        std::upper_bound(m_spans.begin(), m_spans.end(), low,
                         [](unsigned long long address, const Span& span) { return address < span.begin; });
    return above != m_spans.begin() && std::prev(above)->greatestEnd >= high;
}

// --- The loader

DWARFDebugInfoLoader::DWARFDebugInfoLoader(FileFormatLoader* formatLoader, const char* symFileName,
                                           IFileFormatHelper* helper, unsigned long long bias, ILock* lock)
    : DebugInfoLoader(formatLoader, lock),
      m_sections(new DWARFSections(helper, bias)),
      m_helper(helper),
      m_symFileName(symFileName),
      m_lineStatus(status_NotInitialized),
      m_lineResolver(nullptr),
      m_loadLock(nullptr),
      m_walk(std::make_unique<DWARFSymbolWalk>(*this)),
      m_rangesBudget(0),
      m_insideBudget(0),
      m_loadDwarfSymbols(!isSet("ORN_SKIP_DWARF_SYMBOLS")),
      m_status(status_Ok),
      m_scanStatus(status_Ok),
      m_topEntriesRead(false) {}

/// Symbols that someone still holds keep their units; these then have no loader to ask.
DWARFDebugInfoLoader::~DWARFDebugInfoLoader() {
    for (auto& [offset, unit] : m_compUnits)
        unit->forgetLoader();
}

status_t DWARFDebugInfoLoader::loadSymbols(ISymbolTable* sink, LoadFilter* filter, symbol_kind_t flags,
                                           ISrcLineResolver*) {
    try {
        if (isFailure(m_status))
            return m_status;
        ScopedLock guard(m_loadLock);
        // What an earlier line query met: this is the first load that can tell.
        status_t status = m_scanStatus;
        m_scanStatus = status_Ok;
        if (!isFailure(status))
            status = ensureUnits();
        if (isFailure(status))
            return status;
        loadUnitSymbols(sink, filter, flags);
        return m_status = status_Ok;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

/// Quirk: a failed scan leaves the units in front of the failure, and `m_status` as it was. So the load that
/// scans fails and reads no symbols, and the next one reads those of the units that are there.
status_t DWARFDebugInfoLoader::ensureUnits() {
    if (isFailure(m_status))
        return m_status;
    if (const status_t status = ensureSections(); isFailure(status))
        return status;
    status_t status = status_Ok;
    if (m_compUnits.empty()) {
        status = scanUnits();
        m_topEntriesRead = false;
    }
    if (!m_topEntriesRead) {
        for (auto& [offset, unit] : m_compUnits)
            unit->loadTopEntry();
        m_topEntriesRead = true;
    }
    return status;
}

status_t DWARFDebugInfoLoader::ensureSections() {
    const status_t status = m_sections->ensureRead();
    switch (status) {
    case status_NoDebugInfo:
        ORN_LOG_WARNING("Cannot read .debug_info section " << m_symFileName);
        m_status = status;
        break;
    case status_UnsupportedDebugInfoFormat:
        ORN_LOG_WARNING("Failed to read debug info");
        m_status = status;
        break;
    default:
        break;
    }
    return status;
}

void DWARFDebugInfoLoader::renewBudgets() {
    m_rangesBudget = readingsAtAnyRate + readingsOfRange * (m_sections->rangesSize() / smallestPair);
    m_insideBudget = entriesAtAnyRate + entriesOfByte * m_sections->info().size();
    m_sections->renewExcess();
}

void DWARFDebugInfoLoader::loadUnitSymbols(ISymbolTable* sink, LoadFilter* filter, symbol_kind_t flags) {
    m_segments.ensureRead(fileLoader());
    renewBudgets();
    for (auto& [offset, unit] : m_compUnits) {
        if (unit->hasEntries())
            m_walk->walkUnit(*unit, m_loadDwarfSymbols ? flags : symbol_kind_none, DWARFSymbolSink(sink),
                             filter);
    }
}

status_t DWARFDebugInfoLoader::loadChildren(DWARFCompilationUnit& unit, unsigned long long entryOffset,
                                            Scope& scope, symbol_kind_t flags) {
    if (!m_sections->info().isPresent())
        return status_NoDebugInfo;
    m_segments.ensureRead(fileLoader());
    m_walk->walkChildren(unit, entryOffset, flags, DWARFSymbolSink(scope));
    return status_Ok;
}

ISrcLineResolver* DWARFDebugInfoLoader::getLineResolver(GlobalScope* scope, ILock* loadLock) {
    if (LineResolver* known = knownLineResolver(scope, loadLock))
        return known;
    return keepLineResolver(new DWARFLineResolver(*formatLoader(), this, scope, loadLock));
}

LineResolver* DWARFDebugInfoLoader::knownLineResolver(GlobalScope* scope, ILock* loadLock) {
    m_loadLock = loadLock;
    if (m_lineResolver)
        m_lineResolver->setScope(scope, loadLock);
    return m_lineResolver;
}

LineResolver* DWARFDebugInfoLoader::keepLineResolver(LineResolver* resolver) {
    m_lineResolverRef = resolver;
    m_lineResolver = resolver;
    for (auto& [offset, unit] : m_compUnits)
        unit->setLineResolver(m_lineResolver);
    return m_lineResolver;
}

/// Under the loading lock, so that nobody sees the status of a pass that is under way.
status_t DWARFDebugInfoLoader::loadLineTable(ILineTable*) {
    try {
        ScopedLock guard(m_loadLock);
        if (m_lineStatus != status_NotInitialized)
            return m_lineStatus;
        const status_t scanned = ensureUnits();
        if (isFailure(scanned) && !isFailure(m_status))
            m_scanStatus = scanned;
        if (m_lineStatus != status_NotInitialized)
            return m_lineStatus;
        m_lineStatus = status_Fail;
        for (auto& [offset, unit] : m_compUnits) {
            const status_t status = unit->loadLines(nullptr);
            if (m_lineStatus != status_Ok)
                m_lineStatus = status;
        }
        return m_lineStatus;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

ICompUnitDetails* DWARFDebugInfoLoader::getCompilationUnit(unsigned long long offset) {
    ScopedLock guard(m_loadLock);
    const auto found = m_compUnits.find(offset);
    return found != m_compUnits.end() ? found->second.get() : nullptr;
}

void DWARFDebugInfoLoader::getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned index) {
    out = nullptr;
    if (m_helper)
        m_helper->getSectionByIndex(out, index);
}

} // namespace ORN_3_30
