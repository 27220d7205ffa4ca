// The programs that answer the same questions as ours, asked about many addresses at once, and their answers
// in one form.
#ifndef ORN_TEST_PEER_FRAMES_H
#define ORN_TEST_PEER_FRAMES_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace orn_test {

/// One level of the calls at an address. What a program does not know is empty or 0.
struct PeerFrame {
    std::string function; ///< as a person reads it
    std::string file;     ///< in normal form
    unsigned line = 0;

    bool operator==(const PeerFrame&) const = default;
};

/// Innermost first; empty where a program knows nothing of the address.
using PeerFrames = std::vector<PeerFrame>;

enum class Peer { addr2line, llvm, elfutils };
constexpr std::array<Peer, 3> allPeers = {Peer::addr2line, Peer::llvm, Peer::elfutils};

const char* nameOf(Peer peer);
/// Whether the program can be run here.
bool isInstalled(Peer peer);

/// Starts the program once. The answers are in the order of the addresses; there are fewer if it fails.
std::vector<PeerFrames> askPeer(Peer peer, const std::string& module,
                                const std::vector<std::uint64_t>& addresses);

/// The answer of our command line to one address, with what the comparison has to know beyond the frames.
struct OurAnswer {
    PeerFrames frames;
    std::string symbol; ///< that owns the address; empty if there is none
    std::string rawSymbol;
    std::uint64_t begin = 0; ///< of the symbol
    std::uint64_t end = 0;
};

/// Our command line, `options` between the verb and the module.
std::vector<OurAnswer> askOurs(const std::string& module, const std::vector<std::uint64_t>& addresses,
                               const std::vector<std::string>& options = {});

/// Demanglers place them differently.
std::string withoutSpaces(const std::string& name);

/// Of "int ns::S<T>::f<U>(int) [clone .x]" it is "ns::S::f".
std::string qualifiedFunction(const std::string& name);

/// What all ways of writing a function have in common: of the same it is "f".
std::string plainFunction(const std::string& name);

/// One line for people.
std::string textOf(const PeerFrames& frames);

} // namespace orn_test

#endif // ORN_TEST_PEER_FRAMES_H
