#include "orn_fflkor.h"

#include "fuzz_targets.h"
#include "orn/module_symbol_bank.h"
#include "orn/symbol_manager.h"
#include "orn_fflelf.h"
#include "support/allocation.h"
#include "support/command.h"
#include "support/elf_assembler.h"
#include "support/kor_module.h"
#include "support/orn_fixture.h"

#include <filesystem>

namespace ORN_3_30::test {
namespace {

using orn_test::ElfAssembler;
using orn_test::KorIsaAssembler;
using orn_test::LunAssembler;
using orn_test::MiraObject;
using orn_test::TavAssembler;
using Bytes = std::vector<std::uint8_t>;
using Texts = std::vector<std::string>;

constexpr char bogusSymbol[] = "TAV format, creating bogus symbol to continue resolving";

class KorBinTest : public OrnTest {
protected:
    static std::string contents() { return std::string(0x200, '\1'); }
    static TavAssembler tav() {
        TavAssembler file;
        file.sourceFile("a.cl").kernel("add").kernel("mul");
        return file.lines(0, {{0x10, 42, 10, 0}}).lines(1, {{0x10, 77, 1, 0}});
    }

    SymMgrObjectPtr<KorBinFileLoader> open(unsigned arch, const std::string& bytes = contents(),
                                           const char* kernel = "add") {
        path = directory.write("k.clbin", bytes);
        loader = new KorBinFileLoader(path.c_str(), kernel, static_cast<arch_t>(arch));
        return loader;
    }
    Texts symbols() {
        GlobalScope scope(loader.get(), nullptr, nullptr);
        SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
        static_cast<void>(scope.symbolRanges(ranges, 0, ~0ULL, symbol_kind_all));
        Texts all;
        for (auto range = ranges ? ranges->current() : nullptr; range;
             range = ranges->next() ? ranges->current() : nullptr)
            all.push_back(KorModule::textOf(*range));
        return all;
    }
    SymMgrObjectPtr<ISymbolFileToResolve> candidate() {
        SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>> candidates;
        EXPECT_EQ(loader->getSymbolFiles(candidates), status_Ok);
        const SymMgrObjectPtr<ISymbolFileToResolve> first = candidates->current();
        EXPECT_FALSE(candidates->next()) << "there is one";
        return first;
    }
    SymMgrObjectPtr<IDebugInfoLoader> debug() {
        static_cast<void>(candidate());
        SymMgrObjectPtr<IDebugInfoLoader> out;
        EXPECT_EQ(loader->getDebugInfoLoader(out, 0), status_Ok);
        return out;
    }

