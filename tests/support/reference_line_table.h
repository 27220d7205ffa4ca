// A line table that is built the slow way: maps of cells, each with the list of what covers it. It is the
// measure for the real one, which has to give the same answers in the same order.
#ifndef ORN_REFERENCE_LINE_TABLE_H
#define ORN_REFERENCE_LINE_TABLE_H

#include <algorithm>
#include <deque>
#include <list>
#include <map>
#include <ostream>
#include <tuple>
#include <vector>

namespace ORN_3_30::test {

/// One line as an iterator yields it.
struct LineAnswer {
    unsigned fileId;
    unsigned long long unitId;
    unsigned line;
    unsigned column;
    unsigned long long tag;
    unsigned long long low;
    unsigned long long high;

    bool operator==(const LineAnswer&) const = default;
};

inline std::ostream& operator<<(std::ostream& stream, const LineAnswer& answer) {
    return stream << "file " << answer.fileId << " unit " << answer.unitId << " " << answer.line << ":"
                  << answer.column << " tag " << answer.tag << " [" << answer.low << ", " << answer.high
                  << ")";
}

class ReferenceLineTable {
public:
    void add(unsigned long long unitId, unsigned fileId, unsigned line, unsigned column,
             unsigned long long address, unsigned long long size, unsigned long long tag) {
        Range& range = m_files[fileId][unitId];
        addToRange(range, {line, column, address, tag, {}}, address + size);
    }

    std::vector<LineAnswer> query(unsigned long long low, unsigned long long high, unsigned long long unitId,
                                  unsigned fileId) const {
        std::vector<LineAnswer> answers;
        const bool everyUnit = unitId == 0 || unitId == 0xFFFFFFFF || unitId == ~0ULL;
        for (const auto& [file, units] : m_files)
            for (const auto& [unit, range] : units)
                if ((fileId == ~0U || fileId == file) && (everyUnit || unitId == unit))
                    queryRange(range, low, high, file, unit, answers);
        return answers;
    }

private:
    struct Locator {
        unsigned line;
        unsigned column;
        unsigned long long address;
        unsigned long long tag;
        std::vector<unsigned long long> ends;

        unsigned long long maxEnd() const { return ends.back(); }
    };
    using Cell = std::list<Locator*>;
    struct Range {
        std::map<unsigned long long, Cell> cells;
        unsigned long long low = ~0ULL;
        unsigned long long high = 0;
    };

    /// A difference in the tag alone counts as less.
    static bool isLess(const Locator& left, const Locator& right) {
        const auto leftKey = std::tie(left.address, left.line, left.column);
        const auto rightKey = std::tie(right.address, right.line, right.column);
        return leftKey != rightKey ? leftKey < rightKey : left.tag != right.tag;
    }

    static bool isSame(const Locator& left, const Locator& right) {
        return left.address == right.address && left.line == right.line && left.column == right.column &&
               left.tag == right.tag;
    }

    static void insertInOrder(Cell& cell, Locator* locator) {
        if (std::find(cell.begin(), cell.end(), locator) != cell.end())
            return;
        auto place = cell.begin();
        while (place != cell.end() && isLess(**place, *locator))
            ++place;
        cell.insert(place, locator);
    }

    static void addEnd(Locator& locator, unsigned long long end) {
        const auto place = std::lower_bound(locator.ends.begin(), locator.ends.end(), end);
        if (place == locator.ends.end() || *place != end)
            locator.ends.insert(place, end);
    }

    Locator* addToCell(Cell& cell, const Locator& key, unsigned long long end) {
        for (Locator* present : cell) {
            if (isSame(*present, key)) {
                addEnd(*present, end);
                return present;
            }
        }
        m_locators.push_back(key);
        Locator* locator = &m_locators.back();
        locator->ends.push_back(end);
        insertInOrder(cell, locator);
        return locator;
    }

    void addToRange(Range& range, const Locator& key, unsigned long long end) {
        const bool isOutside = range.cells.empty() || key.address > range.high || end < range.low;
        range.low = std::min(range.low, key.address);
        range.high = std::max(range.high, end);
        const auto found = range.cells.lower_bound(key.address);
        const bool isNew = found == range.cells.end() || found->first != key.address;
        auto cell = isNew ? range.cells.emplace_hint(found, key.address, Cell()) : found;
        if (isNew && !isOutside && cell != range.cells.begin())
            for (Locator* locator : std::prev(cell)->second)
                if (locator->maxEnd() > key.address)
                    insertInOrder(cell->second, locator);
        Locator* locator = addToCell(cell->second, key, end);
        for (++cell; cell != range.cells.end() && cell->first < end; ++cell)
            insertInOrder(cell->second, locator);
    }

    static void queryRange(const Range& range, unsigned long long low, unsigned long long high, unsigned file,
                           unsigned long long unit, std::vector<LineAnswer>& answers) {
        if (std::max(range.low, low) > std::min(range.high, high))
            return;
        const unsigned long long searchHigh = low == high && low != ~0ULL ? low + 1 : high;
        auto cell = range.cells.upper_bound(low);
        if (cell != range.cells.begin())
            --cell;
        for (bool isFirst = true; cell != range.cells.end() && cell->first < searchHigh;
             ++cell, isFirst = false)
            for (const Locator* locator : cell->second)
                if (isFirst || locator->address == cell->first)
                    for (const unsigned long long end : locator->ends)
                        if (!isFirst || end > low)
                            answers.push_back({file, unit, locator->line, locator->column, locator->tag,
                                               locator->address, end});
    }

    std::deque<Locator> m_locators;
    std::map<unsigned, std::map<unsigned long long, Range>> m_files;
};

} // namespace ORN_3_30::test

#endif
