// Symbols with debug information: where they were declared, in which unit, and their source lines.
#ifndef ORN_DILDWARF_SYMBOL_H
#define ORN_DILDWARF_SYMBOL_H

#include "orn_dildwarf_unit.h"
#include "orn_symbol.h"

#include <atomic>

namespace ORN_3_30 {

class SourceLocation;

/// A position in source code as an entry tells it: a declaration, or the place of a call.
struct DWARFPosition {
    unsigned long long file = 0; ///< number in the file table of `unit`
    unsigned long long extra = 0;
    unsigned line = 0;
    unsigned column = 0;
    DWARFCompilationUnit* unit = nullptr; ///< borrowed

    /// Without a file or a line there is no position.
    bool exists() const { return file != 0 && line != 0; }
};

/// Where the thing of an entry was declared, told by the entry itself or by one that it refers to.
DWARFPosition declarationOf(AttrBindings& entry);
/// Where the call stood that an entry is the inlined body of, told by the entry itself.
DWARFPosition callSiteOf(AttrBindings& entry);

/// The location of a position, made at the first request and kept. Reading it takes no lock; it is made under
/// the loading lock, which the file's number needs anyway.
class DWARFLocation {
public:
    DWARFLocation() = default;
    ~DWARFLocation();
    DWARFLocation(const DWARFLocation&) = delete;
    DWARFLocation& operator=(const DWARFLocation&) = delete;

    /// Null before make() has succeeded.
    ISourceLocation* get() const;
    /// Holds under the loading lock. Leaves the object alone where the position has no file.
    void make(const DWARFPosition& position);
    /// Id of the file; all ones before make() has succeeded.
    unsigned fileId() const;

private:
    std::atomic<SourceLocation*> m_location{nullptr}; ///< counted
};

/// The name of an entry: a text of the debug sections, which live as long as the unit, or of someone else.
struct DWARFName {
    const char* text;
    bool isLasting; ///< it is one of the debug sections
};

/// A symbol made of an entry. There is one for every function of a module, so it keeps no more of the entry
/// than its place, and decodes it again when someone asks where it was declared. The name stays where it is,
/// in the debug sections, until a form of it is asked for. Its id is the unit's offset.
class DWARFSymbol : public Symbol {
public:
    /// Which entry tells the declaration: the symbol's own, or for inlined code the one that it refers to.
    enum DeclaredBy : std::uint8_t { declaredBy_Entry, declaredBy_Origin };

    DWARFSymbol(IFileFormatLoader* loader, const DWARFName& name, unsigned long long value, Scope* scope,
                symbol_kind_t kind, DWARFCompilationUnit* unit, unsigned long long entryOffset,
                DeclaredBy declaredBy);

    status_t sourceLocation(SymMgrObjectPtr<ISourceLocation>& out) override;
    status_t compUnitDetails(ICompUnitDetails*& out) override;
    void sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out, IAddress* low,
                     IAddress* high) override;
    void sourceLineAt(SymMgrObjectPtr<ISourceLine>& out, IAddress* addr) override;

    const char* rawName() override;
    const char* demangledName(unsigned int options) override;
    const char* shortName() override;
    const char* fullName() override;
    void setName(const char* name) override;
    const char* rawNameUnlocked() override;
    const char* shortNameUnlocked() override;
    const char* demangledNameUnlocked(unsigned int options) override;

    DWARFCompilationUnit& unit() const { return *m_unit; }
    /// In `.debug_info`, where the entry is decoded again.
    unsigned long long entryOffset() const { return m_entryOffset; }

private:
    ISourceLocation* ensureLocation();
    ISymbolNameDemangler& ensureDemangler();

    const char* m_lastingName; ///< null where the demangler alone has the name
    SymMgrObjectPtr<DWARFCompilationUnit> m_unit;
    unsigned long long m_entryOffset;
    DWARFLocation m_location;
    DeclaredBy m_declaredBy;
};

} // namespace ORN_3_30

#endif
