// ReadyToRunReader: from the CLR header of a managed module to the header of the native code beside its byte
// code. The loader of PE modules runs it once its own headers are read. One decision is wanted, whether the
// module is of that kind: no version is refused, and neither methods nor tables are read.

#include "orn_r2rreader.h"

#include "orn_file.h"
#include "orn_log.h"

namespace ORN_3_30 {

namespace {

/// Quirk: the end of the section is a sum of 32 bits, which wraps.
bool holds(const IMAGE_SECTION_HEADER& section, std::uint32_t rva) {
    return section.VirtualAddress <= rva && rva < section.VirtualAddress + section.SizeOfRawData;
}

std::uint32_t fileOffsetOf(const IMAGE_SECTION_HEADER& section, std::uint32_t rva) {
    return rva - section.VirtualAddress + section.PointerToRawData;
}

/// The last section that holds the address decides. Without one it is 0, the start of the file, where no
/// signature of native code stands.
std::uint32_t fileOffsetOf(std::span<const IMAGE_SECTION_HEADER> sections, std::uint32_t rva) {
    std::uint32_t offset = 0;
    for (const IMAGE_SECTION_HEADER& section : sections)
        if (holds(section, rva))
            offset = fileOffsetOf(section, rva);
    return offset;
}

/// A field that is read and not used. Only a file that gives nothing at all is an error.
template <typename Field>
bool readUnusedField(File& file) {
    Field field;
    return ORN_ASSERT_TEXT(file.read(sizeof(field), &field) > 0, "false");
}

} // namespace

ReadyToRunReader::ReadyToRunReader(File* file, const PEHeaderBlock& headers)
    : m_arch(headers.arch), m_file(file) {
    std::uint32_t nativeHeaderRva = 0;
    if (readNativeHeaderRva(headers, nativeHeaderRva) && nativeHeaderRva != 0)
        m_isReadyToRun = readSignature(fileOffsetOf(headers.sectionHeaders, nativeHeaderRva));
    m_file = nullptr;
}

/// Quirk: the walk does not stop at the first section that holds the CLR header, so the header is read again
/// in each of them and the last one counts. A read that fails ends it.
bool ReadyToRunReader::readNativeHeaderRva(const PEHeaderBlock& headers, std::uint32_t& rva) {
    if (headers.comDescriptorRva == 0)
        return false;
    bool found = false;
    for (const IMAGE_SECTION_HEADER& section : headers.sectionHeaders) {
        if (!holds(section, headers.comDescriptorRva))
            continue;
        IMAGE_COR20_HEADER clrHeader;
        m_file->seek(fileOffsetOf(section, headers.comDescriptorRva));
        if (!ORN_ASSERT_TEXT(m_file->read(sizeof(clrHeader), &clrHeader) == sizeof(clrHeader), "false"))
            return false;
        rva = clrHeader.ManagedNativeHeader.VirtualAddress;
        found = true;
    }
    return found;
}

bool ReadyToRunReader::readSignature(std::uint32_t offset) {
    m_file->seek(offset);
    std::uint32_t signature = 0;
    // A module whose native header lies outside the file is nobody's error worth a message.
    if (m_file->read(sizeof(signature), &signature) != sizeof(signature))
        return false;
    return readUnusedField<std::uint16_t>(*m_file) && // MajorVersion
           readUnusedField<std::uint16_t>(*m_file) && // MinorVersion
           readUnusedField<std::uint32_t>(*m_file) && // Flags
           readUnusedField<std::uint32_t>(*m_file) && // NumberOfSections
           signature == READYTORUN_SIGNATURE;
}

} // namespace ORN_3_30
