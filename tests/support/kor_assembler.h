// Builds debug files of GPU compilers for tests.
#pragma once

#include "byte_assembler.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orn_test {

/// A file of the older format:
///
///     TavAssembler tav;
///     tav.sourceFile("a.cl").kernel("add").lines(0, {{0x10, 42, 10, 0}});
///     auto bytes = tav.build();
///
/// Files are valid unless damage is asked for: by the fields below, in place of the truth, or in the bytes.
class TavAssembler {
public:
    struct Line {
        uint32_t address;
        uint32_t line;
        uint8_t column;
        uint32_t fileIndex;
    };

    /// A string of the first group, which no reader hands out.
    TavAssembler& firstString(const std::string& text);
    TavAssembler& sourceFile(const std::string& name);
    TavAssembler& kernel(const std::string& name);
    /// The data record of kernel number `kernelIndex`.
    TavAssembler& lines(uint32_t kernelIndex, const std::vector<Line>& entries);

    std::vector<uint8_t> build() const;

    uint32_t version = 0x3fc;
    uint32_t limitA = 0;
    uint32_t limitB = 0;
    uint32_t alignment = 0;
    uint32_t stringPadding = 0; ///< bytes of the string table behind the strings
    uint32_t dataPadding = 0;   ///< bytes between the tables and the data records
    // In place of the truth.
    std::optional<uint32_t> stringTableSize, kernelDataOffset, numberOfKernels, numberOfKernelData;
    std::optional<uint32_t> firstGroup, sourceFiles;
    std::optional<uint32_t> lineCount; ///< of each record

private:
    struct Record {
        uint32_t kernelIndex;
        std::vector<Line> entries;
    };
    std::vector<std::string> m_first;
    std::vector<std::string> m_files;
    std::vector<std::string> m_kernels;
    std::vector<Record> m_records;
};

/// A kor ISA stream: which machine code became of virtual instructions.
class KorIsaAssembler {
public:
    using Pairs = std::vector<std::pair<uint32_t, uint32_t>>;

    /// One compiled object. `relocOffset` other than 0 makes it a callee. With `withTables` there is one of
    /// everything that readers pass over.
    KorIsaAssembler& object(const std::string& name, const Pairs& pairs, uint32_t relocOffset = 0,
                            bool withTables = false);

    std::vector<uint8_t> build() const;

    uint32_t magic = 0xDEADD010;
    std::optional<uint16_t> numCompiledObjects; ///< in place of the truth

private:
    ByteAssembler m_objects;
    uint16_t m_count = 0;
};

/// A file of the newer format.
class LunAssembler {
public:
    /// `nameSize`, if given, is the stated size of the name, which its field still holds whole.
    LunAssembler& kernel(const std::string& name, const std::vector<uint8_t>& mira,
                         const std::vector<uint8_t>& korIsa = {},
                         std::optional<uint32_t> nameSize = std::nullopt);

    std::vector<uint8_t> build() const;

    uint32_t version = 0x41b;
    uint32_t limitA = 0;
    uint32_t limitB = 0;
    uint32_t alignment = 0;
    std::optional<uint32_t> numberOfKernels; ///< in place of the truth

private:
    ByteAssembler m_kernels;
    uint32_t m_count = 0;
};

} // namespace orn_test
