#include "orn_moduleimage.h"

#include "orn/file_format_loader.h"
#include "orn_buffer.h"
#include "support/allocation.h"
#include "support/elf_assembler.h"
#include "support/orn_fixture.h"
#include "support/temp_dir.h"

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

using namespace ORN_3_30;
using orn_test::ElfAssembler;
using orn_test::ElfClass;

namespace {

constexpr unsigned long long top = ~0ULL;

using Bytes = std::vector<unsigned char>;

class ModuleImageTest : public test::OrnTest {
protected:
    /// All of an image.
    static Bytes contentsOf(IModuleImage& image) {
        Bytes bytes(image.getSize());
        EXPECT_EQ(image.read(0, bytes.size(), bytes.data()), bytes.size());
        return bytes;
    }

    orn_test::TempDir directory;
    char buffer[64] = {};
};

class KernelImageTest : public ModuleImageTest {
protected:
    static constexpr const char* magic = "\x1F\x8B\x08";

    /// A 64-bit kernel with one header of type `type` for each of `segments`, at file offset 0x2000, 0x6000
    /// and so on.
    static ElfAssembler kernel(const std::vector<std::string>& segments, uint32_t type = PT_LOAD,
                               ElfClass elfClass = ElfClass::k64) {
        ElfAssembler elf(elfClass);
        uint64_t place = 0x2000;
        for (const std::string& contents : segments) {
            auto section = elf.section(".payload", SHT_PROGBITS).offset(place);
            section.append(std::vector<uint8_t>(contents.begin(), contents.end()));
            elf.segment(type).offset(place).fileSize(contents.size()).memorySize(contents.size());
            place += 0x4000;
        }
        return elf;
    }

    SymMgrObjectPtr<IModuleImage> imageOf(const ElfAssembler& elf, const char* name = "vmlinuz-6.1") {
        elf.write(directory.path(name));
        return IModuleImage::create(directory.path(name).c_str(), arch_unknown, false);
    }
    static bool isBogus(const SymMgrObjectPtr<IModuleImage>& image) {
        return dynamic_cast<BogusELFImage*>(image.get()) != nullptr;
    }
    static CompressedImage* compressed(const SymMgrObjectPtr<IModuleImage>& image) {
        return dynamic_cast<CompressedImage*>(image.get());
    }
};

/// A loader with one section, whatever its name.
class FakeHost : public SymMgrObject<IFileFormatLoader> {
public:
    FakeHost(exec_format_t format, ISection* section)
        : SymMgrObject<IFileFormatLoader>(nullptr), m_format(format), m_section(section) {}
    status_t getSymbolFiles(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>>&) override {
        return status_False;
    }
    status_t getDebugInfoLoader(SymMgrObjectPtr<IDebugInfoLoader>&, long long) override {
        return status_False;
    }
    const char* getPath() override { return "/host"; }
    exec_format_t getExecFormat() override { return m_format; }
    arch_t getArch() override { return arch_x86_64; }
    unsigned long long getImageBase() override { return 0; }
    unsigned long long getEntryPoint() override { return 0; }
    unsigned long long getImageSize() override { return 0; }
    status_t readSymbols(ISymbolTable*, LoadFilter*, symbol_kind_t) override { return status_False; }
    status_t getStatus() override { return status_Ok; }
    ISegment* findSegment(unsigned long long) override { return nullptr; }
    ISegment* getSegmentAt(int) override { return nullptr; }
    ISegment* findSegmentByFileOffset(unsigned long long) override { return nullptr; }
    ISection* findSection(unsigned long long) override { return nullptr; }
    status_t readBytes(unsigned long long, unsigned long long, SymMgrObjectPtr<IBuffer>&) override {
        return status_False;
    }
    status_t getAddress(SymMgrObjectPtr<IAddress>&, unsigned long long) override { return status_Fail; }
    status_t getAddressOfFileOffset(SymMgrObjectPtr<IAddress>&, unsigned long long) override {
        return status_Fail;
    }
    void getSegments(SymMgrObjectPtr<IIterator<ISegment*>>&) override {}
    ISegment* findSegmentByName(const char*) override { return nullptr; }
    void getSectionByName(SymMgrObjectPtr<ISection>& out, const char* name) override {
        askedFor = name;
        out = m_section;
    }
    void getSectionByIndex(SymMgrObjectPtr<ISection>&, unsigned) override {}
    const char* getKernelName() override { return ""; }
    bool isReadyToRun() override { return false; }

