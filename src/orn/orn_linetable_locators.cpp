// The store of the line table. Locators are appended as line programs deliver them; the first query after
// that sorts them into a list, together with the lists before it that are not much longer, so that each
// locator is moved a logarithmic number of times however loads and queries alternate. A list has two indices:
// starts and ends by blocks of rows, for queries by address, and positions by file and unit, made when the
// first query for a file comes. Which answers a query has and in which order is the business of
// orn_linetable_order.cpp and of the iterators.

#include "orn_linetable_locators.h"

#include "orn_log.h"

#include <algorithm>
#include <new>

namespace ORN_3_30 {

namespace {

/// Number of the first of `count` ascending elements that does not start below `address`. Without branches
/// that depend on the data, as the processor cannot guess them.
template <typename Element, typename StartOf>
std::size_t countBelow(const Element* elements, std::size_t count, unsigned long long address,
                       const StartOf& startOf) {
    const Element* first = elements;
    while (count > 1) {
        const std::size_t half = count / 2;
        first += startOf(first[half - 1]) < address ? half : 0;
        count -= half;
    }
    return static_cast<std::size_t>(first - elements) + (startOf(*first) < address);
}

} // namespace

void FoundLocators::pushToMany(const FoundLocator& found) {
    if (m_many.empty())
        m_many.assign(m_few.begin(), m_few.end());
    m_many.push_back(found);
}

void FoundLocators::clear() {
    m_count = 0;
    m_many.clear();
}

void FoundLocators::shrink(std::size_t count) {
    m_count = count;
    if (!m_many.empty())
        m_many.resize(std::max(count, std::size_t(1)));
}

// Arrivals

void ArrivedLocators::addChunk() {
    m_chunks.push_back(std::make_unique_for_overwrite<SrcLocator[]>(rowsOfChunk));
    m_free = m_chunks.back().get();
    m_end = m_free + rowsOfChunk;
}

void ArrivedLocators::storeWide(SrcLocator& stored, const SrcLocatorStruct& locator) {
    stored.size = SrcLocator::isWide;
    stored.tag = static_cast<std::uint32_t>(m_wide.size());
    m_wide.push_back({locator.end, locator.tag});
}

/// Serials and positions have 32 bits; a table that needs more does not fit into memory anyway.
std::uint32_t ArrivedLocators::nextSerial() {
    if (m_serial == 0xFFFFFFFF)
        throw std::bad_alloc();
    return m_serial++;
}

std::size_t ArrivedLocators::size() const {
    return m_chunks.empty() ? 0 : m_chunks.size() * rowsOfChunk - static_cast<std::size_t>(m_end - m_free);
}

std::size_t ArrivedLocators::rowsIn(std::size_t chunk) const {
    const bool isLast = chunk + 1 == m_chunks.size();
    return isLast ? rowsOfChunk - static_cast<std::size_t>(m_end - m_free) : rowsOfChunk;
}

void ArrivedLocators::clear() {
    m_chunks = decltype(m_chunks)();
    m_wide = decltype(m_wide)();
    m_free = m_end = nullptr;
}

// Making lists

/// Neighbours each of which begins where the one before it ends. A line program delivers nothing else within
/// a sequence, so that sorting its rows is mostly a matter of putting whole sequences one behind the other.
/// Ascending addresses alone would not do: they run on from a sequence of cold code into the far away one of
/// the code that it was split from, across the sequences of all other units.
struct SrcLocatorList::Segment {
    const SrcLocator* begin;
    const SrcLocator* end;
    std::uint32_t wideOffset; ///< of what its rows have in the side list

