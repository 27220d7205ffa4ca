// Damaged frames, location lists, entries and types under the query for stack variables: every prefix and
// every changed byte answers, and no shape takes time that grows faster than the file.

#include "support/orn_fixture.h"
#include "support/stack_module.h"

#include <chrono>

namespace ORN_3_30::test {
namespace {

using M = DwarfModule;
using S = StackModule;
using Bytes = S::Bytes;

class DamagedStackTest : public OrnTest {
protected:
    DamagedStackTest() {
        allowLog("");
        setLogLevel(errorLevel + 1);
    }

    static void build(StackModule& stack) {
        stack.frames.beginFde(0, 0x1000, 0x100);
        stack.frames.advance(1).defCfaOffset(16).rememberState().advance(0x30).restoreState().end();
        stack.listEntry(0x1000, 0x1010, S::operation(DW_OP_fbreg, -20));
        stack.lists.u64(~0ULL).u64(0x1000);
        stack.listEntry(0x10, 0x20, S::operation(DW_OP_breg7, -40)).listEnd();
        stack.module.unit();
        stack.types();
        stack.module.leaf(DW_TAG_pointer_type, M::type("s") + S::size(8), "p");
        stack.module.open(DW_TAG_structure_type, M::named("s") + S::size(16), "s");
        stack.module.leaf(DW_TAG_member, M::named("i") + M::type("int") + S::memberAt(0));
        stack.module.leaf(DW_TAG_member, M::named("next") + M::type("p") + S::memberAt(8)).close();
        stack.module.open(DW_TAG_array_type, M::type("int"), "a");
        stack.module.leaf(DW_TAG_subrange_type, {{DW_AT_upper_bound, DW_FORM_sdata, 9}}).close();
        stack.openFunction();
        stack.variable("listed", "int", S::locationList(0));
        stack.variable("s", "s", S::atFrameBase(-0x40));
        stack.module.open(DW_TAG_lexical_block);
        stack.variable("a", "a", S::atFrameBase(-0x80));
        stack.module.close().close();
        stack.module.open(DW_TAG_subprogram, M::function("g", 0x1100, 0x100) +
                                                 DwarfAttrs{{DW_AT_frame_base, DW_FORM_sec_offset, 0}});
        stack.variable("x", "int", S::atFrameBase(-4));
        stack.module.close().endUnit();
    }

    /// Asks for all that is there, at several places of the code.
    static int answers(StackModule& stack) {
        build(stack);
        stack.loader();
        int count = 0;
        for (const unsigned long long code : {0x1000, 0x1018, 0x1105}) {
            stack.functionAt = code < 0x1100 ? 0x1000 : 0x1100;
            for (const unsigned long long base : {0x7008, 0x7010, 0x7000})
                for (const unsigned offset : {0x80, 0x40, 0x38, 0x28, 0x14, 4})
                    count += stack.ask(code, base - offset) == status_Ok;
        }
        return count;
    }
    static int answersWith(section_kind_t kind, const Bytes& bytes) {
        StackModule stack;
        switch (kind) {
        case section_eh_frame:
            stack.framesBytes = bytes;
            break;
        case section_debug_loc:
            stack.listsBytes = bytes;
            break;
        default:
            build(stack);
            stack.module.replace(kind, bytes);
            stack.loader();
            stack.functionAt = 0x1000;
            int count = 0;
            for (const unsigned offset : {0x80, 0x40, 0x38, 0x14})
                count += stack.ask(0x1008, 0x7010 - offset) == status_Ok;
            return count;
        }
        return answers(stack);
    }
    static Bytes whole(section_kind_t kind) {
        StackModule stack;
        build(stack);
        stack.loader();
        SymMgrObjectPtr<ISectionData> data;
        stack.module.helper().getSectionData(data, kind);
        return Bytes(data->getData(), data->getData() + data->getSize());
    }

    static void expectEveryPrefixAnswers(section_kind_t kind) {
        const Bytes bytes = whole(kind);
        EXPECT_GT(answersWith(kind, bytes), 2);
        for (std::size_t size = 0; size < bytes.size(); ++size)
            answersWith(kind, Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size)));
    }
    static void expectEveryChangeAnswers(section_kind_t kind) {
        const Bytes bytes = whole(kind);
        for (std::size_t at = 0; at < bytes.size(); ++at) {
            for (const unsigned change : {1U, 0x40U, 0x7fU, 0x80U, 0xffU}) {
                Bytes changed = bytes;
                changed[at] = static_cast<std::uint8_t>(changed[at] ^ change);
                answersWith(kind, changed);
            }
        }
    }

    template <typename Build>
    static double secondsOf(const Build& build) {
        StackModule stack;
        build(stack);
        stack.loader();
        stack.functionAt = 0x1000;
        stack.module.symbolAt(0x1000);
        const auto begin = std::chrono::steady_clock::now();
        static_cast<void>(stack.ask(0x1010, 0x7008 - 4));
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }
};

TEST_F(DamagedStackTest, EveryPrefixOfTheFramesAnswers) {
    expectEveryPrefixAnswers(section_eh_frame);
}

TEST_F(DamagedStackTest, EveryPrefixOfTheLocationListsAnswers) {
    expectEveryPrefixAnswers(section_debug_loc);
}

TEST_F(DamagedStackTest, EveryPrefixOfTheEntriesAnswers) {
    expectEveryPrefixAnswers(section_debug_info);
}

TEST_F(DamagedStackTest, EveryChangedByteOfTheFramesAnswers) {
    expectEveryChangeAnswers(section_eh_frame);
}

TEST_F(DamagedStackTest, EveryChangedByteOfTheLocationListsAnswers) {
    expectEveryChangeAnswers(section_debug_loc);
}

