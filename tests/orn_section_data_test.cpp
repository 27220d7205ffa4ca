#include "orn_section_data.h"

#include "orn_buffer.h"
#include "support/orn_fixture.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <zlib.h>

using namespace ORN_3_30;

namespace {

using Bytes = std::vector<unsigned char>;

Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

Bytes deflated(const Bytes& plain) {
    uLongf size = ::compressBound(plain.size());
    Bytes stream(size);
    EXPECT_EQ(::compress2(stream.data(), &size, plain.data(), plain.size(), Z_BEST_COMPRESSION), Z_OK);
    stream.resize(size);
    return stream;
}

Bytes withHeader(const std::string& magic, unsigned long long declared, const Bytes& stream,
                 std::size_t headerSize = 12) {
    Bytes block = bytesOf(magic);
    block.resize(4);
    for (int shift = 56; shift >= 0; shift -= 8)
        block.push_back(static_cast<unsigned char>(declared >> shift));
    block.resize(headerSize);
    block.insert(block.end(), stream.begin(), stream.end());
    return block;
}

/// A ".zdebug_" section's contents.
Bytes zlibBlock(const Bytes& plain) {
    return withHeader("ZLIB", plain.size(), deflated(plain));
}

/// A section over bytes of one's own that counts its reads.
class FakeSection : public SymMgrObject<ISection> {
public:
    explicit FakeSection(Bytes bytes) : SymMgrObject<ISection>(nullptr), m_bytes(std::move(bytes)) {}

    const char* getName() override { return ".fake"; }
    unsigned long long getSize() override { return m_bytes.size(); }
    unsigned long long getFileOffset() override { return 0; }
    unsigned long long getAddress() override { return 0; }
    status_t read(SymMgrObjectPtr<IBuffer>& out) override { return readAt(0, m_bytes.size(), out); }
    status_t readAt(unsigned long long delta, unsigned long long size,
                    SymMgrObjectPtr<IBuffer>& out) override {
        ++reads;
        if (answer != status_Ok)
            return answer;
        out = new ByteBuffer(size);
        if (size != 0)
            std::memcpy(out->data(), m_bytes.data() + delta, size);
        return status_Ok;
    }
    bool isNoBits() override { return false; }

    int reads = 0;
    status_t answer = status_Ok;

private:
    Bytes m_bytes;
};

class DecompressSectionTest : public test::OrnTest {
protected:
    status_t decompress(const Bytes& block, bool isZlibBlock, bool is64Bit) {
        unsigned char stale = 0;
        unsigned char* out = &stale;
        unsigned long long size = 99;
        const status_t status =
            decompressSection(block.data(), block.size(), out, size, isZlibBlock, is64Bit);
        if (status == status_Ok) {
            const std::unique_ptr<unsigned char[]> owner(out);
            result.assign(out, out + size);
            terminator = out[size];
        } else {
            EXPECT_EQ(out, nullptr);
            EXPECT_EQ(size, 0u);
        }
        return status;
    }

    Bytes result;
    int terminator = -1;
};

using SectionDataTest = test::OrnTest;
using PESectionDataTest = test::OrnTest;
using SectionDataAdapterTest = test::OrnTest;

const Bytes text = bytesOf("contents of a section, contents of a section, contents of a section");

} // namespace

// --- decompressSection

TEST_F(DecompressSectionTest, AZlibBlockHasAHeaderOf12BytesInBothClasses) {
    EXPECT_EQ(decompress(zlibBlock(text), true, true), status_Ok);
    EXPECT_EQ(result, text);
    EXPECT_EQ(decompress(zlibBlock(text), true, false), status_Ok);
    EXPECT_EQ(result, text);
}

TEST_F(DecompressSectionTest, TheCompressionHeaderIs24BytesIn64BitFilesAnd12In32BitFiles) {
    EXPECT_EQ(decompress(withHeader("\x01", text.size(), deflated(text), 24), false, true), status_Ok);
    EXPECT_EQ(result, text);
    EXPECT_EQ(decompress(withHeader("\x01", text.size(), deflated(text), 12), false, false), status_Ok);
    EXPECT_EQ(result, text);
}

