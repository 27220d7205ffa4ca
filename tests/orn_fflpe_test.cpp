// Facts about PEExecFileLoader without its symbols: headers, sections and their names, segments, the program
// database that the module names, and the helper through which readers of debug information see it.

#include "orn_fflpe.h"

#include "orn_moduleimage.h"
#include "orn_relocations.h"
#include "orn_symbolmanager.h"
#include "support/allocation.h"
#include "support/elf_assembler.h"
#include "support/orn_fixture.h"
#include "support/pe_assembler.h"
#include "support/temp_dir.h"

#include <string>
#include <vector>

namespace ORN_3_30 {
namespace {

using orn_test::PeAssembler;
using orn_test::PeClass;
using orn_test::peCode;
using orn_test::peData;
using orn_test::PeLayout;
using orn_test::peNoBytes;
using orn_test::peReadOnly;
using orn_test::putNumber;
using testing::ElementsAre;
using testing::IsEmpty;

using Bytes = std::vector<uint8_t>;

constexpr uint32_t typeCoff = 1;
constexpr uint32_t typeCodeView = 2;
constexpr uint32_t typeMisc = 4;

/// Opens what loaders keep to themselves.
class OpenLoader : public PEExecFileLoader {
public:
    using PEExecFileLoader::collectSymbolFiles;
    using PEExecFileLoader::createDebugInfoLoader;
    using PEExecFileLoader::getBaseOfCode;
    using PEExecFileLoader::getPdbAge;
    using PEExecFileLoader::getPdbGuid;
    using PEExecFileLoader::getPdbPath;
    using PEExecFileLoader::getPdbSignature;
    using PEExecFileLoader::PEExecFileLoader;
};

using LoaderPtr = SymMgrObjectPtr<OpenLoader>;

class PELoaderTest : public test::OrnTest {
protected:
    LoaderPtr loaderOf(const Bytes& bytes) {
        path = directory.write("module.dll", {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
        return new OpenLoader(path.c_str());
    }
    LoaderPtr loaderOf(const PeAssembler& pe) { return loaderOf(pe.build()); }

    orn_test::TempDir directory;
    std::string path;
};

/// ".text" at 0x1000 and ".data" at 0x2000.
PeAssembler smallModule(PeClass peClass = PeClass::k64) {
    PeAssembler pe(peClass);
    pe.section(".text", 0x1000, peCode).data.fill(0x180, 0xC3);
    pe.section(".data", 0x2000, peData).data.fill(0x80, 0xDD);
    return pe;
}

std::vector<std::string> segmentNames(IFileFormatLoader& loader) {
    SymMgrObjectPtr<IIterator<ISegment*>> segments;
    loader.getSegments(segments);
    std::vector<std::string> names;
    for (ISegment* segment = segments->current(); segment;
         segment = segments->next() ? segments->current() : nullptr)
        names.emplace_back(segment->getName());
    return names;
}

std::string sectionName(IFileFormatLoader& loader, unsigned index) {
    SymMgrObjectPtr<ISection> section;
    loader.getSectionByIndex(section, index);
    return section ? section->getName() : "(none)";
}

// --- Headers

class PEClassTest : public PELoaderTest, public testing::WithParamInterface<PeClass> {};

TEST_P(PEClassTest, ModuleTellsItsHeaders) {
    PeAssembler pe = smallModule(GetParam());
    const bool isWide = GetParam() == PeClass::k64;
    const unsigned long long base = isWide ? 0x7FF012340000 : 0x10000000;
    pe.imageBase(base).entry(0x1010).baseOfCode(0x1000);
    LoaderPtr loader = loaderOf(pe);
    EXPECT_EQ(loader->getStatus(), status_Ok);
    EXPECT_EQ(loader->getPath(), path);
    EXPECT_EQ(loader->getExecFormat(), exec_format_pe);
    EXPECT_EQ(static_cast<int>(loader->getExecFormat()), 1);
    EXPECT_EQ(loader->getArch(), isWide ? arch_x86_64 : arch_ia32);
    EXPECT_EQ(loader->getImageBase(), base);
    EXPECT_EQ(loader->getEntryPoint(), base + 0x1010);
    EXPECT_EQ(loader->getImageSize(), 0x3000u);
    EXPECT_EQ(loader->getBaseOfCode(), 0x1000u);
    EXPECT_STREQ(loader->getKernelName(), "");
    EXPECT_FALSE(loader->isReadyToRun());
    EXPECT_FALSE(loader->isManaged());
    EXPECT_EQ(loader->getSectionCount(), 2u);
}

TEST_P(PEClassTest, AModuleWithoutEntryPointHasNoneAtItsBaseEither) {
    EXPECT_EQ(loaderOf(smallModule(GetParam()))->getEntryPoint(), 0u);
}

TEST_P(PEClassTest, ACOMDescriptorMakesTheModuleManaged) {
    PeAssembler pe = smallModule(GetParam());
    pe.clrHeader(0x3000, 0);
    EXPECT_TRUE(loaderOf(pe)->isManaged());
}

TEST_P(PEClassTest, TheDebugDirectoryIsFoundWhereTheClassHasIt) {
    PeAssembler pe = smallModule(GetParam());
    pe.debugEntry(0x3000, typeCodeView, PeAssembler::rsds({}, 1, "module.pdb"));
    EXPECT_EQ(loaderOf(pe)->getPdbPath(), "module.pdb");
}

INSTANTIATE_TEST_SUITE_P(Classes, PEClassTest, testing::Values(PeClass::k32, PeClass::k64),
                         [](const auto& info) { return info.param == PeClass::k64 ? "Wide" : "Narrow"; });

TEST_F(PELoaderTest, MachinesHaveTheirArchitecture) {
    const std::pair<uint16_t, int> machines[] = {{0x014C, 1}, {0x0200, 2}, {0x8664, 3}, {0x01C0, 4},
                                                 {0x01C2, 5}, {0xAA64, 0}, {0x01C4, 0}, {0, 0}};
    for (const auto& [machine, arch] : machines) {
        PeAssembler pe = smallModule();
        pe.machine(machine);
        LoaderPtr loader = loaderOf(pe);
        EXPECT_EQ(static_cast<int>(loader->getArch()), arch) << std::hex << machine;
        EXPECT_EQ(loader->getStatus(), status_Ok) << "an unknown machine is no error";
    }
}

TEST_F(PELoaderTest, AnyOtherMagicIsReadAsTheNarrowClass) {
    PeAssembler pe = smallModule(PeClass::k32);
    Bytes bytes = pe.build();
    putNumber(bytes, pe.layout().optionalHeader, 0x0107, 2);
    EXPECT_EQ(loaderOf(bytes)->getImageBase(), 0x400000u);
}

// 248 bytes behind the signature are enough for the narrow class; the wide one is read again at 264.
TEST_F(PELoaderTest, AWideModuleIsReadTwice) {
    PeAssembler pe = smallModule();
    Bytes bytes = pe.build();
    bytes.resize(pe.layout().ntHeaders + 263);
    expectLog("ASSERTION FAILED: 'readAt(file, dosHeader.e_lfanew, wideHeaders)'");
    LoaderPtr loader = loaderOf(bytes);
    EXPECT_EQ(loader->getArch(), arch_x86_64) << "what was read before stays";
    EXPECT_EQ(loader->getImageBase(), 0u);

    bytes.resize(pe.layout().ntHeaders + 247);
    expectLog("ASSERTION FAILED: 'readAt(file, dosHeader.e_lfanew, headers)'");
    EXPECT_EQ(loaderOf(bytes)->getArch(), arch_unknown);

    putNumber(bytes, pe.layout().optionalHeader, 0x010B, 2);
    bytes.resize(pe.layout().ntHeaders + 248);
    expectLog("ASSERTION FAILED: 'file.read(size, headers.data())");
    loader = loaderOf(bytes);
    EXPECT_NE(loader->getImageSize(), 0u) << "and a narrow one is complete with 248";
}

// The rest of the directories is where the section table lies, and is taken for what it is not.
TEST_F(PELoaderTest, DirectoriesAreReadWhateverTheirNumber) {
    PeAssembler pe(PeClass::k32);
    pe.directoryCount(10);
    auto& text = pe.section(".text", 0x1000, peCode);
    text.data.fill(0x180, 0xC3);
    // Directory 14 is the second half of the first section header: PointerToRelocations and what follows.
    Bytes bytes = pe.build();
    ASSERT_EQ(pe.layout().directory(14), pe.layout().sectionHeader(0) + 32);
    EXPECT_FALSE(loaderOf(bytes)->isManaged());
    putNumber(bytes, pe.layout().sectionHeader(0) + 32, 5, 4);
    EXPECT_TRUE(loaderOf(bytes)->isManaged());
    EXPECT_EQ(sectionName(*loaderOf(bytes), 0), ".text") << "the table itself is found by the header's size";
}

TEST_F(PELoaderTest, AFileThatIsGoneIsALoaderWithNothing) {
    expectLog("ASSERTION FAILED: 'readAt(file, 0, dosHeader)'", 2);
    LoaderPtr loader = new OpenLoader("/nowhere/module.dll");
    EXPECT_EQ(loader->getStatus(), status_Ok);
    EXPECT_STREQ(loader->getPath(), "/nowhere/module.dll");
    EXPECT_EQ(loader->getSegmentAt(1), nullptr);
    EXPECT_EQ(loader->getSectionCount(), 0u);
    EXPECT_STREQ(LoaderPtr(new OpenLoader(nullptr))->getPath(), "");
}

TEST_F(PELoaderTest, ASectionTableCutShortIsNoSections) {
    PeAssembler pe = smallModule();
    Bytes bytes = pe.build();
    bytes.resize(pe.layout().sectionHeader(2) - 1);
    expectLog("ASSERTION FAILED: 'file.read(size, headers.data())");
    LoaderPtr loader = loaderOf(bytes);
    EXPECT_EQ(loader->getSectionCount(), 0u);
    EXPECT_EQ(loader->getSegmentAt(1), nullptr);
    EXPECT_EQ(loader->getStatus(), status_Ok);
    EXPECT_EQ(loader->getImageSize(), 0x3000u) << "what was read before stays";
}

TEST_F(PELoaderTest, ReadingIsTraced) {
    const Bytes bytes = smallModule().build();
    setLogLevel(test::traceLevel);
    LoaderPtr loader = loaderOf(bytes);
    EXPECT_THAT(messages(test::traceLevel), ElementsAre("ENTER: readFileInfo", "EXIT:  readFileInfo"));
}

TEST_F(PELoaderTest, ThereAreNoCandidatesAndNoReaders) {
    LoaderPtr loader = loaderOf(smallModule());
    std::vector<SymMgrObjectPtr<ISymbolFileToResolve>> candidates;
    EXPECT_EQ(loader->collectSymbolFiles(candidates), status_Ok);
    EXPECT_THAT(candidates, IsEmpty());
    EXPECT_EQ(loader->createDebugInfoLoader(path.c_str(), symbol_file_dwarf, 0), nullptr);
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>> files;
    EXPECT_EQ(loader->getSymbolFiles(files), status_Ok);
    EXPECT_FALSE(files->current());
    SymMgrObjectPtr<IDebugInfoLoader> reader;
    EXPECT_EQ(loader->getDebugInfoLoader(reader, 0), status_False);
}

// --- Sections and segments

TEST_F(PELoaderTest, SectionsTellTheirPlaceInTheFile) {
    PeAssembler pe = smallModule();
    LoaderPtr loader = loaderOf(pe);
    SymMgrObjectPtr<ISection> section;
    loader->getSectionByName(section, ".data");
    ASSERT_TRUE(section);
    EXPECT_STREQ(section->getName(), ".data");
    EXPECT_EQ(section->getAddress(), 0x2000u) << "an RVA";
    EXPECT_EQ(section->getFileOffset(), pe.layout().sections[1]);
    EXPECT_EQ(section->getSize(), 0x200u) << "that in the file, rounded up";
    EXPECT_FALSE(section->isNoBits());
    SymMgrObjectPtr<IBuffer> contents;
    ASSERT_EQ(section->readAt(0, 0x80, contents), status_Ok);
    EXPECT_EQ(contents->data()[0x7F], 0xDD);

    loader->getSectionByIndex(section, 0);
    ASSERT_TRUE(section);
    EXPECT_STREQ(section->getName(), ".text");
    loader->getSectionByIndex(section, 2);
    EXPECT_FALSE(section);
    loader->getSectionByIndex(section, 0);
    loader->getSectionByName(section, ".nosuch");
    EXPECT_FALSE(section);
    loader->getSectionByIndex(section, 0);
    loader->getSectionByName(section, nullptr);
    EXPECT_FALSE(section);
}

TEST_F(PELoaderTest, ASectionWithoutBytesDoesNotSayThatItHasNone) {
    PeAssembler pe;
    pe.section(".bss", 0x1000, peNoBytes).virtualSize = 0x400;
    LoaderPtr loader = loaderOf(pe);
    SymMgrObjectPtr<ISection> section;
    loader->getSectionByName(section, ".bss");
    ASSERT_TRUE(section);
    EXPECT_FALSE(section->isNoBits());
    EXPECT_EQ(section->getSize(), 0u);
    ASSERT_NE(loader->getSegmentAt(1), nullptr);
    EXPECT_EQ(loader->getSegmentAt(1)->getMemorySize(), 0x400u);
}

TEST_F(PELoaderTest, OfTwoSectionsOfOneNameTheFirstIsFound) {
    PeAssembler pe;
    pe.section(".twice", 0x1000, peData).data.fill(0x10);
    pe.section(".twice", 0x2000, peData).data.fill(0x10);
    SymMgrObjectPtr<ISection> section;
    loaderOf(pe)->getSectionByName(section, ".twice");
    ASSERT_TRUE(section);
    EXPECT_EQ(section->getAddress(), 0x1000u);
}

TEST_F(PELoaderTest, SegmentsAreTheSectionsByAddress) {
    PeAssembler pe;
    pe.imageBase(0x140000000);
    pe.section(".data", 0x2000, peData).data.fill(0x80);
    pe.section(".text", 0x1000, peCode).data.fill(0x180);
    pe.sectionAt(1).virtualSize = 0x190;
    LoaderPtr loader = loaderOf(pe);
    EXPECT_THAT(segmentNames(*loader), ElementsAre(".text", ".data"));
    ISegment* text = loader->getSegmentAt(1);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(text->getRva(), 0x1000u);
    EXPECT_EQ(text->getMemorySize(), 0x190u);
    EXPECT_EQ(text->getFileSize(), 0x200u);
    EXPECT_EQ(text->getFileOffset(), pe.layout().sections[1]);
    EXPECT_EQ(text->getKind(), 1u) << "code";
    EXPECT_EQ(loader->getSegmentAt(2)->getKind(), 2u) << "anything else";
    EXPECT_EQ(loader->findSegment(0x140001000), text);
    EXPECT_EQ(loader->findSegment(0x140001190), text) << "the end still belongs to it";
    EXPECT_EQ(loader->findSegment(0x140001191), nullptr);
    EXPECT_EQ(loader->findSegmentByName(".text"), text);
    EXPECT_EQ(loader->findSegmentByFileOffset(pe.layout().sections[1] + 4), text);
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISection>>> sections;
    text->getSections(sections, false);
    EXPECT_FALSE(sections);
}

TEST_F(PELoaderTest, OfTwoSectionsThatOverlapTheFirstIsTheSegment) {
    PeAssembler pe;
    pe.section(".first", 0x1000, peData).data.fill(0x100);
    pe.section(".second", 0x1080, peCode).data.fill(0x100);
    EXPECT_THAT(segmentNames(*loaderOf(pe)), ElementsAre(".first"));
}

TEST_F(PELoaderTest, HeadersAreInNoSegment) {
    PeAssembler pe = smallModule();
    LoaderPtr loader = loaderOf(pe);
    SymMgrObjectPtr<IAddress> address;
    EXPECT_EQ(loader->getAddress(address, loader->getImageBase()), status_Fail);
    EXPECT_EQ(loader->getAddress(address, loader->getImageBase() + 0x1010), status_Ok);
    ASSERT_TRUE(address);
    EXPECT_EQ(address->rva(), 0x1010u);
    EXPECT_EQ(address->fileOffset(), pe.layout().sections[0] + 0x10);
    EXPECT_STREQ(address->segment()->getName(), ".text");
}

TEST_F(PELoaderTest, SegmentsThatFailForWantOfMemoryComeLater) {
    if (!test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    LoaderPtr loader = loaderOf(smallModule());
    bool isOver = false;
    for (unsigned long number = 1; !isOver; ++number) {
        LoaderPtr fresh = new OpenLoader(path.c_str());
        try {
            test::FailingAllocation failing(number);
            isOver = fresh->getSegmentAt(2) != nullptr;
        } catch (const std::bad_alloc&) {
            // the next question is answered
        }
        ISegment* last = fresh->getSegmentAt(2);
        ASSERT_NE(last, nullptr) << number;
        EXPECT_STREQ(last->getName(), ".data");
        EXPECT_EQ(fresh->getSegmentAt(3), nullptr);
    }
}

// --- Names of sections

TEST_F(PELoaderTest, ALongNameStandsInTheStringTable) {
    PeAssembler pe;
    pe.section(".text", 0x1000, peCode).data.fill(0x10);
    pe.section(".debug_abbrev_of_this_module", 0x2000, peData).data.fill(0x10);
    pe.section(".another_long_name", 0x3000, peData).data.fill(0x10);
    LoaderPtr loader = loaderOf(pe);
    EXPECT_EQ(sectionName(*loader, 1), ".debug_abbrev_of_this_module");
    EXPECT_THAT(segmentNames(*loader),
                ElementsAre(".text", ".debug_abbrev_of_this_module", ".another_long_name"));
    SymMgrObjectPtr<ISection> section;
    loader->getSectionByName(section, ".another_long_name");
    ASSERT_TRUE(section);
    EXPECT_EQ(section->getAddress(), 0x3000u);
}

TEST_F(PELoaderTest, AVeryLongNameIsReadToItsEnd) {
    const std::string name = "." + std::string(3000, 'n');
    PeAssembler pe;
    pe.section(name, 0x1000, peData).data.fill(0x10);
    Bytes bytes = pe.build();
    EXPECT_EQ(sectionName(*loaderOf(bytes), 0), name);
    bytes.resize(bytes.size() - 2);
    EXPECT_EQ(sectionName(*loaderOf(bytes), 0), name.substr(0, 3000)) << "or to the end of the file";
}

TEST_F(PELoaderTest, TheStringTableFollowsTheSymbols) {
    PeAssembler pe;
    pe.section(".a_long_name", 0x1000, peData).data.fill(0x10);
    Bytes bytes = pe.build();
    const PeLayout layout = pe.layout();
    putNumber(bytes, layout.fileHeader + 8, layout.stringTable - 3 * 18, 4); // PointerToSymbolTable
    putNumber(bytes, layout.fileHeader + 12, 3, 4);                          // NumberOfSymbols
    EXPECT_EQ(sectionName(*loaderOf(bytes), 0), ".a_long_name");
}

TEST_F(PELoaderTest, ANameOutsideTheFileKeepsTheShortOne) {
    PeAssembler pe;
    pe.section(".a_long_name", 0x1000, peData).data.fill(0x10);
    Bytes bytes = pe.build();
    const PeLayout layout = pe.layout();
    putNumber(bytes, layout.fileHeader + 8, layout.fileSize - 4, 4);
    expectLog("ASSERTION FAILED: 'offset >= 0 && offset < m_size'", 2);
    EXPECT_EQ(sectionName(*loaderOf(bytes), 0), "/4");
    putNumber(bytes, layout.fileHeader + 12, 0xFFFFFFFF, 4);
    EXPECT_EQ(sectionName(*loaderOf(bytes), 0), "/4") << "a table that is too far away is outside too";
}

TEST_F(PELoaderTest, ASlashWithoutNumberIsAShortName) {
    PeAssembler pe;
    const char* const names[] = {"/", "/abc", "//BAAAAA", "a/4"};
    uint32_t rva = 0x1000;
    for (const char* name : names) {
        auto& section = pe.section(".a_long_name_behind_it", rva, peData);
        section.data.fill(0x10);
        section.shortName = name;
        rva += 0x1000;
    }
    LoaderPtr loader = loaderOf(pe);
    for (unsigned i = 0; i < 4; ++i)
        EXPECT_EQ(sectionName(*loader, i), names[i]);
}

TEST_F(PELoaderTest, TheNumberEndsWhereItsDigitsEnd) {
    PeAssembler pe;
    pe.section(".a_long_name", 0x1000, peData).shortName = "/4x";
    EXPECT_EQ(sectionName(*loaderOf(pe), 0), ".a_long_name");
}

TEST_F(PELoaderTest, AShortNameNeedsNoTerminator) {
    PeAssembler pe;
    pe.section("12345678", 0x1000, peData).data.fill(0x10);
    EXPECT_EQ(sectionName(*loaderOf(pe), 0), "12345678");
    EXPECT_NE(loaderOf(pe)->findSegmentByName("12345678"), nullptr);
}

/// A damaged file whose sections all share one enormous name does not make the module enormous.
TEST_F(PELoaderTest, NamesTogetherTakeNoMoreThanTheFileJustifies) {
    PeAssembler pe;
    const std::string name = "." + std::string(100000, 'n');
    pe.section(name, 0x1000, peData);
    for (uint32_t i = 1; i < 400; ++i)
        pe.section(".x", 0x1000 + 0x1000 * i, peData).shortName = "/4";
    LoaderPtr loader = loaderOf(pe);
    EXPECT_EQ(sectionName(*loader, 0), name);
    EXPECT_EQ(sectionName(*loader, 399), "/4");
    size_t total = 0;
    for (unsigned i = 0; i < 400; ++i)
        total += sectionName(*loader, i).size();
    EXPECT_LT(total, 1000000u);
}

// --- The program database

TEST_F(PELoaderTest, TheNewerRecordTellsGuidAgeAndPath) {
    PeAssembler pe = smallModule();
    const std::array<uint8_t, 16> guid{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    pe.debugEntry(0x3000, typeCodeView, PeAssembler::rsds(guid, 7, "C:\\build\\module.pdb"));
    LoaderPtr loader = loaderOf(pe);
    EXPECT_EQ(loader->getPdbGuid(), guid);
    EXPECT_EQ(loader->getPdbAge(), 7u);
    EXPECT_EQ(loader->getPdbPath(), "C:\\build\\module.pdb");
    EXPECT_EQ(loader->getPdbSignature(), 0u);
}

TEST_F(PELoaderTest, TheOlderRecordTellsSignatureAgeAndPath) {
    PeAssembler pe = smallModule();
    pe.debugEntry(0x3000, typeCodeView, PeAssembler::nb10(0x3C2B1A09, 5, "old.pdb"));
    LoaderPtr loader = loaderOf(pe);
    EXPECT_EQ(loader->getPdbSignature(), 0x3C2B1A09u);
    EXPECT_EQ(loader->getPdbAge(), 5u);
    EXPECT_EQ(loader->getPdbPath(), "old.pdb");
    EXPECT_EQ(loader->getPdbGuid(), (std::array<uint8_t, 16>{}));
}

TEST_F(PELoaderTest, AFileWithoutDebugDirectoryNamesNoDatabase) {
    EXPECT_EQ(loaderOf(smallModule())->getPdbPath(), "");
}

TEST_F(PELoaderTest, RecordsOfDebugInformationInTheModuleAreRefused) {
    PeAssembler pe = smallModule();
    const Bytes old11{'N', 'B', '1', '1', 0, 0, 0, 0};
    const Bytes old09{'N', 'B', '0', '9', 0, 0, 0, 0};
    pe.debugEntry(0x3000, typeCodeView, old11).debugEntry(0x3000, typeCodeView, old09);
    expectLog("ASSERTION FAILED: 'signature != signatureNB11'", 2);
    expectLog("ASSERTION FAILED: 'signature != signatureNB09'", 2);
    EXPECT_EQ(loaderOf(pe)->getPdbPath(), "");
    pe.debugEntry(0x3000, typeCodeView, PeAssembler::rsds({}, 1, "behind.pdb"));
    EXPECT_EQ(loaderOf(pe)->getPdbPath(), "behind.pdb") << "and the walk goes on";
}

TEST_F(PELoaderTest, AnUnknownRecordIsRefusedWithoutALog) {
    PeAssembler pe = smallModule();
    pe.debugEntry(0x3000, typeCodeView, {'A', 'B', 'C', 'D', 0, 0, 0, 0});
    pe.debugEntry(0x3000, typeCodeView, PeAssembler::rsds({}, 1, "behind.pdb"));
    EXPECT_EQ(loaderOf(pe)->getPdbPath(), "behind.pdb");
}

TEST_F(PELoaderTest, OtherEntriesAreSkipped) {
    PeAssembler pe = smallModule();
    pe.debugEntry(0x3000, typeMisc, PeAssembler::rsds({}, 1, "misc.pdb"));
    pe.debugEntry(0x3000, typeCodeView, PeAssembler::rsds({}, 1, "codeview.pdb"));
    EXPECT_EQ(loaderOf(pe)->getPdbPath(), "codeview.pdb");
}

TEST_F(PELoaderTest, ACoffEntryLeadsToItsRecordThroughTheSymbolsHeader) {
    PeAssembler pe = smallModule();
    orn_test::ByteAssembler symbols;
    symbols.u32(0).u32(32 + 6).padTo(32 + 6).raw(PeAssembler::rsds({}, 1, "coff.pdb"));
    pe.debugEntry(0x3000, typeCoff, symbols.bytes());
    EXPECT_EQ(loaderOf(pe)->getPdbPath(), "coff.pdb");
}

TEST_F(PELoaderTest, AManagedModulePrefersTheDatabaseOfItsNativeImage) {
    PeAssembler pe = smallModule();
    pe.debugEntry(0x3000, typeCodeView, PeAssembler::rsds({}, 1, "module.pdb"));
    pe.debugEntry(0x3000, typeCodeView, PeAssembler::rsds({}, 2, ".ni.pdb"));
    pe.debugEntry(0x3000, typeCodeView, PeAssembler::rsds({}, 3, "module.ni.pdb"));
    pe.debugEntry(0x3000, typeCodeView, PeAssembler::rsds({}, 4, "other.ni.pdb"));
    EXPECT_EQ(loaderOf(pe)->getPdbPath(), "module.pdb") << "an unmanaged one takes the first record";
    pe.clrHeader(0x4000, 0);
    EXPECT_EQ(loaderOf(pe)->getPdbPath(), "module.ni.pdb");
    EXPECT_EQ(loaderOf(pe)->getPdbAge(), 3u);
}

TEST_F(PELoaderTest, AManagedModuleWithoutNativeDatabaseTakesTheFirstRecord) {
    PeAssembler pe = smallModule();
    pe.debugEntry(0x3000, typeCodeView, PeAssembler::rsds({}, 1, "first.pdb"));
    pe.debugEntry(0x3000, typeCodeView, PeAssembler::rsds({}, 1, "second.pdb"));
    pe.clrHeader(0x4000, 0);
    EXPECT_EQ(loaderOf(pe)->getPdbPath(), "first.pdb");
}

TEST_F(PELoaderTest, ALongPathIsCutAndNeedsNoTerminatorThen) {
    PeAssembler pe = smallModule();
    pe.fileAlignment(1).debugEntry(0x3000, typeCodeView, PeAssembler::rsds({}, 1, std::string(300, 'p')));
    Bytes bytes = pe.build();
    EXPECT_EQ(loaderOf(bytes)->getPdbPath(), std::string(260, 'p'));
    bytes.resize(bytes.size() - 41); // the path is cut right behind its 260th character
    EXPECT_EQ(loaderOf(bytes)->getPdbPath(), std::string(260, 'p'));
}

TEST_F(PELoaderTest, APathThatTheFileCutsIsNoRecord) {
    PeAssembler pe = smallModule();
    pe.fileAlignment(1).debugEntry(0x3000, typeCodeView, PeAssembler::rsds({}, 1, "first.pdb"));
    pe.debugEntry(0x3000, typeCodeView, PeAssembler::rsds({}, 1, "second.pdb"));
    Bytes bytes = pe.build();
    bytes.pop_back();
    expectLog("ASSERTION FAILED: 'result != RecordResult::Cut'", 2);
    EXPECT_EQ(loaderOf(bytes)->getPdbPath(), "first.pdb") << "and the records before it stay";
    bytes.resize(pe.layout().sections[2] + 56 + 20);
    EXPECT_EQ(loaderOf(bytes)->getPdbPath(), "") << "a short record ends the walk";
}

TEST_F(PELoaderTest, TheDirectoryIsReadToItsSize) {
    PeAssembler pe = smallModule();
    pe.debugEntry(0x3000, typeMisc, {});
    pe.debugEntry(0x3000, typeCodeView, PeAssembler::rsds({}, 1, "second.pdb"));
    pe.directory(6, 0x3000, 2 * 28 - 1);
    EXPECT_EQ(loaderOf(pe)->getPdbPath(), "");
    pe.directory(6, 0x3000, 2 * 28);
    EXPECT_EQ(loaderOf(pe)->getPdbPath(), "second.pdb");
}

TEST_F(PELoaderTest, ADirectoryOutsideTheBytesOfEverySectionIsNone) {
    PeAssembler pe = smallModule();
    pe.debugEntry(0x3000, typeCodeView, PeAssembler::rsds({}, 1, "module.pdb"));
    pe.sectionAt(2).sizeOfRawData = 0;
    EXPECT_EQ(loaderOf(pe)->getPdbPath(), "");
}

TEST_F(PELoaderTest, TheLastSectionThatHoldsTheDirectoryHasIt) {
    PeAssembler pe = smallModule();
    pe.debugEntry(0x3000, typeCodeView, PeAssembler::rsds({}, 1, "module.pdb"));
    // A section that claims the same addresses, with other bytes.
    pe.section(".late", 0x3000, peData).data.fill(0x100);
    EXPECT_EQ(loaderOf(pe)->getPdbPath(), "");
}

// --- The helper of debug information readers

class PEHelperTest : public PELoaderTest {
protected:
    SymMgrObjectPtr<IFileFormatHelper> helperOf(const PeAssembler& pe) {
        return new PEFileFormatHelper(SymMgrObjectPtr<PEExecFileLoader>(loaderOf(pe).get()));
    }
};

constexpr const char* sectionsByKind[] = {".debug_info",        ".debug_abbrev",  ".debug_str",
                                          ".debug_line",        ".debug_ranges",  ".debug_loc",
                                          ".note.gnu.build-id", ".gnu_debuglink", ".eh_frame"};

TEST_F(PEHelperTest, EveryKindHasItsSection) {
    PeAssembler pe;
    uint32_t rva = 0x1000;
    for (const char* name : sectionsByKind) {
        pe.section(name, rva, peData).data.u32(rva);
        rva += 0x1000;
    }
    SymMgrObjectPtr<IFileFormatHelper> helper = helperOf(pe);
    for (unsigned kind = 0; kind < 9; ++kind) {
        SymMgrObjectPtr<ISectionData> data;
        helper->getSectionData(data, static_cast<section_kind_t>(kind));
        ASSERT_TRUE(data) << kind;
        EXPECT_EQ(data->getIndex(), kind);
        EXPECT_EQ(data->getBias(), 0u);
        ASSERT_NE(data->getData(), nullptr);
        EXPECT_EQ(data->getSize(), 512u);
        EXPECT_EQ(data->getData()[1], 0x10 * (kind + 1));
    }
    SymMgrObjectPtr<ISectionData> data;
    helper->getSectionData(data, section_debug_info);
    helper->getSectionData(data, static_cast<section_kind_t>(9));
    EXPECT_FALSE(data);
}

TEST_F(PEHelperTest, EachKindIsLookedUpOnce) {
    PeAssembler pe;
    pe.section(".debug_info", 0x1000, peData).data.u32(1);
    SymMgrObjectPtr<IFileFormatHelper> helper = helperOf(pe);
    SymMgrObjectPtr<ISectionData> first;
    SymMgrObjectPtr<ISectionData> second;
    helper->getSectionData(first, section_debug_info);
    helper->getSectionData(second, section_debug_info);
    ASSERT_TRUE(first);
    EXPECT_EQ(first, second);
    helper->getSectionData(second, section_debug_line);
    EXPECT_FALSE(second);
}

TEST_F(PEHelperTest, ACompressedSectionIsInflated) {
    const Bytes contents(1000, 0x5A);
    orn_test::ByteAssembler block;
    block.chars("ZLIB").raw({0, 0, 0, 0, 0, 0, 0x03, 0xE8}).raw(orn_test::zlibCompressed(contents));
    PeAssembler pe;
    pe.section(".zdebug_info", 0x1000, peData).data.raw(block.bytes());
    SymMgrObjectPtr<ISectionData> data;
    SymMgrObjectPtr<IFileFormatHelper> helper = helperOf(pe);
    helper->getSectionData(data, section_debug_info);
    ASSERT_TRUE(data);
    EXPECT_EQ(Bytes(data->getData(), data->getData() + data->getSize()), contents);
}

TEST_F(PEHelperTest, ThePlainSectionIsPreferredToTheCompressedOne) {
    PeAssembler pe;
    pe.section(".zdebug_info", 0x1000, peData).data.u32(1);
    pe.section(".debug_info", 0x2000, peData).data.u32(2);
    SymMgrObjectPtr<ISectionData> data;
    SymMgrObjectPtr<IFileFormatHelper> helper = helperOf(pe);
    helper->getSectionData(data, section_debug_info);
    ASSERT_TRUE(data);
    EXPECT_EQ(data->getIndex(), 1u);
}

TEST_F(PEHelperTest, ASectionThatIsNoSegmentIsNotThere) {
    PeAssembler pe;
    pe.section(".first", 0x1000, peData).data.fill(0x100);
    pe.section(".debug_info", 0x1000, peData).data.fill(0x100);
    SymMgrObjectPtr<ISectionData> data;
    SymMgrObjectPtr<IFileFormatHelper> helper = helperOf(pe);
    helper->getSectionData(data, section_debug_info);
    EXPECT_FALSE(data);
}

TEST_F(PEHelperTest, AddressesAndSectionsAreTheLoaders) {
    SymMgrObjectPtr<IFileFormatHelper> helper = helperOf(smallModule());
    EXPECT_EQ(helper->getImageBase(), 0x180000000u);
    EXPECT_TRUE(helper->isCodeOrDataAddress(0x180001000));
    EXPECT_TRUE(helper->isCodeOrDataAddress(0x180002000));
    EXPECT_FALSE(helper->isCodeOrDataAddress(0x180000000));
    SymMgrObjectPtr<ISection> section;
    helper->getSectionByIndex(section, 1);
    ASSERT_TRUE(section);
    EXPECT_STREQ(section->getName(), ".data");
    helper->getSectionByIndex(section, 2);
    EXPECT_FALSE(section);
    SymMgrObjectPtr<RelocationAddends> addends;
    helper->getRelocationAddends(addends, 0);
    EXPECT_FALSE(addends);
}

// --- Through the front door

class PEModuleTest : public PELoaderTest {
protected:
    SymMgrObjectPtr<IModuleSymbolBank> bankOf(const PeAssembler& pe) {
        loaderOf(pe);
        SymMgrObjectPtr<ISymbolManager> manager;
        EXPECT_EQ(ISymbolManager::create(manager), status_Ok);
        SymMgrObjectPtr<IModuleSymbolBank> bank;
        EXPECT_EQ(manager->loadSymbolsFromModule(path.c_str(), nullptr, bank, arch_unknown, false, nullptr),
                  status_Ok);
        return bank;
    }
};

TEST_F(PEModuleTest, AModuleLoadsWithoutASymbolFile) {
    PeAssembler pe = smallModule();
    pe.entry(0x1020).debugEntry(0x3000, typeCodeView, PeAssembler::rsds({}, 1, "module.pdb"));
    SymMgrObjectPtr<IModuleSymbolBank> bank = bankOf(pe);
    ASSERT_TRUE(bank);
    EXPECT_EQ(bank->execFileFormat(), exec_format_pe);
    EXPECT_EQ(bank->architecture(), arch_x86_64);
    EXPECT_EQ(bank->symFileFormat(), static_cast<unsigned>(symbol_file_none));
    EXPECT_EQ(bank->preferredLoadAddress(), 0x180000000u);
    ASSERT_TRUE(bank->entryPoint());
    EXPECT_EQ(bank->entryPoint()->rva(), 0x1020u);
    SymMgrObjectPtr<IAddress> address;
    EXPECT_EQ(bank->addressFromRVA(0, address), status_Fail) << "no segment holds the headers";
    EXPECT_FALSE(address);
    SymMgrObjectPtr<ISection> section;
    EXPECT_EQ(bank->sectionByName(".text", section), status_Ok);
    EXPECT_TRUE(section);
}

TEST_F(PEModuleTest, TraitsTellManagedCodeAndNativeCodeBesideIt) {
    unsigned traits = 99;
    EXPECT_EQ(bankOf(smallModule())->moduleTraits(traits), status_Ok);
    EXPECT_EQ(traits, 0u);

    PeAssembler managed = smallModule();
    managed.clrHeader(0x3000, 0);
    EXPECT_EQ(bankOf(managed)->moduleTraits(traits), status_Ok);
    EXPECT_EQ(traits, 1u);

    PeAssembler native = smallModule();
    native.clrHeader(0x3000, 0x4000);
    native.section(".native", 0x4000, peReadOnly).data.raw(PeAssembler::readyToRunHeader());
    EXPECT_EQ(bankOf(native)->moduleTraits(traits), status_Ok);
    EXPECT_EQ(traits, 3u);
}

} // namespace
} // namespace ORN_3_30
