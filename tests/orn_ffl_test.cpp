#include "orn_ffl.h"

#include "orn/address.h"
#include "orn/symbol.h"
#include "orn_ffl_registry.h"
#include "support/allocation.h"
#include "support/orn_fixture.h"
#include "support/temp_dir.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

using namespace ORN_3_30;

namespace {

constexpr unsigned long long top = ~0ULL;

class FakeCandidate : public SymMgrObject<ISymbolFileToResolve> {
public:
    FakeCandidate(std::string path, unsigned type, ILock* lock)
        : SymMgrObject<ISymbolFileToResolve>(lock), m_path(std::move(path)), m_type(type) {}
    const char* wantedName() override { return m_path.c_str(); }
    const char* modulePath() override { return ""; }
    unsigned kind() override { return m_type; }
    unsigned state() override { return 1; }
    long long resolve(const char*) override { return 0; }
    int isRequired() override { return 0; }

private:
    std::string m_path;
    unsigned m_type;
};

class FakeDebugInfoLoader : public DebugInfoLoader {
public:
    FakeDebugInfoLoader(FileFormatLoader* loader, const char* path, unsigned type, int* alive)
        : DebugInfoLoader(loader, FileFormatLoader::debugInfoLock()),
          m_path(path),
          m_type(type),
          m_alive(alive) {
        ++*m_alive;
    }
    ~FakeDebugInfoLoader() override { --*m_alive; }
    const char* getPath() override { return m_path.c_str(); }
    unsigned getType() override { return m_type; }
    status_t loadSymbols(ISymbolTable*, LoadFilter*, symbol_kind_t, ISrcLineResolver*) override {
        return status_Ok;
    }
    ISrcLineResolver* getLineResolver(GlobalScope*, ILock*) override { return nullptr; }
    status_t findStackVariable(ISymbol*, IAddress*, unsigned long long, IStackFrameContext*,
                               SymMgrObjectPtr<ISymbol>&, bool*) override {
        return status_False;
    }
    status_t loadLineTable(ILineTable*) override { return status_False; }
    ICompUnitDetails* getCompilationUnit(unsigned long long) override { return nullptr; }

private:
    std::string m_path;
    unsigned m_type;
    int* m_alive;
};

/// A format of which everything is set by hand.
class FakeLoader : public FileFormatLoader {
public:
    explicit FakeLoader(std::string path = "") : m_path(std::move(path)) {}

    const char* getPath() override { return m_path.c_str(); }
    exec_format_t getExecFormat() override { return exec_format_elf; }
    arch_t getArch() override { return arch_x86_64; }
    unsigned long long getImageBase() override { return imageBase; }
    unsigned long long getEntryPoint() override { return 0; }
    unsigned long long getImageSize() override { return 0; }
    status_t readSymbols(ISymbolTable*, LoadFilter*, symbol_kind_t) override { return status_Ok; }
    void getSectionByName(SymMgrObjectPtr<ISection>&, const char*) override {}
    void getSectionByIndex(SymMgrObjectPtr<ISection>&, unsigned) override {}

    /// A segment of kind `kind` with `size` bytes in memory at `key`.
    bool add(unsigned long long key, unsigned long long size, unsigned kind, const char* name = "s") {
        return addSegment(key, name, key - imageBase, 0, 0, size, kind);
    }
    bool addInFile(unsigned long long key, unsigned long long fileOffset, unsigned long long fileSize,
                   unsigned long long memorySize) {
        return addSegment(key, "s", key - imageBase, fileOffset, fileSize, memorySize, 0);
    }
    /// "begin+size:kind" of each segment in address order.
    std::string layout() {
        std::string text;
        for (const auto& [key, segment] : m_segments)
            text += (text.empty() ? "" : " ") + std::to_string(key) + "+" +
                    std::to_string(segment->getMemorySize()) + ":" + std::to_string(segment->getKind());
        return text;
    }

    using FileFormatLoader::addSection;
    using FileFormatLoader::addSegment;
    using FileFormatLoader::isBogusImage;

    unsigned long long imageBase = 0;
    std::vector<std::pair<std::string, unsigned>> candidates;
    status_t collectStatus = status_Ok;
    int collected = 0;
    int created = 0;
    int alive = 0;
    int ensured = 0;
    bool createsNothing = false;
    std::vector<long long> createdIndexes;

protected:
    status_t collectSymbolFiles(std::vector<SymMgrObjectPtr<ISymbolFileToResolve>>& symbolFiles) override {
        ++collected;
        for (const auto& [path, type] : candidates)
            symbolFiles.push_back(new FakeCandidate(path, type, &m_sharedLock));
        return collectStatus;
    }
    IDebugInfoLoader* createDebugInfoLoader(const char* path, unsigned type, long long index) override {
        ++created;
        createdIndexes.push_back(index);
        return createsNothing ? nullptr : new FakeDebugInfoLoader(this, path, type, &alive);
    }
    void addSectionEnds(ISymbolTable*) override {}
    void ensureRead() override { ++ensured; }

private:
    std::string m_path;
};

class FileFormatLoaderTest : public test::OrnTest {
protected:
    SymMgrObjectPtr<FakeLoader> loader = new FakeLoader;
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>> symbolFiles;

