// Lazily read contents of one section of an ELF file.
#ifndef ORN_ELF_SECTION_DATA_H
#define ORN_ELF_SECTION_DATA_H

#include "orn/section_data.h"

#include <memory>

namespace ORN_3_30 {

class ElfHelper;

/// Contents of one section, read and decompressed at the first question; a failed read is tried again at the
/// next one. The helper is not counted: hold it for as long as contents may still have to be read. Filling is
/// guarded by the helper's lock, reading what was given needs none.
class ElfSectionData : public SymMgrObject<ISectionData> {
public:
    ElfSectionData(ElfHelper* helper, unsigned index);
    /// A detached copy: contents that were read already, and no file behind them.
    ElfSectionData(std::unique_ptr<unsigned char[]> data, unsigned long long size, unsigned long long bias);
    ~ElfSectionData() override;

    const unsigned char* getData() override;
    unsigned long long getSize() override;
    /// A failed decompression is reported here, time and again, while getData() gives the raw bytes.
    unsigned long long getSize(status_t& status) override;
    unsigned getIndex() override { return m_index; }
    unsigned long long getBias() override { return m_bias; }

private:
    status_t fill();

    std::unique_ptr<unsigned char[]> m_data;
    unsigned long long m_size;
    unsigned m_index;
    ElfHelper* m_helper; ///< not counted; null for a detached copy
    unsigned long long m_bias;
    status_t m_status; ///< of the decompression
};

} // namespace ORN_3_30

#endif
