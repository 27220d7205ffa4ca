// The signature test of PE files, asked while a module file is recognised. The loader of the format is not
// there yet; IFileFormatLoader::create says so.

#include "orn_fflpe.h"

#include "orn_file.h"
#include "orn_log.h"

#include <cstdint>
#include <cstring>

namespace ORN_3_30 {

namespace {

constexpr std::uint16_t dosSignature = 0x5A4D;   ///< IMAGE_DOS_SIGNATURE
constexpr std::uint16_t ntSignature = 0x4550;    ///< IMAGE_NT_SIGNATURE, its two significant bytes
constexpr std::int64_t dosHeaderSize = 64;       ///< IMAGE_DOS_HEADER
constexpr std::int64_t ntHeadersSize = 248;      ///< IMAGE_NT_HEADERS32
constexpr unsigned ntHeadersOffsetPosition = 60; ///< e_lfanew

template <typename T>
T numberAt(const unsigned char* bytes) {
    T value;
    std::memcpy(&value, bytes, sizeof(value));
    return value;
}

} // namespace

bool isPE(const char* path) {
    File file(path);
    unsigned char dosHeader[dosHeaderSize];
    if (!ORN_ASSERT(file.read(dosHeaderSize, dosHeader) == dosHeaderSize))
        return false;
    if (numberAt<std::uint16_t>(dosHeader) != dosSignature)
        return false;
    const std::uint32_t ntHeadersOffset = numberAt<std::uint32_t>(dosHeader + ntHeadersOffsetPosition);
    file.seek(ntHeadersOffset);
    unsigned char ntHeaders[ntHeadersSize];
    if (!ORN_ASSERT(file.read(ntHeadersSize, ntHeaders) == ntHeadersSize))
        return false;
    // Quirk: 16 bits of the four-byte signature are compared, so the two zero bytes behind "PE" may be any.
    return numberAt<std::uint16_t>(ntHeaders) == ntSignature;
}

} // namespace ORN_3_30
