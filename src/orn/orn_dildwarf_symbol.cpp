// Symbols of entries. The walk (orn_dildwarf_walk.cpp) makes them, inside their scopes; clients and the
// symbol table ask them. Names and ranges are the base's business, rows of source lines the line resolver's;
// here stands what only the entry knows: its unit and its declaration.

#include "orn_dildwarf_symbol.h"

#include "orn/address.h"
#include "orn/source.h"
#include "orn_dil.h"
#include "orn_dildwarf.h"
#include "orn_linetable_iterators.h"
#include "orn_log.h"
#include "orn_scope.h"
#include "orn_sourceline_impl.h"

namespace ORN_3_30 {

namespace {

unsigned long long numberOf(const AttrBinding* binding) {
    return binding ? binding->value : 0;
}

} // namespace

DWARFPosition declarationOf(AttrBindings& entry) {
    DWARFPosition position;
    // File numbers count in the table of the unit whose entry names the file.
    for (AttrBindings* holder = &entry; holder; holder = holder->getOrigin()) {
        const AttrBinding* file = holder->find(DW_AT_decl_file, true);
        if (!file)
            continue;
        position.file = file->value;
        position.unit = holder->compUnit();
        break;
    }
    if (!position.unit)
        return position;
    position.line = static_cast<unsigned>(numberOf(entry.find(DW_AT_decl_line)));
    position.column = static_cast<unsigned>(numberOf(entry.find(DW_AT_decl_column)));
    position.extra = numberOf(entry.find(DW_AT_VEXOR_position_extra));
    return position;
}

DWARFPosition callSiteOf(AttrBindings& entry) {
    DWARFPosition position;
    position.unit = entry.compUnit();
    position.file = numberOf(entry.find(DW_AT_call_file, true));
    position.line = static_cast<unsigned>(numberOf(entry.find(DW_AT_call_line, true)));
    position.column = static_cast<unsigned>(numberOf(entry.find(DW_AT_call_column, true)));
    position.extra = numberOf(entry.find(DW_AT_VEXOR_position_extra, true));
    return position;
}

DWARFLocation::~DWARFLocation() {
    if (SourceLocation* location = m_location.load(std::memory_order_relaxed))
        location->release();
}

ISourceLocation* DWARFLocation::get() const {
    return m_location.load(std::memory_order_acquire);
}

unsigned DWARFLocation::fileId() const {
    const SourceLocation* location = m_location.load(std::memory_order_acquire);
    return location ? location->fileIndex() : ~0U;
}

void DWARFLocation::make(const DWARFPosition& position) {
    if (get() || !position.exists())
        return;
    LineResolver* resolver = position.unit->getLineResolver();
    const int fileId = resolver ? resolver->fileIdOf(position.file, *position.unit) : -1;
    if (fileId < 0)
        return;
    auto* location = new SourceLocation(resolver, position.unit->getOffset(), static_cast<unsigned>(fileId),
                                        position.line, position.column, position.extra);
    location->addRef();
    m_location.store(location, std::memory_order_release);
}

DWARFSymbol::DWARFSymbol(IFileFormatLoader* loader, const DWARFName& name, unsigned long long value,
                         Scope* scope, symbol_kind_t kind, DWARFCompilationUnit* unit,
                         unsigned long long entryOffset, DeclaredBy declaredBy)
    : Symbol(loader, NameLater(), value, scope, symbol_visibility_local, kind, unit->getOffset()),
      m_lastingName(name.isLasting ? name.text : nullptr),
      m_unit(unit),
      m_entryOffset(entryOffset),
      m_declaredBy(declaredBy) {
    if (!name.isLasting)
        DWARFSymbol::setName(name.text);
}

// --- Names. The lock is held while the demangler is made, and whoever reads it has passed the lock; the raw
// name needs neither.

ISymbolNameDemangler& DWARFSymbol::ensureDemangler() {
    if (!m_demangler)
        m_demangler = ISymbolNameDemangler::create(m_lastingName, loader()->getExecFormat());
    return *m_demangler;
}

const char* DWARFSymbol::rawName() {
    return m_lastingName ? m_lastingName : Symbol::rawName();
}

const char* DWARFSymbol::demangledName(unsigned int options) {
    ScopedLock guard(nameLock());
    return ensureDemangler().demangledForm(options);
}

const char* DWARFSymbol::shortName() {
    ScopedLock guard(nameLock());
    return ensureDemangler().shortForm();
}

const char* DWARFSymbol::fullName() {
    ScopedLock guard(nameLock());
    return ensureDemangler().fullForm();
}

void DWARFSymbol::setName(const char* name) {
    ScopedLock guard(nameLock());
    m_demangler = ISymbolNameDemangler::create(name, loader()->getExecFormat());
    m_lastingName = nullptr;
}

const char* DWARFSymbol::rawNameUnlocked() {
    return rawName();
}

const char* DWARFSymbol::shortNameUnlocked() {
    return ensureDemangler().shortForm();
}

const char* DWARFSymbol::demangledNameUnlocked(unsigned int options) {
    return ensureDemangler().demangledForm(options);
}

// --- Source

status_t DWARFSymbol::compUnitDetails(ICompUnitDetails*& out) {
    out = m_unit.get();
    return status_Ok;
}

status_t DWARFSymbol::sourceLocation(SymMgrObjectPtr<ISourceLocation>& out) {
    try {
        ISourceLocation* location = ensureLocation();
        if (!location)
            return status_False;
        out = location;
        return status_Ok;
    }
    ORN_CATCH_OUT_OF_MEMORY
}

ISourceLocation* DWARFSymbol::ensureLocation() {
    if (ISourceLocation* known = m_location.get())
        return known;
    // The abbreviations go with the loader: without it no entry can be read.
    DWARFDebugInfoLoader* loader = m_unit->getLoader();
    if (!loader)
        return nullptr;
    ScopedLock guard(loader->loadLock());
    AttrBindings entry(m_unit);
    if (!m_unit->readAttrBindingsAt(m_entryOffset, entry))
        return nullptr;
    AttrBindings* declared = m_declaredBy == declaredBy_Origin ? entry.getOrigin() : &entry;
    if (declared)
        m_location.make(declarationOf(*declared));
    return m_location.get();
}

void DWARFSymbol::sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out, IAddress* low,
                              IAddress* high) try {
    ISourceLocation* location = ensureLocation();
    out = new SymbolSourceLineIterator(scope(), m_location.fileId(), id(), location, low, high);
} catch (const std::bad_alloc&) {
    ORN_LOG_ERROR("Out of memory");
    out = nullptr;
}

void DWARFSymbol::sourceLineAt(SymMgrObjectPtr<ISourceLine>& out, IAddress* addr) try {
    out = nullptr;
    LineResolver* resolver = m_unit->getLineResolver();
    if (addr && resolver)
        resolver->sourceLineAt(out, addr->pseudoAddr(), id(), nullptr);
} catch (const std::bad_alloc&) {
    ORN_LOG_ERROR("Out of memory");
    out = nullptr;
}

} // namespace ORN_3_30