TEST_F(DecompressSectionTest, EitherMagicIsTakenWhateverTheFormOfTheHeader) {
    EXPECT_EQ(decompress(withHeader("\x01", text.size(), deflated(text)), true, true), status_Ok);
    EXPECT_EQ(result, text);
    EXPECT_EQ(decompress(withHeader("ZLIB", text.size(), deflated(text), 24), false, true), status_Ok);
    EXPECT_EQ(result, text);
    // Of the other magic the first byte alone counts.
    EXPECT_EQ(decompress(withHeader("\x01yz.", text.size(), deflated(text)), true, true), status_Ok);
}

TEST_F(DecompressSectionTest, NoDataIsAnUnsupportedFormat) {
    unsigned char* out = nullptr;
    unsigned long long size = 99;
    EXPECT_EQ(decompressSection(nullptr, 100, out, size, true, true), status_UnsupportedDebugInfoFormat);
    EXPECT_EQ(size, 0u);
}

TEST_F(DecompressSectionTest, TheBlockMustBeLongerThanItsHeader) {
    const Bytes header12 = withHeader("ZLIB", 4, {});
    ASSERT_EQ(header12.size(), 12u);
    EXPECT_EQ(decompress(header12, true, true), status_UnsupportedDebugInfoFormat);
    EXPECT_EQ(decompress(header12, false, false), status_UnsupportedDebugInfoFormat);
    EXPECT_EQ(decompress(withHeader("ZLIB", 4, {}, 24), false, true), status_UnsupportedDebugInfoFormat);
    EXPECT_EQ(decompress(Bytes{}, true, true), status_UnsupportedDebugInfoFormat);
    // Long enough for its header of 12 bytes, and refused only for the stream.
    EXPECT_EQ(decompress(withHeader("ZLIB", 4, {}, 13), true, true), status_UnsupportedDebugInfoFormat);
    expectLog("error while uncompressing ZLIB section data");
}

TEST_F(DecompressSectionTest, AnUnknownAlgorithmIsLogged) {
    EXPECT_EQ(decompress(withHeader("ZLIX", 4, deflated(text)), true, true),
              status_UnsupportedDebugInfoFormat);
    EXPECT_EQ(decompress(withHeader("\x02", 4, deflated(text), 24), false, true),
              status_UnsupportedDebugInfoFormat);
    expectLog("unknown compression algorithm\n", 2);
}

TEST_F(DecompressSectionTest, TheSizeIsBigEndianEvenInAGenuineCompressionHeader) {
    // ch_type 1, ch_reserved 0, ch_size 0x100 in little-endian, ch_addralign 1: bytes 4 to 11 read as
    // 0x10000.
    Bytes header = {1, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x01, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0};
    const Bytes plain(0x100, 'x');
    Bytes block = header;
    const Bytes stream = deflated(plain);
    block.insert(block.end(), stream.begin(), stream.end());
    EXPECT_EQ(decompress(block, false, true), status_Ok);
    EXPECT_EQ(result, plain);

    // Of a ch_size of 0x02000000 it makes 2: too little room for what the stream holds.
    block[9] = 0;
    block[11] = 2;
    EXPECT_EQ(decompress(block, false, true), status_UnsupportedDebugInfoFormat);
    expectLog("error while uncompressing ZLIB section data");
}

TEST_F(DecompressSectionTest, TheSizeReportedIsWhatTheStreamHolds) {
    EXPECT_EQ(decompress(withHeader("ZLIB", text.size() + 1000, deflated(text)), true, true), status_Ok);
    EXPECT_EQ(result, text);
}

TEST_F(DecompressSectionTest, ADeclaredSizeOfManyGigabytesCostsNothing) {
    EXPECT_EQ(decompress(withHeader("ZLIB", 1ULL << 46, deflated(text)), true, true), status_Ok);
    EXPECT_EQ(result, text);
}

TEST_F(DecompressSectionTest, TheDensestStreamFitsTheRoomThatIsMadeForIt) {
    const Bytes zeros(4 << 20);
    EXPECT_EQ(decompress(withHeader("ZLIB", 1ULL << 46, deflated(zeros)), true, true), status_Ok);
    EXPECT_EQ(result, zeros);
}

