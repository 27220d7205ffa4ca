#include "support/oat_assembler.h"

#include <algorithm>
#include <cstdio>

namespace orn_test {

namespace {

constexpr uint16_t someCompiled = 1;
constexpr uint16_t noneCompiled = 2;
/// Words in front of code, in its header: mapping table, map of references, frame (3 words), size.
constexpr uint32_t codeHeaderSize = 24;

std::string className(size_t dex, size_t classIndex) {
    return std::to_string(dex) + ":" + std::to_string(classIndex);
}

/// The code of a method, null if it has none.
const OatCode* codeOf(const OatClassRecord& record, const std::string& method) {
    static const OatCode some;
    if (record.type == noneCompiled)
        return nullptr;
    const auto found = record.code.find(method);
    if (found != record.code.end())
        return &found->second;
    return record.type == someCompiled ? nullptr : &some;
}

} // namespace

size_t OatAssembler::addDex(DexAssembler dex) {
    std::vector<uint8_t> bytes = dex.build();
    return addDex(std::move(dex), std::move(bytes));
}

size_t OatAssembler::addDex(DexAssembler dex, std::vector<uint8_t> bytes) {
    const size_t classCount = dex.classCount();
    m_dexFiles.push_back({std::move(dex), std::move(bytes), std::vector<OatClassRecord>(classCount)});
    return m_dexFiles.size() - 1;
}

OatClassRecord& OatAssembler::record(size_t dex, size_t classIndex) {
    return m_dexFiles.at(dex).records.at(classIndex);
}

template <typename Visit>
void OatAssembler::forEachCode(const Visit& visit) const {
    for (size_t dex = 0; dex < m_dexFiles.size(); ++dex) {
        const Dex& dexFile = m_dexFiles[dex];
        for (size_t classIndex = 0; classIndex < dexFile.records.size(); ++classIndex)
            for (const std::string& method : dexFile.assembler.methodNames(classIndex))
                if (const OatCode* code = codeOf(dexFile.records[classIndex], method))
                    visit(className(dex, classIndex) + ":" + method, *code);
    }
}

// The layout: header, entries, dex files, class records, mapping tables, code.
ByteAssembler OatAssembler::assemble() const {
    ByteAssembler out;
    writeHeader(out);
    writeEntries(out);
    for (size_t dex = 0; dex < m_dexFiles.size(); ++dex)
        out.align(4).define("dex:" + std::to_string(dex)).raw(m_dexFiles[dex].bytes);
    for (size_t dex = 0; dex < m_dexFiles.size(); ++dex)
        for (size_t classIndex = 0; classIndex < m_dexFiles[dex].records.size(); ++classIndex)
            writeClass(out, className(dex, classIndex), m_dexFiles[dex].records[classIndex],
                       m_dexFiles[dex].assembler.methodNames(classIndex));
    forEachCode([&](const std::string& name, const OatCode& code) {
        if (code.hasMapping)
            writeMapping(out.define("mapping:" + name), code);
    });
    out.align(m_alignment).define("executable");
    forEachCode([&](const std::string& name, const OatCode& code) { writeCode(out, name, code); });
    out.align(4).fill(4); // "oatlastword"
    return out;
}

void OatAssembler::writeHeader(ByteAssembler& out) const {
    char version[4];
    std::snprintf(version, sizeof(version), "%03d", m_version);
    out.chars("oat\n").str(version);
    out.u32(0x11111111).u32(2).u32(0); // checksum, instruction set, features
    if (m_version >= 14)
        out.u32(0x14141414);
    out.define("dex_count").u32(static_cast<uint32_t>(m_dexFiles.size()));
    out.define("executable_offset").absolute("executable", 4);
    const unsigned trampolines = m_version < 14 ? 7 : m_version < 22 ? 9 : 10;
    for (unsigned i = 0; i < trampolines; ++i)
        out.u32(0x22220000 + i);
    out.u32(0x33333333).u32(0x44444444);
    out.define("store_size").u32(static_cast<uint32_t>(m_store.size())).raw(m_store);
}

void OatAssembler::writeEntries(ByteAssembler& out) const {
    for (size_t dex = 0; dex < m_dexFiles.size(); ++dex) {
        const std::string name = std::to_string(dex);
        const std::string location = "/system/app/" + name + ".apk";
        out.define("entry:" + name).u32(static_cast<uint32_t>(location.size())).chars(location);
        out.u32(0x55555555).define("dex_offset:" + name).absolute("dex:" + name, 4);
        out.define("class_offsets:" + name);
        for (size_t classIndex = 0; classIndex < m_dexFiles[dex].records.size(); ++classIndex)
            out.absolute("class:" + className(dex, classIndex), 4);
    }
}

void OatAssembler::writeClass(ByteAssembler& out, const std::string& name, const OatClassRecord& record,
                              const std::vector<std::string>& methods) const {
    out.align(4).define("class:" + name).u16(0xFFFE).u16(record.type);
    if (record.type == someCompiled) {
        std::vector<uint8_t> bitmap((methods.size() + 31) / 32 * 4);
        for (size_t i = 0; i < methods.size(); ++i)
            if (codeOf(record, methods[i]))
                bitmap[i / 8] |= static_cast<uint8_t>(1u << (i % 8));
        out.u32(static_cast<uint32_t>(bitmap.size())).define("bitmap:" + name).raw(bitmap);
    }
    out.define("methods:" + name);
    for (const std::string& method : methods) {
        const OatCode* code = codeOf(record, method);
        if (!code)
            continue;
        const std::string full = name + ":" + method;
        out.absolute("code:" + full, 4, code->isThumb ? 1 : 0);
        if (hasCodeHeaders()) {
            out.u32(0x66666666).u32(0x66666666).u32(0x66666666).u32(0x66666666);
            continue;
        }
        out.u32(0x77777777).u32(0x77777777).u32(0x77777777);
        if (code->hasMapping)
            out.absolute("mapping:" + full, 4);
        else
            out.u32(0);
        out.u32(0x77777777).u32(0x77777777);
    }
}

void OatAssembler::writeMapping(ByteAssembler& out, const OatCode& code) const {
    out.uleb(code.nativeToDex.size() + code.dexToNative.size()).uleb(code.nativeToDex.size());
    for (const auto* table : {&code.nativeToDex, &code.dexToNative}) {
        OatMapping previous{0, 0};
        for (const OatMapping& entry : *table) {
            out.uleb(entry.native - previous.native);
            if (m_version < 8)
                out.uleb(static_cast<uint32_t>(entry.dex - previous.dex));
            else
                out.sleb(entry.dex - previous.dex);
            previous = entry;
        }
    }
}

void OatAssembler::writeCode(ByteAssembler& out, const std::string& name, const OatCode& code) const {
    const std::string label = "code:" + name;
    out.fill(codeHeaderSize).align(m_alignment);
    // The place of the code is known: its header goes in front of it, over the bytes just filled.
    out.define(label).fill(code.size, 0xC0);
    out.overwrite(label, code.size, 4, -4);
    if (hasCodeHeaders()) {
        const auto offset = static_cast<uint32_t>(out.offsetOf(label));
        const uint32_t distance =
            code.hasMapping ? offset - static_cast<uint32_t>(out.offsetOf("mapping:" + name)) : offset;
        out.overwrite(label, distance, 4, -12);
    }
}

uint32_t OatAssembler::executableOffset() const {
    return static_cast<uint32_t>(assemble().offsetOf("executable"));
}

uint32_t OatAssembler::codeOffset(size_t dex, size_t classIndex, const std::string& method) const {
    return static_cast<uint32_t>(assemble().offsetOf("code:" + className(dex, classIndex) + ":" + method));
}

ElfAssembler OatAssembler::module(uint64_t address) const {
    const std::vector<uint8_t> bytes = build();
    const std::span<const uint8_t> all(bytes);
    const uint32_t executable = executableOffset();
    ElfAssembler elf(ElfClass::k32, EM_ARM);
    auto rodata = elf.section(".rodata", SHT_PROGBITS, SHF_ALLOC).address(address);
    rodata.append(all.first(executable));
    auto text = elf.section(".text", SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR).address(address + executable);
    text.append(all.subspan(executable));
    elf.load({rodata, text});
    const uint64_t end = address + bytes.size();
    elf.dynamicSymbol("oatdata", address, executable, STB_GLOBAL, STT_OBJECT, rodata);
    elf.dynamicSymbol("oatexec", address + executable, bytes.size() - executable, STB_GLOBAL, STT_OBJECT,
                      text);
    elf.dynamicSymbol("oatlastword", end - 4, 4, STB_GLOBAL, STT_OBJECT, text);
    elf.dynamicSymbols().section().flags(0);
    elf.dynamicSymbols().strings().flags(0);
    return elf;
}

} // namespace orn_test
