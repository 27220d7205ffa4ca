// The line table: which interval of code came from which source position, for all units of one module.
#ifndef ORN_LINETABLE_IMPL_H
#define ORN_LINETABLE_IMPL_H

#include "orn/line_table.h"
#include "orn_linetable_locators.h"

#include <cstdlib>
#include <cstring>
#include <deque>
#include <new>

namespace ORN_3_30 {

class IInlineInstance;
class ISourceLocation;

/// Array of pointers by small dense numbers, in pages: a page exists once something in it does.
template <typename T>
class SparseArray {
public:
    /// A page size is a power of two, `1 << pageShift`. Sizes of 0 are chosen when the array first grows, by
    /// the number that is asked for then.
    SparseArray(std::size_t pageSize, unsigned pageShift) : m_pageSize(pageSize), m_pageShift(pageShift) {}
    SparseArray(const SparseArray&) = delete;
    SparseArray& operator=(const SparseArray&) = delete;
    ~SparseArray() {
        for (std::size_t page = 0; page < m_pageCount; ++page)
            std::free(m_pages[page]);
        std::free(m_pages);
    }

    std::size_t capacity() const { return m_capacity; }
    std::size_t pageSize() const { return m_pageSize; }
    std::size_t pageCount() const { return m_pageCount; }

    /// Null for a number that has no page.
    T* get(std::size_t index) const {
        if (index >= m_capacity || !m_pages[index >> m_pageShift])
            return nullptr;
        return m_pages[index >> m_pageShift][index & (m_pageSize - 1)];
    }

    /// The place of a number; makes its page.
    T*& slot(std::size_t index) {
        if (index >= m_capacity)
            grow(index);
        T**& page = m_pages[index >> m_pageShift];
        if (!page)
            page = newPage(m_pageSize);
        return page[index & (m_pageSize - 1)];
    }

    template <typename Visit>
    void forEach(const Visit& visit) const {
        for (std::size_t index = 0; index < m_capacity; ++index)
            if (T* object = get(index))
                visit(object);
    }

private:
    using Page = T**;

    /// Zeroed; what is not written is not touched.
    static Page newPage(std::size_t size) {
        void* page = std::calloc(size, sizeof(T*));
        if (!page)
            throw std::bad_alloc();
        return static_cast<Page>(page);
    }

    void grow(std::size_t index) {
        if (m_pageSize == 0) {
            m_pageShift = index > 0x40000 ? 18 : 8;
            m_pageSize = std::size_t(1) << m_pageShift;
        }
        const std::size_t pageCount = (index >> m_pageShift) + 1;
        Page* pages = static_cast<Page*>(std::calloc(pageCount, sizeof(Page)));
        if (!pages)
            throw std::bad_alloc();
        if (m_pageCount != 0)
            std::memcpy(pages, m_pages, m_pageCount * sizeof(Page));
        std::free(m_pages);
        m_pages = pages;
        m_pageCount = pageCount;
        m_capacity = m_pageCount * m_pageSize;
    }

    std::size_t m_capacity = 0;
    std::size_t m_pageSize;
    Page* m_pages = nullptr;
    std::size_t m_pageCount = 0;
    unsigned m_pageShift;
};

/// What one unit has in one file. Its locators stand in the table's store, under its number.
class SrcRange {
public:
    SrcRange(unsigned fileId, unsigned long long unitId, std::uint32_t number)
        : m_key(fileId), m_number(number), m_unitId(unitId) {}

    unsigned fileId() const { return m_key; }
    unsigned long long unitId() const { return m_unitId; }
    std::uint32_t number() const { return m_number; }

private:
    unsigned m_key;
    std::uint32_t m_number;
    unsigned long long m_unitId;
};

/// The ranges of one file, by unit. A unit's program comes as a whole, so that nearly every search ends at
/// the range touched last.
class SrcRangeMgr {
public:
    /// Null if the unit has nothing in this file yet.
    SrcRange* find(unsigned long long unitId) {
        if (!m_cursor || m_cursor->unitId() != unitId)
            m_cursor = search(unitId);
        return m_cursor;
    }
    void insert(SrcRange* range);

private:
    SrcRange* search(unsigned long long unitId) const;

