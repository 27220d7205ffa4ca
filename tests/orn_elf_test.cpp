// Facts about ElfHelper: what it makes of headers, which sections it knows, which addresses are code and
// data, and what it borrows from a separate debug file.

#include "orn_elf.h"

#include "orn_relocations.h"
#include "support/elf_assembler.h"
#include "support/memory_image.h"
#include "support/orn_fixture.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace ORN_3_30 {
namespace {

using orn_test::ByteOrder;
using orn_test::ElfAssembler;
using orn_test::ElfClass;
using orn_test::ElfCompression;
using orn_test::ElfHeaders;
using orn_test::MemoryImage;

using Bytes = std::vector<uint8_t>;
using HelperPtr = SymMgrObjectPtr<ElfHelper>;

constexpr uint64_t codeFlags = SHF_ALLOC | SHF_EXECINSTR;
constexpr uint64_t dataFlags = SHF_ALLOC | SHF_WRITE;

HelperPtr helperOf(Bytes bytes, unsigned long long moduleOffset = 0) {
    return new ElfHelper(new MemoryImage(std::move(bytes), "/module", moduleOffset));
}

HelperPtr helperOf(const ElfAssembler& elf) {
    return helperOf(elf.build());
}

/// ".text" at 0x1000 in the first loadable segment and ".data" at 0x3000 in the second one.
struct SmallModule {
    explicit SmallModule(ElfClass elfClass = ElfClass::k64) : elf(elfClass) {
        text = elf.section(".text", SHT_PROGBITS, codeFlags).address(0x1000).zeros(0x100);
        data = elf.section(".data", SHT_PROGBITS, dataFlags).address(0x3000).zeros(0x100);
        elf.loadRange(0x1000, 0x1000, PF_R | PF_X);
        elf.loadRange(0x3000, 0x1000, PF_R | PF_W);
    }
    ElfAssembler elf;
    orn_test::ElfSection text = elf.sectionAt(0);
    orn_test::ElfSection data = elf.sectionAt(0);
};

class ProgramHeaderList : public ElfHelper::IProgramHeadersCallback {
public:
    void operator()(const Elf64_Phdr& header, unsigned index) override {
        EXPECT_EQ(index, headers.size());
        headers.push_back(header);
    }
    std::vector<Elf64_Phdr> headers;
};

class SectionHeaderList : public ElfHelper::ISectionHeadersCallback {
public:
    void operator()(const Elf64_Shdr& header, unsigned index) override {
        EXPECT_EQ(index, headers.size());
        headers.push_back(header);
    }
    std::vector<Elf64_Shdr> headers;
};

std::vector<Elf64_Phdr> keptHeaders(const ElfHelper& helper) {
    ProgramHeaderList list;
    helper.walkProgramHeaders(list);
    return list.headers;
}

std::vector<Elf64_Phdr> rawHeaders(const ElfHelper& helper) {
    ProgramHeaderList list;
    helper.walkRawProgramHeaders(list);
    return list.headers;
}

std::vector<Elf64_Shdr> sectionHeaders(const ElfHelper& helper) {
    SectionHeaderList list;
    helper.walkSectionHeaders(list);
    return list.headers;
}

std::string sectionText(ElfHelper& helper, unsigned index) {
    unsigned long long size = 0;
    std::unique_ptr<unsigned char[]> data(helper.getSectionData(index, size));
    return data ? std::string(reinterpret_cast<char*>(data.get()), size) : "(null)";
}

Bytes bytesOf(std::string_view text) {
    return Bytes(text.begin(), text.end());
}

using ElfHelperTest = test::OrnTest;

// --- The file header

TEST_F(ElfHelperTest, NullImageIsReportedAndInvalid) {
    expectLog("ASSERTION FAILED: 'm_fileImage!=NULL'");
    HelperPtr helper = new ElfHelper(nullptr);
    EXPECT_FALSE(helper->isValid());
    EXPECT_STREQ(helper->getPath(), "");
    EXPECT_EQ(helper->getModuleOffset(), 0u);
    unsigned long long size = 1;
    EXPECT_EQ(helper->getSectionData(0, size), nullptr);
    EXPECT_EQ(size, 0u);
}

TEST_F(ElfHelperTest, FileShorterThanTheIdentificationIsReportedAndInvalid) {
    expectLog("ASSERTION FAILED: '");
    EXPECT_FALSE(helperOf(Bytes(15, 0x7F))->isValid());
}

TEST_F(ElfHelperTest, OtherClassesAreRefusedWithThePath) {
    Bytes bytes = SmallModule().elf.build();
    bytes[EI_CLASS] = 3;
    expectLog("File /module has neither ELFCLASS32 nor ELFCLASS64");
    EXPECT_FALSE(helperOf(bytes)->isValid());
}

TEST_F(ElfHelperTest, MagicIsTestedInConstructionToo) {
    for (unsigned i = 0; i < SELFMAG; ++i) {
        Bytes bytes = SmallModule().elf.build();
        bytes[i] ^= 0x20;
        expectLog("ASSERTION FAILED: '");
        EXPECT_FALSE(helperOf(bytes)->isValid()) << i;
    }
}

TEST_F(ElfHelperTest, CutOffFileHeaderIsReportedAndInvalid) {
    for (ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        Bytes bytes = SmallModule(elfClass).elf.build();
        bytes.resize(elfClass == ElfClass::k64 ? 63 : 51);
        expectLog("ASSERTION FAILED: '");
        EXPECT_FALSE(helperOf(bytes)->isValid());
    }
}

TEST_F(ElfHelperTest, HeaderOf32BitsIsWidened) {
    SmallModule module(ElfClass::k32);
    module.elf.entry(0x1234).flags(0x5000000);
    HelperPtr helper = helperOf(module.elf);
    ASSERT_TRUE(helper->isValid());
    EXPECT_FALSE(helper->is64Bit());
    const Elf64_Ehdr& header = helper->getHeader();
    EXPECT_EQ(header.e_ident[EI_CLASS], ELFCLASS32);
    EXPECT_EQ(header.e_ident[EI_VERSION], EV_CURRENT);
    EXPECT_EQ(header.e_type, ET_DYN);
    EXPECT_EQ(header.e_machine, EM_386);
    EXPECT_EQ(header.e_version, static_cast<unsigned>(EV_CURRENT));
    EXPECT_EQ(header.e_entry, 0x1234u);
    EXPECT_EQ(header.e_flags, 0x5000000u);
    EXPECT_EQ(header.e_phnum, 2u);
    EXPECT_EQ(header.e_phentsize, sizeof(Elf32_Phdr));
    EXPECT_EQ(header.e_shentsize, sizeof(Elf32_Shdr));
}

TEST_F(ElfHelperTest, HeaderOf64BitsStandsAsItIs) {
    SmallModule module;
    Bytes bytes = module.elf.build();
    HelperPtr helper = helperOf(bytes);
    ASSERT_TRUE(helper->isValid());
    EXPECT_TRUE(helper->is64Bit());
    EXPECT_EQ(std::memcmp(&helper->getHeader(), bytes.data(), sizeof(Elf64_Ehdr)), 0);
}

TEST_F(ElfHelperTest, BigEndianFilesAreRefused) {
    SmallModule module;
    module.elf.dataEncoding(ELFDATA2MSB);
    expectLog("ASSERTION FAILED: '");
    EXPECT_FALSE(helperOf(module.elf)->isValid());
}

TEST_F(ElfHelperTest, UnknownDataEncodingIsRefused) {
    SmallModule module;
    module.elf.dataEncoding(ELFDATANONE);
    expectLog("ASSERTION FAILED: '");
    EXPECT_FALSE(helperOf(module.elf)->isValid());
}

TEST_F(ElfHelperTest, MachineOfExceptionsMaySayBigEndianAndIsReadAsLittleEndian) {
    SmallModule module;
    module.elf.dataEncoding(ELFDATA2MSB).machine(31);
    expectLog("Unknown binary architecture: 31");
    HelperPtr helper = helperOf(module.elf);
    EXPECT_TRUE(helper->isValid());
    EXPECT_EQ(helper->getHeader().e_ident[EI_DATA], ELFDATA2LSB);
    EXPECT_EQ(helper->getMachine(), 31);
}

TEST_F(ElfHelperTest, MachinesMapToArchitectures) {
    const std::pair<uint16_t, arch_t> machines[] = {
        {3, arch_ia32}, {45, arch_ia32},           {50, arch_itanium},        {62, arch_x86_64},
        {40, arch_arm}, {180, arch_coprocessor_1}, {181, arch_coprocessor_2},
    };
    for (auto [machine, arch] : machines) {
        SmallModule module;
        module.elf.machine(machine);
        EXPECT_EQ(helperOf(module.elf)->getArch(), arch) << machine;
    }
}

TEST_F(ElfHelperTest, UnknownMachineIsReportedAndTheFileReadAllTheSame) {
    SmallModule module;
    module.elf.machine(EM_AARCH64);
    expectLog("Unknown binary architecture: 183");
    HelperPtr helper = helperOf(module.elf);
    EXPECT_TRUE(helper->isValid());
    EXPECT_EQ(helper->getArch(), arch_unknown);
    EXPECT_TRUE(helper->isCodeAddress(0x1000));
}

// --- Program headers

TEST_F(ElfHelperTest, OnlyLoadableSegmentsAreKept) {
    for (ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        SmallModule module(elfClass);
        module.elf.segment(PT_NOTE).address(0x1000).memorySize(4);
        HelperPtr helper = helperOf(module.elf);
        std::vector<Elf64_Phdr> headers = keptHeaders(*helper);
        ASSERT_EQ(headers.size(), 2u);
        EXPECT_EQ(headers[0].p_vaddr, 0x1000u);
        EXPECT_EQ(headers[0].p_memsz, 0x1000u);
        EXPECT_EQ(headers[0].p_flags, static_cast<unsigned>(PF_R | PF_X));
        EXPECT_EQ(headers[1].p_vaddr, 0x3000u);
        EXPECT_EQ(headers[1].p_flags, static_cast<unsigned>(PF_R | PF_W));
        EXPECT_EQ(helper->getFirstLoadSize(), 0x1000u);
    }
}

TEST_F(ElfHelperTest, RawWalkSeesHeadersOfEveryTypeOfA64BitFile) {
    SmallModule module;
    module.elf.segment(PT_NOTE).address(0x1000).memorySize(4);
    const Bytes bytes = module.elf.build();
    HelperPtr helper = helperOf(bytes, 0x7000);
    std::vector<Elf64_Phdr> headers = rawHeaders(*helper);
    ASSERT_EQ(headers.size(), 3u);
    EXPECT_EQ(headers[2].p_type, static_cast<unsigned>(PT_NOTE));
    // Offsets as in the image: the walker reads through it.
    Elf64_Phdr first;
    std::memcpy(&first, bytes.data() + module.elf.layout().programHeaderOffset(0), sizeof(first));
    EXPECT_EQ(headers[0].p_offset, first.p_offset);
}

TEST_F(ElfHelperTest, RawWalkSeesNothingOfA32BitFile) {
    EXPECT_TRUE(rawHeaders(*helperOf(SmallModule(ElfClass::k32).elf)).empty());
}

TEST_F(ElfHelperTest, SegmentOffsetsIncludeTheModulesOffsetInItsFile) {
    SmallModule module;
    const uint64_t plain = keptHeaders(*helperOf(module.elf))[0].p_offset;
    HelperPtr helper = helperOf(module.elf.build(), 0x7000);
    EXPECT_EQ(helper->getModuleOffset(), 0x7000u);
    EXPECT_EQ(keptHeaders(*helper)[0].p_offset, plain + 0x7000);
}

TEST_F(ElfHelperTest, ImageBaseIsTheFirstLoadAddressWithoutItsPageOffset) {
    ElfAssembler elf;
    elf.section(".text", SHT_PROGBITS, codeFlags).address(0x401234).zeros(16);
    elf.loadAllSections();
    EXPECT_EQ(helperOf(elf)->getImageBase(), 0x401000u);
}

TEST_F(ElfHelperTest, WithoutLoadableSegmentsTheImageBaseStaysAllOnes) {
    ElfAssembler elf;
    elf.section(".text", SHT_PROGBITS, codeFlags).zeros(16);
    EXPECT_EQ(helperOf(elf)->getImageBase(), ~0ULL);
    elf.segment(PT_NOTE);
    HelperPtr helper = helperOf(elf);
    EXPECT_TRUE(helper->isValid());
    EXPECT_EQ(helper->getImageBase(), ~0ULL);
    EXPECT_TRUE(keptHeaders(*helper).empty());
}

TEST_F(ElfHelperTest, ProgramHeadersOutsideTheFileMakeItInvalidInSilence) {
    for (uint64_t offset : {uint64_t{0x100000}, ~uint64_t{0}, ~uint64_t{0} - 55}) {
        SmallModule module;
        module.elf.header().e_phoff = offset;
        HelperPtr helper = helperOf(module.elf);
        EXPECT_FALSE(helper->isValid());
        EXPECT_EQ(helper->getSectionCount(), 0u);
        EXPECT_TRUE(keptHeaders(*helper).empty());
    }
}

TEST_F(ElfHelperTest, ShortReadOfProgramHeadersIsReported) {
    SmallModule module;
    SymMgrObjectPtr<MemoryImage> image = new MemoryImage(module.elf.build());
    image->claimedSize = image->bytes.size();
    image->bytes.resize(sizeof(Elf64_Ehdr) + 60);
    expectLog("ASSERTION FAILED: '");
    HelperPtr helper = new ElfHelper(image.get());
    EXPECT_FALSE(helper->isValid());
}

TEST_F(ElfHelperTest, WithoutProgramHeadersTheirPlaceDoesNotMatter) {
    ElfAssembler elf;
    elf.section(".text", SHT_PROGBITS, codeFlags).zeros(16);
    elf.header().e_phoff = ~0ULL;
    EXPECT_TRUE(helperOf(elf)->isValid());
}

TEST_F(ElfHelperTest, HeaderTablesAreSteppedByTheFilesEntrySize) {
    for (ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        SmallModule module(elfClass);
        module.elf.programHeaderStride(72).sectionHeaderStride(80);
        HelperPtr helper = helperOf(module.elf);
        ASSERT_TRUE(helper->isValid());
        ASSERT_EQ(keptHeaders(*helper).size(), 2u);
        EXPECT_EQ(keptHeaders(*helper)[1].p_vaddr, 0x3000u);
        EXPECT_STREQ(helper->getSectionName(module.data.index()), ".data");
    }
}

TEST_F(ElfHelperTest, TableWithTooSmallEntriesReadsAsIfZerosFollowed) {
    SmallModule module;
    // 16 bytes a header: type, flags and offset of the first one; then bytes that were its address and size
    // stand for the second one's.
    module.elf.header().e_phentsize = 16;
    module.elf.header().e_phnum = 1;
    HelperPtr helper = helperOf(module.elf);
    ASSERT_TRUE(helper->isValid());
    std::vector<Elf64_Phdr> headers = keptHeaders(*helper);
    ASSERT_EQ(headers.size(), 1u);
    EXPECT_EQ(headers[0].p_flags, static_cast<unsigned>(PF_R | PF_X));
    EXPECT_EQ(headers[0].p_vaddr, 0u);
    EXPECT_EQ(headers[0].p_memsz, 0u);
}

TEST_F(ElfHelperTest, EntriesOfNoSizeAreAllZero) {
    SmallModule module;
    module.elf.header().e_phentsize = 0;
    module.elf.header().e_shentsize = 0;
    module.elf.header().e_shstrndx = 0;
    HelperPtr helper = helperOf(module.elf);
    EXPECT_TRUE(helper->isValid());
    EXPECT_TRUE(keptHeaders(*helper).empty());
    ASSERT_FALSE(sectionHeaders(*helper).empty());
    EXPECT_EQ(sectionHeaders(*helper)[1].sh_size, 0u);
}

// --- Section headers and names

TEST_F(ElfHelperTest, SectionHeadersOf32BitsAreWidened) {
    SmallModule module(ElfClass::k32);
    module.elf.symbol("main", 0x1000, 16);
    HelperPtr helper = helperOf(module.elf);
    const Elf64_Shdr* header = helper->getSectionHeader(helper->findSectionByName(".symtab"));
    ASSERT_NE(header, nullptr);
    EXPECT_EQ(header->sh_type, static_cast<unsigned>(SHT_SYMTAB));
    EXPECT_EQ(header->sh_size, 2 * sizeof(Elf32_Sym));
    EXPECT_EQ(header->sh_entsize, sizeof(Elf32_Sym));
    EXPECT_STREQ(helper->getSectionName(header->sh_link), ".strtab");
    EXPECT_EQ(header->sh_info, 1u);
    EXPECT_EQ(helper->getSectionHeader(module.text.index())->sh_addr, 0x1000u);
    EXPECT_EQ(helper->getSectionHeader(module.text.index())->sh_flags, codeFlags);
}

TEST_F(ElfHelperTest, ModuleWithoutSectionHeadersIsValid) {
    SmallModule module;
    module.elf.withoutSectionHeaders();
    HelperPtr helper = helperOf(module.elf);
    EXPECT_TRUE(helper->isValid());
    EXPECT_EQ(helper->getSectionCount(), 0u);
    EXPECT_STREQ(helper->getSectionName(0), "");
    EXPECT_FALSE(helper->isCodeAddress(0x1000));
}

TEST_F(ElfHelperTest, SectionHeadersOutsideTheFileMakeItInvalidInSilence) {
    for (uint64_t offset : {uint64_t{0x100000}, ~uint64_t{0}}) {
        SmallModule module;
        module.elf.header().e_shoff = offset;
        HelperPtr helper = helperOf(module.elf);
        EXPECT_FALSE(helper->isValid());
        EXPECT_TRUE(sectionHeaders(*helper).empty());
        EXPECT_TRUE(keptHeaders(*helper).empty()) << "walks do nothing in an invalid helper";
    }
}

TEST_F(ElfHelperTest, ShortReadOfSectionHeadersIsReported) {
    SmallModule module;
    SymMgrObjectPtr<MemoryImage> image = new MemoryImage(module.elf.build());
    image->claimedSize = image->bytes.size();
    image->bytes.pop_back();
    expectLog("ASSERTION FAILED: '");
    HelperPtr helper = new ElfHelper(image.get());
    EXPECT_FALSE(helper->isValid());
}

TEST_F(ElfHelperTest, WithoutNameTableEveryNameIsEmptyAndNothingIsFound) {
    SmallModule module;
    module.elf.symbol("main", 0x1000, 16);
    module.elf.withoutSectionNames();
    HelperPtr helper = helperOf(module.elf);
    EXPECT_TRUE(helper->isValid());
    for (unsigned index = 0; index < helper->getSectionCount(); ++index)
        EXPECT_STREQ(helper->getSectionName(index), "");
    EXPECT_EQ(helper->getSymTab(), nullptr);
    EXPECT_TRUE(helper->isCodeAddress(0x1000)) << "ranges need no names";
}

TEST_F(ElfHelperTest, UnreadableNameTableMakesTheFileInvalid) {
    SmallModule module;
    module.elf.sectionNames().header().sh_offset = 0x10000000;
    expectLog("Failed to read string table for file/module");
    EXPECT_FALSE(helperOf(module.elf)->isValid());
}

TEST_F(ElfHelperTest, NameTableIndexPastTheSectionsMakesTheFileInvalid) {
    SmallModule module;
    module.elf.header().e_shstrndx = 0xFFFF;
    expectLog("Failed to read string table for file/module");
    EXPECT_FALSE(helperOf(module.elf)->isValid());
}

TEST_F(ElfHelperTest, NameOffsetAtOrPastTheTablesEndIsNoName) {
    SmallModule module;
    HelperPtr sound = helperOf(module.elf);
    const uint64_t size = sound->getSectionHeader(sound->getHeader().e_shstrndx)->sh_size;
    EXPECT_STREQ(sound->getSectionName(module.text.index()), ".text");
    module.text.header().sh_name = size;
    module.data.header().sh_name = 0xFFFFFFFF;
    HelperPtr helper = helperOf(module.elf);
    EXPECT_STREQ(helper->getSectionName(module.text.index()), "");
    EXPECT_STREQ(helper->getSectionName(module.data.index()), "");
    EXPECT_STREQ(helper->getSectionName(0xFFFF), "");
    EXPECT_STREQ(helper->getSectionName(ElfHelper::noSection), "");
}

TEST_F(ElfHelperTest, NameTableWithoutFinalNulStillEndsItsLastName) {
    SmallModule module;
    HelperPtr sound = helperOf(module.elf);
    const unsigned names = sound->getHeader().e_shstrndx;
    const uint64_t nameOfText = sound->getSectionHeader(module.text.index())->sh_name;
    module.elf.sectionNames().header().sh_size = nameOfText + 3;
    HelperPtr helper = helperOf(module.elf);
    ASSERT_EQ(helper->getSectionHeader(names)->sh_size, nameOfText + 3);
    EXPECT_STREQ(helper->getSectionName(module.text.index()), ".te");
}

TEST_F(ElfHelperTest, KnownSectionsAreKept) {
    SmallModule module;
    module.elf.symbol("main", 0x1000, 16);
    module.elf.dynamicSymbols();
    module.elf.dynamicSymbol("exported", 0x1010, 16);
    auto plain = [&module](const char* name) {
        return module.elf.section(name).append({1, 2, 3, 4}).index();
    };
    const unsigned plt = plain(".plt");
    const unsigned link = plain(".gnu_debuglink");
    const unsigned id = plain(".note.gnu.build-id");
    const unsigned info = plain(".debug_info");
    const unsigned abbrev = plain(".debug_abbrev");
    const unsigned str = plain(".debug_str");
    const unsigned ranges = plain(".debug_ranges");
    const unsigned loc = plain(".debug_loc");
    const unsigned line = plain(".debug_line");
    const unsigned frame = plain(".eh_frame");
    HelperPtr helper = helperOf(module.elf);
    ASSERT_TRUE(helper->isValid());
    EXPECT_EQ(helper->getSymTab()->getIndex(), module.elf.symbols().section().index());
    EXPECT_EQ(helper->getStrTab()->getIndex(), module.elf.symbols().strings().index());
    EXPECT_EQ(helper->getDynSym()->getIndex(), module.elf.dynamicSymbols().section().index());
    EXPECT_EQ(helper->getDynStr()->getIndex(), module.elf.dynamicSymbols().strings().index());
    EXPECT_EQ(helper->getPltIndex(), plt);
    EXPECT_EQ(helper->getDebugLinkIndex(), link);
    EXPECT_EQ(helper->getBuildIdIndex(), id);
    EXPECT_EQ(helper->getDebugInfo()->getIndex(), info);
    EXPECT_EQ(helper->getDebugAbbrevIndex(), abbrev);
    EXPECT_EQ(helper->getDebugStr()->getIndex(), str);
    EXPECT_EQ(helper->getDebugRanges()->getIndex(), ranges);
    EXPECT_EQ(helper->getDebugLoc()->getIndex(), loc);
    EXPECT_EQ(helper->getDebugLineIndex(), line);
    EXPECT_EQ(helper->getEhFrame()->getIndex(), frame);
}

TEST_F(ElfHelperTest, SectionsThatAreNotThereHaveNoIndex) {
    HelperPtr helper = helperOf(SmallModule().elf);
    for (unsigned index : {helper->getPltIndex(), helper->getDebugLinkIndex(), helper->getBuildIdIndex(),
                           helper->getDebugAbbrevIndex(), helper->getDebugLineIndex()})
        EXPECT_EQ(index, 0xFFFFFFFFu);
    EXPECT_EQ(helper->getDebugInfo(), nullptr);
}

TEST_F(ElfHelperTest, CompressedNamesOfDebugSectionsCount) {
    SmallModule module;
    const unsigned info = module.elf.section(".zdebug_info").zeros(4).index();
    const unsigned abbrev = module.elf.section(".zdebug_abbrev").zeros(4).index();
    const unsigned line = module.elf.section(".zdebug_line").zeros(4).index();
    const unsigned frame = module.elf.section(".zeh_frame").zeros(4).index();
    module.elf.section(".zplt").zeros(4);
    module.elf.section(".z").zeros(4);
    HelperPtr helper = helperOf(module.elf);
    ASSERT_NE(helper->getDebugInfo(), nullptr);
    EXPECT_EQ(helper->getDebugInfo()->getIndex(), info);
    EXPECT_EQ(helper->getDebugAbbrevIndex(), abbrev);
    EXPECT_EQ(helper->getDebugLineIndex(), line);
    ASSERT_NE(helper->getEhFrame(), nullptr);
    EXPECT_EQ(helper->getEhFrame()->getIndex(), frame);
    EXPECT_EQ(helper->getPltIndex(), ElfHelper::noSection) << "exact names have no compressed form";
}

TEST_F(ElfHelperTest, NamesHaveToMatchAsAWhole) {
    SmallModule module;
    module.elf.section(".debug_info.dwo").zeros(4);
    module.elf.section("x.debug_str").zeros(4);
    module.elf.section(".zdebug_loc2").zeros(4);
    HelperPtr helper = helperOf(module.elf);
    EXPECT_EQ(helper->getDebugInfo(), nullptr);
    EXPECT_EQ(helper->getDebugStr(), nullptr);
    EXPECT_EQ(helper->getDebugLoc(), nullptr);
}

TEST_F(ElfHelperTest, FirstOfTwoSymbolTablesIsUsed) {
    SmallModule module;
    const unsigned first = module.elf.section(".symtab", SHT_SYMTAB).zeros(24).index();
    module.elf.section(".symtab", SHT_SYMTAB).zeros(48);
    const unsigned plt = module.elf.section(".plt").zeros(16).index();
    module.elf.section(".plt").zeros(32);
    HelperPtr helper = helperOf(module.elf);
    EXPECT_EQ(helper->getSymTab()->getIndex(), first);
    EXPECT_EQ(helper->getPltIndex(), plt);
}

TEST_F(ElfHelperTest, EmptySectionsAndThoseWithoutBytesAreNotTaken) {
    SmallModule module;
    module.elf.section(".debug_info");
    module.elf.section(".debug_str", SHT_NOBITS).size(100);
    const unsigned later = module.elf.section(".debug_str").zeros(4).index();
    HelperPtr helper = helperOf(module.elf);
    EXPECT_EQ(helper->getDebugInfo(), nullptr);
    ASSERT_NE(helper->getDebugStr(), nullptr);
    EXPECT_EQ(helper->getDebugStr()->getIndex(), later);
}

TEST_F(ElfHelperTest, KnownSectionCutOffByTheFilesEndMakesTheFileInvalid) {
    SmallModule module;
    module.elf.section(".debug_str").zeros(4).header().sh_size = 0x100000;
    expectLog("Section .debug_str in file /module has incorrect size or file is truncated");
    EXPECT_FALSE(helperOf(module.elf)->isValid());
}

TEST_F(ElfHelperTest, KnownSectionWhoseEndWrapsIsCutOffToo) {
    SmallModule module;
    auto section = module.elf.section(".debug_str").zeros(4);
    section.header().sh_offset = ~0ULL;
    section.header().sh_size = 2;
    expectLog("Section .debug_str in file /module has incorrect size or file is truncated");
    EXPECT_FALSE(helperOf(module.elf)->isValid());
}

TEST_F(ElfHelperTest, OtherSectionsMayReachPastTheFilesEnd) {
    SmallModule module;
    module.elf.section(".comment").zeros(4).header().sh_size = 0x100000;
    auto unnamed = module.elf.section("x").zeros(4);
    unnamed.header().sh_size = ~0ULL;
    unnamed.header().sh_name = 0;
    // Another one took the name already: it is none of the known sections any more.
    module.elf.section(".debug_str").zeros(4);
    module.elf.section(".debug_str").zeros(4).header().sh_size = 0x100000;
    EXPECT_TRUE(helperOf(module.elf)->isValid());
}

// --- Ranges

TEST_F(ElfHelperTest, ExecutableSectionsAreCode) {
    HelperPtr helper = helperOf(SmallModule().elf);
    EXPECT_FALSE(helper->isCodeAddress(0xFFF));
    EXPECT_TRUE(helper->isCodeAddress(0x1000));
    EXPECT_TRUE(helper->isCodeAddress(0x10FF));
    EXPECT_FALSE(helper->isCodeAddress(0x1100));
    EXPECT_FALSE(helper->isCodeAddress(0x3000));
    EXPECT_TRUE(helper->isCodeOrDataAddress(0x1000));
    EXPECT_TRUE(helper->isCodeOrDataAddress(0x30FF));
    EXPECT_FALSE(helper->isCodeOrDataAddress(0x3100));
}

TEST_F(ElfHelperTest, SmallGapsInsideOneLoadableSegmentAreClosed) {
    ElfAssembler elf;
    elf.section(".init", SHT_PROGBITS, codeFlags).address(0x1000).zeros(0x1A);
    elf.section(".text", SHT_PROGBITS, codeFlags).address(0x1020).zeros(0x20);
    elf.section(".data", SHT_PROGBITS, dataFlags).address(0x3000).zeros(0x11);
    elf.section(".more", SHT_PROGBITS, dataFlags).address(0x3020).zeros(0x11);
    elf.loadRange(0x1000, 0x1000, PF_R | PF_X);
    elf.loadRange(0x3000, 0x1000, PF_R | PF_W);
    HelperPtr helper = helperOf(elf);
    EXPECT_TRUE(helper->isCodeAddress(0x101F));
    EXPECT_TRUE(helper->isCodeOrDataAddress(0x301F));
    EXPECT_FALSE(helper->isCodeAddress(0x1040)) << "the next section lies in another segment";
    EXPECT_FALSE(helper->isCodeOrDataAddress(0x3031)) << "no next section";
}

TEST_F(ElfHelperTest, GapsInTheThirdSegmentStay) {
    ElfAssembler elf;
    elf.section(".a", SHT_PROGBITS, codeFlags).address(0x5000).zeros(0x10);
    elf.section(".b", SHT_PROGBITS, codeFlags).address(0x5020).zeros(0x10);
    elf.loadRange(0x1000, 0x1000, PF_R);
    elf.loadRange(0x3000, 0x1000, PF_R);
    elf.loadRange(0x5000, 0x1000, PF_R | PF_X);
    EXPECT_FALSE(helperOf(elf)->isCodeAddress(0x5010));
}

TEST_F(ElfHelperTest, DataOutsideTheFirstTwoLoadableSegmentsDoesNotCount) {
    ElfAssembler elf;
    elf.section(".first", SHT_PROGBITS, dataFlags).address(0x1000).zeros(0x10);
    elf.section(".second", SHT_PROGBITS, dataFlags).address(0x3000).zeros(0x10);
    elf.section(".third", SHT_PROGBITS, dataFlags).address(0x5000).zeros(0x10);
    for (uint64_t address : {0x1000, 0x3000, 0x5000})
        elf.loadRange(address, 0x800, PF_R | PF_W);
    HelperPtr helper = helperOf(elf);
    EXPECT_TRUE(helper->isCodeOrDataAddress(0x1000));
    EXPECT_TRUE(helper->isCodeOrDataAddress(0x3000));
    EXPECT_FALSE(helper->isCodeOrDataAddress(0x5000));
}

TEST_F(ElfHelperTest, DataThatReachesPastItsSegmentDoesNotCount) {
    SmallModule module;
    module.data.header().sh_size = 0x1001;
    EXPECT_FALSE(helperOf(module.elf)->isCodeOrDataAddress(0x3000));
    module.data.header().sh_size = 0x1000;
    EXPECT_TRUE(helperOf(module.elf)->isCodeOrDataAddress(0x3000));
}

TEST_F(ElfHelperTest, WritableOrAllocatedProgramSectionsAreData) {
    ElfAssembler elf;
    elf.section(".ro", SHT_PROGBITS, SHF_ALLOC).address(0x1000).zeros(0x10);
    elf.section(".note", SHT_NOTE, SHF_ALLOC).address(0x1100).zeros(0x10);
    elf.section(".bss", SHT_NOBITS, dataFlags).address(0x1200).size(0x10);
    elf.section(".tail", SHT_NOTE, SHF_ALLOC).address(0x1210).zeros(0x10);
    elf.loadRange(0x1000, 0x1000, PF_R | PF_W);
    HelperPtr helper = helperOf(elf);
    EXPECT_TRUE(helper->isCodeOrDataAddress(0x1000));
    EXPECT_FALSE(helper->isCodeOrDataAddress(0x1100));
    EXPECT_TRUE(helper->isCodeOrDataAddress(0x1200));
    EXPECT_FALSE(helper->isCodeOrDataAddress(0x1210));
}

TEST_F(ElfHelperTest, ReadOnlyDataCountsWhereverItLies) {
    ElfAssembler elf;
    elf.section(".rodata", SHT_PROGBITS, SHF_ALLOC).address(0x5000).zeros(0x10);
    elf.section(".rodata1", SHT_PROGBITS, SHF_ALLOC).address(0x6000).zeros(0x10);
    for (uint64_t address : {0x1000, 0x3000, 0x5000})
        elf.loadRange(address, 0x800, PF_R);
    HelperPtr helper = helperOf(elf);
    EXPECT_TRUE(helper->isCodeOrDataAddress(0x500F));
    EXPECT_FALSE(helper->isCodeOrDataAddress(0x5010));
    EXPECT_FALSE(helper->isCodeOrDataAddress(0x6000));
}

TEST_F(ElfHelperTest, ReadOnlyDataOverwritesNoRangeThatIsThere) {
    ElfAssembler elf;
    elf.section(".rodata", SHT_PROGBITS, SHF_ALLOC).address(0x1000).zeros(0x11);
    elf.section(".next", SHT_PROGBITS, SHF_ALLOC).address(0x1020).zeros(0x10);
    elf.loadRange(0x1000, 0x1000, PF_R);
    EXPECT_TRUE(helperOf(elf)->isCodeOrDataAddress(0x101F)) << "the range with its gap closed stays";
}

TEST_F(ElfHelperTest, LookupThatMissesIsRememberedAllTheSame) {
    // A short range hides the tail of a long one, unless the long one was looked at last.
    ElfAssembler elf;
    elf.section(".long", SHT_PROGBITS, codeFlags).address(0x1000).zeros(0x100);
    auto inner = elf.section(".inner", SHT_PROGBITS, codeFlags).address(0x2000).zeros(0x10);
    inner.header().sh_addr = 0x1040;
    HelperPtr helper = helperOf(elf);
    EXPECT_FALSE(helper->isCodeAddress(0x1080)) << "the range that begins last below it is too short";
    EXPECT_TRUE(helper->isCodeAddress(0x1000));
    EXPECT_TRUE(helper->isCodeAddress(0x1080)) << "inside the range that was hit last";
    EXPECT_TRUE(helper->isCodeAddress(0x1048)) << "still inside the range that was hit last";
    EXPECT_FALSE(helper->isCodeAddress(0x1100)) << "a miss, which makes the short range the last hit";
    EXPECT_TRUE(helper->isCodeAddress(0x1048));
    EXPECT_FALSE(helper->isCodeAddress(0x1080));
}

TEST_F(ElfHelperTest, RangeUpToTheEndOfTheAddressSpaceDoesNotWrap) {
    SmallModule module;
    module.text.header().sh_addr = ~0ULL - 0xFF;
    module.text.header().sh_size = 0x200;
    HelperPtr helper = helperOf(module.elf);
    EXPECT_TRUE(helper->isCodeAddress(~0ULL - 1));
    EXPECT_FALSE(helper->isCodeAddress(0x10));
}

TEST_F(ElfHelperTest, MachineOfExceptionsMarksAllocatedSectionsByAnotherFlag) {
    SmallModule module;
    module.elf.machine(31);
    const unsigned marked = module.elf.section(".a", SHT_PROGBITS, 0x100).zeros(4).index();
    const unsigned more = module.elf.section(".b", SHT_PROGBITS, 0x104).zeros(4).index();
    auto null = module.elf.section(".c", SHT_NULL, 0x100).zeros(4);
    expectLog("Unknown binary architecture: 31");
    HelperPtr helper = helperOf(module.elf);
    EXPECT_EQ(helper->getSectionHeader(marked)->sh_flags, static_cast<unsigned>(SHF_ALLOC));
    EXPECT_EQ(helper->getSectionHeader(more)->sh_flags, 0x104u);
    EXPECT_EQ(helper->getSectionHeader(null.index())->sh_flags, 0x100u);
    module.elf.machine(62);
    EXPECT_EQ(helperOf(module.elf)->getSectionHeader(marked)->sh_flags, 0x100u);
}

TEST_F(ElfHelperTest, MachineOfExceptionsHasLongerSymbolEntries) {
    expectLog("Unknown binary architecture: 31", 2);
    for (ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        const unsigned plain = elfClass == ElfClass::k64 ? 24 : 16;
        SmallModule module(elfClass);
        EXPECT_EQ(helperOf(module.elf)->getSymbolStride(), plain);
        module.elf.machine(31);
        EXPECT_EQ(helperOf(module.elf)->getSymbolStride(), plain + 4);
    }
}

// --- Contents

TEST_F(ElfHelperTest, SectionDataIsANewBlockEachTime) {
    SmallModule module;
    const unsigned index = module.elf.section(".comment").append(bytesOf("text")).index();
    HelperPtr helper = helperOf(module.elf);
    unsigned long long size = 0;
    std::unique_ptr<unsigned char[]> first(helper->getSectionData(index, size));
    std::unique_ptr<unsigned char[]> second(helper->getSectionData(index, size));
    ASSERT_NE(first, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(size, 4u);
    EXPECT_STREQ(reinterpret_cast<char*>(first.get()), "text") << "one NUL stands behind the contents";
}

TEST_F(ElfHelperTest, SectionDataIsDecompressed) {
    const Bytes contents = bytesOf(std::string(1000, 'x'));
    SmallModule module;
    const unsigned block = module.elf.compressedSection(".zdebug_x", contents).index();
    const unsigned flagged =
        module.elf.compressedSection(".debug_y", contents, ElfCompression::kChdrWithBigEndianSize).index();
    HelperPtr helper = helperOf(module.elf);
    EXPECT_EQ(sectionText(*helper, block), std::string(1000, 'x'));
    EXPECT_EQ(sectionText(*helper, flagged), std::string(1000, 'x'));
}

TEST_F(ElfHelperTest, SectionDataThatIsNotToBeHadIsNullInSilence) {
    SmallModule module;
    const unsigned cut = module.elf.section(".comment").zeros(4).index();
    module.elf.sectionAt(cut).header().sh_size = 0x100000;
    HelperPtr helper = helperOf(module.elf);
    EXPECT_EQ(sectionText(*helper, cut), "(null)");
    EXPECT_EQ(sectionText(*helper, helper->getSectionCount()), "(null)");
    EXPECT_EQ(sectionText(*helper, ElfHelper::noSection), "(null)");
    module.elf.withoutSectionHeaders();
    EXPECT_EQ(sectionText(*helperOf(module.elf), 1), "(null)");
}

TEST_F(ElfHelperTest, RefusedAllocationIsLoggedAndThrownOn) {
    SmallModule module;
    const unsigned huge = module.elf.section(".comment").zeros(4).index();
    module.elf.sectionAt(huge).header().sh_size = 1ULL << 63;
    module.elf.sectionAt(huge).header().sh_offset = 0;
    SymMgrObjectPtr<MemoryImage> image = new MemoryImage(module.elf.build());
    image->claimedSize = ~0ULL;
    HelperPtr helper = new ElfHelper(image.get());
    expectLog("can't allocate memory: 9223372036854775808\n");
    unsigned long long size = 0;
    EXPECT_THROW(helper->getSectionData(huge, size), std::bad_alloc);
}

TEST_F(ElfHelperTest, TableIsReadAtMostOnce) {
    SmallModule module;
    module.elf.symbol("main", 0x1000, 16);
    SymMgrObjectPtr<MemoryImage> image = new MemoryImage(module.elf.build());
    HelperPtr helper = new ElfHelper(image.get());
    const int before = image->reads;
    ElfHelper::SymbolTableData first = helper->loadSymbolTable();
    EXPECT_EQ(image->reads, before + 2) << "the table and its strings";
    ElfHelper::SymbolTableData second = helper->loadSymbolTable();
    EXPECT_EQ(image->reads, before + 2);
    EXPECT_EQ(first.entries, second.entries);
    EXPECT_EQ(first.entriesSize, 2 * sizeof(Elf64_Sym));
    EXPECT_EQ(first.bias, 0u);
    EXPECT_EQ(helper->loadDynamicSymbolTable().entries, nullptr);
}

// --- Relocation sections

TEST_F(ElfHelperTest, FirstRelocationSectionOfATargetWins) {
    SmallModule module;
    auto first = module.elf.relocations(".rela.one", SHT_RELA, module.text, 0u).add(8, 0, 0);
    module.elf.relocations(".rel.two", SHT_REL, module.text, 0u).add(8, 0, 0);
    HelperPtr helper = helperOf(module.elf);
    SymMgrObjectPtr<RelocationAddends> addends;
    helper->getRelocationAddends(addends, module.text.index());
    ASSERT_TRUE(addends);
    EXPECT_EQ(addends->getRelocationSection(), first.section().index());
    helper->getRelocationAddends(addends, module.data.index());
    EXPECT_FALSE(addends);
}

// --- Borrowed tables

ElfAssembler moduleAt(uint64_t base) {
    ElfAssembler elf;
    auto text = elf.section(".text", SHT_PROGBITS, codeFlags).address(base).zeros(0x100);
    elf.load({text});
    return elf;
}

/// Dynamic symbols whose tables have no addresses of their own.
void addDynamicSymbol(ElfAssembler& elf, const char* name, uint64_t value) {
    elf.dynamicSymbol(name, value, 16);
    elf.dynamicSymbols().section().flags(0);
    elf.dynamicSymbols().strings().flags(0);
}

TEST_F(ElfHelperTest, TablesOfADebugFileAreBorrowedWithTheDifferenceOfTheBases) {
    ElfAssembler debug = moduleAt(0x1000);
    debug.symbol("main", 0x1000, 16);
    addDynamicSymbol(debug, "exported", 0x1010);
    HelperPtr helper = helperOf(moduleAt(0x5000));
    {
        HelperPtr debugHelper = helperOf(debug);
        helper->mergeDebugFile(*debugHelper);
    }
    ASSERT_NE(helper->getSymTab(), nullptr);
    EXPECT_EQ(helper->getSymTab()->getBias(), 0x4000u);
    EXPECT_EQ(helper->getSymTab()->getIndex(), 0xFFFFFFFFu);
    EXPECT_EQ(helper->getSymTab()->getSize(), 2 * sizeof(Elf64_Sym));
    EXPECT_EQ(helper->getStrTab()->getBias(), 0x4000u);
    ASSERT_NE(helper->getDynSym(), nullptr);
    EXPECT_EQ(helper->getDynSym()->getSize(), 2 * sizeof(Elf64_Sym));
    ElfHelper::SymbolTableData table = helper->loadSymbolTable();
    EXPECT_EQ(table.bias, 0x4000u);
    EXPECT_STREQ(table.strings + 1, "main");
}

TEST_F(ElfHelperTest, OwnTablesAreNotReplaced) {
    ElfAssembler debug = moduleAt(0x1000);
    debug.symbol("main", 0x1000, 16);
    addDynamicSymbol(debug, "exported", 0x1010);
    ElfAssembler own = moduleAt(0x1000);
    own.symbol("own", 0x1000, 16);
    HelperPtr helper = helperOf(own);
    ISectionData* before = helper->getSymTab();
    HelperPtr debugHelper = helperOf(debug);
    helper->mergeDebugFile(*debugHelper);
    EXPECT_EQ(helper->getSymTab(), before);
    EXPECT_NE(helper->getDynSym(), nullptr) << "each pair stands for itself";
}

TEST_F(ElfHelperTest, TableWithoutStringsIsNotBorrowedAndBlocksNoLoan) {
    ElfAssembler debug = moduleAt(0x1000);
    debug.section(".symtab", SHT_SYMTAB).zeros(48);
    HelperPtr helper = helperOf(moduleAt(0x1000));
    HelperPtr debugHelper = helperOf(debug);
    helper->mergeDebugFile(*debugHelper);
    EXPECT_EQ(helper->getSymTab(), nullptr);

    ElfAssembler own = moduleAt(0x1000);
    own.section(".strtab", SHT_STRTAB).zeros(4);
    debug = moduleAt(0x1000);
    debug.symbol("main", 0x1000, 16);
    HelperPtr half = helperOf(own);
    HelperPtr whole = helperOf(debug);
    half->mergeDebugFile(*whole);
    EXPECT_EQ(half->getSymTab(), nullptr) << "only a module with neither borrows";
}

TEST_F(ElfHelperTest, DebugFileThatLiesHigherLendsNothing) {
    ElfAssembler debug = moduleAt(0x5000);
    debug.symbol("main", 0x5000, 16);
    HelperPtr helper = helperOf(moduleAt(0x1000));
    HelperPtr debugHelper = helperOf(debug);
    expectLog("ASSERTION FAILED: 'm_imageBase >= elfHelper->getImageBase()'");
    helper->mergeDebugFile(*debugHelper);
    EXPECT_EQ(helper->getSymTab(), nullptr);
}

TEST_F(ElfHelperTest, MergeWithItselfDoesNothing) {
    HelperPtr helper = helperOf(moduleAt(0x1000));
    helper->mergeDebugFile(*helper);
    EXPECT_EQ(helper->getSymTab(), nullptr);
}

TEST_F(ElfHelperTest, SectionsTakeThePlaceOfSegments) {
    SmallModule module;
    HelperPtr helper = helperOf(module.elf);
    EXPECT_TRUE(helper->isCodeAddress(0x1000));
    helper->layOutBySections(0x20, 0x10, 0x40, 0x10);
    EXPECT_EQ(helper->getImageBase(), 0x20u);
    EXPECT_EQ(helper->getFirstLoadSize(), 0x10u);
    EXPECT_FALSE(helper->isCodeAddress(0x1000));
    EXPECT_TRUE(helper->isCodeAddress(0x2F));
    EXPECT_TRUE(helper->isCodeOrDataAddress(0x4F));
    EXPECT_FALSE(helper->isCodeOrDataAddress(0x3000));
}

} // namespace
} // namespace ORN_3_30
