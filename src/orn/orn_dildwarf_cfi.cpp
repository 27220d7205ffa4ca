// Reads `.eh_frame`: asked by the query for stack variables (orn_dildwarf_stackquery.cpp) where a function
// says that its variables lie relative to the frame's address. Nothing here walks a stack, so only the rule
// of that address is kept; rules of saved registers are parsed past. `.debug_frame` is not read.
//
// One entry that is not understood costs the whole section. What is understood is what compilers write for
// plain functions, the augmentation "zR"; with a personality routine ("zPLR") the section is refused.

#include "orn_dildwarf_cfi.h"

#include "orn_dildwarf_constants.h"
#include "orn_log.h"
#include "orn_stackframecontext.h"

#include <algorithm>

namespace ORN_3_30 {

namespace {

constexpr std::uint8_t supportedVersion = 1;
constexpr unsigned formatMask = 0x0f;
constexpr unsigned applicationMask = 0x70;
/// The length of augmentation data that consist of the encoding alone.
constexpr unsigned lengthOfEncodingAlone = 1;

/// Of instructions that carry an operand in the opcode itself.
constexpr unsigned primaryOpcodeMask = 0xc0;
constexpr unsigned primaryOperandMask = 0x3f;

/// A register that does not fit is none that any rule is for.
std::uint16_t registerOf(unsigned long long number) {
    return number < CfaRow::noRegister ? static_cast<std::uint16_t>(number) : CfaRow::noRegister;
}

std::int64_t wrappedProduct(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b));
}

/// Makes of a number of the width of `Signed` that was read with `status` the negative one that it may be.
template <typename Signed>
bool signExtended(status_t status, unsigned long long& value) {
    if (isFailure(status))
        return false;
    value = static_cast<unsigned long long>(static_cast<long long>(static_cast<Signed>(value)));
    return true;
}

/// Runs the instructions of one entry over its rows. An operand that begins past the end of the entry ends
/// the program, and what was made so far counts.
class CfaProgram {
public:
    CfaProgram(SectionWalker& walker, const CfaFactors& factors, std::vector<CfaRow>& rows)
        : m_walker(walker), m_factors(factors), m_rows(rows), m_initial(rows.front()) {}

    bool run() {
        while (m_state == State::Running && m_walker.remaining() > 0)
            execute(m_walker.readU8());
        return m_state != State::Failed;
    }

private:
    enum class State { Running, Ended, Failed };

    CfaRow& row() { return m_rows.back(); }

    void execute(unsigned opcode) {
        const unsigned operand = opcode & primaryOperandMask;
        switch (opcode & primaryOpcodeMask) {
        case DW_CFA_advance_loc:
            return advance(operand);
        case DW_CFA_offset:
            return setOffsetOfSaved(operand);
        case DW_CFA_restore:
            return restore(operand);
        default:
            return executeExtended(opcode);
        }
    }

    void executeExtended(unsigned opcode) {
        switch (opcode) {
        case DW_CFA_nop: // the rest is padding
            m_state = State::Ended;
            return;
        case DW_CFA_set_loc:
            return setLocation();
        case DW_CFA_advance_loc1:
            return advanceBy(&SectionWalker::readU8);
        case DW_CFA_advance_loc2:
            return advanceBy(&SectionWalker::readU16);
        case DW_CFA_advance_loc4:
            return advanceBy(&SectionWalker::readU32);
        case DW_CFA_offset_extended:
        case DW_CFA_register:
        case DW_CFA_val_offset:
            dropULEB();
            return dropULEB();
        case DW_CFA_offset_extended_sf:
        case DW_CFA_val_offset_sf:
            dropULEB();
            return dropSLEB();
        case DW_CFA_undefined:
        case DW_CFA_same_value:
            return dropULEB();
        case DW_CFA_restore_extended:
            return restoreExtended();
        case DW_CFA_remember_state:
            m_remembered.push_back(row());
            return;
        case DW_CFA_restore_state:
            return restoreState();
        case DW_CFA_def_cfa:
            setRegister();
            return setOffset();
        case DW_CFA_def_cfa_register:
            return setRegister();
        case DW_CFA_def_cfa_offset:
            return setOffset();
        case DW_CFA_def_cfa_sf:
            setRegister();
            return setFactoredOffset();
        case DW_CFA_def_cfa_offset_sf:
            return setFactoredOffset();
        case DW_CFA_def_cfa_expression:
            return skipFrameExpression();
        case DW_CFA_expression:
        case DW_CFA_val_expression:
            return skipRegisterExpression();
        default:
            ORN_LOG_ERROR("unknown DW_CFA opcode: " << opcode);
            m_state = State::Failed;
        }
    }