    std::string askedFor;

private:
    exec_format_t m_format;
    SymMgrObjectPtr<ISection> m_section;
};

class FakeSection : public SymMgrObject<ISection> {
public:
    FakeSection(std::string bytes, unsigned long long fileOffset)
        : SymMgrObject<ISection>(nullptr), m_bytes(std::move(bytes)), m_fileOffset(fileOffset) {}
    const char* getName() override { return "fake"; }
    unsigned long long getSize() override { return m_bytes.size(); }
    unsigned long long getFileOffset() override { return m_fileOffset; }
    unsigned long long getAddress() override { return 0; }
    status_t read(SymMgrObjectPtr<IBuffer>& out) override {
        if (answer != status_Ok)
            return answer;
        out = new ByteBuffer(m_bytes.size());
        if (!m_bytes.empty())
            std::memcpy(out->data(), m_bytes.data(), m_bytes.size());
        return status_Ok;
    }
    status_t readAt(unsigned long long, unsigned long long, SymMgrObjectPtr<IBuffer>&) override {
        return status_False;
    }
    bool isNoBits() override { return false; }

    status_t answer = status_Ok;

private:
    std::string m_bytes;
    unsigned long long m_fileOffset;
};

class OffloadImageTest : public ModuleImageTest {
protected:
    static inline const std::string identification = "\x7F"
                                                     "ELF\x02\x01\x01";

    SymMgrObjectPtr<IModuleImage> search(const std::string& bytes, exec_format_t format = exec_format_elf) {
        host = new FakeHost(format, new FakeSection(bytes, 0x500));
        return createOffloadImage(host);
    }
    /// A program of machine `machine` with these bytes in its ".rodata", at file offset 0x1000.
    std::string writeHost(const std::string& rodata, uint16_t machine = EM_X86_64) {
        ElfAssembler elf(ElfClass::k64, machine);
        elf.section(".rodata", SHT_PROGBITS, SHF_ALLOC)
            .offset(0x1000)
            .append(std::vector<uint8_t>(rodata.begin(), rodata.end()));
        elf.write(directory.path("host"));
        return directory.path("host");
    }

    SymMgrObjectPtr<FakeHost> host;
};

} // namespace

// --- FileImage

TEST_F(ModuleImageTest, AFileImageReadsTheFileFromItsOffset) {
    const std::string path = directory.write("module", "0123456789");
    FileImage whole(path.c_str(), 0, arch_arm);
    EXPECT_EQ(whole.getSize(), 10u);
    EXPECT_STREQ(whole.getPath(), path.c_str());
    EXPECT_EQ(whole.getFileOffset(), 0u);
    EXPECT_EQ(whole.getArch(), arch_arm);
    EXPECT_EQ(whole.read(8, 2, buffer), 2u);
    EXPECT_STREQ(buffer, "89");

    FileImage embedded(path.c_str(), 4, arch_unknown);
    EXPECT_EQ(embedded.getSize(), 6u);
    EXPECT_EQ(embedded.getFileOffset(), 4u);
    EXPECT_EQ(embedded.read(1, 3, buffer), 3u);
    EXPECT_STREQ(buffer, "567");
}

