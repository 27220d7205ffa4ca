// Facts about the debug info loader of containers of compiled managed code: the candidate, the header, and
// how the ELF loader comes to it.

#include "orn_oat.h"

#include "orn_scope.h"
#include "support/memory_image.h"
#include "support/oat_reading.h"
#include "support/orn_fixture.h"
#include "support/temp_dir.h"

#include <cstdlib>

namespace ORN_3_30 {
namespace {

using orn_test::ByteAssembler;
using orn_test::DexAssembler;
using orn_test::MemoryImage;
using orn_test::OatAssembler;
using orn_test::oatDataAddress;
using orn_test::OatReading;
using orn_test::TempDir;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string headerFailed = "Failed to read OAT header: Invalid format or unsupported version";

using OatTest = test::OrnTest;
using OatHeader = test::OrnTest;
using OatInElf = test::OrnTest;

class EnvironmentSwitch {
public:
    explicit EnvironmentSwitch(const char* value) { ::setenv("ORN_USE_LEGACY_OAT_READER", value, 1); }
    ~EnvironmentSwitch() { ::unsetenv("ORN_USE_LEGACY_OAT_READER"); }
    EnvironmentSwitch(const EnvironmentSwitch&) = delete;
    EnvironmentSwitch& operator=(const EnvironmentSwitch&) = delete;
};

/// One class with one method.
DexAssembler smallDex(const std::string& className = "Lcom/acme/Foo;") {
    DexAssembler dex;
    dex.addMethod(dex.addClass(className), "bar");
    return dex;
}

OatAssembler smallOat(int version = 28) {
    OatAssembler oat(version);
    oat.addDex(smallDex());
    return oat;
}

std::vector<uint8_t> cut(std::vector<uint8_t> bytes, size_t size) {
    bytes.resize(size);
    return bytes;
}

// --- The candidate

TEST_F(OatTest, CandidateIsTheModuleItself) {
    SymMgrObjectPtr<ISymbolFileToResolve> candidate =
        new OATSymbolFileToResolve(3, "/lib/../app.oat", nullptr);
    EXPECT_EQ(candidate->kind(), static_cast<unsigned>(symbol_file_oat));
    EXPECT_EQ(candidate->state(), static_cast<unsigned>(symbol_file_usable));
    EXPECT_STREQ(candidate->wantedName(), "/lib/../app.oat");
    EXPECT_STREQ(candidate->modulePath(), "/lib/../app.oat");
    EXPECT_EQ(candidate->isRequired(), 1);
    EXPECT_EQ(candidate->resolve("/app.oat"), 3);
    EXPECT_EQ(candidate->resolve("/other.oat"), -1);
    EXPECT_EQ(candidate->resolve(nullptr), -1);
}

// --- What the loader has no answer for

TEST_F(OatTest, LoaderAnswersForItsFormat) {
    OatReading reading(smallOat());
    EXPECT_EQ(reading.loader->getType(), 5u);
    EXPECT_STREQ(reading.loader->getPath(), "/module.oat");
    SymMgrObjectPtr<ISymbol> variable;
    EXPECT_EQ(reading.loader->findStackVariable(nullptr, nullptr, 0, nullptr, variable, nullptr),
              status_False);
    EXPECT_EQ(reading.loader->loadLineTable(nullptr), status_False);
    SymMgrObjectPtr<ISection> section = new Section(reading.format, "x", 0, 0, 0, false);
    reading.loader->getSectionByIndex(section, 0);
    EXPECT_EQ(section, nullptr);
    EXPECT_EQ(reading.loader->getCompilationUnit(0), nullptr);
}

TEST_F(OatTest, LineResolverIsMadeOnce) {
    OatReading reading(smallOat());
    OrnLock lock;
    EXPECT_EQ(reading.loader->getLineResolver(nullptr, &lock), reading.resolver);
    EXPECT_NE(reading.resolver, nullptr);
}

TEST_F(OatTest, LoadWithoutSinkIsRefused) {
    OatReading reading(smallOat());
    EXPECT_EQ(reading.loader->loadSymbols(nullptr, nullptr, symbol_kind_all, nullptr), status_InvalidPointer);
}

TEST_F(OatTest, EachLoadReadsTheContainerAnew) {
    OatReading reading(smallOat());
    EXPECT_EQ(reading.load(), status_Ok);
    EXPECT_EQ(reading.load(), status_Ok);
    EXPECT_THAT(reading.sink.names(), ElementsAre("com.acme.Foo.bar", "com.acme.Foo.bar"));
    EXPECT_EQ(reading.loader->dexLoaders().size(), 1u) << "the earlier ones are dropped";
}

// --- The header

TEST_F(OatHeader, EveryVersionThatIsReadGivesItsMethods) {
    for (const int version : {7, 14, 15, 22, 23, 24, 25, 26, 27, 28}) {
        SCOPED_TRACE(version);
        OatReading reading(smallOat(version));
        EXPECT_EQ(reading.loader->version(), -1);
        EXPECT_EQ(reading.load(), status_Ok);
        EXPECT_EQ(reading.loader->version(), version);
        EXPECT_THAT(reading.sink.names(), ElementsAre("com.acme.Foo.bar"));
        EXPECT_THAT(messages(test::informationLevel),
                    Contains("OAT file version " + std::to_string(version)));
    }
}

TEST_F(OatHeader, OtherVersionsAreRefused) {
    for (const int version : {0, 6, 8, 13, 16, 21, 29, 999}) {
        SCOPED_TRACE(version);
        OatReading reading(smallOat(version));
        EXPECT_EQ(reading.load(), status_UnsupportedFormatVersion);
        EXPECT_THAT(reading.sink.names(), IsEmpty());
        EXPECT_THAT(messages(test::warningLevel),
                    ElementsAre(HasSubstr("Unsupported version of OAT file"), HasSubstr(headerFailed)));
        takeLogs();
    }
}

TEST_F(OatHeader, VersionIsANumberOfFourBytesAtMost) {
    std::vector<uint8_t> bytes = smallOat(28).build();
    bytes[7] = '5'; // in place of the NUL; the checksum begins with digits
    bytes[8] = '1';
    OatReading reading(bytes, 0);
    expectLog("Unsupported version of OAT file");
    EXPECT_EQ(reading.loader->readOatHeader(), status_UnsupportedFormatVersion);
    EXPECT_EQ(reading.loader->version(), 285);
}

TEST_F(OatHeader, MagicHasToBeThere) {
    for (size_t i = 0; i < 4; ++i) {
        std::vector<uint8_t> bytes = smallOat().build();
        bytes[i] ^= 1;
        EXPECT_EQ(OatReading(bytes, 0).loader->readOatHeader(), status_BadFileFormat);
    }
    EXPECT_EQ(OatReading({}, 0).loader->readOatHeader(), status_BadFileFormat);
}

TEST_F(OatHeader, HeaderThatEndsEarlyIsRefused) {
    for (const int version : {7, 14, 28}) {
        const OatAssembler oat = smallOat(version);
        const size_t end = oat.assemble().offsetOf("store_size") + 4;
        for (size_t size = 0; size < end; ++size) {
            OatReading reading(cut(oat.build(), size), oat.executableOffset());
            ASSERT_EQ(reading.loader->readOatHeader(), status_BadFileFormat) << version << ' ' << size;
        }
        OatReading reading(cut(oat.build(), end), oat.executableOffset());
        EXPECT_EQ(reading.loader->readOatHeader(), status_Ok) << "the list of dex files just ends";
        EXPECT_THAT(reading.loader->dexLoaders(), IsEmpty());
    }
}

TEST_F(OatHeader, MissingPartsAreRefused) {
    SymMgrObjectPtr<IBuffer> buffer = new ByteBuffer(16);
    OatReading reading(smallOat());
    SymMgrObjectPtr<IAddress> address = new Address(reading.format, 0, nullptr);
    const auto statusOf = [&](FileFormatLoader* format, IAddress* data, IAddress* exec) {
        SymMgrObjectPtr<OATDebugInfoLoader> loader =
            new OATDebugInfoLoader(format, "", nullptr, buffer, data, exec);
        return loader->readOatHeader();
    };
    EXPECT_EQ(statusOf(nullptr, address, address), status_InvalidPointer);
    EXPECT_EQ(statusOf(reading.format, nullptr, address), status_InvalidPointer);
    EXPECT_EQ(statusOf(reading.format, address, nullptr), status_InvalidPointer);
    SymMgrObjectPtr<OATDebugInfoLoader> withoutBytes =
        new OATDebugInfoLoader(reading.format, "", nullptr, nullptr, address, address);
    EXPECT_EQ(withoutBytes->readOatHeader(), status_BadFileFormat);
    SymMgrObjectPtr<OATDebugInfoLoader> withoutFormat =
        new OATDebugInfoLoader(nullptr, "", nullptr, buffer, address, address);
    EXPECT_EQ(withoutFormat->getLineResolver(nullptr, nullptr), nullptr);
}

TEST_F(OatHeader, ExecutableOffsetThatDoesNotFitTheSymbolsIsLogged) {
    const OatAssembler oat = smallOat();
    OatReading reading(oat.build(), oat.executableOffset() + 0x100);
    expectLog("m_oatDataExec->pseudoAddr() - m_oatDataStart->pseudoAddr() == m_executableOffset");
    EXPECT_EQ(reading.load(), status_Ok);
    ASSERT_EQ(reading.sink.entries.size(), 1u) << "reading goes on";
    EXPECT_EQ(reading.sink.entries[0].low, oatDataAddress + 0x100 + oat.codeOffset(0, 0, "bar"))
        << "the symbol's address goes by the code's own";
}

TEST_F(OatHeader, TrailingStoreIsSteppedOver) {
    OatAssembler oat = smallOat();
    oat.store({'k', 'e', 'y', 0, 'v', 0, 7});
    OatReading reading(oat);
    EXPECT_EQ(reading.load(), status_Ok);
    EXPECT_THAT(reading.sink.names(), ElementsAre("com.acme.Foo.bar"));
}

TEST_F(OatHeader, TrailingStorePastTheEndLeavesNoDexFiles) {
    for (const uint32_t size : {0x1000u, 0xFFFFFFFFu}) {
        ByteAssembler bytes = smallOat().assemble();
        bytes.overwrite("store_size", size, 4);
        OatReading reading(bytes.bytes(), smallOat().executableOffset());
        EXPECT_EQ(reading.load(), status_Ok);
        EXPECT_THAT(reading.sink.names(), IsEmpty());
    }
}

TEST_F(OatHeader, ContainerWithoutDexFilesHasNoSymbols) {
    OatReading reading(OatAssembler(28));
    EXPECT_EQ(reading.load(), status_Ok);
    EXPECT_THAT(reading.sink.names(), IsEmpty());
}

// --- Dex entries

TEST_F(OatHeader, DexFilesAreReadInOrder) {
    OatAssembler oat(28);
    oat.addDex(smallDex("LFirst;"));
    oat.addDex(DexAssembler());
    oat.addDex(smallDex("LThird;"));
    OatReading reading(oat);
    EXPECT_EQ(reading.load(), status_Ok);
    EXPECT_THAT(reading.sink.names(), ElementsAre("First.bar", "Third.bar"));
    ASSERT_EQ(reading.loader->dexLoaders().size(), 3u);
    EXPECT_EQ(reading.loader->dexLoaders()[2]->index(), 2u);
}

TEST_F(OatHeader, ListOfDexFilesMayEndBetweenTwoEntries) {
    OatAssembler oat(28);
    oat.addDex(smallDex());
    const size_t entry = oat.assemble().offsetOf("entry:0");
    const size_t entryEnd = oat.assemble().offsetOf("class_offsets:0") + 4;
    const std::vector<uint8_t> whole = oat.build();
    // A store that swallows everything up to a copy of the entry at the end.
    ByteAssembler bytes;
    bytes.raw(whole);
    bytes.overwriteAt(oat.assemble().offsetOf("store_size"), whole.size() - entry, 4);
    bytes.overwriteAt(oat.assemble().offsetOf("dex_count"), 5, 4);
    bytes.raw(std::span(whole).subspan(entry, entryEnd - entry));
    OatReading reading(bytes.bytes(), oat.executableOffset());
    EXPECT_EQ(reading.load(), status_Ok);
    EXPECT_THAT(reading.sink.names(), ElementsAre("com.acme.Foo.bar"));
    bytes.raw({1, 2, 3});
    OatReading withRest(bytes.bytes(), oat.executableOffset());
    EXPECT_EQ(withRest.load(), status_Ok) << "three bytes are no entry";
    bytes.u8(0);
    OatReading withStart(bytes.bytes(), oat.executableOffset());
    expectLog(headerFailed);
    EXPECT_EQ(withStart.load(), status_BadFileFormat) << "four bytes are the start of one";
}

TEST_F(OatHeader, EntryNeedsTwelveBytesBehindItsLocation) {
    OatAssembler oat(28);
    oat.addDex(DexAssembler()); // without classes: the entry itself ends after eight
    const std::vector<uint8_t> whole = oat.build();
    const size_t entry = oat.assemble().offsetOf("entry:0");
    const size_t entryEnd = oat.assemble().offsetOf("class_offsets:0");
    for (const size_t rest : {0u, 3u, 4u}) {
        ByteAssembler bytes;
        bytes.raw(whole).overwriteAt(oat.assemble().offsetOf("store_size"), whole.size() - entry, 4);
        bytes.raw(std::span(whole).subspan(entry, entryEnd - entry)).fill(rest);
        OatReading reading(bytes.bytes(), oat.executableOffset());
        EXPECT_EQ(reading.loader->readOatHeader(), rest < 4 ? status_BadFileFormat : status_Ok) << rest;
    }
}

TEST_F(OatHeader, LocationPastTheEndIsRefused) {
    for (const uint32_t size : {0x1000u, 0xFFFFFFFFu}) {
        ByteAssembler bytes = smallOat().assemble();
        bytes.overwrite("entry:0", size, 4);
        EXPECT_EQ(OatReading(bytes.bytes(), smallOat().executableOffset()).loader->readOatHeader(),
                  status_BadFileFormat);
    }
}

TEST_F(OatHeader, DexHeaderHasToLieInTheContainer) {
    const OatAssembler oat = smallOat();
    const auto size = static_cast<uint32_t>(oat.build().size());
    for (const uint32_t offset : {size - 111, size, 0xFFFFFFFFu}) {
        ByteAssembler bytes = oat.assemble();
        bytes.overwrite("dex_offset:0", offset, 4);
        EXPECT_EQ(OatReading(bytes.bytes(), oat.executableOffset()).loader->readOatHeader(),
                  status_BadFileFormat);
    }
    // Right at the end it lies inside.
    ByteAssembler bytes = oat.assemble();
    const std::vector<uint8_t> dex = DexAssembler().build();
    bytes.overwrite("dex_offset:0", size, 4);
    bytes.raw(std::span(dex).first(112));
    OatReading reading(bytes.bytes(), oat.executableOffset());
    EXPECT_EQ(reading.loader->readOatHeader(), status_Ok);
    EXPECT_EQ(reading.loader->dexLoaders().size(), 1u);
}

TEST_F(OatHeader, TableOfClassesHasToLieInTheContainer) {
    const OatAssembler oat = smallOat();
    const size_t table = oat.assemble().offsetOf("class_offsets:0");
    const size_t dex = oat.assemble().offsetOf("dex:0");
    const auto fits = static_cast<uint32_t>((oat.build().size() - table) / 4);
    for (const uint32_t count : {fits, fits + 1, 0xFFFFFFFFu}) {
        std::vector<uint8_t> bytes = oat.build();
        std::memcpy(&bytes[dex + 96], &count, 4);
        OatReading reading(bytes, oat.executableOffset());
        EXPECT_EQ(reading.loader->readOatHeader(), count == fits ? status_Ok : status_BadFileFormat) << count;
    }
}

TEST_F(OatHeader, DexFileWithAnotherMagicIsLoggedAndEndsTheLoad) {
    OatAssembler oat(28);
    oat.addDex(smallDex("LFirst;"));
    std::vector<uint8_t> damaged = smallDex("LSecond;").build();
    damaged[1] = 'E';
    oat.addDex(smallDex("LSecond;"), damaged);
    OatReading reading(oat);
    expectLog("Invalid or unsupported dex header");
    expectLog(headerFailed);
    EXPECT_EQ(reading.load(), status_False);
    EXPECT_THAT(reading.sink.names(), IsEmpty()) << "the first one is not read either";
}

TEST_F(OatHeader, DexFileOfAnotherVersionIsRefused) {
    OatAssembler oat(28);
    std::vector<uint8_t> damaged = smallDex().build();
    damaged[6] = '7';
    oat.addDex(smallDex(), damaged);
    OatReading reading(oat);
    expectLog(headerFailed);
    EXPECT_EQ(reading.load(), status_UnsupportedFormatVersion);
}

TEST_F(OatHeader, ByteBehindTheMagicOfADexFileIsNotLookedAt) {
    OatAssembler oat(28);
    std::vector<uint8_t> damaged = smallDex().build();
    damaged[3] = ' ';
    damaged[7] = 'x';
    oat.addDex(smallDex(), damaged);
    EXPECT_EQ(OatReading(oat).load(), status_Ok);
}

// --- In an ELF file

/// Opens what loaders keep to themselves.
class OpenLoader : public ElfFileLoader {
public:
    using ElfFileLoader::createDebugInfoLoader;
    using ElfFileLoader::ElfFileLoader;
};

SymMgrObjectPtr<OpenLoader> loaderOf(const TempDir& directory, const std::vector<uint8_t>& bytes) {
    const std::string path = directory.write("app.oat", std::string(bytes.begin(), bytes.end()));
    return new OpenLoader(new MemoryImage(bytes, path));
}

TEST_F(OatInElf, ContainerIsTheOnlyCandidate) {
    const TempDir directory;
    const EnvironmentSwitch on("1");
    SymMgrObjectPtr<OpenLoader> loader = loaderOf(directory, smallOat().module().build());
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>> candidates;
    ASSERT_EQ(loader->getSymbolFiles(candidates), status_Ok);
    ASSERT_NE(candidates->current(), nullptr);
    EXPECT_EQ(candidates->current()->kind(), static_cast<unsigned>(symbol_file_oat));
    EXPECT_STREQ(candidates->current()->wantedName(), loader->getPath());
    EXPECT_FALSE(candidates->next());
}

TEST_F(OatInElf, DebugInfoLoaderReadsTheContainerOutOfTheFile) {
    const TempDir directory;
    const EnvironmentSwitch on("1");
    const OatAssembler oat = smallOat();
    SymMgrObjectPtr<OpenLoader> loader = loaderOf(directory, oat.module(0x4000).build());
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>> candidates;
    ASSERT_EQ(loader->getSymbolFiles(candidates), status_Ok);
    SymMgrObjectPtr<IDebugInfoLoader> debugLoader;
    ASSERT_EQ(loader->getDebugInfoLoader(debugLoader, 0), status_Ok);
    ASSERT_NE(debugLoader, nullptr);
    EXPECT_EQ(debugLoader->getType(), static_cast<unsigned>(symbol_file_oat));
    orn_test::RecordingSink sink;
    EXPECT_EQ(debugLoader->loadSymbols(&sink, nullptr, symbol_kind_all, nullptr), status_Ok);
    ASSERT_THAT(sink.names(), ElementsAre("com.acme.Foo.bar"));
    EXPECT_EQ(sink.entries[0].low, 0x4000 + oat.codeOffset(0, 0, "bar"));
}

TEST_F(OatInElf, WithoutTheSwitchThereIsNoReader) {
    const TempDir directory;
    SymMgrObjectPtr<OpenLoader> loader = loaderOf(directory, smallOat().module().build());
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>> candidates;
    ASSERT_EQ(loader->getSymbolFiles(candidates), status_Ok);
    for (auto candidate = candidates->current(); candidate;
         candidate = candidates->next() ? candidates->current() : nullptr)
        EXPECT_EQ(candidate->kind(), static_cast<unsigned>(symbol_file_dwarf));
    EXPECT_EQ(loader->createDebugInfoLoader(loader->getPath(), symbol_file_oat, 0), nullptr);
}

TEST_F(OatInElf, ContainerThatTheFileCutsOffIsLogged) {
    const TempDir directory;
    const EnvironmentSwitch on("1");
    const std::vector<uint8_t> bytes = smallOat().module().build();
    SymMgrObjectPtr<OpenLoader> loader = loaderOf(directory, bytes);
    directory.write("app.oat", "cut off meanwhile");
    expectLog("Unable to read ");
    expectLog("st==status_Ok");
    EXPECT_EQ(loader->createDebugInfoLoader(loader->getPath(), symbol_file_oat, 0), nullptr);
}

} // namespace
} // namespace ORN_3_30
