// The byte sources that a module can have.
#ifndef ORN_MODULEIMAGE_H
#define ORN_MODULEIMAGE_H

#include "orn/buffer.h"
#include "orn/module_image.h"
#include "orn_file.h"

#include <string>

namespace ORN_3_30 {

class IFileFormatLoader;

/// A file from some offset on.
class FileImage : public SymMgrObject<IModuleImage> {
public:
    FileImage(const char* path, unsigned long long fileOffset, arch_t arch);

    unsigned long long read(unsigned long long offset, unsigned long long size, void* buffer) override;
    unsigned long long getSize() override;
    const char* getPath() override { return m_file.name().c_str(); }
    unsigned long long getFileOffset() override { return m_fileOffset; }
    arch_t getArch() override { return m_arch; }

private:
    File m_file;
    unsigned long long m_fileOffset;
    arch_t m_arch;
    OrnLock m_positionLock; ///< the file has one position: held across seek and read
};

/// A kernel file that holds a gzip-compressed payload. Nothing is inflated: the image is a view of the part
/// in front of the limit.
class CompressedImage : public SymMgrObject<IModuleImage> {
public:
    CompressedImage(const char* path, unsigned long long gzipOffset, unsigned long long limit);

    /// Opens the file for each read, so that it holds no descriptor and no position.
    unsigned long long read(unsigned long long offset, unsigned long long size, void* buffer) override;
    /// Size of the file, the payload included.
    unsigned long long getSize() override;
    const char* getPath() override { return m_path.c_str(); }
    unsigned long long getFileOffset() override { return 0; }
    arch_t getArch() override { return m_arch; }

    /// Where the gzip stream begins in the file.
    unsigned long long gzipOffset() const { return m_gzipOffset; }
    /// Reads that reach past this offset are refused.
    unsigned long long limit() const { return m_limit; }

private:
    std::string m_path;
    arch_t m_arch;
    unsigned long long m_gzipOffset;
    unsigned long long m_limit;
};

/// Stands for a kernel that is not on disk: a made-up ELF header with one huge loadable segment, so that
/// loading goes on with a kernel symbol map.
class BogusELFImage : public SymMgrObject<IModuleImage> {
public:
    /// An unknown architecture is guessed from the path.
    BogusELFImage(const char* path, arch_t arch);

    unsigned long long read(unsigned long long offset, unsigned long long size, void* buffer) override;
    unsigned long long getSize() override { return m_header->size(); }
    const char* getPath() override { return m_path.c_str(); }
    unsigned long long getFileOffset() override { return 0; }
    arch_t getArch() override { return m_arch; }

private:
    std::string m_path;
    arch_t m_arch;
    SymMgrObjectPtr<IBuffer> m_header;
};

/// The image of the co-processor module that a host module carries in one of its sections; null if there is
/// none.
SymMgrObjectPtr<IModuleImage> createOffloadImage(IFileFormatLoader* ffl);

namespace internal {

/// IModuleImage::create, trace included, but an allocation failure stays an exception: the public operation
/// around it reports it, and it alone.
SymMgrObjectPtr<IModuleImage> createModuleImage(const char* binFileName, arch_t arch, bool offload);

} // namespace internal

} // namespace ORN_3_30

#endif
