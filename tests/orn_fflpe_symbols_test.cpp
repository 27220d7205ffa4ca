// Facts about the symbols of a PE module: which exports become symbols, how they are called, where they end,
// and what a damaged export table gives.

#include "orn_fflpe.h"

#include "orn/module_symbol_bank.h"
#include "orn/symbol_manager.h"
#include "support/allocation.h"
#include "support/orn_fixture.h"
#include "support/pe_assembler.h"
#include "support/recording_sink.h"
#include "support/temp_dir.h"

#include <set>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

namespace ORN_3_30 {
namespace {

using orn_test::PeAssembler;
using orn_test::PeClass;
using orn_test::peCode;
using orn_test::peData;
using orn_test::PeExports;
using orn_test::peReadOnly;
using orn_test::putNumber;
using orn_test::RecordingSink;
using testing::ElementsAre;
using testing::IsEmpty;

using Bytes = std::vector<uint8_t>;

constexpr unsigned long long base = 0x180000000;

// Offsets in the export directory.
constexpr unsigned atCharacteristics = 0;
constexpr unsigned atMajorVersion = 8;
constexpr unsigned atMinorVersion = 10;
constexpr unsigned atNumberOfFunctions = 20;
constexpr unsigned atNumberOfNames = 24;
constexpr unsigned atAddressOfFunctions = 28;
constexpr unsigned atAddressOfNames = 32;
constexpr unsigned atAddressOfNameOrdinals = 36;

class OpenLoader : public PEExecFileLoader {
public:
    using PEExecFileLoader::addSectionEnds;
    using PEExecFileLoader::PEExecFileLoader;
};

/// ".text" at 0x1000, ".data" at 0x2000, exports at 0x3000 as section 2.
PeAssembler codeAndData(PeClass peClass = PeClass::k64) {
    PeAssembler pe(peClass);
    pe.section(".text", 0x1000, peCode).data.fill(0x100, 0xC3);
    pe.section(".data", 0x2000, peData).data.fill(0x100, 0xDD);
    pe.exports(0x3000);
    return pe;
}

class PESymbolsTest : public test::OrnTest {
protected:
    status_t read(const Bytes& bytes, LoadFilter* filter = nullptr) {
        sink = SymMgrObjectPtr<RecordingSink>(new RecordingSink);
        loader = new OpenLoader(
            directory.write("module.dll", {reinterpret_cast<const char*>(bytes.data()), bytes.size()})
                .c_str());
        return loader->readSymbols(sink.get(), filter, symbol_kind_none);
    }
    status_t read(const PeAssembler& pe) { return read(pe.build()); }

    /// The place of a field of the export directory.
    static size_t field(const PeAssembler& pe, unsigned offset, unsigned section = 2) {
        return pe.layout().sections[section] + offset;
    }

    orn_test::TempDir directory;
    SymMgrObjectPtr<OpenLoader> loader;
    SymMgrObjectPtr<RecordingSink> sink;
};

// --- Which exports are symbols

TEST_F(PESymbolsTest, AnExportOfCodeIsAGlobalSymbolWithoutSize) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).add("function", 0x1010);
    EXPECT_EQ(read(pe), status_Ok);
    ASSERT_EQ(sink->entries.size(), 1u);
    const RecordingSink::Entry& entry = sink->entries[0];
    EXPECT_EQ(entry.name, "function");
    EXPECT_EQ(entry.low, base + 0x1010);
    EXPECT_EQ(entry.high, base + 0x1010);
    EXPECT_EQ(entry.kind, symbol_kind_other);
    EXPECT_EQ(entry.visibility, symbol_visibility_global);
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
    entry.scope->symbol()->ranges(ranges);
    ASSERT_TRUE(ranges && ranges->current());
    EXPECT_EQ(ranges->current()->size(), 0u);
}

