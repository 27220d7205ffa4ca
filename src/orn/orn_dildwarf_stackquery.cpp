// The query for stack variables: from a function's symbol, a place in its code, an address on the stack and
// two registers to the variable that lies there. A bank calls it for each memory access that a client asks
// about, so answers are kept by frame and address. Step by step: the function's entry, the frame's base, the
// search (orn_dildwarf_stackvar.cpp). Frames that a debugger would have to unwind to are the client's
// business.

#include "orn/address.h"
#include "orn_dildwarf.h"
#include "orn_dildwarf_cfi.h"
#include "orn_dildwarf_scope.h"
#include "orn_dildwarf_stackvar.h"
#include "orn_fflelf.h"
#include "orn_log.h"
#include "orn_stackframecontext.h"

namespace ORN_3_30 {

namespace {

/// A version in which the high address of an entry is an offset from the low one.
constexpr std::uint32_t versionOfHighOffsets = 4;
/// Of addresses in call frame information where no unit says it.
constexpr std::uint8_t defaultAddressSize = 4;

unsigned long long numberOf(const AttrBinding* binding) {
    return binding ? binding->value : 0;
}

/// Null where the contents are not to be had as they should be.
ISectionData* presentOrNull(ISectionData* section) {
    status_t status = status_Ok;
    if (!section || (static_cast<void>(section->getSize(status)), isFailure(status)))
        return nullptr;
    return section->getData() ? section : nullptr;
}

/// One query, once its function is known.
class StackQuery {
public:
    StackQuery(DWARFDebugInfoLoader& loader, DWARFScope& function, ISectionData* locations,
               IStackFrameContext* context)
        : m_loader(loader), m_unit(function.unit()), m_entry(&m_unit), m_lists(locations) {
        m_walker = m_unit.walkerAt(function.entryOffset());
        m_frame.context = context;
    }

    /// Reads the function's entry and sees whether the code is its own.
    status_t openFunction(unsigned long long codeAddress) {
        static_cast<void>(m_unit.readAttrBindings(m_walker, m_entry));
        if (m_entry.tag() != DW_TAG_subprogram) {
            ORN_LOG_ERROR("Expecting DW_TAG_subprogram, got " << m_entry.tag());
            return status_Fail;
        }
        m_codeAddress = codeAddress;
        m_frame.codeAddress = codeAddress - m_unit.getLoadBias();
        return checkRange();
    }

    /// Works out what variables of the function are relative to.
    status_t computeFrameBase() {
        const AttrBinding* frameBase = m_entry.find(DW_AT_frame_base);
        if (!frameBase)
            return status_Ok;
        if (frameBase->form == DW_FORM_exprloc)
            return computeFrameBaseFromRule(walkerOver(*frameBase));
        SectionWalker expression;
        if (frameBase->form == DW_FORM_block)
            expression = walkerOver(*frameBase);
        else if (!isLocationList(*frameBase) ||
                 !m_lists.findLocationListEntry(m_unit, frameBase, m_unit.getAddressSize(),
                                                m_frame.codeAddress, expression))
            return status_Ok;
        m_frame.frameBase = readLocation(expression, m_frame.context, 0, m_unit.getAddressSize());
        return status_Ok;
    }

    /// Searches all that is below the function's entry, functions inside it included.
    void search(unsigned long long dataAddress, SymMgrObjectPtr<ISymbol>& out, bool& isMember) {
        if (!m_entry.hasChildren())
            return;
        StackVariableVisitor visitor(m_loader, m_lists, m_frame, dataAddress);
        static_cast<void>(visitDIEs(m_walker, m_unit, visitor));
        out = visitor.result();
        isMember = visitor.isMemberFound();
    }

private:
    /// Quirk: the version alone says whether the high address is an offset, not its form.
    status_t checkRange() {
        const unsigned long long low = numberOf(m_entry.find(DW_AT_low_pc));
        unsigned long long high = numberOf(m_entry.find(DW_AT_high_pc));
        if (m_unit.getVersion() == versionOfHighOffsets)
            high += low;
        if (low <= m_codeAddress && m_codeAddress <= high)
            return status_Ok;
        const char* name = textOf(m_entry.find(DW_AT_name));
        ORN_LOG_WARNING("Address range did not match subprogram,  address:"
                        << m_codeAddress << " low: " << low << " high: " << high
                        << " func: " << (name ? name : ""));
        return status_Fail;
    }

