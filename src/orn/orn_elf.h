// The ELF format as headers, sections and address ranges. Knows nothing of symbols.
#ifndef ORN_ELF_H
#define ORN_ELF_H

#include "orn/module_image.h"
#include "orn/section_data.h"
#include "orn/types.h"

#include <elf.h>

#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <vector>

namespace ORN_3_30 {

class RelocationAddends;

/// Disjoint-by-start address ranges with a memory of the last one looked at. Filled before it is shared; the
/// lookups may run in several threads.
class ElfAddressRanges {
public:
    using EndByStart = std::map<unsigned long long, unsigned long long>;

    /// Replaces all ranges and forgets the last hit.
    void assign(const EndByStart& ranges);
    /// Whether the last hit, or else the range with the greatest start not above `address`, holds `address`.
    bool contains(unsigned long long address) const {
        const Range* last = m_lastHit.load(std::memory_order_relaxed);
        return (last && last->holds(address)) || search(address);
    }
    std::size_t size() const { return m_ranges.size(); }

private:
    struct Range {
        unsigned long long start;
        unsigned long long end;
        bool holds(unsigned long long address) const { return start <= address && address < end; }
    };

    bool search(unsigned long long address) const;

    std::vector<Range> m_ranges; ///< ascending by start
    /// A pointer into the vector, so that threads that disturb each other here only lose time.
    mutable std::atomic<const Range*> m_lastHit{nullptr};
};

/// The headers of one ELF module, widened to the 64-bit form so that nothing above has to care, the sections
/// that the library knows by name, and the address ranges of code and data.
///
/// Everything is read in the constructor; a failure leaves isValid() false and is not thrown. Only an
/// allocation failure is. What is filled later (section contents, lent symbol tables) is guarded by a lock of
/// the helper's own. Pointers and texts that it gives live as long as the helper.
class ElfHelper : public SymMgrObjectImpl {
public:
    /// Walkers see the headers without seeing the arrays.
    class IProgramHeadersCallback {
    public:
        virtual void operator()(const Elf64_Phdr& header, unsigned index) = 0;

    protected:
        ~IProgramHeadersCallback() = default;
    };
    class ISectionHeadersCallback {
    public:
        virtual void operator()(const Elf64_Shdr& header, unsigned index) = 0;

    protected:
        ~ISectionHeadersCallback() = default;
    };

    /// An index that no section has.
    static constexpr unsigned noSection = 0xFFFFFFFFu;
    /// The machine number with exceptions of its own in encoding, section flags and symbol entries.
    static constexpr Elf64_Half machineOfExceptions = 31;

    /// The contents of a section in memory of their own: `size` bytes and one NUL behind them, so that a text
    /// that begins inside also ends.
    struct SectionBlock {
        std::unique_ptr<unsigned char[]> data;
        unsigned long long size = 0;
    };

    /// A symbol table and its strings, read. `entries` is null unless both have contents.
    struct SymbolTableData {
        const unsigned char* entries = nullptr;
        unsigned long long entriesSize = 0;
        const char* strings = nullptr; ///< ends in a NUL beyond `stringsSize`
        unsigned long long stringsSize = 0;
        unsigned long long bias = 0; ///< added to every symbol's value
    };

    explicit ElfHelper(SymMgrObjectPtr<IModuleImage> image);
    ~ElfHelper() override;

    bool isValid() const { return m_valid; }
    bool is64Bit() const { return m_is64Bit; }
    /// All ones without a loadable segment.
    unsigned long long getImageBase() const { return m_imageBase; }
    arch_t getArch() const { return m_arch; }
    Elf64_Half getMachine() const { return m_header.e_machine; }
    /// The header in 64-bit form; all zero if it could not be read.
    const Elf64_Ehdr& getHeader() const { return m_header; }
    unsigned long long getFirstLoadSize() const { return m_firstLoadSize; }
    IModuleImage* getImage() const { return m_fileImage; }
    /// Path of the file; empty without an image.
    const char* getPath() const;
    /// Where the module begins inside its file.
    unsigned long long getModuleOffset() const;

