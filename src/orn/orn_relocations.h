// Relocations of one section of a relocatable file, and of its procedure linkage table.
#ifndef ORN_RELOCATIONS_H
#define ORN_RELOCATIONS_H

#include "orn/section_data.h"

#include <map>

namespace ORN_3_30 {

class SectionWalker;
class WritableSectionWalker;

/// One relocation record with the symbol that it names.
struct RelocationEntry {
    unsigned long long offset = 0;         ///< `r_offset`
    unsigned nameOffset = 0;               ///< `st_name` of the symbol
    unsigned long long value = 0;          ///< `st_value` plus the addend
    unsigned index = 0;                    ///< number of the record inside its section, from 0
    SymMgrObjectPtr<ISectionData> strings; ///< of the symbol table; may be null
};

/// Sees relocation records one by one.
class IAddendCallBack {
public:
    virtual void operator()(const RelocationEntry& entry) = 0;

protected:
    ~IAddendCallBack() = default;
};

/// The relocations that apply to one section, by their place. One record a place: a later one replaces it.
class RelocationAddends : public SymMgrObjectImpl {
public:
    explicit RelocationAddends(unsigned relocationSection) : m_relocationSection(relocationSection) {}

    /// Reads the next record of the relocation section, by the walker's address size.
    virtual void readEntry(SectionWalker& walker, unsigned long long& offset, unsigned long long& info,
                           unsigned long long& addend) = 0;
    /// Writes the relocated value at its place in the contents under `walker`, whose address size is set and
    /// whose bytes are the caller's own copy. A place that does not lie inside is left alone.
    virtual void applyAddend(WritableSectionWalker& walker, const RelocationEntry& entry) = 0;

    void add(const RelocationEntry& entry) { m_entries[entry.offset] = entry; }
    /// All records in order of their places.
    void walk(IAddendCallBack& callback) const;
    /// Applies all records whose place lies in [begin, end) of the contents under `walker`. Not to be
    /// repeated on the same bytes: where the addend lies at the place it would count twice.
    void applyRange(WritableSectionWalker& walker, unsigned long long begin, unsigned long long end);

    bool isEmpty() const { return m_entries.empty(); }
    unsigned getRelocationSection() const { return m_relocationSection; }

private:
    std::map<unsigned long long, RelocationEntry> m_entries; ///< by offset
    unsigned m_relocationSection;                            ///< index of the relocation section
};

/// `SHT_REL`: the addend lies at the place itself.
class RELRelocationAddends : public RelocationAddends {
public:
    using RelocationAddends::RelocationAddends;
    void readEntry(SectionWalker& walker, unsigned long long& offset, unsigned long long& info,
                   unsigned long long& addend) override;
    void applyAddend(WritableSectionWalker& walker, const RelocationEntry& entry) override;
};

/// `SHT_RELA`: the addend stands in the record.
class RELARelocationAddends : public RelocationAddends {
public:
    using RelocationAddends::RelocationAddends;
    void readEntry(SectionWalker& walker, unsigned long long& offset, unsigned long long& info,
                   unsigned long long& addend) override;
    void applyAddend(WritableSectionWalker& walker, const RelocationEntry& entry) override;
};

} // namespace ORN_3_30

#endif
