// A module as readelf tells it, and the comparison of its symbols with the answers of the command line.
#ifndef ORN_TEST_REAL_MODULE_H
#define ORN_TEST_REAL_MODULE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace orn_test {

struct ElfSymbol {
    std::uint64_t value;
    std::uint64_t size;
    std::string type;
    std::string binding;
    std::string section; ///< index as text, or UND, ABS, COM
    std::string name;
};

struct ElfSection {
    std::string name;
    std::string type;
    std::uint64_t address;
    std::uint64_t fileOffset;
    std::uint64_t size;
    std::string flags;

    bool has(char flag) const { return flags.find(flag) != std::string::npos; }
};

class ReadelfModule {
public:
    explicit ReadelfModule(const std::string& path);

    /// Empty for a symbol that is kept, otherwise the rule by which it is dropped.
    std::string dropRule(const ElfSymbol& symbol) const;
    /// The first section of that name; null if there is none.
    const ElfSection* section(const std::string& name) const;

    std::vector<ElfSymbol> symbols;
    std::vector<ElfSection> sections;
    bool is64Bit = false;
    bool isRelocatable = false;
    std::string machine; ///< readelf's whole line
    std::string buildId; ///< in hexadecimal; empty without one

private:
    using Range = std::pair<std::uint64_t, std::uint64_t>; ///< [first, second)
    using Ranges = std::map<std::uint64_t, std::uint64_t>; ///< ends by starts

    void readSymbols(const std::string& listing);
    void readSections(const std::string& listing);
    void readLoads(const std::string& listing);
    void readHeader(const std::string& listing);
    void collectRanges();
    void collectRangesOfText();
    std::uint64_t endOf(std::size_t index) const;
    Range load(std::size_t number) const { return number < m_loads.size() ? m_loads[number] : Range(0, 0); }

    static bool holds(const Range& range, std::uint64_t address);
    static bool isIn(const Ranges& ranges, std::uint64_t address);

    std::vector<Range> m_loads;
    Ranges m_code;
    Ranges m_data;
};

/// What became of the symbols, by rule, over all modules: printed, so that a change of the rules is seen.
using Tally = std::map<std::string, std::size_t>;

/// Looks up the start of every symbol that is kept and explains each answer.
class RealModule {
public:
    RealModule(const std::string& path, Tally& tally);

    const ReadelfModule& elf() const { return m_elf; }
    /// An answer that no rule explains is a failure of the running test.
    void check();

private:
    using Kept = std::multimap<std::uint64_t, ElfSymbol>;

    std::map<std::uint64_t, std::string> askForStarts();
    std::string explain(const std::string& answer, std::uint64_t address, Kept::const_iterator begin,
                        Kept::const_iterator end);

    std::string m_path;
    ReadelfModule m_elf;
    Tally& m_tally;
    Kept m_kept;
};

} // namespace orn_test

#endif // ORN_TEST_REAL_MODULE_H
