// The sorted index of a symbol table's cells. The table alone calls it. It knows keys and list heads and
// nothing of entries; lists are the table's business.

#include "orn_symboltable_cells.h"

#include "orn_log.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace ORN_3_30 {

namespace {

/// How many of `count` elements come before the place that is searched, by a search without branches: on
/// random addresses every branch of a plain binary search is mispredicted half the time.
template <typename IsBefore>
std::size_t partitionPoint(std::size_t count, const IsBefore& isBefore) {
    if (count == 0)
        return 0;
    std::size_t base = 0;
    while (count > 1) {
        std::size_t half = count / 2;
        base += isBefore(base + half - 1) ? half : 0;
        count -= half;
    }
    return base + (isBefore(base) ? 1 : 0);
}

/// Makes room for one more element, so that inserting it cannot fail.
template <typename T>
void reserveOneMore(std::vector<T>& vector) {
    if (vector.size() == vector.capacity())
        vector.reserve(std::max<std::size_t>(1, vector.size() * 2));
}

} // namespace

CellIndex::~CellIndex() {
    for (Block* block : m_blocks)
        freeBlock(block);
}

CellIndex::Block* CellIndex::newBlock(std::uint32_t capacity) {
    return new (::operator new(sizeof(Block) + capacity * sizeof(Cell))) Block{0, capacity};
}

void CellIndex::freeBlock(Block* block) {
    ::operator delete(block);
}

/// Moves the cells from slot `from` on to slot `to` on; counts are the caller's.
void CellIndex::Block::moveCells(std::uint32_t from, std::uint32_t to) {
    std::memmove(cells() + to, cells() + from, (count - from) * sizeof(Cell));
}

CellIndex::Position CellIndex::next(Position position) const {
    return normalised(position.block, position.slot + 1);
}

CellIndex::Position CellIndex::previous(Position position) const {
    if (position.slot > 0)
        return {position.block, position.slot - 1};
    return {position.block - 1, m_blocks[position.block - 1]->count - 1};
}

/// One place past a block's last cell is the first cell of the next block.
CellIndex::Position CellIndex::normalised(std::size_t block, std::size_t slot) const {
    if (slot < m_blocks[block]->count)
        return {block, slot};
    return {block + 1, 0};
}

/// The block that holds `key`, or would.
std::size_t CellIndex::blockOf(unsigned long long key) const {
    const unsigned long long* firstKeys = m_firstKeys.data();
    std::size_t notAbove =
        partitionPoint(m_firstKeys.size(), [=](std::size_t index) { return firstKeys[index] <= key; });
    return notAbove == 0 ? 0 : notAbove - 1;
}

CellIndex::Position CellIndex::lowerBound(unsigned long long key) const {
    if (m_blocks.empty())
        return end();
    std::size_t block = blockOf(key);
    const Cell* cells = m_blocks[block]->cells();
    return normalised(block, partitionPoint(m_blocks[block]->count,
                                            [=](std::size_t slot) { return cells[slot].key < key; }));
}

CellIndex::Position CellIndex::upperBound(unsigned long long key) const {
    if (m_blocks.empty())
        return end();
    std::size_t block = blockOf(key);
    const Cell* cells = m_blocks[block]->cells();
    return normalised(block, partitionPoint(m_blocks[block]->count,
                                            [=](std::size_t slot) { return cells[slot].key <= key; }));
}

CellIndex::Position CellIndex::find(unsigned long long key) const {
    Position position = lowerBound(key);
    return position != end() && at(position).key == key ? position : end();
}

CellIndex::Position CellIndex::insert(Position before, unsigned long long key) {
    if (m_blocks.empty())
        insertBlock(0, firstCapacity);
    Position where = makeRoom(placeFor(before));
    Block* block = m_blocks[where.block];
    auto slot = static_cast<std::uint32_t>(where.slot);
    block->moveCells(slot, slot + 1);
    block->cells()[slot] = {key, nullptr};
    ++block->count;
    if (slot == 0)
        m_firstKeys[where.block] = key;
    return where;
}

/// In front of a block's first cell is also behind the last cell of the block before it, if there is room.
CellIndex::Position CellIndex::placeFor(Position before) const {
    if (before.slot > 0 || before.block == 0)
        return before;
    const Block* previous = m_blocks[before.block - 1];
    if (previous->isFull() && before.block < m_blocks.size())
        return before;
    return {before.block - 1, previous->count};
}

CellIndex::Position CellIndex::makeRoom(Position where) {
    Block* block = m_blocks[where.block];
    if (!block->isFull())
        return where;
    if (block->capacity == fullCapacity)
        return splitBlock(where);
    growBlock(where.block);
    return where;
}

void CellIndex::insertBlock(std::size_t index, std::uint32_t capacity) {
    reserveOneMore(m_firstKeys);
    reserveOneMore(m_blocks);
    m_blocks.insert(m_blocks.begin() + static_cast<std::ptrdiff_t>(index), newBlock(capacity));
    m_firstKeys.insert(m_firstKeys.begin() + static_cast<std::ptrdiff_t>(index), 0);
}

void CellIndex::growBlock(std::size_t index) {
    Block* old = m_blocks[index];
    Block* grown = newBlock(std::min(old->capacity * 2, fullCapacity));
    std::memcpy(grown->cells(), old->cells(), old->count * sizeof(Cell));
    grown->count = old->count;
    m_blocks[index] = grown;
    freeBlock(old);
}

/// Keys that come in order, up or down, leave full blocks behind them; any others halve the block.
CellIndex::Position CellIndex::splitBlock(Position where) {
    if (where.block + 1 == m_blocks.size() && where.slot == fullCapacity) {
        insertBlock(where.block + 1, fullCapacity);
        return {where.block + 1, 0};
    }
    if (where.block == 0 && where.slot == 0) {
        insertBlock(0, fullCapacity);
        return where;
    }
    constexpr std::uint32_t half = fullCapacity / 2;
    insertBlock(where.block + 1, fullCapacity);
    Block* lower = m_blocks[where.block];
    Block* upper = m_blocks[where.block + 1];
    std::memcpy(upper->cells(), lower->cells() + half, (fullCapacity - half) * sizeof(Cell));
    lower->count = half;
    upper->count = fullCapacity - half;
    m_firstKeys[where.block + 1] = upper->cells()[0].key;
    if (where.slot <= half)
        return where;
    return {where.block + 1, where.slot - half};
}

CellIndex::Position CellIndex::erase(Position position) {
    Block* block = m_blocks[position.block];
    auto slot = static_cast<std::uint32_t>(position.slot);
    if (block->count == 1) {
        auto offset = static_cast<std::ptrdiff_t>(position.block);
        m_blocks.erase(m_blocks.begin() + offset);
        m_firstKeys.erase(m_firstKeys.begin() + offset);
        freeBlock(block);
        return {position.block, 0};
    }
    block->moveCells(slot + 1, slot);
    --block->count;
    if (slot == 0)
        m_firstKeys[position.block] = block->cells()[0].key;
    return normalised(position.block, position.slot);
}

} // namespace ORN_3_30
