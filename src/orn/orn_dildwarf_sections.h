// The debug sections as the readers of one loader see them: read once, relocated in a copy of one's own.
#ifndef ORN_DILDWARF_SECTIONS_H
#define ORN_DILDWARF_SECTIONS_H

#include "orn/section_data.h"
#include "orn_relocations.h"
#include "orn_walker.h"

#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

namespace ORN_3_30 {

/// The bytes of a section, relocated place by place as they are asked for.
///
/// Only in a relocatable file are there relocations; then the bytes are a private copy, since the contents
/// that the module hands out are everyone's. The bytes never move.
class RelocatedSection {
public:
    RelocatedSection() = default;
    RelocatedSection(const RelocatedSection&) = delete;
    RelocatedSection& operator=(const RelocatedSection&) = delete;

    /// Takes the section's contents; both may be null. An absent section has no bytes and size 0.
    void assign(ISectionData* section, RelocationAddends* relocations);

    bool isPresent() const { return m_begin != nullptr; }
    const unsigned char* begin() const { return m_begin; }
    unsigned long long size() const { return m_size; }
    /// Added to every address found in the contents.
    unsigned long long bias() const { return m_bias; }

    /// Relocates the places in [begin, end) as values of `width` bytes. A place that was in an earlier range
    /// is left alone: where the addend lies at the place itself it would count twice.
    void relocate(unsigned long long begin, unsigned long long end, unsigned width);

private:
    void relocateNew(unsigned long long begin, unsigned long long end, unsigned width);

    SymMgrObjectPtr<ISectionData> m_section;
    SymMgrObjectPtr<RelocationAddends> m_relocations;
    std::unique_ptr<unsigned char[]> m_copy;
    const unsigned char* m_begin = nullptr;
    unsigned long long m_size = 0;
    unsigned long long m_bias = 0;
    std::map<unsigned long long, unsigned long long> m_doneEndByBegin; ///< disjoint, not touching
};

/// The debug sections of one symbol file. `ensureRead` fetches them from the file, once; nothing else reads.
class DWARFSections : public SymMgrObjectImpl {
public:
    /// `bias` is added to every address of the symbol file, beside what its contents bring.
    explicit DWARFSections(IFileFormatHelper* helper, unsigned long long bias = 0)
        : m_helper(helper), m_bias(bias) {}

    IFileFormatHelper* helper() const { return m_helper; }

    /// Reads `.debug_info` and what its units need. The status says why `.debug_info` is missing:
    /// `status_NoDebugInfo`, or the failure to decompress it. Asked again it gives the same answer.
    status_t ensureRead();

    unsigned long long loadBias() const { return m_bias + m_info.bias(); }
    RelocatedSection& info() { return m_info; }
    RelocatedSection& line() { return m_line; }
    /// Null if there is none.
    ISectionData* abbrev() const { return m_abbrev; }
    const unsigned char* ranges() const { return m_rangesBegin; }
    unsigned long long rangesSize() const { return m_rangesSize; }

    /// The text at `offset` of `.debug_str`, with its end; null at or past the section's end.
    const char* stringAt(unsigned long long offset) const {
        if (offset >= m_strSize)
            return nullptr;
        return offset < m_strTailBegin ? reinterpret_cast<const char*>(m_strBegin) + offset
                                       : m_strTail.c_str() + (offset - m_strTailBegin);
    }

    /// The text at `position` of `.debug_info` in a view that ends at `viewEnd`, and its length. Where no
    /// zero byte ends it inside the view, it is a copy with an end, which lives as long as this object.
    const char* textInInfo(unsigned long long position, unsigned long long viewEnd,
                           unsigned long long& length);

    /// A copy of `text` that lives as long as this object.
    const char* keepText(const std::string& text);

    // Damaged data can have one long thing read from many places: a chain of references by each of its links,
    // a text by each unit, a line program by each unit. Sound data never does that, or keeps far inside the
    // bounds here, which leave the cost of all data proportional to its size.

    /// Whether `work` may be done that sound data does not cause at all: what goes beyond any usual length.
    /// Each call takes it off what the sections may cause in all until renewExcess().
    bool affords(unsigned long long work) {
        const bool isAfforded = work <= m_excess;
        m_excess = isAfforded ? m_excess - work : 0;
        return isAfforded;
    }
    bool isExcessUsedUp() const { return m_excess == 0; }
    /// Before each load, so that the loads of a long life do not add up.
    void renewExcess();
    /// Whether a text may be read to its end: one of usual length always.
    bool affordsText(const char* text);
    /// Whether a text may be searched for a few words.
    bool affordsSearches(const char* text);
    /// Whether a line program of so many bytes may be run. Each unit runs its program once, so that units may
    /// share one, but not any number of them a long one.
    bool affordsLineProgram(unsigned long long size);

private:
    status_t read();
    void readRelocated(ISectionData* section, RelocatedSection& out);
    void readStrings();
    unsigned long long endOfText(unsigned long long position, unsigned long long viewEnd);
    const char* terminatedTail(unsigned long long position, unsigned long long viewEnd);

    SymMgrObjectPtr<IFileFormatHelper> m_helper;
    unsigned long long m_bias;
    status_t m_status = status_NotInitialized; ///< of the only reading
    RelocatedSection m_info;
    RelocatedSection m_line;
    SymMgrObjectPtr<ISectionData> m_abbrev;
    SymMgrObjectPtr<ISectionData> m_str;
    const unsigned char* m_strBegin = nullptr;
    unsigned long long m_strSize = 0;
    /// From here on the section has no zero byte, and texts are found in the copy instead.
    unsigned long long m_strTailBegin = 0;
    std::string m_strTail;
    SymMgrObjectPtr<ISectionData> m_ranges;
    const unsigned char* m_rangesBegin = nullptr;
    unsigned long long m_rangesSize = 0;
    unsigned long long m_abbrevSize = 0;
    unsigned long long m_excess = 0;
    unsigned long long m_lineProgramBytes = 0; ///< that may still be run

    OrnLock m_textLock; ///< guards what is noted of unusual texts
    std::set<std::string> m_keptTexts;
    /// Long runs without a zero byte, from begin to end: damaged data may name one from many places.
    std::map<unsigned long long, unsigned long long> m_longTextEnds;
    /// Copies of the unterminated ends of views, by the end: the place where it begins, and the text.
    std::map<unsigned long long, std::pair<unsigned long long, std::string>> m_tails;
};

} // namespace ORN_3_30

#endif
