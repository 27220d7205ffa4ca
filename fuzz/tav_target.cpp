// A debug file of the older GPU compiler: strings, line tables, and what a kernel makes of them.

#include "fuzz_targets.h"
#include "kor_queries.h"
#include "memory_file.h"
#include "orn_dilkor_tav_utils.h"

#include <new>

namespace orn_fuzz {

using namespace ORN_3_30;

void tav(const std::uint8_t* data, std::size_t size) {
    try {
        MemoryFile file;
        if (!file.write(data, size))
            return;
        SymMgrObjectPtr<IBuffer> buffer;
        if (internal::readDebugInfoFile(buffer, file.path()) != status_Ok)
            return;
        for (const arch_t arch : {arch_gpu_tav_first, arch_gpu_either})
            (void)KorTavDebugInfoParser::validate(buffer, arch, false);
        SymMgrObjectPtr<IKorDebugInfoParser> parser;
        if (KorTavDebugInfoParser::create(parser, buffer) != status_Ok)
            return;
        std::vector<std::string> names;
        (void)parser->getSourceFileNames("", names);
        (void)parser->getKernelNames(names);
        constexpr std::size_t mostKernels = 100;
        if (names.size() > mostKernels)
            names.resize(mostKernels);
        for (const std::string& name : names) {
            std::vector<KorTavLineEntry> lines;
            (void)parser->getLines(name, lines, nullptr);
        }
        if (!names.empty())
            askKernel(file.path(), names.front(), arch_gpu_tav_first, symbol_file_gpu_tav);
    } catch (const std::bad_alloc&) {
        // Public operations turn it into a status; nothing may be lost on the way.
    }
}

} // namespace orn_fuzz
