// The store under a symbol table: a sorted index of cells, and the records in their lists.
#ifndef ORN_SYMBOLTABLE_CELLS_H
#define ORN_SYMBOLTABLE_CELLS_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
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
/// Records live as long as the pool, which has room for the first few in place. `Record` is plain data.
template <typename Record>
class RecordPool {
public:
    RecordPool() : m_bump(m_inPlace) {}
    ~RecordPool() {
        while (m_chunks) {
            Chunk* chunk = m_chunks;
            m_chunks = chunk->next;
            ::operator delete(chunk);
        }
    }
    RecordPool(const RecordPool&) = delete;
    RecordPool& operator=(const RecordPool&) = delete;

    Record* allocate() {
        if (m_left == 0)
            addChunk();
        --m_left;
        return m_bump++;
    }

private:
    /// Header of a chunk; its records follow.
    struct Chunk {
        Chunk* next;
    };
    static_assert(sizeof(Chunk) % alignof(Record) == 0);

    // A nested table often holds one or two records, a module's a million.
    static constexpr std::uint32_t recordsInPlace = 2;
    static constexpr std::uint32_t greatestChunk = 1024;

    void addChunk() {
        void* memory = ::operator new(sizeof(Chunk) + m_nextChunk * sizeof(Record));
        m_chunks = new (memory) Chunk{m_chunks};
        m_bump = reinterpret_cast<Record*>(m_chunks + 1);
        m_left = m_nextChunk;
        m_nextChunk = m_nextChunk * 2 < greatestChunk ? m_nextChunk * 2 : greatestChunk;
    }

    Chunk* m_chunks = nullptr;
    Record* m_bump;
    std::uint32_t m_left = recordsInPlace;
    std::uint32_t m_nextChunk = recordsInPlace * 2;
    Record m_inPlace[recordsInPlace];
};

/// Memory for the lists of cells with more than one entry: arrays whose lengths are powers of two, reused by
/// length. Everything goes when the store goes.
class ListStore {
public:
    CellEntry** allocate(unsigned lengthLog);
    /// Takes back an array that allocate() gave.
    void free(CellEntry** array, unsigned lengthLog);

private:
    struct FreeArray {
        FreeArray* next;
    };

    static constexpr std::size_t firstChunk = 16; ///< lengths in pointers
    static constexpr std::size_t greatestChunk = 8192;

    struct State {
        CellEntry** addChunk(std::size_t length);

        std::vector<FreeArray*> free; ///< by logarithm of the length
        std::vector<std::unique_ptr<CellEntry*[]>> chunks;
        CellEntry** bump = nullptr;
        std::size_t left = 0;
        std::size_t nextChunk = firstChunk;
    };

    std::unique_ptr<State>
        m_state; ///< made at the first list that is longer than one: few nested tables have one
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
/// Stored as blocks of sorted cells, and a directory of the blocks with their first keys. A tree with a node
/// per key takes three times the room, and a search in it misses the cache at every level. Insertion and
/// erasure invalidate every position.
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
    Position end() const { return {m_directory.size(), 0}; }
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
        return m_directory.blockAt(position.block)->keys()[position.slot];
    }
    CellList& listAt(Position position) {
        return m_directory.blockAt(position.block)->lists()[position.slot];
    }
    const CellList& listAt(Position position) const {
        return m_directory.blockAt(position.block)->lists()[position.slot];
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

    static constexpr std::uint32_t firstCapacity = 2; ///< nested tables have few cells
    static constexpr std::uint32_t fullCapacity = 128;

    /// The first block of an index: most nested tables need no other.
    struct FirstBlock {
        Block header{0, firstCapacity};
        unsigned long long keys[firstCapacity];
        CellList lists[firstCapacity];
    };

    static Block* newBlock(std::uint32_t capacity);
    void freeBlock(Block* block) const;
    std::size_t blockOf(unsigned long long key) const;
    template <typename IsBefore>
    Position search(unsigned long long key, const IsBefore& isBefore) const;
    Position normalised(std::size_t block, std::size_t slot) const;
    Position placeFor(Position before) const;
    Position makeRoom(Position where);
    void insertBlock(std::size_t index, std::uint32_t capacity);
    void growBlock(std::size_t index);
    Position splitBlock(Position where);

    /// The blocks in order, none of them empty, and the first key of each in an array of its own, where a
    /// search begins. Room for one block is in place: tables of inlined code seldom have a second one.
    class Directory {
    public:
        Directory() : m_keys(&m_onlyKey), m_blocks(&m_onlyBlock) {}
        ~Directory();
        Directory(const Directory&) = delete;
        Directory& operator=(const Directory&) = delete;

        std::size_t size() const { return m_count; }
        bool isEmpty() const { return m_count == 0; }
        const unsigned long long* keys() const { return m_keys; }
        unsigned long long& keyAt(std::size_t index) { return m_keys[index]; }
        Block*& blockAt(std::size_t index) { return m_blocks[index]; }
        Block* blockAt(std::size_t index) const { return m_blocks[index]; }
        /// Makes room for one more, so that inserting it cannot fail.
        void reserveOneMore();
        void insert(std::size_t index, Block* block);
        void erase(std::size_t index);

    private:
        bool isInPlace() const { return m_keys == &m_onlyKey; }
        void moveFrom(std::size_t from, std::size_t to);

        unsigned long long* m_keys;
        Block** m_blocks;
        std::uint32_t m_count = 0;
        std::uint32_t m_capacity = 1;
        unsigned long long m_onlyKey = 0;
        Block* m_onlyBlock = nullptr;
    };

    Directory m_directory;
    FirstBlock m_firstBlock; ///< in use while it is in the directory
};

} // namespace ORN_3_30

#endif
