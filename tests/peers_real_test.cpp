// A big program beside addr2line and llvm-symbolizer: this test program itself, of which a build that tests
// everything makes one with more than 50 MB of debug information of a version that is read (the option
// ORN_TEST_OWN_DEBUG_INFO). ORN_PEERS_MODULE names another one, and ORN_PEERS_COMPILER
// the compiler that it is from.

#include "support/peer_comparison.h"
#include "support/real_module.h"
#include "support/sanitized.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <random>
#include <string>
#include <vector>

namespace orn_test {
namespace {

struct BigModule {
    std::string path;
    std::string compiler;
    bool isReadable; ///< whether its debug information is of a version that is read
};

BigModule bigModule() {
    if (const char* path = std::getenv("ORN_PEERS_MODULE"))
        return {path, std::getenv("ORN_PEERS_COMPILER") ? std::getenv("ORN_PEERS_COMPILER") : "g++", true};
#ifdef ORN_TEST_OWN_DEBUG_INFO
    constexpr bool isReadable = true;
#else
    constexpr bool isReadable = false;
#endif
    return {std::filesystem::read_symlink("/proc/self/exe").string(), "g++", isReadable};
}

/// Each byte of a function is as likely as any other one.
std::vector<std::uint64_t> randomCode(const ProgramFacts& facts, std::size_t count) {
    const auto ranges = facts.functionRanges();
    std::uint64_t size = 0;
    for (const auto& [begin, end] : ranges)
        size += end - begin;
    std::vector<std::uint64_t> addresses;
    std::mt19937_64 random(1);
    while (addresses.size() < count && size != 0) {
        std::uint64_t offset = random() % size;
        auto range = ranges.begin();
        for (; offset >= range->second - range->first; ++range)
            offset -= range->second - range->first;
        addresses.push_back(range->first + offset);
    }
    return addresses;
}

// Takes some 20 s where this program is compiled without optimisation.
TEST(PeersRealTest, ABigProgramAnswersAsItDoesElsewhere) {
    if (isSanitized)
        GTEST_SKIP() << "about answers, not about memory";
    for (Peer peer : {Peer::addr2line, Peer::llvm}) {
        if (!isInstalled(peer))
            GTEST_SKIP() << "there is no " << nameOf(peer);
    }
    const BigModule module = bigModule();
    if (!module.isReadable)
        GTEST_SKIP() << "this program is not built with ORN_TEST_OWN_DEBUG_INFO";
    const ReadelfModule elf(module.path);
    const ElfSection* info = elf.section(".debug_info");
    ASSERT_NE(info, nullptr);
    std::cout << module.path << ": " << info->size / 1000000 << " MB of .debug_info\n";
    if (!std::getenv("ORN_PEERS_MODULE")) {
        EXPECT_GE(info->size, 50000000u);
    }

    constexpr std::size_t count = 10000;
    const ProgramFacts facts(module.compiler, elf.symbols, elf.isRelocatable);
    const std::vector<std::uint64_t> addresses = randomCode(facts, count);
    PeerLedger ledger;
    compareAddresses({.name = "big program", .compiler = module.compiler, .path = module.path}, facts,
                     addresses, std::vector<bool>(addresses.size(), false), ledger);
    std::cout << ledger.agreementText() << ledger.rulesText();
    EXPECT_EQ(ledger.unexplained(), "");
    EXPECT_EQ(ledger.overused(), "");
    for (Peer peer : {Peer::addr2line, Peer::llvm}) {
        const Agreement& agreement = ledger.with(peer);
        EXPECT_EQ(agreement.asked, count);
        // The name of a symbol where calls are expanded is a mistake of addr2line's, as LLVM's answer shows.
        EXPECT_GE(agreement.share(agreement.innermost + agreement.nameOfSymbol), 0.995) << nameOf(peer);
        EXPECT_GE(agreement.share(agreement.depth), 0.99) << nameOf(peer);
    }
}

} // namespace
} // namespace orn_test
