// The holder of names: all forms of C++ and Rust names, names that are not mangled, and names made to hurt.

#include "orn/demangler.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace ORN_3_30;
using NamePtr = SymMgrObjectPtr<ISymbolNameDemangler>;

NamePtr makeName(const std::string& name) {
    return ISymbolNameDemangler::create(name.c_str(), exec_format_elf);
}

std::string shortOf(const std::string& name) {
    return makeName(name)->shortForm();
}

std::string fullOf(const std::string& name) {
    return makeName(name)->fullForm();
}

std::string repeated(std::size_t count, const std::string& text) {
    std::string all;
    all.reserve(count * text.size());
    for (std::size_t i = 0; i < count; ++i)
        all += text;
    return all;
}

/// Every form is the name itself, and in the same memory.
void expectGivesItself(const std::string& name) {
    NamePtr holder = makeName(name);
    EXPECT_EQ(holder->rawForm(), name);
    EXPECT_EQ(holder->shortForm(), holder->rawForm());
    EXPECT_EQ(holder->fullForm(), holder->rawForm());
    EXPECT_EQ(holder->demangledForm(0), holder->rawForm());
}

TEST(SymbolName, RawFormIsTheNameAsGiven) {
    std::string name = "_ZN3foo3barEi";
    NamePtr holder = makeName(name);
    name.assign(name.size(), '*');
    EXPECT_STREQ(holder->rawForm(), "_ZN3foo3barEi");
}

TEST(SymbolName, FullAndDemangledFormsAreTheWholeText) {
    NamePtr holder = makeName("_ZN3foo3barEi");
    EXPECT_STREQ(holder->fullForm(), "foo::bar(int)");
    EXPECT_STREQ(holder->demangledForm(0), "foo::bar(int)");
    EXPECT_STREQ(holder->demangledForm(~0U), "foo::bar(int)");
}

TEST(SymbolName, FormsStayWhereTheyAre) {
    NamePtr holder = makeName("_ZN3foo3barEi");
    const char* full = holder->fullForm();
    const char* bare = holder->shortForm();
    EXPECT_EQ(holder->fullForm(), full);
    EXPECT_EQ(holder->demangledForm(0), full);
    EXPECT_EQ(holder->shortForm(), bare);
}

TEST(SymbolName, StartsUncountedAndCounts) {
    NamePtr holder = makeName("main");
    EXPECT_EQ(holder->addRef(), 2U);
    EXPECT_EQ(holder->release(), 1U);
}

TEST(SymbolName, UnmangledNameGivesItself) {
    for (const char* name : {"main", "", "_", "_start", "_Zebra", "_Rx", "__libc_csu_init", "Z3fooi"})
        expectGivesItself(name);
}

TEST(SymbolName, NullNameIsEmpty) {
    EXPECT_STREQ(ISymbolNameDemangler::create(nullptr, exec_format_elf)->rawForm(), "");
}

TEST(SymbolName, DamagedMangledNameGivesItself) {
    for (const char* name : {"_Z", "_R", "_ZN", "_ZN3foo", "_Z99foo", "_ZZZZ", "_ZN3foo3barEi!", "_RNvC"})
        expectGivesItself(name);
}

struct ShortName {
    const char* raw;
    const char* bare;
};

void PrintTo(const ShortName& name, std::ostream* stream) {
    *stream << name.raw;
}

class BareName : public testing::TestWithParam<ShortName> {};

TEST_P(BareName, IsTheShortForm) {
    EXPECT_EQ(shortOf(GetParam().raw), GetParam().bare);
}

constexpr ShortName functionNames[] = {
    {"_Z3barv", "bar"},
    {"_ZN3foo3barEi", "bar"},
    {"_ZNK3foo3barEv", "bar"},
    {"_ZNO3foo3barEv", "bar"},
    {"_ZNVKR3foo3barEv", "bar"},
    {"_ZN12_GLOBAL__N_13barEv", "bar"},
    {"_ZN3foo1gB5cxx11Ev", "g"}, // debug information leaves the tag out
    {"_ZN3foo4blubEPDoFvvE", "blub"},
    {"_ZN3fooC1Ei", "foo"},
    {"_ZN3fooD0Ev", "~foo"},
    {"_ZN3fooIiEC2Ev", "foo"},
    {"_ZNSsC1Ev", "basic_string"},
    {"_ZN1aUt_C1Ev", "a"},
    {"_ZZ1fvEN1aC1Ev", "a"},
};
INSTANTIATE_TEST_SUITE_P(Functions, BareName, testing::ValuesIn(functionNames));

