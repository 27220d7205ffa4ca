// The front door: from a module's path to its symbol bank.
#ifndef ORN_SYMBOL_MANAGER_H
#define ORN_SYMBOL_MANAGER_H

#include "orn/export.h"
#include "orn/module_symbol_bank.h"
#include "orn/object.h"
#include "orn/status.h"
#include "orn/types.h"

namespace ORN_3_30 {

/// Flags of loadSymbolsFromModuleEx.
enum load_flag_t : unsigned {
    load_flag_no_symbol_file = 0x2, ///< have only what the module's own format tells
    load_flag_no_cache = 0x4        ///< make a fresh loader and do not share it
};

/// The process's one manager. It lives as long as a client or a bank holds it. All operations may be called
/// from several threads.
///
/// A failing load leaves `out` untouched. `resolver` may be null (the first usable candidate is taken) and is
/// not kept. An unchanged file is read once, however often it is loaded; a module's identity is its size,
/// modification time, path, offset in the file and architecture. `kernelName` names the kernel inside a GPU
/// binary, may be null, and is not part of the identity: a second kernel of one file needs the no-cache flag.
class ISymbolManager : public ISymMgrObject {
public:
    /// `bitness`: 0 unknown, 1 IA-32, every other value x86-64.
    virtual status_t loadSymbolsFromModule(const char* execFileName, ISymbolFileResolver* resolver,
                                           SymMgrObjectPtr<IModuleSymbolBank>& out, int bitness, bool noCache,
                                           const char* kernelName) = 0;
    virtual status_t loadSymbolsFromModule(const char* execFileName, ISymbolFileResolver* resolver,
                                           SymMgrObjectPtr<IModuleSymbolBank>& out, arch_t arch, bool noCache,
                                           const char* kernelName) = 0;
    /// `flags`: load_flag_t.
    virtual status_t loadSymbolsFromModuleEx(const char* execFileName, ISymbolFileResolver* resolver,
                                             SymMgrObjectPtr<IModuleSymbolBank>& out, arch_t arch,
                                             unsigned flags, const char* kernelName) = 0;

    /// Hands out the process's manager, making it if there is none.
    ORN_API static status_t create(SymMgrObjectPtr<ISymbolManager>& out);

protected:
    ~ISymbolManager() = default;
};

} // namespace ORN_3_30

#endif
