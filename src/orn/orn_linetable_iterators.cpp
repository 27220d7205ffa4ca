// The iterators that line queries hand out. A query for an address finds all its answers when the iterator is
// made; a query for a whole file or a whole module finds them file by file and unit by unit while it is
// walked. Calls that were expanded in place are not in the line table: they come from the scopes, and a line
// resolver's iterator asks for them line by line, when it is moved on.

#include "orn_linetable_iterators.h"

#include "orn/address.h"
#include "orn/file_format_loader.h"
#include "orn/scope.h"
#include "orn/symbol.h"
#include "orn_address.h"
#include "orn_log.h"
#include "orn_sourceline_impl.h"

#include <algorithm>
#include <tuple>

namespace ORN_3_30 {

// LineWalk

LineWalk::LineWalk(const SrcLocatorLists& listsByFile, const LineQuery& query)
    : m_lists(listsByFile), m_query(query) {
    reset();
}

/// A query for one file starts at the file's first group in each list.
void LineWalk::reset() {
    m_cursors.clear();
    for (const auto& list : m_lists) {
        const auto& groups = list->groups();
        auto first = groups.begin();
        if (m_query.fileId != LineQuery::everyFile)
            first = std::lower_bound(
                groups.begin(), groups.end(), m_query.fileId,
                [](const SrcLocatorList::Group& group, unsigned fileId) { return group.fileId < fileId; });
        m_cursors.push_back(static_cast<std::size_t>(first - groups.begin()));
    }
}

bool LineWalk::next(FoundLocators& found) {
    found.clear();
    while (const SrcLocatorList::Group* lowest = lowestGroup()) {
        const auto fileId = lowest->fileId;
        const auto unitId = lowest->unitId;
        for (std::size_t list = 0; list < m_lists.size(); ++list) {
            const SrcLocatorList::Group* group = groupOf(list);
            if (!group || group->fileId != fileId || group->unitId != unitId)
                continue;
            ++m_cursors[list];
            if (m_query.wantsUnit(unitId))
                takeGroup(*m_lists[list], *group, found);
        }
        if (found.size() != 0) {
            orderFoundLocators(found, m_lists, m_query.low);
            return true;
        }
    }
    return false;
}

/// Null if the list has no further group that the query wants.
const SrcLocatorList::Group* LineWalk::groupOf(std::size_t list) const {
    const auto& groups = m_lists[list]->groups();
    if (m_cursors[list] == groups.size() || !m_query.wantsFile(groups[m_cursors[list]].fileId))
        return nullptr;
    return &groups[m_cursors[list]];
}

const SrcLocatorList::Group* LineWalk::lowestGroup() const {
    const SrcLocatorList::Group* lowest = nullptr;
    for (std::size_t list = 0; list < m_lists.size(); ++list) {
        const SrcLocatorList::Group* group = groupOf(list);
        if (group &&
            (!lowest || std::tie(group->fileId, group->unitId) < std::tie(lowest->fileId, lowest->unitId)))
            lowest = group;
    }
    return lowest;
}

void LineWalk::takeGroup(const SrcLocatorList& list, const SrcLocatorList::Group& group,
                         FoundLocators& found) const {
    for (auto position = list.positionsBegin(group); position != list.positionsEnd(group); ++position) {
        const SrcLocator& row = list[*position];
        if (row.address >= m_query.startsBelow())
            return;
        if (list.endOf(row) > m_query.low)
            found.push({{row.line, row.column, row.address, list.tagOf(row), list.endOf(row)},
                        group.unitId,
                        group.fileId,
                        row.range});
    }
}

// SourceLineIterator

SourceLineIterator::SourceLineIterator(LineTable& table, const LineQuery& query)
    : SymMgrObject(nullptr), m_loader(table.loader()), m_resolver(table.resolver()), m_cursor(0) {
    if (table.isWide(query)) {
        m_walk.emplace(table.listsByFile(), query);
        m_walk->next(m_found);
    } else {
        table.find(query, m_found);
    }
}

SourceLineIterator::SourceLineIterator(LineTable& table, const LineQuery& query, AtOnce)
    : SymMgrObject(nullptr), m_loader(table.loader()), m_resolver(table.resolver()), m_cursor(0) {
    table.find(query, m_found);
}

SymMgrObjectPtr<ISourceLine> SourceLineIterator::current() {
    if (m_cursor >= m_found.size())
        return nullptr;
    const FoundLocator& found = m_found[m_cursor];
    return new SourceLine(&m_loader, &m_resolver, found.unitId, found.fileId, found.line, found.column,
                          found.tag, found.address, found.end);
}

bool SourceLineIterator::next() {
    return findNext();
}

bool SourceLineIterator::stepInFound() {
    if (m_cursor < m_found.size())
        ++m_cursor;
    return m_cursor < m_found.size();
}

bool SourceLineIterator::findNext() {
    if (stepInFound())
        return true;
    m_cursor = 0;
    if (m_walk)
        return m_walk->next(m_found);
    m_cursor = m_found.size();
    return false;
}

void SourceLineIterator::reset() {
    m_cursor = 0;
    if (m_walk) {
        m_walk->reset();
        m_walk->next(m_found);
    }
}

// RangeCallerSourceLineIterator

RangeCallerSourceLineIterator::RangeCallerSourceLineIterator(IFileFormatLoader& loader,
                                                             SymMgrObjectPtr<ISourceLocation> location,
                                                             unsigned long long low, unsigned long long high)
    : SymMgrObject(nullptr), m_loader(loader), m_location(std::move(location)), m_low(low), m_high(high) {}

SymMgrObjectPtr<ISourceLine> RangeCallerSourceLineIterator::current() {
    if (!m_isThere)
        return nullptr;
    return new SourceLine(&m_loader, m_location, m_low, m_high);
}

bool RangeCallerSourceLineIterator::next() {
    m_isThere = false;
    return false;
}

// InlineCallerSourceLineIterator

InlineCallerSourceLineIterator::InlineCallerSourceLineIterator(ISrcLineResolver& resolver,
                                                               IFileFormatLoader& loader, IScope* scope,
                                                               ILineTable& table, const LineQuery& query)
    : SymMgrObject(nullptr), m_resolver(&resolver), m_loader(loader), m_scope(scope), m_low(query.low) {
    table.sourceLinesInRange(m_main, query.unitId, query.fileId, query.low, query.high);
}

SymMgrObjectPtr<ISourceLine> InlineCallerSourceLineIterator::current() {
    if (m_isExpanded)
        return m_callers[m_caller]->current();
    return mainLine();
}

bool InlineCallerSourceLineIterator::next() {
    if (m_isExpanded) {
        if (++m_caller < m_callers.size())
            return true;
        advanceMain();
        return mainLine() != nullptr;
    }
    if (!mainLine())
        return false;
    expandMainLine();
    if (m_callers.empty()) {
        advanceMain();
        return mainLine() != nullptr;
    }
    m_isExpanded = true;
    m_caller = 0;
    return true;
}

void InlineCallerSourceLineIterator::reset() {
    m_main->reset();
    m_mainLine = nullptr;
    m_isExpanded = false;
    m_callers.clear();
    m_seen.clear();
    m_expandedAddress.reset();
}

ISourceLine* InlineCallerSourceLineIterator::mainLine() {
    if (!m_mainLine)
        m_mainLine = m_main->current();
    return m_mainLine;
}

void InlineCallerSourceLineIterator::advanceMain() {
    m_main->next();
    m_mainLine = nullptr;
    m_isExpanded = false;
    m_callers.clear();
}

void InlineCallerSourceLineIterator::expandMainLine() {
    if (!m_scope)
        return;
    const unsigned long long start = mainLine()->relativeAddress() + m_loader.getImageBase();
    const unsigned long long address = std::max(start, m_low);
    // Each call is given once: another line at the same address has none that were not given.
    if (m_expandedAddress == address)
        return;
    m_expandedAddress = address;
    SymMgrObjectPtr<ISymbolRange> function;
    const status_t status = m_scope->symbolRangeByAddress(function, address, symbol_kind_function, nullptr);
    if (!isFailure(status) && function)
        collectCallers(address, *function);
}

/// Goes from the function inwards; the calls come from the inside out.
void InlineCallerSourceLineIterator::collectCallers(unsigned long long address, ISymbolRange& function) {
    const SymMgrObjectPtr<IAddress> at = new Address(&m_loader, address, nullptr);
    SymMgrObjectPtr<ISymbolRange> range = &function;
    while (range) {
        addCaller(*range);
        SymMgrObjectPtr<ISymbolRange> nested;
        range->nestedRangeByAddress(nested, at);
        range = nested;
    }
    std::reverse(m_callers.begin(), m_callers.end());
}

void InlineCallerSourceLineIterator::addCaller(ISymbolRange& range) {
    IInlineInstance* instance = range.inlineInstance();
    if (!instance || !instance->hasCallSite() || !m_seen.insert(instance))
        return;
    SymMgrObjectPtr<ISourceLocation> location = callSiteOf(*instance);
    if (!location)
        return;
    SymMgrObjectPtr<IAddress> begin;
    range.beginAddress(begin);
    const unsigned long long low = begin->pseudoAddr();
    m_callers.push_back(new RangeCallerSourceLineIterator(m_loader, location, low, low + range.size()));
}

bool InlineCallerSourceLineIterator::SeenInstances::insert(IInlineInstance* instance) {
    const auto end = m_few.begin() + m_fewCount;
    if (std::find(m_few.begin(), end, instance) != end)
        return false;
    if (m_fewCount < m_few.size()) {
        m_few[m_fewCount++] = instance;
        return true;
    }
    return m_many.insert(instance).second;
}

void InlineCallerSourceLineIterator::SeenInstances::clear() {
    m_fewCount = 0;
    m_many.clear();
}

// SymbolSourceLineIterator

SymbolSourceLineIterator::SymbolSourceLineIterator(IScope* scope, unsigned fileId,
                                                   unsigned long long symbolId, ISourceLocation* location,
                                                   IAddress* low, IAddress* high, ISrcLineResolver* resolver)
    : SymMgrObject(nullptr),
      m_fileId(fileId),
      m_symbolId(symbolId),
      m_location(location),
      m_low(low),
      m_high(high),
      m_resolver(resolver) {
    if (ISymbol* symbol = scope->symbol())
        symbol->ranges(m_ranges);
    findLines();
}

SymMgrObjectPtr<ISourceLine> SymbolSourceLineIterator::current() {
    return m_lines ? m_lines->current() : nullptr;
}

bool SymbolSourceLineIterator::next() {
    if (!m_lines)
        return false;
    if (m_lines->next())
        return true;
    m_ranges->next();
    findLines();
    return m_lines != nullptr;
}

void SymbolSourceLineIterator::reset() {
    if (m_ranges)
        m_ranges->reset();
    findLines();
}

/// Goes on to the first range, from the current one on, that has a line.
void SymbolSourceLineIterator::findLines() {
    m_lines = nullptr;
    if (!m_ranges || !hasSource())
        return;
    for (auto range = m_ranges->current(); range; range = m_ranges->next() ? m_ranges->current() : nullptr)
        if (queryRange(*range))
            return;
}

bool SymbolSourceLineIterator::hasSource() const {
    return m_resolver || (m_location && m_fileId != LineQuery::everyFile);
}

bool SymbolSourceLineIterator::queryRange(ISymbolRange& range) {
    SymMgrObjectPtr<IAddress> low;
    SymMgrObjectPtr<IAddress> high;
    range.beginAddress(low);
    range.endAddress(high);
    const bool isEmpty = low->pseudoAddr() == high->pseudoAddr();
    if (m_low && m_low->pseudoAddr() > low->pseudoAddr())
        low = m_low;
    if (m_high && m_high->pseudoAddr() < high->pseudoAddr())
        high = m_high;
    // An empty interval asks for one address: right for a symbol of size 0, wrong for one that is clipped
    // away.
    if (low->pseudoAddr() > high->pseudoAddr() || (low->pseudoAddr() == high->pseudoAddr() && !isEmpty))
        return false;
    if (isFailure(query(*low, *high)))
        m_lines = nullptr;
    if (m_lines && !m_lines->current())
        m_lines = nullptr;
    return m_lines != nullptr;
}

status_t SymbolSourceLineIterator::query(IAddress& low, IAddress& high) {
    if (m_resolver)
        return m_resolver->sourceLines(m_lines, m_symbolId, m_fileId, low.pseudoAddr(), high.pseudoAddr(),
                                       nullptr);
    ISourceFile* file = m_location->file();
    return file ? file->sourceLines(m_lines, m_symbolId, &low, &high) : status_Fail;
}

} // namespace ORN_3_30
