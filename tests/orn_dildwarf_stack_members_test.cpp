// Which member of a structure lies at an address of the stack.

#include "support/orn_fixture.h"
#include "support/stack_module.h"

namespace ORN_3_30::test {
namespace {

using M = DwarfModule;
using S = StackModule;
using Bytes = S::Bytes;

constexpr unsigned long long pc = 0x1010;
constexpr unsigned long long begin = 0x7008 - 0x100;

/// The variable v lies 0x100 below the frame. Types are built first, then ask() adds the function.
class StackMemberTest : public OrnTest {
protected:
    StackMemberTest() {
        stack.module.unit();
        stack.types();
    }

    void openStructure(const char* label, unsigned size, uint64_t tag = DW_TAG_structure_type) {
        stack.module.open(tag, M::named(label) + S::size(size), label);
    }
    void member(const char* name, const char* type, const DwarfAttrs& place) {
        stack.module.leaf(DW_TAG_member, M::named(name) + M::type(type) + place);
    }
    void member(const char* name, const char* type, unsigned offset) {
        member(name, type, S::memberAt(offset));
    }
    void close() { stack.module.close(); }

    /// Two ints.
    void pair(const char* label = "pair") {
        openStructure(label, 8);
        member("a", "int", 0u);
        member("b", "int", 4);
        close();
    }

    std::string at(unsigned long long offset, const char* type) {
        if (!m_isClosed) {
            stack.openFunction();
            stack.variable("v", type, S::atFrameBase(-0x100));
            stack.module.close().endUnit();
            m_isClosed = true;
        }
        return stack.nameAt(pc, begin + offset);
    }

