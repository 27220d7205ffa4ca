// The flat store beneath the line table: locators in arrival order, then in sorted lists that never change.
#ifndef ORN_LINETABLE_LOCATORS_H
#define ORN_LINETABLE_LOCATORS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace ORN_3_30 {

/// One source position bound to an interval of code, as it is added.
struct SrcLocatorStruct {
    unsigned line;
    unsigned column;
    unsigned long long address; ///< start of the interval
    unsigned long long tag;
    unsigned long long end; ///< behind the interval's last byte
};

/// The same as it is stored. A module has millions of these: 32 bytes each, two in a cache line. What does
/// not fit (a length or a tag of more than 32 bits) stands in a side list, found through `tag`.
struct SrcLocator {
    static constexpr std::uint32_t isWide = 0xFFFFFFFF;

    unsigned long long address;
    std::uint32_t size; ///< `isWide`: size and tag are number `tag` of the side list
    std::uint32_t line;
    std::uint32_t column;
    std::uint32_t tag;
    std::uint32_t range;  ///< number of the SrcRange, which knows file and unit
    std::uint32_t serial; ///< number in the order of arrival
};

/// What does not fit a SrcLocator.
struct WideLocatorPart {
    unsigned long long end;
    unsigned long long tag;
};

/// Answer of a query: a locator with one of its ends, and whose it is.
struct FoundLocator : SrcLocatorStruct {
    unsigned long long unitId;
    unsigned fileId;
    std::uint32_t range;
};

/// Answers of one query, one after the other. Most queries for an address have one or two, so that these
/// need no memory of their own.
class FoundLocators {
public:
    void push(const FoundLocator& found) {
        if (m_count < m_few.size())
            m_few[m_count] = found;
        else
            pushToMany(found);
        ++m_count;
    }
    void clear();
    void shrink(std::size_t count);

    std::size_t size() const { return m_count; }
    FoundLocator* begin() { return m_many.empty() ? m_few.data() : m_many.data(); }
    FoundLocator* end() { return begin() + m_count; }
    const FoundLocator& operator[](std::size_t index) const {
        return m_many.empty() ? m_few[index] : m_many[index];
    }

private:
    void pushToMany(const FoundLocator& found);

    std::size_t m_count = 0;
    std::array<FoundLocator, 2> m_few;
    std::vector<FoundLocator> m_many; ///< all of them, once there are more than a few
};

/// Locators in order of arrival, since the last query. In chunks: growing copies nothing.
class ArrivedLocators {
public:
    void add(std::uint32_t range, const SrcLocatorStruct& locator) {
        if (m_free == m_end)
            addChunk();
        const unsigned long long size = locator.end - locator.address;
        SrcLocator& stored = *m_free;
        stored.address = locator.address;
        stored.line = locator.line;
        stored.column = locator.column;
        stored.range = range;
        stored.serial = nextSerial();
        if (size < SrcLocator::isWide && locator.tag <= 0xFFFFFFFF) {
            stored.size = static_cast<std::uint32_t>(size);
            stored.tag = static_cast<std::uint32_t>(locator.tag);
        } else {
            storeWide(stored, locator);
        }
        ++m_free;
    }

    bool isEmpty() const { return m_chunks.empty(); }
    std::size_t size() const;

private:
    friend class SrcLocatorList;

    static constexpr std::size_t rowsOfChunk = 2048;

    void addChunk();
    void storeWide(SrcLocator& stored, const SrcLocatorStruct& locator);
    std::uint32_t nextSerial();
    std::size_t rowsIn(std::size_t chunk) const;
    void clear();

    std::vector<std::unique_ptr<SrcLocator[]>> m_chunks;
    std::vector<WideLocatorPart> m_wide;
    SrcLocator* m_free = nullptr;
    SrcLocator* m_end = nullptr;
    std::uint32_t m_serial = 0;
};

/// Locators ordered by address, without duplicates, with an index of their starts and ends. Never changes
/// once it is made (but for the index by file, which is built on demand), so that whoever holds it may walk
/// it while the table goes on growing.
class SrcLocatorList {
public:
    /// One (file, unit) pair among the locators, in the order in which answers come.
    struct Group {
        unsigned long long unitId;
        unsigned fileId;
        std::uint32_t range;
        std::uint32_t first; ///< of its positions
        std::uint32_t last;  ///< behind them
    };

