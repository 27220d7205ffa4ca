#include "kor_assembler.h"

namespace orn_test {

// --- TavAssembler

TavAssembler& TavAssembler::firstString(const std::string& text) {
    m_first.push_back(text);
    return *this;
}

TavAssembler& TavAssembler::sourceFile(const std::string& name) {
    m_files.push_back(name);
    return *this;
}

TavAssembler& TavAssembler::kernel(const std::string& name) {
    m_kernels.push_back(name);
    return *this;
}

TavAssembler& TavAssembler::lines(uint32_t kernelIndex, const std::vector<Line>& entries) {
    m_records.push_back({kernelIndex, entries});
    return *this;
}

std::vector<uint8_t> TavAssembler::build() const {
    ByteAssembler strings;
    for (const auto* group : {&m_first, &m_files, &m_kernels})
        for (const std::string& text : *group)
            strings.str(text);
    strings.fill(stringPadding);

    const auto countOf = [](const auto& list) { return static_cast<uint32_t>(list.size()); };
    ByteAssembler out;
    out.u32(0).u32(version).u32(0);
    out.u32(stringTableSize.value_or(static_cast<uint32_t>(strings.size()))).u32(0);
    // Counted from the second of the two words behind the strings.
    out.u32(kernelDataOffset.value_or(4 + dataPadding));
    out.u32(limitA).u32(limitB).u32(alignment);
    out.u32(numberOfKernels.value_or(countOf(m_kernels)));
    out.u32(numberOfKernelData.value_or(countOf(m_records)));
    out.raw(strings.bytes());
    out.u32(firstGroup.value_or(countOf(m_first))).u32(sourceFiles.value_or(countOf(m_files)));
    out.fill(dataPadding);
    for (const Record& record : m_records) {
        out.u32(record.kernelIndex).u32(0).u32(0);
        out.u32(lineCount.value_or(countOf(record.entries)));
        for (const Line& entry : record.entries)
            out.u32(entry.address).number(entry.line, 3).u8(entry.column).u32(entry.fileIndex);
    }
    return out.bytes();
}

// --- KorIsaAssembler

KorIsaAssembler& KorIsaAssembler::object(const std::string& name, const Pairs& pairs, uint32_t relocOffset,
                                         bool withTables) {
    constexpr size_t miraInterval = 10;
    constexpr size_t isaInterval = 14;
    constexpr size_t registerMapping = 9;
    const unsigned count = withTables ? 1 : 0;
    ByteAssembler& out = m_objects;
    const auto intervals = [&](size_t size) { out.u16(2).fill(2 * size, 0xEE); };

    out.u8(static_cast<uint8_t>(name.size())).chars(name).u32(relocOffset);
    out.u32(count).fill(count * 8, 0xEE);
    out.u32(static_cast<uint32_t>(pairs.size()));
    for (const auto& [instruction, code] : pairs)
        out.u32(instruction).u32(code);
    out.u32(count);
    if (withTables) {
        out.u8(3).chars("var");
        intervals(miraInterval);
    }
    out.u16(static_cast<uint16_t>(count));
    if (withTables) {
        out.u8(3).chars("sub").u32(0xEEEEEEEE).u32(0xEEEEEEEE);
        intervals(miraInterval);
    }
    out.u16(0xEEEE);
    for (int slot = 0; slot < 3; ++slot) {
        out.u8(static_cast<uint8_t>(slot == 1 ? count : 0));
        if (slot == 1 && withTables)
            intervals(isaInterval);
    }
    for (int list = 0; list < 2; ++list) {
        out.u16(static_cast<uint16_t>(count));
        if (withTables)
            out.u32(0xEEEEEEEE).u16(2).fill(2 * registerMapping, 0xEE);
    }
    ++m_count;
    return *this;
}

std::vector<uint8_t> KorIsaAssembler::build() const {
    ByteAssembler out;
    out.u32(magic).u16(numCompiledObjects.value_or(m_count)).raw(m_objects.bytes());
    return out.bytes();
}

// --- LunAssembler

LunAssembler& LunAssembler::kernel(const std::string& name, const std::vector<uint8_t>& mira,
                                   const std::vector<uint8_t>& korIsa, std::optional<uint32_t> nameSize) {
    m_kernels.u32(nameSize.value_or(static_cast<uint32_t>(name.size())));
    m_kernels.u32(static_cast<uint32_t>(mira.size())).u32(static_cast<uint32_t>(korIsa.size()));
    const size_t begin = m_kernels.size();
    m_kernels.chars(name).padTo(begin + (name.size() + 3) / 4 * 4);
    m_kernels.raw(mira).raw(korIsa);
    ++m_count;
    return *this;
}

std::vector<uint8_t> LunAssembler::build() const {
    ByteAssembler out;
    out.u32(0).u32(version).u32(0).u32(limitA).u32(limitB).u32(alignment);
    out.u32(numberOfKernels.value_or(m_count));
    out.raw(m_kernels.bytes());
    return out.bytes();
}

} // namespace orn_test
