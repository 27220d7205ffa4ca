// A debug file of the newer GPU compiler: the frame, the stream of machine code, the ELF object with DWARF,
// and what a kernel makes of them.

#include "fuzz_targets.h"
#include "kor_queries.h"
#include "memory_file.h"
#include "orn_dilkor_lun_utils.h"

#include <new>

namespace orn_fuzz {

using namespace ORN_3_30;

void lun(const std::uint8_t* data, std::size_t size) {
    try {
        MemoryFile file;
        if (!file.write(data, size))
            return;
        const std::string path = file.path();
        SymMgrObjectPtr<IBuffer> buffer;
        if (internal::readDebugInfoFile(buffer, path.c_str()) != status_Ok)
            return;
        for (const arch_t arch : {arch_gpu_either, arch_gpu_lun_first})
            (void)KorLunDebugInfoParser::validate(buffer, arch, false);
        SymMgrObjectPtr<KorLunDebugInfoParser> parser;
        if (KorLunDebugInfoParser::create(parser, buffer, path.c_str()) != status_Ok)
            return;
        std::vector<std::string> kernels;
        (void)parser->getKernelNames(kernels);
        constexpr std::size_t mostKernels = 3; // each reads a module of its own
        if (kernels.size() > mostKernels)
            kernels.resize(mostKernels);
        for (const std::string& kernel : kernels)
            askKernel(path, kernel, arch_gpu_lun_first, symbol_file_gpu_lun);
    } catch (const std::bad_alloc&) {
        // Public operations turn it into a status; nothing may be lost on the way.
    }
}

} // namespace orn_fuzz