TEST_F(PESymbolsTest, ANarrowModuleHasSymbolsToo) {
    PeAssembler pe = codeAndData(PeClass::k32);
    pe.exports(0x3000).add("function", 0x1010);
    EXPECT_EQ(read(pe), status_Ok);
    ASSERT_TRUE(sink->find("function"));
    EXPECT_EQ(sink->find("function")->low, 0x401010u);
}

TEST_F(PESymbolsTest, AnExportWithoutNameIsCalledByItsOrdinal) {
    PeAssembler pe = codeAndData();
    PeExports& exports = pe.exports(0x3000);
    for (uint32_t i = 0; i < 4; ++i)
        exports.add("f" + std::to_string(i), 0x1000 + i);
    exports.addUnnamed(0x1020);
    EXPECT_EQ(read(pe), status_Ok);
    EXPECT_THAT(sink->names(), ElementsAre("f0", "f1", "f2", "f3", "ORD_5"));
}

TEST_F(PESymbolsTest, AnEmptyNameIsNone) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).base(7).add("", 0x1000);
    EXPECT_EQ(read(pe), status_Ok);
    EXPECT_THAT(sink->names(), ElementsAre("ORD_7"));
}

TEST_F(PESymbolsTest, OrdinalsCountFromTheBase) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).base(0xFFFFFFFF).addUnnamed(0x1000);
    pe.exports(0x3000).addUnnamed(0x1001);
    EXPECT_EQ(read(pe), status_Ok);
    EXPECT_THAT(sink->names(), ElementsAre("ORD_4294967295", "ORD_4294967296"));
}

TEST_F(PESymbolsTest, AHoleInTheTableIsNoExport) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).addUnnamed(0);
    pe.exports(0x3000).add("behind", 0x1000);
    EXPECT_EQ(read(pe), status_Ok);
    EXPECT_THAT(sink->names(), ElementsAre("behind"));
}

TEST_F(PESymbolsTest, AnExportOfDataIsNoSymbol) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).add("variable", 0x2010);
    pe.exports(0x3000).add("nowhere", 0x8000);
    EXPECT_EQ(read(pe), status_Ok);
    EXPECT_THAT(sink->names(), IsEmpty());
}

TEST_F(PESymbolsTest, AForwardedExportIsNoSymbol) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).addForwarder("elsewhere", "other.function");
    pe.exports(0x3000).add("here", 0x1000);
    EXPECT_EQ(read(pe), status_Ok);
    EXPECT_THAT(sink->names(), ElementsAre("here"));
}

TEST_F(PESymbolsTest, TheEndOfCodeStillCountsAsCode) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).add("end", 0x1100);
    pe.exports(0x3000).add("behind", 0x1101);
    EXPECT_EQ(read(pe), status_Ok);
    EXPECT_THAT(sink->names(), ElementsAre("end"));
}

TEST_F(PESymbolsTest, OfSeveralNamesTheFirstIsTheSymbols) {
    PeAssembler pe = codeAndData();
    PeExports& exports = pe.exports(0x3000);
    const uint16_t second = exports.addUnnamed(0x1000) + 1;
    exports.alias("zulu", 0).alias("second", second).alias("alpha", 0);
    exports.addUnnamed(0x1040);
    EXPECT_EQ(read(pe), status_Ok);
    EXPECT_THAT(sink->names(), ElementsAre("zulu", "second"));
}

TEST_F(PESymbolsTest, ANameOfAnIndexBeyondTheTableIsNobodys) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).add("function", 0x1000);
    pe.exports(0x3000).alias("stray", 0xFFFF);
    EXPECT_EQ(read(pe), status_Ok);
    EXPECT_THAT(sink->names(), ElementsAre("function"));
}

TEST_F(PESymbolsTest, ALongNameIsCutAt255) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).add(std::string(300, 'n'), 0x1000);
    pe.exports(0x3000).add(std::string(255, 'm'), 0x1001);
    EXPECT_EQ(read(pe), status_Ok);
    EXPECT_THAT(sink->names(), ElementsAre(std::string(255, 'n'), std::string(255, 'm')));
}

