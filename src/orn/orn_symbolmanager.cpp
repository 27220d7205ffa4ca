// The front door: from a module's path to its bank, through the module image, the format loader, the symbol
// file and its debug info loader. Two weak registries make repeated loads cheap and all clients of a module
// share one bank. Nothing of a module is read here beyond what recognising it takes: reading is the bank's
// business, on demand.

#include "orn_symbolmanager.h"

#include "orn/debug_info_loader.h"
#include "orn_ffl_create.h"
#include "orn_ffl_registry.h"
#include "orn_file.h"
#include "orn_filename.h"
#include "orn_log.h"
#include "orn_moduleimage.h"
#include "orn_modulesymbolbank.h"
#include "orn_symbolfileresolver.h"

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <tuple>

#include <sys/stat.h>

namespace ORN_3_30 {

namespace {

/// Holds no reference: the manager dies with its last client or bank.
SymbolManager* s_manager = nullptr;

/// A lock in static storage that is never destroyed: a program may release its last bank from a static
/// destructor of its own, when other static objects are gone already.
union ImmortalLock {
    ImmortalLock() : lock() {}
    ~ImmortalLock() {}

    OrnLock lock;
};

bool mayBeMissing(const char* path) {
    // Quirk: the whole path is looked at and not its base name. A kernel that is not on disk is let through
    // by its bare name only; with a directory in front it is a file that cannot be opened.
    return path && std::strncmp(path, "vmlinu", 6) == 0;
}

/// Reached from the destructor of every format loader. The manager is held by a count of its own and not by
/// the creation lock, because releaseFFL() takes the registry lock.
void forgetFormatLoader(IFileFormatLoader* ffl) {
    if (SymMgrObjectPtr<SymbolManager> manager = SymbolManager::existing())
        manager->releaseFFL(ffl);
}

[[maybe_unused]] const bool s_hookSet = (internal::setReleaseFormatLoader(&forgetFormatLoader), true);

/// Number of the candidate that the resolver picks; negative for none.
long long resolveSymbolFile(ISymbolFileResolver* resolver,
                            SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>>& candidates) {
    std::unique_ptr<SymbolFileResolver> standardResolver;
    if (!resolver) {
        standardResolver = std::make_unique<SymbolFileResolver>();
        resolver = standardResolver.get();
    }
    if (!candidates || !candidates->current())
        return -1;
    return resolver->resolveSymbolFile(candidates);
}

} // namespace

ILock* SymbolManager::creationLock() {
    static ImmortalLock holder;
    return &holder.lock;
}

ILock* SymbolManager::registryLock() {
    static ImmortalLock holder;
    return &holder.lock;
}

ModuleIdentity ModuleIdentity::ofImage(IModuleImage& image) {
    ModuleIdentity identity;
    if (const char* path = image.getPath())
        canonicalPath(identity.path, path);
    struct stat properties;
    if (!identity.path.empty() && ::stat(identity.path.c_str(), &properties) == 0) {
        identity.size = static_cast<unsigned long long>(properties.st_size);
        identity.modificationTime = properties.st_mtime;
    }
    identity.offset = image.getFileOffset();
    identity.arch = image.getArch();
    return identity;
}

// The paths are canonical already, so that the bytes decide whether they are the same path.
bool ModuleIdentity::operator<(const ModuleIdentity& other) const {
    return std::tie(size, modificationTime, path, offset, arch) <
           std::tie(other.size, other.modificationTime, other.path, other.offset, other.arch);
}

bool SymbolManager::BankKeyLess::operator()(const BankKey& a, const BankKey& b) const {
    auto number = [](const void* pointer) { return reinterpret_cast<std::uintptr_t>(pointer); };
    return std::make_pair(number(a.first), number(a.second)) <
           std::make_pair(number(b.first), number(b.second));
}

/// The loaders of one load. However the load ends they are dropped under the registry lock: a look-up on
/// another thread must not meet a registered loader whose count has just reached zero.
struct SymbolManager::LoaderPair {
    SymMgrObjectPtr<IFileFormatLoader> ffl;
    SymMgrObjectPtr<IDebugInfoLoader> debugInfoLoader;

