// Takes a sample of a module's addresses and puts them to our command line and to the other programs.
#ifndef ORN_TEST_PEER_COMPARISON_H
#define ORN_TEST_PEER_COMPARISON_H

#include "support/peer_frames.h"
#include "support/peer_rules.h"

#include <cstdint>
#include <string>
#include <vector>

namespace orn_test {

/// What to compare. Of a module whose debug information was split off, what is left of its symbol table does
/// not tell all that is known.
struct ComparedModule {
    std::string name;     ///< for messages
    std::string compiler; ///< the word by which it is called
    std::string path;
    std::string pathForPeers = {};            ///< empty: the same
    std::string whole = {};                   ///< the module before it was split; empty: it was not
    std::vector<std::string> ourOptions = {}; ///< for our command line
};

/// Every start of a function, and code addresses at a fixed distance.
struct Sample {
    std::uint64_t stride;
    /// eu-addr2line takes many times as long as the others: it gets one in that many addresses, and every
    /// start. 0: it is not asked.
    std::size_t elfutilsShare;
};

/// Fails the running test where a program does not answer, and where our symbol at the start of a function
/// starts elsewhere.
void compareWithPeers(const ComparedModule& module, const Sample& sample, PeerLedger& ledger);

/// Compares at the given addresses alone; gives our answers. eu-addr2line gets those for which
/// `isForElfutils` is set.
std::vector<OurAnswer> compareAddresses(const ComparedModule& module, const ProgramFacts& facts,
                                        const std::vector<std::uint64_t>& addresses,
                                        const std::vector<bool>& isForElfutils, PeerLedger& ledger);

} // namespace orn_test

#endif // ORN_TEST_PEER_COMPARISON_H