    /// Quirk: an expression of this form that is not the frame's address itself leaves the base at 0, and
    /// still wants the call frame information.
    status_t computeFrameBaseFromRule(SectionWalker expression) {
        if (!m_loader.ensureFrameInformation())
            return status_False;
        if (expression.readU8() != DW_OP_call_frame_cfa)
            return status_Ok;
        std::uint16_t reg = 0;
        long long offset = 0;
        unsigned long long value = 0;
        if (!m_frame.context || !m_loader.frameInformation()->getCfaRule(m_codeAddress, reg, offset) ||
            !readFrameRegister(*m_frame.context, m_unit.getAddressSize(), reg, value))
            return status_False;
        m_frame.frameBase = value + static_cast<unsigned long long>(offset);
        return status_Ok;
    }

    DWARFDebugInfoLoader& m_loader;
    DWARFCompilationUnit& m_unit;
    AttrBindings m_entry;
    SectionWalker m_walker; ///< behind the entry, once it is read
    LocationLists m_lists;
    StackFrame m_frame;
    unsigned long long m_codeAddress = 0; ///< of the module
};

} // namespace

/// The cached answers are those of the frame, whatever function it is said to be of.
status_t DWARFDebugInfoLoader::findStackVariable(ISymbol* function, IAddress* codeAddress,
                                                 unsigned long long dataAddress, IStackFrameContext* context,
                                                 SymMgrObjectPtr<ISymbol>& out, bool* memberFlag) {
    try {
        ScopedLock querying(&m_queryLock);
        const auto frame = context ? std::pair(context->getRegister(StackFrameContext::register_StackPointer),
                                               context->getRegister(StackFrameContext::register_FramePointer))
                                   : std::pair(0ULL, 0ULL);
        const auto give = [&](const StackAnswer& answer) {
            out = answer.symbol;
            if (memberFlag)
                *memberFlag = answer.isMember;
            return status_Ok;
        };
        if (const auto answers = m_stackAnswers.find(frame); answers != m_stackAnswers.end()) {
            const auto known = answers->second.find(dataAddress);
            if (known != answers->second.end())
                return give(known->second);
        }

        SymMgrObjectPtr<ISectionData> section;
        if (m_helper)
            m_helper->getSectionData(section, section_debug_info);
        if (!presentOrNull(section))
            return status_NoDebugInfo;
        auto* symbol = dynamic_cast<DWARFSymbol*>(function);
        auto* scope = symbol ? dynamic_cast<DWARFScope*>(symbol->scope()) : nullptr;
        if (!scope || scope->unit().getLoader() != this)
            return status_False;
        if (!codeAddress)
            return status_InvalidArg;

        // Entries and types are read below.
        ScopedLock loading(m_loadLock);
        m_helper->getSectionData(section, section_debug_loc);
        StackQuery query(*this, *scope, presentOrNull(section), context);
        if (const status_t status = query.openFunction(codeAddress->pseudoAddr()); status != status_Ok)
            return status;
        if (const status_t status = query.computeFrameBase(); status != status_Ok)
            return status;
        StackAnswer answer;
        query.search(dataAddress, answer.symbol, answer.isMember);
        if (!answer.symbol)
            return status_False;
        return give(m_stackAnswers[frame][dataAddress] = answer);
    }
    ORN_CATCH_OUT_OF_MEMORY
}

bool DWARFDebugInfoLoader::ensureFrameInformation() {
    ScopedLock guard(&m_queryLock);
    if (m_frameInformation)
        return true;
    auto* elf = dynamic_cast<ElfFileFormatHelper*>(m_helper.get());
    SymMgrObjectPtr<ISectionData> section;
    if (m_helper)
        m_helper->getSectionData(section, section_eh_frame);
    if (!elf || !presentOrNull(section))
        return false;
    ElfHelper& headers = *elf->getElfHelper();
    const Elf64_Shdr* header = headers.getSectionHeader(headers.findSectionByName(".eh_frame"));
    if (!header)
        return false;
    const std::uint8_t addressSize =
        m_compUnits.empty() ? defaultAddressSize : m_compUnits.begin()->second->getAddressSize();
    SymMgrObjectPtr<DWARFCallFrameInformation> information =
        new DWARFCallFrameInformation(header->sh_addr, addressSize, m_sections->loadBias());
    if (!information->parse(section)) {
        ORN_LOG_ERROR("an error occured while parsing .eh_frame section");
        return false;
    }
    m_frameInformation = information;
    return true;
}

} // namespace ORN_3_30
