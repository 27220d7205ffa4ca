// Reads abbreviation tables of `.debug_abbrev`. Called by the unit scan, once for each offset that units
// name. A table is small beside the entries that it describes, and every entry is looked up in it: so
// whatever can be known of an abbreviation's entries beforehand (the order of the attributes, their sizes,
// the place of the sibling) is worked out here. Entries themselves are decoded in orn_dildwarf_attr.cpp.

#include "orn_dildwarf_abbrev.h"

#include "orn_dildwarf_constants.h"
#include "orn_log.h"

#include <algorithm>
#include <limits>
#include <new>
#include <optional>
#include <utility>

namespace ORN_3_30 {

namespace {

/// How wide a form's value is, as far as the form tells.
struct FormWidth {
    enum class Kind { bytes, address, offset, variable } kind;
    std::uint32_t bytes = 0;
};

FormWidth widthOf(std::uint32_t form) {
    using Kind = FormWidth::Kind;
    switch (form) {
    case DW_FORM_flag_present:
        return {Kind::bytes, 0};
    case DW_FORM_data1:
    case DW_FORM_flag:
    case DW_FORM_ref1:
        return {Kind::bytes, 1};
    case DW_FORM_data2:
    case DW_FORM_ref2:
        return {Kind::bytes, 2};
    case DW_FORM_data4:
    case DW_FORM_ref4:
        return {Kind::bytes, 4};
    case DW_FORM_data8:
    case DW_FORM_ref8:
    case DW_FORM_ref_sig8:
        return {Kind::bytes, 8};
    case DW_FORM_addr:
        return {Kind::address};
    case DW_FORM_strp:
    case DW_FORM_sec_offset:
    case DW_FORM_GNU_ref_alt:
    case DW_FORM_GNU_strp_alt:
        return {Kind::offset};
    default:
        // Among them DW_FORM_ref_addr, whose width goes by the unit's version.
        return {Kind::variable};
    }
}

bool isDroppedForm(std::uint32_t form) {
    return form == DW_FORM_GNU_addr_index || form == DW_FORM_GNU_str_index || form == DW_FORM_GNU_ref_alt ||
           form == DW_FORM_GNU_strp_alt;
}

std::optional<std::uint8_t> fixedReferenceWidth(std::uint32_t form) {
    switch (form) {
    case DW_FORM_ref1:
        return 1;
    case DW_FORM_ref2:
        return 2;
    case DW_FORM_ref4:
        return 4;
    case DW_FORM_ref8:
        return 8;
    default:
        return std::nullopt;
    }
}

/// Reads one table; keeps what would be allocated anew for each abbreviation.
class AbbrevTableReader {
public:
    AbbrevTableReader(const SectionWalker& walker, AbbrevPool& pool, PagedMap& map)
        : m_walker(walker), m_pool(pool), m_map(map) {}

    /// Gives the offset behind the table.
    unsigned long long readTable() {
        bool firstCodeSeen = false;
        while (const unsigned long long code = m_walker.readULEB()) {
            // Quirk: a second code 1 ends the table: without a final zero it runs on into the next table.
            if (code == 1 && firstCodeSeen)
                break;
            firstCodeSeen |= code == 1;
            define(code, readEntry());
        }
        return m_walker.offset();
    }

private:
    void define(unsigned long long abbrevCode, const AbbrevEntry* entry) {
        const AbbrevEntry*& slot = m_map[abbrevCode];
        ORN_ASSERT_TEXT(slot == nullptr, "m_abbrevsMap[abbrevCode] == NULL");
        slot = entry;
    }

    const AbbrevEntry* readEntry() {
        AbbrevEntry* entry = m_pool.make<AbbrevEntry>(1);
        entry->tag = m_walker.readULEB();
        entry->hasChildren = m_walker.readU8();
        readSpecs(*entry);
        deriveShape(*entry);
        deriveSizes(*entry);
        return entry;
    }

    void readSpecs(AbbrevEntry& entry) {
        m_specs.clear();
        for (;;) {
            // A pair with one zero is a pair like any other; only two end the list, as the section's end
            // does.
            const unsigned long long attribute = m_walker.readULEB();
            const unsigned long long form = m_walker.readULEB();
            if (attribute == 0 && form == 0)
                break;
            m_specs.push_back({attribute,
                               form < AttrSpec::noForm ? static_cast<std::uint32_t>(form) : AttrSpec::noForm,
                               AttrSpec::notKept});
        }
        AttrSpec* specs = m_pool.make<AttrSpec>(m_specs.size());
        std::copy(m_specs.begin(), m_specs.end(), specs);
        m_current = specs;
        entry.specs = specs;
        entry.specCount = static_cast<std::uint32_t>(m_specs.size());
    }

    /// The place of every attribute among the others: the first of equal ones counts, and what its form drops
    /// does not.
    void deriveShape(AbbrevEntry& entry) {
        for (std::uint32_t i = 0; i < entry.specCount; ++i)
            entry.hasIndirect |= m_current[i].form == DW_FORM_indirect;
        if (entry.hasIndirect)
            return;
        m_order.clear();
        for (std::uint32_t i = 0; i < entry.specCount; ++i) {
            if (!isDroppedForm(m_current[i].form))
                m_order.push_back(i);
        }
        std::stable_sort(m_order.begin(), m_order.end(), [this](std::uint32_t a, std::uint32_t b) {
            return m_current[a].attribute < m_current[b].attribute;
        });
        auto* keys = m_pool.make<unsigned long long>(m_order.size());
        std::uint32_t count = 0;
        for (const std::uint32_t index : m_order) {
            AttrSpec& spec = m_current[index];
            if (count > 0 && keys[count - 1] == spec.attribute)
                continue;
            spec.place = count;
            keys[count++] = spec.attribute;
        }
        entry.shape.assign(keys, count);
    }

