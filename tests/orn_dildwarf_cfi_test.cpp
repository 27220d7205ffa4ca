// Rules of frame addresses, out of sections made by hand.

#include "orn_dildwarf_cfi.h"
#include "orn_dildwarf_constants.h"
#include "orn_stackframecontext.h"
#include "support/cfi_assembler.h"
#include "support/dwarf_sections.h"
#include "support/orn_fixture.h"

#include <chrono>
#include <optional>
#include <type_traits>

namespace ORN_3_30::test {
namespace {

using orn_test::CfiAssembler;
using orn_test::CieOptions;
using orn_test::FdeOptions;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint16_t rsp = 7;
constexpr std::uint16_t rbp = 6;

struct Rule {
    std::uint16_t reg;
    long long offset;

    bool operator==(const Rule&) const = default;
};

void PrintTo(const Rule& rule, std::ostream* out) {
    *out << 'r' << rule.reg << '+' << rule.offset;
}

/// A section that is built, parsed and asked. Functions begin at 0x1000.
class CfiTest : public OrnTest {
protected:
    bool parse() { return parse(cfi.bytes().bytes()); }
    bool parse(const std::vector<std::uint8_t>& bytes) {
        m_information = new DWARFCallFrameInformation(cfi.sectionAddress(), addressSize, bias);
        const SymMgrObjectPtr<MemorySection> section = new MemorySection(bytes);
        return m_information->parse(section);
    }
    std::optional<Rule> ruleAt(unsigned long long address) {
        Rule rule{};
        if (!m_information->getCfaRule(address, rule.reg, rule.offset))
            return std::nullopt;
        return rule;
    }
    DWARFCallFrameInformation& information() { return *m_information; }
    const FDE& fde(std::size_t index = 0) { return *m_information->fdes().at(index); }
    const CIE& cie() { return *m_information->cies().begin()->second; }
    std::vector<std::string> rowsOf(const InfoEntry& entry) {
        std::vector<std::string> rows;
        for (const CfaRow& row : entry.rows())
            rows.push_back(std::to_string(row.location) + " r" + std::to_string(row.reg) + "+" +
                           std::to_string(row.offset));
        return rows;
    }

    /// A CIE with the rule of a function's first instruction.
    std::size_t plainCie() {
        const std::size_t cie = cfi.beginCie();
        cfi.defCfa(rsp, 8).end();
        return cie;
    }
    /// A section of one function at 0x1000 with these instructions.
    template <typename Write>
    bool parseFunction(const Write& write) {
        cfi.beginFde(plainCie(), 0x1000, 0x100);
        write(cfi);
        cfi.end();
        return parse();
    }

