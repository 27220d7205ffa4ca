#pragma once

#include "byte_assembler.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orn_test {

struct CieOptions {
    uint8_t version = 1;
    std::string augmentation = "zR";
    uint64_t codeAlignment = 1;
    int64_t dataAlignment = -8;
    uint64_t returnRegister = 16;
    /// Behind the length that a "z" brings.
    std::vector<uint8_t> augmentationData = {0x1b};
    bool is64Bit = false;
    std::optional<uint64_t> length; ///< in place of the true one
};

struct FdeOptions {
    /// Of both pointers: `DW_EH_PE_*` for "zR"; without it plain addresses, for an empty augmentation.
    std::optional<uint8_t> encoding = 0x1b;
    /// Behind a length; without it no length either.
    std::optional<std::vector<uint8_t>> augmentationData = std::vector<uint8_t>();
    bool is64Bit = false;
    std::optional<uint32_t> id; ///< in place of the distance to the CIE
    std::optional<uint64_t> length;
};

/// Builds `.eh_frame` for tests.
///
///     CfiAssembler cfi(0x2000);
///     const auto cie = cfi.beginCie();
///     cfi.defCfa(7, 8).end();
///     cfi.beginFde(cie, 0x1000, 0x20);
///     cfi.advance(1).defCfaOffset(16).end();
///     cfi.terminator();
///
/// What the operations do not offer, and all damage, is written to `bytes`.
class CfiAssembler {
public:
    explicit CfiAssembler(uint64_t sectionAddress = 0x2000, uint8_t addressSize = 8)
        : m_sectionAddress(sectionAddress), m_addressSize(addressSize) {}

    ByteAssembler& bytes() { return m_bytes; }
    const ByteAssembler& bytes() const { return m_bytes; }
    uint64_t sectionAddress() const { return m_sectionAddress; }

    /// The offset of the entry, by which FDEs name it.
    size_t beginCie(const CieOptions& options = {});
    size_t beginFde(size_t cie, uint64_t begin, uint64_t size, const FdeOptions& options = {});
    /// Pads the entry with `DW_CFA_nop`.
    CfiAssembler& end();
    /// A length of 0.
    CfiAssembler& terminator();

    /// An opcode with ULEB operands.
    CfiAssembler& op(uint8_t opcode, const std::vector<uint64_t>& operands = {});
    CfiAssembler& raw(const std::vector<uint8_t>& instructions);

    CfiAssembler& advance(uint8_t delta) { return op(static_cast<uint8_t>(0x40 | delta)); }
    CfiAssembler& offset(uint8_t reg, uint64_t factored) {
        return op(static_cast<uint8_t>(0x80 | reg), {factored});
    }
    CfiAssembler& restore(uint8_t reg) { return op(static_cast<uint8_t>(0xc0 | reg)); }
    CfiAssembler& rememberState() { return op(0x0a); }
    CfiAssembler& restoreState() { return op(0x0b); }
    CfiAssembler& defCfa(uint64_t reg, uint64_t offset) { return op(0x0c, {reg, offset}); }
    CfiAssembler& defCfaRegister(uint64_t reg) { return op(0x0d, {reg}); }
    CfiAssembler& defCfaOffset(uint64_t offset) { return op(0x0e, {offset}); }

private:
    void beginEntry(bool is64Bit, std::optional<uint64_t> length);
    void pointer(uint8_t encoding, uint64_t value);

    ByteAssembler m_bytes;
    uint64_t m_sectionAddress;
    uint8_t m_addressSize;
    std::optional<ByteAssembler::Label> m_end;
};

} // namespace orn_test