TEST_F(PESymbolsTest, ANameMayBeCutByTheFilesEnd) {
    PeAssembler pe = codeAndData();
    pe.fileAlignment(1).exports(0x3000).add("function", 0x1000);
    Bytes bytes = pe.build();
    bytes.resize(bytes.size() - 4);
    EXPECT_EQ(read(bytes), status_Ok);
    EXPECT_THAT(sink->names(), ElementsAre("funct"));
}

TEST_F(PESymbolsTest, TheAskedKindsDoNotMatter) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).add("function", 0x1010);
    EXPECT_EQ(read(pe), status_Ok);
    EXPECT_EQ(loader->readSymbols(sink.get(), nullptr, symbol_kind_variable), status_Ok);
    EXPECT_EQ(sink->entries.size(), 2u);
}

TEST_F(PESymbolsTest, AnAnnouncedAddressKeepsNoExportOut) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).add("function", 0x1010);
    const std::set<unsigned long long> announced{0x42};
    LoadFilter filter(&announced);
    EXPECT_EQ(read(pe.build(), &filter), status_Ok);
    EXPECT_THAT(sink->names(), ElementsAre("function")) << "an interval without bytes always passes";
}

TEST_F(PESymbolsTest, SeveralThreadsMayBeTheFirstToAsk) {
    PeAssembler pe = codeAndData();
    pe.section(".a_long_name", 0x4000, peData).data.fill(4);
    pe.exports(0x3000).add("function", 0x1010);
    ASSERT_EQ(read(pe), status_Ok);
    SymMgrObjectPtr<PEExecFileLoader> fresh(new PEExecFileLoader(loader->getPath()));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&fresh] {
            EXPECT_NE(fresh->findSegmentByName(".a_long_name"), nullptr);
            SymMgrObjectPtr<ISection> section;
            fresh->getSectionByName(section, ".a_long_name");
            EXPECT_TRUE(section);
            SymMgrObjectPtr<RecordingSink> own(new RecordingSink);
            EXPECT_EQ(fresh->readSymbols(own.get(), nullptr, symbol_kind_all), status_Ok);
            EXPECT_EQ(own->entries.size(), 1u);
        });
    for (std::thread& thread : threads)
        thread.join();
}

// --- Section ends

TEST_F(PESymbolsTest, EverySectionTellsItsEnd) {
    PeAssembler pe = codeAndData();
    pe.sectionAt(1).virtualSize = 0x1234;
    pe.exports(0x3000).add("function", 0x1010);
    EXPECT_EQ(read(pe), status_Ok);
    ASSERT_EQ(sink->sectionEnds.size(), 3u);
    EXPECT_EQ(sink->sectionEnds[0].low, base + 0x1100);
    EXPECT_EQ(sink->sectionEnds[0].high, base + 0x1100);
    EXPECT_EQ(sink->sectionEnds[1].low, base + 0x3234);
}

TEST_F(PESymbolsTest, WithoutExportsThereAreTheSectionEnds) {
    PeAssembler pe;
    pe.section(".text", 0x1000, peCode).data.fill(0x100);
    EXPECT_EQ(read(pe), status_False);
    EXPECT_THAT(sink->names(), IsEmpty());
    ASSERT_EQ(sink->sectionEnds.size(), 1u);
    EXPECT_EQ(sink->sectionEnds[0].low, base + 0x1100);
}

TEST_F(PESymbolsTest, AFileThatIsGoneGivesNothing) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).add("function", 0x1010);
    ASSERT_EQ(read(pe), status_Ok);
    ::unlink(directory.path("module.dll").c_str());
    sink = SymMgrObjectPtr<RecordingSink>(new RecordingSink);
    EXPECT_EQ(loader->readSymbols(sink.get(), nullptr, symbol_kind_all), status_False);
    EXPECT_THAT(sink->names(), IsEmpty());
    EXPECT_THAT(sink->sectionEnds, IsEmpty());
}

