// A Linux kernel through the text listing of its symbols: the candidate that finds the listing, and the
// loader that reads it.
#ifndef ORN_SYSTEMMAP_H
#define ORN_SYSTEMMAP_H

#include "orn/lock.h"
#include "orn/symbol_file.h"
#include "orn_elf.h"
#include "orn_ffl.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace ORN_3_30 {

/// Looks for the listing beside the kernel: "System.map" with what the kernel's name goes on with, or
/// "kallsyms".
///
/// The module's path is borrowed from the module's image, which the format loader keeps; texts handed out are
/// good until resolve() accepts another path.
class SystemMap : public SymMgrObject<ISymbolFileToResolve> {
public:
    /// `index` is the place in the list of the format loader; `lock` guards the count. `isSystemMap` tells
    /// the two forms apart.
    SystemMap(const char* modulePath, long long index, ILock* lock, bool isSystemMap);

    const char* wantedName() override;
    const char* modulePath() override { return m_modulePath; }
    unsigned kind() override { return symbol_file_kernel_map; }
    unsigned state() override;
    long long resolve(const char* path) override;
    int isRequired() override { return 0; }

private:
    long long judge(const char* path);

    const char* m_modulePath;
    std::string m_mapPath;
    unsigned m_state;
    long long m_index;
    OrnLock m_lock;
};

namespace internal {

/// One line of a listing, as it stands there.
struct ListingLine {
    unsigned long long address = 0;
    char letter = 0; ///< 0 if the word is no single letter
    std::string_view name;
    bool isOfKernelModule = false;
    bool hasAllWords = false;
};

/// Takes a line apart, without its end. False if its address is malformed.
bool parseListingLine(std::string_view line, bool is64Bit, ListingLine& out);

/// Keeps names, each with a NUL, where they stay until the object goes.
class ListingNames {
public:
    const char* keep(std::string_view name);
    /// From here on a name that is there already is not kept a second time.
    void startSharing();

private:
    static constexpr std::size_t blockSize = 1 << 18;

    struct Block {
        std::unique_ptr<char[]> text;
        std::size_t size;
        std::size_t used;
    };

    const char* store(std::string_view name);

    std::vector<Block> m_blocks;
    std::unordered_set<std::string_view> m_known; ///< only while sharing
    bool m_isSharing = false;
};

} // namespace internal

/// Reads "System.map" and "kallsyms" listings. The names that it hands to a symbol table live as long as it.
class SystemMAPDebugInfoLoader : public DebugInfoLoader {
public:
    /// `arch` tells how wide the addresses of the listing are; `lock` guards the count.
    SystemMAPDebugInfoLoader(FileFormatLoader* formatLoader, const char* path, ElfHelper* elfHelper,
                             arch_t arch, ILock* lock);

    const char* getPath() override { return m_path.c_str(); }
    unsigned getType() override { return symbol_file_kernel_map; }
    status_t loadSymbols(ISymbolTable* sink, LoadFilter* filter, symbol_kind_t flags,
                         ISrcLineResolver* resolver) override;
    ISrcLineResolver* getLineResolver(GlobalScope*, ILock*) override { return nullptr; }
    status_t findStackVariable(ISymbol*, IAddress*, unsigned long long, IStackFrameContext*,
                               SymMgrObjectPtr<ISymbol>&, bool*) override {
        return status_False;
    }
    status_t loadLineTable(ILineTable*) override { return status_False; }
    ICompUnitDetails* getCompilationUnit(unsigned long long) override { return nullptr; }

private:
    class Load;

    std::string m_path;
    SymMgrObjectPtr<ElfHelper> m_elfHelper;
    arch_t m_arch;
    OrnLock m_loadLock; ///< held over a load
    internal::ListingNames m_names;
    bool m_hasLoaded;
};

} // namespace ORN_3_30

#endif
