// Facts about the classes and methods of a container of compiled managed code: which of them have code, where
// it lies, and what their symbols are called.

#include "orn_oat_class.h"

#include "orn_oat_walk.h"
#include "orn_scope.h"
#include "support/oat_reading.h"
#include "support/orn_fixture.h"

#include <set>

namespace ORN_3_30 {
namespace {

using orn_test::ByteAssembler;
using orn_test::DexAssembler;
using orn_test::DexLines;
using orn_test::OatAssembler;
using orn_test::oatDataAddress;
using orn_test::OatReading;
using orn_test::RecordingSink;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using OatClasses = test::OrnTest;
using OatMethods = test::OrnTest;
using OatNames = test::OrnTest;

const std::string foo = "Lcom/acme/Foo;";

/// One class "com.acme.Foo" whose methods are named so; the ones that begin with 'v' are virtual.
DexAssembler dexOf(const std::vector<std::string>& methods) {
    DexAssembler dex;
    dex.addClass(foo);
    for (const std::string& name : methods)
        dex.addMethod(0, name, {.isVirtual = name[0] == 'v'});
    return dex;
}

OatAssembler oatOf(const std::vector<std::string>& methods, int version = 28) {
    OatAssembler oat(version);
    oat.addDex(dexOf(methods));
    return oat;
}

std::vector<std::string> namesIn(OatReading& reading) {
    EXPECT_EQ(reading.load(), status_Ok);
    return reading.sink.names();
}

std::vector<std::string> namesIn(const ByteAssembler& bytes, const OatAssembler& oat) {
    OatReading reading(bytes.bytes(), oat.executableOffset());
    return namesIn(reading);
}

// --- Classes

TEST_F(OatClasses, AllMethodsOfAClassOfType0HaveCode) {
    OatReading reading(oatOf({"a", "b", "v"}));
    EXPECT_THAT(namesIn(reading), ElementsAre("com.acme.Foo.a", "com.acme.Foo.b", "com.acme.Foo.v"));
}

TEST_F(OatClasses, BitmapSaysWhichMethodsOfAClassOfType1HaveCode) {
    for (const int version : {7, 28}) {
        OatAssembler oat = oatOf({"a", "b", "c", "v1", "v2"}, version);
        oat.record(0, 0) = {1, {{"b", {.size = 0x20}}, {"v2", {.size = 0x30}}}};
        OatReading reading(oat);
        EXPECT_THAT(namesIn(reading), ElementsAre("com.acme.Foo.b", "com.acme.Foo.v2"));
        EXPECT_EQ(reading.sink.entries[0].low, oatDataAddress + oat.codeOffset(0, 0, "b"));
        EXPECT_EQ(reading.sink.entries[1].low, oatDataAddress + oat.codeOffset(0, 0, "v2"));
        EXPECT_EQ(reading.sink.entries[1].high - reading.sink.entries[1].low, 0x30u);
    }
}

TEST_F(OatClasses, BitsOfABitmapOfSeveralBytesAreCounted) {
    std::vector<std::string> methods;
    for (char c = 'a'; c <= 't'; ++c)
        methods.emplace_back(1, c);
    OatAssembler oat = oatOf(methods);
    oat.record(0, 0) = {1, {{"b", {}}, {"h", {}}, {"i", {}}, {"q", {}}, {"t", {}}}};
    OatReading reading(oat);
    EXPECT_THAT(namesIn(reading), ElementsAre("com.acme.Foo.b", "com.acme.Foo.h", "com.acme.Foo.i",
                                              "com.acme.Foo.q", "com.acme.Foo.t"));
    EXPECT_EQ(reading.sink.entries[4].low, oatDataAddress + oat.codeOffset(0, 0, "t"));
}

TEST_F(OatClasses, MethodsPastTheBitmapHaveNoCode) {
    const OatAssembler oat = oatOf({"a", "b", "c", "d", "e", "f", "g", "h", "i", "j"});
    ByteAssembler bytes = oat.assemble();
    // A record at the end with a bitmap of eight bits and records for all ten methods.
    bytes.overwrite("class_offsets:0", bytes.size(), 4);
    bytes.u16(0).u16(1).u32(1).u8(0xFF);
    for (int i = 0; i < 10; ++i)
        bytes.u32(oat.codeOffset(0, 0, "a")).fill(16);
    const auto names = namesIn(bytes, oat);
    EXPECT_EQ(names.size(), 8u);
    EXPECT_THAT(names, Not(Contains("com.acme.Foo.i")));
}

TEST_F(OatClasses, ClassOfType2HasNoSymbols) {
    OatAssembler oat = oatOf({"a", "v"});
    oat.record(0, 0).type = 2;
    OatReading reading(oat);
    EXPECT_THAT(namesIn(reading), IsEmpty());
}

TEST_F(OatClasses, ClassesOfAllTypesStandSideBySide) {
    DexAssembler dex;
    for (const char* name : {"LAll;", "LSome;", "LNone;", "LEmpty;", "LLast;"})
        dex.addClass(name);
    for (const size_t i : {0u, 1u, 2u, 4u}) {
        dex.addMethod(i, "run");
        dex.addMethod(i, "stop");
    }
    OatAssembler oat(24);
    oat.addDex(dex);
    oat.record(0, 1) = {1, {{"stop", {}}}};
    oat.record(0, 2).type = 2;
    OatReading reading(oat);
    EXPECT_THAT(namesIn(reading), ElementsAre("All.run", "All.stop", "Some.stop", "Last.run", "Last.stop"));
}

TEST_F(OatClasses, ClassWithoutDataIsPassedOver) {
    DexAssembler dex;
    dex.addClass("LEmpty;");
    dex.addMethod(dex.addClass("LNext;"), "run");
    OatAssembler oat(28);
    oat.addDex(dex);
    OatReading reading(oat);
    EXPECT_THAT(namesIn(reading), ElementsAre("Next.run"));
}

TEST_F(OatClasses, FieldsAreSteppedOver) {
    DexAssembler dex = dexOf({"a"});
    for (const char* name : {"s1", "s2", "s3"})
        dex.addStaticField(0, name);
    dex.addInstanceField(0, "i1");
    OatAssembler oat(28);
    oat.addDex(dex);
    OatReading reading(oat);
    EXPECT_THAT(namesIn(reading), ElementsAre("com.acme.Foo.a"));
}

TEST_F(OatClasses, RecordPastTheEndGivesNoSymbols) {
    const OatAssembler oat = oatOf({"a"});
    const auto size = static_cast<uint32_t>(oat.build().size());
    for (const uint32_t offset : {size - 3, size, size + 1, 0xFFFFFFFFu}) {
        ByteAssembler bytes = oat.assemble();
        bytes.overwrite("class_offsets:0", offset, 4);
        EXPECT_THAT(namesIn(bytes, oat), IsEmpty()) << offset;
    }
}

TEST_F(OatClasses, RecordThatEndsBeforeItsMethodsIsLogged) {
    const OatAssembler oat = oatOf({"a"});
    const auto size = static_cast<uint32_t>(oat.build().size());
    expectLog("cl != NULL", 4);
    ByteAssembler atEnd = oat.assemble();
    atEnd.overwrite("class_offsets:0", size - 4, 4);
    EXPECT_THAT(namesIn(atEnd, oat), IsEmpty()) << "nothing is left behind the type";
    for (const uint32_t room : {0u, 3u}) {
        ByteAssembler withoutSize = oat.assemble();
        withoutSize.overwrite("class_offsets:0", size, 4);
        withoutSize.u16(0).u16(1).fill(room);
        EXPECT_THAT(namesIn(withoutSize, oat), IsEmpty()) << "the size of the bitmap is cut off";
    }
    ByteAssembler longBitmap = oat.assemble();
    longBitmap.overwrite("class:0:0", 1, 2, 2).overwrite("class:0:0", 0xFFFFFFFF, 4, 4);
    EXPECT_THAT(namesIn(longBitmap, oat), IsEmpty()) << "the bitmap leads past the end";
}

TEST_F(OatClasses, ClassDefinitionPastTheEndIsPassedOver) {
    OatAssembler oat(28);
    const DexAssembler dex = dexOf({"a"});
    std::vector<uint8_t> bytes = dex.build();
    const uint32_t far = 0x7FFFFFFF;
    std::memcpy(&bytes[100], &far, 4);
    oat.addDex(dex, bytes);
    OatReading reading(oat);
    EXPECT_THAT(namesIn(reading), IsEmpty());
}

TEST_F(OatClasses, MissingDexFileIsLogged) {
    OatReading reading(oatOf({"a"}));
    OATSymbolCallBack callBack(*reading.format, reading.sink, nullptr);
    OATSymbolWalk walk({reading.buffer, 28, 0, 0}, callBack, nullptr, nullptr);
    expectLog("dexFile != NULL");
    EXPECT_EQ(walk.loadDexFile(nullptr), status_Ok);
}

// --- Methods

TEST_F(OatMethods, SymbolCoversTheCode) {
    for (const int version : {7, 14, 15, 22, 28}) {
        OatAssembler oat = oatOf({"bar"}, version);
        oat.record(0, 0).code["bar"].size = 0x1234;
        OatReading reading(oat);
        ASSERT_THAT(namesIn(reading), ElementsAre("com.acme.Foo.bar"));
        const RecordingSink::Entry& entry = reading.sink.entries[0];
        EXPECT_EQ(entry.low, oatDataAddress + oat.codeOffset(0, 0, "bar"));
        EXPECT_EQ(entry.high, entry.low + 0x1234);
        EXPECT_EQ(entry.kind, symbol_kind_function);
        EXPECT_EQ(entry.visibility, symbol_visibility_local);
        EXPECT_THAT(messages(test::informationLevel), Contains("Creating new dex method with index: 0"));
        std::ostringstream told;
        told << "Dex method: com.acme.Foo.bar offset: 0x" << std::hex << oat.codeOffset(0, 0, "bar")
             << std::dec << " size: " << 0x1234;
        EXPECT_THAT(messages(test::informationLevel), Contains(told.str()));
        takeLogs();
    }
}

TEST_F(OatMethods, ThumbBitStaysInTheAddressAndIsClearedForTheSize) {
    for (const int version : {15, 28}) {
        OatAssembler oat = oatOf({"bar"}, version);
        oat.record(0, 0).code["bar"] = {.size = 0x40, .isThumb = true};
        OatReading reading(oat);
        ASSERT_THAT(namesIn(reading), ElementsAre("com.acme.Foo.bar"));
        EXPECT_EQ(reading.sink.entries[0].low, oatDataAddress + oat.codeOffset(0, 0, "bar") + 1);
        EXPECT_EQ(reading.sink.entries[0].high, reading.sink.entries[0].low + 0x40);
    }
}

TEST_F(OatMethods, MethodWithoutDexCodeCountsAmongTheMethods) {
    DexAssembler dex;
    dex.addClass(foo);
    dex.addMethod(0, "a");
    dex.addMethod(0, "b", {.hasCode = false});
    dex.addMethod(0, "c");
    OatAssembler oat(28);
    oat.addDex(dex);
    oat.record(0, 0) = {1, {{"a", {}}, {"c", {}}}};
    OatReading reading(oat);
    EXPECT_THAT(namesIn(reading), ElementsAre("com.acme.Foo.a", "com.acme.Foo.c"));
}

TEST_F(OatMethods, CompiledMethodWithoutDexCodeHasASymbolAndNoLines) {
    DexAssembler dex;
    dex.addClass(foo, "Foo.java");
    dex.addMethod(0, "peek", {.hasCode = false});
    OatAssembler oat(28);
    oat.addDex(dex);
    OatReading reading(oat);
    EXPECT_THAT(namesIn(reading), ElementsAre("com.acme.Foo.peek"));
    EXPECT_THAT(reading.rows(), IsEmpty());
}

TEST_F(OatMethods, CodeOffsetThatIsNotAboveTheExecutableOffsetIsNoCode) {
    const OatAssembler oat = oatOf({"a", "b"});
    for (const uint32_t offset : {0u, oat.executableOffset(), oat.executableOffset() + 1}) {
        ByteAssembler bytes = oat.assemble();
        bytes.overwrite("methods:0:0", offset, 4);
        if (offset > oat.executableOffset()) // the words in front of it lie in the tables
            allowLog("m_codeOffset > *uintCodePtr");
        const auto names = namesIn(bytes, oat);
        EXPECT_EQ(names.size(), offset > oat.executableOffset() ? 2u : 1u) << offset;
        EXPECT_THAT(names, Contains("com.acme.Foo.b"));
    }
}

TEST_F(OatMethods, CodeAtOrPastTheEndIsNone) {
    const OatAssembler oat = oatOf({"a", "b"});
    const auto size = static_cast<uint32_t>(oat.build().size());
    for (const uint32_t offset : {size, 0xFFFFFFFFu}) {
        ByteAssembler bytes = oat.assemble();
        bytes.overwrite("methods:0:0", offset, 4);
        EXPECT_THAT(namesIn(bytes, oat), ElementsAre("com.acme.Foo.b"));
    }
    ByteAssembler bytes = oat.assemble();
    bytes.overwrite("methods:0:0", size - 1, 4);
    allowLog("m_codeOffset > *uintCodePtr");
    EXPECT_THAT(namesIn(bytes, oat), ElementsAre("com.acme.Foo.a", "com.acme.Foo.b"));
}

SymMgrObjectPtr<OatMethod> methodAt(const std::vector<uint8_t>& bytes, uint32_t codeOffset,
                                    long long version = 28, uint32_t mappingOffset = 0) {
    SymMgrObjectPtr<IBuffer> buffer = new ByteBuffer(bytes.size());
    std::memcpy(buffer->data(), bytes.data(), bytes.size());
    return new OatMethod(buffer, 7, version, codeOffset, mappingOffset);
}

TEST_F(OatMethods, CodeThatHasNoRoomForItsSizeIsNone) {
    const std::vector<uint8_t> bytes(32, 3);
    for (const uint32_t offset : {0u, 1u, 2u, 3u})
        EXPECT_FALSE(methodAt(bytes, offset, 15)->hasCode()) << offset;
    EXPECT_TRUE(methodAt(bytes, 4, 15)->hasCode());
    EXPECT_TRUE(methodAt(bytes, 5, 15)->hasCode());
    EXPECT_EQ(methodAt(bytes, 5, 15)->codeSize(), 0x03030303u);
    EXPECT_EQ(methodAt(bytes, 3, 15)->codeSize(), OatMethod::unknownSize);
    EXPECT_EQ(methodAt(bytes, 5, 15)->methodIndex(), 7u);
}

TEST_F(OatMethods, RecordTellsTheMappingTableBeforeVersion22) {
    const std::vector<uint8_t> bytes(64, 0);
    EXPECT_EQ(methodAt(bytes, 32, 15, 9)->mappingTable().offset(), 9u);
    EXPECT_EQ(methodAt(bytes, 32, 22, 9)->mappingTable().offset(), 32u) << "distance 0 leads to the code";
}

TEST_F(OatMethods, CodeTellsTheMappingTableFromVersion22On) {
    std::vector<uint8_t> bytes(64, 0);
    bytes[32 - 12] = 20;
    EXPECT_EQ(methodAt(bytes, 32)->mappingTable().offset(), 12u);
    EXPECT_EQ(methodAt(bytes, 33)->mappingTable().offset(), 12u) << "the Thumb bit is taken off";
    bytes[32 - 12] = 31;
    EXPECT_EQ(methodAt(bytes, 32)->mappingTable().offset(), 1u);
    bytes[32 - 12] = 32;
    EXPECT_EQ(methodAt(bytes, 33)->mappingTable().offset(), 0u) << "compared with the offset as stored";
}

TEST_F(OatMethods, DistanceThatIsNotSmallerThanTheCodeOffsetIsLogged) {
    std::vector<uint8_t> bytes(64, 0);
    expectLog("m_codeOffset > *uintCodePtr", 3);
    bytes[32 - 12] = 32;
    EXPECT_EQ(methodAt(bytes, 32)->mappingTable().offset(), 0u);
    bytes[32 - 9] = 0x80;
    EXPECT_EQ(methodAt(bytes, 32)->mappingTable().offset(), 0u);
    EXPECT_EQ(methodAt(bytes, 11)->mappingTable().offset(), 0u) << "no room for the distance";
    EXPECT_EQ(methodAt(bytes, 12)->mappingTable().offset(), 12u);
}

TEST_F(OatMethods, RecordPastTheEndIsLoggedOnceAndEndsTheClass) {
    const OatAssembler oat = oatOf({"a", "b", "c", "d"});
    ByteAssembler bytes = oat.assemble();
    // A copy of the class at the end, with room for two records and a half.
    bytes.overwrite("class_offsets:0", static_cast<uint32_t>(bytes.size()), 4);
    bytes.u32(0);
    for (int i = 0; i < 2; ++i)
        bytes.u32(oat.codeOffset(0, 0, "a")).fill(16);
    bytes.fill(19);
    expectLog("Wrong index");
    EXPECT_THAT(namesIn(bytes, oat), ElementsAre("com.acme.Foo.a", "com.acme.Foo.b"));
}

TEST_F(OatMethods, RecordsAreAsLongAsTheVersionSays) {
    for (const auto& [version, stride] : {std::pair(15, 28), std::pair(22, 20)}) {
        OatAssembler oat = oatOf({"a", "b"}, version);
        const ByteAssembler bytes = oat.assemble();
        EXPECT_EQ(bytes.offsetOf("executable") > bytes.offsetOf("methods:0:0") + 2 * stride, true);
        OatReading reading(oat);
        namesIn(reading);
        ASSERT_EQ(reading.sink.entries.size(), 2u);
        EXPECT_EQ(reading.sink.entries[1].low, oatDataAddress + oat.codeOffset(0, 0, "b"));
    }
}

TEST_F(OatMethods, FilterKeepsMethodsOutWithTheirLines) {
    DexAssembler dex;
    dex.addClass(foo, "Foo.java");
    dex.addMethod(0, "a", {.lines = DexLines(10).row(0, 0).end()});
    dex.addMethod(0, "b", {.lines = DexLines(20).row(0, 0).end()});
    OatAssembler oat(28);
    oat.addDex(dex);
    OatReading reading(oat);
    const std::set<unsigned long long> interesting{oatDataAddress + oat.codeOffset(0, 0, "b") + 3};
    LoadFilter filter(&interesting);
    EXPECT_EQ(reading.load(&filter), status_Ok);
    EXPECT_THAT(reading.sink.names(), ElementsAre("com.acme.Foo.b"));
    for (const orn_test::OatRow& row : reading.rows())
        EXPECT_EQ(row.line, 20u);
    EXPECT_THAT(reading.rows(), Not(IsEmpty()));
}

TEST_F(OatMethods, MethodsThatShareTheirCodeEachHaveASymbol) {
    const OatAssembler oat = oatOf({"a", "b"});
    ByteAssembler bytes = oat.assemble();
    bytes.overwrite("methods:0:0", oat.codeOffset(0, 0, "a"), 4, 20);
    OatReading reading(bytes.bytes(), oat.executableOffset());
    EXPECT_THAT(namesIn(reading), ElementsAre("com.acme.Foo.a", "com.acme.Foo.b"));
    EXPECT_EQ(reading.sink.entries[0].low, reading.sink.entries[1].low);
}

// --- Class data

/// Walks over class data given byte by byte; the indices of the methods.
std::vector<uint32_t> methodsOf(const std::vector<uint8_t>& data, size_t atMost = 8) {
    OatBudget budget(data.size());
    DexClassData walk(SectionWalker(data.data(), data.size()), budget);
    EXPECT_EQ(walk.skipFields(), status_Ok);
    std::vector<uint32_t> indices;
    while (indices.size() < atMost && walk.nextMethod() == status_Ok)
        indices.push_back(walk.methodIdx());
    return indices;
}

TEST_F(OatMethods, IndicesBeginAnewWithTheVirtualMethods) {
    EXPECT_THAT(methodsOf({0, 0, 2, 2, 5, 1, 0, 3, 1, 0, 2, 1, 0, 1, 1, 0}), ElementsAre(5, 8, 2, 3));
    EXPECT_THAT(methodsOf({0, 0, 0, 1, 4, 1, 0}), ElementsAre(4));
    EXPECT_THAT(methodsOf({1, 2, 1, 0, 9, 1, 9, 1, 9, 1, 4, 1, 0}), ElementsAre(4)) << "behind three fields";
}

TEST_F(OatMethods, ExhaustedClassDataKeepsThePreviousItem) {
    EXPECT_THAT(methodsOf({0, 0, 4, 0, 5, 1, 0, 1, 2}), ElementsAre(5, 10, 15, 20));
    EXPECT_THAT(methodsOf({0, 0, 2, 1}), ElementsAre(0, 0, 0)) << "there is no previous one";
    EXPECT_THAT(methodsOf({9, 9, 1, 0, 1}), ElementsAre(0)) << "one byte is no field";
    EXPECT_THAT(methodsOf({}), IsEmpty());
    EXPECT_EQ(methodsOf({0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 1, 1, 1, 1, 1}).size(),
              8u)
        << "as often as the counts say";
}

TEST_F(OatMethods, ExhaustedClassDataEndsWithTheRecords) {
    const OatAssembler oat = oatOf({"a"});
    ByteAssembler bytes = oat.assemble();
    // Counts of 2^28 direct methods, and nothing behind the counts.
    const size_t dex = bytes.offsetOf("dex:0");
    const size_t classDef = dex + dexOf({"a"}).assemble().offsetOf("class_def:" + foo);
    bytes.overwriteAt(classDef + 24, bytes.size() - dex, 4);
    bytes.u8(0).u8(0).uleb(1u << 28).u8(0);
    expectLog("Wrong index");
    const auto names = namesIn(bytes, oat);
    EXPECT_THAT(names, Contains("com.acme.Foo.a"));
    EXPECT_LT(names.size(), bytes.size() / 20);
}

// --- Names

TEST_F(OatNames, DescriptorBecomesAName) {
    const auto nameOf = [](const char* descr, const char* method) {
        std::string name;
        EXPECT_EQ(qualifiedMethodName(descr, std::strlen(descr), method, name), status_Ok);
        return name;
    };
    EXPECT_EQ(nameOf("Lcom/acme/Foo;", "bar"), "com.acme.Foo.bar");
    EXPECT_EQ(nameOf("LFoo;", "<init>"), "Foo.<init>");
    EXPECT_EQ(nameOf("LLama;", "L/;"), "Lama.L/;") << "the method's name stays as it is";
    EXPECT_EQ(nameOf("[Lcom/acme/Foo;", "clone"), "[Lcom.acme.Foo.clone");
    EXPECT_EQ(nameOf("I", "x"), "I.x");
    EXPECT_EQ(nameOf("", ""), ".");
    EXPECT_EQ(nameOf("L", "a"), ".a");
}

TEST_F(OatNames, MissingDescriptorIsLogged) {
    std::string name;
    expectLog("descr != NULL");
    EXPECT_EQ(qualifiedMethodName(nullptr, 0, "bar", name), status_InvalidPointer);
}

/// Damages the dex file, and gives the status of the load.
struct DamagedName {
    OatAssembler oat = oatOf({"bar"});
    ByteAssembler bytes = oat.assemble();
    ByteAssembler dex = dexOf({"bar"}).assemble();

