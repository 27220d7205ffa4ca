// Recognises a container of compiled managed code by its dynamic symbols, and makes its candidate and its
// reader. Run by the ELF loader's constructor only where the legacy reader is switched on by the environment;
// otherwise such a file is plain ELF.

#include "orn_address.h"
#include "orn_ffl_arith.h"
#include "orn_fflelf.h"
#include "orn_fflelf_symbols.h"
#include "orn_log.h"
#include "orn_oat.h"

#include <cstring>
#include <utility>

namespace ORN_3_30 {

namespace {

/// The writer of these files puts its three symbols first, right behind the null entry.
constexpr unsigned entriesLookedAt = 5;

struct OatSymbols {
    unsigned long long start = ~0ULL;
    unsigned long long code = ~0ULL;
    unsigned long long end = ~0ULL;

    void note(const ElfSymbolRecord& record) {
        if (std::strcmp(record.name, "oatdata") == 0)
            start = record.address;
        else if (std::strcmp(record.name, "oatexec") == 0)
            code = record.address;
        else if (std::strcmp(record.name, "oatlastword") == 0)
            end = internal::saturatingSum(record.address, record.size);
    }
    bool areSound() const { return start < end && end > code && end != ~0ULL; }
};

} // namespace

void ElfFileLoader::findOatContainer() {
    const ElfHelper::SymbolTableData table = m_elfHelper->loadDynamicSymbolTable();
    if (!table.entries)
        return;
    const unsigned long long stride = m_elfHelper->getSymbolStride();
    const ElfSymbolStrings strings{table.strings, table.stringsSize, table.stringsSize};
    OatSymbols found;
    for (unsigned index = 0; index < entriesLookedAt; ++index) {
        if (!internal::fitsInside(index * stride, stride, table.entriesSize))
            break;
        ElfSymbolRecord record;
        if (decodeSymbol(table.entries + index * stride, strings, *m_elfHelper, table.bias, symbol_kind_all,
                         record) == status_Ok)
            found.note(record);
    }
    if (!found.areSound())
        return;
    m_oatData = new Address(this, found.start, nullptr);
    m_oatExec = new Address(this, found.code, nullptr);
    m_oatDataSize = found.end - found.start;
}

void ElfFileLoader::addOatCandidate(std::vector<SymMgrObjectPtr<ISymbolFileToResolve>>& symbolFiles) {
    SymMgrObjectPtr<ISymbolFileToResolve> candidate = new OATSymbolFileToResolve(0, getPath(), &m_sharedLock);
    if (*candidate->wantedName() != '\0')
        symbolFiles.push_back(std::move(candidate));
}

/// The container is read as a whole: methods, names and lines are scattered all over it.
IDebugInfoLoader* ElfFileLoader::createOatLoader(const char* path) {
    if (!isOatContainer())
        return nullptr;
    SymMgrObjectPtr<IBuffer> buffer;
    const status_t st = readBytes(m_oatData->fileOffset(), m_oatDataSize, buffer);
    if (!ORN_ASSERT_TEXT(st == status_Ok, "st==status_Ok"))
        return nullptr;
    return new OATDebugInfoLoader(this, path, debugInfoLock(), buffer, m_oatData, m_oatExec);
}

} // namespace ORN_3_30
