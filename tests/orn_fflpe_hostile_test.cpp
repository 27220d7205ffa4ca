// Damaged PE modules: every truncation and every changed byte of small ones comes back, whatever it gives.
// What is right to give is no matter here: the sanitizers and the clock are the judges.

#include "orn_fflpe.h"

#include "fuzz_targets.h"
#include "memory_file.h"
#include "orn_scope.h"
#include "support/orn_fixture.h"
#include "support/pe_assembler.h"
#include "support/recording_sink.h"

#include <chrono>
#include <vector>

namespace ORN_3_30 {
namespace {

using orn_test::PeAssembler;
using orn_test::PeClass;
using orn_test::peCode;
using orn_test::peData;
using orn_test::PeExports;
using orn_test::peReadOnly;
using orn_test::putNumber;

using Bytes = std::vector<uint8_t>;

/// Everything that the loader reads, in as few bytes as possible: long names, exports of every sort, function
/// descriptors, records of all kinds, native code beside managed code.
PeAssembler richModule(PeClass peClass) {
    PeAssembler pe(peClass);
    const uint64_t base = peClass == PeClass::k64 ? 0x180000000 : 0x400000;
    pe.fileAlignment(4).entry(0x1004).directory(8, 0x2000, 0);
    pe.section(".text", 0x1000, peCode).data.u64(base + 0x1004).u64(base + 0x2000).fill(8, 0xC3);
    pe.section(".debug_line", 0x2000, peData).data.fill(8);
    PeExports& exports = pe.exports(0x3000);
    exports.add("f", 0x1000);
    exports.addUnnamed(0x1010);
    exports.addForwarder("g", "m.g");
    exports.add("v", 0x2000);
    orn_test::ByteAssembler coff;
    coff.u32(0).u32(32).padTo(32).raw(PeAssembler::nb10(1, 2, "b"));
    pe.debugEntry(0x4000, 1, coff.bytes());
    pe.debugEntry(0x4000, 2, PeAssembler::rsds({}, 1, "a.ni.pdb"));
    pe.clrHeader(0x5000, 0x6000);
    pe.section(".native", 0x6000, peReadOnly).data.raw(PeAssembler::readyToRunHeader());
    return pe;
}

class PEHostileTest : public test::OrnTest, public testing::WithParamInterface<PeClass> {
protected:
    PEHostileTest() { allowLog(""); }
};

TEST_P(PEHostileTest, TheModuleItselfIsRead) {
    orn_fuzz::MemoryFile file;
    const Bytes bytes = richModule(GetParam()).build();
    ASSERT_TRUE(file.write(bytes.data(), bytes.size()));
    SymMgrObjectPtr<PEExecFileLoader> loader(new PEExecFileLoader(file.path()));
    EXPECT_TRUE(isPE(file.path()));
    EXPECT_TRUE(loader->isReadyToRun());
    SymMgrObjectPtr<orn_test::RecordingSink> sink(new orn_test::RecordingSink);
    EXPECT_EQ(loader->readSymbols(sink.get(), nullptr, symbol_kind_all), status_Ok);
    EXPECT_THAT(sink->names(), testing::ElementsAre("f", "ORD_2"));
    EXPECT_NE(loader->findSegmentByName(".debug_line"), nullptr);
    EXPECT_THAT(takeLogs(), testing::IsEmpty());
}

TEST_P(PEHostileTest, EveryTruncationComesBack) {
    const Bytes bytes = richModule(GetParam()).build();
    for (size_t size = 0; size < bytes.size(); ++size)
        orn_fuzz::pe(bytes.data(), size);
}

TEST_P(PEHostileTest, EveryChangedByteComesBack) {
    const Bytes bytes = richModule(GetParam()).build();
    for (size_t i = 0; i < bytes.size(); ++i) {
        for (const int change : {0x01, 0x80, 0xFF}) {
            Bytes changed = bytes;
            changed[i] ^= static_cast<uint8_t>(change);
            orn_fuzz::pe(changed.data(), changed.size());
        }
    }
}

/// A field as a whole, by the values at which sums wrap and counts explode.
TEST_P(PEHostileTest, EveryExtremeNumberComesBack) {
    const Bytes bytes = richModule(GetParam()).build();
    for (size_t i = 0; i + 4 <= bytes.size(); i += 4) {
        for (const uint32_t value : {0u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
            Bytes changed = bytes;
            putNumber(changed, i, value, 4);
            orn_fuzz::pe(changed.data(), changed.size());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Classes, PEHostileTest, testing::Values(PeClass::k32, PeClass::k64),
                         [](const auto& info) { return info.param == PeClass::k64 ? "Wide" : "Narrow"; });

class PECrowdTest : public test::OrnTest {
protected:
    PECrowdTest() : m_begin(std::chrono::steady_clock::now()) { allowLog(""); }

    double seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_begin).count();
    }

private:
    std::chrono::steady_clock::time_point m_begin;
};

// What is in proportion to the file takes a time in proportion to it. The limits are far above what is
// needed, and far below what a square would take.
TEST_F(PECrowdTest, ThousandsOfExportsOfOneAddress) {
    PeAssembler pe;
    pe.section(".text", 0x1000, peCode).data.fill(0x10, 0xC3);
    for (int i = 0; i < 10000; ++i)
        pe.exports(0x3000).addUnnamed(0x1008);
    const Bytes bytes = pe.build();
    orn_fuzz::MemoryFile file;
    ASSERT_TRUE(file.write(bytes.data(), bytes.size()));
    SymMgrObjectPtr<IFileFormatLoader> module(new PEExecFileLoader(file.path()));
    GlobalScope scope(module, nullptr, nullptr);
    EXPECT_EQ(scope.load(symbol_kind_all), status_Ok);
    SymMgrObjectPtr<ISymbolRange> winner;
    EXPECT_EQ(scope.symbolRangeByAddress(winner, module->getImageBase() + 0x1008, symbol_kind_all, nullptr),
              status_Ok);
    EXPECT_TRUE(winner);
    EXPECT_LT(seconds(), 60.0);
}

TEST_F(PECrowdTest, AsManySectionsAsAFileCanHaveWithLongNames) {
    PeAssembler pe;
    pe.section(".text", 0x1000, peCode).data.fill(0x10, 0xC3);
    Bytes bytes = pe.build();
    const uint32_t table = pe.layout().sectionTable;
    const Bytes header(bytes.begin() + table, bytes.begin() + table + 40);
    bytes.resize(table);
    for (uint32_t i = 0; i < 65535; ++i) {
        bytes.insert(bytes.end(), header.begin(), header.end());
        putNumber(bytes, bytes.size() - 40, 0x342F, 8);                  // "/4"
        putNumber(bytes, bytes.size() - 40 + 12, 0x1000 + i * 0x100, 4); // VirtualAddress
    }
    putNumber(bytes, pe.layout().fileHeader + 2, 65535, 2);
    orn_fuzz::pe(bytes.data(), bytes.size());
    EXPECT_LT(seconds(), 60.0);
}

} // namespace
} // namespace ORN_3_30
