// The store under a symbol table: a sorted index of cells, and the records in their lists.
#ifndef ORN_SYMBOLTABLE_CELLS_H
#define ORN_SYMBOLTABLE_CELLS_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace ORN_3_30 {

class Scope;
struct CellEntry;

/// Link of a cell's list: it makes one entry known to one cell.
struct CellNode {
    CellEntry* entry;
    CellNode* next;
};

/// One interval of a scope, half-open. `start` equals `end` for a symbol of size zero, which covers its whole
/// cell; an interval that ends below its start, as sums that wrap give it, covers nothing.
struct CellEntry {
    CellNode ownerNode; ///< the node of the cell where the entry starts: entry and owner live together
    unsigned long long start;
    unsigned long long end;
    Scope* scope;

    bool isEmpty() const { return start == end; }
};

/// One stretch of address space, from its key to the key of the next cell, and the list of what covers it.
struct Cell {
    unsigned long long key;
    CellNode* head; ///< may be null: an empty cell marks the end of a section
};

/// Hands out records from chunks that grow, so that a record costs its own size and no call of the allocator.
/// Everything goes when the pool goes. `Record` is plain data.
template <typename Record>
class RecordPool {
public:
    Record* allocate() {
        if (m_free) {
            FreeRecord* record = m_free;
            m_free = record->next;
            return reinterpret_cast<Record*>(record);
        }
        if (m_left == 0)
            addChunk();
        --m_left;
        return m_bump++;
    }

    void free(Record* record) {
        auto* freed = reinterpret_cast<FreeRecord*>(record);
        freed->next = m_free;
        m_free = freed;
    }

private:
    struct FreeRecord {
        FreeRecord* next;
    };
    static_assert(sizeof(Record) >= sizeof(FreeRecord));

    // A nested table often holds two or three records, a module's a million.
    static constexpr std::size_t firstChunk = 4;
    static constexpr std::size_t greatestChunk = 1024;

    void addChunk() {
        std::size_t size = m_nextChunk;
        m_chunks.push_back(std::unique_ptr<Record[]>(new Record[size]));
        m_bump = m_chunks.back().get();
        m_left = size;
        m_nextChunk = size * 2 < greatestChunk ? size * 2 : greatestChunk;
    }

    std::vector<std::unique_ptr<Record[]>> m_chunks;
    Record* m_bump = nullptr;
    std::size_t m_left = 0;
    std::size_t m_nextChunk = firstChunk;
    FreeRecord* m_free = nullptr;
};

/// The cells in ascending order of their keys: blocks of sorted cells, and a vector of the blocks' first
/// keys. A tree with a node per key takes three times the room, and a search in it misses the cache at every
/// level. Insertion and erasure invalidate every position.
class CellIndex {
public:
    struct Position {
        std::size_t block;
        std::size_t slot;

        bool operator==(const Position&) const = default;
    };

    CellIndex() = default;
    ~CellIndex();
    CellIndex(const CellIndex&) = delete;
    CellIndex& operator=(const CellIndex&) = delete;

    Position begin() const { return {0, 0}; }
    Position end() const { return {m_blocks.size(), 0}; }
    Position next(Position position) const;
    /// Not for begin().
    Position previous(Position position) const;
    /// The first cell whose key is not below `key`.
    Position lowerBound(unsigned long long key) const;
    /// The first cell whose key is above `key`.
    Position upperBound(unsigned long long key) const;
    /// The cell with exactly this key, or end().
    Position find(unsigned long long key) const;

    Cell& at(Position position) { return m_blocks[position.block]->cells()[position.slot]; }
    const Cell& at(Position position) const { return m_blocks[position.block]->cells()[position.slot]; }

    /// Inserts an empty cell in front of `before`, which is the lower bound of the key.
    Position insert(Position before, unsigned long long key);
    /// Gives the cell behind the erased one.
    Position erase(Position position);

private:
    /// Cells follow the header in the same piece of memory.
    struct Block {
        std::uint32_t count;
        std::uint32_t capacity;

        Cell* cells() { return reinterpret_cast<Cell*>(this + 1); }
        const Cell* cells() const { return reinterpret_cast<const Cell*>(this + 1); }
        bool isFull() const { return count == capacity; }
        void moveCells(std::uint32_t from, std::uint32_t to);
    };
    static_assert(sizeof(Block) % alignof(Cell) == 0);

    static constexpr std::uint32_t firstCapacity = 4; ///< nested tables have few cells
    static constexpr std::uint32_t fullCapacity = 128;

    static Block* newBlock(std::uint32_t capacity);
    static void freeBlock(Block* block);
    std::size_t blockOf(unsigned long long key) const;
    Position normalised(std::size_t block, std::size_t slot) const;
    Position placeFor(Position before) const;
    Position makeRoom(Position where);
    void insertBlock(std::size_t index, std::uint32_t capacity);
    void growBlock(std::size_t index);
    Position splitBlock(Position where);

    std::vector<unsigned long long> m_firstKeys; ///< of the blocks, in order
    std::vector<Block*> m_blocks;                ///< none is empty
};

} // namespace ORN_3_30

#endif