TEST_F(ModuleImageTest, AFileImageAtOrBehindTheEndOfItsFileIsEmpty) {
    const std::string path = directory.write("module", "0123456789");
    EXPECT_EQ(FileImage(path.c_str(), 9, arch_unknown).getSize(), 1u);
    EXPECT_EQ(FileImage(path.c_str(), 10, arch_unknown).getSize(), 0u);
    FileImage behind(path.c_str(), top, arch_unknown);
    EXPECT_EQ(behind.getSize(), 0u);
    EXPECT_EQ(behind.read(0, 1, buffer), 0u);
}

TEST_F(ModuleImageTest, AFileImageGivesTheCountOfAShortRead) {
    const std::string path = directory.write("module", "0123456789");
    FileImage image(path.c_str(), 0, arch_unknown);
    EXPECT_EQ(image.read(7, 10, buffer), 3u);
    EXPECT_EQ(image.read(10, 1, buffer), 0u);
    EXPECT_EQ(image.read(INT64_MAX, 1, buffer), 0u);
}

TEST_F(ModuleImageTest, APositionThatNoFileHasReadsNothing) {
    const std::string path = directory.write("module", "0123456789");
    FileImage image(path.c_str(), 4, arch_unknown);
    EXPECT_EQ(image.read(top - 3, 4, buffer), 0u) << "the sum would wrap to the file's start";
    EXPECT_EQ(image.read(1ULL << 63, 4, buffer), 0u);
    EXPECT_EQ(image.read(INT64_MAX, 4, buffer), 0u);
    EXPECT_EQ(buffer[0], 0);
}

TEST_F(ModuleImageTest, AFileThatCannotBeOpenedIsStillAnImage) {
    const SymMgrObjectPtr<IModuleImage> image =
        IModuleImage::create(directory.path("missing").c_str(), arch_x86_64, false);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->getSize(), 0u);
    EXPECT_EQ(image->read(0, 1, buffer), 0u);
    EXPECT_EQ(image->getPath(), directory.path("missing"));
    EXPECT_EQ(image->getArch(), arch_x86_64);
}

TEST_F(ModuleImageTest, AFileImageMayBeReadFromTwoThreads) {
    std::string contents(1 << 16, ' ');
    for (std::size_t i = 0; i < contents.size(); ++i)
        contents[i] = static_cast<char>(i >> 8);
    const std::string path = directory.write("module", contents);
    FileImage image(path.c_str(), 0, arch_unknown);
    const auto readAll = [&] {
        for (unsigned round = 0; round < 20000; ++round) {
            const unsigned page = round % 256;
            unsigned char bytes[256];
            ASSERT_EQ(image.read(page * 256, 256, bytes), 256u);
            ASSERT_EQ(bytes[0], page);
            ASSERT_EQ(bytes[255], page);
        }
    };
    std::thread other(readAll);
    readAll();
    other.join();
}

// --- CompressedImage

TEST_F(ModuleImageTest, ACompressedImageRefusesWhatReachesPastItsLimit) {
    const std::string path = directory.write("vmlinuz", "0123456789");
    CompressedImage image(path.c_str(), 7, 6);
    EXPECT_EQ(image.read(2, 4, buffer), 4u);
    EXPECT_STREQ(buffer, "2345");
    EXPECT_EQ(image.read(2, 5, buffer), 0u);
    EXPECT_EQ(image.read(top, 2, buffer), 0u);
    EXPECT_EQ(image.read(2, top, buffer), 0u);
    EXPECT_STREQ(buffer, "2345");
    EXPECT_EQ(image.getSize(), 10u) << "of the file";
    EXPECT_EQ(image.getFileOffset(), 0u);
    EXPECT_EQ(image.getArch(), arch_unknown);
    EXPECT_STREQ(image.getPath(), path.c_str());
}

// --- BogusELFImage