    void deriveSizes(AbbrevEntry& entry) {
        FormSizes sizes;
        bool siblingSeen = false;
        for (std::uint32_t i = 0; i < entry.specCount; ++i) {
            const AttrSpec& spec = m_current[i];
            if (spec.attribute == DW_AT_sibling && !siblingSeen && !isDroppedForm(spec.form)) {
                siblingSeen = true;
                if (const auto width = fixedReferenceWidth(spec.form)) {
                    entry.hasFixedSibling = true;
                    entry.siblingWidth = *width;
                    entry.sizesToSibling = sizes;
                }
            }
            if (!addWidth(sizes, spec.form))
                return;
        }
        entry.isFixedSize = true;
        entry.sizes = sizes;
    }

    static bool addWidth(FormSizes& sizes, std::uint32_t form) {
        const FormWidth width = widthOf(form);
        switch (width.kind) {
        case FormWidth::Kind::bytes:
            sizes.bytes += width.bytes;
            return sizes.bytes < std::numeric_limits<std::uint32_t>::max() / 2;
        case FormWidth::Kind::address:
            ++sizes.addresses;
            return true;
        case FormWidth::Kind::offset:
            ++sizes.offsets;
            return true;
        case FormWidth::Kind::variable:
            break;
        }
        return false;
    }

    SectionWalker m_walker;
    AbbrevPool& m_pool;
    PagedMap& m_map;
    std::vector<AttrSpec> m_specs;
    std::vector<std::uint32_t> m_order;
    AttrSpec* m_current = nullptr; ///< the specs of the abbreviation at hand
};

} // namespace

void AttrShape::assign(const unsigned long long* sortedKeys, std::size_t keyCount) {
    std::fill(std::begin(low), std::end(low), 0);
    keys = sortedKeys;
    count = static_cast<std::uint32_t>(keyCount);
    lowCount = 0;
    for (; lowCount < count && keys[lowCount] < lowEnd; ++lowCount)
        low[keys[lowCount] / 64] |= 1ULL << (keys[lowCount] % 64);
}

std::uint32_t AttrShape::findHigh(unsigned long long attribute) const {
    const unsigned long long* end = keys + count;
    const unsigned long long* found = std::lower_bound(keys + lowCount, end, attribute);
    return found != end && *found == attribute ? static_cast<std::uint32_t>(found - keys) : AttrSpec::notKept;
}

void* AbbrevPool::allocate(std::size_t size) {
    const std::size_t aligned = (size + alignof(std::max_align_t) - 1) & ~(alignof(std::max_align_t) - 1);
    if (aligned > m_left) {
        const std::size_t wanted = std::max(aligned, chunkSize);
        m_chunks.push_back(std::make_unique<std::max_align_t[]>(wanted / sizeof(std::max_align_t) + 1));
        m_free = reinterpret_cast<unsigned char*>(m_chunks.back().get());
        m_left = wanted;
    }
    void* item = m_free;
    m_free += aligned;
    m_left -= aligned;
    return item;
}

PagedMap::PagedMap() {
    // Nearly every table has codes in the first page.
    m_pages.resize(1);
    m_pages[0] = std::make_unique<PageBlock>();
    m_definedPages = 1;
}

const AbbrevEntry*& PagedMap::operator[](unsigned long long code) {
    const unsigned long long page = code >> pageShift;
    const bool hasPage = page < m_pages.size() && m_pages[page];
    const bool isSparse = m_definedPages > 1 && m_definitions < leastCodesOfPage * m_definedPages;
    const bool isFar =
        code > maxPagedCode || page >= pageTableSlack + 2 * m_definedPages || (!hasPage && isSparse);
    ++m_definitions;
    // A code once in the side map stays there, also when the page table has grown past it.
    if (isFar || (!m_farCodes.empty() && m_farCodes.count(code) != 0))
        return m_farCodes[code];
    if (page >= m_pages.size())
        m_pages.resize(page + 1);
    if (!m_pages[page]) {
        m_pages[page] = std::make_unique<PageBlock>();
        ++m_definedPages;
    }
    return (*m_pages[page])[code % pageSize];
}

const AbbrevEntry* PagedMap::findFar(unsigned long long code) const {
    const auto found = m_farCodes.find(code);
    return found != m_farCodes.end() ? found->second : nullptr;
}

std::size_t PagedMap::pageCount() const {
    return m_definedPages;
}

AbbrevTable::AbbrevTable(const unsigned char* begin, unsigned long long size, unsigned long long offset,
                         std::shared_ptr<AbbrevPool> pool)
    : m_pool(std::move(pool)), m_size(0) {
    AbbrevTableReader reader(SectionWalker(begin, size, offset), *m_pool, m_abbrevsMap);
    m_size = reader.readTable() - offset;
}

std::shared_ptr<const AbbrevTable> AbbrevTables::tableAt(ISectionData* abbrevSection,
                                                         unsigned long long offset) {
    const unsigned char* data = abbrevSection ? abbrevSection->getData() : nullptr;
    const unsigned long long size = data ? abbrevSection->getSize() : 0;
    offset = std::min(offset, size);
    std::shared_ptr<const AbbrevTable>& table = m_tables[offset];
    if (!table) {
        const unsigned long long bound = bytesAtAnyRate + readingsOfByte * size;
        const unsigned long long left = bound - std::min(bound, m_bytesRead);
        table =
            std::make_shared<const AbbrevTable>(data, std::min(size - offset, left) + offset, offset, m_pool);
        m_bytesRead += table->size();
    }
    return table;
}

} // namespace ORN_3_30
