// Runs line number programs, versions 2 to 4: called by a unit when its lines or its files are first asked
// for. Rows become ranges by pairing each with the next one and go straight to the line resolver; no row is
// stored here. Left out on purpose: statement and block flags, the instruction set, operand counts of the
// header, and everything about inlined code, which entries tell.

#include "orn_dildwarf_lines.h"

#include "orn/line_table.h"
#include "orn_dildwarf_reader.h"
#include "orn_filename.h"
#include "orn_log.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace ORN_3_30 {

namespace {

constexpr std::uint32_t greatestVersion = 4;
constexpr std::uint32_t versionWithOperationCount = 4;
constexpr unsigned greatestOpcode = 255;
/// A longer directory is no directory of any system; damaged data could have it put before every file.
constexpr std::size_t longestDirectory = PATH_MAX;
/// Directories up to this length are put before any number of files.
constexpr std::size_t usualDirectory = 512;

/// The text at the walker, which moves behind its end. Without a zero byte in the view the text is in `copy`.
const char* readText(SectionWalker& walker, std::string& copy) {
    const char* text = reinterpret_cast<const char*>(walker.cursor());
    const unsigned long long left = walker.remaining();
    if (const void* zero = left ? std::memchr(text, 0, left) : nullptr) {
        walker.skip(static_cast<unsigned long long>(static_cast<const char*>(zero) - text) + 1);
        return text;
    }
    copy.assign(left ? text : "", left);
    walker.skip(left + 1);
    return copy.c_str();
}

} // namespace

DWARFLineResolver::DWARFLineResolver(IFileFormatLoader& loader, IDebugInfoLoader* debugLoader, IScope* scope,
                                     ILock* loadLock)
    : LineResolver(&loader, debugLoader, scope, loadLock) {
    setLineTable(ILineTable::create(loader, *this));
}

void DWARFLineResolver::addLineRange(unsigned long long unitId, unsigned fileId, unsigned line,
                                     unsigned column, unsigned long long address, unsigned long long size,
                                     unsigned long long extra) {
    lineTable()->addLineRange(unitId, fileId, line, column, address, size, extra);
}

void DWARFLineState::restart() {
    address = 0;
    file = 1;
    line = 1;
    column = 0;
    discriminator = 0;
    isStmt = defaultIsStmt != 0;
    basicBlock = false;
    endSequence = false;
    rowPending = false;
    resetPending = false;
}

DWARFLineProgram::DWARFLineProgram(DWARFCompilationUnit& unit, RangeFilter* ranges)
    : m_unit(unit),
      m_resolver(*unit.getLineResolver()),
      m_ranges(ranges),
      m_helper(*unit.getSections()->helper()),
      m_specials() {}

status_t DWARFLineProgram::readHeader() {
    m_unit.clearFiles();
    SectionWalker walker;
    const bool is64Bit = readLength(walker);
    const std::uint32_t version = walker.readU16();
    ORN_LOG_INFO("Line info version: " << version);
    if (version > greatestVersion)
        return status_UnsupportedFormatVersion;
    if (!m_unit.getSections()->affordsLineProgram(walker.remaining()))
        return status_BadDebugInfo;
    // The program begins where the header says, whatever stands between it and the last file.
    const unsigned long long headerLength = is64Bit ? walker.readU64() : walker.readU32();
    SectionWalker program = walker;
    program.skip(headerLength);
    readFixedFields(walker, version);
    readIncludeDirs(walker);
    while (addFile(walker, true)) {
    }
    m_state.walker = program;
    m_state.restart();
    return status_Ok;
}

/// Gives a walker over the unit's part of the section, behind the length. True if its offsets are 8 bytes
/// wide.
bool DWARFLineProgram::readLength(SectionWalker& walker) const {
    RelocatedSection& section = m_unit.getSections()->line();
    walker = SectionWalker(section.begin(), section.size(), m_unit.getStmtList());
    unsigned long long length = walker.readU32();
    const bool is64Bit = length == DW_LENGTH_64BIT;
    if (is64Bit)
        length = walker.readU64();
    length = std::min(length, walker.remaining());
    // Quirk: the range is as long as the length but begins before it. No operand of an address lies so near
    // the end of a program.
    section.relocate(m_unit.getStmtList(), m_unit.getStmtList() + length, m_unit.getAddressSize());
    walker = SectionWalker(section.begin(), walker.offset() + length, walker.offset());
    walker.setAddressSize(m_unit.getAddressSize());
    return is64Bit;
}