TEST_F(ModuleImageTest, TheMadeUpHeaderOf64BitKernelsIsThisOne) {
    const Bytes expected = {
        0x7F, 'E', 'L', 'F',  2,    1,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    // 0x00
        0,    0,   62,  0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    // 0x10
        0x40, 0,   0,   0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    // 0x20
        0,    0,   0,   0,    0,    0,    0x38, 0,    1,    0,    0,    0,    0,    0,    0,    0,    // 0x30
        1,    0,   0,   0,    1,    0,    0,    0,    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, // 0x40
        0,    0,   0,   0x80, 0xFF, 0xFF, 0xFF, 0xFF, 0,    0,    0,    0,    0,    0,    0,    0,    // 0x50
        0,    0,   0,   0,    0,    0,    0,    0,    0xFF, 0xFF, 0xFF, 0x7F, 0,    0,    0,    0,    // 0x60
        0,    0,   0,   0,    0,    0,    0,    0,                                                    // 0x70
    };
    BogusELFImage image("vmlinux", arch_x86_64);
    ASSERT_EQ(image.getSize(), 120u);
    EXPECT_EQ(contentsOf(image), expected);
}

TEST_F(ModuleImageTest, TheMadeUpHeaderOf32BitKernelsIsThisOne) {
    const Bytes expected = {
        0x7F, 'E', 'L', 'F', 1, 1, 0, 0, 0,    0,    0,    0,    0,    0, 0, 0,    // 0x00
        0,    0,   3,   0,   0, 0, 0, 0, 0,    0,    0,    0,    0x34, 0, 0, 0,    // 0x10
        0,    0,   0,   0,   0, 0, 0, 0, 0,    0,    0x20, 0,    1,    0, 0, 0,    // 0x20
        0,    0,   0,   0,   1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0,    0, 0, 0x80, // 0x30
        0,    0,   0,   0,   0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0x7F, 1,    0, 0, 0,    // 0x40
        0,    0,   0,   0,                                                         // 0x50
    };
    BogusELFImage image("vmlinux", arch_ia32);
    ASSERT_EQ(image.getSize(), 84u);
    EXPECT_EQ(contentsOf(image), expected);
}

TEST_F(ModuleImageTest, AMadeUpKernelRefusesReadsAcrossItsEnd) {
    BogusELFImage image("vmlinux", arch_ia32);
    buffer[0] = 'x';
    EXPECT_EQ(image.read(80, 5, buffer), 0u);
    EXPECT_EQ(image.read(84, 1, buffer), 0u);
    EXPECT_EQ(image.read(top, 2, buffer), 0u);
    EXPECT_EQ(image.read(1, top, buffer), 0u);
    EXPECT_EQ(buffer[0], 'x');
    EXPECT_EQ(image.read(83, 1, buffer), 1u);
    EXPECT_EQ(buffer[0], 0);
    EXPECT_EQ(image.read(84, 0, buffer), 0u);
    EXPECT_EQ(image.getFileOffset(), 0u);
}

TEST_F(KernelImageTest, AKernelThatIsNotThereIsMadeUpByItsPath) {
    SymMgrObjectPtr<IModuleImage> image =
        IModuleImage::create("/no/such/boot/vmlinux-x86_64-4.2", arch_unknown, false);
    ASSERT_TRUE(isBogus(image));
    EXPECT_EQ(image->getArch(), arch_x86_64);
    EXPECT_EQ(image->getSize(), 120u);
    EXPECT_STREQ(image->getPath(), "/no/such/boot/vmlinux-x86_64-4.2");

    image = IModuleImage::create("/no/such/x86_64/vmlinuz", arch_unknown, false);
    EXPECT_EQ(image->getArch(), arch_x86_64) << "anywhere in the path";

    image = IModuleImage::create("/no/such/boot/vmlinux-4.2", arch_unknown, false);
    ASSERT_TRUE(isBogus(image));
    EXPECT_EQ(image->getArch(), arch_ia32);
    EXPECT_EQ(image->getSize(), 84u);
}