// --- The directory

TEST_F(PESymbolsTest, ADirectoryWithReservedFieldsSetIsNone) {
    for (const auto& [offset, width] :
         {std::pair{atCharacteristics, 4U}, {atMajorVersion, 2U}, {atMinorVersion, 2U}}) {
        PeAssembler pe = codeAndData();
        pe.exports(0x3000).add("function", 0x1010);
        Bytes bytes = pe.build();
        putNumber(bytes, field(pe, offset), 1, width);
        EXPECT_EQ(read(bytes), status_False) << offset;
        EXPECT_THAT(sink->names(), IsEmpty());
    }
}

TEST_F(PESymbolsTest, ADiscardedDirectoryIsLookedForInLaterSections) {
    PeAssembler pe;
    pe.section(".text", 0x1000, peCode).data.fill(0x100, 0xC3);
    pe.section(".fake", 0x3000, peData).data.fill(0x100, 0xDD);
    pe.exports(0x3000).add("function", 0x1010);
    EXPECT_EQ(read(pe), status_Ok);
    EXPECT_THAT(sink->names(), ElementsAre("function"));
}

TEST_F(PESymbolsTest, TheFirstUsableDirectoryIsKept) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).add("function", 0x1010);
    pe.section(".late", 0x3000, peData).data.fill(0x100);
    // The late section is read at its own distance, where nothing but zeros lie: no function has an address.
    EXPECT_EQ(read(pe), status_Ok);
    EXPECT_THAT(sink->names(), IsEmpty());
    pe.sectionAt(3).shortName = "UPX1";
    EXPECT_EQ(read(pe), status_Ok);
    EXPECT_THAT(sink->names(), ElementsAre("function"));
}

TEST_F(PESymbolsTest, ASectionOfAPackedFileIsNoPlaceForExports) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).add("function", 0x1010);
    pe.sectionAt(2).shortName = "UPX0";
    EXPECT_EQ(read(pe), status_False);
    pe.sectionAt(2).shortName = "UP";
    EXPECT_EQ(read(pe), status_Ok);
}

TEST_F(PESymbolsTest, ADirectoryOutsideTheBytesOfEverySectionIsNone) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).add("function", 0x1010);
    pe.directory(0, 0x3200, 40);
    EXPECT_EQ(read(pe), status_False) << "one past the end";
    pe.directory(0, 0, 0);
    EXPECT_EQ(read(pe), status_False);
}

TEST_F(PESymbolsTest, ADirectoryCutShortEndsTheReadingOfHeaders) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).add("function", 0x1010);
    Bytes bytes = pe.build();
    bytes.resize(pe.layout().sections[2] + 39);
    expectLog("ASSERTION FAILED: 'readAt(file, offset, directory)'");
    EXPECT_EQ(read(bytes), status_False);
    EXPECT_EQ(loader->getStatus(), status_Ok);
    EXPECT_EQ(sink->sectionEnds.size(), 3u) << "the sections stay";
}

// --- Damaged arrays

TEST_F(PESymbolsTest, AnArrayOutsideTheFileCannotBeRead) {
    for (const unsigned offset : {atAddressOfFunctions, atAddressOfNames, atAddressOfNameOrdinals}) {
        PeAssembler pe = codeAndData();
        pe.exports(0x3000).add("function", 0x1010);
        Bytes bytes = pe.build();
        const uint32_t end = pe.layout().fileSize - pe.layout().sections[2] + 0x3000;
        putNumber(bytes, field(pe, offset), end - 1, 4);
        EXPECT_EQ(read(bytes), status_CantReadFile) << "a short read: " << offset;
        putNumber(bytes, field(pe, offset), 0xF0000000, 4);
        EXPECT_EQ(read(bytes), status_CantReadFile) << offset;
        putNumber(bytes, field(pe, offset), 0, 4);
        EXPECT_EQ(read(bytes), status_CantReadFile) << "in front of the section, which wraps: " << offset;
        EXPECT_THAT(sink->sectionEnds, IsEmpty());
    }
}

