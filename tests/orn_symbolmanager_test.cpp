// The manager and its registries, over real files and over loaders whose answers are set by hand.

#include "orn_symbolmanager.h"

#include "orn/symbol.h"
#include "orn_filename.h"
#include "orn_moduleimage.h"
#include "orn_modulesymbolbank.h"
#include "support/allocation.h"
#include "support/elf_assembler.h"
#include "support/fake_loader.h"
#include "support/orn_fixture.h"
#include "support/temp_dir.h"

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ORN_3_30::test {
namespace {

using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using BankPtr = SymMgrObjectPtr<IModuleSymbolBank>;
using CandidateIterator = IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>;

/// Picks a given candidate.
class FixedResolver : public ISymbolFileResolver {
public:
    explicit FixedResolver(long long index) : m_index(index) {}
    long long resolveSymbolFile(SymMgrObjectPtr<CandidateIterator>& candidates) override {
        ++asked;
        hadCandidates = candidates->current() != nullptr;
        return m_index;
    }

    int asked = 0;
    bool hadCandidates = false;

private:
    long long m_index;
};

class FakeCandidate : public SymMgrObject<ISymbolFileToResolve> {
public:
    FakeCandidate() : SymMgrObject<ISymbolFileToResolve>(nullptr) {}
    const char* wantedName() override { return ""; }
    const char* modulePath() override { return ""; }
    unsigned kind() override { return symbol_file_dwarf; }
    unsigned state() override { return 1; }
    long long resolve(const char*) override { return -1; }
    int isRequired() override { return 0; }
};

class ManagerTest : public OrnTest {
protected:
    ManagerTest() { EXPECT_EQ(ISymbolManager::create(manager), status_Ok); }

    /// A module with the functions "first" at 0x1000 and "second" at 0x1040.
    std::string writeModule(const std::string& name) const {
        orn_test::ElfAssembler elf;
        auto text =
            elf.section(".text", SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR).address(0x1000).zeros(0x100);
        elf.load({text});
        elf.symbol("first", 0x1000, 0x20, STB_GLOBAL, STT_FUNC, text);
        elf.symbol("second", 0x1040, 0x20, STB_GLOBAL, STT_FUNC, text);
        const std::string path = directory.path(name);
        elf.write(path);
        return path;
    }

    BankPtr load(const std::string& path, unsigned flags = 0, arch_t arch = arch_unknown,
                 ISymbolFileResolver* resolver = nullptr) {
        BankPtr bank;
        EXPECT_EQ(manager->loadSymbolsFromModuleEx(path.c_str(), resolver, bank, arch, flags, nullptr),
                  status_Ok);
        return bank;
    }

    /// The name of the function at an address; empty if there is none.
    static std::string functionAt(IModuleSymbolBank& bank, unsigned long long pseudoAddr) {
        SymMgrObjectPtr<IAddress> address;
        SymMgrObjectPtr<ISymbolRange> range;
        if (isFailure(bank.addressFromPseudoAddress(pseudoAddr, address)) ||
            bank.symbolRangeByAddress(address, range, symbol_kind_function, nullptr) != status_Ok)
            return "";
        return range->symbol()->rawName();
    }

    std::vector<std::string> entered() {
        std::vector<std::string> names;
        for (const LogMessage& message : takeLogs())
            if (message.level == traceLevel && message.text.rfind("ENTER: ", 0) == 0)
                names.push_back(message.text.substr(7));
        return names;
    }

    const orn_test::TempDir directory;
    SymMgrObjectPtr<ISymbolManager> manager;
};

// --- The manager itself

TEST_F(ManagerTest, ThereIsOneForTheProcess) {
    SymMgrObjectPtr<ISymbolManager> other;
    EXPECT_EQ(ISymbolManager::create(other), status_Ok);
    EXPECT_EQ(other.get(), manager.get());
}

TEST_F(ManagerTest, ItIsBornOnDemandAndDiesWithItsLastClient) {
    manager = nullptr;
    setLogLevel(traceLevel);
    EXPECT_EQ(ISymbolManager::create(manager), status_Ok);
    EXPECT_THAT(entered(), ElementsAre("create", "SymbolManager"));
    SymMgrObjectPtr<ISymbolManager> other;
    EXPECT_EQ(ISymbolManager::create(other), status_Ok);
    EXPECT_THAT(entered(), ElementsAre("create"));
    manager = nullptr;
    EXPECT_THAT(entered(), IsEmpty());
    other = nullptr;
    EXPECT_THAT(entered(), ElementsAre("~SymbolManager"));
    EXPECT_TRUE(SymbolManager::existing() == nullptr);
}

TEST_F(ManagerTest, ABankKeepsTheManager) {
    BankPtr bank = load(writeModule("a"));
    manager = nullptr;
    EXPECT_TRUE(SymbolManager::existing() != nullptr);
    bank = nullptr;
    EXPECT_TRUE(SymbolManager::existing() == nullptr);
}

TEST_F(ManagerTest, WithoutMemoryThereIsNoManager) {
    if (!ORN_3_30::test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    const std::string path = writeModule("a");
    SymMgrObjectPtr<IModuleImage> image = IModuleImage::create(path.c_str(), arch_unknown, false);
    manager = nullptr;
    setLogLevel(50000);
    BankPtr bank;
    status_t ofManager = status_Ok;
    status_t ofBank = status_Ok;
    {
        FailingAllocation failing(1);
        ofManager = ISymbolManager::create(manager);
    }
    {
        FailingAllocation failing(1);
        ofBank = IModuleSymbolBank::create(bank, image, nullptr, false, nullptr);
    }
    EXPECT_EQ(ofManager, status_Fail);
    EXPECT_TRUE(manager == nullptr);
    EXPECT_EQ(ofBank, status_Fail);
}

TEST_F(ManagerTest, AManagerThatCannotBeMadeIsReported) {
    if (!ORN_3_30::test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    const std::string path = writeModule("a");
    SymMgrObjectPtr<IModuleImage> image = IModuleImage::create(path.c_str(), arch_unknown, false);
    manager = nullptr;
    expectLog("can't instantiate ISymbolManager object", 2);
    BankPtr bank;
    {
        FailingAllocation failing(1);
        EXPECT_EQ(ISymbolManager::create(manager), status_Fail);
    }
    {
        FailingAllocation failing(1);
        EXPECT_EQ(IModuleSymbolBank::create(bank, image, nullptr, false, nullptr), status_Fail);
    }
}

// --- One module, one bank

TEST_F(ManagerTest, TwoLoadsOfOneFileShareABank) {
    const std::string path = writeModule("a");
    BankPtr first = load(path);
    BankPtr second = load(path);
    EXPECT_EQ(first.get(), second.get());
    EXPECT_EQ(internal::liveBankCount(), 1u);
    EXPECT_EQ(internal::registeredLoaderCount(), 1u);
}

TEST_F(ManagerTest, TwoPathsOfOneFileShareABank) {
    directory.makeDirectory("x");
    BankPtr first = load(writeModule("a"));
    BankPtr second = load(directory.path() + "/./x/../a");
    EXPECT_EQ(first.get(), second.get());
}

/// Bytes that this process has read so far, those for asking included.
unsigned long long bytesRead() {
    std::ifstream io("/proc/self/io");
    std::string name;
    unsigned long long value = 0;
    while (io >> name >> value)
        if (name == "rchar:")
            return value;
    return 0;
}

TEST_F(ManagerTest, ASecondLoadReadsNothing) {
    const std::string path = writeModule("a");
    BankPtr bank = load(path);
    const unsigned long long before = bytesRead();
    if (before == 0)
        GTEST_SKIP() << "the system does not count what is read";
    const unsigned long long between = bytesRead();
    BankPtr again;
    const status_t status =
        manager->loadSymbolsFromModule(path.c_str(), nullptr, again, arch_unknown, false, nullptr);
    const unsigned long long after = bytesRead();
    EXPECT_EQ(status, status_Ok);
    const unsigned long long askingAlone = between - before;
    // A number in the file may have become one digit longer.
    EXPECT_LE(after - between, askingAlone + 8);
}

TEST_F(ManagerTest, DifferentFilesHaveDifferentBanks) {
    BankPtr first = load(writeModule("a"));
    BankPtr second = load(writeModule("b"));
    EXPECT_NE(first.get(), second.get());
    EXPECT_EQ(internal::registeredLoaderCount(), 2u);
}

TEST_F(ManagerTest, WithoutTheCacheEveryLoadHasItsOwnLoaderAndBank) {
    const std::string path = writeModule("a");
    BankPtr shared = load(path);
    BankPtr first = load(path, 0x4);
    BankPtr second = load(path, 0x4);
    EXPECT_NE(first.get(), second.get());
    EXPECT_NE(first.get(), shared.get());
    EXPECT_EQ(internal::liveBankCount(), 3u);
    EXPECT_EQ(internal::registeredLoaderCount(), 1u);
}

TEST_F(ManagerTest, TheNoCacheArgumentIsTheNoCacheFlag) {
    const std::string path = writeModule("a");
    BankPtr shared = load(path);
    BankPtr cached;
    BankPtr fresh;
    EXPECT_EQ(manager->loadSymbolsFromModule(path.c_str(), nullptr, cached, arch_unknown, false, nullptr),
              status_Ok);
    EXPECT_EQ(manager->loadSymbolsFromModule(path.c_str(), nullptr, fresh, arch_unknown, true, nullptr),
              status_Ok);
    EXPECT_EQ(cached.get(), shared.get());
    EXPECT_NE(fresh.get(), shared.get());
}

TEST_F(ManagerTest, OtherFlagsAreNotLookedAt) {
    const std::string path = writeModule("a");
    EXPECT_EQ(load(path).get(), load(path, ~0x6u).get());
}

TEST_F(ManagerTest, TheArchitectureIsPartOfTheIdentity) {
    const std::string path = writeModule("a");
    BankPtr first = load(path, 0, arch_unknown);
    BankPtr second = load(path, 0, arch_x86_64);
    EXPECT_NE(first.get(), second.get());
    EXPECT_EQ(internal::registeredLoaderCount(), 2u);
}

TEST_F(ManagerTest, ATouchedFileIsAnotherModuleAndTheFirstStaysUsable) {
    const std::string path = writeModule("a");
    BankPtr first = load(path);
    const timespec times[2] = {{1000, 0}, {1000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    BankPtr second = load(path);
    EXPECT_NE(first.get(), second.get());
    EXPECT_EQ(functionAt(*first, 0x1010), "first");
    EXPECT_EQ(functionAt(*second, 0x1050), "second");
}

TEST_F(ManagerTest, TheBitnessReachesTwoArchitecturesAndUnknown) {
    const std::string path = writeModule("a");
    const BankPtr unknown = load(path, 0, arch_unknown);
    const BankPtr ia32 = load(path, 0, arch_ia32);
    const BankPtr x86_64 = load(path, 0, arch_x86_64);
    auto byBitness = [&](int bitness) {
        BankPtr bank;
        EXPECT_EQ(manager->loadSymbolsFromModule(path.c_str(), nullptr, bank, bitness, false, nullptr),
                  status_Ok);
        return bank;
    };
    EXPECT_EQ(byBitness(0).get(), unknown.get());
    EXPECT_EQ(byBitness(1).get(), ia32.get());
    for (int bitness : {2, 3, 4, 64, -1})
        EXPECT_EQ(byBitness(bitness).get(), x86_64.get()) << bitness;
}

TEST_F(ManagerTest, ReleasingTheLastBankForgetsTheModule) {
    const std::string path = writeModule("a");
    BankPtr first = load(path);
    BankPtr second = load(path);
    first = nullptr;
    EXPECT_EQ(internal::liveBankCount(), 1u);
    second = nullptr;
    EXPECT_EQ(internal::liveBankCount(), 0u);
    EXPECT_EQ(internal::registeredLoaderCount(), 0u);
    setLogLevel(traceLevel);
    BankPtr anew = load(path);
    EXPECT_THAT(entered(), testing::Contains("ModuleSymbolBank"));
}

TEST_F(ManagerTest, AFormatLoaderMayOutliveTheManager) {
    const std::string path = writeModule("a");
    SymMgrObjectPtr<IModuleImage> image = IModuleImage::create(path.c_str(), arch_unknown, false);
    SymMgrObjectPtr<IFileFormatLoader> loader;
    EXPECT_EQ(IFileFormatLoader::create(loader, image, nullptr), status_Ok);
    manager = nullptr;
    loader = nullptr;
}

// --- Kernels that are not on disk

TEST_F(ManagerTest, AMissingKernelIsLetThroughByItsBareName) {
    const BankPtr bank = load("vmlinux-x", 0x2);
    EXPECT_TRUE(bank != nullptr);
    EXPECT_STREQ(bank->execFileName(), "vmlinux-x");
    EXPECT_EQ(bank->execFileFormat(), exec_format_elf);
}

TEST_F(ManagerTest, AMissingKernelBehindADirectoryCannotBeOpened) {
    expectLog("could not open file");
    BankPtr bank;
    EXPECT_EQ(
        manager->loadSymbolsFromModule("/nowhere/vmlinux-x", nullptr, bank, arch_unknown, false, nullptr),
        status_CantOpenFile);
}

TEST_F(ManagerTest, TheIdentityOfAMissingKernelHasNoSizeAndNoTime) {
    SymMgrObjectPtr<IModuleImage> image = IModuleImage::create("vmlinux-x", arch_x86_64, false);
    ASSERT_TRUE(image != nullptr);
    const ModuleIdentity identity = ModuleIdentity::ofImage(*image);
    EXPECT_EQ(identity.size, 0u);
    EXPECT_EQ(identity.modificationTime, 0);
    EXPECT_THAT(identity.path, testing::EndsWith("/vmlinux-x"));
    EXPECT_EQ(identity.path.front(), '/');
    EXPECT_EQ(identity.arch, arch_x86_64);
}

// --- Identity

TEST_F(ManagerTest, TheIdentityIsThatOfTheFile) {
    const std::string path = writeModule("a");
    struct stat properties;
    ASSERT_EQ(::stat(path.c_str(), &properties), 0);
    SymMgrObjectPtr<IModuleImage> image = new FileImage((directory.path() + "/x/../a").c_str(), 16, arch_arm);
    const ModuleIdentity identity = ModuleIdentity::ofImage(*image);
    std::string canonical;
    canonicalPath(canonical, path);
    EXPECT_EQ(identity.size, static_cast<unsigned long long>(properties.st_size));
    EXPECT_EQ(identity.modificationTime, properties.st_mtime);
    EXPECT_EQ(identity.path, canonical);
    EXPECT_EQ(identity.offset, 16u);
    EXPECT_EQ(identity.arch, arch_arm);
}

TEST(ModuleIdentityTest, ComparesByItsFieldsInOrder) {
    // Each is less by one field and greater by the next.
    const ModuleIdentity sizes[] = {{1, 9, "b", 9, arch_arm}, {2, 1, "a", 1, arch_ia32}};
    const ModuleIdentity times[] = {{1, -1, "b", 9, arch_arm}, {1, 1, "a", 1, arch_ia32}};
    const ModuleIdentity paths[] = {{1, 1, "a", 9, arch_arm}, {1, 1, "b", 1, arch_ia32}};
    const ModuleIdentity bytes[] = {{1, 1, "z", 9, arch_arm}, {1, 1, "\xC3", 1, arch_ia32}};
    const ModuleIdentity lengths[] = {{1, 1, "a", 9, arch_arm}, {1, 1, "aa", 1, arch_ia32}};
    const ModuleIdentity offsets[] = {{1, 1, "a", 1, arch_arm}, {1, 1, "a", ~0ULL, arch_ia32}};
    const ModuleIdentity archs[] = {{1, 1, "a", 1, static_cast<arch_t>(-1)}, {1, 1, "a", 1, arch_ia32}};
    for (const auto* pair : {sizes, times, paths, bytes, lengths, offsets, archs}) {
        EXPECT_TRUE(pair[0] < pair[1]);
        EXPECT_FALSE(pair[1] < pair[0]);
        EXPECT_FALSE(pair[0] < pair[0]);
    }
}

// --- What goes wrong

TEST_F(ManagerTest, ANullPathIsAnInvalidArgumentWithoutAMessage) {
    BankPtr bank;
    EXPECT_EQ(manager->loadSymbolsFromModule(nullptr, nullptr, bank, arch_unknown, false, nullptr),
              status_InvalidArg);
    EXPECT_EQ(manager->loadSymbolsFromModule(nullptr, nullptr, bank, 0, false, nullptr), status_InvalidArg);
    EXPECT_EQ(manager->loadSymbolsFromModuleEx(nullptr, nullptr, bank, arch_unknown, 0, nullptr),
              status_InvalidArg);
}

TEST_F(ManagerTest, AMissingFileCannotBeOpenedAndLeavesTheOutputAlone) {
    expectLog("could not open file");
    BankPtr bank = load(writeModule("a"));
    IModuleSymbolBank* const before = bank;
    EXPECT_EQ(manager->loadSymbolsFromModule("/nowhere/x", nullptr, bank, arch_unknown, false, nullptr),
              status_CantOpenFile);
    EXPECT_EQ(bank.get(), before);
}

TEST_F(ManagerTest, ADirectoryCannotBeOpened) {
    expectLog("could not open file");
    BankPtr bank;
    EXPECT_EQ(
        manager->loadSymbolsFromModule(directory.path().c_str(), nullptr, bank, arch_unknown, false, nullptr),
        status_CantOpenFile);
}

TEST_F(ManagerTest, AFileOfNoKnownFormatIsRefusedAndLeavesNothingBehind) {
    const std::string path = directory.write("text", std::string(200, 't'));
    BankPtr bank;
    for (bool noCache : {false, true})
        EXPECT_EQ(manager->loadSymbolsFromModule(path.c_str(), nullptr, bank, arch_unknown, noCache, nullptr),
                  status_BadFileFormat);
    EXPECT_TRUE(bank == nullptr);
    EXPECT_EQ(internal::registeredLoaderCount(), 0u);
}

TEST_F(ManagerTest, AnImageThatIsMissingIsReported) {
    expectLog("Module Image is NULL");
    BankPtr bank;
    EXPECT_EQ(IModuleSymbolBank::create(bank, nullptr, nullptr, false, nullptr), status_InvalidArg);
}

// --- The second way in

TEST_F(ManagerTest, ABankOfAnImageIsTheBankOfItsModule) {
    const std::string path = writeModule("a");
    auto create = [&](bool noCache) {
        BankPtr bank;
        EXPECT_EQ(IModuleSymbolBank::create(bank, IModuleImage::create(path.c_str(), arch_unknown, false),
                                            nullptr, noCache, nullptr),
                  status_Ok);
        return bank;
    };
    const BankPtr first = create(false);
    EXPECT_EQ(create(false).get(), first.get());
    EXPECT_EQ(load(path).get(), first.get());
    EXPECT_NE(create(true).get(), first.get());
}

TEST_F(ManagerTest, ABankOfAnImageNeedsNoManagerOfTheClient) {
    const std::string path = writeModule("a");
    manager = nullptr;
    BankPtr bank;
    EXPECT_EQ(IModuleSymbolBank::create(bank, IModuleImage::create(path.c_str(), arch_unknown, false),
                                        nullptr, false, nullptr),
              status_Ok);
    EXPECT_EQ(functionAt(*bank, 0x1010), "first");
}

// --- The trace of a load

TEST_F(ManagerTest, ALoadIsTracedStepByStep) {
    const std::string path = writeModule("a");
    setLogLevel(traceLevel);
    BankPtr bank;
    EXPECT_EQ(manager->loadSymbolsFromModule(path.c_str(), nullptr, bank, 0, false, nullptr), status_Ok);
    setLogLevel(informationLevel);
    std::vector<std::string> texts;
    for (const LogMessage& message : takeLogs())
        texts.push_back(message.text);
    ASSERT_GE(texts.size(), 8u);
    EXPECT_EQ(texts[0], "ENTER: loadSymbolsFromModule");
    EXPECT_EQ(texts[1], "loadSymbolsFromModule: [IN] execFileName = " + path);
    EXPECT_EQ(texts[2], "ENTER: create");
    EXPECT_EQ(texts[3], "EXIT:  create");
    EXPECT_EQ(texts[4], "ENTER: loadSymbolsFromModule");
    EXPECT_EQ(texts[5], "ENTER: getFileLoader");
    EXPECT_EQ(texts[6], "ENTER: create");
    EXPECT_THAT(texts, testing::IsSupersetOf(
                           {"EXIT:  getFileLoader", "ENTER: SymbolFileResolver", "EXIT:  ModuleSymbolBank"}));
    EXPECT_EQ(texts[texts.size() - 2], "EXIT:  loadSymbolsFromModule");
    EXPECT_EQ(texts.back(), "EXIT:  loadSymbolsFromModule");
}

TEST_F(ManagerTest, TheExtendedLoadIsTracedByItsName) {
    setLogLevel(traceLevel);
    BankPtr bank;
    EXPECT_EQ(manager->loadSymbolsFromModuleEx(nullptr, nullptr, bank, arch_unknown, 0, nullptr),
              status_InvalidArg);
    setLogLevel(informationLevel);
    std::vector<std::string> texts;
    for (const LogMessage& message : takeLogs())
        texts.push_back(message.text);
    EXPECT_THAT(texts,
                ElementsAre("ENTER: loadSymbolsFromModuleEx", "loadSymbolsFromModuleEx: [IN] execFileName = ",
                            "EXIT:  loadSymbolsFromModuleEx"));
}

// --- The symbol file, over a loader that is found in the registry

class SymbolFileChoiceTest : public ManagerTest {
protected:
    SymbolFileChoiceTest() : path(writeModule("fake")) {
        SymMgrObjectPtr<IModuleImage> image = IModuleImage::create(path.c_str(), arch_unknown, false);
        FakeLoader* raw = loader;
        loader->path = path;
        loader->onDestruction = [raw] {
            if (auto existing = SymbolManager::existing())
                existing->releaseFFL(raw);
        };
        ScopedLock guard(SymbolManager::registryLock());
        SymbolManager::existing()->registerFFL(ModuleIdentity::ofImage(*image), loader);
    }

    /// The last release of a registered loader belongs under the registry lock.
    ~SymbolFileChoiceTest() override {
        bank = nullptr;
        ScopedLock guard(SymbolManager::registryLock());
        loader = nullptr;
    }

    status_t loadFake(ISymbolFileResolver* resolver = nullptr, unsigned flags = 0) {
        return manager->loadSymbolsFromModuleEx(path.c_str(), resolver, bank, arch_unknown, flags, nullptr);
    }

    const std::string path;
    SymMgrObjectPtr<FakeLoader> loader = new FakeLoader;
    SymMgrObjectPtr<FakeDebugInfoLoader> debug = new FakeDebugInfoLoader;
    BankPtr bank;
};

TEST_F(SymbolFileChoiceTest, WithTheFlagNoCandidateIsAskedFor) {
    EXPECT_EQ(loadFake(nullptr, 0x2), status_Ok);
    EXPECT_EQ(loader->symbolFilesAsked, 0);
    EXPECT_EQ(bank->symFileFormat(), 0u);
}

TEST_F(SymbolFileChoiceTest, TheResolversChoiceIsUsed) {
    loader->candidates = {new FakeCandidate, new FakeCandidate};
    loader->debugInfoLoader = debug.get();
    loader->debugInfoStatus = status_Ok;
    FixedResolver resolver(1);
    EXPECT_EQ(loadFake(&resolver), status_Ok);
    EXPECT_EQ(resolver.asked, 1);
    EXPECT_TRUE(resolver.hadCandidates);
    EXPECT_EQ(loader->indexAsked, 1);
    EXPECT_STREQ(bank->symFileName(), "/fake/module.debug");
}

TEST_F(SymbolFileChoiceTest, TheStandardResolverTakesTheFirstUsableCandidate) {
    loader->candidates = {new FakeCandidate, new FakeCandidate};
    EXPECT_EQ(loadFake(), status_Ok);
    EXPECT_EQ(loader->indexAsked, 0);
}

TEST_F(SymbolFileChoiceTest, WithoutCandidatesTheResolverIsNotAsked) {
    FixedResolver resolver(0);
    EXPECT_EQ(loadFake(&resolver), status_Ok);
    EXPECT_EQ(resolver.asked, 0);
    EXPECT_EQ(loader->indexAsked, -1);
}

TEST_F(SymbolFileChoiceTest, NoChoiceIsABankWithoutSymbolFile) {
    loader->candidates = {new FakeCandidate};
    FixedResolver resolver(-1);
    EXPECT_EQ(loadFake(&resolver), status_Ok);
    EXPECT_EQ(loader->indexAsked, -1);
    EXPECT_EQ(bank->symFileFormat(), 0u);
    EXPECT_STREQ(bank->symFileName(), bank->execFileName());
}

TEST_F(SymbolFileChoiceTest, AnotherSymbolFileIsAnotherBankOfTheSameLoader) {
    loader->candidates = {new FakeCandidate};
    EXPECT_EQ(loadFake(), status_Ok);
    const BankPtr without = bank;
    loader->debugInfoLoader = debug.get();
    loader->debugInfoStatus = status_Ok;
    EXPECT_EQ(loadFake(), status_Ok);
    EXPECT_NE(bank.get(), without.get());
    EXPECT_EQ(internal::registeredLoaderCount(), 1u);
    EXPECT_EQ(internal::liveBankCount(), 2u);
}

TEST_F(SymbolFileChoiceTest, FailingCandidatesFailTheLoad) {
    loader->symbolFilesStatus = status_CantReadFile;
    EXPECT_EQ(loadFake(), status_CantReadFile);
    EXPECT_TRUE(bank == nullptr);
    EXPECT_EQ(loader->indexAsked, -2);
}

TEST_F(SymbolFileChoiceTest, AFailingDebugInfoLoaderFailsTheLoad) {
    loader->debugInfoStatus = status_UnsupportedDebugInfoFormat;
    EXPECT_EQ(loadFake(), status_UnsupportedDebugInfoFormat);
    EXPECT_TRUE(bank == nullptr);
    EXPECT_EQ(internal::liveBankCount(), 0u);
}

TEST_F(SymbolFileChoiceTest, TheBankHoldsItsLoaderInTheRegistry) {
    EXPECT_EQ(loadFake(), status_Ok);
    loader = nullptr;
    EXPECT_EQ(internal::registeredLoaderCount(), 1u);
    bank = nullptr;
    EXPECT_EQ(internal::registeredLoaderCount(), 0u);
}

// --- Real modules

TEST_F(ManagerTest, ASystemProgramLoads) {
    const char* program = "/bin/ls";
    if (::access(program, R_OK) != 0)
        GTEST_SKIP() << program << " is not there";
    BankPtr bank = load(program);
    EXPECT_EQ(bank->execFileFormat(), exec_format_elf);
    EXPECT_GT(bank->imageSize(), 0u);
    EXPECT_TRUE(bank->entryPoint() != nullptr);
    EXPECT_EQ(load(program).get(), bank.get());
}

TEST_F(ManagerTest, ACompiledModuleResolves) {
    const std::string source = directory.write("m.c", "int answer(int x) { return x * 42; }\n"
                                                      "int other(int x) { return answer(x) + 1; }\n");
    const std::string module = directory.path("m.so");
    if (std::system(("cc -shared -fPIC -o " + module + " " + source + " 2>/dev/null").c_str()) != 0)
        GTEST_SKIP() << "no C compiler";
    BankPtr bank = load(module);
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
    ASSERT_EQ(bank->originalSymbolRanges(ranges, symbol_kind_function, nullptr, nullptr), status_Ok);
    SymMgrObjectPtr<ISymbolRange> answer;
    for (auto range = ranges->current(); range; range = ranges->next() ? ranges->current() : nullptr)
        if (range->symbol() && std::string(range->symbol()->rawName()) == "answer")
            answer = range;
    ASSERT_TRUE(answer != nullptr);

    SymMgrObjectPtr<IAddress> begin;
    answer->beginAddress(begin);
    EXPECT_EQ(functionAt(*bank, begin->pseudoAddr() + 4), "answer");
    const RangesAdapter::Vector interval = {{begin->rva(), begin->rva() + answer->size()}};
    const RangesAdapter adapter(&interval);
    RangesAdapter adapterCopy(adapter);
    SymMgrObjectPtr<ISymbol> owner;
    EXPECT_EQ(bank->symbolByRanges(&adapterCopy, owner, false, false), status_Ok);
    EXPECT_STREQ(owner->rawName(), "answer");
}

// --- Threads

TEST_F(ManagerTest, ManyThreadsLoadQueryAndReleaseModules) {
    const std::string paths[] = {writeModule("a"), writeModule("b")};
    manager = nullptr; // it comes and goes with the threads
    std::atomic<int> wrong{0};
    auto work = [&](unsigned seed) {
        for (int round = 0; round < 100; ++round) {
            seed = seed * 1103515245 + 12345;
            SymMgrObjectPtr<ISymbolManager> own;
            BankPtr bank;
            const unsigned flags = seed & 0x100000 ? 0x4 : 0;
            if (ISymbolManager::create(own) != status_Ok ||
                own->loadSymbolsFromModuleEx(paths[seed >> 16 & 1].c_str(), nullptr, bank, arch_unknown,
                                             flags, nullptr) != status_Ok) {
                ++wrong;
                continue;
            }
            if (seed & 0x200000)
                own = nullptr;
            if (functionAt(*bank, 0x1010) != "first" || functionAt(*bank, 0x1050) != "second")
                ++wrong;
        }
    };
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 8; ++seed)
        threads.emplace_back(work, seed);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_TRUE(SymbolManager::existing() == nullptr);
}

TEST_F(ManagerTest, ManyThreadsQueryOneBank) {
    BankPtr bank = load(writeModule("a"));
    std::atomic<int> wrong{0};
    auto work = [&] {
        for (int round = 0; round < 200; ++round) {
            SymMgrObjectPtr<ISection> section;
            SymMgrObjectPtr<IIterator<ISegment*>> segments;
            SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
            if (functionAt(*bank, 0x1010) != "first" || bank->sectionByName(".text", section) != status_Ok ||
                bank->segments(segments) != status_Ok ||
                bank->originalSymbolRanges(ranges, symbol_kind_code, nullptr, nullptr) != status_Ok)
                ++wrong;
        }
    };
    std::vector<std::thread> threads;
    for (int index = 0; index < 8; ++index)
        threads.emplace_back(work);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
}

// --- Memory that cannot be had

class OutOfMemoryTest : public ManagerTest {
protected:
    OutOfMemoryTest() : path(directory.path("a")) {
        setLogLevel(50000);
        writeRichModule();
    }

    /// A module that gives every step of a load something to do.
    void writeRichModule() const {
        orn_test::ElfAssembler elf;
        auto text =
            elf.section(".text", SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR).address(0x1000).zeros(0x100);
        auto data = elf.section(".data", SHT_PROGBITS, SHF_ALLOC | SHF_WRITE).address(0x3000).zeros(0x40);
        elf.load({text});
        elf.load({data});
        elf.buildId({1, 2, 3, 4, 5, 6, 7, 8});
        elf.debugLink("a-name-that-is-too-long-for-the-short-strings.debug", 1);
        elf.symbol("first", 0x1000, 0x20, STB_GLOBAL, STT_FUNC, text);
        elf.symbol("_ZN9somewhere14a_rather_long_nameEi", 0x1040, 0x20, STB_LOCAL, STT_FUNC, text);
        elf.symbol("variable", 0x3000, 8, STB_GLOBAL, STT_OBJECT, data);
        elf.dynamicSymbol("first", 0x1000, 0x20, STB_GLOBAL, STT_FUNC, text);
        elf.write(path);
    }

    /// Runs `step` with its first, second, ... allocation failing until it gets by without one failing. What
    /// it gives is a status; `status_OutOfMemory` and success alone will do, and nothing may stay behind.
    template <typename Step>
    void failEachAllocationOf(const Step& step) {
        ASSERT_FALSE(isFailure(step())) << "without any failure";
        ASSERT_FALSE(isFailure(step()));
        bool happened = true;
        for (unsigned long number = 1; happened && !HasFailure(); ++number) {
            ASSERT_LT(number, 100000u);
            const long before = liveAllocations();
            status_t status = status_Ok;
            {
                FailingAllocation failing(number);
                status = step();
                happened = failing.happened();
            }
            EXPECT_TRUE(!isFailure(status) || status == status_OutOfMemory)
                << "allocation " << number << ": " << toUString(status);
            EXPECT_EQ(liveAllocations(), before) << "allocation " << number;
            EXPECT_EQ(internal::liveBankCount(), 0u) << "allocation " << number;
            EXPECT_EQ(internal::registeredLoaderCount(), 0u) << "allocation " << number;
        }
    }

    status_t loadInto(BankPtr& bank, unsigned flags = 0) {
        return manager->loadSymbolsFromModuleEx(path.c_str(), nullptr, bank, arch_unknown, flags, nullptr);
    }

    /// A step that loads and then asks.
    template <typename Query>
    auto loadThen(const Query& query) {
        return [this, query]() -> status_t {
            BankPtr bank;
            const status_t status = loadInto(bank);
            return isFailure(status) ? status : query(*bank);
        };
    }

    const std::string path;
};

TEST_F(OutOfMemoryTest, ALoadReportsItAndLeavesNothingBehind) {
    failEachAllocationOf(loadThen([](IModuleSymbolBank&) { return status_Ok; }));
}

TEST_F(OutOfMemoryTest, ALoadWithoutCacheReportsItAndLeavesNothingBehind) {
    failEachAllocationOf([this] {
        BankPtr bank;
        return loadInto(bank, 0x4);
    });
}

TEST_F(OutOfMemoryTest, ABankOfAnImageReportsItAndLeavesNothingBehind) {
    failEachAllocationOf([this]() -> status_t {
        SymMgrObjectPtr<IModuleImage> image = IModuleImage::create(path.c_str(), arch_unknown, false);
        if (!image)
            return status_OutOfMemory;
        BankPtr bank;
        return IModuleSymbolBank::create(bank, image, nullptr, false, nullptr);
    });
}

TEST_F(OutOfMemoryTest, ASymbolQueryReportsItAndLeavesNothingBehind) {
    failEachAllocationOf(loadThen([](IModuleSymbolBank& bank) {
        SymMgrObjectPtr<IAddress> address;
        const status_t status = bank.addressFromPseudoAddress(0x1010, address);
        if (isFailure(status))
            return status;
        SymMgrObjectPtr<ISymbolRange> range;
        return bank.symbolRangeByAddress(address, range, symbol_kind_all, nullptr);
    }));
}

TEST_F(OutOfMemoryTest, TheRangesReportItAndLeaveNothingBehind) {
    failEachAllocationOf(loadThen([](IModuleSymbolBank& bank) {
        SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
        const status_t status = bank.originalSymbolRanges(ranges, symbol_kind_all, nullptr, nullptr);
        if (isFailure(status))
            return status;
        return bank.nonOverlappedSymbolRanges(ranges, symbol_kind_all, nullptr, nullptr, nullptr);
    }));
}

TEST_F(OutOfMemoryTest, TheSearchByRangesReportsItAndLeavesNothingBehind) {
    failEachAllocationOf(loadThen([](IModuleSymbolBank& bank) {
        static const RangesAdapter::Vector intervals = {{0x0, 0x8}, {0x10, 0x18}}; // of "first"
        RangesAdapter ranges(&intervals);
        SymMgrObjectPtr<ISymbol> symbol;
        return bank.symbolByRanges(&ranges, symbol, false, true);
    }));
}

TEST_F(OutOfMemoryTest, AnAnnouncedAddressReportsItAndLeavesNothingBehind) {
    failEachAllocationOf(loadThen([](IModuleSymbolBank& bank) { return bank.prefetcher()->putRVA(0x1010); }));
}

TEST_F(OutOfMemoryTest, ASectionReportsItAndLeavesNothingBehind) {
    failEachAllocationOf(loadThen([](IModuleSymbolBank& bank) {
        SymMgrObjectPtr<ISection> section;
        return bank.sectionByName(".text", section);
    }));
}

TEST_F(OutOfMemoryTest, WhatFindsNoMemoryIsNotTakenForMissing) {
    if (!ORN_3_30::test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    BankPtr bank;
    ASSERT_EQ(loadInto(bank), status_Ok);
    {
        FailingAllocation failing(1);
        SymMgrObjectPtr<ISection> section;
        EXPECT_EQ(bank->sectionByName(".text", section), status_OutOfMemory);
    }
    FailingAllocation failing(1);
    SymMgrObjectPtr<IIterator<ISegment*>> segments;
    EXPECT_EQ(bank->segments(segments), status_OutOfMemory);
}

} // namespace
} // namespace ORN_3_30::test