    /// 0 while there are no section headers.
    unsigned getSectionCount() const { return m_sectionHeaders ? m_header.e_shnum : 0; }
    /// Null at or above the section count.
    const Elf64_Shdr* getSectionHeader(unsigned index) const {
        return index < getSectionCount() ? &m_sectionHeaders[index] : nullptr;
    }
    unsigned long long getSectionNamesSize() const { return m_shStrTabSize; }
    /// Never null: "" where there is no name.
    const char* getSectionName(unsigned index) const;
    /// Index of the first section of exactly this name, or `noSection`.
    unsigned findSectionByName(const char* name) const;

    /// A new block with the decompressed contents, which the caller frees with array delete. Null if they are
    /// not to be had.
    unsigned char* getSectionData(unsigned index, unsigned long long& size);
    /// The same as a block, with the reason of a failure. With a failed decompression the raw contents stand
    /// in `out` all the same.
    status_t readSection(unsigned index, SectionBlock& out);

    bool isCodeAddress(unsigned long long address) const { return m_codeRanges.contains(address); }
    bool isCodeOrDataAddress(unsigned long long address) const {
        return isCodeAddress(address) || m_dataRanges.contains(address);
    }

    /// The kept program headers, which are those of type `PT_LOAD`. Nothing while the helper is invalid.
    void walkProgramHeaders(IProgramHeadersCallback& callback) const;
    void walkSectionHeaders(ISectionHeadersCallback& callback) const;
    /// All program headers of whatever type as they stand in a 64-bit file, offsets as in the image. Reads
    /// them anew. Nothing for a 32-bit file.
    void walkRawProgramHeaders(IProgramHeadersCallback& callback) const;

    /// The relocations of section `sectionIndex`; null if no relocation section names it.
    void getRelocationAddends(SymMgrObjectPtr<RelocationAddends>& out, unsigned sectionIndex);

    /// Lends the symbol tables of a separate debug file to this module, where it has none of its own.
    void mergeDebugFile(ElfHelper& debugHelper);

    /// The kept objects and indices of the sections known by name; null or `noSection` if absent.
    ISectionData* getSymTab() const;
    ISectionData* getStrTab() const;
    ISectionData* getDynSym() const;
    ISectionData* getDynStr() const;
    ISectionData* getDebugInfo() const { return m_debugInfo; }
    ISectionData* getDebugStr() const { return m_debugStr; }
    ISectionData* getDebugRanges() const { return m_debugRanges; }
    ISectionData* getDebugLoc() const { return m_debugLoc; }
    ISectionData* getEhFrame() const { return m_ehFrame; }
    unsigned getPltIndex() const { return m_pltIndex; }
    unsigned getDebugLinkIndex() const { return m_debugLinkIndex; }
    unsigned getBuildIdIndex() const { return m_buildIdIndex; }
    unsigned getDebugAbbrevIndex() const { return m_debugAbbrevIndex; }
    unsigned getDebugLineIndex() const { return m_debugLineIndex; }

    /// ".symtab" with ".strtab", and ".dynsym" with ".dynstr", read if they are not yet.
    SymbolTableData loadSymbolTable();
    SymbolTableData loadDynamicSymbolTable();
    /// Distance of the entries of a symbol table in bytes.
    unsigned getSymbolStride() const;

    /// For a module without segments, such as a kernel module: its ".text" and ".data" take the place of the
    /// first two loadable segments, and they alone are its code and data.
    void layOutBySections(unsigned long long textAddress, unsigned long long textSize,
                          unsigned long long dataAddress, unsigned long long dataSize);

