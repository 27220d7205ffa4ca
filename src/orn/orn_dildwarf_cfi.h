// Call frame information: which register, and how far from it, gives the address of the frame at a place of
// the code.
#ifndef ORN_DILDWARF_CFI_H
#define ORN_DILDWARF_CFI_H

#include "orn/object.h"
#include "orn/section_data.h"
#include "orn_walker.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace ORN_3_30 {

class IStackFrameContext;

/// From `location` on the frame's address is register `reg` plus `offset`.
struct CfaRow {
    static constexpr std::uint16_t noRegister = 0xffff;

    std::uint64_t location = 0; ///< in the symbol file's own addresses
    std::uint16_t reg = noRegister;
    std::int64_t offset = 0;
};
/// A module has a row for every few instructions.
static_assert(sizeof(CfaRow) == 24);

/// What instructions need beside the row that they start with.
struct CfaFactors {
    std::uint64_t codeAlignment = 0;
    std::int64_t dataAlignment = 0;
};

/// The common part of both kinds of entries. A walker here sees the section from its begin to the end of the
/// entry, so that its offsets are the section's.
class InfoEntry {
public:
    /// In the order of the program; the first is the one that it started with.
    const std::vector<CfaRow>& rows() const { return m_rows; }

protected:
    InfoEntry(unsigned long long sectionAddress, std::uint8_t pointerSize)
        : m_sectionAddress(sectionAddress), m_pointerSize(pointerSize) {}
    ~InfoEntry() = default;

    /// Reads a pointer of a `DW_EH_PE_*` form; what it is relative to is not applied. False if it is not all
    /// there or the form is none.
    bool readEncoded(SectionWalker& walker, std::uint8_t encoding, unsigned long long& value) const;
    /// Runs the program from the walker's position on. False if it is no program.
    bool runInstructions(SectionWalker& walker, const CfaFactors& factors, const CfaRow& initial);
    /// Whether no row stands before one of a smaller location.
    bool isAscending() const;

    unsigned long long m_sectionAddress;
    std::uint8_t m_pointerSize;
    std::vector<CfaRow> m_rows;
};

/// What the functions of a unit have in common.
class CIE : public InfoEntry, public SymMgrObjectImpl {
public:
    CIE(unsigned long long sectionAddress, std::uint8_t pointerSize)
        : InfoEntry(sectionAddress, pointerSize) {}

    /// The walker stands behind the id.
    bool parse(SectionWalker& walker);

    const std::string& augmentation() const { return m_augmentation; }
    /// Whether each FDE has data of a language of its own.
    bool hasLanguageData() const { return m_hasLanguageData; }
    const CfaFactors& factors() const { return m_factors; }
    std::uint8_t fdeEncoding() const { return m_fdeEncoding; }
    std::uint8_t lsdaEncoding() const { return m_lsdaEncoding; }
    unsigned long long returnAddressRegister() const { return m_returnAddressRegister; }
    const CfaRow& lastRow() const { return m_rows.back(); }

private:
    bool readVersion(SectionWalker& walker);
    bool readAugmentation(SectionWalker& walker);
    bool readFactors(SectionWalker& walker);
    bool readAugmentationData(SectionWalker& walker);
    bool skipPersonality(SectionWalker& walker) const;
    bool readFdeEncoding(SectionWalker& walker);

    std::string m_augmentation;
    bool m_hasLanguageData = false;
    CfaFactors m_factors;
    std::uint8_t m_fdeEncoding = 0xff;
    std::uint8_t m_lsdaEncoding = 0xff;
    unsigned long long m_returnAddressRegister = ~0ULL;
};

/// One function, or one piece of it.
class FDE : public InfoEntry, public SymMgrObjectImpl {
public:
    FDE(unsigned long long sectionAddress, std::uint8_t pointerSize, SymMgrObjectPtr<CIE> cie)
        : InfoEntry(sectionAddress, pointerSize), m_cie(std::move(cie)) {}

    /// The walker stands behind the id.
    bool parse(SectionWalker& walker);

    unsigned long long pcBegin() const { return m_pcBegin; }
    unsigned long long pcEnd() const { return m_pcEnd; }
    const CIE& cie() const { return *m_cie; }
    /// Quirk: the end belongs to the entry.
    bool covers(unsigned long long address) const { return m_pcBegin <= address && address <= m_pcEnd; }
    const CfaRow& rowFor(unsigned long long address) const;

private:
    bool readRange(SectionWalker& walker);
    bool skipAugmentationData(SectionWalker& walker) const;

    unsigned long long m_pcBegin = 0;
    unsigned long long m_pcEnd = 0;
    SymMgrObjectPtr<CIE> m_cie;
    bool m_isAscending = false;
};

/// The contents of `.eh_frame`, of which only the rules for the frame's address are kept. Nothing changes
/// once it is parsed.
class DWARFCallFrameInformation : public SymMgrObjectImpl {
public:
    /// `sectionAddress` is that of the section in the symbol file; queries come with `loadBias` added.
    DWARFCallFrameInformation(unsigned long long sectionAddress, std::uint8_t addressSize,
                              unsigned long long loadBias)
        : m_sectionAddress(sectionAddress), m_addressSize(addressSize), m_loadBias(loadBias) {}

    /// False, with nothing kept, if any entry is damaged or of a kind that is not read.
    bool parse(ISectionData* sectionData);

    /// The rule at an address of the module: register and what is added to it. False where there is none.
    bool getCfaRule(unsigned long long address, std::uint16_t& reg, long long& offset) const;
    /// The frame's address at an address of the module. False without a rule on one of the two registers.
    bool computeCfa(IStackFrameContext* context, unsigned long long address, unsigned long long& out) const;

    const std::map<unsigned long long, SymMgrObjectPtr<CIE>>& cies() const { return m_cies; }
    const std::vector<SymMgrObjectPtr<FDE>>& fdes() const { return m_fdes; }

private:
    bool parseEntries(SectionWalker& walker);
    bool parseEntry(SectionWalker& entry, unsigned long long begin);
    bool parseCie(SectionWalker& entry, unsigned long long begin);
    bool parseFde(SectionWalker& entry, unsigned long long begin, unsigned long long cieOffset);
    const CfaRow* findRow(unsigned long long address) const;

    std::map<unsigned long long, SymMgrObjectPtr<CIE>> m_cies; ///< by offset in the section
    std::vector<SymMgrObjectPtr<FDE>> m_fdes;                  ///< in the order of the section
    unsigned long long m_sectionAddress;
    std::uint8_t m_addressSize;
    unsigned long long m_loadBias;
};

/// The value of the register that frame addresses are based on: the stack or the frame pointer of the x86
/// processors, by the size of addresses. False for every other register, and for other sizes.
bool readFrameRegister(IStackFrameContext& context, unsigned addressSize, std::uint16_t reg,
                       unsigned long long& value);

} // namespace ORN_3_30

#endif
