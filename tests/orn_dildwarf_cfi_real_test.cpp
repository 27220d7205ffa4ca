// Rules of frame addresses of programs that compilers have made, beside those that readelf shows.

#include "orn/address.h"
#include "orn/module_symbol_bank.h"
#include "orn/symbol.h"
#include "orn/symbol_manager.h"
#include "orn_dildwarf_cfi.h"
#include "orn_elf.h"
#include "orn_fflelf.h"
#include "orn_moduleimage.h"
#include "orn_stackframecontext.h"
#include "support/command.h"
#include "support/orn_fixture.h"
#include "support/temp_dir.h"

#include <algorithm>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>

namespace ORN_3_30::test {
namespace {

constexpr const char* source = R"(
#include <stdlib.h>
void __attribute__((noinline)) keep(void* p) { __asm__ volatile("" : : "r"(p) : "memory"); }
int leaf(int x) { return x * 3; }
int __attribute__((noinline)) early(int x) {
    int list[8] = {x};
    if (x > 100) return 1;
    keep(list);
    if (list[3] > 5) { keep(list + 1); return list[2]; }
    return list[1] + leaf(x);
}
int __attribute__((noinline)) sized(int n) { int room[n]; keep(room); return room[n / 2]; }
int __attribute__((noinline)) many(int a, int b, int c, int d, int e, int f, int g, int h) {
    int sum = a + b + c + d;
    keep(&sum); keep(&h);
    return sum + early(e) * sized(f + 1) + g + h;
}
int __attribute__((noinline)) deep(int n) { int here = n; keep(&here); return n > 0 ? deep(n - 1) + here : here; }
int main(int argc, char** argv) {
    (void)argv;
    if (argc > 7) abort();
    return (many(argc, 2, 3, 4, 5, 6, 7, 8) + deep(argc)) & 0;
}
)";

/// Register and offset; register noRegister for a rule that is an expression.
struct Rule {
    std::uint16_t reg;
    long long offset;

    bool operator==(const Rule&) const = default;
};

/// A function as readelf shows it.
struct PeerFunction {
    unsigned long long begin;
    unsigned long long end;
    std::map<unsigned long long, Rule> rows;
    std::string entry;  ///< its place in the section
    std::string common; ///< that of the entry it shares with others; empty for such an entry itself
    bool restoresState = false;
};

Rule ruleOf(const std::string& text) {
    static const std::map<std::string, std::uint16_t> registers = {{"eax", 0}, {"ecx", 1}, {"edx", 2},
                                                                   {"ebx", 3}, {"esp", 4}, {"ebp", 5},
                                                                   {"rbp", 6}, {"rsp", 7}, {"r10", 10}};
    const std::size_t sign = text.find_first_of("+-");
    if (sign == std::string::npos)
        return {CfaRow::noRegister, 0};
    return {registers.at(text.substr(0, sign)), std::stoll(text.substr(sign))};
}

/// The functions, and to `commons` the entries that they share.
std::vector<PeerFunction> functionsOf(const std::string& path, std::vector<PeerFunction>& commons) {
    std::vector<PeerFunction> functions;
    std::istringstream lines(orn_test::commandOutput("readelf --debug-dump=frames-interp '" + path + "'"));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string location;
        std::string frame;
        fields >> location >> frame;
        if (const std::size_t pc = line.find(" pc="); pc != std::string::npos) {
            const std::string common = line.substr(line.find("cie=") + 4, location.size());
            functions.push_back({std::stoull(line.substr(pc + 4), nullptr, 16),
                                 std::stoull(line.substr(line.find("..", pc) + 2), nullptr, 16),
                                 {},
                                 location,
                                 common});
        } else if (line.find(" CIE ") != std::string::npos) {
            functions.push_back({0, 0, {}, location, ""});
        } else if (!functions.empty() && !frame.empty() && std::isxdigit(location[0]) &&
                   location.size() >= 8) {
            functions.back().rows[std::stoull(location, nullptr, 16)] = ruleOf(frame);
        }
    }
    // Where no row is shown it is that of the common entry.
    for (PeerFunction& each : functions)
        for (const PeerFunction& common : functions)
            if (each.rows.empty() && each.common == common.entry)
                each.rows[each.begin] = common.rows.begin()->second;
    // Which functions bring remembered rows back, only the raw listing shows.
    std::istringstream raw(orn_test::commandOutput("readelf --debug-dump=frames '" + path + "'"));
    unsigned long long begin = 0;
    for (std::string line; std::getline(raw, line);) {
        if (const std::size_t pc = line.find(" pc="); pc != std::string::npos)
            begin = std::stoull(line.substr(pc + 4), nullptr, 16);
        if (line.find("DW_CFA_restore_state") != std::string::npos)
            for (PeerFunction& each : functions)
                each.restoresState |= each.begin == begin;
    }
    const auto isCommon = [](const PeerFunction& each) { return each.common.empty(); };
    std::copy_if(functions.begin(), functions.end(), std::back_inserter(commons), isCommon);
    std::erase_if(functions, isCommon);
    return functions;
}