    /// The locators of `lists` from number `firstList` on, and everything out of `arrived`.
    SrcLocatorList(const std::vector<std::shared_ptr<SrcLocatorList>>& lists, std::size_t firstList,
                   ArrivedLocators& arrived);

    std::size_t size() const { return m_rows.size(); }
    const SrcLocator& operator[](std::size_t position) const { return m_rows[position]; }
    unsigned long long endOf(const SrcLocator& row) const {
        return row.size != SrcLocator::isWide ? row.address + row.size : m_wide[row.tag].end;
    }
    unsigned long long tagOf(const SrcLocator& row) const {
        return row.size != SrcLocator::isWide ? row.tag : m_wide[row.tag].tag;
    }

    /// The first position whose address is not below `address`.
    std::size_t lowerBound(unsigned long long address) const;

    /// Calls `visit` for every locator before `position` that ends above `low`.
    template <typename Visit>
    void visitReaching(std::size_t position, unsigned long long low, const Visit& visit) const {
        std::size_t block = position / rowsOfBlock;
        visitBlock(block * rowsOfBlock, position, low, visit);
        while (block > 0 && m_blocks[block - 1].greatestEndSoFar > low) {
            --block;
            if (block % blocksOfStretch == blocksOfStretch - 1 &&
                m_stretchEnds[block / blocksOfStretch] <= low)
                block -= blocksOfStretch - 1;
            else if (m_blocks[block].end > low)
                visitBlock(block * rowsOfBlock, (block + 1) * rowsOfBlock, low, visit);
        }
    }

    /// Builds the index by file and unit if it is not there yet; `ranges` are those of the table.
    template <typename Ranges>
    void indexByFile(const Ranges& ranges) {
        if (!m_positions.empty() || m_rows.empty())
            return;
        sortPositionsByRange(ranges.size());
        makeGroups();
        for (Group& group : m_groups) {
            const auto& range = ranges[group.range];
            group.fileId = range.fileId();
            group.unitId = range.unitId();
        }
        sortGroups();
    }
    /// Valid after indexByFile(). Groups ascend by file, then unit.
    const std::vector<Group>& groups() const { return m_groups; }
    /// The group's positions, which ascend by address.
    const std::uint32_t* positionsBegin(const Group& group) const { return m_positions.data() + group.first; }
    const std::uint32_t* positionsEnd(const Group& group) const { return m_positions.data() + group.last; }

private:
    static constexpr std::size_t rowsOfBlock = 16;
    static constexpr std::size_t blocksOfGroup = 8;
    static constexpr std::size_t blocksOfStretch = 64;

    struct Segment;
    /// What a search needs to know of neighbouring rows. All in one place, since each place costs a trip to
    /// memory.
    struct Block {
        unsigned long long start;
        unsigned long long end;              ///< the greatest of its rows
        unsigned long long greatestEndSoFar; ///< of all blocks up to and with this one
    };

    template <typename Visit>
    void visitBlock(std::size_t first, std::size_t last, unsigned long long low, const Visit& visit) const {
        for (std::size_t position = first; position < last; ++position)
            if (endOf(m_rows[position]) > low)
                visit(m_rows[position]);
    }

    void addSegments(const SrcLocator* rows, std::size_t count, std::vector<Segment>& segments) const;
    void copySegments(std::vector<Segment>& segments);
    void copySegment(const Segment& segment);
    void dropDuplicates();
    void indexEnds();
    bool comesBefore(const SrcLocator& left, const SrcLocator& right) const;
    bool isSame(const SrcLocator& left, const SrcLocator& right) const;
    void sortPositionsByRange(std::size_t rangeCount);
    void makeGroups();
    void sortGroups();

    std::vector<SrcLocator> m_rows;
    std::vector<WideLocatorPart> m_wide;

    std::vector<Block> m_blocks;
    std::vector<unsigned long long> m_groupStarts;
    std::vector<unsigned long long> m_stretchEnds;

    std::vector<std::uint32_t> m_positions;
    std::vector<Group> m_groups;
};

/// All lists of a table: each arrived before the next.
using SrcLocatorLists = std::vector<std::shared_ptr<SrcLocatorList>>;

/// Puts the answers of a query that begins at `low` into their order and drops duplicates. The order is told
/// in orn_linetable_order.cpp.
void orderFoundLocators(FoundLocators& found, const SrcLocatorLists& lists, unsigned long long low);

} // namespace ORN_3_30

#endif