TEST_F(KernelImageTest, ADeclaredArchitectureOfAMadeUpKernelStays) {
    SymMgrObjectPtr<IModuleImage> image = IModuleImage::create("vmlinu-x86_64", arch_itanium, false);
    ASSERT_TRUE(isBogus(image));
    EXPECT_EQ(image->getArch(), arch_itanium);
    EXPECT_EQ(image->getSize(), 84u);
    image = IModuleImage::create("vmlinu", arch_x86_64, false);
    EXPECT_EQ(image->getSize(), 120u);
}

TEST_F(KernelImageTest, OnlyTheStartOfTheBaseNameMakesAKernel) {
    for (const char* path : {"/no/such/my-vmlinux", "/no/such/vmlinux/module", "/no/such/vmlin"})
        EXPECT_FALSE(isBogus(IModuleImage::create(path, arch_unknown, false))) << path;
}

TEST_F(KernelImageTest, AnUnpackedKernelOnDiskIsAPlainFile) {
    const SymMgrObjectPtr<IModuleImage> image =
        imageOf(kernel({magic + std::string("payload")}), "vmlinux-6.1");
    EXPECT_NE(dynamic_cast<FileImage*>(image.get()), nullptr);
}

TEST_F(KernelImageTest, ADirectoryOfThatNameIsNoKernelOnDisk) {
    directory.makeDirectory("vmlinuz");
    EXPECT_TRUE(isBogus(IModuleImage::create(directory.path("vmlinuz").c_str(), arch_unknown, false)));
}

TEST_F(KernelImageTest, AMadeUpKernelIsNotSearchedForACoprocessorModule) {
    const SymMgrObjectPtr<IModuleImage> image =
        IModuleImage::create("/no/such/vmlinux", arch_coprocessor_2, true);
    EXPECT_TRUE(isBogus(image));
    EXPECT_EQ(image->getArch(), arch_coprocessor_2);
}

// --- The search for a compressed payload

TEST_F(KernelImageTest, APayloadInASegmentMakesACompressedImage) {
    const SymMgrObjectPtr<IModuleImage> image = imageOf(kernel({"boot" + std::string(magic) + "payload"}));
    ASSERT_NE(compressed(image), nullptr);
    EXPECT_EQ(compressed(image)->gzipOffset(), 0x2004u);
    EXPECT_EQ(compressed(image)->limit(), 0x2000u);
    EXPECT_EQ(image->getArch(), arch_unknown);
    EXPECT_EQ(image->read(0, 4, buffer), 4u);
    EXPECT_STREQ(buffer, "\x7F"
                         "ELF");
}

TEST_F(KernelImageTest, TheLastHeaderWithAPayloadDecides) {
    const SymMgrObjectPtr<IModuleImage> image =
        imageOf(kernel({magic + std::string("first"), "xx" + std::string(magic) + "second", "nothing here"}));
    ASSERT_NE(compressed(image), nullptr);
    EXPECT_EQ(compressed(image)->gzipOffset(), 0x6002u);
    EXPECT_EQ(compressed(image)->limit(), 0xA000u) << "the last header of all";
}

TEST_F(KernelImageTest, InOneSegmentTheFirstPayloadDecides) {
    const SymMgrObjectPtr<IModuleImage> image =
        imageOf(kernel({"x" + std::string(magic) + "." + magic + "payload"}));
    ASSERT_NE(compressed(image), nullptr);
    EXPECT_EQ(compressed(image)->gzipOffset(), 0x2001u);
}

TEST_F(KernelImageTest, HeadersOfEveryTypeAreSearched) {
    const SymMgrObjectPtr<IModuleImage> image = imageOf(kernel({magic + std::string("note")}, PT_NOTE));
    ASSERT_NE(compressed(image), nullptr);
    EXPECT_EQ(compressed(image)->gzipOffset(), 0x2000u);
}

TEST_F(KernelImageTest, A32BitKernelIsNotSearched) {
    EXPECT_TRUE(isBogus(imageOf(kernel({magic + std::string("payload")}, PT_LOAD, ElfClass::k32))));
}

