// Everything that is asked of the debug file of a GPU binary, of either compiler.
#ifndef ORN_FUZZ_KOR_QUERIES_H
#define ORN_FUZZ_KOR_QUERIES_H

#include "orn/line_table.h"
#include "orn/source.h"
#include "orn/symbol.h"
#include "orn_dilkor.h"
#include "orn_fflkor.h"

#include <string>

namespace orn_fuzz {

/// A GPU binary whose symbol file is told and not looked for. The file stands in for the binary too.
class KorBinary : public ORN_3_30::KorBinFileLoader {
public:
    using KorBinFileLoader::createDebugInfoLoader;
    using KorBinFileLoader::KorBinFileLoader;
};

/// Asks for the lines, the symbols and what their sources are.
inline void askKernel(const std::string& path, const std::string& kernel, ORN_3_30::arch_t arch,
                      unsigned type) {
    using namespace ORN_3_30;
    constexpr int mostAsked = 1000;
    const SymMgrObjectPtr<KorBinary> binary = new KorBinary(path.c_str(), kernel.c_str(), arch);
    const SymMgrObjectPtr<IDebugInfoLoader> debug = binary->createDebugInfoLoader(path.c_str(), type, 0);
    GlobalScope scope(binary.get(), debug, nullptr);
    if (ISrcLineResolver* resolver = scope.lineResolver()) {
        SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>> lines;
        (void)resolver->sourceLines(lines, 0, ~0U, 0, ~0ULL, nullptr);
        for (int seen = 0; lines && lines->current() && seen < mostAsked; ++seen) {
            (void)lines->current()->location()->file();
            if (!lines->next())
                break;
        }
    }
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
    (void)scope.symbolRanges(ranges, 0, ~0ULL, symbol_kind_all);
    for (int seen = 0; ranges && ranges->current() && seen < mostAsked; ++seen) {
        SymMgrObjectPtr<ISourceLocation> location;
        (void)ranges->current()->symbol()->sourceLocation(location);
        if (!ranges->next())
            break;
    }
}

} // namespace orn_fuzz

#endif
