// Facts about ElfFileLoader: an ELF module as segments, sections, candidates and debug info loaders, and the
// helper through which readers of debug information see it.

#include "orn_fflelf.h"

#include "orn_elf_section_data.h"
#include "orn_moduleimage.h"
#include "orn_relocations.h"
#include "support/elf_assembler.h"
#include "support/memory_image.h"
#include "support/orn_fixture.h"
#include "support/temp_dir.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace ORN_3_30 {
namespace {

using orn_test::ElfAssembler;
using orn_test::ElfClass;
using orn_test::MemoryImage;
using orn_test::TempDir;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint64_t codeFlags = SHF_ALLOC | SHF_EXECINSTR;
constexpr uint64_t dataFlags = SHF_ALLOC | SHF_WRITE;

/// Opens what loaders keep to themselves.
class OpenLoader : public ElfFileLoader {
public:
    using ElfFileLoader::collectSymbolFiles;
    using ElfFileLoader::createDebugInfoLoader;
    using ElfFileLoader::ElfFileLoader;
    using ElfFileLoader::getOatData;
    using ElfFileLoader::getOatDataSize;
    using ElfFileLoader::getOatExec;
    using ElfFileLoader::isBogusImage;
};

using LoaderPtr = SymMgrObjectPtr<OpenLoader>;

LoaderPtr loaderOf(const ElfAssembler& elf, unsigned long long moduleOffset = 0) {
    return new OpenLoader(new MemoryImage(elf.build(), "/module", moduleOffset));
}

/// ".text" at 0x1000 and ".data" at 0x3000, each in a segment of its own.
ElfAssembler smallModule(ElfClass elfClass = ElfClass::k64) {
    ElfAssembler elf(elfClass);
    auto text = elf.section(".text", SHT_PROGBITS, codeFlags).address(0x1000).zeros(0x100);
    auto data = elf.section(".data", SHT_PROGBITS, dataFlags).address(0x3000).zeros(0x80);
    elf.load({text});
    elf.load({data});
    return elf;
}

std::vector<std::string> namesOf(IIterator<SymMgrObjectPtr<ISection>>& sections) {
    std::vector<std::string> names;
    for (auto section = sections.current(); section; section = sections.next() ? sections.current() : nullptr)
        names.push_back(section->getName());
    return names;
}

std::vector<std::string> sectionsOf(ISegment& segment, bool codeOnly = false) {
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISection>>> sections;
    segment.getSections(sections, codeOnly);
    return namesOf(*sections);
}

class EnvironmentSwitch {
public:
    EnvironmentSwitch(const char* name, const char* value) : m_name(name) { ::setenv(name, value, 1); }
    ~EnvironmentSwitch() { ::unsetenv(m_name); }
    EnvironmentSwitch(const EnvironmentSwitch&) = delete;
    EnvironmentSwitch& operator=(const EnvironmentSwitch&) = delete;

private:
    const char* m_name;
};

using ElfFileLoaderTest = test::OrnTest;

// --- The module

TEST_F(ElfFileLoaderTest, ModuleTellsItsHeader) {
    ElfAssembler elf = smallModule();
    elf.entry(0x1020);
    LoaderPtr loader = loaderOf(elf);
    EXPECT_EQ(loader->getStatus(), status_Ok);
    EXPECT_STREQ(loader->getPath(), "/module");
    EXPECT_EQ(loader->getExecFormat(), exec_format_elf);
    EXPECT_EQ(static_cast<int>(loader->getExecFormat()), 2);
    EXPECT_EQ(loader->getArch(), arch_x86_64);
    EXPECT_EQ(loader->getImageBase(), 0x1000u);
    EXPECT_EQ(loader->getEntryPoint(), 0x1020u);
    EXPECT_EQ(loader->getImageSize(), 0x100u) << "of the first loadable segment alone";
    EXPECT_STREQ(loader->getKernelName(), "");
    EXPECT_FALSE(loader->isReadyToRun());
}

TEST_F(ElfFileLoaderTest, BrokenModuleIsABadFileAndLivesOnWithoutSegments) {
    ElfAssembler elf = smallModule();
    elf.header().e_shoff = 0x1000000;
    LoaderPtr loader = loaderOf(elf);
    EXPECT_EQ(loader->getStatus(), status_BadFileFormat);
    EXPECT_EQ(loader->getSegmentAt(1), nullptr);
    EXPECT_EQ(loader->findSection(0x1000), nullptr);
    SymMgrObjectPtr<ISection> section;
    loader->getSectionByName(section, ".text");
    EXPECT_FALSE(section);
    std::vector<SymMgrObjectPtr<ISymbolFileToResolve>> candidates;
    EXPECT_EQ(loader->collectSymbolFiles(candidates), status_Ok);
}

TEST_F(ElfFileLoaderTest, WithoutImageNothingIsThere) {
    expectLog("ASSERTION FAILED: 'm_fileImage!=NULL'");
    LoaderPtr loader = new OpenLoader(nullptr);
    EXPECT_EQ(loader->getStatus(), status_BadFileFormat);
    EXPECT_FALSE(loader->isBogusImage());
    std::vector<SymMgrObjectPtr<ISymbolFileToResolve>> candidates;
    EXPECT_EQ(loader->collectSymbolFiles(candidates), status_Ok);
    EXPECT_THAT(candidates, IsEmpty());
}

TEST_F(ElfFileLoaderTest, ReadingIsTraced) {
    setLogLevel(test::traceLevel);
    LoaderPtr loader = loaderOf(smallModule());
    EXPECT_THAT(messages(test::traceLevel),
                testing::IsSupersetOf({"ENTER: readFileInfo", "EXIT:  readFileInfo"}));
}

TEST_F(ElfFileLoaderTest, MadeUpKernelIsRecognised) {
    LoaderPtr bogus = new OpenLoader(new BogusELFImage("/nowhere/vmlinux-x86_64", arch_unknown));
    EXPECT_TRUE(bogus->isBogusImage());
    EXPECT_EQ(bogus->getStatus(), status_Ok);
    EXPECT_EQ(bogus->getImageBase(), 0xFFFFFFFF80000000u);
    ISegment* segment = bogus->getSegmentAt(1);
    ASSERT_NE(segment, nullptr);
    EXPECT_EQ(segment->getMemorySize(), 0x7FFFFFFFu);
    EXPECT_FALSE(loaderOf(smallModule())->isBogusImage());
}

// --- Segments

TEST_F(ElfFileLoaderTest, LoadableHeadersBecomeSegments) {
    for (ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        ElfAssembler elf = smallModule(elfClass);
        elf.segment(PT_NOTE).address(0x5000).memorySize(4);
        LoaderPtr loader = loaderOf(elf);
        ISegment* code = loader->getSegmentAt(1);
        ISegment* data = loader->getSegmentAt(2);
        ASSERT_NE(code, nullptr);
        ASSERT_NE(data, nullptr);
        EXPECT_EQ(loader->getSegmentAt(3), nullptr);
        EXPECT_STREQ(code->getName(), ".text");
        EXPECT_EQ(code->getKind(), 0u);
        EXPECT_EQ(code->getRva(), 0u);
        EXPECT_EQ(code->getMemorySize(), 0x100u);
        EXPECT_EQ(code->getFileSize(), 0x100u);
        EXPECT_EQ(code->getFileOffset(), elf.layout().section(".text").offset);
        EXPECT_STREQ(data->getName(), ".data");
        EXPECT_EQ(data->getKind(), 1u);
        EXPECT_EQ(data->getRva(), 0x2000u);
        EXPECT_EQ(loader->findSegment(0x3000), data);
    }
}

TEST_F(ElfFileLoaderTest, RvaCountsFromTheImageBase) {
    ElfAssembler elf;
    auto text = elf.section(".text", SHT_PROGBITS, codeFlags).address(0x401230).zeros(0x10);
    elf.load({text});
    LoaderPtr loader = loaderOf(elf);
    EXPECT_EQ(loader->getImageBase(), 0x401000u);
    EXPECT_EQ(loader->getSegmentAt(1)->getRva(), 0x230u);
}

TEST_F(ElfFileLoaderTest, ProgramSectionsAreFoundByAddress) {
    ElfAssembler elf = smallModule();
    elf.section(".bss", SHT_NOBITS, dataFlags).address(0x5000).size(0x10);
    elf.section(".note", SHT_NOTE, SHF_ALLOC).address(0x6000).zeros(4);
    elf.section(".comment", SHT_PROGBITS, 0).zeros(4);
    LoaderPtr loader = loaderOf(elf);
    ASSERT_NE(loader->findSection(0x1080), nullptr);
    EXPECT_STREQ(loader->findSection(0x1080)->getName(), ".text");
    EXPECT_EQ(loader->findSection(0x1080)->getFileOffset(), 0x1000u) << "the address stands for the offset";
    EXPECT_STREQ(loader->findSection(0x3000)->getName(), ".data");
    EXPECT_EQ(loader->findSection(0x5008), nullptr) << "no bytes in the file";
    EXPECT_EQ(loader->findSection(0x6002), nullptr) << "another type";
    EXPECT_EQ(loader->findSection(0), nullptr) << "occupies no memory";
}

// --- Modules without program headers

ElfAssembler kernelModule() {
    ElfAssembler elf(ElfClass::k64, std::nullopt, ET_REL);
    elf.section(".note", SHT_NOTE, SHF_ALLOC).address(0x100).zeros(0x10);
    elf.section(".text", SHT_PROGBITS, codeFlags).address(0x400).zeros(0x100);
    elf.section(".init.text", SHT_PROGBITS, codeFlags).address(0x600).zeros(0x20);
    elf.section(".data", SHT_PROGBITS, dataFlags).address(0x800).zeros(0x40);
    elf.section(".comment", SHT_PROGBITS, 0).zeros(4);
    return elf;
}

TEST_F(ElfFileLoaderTest, SectionsOfAKernelModuleBecomeItsSegments) {
    LoaderPtr loader = loaderOf(kernelModule());
    EXPECT_EQ(loader->getStatus(), status_Ok);
    ISegment* note = loader->findSegmentByName(".note");
    ISegment* text = loader->findSegmentByName(".text");
    ISegment* init = loader->findSegmentByName(".init.text");
    ISegment* data = loader->findSegmentByName(".data");
    ASSERT_TRUE(note && text && init && data);
    EXPECT_EQ(loader->findSegmentByName(".comment"), nullptr);
    EXPECT_EQ(text->getRva(), 0u);
    EXPECT_EQ(text->getKind(), 1u);
    EXPECT_EQ(text->getFileSize(), 0x100u);
    EXPECT_EQ(text->getMemorySize(), 0x100u);
    EXPECT_EQ(text->getFileOffset(), kernelModule().layout().section(".text").offset);
    EXPECT_EQ(data->getKind(), 2u);
    EXPECT_EQ(data->getRva(), 0x400u);
    EXPECT_EQ(init->getKind(), 0u);
    EXPECT_EQ(init->getRva(), 0x200u);
    EXPECT_EQ(note->getRva(), 0x100u) << "in front of .text: its plain address";
}

TEST_F(ElfFileLoaderTest, KernelModuleIsBasedOnItsText) {
    LoaderPtr loader = loaderOf(kernelModule());
    EXPECT_EQ(loader->getImageBase(), 0x400u);
    EXPECT_EQ(loader->getImageSize(), 0x100u);
    ElfHelper& helper = *loader->getElfHelper();
    EXPECT_TRUE(helper.isCodeAddress(0x4FF));
    EXPECT_FALSE(helper.isCodeAddress(0x600)) << ".text alone is code";
    EXPECT_TRUE(helper.isCodeOrDataAddress(0x83F));
    EXPECT_FALSE(helper.isCodeOrDataAddress(0x840));
}

TEST_F(ElfFileLoaderTest, DataThatGotNoSegmentIsNoData) {
    ElfAssembler elf(ElfClass::k64, std::nullopt, ET_REL);
    elf.section(".text", SHT_PROGBITS, codeFlags).zeros(0x100);
    elf.section(".data", SHT_PROGBITS, dataFlags).zeros(0x80);
    LoaderPtr loader = loaderOf(elf);
    EXPECT_EQ(loader->findSegmentByName(".data"), nullptr) << "it overlaps .text, which came first";
    EXPECT_TRUE(loader->getElfHelper()->isCodeAddress(0x80));
    EXPECT_FALSE(loader->getElfHelper()->isCodeOrDataAddress(0x180));
}

// --- Sections

TEST_F(ElfFileLoaderTest, SectionByNameTellsTheTypeByIndexTheFlags) {
    ElfAssembler elf = smallModule();
    const unsigned bss = elf.section(".bss", SHT_NOBITS, dataFlags).address(0x5000).size(0x10).index();
    const unsigned flagged = elf.section(".odd", SHT_PROGBITS, 0x8).zeros(4).index();
    LoaderPtr loader = loaderOf(elf);
    SymMgrObjectPtr<ISection> section;
    loader->getSectionByName(section, ".bss");
    EXPECT_TRUE(section->isNoBits());
    loader->getSectionByIndex(section, bss);
    EXPECT_FALSE(section->isNoBits());
    loader->getSectionByName(section, ".odd");
    EXPECT_FALSE(section->isNoBits());
    loader->getSectionByIndex(section, flagged);
    EXPECT_TRUE(section->isNoBits());
}

TEST_F(ElfFileLoaderTest, SectionTellsItsHeader) {
    ElfAssembler elf = smallModule();
    LoaderPtr loader = loaderOf(elf);
    SymMgrObjectPtr<ISection> section;
    loader->getSectionByName(section, ".data");
    ASSERT_TRUE(section);
    EXPECT_STREQ(section->getName(), ".data");
    EXPECT_EQ(section->getAddress(), 0x3000u);
    EXPECT_EQ(section->getSize(), 0x80u);
    EXPECT_EQ(section->getFileOffset(), elf.layout().section(".data").offset);
}

TEST_F(ElfFileLoaderTest, FirstSectionOfAnExactNameIsFound) {
    ElfAssembler elf = smallModule();
    elf.section(".twice").zeros(1);
    elf.section(".twice").zeros(2);
    LoaderPtr loader = loaderOf(elf);
    SymMgrObjectPtr<ISection> section;
    loader->getSectionByName(section, ".twice");
    ASSERT_TRUE(section);
    EXPECT_EQ(section->getSize(), 1u);
    for (const char* name : {".twic", ".twice2", "twice"}) {
        loader->getSectionByName(section, name);
        EXPECT_FALSE(section) << name;
    }
    loader->getSectionByName(section, nullptr);
    EXPECT_FALSE(section);
}

TEST_F(ElfFileLoaderTest, IndexAtOrPastTheSectionCountGivesNoSection) {
    LoaderPtr loader = loaderOf(smallModule());
    const unsigned count = loader->getElfHelper()->getSectionCount();
    SymMgrObjectPtr<ISection> section;
    loader->getSectionByIndex(section, count - 1);
    EXPECT_TRUE(section);
    for (unsigned index : {count, 0xFFFFFFFFu}) {
        loader->getSectionByIndex(section, index);
        EXPECT_FALSE(section);
    }
}

TEST_F(ElfFileLoaderTest, OffsetsOfAnEmbeddedModuleCountFromItsFile) {
    ElfAssembler elf = smallModule();
    LoaderPtr loader = loaderOf(elf, 0x7000);
    const uint64_t inModule = elf.layout().section(".text").offset;
    SymMgrObjectPtr<ISection> section;
    loader->getSectionByName(section, ".text");
    EXPECT_EQ(section->getFileOffset(), inModule + 0x7000);
    loader->getSectionByIndex(section, elf.layout().sectionIndex(".text"));
    EXPECT_EQ(section->getFileOffset(), inModule + 0x7000);
    EXPECT_EQ(loader->getSegmentAt(1)->getFileOffset(), inModule + 0x7000);
    section = ELFSectionIterator(loader, loader->getElfHelper(), 0, ~0ULL, true).current();
    EXPECT_EQ(section->getFileOffset(), inModule + 0x7000);
    SymMgrObjectPtr<IFileFormatHelper> helper = new ElfFileFormatHelper(loader->getElfHelper());
    helper->getSectionByIndex(section, elf.layout().sectionIndex(".text"));
    EXPECT_EQ(section->getFileOffset(), inModule + 0x7000);
    LoaderPtr kernel = loaderOf(kernelModule(), 0x7000);
    EXPECT_EQ(kernel->findSegmentByName(".text")->getFileOffset(),
              kernelModule().layout().section(".text").offset + 0x7000);
}

TEST_F(ElfFileLoaderTest, SectionReadsItsBytesOutOfTheFile) {
    TempDir directory;
    ElfAssembler elf = smallModule();
    elf.section(".comment").append({'t', 'e', 'x', 't'});
    const std::string path = directory.path("module");
    elf.write(path);
    LoaderPtr loader = new OpenLoader(new FileImage(path.c_str(), 0, arch_unknown));
    SymMgrObjectPtr<ISection> section;
    loader->getSectionByName(section, ".comment");
    SymMgrObjectPtr<IBuffer> buffer;
    ASSERT_EQ(section->read(buffer), status_Ok);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer->data()), buffer->size()), "text");
}

