// The comparison with other programs itself: it lets pass what a rule tells, and nothing near it.

#include "support/peer_rules.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace orn_test {
namespace {

constexpr std::uint64_t insideOuter = 0x1010;
constexpr std::uint64_t behindOuter = 0x1105;

ProgramFacts factsOf(const std::string& compiler) {
    return ProgramFacts(compiler,
                        {{0, 0, "FILE", "LOCAL", "ABS", "start.c"},
                         {0x1000, 0x100, "FUNC", "GLOBAL", "1", "outer"},
                         {0x2000, 0x100, "FUNC", "GLOBAL", "1", "_ZN2ns5innerEi"}},
                        false);
}

struct Said {
    PeerFrames addr2line;
    PeerFrames llvm;
};

PeerLedger compared(std::uint64_t address, const PeerFrames& ours, const Said& said,
                    const std::string& compiler = "g++") {
    PeerLedger ledger;
    const OurAnswer answer{ours, ours.empty() ? "" : ours.back().function, {}, 0, 0};
    ledger.compare("program", factsOf(compiler), {address, &answer, {&said.addr2line, &said.llvm, nullptr}});
    return ledger;
}

/// Both others say `theirs`.
bool isExplained(std::uint64_t address, const PeerFrames& ours, const PeerFrames& theirs,
                 const std::string& compiler = "g++") {
    return compared(address, ours, {theirs, theirs}, compiler).unexplained().empty();
}

const PeerFrames chain = {{"leaf", "/a.c", 3}, {"outer", "/a.c", 9}};

TEST(SupportPeerRules, EqualAnswersNeedNoRule) {
    const PeerLedger ledger = compared(insideOuter, chain, {chain, chain});
    EXPECT_EQ(ledger.comparisons(), 2u);
    EXPECT_EQ(ledger.equal(), 2u);
    EXPECT_EQ(ledger.unexplained(), "");
    EXPECT_DOUBLE_EQ(ledger.with(Peer::llvm).share(ledger.with(Peer::llvm).innermost), 1);
}

TEST(SupportPeerRules, AnotherLineIsUnexplained) {
    EXPECT_FALSE(isExplained(insideOuter, chain, {{"leaf", "/a.c", 4}, {"outer", "/a.c", 9}}));
    EXPECT_FALSE(isExplained(insideOuter, chain, {{"leaf", "/a.c", 3}, {"outer", "/a.c", 8}}));
    EXPECT_FALSE(isExplained(insideOuter, chain, {{"leaf", "/a.c", 0}, {"outer", "/a.c", 9}}));
}

TEST(SupportPeerRules, AnotherFileIsUnexplained) {
    EXPECT_FALSE(isExplained(insideOuter, chain, {{"leaf", "/b.c", 3}, {"outer", "/a.c", 9}}));
    EXPECT_FALSE(isExplained(insideOuter, {{"outer", "", 9}}, {{"outer", "/a.c", 9}}));
}

TEST(SupportPeerRules, AnotherFunctionIsUnexplained) {
    EXPECT_FALSE(isExplained(insideOuter, chain, {{"bough", "/a.c", 3}, {"outer", "/a.c", 9}}));
    EXPECT_FALSE(isExplained(insideOuter, chain, {{"leaf", "/a.c", 3}, {"other", "/a.c", 9}}));
}

TEST(SupportPeerRules, AMissingLevelIsUnexplained) {
    EXPECT_FALSE(isExplained(insideOuter, {{"outer", "/a.c", 3}}, chain));
    EXPECT_FALSE(isExplained(insideOuter, {{"outer", "/a.c", 3}}, chain, "clang"));
    EXPECT_FALSE(isExplained(insideOuter, chain, {{"outer", "/a.c", 3}}));
}

TEST(SupportPeerRules, AMissingLevelIsExplainedInsideANameSpaceOfClangsAlone) {
    const PeerFrames ours = {{"ns::inner(int)", "/a.c", 3}};
    const PeerFrames theirs = {{"leaf", "/a.c", 3}, {"ns::inner(int)", "/a.c", 9}};
    EXPECT_TRUE(isExplained(0x2010, ours, theirs, "clang++"));
    EXPECT_FALSE(isExplained(0x2010, ours, theirs, "g++"));
    EXPECT_FALSE(isExplained(0x2010, {{"ns::inner(int)", "/a.c", 4}}, theirs, "clang++"));
}

TEST(SupportPeerRules, NoAnswerIsExplainedBetweenFunctionsAlone) {
    EXPECT_TRUE(isExplained(behindOuter, {}, {{"", "/a.c", 9}}));
    EXPECT_TRUE(isExplained(behindOuter, {}, {{"outer", "", 0}}));
    EXPECT_FALSE(isExplained(behindOuter, {}, {{"inner", "", 0}}));
    EXPECT_FALSE(isExplained(insideOuter, {}, {{"", "/a.c", 9}}));
    EXPECT_FALSE(isExplained(insideOuter, {}, {{"outer", "", 0}}));
    EXPECT_FALSE(isExplained(insideOuter, chain, {}));
}

TEST(SupportPeerRules, AFileOfTheSymbolTableGoesWithoutALine) {
    EXPECT_TRUE(isExplained(insideOuter, {{"outer", "", 0}}, {{"outer", "start.c", 0}}));
    EXPECT_FALSE(isExplained(insideOuter, {{"outer", "", 0}}, {{"outer", "start.c", 7}}));
    EXPECT_FALSE(isExplained(insideOuter, {{"outer", "", 0}}, {{"outer", "a.c", 0}}));
}

TEST(SupportPeerRules, TheNameOfAnEntryIsForExpandedFunctions) {
    const PeerFrames theirs = {{"ns::leaf(int)", "/a.c", 3}, {"outer", "/a.c", 9}};
    EXPECT_TRUE(isExplained(insideOuter, chain, theirs));
    EXPECT_FALSE(isExplained(insideOuter, {{"other::leaf(int)", "/a.c", 3}, {"outer", "/a.c", 9}}, theirs));
}

TEST(SupportPeerRules, ThePartOfAFunctionIsNamedAfterTheSymbolThere) {
    EXPECT_TRUE(isExplained(insideOuter, {{"outer", "/a.c", 9}}, {{"outer.part.0", "/a.c", 9}}));
    EXPECT_FALSE(isExplained(0x2010, {{"outer", "/a.c", 9}}, {{"outer.part.0", "/a.c", 9}}));
}

TEST(SupportPeerRules, TheSymbolForTheInnermostFunctionIsAddr2linesAlone) {
    const PeerFrames wrong = {{"outer", "/a.c", 3}, {"outer", "/a.c", 9}};
    const PeerLedger ledger = compared(insideOuter, chain, {wrong, chain});
    EXPECT_EQ(ledger.unexplained(), "");
    EXPECT_EQ(ledger.with(Peer::addr2line).innermost, 0u);
    EXPECT_EQ(ledger.with(Peer::addr2line).nameOfSymbol, 1u);
    EXPECT_NE(compared(insideOuter, chain, {chain, wrong}).unexplained(), "");
    EXPECT_NE(compared(insideOuter, chain, {wrong, wrong}).unexplained(), "");
}

TEST(SupportPeerRules, AMissingLineIsAddr2linesAloneAndAtAddressesThatEndIn0xff) {
    const PeerFrames ours = {{"outer", "/a.c", 9}};
    const PeerFrames none = {{"outer", "", 0}};
    EXPECT_EQ(compared(0x10ff, ours, {none, ours}).unexplained(), "");
    EXPECT_NE(compared(0x10fe, ours, {none, ours}).unexplained(), "");
    EXPECT_NE(compared(0x10ff, ours, {ours, none}).unexplained(), "");
    EXPECT_NE(compared(0x10ff, ours, {none, none}).unexplained(), "");
    EXPECT_NE(compared(0x10ff, none, {ours, ours}).unexplained(), "");
}

TEST(SupportPeerRules, FortranNamesAreTheOnesThatWereWritten) {
    const PeerFrames ours = {{"outer", "/a.f90", 9}};
    EXPECT_TRUE(isExplained(insideOuter, ours, {{"outer_", "/a.f90", 9}}, "gfortran"));
    EXPECT_TRUE(isExplained(insideOuter, ours, {{"__shapes_MOD_outer", "/a.f90", 9}}, "gfortran"));
    EXPECT_FALSE(isExplained(insideOuter, ours, {{"outer_", "/a.f90", 9}}, "gcc"));
    EXPECT_FALSE(isExplained(insideOuter, ours, {{"MAIN__", "/a.f90", 9}}, "gfortran"));
}

TEST(SupportPeerRules, InstancesOfTemplatesMayBeWrittenInAnotherFormAtOnePlace) {
    const PeerFrames ours = {{"leaf<<unnamed enum> >", "/a.c", 3}, {"outer", "/a.c", 9}};
    EXPECT_TRUE(
        isExplained(insideOuter, ours, {{"x leaf<._anon_1>::y(int)", "/a.c", 3}, {"outer", "/a.c", 9}}));
    EXPECT_FALSE(
        isExplained(insideOuter, ours, {{"x bough<._anon_1>::y(int)", "/a.c", 3}, {"outer", "/a.c", 9}}));
    EXPECT_FALSE(
        isExplained(insideOuter, ours, {{"x leaf<._anon_1>::y(int)", "/a.c", 4}, {"outer", "/a.c", 9}}));
}

TEST(SupportPeerRules, ARuleThatExplainsTooMuchIsReported) {
    const PeerLedger ledger = compared(behindOuter, {}, {{{"", "/a.c", 9}}, {{"", "/a.c", 9}}});
    EXPECT_EQ(ledger.unexplained(), "");
    EXPECT_EQ(ledger.overused(), "line without a function explains 2 of 2\n");
}

TEST(SupportPeerFrames, PlainNamesAreWhatWasWritten) {
    EXPECT_EQ(plainFunction("f"), "f");
    EXPECT_EQ(plainFunction("ns::S<int, ns::T>::f(int) const"), "f");
    EXPECT_EQ(plainFunction("int ns::f<S<int> >(S<int>)"), "f");
    EXPECT_EQ(plainFunction("(anonymous namespace)::f(int)"), "f");
    EXPECT_EQ(plainFunction("f(int) [clone .cold]"), "f");
    EXPECT_EQ(plainFunction("f.part.0"), "f");
    EXPECT_EQ(plainFunction("g(int)::{lambda(int)#1}::operator()(int) const"), "operator()");
    EXPECT_EQ(plainFunction("g(int) const::Local::f(int)"), "f");
    EXPECT_EQ(plainFunction("h<((16) >= (8))>(int)"), "h");
    EXPECT_EQ(qualifiedFunction("int ns::S<T>::f<U>(int)"), "ns::S::f");
}

} // namespace
} // namespace orn_test
