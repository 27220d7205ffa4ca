// Debug sections in memory: what the readers of debug information see of a module, without a module.
#pragma once

#include "orn/section_data.h"
#include "orn_relocations.h"

#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace ORN_3_30::test {

/// A section whose bytes stand in a block of exactly their size, so that a read behind them is found out.
class MemorySection : public SymMgrObject<ISectionData> {
public:
    explicit MemorySection(const std::vector<std::uint8_t>& bytes, unsigned index = 0,
                           unsigned long long bias = 0)
        : SymMgrObject<ISectionData>(nullptr),
          m_bytes(new unsigned char[bytes.size()]),
          m_size(bytes.size()),
          m_index(index),
          m_bias(bias) {
        std::copy(bytes.begin(), bytes.end(), m_bytes.get());
    }

    const unsigned char* getData() override { return m_isMissing ? nullptr : m_bytes.get(); }
    unsigned long long getSize() override { return m_size; }
    unsigned long long getSize(status_t& status) override {
        status = m_status;
        return m_size;
    }
    unsigned getIndex() override { return m_index; }
    unsigned long long getBias() override { return m_bias; }

    void setStatus(status_t status) { m_status = status; }
    void setMissing() { m_isMissing = true; }

private:
    std::unique_ptr<unsigned char[]> m_bytes;
    unsigned long long m_size;
    unsigned m_index;
    unsigned long long m_bias;
    status_t m_status = status_Ok;
    bool m_isMissing = false;
};

/// A module that is nothing but sections. Section indices are the kinds.
class MemoryHelper : public SymMgrObject<IFileFormatHelper> {
public:
    MemoryHelper() : SymMgrObject<IFileFormatHelper>(nullptr) {}

    bool isCodeOrDataAddress(unsigned long long address) override {
        return !isOutside || !isOutside(address);
    }
    unsigned long long getImageBase() override { return 0; }
    void getSectionData(SymMgrObjectPtr<ISectionData>& out, section_kind_t kind) override {
        ++reads[kind];
        out = m_sections.count(kind) ? m_sections[kind].get() : nullptr;
    }
    void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned) override { out = nullptr; }
    void getRelocationAddends(SymMgrObjectPtr<RelocationAddends>& out, unsigned sectionIndex) override {
        out = m_relocations.count(sectionIndex) ? m_relocations[sectionIndex].get() : nullptr;
    }

    MemorySection* set(section_kind_t kind, const std::vector<std::uint8_t>& bytes,
                       unsigned long long bias = 0) {
        auto* section = new MemorySection(bytes, kind, bias);
        m_sections[kind] = section;
        return section;
    }
    void relocate(section_kind_t kind, RelocationAddends* relocations) { m_relocations[kind] = relocations; }

    std::function<bool(unsigned long long)> isOutside;
    std::map<section_kind_t, int> reads;

private:
    std::map<section_kind_t, SymMgrObjectPtr<MemorySection>> m_sections;
    std::map<unsigned, SymMgrObjectPtr<RelocationAddends>> m_relocations;
};

} // namespace ORN_3_30::test
