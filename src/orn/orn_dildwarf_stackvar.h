// Variables on the stack: what a walk over a function's entries finds at an address, and the symbol for it.
#ifndef ORN_DILDWARF_STACKVAR_H
#define ORN_DILDWARF_STACKVAR_H

#include "orn/stack_frame_context.h"
#include "orn_dildwarf_location.h"
#include "orn_dildwarf_symbol.h"
#include "orn_dildwarf_types.h"
#include "orn_dildwarf_visitor.h"

#include <string>

namespace ORN_3_30 {

class DWARFDebugInfoLoader;

/// A variable in a frame, or a member of one. It has no scope and so covers no range of the module; its
/// address is the variable's on the stack. Unlike the symbols of scopes it lives by its count.
class StackVariableSymbol : public DWARFSymbol {
public:
    StackVariableSymbol(IFileFormatLoader* loader, const std::string& name, unsigned long long address,
                        AttrBindings& entry);

    unsigned addRef() override;
    unsigned release() override;
    void refCount(unsigned& count) const override;

    void ranges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out) override;
    void thunkRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out) override;
    void sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out, IAddress* low,
                     IAddress* high) override;
};

/// The frame in which a search evaluates locations.
struct StackFrame {
    IStackFrameContext* context = nullptr; ///< borrowed; may be null
    unsigned long long codeAddress = 0;    ///< in the symbol file's own addresses
    unsigned long long frameBase = 0;
};

/// Looks for the variable that covers an address of the stack. Parameters are not looked at.
class StackVariableVisitor : public DIEVisitor {
public:
    StackVariableVisitor(DWARFDebugInfoLoader& loader, LocationLists& lists, const StackFrame& frame,
                         unsigned long long dataAddress)
        : m_loader(loader), m_lists(lists), m_frame(frame), m_dataAddress(dataAddress) {}

    bool visit(SectionWalker& walker, DWARFCompilationUnit& unit, AttrBindings& attrBindings) override;

    /// Null if nothing was found.
    ISymbol* result() const { return m_result; }
    bool isMemberFound() const { return m_memberFound; }

private:
    unsigned long long addressOf(const AttrBinding& location, const DWARFCompilationUnit& unit);
    TypeInfo typeOf(AttrBindings& entry);
    void keepResult(AttrBindings& entry, unsigned long long address, const TypeInfo& type);

    DWARFDebugInfoLoader& m_loader;
    LocationLists& m_lists;
    const StackFrame& m_frame;
    unsigned long long m_dataAddress;
    SymMgrObjectPtr<ISymbol> m_result;
    bool m_memberFound = false;
};

/// Looks for the direct member of one structure that covers an offset.
class StructMemberVisitor : public DIEVisitor {
public:
    /// The structure begins at `base`, sought is `limit`. `budget` counts the entries that may be looked at.
    StructMemberVisitor(DWARFTypes& types, unsigned long long base, unsigned long long limit,
                        unsigned long long& budget)
        : m_types(types), m_base(base), m_limit(limit), m_budget(budget) {}

    bool visit(SectionWalker& walker, DWARFCompilationUnit& unit, AttrBindings& attrBindings) override;

    /// A member that was found.
    struct Member {
        std::string name; ///< empty if it has none
        unsigned long long base = 0;
        TypeInfo type;
    };
    bool isFound() const { return m_isFound; }
    const Member& member() const { return m_member; }

private:
    /// What a member says of its place.
    enum class Place { Known, Unknown, Unreadable };

    Place readPlace(AttrBindings& entry, unsigned long long& offset) const;
    bool visitMember(AttrBindings& entry);

    DWARFTypes& m_types;
    unsigned long long m_base;
    unsigned long long m_limit;
    unsigned long long& m_budget;
    bool m_isEntered = false;
    bool m_isUnion = false;
    std::uint32_t m_structDepth = 0;
    bool m_isFound = false;
    Member m_member;
};

} // namespace ORN_3_30

#endif
