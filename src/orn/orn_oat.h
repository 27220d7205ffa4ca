// The legacy reader of containers of compiled managed code: its candidate and its debug info loader.
#ifndef ORN_OAT_H
#define ORN_OAT_H

#include "orn/address.h"
#include "orn/buffer.h"
#include "orn/symbol_file.h"
#include "orn_ffl.h"
#include "orn_oat_dex.h"
#include "orn_oat_resolver.h"

#include <cstdint>
#include <string>
#include <vector>

namespace ORN_3_30 {

/// The module itself. There is nothing to search for.
class OATSymbolFileToResolve : public SymMgrObject<ISymbolFileToResolve> {
public:
    OATSymbolFileToResolve(long long index, const char* path, ILock* lock);

    const char* wantedName() override { return m_path.c_str(); }
    const char* modulePath() override { return m_path.c_str(); }
    unsigned kind() override { return symbol_file_oat; }
    unsigned state() override { return symbol_file_usable; }
    long long resolve(const char* path) override;
    int isRequired() override { return 1; }

private:
    long long m_index;
    std::string m_path;
};

/// Rebuilds a symbol for each compiled method from the bytes between "oatdata" and "oatlastword". Lines come
/// with the symbols: before the first load of symbols there are none.
///
/// A load runs under the global scope's loading lock, and under the lock that the loader is made with.
class OATDebugInfoLoader : public DebugInfoLoader {
public:
    /// `buffer` holds the bytes from `oatData` on. `lock` guards the count as well.
    OATDebugInfoLoader(FileFormatLoader* formatLoader, const char* path, ILock* lock, IBuffer* buffer,
                       IAddress* oatData, IAddress* oatExec);
    ~OATDebugInfoLoader() override;

    const char* getPath() override { return m_path.c_str(); }
    unsigned getType() override { return symbol_file_oat; }
    /// Reads the container anew and enters all methods, whatever `flags` says.
    status_t loadSymbols(ISymbolTable* sink, LoadFilter* filter, symbol_kind_t flags,
                         ISrcLineResolver* resolver) override;
    ISrcLineResolver* getLineResolver(GlobalScope* scope, ILock* loadLock) override;
    status_t findStackVariable(ISymbol* function, IAddress* codeAddress, unsigned long long dataAddress,
                               IStackFrameContext* context, SymMgrObjectPtr<ISymbol>& out,
                               bool* memberFlag) override;
    status_t loadLineTable(ILineTable*) override { return status_False; }
    ICompUnitDetails* getCompilationUnit(unsigned long long) override { return nullptr; }

    /// Finds the dex files. `status_Ok` also for a container without any.
    status_t readOatHeader();
    /// -1 before the header was read.
    long long version() const { return m_version; }
    const std::vector<SymMgrObjectPtr<DexLoader>>& dexLoaders() const { return m_dexLoaders; }

private:
    status_t readVersion();
    status_t readFields(std::uint32_t& dexFileCount);
    void checkExecutableOffset();
    status_t readDexEntries(std::uint32_t dexFileCount);
    status_t readDexEntry(std::uint32_t index);
    status_t loadAllDexFiles(ISymbolTable& sink, LoadFilter* filter, OATSrcLineResolver* resolver);

    SymMgrObjectPtr<IBuffer> m_oatData;
    SectionWalker m_walker;
    std::vector<SymMgrObjectPtr<DexLoader>> m_dexLoaders;
    std::uint32_t m_executableOffset;
    unsigned long long m_oatDataStartAddress; ///< pseudo address of m_oatDataStart
    std::uint32_t m_headerWord;               ///< kept and not used
    SymMgrObjectPtr<IAddress> m_oatDataStart;
    SymMgrObjectPtr<IAddress> m_oatDataExec;
    long long m_version;
    std::string m_path;
    SymMgrObjectPtr<OATSrcLineResolver> m_lineResolver;
    ILock* m_loadSymbolsLock;
};

} // namespace ORN_3_30

#endif
