// Relocation records with and without addends, and their application to a private copy of a section's
// contents. Filled by ElfHelper out of a relocation section; asked by the reader of DWARF units and by the
// walk over the procedure linkage table. Relocation types are not looked at: every record is a plain sum.

#include "orn_relocations.h"

#include "orn_log.h"
#include "orn_walker.h"

namespace ORN_3_30 {

void RelocationAddends::walk(IAddendCallBack& callback) const {
    for (const auto& [offset, entry] : m_entries)
        callback(entry);
}

void RelocationAddends::applyRange(WritableSectionWalker& walker, unsigned long long begin,
                                   unsigned long long end) {
    for (auto record = m_entries.lower_bound(begin); record != m_entries.end() && record->first < end;
         ++record)
        applyAddend(walker, record->second);
}

void RELRelocationAddends::readEntry(SectionWalker& walker, unsigned long long& offset,
                                     unsigned long long& info, unsigned long long& addend) {
    offset = walker.readAddress();
    info = walker.readAddress();
    addend = 0;
}

void RELRelocationAddends::applyAddend(WritableSectionWalker& walker, const RelocationEntry& entry) {
    walker.seek(entry.offset);
    const unsigned long long addend = walker.readAddress();
    walker.seek(entry.offset);
    walker.writeAddress(entry.value + addend);
}

void RELARelocationAddends::readEntry(SectionWalker& walker, unsigned long long& offset,
                                      unsigned long long& info, unsigned long long& addend) {
    offset = walker.readAddress();
    info = walker.readAddress();
    addend = walker.readAddress();
}

void RELARelocationAddends::applyAddend(WritableSectionWalker& walker, const RelocationEntry& entry) {
    walker.seek(entry.offset);
    walker.writeAddress(entry.value);
}

} // namespace ORN_3_30
