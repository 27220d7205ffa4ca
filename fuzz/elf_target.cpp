// A whole ELF module: headers, segments, sections, symbol tables, relocations, the PLT.

#include "fuzz_targets.h"
#include "memory_image.h"
#include "orn_fflelf.h"
#include "orn_scope.h"

#include <new>

namespace orn_fuzz {

using namespace ORN_3_30;

namespace {

void walkSections(IFileFormatLoader& loader) {
    SymMgrObjectPtr<IIterator<ISegment*>> segments;
    loader.getSegments(segments);
    while (segments && segments->current()) {
        SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISection>>> sections;
        segments->current()->getSections(sections, false);
        while (sections && sections->current() && sections->next()) {
        }
        if (!segments->next())
            break;
    }
}

void walkSymbols(GlobalScope& scope) {
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
    (void)scope.symbolRanges(ranges, 0, ~0ULL, symbol_kind_all);
    int seen = 0;
    while (ranges && ranges->current() && seen++ < 1000) {
        SymMgrObjectPtr<ISymbolRange> winner;
        SymMgrObjectPtr<IAddress> begin;
        ranges->current()->beginAddress(begin);
        (void)scope.symbolRangeByAddress(winner, begin->pseudoAddr(), symbol_kind_all, nullptr);
        if (winner)
            (void)winner->size();
        if (!ranges->next())
            break;
    }
}

} // namespace

void elf(const std::uint8_t* data, std::size_t size) {
    try {
        SymMgrObjectPtr<IModuleImage> image(new MemoryImage(data, size));
        SymMgrObjectPtr<IFileFormatLoader> loader(new ElfFileLoader(image));
        walkSections(*loader);
        GlobalScope scope(loader, nullptr, nullptr);
        walkSymbols(scope);
    } catch (const std::bad_alloc&) {
        // Public operations turn it into a status; nothing may be lost on the way.
    }
}

} // namespace orn_fuzz
