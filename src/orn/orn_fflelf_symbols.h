// From the records of ELF symbol tables and of the procedure linkage table to scopes in a symbol table.
#ifndef ORN_FFLELF_SYMBOLS_H
#define ORN_FFLELF_SYMBOLS_H

#include "orn/status.h"
#include "orn/symbol_table.h"
#include "orn/types.h"
#include "orn_elf.h"
#include "orn_relocations.h"

namespace ORN_3_30 {

class IFileFormatLoader;
class LoadFilter;
class SymbolScope;
class SymbolTable;

/// A symbol table entry that is worth a symbol. The name lies in the string table.
struct ElfSymbolRecord {
    unsigned long long address = 0;
    unsigned long long size = 0;
    const char* name = nullptr;
    symbol_visibility_t visibility = symbol_visibility_local;
    symbol_kind_t kind = symbol_kind_other;
};

/// Strings that an entry's name lies in. `limit` is what the caller takes for the end of the names: an offset
/// above it is a broken record. `size` is where the bytes really end: from there on there is no name.
struct ElfSymbolStrings {
    const char* data = nullptr;
    unsigned long long size = 0;
    unsigned long long limit = 0;
};

/// Limit of string tables whose size is not questioned.
constexpr unsigned long long unlimitedNames = 0xFFFFFFFFu;

/// Reads one entry and judges it. `status_Ok`: `out` is to be kept. `status_False`: nothing that `flags` asks
/// for. `status_BadFileFormat`: the name lies past the limit. `bias` is added to the value.
status_t decodeSymbol(const unsigned char* entry, const ElfSymbolStrings& strings, const ElfHelper& helper,
                      unsigned long long bias, symbol_kind_t flags, ElfSymbolRecord& out);

/// Whether `filter`, which may be null, wants anything of `size` bytes from `address`.
bool passesFilter(const LoadFilter* filter, unsigned long long address, unsigned long long size);

/// Takes a decoded symbol. A null or empty name is ignored.
class ISymbolCallBack {
public:
    virtual void operator()(const char* name, unsigned long long address, unsigned long long size,
                            symbol_visibility_t visibility, symbol_kind_t kind) = 0;

protected:
    ~ISymbolCallBack() = default;
};

/// Makes a symbol with its scope, has the derived class attach the bytes, and hands it to the sink.
class SymbolCallBack : public ISymbolCallBack {
public:
    SymbolCallBack(IFileFormatLoader& loader, ISymbolTable& sink) : m_loader(loader), m_sink(sink) {}

    void operator()(const char* name, unsigned long long address, unsigned long long size,
                    symbol_visibility_t visibility, symbol_kind_t kind) override;

protected:
    ~SymbolCallBack() = default;
    virtual void attach(SymbolScope& symbol, unsigned long long address, unsigned long long size) = 0;

private:
    IFileFormatLoader& m_loader;
    ISymbolTable& m_sink;
};

/// The symbol covers its bytes. The library's own table takes it as it is and makes the scope when somebody
/// asks for it, so the name has to outlive the table: it lies in a string table that lives with the loader.
class RegularSymbolCallBack final : public SymbolCallBack {
public:
    RegularSymbolCallBack(IFileFormatLoader& loader, ISymbolTable& sink);

    void operator()(const char* name, unsigned long long address, unsigned long long size,
                    symbol_visibility_t visibility, symbol_kind_t kind) override;

protected:
    void attach(SymbolScope& symbol, unsigned long long address, unsigned long long size) override;

private:
    IFileFormatLoader& m_loader;
    SymbolTable* m_table; ///< null if the sink is somebody else's
};

/// The bytes are a thunk of the symbol, which itself lies elsewhere.
class ThunkSymbolCallBack : public SymbolCallBack {
public:
    using SymbolCallBack::SymbolCallBack;

protected:
    ~ThunkSymbolCallBack() = default;
    void attach(SymbolScope& symbol, unsigned long long address, unsigned long long size) override;
};

/// Makes an import thunk of each relocation of ".plt".
class PLTEntryCallBack final : public IAddendCallBack, public ThunkSymbolCallBack {
public:
    /// Every processor's entries are taken for that long, and the first one for the resolver's stub.
    static constexpr unsigned long long entrySize = 16;

    PLTEntryCallBack(IFileFormatLoader& loader, ISymbolTable& sink, unsigned long long pltAddress,
                     const LoadFilter* filter)
        : ThunkSymbolCallBack(loader, sink), m_pltAddress(pltAddress), m_filter(filter) {}

    using SymbolCallBack::operator();
    void operator()(const RelocationEntry& entry) override;

private:
    unsigned long long m_pltAddress;
    const LoadFilter* m_filter;
};

} // namespace ORN_3_30

#endif
