// The query for stack variables: function, frame base, locations, and the symbol that answers.

#include "orn/source.h"
#include "orn_dildwarf_location.h"
#include "orn_dildwarf_visitor.h"
#include "support/allocation.h"
#include "support/orn_fixture.h"
#include "support/stack_module.h"

#include <thread>

namespace ORN_3_30::test {
namespace {

using M = DwarfModule;
using S = StackModule;
using Bytes = S::Bytes;
using ::testing::HasSubstr;

constexpr unsigned long long pc = 0x1010;

/// One function with a variable or two; `cfa` is where the frame is by the rule.
class StackQueryTest : public OrnTest {
protected:
    static constexpr unsigned long long cfa = 0x7008;

    /// A function with this frame base and an int at `offset` from it.
    void intAt(long long offset, const DwarfAttrs& base = S::frameAddressExpression(),
               const orn_test::DwarfUnitOptions& options = {}) {
        stack.module.unit({}, options);
        stack.types();
        const bool isOld = options.version < 4;
        if (isOld)
            stack.openOldFunction(base);
        else
            stack.openFunction(base);
        stack.variable(
            "x", "int",
            S::location(S::operation(DW_OP_fbreg, offset), isOld ? DW_FORM_block1 : DW_FORM_exprloc));
        stack.module.close().endUnit();
    }
    /// A function whose int lies where the expression says.
    void intBy(const Bytes& expression) {
        stack.module.unit();
        stack.types();
        stack.openFunction(S::frameAddressExpression());
        stack.variable("x", "int", S::location(expression));
        stack.module.close().endUnit();
    }
    static orn_test::DwarfUnitOptions version(std::uint16_t number) {
        orn_test::DwarfUnitOptions options;
        options.version = number;
        return options;
    }

