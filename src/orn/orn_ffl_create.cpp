// Recognition of a module file: the order of the tests decides, and each looks at the file itself and not at
// its name, but for the kernel's and those of GPU binaries. The manager and the module images call it.

#include "orn_ffl_create.h"

#include "orn_fflelf.h"
#include "orn_fflkor.h"
#include "orn_fflpe.h"
#include "orn_filename.h"
#include "orn_log.h"

#include <cstring>
#include <string>

#include <elf.h>

namespace ORN_3_30 {

namespace {

/// A kernel has no PE header worth looking at: with a boot stub in front it would pass for a PE program.
bool hasKernelName(const char* path) {
    std::string name;
    baseName(name, path ? path : "");
    return name.starts_with("vmlinu");
}

bool isELF(IModuleImage& image) {
    char magic[SELFMAG] = {};
    return image.read(0, SELFMAG, magic) == SELFMAG && std::memcmp(magic, ELFMAG, SELFMAG) == 0;
}

/// Without a loader in `out` the status says why.
status_t recognise(SymMgrObjectPtr<IFileFormatLoader>& out, const SymMgrObjectPtr<IModuleImage>& image,
                   const char* kernelName) {
    if (!hasKernelName(image->getPath()) && isPE(image->getPath())) {
        // A module that is embedded in a PE container is always ELF, whatever its bytes say: the loader's
        // status tells.
        if (image->getFileOffset() == 0)
            out = new PEExecFileLoader(image->getPath());
        else
            out = new ElfFileLoader(image);
    } else if (isELF(*image)) {
        out = new ElfFileLoader(image);
    } else if (isKorBin(image->getPath())) {
        out = new KorBinFileLoader(image->getPath(), kernelName, image->getArch());
    } else {
        return status_BadFileFormat;
    }
    return out->getStatus();
}

/// IFileFormatLoader::create without trace and catch.
status_t makeLoader(SymMgrObjectPtr<IFileFormatLoader>& out, const SymMgrObjectPtr<IModuleImage>& image,
                    const char* kernelName) {
    out = nullptr;
    if (!image)
        return status_InvalidArg;
    return recognise(out, image, kernelName);
}

} // namespace

namespace internal {

status_t createFileFormatLoader(SymMgrObjectPtr<IFileFormatLoader>& out,
                                const SymMgrObjectPtr<IModuleImage>& image, const char* kernelName) {
    ORN_TRACE("create");
    return makeLoader(out, image, kernelName);
}

} // namespace internal

status_t IFileFormatLoader::create(
    SymMgrObjectPtr<IFileFormatLoader>& out,
    SymMgrObjectPtr<IModuleImage> image, // NOLINT(performance-unnecessary-value-param): the interface
    const char* kernelName) {
    ORN_TRACE("create");
    try {
        return makeLoader(out, image, kernelName);
    }
    ORN_CATCH_OUT_OF_MEMORY
}

} // namespace ORN_3_30
