// How GPU debug files come into memory: the head of one, to tell which format it is, or all of it. Called by
// the candidates, the format loader and the debug info loader of GPU binaries; what the bytes say is the
// parsers' matter.

#include "orn_dilkor_parser.h"

#include "orn_buffer.h"
#include "orn_file.h"
#include "orn_log.h"

#include <algorithm>
#include <cstring>

#include <sys/stat.h>

namespace ORN_3_30::internal {

namespace {

/// Names of candidates come from anywhere: a pipe or a device would never end.
bool isRegularFile(const char* path) {
    struct stat info;
    return path && ::stat(path, &info) == 0 && S_ISREG(info.st_mode);
}

/// The first `dbgInfoSize` bytes of the file, which has them.
status_t readInto(SymMgrObjectPtr<IBuffer>& out, File& file, unsigned long long dbgInfoSize) {
    const SymMgrObjectPtr<IBuffer> dbgInfo = new ByteBuffer(dbgInfoSize);
    if (!dbgInfo->data())
        return status_OutOfMemory;
    if (file.read(dbgInfoSize, dbgInfo->data()) != static_cast<std::int64_t>(dbgInfoSize))
        return status_CantReadFile;
    out = dbgInfo;
    return status_Ok;
}

} // namespace

std::uint32_t korWordAt(const unsigned char* bytes, unsigned long long size, unsigned long long offset) {
    unsigned char word[sizeof(std::uint32_t)] = {};
    if (offset < size)
        std::memcpy(word, bytes + offset, std::min<unsigned long long>(sizeof(word), size - offset));
    return word[0] | static_cast<std::uint32_t>(word[1]) << 8 | static_cast<std::uint32_t>(word[2]) << 16 |
           static_cast<std::uint32_t>(word[3]) << 24;
}

void readDebugInfoHeader(SymMgrObjectPtr<IBuffer>& out, const char* path, std::size_t size) {
    out = nullptr;
    if (!isRegularFile(path))
        return;
    File file(path);
    if (file.status() == fosOK && file.size() >= size)
        ORN_ASSERT_TEXT(readInto(out, file, size) != status_OutOfMemory, "dbgInfo->size() == dbgInfoSize");
}

status_t readDebugInfoFile(SymMgrObjectPtr<IBuffer>& out, const char* path) {
    out = nullptr;
    if (!isRegularFile(path))
        return status_CantOpenFile;
    File file(path);
    if (file.status() != fosOK)
        return status_CantOpenFile;
    const std::uint64_t size = file.size();
    if (file.status() != fosOK)
        return status_CantReadFile;
    return readInto(out, file, size);
}

} // namespace ORN_3_30::internal