constexpr ShortName templateNames[] = {
    {"_ZSt3maxIiERKT_S2_S2_", "max<int>"},
    {"_Z1fILin3EEvv", "f<-3>"},
    {"_Z1fIJEEvDpT_", "f<>"},
    {"_Z1fIJicEEvDpT_", "f<int, char>"},
    {"_ZN1aIiE1fIcEEvT_", "f<char>"},
    {"_ZN1aIXgtLi1ELi2EEE1fEv", "f"},
    {"_Z1fIFvvEEvT_", "f<void ()>"},
    {"_Z1gIiEPFvcEi", "g<int>"},  // void (*g<int>(int))(char)
    {"_Z1hIiEPA3_iT_", "h<int>"}, // int (*h<int>(int)) [3]
    {"_ZN1a1vIiEE", "v<int>"},    // a variable template
    {"_ZN3foo3barIS_EEvT_", "bar<foo>"},
};
INSTANTIATE_TEST_SUITE_P(Templates, BareName, testing::ValuesIn(templateNames));

constexpr ShortName operatorNames[] = {
    {"_ZlsRSoi", "operator<<"},
    {"_ZN3fooclEi", "operator()"},
    {"_ZN3fooltERKS_", "operator<"},
    {"_ZN3fooptEv", "operator->"},
    {"_ZN3fooixEi", "operator[]"},
    {"_ZN3fooaSERKS_", "operator="},
    {"_ZN3foossERKS_", "operator<=>"},
    {"_ZnwmSt11align_val_t", "operator new"},
    {"_ZdlPv", "operator delete"},
    {"_Zli2_ay", "operator\"\" _a"},
    {"_ZN3foocvbEv", "operator bool"},
    {"_ZN3foocvSt6vectorIiEEv", "operator std::vector<int>"},
    {"_ZStlsISt11char_traitsIcEERSt13basic_ostreamIcT_ES5_PKc", "operator<< <std::char_traits<char> >"},
};
INSTANTIATE_TEST_SUITE_P(Operators, BareName, testing::ValuesIn(operatorNames));

constexpr ShortName nestedNames[] = {
    {"_ZZ4mainENKUliE_clEi", "operator()"},
    {"_ZZ4mainENUliE_4_FUNEi", "_FUN"},
    {"_ZZ1fvENKUlT_E_clIiEEDaS_", "operator()<int>"},
    {"_ZZN1A1fEiEd_NKUlvE_clEv", "operator()"},
    {"_ZNK1xMUlvE_clEv", "operator()"},
    {"_ZN1fUlvE_E", "{lambda()#1}"},
    {"_ZZ1fvE1x", "x"},
    {"_ZZ1fvE1x_0", "x"},
    {"_ZZN3foo3barEiE1x", "x"},
    {"_ZDC1a1bE", "[a, b]"},
};
INSTANTIATE_TEST_SUITE_P(NamesInsideFunctions, BareName, testing::ValuesIn(nestedNames));

constexpr ShortName cloneNames[] = {
    {"_ZN3foo3barEi.cold", "bar"},
    {"_ZN3foo3barEi.isra.0.constprop.1", "bar"},
    {"_ZSt3maxIiERKT_S2_S2_.part.0", "max<int>"},
};
INSTANTIATE_TEST_SUITE_P(Clones, BareName, testing::ValuesIn(cloneNames));

constexpr ShortName specialNames[] = {
    {"_ZTV3foo", "vtable for foo"},
    {"_ZTI3foo", "typeinfo for foo"},
    {"_ZTS3foo", "typeinfo name for foo"},
    {"_ZGVZ1fvE1x", "guard variable for f()::x"},
    {"_ZThn8_N3foo3barEv", "non-virtual thunk to foo::bar()"},
    {"_ZTv0_n24_N3foo3barEv", "virtual thunk to foo::bar()"},
    {"_ZTW1x", "TLS wrapper function for x"},
};
INSTANTIATE_TEST_SUITE_P(SpecialNames, BareName, testing::ValuesIn(specialNames));

constexpr ShortName rustNames[] = {
    {"_RNvNtCs1234_7mycrate3foo3bar", "bar"},
    {"_RINvNtC3std3mem8align_ofdE", "align_of<f64>"},
    {"_RNvXCs1_1aNtB2_1SNtB2_1T3foo", "foo"},
    {"_RNCNvC7mycrate4main0B2_", "{closure#0}"},
    {"_ZN3std2io5stdio6_print17h0123456789abcdefE", "_print"},
    {"_ZN3std2io5stdio6_print17h0123456789abcdefE.llvm.123456", "_print"},
    {"_ZN4core3ptr42drop_in_place$LT$alloc..string..String$GT$17h0123456789abcdefE",
     "drop_in_place<alloc::string::String>"},
    {"_ZN71_$LT$Test$u20$$u2b$$u20$$u27$static$u20$as$u20$foo..Bar$LT$Test$GT$$GT$3bar17h930b740aa94f1d3aE",
     "bar"},
};
INSTANTIATE_TEST_SUITE_P(Rust, BareName, testing::ValuesIn(rustNames));

