// The relocation section that applies to a section, as records by place with the symbols that they name.
// Called for the sections of relocatable files that a DWARF reader relocates, and for ".plt". A record whose
// symbol cannot be had is left out; the others stand.

#include "orn_elf.h"
#include "orn_elf_section_data.h"
#include "orn_ffl_arith.h"
#include "orn_log.h"
#include "orn_relocations.h"
#include "orn_walker.h"

#include <cstring>

namespace ORN_3_30 {

namespace {

/// What a relocation needs of a symbol, whatever the class.
struct RelocatedSymbol {
    unsigned nameOffset = 0;
    unsigned type = 0;
    unsigned long long value = 0;
};

template <typename Sym>
bool readSymbol(const unsigned char* data, unsigned long long size, unsigned long long symbolIndex,
                RelocatedSymbol& out) {
    // The entries lie apart by their plain size, whatever the machine adds to them elsewhere.
    if (!internal::fitsInside(symbolIndex * sizeof(Sym), sizeof(Sym), size))
        return false;
    Sym symbol;
    std::memcpy(&symbol, data + symbolIndex * sizeof(Sym), sizeof(symbol));
    out.nameOffset = symbol.st_name;
    out.type = ELF64_ST_TYPE(symbol.st_info);
    out.value = symbol.st_value;
    return true;
}

} // namespace

void ElfHelper::getRelocationAddends(SymMgrObjectPtr<RelocationAddends>& out, unsigned sectionIndex) {
    out = nullptr;
    auto found = m_relocationSections.find(sectionIndex);
    if (found == m_relocationSections.end())
        return;
    const Elf64_Shdr& header = m_sectionHeaders[found->second];
    if (header.sh_type == SHT_RELA)
        out = new RELARelocationAddends(found->second);
    else
        out = new RELRelocationAddends(found->second);
    if (header.sh_link >= getSectionCount())
        return;
    SymMgrObjectPtr<ISectionData> symbols;
    SymMgrObjectPtr<ISectionData> strings;
    findSymbolData(header.sh_link, symbols, strings);
    readRelocations(*out, *symbols, strings);
}

// A table that nobody knows by name still gives values; it has no strings then.
void ElfHelper::findSymbolData(unsigned link, SymMgrObjectPtr<ISectionData>& symbols,
                               SymMgrObjectPtr<ISectionData>& strings) {
    ScopedLock guard(&m_fillLock);
    if (m_symTab && m_strTab && m_symTab->getIndex() == link) {
        symbols = m_symTab;
        strings = m_strTab;
    } else if (m_dynSym && m_dynStr && m_dynSym->getIndex() == link) {
        symbols = m_dynSym;
        strings = m_dynStr;
    } else {
        symbols = new ElfSectionData(this, link);
    }
}

void ElfHelper::readRelocations(RelocationAddends& addends, ISectionData& symbols,
                                const SymMgrObjectPtr<ISectionData>& strings) {
    const unsigned char* symbolData = symbols.getData();
    const unsigned long long symbolSize = symbolData ? symbols.getSize() : 0;
    SymMgrObjectPtr<ISectionData> records = new ElfSectionData(this, addends.getRelocationSection());
    SectionWalker walker(records);
    walker.setAddressSize(m_is64Bit ? 8 : 4);
    for (unsigned index = 0; walker.remaining() != 0; ++index) {
        RelocationEntry entry;
        unsigned long long info = 0;
        unsigned long long addend = 0;
        addends.readEntry(walker, entry.offset, info, addend);
        const unsigned long long symbolIndex = m_is64Bit ? ELF64_R_SYM(info) : ELF32_R_SYM(info);
        RelocatedSymbol symbol;
        if (!(m_is64Bit ? readSymbol<Elf64_Sym>(symbolData, symbolSize, symbolIndex, symbol)
                        : readSymbol<Elf32_Sym>(symbolData, symbolSize, symbolIndex, symbol)))
            continue;
        // Files, common blocks and the like have no place that a sum could be made of.
        if (symbolIndex != 0 && symbol.type >= STT_FILE)
            continue;
        entry.nameOffset = symbol.nameOffset;
        entry.value = symbol.value + addend;
        entry.index = index;
        entry.strings = strings;
        addends.add(entry);
    }
}

} // namespace ORN_3_30