    /// Whether an operand can be read.
    bool hasOperand() {
        if (m_state == State::Running && m_walker.remaining() == 0)
            m_state = State::Ended;
        return m_state == State::Running;
    }
    void dropULEB() {
        if (hasOperand())
            m_walker.readULEB();
    }
    void dropSLEB() {
        if (hasOperand())
            m_walker.readSLEB();
    }

    void advance(std::uint64_t delta) {
        CfaRow next = row();
        next.location += delta * m_factors.codeAlignment;
        m_rows.push_back(next);
    }
    template <typename Delta>
    void advanceBy(Delta (SectionWalker::*read)()) {
        if (hasOperand())
            advance((m_walker.*read)());
    }
    void setLocation() {
        if (!hasOperand())
            return;
        CfaRow next = row();
        next.location = m_walker.readAddress();
        m_rows.push_back(next);
    }

    void setRegister() {
        if (hasOperand())
            row().reg = registerOf(m_walker.readULEB());
    }
    void setOffset() {
        if (hasOperand())
            row().offset = static_cast<std::int64_t>(m_walker.readULEB());
    }
    void setFactoredOffset() {
        if (hasOperand())
            row().offset = wrappedProduct(m_walker.readSLEB(), m_factors.dataAlignment);
    }

    /// Quirk: the place of a saved register changes the frame's rule if that is based on the same register.
    void setOffsetOfSaved(unsigned reg) {
        if (!hasOperand())
            return;
        const auto offset = static_cast<std::int64_t>(m_walker.readULEB());
        if (reg == row().reg)
            row().offset = wrappedProduct(offset, m_factors.dataAlignment);
    }
    /// Quirk: it is the first row that gets its offset back, and only for the register of the last one.
    void restore(unsigned long long reg) {
        if (reg == row().reg)
            m_rows.front().offset = m_initial.offset;
    }
    void restoreExtended() {
        if (hasOperand())
            restore(m_walker.readULEB());
    }
    /// Quirk: the remembered row comes back with its own location, so that what follows counts from there.
    void restoreState() {
        if (m_remembered.empty()) {
            m_state = State::Failed;
            return;
        }
        m_rows.push_back(m_remembered.back());
        m_remembered.pop_back();
    }

    /// An address that has to be computed is not known here: the rule before it stays.
    void skipFrameExpression() {
        if (hasOperand())
            m_walker.skip(m_walker.readULEB());
    }
    /// Quirk: the length of the block is one byte, however long the number for it would be.
    void skipRegisterExpression() {
        dropULEB();
        if (hasOperand())
            m_walker.skip(m_walker.readU8());
    }

    SectionWalker& m_walker;
    const CfaFactors& m_factors;
    std::vector<CfaRow>& m_rows;
    const CfaRow m_initial;
    std::vector<CfaRow> m_remembered;
    State m_state = State::Running;
};

} // namespace

// --- What both kinds of entries have

bool InfoEntry::readEncoded(SectionWalker& walker, std::uint8_t encoding, unsigned long long& value) const {
    if (encoding == DW_EH_PE_omit)
        return false;
    switch (encoding & formatMask) {
    case DW_EH_PE_absptr:
        if (m_pointerSize == sizeof(std::uint32_t))
            return !isFailure(walker.getUnsigned4(value));
        return ORN_ASSERT_TEXT(m_pointerSize == sizeof(std::uint64_t), "false") &&
               !isFailure(walker.getUnsigned8(value));
    case DW_EH_PE_udata2:
        return !isFailure(walker.getUnsigned2(value));
    case DW_EH_PE_udata4:
        return !isFailure(walker.getUnsigned4(value));
    case DW_EH_PE_udata8:
    case DW_EH_PE_sdata8:
        return !isFailure(walker.getUnsigned8(value));
    case DW_EH_PE_sdata2:
        return signExtended<std::int16_t>(walker.getUnsigned2(value), value);
    case DW_EH_PE_sdata4:
        return signExtended<std::int32_t>(walker.getUnsigned4(value), value);
    case DW_EH_PE_uleb128:
        if (walker.remaining() == 0)
            return false;
        value = walker.readULEB();
        return true;
    case DW_EH_PE_sleb128:
        if (walker.remaining() == 0)
            return false;
        value = static_cast<unsigned long long>(walker.readSLEB());
        return true;
    default:
        return false;
    }
}

bool InfoEntry::runInstructions(SectionWalker& walker, const CfaFactors& factors, const CfaRow& initial) {
    m_rows.assign(1, initial);
    return CfaProgram(walker, factors, m_rows).run();
}

bool InfoEntry::isAscending() const {
    return std::is_sorted(m_rows.begin(), m_rows.end(),
                          [](const CfaRow& a, const CfaRow& b) { return a.location < b.location; });
}

// --- CIE

