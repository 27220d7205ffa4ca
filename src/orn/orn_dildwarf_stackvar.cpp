// The search of the query for stack variables (orn_dildwarf_stackquery.cpp): which variable of a function
// covers an address, and if it is a structure, which member, level by level. What a frame is worked out from
// is the query's; here it is given.
//
// Left out on purpose: formal parameters, elements of arrays, base classes, members of structures inside
// arrays.

#include "orn_dildwarf_stackvar.h"

#include "orn_containers.h"
#include "orn_dildwarf.h"
#include "orn_log.h"

#include <set>
#include <string_view>
#include <vector>

namespace ORN_3_30 {

namespace {

/// One lock for the counts of all of them: the last release of one may run beside a query that hands out the
/// next. Never destroyed, since clients may release late.
ILock& countLock() {
    static auto& lock = *new OrnLock;
    return lock;
}

template <typename T>
SymMgrObjectPtr<IIterator<SymMgrObjectPtr<T>>> emptyIterator() {
    using Items = std::vector<SymMgrObjectPtr<T>>;
    static const auto& none = *new Items;
    return new VectorIteratorWrapper<Items, SymMgrObjectPtr<T>>(&none, nullptr);
}

/// Null where the entry has none of the three; an empty one is a name.
const char* nameOf(AttrBindings& entry) {
    for (const unsigned attribute : {DW_AT_MIPS_linkage_name, DW_AT_linkage_name, DW_AT_name}) {
        if (const char* name = textOf(entry.find(attribute)))
            return name;
    }
    return nullptr;
}

/// The name that the programmer wrote; the common block without a name keeps its own.
std::string_view withoutFortranMark(std::string_view name) {
    if (name.ends_with('_') && name != "_BLNK_")
        name.remove_suffix(1);
    return name;
}

bool covers(unsigned long long begin, unsigned long long size, unsigned long long address) {
    return address >= begin && address - begin < size;
}

/// The search through a structure, level by level.
class MemberSearch {
public:
    MemberSearch(DWARFDebugInfoLoader& loader, unsigned long long soughtOffset)
        : m_loader(loader), m_soughtOffset(soughtOffset), m_budget(loader.sections().info().size()) {}

    /// Appends the members that lead to the offset to `name`; false if there are none.
    ///
    /// Quirk: a member that is a pointer is searched like the structure that it points to. Where that leads
    /// to a structure that was searched already, the search ends.
    bool run(DWARFCompilationUnit& unit, unsigned long long structOffset, std::string& name) {
        bool isFound = false;
        unsigned long long base = 0;
        DWARFCompilationUnit* from = &unit;
        while (structOffset != ~0ULL && m_searched.insert(structOffset).second) {
            if (!from->holds(structOffset))
                from = m_loader.findCompUnitContaining(structOffset);
            if (!from)
                break;
            StructMemberVisitor visitor(m_loader.types(), base, m_soughtOffset, m_budget);
            SectionWalker walker = from->walkerAt(structOffset);
            static_cast<void>(visitDIEs(walker, *from, visitor));
            if (!visitor.isFound())
                break;
            isFound = true;
            if (!visitor.member().name.empty())
                name.append("::").append(visitor.member().name);
            base = visitor.member().base;
            structOffset = visitor.member().type.structOffset;
        }
        return isFound;
    }

private:
    DWARFDebugInfoLoader& m_loader;
    unsigned long long m_soughtOffset;
    /// Structures hold different entries, so that all of them together hold no more than the section has
    /// bytes.
    unsigned long long m_budget;
    std::set<unsigned long long> m_searched;
};

} // namespace

// --- The symbol

StackVariableSymbol::StackVariableSymbol(IFileFormatLoader* loader, const std::string& name,
                                         unsigned long long address, AttrBindings& entry)
    : DWARFSymbol(loader, DWARFName{name.c_str(), false}, address, nullptr, symbol_kind_variable,
                  entry.compUnit(), entry.entryStart(), declaredBy_Entry) {}

unsigned StackVariableSymbol::addRef() {
    ScopedLock guard(&countLock());
    return DWARFSymbol::addRef();
}

unsigned StackVariableSymbol::release() {
    ScopedLock guard(&countLock());
    return DWARFSymbol::release();
}

void StackVariableSymbol::refCount(unsigned& count) const {
    ScopedLock guard(&countLock());
    DWARFSymbol::refCount(count);
}

void StackVariableSymbol::ranges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out) {
    out = emptyIterator<ISymbolRange>();
}

void StackVariableSymbol::thunkRanges(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>>& out) {
    out = emptyIterator<ISymbolRange>();
}

void StackVariableSymbol::sourceLines(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>>& out,
                                      IAddress*, IAddress*) {
    out = emptyIterator<ISourceLine>();
}

