// The order of a line query's answers. What the order is, is told by a structure that the table could be
// built as and that this store stands for:
//
//   For each file id, ascending, and each unit id in it, ascending, there is a map of cells. A cell begins at
//   an address where some locator starts, and it lists the locators that start there and those that start
//   below and end above its start. Locators that agree in line, column, address and tag are one locator with
//   several ends. The list is ordered by address, line, column; a locator that differs from others in its
//   tag alone stands behind those of them that came into this cell before.
//
//   A query [low, high) visits the last cell that begins at or below `low` (if there is none, the first
//   cell), and then the cells that begin below `high`. In the first cell it yields each locator once for each
//   end above `low`, ends ascending; in a later cell the locators that start there, with all their ends.
//   A query for one address is the query [address, address + 1).
//
// So the answers are all locators that start below `high` and end above `low`, by file id, unit id, address,
// line, column. The cells themselves only matter where locators differ in nothing but the tag. A locator
// comes into the cells below its end when it arrives; if a later arrival gives it a greater end, into the
// cells up to there at that time; and into a cell that is made later when that cell is made, along with the
// others that reach past its start, in the order of the cell before. Those that tie therefore come
//
//   - by time of arrival, if the first cell is their own, or if they are yielded in their own cell;
//   - in the order of the first cell otherwise, which is worked out below from the times of arrival.

#include "orn_linetable_locators.h"

#include "orn_log.h"

#include <algorithm>
#include <limits>
#include <tuple>

namespace ORN_3_30 {

namespace {

using Serial = std::uint64_t;
constexpr Serial never = std::numeric_limits<Serial>::max();

bool isSamePosition(const FoundLocator& left, const FoundLocator& right) {
    return left.range == right.range && left.address == right.address && left.line == right.line &&
           left.column == right.column;
}

/// One of several locators that differ in nothing but the tag.
class TiedLocator {
public:
    struct End {
        unsigned long long tag;
        unsigned long long end;
        Serial arrival;
    };

    /// The ends belong to one tag and ascend.
    TiedLocator(std::vector<End>::const_iterator first, std::vector<End>::const_iterator last)
        : m_tag(first->tag), m_ends(first, last) {
        for (std::size_t i = m_ends.size() - 1; i-- > 0;)
            m_ends[i].arrival = std::min(m_ends[i].arrival, m_ends[i + 1].arrival);
    }

    unsigned long long tag() const { return m_tag; }
    Serial arrival() const { return m_ends.front().arrival; }
    /// When the locator first reached past `address`.
    Serial reached(unsigned long long address) const {
        const auto end =
            std::upper_bound(m_ends.begin(), m_ends.end(), address,
                             [](unsigned long long value, const End& e) { return value < e.end; });
        return end == m_ends.end() ? never : end->arrival;
    }

private:
    unsigned long long m_tag;
    std::vector<End> m_ends; ///< each with the first arrival of this end or a greater one
};

/// A cell by its start and the time it was made.
struct Cell {
    unsigned long long start;
    Serial made;
};

/// Gives locators that tie their order in the first cell of a query.
class TieOrder {
public:
    TieOrder(const SrcLocatorLists& lists, unsigned long long low) : m_lists(lists), m_low(low) {}

    void order(FoundLocator* first, FoundLocator* last) {
        const std::vector<TiedLocator> tied = collectTied(*first);
        std::vector<const TiedLocator*> ordered;
        ordered.reserve(tied.size());
        for (const TiedLocator& locator : tied)
            ordered.push_back(&locator);
        std::sort(ordered.begin(), ordered.end(), [](const TiedLocator* left, const TiedLocator* right) {
            return left->arrival() < right->arrival();
        });
        if (dependsOnCells(tied, *first))
            orderByCells(ordered, *first);
        applyOrder(first, last, tied, ordered);
    }

private:
    /// All locators at the position of `found`, by tag, with all their ends: also those that are no answers.
    std::vector<TiedLocator> collectTied(const FoundLocator& found) const {
        std::vector<TiedLocator::End> ends;
        for (const auto& list : m_lists) {
            for (std::size_t at = list->lowerBound(found.address);
                 at < list->size() && (*list)[at].address == found.address; ++at) {
                const SrcLocator& row = (*list)[at];
                if (row.range == found.range && row.line == found.line && row.column == found.column)
                    ends.push_back({list->tagOf(row), list->endOf(row), row.serial});
            }
        }
        std::sort(ends.begin(), ends.end(), [](const TiedLocator::End& left, const TiedLocator::End& right) {
            return std::tie(left.tag, left.end) < std::tie(right.tag, right.end);
        });
        std::vector<TiedLocator> tied;
        for (auto first = ends.cbegin(); first != ends.cend();) {
            const auto last = std::find_if(
                first, ends.cend(), [first](const TiedLocator::End& end) { return end.tag != first->tag; });
            tied.emplace_back(first, last);
            first = last;
        }
        return tied;
    }

