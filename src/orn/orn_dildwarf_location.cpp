// Location expressions and `.debug_loc`, as far as variables on the stack of x86 processors need them: one
// operation relative to the stack pointer, the frame pointer or the frame's base. Called by the query for
// stack variables. Computed locations, pieces and registers that hold a value are left out: nothing of them
// lies at an address of the stack.

#include "orn_dildwarf_location.h"

#include "orn_dildwarf_unit.h"
#include "orn_log.h"
#include "orn_stackframecontext.h"

namespace ORN_3_30 {

namespace {

/// How often each pair of the section may be read in one query, on average, beside a number that small
/// sections may have at any rate. Each list belongs to one variable; where damaged entries share a long list,
/// the time would grow with the product of both.
constexpr unsigned long long readingsOfPair = 16;
constexpr unsigned long long readingsAtAnyRate = 0x10000;
/// Two addresses of 4 bytes and the length of an expression.
constexpr unsigned long long smallestPair = 10;

bool isBaseSelector(unsigned long long first, unsigned addressSize) {
    return first == (addressSize == sizeof(std::uint32_t) ? 0xffffffffULL : ~0ULL);
}

bool isAddressSize(unsigned size) {
    return size == sizeof(std::uint32_t) || size == sizeof(std::uint64_t);
}

} // namespace

// Quirk: the numbers of the registers are those of both word sizes at once: 4 and 5 are the stack and the
// frame pointer of 32-bit code, 7 and 6 those of 64-bit code, and nobody asks which is in force. The forms
// that mean a register itself give its value, as if the variable lay where it points.
unsigned long long readLocation(SectionWalker walker, IStackFrameContext* context,
                                unsigned long long frameBase, unsigned addressSize) {
    const auto stackPointer = [context] {
        return context ? context->getRegister(StackFrameContext::register_StackPointer) : 0;
    };
    const auto framePointer = [context] {
        return context ? context->getRegister(StackFrameContext::register_FramePointer) : 0;
    };
    const auto offset = [&walker] { return static_cast<unsigned long long>(walker.readSLEB()); };
    switch (walker.readU8()) {
    case DW_OP_reg4:
        return stackPointer();
    case DW_OP_reg6:
        return framePointer();
    case DW_OP_breg4:
    case DW_OP_breg7:
        return stackPointer() + offset();
    case DW_OP_breg5:
    case DW_OP_breg6:
        return framePointer() + offset();
    case DW_OP_fbreg:
        return frameBase + offset();
    case DW_OP_call_frame_cfa:
        // As it is where the frame pointer and the return address have been pushed.
        return framePointer() + 2ULL * addressSize;
    case DW_OP_plus_uconst:
        return walker.readULEB();
    default:
        return 0;
    }
}

bool isExpression(const AttrBinding& location) {
    return location.form == DW_FORM_block || location.form == DW_FORM_exprloc;
}

bool isLocationList(const AttrBinding& location) {
    switch (location.form) {
    case DW_FORM_sec_offset:
    case DW_FORM_data8: // before the form above existed
    case DW_FORM_udata:
    case DW_FORM_sdata:
        return true;
    default:
        return false;
    }
}

SectionWalker walkerOver(const AttrBinding& block) {
    return SectionWalker(block.bytes(), block.value);
}

LocationLists::LocationLists(ISectionData* section) : m_section(section), m_budget(readingsAtAnyRate) {
    if (!section || !section->getData())
        return;
    m_walker = SectionWalker(section->getData(), section->getSize());
    m_budget += readingsOfPair * (m_walker.size() / smallestPair);
}

bool LocationLists::findLocationListEntry(const DWARFCompilationUnit& unit, const AttrBinding* locOffsetAttr,
                                          unsigned addressSize, unsigned long long codeAddress,
                                          SectionWalker& outWalker) {
    if (!ORN_ASSERT(locOffsetAttr) || m_walker.size() == 0)
        return false;
    SectionWalker walker = m_walker;
    walker.setAddressSize(static_cast<std::uint8_t>(addressSize));
    walker.seek(locOffsetAttr->value);
    unsigned long long base = unit.getLowPc();
    for (; m_budget > 0; --m_budget) {
        if (!ORN_ASSERT_TEXT(isAddressSize(addressSize) && walker.remaining() >= 2ULL * addressSize, "false"))
            return false;
        const unsigned long long first = walker.readAddress();
        const unsigned long long second = walker.readAddress();
        if (first == 0 && second == 0)
            return false;
        if (isBaseSelector(first, addressSize)) {
            base = second;
            continue;
        }
        std::uint16_t length = 0;
        if (!ORN_ASSERT_TEXT(!isFailure(walker.getUnsigned2(length)) && walker.remaining() >= length,
                             "false"))
            return false;
        if (base + first <= codeAddress && codeAddress < base + second) {
            outWalker = SectionWalker(walker.cursor(), length);
            return true;
        }
        walker.skip(length);
    }
    return false;
}

} // namespace ORN_3_30