class RealCfiTest : public OrnTest {
protected:
    void SetUp() override {
        if (!run("gcc --version && readelf --version"))
            GTEST_SKIP() << "there is no gcc or no readelf";
        m_directory.write("prog.c", source);
    }

    bool run(const std::string& command) const {
        int status = 0;
        orn_test::commandOutput("cd '" + m_directory.path() + "' && { " + command + "; } >output 2>&1",
                                &status);
        return status == 0;
    }

    /// The library's reading of the file; null where it refuses the section.
    static SymMgrObjectPtr<DWARFCallFrameInformation> framesOf(const std::string& path) {
        const SymMgrObjectPtr<ElfHelper> elf = new ElfHelper(new FileImage(path.c_str(), 0, arch_unknown));
        const Elf64_Shdr* header = elf->getSectionHeader(elf->findSectionByName(".eh_frame"));
        EXPECT_NE(header, nullptr);
        const SymMgrObjectPtr<DWARFCallFrameInformation> frames =
            new DWARFCallFrameInformation(header ? header->sh_addr : 0, elf->is64Bit() ? 8 : 4, 0);
        return frames->parse(elf->getEhFrame()) ? frames : nullptr;
    }

    orn_test::TempDir m_directory;
};

/// Why a rule at an address is not the one that holds there; empty if nothing explains it.
std::string reasonFor(const PeerFunction& function, unsigned long long address,
                      const std::vector<PeerFunction>& functions) {
    const auto endsHere = [address](const PeerFunction& each) { return each.end == address; };
    if (std::any_of(functions.begin(), functions.end(), endsHere))
        return "the end of a function belongs to it";
    if (address > function.rows.rbegin()->first)
        return "behind the last row the rule is the common entry's";
    if (address != function.begin && function.rows.count(address) > 0)
        return "where a row begins the one before it still holds";
    if (std::prev(function.rows.upper_bound(address))->second.reg == CfaRow::noRegister)
        return "an expression is passed over";
    return function.restoresState ? "a remembered row comes back with its own location" : "";
}

/// What the search has to find in the rows that readelf shows: the row before the first that does not begin
/// below the address, and behind the last row the common entry's.
Rule searchedRule(const PeerFunction& function, unsigned long long address,
                  const std::vector<PeerFunction>& commons) {
    const auto found = function.rows.lower_bound(address);
    if (found == function.rows.end()) {
        const auto common = std::find_if(commons.begin(), commons.end(), [&](const PeerFunction& each) {
            return each.entry == function.common;
        });
        return common->rows.begin()->second;
    }
    return found == function.rows.begin() ? found->second : std::prev(found)->second;
}

bool hasExpression(const PeerFunction& function) {
    return std::any_of(function.rows.begin(), function.rows.end(),
                       [](const auto& row) { return row.second.reg == CfaRow::noRegister; });
}

