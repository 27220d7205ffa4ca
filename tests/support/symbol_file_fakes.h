#ifndef ORN_TEST_SYMBOL_FILE_FAKES_H
#define ORN_TEST_SYMBOL_FILE_FAKES_H

#include "orn/section_data.h"

#include <cstdint>
#include <map>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

namespace ORN_3_30::test {

using Bytes = std::vector<unsigned char>;

/// Section data of given bytes, in a block of exactly their size, so that a sanitizer sees a read behind it.
class FakeSectionData : public SymMgrObject<ISectionData> {
public:
    explicit FakeSectionData(Bytes bytes, status_t status = status_Ok)
        : SymMgrObject<ISectionData>(nullptr), m_bytes(std::move(bytes)), m_status(status) {
        m_bytes.shrink_to_fit();
    }

    const unsigned char* getData() override { return m_bytes.data(); }
    unsigned long long getSize() override { return m_bytes.size(); }
    unsigned long long getSize(status_t& status) override {
        status = m_status;
        return m_bytes.size();
    }
    unsigned getIndex() override { return 0xFFFFFFFFu; }
    unsigned long long getBias() override { return 0; }

private:
    Bytes m_bytes;
    status_t m_status;
};

/// A module that consists of the sections that a test gives it.
class FakeFormatHelper : public SymMgrObject<IFileFormatHelper> {
public:
    FakeFormatHelper() : SymMgrObject<IFileFormatHelper>(nullptr) {}

    FakeFormatHelper& add(section_kind_t kind, Bytes bytes = {}) {
        sections[kind] = new FakeSectionData(std::move(bytes));
        return *this;
    }

    bool isCodeOrDataAddress(unsigned long long) override { return false; }
    unsigned long long getImageBase() override { return 0; }
    void getSectionData(SymMgrObjectPtr<ISectionData>& out, section_kind_t kind) override {
        ++questions;
        if (outOfMemory)
            throw std::bad_alloc();
        const auto found = sections.find(kind);
        out = found != sections.end() ? found->second : SymMgrObjectPtr<ISectionData>();
    }
    void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned) override { out = nullptr; }
    void getRelocationAddends(SymMgrObjectPtr<RelocationAddends>&, unsigned) override {}

    std::map<section_kind_t, SymMgrObjectPtr<ISectionData>> sections;
    int questions = 0;
    bool outOfMemory = false;
};

inline void append(Bytes& bytes, std::uint32_t word) {
    for (int shift = 0; shift < 32; shift += 8)
        bytes.push_back(static_cast<unsigned char>(word >> shift));
}

/// Contents of ".gnu_debuglink".
inline Bytes debugLinkBytes(std::string_view name, std::uint32_t crc) {
    Bytes bytes(name.begin(), name.end());
    bytes.resize((name.size() + 4) / 4 * 4);
    append(bytes, crc);
    return bytes;
}

/// A note as it may stand in ".note.gnu.build-id", with sizes as given and bytes as given.
inline Bytes noteBytes(std::uint32_t nameSize, std::uint32_t descriptionSize, std::uint32_t type,
                       std::string_view name, const Bytes& description) {
    Bytes bytes;
    append(bytes, nameSize);
    append(bytes, descriptionSize);
    append(bytes, type);
    bytes.insert(bytes.end(), name.begin(), name.end());
    bytes.insert(bytes.end(), description.begin(), description.end());
    return bytes;
}

inline Bytes buildIdNote(const Bytes& id) {
    return noteBytes(4, static_cast<std::uint32_t>(id.size()), 3, std::string_view("GNU\0", 4), id);
}

} // namespace ORN_3_30::test

#endif
