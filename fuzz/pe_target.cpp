// A whole PE module: headers, sections and their names, the export table, debug directory, CLR header.

#include "fuzz_targets.h"
#include "memory_file.h"
#include "orn/address.h"
#include "orn_fflpe.h"
#include "orn_scope.h"

#include <new>

namespace orn_fuzz {

using namespace ORN_3_30;

namespace {

void walkSections(PEExecFileLoader& loader) {
    SymMgrObjectPtr<IIterator<ISegment*>> segments;
    loader.getSegments(segments);
    while (segments && segments->current()) {
        SymMgrObjectPtr<ISection> section;
        loader.getSectionByName(section, segments->current()->getName());
        if (!segments->next())
            break;
    }
    PEFileFormatHelper helper(&loader);
    for (unsigned kind = section_debug_info; kind <= section_eh_frame; ++kind) {
        SymMgrObjectPtr<ISectionData> data;
        helper.getSectionData(data, static_cast<section_kind_t>(kind));
        if (data && data->getData() && data->getSize() != 0)
            (void)data->getData()[data->getSize() - 1];
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
            (void)winner->sizeToNextSymbol();
        if (!ranges->next())
            break;
    }
}

} // namespace

void pe(const std::uint8_t* data, std::size_t size) {
    MemoryFile file;
    if (!file.write(data, size) || !isPE(file.path()))
        return;
    try {
        SymMgrObjectPtr<PEExecFileLoader> loader(new PEExecFileLoader(file.path()));
        walkSections(*loader);
        SymMgrObjectPtr<IFileFormatLoader> module(loader.get());
        GlobalScope scope(module, nullptr, nullptr);
        walkSymbols(scope);
    } catch (const std::bad_alloc&) {
        // Public operations turn it into a status; nothing may be lost on the way.
    }
}

} // namespace orn_fuzz
