// Collects what "orn info" tells. The bank answers about segments and about sections by name; the list of all
// sections, loaded or not, only the format's loader has, so one is made beside the bank.

#include "module_description.h"

#include "orn/address.h"
#include "orn/file_format_loader.h"

namespace orn_tool {

using ORN_3_30::IAddress;
using ORN_3_30::IFileFormatLoader;
using ORN_3_30::IIterator;
using ORN_3_30::IModuleSymbolBank;
using ORN_3_30::ISection;
using ORN_3_30::ISegment;
using ORN_3_30::isFailure;
using ORN_3_30::status_t;
using ORN_3_30::SymMgrObjectPtr;
using enum ORN_3_30::exec_format_t;
using enum ORN_3_30::symbol_file_type_t;

namespace {

std::string textOf(const char* text) {
    return text ? text : "";
}

bool isCode(ORN_3_30::exec_format_t format, unsigned segmentKind) {
    return segmentKind == (format == exec_format_elf ? 0u : 1u);
}

std::vector<SegmentDescription> describeSegments(IModuleSymbolBank& bank) {
    std::vector<SegmentDescription> all;
    SymMgrObjectPtr<IIterator<ISegment*>> segments;
    if (isFailure(bank.segments(segments)) || !segments)
        return all;
    while (ISegment* segment = segments->current()) {
        all.push_back({textOf(segment->getName()), segment->getKind(),
                       isCode(bank.execFileFormat(), segment->getKind()),
                       bank.preferredLoadAddress() + segment->getRva(), segment->getMemorySize(),
                       segment->getFileOffset(), segment->getFileSize()});
        if (!segments->next())
            break;
    }
    return all;
}

/// Sections taken by index do not tell reliably whether they have bytes in the file; taken by name they do. A
/// name may stand for several sections, though, and the first of them is given.
bool isWithoutBytes(IModuleSymbolBank& bank, ISection& section) {
    SymMgrObjectPtr<ISection> named;
    const status_t status = bank.sectionByName(section.getName(), named);
    const bool isSame = !isFailure(status) && named && named->getFileOffset() == section.getFileOffset() &&
                        named->getSize() == section.getSize();
    return isSame ? named->isNoBits() : section.isNoBits();
}

SectionDescription describeSection(IModuleSymbolBank& bank, ISection& section) {
    SectionDescription description{textOf(section.getName()), section.getAddress(), section.getSize(), {}};
    if (bank.execFileFormat() == exec_format_pe) // its sections tell RVAs
        description.address += bank.preferredLoadAddress();
    if (!isWithoutBytes(bank, section))
        description.fileOffset = section.getFileOffset();
    return description;
}

std::vector<SectionDescription> describeSections(const ModuleSession& session) {
    std::vector<SectionDescription> all;
    SymMgrObjectPtr<IFileFormatLoader> loader;
    if (isFailure(session.openFormat(loader)) || !loader)
        return all;
    for (unsigned index = 0;; ++index) {
        SymMgrObjectPtr<ISection> section;
        loader->getSectionByIndex(section, index);
        if (!section)
            return all;
        all.push_back(describeSection(session.bank(), *section));
    }
}

} // namespace

ModuleDescription describe(const ModuleSession& session) {
    IModuleSymbolBank& bank = session.bank();
    ModuleDescription module{};
    module.path = textOf(bank.execFileName());
    module.format = bank.execFileFormat();
    module.architecture = bank.architecture();
    module.isGpuBinary = module.format == exec_format_gpu;
    module.kernel = session.kernel();
    module.loadAddress = bank.preferredLoadAddress();
    if (SymMgrObjectPtr<IAddress> entry = bank.entryPoint())
        module.entryPoint = entry->pseudoAddr();
    module.imageSize = bank.imageSize();
    unsigned traits = 0;
    if (!isFailure(bank.moduleTraits(traits))) {
        constexpr unsigned managed = 1;
        constexpr unsigned readyToRun = 2;
        module.isManaged = (traits & managed) != 0;
        module.isReadyToRun = (traits & readyToRun) != 0;
    }
    module.segments = describeSegments(bank);
    module.sections = describeSections(session);
    if (bank.symFileFormat() != symbol_file_none)
        module.symbolFile = {textOf(bank.symFileName()), bank.symFileFormat()};
    module.candidates = session.candidates();
    return module;
}

} // namespace orn_tool
