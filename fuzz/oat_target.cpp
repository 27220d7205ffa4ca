// A container of compiled managed code, from "oatdata" on: header, dex files, classes, methods, lines.

#include "fuzz_targets.h"
#include "memory_image.h"
#include "orn_address.h"
#include "orn_buffer.h"
#include "orn_fflelf.h"
#include "orn_oat.h"
#include "orn_scope.h"

#include <cstring>
#include <new>

namespace orn_fuzz {

using namespace ORN_3_30;

namespace {

void walkLines(GlobalScope& scope) {
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
    (void)scope.symbolRanges(ranges, 0, ~0ULL, symbol_kind_all);
    int seen = 0;
    while (ranges && ranges->current() && seen++ < 1000) {
        SymMgrObjectPtr<ISourceLocation> location;
        if (ranges->current()->symbol()->sourceLocation(location) == status_Ok)
            (void)location->file();
        if (!ranges->next())
            break;
    }
}

} // namespace

void oat(const std::uint8_t* data, std::size_t size) {
    constexpr unsigned long long address = 0x10000;
    try {
        SymMgrObjectPtr<IModuleImage> image(new MemoryImage(data, 0));
        SymMgrObjectPtr<ElfFileLoader> format(new ElfFileLoader(image));
        SymMgrObjectPtr<IBuffer> buffer(new ByteBuffer(size));
        if (size != 0)
            std::memcpy(buffer->data(), data, size);
        SymMgrObjectPtr<IDebugInfoLoader> loader(
            new OATDebugInfoLoader(format, "", nullptr, buffer, new Address(format, address, nullptr),
                                   new Address(format, address, nullptr)));
        GlobalScope scope(format, loader, nullptr);
        walkLines(scope);
    } catch (const std::bad_alloc&) {
        // Public operations turn it into a status; nothing may be lost on the way.
    }
}

} // namespace orn_fuzz
