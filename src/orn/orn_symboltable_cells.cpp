// The store under a symbol table: the sorted index of the cells, and the memory of their lists. The table
// alone calls it. In which order a list stands is the table's business.

#include "orn_symboltable_cells.h"

#include "orn_log.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

namespace ORN_3_30 {

// --- Lists

CellEntry** ListStore::allocate(unsigned lengthLog) {
    if (!m_state)
        m_state = std::make_unique<State>();
    State& state = *m_state;
    if (lengthLog < state.free.size() && state.free[lengthLog]) {
        FreeArray* array = state.free[lengthLog];
        state.free[lengthLog] = array->next;
        return reinterpret_cast<CellEntry**>(array);
    }
    std::size_t length = std::size_t{1} << lengthLog;
    if (length > greatestChunk)
        return state.addChunk(length);
    if (state.left < length) {
        // The rest of the old chunk is left unused: it is smaller than one array.
        std::size_t size = std::max(state.nextChunk, length);
        state.bump = state.addChunk(size);
        state.left = size;
        state.nextChunk = std::min(size * 2, greatestChunk);
    }
    CellEntry** array = state.bump;
    state.bump += length;
    state.left -= length;
    return array;
}

void ListStore::free(CellEntry** array, unsigned lengthLog) {
    std::vector<FreeArray*>& lists = m_state->free;
    if (lengthLog >= lists.size())
        lists.resize(lengthLog + 1);
    lists[lengthLog] = new (array) FreeArray{lists[lengthLog]};
}

CellEntry** ListStore::State::addChunk(std::size_t length) {
    chunks.push_back(std::unique_ptr<CellEntry*[]>(new CellEntry*[length]));
    return chunks.back().get();
}

void CellList::reserve(ListStore& store, std::size_t count) {
    if (count <= (isArray() ? array()->capacity() : 1))
        return;
    if (count >> Array::countBits != 0)
        throw std::bad_alloc();
    auto lengthLog = static_cast<unsigned>(std::bit_width(count));
    auto* grown = new (store.allocate(lengthLog)) Array{lengthLog, 0, size()};
    std::copy(begin(), end(), grown->entries());
    if (isArray())
        store.free(reinterpret_cast<CellEntry**>(array()), array()->lengthLog);
    setArray(grown);
}

void CellList::insert(ListStore& store, std::size_t index, CellEntry* entry) {
    if (!m_entry) {
        m_entry = entry;
        return;
    }
    reserve(store, size() + 1);
    array()->openGap(index);
    array()->entries()[index] = entry;
}

void CellList::erase(ListStore& store, std::size_t index) {
    if (!isArray()) {
        m_entry = nullptr;
        return;
    }
    Array* from = array();
    from->closeGap(index);
    if (from->count > 0)
        return;
    m_entry = nullptr;
    store.free(reinterpret_cast<CellEntry**>(from), from->lengthLog);
}

void CellList::Array::moveTo(std::size_t slot) {
    std::memmove(slots() + slot, entries(), count * sizeof(CellEntry*));
    first = slot;
}

/// The shorter side moves. Where it has no room, the entries are moved to the middle, so that it lasts for
/// many newcomers.
void CellList::Array::openGap(std::size_t index) {
    const bool movesFront = index < count - index;
    const std::size_t room = capacity() - count;
    if (movesFront && first == 0)
        moveTo((room + 1) / 2);
    else if (!movesFront && first == room)
        moveTo(room / 2);
    if (movesFront) {
        std::memmove(entries() - 1, entries(), index * sizeof(CellEntry*));
        first = first - 1;
    } else {
        CellEntry** place = entries() + index;
        std::memmove(place + 1, place, (count - index) * sizeof(CellEntry*));
    }
    count = count + 1;
}

void CellList::Array::closeGap(std::size_t index) {
    const std::size_t behind = count - index - 1;
    if (index < behind) {
        std::memmove(entries() + 1, entries(), index * sizeof(CellEntry*));
        first = first + 1;
    } else {
        CellEntry** place = entries() + index;
        std::memmove(place, place + 1, behind * sizeof(CellEntry*));
    }
    count = count - 1;
}

// --- The index

CellIndex::Directory::~Directory() {
    if (isInPlace())
        return;
    delete[] m_keys;
    delete[] m_blocks;
}

void CellIndex::Directory::reserveOneMore() {
    if (m_count < m_capacity)
        return;
    const std::uint32_t capacity = m_capacity * 2;
    std::unique_ptr<unsigned long long[]> keys(new unsigned long long[capacity]);
    std::unique_ptr<Block*[]> blocks(new Block*[capacity]);
    std::copy_n(m_keys, m_count, keys.get());
    std::copy_n(m_blocks, m_count, blocks.get());
    if (!isInPlace()) {
        delete[] m_keys;
        delete[] m_blocks;
    }
    m_keys = keys.release();
    m_blocks = blocks.release();
    m_capacity = capacity;
}

/// The key of the new place is the caller's to set.
void CellIndex::Directory::insert(std::size_t index, Block* block) {
    moveFrom(index, index + 1);
    m_blocks[index] = block;
    ++m_count;
}

void CellIndex::Directory::erase(std::size_t index) {
    moveFrom(index + 1, index);
    --m_count;
}

void CellIndex::Directory::moveFrom(std::size_t from, std::size_t to) {
    std::memmove(m_keys + to, m_keys + from, (m_count - from) * sizeof(*m_keys));
    std::memmove(m_blocks + to, m_blocks + from, (m_count - from) * sizeof(*m_blocks));
}

CellIndex::~CellIndex() {
    for (std::size_t index = 0; index < m_directory.size(); ++index)
        freeBlock(m_directory.blockAt(index));
}

CellIndex::Block* CellIndex::newBlock(std::uint32_t capacity) {
    return new (::operator new(sizeof(Block) + capacity * (sizeof(unsigned long long) + sizeof(CellList))))
        Block{0, capacity};
}

void CellIndex::freeBlock(Block* block) const {
    if (block != &m_firstBlock.header)
        ::operator delete(block);
}

/// Moves the cells from slot `from` on to slot `to` on; counts are the caller's.
void CellIndex::Block::moveCells(std::uint32_t from, std::uint32_t to) {
    std::memmove(keys() + to, keys() + from, (count - from) * sizeof(unsigned long long));
    std::memmove(lists() + to, lists() + from, (count - from) * sizeof(CellList));
}

/// Becomes a copy of the other block's cells from slot `from` on.
void CellIndex::Block::takeCells(const Block& other, std::uint32_t from) {
    count = other.count - from;
    std::memcpy(keys(), other.keys() + from, count * sizeof(unsigned long long));
    std::memcpy(lists(), other.lists() + from, count * sizeof(CellList));
}

CellIndex::Position CellIndex::next(Position position) const {
    return normalised(position.block, position.slot + 1);
}

CellIndex::Position CellIndex::previous(Position position) const {
    if (position.slot > 0)
        return {position.block, position.slot - 1};
    return {position.block - 1, m_directory.blockAt(position.block - 1)->count - 1};
}

/// One place past a block's last cell is the first cell of the next block.
CellIndex::Position CellIndex::normalised(std::size_t block, std::size_t slot) const {
    if (slot < m_directory.blockAt(block)->count)
        return {block, slot};
    return {block + 1, 0};
}

/// The block that holds `key`, or would.
std::size_t CellIndex::blockOf(unsigned long long key) const {
    const unsigned long long* firstKeys = m_directory.keys();
    std::size_t notAbove =
        partitionPoint(m_directory.size(), [=](std::size_t index) { return firstKeys[index] <= key; });
    return notAbove == 0 ? 0 : notAbove - 1;
}

/// The first cell whose key does not come before the place; `isBefore` tells for a key.
template <typename IsBefore>
CellIndex::Position CellIndex::search(unsigned long long key, const IsBefore& isBefore) const {
    if (m_directory.isEmpty())
        return end();
    const std::size_t index = blockOf(key);
    const Block* block = m_directory.blockAt(index);
    const unsigned long long* keys = block->keys();
    // A search without branches waits for each key in turn. All of them are asked for at once, in front of
    // the first wait, which is for the count. Where there are several blocks, all have the full capacity.
    constexpr std::size_t keysPerCacheLine = 8;
    if (m_directory.size() > 1) {
        for (std::size_t line = 0; line < fullCapacity; line += keysPerCacheLine)
            __builtin_prefetch(keys + line);
    }
    return normalised(index,
                      partitionPoint(block->count, [=](std::size_t slot) { return isBefore(keys[slot]); }));
}

CellIndex::Position CellIndex::lowerBound(unsigned long long key) const {
    return search(key, [=](unsigned long long other) { return other < key; });
}

CellIndex::Position CellIndex::upperBound(unsigned long long key) const {
    return search(key, [=](unsigned long long other) { return other <= key; });
}

CellIndex::Position CellIndex::find(unsigned long long key) const {
    Position position = lowerBound(key);
    return position != end() && keyAt(position) == key ? position : end();
}

CellIndex::Position CellIndex::insert(Position before, unsigned long long key) {
    if (m_directory.isEmpty()) {
        m_firstBlock.header.count = 0;
        m_directory.insert(0, &m_firstBlock.header);
    }
    Position where = makeRoom(placeFor(before));
    Block* block = m_directory.blockAt(where.block);
    auto slot = static_cast<std::uint32_t>(where.slot);
    block->moveCells(slot, slot + 1);
    block->keys()[slot] = key;
    block->lists()[slot] = CellList();
    ++block->count;
    if (slot == 0)
        m_directory.keyAt(where.block) = key;
    return where;
}

/// In front of a block's first cell is also behind the last cell of the block before it, if there is room.
CellIndex::Position CellIndex::placeFor(Position before) const {
    if (before.slot > 0 || before.block == 0)
        return before;
    const Block* previous = m_directory.blockAt(before.block - 1);
    if (previous->isFull() && before.block < m_directory.size())
        return before;
    return {before.block - 1, previous->count};
}

CellIndex::Position CellIndex::makeRoom(Position where) {
    Block* block = m_directory.blockAt(where.block);
    if (!block->isFull())
        return where;
    if (block->capacity == fullCapacity)
        return splitBlock(where);
    growBlock(where.block);
    return where;
}

void CellIndex::insertBlock(std::size_t index, std::uint32_t capacity) {
    m_directory.reserveOneMore();
    m_directory.insert(index, newBlock(capacity));
}

void CellIndex::growBlock(std::size_t index) {
    Block* old = m_directory.blockAt(index);
    Block* grown = newBlock(std::min(old->capacity * 2, fullCapacity));
    grown->takeCells(*old, 0);
    m_directory.blockAt(index) = grown;
    freeBlock(old);
}

/// Keys that come in order, up or down, leave full blocks behind them; any others halve the block.
CellIndex::Position CellIndex::splitBlock(Position where) {
    if (where.block + 1 == m_directory.size() && where.slot == fullCapacity) {
        insertBlock(where.block + 1, fullCapacity);
        return {where.block + 1, 0};
    }
    if (where.block == 0 && where.slot == 0) {
        insertBlock(0, fullCapacity);
        return where;
    }
    constexpr std::uint32_t half = fullCapacity / 2;
    insertBlock(where.block + 1, fullCapacity);
    Block* lower = m_directory.blockAt(where.block);
    Block* upper = m_directory.blockAt(where.block + 1);
    upper->takeCells(*lower, half);
    lower->count = half;
    m_directory.keyAt(where.block + 1) = upper->keys()[0];
    if (where.slot <= half)
        return where;
    return {where.block + 1, where.slot - half};
}

CellIndex::Position CellIndex::erase(Position position) {
    Block* block = m_directory.blockAt(position.block);
    auto slot = static_cast<std::uint32_t>(position.slot);
    if (block->count == 1) {
        m_directory.erase(position.block);
        freeBlock(block);
        return {position.block, 0};
    }
    block->moveCells(slot + 1, slot);
    --block->count;
    if (slot == 0)
        m_directory.keyAt(position.block) = block->keys()[0];
    return normalised(position.block, position.slot);
}

} // namespace ORN_3_30
