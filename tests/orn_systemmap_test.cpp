// Kernels through listings of their symbols: which listing is taken, and what its lines become. Damage and
// size stand in orn_systemmap_damage_test.cpp.

#include "orn_systemmap.h"

#include "orn/address.h"
#include "orn/module_symbol_bank.h"
#include "orn/symbol_manager.h"
#include "orn_fflelf.h"
#include "orn_moduleimage.h"
#include "orn_scope.h"
#include "support/elf_assembler.h"
#include "support/memory_image.h"
#include "support/orn_fixture.h"
#include "support/recording_sink.h"
#include "support/temp_dir.h"

#include <set>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace ORN_3_30::test {
namespace {

using orn_test::ElfAssembler;
using orn_test::ElfClass;
using orn_test::MemoryImage;
using orn_test::RecordingSink;
using orn_test::TempDir;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr unsigned long long base64 = 0xFFFFFFFF81000000;
constexpr unsigned long long base32 = 0xC1000000;
constexpr const char* sound = "ffffffff81000000 T _text\n";

/// A kernel of which nothing but its place in memory is known: one segment of 16 MiB.
ElfAssembler kernel(ElfClass elfClass = ElfClass::k64) {
    ElfAssembler elf(elfClass);
    elf.loadRange(elfClass == ElfClass::k64 ? base64 : base32, 0x1000000, PF_R | PF_X);
    return elf;
}

// --- The candidate

class SystemMapTest : public OrnTest {
protected:
    SymMgrObjectPtr<SystemMap> make(const std::string& modulePath, bool isSystemMap = true) {
        m_modulePath = modulePath;
        return new SystemMap(m_modulePath.c_str(), 3, nullptr, isSystemMap);
    }
    std::string wanted(const std::string& modulePath, bool isSystemMap) {
        return make(modulePath, isSystemMap)->wantedName();
    }

