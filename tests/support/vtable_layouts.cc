// Compiled by the test of the binary interface alone, with clang's listing of table layouts switched on. A
// class with a constructor that is not inline makes the compiler lay out and list its table.

#include "orn/file.h"
#include "orn/filename.h"
#include "orn/orn.h"
#include "orn_dil.h"
#include "orn_ffl.h"
#include "orn_scope.h"
#include "orn_symbol.h"

namespace ORN_3_30 {

#define ORN_LIST_INTERFACE(type)                                                                             \
    struct type##_ : type {                                                                                  \
        type##_();                                                                                           \
    };                                                                                                       \
    type##_::type##_() {}

#define ORN_LIST_CLASS(type, ...)                                                                            \
    struct type##_ : type {                                                                                  \
        type##_();                                                                                           \
    };                                                                                                       \
    type##_::type##_() : type(__VA_ARGS__) {}

#define ORN_LIST_OBJECT(type)                                                                                \
    struct type##_ : SymMgrObject<type> {                                                                    \
        type##_();                                                                                           \
    };                                                                                                       \
    type##_::type##_() : SymMgrObject<type>(true) {}

ORN_LIST_INTERFACE(ILock)
ORN_LIST_INTERFACE(IRanges)
ORN_LIST_INTERFACE(IPrefetcher)
ORN_LIST_INTERFACE(ISymbolSelector)
ORN_LIST_INTERFACE(ISourceLocationSelector)
ORN_LIST_INTERFACE(ISymbolFileResolver)
ORN_LIST_INTERFACE(ISegment)
ORN_LIST_INTERFACE(ISourceFile)
ORN_LIST_INTERFACE(ICompUnitDetails)
ORN_LIST_INTERFACE(IOptReportEntry)
ORN_LIST_INTERFACE(IFile)
ORN_LIST_INTERFACE(IFileModifiable)
ORN_LIST_INTERFACE(IFilenameParser)

ORN_LIST_OBJECT(IBuffer)
ORN_LIST_OBJECT(IAddress)
ORN_LIST_OBJECT(IScope)
ORN_LIST_OBJECT(IFileFormatLoader)
ORN_LIST_OBJECT(ISectionData)
ORN_LIST_OBJECT(ISection)
ORN_LIST_OBJECT(IFileFormatHelper)
ORN_LIST_OBJECT(ISymbolRange)
ORN_LIST_OBJECT(ISymbol)
ORN_LIST_OBJECT(ISymbolManager)
ORN_LIST_OBJECT(IModuleImage)
ORN_LIST_OBJECT(IModuleSymbolBank)
ORN_LIST_OBJECT(ISymbolTable)
ORN_LIST_OBJECT(ILineTable)
ORN_LIST_OBJECT(IThunk)
ORN_LIST_OBJECT(IInlineInstance)
ORN_LIST_OBJECT(ISourceLine)
ORN_LIST_OBJECT(ISourceLocation)
ORN_LIST_OBJECT(ISrcLineResolver)
ORN_LIST_OBJECT(IDebugInfoLoader)
ORN_LIST_OBJECT(ISymbolFileToResolve)
ORN_LIST_OBJECT(IAddressMapping)
ORN_LIST_OBJECT(IStackFrameContext)
ORN_LIST_OBJECT(ISymbolNameDemangler)
using ISegmentIterator = IIterator<ISegment*>;
ORN_LIST_OBJECT(ISegmentIterator)

ORN_LIST_CLASS(SymMgrObjectImpl, )
ORN_LIST_CLASS(FileFormatLoader, )
ORN_LIST_CLASS(NamedSymbol, nullptr, "", symbol_visibility_local, symbol_kind_other, 0)
ORN_LIST_CLASS(SymbolScope, nullptr, nullptr, nullptr)
ORN_LIST_CLASS(InlineInstance, nullptr)
ORN_LIST_CLASS(LineResolver, nullptr, nullptr, nullptr, nullptr)

} // namespace ORN_3_30
