// Files and directories of the host, as thin as system calls allow.
//
// Module images read all their bytes through `File`; loaders and symbol file candidates ask the free
// functions whether a path is there. The layer adds no cache, no lock and no log: it reports by its own small
// status and leaves every judgement to its callers. That a file changed under a loaded module is not noticed
// here but by the module identity. Another platform's class would be chosen in `File` and `FileModifiable`.

#include "orn_file.h"

#include "orn_filename.h"
#include "orn_log.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ORN_3_30 {

namespace {

// Permissions before the process' mask takes its part.
constexpr mode_t newFileMode = 0666;
constexpr mode_t newDirectoryMode = 0777;

// The kernel cuts one transfer short a little below 2 GiB. A count as large as this may be such a cut; a
// smaller one is the true end of the file, and asking again would cost a call for nothing.
constexpr std::int64_t leastCutTransfer = 0x7F000001;

bool isNullOrEmpty(const char* path) noexcept {
    return !path || !*path;
}

/// The canonical form of a path that is about to be handed to the system, which reads it in the host's style
/// whatever it looks like: "c:x" is a relative path here. Empty for "no path".
std::string canonicalHostPath(const char* path) {
    std::string canonical;
    if (!isNullOrEmpty(path)) // the canonical form of an empty path would be the current directory
        canonicalPath(canonical, path, pathStyle_Host);
    return canonical;
}

class Descriptor {
public:
    explicit Descriptor(int descriptor) noexcept : m_descriptor(descriptor) {}
    ~Descriptor() { close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    bool valid() const noexcept { return m_descriptor >= 0; }
    int get() const noexcept { return m_descriptor; }
    bool close() noexcept { return !valid() || ::close(std::exchange(m_descriptor, -1)) == 0; }
    void release() noexcept { m_descriptor = -1; } // someone else closes it from now on

private:
    int m_descriptor;
};

/// The whole of an open file in memory.
class Mapping {
public:
    Mapping(const Descriptor& file, std::size_t size, int protection) noexcept
        : m_address(::mmap(nullptr, size, protection, MAP_SHARED, file.get(), 0)), m_size(size) {}
    ~Mapping() {
        if (valid())
            ::munmap(m_address, m_size);
    }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    bool valid() const noexcept { return m_address != MAP_FAILED; }
    void* address() const noexcept { return m_address; }

private:
    void* m_address;
    std::size_t m_size;
};

} // namespace

file_op_status_t fileStatusFromErrno(int error) noexcept {
    switch (error) {
    case EACCES:
        return fosAccessDenied;
    case EEXIST:
        return fosAlreadyExists;
    case ENOENT:
        return fosNotFound;
    case ENOMEM:
        return fosOutOfMemory;
    case ENOSPC:
        return fosNoSpace;
    case EBADF:
        return fosBadHandle;
    case EINVAL:
        return fosInvalidArgument;
    default:
        return fosError;
    }
}

// LinuxFile

LinuxFile* LinuxFile::open(const char* path, int flags, file_op_status_t& status) {
    if (isNullOrEmpty(path)) {
        status = fosInvalidArgument;
        return nullptr;
    }
    Descriptor descriptor(::open(path, flags | O_CLOEXEC, newFileMode));
    if (!descriptor.valid()) {
        status = fileStatusFromErrno(errno);
        return nullptr;
    }
    auto* file = new LinuxFile(descriptor.get());
    descriptor.release();
    status = fosOK;
    return file;
}

std::int64_t LinuxFile::tell() {
    m_status = fosOK;
    const off_t position = ::lseek(m_descriptor, 0, SEEK_CUR);
    return position < 0 ? fail() : position;
}

std::int64_t LinuxFile::seek(std::int64_t offset) {
    m_status = fosOK;
    // Quirk: the answer is where the file stood and not where it stands now.
    const off_t before = ::lseek(m_descriptor, 0, SEEK_CUR);
    if (before < 0 || ::lseek(m_descriptor, offset, SEEK_SET) < 0)
        return fail();
    return before;
}

std::int64_t LinuxFile::read(std::uint64_t size, void* buffer) {
    m_status = size != 0 ? fosInvalidArgument : fosOK; // until the transfer has an answer of its own
    std::uint64_t total = 0;
    std::int64_t count = 0;
    do {
        count = ::read(m_descriptor, static_cast<char*>(buffer) + total, size - total);
        if (count < 0)
            return fail();
        total += static_cast<std::uint64_t>(count);
    } while (total < size && count >= leastCutTransfer);

    m_status = total == size ? fosOK : fosShortTransfer;
    return static_cast<std::int64_t>(total);
}

std::uint64_t LinuxFile::size() {
    m_status = fosOK;
    struct stat info;
    if (::fstat(m_descriptor, &info) != 0) {
        m_status = fileStatusFromErrno(errno);
        return 0;
    }
    return static_cast<std::uint64_t>(info.st_size);
}

bool LinuxFile::close() {
    const bool failed = ::close(m_descriptor) != 0;
    delete this;
    return failed;
}

bool LinuxFile::append(std::uint64_t size, const void* buffer) {
    m_status = fosOK;
    if (::lseek(m_descriptor, 0, SEEK_END) < 0) {
        fail();
        return false;
    }
    return writeThrough(size, buffer);
}

bool LinuxFile::writeAt(std::int64_t offset, std::uint64_t size, const void* buffer) {
    return seek(offset) >= 0 && writeThrough(size, buffer);
}

/// Writes at the current position. What was promised as written shall survive the machine, so the data is
/// brought to the disk, and a failure there is one of the write.
bool LinuxFile::writeThrough(std::uint64_t size, const void* buffer) noexcept {
    if (::write(m_descriptor, buffer, size) < 0 || ::fdatasync(m_descriptor) != 0) {
        fail();
        return false;
    }
    return true;
}

/// Keeps what the failed system call said, and gives the answer of a failed operation.
std::int64_t LinuxFile::fail() noexcept {
    m_status = fileStatusFromErrno(errno);
    return -1;
}

// File

File::File(const char* path) : m_impl(nullptr), m_name(path ? path : ""), m_status(fosOK) {
    // O_NONBLOCK matters to a pipe under a module's name alone: opening one would wait for a writer.
    m_impl = LinuxFile::open(path, O_RDONLY | O_NONBLOCK, m_status);
}

File::~File() {
    if (m_impl)
        m_impl->close();
}

// FileModifiable

FileModifiable::FileModifiable(const char* path, bool create)
    : m_impl(nullptr), m_name(path ? path : ""), m_status(fosOK) {
    m_impl = LinuxFile::open(path, O_RDWR | (create ? O_CREAT : 0), m_status);
}

FileModifiable::~FileModifiable() {
    if (m_impl)
        m_impl->close();
}

std::unique_ptr<FileModifiable> FileModifiable::open(const char* path, bool create) {
    return std::unique_ptr<FileModifiable>(new FileModifiable(path, create));
}

// Questions about paths

bool fileExists(const char* path) {
    const File file(path);
    // A directory can be opened for reading, but it is no file.
    return file.status() == fosOK && !isDirectory(path);
}

std::uint64_t fileSize(const char* path) noexcept {
    struct stat info;
    if (isNullOrEmpty(path) || ::stat(path, &info) != 0)
        return 0;
    return static_cast<std::uint64_t>(info.st_size);
}

bool isDirectory(const char* path) noexcept {
    struct stat info;
    return !isNullOrEmpty(path) && ::stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

bool samePath(const char* a, const char* b) {
    if (!a || !b)
        return false;
    if (std::strcmp(a, b) == 0) // one text has one canonical form; no need to make it twice
        return true;
    // Quirk: the forms are compared as they are, also where both are empty for "no path".
    std::string canonicalA, canonicalB;
    canonicalPath(canonicalA, a);
    canonicalPath(canonicalB, b);
    return canonicalA == canonicalB;
}

void tempDirectory(std::string& out) {
    // Quirk: fixed, whatever TMPDIR says.
    out = "/tmp/";
}

bool currentDirectory(std::string& out) {
    // Nearly every path fits the first buffer, but there is no true upper bound.
    std::string buffer(PATH_MAX, '\0');
    while (!::getcwd(buffer.data(), buffer.size())) {
        if (errno != ERANGE) {
            out.clear();
            return false;
        }
        buffer.resize(buffer.size() * 2);
    }
    out.assign(buffer, 0, std::strlen(buffer.data()));
    return true;
}

// Changes to the file system

bool removeFile(const char* path) {
    const std::string canonical = canonicalHostPath(path);
    return !canonical.empty() && ::unlink(canonical.c_str()) == 0;
}

file_op_status_t makeDirectory(const char* path) {
    const std::string canonical = canonicalHostPath(path);
    if (canonical.empty())
        return fosError;
    if (::mkdir(canonical.c_str(), newDirectoryMode) == 0)
        return fosOK;
    // Quirk: two failures have a name here, and every other is just an error, an EACCES too.
    const file_op_status_t status = fileStatusFromErrno(errno);
    return status == fosAlreadyExists || status == fosNotFound ? status : fosError;
}

namespace {

/// The names in a directory, without itself and its parent.
std::vector<std::string> directoryEntries(const std::string& path) {
    std::vector<std::string> names;
    // A link in the place of a directory must not lead out of the tree. opendir would follow it, so the
    // directory is opened by hand.
    Descriptor descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!descriptor.valid())
        return names;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::fdopendir(descriptor.get()), ::closedir);
    if (!directory)
        return names;
    descriptor.release();
    while (const dirent* entry = ::readdir(directory.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..")
            names.emplace_back(name);
    }
    return names;
}

/// Removes all that can be removed. Whether something was left is not counted here: the directory itself
/// cannot go before it is empty.
bool removeTree(const std::string& path) {
    // The names are collected first. So no directory stays open on the way down, where a deep tree would use
    // up the descriptors of the process, and none changes while it is read.
    for (const std::string& name : directoryEntries(path)) {
        std::string entry = path;
        entry.append(1, '/').append(name);
        struct stat info;
        if (::lstat(entry.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
            removeTree(entry);
        else
            ::unlink(entry.c_str());
    }
    return ::rmdir(path.c_str()) == 0;
}

bool isSameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool copyContents(const Descriptor& source, const Descriptor& target, std::size_t size) noexcept {
    const Mapping from(source, size, PROT_READ);
    const Mapping to(target, size, PROT_READ | PROT_WRITE);
    if (!from.valid() || !to.valid())
        return false;
    std::memcpy(to.address(), from.address(), size);
    return true;
}

} // namespace

bool removeDirectory(const char* path, bool recursive) {
    if (isNullOrEmpty(path))
        return false;
    return recursive ? removeTree(path) : ::rmdir(path) == 0;
}

bool copyFile(const char* from, const char* to) noexcept {
    if (isNullOrEmpty(from) || isNullOrEmpty(to))
        return false;
    const Descriptor source(::open(from, O_RDONLY | O_CLOEXEC));
    struct stat sourceInfo;
    if (!source.valid() || ::fstat(source.get(), &sourceInfo) != 0 || !S_ISREG(sourceInfo.st_mode))
        return false;

    // Not O_TRUNC: the target may be the source by another name, and emptying it would lose the contents.
    Descriptor target(::open(to, O_RDWR | O_CREAT | O_CLOEXEC, newFileMode));
    struct stat targetInfo;
    if (!target.valid() || ::fstat(target.get(), &targetInfo) != 0 || isSameFile(sourceInfo, targetInfo))
        return false;
    if (::ftruncate(target.get(), 0) != 0)
        return false;
    if (sourceInfo.st_size == 0) // nothing to map
        return target.close();

    // The space is taken beforehand: on a full disk a store into the mapping would end the process.
    if (::posix_fallocate(target.get(), 0, sourceInfo.st_size) != 0)
        return false;
    return copyContents(source, target, static_cast<std::size_t>(sourceInfo.st_size)) && target.close();
}

} // namespace ORN_3_30
