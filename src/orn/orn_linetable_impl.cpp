// LineTable: takes the ranges that line programs deliver and answers which source lines an interval of code
// has. Line resolvers fill it and query it. It does not load anything: a resolver runs the line programs that
// a query needs before it asks. The store is in orn_linetable_locators.cpp, the order of answers is told in
// orn_linetable_order.cpp, the walk over them is in orn_linetable_iterators.cpp.

#include "orn_linetable_impl.h"

#include "orn/symbol.h"
#include "orn_linetable_iterators.h"
#include "orn_log.h"

#include <algorithm>

namespace ORN_3_30 {

namespace {

constexpr std::size_t filesOfPage = 256;
constexpr unsigned filesOfPageShift = 8;

/// Candidates up to this number are looked at one by one whatever the query.
constexpr std::size_t fewCandidates = 1024;

} // namespace

ILineTable* ILineTable::create(IFileFormatLoader& loader, ISrcLineResolver& resolver) {
    return new LineTable(loader, resolver);
}

// SrcRangeMgr

SrcRange* SrcRangeMgr::search(unsigned long long unitId) const {
    const auto range =
        std::lower_bound(m_ranges.begin(), m_ranges.end(), unitId,
                         [](const SrcRange* left, unsigned long long id) { return left->unitId() < id; });
    return range != m_ranges.end() && (*range)->unitId() == unitId ? *range : nullptr;
}

void SrcRangeMgr::insert(SrcRange* range) {
    const auto behind =
        std::upper_bound(m_ranges.begin(), m_ranges.end(), range->unitId(),
                         [](unsigned long long id, const SrcRange* right) { return id < right->unitId(); });
    m_ranges.insert(behind, range);
    m_cursor = range;
}

// LineTable

LineTable::LineTable(IFileFormatLoader& loader, ISrcLineResolver& resolver)
    : SymMgrObject<ILineTable>(nullptr),
      m_loader(loader),
      m_resolver(resolver),
      m_files(filesOfPage, filesOfPageShift) {}

LineTable::~LineTable() {
    m_files.forEach([](SrcRangeMgr* rangeMgr) { delete rangeMgr; });
}

void* LineTable::addLineRange(unsigned long long unitId, unsigned fileId, unsigned line, unsigned column,
                              unsigned long long address, unsigned long long size, unsigned long long tag) {
    SrcRangeMgr* rangeMgr = rangeMgrOf(fileId);
    if (!ORN_ASSERT_TEXT(rangeMgr, "rangeMgr != 0L"))
        return nullptr;
    SrcRange* range = rangeOf(*rangeMgr, fileId, unitId);
    const unsigned long long sum = address + size;
    const unsigned long long end = sum < address ? ~0ULL : sum;
    m_arrived.add(range->number(), {line, column, address, tag, end});
    return range;
}

/// Null for the number that means every file: what is stored under it could not be asked for.
SrcRangeMgr* LineTable::rangeMgrOf(unsigned fileId) {
    if (fileId == LineQuery::everyFile)
        return nullptr;
    SrcRangeMgr*& rangeMgr = m_files.slot(fileId);
    if (!rangeMgr)
        rangeMgr = new SrcRangeMgr;
    return rangeMgr;
}

SrcRange* LineTable::rangeOf(SrcRangeMgr& rangeMgr, unsigned fileId, unsigned long long unitId) {
    if (SrcRange* range = rangeMgr.find(unitId))
        return range;
    SrcRange& range = m_ranges.emplace_back(fileId, unitId, static_cast<std::uint32_t>(m_ranges.size()));
    rangeMgr.insert(&range);
    return &range;
}

void LineTable::sourceLinesAt(SymMgrObjectPtr<LineIterator>& out, unsigned long long address,
                              unsigned long long unitId, unsigned fileId) {
    out = new SourceLineByAddrIterator(*this, address, unitId, fileId);
}

void LineTable::sourceLinesInRange(SymMgrObjectPtr<LineIterator>& out, unsigned long long unitId,
                                   unsigned fileId, unsigned long long low, unsigned long long high) {
    out = new SourceLineIterator(*this, {low, high, unitId, fileId});
}

/// Sorts what arrived since the last query, together with the lists that it would else leave less than twice
/// as long as the next: so few lists are to be searched, and a locator is moved a logarithmic number of
/// times.
void LineTable::settle() {
    if (m_arrived.isEmpty())
        return;
    std::size_t rows = m_arrived.size();
    std::size_t first = m_lists.size();
    while (first > 0 && m_lists[first - 1]->size() < 2 * rows)
        rows += m_lists[--first]->size();
    auto list = std::make_shared<SrcLocatorList>(m_lists, first, m_arrived);
    m_lists.resize(first);
    m_lists.push_back(std::move(list));
}

std::size_t LineTable::locatorCount() {
    settle();
    std::size_t count = 0;
    for (const auto& list : m_lists)
        count += list->size();
    return count;
}

void LineTable::find(const LineQuery& query, FoundLocators& found) {
    if (query.low > query.high)
        return;
    settle();
    const bool everything = query.wantsEverything();
    const unsigned long long startsBelow = query.startsBelow();
    for (const auto& list : m_lists) {
        const auto take = [&](const SrcLocator& row) {
            const SrcRange& range = m_ranges[row.range];
            if (everything || (query.wantsFile(range.fileId()) && query.wantsUnit(range.unitId())))
                found.push({{row.line, row.column, row.address, list->tagOf(row), list->endOf(row)},
                            range.unitId(),
                            range.fileId(),
                            row.range});
        };
        const std::size_t first = list->lowerBound(query.low);
        list->visitReaching(first, query.low, take);
        for (std::size_t at = first; at < list->size() && (*list)[at].address < startsBelow; ++at)
            if (list->endOf((*list)[at]) > query.low)
                take((*list)[at]);
    }
    orderFoundLocators(found, m_lists, query.low);
}

bool LineTable::isWide(const LineQuery& query) {
    if (query.low >= query.high)
        return false;
    settle();
    std::size_t candidates = 0;
    std::size_t all = 0;
    for (const auto& list : m_lists) {
        candidates += list->lowerBound(query.high) - list->lowerBound(query.low);
        all += list->size();
    }
    return candidates > fewCandidates && (query.fileId != LineQuery::everyFile || candidates > all / 8);
}

const SrcLocatorLists& LineTable::listsByFile() {
    settle();
    for (const auto& list : m_lists)
        list->indexByFile(m_ranges);
    return m_lists;
}

// The message of this one names the line table and not the iterator that asks, since that is where those who
// read logs look for it.
SymMgrObjectPtr<ISourceLocation> callSiteOf(IInlineInstance& instance) {
    SymMgrObjectPtr<ISourceLocation> srcLocation;
    instance.callSite(srcLocation);
    // Quirk: the text says the opposite of what is tested, and ends in a blank.
    ORN_ASSERT_TEXT(srcLocation, "srcLocation == NULL ");
    return srcLocation;
}

} // namespace ORN_3_30
