#include "orn_dilkor_symbolfile.h"

#include "support/kor_assembler.h"
#include "support/kor_buffers.h"
#include "support/orn_fixture.h"
#include "support/temp_dir.h"

#include <sys/stat.h>

namespace ORN_3_30::test {
namespace {

using orn_test::LunAssembler;
using orn_test::TavAssembler;

class KorSymbolFileTest : public OrnTest {
protected:
    static std::string tavFile() { return asText(TavAssembler().build()); }
    static std::string lunFile() { return asText(LunAssembler().build()); }

    void open(unsigned arch, const char* module = "k.clbin", long long index = 0) {
        candidate = KorSymbolFileToResolve::create(index, directory.path(module).c_str(),
                                                   static_cast<arch_t>(arch), &lock);
    }
    void expectUsable(unsigned kind) {
        EXPECT_EQ(candidate->state(), static_cast<unsigned>(symbol_file_usable));
        EXPECT_EQ(candidate->wantedName(), directory.path("k.clpdb"));
        EXPECT_EQ(candidate->kind(), kind);
    }
    void expectSearchedFor(unsigned kind, const char* name = "k.clpdb") {
        EXPECT_EQ(candidate->state(), static_cast<unsigned>(symbol_file_to_search_for));
        EXPECT_STREQ(candidate->wantedName(), name);
        EXPECT_EQ(candidate->kind(), kind);
    }

    orn_test::TempDir directory;
    OrnLock lock;
    SymMgrObjectPtr<KorSymbolFileToResolve> candidate;
};

} // namespace

TEST_F(KorSymbolFileTest, TheNameIsThatOfTheBinary) {
    const auto nameOf = [](const char* path) { return internal::korSymbolFileName(path); };
    EXPECT_EQ(nameOf("/dir/k.clbin"), "k.clpdb");
    EXPECT_EQ(nameOf("/dir/k.metalbin"), "k.clpdb");
    EXPECT_EQ(nameOf("k.clbin.bak"), "k.clpdb");
    EXPECT_EQ(nameOf("a.clbin.b.clbin"), "a.clbin.b.clpdb") << "the last one";
    EXPECT_EQ(nameOf("a.clbin.b.metalbin"), "a.clpdb") << "the first of the two extensions counts first";
    EXPECT_EQ(nameOf("/x.clbin/k.v1.bin"), "k.v1.clpdb") << "else what is behind the last dot";
    EXPECT_EQ(nameOf("/x.clbin/kernel"), "kernel.clpdb");
}

TEST_F(KorSymbolFileTest, AFileBesideTheBinaryIsUsableAtOnce) {
    directory.write("k.clpdb", tavFile());
    open(8);
    expectUsable(symbol_file_gpu_tav);
    EXPECT_NE(dynamic_cast<KorTavSymbolFileToResolve*>(candidate.get()), nullptr);
    EXPECT_EQ(candidate->modulePath(), directory.path("k.clbin"));
    EXPECT_EQ(candidate->isRequired(), 1);

    directory.write("k.clpdb", lunFile());
    open(10);
    expectUsable(symbol_file_gpu_lun);
    EXPECT_NE(dynamic_cast<KorLunSymbolFileToResolve*>(candidate.get()), nullptr);
}

TEST_F(KorSymbolFileTest, WithoutAFileTheBareNameIsWanted) {
    for (unsigned arch = 0; arch < 20; ++arch) {
        open(arch);
        expectSearchedFor(arch == 8 || arch == 9 ? symbol_file_gpu_tav : symbol_file_gpu_lun);
    }
}

TEST_F(KorSymbolFileTest, AFileOfTheOtherFormatIsNotUsable) {
    directory.write("k.clpdb", lunFile());
    open(8);
    expectSearchedFor(symbol_file_gpu_tav);
    open(0);
    expectSearchedFor(symbol_file_gpu_lun);
    directory.write("k.clpdb", std::string(27, '\0'));
    open(10);
    expectSearchedFor(symbol_file_gpu_lun);
}

TEST_F(KorSymbolFileTest, OfBothCompilersTheFormatThatFitsIsTaken) {
    directory.write("k.clpdb", tavFile());
    open(9);
    expectUsable(symbol_file_gpu_tav);
    directory.write("k.clpdb", lunFile());
    open(9);
    expectUsable(symbol_file_gpu_lun);
    directory.write("k.clpdb", "neither");
    open(9);
    expectSearchedFor(symbol_file_gpu_tav);
    const std::string other = directory.write("other", lunFile());
    EXPECT_EQ(candidate->resolve(other.c_str()), 0);
    EXPECT_EQ(candidate->kind(), static_cast<unsigned>(symbol_file_gpu_lun));
}

TEST_F(KorSymbolFileTest, AResolverMayOfferAnyPlace) {
    open(8, "k.clbin", 7);
    expectSearchedFor(symbol_file_gpu_tav);
    const std::string elsewhere = directory.write("elsewhere", tavFile());
    EXPECT_EQ(candidate->resolve(directory.path("missing").c_str()), -1);
    EXPECT_EQ(candidate->resolve(directory.write("wrong", lunFile()).c_str()), -1);
    EXPECT_EQ(candidate->state(), static_cast<unsigned>(symbol_file_to_search_for));
    EXPECT_EQ(candidate->resolve(nullptr), -1);
    EXPECT_EQ(candidate->resolve(elsewhere.c_str()), 7);
    EXPECT_EQ(candidate->state(), static_cast<unsigned>(symbol_file_usable));
    EXPECT_EQ(candidate->wantedName(), elsewhere);
    // The accepted path passes in every form, whatever became of the file.
    directory.write("elsewhere", "");
    EXPECT_EQ(candidate->resolve((directory.path() + "/./elsewhere").c_str()), 7);
    EXPECT_EQ(candidate->wantedName(), elsewhere);
    EXPECT_EQ(candidate->resolve(directory.write("wrong", "").c_str()), -1);
    EXPECT_EQ(candidate->wantedName(), elsewhere);
}

TEST_F(KorSymbolFileTest, WhatIsNoRegularFileIsNotOpened) {
    const std::string pipe = directory.path("k.clpdb");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    open(8);
    expectSearchedFor(symbol_file_gpu_tav);
    EXPECT_EQ(candidate->resolve(pipe.c_str()), -1);
    EXPECT_EQ(candidate->resolve(directory.path().c_str()), -1);
    EXPECT_EQ(candidate->resolve("/dev/zero"), -1);
    SymMgrObjectPtr<IBuffer> buffer;
    EXPECT_EQ(internal::readDebugInfoFile(buffer, pipe.c_str()), status_CantOpenFile);
    EXPECT_EQ(internal::readDebugInfoFile(buffer, nullptr), status_CantOpenFile);
}

TEST_F(KorSymbolFileTest, TheHeadOfAFileHasExactlyTheSizeThatIsAskedFor) {
    const std::string path = directory.write("file", "0123456789");
    SymMgrObjectPtr<IBuffer> head;
    internal::readDebugInfoHeader(head, path.c_str(), 4);
    ASSERT_TRUE(head);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(head->data()), head->size()), "0123");
    internal::readDebugInfoHeader(head, path.c_str(), 10);
    EXPECT_TRUE(head);
    internal::readDebugInfoHeader(head, path.c_str(), 11);
    EXPECT_FALSE(head);
    internal::readDebugInfoHeader(head, directory.path("missing").c_str(), 1);
    EXPECT_FALSE(head);
}

} // namespace ORN_3_30::test
