// Damaged debug sections through the whole loader: every prefix and every changed byte loads and answers.

#include "debug_sections.h"
#include "support/dwarf_module.h"
#include "support/orn_fixture.h"

#include <chrono>
#include <numeric>

namespace ORN_3_30::test {
namespace {

using orn_fuzz::askEverything;
using orn_fuzz::DebugSections;
using orn_test::DwarfValue;
using M = DwarfModule;
using Bytes = std::vector<std::uint8_t>;

class DamagedDwarfTest : public OrnTest {
protected:
    DamagedDwarfTest() {
        allowLog("");
        setLogLevel(errorLevel + 1);
    }

    /// Something of everything that symbols are made of.
    static void build(DwarfModule& module) {
        const unsigned long long lines = module.lineProgram({"a.c", "b.h"}, 0x1000, 4);
        module.pair(0x1100, 0x1120).pair(~0ULL, 0x1000).pair(0x150, 0x160).pair(0, 0);
        module.unit(M::lines(lines) + DwarfAttrs{{DW_AT_producer, DW_FORM_strp, "GNU C 8.3.0"},
                                                 {DW_AT_low_pc, DW_FORM_addr, 0}});
        module.leaf(DW_TAG_base_type, M::named("int") + DwarfAttrs{{DW_AT_byte_size, DW_FORM_data1, 4}},
                    "int");
        module.leaf(DW_TAG_typedef, near(DW_AT_type, "int"), "t");
        module.open(DW_TAG_structure_type, DwarfAttrs{{DW_AT_sibling, DW_FORM_ref1, DwarfValue::ref("v")}},
                    "s");
        module.leaf(DW_TAG_member, M::named("m") + near(DW_AT_type, "t") +
                                       DwarfAttrs{{DW_AT_data_member_location, DW_FORM_data1, 0}});
        module.leaf(DW_TAG_subprogram, M::named("me") + M::declared(2, 3), "method").close();
        module.leaf(DW_TAG_variable, M::named("v") + M::place(0x2000) + near(DW_AT_type, "s"), "v");
        module.open(DW_TAG_array_type, near(DW_AT_type, "int"), "a");
        module.leaf(DW_TAG_subrange_type, {{DW_AT_upper_bound, DW_FORM_sdata, 9}}).close();
        module.leaf(DW_TAG_variable, M::named("w") + M::place(0x2100) + near(DW_AT_type, "a"));
        module.leaf(DW_TAG_subprogram,
                    near(DW_AT_specification, "method") + DwarfAttrs{{DW_AT_inline, DW_FORM_data1, 1}},
                    "abstract");
        module.openFunction("f", 0x1000, 0x200).open(DW_TAG_lexical_block);
        module.open(DW_TAG_inlined_subroutine,
                    M::origin("abstract") + M::code(0x1010, 0x40) + M::called(1, 5));
        module
            .leaf(DW_TAG_inlined_subroutine,
                  near(DW_AT_abstract_origin, "abstract") + M::ranges(0) + M::called(2, 6))
            .close();
        module.leaf(DW_TAG_label, M::function("l", 0x1020, 0)).close().close();
        module.leaf(DW_TAG_subprogram, near(DW_AT_abstract_origin, "abstract") + M::ranges(0)).endUnit();
        module.unit(M::language(DW_LANG_Fortran90)).openFunction("g_", 0x3000, 0x20);
        module.leaf(DW_TAG_entry_point, M::function("e_", 0x3010, 0)).close().endUnit();
    }
    /// A reference within the unit.
    static DwarfAttrs near(unsigned attribute, const char* label) {
        return {{attribute, DW_FORM_ref1, DwarfValue::ref(label)}};
    }