bool CIE::parse(SectionWalker& walker) {
    walker.setAddressSize(m_pointerSize);
    return readVersion(walker) && readAugmentation(walker) && readFactors(walker) &&
           readAugmentationData(walker) && runInstructions(walker, m_factors, CfaRow());
}

bool CIE::readVersion(SectionWalker& walker) {
    unsigned version = 0;
    if (isFailure(walker.getUnsigned1(version)))
        return false;
    if (version != supportedVersion) {
        ORN_LOG_ERROR("unsupported CIE version: " << version);
        return false;
    }
    return true;
}

bool CIE::readAugmentation(SectionWalker& walker) {
    const auto* text = reinterpret_cast<const char*>(walker.cursor());
    const unsigned long long room = walker.remaining();
    const void* zero = room > 0 ? std::memchr(text, 0, room) : nullptr;
    if (!zero)
        return false;
    m_augmentation = text;
    m_hasLanguageData = m_augmentation.find('L') != std::string::npos;
    walker.skip(m_augmentation.size() + 1);
    return true;
}

bool CIE::readFactors(SectionWalker& walker) {
    if (walker.remaining() == 0)
        return false;
    m_factors.codeAlignment = walker.readULEB();
    if (walker.remaining() == 0)
        return false;
    m_factors.dataAlignment = walker.readSLEB();
    if (walker.remaining() == 0)
        return false;
    // In this version it is one byte; registers below 128 read the same.
    m_returnAddressRegister = walker.readULEB();
    return true;
}

/// Quirk: the length in front of the data is not read by itself. In "zR" the `R` takes it, and checks that it
/// is 1; a `P` in front takes it for an encoding, which refuses the usual "zPLR" with its length of 7. What
/// is read is what plain functions have.
bool CIE::readAugmentationData(SectionWalker& walker) {
    if (m_augmentation.empty())
        return true;
    if (m_augmentation.front() != 'z') {
        ORN_LOG_ERROR("unknown first augmentation character: " << m_augmentation.front());
        return false;
    }
    for (const char character : m_augmentation) {
        switch (character) {
        case 'P':
            if (!skipPersonality(walker))
                return false;
            break;
        case 'L':
            if (isFailure(walker.getUnsigned1(m_lsdaEncoding)))
                return false;
            break;
        case 'R':
            if (!readFdeEncoding(walker))
                return false;
            break;
        default:
            break;
        }
    }
    return true;
}

bool CIE::skipPersonality(SectionWalker& walker) const {
    std::uint8_t encoding = 0;
    unsigned long long dropped = 0;
    return !isFailure(walker.getUnsigned1(encoding)) && readEncoded(walker, encoding, dropped);
}

bool CIE::readFdeEncoding(SectionWalker& walker) {
    unsigned length = 0;
    return !isFailure(walker.getUnsigned1(length)) && length == lengthOfEncodingAlone &&
           !isFailure(walker.getUnsigned1(m_fdeEncoding));
}

// --- FDE

bool FDE::parse(SectionWalker& walker) {
    walker.setAddressSize(m_pointerSize);
    if (!readRange(walker) || !skipAugmentationData(walker))
        return false;
    CfaRow initial = m_cie->lastRow();
    initial.location = m_pcBegin;
    if (!runInstructions(walker, m_cie->factors(), initial))
        return false;
    m_isAscending = isAscending();
    return true;
}

/// Without an augmentation there is no encoding either: the pointers are plain addresses.
bool FDE::readRange(SectionWalker& walker) {
    const bool isPlain = m_cie->augmentation().empty();
    const std::uint8_t encoding = isPlain ? std::uint8_t{DW_EH_PE_absptr} : m_cie->fdeEncoding();
    const unsigned long long field = walker.offset();
    unsigned long long range = 0;
    if (!readEncoded(walker, encoding, m_pcBegin))
        return false;
    if (!isPlain) {
        if ((encoding & applicationMask) != DW_EH_PE_pcrel)
            return false;
        m_pcBegin += field + m_sectionAddress;
    }
    if (!readEncoded(walker, encoding, range))
        return false;
    m_pcEnd = m_pcBegin + range;
    return true;
}

/// An augmentation that is not empty begins with "z": the CIE would not have been read otherwise.
bool FDE::skipAugmentationData(SectionWalker& walker) const {
    if (m_cie->augmentation().empty())
        return true;
    if (walker.remaining() == 0)
        return false;
    const unsigned long long length = walker.readULEB();
    if (m_cie->hasLanguageData())
        walker.skip(length);
    return true;
}

/// Quirk: an address where a row begins still gets the row before it, and behind the last row's begin it is
/// the CIE's rule that counts: what is looked for is the first row at or above the address.
const CfaRow& FDE::rowFor(unsigned long long address) const {
    const auto isBelow = [address](const CfaRow& row) { return row.location < address; };
    // A remembered row that came back may stand behind greater ones; the stored order is what counts.
    auto found = m_isAscending ? std::partition_point(m_rows.begin(), m_rows.end(), isBelow)
                               : std::find_if_not(m_rows.begin(), m_rows.end(), isBelow);
    if (found == m_rows.end())
        return m_cie->lastRow();
    return found == m_rows.begin() ? *found : *std::prev(found);
}