TEST_F(KernelImageTest, WithoutAPayloadTheKernelIsMadeUp) {
    EXPECT_TRUE(isBogus(imageOf(kernel({"no payload", "none either"}))));
    EXPECT_TRUE(isBogus(imageOf(kernel({}))));
}

TEST_F(KernelImageTest, TheMadeUpKernelHasTheDeclaredArchitecture) {
    kernel({"nothing"}).write(directory.path("vmlinuz"));
    const SymMgrObjectPtr<IModuleImage> image =
        IModuleImage::create(directory.path("vmlinuz").c_str(), arch_x86_64, false);
    ASSERT_TRUE(isBogus(image));
    EXPECT_EQ(image->getArch(), arch_x86_64);
}

TEST_F(KernelImageTest, AFileThatIsNoELFIsMadeUpToo) {
    const std::string path = directory.write("vmlinuz", std::string(100, 'M') + magic + "payload");
    EXPECT_TRUE(isBogus(IModuleImage::create(path.c_str(), arch_unknown, false)));
    allowLog("neither ELFCLASS32 nor ELFCLASS64");
}

TEST_F(KernelImageTest, ExactlyThreeBytesEndTheSearch) {
    EXPECT_TRUE(isBogus(imageOf(kernel({magic}))));
    // Their header still moves the limit.
    const SymMgrObjectPtr<IModuleImage> image = imageOf(kernel({magic + std::string("x"), magic}));
    ASSERT_NE(compressed(image), nullptr);
    EXPECT_EQ(compressed(image)->gzipOffset(), 0x2000u);
    EXPECT_EQ(compressed(image)->limit(), 0x6000u);
}

TEST_F(KernelImageTest, FewerThanThreeBytesAreSafe) {
    EXPECT_TRUE(isBogus(imageOf(kernel({"\x1F\x8B"}))));
    EXPECT_TRUE(isBogus(imageOf(kernel({"\x1F"}))));
    EXPECT_TRUE(isBogus(imageOf(kernel({""}))));
}

TEST_F(KernelImageTest, TheLastPlaceIsNotLookedAt) {
    EXPECT_TRUE(isBogus(imageOf(kernel({"xx" + std::string(magic)}))));
    EXPECT_FALSE(isBogus(imageOf(kernel({"xx" + std::string(magic) + "y"}))));
}

TEST_F(KernelImageTest, TheFirst8KiBOfASegmentAreSearched) {
    const std::string tail = std::string(magic) + std::string(100, 'x');
    const SymMgrObjectPtr<IModuleImage> inside = imageOf(kernel({std::string(8192 - 4, 'x') + tail}));
    ASSERT_NE(compressed(inside), nullptr);
    EXPECT_EQ(compressed(inside)->gzipOffset(), 0x2000u + 8192 - 4);
    EXPECT_TRUE(isBogus(imageOf(kernel({std::string(8192 - 3, 'x') + tail}))));
}

TEST_F(KernelImageTest, ASegmentOutsideTheFileMovesTheLimitAlone) {
    ElfAssembler elf = kernel({magic + std::string("payload"), "x"});
    elf.afterLayout([](orn_test::ElfHeaders& headers) { headers.programs.back().p_offset = ~0ULL - 5; });
    const SymMgrObjectPtr<IModuleImage> image = imageOf(elf);
    ASSERT_NE(compressed(image), nullptr);
    EXPECT_EQ(compressed(image)->gzipOffset(), 0x2000u);
    EXPECT_EQ(compressed(image)->limit(), ~0ULL - 5);
}

// --- IModuleImage::create

TEST_F(ModuleImageTest, ANullNameGivesNoImageAndAWarning) {
    EXPECT_FALSE(IModuleImage::create(nullptr, arch_unknown, false));
    EXPECT_EQ(messages(test::warningLevel).size(), 1u);
    expectLog("IModuleImage::create: wrong parameter. binFileName should not be empty\n, at file: ");
}