    /// The least of everything, small enough for each byte to take each value.
    static void buildSmall(DwarfModule& module) {
        orn_test::DwarfUnitOptions narrow;
        narrow.addressSize = 4;
        module.dwarf.beginLines().includeDirectory("i").endIncludeDirectories().file("a", 1).endFiles();
        module.dwarf.extended(DW_LNE_set_address, {0, 0x10, 0, 0}).special(1, 2).endSequence().endLines();
        module.dwarf.ranges().u32(0x1004).u32(0x1008).u32(0).u32(0);
        module.unit(M::lines(0) + DwarfAttrs{{DW_AT_producer, DW_FORM_strp, "GNU "}}, narrow);
        module.leaf(DW_TAG_base_type, {{DW_AT_byte_size, DW_FORM_data1, 4}}, "t");
        module.leaf(DW_TAG_variable, M::named("v") + near(DW_AT_type, "t") +
                                         DwarfAttrs{{DW_AT_location, DW_FORM_exprloc,
                                                     std::vector<std::uint8_t>{DW_OP_addr, 0, 0x20, 0, 0}}});
        module.leaf(DW_TAG_subprogram,
                    M::named("a") + DwarfAttrs{{DW_AT_inline, DW_FORM_data1, 1},
                                               {DW_AT_decl_file, DW_FORM_data1, 1},
                                               {DW_AT_decl_line, DW_FORM_udata, 9}},
                    "a");
        module.openFunction("f", 0x1000, 0x20);
        module.leaf(DW_TAG_inlined_subroutine,
                    near(DW_AT_abstract_origin, "a") + M::ranges(0) + M::called(1, 5));
        module.close().endUnit();
    }
    template <typename Build>
    static DebugSections sectionsOf(const Build& build) {
        DwarfModule module;
        build(module);
        DebugSections sections;
        for (const section_kind_t kind : {section_debug_info, section_debug_abbrev, section_debug_str,
                                          section_debug_line, section_debug_ranges}) {
            SymMgrObjectPtr<ISectionData> data;
            module.helper().getSectionData(data, kind);
            sections[kind].assign(data->getData(), data->getData() + data->getSize());
        }
        return sections;
    }
    static void expectEveryPrefixAnswers(section_kind_t kind) {
        DebugSections damaged = sectionsOf(build);
        EXPECT_GT(askEverything(damaged), 10u);
        for (Bytes& bytes = damaged[kind]; !bytes.empty();) {
            bytes.pop_back();
            askEverything(damaged);
        }
    }
    static void askChanged(DebugSections& sections, section_kind_t kind,
                           const std::vector<unsigned>& changes) {
        for (std::uint8_t& byte : sections[kind]) {
            const std::uint8_t sound = byte;
            for (const unsigned change : changes) {
                byte = static_cast<std::uint8_t>(sound ^ change);
                askEverything(sections);
            }
            byte = sound;
        }
    }
    /// Each byte takes each value in the small module, and has each of its bits changed in the other.
    static void expectEveryChangeAnswers(section_kind_t kind) {
        std::vector<unsigned> changes(255);
        std::iota(changes.begin(), changes.end(), 1U);
        DebugSections small = sectionsOf(buildSmall);
        EXPECT_EQ(askEverything(small), 3u);
        askChanged(small, kind, changes);
        DebugSections damaged = sectionsOf(build);
        askChanged(damaged, kind, {1, 2, 4, 8, 0x10, 0x20, 0x40, 0x80});
    }
};

TEST_F(DamagedDwarfTest, EveryPrefixOfTheEntriesAnswers) {
    expectEveryPrefixAnswers(section_debug_info);
}

TEST_F(DamagedDwarfTest, EveryPrefixOfTheAbbreviationsAnswers) {
    expectEveryPrefixAnswers(section_debug_abbrev);
}

TEST_F(DamagedDwarfTest, EveryPrefixOfTheTextsAnswers) {
    expectEveryPrefixAnswers(section_debug_str);
}

TEST_F(DamagedDwarfTest, EveryPrefixOfTheLineProgramsAnswers) {
    expectEveryPrefixAnswers(section_debug_line);
}

TEST_F(DamagedDwarfTest, EveryPrefixOfTheRangeListsAnswers) {
    expectEveryPrefixAnswers(section_debug_ranges);
}

TEST_F(DamagedDwarfTest, EveryChangedByteOfTheEntriesAnswers) {
    expectEveryChangeAnswers(section_debug_info);
}

TEST_F(DamagedDwarfTest, EveryChangedByteOfTheAbbreviationsAnswers) {
    expectEveryChangeAnswers(section_debug_abbrev);
}

TEST_F(DamagedDwarfTest, EveryChangedByteOfTheTextsAnswers) {
    expectEveryChangeAnswers(section_debug_str);
}

TEST_F(DamagedDwarfTest, EveryChangedByteOfTheLineProgramsAnswers) {
    expectEveryChangeAnswers(section_debug_line);
}

TEST_F(DamagedDwarfTest, EveryChangedByteOfTheRangeListsAnswers) {
    expectEveryChangeAnswers(section_debug_ranges);
}

/// Seconds that a load of a module takes.
template <typename Build>
double secondsOf(const Build& build) {
    DwarfModule module;
    build(module);
    module.scope();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(module.load(symbol_kind_all), status_Ok);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

TEST_F(DamagedDwarfTest, ManyFunctionsThatShareALongRangeListAreReadInTime) {
    const auto build = [](DwarfModule& module) {
        for (unsigned i = 0; i < 20000; ++i)
            module.pair(0x8000 - 2 * (i * 7919 % 10000), 0x8001 - 2 * (i * 7919 % 10000));
        module.unit();
        for (unsigned i = 0; i < 5000; ++i)
            module.leaf(DW_TAG_subprogram, M::named("f") + M::ranges(0));
        module.endUnit();
    };
    EXPECT_LT(secondsOf(build), 20.0);
}

} // namespace
} // namespace ORN_3_30::test
