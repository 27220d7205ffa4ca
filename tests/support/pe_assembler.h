#pragma once

#include "support/byte_assembler.h"

#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orn_test {

/// PE32 and PE32+.
enum class PeClass { k32, k64 };

// Characteristics of sections, by what they are for.
constexpr uint32_t peCode = 0x60000020;     ///< IMAGE_SCN_CNT_CODE, executable, readable
constexpr uint32_t peData = 0xC0000040;     ///< initialised, readable, writable
constexpr uint32_t peReadOnly = 0x40000040; ///< initialised, readable
constexpr uint32_t peNoBytes = 0xC0000080;  ///< uninitialised, readable, writable

/// One section. Addresses are RVAs.
struct PeSection {
    std::string name; ///< one that is longer than eight characters goes into the string table
    uint32_t rva = 0;
    uint32_t characteristics = 0;
    ByteAssembler data;
    std::optional<uint32_t> virtualSize; ///< without it that of the data
    // Damage: what the header claims in place of the truth.
    std::optional<uint32_t> sizeOfRawData;
    std::optional<uint32_t> pointerToRawData;
    std::optional<std::string> shortName; ///< up to eight characters, whatever the name is
};

/// The export table. Names stand in the order in which they were added.
class PeExports {
public:
    /// Ordinal of the first function.
    PeExports& base(uint32_t value);
    /// Adds a function with a name; returns its index.
    uint16_t add(std::string_view name, uint32_t rva);
    /// A function that has its ordinal alone. An RVA of 0 leaves a hole.
    uint16_t addUnnamed(uint32_t rva);
    /// One more name of a function.
    PeExports& alias(std::string_view name, uint16_t index);
    /// A function of another module, "module.name".
    uint16_t addForwarder(std::string_view name, std::string_view target);

private:
    friend class PeAssembler;
    ByteAssembler contents(uint32_t rva) const;

    struct Function {
        uint32_t rva;
        std::string target;
    };
    uint32_t m_base = 1;
    std::vector<Function> m_functions;
    std::vector<std::pair<std::string, uint16_t>> m_names;
};

/// Where things lie in a built file.
struct PeLayout {
    uint32_t ntHeaders = 0;
    uint32_t fileHeader = 0;
    uint32_t optionalHeader = 0;
    uint32_t dataDirectories = 0;
    uint32_t sectionTable = 0;
    std::vector<uint32_t> sections; ///< the bytes of each, by its index
    uint32_t stringTable = 0;       ///< 0 if no name is long
    uint32_t fileSize = 0;

    uint32_t directory(unsigned index) const { return dataDirectories + 8 * index; }
    uint32_t sectionHeader(unsigned index) const { return sectionTable + 40 * index; }
};

/// Builds PE images for tests.
///
///     PeAssembler pe(PeClass::k64);
///     pe.section(".text", 0x1000, peCode).data.fill(0x100, 0xC3);
///     pe.exports(0x2000).add("function", 0x1010);
///     auto bytes = pe.build();
///
/// Files are valid unless damage is asked for: through the optional fields of sections, `directory`, or by
/// changing the bytes themselves, found through `layout`. Sections lie in the file in the order of making.
class PeAssembler {
public:
    explicit PeAssembler(PeClass peClass = PeClass::k64);

    PeAssembler& machine(uint16_t value);
    PeAssembler& imageBase(uint64_t value);
    PeAssembler& entry(uint32_t rva);
    PeAssembler& baseOfCode(uint32_t rva);
    /// Of raw data in the file; 512 unless set. Small files are made with less than any linker would take.
    PeAssembler& fileAlignment(uint32_t value);
    PeAssembler& directory(unsigned index, uint32_t rva, uint32_t size);
    /// Cuts the optional header behind this many data directories.
    PeAssembler& directoryCount(uint32_t value);

    /// The reference holds as long as the assembler.
    PeSection& section(std::string name, uint32_t rva, uint32_t characteristics);
    PeSection& sectionAt(unsigned index) { return m_sections.at(index); }
    /// The export table in a section ".edata" of its own, made at the first call.
    PeExports& exports(uint32_t rva);
    /// One entry of the debug directory, which gets a section ".debug" of its own at the first call.
    PeAssembler& debugEntry(uint32_t rva, uint32_t type, std::vector<uint8_t> record);
    /// A CLR header in a section ".cormeta" of its own, of a module without native code if the RVA is 0.
    PeAssembler& clrHeader(uint32_t rva, uint32_t nativeHeaderRva);

    /// CodeView records as linkers write them.
    static std::vector<uint8_t> rsds(const std::array<uint8_t, 16>& guid, uint32_t age,
                                     std::string_view path);
    static std::vector<uint8_t> nb10(uint32_t signature, uint32_t age, std::string_view path);
    /// The header of native code beside managed code.
    static std::vector<uint8_t> readyToRunHeader(uint16_t majorVersion = 4, uint16_t minorVersion = 1);

    std::vector<uint8_t> build() const;
    PeLayout layout() const;

private:
    bool is64Bit() const { return m_class == PeClass::k64; }
    std::vector<std::vector<uint8_t>> sectionBytes(const PeLayout& layout) const;
    std::vector<uint8_t> debugBytes(uint32_t fileOffset) const;
    uint32_t aligned(uint64_t value) const;
    uint32_t optionalHeaderSize() const;
    uint32_t directorySize(unsigned index) const;
    uint32_t sizeOfImage(const std::vector<std::vector<uint8_t>>& contents) const;
    std::vector<uint32_t> longNameOffsets() const;
    void writeFileHeader(ByteAssembler& out, const PeLayout& layout) const;
    void writeOptionalHeader(ByteAssembler& out, uint32_t sizeOfImage) const;
    void writeSectionTable(ByteAssembler& out, const PeLayout& layout,
                           const std::vector<std::vector<uint8_t>>& contents) const;

    PeClass m_class;
    uint16_t m_machine;
    uint64_t m_imageBase;
    uint32_t m_entry = 0;
    uint32_t m_baseOfCode = 0;
    uint32_t m_fileAlignment = 512;
    uint32_t m_directoryCount = 16;
    std::array<std::pair<uint32_t, uint32_t>, 16> m_directories{};
    std::deque<PeSection> m_sections;
    std::optional<PeExports> m_exports;
    unsigned m_exportSection = 0;
    struct DebugEntry {
        uint32_t type;
        std::vector<uint8_t> record;
    };
    std::vector<DebugEntry> m_debugEntries;
    unsigned m_debugSection = 0;
};

/// Puts a little-endian number into built bytes.
void putNumber(std::vector<uint8_t>& bytes, size_t offset, uint64_t value, unsigned width);

} // namespace orn_test
