// Symbols of an ELF module: the records of ".symtab" and ".dynsym", and the thunks of ".plt", on their way
// into a symbol table. Runs when a module's scope first wants symbols, over tables that lie in memory; it is
// where loading spends its time, so a record that is not kept costs no call out of this file and no copy.
// Duplicates are the table's matter. The code of the procedure linkage table is never decoded: a thunk
// follows from the position of its relocation record alone.

#include "orn_fflelf_symbols.h"

#include "orn_elf_names.h"
#include "orn_ffl_arith.h"
#include "orn_fflelf.h"
#include "orn_log.h"
#include "orn_scope.h"
#include "orn_symboltable.h"

#include <cstring>
#include <memory>

namespace ORN_3_30 {

using internal::saturatingSum;

namespace {

bool wantsFunctions(symbol_kind_t flags) {
    return (flags & (symbol_kind_function | symbol_kind_entry_point)) != 0;
}

bool wantsData(symbol_kind_t flags) {
    return (flags & (symbol_kind_label | symbol_kind_variable)) != 0;
}

bool isBindingKept(unsigned binding) {
    return binding == STB_LOCAL || binding == STB_GLOBAL || binding == STB_WEAK;
}

/// Whether the symbol's type is asked for and its address fits the type; tells the kind in any case.
bool isTypeKept(unsigned type, const ElfHelper& helper, symbol_kind_t flags, ElfSymbolRecord& record) {
    record.kind = symbol_kind_other;
    switch (type) {
    case STT_FUNC:
        if (!wantsFunctions(flags))
            return false;
        record.kind = symbol_kind_function;
        return helper.isCodeAddress(record.address);
    case STT_OBJECT:
        if (!wantsData(flags))
            return false;
        record.kind = symbol_kind_variable;
        return helper.isCodeOrDataAddress(record.address);
    case STT_NOTYPE:
        return (flags & symbol_kind_other) && helper.isCodeOrDataAddress(record.address);
    default:
        return false;
    }
}

template <typename Sym>
status_t decode(const unsigned char* entry, const ElfSymbolStrings& strings, const ElfHelper& helper,
                unsigned long long bias, symbol_kind_t flags, ElfSymbolRecord& record) {
    Sym symbol;
    std::memcpy(&symbol, entry, sizeof(symbol));
    record.address = bias + symbol.st_value;
    record.size = symbol.st_size;
    record.name = nullptr;
    if (symbol.st_name == 0)
        return status_False;
    const unsigned binding = ELF64_ST_BIND(symbol.st_info);
    if (!isBindingKept(binding))
        return status_False;
    // Quirk: of the reserved indices these two alone are refused; an absolute symbol stays if its value
    // happens to lie in a section.
    if (symbol.st_shndx == SHN_UNDEF || symbol.st_shndx == SHN_COMMON)
        return status_False;
    record.visibility = binding == STB_LOCAL ? symbol_visibility_local : symbol_visibility_global;
    if (!isTypeKept(ELF64_ST_TYPE(symbol.st_info), helper, flags, record))
        return status_False;
    if (symbol.st_name > strings.limit)
        return status_BadFileFormat;
    if (!strings.data || symbol.st_name >= strings.size)
        return status_False;
    record.name = strings.data + symbol.st_name;
    return status_Ok;
}

/// Hands every record of one table that is asked for to a callback.
template <typename Sym>
void walkTable(const ElfHelper::SymbolTableData& table, const ElfHelper& helper, const LoadFilter* filter,
               symbol_kind_t flags, RegularSymbolCallBack& callback) {
    const unsigned long long stride = helper.getSymbolStride();
    // Quirk: the string table's own size does not make a record broken, it only ends the names.
    const ElfSymbolStrings strings{table.strings, table.stringsSize, unlimitedNames};
    internal::ElfNameBudget names(table.stringsSize, table.entriesSize / stride);
    const internal::LongElfNames longNames(table.strings, table.stringsSize);
    ElfSymbolRecord record;
    for (unsigned long long at = 0; internal::fitsInside(at, sizeof(Sym), table.entriesSize); at += stride) {
        if (decode<Sym>(table.entries + at, strings, helper, table.bias, flags, record) != status_Ok)
            continue;
        if (!passesFilter(filter, record.address, record.size))
            continue;
        if (!longNames.holds(record.name) || names.afford(record.name))
            callback(record.name, record.address, record.size, record.visibility, record.kind);
    }
}

} // namespace

status_t decodeSymbol(const unsigned char* entry, const ElfSymbolStrings& strings, const ElfHelper& helper,
                      unsigned long long bias, symbol_kind_t flags, ElfSymbolRecord& out) {
    return helper.is64Bit() ? decode<Elf64_Sym>(entry, strings, helper, bias, flags, out)
                            : decode<Elf32_Sym>(entry, strings, helper, bias, flags, out);
}

bool passesFilter(const LoadFilter* filter, unsigned long long address, unsigned long long size) {
    return !filter || filter->passes(address, saturatingSum(address, size));
}

void SymbolCallBack::operator()(const char* name, unsigned long long address, unsigned long long size,
                                symbol_visibility_t visibility, symbol_kind_t kind) {
    if (!name || !*name)
        return;
    std::unique_ptr<SymbolScope> symbol(
        createSymbolScope(m_loader, name, address, m_sink.scope(), visibility, kind));
    attach(*symbol, address, size);
    // The table owns the scope from here on and may have destroyed it when this returns.
    m_sink.addScopeRange(address, saturatingSum(address, size), symbol.release());
}

RegularSymbolCallBack::RegularSymbolCallBack(IFileFormatLoader& loader, ISymbolTable& sink)
    : SymbolCallBack(loader, sink), m_loader(loader), m_table(dynamic_cast<SymbolTable*>(&sink)) {}

void RegularSymbolCallBack::operator()(const char* name, unsigned long long address, unsigned long long size,
                                       symbol_visibility_t visibility, symbol_kind_t kind) {
    if (!m_table)
        SymbolCallBack::operator()(name, address, size, visibility, kind);
    else if (name && *name)
        m_table->addPlainSymbol(m_loader, {name, visibility, kind}, address, saturatingSum(address, size));
}

void RegularSymbolCallBack::attach(SymbolScope& symbol, unsigned long long address, unsigned long long size) {
    symbol.addRange(address, saturatingSum(address, size));
}

void ThunkSymbolCallBack::attach(SymbolScope& symbol, unsigned long long address, unsigned long long size) {
    SymMgrObjectPtr<IThunk> thunk = new ImportThunk(&symbol, address, size);
    symbol.addThunk(thunk);
}

void PLTEntryCallBack::operator()(const RelocationEntry& entry) {
    const unsigned long long address = m_pltAddress + (entry.index + 1ULL) * entrySize;
    if (!passesFilter(m_filter, address, entrySize) || !entry.strings)
        return;
    const unsigned char* strings = entry.strings->getData();
    if (!strings || entry.nameOffset >= entry.strings->getSize())
        return;
    (*this)(reinterpret_cast<const char*>(strings) + entry.nameOffset, address, entrySize,
            symbol_visibility_global, symbol_kind_function);
}

status_t ElfFileLoader::readSymbols(ISymbolTable* sink, LoadFilter* filter, symbol_kind_t flags) try {
    flags |= symbol_kind_other;
    if (!ORN_ASSERT(m_elfHelper->isValid()))
        return status_Fail;
    // Both, also where the one repeats the other: the sink removes duplicates. These may be tables that a
    // separate debug file lent.
    readTable(m_elfHelper->loadSymbolTable(), sink, filter, flags);
    readTable(m_elfHelper->loadDynamicSymbolTable(), sink, filter, flags);
    if (flags & symbol_kind_function)
        readThunks(sink, filter);
    addSectionEnds(sink);
    return status_Ok;
}
ORN_CATCH_OUT_OF_MEMORY

void ElfFileLoader::readTable(const ElfHelper::SymbolTableData& table, ISymbolTable* sink, LoadFilter* filter,
                              symbol_kind_t flags) {
    if (!table.entries)
        return;
    RegularSymbolCallBack callback(*this, *sink);
    if (m_elfHelper->is64Bit())
        walkTable<Elf64_Sym>(table, *m_elfHelper, filter, flags, callback);
    else
        walkTable<Elf32_Sym>(table, *m_elfHelper, filter, flags, callback);
}

// Quirk: only a relocation section that names ".plt" itself counts; linkers that point it at ".got.plt" get
// no thunks.
void ElfFileLoader::readThunks(ISymbolTable* sink, LoadFilter* filter) {
    if (m_elfHelper->getPltIndex() == ElfHelper::noSection)
        return;
    // Every record holds a reference to the string table's data, whose count nothing else guards; another
    // bank of this module may be here at the same time.
    ScopedLock guard(m_elfHelper->getFillLock());
    SymMgrObjectPtr<RelocationAddends> addends;
    m_elfHelper->getRelocationAddends(addends, m_elfHelper->getPltIndex());
    SymMgrObjectPtr<ISection> section;
    getSectionByIndex(section, m_elfHelper->getPltIndex());
    if (!addends || !section)
        return;
    PLTEntryCallBack callback(*this, *sink, section->getAddress(), filter);
    addends->walk(callback);
}

} // namespace ORN_3_30
