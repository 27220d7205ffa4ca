// Contents of sections, read on first use: the plain form over any section, the form of PE files, and the
// view of contents as a section; with the one decompressor of the library. Parsers get a pointer and a size
// and work on plain memory. The form of ELF files, which needs the section headers, stands with the ELF
// reader.

#include "orn_section_data.h"

#include "orn_buffer.h"
#include "orn_ffl_arith.h"
#include "orn_log.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

#include <elf.h>
#include <zlib.h>

namespace ORN_3_30 {

namespace {

constexpr std::string_view zlibBlockMagic = "ZLIB";
constexpr unsigned sizeFieldOffset = 4;
constexpr unsigned sizeFieldBytes = 8;
constexpr unsigned long long zlibBlockHeaderSize = 12; ///< the magic and the size

/// A process on a 64-bit host has 47 bits of addresses: a larger block cannot be.
constexpr unsigned long long largestBlock = 1ULL << 47;

/// Deflate codes at most 258 bytes in two bits.
constexpr unsigned long long largestExpansion = 1032;

unsigned long long headerSize(bool isZlibBlock, bool is64Bit) {
    if (isZlibBlock)
        return zlibBlockHeaderSize;
    return is64Bit ? sizeof(Elf64_Chdr) : sizeof(Elf32_Chdr);
}

bool isKnownAlgorithm(const unsigned char* data) {
    return std::memcmp(data, zlibBlockMagic.data(), zlibBlockMagic.size()) == 0 ||
           data[0] == ELFCOMPRESS_ZLIB;
}

/// Quirk: the big-endian number behind the first four bytes is the size in both forms of header, whatever a
/// compression header of the file's class holds there.
unsigned long long declaredSize(const unsigned char* data) {
    unsigned long long size = 0;
    for (unsigned i = 0; i < sizeFieldBytes; ++i)
        size = size << 8 | data[sizeFieldOffset + i];
    return size;
}

std::unique_ptr<unsigned char[]> allocateBlock(unsigned long long size) {
    try {
        if (size > largestBlock)
            throw std::bad_alloc();
        // Not cleared: a hostile size costs addresses and no memory.
        return std::unique_ptr<unsigned char[]>(new unsigned char[size + 1]);
    } catch (const std::bad_alloc&) {
        ORN_LOG_ERROR("can't allocate memory: " << size);
        throw;
    }
}

/// Room for the declared size, or for all that the stream can expand to if that is less: the rest would never
/// be written. A size that no machine has is refused even so.
std::unique_ptr<unsigned char[]> allocateOutput(unsigned long long declared, unsigned long long streamSize,
                                                unsigned long long& room) {
    room = declared;
    if (declared <= largestBlock && streamSize < declared / largestExpansion)
        room = streamSize * largestExpansion;
    return allocateBlock(room);
}

} // namespace

status_t decompressSection(const unsigned char* data, unsigned long long size, unsigned char*& outData,
                           unsigned long long& outSize, bool isZlibBlock, bool is64Bit) {
    outData = nullptr;
    outSize = 0;
    const unsigned long long header = headerSize(isZlibBlock, is64Bit);
    if (!data || size <= header)
        return status_UnsupportedDebugInfoFormat;
    if (!isKnownAlgorithm(data)) {
        ORN_LOG_ERROR("unknown compression algorithm");
        return status_UnsupportedDebugInfoFormat;
    }
    unsigned long long room = 0;
    std::unique_ptr<unsigned char[]> block = allocateOutput(declaredSize(data), size - header, room);
    uLongf inflated = room;
    if (::uncompress(block.get(), &inflated, data + header, size - header) != Z_OK) {
        ORN_LOG_ERROR("error while uncompressing ZLIB section data");
        return status_UnsupportedDebugInfoFormat;
    }
    if (inflated < room) {
        std::unique_ptr<unsigned char[]> exact = allocateBlock(inflated);
        std::memcpy(exact.get(), block.get(), inflated);
        block = std::move(exact);
    }
    block[inflated] = '\0';
    outData = block.release();
    outSize = inflated;
    return status_Ok;
}

// --- SectionData

SectionData::SectionData(ISection* section, unsigned index, unsigned long long bias)
    : SymMgrObject<ISectionData>(nullptr), m_index(index), m_section(section), m_read(false), m_bias(bias) {}

void SectionData::ensureRead() {
    if (m_read)
        return;
    m_read = true;
    if (!ORN_ASSERT(m_section))
        return;
    if (m_section->read(m_buffer) != status_Ok)
        m_buffer = nullptr;
    ORN_ASSERT(m_buffer);
}

const unsigned char* SectionData::getData() {
    ensureRead();
    return m_buffer ? m_buffer->data() : nullptr;
}

unsigned long long SectionData::getSize() {
    status_t ignored = status_Ok;
    return getSize(ignored);
}

unsigned long long SectionData::getSize(status_t& status) {
    ensureRead();
    status = m_buffer ? status_Ok : status_NoSectionData;
    return m_buffer ? m_buffer->size() : 0;
}

// --- PESectionData

PESectionData::PESectionData(ISection* section, unsigned index, bool compressed)
    : SymMgrObject<ISectionData>(nullptr),
      m_data(nullptr),
      m_size(0),
      m_index(index),
      m_bias(0),
      m_section(section),
      m_compressed(compressed),
      m_status(status_NoSectionData) {}

PESectionData::~PESectionData() {
    if (!m_buffer)
        delete[] m_data;
}

/// Nothing is stored until everything is done, so that an allocation failure on the way leaves the object
/// ready to try again.
void PESectionData::ensureRead() {
    if (m_data || !m_section)
        return;
    SymMgrObjectPtr<IBuffer> buffer;
    const status_t readStatus = m_section->readAt(0, m_section->getSize(), buffer);
    if (readStatus != status_Ok || !buffer) {
        m_status = readStatus == status_OutOfMemory ? status_OutOfMemory : status_NoSectionData;
        return;
    }
    unsigned char* inflated = nullptr;
    unsigned long long inflatedSize = 0;
    status_t status = status_Ok;
    if (m_compressed && buffer->data() && buffer->size() != 0)
        status = decompressSection(buffer->data(), buffer->size(), inflated, inflatedSize, true, true);
    m_status = status;
    if (inflated) {
        m_data = inflated;
        m_size = inflatedSize;
    } else {
        m_data = buffer->data();
        m_size = buffer->size();
        m_buffer = buffer;
    }
}

const unsigned char* PESectionData::getData() {
    ensureRead();
    return m_data;
}

unsigned long long PESectionData::getSize() {
    status_t ignored = status_Ok;
    return getSize(ignored);
}

unsigned long long PESectionData::getSize(status_t& status) {
    ensureRead();
    status = m_status;
    return m_size;
}

// --- SectionDataAdapter

SectionDataAdapter::SectionDataAdapter(ISectionData* sectionData, const char* name,
                                       unsigned long long address, unsigned long long fileOffset,
                                       unsigned long long size, bool noBits)
    : SymMgrObject<ISection>(nullptr),
      m_name(name ? name : ""),
      m_sectionData(sectionData),
      m_address(address),
      m_fileOffset(fileOffset),
      m_size(size),
      m_noBits(noBits) {}

status_t SectionDataAdapter::read(SymMgrObjectPtr<IBuffer>& out) {
    try {
        return copyContents(0, m_sectionData ? m_sectionData->getSize() : 0, out);
    }
    ORN_CATCH_OUT_OF_MEMORY
}

status_t SectionDataAdapter::readAt(unsigned long long delta, unsigned long long size,
                                    SymMgrObjectPtr<IBuffer>& out) {
    try {
        return copyContents(delta, size, out);
    }
    ORN_CATCH_OUT_OF_MEMORY
}

status_t SectionDataAdapter::copyContents(unsigned long long delta, unsigned long long size,
                                          SymMgrObjectPtr<IBuffer>& out) {
    if (m_noBits)
        return status_False;
    const unsigned long long contentsSize = m_sectionData ? m_sectionData->getSize() : 0;
    const unsigned char* contents = m_sectionData ? m_sectionData->getData() : nullptr;
    if (!internal::fitsInside(delta, size, contentsSize) || (size != 0 && !contents)) {
        ORN_LOG_ERROR("Unable to read " << size << " bytes from section: " << m_name);
        return status_False;
    }
    const SymMgrObjectPtr<IBuffer> buffer = new (std::nothrow) ByteBuffer(size);
    if (!buffer || !buffer->data() || buffer->size() != size) {
        ORN_LOG_ERROR("Unable to create ByteBuffer of size: " << size);
        return status_OutOfMemory;
    }
    if (size != 0)
        std::memcpy(buffer->data(), contents + delta, size);
    out = buffer;
    return status_Ok;
}

} // namespace ORN_3_30