    orn_test::TempDir directory;
    std::string path;
    SymMgrObjectPtr<KorBinFileLoader> loader;
};

/// What its extension points give.
class OpenBinary : public KorBinFileLoader {
public:
    using KorBinFileLoader::addSectionEnds;
    using KorBinFileLoader::createDebugInfoLoader;
    using KorBinFileLoader::KorBinFileLoader;
};

} // namespace

// --- Recognition

TEST_F(KorBinTest, ABinaryIsKnownByItsPath) {
    for (const char* known :
         {"k.clbin", "k.metalbin", "/a/k.clbin", "k.clbin.bak", "/k.clbin/file", ".clbin"})
        EXPECT_TRUE(isKorBin(known)) << known;
    for (const char* other : {"k.CLBIN", "k.clbi", "clbin", "k.metal", "", "k.clpdb"})
        EXPECT_FALSE(isKorBin(other)) << other;
    EXPECT_FALSE(isKorBin(nullptr));
}

TEST_F(KorBinTest, RecognitionMakesALoaderOfIt) {
    for (const char* name : {"k.clbin", "k.metalbin", "k.clbin.old"}) {
        const std::string file = directory.write(name, contents());
        SymMgrObjectPtr<IFileFormatLoader> out;
        EXPECT_EQ(IFileFormatLoader::create(out, IModuleImage::create(file.c_str(), arch_gpu_either, false),
                                            "kernel"),
                  status_Ok);
        ASSERT_TRUE(dynamic_cast<KorBinFileLoader*>(out.get()));
        EXPECT_EQ(out->getPath(), file);
        EXPECT_EQ(out->getExecFormat(), exec_format_gpu);
        EXPECT_EQ(out->getArch(), arch_gpu_either);
        EXPECT_STREQ(out->getKernelName(), "kernel");
    }
}

TEST_F(KorBinTest, NoKernelNameIsAnEmptyOne) {
    const std::string file = directory.write("k.clbin", contents());
    SymMgrObjectPtr<IFileFormatLoader> out;
    EXPECT_EQ(
        IFileFormatLoader::create(out, IModuleImage::create(file.c_str(), arch_unknown, false), nullptr),
        status_Ok);
    EXPECT_STREQ(out->getKernelName(), "");
}

TEST_F(KorBinTest, AnELFFileIsOneWhateverItsName) {
    ElfAssembler elf;
    const std::string file = directory.write("k.clbin", asText(elf.build()));
    SymMgrObjectPtr<IFileFormatLoader> out;
    EXPECT_EQ(IFileFormatLoader::create(out, IModuleImage::create(file.c_str(), arch_unknown, false), "k"),
              status_Ok);
    EXPECT_TRUE(dynamic_cast<ElfFileLoader*>(out.get()));
}

// --- The file

TEST_F(KorBinTest, NothingButTheSizeIsKnown) {
    open(10);
    EXPECT_EQ(loader->getStatus(), status_Ok);
    EXPECT_EQ(loader->getImageBase(), 0u);
    EXPECT_EQ(loader->getEntryPoint(), 0u);
    EXPECT_EQ(loader->getImageSize(), 0x200u);
    EXPECT_FALSE(loader->isReadyToRun());
    SymMgrObjectPtr<ISection> section;
    loader->getSectionByName(section, ".text");
    EXPECT_FALSE(section);
    loader->getSectionByIndex(section, 0);
    EXPECT_FALSE(section);
    const SymMgrObjectPtr<OpenBinary> binary = new OpenBinary(path.c_str(), "k", arch_gpu_lun_first);
    binary->addSectionEnds(nullptr);
}

TEST_F(KorBinTest, OneSegmentCoversTheFile) {
    open(10);
    ISegment* segment = loader->getSegmentAt(1);
    ASSERT_TRUE(segment);
    EXPECT_EQ(loader->getSegmentAt(2), nullptr);
    EXPECT_STREQ(segment->getName(), ".text");
    EXPECT_EQ(segment->getRva(), 0u);
    EXPECT_EQ(segment->getFileOffset(), 0u);
    EXPECT_EQ(segment->getFileSize(), 0x200u);
    EXPECT_EQ(segment->getMemorySize(), 0x200u);
    EXPECT_EQ(segment->getKind(), 1u);
    EXPECT_EQ(loader->findSegment(0x200), segment);
    EXPECT_EQ(loader->findSegment(0x201), nullptr);
    SymMgrObjectPtr<IBuffer> buffer;
    EXPECT_EQ(segment->read(buffer), status_Ok);
    EXPECT_EQ(buffer->size(), 0x200u);
}

TEST_F(KorBinTest, AnEmptyFileHasASegmentWithoutExtent) {
    open(10, "");
    ASSERT_TRUE(loader->findSegment(0));
    EXPECT_EQ(loader->findSegment(0)->getMemorySize(), 0u);
    EXPECT_EQ(loader->findSegment(1), nullptr);
}

TEST_F(KorBinTest, AFileThatCannotBeOpenedHasSizeZero) {
    const SymMgrObjectPtr<KorBinFileLoader> missing =
        new KorBinFileLoader(directory.path("missing.clbin").c_str(), "k", arch_gpu_lun_first);
    EXPECT_EQ(missing->getImageSize(), 0u);
    EXPECT_EQ(missing->getStatus(), status_Ok);
    const SymMgrObjectPtr<KorBinFileLoader> nameless = new KorBinFileLoader(nullptr, nullptr, arch_unknown);
    EXPECT_STREQ(nameless->getPath(), "");
    expectLog("ASSERTION FAILED: 'status == fosOK'", 2);
}

// --- Symbols

TEST_F(KorBinTest, TheOlderArchitecturesHaveOneSymbolForAllCode) {
    for (const unsigned arch : {8u, 9u}) {
        open(arch);
        EXPECT_EQ(symbols(), Texts{".code_kor 0x0-0x200"});
    }
    EXPECT_EQ(messages(warningLevel).size(), 2u);
    expectLog(bogusSymbol, 2);
}

TEST_F(KorBinTest, TheSymbolIsLocalAndOfTheOtherKind) {
    open(9);
    GlobalScope scope(loader.get(), nullptr, nullptr);
    SymMgrObjectPtr<ISymbolRange> range;
    EXPECT_EQ(scope.symbolRangeByAddress(range, 0x1ff, symbol_kind_other, nullptr), status_Ok);
    ASSERT_TRUE(range);
    EXPECT_EQ(range->symbol()->kind(), symbol_kind_other);
    EXPECT_EQ(range->symbol()->visibility(), symbol_visibility_local);
    expectLog(bogusSymbol);
}

TEST_F(KorBinTest, OtherArchitecturesHaveNoSymbolsOfTheirOwn) {
    for (const unsigned arch : {0u, 3u, 7u, 10u, 15u}) {
        open(arch);
        EXPECT_TRUE(symbols().empty()) << arch;
    }
}

// --- The symbol file

TEST_F(KorBinTest, ThereIsOneCandidateOfTheCompilersKind) {
    directory.write("k.clpdb", asText(tav().build()));
    for (const unsigned arch : {8u, 9u, 10u}) {
        open(arch);
        EXPECT_EQ(candidate()->kind(), arch == 10 ? 7u : 6u);
        EXPECT_EQ(candidate()->wantedName(), directory.path("k.clpdb"));
        EXPECT_EQ(candidate()->modulePath(), path);
        EXPECT_EQ(candidate()->resolve(directory.path("k.clpdb").c_str()), 0);
    }
}

TEST_F(KorBinTest, TheOlderFormatIsReadWithoutLookingAtTheKernel) {
    directory.write("k.clpdb", asText(tav().build()));
    open(8, contents(), "no such kernel");
    const SymMgrObjectPtr<IDebugInfoLoader> first = debug();
    ASSERT_TRUE(dynamic_cast<KorDebugInfoLoader*>(first.get()));
    EXPECT_EQ(first->getType(), 6u);
    EXPECT_EQ(first->getPath(), directory.path("k.clpdb"));
    EXPECT_EQ(debug(), first) << "it is made once";
    SymMgrObjectPtr<ISection> section;
    first->getSectionByIndex(section, 1);
    EXPECT_FALSE(section);
}

TEST_F(KorBinTest, TheNewerFormatIsReadFromTheKernelsOwnObject) {
    MiraObject mira;
    mira.rows = {{0, 5}};
    LunAssembler lun;
    lun.kernel("other", mira.build());
    mira.functions = {{"f", 0, 4}};
    directory.write("k.clpdb", asText(lun.kernel("add", mira.build()).build()));
    open(10);
    const SymMgrObjectPtr<IDebugInfoLoader> loaded = debug();
    ASSERT_TRUE(dynamic_cast<KorDebugInfoLoader*>(loaded.get()));
    EXPECT_EQ(loaded->getType(), 7u);
    SymMgrObjectPtr<ISection> section;
    loaded->getSectionByIndex(section, 1);
    ASSERT_TRUE(section);
    EXPECT_STREQ(section->getName(), ".text");
    SymMgrObjectPtr<IBuffer> buffer;
    GlobalScope scope(loader.get(), loaded, nullptr);
    SymMgrObjectPtr<ISymbolRange> range;
    EXPECT_EQ(scope.symbolRangeByAddress(range, 1, symbol_kind_function, nullptr), status_Ok);
    EXPECT_STREQ(range->symbol()->rawName(), "f");
    allowLog("Failed to convert");
    allowLog("LUN format");
}

TEST_F(KorBinTest, AKernelThatTheNewerFormatDoesNotHaveHasNoDebugInformation) {
    directory.write("k.clpdb", asText(LunAssembler().kernel("ad", {1}).kernel("add2", {1}).build()));
    open(10);
    EXPECT_FALSE(debug());
}

TEST_F(KorBinTest, AFileThatCannotBeReadOrParsedHasNoDebugInformation) {
    open(10);
    EXPECT_FALSE(debug()) << "there is no file of the wanted name";
    directory.write("k.clpdb", asText(LunAssembler().kernel("add", {1}).build()).substr(0, 30));
    open(10);
    EXPECT_EQ(candidate()->state(), 1u);
    EXPECT_FALSE(debug());
    expectLog("sizeof(SKernelDebugDataHeaderLUN)");
}

TEST_F(KorBinTest, AnotherTypeHasNoReader) {
    const std::string file = directory.write("k.clpdb", asText(tav().build()));
    open(8);
    const SymMgrObjectPtr<OpenBinary> binary = new OpenBinary(path.c_str(), "add", arch_gpu_tav_first);
    for (const unsigned type : {0u, 1u, 5u, 8u})
        EXPECT_EQ(binary->createDebugInfoLoader(file.c_str(), type, 0), nullptr);
    EXPECT_EQ(messages(warningLevel).size(), 4u);
    expectLog("Unable to create debug info parser", 4);
    EXPECT_EQ(binary->createDebugInfoLoader(directory.path("missing").c_str(), 0, 0), nullptr);
}

TEST_F(KorBinTest, WithoutMemoryThereIsNoDebugInformation) {
    if (!canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    const std::string file = directory.write("k.clpdb", asText(tav().build()));
    open(8);
    const SymMgrObjectPtr<OpenBinary> binary = new OpenBinary(path.c_str(), "add", arch_gpu_tav_first);
    unsigned refused = 0;
    for (int number = 1;; ++number) {
        FailingAllocation failing(number);
        const SymMgrObjectPtr<IDebugInfoLoader> made =
            binary->createDebugInfoLoader(file.c_str(), symbol_file_gpu_tav, 0);
        if (!failing.happened()) {
            EXPECT_TRUE(made);
            break;
        }
        refused += made ? 0 : 1;
    }
    EXPECT_GT(refused, 0u);
    expectLog("Unable to allocate memory to create debug info pointer", static_cast<int>(refused));
}

// --- Through the manager

namespace {

class KorManagerTest : public KorBinTest {
protected:
    KorManagerTest() {
        EXPECT_EQ(ISymbolManager::create(manager), status_Ok);
        path = directory.write("k.clbin", contents());
        allowLog("TAV format");
    }
    SymMgrObjectPtr<IModuleSymbolBank> load(const char* kernel, unsigned flags = 0,
                                            arch_t arch = arch_gpu_tav_first) {
        SymMgrObjectPtr<IModuleSymbolBank> bank;
        EXPECT_EQ(manager->loadSymbolsFromModuleEx(path.c_str(), nullptr, bank, arch, flags, kernel),
                  status_Ok);
        return bank;
    }
    static SymMgrObjectPtr<ISourceLocation> sourceAt(IModuleSymbolBank& bank, unsigned long long rva) {
        SymMgrObjectPtr<IAddress> address;
        SymMgrObjectPtr<ISourceLocation> location;
        if (bank.addressFromRVA(rva, address) == status_Ok)
            static_cast<void>(bank.sourceLocationByAddress(address, location, 0, nullptr));
        return location;
    }
    static unsigned lineAt(IModuleSymbolBank& bank, unsigned long long rva) {
        const SymMgrObjectPtr<ISourceLocation> location = sourceAt(bank, rva);
        return location ? location->line() : 0;
    }
    static SymMgrObjectPtr<ISymbolRange> rangeAt(IModuleSymbolBank& bank, unsigned long long rva,
                                                 symbol_kind_t mask = symbol_kind_all) {
        SymMgrObjectPtr<IAddress> address;
        SymMgrObjectPtr<ISymbolRange> range;
        EXPECT_EQ(bank.addressFromRVA(rva, address), status_Ok);
        EXPECT_EQ(bank.symbolRangeByAddress(address, range, mask, nullptr), status_Ok);
        return range;
    }

    SymMgrObjectPtr<ISymbolManager> manager;
};

} // namespace

TEST_F(KorManagerTest, AKernelOfTheOlderFormatHasSymbolAndLine) {
    directory.write("k.clpdb", asText(tav().build()));
    const SymMgrObjectPtr<IModuleSymbolBank> bank = load("mul");
    EXPECT_EQ(bank->execFileFormat(), exec_format_gpu);
    EXPECT_EQ(bank->symFileFormat(), 6u);
    EXPECT_EQ(bank->symFileName(), directory.path("k.clpdb"));
    EXPECT_EQ(lineAt(*bank, 0x20), 77u);
    const SymMgrObjectPtr<ISymbolRange> range = rangeAt(*bank, 0x20);
    ASSERT_TRUE(range);
    EXPECT_STREQ(range->symbol()->rawName(), ".dbginfo_kor");
}

TEST_F(KorManagerTest, AnotherKernelOfALoadedFileNeedsTheNoCacheFlag) {
    directory.write("k.clpdb", asText(tav().build()));
    const SymMgrObjectPtr<IModuleSymbolBank> add = load("add");
    EXPECT_EQ(lineAt(*add, 0x20), 42u);
    EXPECT_EQ(load("mul"), add) << "the kernel is no part of a module's identity";
    const SymMgrObjectPtr<IModuleSymbolBank> mul = load("mul", load_flag_no_cache);
    EXPECT_NE(mul, add);
    EXPECT_EQ(lineAt(*mul, 0x20), 77u);
    EXPECT_EQ(lineAt(*add, 0x20), 42u);
}

TEST_F(KorManagerTest, AModuleWithoutItsKernelStaysUsable) {
    directory.write("k.clpdb", asText(tav().build()));
    const SymMgrObjectPtr<IModuleSymbolBank> bank = load("missing");
    expectLog("Unable to obtain any info for wrong OCL kernel name missing");
    expectLog("Unable to load line info for OCL kernel missing");
    EXPECT_EQ(lineAt(*bank, 0x20), 0u);
    EXPECT_TRUE(rangeAt(*bank, 0x20));
}

TEST_F(KorManagerTest, TheObjectMayBeARealCompilers) {
    const std::string source = directory.write("kernel.c", "int helper(int a) {\n"
                                                           "    return a * 3;\n"
                                                           "}\n"
                                                           "int kernel(int a, int b) {\n"
                                                           "    int c = a + b;\n"
                                                           "    c += helper(c);\n"
                                                           "    return c;\n"
                                                           "}\n");
    const std::string object = directory.path("kernel.o");
    int status = 0;
    orn_test::commandOutput(
        "cc -g -gdwarf-4 -gno-as-locview-support -O0 -c -o '" + object + "' '" + source + "' 2>&1", &status);
    if (status != 0)
        GTEST_SKIP() << "there is no C compiler that writes DWARF 4";
    const std::string bytes = orn_test::TempDir::contents(object);
    const Bytes mira(bytes.begin(), bytes.end());

    // One step: the compiler's own addresses.
    LunAssembler oneStep;
    directory.write("k.clpdb", asText(oneStep.kernel("add", mira).build()));
    allowLog("LUN format");
    allowLog("Failed to convert");
    SymMgrObjectPtr<IModuleSymbolBank> bank = load("add", load_flag_no_cache, arch_gpu_lun_first);
    EXPECT_EQ(bank->symFileFormat(), 7u);
    EXPECT_EQ(lineAt(*bank, 0), 1u);
    SymMgrObjectPtr<ISymbolRange> range = rangeAt(*bank, 0, symbol_kind_function);
    ASSERT_TRUE(range);
    EXPECT_STREQ(range->symbol()->rawName(), "helper");
    const unsigned long long helperSize = range->size();
    range = rangeAt(*bank, helperSize, symbol_kind_function);
    ASSERT_TRUE(range);
    EXPECT_STREQ(range->symbol()->rawName(), "kernel");
    EXPECT_EQ(lineAt(*bank, helperSize), 4u);
    EXPECT_EQ(sourceAt(*bank, 0)->file()->name(), source);

    // Two steps: each instruction four bytes further on, but for the first.
    KorIsaAssembler::Pairs pairs;
    const auto end = static_cast<std::uint32_t>(helperSize + range->size());
    for (std::uint32_t i = 1; i <= end; ++i)
        pairs.emplace_back(i, 4 * i);
    LunAssembler twoSteps;
    twoSteps.kernel("add", mira, KorIsaAssembler().object("add", pairs).build());
    directory.write("k.clpdb", asText(twoSteps.build()));
    bank = load("add", load_flag_no_cache, arch_gpu_lun_first);
    EXPECT_EQ(lineAt(*bank, 4 * helperSize - 1), 3u);
    EXPECT_EQ(lineAt(*bank, 4 * helperSize), 4u);
    range = rangeAt(*bank, 4 * helperSize, symbol_kind_function);
    ASSERT_TRUE(range);
    EXPECT_STREQ(range->symbol()->rawName(), "kernel");
}

// --- Hostile symbol files, through everything that reads them

namespace {

class HostileKorTest : public OrnTest {
protected:
    HostileKorTest() {
        allowLog("");
        setLogLevel(errorLevel + 1);
    }
    using Target = void (*)(const std::uint8_t*, std::size_t);

    static void everyPrefix(Target target, const Bytes& bytes) {
        for (std::size_t size = 0; size <= bytes.size(); ++size)
            target(bytes.data(), size);
    }
    static void everyChangedByte(Target target, Bytes bytes) {
        for (std::uint8_t& byte : bytes) {
            const std::uint8_t right = byte;
            for (const unsigned changed : {0x00u, 0xffu, right ^ 1u, right ^ 0x80u}) {
                byte = static_cast<std::uint8_t>(changed);
                target(bytes.data(), bytes.size());
            }
            byte = right;
        }
    }
    static Bytes tavFile() {
        TavAssembler tav;
        tav.sourceFile("a.cl").kernel("k");
        return tav.lines(0, {{0, 1, 2, 0}, {8, 3, 4, 0}}).build();
    }
    static Bytes lunFile() {
        MiraObject mira;
        mira.rows = {{1, 10}, {3, 11}};
        mira.functions = {{"f", 1, 2}};
        mira.end = 8;
        KorIsaAssembler isa;
        isa.object("k", {{1, 16}, {2, 32}, {3, 48}});
        return LunAssembler().kernel("k", mira.build(), isa.build()).build();
    }
};

} // namespace

TEST_F(HostileKorTest, EveryPrefixOfTheOlderFormatEndsCleanly) {
    everyPrefix(orn_fuzz::tav, tavFile());
}

TEST_F(HostileKorTest, EveryChangedByteOfTheOlderFormatEndsCleanly) {
    everyChangedByte(orn_fuzz::tav, tavFile());
}

TEST_F(HostileKorTest, EveryPrefixOfTheNewerFormatEndsCleanly) {
    everyPrefix(orn_fuzz::lun, lunFile());
}

TEST_F(HostileKorTest, EveryChangedByteOfTheNewerFormatEndsCleanly) {
    everyChangedByte(orn_fuzz::lun, lunFile());
}

} // namespace ORN_3_30::test
