#include "orn_dilkor_lun_utils_isa.h"

#include "support/byte_assembler.h"
#include "support/kor_assembler.h"
#include "support/kor_buffers.h"
#include "support/orn_fixture.h"

namespace ORN_3_30::test {
namespace {

using orn_test::ByteAssembler;
using orn_test::KorIsaAssembler;
using Bytes = std::vector<std::uint8_t>;
using Pairs = std::vector<std::pair<unsigned, unsigned>>;
using Names = std::vector<std::string>;

class KorIsaTest : public OrnTest {
protected:
    status_t create(const Bytes& bytes) {
        parser = nullptr;
        return LunDbgParser::create(parser, bufferOf(bytes));
    }
    Pairs mapOf(const std::string& kernel) {
        Pairs pairs{{9, 9}};
        EXPECT_EQ(parser->getInstructionMap(kernel, pairs), status_Ok);
        return pairs;
    }
    Names names() {
        Names all{"cleared"};
        EXPECT_EQ(parser->getKernelNames(all), status_Ok);
        return all;
    }
    void expectAssertion(const std::string& expression) {
        expectLog("ASSERTION FAILED: '" + expression + "'");
    }
    /// What a read behind the end of the stream logs.
    void expectEnd(const std::string& size) {
        expectAssertion("ptr - m_debugInfo->data() + " + size + " <= m_debugInfo->size()");
    }

    /// A stream with one object, which a test writes field by field.
    static ByteAssembler streamOf(std::uint16_t objects = 1) {
        ByteAssembler stream;
        stream.u32(0xDEADD010).u16(objects);
        return stream;
    }
    /// Up to the variables: a kernel "k" without instructions.
    static ByteAssembler streamUpToVariables() {
        ByteAssembler stream = streamOf();
        stream.u8(1).chars("k").u32(0).u32(0).u32(0);
        return stream;
    }
    static ByteAssembler streamUpToSubRoutines() { return streamUpToVariables().u32(0); }
    static ByteAssembler streamUpToFrameSlots() { return streamUpToSubRoutines().u16(0).u16(0); }
    static ByteAssembler streamUpToRegisters() { return streamUpToFrameSlots().u8(0).u8(0).u8(0); }

    void expectCutOff(const ByteAssembler& stream, const std::string& size) {
        EXPECT_EQ(create(stream.bytes()), status_BadFileFormat);
        EXPECT_FALSE(parser);
        expectEnd(size);
    }

