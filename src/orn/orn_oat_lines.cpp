// Lines of compiled managed code. A dex file gives lines for places in its own code, the container maps those
// places to native offsets: the walk over the container runs both for each method, and what comes out goes to
// the line resolver. Local variables, which the line programs tell as well, are stepped over.

#include "orn_oat_lines.h"

#include "orn_log.h"
#include "orn_oat_dex.h"
#include "orn_oat_resolver.h"

#include <string_view>

namespace ORN_3_30 {

// --- The mapping table

namespace {

/// From this version of the container on a dex pc may lie in front of the one told before it.
constexpr long long versionOfSignedDexDeltas = 8;

} // namespace

OatMappingTable::OatMappingTable(IBuffer* buffer, std::uint32_t codeOffset, long long version)
    : m_codeOffset(codeOffset), m_buffer(buffer), m_version(version) {}

status_t OatMappingTable::readMappingTable(OatBudget& budget) {
    if (m_read)
        return status_Ok;
    m_read = true;
    ORN_LOG_INFO("Reading dex to native mapping table ...");
    if (!m_buffer || m_offset == 0)
        return status_False;
    SectionWalker walker(m_buffer->data(), m_buffer->size(), m_offset);
    if (const status_t status = readSizes(walker); isFailure(status))
        return status;
    const std::uint32_t dexToNativeSize = m_totalSize - m_nativeToDexSize;
    ORN_LOG_INFO("Native to dex table size: " << m_nativeToDexSize);
    ORN_LOG_INFO("Dex to native table size: " << dexToNativeSize);
    const status_t status = readEntries(walker, m_nativeToDexSize, budget);
    return isFailure(status) ? status : readEntries(walker, dexToNativeSize, budget);
}

status_t OatMappingTable::readSizes(SectionWalker& walker) {
    if (walker.remaining() == 0)
        return status_BadFileFormat;
    m_totalSize = static_cast<std::uint32_t>(walker.readULEB());
    ORN_LOG_INFO("Mapping table size: " << m_totalSize);
    if (walker.remaining() == 0)
        return status_BadFileFormat;
    m_nativeToDexSize = static_cast<std::uint32_t>(walker.readULEB());
    return ORN_ASSERT(m_nativeToDexSize <= m_totalSize) ? status_Ok : status_BadFileFormat;
}

/// Both tables stand in the same form, native offset first.
status_t OatMappingTable::readEntries(SectionWalker& walker, std::uint32_t count, OatBudget& budget) {
    unsigned long long native = m_codeOffset;
    std::uint32_t dex = 0;
    for (; count > 0; --count) {
        const unsigned long long begin = walker.offset();
        if (walker.remaining() == 0)
            return status_BadFileFormat;
        native += walker.readULEB();
        if (walker.remaining() == 0)
            return status_BadFileFormat;
        dex += static_cast<std::uint32_t>(m_version < versionOfSignedDexDeltas
                                              ? walker.readULEB()
                                              : static_cast<unsigned long long>(walker.readSLEB()));
        if (!budget.spend(OatBudget::mappingEntryCost + walker.offset() - begin))
            return status_BadFileFormat;
        ORN_LOG_INFO("     nativeToDex map: 0x0" << std::hex << native << " - 0x0" << dex);
        m_map.emplace(dex, DexToNativeRange{native, native + 1});
    }
    return status_Ok;
}

// --- Both tables side by side

MethodLineContext::MethodLineContext(OATSrcLineResolver& resolver, const OatMappingTable::Map& map)
    : m_resolver(resolver),
      m_cursor(map.begin()),
      m_end(map.end()),
      m_dexPc(map.empty() ? none : map.begin()->first) {}

namespace {

/// The range under the cursor has `line`.
void enterMappedRange(MethodLineContext& context, std::uint32_t line) {
    const DexToNativeRange& range = context.m_cursor->second;
    ORN_ASSERT_TEXT(range.start >= context.m_executableOffset, "nativeOffset >= m_execOffset");
    const unsigned long long native = range.start - context.m_executableOffset + context.m_executableAddress;
    if (context.m_fileId != MethodLineContext::none)
        context.m_resolver.addLine(context.m_fileId, line, 0, native, range.end - range.start);
    context.m_covered.insert(native);
}

} // namespace

void addLine(MethodLineContext& context, std::uint32_t dexPc, std::uint32_t line) {
    if (context.m_firstLine == MethodLineContext::none)
        context.m_firstLine = line;
    while (context.m_cursor != context.m_end && context.m_dexPc <= dexPc) {
        if (context.m_dexPc == dexPc) {
            enterMappedRange(context, line);
            context.m_currentLine = line;
        } else if (context.m_currentLine != MethodLineContext::none) {
            enterMappedRange(context, context.m_currentLine);
        }
        ++context.m_cursor;
        if (context.m_cursor != context.m_end)
            context.m_dexPc = context.m_cursor->first;
    }
    context.m_currentLine = line;
}

/// Quirk: the first line is entered with the file that was named last, also where that is another one.
void finishMethod(MethodLineContext& context) {
    if (context.m_fileId == MethodLineContext::none || context.m_firstLine == MethodLineContext::none)
        return;
    context.m_covered.insert(context.m_methodAddress + context.m_methodSize);
    unsigned long long at = context.m_methodAddress;
    for (const unsigned long long covered : context.m_covered) {
        if (covered > at)
            context.m_resolver.addLine(context.m_fileId, context.m_firstLine, 0, at, covered - at);
        at = covered + 1;
    }
}

// --- The line machine

namespace {

/// Opcodes of line programs.
enum : std::uint8_t {
    DBG_END_SEQUENCE = 0x00,
    DBG_ADVANCE_PC = 0x01,
    DBG_ADVANCE_LINE = 0x02,
    DBG_START_LOCAL = 0x03,
    DBG_START_LOCAL_EXTENDED = 0x04,
    DBG_END_LOCAL = 0x05,
    DBG_RESTART_LOCAL = 0x06,
    DBG_SET_PROLOGUE_END = 0x07,
    DBG_SET_EPILOGUE_BEGIN = 0x08,
    DBG_SET_FILE = 0x09,
    DBG_FIRST_SPECIAL = 0x0A,
};

constexpr unsigned specialLineRange = 15;
constexpr unsigned specialLineBase = 4; ///< lines that the least special opcode goes back

/// One run over one line program, a `debug_info_item`.
class DexLineMachine {
public:
    DexLineMachine(const DexLoader& dexLoader, MethodLineContext& context, OatBudget& budget)
        : m_dexLoader(dexLoader), m_context(context), m_budget(budget) {}