    TempDir m_dir;
    std::string m_modulePath;
};

TEST_F(SystemMapTest, IsAKernelMapAndNotRequired) {
    const auto candidate = make("/nowhere/vmlinux");
    EXPECT_EQ(candidate->kind(), 4U);
    EXPECT_EQ(candidate->isRequired(), 0);
    EXPECT_STREQ(candidate->modulePath(), "/nowhere/vmlinux");
}

TEST_F(SystemMapTest, TheKernelsWordIsReplacedAndWhatFollowsIsKept) {
    EXPECT_EQ(wanted("/nowhere/vmlinuz-6.1.0-18", true), "/nowhere/System.map-6.1.0-18");
    EXPECT_EQ(wanted("/nowhere/vmlinux", true), "/nowhere/System.map");
    EXPECT_EQ(wanted("/nowhere/vmlinux.debug", true), "/nowhere/System.map.debug");
    EXPECT_EQ(wanted("/nowhere/kcore", true), "/nowhere/System.map");
    EXPECT_EQ(wanted("vmlinux-5", true), "System.map-5");
    EXPECT_EQ(wanted("/nowhere/my-vmlinux", true), "/nowhere/my-System.map");
}

TEST_F(SystemMapTest, KallsymsReplacesAllFromTheKernelsWordOn) {
    EXPECT_EQ(wanted("/nowhere/vmlinuz-6.1.0-18", false), "/nowhere/kallsyms");
    EXPECT_EQ(wanted("/nowhere/vmlinux", false), "/nowhere/kallsyms");
    EXPECT_EQ(wanted("/nowhere/my-vmlinux-5", false), "/nowhere/my-kallsyms");
}

TEST_F(SystemMapTest, TheLastWordOfTheFirstKindCounts) {
    EXPECT_EQ(wanted("/vmlinux/vmlinux-5", true), "/vmlinux/System.map-5");
    EXPECT_EQ(wanted("/vmlinuz-4/vmlinux-5", true), "/System.map-4/vmlinux-5");
    EXPECT_EQ(wanted("/vmlinux/kcore", true), "/System.map/kcore");
    EXPECT_EQ(wanted("/vmlinux-5/x", true), "/System.map-5/x");
}

TEST_F(SystemMapTest, WithoutAKernelsWordNothingIsWanted) {
    EXPECT_EQ(wanted("/boot/vmlinu", true), "");
    EXPECT_EQ(wanted("/boot/vmlinu", false), "");
    EXPECT_EQ(make("/boot/vmlinu")->state(), 4U);
}

TEST_F(SystemMapTest, WithoutAModulePathNothingIsSetUp) {
    const SymMgrObjectPtr<SystemMap> candidate = new SystemMap(nullptr, 3, nullptr, true);
    EXPECT_EQ(candidate->state(), 0U);
    EXPECT_STREQ(candidate->wantedName(), "");
    EXPECT_EQ(candidate->modulePath(), nullptr);
}

TEST_F(SystemMapTest, AListingBesideTheKernelIsUsableAtOnce) {
    const std::string map = m_dir.write("System.map-5", sound);
    const auto candidate = make(m_dir.path("vmlinux-5"));
    EXPECT_EQ(candidate->state(), 1U);
    EXPECT_EQ(candidate->wantedName(), map);
    const std::string copy = m_dir.write("kallsyms", sound);
    const auto other = make(m_dir.path("vmlinux-5"), false);
    EXPECT_EQ(other->state(), 1U);
    EXPECT_EQ(other->wantedName(), copy);
}

TEST_F(SystemMapTest, WithoutAListingTheNameIsToBeSearchedFor) {
    const auto candidate = make(m_dir.path("vmlinux-5"));
    EXPECT_EQ(candidate->state(), 4U);
    EXPECT_EQ(candidate->wantedName(), m_dir.path("System.map-5"));
}

TEST_F(SystemMapTest, AListingThatIsOfferedIsTaken) {
    const auto candidate = make(m_dir.path("vmlinux-5"));
    EXPECT_EQ(candidate->resolve(m_dir.path("missing").c_str()), -1);
    EXPECT_EQ(candidate->state(), 4U);
    const std::string map = m_dir.write("elsewhere", sound);
    EXPECT_EQ(candidate->resolve(map.c_str()), 3);
    EXPECT_EQ(candidate->state(), 1U);
    EXPECT_EQ(candidate->wantedName(), map);
}

TEST_F(SystemMapTest, AListingIsKnownByItsFirstBytes) {
    const auto isTaken = [&](const std::string& contents) {
        const std::string path = m_dir.write("listing", contents);
        return make(m_dir.path("vmlinux-5"))->resolve(path.c_str()) == 3;
    };
    EXPECT_TRUE(isTaken("ffffffff81000000 T _text\n"));
    EXPECT_TRUE(isTaken("c1000000 T _text\n"));
    EXPECT_TRUE(isTaken("C1000000\t"));
    EXPECT_TRUE(isTaken("0123456789ABCDEF "));
    EXPECT_FALSE(isTaken(""));
    EXPECT_FALSE(isTaken("c1000000"));
    EXPECT_FALSE(isTaken("c1000000\n"));
    EXPECT_FALSE(isTaken("c100000 T _text\n"));
    EXPECT_FALSE(isTaken("c10000000 T _text\n"));
    EXPECT_FALSE(isTaken("ffffffff810000000 T _text\n"));
    EXPECT_FALSE(isTaken("g1000000 T _text\n"));
    EXPECT_FALSE(isTaken(" c1000000 T _text\n"));
    EXPECT_FALSE(isTaken("\x7F"
                         "ELF"));
}

TEST_F(SystemMapTest, APathThatNamesNoKernelIsNotTaken) {
    const std::string map = m_dir.write("System.map", sound);
    const auto candidate = make(m_dir.path("kcore"));
    EXPECT_EQ(candidate->wantedName(), map);
    EXPECT_EQ(candidate->state(), 4U) << "\"kcore\" alone does not let the listing beside it pass";
    EXPECT_EQ(candidate->resolve(map.c_str()), -1);
    const std::string ofKernel = m_dir.write("map-of-vmlinux", sound);
    EXPECT_EQ(candidate->resolve(ofKernel.c_str()), 3) << "the offered path may name the kernel";
    EXPECT_EQ(candidate->wantedName(), ofKernel);
}

TEST_F(SystemMapTest, AUsableCandidateGivesItsIndexForEveryPath) {
    const std::string map = m_dir.write("System.map-5", sound);
    const auto candidate = make(m_dir.path("vmlinux-5"));
    EXPECT_EQ(candidate->resolve(m_dir.path("missing").c_str()), 3);
    EXPECT_EQ(candidate->wantedName(), map);
    const std::string other = m_dir.write("other", sound);
    EXPECT_EQ(candidate->resolve(other.c_str()), 3);
    EXPECT_EQ(candidate->wantedName(), other);
}

TEST_F(SystemMapTest, WhatIsNoFileIsNotTaken) {
    const auto candidate = make(m_dir.path("vmlinux-5"));
    EXPECT_EQ(candidate->resolve(nullptr), -1);
    EXPECT_EQ(candidate->resolve(m_dir.path().c_str()), -1);
    const std::string pipe = m_dir.path("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(candidate->resolve(pipe.c_str()), -1);
}

// --- What a module brings

std::vector<std::string> candidatesOf(const std::string& path) {
    SymMgrObjectPtr<IFileFormatLoader> loader;
    EXPECT_EQ(IFileFormatLoader::create(loader, new FileImage(path.c_str(), 0, arch_unknown), nullptr),
              status_Ok);
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>> candidates;
    EXPECT_EQ(loader->getSymbolFiles(candidates), status_Ok);
    std::vector<std::string> texts;
    while (SymMgrObjectPtr<ISymbolFileToResolve> candidate = candidates->current()) {
        texts.push_back(std::to_string(candidate->kind()) + " " + candidate->wantedName());
        if (candidate->state() == symbol_file_usable) {
            EXPECT_EQ(candidate->resolve(candidate->wantedName()), static_cast<long long>(texts.size()) - 1);
        }
        candidates->next();
    }
    return texts;
}

TEST_F(SystemMapTest, AKernelHasItsListingsForItsLastCandidates) {
    ElfAssembler elf = kernel();
    elf.buildId({0xAB, 0xCD, 0xEF}).flags(0);
    elf.debugLink("vmlinux.debug", 1);
    elf.section(".debug_info").zeros(16);
    const std::string path = m_dir.path("vmlinux-5");
    elf.write(path);
    m_dir.write("System.map-5", sound);
    m_dir.write("kallsyms", sound);
    EXPECT_THAT(candidatesOf(path),
                ElementsAre("1 .build-id/ab/cdef00.debug", "1 vmlinux.debug", "1 " + path,
                            "4 " + m_dir.path("System.map-5"), "4 " + m_dir.path("kallsyms")));
}

TEST_F(SystemMapTest, AKcoreHasNoKallsyms) {
    ElfAssembler elf = kernel();
    elf.debugLink("kcore.debug", 1);
    elf.section(".debug_info").zeros(16);
    const std::string path = m_dir.path("kcore");
    elf.write(path);
    EXPECT_THAT(candidatesOf(path),
                ElementsAre("1 kcore.debug", "1 " + path, "4 " + m_dir.path("System.map")));
}

TEST_F(SystemMapTest, TheKernelsNameMayStandAnywhereInThePath) {
    m_dir.makeDirectory("vmlinux-5");
    const std::string path = m_dir.path("vmlinux-5/image");
    kernel().write(path);
    EXPECT_THAT(candidatesOf(path),
                ElementsAre("4 " + m_dir.path("System.map-5/image"), "4 " + m_dir.path("kallsyms")));
}

TEST_F(SystemMapTest, AnotherModuleHasNoListings) {
    const std::string path = m_dir.path("module");
    kernel().write(path);
    m_dir.write("System.map", sound);
    EXPECT_THAT(candidatesOf(path), IsEmpty());
}

// --- Lines

struct Line {
    unsigned long long value;
    std::string name;
    symbol_kind_t kind;
    symbol_visibility_t visibility;
    bool operator==(const Line&) const = default;
};

void PrintTo(const Line& line, std::ostream* stream) {
    *stream << std::hex << line.value << " " << line.name << " " << static_cast<unsigned>(line.kind) << " "
            << static_cast<unsigned>(line.visibility);
}

Line function(unsigned long long value, std::string name) {
    return {value, std::move(name), symbol_kind_function, symbol_visibility_local};
}

class SystemMapLoaderTest : public OrnTest {
protected:
    struct Loaded {
        status_t status;
        std::vector<Line> lines;
    };

    SymMgrObjectPtr<SystemMAPDebugInfoLoader> loaderOf(const std::string& path, arch_t arch = arch_x86_64,
                                                       ElfClass elfClass = ElfClass::k64) {
        m_module = new ElfFileLoader(new MemoryImage(kernel(elfClass).build()));
        return new SystemMAPDebugInfoLoader(m_module, path.c_str(), m_module->getElfHelper(), arch, nullptr);
    }
    Loaded load(const std::string& path, arch_t arch = arch_x86_64, ElfClass elfClass = ElfClass::k64,
                symbol_kind_t kinds = symbol_kind_all) {
        const auto loader = loaderOf(path, arch, elfClass);
        const SymMgrObjectPtr<RecordingSink> sink = new RecordingSink;
        Loaded loaded{loader->loadSymbols(sink, nullptr, kinds, nullptr), {}};
        for (const auto& entry : sink->entries) {
            EXPECT_EQ(entry.low, entry.high) << entry.name;
            EXPECT_EQ(entry.scope->firstLow(), entry.low);
            EXPECT_EQ(entry.scope->lastHigh(), entry.low);
            loaded.lines.push_back({entry.low, entry.name, entry.kind, entry.visibility});
        }
        return loaded;
    }
    /// Of a listing for which no bias is sought.
    Loaded map(const std::string& listing, symbol_kind_t kinds = symbol_kind_all) {
        return load(m_dir.write("System.map", listing), arch_x86_64, ElfClass::k64, kinds);
    }
    Loaded map32(const std::string& listing) {
        return load(m_dir.write("System.map", listing), arch_ia32, ElfClass::k32);
    }
    Loaded kallsyms(const std::string& listing, symbol_kind_t kinds = symbol_kind_all) {
        return load(m_dir.write("kallsyms", listing), arch_x86_64, ElfClass::k64, kinds);
    }

    TempDir m_dir;
    SymMgrObjectPtr<ElfFileLoader> m_module;
};

TEST_F(SystemMapLoaderTest, TellsWhatItIs) {
    const auto loader = loaderOf("/nowhere/System.map");
    EXPECT_STREQ(loader->getPath(), "/nowhere/System.map");
    EXPECT_EQ(loader->getType(), 4U);
}

TEST_F(SystemMapLoaderTest, MakingItReadsNothing) {
    m_module = new ElfFileLoader(new BogusELFImage("vmlinux-x86_64", arch_unknown));
    const std::string path = m_dir.path("System.map");
    const SymMgrObjectPtr<IDebugInfoLoader> loader = new SystemMAPDebugInfoLoader(
        m_module, path.c_str(), m_module->getElfHelper(), m_module->getArch(), nullptr);
    m_dir.write("System.map", sound);
    const SymMgrObjectPtr<RecordingSink> sink = new RecordingSink;
    EXPECT_EQ(loader->loadSymbols(sink, nullptr, symbol_kind_all, nullptr), status_Ok);
    EXPECT_THAT(sink->names(), ElementsAre("_text")) << "also for a kernel of which there is no file";
}

TEST_F(SystemMapLoaderTest, HasSymbolsAndNothingElse) {
    const auto loader = loaderOf("/nowhere/System.map");
    EXPECT_EQ(loader->getLineResolver(nullptr, nullptr), nullptr);
    SymMgrObjectPtr<ISymbol> variable;
    EXPECT_EQ(loader->findStackVariable(nullptr, nullptr, 0, nullptr, variable, nullptr), status_False);
    SymMgrObjectPtr<ISection> section;
    loader->getSectionByIndex(section, 0);
    EXPECT_FALSE(section);
    EXPECT_EQ(loader->loadLineTable(nullptr), status_False);
    EXPECT_EQ(loader->getCompilationUnit(0), nullptr);
}

TEST_F(SystemMapLoaderTest, ALineOfTextIsAFunction) {
    const Loaded loaded = map("ffffffff81000000 T _text\nffffffff81000010 t early\n");
    EXPECT_EQ(loaded.status, status_Ok);
    EXPECT_THAT(loaded.lines, ElementsAre(function(base64, "_text"), function(base64 + 0x10, "early")));
}

TEST_F(SystemMapLoaderTest, LettersTellKindAndVisibility) {
    const Loaded loaded = map("ffffffff81000001 T a\nffffffff81000002 t b\nffffffff81000003 D c\n"
                              "ffffffff81000004 d d\nffffffff81000005 G e\nffffffff81000006 g f\n");
    EXPECT_THAT(loaded.lines,
                ElementsAre(Line{base64 + 1, "a", symbol_kind_function, symbol_visibility_local},
                            Line{base64 + 2, "b", symbol_kind_function, symbol_visibility_local},
                            Line{base64 + 3, "c", symbol_kind_variable, symbol_visibility_local},
                            Line{base64 + 4, "d", symbol_kind_variable, symbol_visibility_local},
                            Line{base64 + 5, "e", symbol_kind_other, symbol_visibility_global},
                            Line{base64 + 6, "f", symbol_kind_other, symbol_visibility_global}));
}

TEST_F(SystemMapLoaderTest, OtherLettersAreSkipped) {
    std::string listing;
    for (int letter = '!'; letter <= '~'; ++letter)
        if (std::string("TtDdGg").find(static_cast<char>(letter)) == std::string::npos)
            listing += std::string("ffffffff81000000 ") + static_cast<char>(letter) + " skipped\n";
    const Loaded loaded = map(listing + "ffffffff81000001 TT two letters\nffffffff81000002 T kept\n");
    EXPECT_EQ(loaded.status, status_Ok);
    EXPECT_THAT(loaded.lines, ElementsAre(function(base64 + 2, "kept")));
}

TEST_F(SystemMapLoaderTest, OnlyTheKindsThatAreAskedForAreLoaded) {
    const std::string listing = "ffffffff81000001 T f\nffffffff81000002 D v\nffffffff81000003 G o\n";
    EXPECT_THAT(map(listing, symbol_kind_function).lines, ElementsAre(function(base64 + 1, "f")));
    EXPECT_EQ(map(listing, symbol_kind_variable).lines.at(0).name, "v");
    EXPECT_EQ(map(listing, symbol_kind_other).lines.at(0).name, "o");
    EXPECT_THAT(map(listing, symbol_kind_entry_point).lines, IsEmpty());
}

TEST_F(SystemMapLoaderTest, ASymbolOutsideEverySegmentIsDropped) {
    const Loaded loaded =
        map("0000000000000000 D percpu\nffffffff80ffffff T below\nffffffff81000000 T first\n"
            "ffffffff82000000 T end\nffffffff82000001 T above\n");
    EXPECT_EQ(loaded.status, status_Ok);
    // The end of a segment still belongs to it.
    EXPECT_THAT(loaded.lines, ElementsAre(function(base64, "first"), function(base64 + 0x1000000, "end")));
}

TEST_F(SystemMapLoaderTest, AnnouncedAddressesKeepNothingBack) {
    const auto loader = loaderOf(m_dir.write("System.map", "ffffffff81000010 T a\nffffffff81000020 T b\n"));
    const std::set<unsigned long long> announced = {base64 + 0x20};
    LoadFilter filter(&announced);
    const SymMgrObjectPtr<RecordingSink> sink = new RecordingSink;
    EXPECT_EQ(loader->loadSymbols(sink, &filter, symbol_kind_all, nullptr), status_Ok);
    EXPECT_THAT(sink->names(), ElementsAre("a", "b")) << "an empty interval always passes";
}

TEST_F(SystemMapLoaderTest, AKernelModulesLineEndsTheLoad) {
    const Loaded loaded = map("ffffffff81000000 T a\nffffffff81000010 t m\t[ext4]\nffffffff81000020 T b\n");
    EXPECT_EQ(loaded.status, status_Ok);
    EXPECT_THAT(loaded.lines, ElementsAre(function(base64, "a")));
}

TEST_F(SystemMapLoaderTest, AKernelModulesLineEndsTheLoadWhateverItsLetter) {
    EXPECT_THAT(map("ffffffff81000000 T a\nffffffff81000010 r m [ext4]\nffffffff81000020 T b\n").lines,
                ElementsAre(function(base64, "a")));
}

TEST_F(SystemMapLoaderTest, AnotherThirdWordIsNothing) {
    EXPECT_THAT(map("ffffffff81000000 T a ext4]\nffffffff81000010 T [b]\n").lines,
                ElementsAre(function(base64, "a"), function(base64 + 0x10, "[b]")));
}

TEST_F(SystemMapLoaderTest, WordsAreSeparatedByAnyBlanks) {
    EXPECT_THAT(map("ffffffff81000000\tT  \t a \t\r\nffffffff81000010T b\n").lines,
                ElementsAre(function(base64, "a"), function(base64 + 0x10, "b")));
}

TEST_F(SystemMapLoaderTest, BlanksDoNotReachIntoTheNextLine) {
    const Loaded loaded =
        map("ffffffff81000000 T\nffffffff81000010 T \nffffffff81000020\nffffffff81000030 T b\n");
    EXPECT_EQ(loaded.status, status_Ok);
    EXPECT_THAT(loaded.lines, ElementsAre(function(base64 + 0x30, "b"))) << "a symbol without a name is none";
}

// --- Bias

TEST_F(SystemMapLoaderTest, KallsymsIsShiftedSoThatItsFirstTextIsTheImageBase) {
    EXPECT_THAT(kallsyms("ffffffff9e400000 T _text\nffffffff9e400010 t early\n").lines,
                ElementsAre(function(base64, "_text"), function(base64 + 0x10, "early")));
}

TEST_F(SystemMapLoaderTest, ALocalFirstTextTellsTheBiasToo) {
    EXPECT_THAT(kallsyms("ffffffff9e400000 t early\nffffffff9e400010 T b\n").lines,
                ElementsAre(function(base64, "early"), function(base64 + 0x10, "b")));
}

TEST_F(SystemMapLoaderTest, TheBiasIsKnownWhateverIsAskedFor) {
    EXPECT_THAT(kallsyms("ffffffff9e400000 T _text\nffffffff9e400010 D data\n", symbol_kind_variable).lines,
                ElementsAre(Line{base64 + 0x10, "data", symbol_kind_variable, symbol_visibility_local}));
}

TEST_F(SystemMapLoaderTest, InFrontOfTheFirstTextThereIsNoBias) {
    EXPECT_THAT(
        kallsyms("ffffffff81000020 D early\nffffffff9e400000 A absolute\nffffffff9e400000 T _text\n").lines,
        ElementsAre(Line{base64 + 0x20, "early", symbol_kind_variable, symbol_visibility_local},
                    function(base64, "_text")));
}

TEST_F(SystemMapLoaderTest, ASystemMapNeedsNoBias) {
    EXPECT_THAT(map("ffffffff81000100 T first\nffffffff81000200 T second\n").lines,
                ElementsAre(function(base64 + 0x100, "first"), function(base64 + 0x200, "second")));
}

TEST_F(SystemMapLoaderTest, ThePathsEndTellsKallsyms) {
    const std::string listing = "ffffffff81000100 T first\n";
    EXPECT_THAT(load(m_dir.write("copy-of-kallsyms", listing)).lines, ElementsAre(function(base64, "first")));
    EXPECT_THAT(load(m_dir.write("kallsyms.txt", listing)).lines,
                ElementsAre(function(base64 + 0x100, "first")));
}

TEST_F(SystemMapLoaderTest, KallsymsWithoutRightsHasItsAddressesAtTheBase) {
    EXPECT_THAT(kallsyms("0000000000000000 T _text\n0000000000000000 T other\n").lines,
                ElementsAre(function(base64, "_text"), function(base64, "other")));
}

// --- Addresses

TEST_F(SystemMapLoaderTest, AModuleOf32BitsHasEightDigits) {
    const Loaded loaded = map32("c1000000 T _text\nC1000010 t early\n");
    EXPECT_EQ(loaded.status, status_Ok);
    EXPECT_THAT(loaded.lines, ElementsAre(function(base32, "_text"), function(base32 + 0x10, "early")));
}

TEST_F(SystemMapLoaderTest, EveryArchitectureButOneHasEightDigits) {
    const std::string path = m_dir.write("System.map", "c1000000 T _text\n");
    for (const arch_t arch : {arch_unknown, arch_ia32, arch_arm, arch_itanium})
        EXPECT_THAT(load(path, arch, ElfClass::k32).lines, ElementsAre(function(base32, "_text"))) << arch;
}

TEST_F(SystemMapLoaderTest, SevenDigitsAreBadDebugInfoAndWhatWasReadStays) {
    const Loaded loaded = map32("c1000000 T _text\nc100001 T b\nc1000020 T c\n");
    EXPECT_EQ(loaded.status, status_BadDebugInfo);
    EXPECT_THAT(loaded.lines, ElementsAre(function(base32, "_text")));
}

TEST_F(SystemMapLoaderTest, FifteenOrEightDigitsAreBadDebugInfoOn64Bits) {
    EXPECT_EQ(map("ffffffff8100000 T a\n").status, status_BadDebugInfo);
    EXPECT_EQ(map("c1000000 T a_name_that_is_long\n").status, status_BadDebugInfo);
}

TEST_F(SystemMapLoaderTest, AGroupIsWhatStrtoulTakesWhole) {
    EXPECT_THAT(map32("0xc1000 T short\n").lines, IsEmpty()) << "outside every segment";
    EXPECT_EQ(map32("0xc1000 T short\n").status, status_BadDebugInfo) << "seven characters and a blank";
    EXPECT_EQ(map32("0x001000 T prefix\n").status, status_Ok);
    EXPECT_EQ(map32(" 1000000 T blank\n").status, status_Ok);
    EXPECT_EQ(map32("+1000000 T sign\n").status, status_Ok);
    EXPECT_EQ(map32("1000000+ T sign behind\n").status, status_BadDebugInfo);
    EXPECT_EQ(map32("0x0x1000 T prefix twice\n").status, status_BadDebugInfo);
    EXPECT_THAT(map("ffffffff 1000010 T blank\n").lines, IsEmpty());
    EXPECT_THAT(map("ffffffff0x000010 T prefix\n").lines, IsEmpty());
    EXPECT_EQ(map("ffffffff0x000010 T prefix\n").status, status_Ok);
}

// --- The ends of listings

TEST_F(SystemMapLoaderTest, AMissingListingIsBadDebugInfo) {
    EXPECT_EQ(load(m_dir.path("System.map")).status, status_BadDebugInfo);
    EXPECT_EQ(load("").status, status_BadDebugInfo);
}

TEST_F(SystemMapLoaderTest, ADirectoryIsBadDebugInfo) {
    EXPECT_EQ(load(m_dir.path()).status, status_BadDebugInfo);
}

TEST_F(SystemMapLoaderTest, AnEmptyListingIsNoError) {
    EXPECT_EQ(map("").status, status_Ok);
}

TEST_F(SystemMapLoaderTest, ALineWithoutAddressIsBadDebugInfo) {
    EXPECT_EQ(map("\n").status, status_BadDebugInfo);
    EXPECT_EQ(map("ffffffff81000000 T a\n\n").status, status_BadDebugInfo);
    EXPECT_EQ(map("ffffffff81000000 T a\nffffffff8100").status, status_BadDebugInfo);
}

TEST_F(SystemMapLoaderTest, TheLastLineNeedsNoEnd) {
    const Loaded loaded = map("ffffffff81000000 T a\nffffffff81000010 T b");
    EXPECT_EQ(loaded.status, status_Ok);
    EXPECT_THAT(loaded.lines, ElementsAre(function(base64, "a"), function(base64 + 0x10, "b")));
}

TEST_F(SystemMapLoaderTest, ALineCutOffInFrontOfItsNameEndsTheLoad) {
    for (const char* cut :
         {"ffffffff81000010", "ffffffff81000010 ", "ffffffff81000010 T", "ffffffff81000010 T "}) {
        const Loaded loaded = map(std::string("ffffffff81000000 T a\n") + cut);
        EXPECT_EQ(loaded.status, status_Ok) << cut;
        EXPECT_THAT(loaded.lines, ElementsAre(function(base64, "a"))) << cut;
    }
}

// --- A whole kernel

class KernelBankTest : public OrnTest {
protected:
    SymMgrObjectPtr<IModuleSymbolBank> load(const std::string& path, arch_t arch = arch_unknown) {
        SymMgrObjectPtr<ISymbolManager> manager;
        EXPECT_EQ(ISymbolManager::create(manager), status_Ok);
        SymMgrObjectPtr<IModuleSymbolBank> bank;
        EXPECT_EQ(manager->loadSymbolsFromModule(path.c_str(), nullptr, bank, arch, false, nullptr),
                  status_Ok);
        return bank;
    }
    static SymMgrObjectPtr<ISymbolRange> rangeAt(IModuleSymbolBank& bank, unsigned long long address,
                                                 symbol_kind_t kinds = symbol_kind_all) {
        SymMgrObjectPtr<IAddress> place;
        EXPECT_EQ(bank.addressFromPseudoAddress(address, place), status_Ok);
        SymMgrObjectPtr<ISymbolRange> range;
        EXPECT_FALSE(isFailure(bank.symbolRangeByAddress(place, range, kinds, nullptr)));
        return range;
    }
    static std::string nameAt(IModuleSymbolBank& bank, unsigned long long address,
                              symbol_kind_t kinds = symbol_kind_all) {
        const auto range = rangeAt(bank, address, kinds);
        return range ? range->symbol()->rawName() : "";
    }

    TempDir m_dir;
};

TEST_F(KernelBankTest, AKernelIsReadThroughItsSystemMap) {
    const std::string path = m_dir.path("vmlinux-5");
    kernel().write(path);
    const std::string map =
        m_dir.write("System.map-5", "ffffffff81000000 T _text\nffffffff81000040 T second\n"
                                    "ffffffff81000100 D data\n");
    const auto bank = load(path);
    EXPECT_EQ(bank->symFileName(), map);
    EXPECT_EQ(bank->symFileFormat(), 4U);
    EXPECT_EQ(nameAt(*bank, base64 + 0x3F), "_text");
    EXPECT_EQ(nameAt(*bank, base64 + 0x40), "second");
    EXPECT_EQ(nameAt(*bank, base64 + 0x108), "data");
    EXPECT_EQ(rangeAt(*bank, base64 + 0x20)->size(), 0U) << "a listing tells no sizes";
    EXPECT_EQ(rangeAt(*bank, base64 + 0x20)->sizeToNextSymbol(), 0x40U);
}

TEST_F(KernelBankTest, KindsMayBeAskedForOneAfterTheOther) {
    const std::string path = m_dir.path("vmlinux-5");
    kernel().write(path);
    m_dir.write("System.map-5", "ffffffff81000000 T _text\nffffffff81000040 D data\n");
    const auto bank = load(path);
    EXPECT_EQ(nameAt(*bank, base64 + 0x48, symbol_kind_function), "_text");
    EXPECT_EQ(nameAt(*bank, base64 + 0x48, symbol_kind_variable), "data");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(bank->prefetcher()->putPseudoAddress(base64 + i), status_False);
        EXPECT_EQ(nameAt(*bank, base64 + 0x10), "_text") << "read anew";
    }
}

TEST_F(KernelBankTest, ASystemMapWinsOverKallsyms) {
    const std::string path = m_dir.path("vmlinux-5");
    kernel().write(path);
    m_dir.write("kallsyms", "ffffffff9e400000 T running\n");
    EXPECT_EQ(nameAt(*load(path), base64 + 8), "running");
    m_dir.write("System.map-5", "ffffffff81000000 T built\n");
    EXPECT_EQ(nameAt(*load(path), base64 + 8), "built");
}

TEST_F(KernelBankTest, ACompressedKernelIsReadThroughItsSystemMapAlone) {
    const std::string path = m_dir.write("vmlinuz-5-x86_64", "no kernel that anything could be read of");
    expectLog("has neither ELFCLASS32 nor ELFCLASS64");
    m_dir.write("System.map-5-x86_64", "ffffffff81000000 T _text\nffffffff81000040 T second\n");
    const auto bank = load(path);
    EXPECT_EQ(bank->architecture(), arch_x86_64);
    EXPECT_EQ(nameAt(*bank, 0xFFFFFFFF81000020), "_text");
    EXPECT_EQ(nameAt(*bank, 0xFFFFFFFF81000050), "second");
}

TEST_F(KernelBankTest, ACompressedKernelWithoutArchitectureInItsNameTakesThatOfItsClient) {
    const std::string path = m_dir.write("vmlinuz-5-amd64", "no kernel that anything could be read of");
    expectLog("has neither ELFCLASS32 nor ELFCLASS64");
    m_dir.write("System.map-5-amd64", "ffffffff81000000 T _text\n");
    EXPECT_EQ(nameAt(*load(path, arch_x86_64), 0xFFFFFFFF81000020), "_text");
}

TEST_F(KernelBankTest, ABrokenListingLeavesTheModulesOwnSymbols) {
    ElfAssembler elf;
    const auto text =
        elf.section(".text", SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR).address(base64).zeros(0x1000);
    elf.load({text});
    elf.symbol("own", base64 + 0x100, 0x10);
    const std::string path = m_dir.path("vmlinux-5");
    elf.write(path);
    m_dir.write("System.map-5", "ffffffff81000000 T _text\nbroken\n");
    const auto bank = load(path);
    SymMgrObjectPtr<IAddress> place;
    ASSERT_EQ(bank->addressFromPseudoAddress(base64 + 0x108, place), status_Ok);
    SymMgrObjectPtr<ISymbolRange> range;
    EXPECT_EQ(bank->symbolRangeByAddress(place, range, symbol_kind_all, nullptr), status_BadDebugInfo);
    EXPECT_EQ(nameAt(*bank, base64 + 0x108), "own");
    EXPECT_EQ(nameAt(*bank, base64 + 0x8), "_text");
}

// --- The parts

TEST(ListingNames, KeepsNamesWhereTheyAre) {
    internal::ListingNames names;
    const char* first = names.keep("first");
    const char* large = names.keep(std::string(1 << 20, 'x'));
    for (int i = 0; i < 100000; ++i)
        names.keep("name" + std::to_string(i));
    EXPECT_STREQ(first, "first");
    EXPECT_EQ(std::string(large), std::string(1 << 20, 'x'));
}

TEST(ListingNames, SharesOnceItIsTold) {
    internal::ListingNames names;
    const char* first = names.keep("name");
    EXPECT_NE(names.keep("name"), first);
    names.startSharing();
    const char* shared = names.keep("name");
    EXPECT_EQ(names.keep("name"), shared);
    const char* other = names.keep("other");
    EXPECT_EQ(names.keep("other"), other);
    EXPECT_STREQ(other, "other");
}

} // namespace
} // namespace ORN_3_30::test
