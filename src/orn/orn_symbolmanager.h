// The front door's inside: the one manager of the process and its two registries.
#ifndef ORN_SYMBOLMANAGER_IMPL_H
#define ORN_SYMBOLMANAGER_IMPL_H

#include "orn/symbol_manager.h"

#include <cstddef>
#include <map>
#include <string>
#include <utility>

namespace ORN_3_30 {

class IDebugInfoLoader;
class IFileFormatLoader;
class ModuleSymbolBank;

/// What makes two loads loads of one module. A file that was rewritten has another size or time, and so is
/// another module. The name of a GPU kernel is deliberately not part of it.
struct ModuleIdentity {
    unsigned long long size = 0;    ///< of the file, in bytes; 0 for a file that is not there
    long long modificationTime = 0; ///< of the file, in whole seconds; 0 for a file that is not there
    std::string path;               ///< canonical; empty if the path has no such form
    unsigned long long offset = 0;  ///< of the module inside its file
    arch_t arch = arch_unknown;     ///< as declared by the client

    static ModuleIdentity ofImage(IModuleImage& image);

    /// In the order of the fields.
    bool operator<(const ModuleIdentity& other) const;
};

/// Finds or makes the format loader, the debug info loader and the bank of a module. Reads no symbols.
///
/// The registries are weak: they hold raw pointers, and each object's destructor takes its own entry out. So
/// a module lives exactly as long as its clients.
///
/// Locks: the creation lock guards the process's manager pointer and the manager's count, the registry lock
/// guards both registries and the count of every bank. While the creation lock is held nothing may take the
/// registry lock, nor release a bank or a format loader: the destructor of a format loader, which runs under
/// the registry lock, needs the creation lock for a moment.
class SymbolManager final : public SymMgrObject<ISymbolManager> {
public:
    SymbolManager();
    ~SymbolManager() override;

    status_t loadSymbolsFromModule(const char* execFileName, ISymbolFileResolver* resolver,
                                   SymMgrObjectPtr<IModuleSymbolBank>& out, int bitness, bool noCache,
                                   const char* kernelName) override;
    status_t loadSymbolsFromModule(const char* execFileName, ISymbolFileResolver* resolver,
                                   SymMgrObjectPtr<IModuleSymbolBank>& out, arch_t arch, bool noCache,
                                   const char* kernelName) override;
    status_t loadSymbolsFromModuleEx(const char* execFileName, ISymbolFileResolver* resolver,
                                     SymMgrObjectPtr<IModuleSymbolBank>& out, arch_t arch, unsigned flags,
                                     const char* kernelName) override;

    /// The load step, which is the path of every load. Lets `std::bad_alloc` through. `image` is handed over:
    /// it may be null afterwards.
    status_t loadSymbolsFromModule(SymMgrObjectPtr<IModuleSymbolBank>& out,
                                   SymMgrObjectPtr<IModuleImage>& image, ISymbolFileResolver* resolver,
                                   unsigned flags, const char* kernelName);
    /// The format loader of an image, which takes it over; with `noCache` a fresh one that is not registered.
    status_t getFileLoader(SymMgrObjectPtr<IFileFormatLoader>& out, SymMgrObjectPtr<IModuleImage>& image,
                           bool noCache, const char* kernelName);

    /// The caller holds the registry lock and a reference to the loader.
    void registerFFL(const ModuleIdentity& identity, IFileFormatLoader* ffl);
    /// A format loader dies.
    void releaseFFL(IFileFormatLoader* ffl);
    /// A bank dies. Both pointers are keys here and are not followed.
    void releaseBank(IFileFormatLoader* ffl, IDebugInfoLoader* debugInfoLoader);

    std::size_t bankCount() const;
    std::size_t loaderCount() const;

    /// The process's manager, making it if there is none; null if the memory for it could not be had.
    static SymMgrObjectPtr<SymbolManager> instance();
    /// The process's manager if there is one.
    static SymMgrObjectPtr<SymbolManager> existing();

    static ILock* creationLock();
    static ILock* registryLock();

private:
    using BankKey = std::pair<IFileFormatLoader*, IDebugInfoLoader*>;
    /// By format loader first, both as unsigned numbers.
    struct BankKeyLess {
        bool operator()(const BankKey& a, const BankKey& b) const;
    };

    struct LoaderPair;

    status_t loadFromFile(const char* execFileName, ISymbolFileResolver* resolver,
                          SymMgrObjectPtr<IModuleSymbolBank>& out, arch_t arch, unsigned flags,
                          const char* kernelName);
    status_t ensureFormatLoader(SymMgrObjectPtr<IFileFormatLoader>& out, SymMgrObjectPtr<IModuleImage>& image,
                                const char* kernelName);
    static status_t ensureDebugInfoLoader(LoaderPair& loaders, ISymbolFileResolver* resolver);
    SymMgrObjectPtr<ModuleSymbolBank> bankOf(const LoaderPair& loaders);

    std::map<BankKey, ModuleSymbolBank*, BankKeyLess> m_banks;
    std::map<ModuleIdentity, IFileFormatLoader*> m_loaders;
};

namespace internal {

/// How many banks and registered format loaders live now; 0 without a manager. For tests, which check that
/// nothing stays behind.
std::size_t liveBankCount();
std::size_t registeredLoaderCount();

} // namespace internal
} // namespace ORN_3_30

#endif
