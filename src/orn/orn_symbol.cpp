// Symbols, thunks and inline instances: what a scope shows of itself. Made by the loaders through
// createSymbolScope() and by the debug formats; answers queries about names, kinds and ranges. No name is
// parsed here: every form of a name comes from the demangler. Ranges and thunks belong to the scope, which
// answers for them.

#include "orn_symbol.h"

#include "orn/file_format_loader.h"
#include "orn_address.h"
#include "orn_log.h"
#include "orn_symbolrange.h"

#include <array>
#include <cstdint>

namespace ORN_3_30 {

namespace {

constexpr unsigned rankOfNoSingleKind = 10;
constexpr std::size_t nameLockCount = 64;

/// Never destroyed: symbols of the embedding program's static objects may be asked for names very late.
std::array<OrnLock, nameLockCount>& nameLocks() {
    static auto& locks = *new std::array<OrnLock, nameLockCount>;
    return locks;
}

} // namespace

// Quirk: the order is not the numeric order of the kinds; `symbol_kind_other` beats `symbol_kind_variable`.
unsigned symbolPriorityByKind(symbol_kind_t kind) {
    switch (kind) {
    case symbol_kind_entry_point:
        return 0;
    case symbol_kind_function:
        return 1;
    case symbol_kind_label:
        return 2;
    case symbol_kind_other:
        return 3;
    case symbol_kind_variable:
        return 4;
    default:
        return rankOfNoSingleKind;
    }
}

/// No lock here: nobody else knows the symbol yet.
NamedSymbol::NamedSymbol(IFileFormatLoader* loader, const char* name, symbol_visibility_t visibility,
                         symbol_kind_t kind, unsigned long long id)
    : SymMgrObject<ISymbol>(nullptr),
      m_demangler(ISymbolNameDemangler::create(name, loader->getExecFormat())),
      m_visibility(visibility),
      m_kind(kind),
      m_id(id),
      m_loader(loader) {}

NamedSymbol::NamedSymbol(IFileFormatLoader* loader, NameLater, symbol_visibility_t visibility,
                         symbol_kind_t kind, unsigned long long id)
    : SymMgrObject<ISymbol>(nullptr), m_visibility(visibility), m_kind(kind), m_id(id), m_loader(loader) {}

ILock* NamedSymbol::nameLock() const {
    // The low bits say nothing, objects being aligned; the multiplication mixes the others into the top.
    std::uint64_t mixed = (reinterpret_cast<std::uintptr_t>(this) >> 4) * 0x9E3779B97F4A7C15ULL;
    return &nameLocks()[mixed >> 58];
}
static_assert(nameLockCount == 1U << (64 - 58));

status_t NamedSymbol::compUnitDetails(ICompUnitDetails*&) {
    return status_False;
}

const char* NamedSymbol::rawName() {
    return ORN_ASSERT(m_demangler) ? m_demangler->rawForm() : "";
}

const char* NamedSymbol::demangledName(unsigned int options) {
    if (!ORN_ASSERT(m_demangler))
        return "";
    ScopedLock guard(nameLock());
    return m_demangler->demangledForm(options);
}

const char* NamedSymbol::shortName() {
    if (!ORN_ASSERT(m_demangler))
        return "";
    ScopedLock guard(nameLock());
    return m_demangler->shortForm();
}

const char* NamedSymbol::fullName() {
    if (!ORN_ASSERT(m_demangler))
        return "";
    ScopedLock guard(nameLock());
    return m_demangler->fullForm();
}

void NamedSymbol::sourceLineAt(SymMgrObjectPtr<ISourceLine>& out, IAddress*) {
    out = nullptr;
}

void NamedSymbol::setName(const char* name) {
    ScopedLock guard(nameLock());
    m_demangler = ISymbolNameDemangler::create(name, m_loader->getExecFormat());
}

const char* NamedSymbol::rawNameUnlocked() {
    return ORN_ASSERT(m_demangler) ? m_demangler->rawForm() : "";
}

const char* NamedSymbol::shortNameUnlocked() {
    return ORN_ASSERT(m_demangler) ? m_demangler->shortForm() : "";
}

const char* NamedSymbol::demangledNameUnlocked(unsigned int options) {
    return ORN_ASSERT(m_demangler) ? m_demangler->demangledForm(options) : "";
}

void NamedSymbol::setVisibility(symbol_visibility_t visibility) {
    ScopedLock guard(nameLock());
    m_visibility = visibility;
}

ScopeRelatedSymbol::ScopeRelatedSymbol(IFileFormatLoader* loader, const char* name, Scope* scope,
                                       symbol_visibility_t visibility, symbol_kind_t kind,
                                       unsigned long long id)
    : NamedSymbol(loader, name, visibility, kind, id), m_scope(scope) {}

ScopeRelatedSymbol::ScopeRelatedSymbol(IFileFormatLoader* loader, NameLater later, Scope* scope,
                                       symbol_visibility_t visibility, symbol_kind_t kind,
                                       unsigned long long id)
    : NamedSymbol(loader, later, visibility, kind, id), m_scope(scope) {}

void ScopeRelatedSymbol::ranges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out) {
    out = new RelRangeIterator(m_scope);
}

void ScopeRelatedSymbol::thunkRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out) {
    out = new ThunkRangeIterator(m_scope);
}

Symbol::Symbol(IFileFormatLoader* loader, const char* name, unsigned long long value, Scope* scope,
               symbol_visibility_t visibility, symbol_kind_t kind, unsigned long long id)
    : ScopeRelatedSymbol(loader, name, scope, visibility, kind, id), m_value(value) {}

Symbol::Symbol(IFileFormatLoader* loader, NameLater later, unsigned long long value, Scope* scope,
               symbol_visibility_t visibility, symbol_kind_t kind, unsigned long long id)
    : ScopeRelatedSymbol(loader, later, scope, visibility, kind, id), m_value(value) {}

status_t Symbol::sourceLocation(SymMgrObjectPtr<ISourceLocation>&) {
    return status_False;
}

void Symbol::address(SymMgrObjectPtr<IAddress>& out) {
    out = new Address(loader(), m_value, nullptr);
}

void Symbol::sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out, IAddress*,
                         IAddress*) {
    out = nullptr;
}

Thunk::Thunk(Scope* scope, unsigned long long address, unsigned long long size)
    : SymMgrObject<IThunk>(nullptr), m_scope(scope), m_address(address), m_size(size) {}

const char* ImportThunk::name() {
    ISymbol* symbol = m_scope->symbol();
    return symbol ? symbol->rawName() : "";
}

InlineInstance::InlineInstance(Scope* scope) : SymMgrObject<IInlineInstance>(nullptr), m_scope(scope) {}

ISymbol* InlineInstance::symbol() {
    return m_scope->symbol();
}

void InlineInstance::ranges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out) {
    out = new RelRangeIterator(m_scope);
}

} // namespace ORN_3_30