// --- Variables

bool StackVariableVisitor::visit(SectionWalker&, DWARFCompilationUnit& unit, AttrBindings& attrBindings) {
    if (attrBindings.tag() != DW_TAG_variable)
        return true;
    const AttrBinding* location = attrBindings.find(DW_AT_location);
    if (!location)
        return true;
    const unsigned long long address = addressOf(*location, unit);
    const TypeInfo type = typeOf(attrBindings);
    if (!covers(address, type.size, m_dataAddress))
        return true;
    keepResult(attrBindings, address, type);
    return false;
}

/// A list without an entry for the code leaves the variable at address 0.
unsigned long long StackVariableVisitor::addressOf(const AttrBinding& location,
                                                   const DWARFCompilationUnit& unit) {
    const unsigned addressSize = unit.getAddressSize();
    SectionWalker expression;
    if (isExpression(location))
        expression = walkerOver(location);
    else if (!isLocationList(location) ||
             !m_lists.findLocationListEntry(unit, &location, addressSize, m_frame.codeAddress, expression))
        return 0;
    return readLocation(expression, m_frame.context, m_frame.frameBase, addressSize);
}

/// What cannot be read takes one byte.
TypeInfo StackVariableVisitor::typeOf(AttrBindings& entry) {
    TypeInfo type;
    const AttrBinding* reference = entry.find(DW_AT_type);
    if (!reference || !m_loader.types().readType(*entry.compUnit(), reference->value, type))
        type.size = 1;
    return type;
}

void StackVariableVisitor::keepResult(AttrBindings& entry, unsigned long long address, const TypeInfo& type) {
    const char* told = nameOf(entry);
    std::string_view written = told ? told : "";
    if (entry.compUnit()->isFortran())
        written = withoutFortranMark(written);
    std::string name(written);
    m_memberFound =
        MemberSearch(m_loader, m_dataAddress - address).run(*entry.compUnit(), type.structOffset, name);
    m_result = new StackVariableSymbol(&m_loader.fileLoader(), name, address, entry);
}

// --- Members

bool StructMemberVisitor::visit(SectionWalker&, DWARFCompilationUnit&, AttrBindings& attrBindings) {
    if (m_budget == 0)
        return false;
    --m_budget;
    switch (attrBindings.tag()) {
    case DW_TAG_structure_type:
    case DW_TAG_class_type:
    case DW_TAG_union_type:
        // Quirk: one that is defined inside ends the walk, and with it the members behind it.
        if (m_isEntered)
            return false;
        m_isEntered = true;
        m_isUnion = attrBindings.tag() == DW_TAG_union_type;
        m_structDepth = depth();
        return true;
    default:
        // Quirk: so does anything that has entries of its own below it, such as a function with parameters.
        if (!m_isEntered || depth() != m_structDepth + 1)
            return false;
        return attrBindings.tag() != DW_TAG_member || visitMember(attrBindings);
    }
}

bool StructMemberVisitor::visitMember(AttrBindings& entry) {
    unsigned long long offset = 0;
    switch (readPlace(entry, offset)) {
    case Place::Unknown:
        return true;
    case Place::Unreadable:
        return false;
    case Place::Known:
        break;
    }
    // Members ascend: behind the sought one nothing more is to be found.
    if (offset > ~0ULL - m_base || m_base + offset > m_limit)
        return false;
    Member member;
    member.base = m_base + offset;
    const AttrBinding* reference = entry.find(DW_AT_type);
    if (!reference || !m_types.readType(*entry.compUnit(), reference->value, member.type))
        member.type.size = 1;
    if (!covers(member.base, member.type.size, m_limit))
        return true;
    const char* name = textOf(entry.find(DW_AT_name));
    member.name = name ? name : "";
    m_member = std::move(member);
    m_isFound = true;
    return false;
}

/// In a union all members begin where it does, and need not say so; elsewhere one without a place is not part
/// of the object.
StructMemberVisitor::Place StructMemberVisitor::readPlace(AttrBindings& entry,
                                                          unsigned long long& offset) const {
    const AttrBinding* location = entry.find(DW_AT_data_member_location);
    if (!location)
        return m_isUnion ? Place::Known : Place::Unknown;
    switch (location->form) {
    case DW_FORM_sdata:
    case DW_FORM_udata:
    case DW_FORM_data8:
        offset = location->value;
        return Place::Known;
    case DW_FORM_block: {
        SectionWalker expression = walkerOver(*location);
        if (expression.remaining() == 0 || expression.readU8() != DW_OP_plus_uconst)
            return Place::Unreadable;
        offset = expression.readULEB();
        return Place::Known;
    }
    default:
        return Place::Unreadable;
    }
}

} // namespace ORN_3_30
