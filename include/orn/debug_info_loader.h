// Reader of one symbol file.
#ifndef ORN_DEBUG_INFO_LOADER_H
#define ORN_DEBUG_INFO_LOADER_H

#include "orn/file_format_loader.h"
#include "orn/object.h"
#include "orn/status.h"

namespace ORN_3_30 {

class GlobalScope;
class ICompUnitDetails;
class ILineTable;
class ISrcLineResolver;
class IStackFrameContext;
class ISymbol;

/// Reads one symbol file, whatever its format.
class IDebugInfoLoader : public ISymMgrObject {
public:
    /// Path of the symbol file.
    virtual const char* getPath() = 0;
    /// A value of symbol_file_type_t.
    virtual unsigned getType() = 0;
    /// Feeds symbols of the kinds `flags` into `sink`; `filter` limits them.
    virtual status_t loadSymbols(ISymbolTable* sink, LoadFilter* filter, symbol_kind_t flags,
                                 ISrcLineResolver* resolver) = 0;
    /// The line resolver for a module's scope; null where the format has no lines.
    virtual ISrcLineResolver* getLineResolver(GlobalScope* scope, ILock* loadLock) = 0;
    /// The variable, and with `memberFlag` set the member, at a stack address: what
    /// IModuleSymbolBank::findStackVariable asks once it knows the function. `status_False`: none.
    virtual status_t findStackVariable(ISymbol* function, IAddress* codeAddress,
                                       unsigned long long dataAddress, IStackFrameContext* context,
                                       SymMgrObjectPtr<ISymbol>& out, bool* memberFlag) = 0;
    virtual void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned index) = 0;
    /// Reads all line information into `lineTable`, once.
    virtual status_t loadLineTable(ILineTable* lineTable) = 0;
    /// Borrowed; null if there is no such unit.
    virtual ICompUnitDetails* getCompilationUnit(unsigned long long offset) = 0;

protected:
    ~IDebugInfoLoader() = default;
};

} // namespace ORN_3_30

#endif