    /// A locator that reached past the query's low end from the start was in every cell up to there from the
    /// start. If all did so, the order of arrival is the order everywhere.
    bool dependsOnCells(const std::vector<TiedLocator>& tied, const FoundLocator& found) const {
        return found.address < m_low &&
               std::any_of(tied.begin(), tied.end(), [this](const TiedLocator& locator) {
                   const Serial reached = locator.reached(m_low);
                   return reached != never && reached != locator.arrival();
               });
    }

    /// Follows the order from cell to cell. A cell took over, in their order, those that reached past its
    /// start when it was made; the others came in one by one. Strictly it took them over from the cell that
    /// lay before it then; a cell made in between changes nothing, as it took them over in the same way.
    void orderByCells(std::vector<const TiedLocator*>& ordered, const FoundLocator& found) const {
        for (const Cell& cell : cellsBetween(found)) {
            const auto cameLater =
                std::stable_partition(ordered.begin(), ordered.end(), [&cell](const TiedLocator* locator) {
                    return locator->reached(cell.start) < cell.made;
                });
            std::stable_sort(cameLater, ordered.end(),
                             [&cell](const TiedLocator* left, const TiedLocator* right) {
                                 return left->reached(cell.start) < right->reached(cell.start);
                             });
        }
    }

    /// The cells of the locators' file and unit behind their own one, up to the query's low end, ascending.
    std::vector<Cell> cellsBetween(const FoundLocator& found) const {
        std::vector<Cell> cells;
        for (const auto& list : m_lists)
            for (std::size_t at = list->lowerBound(found.address + 1);
                 at < list->size() && (*list)[at].address <= m_low; ++at)
                if ((*list)[at].range == found.range)
                    cells.push_back({(*list)[at].address, (*list)[at].serial});
        std::sort(cells.begin(), cells.end(), [](const Cell& left, const Cell& right) {
            return std::tie(left.start, left.made) < std::tie(right.start, right.made);
        });
        cells.erase(
            std::unique(cells.begin(), cells.end(),
                        [](const Cell& left, const Cell& right) { return left.start == right.start; }),
            cells.end());
        return cells;
    }

    /// `tied` is sorted by tag.
    static void applyOrder(FoundLocator* first, FoundLocator* last, const std::vector<TiedLocator>& tied,
                           const std::vector<const TiedLocator*>& ordered) {
        std::vector<std::size_t> ranks(tied.size());
        for (std::size_t rank = 0; rank < ordered.size(); ++rank)
            ranks[static_cast<std::size_t>(ordered[rank] - tied.data())] = rank;
        const auto rankOf = [&tied, &ranks](const FoundLocator& found) {
            const auto locator = std::lower_bound(
                tied.begin(), tied.end(), found.tag,
                [](const TiedLocator& candidate, unsigned long long tag) { return candidate.tag() < tag; });
            return ranks[static_cast<std::size_t>(locator - tied.begin())];
        };
        std::stable_sort(first, last, [&rankOf](const FoundLocator& left, const FoundLocator& right) {
            return rankOf(left) < rankOf(right);
        });
    }

    const SrcLocatorLists& m_lists;
    unsigned long long m_low;
};

auto sortKey(const FoundLocator& found) {
    return std::tie(found.fileId, found.unitId, found.address, found.line, found.column, found.tag,
                    found.end);
}

void sortAndDropDuplicates(FoundLocators& found) {
    const auto before = [](const FoundLocator& left, const FoundLocator& right) {
        return sortKey(left) < sortKey(right);
    };
    const auto same = [](const FoundLocator& left, const FoundLocator& right) {
        return sortKey(left) == sortKey(right);
    };
    if (!std::is_sorted(found.begin(), found.end(), before))
        std::sort(found.begin(), found.end(), before);
    found.shrink(static_cast<std::size_t>(std::unique(found.begin(), found.end(), same) - found.begin()));
}

} // namespace

void orderFoundLocators(FoundLocators& found, const SrcLocatorLists& lists, unsigned long long low) {
    if (found.size() < 2)
        return;
    sortAndDropDuplicates(found);
    TieOrder ties(lists, low);
    for (FoundLocator* first = found.begin(); first != found.end();) {
        FoundLocator* last = first + 1;
        while (last != found.end() && isSamePosition(*first, *last))
            ++last;
        // Ends of one locator stand in order already.
        if (first->tag != last[-1].tag)
            ties.order(first, last);
        first = last;
    }
}

} // namespace ORN_3_30