// --- Sections of a segment

TEST_F(ElfFileLoaderTest, SegmentListsTheSectionsInsideIt) {
    ElfAssembler elf;
    elf.section(".text", SHT_PROGBITS, codeFlags).address(0x1000).offset(0x200).zeros(0x100);
    elf.section(".rodata", SHT_PROGBITS, SHF_ALLOC).address(0x1100).offset(0x300).zeros(0x100);
    elf.section(".empty", SHT_PROGBITS, SHF_ALLOC).address(0x1200).offset(0x400);
    elf.section(".tail", SHT_PROGBITS, codeFlags).address(0x1200).offset(0x400).zeros(0x10);
    elf.segment(PT_LOAD, PF_R | PF_X).address(0xE00).offset(0).fileSize(0x400).memorySize(0x610);
    LoaderPtr loader = loaderOf(elf);
    ISegment* segment = loader->getSegmentAt(1);
    ASSERT_NE(segment, nullptr);
    EXPECT_THAT(sectionsOf(*segment), ElementsAre(".text", ".rodata"));
    EXPECT_THAT(sectionsOf(*segment, true), ElementsAre(".text"));
}

TEST_F(ElfFileLoaderTest, SegmentThatDoesNotBeginTheFileEndsAtItsSize) {
    ElfAssembler elf;
    elf.section(".text", SHT_PROGBITS, codeFlags).address(0x1000).offset(0x200).zeros(0x100);
    elf.section(".more", SHT_PROGBITS, codeFlags).address(0x1100).offset(0x300).zeros(0x100);
    auto load = elf.segment(PT_LOAD, PF_R | PF_X).address(0x1000).offset(0x200).memorySize(0x300);
    load.fileSize(0x300);
    LoaderPtr loader = loaderOf(elf);
    EXPECT_THAT(sectionsOf(*loader->getSegmentAt(1)), ElementsAre(".text"))
        << "the bound is the size, not offset plus size";
    load.fileSize(0x2FF);
    loader = loaderOf(elf);
    EXPECT_THAT(sectionsOf(*loader->getSegmentAt(1)), IsEmpty());
}

