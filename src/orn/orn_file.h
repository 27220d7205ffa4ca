#ifndef ORN_FILE_IMPL_H
#define ORN_FILE_IMPL_H

#include "orn/file.h"

#include <cstdint>
#include <memory>
#include <string>

namespace ORN_3_30 {

/// The one mapping from `errno` to the layer's own code.
file_op_status_t fileStatusFromErrno(int error) noexcept;

/// A file of this platform. It dies in `close()` and nowhere else.
class LinuxFile final : public IFileModifiable {
public:
    /// Takes over an open descriptor.
    explicit LinuxFile(std::int32_t descriptor) noexcept : m_descriptor(descriptor) {}

    LinuxFile(const LinuxFile&) = delete;
    LinuxFile& operator=(const LinuxFile&) = delete;

    /// Opens `path` with the flags of open(2); the descriptor never leaks into a child process. Null on
    /// failure. A null or empty path is refused without a system call.
    static LinuxFile* open(const char* path, int flags, file_op_status_t& status);

    std::int64_t tell() override;
    std::int64_t seek(std::int64_t offset) override;
    std::int64_t read(std::uint64_t size, void* buffer) override;
    file_op_status_t status() const override { return m_status; }
    std::uint64_t size() override;
    bool close() override;
    bool append(std::uint64_t size, const void* buffer) override;
    bool writeAt(std::int64_t offset, std::uint64_t size, const void* buffer) override;

private:
    ~LinuxFile() = default;

    bool writeThrough(std::uint64_t size, const void* buffer) noexcept;
    std::int64_t fail() noexcept;

    std::int32_t m_descriptor;
    file_op_status_t m_status = fosOK;
};

/// A file open for reading, for as long as the object lives. A failed open is no exception: `status()` tells
/// it, and the operations answer as a file without contents would. Not for two threads at once.
class File {
public:
    explicit File(const char* path);
    virtual ~File();

    File(const File&) = delete;
    File& operator=(const File&) = delete;

    std::int64_t tell() { return m_impl ? m_impl->tell() : -1; }
    std::int64_t seek(std::int64_t offset) { return m_impl ? m_impl->seek(offset) : -1; }
    std::int64_t read(std::uint64_t size, void* buffer) { return m_impl ? m_impl->read(size, buffer) : -1; }
    file_op_status_t status() const { return m_impl ? m_impl->status() : m_status; }
    std::uint64_t size() { return m_impl ? m_impl->size() : 0; }

    /// The path as it was given.
    const std::string& name() const noexcept { return m_name; }

private:
    IFile* m_impl; // null if the open failed
    std::string m_name;
    file_op_status_t m_status; // of the open
};

/// A file open for reading and writing; otherwise as `File`.
class FileModifiable {
public:
    /// Opens `path`, and with `create` makes the file if there is none. The result is never null: as with
    /// `File`, its `status()` tells whether the open worked.
    static std::unique_ptr<FileModifiable> open(const char* path, bool create);
    virtual ~FileModifiable();

    FileModifiable(const FileModifiable&) = delete;
    FileModifiable& operator=(const FileModifiable&) = delete;

    std::int64_t tell() { return m_impl ? m_impl->tell() : -1; }
    std::int64_t seek(std::int64_t offset) { return m_impl ? m_impl->seek(offset) : -1; }
    std::int64_t read(std::uint64_t size, void* buffer) { return m_impl ? m_impl->read(size, buffer) : -1; }
    file_op_status_t status() const { return m_impl ? m_impl->status() : m_status; }
    std::uint64_t size() { return m_impl ? m_impl->size() : 0; }
    bool append(std::uint64_t size, const void* buffer) {
        return m_impl ? m_impl->append(size, buffer) : false;
    }
    bool writeAt(std::int64_t offset, std::uint64_t size, const void* buffer) {
        return m_impl ? m_impl->writeAt(offset, size, buffer) : false;
    }

    /// The path as it was given.
    const std::string& name() const noexcept { return m_name; }

private:
    FileModifiable(const char* path, bool create);

    IFileModifiable* m_impl; // null if the open failed
    std::string m_name;
    file_op_status_t m_status; // of the open
};

// The functions below take the host's paths. A null path is no error of the program: it names no file.

/// Whether `path` can be opened for reading and is no directory.
bool fileExists(const char* path);

/// In bytes; 0 on failure.
std::uint64_t fileSize(const char* path) noexcept;

bool isDirectory(const char* path) noexcept;

/// Whether two paths of either style have the same canonical form. Links are not followed and case counts.
bool samePath(const char* a, const char* b);

/// Returns true on success.
bool removeFile(const char* path);

/// Gives `fosOK`, `fosAlreadyExists`, `fosNotFound` (of the parent) or `fosError`.
file_op_status_t makeDirectory(const char* path);

/// Removes an empty directory or, with `recursive`, the directory with all that is in it. Links are removed
/// and never followed. Returns true if the directory is gone; otherwise part of its contents may be.
bool removeDirectory(const char* path, bool recursive);

/// Copies the contents of a file over `to`, which is created if there is none. Returns true on success;
/// on failure `to` may hold anything. A file is not copied onto itself.
bool copyFile(const char* from, const char* to) noexcept;

/// The directory for temporary files, with a final separator.
void tempDirectory(std::string& out);

/// Returns false, with `out` empty, if the current directory is not known.
bool currentDirectory(std::string& out);

} // namespace ORN_3_30

#endif // ORN_FILE_IMPL_H
