// One dex file: every class, the names of its methods and their line programs, joined with a mapping table
// that stands in front of it (one byte for its size).

#include "fuzz_targets.h"
#include "memory_image.h"
#include "orn_buffer.h"
#include "orn_fflelf.h"
#include "orn_oat_dex.h"
#include "orn_oat_lines.h"
#include "orn_oat_resolver.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace orn_fuzz {

using namespace ORN_3_30;

namespace {

constexpr std::uint32_t classesSeen = 64;

SymMgrObjectPtr<IBuffer> bufferOf(const std::uint8_t* data, std::size_t size) {
    SymMgrObjectPtr<IBuffer> buffer(new ByteBuffer(size));
    if (size != 0)
        std::memcpy(buffer->data(), data, size);
    return buffer;
}

void runLines(const DexLoader& dex, std::uint32_t classIndex, std::uint32_t codeOffset,
              const OatMappingTable& mapping, OATSrcLineResolver& resolver, OatBudget& budget) {
    DexCodeItem code;
    if (!dex.readCodeItem(codeOffset, code))
        return;
    MethodLineContext context(resolver, mapping.map());
    context.m_methodSize = 64;
    (void)runLineMachine(dex, code.debug_info_off, classIndex, context, budget);
}

void walkClass(const DexLoader& dex, std::uint32_t classIndex, const OatMappingTable& mapping,
               OATSrcLineResolver& resolver, OatBudget& budget) {
    DexClassDef classDef;
    if (!dex.readClassDef(classIndex, classDef))
        return;
    DexClassData item(dex.walkerAt(classDef.class_data_off), budget);
    if (isFailure(item.skipFields()))
        return;
    for (int seen = 0; seen < 1000 && item.nextMethod() == status_Ok; ++seen) {
        DexMethodId id;
        std::string_view name;
        std::string_view descriptor;
        if (isFailure(dex.readMethodId(item.methodIdx(), id)))
            return;
        (void)dex.readString(id.name_idx, budget, name);
        (void)dex.readTypeDescriptor(id.class_idx, budget, descriptor);
        runLines(dex, classIndex, item.codeOffset(), mapping, resolver, budget);
    }
}

} // namespace

void dex(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return;
    const std::size_t mappingSize = std::min<std::size_t>(data[0], size - 1);
    const SymMgrObjectPtr<IBuffer> tables = bufferOf(data, 1 + mappingSize);
    const SymMgrObjectPtr<IBuffer> file = bufferOf(data + 1 + mappingSize, size - 1 - mappingSize);
    if (file->size() < DexLoader::headerSize)
        return;
    try {
        OatBudget budget(size);
        OatMappingTable mapping(tables, 0, 28);
        mapping.setOffset(1);
        (void)mapping.readMappingTable(budget);
        SymMgrObjectPtr<IModuleImage> image(new MemoryImage(data, 0));
        SymMgrObjectPtr<ElfFileLoader> format(new ElfFileLoader(image));
        SymMgrObjectPtr<OATSrcLineResolver> resolver(new OATSrcLineResolver(format, nullptr, nullptr));
        SymMgrObjectPtr<DexLoader> loader(new DexLoader(file, 0, file->data(), 0, 0));
        for (std::uint32_t index = 0; index < std::min(loader->classCount(), classesSeen); ++index)
            walkClass(*loader, index, mapping, *resolver, budget);
    } catch (const std::bad_alloc&) {
        // Public operations turn it into a status; nothing may be lost on the way.
    }
}

} // namespace orn_fuzz