TEST_F(ElfFileLoaderTest, SegmentOfAnEmbeddedModuleFindsTheSameSections) {
    ElfAssembler elf;
    elf.section(".text", SHT_PROGBITS, codeFlags).address(0x1000).offset(0x200).zeros(0x100);
    elf.segment(PT_LOAD, PF_R | PF_X).address(0xE00).offset(0).fileSize(0x300).memorySize(0x300);
    LoaderPtr loader = loaderOf(elf, 0x7000);
    EXPECT_THAT(sectionsOf(*loader->getSegmentAt(1)), ElementsAre(".text"));
}

TEST_F(ElfFileLoaderTest, SectionIteratorStartsOnTheFirstAndStaysAtTheEnd) {
    LoaderPtr loader = loaderOf(smallModule());
    SymMgrObjectPtr<ELFSectionIterator> sections =
        new ELFSectionIterator(loader, loader->getElfHelper(), 0, ~0ULL, true);
    EXPECT_STREQ(sections->current()->getName(), ".text");
    EXPECT_FALSE(sections->next());
    EXPECT_FALSE(sections->current());
    EXPECT_FALSE(sections->next());
    sections->reset();
    EXPECT_STREQ(sections->current()->getName(), ".text");
    SymMgrObjectPtr<ELFSectionIterator> none =
        new ELFSectionIterator(loader, loader->getElfHelper(), 0, 0, false);
    EXPECT_FALSE(none->current());
}