TEST_F(DecompressSectionTest, ASizeThatNoMachineHasIsRefusedAsAnAllocationFailure) {
    const Bytes block = withHeader("ZLIB", ~0ULL, deflated(text));
    EXPECT_THROW((void)decompress(block, true, true), std::bad_alloc);
    expectLog("can't allocate memory: 18446744073709551615\n");
}

TEST_F(DecompressSectionTest, ADeclaredSizeThatIsTooSmallFails) {
    EXPECT_EQ(decompress(withHeader("ZLIB", text.size() - 1, deflated(text)), true, true),
              status_UnsupportedDebugInfoFormat);
    EXPECT_EQ(decompress(withHeader("ZLIB", 0, deflated(text)), true, true),
              status_UnsupportedDebugInfoFormat);
    expectLog("error while uncompressing ZLIB section data\n", 2);
}

TEST_F(DecompressSectionTest, ACorruptOrTruncatedStreamFails) {
    Bytes corrupt = zlibBlock(text);
    corrupt[14] ^= 0xFF;
    EXPECT_EQ(decompress(corrupt, true, true), status_UnsupportedDebugInfoFormat);
    Bytes truncated = zlibBlock(text);
    truncated.pop_back();
    EXPECT_EQ(decompress(truncated, true, true), status_UnsupportedDebugInfoFormat);
    expectLog("error while uncompressing ZLIB section data", 2);
}

TEST_F(DecompressSectionTest, AnEmptyStreamGivesAnEmptyArray) {
    EXPECT_EQ(decompress(zlibBlock({}), true, true), status_Ok);
    EXPECT_TRUE(result.empty());
    EXPECT_EQ(terminator, 0);
}

TEST_F(DecompressSectionTest, OneNulStandsBehindTheContents) {
    EXPECT_EQ(decompress(zlibBlock(text), true, true), status_Ok);
    EXPECT_EQ(terminator, 0);
    terminator = -1;
    EXPECT_EQ(decompress(withHeader("ZLIB", text.size() + 500, deflated(text)), true, true), status_Ok);
    EXPECT_EQ(terminator, 0);
}

// --- SectionData

TEST_F(SectionDataTest, ReadsTheWholeSectionOnFirstUseAndOnce) {
    const SymMgrObjectPtr<FakeSection> section = new FakeSection(text);
    const SymMgrObjectPtr<ISectionData> data = new SectionData(section, 7, 0x1000);
    EXPECT_EQ(section->reads, 0);
    EXPECT_EQ(data->getIndex(), 7u);
    EXPECT_EQ(data->getBias(), 0x1000u);
    EXPECT_EQ(section->reads, 0);
    status_t status = status_Fail;
    ASSERT_EQ(data->getSize(status), text.size());
    EXPECT_EQ(status, status_Ok);
    const unsigned char* contents = data->getData();
    EXPECT_EQ(Bytes(contents, contents + data->getSize()), text);
    EXPECT_EQ(data->getData(), contents);
    EXPECT_EQ(section->reads, 1);
}

TEST_F(SectionDataTest, AFailedReadIsLoggedAndNotRepeated) {
    const SymMgrObjectPtr<FakeSection> section = new FakeSection(text);
    section->answer = status_False;
    const SymMgrObjectPtr<ISectionData> data = new SectionData(section, 7, 0);
    EXPECT_EQ(data->getData(), nullptr);
    section->answer = status_Ok;
    EXPECT_EQ(data->getData(), nullptr);
    status_t status = status_Ok;
    EXPECT_EQ(data->getSize(status), 0u);
    EXPECT_EQ(status, status_NoSectionData);
    EXPECT_EQ(section->reads, 1);
    expectLog("ASSERTION FAILED: 'm_buffer'");
}

TEST_F(SectionDataTest, AMissingSectionIsLogged) {
    const SymMgrObjectPtr<ISectionData> data = new SectionData(nullptr, 7, 0);
    status_t status = status_Ok;
    EXPECT_EQ(data->getSize(status), 0u);
    EXPECT_EQ(status, status_NoSectionData);
    EXPECT_EQ(data->getData(), nullptr);
    expectLog("ASSERTION FAILED: 'm_section'");
}

// --- PESectionData