TEST_F(DamagedStackTest, EveryChangedByteOfTheEntriesAnswers) {
    expectEveryChangeAnswers(section_debug_info);
}

TEST_F(DamagedStackTest, EveryChangedByteOfTheAbbreviationsAnswers) {
    expectEveryChangeAnswers(section_debug_abbrev);
}

TEST_F(DamagedStackTest, ManyVariablesThatShareALongListAreReadInTime) {
    const auto build = [](StackModule& stack) {
        for (unsigned i = 0; i < 20000; ++i)
            stack.listEntry(0x2000, 0x2001, S::operation(DW_OP_breg7, 0));
        stack.listEnd();
        stack.module.unit();
        stack.types();
        stack.openFunction();
        for (unsigned i = 0; i < 5000; ++i)
            stack.variable("x", "int", S::locationList(0));
        stack.module.close().endUnit();
    };
    EXPECT_LT(secondsOf(build), 5.0);
}

TEST_F(DamagedStackTest, BlocksThatNestDeeplyTakeNoStack) {
    const auto build = [](StackModule& stack) {
        stack.module.unit();
        stack.types();
        stack.openFunction();
        for (unsigned i = 0; i < 20000; ++i)
            stack.module.open(DW_TAG_lexical_block);
        stack.variable("x", "int", S::atFrameBase(-4));
        for (unsigned i = 0; i < 20000; ++i)
            stack.module.close();
        stack.module.close().endUnit();
    };
    EXPECT_LT(secondsOf(build), 5.0);
}

TEST_F(DamagedStackTest, StructuresThatNestDeeplyTakeNoStack) {
    const auto build = [](StackModule& stack) {
        stack.module.unit();
        stack.types();
        for (unsigned i = 0; i < 5000; ++i) {
            stack.module.open(DW_TAG_structure_type, S::size(8), "s" + std::to_string(i));
            const std::string inner = i + 1 < 5000 ? "s" + std::to_string(i + 1) : "int";
            stack.module.leaf(DW_TAG_member, M::named("m") + M::type(inner.c_str()) + S::memberAt(0)).close();
        }
        stack.openFunction();
        stack.variable("x", "s0", S::atFrameBase(-8));
        stack.module.close().endUnit();
    };
    EXPECT_LT(secondsOf(build), 5.0);
}

/// A unit of a function, whose variable is a structure, and of structures that share one long list of
/// members: a block in each reaches to the list. The search goes through all of the list in each structure,
/// and each time it ends at another member, whose type is a structure that was not searched yet.
Bytes structuresThatShareMembers(Bytes& abbreviations, unsigned count) {
    enum : unsigned { unitCode = 1, functionCode, variableCode, structureCode, passedCode, memberCode };
    orn_test::DwarfAssembler dwarf;
    dwarf.abbreviation(unitCode, DW_TAG_compile_unit, true, {});
    dwarf.abbreviation(
        functionCode, DW_TAG_subprogram, true,
        {{DW_AT_low_pc, DW_FORM_addr}, {DW_AT_high_pc, DW_FORM_data4}, {DW_AT_name, DW_FORM_string}});
    dwarf.abbreviation(variableCode, DW_TAG_variable, false,
                       {{DW_AT_location, DW_FORM_exprloc}, {DW_AT_type, DW_FORM_ref4}});
    dwarf.abbreviation(structureCode, DW_TAG_structure_type, true,
                       {{DW_AT_byte_size, DW_FORM_data4}, {DW_AT_const_value, DW_FORM_block4}});
    dwarf.abbreviation(passedCode, DW_TAG_member, false, {});
    dwarf.abbreviation(memberCode, DW_TAG_member, false,
                       {{DW_AT_data_member_location, DW_FORM_data1}, {DW_AT_type, DW_FORM_ref4}});
    dwarf.endAbbreviations();
    abbreviations = dwarf.abbrev().bytes();

    dwarf.beginUnit().entry(unitCode);
    dwarf.entry(functionCode, {0x1000, 0x100, "f"});
    dwarf.entry(variableCode, {Bytes{DW_OP_plus_uconst, 0x80, 0x20}, orn_test::DwarfValue::ref("s")});
    dwarf.null();
    orn_test::ByteAssembler& info = dwarf.info();
    const auto structure = [&](const std::string& label, unsigned size) {
        info.define(label).uleb(structureCode).u32(size);
        const std::string behind = label + " block";
        info.difference("members", behind, 4).define(behind);
    };
    structure("s", 2 * count);
    for (unsigned i = 0; i < count; ++i)
        structure("s" + std::to_string(i), i);
    info.define("members");
    for (unsigned i = 0; i < count; ++i)
        info.uleb(passedCode);
    for (unsigned i = 0; i < count; ++i)
        dwarf.entry(memberCode, {1, orn_test::DwarfValue::ref("s" + std::to_string(i))});
    dwarf.null().null().endUnit();
    return info.bytes();
}

TEST_F(DamagedStackTest, StructuresThatShareALongListOfMembersAreSearchedInTime) {
    constexpr unsigned count = 8000;
    StackModule stack;
    Bytes abbreviations;
    const Bytes entries = structuresThatShareMembers(abbreviations, count);
    stack.module.replace(section_debug_info, entries);
    stack.module.replace(section_debug_abbrev, abbreviations);
    stack.loader();
    stack.functionAt = 0x1000;
    ASSERT_NE(stack.module.symbolAt(0x1000), nullptr);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(stack.ask(0x1010, 0x1000 + count - 2), status_Ok);
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count(), 5.0);
    EXPECT_TRUE(stack.isMember);
}

} // namespace
} // namespace ORN_3_30::test