void DWARFLineProgram::readFixedFields(SectionWalker& walker, std::uint32_t version) {
    const std::uint8_t minimumInstructionLength = walker.readU8();
    ORN_ASSERT(1 <= minimumInstructionLength);
    ORN_ASSERT(minimumInstructionLength <= 4);
    m_state.minimumInstructionLength = minimumInstructionLength;
    if (version >= versionWithOperationCount)
        walker.skip(1); // maximum_operations_per_instruction
    const std::uint8_t defaultIsStmt = walker.readU8();
    ORN_ASSERT(defaultIsStmt < 2);
    m_state.defaultIsStmt = defaultIsStmt;
    m_state.lineBase = static_cast<std::int8_t>(walker.readU8());
    m_state.lineRange = walker.readU8();
    m_state.opcodeBase = walker.readU8();
    // Operand counts of the standard opcodes; a base of 0 has none.
    if (m_state.opcodeBase > 0)
        walker.skip(m_state.opcodeBase - 1U);
    tabulateSpecials();
}

/// A damaged range of 0 counts as adding nothing.
void DWARFLineProgram::tabulateSpecials() {
    unsigned quotient = 0;
    unsigned remainder = 0;
    for (unsigned opcode = m_state.opcodeBase; opcode <= greatestOpcode; ++opcode) {
        m_specials[opcode] = {static_cast<std::int16_t>(m_state.lineBase + static_cast<int>(remainder)),
                              static_cast<std::uint8_t>(quotient)};
        if (m_state.lineRange != 0 && ++remainder == m_state.lineRange) {
            remainder = 0;
            ++quotient;
        }
    }
}

void DWARFLineProgram::readIncludeDirs(SectionWalker& walker) {
    for (;;) {
        const char* directory = readText(walker, m_name);
        if (*directory == 0)
            return;
        // A text without an end was cut off with the section; its copy has to last as long as the unit.
        if (directory == m_name.c_str())
            directory = m_unit.getSections()->keepText(m_name.substr(0, longestDirectory + 1));
        m_unit.addIncludeDir(directory);
    }
}

bool DWARFLineProgram::addFile(SectionWalker& walker, bool stopOnEmpty) {
    const char* fileName = readText(walker, m_name);
    if (stopOnEmpty && *fileName == 0)
        return false;
    const unsigned long long directoryIndex = walker.readULEB();
    const unsigned long long modificationTime = walker.readULEB();
    const unsigned long long length = walker.readULEB();
    ORN_ASSERT(fileName && strlen(fileName) > 0);
    if (fileName != m_name.c_str())
        m_name = fileName;
    if (isAbsolutePath(m_name))
        m_path = m_name;
    else if (const std::string& directory = directoryAt(directoryIndex);
             directory.empty() || !affordsDirectory(directory))
        m_path = m_name;
    else
        appendPath(m_path, directory, m_name);
    m_resolver.registerFile(m_unit, m_path, modificationTime, length);
    return true;
}

/// The directory of a number as files name it; empty for none.
const std::string& DWARFLineProgram::directoryAt(unsigned long long index) {
    static const std::string none;
    // 0 is the compilation directory, and one number past the include directories is none.
    if (index != 0 && !m_unit.getIncludeDir(index - 1))
        return none;
    if (index >= m_directories.size()) {
        m_directories.resize(index + 1);
        m_hasDirectory.resize(index + 1);
    }
    if (!m_hasDirectory[index]) {
        joinDirectory(index, m_directories[index]);
        m_hasDirectory[index] = true;
    }
    return m_directories[index];
}

void DWARFLineProgram::joinDirectory(unsigned long long index, std::string& out) {
    if (index == 0) {
        out = compilationDirectory();
    } else if (const std::string directory = m_unit.getIncludeDir(index - 1); !directory.empty()) {
        if (isAbsolutePath(directory) || compilationDirectory().empty())
            out = directory;
        else
            appendPath(out, compilationDirectory(), directory);
    }
    if (out.size() > longestDirectory)
        out.clear();
}

const std::string& DWARFLineProgram::compilationDirectory() {
    if (!m_compilationDirectory) {
        const char* told = m_unit.getCompilationDirectory();
        m_compilationDirectory.emplace(told, strnlen(told, longestDirectory + 1));
    }
    return *m_compilationDirectory;
}

/// A file entry is a few bytes, and each path is kept.
bool DWARFLineProgram::affordsDirectory(const std::string& directory) {
    return directory.size() <= usualDirectory || m_unit.getSections()->affords(directory.size());
}