TEST_F(PESectionDataTest, GivesPlainContentsOutOfTheBuffer) {
    const SymMgrObjectPtr<FakeSection> section = new FakeSection(text);
    const SymMgrObjectPtr<ISectionData> data = new PESectionData(section, 3, false);
    const unsigned char* contents = data->getData();
    ASSERT_NE(contents, nullptr);
    EXPECT_EQ(Bytes(contents, contents + data->getSize()), text);
    EXPECT_EQ(data->getIndex(), 3u);
    EXPECT_EQ(data->getBias(), 0u);
    EXPECT_EQ(section->reads, 1);
}

TEST_F(PESectionDataTest, InflatesACompressedSection) {
    const SymMgrObjectPtr<FakeSection> section = new FakeSection(zlibBlock(text));
    const SymMgrObjectPtr<ISectionData> data = new PESectionData(section, 3, true);
    status_t status = status_Fail;
    ASSERT_EQ(data->getSize(status), text.size());
    EXPECT_EQ(status, status_Ok);
    EXPECT_EQ(Bytes(data->getData(), data->getData() + text.size()), text);
    EXPECT_EQ(section->reads, 1);
}

TEST_F(PESectionDataTest, WithoutTheMarkCompressedBytesStayAsTheyAre) {
    const Bytes block = zlibBlock(text);
    const SymMgrObjectPtr<ISectionData> data = new PESectionData(new FakeSection(block), 3, false);
    ASSERT_EQ(data->getSize(), block.size());
    EXPECT_EQ(Bytes(data->getData(), data->getData() + block.size()), block);
}

TEST_F(PESectionDataTest, AFailedDecompressionKeepsTheRawBytesAndIsReportedEveryTime) {
    const Bytes block = withHeader("ZLIB", 10, {});
    ASSERT_EQ(block.size(), 12u);
    const SymMgrObjectPtr<FakeSection> section = new FakeSection(block);
    const SymMgrObjectPtr<ISectionData> data = new PESectionData(section, 3, true);
    for (int i = 0; i < 2; ++i) {
        status_t status = status_Ok;
        ASSERT_EQ(data->getSize(status), 12u);
        EXPECT_EQ(status, status_UnsupportedDebugInfoFormat);
        EXPECT_EQ(Bytes(data->getData(), data->getData() + 12), block);
    }
    EXPECT_EQ(section->reads, 1);
}

TEST_F(PESectionDataTest, AFailedReadIsRepeated) {
    const SymMgrObjectPtr<FakeSection> section = new FakeSection(text);
    section->answer = status_False;
    const SymMgrObjectPtr<ISectionData> data = new PESectionData(section, 3, false);
    status_t status = status_Ok;
    EXPECT_EQ(data->getSize(status), 0u);
    EXPECT_EQ(status, status_NoSectionData);
    EXPECT_EQ(data->getData(), nullptr);
    section->answer = status_OutOfMemory;
    EXPECT_EQ(data->getSize(status), 0u);
    EXPECT_EQ(status, status_OutOfMemory);
    section->answer = status_Ok;
    EXPECT_EQ(data->getSize(status), text.size());
    EXPECT_EQ(status, status_Ok);
    EXPECT_NE(data->getData(), nullptr);
}

TEST_F(PESectionDataTest, AnAllocationFailureLeavesItReadyToTryAgain) {
    const SymMgrObjectPtr<FakeSection> section =
        new FakeSection(withHeader("ZLIB", 1ULL << 60, deflated(text)));
    const SymMgrObjectPtr<ISectionData> data = new PESectionData(section, 3, true);
    EXPECT_THROW(data->getData(), std::bad_alloc);
    EXPECT_THROW(data->getSize(), std::bad_alloc);
    expectLog("can't allocate memory: ", 2);
}

TEST_F(PESectionDataTest, WithoutASectionThereIsNothing) {
    const SymMgrObjectPtr<ISectionData> data = new PESectionData(nullptr, 3, true);
    status_t status = status_Ok;
    EXPECT_EQ(data->getData(), nullptr);
    EXPECT_EQ(data->getSize(status), 0u);
    EXPECT_EQ(status, status_NoSectionData);
}

TEST_F(PESectionDataTest, AnEmptyCompressedSectionIsNotInflated) {
    const SymMgrObjectPtr<ISectionData> data = new PESectionData(new FakeSection(Bytes{}), 3, true);
    status_t status = status_Fail;
    EXPECT_EQ(data->getSize(status), 0u);
    EXPECT_EQ(status, status_Ok);
}

