// The search by ranges: which symbol owns a set of code intervals? For clients that know code by its extent
// only, for instance from a dynamic code record. The walk goes from the outermost range at the first interval
// inwards and keeps the innermost symbol that covers the whole set.

#include "orn_modulesymbolbank.h"

#include "orn/symbol.h"
#include "orn_log.h"

#include <new>

namespace ORN_3_30 {

namespace {

using RangeIterator = IIterator<SymMgrObjectPtr<ISymbolRange>>;
using Interval = internal::IntervalList::value_type;

/// A sum that wraps reaches to the end of the address space.
unsigned long long endOf(unsigned long long begin, unsigned long long size) {
    const unsigned long long end = begin + size;
    return end < begin ? ~0ULL : end;
}

internal::IntervalList intervalsOf(const IRanges& ranges) {
    internal::IntervalList intervals;
    for (unsigned long index = 0; index < ranges.getCount(); ++index) {
        unsigned long long begin = 0;
        unsigned long long size = 0;
        if (ranges.getRange(index, begin, size))
            intervals.emplace_back(begin, endOf(begin, size));
    }
    return intervals;
}

/// Appends to `rest` what of `interval` lies outside of `range`.
void appendUncovered(internal::IntervalList& rest, const Interval& interval, const Interval& range) {
    const auto [begin, end] = interval;
    const auto [low, high] = range;
    if (low <= begin && end <= high)
        return;
    if (end <= low || high <= begin) {
        rest.push_back(interval);
        return;
    }
    if (begin < low)
        rest.emplace_back(begin, low);
    if (high < end)
        rest.emplace_back(high, end);
}

internal::IntervalList uncovered(const internal::IntervalList& intervals, const Interval& range) {
    internal::IntervalList rest;
    for (const Interval& interval : intervals)
        appendUncovered(rest, interval, range);
    return rest;
}

/// Whether the ranges of `symbol`, with those of its thunks if they count, cover every interval. Inlined
/// code has no thunks of its own.
bool symbolCovers(ISymbol& symbol, const internal::IntervalList& intervals, bool useThunkRanges) {
    SymMgrObjectPtr<RangeIterator> symbolRanges;
    symbol.ranges(symbolRanges);
    if (!symbolRanges)
        return false;
    internal::IntervalList rest = intervals;
    if (internal::coverIntervals(rest, symbolRanges))
        return true;
    if (!useThunkRanges)
        return false;
    SymMgrObjectPtr<RangeIterator> thunkRanges;
    symbol.thunkRanges(thunkRanges);
    return thunkRanges && internal::coverIntervals(rest, thunkRanges);
}

/// Walks from `range` inwards at `addr` for as long as the symbols cover all of `intervals`.
SymMgrObjectPtr<ISymbol> innermostCovering(SymMgrObjectPtr<ISymbolRange> range, IAddress* addr,
                                           const internal::IntervalList& intervals, bool stopAtInline,
                                           bool useThunkRanges) {
    SymMgrObjectPtr<ISymbol> match;
    while (range) {
        const bool isInlined = range->inlineInstance() != nullptr;
        if (isInlined && stopAtInline)
            break;
        ISymbol* symbol = range->symbol();
        if (!symbol || !symbolCovers(*symbol, intervals, useThunkRanges && !isInlined))
            break;
        match = symbol;
        SymMgrObjectPtr<ISymbolRange> nested;
        range->nestedRangeByAddress(nested, addr);
        range = nested;
    }
    return match;
}

} // namespace

bool internal::coverIntervals(IntervalList& rest, SymMgrObjectPtr<RangeIterator>& outRanges) {
    if (!ORN_ASSERT(outRanges != 0L))
        return false;
    for (SymMgrObjectPtr<ISymbolRange> range = outRanges->current(); range && !rest.empty();
         range = outRanges->next() ? outRanges->current() : nullptr) {
        SymMgrObjectPtr<IAddress> addr;
        range->beginAddress(addr);
        if (!ORN_ASSERT(addr != 0L))
            return false;
        const unsigned long long low = addr->rva();
        rest = uncovered(rest, {low, endOf(low, range->size())});
    }
    return rest.empty();
}

status_t ModuleSymbolBank::symbolByRanges(IRanges* ranges, SymMgrObjectPtr<ISymbol>& out, bool stopAtInline,
                                          bool useThunkRanges) {
    ORN_TRACE("symbolByRanges");
    if (!ORN_ASSERT(ranges != 0L && ranges->getCount() > 0))
        return status_InvalidArg;
    out = nullptr;
    try {
        unsigned long long begin = 0;
        unsigned long long size = 0;
        ranges->getRange(0, begin, size);

        SymMgrObjectPtr<IAddress> addr;
        status_t status = addressFromRVA(begin, addr);
        if (!ORN_ASSERT(status == status_Ok))
            return status;
        if (!ORN_ASSERT(addr != 0L))
            return status_False;

        SymMgrObjectPtr<ISymbolRange> range;
        status = symbolRangeByAddress(addr, range, symbol_kind_code, nullptr);
        if (!ORN_ASSERT(status == status_Ok))
            return status;
        if (!ORN_ASSERT(range != 0L))
            return status_False;

        out = innermostCovering(range, addr, intervalsOf(*ranges), stopAtInline, useThunkRanges);
        return out ? status_Ok : status_False;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

} // namespace ORN_3_30
