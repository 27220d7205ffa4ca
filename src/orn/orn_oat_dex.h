// The dex files inside a container of compiled managed code: strings, types, methods, classes.
#ifndef ORN_OAT_DEX_H
#define ORN_OAT_DEX_H

#include "orn/buffer.h"
#include "orn/status.h"
#include "orn_oat_budget.h"
#include "orn_walker.h"

#include <cstdint>
#include <string_view>

namespace ORN_3_30 {

/// What is used of a `class_def_item`.
struct DexClassDef {
    std::uint32_t class_idx = 0;
    std::uint32_t source_file_idx = 0;
    std::uint32_t class_data_off = 0; ///< 0: the class has no members
};

/// A `method_id_item`.
struct DexMethodId {
    std::uint16_t class_idx = 0;
    std::uint16_t proto_idx = 0;
    std::uint32_t name_idx = 0;
};

/// What is used of a `code_item`.
struct DexCodeItem {
    std::uint32_t debug_info_off = 0; ///< 0: the method has no lines
    std::uint32_t insns_size = 0;
};

/// One dex file, from its header to the end of the container: what the header says of its own size is not
/// looked at. Offsets in a dex file count from its header.
class DexLoader : public SymMgrObjectImpl {
public:
    static constexpr std::uint32_t headerSize = 112;
    static constexpr std::uint32_t classDefSize = 32;
    /// In place of an index: there is none.
    static constexpr std::uint32_t noIndex = 0xFFFFFFFF;

    /// Of a header that lies inside `buffer`: how many classes there are, which is what has to be known to
    /// step over the table of class offsets, and whether the header is one.
    static std::uint32_t classCountOf(IBuffer& buffer, std::uint32_t headerOffset);
    static status_t checkHeader(IBuffer& buffer, std::uint32_t headerOffset);

    /// The header and the table at `classOffsets`, one u32 for each class, lie inside `buffer`. `index` is
    /// the place of the dex file in its container.
    DexLoader(IBuffer* buffer, std::uint32_t headerOffset, const unsigned char* classOffsets,
              std::uint32_t executableOffset, std::uint32_t index);

    std::uint32_t classCount() const;
    /// Where the container has what it knows of the class, from the container's start.
    std::uint32_t oatClassOffset(std::uint32_t classIndex) const;
    std::uint32_t executableOffset() const { return m_executableOffset; }
    std::uint32_t index() const { return m_index; }
    IBuffer* buffer() const { return m_buffer; }

    /// False if the item does not lie inside the container.
    bool readClassDef(std::uint32_t classIndex, DexClassDef& out) const;
    /// Each gives `status_BadFileFormat` for an index that is too large or leads outside the container, and
    /// for a text that costs too much. Texts lie in the buffer.
    status_t readMethodId(std::uint32_t methodIdx, DexMethodId& out) const;
    status_t readString(std::uint32_t stringIdx, OatBudget& budget, std::string_view& out) const;
    status_t readTypeDescriptor(std::uint32_t typeIdx, OatBudget& budget, std::string_view& out) const;
    bool hasString(std::uint32_t stringIdx) const;
    /// False if the item or its instructions do not lie inside the container.
    bool readCodeItem(std::uint32_t codeOffset, DexCodeItem& out) const;

    /// A walker over the dex file that stands at `offset`.
    SectionWalker walkerAt(unsigned long long offset) const;

private:
    std::uint32_t headerField(unsigned offset) const;

    const unsigned char* m_header;       ///< inside the buffer
    const unsigned char* m_classOffsets; ///< inside the buffer
    SymMgrObjectPtr<IBuffer> m_buffer;
    SectionWalker m_walker;
    std::uint32_t m_executableOffset;
    std::uint32_t m_index;
};

/// Steps through the members of one class, a `class_data_item`.
class DexClassData {
public:
    /// `walker` stands on the item; the budget is borrowed. Reads the four counts.
    DexClassData(const SectionWalker& walker, OatBudget& budget);

    /// Steps over the fields. `status_BadFileFormat`, here and below: it costs too much.
    status_t skipFields();
    /// Steps to the first or the next method; `status_False` if there is none. Data that ends early repeats
    /// the item in front of the end, as often as the counts say.
    status_t nextMethod();
    std::uint32_t methodIdx() const { return m_methodIdx; }
    std::uint32_t codeOffset() const { return m_item.code_off; }

private:
    struct Sizes {
        unsigned long long static_fields_size;
        unsigned long long instance_fields_size;
        unsigned long long direct_methods_size;
        unsigned long long virtual_methods_size;
    };
    struct MethodItem {
        std::uint32_t method_idx_diff = 0;
        std::uint32_t access_flags = 0;
        std::uint32_t code_off = 0;
    };

    static Sizes readSizes(SectionWalker& walker);
    void readMethodItem();
    bool payUpToHere();

    SectionWalker m_walker;
    OatBudget& m_budget;
    unsigned long long m_paidUpTo;
    Sizes m_sizes;
    unsigned long long m_methodsSeen = 0;
    std::uint32_t m_methodIdx = 0;
    MethodItem m_item;
};

} // namespace ORN_3_30

#endif
