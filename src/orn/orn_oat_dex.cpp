// Reads the dex files inside a container of compiled managed code. The walk over the container asks for names
// and code items, the line machine for names of source files. Only what names a compiled method and finds its
// lines is read: no prototypes, no field ids, no instructions, and neither checksum nor map. A dex file was
// verified by whoever compiled it; here nothing is trusted but that bytes inside the container are bytes.

#include "orn_oat_dex.h"

#include "orn_log.h"

#include <cstring>

namespace ORN_3_30 {

namespace {

/// Offsets of the header's fields.
enum : unsigned {
    magicAt = 0,
    versionAt = 4,
    string_ids_size = 56,
    string_ids_off = 60,
    type_ids_size = 64,
    type_ids_off = 68,
    method_ids_size = 88,
    method_ids_off = 92,
    class_defs_size = 96,
    class_defs_off = 100,
};

constexpr char magic[] = {'d', 'e', 'x'};
constexpr char version[] = {'0', '3', '5'};

constexpr unsigned idSize = 4; ///< of a string or a type
constexpr unsigned methodIdSize = 8;

/// The least that a field or a method of class data can take.
constexpr unsigned fieldItemLeast = 2;
constexpr unsigned methodItemLeast = 3;

std::uint32_t u32At(const unsigned char* place) {
    std::uint32_t value;
    std::memcpy(&value, place, sizeof(value));
    return value;
}

} // namespace

// --- The header

std::uint32_t DexLoader::classCountOf(IBuffer& buffer, std::uint32_t headerOffset) {
    return u32At(buffer.data() + headerOffset + class_defs_size);
}

status_t DexLoader::checkHeader(IBuffer& buffer, std::uint32_t headerOffset) {
    const unsigned char* header = buffer.data() + headerOffset;
    if (std::memcmp(header + magicAt, magic, sizeof(magic)) != 0) {
        ORN_LOG_WARNING("Invalid or unsupported dex header");
        return status_False;
    }
    if (std::memcmp(header + versionAt, version, sizeof(version)) != 0)
        return status_UnsupportedFormatVersion;
    return status_Ok;
}

DexLoader::DexLoader(IBuffer* buffer, std::uint32_t headerOffset, const unsigned char* classOffsets,
                     std::uint32_t executableOffset, std::uint32_t index)
    : m_header(buffer->data() + headerOffset),
      m_classOffsets(classOffsets),
      m_buffer(buffer),
      m_walker(m_header, buffer->size() - headerOffset),
      m_executableOffset(executableOffset),
      m_index(index) {}

std::uint32_t DexLoader::headerField(unsigned offset) const {
    return u32At(m_header + offset);
}

std::uint32_t DexLoader::classCount() const {
    return headerField(class_defs_size);
}

std::uint32_t DexLoader::oatClassOffset(std::uint32_t classIndex) const {
    return u32At(m_classOffsets + static_cast<std::size_t>(classIndex) * sizeof(std::uint32_t));
}

SectionWalker DexLoader::walkerAt(unsigned long long offset) const {
    SectionWalker walker = m_walker;
    walker.seek(offset);
    return walker;
}

// --- Items

bool DexLoader::readClassDef(std::uint32_t classIndex, DexClassDef& out) const {
    SectionWalker walker =
        walkerAt(headerField(class_defs_off) + static_cast<unsigned long long>(classIndex) * classDefSize);
    if (walker.remaining() < classDefSize)
        return false;
    out.class_idx = walker.readU32();
    walker.skip(12); // access_flags, superclass_idx, interfaces_off
    out.source_file_idx = walker.readU32();
    walker.skip(4); // annotations_off
    out.class_data_off = walker.readU32();
    return true;
}

status_t DexLoader::readMethodId(std::uint32_t methodIdx, DexMethodId& out) const {
    if (methodIdx >= headerField(method_ids_size))
        return status_BadFileFormat;
    SectionWalker walker =
        walkerAt(headerField(method_ids_off) + static_cast<unsigned long long>(methodIdx) * methodIdSize);
    if (walker.remaining() < methodIdSize)
        return status_BadFileFormat;
    out.class_idx = walker.readU16();
    out.proto_idx = walker.readU16();
    out.name_idx = walker.readU32();
    return status_Ok;
}

bool DexLoader::hasString(std::uint32_t stringIdx) const {
    return stringIdx < headerField(string_ids_size);
}

/// Quirk: the length in front of a string counts characters, and so many bytes are taken. They are the same
/// for ASCII; other names lose their end.
status_t DexLoader::readString(std::uint32_t stringIdx, OatBudget& budget, std::string_view& out) const {
    if (!hasString(stringIdx))
        return status_BadFileFormat;
    SectionWalker id =
        walkerAt(headerField(string_ids_off) + static_cast<unsigned long long>(stringIdx) * idSize);
    std::uint32_t offset = 0;
    if (isFailure(id.getUnsigned4(offset)))
        return status_BadFileFormat;
    SectionWalker data = walkerAt(offset);
    if (data.remaining() == 0)
        return status_BadFileFormat;
    const unsigned long long length = data.readULEB();
    if (length > data.remaining() || !budget.spend(data.offset() - offset + length))
        return status_BadFileFormat;
    out = {reinterpret_cast<const char*>(data.cursor()), length};
    return status_Ok;
}

status_t DexLoader::readTypeDescriptor(std::uint32_t typeIdx, OatBudget& budget,
                                       std::string_view& out) const {
    if (typeIdx >= headerField(type_ids_size))
        return status_BadFileFormat;
    SectionWalker id =
        walkerAt(headerField(type_ids_off) + static_cast<unsigned long long>(typeIdx) * idSize);
    std::uint32_t stringIdx = 0;
    if (isFailure(id.getUnsigned4(stringIdx)))
        return status_BadFileFormat;
    return readString(stringIdx, budget, out);
}

/// Quirk: the tests ask for a little more than the 16 bytes of the item and its instructions: for 4 bytes
/// behind the item, and for 2 behind the instructions.
bool DexLoader::readCodeItem(std::uint32_t codeOffset, DexCodeItem& out) const {
    constexpr unsigned long long itemNeeds = 20;
    constexpr unsigned long long instructionsNeed = 18;
    if (codeOffset + itemNeeds > m_walker.size())
        return false;
    SectionWalker walker = walkerAt(codeOffset + 8ULL); // registers_size, ins_size, outs_size, tries_size
    out.debug_info_off = walker.readU32();
    out.insns_size = walker.readU32();
    return codeOffset + out.insns_size * 2ULL + instructionsNeed <= m_walker.size();
}

// --- Class data

DexClassData::DexClassData(const SectionWalker& walker, OatBudget& budget)
    : m_walker(walker), m_budget(budget), m_paidUpTo(walker.offset()), m_sizes(readSizes(m_walker)) {}

DexClassData::Sizes DexClassData::readSizes(SectionWalker& walker) {
    Sizes sizes;
    sizes.static_fields_size = walker.readULEB();
    sizes.instance_fields_size = walker.readULEB();
    sizes.direct_methods_size = walker.readULEB();
    sizes.virtual_methods_size = walker.readULEB();
    return sizes;
}

/// Classes may share their data, and a number may be drawn out over any number of bytes.
bool DexClassData::payUpToHere() {
    const unsigned long long bytes = m_walker.offset() - m_paidUpTo;
    m_paidUpTo = m_walker.offset();
    return m_budget.spend(bytes + 1);
}

/// The two kinds of fields stand one behind the other, and nothing of a field is used: they are one run.
status_t DexClassData::skipFields() {
    unsigned long long left =
        internal::saturatingSum(m_sizes.static_fields_size, m_sizes.instance_fields_size);
    for (; left > 0 && m_walker.remaining() >= fieldItemLeast; --left) {
        m_walker.readULEB(); // field_idx_diff
        m_walker.readULEB(); // access_flags
        if (!payUpToHere())
            return status_BadFileFormat;
    }
    return status_Ok;
}

/// Indices are told as differences, and each of the two kinds of methods begins at 0.
status_t DexClassData::nextMethod() {
    if (m_methodsSeen == internal::saturatingSum(m_sizes.direct_methods_size, m_sizes.virtual_methods_size))
        return status_False;
    if (m_methodsSeen == 0 || m_methodsSeen == m_sizes.direct_methods_size)
        m_methodIdx = 0;
    ++m_methodsSeen;
    readMethodItem();
    m_methodIdx += m_item.method_idx_diff;
    return payUpToHere() ? status_Ok : status_BadFileFormat;
}

/// Data that is exhausted leaves the item as it was.
void DexClassData::readMethodItem() {
    if (m_walker.remaining() < methodItemLeast)
        return;
    m_item.method_idx_diff = static_cast<std::uint32_t>(m_walker.readULEB());
    m_item.access_flags = static_cast<std::uint32_t>(m_walker.readULEB());
    m_item.code_off = static_cast<std::uint32_t>(m_walker.readULEB());
}

} // namespace ORN_3_30
