// Damaged debug sections through the whole loader: every prefix and every changed byte loads and answers.

#include "orn/source.h"
#include "support/dwarf_module.h"
#include "support/orn_fixture.h"

#include <chrono>

namespace ORN_3_30::test {
namespace {

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
        module.unit(M::lines(lines) + M::producer("GNU C 8.3.0") +
                    DwarfAttrs{{DW_AT_low_pc, DW_FORM_addr, 0}});
        module.leaf(DW_TAG_base_type, M::named("int") + DwarfAttrs{{DW_AT_byte_size, DW_FORM_data1, 4}},
                    "int");
        module.leaf(DW_TAG_typedef, M::type("int"), "t");
        module.open(DW_TAG_structure_type, DwarfAttrs{{DW_AT_sibling, DW_FORM_ref4, DwarfValue::ref("v")}},
                    "s");
        module.leaf(DW_TAG_member, M::named("m") + M::type("t") +
                                       DwarfAttrs{{DW_AT_data_member_location, DW_FORM_data1, 0}});
        module.leaf(DW_TAG_subprogram, M::named("method") + M::declared(2, 3), "method").close();
        module.leaf(DW_TAG_variable, M::named("v") + M::place(0x2000) + M::type("s"), "v");
        module.open(DW_TAG_array_type, M::type("int"), "a");
        module.leaf(DW_TAG_subrange_type, {{DW_AT_upper_bound, DW_FORM_sdata, 9}}).close();
        module.leaf(DW_TAG_variable, M::named("w") + M::place(0x2100) + M::type("a"));
        module.leaf(DW_TAG_subprogram, M::declaredBy("method") + DwarfAttrs{{DW_AT_inline, DW_FORM_data1, 1}},
                    "abstract");
        module.openFunction("f", 0x1000, 0x200).open(DW_TAG_lexical_block);
        module.open(DW_TAG_inlined_subroutine,
                    M::origin("abstract") + M::code(0x1010, 0x40) + M::called(1, 5));
        module.leaf(DW_TAG_inlined_subroutine, M::origin("abstract") + M::ranges(0) + M::called(2, 6))
            .close();
        module.leaf(DW_TAG_label, M::function("l", 0x1020, 0)).close().close();
        module.leaf(DW_TAG_subprogram, M::origin("abstract") + M::ranges(0)).endUnit();
        module.unit(M::language(DW_LANG_Fortran90)).openFunction("g_", 0x3000, 0x20);
        module.leaf(DW_TAG_entry_point, M::function("e_", 0x3010, 0)).close().endUnit();
    }

    /// Asks for all that there is, a few levels deep. Gives how many symbols were seen.
    static std::size_t visit(IScope& scope, unsigned level) {
        SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
        static_cast<void>(scope.symbolRanges(ranges, 0, ~0ULL, symbol_kind_all));
        std::size_t count = 0;
        for (auto range = ranges ? ranges->current() : nullptr; range;
             range = ranges->next() ? ranges->current() : nullptr) {
            ++count;
            SymMgrObjectPtr<ISourceLocation> location;
            static_cast<void>(range->symbol()->sourceLocation(location));
            if (IInlineInstance* instance = range->inlineInstance())
                instance->callSite(location);
            auto* symbol = dynamic_cast<DWARFSymbol*>(range->symbol());
            if (symbol && level > 0)
                count += visit(*symbol->scope(), level - 1);
        }
        return count;
    }
    static std::size_t visitWith(section_kind_t kind, const Bytes& bytes) {
        DwarfModule module;
        build(module);
        module.replace(kind, bytes);
        return visit(module.scope(), 4);
    }
    static Bytes sectionOf(section_kind_t kind) {
        DwarfModule module;
        build(module);
        SymMgrObjectPtr<ISectionData> data;
        module.helper().getSectionData(data, kind);
        return Bytes(data->getData(), data->getData() + data->getSize());
    }

    static void expectEveryPrefixAnswers(section_kind_t kind) {
        const Bytes whole = sectionOf(kind);
        EXPECT_GT(visitWith(kind, whole), 10u);
        for (std::size_t size = 0; size < whole.size(); ++size)
            visitWith(kind, Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
    }
    static void expectEveryChangeAnswers(section_kind_t kind) {
        const Bytes whole = sectionOf(kind);
        for (std::size_t at = 0; at < whole.size(); ++at) {
            for (unsigned change : {1U, 0x7fU, 0x80U, 0xffU}) {
                Bytes changed = whole;
                changed[at] = static_cast<std::uint8_t>(changed[at] ^ change);
                visitWith(kind, changed);
            }
        }
    }
};

TEST_F(DamagedDwarfTest, EveryPrefixOfTheEntriesAnswers) {
    expectEveryPrefixAnswers(section_debug_info);
}

TEST_F(DamagedDwarfTest, EveryPrefixOfTheAbbreviationsAnswers) {
    expectEveryPrefixAnswers(section_debug_abbrev);
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