TEST(SymbolName, FullFormNamesTheClone) {
    EXPECT_EQ(fullOf("_ZN3foo3barEi.cold"), "foo::bar(int) [clone .cold]");
}

TEST(SymbolName, FullFormOfRustHasNoHash) {
    EXPECT_EQ(fullOf("_ZN3std2io5stdio6_print17h0123456789abcdefE"), "std::io::stdio::_print");
    EXPECT_EQ(fullOf("_RINvNtC3std3mem8align_ofdE"), "std::mem::align_of::<f64>");
}

TEST(SymbolName, VersionStaysBehindTheFullFormOnly) {
    EXPECT_EQ(fullOf("_ZSt4cout@@GLIBCXX_3.4"), "std::cout@@GLIBCXX_3.4");
    EXPECT_EQ(shortOf("_ZSt4cout@GLIBCXX_3.4"), "cout");
}

/// A name with more back references than the first reader is trusted with, and still an honest one.
TEST(SymbolName, ManyBackReferencesGiveTheSameText) {
    const std::string name = "_Z1fSt6vectorIiSaIiEE" + repeated(30, "S0_");
    EXPECT_EQ(fullOf(name),
              "f(std::vector<int, std::allocator<int> >" + repeated(30, ", std::allocator<int>") + ")");
}

TEST(SymbolName, LongNameIsStillRead) {
    const std::string identifier(3000, 'a');
    const std::string name = "_ZN3foo3000" + identifier + "Ev";
    EXPECT_EQ(shortOf(name), identifier);
    EXPECT_EQ(fullOf(name), "foo::" + identifier + "()");
}

TEST(SymbolName, TooLongNameGivesItself) {
    expectGivesItself("_Z1f" + repeated(1000000, "i"));
    expectGivesItself("_Z1f" + repeated(1000000, "P") + "i");
    expectGivesItself("_R" + repeated(1000000, "N"));
    expectGivesItself("_ZSt4cout@" + repeated(1000000, "x"));
}

/// f(a<int, int>, a<that, that>, a<that, that>...): every argument is twice as long as the one before.
std::string doublingName(unsigned arguments) {
    static const char digits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    std::string name = "_Z1f1aIiiE";
    for (unsigned i = 0; i < arguments; ++i) {
        std::string last;
        if (i >= 36)
            last += digits[i / 36];
        last = "S" + last + digits[i % 36] + "_";
        name += "S_I" + last + last + "E";
    }
    return name;
}

TEST(SymbolName, TextThatGrowsWithoutEndGivesItself) {
    EXPECT_EQ(fullOf(doublingName(3)).substr(0, 22), "f(a<int, int>, a<a<int");
    for (unsigned arguments : {15U, 30U, 60U, 90U, 300U}) {
        NamePtr holder = makeName(doublingName(arguments));
        EXPECT_EQ(holder->fullForm(), holder->rawForm()) << arguments;
        EXPECT_STREQ(holder->shortForm(), "f") << arguments;
    }
}

/// f::<(a, a), (that, that), ...>, where "that" is a back reference to the pair before.
std::string rustDoublingName(unsigned pairs) {
    static const char digits[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    std::string name = "_RINvC1a1fTuuE";
    std::string last = "9_"; // where the pair before begins, in base 62 and less one
    for (unsigned i = 0; i < pairs; ++i) {
        std::size_t value = name.size() - 3;
        name += "TB" + last + "B" + last + "E";
        last = "_";
        for (;; value = value / 62 - 1) {
            last.insert(last.begin(), digits[value % 62]);
            if (value < 62)
                break;
        }
    }
    return name + "E";
}

TEST(SymbolName, RustTextThatGrowsWithoutEndGivesItself) {
    EXPECT_EQ(fullOf(rustDoublingName(1)), "a::f::<((), ()), ((), ())>");
    EXPECT_EQ(fullOf(rustDoublingName(8)).size(), 3060U);
    for (unsigned pairs : {15U, 30U, 60U, 300U})
        expectGivesItself(rustDoublingName(pairs));
}

/// Nests one construct as deep as a name of the longest length can.
struct Nesting {
    const char* title;
    const char* head;
    const char* open;
    const char* middle;
    const char* close;
    const char* tail;
};

void PrintTo(const Nesting& nesting, std::ostream* stream) {
    *stream << nesting.title;
}

class DeepName : public testing::TestWithParam<Nesting> {};

// Half a megabyte is what the source claims; sanitizers make every frame larger, libiberty's not among them.
TEST_P(DeepName, TakesLittleStack) {
    const Nesting& nesting = GetParam();
    const std::size_t level = std::strlen(nesting.open) + std::strlen(nesting.close);
    for (std::size_t length : {1000U, 2000U, 4000U}) {
        const std::size_t count = length / level;
        const std::string name = nesting.head + repeated(count, nesting.open) + nesting.middle +
                                 repeated(count, nesting.close) + nesting.tail;
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, 1U << 20U);
        pthread_t thread;
        auto ask = [](void* context) -> void* {
            NamePtr holder = makeName(*static_cast<const std::string*>(context));
            EXPECT_NE(holder->fullForm(), nullptr);
            EXPECT_NE(holder->shortForm(), nullptr);
            return nullptr;
        };
        ASSERT_EQ(pthread_create(&thread, &attributes, ask, const_cast<std::string*>(&name)), 0);
        pthread_join(thread, nullptr);
        pthread_attr_destroy(&attributes);
    }
}