TEST_F(ModuleImageTest, MakingAnImageIsTraced) {
    setLogLevel(test::traceLevel);
    const std::string path = directory.write("module", "x");
    EXPECT_TRUE(IModuleImage::create(path.c_str(), arch_unknown, false));
    EXPECT_EQ(messages(test::traceLevel), (std::vector<std::string>{"ENTER: create", "EXIT:  create"}));
    takeLogs();
    EXPECT_TRUE(internal::createModuleImage(path.c_str(), arch_unknown, false));
    EXPECT_EQ(messages(test::traceLevel), (std::vector<std::string>{"ENTER: create", "EXIT:  create"}));
}

TEST_F(ModuleImageTest, AnImageThatIsNotMadeForWantOfMemorySaysSo) {
    if (!ORN_3_30::test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    const std::string path = directory.write("a-name-that-is-too-long-for-the-short-strings", "x");
    {
        test::FailingAllocation failing(1);
        EXPECT_FALSE(IModuleImage::create(path.c_str(), arch_unknown, false));
        EXPECT_TRUE(failing.happened());
    }
    expectLog("Out of memory");
    test::FailingAllocation failing(1);
    EXPECT_THROW(internal::createModuleImage(path.c_str(), arch_unknown, false), std::bad_alloc);
}

TEST_F(OffloadImageTest, AHostThatCannotBeReadGivesNoImage) {
    const std::string path = directory.write("host", std::string(100, 'x'));
    EXPECT_FALSE(IModuleImage::create(path.c_str(), arch_coprocessor_1, false));
    EXPECT_FALSE(IModuleImage::create(path.c_str(), arch_unknown, true));
    EXPECT_EQ(messages(test::warningLevel).size(), 2u);
    expectLog(path + ", IModuleImage::create(): cannot create ffl\n", 2);
}

TEST_F(OffloadImageTest, AModuleInsideTheHostIsFound) {
    const std::string path = writeHost("host data, " + identification + "...");
    for (const arch_t arch : {arch_coprocessor_1, arch_coprocessor_2}) {
        const SymMgrObjectPtr<IModuleImage> image = IModuleImage::create(path.c_str(), arch, false);
        ASSERT_TRUE(image);
        EXPECT_EQ(image->getFileOffset(), 0x1000u + 11);
        EXPECT_EQ(image->getArch(), arch_coprocessor_2);
        EXPECT_EQ(image->getPath(), path);
        EXPECT_EQ(image->read(1, 3, buffer), 3u);
        EXPECT_STREQ(buffer, "ELF");
    }
    const SymMgrObjectPtr<IModuleImage> asked = IModuleImage::create(path.c_str(), arch_x86_64, true);
    EXPECT_EQ(asked->getFileOffset(), 0x1000u + 11);
}

TEST_F(OffloadImageTest, OtherArchitecturesDoNotSearch) {
    const std::string path = writeHost("host data, " + identification + "...");
    const SymMgrObjectPtr<IModuleImage> image = IModuleImage::create(path.c_str(), arch_x86_64, false);
    EXPECT_EQ(image->getFileOffset(), 0u);
    EXPECT_EQ(image->getArch(), arch_x86_64);
}

TEST_F(OffloadImageTest, AModuleThatIsForTheCoprocessorItselfIsNotSearched) {
    const std::string path = writeHost("data, " + identification + "...", EM_K10M);
    SymMgrObjectPtr<IModuleImage> image = IModuleImage::create(path.c_str(), arch_coprocessor_2, false);
    EXPECT_EQ(image->getFileOffset(), 0u);
    EXPECT_EQ(image->getArch(), arch_coprocessor_2);
    image = IModuleImage::create(path.c_str(), arch_coprocessor_2, true);
    EXPECT_EQ(image->getFileOffset(), 0x1000u + 6) << "unless it is asked for";
}

TEST_F(OffloadImageTest, WithoutAnEmbeddedModuleThePlainImageStays) {
    const std::string path = writeHost("nothing to find here");
    const SymMgrObjectPtr<IModuleImage> image = IModuleImage::create(path.c_str(), arch_coprocessor_1, false);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->getFileOffset(), 0u);
    EXPECT_EQ(image->getArch(), arch_coprocessor_1);
}