    ISegment* segmentAtKey(unsigned long long key) { return loader->findSegment(key); }
};

class FileReadTest : public test::OrnTest {
protected:
    std::string textOf(const SymMgrObjectPtr<IBuffer>& buffer) {
        return buffer ? std::string(reinterpret_cast<char*>(buffer->data()), buffer->size()) : "(null)";
    }

    orn_test::TempDir directory;
    std::string path = directory.write("module", "0123456789");
    SymMgrObjectPtr<FakeLoader> loader = new FakeLoader(path);
    SymMgrObjectPtr<IBuffer> buffer;
};

} // namespace

// --- What the base class answers

TEST_F(FileFormatLoaderTest, AnswersWhatMostFormatsHave) {
    EXPECT_EQ(loader->getStatus(), status_Ok);
    EXPECT_STREQ(loader->getKernelName(), "");
    EXPECT_FALSE(loader->isReadyToRun());
    EXPECT_FALSE(loader->isBogusImage());
}

TEST_F(FileFormatLoaderTest, EachHasACountLockOfItsOwn) {
    unsigned count = 0;
    loader->refCount(count);
    EXPECT_EQ(count, 1u);
}

// --- addSegment

TEST_F(FileFormatLoaderTest, SegmentsThatTouchDoNotOverlap) {
    EXPECT_TRUE(loader->add(100, 10, 0));
    EXPECT_TRUE(loader->add(110, 10, 0));
    EXPECT_TRUE(loader->add(90, 10, 0));
    EXPECT_EQ(loader->layout(), "90+10:0 100+10:0 110+10:0");
}

TEST_F(FileFormatLoaderTest, ASegmentOfKind0GivesUpOnTheFirstOverlap) {
    ASSERT_TRUE(loader->add(100, 10, 0));
    EXPECT_FALSE(loader->add(109, 10, 0));
    EXPECT_FALSE(loader->add(91, 10, 0));
    EXPECT_FALSE(loader->add(100, 10, 0));
    EXPECT_FALSE(loader->add(90, 100, 0));
    EXPECT_FALSE(loader->add(103, 0, 0));
    EXPECT_EQ(loader->layout(), "100+10:0");
}

TEST_F(FileFormatLoaderTest, ASegmentOfAnotherKindPushesOutAllOfKind0) {
    ASSERT_TRUE(loader->add(100, 10, 0));
    ASSERT_TRUE(loader->add(110, 10, 0));
    ASSERT_TRUE(loader->add(120, 10, 0));
    ASSERT_TRUE(loader->add(130, 10, 0));
    EXPECT_TRUE(loader->add(105, 20, 2));
    EXPECT_EQ(loader->layout(), "105+20:2 130+10:0");
}

TEST_F(FileFormatLoaderTest, ASegmentOfAnotherKindDoesNotPushOutItsLike) {
    ASSERT_TRUE(loader->add(100, 10, 0));
    ASSERT_TRUE(loader->add(110, 10, 1));
    EXPECT_FALSE(loader->add(90, 30, 2));
    EXPECT_FALSE(loader->add(119, 1, 2));
    EXPECT_FALSE(loader->add(110, 10, 1));
    EXPECT_EQ(loader->layout(), "100+10:0 110+10:1");
}

TEST_F(FileFormatLoaderTest, ASegmentOfKind0GivesWayToOneOfAnotherKind) {
    ASSERT_TRUE(loader->add(100, 10, 1));
    EXPECT_FALSE(loader->add(105, 10, 0));
    EXPECT_EQ(loader->layout(), "100+10:1");
}

TEST_F(FileFormatLoaderTest, AnEmptySegmentIsOverlappedFromItsOwnAddress) {
    ASSERT_TRUE(loader->add(100, 0, 0));
    EXPECT_FALSE(loader->add(100, 1, 0));
    EXPECT_TRUE(loader->add(101, 1, 0));
    EXPECT_TRUE(loader->add(99, 1, 0));
    EXPECT_EQ(loader->layout(), "99+1:0 100+0:0 101+1:0");
}

TEST_F(FileFormatLoaderTest, TwoEmptySegmentsAtOneAddressReplaceEachOther) {
    ASSERT_TRUE(loader->add(100, 0, 1));
    EXPECT_TRUE(loader->add(100, 0, 0, "later"));
    EXPECT_EQ(loader->layout(), "100+0:0");
    EXPECT_STREQ(loader->getSegmentAt(1)->getName(), "later");
    // The one that was replaced no longer stands in the way of anything.
    EXPECT_TRUE(loader->add(90, 20, 1));
    EXPECT_EQ(loader->layout(), "90+20:1");
}