TEST_F(ElfFileLoaderTest, SectionIteratorHoldsTheLoader) {
    LoaderPtr loader = loaderOf(smallModule());
    unsigned before = 0;
    loader->refCount(before);
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISection>>> sections;
    loader->getSegmentAt(1)->getSections(sections, false);
    unsigned during = 0;
    loader->refCount(during);
    EXPECT_EQ(during, before + 1);
    loader = nullptr;
    namesOf(*sections);
}

// --- The helper of debug information readers

TEST_F(ElfFileLoaderTest, FormatHelperWithoutElfHelperIsReported) {
    expectLog("ASSERTION FAILED: 'elfHelper != NULL'");
    SymMgrObjectPtr<IFileFormatHelper> helper = new ElfFileFormatHelper(nullptr);
    SymMgrObjectPtr<ISectionData> data;
    helper->getSectionData(data, section_debug_info);
    EXPECT_FALSE(data);
    EXPECT_FALSE(helper->isCodeOrDataAddress(0));
}

TEST_F(ElfFileLoaderTest, FormatHelperGivesKeptDataOrMakesNewOnes) {
    const std::pair<section_kind_t, const char*> kept[] = {{section_debug_info, ".debug_info"},
                                                           {section_debug_str, ".debug_str"},
                                                           {section_debug_ranges, ".debug_ranges"},
                                                           {section_debug_loc, ".debug_loc"},
                                                           {section_eh_frame, ".eh_frame"}};
    const std::pair<section_kind_t, const char*> made[] = {{section_debug_abbrev, ".debug_abbrev"},
                                                           {section_debug_line, ".debug_line"},
                                                           {section_note_gnu_build_id, ".note.gnu.build-id"},
                                                           {section_gnu_debuglink, ".gnu_debuglink"}};
    ElfAssembler elf = smallModule();
    for (auto [kind, name] : kept)
        elf.section(name).zeros(4);
    for (auto [kind, name] : made)
        elf.section(name).zeros(4);
    LoaderPtr loader = loaderOf(elf);
    SymMgrObjectPtr<IFileFormatHelper> helper = new ElfFileFormatHelper(loader->getElfHelper());
    for (auto [kind, name] : kept) {
        SymMgrObjectPtr<ISectionData> first;
        SymMgrObjectPtr<ISectionData> second;
        helper->getSectionData(first, kind);
        helper->getSectionData(second, kind);
        ASSERT_TRUE(first) << name;
        EXPECT_EQ(first->getIndex(), elf.layout().sectionIndex(name));
        EXPECT_EQ(first, second) << name;
    }
    for (auto [kind, name] : made) {
        SymMgrObjectPtr<ISectionData> first;
        SymMgrObjectPtr<ISectionData> second;
        helper->getSectionData(first, kind);
        helper->getSectionData(second, kind);
        ASSERT_TRUE(first) << name;
        EXPECT_EQ(first->getIndex(), elf.layout().sectionIndex(name));
        EXPECT_NE(first, second) << name;
    }
    SymMgrObjectPtr<ISectionData> none;
    helper->getSectionData(none, static_cast<section_kind_t>(9));
    EXPECT_FALSE(none);
}