TEST_F(PESymbolsTest, CountsLargerThanTheFileCannotBeReadAndAskForNoMemory) {
    for (const unsigned offset : {atNumberOfFunctions, atNumberOfNames}) {
        PeAssembler pe = codeAndData();
        pe.exports(0x3000).add("function", 0x1010);
        Bytes bytes = pe.build();
        putNumber(bytes, field(pe, offset), 0xFFFFFFFF, 4);
        EXPECT_EQ(read(bytes), status_CantReadFile) << offset;
    }
}

TEST_F(PESymbolsTest, AnEmptyTableIsWellAndMayLieAnywhere) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000);
    Bytes bytes = pe.build();
    for (const unsigned offset : {atAddressOfFunctions, atAddressOfNames, atAddressOfNameOrdinals})
        putNumber(bytes, field(pe, offset), 0, 4);
    EXPECT_EQ(read(bytes), status_Ok);
    EXPECT_THAT(sink->names(), IsEmpty());
    EXPECT_EQ(sink->sectionEnds.size(), 3u);
}

TEST_F(PESymbolsTest, ANameOutsideTheFileEndsTheReading) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).add("first", 0x1010);
    pe.exports(0x3000).add("second", 0x1020);
    pe.exports(0x3000).addUnnamed(0x1030);
    Bytes bytes = pe.build();
    const size_t secondName = pe.layout().sections[2] + 40 + 3 * 4 + 4;
    putNumber(bytes, secondName, 0x3000 + 0x10000, 4);
    EXPECT_EQ(read(bytes), status_CantReadFile);
    EXPECT_THAT(sink->names(), ElementsAre("first")) << "what was read before stays";
}

TEST_F(PESymbolsTest, AForwardersNameIsReadBeforeItsAddressIsJudged) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).addForwarder("elsewhere", "other.function");
    Bytes bytes = pe.build();
    putNumber(bytes, pe.layout().sections[2] + 40 + 4, 0x3000 + 0x10000, 4);
    EXPECT_EQ(read(bytes), status_CantReadFile);
}

TEST_F(PESymbolsTest, ArraysWithoutMemoryAreReportedAsSuch) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__has_feature)
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer cannot live under a limit of addresses";
#elif __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
    GTEST_SKIP() << "a sanitizer cannot live under a limit of addresses";
#endif
#endif
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).add("function", 0x1010);
    Bytes bytes = pe.build();
    putNumber(bytes, field(pe, atNumberOfFunctions), 0xFFFFFFFF, 4);
    // A file with holes has all those functions and takes no room.
    const std::string path =
        directory.write("module.dll", {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    if (::truncate(path.c_str(), 20LL << 30) != 0)
        GTEST_SKIP() << "no files of 20 GiB here";
    SymMgrObjectPtr<OpenLoader> large(new OpenLoader(path.c_str()));
    sink = SymMgrObjectPtr<RecordingSink>(new RecordingSink);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_AS, &before), 0);
    rlimit tight = before;
    tight.rlim_cur = 12ULL << 30;
    ASSERT_EQ(::setrlimit(RLIMIT_AS, &tight), 0);
    const status_t status = large->readSymbols(sink.get(), nullptr, symbol_kind_all);
    ASSERT_EQ(::setrlimit(RLIMIT_AS, &before), 0);
    EXPECT_EQ(status, status_OutOfMemory);
    EXPECT_THAT(sink->names(), IsEmpty());
}