    status_t run(std::uint32_t debugInfoOffset, std::uint32_t classIndex);

private:
    status_t startInFileOf(std::uint32_t classIndex);
    status_t enterFile(std::uint32_t stringIdx);
    status_t step(std::uint8_t opcode);
    status_t setFile();
    void runSpecial(std::uint8_t opcode);
    status_t skipOperands(unsigned count);
    status_t readUnsigned(unsigned long long& value);
    status_t readSigned(long long& value);
    bool payUpToHere();
    static status_t refuse(std::uint8_t opcode);

    const DexLoader& m_dexLoader;
    MethodLineContext& m_context;
    OatBudget& m_budget;
    SectionWalker m_walker;
    unsigned long long m_paidUpTo = 0;
    std::uint32_t m_address = 0;
    std::uint32_t m_line = 0;
};

/// Quirk: an opcode that is the last byte of the file is not read. Only the end of a program can stand there.
status_t DexLineMachine::run(std::uint32_t debugInfoOffset, std::uint32_t classIndex) {
    m_walker = m_dexLoader.walkerAt(debugInfoOffset);
    m_paidUpTo = debugInfoOffset;
    if (m_walker.remaining() == 0)
        return status_BadFileFormat;
    m_line = static_cast<std::uint32_t>(m_walker.readULEB()); // line_start
    unsigned long long names = m_walker.readULEB();           // parameters_size
    for (; names > 0 && m_walker.remaining() > 0; --names)
        m_walker.readULEB();
    status_t status = startInFileOf(classIndex);
    while (!isFailure(status) && m_walker.remaining() > 1) {
        const std::uint8_t opcode = m_walker.readU8();
        if (opcode == DBG_END_SEQUENCE)
            break;
        status = payUpToHere() ? step(opcode) : status_BadFileFormat;
    }
    if (isFailure(status))
        return status;
    finishMethod(m_context);
    return status_Ok;
}

/// Methods may share their programs, and a number may be drawn out over any number of bytes.
bool DexLineMachine::payUpToHere() {
    const unsigned long long bytes = m_walker.offset() - m_paidUpTo;
    m_paidUpTo = m_walker.offset();
    return m_budget.spend(bytes);
}

/// A class without the name of a source file leaves the method without lines until its program names a file.
status_t DexLineMachine::startInFileOf(std::uint32_t classIndex) {
    DexClassDef classDef;
    if (!m_dexLoader.readClassDef(classIndex, classDef) || !m_dexLoader.hasString(classDef.source_file_idx))
        return status_Ok;
    return enterFile(classDef.source_file_idx);
}

status_t DexLineMachine::enterFile(std::uint32_t stringIdx) {
    std::string_view name;
    if (const status_t status = m_dexLoader.readString(stringIdx, m_budget, name); isFailure(status))
        return status;
    m_context.m_fileId = m_context.m_resolver.findOrAddFile(name);
    return status_Ok;
}

status_t DexLineMachine::step(std::uint8_t opcode) {
    unsigned long long unsignedOperand = 0;
    long long signedOperand = 0;
    status_t status = status_Ok;
    switch (opcode) {
    case DBG_ADVANCE_PC:
        status = readUnsigned(unsignedOperand);
        m_address += static_cast<std::uint32_t>(unsignedOperand);
        return status;
    case DBG_ADVANCE_LINE:
        status = readSigned(signedOperand);
        m_line += static_cast<std::uint32_t>(signedOperand);
        return status;
    case DBG_START_LOCAL:
        return skipOperands(3);
    case DBG_START_LOCAL_EXTENDED:
        return skipOperands(4);
    case DBG_END_LOCAL:
    case DBG_RESTART_LOCAL:
        return skipOperands(1);
    case DBG_SET_PROLOGUE_END:
    case DBG_SET_EPILOGUE_BEGIN:
        return status_Ok;
    case DBG_SET_FILE:
        return setFile();
    default:
        runSpecial(opcode);
        return status_Ok;
    }
}

/// Quirk: the operand counts from 1, and 0, which other readers take for "no file", ends the program.
status_t DexLineMachine::setFile() {
    unsigned long long operand = 0;
    if (const status_t status = readUnsigned(operand); isFailure(status))
        return status;
    if (operand == 0)
        return refuse(DBG_SET_FILE);
    const unsigned long long stringIdx = operand - 1;
    if (stringIdx >= DexLoader::noIndex || !m_dexLoader.hasString(static_cast<std::uint32_t>(stringIdx)))
        return status_Ok;
    return enterFile(static_cast<std::uint32_t>(stringIdx));
}

void DexLineMachine::runSpecial(std::uint8_t opcode) {
    const unsigned adjusted = opcode - DBG_FIRST_SPECIAL;
    m_address += adjusted / specialLineRange;
    m_line += adjusted % specialLineRange - specialLineBase;
    ORN_LOG_INFO("     Line to dex address: " << m_line << " - 0x" << std::hex << m_address);
    addLine(m_context, m_address, m_line);
}

status_t DexLineMachine::skipOperands(unsigned count) {
    for (; count > 0; --count) {
        unsigned long long unused = 0;
        if (const status_t status = readUnsigned(unused); isFailure(status))
            return status;
    }
    return status_Ok;
}

status_t DexLineMachine::readUnsigned(unsigned long long& value) {
    if (m_walker.remaining() == 0)
        return status_BadFileFormat;
    value = m_walker.readULEB();
    return status_Ok;
}

status_t DexLineMachine::readSigned(long long& value) {
    if (m_walker.remaining() == 0)
        return status_BadFileFormat;
    value = m_walker.readSLEB();
    return status_Ok;
}

status_t DexLineMachine::refuse(std::uint8_t opcode) {
    ORN_LOG_WARNING("Dex line machine: unknown opcode " << static_cast<unsigned>(opcode));
    return status_BadFileFormat;
}

} // namespace

status_t runLineMachine(const DexLoader& dexLoader, std::uint32_t debugInfoOffset, std::uint32_t classIndex,
                        MethodLineContext& context, OatBudget& budget) {
    return DexLineMachine(dexLoader, context, budget).run(debugInfoOffset, classIndex);
}

} // namespace ORN_3_30