    CfiAssembler cfi{0x2000};
    std::uint8_t addressSize = 8;
    unsigned long long bias = 0;

private:
    SymMgrObjectPtr<DWARFCallFrameInformation> m_information;
};

// --- Rows and their search

TEST_F(CfiTest, ARowIs24Bytes) {
    EXPECT_EQ(sizeof(CfaRow), 24u);
    EXPECT_FALSE(std::is_polymorphic_v<InfoEntry>);
    EXPECT_FALSE((std::is_constructible_v<InfoEntry, unsigned long long, std::uint8_t>));
}

TEST_F(CfiTest, AnAddressBetweenRowsHasTheRowBeforeIt) {
    ASSERT_TRUE(parseFunction([](CfiAssembler& program) {
        program.advance(1).defCfaOffset(16).advance(3).defCfaRegister(rbp).advance(0x20).defCfa(rsp, 8);
    }));
    EXPECT_EQ(ruleAt(0x1000), (Rule{rsp, 8}));
    EXPECT_EQ(ruleAt(0x1002), (Rule{rsp, 16}));
    EXPECT_EQ(ruleAt(0x1010), (Rule{rbp, 16}));
}

TEST_F(CfiTest, AnAddressWhereARowBeginsStillHasTheRowBeforeIt) {
    ASSERT_TRUE(parseFunction([](CfiAssembler& program) {
        program.advance(1).defCfaOffset(16).advance(3).defCfaRegister(rbp).advance(0x20).defCfa(rsp, 8);
    }));
    EXPECT_EQ(ruleAt(0x1001), (Rule{rsp, 8}));
    EXPECT_EQ(ruleAt(0x1004), (Rule{rsp, 16}));
    EXPECT_EQ(ruleAt(0x1024), (Rule{rbp, 16}));
}

TEST_F(CfiTest, BehindTheLastRowTheRuleIsThatOfTheCie) {
    ASSERT_TRUE(parseFunction([](CfiAssembler& program) { program.advance(1).defCfaOffset(16); }));
    EXPECT_EQ(ruleAt(0x1002), (Rule{rsp, 8}));
    EXPECT_EQ(ruleAt(0x1100), (Rule{rsp, 8}));
}

TEST_F(CfiTest, TheEndOfAFunctionBelongsToIt) {
    const std::size_t cie = plainCie();
    cfi.beginFde(cie, 0x1000, 0x10);
    cfi.defCfaOffset(24).advance(0x20).end();
    cfi.beginFde(cie, 0x1010, 0x10);
    cfi.defCfaOffset(32).advance(0x20).end();
    ASSERT_TRUE(parse());
    EXPECT_EQ(ruleAt(0x1010), (Rule{rsp, 24}));
    EXPECT_EQ(ruleAt(0x1011), (Rule{rsp, 32}));
    EXPECT_EQ(ruleAt(0x1020), (Rule{rsp, 32}));
}

TEST_F(CfiTest, OfFunctionsThatCoverAnAddressTheFirstWins) {
    const std::size_t cie = plainCie();
    for (const unsigned offset : {24, 32}) {
        cfi.beginFde(cie, 0x1000, 0x100);
        cfi.defCfaOffset(offset).advance(0x3f).end();
    }
    ASSERT_TRUE(parse());
    EXPECT_EQ(ruleAt(0x1010), (Rule{rsp, 24}));
}

TEST_F(CfiTest, AnAddressBeforeEveryRowHasTheFirst) {
    ASSERT_TRUE(parseFunction([](CfiAssembler& program) {
        program.defCfaOffset(24).raw({DW_CFA_set_loc, 0x80, 0x10, 0, 0, 0, 0, 0, 0}).defCfaOffset(32);
    }));
    // The first row begins with the function, which no address of it precedes; a bias shows the search.
    EXPECT_EQ(ruleAt(0x1000), (Rule{rsp, 24}));
    EXPECT_EQ(fde().rowFor(0x800).offset, 24);
}

TEST_F(CfiTest, AnAddressOfNoFunctionHasTheRuleOfTheFirstCie) {
    plainCie();
    const std::size_t other = cfi.beginCie();
    cfi.defCfa(rbp, 16).end();
    cfi.beginFde(other, 0x1000, 0x10);
    cfi.end();
    ASSERT_TRUE(parse());
    EXPECT_EQ(ruleAt(0x5000), (Rule{rsp, 8}));
}

TEST_F(CfiTest, WithoutAnyEntryThereIsNoRule) {
    cfi.terminator();
    ASSERT_TRUE(parse());
    EXPECT_EQ(ruleAt(0x1000), std::nullopt);
}

TEST_F(CfiTest, ARowWithoutARegisterIsNoRule) {
    const std::size_t cie = cfi.beginCie();
    cfi.end();
    cfi.beginFde(cie, 0x1000, 0x10);
    cfi.end();
    ASSERT_TRUE(parse());
    EXPECT_THAT(rowsOf(information().cies().begin()->second.operator*()), ElementsAre("0 r65535+0"));
    EXPECT_EQ(ruleAt(0x1000), std::nullopt);
    EXPECT_EQ(ruleAt(0x5000), std::nullopt);
}

TEST_F(CfiTest, ARegisterThatDoesNotFitIsNone) {
    ASSERT_TRUE(parseFunction([](CfiAssembler& program) { program.defCfaRegister(0x10007).advance(1); }));
    EXPECT_EQ(ruleAt(0x1000), std::nullopt);
}

TEST_F(CfiTest, QueriesComeWithTheBias) {
    bias = 0x400000;
    ASSERT_TRUE(parseFunction([](CfiAssembler& program) { program.defCfaOffset(24).advance(0x3f); }));
    EXPECT_EQ(ruleAt(0x401010), (Rule{rsp, 24}));
    EXPECT_EQ(ruleAt(0x1010), (Rule{rsp, 8})); // the CIE's
}

// --- Instructions

TEST_F(CfiTest, LocationsAreAbsoluteAndCountFromTheFunctionsBegin) {
    ASSERT_TRUE(parseFunction([](CfiAssembler& program) {
        program.advance(1)
            .raw({DW_CFA_advance_loc1, 2})
            .raw({DW_CFA_advance_loc2, 0, 1})
            .raw({DW_CFA_advance_loc4, 0, 0, 1, 0})
            .raw({DW_CFA_set_loc, 0, 0x20, 0, 0, 0, 0, 0, 0})
            .advance(1);
    }));
    EXPECT_THAT(rowsOf(fde()), ElementsAre("4096 r7+8", "4097 r7+8", "4099 r7+8", "4355 r7+8", "69891 r7+8",
                                           "8192 r7+8", "8193 r7+8"));
}

TEST_F(CfiTest, LocationsAdvanceByTheCodeAlignment) {
    CieOptions options;
    options.codeAlignment = 4;
    const std::size_t cie = cfi.beginCie(options);
    cfi.defCfa(rsp, 8).end();
    cfi.beginFde(cie, 0x1000, 0x100);
    cfi.advance(2).raw({DW_CFA_advance_loc1, 3}).end();
    ASSERT_TRUE(parse());
    EXPECT_THAT(rowsOf(fde()), ElementsAre("4096 r7+8", "4104 r7+8", "4116 r7+8"));
}

TEST_F(CfiTest, ARuleMayBeSetAsAWholeOrInHalves) {
    ASSERT_TRUE(parseFunction([](CfiAssembler& program) {
        program.advance(1).defCfa(3, 24).advance(1).defCfaRegister(4).advance(1).defCfaOffset(40);
    }));
    EXPECT_THAT(rowsOf(fde()), ElementsAre("4096 r7+8", "4097 r3+24", "4098 r4+24", "4099 r4+40"));
}

TEST_F(CfiTest, FactoredOffsetsAreMultipliedByTheDataAlignment) {
    ASSERT_TRUE(parseFunction([](CfiAssembler& program) {
        program.advance(1).raw({DW_CFA_def_cfa_sf, 3, 0x7e}).advance(1).raw({DW_CFA_def_cfa_offset_sf, 0x7d});
    }));
    EXPECT_THAT(rowsOf(fde()), ElementsAre("4096 r7+8", "4097 r3+16", "4098 r3+24"));
}

TEST_F(CfiTest, RulesOfSavedRegistersArePassed) {
    ASSERT_TRUE(parseFunction([](CfiAssembler& program) {
        program.op(DW_CFA_offset_extended, {300, 400})
            .op(DW_CFA_register, {300, 400})
            .op(DW_CFA_val_offset, {300, 400})
            .op(DW_CFA_undefined, {300})
            .op(DW_CFA_same_value, {300})
            .raw({DW_CFA_offset_extended_sf, 3, 0x80, 0x7f})
            .raw({DW_CFA_val_offset_sf, 3, 0x80, 0x7f})
            .offset(3, 300)
            .restore(3)
            .op(DW_CFA_restore_extended, {300})
            .advance(5);
    }));
    EXPECT_THAT(rowsOf(fde()), ElementsAre("4096 r7+8", "4101 r7+8"));
}

TEST_F(CfiTest, SavingTheRegisterOfTheRuleChangesItsOffset) {
    ASSERT_TRUE(parseFunction(
        [](CfiAssembler& program) { program.advance(1).offset(rbp, 2).advance(1).offset(rsp, 3); }));
    EXPECT_THAT(rowsOf(fde()), ElementsAre("4096 r7+8", "4097 r7+8", "4098 r7+-24"));
}

TEST_F(CfiTest, RestoringTheRegisterOfTheRuleChangesTheFirstRow) {
    for (const bool isExtended : {false, true}) {
        cfi = CfiAssembler(0x2000);
        ASSERT_TRUE(parseFunction([isExtended](CfiAssembler& program) {
            program.defCfaOffset(24).advance(1).defCfaOffset(32);
            if (isExtended)
                program.op(DW_CFA_restore_extended, {rsp});
            else
                program.restore(rsp);
        }));
        EXPECT_THAT(rowsOf(fde()), ElementsAre("4096 r7+8", "4097 r7+32"));
    }
}

TEST_F(CfiTest, RestoringAnotherRegisterChangesNothing) {
    ASSERT_TRUE(parseFunction([](CfiAssembler& program) {
        program.defCfaOffset(24).advance(1).restore(rbp).op(DW_CFA_restore_extended, {rbp});
    }));
    EXPECT_THAT(rowsOf(fde()), ElementsAre("4096 r7+24", "4097 r7+24"));
}

TEST_F(CfiTest, ARememberedRowComesBackAsTheLastWithItsOwnLocation) {
    ASSERT_TRUE(parseFunction([](CfiAssembler& program) {
        program.advance(1).rememberState().advance(4).defCfaOffset(32).restoreState().advance(2);
    }));
    EXPECT_THAT(rowsOf(fde()), ElementsAre("4096 r7+8", "4097 r7+8", "4101 r7+32", "4097 r7+8", "4099 r7+8"));
}

TEST_F(CfiTest, RememberedRowsAreAStack) {
    ASSERT_TRUE(parseFunction([](CfiAssembler& program) {
        program.rememberState().defCfaOffset(32).rememberState().defCfaOffset(40).restoreState();
        program.restoreState();
    }));
    EXPECT_THAT(rowsOf(fde()), ElementsAre("4096 r7+40", "4096 r7+32", "4096 r7+8"));
}

TEST_F(CfiTest, RowsAreSearchedInTheirStoredOrder) {
    ASSERT_TRUE(parseFunction([](CfiAssembler& program) {
        program.rememberState().advance(0x20).defCfaOffset(32).restoreState().advance(0x30).defCfaOffset(48);
    }));
    // 0x1000 +8, 0x1020 +32, 0x1000 +8, 0x1030 +48: behind 0x1020 the first row that is not below is the
    // last.
    EXPECT_EQ(ruleAt(0x1010), (Rule{rsp, 8}));
    EXPECT_EQ(ruleAt(0x1028), (Rule{rsp, 8}));
    EXPECT_EQ(ruleAt(0x1020), (Rule{rsp, 8}));
    EXPECT_EQ(ruleAt(0x1031), (Rule{rsp, 8}));
}

TEST_F(CfiTest, RestoringWhatWasNotRememberedRefusesTheSection) {
    EXPECT_FALSE(parseFunction([](CfiAssembler& program) { program.restoreState(); }));
}

TEST_F(CfiTest, AnExpressionForTheFrameLeavesTheRow) {
    ASSERT_TRUE(parseFunction([](CfiAssembler& program) {
        program.advance(1).raw({DW_CFA_def_cfa_expression, 2, 0xff, 0xff}).advance(1);
    }));
    EXPECT_THAT(rowsOf(fde()), ElementsAre("4096 r7+8", "4097 r7+8", "4098 r7+8"));
}

TEST_F(CfiTest, TheBlockOfARegistersExpressionHasALengthOfOneByte) {
    ASSERT_TRUE(parseFunction([](CfiAssembler& program) {
        program.raw({DW_CFA_expression, 3, 0x81}).raw(std::vector<std::uint8_t>(0x81, 0xff)).advance(1);
        program.raw({DW_CFA_val_expression, 3, 1, 0xff}).advance(1);
    }));
    EXPECT_THAT(rowsOf(fde()), ElementsAre("4096 r7+8", "4097 r7+8", "4098 r7+8"));
}

TEST_F(CfiTest, NothingBehindANopIsRead) {
    ASSERT_TRUE(parseFunction([](CfiAssembler& program) { program.op(DW_CFA_nop).raw({0x3f, 0x3f}); }));
    EXPECT_THAT(rowsOf(fde()), ElementsAre("4096 r7+8"));
}

TEST_F(CfiTest, AnOperandPastTheEndEndsTheProgram) {
    for (const auto& program : std::vector<std::vector<std::uint8_t>>{{DW_CFA_def_cfa_offset},
                                                                      {DW_CFA_def_cfa, 3},
                                                                      {DW_CFA_advance_loc1},
                                                                      {DW_CFA_set_loc},
                                                                      {DW_CFA_offset | 7},
                                                                      {DW_CFA_offset_extended, 3},
                                                                      {DW_CFA_expression, 3},
                                                                      {DW_CFA_def_cfa_expression, 9},
                                                                      {DW_CFA_restore_extended},
                                                                      {DW_CFA_def_cfa_offset_sf}}) {
        cfi = CfiAssembler(0x2000);
        cfi.beginFde(plainCie(), 0x1000, 0x100);
        std::vector<std::uint8_t> padded(23 - program.size(), DW_CFA_advance_loc | 1);
        padded.insert(padded.end(), program.begin(), program.end());
        cfi.raw(padded).end();
        EXPECT_TRUE(parse()) << unsigned(program.front());
        EXPECT_EQ(fde().rows().size(), 24 - program.size()) << unsigned(program.front());
    }
}

TEST_F(CfiTest, AnUnknownInstructionRefusesTheSection) {
    for (const unsigned opcode : {0x17, 0x2e, 0x3f}) {
        cfi = CfiAssembler(0x2000);
        expectLog("unknown DW_CFA opcode: " + std::to_string(opcode));
        EXPECT_FALSE(parseFunction([opcode](CfiAssembler& program) { program.raw({std::uint8_t(opcode)}); }));
        EXPECT_THAT(information().fdes(), IsEmpty());
        EXPECT_TRUE(information().cies().empty());
    }
}

// --- CIEs

TEST_F(CfiTest, ACieTellsFactorsAndEncoding) {
    CieOptions options;
    options.codeAlignment = 300;
    options.dataAlignment = -300;
    options.returnRegister = 300;
    cfi.beginCie(options);
    cfi.defCfa(rsp, 8).end();
    ASSERT_TRUE(parse());
    EXPECT_EQ(cie().augmentation(), "zR");
    EXPECT_EQ(cie().factors().codeAlignment, 300u);
    EXPECT_EQ(cie().factors().dataAlignment, -300);
    EXPECT_EQ(cie().returnAddressRegister(), 300u);
    EXPECT_EQ(cie().fdeEncoding(), 0x1b);
    EXPECT_EQ(cie().lsdaEncoding(), 0xff);
    EXPECT_THAT(rowsOf(cie()), ElementsAre("0 r7+8"));
}

TEST_F(CfiTest, ANewCieKnowsNothing) {
    const SymMgrObjectPtr<CIE> fresh = new CIE(0, 8);
    EXPECT_EQ(fresh->fdeEncoding(), 0xff);
    EXPECT_EQ(fresh->lsdaEncoding(), 0xff);
    EXPECT_EQ(fresh->returnAddressRegister(), ~0ULL);
}

TEST_F(CfiTest, AnotherVersionRefusesTheSection) {
    for (const std::uint8_t version : {0, 3, 4}) {
        cfi = CfiAssembler(0x2000);
        CieOptions options;
        options.version = version;
        cfi.beginCie(options);
        cfi.end();
        expectLog("unsupported CIE version: " + std::to_string(version));
        EXPECT_FALSE(parse());
    }
}

TEST_F(CfiTest, AnAugmentationThatIsNotSizedRefusesTheSection) {
    CieOptions options;
    options.augmentation = "eh";
    cfi.beginCie(options);
    cfi.end();
    expectLog("unknown first augmentation character: e");
    EXPECT_FALSE(parse());
}

TEST_F(CfiTest, AnEmptyAugmentationHasPlainAddressesAndNoLength) {
    CieOptions options;
    options.augmentation = "";
    const std::size_t cie = cfi.beginCie(options);
    cfi.defCfa(rsp, 8).end();
    FdeOptions function;
    function.encoding = std::nullopt;
    function.augmentationData = std::nullopt;
    cfi.beginFde(cie, 0x1000, 0x20, function);
    cfi.advance(0x20).defCfaOffset(16).end();
    ASSERT_TRUE(parse());
    EXPECT_EQ(this->cie().fdeEncoding(), 0xff);
    EXPECT_EQ(fde().pcBegin(), 0x1000u);
    EXPECT_EQ(fde().pcEnd(), 0x1020u);
    EXPECT_THAT(rowsOf(fde()), ElementsAre("4096 r7+8", "4128 r7+16"));
}

TEST_F(CfiTest, APersonalityRoutineRefusesTheSection) {
    CieOptions options;
    options.augmentation = "zPLR";
    options.augmentationData = {0x03, 1, 2, 3, 4, 0x1b, 0x1b};
    cfi.beginCie(options);
    cfi.end();
    EXPECT_FALSE(parse());
}

// The length is taken for the encoding, here of a pointer of 2 bytes.
TEST_F(CfiTest, APersonalityWhoseLengthIsAnEncodingIsPassed) {
    CieOptions options;
    options.augmentation = "zP";
    options.augmentationData = {0x77, 0x77};
    cfi.beginCie(options);
    cfi.defCfa(rsp, 8).end();
    ASSERT_TRUE(parse());
    EXPECT_THAT(rowsOf(cie()), ElementsAre("0 r7+8"));
}

TEST_F(CfiTest, AnEncodingWhoseLengthIsNotOneRefusesTheSection) {
    CieOptions options;
    options.augmentationData = {0x1b, 0};
    cfi.beginCie(options);
    cfi.end();
    EXPECT_FALSE(parse());
}

TEST_F(CfiTest, OtherLettersOfAnAugmentationReadNothing) {
    CieOptions options;
    options.augmentation = "zRSB";
    cfi.beginCie(options);
    cfi.defCfa(rsp, 8).end();
    ASSERT_TRUE(parse());
    EXPECT_THAT(rowsOf(cie()), ElementsAre("0 r7+8"));
}

// The L takes the length, so that the R wants another 1.
TEST_F(CfiTest, LanguageDataTakeTheLengthForTheirEncoding) {
    CieOptions options;
    options.augmentation = "zLR";
    options.augmentationData = {1, 0x1b};
    const std::size_t cie = cfi.beginCie(options);
    cfi.defCfa(rsp, 8).end();
    FdeOptions function;
    function.augmentationData = {0x3f, 0x3f, 0x3f};
    cfi.beginFde(cie, 0x1000, 0x20, function);
    cfi.advance(1).end();
    ASSERT_TRUE(parse());
    EXPECT_EQ(this->cie().lsdaEncoding(), 2);
    EXPECT_EQ(this->cie().fdeEncoding(), 0x1b);
    EXPECT_THAT(rowsOf(fde()), ElementsAre("4096 r7+8", "4097 r7+8"));
}

// --- FDEs

TEST_F(CfiTest, PointersRelativeToTheirPlaceAreAccepted) {
    for (const std::uint8_t encoding : {0x10, 0x13, 0x14, 0x19, 0x1b, 0x1c}) {
        cfi = CfiAssembler(0x2000);
        CieOptions options;
        options.augmentationData = {encoding};
        const std::size_t cie = cfi.beginCie(options);
        cfi.end();
        FdeOptions function;
        function.encoding = encoding;
        // What is not signed reaches forwards only.
        const unsigned long long begin = encoding == 0x13 ? 0x3000 : 0x1000;
        cfi.beginFde(cie, begin, 0x20, function);
        cfi.end();
        ASSERT_TRUE(parse()) << unsigned(encoding);
        EXPECT_EQ(fde().pcBegin(), begin) << unsigned(encoding);
        EXPECT_EQ(fde().pcEnd(), begin + 0x20) << unsigned(encoding);
    }
}

TEST_F(CfiTest, PointersOfTwoBytesAndOfNumbersWithoutSignAreRead) {
    for (const std::uint8_t encoding : {0x12, 0x1a, 0x11}) {
        cfi = CfiAssembler(0x2000);
        CieOptions options;
        options.augmentationData = {encoding};
        const std::size_t cie = cfi.beginCie(options);
        cfi.end();
        FdeOptions function;
        function.encoding = encoding;
        cfi.beginFde(cie, 0x2100, 0x20, function);
        cfi.end();
        ASSERT_TRUE(parse()) << unsigned(encoding);
        EXPECT_EQ(fde().pcBegin(), 0x2100u) << unsigned(encoding);
    }
}

TEST_F(CfiTest, OtherPointersRefuseTheSection) {
    // Absolute; relative to text, data, function; indirect does not matter; no such form; none at all.
    for (const std::uint8_t encoding : {0x03, 0x00, 0x2b, 0x3b, 0x4b, 0x15, 0x1f, 0xff}) {
        cfi = CfiAssembler(0x2000);
        CieOptions options;
        options.augmentationData = {encoding};
        const std::size_t cie = cfi.beginCie(options);
        cfi.end();
        cfi.beginFde(cie, 0x1000, 0x20);
        cfi.end();
        EXPECT_FALSE(parse()) << unsigned(encoding);
    }
}

TEST_F(CfiTest, AnAugmentationWithoutAnEncodingRefusesFunctions) {
    CieOptions options;
    options.augmentation = "z";
    options.augmentationData = {};
    const std::size_t cie = cfi.beginCie(options);
    cfi.end();
    ASSERT_TRUE(parse());
    cfi.beginFde(cie, 0x1000, 0x20);
    cfi.end();
    EXPECT_FALSE(parse());
}

TEST_F(CfiTest, AFunctionOfNoCieRefusesTheSection) {
    const std::size_t cie = plainCie();
    FdeOptions function;
    function.id = 0x123;
    const std::size_t offset = cfi.beginFde(cie, 0x1000, 0x20, function);
    cfi.end();
    expectLog("no CIE associated with FDE at" + std::to_string(offset));
    EXPECT_FALSE(parse());
    EXPECT_TRUE(information().cies().empty());
}

TEST_F(CfiTest, AddressesOfAnotherSizeThanTwoAssert) {
    addressSize = 2;
    CieOptions options;
    options.augmentationData = {0x10};
    const std::size_t cie = cfi.beginCie(options);
    cfi.end();
    cfi.beginFde(cie, 0x1000, 0x20);
    cfi.end();
    expectLog("ASSERTION FAILED: 'false'");
    EXPECT_FALSE(parse());
}

// --- The section

TEST_F(CfiTest, AnEmptySectionIsRead) {
    EXPECT_TRUE(parse(std::vector<std::uint8_t>()));
}

TEST_F(CfiTest, ALengthOfZeroEndsTheSection) {
    plainCie();
    cfi.terminator();
    cfi.bytes().fill(64, 0xee);
    ASSERT_TRUE(parse());
    EXPECT_EQ(information().cies().size(), 1u);
}

TEST_F(CfiTest, ALengthThatDoesNotFitRefusesTheSection) {
    plainCie();
    CieOptions options;
    options.length = 0x1000;
    cfi.beginCie(options);
    cfi.end();
    EXPECT_FALSE(parse());
}

TEST_F(CfiTest, LongLengthsHaveEightBytes) {
    CieOptions common;
    FdeOptions function;
    common.is64Bit = function.is64Bit = true;
    const std::size_t cie = cfi.beginCie(common);
    cfi.defCfa(rsp, 8).end();
    cfi.beginFde(cie, 0x1000, 0x20, function);
    cfi.defCfaOffset(16).advance(0x3f).end();
    ASSERT_TRUE(parse());
    EXPECT_EQ(ruleAt(0x1010), (Rule{rsp, 16}));
    common.length = 0x1000;
    cfi.beginCie(common);
    cfi.end();
    EXPECT_FALSE(parse());
}

TEST_F(CfiTest, EntriesFollowEachOtherByTheirLengthsWhateverIsInThem) {
    const std::size_t cie = plainCie();
    cfi.beginFde(cie, 0x1000, 0x10);
    cfi.op(DW_CFA_nop).raw(std::vector<std::uint8_t>(40, 0xee)).end();
    cfi.beginFde(cie, 0x2000, 0x10);
    cfi.end();
    ASSERT_TRUE(parse());
    EXPECT_EQ(fde(1).pcBegin(), 0x2000u);
}

TEST_F(CfiTest, AnEntryTooShortForItsIdRefusesTheSection) {
    EXPECT_FALSE(parse({2, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_FALSE(parse({2, 0}));
}

// --- The frame's address

TEST_F(CfiTest, TheFrameIsComputedFromTheTwoRegisters) {
    ASSERT_TRUE(parseFunction([](CfiAssembler& program) {
        program.advance(2).defCfa(rbp, 16).advance(2).defCfa(3, 16).advance(0x20);
    }));
    const SymMgrObjectPtr<StackFrameContext> frame = new StackFrameContext;
    frame->setRegister(0, 0x7000);
    frame->setRegister(1, 0x8000);
    unsigned long long out = 0;
    EXPECT_TRUE(information().computeCfa(frame, 0x1001, out));
    EXPECT_EQ(out, 0x7008u);
    EXPECT_TRUE(information().computeCfa(frame, 0x1003, out));
    EXPECT_EQ(out, 0x8010u);
    EXPECT_FALSE(information().computeCfa(frame, 0x1010, out));
    EXPECT_FALSE(information().computeCfa(nullptr, 0x1001, out));
}

TEST_F(CfiTest, RegistersAreThoseOfTheAddressSize) {
    for (const std::uint8_t size : {4, 8}) {
        for (const std::uint16_t reg : {4, 5, 6, 7}) {
            cfi = CfiAssembler(0x2000, 8);
            addressSize = size;
            cfi.beginCie();
            cfi.defCfa(reg, 8).end();
            ASSERT_TRUE(parse());
            const SymMgrObjectPtr<StackFrameContext> frame = new StackFrameContext;
            frame->setRegister(0, 0x7000);
            frame->setRegister(1, 0x8000);
            unsigned long long out = 0;
            const bool isStack = reg == (size == 4 ? 4 : 7);
            const bool isFrame = reg == (size == 4 ? 5 : 6);
            EXPECT_EQ(information().computeCfa(frame, 0x1000, out), isStack || isFrame) << size << reg;
            EXPECT_EQ(out, isStack ? 0x7008u : isFrame ? 0x8008u : 0u);
        }
    }
}

TEST_F(CfiTest, ForOtherAddressSizesTheOffsetIsAddedToWhatIsThere) {
    addressSize = 2;
    cfi.beginCie();
    cfi.defCfa(33, 8).end();
    ASSERT_TRUE(parse());
    const SymMgrObjectPtr<StackFrameContext> frame = new StackFrameContext;
    unsigned long long out = 0x500;
    EXPECT_TRUE(information().computeCfa(frame, 0x1000, out));
    EXPECT_EQ(out, 0x508u);
}

// --- Damage

class DamagedCfiTest : public CfiTest {
protected:
    DamagedCfiTest() {
        allowLog("");
        setLogLevel(errorLevel + 1);
        const std::size_t cie = plainCie();
        cfi.beginFde(cie, 0x1000, 0x100);
        cfi.advance(1).defCfaOffset(16).offset(rbp, 2).rememberState().raw({DW_CFA_advance_loc2, 9, 0});
        cfi.defCfaRegister(rbp).raw({DW_CFA_expression, 3, 2, 0, 0}).restoreState().restore(rsp).end();
        CieOptions plain;
        plain.augmentation = "";
        plain.is64Bit = true;
        const std::size_t other = cfi.beginCie(plain);
        cfi.raw({DW_CFA_def_cfa_sf, 7, 0x7f}).end();
        FdeOptions function;
        function.encoding = std::nullopt;
        function.augmentationData = std::nullopt;
        cfi.beginFde(other, 0x2000, 0x100, function);
        cfi.raw({DW_CFA_set_loc, 0, 0x20, 0, 0, 0, 0, 0, 0, DW_CFA_def_cfa_expression, 1, 6}).end();
        cfi.terminator();
        whole = cfi.bytes().bytes();
    }

    void ask(const std::vector<std::uint8_t>& bytes) {
        for (const std::uint8_t size : {8, 4, 0}) {
            addressSize = size;
            const bool isParsed = parse(bytes);
            const SymMgrObjectPtr<StackFrameContext> frame = new StackFrameContext;
            unsigned long long out = 0;
            for (const unsigned long long address : {0x0ULL, 0x1000ULL, 0x1001ULL, 0x2050ULL, ~0ULL}) {
                const bool hasRule = ruleAt(address).has_value();
                EXPECT_TRUE(isParsed || !hasRule);
                static_cast<void>(information().computeCfa(frame, address, out));
            }
        }
    }

    std::vector<std::uint8_t> whole;
};

TEST_F(DamagedCfiTest, TheSoundSectionIsRead) {
    ASSERT_TRUE(parse(whole));
    EXPECT_EQ(information().fdes().size(), 2u);
}

TEST_F(DamagedCfiTest, EveryPrefixEnds) {
    for (std::size_t size = 0; size < whole.size(); ++size)
        ask(std::vector<std::uint8_t>(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
}

TEST_F(DamagedCfiTest, EveryChangedByteEnds) {
    for (std::size_t at = 0; at < whole.size(); ++at) {
        for (unsigned value = 0; value < 256; ++value) {
            std::vector<std::uint8_t> changed = whole;
            changed[at] = static_cast<std::uint8_t>(value);
            ask(changed);
        }
    }
}

TEST_F(DamagedCfiTest, TimeGrowsWithTheSection) {
    const auto secondsOf = [this](unsigned functions) {
        CfiAssembler many(0x2000);
        CieOptions options;
        // What every function looks for in the augmentation.
        options.augmentation = "zR" + std::string(functions * 20, 'S');
        const std::size_t cie = many.beginCie(options);
        many.defCfa(rsp, 8).end();
        for (unsigned i = 0; i < functions; ++i) {
            many.beginFde(cie, 0x1000, 0x10);
            many.rememberState().rememberState().restoreState().restoreState().advance(1).end();
        }
        const std::vector<std::uint8_t> bytes = many.bytes().bytes();
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_TRUE(parse(bytes));
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    };
    EXPECT_LT(secondsOf(10000), 5.0);
}

} // namespace
} // namespace ORN_3_30::test
