// Contents of sections: the forms that know no file format, and the one decompressor.
#ifndef ORN_SECTION_DATA_IMPL_H
#define ORN_SECTION_DATA_IMPL_H

#include "orn/section_data.h"

#include <string>

namespace ORN_3_30 {

/// Inflates the contents of a compressed section.
///
/// `isZlibBlock`: the block begins with "ZLIB" and a size; otherwise with a compression header of the file's
/// class. On success `outData` is a new array that the caller frees with array delete, with one NUL behind
/// its `outSize` bytes; on failure it is null. An allocation that is refused is logged and thrown on.
status_t decompressSection(const unsigned char* data, unsigned long long size, unsigned char*& outData,
                           unsigned long long& outSize, bool isZlibBlock, bool is64Bit);

/// Contents of any section as they are, read once.
class SectionData : public SymMgrObject<ISectionData> {
public:
    SectionData(ISection* section, unsigned index, unsigned long long bias);

    const unsigned char* getData() override;
    unsigned long long getSize() override;
    unsigned long long getSize(status_t& status) override;
    unsigned getIndex() override { return m_index; }
    unsigned long long getBias() override { return m_bias; }

private:
    void ensureRead();

    unsigned m_index;
    SymMgrObjectPtr<IBuffer> m_buffer;
    SymMgrObjectPtr<ISection> m_section;
    bool m_read; ///< set before the only attempt: a failed read is not repeated
    unsigned long long m_bias;
};

/// Contents of a section of a PE file, which only its name marks as compressed. A failed read is repeated.
class PESectionData : public SymMgrObject<ISectionData> {
public:
    PESectionData(ISection* section, unsigned index, bool compressed);
    ~PESectionData() override;

    const unsigned char* getData() override;
    unsigned long long getSize() override;
    unsigned long long getSize(status_t& status) override;
    unsigned getIndex() override { return m_index; }
    unsigned long long getBias() override { return m_bias; }

private:
    void ensureRead();

    const unsigned char* m_data; ///< inside m_buffer, or without a buffer an array of its own
    unsigned long long m_size;
    unsigned m_index;
    unsigned long long m_bias;
    SymMgrObjectPtr<IBuffer> m_buffer;
    SymMgrObjectPtr<ISection> m_section;
    bool m_compressed;
    status_t m_status; ///< why the contents are missing or still compressed
};

/// Shows the contents of a section as a section.
class SectionDataAdapter : public SymMgrObject<ISection> {
public:
    SectionDataAdapter(ISectionData* sectionData, const char* name, unsigned long long address,
                       unsigned long long fileOffset, unsigned long long size, bool noBits);

    const char* getName() override { return m_name.c_str(); }
    unsigned long long getSize() override { return m_size; }
    unsigned long long getFileOffset() override { return m_fileOffset; }
    unsigned long long getAddress() override { return m_address; }
    /// All of the contents, whatever getSize() says: that is the size in the file, before decompression.
    status_t read(SymMgrObjectPtr<IBuffer>& out) override;
    status_t readAt(unsigned long long delta, unsigned long long size,
                    SymMgrObjectPtr<IBuffer>& out) override;
    bool isNoBits() override { return m_noBits; }

private:
    status_t copyContents(unsigned long long delta, unsigned long long size, SymMgrObjectPtr<IBuffer>& out);

    std::string m_name;
    SymMgrObjectPtr<ISectionData> m_sectionData;
    unsigned long long m_address;
    unsigned long long m_fileOffset;
    unsigned long long m_size;
    bool m_noBits;
};

} // namespace ORN_3_30

#endif
