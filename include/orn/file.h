#ifndef ORN_FILE_H
#define ORN_FILE_H

#include <cstdint>

namespace ORN_3_30 {

/// Result of one file operation. The file layer is older than `status_t` and stands on its own, hence a
/// code of its own. The numbers are stored by clients; the holes between them stay.
enum [[nodiscard]] file_op_status_t : std::uint32_t{
    fosOK = 0,
    fosError = 1,            ///< Any failure without a value of its own.
    fosAccessDenied = 2,     ///< EACCES
    fosAlreadyExists = 4,    ///< EEXIST; only making a directory can give it.
    fosNotFound = 7,         ///< ENOENT
    fosOutOfMemory = 8,      ///< ENOMEM
    fosNoSpace = 9,          ///< ENOSPC
    fosBadHandle = 11,       ///< EBADF
    fosShortTransfer = 14,   ///< Another number of bytes was moved than asked for.
    fosInvalidArgument = 16, ///< EINVAL; also a null or empty path.
};

/// An open file. Positions and sizes are in bytes from the start of the file.
///
/// There is no reference count: whoever opened the file ends it with exactly one `close()`. The position
/// is shared state and there is no lock, so one object belongs to one thread at a time.
class IFile {
public:
    /// The current position; -1 on failure.
    virtual std::int64_t tell() = 0;

    /// Moves to the absolute `offset`. Returns the position *before* the move; -1 on failure.
    virtual std::int64_t seek(std::int64_t offset) = 0;

    /// Reads up to `size` bytes at the current position into `buffer`. Returns the number of bytes read,
    /// or -1. Fewer bytes than asked for leave the status `fosShortTransfer`: whether the end of the file
    /// is an error there is for the reader of the format to say.
    virtual std::int64_t read(std::uint64_t size, void* buffer) = 0;

    /// The status of the last operation.
    virtual file_op_status_t status() const = 0;

    /// The size of the file as it is now; 0 on failure.
    virtual std::uint64_t size() = 0;

    /// Closes the file and destroys the object. Returns true if the close FAILED.
    virtual bool close() = 0;

protected:
    // Not virtual: only close() ends a file, and the table of operations holds no destructor.
    ~IFile() = default;
};

/// An open file that can be written. Both operations return true on success; on failure `status()` tells
/// why. Fewer bytes written than asked for are not tried again and count as success.
class IFileModifiable : public IFile {
public:
    /// Writes `size` bytes behind the end of the file and brings them to the disk.
    virtual bool append(std::uint64_t size, const void* buffer) = 0;

    /// Writes `size` bytes at the absolute `offset` and brings them to the disk.
    virtual bool writeAt(std::int64_t offset, std::uint64_t size, const void* buffer) = 0;

protected:
    ~IFileModifiable() = default;
};

} // namespace ORN_3_30

#endif // ORN_FILE_H