    /// Guards what the section data objects of this helper fill.
    ILock* getFillLock() const { return &m_fillLock; }

private:
    struct RangeMaps {
        ElfAddressRanges::EndByStart code;
        ElfAddressRanges::EndByStart data;
    };
    struct LoadRange;

    bool readHeaders();
    bool readIdentification();
    bool readFileHeader();
    bool acceptDataEncoding();
    void mapMachine();
    bool readProgramHeaders();
    std::unique_ptr<unsigned char[]> readTable(unsigned long long offset, unsigned count, unsigned stride,
                                               std::size_t entrySize) const;
    Elf64_Phdr programHeaderAt(const unsigned char* entry) const;
    Elf64_Shdr sectionHeaderAt(const unsigned char* entry) const;
    void keepLoadableSegments(const unsigned char* table);
    void noteFirstLoadableSegments();

    bool readSectionHeaders();
    bool readSectionNames();
    bool classifySections();
    bool noteSection(unsigned index, RangeMaps& ranges);
    unsigned long long endWithoutGap(unsigned index) const;
    void noteRange(unsigned index, RangeMaps& ranges) const;
    bool noteKnownName(unsigned index, RangeMaps& ranges);
    bool isInsideFile(const Elf64_Shdr& header) const;
    status_t decompress(unsigned index, SectionBlock& block) const;
    LoadRange firstLoadRange() const;
    LoadRange secondLoadRange() const;

    SymbolTableData loadTable(const SymMgrObjectPtr<ISectionData>& symbols,
                              const SymMgrObjectPtr<ISectionData>& strings);
    void borrowTable(ElfHelper& debugHelper, ISectionData* lentSymbols, ISectionData* lentStrings,
                     unsigned long long bias, SymMgrObjectPtr<ISectionData>& symbols,
                     SymMgrObjectPtr<ISectionData>& strings);
    void findSymbolData(unsigned link, SymMgrObjectPtr<ISectionData>& symbols,
                        SymMgrObjectPtr<ISectionData>& strings);
    void readRelocations(RelocationAddends& addends, ISectionData& symbols,
                         const SymMgrObjectPtr<ISectionData>& strings);

    SymMgrObjectPtr<IModuleImage> m_fileImage;
    Elf64_Ehdr m_header;
    std::unique_ptr<Elf64_Shdr[]> m_sectionHeaders;
    std::unique_ptr<unsigned char[]> m_shStrTab;
    unsigned long long m_shStrTabSize;
    bool m_is64Bit;
    bool m_valid;
    unsigned long long m_programHeaderCount;
    std::unique_ptr<Elf64_Phdr[]> m_programHeaders;
    arch_t m_arch;
    SymMgrObjectPtr<ISectionData> m_symTab;
    SymMgrObjectPtr<ISectionData> m_strTab;
    SymMgrObjectPtr<ISectionData> m_dynSym;
    SymMgrObjectPtr<ISectionData> m_dynStr;
    unsigned m_pltIndex;
    unsigned m_debugLinkIndex;
    unsigned m_buildIdIndex;
    SymMgrObjectPtr<ISectionData> m_debugInfo;
    unsigned m_debugAbbrevIndex;
    SymMgrObjectPtr<ISectionData> m_debugStr;
    SymMgrObjectPtr<ISectionData> m_ehFrame;
    SymMgrObjectPtr<ISectionData> m_debugRanges;
    SymMgrObjectPtr<ISectionData> m_debugLoc;
    unsigned m_debugLineIndex;
    unsigned long long m_imageBase;
    unsigned long long m_firstLoadSize;
    unsigned long long m_secondLoadAddress;
    unsigned long long m_secondLoadSize;
    unsigned long long m_firstLoadAddress;
    std::map<unsigned, unsigned> m_relocationSections; ///< by target section; the first one wins
    ElfAddressRanges m_codeRanges;
    ElfAddressRanges m_dataRanges;
    mutable OrnLock m_fillLock;
};

} // namespace ORN_3_30

#endif