TEST_F(ElfFileLoaderTest, FormatHelperHasNothingForMissingSections) {
    LoaderPtr loader = loaderOf(smallModule());
    SymMgrObjectPtr<IFileFormatHelper> helper = new ElfFileFormatHelper(loader->getElfHelper());
    for (unsigned kind = 0; kind < 9; ++kind) {
        SymMgrObjectPtr<ISectionData> data;
        helper->getSectionData(data, static_cast<section_kind_t>(kind));
        EXPECT_FALSE(data) << kind;
    }
    EXPECT_EQ(helper->getImageBase(), 0x1000u);
    EXPECT_TRUE(helper->isCodeOrDataAddress(0x3000));
    EXPECT_FALSE(helper->isCodeOrDataAddress(0x5000));
}

TEST_F(ElfFileLoaderTest, FormatHelperShowsContentsAsASection) {
    const std::vector<uint8_t> contents(100, 'x');
    ElfAssembler elf = smallModule();
    const unsigned index = elf.compressedSection(".zdebug_str", contents).index();
    const unsigned flagged = elf.section(".odd", SHT_PROGBITS, 0x8).zeros(4).index();
    LoaderPtr loader = loaderOf(elf);
    SymMgrObjectPtr<IFileFormatHelper> helper = new ElfFileFormatHelper(loader->getElfHelper());
    SymMgrObjectPtr<ISection> section;
    helper->getSectionByIndex(section, index);
    ASSERT_TRUE(section);
    EXPECT_STREQ(section->getName(), ".zdebug_str");
    EXPECT_EQ(section->getFileOffset(), elf.layout().section(".zdebug_str").offset);
    EXPECT_FALSE(section->isNoBits());
    SymMgrObjectPtr<IBuffer> buffer;
    ASSERT_EQ(section->read(buffer), status_Ok);
    ASSERT_EQ(buffer->size(), 100u);
    EXPECT_EQ(std::memcmp(buffer->data(), contents.data(), 100), 0);
    helper->getSectionByIndex(section, flagged);
    EXPECT_TRUE(section->isNoBits());
    helper->getSectionByIndex(section, loader->getElfHelper()->getSectionCount());
    EXPECT_FALSE(section);
}

