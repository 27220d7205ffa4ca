// The store under a symbol table: a sorted index of cells, and the records in their lists.
#ifndef ORN_SYMBOLTABLE_CELLS_H
#define ORN_SYMBOLTABLE_CELLS_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace ORN_3_30 {

class Scope;

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

/// One interval of a scope, half-open. `start` equals `end` for a symbol of size zero, which covers its whole
/// cell; an interval that ends below its start, as sums that wrap give it, covers nothing.
///
/// A plain symbol, one of a format's own symbol table, is nothing but its entry until somebody asks for it:
/// most of a module's symbols are never asked for, and scopes and symbols are large.
struct CellEntry {
    unsigned long long start;
    unsigned long long end;
    Scope* scope;      ///< null: a plain symbol whose scope is not made yet, see SymbolTable::scopeOf
    const char* name;  ///< of a plain symbol, borrowed; otherwise null
    std::uint8_t kind; ///< of a plain symbol: symbol_kind_t, which has no value above 16
    std::uint8_t visibility;

    bool isEmpty() const { return start == end; }
    bool isPlain() const { return name != nullptr; }
};

/// Hands out records from chunks that grow, so that a record costs its own size and no call of the allocator.
/// Records live as long as the pool. `Record` is plain data.
template <typename Record>
class RecordPool {
public:
    Record* allocate() {
        if (m_left == 0)
            addChunk();
        --m_left;
        return m_bump++;
    }

private:
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
};

/// Memory for the lists of cells with more than one entry: arrays whose lengths are powers of two, reused by
/// length. Everything goes when the store goes.
class ListStore {
public:
    CellEntry** allocate(unsigned lengthLog);
    void free(CellEntry** array, unsigned lengthLog);

private:
    struct FreeArray {
        FreeArray* next;
    };

    static constexpr std::size_t firstChunk = 16; ///< lengths in pointers
    static constexpr std::size_t greatestChunk = 8192;

    CellEntry** addChunk(std::size_t length);

    std::vector<FreeArray*> m_free; ///< by logarithm of the length
    std::vector<std::unique_ptr<CellEntry*[]>> m_chunks;
    CellEntry** m_bump = nullptr;
    std::size_t m_left = 0;
    std::size_t m_nextChunk = firstChunk;
};

/// What covers a cell, in the order that the table gives it. A single entry, by far the most common case, is
/// held in place; more are held in an array of the store. Plain data: the owner hands the store in.
class CellList {
public:
    std::size_t size() const { return isArray() ? array()->count : m_entry != nullptr; }
    /// Room that was reserved does not count.
    bool isEmpty() const { return size() == 0; }
    CellEntry* const* begin() const { return isArray() ? array()->entries() : &m_entry; }
    CellEntry* const* end() const { return begin() + size(); }
    CellEntry* operator[](std::size_t index) const { return begin()[index]; }

    /// Makes room for `count` entries.
    void reserve(ListStore& store, std::size_t count);
    void insert(ListStore& store, std::size_t index, CellEntry* entry);
    void erase(ListStore& store, std::size_t index);

private:
    /// Header in the place of the array's first pointer. The entries may have room on both sides: where many
    /// symbols share an address, each newcomer goes right behind the head, and what stands in front of it is
    /// moved instead of what stands behind.
    struct Array {
        static constexpr unsigned countBits = 29;

        std::uint64_t lengthLog : 64 - 2 * countBits; ///< of the array with its header
        std::uint64_t first : countBits;              ///< slots in front of the entries
        std::uint64_t count : countBits;

        CellEntry** slots() { return reinterpret_cast<CellEntry**>(this + 1); }
        CellEntry** entries() { return slots() + first; }
        std::size_t capacity() const { return (std::size_t{1} << lengthLog) - 1; }
        /// Makes `index` an entry of its own; there has to be room.
        void openGap(std::size_t index);
        void closeGap(std::size_t index);

    private:
        void moveTo(std::size_t slot);
    };
    static_assert(sizeof(Array) == sizeof(CellEntry*));

    static constexpr std::uintptr_t arrayTag = 1;

    bool isArray() const { return (reinterpret_cast<std::uintptr_t>(m_entry) & arrayTag) != 0; }
    Array* array() const {
        return reinterpret_cast<Array*>(reinterpret_cast<std::uintptr_t>(m_entry) - arrayTag);
    }
    void setArray(Array* array) {
        m_entry = reinterpret_cast<CellEntry*>(reinterpret_cast<std::uintptr_t>(array) + arrayTag);
    }

    CellEntry* m_entry; ///< the only entry, or the tagged address of an array; null: nothing, and no room
};

/// The cells in ascending order of their keys. A cell is one stretch of address space, from its key to the
/// key of the next cell, with the list of what covers it; a cell with an empty list marks the end of a
/// section.
///
/// Stored as blocks of sorted cells, and a vector of the blocks' first keys. A tree with a node per key takes
/// three times the room, and a search in it misses the cache at every level. Insertion and erasure invalidate
/// every position.
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

    unsigned long long keyAt(Position position) const {
        return m_blocks[position.block]->keys()[position.slot];
    }
    CellList& listAt(Position position) { return m_blocks[position.block]->lists()[position.slot]; }
    const CellList& listAt(Position position) const {
        return m_blocks[position.block]->lists()[position.slot];
    }

    /// Inserts an empty cell in front of `before`, which is the lower bound of the key.
    Position insert(Position before, unsigned long long key);
    /// Gives the cell behind the erased one.
    Position erase(Position position);

private:
    /// Behind the header, in the same piece of memory, come the keys of all cells and then their lists.
    struct Block {
        std::uint32_t count;
        std::uint32_t capacity;

        unsigned long long* keys() { return reinterpret_cast<unsigned long long*>(this + 1); }
        const unsigned long long* keys() const {
            return reinterpret_cast<const unsigned long long*>(this + 1);
        }
        CellList* lists() { return reinterpret_cast<CellList*>(keys() + capacity); }
        const CellList* lists() const { return reinterpret_cast<const CellList*>(keys() + capacity); }
        bool isFull() const { return count == capacity; }
        void moveCells(std::uint32_t from, std::uint32_t to);
        void takeCells(const Block& other, std::uint32_t from);
    };
    static_assert(sizeof(Block) % alignof(unsigned long long) == 0 &&
                  alignof(CellList) == alignof(unsigned long long));

    static constexpr std::uint32_t firstCapacity = 4; ///< nested tables have few cells
    static constexpr std::uint32_t fullCapacity = 128;

    static Block* newBlock(std::uint32_t capacity);
    static void freeBlock(Block* block);
    std::size_t blockOf(unsigned long long key) const;
    template <typename IsBefore>
    Position search(unsigned long long key, const IsBefore& isBefore) const;
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
