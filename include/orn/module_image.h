// The byte source under a module.
#ifndef ORN_MODULE_IMAGE_H
#define ORN_MODULE_IMAGE_H

#include "orn/export.h"
#include "orn/object.h"
#include "orn/types.h"

namespace ORN_3_30 {

/// The bytes of one module: a file, a stretch of a file, or a made-up header for a kernel that is not on
/// disk. The count is not guarded: hand an image from one thread to the loader that takes it over.
class IModuleImage : public ISymMgrObject {
public:
    /// Reads `size` bytes at `offset` of the image into `buffer`; gives the count read, 0 where the image
    /// refuses the range or the read fails.
    virtual unsigned long long read(unsigned long long offset, unsigned long long size, void* buffer) = 0;
    /// Size of the image in bytes.
    virtual unsigned long long getSize() = 0;
    /// Path of the file, valid as long as the image lives.
    virtual const char* getPath() = 0;
    /// Where the image begins inside its file; not 0 only for an embedded module.
    virtual unsigned long long getFileOffset() = 0;
    /// The declared architecture, not the one that the file tells.
    virtual arch_t getArch() = 0;

    /// Makes the image of a module file; null where none can be made. With `offload`, or a co-processor
    /// architecture, a module embedded in a host program is looked for.
    ORN_API static SymMgrObjectPtr<IModuleImage> create(const char* binFileName, arch_t arch, bool offload);

protected:
    ~IModuleImage() = default;
};

} // namespace ORN_3_30

#endif
