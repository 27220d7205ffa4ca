// Reads the sections ".gnu_debuglink" and ".note.gnu.build-id".
//
// The symbol file candidates call this on the module and on the files they are offered. The contents come
// from any file, so every length is tested against what is there, and what does not fit is as good as absent:
// nothing is logged. Further notes behind the first one and notes of other kinds are left out on purpose,
// since the section is made for the one note.

#include "orn_debuglink.h"

#include "orn_log.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <elf.h>
#include <span>

namespace ORN_3_30 {

namespace {

using Bytes = std::span<const unsigned char>;

/// The contents, or nothing where they are not to be had. The size is asked for first: only it tells that
/// the contents are still compressed.
Bytes contentsOf(ISectionData& section) {
    status_t status = status_Ok;
    const unsigned long long size = section.getSize(status);
    const unsigned char* data = section.getData();
    if (isFailure(status) || !data)
        return {};
    return {data, static_cast<std::size_t>(size)};
}

/// Four bytes at `offset`, which have to be there. Only little-endian files are read.
std::uint32_t wordAt(Bytes bytes, std::size_t offset) {
    return static_cast<std::uint32_t>(bytes[offset]) | static_cast<std::uint32_t>(bytes[offset + 1]) << 8 |
           static_cast<std::uint32_t>(bytes[offset + 2]) << 16 |
           static_cast<std::uint32_t>(bytes[offset + 3]) << 24;
}

/// Sizes in notes are 32 bits wide; the sum is made wider, so that none wraps to a small one.
std::uint64_t roundedToWords(std::uint32_t size) {
    return (static_cast<std::uint64_t>(size) + 3) & ~std::uint64_t{3};
}

constexpr std::size_t noteHeaderSize = sizeof(Elf32_Nhdr); // the same words in both classes
static_assert(noteHeaderSize == 12);

/// "GNU" with its terminator.
constexpr std::size_t ownerSize = sizeof(ELF_NOTE_GNU);

/// Real build ids have 8 to 64 bytes. No file could be named by one of this size, but a damaged or hostile
/// file may claim one of gigabytes, and every byte of it costs two characters.
constexpr std::uint64_t descriptionLimit = 0x10000;

/// The description of a build id note, up to its rounded size.
Bytes buildIdDescription(Bytes note) {
    if (note.size() < noteHeaderSize)
        return {};
    const std::uint64_t nameSize = roundedToWords(wordAt(note, offsetof(Elf32_Nhdr, n_namesz)));
    const std::uint64_t size = roundedToWords(wordAt(note, offsetof(Elf32_Nhdr, n_descsz)));
    if (nameSize != ownerSize || wordAt(note, offsetof(Elf32_Nhdr, n_type)) != NT_GNU_BUILD_ID)
        return {};
    if (nameSize + size > note.size() - noteHeaderSize || size > descriptionLimit)
        return {};
    if (std::memcmp(note.data() + noteHeaderSize, ELF_NOTE_GNU, ownerSize) != 0)
        return {};
    // Quirk: the rounded size, so padding behind the description counts as a part of the id. Both files of a
    // comparison are read the same way.
    return note.subspan(noteHeaderSize + ownerSize, static_cast<std::size_t>(size));
}

std::string hexadecimal(Bytes bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

} // namespace

std::optional<DebugLink> readDebugLink(ISectionData& section) {
    const Bytes bytes = contentsOf(section);
    // No system opens a file by a longer name, so there is no need to look for the end of one.
    const std::size_t searched = std::min<std::size_t>(bytes.size(), PATH_MAX);
    const void* terminator = searched != 0 ? std::memchr(bytes.data(), '\0', searched) : nullptr;
    if (!terminator)
        return std::nullopt;

    const auto length =
        static_cast<std::size_t>(static_cast<const unsigned char*>(terminator) - bytes.data());
    const std::size_t crcOffset = (length + 4) & ~std::size_t{3}; // behind the terminator, on a whole word
    if (crcOffset + sizeof(std::uint32_t) > bytes.size())
        return std::nullopt;
    return DebugLink{std::string(reinterpret_cast<const char*>(bytes.data()), length),
                     wordAt(bytes, crcOffset)};
}

std::string readBuildId(ISectionData* section) {
    if (!section) {
        ORN_ASSERT(false);
        return {};
    }
    return hexadecimal(buildIdDescription(contentsOf(*section)));
}

std::string debugFileOfBuildId(std::string_view digits) {
    constexpr std::size_t directoryDigits = 2;
    // One digit behind the directory would be a whole id of a byte and a half: no note has that.
    if (digits.size() <= directoryDigits + 1)
        return {};
    std::string path = ".build-id/";
    path += digits.substr(0, directoryDigits);
    path += '/';
    path += digits.substr(directoryDigits);
    path += ".debug";
    return path;
}

} // namespace ORN_3_30
