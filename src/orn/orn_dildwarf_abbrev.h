// Abbreviations: what an entry of `.debug_info` holds and how it is stored, read once per table.
#ifndef ORN_DILDWARF_ABBREV_H
#define ORN_DILDWARF_ABBREV_H

#include "orn_walker.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace ORN_3_30 {

/// Bytes of a run of attributes, as far as the unit has to be known for it.
struct FormSizes {
    std::uint32_t bytes = 0;     ///< of forms with a size of their own
    std::uint32_t addresses = 0; ///< values as wide as an address
    std::uint32_t offsets = 0;   ///< values as wide as an offset of the unit's format

    unsigned long long total(unsigned addressSize, unsigned offsetSize) const {
        return bytes + static_cast<unsigned long long>(addresses) * addressSize +
               static_cast<unsigned long long>(offsets) * offsetSize;
    }
};

/// One attribute of an abbreviation, in the order of the file.
struct AttrSpec {
    /// Place of an attribute that is not kept: dropped by its form, or there already.
    static constexpr std::uint32_t notKept = 0xffffffff;
    /// Stands for every form number above 32 bits, which no form has.
    static constexpr std::uint32_t noForm = 0xffffffff;

    unsigned long long attribute; ///< `DW_AT_*`
    std::uint32_t form;           ///< `DW_FORM_*` as read
    std::uint32_t place;          ///< among the attributes of the entry in ascending order
};

/// Which attributes an entry has, ascending. Says for any attribute at once whether and where it is.
struct AttrShape {
    /// Attributes below this number are found by one test of a bit: all that the format's versions define.
    static constexpr unsigned lowEnd = 128;

    std::uint64_t low[lowEnd / 64] = {}; ///< one bit for each attribute below lowEnd
    const unsigned long long* keys = nullptr;
    std::uint32_t count = 0;
    std::uint32_t lowCount = 0; ///< how many of the keys are below lowEnd

    /// Takes `count` keys, which are ascending and distinct and have to outlive the shape.
    void assign(const unsigned long long* sortedKeys, std::size_t keyCount);
    /// Place of `attribute`, or AttrSpec::notKept.
    std::uint32_t find(unsigned long long attribute) const {
        return attribute < lowEnd ? findLow(static_cast<unsigned>(attribute)) : findHigh(attribute);
    }

private:
    std::uint32_t findLow(unsigned attribute) const {
        const unsigned word = attribute / 64;
        const std::uint64_t bit = 1ULL << (attribute % 64);
        if (!(low[word] & bit))
            return AttrSpec::notKept;
        const int before = word ? __builtin_popcountll(low[0]) : 0;
        return static_cast<std::uint32_t>(before + __builtin_popcountll(low[word] & (bit - 1)));
    }
    std::uint32_t findHigh(unsigned long long attribute) const;
};

/// One abbreviation. Made by AbbrevTable, never changed afterwards; keeps its address as long as its pool.
struct AbbrevEntry {
    unsigned long long tag; ///< `DW_TAG_*` as read
    const AttrSpec* specs;  ///< in the order of the file
    std::uint32_t specCount;
    std::uint8_t hasChildren; ///< the `DW_CHILDREN_*` byte

    // All that follows is derived from the fields above, once, for the walk over millions of entries.

    /// A form is only told by the entry itself, so `place` and `shape` do not hold.
    bool hasIndirect;
    /// No attribute has a size of its own entry: the attributes are passed in one step.
    bool isFixedSize;
    /// DW_AT_sibling is there, in a form of fixed width behind attributes of fixed size.
    bool hasFixedSibling;
    std::uint8_t siblingWidth; ///< 1, 2, 4 or 8
    FormSizes sizes;           ///< of all attributes, if isFixedSize
    FormSizes sizesToSibling;  ///< of the attributes before it, if hasFixedSibling
    AttrShape shape;           ///< unless hasIndirect
};

/// Memory for abbreviations: grown by chunks, freed as a whole. A refused allocation throws `std::bad_alloc`.
class AbbrevPool {
public:
    /// `count` zeroed items with an address that lasts as long as the pool.
    template <typename T>
    T* make(std::size_t count) {
        static_assert(alignof(T) <= alignof(std::max_align_t), "chunks are aligned for every plain type");
        return static_cast<T*>(allocate(count * sizeof(T)));
    }

private:
    static constexpr std::size_t chunkSize = 64 * 1024;