TEST_F(RealCfiTest, TheRuleAtEveryAddressIsThatOfReadelf) {
    std::map<std::string, int> differences;
    int equal = 0;
    int builds = 0;
    int functionCount = 0;
    for (const char* compiler : {"gcc", "clang"}) {
        for (const char* options : {"-m64 -O0", "-m64 -O1 -fno-omit-frame-pointer", "-m64 -O2", "-m32 -O0",
                                    "-m32 -O1 -fno-omit-frame-pointer", "-m32 -O2"}) {
            if (!run(std::string(compiler) + " -w -no-pie " + options + " prog.c -o prog"))
                continue; // a compiler or the libraries of a word size are missing
            ++builds;
            SCOPED_TRACE(std::string(compiler) + ' ' + options);
            const std::string path = m_directory.path("prog");
            const SymMgrObjectPtr<DWARFCallFrameInformation> frames = framesOf(path);
            ASSERT_TRUE(frames);
            std::vector<PeerFunction> commons;
            const std::vector<PeerFunction> functions = functionsOf(path, commons);
            functionCount += static_cast<int>(functions.size());
            EXPECT_EQ(frames->fdes().size(), functions.size());
            for (const PeerFunction& function : functions) {
                ASSERT_FALSE(function.rows.empty());
                for (unsigned long long address = function.begin; address < function.end; ++address) {
                    Rule rule{CfaRow::noRegister, 0};
                    const Rule expected = std::prev(function.rows.upper_bound(address))->second;
                    static_cast<void>(frames->getCfaRule(address, rule.reg, rule.offset));
                    if (!function.restoresState && !hasExpression(function) && address != function.begin) {
                        EXPECT_EQ(rule, searchedRule(function, address, commons)) << std::hex << address;
                    }
                    if (rule == expected) {
                        ++equal;
                        continue;
                    }
                    const std::string reason = reasonFor(function, address, functions);
                    ++differences[reason];
                    EXPECT_FALSE(reason.empty())
                        << "at 0x" << std::hex << address << ": register " << std::dec << rule.reg << " + "
                        << rule.offset << ", expected " << expected.reg << " + " << expected.offset;
                }
            }
        }
    }
    std::cout << builds << " programs, " << functionCount << " functions, " << equal
              << " addresses are equal\n";
    for (const auto& [reason, count] : differences)
        std::cout << count << " differ: " << reason << '\n';
    EXPECT_GE(builds, 3);
    EXPECT_GT(equal, 1000);
}

TEST_F(RealCfiTest, OnceTheFramePointerIsSetTheRuleIsBasedOnIt) {
    ASSERT_TRUE(run("gcc -m64 -w -no-pie -O0 prog.c -o prog"));
    const SymMgrObjectPtr<DWARFCallFrameInformation> frames = framesOf(m_directory.path("prog"));
    ASSERT_TRUE(frames);
    std::istringstream symbols(orn_test::commandOutput("nm '" + m_directory.path("prog") + "'"));
    int checked = 0;
    for (std::string address, kind, name; symbols >> address;) {
        if (!std::isdigit(address[0])) {
            symbols >> name;
            continue;
        }
        symbols >> kind >> name;
        if (name != "keep" && name != "early" && name != "many" && name != "deep")
            continue;
        Rule rule{};
        const unsigned long long begin = std::stoull(address, nullptr, 16);
        ASSERT_TRUE(frames->getCfaRule(begin + 6, rule.reg, rule.offset));
        EXPECT_EQ(rule, (Rule{6, 16})) << name;
        ++checked;
    }
    EXPECT_EQ(checked, 4);
}

// Cleanups bring a personality routine, and that costs the whole section.
TEST_F(RealCfiTest, AProgramWithCleanupsIsRefused) {
    if (!run("g++ --version"))
        GTEST_SKIP() << "there is no g++";
    m_directory.write("clean.cpp", R"(
        struct Guard { ~Guard(); };
        void may();
        void work(int given) { int local = given; Guard guard; may(); local += 1; (void)local; }
        Guard::~Guard() {}
        void may() { throw 1; }
        int main() { try { work(3); } catch (int) {} return 0; })");
    ASSERT_TRUE(run("g++ -w -no-pie -g -gdwarf-4 -O0 clean.cpp -o clean"));
    const std::string path = m_directory.path("clean");
    EXPECT_NE(orn_test::commandOutput("readelf --debug-dump=frames '" + path + "'").find("\"zPLR\""),
              std::string::npos);
    EXPECT_FALSE(framesOf(path));

    SymMgrObjectPtr<ISymbolManager> manager;
    ASSERT_EQ(ISymbolManager::create(manager), status_Ok);
    SymMgrObjectPtr<IModuleSymbolBank> bank;
    ASSERT_EQ(manager->loadSymbolsFromModule(path.c_str(), nullptr, bank, arch_unknown, false, nullptr),
              status_Ok);
    std::istringstream symbols(orn_test::commandOutput("nm '" + path + "' | grep ' _Z4worki$'"));
    unsigned long long begin = 0;
    symbols >> std::hex >> begin;
    SymMgrObjectPtr<IAddress> code;
    ASSERT_EQ(bank->addressFromPseudoAddress(begin + 8, code), status_Ok);
    const SymMgrObjectPtr<IStackFrameContext> frame = new StackFrameContext;
    SymMgrObjectPtr<ISymbol> variable;
    expectLog("an error occured while parsing .eh_frame section");
    EXPECT_EQ(bank->findStackVariable(code, 0x7000, frame, variable, nullptr), status_False);
}

} // namespace
} // namespace ORN_3_30::test
