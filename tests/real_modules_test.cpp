// Every symbol of some dozens of installed programs and libraries, of both classes and several processors,
// looked up through the command line and compared with what readelf says of the same file. What is not
// answered by its own name has to be explained by a rule: symbols that are not kept (binding, type, place),
// and symbols that a stronger one covers.

#include "support/command.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/temp_dir.h"

namespace {

using orn_test::commandOutput;

struct ElfSymbol {
    std::uint64_t value;
    std::uint64_t size;
    std::string type;
    std::string binding;
    std::string section;
    std::string name;
};

struct ElfSection {
    std::string name;
    std::string type;
    std::uint64_t address;
    std::uint64_t size;
    std::string flags;

    bool has(char flag) const { return flags.find(flag) != std::string::npos; }
};

using Range = std::pair<std::uint64_t, std::uint64_t>; ///< [first, second)

std::vector<std::string> wordsOf(const std::string& line) {
    std::istringstream stream(line);
    std::vector<std::string> words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

bool isNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

/// A module as readelf tells it.
class ReadelfModule {
public:
    explicit ReadelfModule(const std::string& path) {
        readSymbols(commandOutput("readelf -sW '" + path + "' 2>/dev/null"));
        readSections(commandOutput("readelf -SW '" + path + "' 2>/dev/null"));
        readLoads(commandOutput("readelf -lW '" + path + "' 2>/dev/null"));
        const std::string header = commandOutput("readelf -hW '" + path + "' 2>/dev/null");
        is64Bit = header.find("ELF64") != std::string::npos;
        for (std::istringstream lines(header); std::getline(lines, machine);)
            if (machine.find("Machine:") != std::string::npos)
                break;
        collectRanges();
    }

    std::vector<ElfSymbol> symbols;
    bool is64Bit = false;
    std::string machine;

    /// Empty for a symbol that is kept, otherwise the rule by which it is dropped.
    std::string dropRule(const ElfSymbol& symbol) const {
        if (symbol.name.empty())
            return "no name";
        if (symbol.binding != "LOCAL" && symbol.binding != "GLOBAL" && symbol.binding != "WEAK")
            return "binding " + symbol.binding;
        if (symbol.section == "UND" || symbol.section == "COM")
            return "section " + symbol.section;
        if (symbol.type == "FUNC")
            return isIn(m_code, symbol.value) ? "" : "function outside code";
        if (symbol.type != "OBJECT" && symbol.type != "NOTYPE")
            return "type " + symbol.type;
        return isIn(m_code, symbol.value) || isIn(m_data, symbol.value) ? "" : "outside code and data";
    }

private:
    void readSymbols(const std::string& listing) {
        std::istringstream lines(listing);
        for (std::string line; std::getline(lines, line);) {
            const auto words = wordsOf(line);
            if (words.size() < 7 || words[0].back() != ':' ||
                !isNumber(words[0].substr(0, words[0].size() - 1)))
                continue;
            ElfSymbol symbol{std::stoull(words[1], nullptr, 16),
                             std::stoull(words[2], nullptr, 0),
                             words[3],
                             words[4],
                             words[6],
                             words.size() > 7 ? words[7] : ""};
            symbols.push_back(symbol);
        }
    }

    /// Fields are counted from both ends: the name may be missing, and so may the flags.
    void readSections(const std::string& listing) {
        std::istringstream lines(listing);
        for (std::string line; std::getline(lines, line);) {
            const auto open = line.find('[');
            const auto close = line.find(']');
            if (open == std::string::npos || close == std::string::npos ||
                wordsOf(line.substr(open + 1, close - open - 1)).size() != 1 ||
                !isNumber(wordsOf(line.substr(open + 1, close - open - 1))[0]))
                continue;
            const auto words = wordsOf(line.substr(close + 1));
            if (words.size() < 9) {
                m_sections.push_back({});
                continue;
            }
            m_sections.push_back({words[0], words[1], std::stoull(words[2], nullptr, 16),
                                  std::stoull(words[4], nullptr, 16), words.size() == 10 ? words[6] : ""});
        }
    }

    void readLoads(const std::string& listing) {
        std::istringstream lines(listing);
        for (std::string line; std::getline(lines, line);) {
            const auto words = wordsOf(line);
            if (words.size() > 5 && words[0] == "LOAD") {
                const std::uint64_t begin = std::stoull(words[2], nullptr, 16);
                m_loads.emplace_back(begin, begin + std::stoull(words[5], nullptr, 16));
            }
        }
    }

    Range load(std::size_t number) const { return number < m_loads.size() ? m_loads[number] : Range(0, 0); }

    static bool holds(const Range& range, std::uint64_t address) {
        return range.first <= address && address < range.second;
    }

    /// A section reaches up to the next one if both begin in the same one of the first two loads.
    std::uint64_t endOf(std::size_t index) const {
        const ElfSection& section = m_sections[index];
        const std::uint64_t end = section.address + section.size;
        if (index + 1 < m_sections.size()) {
            const std::uint64_t next = m_sections[index + 1].address;
            for (std::size_t number : {0, 1})
                if (end < next && holds(load(number), section.address) && holds(load(number), next))
                    return next;
        }
        return end;
    }

    void collectRanges() {
        for (std::size_t index = 0; index < m_sections.size(); ++index) {
            const ElfSection& section = m_sections[index];
            if (section.size == 0)
                continue;
            const std::uint64_t end = endOf(index);
            if (section.has('X'))
                m_code[section.address] = end;
            else if (section.has('W') || (section.has('A') && section.type == "PROGBITS"))
                for (std::size_t number : {1, 0})
                    if (holds(load(number), section.address) && end <= load(number).second) {
                        m_data[section.address] = end;
                        break;
                    }
            if (section.name == ".rodata")
                m_data.emplace(section.address, section.address + section.size);
        }
    }

    static bool isIn(const std::map<std::uint64_t, std::uint64_t>& ranges, std::uint64_t address) {
        auto after = ranges.upper_bound(address);
        return after != ranges.begin() && address < std::prev(after)->second;
    }

    std::vector<ElfSection> m_sections;
    std::vector<Range> m_loads;
    std::map<std::uint64_t, std::uint64_t> m_code;
    std::map<std::uint64_t, std::uint64_t> m_data;
};

/// readelf shows the version of a dynamic symbol behind its name; the name in the file's table has none.
std::string withoutVersion(const std::string& name) {
    return name.substr(0, name.find('@'));
}

int priorityOf(const ElfSymbol& symbol) {
    return symbol.type == "FUNC" ? 1 : symbol.type == "NOTYPE" ? 3 : 4;
}

/// Whether the table's ranking lets `winner` have the start of `loser`.
bool outranks(const ElfSymbol& winner, const ElfSymbol& loser) {
    if (priorityOf(winner) != priorityOf(loser))
        return priorityOf(winner) < priorityOf(loser);
    return winner.binding != "LOCAL" && loser.binding == "LOCAL";
}

/// What became of the symbols, by rule, over all modules: printed, so that a change of the rules is seen.
using Tally = std::map<std::string, std::size_t>;

class RealModule {
public:
    RealModule(const std::string& path, Tally& tally) : m_path(path), m_elf(path), m_tally(tally) {
        for (const ElfSymbol& symbol : m_elf.symbols) {
            const std::string rule = m_elf.dropRule(symbol);
            if (rule.empty())
                m_kept.emplace(symbol.value, symbol);
            else
                ++m_tally["dropped: " + rule];
        }
    }

    const ReadelfModule& elf() const { return m_elf; }

    void check() {
        const auto answers = askForStarts();
        for (auto group = m_kept.begin(); group != m_kept.end();) {
            const std::uint64_t address = group->first;
            const auto end = m_kept.upper_bound(address);
            const auto answer = answers.find(address);
            ASSERT_NE(answers.end(), answer) << m_path << ": no answer at " << std::hex << address;
            for (; group != end; ++group)
                ++m_tally[explain(answer->second, address, m_kept.lower_bound(address), end)];
        }
    }

private:
    using Kept = std::multimap<std::uint64_t, ElfSymbol>;

    std::map<std::uint64_t, std::string> askForStarts() {
        const orn_test::TempDir directory;
        const std::string list = directory.path() + "/addresses";
        {
            std::ofstream stream(list);
            for (auto it = m_kept.begin(); it != m_kept.end(); it = m_kept.upper_bound(it->first))
                stream << std::hex << it->first << "\n";
        }
        std::map<std::uint64_t, std::string> answers;
        std::istringstream lines(
            commandOutput("'" ORN_TOOL_PATH "' symbolize --json '" + m_path + "' < '" + list + "'"));
        for (std::string line; std::getline(lines, line);) {
            const auto answer = nlohmann::json::parse(line);
            const auto& symbol = answer["symbol"];
            answers[std::stoull(answer["address"].get<std::string>(), nullptr, 16)] =
                symbol.is_null() ? "" : symbol["raw"].get<std::string>();
        }
        return answers;
    }

    static bool isNamed(const ElfSymbol& symbol, const std::string& name) {
        return symbol.name == name || withoutVersion(symbol.name) == name;
    }

    std::string explain(const std::string& answer, std::uint64_t address, Kept::const_iterator begin,
                        Kept::const_iterator end) {
        for (auto it = begin; it != end; ++it)
            if (isNamed(it->second, answer))
                return "answered by a name of the table at that address";
        for (const auto& [start, symbol] : m_kept) {
            if (start > address)
                break;
            const bool covers = address < start + symbol.size;
            if (covers && isNamed(symbol, answer) &&
                std::all_of(begin, end, [&](const auto& here) { return outranks(symbol, here.second); }))
                return "covered by a stronger symbol";
        }
        ADD_FAILURE() << m_path << ": at " << std::hex << address << " the answer is '" << answer
                      << "', the table has " << begin->second.name;
        return "not explained";
    }

    std::string m_path;
    ReadelfModule m_elf;
    Tally& m_tally;
    Kept m_kept;
};

/// Up to `count` regular files of a directory that readelf finds symbols in, largest names last; links are
/// passed over, so that no module comes twice.
void addModules(std::vector<std::string>& modules, const std::string& directory, const std::string& part,
                std::size_t count) {
    std::error_code missing;
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(directory, missing)) {
        if (!entry.is_regular_file() || entry.is_symlink() || entry.file_size() > 3000000 ||
            entry.path().filename().string().find(part) == std::string::npos)
            continue;
        std::ifstream file(entry.path(), std::ios::binary);
        char magic[4] = {};
        if (file.read(magic, 4) && std::string(magic, 4) == "\177ELF")
            found.push_back(entry.path().string());
    }
    std::sort(found.begin(), found.end());
    if (found.size() > count)
        found.resize(count);
    modules.insert(modules.end(), found.begin(), found.end());
}

TEST(RealModules, EverySymbolThatIsKeptIsFoundAtItsStart) {
    std::vector<std::string> modules{ORN_LIBRARY_PATH};
    addModules(modules, "/lib/x86_64-linux-gnu", ".so", 25);
    addModules(modules, "/usr/bin", "", 15);
    addModules(modules, "/usr/arm-linux-gnueabihf/lib", ".so", 8);
    addModules(modules, "/usr/i686-linux-gnu/lib", ".so", 8);
    addModules(modules, "/usr/aarch64-linux-gnu/lib", ".so", 8);
    ASSERT_GE(modules.size(), 30U);
    Tally tally;
    std::set<std::string> machines;
    std::set<bool> classes;
    for (const auto& path : modules) {
        RealModule module(path, tally);
        machines.insert(module.elf().machine);
        classes.insert(module.elf().is64Bit);
        module.check();
    }
    for (const auto& [rule, count] : tally)
        std::cout << count << "  " << rule << "\n";
    EXPECT_GT(tally["answered by a name of the table at that address"], 10000U);
    if (std::filesystem::exists("/usr/arm-linux-gnueabihf/lib/libc.so.6")) {
        EXPECT_GE(machines.size(), 3U);
        EXPECT_EQ(2U, classes.size());
    }
}

} // namespace
