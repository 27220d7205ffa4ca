// Facts about ElfSectionData: when contents are read, what is kept, and what a failure looks like.

#include "orn_elf_section_data.h"

#include "orn_elf.h"
#include "support/elf_assembler.h"
#include "support/memory_image.h"
#include "support/orn_fixture.h"

#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace ORN_3_30 {
namespace {

using orn_test::ElfAssembler;
using orn_test::ElfClass;
using orn_test::ElfCompression;
using orn_test::MemoryImage;

using Bytes = std::vector<uint8_t>;
using DataPtr = SymMgrObjectPtr<ISectionData>;

Bytes bytesOf(std::string_view text) {
    return Bytes(text.begin(), text.end());
}

/// A module in memory, with the section data of its sections.
struct Module {
    explicit Module(const ElfAssembler& elf)
        : image(new MemoryImage(elf.build())), helper(new ElfHelper(image.get())) {}
    DataPtr data(unsigned index) { return new ElfSectionData(helper, index); }

    SymMgrObjectPtr<MemoryImage> image;
    SymMgrObjectPtr<ElfHelper> helper;
};

std::string textOf(ISectionData& data) {
    const unsigned char* bytes = data.getData();
    return bytes ? std::string(reinterpret_cast<const char*>(bytes), data.getSize()) : "(null)";
}

status_t statusOf(ISectionData& data) {
    status_t status = status_NotImpl;
    static_cast<void>(data.getSize(status));
    return status;
}

using ElfSectionDataTest = test::OrnTest;

TEST_F(ElfSectionDataTest, ContentsAreReadAtTheFirstQuestionAndNeverAgain) {
    ElfAssembler elf;
    const unsigned index = elf.section(".x").append(bytesOf("contents")).index();
    Module module(elf);
    const int before = module.image->reads;
    DataPtr data = module.data(index);
    EXPECT_EQ(module.image->reads, before) << "nothing is read before someone asks";
    EXPECT_EQ(textOf(*data), "contents");
    const unsigned char* first = data->getData();
    EXPECT_EQ(data->getData(), first);
    EXPECT_EQ(data->getSize(), 8u);
    EXPECT_EQ(module.image->reads, before + 1);
    EXPECT_EQ(data->getIndex(), index);
    EXPECT_EQ(data->getBias(), 0u);
    EXPECT_EQ(statusOf(*data), status_Ok);
}

TEST_F(ElfSectionDataTest, SizeAloneReadsTheContentsToo) {
    ElfAssembler elf;
    const unsigned index = elf.section(".x").zeros(5).index();
    Module module(elf);
    DataPtr data = module.data(index);
    EXPECT_EQ(data->getSize(), 5u);
    const int before = module.image->reads;
    EXPECT_NE(data->getData(), nullptr);
    EXPECT_EQ(module.image->reads, before);
}

TEST_F(ElfSectionDataTest, OneNulStandsBehindTheContents) {
    ElfAssembler elf;
    const unsigned plain = elf.section(".x").append(bytesOf("abc")).index();
    const unsigned packed = elf.compressedSection(".zdebug_x", bytesOf("abc")).index();
    Module module(elf);
    for (unsigned index : {plain, packed}) {
        DataPtr data = module.data(index);
        ASSERT_EQ(data->getSize(), 3u);
        EXPECT_STREQ(reinterpret_cast<const char*>(data->getData()), "abc");
    }
}

TEST_F(ElfSectionDataTest, EmptySectionHasDataOfSizeZero) {
    ElfAssembler elf;
    const unsigned plain = elf.section(".x").index();
    const unsigned named = elf.section(".zdebug_x").index();
    Module module(elf);
    DataPtr data = module.data(plain);
    EXPECT_NE(data->getData(), nullptr);
    EXPECT_EQ(data->getSize(), 0u);
    EXPECT_EQ(statusOf(*data), status_Ok);
    // Nothing can be decompressed out of nothing; the file does not suffer from it.
    DataPtr packed = module.data(named);
    EXPECT_NE(packed->getData(), nullptr);
    EXPECT_EQ(packed->getSize(), 0u);
    EXPECT_TRUE(module.helper->isValid());
}

TEST_F(ElfSectionDataTest, IndexPastTheSectionsFails) {
    ElfAssembler elf;
    elf.section(".x").zeros(4);
    Module module(elf);
    DataPtr data = module.data(module.helper->getSectionCount());
    EXPECT_EQ(data->getData(), nullptr);
    EXPECT_EQ(statusOf(*data), status_Fail);
    EXPECT_EQ(data->getSize(), 0u);
}

TEST_F(ElfSectionDataTest, WithoutSectionHeadersItFails) {
    ElfAssembler elf;
    elf.section(".x").zeros(4);
    elf.withoutSectionHeaders();
    Module module(elf);
    DataPtr data = module.data(1);
    EXPECT_EQ(data->getData(), nullptr);
    EXPECT_EQ(statusOf(*data), status_Fail);
}

TEST_F(ElfSectionDataTest, SectionPastTheFilesEndHasNoDataAndIsTriedAgain) {
    ElfAssembler elf;
    const unsigned index = elf.section(".x").append(bytesOf("contents")).index();
    Module module(elf);
    const Bytes whole = module.image->bytes;
    module.image->bytes.resize(70);
    DataPtr data = module.data(index);
    EXPECT_EQ(data->getData(), nullptr);
    EXPECT_EQ(statusOf(*data), status_NoSectionData);
    EXPECT_EQ(data->getSize(), 0u);
    module.image->bytes = whole;
    EXPECT_EQ(textOf(*data), "contents");
    EXPECT_EQ(statusOf(*data), status_Ok);
}

TEST_F(ElfSectionDataTest, SectionWhoseEndWrapsHasNoData) {
    ElfAssembler elf;
    auto section = elf.section(".x").zeros(4);
    section.header().sh_offset = ~0ULL - 1;
    Module module(elf);
    DataPtr data = module.data(section.index());
    EXPECT_EQ(data->getData(), nullptr);
    EXPECT_EQ(statusOf(*data), status_NoSectionData);
}

TEST_F(ElfSectionDataTest, ShortReadIsReportedAndTriedAgain) {
    ElfAssembler elf;
    const unsigned index = elf.section(".x").append(bytesOf("contents")).index();
    Module module(elf);
    const Bytes whole = module.image->bytes;
    module.image->claimedSize = whole.size();
    module.image->bytes.resize(70);
    DataPtr data = module.data(index);
    expectLog("ASSERTION FAILED: '", 2);
    EXPECT_EQ(data->getData(), nullptr);
    EXPECT_EQ(statusOf(*data), status_NoSectionData);
    module.image->bytes = whole;
    EXPECT_EQ(textOf(*data), "contents");
}

TEST_F(ElfSectionDataTest, RefusedAllocationIsLoggedAndThrownOn) {
    ElfAssembler elf;
    auto section = elf.section(".x").zeros(4);
    section.header().sh_offset = 0;
    section.header().sh_size = 1ULL << 63;
    Module module(elf);
    module.image->claimedSize = ~0ULL;
    DataPtr data = module.data(section.index());
    expectLog("can't allocate memory: 9223372036854775808\n");
    EXPECT_THROW(data->getData(), std::bad_alloc);
}

TEST_F(ElfSectionDataTest, DetachedCopyServesItsContents) {
    auto block = std::make_unique<unsigned char[]>(3);
    std::memcpy(block.get(), "ab", 3);
    DataPtr data = new ElfSectionData(std::move(block), 2, 0x4000);
    EXPECT_EQ(textOf(*data), "ab");
    EXPECT_EQ(data->getIndex(), 0xFFFFFFFFu);
    EXPECT_EQ(data->getBias(), 0x4000u);
    EXPECT_EQ(statusOf(*data), status_Ok);
}

TEST_F(ElfSectionDataTest, WithoutContentsAndWithoutFileItFails) {
    DataPtr data = new ElfSectionData(nullptr, 0, 0);
    EXPECT_EQ(data->getData(), nullptr);
    EXPECT_EQ(statusOf(*data), status_Fail);
}

// --- Compression

TEST_F(ElfSectionDataTest, NameOrFlagMarksCompressedContents) {
    const std::string contents(1000, 'x');
    for (ElfClass elfClass : {ElfClass::k32, ElfClass::k64}) {
        ElfAssembler elf(elfClass);
        const unsigned named = elf.compressedSection(".zdebug_x", bytesOf(contents)).index();
        const unsigned flagged =
            elf.compressedSection(".debug_x", bytesOf(contents), ElfCompression::kChdrWithBigEndianSize)
                .index();
        Module module(elf);
        DataPtr byName = module.data(named);
        EXPECT_EQ(textOf(*byName), contents);
        EXPECT_EQ(statusOf(*byName), status_Ok);
        EXPECT_EQ(textOf(*module.data(flagged)), contents);
    }
}

TEST_F(ElfSectionDataTest, PrefixFurtherAlongTheNameDoesNotCount) {
    ElfAssembler elf;
    const unsigned index =
        elf.compressedSection("x.zdebug_x", bytesOf("contents"), ElfCompression::kZlibBlock).index();
    Module module(elf);
    DataPtr data = module.data(index);
    EXPECT_EQ(textOf(*data).substr(0, 4), "ZLIB");
    EXPECT_EQ(statusOf(*data), status_Ok);
}

TEST_F(ElfSectionDataTest, FlagDecidesTheHeaderAlsoOfASectionNamedAsCompressed) {
    // With the flag the header has 24 bytes: the 12 bytes of a plain block do not do.
    const std::string contents(1000, 'x');
    ElfAssembler elf;
    const unsigned sound =
        elf.compressedSection(".zdebug_x", bytesOf(contents), ElfCompression::kChdrWithBigEndianSize).index();
    auto wrong = elf.compressedSection(".zdebug_y", bytesOf(contents));
    wrong.flags(SHF_COMPRESSED);
    Module module(elf);
    EXPECT_EQ(textOf(*module.data(sound)), contents);
    expectLog("error while uncompressing ZLIB section data");
    EXPECT_EQ(textOf(*module.data(wrong.index())).substr(0, 4), "ZLIB");
}

TEST_F(ElfSectionDataTest, WithoutSectionNamesNothingIsDecompressed) {
    ElfAssembler elf;
    const unsigned index =
        elf.compressedSection(".debug_x", bytesOf("contents"), ElfCompression::kChdr).index();
    elf.withoutSectionNames();
    Module module(elf);
    DataPtr data = module.data(index);
    EXPECT_EQ(textOf(*data)[0], ELFCOMPRESS_ZLIB);
    EXPECT_EQ(statusOf(*data), status_Ok);
}

TEST_F(ElfSectionDataTest, BlockOfNothingButTheHeaderStaysAsItIs) {
    const std::string block("ZLIB\0\0\0\0\0\0\0\4", 12);
    ElfAssembler elf;
    const unsigned index = elf.section(".zdebug_x").append(bytesOf(block)).index();
    Module module(elf);
    DataPtr data = module.data(index);
    EXPECT_EQ(textOf(*data), block);
    EXPECT_EQ(statusOf(*data), status_UnsupportedDebugInfoFormat);
    EXPECT_EQ(data->getSize(), 12u);
}

TEST_F(ElfSectionDataTest, FailedDecompressionLeavesTheRawBytesAndItsStatusForGood) {
    ElfAssembler elf;
    auto section = elf.compressedSection(".zdebug_x", bytesOf(std::string(1000, 'x')));
    Module module(elf);
    const uint64_t offset = elf.layout().section(".zdebug_x").offset;
    module.image->bytes[offset + 14] ^= 0xFF;
    DataPtr data = module.data(section.index());
    expectLog("error while uncompressing ZLIB section data");
    EXPECT_EQ(statusOf(*data), status_UnsupportedDebugInfoFormat);
    EXPECT_EQ(textOf(*data).substr(0, 4), "ZLIB");
    const int before = module.image->reads;
    EXPECT_EQ(statusOf(*data), status_UnsupportedDebugInfoFormat);
    EXPECT_EQ(module.image->reads, before) << "it is not tried again";
}

TEST_F(ElfSectionDataTest, UnknownAlgorithmLeavesTheRawBytes) {
    ElfAssembler elf;
    const unsigned index = elf.section(".zdebug_x").append(bytesOf("LZMA0000000000000")).index();
    Module module(elf);
    DataPtr data = module.data(index);
    expectLog("unknown compression algorithm");
    EXPECT_EQ(textOf(*data), "LZMA0000000000000");
    EXPECT_EQ(statusOf(*data), status_UnsupportedDebugInfoFormat);
}

// --- Threads

TEST_F(ElfSectionDataTest, ThreadsThatAskAtOnceFillItOnce) {
    ElfAssembler elf;
    const unsigned index = elf.section(".x").append(bytesOf(std::string(100000, 'x'))).index();
    Module module(elf);
    DataPtr data = module.data(index);
    const int before = module.image->reads;
    std::vector<const unsigned char*> seen(4);
    std::vector<std::thread> threads;
    for (auto& place : seen)
        threads.emplace_back([&place, &data] { place = data->getData(); });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(module.image->reads, before + 1);
    for (const unsigned char* bytes : seen)
        EXPECT_EQ(bytes, seen[0]);
}

} // namespace
} // namespace ORN_3_30