    unsigned long long low() const { return begin->address; }
    unsigned long long high() const { return end[-1].address; }
};

SrcLocatorList::SrcLocatorList(const SrcLocatorLists& lists, std::size_t firstList,
                               ArrivedLocators& arrived) {
    std::vector<Segment> segments;
    std::size_t rowCount = arrived.size();
    for (std::size_t index = firstList; index < lists.size(); ++index) {
        const SrcLocatorList& list = *lists[index];
        addSegments(list.m_rows.data(), list.size(), segments);
        m_wide.insert(m_wide.end(), list.m_wide.begin(), list.m_wide.end());
        rowCount += list.size();
    }
    for (std::size_t chunk = 0; chunk < arrived.m_chunks.size(); ++chunk)
        addSegments(arrived.m_chunks[chunk].get(), arrived.rowsIn(chunk), segments);
    m_wide.insert(m_wide.end(), arrived.m_wide.begin(), arrived.m_wide.end());
    m_rows.reserve(rowCount);
    copySegments(segments);
    dropDuplicates();
    indexEnds();
    arrived.clear(); // last, so that nothing is lost if memory runs out
}

/// Their side list is going to be appended to the one that is there now.
void SrcLocatorList::addSegments(const SrcLocator* rows, std::size_t count,
                                 std::vector<Segment>& segments) const {
    const SrcLocator* row = rows;
    const SrcLocator* const last = rows + count;
    const auto continues = [](const SrcLocator& left, const SrcLocator& right) {
        return left.address + left.size == right.address && left.address <= right.address;
    };
    while (row != last) {
        const SrcLocator* const begin = row;
        do
            ++row;
        while (row != last && continues(row[-1], *row));
        segments.push_back({begin, row, static_cast<std::uint32_t>(m_wide.size())});
    }
}

/// Copies the segments one behind the other, the lowest in front, and sorts the stretches in which they reach
/// into each other.
void SrcLocatorList::copySegments(std::vector<Segment>& segments) {
    const auto startsLower = [](const Segment& left, const Segment& right) {
        return left.low() < right.low();
    };
    if (!std::is_sorted(segments.begin(), segments.end(), startsLower))
        std::stable_sort(segments.begin(), segments.end(), startsLower);
    const auto lower = [](const SrcLocator& left, const SrcLocator& right) {
        return left.address != right.address ? left.address < right.address : left.serial < right.serial;
    };
    for (std::size_t first = 0; first < segments.size();) {
        const auto stretch = static_cast<std::ptrdiff_t>(m_rows.size());
        unsigned long long high = 0;
        std::size_t next = first;
        do {
            high = std::max(high, segments[next].high());
            copySegment(segments[next]);
            ++next;
        } while (next < segments.size() && segments[next].low() < high);
        if (next - first > 1)
            std::sort(m_rows.begin() + stretch, m_rows.end(), lower);
        first = next;
    }
}

void SrcLocatorList::copySegment(const Segment& segment) {
    m_rows.insert(m_rows.end(), segment.begin, segment.end);
    if (segment.wideOffset == 0)
        return;
    const auto count = segment.end - segment.begin;
    for (auto row = m_rows.end() - count; row != m_rows.end(); ++row)
        if (row->size == SrcLocator::isWide)
            row->tag += segment.wideOffset;
}

/// Gives the locators of one address their order and drops repetitions; the first to arrive stays.
void SrcLocatorList::dropDuplicates() {
    const auto before = [this](const SrcLocator& left, const SrcLocator& right) {
        return comesBefore(left, right);
    };
    std::size_t kept = 0;
    for (std::size_t first = 0; first < m_rows.size();) {
        std::size_t last = first + 1;
        while (last < m_rows.size() && m_rows[last].address == m_rows[first].address)
            ++last;
        if (last - first > 1)
            std::sort(m_rows.begin() + static_cast<std::ptrdiff_t>(first),
                      m_rows.begin() + static_cast<std::ptrdiff_t>(last), before);
        const std::size_t groupStart = kept;
        for (; first < last; ++first)
            if (kept == groupStart || !isSame(m_rows[kept - 1], m_rows[first]))
                m_rows[kept++] = m_rows[first];
    }
    const bool isWasteful = kept + kept / 16 < m_rows.size();
    m_rows.resize(kept);
    if (isWasteful)
        m_rows.shrink_to_fit();
}

/// Order within a list: by address; the rest only brings duplicates together, the first to arrive in front.
bool SrcLocatorList::comesBefore(const SrcLocator& left, const SrcLocator& right) const {
    if (left.address != right.address)
        return left.address < right.address;
    if (left.range != right.range)
        return left.range < right.range;
    if (left.line != right.line)
        return left.line < right.line;
    if (left.column != right.column)
        return left.column < right.column;
    if (endOf(left) != endOf(right))
        return endOf(left) < endOf(right);
    if (tagOf(left) != tagOf(right))
        return tagOf(left) < tagOf(right);
    return left.serial < right.serial;
}

bool SrcLocatorList::isSame(const SrcLocator& left, const SrcLocator& right) const {
    return left.address == right.address && left.range == right.range && left.line == right.line &&
           left.column == right.column && endOf(left) == endOf(right) && tagOf(left) == tagOf(right);
}

// Index of starts and ends

void SrcLocatorList::indexEnds() {
    const std::size_t blocks = (m_rows.size() + rowsOfBlock - 1) / rowsOfBlock;
    m_blocks.reserve(blocks);
    m_groupStarts.reserve((blocks + blocksOfGroup - 1) / blocksOfGroup);
    m_stretchEnds.assign((blocks + blocksOfStretch - 1) / blocksOfStretch, 0);
    unsigned long long greatest = 0;
    for (std::size_t block = 0; block < blocks; ++block) {
        const std::size_t first = block * rowsOfBlock;
        const std::size_t last = std::min(first + rowsOfBlock, m_rows.size());
        unsigned long long end = 0;
        for (std::size_t position = first; position < last; ++position)
            end = std::max(end, endOf(m_rows[position]));
        greatest = std::max(greatest, end);
        m_blocks.push_back({m_rows[first].address, end, greatest});
        if (block % blocksOfGroup == 0)
            m_groupStarts.push_back(m_rows[first].address);
        auto& stretchEnd = m_stretchEnds[block / blocksOfStretch];
        stretchEnd = std::max(stretchEnd, end);
    }
}

/// From the starts of groups, which stay in the inner caches, to a block, to the position.
std::size_t SrcLocatorList::lowerBound(unsigned long long address) const {
    if (m_rows.empty())
        return 0;
    const std::size_t group = countBelow(m_groupStarts.data(), m_groupStarts.size(), address,
                                         [](unsigned long long start) { return start; });
    if (group == 0)
        return 0;
    const std::size_t firstBlock = (group - 1) * blocksOfGroup;
    const std::size_t blocks = std::min(blocksOfGroup, m_blocks.size() - firstBlock);
    const std::size_t block = firstBlock + countBelow(&m_blocks[firstBlock], blocks, address,
                                                      [](const Block& candidate) { return candidate.start; });
    // This block starts at `address` or above, the one before it below: the position may lie in that one.
    const std::size_t last = std::min(block * rowsOfBlock, m_rows.size());
    std::size_t position = (block - 1) * rowsOfBlock;
    while (position < last && m_rows[position].address < address)
        ++position;
    return position;
}

// Index by file and unit

/// Sorts by counting where that is cheaper: a small list of a table with many ranges is sorted by comparing.
void SrcLocatorList::sortPositionsByRange(std::size_t rangeCount) {
    m_positions.resize(m_rows.size());
    if (m_rows.size() < rangeCount / 8) {
        for (std::size_t position = 0; position < m_rows.size(); ++position)
            m_positions[position] = static_cast<std::uint32_t>(position);
        std::stable_sort(m_positions.begin(), m_positions.end(),
                         [this](std::uint32_t left, std::uint32_t right) {
                             return m_rows[left].range < m_rows[right].range;
                         });
        return;
    }
    std::vector<std::uint32_t> next(rangeCount + 1, 0);
    for (const SrcLocator& row : m_rows)
        ++next[row.range + 1];
    for (std::size_t range = 0; range < rangeCount; ++range)
        next[range + 1] += next[range];
    for (std::size_t position = 0; position < m_rows.size(); ++position)
        m_positions[next[m_rows[position].range]++] = static_cast<std::uint32_t>(position);
}

void SrcLocatorList::makeGroups() {
    for (std::size_t first = 0; first < m_positions.size();) {
        const std::uint32_t range = m_rows[m_positions[first]].range;
        std::size_t last = first + 1;
        while (last < m_positions.size() && m_rows[m_positions[last]].range == range)
            ++last;
        m_groups.push_back(
            {0, 0, range, static_cast<std::uint32_t>(first), static_cast<std::uint32_t>(last)});
        first = last;
    }
}

void SrcLocatorList::sortGroups() {
    std::sort(m_groups.begin(), m_groups.end(), [](const Group& left, const Group& right) {
        return left.fileId != right.fileId ? left.fileId < right.fileId : left.unitId < right.unitId;
    });
}

} // namespace ORN_3_30