    std::vector<SrcRange*> m_ranges; ///< borrowed from the table, ascending by unit
    SrcRange* m_cursor = nullptr;
};

/// What is asked of a line table.
struct LineQuery {
    unsigned long long low;
    unsigned long long
        high; ///< not part of the interval, unless it equals `low`: then it is that one address
    unsigned long long unitId;
    unsigned fileId;

    static constexpr unsigned everyFile = ~0U;
    /// The ids that stand for all units. Quirk: 0 is among them although it is the id of the first unit of a
    /// module, so that a query for that unit alone does not exist.
    static constexpr bool isEveryUnit(unsigned long long unitId) {
        return unitId == 0 || unitId == 0xFFFFFFFF || unitId == ~0ULL;
    }

    /// The end of the addresses at which an answer may start.
    unsigned long long startsBelow() const { return low == high && low != ~0ULL ? low + 1 : high; }
    bool wantsUnit(unsigned long long id) const { return isEveryUnit(unitId) || id == unitId; }
    bool wantsFile(unsigned id) const { return fileId == everyFile || id == fileId; }
    bool wantsEverything() const { return isEveryUnit(unitId) && fileId == everyFile; }
};

/// The line table of one debug information. It only grows.
///
/// Takes no lock: who shares a table between threads holds one lock around additions and around the making
/// of iterators. An iterator that is made answers from the state of that moment, whatever is added later.
class LineTable : public SymMgrObject<ILineTable> {
public:
    using LineIterator = IIterator<SymMgrObjectPtr<ISourceLine>>;

    /// Both are borrowed and outlive the table and all it hands out.
    LineTable(IFileFormatLoader& loader, ISrcLineResolver& resolver);
    ~LineTable() override;

    void sourceLinesAt(SymMgrObjectPtr<LineIterator>& out, unsigned long long address,
                       unsigned long long unitId, unsigned fileId) override;
    void sourceLinesInRange(SymMgrObjectPtr<LineIterator>& out, unsigned long long unitId, unsigned fileId,
                            unsigned long long low, unsigned long long high) override;
    void* addLineRange(unsigned long long unitId, unsigned fileId, unsigned line, unsigned column,
                       unsigned long long address, unsigned long long size, unsigned long long tag) override;

    IFileFormatLoader& loader() const { return m_loader; }
    ISrcLineResolver& resolver() const { return m_resolver; }
    const SparseArray<SrcRangeMgr>& files() const { return m_files; }
    /// Number of locators, each counted once for each of its ends.
    std::size_t locatorCount();

    /// All answers of a query, in order.
    void find(const LineQuery& query, FoundLocators& found);
    /// Whether a query has so many candidates that its answers are better looked for file by file, unit by
    /// unit, while someone walks over them.
    bool isWide(const LineQuery& query);
    /// The lists with their index by file, for walking so.
    const SrcLocatorLists& listsByFile();

private:
    SrcRangeMgr* rangeMgrOf(unsigned fileId);
    SrcRange* rangeOf(SrcRangeMgr& rangeMgr, unsigned fileId, unsigned long long unitId);
    void settle();

    IFileFormatLoader& m_loader;
    ISrcLineResolver& m_resolver;
    SparseArray<SrcRangeMgr> m_files; ///< by file id
    std::deque<SrcRange> m_ranges;    ///< by number
    ArrivedLocators m_arrived;
    SrcLocatorLists m_lists;
};

/// Location of the call that was expanded into `instance`; null if it is not known after all.
SymMgrObjectPtr<ISourceLocation> callSiteOf(IInlineInstance& instance);

} // namespace ORN_3_30

#endif
