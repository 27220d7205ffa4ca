// Scans the headers of all units of `.debug_info`, with their abbreviations: the first step of every load,
// called by the loader before symbols or lines are read. No entry is decoded here, so that what opening a
// module costs does not depend on the size of its units. Units of a version that is not read end the scan:
// how long their header is cannot be known for versions to come.

#include "orn_dildwarf.h"

#include "orn_dildwarf_lines.h"
#include "orn_log.h"

#include <algorithm>

namespace ORN_3_30 {

namespace {

constexpr std::uint32_t greatestVersion = 4;

unsigned long long saturatedSum(unsigned long long a, unsigned long long b) {
    return b > ~0ULL - a ? ~0ULL : a + b;
}

} // namespace

status_t DWARFDebugInfoLoader::scanUnits() {
    const RelocatedSection& info = m_sections->info();
    SectionWalker walker(info.begin(), info.size());
    while (walker.remaining() > 0) {
        if (const status_t status = readCompUnit(walker); isFailure(status))
            return status;
    }
    return status_Ok;
}

status_t DWARFDebugInfoLoader::readCompUnit(SectionWalker& walker) {
    DWARFUnitHeader header;
    unsigned long long length = 0;
    header.offset = walker.offset();
    if (const status_t status = readUnitLength(walker, header, length); isFailure(status))
        return status;
    const unsigned long long begin = walker.offset();
    // Once and before any byte of the unit is decoded.
    m_sections->info().relocate(begin, saturatedSum(begin, length), header.is64Bit ? 8 : 4);
    if (const status_t status = readUnitHeader(walker, header, length); isFailure(status))
        return status;
    // A module without line data still gets units and symbols.
    if (!m_sections->line().isPresent())
        m_lineStatus = status_NoDebugInfo;
    addUnit(header);
    walker.skip(length);
    return status_Ok;
}

status_t DWARFDebugInfoLoader::readUnitLength(SectionWalker& walker, DWARFUnitHeader& header,
                                              unsigned long long& length) {
    unsigned long long debugInfoForCUSize = 0;
    if (!ORN_ASSERT(walker.getUnsigned4(debugInfoForCUSize) == status_Ok))
        return status_BadFileFormat;
    if (debugInfoForCUSize == DW_LENGTH_64BIT) {
        header.is64Bit = true;
        if (!ORN_ASSERT(walker.getUnsigned8(debugInfoForCUSize) == status_Ok))
            return status_BadFileFormat;
    }
    length = debugInfoForCUSize;
    header.size = saturatedSum(length, walker.offset() - header.offset);
    return status_Ok;
}

/// The header behind the length, in a walker that ends with the unit.
status_t DWARFDebugInfoLoader::readUnitHeader(const SectionWalker& walker, DWARFUnitHeader& header,
                                              unsigned long long length) {
    SectionWalker rootWalker(walker.cursor(), std::min(length, walker.remaining()));
    std::uint32_t version = 0;
    if (!ORN_ASSERT(rootWalker.getUnsigned2(version) == status_Ok))
        return status_BadFileFormat;
    if (!ORN_ASSERT_TEXT(version <= greatestVersion, "version <= 4"))
        return status_UnsupportedFormatVersion;
    unsigned long long abbrevOffset = 0;
    if (header.is64Bit ? !ORN_ASSERT(rootWalker.getUnsigned8(abbrevOffset) == status_Ok)
                       : !ORN_ASSERT(rootWalker.getUnsigned4(abbrevOffset) == status_Ok))
        return status_BadFileFormat;
    std::uint8_t addrSize = 0;
    if (!ORN_ASSERT(rootWalker.getUnsigned1(addrSize) == status_Ok))
        return status_BadFileFormat;
    rootWalker.setAddressSize(addrSize);
    header.version = version;
    header.abbrevOffset = abbrevOffset;
    header.addressSize = addrSize;
    header.headerSize = static_cast<std::uint32_t>(walker.offset() - header.offset + rootWalker.offset());
    return status_Ok;
}

void DWARFDebugInfoLoader::addUnit(const DWARFUnitHeader& header) {
    SymMgrObjectPtr<DWARFCompilationUnit> unit = new DWARFCompilationUnit(
        header, m_abbrevTables.tableAt(m_sections->abbrev(), header.abbrevOffset), m_sections, this);
    unit->setLineResolver(m_lineResolver);
    m_compUnits[header.offset] = unit;
}

DWARFCompilationUnit* DWARFDebugInfoLoader::findCompUnitContaining(unsigned long long offset) const {
    const auto atOrAbove = m_compUnits.lower_bound(offset);
    if (atOrAbove == m_compUnits.end())
        return nullptr;
    if (atOrAbove->second->holds(offset))
        return atOrAbove->second;
    if (atOrAbove == m_compUnits.begin())
        return nullptr;
    DWARFCompilationUnit* preceding = std::prev(atOrAbove)->second;
    return preceding->holds(offset) ? preceding : nullptr;
}

} // namespace ORN_3_30
