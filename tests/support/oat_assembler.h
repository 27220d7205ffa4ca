// Builds containers of compiled managed code for tests.
#ifndef ORN_TEST_OAT_ASSEMBLER_H
#define ORN_TEST_OAT_ASSEMBLER_H

#include "support/byte_assembler.h"
#include "support/dex_assembler.h"
#include "support/elf_assembler.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orn_test {

/// One entry of a mapping table: a native offset from the start of the code, and a dex pc.
struct OatMapping {
    uint64_t native;
    int64_t dex;
};

/// The code of one method.
struct OatCode {
    uint32_t size = 16;
    bool isThumb = false;
    std::vector<OatMapping> nativeToDex = {};
    std::vector<OatMapping> dexToNative = {};
    /// A table, empty if nothing is given. Code without one says 0 in its record, or, where the code itself
    /// tells its table, a distance back to the container's start.
    bool hasMapping = true;
};

/// What the container has of one class.
struct OatClassRecord {
    uint16_t type = 0;
    /// By the method's name. Of type 0 all methods get code, those that are not named here some of 16 bytes;
    /// of type 1 those that are named; of type 2 none.
    std::map<std::string, OatCode> code = {};
};

/// Builds what lies between "oatdata" and "oatlastword" of a container of any version that is read.
///
///     OatAssembler oat(28);
///     size_t dex = oat.addDex(dexAssembler);
///     oat.record(dex, classIndex) = {0, {{"bar", {.size = 32}}}};
///     std::vector<uint8_t> bytes = oat.build();
///
/// Labels for damage: "dex_count", "executable_offset", "store_size", "entry:<dex>" on a dex entry,
/// "dex_offset:<dex>" on its offset, "class_offsets:<dex>", "dex:<dex>" on the dex file,
/// "class:<dex>:<class>" on a class's record, "bitmap:..." and "methods:..." in it,
/// "mapping:<dex>:<class>:<method>" on a mapping table, "code:..." on the code.
class OatAssembler {
public:
    explicit OatAssembler(int version) : m_version(version) {}

    int version() const { return m_version; }
    size_t addDex(DexAssembler dex);
    /// The same with bytes that were damaged, of the layout of `dex`.
    size_t addDex(DexAssembler dex, std::vector<uint8_t> bytes);
    OatClassRecord& record(size_t dex, size_t classIndex);
    /// Code starts at multiples of this, the first one too.
    OatAssembler& alignment(uint32_t value) {
        m_alignment = value;
        return *this;
    }
    OatAssembler& store(std::vector<uint8_t> bytes) {
        m_store = std::move(bytes);
        return *this;
    }

    ByteAssembler assemble() const;
    std::vector<uint8_t> build() const { return assemble().bytes(); }
    /// Offsets from "oatdata"; that of code without the Thumb bit.
    uint32_t executableOffset() const;
    uint32_t codeOffset(size_t dex, size_t classIndex, const std::string& method) const;

    /// A whole ELF file with the three symbols, "oatdata" at `address`.
    ElfAssembler module(uint64_t address = 0x1000) const;

private:
    struct Dex {
        DexAssembler assembler;
        std::vector<uint8_t> bytes;
        std::vector<OatClassRecord> records;
    };

    void writeHeader(ByteAssembler& out) const;
    void writeEntries(ByteAssembler& out) const;
    void writeClass(ByteAssembler& out, const std::string& name, const OatClassRecord& record,
                    const std::vector<std::string>& methods) const;
    void writeMapping(ByteAssembler& out, const OatCode& code) const;
    void writeCode(ByteAssembler& out, const std::string& name, const OatCode& code) const;
    template <typename Visit>
    void forEachCode(const Visit& visit) const;
    bool hasCodeHeaders() const { return m_version >= 22; }

    int m_version;
    uint32_t m_alignment = 16;
    std::vector<uint8_t> m_store;
    std::vector<Dex> m_dexFiles;
};

} // namespace orn_test

#endif