// --- SectionDataAdapter

TEST_F(SectionDataAdapterTest, TellsWhatItWasGiven) {
    const SymMgrObjectPtr<ISection> adapter = new SectionDataAdapter(
        new PESectionData(new FakeSection(text), 3, false), ".debug_str", 0x10, 0x20, 0x30, false);
    EXPECT_STREQ(adapter->getName(), ".debug_str");
    EXPECT_EQ(adapter->getAddress(), 0x10u);
    EXPECT_EQ(adapter->getFileOffset(), 0x20u);
    EXPECT_EQ(adapter->getSize(), 0x30u);
    EXPECT_FALSE(adapter->isNoBits());
}

TEST_F(SectionDataAdapterTest, ReadsAllOfTheContentsAfterDecompression) {
    const Bytes block = zlibBlock(text);
    const SymMgrObjectPtr<ISection> adapter = new SectionDataAdapter(
        new PESectionData(new FakeSection(block), 3, true), ".zdebug_str", 0, 0, block.size(), false);
    SymMgrObjectPtr<IBuffer> buffer;
    ASSERT_EQ(adapter->read(buffer), status_Ok);
    EXPECT_EQ(Bytes(buffer->data(), buffer->data() + buffer->size()), text);
}

TEST_F(SectionDataAdapterTest, ReadsAPartUpToTheVeryEnd) {
    const SymMgrObjectPtr<ISection> adapter =
        new SectionDataAdapter(new PESectionData(new FakeSection(text), 3, false), "s", 0, 0, 0, false);
    SymMgrObjectPtr<IBuffer> buffer;
    ASSERT_EQ(adapter->readAt(text.size() - 2, 2, buffer), status_Ok);
    EXPECT_EQ(Bytes(buffer->data(), buffer->data() + buffer->size()), bytesOf("on"));
    ASSERT_EQ(adapter->readAt(text.size(), 0, buffer), status_Ok);
    EXPECT_EQ(buffer->size(), 0u);
}

TEST_F(SectionDataAdapterTest, AReadPastTheEndIsRefusedAlsoWhenTheSumWraps) {
    const SymMgrObjectPtr<ISection> adapter =
        new SectionDataAdapter(new PESectionData(new FakeSection(text), 3, false), ".s", 0, 0, 0, false);
    SymMgrObjectPtr<IBuffer> buffer;
    EXPECT_EQ(adapter->readAt(text.size() - 2, 3, buffer), status_False);
    EXPECT_EQ(adapter->readAt(~0ULL, 2, buffer), status_False);
    EXPECT_EQ(adapter->readAt(2, ~0ULL, buffer), status_False);
    EXPECT_FALSE(buffer);
    expectLog("Unable to read 3 bytes from section: .s\n");
    expectLog("Unable to read 2 bytes from section: .s\n");
    expectLog("Unable to read 18446744073709551615 bytes from section: .s\n");
}

TEST_F(SectionDataAdapterTest, ASectionWithoutBitsGivesNothing) {
    const SymMgrObjectPtr<ISection> adapter =
        new SectionDataAdapter(new PESectionData(new FakeSection(text), 3, false), "s", 0, 0, 0, true);
    SymMgrObjectPtr<IBuffer> buffer;
    EXPECT_TRUE(adapter->isNoBits());
    EXPECT_EQ(adapter->read(buffer), status_False);
    EXPECT_EQ(adapter->readAt(0, 1, buffer), status_False);
    EXPECT_FALSE(buffer);
}

TEST_F(SectionDataAdapterTest, AnAllocationFailureOfTheContentsIsAStatus) {
    const SymMgrObjectPtr<ISection> adapter = new SectionDataAdapter(
        new PESectionData(new FakeSection(withHeader("ZLIB", ~0ULL, deflated(text))), 3, true), "s", 0, 0, 0,
        false);
    SymMgrObjectPtr<IBuffer> buffer;
    EXPECT_EQ(adapter->read(buffer), status_OutOfMemory);
    EXPECT_EQ(adapter->readAt(0, 1, buffer), status_OutOfMemory);
    expectLog("can't allocate memory: ", 2);
    expectLog("Out of memory", 2);
}