    size_t at(const std::string& label) const { return bytes.offsetOf("dex:0") + dex.offsetOf(label); }
    status_t load(std::vector<std::string>* names = nullptr) const {
        OatReading reading(bytes.bytes(), oat.executableOffset());
        const status_t status = reading.load();
        if (names)
            *names = reading.sink.names();
        else
            EXPECT_THAT(reading.sink.names(), IsEmpty());
        return status;
    }
};

TEST_F(OatNames, EmptyNameIsAName) {
    DamagedName damaged;
    damaged.bytes.overwriteAt(damaged.at("string:bar"), 0, 1);
    std::vector<std::string> names;
    EXPECT_EQ(damaged.load(&names), status_Ok);
    EXPECT_THAT(names, ElementsAre("com.acme.Foo."));
}

TEST_F(OatNames, NameIsAsLongAsItSays) {
    DamagedName damaged;
    damaged.bytes.overwriteAt(damaged.at("string:bar"), 2, 1);
    std::vector<std::string> names;
    EXPECT_EQ(damaged.load(&names), status_Ok);
    EXPECT_THAT(names, ElementsAre("com.acme.Foo.ba"));
}

TEST_F(OatNames, NameThatLeadsPastTheEndIsRefused) {
    DamagedName damaged;
    const std::vector<uint8_t> longLength{0xFF, 0xFF, 0x7F};
    damaged.bytes.overwriteAt(damaged.at("string:bar"), longLength);
    EXPECT_EQ(damaged.load(), status_BadFileFormat);
    DamagedName far;
    far.bytes.overwriteAt(far.at("string_id:bar"), far.bytes.size() - far.bytes.offsetOf("dex:0"), 4);
    EXPECT_EQ(far.load(), status_BadFileFormat);
}

TEST_F(OatNames, IndicesOutOfRangeAreRefused) {
    const auto statusWith = [](const std::string& label, unsigned delta, uint64_t value, unsigned width) {
        DamagedName damaged;
        damaged.bytes.overwriteAt(damaged.at(label) + delta, value, width);
        return damaged.load();
    };
    const std::string method = "method_id:" + foo + "bar";
    EXPECT_EQ(statusWith(method, 4, 6, 4), status_BadFileFormat) << "name_idx";
    EXPECT_EQ(statusWith(method, 4, 0xFFFFFFFF, 4), status_BadFileFormat) << "name_idx";
    EXPECT_EQ(statusWith(method, 0, 4, 2), status_BadFileFormat) << "class_idx";
    EXPECT_EQ(statusWith("type_id:" + foo, 0, 6, 4), status_BadFileFormat) << "the class's string";
    EXPECT_EQ(statusWith("member:" + foo + "bar", 0, 1, 1), status_BadFileFormat) << "method_idx";
}

TEST_F(OatNames, TablesOfIdentifiersPastTheEndAreRefused) {
    for (const unsigned field : {60u, 68u, 92u}) { // string_ids_off, type_ids_off, method_ids_off
        DamagedName damaged;
        damaged.bytes.overwriteAt(damaged.bytes.offsetOf("dex:0") + field, 0xFFFFFFF0, 4);
        EXPECT_EQ(damaged.load(), status_BadFileFormat) << field;
    }
}

TEST_F(OatNames, MethodWithoutCodeIsNotNamed) {
    DamagedName damaged;
    damaged.bytes.overwriteAt(damaged.at("member:" + foo + "bar"), 1, 1);
    damaged.bytes.overwrite("methods:0:0", 0, 4);
    EXPECT_EQ(damaged.load(), status_Ok);
}

TEST_F(OatNames, BrokenNameEndsTheLoadAndKeepsWhatWasEntered) {
    OatAssembler oat = oatOf({"a", "b", "c"});
    ByteAssembler bytes = oat.assemble();
    bytes.overwriteAt(bytes.offsetOf("dex:0") +
                          dexOf({"a", "b", "c"}).assemble().offsetOf("method_id:" + foo + "b") + 4,
                      0xFFFF, 4);
    OatReading reading(bytes.bytes(), oat.executableOffset());
    EXPECT_EQ(reading.load(), status_BadFileFormat);
    EXPECT_THAT(reading.sink.names(), ElementsAre("com.acme.Foo.a"));
}

} // namespace
} // namespace ORN_3_30
