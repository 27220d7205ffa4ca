// ElfHelper as its callers see it: walks, range lookups, the symbol tables as memory, and the tables that a
// separate debug file lends. Made by the ELF loader for its module, by the debug info loader's factory and
// the candidates for separate files, and by the image factory to look into compressed kernels. How the
// headers get here is told in orn_elf_headers.cpp and orn_elf_sections.cpp. Nothing here interprets a symbol.

#include "orn_elf.h"

#include "orn_elf_section_data.h"
#include "orn_ffl_arith.h"
#include "orn_log.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace ORN_3_30 {

void ElfAddressRanges::assign(const EndByStart& ranges) {
    m_lastHit.store(nullptr, std::memory_order_relaxed);
    m_ranges.clear();
    m_ranges.reserve(ranges.size());
    for (const auto& [start, end] : ranges)
        m_ranges.push_back({start, end});
}

// Quirk: a range that is found is remembered even if it does not hold the address: then the next lookup
// inside it succeeds at once, also where a range that begins later would hide it.
bool ElfAddressRanges::search(unsigned long long address) const {
    auto after =
        std::upper_bound(m_ranges.begin(), m_ranges.end(), address,
                         [](unsigned long long wanted, const Range& range) { return wanted < range.start; });
    if (after == m_ranges.begin())
        return false;
    const Range& found = *std::prev(after);
    m_lastHit.store(&found, std::memory_order_relaxed);
    return found.holds(address);
}

ElfHelper::ElfHelper(SymMgrObjectPtr<IModuleImage> image)
    : m_fileImage(std::move(image)),
      m_header(),
      m_shStrTabSize(0),
      m_is64Bit(false),
      m_valid(false),
      m_programHeaderCount(0),
      m_arch(arch_unknown),
      m_pltIndex(noSection),
      m_debugLinkIndex(noSection),
      m_buildIdIndex(noSection),
      m_debugAbbrevIndex(noSection),
      m_debugLineIndex(noSection),
      m_imageBase(~0ULL),
      m_firstLoadSize(0),
      m_secondLoadAddress(0),
      m_secondLoadSize(0),
      m_firstLoadAddress(0) {
    m_valid = ORN_ASSERT_TEXT(m_fileImage != nullptr, "m_fileImage!=NULL") && readHeaders();
}

ElfHelper::~ElfHelper() = default;

const char* ElfHelper::getPath() const {
    const char* path = m_fileImage ? m_fileImage->getPath() : nullptr;
    return path ? path : "";
}

unsigned long long ElfHelper::getModuleOffset() const {
    return m_fileImage ? m_fileImage->getFileOffset() : 0;
}

const char* ElfHelper::getSectionName(unsigned index) const {
    const Elf64_Shdr* header = getSectionHeader(index);
    if (!header || !m_shStrTab || header->sh_name >= m_shStrTabSize)
        return "";
    return reinterpret_cast<const char*>(m_shStrTab.get()) + header->sh_name;
}

unsigned ElfHelper::findSectionByName(const char* name) const {
    for (unsigned index = 0; name && index < getSectionCount(); ++index) {
        if (std::strcmp(getSectionName(index), name) == 0)
            return index;
    }
    return noSection;
}

void ElfHelper::walkProgramHeaders(IProgramHeadersCallback& callback) const {
    for (unsigned index = 0; m_valid && index < m_programHeaderCount; ++index)
        callback(m_programHeaders[index], index);
}

void ElfHelper::walkSectionHeaders(ISectionHeadersCallback& callback) const {
    for (unsigned index = 0; m_valid && index < getSectionCount(); ++index)
        callback(m_sectionHeaders[index], index);
}

unsigned ElfHelper::getSymbolStride() const {
    unsigned stride = m_is64Bit ? sizeof(Elf64_Sym) : sizeof(Elf32_Sym);
    // Quirk: this machine's symbol entries carry four bytes more, which nobody reads.
    return getMachine() == machineOfExceptions ? stride + 4 : stride;
}

