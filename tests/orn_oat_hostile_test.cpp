// Damaged containers of compiled managed code: each truncation of a small one, and each change of one of its
// bytes, has to load or to fail cleanly, and nothing may take longer than the size of the file accounts for.
// Nothing else is expected of the outcome; the sanitizers judge the rest.

#include "orn_scope.h"
#include "support/oat_reading.h"
#include "support/orn_fixture.h"

#include <ctime>

namespace ORN_3_30 {
namespace {

using orn_test::ByteAssembler;
using orn_test::DexAssembler;
using orn_test::DexLines;
using orn_test::OatAssembler;
using orn_test::oatDataAddress;
using orn_test::OatReading;

using Bytes = std::vector<uint8_t>;

class OatHostile : public test::OrnTest {
protected:
    /// Damage is logged all over, and logging is not what is tested.
    OatHostile() : m_format(new ElfFileLoader(new orn_test::MemoryImage(orn_test::ElfAssembler().build()))) {
        setLogLevel(60000);
    }

    void exercise(const Bytes& bytes, uint64_t executableOffset);

private:
    SymMgrObjectPtr<ElfFileLoader> m_format; ///< one for all: making it takes longer than what is tested
};

/// Something of everything that loading looks at, in as few bytes as may be.
DexAssembler completeDex() {
    DexAssembler dex;
    dex.addClass("LA;", "A.j");
    dex.addStaticField(0, "f");
    dex.addMethod(0, "m",
                  {.instructionUnits = 1,
                   .lines = DexLines(9)
                                .parameters({"f"})
                                .startLocal(1)
                                .startLocalExtended(2)
                                .endLocal(1)
                                .advancePc(1)
                                .advanceLine(-2)
                                .row(1, 0)
                                .setFile("B.j")
                                .row(1, 1)
                                .end()});
    dex.addMethod(0, "n", {.instructionUnits = 1});
    dex.addMethod(0, "v", {.isVirtual = true, .hasCode = false});
    return dex;
}

OatAssembler completeOat(int version) {
    OatAssembler oat(version);
    oat.alignment(4).store({'k', 0});
    oat.addDex(completeDex());
    oat.record(0, 0) = {
        1,
        {{"m", {.size = 8, .isThumb = true, .nativeToDex = {{0, 1}, {2, 2}}, .dexToNative = {{4, 1}}}},
         {"v", {.size = 4, .hasMapping = false}}}};
    return oat;
}

/// Loads through a module's scope, and asks for what came out.
void OatHostile::exercise(const Bytes& bytes, uint64_t executableOffset) {
    OatReading reading(bytes, executableOffset, m_format);
    GlobalScope scope(reading.format, reading.loader, nullptr);
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
    static_cast<void>(scope.symbolRanges(ranges, 0, ~0ULL, symbol_kind_all));
    for (int count = 0; ranges && ranges->current() && count < 8; ++count) {
        ISymbol* symbol = ranges->current()->symbol();
        SymMgrObjectPtr<ISourceLocation> location;
        if (symbol && symbol->sourceLocation(location) == status_Ok)
            location->file();
        if (!ranges->next())
            break;
    }
}

TEST_F(OatHostile, EveryPrefixEndsCleanly) {
    for (const int version : {7, 14, 28}) {
        const OatAssembler oat = completeOat(version);
        const uint32_t executableOffset = oat.executableOffset();
        const Bytes whole = oat.build();
        for (size_t size = 0; size <= whole.size(); ++size)
            exercise({whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size)}, executableOffset);
    }
}

TEST_F(OatHostile, EveryChangeOfAByteEndsCleanly) {
    const OatAssembler oat = completeOat(28);
    const ByteAssembler layout = oat.assemble();
    const ByteAssembler inDex = completeDex().assemble();
    const uint32_t executableOffset = oat.executableOffset();
    const size_t dex = layout.offsetOf("dex:0");
    const size_t dexMap = dex + inDex.offsetOf("map"); // which nobody reads
    Bytes bytes = layout.bytes();
    for (size_t at = 0; at < bytes.size(); ++at) {
        if (at >= dexMap && at < layout.offsetOf("class:0:0"))
            continue;
        // Tables of identifiers: their numbers are right, too large, or lead elsewhere.
        const bool isTable = at >= dex && at < dex + inDex.offsetOf("data");
        const uint8_t right = bytes[at];
        for (int wrong = 0; wrong < 256; wrong += isTable ? 15 : 1) {
            bytes[at] = static_cast<uint8_t>(wrong);
            exercise(bytes, executableOffset);
        }
        bytes[at] = right;
    }
}

/// What older versions have differently is little: a choice of values will do.
TEST_F(OatHostile, ChangesOfBytesOfOlderVersionsEndCleanly) {
    for (const int version : {7, 15}) {
        const OatAssembler oat = completeOat(version);
        const uint32_t executableOffset = oat.executableOffset();
        Bytes bytes = oat.build();
        for (uint8_t& byte : bytes) {
            const uint8_t right = byte;
            for (const int wrong :
                 {0, 1, 9, 0x7F, 0x80, 0xFF, right ^ 1, right ^ 0x40, right + 1, right - 1}) {
                byte = static_cast<uint8_t>(wrong);
                exercise(bytes, executableOffset);
            }
            byte = right;
        }
    }
}

// --- Time

/// Seconds of processor time that a load takes.
double secondsOf(const Bytes& bytes, uint64_t executableOffset) {
    OatReading reading(bytes, executableOffset);
    const std::clock_t begin = std::clock();
    static_cast<void>(reading.load());
    return static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
}

constexpr double muchTooLong = 10; // seconds; square time would take minutes, and these take fractions of one

/// `classCount` classes which all have the data of the first one and the records of `methodCount` methods.
Bytes everythingShared(uint32_t classCount, uint32_t methodCount, uint64_t& executableOffset) {
    DexAssembler dex;
    for (uint32_t i = 0; i < classCount; ++i)
        dex.addClass("LC" + std::to_string(i) + ";", "A.java");
    std::vector<std::string> names;
    for (uint32_t i = 0; i < methodCount; ++i)
        dex.addMethod(0, "m" + std::to_string(i), {.lines = DexLines(1).row(0, 0).end()});
    OatAssembler oat(28);
    oat.addDex(dex);
    const ByteAssembler layout = oat.assemble();
    executableOffset = layout.offsetOf("executable");
    Bytes bytes = layout.bytes();
    const ByteAssembler inDex = dex.assemble();
    const size_t dexAt = layout.offsetOf("dex:0");
    const size_t defs = dexAt + inDex.offsetOf("class_def:LC0;");
    for (uint32_t i = 1; i < classCount; ++i) {
        std::memcpy(&bytes[defs + 32 * i + 24], &bytes[defs + 24], 4);
        const size_t table = layout.offsetOf("class_offsets:0");
        std::memcpy(&bytes[table + 4 * i], &bytes[table], 4);
    }
    return bytes;
}

TEST_F(OatHostile, ClassesThatShareTheirDataDoNotMultiply) {
    uint64_t executableOffset = 0;
    const Bytes bytes = everythingShared(2000, 2000, executableOffset);
    EXPECT_LT(secondsOf(bytes, executableOffset), muchTooLong) << bytes.size();
}

TEST_F(OatHostile, CountsThatArePromisedAreNotWalked) {
    // Counts of 2^60 for each kind of member, with nothing behind them, and a type without a bitmap.
    const OatAssembler oat = completeOat(28);
    ByteAssembler bytes = oat.assemble();
    const size_t dex = bytes.offsetOf("dex:0");
    size_t classDefs = 0;
    const Bytes whole = bytes.bytes();
    std::memcpy(&classDefs, &whole[dex + 100], 4);
    bytes.overwriteAt(dex + classDefs + 24, bytes.size() - dex, 4);
    for (int i = 0; i < 4; ++i)
        bytes.uleb(1ULL << 60);
    bytes.overwrite("class:0:0", 0, 2, 2);
    EXPECT_LT(secondsOf(bytes.bytes(), oat.executableOffset()), 1.0);
}

/// Methods whose mapping tables, or line programs, or names, are all the same long one.
TEST_F(OatHostile, MethodsThatShareOneLongTableDoNotMultiply) {
    constexpr size_t methodCount = 1000;
    constexpr size_t longSize = 60000;
    for (const std::string what : {"mapping", "lines", "name"}) {
        DexAssembler dex;
        dex.addClass("LC;", "A.java");
        DexLines lines(1);
        for (size_t i = 0; what == "lines" && i < longSize; ++i)
            lines.row(1, 1);
        dex.addMethod(0, "m", {.lines = lines.row(0, 0).end()});
        for (size_t i = 1; i < methodCount; ++i)
            dex.addMethod(0, "m" + std::to_string(i), {.lines = DexLines(1).end()});
        if (what == "name")
            dex.addClass("LZ" + std::string(longSize, 'z') + ";");
        OatAssembler oat(28);
        oat.addDex(dex);
        if (what == "mapping")
            for (size_t i = 0; i < longSize; ++i)
                oat.record(0, 0).code["m"].nativeToDex.push_back({2 * i, static_cast<int64_t>(i)});
        const ByteAssembler layout = oat.assemble();
        Bytes bytes = layout.bytes();
        const size_t dexAt = layout.offsetOf("dex:0");
        const ByteAssembler inDex = dex.assemble();
        const auto put = [&](size_t at, uint64_t value) {
            const auto word = static_cast<uint32_t>(value);
            std::memcpy(&bytes[at], &word, 4);
        };
        const std::string longName = "LZ" + std::string(longSize, 'z') + ";";
        const uint32_t longIndex = what == "name" ? dex.stringIndex(longName) : 0;
        for (const std::string& name : dex.methodNames(0)) {
            const size_t code = layout.offsetOf("code:0:0:" + name);
            put(code - 12, code - layout.offsetOf("mapping:0:0:m"));
            put(dexAt + inDex.offsetOf("code:LC;" + name) + 8, inDex.offsetOf("lines:LC;m"));
            if (what == "name")
                put(dexAt + inDex.offsetOf("method_id:LC;" + name) + 4, longIndex);
        }
        EXPECT_LT(secondsOf(bytes, layout.offsetOf("executable")), muchTooLong) << what;
    }
}

/// Sound files share as well: equal code is stored once, with its table, and so are line programs.
TEST_F(OatHostile, SharingAsWritersDoItIsAfforded) {
    constexpr size_t methodCount = 1000;
    DexAssembler dex;
    dex.addClass("Lcom/acme/a/rather/deep/place/for/AClassWithALongName;", "AClassWithALongName.java");
    for (size_t i = 0; i < methodCount; ++i)
        dex.addMethod(0, "getSomethingNumber" + std::to_string(i),
                      {.lines = DexLines(1).row(0, 0).row(1, 1).row(1, 2).end()});
    OatAssembler oat(28);
    oat.alignment(4).addDex(dex);
    auto& code = oat.record(0, 0).code;
    for (const std::string& name : dex.methodNames(0))
        code[name] = {.size = 4, .hasMapping = false};
    std::vector<orn_test::OatMapping> mapping;
    for (uint64_t i = 0; i < 20; ++i)
        mapping.push_back({i, static_cast<int64_t>(i)});
    const std::string first = dex.methodNames(0)[0];
    code[first] = {.size = 64, .nativeToDex = mapping};
    const ByteAssembler layout = oat.assemble();
    Bytes bytes = layout.bytes();
    const auto shared = static_cast<uint32_t>(layout.offsetOf("code:0:0:" + first));
    const size_t records = layout.offsetOf("methods:0:0");
    for (size_t i = 0; i < methodCount; ++i)
        std::memcpy(&bytes[records + 20 * i], &shared, 4);
    OatReading reading(bytes, layout.offsetOf("executable"));
    EXPECT_EQ(reading.load(), status_Ok);
    EXPECT_EQ(reading.sink.entries.size(), methodCount);
}

} // namespace
} // namespace ORN_3_30