TEST_F(FileFormatLoaderTest, ASegmentMayReachPastTheLargestAddress) {
    ASSERT_TRUE(loader->add(top - 9, top, 0));
    EXPECT_FALSE(loader->add(top, 1, 0));
    EXPECT_FALSE(loader->add(top - 20, top, 0));
    EXPECT_TRUE(loader->add(top - 20, 11, 0));
    EXPECT_TRUE(loader->add(0, 10, 0));
    EXPECT_EQ(loader->findSegment(top), loader->getSegmentAt(3));
}

TEST_F(FileFormatLoaderTest, TensOfThousandsOfSegmentsAreAddedInNoTime) {
    const auto start = std::chrono::steady_clock::now();
    constexpr unsigned count = 32000;
    ASSERT_TRUE(loader->add(count * 16, 16, 1));
    for (unsigned i = 0; i < count; ++i)
        ASSERT_TRUE(loader->add(i * 16, 8, 0));
    for (unsigned i = 0; i < count; ++i)
        ASSERT_FALSE(loader->add(0, top, 1));
    for (unsigned i = 0; i < count; ++i)
        ASSERT_FALSE(loader->add(0, top, 0));
    EXPECT_TRUE(loader->add(0, count * 16, 1));
    EXPECT_EQ(loader->layout(), "0+512000:1 512000+16:1");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST_F(FileFormatLoaderTest, ASegmentKeepsWhatItWasAddedWith) {
    ASSERT_TRUE(loader->addSegment(0x1000, ".text", 0x10, 0x20, 0x30, 0x40, 5));
    ISegment* segment = loader->getSegmentAt(1);
    EXPECT_STREQ(segment->getName(), ".text");
    EXPECT_EQ(segment->getRva(), 0x10u);
    EXPECT_EQ(segment->getFileOffset(), 0x20u);
    EXPECT_EQ(segment->getFileSize(), 0x30u);
    EXPECT_EQ(segment->getMemorySize(), 0x40u);
    EXPECT_EQ(segment->getKind(), 5u);
}

TEST_F(FileFormatLoaderTest, APlainSegmentHasNoSectionIterator) {
    ASSERT_TRUE(loader->add(100, 10, 0));
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISection>>> sections;
    loader->getSegmentAt(1)->getSections(sections, false);
    EXPECT_FALSE(sections);
}

// --- Lookups

TEST_F(FileFormatLoaderTest, TheEndOfASegmentStillFindsIt) {
    EXPECT_EQ(loader->findSegment(0), nullptr);
    ASSERT_TRUE(loader->add(100, 10, 0));
    EXPECT_EQ(loader->findSegment(99), nullptr);
    ASSERT_NE(loader->findSegment(100), nullptr);
    EXPECT_EQ(loader->findSegment(110), loader->findSegment(100));
    EXPECT_EQ(loader->findSegment(111), nullptr);
}

TEST_F(FileFormatLoaderTest, ASegmentThatStartsThereWinsOverTheOneThatEnds) {
    ASSERT_TRUE(loader->add(100, 10, 0, "first"));
    ASSERT_TRUE(loader->add(110, 10, 0, "second"));
    ASSERT_TRUE(loader->add(121, 10, 0, "third"));
    EXPECT_STREQ(loader->findSegment(110)->getName(), "second");
    EXPECT_STREQ(loader->findSegment(120)->getName(), "second");
    EXPECT_STREQ(loader->findSegment(121)->getName(), "third");
}

TEST_F(FileFormatLoaderTest, SegmentsAreCountedFrom1InAddressOrder) {
    ASSERT_TRUE(loader->add(200, 10, 0, "high"));
    ASSERT_TRUE(loader->add(100, 10, 0, "low"));
    EXPECT_STREQ(loader->getSegmentAt(1)->getName(), "low");
    EXPECT_STREQ(loader->getSegmentAt(2)->getName(), "high");
    EXPECT_EQ(loader->getSegmentAt(0), nullptr);
    EXPECT_EQ(loader->getSegmentAt(-1), nullptr);
    EXPECT_EQ(loader->getSegmentAt(3), nullptr);
}

TEST_F(FileFormatLoaderTest, AFileOffsetIsFoundInTheSegmentThatHoldsIt) {
    ASSERT_TRUE(loader->addInFile(100, 0, 10, 10));
    ASSERT_TRUE(loader->addInFile(200, 10, 10, 10));
    ASSERT_TRUE(loader->addInFile(300, 5, 10, 10));
    EXPECT_EQ(loader->findSegmentByFileOffset(7), segmentAtKey(100));
    EXPECT_EQ(loader->findSegmentByFileOffset(10), segmentAtKey(200));
    EXPECT_EQ(loader->findSegmentByFileOffset(20), segmentAtKey(200));
    EXPECT_EQ(loader->findSegmentByFileOffset(21), nullptr);
}

TEST_F(FileFormatLoaderTest, OfTheSegmentsThatEndAtAFileOffsetTheLastOneIsFound) {
    ASSERT_TRUE(loader->addInFile(100, 0, 10, 10));
    ASSERT_TRUE(loader->addInFile(200, 5, 5, 10));
    EXPECT_EQ(loader->findSegmentByFileOffset(10), segmentAtKey(200));
}

TEST_F(FileFormatLoaderTest, AFileRangeMayReachPastTheLargestOffset) {
    ASSERT_TRUE(loader->addInFile(100, top - 1, top, 10));
    EXPECT_EQ(loader->findSegmentByFileOffset(top), segmentAtKey(100));
    EXPECT_EQ(loader->findSegmentByFileOffset(5), nullptr);
}

TEST_F(FileFormatLoaderTest, ANameFindsTheFirstSegmentThatHasItExactly) {
    ASSERT_TRUE(loader->add(300, 10, 0, ".text"));
    ASSERT_TRUE(loader->add(100, 10, 0, ".textual"));
    ASSERT_TRUE(loader->add(200, 10, 0, ".text"));
    EXPECT_EQ(loader->findSegmentByName(".text"), segmentAtKey(200));
    EXPECT_EQ(loader->findSegmentByName(".tex"), nullptr);
    EXPECT_EQ(loader->findSegmentByName(nullptr), nullptr);
}

TEST_F(FileFormatLoaderTest, SegmentsAreIteratedInAddressOrder) {
    ASSERT_TRUE(loader->add(200, 10, 0));
    ASSERT_TRUE(loader->add(100, 10, 0));
    SymMgrObjectPtr<IIterator<ISegment*>> segments;
    loader->getSegments(segments);
    ASSERT_TRUE(segments);
    EXPECT_EQ(segments->current(), segmentAtKey(100));
    EXPECT_TRUE(segments->next());
    EXPECT_EQ(segments->current(), segmentAtKey(200));
    EXPECT_FALSE(segments->next());
    EXPECT_EQ(segments->current(), nullptr);
}

TEST_F(FileFormatLoaderTest, EverySegmentLookupMakesSureThatTheFileWasRead) {
    SymMgrObjectPtr<IIterator<ISegment*>> segments;
    (void)loader->findSegment(0);
    EXPECT_EQ(loader->ensured, 1);
    (void)loader->getSegmentAt(1);
    EXPECT_EQ(loader->ensured, 2);
    (void)loader->findSegmentByFileOffset(0);
    EXPECT_EQ(loader->ensured, 3);
    (void)loader->findSegmentByName("x");
    EXPECT_EQ(loader->ensured, 4);
    loader->getSegments(segments);
    EXPECT_EQ(loader->ensured, 5);
    (void)loader->findSection(0);
    EXPECT_EQ(loader->ensured, 5) << "a section lookup does not";
}

TEST_F(FileFormatLoaderTest, TheEndOfASectionStillFindsIt) {
    EXPECT_EQ(loader->findSection(0), nullptr);
    EXPECT_TRUE(loader->addSection(".data", 100, 10));
    EXPECT_EQ(loader->findSection(99), nullptr);
    ISection* section = loader->findSection(100);
    ASSERT_NE(section, nullptr);
    EXPECT_EQ(loader->findSection(110), section);
    EXPECT_EQ(loader->findSection(111), nullptr);
    EXPECT_STREQ(section->getName(), ".data");
    EXPECT_EQ(section->getAddress(), 100u);
    EXPECT_EQ(section->getFileOffset(), 100u) << "its address";
    EXPECT_EQ(section->getSize(), 10u);
    EXPECT_FALSE(section->isNoBits());
}

TEST_F(FileFormatLoaderTest, AReplacedSectionLivesAsLongAsTheLoader) {
    loader->addSection("old", 100, 10);
    ISection* old = loader->findSection(100);
    loader->addSection("new", 100, 20);
    EXPECT_STREQ(loader->findSection(120)->getName(), "new");
    EXPECT_STREQ(old->getName(), "old");
}

TEST_F(FileFormatLoaderTest, AReferenceThatIsTakenAndDroppedLeavesTheSectionInPlace) {
    loader->addSection("s", 100, 10);
    { const SymMgrObjectPtr<ISection> taken = loader->findSection(100); }
    EXPECT_STREQ(loader->findSection(100)->getName(), "s");
}

TEST_F(FileFormatLoaderTest, AnAddressIsMadeForWhatASegmentOrASectionHolds) {
    ASSERT_TRUE(loader->add(100, 10, 0));
    loader->addSection("s", 300, 10);
    SymMgrObjectPtr<IAddress> address;
    EXPECT_EQ(loader->getAddress(address, 200), status_Fail);
    EXPECT_FALSE(address);
    ASSERT_EQ(loader->getAddress(address, 110), status_Ok);
    EXPECT_EQ(address->pseudoAddr(), 110u);
    ASSERT_EQ(loader->getAddress(address, 310), status_Ok);
    EXPECT_EQ(address->pseudoAddr(), 310u);
    EXPECT_EQ(loader->getAddress(address, 311), status_Fail);
}

TEST_F(FileFormatLoaderTest, AFileOffsetBecomesAnAddressOverTheSegmentsRva) {
    loader->imageBase = 0x400000;
    ASSERT_TRUE(loader->addInFile(0x401000, 0x200, 0x100, 0x100));
    SymMgrObjectPtr<IAddress> address;
    ASSERT_EQ(loader->getAddressOfFileOffset(address, 0x210), status_Ok);
    EXPECT_EQ(address->pseudoAddr(), 0x401010u);
    EXPECT_EQ(address->rva(), 0x1010u);
    ASSERT_EQ(loader->getAddressOfFileOffset(address, 0x300), status_Ok);
    EXPECT_EQ(address->pseudoAddr(), 0x401100u);
    EXPECT_EQ(loader->getAddressOfFileOffset(address, 0x301), status_Fail);
}

TEST_F(FileFormatLoaderTest, AFileOffsetBehindTheMemoryOfItsSegmentHasNoAddress) {
    ASSERT_TRUE(loader->addInFile(0x1000, 0, 0x100, 0x10));
    SymMgrObjectPtr<IAddress> address;
    EXPECT_EQ(loader->getAddressOfFileOffset(address, 0x10), status_Ok);
    address = nullptr;
    EXPECT_EQ(loader->getAddressOfFileOffset(address, 0x11), status_Fail);
    EXPECT_FALSE(address);
}

// --- Candidates and debug info loaders

TEST_F(FileFormatLoaderTest, CandidatesAreCollectedOnFirstUseAndOnce) {
    loader->candidates = {{"a", 1}, {"b", 4}};
    EXPECT_EQ(loader->collected, 0);
    ASSERT_EQ(loader->getSymbolFiles(symbolFiles), status_Ok);
    ASSERT_EQ(loader->getSymbolFiles(symbolFiles), status_Ok);
    EXPECT_EQ(loader->collected, 1);
    EXPECT_STREQ(symbolFiles->current()->wantedName(), "a");
    EXPECT_TRUE(symbolFiles->next());
    EXPECT_STREQ(symbolFiles->current()->wantedName(), "b");
    EXPECT_FALSE(symbolFiles->next());
}

TEST_F(FileFormatLoaderTest, AnEmptyListIsLegalAndCollectedAgain) {
    ASSERT_EQ(loader->getSymbolFiles(symbolFiles), status_Ok);
    EXPECT_FALSE(symbolFiles->current());
    loader->candidates = {{"a", 1}};
    ASSERT_EQ(loader->getSymbolFiles(symbolFiles), status_Ok);
    EXPECT_TRUE(symbolFiles->current());
    EXPECT_EQ(loader->collected, 2);
}

TEST_F(FileFormatLoaderTest, AFailingCollectionLeavesTheOutputAlone) {
    loader->candidates = {{"a", 1}};
    loader->collectStatus = status_CantReadFile;
    EXPECT_EQ(loader->getSymbolFiles(symbolFiles), status_CantReadFile);
    EXPECT_FALSE(symbolFiles);
    loader->collectStatus = status_False;
    EXPECT_EQ(loader->getSymbolFiles(symbolFiles), status_Ok);
    EXPECT_TRUE(symbolFiles->current());
    EXPECT_FALSE(symbolFiles->next()) << "what the failing collection left is gone";
}

TEST_F(FileFormatLoaderTest, AnIndexWithoutCandidateHasNoDebugInfoLoader) {
    SymMgrObjectPtr<IDebugInfoLoader> out;
    EXPECT_EQ(loader->getDebugInfoLoader(out, 0), status_False) << "nothing collected yet";
    loader->candidates = {{"a", 1}};
    ASSERT_EQ(loader->getSymbolFiles(symbolFiles), status_Ok);
    ASSERT_EQ(loader->getDebugInfoLoader(out, 0), status_Ok);
    const SymMgrObjectPtr<IDebugInfoLoader> before = out;
    EXPECT_EQ(loader->getDebugInfoLoader(out, -1), status_False);
    EXPECT_EQ(loader->getDebugInfoLoader(out, 1), status_False);
    EXPECT_EQ(loader->getDebugInfoLoader(out, INT64_MIN), status_False);
    EXPECT_EQ(loader->getDebugInfoLoader(out, INT64_MAX), status_False);
    EXPECT_EQ(out.get(), before.get());
    EXPECT_EQ(loader->created, 1);
}

TEST_F(FileFormatLoaderTest, CandidatesWithOnePathShareOneDebugInfoLoaderWhileItLives) {
    loader->candidates = {{"same", 1}, {"same", 4}, {"other", 1}};
    ASSERT_EQ(loader->getSymbolFiles(symbolFiles), status_Ok);
    SymMgrObjectPtr<IDebugInfoLoader> first, second, other;
    ASSERT_EQ(loader->getDebugInfoLoader(first, 0), status_Ok);
    ASSERT_EQ(loader->getDebugInfoLoader(second, 1), status_Ok);
    ASSERT_EQ(loader->getDebugInfoLoader(other, 2), status_Ok);
    EXPECT_EQ(first.get(), second.get());
    EXPECT_NE(first.get(), other.get());
    EXPECT_EQ(first->getType(), 1u);
    EXPECT_EQ(loader->created, 2);

    first = nullptr;
    EXPECT_EQ(loader->alive, 2);
    second = nullptr;
    EXPECT_EQ(loader->alive, 1);
    ASSERT_EQ(loader->getDebugInfoLoader(second, 1), status_Ok);
    EXPECT_EQ(second->getType(), 4u) << "made anew, of the candidate that asked";
    EXPECT_EQ(loader->createdIndexes, (std::vector<long long>{0, 2, 1}));
}

TEST_F(FileFormatLoaderTest, ACandidateWithoutReaderIsNotTriedAgain) {
    loader->candidates = {{"a", 1}};
    loader->createsNothing = true;
    ASSERT_EQ(loader->getSymbolFiles(symbolFiles), status_Ok);
    SymMgrObjectPtr<IDebugInfoLoader> out;
    EXPECT_EQ(loader->getDebugInfoLoader(out, 0), status_Ok);
    EXPECT_FALSE(out);
    loader->createsNothing = false;
    EXPECT_EQ(loader->getDebugInfoLoader(out, 0), status_Ok);
    EXPECT_FALSE(out);
    EXPECT_EQ(loader->created, 1);
}

TEST_F(FileFormatLoaderTest, AFileThatChangedIsAnotherFile) {
    const orn_test::TempDir directory;
    const std::string path = directory.write("symbols", "old");
    loader->candidates = {{path, 1}};
    ASSERT_EQ(loader->getSymbolFiles(symbolFiles), status_Ok);
    SymMgrObjectPtr<IDebugInfoLoader> before, after;
    ASSERT_EQ(loader->getDebugInfoLoader(before, 0), status_Ok);
    directory.write("symbols", "new and longer");
    ASSERT_EQ(loader->getDebugInfoLoader(after, 0), status_Ok);
    EXPECT_NE(before.get(), after.get());
}

TEST_F(FileFormatLoaderTest, ADebugInfoLoaderKeepsItsFormatLoader) {
    SymMgrObjectPtr<IDebugInfoLoader> out;
    loader->candidates = {{"a", 1}};
    ASSERT_EQ(loader->getSymbolFiles(symbolFiles), status_Ok);
    ASSERT_EQ(loader->getDebugInfoLoader(out, 0), status_Ok);
    symbolFiles = nullptr;
    loader = nullptr;
    EXPECT_STREQ(out->getPath(), "a");
    SymMgrObjectPtr<ISection> section = new Section(nullptr, "s", 0, 0, 0, true);
    out->getSectionByIndex(section, 0);
    EXPECT_FALSE(section);
}

TEST_F(FileFormatLoaderTest, AnEmptyDebugInfoLoaderHasNothingToTell) {
    const SymMgrObjectPtr<IDebugInfoLoader> empty =
        new EmptyDebugInfoLoader(loader, "/some/file", FileFormatLoader::debugInfoLock());
    EXPECT_STREQ(empty->getPath(), "/some/file");
    EXPECT_EQ(empty->getType(), 0u);
    EXPECT_EQ(empty->loadSymbols(nullptr, nullptr, symbol_kind_all, nullptr), status_Ok);
    EXPECT_EQ(empty->getLineResolver(nullptr, nullptr), nullptr);
    SymMgrObjectPtr<ISymbol> symbol;
    EXPECT_EQ(empty->findStackVariable(nullptr, nullptr, 0, nullptr, symbol, nullptr), status_False);
    SymMgrObjectPtr<ISection> section = new Section(nullptr, "s", 0, 0, 0, true);
    empty->getSectionByIndex(section, 0);
    EXPECT_FALSE(section);
    EXPECT_EQ(empty->loadLineTable(nullptr), status_False);
    EXPECT_EQ(empty->getCompilationUnit(0), nullptr);
}

TEST_F(FileFormatLoaderTest, AnEmptyDebugInfoLoaderRemovesItsEntryToo) {
    class Loader : public FakeLoader {
    protected:
        IDebugInfoLoader* createDebugInfoLoader(const char* path, unsigned, long long) override {
            ++created;
            return new EmptyDebugInfoLoader(this, path, debugInfoLock());
        }
    };
    loader = new Loader;
    loader->candidates = {{"a", 1}};
    ASSERT_EQ(loader->getSymbolFiles(symbolFiles), status_Ok);
    SymMgrObjectPtr<IDebugInfoLoader> out;
    ASSERT_EQ(loader->getDebugInfoLoader(out, 0), status_Ok);
    out = nullptr;
    ASSERT_EQ(loader->getDebugInfoLoader(out, 0), status_Ok);
    EXPECT_STREQ(out->getPath(), "a");
    EXPECT_EQ(loader->created, 2);
}

// --- The end of a loader

namespace {
std::vector<IFileFormatLoader*> s_released;
}

TEST_F(FileFormatLoaderTest, ADyingLoaderIsTakenOutOfTheRegistryOnce) {
    const internal::ReleaseFormatLoader before = internal::releaseFormatLoader();
    internal::setReleaseFormatLoader([](IFileFormatLoader* dying) { s_released.push_back(dying); });
    IFileFormatLoader* address = loader;
    loader = nullptr;
    EXPECT_EQ(s_released, std::vector<IFileFormatLoader*>{address});
    s_released.clear();
    internal::setReleaseFormatLoader(before);
}

TEST_F(FileFormatLoaderTest, WithoutARegistryALoaderJustDies) {
    const internal::ReleaseFormatLoader before = internal::releaseFormatLoader();
    internal::setReleaseFormatLoader(nullptr);
    loader = nullptr;
    EXPECT_TRUE(s_released.empty());
    internal::setReleaseFormatLoader(before);
}

// --- Raw reads

TEST_F(FileReadTest, GivesTheBytesOfTheFile) {
    ASSERT_EQ(loader->readBytes(3, 4, buffer), status_Ok);
    EXPECT_EQ(textOf(buffer), "3456");
    ASSERT_EQ(loader->readBytes(0, 10, buffer), status_Ok);
    EXPECT_EQ(textOf(buffer), "0123456789");
    ASSERT_EQ(loader->readBytes(10, 0, buffer), status_Ok);
    EXPECT_EQ(textOf(buffer), "");
}

TEST_F(FileReadTest, AShortReadIsLoggedAndLeavesTheOutputAlone) {
    EXPECT_EQ(loader->readBytes(3, 8, buffer), status_False);
    EXPECT_FALSE(buffer);
    EXPECT_EQ(messages(test::errorLevel).size(), 1u);
    expectLog("Unable to read 8 bytes from file: " + path + "\n");
}

TEST_F(FileReadTest, AnUnreachablePositionIsAShortRead) {
    EXPECT_EQ(loader->readBytes(1ULL << 63, 1, buffer), status_False);
    EXPECT_EQ(loader->readBytes(top, 1, buffer), status_False);
    EXPECT_EQ(loader->readBytes(INT64_MAX, 1, buffer), status_False);
    EXPECT_FALSE(buffer);
    expectLog("Unable to read 1 bytes from file: " + path, 3);
}

TEST_F(FileReadTest, AMissingFileIsAShortRead) {
    loader = new FakeLoader(directory.path("missing"));
    EXPECT_EQ(loader->readBytes(0, 1, buffer), status_False);
    expectLog("Unable to read 1 bytes from file: " + directory.path("missing"));
}

TEST_F(FileReadTest, ASizeThatNoMachineHasIsOutOfMemory) {
    EXPECT_EQ(loader->readBytes(0, top, buffer), status_OutOfMemory);
    EXPECT_FALSE(buffer);
    EXPECT_EQ(messages(test::errorLevel).size(), 1u);
    expectLog("Unable to create ByteBuffer of size: 18446744073709551615\n");
}

TEST_F(FileReadTest, ASectionReadsItsStretchOfTheFile) {
    const SymMgrObjectPtr<ISection> section = new Section(loader, ".s", 0x1000, 2, 5, false);
    EXPECT_STREQ(section->getName(), ".s");
    EXPECT_EQ(section->getAddress(), 0x1000u);
    EXPECT_EQ(section->getFileOffset(), 2u);
    EXPECT_EQ(section->getSize(), 5u);
    ASSERT_EQ(section->read(buffer), status_Ok);
    EXPECT_EQ(textOf(buffer), "23456");
    ASSERT_EQ(section->readAt(1, 2, buffer), status_Ok);
    EXPECT_EQ(textOf(buffer), "34");
    ASSERT_EQ(section->readAt(5, 3, buffer), status_Ok) << "its size is no limit";
    EXPECT_EQ(textOf(buffer), "789");
    EXPECT_EQ(section->readAt(top, 1, buffer), status_False);
    expectLog("Unable to read 1 bytes from file: ");
}

TEST_F(FileReadTest, ASectionWithoutBitsReadsNothing) {
    const SymMgrObjectPtr<ISection> section = new Section(loader, ".bss", 0, 2, 5, true);
    EXPECT_TRUE(section->isNoBits());
    EXPECT_EQ(section->read(buffer), status_False);
    EXPECT_EQ(section->readAt(0, 1, buffer), status_False);
    EXPECT_FALSE(buffer);
}

TEST_F(FileReadTest, ASegmentReadsItsBytesInTheFile) {
    ASSERT_TRUE(loader->addInFile(0x1000, 2, 5, 100));
    ISegment* segment = loader->getSegmentAt(1);
    ASSERT_EQ(segment->read(buffer), status_Ok);
    EXPECT_EQ(textOf(buffer), "23456");
    ASSERT_EQ(segment->readAt(1, 2, buffer), status_Ok);
    EXPECT_EQ(textOf(buffer), "34");
    EXPECT_EQ(segment->readAt(top, 1, buffer), status_False);
    expectLog("Unable to read 1 bytes from file: ");
}

// --- Memory that is refused

namespace {

class LoaderOutOfMemoryTest : public FileReadTest {
protected:
    LoaderOutOfMemoryTest() { setLogLevel(50000); }

    /// Runs `step` with its first, second, ... allocation failing until it gets by without one failing.
    /// Success and `status_OutOfMemory` alone will do.
    void failEachAllocationOf(const std::function<status_t()>& step) {
        unsigned refused = 0;
        for (unsigned long number = 1;; ++number) {
            test::FailingAllocation failing(number);
            const status_t status = step();
            if (!failing.happened()) {
                EXPECT_EQ(status, status_Ok);
                break;
            }
            if (status != status_Ok) {
                EXPECT_EQ(status, status_OutOfMemory) << "allocation " << number;
                ++refused;
            }
        }
        EXPECT_GT(refused, 0u);
    }
};

} // namespace

TEST_F(LoaderOutOfMemoryTest, AReadSaysSo) {
    if (!ORN_3_30::test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    failEachAllocationOf([this] {
        SymMgrObjectPtr<IBuffer> out;
        const status_t status = loader->readBytes(0, 10, out);
        EXPECT_EQ(out.get() != nullptr, status == status_Ok);
        return status;
    });
}

TEST_F(LoaderOutOfMemoryTest, AnAddressSaysSo) {
    if (!ORN_3_30::test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    ASSERT_TRUE(loader->addInFile(0x1000, 0, 0x100, 0x100));
    SymMgrObjectPtr<IAddress> address;
    failEachAllocationOf([&] { return loader->getAddress(address, 0x1000); });
    failEachAllocationOf([&] { return loader->getAddressOfFileOffset(address, 0x10); });
}

TEST_F(LoaderOutOfMemoryTest, ASegmentIteratorIsThenNoAnswerAtAll) {
    if (!ORN_3_30::test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    SymMgrObjectPtr<IIterator<ISegment*>> segments;
    test::FailingAllocation failing(1);
    EXPECT_THROW(loader->getSegments(segments), std::bad_alloc);
    EXPECT_FALSE(segments);
}

TEST_F(LoaderOutOfMemoryTest, ACandidateListThatWasNotFinishedIsCollectedAgain) {
    if (!ORN_3_30::test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    loader->candidates = {{"a", 1}, {"b", 1}, {"c", 1}};
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>> symbolFiles;
    failEachAllocationOf([&] { return loader->getSymbolFiles(symbolFiles); });
    EXPECT_TRUE(symbolFiles->next());
    EXPECT_TRUE(symbolFiles->next());
    EXPECT_FALSE(symbolFiles->next());
}

TEST_F(LoaderOutOfMemoryTest, ADebugInfoLoaderThatWasNotMadeIsTriedAgain) {
    if (!ORN_3_30::test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    loader->candidates = {{"a file name that is too long for the short strings", 1}};
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>> symbolFiles;
    ASSERT_EQ(loader->getSymbolFiles(symbolFiles), status_Ok);
    SymMgrObjectPtr<IDebugInfoLoader> out;
    failEachAllocationOf([&] { return loader->getDebugInfoLoader(out, 0); });
    EXPECT_TRUE(out);
    EXPECT_EQ(loader->alive, 1);
}

TEST_F(LoaderOutOfMemoryTest, ASegmentOrSectionThatWasNotAddedLeavesTheMapsWhole) {
    if (!ORN_3_30::test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    const auto addAll = [this] {
        try {
            loader->add(0x1000, 0x10, 0);
            loader->add(0x1000, 0x20, 1);
            loader->add(0x3000, 0x20, 1);
            loader->addSection("first", 0x1000, 0x10);
            loader->addSection("second", 0x1000, 0x20);
            return status_Ok;
        } catch (const std::bad_alloc&) {
            for (int index = 1; ISegment* segment = loader->getSegmentAt(index); ++index)
                EXPECT_STREQ(segment->getName(), "s");
            if (ISection* section = loader->findSection(0x1000)) {
                EXPECT_GE(section->getSize(), 0x10u);
            }
            return status_OutOfMemory;
        }
    };
    failEachAllocationOf(addAll);
    EXPECT_EQ(loader->findSection(0x1000)->getSize(), 0x20u);
}
