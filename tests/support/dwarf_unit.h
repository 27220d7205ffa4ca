// Units out of a DwarfAssembler, without a loader: the reader of entries alone.
#pragma once

#include "dwarf_assembler.h"
#include "dwarf_sections.h"
#include "orn_dildwarf_unit.h"

#include <memory>
#include <vector>

namespace ORN_3_30::test {

/// The sections of an assembler, and units in them as the scan would make them.
class DwarfUnits {
public:
    explicit DwarfUnits(const orn_test::DwarfAssembler& dwarf, unsigned long long bias = 0)
        : m_helper(new MemoryHelper) {
        m_helper->set(section_debug_info, dwarf.info().bytes(), bias);
        m_helper->set(section_debug_abbrev, dwarf.abbrev().bytes());
        if (dwarf.str().size() > 0)
            m_helper->set(section_debug_str, dwarf.str().bytes());
        if (dwarf.line().size() > 0)
            m_helper->set(section_debug_line, dwarf.line().bytes());
        for (std::size_t i = 0; i < dwarf.unitCount(); ++i)
            m_offsets.emplace_back(dwarf.unitOffset(i), dwarf.firstEntryOffset(i));
        m_sections = new DWARFSections(m_helper);
    }

    MemoryHelper& helper() { return *m_helper; }
    DWARFSections& sections() { return *m_sections; }

    /// Unit number `index`, with the header that the assembler was told.
    DWARFCompilationUnit& unit(std::size_t index, const orn_test::DwarfUnitOptions& options = {},
                               DWARFDebugInfoLoader* loader = nullptr) {
        static_cast<void>(m_sections->ensureRead());
        DWARFUnitHeader header;
        header.offset = m_offsets.at(index).first;
        const unsigned long long end =
            index + 1 < m_offsets.size() ? m_offsets[index + 1].first : m_sections->info().size();
        header.size = end - header.offset;
        header.abbrevOffset = options.abbrevOffset;
        header.addressSize = options.addressSize;
        header.is64Bit = options.is64Bit;
        header.version = options.version;
        header.headerSize = static_cast<std::uint32_t>(m_offsets[index].second - header.offset);
        m_units.push_back(new DWARFCompilationUnit(
            header, m_tables.tableAt(m_sections->abbrev(), header.abbrevOffset), m_sections, loader));
        return *m_units.back();
    }

private:
    SymMgrObjectPtr<MemoryHelper> m_helper;
    SymMgrObjectPtr<DWARFSections> m_sections;
    AbbrevTables m_tables;
    std::vector<std::pair<unsigned long long, unsigned long long>> m_offsets;
    std::vector<SymMgrObjectPtr<DWARFCompilationUnit>> m_units;
};

} // namespace ORN_3_30::test