    ~LoaderPair() {
        ScopedLock guard(registryLock());
        debugInfoLoader = nullptr;
        ffl = nullptr;
    }
};

SymbolManager::SymbolManager() : SymMgrObject<ISymbolManager>(creationLock()) {
    ORN_TRACE("SymbolManager");
}

// No bank can be registered any more, since each holds the manager; format loaders may outlive it and find
// no manager then.
SymbolManager::~SymbolManager() {
    ORN_TRACE("~SymbolManager");
    ScopedLock guard(creationLock());
    s_manager = nullptr;
}

SymMgrObjectPtr<SymbolManager> SymbolManager::instance() {
    ScopedLock guard(creationLock());
    if (!s_manager)
        s_manager = new (std::nothrow) SymbolManager;
    return s_manager;
}

SymMgrObjectPtr<SymbolManager> SymbolManager::existing() {
    ScopedLock guard(creationLock());
    return s_manager;
}

status_t ISymbolManager::create(SymMgrObjectPtr<ISymbolManager>& out) {
    ORN_TRACE("create");
    SymMgrObjectPtr<SymbolManager> manager = SymbolManager::instance();
    out = manager.get();
    if (!out) {
        ORN_LOG_ERROR("can't instantiate ISymbolManager object");
        return status_Fail;
    }
    return status_Ok;
}

// Quirk: a client of this form reaches two architectures only; whatever is neither unknown nor IA-32 is
// x86-64.
status_t SymbolManager::loadSymbolsFromModule(const char* execFileName, ISymbolFileResolver* resolver,
                                              SymMgrObjectPtr<IModuleSymbolBank>& out, int bitness,
                                              bool noCache, const char* kernelName) {
    arch_t arch = arch_x86_64;
    if (bitness == 0)
        arch = arch_unknown;
    else if (bitness == 1)
        arch = arch_ia32;
    return loadSymbolsFromModule(execFileName, resolver, out, arch, noCache, kernelName);
}

status_t SymbolManager::loadSymbolsFromModule(const char* execFileName, ISymbolFileResolver* resolver,
                                              SymMgrObjectPtr<IModuleSymbolBank>& out, arch_t arch,
                                              bool noCache, const char* kernelName) {
    ORN_TRACE("loadSymbolsFromModule");
    ORN_TRACE_IN("execFileName", execFileName);
    return loadFromFile(execFileName, resolver, out, arch, noCache ? load_flag_no_cache : 0u, kernelName);
}

status_t SymbolManager::loadSymbolsFromModuleEx(const char* execFileName, ISymbolFileResolver* resolver,
                                                SymMgrObjectPtr<IModuleSymbolBank>& out, arch_t arch,
                                                unsigned flags, const char* kernelName) {
    ORN_TRACE("loadSymbolsFromModuleEx");
    ORN_TRACE_IN("execFileName", execFileName);
    return loadFromFile(execFileName, resolver, out, arch, flags, kernelName);
}

status_t SymbolManager::loadFromFile(const char* execFileName, ISymbolFileResolver* resolver,
                                     SymMgrObjectPtr<IModuleSymbolBank>& out, arch_t arch, unsigned flags,
                                     const char* kernelName) {
    if (!execFileName)
        return status_InvalidArg;
    try {
        SymMgrObjectPtr<IModuleImage> image = internal::createModuleImage(execFileName, arch, false);
        return loadSymbolsFromModule(out, image, resolver, flags, kernelName);
    }
    ORN_CATCH_OUT_OF_MEMORY
}

status_t SymbolManager::loadSymbolsFromModule(SymMgrObjectPtr<IModuleSymbolBank>& out,
                                              SymMgrObjectPtr<IModuleImage>& image,
                                              ISymbolFileResolver* resolver, unsigned flags,
                                              const char* kernelName) {
    ORN_TRACE("loadSymbolsFromModule");
    LoaderPair loaders;
    status_t status = getFileLoader(loaders.ffl, image, (flags & load_flag_no_cache) != 0, kernelName);
    if (status != status_Ok)
        return status;
    if (!(flags & load_flag_no_symbol_file)) {
        status = ensureDebugInfoLoader(loaders, resolver);
        if (isFailure(status))
            return status;
    }
    out = bankOf(loaders).get();
    return status_Ok;
}

/// `status_False`: the module has no symbol file, and the load goes on without one.
status_t SymbolManager::ensureDebugInfoLoader(LoaderPair& loaders, ISymbolFileResolver* resolver) {
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>> candidates;
    const status_t status = loaders.ffl->getSymbolFiles(candidates);
    if (isFailure(status))
        return status;
    const long long index = resolveSymbolFile(resolver, candidates);
    ScopedLock guard(registryLock());
    return loaders.ffl->getDebugInfoLoader(loaders.debugInfoLoader, index);
}

// The bank's count is guarded by the registry lock, so one that is found here cannot be dying.
SymMgrObjectPtr<ModuleSymbolBank> SymbolManager::bankOf(const LoaderPair& loaders) {
    ScopedLock guard(registryLock());
    const BankKey key(loaders.ffl.get(), loaders.debugInfoLoader.get());
    if (const auto found = m_banks.find(key); found != m_banks.end())
        return found->second;
    // Held before it is entered: should the registry have no memory for it, the bank goes by itself.
    SymMgrObjectPtr<ModuleSymbolBank> bank = new ModuleSymbolBank(key.first, key.second, registryLock());
    m_banks.emplace(key, bank.get());
    return bank;
}

status_t SymbolManager::getFileLoader(SymMgrObjectPtr<IFileFormatLoader>& out,
                                      SymMgrObjectPtr<IModuleImage>& image, bool noCache,
                                      const char* kernelName) {
    ORN_TRACE("getFileLoader");
    if (!image) {
        ORN_LOG_ERROR("Module Image is NULL");
        return status_InvalidArg;
    }
    if (!fileExists(image->getPath()) && !mayBeMissing(image->getPath())) {
        ORN_LOG_ERROR("could not open file");
        return status_CantOpenFile;
    }
    if (noCache) {
        const status_t status = internal::createFileFormatLoader(out, image, kernelName);
        return status == status_Ok && !out ? status_BadFileFormat : status;
    }
    return ensureFormatLoader(out, image, kernelName);
}

// The registry lock is held while the file is opened and recognised, so that loads of different files wait
// for one another: that is what gives two threads that ask for one module one loader.
status_t SymbolManager::ensureFormatLoader(SymMgrObjectPtr<IFileFormatLoader>& out,
                                           SymMgrObjectPtr<IModuleImage>& image, const char* kernelName) {
    const ModuleIdentity identity = ModuleIdentity::ofImage(*image);
    ScopedLock guard(registryLock());
    if (const auto found = m_loaders.find(identity); found != m_loaders.end())
        out = found->second;
    if (!out) {
        const status_t status = internal::createFileFormatLoader(out, image, kernelName);
        if (status != status_Ok)
            return status;
        if (out)
            registerFFL(identity, out);
        // The count of an image is not guarded. It has to be the loader's alone before another thread can
        // find the loader.
        image = nullptr;
    }
    return out ? status_Ok : status_BadFileFormat;
}

void SymbolManager::registerFFL(const ModuleIdentity& identity, IFileFormatLoader* ffl) {
    m_loaders.emplace(identity, ffl);
}

// A walk, because the loader does not know its identity; the registry is small, and this runs once a loader.
void SymbolManager::releaseFFL(IFileFormatLoader* ffl) {
    ScopedLock guard(registryLock());
    for (auto entry = m_loaders.begin(); entry != m_loaders.end(); ++entry) {
        if (entry->second == ffl) {
            m_loaders.erase(entry);
            return;
        }
    }
}

void SymbolManager::releaseBank(IFileFormatLoader* ffl, IDebugInfoLoader* debugInfoLoader) {
    ScopedLock guard(registryLock());
    m_banks.erase(BankKey(ffl, debugInfoLoader));
}

std::size_t SymbolManager::bankCount() const {
    ScopedLock guard(registryLock());
    return m_banks.size();
}

std::size_t SymbolManager::loaderCount() const {
    ScopedLock guard(registryLock());
    return m_loaders.size();
}

namespace internal {

std::size_t liveBankCount() {
    SymMgrObjectPtr<SymbolManager> manager = SymbolManager::existing();
    return manager ? manager->bankCount() : 0;
}

std::size_t registeredLoaderCount() {
    SymMgrObjectPtr<SymbolManager> manager = SymbolManager::existing();
    return manager ? manager->loaderCount() : 0;
}

} // namespace internal
} // namespace ORN_3_30