TEST_F(ElfFileLoaderTest, RelocationsAreGivenOfRelocatableFilesAlone) {
    for (uint16_t type : {ET_REL, ET_EXEC, ET_DYN}) {
        ElfAssembler elf(ElfClass::k64, std::nullopt, type);
        auto text = elf.section(".text", SHT_PROGBITS, codeFlags).zeros(0x10);
        elf.relocations(".rela.text", SHT_RELA, text, elf.symbols().section()).add(8, 0, 1);
        LoaderPtr loader = loaderOf(elf);
        SymMgrObjectPtr<IFileFormatHelper> helper = new ElfFileFormatHelper(loader->getElfHelper());
        SymMgrObjectPtr<RelocationAddends> addends;
        helper->getRelocationAddends(addends, text.index());
        EXPECT_EQ(addends != nullptr, type == ET_REL);
    }
}

// --- Debug info loaders

/// A module and a separate debug file in a directory of their own.
struct FilePair {
    explicit FilePair(const ElfAssembler& debug) {
        smallModule().write(modulePath);
        debug.write(debugPath);
        loader = new OpenLoader(new FileImage(modulePath.c_str(), 0, arch_unknown));
    }
    SymMgrObjectPtr<IDebugInfoLoader> create(const std::string& path, unsigned type) {
        return loader->createDebugInfoLoader(path.c_str(), type, 0);
    }
    TempDir directory;
    std::string modulePath = directory.path("module");
    std::string debugPath = directory.path("module.debug");
    LoaderPtr loader;
};

TEST_F(ElfFileLoaderTest, SeparateFileWithoutDebugSectionsLendsItsSymbolsAndHasAnEmptyLoader) {
    ElfAssembler debug = smallModule();
    debug.symbol("main", 0x1000, 16);
    FilePair files(debug);
    SymMgrObjectPtr<IDebugInfoLoader> reader = files.create(files.debugPath, symbol_file_dwarf);
    ASSERT_TRUE(reader);
    EXPECT_EQ(reader->getType(), 0u);
    EXPECT_EQ(reader->getPath(), files.debugPath);
    ASSERT_NE(files.loader->getElfHelper()->getSymTab(), nullptr);
    EXPECT_EQ(files.loader->getElfHelper()->getSymTab()->getSize(), 2 * sizeof(Elf64_Sym));
}