constexpr Nesting nestings[] = {
    {"pointers", "_Z1f", "P", "i", "", ""},
    {"templates", "_Z1f", "1aI", "i", "E", ""},
    {"namespaces", "_ZN", "1a", "", "", "Ev"},
    {"parameters", "_Z1f", "1a", "", "", ""},
    {"locals", "_Z", "Z", "1fv", "E1g", ""},
    {"expressions", "_Z1fIX", "ng", "Li1E", "", "EEvv"},
    {"calls", "_Z1fIX", "cl", "Li1E", "E", "EEvv"},
    {"functionTypes", "_Z1f", "PFv", "i", "E", ""},
    {"functionParameters", "_Z1f", "PFvv", "", "E", ""},
    {"arrays", "_Z1f", "A1_", "i", "", ""},
    {"thunks", "_Z", "Tv0_n24_", "1fv", "", ""},
    {"lambdas", "_Z", "NUl", "v", "E_E", ""},
    {"decltypes", "_Z1fI", "DTcl", "Li1E", "EE", "Evv"},
    {"conversions", "_ZN1a", "cv", "i", "", "Ev"},
    {"tags", "_Z1f", "B1x", "v", "", ""},
    {"packs", "_Z1fI", "J", "i", "E", "Ev"},
    {"packExpansions", "_Z1fIDp", "Dp", "iEvv", "", ""},
    {"memberPointers", "_Z1f", "M1a", "i", "", ""},
    {"qualifiers", "_Z1f", "U1a", "i", "", ""},
    {"parameterReferences", "_Z1fIiEv", "1aIRT_E", "", "", ""},
    {"templatesAndReferences", "_Z1fI1aIiE1aIiEEv", "1aIRT_EOT0_RS_", "", "", ""},
    {"rustTuples", "_RINvC1a1f", "T", "u", "E", "E"},
    {"rustReferences", "_RINvC1a1f", "R", "u", "", "E"},
    {"rustPaths", "_R", "NvNv", "C1a", "1b1c", ""},
    {"rustImpls", "_R", "NvXC1a", "uu", "1b", ""},
    {"rustGenerics", "_R", "INvC1a1f", "u", "E", ""},
};
INSTANTIATE_TEST_SUITE_P(Nestings, DeepName, testing::ValuesIn(nestings),
                         [](const auto& info) { return info.param.title; });

TEST(SymbolName, EveryTruncationAndEveryChangedByteHasForms) {
    const std::string names[] = {
        "_ZStlsISt11char_traitsIcEERSt13basic_ostreamIcT_ES5_PKc",
        "_ZZN1a1bIiEEvT_ENKUlS1_E_clEi.isra.0",
        "_RNvXCs1_1aNtB2_1SNtB2_1T3foo",
        "_ZN4core3ptr42drop_in_place$LT$alloc..string..String$GT$17h0123456789abcdefE",
    };
    for (const std::string& name : names) {
        for (std::size_t at = 2; at < name.size(); ++at) {
            EXPECT_NE(shortOf(name.substr(0, at)), "");
            for (char letter : {'_', 'S', 'T', 'I', 'N', 'E', '9', 'Z', '\x80'}) {
                std::string changed = name;
                changed[at] = letter;
                EXPECT_NE(shortOf(changed), "") << changed;
                EXPECT_NE(fullOf(changed), "") << changed;
            }
        }
    }
}

TEST(SymbolName, ThreadsGetTheSameForms) {
    for (int round = 0; round < 50; ++round) {
        NamePtr holder = makeName("_ZStlsISt11char_traitsIcEERSt13basic_ostreamIcT_ES5_PKc");
        const char* bare[4] = {};
        const char* full[4] = {};
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&, i, name = holder.get()] {
                bare[i] = name->shortForm();
                full[i] = name->fullForm();
            });
        for (std::thread& thread : threads)
            thread.join();
        for (int i = 1; i < 4; ++i) {
            EXPECT_EQ(bare[i], bare[0]);
            EXPECT_EQ(full[i], full[0]);
        }
    }
}

} // namespace