    void* allocate(std::size_t size);

    std::vector<std::unique_ptr<std::max_align_t[]>> m_chunks;
    unsigned char* m_free = nullptr;
    std::size_t m_left = 0;
};

/// From abbreviation code to abbreviation: pages of a fixed number of slots, so that codes, small and dense
/// in practice, are found by two loads.
///
/// Looking a code up never grows the map, and pages exist for defined codes only: a damaged entry may ask for
/// any code. A code above `maxPagedCode`, and one so far from the others that the page table or the pages
/// would hold little but gaps, goes to an ordered side map.
class PagedMap {
public:
    static constexpr unsigned pageShift = 8;
    static constexpr unsigned pageSize = 1U << pageShift;
    static constexpr unsigned long long maxPagedCode = 1ULL << 24;

    PagedMap();

    /// Null for a code that is not defined.
    const AbbrevEntry* find(unsigned long long code) const {
        const unsigned long long page = code >> pageShift;
        if (page < m_pages.size() && m_pages[page]) {
            if (const AbbrevEntry* entry = (*m_pages[page])[code % pageSize])
                return entry;
        }
        return m_farCodes.empty() ? nullptr : findFar(code);
    }
    /// The slot of a code that is about to be defined.
    const AbbrevEntry*& operator[](unsigned long long code);

    /// Pages in memory, for tests of what lookups and definitions cost.
    std::size_t pageCount() const;

private:
    using Page = const AbbrevEntry* [pageSize];
    struct PageBlock {
        Page slots = {};
        const AbbrevEntry*& operator[](std::size_t index) { return slots[index]; }
        const AbbrevEntry* operator[](std::size_t index) const { return slots[index]; }
    };
    /// The page table holds at most so many entries, and twice the number of pages, beyond the pages.
    static constexpr std::size_t pageTableSlack = 64;
    /// Pages hold so many codes on average, but for the first two.
    static constexpr std::size_t leastCodesOfPage = 16;

    const AbbrevEntry* findFar(unsigned long long code) const;

    std::vector<std::unique_ptr<PageBlock>> m_pages;
    std::size_t m_definedPages = 0;
    std::size_t m_definitions = 0;
    std::map<unsigned long long, const AbbrevEntry*> m_farCodes;
};

/// The abbreviations from one offset of `.debug_abbrev`.
class AbbrevTable {
public:
    /// Reads the table at `offset` of the section's bytes; one past the section is empty. The table shares in
    /// the pool: a unit that someone holds may outlive its loader.
    AbbrevTable(const unsigned char* begin, unsigned long long size, unsigned long long offset,
                std::shared_ptr<AbbrevPool> pool);

    /// Bytes of the section that were read.
    unsigned long long size() const { return m_size; }
    const AbbrevEntry* find(unsigned long long code) const { return m_abbrevsMap.find(code); }
    const PagedMap& map() const { return m_abbrevsMap; }

private:
    std::shared_ptr<AbbrevPool> m_pool;
    unsigned long long m_size;
    PagedMap m_abbrevsMap;
};

/// The abbreviation tables of one loader by their offsets, and the memory of all of them.
///
/// Every unit reads the table at its own offset; units that name one offset get one table, since nothing in
/// it depends on the unit. So a code that a shared table defines twice is reported once.
///
/// Tables do not overlap. Damaged units may each name another place in one long table: after
/// `readingsOfByte` times the section's size tables end as they do at the section's end.
class AbbrevTables {
public:
    std::shared_ptr<const AbbrevTable> tableAt(ISectionData* abbrevSection, unsigned long long offset);

private:
    static constexpr unsigned long long readingsOfByte = 4;
    static constexpr unsigned long long bytesAtAnyRate = 0x10000;

    std::shared_ptr<AbbrevPool> m_pool = std::make_shared<AbbrevPool>();
    std::map<unsigned long long, std::shared_ptr<const AbbrevTable>> m_tables;
    unsigned long long m_bytesRead = 0;
};

} // namespace ORN_3_30

#endif