TEST_F(ElfFileLoaderTest, ModuleWithoutDebugSectionsHasNoLoader) {
    FilePair files(smallModule());
    EXPECT_FALSE(files.create(files.modulePath, symbol_file_dwarf));
    EXPECT_FALSE(files.create(files.directory.path("./module"), symbol_file_dwarf)) << "the same file";
}

TEST_F(ElfFileLoaderTest, OtherTypesHaveNoLoader) {
    FilePair files(smallModule());
    for (unsigned type : {0u, 2u, 3u, 5u, 6u, 7u, 0xFFFFFFFFu})
        EXPECT_FALSE(files.create(files.debugPath, type)) << type;
}

TEST_F(ElfFileLoaderTest, DebugFileWithoutSegmentsIsTakenForHigherAndLendsNothing) {
    ElfAssembler debug;
    debug.section(".text", SHT_PROGBITS, codeFlags).address(0x1000).zeros(0x10);
    debug.symbol("main", 0x1000, 16);
    FilePair files(debug);
    expectLog("ASSERTION FAILED: 'm_imageBase >= elfHelper->getImageBase()'");
    EXPECT_TRUE(files.create(files.debugPath, symbol_file_dwarf));
    EXPECT_EQ(files.loader->getElfHelper()->getSymTab(), nullptr);
}

// --- Candidates

/// Kind, state and wanted name of each candidate.
std::vector<std::string> candidatesOf(OpenLoader& loader) {
    std::vector<SymMgrObjectPtr<ISymbolFileToResolve>> candidates;
    EXPECT_EQ(loader.collectSymbolFiles(candidates), status_Ok);
    std::vector<std::string> texts;
    for (const auto& candidate : candidates)
        texts.push_back(std::to_string(candidate->kind()) + " " + std::to_string(candidate->state()) + " " +
                        candidate->wantedName());
    return texts;
}

/// A module on disk, since candidates look beside it.
struct ModuleFile {
    explicit ModuleFile(const ElfAssembler& elf) {
        elf.write(path);
        loader = new OpenLoader(new FileImage(path.c_str(), 0, arch_unknown));
    }
    TempDir directory;
    std::string path = directory.path("module");
    LoaderPtr loader;
};

TEST_F(ElfFileLoaderTest, CandidatesAreByBuildIdByDebugLinkAndTheModuleItself) {
    ElfAssembler elf = smallModule();
    elf.buildId({0xAB, 0xCD, 0xEF, 0x01}).flags(0);
    elf.debugLink("module.debug", 0x12345678);
    elf.section(".debug_info").zeros(16);
    ModuleFile module(elf);
    EXPECT_THAT(candidatesOf(*module.loader),
                ElementsAre("1 4 .build-id/ab/cdef01.debug", "1 4 module.debug", "1 1 " + module.path));
}

TEST_F(ElfFileLoaderTest, CandidateWithoutNameIsLeftOutAndTheNextTakesItsIndex) {
    ElfAssembler elf = smallModule();
    elf.section(".debug_info").zeros(16);
    ModuleFile module(elf);
    EXPECT_THAT(candidatesOf(*module.loader), ElementsAre("1 1 " + module.path, "1 1 " + module.path))
        << "no build id";
    std::vector<SymMgrObjectPtr<ISymbolFileToResolve>> candidates;
    EXPECT_EQ(module.loader->collectSymbolFiles(candidates), status_Ok);
    ASSERT_EQ(candidates.size(), 2u);
    EXPECT_EQ(candidates[0]->resolve(module.path.c_str()), 0);
    EXPECT_EQ(candidates[1]->resolve(module.path.c_str()), 1);
}

TEST_F(ElfFileLoaderTest, ModuleWithNothingToLookForHasNoCandidates) {
    EXPECT_THAT(candidatesOf(*loaderOf(smallModule())), IsEmpty());
}

// --- The legacy reader of managed-code containers

ElfAssembler oatModule() {
    ElfAssembler elf;
    auto rodata = elf.section(".rodata", SHT_PROGBITS, SHF_ALLOC).address(0x1000).zeros(0x1000);
    auto text = elf.section(".text", SHT_PROGBITS, codeFlags).address(0x2000).zeros(0x1000);
    elf.load({rodata});
    elf.load({text});
    elf.dynamicSymbol("oatdata", 0x1000, 0x1000, STB_GLOBAL, STT_OBJECT, rodata);
    elf.dynamicSymbol("oatexec", 0x2000, 0x1000, STB_GLOBAL, STT_OBJECT, text);
    elf.dynamicSymbol("oatlastword", 0x2FFC, 4, STB_GLOBAL, STT_OBJECT, text);
    elf.dynamicSymbols().section().flags(0);
    elf.dynamicSymbols().strings().flags(0);
    return elf;
}

