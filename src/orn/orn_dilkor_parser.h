// What the readers of both formats of GPU debug files have in common.
#ifndef ORN_DILKOR_PARSER_H
#define ORN_DILKOR_PARSER_H

#include "orn/address_mapping.h"
#include "orn/buffer.h"
#include "orn/object.h"
#include "orn/status.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ORN_3_30 {

/// One row of a kernel's line table, in either format: from `address` of the kernel's code on, up to the next
/// row.
struct KorTavLineEntry {
    std::uint32_t address;
    std::uint32_t line;
    std::uint32_t column;
    std::uint32_t fileIndex; ///< in the list of source files
};

/// Reader of one debug file with the kernels of a program. It keeps the file's bytes; all queries may be
/// repeated.
class IKorDebugInfoParser : public ISymMgrObject {
public:
    virtual unsigned getNumberOfKernels() = 0;
    virtual status_t getKernelNames(std::vector<std::string>& out) = 0;
    /// The files that rows of `kernel` count in.
    virtual status_t getSourceFileNames(const std::string& kernel, std::vector<std::string>& out) = 0;
    /// Appends the rows of `kernel`. A format whose debug information speaks of generated code tells
    /// `mapping`, which may be null, where that code went.
    virtual status_t getLines(const std::string& kernel, std::vector<KorTavLineEntry>& out,
                              IAddressMapping* mapping) = 0;

protected:
    ~IKorDebugInfoParser() = default;
};

namespace internal {

/// The bounds that the headers of both formats keep.
constexpr std::uint32_t korLimit = 0x400;
/// The least version of either format.
constexpr std::uint32_t korFirstVersion = 0x3fc;
/// Of the architecture that both compilers serve, the first version of the newer format.
constexpr std::uint32_t korFirstLunVersion = 0x41b;
constexpr std::uint32_t korNoVersion = 0xffffffff;

constexpr bool isKorAlignment(std::uint32_t alignment) {
    return (alignment & (alignment - 1)) == 0 && alignment <= korLimit;
}

/// The little-endian number at `offset` of `size` bytes; what lies at or behind their end reads as 0.
std::uint32_t korWordAt(const unsigned char* bytes, unsigned long long size, unsigned long long offset);

/// Reads the first `size` bytes of the file at `path`. Null if it has fewer, or is no file to read.
void readDebugInfoHeader(SymMgrObjectPtr<IBuffer>& out, const char* path, std::size_t size);

/// Reads the whole file at `path`. The memory may be refused: `status_OutOfMemory`.
status_t readDebugInfoFile(SymMgrObjectPtr<IBuffer>& out, const char* path);

} // namespace internal

/// A little-endian number as it lies in a file, at whatever address.
class FileWord {
public:
    operator std::uint32_t() const { return internal::korWordAt(m_bytes, sizeof(m_bytes), 0); }

private:
    unsigned char m_bytes[4];
};

} // namespace ORN_3_30

#endif
