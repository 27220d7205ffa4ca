// Symbols of compiled managed code, and how they enter a symbol table.
#ifndef ORN_OAT_SYMBOL_H
#define ORN_OAT_SYMBOL_H

#include "orn/source.h"
#include "orn_fflelf_symbols.h"
#include "orn_oat_resolver.h"
#include "orn_scope.h"
#include "orn_symbol.h"

#include <atomic>

namespace ORN_3_30 {

/// The region of one method. There is nothing nested in it.
class OATSymbolScope : public SymbolScope {
public:
    OATSymbolScope(IFileFormatLoader* loader, Scope* parent);
};

/// One compiled method. Where it is in the source its line resolver says.
class OATSymbol : public Symbol {
public:
    /// `resolver` is counted; it may be null: then nothing is known of the source.
    OATSymbol(IFileFormatLoader* loader, const char* name, unsigned long long address, Scope* scope,
              symbol_visibility_t visibility, symbol_kind_t kind, OATSrcLineResolver* resolver);
    ~OATSymbol() override;

    /// The location of the method's first byte. An answer is kept, and a missing one asked for again.
    status_t sourceLocation(SymMgrObjectPtr<ISourceLocation>& out) override;
    void sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out, IAddress* low,
                     IAddress* high) override;
    void sourceLineAt(SymMgrObjectPtr<ISourceLine>& out, IAddress* addr) override;

private:
    SymMgrObjectPtr<OATSrcLineResolver> m_lineResolver;
    /// Set once, without a lock: of several threads that come first one keeps its answer. Holds a reference.
    std::atomic<ISourceLocation*> m_sourceLocation{nullptr};
};

/// Makes the symbol of each method, with a scope of its own, and hands it to the sink.
class OATSymbolCallBack final : public ISymbolCallBack {
public:
    /// All are borrowed; the resolver may be null.
    OATSymbolCallBack(IFileFormatLoader& loader, ISymbolTable& sink, OATSrcLineResolver* resolver)
        : m_loader(loader), m_sink(sink), m_resolver(resolver) {}

    void operator()(const char* name, unsigned long long address, unsigned long long size,
                    symbol_visibility_t visibility, symbol_kind_t kind) override;

private:
    IFileFormatLoader& m_loader;
    ISymbolTable& m_sink;
    OATSrcLineResolver* m_resolver;
};

} // namespace ORN_3_30

#endif