ISectionData* ElfHelper::getSymTab() const {
    ScopedLock guard(&m_fillLock);
    return m_symTab;
}

ISectionData* ElfHelper::getStrTab() const {
    ScopedLock guard(&m_fillLock);
    return m_strTab;
}

ISectionData* ElfHelper::getDynSym() const {
    ScopedLock guard(&m_fillLock);
    return m_dynSym;
}

ISectionData* ElfHelper::getDynStr() const {
    ScopedLock guard(&m_fillLock);
    return m_dynStr;
}

ElfHelper::SymbolTableData ElfHelper::loadSymbolTable() {
    return loadTable(m_symTab, m_strTab);
}

ElfHelper::SymbolTableData ElfHelper::loadDynamicSymbolTable() {
    return loadTable(m_dynSym, m_dynStr);
}

// Plain pointers are enough for the caller: a table that stands here is never replaced, and contents never
// move.
ElfHelper::SymbolTableData ElfHelper::loadTable(const SymMgrObjectPtr<ISectionData>& symbols,
                                                const SymMgrObjectPtr<ISectionData>& strings) {
    ScopedLock guard(&m_fillLock);
    SymbolTableData table;
    if (!symbols || !strings || !symbols->getData() || !strings->getData())
        return table;
    table.entries = symbols->getData();
    table.entriesSize = symbols->getSize();
    table.strings = reinterpret_cast<const char*>(strings->getData());
    table.stringsSize = strings->getSize();
    table.bias = symbols->getBias();
    return table;
}

void ElfHelper::mergeDebugFile(ElfHelper& debugHelper) {
    if (&debugHelper == this)
        return;
    if (!ORN_ASSERT_TEXT(m_imageBase >= debugHelper.getImageBase(),
                         "m_imageBase >= elfHelper->getImageBase()"))
        return;
    unsigned long long bias = m_imageBase - debugHelper.getImageBase();
    borrowTable(debugHelper, debugHelper.getSymTab(), debugHelper.getStrTab(), bias, m_symTab, m_strTab);
    borrowTable(debugHelper, debugHelper.getDynSym(), debugHelper.getDynStr(), bias, m_dynSym, m_dynStr);
}

// The tables are copied at once because the debug file's helper may be gone when symbols are asked for.
void ElfHelper::borrowTable(ElfHelper& debugHelper, ISectionData* lentSymbols, ISectionData* lentStrings,
                            unsigned long long bias, SymMgrObjectPtr<ISectionData>& symbols,
                            SymMgrObjectPtr<ISectionData>& strings) {
    ScopedLock guard(&m_fillLock);
    if (symbols || strings || !lentSymbols || !lentStrings)
        return;
    auto detach = [&debugHelper, bias](ISectionData* lent) -> ISectionData* {
        unsigned long long size = 0;
        std::unique_ptr<unsigned char[]> data(debugHelper.getSectionData(lent->getIndex(), size));
        return data ? new ElfSectionData(std::move(data), size, bias) : nullptr;
    };
    SymMgrObjectPtr<ISectionData> copiedSymbols = detach(lentSymbols);
    SymMgrObjectPtr<ISectionData> copiedStrings = detach(lentStrings);
    if (copiedSymbols && copiedStrings) {
        symbols = copiedSymbols;
        strings = copiedStrings;
    }
}

void ElfHelper::layOutBySections(unsigned long long textAddress, unsigned long long textSize,
                                 unsigned long long dataAddress, unsigned long long dataSize) {
    m_imageBase = textAddress;
    m_firstLoadSize = textSize;
    m_secondLoadAddress = dataAddress;
    m_secondLoadSize = dataSize;
    m_codeRanges.assign({{textAddress, internal::saturatingSum(textAddress, textSize)}});
    m_dataRanges.assign({{dataAddress, internal::saturatingSum(dataAddress, dataSize)}});
}

} // namespace ORN_3_30
