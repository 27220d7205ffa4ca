// What lies at an address: symbols, thunks, inline instances.
#ifndef ORN_SYMBOL_H
#define ORN_SYMBOL_H

#include "orn/iterator.h"
#include "orn/status.h"
#include "orn/types.h"

namespace ORN_3_30 {

class IAddress;
class ICompUnitDetails;
class ISourceLine;
class ISourceLocation;
class ISymbolRange;

/// A named thing at an address. Lives as long as the scope that it is the face of: hold the bank for as long
/// as you hold a symbol. Texts live as long as the symbol, but a load that merges symbols may replace the
/// name: copy what has to last.
class ISymbol : public ISymMgrObject {
public:
    /// Where the symbol is declared; `status_False`, with `out` untouched, if that is not known.
    virtual status_t sourceLocation(SymMgrObjectPtr<ISourceLocation>& out) = 0;
    /// The compilation unit, borrowed; `status_False` if there is none.
    virtual status_t compUnitDetails(ICompUnitDetails*& out) = 0;
    /// The name as the module's tables have it.
    virtual const char* rawName() = 0;
    virtual const char* demangledName(unsigned int options) = 0;
    virtual const char* shortName() = 0;
    virtual const char* fullName() = 0;
    virtual symbol_kind_t kind() = 0;
    /// The symbol's own start.
    virtual void address(SymMgrObjectPtr<IAddress>& out) = 0;
    /// The ranges that the symbol covers, ascending.
    virtual void ranges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out) = 0;
    virtual symbol_visibility_t visibility() = 0;
    /// The ranges of the symbol's thunks, in order of arrival.
    virtual void thunkRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out) = 0;
    /// The source lines of the symbol's ranges, clipped to [low, high); null limits do not clip.
    virtual void sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out, IAddress* low,
                             IAddress* high) = 0;
    /// The source line at one address; null if there is none.
    virtual void sourceLineAt(SymMgrObjectPtr<ISourceLine>& out, IAddress* addr) = 0;

protected:
    ~ISymbol() = default;
};

/// A piece of linkage code that stands for a symbol.
class IThunk : public ISymMgrObject {
public:
    virtual const char* name() = 0;
    /// 1 if the thunk leads to an imported symbol.
    virtual int isImport() = 0;

protected:
    ~IThunk() = default;
};

/// A function that was expanded in place of a call.
class IInlineInstance : public ISymMgrObject {
public:
    /// Where the call stood.
    virtual void callSite(SymMgrObjectPtr<ISourceLocation>& out) = 0;
    /// The expanded function, borrowed.
    virtual ISymbol* symbol() = 0;
    /// 1 if the call site is known.
    virtual int hasCallSite() = 0;

protected:
    ~IInlineInstance() = default;
};

} // namespace ORN_3_30

#endif