    StackModule stack;
};

// --- Where variables begin and end

TEST_F(StackQueryTest, AnIntIsFoundAtItsFourBytesAndNoOthers) {
    intAt(-20);
    EXPECT_EQ(stack.nameAt(pc, cfa - 21), "");
    for (unsigned byte = 0; byte < 4; ++byte)
        EXPECT_EQ(stack.nameAt(pc, cfa - 20 + byte), "x");
    EXPECT_EQ(stack.nameAt(pc, cfa - 16), "");
}

TEST_F(StackQueryTest, NothingThereIsNoFailure) {
    intAt(-20);
    EXPECT_EQ(stack.ask(pc, 0x1234), status_False);
    EXPECT_EQ(stack.found, nullptr);
}

TEST_F(StackQueryTest, AVariableWithoutATypeIsOneByte) {
    stack.module.unit();
    stack.openFunction();
    stack.module.leaf(DW_TAG_variable, M::named("x") + S::atFrameBase(-20)).close().endUnit();
    EXPECT_EQ(stack.nameAt(pc, cfa - 20), "x");
    EXPECT_EQ(stack.nameAt(pc, cfa - 19), "");
}

TEST_F(StackQueryTest, AVariableOfATypeThatCannotBeReadIsOneByte) {
    stack.module.unit();
    stack.openFunction();
    stack.module
        .leaf(DW_TAG_variable,
              M::named("x") + S::atFrameBase(-20) + DwarfAttrs{{DW_AT_type, DW_FORM_ref_addr, 0x100000}})
        .close()
        .endUnit();
    EXPECT_EQ(stack.nameAt(pc, cfa - 20), "x");
    EXPECT_EQ(stack.nameAt(pc, cfa - 19), "");
}

TEST_F(StackQueryTest, AVariableWithoutALocationIsPassed) {
    stack.module.unit();
    stack.types();
    stack.openFunction();
    stack.variable("nowhere", "int", {});
    stack.variable("x", "int", S::atFrameBase(-20));
    stack.module.close().endUnit();
    EXPECT_EQ(stack.nameAt(pc, cfa - 20), "x");
}

TEST_F(StackQueryTest, AParameterIsNotReturned) {
    stack.module.unit();
    stack.types();
    stack.openFunction();
    stack.module.leaf(DW_TAG_formal_parameter, M::named("p") + M::type("int") + S::atFrameBase(-20));
    stack.module.close().endUnit();
    EXPECT_EQ(stack.ask(pc, cfa - 20), status_False);
}

TEST_F(StackQueryTest, OfVariablesThatCoverAnAddressTheFirstWins) {
    stack.module.unit();
    stack.types();
    stack.openFunction();
    stack.variable("first", "int", S::atFrameBase(-22));
    stack.variable("second", "int", S::atFrameBase(-20));
    stack.module.close().endUnit();
    EXPECT_EQ(stack.nameAt(pc, cfa - 20), "first");
    EXPECT_EQ(stack.nameAt(pc, cfa - 18), "second");
}

TEST_F(StackQueryTest, AllThatIsBelowTheFunctionIsSearched) {
    stack.module.unit();
    stack.types();
    stack.openFunction();
    stack.module.open(DW_TAG_lexical_block).open(DW_TAG_lexical_block);
    stack.variable("inBlock", "int", S::atFrameBase(-8));
    stack.module.close().close().open(DW_TAG_inlined_subroutine);
    stack.variable("inExpanded", "int", S::atFrameBase(-12));
    stack.module.close().open(DW_TAG_subprogram, M::function("inner", 0x1080, 0x10));
    stack.variable("inInner", "int", S::atFrameBase(-16));
    stack.module.close().close();
    stack.module.openFunction("g", 0x1100, 0x10);
    stack.variable("inNext", "int", S::atFrameBase(-20));
    stack.module.close().endUnit();
    EXPECT_EQ(stack.nameAt(pc, cfa - 8), "inBlock");
    EXPECT_EQ(stack.nameAt(pc, cfa - 12), "inExpanded");
    EXPECT_EQ(stack.nameAt(pc, cfa - 16), "inInner");
    EXPECT_EQ(stack.nameAt(pc, cfa - 20), "");
}

TEST_F(StackQueryTest, AFunctionWithoutAnythingInItHasNoVariables) {
    stack.module.unit();
    stack.module.leaf(DW_TAG_subprogram, M::function("f", 0x1000, 0x100) + S::frameAddressExpression());
    stack.types();
    stack.module.endUnit();
    EXPECT_EQ(stack.ask(pc, cfa - 20), status_False);
}

TEST_F(StackQueryTest, ATypeOfAnotherUnitIsFollowed) {
    stack.module.unit();
    stack.types();
    stack.module.endUnit().unit();
    stack.openFunction();
    stack.variable("x", "int", S::atFrameBase(-20));
    stack.module.close().endUnit();
    EXPECT_EQ(stack.nameAt(pc, cfa - 17), "x");
}

// --- Arrays

TEST_F(StackQueryTest, AnArrayOfTenIntsIs40Bytes) {
    stack.module.unit(M::language(DW_LANG_C89));
    stack.types();
    stack.module.open(DW_TAG_array_type, M::type("int"), "a");
    stack.module.leaf(DW_TAG_subrange_type, {{DW_AT_upper_bound, DW_FORM_data1, 9}}).close();
    stack.openFunction();
    stack.variable("x", "a", S::atFrameBase(-40));
    stack.module.close().endUnit();
    EXPECT_EQ(stack.nameAt(pc, cfa - 40), "x");
    EXPECT_EQ(stack.nameAt(pc, cfa - 1), "x");
    EXPECT_FALSE(stack.isMember);
    EXPECT_EQ(stack.nameAt(pc, cfa), "");
}

TEST_F(StackQueryTest, AnArrayOfAFortranUnitCountsFromOne) {
    stack.module.unit(M::language(DW_LANG_Fortran90));
    stack.types();
    stack.module.open(DW_TAG_array_type, M::type("int"), "a");
    stack.module.leaf(DW_TAG_subrange_type, {{DW_AT_upper_bound, DW_FORM_data1, 10}}).close();
    stack.openFunction();
    stack.variable("x", "a", S::atFrameBase(-40));
    stack.module.close().endUnit();
    EXPECT_EQ(stack.nameAt(pc, cfa - 1), "x");
    EXPECT_EQ(stack.nameAt(pc, cfa), "");
}

TEST_F(StackQueryTest, OnlyASignedLowerBoundCounts) {
    stack.module.unit();
    stack.types();
    stack.module.open(DW_TAG_array_type, M::type("char"), "signed");
    stack.module
        .leaf(DW_TAG_subrange_type,
              {{DW_AT_lower_bound, DW_FORM_sdata, -3}, {DW_AT_upper_bound, DW_FORM_sdata, -1}})
        .close();
    stack.module.open(DW_TAG_array_type, M::type("char"), "unsigned");
    stack.module
        .leaf(DW_TAG_subrange_type,
              {{DW_AT_lower_bound, DW_FORM_data1, 3}, {DW_AT_upper_bound, DW_FORM_data1, 5}})
        .close();
    stack.openFunction();
    stack.variable("s", "signed", S::atFrameBase(-20));
    stack.variable("u", "unsigned", S::atFrameBase(-10));
    stack.module.close().endUnit();
    EXPECT_EQ(stack.nameAt(pc, cfa - 18), "s");
    EXPECT_EQ(stack.nameAt(pc, cfa - 17), "");
    EXPECT_EQ(stack.nameAt(pc, cfa - 5), "u"); // of 6 elements, from 0
    EXPECT_EQ(stack.nameAt(pc, cfa - 4), "");
}

TEST_F(StackQueryTest, AnUpperBoundThatIsNoConstantLeavesTheArrayUnsized) {
    stack.module.unit();
    stack.types();
    const DwarfAttrs bounds = {
        {DW_AT_upper_bound, DW_FORM_block1, Bytes{DW_OP_fbreg, 9}},
        {DW_AT_upper_bound, DW_FORM_exprloc, Bytes{DW_OP_fbreg, 9}},
        {DW_AT_upper_bound, DW_FORM_ref_addr, orn_test::DwarfValue::ref("int")},
        {DW_AT_upper_bound, DW_FORM_sec_offset, 9},
    };
    for (std::size_t i = 0; i < bounds.size(); ++i) {
        stack.module.open(DW_TAG_array_type, M::type("int"), "a" + std::to_string(i));
        stack.module.leaf(DW_TAG_subrange_type, {bounds[i]}).close();
    }
    stack.openFunction();
    for (std::size_t i = 0; i < bounds.size(); ++i)
        stack.variable("x", ("a" + std::to_string(i)).c_str(), S::atFrameBase(-40));
    stack.module.close().endUnit();
    EXPECT_EQ(stack.ask(pc, cfa - 40), status_False);
}

// --- The function

TEST_F(StackQueryTest, WithoutEntriesThereIsNoDebugInformation) {
    stack.module.helper(); // no sections at all
    EXPECT_EQ(stack.askOf(nullptr, pc, 0), status_NoDebugInfo);
}

TEST_F(StackQueryTest, ASymbolThatIsNotOfAnEntryHasNoVariables) {
    intAt(-20);
    EXPECT_EQ(stack.askOf(nullptr, pc, cfa - 20), status_False);
    const SymMgrObjectPtr<Symbol> plain = new Symbol(stack.module.format.get(), "f", 0x1000, nullptr,
                                                     symbol_visibility_global, symbol_kind_function, 0);
    EXPECT_EQ(stack.askOf(plain, pc, cfa - 20), status_False);
}

TEST_F(StackQueryTest, ASymbolWithoutAScopeHasNoVariables) {
    intAt(-20);
    ASSERT_EQ(stack.nameAt(pc, cfa - 20), "x");
    const SymMgrObjectPtr<ISymbol> variable = stack.found;
    EXPECT_EQ(stack.askOf(variable, pc, cfa - 19), status_False);
}

TEST_F(StackQueryTest, ASymbolOfAnotherModuleHasNoVariables) {
    StackModule other;
    other.module.unit();
    other.openFunction();
    other.module.close().endUnit();
    other.loader();
    intAt(-20);
    EXPECT_EQ(stack.askOf(other.module.symbolAt(pc), pc, cfa - 20), status_False);
}

TEST_F(StackQueryTest, AQueryWithoutAnAddressIsWrong) {
    intAt(-20);
    stack.loader();
    DWARFSymbol* function = stack.module.symbolAt(pc);
    EXPECT_EQ(
        stack.loader().findStackVariable(function, nullptr, cfa - 20, stack.context, stack.found, nullptr),
        status_InvalidArg);
}

TEST_F(StackQueryTest, AnEntryThatIsNoFunctionFails) {
    stack.module.unit();
    stack.module.leaf(DW_TAG_label, M::function("l", 0x1010, 0)).endUnit();
    stack.loader();
    expectLog("Expecting DW_TAG_subprogram, got 10");
    EXPECT_EQ(stack.askOf(stack.module.symbolAt(0x1010, symbol_kind_label), 0x1010, 0x7000), status_Fail);
}

TEST_F(StackQueryTest, CodeOutsideTheFunctionFails) {
    intAt(-20);
    stack.functionAt = 0x1000;
    expectLog("Address range did not match subprogram,  address:4095 low: 4096 high: 4352 func: f");
    EXPECT_EQ(stack.ask(0xfff, cfa - 20), status_Fail);
    EXPECT_EQ(stack.ask(0x1100, cfa - 20), status_Ok);
    expectLog("Address range did not match subprogram,  address:4353 low: 4096 high: 4352 func: f");
    EXPECT_EQ(stack.ask(0x1101, cfa - 19), status_Fail);
}

TEST_F(StackQueryTest, BothMessagesHaveTheirLevels) {
    intAt(-20);
    stack.functionAt = 0x1000;
    EXPECT_EQ(stack.ask(0xfff, cfa), status_Fail);
    EXPECT_EQ(messages(warningLevel).size(), 1u);
    takeLogs();
    StackModule label;
    label.module.unit();
    label.module.leaf(DW_TAG_label, M::function("l", 0x1010, 0)).endUnit();
    label.loader();
    EXPECT_EQ(label.askOf(label.module.symbolAt(0x1010, symbol_kind_label), 0x1010, 0), status_Fail);
    EXPECT_EQ(messages(errorLevel).size(), 1u);
    takeLogs();
}

TEST_F(StackQueryTest, AFunctionInPiecesMatchesNoCode) {
    stack.module.pair(0x1000, 0x1100).pair(0, 0).unit();
    stack.module.leaf(DW_TAG_subprogram, M::named("f") + M::ranges(0)).endUnit();
    expectLog("Address range did not match subprogram,  address:4112 low: 0 high: 0 func: f");
    EXPECT_EQ(stack.ask(pc, cfa), status_Fail);
}

TEST_F(StackQueryTest, InVersionFourTheHighAddressIsAnOffsetWhateverItsForm) {
    stack.module.unit();
    stack.module.leaf(DW_TAG_subprogram, M::named("f") + DwarfAttrs{{DW_AT_low_pc, DW_FORM_addr, 0x1000},
                                                                    {DW_AT_high_pc, DW_FORM_addr, 0x1100}});
    stack.module.endUnit();
    stack.functionAt = 0x1000;
    EXPECT_EQ(stack.ask(0x2100, cfa), status_False);
    expectLog("address:8449 low: 4096 high: 8448 func: f");
    EXPECT_EQ(stack.ask(0x2101, cfa), status_Fail);
}

TEST_F(StackQueryTest, InEarlierVersionsTheHighAddressStandsAsItIs) {
    for (const std::uint16_t number : {2, 3}) {
        StackModule old;
        old.module.unit({}, version(number));
        old.module.leaf(DW_TAG_subprogram, M::function("f", 0x1000, 0x1100)).endUnit();
        old.functionAt = 0x1000;
        EXPECT_EQ(old.ask(0x1100, cfa), status_False);
        expectLog("address:4353 low: 4096 high: 4352 func: f");
        EXPECT_EQ(old.ask(0x1101, cfa), status_Fail);
    }
}

// --- The frame base

TEST_F(StackQueryTest, WithoutAFrameBaseVariablesAreRelativeToZero) {
    intAt(0x500, {});
    EXPECT_EQ(stack.nameAt(pc, 0x500), "x");
}

TEST_F(StackQueryTest, TheFrameAddressComesFromTheRuleAtTheCode) {
    intAt(-20);
    stack.frames.beginFde(0, 0x1000, 0x100);
    stack.frames.advance(0x20).defCfa(6, 32).advance(0x20).end();
    EXPECT_EQ(stack.nameAt(0x1010, cfa - 20), "x");
    stack.setRegisters(1, 0x8000);
    EXPECT_EQ(stack.nameAt(0x1030, 0x8000 + 32 - 20), "x");
}

TEST_F(StackQueryTest, ARuleOnAnotherRegisterIsNone) {
    intAt(-20);
    stack.frames.beginFde(0, 0x1000, 0x100);
    stack.frames.defCfaRegister(3).advance(0x3f).end();
    EXPECT_EQ(stack.ask(pc, cfa - 20), status_False);
}

TEST_F(StackQueryTest, WithoutARuleThereIsNoAnswer) {
    stack.framesBytes = Bytes{0, 0, 0, 0};
    intAt(-20);
    EXPECT_EQ(stack.ask(pc, cfa - 20), status_False);
}

TEST_F(StackQueryTest, WithoutFramesThereIsNoAnswer) {
    stack.hasFrames = false;
    intAt(-20);
    EXPECT_EQ(stack.ask(pc, cfa - 20), status_False);
    EXPECT_FALSE(stack.loader().ensureFrameInformation());
    EXPECT_EQ(stack.loader().frameInformation(), nullptr);
}

TEST_F(StackQueryTest, WithoutHeadersThatPlaceTheFramesThereIsNoAnswer) {
    stack.hasElf = false;
    intAt(-20);
    EXPECT_EQ(stack.ask(pc, cfa - 20), status_False);
}

TEST_F(StackQueryTest, FramesThatAreRefusedAreTriedAgainAtEveryQuery) {
    stack.framesBytes = Bytes{1, 2, 3};
    intAt(-20);
    for (int i = 0; i < 2; ++i) {
        expectLog("an error occured while parsing .eh_frame section");
        EXPECT_EQ(stack.ask(pc, cfa - 20), status_False);
    }
}

TEST_F(StackQueryTest, FramesThatWereReadAreNotReadAgain) {
    intAt(-20);
    EXPECT_EQ(stack.ask(pc, 0x100), status_False);
    EXPECT_EQ(stack.ask(pc, 0x101), status_False);
    EXPECT_EQ(stack.module.helper().reads[section_eh_frame], 1);
}

TEST_F(StackQueryTest, WithoutAFrameTheFrameAddressIsNotKnown) {
    intAt(-20);
    stack.context = nullptr;
    EXPECT_EQ(stack.ask(pc, cfa - 20), status_False);
}

TEST_F(StackQueryTest, AnExpressionThatIsNotTheFrameAddressLeavesTheBaseAtZero) {
    intAt(0x500, S::frameBase(S::operation(DW_OP_reg6), DW_FORM_exprloc));
    EXPECT_EQ(stack.nameAt(pc, 0x500), "x");
}

TEST_F(StackQueryTest, SuchAnExpressionStillWantsTheFrames) {
    stack.hasFrames = false;
    intAt(0x500, S::frameBase(S::operation(DW_OP_reg6), DW_FORM_exprloc));
    EXPECT_EQ(stack.ask(pc, 0x500), status_False);
}

TEST_F(StackQueryTest, AnEmptyExpressionLeavesTheBaseAtZero) {
    intAt(0x500, S::frameBase({}, DW_FORM_exprloc));
    EXPECT_EQ(stack.nameAt(pc, 0x500), "x");
}

TEST_F(StackQueryTest, ABlockIsEvaluatedWithoutFrames) {
    stack.hasFrames = false;
    intAt(-20, S::frameBase(S::operation(DW_OP_reg6), DW_FORM_block1), version(3));
    EXPECT_EQ(stack.nameAt(pc, 0x8000 - 20), "x");
}

TEST_F(StackQueryTest, InABlockTheFrameAddressIsThatOfAPushedFramePointer) {
    for (const std::uint8_t size : {4, 8}) {
        StackModule old;
        old.hasFrames = false;
        orn_test::DwarfUnitOptions options = version(3);
        options.addressSize = size;
        old.module.unit({}, options);
        old.module.leaf(DW_TAG_base_type, M::named("int") + S::size(4), "int");
        old.openOldFunction(S::frameBase(S::operation(DW_OP_call_frame_cfa), DW_FORM_block1));
        old.variable("x", "int", S::location(S::operation(DW_OP_fbreg, -20), DW_FORM_block1));
        old.module.close().endUnit();
        EXPECT_EQ(old.nameAt(pc, 0x8000 + 2 * size - 20), "x") << unsigned(size);
    }
}

TEST_F(StackQueryTest, AListGivesTheBaseThatHoldsAtTheCode) {
    stack.hasFrames = false;
    stack.listEntry(0x1000, 0x1004, S::operation(DW_OP_breg7, 8));
    stack.listEntry(0x1004, 0x1100, S::operation(DW_OP_breg6, 16)).listEnd();
    intAt(-20, {{DW_AT_frame_base, DW_FORM_sec_offset, 0}});
    EXPECT_EQ(stack.nameAt(0x1003, 0x7000 + 8 - 20), "x");
    EXPECT_EQ(stack.nameAt(0x1004, 0x8000 + 16 - 20), "x");
}

TEST_F(StackQueryTest, ABaseWhoseListHasNothingForTheCodeIsZero) {
    stack.listEntry(0x2000, 0x2004, S::operation(DW_OP_breg7, 8)).listEnd();
    intAt(0x500, {{DW_AT_frame_base, DW_FORM_data4, 0}});
    EXPECT_EQ(stack.nameAt(pc, 0x500), "x");
}

TEST_F(StackQueryTest, RegistersAreThoseOfTheUnitsAddressSize) {
    for (const std::uint16_t reg : {4, 5, 6, 7}) {
        StackModule narrow;
        narrow.frames = orn_test::CfiAssembler(0x2000, 4);
        narrow.frames.beginCie();
        narrow.frames.defCfa(reg, 8).end();
        orn_test::DwarfUnitOptions options;
        options.addressSize = 4;
        narrow.module.unit({}, options);
        narrow.types();
        narrow.openFunction();
        narrow.variable("x", "int", S::atFrameBase(-20));
        narrow.module.close().endUnit();
        const char* const expected[] = {"x", "x", "", ""};
        EXPECT_EQ(narrow.nameAt(pc, (reg == 4 ? 0x7008 : 0x8008) - 20), expected[reg - 4]) << reg;
    }
}

TEST_F(StackQueryTest, TheBiasIsTakenFromTheCodeAndNotFromTheStack) {
    stack.module.bias = 0x400000;
    stack.module.hasOwnSegments = true;
    stack.module.format->segment(0x401000, 0x1000);
    stack.frames.beginFde(0, 0x1000, 0x100);
    stack.frames.defCfaOffset(24).advance(0x3f).end();
    stack.listEntry(0x10, 0x20, S::operation(DW_OP_breg7, 0x40)).listEnd();
    stack.module.unit({{DW_AT_low_pc, DW_FORM_addr, 0x1000}});
    stack.types();
    stack.openFunction();
    stack.variable("x", "int", S::atFrameBase(-20));
    stack.variable("listed", "int", S::locationList(0));
    stack.module.close().endUnit();
    EXPECT_EQ(stack.nameAt(0x401010, 0x7000 + 24 - 20), "x");
    EXPECT_EQ(stack.nameAt(0x401010, 0x7040), "listed");
    EXPECT_EQ(stack.nameAt(0x401020, 0x7040 + 1), "");
}

// --- Locations

TEST_F(StackQueryTest, LocationsReadOneOperation) {
    struct Row {
        Bytes expression;
        unsigned long long address;
    };
    const Row rows[] = {
        {{DW_OP_reg4}, 0x7000},
        {{DW_OP_reg6}, 0x8000},
        {S::operation(DW_OP_breg4, -300), 0x7000 - 300},
        {S::operation(DW_OP_breg5, -300), 0x8000 - 300},
        {S::operation(DW_OP_breg6, 300), 0x8000 + 300},
        {S::operation(DW_OP_breg7, 300), 0x7000 + 300},
        {S::operation(DW_OP_fbreg, -300), 0x9000 - 300},
        {{DW_OP_call_frame_cfa}, 0x8010},
        {{DW_OP_plus_uconst, 0x80, 0x01}, 0x80},
        {{DW_OP_reg0}, 0},
        {{DW_OP_breg0, 5}, 0},
        {{DW_OP_addr, 1, 2, 3, 4, 5, 6, 7, 8}, 0},
        {{DW_OP_regx, 7}, 0},
        {{}, 0},
        // What follows is ignored.
        {{DW_OP_breg7, 8, DW_OP_deref, DW_OP_plus_uconst, 4}, 0x7008},
        {{DW_OP_fbreg}, 0x9000},
    };
    for (const Row& row : rows) {
        SectionWalker walker(row.expression.data(), row.expression.size());
        EXPECT_EQ(readLocation(walker, stack.context, 0x9000, 8), row.address)
            << (row.expression.empty() ? 0u : unsigned(row.expression[0]));
    }
    const Bytes frameAddress = {DW_OP_call_frame_cfa};
    EXPECT_EQ(readLocation(SectionWalker(frameAddress.data(), 1), stack.context, 0, 4), 0x8008u);
}

TEST_F(StackQueryTest, WithoutAFrameBothRegistersAreZero) {
    stack.module.unit();
    stack.types();
    stack.openFunction({});
    stack.variable("s", "int", S::location(S::operation(DW_OP_breg7, 0x300)));
    stack.variable("f", "int", S::location(S::operation(DW_OP_breg6, 0x400)));
    stack.module.close().endUnit();
    stack.context = nullptr;
    EXPECT_EQ(stack.nameAt(pc, 0x300), "s");
    EXPECT_EQ(stack.nameAt(pc, 0x400), "f");
    // And a frame whose registers are 0 is the same frame.
    stack.context = new StackFrameContext;
    EXPECT_EQ(stack.askOf(nullptr, pc, 0x300), status_Ok);
}

TEST_F(StackQueryTest, AVariableMayLieRelativeToARegister) {
    intBy(S::operation(DW_OP_breg6, -8));
    EXPECT_EQ(stack.nameAt(pc, 0x7ff8), "x");
}

TEST_F(StackQueryTest, AVariableMayMoveWithTheCode) {
    stack.listEntry(0x1000, 0x1010, S::operation(DW_OP_fbreg, -20));
    stack.listEntry(0x1010, 0x1020, S::operation(DW_OP_fbreg, -40)).listEnd();
    stack.module.unit();
    stack.types();
    stack.openFunction();
    stack.variable("x", "int", S::locationList(0));
    stack.module.close().endUnit();
    EXPECT_EQ(stack.nameAt(0x100f, cfa - 20), "x");
    EXPECT_EQ(stack.nameAt(0x1010, cfa - 40), "x");
    EXPECT_EQ(stack.nameAt(0x100f, cfa - 39), "");
    EXPECT_EQ(stack.nameAt(0x1020, cfa - 38), "");
}

TEST_F(StackQueryTest, AListWithoutAnEntryForTheCodeLeavesTheVariableAtZero) {
    stack.listEntry(0x1000, 0x1010, S::operation(DW_OP_fbreg, -20)).listEnd();
    stack.module.unit();
    stack.types();
    stack.openFunction();
    stack.variable("x", "int", S::locationList(0));
    stack.module.close().endUnit();
    EXPECT_EQ(stack.nameAt(0x1010, cfa - 20), "");
    EXPECT_EQ(stack.nameAt(0x1010, 3), "x");
    ASSERT_NE(stack.found, nullptr);
    EXPECT_EQ(stack.nameAt(0x1010, 4), "");
}

TEST_F(StackQueryTest, AListCountsFromItsUnitOrFromASelectedBase) {
    stack.listEntry(0x10, 0x20, S::operation(DW_OP_breg7, 0x10));
    stack.lists.u64(~0ULL).u64(0x1040);
    stack.listEntry(0x10, 0x20, S::operation(DW_OP_breg7, 0x20)).listEnd();
    stack.module.unit({{DW_AT_low_pc, DW_FORM_addr, 0x1000}});
    stack.types();
    stack.openFunction();
    stack.variable("x", "int", S::locationList(0, DW_FORM_data4));
    stack.module.close().endUnit();
    EXPECT_EQ(stack.nameAt(0x1010, 0x7010), "x");
    EXPECT_EQ(stack.nameAt(0x1050, 0x7020), "x");
    EXPECT_EQ(stack.nameAt(0x1040, 0x7022), "");
}

TEST_F(StackQueryTest, ListsOf32BitUnitsHaveAddressesOfFourBytes) {
    stack.lists.u32(0xffffffff).u32(0x1000);
    stack.lists.u32(0x10).u32(0x20).u16(2).raw({DW_OP_breg4, 8}).u32(0).u32(0);
    orn_test::DwarfUnitOptions options;
    options.addressSize = 4;
    stack.module.unit({}, options);
    stack.types();
    stack.openFunction({});
    stack.variable("x", "int", S::locationList(0));
    stack.module.close().endUnit();
    EXPECT_EQ(stack.nameAt(0x1010, 0x7008), "x");
}

TEST_F(StackQueryTest, AListThatIsCutOffAsserts) {
    stack.listEntry(0x1000, 0x1010, S::operation(DW_OP_breg7, 8));
    const Bytes whole = stack.lists.bytes();
    for (const std::size_t size : {std::size_t(1), std::size_t(17), whole.size() - 1, whole.size()}) {
        StackModule cut;
        cut.listsBytes = Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        cut.module.unit();
        cut.types();
        cut.openFunction();
        cut.variable("x", "int", S::locationList(0));
        cut.module.close().endUnit();
        expectLog("ASSERTION FAILED: 'false'");
        EXPECT_EQ(cut.ask(0x1020, 0x7008), status_False) << size;
    }
}

TEST_F(StackQueryTest, AListPastTheSectionAsserts) {
    stack.listEnd();
    stack.module.unit();
    stack.types();
    stack.openFunction();
    stack.variable("x", "int", S::locationList(0x1000));
    stack.module.close().endUnit();
    expectLog("ASSERTION FAILED: 'false'");
    EXPECT_EQ(stack.ask(pc, 0x7008), status_False);
}

TEST_F(StackQueryTest, AListThatNobodyNamesAsserts) {
    intAt(-20);
    stack.loader();
    LocationLists lists(nullptr);
    SectionWalker out;
    EXPECT_EQ(stack.ask(pc, cfa - 20), status_Ok);
    expectLog("ASSERTION FAILED: 'locOffsetAttr'");
    EXPECT_FALSE(lists.findLocationListEntry(*stack.loader().units().begin()->second, nullptr, 8, pc, out));
}

TEST_F(StackQueryTest, WithoutListsAVariableThatNamesOneIsAtZero) {
    stack.module.unit();
    stack.types();
    stack.openFunction();
    stack.variable("x", "int", S::locationList(0));
    stack.module.close().endUnit();
    EXPECT_EQ(stack.nameAt(pc, 0), "x");
}

// --- The answer

TEST_F(StackQueryTest, TheAnswerIsALocalVariableWithoutAScope) {
    stack.module.unit().endUnit();
    intAt(-20);
    ASSERT_EQ(stack.nameAt(pc, cfa - 18), "x");
    auto* symbol = dynamic_cast<DWARFSymbol*>(stack.found.get());
    ASSERT_NE(symbol, nullptr);
    EXPECT_EQ(symbol->visibility(), symbol_visibility_local);
    EXPECT_EQ(symbol->kind(), symbol_kind_variable);
    EXPECT_EQ(symbol->scope(), nullptr);
    EXPECT_EQ(symbol->value(), cfa - 20);
    EXPECT_EQ(symbol->id(), stack.module.dwarf.unitOffset(1));
    SymMgrObjectPtr<IAddress> address;
    symbol->address(address);
    EXPECT_EQ(address->pseudoAddr(), cfa - 20);
    ICompUnitDetails* unit = nullptr;
    EXPECT_EQ(symbol->compUnitDetails(unit), status_Ok);
    EXPECT_EQ(unit->getOffset(), stack.module.dwarf.unitOffset(1));
}

TEST_F(StackQueryTest, TheAnswerCoversNothing) {
    intAt(-20);
    ASSERT_EQ(stack.nameAt(pc, cfa - 20), "x");
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
    stack.found->ranges(ranges);
    ASSERT_TRUE(ranges);
    EXPECT_FALSE(ranges->current());
    EXPECT_FALSE(ranges->next());
    ranges = nullptr;
    stack.found->thunkRanges(ranges);
    ASSERT_TRUE(ranges);
    EXPECT_FALSE(ranges->current());
    SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLine>>> lines;
    stack.found->sourceLines(lines, nullptr, nullptr);
    ASSERT_TRUE(lines);
    EXPECT_FALSE(lines->current());
}

TEST_F(StackQueryTest, TheAnswerKnowsItsDeclaration) {
    const unsigned long long program = stack.module.lineProgram({"a.c", "b.c"});
    stack.module.unit(M::lines(program));
    stack.types();
    stack.openFunction();
    stack.variable("x", "int",
                   S::atFrameBase(-20) + M::declared(2, 7) +
                       DwarfAttrs{{DW_AT_decl_column, DW_FORM_data1, 3},
                                  {DW_AT_VEXOR_position_extra, DW_FORM_data1, 9}});
    stack.variable("y", "int", S::atFrameBase(-24) + M::declared(2, 0));
    stack.module.close().endUnit();
    ASSERT_EQ(stack.nameAt(pc, cfa - 20), "x");
    SymMgrObjectPtr<ISourceLocation> location;
    ASSERT_EQ(stack.found->sourceLocation(location), status_Ok);
    EXPECT_STREQ(location->file()->name(), "b.c");
    EXPECT_EQ(location->line(), 7u);
    EXPECT_EQ(location->column(), 3u);
    ASSERT_EQ(stack.nameAt(pc, cfa - 24), "y");
    location = nullptr;
    EXPECT_EQ(stack.found->sourceLocation(location), status_False);
}

TEST_F(StackQueryTest, ALinkageNameComesBeforeThePlainOne) {
    stack.module.unit();
    stack.types();
    stack.openFunction();
    stack.variable("a", "char", S::atFrameBase(-1) + DwarfAttrs{{DW_AT_linkage_name, DW_FORM_string, "la"}});
    stack.variable("b", "char",
                   S::atFrameBase(-2) + DwarfAttrs{{DW_AT_MIPS_linkage_name, DW_FORM_string, "mb"},
                                                   {DW_AT_linkage_name, DW_FORM_string, "lb"}});
    stack.module.leaf(DW_TAG_variable, M::type("char") + S::atFrameBase(-3));
    stack.module.close().endUnit();
    EXPECT_EQ(stack.nameAt(pc, cfa - 1), "la");
    EXPECT_EQ(stack.nameAt(pc, cfa - 2), "mb");
    EXPECT_EQ(stack.nameAt(pc, cfa - 3), "");
    EXPECT_TRUE(stack.found) << "a variable without a name";
}

TEST_F(StackQueryTest, ANameMayComeFromTheEntryThatIsReferredTo) {
    stack.module.unit();
    stack.types();
    stack.module.open(DW_TAG_subprogram, M::named("abstract") + DwarfAttrs{{DW_AT_inline, DW_FORM_data1, 1}});
    stack.module.leaf(DW_TAG_variable, M::named("v") + M::type("int"), "v").close();
    stack.openFunction();
    stack.module.leaf(DW_TAG_variable, M::origin("v") + S::atFrameBase(-20)).close().endUnit();
    EXPECT_EQ(stack.nameAt(pc, cfa - 17), "v");
}

TEST_F(StackQueryTest, AFortranNameLosesItsMark) {
    stack.module.unit(M::language(DW_LANG_Fortran90));
    stack.types();
    stack.openFunction();
    stack.variable("x_", "char", S::atFrameBase(-1));
    stack.variable("_BLNK_", "char", S::atFrameBase(-2));
    stack.variable("y", "char", S::atFrameBase(-3));
    stack.module.close().endUnit();
    EXPECT_EQ(stack.nameAt(pc, cfa - 1), "x");
    EXPECT_EQ(stack.nameAt(pc, cfa - 2), "_BLNK_");
    EXPECT_EQ(stack.nameAt(pc, cfa - 3), "y");
}

TEST_F(StackQueryTest, ANameOfAnotherLanguageKeepsItsEnd) {
    stack.module.unit();
    stack.types();
    stack.openFunction();
    stack.variable("x_", "char", S::atFrameBase(-1));
    stack.module.close().endUnit();
    EXPECT_EQ(stack.nameAt(pc, cfa - 1), "x_");
}

// --- The walk

/// Notes what it sees, and ends the walk at a tag.
class RecordingVisitor : public DIEVisitor {
public:
    explicit RecordingVisitor(unsigned long long last) : m_last(last) {}
    bool visit(SectionWalker&, DWARFCompilationUnit&, AttrBindings& attrBindings) override {
        seen.emplace_back(depth(), attrBindings.tag());
        return attrBindings.tag() != m_last;
    }

