// A file that lies in memory, for parsers that read from a path.
#ifndef ORN_FUZZ_MEMORY_FILE_H
#define ORN_FUZZ_MEMORY_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace orn_fuzz {

class MemoryFile {
public:
    MemoryFile()
        : m_descriptor(::memfd_create("module", MFD_CLOEXEC)),
          m_path("/proc/self/fd/" + std::to_string(m_descriptor)) {}
    ~MemoryFile() {
        if (m_descriptor >= 0)
            ::close(m_descriptor);
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    /// Replaces the contents. False if the system refuses; then there is no such file.
    bool write(const std::uint8_t* data, std::size_t size) {
        return m_descriptor >= 0 && ::ftruncate(m_descriptor, 0) == 0 &&
               ::pwrite(m_descriptor, data, size, 0) == static_cast<ssize_t>(size);
    }

    const char* path() const { return m_path.c_str(); }

private:
    int m_descriptor;
    std::string m_path;
};

} // namespace orn_fuzz

#endif
