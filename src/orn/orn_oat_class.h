// What a container of compiled managed code knows of a class and of its methods.
#ifndef ORN_OAT_CLASS_H
#define ORN_OAT_CLASS_H

#include "orn_oat_dex.h"
#include "orn_oat_lines.h"

#include <cstdint>

namespace ORN_3_30 {

/// How much of a class is compiled, as its record says.
enum oat_class_type_t : std::uint16_t {
    oatClass_AllCompiled = 0,
    oatClass_SomeCompiled = 1, ///< a bitmap says which methods
    oatClass_NoneCompiled = 2,
};

/// The container's version from which on method records are short, code tells its own mapping table, and
/// trampolines are as many as they stay.
constexpr long long versionOfCodeHeaders = 22;

/// A method of a class. One without code gives no symbol.
class OatMethod : public SymMgrObjectImpl {
public:
    /// Without code.
    OatMethod(IBuffer* buffer, std::uint32_t methodIndex, long long version);
    /// `codeOffset` as stored: a set low bit says Thumb. `mappingOffset` is what the method's record says,
    /// where it says so. Code that does not lie in the buffer with its size in front of it is none.
    OatMethod(IBuffer* buffer, std::uint32_t methodIndex, long long version, std::uint32_t codeOffset,
              std::uint32_t mappingOffset);

    bool hasCode() const { return m_codeOffset != 0; }
    /// From the container's start, as stored.
    std::uint32_t codeOffset() const { return m_codeOffset; }
    std::uint32_t codeSize() const { return m_codeSize; }
    std::uint32_t methodIndex() const { return m_methodIndex; }
    OatMappingTable& mappingTable() { return m_mappingTable; }

    static constexpr std::uint32_t unknownSize = 0xFFFFFFFF;

private:
    std::uint32_t mappingOffsetByCode(const unsigned char* code) const;

    SymMgrObjectPtr<IBuffer> m_buffer;
    std::uint32_t m_codeOffset; ///< 0 without code
    OatMappingTable m_mappingTable;
    std::uint32_t m_methodIndex;
    long long m_version;
    std::uint32_t m_codeSize;
};

/// A class: which of its methods have code, and where the records of these begin.
class OatClass : public SymMgrObjectImpl {
public:
    /// `walker` stands on the record, in the whole container. Null if the container ends before the records
    /// of the methods.
    static SymMgrObjectPtr<OatClass> read(SectionWalker walker, DexLoader* dexLoader,
                                          std::uint32_t classIndex);

    /// The method of that number among all methods of the class. Numbers are best asked for in ascending
    /// order.
    SymMgrObjectPtr<OatMethod> makeMethod(std::uint32_t oatMethodIndex, long long version);
    /// Whether this method or a later one can have a record inside the container.
    bool mayHaveRecordFrom(std::uint32_t oatMethodIndex, long long version);
    std::uint16_t classIndex() const { return m_classIndex; }

private:
    OatClass(const unsigned char* bitmap, std::uint32_t bitmapSize, const unsigned char* methodOffsets,
             DexLoader* dexLoader, std::uint32_t classIndex);

    bool isPastBitmap(std::uint32_t oatMethodIndex) const;
    bool isCompiled(std::uint32_t oatMethodIndex) const;
    std::uint32_t positionOf(std::uint32_t oatMethodIndex);
    void readRecord(std::uint32_t oatMethodIndex, long long version, std::uint32_t& codeOffset,
                    std::uint32_t& mappingOffset);
    bool findRecord(std::uint32_t oatMethodIndex, long long version, SectionWalker& record);

    const unsigned char* m_bitmap; ///< null if every method has a record, or none
    std::uint32_t m_bitmapSize;
    const unsigned char* m_methodOffsets; ///< null if no method has code
    SymMgrObjectPtr<DexLoader> m_dexLoader;
    std::uint16_t m_classIndex;
    std::uint32_t m_executableOffset;
    /// How many bits are set below a bit of the bitmap, for the method asked for last: methods are asked for
    /// one after the other, and counting anew each time would cost the square of their number.
    std::uint32_t m_countedBits = 0;
    std::uint32_t m_setBits = 0;
};

} // namespace ORN_3_30

#endif
