// Symbols, thunks and inline instances: the faces of scopes.
#ifndef ORN_SYMBOL_IMPL_H
#define ORN_SYMBOL_IMPL_H

#include "orn/demangler.h"
#include "orn/symbol.h"
#include "orn/symbol_table.h"

namespace ORN_3_30 {

class IFileFormatLoader;
class Scope;

/// Marks the making of a symbol whose derived class makes the demangler when a name is asked for.
struct NameLater {};

/// A symbol's name, kind and visibility. The name is guarded by a lock: a load that merges symbols may
/// replace it while another thread asks.
class NamedSymbol : public SymMgrObject<ISymbol> {
public:
    NamedSymbol(IFileFormatLoader* loader, const char* name, symbol_visibility_t visibility,
                symbol_kind_t kind, unsigned long long id);

    NamedSymbol(IFileFormatLoader* loader, NameLater, symbol_visibility_t visibility, symbol_kind_t kind,
                unsigned long long id);

    status_t compUnitDetails(ICompUnitDetails*& out) override;
    const char* rawName() override;
    const char* demangledName(unsigned int options) override;
    const char* shortName() override;
    const char* fullName() override;
    symbol_kind_t kind() override { return m_kind; }
    symbol_visibility_t visibility() override { return m_visibility; }
    void sourceLineAt(SymMgrObjectPtr<ISourceLine>& out, IAddress* addr) override;

    /// Replaces the name; texts that earlier calls gave are dead after this.
    virtual void setName(const char* name);
    virtual void setId(unsigned long long id) { m_id = id; }
    /// The same texts for callers that hold the name's lock or that build the symbol.
    virtual const char* rawNameUnlocked();
    virtual const char* shortNameUnlocked();
    virtual const char* demangledNameUnlocked(unsigned int options);

    unsigned long long id() const { return m_id; }
    void setKind(symbol_kind_t kind) { m_kind = kind; }
    void setVisibility(symbol_visibility_t visibility);
    IFileFormatLoader* loader() const { return m_loader; }

protected:
    /// The lock of this symbol's name: one of a few that all symbols of the process share, picked by the
    /// symbol's address. A lock in every symbol would take more room than the rest of the name's data.
    /// Sharing is safe because nothing but the demangler and IFileFormatLoader::getExecFormat() is called
    /// under it, never another symbol.
    ILock* nameLock() const;

    SymMgrObjectPtr<ISymbolNameDemangler>
        m_demangler; ///< never null once the symbol is made, but of NameLater

private:
    symbol_visibility_t m_visibility;
    symbol_kind_t m_kind;
    unsigned long long m_id;     ///< a tag whose meaning belongs to the loader that made the symbol
    IFileFormatLoader* m_loader; ///< borrowed; outlives every symbol of its module
};

/// A symbol whose ranges belong to a scope.
class ScopeRelatedSymbol : public NamedSymbol {
public:
    ScopeRelatedSymbol(IFileFormatLoader* loader, const char* name, Scope* scope,
                       symbol_visibility_t visibility, symbol_kind_t kind, unsigned long long id);
    ScopeRelatedSymbol(IFileFormatLoader* loader, NameLater, Scope* scope, symbol_visibility_t visibility,
                       symbol_kind_t kind, unsigned long long id);

    void ranges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out) override;
    void thunkRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out) override;

    Scope* scope() const { return m_scope; }

private:
    Scope* m_scope; ///< borrowed: the scope owns the symbol
};

/// A symbol with a start of its own.
class Symbol : public ScopeRelatedSymbol {
public:
    Symbol(IFileFormatLoader* loader, const char* name, unsigned long long value, Scope* scope,
           symbol_visibility_t visibility, symbol_kind_t kind, unsigned long long id);
    Symbol(IFileFormatLoader* loader, NameLater, unsigned long long value, Scope* scope,
           symbol_visibility_t visibility, symbol_kind_t kind, unsigned long long id);

    status_t sourceLocation(SymMgrObjectPtr<ISourceLocation>& out) override;
    void address(SymMgrObjectPtr<IAddress>& out) override;
    void sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out, IAddress* low,
                     IAddress* high) override;

    unsigned long long value() const { return m_value; }

private:
    unsigned long long m_value; ///< the start as the loader reported it; ranges need not agree
};

/// A piece of linkage code, [address, address + size).
class Thunk : public SymMgrObject<IThunk> {
public:
    Thunk(Scope* scope, unsigned long long address, unsigned long long size);

    unsigned long long address() const { return m_address; }
    unsigned long long size() const { return m_size; }
    unsigned long long end() const { return m_address + m_size; }
    bool contains(unsigned long long address) const { return m_address <= address && address < end(); }
    void setScope(Scope* scope) { m_scope = scope; }

protected:
    Scope* m_scope; ///< borrowed

private:
    unsigned long long m_address;
    unsigned long long m_size;
};

/// The thunk of an imported symbol: a PLT entry.
class ImportThunk : public Thunk {
public:
    using Thunk::Thunk;

    const char* name() override;
    int isImport() override { return 1; }
};

/// Inlined code. What it is and where it was called is the debug format's.
class InlineInstance : public SymMgrObject<IInlineInstance> {
public:
    explicit InlineInstance(Scope* scope);

    ISymbol* symbol() override;
    virtual void ranges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out);

protected:
    Scope* m_scope; ///< borrowed
};

} // namespace ORN_3_30

#endif
