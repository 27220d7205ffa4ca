// One module, one start of each program.

#include "support/peer_comparison.h"

#include "support/real_module.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace orn_test {

namespace {

const std::string& pathForPeers(const ComparedModule& module) {
    return module.pathForPeers.empty() ? module.path : module.pathForPeers;
}

/// Code of an object file: of all its sections only this one has addresses of its own, all others begin at 0
/// too.
bool isSampled(const ReadelfModule& elf, const ElfSection& section) {
    if (section.type != "PROGBITS" || !section.has('X'))
        return false;
    return !elf.isRelocatable || section.name == ".text";
}

std::vector<std::uint64_t> addressesOf(const ReadelfModule& elf, std::uint64_t stride) {
    std::vector<std::uint64_t> addresses;
    for (const ElfSection& section : elf.sections) {
        for (std::uint64_t offset = 0; isSampled(elf, section) && offset < section.size; offset += stride)
            addresses.push_back(section.address + offset);
    }
    return addresses;
}

std::vector<PeerFrames> askAll(Peer peer, const std::string& module,
                               const std::vector<std::uint64_t>& addresses) {
    std::vector<PeerFrames> answers = askPeer(peer, module, addresses);
    EXPECT_EQ(answers.size(), addresses.size()) << nameOf(peer) << " on " << module;
    answers.resize(addresses.size());
    return answers;
}

std::vector<std::uint64_t> chosen(const std::vector<std::uint64_t>& addresses,
                                  const std::vector<bool>& isChosen) {
    std::vector<std::uint64_t> kept;
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        if (isChosen[i])
            kept.push_back(addresses[i]);
    }
    return kept;
}

} // namespace

void compareWithPeers(const ComparedModule& module, const Sample& sample, PeerLedger& ledger) {
    const ReadelfModule elf(module.whole.empty() ? pathForPeers(module) : module.whole);
    const ProgramFacts facts(module.compiler, elf.symbols, elf.isRelocatable);
    std::vector<std::uint64_t> addresses = addressesOf(elf, sample.stride);
    std::vector<bool> isForElfutils;
    for (std::size_t i = 0; i < addresses.size(); ++i)
        isForElfutils.push_back(sample.elfutilsShare != 0 && i % sample.elfutilsShare == 0);
    const std::size_t sampled = addresses.size();
    if (!elf.isRelocatable) {
        for (std::uint64_t start : facts.functionStarts()) {
            addresses.push_back(start);
            isForElfutils.push_back(sample.elfutilsShare != 0);
        }
    }
    const std::vector<OurAnswer> ours = compareAddresses(module, facts, addresses, isForElfutils, ledger);
    for (std::size_t i = sampled; i < ours.size(); ++i)
        EXPECT_EQ(ours[i].begin, addresses[i]) << module.name << ": " << textOf(ours[i].frames);
}

std::vector<OurAnswer> compareAddresses(const ComparedModule& module, const ProgramFacts& facts,
                                        const std::vector<std::uint64_t>& addresses,
                                        const std::vector<bool>& isForElfutils, PeerLedger& ledger) {
    const std::string& path = pathForPeers(module);
    std::vector<OurAnswer> ours = askOurs(module.path, addresses, module.ourOptions);
    EXPECT_EQ(ours.size(), addresses.size()) << module.path;
    ours.resize(addresses.size());
    const std::vector<PeerFrames> addr2line = askAll(Peer::addr2line, path, addresses);
    const std::vector<PeerFrames> llvm = askAll(Peer::llvm, path, addresses);
    const std::vector<PeerFrames> elfutils = askAll(Peer::elfutils, path, chosen(addresses, isForElfutils));
    auto next = elfutils.begin();
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        const PeerFrames* third = isForElfutils[i] ? &*next++ : nullptr;
        ledger.compare(module.name, facts, {addresses[i], &ours[i], {&addr2line[i], &llvm[i], third}});
    }
    return ours;
}

} // namespace orn_test
