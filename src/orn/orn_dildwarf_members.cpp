// The members of a static variable that is a structure: symbols below the variable's own, read when someone
// asks what is inside it. One level at a time: a member that is a structure has a scope that reads the next.

#include "orn_dildwarf.h"
#include "orn_dildwarf_scope.h"
#include "orn_dildwarf_walk.h"
#include "orn_log.h"

#include <memory>

namespace ORN_3_30 {

namespace {

bool isTransparent(unsigned long long tag) {
    switch (tag) {
    case DW_TAG_typedef:
    case DW_TAG_const_type:
    case DW_TAG_packed_type:
    case DW_TAG_volatile_type:
    case DW_TAG_restrict_type:
    case DW_TAG_shared_type:
        return true;
    default:
        return false;
    }
}

/// Reads the members of one structure.
class MemberReader {
public:
    MemberReader(DWARFDebugInfoLoader& loader, Scope& scope)
        : m_loader(loader), m_scope(scope), m_sink(scope), m_base(scope.firstLow()), m_entry(nullptr) {}

    void read(DWARFCompilationUnit& unit, unsigned long long entryOffset) {
        SectionWalker walker;
        DWARFCompilationUnit* holder = &unit;
        if (!findStructure(holder, entryOffset, walker))
            return;
        while (holder->readAttrBindings(walker, m_entry)) {
            const bool hasChildren = m_entry.hasChildren();
            const AttrBinding* sibling = m_entry.find(DW_AT_sibling, true);
            const unsigned long long siblingOffset = sibling ? sibling->value : 0;
            if (m_entry.tag() == DW_TAG_member)
                addMember(*holder);
            if (hasChildren)
                holder->skipChildren(walker, siblingOffset);
        }
    }

private:
    /// Stands on the first child of the structure that the entry's type is, if it is one.
    bool findStructure(DWARFCompilationUnit*& unit, unsigned long long offset, SectionWalker& walker) {
        for (unsigned long long steps = 1;; ++steps) {
            if (!unit->holds(offset))
                unit = m_loader.findCompUnitContaining(offset);
            if (!unit)
                return false;
            walker = unit->walkerAt(offset);
            if (!unit->readReferredEntry(walker, m_entry))
                return false;
            switch (m_entry.tag()) {
            case DW_TAG_structure_type:
            case DW_TAG_class_type:
            case DW_TAG_union_type:
                return m_entry.hasChildren();
            default:
                break;
            }
            const AttrBinding* type = m_entry.find(DW_AT_type);
            const bool isStart = steps == 1; // the variable or member itself
            if (!type || (!isStart && !isTransparent(m_entry.tag())) || steps > longestChain)
                return false;
            offset = type->value;
        }
    }

    void addMember(DWARFCompilationUnit& unit) {
        const char* name = textOf(m_entry.find(DW_AT_name));
        unsigned long long offset = 0;
        if (!name || !*name || !readOffset(offset))
            return;
        TypeInfo type;
        if (const AttrBinding* reference = m_entry.find(DW_AT_type))
            static_cast<void>(m_loader.types().readType(unit, reference->value, type));
        const unsigned long long low = m_base + offset;
        auto scope = std::make_unique<DWARFScope>(
            &m_loader.fileLoader(), &m_scope, DWARFName{name, true}, low, symbol_kind_variable,
            DWARFScope::Entry{&unit, m_entry.entryStart(), m_entry.tag()});
        scope->addRange(low, type.size > ~0ULL - low ? ~0ULL : low + type.size);
        m_sink.add(scope.release());
    }

    bool readOffset(unsigned long long& offset) {
        const AttrBinding* location = m_entry.find(DW_AT_data_member_location);
        if (!location)
            return false;
        switch (location->form) {
        case DW_FORM_sdata:
        case DW_FORM_udata:
        case DW_FORM_data8:
            offset = location->value;
            return true;
        case DW_FORM_block:
        case DW_FORM_exprloc: {
            SectionWalker expression(location->bytes(), location->value);
            if (location->value == 0 || expression.readU8() != DW_OP_plus_uconst)
                return false;
            offset = expression.readULEB();
            return true;
        }
        default:
            return false;
        }
    }

    /// Typedefs and qualifiers that lead round in a circle end here.
    static constexpr unsigned long long longestChain = 1000;

    DWARFDebugInfoLoader& m_loader;
    Scope& m_scope;
    DWARFSymbolSink m_sink;
    unsigned long long m_base;
    AttrBindings m_entry;
};

} // namespace

void DWARFDebugInfoLoader::loadMembers(DWARFCompilationUnit& unit, unsigned long long entryOffset,
                                       Scope& scope) {
    MemberReader(*this, scope).read(unit, entryOffset);
}

} // namespace ORN_3_30