TEST_F(PESymbolsTest, NoAllocationFailureIsLostOrLeaks) {
    if (!test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).add("a_function_with_a_long_name_that_is_allocated", 0x1010);
    pe.exports(0x3000).addUnnamed(0x1020);
    ASSERT_EQ(read(pe), status_Ok);
    allowLog("Out of memory");
    for (unsigned long number = 1;; ++number) {
        SymMgrObjectPtr<RecordingSink> fresh(new RecordingSink);
        fresh->entries.reserve(8);
        fresh->sectionEnds.reserve(8);
        status_t status = status_Ok;
        bool happened = false;
        {
            test::FailingAllocation failing(number);
            status = loader->readSymbols(fresh.get(), nullptr, symbol_kind_all);
            happened = failing.happened();
        }
        if (!happened) {
            EXPECT_EQ(status, status_Ok);
            EXPECT_GT(number, 3u);
            return;
        }
        EXPECT_EQ(status, status_OutOfMemory) << number;
    }
}

// --- Function descriptors

/// A module whose global pointer is at RVA 0x2080 and whose export leads to a descriptor in ".text".
class PEDescriptorTest : public PESymbolsTest {
protected:
    static constexpr uint32_t globalPointer = 0x2080;

    static PeAssembler moduleWith(uint64_t entry, uint64_t gp) {
        PeAssembler pe;
        pe.machine(0x0200).directory(8, globalPointer, 0);
        pe.section(".text", 0x1000, peCode).data.fill(0x40, 0xC3).u64(entry).u64(gp).fill(0x40);
        pe.section(".data", 0x2000, peData).data.fill(0x100, 0xDD);
        pe.exports(0x3000).add("function", 0x1040);
        return pe;
    }
};

TEST_F(PEDescriptorTest, ADescriptorLeadsToItsEntry) {
    EXPECT_EQ(read(moduleWith(base + 0x1008, base + globalPointer)), status_Ok);
    ASSERT_TRUE(sink->find("function"));
    EXPECT_EQ(sink->find("function")->low, base + 0x1008);
    EXPECT_EQ(loader->getArch(), arch_itanium);
}

TEST_F(PEDescriptorTest, TheEntryMustBeCode) {
    EXPECT_EQ(read(moduleWith(base + 0x2008, base + globalPointer)), status_Ok);
    EXPECT_THAT(sink->names(), IsEmpty());
}

TEST_F(PEDescriptorTest, AnotherGlobalPointerIsNoDescriptor) {
    EXPECT_EQ(read(moduleWith(base + 0x1008, base + globalPointer + 8)), status_Ok);
    EXPECT_EQ(sink->find("function")->low, base + 0x1040);
}

TEST_F(PEDescriptorTest, WithoutGlobalPointerThereAreNoDescriptors) {
    PeAssembler pe = moduleWith(base + 0x1008, base);
    pe.directory(8, 0, 0);
    EXPECT_EQ(read(pe), status_Ok);
    EXPECT_EQ(sink->find("function")->low, base + 0x1040);
}

TEST_F(PEDescriptorTest, AnUnnamedExportIsNoDescriptor) {
    PeAssembler pe = moduleWith(base + 0x1008, base + globalPointer);
    pe.exports(0x3000).addUnnamed(0x1040);
    EXPECT_EQ(read(pe), status_Ok);
    ASSERT_TRUE(sink->find("ORD_2"));
    EXPECT_EQ(sink->find("ORD_2")->low, base + 0x1040);
}

TEST_F(PEDescriptorTest, WithoutImageBaseThereAreNoDescriptors) {
    PeAssembler pe = moduleWith(0x1008, globalPointer);
    pe.imageBase(0);
    EXPECT_EQ(read(pe), status_Ok);
    EXPECT_EQ(sink->find("function")->low, 0x1040u);
}

TEST_F(PEDescriptorTest, ANarrowModuleHasNoDescriptors) {
    PeAssembler pe(PeClass::k32);
    pe.directory(8, globalPointer, 0);
    pe.section(".text", 0x1000, peCode).data.fill(0x40, 0xC3).u64(0x401008).u64(0x400000 + globalPointer);
    pe.exports(0x3000).add("function", 0x1040);
    EXPECT_EQ(read(pe), status_Ok);
    EXPECT_EQ(sink->find("function")->low, 0x401040u);
}