// --- createOffloadImage

TEST_F(OffloadImageTest, NoLoaderIsLogged) {
    EXPECT_FALSE(createOffloadImage(nullptr));
    EXPECT_EQ(messages(test::warningLevel).size(), 1u);
    expectLog("NULL pointer: ffl\n");
}

TEST_F(OffloadImageTest, TheSectionToSearchFollowsTheFormat) {
    EXPECT_FALSE(search(std::string(20, 'x'), exec_format_elf));
    EXPECT_EQ(host->askedFor, ".rodata");
    EXPECT_FALSE(search(std::string(20, 'x'), exec_format_gpu));
    EXPECT_EQ(host->askedFor, ".rodata");
    EXPECT_FALSE(search(std::string(20, 'x'), exec_format_pe));
    EXPECT_EQ(host->askedFor, ".qtz bsd");
}

TEST_F(OffloadImageTest, AMissingSectionIsLogged) {
    host = new FakeHost(exec_format_elf, nullptr);
    EXPECT_FALSE(createOffloadImage(host));
    host = new FakeHost(exec_format_pe, nullptr);
    EXPECT_FALSE(createOffloadImage(host));
    EXPECT_EQ(messages(test::warningLevel).size(), 2u);
    expectLog("/hostcreateOffloadImage: cannot get section  .rodata\n");
    expectLog("/hostcreateOffloadImage: cannot get section  .qtz bsd\n");
}

TEST_F(OffloadImageTest, ASectionThatCannotBeReadIsNotLoggedHere) {
    const SymMgrObjectPtr<FakeSection> section = new FakeSection(identification + "x", 0);
    host = new FakeHost(exec_format_elf, section);
    section->answer = status_CantReadFile;
    EXPECT_FALSE(createOffloadImage(host));
    section->answer = status_False;
    EXPECT_FALSE(createOffloadImage(host));
}

TEST_F(OffloadImageTest, SevenBytesAreTooSmall) {
    EXPECT_FALSE(search(identification));
    EXPECT_FALSE(search(""));
    EXPECT_EQ(messages(test::warningLevel).size(), 2u);
    expectLog("/hostcreateOffloadImage: the section is too small for offload image, section name:.rodata\n",
              2);
}

TEST_F(OffloadImageTest, EightBytesAreSearchedAtPosition0Only) {
    const SymMgrObjectPtr<IModuleImage> image = search(identification + "x");
    ASSERT_TRUE(image);
    EXPECT_EQ(image->getFileOffset(), 0x500u);
    EXPECT_FALSE(search("x" + identification));
}

TEST_F(OffloadImageTest, TheFirstHitIsTakenAndTheLastPlaceNotLookedAt) {
    const SymMgrObjectPtr<IModuleImage> image = search("ab" + identification + "cd" + identification + "e");
    ASSERT_TRUE(image);
    EXPECT_EQ(image->getFileOffset(), 0x502u);
    EXPECT_EQ(image->getArch(), arch_coprocessor_2);
    EXPECT_STREQ(image->getPath(), "/host");
    EXPECT_FALSE(search("abcd" + identification));
    EXPECT_TRUE(search("abcd" + identification + "."));
}

TEST_F(OffloadImageTest, Only64BitLittleEndianFilesOfTheCurrentVersionAreFound) {
    for (std::size_t i = 0; i < identification.size(); ++i) {
        std::string other = identification + "tail";
        other[i] ^= 0x40;
        EXPECT_FALSE(search(other)) << i;
    }
}
