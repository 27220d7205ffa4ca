// Reads the records that a container of compiled managed code keeps of classes and of their methods, and the
// words that lie in front of each method's code. The walk over the container asks. The status of a class, the
// sizes of frames, the maps of registers and of collected references are not read.

#include "orn_oat_class.h"

#include "orn_ffl_arith.h"
#include "orn_log.h"

#include <cstring>

namespace ORN_3_30 {

namespace {

constexpr unsigned bitsOfByte = 8;

/// A method's record, `OatMethodOffsets`: the code offset, and what else the version has.
constexpr unsigned longRecordSize = 28;
constexpr unsigned shortRecordSize = 20;
constexpr unsigned record_MappingTable = 16; ///< in the long form

/// In front of a method's code.
constexpr unsigned codeSizeBelow = 4;
constexpr unsigned mappingDistanceBelow = 12;

constexpr std::uint32_t thumbBit = 1;

constexpr unsigned recordSize(long long version) {
    return version < versionOfCodeHeaders ? longRecordSize : shortRecordSize;
}

std::uint32_t u32At(const unsigned char* place) {
    std::uint32_t value;
    std::memcpy(&value, place, sizeof(value));
    return value;
}

/// The offset of the code, if the word below the code is there as well; otherwise 0.
std::uint32_t usableCodeOffset(IBuffer& buffer, std::uint32_t codeOffset) {
    const bool isUsable = codeOffset < buffer.size() && (codeOffset & ~thumbBit) >= codeSizeBelow;
    return isUsable ? codeOffset : 0;
}

} // namespace

// --- OatMethod

OatMethod::OatMethod(IBuffer* buffer, std::uint32_t methodIndex, long long version)
    : OatMethod(buffer, methodIndex, version, 0, 0) {}

/// Quirk: the size is read below the code itself, while symbol and lines start at the offset as stored, so
/// that Thumb code has its symbol one byte late.
OatMethod::OatMethod(IBuffer* buffer, std::uint32_t methodIndex, long long version, std::uint32_t codeOffset,
                     std::uint32_t mappingOffset)
    : m_buffer(buffer),
      m_codeOffset(usableCodeOffset(*buffer, codeOffset)),
      m_mappingTable(buffer, m_codeOffset, version),
      m_methodIndex(methodIndex),
      m_version(version),
      m_codeSize(unknownSize) {
    if (!hasCode())
        return;
    const unsigned char* code = buffer->data() + (m_codeOffset & ~thumbBit);
    m_codeSize = u32At(code - codeSizeBelow);
    m_mappingTable.setOffset(m_version < versionOfCodeHeaders ? mappingOffset : mappingOffsetByCode(code));
}

/// Quirk: a distance of 0 is taken as it is, and leads to the code itself.
std::uint32_t OatMethod::mappingOffsetByCode(const unsigned char* code) const {
    const std::uint32_t offset = m_codeOffset & ~thumbBit;
    const bool isThere = offset >= mappingDistanceBelow;
    const std::uint32_t distance = isThere ? u32At(code - mappingDistanceBelow) : 0;
    if (!ORN_ASSERT_TEXT(isThere && m_codeOffset > distance, "m_codeOffset > *uintCodePtr"))
        return 0;
    return offset - distance;
}

// --- OatClass

SymMgrObjectPtr<OatClass> OatClass::read(SectionWalker walker, DexLoader* dexLoader,
                                         std::uint32_t classIndex) {
    const unsigned char* bitmap = nullptr;
    std::uint32_t bitmapSize = 0;
    walker.skip(2); // status
    const std::uint16_t type = walker.readU16();
    if (type == oatClass_SomeCompiled) {
        if (isFailure(walker.getUnsigned4(bitmapSize)))
            return nullptr;
        bitmap = walker.cursor();
        walker.skip(bitmapSize);
    }
    if (walker.remaining() == 0)
        return nullptr;
    const unsigned char* methodOffsets = type == oatClass_NoneCompiled ? nullptr : walker.cursor();
    return new OatClass(bitmap, bitmapSize, methodOffsets, dexLoader, classIndex);
}

OatClass::OatClass(const unsigned char* bitmap, std::uint32_t bitmapSize, const unsigned char* methodOffsets,
                   DexLoader* dexLoader, std::uint32_t classIndex)
    : m_bitmap(bitmap),
      m_bitmapSize(bitmapSize),
      m_methodOffsets(methodOffsets),
      m_dexLoader(dexLoader),
      m_classIndex(static_cast<std::uint16_t>(classIndex)),
      m_executableOffset(dexLoader->executableOffset()) {}

bool OatClass::isPastBitmap(std::uint32_t oatMethodIndex) const {
    return m_bitmap && oatMethodIndex / bitsOfByte >= m_bitmapSize;
}

bool OatClass::isCompiled(std::uint32_t oatMethodIndex) const {
    if (!m_bitmap)
        return true;
    return !isPastBitmap(oatMethodIndex) &&
           (m_bitmap[oatMethodIndex / bitsOfByte] >> (oatMethodIndex % bitsOfByte) & 1) != 0;
}

/// Place of the method's record among the records of the class.
std::uint32_t OatClass::positionOf(std::uint32_t oatMethodIndex) {
    if (!m_bitmap)
        return oatMethodIndex;
    if (oatMethodIndex < m_countedBits)
        m_countedBits = m_setBits = 0;
    for (; m_countedBits < oatMethodIndex && !isPastBitmap(m_countedBits); ++m_countedBits)
        m_setBits += isCompiled(m_countedBits) ? 1 : 0;
    return m_setBits;
}

/// False if the record does not lie inside the container.
bool OatClass::findRecord(std::uint32_t oatMethodIndex, long long version, SectionWalker& record) {
    if (!m_methodOffsets)
        return false;
    IBuffer& buffer = *m_dexLoader->buffer();
    const unsigned long long offset =
        static_cast<unsigned long long>(m_methodOffsets - buffer.data()) +
        static_cast<unsigned long long>(positionOf(oatMethodIndex)) * recordSize(version);
    record = SectionWalker(buffer.data(), buffer.size(), offset);
    return internal::fitsInside(offset, recordSize(version), buffer.size());
}

bool OatClass::mayHaveRecordFrom(std::uint32_t oatMethodIndex, long long version) {
    SectionWalker record;
    return !isPastBitmap(oatMethodIndex) && findRecord(oatMethodIndex, version, record);
}

SymMgrObjectPtr<OatMethod> OatClass::makeMethod(std::uint32_t oatMethodIndex, long long version) {
    IBuffer* buffer = m_dexLoader->buffer();
    std::uint32_t codeOffset = 0;
    std::uint32_t mappingOffset = 0;
    if (isCompiled(oatMethodIndex))
        readRecord(oatMethodIndex, version, codeOffset, mappingOffset);
    if (codeOffset <= m_executableOffset)
        return new OatMethod(buffer, oatMethodIndex, version);
    return new OatMethod(buffer, oatMethodIndex, version, codeOffset, mappingOffset);
}

/// Leaves the results alone if there is no record.
void OatClass::readRecord(std::uint32_t oatMethodIndex, long long version, std::uint32_t& codeOffset,
                          std::uint32_t& mappingOffset) {
    SectionWalker record;
    if (!findRecord(oatMethodIndex, version, record)) {
        ORN_LOG_WARNING("Wrong index");
        return;
    }
    ORN_LOG_INFO("Creating new dex method with index: " << oatMethodIndex);
    codeOffset = record.readU32();
    record.skip(record_MappingTable - sizeof(codeOffset));
    if (version < versionOfCodeHeaders)
        mappingOffset = record.readU32();
}

} // namespace ORN_3_30