TEST_F(PEDescriptorTest, TheFirstSectionTellsThePlaceInTheFile) {
    PeAssembler pe;
    pe.machine(0x0200).directory(8, globalPointer, 0);
    pe.section(".data", 0x4000, peData).data.fill(0x100, 0xDD);
    pe.section(".text", 0x1000, peCode).data.fill(0x40, 0xC3).u64(base + 0x1008).u64(base + globalPointer);
    pe.exports(0x3000).add("function", 0x1040);
    EXPECT_EQ(read(pe), status_Ok);
    EXPECT_EQ(sink->find("function")->low, base + 0x1040) << "read at another place, it is no descriptor";
}

// --- In the module's table

class PEQueryTest : public PESymbolsTest {
protected:
    void open(const PeAssembler& pe) {
        const Bytes bytes = pe.build();
        const std::string path =
            directory.write("module.dll", {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
        ASSERT_EQ(ISymbolManager::create(m_manager), status_Ok);
        ASSERT_EQ(m_manager->loadSymbolsFromModule(path.c_str(), nullptr, bank, arch_unknown, false, nullptr),
                  status_Ok);
    }
    SymMgrObjectPtr<ISymbolRange> rangeAt(unsigned long long rva) {
        SymMgrObjectPtr<IAddress> address;
        SymMgrObjectPtr<ISymbolRange> range;
        if (bank->addressFromRVA(rva, address) == status_Ok)
            (void)bank->symbolRangeByAddress(address.get(), range, symbol_kind_code, nullptr);
        return range;
    }
    std::string nameAt(unsigned long long rva) {
        SymMgrObjectPtr<ISymbolRange> range = rangeAt(rva);
        return range ? range->symbol()->rawName() : "(none)";
    }

    SymMgrObjectPtr<ISymbolManager> m_manager;
    SymMgrObjectPtr<IModuleSymbolBank> bank;
};

TEST_F(PEQueryTest, AnExportReachesToTheNextSymbol) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).add("first", 0x1010);
    pe.exports(0x3000).add("second", 0x1040);
    open(pe);
    EXPECT_EQ(nameAt(0x1000), "(none)");
    EXPECT_EQ(nameAt(0x1010), "first");
    EXPECT_EQ(nameAt(0x103F), "first");
    EXPECT_EQ(nameAt(0x1040), "second");
    ASSERT_TRUE(rangeAt(0x1010));
    EXPECT_EQ(rangeAt(0x1010)->sizeToNextSymbol(), 0x30u);
}

TEST_F(PEQueryTest, AnExportReachesToTheEndOfItsSection) {
    PeAssembler pe = codeAndData();
    pe.exports(0x3000).add("last", 0x1040);
    open(pe);
    EXPECT_EQ(nameAt(0x10FF), "last");
    EXPECT_EQ(nameAt(0x1100), "(none)");
    EXPECT_EQ(nameAt(0x2010), "(none)");
    ASSERT_TRUE(rangeAt(0x1040));
    EXPECT_EQ(rangeAt(0x1040)->sizeToNextSymbol(), 0xC0u);
}

TEST_F(PEQueryTest, AModuleWithoutExportsAnswersNothing) {
    PeAssembler pe;
    pe.section(".text", 0x1000, peCode).data.fill(0x100);
    open(pe);
    SymMgrObjectPtr<IAddress> address;
    SymMgrObjectPtr<ISymbolRange> range;
    ASSERT_EQ(bank->addressFromRVA(0x1010, address), status_Ok);
    EXPECT_EQ(bank->symbolRangeByAddress(address.get(), range, symbol_kind_code, nullptr), status_False);
}

} // namespace
} // namespace ORN_3_30