void DWARFLineProgram::runRows() {
    bool firstRow = true;
    Row previous{};
    while (step()) {
        if (!firstRow && m_state.address >= previous.address)
            addRange(previous, m_state.address - previous.address);
        // The end of a sequence only closes the last range; its own line is none.
        firstRow = m_state.endSequence;
        if (!firstRow)
            previous = {m_state.address, m_state.file, m_state.line, m_state.column, m_state.discriminator};
    }
}

void DWARFLineProgram::addRange(const Row& row, unsigned long long size) {
    if (!m_helper.isCodeOrDataAddress(row.address))
        return;
    const unsigned long long address = row.address + m_unit.getLoadBias();
    // For the filter a row without size is a point, not nothing.
    const unsigned long long length = std::max(size, 1ULL);
    if (m_ranges && !m_ranges->overlaps(address, length > ~0ULL - address ? ~0ULL : address + length))
        return;
    if (row.file > 0xffffffffULL)
        return;
    const unsigned fileId = m_unit.getFileId(static_cast<unsigned>(row.file));
    if (static_cast<std::int32_t>(fileId) < 0)
        return;
    m_resolver.addLineRange(m_unit.header().offset, fileId, static_cast<unsigned>(row.line),
                            static_cast<unsigned>(row.column), address, size, row.discriminator);
}

bool DWARFLineProgram::step() {
    DWARFLineState& state = m_state;
    if (state.walker.remaining() == 0)
        return false;
    if (state.rowPending) {
        state.basicBlock = false;
        state.discriminator = 0;
        state.rowPending = false;
    }
    if (state.resetPending)
        state.restart();
    ViewReader reader(state.walker);
    do {
        const std::uint8_t opcode = reader.readU8();
        if (opcode >= state.opcodeBase) {
            const Special& special = m_specials[opcode];
            state.address += static_cast<unsigned>(special.instructions) * state.minimumInstructionLength;
            state.line += static_cast<unsigned long long>(static_cast<long long>(special.line));
            state.rowPending = true;
            reader.finish();
            return true;
        }
        switch (opcode) {
        case 0: {
            const unsigned long long length = reader.readULEB();
            SectionWalker operands = reader.walkerHere();
            // On by the length whatever the operands say.
            reader.skip(length);
            runExtended(operands);
            if (state.endSequence) {
                state.resetPending = true;
                reader.finish();
                return true;
            }
            break;
        }
        case DW_LNS_copy:
            state.rowPending = true;
            reader.finish();
            return true;
        case DW_LNS_advance_pc:
            state.address += reader.readULEB() * state.minimumInstructionLength;
            break;
        case DW_LNS_advance_line:
            state.line += reader.readSLEB();
            break;
        case DW_LNS_set_file:
            state.file = reader.readULEB();
            break;
        case DW_LNS_set_column:
            state.column = reader.readULEB();
            break;
        case DW_LNS_negate_stmt:
            state.isStmt = !state.isStmt;
            break;
        case DW_LNS_set_basic_block:
            state.basicBlock = true;
            break;
        case DW_LNS_const_add_pc:
            // Quirk: not multiplied by the minimum instruction length.
            state.address += m_specials[greatestOpcode].instructions;
            break;
        case DW_LNS_fixed_advance_pc:
            // Quirk: the operand is signed.
            state.address += static_cast<unsigned long long>(
                static_cast<long long>(static_cast<std::int16_t>(reader.readU16())));
            break;
        case DW_LNS_set_prologue_end:
        case DW_LNS_set_epilogue_begin:
            break;
        case DW_LNS_set_isa:
            reader.skipULEB();
            break;
        default:
            // Quirk: the header's operand counts are not used: the next byte is the next opcode.
            ORN_ASSERT(false);
        }
    } while (reader.remaining() > 0);
    reader.finish();
    return false;
}

void DWARFLineProgram::runExtended(const SectionWalker& position) {
    SectionWalker operands = position;
    const unsigned opcode = operands.readU8();
    switch (opcode) {
    case DW_LNE_end_sequence:
        m_state.endSequence = true;
        break;
    case DW_LNE_set_address:
        m_state.address = operands.readAddress();
        break;
    case DW_LNE_define_file:
        addFile(operands, false);
        break;
    case DW_LNE_set_discriminator:
        m_state.discriminator = operands.readULEB();
        break;
    default:
        ORN_LOG_ERROR("Line machine do not support opcode " << opcode);
    }
}

} // namespace ORN_3_30