    SymMgrObjectPtr<ILunDbgParser> parser;
};

} // namespace

TEST_F(KorIsaTest, AKernelGivesThePairsOfItsSecondMap) {
    KorIsaAssembler isa;
    isa.object("add", {{1, 16}, {2, 32}});
    ASSERT_EQ(create(isa.build()), status_Ok);
    EXPECT_EQ(parser->getNumberOfKernels(), 1u);
    EXPECT_EQ(mapOf("add"), (Pairs{{0, 0}, {1, 16}, {2, 32}}));
}

TEST_F(KorIsaTest, AnInstructionWithoutCodeIsDroppedAndTheLeadingPairStands) {
    KorIsaAssembler isa;
    isa.object("one", {{5, 0}}).object("none", {}).object("some", {{1, 0}, {2, 8}, {3, 0}});
    ASSERT_EQ(create(isa.build()), status_Ok);
    EXPECT_EQ(mapOf("one"), (Pairs{{0, 0}}));
    EXPECT_EQ(mapOf("none"), (Pairs{{0, 0}}));
    EXPECT_EQ(mapOf("some"), (Pairs{{0, 0}, {2, 8}}));
}

TEST_F(KorIsaTest, EverythingElseOfARecordIsPassedOver) {
    KorIsaAssembler isa;
    isa.object("first", {{1, 16}}, 0, true).object("callee", {{1, 17}}, 0x20, true);
    isa.object("last", {{1, 18}}, 0, true);
    ASSERT_EQ(create(isa.build()), status_Ok);
    EXPECT_EQ(names(), (Names{"first", "last"}));
    EXPECT_EQ(mapOf("last"), (Pairs{{0, 0}, {1, 18}}));
}

TEST_F(KorIsaTest, ACalleeIsNoKernel) {
    KorIsaAssembler isa;
    isa.object("k", {{1, 16}}).object("callee", {{1, 16}}, 1);
    ASSERT_EQ(create(isa.build()), status_Ok);
    Pairs pairs{{9, 9}};
    EXPECT_EQ(parser->getInstructionMap("callee", pairs), status_NotFound);
    EXPECT_TRUE(pairs.empty());
    EXPECT_EQ(parser->getNumberOfKernels(), 1u);
}

TEST_F(KorIsaTest, AStreamOfCalleesAloneHasNoMaps) {
    KorIsaAssembler isa;
    isa.object("callee", {{1, 16}}, 1);
    ASSERT_EQ(create(isa.build()), status_Ok);
    Pairs pairs{{9, 9}};
    EXPECT_EQ(parser->getInstructionMap("callee", pairs), status_Fail);
    expectAssertion("m_kernels.size() > 0");
}

TEST_F(KorIsaTest, AStreamWithoutObjectsIsEmpty) {
    ASSERT_EQ(create(KorIsaAssembler().build()), status_Ok);
    EXPECT_EQ(parser->getNumberOfKernels(), 0u);
    EXPECT_TRUE(names().empty());
}

TEST_F(KorIsaTest, AStreamOfAnotherMagicMakesNoParser) {
    KorIsaAssembler isa;
    isa.magic = 0xDEADD011;
    EXPECT_EQ(create(isa.build()), status_BadFileFormat);
    EXPECT_FALSE(parser);
    EXPECT_EQ(create({0x10, 0xD0, 0xAD}), status_BadFileFormat);
    EXPECT_EQ(create({}), status_BadFileFormat);
    EXPECT_EQ(LunDbgParser::create(parser, nullptr), status_BadFileFormat);
    EXPECT_EQ(LunDbgParser::create(parser, new RefusedBuffer), status_BadFileFormat);
    EXPECT_FALSE(parser);
}

TEST_F(KorIsaTest, AFailedReadingLeavesWhatWasThere) {
    ASSERT_EQ(create(KorIsaAssembler().build()), status_Ok);
    const SymMgrObjectPtr<ILunDbgParser> before = parser;
    EXPECT_EQ(LunDbgParser::create(parser, bufferOf(streamOf().bytes())), status_BadFileFormat);
    EXPECT_EQ(parser, before);
    expectEnd("sizeof(uint8_t)");
}

TEST_F(KorIsaTest, OfTwoKernelsOfOneNameTheLaterCountsAndItIsLogged) {
    KorIsaAssembler isa;
    isa.object("k", {{1, 16}}).object("k", {{1, 17}});
    ASSERT_EQ(create(isa.build()), status_Ok);
    EXPECT_EQ(mapOf("k"), (Pairs{{0, 0}, {1, 17}}));
    expectAssertion("m_kernels.count(kernel) == 0");
}

TEST_F(KorIsaTest, ANameEndsAtItsFirstZero) {
    KorIsaAssembler isa;
    isa.object(std::string("k\0rest", 6), {{1, 16}}).object(std::string(255, 'x'), {});
    ASSERT_EQ(create(isa.build()), status_Ok);
    EXPECT_EQ(names(), (Names{"k", std::string(255, 'x')}));
}

// --- Streams that are cut off, one test for each thing that may be missing

TEST_F(KorIsaTest, TheCountOfObjectsHasToBeThere) {
    ByteAssembler stream;
    expectCutOff(stream.u32(0xDEADD010).u8(0), "sizeof(uint16_t)");
}

TEST_F(KorIsaTest, ThePartsOfAKernelHaveToBeThere) {
    expectCutOff(streamOf(), "sizeof(uint8_t)");
    expectCutOff(streamOf().u8(3).chars("ke"), "(size_t)kernelNameLen");
    expectCutOff(streamOf().u8(1).chars("k").u16(0), "sizeof(uint32_t)");
    expectCutOff(streamOf().u8(1).chars("k").u32(0).u16(0), "sizeof(uint32_t)");
    expectCutOff(streamOf().u8(1).chars("k").u32(0).u32(1).fill(7), "(size_t)numElements*CoraMapSize");
    expectCutOff(streamOf().u8(1).chars("k").u32(0).u32(0xffffffff).fill(7),
                 "(size_t)numElements*CoraMapSize");
    expectCutOff(streamOf().u8(1).chars("k").u32(0).u32(0).u16(0), "sizeof(uint32_t)");
    expectCutOff(streamOf().u8(1).chars("k").u32(0).u32(0).u32(2).fill(15),
                 "(size_t)numElements*CoraMapSize");
}

TEST_F(KorIsaTest, VariablesHaveToBeThere) {
    expectCutOff(streamUpToVariables().u16(0), "sizeof(uint32_t)");
    expectCutOff(streamUpToVariables().u32(1), "sizeof(uint8_t)");
    expectCutOff(streamUpToVariables().u32(1).u8(2).u8(0), "(size_t)varNameLen");
    expectCutOff(streamUpToVariables().u32(1).u8(0).u8(0), "sizeof(uint16_t)");
    expectCutOff(streamUpToVariables().u32(1).u8(0).u16(2).fill(19),
                 "(size_t)numIntervals*LiveIntervalMIRASize");
    expectCutOff(streamUpToVariables().u32(0xffffffff).u8(0).u16(0), "sizeof(uint8_t)");
}

TEST_F(KorIsaTest, SubRoutinesHaveToBeThere) {
    expectCutOff(streamUpToSubRoutines().u8(0), "sizeof(uint16_t)");
    expectCutOff(streamUpToSubRoutines().u16(1), "sizeof(uint8_t)");
    expectCutOff(streamUpToSubRoutines().u16(1).u8(0).u16(0), "sizeof(uint32_t)");
    expectCutOff(streamUpToSubRoutines().u16(1).u8(0).u32(0).u16(0), "sizeof(uint32_t)");
    expectCutOff(streamUpToSubRoutines().u16(1).u8(0).u32(0).u32(0).u16(1).fill(9),
                 "(size_t)numIntervals*LiveIntervalMIRASize");
    expectCutOff(streamUpToSubRoutines().u16(0).u8(0), "sizeof(uint16_t)");
}

TEST_F(KorIsaTest, FrameSlotsHaveToBeThere) {
    expectCutOff(streamUpToFrameSlots().u8(0).u8(0), "sizeof(uint8_t)");
    expectCutOff(streamUpToFrameSlots().u8(1).u8(0), "sizeof(uint16_t)");
    expectCutOff(streamUpToFrameSlots().u8(0).u8(0).u8(0xff).u16(1).fill(13),
                 "(size_t)numIntervals*LiveIntervalKorISASize");
}

TEST_F(KorIsaTest, RegistersHaveToBeThere) {
    expectCutOff(streamUpToRegisters().u8(0), "sizeof(uint16_t)");
    expectCutOff(streamUpToRegisters().u16(1).u16(0), "sizeof(uint32_t)");
    expectCutOff(streamUpToRegisters().u16(1).u32(0).u8(0), "sizeof(uint16_t)");
    expectCutOff(streamUpToRegisters().u16(1).u32(0).u16(2).fill(17),
                 "(size_t)numEntries*RegInfoMappingSize");
    expectCutOff(streamUpToRegisters().u16(0).u8(0), "sizeof(uint16_t)");
    EXPECT_EQ(create(streamUpToRegisters().u16(0).u16(0).bytes()), status_Ok);
}

TEST_F(KorIsaTest, AMapThatShrankSinceItWasReadIsNotReadBehindItsEnd) {
    KorIsaAssembler isa;
    isa.object("k", {{1, 16}});
    const Bytes bytes = isa.build();
    const SymMgrObjectPtr<IBuffer> buffer = bufferOf(bytes);
    ASSERT_EQ(LunDbgParser::create(parser, buffer), status_Ok);
    // The count of the map stands behind magic, count, name, offset and the first map.
    const std::size_t countAt = 4 + 2 + 2 + 4 + 4;
    ASSERT_EQ(buffer->data()[countAt], 1);
    buffer->data()[countAt] = 0xff;
    Pairs pairs;
    EXPECT_EQ(parser->getInstructionMap("k", pairs), status_BadFileFormat);
    expectEnd("sizeof(uint32_t)");
}

namespace {

/// The readers of pieces, by themselves.
class OpenParser : public LunDbgParser {
public:
    OpenParser() : LunDbgParser(bufferOf({0})) {}
    using LunDbgParser::Cursor;
    using LunDbgParser::skipKorIsaIntervals;
    using LunDbgParser::skipMiraIntervals;
    using LunDbgParser::skipName;
    using LunDbgParser::skipRegisters;
};

} // namespace

TEST_F(KorIsaTest, TheReadersOfPiecesWantAPlaceToReadFrom) {
    const SymMgrObjectPtr<OpenParser> open = new OpenParser;
    OpenParser::Cursor nowhere = nullptr;
    EXPECT_FALSE(open->skipName(nowhere));
    EXPECT_FALSE(open->skipMiraIntervals(nowhere));
    EXPECT_FALSE(open->skipKorIsaIntervals(nowhere));
    EXPECT_FALSE(open->skipRegisters(nowhere));
    expectLog("ASSERTION FAILED: 'ptr'", 4);
}

// --- Hostile streams

namespace {

class HostileKorIsaTest : public KorIsaTest {
protected:
    HostileKorIsaTest() {
        allowLog("");
        setLogLevel(errorLevel + 1);
    }
    bool visit(const Bytes& bytes) {
        if (create(bytes) != status_Ok)
            return false;
        for (const std::string& name : names()) {
            Pairs pairs;
            EXPECT_EQ(parser->getInstructionMap(name, pairs), status_Ok);
            EXPECT_LE(pairs.size(), bytes.size() / 8 + 1);
        }
        return true;
    }
    static Bytes stream() {
        KorIsaAssembler isa;
        return isa.object("k", {{1, 16}, {2, 32}}, 0, true).object("c", {{1, 1}}, 1).build();
    }
};

} // namespace

TEST_F(HostileKorIsaTest, EveryPrefixEndsCleanlyAndGivesNothing) {
    const Bytes bytes = stream();
    ASSERT_TRUE(visit(bytes));
    for (std::size_t size = 0; size < bytes.size(); ++size)
        EXPECT_FALSE(visit(Bytes(bytes.begin(), bytes.begin() + static_cast<long>(size)))) << size;
}

TEST_F(HostileKorIsaTest, EveryChangedByteEndsCleanly) {
    const Bytes bytes = stream();
    for (std::size_t i = 0; i < bytes.size(); ++i)
        for (unsigned value = 0; value < 256; ++value) {
            Bytes changed = bytes;
            changed[i] = static_cast<std::uint8_t>(value);
            visit(changed);
        }
}

TEST_F(HostileKorIsaTest, CountsBeyondAnyStreamTakeNoTime) {
    constexpr std::size_t size = 1 << 20;
    EXPECT_FALSE(visit(streamUpToVariables().u32(0xffffffff).fill(size).bytes())) << "a variable of 3 bytes";
    EXPECT_FALSE(visit(streamUpToSubRoutines().u16(0xffff).fill(size / 2).bytes())) << "each of 11 bytes";
    EXPECT_FALSE(visit(streamOf(0xffff).fill(size).bytes())) << "an object of 28 bytes";
}

} // namespace ORN_3_30::test
