// ElfSectionData: contents of a section that are read when a parser first asks, or that were copied out of a
// separate debug file. How a section is read is ElfHelper's; here is only when, and what is remembered.

#include "orn_elf_section_data.h"

#include "orn_elf.h"
#include "orn_log.h"

#include <utility>

namespace ORN_3_30 {

ElfSectionData::ElfSectionData(ElfHelper* helper, unsigned index)
    : SymMgrObject<ISectionData>(nullptr),
      m_size(0),
      m_index(index),
      m_helper(helper),
      m_bias(0),
      m_status(status_Ok) {}

ElfSectionData::ElfSectionData(std::unique_ptr<unsigned char[]> data, unsigned long long size,
                               unsigned long long bias)
    : SymMgrObject<ISectionData>(nullptr),
      m_data(std::move(data)),
      m_size(size),
      m_index(ElfHelper::noSection),
      m_helper(nullptr),
      m_bias(bias),
      m_status(status_Ok) {}

ElfSectionData::~ElfSectionData() = default;

const unsigned char* ElfSectionData::getData() {
    static_cast<void>(fill());
    return m_data.get();
}

unsigned long long ElfSectionData::getSize() {
    status_t status = status_Ok;
    return getSize(status);
}

unsigned long long ElfSectionData::getSize(status_t& status) {
    status = fill();
    return m_size;
}

// Only a block is kept: without one the next question reads again, since the file may be whole by then.
status_t ElfSectionData::fill() {
    ScopedLock guard(m_helper ? m_helper->getFillLock() : nullptr);
    if (m_data)
        return m_status;
    if (!m_helper)
        return status_Fail;
    ElfHelper::SectionBlock block;
    status_t status = m_helper->readSection(m_index, block);
    if (block.data) {
        m_size = block.size;
        m_data = std::move(block.data);
        m_status = status;
    }
    return status;
}

} // namespace ORN_3_30
