// Compares our answer to an address with those of other programs, and explains each difference by a rule that
// has a name. What no rule explains is a mistake: ours, or of the rules.
#ifndef ORN_TEST_PEER_RULES_H
#define ORN_TEST_PEER_RULES_H

#include "support/peer_frames.h"
#include "support/real_module.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace orn_test {

/// What the rules may know of a program beside the answers: its symbol table and how it was made.
class ProgramFacts {
public:
    /// `compiler`: the word by which it is called.
    ProgramFacts(const std::string& compiler, const std::vector<ElfSymbol>& symbols, bool isObjectFile);

    bool isFortran() const { return m_compiler == "gfortran"; }
    bool isClang() const { return m_compiler.starts_with("clang"); }
    /// Whether a function of the symbol table covers the address.
    bool isInFunction(std::uint64_t address) const { return !functionsAt(address).empty(); }
    /// Plain names of the functions of the symbol table that cover the address.
    std::set<std::string> functionsAt(std::uint64_t address) const;
    /// Whether one of those functions has the word in its mangled name.
    bool isWordOfFunctionAt(std::uint64_t address, const std::string& word) const;
    /// Plain names of the symbols that stand nearest in front of the address, or at it.
    std::set<std::string> symbolsBefore(std::uint64_t address) const;
    bool isFileSymbol(const std::string& name) const { return m_files.contains(name); }
    /// Whether this is an object file, and the name one of its symbols that are no functions.
    bool isDataOfObjectFile(const std::string& name) const { return m_dataOfObjectFile.contains(name); }
    /// Where functions start, in order.
    std::vector<std::uint64_t> functionStarts() const;
    /// [begin, end) of functions, in order and without overlaps.
    std::vector<std::pair<std::uint64_t, std::uint64_t>> functionRanges() const;

private:
    struct Function {
        std::uint64_t end;
        std::string name;
        std::string raw;
    };

    template <typename Visit>
    void visitFunctionsAt(std::uint64_t address, const Visit& visit) const;

    std::string m_compiler;
    std::multimap<std::uint64_t, Function> m_functions; ///< those with a size
    std::multimap<std::uint64_t, std::string> m_symbols;
    std::uint64_t m_longest = 0;
    std::set<std::string> m_files;
    std::set<std::string> m_dataOfObjectFile;
};

/// All answers to one address.
struct Answers {
    std::uint64_t address;
    const OurAnswer* ours;
    /// By Peer; null for a program that was not asked.
    std::array<const PeerFrames*, allPeers.size()> peers;
};

/// How often a program and we say the same.
struct Agreement {
    std::size_t asked = 0;
    std::size_t innermost = 0;    ///< function, file and line, however the function is written
    std::size_t nameOfSymbol = 0; ///< file and line; its function is the one of the symbol table
    std::size_t depth = 0;

    double share(std::size_t part) const {
        return asked ? static_cast<double>(part) / static_cast<double>(asked) : 0;
    }
};

/// What became of the comparisons, by rule.
class PeerLedger {
public:
    /// Compares with each program that was asked.
    void compare(const std::string& program, const ProgramFacts& facts, const Answers& answers);

    std::size_t comparisons() const { return m_comparisons; }
    std::size_t equal() const { return m_equal; }
    const Agreement& with(Peer peer) const { return m_agreements[static_cast<std::size_t>(peer)]; }
    /// Comparisons with answers of several levels on either side.
    std::size_t expanded() const { return m_expanded; }
    /// One line for each comparison with a difference that nothing explains; the first ones only.
    const std::string& unexplained() const { return m_unexplained; }
    /// One line for each rule that explains more than it may.
    std::string overused() const;
    /// For people: how often each rule applied, and how far each program agrees.
    std::string rulesText() const;
    std::string agreementText() const;

private:
    std::array<Agreement, allPeers.size()> m_agreements;
    std::size_t m_comparisons = 0;
    std::size_t m_equal = 0;
    std::size_t m_expanded = 0;
    std::size_t m_unexplainedCount = 0;
    std::map<std::string, std::size_t> m_counts; ///< comparisons by rule; one may need several rules
    std::string m_unexplained;
};

} // namespace orn_test

#endif // ORN_TEST_PEER_RULES_H