    StackModule stack;

private:
    bool m_isClosed = false;
};

TEST_F(StackMemberTest, AMemberIsNamedBehindItsVariable) {
    pair();
    EXPECT_EQ(at(0, "pair"), "v::a");
    EXPECT_TRUE(stack.isMember);
    EXPECT_EQ(at(3, "pair"), "v::a");
    EXPECT_EQ(at(4, "pair"), "v::b");
    EXPECT_EQ(at(8, "pair"), "");
}

TEST_F(StackMemberTest, TheAddressStaysTheVariables) {
    pair();
    ASSERT_EQ(at(4, "pair"), "v::b");
    EXPECT_EQ(dynamic_cast<DWARFSymbol&>(*stack.found).value(), begin);
}

TEST_F(StackMemberTest, AKnownMemberIsStillOne) {
    pair();
    ASSERT_EQ(at(4, "pair"), "v::b");
    EXPECT_EQ(at(4, "pair"), "v::b");
    EXPECT_TRUE(stack.isMember);
}

TEST_F(StackMemberTest, MembersAreFoundLevelByLevel) {
    pair();
    openStructure("outer", 20);
    member("x", "int", 0u);
    member("p", "pair", 4);
    member("q", "pair", 12);
    close();
    EXPECT_EQ(at(0, "outer"), "v::x");
    EXPECT_EQ(at(4, "outer"), "v::p::a");
    EXPECT_EQ(at(15, "outer"), "v::q::a");
    EXPECT_EQ(at(16, "outer"), "v::q::b");
}

TEST_F(StackMemberTest, ClassesAreStructures) {
    openStructure("c", 4, DW_TAG_class_type);
    member("m", "int", 0u);
    close();
    EXPECT_EQ(at(0, "c"), "v::m");
}

TEST_F(StackMemberTest, OfAUnionTheFirstMemberThatCoversWins) {
    openStructure("u", 4, DW_TAG_union_type);
    member("c", "char", DwarfAttrs());
    member("i", "int", DwarfAttrs());
    close();
    EXPECT_EQ(at(0, "u"), "v::c");
    EXPECT_EQ(at(1, "u"), "v::i");
}

TEST_F(StackMemberTest, InAStructureAMemberWithoutAPlaceIsPassed) {
    openStructure("s", 4);
    member("shared", "int", DwarfAttrs());
    member("own", "int", 0u);
    close();
    EXPECT_EQ(at(0, "s"), "v::own");
}

TEST_F(StackMemberTest, PaddingBelongsToWhatHoldsIt) {
    openStructure("inner", 8);
    member("c", "char", 0u);
    member("i", "int", 4);
    close();
    openStructure("outer", 16);
    member("c", "char", 0u);
    member("n", "inner", 8);
    close();
    EXPECT_EQ(at(9, "outer"), "v::n");
    EXPECT_TRUE(stack.isMember);
    EXPECT_EQ(at(5, "outer"), "v");
    EXPECT_FALSE(stack.isMember);
}

TEST_F(StackMemberTest, AnArrayOfStructuresIsOneMember) {
    pair();
    stack.module.open(DW_TAG_array_type, M::type("pair"), "pairs");
    stack.module.leaf(DW_TAG_subrange_type, {{DW_AT_upper_bound, DW_FORM_data1, 2}}).close();
    openStructure("s", 24);
    member("list", "pairs", 0u);
    close();
    EXPECT_EQ(at(20, "s"), "v::list");
}

TEST_F(StackMemberTest, TypedefsAndQualifiersAreLookedThrough) {
    pair();
    stack.module.leaf(DW_TAG_typedef, M::named("t") + M::type("pair"), "t");
    stack.module.leaf(DW_TAG_const_type, M::type("t"), "c");
    EXPECT_EQ(at(4, "c"), "v::b");
}

TEST_F(StackMemberTest, APointerIsSearchedLikeWhatItPointsTo) {
    pair();
    stack.module.leaf(DW_TAG_pointer_type, M::type("pair") + S::size(8), "p");
    EXPECT_EQ(at(4, "p"), "v::b");
    EXPECT_TRUE(stack.isMember);
}

TEST_F(StackMemberTest, ASearchThatMeetsItselfEnds) {
    stack.module.leaf(DW_TAG_pointer_type, M::type("node") + S::size(8), "p");
    openStructure("node", 16);
    member("value", "int", 0u);
    member("next", "p", 8);
    close();
    EXPECT_EQ(at(0, "node"), "v::value");
    EXPECT_EQ(at(8, "node"), "v::next");
    EXPECT_TRUE(stack.isMember);
}

TEST_F(StackMemberTest, PlacesAreBlocksOrConstants) {
    openStructure("s", 64);
    member("block", "int", {{DW_AT_data_member_location, DW_FORM_block1, Bytes{DW_OP_plus_uconst, 0}}});
    member("udata", "int", {{DW_AT_data_member_location, DW_FORM_udata, 4}});
    member("sdata", "int", {{DW_AT_data_member_location, DW_FORM_sdata, 8}});
    member("data4", "int", {{DW_AT_data_member_location, DW_FORM_data4, 12}});
    member("long", "int", {{DW_AT_data_member_location, DW_FORM_block1, Bytes{DW_OP_plus_uconst, 0x90, 0}}});
    close();
    EXPECT_EQ(at(0, "s"), "v::block");
    EXPECT_EQ(at(4, "s"), "v::udata");
    EXPECT_EQ(at(8, "s"), "v::sdata");
    EXPECT_EQ(at(12, "s"), "v::data4");
    EXPECT_EQ(at(16, "s"), "v::long");
}

TEST_F(StackMemberTest, APlaceThatIsComputedOrListedEndsTheSearch) {
    const DwarfAttrs places = {
        {DW_AT_data_member_location, DW_FORM_block1, Bytes{DW_OP_constu, 0}},
        {DW_AT_data_member_location, DW_FORM_block1, Bytes{}},
        {DW_AT_data_member_location, DW_FORM_exprloc, Bytes{DW_OP_plus_uconst, 0}},
        {DW_AT_data_member_location, DW_FORM_sec_offset, 0},
    };
    for (const DwarfAttr& place : places) {
        StackModule one;
        one.module.unit();
        one.types();
        one.module.open(DW_TAG_structure_type, S::size(8), "s");
        one.module.leaf(DW_TAG_member, M::named("odd") + M::type("char") + DwarfAttrs{place});
        one.module.leaf(DW_TAG_member, M::named("behind") + M::type("int") + S::memberAt(0)).close();
        one.openFunction();
        one.variable("v", "s", S::atFrameBase(-0x100));
        one.module.close().endUnit();
        EXPECT_EQ(one.nameAt(pc, begin), "v");
        EXPECT_FALSE(one.isMember);
    }
}

TEST_F(StackMemberTest, AMemberBehindTheAddressEndsTheSearch) {
    openStructure("s", 8);
    member("late", "int", 4);
    member("early", "int", 0u);
    close();
    EXPECT_EQ(at(0, "s"), "v");
    EXPECT_EQ(at(4, "s"), "v::late");
}

TEST_F(StackMemberTest, AMemberOfATypeThatCannotBeReadIsOneByte) {
    openStructure("s", 8);
    stack.module.leaf(DW_TAG_member, M::named("odd") + S::memberAt(0) +
                                         DwarfAttrs{{DW_AT_type, DW_FORM_ref_addr, 0x100000}});
    stack.module.leaf(DW_TAG_member, M::named("untyped") + S::memberAt(1));
    close();
    EXPECT_EQ(at(0, "s"), "v::odd");
    EXPECT_EQ(at(1, "s"), "v::untyped");
    EXPECT_EQ(at(2, "s"), "v");
}

TEST_F(StackMemberTest, AStructureThatIsDefinedInsideEndsTheSearch) {
    openStructure("s", 8);
    member("before", "int", 0u);
    stack.module.leaf(DW_TAG_structure_type, S::size(4));
    member("behind", "int", 4);
    close();
    EXPECT_EQ(at(0, "s"), "v::before");
    EXPECT_EQ(at(4, "s"), "v");
}

TEST_F(StackMemberTest, AFunctionWithParametersEndsTheSearchAndOneWithoutDoesNot) {
    openStructure("s", 12);
    member("first", "int", 0u);
    stack.module.leaf(DW_TAG_subprogram, M::named("plain"));
    member("second", "int", 4);
    stack.module.open(DW_TAG_subprogram, M::named("method")).leaf(DW_TAG_formal_parameter).close();
    member("third", "int", 8);
    close();
    EXPECT_EQ(at(4, "s"), "v::second");
    EXPECT_EQ(at(8, "s"), "v");
}

TEST_F(StackMemberTest, OtherEntriesArePassed) {
    openStructure("s", 4);
    stack.module.leaf(DW_TAG_inheritance, M::type("int") + S::memberAt(0));
    member("m", "int", 0u);
    close();
    EXPECT_EQ(at(0, "s"), "v::m");
}

TEST_F(StackMemberTest, WhatStandsBehindTheStructureIsNotItsMember) {
    stack.module.leaf(DW_TAG_structure_type, M::named("empty") + S::size(4), "empty");
    member("stray", "int", 0u);
    EXPECT_EQ(at(0, "empty"), "v");
    EXPECT_FALSE(stack.isMember);
}

TEST_F(StackMemberTest, AMemberWithoutANameAddsNoLevel) {
    pair();
    openStructure("s", 8);
    stack.module.leaf(DW_TAG_member, M::type("pair") + S::memberAt(0));
    close();
    EXPECT_EQ(at(4, "s"), "v::b");
}

TEST_F(StackMemberTest, AStructureOfAnotherUnitIsSearchedThere) {
    pair("far");
    stack.module.endUnit().unit();
    EXPECT_EQ(at(4, "far"), "v::b");
}

} // namespace
} // namespace ORN_3_30::test