TEST_F(ElfFileLoaderTest, OatContainerIsFoundWhereTheLegacyReaderIsOn) {
    EnvironmentSwitch on("ORN_USE_LEGACY_OAT_READER", "1");
    LoaderPtr loader = loaderOf(oatModule());
    ASSERT_NE(loader->getOatData(), nullptr);
    ASSERT_NE(loader->getOatExec(), nullptr);
    EXPECT_EQ(loader->getOatData()->pseudoAddr(), 0x1000u);
    EXPECT_EQ(loader->getOatExec()->pseudoAddr(), 0x2000u);
    EXPECT_EQ(loader->getOatDataSize(), 0x2000u);
}

TEST_F(ElfFileLoaderTest, OatContainerHasNoCandidatesWithDwarf) {
    ElfAssembler elf = oatModule();
    elf.buildId({1, 2, 3, 4}).flags(0);
    EXPECT_EQ(candidatesOf(*loaderOf(elf)).size(), 1u);
    EnvironmentSwitch on("ORN_USE_LEGACY_OAT_READER", "1");
    LoaderPtr loader = loaderOf(elf);
    std::vector<SymMgrObjectPtr<ISymbolFileToResolve>> candidates;
    EXPECT_EQ(loader->collectSymbolFiles(candidates), status_Ok);
    ASSERT_EQ(candidates.size(), 1u);
    EXPECT_EQ(candidates[0]->kind(), static_cast<unsigned>(symbol_file_oat));
}

TEST_F(ElfFileLoaderTest, OatTestDoesNotRunUnlessSwitchedOn) {
    EXPECT_EQ(loaderOf(oatModule())->getOatData(), nullptr);
    EnvironmentSwitch empty("ORN_USE_LEGACY_OAT_READER", "");
    EXPECT_EQ(loaderOf(oatModule())->getOatData(), nullptr);
}

TEST_F(ElfFileLoaderTest, OatTestLooksAtFiveEntriesSkippedOnesIncluded) {
    EnvironmentSwitch on("ORN_USE_LEGACY_OAT_READER", "1");
    for (unsigned others : {1u, 2u}) {
        ElfAssembler elf;
        auto text = elf.section(".text", SHT_PROGBITS, codeFlags).address(0x1000).zeros(0x1000);
        elf.load({text});
        for (unsigned i = 0; i < others; ++i)
            elf.dynamicSymbol("imported", 0, 0, STB_GLOBAL, STT_FUNC, SHN_UNDEF);
        elf.dynamicSymbol("oatdata", 0x1000, 4, STB_GLOBAL, STT_OBJECT, text);
        elf.dynamicSymbol("oatexec", 0x1800, 4, STB_GLOBAL, STT_OBJECT, text);
        elf.dynamicSymbol("oatlastword", 0x1FFC, 4, STB_GLOBAL, STT_OBJECT, text);
        elf.dynamicSymbols().section().flags(0);
        elf.dynamicSymbols().strings().flags(0);
        EXPECT_EQ(loaderOf(elf)->getOatData() != nullptr, others == 1) << "the null entry counts too";
    }
}

TEST_F(ElfFileLoaderTest, OatSymbolsThatDoNotFitAreIgnored) {
    EnvironmentSwitch on("ORN_USE_LEGACY_OAT_READER", "1");
    // start, code and end as symbols; each is wrong in its own way
    const uint64_t wrong[][3] = {{0x1800, 0x1000, 0x1800}, {0x1000, 0x1900, 0x1900}};
    for (const auto& [start, code, end] : wrong) {
        ElfAssembler elf;
        auto text = elf.section(".text", SHT_PROGBITS, codeFlags).address(0x1000).zeros(0x1000);
        elf.load({text});
        elf.dynamicSymbol("oatdata", start, 4, STB_GLOBAL, STT_OBJECT, text);
        elf.dynamicSymbol("oatexec", code, 4, STB_GLOBAL, STT_OBJECT, text);
        elf.dynamicSymbol("oatlastword", end, 0, STB_GLOBAL, STT_OBJECT, text);
        elf.dynamicSymbols().section().flags(0);
        elf.dynamicSymbols().strings().flags(0);
        EXPECT_EQ(loaderOf(elf)->getOatData(), nullptr) << start;
    }
}

TEST_F(ElfFileLoaderTest, ModuleWithoutDynamicSymbolsIsNoOatContainer) {
    EnvironmentSwitch on("ORN_USE_LEGACY_OAT_READER", "1");
    LoaderPtr loader = loaderOf(smallModule());
    EXPECT_EQ(loader->getOatData(), nullptr);
    EXPECT_EQ(loader->getOatDataSize(), 0u);
    EXPECT_EQ(loader->getStatus(), status_Ok);
}

} // namespace
} // namespace ORN_3_30
