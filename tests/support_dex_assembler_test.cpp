// Facts about the assembler of dex files. That its files are valid and say what was asked is judged by
// dexdump, which shares no code with it and verifies every file before it prints it.

#include "support/command.h"
#include "support/dex_assembler.h"
#include "support/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace orn_test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

bool hasDexdump() {
    int status = 0;
    commandOutput("command -v dexdump", &status);
    return status == 0;
}

/// What dexdump prints of the file, with runs of blanks made one.
std::string dumpOf(const DexAssembler& dex, const std::string& options = "-f -d") {
    const TempDir directory;
    const std::vector<uint8_t> bytes = dex.build();
    const std::string file = directory.write("classes.dex", std::string(bytes.begin(), bytes.end()));
    int status = 0;
    const std::string printed = commandOutput("dexdump " + options + " " + file + " 2>&1", &status);
    EXPECT_EQ(status, 0) << printed;
    std::string text;
    for (const char c : printed)
        if (c != ' ' || text.empty() || text.back() != ' ')
            text += c;
    return text;
}

/// Something of everything that the assembler writes.
DexAssembler richDex() {
    DexAssembler dex;
    const size_t foo = dex.addClass("Lcom/acme/Foo;", "Foo.java");
    dex.addStaticField(foo, "count");
    dex.addInstanceField(foo, "left");
    dex.addInstanceField(foo, "right");
    dex.addMethod(foo, "<init>", {.lines = DexLines(10).prologueEnd().row(0, 0).row(1, 2).end()});
    dex.addMethod(foo, "bar",
                  {.instructionUnits = 40,
                   .lines = DexLines(20)
                                .prologueEnd()
                                .row(0, 0)
                                .advancePc(20)
                                .advanceLine(-5)
                                .row(2, 3)
                                .epilogueBegin()
                                .end()});
    dex.addMethod(foo, "walk",
                  {.isVirtual = true,
                   .lines = DexLines(40).row(0, 0).setFile("Part.java").row(-4, 1).row(10, 2).end()});
    dex.addMethod(foo, "peek", {.isVirtual = true, .hasCode = false});
    dex.addClass("Lcom/acme/Empty;");
    const size_t bare = dex.addClass("LBare;");
    dex.addMethod(bare, "main");
    return dex;
}

TEST(DexAssembler, FilesPassTheVerifier) {
    if (!hasDexdump())
        GTEST_SKIP() << "needs dexdump";
    const std::string text = dumpOf(richDex());
    EXPECT_THAT(text, HasSubstr("Opened '"));
    EXPECT_THAT(text, HasSubstr("DEX version '035'"));
    EXPECT_THAT(text, HasSubstr("class_defs_size : 3"));
    EXPECT_THAT(text, Not(HasSubstr("Failure")));
    EXPECT_THAT(DexAssembler().build(), testing::SizeIs(testing::Gt(112u)));
    EXPECT_THAT(dumpOf(DexAssembler()), HasSubstr("class_defs_size : 0"));
}

TEST(DexAssembler, ChecksumIsRight) {
    if (!hasDexdump())
        GTEST_SKIP() << "needs dexdump";
    EXPECT_THAT(dumpOf(richDex(), "-c"), HasSubstr("Checksum verified"));
}

TEST(DexAssembler, ClassesAndMembersAreAsAsked) {
    if (!hasDexdump())
        GTEST_SKIP() << "needs dexdump";
    const std::string text = dumpOf(richDex());
    EXPECT_THAT(text, HasSubstr("Class descriptor : 'Lcom/acme/Foo;'"));
    EXPECT_THAT(text, HasSubstr("(Foo.java)"));
    EXPECT_THAT(text, HasSubstr("Class descriptor : 'Lcom/acme/Empty;'"));
    EXPECT_THAT(text, HasSubstr("source_file_idx : -1 (unknown)"));
    EXPECT_THAT(text, HasSubstr("Static fields -\n #0 : (in Lcom/acme/Foo;)\n name : 'count'"));
    EXPECT_THAT(text, HasSubstr("#0 : (in Lcom/acme/Foo;)\n name : 'left'"));
    EXPECT_THAT(text, HasSubstr("#1 : (in Lcom/acme/Foo;)\n name : 'right'"));
    EXPECT_THAT(text, HasSubstr("com.acme.Foo.bar:()V"));
    EXPECT_THAT(text, HasSubstr("#0 : (in Lcom/acme/Foo;)\n name : 'peek'\n type : '()V'\n access : 0x0101 "
                                "(PUBLIC NATIVE)\n code : (none)"));
}

TEST(DexAssembler, RowsAreAsAsked) {
    if (!hasDexdump())
        GTEST_SKIP() << "needs dexdump";
    const std::string text = dumpOf(richDex());
    EXPECT_THAT(text, HasSubstr("positions : \n 0x0000 line=10\n 0x0002 line=11\n"));
    EXPECT_THAT(text, HasSubstr("positions : \n 0x0000 line=20\n 0x0017 line=17\n"));
    EXPECT_THAT(text, HasSubstr("positions : \n 0x0000 line=40\n 0x0001 line=36\n 0x0003 line=46\n"));
}

TEST(DexAssembler, MethodsAreToldInTheOrderOfTheClassData) {
    DexAssembler dex;
    const size_t foo = dex.addClass("LFoo;");
    dex.addMethod(foo, "virtualA", {.isVirtual = true});
    dex.addMethod(foo, "zebra");
    dex.addMethod(foo, "ape");
    EXPECT_THAT(dex.methodNames(foo), ElementsAre("ape", "zebra", "virtualA"));
}

TEST(DexAssembler, LabelsLeadToWhatTheyName) {
    const DexAssembler dex = richDex();
    const ByteAssembler file = dex.assemble();
    const std::vector<uint8_t> bytes = file.bytes();
    const size_t string = file.offsetOf("string:Foo.java");
    EXPECT_EQ(bytes[string], 8);
    EXPECT_EQ(std::string(bytes.begin() + static_cast<ptrdiff_t>(string) + 1,
                          bytes.begin() + static_cast<ptrdiff_t>(string) + 9),
              "Foo.java");
    EXPECT_EQ(bytes[file.offsetOf("string_id:Foo.java")], string & 0xFF);
    EXPECT_EQ(bytes[file.offsetOf("lines:Lcom/acme/Foo;bar")], 20);
    EXPECT_EQ(bytes[file.offsetOf("code:Lcom/acme/Foo;bar") + 12], 40);
}

TEST(DexAssembler, RowsBeyondASpecialOpcodeAreRefused) {
    EXPECT_THROW(DexLines(1).row(11, 0), std::logic_error);
    EXPECT_THROW(DexLines(1).row(-5, 0), std::logic_error);
    EXPECT_THROW(DexLines(1).row(0, 17), std::logic_error);
}

} // namespace
} // namespace orn_test