// --- The section

bool DWARFCallFrameInformation::parse(ISectionData* sectionData) {
    SectionWalker walker(sectionData);
    if (parseEntries(walker))
        return true;
    m_cies.clear();
    m_fdes.clear();
    return false;
}

bool DWARFCallFrameInformation::parseEntries(SectionWalker& walker) {
    while (walker.remaining() > 0) {
        const unsigned long long begin = walker.offset();
        unsigned long long length = 0;
        if (isFailure(walker.getUnsigned4(length)))
            return false;
        if (length == 0)
            return true;
        if (length == DW_LENGTH_64BIT && isFailure(walker.getUnsigned8(length)))
            return false;
        if (length > walker.remaining())
            return false;
        const unsigned long long end = walker.offset() + length;
        SectionWalker entry(walker.begin(), end, walker.offset());
        if (!parseEntry(entry, begin))
            return false;
        walker.seek(end);
    }
    return true;
}

bool DWARFCallFrameInformation::parseEntry(SectionWalker& entry, unsigned long long begin) {
    const unsigned long long idOffset = entry.offset();
    unsigned long long id = 0;
    if (isFailure(entry.getUnsigned4(id)))
        return false;
    return id == 0 ? parseCie(entry, begin) : parseFde(entry, begin, idOffset - id);
}

bool DWARFCallFrameInformation::parseCie(SectionWalker& entry, unsigned long long begin) {
    SymMgrObjectPtr<CIE> cie = new CIE(m_sectionAddress, m_addressSize);
    if (!cie->parse(entry))
        return false;
    m_cies[begin] = cie;
    return true;
}

bool DWARFCallFrameInformation::parseFde(SectionWalker& entry, unsigned long long begin,
                                         unsigned long long cieOffset) {
    const auto cie = m_cies.find(cieOffset);
    if (cie == m_cies.end()) {
        ORN_LOG_ERROR("no CIE associated with FDE at" << begin);
        return false;
    }
    SymMgrObjectPtr<FDE> fde = new FDE(m_sectionAddress, m_addressSize, cie->second);
    if (!fde->parse(entry))
        return false;
    m_fdes.push_back(fde);
    return true;
}

/// Null where there is neither an FDE for the address nor any CIE.
const CfaRow* DWARFCallFrameInformation::findRow(unsigned long long address) const {
    const auto fde = std::find_if(m_fdes.begin(), m_fdes.end(),
                                  [address](const auto& each) { return each->covers(address); });
    if (fde != m_fdes.end())
        return &(*fde)->rowFor(address);
    return m_cies.empty() ? nullptr : &m_cies.begin()->second->lastRow();
}

bool DWARFCallFrameInformation::getCfaRule(unsigned long long address, std::uint16_t& reg,
                                           long long& offset) const {
    const CfaRow* row = findRow(address - m_loadBias);
    if (!row || row->reg == CfaRow::noRegister)
        return false;
    reg = row->reg;
    offset = row->offset;
    return true;
}

bool DWARFCallFrameInformation::computeCfa(IStackFrameContext* context, unsigned long long address,
                                           unsigned long long& out) const {
    std::uint16_t reg = 0;
    long long offset = 0;
    if (!context || !getCfaRule(address, reg, offset))
        return false;
    // Quirk: where the size of addresses is neither of the two, the rule's offset is added to what is there.
    const bool isKnownSize = m_addressSize == sizeof(std::uint32_t) || m_addressSize == sizeof(std::uint64_t);
    if (isKnownSize && !readFrameRegister(*context, m_addressSize, reg, out))
        return false;
    out += static_cast<unsigned long long>(offset);
    return true;
}

bool readFrameRegister(IStackFrameContext& context, unsigned addressSize, std::uint16_t reg,
                       unsigned long long& value) {
    struct Registers {
        unsigned addressSize;
        std::uint16_t stackPointer;
        std::uint16_t framePointer;
    };
    constexpr Registers processors[] = {{4, 4, 5}, {8, 7, 6}}; // IA-32: esp, ebp; x86-64: rsp, rbp
    for (const Registers& each : processors) {
        if (each.addressSize != addressSize)
            continue;
        if (reg != each.stackPointer && reg != each.framePointer)
            return false;
        value = context.getRegister(reg == each.stackPointer ? StackFrameContext::register_StackPointer
                                                             : StackFrameContext::register_FramePointer);
        return true;
    }
    return false;
}

} // namespace ORN_3_30