    std::vector<std::pair<unsigned, unsigned long long>> seen;

private:
    unsigned long long m_last;
};

TEST_F(StackQueryTest, AWalkSeesEveryEntryWithItsDepth) {
    DwarfModule& module = stack.module;
    module.unit().open(DW_TAG_lexical_block).leaf(DW_TAG_label).open(DW_TAG_module).leaf(DW_TAG_variable);
    module.close().close().leaf(DW_TAG_typedef).endUnit();
    stack.loader();
    module.symbols();
    DWARFCompilationUnit& unit = *stack.loader().units().begin()->second;
    const auto walk = [&unit](RecordingVisitor& visitor) {
        SectionWalker walker = unit.walkerAt(unit.firstEntryOffset());
        return visitDIEs(walker, unit, visitor);
    };
    using Seen = std::pair<unsigned, unsigned long long>;
    RecordingVisitor all(0);
    EXPECT_TRUE(walk(all));
    EXPECT_THAT(all.seen, ::testing::ElementsAre(Seen(0, DW_TAG_compile_unit), Seen(1, DW_TAG_lexical_block),
                                                 Seen(2, DW_TAG_label), Seen(2, DW_TAG_module),
                                                 Seen(3, DW_TAG_variable), Seen(1, DW_TAG_typedef)));
    RecordingVisitor some(DW_TAG_module);
    EXPECT_FALSE(walk(some));
    EXPECT_EQ(some.seen.size(), 4u);
}

// --- What was asked before

TEST_F(StackQueryTest, AskingTwiceReadsNothingAgain) {
    intAt(-20);
    ASSERT_EQ(stack.nameAt(pc, cfa - 20), "x");
    const SymMgrObjectPtr<ISymbol> first = stack.found;
    const auto reads = stack.module.helper().reads;
    ASSERT_EQ(stack.nameAt(pc, cfa - 20), "x");
    EXPECT_EQ(stack.found, first);
    EXPECT_EQ(stack.module.helper().reads, reads);
}

// The frame tells enough: it is of one function.
TEST_F(StackQueryTest, AKnownAnswerIsGivenWhateverTheFunction) {
    intAt(-20);
    ASSERT_EQ(stack.nameAt(pc, cfa - 20), "x");
    EXPECT_EQ(stack.askOf(nullptr, 0x5000, cfa - 20), status_Ok);
    EXPECT_STREQ(stack.found->rawName(), "x");
    EXPECT_EQ(stack.askOf(nullptr, 0x5000, cfa - 19), status_False);
}

TEST_F(StackQueryTest, AnotherFrameIsAnotherQuestion) {
    intAt(-20);
    ASSERT_EQ(stack.nameAt(pc, cfa - 20), "x");
    stack.setRegisters(0x7000, 0x8001);
    EXPECT_EQ(stack.askOf(nullptr, pc, cfa - 20), status_False);
    stack.setRegisters(0x7001, 0x8000);
    EXPECT_EQ(stack.askOf(nullptr, pc, cfa - 20), status_False);
    stack.setRegisters(0x7000, 0x8000);
    EXPECT_EQ(stack.askOf(nullptr, pc, cfa - 20), status_Ok);
}

TEST_F(StackQueryTest, WhatWasNotFoundIsSearchedAgain) {
    intAt(-20);
    EXPECT_EQ(stack.ask(pc, 0x100), status_False);
    const int reads = stack.module.helper().reads[section_debug_info];
    EXPECT_EQ(stack.ask(pc, 0x100), status_False);
    EXPECT_EQ(stack.module.helper().reads[section_debug_info], reads + 1);
}

TEST_F(StackQueryTest, TheFlagMayBeLeftOut) {
    intAt(-20);
    stack.loader();
    DWARFSymbol* function = stack.module.symbolAt(pc);
    SymMgrObjectPtr<IAddress> address;
    ASSERT_EQ(stack.module.format->getAddress(address, pc), status_Ok);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(stack.loader().findStackVariable(function, address, cfa - 20, stack.context, stack.found,
                                                   nullptr),
                  status_Ok);
}

TEST_F(StackQueryTest, AnAnswerOutlivesTheLoader) {
    SymMgrObjectPtr<ISymbol> answer;
    {
        StackModule gone;
        gone.module.unit();
        gone.types();
        gone.openFunction();
        gone.variable("x", "int", S::atFrameBase(-20));
        gone.module.close().endUnit();
        ASSERT_EQ(gone.nameAt(pc, cfa - 20), "x");
        answer = gone.found;
    }
    SymMgrObjectPtr<ISourceLocation> location;
    EXPECT_STREQ(answer->rawName(), "x");
    EXPECT_EQ(answer->sourceLocation(location), status_False);
}

TEST_F(StackQueryTest, ThreadsMayAskAtOnce) {
    intAt(-20);
    stack.loader();
    DWARFSymbol* function = stack.module.symbolAt(pc);
    SymMgrObjectPtr<IAddress> address;
    ASSERT_EQ(stack.module.format->getAddress(address, pc), status_Ok);
    IAddress* code = address;
    std::vector<std::thread> threads;
    std::vector<int> hits(4, 0);
    for (int& hit : hits) {
        threads.emplace_back([&hit, function, code, this] {
            StackFrameContext frame;
            frame.addRef();
            for (unsigned i = 0; i < 500; ++i) {
                frame.setRegister(0, 0x7000 + i / 50);
                SymMgrObjectPtr<ISymbol> out;
                if (stack.loader().findStackVariable(function, code, cfa - 20 + i / 50, &frame, out,
                                                     nullptr) == status_Ok)
                    hit += out->kind() == symbol_kind_variable;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (const int hit : hits)
        EXPECT_EQ(hit, 500);
}

TEST_F(StackQueryTest, MemoryThatRunsOutIsReportedAndNothingIsLost) {
    if (!canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps the allocator";
    allowLog("Out of memory");
    unsigned long number = 0;
    for (bool hasFailed = true; hasFailed; ++number) {
        StackModule poor;
        poor.module.unit();
        poor.types();
        poor.openFunction();
        poor.variable("x", "int", S::atFrameBase(-20));
        poor.module.close().endUnit();
        poor.loader();
        DWARFSymbol* function = poor.module.symbolAt(pc);
        SymMgrObjectPtr<IAddress> address;
        ASSERT_EQ(poor.module.format->getAddress(address, pc), status_Ok);
        status_t status = status_Ok;
        {
            const FailingAllocation failing(number + 1);
            status = poor.loader().findStackVariable(function, address, cfa - 20, poor.context, poor.found,
                                                     nullptr);
            hasFailed = failing.happened();
        }
        EXPECT_EQ(status, hasFailed ? status_OutOfMemory : status_Ok) << number;
        ASSERT_LT(number, 1000u);
    }
    EXPECT_GT(number, 3u);
}

} // namespace
} // namespace ORN_3_30::test
